#include "TestMain.h"
#include "TodaysLog.h"

#include "app/TLogger.h"
#include "scan/FileCategory.h"
#include "similar/ImageCacheManager.h"
#include "similar/ImageData.h"

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

using namespace Qt::StringLiterals;

namespace {
cv::Mat texture(int width, int height)
{
    cv::Mat noise(std::max(1, height / 8), std::max(1, width / 8), CV_8UC3), image;
    cv::RNG(5).fill(noise, cv::RNG::UNIFORM, 0, 256);
    cv::resize(noise, image, cv::Size(width, height), 0, 0, cv::INTER_NEAREST);
    return image;
}
} // namespace

class TestImageData : public QObject
{
    Q_OBJECT
    std::unique_ptr<QTemporaryDir> appDir;
    QTemporaryDir files;

    QString logText() const { return todaysLog(appDir->path()); }

    // PNG bytes under any name, so that the suffix alone decides whether it is read.
    QString writeImage(const QString &name, const cv::Mat &image)
    {
        std::vector<uchar> png;
        cv::imencode(".png", image, png);
        QFile f(files.filePath(name));
        if (f.open(QIODevice::WriteOnly))
            f.write(reinterpret_cast<const char *>(png.data()), qsizetype(png.size()));
        return f.fileName();
    }

private slots:
    void initTestCase()
    {
        appDir = std::make_unique<QTemporaryDir>();
        QVERIFY(initLogger(appDir->path()));
        ImageCacheManager::instance(appDir->filePath(u"cache"_s)).setMaxCache();
    }

    void loadImageData_data()
    {
        QTest::addColumn<bool>("useHash");
        QTest::addColumn<bool>("ok");
        // The tag is the file name; a real picture under an excluded suffix proves that it is
        // never decoded; "c.jpg" is a corrupt JPEG.
        for (const auto &[name, useHash, ok] : {std::tuple{"a.GIF", true, false},
                                                {"c.jpg", false, false},
                                                {"d.PNG", true, true},
                                                {"e.png", false, true}})
            QTest::newRow(name) << useHash << ok;
    }

    void loadImageData()
    {
        QFETCH(bool, useHash);
        QFETCH(bool, ok);
        const QString name = QString::fromLatin1(QTest::currentDataTag());
        QString path = writeImage(name, texture(1600, 120));
        if (name == u"c.jpg")
            QVERIFY(QFile::resize(path, 0) && QFile::resize(path, 20)); // twenty zero bytes
        ImageData r(path, false);
        QCOMPARE(r.loadImageData(useHash), ok);
        QCOMPARE(QList<bool>({r.loaded, r.failed, r.cached}), QList<bool>({true, !ok, ok}));
        QCOMPARE(r.suffix, QFileInfo(name).suffix().toLower());
        // The feature lives in the cache only, not in the record; the size is the one before the
        // decoder's cap.
        QVERIFY(r.featureMat.empty());
        const cv::Mat feature = r.getFeature();
        QCOMPARE(QSize(r.width, r.height), ok ? QSize(1600, 120) : QSize(0, 0));
        QCOMPARE(feature.empty(), !ok);
        if (!ok)
            return;
        QVERIFY(useHash ? feature.size() == cv::Size(8, 1) && feature.type() == CV_8UC1
                        : feature.size() == cv::Size(60, 50) && feature.type() == CV_32FC1);
        double lo = 0, hi = 0;
        cv::minMaxLoc(feature, &lo, &hi);
        QVERIFY(useHash || (lo == 0.0 && hi == 1.0));
        // A second load returns at once, even once the file is gone.
        QVERIFY(QFile::remove(path));
        QVERIFY(r.loadImageData(!useHash));
        QCOMPARE(r.getFeature().total(), feature.total());
    }

    void sizes_data()
    {
        QTest::addColumn<bool>("orb");
        QTest::addColumn<QList<int>>("input"); // width, height[, maxWidth, maxHeight]
        QTest::addColumn<QSize>("expected");
        const auto row = [](const char *name, bool orb, const QList<int> &input, QSize expected) {
            QTest::newRow(name) << orb << input << expected;
        };
        row("fit: zero side", false, {0, 5, 10, 10}, QSize(0, 0));
        row("fit: fits exactly", false, {1024, 1024, 1024, 1024}, QSize(1024, 1024));
        row("fit: truncated", false, {3000, 1999, 1024, 1024}, QSize(1024, 682));
        row("fit: thin side kept at 1", false, {5000, 2, 1024, 1024}, QSize(1024, 1));
        row("fit: tall", false, {6, 7000, 512, 512}, QSize(1, 512));
        row("orb: 3x200 enlarged", true, {3, 200}, QSize(15, 1000));
        row("orb: 500x3000 unscaled", true, {500, 3000}, QSize(500, 3000));
        row("orb: 512 wide unscaled", true, {512, 100}, QSize(512, 100));
        row("orb: 513 wide scaled", true, {513, 10}, QSize(512, 9));
        row("orb: too thin after scaling", true, {1024, 10}, QSize());
    }

    void sizes()
    {
        QFETCH(bool, orb);
        QFETCH(QList<int>, input);
        QTEST(orb ? ImageData::orbWorkingSize(input[0], input[1])
                  : ImageData::fitSize(input[0], input[1], input[2], input[3]),
              "expected");
    }

    void resizeAndHistogram()
    {
        const cv::Mat image = texture(300, 200);
        QCOMPARE(ImageData::resizeForHash(texture(3, 200)).size(), cv::Size(64, 64));
        QVERIFY(ImageData::resizeForHash(cv::Mat(), u"/x/empty.png"_s).empty());
        QVERIFY(
            logText().contains(u"[ImageData] resizeForHistogram(): Invalid image size.file:/x/empty.png."_s));
        // Small enough: an exact copy that owns its pixels.
        const cv::Mat same = ImageData::resizeForHistogram(image);
        QVERIFY(same.data != image.data && cv::norm(same, image, cv::NORM_INF) == 0.0);
        QCOMPARE(ImageData::resizeForHistogram(texture(2000, 500)).size(), cv::Size(1024, 256));

        // Pure red: hue 0, saturation 255, so everything lands in the first hue row's last bin.
        cv::Mat histogram;
        ImageData::computeHistogram(cv::Mat(10, 10, CV_8UC3, cv::Scalar(0, 0, 255)), histogram);
        QVERIFY(histogram.size() == cv::Size(60, 50) && histogram.at<float>(0, 59) == 1.f &&
                cv::sum(histogram)[0] == 1.0);
        cv::Mat grey(4, 4, CV_8UC1, cv::Scalar(200));
        grey.at<uchar>(0, 0) = 10;
        ImageData::computeHistogram(grey, histogram);
        // 1 pixel against 15, minimum 0.
        QVERIFY(histogram.size() == cv::Size(1, 256) && histogram.at<float>(200) == 1.f &&
                histogram.at<float>(10) == 1.f / 15.f);
        ImageData::computeHistogram(cv::Mat(), histogram);
        QVERIFY(histogram.empty());
        QVERIFY(logText().contains(u"[ImageData] computeHistogram(): Invalid image for histogram."_s));
    }

    void orbDescriptors()
    {
        ImageData textured(writeImage(u"t.png"_s, texture(400, 300)), false);
        const cv::Mat first = textured.getOrbDescriptors();
        QVERIFY(!first.empty() && !textured.failed && first.cols == 32 && first.rows <= 500);
        QCOMPARE(textured.getOrbDescriptors().data, first.data); // computed once

        ImageData flat(writeImage(u"flat.png"_s, cv::Mat(300, 300, CV_8UC3, cv::Scalar(9, 9, 9))), false);
        QVERIFY(flat.getOrbDescriptors().empty() && flat.failed);

        ImageData missing(files.filePath(u"missing.png"_s), false);
        QVERIFY(missing.getOrbDescriptors().empty() && missing.failed);
        QVERIFY(logText().contains(u"[ImageData] Invalid or empty image: cols=0, rows=0"_s));
        // A failed record is not read again: even a file that appears later is ignored.
        writeImage(u"missing.png"_s, texture(400, 300));
        QVERIFY(missing.getOrbDescriptors().empty());
    }
};

TWINFOLD_TEST_MAIN(TestImageData)
#include "tst_imagedata.moc"
