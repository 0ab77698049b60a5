#include "app/TLogger.h"

#include "TestMain.h"

#include <QDate>
#include <QDir>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QThread>

#include <memory>
#include <vector>

class TestTLogger : public QObject
{
    Q_OBJECT

    // The messages of the one log file in appDir, checking each line's time prefix.
    static QStringList messages(const QString &appDir)
    {
        TLogger::flush();
        const QDir log(appDir + QStringLiteral("/Log"));
        const QStringList files = log.entryList(QDir::Files);
        if (files.size() != 1)
            return {QStringLiteral("<%1 files>").arg(files.size())};
        QFile file(log.filePath(files.first()));
        if (!file.open(QIODevice::ReadOnly))
            return {QStringLiteral("<unreadable>")};
        static const QRegularExpression line(QStringLiteral("^\\[\\d{2}:\\d{2}:\\d{2}\\.\\d{3}\\]:(.*)$"));
        QStringList out;
        for (const QString &text :
             QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
            const QRegularExpressionMatch m = line.match(text);
            out.append(m.hasMatch() ? m.captured(1) : QStringLiteral("<bad line: %1>").arg(text));
        }
        return out;
    }

private slots:
    void cleanup() { TLogger::shutdown(); }

    void appDirIsUnderGenericConfig()
    {
        QCOMPARE(TLogger::appDir(), QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
                                        QStringLiteral("/Orvant/Twinfold/"));
    }

    void collapsesWhiteSpace_data()
    {
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("written");
        QTest::newRow("plain") << QStringLiteral("[Main]: hello") << QStringLiteral("[Main]: hello");
        QTest::newRow("line breaks") << QStringLiteral("[X]: one\ntwo\r\n\r\nthree")
                                     << QStringLiteral("[X]: one two three");
        QTest::newRow("blank runs, tabs, edges")
            << QStringLiteral("\t [X]:   a\t\tb  \n") << QStringLiteral("[X]: a b");
        QTest::newRow("non-latin") << QStringLiteral("[X]: Größe  日本\n語")
                                   << QStringLiteral("[X]: Größe 日本 語");
        QTest::newRow("format characters kept")
            << QStringLiteral("[X]: {} %s %1") << QStringLiteral("[X]: {} %s %1");
    }
    void collapsesWhiteSpace()
    {
        QFETCH(QString, message);
        QFETCH(QString, written);
        QTemporaryDir dir;
        QVERIFY(TLogger::init(dir.path() + QLatin1Char('/')));
        logInfo(message);
        QCOMPARE(messages(dir.path()), QStringList{written});
    }

    void dailyFileName()
    {
        QTemporaryDir dir;
        const QDate before = QDate::currentDate();
        QVERIFY(TLogger::init(dir.path()));
        logInfo(QStringLiteral("[T]: x"));
        TLogger::flush();
        const QDate after = QDate::currentDate();
        const QStringList files = QDir(dir.path() + QStringLiteral("/Log")).entryList(QDir::Files);
        QCOMPARE(files.size(), 1);
        QStringList allowed; // either side of a midnight during the test
        for (const QDate &d : {before, after})
            allowed << QStringLiteral("log_%1-%2-%3.log")
                           .arg(d.year())
                           .arg(d.month(), 2, 10, QLatin1Char('0'))
                           .arg(d.day(), 2, 10, QLatin1Char('0'));
        QVERIFY2(allowed.contains(files.first()), qPrintable(files.first()));
        QVERIFY(allowed.contains(TLogger::todaysFileName()));
    }

    void lifecycle()
    {
        QTemporaryDir first, second;
        TLogger::shutdown();
        logInfo(QStringLiteral("[T]: before init")); // dropped, not queued
        QVERIFY(TLogger::init(first.path()));
        logInfo(QStringLiteral("[T]: one"));
        QVERIFY(TLogger::init(second.path())); // a re-init switches folders
        logInfo(QStringLiteral("[T]: two"));
        QVERIFY(TLogger::init(first.path())); // and appends to an existing day file
        logInfo(QStringLiteral("[T]: three"));
        TLogger::shutdown();
        logInfo(QStringLiteral("[T]: after shutdown"));
        QCOMPARE(messages(first.path()),
                 (QStringList{QStringLiteral("[T]: one"), QStringLiteral("[T]: three")}));
        QCOMPARE(messages(second.path()), QStringList{QStringLiteral("[T]: two")});
    }

    void nonAsciiFolder()
    {
        QTemporaryDir dir;
        const QString appDir = dir.path() + QStringLiteral("/Jürgen Ø 日本/Orvant/Twinfold/");
        QVERIFY(TLogger::init(appDir));
        logInfo(QStringLiteral("[T]: ok"));
        QCOMPARE(messages(appDir), QStringList{QStringLiteral("[T]: ok")});
    }

    void unusableFolder()
    {
        QTemporaryDir dir;
        QFile blocker(dir.filePath(QStringLiteral("Log"))); // a file where the folder should be
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        QTest::ignoreMessage(QtDebugMsg,
                             QRegularExpression(QStringLiteral("^Failed to create writable directory:")));
        QTest::ignoreMessage(QtDebugMsg, QRegularExpression(QStringLiteral("^Failed to create the log:")));
        QVERIFY(!TLogger::init(dir.path()));
        logInfo(QStringLiteral("[T]: nowhere to go"));
        QVERIFY(QFileInfo(blocker.fileName()).isFile());
    }

    void threadsWriteWholeLines_data()
    {
        QTest::addColumn<int>("threads");
        QTest::addColumn<int>("perThread");
        QTest::addColumn<int>("payload");
        QTest::newRow("2 x 2000 short") << 2 << 2000 << 8;
        QTest::newRow("8 x 400 long") << 8 << 400 << 3000;
    }
    void threadsWriteWholeLines()
    {
        QFETCH(int, threads);
        QFETCH(int, perThread);
        QFETCH(int, payload);
        QTemporaryDir dir;
        QVERIFY(TLogger::init(dir.path()));
        std::vector<std::unique_ptr<QThread>> workers;
        for (int t = 0; t < threads; ++t) {
            workers.emplace_back(QThread::create([t, perThread, payload] {
                for (int i = 0; i < perThread; ++i)
                    logInfo(QStringLiteral("[W%1]: %2 %3\n")
                                .arg(t)
                                .arg(i)
                                .arg(QString(payload, QChar(u'a' + t))));
            }));
            workers.back()->start();
        }
        for (auto &w : workers)
            QVERIFY(w->wait());

        const QStringList lines = messages(dir.path());
        QCOMPARE(lines.size(), threads * perThread);
        static const QRegularExpression whole(QStringLiteral("^\\[W(\\d+)\\]: (\\d+) ([a-z]+)$"));
        QSet<QString> seen;
        for (const QString &line : lines) {
            const QRegularExpressionMatch m = whole.match(line);
            QVERIFY2(m.hasMatch(), qPrintable(line.left(200)));
            QCOMPARE(m.captured(3), QString(payload, QChar(u'a' + m.captured(1).toInt())));
            seen.insert(m.captured(1) + QLatin1Char('/') + m.captured(2));
        }
        QCOMPARE(seen.size(), threads * perThread);
    }
};

TWINFOLD_TEST_MAIN(TestTLogger)
#include "tst_tlogger.moc"
