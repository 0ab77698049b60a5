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
private slots:
    void init();
    void usageErrors_data();
    void usageErrors();
    void helpAndVersion();
    void contentMatchesByteComparison_data();
    void contentMatchesByteComparison();
    void filters_data();
    void filters();
    void jsonAndCsv();
    void duplicateFolders();
    void similarImages();
    void preferencesFileSuppliesDefaults();
    void interruptPrintsPartialResult();
    void showPrintsTheSavedProject();
    void showRefusesBadProjects_data();
    void showRefusesBadProjects();
    void deleteRemovesOnlySelected_data();
    void deleteRemovesOnlySelected();
    void deleteReportsFailures();
    void deleteToTrashCanBeRestored();

private:
    struct Run
    {
        int status = -1;
        QString out;
        QString err;
    };
    Run run(const QStringList &args, int timeoutMs = 120000);
    static QList<QStringList> textGroups(const QString &out);

    std::unique_ptr<QTemporaryDir> home;
    std::unique_ptr<QTemporaryDir> data;
};

void TestCli::init()
{
    home = std::make_unique<QTemporaryDir>();
    data = std::make_unique<QTemporaryDir>();
    QVERIFY(home->isValid() && data->isValid());
}

TestCli::Run TestCli::run(const QStringList &args, int timeoutMs)
{
    QProcess p;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    // The child must use neither the user's preferences nor their log.
    env.insert(u"XDG_CONFIG_HOME"_s, home->filePath(u"config"_s));
    env.insert(u"HOME"_s, home->path());
    env.insert(u"TWINFOLD_SENTRY_DSN"_s, QString());
    p.setProcessEnvironment(env);
    p.start(QStringLiteral(TWINFOLD_CLI_PATH), args);
    if (!p.waitForFinished(timeoutMs)) {
        p.kill();
        p.waitForFinished();
    }
    Run r;
    r.status = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    r.out = QString::fromUtf8(p.readAllStandardOutput());
    r.err = QString::fromUtf8(p.readAllStandardError());
    return r;
}

QList<QStringList> TestCli::textGroups(const QString &out)
{
    QList<QStringList> groups;
    for (const QString &block : out.split(u"\n\n"_s, Qt::SkipEmptyParts)) {
        QStringList members = block.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        if (members.isEmpty())
            continue;
        members.sort();
        groups.append(members);
    }
    std::sort(groups.begin(), groups.end());
    return groups;
}

void TestCli::usageErrors_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QString>("mentions");
    QTest::newRow("no command") << QStringList{} << u"command"_s;
    QTest::newRow("unknown command") << QStringList{u"frobnicate"_s} << u"frobnicate"_s;
    QTest::newRow("unknown option") << QStringList{u"scan"_s, u"--bogus"_s, u"."_s} << u"bogus"_s;
    QTest::newRow("no folder") << QStringList{u"scan"_s} << u"folder"_s;
    QTest::newRow("missing folder") << QStringList{u"scan"_s, u"/no/such/place"_s} << u"/no/such/place"_s;
    QTest::newRow("bad method") << QStringList{u"scan"_s, u"--method"_s, u"fast"_s, u"."_s} << u"fast"_s;
    QTest::newRow("bad format") << QStringList{u"scan"_s, u"--format"_s, u"xml"_s, u"."_s} << u"xml"_s;
    QTest::newRow("bad size") << QStringList{u"scan"_s, u"--min-size"_s, u"-3"_s, u"."_s} << u"min-size"_s;
    QTest::newRow("bad rule") << QStringList{u"scan"_s, u"--select"_s, u"best"_s, u"."_s} << u"best"_s;
    QTest::newRow("only with ignore")
        << QStringList{u"scan"_s, u"--only"_s, u"jpg"_s, u"--ignore-ext"_s, u"png"_s, u"."_s} << u"--only"_s;
    QTest::newRow("similar twice") << QStringList{u"scan"_s, u"--similar"_s, u"--no-similar"_s, u"."_s}
                                   << u"--no-similar"_s;
    QTest::newRow("bad algorithm") << QStringList{u"scan"_s, u"--algorithm"_s, u"sift"_s, u"."_s}
                                   << u"sift"_s;
    QTest::newRow("similarity 0") << QStringList{u"scan"_s, u"--similarity"_s, u"0"_s, u"."_s}
                                  << u"similarity"_s;
    QTest::newRow("similarity 101") << QStringList{u"scan"_s, u"--similarity"_s, u"101"_s, u"."_s}
                                    << u"similarity"_s;
    QTest::newRow("features both") << QStringList{u"scan"_s, u"--features"_s, u"50"_s, u"--no-features"_s,
                                                  u"."_s}
                                   << u"--features"_s;
    QTest::newRow("aspect 11") << QStringList{u"scan"_s, u"--aspect"_s, u"11"_s, u"."_s} << u"--aspect"_s;
    QTest::newRow("aspect both") << QStringList{u"scan"_s, u"--aspect"_s, u"2"_s, u"--any-aspect"_s, u"."_s}
                                 << u"--aspect"_s;
    QTest::newRow("bad similar rule")
        << QStringList{u"scan"_s, u"--similar-select"_s, u"prettiest"_s, u"."_s} << u"prettiest"_s;
    QTest::newRow("missing preferences")
        << QStringList{u"scan"_s, u"--preferences"_s, u"/no/prefs.cfg"_s, u"."_s} << u"/no/prefs.cfg"_s;
}

void TestCli::usageErrors()
{
    QFETCH(QStringList, args);
    QFETCH(QString, mentions);
    const Run r = run(args);
    QCOMPARE(r.status, 2);
    QVERIFY2(r.err.contains(mentions), qPrintable(r.err));
    QVERIFY2(r.err.trimmed().count(QLatin1Char('\n')) == 0, "a usage error is one line");
    QVERIFY(r.out.isEmpty());
}

void TestCli::helpAndVersion()
{
    Run r = run({u"--help"_s});
    QCOMPARE(r.status, 0);
    QVERIFY(r.out.contains(u"scan"_s) && r.out.contains(u"delete"_s));
    r = run({u"--version"_s});
    QCOMPARE(r.status, 0);
    QCOMPARE(r.out.trimmed(), u"twinfold-cli 4.0.0"_s);
    r = run({u"scan"_s, u"--help"_s});
    QCOMPARE(r.status, 0);
    QVERIFY(r.out.contains(u"--method"_s));
}

void TestCli::contentMatchesByteComparison_data()
{
    QTest::addColumn<quint32>("seed");
    QTest::addColumn<int>("files");
    for (quint32 seed : {1u, 2u, 3u, 4u})
        QTest::addRow("seed %u", seed) << seed << 120;
}

void TestCli::contentMatchesByteComparison()
{
    QFETCH(quint32, seed);
    QFETCH(int, files);
    CliTree tree(data->path());
    tree.random(seed, files);
    const Run r = run({u"scan"_s, u"--method"_s, u"content"_s, data->path()});
    QCOMPARE(r.status, 0);
    QCOMPARE(textGroups(r.out), tree.byteGroups());
}

void TestCli::filters_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QStringList>("expectedNames"); // file names of the one expected group
    QTest::newRow("none") << QStringList{} << QStringList{u"a.JPG"_s, u"b.jpg"_s};
    QTest::newRow("only jpg matches upper case")
        << QStringList{u"--only"_s, u"JPG"_s} << QStringList{u"a.JPG"_s, u"b.jpg"_s};
    QTest::newRow("ignore jpg") << QStringList{u"--ignore-ext"_s, u".jpg"_s} << QStringList{};
    QTest::newRow("min size inclusive")
        << QStringList{u"--min-size"_s, u"2"_s} << QStringList{u"a.JPG"_s, u"b.jpg"_s};
    QTest::newRow("min size above") << QStringList{u"--min-size"_s, u"3"_s} << QStringList{};
    QTest::newRow("include hidden") << QStringList{u"--include-hidden"_s}
                                    << QStringList{u".c.jpg"_s, u"a.JPG"_s, u"b.jpg"_s};
}

void TestCli::filters()
{
    QFETCH(QStringList, options);
    QFETCH(QStringList, expectedNames);
    CliTree tree(data->path());
    const QByteArray twoKiB(2048, 'x');
    tree.write(u"x/a.JPG"_s, twoKiB);
    tree.write(u"y/b.jpg"_s, twoKiB);
    tree.write(u"y/.c.jpg"_s, twoKiB);
    tree.write(u"z/d.txt"_s, QByteArray(2048, 'y'));
    const Run r = run(QStringList{u"scan"_s} + options + QStringList{data->path()});
    QCOMPARE(r.status, 0);
    const auto groups = textGroups(r.out);
    if (expectedNames.isEmpty()) {
        QVERIFY2(groups.isEmpty(), qPrintable(r.out));
        return;
    }
    QCOMPARE(groups.size(), 1);
    QStringList names;
    for (const QString &path : groups.constFirst())
        names.append(QFileInfo(path).fileName());
    names.sort();
    QCOMPARE(names, expectedNames);
}

void TestCli::jsonAndCsv()
{
    CliTree tree(data->path());
    const QString a = tree.write(u"a/one, \"quoted\".txt"_s, "same bytes");
    const QString b = tree.write(u"b/ünïcode.txt"_s, "same bytes");
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
    QVERIFY2(r.out.contains(u"\""_s + QString(a).replace(u"\""_s, u"\"\""_s) + u"\""_s), qPrintable(r.out));
    QCOMPARE(r.out.count(u"\r\n"_s), 3); // header and two members
}

void TestCli::similarImages()
{
    // Two scenes, each saved at two sizes, plus an exact copy of one picture: the copy
    // group is absorbed into its scene's similar group. A similarity of 5 % allows no
    // differing hash bit at all.
    const auto scene = [](int w, int h, bool blocks) {
        QImage image(w, h, QImage::Format_RGB32);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                // A smooth gradient, or a fixed pattern of 8 x 8 blocks.
                const int cell = (x * 8 / w) * 8 + y * 8 / h;
                const int v = blocks ? (cell * 97 % 256) : x * 255 / w;
                image.setPixel(x, y, qRgb(v, blocks ? 255 - v : y * 255 / h, 255 - v));
            }
        return image;
    };
    QDir().mkpath(data->filePath(u"p"_s));
    const QString a = data->filePath(u"p/a.png"_s), aSmall = data->filePath(u"p/a_small.png"_s);
    const QString b = data->filePath(u"p/b.png"_s), bSmall = data->filePath(u"p/b_small.png"_s);
    const QString aCopy = data->filePath(u"p/a_copy.png"_s);
    QVERIFY(scene(400, 300, false).save(a) && scene(200, 150, false).save(aSmall));
    QVERIFY(scene(400, 300, true).save(b) && scene(200, 150, true).save(bSmall));
    QVERIFY(QFile::copy(a, aCopy));

    const QStringList common = {u"scan"_s,  u"--format"_s,     u"json"_s, u"--algorithm"_s,
                                u"phash"_s, u"--similarity"_s, u"90"_s,   u"--no-features"_s};
    Run r = run(common + QStringList{u"--similar"_s, data->path()});
    QCOMPARE(r.status, 0);
    const QJsonArray groups = QJsonDocument::fromJson(r.out.toUtf8()).object().value(u"groups"_s).toArray();
    QList<QSet<QString>> similar;
    for (const QJsonValue &g : groups) {
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
    QVERIFY2(similar.size() == 2, qPrintable(r.out));
    QCOMPARE(similar, (QList<QSet<QString>>{{a, aCopy, aSmall}, {b, bSmall}}));

    r = run(common + QStringList{u"--no-similar"_s, data->path()});
    QCOMPARE(r.status, 0);
    QVERIFY2(!r.out.contains(u"\"similar\""_s) && r.out.contains(u"\"files\""_s), qPrintable(r.out));
}

void TestCli::duplicateFolders()
{
    CliTree tree(data->path());
    for (const QString &folder : {u"left"_s, u"right"_s}) {
        tree.write(folder + u"/1.txt"_s, "first file");
        tree.write(folder + u"/2.txt"_s, "second file");
    }
    tree.write(u"other/1.txt"_s, "first file");
    const Run r = run({u"scan"_s, u"--folders"_s, u"--format"_s, u"json"_s, data->path()});
    QCOMPARE(r.status, 0);
    const QJsonArray groups = QJsonDocument::fromJson(r.out.toUtf8()).object().value(u"groups"_s).toArray();
    QStringList kinds;
    for (const QJsonValue &g : groups)
        kinds.append(g.toObject().value(u"kind"_s).toString());
    // The folder pair is offered once as folders; its file groups, including the copy
    // outside the pair, go with it.
    QCOMPARE(kinds, QStringList{u"folders"_s});
}

void TestCli::preferencesFileSuppliesDefaults()
{
    CliTree tree(data->path());
    tree.write(u"a/x.txt"_s, "content one");
    tree.write(u"b/x.txt"_s, "content two");
    const QString prefs = home->filePath(u"prefs.cfg"_s);
    {
        QFile f(prefs);
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write("[Duplicate_files]\nscanMethod=1\n");
    }
    const QByteArray before = [&] {
        QFile f(prefs);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }();
    Run r = run({u"scan"_s, u"--preferences"_s, prefs, data->path()});
    QCOMPARE(r.status, 0);
    QCOMPARE(textGroups(r.out).size(), 1); // by name and size
    r = run({u"scan"_s, u"--preferences"_s, prefs, u"--method"_s, u"content"_s, data->path()});
    QCOMPARE(textGroups(r.out).size(), 0);
    QFile f(prefs);
    QVERIFY(f.open(QIODevice::ReadOnly));
    QCOMPARE(f.readAll(), before); // options never reach the file
}

void TestCli::interruptPrintsPartialResult()
{
    CliTree tree(data->path());
    const QByteArray block(64 * 1024, 'z');
    for (int i = 0; i < 3000; ++i)
        tree.write(u"d%1/f%2"_s.arg(i % 50).arg(i), block + QByteArray::number(i % 1500));
    QProcess p;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(u"XDG_CONFIG_HOME"_s, home->filePath(u"config"_s));
    p.setProcessEnvironment(env);
    p.start(QStringLiteral(TWINFOLD_CLI_PATH), {u"scan"_s, u"--method"_s, u"content"_s, data->path()});
    QVERIFY(p.waitForStarted());
    // Wait until the scan has begun (its log says so), then interrupt it.
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
    const QString err = QString::fromUtf8(p.readAllStandardError());
    if (p.exitCode() == 0)
        QSKIP("the scan finished before the interrupt arrived");
    QCOMPARE(p.exitCode(), 1);
    QVERIFY2(err.contains(u"interrupted"_s), qPrintable(err));
}

void TestCli::showPrintsTheSavedProject()
{
    CliTree tree(data->path());
    tree.write(u"a/1.txt"_s, "one");
    tree.write(u"b/1.txt"_s, "one");
    tree.write(u"c/2 & <x>.txt"_s, "two two");
    tree.write(u"d/2.txt"_s, "two two");
    const QString project = home->filePath(u"p.dupproj"_s);
    const Run scan = run({u"scan"_s, u"--format"_s, u"json"_s, u"--select"_s, u"newest"_s, u"--save"_s,
                          project, data->path()});
    QCOMPARE(scan.status, 0);
    const Run show = run({u"show"_s, u"--format"_s, u"json"_s, project});
    QCOMPARE(show.status, 0);
    QCOMPARE(show.out, scan.out);
}

void TestCli::showRefusesBadProjects_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("status");
    QTest::newRow("garbage") << QByteArray("\x00\x01not xml") << 1;
    QTest::newRow("wrong root") << QByteArray("<Other><groups/></Other>") << 1;
    QTest::newRow("truncated") << QByteArray("<Twinfold fileCount=\"1\"><groups><GroupItem key=\"K\"><Item")
                               << 1;
    QTest::newRow("entity bomb") << QByteArray(
                                        "<!DOCTYPE t [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b "
                                        "\"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\">]><Twinfold>&b;</Twinfold>")
                                 << 1;
}

void TestCli::showRefusesBadProjects()
{
    QFETCH(QByteArray, content);
    QFETCH(int, status);
    const QString project = home->filePath(u"bad.dupproj"_s);
    QFile f(project);
    QVERIFY(f.open(QIODevice::WriteOnly));
    f.write(content);
    f.close();
    const Run r = run({u"show"_s, project});
    QCOMPARE(r.status, status);
    QVERIFY(r.err.contains(project));
    QCOMPARE(run({u"show"_s, home->filePath(u"missing.dupproj"_s)}).status, 2);
}

void TestCli::deleteRemovesOnlySelected_data()
{
    QTest::addColumn<QString>("target");
    QTest::newRow("permanent") << u"permanent"_s;
    QTest::newRow("folder") << u"folder"_s;
    QTest::newRow("dry run") << u"dry-run"_s;
}

void TestCli::deleteRemovesOnlySelected()
{
    QFETCH(QString, target);
    CliTree tree(data->path());
    const QString keep1 = tree.write(u"a/x.txt"_s, "same");
    const QString copy1 = tree.write(u"b/x copy.txt"_s, "same");
    const QString keep2 = tree.write(u"a/y.txt"_s, "other same");
    const QString copy2 = tree.write(u"b/y (1).txt"_s, "other same");
    const QString lonely = tree.write(u"c/z.txt"_s, "alone");
    const QString project = home->filePath(u"p.dupproj"_s);
    QCOMPARE(run({u"scan"_s, u"--select"_s, u"filename"_s, u"--save"_s, project, data->path()}).status, 0);

    QStringList args{u"delete"_s, project};
    const QString moved = home->filePath(u"moved"_s);
    if (target == u"dry-run")
        args << u"--dry-run"_s;
    else if (target == u"folder")
        args << u"--to"_s << u"folder:"_s + moved, QDir().mkpath(moved);
    else
        args << u"--to"_s << target;
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
    if (target == u"folder")
        QCOMPARE(QDir(moved).entryList(QDir::Files).size(), 2);
    // The rewritten project holds only groups that still have two members.
    const Run show = run({u"show"_s, project});
    QCOMPARE(show.status, 0);
    QCOMPARE(textGroups(show.out).size(), removes ? 0 : 2);
}

void TestCli::deleteReportsFailures()
{
    CliTree tree(data->path());
    tree.write(u"a/x.txt"_s, "same");
    const QString copy = tree.write(u"b/x copy.txt"_s, "same");
    const QString project = home->filePath(u"p.dupproj"_s);
    QCOMPARE(run({u"scan"_s, u"--select"_s, u"filename"_s, u"--save"_s, project, data->path()}).status, 0);
    // The selected file became a folder in the meantime: it must not be removed.
    QVERIFY(QFile::remove(copy));
    QVERIFY(QDir().mkpath(copy));
    tree.write(u"b/x copy.txt/inside.txt"_s, "keep me");
    const Run r = run({u"delete"_s, u"--to"_s, u"permanent"_s, project});
    QCOMPARE(r.status, 1);
    QCOMPARE(r.err.trimmed().count(QLatin1Char('\n')), 0);
    QVERIFY2(r.err.contains(copy), qPrintable(r.err));
    QVERIFY(QFileInfo::exists(copy + u"/inside.txt"_s));
}

void TestCli::deleteToTrashCanBeRestored()
{
    const QString trashList = QStandardPaths::findExecutable(u"trash-list"_s);
    const QString trashRestore = QStandardPaths::findExecutable(u"trash-restore"_s);
    if (trashList.isEmpty() || trashRestore.isEmpty())
        QSKIP("trash-cli is not installed");
    CliTree tree(data->path());
    const QString keep = tree.write(u"a/photo.jpg"_s, "picture bytes");
    const QString copy = tree.write(u"b/photo copy.jpg"_s, "picture bytes");
    const QString project = home->filePath(u"p.dupproj"_s);
    QCOMPARE(run({u"scan"_s, u"--select"_s, u"filename"_s, u"--save"_s, project, data->path()}).status, 0);
    const QString dataHome = home->filePath(u"share"_s);
    qputenv("XDG_DATA_HOME", dataHome.toLocal8Bit());
    const Run r = run({u"delete"_s, u"--to"_s, u"trash"_s, project});
    QCOMPARE(r.status, 0);
    QVERIFY(!QFileInfo::exists(copy));
    QVERIFY(QFileInfo::exists(keep));

    QProcess list;
    list.setProcessEnvironment(QProcessEnvironment::systemEnvironment());
    list.start(trashList, QStringList{});
    QVERIFY(list.waitForFinished(30000));
    // The tool lists every trash it knows; only entries from this test's tree count.
    QStringList lines;
    for (const QString &line : QString::fromUtf8(list.readAllStandardOutput()).split(QLatin1Char('\n')))
        if (line.contains(data->path()))
            lines.append(line);
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines.constFirst().endsWith(copy), qPrintable(lines.constFirst()));

    QProcess restore;
    restore.setWorkingDirectory(QFileInfo(copy).absolutePath());
    restore.start(trashRestore, {QFileInfo(copy).absolutePath()});
    QVERIFY(restore.waitForStarted());
    restore.write("0\n");
    restore.closeWriteChannel();
    QVERIFY(restore.waitForFinished(30000));
    qunsetenv("XDG_DATA_HOME");
    QVERIFY2(QFileInfo::exists(copy), qPrintable(QString::fromUtf8(restore.readAllStandardError())));
    QFile restored(copy);
    QVERIFY(restored.open(QIODevice::ReadOnly));
    QCOMPARE(restored.readAll(), QByteArray("picture bytes"));
}

TWINFOLD_TEST_MAIN(TestCli)
#include "tst_cli.moc"
