#pragma once

#include <QHash>
#include <QReadWriteLock>
#include <QString>

#include <opencv2/core/mat.hpp>

// Keeps the comparison features of one similar-image run between loading and pair
// matching: in memory up to a budget taken from the available memory, then one file per
// feature up to a budget taken from the free disk space. When even the disk budget is
// exhausted the run is marked incomplete, which the result side reports to the user.
class ImageCacheManager
{
public:
    // The folder counts only on the first call; empty means <temp>/image_cache.
    static ImageCacheManager &instance(const QString &cacheDir = QString());

    void setMaxCache();
    bool insert(const QString &key, const cv::Mat &feature);
    bool get(const QString &key, cv::Mat &feature);
    void clear();
    bool isIncomplete() const;

    QString cacheFilePath(const QString &key) const;

    ImageCacheManager(const ImageCacheManager &) = delete;
    ImageCacheManager &operator=(const ImageCacheManager &) = delete;

protected:
    // Tests create private managers on their own folders.
    explicit ImageCacheManager(const QString &cacheDir);

    bool writeToDisk(const QString &key, const cv::Mat &feature);
    bool readFromDisk(const QString &key, cv::Mat &feature);

    QHash<QString, cv::Mat> memoryCache;
    qint64 memoryUsed = 0;
    qint64 maxMemoryUsage = 0;
    qint64 diskUsed = 0;
    qint64 maxDiskUsage = 0;
    QString cacheDir;
    mutable QReadWriteLock lock;
    bool diskFull = false;
    // A cache file could not be written: like a full disk, the run lost a feature.
    bool writeFailed = false;
    bool memoryFull = false;
    qint32 memoryFullLogBudget = 5;
    qint32 diskFullLogBudget = 5;

    // Tests turn this off to take the plain-read road of readFromDisk.
    bool mapCacheFiles = true;

private:
    // Remaining lines about cache files that could not be opened or written.
    qint32 writeFailureLogBudget = 5;
    void removeLeftoverFiles();
};
