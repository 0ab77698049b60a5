#pragma once

#include <QImage>
#include <QString>

#include <opencv2/core/mat.hpp>

// Turns an image file into a small colour matrix (8-bit BGR, at most maxImageSide on its
// longer side) or a QImage. Camera raw files are read through their embedded preview and
// HEIF files through their thumbnail, so no full-size decode happens on those roads.
// Every function is static, re-entrant and never throws: failures give an empty result
// and one debug-log line.
class TReadImage
{
public:
    static constexpr int maxImageSide = 1024;

    // File kinds of classifyImageFile.
    enum FileKind : int
    {
        RawFile = 0,
        HeifFile = 1,
        Directory = 3,
        OtherFile = 4
    };

    static cv::Mat readImageToMat(const QString &path, int &width, int &height);
    static QImage readImageToQImage(const QString &path, int &width, int &height);
    static int classifyImageFile(const QString &path);
    static cv::Mat readImageFromBuffer(const QString &path, int &width, int &height);
    static cv::Mat readImageWithFallback(const QString &path, int &width, int &height);
    static cv::Mat limitMatSize(const cv::Mat &src);
    static QImage limitQImageSize(const QImage &src);
    static cv::Mat getFileThumbnailToMat(const QString &path);
    static QImage readRawThumbnail(const QString &path);
    static QImage readHeifImage(const QString &path);
    static cv::Mat qimage2Mat(const QImage &image);
    static QImage mat2QImage(const cv::Mat &mat);
};
