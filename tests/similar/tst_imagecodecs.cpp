#include "TestMain.h"
#include "TodaysLog.h"

#include "app/TLogger.h"
#include "similar/ImageCodecs.h"

#include <QBuffer>
#include <QImage>
#include <QTemporaryDir>

#include <opencv2/core.hpp>

#include <atomic>
#include <thread>

using namespace Qt::StringLiterals;

namespace {

// Encoded by Qt, not by the codecs under test: a dark red field with one blue corner pixel.
QByteArray encoded(int width, int height, const char *format)
{
    QImage image(width, height, QImage::Format_RGB32);
    image.fill(QColor(200, 20, 10));
    image.setPixelColor(width - 1, height - 1, QColor(10, 20, 200));
    QByteArray bytes;
    QBuffer buffer(&bytes);
    return image.save(&buffer, format) ? bytes : QByteArray();
}

cv::Mat asMat(const QByteArray &bytes)
{
    // A private copy: the decoder must not depend on the QByteArray outliving the call.
    return cv::Mat(1, int(bytes.size()), CV_8UC1, const_cast<char *>(bytes.constData())).clone();
}

} // namespace

class TestImageCodecs : public QObject
{
    Q_OBJECT

    QTemporaryDir logDir;
    QTemporaryDir dir;

    QString log() const { return todaysLog(logDir.path()); }

private slots:
    void initTestCase()
    {
        QVERIFY(logDir.isValid() && dir.isValid());
        QVERIFY(initLogger(logDir.path()));
    }

    // Runs first: the module is loaded by whichever of several threads gets there first,
    // and every one of them must see it loaded.
    void firstUseFromManyThreads()
    {
        const cv::Mat bytes = asMat(encoded(33, 17, "PNG"));
        std::atomic<int> ready{0};
        std::vector<cv::Size> sizes(8);
        std::vector<std::thread> threads;
        for (size_t i = 0; i < sizes.size(); ++i)
            threads.emplace_back([&, i] {
                ready.fetch_add(1);
                while (ready.load() < int(sizes.size()))
                    std::this_thread::yield();
                sizes[i] = ImageCodecs::decode(bytes, ImageCodecs::ReadColor).size();
            });
        for (std::thread &thread : threads)
            thread.join();
        for (const cv::Size &size : sizes)
            QCOMPARE(size, cv::Size(33, 17));
        QVERIFY(ImageCodecs::isAvailable());
        QVERIFY2(!log().contains(u"image codecs unavailable"_s), qPrintable(log()));
    }

    void decode_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<int>("flags");
        QTest::addColumn<QSize>("size"); // empty: nothing decoded
        const int color = ImageCodecs::ReadColor, reduced = ImageCodecs::ReadReducedColor8;
        // What the module adds is the hand-over of bytes, flags and results; the decoders
        // themselves are exercised through the image reader's own tests.
        QTest::newRow("png 1x1") << encoded(1, 1, "PNG") << color << QSize(1, 1);
        QTest::newRow("png 640x480") << encoded(640, 480, "PNG") << color << QSize(640, 480);
        QTest::newRow("jpeg 640x480 reduced") << encoded(640, 480, "JPEG") << reduced << QSize(80, 60);
        QTest::newRow("not an image") << QByteArray(4096, 'x') << color << QSize();
    }
    void decode()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(int, flags);
        QFETCH(QSize, size);
        QVERIFY(!bytes.isEmpty());
        const cv::Mat mat = ImageCodecs::decode(asMat(bytes), flags);
        QCOMPARE(QSize(mat.cols, mat.rows), size.isEmpty() ? QSize(0, 0) : size);
        if (mat.empty())
            return;
        QCOMPARE(mat.type(), CV_8UC3);
        // Blue-green-red order, as OpenCV's decoders give it; JPEG only approximately. In a
        // single pixel image the first pixel is the blue last one.
        const cv::Vec3b corner = mat.at<cv::Vec3b>(0, 0);
        const cv::Vec3i want = mat.total() == 1 ? cv::Vec3i(200, 20, 10) : cv::Vec3i(10, 20, 200);
        QVERIFY2(cv::norm(cv::Vec3i(corner) - want, cv::NORM_INF) <= 40,
                 qPrintable(u"%1 %2 %3"_s.arg(corner[0]).arg(corner[1]).arg(corner[2])));
    }

    // OpenCV refuses empty input with its own exception; the reader's handlers rely on
    // getting exactly that type back across the module boundary.
    void refusedInput()
    {
        bool caught = false;
        try {
            ImageCodecs::decode(cv::Mat(), ImageCodecs::ReadColor);
        } catch (const cv::Exception &e) {
            caught = e.code == cv::Error::StsAssert;
        }
        QVERIFY(caught);
    }

    void read_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QByteArray>("content"); // null: no file is written
        QTest::addColumn<int>("flags");
        QTest::addColumn<QSize>("size");
        const int color = ImageCodecs::ReadColor, reduced = ImageCodecs::ReadReducedColor8;
        QTest::newRow("png reduced") << u"b.png"_s << encoded(120, 80, "PNG") << reduced << QSize(15, 10);
        QTest::newRow("non-ascii name")
            << u"\u00e9t\u00e9 \u5199\u771f.jpg"_s << encoded(32, 24, "JPEG") << color << QSize(32, 24);
        QTest::newRow("missing") << u"missing.png"_s << QByteArray() << color << QSize();
        QTest::newRow("folder") << u"folder.png"_s << QByteArray() << color << QSize();
    }
    void read()
    {
        QFETCH(QString, name);
        QFETCH(QByteArray, content);
        QFETCH(int, flags);
        QFETCH(QSize, size);
        const QString path = dir.filePath(name);
        QFile f(path);
        QVERIFY(content.isNull() || (f.open(QIODevice::WriteOnly) && f.write(content) == content.size()));
        f.close();
        QVERIFY(!name.startsWith(u"folder"_s) || QDir(dir.path()).mkpath(name));
        const cv::Mat mat = ImageCodecs::read(path.toStdString(), flags);
        QCOMPARE(QSize(mat.cols, mat.rows), size.isEmpty() ? QSize(0, 0) : size);
    }
};

TWINFOLD_TEST_MAIN(TestImageCodecs)
#include "tst_imagecodecs.moc"
