#include "TestMain.h"

#include "app/TLogger.h"
#include "scan/FileMeta.h"
#include "scan/TFileScanner.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QSet>
#include <QTemporaryDir>

#include <mutex>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

// Everything one run reported; signals come from pool threads, so it is locked (with a
// standard mutex, which the race checker can follow).
struct Run
{
    std::mutex mutex;
    QStringList paths;
    QHash<QString, qint64> sizes;
    QList<int> progress;
    QList<int> driveTypes;
    int finished = 0;
};

void scan(TFileScanner &scanner, Run &run, const std::function<void(const QString &)> &onFile = {},
          bool batched = false)
{
    QObject context;
    const auto record = [&](qint64 size, const QString &path, int driveType) {
        {
            std::lock_guard locker(run.mutex);
            run.paths.append(path);
            run.sizes.insert(path, size);
            run.driveTypes.append(driveType);
        }
        if (onFile)
            onFile(path);
    };
    if (batched) {
        QObject::connect(
            &scanner, &TFileScanner::filesFound, &context,
            [&](const QList<FileMeta> &files) {
                for (const FileMeta &f : files)
                    record(f.size, f.filePath, f.driveType);
            },
            Qt::DirectConnection);
        // With a batch receiver the per-file signal stays silent.
        QObject::connect(
            &scanner, &TFileScanner::fileFound, &context, [&] { record(-1, u"<per-file report>"_s, -1); },
            Qt::DirectConnection);
    } else {
        QObject::connect(&scanner, &TFileScanner::fileFound, &context, record, Qt::DirectConnection);
    }
    QObject::connect(
        &scanner, &TFileScanner::progressUpdated, &context,
        [&](int count) {
            std::lock_guard locker(run.mutex);
            run.progress.append(count);
        },
        Qt::DirectConnection);
    QObject::connect(
        &scanner, &TFileScanner::scanFinished, &context,
        [&] {
            std::lock_guard locker(run.mutex);
            ++run.finished;
        },
        Qt::DirectConnection);
    scanner.start();
    scanner.wait();
    // Orders the scanner thread's last slot call before the connections go away.
    std::lock_guard locker(run.mutex);
}

void makeFile(const QString &path, qint64 size = 1)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    QVERIFY2(file.open(QIODevice::WriteOnly), qPrintable(path));
    QVERIFY(file.resize(size));
}

// Names relative to the root, sorted, for comparing with a table.
QStringList relative(const QString &root, const QStringList &paths)
{
    QStringList out;
    for (const QString &path : paths)
        out.append(path.mid(root.size() + 1));
    out.sort();
    return out;
}

QStringList sorted(QStringList list)
{
    list.sort();
    return list;
}

QJsonArray array(const QStringList &list)
{
    return QJsonArray::fromStringList(list);
}

} // namespace

class TestTFileScanner : public QObject
{
    Q_OBJECT
private slots:
    void configIsRead_data();
    void configIsRead();
    void sizeBoundsAreInclusive_data();
    void sizeBoundsAreInclusive();
    void typeFilters_data();
    void typeFilters();
    void ignoredPaths_data();
    void ignoredPaths();
    void hiddenEntries_data();
    void hiddenEntries();
    void plainWalkAppliesNoFilters();
    void unicodeNames();
    void undecodableNameIsSkipped();
    void linksReportEachFileOnce_data();
    void linksReportEachFileOnce();
    void progress_data();
    void progress();
    void stopEndsTheWalk_data();
    void stopEndsTheWalk();
    void stopBeforeTheRunStarts();
    void badRootsYieldNothing_data();
    void badRootsYieldNothing();
    void unreadableFolderIsSkipped();
    void vanishingFolderMidWalk();
    void logLinesAndDriveType();
};

void TestTFileScanner::configIsRead_data()
{
    QTest::addColumn<QJsonObject>("config");
    QTest::addColumn<qint64>("minBytes");
    QTest::addColumn<qint64>("maxBytes");
    QTest::addColumn<QStringList>("only");
    QTest::addColumn<QStringList>("ignore");
    QTest::addColumn<bool>("hidden");

    const qint64 top = std::numeric_limits<qint64>::max();
    QTest::newRow("defaults") << QJsonObject() << qint64(0) << qint64(104857600000) << QStringList()
                              << QStringList() << true;
    QTest::newRow("fractions truncate")
        << QJsonObject{{u"MinFileSize"_s, 0.9}, {u"MaxFileSize"_s, 2.99}} << qint64(0) << qint64(2097152)
        << QStringList() << QStringList() << true;
    QTest::newRow("kib and mib") << QJsonObject{{u"MinFileSize"_s, 3}, {u"MaxFileSize"_s, 1}} << qint64(3072)
                                 << qint64(1048576) << QStringList() << QStringList() << true;
    QTest::newRow("huge saturates") << QJsonObject{{u"MinFileSize"_s, 1e300}, {u"MaxFileSize"_s, 1e18}} << top
                                    << top << QStringList() << QStringList() << true;
    QTest::newRow("strings take defaults")
        << QJsonObject{{u"MinFileSize"_s, u"5"_s},
                       {u"MaxFileSize"_s, u"7"_s},
                       {u"IgnoreSystemHidden"_s, u"no"_s}}
        << qint64(0) << qint64(104857600000) << QStringList() << QStringList() << true;
    QTest::newRow("only list wins at 0")
        << QJsonObject{{u"ScanFileType"_s, 0},
                       {u"OnlyFileType"_s, array({u"jpg"_s})},
                       {u"IgnoreFileType"_s, array({u"txt"_s})},
                       {u"IgnoreSystemHidden"_s, false}}
        << qint64(0) << qint64(104857600000) << QStringList{u"jpg"_s} << QStringList() << false;
    QTest::newRow("ignore list wins above 0")
        << QJsonObject{{u"ScanFileType"_s, 2},
                       {u"OnlyFileType"_s, array({u"jpg"_s})},
                       {u"IgnoreFileType"_s, QJsonArray{u"txt"_s, 5, u"log"_s}}}
        << qint64(0) << qint64(104857600000) << QStringList() << QStringList{u"txt"_s, u"log"_s} << true;
    QTest::newRow("negative type counts as 0")
        << QJsonObject{{u"ScanFileType"_s, -1},
                       {u"OnlyFileType"_s, array({u"png"_s})},
                       {u"IgnoreFileType"_s, array({u"txt"_s})}}
        << qint64(0) << qint64(104857600000) << QStringList{u"png"_s} << QStringList() << true;
}

void TestTFileScanner::configIsRead()
{
    QFETCH(QJsonObject, config);
    TFileScanner scanner;
    scanner.setConfig(config);
    QTEST(scanner.minimumBytes(), "minBytes");
    QTEST(scanner.maximumBytes(), "maxBytes");
    QTEST(scanner.onlyFileTypes(), "only");
    QTEST(scanner.ignoredFileTypes(), "ignore");
    QTEST(scanner.ignoresSystemHidden(), "hidden");
    QCOMPARE(scanner.configuration(), config);
}

void TestTFileScanner::sizeBoundsAreInclusive_data()
{
    QTest::addColumn<QJsonObject>("config");
    QTest::addColumn<QList<qint64>>("sizes");
    QTest::addColumn<QList<qint64>>("kept");

    QTest::newRow("1 KiB to 1 MiB") << QJsonObject{{u"MinFileSize"_s, 1}, {u"MaxFileSize"_s, 1}}
                                    << QList<qint64>{0, 1023, 1024, 1048576, 1048577}
                                    << QList<qint64>{1024, 1048576};
    QTest::newRow("0.9 KiB keeps empty files") << QJsonObject{{u"MinFileSize"_s, 0.9}, {u"MaxFileSize"_s, 1}}
                                               << QList<qint64>{0, 1, 1048577} << QList<qint64>{0, 1};
    QTest::newRow("max 0 keeps only empty")
        << QJsonObject{{u"MaxFileSize"_s, 0}} << QList<qint64>{0, 1, 2} << QList<qint64>{0};
    QTest::newRow("max below min keeps nothing")
        << QJsonObject{{u"MinFileSize"_s, 2048}, {u"MaxFileSize"_s, 1}} << QList<qint64>{0, 1048576, 2097152}
        << QList<qint64>{};
}

void TestTFileScanner::sizeBoundsAreInclusive()
{
    QFETCH(QJsonObject, config);
    QFETCH(QList<qint64>, sizes);
    QFETCH(QList<qint64>, kept);
    QTemporaryDir dir;
    for (qint64 size : sizes)
        makeFile(dir.filePath(u"f%1.bin"_s.arg(size)), size);

    TFileScanner scanner;
    scanner.setConfig(config);
    scanner.setRoots({dir.path()});
    Run run;
    scan(scanner, run);
    QList<qint64> found = run.sizes.values();
    std::sort(found.begin(), found.end());
    QCOMPARE(found, kept);
    for (auto it = run.sizes.cbegin(); it != run.sizes.cend(); ++it)
        QCOMPARE(it.value(), QFileInfo(it.key()).size());
}

void TestTFileScanner::typeFilters_data()
{
    QTest::addColumn<int>("scanFileType");
    QTest::addColumn<QStringList>("only");
    QTest::addColumn<QStringList>("ignore");
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<QStringList>("kept");

    const QStringList files{u"a.jpg"_s, u"photo.JPG"_s, u"b.png"_s, u"noext"_s, u"c.TXT"_s, u"d.tar.gz"_s};
    QTest::newRow("no filter") << 0 << QStringList() << QStringList() << files << sorted(files);
    QTest::newRow("only jpg takes JPG too")
        << 0 << QStringList{u"jpg"_s} << QStringList() << files << QStringList{u"a.jpg"_s, u"photo.JPG"_s};
    QTest::newRow("only upper-case JPG keeps nothing")
        << 0 << QStringList{u"JPG"_s} << QStringList() << files << QStringList();
    QTest::newRow("last suffix counts") << 0 << QStringList{u"gz"_s, u"png"_s} << QStringList() << files
                                        << QStringList{u"b.png"_s, u"d.tar.gz"_s};
    QTest::newRow("empty entry keeps suffixless")
        << 0 << QStringList{QString()} << QStringList() << files << QStringList{u"noext"_s};
    QTest::newRow("ignore txt skips TXT")
        << 1 << QStringList{u"png"_s} << QStringList{u"txt"_s} << files
        << sorted({u"a.jpg"_s, u"photo.JPG"_s, u"b.png"_s, u"noext"_s, u"d.tar.gz"_s});
    QTest::newRow("ignore list unused at 0")
        << 0 << QStringList() << QStringList{u"txt"_s} << files << sorted(files);
    QTest::newRow("non-ascii suffix") << 0 << QStringList{u"ärger"_s} << QStringList()
                                      << QStringList{u"x.ÄRGER"_s, u"y.arger"_s} << QStringList{u"x.ÄRGER"_s};
    const QString longSuffix = QString(40, u'q');
    QTest::newRow("long suffix") << 1 << QStringList() << QStringList{longSuffix}
                                 << QStringList{u"x."_s + longSuffix.toUpper(), u"y.q"_s}
                                 << QStringList{u"y.q"_s};
}

void TestTFileScanner::typeFilters()
{
    QFETCH(int, scanFileType);
    QFETCH(QStringList, only);
    QFETCH(QStringList, ignore);
    QFETCH(QStringList, files);
    QTemporaryDir dir;
    for (const QString &name : files)
        makeFile(dir.filePath(name));

    TFileScanner scanner;
    scanner.setConfig(QJsonObject{{u"ScanFileType"_s, scanFileType},
                                  {u"OnlyFileType"_s, array(only)},
                                  {u"IgnoreFileType"_s, array(ignore)}});
    scanner.setRoots({dir.path()});
    Run run;
    scan(scanner, run);
    QTEST(relative(dir.path(), run.paths), "kept");
}

void TestTFileScanner::ignoredPaths_data()
{
    QTest::addColumn<QStringList>("ignored"); // relative to the root; "." is the root itself
    QTest::addColumn<QStringList>("kept");

    const QStringList all{u"a/one.txt"_s, u"a/sub/two.txt"_s, u"b/three.txt"_s, u"top.txt"_s};
    QTest::newRow("nothing ignored") << QStringList() << all;
    QTest::newRow("folder") << QStringList{u"a"_s} << QStringList{u"b/three.txt"_s, u"top.txt"_s};
    QTest::newRow("folder other case and slash")
        << QStringList{u"A/SUB/"_s} << QStringList{u"a/one.txt"_s, u"b/three.txt"_s, u"top.txt"_s};
    QTest::newRow("file other case") << QStringList{u"B/Three.TXT"_s}
                                     << QStringList{u"a/one.txt"_s, u"a/sub/two.txt"_s, u"top.txt"_s};
    QTest::newRow("prefix is not a match") << QStringList{u"a/on"_s, u"to"_s} << all;
    QTest::newRow("root ignored") << QStringList{u"."_s} << QStringList();
}

void TestTFileScanner::ignoredPaths()
{
    QFETCH(QStringList, ignored);
    QTemporaryDir dir;
    for (const QString &name : {u"a/one.txt"_s, u"a/sub/two.txt"_s, u"b/three.txt"_s, u"top.txt"_s})
        makeFile(dir.filePath(name));
    QJsonArray paths;
    for (const QString &name : ignored)
        paths.append(name == u"."_s ? dir.path() : dir.path() + u'/' + name);

    TFileScanner scanner;
    scanner.setConfig(QJsonObject{{u"IgnorePathFile"_s, paths}});
    scanner.setRoots({dir.path()});
    Run run;
    scan(scanner, run);
    QTEST(relative(dir.path(), run.paths), "kept");
    QCOMPARE(run.finished, 1);
}

void TestTFileScanner::hiddenEntries_data()
{
    QTest::addColumn<bool>("ignoreHidden");
    QTest::addColumn<QStringList>("kept");
    QTest::newRow("skipped") << true << QStringList{u"seen.txt"_s, u"sub/seen.txt"_s};
    QTest::newRow("included") << false
                              << QStringList{u".dot/inner.txt"_s, u".hidden.txt"_s, u"seen.txt"_s,
                                             u"sub/.h"_s, u"sub/seen.txt"_s};
}

void TestTFileScanner::hiddenEntries()
{
    QFETCH(bool, ignoreHidden);
    QTemporaryDir dir;
    for (const QString &name :
         {u"seen.txt"_s, u".hidden.txt"_s, u".dot/inner.txt"_s, u"sub/seen.txt"_s, u"sub/.h"_s})
        makeFile(dir.filePath(name));
    TFileScanner scanner;
    scanner.setConfig(QJsonObject{{u"IgnoreSystemHidden"_s, ignoreHidden}});
    scanner.setRoots({dir.path()});
    Run run;
    scan(scanner, run);
    QTEST(relative(dir.path(), run.paths), "kept");
}

void TestTFileScanner::plainWalkAppliesNoFilters()
{
    QTemporaryDir dir;
    const QStringList names{u".hidden/a.txt"_s, u"big.bin"_s, u"ignored/b.png"_s, u"c.txt"_s};
    for (const QString &name : names)
        makeFile(dir.filePath(name), name == u"big.bin"_s ? 4096 : 0);
    TFileScanner scanner;
    scanner.setScanMode(0);
    scanner.setConfig(QJsonObject{{u"MinFileSize"_s, 1},
                                  {u"MaxFileSize"_s, 0},
                                  {u"OnlyFileType"_s, array({u"jpg"_s})},
                                  {u"IgnorePathFile"_s, array({dir.filePath(u"ignored"_s)})},
                                  {u"IgnoreSystemHidden"_s, true}});
    scanner.setRoots({dir.path()});
    Run run;
    scan(scanner, run);
    QCOMPARE(relative(dir.path(), run.paths), sorted(names));
    QCOMPARE(run.sizes.value(dir.filePath(u"big.bin"_s)), 4096);
}

void TestTFileScanner::unicodeNames()
{
    QTemporaryDir dir;
    const QStringList names{u"Ünïcødé 日本/写真.jpg"_s, u"emoji 😀.txt"_s, u"ελληνικά.PDF"_s};
    for (const QString &name : names)
        makeFile(dir.filePath(name), 7);
    TFileScanner scanner;
    scanner.setRoots({dir.path()});
    Run run;
    scan(scanner, run);
    QCOMPARE(relative(dir.path(), run.paths), sorted(names));
    for (const QString &path : std::as_const(run.paths))
        QVERIFY2(QFileInfo::exists(path), qPrintable(path));
}

void TestTFileScanner::undecodableNameIsSkipped()
{
    QTemporaryDir dir;
    makeFile(dir.filePath(u"good.txt"_s));
    const QByteArray base = QFile::encodeName(dir.path());
    const int fd = ::open(QByteArray(base + "/bad\xff\xfe.txt").constData(), O_CREAT | O_WRONLY, 0644);
    QVERIFY(fd >= 0);
    ::close(fd);
    QVERIFY(::mkdir(QByteArray(base + "/dir\xc3(").constData(), 0755) == 0);
    QVERIFY(::close(::open(QByteArray(base + "/dir\xc3(/inner.txt").constData(), O_CREAT | O_WRONLY, 0644)) ==
            0);

    for (int mode : {0, 1}) {
        TFileScanner scanner;
        scanner.setScanMode(mode);
        scanner.setRoots({dir.path()});
        Run run;
        scan(scanner, run);
        QCOMPARE(relative(dir.path(), run.paths), QStringList{u"good.txt"_s});
        QCOMPARE(run.finished, 1);
    }
}

void TestTFileScanner::linksReportEachFileOnce_data()
{
    // Layout commands: "f path", "d path", "s link target" (symbolic), "h link existing" (hard);
    // "@" in a target stands for the folder that holds the root.
    QTest::addColumn<QStringList>("layout");
    QTest::addColumn<QStringList>("roots");
    QTest::addColumn<int>("files"); // physical files that must each be reported exactly once

    QTest::newRow("symlink to file") << QStringList{u"f r/a.txt"_s, u"s r/link.txt a.txt"_s}
                                     << QStringList{u"r"_s} << 1;
    QTest::newRow("hard links") << QStringList{u"f r/a.txt"_s, u"h r/b.txt r/a.txt"_s,
                                               u"h r/sub/c.txt r/a.txt"_s, u"f r/other.txt"_s}
                                << QStringList{u"r"_s} << 2;
    QTest::newRow("loop to ancestor")
        << QStringList{u"f r/a.txt"_s, u"f r/x/y/b.txt"_s, u"s r/x/y/up ../.."_s} << QStringList{u"r"_s} << 2;
    QTest::newRow("loop to itself") << QStringList{u"f r/a.txt"_s, u"s r/self ."_s} << QStringList{u"r"_s}
                                    << 1;
    QTest::newRow("folder reached twice")
        << QStringList{u"f r/a/real/1.txt"_s, u"f r/a/real/2.txt"_s, u"s r/b/link ../a/real"_s}
        << QStringList{u"r"_s} << 2;
    QTest::newRow("link to outside folder is followed")
        << QStringList{u"f out/o.txt"_s, u"f r/a.txt"_s, u"s r/ext @/out"_s} << QStringList{u"r"_s} << 2;
    QTest::newRow("dangling link") << QStringList{u"f r/a.txt"_s, u"s r/gone.txt missing.txt"_s}
                                   << QStringList{u"r"_s} << 1;
    QTest::newRow("overlapping roots") << QStringList{u"f r/a.txt"_s, u"f r/sub/b.txt"_s}
                                       << QStringList{u"r/sub"_s, u"r"_s, u"r/sub"_s} << 2;
    QTest::newRow("root through a link")
        << QStringList{u"f r/a.txt"_s, u"s alias r"_s} << QStringList{u"r"_s, u"alias"_s} << 1;
}

void TestTFileScanner::linksReportEachFileOnce()
{
    QFETCH(QStringList, layout);
    QFETCH(QStringList, roots);
    QFETCH(int, files);
    QTemporaryDir dir;
    for (const QString &command : layout) {
        const QStringList part = command.split(u' ');
        const QString path = dir.filePath(part.at(1));
        QDir().mkpath(QFileInfo(path).path());
        if (part.at(0) == u"f"_s) {
            makeFile(path, 3);
        } else if (part.at(0) == u"s"_s) {
            QString target = part.at(2);
            target.replace(u"@"_s, dir.path());
            QVERIFY(::symlink(QFile::encodeName(target).constData(), QFile::encodeName(path).constData()) ==
                    0);
        } else if (part.at(0) == u"h"_s) {
            QVERIFY(::link(QFile::encodeName(dir.filePath(part.at(2))).constData(),
                           QFile::encodeName(path).constData()) == 0);
        }
    }
    QStringList absoluteRoots;
    for (const QString &root : roots)
        absoluteRoots.append(dir.filePath(root));

    for (int variant = 0; variant < 4; ++variant) {
        const int mode = variant % 2;
        TFileScanner scanner;
        scanner.setScanMode(mode);
        scanner.setRoots(absoluteRoots);
        Run run;
        scan(scanner, run, {}, variant >= 2);
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

void TestTFileScanner::progress_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QList<int>>("perRoot"); // files in each root
    QTest::addColumn<QList<int>>("expected");
    QTest::newRow("parallel 99") << 1 << QList<int>{99} << QList<int>{99};
    QTest::newRow("parallel 100") << 1 << QList<int>{100} << QList<int>{100, 100};
    QTest::newRow("parallel 250") << 1 << QList<int>{250} << QList<int>{100, 200, 250};
    QTest::newRow("parallel counts per root") << 1 << QList<int>{150, 120} << QList<int>{100, 150, 100, 120};
    QTest::newRow("parallel empty root") << 1 << QList<int>{0} << QList<int>{0};
    QTest::newRow("plain 250") << 0 << QList<int>{250} << QList<int>{100, 200};
    QTest::newRow("plain counts across roots") << 0 << QList<int>{150, 120} << QList<int>{100, 200};
}

void TestTFileScanner::progress()
{
    QFETCH(int, mode);
    QFETCH(QList<int>, perRoot);
    QFETCH(QList<int>, expected);
    QTemporaryDir dir;
    QStringList roots;
    for (int r = 0; r < perRoot.size(); ++r) {
        const QString root = dir.filePath(u"root%1"_s.arg(r));
        QDir().mkpath(root);
        roots.append(root);
        for (int i = 0; i < perRoot.at(r); ++i)
            makeFile(root + u"/d%1/f%2"_s.arg(i % 7).arg(i));
    }
    TFileScanner scanner;
    scanner.setScanMode(mode);
    scanner.setRoots(roots);
    Run run;
    scan(scanner, run);
    // Pool threads may signal their multiples of 100 in either order; the final count of
    // a root comes after all of them.
    QList<int> got = run.progress;
    if (mode == 1 && perRoot.size() == 1 && got.size() > 1)
        std::sort(got.begin(), got.end() - 1);
    QCOMPARE(got, expected);
}

void TestTFileScanner::stopEndsTheWalk_data()
{
    QTest::addColumn<int>("mode");
    QTest::newRow("plain") << 0;
    QTest::newRow("parallel") << 1;
}

void TestTFileScanner::stopEndsTheWalk()
{
    QFETCH(int, mode);
    QTemporaryDir dir;
    const int total = 3000;
    for (int i = 0; i < total; ++i)
        makeFile(dir.filePath(u"d%1/e%2/f%3"_s.arg(i % 10).arg(i % 30).arg(i)));
    TFileScanner scanner;
    scanner.setScanMode(mode);
    scanner.setRoots({dir.path(), dir.path() + u"/d1"_s});
    Run run;
    scan(scanner, run, [&](const QString &) { scanner.stop(); });
    QCOMPARE(run.finished, 1);
    QVERIFY(!run.paths.isEmpty());
    // Each worker may finish the entry it was on, nothing more.
    QVERIFY2(run.paths.size() <= QThread::idealThreadCount() + 1,
             qPrintable(QString::number(run.paths.size())));

    // A later run starts afresh.
    Run again;
    scan(scanner, again);
    QCOMPARE(again.paths.size(), total);
}

void TestTFileScanner::stopBeforeTheRunStarts()
{
    QTemporaryDir dir;
    makeFile(dir.filePath(u"a.txt"_s));
    TFileScanner scanner;
    scanner.setRoots({dir.path()});
    scanner.stop();
    Run run;
    scan(scanner, run);
    QCOMPARE(run.paths.size(), 0);
    QCOMPARE(run.finished, 1);
}

void TestTFileScanner::badRootsYieldNothing_data()
{
    QTest::addColumn<QString>("root");
    QTest::newRow("missing") << u"missing/folder"_s;
    QTest::newRow("a file") << u"file.txt"_s;
    QTest::newRow("empty") << QString();
    QTest::newRow("blank") << u"   "_s;
}

void TestTFileScanner::badRootsYieldNothing()
{
    QFETCH(QString, root);
    QTemporaryDir dir;
    makeFile(dir.filePath(u"file.txt"_s));
    for (int mode : {0, 1}) {
        TFileScanner scanner;
        scanner.setScanMode(mode);
        scanner.setRoots({root.trimmed().isEmpty() ? root : dir.filePath(root), dir.filePath(u"x"_s)});
        Run run;
        scan(scanner, run);
        QCOMPARE(run.paths.size(), 0);
        QCOMPARE(run.finished, 1);
    }
}

void TestTFileScanner::unreadableFolderIsSkipped()
{
    if (::geteuid() == 0)
        QSKIP("root reads folders whatever their mode");
    QTemporaryDir dir;
    makeFile(dir.filePath(u"open/a.txt"_s));
    makeFile(dir.filePath(u"closed/b.txt"_s));
    QVERIFY(QFile::setPermissions(dir.filePath(u"closed"_s), QFileDevice::Permissions()));
    for (int mode : {0, 1}) {
        TFileScanner scanner;
        scanner.setScanMode(mode);
        scanner.setRoots({dir.path()});
        Run run;
        scan(scanner, run);
        QCOMPARE(relative(dir.path(), run.paths), QStringList{u"open/a.txt"_s});
    }
    QFile::setPermissions(dir.filePath(u"closed"_s),
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
}

void TestTFileScanner::vanishingFolderMidWalk()
{
    QTemporaryDir dir;
    QStringList kept;
    for (int i = 0; i < 40; ++i) {
        makeFile(dir.filePath(u"victim/v%1/f.txt"_s.arg(i)));
        makeFile(dir.filePath(u"keep/k%1.txt"_s.arg(i)));
        kept.append(u"keep/k%1.txt"_s.arg(i));
    }
    TFileScanner scanner;
    scanner.setRoots({dir.path()});
    Run run;
    std::mutex once;
    bool removed = false;
    scan(scanner, run, [&](const QString &) {
        std::lock_guard locker(once);
        if (!removed)
            removed = QDir(dir.filePath(u"victim"_s)).removeRecursively();
    });
    QVERIFY(removed);
    QCOMPARE(run.finished, 1);
    QStringList got = relative(dir.path(), run.paths);
    got.removeIf([](const QString &path) { return path.startsWith(u"victim/"_s); });
    QCOMPARE(got, sorted(kept));
}

void TestTFileScanner::logLinesAndDriveType()
{
    QTemporaryDir logs;
    QVERIFY(initLogger(logs.path()));
    QTemporaryDir dir;
    makeFile(dir.filePath(u"a.txt"_s));
    const qint32 drive = TFileScanner::driveTypeOf(dir.path());
    QVERIFY(drive >= DriveType::SolidState && drive <= DriveType::Unknown);
    for (int mode : {0, 1}) {
        TFileScanner scanner;
        scanner.setScanMode(mode);
        scanner.setRoots({dir.path()});
        Run run;
        scan(scanner, run);
        QCOMPARE(run.driveTypes, QList<int>{drive});
    }
    TLogger::flush();
    QFile log(TLogger::logDir(logs.path()) + u'/' + TLogger::todaysFileName());
    QVERIFY(log.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(log.readAll());
    TLogger::shutdown();
    QVERIFY(text.contains(
        u"[TFileScanner]: scanWithQtRecursive: [%1]. driveType: [%2]."_s.arg(dir.path()).arg(drive)));
    QVERIFY(text.contains(
        u"[TFileScanner]: scanIncrementalParallel: %1. driveType:[%2]."_s.arg(dir.path()).arg(drive)));
}

TWINFOLD_TEST_MAIN(TestTFileScanner)
#include "tst_tfilescanner.moc"
