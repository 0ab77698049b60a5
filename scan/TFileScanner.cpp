#include "scan/TFileScanner.h"

#include "app/SignalFence.h"
#include "app/TLogger.h"
#include "platform/DirLister.h"
#include "platform/DriveClassifier.h"
#include "scan/FileMeta.h"

#include <QDir>
#include <QFileInfo>
#include <QHash>
#include <QJsonArray>
#include <QMetaMethod>
#include <QQueue>
#include <QThreadPool>

#include <cmath>
#include <condition_variable>
#include <exception>
#include <mutex>

namespace {

struct DriveCache
{
    QMutex mutex;
    QHash<QString, qint32> types;
    TFileScanner::DriveQuery query;
};

DriveCache &driveCache()
{
    static DriveCache cache;
    return cache;
}

// Truncates a size from the configuration and scales it to bytes, saturating instead
// of overflowing on absurd values.
qint64 toBytes(const QJsonValue &value, double fallback, int shift)
{
    const double units = std::trunc(value.isDouble() ? value.toDouble() : fallback);
    const double limit = double(std::numeric_limits<qint64>::max() >> shift);
    if (!(units < limit))
        return std::numeric_limits<qint64>::max();
    if (!(units > -limit))
        return std::numeric_limits<qint64>::min();
    return static_cast<qint64>(units) * (qint64(1) << shift);
}

QStringList stringArray(const QJsonValue &value)
{
    QStringList out;
    const QJsonArray array = value.toArray();
    for (const QJsonValue &item : array) {
        if (item.isString())
            out.append(item.toString());
    }
    return out;
}

QString cleanedPath(const QString &path)
{
    return QDir::cleanPath(QFileInfo(QDir::fromNativeSeparators(path)).absoluteFilePath());
}

QByteArrayView suffixOf(const QByteArray &path)
{
    const qsizetype slash = path.lastIndexOf('/');
    const qsizetype dot = path.lastIndexOf('.');
    if (dot < 0 || dot < slash)
        return QByteArrayView();
    return QByteArrayView(path).sliced(dot + 1);
}

void logBadName(const QString &folder)
{
    logInfo(QStringLiteral("[TFileScanner]: Skipped an entry whose name is not valid UTF-8 in [%1].")
                .arg(folder));
}

} // namespace

// The standard primitives rather than Qt's here: they are what the race checker can
// follow from the workers' last wait to the scanner thread's teardown of this state.
struct TFileScanner::Walk
{
    std::mutex mutex;
    std::condition_variable wake;
    QQueue<QString> queue;
    int active = 0;
    bool finished = false;
    qint32 driveType = DriveType::Unknown;
};

TFileScanner::TFileScanner(QObject *parent) : QThread(parent) {}

TFileScanner::~TFileScanner()
{
    stop();
    wait();
}

void TFileScanner::setRoots(const QStringList &list)
{
    roots = list;
    // A new scan starts unstopped; a stop() after start() must not be lost to run().
    stopRequested = false;
}

void TFileScanner::setConfig(const QJsonObject &json)
{
    config = json;
    minBytes = toBytes(json.value(QLatin1String("MinFileSize")), 0, 10);
    maxBytes = toBytes(json.value(QLatin1String("MaxFileSize")), 100000, 20);
    ignoreSystemHidden = json.value(QLatin1String("IgnoreSystemHidden")).toBool(true);
    scanFileType = json.value(QLatin1String("ScanFileType")).toInt(0);
    ignorePaths.clear();
    const QStringList paths = stringArray(json.value(QLatin1String("IgnorePathFile")));
    for (const QString &path : paths) {
        if (!path.trimmed().isEmpty())
            ignorePaths.append(cleanedPath(path));
    }
    ignoreTypes = stringArray(json.value(QLatin1String("IgnoreFileType")));
    onlyTypes = stringArray(json.value(QLatin1String("OnlyFileType")));
    if (scanFileType > 0)
        onlyTypes.clear();
    else
        ignoreTypes.clear();
}

void TFileScanner::stop()
{
    stopRequested = true;
}

qint32 TFileScanner::driveTypeOf(const QString &path)
{
    DriveCache &cache = driveCache();
    const QString key = DriveClassifier::cacheKey(path);
    QMutexLocker locker(&cache.mutex);
    if (!key.isEmpty()) {
        const auto it = cache.types.constFind(key);
        if (it != cache.types.constEnd())
            return it.value();
    }
    const DriveQuery query = cache.query;
    locker.unlock();

    qint32 type = query ? query(path) : DriveClassifier::classify(path);
    if (type < DriveType::SolidState || type > DriveType::Unknown)
        type = DriveType::Unknown;
    // Unknown stays uncached: a volume that could not be opened may be reachable later.
    if (type != DriveType::Unknown && !key.isEmpty()) {
        locker.relock();
        cache.types.insert(key, type);
    }
    return type;
}

void TFileScanner::setDriveQuery(DriveQuery query)
{
    DriveCache &cache = driveCache();
    QMutexLocker locker(&cache.mutex);
    cache.query = std::move(query);
    cache.types.clear();
}

namespace {
// Reports of the current folder on this thread, sent as one batch when it is done.
thread_local QList<FileMeta> t_batch;
} // namespace

// Sends the thread's batch when a folder is done, whichever way its loop ends.
struct TFileScanner::BatchFlush
{
    TFileScanner *scanner;
    ~BatchFlush() { scanner->flushBatch(); }
};

void TFileScanner::flushBatch()
{
    if (t_batch.isEmpty())
        return;
    {
        const SignalFence fence;
        emit filesFound(t_batch);
    }
    // Drop the reference rather than clear(): the queued signal shares the list, and
    // clearing a shared list allocates a fresh one of the same capacity.
    t_batch = QList<FileMeta>();
}

void TFileScanner::run()
{
    batchReports = isSignalConnected(QMetaMethod::fromSignal(&TFileScanner::filesFound));
    scannedCount = 0;
    {
        QMutexLocker locker(&seenMutex);
        seenFolders.clear();
        seenFiles.clear();
        linkedFiles.clear();
        linkedTargets.clear();
    }
    for (const QString &root : std::as_const(roots)) {
        if (stopRequested)
            break;
        if (scanMode == 0)
            scanWithQtRecursive(root);
        else
            scanIncrementalParallel(root);
    }
    {
        QMutexLocker locker(&seenMutex);
        seenFolders = QHash<FileIdentity, QString>();
        seenFiles = QSet<FileIdentity>();
        linkedFiles = QList<LinkedFile>();
        linkedTargets = QSet<FileIdentity>();
    }
    stopRequested = false;
    {
        const SignalFence fence;
        emit scanFinished();
    }
}

bool TFileScanner::beginRoot(const QString &root, QString &folder)
{
    folder = root.trimmed().isEmpty() ? QString() : cleanedPath(root);
    const QFileInfo info(folder);
    if (folder.isEmpty() || !info.isDir()) {
        logInfo(QStringLiteral("[TFileScanner]: Cannot open folder: [%1].").arg(root));
        return false;
    }
    // A root inside one already walked in this run (or the same folder again) adds nothing.
    const FileIdentity id = FileIdentity::of(folder);
    return !id.isValid() || markFolder(id, folder);
}

bool TFileScanner::markFolder(const FileIdentity &id, const QString &path)
{
    QMutexLocker locker(&seenMutex);
    const qsizetype before = seenFolders.size();
    seenFolders.insert(id, path);
    return seenFolders.size() != before;
}

bool TFileScanner::markFile(const FileIdentity &id)
{
    if (!id.isValid())
        return true;
    QMutexLocker locker(&seenMutex);
    const qsizetype before = seenFiles.size();
    seenFiles.insert(id);
    return seenFiles.size() != before;
}

bool TFileScanner::isIgnoredPath(const QString &path) const
{
    return !ignorePaths.isEmpty() && ignorePaths.contains(path, Qt::CaseInsensitive);
}

bool TFileScanner::passesTypeFilter(QByteArrayView suffix) const
{
    if (onlyTypes.isEmpty() && ignoreTypes.isEmpty())
        return true;
    // Lower-case the UTF-8 suffix without allocating in the usual ASCII case.
    char16_t buffer[32];
    QString heap;
    QStringView lower;
    bool ascii = suffix.size() <= qsizetype(std::size(buffer));
    for (qsizetype i = 0; ascii && i < suffix.size(); ++i) {
        const auto c = static_cast<unsigned char>(suffix.at(i));
        if (c >= 0x80)
            ascii = false;
        else
            buffer[i] = (c >= 'A' && c <= 'Z') ? char16_t(c + ('a' - 'A')) : char16_t(c);
    }
    if (ascii) {
        lower = QStringView(buffer, suffix.size());
    } else {
        heap = QString::fromUtf8(suffix).toLower();
        lower = heap;
    }
    if (!onlyTypes.isEmpty() && !onlyTypes.contains(lower))
        return false;
    return !ignoreTypes.contains(lower);
}

bool TFileScanner::keepFile(const QByteArray &path, bool hidden, qint64 size) const
{
    if (ignoreSystemHidden && hidden)
        return false;
    if (size < minBytes || size > maxBytes)
        return false;
    // Text is made only when a filter asks for it: most scans set none.
    if (!ignorePaths.isEmpty() && isIgnoredPath(QString::fromUtf8(path)))
        return false;
    return passesTypeFilter(suffixOf(path));
}

void TFileScanner::offerFile(const DirLister &lister, const QByteArray &path, qint64 size, int driveType)
{
    if (lister.hasOtherHardLinks()) {
        // Every name of a hard-linked file gets here, so the first one wins.
        if (!markFile(lister.identity()))
            return;
    } else if (lister.isLink()) {
        // The target may still turn up under its own name; decide when the root is done.
        QMutexLocker locker(&seenMutex);
        linkedFiles.append(LinkedFile{path, size, lister.identity(), driveType});
        return;
    } else if (!linkedTargets.isEmpty() && linkedTargets.contains(lister.identity())) {
        return; // reported through a link under an earlier root
    }
    report(size, path, driveType);
}

bool TFileScanner::reachedDirectly(const LinkedFile &file) const
{
    const QString target = QFileInfo(QString::fromUtf8(file.path)).canonicalFilePath();
    if (target.isEmpty())
        return false;
    const QFileInfo info(target);
    const FileIdentity parent = FileIdentity::of(info.path());
    QString walked;
    {
        QMutexLocker locker(&seenMutex);
        walked = seenFolders.value(parent);
    }
    if (walked.isNull())
        return false;
    if (scanMode == 0)
        return true;
    if (isIgnoredPath(walked))
        return false;
    const QString direct = walked.endsWith(QLatin1Char('/'))
                               ? QString(walked + info.fileName())
                               : QString(walked + QLatin1Char('/') + info.fileName());
    return keepFile(direct.toUtf8(), FileIdentity::isHiddenOrSystem(direct), file.size);
}

void TFileScanner::reportLinkedFiles()
{
    const BatchFlush flush{this};
    QList<LinkedFile> pending;
    {
        QMutexLocker locker(&seenMutex);
        pending.swap(linkedFiles);
    }
    for (const LinkedFile &file : std::as_const(pending)) {
        if (stopRequested)
            return;
        if (!file.id.isValid() || linkedTargets.contains(file.id) || reachedDirectly(file))
            continue;
        linkedTargets.insert(file.id);
        report(file.size, file.path, file.driveType);
    }
}

void TFileScanner::report(qint64 size, const QByteArray &path, int driveType)
{
    if (batchReports)
        t_batch.append(FileMeta{size, path, driveType});
    else {
        const SignalFence fence;
        emit fileFound(size, QString::fromUtf8(path), driveType);
    }
    const int count = scannedCount.fetch_add(1, std::memory_order_relaxed) + 1;
    if (count % 100 == 0) {
        const SignalFence fence;
        emit progressUpdated(count);
    }
}

void TFileScanner::scanWithQtRecursive(const QString &root)
{
    if (stopRequested)
        return;
    const qint32 driveType = driveTypeOf(root);
    logInfo(QStringLiteral("[TFileScanner]: scanWithQtRecursive: [%1]. driveType: [%2].")
                .arg(root)
                .arg(driveType));
    QString start;
    if (!beginRoot(root, start))
        return;

    // The plain walk: no size, type, path or hidden filters.
    QQueue<QString> queue;
    queue.enqueue(start);
    while (!queue.isEmpty()) {
        if (stopRequested)
            return;
        const QString folder = queue.dequeue();
        const BatchFlush flush{this};
        DirLister lister(folder);
        while (lister.next()) {
            if (stopRequested)
                return;
            if (!lister.hasValidName()) {
                logBadName(folder);
                continue;
            }
            if (lister.kind() == DirLister::Folder) {
                const QString path = lister.path();
                const FileIdentity id = lister.identity();
                if (id.isValid() ? markFolder(id, path) : !lister.isLink())
                    queue.enqueue(path);
            } else if (lister.kind() == DirLister::File) {
                offerFile(lister, lister.pathUtf8(), lister.size(), driveType);
            }
        }
    }
    reportLinkedFiles();
}

void TFileScanner::scanIncrementalParallel(const QString &root)
{
    if (stopRequested)
        return;
    Walk walk;
    walk.driveType = driveTypeOf(root);
    scannedCount = 0;
    logInfo(QStringLiteral("[TFileScanner]: scanIncrementalParallel: %1. driveType:[%2].")
                .arg(root)
                .arg(walk.driveType));
    QString start;
    if (beginRoot(root, start)) {
        walk.queue.enqueue(start);
        const int threads = qMax(1, QThread::idealThreadCount());
        QThreadPool pool;
        pool.setMaxThreadCount(threads);
        for (int i = 0; i < threads; ++i)
            pool.start([this, &walk] { worker(walk); });
        // The last worker to go idle on an empty queue ends the walk and wakes the rest.
        pool.waitForDone();
        {
            // Every worker has left; taking the lock once more orders their last
            // touches before the walk state goes away.
            std::lock_guard locker(walk.mutex);
        }
        reportLinkedFiles();
    }
    {
        const SignalFence fence;
        emit progressUpdated(scannedCount.load());
    }
}

void TFileScanner::worker(Walk &walk)
{
    for (;;) {
        QString folder;
        try {
            std::unique_lock locker(walk.mutex);
            walk.wake.wait(locker, [&walk] { return !walk.queue.isEmpty() || walk.finished; });
            if (walk.finished)
                return;
            folder = walk.queue.dequeue();
            ++walk.active;
        } catch (const std::exception &e) {
            logInfo(QStringLiteral("[TFileScanner] Exception in worker: ") +
                    QString::fromLocal8Bit(e.what()));
            continue;
        } catch (...) {
            logInfo(QStringLiteral("[TFileScanner] Unknown exception in worker."));
            continue;
        }

        processDir(folder, walk);

        std::lock_guard locker(walk.mutex);
        --walk.active;
        if (walk.active == 0 && (walk.queue.isEmpty() || stopRequested)) {
            walk.finished = true;
            walk.wake.notify_all();
        }
    }
}

void TFileScanner::processDir(const QString &folder, Walk &walk)
{
    const BatchFlush flush{this};
    try {
        if (stopRequested || isIgnoredPath(folder))
            return;
        DirLister lister(folder);
        while (lister.next()) {
            if (stopRequested)
                return;
            if (!lister.hasValidName()) {
                logBadName(folder);
                continue;
            }
            const DirLister::Kind kind = lister.kind();
            if (kind == DirLister::Other)
                continue;
            if (kind == DirLister::File) {
                const QByteArray path = lister.pathUtf8();
                const qint64 size = lister.size();
                if (keepFile(path, lister.isHiddenOrSystem(), size))
                    offerFile(lister, path, size, walk.driveType);
                continue;
            }
            const QString path = lister.path();
            if (isIgnoredPath(path) || (ignoreSystemHidden && lister.isHiddenOrSystem()))
                continue;
            const FileIdentity id = lister.identity();
            if (id.isValid() ? !markFolder(id, path) : lister.isLink())
                continue;
            std::lock_guard locker(walk.mutex);
            walk.queue.enqueue(path);
            walk.wake.notify_one();
        }
        {
            const SignalFence fence;
            emit pathFound(folder);
        }
    } catch (const std::exception &e) {
        logInfo(QStringLiteral("[TFileScanner] Exception in processDir: ") +
                QString::fromLocal8Bit(e.what()));
    } catch (...) {
        logInfo(QStringLiteral("[TFileScanner] Unknown exception in processDir."));
    }
}
