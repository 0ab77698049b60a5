#include "TestMain.h"

#include "result/TPieChart.h"
#include "scan/FileCategory.h"
#include "scan/TFileData.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

using namespace Qt::StringLiterals;

namespace {
// One expected category line: category, files, bytes.
struct Expect
{
    int category;
    int count;
    qint64 size;
};
using Expects = QList<Expect>;
// Relative path to size; a path ending in '/' is a folder.
using Tree = QMap<QString, qint64>;
using Groups = QList<QStringList>;

bool makeTree(const QString &root, const Tree &tree)
{
    for (auto it = tree.cbegin(); it != tree.cend(); ++it) {
        const QString path = root + u'/' + it.key();
        if (path.endsWith(u'/')) {
            if (!QDir().mkpath(path))
                return false;
            continue;
        }
        if (!QDir().mkpath(QFileInfo(path).path()))
            return false;
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(QByteArray(it.value(), 'x')) != it.value())
            return false;
    }
    return true;
}

QHash<QString, QStringList> rooted(const QString &root, const Groups &groups)
{
    QHash<QString, QStringList> out;
    for (qsizetype i = 0; i < groups.size(); ++i) {
        QStringList entries;
        for (const QString &entry : groups.at(i))
            entries.append(root + u'/' + entry);
        out.insert(u"G%1"_s.arg(i), entries);
    }
    return out;
}

// Waits for the one statsReady of a start and returns its arguments.
struct Ready
{
    int emissions = 0;
    bool onOwnerThread = true;
    FileCategoryStatsMap stats;
    int count = -1;
    qlonglong size = -1;
};
} // namespace

class TestTPieChart : public QObject
{
    Q_OBJECT
private slots:
    void init() { TFileData::instance().clear(); }
    void cleanup() { TFileData::instance().clear(); }
    void entryPath_data();
    void entryPath();
    void groupStats_data();
    void groupStats();
    void restartDiscardsTheRunningCount();
    void destroyedWhileCounting();
    void storeGroupsIncludesFolders();
    void mapTypeIsRegistered();
};

void TestTPieChart::entryPath_data()
{
    QTest::addColumn<QString>("entry");
    QTest::addColumn<QString>("path");
    QTest::newRow("plain") << u"/x/p.png"_s << u"/x/p.png"_s;
    QTest::newRow("similar") << u"E:/x/p.png_simlar_3"_s << u"E:/x/p.png"_s;
    QTest::newRow("three digits") << u"/x/p.png_simlar_100"_s << u"/x/p.png"_s;
    QTest::newRow("no digits") << u"/x/p.png_simlar_"_s << u"/x/p.png_simlar_"_s;
    QTest::newRow("letters after digits") << u"/x/p.png_simlar_12a"_s << u"/x/p.png_simlar_12a"_s;
    QTest::newRow("no underscore") << u"/x/p.png_simlar12"_s << u"/x/p.png_simlar12"_s;
    QTest::newRow("marker twice: last one") << u"/x/a_simlar_1_simlar_2"_s << u"/x/a_simlar_1"_s;
    QTest::newRow("marker in folder name") << u"/x_simlar_5/p.png"_s << u"/x_simlar_5/p.png"_s;
    QTest::newRow("non-ASCII digits") << u"/x/p.png_simlar_\u0663"_s << u"/x/p.png_simlar_\u0663"_s;
    QTest::newRow("only the marker") << u"_simlar_5"_s << QString();
    QTest::newRow("empty") << QString() << QString();
}

void TestTPieChart::entryPath()
{
    QFETCH(QString, entry);
    QFETCH(QString, path);
    QCOMPARE(TPieChart::entryPath(entry), path);
}

void TestTPieChart::groupStats_data()
{
    QTest::addColumn<Tree>("tree");
    QTest::addColumn<Groups>("groups");
    QTest::addColumn<Expects>("expected");

    QTest::newRow("three copies of a 1000-byte jpg")
        << Tree{{u"a.jpg"_s, 1000}, {u"b/a.jpg"_s, 1000}, {u"c/a.jpg"_s, 1000}}
        << Groups{{u"a.jpg"_s, u"b/a.jpg"_s, u"c/a.jpg"_s}} << Expects{{Images, 3, 3000}};
    QTest::newRow("upper-case suffix") << Tree{{u"A.JPG"_s, 7}, {u"b/A.JPG"_s, 7}}
                                       << Groups{{u"A.JPG"_s, u"b/A.JPG"_s}} << Expects{{Images, 2, 14}};
    QTest::newRow("documents and others side by side")
        << Tree{{u"d1.pdf"_s, 70}, {u"d2.pdf"_s, 70}, {u"o1.xyz"_s, 5},   {u"o2.xyz"_s, 5},
                {u"o3.xyz"_s, 5},  {u"README"_s, 12}, {u"m/README"_s, 12}}
        << Groups{{u"d1.pdf"_s, u"d2.pdf"_s},
                  {u"o1.xyz"_s, u"o2.xyz"_s, u"o3.xyz"_s},
                  {u"README"_s, u"m/README"_s}}
        << Expects{{Documents, 2, 140}, {Others, 5, 39}};
    QTest::newRow("music and video") << Tree{{u"s.mp3"_s, 300},
                                             {u"t.mp3"_s, 300},
                                             {u"v.mkv"_s, 1},
                                             {u"w.mkv"_s, 1}}
                                     << Groups{{u"s.mp3"_s, u"t.mp3"_s}, {u"v.mkv"_s, u"w.mkv"_s}}
                                     << Expects{{Musics, 2, 600}, {Videos, 2, 2}};
    // Two folders, each with two direct 10-byte files, a hidden file and a sub-folder:
    // only the direct visible files count.
    QTest::newRow("folder group is shallow")
        << Tree{{u"f1/a.txt"_s, 10}, {u"f1/b.txt"_s, 10}, {u"f1/.hidden"_s, 99}, {u"f1/sub/c.txt"_s, 1000},
                {u"f2/a.txt"_s, 10}, {u"f2/b.txt"_s, 10}, {u"f2/.hidden"_s, 99}, {u"f2/sub/c.txt"_s, 1000}}
        << Groups{{u"f1"_s, u"f2"_s}} << Expects{{Folder, 4, 40}};
    QTest::newRow("empty folders count zero")
        << Tree{{u"e1/"_s, 0}, {u"e2/"_s, 0}} << Groups{{u"e1"_s, u"e2"_s}} << Expects{{Folder, 0, 0}};
    QTest::newRow("similar entries each at their own size")
        << Tree{{u"p.png"_s, 100}, {u"q.png"_s, 250}}
        << Groups{{u"p.png_simlar_90"_s, u"q.png_simlar_80"_s, u"r.png_simlar_70"_s}}
        << Expects{{Images, 2, 350}};
    QTest::newRow("missing first similar entry leaves its category at zero")
        << Tree{{u"p.png"_s, 100}} << Groups{{u"gone.pdf_simlar_95"_s, u"p.png_simlar_90"_s}}
        << Expects{{Documents, 0, 0}, {Images, 1, 100}};
    QTest::newRow("plain copies plus a similar picture")
        << Tree{{u"a.jpg"_s, 500}, {u"b/a.jpg"_s, 500}, {u"c.png"_s, 300}}
        << Groups{{u"a.jpg"_s, u"b/a.jpg"_s, u"c.png_simlar_88"_s}} << Expects{{Images, 3, 1300}};
    QTest::newRow("similar entry that is a folder")
        << Tree{{u"fold/x.bin"_s, 3}, {u"fold/y.bin"_s, 4}} << Groups{{u"fold_simlar_50"_s}}
        << Expects{{Folder, 2, 7}};
    QTest::newRow("marker without digits is measured as written")
        << Tree{{u"a_simlar_x.txt"_s, 9}} << Groups{{u"a_simlar_x.txt"_s}} << Expects{{Documents, 1, 9}};
    QTest::newRow("vanished representative hides the whole group")
        << Tree{{u"other.docx"_s, 50}} << Groups{{u"gone.docx"_s, u"other.docx"_s}}
        << Expects{{Documents, 0, 0}};
    QTest::newRow("empty group") << Tree{} << Groups{{}} << Expects{};
    QTest::newRow("no groups") << Tree{} << Groups{} << Expects{};

    // Many groups reduced in whatever order the pool finishes them add up exactly.
    Tree many;
    Groups manyGroups;
    qint64 manySize = 0;
    for (int i = 0; i < 400; ++i) {
        many.insert(u"a%1.dat"_s.arg(i), i + 1);
        many.insert(u"b/a%1.dat"_s.arg(i), i + 1);
        manyGroups.append({u"a%1.dat"_s.arg(i), u"b/a%1.dat"_s.arg(i)});
        manySize += 2 * (i + 1);
    }
    QTest::newRow("400 groups") << many << manyGroups << Expects{{Documents, 800, manySize}};
}

void TestTPieChart::groupStats()
{
    QFETCH(Tree, tree);
    QFETCH(Groups, groups);
    QFETCH(Expects, expected);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QVERIFY(makeTree(dir.path(), tree));

    TPieChart chart;
    Ready ready;
    // Direct, to see the thread statsReady is emitted on: it must be the chart's own.
    connect(
        &chart, &TPieChart::statsReady, this,
        [&ready, &chart](FileCategoryStatsMap stats, int count, qlonglong size) {
            ++ready.emissions;
            ready.onOwnerThread = QThread::currentThread() == chart.thread();
            ready.stats = stats;
            ready.count = count;
            ready.size = size;
        },
        Qt::DirectConnection);
    chart.start(rooted(dir.path(), groups));
    QVERIFY(QTest::qWaitFor([&ready] { return ready.emissions > 0; }, 60000));
    QCoreApplication::processEvents(); // a second emission would arrive now
    QCOMPARE(ready.emissions, 1);
    QVERIFY(ready.onOwnerThread);

    int expectedCount = 0;
    qint64 expectedSize = 0;
    for (const Expect &e : expected) {
        QVERIFY2(ready.stats.contains(e.category), qPrintable(u"category %1 missing"_s.arg(e.category)));
        QCOMPARE(ready.stats.value(e.category).count, e.count);
        QCOMPARE(ready.stats.value(e.category).totalSize, e.size);
        expectedCount += e.count;
        expectedSize += e.size;
    }
    QCOMPARE(ready.stats.size(), expected.size());
    QCOMPARE(ready.count, expectedCount);
    QCOMPARE(ready.size, expectedSize);
    // The chart keeps what it announced.
    QCOMPARE(chart.count(), expectedCount);
    QCOMPARE(chart.totalSize(), expectedSize);
    QCOMPARE(chart.stats().size(), expected.size());
}

void TestTPieChart::restartDiscardsTheRunningCount()
{
    QTemporaryDir dir;
    Tree tree{{u"one.pdf"_s, 1}, {u"two.pdf"_s, 1}, {u"x.png"_s, 5}, {u"y.png"_s, 5}};
    for (int i = 0; i < 200; ++i)
        tree.insert(u"many/%1.txt"_s.arg(i), 1);
    QVERIFY(makeTree(dir.path(), tree));
    Groups slow;
    for (int i = 0; i < 200; ++i)
        slow.append({u"many"_s, u"one.pdf"_s});

    TPieChart chart;
    QList<qlonglong> sizes;
    connect(&chart, &TPieChart::statsReady, this,
            [&sizes](FileCategoryStatsMap, int, qlonglong size) { sizes.append(size); });
    chart.start(rooted(dir.path(), slow));
    chart.start(rooted(dir.path(), {{u"x.png"_s, u"y.png"_s}}));
    QVERIFY(QTest::qWaitFor([&sizes] { return !sizes.isEmpty(); }, 60000));
    QTest::qWait(50);
    QCOMPARE(sizes, QList<qlonglong>{10});
    QCOMPARE(chart.stats().keys(), QList<int>{Images});
}

void TestTPieChart::destroyedWhileCounting()
{
    QTemporaryDir dir;
    Tree tree;
    for (int i = 0; i < 100; ++i)
        tree.insert(u"f%1/a.txt"_s.arg(i), i);
    QVERIFY(makeTree(dir.path(), tree));
    Groups groups;
    for (int i = 0; i + 1 < 100; ++i)
        groups.append({u"f%1"_s.arg(i), u"f%1"_s.arg(i + 1)});
    int emissions = 0;
    {
        TPieChart chart;
        connect(&chart, &TPieChart::statsReady, this, [&emissions] { ++emissions; });
        chart.start(rooted(dir.path(), groups));
    }
    QTest::qWait(50);
    QCOMPARE(emissions, 0);
}

void TestTPieChart::storeGroupsIncludesFolders()
{
    TFileData &store = TFileData::instance();
    store.addDuplicateGroup(u"D"_s, {u"/a/x.jpg"_s, u"/b/x.jpg"_s});
    store.addDuplicateGroup(u"S"_s, {u"/a/p.png_simlar_90"_s, u"/b/q.png_simlar_80"_s});
    store.addFolderGroup(u"F"_s, {{u"/f1"_s, 2, 20}, {u"/f2"_s, 2, 20}});
    const QHash<QString, QStringList> groups = TPieChart::storeGroups();
    QCOMPARE(groups.size(), 3);
    QCOMPARE(groups.value(u"D"_s), (QStringList{u"/a/x.jpg"_s, u"/b/x.jpg"_s}));
    QCOMPARE(groups.value(u"S"_s), (QStringList{u"/a/p.png_simlar_90"_s, u"/b/q.png_simlar_80"_s}));
    QCOMPARE(groups.value(u"F"_s), (QStringList{u"/f1"_s, u"/f2"_s}));
}

void TestTPieChart::mapTypeIsRegistered()
{
    TPieChart chart;
    const QMetaType byName = QMetaType::fromName("FileCategoryStatsMap");
    QVERIFY(byName.isValid());
    QCOMPARE(byName, QMetaType::fromType<FileCategoryStatsMap>());
}

TWINFOLD_TEST_MAIN(TestTPieChart)
#include "tst_tpiechart.moc"
