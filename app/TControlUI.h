#pragma once

#include "scan/DuplicateFileFinder.h"
#include "scan/FileMeta.h"
#include "scan/TFileScanner.h"
#include "settings/TOpenSaveThread.h"
#include "similar/ImageCompareThread.h"

#include <QByteArrayList>
#include <QElapsedTimer>
#include <QJsonObject>
#include <QMap>
#include <QObject>
#include <QStringList>
#include <QTimer>

class TWIgnoreListPreferences;
class TWSelectionPreferences;
class TWGenernalPreferences;

// Runs one scan from the folder list to the finished result: each phase on a worker
// thread of its own, strictly one after another, with one weighted progress value.
// Lives on the user-interface thread; every slot runs there.
class TControlUI : public QObject
{
    Q_OBJECT
public:
    enum CurrentStatus
    {
        ScaningFile = 1,
        DuplicateFile = 2,
        DuplicateFolder = 3,
        SimilarFile = 4
    };
    Q_ENUM(CurrentStatus)
    enum ThreadStatus
    {
        Paused = 0,
        Starting = 1,
        Stoped = 2,
        Completed = 3
    };
    Q_ENUM(ThreadStatus)

    struct PhaseWeight
    {
        double weight = 0;
        double percent = 0;
        bool enabled = false;
    };

    explicit TControlUI(QObject *parent = nullptr);
    ~TControlUI() override;

    // The preference objects a scan is configured from; by default those of the
    // process-wide store. The objects must outlive the scan.
    void setPreferences(const TWIgnoreListPreferences *ignoreList, const TWSelectionPreferences *selection,
                        const TWGenernalPreferences *general);

    CurrentStatus status() const { return currentStatus; }
    ThreadStatus runState() const { return threadStatus; }
    qsizetype scannedFileCount() const { return fileCount; }
    qint64 elapsedSecondsCount() const { return elapsedSeconds; }
    double overallProgress() const;
    const QMap<int, PhaseWeight> &phaseWeights() const { return phaseProgress; }
    TOpenSaveThread &project() { return projectThread; }

    // The weights of the phases for a scan of fileCount files, as set up when scanning ends.
    static QMap<int, PhaseWeight> progressWeights(qsizetype fileCount, bool folders, bool similar,
                                                  bool features);

public slots:
    void startScan(const QStringList &roots);
    void stopScan();
    void saveProject(const QString &path);
    void openProject(const QString &path);

signals:
    void onUpdateTimer(QString time);
    void filesScaningChange(int fileCount);
    void processChange(double value);
    void onDuplicateItemFound(int number, qint64 totalSize);
    void onDuplicateItemUpdate(QString groupKey);
    void onDuplicateItemDelete(QString groupKey);
    void onAllComplate();
    void onOpenProjectComplated(int flag, int files, qint64 size, int scanFiles, QString scanTime);
    void onSaveProjectComplated(int flag);
    void onOpenProjectProcess(double index, double total);

private slots:
    void processFile(qint64 size, const QString &path, int driveType);
    void processFiles(const QList<FileMeta> &files);
    void updateScanning(int scannedCount);
    void updateTimer();
    void duplicateProcess(int type, double percent);
    void similarProcess(int type, int percent);
    void duplicateFindItem(int number, qint64 totalSize);
    void scanComplated();
    void duplicateComplated();
    void similarComplaged(int count, qint64 size);
    void openProjectComplated(int flag, int files, qint64 size);
    void saveComplated(int flag);
    void openProjectProcess(double index, double total);

private:
    void allComplete();
    void recordProgress(int type, double percent);
    bool similarEnabled() const;
    QString elapsedText() const;

    TOpenSaveThread projectThread;
    TFileScanner scanner;
    DuplicateFileFinder finder;
    ImageCompareThread similar;

    SizeGroups sizeGroups;
    // Every reported path (UTF-8, shared with sizeGroups) until the finder takes it over;
    // fileCount keeps its length after that.
    QByteArrayList allFiles;
    qsizetype fileCount = 0;
    QStringList roots;
    CurrentStatus currentStatus = ScaningFile;
    ThreadStatus threadStatus = Stoped;
    qint32 itemCount = 0;
    qint64 itemSize = 0;
    QElapsedTimer scanClock;
    QTimer secondTimer;
    qint64 elapsedSeconds = 0;
    QMap<int, PhaseWeight> phaseProgress;

    const TWIgnoreListPreferences *ignorePrefs = nullptr;
    const TWSelectionPreferences *selectionPrefs = nullptr;
    const TWGenernalPreferences *generalPrefs = nullptr;
    QJsonObject duplicateConfig;
    QJsonObject similarConfig;
};
