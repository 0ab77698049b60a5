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

using namespace Qt::StringLiterals;

class TestTLogger : public QObject
{
    Q_OBJECT

    // The messages of the one log file in appDir, checking the daily file name and each
    // line's time prefix.
    static QStringList messages(const QString &appDir)
    {
        TLogger::flush();
        const QDir log(appDir + u"/Log"_s);
        const QStringList files = log.entryList(QDir::Files);
        static const QRegularExpression name(u"^log_\\d{4}-\\d{2}-\\d{2}\\.log$"_s);
        QFile file(log.filePath(files.value(0)));
        if (files.size() != 1 || !name.match(files.first()).hasMatch() || !file.open(QIODevice::ReadOnly))
            return {u"<files: %1>"_s.arg(files.join(u','))};
        static const QRegularExpression line(u"^\\[\\d{2}:\\d{2}:\\d{2}\\.\\d{3}\\]:(.*)$"_s);
        QStringList out;
        for (const QString &text : QString::fromUtf8(file.readAll()).split(u'\n', Qt::SkipEmptyParts)) {
            const QRegularExpressionMatch m = line.match(text);
            out.append(m.hasMatch() ? m.captured(1) : u"<bad line: %1>"_s.arg(text));
        }
        return out;
    }

private slots:
    void cleanup() { TLogger::shutdown(); }

    void folderAndFileNames()
    {
        QCOMPARE(TLogger::appDir(), QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
                                        u"/Orvant/Twinfold/"_s);
        const auto day = [] { return u"log_%1.log"_s.arg(QDate::currentDate().toString(Qt::ISODate)); };
        const QString before = day(), name = TLogger::todaysFileName(); // either side of a midnight
        QVERIFY2(name == before || name == day(), qPrintable(name));
    }

    void collapsesWhiteSpace_data()
    {
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("written");
        QTest::newRow("line breaks") << u"[X]: one\ntwo\r\n\r\nthree"_s << u"[X]: one two three"_s;
        QTest::newRow("tabs, edges, non-latin")
            << u"\t [X]:   Größe\t\t日本\n語  \n"_s << u"[X]: Größe 日本 語"_s;
        QTest::newRow("format characters kept") << u"[X]: {} %s %1"_s << u"[X]: {} %s %1"_s;
    }
    void collapsesWhiteSpace()
    {
        QFETCH(QString, message);
        QFETCH(QString, written);
        QTemporaryDir dir;
        QVERIFY(TLogger::init(dir.path() + u'/'));
        logInfo(message);
        QCOMPARE(messages(dir.path()), QStringList{written});
    }

    // Dropped before init and after shutdown; a re-init switches folders (also one with
    // non-ASCII letters) and appends to an existing day file.
    void lifecycle()
    {
        QTemporaryDir first, temp;
        const QString second = temp.path() + u"/Jürgen Ø 日本/Orvant/Twinfold/"_s;
        logInfo(u"[T]: before init"_s);
        QVERIFY(TLogger::init(first.path()));
        logInfo(u"[T]: one"_s);
        QVERIFY(TLogger::init(second));
        logInfo(u"[T]: two"_s);
        QVERIFY(TLogger::init(first.path()));
        logInfo(u"[T]: three"_s);
        TLogger::shutdown();
        logInfo(u"[T]: after shutdown"_s);
        QCOMPARE(messages(first.path()), (QStringList{u"[T]: one"_s, u"[T]: three"_s}));
        QCOMPARE(messages(second), QStringList{u"[T]: two"_s});
    }

    void unusableFolder()
    {
        QTemporaryDir dir;
        QVERIFY(
            QFile(dir.filePath(u"Log"_s)).open(QIODevice::WriteOnly)); // a file where the folder should be
        QTest::ignoreMessage(QtDebugMsg, QRegularExpression(u"^Failed to create writable directory:"_s));
        QTest::ignoreMessage(QtDebugMsg, QRegularExpression(u"^Failed to create the log:"_s));
        QVERIFY(!TLogger::init(dir.path()));
        logInfo(u"[T]: nowhere to go"_s);
        QVERIFY(QFileInfo(dir.filePath(u"Log"_s)).isFile());
    }

    // Short and long lines from several threads at once: each arrives whole, once.
    void threadsWriteWholeLines()
    {
        constexpr int kThreads = 6, kEach = 600;
        const auto payload = [](int t, int i) { return QString((i % 40) * 80 + 1, QChar(u'a' + t)); };
        QTemporaryDir dir;
        QVERIFY(TLogger::init(dir.path()));
        std::vector<std::unique_ptr<QThread>> workers;
        for (int t = 0; t < kThreads; ++t) {
            workers.emplace_back(QThread::create([t, payload] {
                for (int i = 0; i < kEach; ++i)
                    logInfo(u"[W%1]: %2 %3\n"_s.arg(t).arg(i).arg(payload(t, i)));
            }));
            workers.back()->start();
        }
        for (auto &w : workers)
            QVERIFY(w->wait());

        const QStringList lines = messages(dir.path());
        QCOMPARE(lines.size(), kThreads * kEach);
        static const QRegularExpression whole(u"^\\[W(\\d+)\\]: (\\d+) ([a-z]+)$"_s);
        QSet<QString> seen;
        for (const QString &line : lines) {
            const QRegularExpressionMatch m = whole.match(line);
            QVERIFY2(m.hasMatch(), qPrintable(line.left(200)));
            QCOMPARE(m.captured(3), payload(m.captured(1).toInt(), m.captured(2).toInt()));
            seen.insert(m.captured(1) + u'/' + m.captured(2));
        }
        QCOMPARE(seen.size(), kThreads * kEach);
    }
};

TWINFOLD_TEST_MAIN(TestTLogger)
#include "tst_tlogger.moc"
