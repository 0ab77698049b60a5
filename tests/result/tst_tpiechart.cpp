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
// "relative/path:bytes" makes a file, "name/" a folder.
using Groups = QList<QStringList>;

bool makeTree(const QString &root, const QStringList &tree)
{
    for (const QString &desc : tree) {
        const QString path = root + u'/' + desc.section(u':', 0, 0);
        if (!QDir().mkpath(path.endsWith(u'/') ? path : QFileInfo(path).path()))
            return false;
        if (path.endsWith(u'/'))
            continue;
        const QByteArray bytes(desc.section(u':', 1).toLongLong(), 'x');
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
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
} // namespace

class TestTPieChart : public QObject
{
    Q_OBJECT
private slots:
    void init() { TFileData::instance().clear(); }
    void cleanup() { TFileData::instance().clear(); }

    void entryPath_data()
    {
        QTest::addColumn<QString>("entry");
        QTest::addColumn<QString>("path");
        QTest::newRow("similar") << u"E:/x/p.png_simlar_3"_s << u"E:/x/p.png"_s;
        QTest::newRow("no digits") << u"/x/p.png_simlar_"_s << u"/x/p.png_simlar_"_s;
        QTest::newRow("letters after digits") << u"/x/p.png_simlar_12a"_s << u"/x/p.png_simlar_12a"_s;
        QTest::newRow("no underscore") << u"/x/p.png_simlar12"_s << u"/x/p.png_simlar12"_s;
        QTest::newRow("marker twice: last one") << u"/x/a_simlar_1_simlar_2"_s << u"/x/a_simlar_1"_s;
        QTest::newRow("non-ASCII digits") << u"/x/p.png_simlar_\u0663"_s << u"/x/p.png_simlar_\u0663"_s;
        QTest::newRow("only the marker") << u"_simlar_5"_s << QString();
        QTest::newRow("empty") << QString() << QString();
    }
    void entryPath()
    {
        QFETCH(QString, entry);
        QFETCH(QString, path);
        QCOMPARE(TPieChart::entryPath(entry), path);
    }

    void groupStats_data()
    {
        QTest::addColumn<QStringList>("tree");
        QTest::addColumn<Groups>("groups");
        QTest::addColumn<Expects>("expected");
        const auto row = [](const char *name, const QStringList &tree, const Groups &groups,
                            const Expects &expected) { QTest::newRow(name) << tree << groups << expected; };
        row("three copies of a 1000-byte jpg", {u"a.jpg:1000"_s, u"b/a.jpg:1000"_s, u"c/a.jpg:1000"_s},
            {{u"a.jpg"_s, u"b/a.jpg"_s, u"c/a.jpg"_s}}, {{Images, 3, 3000}});
        row("documents and a file without suffix",
            {u"d1.pdf:70"_s, u"d2.pdf:70"_s, u"README:12"_s, u"m/README:12"_s},
            {{u"d1.pdf"_s, u"d2.pdf"_s}, {u"README"_s, u"m/README"_s}},
            {{Documents, 2, 140}, {Others, 2, 24}});
        // Only the direct visible files of a folder count.
        row("folder group is shallow",
            {u"f1/a.txt:10"_s, u"f1/b.txt:10"_s, u"f1/.hidden:99"_s, u"f1/sub/c.txt:1000"_s, u"f2/a.txt:10"_s,
             u"f2/b.txt:10"_s, u"f2/.hidden:99"_s, u"f2/sub/c.txt:1000"_s},
            {{u"f1"_s, u"f2"_s}}, {{Folder, 4, 40}});
        row("empty folders count zero", {u"e1/"_s, u"e2/"_s}, {{u"e1"_s, u"e2"_s}}, {{Folder, 0, 0}});
        row("similar entries each at their own size", {u"p.png:100"_s, u"q.png:250"_s},
            {{u"p.png_simlar_90"_s, u"q.png_simlar_80"_s, u"r.png_simlar_70"_s}}, {{Images, 2, 350}});
        row("missing first similar entry leaves its category at zero", {u"p.png:100"_s},
            {{u"gone.pdf_simlar_95"_s, u"p.png_simlar_90"_s}}, {{Documents, 0, 0}, {Images, 1, 100}});
        row("plain copies plus a similar picture", {u"a.jpg:500"_s, u"b/a.jpg:500"_s, u"c.png:300"_s},
            {{u"a.jpg"_s, u"b/a.jpg"_s, u"c.png_simlar_88"_s}}, {{Images, 3, 1300}});
        row("similar entry that is a folder", {u"fold/x.bin:3"_s, u"fold/y.bin:4"_s}, {{u"fold_simlar_50"_s}},
            {{Folder, 2, 7}});
        row("vanished representative hides the whole group", {u"other.docx:50"_s},
            {{u"gone.docx"_s, u"other.docx"_s}}, {{Documents, 0, 0}});
        row("empty group", {}, {{}}, {});
        row("no groups", {}, {}, {});
        // Many groups reduced in whatever order the pool finishes them add up exactly.
        QStringList many;
        Groups manyGroups;
        for (int i = 1; i <= 400; ++i) {
            many << u"a%1.dat:%1"_s.arg(i) << u"b/a%1.dat:%1"_s.arg(i);
            manyGroups.append({u"a%1.dat"_s.arg(i), u"b/a%1.dat"_s.arg(i)});
        }
        row("400 groups", many, manyGroups, {{Documents, 800, 400 * 401}});
    }
    void groupStats()
    {
        QFETCH(QStringList, tree);
        QFETCH(Groups, groups);
        QFETCH(Expects, expected);
        QTemporaryDir dir;
        QVERIFY(dir.isValid() && makeTree(dir.path(), tree));

        TPieChart chart;
        QList<FileCategoryStatsMap> stats;
        QList<qlonglong> totals;
        bool onOwnerThread = true;
        // Direct, to see the thread statsReady is emitted on: it must be the chart's own.
        connect(
            &chart, &TPieChart::statsReady, this,
            [&](FileCategoryStatsMap map, int count, qlonglong size) {
                onOwnerThread = onOwnerThread && QThread::currentThread() == chart.thread();
                stats.append(map);
                totals << count << size;
            },
            Qt::DirectConnection);
        chart.start(rooted(dir.path(), groups));
        QVERIFY(QTest::qWaitFor([&stats] { return !stats.isEmpty(); }, 60000));
        QCoreApplication::processEvents(); // a second emission would arrive now
        QCOMPARE(stats.size(), 1);
        QVERIFY(onOwnerThread);

        qlonglong count = 0, size = 0;
        for (const Expect &e : expected) {
            QVERIFY2(stats.constFirst().contains(e.category),
                     qPrintable(u"category %1 missing"_s.arg(e.category)));
            QCOMPARE(stats.constFirst().value(e.category).count, e.count);
            QCOMPARE(stats.constFirst().value(e.category).totalSize, e.size);
            count += e.count;
            size += e.size;
        }
        QCOMPARE(stats.constFirst().size(), expected.size());
        QCOMPARE(totals, (QList<qlonglong>{count, size}));
        // The chart keeps what it announced.
        QCOMPARE(chart.count(), count);
        QCOMPARE(chart.totalSize(), size);
        QCOMPARE(chart.stats().size(), expected.size());
    }

    void restartDiscardsTheRunningCount()
    {
        QTemporaryDir dir;
        QStringList tree{u"one.pdf:1"_s, u"x.png:5"_s, u"y.png:5"_s};
        Groups slow;
        for (int i = 0; i < 200; ++i) {
            tree.append(u"many/%1.txt:1"_s.arg(i));
            slow.append({u"many"_s, u"one.pdf"_s});
        }
        QVERIFY(makeTree(dir.path(), tree));
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

    void destroyedWhileCounting()
    {
        QTemporaryDir dir;
        QStringList tree;
        Groups groups;
        for (int i = 0; i < 100; ++i) {
            tree.append(u"f%1/a.txt:%1"_s.arg(i));
            groups.append({u"f%1"_s.arg(i), u"f%1"_s.arg((i + 1) % 100)});
        }
        QVERIFY(makeTree(dir.path(), tree));
        int emissions = 0;
        {
            TPieChart chart;
            // Queued statsReady connections need the map type registered by its alias.
            QCOMPARE(QMetaType::fromName("FileCategoryStatsMap"),
                     QMetaType::fromType<FileCategoryStatsMap>());
            connect(
                &chart, &TPieChart::statsReady, this, [&emissions] { ++emissions; }, Qt::QueuedConnection);
            chart.start(rooted(dir.path(), groups));
        }
        QTest::qWait(50);
        QCOMPARE(emissions, 0);
    }

    void storeGroupsIncludesFolders()
    {
        TFileData &store = TFileData::instance();
        const QStringList plain{u"/a/x.jpg"_s, u"/b/x.jpg"_s};
        const QStringList similar{u"/a/p.png_simlar_90"_s, u"/b/q.png_simlar_80"_s};
        store.addDuplicateGroup(u"D"_s, plain);
        store.addDuplicateGroup(u"S"_s, similar);
        store.addFolderGroup(u"F"_s, {{u"/f1"_s, 2, 20}, {u"/f2"_s, 2, 20}});
        const QHash<QString, QStringList> expected{
            {u"D"_s, plain}, {u"S"_s, similar}, {u"F"_s, {u"/f1"_s, u"/f2"_s}}};
        QCOMPARE(TPieChart::storeGroups(), expected);
    }
};

TWINFOLD_TEST_MAIN(TestTPieChart)
#include "tst_tpiechart.moc"
