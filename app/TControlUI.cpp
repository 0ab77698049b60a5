#include "app/TControlUI.h"

#include "app/SignalFence.h"
#include "app/TLogger.h"
#include "scan/TFileData.h"
#include "settings/TWGenernalPreferences.h"
#include "settings/TWIgnoreListPreferences.h"
#include "settings/TWPreferences.h"
#include "settings/TWSelectionPreferences.h"

#include <QTime>

#include <algorithm>

namespace {
enum ProgressType
{
    FileMatching = 0,
    FolderMatching = 1,
    SimilarLoad = 2,
    SimilarCompare = 3,
    SimilarFeatures = 4
};
} // namespace

TControlUI::TControlUI(QObject *parent) : QObject(parent)
{
    secondTimer.setInterval(1000);
    connect(&secondTimer, &QTimer::timeout, this, &TControlUI::updateTimer);

    // Reports arrive a folder at a time: one queued event per file would cost more than
    // the walk itself on large trees.
    connect(&scanner, &TFileScanner::filesFound, this, &TControlUI::processFiles, Qt::QueuedConnection);
    connect(&scanner, &TFileScanner::progressUpdated, this, &TControlUI::updateScanning,
            Qt::QueuedConnection);
    connect(&scanner, &TFileScanner::scanFinished, this, &TControlUI::scanComplated, Qt::QueuedConnection);

    connect(&finder, &DuplicateFileFinder::progressUpdated, this, &TControlUI::duplicateProcess);
    connect(&finder, &DuplicateFileFinder::scanFinished, this, &TControlUI::duplicateComplated);
    connect(&finder, &DuplicateFileFinder::onFindItem, this, &TControlUI::duplicateFindItem);

    connect(&similar, &ImageCompareThread::progressChanged, this, &TControlUI::similarProcess);
    connect(&similar, qOverload<int, qint64>(&ImageCompareThread::finished), this,
            &TControlUI::similarComplaged);

    connect(&projectThread, &TOpenSaveThread::openProjectComplated, this, &TControlUI::openProjectComplated);
    connect(&projectThread, &TOpenSaveThread::saveComplated, this, &TControlUI::saveComplated);
    connect(&projectThread, &TOpenSaveThread::openProjectProcess, this, &TControlUI::openProjectProcess);
}

TControlUI::~TControlUI()
{
    // Workers still running must not outlive the members they report to.
    scanner.stop();
    finder.stop();
    similar.stop();
    scanner.wait();
    finder.wait();
    similar.wait();
    projectThread.wait();
}

void TControlUI::setPreferences(const TWIgnoreListPreferences *ignoreList,
                                const TWSelectionPreferences *selection, const TWGenernalPreferences *general)
{
    ignorePrefs = ignoreList;
    selectionPrefs = selection;
    generalPrefs = general;
}

void TControlUI::startScan(const QStringList &scanRoots)
{
    scanClock.start();
    roots = scanRoots;
    sizeGroups = SizeGroups();
    allFiles = QByteArrayList();
    fileCount = 0;
    secondTimer.start();
    elapsedSeconds = 0;
    itemCount = 0;
    itemSize = 0;
    phaseProgress.clear();
    currentStatus = ScaningFile;
    threadStatus = Starting;

    TWPreferences *store =
        (ignorePrefs && selectionPrefs && generalPrefs) ? nullptr : TWPreferences::instance();
    const TWIgnoreListPreferences *ignoreList = ignorePrefs ? ignorePrefs : store->ignoreList;
    const TWSelectionPreferences *selection = selectionPrefs ? selectionPrefs : store->selection;
    const TWGenernalPreferences *general = generalPrefs ? generalPrefs : store->general;

    const QJsonObject common = ignoreList->toJson();
    duplicateConfig = selection->toJson();
    similarConfig = general->toJson();
    // The log shows the keys in the preferences' own order, which QJsonObject would sort.
    logInfo(QStringLiteral("[TControlUI]: Common configuration information: [%1].")
                .arg(QString::fromUtf8(ignoreList->toJsonText())));
    logInfo(QStringLiteral("[TControlUI]: Duplication configuration information: [%1].")
                .arg(QString::fromUtf8(selection->toJsonText())));
    logInfo(QStringLiteral("[TControlUI]: Similar configuration information: [%1].")
                .arg(QString::fromUtf8(general->toJsonText())));

    scanner.setConfig(common);
    finder.setConfig(duplicateConfig);
    // The similar matcher selects by the same folder priorities as the duplicate one.
    QJsonObject similarSettings = similarConfig;
    similarSettings.insert(QStringLiteral("mapPriority"), duplicateConfig.value(u"mapPriority"));
    similar.setConfig(similarSettings);

    logInfo(QStringLiteral("[TControlUI]: Start Scan: [%1]...").arg(roots.join(QLatin1Char(';'))));
    scanner.setRoots(roots);
    scanner.start(QThread::InheritPriority);
}

void TControlUI::stopScan()
{
    threadStatus = Stoped;
    secondTimer.stop();
    switch (currentStatus) {
    case ScaningFile:
        scanner.stop();
        scanner.wait();
        break;
    case DuplicateFile:
        // The finder winds down by itself; waiting on the scanner, which has already
        // ended, returns at once and keeps the window responsive.
        finder.stop();
        scanner.wait();
        break;
    case SimilarFile:
        similar.stop();
        similar.wait();
        break;
    case DuplicateFolder:
        break;
    }
}

void TControlUI::saveProject(const QString &path)
{
    projectThread.saveProject(path, int(fileCount), elapsedText());
}

void TControlUI::openProject(const QString &path)
{
    threadStatus = Starting;
    if (!projectThread.openProject(path)) {
        threadStatus = Stoped;
        emit onOpenProjectComplated(0, 0, 0, 0, QStringLiteral("00:00:00"));
    }
}

void TControlUI::processFile(qint64 size, const QString &path, int driveType)
{
    SignalFence::pass();
    const FileMeta file{size, path.toUtf8(), driveType};
    sizeGroups[size].append(file);
    allFiles.append(file.filePath);
    fileCount = allFiles.size();
}

void TControlUI::processFiles(const QList<FileMeta> &files)
{
    SignalFence::pass();
    // No reserve here: an exact reserve per batch reallocates the whole list every time.
    for (const FileMeta &file : files) {
        sizeGroups[file.size].append(file);
        allFiles.append(file.filePath);
    }
    fileCount = allFiles.size();
}

void TControlUI::updateScanning(int scannedCount)
{
    SignalFence::pass();
    emit filesScaningChange(scannedCount);
}

void TControlUI::updateTimer()
{
    if (threadStatus != Starting)
        return;
    ++elapsedSeconds;
    emit onUpdateTimer(elapsedText());
}

QString TControlUI::elapsedText() const
{
    return QTime(0, 0).addSecs(elapsedSeconds).toString(QStringLiteral("hh:mm:ss"));
}

void TControlUI::duplicateProcess(int type, double percent)
{
    SignalFence::pass();
    recordProgress(type, percent);
}

void TControlUI::similarProcess(int type, int percent)
{
    SignalFence::pass();
    recordProgress(type, double(percent));
}

void TControlUI::recordProgress(int type, double percent)
{
    auto it = phaseProgress.find(type);
    if (it == phaseProgress.end())
        it = phaseProgress.insert(type, PhaseWeight{});
    it->percent = percent;
    emit processChange(overallProgress());
}

double TControlUI::overallProgress() const
{
    double weighted = 0;
    double weights = 0;
    for (const PhaseWeight &phase : phaseProgress) {
        if (!phase.enabled)
            continue;
        weighted += phase.weight * phase.percent;
        weights += phase.weight;
    }
    return weights == 0 ? 0 : weighted / weights;
}

QMap<int, TControlUI::PhaseWeight> TControlUI::progressWeights(qsizetype fileCount, bool folders,
                                                               bool similar, bool features)
{
    QMap<int, PhaseWeight> phases;
    const double fileWeight = std::min(double(fileCount) / 1000.0 * 0.01, 0.15);
    phases.insert(FileMatching, PhaseWeight{fileWeight, 0, true});
    const QList<QPair<int, double>> shares = {
        {FolderMatching, 0.05}, {SimilarLoad, 0.6}, {SimilarCompare, 0.15}, {SimilarFeatures, 0.15}};
    const auto enabled = [&](int type) {
        switch (type) {
        case FolderMatching:
            return folders;
        case SimilarLoad:
        case SimilarCompare:
            return similar;
        default:
            return similar && features;
        }
    };
    double enabledShares = 0;
    for (const auto &share : shares) {
        if (enabled(share.first))
            enabledShares += share.second;
    }
    for (const auto &share : shares) {
        const bool on = enabled(share.first);
        const double weight = on ? share.second * (1.0 - fileWeight) / enabledShares : 0.0;
        phases.insert(share.first, PhaseWeight{weight, 0, on});
    }
    return phases;
}

bool TControlUI::similarEnabled() const
{
    return similarConfig.value(u"hasSimilar").toBool(false);
}

void TControlUI::duplicateFindItem(int number, qint64 totalSize)
{
    SignalFence::pass();
    itemCount = number;
    itemSize = totalSize;
    emit onDuplicateItemFound(number, totalSize);
}

void TControlUI::scanComplated()
{
    SignalFence::pass();
    phaseProgress = progressWeights(fileCount, duplicateConfig.value(u"scanDupDirectory").toBool(false),
                                    similarEnabled(), similarConfig.value(u"isAddFeatures").toBool(false));
    const QString seconds = QString::number(double(scanClock.elapsed()) / 1000.0, 'f', 3);
    if (threadStatus == Stoped) {
        logInfo(QStringLiteral("[TControlUI]: The user clicks Stop during the scanning process. This task "
                               "takes:[%1] seconds.")
                    .arg(seconds));
        allComplete();
        return;
    }
    logInfo(QStringLiteral("[TControlUI]: Scan is complete, start matching duplicate files. Total number of "
                           "files: [%1]. This task takes:[%2] seconds.")
                .arg(fileCount)
                .arg(seconds));
    finder.setInput(sizeGroups, allFiles);
    // The finder holds its own shared copies; the controller's would keep every path alive
    // through matching, long after the finder has let go of the files it does not need.
    sizeGroups = SizeGroups();
    allFiles = QByteArrayList();
    finder.start(QThread::InheritPriority);
    currentStatus = DuplicateFile;
}

void TControlUI::duplicateComplated()
{
    SignalFence::pass();
    const QString seconds = QString::number(double(scanClock.elapsed()) / 1000.0, 'f', 3);
    if (threadStatus == Stoped) {
        logInfo(QStringLiteral("[TControlUI]: The user clicks Stop during the matching process. This task "
                               "takes: [%1] seconds.")
                    .arg(seconds));
        allComplete();
        return;
    }
    if (!similarEnabled()) {
        allComplete();
        return;
    }
    const QHash<QString, QStringList> imageGroups = TFileData::instance().imageDuplicateGroups();
    QMap<QString, QStringList> orderedGroups;
    for (auto it = imageGroups.cbegin(); it != imageGroups.cend(); ++it)
        orderedGroups.insert(it.key(), it.value());
    const QStringList uniqueImages = finder.uniqueImages();
    logInfo(QStringLiteral("[TControlUI]: Matching duplicate files ends, and the process of matching similar "
                           "images begins. Duplicate Group: [%1]; Unique Image: [%2]. This task takes: [%3]")
                .arg(orderedGroups.size())
                .arg(uniqueImages.size())
                .arg(seconds));
    similar.setInput(uniqueImages, orderedGroups);
    similar.start(QThread::InheritPriority);
    currentStatus = SimilarFile;
}

void TControlUI::similarComplaged(int count, qint64 size)
{
    SignalFence::pass();
    if (threadStatus != Stoped) {
        threadStatus = Stoped;
        logInfo(QStringLiteral("[TControlUI]: The process of matching similar images ends normally."));
    } else {
        logInfo(QStringLiteral("[TControlUI]: User clicks to stop the matching similar images process."));
    }
    itemCount += count;
    itemSize += size;
    emit onDuplicateItemFound(itemCount, itemSize);
    allComplete();
}

void TControlUI::allComplete()
{
    logInfo(QStringLiteral("[TControlUI]: All tasks are completed. This task takes:[%1] seconds.")
                .arg(QString::number(double(scanClock.elapsed()) / 1000.0, 'f', 3)));
    secondTimer.stop();
    threadStatus = Stoped;
    emit onAllComplate();
}

void TControlUI::openProjectComplated(int flag, int files, qint64 size)
{
    SignalFence::pass();
    threadStatus = Stoped;
    const QString time = flag == 1 ? projectThread.scanTime() : QStringLiteral("00:00:00");
    const int scanFiles = flag == 1 ? projectThread.fileCount() : 0;
    emit onOpenProjectComplated(flag, files, size, scanFiles, time);
}

void TControlUI::saveComplated(int flag)
{
    SignalFence::pass();
    emit onSaveProjectComplated(flag);
}

void TControlUI::openProjectProcess(double index, double total)
{
    SignalFence::pass();
    emit onOpenProjectProcess(index, total);
}
