#include "TestMain.h"

#include "app/TLogger.h"
#include "scan/FileCategory.h"
#include "similar/ImageCacheManager.h"
#include "similar/ImageData.h"

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

using namespace Qt::StringLiterals;

class TestImageData : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void loadImageData_data();
    void loadImageData();
    void fitSize_data();
    void fitSize();
    void orbWorkingSize_data();
    void orbWorkingSize();
    void resizeAndHistogram();
    void orbDescriptors();

private:
    QString logText() const;
    QString writeImage(const QString &name, const cv::Mat &image);
    std::unique_ptr<QTemporaryDir> appDir;
    QTemporaryDir files;
};

namespace {
cv::Mat texture(int width, int height)
{
    cv::Mat noise(std::max(1, height / 8), std::max(1, width / 8), CV_8UC3);
    cv::RNG(5).fill(noise, cv::RNG::UNIFORM, 0, 256);
    cv::Mat image;
    cv::resize(noise, image, cv::Size(width, height), 0, 0, cv::INTER_NEAREST);
    return image;
}
} // namespace

void TestImageData::initTestCase()
{
    appDir = std::make_unique<QTemporaryDir>();
    QVERIFY(initLogger(appDir->path()));
    ImageCacheManager::instance(appDir->filePath(u"cache"_s)).setMaxCache();
}

QString TestImageData::logText() const
{
    TLogger::flush();
    QFile f(appDir->filePath(u"Log/"_s + TLogger::todaysFileName()));
    return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
}

QString TestImageData::writeImage(const QString &name, const cv::Mat &image)
{
    const QString path = files.filePath(name);
    std::vector<uchar> png;
    cv::imencode(".png", image, png);
    QFile f(path);
    if (f.open(QIODevice::WriteOnly))
        f.write(reinterpret_cast<const char *>(png.data()), qint64(png.size()));
    return path;
}

void TestImageData::loadImageData_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("validPng");
    QTest::addColumn<bool>("useHash");
    QTest::addColumn<bool>("ok");
    QTest::addColumn<QString>("suffix");
    // A real picture under an excluded suffix proves that it is never decoded.
    QTest::newRow("upper-case GIF excluded") << u"a.GIF"_s << true << true << false << u"gif"_s;
    QTest::newRow("raw excluded") << u"b.Raw"_s << true << false << false << u"raw"_s;
    QTest::newRow("corrupt jpeg") << u"c.jpg"_s << false << false << false << u"jpg"_s;
    QTest::newRow("hash") << u"d.PNG"_s << true << true << true << u"png"_s;
    QTest::newRow("histogram") << u"e.png"_s << true << false << true << u"png"_s;
}

void TestImageData::loadImageData()
{
    QFETCH(QString, name);
    QFETCH(bool, validPng);
    QFETCH(bool, useHash);
    QFETCH(bool, ok);
    QFETCH(QString, suffix);
    QString path = files.filePath(name);
    if (validPng) {
        path = writeImage(name, texture(1600, 120));
    } else {
        QFile f(path);
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write("\xFF\xD8 not really a jpeg");
    }
    ImageData r(path, false);
    QCOMPARE(r.similarity, 100);
    QCOMPARE(r.loadImageData(useHash), ok);
    QVERIFY(r.loaded);
    QCOMPARE(r.failed, !ok);
    QCOMPARE(r.cached, ok);
    QCOMPARE(r.suffix, suffix);
    QCOMPARE(r.pathKey, groupKey(path));
    QCOMPARE(r.pathKey.size(), 32);
    QVERIFY(r.featureMat.empty());
    const cv::Mat feature = r.getFeature();
    if (!ok) {
        QVERIFY(feature.empty());
        QCOMPARE(r.width, 0);
        return;
    }
    // The size before the decoder's cap.
    QCOMPARE(r.width, 1600);
    QCOMPARE(r.height, 120);
    if (useHash) {
        QCOMPARE(feature.rows, 1);
        QCOMPARE(feature.cols, 8);
        QCOMPARE(feature.type(), CV_8UC1);
    } else {
        QCOMPARE(feature.rows, 50);
        QCOMPARE(feature.cols, 60);
        double lo = 0, hi = 0;
        cv::minMaxLoc(feature, &lo, &hi);
        QCOMPARE(lo, 0.0);
        QCOMPARE(hi, 1.0);
    }
    // A second load returns at once, even once the file is gone.
    QVERIFY(QFile::remove(path));
    QVERIFY(r.loadImageData(!useHash));
    QCOMPARE(r.getFeature().total(), feature.total());
}

void TestImageData::fitSize_data()
{
    QTest::addColumn<QList<int>>("input"); // width, height, maxWidth, maxHeight
    QTest::addColumn<QSize>("expected");
    QTest::newRow("zero side") << QList<int>{0, 5, 10, 10} << QSize(0, 0);
    QTest::newRow("negative side") << QList<int>{5, -1, 10, 10} << QSize(0, 0);
    QTest::newRow("fits exactly") << QList<int>{1024, 1024, 1024, 1024} << QSize(1024, 1024);
    QTest::newRow("wide") << QList<int>{2048, 1000, 1024, 1024} << QSize(1024, 500);
    QTest::newRow("truncated") << QList<int>{3000, 1999, 1024, 1024} << QSize(1024, 682);
    QTest::newRow("thin side kept at 1") << QList<int>{5000, 2, 1024, 1024} << QSize(1024, 1);
    QTest::newRow("tall") << QList<int>{6, 7000, 512, 512} << QSize(1, 512);
}

void TestImageData::fitSize()
{
    QFETCH(QList<int>, input);
    QFETCH(QSize, expected);
    QCOMPARE(ImageData::fitSize(input[0], input[1], input[2], input[3]), expected);
}

void TestImageData::orbWorkingSize_data()
{
    QTest::addColumn<QSize>("image");
    QTest::addColumn<QSize>("working");
    QTest::newRow("3x200 enlarged") << QSize(3, 200) << QSize(15, 1000);
    QTest::newRow("300x4 enlarged") << QSize(300, 4) << QSize(1500, 20);
    QTest::newRow("500x3000 unscaled") << QSize(500, 3000) << QSize(500, 3000);
    QTest::newRow("512 wide unscaled") << QSize(512, 100) << QSize(512, 100);
    QTest::newRow("513 wide scaled") << QSize(513, 10) << QSize(512, 9);
    QTest::newRow("wide") << QSize(1024, 768) << QSize(512, 384);
    QTest::newRow("too thin after scaling") << QSize(1024, 10) << QSize();
}

void TestImageData::orbWorkingSize()
{
    QFETCH(QSize, image);
    QFETCH(QSize, working);
    QCOMPARE(ImageData::orbWorkingSize(image.width(), image.height()), working);
}

void TestImageData::resizeAndHistogram()
{
    const cv::Mat image = texture(300, 200);
    QCOMPARE(ImageData::resizeForHash(image).size(), cv::Size(64, 64));
    QCOMPARE(ImageData::resizeForHash(texture(3, 200)).size(), cv::Size(64, 64));
    QVERIFY(ImageData::resizeForHash(cv::Mat(), u"/x/empty.png"_s).empty());
    QVERIFY(logText().contains(u"[ImageData] resizeForHistogram(): Invalid image size.file:/x/empty.png."_s));
    const cv::Mat same = ImageData::resizeForHistogram(image);
    QCOMPARE(same.size(), image.size());
    QVERIFY(same.data != image.data);
    QCOMPARE(cv::norm(same, image, cv::NORM_INF), 0.0);
    QCOMPARE(ImageData::resizeForHistogram(texture(2000, 500)).size(), cv::Size(1024, 256));

    // Pure red: hue 0, saturation 255, so everything lands in the first hue row's last bin.
    cv::Mat histogram;
    ImageData::computeHistogram(cv::Mat(10, 10, CV_8UC3, cv::Scalar(0, 0, 255)), histogram);
    QCOMPARE(histogram.size(), cv::Size(60, 50));
    QCOMPARE(histogram.at<float>(0, 59), 1.f);
    QCOMPARE(cv::sum(histogram)[0], 1.0);
    cv::Mat grey(4, 4, CV_8UC1, cv::Scalar(200));
    grey.at<uchar>(0, 0) = 10;
    ImageData::computeHistogram(grey, histogram);
    QCOMPARE(histogram.size(), cv::Size(1, 256));
    QCOMPARE(histogram.at<float>(200), 1.f);
    QCOMPARE(histogram.at<float>(10), 1.f / 15.f); // 1 pixel against 15, minimum 0
    ImageData::computeHistogram(cv::Mat(), histogram);
    QVERIFY(histogram.empty());
    QVERIFY(logText().contains(u"[ImageData] computeHistogram(): Invalid image for histogram."_s));
}

void TestImageData::orbDescriptors()
{
    ImageData textured(writeImage(u"t.png"_s, texture(400, 300)), false);
    const cv::Mat first = textured.getOrbDescriptors();
    QVERIFY(!first.empty());
    QCOMPARE(first.cols, 32);
    QVERIFY(first.rows <= 500);
    QCOMPARE(textured.getOrbDescriptors().data, first.data);
    QVERIFY(!textured.failed);

    ImageData flat(writeImage(u"flat.png"_s, cv::Mat(300, 300, CV_8UC3, cv::Scalar(9, 9, 9))), false);
    QVERIFY(flat.getOrbDescriptors().empty());
    QVERIFY(flat.failed);

    ImageData missing(files.filePath(u"missing.png"_s), false);
    QVERIFY(missing.getOrbDescriptors().empty());
    QVERIFY(missing.failed);
    QVERIFY(logText().contains(u"[ImageData] Invalid or empty image: cols=0, rows=0"_s));
    // A failed record is not read again: even a file that appears later is ignored.
    writeImage(u"missing.png"_s, texture(400, 300));
    QVERIFY(missing.getOrbDescriptors().empty());
    QVERIFY(ImageData(u"/nowhere.png"_s, false).getFeature().empty());
}

TWINFOLD_TEST_MAIN(TestImageData)
#include "tst_imagedata.moc"
