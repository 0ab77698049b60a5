#pragma once

#include "scan/FileMeta.h"

#include "platform/FileIdentity.h"

#include <QHash>
#include <QJsonObject>
#include <QMutex>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QThread>

class DirLister;

#include <atomic>
#include <functional>
#include <limits>

// Walks the chosen folders and reports every file that passes the scan filters, one
// fileFound per file, with its size and the class of the drive its root lies on.
// Runs as its own thread; the parallel mode adds a private pool sharing a folder queue.
// Within one run a folder is walked once and a physical file is reported once, however
// many links or overlapping roots lead to it.
class TFileScanner : public QThread
{
    Q_OBJECT

public:
    explicit TFileScanner(QObject *parent = nullptr);
    ~TFileScanner() override;

    // Called before start().
    void setRoots(const QStringList &list);
    void setConfig(const QJsonObject &json);
    // Asks a running walk to end; every loop checks it.
    void stop();

    // 0: breadth-first on this thread, no filters; 1: parallel with filters (the default).
    void setScanMode(int mode) { scanMode = mode; }
    int mode() const { return scanMode; }
    qint64 minimumBytes() const { return minBytes; }
    qint64 maximumBytes() const { return maxBytes; }
    QStringList onlyFileTypes() const { return onlyTypes; }
    QStringList ignoredFileTypes() const { return ignoreTypes; }
    QStringList ignoredPaths() const { return ignorePaths; }
    bool ignoresSystemHidden() const { return ignoreSystemHidden; }
    QJsonObject configuration() const { return config; }

    // Class of the drive holding a path (DriveType), cached process-wide per drive;
    // an unknown result is not cached, so it is asked again next time.
    static qint32 driveTypeOf(const QString &path);
    // Replaces the system query behind driveTypeOf (empty restores it) and empties the
    // cache; lets checks count how often the system is asked.
    using DriveQuery = std::function<qint32(const QString &)>;
    static void setDriveQuery(DriveQuery query);

signals:
    void fileFound(qint64 size, QString filePath, int driveType);
    // The same reports in batches of one listed folder each. A receiver connects to
    // either; with this one connected, fileFound is not emitted, which spares a queued
    // event per file on large trees.
    void filesFound(QList<FileMeta> files);
    void pathFound(QString path);
    void progressUpdated(int scannedCount);
    void scanFinished();

protected:
    void run() override;

private:
    struct Walk;
    // A file reached through a symbolic link, held back until the end of its root.
    struct LinkedFile
    {
        QByteArray path;
        qint64 size = 0;
        FileIdentity id;
        qint32 driveType = 0;
    };

    void scanWithQtRecursive(const QString &root);
    void scanIncrementalParallel(const QString &root);
    void worker(Walk &walk);
    void processDir(const QString &folder, Walk &walk);
    bool isIgnoredPath(const QString &path) const;
    bool passesTypeFilter(QByteArrayView suffix) const;
    // The filters of the parallel walk for one file.
    bool keepFile(const QByteArray &path, bool hidden, qint64 size) const;
    // Marks a folder (with the path it is walked under) or a file as seen in this run;
    // false when it was already.
    bool markFolder(const FileIdentity &id, const QString &path);
    bool markFile(const FileIdentity &id);
    bool beginRoot(const QString &root, QString &folder);
    // Reports a file that passed the filters unless this run has reported it already.
    void offerFile(const DirLister &lister, const QByteArray &path, qint64 size, int driveType);
    // Reports the files held back by offerFile whose targets the walk did not report.
    void reportLinkedFiles();
    bool reachedDirectly(const LinkedFile &file) const;
    void report(qint64 size, const QByteArray &path, int driveType);
    // Emits the calling thread's pending batch, if any.
    void flushBatch();
    struct BatchFlush;

    QStringList roots;
    bool batchReports = false;
    int scanMode = 1;
    qint64 minBytes = 0;
    qint64 maxBytes = std::numeric_limits<qint64>::max();
    QStringList ignorePaths;
    QStringList onlyTypes;
    QStringList ignoreTypes;
    bool ignoreSystemHidden = true;
    int scanFileType = 0;
    std::atomic<bool> stopRequested{false};
    std::atomic<int> scannedCount{0};
    QJsonObject config;

    // Which folders and files this run has seen, so that links, hard links and
    // overlapping roots never lead to a folder walked twice or a file reported twice.
    mutable QMutex seenMutex;
    QHash<FileIdentity, QString> seenFolders; // the path each folder was walked under
    QSet<FileIdentity> seenFiles;             // files with several hard links
    QList<LinkedFile> linkedFiles;
    // Targets reported through a link; written only between roots, while no worker runs.
    QSet<FileIdentity> linkedTargets;
};
