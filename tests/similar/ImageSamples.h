#pragma once

// Writers of camera-raw and HEIF sample files, shared by the decoder tests and the
// decoding benchmark, which both make their own files.

#include <QByteArray>
#include <QDataStream>
#include <QIODevice>
#include <QList>
#include <QScopeGuard>
#include <QSize>
#include <QString>

#include <libheif/heif.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <cstring>

namespace ImageSamples {

// A little-endian DNG: a 64x64 uncompressed CFA raw and, when a preview is given, an IFD0
// holding it (JPEG, or an 8-bit RGB strip) with the raw in a sub-IFD. Entries are given as
// (tag, type, count, value) with every value inline; types 1 BYTE, 3 SHORT, 4 LONG.
inline QByteArray makeDng(const QByteArray &preview, QSize size, bool jpeg, int orientation)
{
    constexpr quint32 side = 64, rawAt = 8, previewAt = rawAt + side * side * 2;
    const quint32 ifd0At = previewAt + quint32((preview.size() + 1) & ~1), flip = quint32(orientation);
    const quint32 w = quint32(size.width()), h = quint32(size.height());
    // clang-format off
    const QList<quint32> rawIfd{254, 4, 1, 0,  256, 4, 1, side,  257, 4, 1, side,  258, 3, 1, 16,
        259, 3, 1, 1,  262, 3, 1, 32803,  273, 4, 1, rawAt,  274, 3, 1, flip,  277, 3, 1, 1,
        278, 4, 1, side,  279, 4, 1, side * side * 2,  33421, 3, 2, 0x20002,  33422, 1, 4, 0x02010100,
        50706, 1, 4, 0x0401};
    const QList<quint32> previewIfd{254, 4, 1, 1,  256, 4, 1, w,  257, 4, 1, h,  258, 3, 1, 8,
        259, 3, 1, jpeg ? 7u : 1u,  262, 3, 1, jpeg ? 6u : 2u,  273, 4, 1, previewAt,  274, 3, 1, flip,
        277, 3, 1, 3,  278, 4, 1, h,  279, 4, 1, quint32(preview.size()),
        330, 4, 1, ifd0At + 2 + 12 * 13 + 4,  50706, 1, 4, 0x0401};
    // clang-format on
    QByteArray file;
    QDataStream out(&file, QIODevice::WriteOnly);
    out.setByteOrder(QDataStream::LittleEndian);
    out.writeRawData("II*\0", 4);
    out << ifd0At;
    for (quint32 i = 0; i < side * side; ++i)
        out << quint16(1000 + (i % 7) * 300);
    out.writeRawData(preview.constData(), int(preview.size()));
    if (preview.size() % 2)
        out << quint8(0);
    for (const QList<quint32> &ifd :
         preview.isEmpty() ? QList<QList<quint32>>{rawIfd} : QList<QList<quint32>>{previewIfd, rawIfd}) {
        out << quint16(ifd.size() / 4);
        for (qsizetype i = 0; i < ifd.size(); i += 4)
            out << quint16(ifd[i]) << quint16(ifd[i + 1]) << ifd[i + 2] << ifd[i + 3];
        out << quint32(0);
    }
    return file;
}

// An HEVC-coded HEIF of a BGR picture, with a thumbnail fitting thumbSide when it is > 0.
// Returns what went wrong, or an empty string.
inline QString writeHeic(const QString &path, const cv::Mat &bgr, int thumbSide)
{
    const int width = bgr.cols, height = bgr.rows;
    heif_context *ctx = heif_context_alloc();
    heif_encoder *encoder = nullptr;
    heif_image *image = nullptr;
    heif_image_handle *handle = nullptr, *thumb = nullptr;
    const auto cleanup = qScopeGuard([&] {
        heif_image_handle_release(thumb);
        heif_image_handle_release(handle);
        heif_image_release(image);
        if (encoder)
            heif_encoder_release(encoder);
        heif_context_free(ctx);
    });
    if (heif_context_get_encoder_for_format(ctx, heif_compression_HEVC, &encoder).code != heif_error_Ok)
        return QStringLiteral("no HEVC encoder in this libheif");
    heif_image_create(width, height, heif_colorspace_RGB, heif_chroma_interleaved_RGB, &image);
    heif_image_add_plane(image, heif_channel_interleaved, width, height, 8);
    int stride = 0;
    uint8_t *plane = heif_image_get_plane(image, heif_channel_interleaved, &stride);
    cv::Mat rgb;
    cv::cvtColor(bgr, rgb, cv::COLOR_BGR2RGB);
    for (int y = 0; y < height; ++y)
        memcpy(plane + y * stride, rgb.ptr(y), size_t(width) * 3);
    if (heif_context_encode_image(ctx, image, encoder, nullptr, &handle).code != heif_error_Ok ||
        (thumbSide > 0 &&
         heif_context_encode_thumbnail(ctx, image, handle, encoder, nullptr, thumbSide, &thumb).code !=
             heif_error_Ok))
        return QStringLiteral("encoding failed");
    return heif_context_write_to_file(ctx, path.toUtf8().constData()).code == heif_error_Ok
               ? QString()
               : QStringLiteral("writing failed");
}

} // namespace ImageSamples
