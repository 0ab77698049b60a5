#pragma once

#include "result/DeleteResult.h"
#include "settings/TWIgnoreListPreferences.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

#include <atomic>

class TFileData;

// Removes a whole batch (everything selected in many groups) on a thread of its own and
// keeps the groups consistent: removed entries leave their group, a group below two
// members leaves its table, and the selection keeps only what could not be removed.
//
// Only entries that are selected under a group's key are ever removed, and only when the
// group holds the entry itself or a similar-image entry of it ("<entry>_simlar_<n>").
// Anything else selected under a key is left alone and stays selected, and so is a folder
// found in a file group or a file found in a folder group.
class TImageDeleteWorker : public QObject
{
    Q_OBJECT
public:
    using Table = QHash<QString, QStringList>;
    using Method = TWIgnoreListPreferences::TWRemovalMethod;
    struct Tables
    {
        Table files;
        Table dirs;
        Table selected;
    };

    // The tables are copies; the worker never touches the result store itself.
    TImageDeleteWorker(const Table &files, const Table &dirs, const Table &selected, Method removalMethod,
                       const QString &targetFolder, QObject *parent = nullptr);
    ~TImageDeleteWorker() override;

    // Moves the worker (which must have no parent) to a new thread and runs doDelete
    // there. The thread quits after finished, then the worker and the thread delete
    // themselves; connect to finished before calling this.
    void start();

    // The store's duplicate groups, folder groups (as folder paths) and selection, read
    // under its lock, for a batch over the whole result.
    static Tables tablesFromStore(const TFileData &store);
    // Writes a finished batch back into the store. For every key of the selection the
    // batch was given: a group the batch was given becomes the batch's result, or leaves
    // the store when the batch dropped it (folder groups keep the records of the folders
    // still listed); the key's selection becomes the batch's. Nothing else is touched.
    static void applyToStore(TFileData &store, const Tables &given, const Tables &result);

    // True when `entry` is `selected` followed by "_simlar_" and a decimal number.
    static bool isSimilarEntryOf(const QString &entry, const QString &selected);

public Q_SLOTS:
    void doDelete();
    void setCancelled();

Q_SIGNALS:
    // Selected entries processed so far in this batch, failures included.
    void progressChanged(int value);
    // The three tables after removal (as far as the batch got when cancelled).
    void finished(QHash<QString, QStringList> files, QHash<QString, QStringList> dirs,
                  QHash<QString, QStringList> selected);
    // The real paths removed and the failures with their reasons, emitted just before
    // finished.
    void removalReport(QStringList removed, QList<DeleteResult> failed);

private:
    // Returns false when the batch was cancelled.
    bool processTable(Table &table, bool folders, int &counter);
    bool processKey(const QString &key, QStringList &group, bool folders, int &counter);
    bool removeReal(const QString &path, bool folder);

    Table m_files;
    Table m_dirs;
    Table m_selected;
    Method m_removalMethod;
    QString m_targetFolder;
    std::atomic<bool> m_cancelled{false};
    QStringList m_removed;
    QList<DeleteResult> m_failed;
};
