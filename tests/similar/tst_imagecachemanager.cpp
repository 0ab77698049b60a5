#include "TestMain.h"

#include "app/ReadWriteLockGuard.h"
#include "app/TLogger.h"
#include "similar/ImageCacheManager.h"

#include <QDir>
#include <QStorageInfo>
#include <QTemporaryDir>
#include <QtEndian>

#include <opencv2/core.hpp>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

Q_DECLARE_METATYPE(cv::Mat)

using namespace Qt::StringLiterals;

// A private manager on its own folder with budgets set by the test.
class CacheUnderTest : public ImageCacheManager
{
public:
    CacheUnderTest(const QString &dir, qint64 memory, qint64 disk) : ImageCacheManager(dir)
    {
        setBudgets(memory, disk);
    }
    void setBudgets(qint64 memory, qint64 disk)
    {
        ReadWriteLockGuard locker(lock, ReadWriteLockGuard::Write);
        maxMemoryUsage = memory;
        maxDiskUsage = disk;
    }
    void setMapping(bool on) { mapCacheFiles = on; }
    struct Counters
    {
        qint64 memory, disk, memoryBudget, diskBudget, held;
    };
    Counters counters() const
    {
        ReadWriteLockGuard locker(lock, ReadWriteLockGuard::Read);
        return {memoryUsed, diskUsed, maxMemoryUsage, maxDiskUsage, qint64(memoryCache.size())};
    }
    qint64 fileCount() const { return QDir(cacheDir).entryList({u"*.cache"_s}, QDir::Files).size(); }
};

namespace {
constexpr qint64 kHeader = 12;

cv::Mat pattern(int rows, int cols, int type, int seed)
{
    cv::Mat m(rows, cols, type);
    cv::RNG(quint64(seed) + 1).fill(m, cv::RNG::UNIFORM, 0, 250);
    return m;
}

// Same type, shape and bytes, whatever the row padding of either side.
bool sameBytes(const cv::Mat &a, const cv::Mat &b)
{
    const cv::Mat x = a.clone(), y = b.clone();
    return !x.empty() && x.type() == y.type() && x.size == y.size &&
           std::memcmp(x.data, y.data, x.total() * x.elemSize()) == 0;
}

QByteArray header(qint32 type, qint32 rows, qint32 cols)
{
    QByteArray bytes(12, '\0');
    qToBigEndian(type, bytes.data());
    qToBigEndian(rows, bytes.data() + 4);
    qToBigEndian(cols, bytes.data() + 8);
    return bytes;
}
} // namespace

class TestImageCacheManager : public QObject
{
    Q_OBJECT
    QTemporaryDir appDir;
    std::unique_ptr<QTemporaryDir> dir;

    int logCount(const QString &text) const
    {
        TLogger::flush();
        QFile f(appDir.filePath(u"Log/"_s + TLogger::todaysFileName()));
        return f.open(QIODevice::ReadOnly) ? int(QString::fromUtf8(f.readAll()).count(text)) : -1;
    }

private slots:
    void initTestCase() { QVERIFY(appDir.isValid() && initLogger(appDir.path())); }
    void init()
    {
        dir = std::make_unique<QTemporaryDir>();
        QVERIFY(dir->isValid());
    }

    void memoryBudget_data()
    {
        QTest::addColumn<qint64>("budget");
        QTest::addColumn<qint64>("inMemory"); // of eight 8-byte hashes
        QTest::newRow("zero: all to disk") << 0ll << 0ll;
        QTest::newRow("exactly three") << 24ll << 3ll;
        QTest::newRow("one byte short of three") << 23ll << 2ll;
    }
    void memoryBudget()
    {
        QFETCH(qint64, budget);
        QFETCH(qint64, inMemory);
        CacheUnderTest cache(dir->path(), budget, 1 << 20);
        for (int i = 0; i < 8; ++i)
            QVERIFY(cache.insert(u"/img/%1.jpg"_s.arg(i), pattern(1, 8, CV_8UC1, i)));
        const CacheUnderTest::Counters c = cache.counters();
        // Held in memory, their bytes, files, their bytes.
        QCOMPARE(QList<qint64>({c.held, c.memory, cache.fileCount(), c.disk}),
                 QList<qint64>({inMemory, 8 * inMemory, 8 - inMemory, (8 + kHeader) * (8 - inMemory)}));
        QCOMPARE(logCount(u"Memory cache is full. saving to disk instead. disk path:"_s + dir->path()),
                 qMin(5, 8 - int(inMemory)));
        for (int i = 0; i < 8; ++i) {
            cv::Mat back;
            QVERIFY(cache.get(u"/img/%1.jpg"_s.arg(i), back) && sameBytes(back, pattern(1, 8, CV_8UC1, i)));
        }
        QVERIFY(!cache.isIncomplete());
    }

    void diskFullRefusesLaterFeaturesUntilNextRun()
    {
        const cv::Mat small = pattern(1, 8, CV_8UC1, 1);
        CacheUnderTest cache(dir->path(), 0, 2 * (8 + kHeader) + 100); // two small ones fit
        QVERIFY(cache.insert(u"a"_s, small));
        QVERIFY(!cache.isIncomplete());
        QVERIFY(!cache.insert(u"large"_s, pattern(50, 60, CV_32FC1, 2)));
        QVERIFY(cache.isIncomplete());
        QVERIFY(!cache.insert(u"b"_s, small)); // would fit, refused all the same
        QCOMPARE(QList<qint64>({cache.counters().disk, cache.fileCount()}), QList<qint64>({8 + kHeader, 1}));
        cache.clear();
        QVERIFY(cache.isIncomplete());
        cache.setMaxCache();
        QVERIFY(!cache.isIncomplete());

        // One line per failing run, five over the manager's life; the first run used one.
        const QString line = u"[ImageCacheManager]: **** Disk cache is full. ****"_s;
        const int before = logCount(line);
        for (int run = 0; run < 7; ++run) {
            cache.setMaxCache();
            cache.setBudgets(0, 0);
            QVERIFY(!cache.insert(u"run%1"_s.arg(run), small));
        }
        QCOMPARE(logCount(line) - before, 4);
    }

    void roundTrip_data()
    {
        QTest::addColumn<cv::Mat>("feature");
        const cv::Mat roi = pattern(40, 50, CV_16UC3, 5)(cv::Rect(7, 3, 20, 30));
        QVERIFY(!roi.isContinuous());
        QTest::newRow("hash uchar 1x8") << pattern(1, 8, CV_8UC1, 6);
        QTest::newRow("histogram float 50x60") << pattern(50, 60, CV_32FC1, 7);
        QTest::newRow("region of a larger matrix") << roi;
        QTest::newRow("double, two channels") << pattern(3, 5, CV_64FC2, 8);
    }
    void roundTrip()
    {
        QFETCH(cv::Mat, feature);
        const cv::Mat original = feature.clone();
        const QString key = u"/Bilder/Größe 日本.jpg"_s;
        for (const qint64 memory : {qint64(1 << 24), qint64(0)}) {
            for (const bool mapped : {true, false}) {
                const QByteArray where =
                    "memory " + QByteArray::number(memory) + ", mapped " + QByteArray::number(mapped);
                CacheUnderTest cache(dir->path(), memory, 1 << 24);
                cache.setMapping(mapped);
                QVERIFY2(cache.insert(key, feature), where.constData());
                feature.setTo(0); // the cache holds its own copy
                cv::Mat back, again;
                QVERIFY2(cache.get(key, back) && sameBytes(back, original), where.constData());
                back.setTo(1); // and hands out copies
                QVERIFY2(cache.get(key, again) && sameBytes(again, original), where.constData());
                // The same key again keeps the first feature and counts it once.
                QVERIFY2(cache.insert(key, pattern(2, 2, CV_8UC1, 4)), where.constData());
                QVERIFY2(cache.get(key, again) && sameBytes(again, original), where.constData());
                const CacheUnderTest::Counters c = cache.counters();
                QCOMPARE(c.memory + c.disk,
                         qint64(original.total() * original.elemSize()) + (memory ? 0 : kHeader));
                QCOMPARE(cache.fileCount(), memory ? 0 : 1);
                cache.clear();
                original.copyTo(feature); // in place, so a region stays a region
            }
        }
    }

    void fileLayout()
    {
        CacheUnderTest cache(dir->path(), 0, 1 << 20);
        // SHA-1 of "abc" is the standard's first test vector.
        const QString path = cache.cacheFilePath(u"abc"_s);
        QCOMPARE(path, dir->filePath(u"a9993e364706816aba3e25717850c26c9cd0d89d.cache"_s));
        const cv::Mat roi = pattern(6, 9, CV_16SC1, 9)(cv::Rect(2, 1, 5, 4));
        QVERIFY(cache.insert(u"abc"_s, roi));
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray bytes = file.readAll();
        QCOMPARE(bytes.size(), kHeader + 4 * 5 * 2);
        QCOMPARE(bytes.left(12), header(CV_16SC1, 4, 5));
        for (int r = 0; r < 4; ++r)
            QVERIFY(std::memcmp(bytes.constData() + 12 + r * 10, roi.ptr(r), 10) == 0);
    }

    void refusesBadFiles_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<bool>("accepted");
        const QByteArray eight(8, 'x');
        QTest::newRow("valid, type 0") << header(CV_8UC1, 1, 8) + eight << true;
        QTest::newRow("claims 1,000,001,000 bytes") << header(CV_8UC1, 1000, 1000001) + eight << false;
        QTest::newRow("claims 1,000,000,004 bytes") << header(CV_32FC1, 1, 250000001) + eight << false;
        QTest::newRow("rows x cols overflows") << header(CV_64FC4, 2147483647, 2147483647) + eight << false;
        QTest::newRow("zero rows") << header(CV_8UC1, 0, 8) << false;
        QTest::newRow("negative cols") << header(CV_8UC1, 1, -8) + eight << false;
        QTest::newRow("negative type") << header(-1, 1, 8) + eight << false;
        QTest::newRow("type beyond OpenCV's range") << header(4096, 1, 8) + eight << false;
        QTest::newRow("data cut short") << header(CV_8UC1, 1, 8) + eight.left(7) << false;
        QTest::newRow("header cut short") << header(CV_8UC1, 1, 8).left(10) << false;
        QTest::newRow("trailing bytes") << header(CV_8UC1, 1, 8) + eight + 'y' << false;
    }
    void refusesBadFiles()
    {
        QFETCH(QByteArray, content);
        QFETCH(bool, accepted);
        for (const bool mapped : {true, false}) {
            CacheUnderTest cache(dir->path(), 1 << 20, 1 << 20);
            cache.setMapping(mapped);
            QFile file(cache.cacheFilePath(u"k"_s));
            QVERIFY(file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
            file.close();
            cv::Mat out = pattern(2, 2, CV_8UC1, 10);
            const cv::Mat before = out.clone();
            QCOMPARE(cache.get(u"k"_s, out), accepted);
            // Refused files leave the output as it was.
            QVERIFY(sameBytes(out, accepted ? cv::Mat(1, 8, CV_8UC1, cv::Scalar('x')) : before));
        }
    }

    void refusesUnstorableFeatures()
    {
        CacheUnderTest cache(dir->path(), 0, 1 << 20);
        const int sizes[] = {4, 4, 4};
        QVERIFY(!cache.insert(u"empty"_s, cv::Mat()));
        QVERIFY(!cache.insert(u"three-dimensional"_s, cv::Mat(3, sizes, CV_32FC1, cv::Scalar(1))));
        QCOMPARE(QList<qint64>({cache.counters().disk, cache.fileCount()}), QList<qint64>({0, 0}));
        cv::Mat out;
        QVERIFY(!cache.get(u"never inserted"_s, out) && out.empty());
    }

    void clearRemovesCacheFilesOnly()
    {
        CacheUnderTest cache(dir->path(), 20, 1 << 20);
        for (int i = 0; i < 5; ++i)
            QVERIFY(cache.insert(u"k%1"_s.arg(i), pattern(1, 8, CV_8UC1, i)));
        QVERIFY(cache.counters().memory > 0 && cache.counters().disk > 0);
        QFile keep(dir->filePath(u"keep.txt"_s));
        QVERIFY(keep.open(QIODevice::WriteOnly));
        keep.close();
        QVERIFY(QDir(dir->path()).mkdir(u"folder.cache"_s));
        cache.clear();
        QCOMPARE(QList<qint64>({cache.fileCount(), cache.counters().memory, cache.counters().disk}),
                 QList<qint64>({0, 0, 0}));
        QVERIFY(keep.exists() && QDir(dir->filePath(u"folder.cache"_s)).exists());
        cv::Mat out;
        for (int i = 0; i < 5; ++i)
            QVERIFY(!cache.get(u"k%1"_s.arg(i), out));
        QVERIFY(logCount(u"[ImageCacheManager]: ImageCacheManager: Cache cleared."_s) > 0);
    }

    void leftoverFilesAreRemovedAtStart()
    {
        const QString key = u"/same/path.jpg"_s;
        auto crashed = std::make_unique<CacheUnderTest>(dir->path(), 0, 1 << 20);
        QVERIFY(crashed->insert(key, pattern(50, 60, CV_32FC1, 11)));
        crashed.reset(); // no clear(), as after a crash
        QCOMPARE(QDir(dir->path()).entryList({u"*.cache"_s}, QDir::Files).size(), 1);
        CacheUnderTest cache(dir->path(), 0, 1 << 20);
        QCOMPARE(cache.fileCount(), 0);
        const cv::Mat fresh = pattern(1, 8, CV_8UC1, 12);
        cv::Mat back;
        QVERIFY(cache.insert(key, fresh) && cache.get(key, back) && sameBytes(back, fresh));
    }

    void budgetsAndTheirFallback()
    {
        CacheUnderTest cache(dir->path(), 0, 0);
        QVERIFY(QDir(dir->path()).removeRecursively());
        cache.setMaxCache();
        QVERIFY(QDir(dir->path()).exists()); // recreated for the new run
        const CacheUnderTest::Counters c = cache.counters();
        QVERIFY(c.memoryBudget > 0 && c.diskBudget > 0);
        QVERIFY(c.diskBudget <= QStorageInfo(dir->path()).bytesTotal() * 85 / 100);
        QVERIFY(logCount(u"[ImageCacheManager]: setMaxCache, maxMemoryUsage: %1 MB, maxDiskUsage: %2 MB"_s
                             .arg(c.memoryBudget / 1048576)
                             .arg(c.diskBudget / 1048576)) > 0);

        // A file where the folder should be: nothing can be created or measured there.
        QFile blocker(dir->filePath(u"blocker"_s));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        const QString folder = dir->filePath(u"blocker/cache"_s);
        CacheUnderTest blocked(folder, 0, 1 << 20); // its constructor measures once
        QCOMPARE(logCount(u"[ImageCacheManager]: Invalid or unavailable storage path: "_s + folder + u'.'),
                 1);
        QVERIFY(!blocked.isIncomplete());
        QVERIFY(!blocked.insert(u"k"_s, pattern(1, 8, CV_8UC1, 13)));
        QCOMPARE(blocked.counters().disk, 0); // the reservation was given back
        QVERIFY(blocked.isIncomplete());      // a lost feature is reported like a full disk
        blocked.setMaxCache();
        QVERIFY(!blocked.isIncomplete());
        QCOMPARE(blocked.counters().diskBudget, 912680550ll); // 85 % of 1 GiB
    }

    void concurrentInsertAndGet_data()
    {
        QTest::addColumn<qint64>("diskBudget");
        QTest::addColumn<bool>("allStored");
        QTest::newRow("memory then disk") << qint64(1 << 24) << true;
        QTest::newRow("disk runs out") << 40 * (64 + kHeader) + 10 << false;
    }
    void concurrentInsertAndGet()
    {
        QFETCH(qint64, diskBudget);
        QFETCH(bool, allStored);
        constexpr int threads = 8, perThread = 40, bytes = 64;
        CacheUnderTest cache(dir->path(), 100 * bytes, diskBudget);
        std::atomic<int> wrong{0}, stored{0};
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t) {
            workers.emplace_back([&, t] {
                for (int i = 0; i < perThread; ++i) {
                    const int id = t * perThread + i;
                    stored += cache.insert(u"k%1"_s.arg(id), pattern(1, bytes, CV_8UC1, id)) ? 1 : 0;
                    // Whatever the neighbour thread has stored so far must read back intact.
                    const int other = ((t + 1) % threads) * perThread + i;
                    cv::Mat out;
                    if (cache.get(u"k%1"_s.arg(other), out) &&
                        !sameBytes(out, pattern(1, bytes, CV_8UC1, other)))
                        ++wrong;
                    (void)cache.isIncomplete();
                }
            });
        }
        for (std::thread &w : workers)
            w.join();
        QCOMPARE(wrong.load(), 0);
        const CacheUnderTest::Counters c = cache.counters();
        QCOMPARE(c.held, 100);
        QCOMPARE(c.memory, 100 * bytes);
        const qint64 onDisk = stored.load() - 100;
        QCOMPARE(cache.fileCount(), onDisk);
        QCOMPARE(c.disk, onDisk * (bytes + kHeader));
        QVERIFY(c.disk <= diskBudget);
        QCOMPARE(stored.load() == threads * perThread, allStored);
        QCOMPARE(cache.isIncomplete(), !allStored);
        int readable = 0;
        for (int id = 0; id < threads * perThread; ++id) {
            cv::Mat out;
            readable += cache.get(u"k%1"_s.arg(id), out) && sameBytes(out, pattern(1, bytes, CV_8UC1, id));
        }
        QCOMPARE(readable, stored.load());
    }
};

TWINFOLD_TEST_MAIN(TestImageCacheManager)
#include "tst_imagecachemanager.moc"
