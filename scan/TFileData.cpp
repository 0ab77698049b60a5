#include "scan/TFileData.h"

#include "app/ReadWriteLockGuard.h"
#include "scan/FileCategory.h"

TFileData &TFileData::instance()
{
    // Created on first use and deliberately never destroyed: pool threads may still
    // hold a reference while the process exits.
    static TFileData *store = new TFileData;
    return *store;
}

void TFileData::clear()
{
    duplicateGroups.clear();
    folderGroups.clear();
    selectedFiles.clear();
}

void TFileData::reserveDuplicateGroups(qsizetype more)
{
    ReadWriteLockGuard locker(lock, ReadWriteLockGuard::Write);
    duplicateGroups.reserve(duplicateGroups.size() + more);
    selectedFiles.reserve(selectedFiles.size() + more);
}

void TFileData::addDuplicateGroup(const QString &key, const QStringList &paths)
{
    duplicateGroups.insert(key, paths);
}

void TFileData::addFolderGroup(const QString &key, const FolderRecords &folders)
{
    folderGroups.insert(key, folders);
}

void TFileData::replaceDuplicateGroup(const QString &key, const QStringList &paths)
{
    ReadWriteLockGuard locker(lock, ReadWriteLockGuard::Write);
    duplicateGroups.remove(key);
    duplicateGroups.insert(key, paths);
}

void TFileData::setSelected(const QString &key, const QStringList &paths)
{
    ReadWriteLockGuard locker(lock, ReadWriteLockGuard::Write);
    selectedFiles.insert(key, paths);
}

QHash<QString, QStringList> TFileData::imageDuplicateGroups() const
{
    ReadWriteLockGuard locker(lock, ReadWriteLockGuard::Read);
    QHash<QString, QStringList> images;
    for (auto it = duplicateGroups.cbegin(); it != duplicateGroups.cend(); ++it) {
        if (!it.value().isEmpty() && isImageFile(it.value().constFirst()))
            images.insert(it.key(), it.value());
    }
    return images;
}

bool TFileData::hasResults() const
{
    ReadWriteLockGuard locker(lock, ReadWriteLockGuard::Read);
    return !duplicateGroups.isEmpty() || !folderGroups.isEmpty();
}
