#include "TestMain.h"
#include "TodaysLog.h"

#include "app/TLogger.h"
#include "similar/ImageCacheManager.h"

#include <opencv2/core.hpp>

#include <atomic>
#include <thread>
#include <vector>

Q_DECLARE_METATYPE(cv::Mat)

using namespace Qt::StringLiterals;
using Usage = QList<qint64>;

// A private manager on its own folder with budgets set by the test, which reads and sets them only
// while no other thread uses the manager.
class CacheUnderTest : public ImageCacheManager
{
public:
    CacheUnderTest(const QString &dir, qint64 mem, qint64 disk, bool mapped = true) : ImageCacheManager(dir)
    {
        setBudgets(mem, disk);
        mapCacheFiles = mapped;
    }
    void setBudgets(qint64 memory, qint64 disk) { maxMemoryUsage = memory, maxDiskUsage = disk; }
    std::pair<qint64, qint64> budgets() const { return {maxMemoryUsage, maxDiskUsage}; }
    // Features held in memory, their bytes, cache files, their bytes.
    Usage usage() const
    {
        return {memoryCache.size(), memoryUsed, QDir(cacheDir).entryList({u"*.cache"_s}, QDir::Files).size(),
                diskUsed};
    }
};

namespace {
constexpr qint64 kHeader = 12;

cv::Mat pattern(int rows, int cols, int type, int seed)
{
    cv::Mat m(rows, cols, type);
    cv::RNG(quint64(seed) + 1).fill(m, cv::RNG::UNIFORM, 0, 250);
    return m;
}
cv::Mat hash(int seed)
{
    return pattern(1, 8, CV_8UC1, seed);
}
QString key(int i)
{
    return u"/img/%1.jpg"_s.arg(i);
}
bool touch(const QString &path)
{
    return QFile(path).open(QIODevice::WriteOnly);
}

// Same type, shape and values, whatever the row padding of either side.
bool sameBytes(const cv::Mat &a, const cv::Mat &b)
{
    return !a.empty() && a.type() == b.type() && a.size == b.size && cv::norm(a, b, cv::NORM_INF) == 0;
}
bool readsBack(ImageCacheManager &cache, const QString &k, const cv::Mat &expected)
{
    cv::Mat out;
    return cache.get(k, out) && sameBytes(out, expected);
}

QByteArray header(qint32 type, qint32 rows, qint32 cols)
{
    QByteArray bytes;
    QDataStream(&bytes, QIODevice::WriteOnly) << type << rows << cols;
    return bytes;
}
} // namespace

class TestImageCacheManager : public QObject
{
    Q_OBJECT
    QTemporaryDir appDir;
    std::unique_ptr<QTemporaryDir> dir;

    int logCount(const QString &text) const { return int(todaysLog(appDir.path()).count(text)); }

private slots:
    void initTestCase() { QVERIFY(appDir.isValid() && initLogger(appDir.path())); }
    void init() { QVERIFY((dir = std::make_unique<QTemporaryDir>())->isValid()); }

    void budgets_data()
    {
        QTest::addColumn<qint64>("memory");
        QTest::addColumn<qint64>("disk");
        QTest::addColumn<Usage>("usage"); // after eight 8-byte hashes, each a 20-byte file on disk
        QTest::newRow("all to disk") << qint64(0) << qint64(1 << 20) << Usage{0, 0, 8, 160};
        QTest::newRow("exactly three in memory") << qint64(24) << qint64(1 << 20) << Usage{3, 24, 5, 100};
        QTest::newRow("one byte short of three") << qint64(23) << qint64(1 << 20) << Usage{2, 16, 6, 120};
        QTest::newRow("exactly two on disk") << qint64(0) << qint64(40) << Usage{0, 0, 2, 40};
        QTest::newRow("one byte short of two") << qint64(0) << qint64(39) << Usage{0, 0, 1, 20};
        QTest::newRow("both full") << qint64(8) << qint64(20) << Usage{1, 8, 1, 20};
    }
    void budgets()
    {
        QFETCH(qint64, memory);
        QFETCH(qint64, disk);
        QFETCH(Usage, usage);
        const qint64 stored = usage[0] + usage[2];
        CacheUnderTest cache(dir->path(), memory, disk);
        for (int i = 0; i < 8; ++i)
            QCOMPARE(cache.insert(key(i), hash(i)), i < stored);
        QCOMPARE(cache.usage(), usage);
        QCOMPARE(cache.isIncomplete(), stored < 8);
        QCOMPARE(logCount(u"Memory cache is full. saving to disk instead. disk path:"_s + dir->path()),
                 qMin<qint64>(5, 8 - usage[0]));
        for (int i = 0; i < 8; ++i)
            QCOMPARE(readsBack(cache, key(i), hash(i)), i < stored);
        // A full disk takes nothing more in this run, even once there is room.
        cache.clear();
        cache.setBudgets(0, 1 << 20);
        QCOMPARE(cache.insert(u"late"_s, hash(9)), stored == 8);
        QCOMPARE(cache.isIncomplete(), stored < 8);
        // Every run starts afresh; one line per failing run, five over the manager's life.
        const QString fullLine = u"[ImageCacheManager]: **** Disk cache is full. ****"_s;
        const int before = logCount(fullLine);
        for (int run = 0; run < 7; ++run) {
            cache.setMaxCache();
            QVERIFY(!cache.isIncomplete());
            cache.setBudgets(0, 0);
            QVERIFY(!cache.insert(key(run), hash(1)));
        }
        QCOMPARE(logCount(fullLine) - before, stored < 8 ? 4 : 5);
    }

    void roundTrip_data()
    {
        QTest::addColumn<cv::Mat>("feature");
        QTest::addColumn<int>("where");
        const char *places[] = {"memory", "mapped file", "read file"};
        for (int where = 0; where < 3; ++where) {
            QTest::addRow("hash, %s", places[where]) << hash(6) << where;
            QTest::addRow("region of a larger matrix, %s", places[where])
                << cv::Mat(pattern(40, 50, CV_16UC3, 5), cv::Rect(7, 3, 20, 30)) << where;
        }
    }
    void roundTrip()
    {
        QFETCH(cv::Mat, feature);
        QFETCH(int, where);
        const cv::Mat original = feature.clone();
        const QString key = u"/Bilder/Größe 日本.jpg"_s;
        CacheUnderTest cache(dir->path(), where == 0 ? 1 << 24 : 0, 1 << 24, where == 1);
        QVERIFY(cache.insert(key, feature));
        feature.setTo(0); // the cache holds its own copy
        cv::Mat back;
        QVERIFY(cache.get(key, back) && sameBytes(back, original));
        back.setTo(1); // and hands out copies
        // The same key again keeps the first feature and counts it once.
        QVERIFY(cache.insert(key, hash(4)) && readsBack(cache, key, original));
        const qint64 bytes = qint64(original.total() * original.elemSize());
        QCOMPARE(cache.usage(), where == 0 ? Usage({1, bytes, 0, 0}) : Usage({0, 0, 1, bytes + kHeader}));
    }

    void fileLayout()
    {
        CacheUnderTest cache(dir->path(), 0, 1 << 20);
        // SHA-1 of "abc" is the standard's first test vector.
        QFile file(cache.cacheFilePath(u"abc"_s));
        QCOMPARE(file.fileName(), dir->filePath(u"a9993e364706816aba3e25717850c26c9cd0d89d.cache"_s));
        const cv::Mat roi = pattern(6, 9, CV_16SC1, 9)(cv::Rect(2, 1, 5, 4));
        QVERIFY(cache.insert(u"abc"_s, roi) && file.open(QIODevice::ReadOnly));
        QByteArray expected = QByteArray::fromHex("000000030000000400000005"); // CV_16SC1, rows, columns
        for (int r = 0; r < 4; ++r)
            expected += QByteArray(reinterpret_cast<const char *>(roi.ptr(r)), 10);
        QCOMPARE(file.readAll(), expected);
        const int sizes[] = {4, 4, 4};
        QVERIFY(!cache.insert(u"empty"_s, cv::Mat()));
        QVERIFY(!cache.insert(u"three-dimensional"_s, cv::Mat(3, sizes, CV_32FC1, cv::Scalar(1))));
        QCOMPARE(cache.usage(), Usage({0, 0, 1, expected.size()}));
    }

    void refusesBadFiles_data()
    {
        QTest::addColumn<QByteArray>("content"); // null: no file at all
        QTest::addColumn<bool>("accepted");
        const QByteArray eight(8, 'x');
        QTest::newRow("valid, type 0") << header(CV_8UC1, 1, 8) + eight << true;
        QTest::newRow("no file") << QByteArray() << false;
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
            CacheUnderTest cache(dir->path(), 1 << 20, 1 << 20, mapped);
            QFile file(cache.cacheFilePath(u"k"_s));
            QVERIFY(content.isNull() || (file.open(QIODevice::WriteOnly) && file.write(content) > 0));
            file.close();
            cv::Mat out = hash(10);
            QCOMPARE(cache.get(u"k"_s, out), accepted);
            // Refused files leave the output as it was.
            QVERIFY(sameBytes(out, accepted ? cv::Mat(1, 8, CV_8UC1, cv::Scalar('x')) : hash(10)));
        }
    }

    void startAndClearRemoveCacheFilesOnly()
    {
        QVERIFY(touch(dir->filePath(u"keep.txt"_s)) && QDir(dir->path()).mkdir(u"folder.cache"_s));
        {
            CacheUnderTest crashed(dir->path(), 0, 1 << 20); // gone without clear(), as after a crash
            QVERIFY(crashed.insert(key(4), pattern(50, 60, CV_32FC1, 11)));
        }
        CacheUnderTest cache(dir->path(), 20, 1 << 20);
        QCOMPARE(cache.usage(), Usage({0, 0, 0, 0}));
        for (int i = 0; i < 5; ++i)
            QVERIFY(cache.insert(key(i), hash(i)));
        QVERIFY(readsBack(cache, key(4), hash(4))); // on disk, and not the leftover
        cache.clear();
        QCOMPARE(cache.usage(), Usage({0, 0, 0, 0}));
        QVERIFY(QFile::exists(dir->filePath(u"keep.txt"_s)) &&
                QDir(dir->filePath(u"folder.cache"_s)).exists());
        cv::Mat out;
        QVERIFY(!cache.get(key(0), out) && !cache.get(key(4), out));
        QVERIFY(logCount(u"[ImageCacheManager]: ImageCacheManager: Cache cleared."_s) > 0);
    }

    void budgetsFromTheSystemAndTheirFallback()
    {
        CacheUnderTest cache(dir->path(), 0, 0);
        QVERIFY(QDir(dir->path()).removeRecursively());
        cache.setMaxCache();
        QVERIFY(QDir(dir->path()).exists()); // recreated for the new run
        const auto [memory, disk] = cache.budgets();
        QVERIFY(memory > 0 && disk > 0 && disk <= QStorageInfo(dir->path()).bytesTotal() * 85 / 100);
        QVERIFY(logCount(u"[ImageCacheManager]: setMaxCache, maxMemoryUsage: %1 MB, maxDiskUsage: %2 MB"_s
                             .arg(memory / 1048576)
                             .arg(disk / 1048576)) > 0);
        // A file where the folder should be: nothing can be created or measured there.
        QVERIFY(touch(dir->filePath(u"blocker"_s)));
        const QString folder = dir->filePath(u"blocker/cache"_s);
        CacheUnderTest blocked(folder, 0, 1 << 20); // its constructor measures once
        QCOMPARE(logCount(u"[ImageCacheManager]: Invalid or unavailable storage path: "_s + folder + u'.'),
                 1);
        QVERIFY(!blocked.isIncomplete() && !blocked.insert(u"k"_s, hash(13)));
        QCOMPARE(blocked.usage(), Usage({0, 0, 0, 0})); // the reservation was given back
        QVERIFY(blocked.isIncomplete());                // a lost feature is reported like a full disk
        blocked.setMaxCache();
        QVERIFY(!blocked.isIncomplete());
        QCOMPARE(blocked.budgets().second, 912680550ll); // 85 % of 1 GiB
    }

    void concurrentInsertAndGet_data()
    {
        QTest::addColumn<qint64>("diskBudget");
        QTest::addColumn<qint64>("onDisk"); // of the 220 that do not fit in memory
        QTest::newRow("memory then disk") << qint64(1 << 24) << 220ll;
        QTest::newRow("disk runs out") << 40 * (64 + kHeader) + 10 << 40ll;
    }
    void concurrentInsertAndGet()
    {
        QFETCH(qint64, diskBudget);
        QFETCH(qint64, onDisk);
        constexpr int threads = 8, perThread = 40, bytes = 64;
        const auto feature = [](int id) { return pattern(1, bytes, CV_8UC1, id); };
        CacheUnderTest cache(dir->path(), 100 * bytes, diskBudget);
        std::atomic<int> wrong{0}, stored{0};
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t) {
            workers.emplace_back([&, t] {
                for (int i = 0; i < perThread; ++i) {
                    const int id = t * perThread + i, other = ((t + 1) % threads) * perThread + i;
                    stored += cache.insert(key(id), feature(id));
                    // Whatever the neighbour thread has stored so far must read back intact.
                    cv::Mat out;
                    wrong += cache.get(key(other), out) && !sameBytes(out, feature(other));
                    (void)cache.isIncomplete();
                }
            });
        }
        for (std::thread &w : workers)
            w.join();
        QCOMPARE(wrong.load(), 0);
        QCOMPARE(stored.load(), 100 + onDisk);
        QCOMPARE(cache.usage(), Usage({100, 100 * bytes, onDisk, onDisk * (bytes + kHeader)}));
        QCOMPARE(cache.isIncomplete(), onDisk < 220);
        int readable = 0;
        for (int id = 0; id < threads * perThread; ++id)
            readable += readsBack(cache, key(id), feature(id));
        QCOMPARE(readable, stored.load());
    }
};

TWINFOLD_TEST_MAIN(TestImageCacheManager)
#include "tst_imagecachemanager.moc"
