#include "app/ReadWriteLockGuard.h"
#include "result/GroupItem.h"
#include "result/GroupItemAutoSelector.h"
#include "scan/TFileData.h"

#include "TestMain.h"

#include <QDateTime>
#include <QFile>
#include <QImage>
#include <QTemporaryDir>
#include <QtConcurrent/QtConcurrentMap>
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

    QString abs(const QString &name) const { return m_dir.path() + u'/' + name; }
    QString rel(const QString &path) const { return path.mid(m_dir.path().size() + 1); }

    // Creates the files of a group in a sub-folder. A member is "name|bytes|mtime|image" with an
    // optional ">suffix" appended to the entry (similar-image entries): bytes "-" leaves the file
    // absent (vanished), mtime is seconds after a fixed base, image is "WxH" for a real PNG or
    // "junk" for a file with an image name and no image inside. Empty fields take defaults.
    QStringList makeGroup(const QString &folder, const QStringList &layout)
    {
        QStringList entries;
        for (const QString &desc : layout) {
            const QStringList f = desc.section(u'>', 0, 0).split(u'|');
            const QString path = abs(folder + u'/' + f.value(0)), bytes = f.value(1), image = f.value(3);
            entries.append(path + desc.section(u'>', 1));
            if (bytes == u"-") {
                QFile::remove(path);
                continue;
            }
            QDir().mkpath(QFileInfo(path).path());
            QFile file(path);
            if (image.contains(u'x')) {
                QImage img(image.section(u'x', 0, 0).toInt(), image.section(u'x', 1).toInt(),
                           QImage::Format_RGB32);
                img.fill(Qt::darkCyan);
                if (!img.save(path, "PNG"))
                    return {};
            } else if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
                       file.write(QByteArray(bytes.isEmpty() ? 4 : bytes.toInt(), 'x')) < 0) {
                return {};
            }
            file.close();
            if (!f.value(2).isEmpty() &&
                (!file.open(QIODevice::ReadWrite) ||
                 !file.setFileTime(m_base.addSecs(f.value(2).toInt()), QFileDevice::FileModificationTime)))
                return {};
        }
        return entries;
    }

    QStringList relative(const QStringList &paths, const QString &folder) const
    {
        QStringList out;
        for (const QString &p : paths)
            out.append(rel(p).mid(folder.size() + 1));
        return out;
    }

    int m_case = 0;

private slots:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    // Runs first so the word list and the pattern are built by racing threads.
    void filenameScoreFromManyThreadsAgrees()
    {
        QStringList paths;
        for (int i = 0; i < 2000; ++i)
            paths.append(QStringLiteral("/data/set/photo copy (%1).jpg").arg(i % 7));
        // The release/acquire pair shows a race checker the hand-over that Qt's pool makes.
        std::atomic_bool ready;
        ready.store(true, std::memory_order_release);
        const QList<qint32> scores = QtConcurrent::blockingMapped(paths, [&ready](const QString &p) {
            (void)ready.load(std::memory_order_acquire);
            return GroupItemAutoSelector::filenameScore(p);
        });
        for (qint32 score : scores)
            QCOMPARE(score, 100 - 50 - 50);
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
        QTest::newRow("dash with four digits") << u"/data/pics/IMG-1234.jpg"_s << 50;
        QTest::newRow("dash without digits") << u"/data/pics/my-photo_x.jpg"_s << 100;
        QTest::newRow("three underscores") << u"/data/pics/a_1_2_3.jpg"_s << -50;
        QTest::newRow("unbounded below") << u"/tmp/backup/tmp_backup_new (2).txt"_s << -130;
        QTest::newRow("empty path") << u""_s << 100;
    }
    void filenameScore()
    {
        QFETCH(QString, path);
        QFETCH(qint32, score);
        QCOMPARE(GroupItemAutoSelector::filenameScore(path), score);
    }

    void selectGroup_data()
    {
        QTest::addColumn<QStringList>("layout");
        QTest::addColumn<int>("rule");
        QTest::addColumn<QStringList>("selected");
        const auto row = [](const char *name, const QStringList &layout, int rule,
                            const QStringList &selected) {
            QTest::newRow(name) << layout << rule << selected;
        };
        const QStringList ages = {u"a.txt|4|300"_s, u"b.txt|4|100"_s, u"c.txt|4|200"_s};
        const QStringList sameAge = {u"a.txt|4|100"_s, u"b.txt|4|100"_s, u"c.txt|4|100"_s};
        row("newest: oldest kept", ages, SelectNewest, {u"a.txt"_s, u"c.txt"_s});
        row("newest: tie keeps last", sameAge, SelectNewest, {u"a.txt"_s, u"b.txt"_s});
        row("newest: first of the oldest kept", {u"a.txt|4|300"_s, u"b.txt|4|100"_s, u"c.txt|4|100"_s},
            SelectNewest, {u"a.txt"_s, u"c.txt"_s});
        row("oldest: newest kept", ages, SelectOldest, {u"b.txt"_s, u"c.txt"_s});
        row("oldest: tie keeps first", sameAge, SelectOldest, {u"b.txt"_s, u"c.txt"_s});
        row("oldest: first of the newest kept", {u"a.txt|4|100"_s, u"b.txt|4|300"_s, u"c.txt|4|300"_s},
            SelectOldest, {u"a.txt"_s, u"c.txt"_s});
        row("oldest: one second apart", {u"a.txt|4|100"_s, u"b.txt|4|101"_s}, SelectOldest, {u"a.txt"_s});
        // A vanished member is never the one that stays.
        row("newest: vanished file is never kept", {u"a.txt|4|100"_s, u"gone.txt|-"_s, u"c.txt|4|200"_s},
            SelectNewest, {u"gone.txt"_s, u"c.txt"_s});
        row("oldest: vanished file is selected", {u"gone.txt|-"_s, u"a.txt|4|100"_s}, SelectOldest,
            {u"gone.txt"_s});

        row("filename: copy selected", {u"photo (1).jpg|4"_s, u"photo.jpg|4"_s}, SelectByFilename,
            {u"photo (1).jpg"_s});
        row("filename: original first", {u"photo.jpg|4"_s, u"photo (1).jpg|4"_s}, SelectByFilename,
            {u"photo (1).jpg"_s});
        row("filename: tie keeps first", {u"b.jpg|4"_s, u"a.jpg|4"_s, u"c.jpg|4"_s}, SelectByFilename,
            {u"a.jpg"_s, u"c.jpg"_s});
        row("filename: vanished is never kept", {u"copy.txt|4"_s, u"gone.txt|-"_s}, SelectByFilename,
            {u"gone.txt"_s});
        row("filename: nothing on disk, nothing selected", {u"gone.txt|-"_s, u"lost.txt|-"_s},
            SelectByFilename, {});

        const QStringList dims = {u"a.png|||40x30"_s, u"b.png|||20x10"_s, u"c.png|||30x30"_s};
        const QStringList sameDims = {u"a.png|||8x8"_s, u"b.png|||16x4"_s, u"c.png|||4x16"_s};
        row("high resolution: smallest kept", dims, SelectHighResolution, {u"a.png"_s, u"c.png"_s});
        row("high resolution: equal pixel counts keep last", sameDims, SelectHighResolution,
            {u"a.png"_s, u"b.png"_s});
        row("low resolution: largest kept", dims, SelectLowResolution, {u"b.png"_s, u"c.png"_s});
        row("low resolution: equal pixel counts keep first", sameDims, SelectLowResolution,
            {u"b.png"_s, u"c.png"_s});
        // An unreadable header counts -1 x -1, the same product as a 1x1 image.
        row("low resolution: unreadable ties with one pixel", {u"bad.png|9||junk"_s, u"one.png|||1x1"_s},
            SelectLowResolution, {u"one.png"_s});
        row("low resolution: vanished is never kept", {u"gone.png|-"_s, u"one.png|||1x1"_s},
            SelectLowResolution, {u"gone.png"_s});
        row("low resolution: unreadable below two pixels", {u"bad.png|9||junk"_s, u"two.png|||2x1"_s},
            SelectLowResolution, {u"bad.png"_s});
        row("high resolution: not an image is smallest", {u"big.png|||50x50"_s, u"doc.txt|100"_s},
            SelectHighResolution, {u"big.png"_s});
        row("high resolution: similar entries read the real file",
            {u"b.png|||20x10>_simlar_99"_s, u"a.png|||40x30>_simlar_87"_s}, SelectHighResolution,
            {u"a.png_simlar_87"_s});

        const QStringList sizes = {u"a.bin|10"_s, u"b.bin|5"_s, u"c.bin|20"_s};
        const QStringList sameSize = {u"a.bin|7"_s, u"b.bin|7"_s, u"c.bin|7"_s};
        row("high quality: smallest file kept", sizes, SelectHighQuality, {u"a.bin"_s, u"c.bin"_s});
        row("high quality: tie keeps last", sameSize, SelectHighQuality, {u"a.bin"_s, u"b.bin"_s});
        row("low quality: largest file kept", sizes, SelectLowQuality, {u"a.bin"_s, u"b.bin"_s});
        row("low quality: tie keeps first", sameSize, SelectLowQuality, {u"b.bin"_s, u"c.bin"_s});
        row("low quality: one byte apart", {u"a.bin|7"_s, u"b.bin|8"_s}, SelectLowQuality, {u"a.bin"_s});
        row("high quality: vanished is never kept", {u"a.bin|2"_s, u"gone.bin|-"_s, u"c.bin|3"_s},
            SelectHighQuality, {u"gone.bin"_s, u"c.bin"_s});
        row("high quality: vanished ties with an empty file", {u"gone.bin|-"_s, u"e.bin|0"_s},
            SelectHighQuality, {u"gone.bin"_s});
        row("low quality: similar entries read the real file",
            {u"a.bin|3>_simlar_60"_s, u"b.bin|9>_simlar_70"_s}, SelectLowQuality, {u"a.bin_simlar_60"_s});

        // A path listed twice is one file: no listing of the kept file is selected.
        row("kept path listed twice", {u"a.txt|4|100"_s, u"a.txt|4|100"_s, u"b.txt|4|200"_s}, SelectNewest,
            {u"b.txt"_s});
        row("selected path listed twice", {u"a.txt|4|300"_s, u"a.txt|4|300"_s, u"b.txt|4|200"_s},
            SelectNewest, {u"a.txt"_s, u"a.txt"_s});
        row("only one file, listed twice", {u"a.bin|7"_s, u"a.bin|7"_s}, SelectHighQuality, {});

        row("all", {u"a.txt|1"_s, u"b.txt|2"_s, u"gone.txt|-"_s}, SelectAll,
            {u"a.txt"_s, u"b.txt"_s, u"gone.txt"_s});
        row("deselect", {u"a.txt|1"_s, u"b.txt|2"_s}, Deselect, {});
        row("priority needs its table", {u"a.txt|1"_s, u"copy.txt|2"_s}, SelectByPriority, {});
        row("rule below range", {u"a.txt|1"_s, u"b.txt|2"_s}, -1, {});
        row("rule above range", {u"a.txt|1"_s, u"b.txt|2"_s}, 10, {});
    }
    void selectGroup()
    {
        QFETCH(QStringList, layout);
        QFETCH(int, rule);
        QFETCH(QStringList, selected);
        const QString folder = QStringLiteral("g%1").arg(++m_case);
        const QStringList entries = makeGroup(folder, layout);
        QCOMPARE(entries.size(), layout.size());
        QCOMPARE(relative(GroupItemAutoSelector::selectGroup(entries, rule), folder), selected);
    }

    void belowTwoMembersSelectsNothing_data()
    {
        QTest::addColumn<int>("rule");
        QTest::addColumn<int>("members");
        for (int rule = SelectNewest; rule <= Deselect; ++rule) {
            QTest::addRow("rule %d, one member", rule) << rule << 1;
            QTest::addRow("rule %d, empty", rule) << rule << 0;
        }
    }
    void belowTwoMembersSelectsNothing()
    {
        QFETCH(int, rule);
        QFETCH(int, members);
        const QString folder = QStringLiteral("g%1").arg(++m_case);
        const QStringList entries = makeGroup(folder, QStringList(members, u"only.png|||3x3"_s));
        QCOMPARE(entries.size(), members);
        QVERIFY(GroupItemAutoSelector::selectGroup(entries, rule).isEmpty());
        QVERIFY(GroupItemAutoSelector::selectByPriority(entries, {{m_dir.path(), 5}}).isEmpty());
    }

    void selectByPriority_data()
    {
        QTest::addColumn<QStringList>("paths");
        QTest::addColumn<Priorities>("table");
        QTest::addColumn<QStringList>("selected");
        const auto row = [](const char *name, const QStringList &paths, const Priorities &table,
                            const QStringList &selected) {
            QTest::newRow(name) << paths << table << selected;
        };
        const QString ax = u"/d/a/x.txt"_s, abx = u"/d/a/b/x.txt"_s;
        row("nested: deeper folder higher", {ax, abx}, {{u"/d/a"_s, 1}, {u"/d/a/b"_s, 5}}, {abx});
        row("nested: deeper folder lower", {abx, ax}, {{u"/d/a"_s, 5}, {u"/d/a/b"_s, 1}}, {ax});
        row("nested: protected inner folder", {ax, abx}, {{u"/d/a"_s, 1}, {u"/d/a/b"_s, -1}}, {ax});
        row("three levels, deepest first", {u"/d/a/b/c/x"_s, abx, ax},
            {{u"/d/a/b/c"_s, 2}, {u"/d/a/b"_s, 5}, {u"/d/a"_s, 1}}, {u"/d/a/b/c/x"_s, abx});
        row("protected keeps several, selects the rest",
            {u"/p/1.jpg"_s, u"/e/2.jpg"_s, u"/p/3.jpg"_s, u"/f/4.jpg"_s}, {{u"/p"_s, -3}, {u"/f"_s, 2}},
            {u"/e/2.jpg"_s, u"/f/4.jpg"_s});
        row("different negatives all protected", {u"/m/1"_s, u"/n/2"_s, u"/z/3"_s},
            {{u"/m"_s, -2}, {u"/n"_s, -1}}, {u"/z/3"_s});
        row("all protected", {ax, abx}, {{u"/d"_s, -1}}, {});
        row("negative never selected even when highest", {u"/n/x"_s, u"/z/x"_s},
            {{u"/n"_s, -1}, {u"/z"_s, 0}}, {u"/z/x"_s});
        row("unlisted counts zero", {u"/e/x.txt"_s, u"/f/x.txt"_s}, {{u"/f"_s, 1}}, {u"/f/x.txt"_s});
        row("listed zero equals unlisted: by name", {u"/z/copy.txt"_s, u"/e/x.txt"_s}, {{u"/z"_s, 0}},
            {u"/z/copy.txt"_s});
        row("none listed: by name", {u"/e/x.txt"_s, u"/e/x (2).txt"_s}, {{u"/q"_s, 4}}, {u"/e/x (2).txt"_s});
        row("all equal: by name, first kept on tie", {u"/k/b.txt"_s, u"/k/a.txt"_s}, {{u"/k"_s, 2}},
            {u"/k/a.txt"_s});
        row("lowest shared by two: both kept", {u"/k/1"_s, u"/m/2"_s, u"/k/3"_s},
            {{u"/k"_s, 1}, {u"/m"_s, 2}}, {u"/m/2"_s});
        row("case-sensitive prefix", {u"/d/a/y.txt"_s, u"/D/A/x.txt"_s}, {{u"/d/a"_s, 3}}, {u"/d/a/y.txt"_s});
        row("vanished protected copy protects nothing", {u"/p/1.jpg|gone"_s, u"/e/2.jpg"_s, u"/f/3.jpg"_s},
            {{u"/p"_s, -1}, {u"/f"_s, 2}}, {u"/p/1.jpg"_s, u"/f/3.jpg"_s});
        row("vanished lowest is not the keeper", {u"/k/1|gone"_s, u"/m/2"_s, u"/n/3"_s},
            {{u"/k"_s, 1}, {u"/m"_s, 2}, {u"/n"_s, 3}}, {u"/k/1"_s, u"/n/3"_s});
    }
    void selectByPriority()
    {
        QFETCH(QStringList, paths);
        QFETCH(Priorities, table);
        QFETCH(QStringList, selected);
        // The rows name absolute paths; they are made below a folder of this case. A path
        // ending in "|gone" is not created.
        const QString root = m_dir.filePath(QStringLiteral("p%1").arg(++m_case));
        QStringList real;
        for (QString path : std::as_const(paths)) {
            const bool gone = path.endsWith(u"|gone"_s);
            path = root + path.chopped(gone ? 5 : 0);
            if (!gone) {
                QVERIFY(QDir().mkpath(QFileInfo(path).absolutePath()));
                QFile file(path);
                QVERIFY(file.open(QIODevice::WriteOnly));
            }
            real.append(path);
        }
        Priorities rooted;
        for (auto it = table.cbegin(); it != table.cend(); ++it)
            rooted.insert(root + it.key(), it.value());
        QStringList expected;
        for (const QString &path : std::as_const(selected))
            expected.append(root + path);
        QCOMPARE(GroupItemAutoSelector::selectByPriority(real, rooted), expected);
    }

    // Parallel application over many groups equals applying each group on its own, and a
    // group whose selection comes out empty leaves the store.
    void autoSelectAllExMatchesSerial_data()
    {
        QTest::addColumn<int>("rule");
        for (int rule :
             std::initializer_list<int>{SelectNewest, SelectOldest, SelectByFilename, SelectByPriority,
                                        SelectHighQuality, SelectLowQuality, SelectAll, Deselect, 77})
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
        const Priorities table{
            {abs(folder + u"/0"_s), 1}, {abs(folder + u"/1"_s), -1}, {abs(folder + u"/2"_s), 3}};

        TFileData &store = TFileData::instance();
        {
            ReadWriteLockGuard locker(store.lock, ReadWriteLockGuard::Write);
            store.clear();
            for (const auto &group : groups)
                store.selectedFiles.insert(group.first, {u"stale"_s});
            store.selectedFiles.insert(u"untouched"_s, {u"kept"_s});
        }

        GroupItemAutoSelector::autoSelectAllEx(groups, rule, table);

        QHash<QString, QStringList> expected;
        for (const auto &group : groups) {
            const QStringList selected = rule == SelectByPriority
                                             ? GroupItemAutoSelector::selectByPriority(group.second, table)
                                             : GroupItemAutoSelector::selectGroup(group.second, rule);
            if (!selected.isEmpty())
                expected.insert(group.first, selected);
        }
        expected.insert(u"untouched"_s, {u"kept"_s});
        ReadWriteLockGuard locker(store.lock, ReadWriteLockGuard::Read);
        QCOMPARE(store.selectedFiles, expected);
        if (rule == Deselect || rule == 77)
            QCOMPARE(store.selectedFiles.size(), 1);
        else
            QVERIFY(store.selectedFiles.size() > 1);
        for (const auto &group : groups) {
            if (group.second.size() < 2)
                QVERIFY(!store.selectedFiles.contains(group.first));
        }
        // No groups: the store is left alone.
        locker.unlock();
        GroupItemAutoSelector::autoSelectAllEx({}, SelectAll);
        locker.relock();
        QCOMPARE(store.selectedFiles, expected);
    }

    void cleanupTestCase()
    {
        ReadWriteLockGuard locker(TFileData::instance().lock, ReadWriteLockGuard::Write);
        TFileData::instance().clear();
    }
};

TWINFOLD_TEST_MAIN(TestGroupItemAutoSelector)
#include "tst_groupitemautoselector.moc"
