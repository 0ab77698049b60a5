#include "result/TImageDeleteWorker.h"
#include "scan/TFileData.h"

#include "PrivateTrash.h"
#include "TestMain.h"

#include <QRandomGenerator>

#include <mutex>

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
            for (const QString &name : group.section(u'=', 1).split(u',', Qt::SkipEmptyParts))
                t[group.section(u'=', 0, 0)].append(abs(name));
        return t;
    }
    // Runs a batch here, or on its own thread when `threaded` and then cancelled from this
    // thread once it reports its first step; it cancels itself when its progress reaches
    // `cancelAt`. Reports are taken on the worker's thread under a lock, so that nothing of
    // ours runs on this thread while the worker tears its connections down on its own.
    static Run run(const Table &files, const Table &dirs, const Table &selected, Method method,
                   const QString &target, int cancelAt = -1, bool threaded = false)
    {
        Run r;
        std::mutex mutex;
        bool running = true, deleted = false;
        QObject here;
        auto *worker = new TImageDeleteWorker(files, dirs, selected, method, target);
        const auto locked = [&mutex](auto &&step) {
            std::lock_guard lock(mutex);
            return step();
        };
        const auto direct = Qt::DirectConnection;
        QObject::connect(
            worker, &TImageDeleteWorker::progressChanged, &here,
            [&, worker](int value) {
                locked([&] { r.progress.append(value); });
                if (value == cancelAt)
                    worker->setCancelled();
            },
            direct);
        QObject::connect(
            worker, &TImageDeleteWorker::removalReport, &here,
            [&](const QStringList &removed) { locked([&] { r.removed = removed; }); }, direct);
        QObject::connect(
            worker, &TImageDeleteWorker::finished, &here,
            [&](const Table &f, const Table &d, const Table &s) {
                locked([&] {
                    ++r.finished;
                    r.files = f, r.dirs = d, r.selected = s;
                    running = false;
                });
            },
            direct);
        QObject::connect(
            worker, &QObject::destroyed, &here, [&] { locked([&] { deleted = true; }); }, direct);
        if (cancelAt == 0)
            worker->setCancelled();
        bool cancelled = true;
        if (threaded) {
            worker->start(); // the worker deletes itself once done
            // Until it has finished, the worker is alive: finishing waits for the lock.
            cancelled = QTest::qWaitFor(
                [&] {
                    return locked([&] {
                        if (running && !r.progress.isEmpty())
                            worker->setCancelled();
                        return !running || !r.progress.isEmpty();
                    });
                },
                60000);
        } else {
            worker->doDelete();
            delete worker;
        }
        r.workerDeleted =
            cancelled && QTest::qWaitFor([&] { return locked([&] { return deleted; }); }, 60000);
        return r;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_root.isValid());
        QVERIFY(!usePrivateTrash(m_root).isEmpty());
    }

    // "files | groups | folder groups | selected | groups after | folder groups after |
    // selection after | removed". A folder standing in a file group is never removed as a
    // file; when the target folder is a file every removal fails and everything stays whole.
    void batch_data()
    {
        QTest::addColumn<Method>("method");
        QTest::addColumn<QString>("target");
        QTest::addColumn<QString>("row");
        const auto row = [](const char *name, const QString &text, Method method = removePermanently,
                            const QString &target = u"target"_s) {
            QTest::newRow(name) << method << target << text;
        };
        row("one and a vanished one", u"a,b,c | k=a,b,c,ghost |  | k=b,ghost | k=a,c |  |  | b,ghost"_s);
        row("below two leaves", u"a,b,c | k=a,b;j=b,c |  | k=b | j=b,c |  |  | b"_s);
        row("all of a group", u"a,b,c | k=a,b |  | k=a,b |  |  |  | a,b"_s);
        row("not a member, key not in table", u"a,b,c | k=a,b |  | k=c;x=a | k=a,b |  | k=c;x=a | "_s);
        const QString similar = u"p,q,r | k=p_simlar_90,q_simlar_85,r_simlar_70 | "_s;
        row("plain path in similar group", similar + u" | k=p | k=q_simlar_85,r_simlar_70 |  |  | p"_s);
        row("similar entry selected", similar + u" | k=q_simlar_85 | k=p_simlar_90,r_simlar_70 |  |  | q"_s);
        row("prefix and suffix relatives",
            u"p.jpg,q.jpg,p.jpg.bak,p.jp | %1 |  | %2 | %1 |  | %2 | "_s.arg(
                u"k=p.jpg.bak_simlar_5,p.jp_simlar_6,q.jpg_simlar_x"_s, u"k=p.jpg,p.jp_simlar,q.jpg"_s));
        row("pattern characters are literal",
            u"a+b(1),aab1,axb | k=a+b(1)_simlar_5,%1 |  | k=a+b(1),a.b | k=%1 |  | k=a.b | a+b(1)"_s.arg(
                u"aab1_simlar_4,axb_simlar_3"_s));
        const QString tree = u"a,b,d1/x,d2/x,d3/x | k=a,b,d1 | f=d1,d2,d3 | k=a,d1;f=d2 | "_s;
        row("trash", tree + u"k=b,d1 | f=d1,d3 | k=d1 | a,d2"_s, moveToTrash);
        row("permanent", tree + u"k=b,d1 | f=d1,d3 | k=d1 | a,d2"_s);
        row("to folder", tree + u"k=b,d1 | f=d1,d3 | k=d1 | a,d2"_s, moveToFolder);
        row("target is a file", tree + u"k=a,b,d1 | f=d1,d2,d3 | k=a,d1;f=d2 | "_s, moveToFolder, u"b"_s);
    }
    void batch()
    {
        QFETCH(Method, method);
        QFETCH(QString, target);
        QFETCH(QString, row);
        const QStringList part = row.split(u" | "_s);
        newCase(part.at(0).split(u','));
        const Table files = table(part.at(1)), dirs = table(part.at(2)), sel = table(part.at(3));
        const Run r = run(files, dirs, sel, method, abs(target));
        QVERIFY(r.finished == 1 && r.workerDeleted);
        QCOMPARE(r.files, table(part.at(4)));
        QCOMPARE(r.dirs, table(part.at(5)));
        QCOMPARE(r.selected, table(part.at(6)));
        QList<int> steps; // one per selected entry of a listed group, failures included
        for (auto it = sel.cbegin(); it != sel.cend(); ++it)
            for (qsizetype i = 0; i < it->size() * (files.contains(it.key()) + dirs.contains(it.key())); ++i)
                steps.append(steps.size() + 1);
        QCOMPARE(r.progress, steps);
        const QStringList removed = table(u"r="_s + part.at(7)).value(u"r"_s);
        QCOMPARE(r.removed, removed);
        for (const QString &name : part.at(0).split(u',')) {
            const bool gone = removed.contains(abs(name.section(u'/', 0, 0)));
            QVERIFY2(present(abs(name)) != gone, qPrintable(name));
            QCOMPARE(present(abs(target + u'/' + name)), method == moveToFolder && gone);
        }
    }

    // Random groups and selections over small trees, some batches cancelled at a given step and
    // some run on their own thread and cancelled from this one at their first step. Whatever the
    // outcome, a batch never touches a path that was not selected; every group keeps each member
    // that was not selected and at least two entries; entries leave groups and selection only
    // when their file is gone.
    void randomBatches()
    {
        const QStringList pool{u"a"_s,   u"ab"_s,  u"a.jpg"_s, u"a.jpg.bak"_s, u"b(1)"_s,
                               u"b+c"_s, u"c.d"_s, u"cxd"_s,   u"e e"_s};
        const auto realOf = [](const QString &e) { return e.section(u"_simlar_"_s, 0, 0); };
        for (int iteration = 0; iteration < 300; ++iteration) {
            QRandomGenerator rng(quint32(7919 + iteration));
            newCase(pool);
            const auto pick = [&] {
                return abs(rng.bounded(8) == 0 ? u"ghost"_s : pool.at(rng.bounded(int(pool.size()))));
            };
            Table groups, selected;
            qsizetype steps = 0;
            for (int g = 0, n = rng.bounded(1, 5); g < n; ++g) {
                const bool similar = rng.bounded(2) == 1;
                QStringList &members = groups[u"g%1"_s.arg(g)], &chosen = selected[u"g%1"_s.arg(g)];
                for (int m = 0, size = rng.bounded(2, 6); m < size; ++m) {
                    const QString real = pick();
                    const QString entry =
                        similar ? real + u"_simlar_"_s + QString::number(rng.bounded(100)) : real;
                    if (!members.contains(entry))
                        members.append(entry);
                    if (rng.bounded(3) == 0)
                        chosen.append(similar && rng.bounded(2) ? real : entry);
                }
                if (rng.bounded(4) == 0)
                    chosen.append(pick()); // a stray path, often a prefix relative of a member
                steps += chosen.size();
            }
            const int cancelAt = rng.bounded(-6, 6); // negative: not cancelled
            const bool threaded = iteration % 10 == 0;
            const Run r =
                run(groups, {}, selected, Method(rng.bounded(3)), m_dir + u"-target"_s, cancelAt, threaded);
            const QString tag = u"#%1"_s.arg(iteration);
            QVERIFY2(r.finished == 1 && r.workerDeleted, qPrintable(tag));
            if (!threaded)
                QCOMPARE(r.progress.size(), cancelAt < 0 ? steps : std::min<qsizetype>(cancelAt, steps));
            QStringList allowed; // a selected path may take itself and its own "_simlar_<n>" entries
            for (auto it = groups.cbegin(); it != groups.cend(); ++it) {
                const QStringList chosen = selected.value(it.key()), after = r.files.value(it.key());
                const bool listed = r.files.contains(it.key());
                int unpicked = 0;
                for (const QString &e : it.value()) {
                    const bool picked = chosen.contains(e) || chosen.contains(realOf(e));
                    unpicked += !picked;
                    if (picked)
                        allowed << realOf(e);
                    QVERIFY2(!listed || after.contains(e) || (picked && !present(realOf(e))),
                             qPrintable(e + tag));
                }
                QVERIFY2(listed ? after.size() >= 2 || after == it.value() : unpicked < 2, qPrintable(tag));
                for (const QString &e : chosen)
                    QVERIFY2(r.selected.value(it.key()).contains(e) || !present(realOf(e)),
                             qPrintable(e + tag));
            }
            for (const QString &name : pool)
                QVERIFY2(present(abs(name)) || allowed.contains(abs(name)), qPrintable(name + tag));
        }
    }

    // Only the keys of the batch's selection are written back; a folder group keeps the
    // records of the folders still listed.
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
        TImageDeleteWorker::applyToStore(store, given,
                                         {{{u"k1"_s, {u"b"_s, u"c"_s}}, {u"k3"_s, {u"g"_s, u"x"_s}}},
                                          {{u"f1"_s, {u"r1"_s, u"r3"_s}}},
                                          {}});
        QCOMPARE(store.duplicateGroups, (Table{{u"k1"_s, {u"b"_s, u"c"_s}}, {u"k3"_s, {u"f"_s, u"g"_s}}}));
        QCOMPARE(store.folderGroups,
                 (QHash<QString, FolderRecords>{{u"f1"_s, {{u"r1"_s, 1, 10}, {u"r3"_s, 1, 10}}}}));
        QCOMPARE(store.selectedFiles, (Table{{u"k3"_s, {u"f"_s}}}));
        store.clear();
    }
};

TWINFOLD_TEST_MAIN(tst_TImageDeleteWorker)
#include "tst_timagedeleteworker.moc"
