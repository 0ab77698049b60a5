#pragma once

#include "scan/DirStat.h"
#include "scan/FileMeta.h"

#include <QByteArray>
#include <QByteArrayList>
#include <QElapsedTimer>
#include <QHash>
#include <QJsonObject>
#include <QMap>
#include <QMutex>
#include <QStringList>
#include <QThread>

#include <atomic>

class ReadOnlyFile;

// Groups candidate files (already bucketed by size) by a content key and writes each
// group of two or more into TFileData, then optionally matches folders whose files
// are all duplicates of each other. Runs on its own thread and fans out over the
// global thread pool.
class DuplicateFileFinder : public QThread
{
    Q_OBJECT
public:
    using FileMeta = ::FileMeta;

    // The ways of computing a content key.
    enum Method : qint32
    {
        SampledContent = 0,
        FileName = 1,
        WholeContent = 2,
    };
    static constexpr qint32 kNoSelection = 8;
    static constexpr qint32 kPrioritySelection = 3;

    explicit DuplicateFileFinder(QObject *parent = nullptr);
    ~DuplicateFileFinder() override;

    void setInput(const SizeGroups &sizeGroups, const QByteArrayList &allFiles);
    void setConfig(const QJsonObject &config);
    void stop();

    QStringList uniqueImages() const;
    QHash<QString, DirStat> dirStats() const;

    // The two steps of run(), callable on their own (on any one thread at a time).
    void processDuplicates();
    void processDirectories();

    // Content key of one file, empty when the file cannot be read or no longer has the
    // size the walk saw. knownSize < 0 means the walk's size is unknown.
    static QByteArray calculateFileHash(int method, const QString &path, qint64 knownSize, int driveType);
    // The content or sampled digest of a file the caller has opened; the file's size as of
    // the open is its current size.
    static QByteArray hashOpenFile(int method, ReadOnlyFile &file, const QByteArray &utf8Path,
                                   qint64 knownSize, int driveType);

signals:
    void progressUpdated(int progressType, double percent);
    void scanFinished();
    void onFindItem(int number, qint64 totalSize);

protected:
    void run() override;

private:
    void processBucket(const QList<FileMeta> &bucket, QMutex &writerMutex);
    void storeGroup(const QStringList &paths, const QByteArray &contentKey, qint64 size, QMutex &writerMutex);
    void reportBucketDone();
    void processFolder(const QString &folder);

    SizeGroups sizeGroups;
    QByteArrayList allFiles;
    QStringList m_uniqueImages;
    QHash<QString, DirStat> m_dirStats;
    QHash<QByteArray, QStringList> signatureFolders;
    mutable QMutex mutex;

    std::atomic<bool> stopRequested{false};

    // Guards the timer and the folder percentages and keeps progress reports in order.
    QMutex progressMutex;
    QElapsedTimer progressTimer;
    qint64 finishedBuckets = 0;
    qint64 totalBuckets = 0;
    std::atomic<qint64> duplicateFileCount{0};
    std::atomic<qint64> duplicateTotalSize{0};

    std::atomic<qint64> processedFolders{0};
    qint64 totalFolders = 0;
    double lastFolderPercent = 0;

    QJsonObject config;
    qint32 scanMethod = SampledContent;
    bool scanDupDirectory = false;
    qint32 duplicateSelectHint = kNoSelection;
    QMap<QString, qint32> mapPriority;
};
