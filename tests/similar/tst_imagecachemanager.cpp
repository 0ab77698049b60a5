#include "TestMain.h"

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
        maxMemoryUsage = memory;
        maxDiskUsage = disk;
    }
    using ImageCacheManager::setMaxCache;
    void setBudgets(qint64 memory, qint64 disk)
    {
        QWriteLocker locker(&lock);
        maxMemoryUsage = memory;
        maxDiskUsage = disk;
    }
    void setMapping(bool on) { mapCacheFiles = on; }
    qint64 memoryBytes() const
    {
        return locked([this] { return memoryUsed; });
    }
    qint64 diskBytes() const
    {
        return locked([this] { return diskUsed; });
    }
    qint64 diskBudget() const
    {
        return locked([this] { return maxDiskUsage; });
    }
    qint64 memoryBudget() const
    {
        return locked([this] { return maxMemoryUsage; });
    }
    qint64 heldInMemory() const
    {
        return locked([this] { return qint64(memoryCache.size()); });
    }
    qint64 fileCount() const { return QDir(cacheDir).entryList({u"*.cache"_s}, QDir::Files).size(); }

private:
    template <typename Read> qint64 locked(Read read) const
    {
        QReadLocker locker(&lock);
        return read();
    }
};

class TestImageCacheManager : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void memoryBudget_data();
    void memoryBudget();
    void diskFullRefusesLaterFeaturesUntilNextRun();
    void sameKeyTwice_data();
    void sameKeyTwice();
    void roundTrip_data();
    void roundTrip();
    void fileLayout();
    void refusesBadFiles_data();
    void refusesBadFiles();
    void refusesUnstorableFeatures();
    void clearRemovesCacheFilesOnly();
    void leftoverFilesAreRemovedAtStart();
    void unusableFolderFallsBack();
    void budgetsFollowTheSystem();
    void concurrentInsertAndGet_data();
    void concurrentInsertAndGet();

private:
    int logCount(const QString &text) const;
    QTemporaryDir appDir;
    std::unique_ptr<QTemporaryDir> dir;
};

namespace {
constexpr qint64 kHeader = 12;

cv::Mat pattern(int rows, int cols, int type, int seed)
{
    cv::Mat m(rows, cols, type);
    cv::RNG rng(quint64(seed) + 1);
    rng.fill(m, cv::RNG::UNIFORM, 0, 250);
    return m;
}

qint64 dataSize(const cv::Mat &m)
{
    return qint64(m.total() * m.elemSize());
}

// Same type, shape and bytes, whatever the row padding of either side.
bool sameBytes(const cv::Mat &a, const cv::Mat &b)
{
    if (a.type() != b.type() || a.rows != b.rows || a.cols != b.cols)
        return false;
    const size_t rowBytes = size_t(a.cols) * a.elemSize();
    for (int r = 0; r < a.rows; ++r)
        if (std::memcmp(a.ptr(r), b.ptr(r), rowBytes) != 0)
            return false;
    return true;
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

void TestImageCacheManager::initTestCase()
{
    QVERIFY(appDir.isValid());
    QVERIFY(initLogger(appDir.path()));
}

void TestImageCacheManager::init()
{
    dir = std::make_unique<QTemporaryDir>();
    QVERIFY(dir->isValid());
}

int TestImageCacheManager::logCount(const QString &text) const
{
    TLogger::flush();
    QFile f(appDir.filePath(u"Log/"_s + TLogger::todaysFileName()));
    return f.open(QIODevice::ReadOnly) ? int(QString::fromUtf8(f.readAll()).count(text)) : -1;
}

void TestImageCacheManager::memoryBudget_data()
{
    QTest::addColumn<qint64>("memoryBudget");
    QTest::addColumn<int>("inMemory");
    // Eight 1x8 hashes of 8 bytes each.
    QTest::newRow("zero: all to disk") << 0ll << 0;
    QTest::newRow("exactly three") << 24ll << 3;
    QTest::newRow("one byte short of three") << 23ll << 2;
    QTest::newRow("room for all") << 1000ll << 8;
}

void TestImageCacheManager::memoryBudget()
{
    QFETCH(qint64, memoryBudget);
    QFETCH(int, inMemory);
    CacheUnderTest cache(dir->path(), memoryBudget, 1 << 20);
    for (int i = 0; i < 8; ++i)
        QVERIFY(cache.insert(u"/img/%1.jpg"_s.arg(i), pattern(1, 8, CV_8UC1, i)));
    QCOMPARE(cache.heldInMemory(), inMemory);
    QCOMPARE(cache.memoryBytes(), 8ll * inMemory);
    QCOMPARE(cache.fileCount(), 8 - inMemory);
    QCOMPARE(cache.diskBytes(), (8 + kHeader) * (8 - inMemory));
    QCOMPARE(logCount(u"Memory cache is full. saving to disk instead. disk path:"_s + dir->path()),
             qMin(5, 8 - inMemory));
    for (int i = 0; i < 8; ++i) {
        cv::Mat back;
        QVERIFY(cache.get(u"/img/%1.jpg"_s.arg(i), back));
        QVERIFY(sameBytes(back, pattern(1, 8, CV_8UC1, i)));
    }
    QVERIFY(!cache.isIncomplete());
}

void TestImageCacheManager::diskFullRefusesLaterFeaturesUntilNextRun()
{
    const cv::Mat small = pattern(1, 8, CV_8UC1, 1);
    const cv::Mat large = pattern(50, 60, CV_32FC1, 2);
    // Room for two small files but not for the large one.
    CacheUnderTest cache(dir->path(), 0, 2 * (8 + kHeader) + 100);
    QVERIFY(cache.insert(u"a"_s, small));
    QVERIFY(!cache.isIncomplete());
    QVERIFY(!cache.insert(u"large"_s, large));
    QVERIFY(cache.isIncomplete());
    QVERIFY(!cache.insert(u"b"_s, small)); // would fit, refused all the same
    QCOMPARE(cache.diskBytes(), 8 + kHeader);
    QCOMPARE(cache.fileCount(), 1);
    cv::Mat back;
    QVERIFY(!cache.get(u"b"_s, back));
    cache.clear();
    QVERIFY(cache.isIncomplete());
    cache.setMaxCache();
    QVERIFY(!cache.isIncomplete());
    QVERIFY(cache.diskBudget() > 0);

    // Each failing run logs the full disk once, five times at most over the manager's life.
    const QString line = u"[ImageCacheManager]: **** Disk cache is full. ****"_s;
    const int before = logCount(line);
    for (int run = 0; run < 7; ++run) {
        cache.setMaxCache();
        cache.setBudgets(0, 0);
        QVERIFY(!cache.insert(u"run%1"_s.arg(run), small));
    }
    QCOMPARE(logCount(line) - before, 4); // one of the five went to the first run
}

void TestImageCacheManager::sameKeyTwice_data()
{
    QTest::addColumn<qint64>("memoryBudget");
    QTest::newRow("in memory") << qint64(1 << 20);
    QTest::newRow("on disk") << 0ll;
}

void TestImageCacheManager::sameKeyTwice()
{
    QFETCH(qint64, memoryBudget);
    CacheUnderTest cache(dir->path(), memoryBudget, 1 << 20);
    const cv::Mat first = pattern(50, 60, CV_32FC1, 3);
    QVERIFY(cache.insert(u"/x.png"_s, first));
    QVERIFY(cache.insert(u"/x.png"_s, pattern(50, 60, CV_32FC1, 4)));
    QCOMPARE(cache.memoryBytes() + cache.diskBytes(), dataSize(first) + (memoryBudget ? 0 : kHeader));
    QCOMPARE(cache.fileCount(), memoryBudget ? 0 : 1);
    cv::Mat back;
    QVERIFY(cache.get(u"/x.png"_s, back));
    QVERIFY(sameBytes(back, first));
}

void TestImageCacheManager::roundTrip_data()
{
    QTest::addColumn<cv::Mat>("feature");
    const cv::Mat big = pattern(40, 50, CV_16UC3, 5);
    const cv::Mat roi = big(cv::Rect(7, 3, 20, 30));
    QVERIFY(!roi.isContinuous());
    QTest::newRow("hash uchar 1x8") << pattern(1, 8, CV_8UC1, 6);
    QTest::newRow("histogram float 50x60") << pattern(50, 60, CV_32FC1, 7);
    QTest::newRow("region of a larger matrix") << roi;
    QTest::newRow("double, two channels") << pattern(3, 5, CV_64FC2, 8);
}

void TestImageCacheManager::roundTrip()
{
    QFETCH(cv::Mat, feature);
    const cv::Mat original = feature.clone();
    const QString key = u"/Bilder/Größe 日本.jpg"_s;
    for (const qint64 memory : {qint64(1 << 24), qint64(0)}) {
        for (const bool mapped : {true, false}) {
            const QString where = u"memory budget %1, mapping %2"_s.arg(memory).arg(mapped);
            CacheUnderTest cache(dir->path(), memory, 1 << 24);
            cache.setMapping(mapped);
            QVERIFY2(cache.insert(key, feature), qPrintable(where));
            feature.setTo(0); // the cache must hold its own copy
            cv::Mat back;
            QVERIFY2(cache.get(key, back), qPrintable(where));
            QVERIFY2(sameBytes(back, original), qPrintable(where));
            back.setTo(1);
            cv::Mat again;
            QVERIFY2(cache.get(key, again) && sameBytes(again, original), qPrintable(where));
            QCOMPARE(cache.fileCount(), memory ? 0 : 1);
            cache.clear();
            original.copyTo(feature); // in place, so a region stays a region
        }
    }
}

void TestImageCacheManager::fileLayout()
{
    CacheUnderTest cache(dir->path(), 0, 1 << 20);
    // SHA-1 of "abc" is the standard's first test vector.
    QCOMPARE(cache.cacheFilePath(u"abc"_s),
             QDir(dir->path()).filePath(u"a9993e364706816aba3e25717850c26c9cd0d89d.cache"_s));
    const cv::Mat roi = pattern(6, 9, CV_16SC1, 9)(cv::Rect(2, 1, 5, 4));
    QVERIFY(cache.insert(u"abc"_s, roi));
    QFile file(cache.cacheFilePath(u"abc"_s));
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray bytes = file.readAll();
    QCOMPARE(bytes.size(), kHeader + 4 * 5 * 2);
    QCOMPARE(bytes.left(12), header(CV_16SC1, 4, 5));
    for (int r = 0; r < 4; ++r)
        QVERIFY(std::memcmp(bytes.constData() + 12 + r * 10, roi.ptr(r), 10) == 0);
}

void TestImageCacheManager::refusesBadFiles_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("accepted");
    const QByteArray eight(8, 'x');
    QTest::newRow("valid, type 0") << header(CV_8UC1, 1, 8) + eight << true;
    QTest::newRow("claims 1,000,001,000 bytes") << header(CV_8UC1, 1000, 1000001) + eight << false;
    QTest::newRow("claims 1,000,000,004 float bytes") << header(CV_32FC1, 1, 250000001) + eight << false;
    QTest::newRow("rows x cols overflows") << header(CV_64FC4, 2147483647, 2147483647) + eight << false;
    QTest::newRow("zero rows") << header(CV_8UC1, 0, 8) << false;
    QTest::newRow("zero cols") << header(CV_8UC1, 8, 0) << false;
    QTest::newRow("negative rows") << header(CV_8UC1, -1, 8) + eight << false;
    QTest::newRow("negative cols") << header(CV_8UC1, 1, -8) + eight << false;
    QTest::newRow("negative type") << header(-1, 1, 8) + eight << false;
    QTest::newRow("type beyond OpenCV's range") << header(4096, 1, 8) + eight << false;
    QTest::newRow("data cut short") << header(CV_8UC1, 1, 8) + eight.left(7) << false;
    QTest::newRow("header cut short") << header(CV_8UC1, 1, 8).left(10) << false;
    QTest::newRow("empty file") << QByteArray() << false;
    QTest::newRow("trailing bytes") << header(CV_8UC1, 1, 8) + eight + 'y' << false;
}

void TestImageCacheManager::refusesBadFiles()
{
    QFETCH(QByteArray, content);
    QFETCH(bool, accepted);
    for (const bool mapped : {true, false}) {
        CacheUnderTest cache(dir->path(), 1 << 20, 1 << 20);
        cache.setMapping(mapped);
        QFile file(cache.cacheFilePath(u"k"_s));
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(file.write(content), content.size());
        file.close();
        cv::Mat out = pattern(2, 2, CV_8UC1, 10);
        const cv::Mat before = out.clone();
        QCOMPARE(cache.get(u"k"_s, out), accepted);
        if (accepted)
            QVERIFY(sameBytes(out, cv::Mat(1, 8, CV_8UC1, cv::Scalar('x'))));
        else
            QVERIFY(sameBytes(out, before)); // untouched on refusal
    }
}

void TestImageCacheManager::refusesUnstorableFeatures()
{
    CacheUnderTest cache(dir->path(), 0, 1 << 20);
    QVERIFY(!cache.insert(u"empty"_s, cv::Mat()));
    const int sizes[] = {4, 4, 4};
    QVERIFY(!cache.insert(u"three-dimensional"_s, cv::Mat(3, sizes, CV_32FC1, cv::Scalar(1))));
    QCOMPARE(cache.diskBytes(), 0);
    QVERIFY(cache.fileCount() == 0);
    cv::Mat out;
    QVERIFY(!cache.get(u"never inserted"_s, out));
    QVERIFY(out.empty());
}

void TestImageCacheManager::clearRemovesCacheFilesOnly()
{
    CacheUnderTest cache(dir->path(), 20, 1 << 20);
    for (int i = 0; i < 5; ++i)
        QVERIFY(cache.insert(u"k%1"_s.arg(i), pattern(1, 8, CV_8UC1, i)));
    QVERIFY(cache.memoryBytes() > 0 && cache.diskBytes() > 0);
    const QString other = dir->filePath(u"keep.txt"_s);
    QFile keep(other);
    QVERIFY(keep.open(QIODevice::WriteOnly) && keep.write("x") == 1);
    keep.close();
    QVERIFY(QDir(dir->path()).mkdir(u"folder.cache"_s));
    cache.clear();
    QVERIFY(cache.fileCount() == 0);
    QCOMPARE(cache.memoryBytes(), 0);
    QCOMPARE(cache.diskBytes(), 0);
    QVERIFY(QFile::exists(other));
    QVERIFY(QDir(dir->filePath(u"folder.cache"_s)).exists());
    cv::Mat out;
    for (int i = 0; i < 5; ++i)
        QVERIFY(!cache.get(u"k%1"_s.arg(i), out));
    QVERIFY(logCount(u"[ImageCacheManager]: ImageCacheManager: Cache cleared."_s) > 0);
    // The next run starts from zero.
    QVERIFY(cache.insert(u"k0"_s, pattern(1, 8, CV_8UC1, 0)));
    QCOMPARE(cache.memoryBytes(), 8);
}

void TestImageCacheManager::leftoverFilesAreRemovedAtStart()
{
    QString stalePath;
    {
        CacheUnderTest crashed(dir->path(), 0, 1 << 20);
        QVERIFY(crashed.insert(u"/same/path.jpg"_s, pattern(50, 60, CV_32FC1, 11)));
        stalePath = crashed.cacheFilePath(u"/same/path.jpg"_s);
    } // no clear(): as after a crash
    QVERIFY(QFile::exists(stalePath));
    CacheUnderTest cache(dir->path(), 0, 1 << 20);
    QVERIFY(!QFile::exists(stalePath));
    const cv::Mat fresh = pattern(1, 8, CV_8UC1, 12);
    QVERIFY(cache.insert(u"/same/path.jpg"_s, fresh));
    cv::Mat back;
    QVERIFY(cache.get(u"/same/path.jpg"_s, back));
    QVERIFY(sameBytes(back, fresh));
}

void TestImageCacheManager::unusableFolderFallsBack()
{
    // A file where the folder should be: nothing can be created or measured there.
    QFile blocker(dir->filePath(u"blocker"_s));
    QVERIFY(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    const QString folder = dir->filePath(u"blocker/cache"_s);
    CacheUnderTest cache(folder, 0, 0);
    cache.setMaxCache();
    QCOMPARE(cache.diskBudget(), 912680550ll); // 85 % of 1 GiB
    QVERIFY(logCount(u"[ImageCacheManager]: Invalid or unavailable storage path: "_s + folder + u'.') >= 2);
    cache.setBudgets(0, 1 << 20);
    QVERIFY(!cache.insert(u"k"_s, pattern(1, 8, CV_8UC1, 13)));
    QCOMPARE(cache.diskBytes(), 0); // the reservation was given back
    cache.clear();
}

void TestImageCacheManager::budgetsFollowTheSystem()
{
    CacheUnderTest cache(dir->path(), 0, 0);
    QVERIFY(QDir(dir->path()).removeRecursively());
    cache.setMaxCache();
    QVERIFY(QDir(dir->path()).exists()); // recreated for the new run
    const QStorageInfo volume(dir->path());
    QVERIFY(cache.diskBudget() > 0);
    QVERIFY(cache.diskBudget() <= volume.bytesTotal() * 85 / 100);
    QVERIFY(cache.memoryBudget() > 0);
    QVERIFY(logCount(u"[ImageCacheManager]: setMaxCache, maxMemoryUsage: %1 MB, maxDiskUsage: "_s.arg(
                cache.memoryBudget() / 1048576)) > 0);
}

void TestImageCacheManager::concurrentInsertAndGet_data()
{
    QTest::addColumn<qint64>("diskBudget");
    QTest::addColumn<bool>("allStored");
    QTest::newRow("memory then disk") << qint64(1 << 24) << true;
    QTest::newRow("disk runs out") << 40 * (64 + kHeader) + 10 << false;
}

void TestImageCacheManager::concurrentInsertAndGet()
{
    QFETCH(qint64, diskBudget);
    QFETCH(bool, allStored);
    constexpr int threads = 8;
    constexpr int perThread = 40;
    constexpr qint64 bytes = 64;
    CacheUnderTest cache(dir->path(), 100 * bytes, diskBudget);
    std::atomic<int> wrong{0};
    std::atomic<int> stored{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i) {
                const int id = t * perThread + i;
                if (cache.insert(u"k%1"_s.arg(id), pattern(1, int(bytes), CV_8UC1, id)))
                    ++stored;
                // Read what the neighbour thread may have stored so far.
                const int other = ((t + 1) % threads) * perThread + i;
                cv::Mat out;
                if (cache.get(u"k%1"_s.arg(other), out) &&
                    !sameBytes(out, pattern(1, int(bytes), CV_8UC1, other)))
                    ++wrong;
                (void)cache.isIncomplete();
            }
        });
    }
    for (std::thread &w : workers)
        w.join();
    QCOMPARE(wrong.load(), 0);
    QCOMPARE(cache.heldInMemory(), 100);
    QCOMPARE(cache.memoryBytes(), 100 * bytes);
    const qint64 onDisk = stored.load() - 100;
    QCOMPARE(qint64(cache.fileCount()), onDisk);
    QCOMPARE(cache.diskBytes(), onDisk * (bytes + kHeader));
    QVERIFY(cache.diskBytes() <= diskBudget);
    QCOMPARE(stored.load() == threads * perThread, allStored);
    QCOMPARE(cache.isIncomplete(), !allStored);
    for (int id = 0; id < threads * perThread; ++id) {
        cv::Mat out;
        if (cache.get(u"k%1"_s.arg(id), out))
            QVERIFY(sameBytes(out, pattern(1, int(bytes), CV_8UC1, id)));
    }
    cache.clear();
    QVERIFY(cache.fileCount() == 0);
}

TWINFOLD_TEST_MAIN(TestImageCacheManager)
#include "tst_imagecachemanager.moc"
