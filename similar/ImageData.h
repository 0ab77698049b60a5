#pragma once

#include <QSize>
#include <QString>

#include <opencv2/core/mat.hpp>

// One image of a similar-image run: where it is, how big it was, whether it can take
// part at all, and its comparison feature (perceptual hash or colour histogram). The
// feature itself lives in the image cache between loading and matching so that tens of
// thousands of records stay small; ORB descriptors are kept here once computed.
// A value type: copies share matrix data.
class ImageData
{
public:
    ImageData() = default;
    ImageData(const QString &path, bool isDuplicate);

    QString path;
    QString suffix;
    qint32 width = 0;
    qint32 height = 0;
    QString pathKey;
    bool isDuplicate = false;
    cv::Mat featureMat;
    cv::Mat descriptors;
    qint32 similarity = 100;
    bool loaded = false;
    bool cached = false;
    bool failed = false;

    // Decodes the image, computes the feature of the chosen kind and hands it to the
    // image cache. True when a feature exists or the record was loaded before.
    bool loadImageData(bool useHash);

    // The cached feature, or an empty matrix.
    cv::Mat getFeature();
    // ORB descriptors, computed on first use; empty (and failed set) when none.
    cv::Mat getOrbDescriptors();

    static cv::Mat resizeForHash(const cv::Mat &image, const QString &path = QString());
    static cv::Mat resizeForHistogram(const cv::Mat &image, const QString &path = QString());
    static void computeHistogram(const cv::Mat &image, cv::Mat &histogram);
    // Size scaled into a box keeping the aspect ratio; 0 x 0 for a non-positive side.
    static QSize fitSize(int width, int height, int maxWidth, int maxHeight);
    // The size ORB works on for an image of cols x rows; an empty QSize when the image
    // cannot be brought to a usable size.
    static QSize orbWorkingSize(int cols, int rows);

    static constexpr int hashSide = 64;
    static constexpr int histogramSide = 1024;
    static constexpr int orbMaxWidth = 512;
    static constexpr int orbMinSide = 5;
    static constexpr int hueBins = 50;
    static constexpr int saturationBins = 60;
    static constexpr int greyBins = 256;

private:
    void markFailed();
};
