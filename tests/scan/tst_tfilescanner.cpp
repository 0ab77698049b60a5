#include "TestMain.h"

#include "scan/TFileScanner.h"

#include <mutex>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {
// One scanner run to its end with everything it reported. Signals come from pool threads,
// so the record is locked (with a standard mutex, which the race checker can follow).
// onFile is called, locked, after each report. With a batch receiver connected as well,
// fileFound must stay silent or files show twice.
struct Run
{
    std::mutex mutex;
    QList<FileMeta> files;
    QList<int> progress;
    int finished = 0;
    std::function<void(TFileScanner &)> onFile;
    TFileScanner scanner;

    Run(const QStringList &roots, int mode, const QJsonObject &config = {}, bool batched = false,
        std::function<void(TFileScanner &)> each = {})
        : onFile(std::move(each))
    {
        scanner.setScanMode(mode);
        scanner.setConfig(config);
        scanner.setRoots(roots);
        const auto record = [this](const QList<FileMeta> &found) {
            locked([&] { files.append(found), onFile ? onFile(scanner) : void(); });
        };
        const auto on = [this](auto signal, auto slot) {
            QObject::connect(&scanner, signal, &scanner, slot, Qt::DirectConnection);
        };
        on(&TFileScanner::fileFound, [record](qint64 size, const QString &path, int drive) {
            record({{size, path.toUtf8(), drive}});
        });
        if (batched)
            on(&TFileScanner::filesFound, record);
        on(&TFileScanner::progressUpdated, [this](int count) { locked([&] { progress.append(count); }); });
        on(&TFileScanner::scanFinished, [this] { locked([&] { ++finished; }); });
        go();
    }
    void go()
    {
        scanner.start();
        scanner.wait();
        locked([] {}); // orders the scanner thread's last slot call before the results are read
    }
    void locked(const std::function<void()> &step)
    {
        std::lock_guard locker(mutex);
        step();
    }
};

void makeFile(const QString &path, qint64 size = 1)
{
    QFile file(path);
    QVERIFY2(QDir().mkpath(QFileInfo(path).path()) && file.open(QIODevice::WriteOnly) && file.resize(size),
             qPrintable(path));
}

} // namespace

class TestTFileScanner : public QObject
{
    Q_OBJECT
private slots:
    // Each row is a tree of files and links, with the settings of the filtered walk and the
    // files it must report, each exactly once, under whatever name. The plain walk reports
    // every file whatever the settings. Layout entries: "name" a file (a name that is a
    // number is also its size in bytes), "name->target" a symbolic link, "name=existing" a
    // hard link. "@" stands for the folder that holds the tree, which is the root unless
    // the row names roots, in order.
    void walks_data()
    {
        QTest::addColumn<QByteArray>("config");
        QTest::addColumn<QString>("layout");
        QTest::addColumn<QString>("kept");
        QTest::addColumn<QString>("roots");
        const auto row = [](const char *name, const char *config, const char *layout, const char *kept,
                            const char *roots = "@") {
            QTest::newRow(name) << QByteArray(config) << QString::fromUtf8(layout) << QString::fromUtf8(kept)
                                << QString::fromUtf8(roots);
        };
        const char *sizes = "0,1,1023,1024,1048576,1048577";
        row("sizes: bounds inclusive", R"({"MinFileSize":1,"MaxFileSize":1})", sizes, "1024,1048576");
        // 0.9 KiB truncates to no lower bound; a maximum of 0 is a bound, not "no limit".
        row("sizes: fraction, max 0", R"({"MinFileSize":0.9,"MaxFileSize":0})", sizes, "0");
        // Suffixes are lower-cased (ASCII and not), taken after the last dot, empty without
        // one; the list itself is not, and the ignore list is unused unless ScanFileType > 0.
        const char *types = "a.jpg,photo.JPG,b.png,noext,c.TXT,d.tar.gz,x.ÄRGER,y.arger";
        row("types: only", R"({"OnlyFileType":["jpg","gz","","ärger"],"IgnoreFileType":["jpg"]})", types,
            "a.jpg,photo.JPG,d.tar.gz,noext,x.ÄRGER");
        row("types: only JPG keeps nothing", R"({"OnlyFileType":["JPG"]})", types, "");
        row("types: ignore", R"({"ScanFileType":1,"OnlyFileType":["png"],"IgnoreFileType":["txt"]})", types,
            "a.jpg,photo.JPG,b.png,noext,d.tar.gz,x.ÄRGER,y.arger");
        // A folder and a file, in other case and with a trailing slash; a mere prefix is no match.
        const char *tree = "a/one.txt,a/sub/two.txt,b/three.txt,top.txt";
        row("paths", R"({"IgnorePathFile":["@/A/SUB/","@/B/Three.TXT","@/a/on","@/to"]})", tree,
            "a/one.txt,top.txt");
        row("paths: root", R"({"IgnorePathFile":["@"]})", tree, "");
        const char *hidden =
            ".hidden.txt,.dot/inner.txt,sub/.h,sub/seen.txt,Ünïcødé 日本/写真.jpg,emoji 😀.txt,ελληνικά.PDF";
        row("hidden skipped, unicode kept", "{}", hidden,
            "sub/seen.txt,Ünïcødé 日本/写真.jpg,emoji 😀.txt,ελληνικά.PDF");
        row("hidden included", R"({"IgnoreSystemHidden":false})", hidden, hidden);
        row("file links: symbolic, hard, dangling", "{}",
            "r/a.txt,r/link.txt->a.txt,r/h.txt,r/h2.txt=r/h.txt,r/sub/h3.txt=r/h.txt,r/gone.txt->missing.txt",
            "r/a.txt,r/h.txt", "@/r");
        row("folder links: loop, reached twice, outside", "{}",
            "r/x/y/b.txt,r/x/y/up->../..,r/a/real/1.txt,r/b/link->../a/real,out/o.txt,r/ext->@/out",
            "out/o.txt,r/a/real/1.txt,r/x/y/b.txt", "@/r");
        row("roots: inner first, repeated, through a link", "{}", "r/a.txt,r/sub/b.txt,alias->r",
            "r/a.txt,r/sub/b.txt", "@/r/sub,@/r,@/r/sub,@/alias");
        // Roots that are missing, a file, empty or blank are passed over.
        row("bad roots", "{}", "good/a.txt", "good/a.txt", "@/missing/folder,@/good/a.txt,,  ,@/good");
    }
    void walks()
    {
        QFETCH(QByteArray, config);
        QFETCH(QString, layout);
        QFETCH(QString, kept);
        QFETCH(QString, roots);
        QTemporaryDir dir;
        QHash<QPair<quint64, quint64>, QString> made; // file identity -> name
        const auto identity = [](const QString &path) {
            struct stat st = {};
            ::stat(QFile::encodeName(path).constData(), &st);
            return QPair<quint64, quint64>(st.st_dev, st.st_ino);
        };
        for (const QString &entry : layout.replace(u'@', dir.path()).split(u',')) {
            const QStringList part = entry.split(QRegularExpression(u"->|="_s));
            const QString path = dir.filePath(part.at(0));
            if (part.size() == 1)
                makeFile(path, entry.front().isDigit() ? entry.toLongLong() : 1),
                    made.insert(identity(path), entry);
            else
                QVERIFY(QDir().mkpath(QFileInfo(path).path()) &&
                        (entry.contains(u"->"_s)
                             ? QFile::link(part.at(1), path)
                             : ::link(QFile::encodeName(dir.filePath(part.at(1))).constData(),
                                      QFile::encodeName(path).constData()) == 0));
        }
        config.replace('@', QFile::encodeName(dir.path()));
        const qint32 drive = TFileScanner::driveTypeOf(dir.path());
        // Both walks, each with the per-file and the batched receiver.
        for (int variant = 0; variant < 4; ++variant) {
            Run run(roots.replace(u'@', dir.path()).split(u','), variant % 2,
                    QJsonDocument::fromJson(config).object(), variant >= 2);
            QCOMPARE(run.finished, 1);
            QStringList reported;
            for (const FileMeta &file : std::as_const(run.files)) {
                reported.append(made.value(identity(file.path()), file.path()));
                QVERIFY2(file.size == QFileInfo(file.path()).size() && file.driveType == drive,
                         file.filePath.constData());
            }
            QStringList want = variant % 2 ? kept.split(u',', Qt::SkipEmptyParts) : made.values();
            reported.sort(), want.sort();
            QCOMPARE(reported, want);
        }
    }

    // The parallel walk counts each root from 0 and ends it with its own total, even 0; the
    // plain walk counts across roots and sends no totals.
    void progress()
    {
        QTemporaryDir dir;
        QStringList roots;
        for (int files : {250, 100, 99, 0}) {
            roots.append(dir.filePath(QString::number(files)));
            QDir().mkpath(roots.last());
            for (int i = 0; i < files; ++i)
                makeFile(roots.last() + u"/d%1/f%2"_s.arg(i % 7).arg(i));
        }
        Run parallel(roots, 1), plain(roots, 0);
        // Pool threads may send 100 and 200 in either order; a root's total comes after them.
        std::sort(parallel.progress.begin(), parallel.progress.begin() + 2);
        QCOMPARE(parallel.progress, (QList<int>{100, 200, 250, 100, 100, 99, 0}));
        QCOMPARE(plain.progress, (QList<int>{100, 200, 300, 400}));
    }

    // Stopped at its first file, a walk ends with what its workers were on. Run again, it
    // starts afresh and goes on past damage: a folder removed while the walk is in it costs
    // only its own files; a folder that cannot be read and a name that is not valid UTF-8
    // are passed over.
    void damagedWalks()
    {
        QTemporaryDir dir;
        QStringList kept;
        for (int i = 0; i < 3000; ++i) {
            kept.append(u"d%1/e%2/f%3"_s.arg(i % 10).arg(i % 30).arg(i, 4, 10, QChar(u'0')));
            makeFile(dir.filePath(kept.last()));
        }
        makeFile(dir.filePath(u"closed/b.txt"_s));
        if (::geteuid() == 0) // whoever runs as root reads the closed folder all the same
            kept.append(u"closed/b.txt"_s);
        kept.sort();
        const QByteArray closed = QFile::encodeName(dir.filePath(u"closed"_s)),
                         bad = QFile::encodeName(dir.path()) + "/bad\xff\xfe.txt";
        QVERIFY(::chmod(closed.constData(), 0) == 0 &&
                ::close(::open(bad.constData(), O_CREAT | O_WRONLY, 0644)) == 0);
        for (int mode : {0, 1}) {
            for (int i = 0; i < 40; ++i)
                makeFile(dir.filePath(u"victim/v%1/f.txt"_s.arg(i)));
            Run run({dir.path(), dir.path() + u"/d1"_s}, mode, {}, false, [](TFileScanner &s) { s.stop(); });
            // Each worker may finish the entry it was on, nothing more.
            QVERIFY2(!run.files.isEmpty() && run.files.size() <= QThread::idealThreadCount() + 1,
                     qPrintable(QString::number(mode)));
            bool removed = false;
            run.files.clear(), run.onFile = [&](TFileScanner &) {
                removed = removed || QDir(dir.filePath(u"victim"_s)).removeRecursively();
            };
            run.go();
            QVERIFY(removed);
            QCOMPARE(run.finished, 2);
            QStringList got;
            for (const FileMeta &file : std::as_const(run.files)) {
                if (!file.path().contains(u"/victim/"_s))
                    got.append(file.path().mid(dir.path().size() + 1));
            }
            got.sort();
            QCOMPARE(got, kept);
        }
        // The temporary folder cannot remove what it cannot name, nor enter what is closed.
        QVERIFY(::chmod(closed.constData(), 0700) == 0 && ::unlink(bad.constData()) == 0);
    }
};

TWINFOLD_TEST_MAIN(TestTFileScanner)
#include "tst_tfilescanner.moc"
