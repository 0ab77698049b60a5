#include "result/TImageDeleteWorker.h"
#include "scan/TFileData.h"

#include "PrivateTrash.h"
#include "TestMain.h"

#include <QDir>
#include <QFile>
#include <QPointer>
#include <QRandomGenerator>
#include <QStorageInfo>
#include <QTemporaryDir>

using namespace Qt::StringLiterals;
using Table = TImageDeleteWorker::Table;
using Method = TImageDeleteWorker::Method;
Q_DECLARE_METATYPE(TImageDeleteWorker::Method)

using enum TWIgnoreListPreferences::TWRemovalMethod;

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
        QStringList removed;
        int finished = 0;
        bool workerDeleted = false;
    };

    static bool present(const QString &path) { return QFileInfo::exists(path); }
    QString abs(const QString &name) const { return m_dir + u'/' + name; }
    // A fresh folder for the case, holding one file per name (its content is its name).
    void newCase(const QStringList &names)
    {
        m_dir = m_root.filePath(u"case%1"_s.arg(++m_cases));
        for (const QString &name : names) {
            QDir().mkpath(QFileInfo(abs(name)).absolutePath());
            QFile f(abs(name));
            QVERIFY(f.open(QIODevice::WriteOnly) && f.write(name.toUtf8()) > 0);
        }
    }
    // "k=a,b;j=c": group key to entries, names taken inside this case's folder.
    Table table(const QString &text) const
    {
        Table t;
        for (const QString &group : text.split(u';', Qt::SkipEmptyParts))
            for (const QString &name : group.section(u'=', 1).split(u','))
                t[group.section(u'=', 0, 0)].append(abs(name));
        return t;
    }
    // Runs a batch here, or on its own thread when `threaded` (cancelled from this thread at
    // its first progress); it cancels itself when its progress reaches `cancelAt`.
    static Run run(const Table &files, const Table &dirs, const Table &selected, Method method,
                   const QString &target, int cancelAt = -1, bool threaded = false)
    {
        Run r;
        QObject here;
        QPointer<TImageDeleteWorker> worker = new TImageDeleteWorker(files, dirs, selected, method, target);
        QObject::connect(worker, &TImageDeleteWorker::progressChanged, &here, [&](int value) {
            r.progress.append(value);
            if (worker && (threaded || value == cancelAt))
                worker->setCancelled();
        });
        QObject::connect(
            worker, &TImageDeleteWorker::removalReport, &here,
            [&](const QStringList &removed, const QList<DeleteResult> &) { r.removed = removed; });
        QObject::connect(worker, &TImageDeleteWorker::finished, &here,
                         [&](const Table &f, const Table &d, const Table &s) {
                             ++r.finished;
                             r.files = f, r.dirs = d, r.selected = s;
                         });
        if (cancelAt == 0)
            worker->setCancelled();
        if (threaded) {
            worker->start(); // the worker deletes itself once done
        } else {
            worker->doDelete();
            delete worker;
        }
        r.workerDeleted = QTest::qWaitFor([&] { return r.finished > 0 && worker.isNull(); }, 60000);
        return r;
    }
    // What every batch must leave behind, cancelled or not: groups keep at least two
    // entries and lose only entries whose file is gone; an entry leaves the selection only
    // when its file is gone.
    static void checkConsistent(const Table &before, const Table &selected, const Run &r)
    {
        QVERIFY(r.finished == 1 && r.workerDeleted);
        for (auto it = r.files.cbegin(); it != r.files.cend(); ++it) {
            QVERIFY(it->size() >= 2);
            for (const QString &e : before.value(it.key()))
                QVERIFY2(it->contains(e) || !present(TImageDeleteWorker::realPath(e)), qPrintable(e));
        }
        for (auto it = selected.cbegin(); it != selected.cend(); ++it)
            for (const QString &e : *it)
                QVERIFY2(r.selected.value(it.key()).contains(e) || !present(TImageDeleteWorker::realPath(e)),
                         qPrintable(e));
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_root.isValid());
        QVERIFY(!usePrivateTrash(m_root).isEmpty());
    }

    // "files | groups | selected | groups after | selection after | files gone"
    void batch_data()
    {
        QTest::addColumn<QString>("row");
        QTest::newRow("one and a vanished one") << u"a,b,c | k=a,b,c,ghost | k=b,ghost | k=a,c |  | b"_s;
        QTest::newRow("below two leaves") << u"a,b,c | k=a,b;j=b,c | k=b | j=b,c |  | b"_s;
        QTest::newRow("all of a group") << u"a,b,c | k=a,b | k=a,b |  |  | a,b"_s;
        QTest::newRow("not a member, key not in table") << u"a,b,c | k=a,b | k=c;x=a | k=a,b | k=c;x=a | "_s;
        const QString similar = u"p,q,r | k=p_simlar_90,q_simlar_85,r_simlar_70"_s;
        QTest::newRow("plain path in similar group")
            << similar + u" | k=p | k=q_simlar_85,r_simlar_70 |  | p"_s;
        QTest::newRow("similar entry selected")
            << similar + u" | k=q_simlar_85 | k=p_simlar_90,r_simlar_70 |  | q"_s;
        QTest::newRow("prefix and suffix relatives")
            << u"p.jpg,q.jpg,p.jpg.bak,p.jp | %1 | %2 | %1 | %2 | "_s.arg(
                   u"k=p.jpg.bak_simlar_5,p.jp_simlar_6,q.jpg_simlar_x"_s, u"k=p.jpg,p.jp_simlar,q.jpg"_s);
        QTest::newRow("pattern characters are literal")
            << u"a+b(1),aab1,axb | k=a+b(1)_simlar_5,%1 | k=a+b(1),a.b | k=%1 | k=a.b | a+b(1)"_s.arg(
                   u"aab1_simlar_4,axb_simlar_3"_s);
    }
    void batch()
    {
        QFETCH(QString, row);
        const QStringList part = row.split(u" | "_s);
        newCase(part.at(0).split(u','));
        const Table before = table(part.at(1)), sel = table(part.at(2));
        const Run r = run(before, {}, sel, removePermanently, QString());
        QCOMPARE(r.files, table(part.at(3)));
        QCOMPARE(r.selected, table(part.at(4)));
        for (const QString &name : part.at(0).split(u','))
            QVERIFY2(present(abs(name)) != part.at(5).split(u',').contains(name), qPrintable(name));
        checkConsistent(before, sel, r);
    }

    // Each method over file and folder groups. A folder standing in a file group is never
    // removed as a file; when the target folder is a file every removal fails and groups and
    // selection stay whole.
    void methodsAndFolders_data()
    {
        QTest::addColumn<Method>("method");
        QTest::addColumn<QString>("target");
        QTest::newRow("trash") << moveToTrash << u"target"_s;
        QTest::newRow("permanent") << removePermanently << u"target"_s;
        QTest::newRow("to folder") << moveToFolder << u"target"_s;
        QTest::newRow("target is a file") << moveToFolder << u"b"_s;
    }
    void methodsAndFolders()
    {
        QFETCH(Method, method);
        QFETCH(QString, target);
        newCase({u"a"_s, u"b"_s, u"d1/inner"_s, u"d2/inner"_s, u"d3/inner"_s});
        const Table files = table(u"k=a,b,d1"_s), dirs = table(u"f=d1,d2,d3"_s),
                    sel = table(u"k=a,d1;f=d2"_s);
        const Run r = run(files, dirs, sel, method, abs(target));
        const bool blocked = target == u"b";
        QCOMPARE(r.files, blocked ? files : table(u"k=b,d1"_s));
        QCOMPARE(r.dirs, blocked ? dirs : table(u"f=d1,d3"_s));
        QCOMPARE(r.selected, blocked ? sel : table(u"k=d1"_s));
        QCOMPARE(r.progress, (QList<int>{1, 2, 3}));
        QVERIFY(present(abs(u"a"_s)) == blocked && present(abs(u"d2"_s)) == blocked);
        QVERIFY(present(abs(u"b"_s)) && present(abs(u"d1/inner"_s)) && present(abs(u"d3/inner"_s)));
        QCOMPARE(present(abs(u"target/d2/inner"_s)), method == moveToFolder && !blocked);
    }

    // Groups "g<i>=<i>x,<i>y,<i>z" with x and y selected; a negative cancelAt runs the batch on
    // its own thread and cancels it from this one while it runs.
    void cancellation_data()
    {
        QTest::addColumn<int>("groups");
        QTest::addColumn<int>("cancelAt");
        for (int at : {0, 1, 4, 7, 8})
            QTest::addRow("after %d", at) << 4 << at;
        QTest::newRow("from another thread") << 60 << -1;
    }
    void cancellation()
    {
        QFETCH(int, groups);
        QFETCH(int, cancelAt);
        QStringList names;
        QString text, chosen;
        for (int g = 0; g < groups; ++g) {
            names << u"%1x"_s.arg(g) << u"%1y"_s.arg(g) << u"%1z"_s.arg(g);
            text += u"g%1=%1x,%1y,%1z;"_s.arg(g);
            chosen += u"g%1=%1x,%1y;"_s.arg(g);
        }
        newCase(names);
        const Run r =
            run(table(text), {}, table(chosen), removePermanently, QString(), cancelAt, cancelAt < 0);
        checkConsistent(table(text), table(chosen), r);
        QCOMPARE(r.removed.size(), r.progress.size());
        QCOMPARE(QDir(m_dir).entryList(QDir::Files).size(), 3 * groups - r.removed.size());
        if (cancelAt >= 0)
            QCOMPARE(r.progress.size(), cancelAt);
    }

    // Random groups and selections over small trees: a batch never touches a path that was
    // not selected, and every group keeps each member that was not selected.
    void neverTouchesUnselected()
    {
        const QStringList pool{u"a"_s,   u"ab"_s,  u"a.jpg"_s, u"a.jpg.bak"_s, u"b(1)"_s,
                               u"b+c"_s, u"c.d"_s, u"cxd"_s,   u"e e"_s};
        const auto realOf = [](const QString &e) { return e.section(u"_simlar_"_s, 0, 0); };
        for (int iteration = 0; iteration < 300; ++iteration) {
            QRandomGenerator rng(quint32(7919 + iteration));
            newCase(pool);
            const auto pick = [&] { return abs(pool.at(rng.bounded(int(pool.size())))); };
            Table groups, selected;
            for (int g = 0, n = rng.bounded(1, 5); g < n; ++g) {
                const bool similar = rng.bounded(2) == 1;
                QStringList &members = groups[u"g%1"_s.arg(g)], &chosen = selected[u"g%1"_s.arg(g)];
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
            }
            const Run r = run(groups, {}, selected, Method(rng.bounded(3)), m_dir + u"-target"_s);
            QCOMPARE(r.finished, 1);
            // A selected path may take itself and its own "_simlar_<n>" entries, nothing more.
            QStringList allowed;
            for (auto it = selected.cbegin(); it != selected.cend(); ++it)
                for (const QString &s : *it)
                    for (const QString &m : groups.value(it.key()))
                        if (m == s || m.startsWith(s + u"_simlar_"_s))
                            allowed << realOf(s);
            for (const QString &name : pool)
                QVERIFY2(present(abs(name)) || allowed.contains(abs(name)),
                         qPrintable(u"%1 #%2"_s.arg(name).arg(iteration)));
            for (auto it = groups.cbegin(); it != groups.cend(); ++it) {
                const QStringList chosen = selected.value(it.key());
                QStringList unselected;
                for (const QString &e : it.value())
                    if (!chosen.contains(e) && !chosen.contains(realOf(e)))
                        unselected.append(e);
                const auto out = r.files.constFind(it.key());
                if (out == r.files.cend())
                    QVERIFY2(unselected.size() < 2, qPrintable(u"#%1"_s.arg(iteration)));
                else
                    for (const QString &e : std::as_const(unselected))
                        QVERIFY2(out->contains(e), qPrintable(u"%1 #%2"_s.arg(e).arg(iteration)));
            }
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
