#pragma once

#include "result/GroupItem.h"
#include "result/ImageItem.h"
#include "scan/FolderRecord.h"

#include <QFuture>
#include <QHash>
#include <QList>
#include <QStringList>

#include <atomic>
#include <memory>

class TFileData;

// Turns a snapshot of the result store into GroupItem and ImageItem records. The snapshot
// is taken once, so building never holds the store's lock and never sees a half-written
// table; folder groups join the files table with their folder paths as members.
class TGroupItemBuilder
{
public:
    TGroupItemBuilder(const QHash<QString, QStringList> &files, const QHash<QString, FolderRecords> &folders,
                      const QHash<QString, QStringList> &selection);

    // Copies the three tables of the store under its read lock.
    static TGroupItemBuilder fromStore(const TFileData &store);

    // Group keys in the order the merged files table yields them; the built list follows it.
    QStringList keys() const;
    // The map step: one group from the snapshot, reading the first member's facts.
    GroupItem buildItem(const QString &key) const;
    // Builds every group on the global thread pool, results in key order. The future can be
    // watched for progress and cancelled; it keeps the snapshot alive on its own.
    QFuture<QList<GroupItem>> start() const;
    // Waits for a future from start() and returns its items.
    QList<GroupItem> results(QFuture<QList<GroupItem>> future) const;
    // start() and results() in one.
    QList<GroupItem> buildAll() const;
    // The member rows of one group; checked from the snapshot's selection table.
    QList<ImageItem> imageItems(const GroupItem &group, qint32 groupIndex) const;

private:
    struct Snapshot
    {
        QHash<QString, QStringList> files;
        QHash<QString, FolderRecords> folders;
        QHash<QString, QStringList> selection;
        // The pool hands tasks over inside Qt, out of sight of race checkers: the snapshot
        // is published with a release that every task acquires, and every reduced item is
        // released back to the thread that collects the results.
        mutable std::atomic<qint64> handOver{0};
    };
    static GroupItem build(const Snapshot &data, const QString &key);

    std::shared_ptr<const Snapshot> m_data;
};
