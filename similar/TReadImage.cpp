#include "similar/TReadImage.h"

#include "app/TLogger.h"
#include "platform/ImageFileReader.h"
#include "similar/ImageCodecs.h"

#include <QFile>
#include <QFileInfo>
#include <QImageReader>
#include <QScopeGuard>
#include <QSet>
#include <QTransform>

#include <libheif/heif.h>
#include <libraw/libraw.h>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <climits>
#include <cstring>
#include <exception>
#include <memory>
#include <new>

using namespace Qt::StringLiterals;

namespace {

// Built once, read-only afterwards, so every thread may consult them without a lock.
const QSet<QString> &rawSuffixes()
{
    static const QSet<QString> suffixes{u"arw"_s, u"bay"_s, u"bur"_s, u"ccr"_s, u"crw"_s, u"cr2"_s, u"cr3"_s,
                                        u"dcr"_s, u"dng"_s, u"drw"_s, u"erf"_s, u"fff"_s, u"iiq"_s, u"k25"_s,
                                        u"kdc"_s, u"me2"_s, u"mef"_s, u"mos"_s, u"mrw"_s, u"nef"_s, u"nrw"_s,
                                        u"orf"_s, u"pef"_s, u"pff"_s, u"prw"_s, u"raf"_s, u"ra"_s,  u"rwl"_s,
                                        u"rw2"_s, u"sr2"_s, u"srf"_s, u"srw"_s, u"x3f"_s};
    return suffixes;
}

const QSet<QString> &heifSuffixes()
{
    static const QSet<QString> suffixes{u"heic"_s, u"heif"_s};
    return suffixes;
}

QString lowerSuffix(const QString &path)
{
    return QFileInfo(path).suffix().toLower();
}

QString number(qint64 value)
{
    return QString::number(value);
}

// Images up to the pixel limit must decode. Qt's default allocation cap (256 MiB) would
// refuse 100 MP at 4 bytes a pixel, so the reader's cap is raised to fit it.
constexpr int readerAllocationLimitMiB = 512;
constexpr qint64 readerPixelLimit = 100000000;

// Orientation of a camera image as LibRaw reports it, as a clockwise rotation.
qreal rotationForFlip(int flip)
{
    switch (flip) {
    case 3:
        return 180.0;
    case 5:
    case 8:
        return 270.0;
    case 6:
        return 90.0;
    default:
        return 0.0;
    }
}

QString heifMessage(const heif_error &error)
{
    return QString::fromUtf8(error.message ? error.message : "");
}

} // namespace

int TReadImage::classifyImageFile(const QString &path)
{
    const QString suffix = lowerSuffix(path);
    if (rawSuffixes().contains(suffix))
        return RawFile;
    if (heifSuffixes().contains(suffix))
        return HeifFile;
    if (QFileInfo(path).isDir())
        return Directory;
    return OtherFile;
}

cv::Mat TReadImage::readImageToMat(const QString &path, int &width, int &height)
{
    const QString suffix = lowerSuffix(path);
    if (!rawSuffixes().contains(suffix) && !heifSuffixes().contains(suffix)) {
        cv::Mat mat = readImageFromBuffer(path, width, height);
        if (!mat.empty())
            return mat;
        return readImageWithFallback(path, width, height);
    }
    // On the thumbnail roads the caller learns the size of what it gets, not the
    // camera's full size, which would need the whole raw or HEIF image to be parsed.
    cv::Mat mat = getFileThumbnailToMat(path);
    width = mat.cols;
    height = mat.rows;
    return mat;
}

QImage TReadImage::readImageToQImage(const QString &path, int &width, int &height)
{
    return mat2QImage(readImageToMat(path, width, height));
}

cv::Mat TReadImage::readImageFromBuffer(const QString &path, int &width, int &height)
{
    try {
        std::vector<uchar> bytes;
        switch (ImageFileReader::readAll(path, bytes)) {
        case ImageFileReader::Status::Ok:
            break;
        case ImageFileReader::Status::CannotOpen:
            logInfo(u"[TImageRead]: Cannot open file: %1"_s.arg(path));
            return cv::Mat();
        case ImageFileReader::Status::NoSize:
            logInfo(u"[TImageRead]: Failed to get file size: %1"_s.arg(path));
            return cv::Mat();
        case ImageFileReader::Status::TooLargeOrEmpty:
            logInfo(u"[TImageRead]: File too large or empty: %1"_s.arg(path));
            return cv::Mat();
        case ImageFileReader::Status::NoMemory:
            logInfo(u"[TImageRead]: Memory allocation failed: %1"_s.arg(path));
            return cv::Mat();
        case ImageFileReader::Status::ReadFailed:
            logInfo(u"[TImageRead]: ReadFile failed: %1"_s.arg(path));
            return cv::Mat();
        }

        cv::Mat mat = ImageCodecs::decode(cv::Mat(bytes), ImageCodecs::ReadColor);
        if (mat.empty()) {
            logInfo(u"[TImageRead]: imdecode returned empty: %1"_s.arg(path));
            return cv::Mat();
        }
        width = mat.cols;
        height = mat.rows;
        if (mat.cols > maxImageSide || mat.rows > maxImageSide) {
            const double scale = std::min(double(maxImageSide) / mat.cols, double(maxImageSide) / mat.rows);
            if (scale < 1.0) {
                cv::Mat scaled;
                cv::resize(mat, scaled, cv::Size(), scale, scale, cv::INTER_AREA);
                return scaled;
            }
        }
        return mat;
    } catch (const std::exception &e) {
        logInfo(u"[TImageRead]: Exception: %1 | File: %2"_s.arg(QString::fromLocal8Bit(e.what()), path));
    } catch (...) {
        logInfo(u"[TImageRead]: Unknown exception occurred: %1"_s.arg(path));
    }
    return cv::Mat();
}

cv::Mat TReadImage::readImageWithFallback(const QString &path, int &width, int &height)
{
    width = 0;
    height = 0;
    const std::string utf8Path = path.toStdString();
    cv::Mat mat;

    try {
        mat = ImageCodecs::read(utf8Path, ImageCodecs::ReadColor);
        if (!mat.empty()) {
            width = mat.cols;
            height = mat.rows;
            logInfo(u"[TReadImage]: Full read success. File: %1, Size: %2x%3"_s.arg(path, number(width),
                                                                                    number(height)));
        }
    } catch (const std::bad_alloc &) {
        logInfo(u"[TReadImage]: cv::imread Out of memory full read. File: %1"_s.arg(path));
    } catch (const cv::Exception &e) {
        if (e.code == cv::Error::StsNoMem)
            logInfo(u"[TReadImage]: cv::imread Out of memory full read. File: %1"_s.arg(path));
        else
            logInfo(u"[TReadImage]: cv::imread Exception full read. File: %1, Error: %2"_s.arg(
                path, QString::fromLocal8Bit(e.what())));
    } catch (const std::exception &e) {
        logInfo(u"[TReadImage]: cv::imread Exception full read. File: %1, Error: %2"_s.arg(
            path, QString::fromLocal8Bit(e.what())));
    } catch (...) {
        logInfo(u"[TReadImage]: Unknown exception full read. File: %1"_s.arg(path));
    }

    if (mat.empty()) {
        try {
            mat = ImageCodecs::read(utf8Path, ImageCodecs::ReadReducedColor8);
            if (!mat.empty()) {
                // Deliberately an estimate: the decoder only produced an eighth.
                width = mat.cols * 8;
                height = mat.rows * 8;
                logInfo(u"[TReadImage]: Reduced read success (1/8). File: %1, Size: %2x%3"_s.arg(
                    path, number(width), number(height)));
            }
        } catch (...) {
            mat = cv::Mat();
            logInfo(u"[TReadImage]: Exception or out of memory on reduced read. File: %1"_s.arg(path));
        }
    }

    if (!mat.empty())
        return limitMatSize(mat);

    try {
        QImageReader reader(path);
        reader.setAllocationLimit(readerAllocationLimitMiB);
        const QSize size = reader.size();
        if (size.width() >= 0 && size.height() >= 0) {
            width = size.width();
            height = size.height();
            logInfo(u"[TReadImage]: QImageReader size. File: %1, Size: %2x%3"_s.arg(path, number(width),
                                                                                    number(height)));
            if (qint64(width) * height > readerPixelLimit) {
                logInfo(u"[TReadImage]: Image too large, skip. File: %1, Size: %2x%3"_s.arg(
                    path, number(width), number(height)));
                return cv::Mat();
            }
        }
        if (size.width() > maxImageSide || size.height() > maxImageSide) {
            const QSize scaled = size.scaled(maxImageSide, maxImageSide, Qt::KeepAspectRatio);
            reader.setScaledSize(scaled);
            logInfo(u"[TReadImage]: QImageReader scaled size. File: %1, Scaled Size: %2x%3"_s.arg(
                path, number(scaled.width()), number(scaled.height())));
        }
        const QImage image = reader.read();
        if (image.isNull()) {
            logInfo(u"[TReadImage]: QImageReader failed. File: %1"_s.arg(path));
            return cv::Mat();
        }
        // Kept in R, G, B order: every image decoded this way is compared in the same order.
        const QImage rgb = image.convertToFormat(QImage::Format_RGB888);
        if (rgb.isNull()) {
            logInfo(u"[TReadImage]: QImageReader failed. File: %1"_s.arg(path));
            return cv::Mat();
        }
        const cv::Mat wrapped(rgb.height(), rgb.width(), CV_8UC3, const_cast<uchar *>(rgb.constBits()),
                              static_cast<size_t>(rgb.bytesPerLine()));
        return limitMatSize(wrapped.clone());
    } catch (...) {
        logInfo(u"[TReadImage]: QImageReader failed. File: %1"_s.arg(path));
    }
    return cv::Mat();
}

cv::Mat TReadImage::limitMatSize(const cv::Mat &src)
{
    if (src.empty() || (src.cols <= maxImageSide && src.rows <= maxImageSide))
        return src;
    if (src.cols < 1 || src.rows < 1) {
        logInfo(u"[TReadImage]: Invalid image size, skip resize."_s);
        return cv::Mat();
    }
    const double scale = std::min(double(maxImageSide) / src.cols, double(maxImageSide) / src.rows);
    // Truncated, never rounded, so the longer side cannot come out above the limit.
    const int newWidth = std::max(static_cast<int>(src.cols * scale), 1);
    const int newHeight = std::max(static_cast<int>(src.rows * scale), 1);
    try {
        cv::Mat dst;
        cv::resize(src, dst, cv::Size(newWidth, newHeight), 0, 0, cv::INTER_AREA);
        logInfo(u"[TReadImage]: Resized image from %1x%2 to %3x%4"_s.arg(
            number(src.cols), number(src.rows), number(newWidth), number(newHeight)));
        return dst;
    } catch (const std::exception &e) {
        logInfo(u"[TReadImage]: cv::resize failed: %1"_s.arg(QString::fromLocal8Bit(e.what())));
    } catch (...) {
        logInfo(u"[TReadImage]: cv::resize failed: %1"_s.arg(u"unknown error"_s));
    }
    return cv::Mat();
}

QImage TReadImage::limitQImageSize(const QImage &src)
{
    if (src.isNull() || (src.width() <= maxImageSide && src.height() <= maxImageSide))
        return src;
    int targetWidth;
    int targetHeight;
    if (src.width() <= src.height()) {
        targetHeight = maxImageSide;
        targetWidth = static_cast<int>(qint64(src.width()) * maxImageSide / src.height());
    } else {
        targetWidth = maxImageSide;
        targetHeight = static_cast<int>(qint64(src.height()) * maxImageSide / src.width());
    }
    // The target already keeps the aspect ratio (truncated); letting Qt fit it again would
    // shrink the longer side of very narrow images well below the limit.
    return src.scaled(std::max(targetWidth, 1), std::max(targetHeight, 1), Qt::IgnoreAspectRatio,
                      Qt::SmoothTransformation);
}

cv::Mat TReadImage::getFileThumbnailToMat(const QString &path)
{
    try {
        QImage image;
        switch (classifyImageFile(path)) {
        case RawFile:
            image = readRawThumbnail(path);
            break;
        case HeifFile:
            image = readHeifImage(path);
            break;
        default:
            return cv::Mat();
        }
        if (image.isNull())
            return cv::Mat();
        return qimage2Mat(image);
    } catch (...) {
        logInfo(u"[TReadImage]: getFileThumbnailToMat Exception occurred while reading file to cv::Mat."_s);
    }
    return cv::Mat();
}

QImage TReadImage::readRawThumbnail(const QString &path)
{
    QImage image;
    try {
        // The processor is large; one per call keeps concurrent calls independent.
        auto raw = std::make_unique<LibRaw>();
#if defined(_WIN32) || defined(WIN32)
        const std::wstring nativePath = path.toStdWString();
        const int openResult = raw->open_file(nativePath.c_str());
#else
        const int openResult = raw->open_file(QFile::encodeName(path).constData());
#endif
        if (openResult != LIBRAW_SUCCESS) {
            logInfo(u"[TReadImage]: LibRaw open_file failed,error code %1. fies:%2"_s.arg(number(openResult),
                                                                                          path));
            return QImage();
        }
        if (raw->unpack_thumb() != LIBRAW_SUCCESS) {
            logInfo(u"[TReadImage]: LibRaw unpack_thumb failed. fies:%1"_s.arg(path));
            return QImage();
        }

        const libraw_thumbnail_t &thumb = raw->imgdata.thumbnail;
        const QSize declared(thumb.twidth, thumb.theight);
        switch (thumb.tformat) {
        case LIBRAW_THUMBNAIL_UNKNOWN:
            logInfo(u"[TReadImage]: LIBRAW_THUMBNAIL_UNKNOWN. fies:%1"_s.arg(path));
            return QImage();
        case LIBRAW_THUMBNAIL_JPEG:
            if (thumb.tlength >= 1 && thumb.thumb)
                image = QImage::fromData(reinterpret_cast<const uchar *>(thumb.thumb),
                                         static_cast<int>(std::min<unsigned>(thumb.tlength, INT_MAX)));
            break;
        case LIBRAW_THUMBNAIL_BITMAP: {
            // Only wrap what LibRaw really delivered, whatever the header claims.
            const qint64 needed = qint64(declared.width()) * declared.height() * 3;
            if (thumb.thumb && !declared.isEmpty() && qint64(thumb.tlength) >= needed)
                image = QImage(reinterpret_cast<const uchar *>(thumb.thumb), declared.width(),
                               declared.height(), declared.width() * 3, QImage::Format_RGB888)
                            .copy();
            break;
        }
        default:
            logInfo(u"[TReadImage]: UNKNOWN. fies:%1"_s.arg(path));
            break;
        }
        // Some cameras store a preview larger than the size its header declares; a missing
        // declaration must not wipe out a decoded preview.
        if (!image.isNull() && !declared.isEmpty() && image.size() != declared)
            image = image.scaled(declared, Qt::KeepAspectRatio, Qt::SmoothTransformation);

        const int flip = raw->imgdata.sizes.flip;
        raw->recycle();
        if (image.isNull())
            return image;
        QTransform rotation;
        rotation.rotate(rotationForFlip(flip), Qt::ZAxis);
        return image.transformed(rotation, Qt::FastTransformation);
    } catch (const std::exception &e) {
        logInfo(u"[TReadImage]: LibRaw exception: %1. fies:%2"_s.arg(QString::fromLocal8Bit(e.what()), path));
    } catch (...) {
        logInfo(u"[TReadImage]: LibRaw exception: unknown. fies:%1"_s.arg(path));
    }
    return QImage();
}

QImage TReadImage::readHeifImage(const QString &path)
{
    {
        // Not an ISO media file at all: not worth a log line, the suffix was simply wrong.
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly))
            return QImage();
        const QByteArray head = file.read(12);
        if (head.size() < 12 || head.mid(4, 4) != "ftyp"_ba)
            return QImage();
    }

    heif_context *context = nullptr;
    heif_image_handle *primary = nullptr;
    heif_image_handle *thumbnail = nullptr;
    heif_image *decoded = nullptr;
    const auto release = qScopeGuard([&] {
        heif_image_release(decoded);
        heif_image_handle_release(primary);
        heif_image_handle_release(thumbnail);
        heif_context_free(context);
    });

    QImage result;
    try {
        context = heif_context_alloc();
        if (!context) {
            logInfo(
                u"[TReadImage]: Failed to read HEIF. message=%1. fies:%2"_s.arg(u"out of memory"_s, path));
            return QImage();
        }
        heif_error error = heif_context_read_from_file(context, path.toUtf8().constData(), nullptr);
        if (error.code != heif_error_Ok) {
            logInfo(
                u"[TReadImage]: Failed to read HEIF. message=%1. fies:%2"_s.arg(heifMessage(error), path));
            return QImage();
        }
        error = heif_context_get_primary_image_handle(context, &primary);
        if (error.code != heif_error_Ok || !primary) {
            logInfo(u"[TReadImage]: Failed to get primary image handle:=%1. fies:%2"_s.arg(heifMessage(error),
                                                                                           path));
            return QImage();
        }

        int width = 0;
        int height = 0;
        const int thumbnailCount = heif_image_handle_get_number_of_thumbnails(primary);
        if (thumbnailCount >= 1) {
            std::vector<heif_item_id> ids(static_cast<size_t>(thumbnailCount));
            const int listed =
                heif_image_handle_get_list_of_thumbnail_IDs(primary, ids.data(), thumbnailCount);
            if (listed != thumbnailCount) {
                logInfo(u"[TReadImage]: Failed to get thumbnail IDs. fies:%1"_s.arg(path));
            } else if (error = heif_image_handle_get_thumbnail(primary, ids[0], &thumbnail);
                       error.code != heif_error_Ok || !thumbnail) {
                logInfo(u"[TReadImage]: Failed to get thumbnail handle. fies:%1"_s.arg(path));
            } else if (error = heif_decode_image(thumbnail, &decoded, heif_colorspace_RGB,
                                                 heif_chroma_interleaved_RGB, nullptr);
                       error.code != heif_error_Ok) {
                logInfo(u"[TReadImage]: Failed to decode thumbnail. message=%1. fies:%2"_s.arg(
                    heifMessage(error), path));
            } else {
                width = heif_image_handle_get_width(thumbnail);
                height = heif_image_handle_get_height(thumbnail);
            }
        } else {
            error = heif_decode_image(primary, &decoded, heif_colorspace_RGB, heif_chroma_interleaved_RGB,
                                      nullptr);
            if (error.code != heif_error_Ok || !decoded) {
                logInfo(u"[TReadImage]: Failed to decode primary image. message=%1. fies:%2"_s.arg(
                    heifMessage(error), path));
            } else {
                width = heif_image_handle_get_width(primary);
                height = heif_image_handle_get_height(primary);
            }
        }

        if (!decoded) {
            logInfo(u"[TReadImage]: Image is nullptr. fies:%1"_s.arg(path));
            return QImage();
        }
        int stride = 0;
        const uint8_t *plane = heif_image_get_plane_readonly(decoded, heif_channel_interleaved, &stride);
        // The handle's size must also fit the plane really decoded, or the wrap would read
        // past its end.
        const bool fits = width <= heif_image_get_width(decoded, heif_channel_interleaved) &&
                          height <= heif_image_get_height(decoded, heif_channel_interleaved) &&
                          qint64(stride) >= qint64(width) * 3;
        if (plane && width > 0 && height > 0 && stride > 0 && fits) {
            result = QImage(plane, width, height, stride, QImage::Format_RGB888).copy();
        } else {
            logInfo(u"[TReadImage]: Failed to get image plane or invalid image size. fies:%1"_s.arg(path));
        }
    } catch (const std::exception &e) {
        logInfo(u"[TReadImage]: Failed to read HEIF. message=%1. fies:%2"_s.arg(
            QString::fromLocal8Bit(e.what()), path));
        return QImage();
    }
    return result;
}

cv::Mat TReadImage::qimage2Mat(const QImage &image)
{
    if (image.isNull() || image.width() == 0 || image.height() == 0)
        return cv::Mat();
    try {
        QImage limited = limitQImageSize(image);
        cv::Mat result;
        switch (limited.format()) {
        case QImage::Format_RGB32:
        case QImage::Format_ARGB32:
        case QImage::Format_ARGB32_Premultiplied:
            break;
        case QImage::Format_RGB888: {
            const cv::Mat wrapped(limited.height(), limited.width(), CV_8UC3,
                                  const_cast<uchar *>(limited.constBits()),
                                  static_cast<size_t>(limited.bytesPerLine()));
            cv::cvtColor(wrapped, result, cv::COLOR_RGB2BGR);
            break;
        }
        default:
            limited = limited.convertToFormat(QImage::Format_ARGB32);
            break;
        }
        if (result.empty() && !limited.isNull() && limited.format() != QImage::Format_RGB888) {
            // 32-bit pixels lie in memory as B, G, R, A on the little-endian machines we run on.
            const cv::Mat wrapped(limited.height(), limited.width(), CV_8UC4,
                                  const_cast<uchar *>(limited.constBits()),
                                  static_cast<size_t>(limited.bytesPerLine()));
            cv::cvtColor(wrapped, result, cv::COLOR_BGRA2BGR);
        }
        if (result.empty())
            logInfo(u"[TReadImage]: qimage2Mat: result is empty!"_s);
        return result;
    } catch (const std::exception &e) {
        logInfo(u"[TReadImage]: qimage2Mat exception: %1"_s.arg(QString::fromLocal8Bit(e.what())));
    } catch (...) {
        logInfo(u"[TReadImage]: qimage2Mat exception: %1"_s.arg(u"unknown error"_s));
    }
    return cv::Mat();
}

QImage TReadImage::mat2QImage(const cv::Mat &mat)
{
    if (mat.empty())
        return QImage();
    try {
        switch (mat.type()) {
        case CV_8UC1: {
            QImage image(mat.cols, mat.rows, QImage::Format_Grayscale8);
            if (image.isNull())
                return QImage();
            // One block copy, without regard to the image's 4-byte row padding: widths that
            // are not a multiple of 4 come out sheared.
            const cv::Mat continuous = mat.isContinuous() ? mat : mat.clone();
            const size_t bytes =
                std::min<size_t>(continuous.total(), static_cast<size_t>(image.sizeInBytes()));
            std::memcpy(image.bits(), continuous.data, bytes);
            return image;
        }
        case CV_8UC3: {
            QImage image(mat.cols, mat.rows, QImage::Format_RGB888);
            if (image.isNull())
                return QImage();
            // Swap B and R straight into the image's rows.
            cv::Mat target(mat.rows, mat.cols, CV_8UC3, image.bits(),
                           static_cast<size_t>(image.bytesPerLine()));
            cv::cvtColor(mat, target, cv::COLOR_BGR2RGB);
            return image;
        }
        case CV_8UC4:
            return QImage(mat.data, mat.cols, mat.rows, static_cast<qsizetype>(mat.step[0]),
                          QImage::Format_ARGB32)
                .copy();
        default:
            logInfo(u"[TReadImage]: mat2QImage: Unsupported cv::Mat type: %1"_s.arg(number(mat.type())));
            return QImage();
        }
    } catch (const std::exception &e) {
        logInfo(u"[TReadImage]: mat2QImage exception: %1"_s.arg(QString::fromLocal8Bit(e.what())));
    } catch (...) {
        logInfo(u"[TReadImage]: mat2QImage exception: %1"_s.arg(u"unknown error"_s));
    }
    return QImage();
}
