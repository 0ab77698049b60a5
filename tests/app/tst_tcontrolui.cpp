#include "TestMain.h"

#include "app/TControlUI.h"
#include "app/TLogger.h"
#include "scan/TFileData.h"
#include "settings/TWPreferences.h"

#include <QImage>
#include <QSignalSpy>
#include <QTemporaryDir>

using namespace Qt::StringLiterals;

class TestTControlUI : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup();
    void progressWeights_data();
    void progressWeights();
    void fullScanReachesHundred();
    void stopWhileScanning();
    void stopWhileMatching();
    void timerStopsCountingOnStop();
    void similarPhase_data();
    void similarPhase();
    void stopWhileMatchingImages();

private:
    void writeTree(int pairs, int bytes);
    void writeImages(int count, int side);
    QString logText() const;
    void configure(TControlUI &control);

    std::unique_ptr<QTemporaryDir> appDir;
    std::unique_ptr<QTemporaryDir> tree;
    std::unique_ptr<TWPreferences> prefs;
};

void TestTControlUI::initTestCase()
{
    appDir = std::make_unique<QTemporaryDir>();
    QVERIFY(initLogger(appDir->path()));
}

void TestTControlUI::init()
{
    tree = std::make_unique<QTemporaryDir>();
    prefs = std::make_unique<TWPreferences>(appDir->filePath(u"preferences.cfg"_s));
    TFileData::instance().clear();
}

void TestTControlUI::cleanup()
{
    prefs.reset();
}

void TestTControlUI::configure(TControlUI &control)
{
    prefs->selection->scanMethod = TWSelectionPreferences::scanAllContent;
    control.setPreferences(prefs->ignoreList, prefs->selection, prefs->general);
}

void TestTControlUI::writeTree(int pairs, int bytes)
{
    for (int i = 0; i < pairs; ++i) {
        QByteArray data(bytes + i, char('a' + i % 26));
        data.append(QByteArray::number(i));
        for (const QString &side : {u"left"_s, u"right"_s}) {
            QDir().mkpath(tree->filePath(side));
            QFile f(tree->filePath(u"%1/%2.bin"_s.arg(side).arg(i)));
            QVERIFY(f.open(QIODevice::WriteOnly));
            f.write(data);
        }
    }
}

void TestTControlUI::writeImages(int count, int side)
{
    QDir().mkpath(tree->filePath(u"img"_s));
    for (int i = 0; i < count; ++i) {
        QImage image(side, side * 3 / 4, QImage::Format_RGB32);
        image.fill(QColor::fromHsv((i * 37) % 360, 200, 120 + i % 100));
        // Every second picture is a half-size copy of the one before it.
        if (i % 2 == 1)
            image = QImage(tree->filePath(u"img/%1.png"_s.arg(i - 1))).scaledToWidth(side / 2);
        QVERIFY(image.save(tree->filePath(u"img/%1.png"_s.arg(i))));
    }
}

QString TestTControlUI::logText() const
{
    TLogger::flush();
    QFile f(appDir->filePath(u"Log/"_s + TLogger::todaysFileName()));
    return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
}

void TestTControlUI::progressWeights_data()
{
    QTest::addColumn<qint64>("files");
    QTest::addColumn<bool>("folders");
    QTest::addColumn<bool>("similar");
    QTest::addColumn<bool>("features");
    QTest::addColumn<QList<double>>("expected"); // weights of types 0..4

    QTest::newRow("no files") << 0ll << false << false << false << QList<double>{0, 0, 0, 0, 0};
    QTest::newRow("5000 files, files only")
        << 5000ll << false << false << false << QList<double>{0.05, 0, 0, 0, 0};
    QTest::newRow("folders share the rest")
        << 5000ll << true << false << false << QList<double>{0.05, 0.95, 0, 0, 0};
    QTest::newRow("capped at 0.15") << 2000000ll << false << true << true
                                    << QList<double>{0.15, 0, 0.85 * 0.6 / 0.9, 0.85 * 0.15 / 0.9,
                                                     0.85 * 0.15 / 0.9};
    QTest::newRow("similar without features")
        << 10000ll << true << true << false
        << QList<double>{0.1, 0.9 * 0.05 / 0.8, 0.9 * 0.6 / 0.8, 0.9 * 0.15 / 0.8, 0};
    QTest::newRow("features need similar")
        << 1000ll << false << false << true << QList<double>{0.01, 0, 0, 0, 0};
}

void TestTControlUI::progressWeights()
{
    QFETCH(qint64, files);
    QFETCH(bool, folders);
    QFETCH(bool, similar);
    QFETCH(bool, features);
    QFETCH(QList<double>, expected);
    const auto weights = TControlUI::progressWeights(files, folders, similar, features);
    QCOMPARE(weights.size(), 5);
    double enabledSum = 0;
    for (int type = 0; type < 5; ++type) {
        QVERIFY2(qAbs(weights.value(type).weight - expected.at(type)) < 1e-12,
                 qPrintable(u"type %1: %2"_s.arg(type).arg(weights.value(type).weight)));
        QCOMPARE(weights.value(type).percent, 0.0);
        if (weights.value(type).enabled)
            enabledSum += weights.value(type).weight;
    }
    // The enabled phases together fill the bar whenever there is anything to weigh.
    if (files > 0 && (folders || similar))
        QVERIFY(qAbs(enabledSum - 1.0) < 1e-12);
}

void TestTControlUI::fullScanReachesHundred()
{
    writeTree(20, 3000);
    TControlUI control;
    configure(control);
    prefs->selection->scanDupDirectory = true;
    QSignalSpy done(&control, &TControlUI::onAllComplate);
    QSignalSpy progress(&control, &TControlUI::processChange);
    QSignalSpy found(&control, &TControlUI::onDuplicateItemFound);
    control.startScan({tree->path()});
    QVERIFY(done.wait(60000));
    QCOMPARE(control.runState(), TControlUI::Stoped);
    QCOMPARE(control.scannedFileCount(), 40);
    QVERIFY(!progress.isEmpty());
    double last = -1;
    for (const auto &args : progress) {
        QVERIFY2(args.at(0).toDouble() >= last - 1e-9, "overall progress never goes back");
        last = args.at(0).toDouble();
    }
    QCOMPARE(last, 100.0);
    QVERIFY(!found.isEmpty());
    QCOMPARE(found.constLast().at(0).toInt(), 40);
    // The two folders hold the same files: one folder group replaces the file groups.
    QCOMPARE(TFileData::instance().folderGroups.size(), 1);
    QVERIFY(TFileData::instance().duplicateGroups.isEmpty());
    QVERIFY(logText().contains(u"[TControlUI]: All tasks are completed."_s));
}

void TestTControlUI::stopWhileScanning()
{
    writeTree(200, 100);
    TControlUI control;
    configure(control);
    QSignalSpy done(&control, &TControlUI::onAllComplate);
    control.startScan({tree->path()});
    control.stopScan();
    QVERIFY(done.wait(30000));
    QCOMPARE(done.size(), 1);
    QVERIFY(logText().contains(u"The user clicks Stop during the scanning process."_s));
    QVERIFY(TFileData::instance().duplicateGroups.isEmpty()); // no matching started
    QCOMPARE(control.status(), TControlUI::ScaningFile);
}

void TestTControlUI::stopWhileMatching()
{
    writeTree(150, 64 * 1024);
    TControlUI control;
    configure(control);
    QSignalSpy done(&control, &TControlUI::onAllComplate);
    control.startScan({tree->path()});
    QElapsedTimer clock;
    clock.start();
    while (control.status() != TControlUI::DuplicateFile && done.isEmpty() && clock.elapsed() < 30000) {
        QCoreApplication::processEvents();
        QThread::msleep(1);
    }
    QCOMPARE(control.status(), TControlUI::DuplicateFile);
    QVERIFY(done.isEmpty());
    control.stopScan();
    QVERIFY(done.wait(30000));
    QVERIFY(logText().contains(u"The user clicks Stop during the matching process."_s));
    QTest::qWait(50);
    QCOMPARE(done.size(), 1);
}

void TestTControlUI::timerStopsCountingOnStop()
{
    writeTree(2, 10);
    TControlUI control;
    configure(control);
    QSignalSpy ticks(&control, &TControlUI::onUpdateTimer);
    QSignalSpy done(&control, &TControlUI::onAllComplate);
    control.startScan({tree->path()});
    control.stopScan();
    QVERIFY(done.wait(30000));
    const qint64 seconds = control.elapsedSecondsCount();
    QTest::qWait(1300);
    QCOMPARE(control.elapsedSecondsCount(), seconds);
    QVERIFY(ticks.isEmpty());
}

void TestTControlUI::similarPhase_data()
{
    QTest::addColumn<bool>("similar");
    QTest::addColumn<bool>("features");
    QTest::newRow("off") << false << false;
    QTest::newRow("on") << true << false;
    QTest::newRow("on with features") << true << true;
}

void TestTControlUI::similarPhase()
{
    QFETCH(bool, similar);
    QFETCH(bool, features);
    writeImages(6, 64);
    TControlUI control;
    configure(control);
    prefs->general->hasSimilar = similar;
    prefs->general->isAddFeatures = features;
    QSignalSpy done(&control, &TControlUI::onAllComplate);
    QSignalSpy progress(&control, &TControlUI::processChange);
    control.startScan({tree->path()});
    QVERIFY(done.wait(60000));
    QCOMPARE(done.size(), 1);
    QCOMPARE(control.status(), similar ? TControlUI::SimilarFile : TControlUI::DuplicateFile);
    QCOMPARE(control.phaseWeights().value(2).enabled, similar);
    QCOMPARE(control.phaseWeights().value(4).enabled, similar && features);
    QVERIFY(!progress.isEmpty());
    QCOMPARE(progress.constLast().at(0).toDouble(), 100.0);
    const QString log = logText();
    QCOMPARE(log.contains(u"Duplicate Group: [0]; Unique Image: [6]."_s), similar);
    // Each single-colour picture and its half-size copy form a group.
    int similarGroups = 0;
    for (const QStringList &members : std::as_const(TFileData::instance().duplicateGroups))
        similarGroups += members.constFirst().contains(u"_simlar_"_s) ? 1 : 0;
    QCOMPARE(similarGroups > 0, similar);
}

void TestTControlUI::stopWhileMatchingImages()
{
    writeImages(120, 1200);
    TControlUI control;
    configure(control);
    prefs->general->hasSimilar = true;
    QSignalSpy done(&control, &TControlUI::onAllComplate);
    control.startScan({tree->path()});
    QElapsedTimer clock;
    clock.start();
    while (control.status() != TControlUI::SimilarFile && done.isEmpty() && clock.elapsed() < 30000) {
        QCoreApplication::processEvents();
        QThread::msleep(1);
    }
    QCOMPARE(control.status(), TControlUI::SimilarFile);
    control.stopScan();
    QVERIFY(done.size() == 1 || done.wait(30000));
    QVERIFY(logText().contains(u"[TControlUI]: User clicks to stop the matching similar images process."_s));
    QTest::qWait(50);
    QCOMPARE(done.size(), 1);
}

TWINFOLD_TEST_MAIN(TestTControlUI)
#include "tst_tcontrolui.moc"
