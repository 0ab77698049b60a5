#include "TestMain.h"

#include "CliTree.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
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
    void preferencesFileSuppliesDefaults();
    void interruptPrintsPartialResult();

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

TWINFOLD_TEST_MAIN(TestCli)
#include "tst_cli.moc"
