#include "result/TImageDeleteWorker.h"

#include "app/ReadWriteLockGuard.h"
#include "app/SignalFence.h"
#include "app/TLogger.h"
#include "platform/ShellRemoval.h"
#include "result/GroupItem.h"
#include "result/TFileDeleter.h"
#include "scan/FileCategory.h"
#include "scan/TFileData.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QSet>
#include <QThread>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

bool present(const QString &path)
{
    const QFileInfo info(path);
    return info.exists() || info.isSymLink();
}

} // namespace

TImageDeleteWorker::TImageDeleteWorker(const Table &files, const Table &dirs, const Table &selected,
                                       Method removalMethod, const QString &targetFolder, QObject *parent)
    : QObject(parent), m_files(files), m_dirs(dirs), m_selected(selected), m_removalMethod(removalMethod),
      m_targetFolder(targetFolder)
{}

TImageDeleteWorker::~TImageDeleteWorker()
{
    // The receivers' slot objects go with this object, on this thread, possibly right after
    // a slot ran on another; receivers hold the fence while they run, so passing it here
    // shows the race checker the order that Qt's own reference count keeps.
    SignalFence::pass();
}

void TImageDeleteWorker::start()
{
    if (parent()) {
        // A child object cannot change threads; run here rather than not at all.
        logInfo(u"[TImageDeleteWorker]: Worker has a parent, running the batch on the calling thread."_s);
        doDelete();
        return;
    }
    auto *thread = new QThread;
    thread->setObjectName(u"TImageDeleteWorker"_s);
    moveToThread(thread);
    connect(thread, &QThread::started, this, &TImageDeleteWorker::doDelete);
    connect(this, &TImageDeleteWorker::finished, thread, &QThread::quit, Qt::DirectConnection);
    connect(thread, &QThread::finished, this, &QObject::deleteLater);
    connect(thread, &QThread::finished, thread, &QObject::deleteLater);
    thread->start();
}

void TImageDeleteWorker::setCancelled()
{
    qDebug("Cancelled slot called!");
    m_cancelled.exchange(true);
}

void TImageDeleteWorker::doDelete()
{
    const bool com = ShellRemoval::initThread();
    m_removed.clear();
    m_failed.clear();
    int counter = 0;
    if (processTable(m_files, false, counter))
        processTable(m_dirs, true, counter);
    if (com)
        ShellRemoval::releaseThread();

    m_removed.removeDuplicates();
    // A path listed in two groups fails twice; report it once.
    QSet<QString> reported;
    m_failed.removeIf([&reported](const DeleteResult &r) {
        const bool again = reported.contains(r.path);
        reported.insert(r.path);
        return again;
    });
    logInfo(u"[TImageDeleteWorker]: Batch done. processed: %1, removed: %2, failed: %3, cancelled: %4"_s
                .arg(counter)
                .arg(m_removed.size())
                .arg(m_failed.size())
                .arg(m_cancelled.load() ? u"yes"_s : u"no"_s));
    {
        const SignalFence fence;
        Q_EMIT removalReport(m_removed, m_failed);
    }
    {
        const SignalFence fence;
        Q_EMIT finished(m_files, m_dirs, m_selected);
    }
}

bool TImageDeleteWorker::processTable(Table &table, bool folders, int &counter)
{
    // processKey changes the selection, so walk a snapshot of its keys.
    const QStringList keys = m_selected.keys();
    for (const QString &key : keys) {
        if (m_cancelled.load())
            return false;
        const auto it = table.constFind(key);
        if (it == table.cend())
            continue;
        QStringList group = it.value();
        const bool goOn = processKey(key, group, folders, counter);
        // A group needs two members to be a group.
        if (group.size() < 2)
            table.remove(key);
        else
            table.insert(key, group);
        if (!goOn)
            return false;
    }
    return true;
}

bool TImageDeleteWorker::processKey(const QString &key, QStringList &group, bool folders, int &counter)
{
    const QStringList chosen = m_selected.value(key);
    // In a similar-image group every entry carries its "_simlar_<n>" ending.
    const bool similarGroup =
        !group.isEmpty() && std::all_of(group.cbegin(), group.cend(),
                                        [](const QString &e) { return GroupItem::realPath(e) != e; });
    QStringList deleted;
    bool cancelled = false;
    for (const QString &entry : chosen) {
        if (m_cancelled.load()) {
            cancelled = true;
            break;
        }
        if (group.contains(entry)) {
            // A similar-image entry is removed through the file it names; a file that
            // really carries such a name (it exists as written) is taken as written.
            const QString path = similarGroup && !present(entry) ? GroupItem::realPath(entry) : entry;
            if (removeReal(path, folders)) {
                group.removeAll(entry);
                deleted.append(entry);
            }
        } else {
            // A plain path selected in a similar-image group: every entry of that file.
            QStringList matches;
            for (const QString &member : std::as_const(group)) {
                if (isSimilarEntryOf(member, entry))
                    matches.append(member);
            }
            for (const QString &match : std::as_const(matches)) {
                if (removeReal(entry, folders)) {
                    deleted.append(entry);
                    group.removeAll(match);
                }
            }
        }
        ++counter;
        {
            const SignalFence fence;
            Q_EMIT progressChanged(counter);
        }
        if (counter % 10 == 0)
            QCoreApplication::processEvents();
    }

    QStringList remaining;
    for (const QString &entry : chosen) {
        if (!deleted.contains(entry))
            remaining.append(entry);
    }
    if (remaining.isEmpty())
        m_selected.remove(key);
    else
        m_selected.insert(key, remaining);
    return !cancelled;
}

bool TImageDeleteWorker::removeReal(const QString &path, bool folder)
{
    // A file group never removes a folder, nor a folder group a file: something of the
    // other kind under that name is not what the user saw and selected.
    const DeleteResult result = folder ? TFileDeleter::deleteFolder(path, m_removalMethod, m_targetFolder)
                                       : TFileDeleter::deleteFile(path, m_removalMethod, m_targetFolder);
    if (result.success)
        m_removed.append(path);
    else
        m_failed.append(result);
    return result.success;
}

bool TImageDeleteWorker::isSimilarEntryOf(const QString &entry, const QString &selected)
{
    // The whole-string pattern "<selected>_simlar_\d+" with `selected` taken literally;
    // compared by text, so characters that mean something in a pattern cannot widen it.
    const QString path = GroupItem::realPath(entry);
    return path != entry && path == selected;
}

TImageDeleteWorker::Tables TImageDeleteWorker::tablesFromStore(const TFileData &store)
{
    ReadWriteLockGuard locker(store.lock, ReadWriteLockGuard::Read);
    Tables tables;
    tables.files = store.duplicateGroups;
    tables.selected = store.selectedFiles;
    for (auto it = store.folderGroups.cbegin(); it != store.folderGroups.cend(); ++it) {
        QStringList paths;
        for (const FolderRecord &record : it.value())
            paths.append(record.folderPath);
        tables.dirs.insert(it.key(), paths);
    }
    return tables;
}

void TImageDeleteWorker::applyToStore(TFileData &store, const Tables &given, const Tables &result)
{
    ReadWriteLockGuard locker(store.lock, ReadWriteLockGuard::Write);
    for (auto it = given.selected.cbegin(); it != given.selected.cend(); ++it) {
        const QString &key = it.key();
        if (given.files.contains(key)) {
            if (result.files.contains(key))
                store.duplicateGroups.insert(key, result.files.value(key));
            else
                store.duplicateGroups.remove(key);
        }
        if (given.dirs.contains(key)) {
            const auto kept = result.dirs.constFind(key);
            if (kept == result.dirs.cend()) {
                store.folderGroups.remove(key);
            } else if (const auto records = store.folderGroups.find(key);
                       records != store.folderGroups.end()) {
                records->removeIf([&kept](const FolderRecord &r) { return !kept->contains(r.folderPath); });
                if (records->size() < 2)
                    store.folderGroups.erase(records);
            }
        }
        const auto selection = result.selected.constFind(key);
        if (selection == result.selected.cend())
            store.selectedFiles.remove(key);
        else
            store.selectedFiles.insert(key, selection.value());
    }
}
