#include "similar/ImageData.h"

#include "app/TLogger.h"
#include "scan/FileCategory.h"
#include "similar/ImageCacheManager.h"
#include "similar/TReadImage.h"

#include <opencv2/features2d.hpp>
#include <opencv2/img_hash.hpp>
#include <opencv2/imgproc.hpp>

#include <cmath>

ImageData::ImageData(const QString &path, bool isDuplicate) : path(path), isDuplicate(isDuplicate) {}

void ImageData::markFailed()
{
    loaded = true;
    cached = false;
    failed = true;
}

bool ImageData::loadImageData(bool useHash)
{
    if (loaded)
        return true;
    pathKey = groupKey(path);
    const QString rawSuffix = fileSuffix(path);
    suffix = rawSuffix.toLower();
    if (similarExcludedSuffixes().contains(rawSuffix, Qt::CaseInsensitive)) {
        markFailed();
        return false;
    }

    const cv::Mat image = TReadImage::readImageToMat(path, width, height);
    if (image.empty() || image.cols < 1 || image.rows < 1) {
        markFailed();
        return false;
    }

    cv::Mat feature;
    if (useHash) {
        const cv::Mat small = resizeForHash(image, path);
        if (small.empty()) {
            markFailed();
            return false;
        }
        try {
            cv::img_hash::pHash(small, feature);
        } catch (const std::exception &e) {
            logInfo(QStringLiteral("pHash failed on image: %1, error: %2")
                        .arg(path, QString::fromUtf8(e.what())));
            markFailed();
            return false;
        }
    } else {
        const cv::Mat working = resizeForHistogram(image, path);
        if (working.empty()) {
            markFailed();
            return false;
        }
        computeHistogram(working, feature);
    }

    cached = !feature.empty() && ImageCacheManager::instance().insert(path, feature);
    loaded = true;
    return true;
}

cv::Mat ImageData::resizeForHash(const cv::Mat &image, const QString &path)
{
    if (image.empty() || image.cols < 1 || image.rows < 1) {
        logInfo(QStringLiteral("[ImageData] resizeForHistogram(): Invalid image size.file:%1.").arg(path));
        return {};
    }
    const int interpolation =
        image.cols >= hashSide && image.rows >= hashSide ? cv::INTER_AREA : cv::INTER_LINEAR;
    try {
        cv::Mat resized;
        cv::resize(image, resized, cv::Size(hashSide, hashSide), 0, 0, interpolation);
        return resized;
    } catch (const cv::Exception &e) {
        logInfo(QStringLiteral("[ImageData] resizeForHistogram() OpenCV error: %1. file:%2")
                    .arg(QString::fromUtf8(e.what()), path));
        return {};
    }
}

cv::Mat ImageData::resizeForHistogram(const cv::Mat &image, const QString &path)
{
    if (image.empty() || image.cols < 1 || image.rows < 1) {
        logInfo(QStringLiteral("[ImageData] resizeForHistogram(): Invalid image size.file:%1.").arg(path));
        return {};
    }
    const QSize target = fitSize(image.cols, image.rows, histogramSide, histogramSide);
    if (target.width() < 1 || target.height() < 1) {
        logInfo(
            QStringLiteral("[ImageData] resizeForHistogram(): Computed new size too small: %1 x %2. file:%3")
                .arg(target.width())
                .arg(target.height())
                .arg(path));
        return {};
    }
    if (target.width() == image.cols && target.height() == image.rows)
        return image.clone();
    try {
        cv::Mat resized;
        cv::resize(image, resized, cv::Size(target.width(), target.height()), 0, 0, cv::INTER_AREA);
        return resized;
    } catch (const cv::Exception &e) {
        logInfo(QStringLiteral("[ImageData] resizeForHistogram() OpenCV error: %1. file:%2")
                    .arg(QString::fromUtf8(e.what()), path));
        return {};
    }
}

void ImageData::computeHistogram(const cv::Mat &image, cv::Mat &histogram)
{
    histogram.release();
    if (image.empty() || image.cols < 1 || image.rows < 1) {
        logInfo(QStringLiteral("[ImageData] computeHistogram(): Invalid image for histogram."));
        return;
    }
    try {
        if (image.channels() > 1) {
            cv::Mat hsv;
            cv::cvtColor(image, hsv, cv::COLOR_BGR2HSV);
            const int channels[] = {0, 1};
            const int bins[] = {hueBins, saturationBins};
            const float hueRange[] = {0.f, 180.f};
            const float saturationRange[] = {0.f, 256.f};
            const float *ranges[] = {hueRange, saturationRange};
            cv::calcHist(&hsv, 1, channels, cv::Mat(), histogram, 2, bins, ranges, true, false);
        } else {
            const int channels[] = {0};
            const int bins[] = {greyBins};
            const float greyRange[] = {0.f, 256.f};
            const float *ranges[] = {greyRange};
            cv::calcHist(&image, 1, channels, cv::Mat(), histogram, 1, bins, ranges, true, false);
        }
        if (histogram.empty()) {
            logInfo(QStringLiteral("[ImageData] computeHistogram(): Histogram is empty after calculation."));
            return;
        }
        cv::normalize(histogram, histogram, 0, 1, cv::NORM_MINMAX);
    } catch (const cv::Exception &e) {
        logInfo(QStringLiteral("[ImageData] computeHistogram() OpenCV error: %1")
                    .arg(QString::fromUtf8(e.what())));
        histogram.release();
    } catch (...) {
        logInfo(QStringLiteral("[ImageData] computeHistogram() Unknown exception."));
        histogram.release();
    }
}

cv::Mat ImageData::getFeature()
{
    if (!cached)
        return {};
    cv::Mat feature;
    if (!ImageCacheManager::instance().get(path, feature))
        return {};
    loaded = true;
    return feature;
}

QSize ImageData::fitSize(int width, int height, int maxWidth, int maxHeight)
{
    if (width < 1 || height < 1)
        return QSize(0, 0);
    if (width <= maxWidth && height <= maxHeight)
        return QSize(width, height);
    const float scale = std::min(static_cast<float>(maxWidth) / static_cast<float>(width),
                                 static_cast<float>(maxHeight) / static_cast<float>(height));
    const int newWidth = std::max(1, static_cast<int>(static_cast<float>(width) * scale));
    const int newHeight = std::max(1, static_cast<int>(static_cast<float>(height) * scale));
    return QSize(newWidth, newHeight);
}

QSize ImageData::orbWorkingSize(int cols, int rows)
{
    if (cols < orbMinSide || rows < orbMinSide)
        return QSize(cols * orbMinSide, rows * orbMinSide);
    // Only the width is held to the limit: tall narrow images keep their full height.
    if (cols > orbMaxWidth) {
        const QSize target = fitSize(cols, rows, orbMaxWidth, orbMaxWidth);
        if (target.width() <= orbMinSide || target.height() <= orbMinSide)
            return QSize();
        return target;
    }
    return QSize(cols, rows);
}

cv::Mat ImageData::getOrbDescriptors()
{
    if (failed)
        return {};
    if (!descriptors.empty())
        return descriptors;

    int decodedWidth = 0;
    int decodedHeight = 0;
    cv::Mat image = TReadImage::readImageToMat(path, decodedWidth, decodedHeight);
    if (image.empty() || image.cols < 1 || image.rows < 1) {
        failed = true;
        logInfo(QStringLiteral("[ImageData] Invalid or empty image: cols=%1, rows=%2")
                    .arg(image.cols)
                    .arg(image.rows));
        return {};
    }
    const QSize working = orbWorkingSize(image.cols, image.rows);
    if (working.isEmpty()) {
        failed = true;
        logInfo(QStringLiteral("[ImageData] Invalid resize dimensions calculated: width or height <= 5"));
        return {};
    }
    try {
        if (working.width() != image.cols || working.height() != image.rows) {
            cv::Mat resized;
            cv::resize(image, resized, cv::Size(working.width(), working.height()), 0, 0, cv::INTER_LINEAR);
            image = resized;
        }
        cv::Ptr<cv::ORB> orb = cv::ORB::create(500, 1.2f, 8, 31, 0, 2, cv::ORB::HARRIS_SCORE, 31, 20);
        std::vector<cv::KeyPoint> keypoints;
        orb->detectAndCompute(image, cv::noArray(), keypoints, descriptors);
    } catch (const cv::Exception &e) {
        logInfo(QStringLiteral("[ImageData] ORB OpenCV error: %1. file:%2")
                    .arg(QString::fromUtf8(e.what()), path));
        descriptors.release();
    }
    if (descriptors.empty())
        failed = true;
    return descriptors;
}
