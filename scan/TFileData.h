#pragma once

#include "scan/FolderRecord.h"

#include <QHash>
#include <QObject>
#include <QReadWriteLock>
#include <QStringList>

// The process-wide result store: duplicate groups, folder groups and the selection
// of each group, all keyed by group key.
//
// Locking: reserveDuplicateGroups, replaceDuplicateGroup, setSelected,
// imageDuplicateGroups and hasResults take the store's lock themselves.
// addDuplicateGroup and addFolderGroup do not: the matchers call them under their own
// writer mutex while no reader runs. Everything else (the plain accessors, removeGroups,
// clear) expects the caller to hold `lock` or to run when no matcher is active, as the
// result side does after a scan.
class TFileData : public QObject
{
    Q_OBJECT
public:
    static TFileData &instance();

    QHash<QString, QStringList> duplicateGroups;
    QHash<QString, FolderRecords> folderGroups;
    QHash<QString, QStringList> selectedFiles;
    mutable QReadWriteLock lock;

    void clear();
    // Makes room for `more` duplicate groups and their selections, so that a matcher that
    // knows how many it may add does not have the tables rehash as they grow. Takes the lock.
    void reserveDuplicateGroups(qsizetype more);
    void addDuplicateGroup(const QString &key, const QStringList &paths);
    void addFolderGroup(const QString &key, const FolderRecords &folders);
    void replaceDuplicateGroup(const QString &key, const QStringList &paths);
    void setSelected(const QString &key, const QStringList &paths);
    QHash<QString, QStringList> imageDuplicateGroups() const;
    bool hasResults() const;

private:
    TFileData() = default;
};
