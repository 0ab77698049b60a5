#include "similar/ImageCacheManager.h"

#include "app/ReadWriteLockGuard.h"
#include "app/TLogger.h"
#include "platform/AvailableMemory.h"

#include <QCryptographicHash>
#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStorageInfo>

#include <opencv2/core.hpp>

#include <exception>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 kHeaderBytes = 12; // type, rows, columns as big-endian qint32
constexpr qint64 kMaxDataBytes = 1000000000;
constexpr qint64 kDefaultBudgetBase = 1073741824; // 1 GiB when the system cannot tell
constexpr double kBudgetShare = 0.85;

QString defaultCacheDir()
{
    return QDir::tempPath() + u"/image_cache"_s;
}

// Removes every "*.cache" file of dir; returns how many went.
int removeCacheFiles(const QString &dir)
{
    int removed = 0;
    const QFileInfoList files = QDir(dir).entryInfoList({u"*.cache"_s}, QDir::Files);
    for (const QFileInfo &info : files) {
        if (QFile::remove(info.absoluteFilePath()))
            ++removed;
        else
            logInfo(u"[ImageCacheManager]: Failed to remove cache file: %1"_s.arg(info.absoluteFilePath()));
    }
    return removed;
}

// Bytes of the element data of a two-dimensional matrix, 0 for anything else.
qint64 dataBytes(const cv::Mat &m)
{
    if (m.empty() || m.dims > 2)
        return 0;
    return qint64(m.rows) * qint64(m.cols) * qint64(m.elemSize());
}
} // namespace

ImageCacheManager &ImageCacheManager::instance(const QString &cacheDir)
{
    static ImageCacheManager manager(cacheDir);
    return manager;
}

ImageCacheManager::ImageCacheManager(const QString &dir)
    : cacheDir(dir.isEmpty() ? defaultCacheDir() : QDir::cleanPath(dir))
{
    if (!QDir().mkpath(cacheDir))
        logInfo(u"[ImageCacheManager]: Failed to create cache folder: %1"_s.arg(cacheDir));
    removeLeftoverFiles();
    // Usable at once; every run recomputes the budgets anyway.
    setMaxCache();
}

void ImageCacheManager::removeLeftoverFiles()
{
    // A fresh process holds no features, so files here come from a run that never reached
    // clear(). They must go: a stale file would be taken for a new image's feature.
    if (const int removed = removeCacheFiles(cacheDir); removed > 0)
        logInfo(u"[ImageCacheManager]: Removed %1 cache files left from an earlier run."_s.arg(removed));
}

void ImageCacheManager::setMaxCache()
{
    qint64 memory = AvailableMemory::physicalBytes();
    if (memory <= 0)
        memory = kDefaultBudgetBase;

    // Temporary-folder cleaners may have taken the folder since the last run.
    QDir().mkpath(cacheDir);
    qint64 disk = kDefaultBudgetBase;
    const QString canonical = QFileInfo(cacheDir).canonicalFilePath(); // empty when missing
    const QStorageInfo storage = canonical.isEmpty() ? QStorageInfo() : QStorageInfo(canonical);
    if (!storage.isValid() || !storage.isReady()) {
        logInfo(u"[ImageCacheManager]: Invalid or unavailable storage path: %1."_s.arg(cacheDir));
    } else if (storage.bytesAvailable() <= 0) {
        logInfo(u"[ImageCacheManager]: Failed to get available disk space for path: %1."_s.arg(cacheDir));
    } else {
        disk = storage.bytesAvailable();
    }

    const qint64 memoryBudget = qint64(double(memory) * kBudgetShare);
    const qint64 diskBudget = qint64(double(disk) * kBudgetShare);
    {
        ReadWriteLockGuard locker(lock, ReadWriteLockGuard::Write);
        diskFull = false;
        writeFailed = false;
        memoryFull = false;
        maxMemoryUsage = memoryBudget;
        maxDiskUsage = diskBudget;
    }
    logInfo(u"[ImageCacheManager]: setMaxCache, maxMemoryUsage: %1 MB, maxDiskUsage: %2 MB"_s
                .arg(memoryBudget / 1048576)
                .arg(diskBudget / 1048576));
}

bool ImageCacheManager::insert(const QString &key, const cv::Mat &feature)
{
    try {
        if (feature.empty()) {
            logInfo(u"[ImageCacheManager]: insert refused an empty feature for %1"_s.arg(key));
            return false;
        }
        const qint64 bytes = qint64(feature.total()) * qint64(feature.elemSize());
        {
            ReadWriteLockGuard locker(lock, ReadWriteLockGuard::Write);
            if (memoryCache.contains(key))
                return true;
            if (memoryUsed + bytes <= maxMemoryUsage) {
                memoryCache.insert(key, feature.clone());
                memoryUsed += bytes;
                return true;
            }
            if (memoryFullLogBudget > 0) {
                memoryFull = true;
                logInfo(
                    u"[ImageCacheManager]: ****************Memory cache is full. saving to disk instead. disk path:%1"_s
                        .arg(cacheDir));
                --memoryFullLogBudget;
            }
        }
        return writeToDisk(key, feature);
    } catch (const cv::Exception &e) {
        logInfo(u"[ImageCacheManager]: insert failed with OpenCV error: %1"_s.arg(
            QString::fromStdString(e.what())));
    } catch (const std::exception &e) {
        logInfo(
            u"[ImageCacheManager]: insert failed with std exception: %1"_s.arg(QString::fromUtf8(e.what())));
    } catch (...) {
        logInfo(u"[ImageCacheManager]: insert failed with unknown exception"_s);
    }
    return false;
}

bool ImageCacheManager::writeToDisk(const QString &key, const cv::Mat &feature)
{
    {
        ReadWriteLockGuard locker(lock, ReadWriteLockGuard::Read);
        if (diskFull)
            return false;
    }
    const QString path = cacheFilePath(key);
    if (QFileInfo::exists(path))
        return true;

    // Only what readFromDisk accepts is worth writing.
    const qint64 data = dataBytes(feature);
    if (data <= 0 || data > kMaxDataBytes) {
        logInfo(u"[ImageCacheManager] writeToDisk cannot store a feature of %1 dimensions and %2 bytes."_s
                    .arg(feature.dims)
                    .arg(qint64(feature.total()) * qint64(feature.elemSize())));
        return false;
    }
    const qint64 need = data + kHeaderBytes;

    bool reserved = false;
    auto giveBack = [&](const QString &failure) {
        ReadWriteLockGuard locker(lock, ReadWriteLockGuard::Write);
        if (reserved)
            diskUsed -= need;
        reserved = false;
        // The feature is lost all the same: the run has to be reported incomplete.
        writeFailed = true;
        if (!failure.isEmpty() && writeFailureLogBudget > 0) {
            --writeFailureLogBudget;
            logInfo(failure);
        }
    };

    try {
        {
            ReadWriteLockGuard locker(lock, ReadWriteLockGuard::Write);
            if (diskUsed + need > maxDiskUsage) {
                diskFull = true;
                if (diskFullLogBudget > 0) {
                    --diskFullLogBudget;
                    logInfo(u"[ImageCacheManager]: **** Disk cache is full. ****"_s);
                }
                return false;
            }
            diskUsed += need; // reserved first, so concurrent writers cannot overrun the budget
            reserved = true;
        }

        QFile file(path);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            giveBack(u"[ImageCacheManager] writeToDisk cannot open %1: %2"_s.arg(path, file.errorString()));
            return false;
        }
        QDataStream out(&file);
        out << qint32(feature.type()) << qint32(feature.rows) << qint32(feature.cols);
        bool written = out.status() == QDataStream::Ok;
        if (feature.isContinuous()) {
            written = written && file.write(reinterpret_cast<const char *>(feature.data), data) == data;
        } else {
            // A region of a larger matrix: its rows are apart in memory, the file has no padding.
            const qint64 rowBytes = qint64(feature.cols) * qint64(feature.elemSize());
            for (int row = 0; written && row < feature.rows; ++row)
                written = file.write(reinterpret_cast<const char *>(feature.ptr(row)), rowBytes) == rowBytes;
        }
        written = written && file.flush();
        if (!written) {
            // A partial file would only be refused on reading; do not leave it behind.
            const QString error = file.errorString();
            file.remove();
            giveBack(u"[ImageCacheManager] writeToDisk cannot write %1: %2"_s.arg(path, error));
            return false;
        }
        file.close();
        return true;
    } catch (const std::exception &e) {
        if (reserved)
            QFile::remove(path);
        giveBack(QString());
        logInfo(u"[ImageCacheManager] writeToDisk exception: %1"_s.arg(QString::fromUtf8(e.what())));
    } catch (...) {
        if (reserved)
            QFile::remove(path);
        giveBack(QString());
        logInfo(u"[ImageCacheManager] writeToDisk unknown exception."_s);
    }
    return false;
}

bool ImageCacheManager::get(const QString &key, cv::Mat &feature)
{
    try {
        {
            ReadWriteLockGuard locker(lock, ReadWriteLockGuard::Read);
            const auto it = memoryCache.constFind(key);
            if (it != memoryCache.cend()) {
                feature = it->clone();
                return true;
            }
        }
        return readFromDisk(key, feature);
    } catch (const std::exception &e) {
        logInfo(u"[ImageCacheManager]: get failed with exception: %1"_s.arg(QString::fromUtf8(e.what())));
    } catch (...) {
        logInfo(u"[ImageCacheManager]: get failed with unknown exception"_s);
    }
    return false;
}

bool ImageCacheManager::readFromDisk(const QString &key, cv::Mat &feature)
{
    try {
        QFile file(cacheFilePath(key));
        if (!file.open(QIODevice::ReadOnly))
            return false;

        qint32 type = -1;
        qint32 rows = 0;
        qint32 cols = 0;
        {
            QDataStream in(&file);
            in >> type >> rows >> cols;
            if (in.status() != QDataStream::Ok)
                return false;
        }
        if (rows < 1 || cols < 1 || type < 0 || type > CV_MAT_TYPE_MASK)
            return false;
        const qint64 elements = qint64(rows) * qint64(cols);
        if (elements > kMaxDataBytes) // checked first so the byte count cannot overflow
            return false;
        const qint64 size = elements * qint64(CV_ELEM_SIZE(type));
        if (size <= 0 || size > kMaxDataBytes)
            return false;
        // Mapping past the end of a short file would fault on access rather than fail.
        if (file.size() != kHeaderBytes + size)
            return false;

        if (mapCacheFiles) {
            if (uchar *mapped = file.map(kHeaderBytes, size)) {
                cv::Mat copy = cv::Mat(rows, cols, type, mapped).clone();
                file.unmap(mapped);
                feature = copy;
                return true;
            }
        }
        if (!file.seek(kHeaderBytes))
            return false;
        cv::Mat copy(rows, cols, type);
        if (file.read(reinterpret_cast<char *>(copy.data), size) != size)
            return false;
        feature = copy;
        return true;
    } catch (const std::exception &e) {
        logInfo(u"[ImageCacheManager] readFromDisk exception: %1"_s.arg(QString::fromUtf8(e.what())));
    } catch (...) {
        logInfo(u"[ImageCacheManager] readFromDisk unknown exception."_s);
    }
    return false;
}

void ImageCacheManager::clear()
{
    {
        ReadWriteLockGuard locker(lock, ReadWriteLockGuard::Write);
        memoryCache.clear();
        memoryUsed = 0;
        removeCacheFiles(cacheDir);
        // Zero rather than minus the sizes removed: files that could not be removed, or were
        // never counted, must not eat the next run's budget.
        diskUsed = 0;
    }
    logInfo(u"[ImageCacheManager]: ImageCacheManager: Cache cleared."_s);
}

bool ImageCacheManager::isIncomplete() const
{
    ReadWriteLockGuard locker(lock, ReadWriteLockGuard::Read);
    return diskFull || writeFailed;
}

QString ImageCacheManager::cacheFilePath(const QString &key) const
{
    const QByteArray digest = QCryptographicHash::hash(key.toUtf8(), QCryptographicHash::Sha1).toHex();
    return cacheDir + u'/' + QString::fromLatin1(digest) + u".cache"_s;
}
