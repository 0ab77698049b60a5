#include "TestMain.h"

#include "scan/FileMeta.h"
#include "scan/TFileScanner.h"

#include <QJsonDocument>

#include <mutex>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using Ints = QList<int>;

namespace {
// Everything one run reported; signals come from pool threads, so it is locked (with a
// standard mutex, which the race checker can follow).
struct Run
{
    std::mutex mutex;
    QStringList paths;
    QHash<QString, qint64> sizes;
    QList<int> progress, driveTypes;
    int finished = 0;
};

// Runs the scanner to its end, calling onFile after each report. With a batch receiver
// connected as well, fileFound must stay silent or files show twice.
void scan(TFileScanner &scanner, Run &run, const std::function<void()> &onFile = {}, bool batched = false)
{
    QObject context;
    const auto locked = [&run](auto &&step) {
        std::lock_guard locker(run.mutex);
        step();
    };
    const auto record = [&](qint64 size, const QString &path, int drive) {
        locked([&] { run.paths.append(path), run.sizes.insert(path, size), run.driveTypes.append(drive); });
        if (onFile)
            onFile();
    };
    QObject::connect(&scanner, &TFileScanner::fileFound, &context, record, Qt::DirectConnection);
    if (batched)
        QObject::connect(
            &scanner, &TFileScanner::filesFound, &context,
            [&](const QList<FileMeta> &files) {
                for (const FileMeta &f : files)
                    record(f.size, f.path(), f.driveType);
            },
            Qt::DirectConnection);
    QObject::connect(
        &scanner, &TFileScanner::progressUpdated, &context,
        [&](int count) { locked([&] { run.progress.append(count); }); }, Qt::DirectConnection);
    QObject::connect(
        &scanner, &TFileScanner::scanFinished, &context, [&] { locked([&] { ++run.finished; }); },
        Qt::DirectConnection);
    scanner.start();
    scanner.wait();
    locked([] {}); // orders the scanner thread's last slot call before the connections go away
}

// A fresh scanner over the roots.
void scan(Run &run, const QStringList &roots, int mode, const QJsonObject &config = {},
          const std::function<void()> &onFile = {}, bool batched = false)
{
    TFileScanner scanner;
    scanner.setScanMode(mode);
    scanner.setConfig(config);
    scanner.setRoots(roots);
    scan(scanner, run, onFile, batched);
}

void makeFile(const QString &path, qint64 size = 1)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    QVERIFY2(file.open(QIODevice::WriteOnly) && file.resize(size), qPrintable(path));
}

// Names relative to the root, sorted, for comparing with a table.
QStringList relative(const QString &root, QStringList paths)
{
    for (QString &path : paths)
        path.remove(0, root.size() + 1);
    paths.sort();
    return paths;
}

QStringList list(const QString &commaSeparated)
{
    QStringList out = commaSeparated.split(u',', Qt::SkipEmptyParts);
    out.sort();
    return out;
}
} // namespace

class TestTFileScanner : public QObject
{
    Q_OBJECT
private slots:
    // The filtered walk must keep exactly "kept"; the plain walk keeps every file whatever
    // the settings. A name that is a number is also the file's size in bytes; "@" in the
    // settings stands for the root.
    void filters_data()
    {
        QTest::addColumn<QByteArray>("config");
        QTest::addColumn<QString>("files");
        QTest::addColumn<QString>("kept");
        const auto row = [](const char *name, const char *config, const char *files, const char *kept) {
            QTest::newRow(name) << QByteArray(config) << QString::fromUtf8(files) << QString::fromUtf8(kept);
        };
        const char *sizes = "0,1,1023,1024,1048576,1048577";
        row("sizes: bounds inclusive", R"({"MinFileSize":1,"MaxFileSize":1})", sizes, "1024,1048576");
        row("sizes: KiB fraction", R"({"MinFileSize":0.9,"MaxFileSize":1})", sizes, "0,1,1023,1024,1048576");
        row("sizes: max 0", R"({"MaxFileSize":0})", sizes, "0");
        row("sizes: max below min", R"({"MinFileSize":2048,"MaxFileSize":1})", sizes, "");
        const char *types = "a.jpg,photo.JPG,b.png,noext,c.TXT,d.tar.gz";
        row("types: only jpg takes JPG", R"({"OnlyFileType":["jpg"]})", types, "a.jpg,photo.JPG");
        row("types: only JPG keeps nothing", R"({"OnlyFileType":["JPG"]})", types, "");
        row("types: last suffix", R"({"OnlyFileType":["gz","png"]})", types, "b.png,d.tar.gz");
        row("types: empty entry", R"({"OnlyFileType":[""]})", types, "noext");
        row("types: ignore txt skips TXT",
            R"({"ScanFileType":1,"OnlyFileType":["png"],"IgnoreFileType":["txt"]})", types,
            "a.jpg,photo.JPG,b.png,noext,d.tar.gz");
        row("types: ignore list unused at 0", R"({"IgnoreFileType":["txt"]})", types, types);
        row("types: non-ascii", R"({"OnlyFileType":["ärger"]})", "x.ÄRGER,y.arger", "x.ÄRGER");
        const char *tree = "a/one.txt,a/sub/two.txt,b/three.txt,top.txt";
        row("paths: folder", R"({"IgnorePathFile":["@/a"]})", tree, "b/three.txt,top.txt");
        row("paths: other case, slash", R"({"IgnorePathFile":["@/A/SUB/"]})", tree,
            "a/one.txt,b/three.txt,top.txt");
        row("paths: file", R"({"IgnorePathFile":["@/B/Three.TXT"]})", tree,
            "a/one.txt,a/sub/two.txt,top.txt");
        row("paths: prefix is no match", R"({"IgnorePathFile":["@/a/on","@/to"]})", tree, tree);
        row("paths: root", R"({"IgnorePathFile":["@"]})", tree, "");
        const char *hidden = "seen.txt,.hidden.txt,.dot/inner.txt,sub/seen.txt,sub/.h";
        row("hidden: skipped", "{}", hidden, "seen.txt,sub/seen.txt");
        row("hidden: included", R"({"IgnoreSystemHidden":false})", hidden, hidden);
        const char *unicode = "Ünïcødé 日本/写真.jpg,emoji 😀.txt,ελληνικά.PDF";
        row("unicode names", "{}", unicode, unicode);
    }
    void filters()
    {
        QFETCH(QByteArray, config);
        QFETCH(QString, files);
        QFETCH(QString, kept);
        QTemporaryDir dir;
        for (const QString &name : list(files))
            makeFile(dir.filePath(name), name.front().isDigit() ? name.toLongLong() : 1);
        config.replace('@', QFile::encodeName(dir.path()));
        const qint32 drive = TFileScanner::driveTypeOf(dir.path());
        for (int mode : {0, 1}) {
            Run run;
            scan(run, {dir.path()}, mode, QJsonDocument::fromJson(config).object());
            QCOMPARE(run.finished, 1);
            QCOMPARE(relative(dir.path(), run.paths), list(mode == 0 ? files : kept));
            for (const QString &path : std::as_const(run.paths))
                QCOMPARE(run.sizes.value(path), QFileInfo(path).size());
            QCOMPARE(run.driveTypes, QList<int>(run.paths.size(), drive));
        }
    }

    void linksReportEachFileOnce_data()
    {
        // Layout commands, "|"-separated: "f path", "s link target" (symbolic), "h link existing"
        // (hard); "@" in a target stands for the folder that holds the root.
        QTest::addColumn<QString>("layout");
        QTest::addColumn<QString>("roots");
        QTest::addColumn<int>("files"); // physical files that must each be reported exactly once

        QTest::newRow("symlink to file") << u"f r/a.txt|s r/link.txt a.txt"_s << u"r"_s << 1;
        QTest::newRow("hard links") << u"f r/a.txt|h r/b.txt r/a.txt|h r/sub/c.txt r/a.txt|f r/other.txt"_s
                                    << u"r"_s << 2;
        QTest::newRow("loop to ancestor") << u"f r/a.txt|f r/x/y/b.txt|s r/x/y/up ../.."_s << u"r"_s << 2;
        QTest::newRow("folder reached twice")
            << u"f r/a/real/1.txt|f r/a/real/2.txt|s r/b/link ../a/real"_s << u"r"_s << 2;
        QTest::newRow("link to outside folder") << u"f out/o.txt|f r/a.txt|s r/ext @/out"_s << u"r"_s << 2;
        QTest::newRow("dangling link") << u"f r/a.txt|s r/gone.txt missing.txt"_s << u"r"_s << 1;
        QTest::newRow("overlapping roots") << u"f r/a.txt|f r/sub/b.txt"_s << u"r/sub,r,r/sub"_s << 2;
        QTest::newRow("root through a link") << u"f r/a.txt|s alias r"_s << u"r,alias"_s << 1;
    }

    void linksReportEachFileOnce()
    {
        QFETCH(QString, layout);
        QFETCH(QString, roots);
        QFETCH(int, files);
        QTemporaryDir dir;
        for (const QString &command : layout.replace(u'@', dir.path()).split(u'|')) {
            const QStringList part = command.split(u' ');
            const QString path = dir.filePath(part.at(1));
            const QByteArray link = QFile::encodeName(path);
            QDir().mkpath(QFileInfo(path).path());
            if (part.at(0) == u"f")
                makeFile(path, 3);
            else if (part.at(0) == u"s")
                QCOMPARE(::symlink(QFile::encodeName(part.at(2)).constData(), link.constData()), 0);
            else
                QCOMPARE(::link(QFile::encodeName(dir.filePath(part.at(2))).constData(), link.constData()),
                         0);
        }
        QStringList absoluteRoots = list(roots);
        for (QString &root : absoluteRoots)
            root = dir.filePath(root);

        // Both walks, each with the per-file and the batched receiver.
        for (int variant = 0; variant < 4; ++variant) {
            Run run;
            scan(run, absoluteRoots, variant % 2, {}, {}, variant >= 2);
            QCOMPARE(run.finished, 1);
            QSet<QPair<quint64, quint64>> identities;
            for (const QString &path : std::as_const(run.paths)) {
                struct stat st;
                QVERIFY2(::stat(QFile::encodeName(path).constData(), &st) == 0, qPrintable(path));
                identities.insert({quint64(st.st_dev), quint64(st.st_ino)});
            }
            QCOMPARE(identities.size(), run.paths.size()); // nothing twice
            QCOMPARE(run.paths.size(), files);             // nothing missed
        }
    }

    void progress_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<Ints>("perRoot"); // files in each root
        QTest::addColumn<Ints>("expected");
        QTest::newRow("parallel 99") << 1 << Ints{99} << Ints{99};
        QTest::newRow("parallel 100") << 1 << Ints{100} << Ints{100, 100};
        QTest::newRow("parallel 250") << 1 << Ints{250} << Ints{100, 200, 250};
        QTest::newRow("parallel counts per root") << 1 << Ints{150, 120} << Ints{100, 150, 100, 120};
        QTest::newRow("parallel empty root") << 1 << Ints{0} << Ints{0};
        QTest::newRow("plain 250") << 0 << Ints{250} << Ints{100, 200};
        QTest::newRow("plain counts across roots") << 0 << Ints{150, 120} << Ints{100, 200};
    }

    void progress()
    {
        QFETCH(int, mode);
        QFETCH(Ints, perRoot);
        QTemporaryDir dir;
        QStringList roots;
        for (int r = 0; r < perRoot.size(); ++r) {
            roots.append(dir.filePath(u"root%1"_s.arg(r)));
            QDir().mkpath(roots.last());
            for (int i = 0; i < perRoot.at(r); ++i)
                makeFile(roots.last() + u"/d%1/f%2"_s.arg(i % 7).arg(i));
        }
        Run run;
        scan(run, roots, mode);
        // Pool threads may signal their multiples of 100 in either order; the final count of
        // a root comes after all of them.
        if (mode == 1 && perRoot.size() == 1 && run.progress.size() > 1)
            std::sort(run.progress.begin(), run.progress.end() - 1);
        QTEST(run.progress, "expected");
    }

    // Stopped at its first file, a walk ends with what its workers were on, and a later run
    // starts afresh; a folder removed while the walk is in it costs only its own files.
    void interruptedWalks()
    {
        QTemporaryDir dir;
        QStringList kept;
        for (int i = 0; i < 3000; ++i) {
            kept.append(u"d%1/e%2/f%3"_s.arg(i % 10).arg(i % 30).arg(i, 4, 10, QChar(u'0')));
            makeFile(dir.filePath(kept.last()));
        }
        for (int i = 0; i < 40; ++i)
            makeFile(dir.filePath(u"victim/v%1/f.txt"_s.arg(i)));
        for (int mode : {0, 1}) {
            TFileScanner scanner;
            scanner.setScanMode(mode);
            scanner.setRoots({dir.path(), dir.path() + u"/d1"_s});
            Run run, again;
            scan(scanner, run, [&] { scanner.stop(); });
            QCOMPARE(run.finished, 1);
            // Each worker may finish the entry it was on, nothing more.
            QVERIFY2(!run.paths.isEmpty() && run.paths.size() <= QThread::idealThreadCount() + 1,
                     qPrintable(QString::number(mode)));
            scan(scanner, again);
            QCOMPARE(again.paths.size(), 3040);
        }
        Run run;
        std::mutex once;
        bool removed = false;
        scan(run, {dir.path()}, 1, {}, [&] {
            std::lock_guard locker(once);
            removed = removed || QDir(dir.filePath(u"victim"_s)).removeRecursively();
        });
        QVERIFY(removed);
        QCOMPARE(run.finished, 1);
        QStringList got = relative(dir.path(), run.paths);
        got.removeIf([](const QString &path) { return path.startsWith(u"victim/"_s); });
        kept.sort();
        QCOMPARE(got, kept);
    }

    void badInputIsSkipped()
    {
        // Roots that are missing, a file, empty or blank; names that are not valid UTF-8; a
        // folder that cannot be read: each is passed over and the rest of the walk goes on.
        QTemporaryDir dir;
        const QString root = dir.filePath(u"walk"_s);
        for (const QString &name : {u"walk/good.txt"_s, u"file.txt"_s, u"walk/closed/b.txt"_s})
            makeFile(dir.filePath(name));
        QVERIFY(QFile::setPermissions(root + u"/closed"_s, QFileDevice::Permissions()));
        const QByteArray bad = QFile::encodeName(root) + "/bad\xff\xfe.txt",
                         badDir = QFile::encodeName(root) + "/d\xc3(";
        QCOMPARE(::close(::open(bad.constData(), O_CREAT | O_WRONLY, 0644)), 0);
        QCOMPARE(::mkdir(badDir.constData(), 0755), 0);
        QCOMPARE(::close(::open(QByteArray(badDir + "/inner.txt").constData(), O_CREAT | O_WRONLY, 0644)), 0);
        // Whoever runs as root reads the closed folder all the same.
        const QString expected = ::geteuid() == 0 ? u"closed/b.txt,good.txt"_s : u"good.txt"_s;
        for (int mode : {0, 1}) {
            Run run;
            scan(run,
                 {dir.filePath(u"missing/folder"_s), dir.filePath(u"file.txt"_s), QString(), u"  "_s, root},
                 mode);
            QCOMPARE(run.finished, 1);
            QCOMPARE(relative(root, run.paths), list(expected));
        }
        QVERIFY(QFile::setPermissions(root + u"/closed"_s, QFileDevice::ReadOwner | QFileDevice::ExeOwner |
                                                               QFileDevice::WriteOwner));
        // The temporary folder cannot remove what it cannot name.
        QVERIFY(::unlink(bad.constData()) == 0 &&
                ::unlink(QByteArray(badDir + "/inner.txt").constData()) == 0 &&
                ::rmdir(badDir.constData()) == 0);
    }
};

TWINFOLD_TEST_MAIN(TestTFileScanner)
#include "tst_tfilescanner.moc"
