#include "app/ReadWriteLockGuard.h"
#include "result/GroupItemAutoSelector.h"
#include "scan/PoolMap.h"
#include "scan/TFileData.h"

#include "TestMain.h"

#include <QImage>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QtTest>

#include <atomic>

using namespace Qt::StringLiterals;
using Priorities = QMap<QString, qint32>;

class TestGroupItemAutoSelector : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    const QDateTime m_base = QDateTime(QDate(2020, 1, 1), QTime(12, 0), Qt::UTC);
    int m_case = 0;

    static QStringList list(const char *s) { return QString::fromUtf8(s).split(u';', Qt::SkipEmptyParts); }

    // Creates the files of a group in a fresh sub-folder. A member is "name|bytes|mtime|image"
    // with an optional ">suffix" appended to the entry (similar-image entries): bytes "-" leaves
    // the file absent (vanished), mtime is seconds after a fixed base, image is "WxH" for a real
    // PNG or "junk" for a file with an image name and no image inside. Empty fields take defaults.
    QStringList makeGroup(const QString &folder, const QStringList &layout)
    {
        QStringList entries;
        for (const QString &desc : layout) {
            const QStringList f = desc.section(u'>', 0, 0).split(u'|');
            const QString path = m_dir.filePath(folder + u'/' + f.value(0));
            entries.append(path + desc.section(u'>', 1));
            if (f.value(1) == u"-")
                continue;
            QDir().mkpath(QFileInfo(path).path());
            QImage img(f.value(3).section(u'x', 0, 0).toInt(), f.value(3).section(u'x', 1).toInt(),
                       QImage::Format_RGB32);
            img.fill(Qt::darkCyan);
            QFile file(path);
            const bool written = !img.isNull() ? img.save(path, "PNG")
                                               : file.open(QIODevice::WriteOnly) &&
                                                     file.write(QByteArray(f.value(1).toInt(), 'x')) >= 0;
            file.close();
            if (!written || (!f.value(2).isEmpty() && !(file.open(QIODevice::ReadWrite) &&
                                                        file.setFileTime(m_base.addSecs(f.value(2).toInt()),
                                                                         QFileDevice::FileModificationTime))))
                return {};
        }
        return entries;
    }

private slots:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    // Runs first so the word list and the pattern are built by racing threads.
    void filenameScoreFromManyThreadsAgrees()
    {
        QStringList paths;
        for (int i = 0; i < 2000; ++i)
            paths.append(QStringLiteral("/data/set/photo copy (%1).jpg").arg(i % 7));
        std::atomic_int bad = 0;
        mapOnPool(paths, [&bad](const QString &p) { bad += GroupItemAutoSelector::filenameScore(p) != 0; });
        QCOMPARE(bad.load(), 0);
    }

    void filenameScore_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<qint32>("score");
        QTest::newRow("plain") << u"/data/pics/photo.jpg"_s << 100;
        QTest::newRow("numbered copy") << u"/data/pics/photo (1).jpg"_s << 50;
        QTest::newRow("copy and copy of both count") << u"/data/docs/copy of report.doc"_s << 0;
        QTest::newRow("new costs 20") << u"/data/docs/news.txt"_s << 80;
        QTest::newRow("date-like name") << u"/data/pics/img_2023-05-01.jpg"_s << -50;
        QTest::newRow("upper-case word") << u"/data/docs/Report KOPIE.TXT"_s << 50;
        QTest::newRow("folder word costs 30") << u"/data/backup/photo.jpg"_s << 70;
        QTest::newRow("folder new costs 20") << u"/data/New Folder/photo.jpg"_s << 80;
        QTest::newRow("folder digits do not count") << u"/data/set_12/photo.jpg"_s << 100;
        QTest::newRow("four digits in parentheses") << u"/data/pics/a(1234).jpg"_s << 100;
        QTest::newRow("three digits in parentheses") << u"/data/pics/a(123).jpg"_s << 50;
        QTest::newRow("unbounded below") << u"/tmp/backup/tmp_backup_new (2).txt"_s << -130;
    }
    void filenameScore()
    {
        QFETCH(QString, path);
        QFETCH(qint32, score);
        QCOMPARE(GroupItemAutoSelector::filenameScore(path), score);
    }

    // The numbering marks are counted by hand for speed; the pattern they stand for is the
    // reference. Names are drawn from characters that form no listed word.
    void numberingMarksAgreeWithThePattern()
    {
        const QRegularExpression pattern(u"(\\(\\d{1,3}\\)|_\\d{1,3}|-\\d{1,3})"_s,
                                         QRegularExpression::CaseInsensitiveOption);
        const QString alphabet = u"()_-0123456789qzx \u0663\u00b2"_s; // an Arabic-Indic digit, a superscript
        QRandomGenerator rng(7);
        for (int n = 0; n < 20000; ++n) {
            QString name;
            for (int i = int(rng.bounded(1, 14)); i > 0; --i)
                name += alphabet.at(rng.bounded(alphabet.size()));
            int marks = 0;
            for (QRegularExpressionMatchIterator it = pattern.globalMatch(name); it.hasNext(); it.next())
                ++marks;
            QCOMPARE(GroupItemAutoSelector::filenameScore(u"/q/"_s + name), 100 - 50 * marks);
        }
    }

    // Rule 3 rows carry a priority table "folder=number;..." of folders inside the group's folder.
    void selectGroup_data()
    {
        QTest::addColumn<QStringList>("layout");
        QTest::addColumn<int>("rule");
        QTest::addColumn<QStringList>("table");
        QTest::addColumn<QStringList>("selected");
        const auto row = [](const char *name, const char *layout, int rule, const char *selected,
                            const char *table = "") {
            QTest::newRow(name) << list(layout) << rule << list(table) << list(selected);
        };
        // Each pair of rules over three members whose keys rank b (smallest), c, a (largest),
        // and over two members with equal keys: one rule keeps the smallest and, on a tie, the
        // last; the other keeps the largest and, on a tie, the first.
        for (const auto &[pair, three, tied, ext, keepsSmallest, keepsLargest] :
             QList<std::tuple<const char *, const char *, const char *, const char *, int, int>>{
                 {"newest/oldest", "a.txt|4|300;b.txt|4|100;c.txt|4|200", "a.txt|4|100;b.txt|4|100", "txt",
                  SelectNewest, SelectOldest},
                 {"high/low resolution", "a.png|||40x30;b.png|||20x10;c.png|||30x30",
                  "a.png|||8x8;b.png|||16x4", "png", SelectHighResolution, SelectLowResolution},
                 {"high/low quality", "a.bin|20;b.bin|5;c.bin|10", "a.bin|7;b.bin|7", "bin",
                  SelectHighQuality, SelectLowQuality}}) {
            const QString e = QString::fromLatin1(ext);
            const auto named = [&](const char *what) { return QByteArray(QByteArray(pair) + ": " + what); };
            row(named("smallest kept").constData(), three, keepsSmallest, qPrintable(u"a.%1;c.%1"_s.arg(e)));
            row(named("tie keeps last").constData(), tied, keepsSmallest, qPrintable(u"a."_s + e));
            row(named("largest kept").constData(), three, keepsLargest, qPrintable(u"b.%1;c.%1"_s.arg(e)));
            row(named("tie keeps first").constData(), tied, keepsLargest, qPrintable(u"b."_s + e));
        }
        row("newest: first oldest kept", "a.txt|4|300;b.txt|4|100;c.txt|4|100", SelectNewest, "a.txt;c.txt");
        row("oldest: first newest kept", "a.txt|4|100;b.txt|4|300;c.txt|4|300", SelectOldest, "a.txt;c.txt");
        row("oldest: one second apart", "a.txt|4|100;b.txt|4|101", SelectOldest, "a.txt");
        // A vanished member is never the one that stays.
        row("newest: vanished never kept", "a.txt|4|1;gone.txt|-;c.txt|4|2", SelectNewest, "gone.txt;c.txt");
        row("filename: copy selected", "photo (1).jpg;photo.jpg", SelectByFilename, "photo (1).jpg");
        row("filename: tie keeps first", "b.jpg;a.jpg;c.jpg", SelectByFilename, "a.jpg;c.jpg");
        row("filename: none on disk", "gone.txt|-;lost.txt|-", SelectByFilename, "");

        // An unreadable header counts -1 x -1, the same product as a 1x1 image.
        row("low res: unreadable ties 1x1", "bad.png|9||junk;one.png|||1x1", SelectLowResolution, "one.png");
        row("low res: unreadable below 2x1", "bad.png|9||junk;two.png|||2x1", SelectLowResolution, "bad.png");
        row("low res: vanished never kept", "gone.png|-;one.png|||1x1", SelectLowResolution, "gone.png");
        row("high res: not an image", "big.png|||50x50;doc.txt|100", SelectHighResolution, "big.png");
        row("high res: similar entries", "b.png|||20x10>_simlar_99;a.png|||40x30>_simlar_87",
            SelectHighResolution, "a.png_simlar_87");

        row("low quality: one byte apart", "a.bin|7;b.bin|8", SelectLowQuality, "a.bin");
        row("high quality: vanished never kept", "a.bin|2;gone.bin|-;c.bin|3", SelectHighQuality,
            "gone.bin;c.bin");
        row("high quality: vanished ties 0 bytes", "gone.bin|-;e.bin|0", SelectHighQuality, "gone.bin");

        // A path listed twice is one file: no listing of the kept file is selected.
        row("kept path listed twice", "a.txt|4|100;a.txt|4|100;b.txt|4|200", SelectNewest, "b.txt");
        row("selected path listed twice", "a.txt|4|300;a.txt|4|300;b.txt|4|200", SelectNewest, "a.txt;a.txt");
        row("only one file, listed twice", "a.bin|7;a.bin|7", SelectHighQuality, "");

        row("all", "a.txt|1;b.txt|2;gone.txt|-", SelectAll, "a.txt;b.txt;gone.txt");
        row("all: one member", "a.txt|1", SelectAll, "");
        row("all: empty", "", SelectAll, "");
        row("deselect", "a.txt|1;b.txt|2", Deselect, "");
        row("rule below range", "a.txt|1;b.txt|2", -1, "");
        row("rule above range", "a.txt|1;b.txt|2", 10, "");

        // Larger number = more eligible for removal, negative = never selected, deepest folder wins.
        row("priority: deeper folder higher", "a/x;a/b/x", SelectByPriority, "a/b/x", "a=1;a/b=5");
        row("priority: protected inner folder", "a/x;a/b/x", SelectByPriority, "a/x", "a=1;a/b=-1");
        row("priority: three levels", "a/b/c/x;a/b/x;a/x", SelectByPriority, "a/b/c/x;a/b/x",
            "a/b/c=2;a/b=5;a=1");
        row("priority: protected keeps several", "p/1;e/2;p/3;f/4", SelectByPriority, "e/2;f/4", "p=-3;f=2");
        row("priority: all negatives protect", "m/1;n/2;z/3", SelectByPriority, "z/3", "m=-2;n=-1");
        row("priority: all protected", "a/x;a/b/x", SelectByPriority, "", "a=-1");
        row("priority: unlisted counts zero", "e/x;f/x", SelectByPriority, "f/x", "f=1");
        row("priority: none listed, by name", "e/x.txt;e/x (2).txt", SelectByPriority, "e/x (2).txt", "q=4");
        row("priority: all equal, by name", "k/b.txt;k/a.txt", SelectByPriority, "k/a.txt", "k=2");
        row("priority: lowest shared", "k/1;m/2;k/3", SelectByPriority, "m/2", "k=1;m=2");
        row("priority: case-sensitive prefix", "d/a/y;D/A/x", SelectByPriority, "d/a/y", "d/a=3");
        row("priority: vanished protects not", "p/1|-;e/2;f/3", SelectByPriority, "p/1;f/3", "p=-1;f=2");
        row("priority: vanished lowest", "k/1|-;m/2;n/3", SelectByPriority, "k/1;n/3", "k=1;m=2;n=3");
        row("priority: one member", "k/1", SelectByPriority, "", "k=5");
        row("priority: no table", "a.txt;copy.txt", SelectByPriority, "");
    }
    void selectGroup()
    {
        QFETCH(QStringList, layout);
        QFETCH(int, rule);
        QFETCH(QStringList, table);
        QFETCH(QStringList, selected);
        const QString folder = QStringLiteral("g%1").arg(++m_case);
        const QStringList entries = makeGroup(folder, layout);
        QCOMPARE(entries.size(), layout.size());
        Priorities priority;
        for (const QString &item : std::as_const(table))
            priority.insert(m_dir.filePath(folder + u'/' + item.section(u'=', 0, 0)),
                            item.section(u'=', 1).toInt());
        QStringList result = table.isEmpty() ? GroupItemAutoSelector::selectGroup(entries, rule)
                                             : GroupItemAutoSelector::selectByPriority(entries, priority);
        for (QString &path : result)
            path.remove(0, m_dir.filePath(folder).size() + 1);
        QCOMPARE(result, selected);
    }

    // Parallel application over many groups equals applying each group on its own, and a
    // group whose selection comes out empty leaves the store.
    void autoSelectAllExMatchesSerial_data()
    {
        QTest::addColumn<int>("rule");
        for (int rule : {SelectNewest, SelectOldest, SelectByFilename, SelectByPriority, SelectHighQuality,
                         SelectLowQuality, SelectAll, Deselect, AutoSelectRule(77)})
            QTest::addRow("rule %d", rule) << rule;
    }
    void autoSelectAllExMatchesSerial()
    {
        QFETCH(int, rule);
        const QString folder = QStringLiteral("many%1").arg(++m_case);
        QList<GroupItemAutoSelector::Group> groups;
        for (int g = 0; g < 120; ++g) {
            QStringList layout;
            for (int m = 0; m < g % 5; ++m) // 0..4 members, so some groups are below two
                layout.append(QString::asprintf("%d/%d/f%d%s.txt|%d|%d", g % 3, g, m, m == 1 ? " (1)" : "",
                                                (g + m * 7) % 11, (g * m) % 13));
            if (g % 17 == 0 && !layout.isEmpty())
                layout.append(QStringLiteral("gone%1.txt|-").arg(g));
            groups.append({QStringLiteral("K%1").arg(g), makeGroup(folder, layout)});
        }
        const QString base = m_dir.filePath(folder) + u'/';
        const Priorities table{{base + u'0', 1}, {base + u'1', -1}, {base + u'2', 3}};

        TFileData &store = TFileData::instance();
        {
            ReadWriteLockGuard locker(store.lock, ReadWriteLockGuard::Write);
            store.clear();
            for (const auto &group : groups)
                store.selectedFiles.insert(group.first, {u"stale"_s});
            store.selectedFiles.insert(u"untouched"_s, {u"kept"_s});
        }
        GroupItemAutoSelector::autoSelectAllEx(groups, rule, table);
        GroupItemAutoSelector::autoSelectAllEx({}, SelectAll); // no groups: the store is left alone

        QHash<QString, QStringList> expected{{u"untouched"_s, {u"kept"_s}}};
        for (const auto &group : groups) {
            const QStringList selected = rule == SelectByPriority
                                             ? GroupItemAutoSelector::selectByPriority(group.second, table)
                                             : GroupItemAutoSelector::selectGroup(group.second, rule);
            if (!selected.isEmpty())
                expected.insert(group.first, selected);
        }
        ReadWriteLockGuard locker(store.lock, ReadWriteLockGuard::Read);
        QCOMPARE(store.selectedFiles, expected);
        QCOMPARE(store.selectedFiles.size() > 1, rule != Deselect && rule != 77);
    }

    void cleanupTestCase()
    {
        ReadWriteLockGuard locker(TFileData::instance().lock, ReadWriteLockGuard::Write);
        TFileData::instance().clear();
    }
};

TWINFOLD_TEST_MAIN(TestGroupItemAutoSelector)
#include "tst_groupitemautoselector.moc"
