#include "result/TGroupItemBuilder.h"

#include "app/ReadWriteLockGuard.h"
#include "scan/FileCategory.h"
#include "scan/TFileData.h"

#include <QFileInfo>
#include <QThreadPool>
#include <QtConcurrent/QtConcurrentMap>

TGroupItemBuilder::TGroupItemBuilder(const QHash<QString, QStringList> &files,
                                     const QHash<QString, FolderRecords> &folders,
                                     const QHash<QString, QStringList> &selection)
{
    auto data = std::make_shared<Snapshot>();
    data->files = files;
    data->folders = folders;
    data->selection = selection;
    for (auto it = folders.cbegin(); it != folders.cend(); ++it) {
        QStringList paths;
        paths.reserve(it.value().size());
        for (const FolderRecord &record : it.value())
            paths.append(record.folderPath);
        data->files.insert(it.key(), paths);
    }
    data->handOver.store(0, std::memory_order_release);
    m_data = std::move(data);
}

TGroupItemBuilder TGroupItemBuilder::fromStore(const TFileData &store)
{
    ReadWriteLockGuard locker(store.lock, ReadWriteLockGuard::Read);
    return TGroupItemBuilder(store.duplicateGroups, store.folderGroups, store.selectedFiles);
}

QStringList TGroupItemBuilder::keys() const
{
    return m_data->files.keys();
}

GroupItem TGroupItemBuilder::buildItem(const QString &key) const
{
    return build(*m_data, key);
}

GroupItem TGroupItemBuilder::build(const Snapshot &data, const QString &key)
{
    (void)data.handOver.load(std::memory_order_acquire);
    GroupItem item;
    item.groupKey = key;
    item.members = data.files.value(key);
    item.memberCount = qint32(item.members.size());
    item.selectedCount = qint32(data.selection.value(key).size());
    if (!item.members.isEmpty())
        item.firstPath = GroupItem::realPath(item.members.constFirst());

    // One stat for every fact, so a file vanishing meanwhile cannot mix old and new facts.
    QFileInfo info(item.firstPath);
    info.stat();
    item.fileName = info.fileName();
    if (item.firstPath.isEmpty() || !info.exists()) {
        item.category = Others;
        item.totalSize = 0;
    } else if (info.isDir()) {
        item.category = Folder;
        qint64 total = 0;
        const auto records = data.folders.find(key);
        if (records != data.folders.cend()) {
            for (const FolderRecord &record : *records)
                total += record.totalSize;
        }
        item.totalSize = total;
    } else {
        item.category = categoryOf(fileSuffix(item.firstPath));
        item.totalSize = info.size() * item.memberCount;
    }
    return item;
}

QFuture<QList<GroupItem>> TGroupItemBuilder::start() const
{
    std::shared_ptr<const Snapshot> data = m_data;
    return QtConcurrent::mappedReduced<QList<GroupItem>>(
        QThreadPool::globalInstance(), keys(), [data](const QString &key) { return build(*data, key); },
        [data](QList<GroupItem> &out, const GroupItem &item) {
            out.append(item);
            data->handOver.fetch_add(1, std::memory_order_acq_rel);
        },
        QtConcurrent::OrderedReduce);
}

QList<GroupItem> TGroupItemBuilder::buildAll() const
{
    return results(start());
}

QList<GroupItem> TGroupItemBuilder::results(QFuture<QList<GroupItem>> future) const
{
    future.waitForFinished();
    (void)m_data->handOver.load(std::memory_order_acquire);
    // An empty key list may finish without reporting a result.
    return future.resultCount() > 0 ? future.result() : QList<GroupItem>();
}

QList<ImageItem> TGroupItemBuilder::imageItems(const GroupItem &group, qint32 groupIndex) const
{
    const QStringList selected = m_data->selection.value(group.groupKey);
    const FolderRecords records = m_data->folders.value(group.groupKey);
    QList<ImageItem> items;
    items.reserve(group.members.size());
    for (qsizetype i = 0; i < group.members.size(); ++i) {
        const QString &entry = group.members.at(i);
        ImageItem item = ImageItem::fromEntry(group.groupKey, groupIndex, entry, selected.contains(entry));
        // A folder row shows the size its record measured, not the directory entry's.
        if (i < records.size() && records.at(i).folderPath == entry) {
            item.isFolder = true;
            item.category = Folder;
            item.size = records.at(i).totalSize;
        }
        items.append(item);
    }
    return items;
}
