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
    // Blue with a red top-left quadrant: shows both orientation and channel order.
    static cv::Mat pattern(int width, int height)
    {
        cv::Mat mat(height, width, CV_8UC3, cv::Scalar(blue));
        mat(cv::Rect(0, 0, width / 2, height / 2)).setTo(cv::Scalar(red));
        return mat;
    }
    static bool near(const cv::Vec3b &a, const cv::Vec3b &b, int tolerance = 40)
    {
        return cv::norm(cv::Vec3i(a) - cv::Vec3i(b), cv::NORM_INF) <= tolerance;
    }
    static QByteArray encode(const cv::Mat &mat, const char *ext)
    {
        std::vector<uchar> bytes;
        cv::imencode(ext, mat, bytes);
        return QByteArray(reinterpret_cast<const char *>(bytes.data()), qsizetype(bytes.size()));
    }
    static inline const cv::Vec3b red{0, 0, 255}, blue{255, 0, 0}; // BGR

private slots:
    void initTestCase() { QVERIFY(logDir.isValid() && dir.isValid() && initLogger(logDir.path())); }

    void classify()
    {
        using enum TReadImage::FileKind;
        QVERIFY(QDir(dir.path()).mkpath(u"folder.d"_s) && QDir(dir.path()).mkpath(u"folder.nef"_s));
        QList<int> kinds;
        for (const char *name : {"a.DNG", "a.HEIF", "a.raw", "dng", "folder.d", "folder.nef"})
            kinds << TReadImage::classifyImageFile(file(QString::fromLatin1(name)));
        QCOMPARE(kinds, QList<int>({RawFile, HeifFile, OtherFile, OtherFile, Directory, RawFile}));
    }

    // Every road of readImageToMat: the buffer decode with the file-reading fallbacks for
    // common formats, the embedded preview of raw files and the HEIF thumbnail.
    // Each row expects "<matrix size> of <reported size>" and, for a matrix, whether red or blue is
    // at an eighth of each corner (top-left, top-right, bottom-left, bottom-right).
    void read_data()
    {
        QTest::addColumn<QByteArray>("content"); // null: no file at all
        QTest::addColumn<QString>("expected");
        QTest::addColumn<QStringList>("logLines"); // each with %1 for the path; none: nothing logged
        QTest::addColumn<qint64>("grow");          // grows the file without writing when > 0
        const auto row = [](const char *tag, const QByteArray &content, const char *expected,
                            const QStringList &lines, qint64 grow = 0) {
            QTest::newRow(tag) << content << QString::fromLatin1(expected) << lines << grow;
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
        const cv::Mat p = pattern(64, 32);
        row("big.jpg", image(4000, 3000, ".jpg"), "1024x768 of 4000x3000 RBBB", {});
        row("square-1024.png", image(1024, 1024, ".png"), "1024x1024 of 1024x1024 RBBB", {});
        // On this road OpenCV derives the size from the factor and rounds 9.99 to 10.
        row("strip-1025x10.png", image(1025, 10, ".png"), "1024x10 of 1025x10 RBBB", {});
        row("missing.png", {}, "0x0 of 0x0", {unopened, reader});
        row("folder.png", {}, "0x0 of 0x0", {unopened, reader});
        row("empty.png", "", "0x0 of 0x0", {tooLarge, reader});
        row("truncated.png", image(40, 30, ".png").left(20), "0x0 of 0x0", {undecodable, reader});
        row("wrong-magic.jpg", QByteArray(3000, 'x'), "0x0 of 0x0", {undecodable, reader});
        // Over 512 MiB the buffer is refused; the decoder that reads from disk still copes, and
        // what it reads is brought down to 1024, truncated, keeping at least one row.
        const auto full = [&](const QString &from, const QString &to) {
            return QStringList{tooLarge, u"Full read success. File: %1, Size: "_s + from + u'\n',
                               u"[TReadImage]: Resized image from "_s + from + u" to "_s + to + u'\n'};
        };
        row("one-byte-over-512MiB.png", image(1025, 10, ".png"), "1024x9 of 1025x10 RBBB",
            full(u"1025x10"_s, u"1024x9"_s), 512ll << 20 | 1);
        row("600MiB.png", image(10, 1025, ".png"), "9x1024 of 10x1025 RBBB", full(u"10x1025"_s, u"9x1024"_s),
            600ll << 20);
        row("thin-600MiB.png", image(3000, 1, ".png"), "1024x1 of 3000x1 BBBB",
            full(u"3000x1"_s, u"1024x1"_s), 600ll << 20);
        // Only QImageReader reads these; it skips what is over the pixel limit and is asked
        // for a reduced size of the rest.
        row("over-pixel-limit.ppm", header(20000, 5001), "0x0 of 20000x5001",
            {u"[TReadImage]: QImageReader size. File: %1, Size: 20000x5001\n"_s,
             u"[TReadImage]: Image too large, skip. File: %1, Size: 20000x5001\n"_s});
        row("at-pixel-limit.ppm", header(10000, 10000), "0x0 of 10000x10000",
            {u"Size: 10000x10000\n"_s, u"Scaled Size: 1024x1024\n"_s, reader});
        // OpenCV has no XPM decoder; QImageReader's pixels stay in R, G, B order.
        row("swapped-colours.xpm", xpm, "1024x256 of 2048x512 BRRR",
            {undecodable, u"[TReadImage]: QImageReader scaled size. File: %1, Scaled Size: 1024x256\n"_s});

        // Raw files: the preview's own size is reported, not the raw's 64x64.
        row("jpeg-preview.dng", dng(p, 1), "64x32 of 64x32 RBBB", {});
        row("rotated-180.DNG", dng(p, 3), "64x32 of 64x32 BBBR", {});
        row("rotated-90.dng", dng(p, 6), "32x64 of 32x64 BRBB", {});
        row("bitmap-rotated-270.dng", dng(p, 8, false), "32x64 of 32x64 BBRB", {});
        row("big-preview-limited.DNG", dng(pattern(2049, 1000), 1), "1024x499 of 1024x499 RBBB", {});
        row("thin-preview-limited.dng", dng(pattern(3000, 1), 1), "1024x1 of 1024x1 BBBB", {});
        row("no-preview.dng", ImageSamples::makeDng({}, {64, 32}, true, 1), "0x0 of 0x0",
            {u"[TReadImage]: LibRaw unpack_thumb failed. fies:%1\n"_s});
        row("garbage.nef", QByteArray(5000, 'g'), "0x0 of 0x0", {openRaw, u". fies:%1\n"_s});
        row("missing.cr2", {}, "0x0 of 0x0", {openRaw, u". fies:%1\n"_s});

        const QByteArray primary = heic(0);
        row("primary.HEIC", primary, "128x64 of 128x64 RBBB", {});
        row("thumbnail-preferred.HEIC", heic(64), "64x32 of 64x32 RBBB", {});
        row("too-short-for-ftyp.HEIC", primary.left(11), "0x0 of 0x0", {});
        row("cut-after-the-boxes-start.HEIC", primary.left(400), "0x0 of 0x0",
            {u"[TReadImage]: Failed to "_s, u". fies:%1\n"_s});
        row("png-dressed-as.HEIC", image(20, 20, ".png"), "0x0 of 0x0", {});
    }
    void read()
    {
        QFETCH(QByteArray, content);
        QFETCH(QStringList, logLines);
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
        QVERIFY(mat.empty() || mat.type() == CV_8UC3);
        QString got = u"%1x%2 of %3x%4 "_s.arg(mat.cols).arg(mat.rows).arg(w).arg(h);
        const int tolerance = name.endsWith(u"HEIC"_s) ? 60 : 40;
        for (const auto &[x, y] : {std::pair{1, 1}, {7, 1}, {1, 7}, {7, 7}}) {
            const cv::Vec3b at =
                mat.empty() ? cv::Vec3b() : mat.at<cv::Vec3b>(mat.rows * y / 8, mat.cols * x / 8);
            got += mat.empty()                 ? QString()
                   : near(at, red, tolerance)  ? u"R"_s
                   : near(at, blue, tolerance) ? u"B"_s
                                               : u"?"_s;
        }
        QTEST(got.trimmed(), "expected");
        const QString log = newLog();
        if (logLines.isEmpty())
            QCOMPARE(log, QString());
        for (QString &line : logLines)
            QVERIFY2(log.contains(line.replace(u"%1"_s, path)), qPrintable(line));
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
