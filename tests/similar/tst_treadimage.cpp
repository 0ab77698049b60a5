#include "TestMain.h"
#include "TodaysLog.h"

#include "app/TLogger.h"
#include "similar/ImageSamples.h"
#include "similar/TReadImage.h"

#include <QBuffer>
#include <QTemporaryDir>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <thread>

using namespace Qt::StringLiterals;

namespace {

const cv::Vec3b red(0, 0, 255); // BGR
const cv::Vec3b blue(255, 0, 0);

// Blue with a red top-left quadrant: shows both orientation and channel order.
cv::Mat pattern(int width, int height)
{
    cv::Mat mat(height, width, CV_8UC3, cv::Scalar(blue));
    mat(cv::Rect(0, 0, width / 2, height / 2)).setTo(cv::Scalar(red));
    return mat;
}

bool near(const cv::Vec3b &a, const cv::Vec3b &b, int tolerance = 40)
{
    return cv::norm(cv::Vec3i(a) - cv::Vec3i(b), cv::NORM_INF) <= tolerance;
}

QByteArray encode(const cv::Mat &mat, const char *ext)
{
    std::vector<uchar> bytes;
    cv::imencode(ext, mat, bytes);
    return QByteArray(reinterpret_cast<const char *>(bytes.data()), qsizetype(bytes.size()));
}

} // namespace

class TestTReadImage : public QObject
{
    Q_OBJECT

    QTemporaryDir logDir;
    QTemporaryDir dir;
    qsizetype logMark = 0;

    QString file(const QString &name) const { return dir.filePath(name); }
    // What was logged since the last call.
    QString newLog()
    {
        const QString fresh = todaysLog(logDir.path(), logMark);
        logMark += fresh.toUtf8().size();
        return fresh;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(logDir.isValid() && dir.isValid());
        QVERIFY(initLogger(logDir.path()));
    }

    // The data tag names the file; one starting with "folder" is made a folder.
    void classify_data()
    {
        QTest::addColumn<int>("kind");
        using enum TReadImage::FileKind;
        for (const auto &[name, kind] : {std::pair{"a.DNG", RawFile},
                                         {"a.HEIF", HeifFile},
                                         {"a.raw", OtherFile},
                                         {"dng", OtherFile},
                                         {"folder.d", Directory},
                                         {"folder.nef", RawFile}})
            QTest::newRow(name) << int(kind);
    }
    void classify()
    {
        const QString name = QString::fromLatin1(QTest::currentDataTag());
        QVERIFY(!name.startsWith(u"folder"_s) || QDir(dir.path()).mkpath(name));
        QTEST(TReadImage::classifyImageFile(file(name)), "kind");
    }

    // Every road of readImageToMat: the buffer decode with the file-reading fallbacks for
    // common formats, the embedded preview of raw files and the HEIF thumbnail.
    void read_data()
    {
        QTest::addColumn<QByteArray>("content"); // null: no file at all
        QTest::addColumn<QSize>("matSize");
        QTest::addColumn<QStringList>("logLines"); // each with %1 for the path; none: nothing logged
        QTest::addColumn<QPoint>("redAt");         // where red must end up, in eighths; null: not looked at
        QTest::addColumn<QSize>("reported");       // invalid: that of the matrix
        QTest::addColumn<qint64>("grow");          // grows the file without writing when > 0
        const auto row = [](const char *tag, const QByteArray &content, QSize mat, const QStringList &lines,
                            QPoint redAt = {1, 1}, QSize reported = {}, qint64 grow = 0) {
            QTest::newRow(tag) << content << mat << lines << redAt << reported << grow;
        };
        const auto image = [](int w, int h, const char *ext) { return encode(pattern(w, h), ext); };
        // A JPEG preview, or an RGB bitmap one.
        const auto dng = [](const cv::Mat &preview, int orientation, bool jpeg = true) {
            cv::Mat rgb;
            cv::cvtColor(preview, rgb, cv::COLOR_BGR2RGB);
            const QByteArray bitmap(reinterpret_cast<const char *>(rgb.data), qsizetype(rgb.total() * 3));
            return ImageSamples::makeDng(jpeg ? encode(preview, ".jpg") : bitmap,
                                         {preview.cols, preview.rows}, jpeg, orientation);
        };
        const auto heic = [this](int thumbSide) {
            QFile f(file(u"sample%1.heic"_s.arg(thumbSide)));
            ImageSamples::writeHeic(f.fileName(), pattern(128, 64), thumbSide);
            return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
        };
        // A header without pixels: readers learn the size, decoders fail.
        const auto header = [](int w, int h) { return u"P6\n%1 %2\n255\n"_s.arg(w).arg(h).toLatin1(); };
        QByteArray xpm;
        QBuffer xpmBuffer(&xpm);
        TReadImage::mat2QImage(pattern(2048, 512)).save(&xpmBuffer, "XPM");

        const QString reader = u"[TReadImage]: QImageReader failed. File: %1\n"_s,
                      tooLarge = u"[TImageRead]: File too large or empty: %1\n"_s,
                      unopened = u"[TImageRead]: Cannot open file: %1\n"_s,
                      undecodable = u"[TImageRead]: imdecode returned empty: %1\n"_s,
                      openRaw = u"[TReadImage]: LibRaw open_file failed,error code -"_s;
        const QSize none(0, 0), s(64, 32), r(32, 64);
        const cv::Mat p = pattern(64, 32);
        row("big.jpg", image(4000, 3000, ".jpg"), {1024, 768}, {}, {1, 1}, {4000, 3000});
        row("square-1024.png", image(1024, 1024, ".png"), {1024, 1024}, {});
        // On this road OpenCV derives the size from the factor and rounds 9.99 to 10.
        row("strip-1025x10.png", image(1025, 10, ".png"), {1024, 10}, {}, {1, 1}, {1025, 10});
        row("missing.png", {}, none, {unopened, reader});
        row("folder.png", {}, none, {unopened, reader});
        row("empty.png", "", none, {tooLarge, reader});
        row("truncated.png", image(40, 30, ".png").left(20), none, {undecodable, reader});
        row("wrong-magic.jpg", QByteArray(3000, 'x'), none, {undecodable, reader});
        // Over 512 MiB the buffer is refused; the decoder that reads from disk still copes, and
        // what it reads is brought down to 1024, truncated, keeping at least one row.
        const auto full = [&](const QString &from, const QString &to) {
            return QStringList{tooLarge, u"Full read success. File: %1, Size: "_s + from + u'\n',
                               u"[TReadImage]: Resized image from "_s + from + u" to "_s + to + u'\n'};
        };
        row("one-byte-over-512MiB.png", image(1025, 10, ".png"), {1024, 9}, full(u"1025x10"_s, u"1024x9"_s),
            {1, 1}, {1025, 10}, 512ll << 20 | 1);
        row("600MiB.png", image(10, 1025, ".png"), {9, 1024}, full(u"10x1025"_s, u"9x1024"_s), {1, 1},
            {10, 1025}, 600ll << 20);
        row("thin-600MiB.png", image(3000, 1, ".png"), {1024, 1}, full(u"3000x1"_s, u"1024x1"_s), {},
            {3000, 1}, 600ll << 20);
        // Only QImageReader reads these; it skips what is over the pixel limit and is asked
        // for a reduced size of the rest.
        row("over-pixel-limit.ppm", header(20000, 5001), none,
            {u"[TReadImage]: QImageReader size. File: %1, Size: 20000x5001\n"_s,
             u"[TReadImage]: Image too large, skip. File: %1, Size: 20000x5001\n"_s},
            {}, {20000, 5001});
        row("at-pixel-limit.ppm", header(10000, 10000), none,
            {u"Size: 10000x10000\n"_s, u"Scaled Size: 1024x1024\n"_s, reader}, {}, {10000, 10000});
        // OpenCV has no XPM decoder; QImageReader's pixels stay in R, G, B order.
        row("swapped-colours.xpm", xpm, {1024, 256},
            {undecodable, u"[TReadImage]: QImageReader scaled size. File: %1, Scaled Size: 1024x256\n"_s},
            {7, 7}, {2048, 512});

        // Raw files: the preview's own size is reported, not the raw's 64x64.
        row("jpeg-preview.dng", dng(p, 1), s, {});
        row("rotated-180.DNG", dng(p, 3), s, {}, {7, 7});
        row("rotated-90.dng", dng(p, 6), r, {}, {7, 1});
        row("bitmap-rotated-270.dng", dng(p, 8, false), r, {}, {1, 7});
        row("big-preview-limited.DNG", dng(pattern(2049, 1000), 1), {1024, 499}, {});
        row("thin-preview-limited.dng", dng(pattern(3000, 1), 1), {1024, 1}, {}, {});
        row("no-preview.dng", ImageSamples::makeDng({}, s, true, 1), none,
            {u"[TReadImage]: LibRaw unpack_thumb failed. fies:%1\n"_s});
        row("garbage.nef", QByteArray(5000, 'g'), none, {openRaw, u". fies:%1\n"_s});
        row("missing.cr2", {}, none, {openRaw, u". fies:%1\n"_s});

        const QByteArray primary = heic(0);
        row("primary.HEIC", primary, {128, 64}, {});
        row("thumbnail-preferred.HEIC", heic(64), s, {});
        row("too-short-for-ftyp.HEIC", primary.left(11), none, {});
        row("cut-after-the-boxes-start.HEIC", primary.left(400), none,
            {u"[TReadImage]: Failed to "_s, u". fies:%1\n"_s});
        row("png-dressed-as.HEIC", image(20, 20, ".png"), none, {});
    }
    void read()
    {
        QFETCH(QByteArray, content);
        QFETCH(QSize, matSize);
        QFETCH(QStringList, logLines);
        QFETCH(QPoint, redAt);
        QFETCH(QSize, reported);
        QFETCH(qint64, grow);
        const QString name = QString::fromLatin1(QTest::currentDataTag()), path = file(name);
        if (name.endsWith(u"HEIC"_s) && content.isEmpty())
            QSKIP("no HEIC sample: this libheif cannot encode HEVC");
        QVERIFY(!name.startsWith(u"folder"_s) || QDir(dir.path()).mkpath(name));
        QFile f(path);
        QVERIFY(content.isNull() ||
                (f.open(QIODevice::WriteOnly) && f.write(content) == content.size() && f.flush()));
        QVERIFY(grow == 0 || f.resize(grow));
        newLog();
        int w = -1, h = -1;
        const cv::Mat mat = TReadImage::readImageToMat(path, w, h);
        QCOMPARE(QSize(mat.cols, mat.rows), matSize);
        QCOMPARE(QSize(w, h), reported.isValid() ? reported : matSize);
        const QString log = newLog();
        if (logLines.isEmpty())
            QCOMPARE(log, QString());
        for (QString &line : logLines)
            QVERIFY2(log.contains(line.replace(u"%1"_s, path)), qPrintable(line));
        QVERIFY(mat.empty() || mat.type() == CV_8UC3);
        const auto at = [&](int x, int y) { return mat.at<cv::Vec3b>(mat.rows * y / 8, mat.cols * x / 8); };
        const int tolerance = name.endsWith(u"HEIC"_s) ? 60 : 40;
        QVERIFY(mat.empty() || redAt.isNull() ||
                (near(at(redAt.x(), redAt.y()), red, tolerance) &&
                 near(at(8 - redAt.x(), 8 - redAt.y()), blue, tolerance)));
    }

    void conversions_data()
    {
        QTest::addColumn<int>("format");
        QTest::addColumn<int>("tolerance");
        QTest::newRow("RGB32") << int(QImage::Format_RGB32) << 0;
        QTest::newRow("RGB888") << int(QImage::Format_RGB888) << 0;
        QTest::newRow("RGB16, converted") << int(QImage::Format_RGB16) << 8;
    }
    void conversions()
    {
        QFETCH(int, format);
        QFETCH(int, tolerance);
        // An odd width gives padded rows; the corner pixel tells the two colours apart.
        QImage image(37, 11, QImage::Format(format));
        image.fill(QColor(200, 40, 10));
        image.setPixelColor(36, 10, QColor(16, 120, 240));
        const cv::Mat mat = TReadImage::qimage2Mat(image);
        QVERIFY(mat.type() == CV_8UC3 && mat.size() == cv::Size(37, 11));
        QVERIFY(near(mat.at<cv::Vec3b>(0, 0), {10, 40, 200}, tolerance) &&
                near(mat.at<cv::Vec3b>(10, 36), {240, 120, 16}, tolerance));
        const QImage back = TReadImage::mat2QImage(mat);
        QVERIFY(back.format() == QImage::Format_RGB888 &&
                back.pixelColor(36, 10) == image.pixelColor(36, 10));
        QCOMPARE(cv::norm(TReadImage::qimage2Mat(back), mat, cv::NORM_INF), 0.0); // lossless round trip
    }

    void matToImage()
    {
        const cv::Mat bgra(5, 6, CV_8UC4, cv::Scalar(10, 20, 30, 255));
        QCOMPARE(TReadImage::mat2QImage(bgra).pixel(5, 4), qRgba(30, 20, 10, 255));
        cv::Mat gray(4, 8, CV_8UC1, cv::Scalar(77));
        gray.at<uchar>(3, 7) = 5;
        const QImage grayImage = TReadImage::mat2QImage(gray);
        QCOMPARE(grayImage.format(), QImage::Format_Grayscale8);
        QCOMPARE(QList<int>({qGray(grayImage.pixel(0, 0)), qGray(grayImage.pixel(7, 3))}),
                 QList<int>({77, 5}));
        // A window into a larger matrix: its rows are not contiguous.
        const QImage window = TReadImage::mat2QImage(pattern(40, 40)(cv::Rect(10, 10, 20, 20)));
        QCOMPARE(window.size(), QSize(20, 20));
        QCOMPARE(QList<QRgb>({window.pixel(0, 0), window.pixel(19, 0)}),
                 QList<QRgb>({qRgb(255, 0, 0), qRgb(0, 0, 255)}));
        QVERIFY(TReadImage::mat2QImage(cv::Mat()).isNull());
        QVERIFY(TReadImage::qimage2Mat(QImage()).empty());
        newLog();
        QVERIFY(TReadImage::mat2QImage(cv::Mat(4, 4, CV_32FC1, cv::Scalar(0.5))).isNull());
        QVERIFY(
            newLog().contains(u"[TReadImage]: mat2QImage: Unsupported cv::Mat type: %1\n"_s.arg(CV_32FC1)));
    }

    // Files of the read test, each road at once on several threads, each thread starting at
    // another file; every result must equal the one read alone.
    void concurrentReads()
    {
        QStringList paths;
        for (const char *name : {"wrong-magic.jpg", "big.jpg", "swapped-colours.xpm", "rotated-90.dng",
                                 "bitmap-rotated-270.dng", "primary.HEIC", "thumbnail-preferred.HEIC"})
            paths.append(file(QString::fromLatin1(name)));
        const qsizetype n = paths.size();
        std::vector<cv::Mat> results(size_t(4 * n));
        std::vector<std::thread> workers;
        for (int t = 0; t < 4; ++t)
            workers.emplace_back([&, t] {
                for (qsizetype k = 0; k < 3 * n; ++k) {
                    int w = 0, h = 0;
                    results[size_t(t * n + (k + t) % n)] =
                        TReadImage::readImageToMat(paths[(k + t) % n], w, h);
                }
            });
        for (std::thread &worker : workers)
            worker.join();
        for (qsizetype i = 0; i < 4 * n; ++i) {
            int w = 0, h = 0;
            const cv::Mat want = TReadImage::readImageToMat(paths[i % n], w, h), &got = results[size_t(i)];
            // Only the first is undecodable (the HEIC files are missing without an encoder).
            QVERIFY(want.empty() == (i % n == 0) || paths[i % n].endsWith(u"HEIC"_s));
            QVERIFY(got.size == want.size && (want.empty() || cv::norm(got, want, cv::NORM_INF) == 0));
        }
    }
};

TWINFOLD_TEST_MAIN(TestTReadImage)
#include "tst_treadimage.moc"
