#include "result/TImageDeleteWorker.h"
#include "scan/TFileData.h"

#include "TestMain.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QPointer>
#include <QRandomGenerator>
#include <QSet>
#include <QStorageInfo>
#include <QTemporaryDir>

using namespace Qt::StringLiterals;
using Table = TImageDeleteWorker::Table;
using Method = TImageDeleteWorker::Method;
Q_DECLARE_METATYPE(TImageDeleteWorker::Method)

namespace {
bool present(const QString &path)
{
    return QFileInfo::exists(path);
}
} // namespace

class tst_TImageDeleteWorker : public QObject
{
    Q_OBJECT
    QTemporaryDir m_root;
    QString m_dir; // this case's own folder
    int m_cases = 0;

    struct Run
    {
        Table files, dirs, selected;
        QList<int> progress;
        int finished = 0;
        QStringList removed;
    };

    QString abs(const QString &name) const { return m_dir + u'/' + name; }
    void newCase()
    {
        m_dir = m_root.filePath(u"case%1"_s.arg(++m_cases));
        QVERIFY(QDir().mkpath(m_dir));
    }
    void create(const QStringList &names)
    {
        for (const QString &name : names) {
            QFile f(abs(name));
            QVERIFY(f.open(QIODevice::WriteOnly) && f.write(name.toUtf8()) > 0);
        }
    }
    // "k=a,b;j=c": group key to entries, names taken inside this case's folder.
    Table table(const QString &spec) const
    {
        Table t;
        for (const QString &group : spec.split(u';', Qt::SkipEmptyParts)) {
            QStringList entries;
            for (const QString &name : group.section(u'=', 1).split(u',', Qt::SkipEmptyParts))
                entries.append(abs(name));
            t.insert(group.section(u'=', 0, 0), entries);
        }
        return t;
    }
    static Run run(const Table &files, const Table &dirs, const Table &selected, Method method,
                   const QString &target, int cancelAt = -1)
    {
        Run r;
        TImageDeleteWorker worker(files, dirs, selected, method, target);
        QObject::connect(&worker, &TImageDeleteWorker::progressChanged, &worker, [&](int value) {
            r.progress.append(value);
            if (value == cancelAt)
                worker.setCancelled();
        });
        QObject::connect(
            &worker, &TImageDeleteWorker::removalReport, &worker,
            [&](const QStringList &removed, const QList<DeleteResult> &) { r.removed = removed; });
        QObject::connect(&worker, &TImageDeleteWorker::finished, &worker,
                         [&](const Table &f, const Table &d, const Table &s) {
                             ++r.finished;
                             r.files = f, r.dirs = d, r.selected = s;
                         });
        if (cancelAt == 0)
            worker.setCancelled();
        worker.doDelete();
        return r;
    }
    // What every batch must leave behind, cancelled or not: groups keep at least two
    // entries and lose only entries whose file is gone; an entry leaves the selection only
    // when its file is gone.
    static void checkConsistent(const Table &before, const Table &selected, const Run &r)
    {
        QCOMPARE(r.finished, 1);
        for (auto it = r.files.cbegin(); it != r.files.cend(); ++it) {
            QVERIFY(it.value().size() >= 2);
            for (const QString &e : before.value(it.key()))
                QVERIFY2(it.value().contains(e) || !present(TImageDeleteWorker::realPath(e)), qPrintable(e));
        }
        for (auto it = selected.cbegin(); it != selected.cend(); ++it)
            for (const QString &e : it.value())
                QVERIFY2(r.selected.value(it.key()).contains(e) || !present(TImageDeleteWorker::realPath(e)),
                         qPrintable(e));
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_root.isValid());
        // Same guard as the single-file test: the trash must be this test's own folder.
        qputenv("XDG_DATA_HOME", m_root.filePath(u"xdg"_s).toLocal8Bit());
        qputenv("HOME", m_root.filePath(u"home"_s).toLocal8Bit());
        QVERIFY(QDir().mkpath(m_root.filePath(u"home"_s)));
        const QString trash = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
        QVERIFY2(trash.startsWith(m_root.path() + u'/'), qPrintable(trash));
        QCOMPARE(QStorageInfo(m_root.path()), QStorageInfo(QDir::home()));
    }

    void batch_data()
    {
        QTest::addColumn<QStringList>("files");
        QTest::addColumn<QString>("groups");
        QTest::addColumn<QString>("selected");
        QTest::addColumn<QString>("groupsAfter");
        QTest::addColumn<QString>("selectedAfter");
        QTest::addColumn<QStringList>("gone");
        const QStringList abc{u"a"_s, u"b"_s, u"c"_s};
        QTest::newRow("one of three")
            << abc << u"k=a,b,c"_s << u"k=b"_s << u"k=a,c"_s << QString() << QStringList{u"b"_s};
        QTest::newRow("below two leaves")
            << abc << u"k=a,b;j=b,c"_s << u"k=b"_s << u"j=b,c"_s << QString() << QStringList{u"b"_s};
        QTest::newRow("all of a group")
            << abc << u"k=a,b"_s << u"k=a,b"_s << QString() << QString() << QStringList{u"a"_s, u"b"_s};
        QTest::newRow("vanished member")
            << abc << u"k=a,b,ghost"_s << u"k=ghost"_s << u"k=a,b"_s << QString() << QStringList();
        QTest::newRow("not a member")
            << abc << u"k=a,b"_s << u"k=c"_s << u"k=a,b"_s << u"k=c"_s << QStringList();
        QTest::newRow("key not in table")
            << abc << u"k=a,b"_s << u"x=a"_s << u"k=a,b"_s << u"x=a"_s << QStringList();
        const QStringList pq{u"p.jpg"_s, u"q.jpg"_s, u"r.jpg"_s, u"p.jpg.bak"_s, u"p.jp"_s};
        const QString similar = u"k=p.jpg_simlar_90,q.jpg_simlar_85,r.jpg_simlar_70"_s;
        QTest::newRow("plain path in similar group")
            << pq << similar << u"k=p.jpg"_s << u"k=q.jpg_simlar_85,r.jpg_simlar_70"_s << QString()
            << QStringList{u"p.jpg"_s};
        QTest::newRow("similar entry selected")
            << pq << similar << u"k=q.jpg_simlar_85"_s << u"k=p.jpg_simlar_90,r.jpg_simlar_70"_s << QString()
            << QStringList{u"q.jpg"_s};
        QTest::newRow("prefix and suffix relatives")
            << pq << u"k=p.jpg.bak_simlar_5,p.jp_simlar_6,q.jpg_simlar_x"_s << u"k=p.jpg,p.jp_simlar,q.jpg"_s
            << u"k=p.jpg.bak_simlar_5,p.jp_simlar_6,q.jpg_simlar_x"_s << u"k=p.jpg,p.jp_simlar,q.jpg"_s
            << QStringList();
        QTest::newRow("same file in two groups")
            << pq << u"k=p.jpg_simlar_90,q.jpg_simlar_80;j=p.jpg_simlar_70,r.jpg_simlar_60"_s << u"k=p.jpg"_s
            << u"j=p.jpg_simlar_70,r.jpg_simlar_60"_s << QString() << QStringList{u"p.jpg"_s};
        const QStringList meta{u"a+b(1).jpg"_s, u"aab1.jpg"_s, u"axb.jpg"_s, u"x"_s};
        QTest::newRow("pattern characters are literal")
            << meta << u"k=a+b(1).jpg_simlar_50,aab1.jpg_simlar_40,axb.jpg_simlar_30,x_simlar_20"_s
            << u"k=a+b(1).jpg,a.b.jpg"_s << u"k=aab1.jpg_simlar_40,axb.jpg_simlar_30,x_simlar_20"_s
            << u"k=a.b.jpg"_s << QStringList{u"a+b(1).jpg"_s};
    }
    void batch()
    {
        QFETCH(QStringList, files);
        QFETCH(QString, groups);
        QFETCH(QString, selected);
        QFETCH(QString, groupsAfter);
        QFETCH(QString, selectedAfter);
        QFETCH(QStringList, gone);
        newCase();
        create(files);
        const Table before = table(groups);
        const Run r = run(before, {}, table(selected), TWIgnoreListPreferences::removePermanently, QString());
        QCOMPARE(r.files, table(groupsAfter));
        QCOMPARE(r.selected, table(selectedAfter));
        for (const QString &name : std::as_const(files))
            QVERIFY2(present(abs(name)) != gone.contains(name), qPrintable(name));
        // One progress step per selected entry of a key the table holds, failures included.
        QList<int> expected;
        const Table sel = table(selected);
        for (auto it = sel.cbegin(); it != sel.cend(); ++it)
            for (qsizetype i = 0; before.contains(it.key()) && i < it.value().size(); ++i)
                expected.append(int(expected.size() + 1));
        QCOMPARE(r.progress, expected);
        checkConsistent(before, sel, r);
    }

    void methodsAndFolders_data()
    {
        QTest::addColumn<Method>("method");
        QTest::newRow("trash") << TWIgnoreListPreferences::moveToTrash;
        QTest::newRow("permanent") << TWIgnoreListPreferences::removePermanently;
        QTest::newRow("to folder") << TWIgnoreListPreferences::moveToFolder;
    }
    void methodsAndFolders()
    {
        QFETCH(Method, method);
        newCase();
        create({u"a"_s, u"b"_s});
        for (const QString &d : {u"d1"_s, u"d2"_s, u"d3"_s}) {
            QVERIFY(QDir().mkpath(abs(d)));
            create({d + u"/inner"_s});
        }
        const QString target = abs(u"target"_s);
        // A folder standing in a file group is never removed as a file.
        const Run r =
            run(table(u"k=a,b,d1"_s), table(u"f=d1,d2,d3"_s), table(u"k=a,d1;f=d2"_s), method, target);
        QCOMPARE(r.files, table(u"k=b,d1"_s));
        QCOMPARE(r.dirs, table(u"f=d1,d3"_s));
        QCOMPARE(r.selected, table(u"k=d1"_s));
        QVERIFY(!present(abs(u"a"_s)) && !present(abs(u"d2"_s)));
        QVERIFY(present(abs(u"b"_s)) && present(abs(u"d1/inner"_s)) && present(abs(u"d3/inner"_s)));
        QCOMPARE(present(target + u"/d2/inner"_s), method == TWIgnoreListPreferences::moveToFolder);
    }

    // Every removal fails (the target folder is a file): groups and selection stay whole.
    void failuresStaySelected()
    {
        newCase();
        create({u"a"_s, u"b"_s, u"c"_s, u"blocker"_s});
        const Table groups = table(u"k=a,b,c"_s);
        const Run r =
            run(groups, {}, table(u"k=a,b"_s), TWIgnoreListPreferences::moveToFolder, abs(u"blocker"_s));
        QCOMPARE(r.files, groups);
        QCOMPARE(r.selected, table(u"k=a,b"_s));
        QCOMPARE(r.progress, (QList<int>{1, 2}));
        QVERIFY(present(abs(u"a"_s)) && present(abs(u"b"_s)));
    }

    void cancellation_data()
    {
        QTest::addColumn<int>("cancelAt");
        for (int at : {0, 1, 4, 7, 8})
            QTest::addRow("after %d", at) << at;
    }
    void cancellation()
    {
        QFETCH(int, cancelAt);
        newCase();
        QString groups, selected;
        for (int g = 0; g < 4; ++g) {
            create({u"%1x"_s.arg(g), u"%1y"_s.arg(g), u"%1z"_s.arg(g)});
            groups += u"g%1=%1x,%1y,%1z;"_s.arg(g);
            selected += u"g%1=%1x,%1y;"_s.arg(g);
        }
        const Run r = run(table(groups), {}, table(selected), TWIgnoreListPreferences::removePermanently,
                          QString(), cancelAt);
        QCOMPARE(r.progress.size(), cancelAt);
        QCOMPARE(r.removed.size(), cancelAt);
        int gone = 0;
        for (int g = 0; g < 4; ++g)
            for (const QString &n : {u"x"_s, u"y"_s, u"z"_s})
                gone += present(abs(QString::number(g) + n)) ? 0 : 1;
        QCOMPARE(gone, cancelAt);
        checkConsistent(table(groups), table(selected), r);
    }

    // On its own thread, cancelled from this one while it runs.
    void threadedCancel()
    {
        newCase();
        QString groups, selected;
        for (int g = 0; g < 60; ++g) {
            create({u"%1x"_s.arg(g), u"%1y"_s.arg(g), u"%1z"_s.arg(g)});
            groups += u"g%1=%1x,%1y,%1z;"_s.arg(g);
            selected += u"g%1=%1x,%1y;"_s.arg(g);
        }
        auto *worker = new TImageDeleteWorker(table(groups), {}, table(selected),
                                              TWIgnoreListPreferences::removePermanently, QString());
        QPointer<TImageDeleteWorker> alive(worker);
        Run r;
        connect(worker, &TImageDeleteWorker::progressChanged, this, [&](int) {
            if (alive)
                alive->setCancelled();
        });
        connect(worker, &TImageDeleteWorker::finished, this,
                [&](const Table &f, const Table &, const Table &s) {
                    ++r.finished;
                    r.files = f, r.selected = s;
                });
        worker->start();
        QTRY_COMPARE_WITH_TIMEOUT(r.finished, 1, 60000);
        checkConsistent(table(groups), table(selected), r);
        QTRY_VERIFY_WITH_TIMEOUT(alive.isNull(), 60000);
    }

    // Random groups and selections over small trees: a batch never touches a path that was
    // not selected, and every group keeps each member that was not selected.
    void neverTouchesUnselected()
    {
        const QStringList pool{u"a"_s,   u"ab"_s,  u"a.jpg"_s, u"a.jpg.bak"_s, u"b(1)"_s,
                               u"b+c"_s, u"c.d"_s, u"cxd"_s,   u"e e"_s};
        for (int iteration = 0; iteration < 300; ++iteration) {
            QRandomGenerator rng(quint32(7919 + iteration));
            newCase();
            create(pool);
            const auto pick = [&] { return abs(pool.at(rng.bounded(int(pool.size())))); };
            Table groups, selected;
            for (int g = 0, n = rng.bounded(1, 5); g < n; ++g) {
                const bool similar = rng.bounded(2) == 1;
                QStringList members, chosen;
                for (int m = 0, size = rng.bounded(2, 6); m < size; ++m) {
                    const QString real = rng.bounded(8) == 0 ? abs(u"ghost"_s) : pick();
                    const QString entry =
                        similar ? real + u"_simlar_"_s + QString::number(rng.bounded(100)) : real;
                    if (!members.contains(entry))
                        members.append(entry);
                    if (rng.bounded(3) == 0)
                        chosen.append(similar && rng.bounded(2) ? real : entry);
                }
                if (rng.bounded(4) == 0)
                    chosen.append(pick()); // a stray path, often a prefix relative of a member
                const QString key = u"g%1"_s.arg(g);
                groups.insert(key, members);
                if (!chosen.isEmpty())
                    selected.insert(key, chosen);
            }
            const auto method = static_cast<Method>(rng.bounded(3));
            const Run r = run(groups, {}, selected, method, m_dir + u"-target"_s);

            QSet<QString> allowed;
            for (auto it = selected.cbegin(); it != selected.cend(); ++it)
                for (const QString &s : it.value())
                    for (const QString &m : groups.value(it.key()))
                        if (m == s || TImageDeleteWorker::isSimilarEntryOf(m, s))
                            allowed << TImageDeleteWorker::realPath(s);
            for (const QString &name : pool)
                QVERIFY2(present(abs(name)) || allowed.contains(abs(name)),
                         qPrintable(u"%1 #%2"_s.arg(name).arg(iteration)));
            for (auto it = groups.cbegin(); it != groups.cend(); ++it) {
                const QStringList chosen = selected.value(it.key());
                QStringList unselected;
                for (const QString &e : it.value())
                    if (!chosen.contains(e) && !chosen.contains(TImageDeleteWorker::realPath(e)))
                        unselected.append(e);
                const auto out = r.files.constFind(it.key());
                if (out == r.files.cend())
                    QVERIFY2(unselected.size() < 2, qPrintable(u"#%1"_s.arg(iteration)));
                else
                    for (const QString &e : std::as_const(unselected))
                        QVERIFY2(out->contains(e), qPrintable(u"%1 #%2"_s.arg(e).arg(iteration)));
            }
            QCOMPARE(r.finished, 1);
        }
    }

    void storeRoundTrip()
    {
        TFileData &store = TFileData::instance();
        store.clear();
        store.duplicateGroups = {
            {u"k1"_s, {u"a"_s, u"b"_s, u"c"_s}}, {u"k2"_s, {u"d"_s, u"e"_s}}, {u"k3"_s, {u"f"_s, u"g"_s}}};
        store.folderGroups = {{u"f1"_s, {{u"r1"_s, 1, 10}, {u"r2"_s, 1, 10}, {u"r3"_s, 1, 10}}}};
        store.selectedFiles = {
            {u"k1"_s, {u"a"_s}}, {u"k2"_s, {u"d"_s}}, {u"k3"_s, {u"f"_s}}, {u"f1"_s, {u"r2"_s}}};
        TImageDeleteWorker::Tables given = TImageDeleteWorker::tablesFromStore(store);
        QCOMPARE(given.dirs.value(u"f1"_s), (QStringList{u"r1"_s, u"r2"_s, u"r3"_s}));
        given.selected.remove(u"k3"_s); // this batch does not cover k3
        const TImageDeleteWorker::Tables result{
            {{u"k1"_s, {u"b"_s, u"c"_s}}, {u"k3"_s, {u"g"_s, u"x"_s}}}, {{u"f1"_s, {u"r1"_s, u"r3"_s}}}, {}};
        TImageDeleteWorker::applyToStore(store, given, result);
        QCOMPARE(store.duplicateGroups.value(u"k1"_s), (QStringList{u"b"_s, u"c"_s}));
        QVERIFY(!store.duplicateGroups.contains(u"k2"_s));
        QCOMPARE(store.duplicateGroups.value(u"k3"_s), (QStringList{u"f"_s, u"g"_s}));
        QCOMPARE(store.folderGroups.value(u"f1"_s).size(), 2);
        QCOMPARE(store.folderGroups.value(u"f1"_s).at(1).folderPath, u"r3"_s);
        QCOMPARE(store.selectedFiles, (Table{{u"k3"_s, {u"f"_s}}}));
        store.clear();
    }
};

TWINFOLD_TEST_MAIN(tst_TImageDeleteWorker)
#include "tst_timagedeleteworker.moc"
