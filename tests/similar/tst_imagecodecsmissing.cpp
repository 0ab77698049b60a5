// The codec module is looked for once per process, so running without it needs a program
// of its own. CTest runs this one twice: with an empty module folder, and with
// TWINFOLD_TEST_BROKEN_CODECS set, where a file of the module's name holds no library.

#include "TestMain.h"
#include "TodaysLog.h"

#include "app/TLogger.h"
#include "similar/ImageCodecs.h"
#include "similar/TReadImage.h"

#include <QBuffer>
#include <QImage>
#include <QTemporaryDir>

#include <atomic>
#include <thread>

using namespace Qt::StringLiterals;

class TestImageCodecsMissing : public QObject
{
    Q_OBJECT

    QTemporaryDir logDir;
    QTemporaryDir dir;
    QTemporaryDir moduleDir;
    QString modulePath;
    bool broken = false;

    QString log() const { return todaysLog(logDir.path()); }

private slots:
    void initTestCase()
    {
        QVERIFY(logDir.isValid() && dir.isValid() && moduleDir.isValid());
        QVERIFY(initLogger(logDir.path()));
        broken = qEnvironmentVariableIsSet("TWINFOLD_TEST_BROKEN_CODECS");
        modulePath = moduleDir.filePath(QString::fromUtf8(TWINFOLD_CODECS_FILE_NAME));
        QFile module(modulePath);
        QVERIFY(!broken || (module.open(QIODevice::WriteOnly) && module.write(QByteArray(8192, '\x7f')) > 0));
        module.close();
        qputenv("TWINFOLD_CODECS_DIR", QFile::encodeName(moduleDir.path()));
    }

    // Every thread gets an empty matrix, none an exception, and the reason is logged once.
    void unavailableFromManyThreads()
    {
        std::atomic<int> ready{0};
        std::atomic<int> decoded{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 6; ++i)
            threads.emplace_back([&, i] {
                ready.fetch_add(1);
                while (ready.load() < 6)
                    std::this_thread::yield();
                const cv::Mat bytes(1, 64, CV_8UC1, cv::Scalar(i));
                const bool empty =
                    i % 2 ? ImageCodecs::decode(bytes, ImageCodecs::ReadColor).empty()
                          : ImageCodecs::read("/nonexistent.png", ImageCodecs::ReadColor).empty();
                decoded.fetch_add(empty ? 0 : 1);
            });
        for (std::thread &thread : threads)
            thread.join();
        QCOMPARE(decoded.load(), 0);
        QVERIFY(!ImageCodecs::isAvailable());
        const QString text = log();
        QCOMPARE(text.count(u"[TReadImage]: image codecs unavailable: "_s), 1);
        // QLibrary's reason names the file it tried.
        QVERIFY2(text.contains(modulePath), qPrintable(text));
    }

    // The image reader goes on to Qt's decoders and still gets the picture.
    void readerFallsBack()
    {
        QImage image(300, 200, QImage::Format_RGB32);
        image.fill(QColor(0, 0, 255));
        const QString path = dir.filePath(u"blue.png"_s);
        QVERIFY(image.save(path, "PNG"));
        int width = 0, height = 0;
        const cv::Mat mat = TReadImage::readImageToMat(path, width, height);
        QCOMPARE(QSize(mat.cols, mat.rows), QSize(300, 200));
        QCOMPARE(QSize(width, height), QSize(300, 200));
        QVERIFY(!mat.empty() && mat.type() == CV_8UC3);
        QVERIFY(log().contains(u"[TImageRead]: imdecode returned empty: %1\n"_s.arg(path)));
        QCOMPARE(log().count(u"image codecs unavailable"_s), 1);

        const QString missing = dir.filePath(u"missing.png"_s);
        QVERIFY(TReadImage::readImageToMat(missing, width, height).empty());
        QVERIFY(log().contains(u"[TReadImage]: QImageReader failed. File: %1\n"_s.arg(missing)));
    }
};

TWINFOLD_TEST_MAIN(TestImageCodecsMissing)
#include "tst_imagecodecsmissing.moc"
