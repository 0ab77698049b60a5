#include "TestMain.h"
#include "TodaysLog.h"

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

    std::unique_ptr<QTemporaryDir> appDir, tree;
    std::unique_ptr<TWPreferences> prefs;
    qsizetype logMark = 0;

    // Pairs of equal files of growing size in two folders "left" and "right".
    void writeTree(int pairs, int bytes)
    {
        for (int i = 0; i < pairs; ++i) {
            const QByteArray data = QByteArray(bytes + i, char('a' + i % 26)) + QByteArray::number(i);
            for (const QString &side : {u"left"_s, u"right"_s}) {
                QFile f(tree->filePath(u"%1/%2.bin"_s.arg(side).arg(i)));
                QVERIFY(QDir().mkpath(tree->filePath(side)) && f.open(QIODevice::WriteOnly));
                QCOMPARE(f.write(data), data.size());
            }
        }
    }
    // Single-colour pictures; every second one is a half-size copy of the one before it.
    void writeImages(int count, int side)
    {
        QVERIFY(QDir().mkpath(tree->filePath(u"img"_s)));
        for (int i = 0; i < count; ++i) {
            QImage image(side, side * 3 / 4, QImage::Format_RGB32);
            image.fill(QColor::fromHsv((i * 37) % 360, 200, 120 + i % 100));
            if (i % 2 == 1)
                image = QImage(tree->filePath(u"img/%1.png"_s.arg(i - 1))).scaledToWidth(side / 2);
            QVERIFY(image.save(tree->filePath(u"img/%1.png"_s.arg(i))));
        }
    }
    // What this test added to the shared log.
    QString logText() const { return todaysLog(appDir->path()).mid(logMark); }

private slots:
    void initTestCase()
    {
        appDir = std::make_unique<QTemporaryDir>();
        QVERIFY(initLogger(appDir->path()));
    }
    void init()
    {
        tree = std::make_unique<QTemporaryDir>();
        prefs = std::make_unique<TWPreferences>(appDir->filePath(u"preferences.cfg"_s));
        prefs->selection->scanMethod = TWSelectionPreferences::scanAllContent;
        TFileData::instance().clear();
        logMark = 0;
        logMark = logText().size();
    }
    void cleanup() { prefs.reset(); }

    void progressWeights_data()
    {
        QTest::addColumn<qint64>("files");
        QTest::addColumn<QString>("phases");         // f: folders, s: similar images, x: features
        QTest::addColumn<QList<double>>("expected"); // weights of types 0..4
        QTest::newRow("no files") << 0ll << QString() << QList<double>{0, 0, 0, 0, 0};
        QTest::newRow("folders share the rest") << 5000ll << u"f"_s << QList<double>{0.05, 0.95, 0, 0, 0};
        QTest::newRow("capped at 0.15")
            << 2000000ll << u"sx"_s
            << QList<double>{0.15, 0, 0.85 * 0.6 / 0.9, 0.85 * 0.15 / 0.9, 0.85 * 0.15 / 0.9};
        QTest::newRow("similar without features")
            << 10000ll << u"fs"_s
            << QList<double>{0.1, 0.9 * 0.05 / 0.8, 0.9 * 0.6 / 0.8, 0.9 * 0.15 / 0.8, 0};
        QTest::newRow("features need similar") << 1000ll << u"x"_s << QList<double>{0.01, 0, 0, 0, 0};
    }
    void progressWeights()
    {
        QFETCH(qint64, files);
        QFETCH(QString, phases);
        QFETCH(QList<double>, expected);
        const bool folders = phases.contains(u'f'), similar = phases.contains(u's');
        const auto weights = TControlUI::progressWeights(files, folders, similar, phases.contains(u'x'));
        QCOMPARE(weights.size(), 5);
        double enabledSum = 0;
        for (int type = 0; type < 5; ++type) {
            QVERIFY2(qAbs(weights.value(type).weight - expected.at(type)) < 1e-12,
                     qPrintable(u"type %1: %2"_s.arg(type).arg(weights.value(type).weight)));
            enabledSum += weights.value(type).enabled ? weights.value(type).weight : 0;
        }
        // The enabled phases together fill the bar whenever there is anything to weigh.
        if (files > 0 && (folders || similar))
            QVERIFY(qAbs(enabledSum - 1.0) < 1e-12);
    }

    // A whole run over two identical folders, or over pictures with the similar phase off or on.
    void fullRun_data()
    {
        QTest::addColumn<bool>("images");
        QTest::addColumn<bool>("similar");
        QTest::addColumn<bool>("features");
        QTest::newRow("identical folders") << false << false << false;
        QTest::newRow("images, similar off") << true << false << false;
        QTest::newRow("images, similar on") << true << true << false;
        QTest::newRow("images, with features") << true << true << true;
    }
    void fullRun()
    {
        QFETCH(bool, images);
        QFETCH(bool, similar);
        QFETCH(bool, features);
        images ? writeImages(6, 64) : writeTree(20, 3000);
        TControlUI control;
        prefs->selection->scanDupDirectory = !images;
        prefs->general->hasSimilar = similar;
        prefs->general->isAddFeatures = features;
        control.setPreferences(prefs->ignoreList, prefs->selection, prefs->general);
        QSignalSpy done(&control, &TControlUI::onAllComplate);
        QSignalSpy progress(&control, &TControlUI::processChange);
        QSignalSpy found(&control, &TControlUI::onDuplicateItemFound);
        control.startScan({tree->path()});
        QVERIFY(done.wait(60000));
        QCOMPARE(done.size(), 1);
        QCOMPARE(control.runState(), TControlUI::Stoped);
        QCOMPARE(control.status(), similar ? TControlUI::SimilarFile : TControlUI::DuplicateFile);
        QCOMPARE(control.phaseWeights().value(2).enabled, similar);
        QCOMPARE(control.phaseWeights().value(4).enabled, similar && features);
        double last = -1;
        for (const auto &args : progress) {
            QVERIFY2(args.at(0).toDouble() >= last - 1e-9, "overall progress never goes back");
            last = args.at(0).toDouble();
        }
        QCOMPARE(last, 100.0);
        const QString log = logText();
        QVERIFY(log.contains(u"[TControlUI]: All tasks are completed."_s));
        QCOMPARE(log.contains(u"Duplicate Group: [0]; Unique Image: [6]."_s), similar);
        const TFileData &store = TFileData::instance();
        if (!images) {
            QCOMPARE(control.scannedFileCount(), 40);
            QCOMPARE(found.isEmpty() ? -1 : found.constLast().at(0).toInt(), 40);
            // The two folders hold the same files: one folder group replaces the file groups.
            QCOMPARE(store.folderGroups.size(), 1);
            QVERIFY(store.duplicateGroups.isEmpty());
            return;
        }
        // Each single-colour picture and its half-size copy form a group.
        int similarGroups = 0;
        for (const QStringList &members : std::as_const(store.duplicateGroups))
            similarGroups += members.constFirst().contains(u"_simlar_"_s) ? 1 : 0;
        QCOMPARE(similarGroups > 0, similar);
    }

    // A stop in each phase ends the run once, says so in the log, and stops the clock.
    void stopInPhase_data()
    {
        QTest::addColumn<TControlUI::CurrentStatus>("phase");
        QTest::addColumn<QString>("logged");
        QTest::newRow("scanning") << TControlUI::ScaningFile
                                  << u"The user clicks Stop during the scanning process."_s;
        QTest::newRow("matching") << TControlUI::DuplicateFile
                                  << u"The user clicks Stop during the matching process."_s;
        QTest::newRow("matching images")
            << TControlUI::SimilarFile
            << u"[TControlUI]: User clicks to stop the matching similar images process."_s;
    }
    void stopInPhase()
    {
        QFETCH(TControlUI::CurrentStatus, phase);
        QFETCH(QString, logged);
        phase == TControlUI::SimilarFile   ? writeImages(120, 1200)
        : phase == TControlUI::ScaningFile ? writeTree(200, 100)
                                           : writeTree(150, 65536);
        TControlUI control;
        prefs->general->hasSimilar = phase == TControlUI::SimilarFile;
        control.setPreferences(prefs->ignoreList, prefs->selection, prefs->general);
        QSignalSpy done(&control, &TControlUI::onAllComplate);
        QSignalSpy ticks(&control, &TControlUI::onUpdateTimer);
        control.startScan({tree->path()});
        // A deadline for a stuck run, not a measurement.
        (void)QTest::qWaitFor([&] { return control.status() == phase || !done.isEmpty(); }, 30000);
        QVERIFY(control.status() == phase && done.isEmpty());
        control.stopScan();
        QVERIFY(done.size() == 1 || done.wait(30000));
        QVERIFY2(logText().contains(logged), qPrintable(logText()));
        if (phase == TControlUI::ScaningFile)
            QVERIFY(TFileData::instance().duplicateGroups.isEmpty()); // no matching started
        const qint64 seconds = control.elapsedSecondsCount();
        const qsizetype tickCount = ticks.size();
        QTest::qWait(1300);
        QCOMPARE(done.size(), 1);
        QCOMPARE(control.elapsedSecondsCount(), seconds);
        QCOMPARE(ticks.size(), tickCount);
        QCOMPARE(control.status(), phase);
    }
};

TWINFOLD_TEST_MAIN(TestTControlUI)
#include "tst_tcontrolui.moc"
