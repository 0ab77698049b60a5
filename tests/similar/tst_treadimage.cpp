#include "TestMain.h"

#include "app/TLogger.h"
#include "similar/ImageSamples.h"
#include "similar/TReadImage.h"

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

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(bytes) == bytes.size();
}

quint32 crc32(const QByteArray &bytes)
{
    quint32 crc = 0xffffffffu;
    for (char c : bytes) {
        crc ^= quint8(c);
        for (int k = 0; k < 8; ++k)
            crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

// A PNG with a complete header and the start of a pixel stream, but no pixels: readers
// learn the size, decoders fail.
QByteArray pngHeaderOnly(quint32 width, quint32 height)
{
    QByteArray png = QByteArray::fromHex("89504e470d0a1a0a"), header("IHDR");
    QDataStream(&header, QIODevice::Append)
        << width << height << quint32(0x08020000) << quint8(0); // 8-bit RGB
    QDataStream out(&png, QIODevice::Append);
    for (const QByteArray &chunk : {header, QByteArray("IDAT\x78\x9c", 6)}) {
        out << quint32(chunk.size() - 4);
        out.writeRawData(chunk.constData(), int(chunk.size()));
        out << crc32(chunk);
    }
    return png;
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
        TLogger::flush();
        QFile f(logDir.filePath(u"Log/"_s + TLogger::todaysFileName()));
        const QString all = f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
        const QString fresh = all.mid(logMark);
        logMark = all.size();
        return fresh;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(logDir.isValid() && dir.isValid());
        QVERIFY(initLogger(logDir.path()));
    }

    void classify_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("folder");
        QTest::addColumn<int>("kind");
        QTest::newRow("upper-case DNG") << u"a.DNG"_s << false << int(TReadImage::RawFile);
        QTest::newRow("two-letter ra") << u"a.ra"_s << false << int(TReadImage::RawFile);
        QTest::newRow("HEIF") << u"a.HEIF"_s << false << int(TReadImage::HeifFile);
        QTest::newRow("raw is no raw suffix") << u"a.raw"_s << false << int(TReadImage::OtherFile);
        QTest::newRow("no suffix") << u"dng"_s << false << int(TReadImage::OtherFile);
        QTest::newRow("folder") << u"folder.d"_s << true << int(TReadImage::Directory);
        QTest::newRow("raw suffix before folder") << u"folder.nef"_s << true << int(TReadImage::RawFile);
    }

    void classify()
    {
        QFETCH(QString, name);
        QFETCH(bool, folder);
        QFETCH(int, kind);
        if (folder)
            QVERIFY(QDir(dir.path()).mkpath(name));
        QCOMPARE(TReadImage::classifyImageFile(file(name)), kind);
    }

    void otherFiles_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QByteArray>("content"); // null: no file at all
        QTest::addColumn<qint64>("sparseSize");  // grows the file without writing when > 0
        QTest::addColumn<QString>("bufferLine"); // empty: the buffer road succeeds
        QTest::addColumn<QString>("fallbackLine");
        QTest::addColumn<QSize>("reported");
        QTest::addColumn<QSize>("matSize");
        const auto image = [](int w, int h, const char *ext) { return encode(pattern(w, h), ext); };
        const auto row = [](const char *tag, const QString &name, const QByteArray &content, qint64 sparse,
                            const QString &bufferLine, const QString &fallbackLine, QSize reported,
                            QSize mat) {
            QTest::newRow(tag) << name << content << sparse << bufferLine << fallbackLine << reported << mat;
        };
        const QString reader = u"QImageReader failed"_s;
        const QSize none(0, 0), small(40, 30);
        row("4000x3000 jpeg", u"big.jpg"_s, image(4000, 3000, ".jpg"), 0, {}, {}, {4000, 3000}, {1024, 768});
        row("1024 square unscaled", u"square.png"_s, image(1024, 1024, ".png"), 0, {}, {}, {1024, 1024},
            {1024, 1024});
        row("webp", u"a.webp"_s, image(300, 200, ".webp"), 0, {}, {}, {300, 200}, {300, 200});
        // On this road OpenCV derives the size from the factor and rounds 9.99 to 10.
        row("1025x10", u"strip.png"_s, image(1025, 10, ".png"), 0, {}, {}, {1025, 10}, {1024, 10});
        row("missing", u"missing.png"_s, {}, 0, u"Cannot open file"_s, reader, none, none);
        row("folder", u"folder.png"_s, {}, 0, u"Cannot open file"_s, reader, none, none);
        row("zero bytes", u"empty.png"_s, "", 0, u"File too large or empty"_s, reader, none, none);
        row("truncated png", u"cut.png"_s, image(40, 30, ".png").left(20), 0, u"imdecode returned empty"_s,
            reader, none, none);
        row("wrong magic", u"junk.jpg"_s, QByteArray(3000, 'x'), 0, u"imdecode returned empty"_s, reader,
            none, none);
        // Over 512 MiB the buffer is refused; the decoder that reads from disk still copes.
        row("one byte over 512 MiB", u"limit.png"_s, image(40, 30, ".png"), 512ll * 1024 * 1024 + 1,
            u"File too large or empty"_s, u"Full read success"_s, small, small);
        row("600 MiB", u"huge.png"_s, image(40, 30, ".png"), 600ll * 1024 * 1024,
            u"File too large or empty"_s, u"Full read success"_s, small, small);
    }

    void otherFiles()
    {
        QFETCH(QString, name);
        QFETCH(QByteArray, content);
        QFETCH(qint64, sparseSize);
        QFETCH(QString, bufferLine);
        QFETCH(QString, fallbackLine);
        QFETCH(QSize, reported);
        QFETCH(QSize, matSize);
        const QString path = file(name);
        if (name.startsWith(u"folder"_s))
            QVERIFY(QDir(dir.path()).mkpath(name));
        else if (!content.isNull())
            QVERIFY(writeFile(path, content));
        if (sparseSize > 0)
            QVERIFY(QFile::resize(path, sparseSize));
        newLog();
        int w = -1, h = -1;
        QCOMPARE(TReadImage::readImageFromBuffer(path, w, h).empty(), !bufferLine.isEmpty());
        if (bufferLine.isEmpty())
            QCOMPARE(newLog(), QString()); // success is silent on this road
        else
            QVERIFY(newLog().endsWith(u"[TImageRead]: %1: %2\n"_s.arg(bufferLine, path)));

        w = h = -1;
        const cv::Mat mat = TReadImage::readImageToMat(path, w, h);
        QCOMPARE(QSize(mat.cols, mat.rows), matSize);
        QCOMPARE(QSize(w, h), reported);
        const QString log = newLog();
        if (fallbackLine.isEmpty())
            QVERIFY(!log.contains(path));
        else
            QVERIFY2(log.contains(u"[TReadImage]: %1. File: %2"_s.arg(fallbackLine, path)), qPrintable(log));
        if (!mat.empty()) { // BGR order, orientation kept
            QCOMPARE(mat.type(), CV_8UC3);
            QVERIFY(near(mat.at<cv::Vec3b>(mat.rows / 8, mat.cols / 8), red));
            QVERIFY(near(mat.at<cv::Vec3b>(mat.rows * 7 / 8, mat.cols * 7 / 8), blue));
        }
    }

    void readerRoad_data()
    {
        QTest::addColumn<QSize>("declared");
        QTest::addColumn<bool>("skipped");
        QTest::newRow("20000x5001 is over the pixel limit") << QSize(20000, 5001) << true;
        QTest::newRow("10000x10000 is exactly the limit") << QSize(10000, 10000) << false;
        QTest::newRow("small") << QSize(300, 200) << false;
    }

    void readerRoad()
    {
        QFETCH(QSize, declared);
        QFETCH(bool, skipped);
        const QString path = file(u"header_%1x%2.png"_s.arg(declared.width()).arg(declared.height()));
        QVERIFY(writeFile(path, pngHeaderOnly(declared.width(), declared.height())));
        newLog();
        int w = -1, h = -1;
        QVERIFY(TReadImage::readImageWithFallback(path, w, h).empty());
        QCOMPARE(QSize(w, h), declared);
        const QString log = newLog();
        const QString size = u"%1x%2"_s.arg(declared.width()).arg(declared.height());
        QVERIFY(log.contains(u"[TReadImage]: QImageReader size. File: %1, Size: %2\n"_s.arg(path, size)));
        QCOMPARE(log.contains(u"[TReadImage]: Image too large, skip. File: %1, Size: %2\n"_s.arg(path, size)),
                 skipped);
        // Only what passed the limit is asked for at a reduced size and then decoded.
        const QSize fitted = declared.scaled(1024, 1024, Qt::KeepAspectRatio);
        QCOMPARE(log.contains(u"Scaled Size: %1x%2\n"_s.arg(fitted.width()).arg(fitted.height())),
                 !skipped && (declared.width() > 1024 || declared.height() > 1024));
        QCOMPARE(log.contains(u"[TReadImage]: QImageReader failed. File: %1\n"_s.arg(path)), !skipped);

        // OpenCV has no XPM decoder, so only QImageReader reads this one, in R, G, B order.
        const QString xpm = file(u"wide.xpm"_s);
        QImage image(2048, 512, QImage::Format_RGB32);
        image.fill(Qt::red);
        QVERIFY(image.save(xpm, "XPM"));
        const cv::Mat mat = TReadImage::readImageToMat(xpm, w, h);
        QCOMPARE(QSize(w, h), QSize(2048, 512));
        QCOMPARE(QSize(mat.cols, mat.rows), QSize(1024, 256));
        QCOMPARE(mat.at<cv::Vec3b>(100, 500), cv::Vec3b(255, 0, 0));
    }

    void limits_data()
    {
        QTest::addColumn<QSize>("size");
        QTest::addColumn<QSize>("expected");
        QTest::newRow("1024 square unchanged") << QSize(1024, 1024) << QSize(1024, 1024);
        QTest::newRow("small never grows") << QSize(3, 2) << QSize(3, 2);
        QTest::newRow("1025x10 truncates") << QSize(1025, 10) << QSize(1024, 9);
        QTest::newRow("10x1025 truncates") << QSize(10, 1025) << QSize(9, 1024);
        QTest::newRow("3000x1 keeps a row") << QSize(3000, 1) << QSize(1024, 1);
    }

    void limits()
    {
        QFETCH(QSize, size);
        QFETCH(QSize, expected);
        const bool resized = size != expected;
        const cv::Mat mat = pattern(size.width(), size.height());
        newLog();
        const cv::Mat limited = TReadImage::limitMatSize(mat);
        QCOMPARE(QSize(limited.cols, limited.rows), expected);
        QCOMPARE(limited.data == mat.data, !resized); // unscaled means the very same pixels
        QCOMPARE(newLog().contains(u"[TReadImage]: Resized image from %1x%2 to %3x%4"_s.arg(
                     QString::number(size.width()), QString::number(size.height()),
                     QString::number(expected.width()), QString::number(expected.height()))),
                 resized);

        QImage image(size, QImage::Format_RGB32);
        image.fill(Qt::green);
        const QImage limitedImage = TReadImage::limitQImageSize(image);
        QCOMPARE(limitedImage.size(), expected);
        QCOMPARE(limitedImage.cacheKey() == image.cacheKey(), !resized);
        QCOMPARE(limitedImage.pixelColor(expected.width() - 1, expected.height() - 1), QColor(Qt::green));
    }

    void rawThumbnail_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<int>("preview"); // 0 none, 1 JPEG, 2 RGB bitmap, 3 not a raw file at all
        QTest::addColumn<int>("orientation");
        QTest::addColumn<QSize>("size");
        QTest::addColumn<QSize>("expected");
        QTest::addColumn<QPoint>("redAt"); // where the red quadrant must end up, in eighths
        QTest::addColumn<QString>("logLine");
        const auto row = [](const char *tag, const QString &name, int preview, int orientation, QSize size,
                            QSize expected, QPoint redAt, const QString &logLine) {
            QTest::newRow(tag) << name << preview << orientation << size << expected << redAt << logLine;
        };
        const QSize s(64, 32), r(32, 64), none(0, 0);
        const QString openFailed = u"[TReadImage]: LibRaw open_file failed,error code -"_s;
        row("jpeg", u"a.dng"_s, 1, 1, s, s, {1, 1}, {});
        row("bitmap", u"b.dng"_s, 2, 1, s, s, {1, 1}, {});
        row("DNG, 180", u"c.DNG"_s, 1, 3, s, s, {7, 7}, {});
        row("90 clockwise", u"d.dng"_s, 1, 6, s, r, {7, 1}, {});
        row("270 clockwise", u"e.dng"_s, 2, 8, s, r, {1, 7}, {});
        row("big preview is limited", u"f.DNG"_s, 1, 1, {2048, 1024}, {1024, 512}, {1, 1}, {});
        row("no preview", u"g.dng"_s, 0, 1, s, none, {},
            u"[TReadImage]: LibRaw unpack_thumb failed. fies:"_s);
        row("garbage", u"h.nef"_s, 3, 1, s, none, {}, openFailed);
        row("missing", u"i.cr2"_s, -1, 1, s, none, {}, openFailed);
    }

    void rawThumbnail()
    {
        QFETCH(QString, name);
        QFETCH(int, preview);
        QFETCH(int, orientation);
        QFETCH(QSize, size);
        QFETCH(QSize, expected);
        QFETCH(QPoint, redAt);
        QFETCH(QString, logLine);
        const cv::Mat source = pattern(size.width(), size.height());
        cv::Mat rgb;
        cv::cvtColor(source, rgb, cv::COLOR_BGR2RGB);
        const QByteArray bitmap(reinterpret_cast<const char *>(rgb.data), qsizetype(rgb.total() * 3));
        const QString path = file(name);
        if (preview >= 0)
            QVERIFY(writeFile(
                path, preview == 3   ? QByteArray(5000, 'g')
                      : preview == 2 ? ImageSamples::makeDng(bitmap, size, false, orientation)
                                     : ImageSamples::makeDng(preview ? encode(source, ".jpg") : QByteArray(),
                                                             size, true, orientation)));
        newLog();
        int w = -1, h = -1;
        const cv::Mat mat = TReadImage::readImageToMat(path, w, h);
        QCOMPARE(QSize(mat.cols, mat.rows), expected);
        QCOMPARE(QSize(w, h), expected); // the thumbnail's size, not the raw's 64x64
        const QString log = newLog();
        if (!logLine.isEmpty()) {
            QVERIFY2(log.contains(logLine) && log.endsWith(u"fies:%1\n"_s.arg(path)), qPrintable(log));
            return;
        }
        const cv::Vec3b seen = mat.at<cv::Vec3b>(mat.rows * redAt.y() / 8, mat.cols * redAt.x() / 8);
        QVERIFY2(near(seen, red), qPrintable(u"%1 %2 %3"_s.arg(seen[0]).arg(seen[1]).arg(seen[2])));
        QVERIFY(
            near(mat.at<cv::Vec3b>(mat.rows * (8 - redAt.y()) / 8, mat.cols * (8 - redAt.x()) / 8), blue));
    }

    void heif_data()
    {
        QTest::addColumn<int>("thumbSide");
        QTest::addColumn<int>("keepBytes"); // cut the file to this many bytes when >= 0
        QTest::addColumn<QSize>("expected");
        QTest::addColumn<QString>("logLine"); // empty: nothing may be logged
        QTest::newRow("primary image") << 0 << -1 << QSize(128, 64) << QString();
        QTest::newRow("thumbnail preferred") << 64 << -1 << QSize(64, 32) << QString();
        QTest::newRow("too short for ftyp") << 0 << 11 << QSize(0, 0) << QString();
        QTest::newRow("cut after the boxes start")
            << 0 << 400 << QSize(0, 0) << u"[TReadImage]: Failed to "_s;
        QTest::newRow("no ftyp") << -1 << -1 << QSize(0, 0) << QString();
    }

    void heif()
    {
        QFETCH(int, thumbSide);
        QFETCH(int, keepBytes);
        QFETCH(QSize, expected);
        QFETCH(QString, logLine);
        const QString path = file(u"%1.HEIC"_s.arg(QString::fromLatin1(QTest::currentDataTag())));
        if (thumbSide < 0) {
            QVERIFY(writeFile(path, encode(pattern(20, 20), ".png"))); // a PNG dressed as HEIC
        } else {
            const QString problem = ImageSamples::writeHeic(path, pattern(128, 64), thumbSide);
            if (problem.startsWith(u"no HEVC"_s))
                QSKIP(qPrintable(problem));
            QVERIFY2(problem.isEmpty(), qPrintable(problem));
            if (keepBytes >= 0)
                QVERIFY(QFile::resize(path, keepBytes));
        }
        newLog();
        int w = -1, h = -1;
        const cv::Mat mat = TReadImage::readImageToMat(path, w, h);
        QCOMPARE(QSize(mat.cols, mat.rows), expected);
        QCOMPARE(QSize(w, h), expected);
        const QString log = newLog();
        if (logLine.isEmpty())
            QCOMPARE(log, QString());
        else
            QVERIFY2(log.contains(logLine) && log.endsWith(u". fies:%1\n"_s.arg(path)), qPrintable(log));
        if (!mat.empty()) {
            QVERIFY(near(mat.at<cv::Vec3b>(mat.rows / 8, mat.cols / 8), red, 60));
            QVERIFY(near(mat.at<cv::Vec3b>(mat.rows * 7 / 8, mat.cols * 7 / 8), blue, 60));
        }
    }

    void conversions_data()
    {
        QTest::addColumn<int>("format");
        QTest::addColumn<int>("tolerance");
        QTest::newRow("RGB32") << int(QImage::Format_RGB32) << 0;
        QTest::newRow("RGB888") << int(QImage::Format_RGB888) << 0;
        QTest::newRow("RGBA8888, converted") << int(QImage::Format_RGBA8888) << 0;
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
        QCOMPARE(mat.type(), CV_8UC3);
        QCOMPARE(QSize(mat.cols, mat.rows), image.size());
        QVERIFY(near(mat.at<cv::Vec3b>(0, 0), cv::Vec3b(10, 40, 200), tolerance));
        QVERIFY(near(mat.at<cv::Vec3b>(10, 36), cv::Vec3b(240, 120, 16), tolerance));

        const QImage back = TReadImage::mat2QImage(mat);
        QCOMPARE(back.format(), QImage::Format_RGB888);
        QCOMPARE(back.pixelColor(36, 10), image.pixelColor(36, 10));
        QCOMPARE(cv::norm(TReadImage::qimage2Mat(back), mat, cv::NORM_INF), 0.0); // lossless round trip

        QImage big(3000, 1500, QImage::Format(format));
        big.fill(Qt::white);
        const cv::Mat bigMat = TReadImage::qimage2Mat(big);
        QCOMPARE(QSize(bigMat.cols, bigMat.rows), QSize(1024, 512));
    }

    void matToImage()
    {
        const cv::Mat bgra(5, 6, CV_8UC4, cv::Scalar(10, 20, 30, 255));
        QCOMPARE(TReadImage::mat2QImage(bgra).pixel(5, 4), qRgba(30, 20, 10, 255));
        cv::Mat gray(4, 8, CV_8UC1, cv::Scalar(77));
        gray.at<uchar>(3, 7) = 5;
        const QImage grayImage = TReadImage::mat2QImage(gray);
        QCOMPARE(grayImage.format(), QImage::Format_Grayscale8);
        QCOMPARE(qGray(grayImage.pixel(0, 0)), 77);
        QCOMPARE(qGray(grayImage.pixel(7, 3)), 5);
        // A window into a larger matrix: its rows are not contiguous.
        const QImage window = TReadImage::mat2QImage(pattern(40, 40)(cv::Rect(10, 10, 20, 20)));
        QCOMPARE(window.size(), QSize(20, 20));
        QCOMPARE(window.pixel(0, 0), qRgb(255, 0, 0));
        QCOMPARE(window.pixel(19, 0), qRgb(0, 0, 255));

        QVERIFY(TReadImage::mat2QImage(cv::Mat()).isNull());
        QVERIFY(TReadImage::qimage2Mat(QImage()).empty());
        newLog();
        QVERIFY(TReadImage::mat2QImage(cv::Mat(4, 4, CV_32FC1, cv::Scalar(0.5))).isNull());
        QVERIFY(
            newLog().contains(u"[TReadImage]: mat2QImage: Unsupported cv::Mat type: %1\n"_s.arg(CV_32FC1)));
    }

    void concurrentReads()
    {
        QStringList paths{file(u"mt.jpg"_s), file(u"mt.png"_s), file(u"mt.dng"_s), file(u"mt_bad.png"_s),
                          file(u"mt.heic"_s)};
        QVERIFY(writeFile(paths[0], encode(pattern(1600, 900), ".jpg")));
        QVERIFY(writeFile(paths[1], encode(pattern(300, 200), ".png")));
        QVERIFY(writeFile(paths[2],
                          ImageSamples::makeDng(encode(pattern(64, 32), ".jpg"), QSize(64, 32), true, 6)));
        QVERIFY(writeFile(paths[3], QByteArray(100, 'z')));
        if (!ImageSamples::writeHeic(paths[4], pattern(64, 64), 32).isEmpty())
            paths.removeLast();
        const qsizetype n = paths.size();
        constexpr int threads = 4;
        std::vector<cv::Mat> results(size_t(threads * n));
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t)
            workers.emplace_back([&, t] {
                // Three passes, each thread starting at another file so that different roads overlap.
                for (qsizetype k = 0; k < 3 * n; ++k) {
                    int w = 0, h = 0;
                    const qsizetype i = (k + t) % n;
                    results[size_t(t * n + i)] = TReadImage::readImageToMat(paths[i], w, h);
                }
            });
        for (std::thread &worker : workers)
            worker.join();
        for (qsizetype i = 0; i < n; ++i) {
            int w = 0, h = 0;
            const cv::Mat want = TReadImage::readImageToMat(paths[i], w, h);
            QCOMPARE(want.empty(), i == 3);
            for (int t = 0; t < threads; ++t) {
                const cv::Mat &got = results[size_t(t * n + i)];
                QCOMPARE(got.empty(), want.empty());
                QVERIFY(want.empty() || cv::norm(got, want, cv::NORM_INF) == 0.0);
            }
        }
    }
};

TWINFOLD_TEST_MAIN(TestTReadImage)
#include "tst_treadimage.moc"
