#include "TestMain.h"
#include "TodaysLog.h"

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
struct CacheUnderTest : ImageCacheManager
{
    using ImageCacheManager::mapCacheFiles, ImageCacheManager::maxMemoryUsage,
        ImageCacheManager::maxDiskUsage;
    CacheUnderTest(const QString &d, qint64 m, qint64 k) : ImageCacheManager(d) { setBudgets(m, k); }
    void setBudgets(qint64 memory, qint64 disk) { maxMemoryUsage = memory, maxDiskUsage = disk; }
    // Features held in memory, their bytes, cache files, their bytes.
    Usage usage() const
    {
        return {memoryCache.size(), memoryUsed, QDir(cacheDir).entryList({u"*.cache"_s}, QDir::Files).size(),
                diskUsed};
    }
};

constexpr qint64 kHeader = 12;

class TestImageCacheManager : public QObject
{
    Q_OBJECT
    QTemporaryDir appDir;
    std::unique_ptr<QTemporaryDir> dir;

    int logCount(const QString &text) const { return int(todaysLog(appDir.path()).count(text)); }
    static cv::Mat pattern(int rows, int cols, int type, int seed)
    {
        cv::Mat m(rows, cols, type);
        cv::RNG(quint64(seed) + 1).fill(m, cv::RNG::UNIFORM, 0, 250);
        return m;
    }
    static cv::Mat hash(int seed) { return pattern(1, 8, CV_8UC1, seed); }
    static QString key(int i) { return u"/img/%1.jpg"_s.arg(i); }
    // Same type, shape and values, whatever the row padding of either side.
    static bool sameBytes(const cv::Mat &a, const cv::Mat &b)
    {
        return !a.empty() && a.type() == b.type() && a.size == b.size && cv::norm(a, b, cv::NORM_INF) == 0;
    }
    static bool readsBack(ImageCacheManager &cache, const QString &k, const cv::Mat &expected)
    {
        cv::Mat out;
        return cache.get(k, out) && sameBytes(out, expected);
    }

private slots:
    void initTestCase() { QVERIFY(appDir.isValid() && initLogger(appDir.path())); }
    void init() { QVERIFY((dir = std::make_unique<QTemporaryDir>())->isValid()); }

    void budgets_data()
    {
        // Memory and disk budgets, then the usage after eight 8-byte hashes, each a 20-byte file on disk.
        QTest::addColumn<Usage>("budgetsThenUsage");
        QTest::newRow("all to disk") << Usage{0, 1 << 20, 0, 0, 8, 160};
        QTest::newRow("exactly three in memory") << Usage{24, 1 << 20, 3, 24, 5, 100};
        QTest::newRow("one byte short of three") << Usage{23, 1 << 20, 2, 16, 6, 120};
        QTest::newRow("exactly two on disk") << Usage{0, 40, 0, 0, 2, 40};
        QTest::newRow("one byte short of two") << Usage{0, 39, 0, 0, 1, 20};
        QTest::newRow("both full") << Usage{8, 20, 1, 8, 1, 20};
    }
    void budgets()
    {
        QFETCH(Usage, budgetsThenUsage);
        const Usage usage = budgetsThenUsage.mid(2);
        const qint64 stored = usage[0] + usage[2];
        CacheUnderTest cache(dir->path(), budgetsThenUsage[0], budgetsThenUsage[1]);
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
        CacheUnderTest cache(dir->path(), where == 0 ? 1 << 24 : 0, 1 << 24);
        cache.mapCacheFiles = where == 1;
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

    // Files are read through the SHA-1 of their key ("abc" is the standard's first test vector),
    // as type, rows and columns in big-endian qint32, then the rows without padding.
    void readsOnlySoundFiles_data()
    {
        QTest::addColumn<QByteArray>("content"); // null: no file at all
        const QByteArray eight(8, 'x');          // type, rows, columns in hex, then data
        const auto hex = [](const char *digits) { return QByteArray::fromHex(digits); };
        QTest::newRow("valid, CV_16SC1 2x2") << hex("00000003 00000002 00000002") + eight;
        QTest::newRow("no file") << QByteArray();
        QTest::newRow("claims 1,000,000,004 bytes") << hex("00000005 00000001 0ee6b281") + eight;
        QTest::newRow("rows x cols overflows") << hex("0000001e 7fffffff 7fffffff") + eight;
        QTest::newRow("zero rows") << hex("00000000 00000000 00000008");
        QTest::newRow("negative cols") << hex("00000000 00000001 fffffff8") + eight;
        QTest::newRow("negative type") << hex("ffffffff 00000001 00000008") + eight;
        QTest::newRow("type beyond OpenCV's range") << hex("00001000 00000001 00000008") + eight;
        QTest::newRow("data cut short") << hex("00000000 00000001 00000008") + eight.left(7);
        QTest::newRow("header cut short") << hex("00000000 00000001 0000");
        QTest::newRow("trailing bytes") << hex("00000000 00000001 00000008") + eight + 'y';
    }
    void readsOnlySoundFiles()
    {
        QFETCH(QByteArray, content);
        const bool accepted = QByteArray(QTest::currentDataTag()).startsWith("valid");
        QFile file(dir->filePath(u"a9993e364706816aba3e25717850c26c9cd0d89d.cache"_s));
        for (const bool mapped : {true, false}) {
            CacheUnderTest cache(dir->path(), 1 << 20, 1 << 20); // would remove a file left before it
            cache.mapCacheFiles = mapped;
            QVERIFY(content.isNull() || (file.open(QIODevice::WriteOnly) && file.write(content) > 0));
            file.close();
            cv::Mat out = hash(10);
            QCOMPARE(cache.get(u"abc"_s, out), accepted);
            // Refused files leave the output as it was.
            QVERIFY(sameBytes(out, accepted ? cv::Mat(2, 2, CV_16SC1, cv::Scalar(0x7878)) : hash(10)));
        }
    }
    void leftoversClearAndSystemBudgets()
    {
        QVERIFY(QFile(dir->filePath(u"keep.txt"_s)).open(QIODevice::WriteOnly));
        QVERIFY(QDir(dir->path()).mkdir(u"folder.cache"_s));
        {
            CacheUnderTest crashed(dir->path(), 0, 1 << 20); // gone without clear(), as after a crash
            QVERIFY(crashed.insert(key(4), pattern(50, 60, CV_32FC1, 11)));
        }
        CacheUnderTest cache(dir->path(), 20, 1 << 20);
        const int sizes[] = {4, 4, 4}; // too much for memory, and no file can hold it
        for (int i = 0; i < 5; ++i)
            QVERIFY(cache.insert(key(i), hash(i)));
        QVERIFY(!cache.insert(u"empty"_s, cv::Mat()));
        QVERIFY(!cache.insert(u"three-dimensional"_s, cv::Mat(3, sizes, CV_32FC1, cv::Scalar(1))));
        QCOMPARE(cache.usage(), Usage({2, 16, 3, 3 * (8 + kHeader)}));
        QVERIFY(readsBack(cache, key(4), hash(4))); // on disk, and not the leftover
        cache.clear();
        QCOMPARE(cache.usage(), Usage({0, 0, 0, 0}));
        QVERIFY(QFile::exists(dir->filePath(u"keep.txt"_s)) &&
                QDir(dir->filePath(u"folder.cache"_s)).exists());
        QVERIFY(logCount(u"[ImageCacheManager]: ImageCacheManager: Cache cleared."_s) > 0);

        QVERIFY(QDir(dir->path()).removeRecursively());
        cache.setMaxCache();
        QVERIFY(QDir(dir->path()).exists()); // recreated for the new run
        QVERIFY(cache.maxMemoryUsage > 0 && cache.maxDiskUsage > 0 &&
                cache.maxDiskUsage <= QStorageInfo(dir->path()).bytesTotal() * 85 / 100);
        QVERIFY(logCount(u"[ImageCacheManager]: setMaxCache, maxMemoryUsage: %1 MB, maxDiskUsage: %2 MB"_s
                             .arg(cache.maxMemoryUsage / 1048576)
                             .arg(cache.maxDiskUsage / 1048576)) > 0);
        // A file where the folder should be: nothing can be created or measured there.
        QVERIFY(QFile(dir->filePath(u"blocker"_s)).open(QIODevice::WriteOnly));
        const QString folder = dir->filePath(u"blocker/cache"_s);
        CacheUnderTest blocked(folder, 0, 1 << 20); // its constructor measures once
        QCOMPARE(logCount(u"[ImageCacheManager]: Invalid or unavailable storage path: "_s + folder + u'.'),
                 1);
        QVERIFY(!blocked.isIncomplete() && !blocked.insert(u"k"_s, hash(13)));
        QCOMPARE(blocked.usage(), Usage({0, 0, 0, 0})); // the reservation was given back
        QVERIFY(blocked.isIncomplete());                // a lost feature is reported like a full disk
        blocked.setMaxCache();
        QVERIFY(!blocked.isIncomplete());
        QCOMPARE(blocked.maxDiskUsage, 912680550ll); // 85 % of 1 GiB
    }

    // Eight threads of forty features each: a hundred fit in memory, then forty on disk.
    void concurrentInsertAndGet()
    {
        const auto feature = [](int id) { return pattern(1, 64, CV_8UC1, id); };
        CacheUnderTest cache(dir->path(), 100 * 64, 40 * (64 + kHeader) + 10);
        std::atomic<int> wrong{0}, stored{0};
        {
            std::vector<std::jthread> workers;
            for (int t = 0; t < 8; ++t)
                workers.emplace_back([&, t] {
                    for (int id = t * 40, other = (t + 1) % 8 * 40; id < t * 40 + 40; ++id, ++other) {
                        stored += cache.insert(key(id), feature(id));
                        // Whatever the neighbour thread has stored so far must read back intact.
                        cv::Mat out;
                        wrong += cache.get(key(other), out) && !sameBytes(out, feature(other));
                        (void)cache.isIncomplete();
                    }
                });
        }
        int readable = 0;
        for (int id = 0; id < 320; ++id)
            readable += readsBack(cache, key(id), feature(id));
        QCOMPARE(cache.usage() << wrong.load() << stored.load() << readable << cache.isIncomplete(),
                 Usage({100, 100 * 64, 40, 40 * (64 + kHeader), 0, 140, 140, 1}));
    }
};

TWINFOLD_TEST_MAIN(TestImageCacheManager)
#include "tst_imagecachemanager.moc"
