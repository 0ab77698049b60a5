#include "result/TPieChart.h"

#include "app/ReadWriteLockGuard.h"
#include "result/GroupItem.h"
#include "scan/FileCategory.h"
#include "scan/TFileData.h"

#include <QDir>
#include <QFileInfo>
#include <QtConcurrent>

namespace {
void registerTypes()
{
    // Queued statsReady connections need the alias as well as the hash type.
    static const int id = qRegisterMetaType<FileCategoryStatsMap>("FileCategoryStatsMap");
    Q_UNUSED(id);
}

void add(StatResult &result, int category, qint32 count, qint64 size)
{
    FileCategoryStat &stat = result.stats[category];
    stat.count += count;
    stat.totalSize += size;
    result.count += count;
    result.totalSize += size;
}

int categoryOfPath(const QFileInfo &info)
{
    return info.isDir() ? int(Folder) : int(categoryOf(fileSuffix(info.filePath())));
}
} // namespace

TPieChart::TPieChart(QObject *parent) : QObject(parent)
{
    registerTypes();
}

TPieChart::~TPieChart()
{
    dropRunning();
}

void TPieChart::start(const QHash<QString, QStringList> &groups)
{
    dropRunning();
    {
        QMutexLocker locker(&m_mutex);
        m_result = StatResult();
        m_pending = StatResult();
        m_input = QList<QStringList>(groups.cbegin(), groups.cend());
    }
    auto *watcher = new QFutureWatcher<int>(this);
    m_watcher = watcher;
    connect(watcher, &QFutureWatcherBase::finished, this, [this, watcher] { finish(watcher); });
    // The reduce step adds into m_pending rather than into the framework's own result,
    // and the map step passes the lock on its way out: the framework hands data
    // between threads with synchronisation that the race checker cannot see.
    auto map = [this](const QStringList &entries) {
        StatResult part = groupStats(entries);
        QMutexLocker locker(&m_mutex);
        return part;
    };
    auto reduce = [this](int &, const StatResult &part) {
        QMutexLocker locker(&m_mutex);
        addStats(m_pending, part);
    };
    watcher->setFuture(QtConcurrent::mappedReduced<int>(QList<QStringList>(groups.cbegin(), groups.cend()),
                                                        map, reduce, QtConcurrent::UnorderedReduce));
}

void TPieChart::dropRunning()
{
    if (!m_watcher)
        return;
    m_watcher->disconnect(this);
    m_watcher->cancel();
    m_watcher->waitForFinished();
    // Orders the pool threads' last writes before whatever this thread does next.
    QMutexLocker locker(&m_mutex);
    m_input.clear();
    m_watcher->deleteLater();
    m_watcher = nullptr;
}

void TPieChart::finish(QFutureWatcher<int> *watcher)
{
    if (watcher != m_watcher)
        return;
    m_watcher = nullptr;
    watcher->deleteLater();
    StatResult result;
    {
        QMutexLocker locker(&m_mutex);
        m_result = m_pending;
        m_pending = StatResult();
        m_input.clear();
        result = m_result;
    }
    emit statsReady(result.stats, result.count, result.totalSize);
}

FileCategoryStatsMap TPieChart::stats() const
{
    QMutexLocker locker(&m_mutex);
    return m_result.stats;
}

qint32 TPieChart::count() const
{
    QMutexLocker locker(&m_mutex);
    return m_result.count;
}

qint64 TPieChart::totalSize() const
{
    QMutexLocker locker(&m_mutex);
    return m_result.totalSize;
}

QHash<QString, QStringList> TPieChart::storeGroups()
{
    const TFileData &store = TFileData::instance();
    ReadWriteLockGuard locker(store.lock, ReadWriteLockGuard::Read);
    QHash<QString, QStringList> groups = store.duplicateGroups;
    for (auto it = store.folderGroups.cbegin(); it != store.folderGroups.cend(); ++it) {
        QStringList folders;
        folders.reserve(it.value().size());
        for (const FolderRecord &record : it.value())
            folders.append(record.folderPath);
        groups.insert(it.key(), folders);
    }
    return groups;
}

void TPieChart::measureFolder(const QString &folderPath, qint32 &fileCount, qint64 &totalSize)
{
    fileCount = 0;
    totalSize = 0;
    const QFileInfoList files = QDir(folderPath).entryInfoList(QDir::Files);
    for (const QFileInfo &file : files) {
        ++fileCount;
        totalSize += file.size();
    }
}

StatResult TPieChart::groupStats(const QStringList &entries)
{
    StatResult result;
    if (entries.isEmpty())
        return result;

    QStringList plain;
    QStringList similar;
    for (const QString &entry : entries) {
        if (entry.contains(ScanConstants::similarSuffix()))
            similar.append(GroupItem::realPath(entry));
        else
            plain.append(entry);
    }

    // All plain members of a group are copies of one another: one file query stands
    // for the whole group.
    const QFileInfo representative(plain.isEmpty() ? similar.constFirst() : plain.constFirst());
    const int category = categoryOfPath(representative);
    const qint32 n = qint32(plain.size());
    if (n == 0 || (!representative.isFile() && !representative.isDir())) {
        add(result, category, 0, 0);
    } else if (representative.isFile()) {
        add(result, category, n, qint64(n) * representative.size());
    } else {
        qint32 files = 0;
        qint64 size = 0;
        measureFolder(representative.filePath(), files, size);
        add(result, category, n * files, qint64(n) * size);
    }

    // Similar entries are distinct pictures: each is measured by itself.
    for (const QString &path : std::as_const(similar)) {
        const QFileInfo info(path);
        if (info.isDir()) {
            qint32 files = 0;
            qint64 size = 0;
            measureFolder(path, files, size);
            add(result, Folder, files, size);
        } else if (info.exists()) {
            add(result, categoryOfPath(info), 1, info.size());
        }
    }
    return result;
}

void TPieChart::addStats(StatResult &total, const StatResult &part)
{
    for (auto it = part.stats.cbegin(); it != part.stats.cend(); ++it) {
        FileCategoryStat &stat = total.stats[it.key()];
        stat.count += it.value().count;
        stat.totalSize += it.value().totalSize;
    }
    total.count += part.count;
    total.totalSize += part.totalSize;
}
