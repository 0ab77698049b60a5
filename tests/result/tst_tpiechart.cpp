#include "TestMain.h"

#include "result/TPieChart.h"
#include "scan/FileCategory.h"
#include "scan/TFileData.h"

using namespace Qt::StringLiterals;

namespace {
// Writes the ';'-separated files "relative/path:bytes" under root and puts the groups (each a
// ';'-separated list of entries relative to root) into the result store, a group of folders
// as a folder group; returns them as the chart reads them from the store.
QHash<QString, QStringList> prepare(const QString &root, const QString &tree, const QStringList &groups)
{
    for (const QString &desc : tree.split(u';', Qt::SkipEmptyParts)) {
        QFile file(root + u'/' + desc.section(u':', 0, 0));
        if (QDir().mkpath(QFileInfo(file).path()) && file.open(QIODevice::WriteOnly))
            file.write(QByteArray(desc.section(u':', 1).toInt(), 'x'));
    }
    TFileData &store = TFileData::instance();
    store.clear();
    for (const QString &group : groups) {
        QStringList entries;
        FolderRecords folders;
        for (const QString &entry : group.split(u';', Qt::SkipEmptyParts)) {
            entries.append(root + u'/' + entry);
            folders.append({entries.constLast(), 0, 0});
        }
        const QString key =
            u"G"_s + QString::number(store.duplicateGroups.size() + store.folderGroups.size());
        if (!entries.isEmpty() && QFileInfo(entries.constFirst()).isDir())
            store.addFolderGroup(key, folders);
        else
            store.addDuplicateGroup(key, entries);
    }
    return TPieChart::storeGroups();
}

// "category:files:bytes ... = files/bytes", categories in order.
QString describe(const FileCategoryStatsMap &map, qint64 count, qint64 size)
{
    QStringList parts;
    for (auto it = map.cbegin(); it != map.cend(); ++it)
        parts.append(QString::asprintf("%d:%d:%lld", it.key(), it.value().count, it.value().totalSize));
    parts.sort();
    return parts.join(u' ') + QString::asprintf(" = %lld/%lld", count, size);
}
} // namespace

class TestTPieChart : public QObject
{
    Q_OBJECT
private slots:
    void cleanupTestCase() { TFileData::instance().clear(); }

    void groupStats_data()
    {
        QTest::addColumn<QString>("tree");
        QTest::addColumn<QStringList>("groups");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char *name, const char *tree, const char *groups, const char *expected) {
            QTest::newRow(name) << QString::fromUtf8(tree) << QString::fromUtf8(groups).split(u'|')
                                << QString::fromUtf8(expected);
        };
        row("three copies", "a.jpg:9;b/a.jpg:9;c/a.jpg:9", "a.jpg;b/a.jpg;c/a.jpg", "1:3:27 = 3/27");
        // Only the direct visible files of a folder count.
        row("folder group is shallow", "f1/a:10;f1/.h:9;f1/s/c:9;f2/a:10;f2/.h:9;f2/s/c:9", "f1;f2",
            "6:2:20 = 2/20");
        // Similar entries are distinct pictures, each counted at its own size when still there; a
        // missing first one leaves its category at zero.
        row("similar: own sizes", "p.png:100;q.png:250", "gone.pdf_simlar_9;p.png_simlar_9;q.png_simlar_8",
            "1:2:350 2:0:0 = 2/350");
        row("similar: a folder", "fold/x.bin:3;fold/y.bin:4", "fold_simlar_50", "6:2:7 = 2/7");
        row("plus similar", "a.jpg:5;b/a.jpg:5;c.png:3", "a.jpg;b/a.jpg;c.png_simlar_8", "1:3:13 = 3/13");
        row("vanished first hides the group", "b.docx:50", "gone.docx;b.docx", "2:0:0 = 0/0");
        // Similar entries lose only a last "_simlar_<ASCII digits>" ending.
        row("no marker endings", "p.png:5", "p.png_simlar_1a;p.png_simlar_\u0663", "7:0:0 = 0/0");
        row("only the last marker goes", "a_simlar_1:4", "a_simlar_1_simlar_2", "7:1:4 = 1/4");
        row("two groups, one empty", "a.pdf:7;b.pdf:7", "a.pdf;b.pdf|", "2:2:14 = 2/14");
        QTest::newRow("no groups") << QString() << QStringList() << u" = 0/0"_s;
        // Many groups reduced in whatever order the pool finishes them add up exactly.
        QString many;
        QStringList manyGroups;
        for (int i = 1; i <= 400; ++i) {
            many += u"a%1.dat:%1;b/a%1.dat:%1;"_s.arg(i);
            manyGroups.append(u"a%1.dat;b/a%1.dat"_s.arg(i));
        }
        QTest::newRow("400 groups") << many << manyGroups << u"2:800:160400 = 800/160400"_s;
    }
    // Only one announcement per run. The run over many groups also starts a chart that is
    // destroyed while counting and must announce nothing, and restarts the chart it keeps.
    void groupStats()
    {
        QFETCH(QString, tree);
        QFETCH(QStringList, groups);
        QFETCH(QString, expected);
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QHash<QString, QStringList> input = prepare(dir.path(), tree, groups);
        QStringList seen;
        if (groups.size() > 100) {
            // Queued statsReady connections need the map type registered by its alias.
            TPieChart dropped;
            QCOMPARE(QMetaType::fromName("FileCategoryStatsMap"),
                     QMetaType::fromType<FileCategoryStatsMap>());
            connect(
                &dropped, &TPieChart::statsReady, this, [&seen] { seen += u"x"_s; }, Qt::QueuedConnection);
            dropped.start(input);
        }
        TPieChart chart;
        // Direct, to see the thread statsReady is emitted on: it must be the chart's own.
        connect(
            &chart, &TPieChart::statsReady, this,
            [&](FileCategoryStatsMap map, int count, qlonglong size) {
                const bool own = QThread::currentThread() == chart.thread();
                seen.append(describe(map, count, size) + (own ? u""_s : u" elsewhere"_s));
            },
            Qt::DirectConnection);
        if (groups.size() > 100)
            chart.start(prepare(dir.path(), u"other.png:3"_s, {u"other.png"_s}));
        chart.start(input);
        QVERIFY(QTest::qWaitFor([&seen] { return !seen.isEmpty(); }, 60000));
        QTest::qWait(50); // a second announcement would arrive now
        QCOMPARE(seen, QStringList{expected});
        // The chart keeps what it announced.
        QCOMPARE(describe(chart.stats(), chart.count(), chart.totalSize()), expected);
    }
};

TWINFOLD_TEST_MAIN(TestTPieChart)
#include "tst_tpiechart.moc"
