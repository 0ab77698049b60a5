#include "TestMain.h"

#include "app/TLogger.h"
#include "scan/FileCategory.h"
#include "scan/TFileData.h"
#include "settings/TOpenSaveThread.h"

#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>

#ifdef Q_OS_UNIX
#include <sys/stat.h>
#endif

using namespace Qt::StringLiterals;

namespace {
// Relative path to size; a path ending in '/' is an empty folder.
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
        if (!(path.endsWith(u'/') ? QDir().mkpath(path) : writeFile(path, QByteArray(it.value(), 'x'))))
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
    TLogger::flush();
    return readText(TLogger::logDir(TLogger::appDir()) + u'/' + TLogger::todaysFileName());
}

// Everything one run reported, in arrival order.
struct Run
{
    bool started = false;
    int completions = 0, flag = -1, files = -1;
    qint64 size = -1;
    QList<QPair<double, double>> progress;
    bool progressAfterCompletion = false;
};

// Runs one job to its end. The signals are taken directly on the job's thread under a lock:
// a queued delivery would hand the arguments over inside Qt, where the race checker cannot
// follow them. Only the started job's signals come.
Run runJob(TOpenSaveThread &thread, bool open, const QString &path, int count = 0, const QString &time = {})
{
    Run run;
    QMutex mutex;
    QObject context;
    const auto progress = [&run, &mutex](double current, double total) {
        QMutexLocker locker(&mutex);
        run.progress.append({current, total});
        run.progressAfterCompletion = run.progressAfterCompletion || run.completions > 0;
    };
    const auto completed = [&run, &mutex](int flag, int files, qint64 size) {
        QMutexLocker locker(&mutex);
        ++run.completions;
        std::tie(run.flag, run.files, run.size) = std::tie(flag, files, size);
    };
    const auto saved = [completed](int flag) { completed(flag, -1, -1); };
    QObject::connect(&thread, &TOpenSaveThread::openProjectComplated, &context, completed,
                     Qt::DirectConnection);
    QObject::connect(&thread, &TOpenSaveThread::openProjectProcess, &context, progress, Qt::DirectConnection);
    QObject::connect(&thread, &TOpenSaveThread::saveComplated, &context, saved, Qt::DirectConnection);
    QObject::connect(&thread, &TOpenSaveThread::saveProjectProcess, &context, progress, Qt::DirectConnection);
    run.started = open ? thread.openProject(path) : thread.saveProject(path, count, time);
    if (run.started)
        thread.wait();
    // Reading through the thread's lock also orders the thread's store writes before
    // the checks that follow.
    (void)thread.loadedFiles();
    QMutexLocker locker(&mutex);
    return run;
}

// Fills the store from relative specs; returns the keys used, in order. A folder entry is
// "path|files|bytes".
QStringList fillStore(const QString &root, const Groups &files, const Groups &folders = {})
{
    TFileData &store = TFileData::instance();
    QStringList keys;
    for (const Groups *kind : {&files, &folders}) {
        for (const QStringList &group : *kind) {
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
            if (kind == &files)
                store.addDuplicateGroup(keys.constLast(), entries);
            else
                store.addFolderGroup(keys.constLast(), records);
            store.setSelected(keys.constLast(), selected);
        }
    }
    return keys;
}

// The store's file groups as "key: members | selection" lines, paths relative to root; "#" stands
// for the key a scan gives the group's first member, "-" for a selection without a group.
QString dump(const QString &root)
{
    const TFileData &store = TFileData::instance();
    QStringList keys = store.duplicateGroups.keys() + store.selectedFiles.keys(), lines;
    keys.sort();
    keys.removeDuplicates();
    const auto relative = [&root](QStringList paths) {
        return paths.replaceInStrings(root + u'/', QString());
    };
    for (const QString &key : std::as_const(keys)) {
        const QStringList members = store.duplicateGroups.value(key);
        const bool scanKey = !members.isEmpty() && key == groupKey(members.constFirst());
        const QString shown = store.duplicateGroups.contains(key) ? relative(members).join(u' ') : u"-"_s;
        lines.append((scanKey ? u"#"_s : key) + u": "_s + shown + u" | "_s +
                     relative(store.selectedFiles.value(key)).join(u' '));
    }
    return lines.join(u'\n');
}
} // namespace

class TestTOpenSaveThread : public QObject
{
    Q_OBJECT

    QTemporaryDir m_appDir;

    // Puts a group in the store that a refused open must leave as it was.
    static void addKeptGroup()
    {
        TFileData::instance().addDuplicateGroup(u"KEEP"_s, {u"/keep/1"_s, u"/keep/2"_s});
        TFileData::instance().setSelected(u"KEEP"_s, {u"/keep/2"_s});
    }
    static bool keptGroupOnly()
    {
        return dump(u"/keep"_s) == u"KEEP: 1 2 | 2"_s && TFileData::instance().folderGroups.isEmpty();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_appDir.isValid());
        QVERIFY(initLogger(TLogger::appDir()));
    }
    void init() { TFileData::instance().clear(); }
    void cleanupTestCase()
    {
        TLogger::shutdown();
        TFileData::instance().clear();
    }

    void roundTrip_data()
    {
        QTest::addColumn<Tree>("tree");
        QTest::addColumn<Groups>("files");
        QTest::addColumn<Groups>("folders");
        QTest::addColumn<int>("expectedFiles");
        QTest::addColumn<qint64>("expectedSize");
        QTest::addColumn<QString>(
            "layout"); // the saved text, %1 the folder and %2 the key; empty: not checked
        QTest::newRow("layout") << Tree{{u"a.txt"_s, 1}, {u"b.txt"_s, 2}} << Groups{{u"a.txt"_s, u"*b.txt"_s}}
                                << Groups{} << 2 << qint64(3) << uR"(<?xml version="1.0" encoding="UTF-8"?>
<Twinfold fileCount="1234" scanTime="01:02:03" version="4.0.0">
    <groups>
        <GroupItem GroupType="0" GroupFlag="0" key="%2">
            <Item selected="0">%1/a.txt</Item>
            <Item selected="1">%1/b.txt</Item>
        </GroupItem>
    </groups>
</Twinfold>
)"_s;
        QTest::newRow("similar entries keep their marker")
            << Tree{{u"p.png"_s, 100}, {u"q.png"_s, 200}}
            << Groups{{u"p.png_simlar_100"_s, u"*q.png_simlar_87"_s},
                      {u"q.png_simlar_90"_s, u"p.png_simlar_90"_s}}
            << Groups{} << 4 << qint64(600) << QString();
        QTest::newRow("unicode and XML-special characters")
            << Tree{{u"é中 文.jpg"_s, 3},    {u"a&b<c>\"'.jpg"_s, 3}, {u" lead and trail .jpg "_s, 3},
                    {u"tab\there.jpg"_s, 3}, {u"new\nline.jpg"_s, 3}, {u"cr\rin.jpg"_s, 3},
                    {u"emoji 😀.jpg"_s, 3},   {u"x]]>y&amp;.jpg"_s, 3}}
            << Groups{{u"é中 文.jpg"_s, u"*a&b<c>\"'.jpg"_s, u"* lead and trail .jpg "_s, u"tab\there.jpg"_s,
                       u"*new\nline.jpg"_s, u"*cr\rin.jpg"_s, u"emoji 😀.jpg"_s, u"*x]]>y&amp;.jpg"_s}}
            << Groups{} << 8 << qint64(24) << QString();
        // Folder records come back measured from disk: direct visible files only.
        QTest::newRow("files and folders, selections")
            << Tree{{u"d/one.doc"_s, 50}, {u"e/one.doc"_s, 50}, {u"f1/a"_s, 10}, {u"f1/b"_s, 10},
                    {u"f1/sub/c"_s, 100}, {u"f1/.h"_s, 5},      {u"f2/a"_s, 10}, {u"f2/b"_s, 10}}
            << Groups{{u"*d/one.doc"_s, u"e/one.doc"_s}} << Groups{{u"f1|2|20"_s, u"*f2|2|20"_s}} << 6
            << qint64(140) << QString();
        QTest::newRow("empty result") << Tree{} << Groups{} << Groups{} << 0 << qint64(0) << QString();
    }
    void roundTrip()
    {
        QFETCH(Tree, tree);
        QFETCH(Groups, files);
        QFETCH(Groups, folders);
        QFETCH(int, expectedFiles);
        QFETCH(qint64, expectedSize);
        QFETCH(QString, layout);
        QTemporaryDir dir;
        QVERIFY(makeTree(dir.path(), tree));
        const QStringList keys = fillStore(dir.path(), files, folders);
        TFileData &store = TFileData::instance();
        const auto duplicates = store.duplicateGroups;
        const auto folderGroups = store.folderGroups;
        const auto selections = store.selectedFiles;

        TOpenSaveThread thread;
        const QString project = dir.filePath(u"result.dupproj"_s);
        const Run save = runJob(thread, kSave, project, 1234, u"01:02:03"_s);
        QVERIFY(save.started && save.completions == 1 && save.flag == 1);
        if (!layout.isEmpty())
            QCOMPARE(readText(project), layout.arg(dir.path(), keys.value(0)));
        store.clear();
        const Run open = runJob(thread, kOpen, project);
        QVERIFY(open.started && open.completions == 1 && open.flag == 1);
        QCOMPARE(open.files, expectedFiles);
        QCOMPARE(open.size, expectedSize);
        QCOMPARE(thread.fileCount(), 1234);
        QCOMPARE(thread.scanTime(), u"01:02:03"_s);
        QCOMPARE(store.duplicateGroups, duplicates);
        QCOMPARE(store.folderGroups, folderGroups);
        QCOMPARE(store.selectedFiles, selections);
    }

    // Opening replaces whatever the store held with the file's groups as they are on disk now.
    void openHandWritten_data()
    {
        QTest::addColumn<Tree>("tree");
        QTest::addColumn<QString>("xml"); // %1 is the test folder
        QTest::addColumn<QString>(
            "expected"); // file count, scan time and bytes read, then as dump() writes it
        const auto row = [](const char *tag, const Tree &tree, const QString &xml, const QString &expected) {
            const QString head =
                uR"(<?xml version="1.0"?><Twinfold fileCount="9" scanTime="00:01:00"><groups>)"_s;
            QTest::newRow(tag) << tree
                               << (xml.startsWith(u'<') ? head + xml + u"</groups></Twinfold>"_s : xml.mid(1))
                               << expected;
        };
        row("vanished member dropped", {{u"a.txt"_s, 5}, {u"b.txt"_s, 5}},
            uR"(<GroupItem GroupType="0" GroupFlag="0" key="K1"><Item selected="1">%1/a.txt</Item>
               <Item selected="1">%1/gone.txt</Item><Item selected="0">%1/b.txt</Item></GroupItem>)"_s,
            u"9 00:01:00 10\nK1: a.txt b.txt | a.txt"_s);
        row("group falling below two dropped, selection emptied", {{u"a.txt"_s, 5}},
            uR"(<GroupItem key="K2"><Item selected="1">%1/a.txt</Item>
               <Item>%1/gone1.txt</Item><Item>%1/gone2.txt</Item></GroupItem>)"_s,
            u"9 00:01:00 0\nK2: - | "_s);
        row("similar marker tested without, stored with", {{u"a.jpg"_s, 30}, {u"b.jpg"_s, 40}},
            uR"(<GroupItem key="S"><Item selected="1">%1/a.jpg_simlar_87</Item>
               <Item>%1/b.jpg_simlar_90</Item><Item>%1/c.jpg_simlar_91</Item></GroupItem>)"_s,
            u"9 00:01:00 70\nS: a.jpg_simlar_87 b.jpg_simlar_90 | a.jpg_simlar_87"_s);
        // A selected file that became a folder keeps its group a file group whatever the
        // order, so removal refuses it instead of the group being read as folders.
        const QString file = uR"(<Item selected="0">%1/a.txt</Item>)"_s,
                      folder = uR"(<Item selected="1">%1/d</Item>)"_s;
        row("selected member now a folder, listed last", {{u"a.txt"_s, 5}, {u"d/"_s, 0}},
            u"<GroupItem key=\"K3\">"_s + file + folder + u"</GroupItem>"_s,
            u"9 00:01:00 5\nK3: a.txt d | d"_s);
        row("selected member now a folder, listed first", {{u"a.txt"_s, 5}, {u"d/"_s, 0}},
            u"<GroupItem key=\"K3\">"_s + folder + file + u"</GroupItem>"_s,
            u"9 00:01:00 5\nK3: d a.txt | d"_s);
        // A leading space marks a whole file rather than groups.
        row("missing key and attributes take their defaults", {{u"a"_s, 1}, {u"b"_s, 1}},
            u" <Twinfold><groups><GroupItem><Item>%1/a</Item><Item>%1/b</Item></GroupItem></groups></Twinfold>"_s,
            u"0 00:00:00 2\n#: a b | "_s);
        row("no groups element opens empty", {}, u" <Twinfold fileCount=\"3\" scanTime=\"00:00:09\"/>"_s,
            u"3 00:00:09 0\n"_s);
    }
    void openHandWritten()
    {
        QFETCH(Tree, tree);
        QFETCH(QString, xml);
        QFETCH(QString, expected);
        QTemporaryDir dir;
        QVERIFY(makeTree(dir.path(), tree));
        const QString project = dir.filePath(u"hand.dupproj"_s);
        QVERIFY(writeFile(project, xml.arg(dir.path()).toUtf8()));
        addKeptGroup();

        TOpenSaveThread thread;
        const Run run = runJob(thread, kOpen, project);
        QVERIFY(run.started && run.completions == 1 && run.flag == 1);
        QCOMPARE(u"%1 %2 %3\n"_s.arg(thread.fileCount()).arg(thread.scanTime()).arg(run.size) +
                     dump(dir.path()),
                 expected);
        const TFileData &store = TFileData::instance();
        qsizetype files = 0;
        for (const QStringList &group : store.duplicateGroups)
            files += group.size();
        QVERIFY(run.files == files && store.folderGroups.isEmpty());
    }

    // Any file that cannot be trusted is refused whole, logged, and changes nothing.
    void hostileFileRefused_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("logLine"); // %1 is the project path
        const QString parse = u"Failed to parse XML content! file=%1"_s;
        const QString project = u"Failed to open Project! file=%1"_s;
        const QByteArray valid = R"(<?xml version="1.0" encoding="UTF-8"?>
<Twinfold fileCount="2" scanTime="00:00:01" version="4.0.0">
    <groups><GroupItem key="K"><Item>/a</Item><Item selected="1">/b</Item></GroupItem></groups>
</Twinfold>
)";
        QByteArray garbage(64 * 1024, '\0');
        QRandomGenerator(20241122).fillRange(reinterpret_cast<quint32 *>(garbage.data()), garbage.size() / 4);
        const QByteArray groupItem = "<Twinfold><groups><GroupItem key=\"K\">",
                         end = "</GroupItem></groups></Twinfold>";
        QByteArray laughs =
            "<?xml version=\"1.0\"?><!DOCTYPE Twinfold [<!ENTITY a0 \"" + QByteArray(80, 'a') + "\">";
        for (int i = 1; i <= 6; ++i)
            laughs += "<!ENTITY a" + QByteArray::number(i) + " \"" +
                      QByteArray("&a" + QByteArray::number(i - 1) + ";").repeated(20) + "\">";

        QTest::newRow("empty file") << QByteArray() << parse;
        QTest::newRow("binary garbage") << garbage << parse;
        QTest::newRow("truncated before the root ends")
            << valid.left(valid.lastIndexOf("</Twinfold>")) << parse;
        QTest::newRow("two roots") << QByteArray("<Twinfold/><Twinfold/>") << parse;
        QTest::newRow("forbidden character reference")
            << groupItem + "<Item>&#1;</Item><Item>/b</Item>" + end << parse;
        QTest::newRow("billion laughs")
            << laughs + "]>" + groupItem + "<Item>&a6;</Item><Item>&a6;</Item>" + end << parse;
        QTest::newRow("external entity")
            << "<?xml version=\"1.0\"?><!DOCTYPE Twinfold [<!ENTITY x SYSTEM \"file:///etc/passwd\">]>" +
                   groupItem + "<Item>&x;</Item><Item>/b</Item>" + end
            << parse;
        QTest::newRow("deep nesting inside an item")
            << groupItem + "<Item>" + QByteArray("<i>").repeated(50000) + QByteArray("</i>").repeated(50000) +
                   "</Item>" + end
            << parse;
        QTest::newRow("unclosed deep nesting") << "<Twinfold>" + QByteArray("<a>").repeated(300000) << parse;
        QTest::newRow("root in the wrong case")
            << QByteArray(valid).replace("Twinfold", "twinfold") << project;
        QTest::newRow("another program's root") << QByteArray("<Project><groups/></Project>") << project;
        QTest::newRow("wrong root, broken inside") << QByteArray("<Project><groups></Project>") << parse;
    }
    void hostileFileRefused()
    {
        QFETCH(QByteArray, content);
        QFETCH(QString, logLine);
        QTemporaryDir dir;
        const QString path = dir.filePath(u"hostile.dupproj"_s);
        QVERIFY(writeFile(path, content));
        addKeptGroup();
        TOpenSaveThread thread;
        const Run run = runJob(thread, kOpen, path);
        QVERIFY(run.started && run.completions == 1);
        QVERIFY(run.flag == 0 && run.files == 0 && run.size == 0 && run.progress.isEmpty());
        QVERIFY2(logText().contains(logLine.arg(path)), qPrintable(logLine.arg(path)));
        QVERIFY(keptGroupOnly());
    }

    // Files above the size limit are refused unread; a sparse 1 GiB file costs no disk.
    void sizeLimit_data()
    {
        QTest::addColumn<qint64>("size");
        QTest::addColumn<qint64>(
            "limitOffset"); // limit = file size + offset; a padded file meets the default
        QTest::addColumn<int>("flag");
        QTest::newRow("one byte under the file") << qint64(0) << qint64(-1) << 0;
        QTest::newRow("exactly the file") << qint64(0) << qint64(0) << 1;
        QTest::newRow("1 GiB, default limit") << (qint64(1) << 30) << qint64(0) << 0;
    }
    void sizeLimit()
    {
        QFETCH(qint64, size);
        QFETCH(qint64, limitOffset);
        QFETCH(int, flag);
        QTemporaryDir dir;
        const QString path = dir.filePath(u"limit.dupproj"_s);
        const QByteArray bytes = R"(<Twinfold fileCount="1"><groups/></Twinfold>)";
        QVERIFY(writeFile(path, bytes));
        if (size > 0 && !QFile(path).resize(size))
            QSKIP("The file system cannot hold a sparse 1 GiB file.");
        addKeptGroup();
        TOpenSaveThread thread;
        if (size == 0)
            thread.setMaxProjectBytes(bytes.size() + limitOffset);
        const Run run = runJob(thread, kOpen, path);
        QCOMPARE(run.completions, 1);
        QCOMPARE(run.flag, flag);
        QCOMPARE(logText().contains(u"Failed to parse XML content! file=%1"_s.arg(path)), flag == 0);
        QCOMPARE(keptGroupOnly(), flag == 0);
    }

    void unopenablePathNotStarted_data()
    {
        QTest::addColumn<QString>("kind");
        for (const char *kind : {"missing", "folder", "empty path"})
            QTest::newRow(kind) << QString::fromLatin1(kind);
#ifdef Q_OS_UNIX
        QTest::newRow("named pipe") << u"fifo"_s;
        QTest::newRow("unreadable file") << u"unreadable"_s;
#endif
    }
    void unopenablePathNotStarted()
    {
        QFETCH(QString, kind);
        QTemporaryDir dir;
        QString path = kind == u"empty path" ? QString() : dir.filePath(kind);
        if (kind == u"folder")
            QVERIFY(QDir().mkpath(path));
#ifdef Q_OS_UNIX
        if (kind == u"fifo")
            QCOMPARE(::mkfifo(QFile::encodeName(path).constData(), 0600), 0);
        if (kind == u"unreadable") {
            QVERIFY(writeFile(path, "<Twinfold/>") && QFile::setPermissions(path, QFileDevice::WriteOwner));
            if (QFile(path).open(QIODevice::ReadOnly))
                QSKIP("Running with rights that read any file.");
        }
#endif
        TOpenSaveThread thread;
        const Run run = runJob(thread, kOpen, path);
        QVERIFY(!run.started && run.completions == 0 && !thread.isRunning());
        // Whole line, so the empty path is not matched by an earlier row's line.
        QVERIFY(logText().contains(u"Failed to openProject! file=%1\n"_s.arg(path)));
    }

    void saveFailureReported()
    {
        QTemporaryDir dir;
        const QString opened = dir.filePath(u"opened.dupproj"_s);
        QVERIFY(writeFile(opened, "<Twinfold/>"));
        const QString target = dir.filePath(u"no/such/folder/x.dupproj"_s);
        TOpenSaveThread thread;
        QCOMPARE(runJob(thread, kOpen, opened).flag, 1);
        const Run run = runJob(thread, kSave, target, 1, u"00:00:01"_s);
        QVERIFY(run.started && run.completions == 1);
        QCOMPARE(run.flag, 0);
        // The message names the last opened project, not the save target.
        QVERIFY(logText().contains(u"Failed to WriteOnly! file=%1"_s.arg(opened)));
        QVERIFY(!QFileInfo::exists(target));
    }

    // Names XML cannot carry (a control character, a lone surrogate) are left out; a group
    // falling below two members is not restored.
    void unrepresentableEntriesLeftOut()
    {
        QTemporaryDir dir;
        QVERIFY(makeTree(dir.path(), {{u"ctl\u0001.txt"_s, 4}, {u"a.txt"_s, 4}, {u"b.txt"_s, 4}}));
        fillStore(dir.path(), {{u"*ctl\u0001.txt"_s, u"a.txt"_s, u"*b.txt"_s}});
        TFileData &store = TFileData::instance();
        store.addDuplicateGroup(u"LONE"_s, {u"/x/\xD800.txt"_s, u"/x/y.txt"_s});

        TOpenSaveThread thread;
        const QString project = dir.filePath(u"ctl.dupproj"_s);
        QCOMPARE(runJob(thread, kSave, project, 3, u"00:00:02"_s).flag, 1);
        QVERIFY(logText().contains(u"2 entries left out"_s));
        store.clear();
        const Run run = runJob(thread, kOpen, project);
        QVERIFY(run.flag == 1 && run.files == 2 && run.size == 8);
        // The key stays that of the first member as saved.
        QCOMPARE(dump(dir.path()),
                 u"%1: a.txt b.txt | b.txt"_s.arg(groupKey(dir.filePath(u"ctl\u0001.txt"_s))));
    }

    // Progress rises strictly from 0 to the last group, at most about once per thousandth,
    // and never after the completion.
    void progressIsMonotonic_data()
    {
        QTest::addColumn<int>("groups");
        for (int groups : {0, 1, 50, 3000})
            QTest::addRow("%d", groups) << groups;
    }
    void progressIsMonotonic()
    {
        QFETCH(int, groups);
        QTemporaryDir dir;
        QVERIFY(makeTree(dir.path(), {{u"a"_s, 1}, {u"b"_s, 1}}));
        TFileData &store = TFileData::instance();
        for (int i = 0; i < groups; ++i)
            store.addDuplicateGroup(u"K%1"_s.arg(i), {dir.filePath(u"a"_s), dir.filePath(u"b"_s)});
        TOpenSaveThread thread;
        const QString project = dir.filePath(u"p.dupproj"_s);
        for (bool job : {kSave, kOpen}) {
            const Run run = runJob(thread, job, project, 0, u"00:00:00"_s);
            QVERIFY(run.completions == 1 && run.flag == 1 && !run.progressAfterCompletion);
            QVERIFY(run.progress.size() <= 1001);
            if (groups <= 1000)
                QCOMPARE(run.progress.size(), qsizetype(groups));
            for (qsizetype i = 0; i < run.progress.size(); ++i)
                QVERIFY(run.progress.at(i).second == groups &&
                        (i == 0 ? run.progress.at(i).first == 0.0
                                : run.progress.at(i).first > run.progress.at(i - 1).first));
            QVERIFY(groups == 0 || run.progress.constLast().first == groups - 1);
        }
        QCOMPARE(store.duplicateGroups.size(), groups);
    }

    void destroyedWhileSaving()
    {
        QTemporaryDir dir;
        TFileData &store = TFileData::instance();
        for (int i = 0; i < 20000; ++i)
            store.addDuplicateGroup(u"K%1"_s.arg(i), {u"/n/%1/a"_s.arg(i), u"/n/%1/b"_s.arg(i)});
        auto *thread = new TOpenSaveThread;
        QVERIFY(thread->saveProject(dir.filePath(u"gone.dupproj"_s), 1, u"00:00:01"_s));
        delete thread; // stops and waits; must neither crash nor leave the thread running
        QCOMPARE(store.duplicateGroups.size(), 20000);
    }
};

TWINFOLD_TEST_MAIN(TestTOpenSaveThread)
#include "tst_topensavethread.moc"
