#include "TestMain.h"

#include "CliTree.h"

#include <QDir>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <csignal>

using namespace Qt::StringLiterals;

// Drives the real twinfold-cli binary, as scripts do.
class TestCli : public QObject
{
    Q_OBJECT

    struct Run
    {
        int status = -1;
        QString out, err;
    };
    std::unique_ptr<QTemporaryDir> home, data;

    QString write(const QString &relative, const QByteArray &bytes) const
    {
        return CliTree(data->path()).write(relative, bytes);
    }
    // The child must use neither the user's preferences nor their log.
    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(u"XDG_CONFIG_HOME"_s, home->filePath(u"config"_s));
        env.insert(u"HOME"_s, home->path());
        env.insert(u"TWINFOLD_SENTRY_DSN"_s, QString());
        return env;
    }
    Run run(const QStringList &args) const
    {
        QProcess p;
        p.setProcessEnvironment(environment());
        p.start(QStringLiteral(TWINFOLD_CLI_PATH), args);
        if (!p.waitForFinished(120000)) {
            p.kill();
            p.waitForFinished();
        }
        return {p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1,
                QString::fromUtf8(p.readAllStandardOutput()), QString::fromUtf8(p.readAllStandardError())};
    }
    // The groups of the text output, each sorted, in order.
    static QList<QStringList> textGroups(const QString &out)
    {
        QList<QStringList> groups;
        for (const QString &block : out.split(u"\n\n"_s, Qt::SkipEmptyParts)) {
            QStringList members = block.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
            members.sort();
            if (!members.isEmpty())
                groups.append(members);
        }
        std::sort(groups.begin(), groups.end());
        return groups;
    }
    static QJsonArray jsonGroups(const Run &r)
    {
        return QJsonDocument::fromJson(r.out.toUtf8()).object().value(u"groups"_s).toArray();
    }
    // Scans the test tree, keeping the file with the shortest name of each group, into a project.
    QString savedProject() const
    {
        const QString project = home->filePath(u"p.dupproj"_s);
        const Run r = run({u"scan"_s, u"--select"_s, u"filename"_s, u"--save"_s, project, data->path()});
        return r.status == 0 ? project : QString();
    }

private slots:
    void init()
    {
        home = std::make_unique<QTemporaryDir>();
        data = std::make_unique<QTemporaryDir>();
        QVERIFY(home->isValid() && data->isValid());
    }

    // Arguments as one space-separated text, and a word the one-line error must mention.
    void usageErrors_data()
    {
        QTest::addColumn<QString>("args");
        QTest::addColumn<QString>("mentions");
        const auto row = [](const char *tag, const char *args, const char *mentions) {
            QTest::newRow(tag) << QString::fromUtf8(args) << QString::fromUtf8(mentions);
        };
        row("no command", "", "command");
        row("unknown command", "frobnicate", "frobnicate");
        row("unknown option", "scan --bogus .", "bogus");
        row("no folder", "scan", "folder");
        row("missing folder", "scan /no/such/place", "/no/such/place");
        row("bad method", "scan --method fast .", "fast");
        row("bad format", "scan --format xml .", "xml");
        row("bad size", "scan --min-size -3 .", "min-size");
        row("bad rule", "scan --select best .", "best");
        row("only with ignore", "scan --only jpg --ignore-ext png .", "--only");
        row("similar twice", "scan --similar --no-similar .", "--no-similar");
        row("bad algorithm", "scan --algorithm sift .", "sift");
        row("similarity 0", "scan --similarity 0 .", "similarity");
        row("similarity 101", "scan --similarity 101 .", "similarity");
        row("features both", "scan --features 50 --no-features .", "--features");
        row("aspect 11", "scan --aspect 11 .", "--aspect");
        row("aspect both", "scan --aspect 2 --any-aspect .", "--aspect");
        row("bad similar rule", "scan --similar-select prettiest .", "prettiest");
        row("missing preferences", "scan --preferences /no/prefs.cfg .", "/no/prefs.cfg");
    }
    void usageErrors()
    {
        QFETCH(QString, args);
        QFETCH(QString, mentions);
        const Run r = run(args.split(u' ', Qt::SkipEmptyParts));
        QCOMPARE(r.status, 2);
        QVERIFY2(r.err.contains(mentions), qPrintable(r.err));
        QVERIFY2(r.err.trimmed().count(QLatin1Char('\n')) == 0, "a usage error is one line");
        QVERIFY(r.out.isEmpty());
    }

    void helpAndVersion()
    {
        Run r = run({u"--help"_s});
        QVERIFY(r.status == 0 && r.out.contains(u"scan"_s) && r.out.contains(u"delete"_s));
        r = run({u"--version"_s});
        QCOMPARE(r.status, 0);
        QCOMPARE(r.out.trimmed(), u"twinfold-cli 4.0.0"_s);
        r = run({u"scan"_s, u"--help"_s});
        QVERIFY(r.status == 0 && r.out.contains(u"--method"_s));
    }

    void contentMatchesByteComparison_data()
    {
        QTest::addColumn<quint32>("seed");
        for (quint32 seed : {1u, 2u, 3u, 4u})
            QTest::addRow("seed %u", seed) << seed;
    }
    void contentMatchesByteComparison()
    {
        QFETCH(quint32, seed);
        CliTree tree(data->path());
        tree.random(seed, 120);
        const Run r = run({u"scan"_s, u"--method"_s, u"content"_s, data->path()});
        QCOMPARE(r.status, 0);
        QCOMPARE(textGroups(r.out), tree.byteGroups());
    }

    void filters_data()
    {
        QTest::addColumn<QString>("options");
        QTest::addColumn<QString>("expected"); // file names of the one expected group
        const auto row = [](const char *tag, const char *options, const char *expected) {
            QTest::newRow(tag) << QString::fromUtf8(options) << QString::fromUtf8(expected);
        };
        row("none", "", "a.JPG b.jpg");
        row("only jpg matches upper case", "--only JPG", "a.JPG b.jpg");
        row("ignore jpg", "--ignore-ext .jpg", "");
        row("min size inclusive", "--min-size 2", "a.JPG b.jpg");
        row("min size above", "--min-size 3", "");
        row("include hidden", "--include-hidden", ".c.jpg a.JPG b.jpg");
    }
    void filters()
    {
        QFETCH(QString, options);
        QFETCH(QString, expected);
        const QByteArray twoKiB(2048, 'x');
        write(u"x/a.JPG"_s, twoKiB);
        write(u"y/b.jpg"_s, twoKiB);
        write(u"y/.c.jpg"_s, twoKiB);
        write(u"z/d.txt"_s, QByteArray(2048, 'y'));
        const Run r =
            run(QStringList{u"scan"_s} + options.split(u' ', Qt::SkipEmptyParts) + QStringList{data->path()});
        QCOMPARE(r.status, 0);
        QStringList groups;
        for (const QStringList &group : textGroups(r.out)) {
            QStringList names;
            for (const QString &path : group)
                names.append(QFileInfo(path).fileName());
            names.sort();
            groups.append(names.join(u' '));
        }
        QCOMPARE(groups, expected.isEmpty() ? QStringList() : QStringList{expected});
    }

    void jsonAndCsv()
    {
        const QString a = write(u"a/one, \"quoted\".txt"_s, "same bytes");
        const QString b = write(u"b/ünïcode.txt"_s, "same bytes");
        Run r = run({u"scan"_s, u"--format"_s, u"json"_s, u"--select"_s, u"all"_s, data->path()});
        QCOMPARE(r.status, 0);
        QJsonParseError error;
        const QJsonObject root = QJsonDocument::fromJson(r.out.toUtf8(), &error).object();
        QCOMPARE(error.error, QJsonParseError::NoError);
        QCOMPARE(root.value(u"version"_s).toString(), u"4.0.0"_s);
        QCOMPARE(root.value(u"scannedFiles"_s).toInt(), 2);
        QVERIFY(r.out.indexOf(u"\"version\""_s) < r.out.indexOf(u"\"scannedFiles\""_s));
        const QJsonArray groups = root.value(u"groups"_s).toArray();
        QCOMPARE(groups.size(), 1);
        const QJsonObject group = groups.at(0).toObject();
        QCOMPARE(group.value(u"kind"_s).toString(), u"files"_s);
        QCOMPARE(group.value(u"key"_s).toString().size(), 32);
        QSet<QString> paths;
        for (const QJsonValue &m : group.value(u"members"_s).toArray()) {
            paths.insert(m.toObject().value(u"path"_s).toString());
            QCOMPARE(m.toObject().value(u"size"_s).toInt(), 10);
            QVERIFY(m.toObject().value(u"selected"_s).toBool());
        }
        QCOMPARE(paths, (QSet<QString>{a, b}));

        r = run({u"scan"_s, u"--format"_s, u"csv"_s, data->path()});
        QCOMPARE(r.status, 0);
        QVERIFY2(r.out.contains(u"\""_s + QString(a).replace(u"\""_s, u"\"\""_s) + u"\""_s),
                 qPrintable(r.out));
        QCOMPARE(r.out.count(u"\r\n"_s), 3); // header and two members
    }

    void similarImages()
    {
        // Two scenes, each saved at two sizes, plus an exact copy of one picture: the copy
        // group is absorbed into its scene's similar group.
        const auto scene = [](int w, int h, bool blocks) {
            QImage image(w, h, QImage::Format_RGB32);
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x) {
                    // A smooth gradient, or a fixed pattern of 8 x 8 blocks.
                    const int v = blocks ? ((x * 8 / w) * 8 + y * 8 / h) * 97 % 256 : x * 255 / w;
                    image.setPixel(x, y, qRgb(v, blocks ? 255 - v : y * 255 / h, 255 - v));
                }
            return image;
        };
        QVERIFY(QDir().mkpath(data->filePath(u"p"_s)));
        const QString a = data->filePath(u"p/a.png"_s), aSmall = data->filePath(u"p/a_small.png"_s);
        const QString b = data->filePath(u"p/b.png"_s), bSmall = data->filePath(u"p/b_small.png"_s);
        const QString aCopy = data->filePath(u"p/a_copy.png"_s);
        QVERIFY(scene(400, 300, false).save(a) && scene(200, 150, false).save(aSmall));
        QVERIFY(scene(400, 300, true).save(b) && scene(200, 150, true).save(bSmall));
        QVERIFY(QFile::copy(a, aCopy));

        const QStringList common =
            u"scan --format json --algorithm phash --similarity 90 --no-features"_s.split(u' ');
        Run r = run(common + QStringList{u"--similar"_s, data->path()});
        QCOMPARE(r.status, 0);
        QList<QSet<QString>> similar;
        for (const QJsonValue &g : jsonGroups(r)) {
            QVERIFY2(g.toObject().value(u"kind"_s).toString() == u"similar"_s, qPrintable(r.out));
            QSet<QString> members;
            for (const QJsonValue &m : g.toObject().value(u"members"_s).toArray()) {
                members.insert(m.toObject().value(u"path"_s).toString());
                const QJsonValue percent = m.toObject().value(u"similarity"_s);
                QVERIFY(percent.isUndefined() || (percent.toInt() >= 1 && percent.toInt() <= 100));
            }
            similar.append(members);
        }
        std::sort(similar.begin(), similar.end(),
                  [](const auto &x, const auto &y) { return x.size() > y.size(); });
        QCOMPARE(similar, (QList<QSet<QString>>{{a, aCopy, aSmall}, {b, bSmall}}));

        r = run(common + QStringList{u"--no-similar"_s, data->path()});
        QCOMPARE(r.status, 0);
        QVERIFY2(!r.out.contains(u"\"similar\""_s) && r.out.contains(u"\"files\""_s), qPrintable(r.out));
    }

    void duplicateFolders()
    {
        for (const QString &folder : {u"left"_s, u"right"_s}) {
            write(folder + u"/1.txt"_s, "first file");
            write(folder + u"/2.txt"_s, "second file");
        }
        write(u"other/1.txt"_s, "first file");
        const Run r = run({u"scan"_s, u"--folders"_s, u"--format"_s, u"json"_s, data->path()});
        QCOMPARE(r.status, 0);
        QStringList kinds;
        for (const QJsonValue &g : jsonGroups(r))
            kinds.append(g.toObject().value(u"kind"_s).toString());
        // The folder pair is offered once as folders; its file groups, including the copy
        // outside the pair, go with it.
        QCOMPARE(kinds, QStringList{u"folders"_s});
    }

    void preferencesFileSuppliesDefaults()
    {
        write(u"a/x.txt"_s, "content one");
        write(u"b/x.txt"_s, "content two");
        const QByteArray before = "[Duplicate_files]\nscanMethod=1\n";
        const QString prefs = CliTree(home->path()).write(u"prefs.cfg"_s, before);
        Run r = run({u"scan"_s, u"--preferences"_s, prefs, data->path()});
        QCOMPARE(r.status, 0);
        QCOMPARE(textGroups(r.out).size(), 1); // by name and size
        r = run({u"scan"_s, u"--preferences"_s, prefs, u"--method"_s, u"content"_s, data->path()});
        QCOMPARE(textGroups(r.out).size(), 0);
        QFile f(prefs);
        QVERIFY(f.open(QIODevice::ReadOnly));
        QCOMPARE(f.readAll(), before); // options never reach the file
    }

    void interruptPrintsPartialResult()
    {
        const QByteArray block(64 * 1024, 'z');
        for (int i = 0; i < 3000; ++i)
            write(u"d%1/f%2"_s.arg(i % 50).arg(i), block + QByteArray::number(i % 1500));
        QProcess p;
        p.setProcessEnvironment(environment());
        p.start(QStringLiteral(TWINFOLD_CLI_PATH), {u"scan"_s, u"--method"_s, u"content"_s, data->path()});
        QVERIFY(p.waitForStarted());
        // Wait until the scan has begun (its log says so), then interrupt it. The clock is a
        // deadline for a stuck child, not a measurement.
        const QString logDir = home->filePath(u"config/Orvant/Twinfold/Log"_s);
        QElapsedTimer clock;
        clock.start();
        bool started = false;
        while (!started && clock.elapsed() < 30000 && p.state() == QProcess::Running) {
            for (const QFileInfo &log : QDir(logDir).entryInfoList({u"*.log"_s}, QDir::Files)) {
                QFile f(log.absoluteFilePath());
                started = started || (f.open(QIODevice::ReadOnly) && f.readAll().contains("Start Scan"));
            }
            QThread::msleep(2);
        }
        QVERIFY(started);
        ::kill(pid_t(p.processId()), SIGINT);
        QVERIFY(p.waitForFinished(60000));
        QCOMPARE(p.exitStatus(), QProcess::NormalExit);
        if (p.exitCode() == 0)
            QSKIP("the scan finished before the interrupt arrived");
        QCOMPARE(p.exitCode(), 1);
        const QString err = QString::fromUtf8(p.readAllStandardError());
        QVERIFY2(err.contains(u"interrupted"_s), qPrintable(err));
    }

    void showPrintsTheSavedProject()
    {
        write(u"a/1.txt"_s, "one");
        write(u"b/1.txt"_s, "one");
        write(u"c/2 & <x>.txt"_s, "two two");
        write(u"d/2.txt"_s, "two two");
        const QString project = home->filePath(u"p.dupproj"_s);
        const Run scan = run({u"scan"_s, u"--format"_s, u"json"_s, u"--select"_s, u"newest"_s, u"--save"_s,
                              project, data->path()});
        QCOMPARE(scan.status, 0);
        const Run show = run({u"show"_s, u"--format"_s, u"json"_s, project});
        QCOMPARE(show.status, 0);
        QCOMPARE(show.out, scan.out);
    }

    // A damaged project is refused naming the file (status 1); a missing one is a usage error.
    void showRefusesBadProjects_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::newRow("garbage") << QByteArray("\x00\x01not xml");
        QTest::newRow("wrong root") << QByteArray("<Other><groups/></Other>");
        QTest::newRow("truncated") << QByteArray(
            "<Twinfold fileCount=\"1\"><groups><GroupItem key=\"K\"><Item");
        QTest::newRow("entity bomb") << QByteArray(
            "<!DOCTYPE t [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b "
            "\"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\">]><Twinfold>&b;</Twinfold>");
    }
    void showRefusesBadProjects()
    {
        QFETCH(QByteArray, content);
        const QString project = CliTree(home->path()).write(u"bad.dupproj"_s, content);
        const Run r = run({u"show"_s, project});
        QCOMPARE(r.status, 1);
        QVERIFY(r.err.contains(project));
        QCOMPARE(run({u"show"_s, home->filePath(u"missing.dupproj"_s)}).status, 2);
    }

    void deleteRemovesOnlySelected_data()
    {
        QTest::addColumn<QString>("target");
        for (const char *target : {"permanent", "folder", "dry-run"})
            QTest::newRow(target) << QString::fromLatin1(target);
    }
    void deleteRemovesOnlySelected()
    {
        QFETCH(QString, target);
        const QString keep1 = write(u"a/x.txt"_s, "same"), copy1 = write(u"b/x copy.txt"_s, "same");
        const QString keep2 = write(u"a/y.txt"_s, "other same"),
                      copy2 = write(u"b/y (1).txt"_s, "other same");
        const QString lonely = write(u"c/z.txt"_s, "alone");
        const QString project = savedProject(), moved = home->filePath(u"moved"_s);
        QVERIFY(!project.isEmpty() && QDir().mkpath(moved));
        QStringList args{u"delete"_s, project};
        if (target == u"dry-run")
            args << u"--dry-run"_s;
        else
            args << u"--to"_s << (target == u"folder" ? u"folder:"_s + moved : target);
        const Run r = run(args);
        QCOMPARE(r.status, 0);
        QStringList listed = r.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        listed.sort();
        QCOMPARE(listed, (QStringList{copy1, copy2}));
        const bool removes = target != u"dry-run";
        for (const QString &path : {keep1, keep2, lonely})
            QVERIFY2(QFileInfo::exists(path), qPrintable(path));
        for (const QString &path : {copy1, copy2})
            QCOMPARE(QFileInfo::exists(path), !removes);
        QCOMPARE(QDir(moved).entryList(QDir::Files).size(), target == u"folder" ? 2 : 0);
        // The rewritten project holds only groups that still have two members.
        const Run show = run({u"show"_s, project});
        QCOMPARE(show.status, 0);
        QCOMPARE(textGroups(show.out).size(), removes ? 0 : 2);
    }

    void deleteReportsFailures()
    {
        write(u"a/x.txt"_s, "same");
        const QString copy = write(u"b/x copy.txt"_s, "same"), project = savedProject();
        QVERIFY(!project.isEmpty());
        // The selected file became a folder in the meantime: it must not be removed.
        QVERIFY(QFile::remove(copy));
        write(u"b/x copy.txt/inside.txt"_s, "keep me");
        const Run r = run({u"delete"_s, u"--to"_s, u"permanent"_s, project});
        QCOMPARE(r.status, 1);
        QCOMPARE(r.err.trimmed().count(QLatin1Char('\n')), 0);
        QVERIFY2(r.err.contains(copy), qPrintable(r.err));
        QVERIFY(QFileInfo::exists(copy + u"/inside.txt"_s));
    }

    void deleteToTrashCanBeRestored()
    {
        const QString trashList = QStandardPaths::findExecutable(u"trash-list"_s);
        const QString trashRestore = QStandardPaths::findExecutable(u"trash-restore"_s);
        if (trashList.isEmpty() || trashRestore.isEmpty())
            QSKIP("trash-cli is not installed");
        const QString keep = write(u"a/photo.jpg"_s, "picture bytes");
        const QString copy = write(u"b/photo copy.jpg"_s, "picture bytes"), project = savedProject();
        QVERIFY(!project.isEmpty());
        // The trash of this test's own data folder, for the program and the tools alike.
        const auto restoreEnv =
            qScopeGuard([old = qgetenv("XDG_DATA_HOME")] { qputenv("XDG_DATA_HOME", old); });
        qputenv("XDG_DATA_HOME", QFile::encodeName(home->filePath(u"share"_s)));
        const Run r = run({u"delete"_s, u"--to"_s, u"trash"_s, project});
        QCOMPARE(r.status, 0);
        QVERIFY(!QFileInfo::exists(copy) && QFileInfo::exists(keep));

        QProcess list;
        list.setProcessEnvironment(QProcessEnvironment::systemEnvironment());
        list.start(trashList, QStringList{});
        QVERIFY(list.waitForFinished(30000));
        // The tool lists every trash it knows; only entries from this test's tree count.
        const QStringList lines =
            QString::fromUtf8(list.readAllStandardOutput()).split(QLatin1Char('\n')).filter(data->path());
        QCOMPARE(lines.size(), 1);
        QVERIFY2(lines.constFirst().endsWith(copy), qPrintable(lines.constFirst()));

        QProcess restore;
        restore.setWorkingDirectory(QFileInfo(copy).absolutePath());
        restore.start(trashRestore, {QFileInfo(copy).absolutePath()});
        QVERIFY(restore.waitForStarted());
        restore.write("0\n");
        restore.closeWriteChannel();
        QVERIFY(restore.waitForFinished(30000));
        QVERIFY2(QFileInfo::exists(copy), qPrintable(QString::fromUtf8(restore.readAllStandardError())));
        QFile restored(copy);
        QVERIFY(restored.open(QIODevice::ReadOnly));
        QCOMPARE(restored.readAll(), QByteArray("picture bytes"));
    }
};

TWINFOLD_TEST_MAIN(TestCli)
#include "tst_cli.moc"
