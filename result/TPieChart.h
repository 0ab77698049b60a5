#pragma once

#include <QFutureWatcher>
#include <QHash>
#include <QMetaType>
#include <QMutex>
#include <QObject>
#include <QStringList>

// Number and total bytes of the found files of one category.
struct FileCategoryStat
{
    qint64 totalSize = 0;
    qint32 count = 0;
};

// Category (FileCategory value) to its figures.
using FileCategoryStatsMap = QHash<int, FileCategoryStat>;

// The figures of some groups: per category and in total.
struct StatResult
{
    FileCategoryStatsMap stats;
    qint32 count = 0;
    qint64 totalSize = 0;
};

// Computes, in the background, how many found files and bytes each file category
// holds, and announces the figures with statsReady on the thread that owns the chart.
// The drawing is the window's business; this class only counts.
class TPieChart : public QObject
{
    Q_OBJECT
public:
    explicit TPieChart(QObject *parent = nullptr);
    // Waits for a running computation: its reduce step writes into this object.
    ~TPieChart() override;

    // Drops the last figures and any computation still running, then counts the
    // groups (group key to member entries) on the global thread pool. Returns at once.
    void start(const QHash<QString, QStringList> &groups);

    FileCategoryStatsMap stats() const;
    qint32 count() const;
    qint64 totalSize() const;

    // The groups of the result store as the statistics read them: every duplicate
    // and similar-image group, and every folder group as the list of its folders.
    static QHash<QString, QStringList> storeGroups();

    // The map step: the figures of one group. Pure apart from reading the file system.
    static StatResult groupStats(const QStringList &entries);
    // The reduce step: adds a partial result into the running total.
    static void addStats(StatResult &total, const StatResult &part);
    // Direct regular, non-hidden files of a folder (no descent into sub-folders).
    static void measureFolder(const QString &folderPath, qint32 &fileCount, qint64 &totalSize);

signals:
    void statsReady(FileCategoryStatsMap result, int count, qlonglong totalSize);

private:
    void finish(QFutureWatcher<int> *watcher);
    void dropRunning();

    // Guards the figures. The pool threads add their partial results into m_pending
    // under it as well, so every hand-over between them and this object's thread
    // passes through one lock that the race checker can follow.
    mutable QMutex m_mutex;
    StatResult m_result;
    StatResult m_pending;
    // The groups being counted; held until the count is over so that their memory is
    // released on this thread, after the lock has ordered the pool threads' reads.
    QList<QStringList> m_input;
    QFutureWatcher<int> *m_watcher = nullptr;
};
