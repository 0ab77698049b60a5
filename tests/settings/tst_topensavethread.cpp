#include "TestMain.h"
#include "TodaysLog.h"

#include "app/TLogger.h"
#include "scan/FileCategory.h"
#include "scan/TFileData.h"
#include "settings/TOpenSaveThread.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {
// Relative path to size; a path ending in '/' is an empty folder, size -1 makes a named pipe and
// -2 a file its owner may write but not read.
using Tree = QMap<QString, qint64>;
// Member entries relative to the test folder; a leading '*' marks a selected entry.
using Groups = QList<QStringList>;

constexpr bool kOpen = true, kSave = false;

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return QDir().mkpath(QFileInfo(path).path()) && file.open(QIODevice::WriteOnly) &&
           file.write(bytes) == bytes.size();
}

bool makeTree(const QString &root, const Tree &tree)
{
    for (auto it = tree.cbegin(); it != tree.cend(); ++it) {
        const QString path = root + u'/' + it.key();
        const qint64 size = it.value();
        if (!(size == -1 ? ::mkfifo(QFile::encodeName(path).constData(), 0600) == 0
              : size == -2
                  ? writeFile(path, "<Twinfold/>") && QFile::setPermissions(path, QFileDevice::WriteOwner)
              : path.endsWith(u'/') ? QDir().mkpath(path)
                                    : writeFile(path, QByteArray(size, 'x'))))
            return false;
    }
    return true;
}

QString readText(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

QString logText()
{
    return todaysLog(TLogger::appDir());
}

// Everything one run reported. steps is the number of groups its progress named, or -1 when the
// progress did not rise strictly from 0 to the last of them, at most about once per thousandth
// and never after the completion.
struct Run
{
    bool started = false;
    int completions = 0, flag = -1, files = -1, steps = -1;
    qint64 size = -1;
};

// Runs one job to its end. The signals are taken directly on the job's thread under a lock:
// a queued delivery would hand the arguments over inside Qt, where the race checker cannot
// follow them. Only the started job's signals come.
Run runJob(TOpenSaveThread &thread, bool open, const QString &path, int count = 0, const QString &time = {})
{
    Run run;
    QList<QPair<double, double>> progress;
    bool late = false;
    QMutex mutex;
    QObject context;
    const auto onProgress = [&](double current, double total) {
        QMutexLocker locker(&mutex);
        progress.append({current, total});
        late = late || run.completions > 0;
    };
    const auto completed = [&run, &mutex](int flag, int files, qint64 size) {
        QMutexLocker locker(&mutex);
        ++run.completions;
        std::tie(run.flag, run.files, run.size) = std::tie(flag, files, size);
    };
    const auto saved = [completed](int flag) { completed(flag, -1, -1); };
    using T = TOpenSaveThread;
    QObject::connect(&thread, &T::openProjectComplated, &context, completed, Qt::DirectConnection);
    QObject::connect(&thread, &T::openProjectProcess, &context, onProgress, Qt::DirectConnection);
    QObject::connect(&thread, &T::saveComplated, &context, saved, Qt::DirectConnection);
    QObject::connect(&thread, &T::saveProjectProcess, &context, onProgress, Qt::DirectConnection);
    run.started = open ? thread.openProject(path) : thread.saveProject(path, count, time);
    if (run.started)
        thread.wait();
    // Reading through the thread's lock also orders the thread's store writes before
    // the checks that follow.
    (void)thread.loadedFiles();
    QMutexLocker locker(&mutex);
    const double total = progress.isEmpty() ? 0 : progress.constLast().second;
    bool ok = !late && progress.size() <= 1001 && (total > 1000 || progress.size() == total);
    for (qsizetype i = 0; i < progress.size(); ++i)
        ok = ok && progress[i].second == total &&
             (i == 0 ? progress[i].first == 0.0 : progress[i].first > progress[i - 1].first);
    run.steps = ok && (progress.isEmpty() || progress.constLast().first == total - 1) ? int(total) : -1;
    return run;
}

// Fills the store from relative specs; returns the keys used, in order. A group of folder entries
// "path|files|bytes" is a folder group.
QStringList fillStore(const QString &root, const Groups &groups)
{
    TFileData &store = TFileData::instance();
    QStringList keys;
    for (const QStringList &group : groups) {
        QStringList entries, selected;
        FolderRecords records;
        for (const QString &entry : group) {
            const QStringList field = entry.mid(entry.startsWith(u'*') ? 1 : 0).split(u'|');
            entries.append(root + u'/' + field.at(0));
            if (entry.startsWith(u'*'))
                selected.append(entries.constLast());
            records.append({entries.constLast(), field.value(1).toInt(), field.value(2).toLongLong()});
        }
        keys.append(groupKey(entries.constFirst()));
        group.constFirst().contains(u'|') ? store.addFolderGroup(keys.constLast(), records)
                                          : store.addDuplicateGroup(keys.constLast(), entries);
        store.setSelected(keys.constLast(), selected);
    }
    return keys;
}

// The store as "key: members | selection" lines, paths relative to root; a folder member is
// "path|files|bytes", "#" stands for the key a scan gives the group's first member, "-" for a
// selection without a group.
QString dump(const QString &root)
{
    const TFileData &store = TFileData::instance();
    QStringList keys = store.duplicateGroups.keys() + store.folderGroups.keys() + store.selectedFiles.keys(),
                lines;
    keys.sort();
    keys.removeDuplicates();
    for (const QString &key : std::as_const(keys)) {
        QStringList members = store.duplicateGroups.value(key);
        for (const FolderRecord &record : store.folderGroups.value(key))
            members.append(u"%1|%2|%3"_s.arg(record.folderPath).arg(record.fileCount).arg(record.totalSize));
        const bool scanKey = !members.isEmpty() && key == groupKey(members.constFirst().section(u'|', 0, 0));
        lines.append((scanKey ? u"#"_s : key) + u": "_s + (members.isEmpty() ? u"-"_s : members.join(u' ')) +
                     u" | "_s + store.selectedFiles.value(key).join(u' '));
    }
    return lines.join(u'\n').replace(root + u'/', QString());
}

// What the last open read and restored, as "flag fileCount scanTime: files, bytes, groups read"
// and the store's dump.
QString opened(const TOpenSaveThread &thread, const Run &run, const QString &root)
{
    const auto n = [](qint64 value) { return QString::number(value); };
    return u"%1 %2 %3: %4 files, %5 bytes, %6 groups\n"_s.arg(n(run.flag), n(thread.fileCount()),
                                                              thread.scanTime(), n(run.files), n(run.size),
                                                              n(run.steps)) +
           dump(root);
}
} // namespace

class TestTOpenSaveThread : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(initLogger(TLogger::appDir())); }
    void init() { TFileData::instance().clear(); }
    void cleanupTestCase()
    {
        TLogger::shutdown();
        TFileData::instance().clear();
    }

    void roundTrip_data()
    {
        QTest::addColumn<Tree>("tree");
        QTest::addColumn<Groups>("groups");
        QTest::addColumn<QString>("loaded"); // files and bytes an open counts
        // The saved text, %1 the folder and %2 the key; empty: not checked.
        QTest::addColumn<QString>("layout");
        QTest::newRow("layout") << Tree{{u"a.txt"_s, 1}, {u"b.txt"_s, 2}} << Groups{{u"a.txt"_s, u"*b.txt"_s}}
                                << u"2 files, 3 bytes"_s << uR"(<?xml version="1.0" encoding="UTF-8"?>
<Twinfold fileCount="1234" scanTime="01:02:03" version="4.0.0">
    <groups>
        <GroupItem GroupType="0" GroupFlag="0" key="%2">
            <Item selected="0">%1/a.txt</Item>
            <Item selected="1">%1/b.txt</Item>
        </GroupItem>
    </groups>
</Twinfold>
)"_s;
        QTest::newRow("unicode and XML-special characters")
            << Tree{{u"é中 文.jpg"_s, 3},    {u"a&b<c>\"'.jpg"_s, 3}, {u" lead and trail .jpg "_s, 3},
                    {u"tab\there.jpg"_s, 3}, {u"new\nline.jpg"_s, 3}, {u"cr\rin.jpg"_s, 3},
                    {u"emoji 😀.jpg"_s, 3},   {u"x]]>y&amp;.jpg"_s, 3}}
            << Groups{{u"é中 文.jpg"_s, u"*a&b<c>\"'.jpg"_s, u"* lead and trail .jpg "_s, u"tab\there.jpg"_s,
                       u"*new\nline.jpg"_s, u"*cr\rin.jpg"_s, u"emoji 😀.jpg"_s, u"*x]]>y&amp;.jpg"_s}}
            << u"8 files, 24 bytes"_s << QString();
        // Folder records come back measured from disk: direct visible files only.
        QTest::newRow("files and folders, selections")
            << Tree{{u"d/one.doc"_s, 50}, {u"e/one.doc"_s, 50}, {u"f1/a"_s, 10}, {u"f1/b"_s, 10},
                    {u"f1/sub/c"_s, 100}, {u"f1/.h"_s, 5},      {u"f2/a"_s, 10}, {u"f2/b"_s, 10}}
            << Groups{{u"*d/one.doc"_s, u"e/one.doc"_s}, {u"f1|2|20"_s, u"*f2|2|20"_s}}
            << u"6 files, 140 bytes"_s << QString();
        QTest::newRow("empty result") << Tree{} << Groups{} << u"0 files, 0 bytes"_s << QString();
    }
    void roundTrip()
    {
        QFETCH(Tree, tree);
        QFETCH(Groups, groups);
        QFETCH(QString, loaded);
        QFETCH(QString, layout);
        QTemporaryDir dir;
        QVERIFY(makeTree(dir.path(), tree));
        const QStringList keys = fillStore(dir.path(), groups);
        const QString stored = dump(dir.path());

        TOpenSaveThread thread;
        const QString project = dir.filePath(u"result.dupproj"_s);
        const Run save = runJob(thread, kSave, project, 1234, u"01:02:03"_s);
        QVERIFY(save.started && save.completions == 1 && save.flag == 1 && save.steps == keys.size());
        if (!layout.isEmpty())
            QCOMPARE(readText(project), layout.arg(dir.path(), keys.value(0)));
        TFileData::instance().clear();
        const Run open = runJob(thread, kOpen, project);
        QVERIFY(open.started && open.completions == 1);
        QCOMPARE(opened(thread, open, dir.path()),
                 u"1 1234 01:02:03: %1, %2 groups\n"_s.arg(loaded).arg(keys.size()) + stored);
    }

    // Opening replaces whatever the store held with the file's groups as they are on disk now.
    // A file that cannot be trusted (or is larger than the limit, set here to exactly the file's
    // size unless a row says otherwise) is refused whole, logged, and changes nothing; one that
    // cannot be opened for reading is not even started.
    void open_data()
    {
        QTest::addColumn<Tree>("tree");
        QTest::addColumn<QByteArray>("content"); // %1 is the test folder; null: not written
        // > 0: the file grown sparse to it under the default limit; < 0: the limit lowered by it
        QTest::addColumn<qint64>("size");
        QTest::addColumn<QString>("expected"); // as opened() writes it
        QTest::addColumn<QString>("logLine");  // %1 is the project path
        // Groups go inside a root of fileCount 9 and scanTime 00:01:00 unless they are a root.
        const auto row = [](const char *tag, const Tree &tree, const QString &xml, const QString &expected) {
            const QString head =
                uR"(<?xml version="1.0"?><Twinfold fileCount="9" scanTime="00:01:00"><groups>)"_s;
            QTest::newRow(tag)
                << tree
                << (xml.startsWith(u"<Twinfold"_s) ? xml : head + xml + u"</groups></Twinfold>"_s).toUtf8()
                << qint64(0) << u"1 "_s + expected << QString();
        };
        const QString kept = u" groups\n#: /keep/1 /keep/2 | /keep/2"_s;
        const auto refused = [&kept](const char *tag, const QByteArray &content,
                                     const char *logLine = "Failed to parse XML content! file=%1",
                                     qint64 size = 0) {
            QTest::newRow(tag) << Tree{} << content << size << u"0 0 00:00:00: 0 files, 0 bytes, 0"_s + kept
                               << QString::fromLatin1(logLine);
        };
        const auto notStarted = [&kept](const char *tag, const Tree &tree) {
            QTest::newRow(tag) << tree << QByteArray() << qint64(0)
                               << u"-1 0 00:00:00: -1 files, -1 bytes, 0"_s + kept
                               << u"Failed to openProject! file=%1\n"_s;
        };
        row("vanished member dropped", {{u"a.txt"_s, 5}, {u"b.txt"_s, 5}},
            uR"(<GroupItem GroupType="0" GroupFlag="0" key="K1"><Item selected="1">%1/a.txt</Item>
               <Item selected="1">%1/gone.txt</Item><Item selected="0">%1/b.txt</Item></GroupItem>)"_s,
            u"9 00:01:00: 2 files, 10 bytes, 1 groups\nK1: a.txt b.txt | a.txt"_s);
        row("group falling below two dropped, selection emptied", {{u"a.txt"_s, 5}},
            uR"(<GroupItem key="K2"><Item selected="1">%1/a.txt</Item>
               <Item>%1/gone1.txt</Item><Item>%1/gone2.txt</Item></GroupItem>)"_s,
            u"9 00:01:00: 0 files, 0 bytes, 1 groups\nK2: - | "_s);
        row("similar marker tested without, stored with", {{u"a.jpg"_s, 30}, {u"b.jpg"_s, 40}},
            uR"(<GroupItem key="S"><Item selected="1">%1/a.jpg_simlar_87</Item>
               <Item>%1/b.jpg_simlar_90</Item><Item>%1/c.jpg_simlar_91</Item></GroupItem>)"_s,
            u"9 00:01:00: 2 files, 70 bytes, 1 groups\nS: a.jpg_simlar_87 b.jpg_simlar_90 | a.jpg_simlar_87"_s);
        // A selected file that became a folder keeps its group a file group whatever the
        // order, so removal refuses it instead of the group being read as folders.
        const QString file = uR"(<Item selected="0">%1/a.txt</Item>)"_s,
                      folder = uR"(<Item selected="1">%1/d</Item>)"_s;
        row("selected member now a folder, listed last", {{u"a.txt"_s, 5}, {u"d/"_s, 0}},
            u"<GroupItem key=\"K3\">"_s + file + folder + u"</GroupItem>"_s,
            u"9 00:01:00: 2 files, 5 bytes, 1 groups\nK3: a.txt d | d"_s);
        row("selected member now a folder, listed first", {{u"a.txt"_s, 5}, {u"d/"_s, 0}},
            u"<GroupItem key=\"K3\">"_s + folder + file + u"</GroupItem>"_s,
            u"9 00:01:00: 2 files, 5 bytes, 1 groups\nK3: d a.txt | d"_s);
        row("missing key and attributes take their defaults", {{u"a"_s, 1}, {u"b"_s, 1}},
            u"<Twinfold><groups><GroupItem><Item>%1/a</Item><Item>%1/b</Item></GroupItem></groups></Twinfold>"_s,
            u"0 00:00:00: 2 files, 2 bytes, 1 groups\n#: a b | "_s);
        row("no groups element opens empty", {}, u"<Twinfold fileCount=\"3\" scanTime=\"00:00:09\"/>"_s,
            u"3 00:00:09: 0 files, 0 bytes, 0 groups\n"_s);

        const QByteArray valid =
            R"(<Twinfold><groups><GroupItem><Item>/a</Item><Item>/b</Item></GroupItem></groups></Twinfold>)";
        refused("empty file", "");
        refused("truncated before the root ends", valid.left(valid.lastIndexOf("</Twinfold>")));
        refused(
            "external entity",
            "<?xml version=\"1.0\"?><!DOCTYPE Twinfold [<!ENTITY x SYSTEM \"file:///etc/passwd\">]><Twinfold>"
            "<groups><GroupItem key=\"K\"><Item>&x;</Item><Item>/b</Item></GroupItem></groups></Twinfold>");
        refused("deep nesting", "<Twinfold>" + QByteArray("<a>").repeated(300000));
        refused("root in the wrong case", QByteArray(valid).replace("Twinfold", "twinfold"),
                "Failed to open Project! file=%1");
        refused("wrong root, broken inside", "<Project><groups></Project>");
        refused("one byte over a lowered limit", valid, "Failed to parse XML content! file=%1", -1);
        refused("1 GiB, default limit", valid, "Failed to parse XML content! file=%1", qint64(1) << 30);
        notStarted("missing", {});
        notStarted("named pipe", {{u"p.dupproj"_s, -1}});
        notStarted("unreadable file", {{u"p.dupproj"_s, -2}});
    }
    void open()
    {
        QFETCH(Tree, tree);
        QFETCH(QByteArray, content);
        QFETCH(qint64, size);
        QFETCH(QString, expected);
        QFETCH(QString, logLine);
        QTemporaryDir dir;
        QVERIFY(makeTree(dir.path(), tree));
        const QString project = dir.filePath(u"p.dupproj"_s);
        QVERIFY(content.isNull() || writeFile(project, content.replace("%1", dir.path().toUtf8())));
        if (size > 0 && !QFile(project).resize(size))
            QSKIP("The file system cannot hold a sparse 1 GiB file.");
        if (tree.value(u"p.dupproj"_s) == -2 && QFile(project).open(QIODevice::ReadOnly))
            QSKIP("Running with rights that read any file.");
        fillStore(u"/keep"_s, {{u"1"_s, u"*2"_s}});

        TOpenSaveThread thread;
        if (size <= 0)
            thread.setMaxProjectBytes(QFileInfo(project).size() + size);
        const Run run = runJob(thread, kOpen, project);
        QVERIFY(run.completions == (run.started ? 1 : 0) && !thread.isRunning());
        QCOMPARE(opened(thread, run, dir.path()), expected);
        if (!logLine.isEmpty())
            QVERIFY2(logText().contains(logLine.arg(project)), qPrintable(logLine.arg(project)));
    }

    // Names XML cannot carry (a control character, a lone surrogate) are left out; a group
    // falling below two members is not restored. A save that cannot write reports 0, writes
    // nothing and names the last opened project, not its own target.
    void savingLeavesOutAndFails()
    {
        QTemporaryDir dir;
        QVERIFY(makeTree(dir.path(), {{u"ctl\u0001.txt"_s, 4}, {u"a.txt"_s, 4}, {u"b.txt"_s, 4}}));
        fillStore(dir.path(), {{u"*ctl\u0001.txt"_s, u"a.txt"_s, u"*b.txt"_s}});
        TFileData::instance().addDuplicateGroup(u"LONE"_s, {u"/x/\xD800.txt"_s, u"/x/y.txt"_s});

        TOpenSaveThread thread;
        const QString project = dir.filePath(u"ctl.dupproj"_s);
        QCOMPARE(runJob(thread, kSave, project, 3, u"00:00:02"_s).flag, 1);
        QVERIFY(logText().contains(u"2 entries left out"_s));
        TFileData::instance().clear();
        // The key stays that of the first member as saved.
        QCOMPARE(opened(thread, runJob(thread, kOpen, project), dir.path()),
                 u"1 3 00:00:02: 2 files, 8 bytes, 2 groups\n%1: a.txt b.txt | b.txt"_s.arg(
                     groupKey(dir.filePath(u"ctl\u0001.txt"_s))));
        const QString target = dir.filePath(u"no/such/folder/x.dupproj"_s);
        const Run failed = runJob(thread, kSave, target, 1, u"00:00:01"_s);
        QVERIFY(failed.started && failed.completions == 1 && failed.flag == 0 && !QFileInfo::exists(target));
        QVERIFY(logText().contains(u"Failed to WriteOnly! file=%1"_s.arg(project)));
    }

    // A large result: progress comes at most about once per thousandth (see Run), and a thread
    // destroyed while saving it stops and waits, leaving the store as it was.
    void largeResult()
    {
        QTemporaryDir dir;
        QVERIFY(makeTree(dir.path(), {{u"a"_s, 1}, {u"b"_s, 1}}));
        for (int i = 0; i < 20000; ++i)
            TFileData::instance().addDuplicateGroup(u"K%1"_s.arg(i),
                                                    {dir.filePath(u"a"_s), dir.filePath(u"b"_s)});
        auto thread = std::make_unique<TOpenSaveThread>();
        for (bool job : {kSave, kOpen}) {
            const Run run = runJob(*thread, job, dir.filePath(u"p.dupproj"_s), 0, u"00:00:00"_s);
            QVERIFY(run.completions == 1 && run.flag == 1 && run.steps == 20000);
        }
        QVERIFY(thread->saveProject(dir.filePath(u"gone.dupproj"_s), 1, u"00:00:01"_s));
        thread.reset(); // must neither crash nor leave the thread running
        QCOMPARE(TFileData::instance().duplicateGroups.size(), 20000);
    }
};

TWINFOLD_TEST_MAIN(TestTOpenSaveThread)
#include "tst_topensavethread.moc"
