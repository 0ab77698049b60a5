#include "scan/DuplicateFileFinder.h"

#include "app/ReadWriteLockGuard.h"
#include "app/SignalFence.h"
#include "app/TLogger.h"
#include "platform/FileIdentity.h"
#include "platform/ReadOnlyFile.h"
#include "result/GroupItemAutoSelector.h"
#include "scan/FileCategory.h"
#include "scan/PoolMap.h"
#include "scan/TFileData.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QJsonValue>
#include <QReadWriteLock>
#include <QSet>
#include <QThreadPool>
#include <QVarLengthArray>

#include <xxhash.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <utility>

namespace {

constexpr qint64 kBlockSize = 4096;
constexpr qint64 kSampledWholeLimit = 3 * kBlockSize;
constexpr qint64 kMapLimit = 4294967296LL;
constexpr qint64 kStreamPiece = 65536;
constexpr qint64 kReadLimit = 1048576;
constexpr qint64 kProgressIntervalMs = 101;

struct StateDeleter
{
    void operator()(XXH3_state_t *state) const { XXH3_freeState(state); }
};
using HashState = std::unique_ptr<XXH3_state_t, StateDeleter>;

HashState newHashState()
{
    HashState state(XXH3_createState());
    if (state && XXH3_64bits_reset(state.get()) == XXH_ERROR)
        state.reset();
    return state;
}

// Orders the caller after a finished job: QThread::wait() orders threads only through
// Qt's internal futex, which the race checker cannot follow, while an annotated QMutex
// hand-over is visible to it and costs next to nothing.
void handOver(QMutex &fence)
{
    QMutexLocker locker(&fence);
}

// The digest as 16 lower-case hex digits, zero-padded, written straight into its one
// allocation: this runs once per file the matcher reads.
QByteArray hexKey(XXH64_hash_t digest)
{
    static constexpr char digits[] = "0123456789abcdef";
    QByteArray key(16, Qt::Uninitialized);
    for (qsizetype i = 15; i >= 0; --i, digest >>= 4)
        key[i] = digits[digest & 0xf];
    return key;
}

void logMapFailed(const QString &path)
{
    logInfo(QStringLiteral("[TDuplicateFinleFinder]: file.map failed.: [%1].").arg(path));
}

// Reads exactly `length` bytes at `offset`, going on after short reads; false when the
// file ends first or a read fails.
bool readExactly(ReadOnlyFile &file, qint64 offset, char *data, qint64 length)
{
    while (length > 0) {
        const qint64 got = file.readAt(offset, data, length);
        if (got <= 0)
            return false;
        offset += got;
        data += got;
        length -= got;
    }
    return true;
}

QByteArray sampledKey(ReadOnlyFile &file, qint64 n)
{
    std::array<char, kSampledWholeLimit> buffer;
    if (n <= kSampledWholeLimit) {
        if (!readExactly(file, 0, buffer.data(), n))
            return {};
        return hexKey(XXH3_64bits(buffer.data(), size_t(n)));
    }

    const std::array<qint64, 3> offsets = {0, std::clamp(n / 2 - kBlockSize / 2, qint64(0), n - kBlockSize),
                                           n - kBlockSize};
    // Three positioned reads: mapping the whole file to touch three pages costs far more
    // (the unmap flushes every core's address cache) and gives the same bytes. The blocks
    // are hashed in one call over the three together, which gives the digest a streaming
    // state fed block by block would, without allocating the state.
    for (qsizetype i = 0; i < qsizetype(offsets.size()); ++i) {
        if (!readExactly(file, offsets[size_t(i)], buffer.data() + i * kBlockSize, kBlockSize))
            return {};
    }
    return hexKey(XXH3_64bits(buffer.data(), size_t(kSampledWholeLimit)));
}

QByteArray wholeContentKey(ReadOnlyFile &file, const QByteArray &utf8Path, qint64 size, int driveType)
{
    // Small files are read: for them a mapping's set-up and unmap cost more than the copy.
    // Where another program could shorten the file under the mapping, it is read too: a
    // read just comes back short, a mapping would crash the scan.
    if (driveType != OtherBus && size > kReadLimit && size <= kMapLimit &&
        FileIdentity::mappingSurvivesTruncation()) {
        if (const uchar *mapped = file.map(size)) {
            const XXH64_hash_t digest = XXH3_64bits(mapped, size_t(size));
            file.unmap(mapped, size);
            return hexKey(digest);
        }
        logMapFailed(QString::fromUtf8(utf8Path));
    }

    if (!file.isOpen())
        return {};
    // One buffer per pool thread rather than one allocation per file.
    static thread_local std::array<char, kStreamPiece> buffer;
    // Asking for one byte past the known end finds both the end and a file that grew in the
    // same read, so a small file costs one read, and one hash call without a state.
    qint64 want = std::min(kStreamPiece, size + 1);
    qint64 got = file.readAt(0, buffer.data(), want);
    if (got < 0)
        return {};
    if (got == size && got < want)
        return hexKey(XXH3_64bits(buffer.data(), size_t(got)));
    HashState state = newHashState();
    if (!state)
        return {};
    qint64 total = 0;
    while (got > 0) {
        XXH3_64bits_update(state.get(), buffer.data(), size_t(got));
        total += got;
        // Past the known size the file grew; at it, only a read short of the extra byte
        // asked for proves the end (a size that is a whole number of pieces reads once more).
        if (total > size || (total == size && got < want))
            break;
        want = std::min(kStreamPiece, size - total + 1);
        got = file.readAt(total, buffer.data(), want);
        if (got < 0)
            return {};
    }
    // A file that changed length while we read it has no trustworthy key.
    if (total != size)
        return {};
    return hexKey(XXH3_64bits_digest(state.get()));
}

QByteArray nameKey(const QFileInfo &info)
{
    return QCryptographicHash::hash(info.fileName().toUtf8(), QCryptographicHash::Md5).toHex().toUpper();
}

} // namespace

DuplicateFileFinder::DuplicateFileFinder(QObject *parent) : QThread(parent) {}

DuplicateFileFinder::~DuplicateFileFinder()
{
    stop();
    wait();
    handOver(mutex);
}

void DuplicateFileFinder::setInput(const SizeGroups &groups, const QByteArrayList &files)
{
    sizeGroups = groups;
    allFiles = files;
    // Cleared here rather than in run() so that a stop issued between start() and the
    // thread actually running is not lost.
    stopRequested = false;
}

void DuplicateFileFinder::setConfig(const QJsonObject &json)
{
    config = json;
    const QJsonValue method = json.value(QLatin1String("scanMethod"));
    if (method.isDouble())
        scanMethod = method.toInt();
    const QJsonValue dupDirectory = json.value(QLatin1String("scanDupDirectory"));
    if (dupDirectory.isBool())
        scanDupDirectory = dupDirectory.toBool();
    const QJsonValue hint = json.value(QLatin1String("duplicateSelectHint"));
    if (hint.isDouble())
        duplicateSelectHint = hint.toInt();
    const QJsonValue priority = json.value(QLatin1String("mapPriority"));
    if (duplicateSelectHint == kPrioritySelection && priority.isObject())
        mapPriority = GroupItemAutoSelector::priorityFromJson(priority.toObject());
}

void DuplicateFileFinder::stop()
{
    stopRequested = true;
}

QStringList DuplicateFileFinder::uniqueImages() const
{
    QMutexLocker locker(&mutex);
    return m_uniqueImages;
}

QHash<QString, DirStat> DuplicateFileFinder::dirStats() const
{
    QMutexLocker locker(&mutex);
    return m_dirStats;
}

void DuplicateFileFinder::run()
{
    {
        QMutexLocker locker(&mutex);
        m_dirStats.clear();
        m_uniqueImages.clear();
        signatureFolders.clear();
    }
    duplicateFileCount = 0;
    duplicateTotalSize = 0;
    // Nothing here reads the path list; holding it would keep every path alive until the
    // end, while the matching below lets go of each file it is done with.
    allFiles = QByteArrayList();

    processDuplicates();
    if (!stopRequested && scanDupDirectory)
        processDirectories();

    sizeGroups = SizeGroups();
    {
        QMutexLocker locker(&mutex);
        m_dirStats.clear();
        signatureFolders.clear();
    }
    {
        const SignalFence fence;
        emit scanFinished();
    }
    // Whoever reads the results after wait() takes `mutex` (every accessor does).
    handOver(mutex);
}

void DuplicateFileFinder::processDuplicates()
{
    QMutex writerMutex;
    {
        QMutexLocker locker(&progressMutex);
        progressTimer.start();
        finishedBuckets = 0;
    }

    QList<QList<FileMeta>> buckets = sizeGroups.values();
    QList<QList<FileMeta>> candidates;
    mapOnPool(buckets, [&](const QList<FileMeta> &bucket) {
        if (bucket.size() >= 2) {
            QMutexLocker locker(&writerMutex);
            candidates.append(bucket);
        } else if (bucket.size() == 1) {
            const QString path = bucket.constFirst().path();
            if (isImageFile(path)) {
                QMutexLocker locker(&writerMutex);
                m_uniqueImages.append(path);
            }
        }
    });

    // From here on only the candidate buckets are read. Releasing the rest of the input
    // now rather than at the end of the run keeps it out of the scan's peak memory.
    buckets = {};
    sizeGroups = SizeGroups();

    const qsizetype total = candidates.size();
    // Nearly every candidate bucket becomes one group.
    TFileData::instance().reserveDuplicateGroups(total);
    {
        QMutexLocker locker(&progressMutex);
        totalBuckets = total;
    }
    const qsizetype chunk = std::max<qsizetype>(10, total / std::max(1, QThread::idealThreadCount()));
    // Each task takes its bucket out of the list, so a bucket's records are freed as soon as
    // it is matched and the walk's data shrinks while the groups are being stored.
    QList<FileMeta> *const items = candidates.data();
    for (qsizetype start = 0; start < total && !stopRequested; start += chunk) {
        const IndexRange slice{start, std::min(chunk, total - start)};
        mapOnPool(slice, [&](qsizetype i) {
            const QList<FileMeta> bucket = std::exchange(items[i], QList<FileMeta>());
            processBucket(bucket, writerMutex);
        });
    }

    {
        const SignalFence fence;
        emit progressUpdated(0, stopRequested ? 0.0 : 100.0);
    }
    {
        const SignalFence fence;
        emit onFindItem(int(duplicateFileCount), duplicateTotalSize);
    }
}

void DuplicateFileFinder::processBucket(const QList<FileMeta> &bucket, QMutex &writerMutex)
{
    if (stopRequested || bucket.isEmpty())
        return;

    const qint64 size = bucket.constFirst().size;
    // Zero-byte files are all alike and never worth a group. Otherwise drop vanished
    // files and second listings of one file (the same path twice, or a link to it)
    // before anything is opened: a file must never be grouped with itself.
    // Paths stay UTF-8 until a file joins a group: text is made only for what is kept.
    // Most buckets hold two or three files, so the bookkeeping lives on the stack and is
    // searched in order; a hash only pays for a large bucket.
    struct Keyed
    {
        QByteArray key;
        QByteArray path;
    };
    constexpr qsizetype kSmallBucket = 32;
    QVarLengthArray<Keyed, kSmallBucket> keyed;
    if (size > 0) {
        QVarLengthArray<FileIdentity, kSmallBucket> seenInOrder;
        QSet<FileIdentity> seenHashed;
        const bool large = bucket.size() > kSmallBucket;
        const auto firstSight = [&](const FileIdentity &identity) {
            if (large) {
                const qsizetype before = seenHashed.size();
                seenHashed.insert(identity);
                return seenHashed.size() != before;
            }
            if (std::find(seenInOrder.cbegin(), seenInOrder.cend(), identity) != seenInOrder.cend())
                return false;
            seenInOrder.append(identity);
            return true;
        };
        qsizetype distinct = 0;
        QByteArray lone;
        for (const FileMeta &meta : bucket) {
            if (stopRequested)
                return;
            QByteArray key;
            if (scanMethod == FileName) {
                const QString path = meta.path();
                const FileIdentity identity = FileIdentity::of(path);
                if (!identity.isValid() || !firstSight(identity))
                    continue;
                key = calculateFileHash(scanMethod, path, meta.size, meta.driveType);
            } else {
                // One open serves the identity check and the digest.
                ReadOnlyFile file;
                const FileIdentity identity = file.open(meta.filePath);
                if (!identity.isValid() || !firstSight(identity))
                    continue;
                key = hashOpenFile(scanMethod, file, meta.filePath, meta.size, meta.driveType);
            }
            ++distinct;
            lone = meta.filePath;
            if (!key.isEmpty())
                keyed.append(Keyed{key, meta.filePath});
        }
        // A bucket that shrank to one file (the rest vanished or were links to it) is
        // no group, but its file may still be a unique image.
        if (distinct == 1) {
            keyed.clear();
            keyed.append(Keyed{QByteArray(), lone});
        }
    }

    // Equal keys side by side, each run in bucket order, so a group's first path is the
    // first file of the bucket that had this content.
    std::stable_sort(keyed.begin(), keyed.end(),
                     [](const Keyed &a, const Keyed &b) { return a.key < b.key; });
    for (qsizetype start = 0; start < keyed.size();) {
        if (stopRequested)
            return;
        qsizetype end = start + 1;
        while (end < keyed.size() && keyed[end].key == keyed[start].key)
            ++end;
        if (end - start >= 2) {
            QStringList paths;
            paths.reserve(end - start);
            for (qsizetype k = start; k < end; ++k)
                paths.append(QString::fromUtf8(keyed[k].path));
            storeGroup(paths, keyed[start].key, size, writerMutex);
        } else {
            const QString path = QString::fromUtf8(keyed[start].path);
            if (isImageFile(path)) {
                QMutexLocker locker(&writerMutex);
                m_uniqueImages.append(path);
            }
        }
        start = end;
    }
    reportBucketDone();
}

void DuplicateFileFinder::storeGroup(const QStringList &paths, const QByteArray &contentKey, qint64 size,
                                     QMutex &writerMutex)
{
    const QString key = groupKey(paths.constFirst());
    if (scanDupDirectory) {
        for (const QString &path : paths) {
            const QFileInfo info(path);
            const QString folder = info.absolutePath();
            const qint64 fileSize = info.size();
            QMutexLocker locker(&writerMutex);
            DirStat &stat = m_dirStats[folder];
            stat.groupKeys.append(key);
            stat.contentKeys.append(contentKey);
            stat.totalSize += fileSize;
            ++stat.fileCount;
        }
    }
    {
        QMutexLocker locker(&writerMutex);
        TFileData::instance().addDuplicateGroup(key, paths);
    }
    if (duplicateSelectHint != kNoSelection) {
        QStringList selected = duplicateSelectHint == kPrioritySelection
                                   ? GroupItemAutoSelector::selectByPriority(paths, mapPriority)
                                   : GroupItemAutoSelector::selectGroup(paths, duplicateSelectHint);
        // A rule may only ever mark members of the group it was given; an empty
        // selection leaves no entry, as re-selecting on the result side does.
        selected.removeIf([&paths](const QString &path) { return !paths.contains(path); });
        if (!selected.isEmpty())
            TFileData::instance().setSelected(key, selected);
    }
    duplicateFileCount += paths.size();
    duplicateTotalSize += paths.size() * size;
}

void DuplicateFileFinder::reportBucketDone()
{
    // Counting and emitting under one lock keeps the reported percentages in order.
    QMutexLocker locker(&progressMutex);
    ++finishedBuckets;
    if (finishedBuckets == totalBuckets || progressTimer.elapsed() >= kProgressIntervalMs) {
        {
            const SignalFence fence;
            emit progressUpdated(0, double(finishedBuckets) * 100.0 / double(totalBuckets));
        }
        {
            const SignalFence fence;
            emit onFindItem(int(duplicateFileCount), duplicateTotalSize);
        }
        progressTimer.restart();
    }
}

namespace {
// Runs a digest step; nothing it throws may leave the matcher.
template <typename Step> QByteArray guardedDigest(const Step &step)
{
    try {
        return step();
    } catch (const std::exception &e) {
        logInfo(QStringLiteral("[TDuplicateFinleFinder]: Exception in calculateFileHash: [%1].")
                    .arg(QString::fromLocal8Bit(e.what())));
    } catch (...) {
        logInfo(QStringLiteral("[TDuplicateFinleFinder]: Unknown exception in calculateFileHash."));
    }
    return {};
}
} // namespace

QByteArray DuplicateFileFinder::calculateFileHash(int method, const QString &path, qint64 knownSize,
                                                  int driveType)
{
    if (method != FileName) {
        ReadOnlyFile file;
        const QByteArray utf8Path = path.toUtf8();
        if (!file.open(utf8Path).isValid())
            return {};
        return hashOpenFile(method, file, utf8Path, knownSize, driveType);
    }
    return guardedDigest([&]() -> QByteArray {
        // Only regular files: opening a pipe or device could block or never end.
        const QFileInfo info(path);
        if (!info.isFile() || info.size() < 1 || (knownSize >= 0 && info.size() != knownSize))
            return {};
        return nameKey(info);
    });
}

QByteArray DuplicateFileFinder::hashOpenFile(int method, ReadOnlyFile &file, const QByteArray &utf8Path,
                                             qint64 knownSize, int driveType)
{
    const qint64 current = file.size();
    return guardedDigest([&]() -> QByteArray {
        if (current < 1)
            return {};
        if (method == WholeContent) {
            if (knownSize >= 0 && current != knownSize)
                return {};
            return wholeContentKey(file, utf8Path, current, driveType);
        }
        // A file that shrank no longer holds what the walk saw; one that grew is sampled
        // over the length the walk saw, so it still meets its former equals.
        if (knownSize >= 0 && current < knownSize)
            return {};
        const qint64 n = knownSize >= 0 ? std::min(current, knownSize) : current;
        return sampledKey(file, n);
    });
}

void DuplicateFileFinder::processDirectories()
{
    QStringList folders;
    {
        QMutexLocker locker(&mutex);
        folders = m_dirStats.keys();
        signatureFolders.clear();
    }
    {
        QMutexLocker locker(&progressMutex);
        totalFolders = folders.size();
        lastFolderPercent = 0;
    }
    processedFolders = 0;
    logInfo(
        QStringLiteral(
            "[TDuplicateFinleFinder]: Start matching duplicate directories. Number of groups to match [%1].")
            .arg(folders.size()));

    mapOnPool(folders, [this](const QString &folder) { processFolder(folder); });
    if (stopRequested) {
        {
            const SignalFence fence;
            emit progressUpdated(1, 0);
        }
        return;
    }

    QHash<QByteArray, QStringList> signatures;
    QHash<QString, DirStat> stats;
    {
        QMutexLocker locker(&mutex);
        signatures = signatureFolders;
        stats = m_dirStats;
    }
    TFileData &store = TFileData::instance();
    for (auto it = signatures.cbegin(); it != signatures.cend(); ++it) {
        if (it.value().size() < 2)
            continue;
        // Folders arrive in whatever order the pool finished them; sorting keeps the
        // group key the same from one scan to the next.
        QStringList paths = it.value();
        paths.sort();
        FolderRecords records;
        for (const QString &path : std::as_const(paths)) {
            const auto stat = stats.constFind(path);
            if (stat != stats.cend())
                records.append({path, stat->fileCount, stat->totalSize});
        }
        ReadWriteLockGuard locker(store.lock, ReadWriteLockGuard::Write);
        store.addFolderGroup(groupKey(paths.constFirst()), records);
        for (const QString &path : std::as_const(paths)) {
            const QStringList groupKeys = stats.value(path).groupKeys;
            for (const QString &key : groupKeys) {
                store.duplicateGroups.remove(key);
                store.selectedFiles.remove(key);
            }
        }
    }
    // Folders that do not qualify report nothing on their own, so close the phase here.
    {
        const SignalFence fence;
        emit progressUpdated(1, 100);
    }
}

void DuplicateFileFinder::processFolder(const QString &folder)
{
    if (stopRequested)
        return;
    const qint64 processed = ++processedFolders;
    DirStat stat;
    {
        QMutexLocker locker(&mutex);
        stat = m_dirStats.value(folder);
    }
    // Direct, visible files only: hidden files and subfolders play no part.
    const qsizetype visibleFiles = QDir(folder).entryList(QDir::Files).size();
    if (visibleFiles != stat.fileCount)
        return;

    QByteArrayList keys = stat.contentKeys;
    std::sort(keys.begin(), keys.end());
    QCryptographicHash md5(QCryptographicHash::Md5);
    md5.addData(QByteArray::number(stat.fileCount));
    for (const QByteArray &key : std::as_const(keys))
        md5.addData(key);
    const QByteArray signature = md5.result().toHex();

    {
        QMutexLocker locker(&mutex);
        signatureFolders[signature].append(folder);
    }
    // Not under `mutex`, so that a directly connected slot may read the finder; the
    // progress lock only keeps the reported percentages from going backwards.
    QMutexLocker locker(&progressMutex);
    lastFolderPercent = std::max(lastFolderPercent, double(processed) * 100.0 / double(totalFolders));
    {
        const SignalFence fence;
        emit progressUpdated(1, lastFolderPercent);
    }
}
