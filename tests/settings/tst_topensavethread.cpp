#include "TestMain.h"

#include "app/TLogger.h"
#include "scan/FileCategory.h"
#include "scan/TFileData.h"
#include "settings/TOpenSaveThread.h"

#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QRegularExpression>
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
// Expected or stored groups by key, entries relative, '*' for selected.
using KeyedGroups = QMap<QString, QStringList>;

constexpr int kWaitMs = 120000;

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

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString plain(const QString &entry)
{
    return entry.startsWith(u'*') ? entry.mid(1) : entry;
}

// Everything one run reported, in arrival order.
struct Run
{
    bool started = false;
    int completions = 0;
    int flag = -1;
    int files = -1;
    qint64 size = -1;
    QList<QPair<double, double>> progress;
    bool progressAfterCompletion = false;
};

enum class Job
{
    Open,
    Save
};

// Starts one job and waits for its completion. The signals are taken directly on the
// job's thread under a lock: a queued delivery would hand the arguments over inside
// Qt, where the race checker cannot follow them.
Run runJob(TOpenSaveThread &thread, Job job, const QString &path, int count = 0,
           const QString &time = QString())
{
    Run run;
    QMutex mutex;
    QObject context;
    auto progress = [&run, &mutex](double current, double total) {
        QMutexLocker locker(&mutex);
        run.progress.append({current, total});
        if (run.completions > 0)
            run.progressAfterCompletion = true;
    };
    auto completed = [&run, &mutex](int flag, int files, qint64 size) {
        QMutexLocker locker(&mutex);
        ++run.completions;
        run.flag = flag;
        run.files = files;
        run.size = size;
    };
    if (job == Job::Open) {
        QObject::connect(&thread, &TOpenSaveThread::openProjectComplated, &context, completed,
                         Qt::DirectConnection);
        QObject::connect(&thread, &TOpenSaveThread::openProjectProcess, &context, progress,
                         Qt::DirectConnection);
        run.started = thread.openProject(path);
    } else {
        QObject::connect(
            &thread, &TOpenSaveThread::saveComplated, &context,
            [completed](int flag) { completed(flag, -1, -1); }, Qt::DirectConnection);
        QObject::connect(&thread, &TOpenSaveThread::saveProjectProcess, &context, progress,
                         Qt::DirectConnection);
        run.started = thread.saveProject(path, count, time);
    }
    if (run.started) {
        // A timeout shows as a missing completion in the caller's checks.
        (void)QTest::qWaitFor(
            [&run, &mutex] {
                QMutexLocker locker(&mutex);
                return run.completions > 0;
            },
            kWaitMs);
        thread.wait();
    }
    // Reading through the thread's lock also orders the thread's store writes before
    // the checks that follow.
    (void)thread.loadedFiles();
    QMutexLocker locker(&mutex);
    return run;
}

QString logText()
{
    TLogger::flush();
    return QString::fromUtf8(readFile(TLogger::logDir(TLogger::appDir()) + u'/' + TLogger::todaysFileName()));
}

// Fills the store from relative specs; returns the keys used, in order.
QStringList fillStore(const QString &root, const Groups &files, const QList<QList<FolderRecord>> &folders)
{
    TFileData &store = TFileData::instance();
    QStringList keys;
    for (const QStringList &group : files) {
        QStringList entries;
        QStringList selected;
        for (const QString &entry : group) {
            const QString full = root + u'/' + plain(entry);
            entries.append(full);
            if (entry.startsWith(u'*'))
                selected.append(full);
        }
        const QString key = groupKey(entries.constFirst());
        store.addDuplicateGroup(key, entries);
        store.setSelected(key, selected);
        keys.append(key);
    }
    for (const QList<FolderRecord> &group : folders) {
        FolderRecords records;
        QStringList selected;
        for (FolderRecord record : group) {
            const QString full = root + u'/' + plain(record.folderPath);
            if (record.folderPath.startsWith(u'*'))
                selected.append(full);
            record.folderPath = full;
            records.append(record);
        }
        const QString key = groupKey(records.constFirst().folderPath);
        store.addFolderGroup(key, records);
        store.setSelected(key, selected);
        keys.append(key);
    }
    return keys;
}
} // namespace

class TestTOpenSaveThread : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init() { TFileData::instance().clear(); }
    void cleanupTestCase();

    void roundTrip_data();
    void roundTrip();
    void savedFileLayout_data();
    void savedFileLayout();
    void openHandWritten_data();
    void openHandWritten();
    void hostileFileRefused_data();
    void hostileFileRefused();
    void sizeLimitBoundary_data();
    void sizeLimitBoundary();
    void gibibyteFileRefused();
    void unopenablePathNotStarted_data();
    void unopenablePathNotStarted();
    void saveFailureReported();
    void unrepresentableEntriesLeftOut();
    void progressIsMonotonic_data();
    void progressIsMonotonic();
    void destroyedWhileSaving();

private:
    QTemporaryDir m_appDir;
};

void TestTOpenSaveThread::initTestCase()
{
    QVERIFY(m_appDir.isValid());
    QVERIFY(initLogger(TLogger::appDir()));
}

void TestTOpenSaveThread::cleanupTestCase()
{
    TLogger::shutdown();
    TFileData::instance().clear();
}

void TestTOpenSaveThread::roundTrip_data()
{
    QTest::addColumn<Tree>("tree");
    QTest::addColumn<Groups>("files");
    QTest::addColumn<QList<QList<FolderRecord>>>("folders");
    QTest::addColumn<int>("expectedFiles");
    QTest::addColumn<qint64>("expectedSize");

    QTest::newRow("duplicate groups with selection")
        << Tree{{u"a.txt"_s, 10}, {u"b/a.txt"_s, 10}, {u"c/a.txt"_s, 10}, {u"x.bin"_s, 7}, {u"y/x.bin"_s, 7}}
        << Groups{{u"a.txt"_s, u"*b/a.txt"_s, u"*c/a.txt"_s}, {u"*x.bin"_s, u"y/x.bin"_s}}
        << QList<QList<FolderRecord>>{} << 5 << qint64(44);
    QTest::newRow("similar entries keep their marker")
        << Tree{{u"p.png"_s, 100}, {u"q.png"_s, 200}}
        << Groups{{u"p.png_simlar_100"_s, u"*q.png_simlar_87"_s},
                  {u"q.png_simlar_90"_s, u"p.png_simlar_90"_s}}
        << QList<QList<FolderRecord>>{} << 4 << qint64(600);
    QTest::newRow("unicode and XML-special characters")
        << Tree{{u"é中 文.jpg"_s, 3},    {u"a&b<c>\"'.jpg"_s, 3}, {u" lead and trail .jpg "_s, 3},
                {u"tab\there.jpg"_s, 3}, {u"new\nline.jpg"_s, 3}, {u"cr\rin.jpg"_s, 3},
                {u"emoji 😀.jpg"_s, 3},   {u"x]]>y&amp;.jpg"_s, 3}}
        << Groups{{u"é中 文.jpg"_s, u"*a&b<c>\"'.jpg"_s, u"* lead and trail .jpg "_s, u"tab\there.jpg"_s,
                   u"*new\nline.jpg"_s, u"*cr\rin.jpg"_s, u"emoji 😀.jpg"_s, u"*x]]>y&amp;.jpg"_s}}
        << QList<QList<FolderRecord>>{} << 8 << qint64(24);
    // Folder records come back measured from disk: direct visible files only.
    QTest::newRow("folder group") << Tree{{u"f1/a"_s, 10}, {u"f1/b"_s, 10}, {u"f1/sub/c"_s, 100},
                                          {u"f1/.h"_s, 5}, {u"f2/a"_s, 10}, {u"f2/b"_s, 10}}
                                  << Groups{}
                                  << QList<QList<FolderRecord>>{{{u"f1"_s, 2, 20}, {u"*f2"_s, 2, 20}}} << 4
                                  << qint64(40);
    QTest::newRow("files and folders together")
        << Tree{{u"d/one.doc"_s, 50}, {u"e/one.doc"_s, 50}, {u"g1/z"_s, 1}, {u"g2/z"_s, 1}, {u"g3/z"_s, 1}}
        << Groups{{u"*d/one.doc"_s, u"e/one.doc"_s}}
        << QList<QList<FolderRecord>>{{{u"g1"_s, 1, 1}, {u"g2"_s, 1, 1}, {u"*g3"_s, 1, 1}}} << 5
        << qint64(103);
    QTest::newRow("empty result") << Tree{} << Groups{} << QList<QList<FolderRecord>>{} << 0 << qint64(0);
}

void TestTOpenSaveThread::roundTrip()
{
    QFETCH(Tree, tree);
    QFETCH(Groups, files);
    QFETCH(QList<QList<FolderRecord>>, folders);
    QFETCH(int, expectedFiles);
    QFETCH(qint64, expectedSize);
    QTemporaryDir dir;
    QVERIFY(makeTree(dir.path(), tree));
    fillStore(dir.path(), files, folders);
    TFileData &store = TFileData::instance();
    const auto duplicates = store.duplicateGroups;
    const auto folderGroups = store.folderGroups;
    const auto selections = store.selectedFiles;

    TOpenSaveThread thread;
    const QString project = dir.filePath(u"result.dupproj"_s);
    const Run save = runJob(thread, Job::Save, project, 1234, u"01:02:03"_s);
    QVERIFY(save.started);
    QCOMPARE(save.completions, 1);
    QCOMPARE(save.flag, 1);

    store.clear();
    const Run open = runJob(thread, Job::Open, project);
    QVERIFY(open.started);
    QCOMPARE(open.completions, 1);
    QCOMPARE(open.flag, 1);
    QCOMPARE(open.files, expectedFiles);
    QCOMPARE(open.size, expectedSize);
    QCOMPARE(thread.loadedFiles(), expectedFiles);
    QCOMPARE(thread.loadedSize(), expectedSize);
    QCOMPARE(thread.fileCount(), 1234);
    QCOMPARE(thread.scanTime(), u"01:02:03"_s);

    QCOMPARE(store.duplicateGroups, duplicates);
    QCOMPARE(store.folderGroups, folderGroups);
    for (auto it = selections.cbegin(); it != selections.cend(); ++it)
        QCOMPARE(store.selectedFiles.value(it.key()), it.value());
    for (auto it = store.selectedFiles.cbegin(); it != store.selectedFiles.cend(); ++it)
        QCOMPARE(it.value(), selections.value(it.key()));
}

void TestTOpenSaveThread::savedFileLayout_data()
{
    QTest::addColumn<Groups>("files");
    QTest::addColumn<QString>("expected"); // %1 the test folder, %2 the group key
    QTest::newRow("no groups") << Groups{} << uR"(<?xml version="1.0" encoding="UTF-8"?>
<Twinfold fileCount="42" scanTime="00:00:07" version="4.0.0">
    <groups/>
</Twinfold>
)"_s;
    QTest::newRow("one group") << Groups{{u"a.txt"_s, u"*b.txt"_s}}
                               << uR"(<?xml version="1.0" encoding="UTF-8"?>
<Twinfold fileCount="42" scanTime="00:00:07" version="4.0.0">
    <groups>
        <GroupItem GroupType="0" GroupFlag="0" key="%2">
            <Item selected="0">%1/a.txt</Item>
            <Item selected="1">%1/b.txt</Item>
        </GroupItem>
    </groups>
</Twinfold>
)"_s;
}

void TestTOpenSaveThread::savedFileLayout()
{
    QFETCH(Groups, files);
    QFETCH(QString, expected);
    QTemporaryDir dir;
    const QStringList keys = fillStore(dir.path(), files, {});
    TOpenSaveThread thread;
    const QString project = dir.filePath(u"layout.dupproj"_s);
    QCOMPARE(runJob(thread, Job::Save, project, 42, u"00:00:07"_s).flag, 1);
    QCOMPARE(QString::fromUtf8(readFile(project)), expected.arg(dir.path(), keys.value(0)));
}

void TestTOpenSaveThread::openHandWritten_data()
{
    QTest::addColumn<Tree>("tree");
    QTest::addColumn<QString>("xml"); // %1 is the test folder
    QTest::addColumn<int>("expectedFiles");
    QTest::addColumn<qint64>("expectedSize");
    QTest::addColumn<KeyedGroups>("expectedGroups");
    QTest::addColumn<KeyedGroups>("expectedSelections");
    QTest::addColumn<int>("expectedFileCount");
    QTest::addColumn<QString>("expectedScanTime");

    const QString head =
        uR"(<?xml version="1.0" encoding="UTF-8"?><Twinfold fileCount="9" scanTime="00:01:00" version="4.0.0">)"_s;
    const QString tail = u"</Twinfold>"_s;

    QTest::newRow("vanished member dropped")
        << Tree{{u"a.txt"_s, 5}, {u"b.txt"_s, 5}}
        << head + uR"(<groups><GroupItem GroupType="0" GroupFlag="0" key="K1">
               <Item selected="1">%1/a.txt</Item><Item selected="1">%1/gone.txt</Item>
               <Item selected="0">%1/b.txt</Item></GroupItem></groups>)"_s +
               tail
        << 2 << qint64(10) << KeyedGroups{{u"K1"_s, {u"a.txt"_s, u"b.txt"_s}}}
        << KeyedGroups{{u"K1"_s, {u"a.txt"_s}}} << 9 << u"00:01:00"_s;
    QTest::newRow("group of three with two vanished is dropped, selection emptied")
        << Tree{{u"a.txt"_s, 5}}
        << head + uR"(<groups><GroupItem key="K2"><Item selected="1">%1/a.txt</Item>
               <Item>%1/gone1.txt</Item><Item>%1/gone2.txt</Item></GroupItem></groups>)"_s +
               tail
        << 0 << qint64(0) << KeyedGroups{} << KeyedGroups{{u"K2"_s, {}}} << 9 << u"00:01:00"_s;
    QTest::newRow("similar marker tested without, stored with")
        << Tree{{u"a.jpg"_s, 30}, {u"b.jpg"_s, 40}}
        << head + uR"(<groups><GroupItem key="S"><Item selected="1">%1/a.jpg_simlar_87</Item>
               <Item>%1/b.jpg_simlar_90</Item><Item>%1/c.jpg_simlar_91</Item></GroupItem></groups>)"_s +
               tail
        << 2 << qint64(70) << KeyedGroups{{u"S"_s, {u"a.jpg_simlar_87"_s, u"b.jpg_simlar_90"_s}}}
        << KeyedGroups{{u"S"_s, {u"a.jpg_simlar_87"_s}}} << 9 << u"00:01:00"_s;
    QTest::newRow("missing attributes take their defaults")
        << Tree{{u"a"_s, 1}, {u"b"_s, 1}}
        << uR"(<Twinfold><groups><GroupItem key="D"><Item>%1/a</Item><Item>%1/b</Item></GroupItem></groups></Twinfold>)"_s
        << 2 << qint64(2) << KeyedGroups{{u"D"_s, {u"a"_s, u"b"_s}}} << KeyedGroups{{u"D"_s, {}}} << 0
        << u"00:00:00"_s;
    QTest::newRow("no groups element opens empty")
        << Tree{} << uR"(<Twinfold fileCount="3" scanTime="00:00:09"/>)"_s << 0 << qint64(0) << KeyedGroups{}
        << KeyedGroups{} << 3 << u"00:00:09"_s;
    QTest::newRow("missing key derived from the first member")
        << Tree{{u"a"_s, 1}, {u"b"_s, 1}}
        << head + uR"(<groups><GroupItem><Item>%1/a</Item><Item>%1/b</Item></GroupItem></groups>)"_s + tail
        << 2 << qint64(2) << KeyedGroups{{u"#a"_s, {u"a"_s, u"b"_s}}} << KeyedGroups{{u"#a"_s, {}}} << 9
        << u"00:01:00"_s;
}

void TestTOpenSaveThread::openHandWritten()
{
    QFETCH(Tree, tree);
    QFETCH(QString, xml);
    QFETCH(int, expectedFiles);
    QFETCH(qint64, expectedSize);
    QFETCH(KeyedGroups, expectedGroups);
    QFETCH(KeyedGroups, expectedSelections);
    QFETCH(int, expectedFileCount);
    QFETCH(QString, expectedScanTime);
    QTemporaryDir dir;
    QVERIFY(makeTree(dir.path(), tree));
    const QString project = dir.filePath(u"hand.dupproj"_s);
    QVERIFY(writeFile(project, xml.arg(dir.path()).toUtf8()));
    // Opening replaces whatever the store held.
    TFileData::instance().addDuplicateGroup(u"OLD"_s, {u"/old/1"_s, u"/old/2"_s});

    TOpenSaveThread thread;
    const Run run = runJob(thread, Job::Open, project);
    QVERIFY(run.started);
    QCOMPARE(run.completions, 1);
    QCOMPARE(run.flag, 1);
    QCOMPARE(run.files, expectedFiles);
    QCOMPARE(run.size, expectedSize);
    QCOMPARE(thread.fileCount(), expectedFileCount);
    QCOMPARE(thread.scanTime(), expectedScanTime);

    // "#name" stands for the key a scan would give the group whose first member is name.
    auto resolve = [&dir](const KeyedGroups &groups) {
        QHash<QString, QStringList> out;
        for (auto it = groups.cbegin(); it != groups.cend(); ++it) {
            QStringList entries;
            for (const QString &entry : it.value())
                entries.append(dir.path() + u'/' + entry);
            const QString key =
                it.key().startsWith(u'#') ? groupKey(dir.path() + u'/' + it.key().mid(1)) : it.key();
            out.insert(key, entries);
        }
        return out;
    };
    const TFileData &store = TFileData::instance();
    QCOMPARE(store.duplicateGroups, resolve(expectedGroups));
    QCOMPARE(store.selectedFiles, resolve(expectedSelections));
    QVERIFY(store.folderGroups.isEmpty());
}

void TestTOpenSaveThread::hostileFileRefused_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("logLine"); // %1 is the project path

    const QString parse = u"Failed to parse XML content! file=%1"_s;
    const QString project = u"Failed to open Project! file=%1"_s;
    const QByteArray valid = R"(<?xml version="1.0" encoding="UTF-8"?>
<Twinfold fileCount="2" scanTime="00:00:01" version="4.0.0">
    <groups>
        <GroupItem GroupType="0" GroupFlag="0" key="K">
            <Item selected="0">/a</Item>
            <Item selected="1">/b</Item>
        </GroupItem>
    </groups>
</Twinfold>
)";

    QByteArray garbage(64 * 1024, '\0');
    QRandomGenerator random(20241122);
    for (char &c : garbage)
        c = char(random.bounded(256));

    QTest::newRow("empty file") << QByteArray() << parse;
    QTest::newRow("whitespace only") << QByteArray("  \n\t \n") << parse;
    QTest::newRow("binary garbage") << garbage << parse;
    QTest::newRow("zero bytes") << QByteArray(4096, '\0') << parse;
    QTest::newRow("truncated in the middle") << valid.left(valid.size() / 2) << parse;
    QTest::newRow("truncated before the root ends") << valid.left(valid.lastIndexOf("</Twinfold>")) << parse;
    QTest::newRow("mismatched tags") << QByteArray("<Twinfold><groups></GroupItem></Twinfold>") << parse;
    QTest::newRow("two roots") << QByteArray("<Twinfold/><Twinfold/>") << parse;
    QTest::newRow("text before the root") << QByteArray("hello<Twinfold/>") << parse;
    QTest::newRow("unsupported XML version") << QByteArray(R"(<?xml version="2.0"?><Twinfold/>)") << parse;
    QTest::newRow("forbidden character reference")
        << QByteArray("<Twinfold><groups><GroupItem><Item>&#1;</Item>"
                      "</GroupItem></groups></Twinfold>")
        << parse;
    QTest::newRow("undeclared entity") << QByteArray("<Twinfold>&boom;</Twinfold>") << parse;
    QTest::newRow("billion laughs") << QByteArray(R"(<?xml version="1.0"?>
<!DOCTYPE Twinfold [
 <!ENTITY a "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa">
 <!ENTITY b "&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;">
 <!ENTITY c "&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;">
 <!ENTITY d "&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;">
 <!ENTITY e "&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;">
 <!ENTITY f "&e;&e;&e;&e;&e;&e;&e;&e;&e;&e;&e;&e;&e;&e;&e;&e;&e;&e;&e;&e;">
]>
<Twinfold><groups><GroupItem key="K"><Item>&f;</Item><Item>&f;</Item></GroupItem></groups></Twinfold>)")
                                    << parse;
    QTest::newRow("external entity") << QByteArray(R"(<?xml version="1.0"?>
<!DOCTYPE Twinfold [<!ENTITY x SYSTEM "file:///etc/passwd">]>
<Twinfold><groups><GroupItem key="K"><Item>&x;</Item><Item>/b</Item></GroupItem></groups></Twinfold>)")
                                     << parse;
    QTest::newRow("external document type") << QByteArray(R"(<?xml version="1.0"?>
<!DOCTYPE Twinfold SYSTEM "http://example.invalid/twinfold.dtd">
<Twinfold><groups/></Twinfold>)") << parse;
    QTest::newRow("parameter entities") << QByteArray(R"(<?xml version="1.0"?>
<!DOCTYPE Twinfold [<!ENTITY % p "<!ENTITY q 'qqqq'>"> %p;]>
<Twinfold>&q;</Twinfold>)") << parse;
    QTest::newRow("deep nesting in the root")
        << QByteArray("<Twinfold>") + QByteArray("<a>").repeated(200000) +
               QByteArray("</a>").repeated(200000) + QByteArray("</Twinfold>")
        << parse;
    QTest::newRow("deep nesting inside an item")
        << QByteArray("<Twinfold><groups><GroupItem><Item>") + QByteArray("<i>").repeated(50000) +
               QByteArray("</i>").repeated(50000) + QByteArray("</Item></GroupItem></groups></Twinfold>")
        << parse;
    QTest::newRow("unclosed deep nesting")
        << QByteArray("<Twinfold>") + QByteArray("<a>").repeated(300000) << parse;
    QTest::newRow("root in the wrong case") << QByteArray(valid).replace("Twinfold", "twinfold") << project;
    QTest::newRow("another program's root") << QByteArray("<Project><groups/></Project>") << project;
    QTest::newRow("wrong root, broken inside") << QByteArray("<Project><groups></Project>") << parse;
}

void TestTOpenSaveThread::hostileFileRefused()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, logLine);
    QTemporaryDir dir;
    const QString path = dir.filePath(u"hostile.dupproj"_s);
    QVERIFY(writeFile(path, content));
    TFileData::instance().addDuplicateGroup(u"KEEP"_s, {u"/keep/1"_s, u"/keep/2"_s});
    TFileData::instance().setSelected(u"KEEP"_s, {u"/keep/2"_s});

    TOpenSaveThread thread;
    const Run run = runJob(thread, Job::Open, path);
    QVERIFY(run.started);
    QCOMPARE(run.completions, 1);
    QCOMPARE(run.flag, 0);
    QCOMPARE(run.files, 0);
    QCOMPARE(run.size, qint64(0));
    QVERIFY(run.progress.isEmpty());
    QVERIFY2(logText().contains(logLine.arg(path)), qPrintable(logLine.arg(path)));
    // A refused file changes nothing.
    const TFileData &store = TFileData::instance();
    QCOMPARE(store.duplicateGroups.keys(), QStringList{u"KEEP"_s});
    QCOMPARE(store.selectedFiles.value(u"KEEP"_s), QStringList{u"/keep/2"_s});
}

void TestTOpenSaveThread::sizeLimitBoundary_data()
{
    QTest::addColumn<qint64>("limitOffset"); // limit = file size + offset
    QTest::addColumn<int>("flag");
    QTest::newRow("one byte under the file") << qint64(-1) << 0;
    QTest::newRow("exactly the file") << qint64(0) << 1;
}

void TestTOpenSaveThread::sizeLimitBoundary()
{
    QFETCH(qint64, limitOffset);
    QFETCH(int, flag);
    QTemporaryDir dir;
    const QString path = dir.filePath(u"limit.dupproj"_s);
    const QByteArray bytes = R"(<Twinfold fileCount="1"><groups/></Twinfold>)";
    QVERIFY(writeFile(path, bytes));
    TOpenSaveThread thread;
    thread.setMaxProjectBytes(bytes.size() + limitOffset);
    const Run run = runJob(thread, Job::Open, path);
    QCOMPARE(run.completions, 1);
    QCOMPARE(run.flag, flag);
    if (flag == 0)
        QVERIFY(logText().contains(u"Failed to parse XML content! file=%1"_s.arg(path)));
}

void TestTOpenSaveThread::gibibyteFileRefused()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"huge.dupproj"_s);
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QVERIFY(file.write(R"(<?xml version="1.0"?><Twinfold fileCount="1"><groups>)") > 0);
    // Sparse: costs no disk, and is refused before any of it is read.
    if (!file.resize(qint64(1) << 30))
        QSKIP("The file system cannot hold a sparse 1 GiB file.");
    file.close();
    TFileData::instance().addDuplicateGroup(u"KEEP"_s, {u"/keep/1"_s, u"/keep/2"_s});
    TOpenSaveThread thread;
    const Run run = runJob(thread, Job::Open, path);
    QCOMPARE(run.completions, 1);
    QCOMPARE(run.flag, 0);
    QVERIFY(logText().contains(u"Failed to parse XML content! file=%1"_s.arg(path)));
    QCOMPARE(TFileData::instance().duplicateGroups.keys(), QStringList{u"KEEP"_s});
}

void TestTOpenSaveThread::unopenablePathNotStarted_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("missing file") << u"missing"_s;
    QTest::newRow("folder") << u"folder"_s;
    QTest::newRow("empty path") << u"empty"_s;
#ifdef Q_OS_UNIX
    QTest::newRow("named pipe") << u"fifo"_s;
    QTest::newRow("unreadable file") << u"unreadable"_s;
#endif
}

void TestTOpenSaveThread::unopenablePathNotStarted()
{
    QFETCH(QString, kind);
    QTemporaryDir dir;
    QString path = dir.filePath(kind);
    if (kind == u"folder"_s) {
        QVERIFY(QDir().mkpath(path));
    } else if (kind == u"empty"_s) {
        path.clear();
#ifdef Q_OS_UNIX
    } else if (kind == u"fifo"_s) {
        QCOMPARE(::mkfifo(QFile::encodeName(path).constData(), 0600), 0);
    } else if (kind == u"unreadable"_s) {
        QVERIFY(writeFile(path, "<Twinfold/>"));
        QVERIFY(QFile::setPermissions(path, QFileDevice::WriteOwner));
        if (QFile(path).open(QIODevice::ReadOnly))
            QSKIP("Running with rights that read any file.");
#endif
    }
    TOpenSaveThread thread;
    const Run run = runJob(thread, Job::Open, path);
    QVERIFY(!run.started);
    QCOMPARE(run.completions, 0);
    QVERIFY(!thread.isRunning());
    // Whole line, so the empty path is not matched by an earlier row's line.
    QVERIFY(logText().contains(u"Failed to openProject! file=%1\n"_s.arg(path)));
}

void TestTOpenSaveThread::saveFailureReported()
{
    QTemporaryDir dir;
    const QString opened = dir.filePath(u"opened.dupproj"_s);
    QVERIFY(writeFile(opened, "<Twinfold/>"));
    const QString target = dir.filePath(u"no/such/folder/x.dupproj"_s);
    TOpenSaveThread thread;
    QCOMPARE(runJob(thread, Job::Open, opened).flag, 1);
    const Run run = runJob(thread, Job::Save, target, 1, u"00:00:01"_s);
    QVERIFY(run.started);
    QCOMPARE(run.completions, 1);
    QCOMPARE(run.flag, 0);
    // The message names the last opened project, not the save target.
    QVERIFY(logText().contains(u"Failed to WriteOnly! file=%1"_s.arg(opened)));
    QVERIFY(!QFileInfo::exists(target));
}

void TestTOpenSaveThread::unrepresentableEntriesLeftOut()
{
    QTemporaryDir dir;
    const QString control = u"ctl\u0001.txt"_s;
    QVERIFY(makeTree(dir.path(), {{control, 4}, {u"a.txt"_s, 4}, {u"b.txt"_s, 4}}));
    TFileData &store = TFileData::instance();
    const QString key = groupKey(dir.filePath(control));
    store.addDuplicateGroup(key, {dir.filePath(control), dir.filePath(u"a.txt"_s), dir.filePath(u"b.txt"_s)});
    store.setSelected(key, {dir.filePath(control), dir.filePath(u"b.txt"_s)});
    // A lone surrogate cannot be written either; the group holding it falls below two.
    store.addDuplicateGroup(u"LONE"_s, {u"/x/\xD800.txt"_s, u"/x/y.txt"_s});

    TOpenSaveThread thread;
    const QString project = dir.filePath(u"ctl.dupproj"_s);
    QCOMPARE(runJob(thread, Job::Save, project, 3, u"00:00:02"_s).flag, 1);
    QVERIFY(logText().contains(u"2 entries left out"_s));
    store.clear();
    const Run run = runJob(thread, Job::Open, project);
    QCOMPARE(run.flag, 1);
    QCOMPARE(run.files, 2);
    QCOMPARE(run.size, qint64(8));
    QCOMPARE(store.duplicateGroups.value(key),
             (QStringList{dir.filePath(u"a.txt"_s), dir.filePath(u"b.txt"_s)}));
    QCOMPARE(store.selectedFiles.value(key), QStringList{dir.filePath(u"b.txt"_s)});
    QVERIFY(!store.duplicateGroups.contains(u"LONE"_s));
}

void TestTOpenSaveThread::progressIsMonotonic_data()
{
    QTest::addColumn<int>("groups");
    QTest::newRow("none") << 0;
    QTest::newRow("one") << 1;
    QTest::newRow("fifty") << 50;
    QTest::newRow("three thousand, throttled") << 3000;
}

void TestTOpenSaveThread::progressIsMonotonic()
{
    QFETCH(int, groups);
    QTemporaryDir dir;
    QVERIFY(makeTree(dir.path(), {{u"a"_s, 1}, {u"b"_s, 1}}));
    TFileData &store = TFileData::instance();
    for (int i = 0; i < groups; ++i)
        store.addDuplicateGroup(u"K%1"_s.arg(i), {dir.filePath(u"a"_s), dir.filePath(u"b"_s)});
    TOpenSaveThread thread;
    const QString project = dir.filePath(u"p.dupproj"_s);

    for (Job job : {Job::Save, Job::Open}) {
        const Run run = runJob(thread, job, project, 0, u"00:00:00"_s);
        QCOMPARE(run.completions, 1);
        QCOMPARE(run.flag, 1);
        QVERIFY(!run.progressAfterCompletion);
        if (groups == 0) {
            QVERIFY(run.progress.isEmpty());
            continue;
        }
        QVERIFY(!run.progress.isEmpty());
        QVERIFY(run.progress.size() <= 1001);
        for (qsizetype i = 0; i < run.progress.size(); ++i) {
            QCOMPARE(run.progress.at(i).second, double(groups));
            if (i > 0)
                QVERIFY(run.progress.at(i).first > run.progress.at(i - 1).first);
        }
        QCOMPARE(run.progress.constFirst().first, 0.0);
        QCOMPARE(run.progress.constLast().first, double(groups - 1));
        if (groups <= 1000)
            QCOMPARE(run.progress.size(), qsizetype(groups));
    }
    QCOMPARE(store.duplicateGroups.size(), groups);
}

void TestTOpenSaveThread::destroyedWhileSaving()
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

TWINFOLD_TEST_MAIN(TestTOpenSaveThread)
#include "tst_topensavethread.moc"
