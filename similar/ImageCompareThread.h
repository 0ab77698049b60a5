#pragma once

#include "similar/ImageData.h"

#include <QElapsedTimer>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QStringList>
#include <QThread>

#include <atomic>
#include <mutex>
#include <vector>

// Finds groups of similar images: loads every image of the scan (and one stand-in per
// group of exact duplicates) into an ImageData record, compares all pairs with a
// perceptual hash or a colour histogram, grows groups in which every member is similar
// to every other, optionally thins them with ORB feature matching against each group's
// first member, and writes them into the result store.
class ImageCompareThread : public QThread
{
    Q_OBJECT
public:
    // Phases reported by progressChanged.
    enum ProgressType : int
    {
        LoadingProgress = 2,
        MatchingProgress = 3,
        OrbProgress = 4
    };
    // Values of "algorithmHint".
    enum AlgorithmHint : int
    {
        SmartAlgorithm = 0,
        HistogramAlgorithm = 1,
        HashAlgorithm = 2
    };
    static constexpr qsizetype smartHashThreshold = 10000;
    // Upper bound on the similar pairs one run keeps: a folder of thousands of identical
    // pictures would otherwise need memory quadratic in their number.
    static constexpr qsizetype defaultMaxPairs = 20'000'000;

    // One accepted pair of the all-pairs pass: indices into the record list (i < j) and
    // the percentage that the later record shows.
    struct Pair
    {
        qint32 i;
        qint32 j;
        qint32 percent;
    };

    explicit ImageCompareThread(QObject *parent = nullptr);
    ~ImageCompareThread() override;

    void setConfig(const QJsonObject &json);
    void setInput(const QStringList &imageFiles, const QMap<QString, QStringList> &duplicateGroups);
    void stop();

    void loadImages(QList<ImageData> &images);
    void hashCompare(QList<ImageData> &images, QList<QList<ImageData>> &groups);
    void orbFeatureMatch(QList<QList<ImageData>> &groups);
    void emitGroup(const QList<ImageData> &group);

    // Pair score of the measure this run uses (useHash): 1.0 or 0.0 for hashes,
    // 1 - Bhattacharyya distance for histograms; 0.0 for empty or unusable input.
    double compareFeatures(const cv::Mat &a, const cv::Mat &b, double threshold) const;
    // Share of B's descriptors that find a clearly best partner among A's.
    static double orbMatchScore(const cv::Mat &descriptorsA, const cv::Mat &descriptorsB);
    // Smart choice: the hash for more than smartHashThreshold images, else histograms.
    static bool chooseHash(int algorithmHint, qsizetype count);

    // All accepted pairs of the records (features fetched from the image cache), each
    // record's similarity updated as the pair loop of the matcher leaves it, sorted by
    // (i, j). Pair matching of hashCompare is this plus the grouping.
    std::vector<Pair> matchPairs(QList<ImageData> &images);
    // Complete-linkage growth over the pairs, seeds in index order; neighbours are taken
    // in ascending index order. Only groups of two or more are returned.
    static QList<QList<qint32>> buildGroups(qint32 count, const std::vector<Pair> &pairs);

    // Settings of the last setConfig and the measure of the run; read by tests.
    bool useHash = false;
    QStringList imageFiles;
    QMap<QString, QStringList> duplicateGroups;
    std::atomic<bool> cancelled{false};
    QElapsedTimer runTimer;
    QJsonObject settings;
    float similarityValue = 0.f;
    float featuresValue = 0.f;
    bool selectedSimilar = false;
    qint32 selectionHint = 0;
    qint32 algorithmHint = SmartAlgorithm;
    QMap<QString, qint32> priorityMap;
    bool addFeatures = true;
    bool sameTypeOnly = true;
    bool similarAspect = true;
    qint32 aspectRatioLimit = 4;
    std::atomic<qint32> groupedCount{0};
    std::atomic<qint64> groupedSize{0};
    qsizetype maxPairs = defaultMaxPairs;
    // True when the last pair pass stopped at maxPairs.
    std::atomic<bool> pairLimitReached{false};

signals:
    void progressChanged(int progressType, int progress);
    void finished(int count, qint64 size);

protected:
    void run() override;

private:
    void reportMatching(qsizetype rowsDone, qsizetype rows);

    QList<QList<ImageData>> groupList;
    std::mutex progressMutex;
    int lastMatchingPercent = -1;
};
