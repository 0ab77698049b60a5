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
        env.insert(u"XDG_DATA_HOME"_s, home->filePath(u"share"_s)); // its trash too
        env.insert(u"TWINFOLD_SENTRY_DSN"_s, QString());
        return env;
    }
    Run run(const QStringList &args) const
    {
        QProcess p;
        p.setProcessEnvironment(environment());
        p.start(QStringLiteral(TWINFOLD_CLI_PATH), args);
        if (!p.waitForFinished(120000))
            p.kill();
        p.waitForFinished();
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

    // Two text columns from "first -> second" rows separated by ';'.
    static void arrowRows(const char *first, const char *second, const QString &rows)
    {
        QTest::addColumn<QString>(first);
        QTest::addColumn<QString>(second);
        for (const QString &row : rows.split(u';'))
            QTest::addRow("'%s'", qPrintable(row.section(u" -> "_s, 0, 0).trimmed()))
                << row.section(u" -> "_s, 0, 0).trimmed() << row.section(u" -> "_s, 1).trimmed();
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
        arrowRows(
            "args", "mentions",
            u" -> command; frobnicate -> frobnicate; scan --bogus . -> bogus; scan -> folder;"
            " scan /no/such/place -> /no/such/place; scan --method fast . -> fast;"
            " scan --format xml . -> xml; scan --min-size -3 . -> min-size; scan --select best . -> best;"
            " scan --only jpg --ignore-ext png . -> --only; scan --similar --no-similar . -> --no-similar;"
            " scan --algorithm sift . -> sift; scan --similarity 0 . -> similarity;"
            " scan --similarity 101 . -> similarity; scan --features 50 --no-features . -> --features;"
            " scan --aspect 11 . -> --aspect; scan --aspect 2 --any-aspect . -> --aspect;"
            " scan --similar-select prettiest . -> prettiest;"
            " scan --preferences /no/prefs.cfg . -> /no/prefs.cfg"_s);
    }
    void usageErrors()
    {
        QFETCH(QString, args);
        QFETCH(QString, mentions);
        const Run r = run(args.split(u' ', Qt::SkipEmptyParts));
        QCOMPARE(r.status, 2);
        // One line on stderr, nothing on stdout.
        QVERIFY2(r.err.contains(mentions) && r.err.trimmed().count(u'\n') == 0 && r.out.isEmpty(),
                 qPrintable(r.err));
    }

    void helpAndVersion()
    {
        const Run help = run({u"--help"_s}), version = run({u"--version"_s}),
                  scan = run({u"scan"_s, u"--help"_s});
        QVERIFY(help.status == 0 && help.out.contains(u"scan"_s) && help.out.contains(u"delete"_s));
        QCOMPARE(u"%1 "_s.arg(version.status) + version.out.trimmed(), u"0 twinfold-cli 4.0.0"_s);
        QVERIFY(scan.status == 0 && scan.out.contains(u"--method"_s));
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

    // Suffixes match whatever their case; the size bound is inclusive.
    void filters_data()
    {
        arrowRows("options", "expected", // the one expected group
                  u" -> x/a.JPG y/b.jpg; --only JPG -> x/a.JPG y/b.jpg; --ignore-ext .jpg -> ;"
                  " --min-size 2 -> x/a.JPG y/b.jpg; --min-size 3 -> ;"
                  " --include-hidden -> x/a.JPG y/.c.jpg y/b.jpg"_s);
    }
    void filters()
    {
        QFETCH(QString, options);
        QFETCH(QString, expected);
        for (const QString &file : {u"x/a.JPG"_s, u"y/b.jpg"_s, u"y/.c.jpg"_s})
            write(file, QByteArray(2048, 'x'));
        write(u"z/d.txt"_s, QByteArray(2048, 'y'));
        const Run r =
            run(QStringList{u"scan"_s} + options.split(u' ', Qt::SkipEmptyParts) + QStringList{data->path()});
        QCOMPARE(r.status, 0);
        const QString out = QString(r.out).replace(data->path() + u'/', QString());
        QCOMPARE(textGroups(out),
                 expected.isEmpty() ? QList<QStringList>() : QList<QStringList>{expected.split(u' ')});
    }

    void jsonAndCsv()
    {
        const QString a = write(u"a/one, \"quoted\".txt"_s, "same bytes");
        const QString b = write(u"b/ünïcode.txt"_s, "same bytes");
        // Enough copies that the printer looks the selection up by hash, not by list.
        QSet<QString> expected{a + u" 10 true"_s, b + u" 10 true"_s};
        for (int i = 0; i < 17; ++i)
            expected.insert(write(u"c/%1.txt"_s.arg(i), "same bytes") + u" 10 true"_s);
        Run r = run({u"scan"_s, u"--format"_s, u"json"_s, u"--select"_s, u"all"_s, data->path()});
        const QJsonObject root = QJsonDocument::fromJson(r.out.toUtf8()).object();
        QVERIFY2(r.status == 0 && root.value(u"version"_s).toString() == u"4.0.0"_s, qPrintable(r.out));
        QCOMPARE(root.value(u"scannedFiles"_s).toInt(), 19);
        QVERIFY(r.out.indexOf(u"\"version\""_s) < r.out.indexOf(u"\"scannedFiles\""_s));
        const QJsonArray groups = root.value(u"groups"_s).toArray();
        const QJsonObject group = groups.at(0).toObject();
        QVERIFY(groups.size() == 1 && group.value(u"kind"_s).toString() == u"files"_s);
        QCOMPARE(group.value(u"key"_s).toString().size(), 32);
        QSet<QString> members; // "path size selected"
        for (const QJsonValue &m : group.value(u"members"_s).toArray())
            members.insert(m[u"path"_s].toString() + u' ' + m[u"size"_s].toVariant().toString() + u' ' +
                           m[u"selected"_s].toVariant().toString());
        QCOMPARE(members, expected);

        r = run({u"scan"_s, u"--format"_s, u"csv"_s, data->path()});
        QCOMPARE(r.status, 0);
        QVERIFY2(r.out.contains(u"\""_s + QString(a).replace(u"\""_s, u"\"\""_s) + u"\""_s),
                 qPrintable(r.out));
        QCOMPARE(r.out.count(u"\r\n"_s), 20); // header and the members
    }

    // Image similarity has tests of its own; here only the kind, the similarity field and the
    // switches. An exact copy of a picture joins its similar group instead of a group of its own.
    void similarImages()
    {
        QImage image(400, 300, QImage::Format_RGB32);
        for (int y = 0; y < image.height(); ++y)
            for (int x = 0; x < image.width(); ++x)
                image.setPixel(x, y, qRgb(x * 255 / 400, y * 255 / 300, 255 - x * 255 / 400));
        const QString a = write(u"p/a.png"_s, {}), small = write(u"p/a_small.png"_s, {});
        const QString copy = data->filePath(u"p/a_copy.png"_s);
        QVERIFY(image.save(a) && image.scaled(200, 150).save(small) && QFile::copy(a, copy));
        const QStringList common =
            u"scan --format json --algorithm phash --similarity 90 --no-features"_s.split(u' ');
        Run r = run(common + QStringList{u"--similar"_s, data->path()});
        const QJsonArray groups = QJsonDocument::fromJson(r.out.toUtf8())[u"groups"].toArray();
        QVERIFY2(r.status == 0 && groups.size() == 1, qPrintable(r.out));
        QCOMPARE(groups.at(0).toObject().value(u"kind"_s).toString(), u"similar"_s);
        QSet<QString> members;
        for (const QJsonValue &m : groups.at(0).toObject().value(u"members"_s).toArray()) {
            members.insert(m.toObject().value(u"path"_s).toString());
            const QJsonValue percent = m.toObject().value(u"similarity"_s);
            QVERIFY(percent.isUndefined() || (percent.toInt() >= 1 && percent.toInt() <= 100));
        }
        QCOMPARE(members, (QSet<QString>{a, copy, small}));
        r = run(common + QStringList{u"--no-similar"_s, data->path()});
        QVERIFY2(r.status == 0 && !r.out.contains(u"\"similar\""_s) && r.out.contains(u"\"files\""_s),
                 qPrintable(r.out));
    }

    void duplicateFolders()
    {
        for (const QString &file : {u"left/1.txt"_s, u"right/1.txt"_s, u"other/1.txt"_s})
            write(file, "first file");
        write(u"left/2.txt"_s, "second file");
        write(u"right/2.txt"_s, "second file");
        const Run r = run({u"scan"_s, u"--folders"_s, u"--format"_s, u"json"_s, data->path()});
        // The folder pair is offered once as folders; its file groups, including the copy
        // outside the pair, go with it.
        const QJsonArray groups = QJsonDocument::fromJson(r.out.toUtf8())[u"groups"].toArray();
        QVERIFY2(r.status == 0 && groups.size() == 1 && groups[0][u"kind"].toString() == u"folders"_s,
                 qPrintable(r.out));
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
        QVERIFY(f.open(QIODevice::ReadOnly) && f.readAll() == before); // options never reach the file
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
        // Interrupt once the scan has begun (its log says so); the wait is a deadline for a
        // stuck child, not a measurement.
        const QDir logDir(home->filePath(u"config/Orvant/Twinfold/Log"_s));
        QVERIFY(QTest::qWaitFor(
            [&logDir] {
                for (const QFileInfo &log : logDir.entryInfoList({u"*.log"_s}, QDir::Files)) {
                    QFile f(log.absoluteFilePath());
                    if (f.open(QIODevice::ReadOnly) && f.readAll().contains("Start Scan"))
                        return true;
                }
                return false;
            },
            30000));
        ::kill(pid_t(p.processId()), SIGINT);
        QVERIFY(p.waitForFinished(60000));
        QCOMPARE(p.exitStatus(), QProcess::NormalExit);
        if (p.exitCode() == 0)
            QSKIP("the scan finished before the interrupt arrived");
        QCOMPARE(p.exitCode(), 1);
        const QString err = QString::fromUtf8(p.readAllStandardError());
        QVERIFY2(err.contains(u"interrupted"_s), qPrintable(err));
    }

    // A saved project shows as the scan printed it; a damaged one is refused naming the file
    // (status 1), a missing one is a usage error.
    void show_data()
    {
        QTest::addColumn<QByteArray>("content"); // empty: as the scan saved it, or missing
        QTest::addColumn<int>("status");
        QTest::newRow("saved by a scan") << QByteArray("") << 0;
        QTest::newRow("garbage") << QByteArray("\x00\x01not xml", 9) << 1;
        QTest::newRow("wrong root") << QByteArray("<Other><groups/></Other>") << 1;
        QTest::newRow("missing") << QByteArray() << 2;
    }
    void show()
    {
        QFETCH(QByteArray, content);
        QFETCH(int, status);
        const QString project = home->filePath(u"p.dupproj"_s);
        write(u"a/1.txt"_s, "one");
        write(u"b/1.txt"_s, "one");
        write(u"c/2 & <x>.txt"_s, "two two");
        write(u"d/2.txt"_s, "two two");
        const Run scan = run({u"scan"_s, u"--format"_s, u"json"_s, u"--select"_s, u"newest"_s, u"--save"_s,
                              project, data->path()});
        QCOMPARE(scan.status, 0);
        if (status != 0) // the project replaced by the row's content, or gone
            QVERIFY(QFile::remove(project));
        if (!content.isEmpty())
            CliTree(home->path()).write(u"p.dupproj"_s, content);
        const Run r = run({u"show"_s, u"--format"_s, u"json"_s, project});
        QCOMPARE(r.status, status);
        if (status == 0)
            QCOMPARE(r.out, scan.out);
        else
            QVERIFY2(r.err.contains(project), qPrintable(r.err));
    }

    // Only selected members go, whichever way, and the rewritten project keeps only groups that
    // still have two members. A selected file that became a folder meanwhile is refused with a
    // one-line reason and left as it is while the rest still goes. The trash can give files back.
    void deleteRemovesOnlySelected_data()
    {
        QTest::addColumn<QString>("target");
        QTest::addColumn<bool>("broken");
        for (const char *target : {"permanent", "folder", "trash", "dry-run"})
            QTest::newRow(target) << QString::fromLatin1(target) << false;
        QTest::newRow("selected file became a folder") << u"permanent"_s << true;
    }
    void deleteRemovesOnlySelected()
    {
        QFETCH(QString, target);
        QFETCH(bool, broken);
        const QString restoreTool = QStandardPaths::findExecutable(u"trash-restore"_s);
        if (target == u"trash" && restoreTool.isEmpty())
            QSKIP("trash-cli is not installed");
        const QString keep1 = write(u"a/x.txt"_s, "same"), copy1 = write(u"b/x copy.txt"_s, "same");
        const QString keep2 = write(u"a/y.txt"_s, "other"), copy2 = write(u"b/y (1).txt"_s, "other");
        const QString lonely = write(u"c/z.txt"_s, "alone");
        // Each group keeps the member with the shortest name.
        const QString project = home->filePath(u"p.dupproj"_s), moved = home->filePath(u"moved"_s);
        QCOMPARE(run({u"scan"_s, u"--select"_s, u"filename"_s, u"--save"_s, project, data->path()}).status,
                 0);
        QVERIFY(QDir().mkpath(moved));
        if (broken) {
            QVERIFY(QFile::remove(copy1));
            write(u"b/x copy.txt/inside.txt"_s, "keep me");
        }
        QStringList args{u"delete"_s, project};
        if (target == u"dry-run")
            args << u"--dry-run"_s;
        else
            args << u"--to"_s << (target == u"folder" ? u"folder:"_s + moved : target);
        const Run r = run(args);
        QCOMPARE(r.status, broken ? 1 : 0);
        QVERIFY2(broken == (r.err.contains(copy1) && r.err.trimmed().count(u'\n') == 0), qPrintable(r.err));
        QStringList listed = r.out.split(u'\n', Qt::SkipEmptyParts);
        listed.sort();
        QCOMPARE(listed, (broken ? QStringList{copy2} : QStringList{copy1, copy2}));
        const bool removes = target != u"dry-run";
        for (const QString &path : {keep1, keep2, lonely})
            QVERIFY2(QFileInfo::exists(path), qPrintable(path));
        QCOMPARE(QFileInfo::exists(copy1), !removes || broken);
        QCOMPARE(QFileInfo::exists(copy1 + u"/inside.txt"_s), broken);
        QCOMPARE(QFileInfo::exists(copy2), !removes);
        QCOMPARE(QDir(moved).entryList(QDir::Files).size(), target == u"folder" ? 2 : 0);
        const Run show = run({u"show"_s, project});
        QCOMPARE(show.status, 0);
        QCOMPARE(textGroups(show.out).size(), removes ? int(broken) : 2);
        if (target != u"trash")
            return;
        QProcess restore;
        restore.setProcessEnvironment(environment()); // the same trash as the program's
        restore.setWorkingDirectory(QFileInfo(copy1).absolutePath());
        restore.start(restoreTool, {copy1});
        QVERIFY(restore.waitForStarted());
        restore.write("0\n");
        restore.closeWriteChannel();
        QVERIFY(restore.waitForFinished(30000));
        QFile restored(copy1);
        QVERIFY2(restored.open(QIODevice::ReadOnly),
                 qPrintable(QString::fromUtf8(restore.readAllStandardError())));
        QCOMPARE(restored.readAll(), QByteArray("same"));
    }
};

TWINFOLD_TEST_MAIN(TestCli)
#include "tst_cli.moc"
