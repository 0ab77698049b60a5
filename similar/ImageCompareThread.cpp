#include "similar/ImageCompareThread.h"

#include "app/ReadWriteLockGuard.h"
#include "app/SignalFence.h"
#include "app/TLogger.h"
#include "result/GroupItem.h"
#include "result/GroupItemAutoSelector.h"
#include "scan/FileCategory.h"
#include "scan/PoolMap.h"
#include "scan/TFileData.h"
#include "similar/ImageCacheManager.h"

#include <QFileInfo>
#include <QHash>
#include <QJsonValue>
#include <QSet>

#include <opencv2/core.hpp>
#include <opencv2/flann.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <numeric>

#if defined(__GNUC__)
#define TWINFOLD_FORCE_INLINE inline __attribute__((always_inline))
#else
#define TWINFOLD_FORCE_INLINE inline
#endif
#if defined(__GNUC__) && defined(__x86_64__)
#define TWINFOLD_X86_DISPATCH 1
#endif

namespace {

using Pair = ImageCompareThread::Pair;

// Rows handed to one pool task and columns kept hot in the cache while those rows run.
constexpr qsizetype hashRowBlock = 64;
constexpr qsizetype hashColumnTile = 2048;
constexpr qsizetype histogramRowBlock = 16;
constexpr qsizetype histogramColumnTile = 128;
// Bins per block of the Cauchy-Schwarz bound: one hue row of the colour histogram.
constexpr qsizetype boundBlockBins = ImageData::saturationBins;
// Float lanes the dot products are padded to.
constexpr qsizetype lanes = 16;
// Distance in Bhattacharyya-coefficient terms under which a fast rejection is trusted;
// far above the rounding of the float dot products. Everything closer is decided by
// cv::compareHist itself.
constexpr double coefficientMargin = 2e-4;
// Pairs a task gathers before handing them to the shared list.
constexpr size_t localPairBatch = 4096;

// Small inputs get small blocks so that the pool stays busy and a stop takes effect soon.
qsizetype rowBlock(qsizetype rows, qsizetype largest)
{
    const qsizetype workers = std::max(1, QThreadPool::globalInstance()->maxThreadCount());
    return std::clamp<qsizetype>(rows / (16 * workers), 1, largest);
}

qsizetype padded(qsizetype n)
{
    return (n + lanes - 1) / lanes * lanes;
}

QString seconds(const QElapsedTimer &timer)
{
    return QString::number(static_cast<double>(timer.elapsed()) / 1000.0, 'f', 3);
}

qint32 shownPercent(double score)
{
    double p = score * 100.0;
    if (p == 100.0)
        p = 99.0;
    return static_cast<qint32>(std::trunc(p));
}

QList<qsizetype> indexList(qsizetype count)
{
    QList<qsizetype> list(count);
    std::iota(list.begin(), list.end(), qsizetype(0));
    return list;
}

// The pair filters that need no feature, on facts taken from the records once.
struct PairFilter
{
    std::vector<qint32> suffixId;
    std::vector<double> aspect;
    std::vector<quint8> duplicate;
    bool sameType = true;
    bool similarAspect = true;
    double lowRatio = 0.25;
    double highRatio = 4.0;

    bool admits(qsizetype i, qsizetype j) const
    {
        if (duplicate[i] && duplicate[j])
            return false;
        if (sameType && suffixId[i] != suffixId[j])
            return false;
        if (similarAspect) {
            const double ai = aspect[i];
            const double aj = aspect[j];
            if (ai == 0.0 || aj == 0.0)
                return false;
            // Written so that a ratio without a value (no size known) never passes.
            const double r = ai / aj;
            if (!(r >= lowRatio && r <= highRatio))
                return false;
        }
        return true;
    }
};

// The shared pair list: tasks hand over batches; once the limit is reached the rest is
// refused and every task winds down.
struct PairSink
{
    std::mutex mutex;
    std::vector<Pair> pairs;
    qsizetype limit = 0;
    std::atomic<bool> full{false};

    void merge(std::vector<Pair> &local)
    {
        if (local.empty())
            return;
        std::lock_guard lock(mutex);
        const qsizetype room = std::max<qsizetype>(0, limit - static_cast<qsizetype>(pairs.size()));
        if (static_cast<qsizetype>(local.size()) > room) {
            local.resize(static_cast<size_t>(room));
            full.store(true, std::memory_order_relaxed);
        }
        pairs.insert(pairs.end(), local.begin(), local.end());
        local.clear();
    }
};

template <typename OnHit>
TWINFOLD_FORCE_INLINE void hashTileBody(const quint64 *hashes, qsizetype i0, qsizetype i1, qsizetype j0,
                                        qsizetype j1, int limit, OnHit &onHit)
{
    for (qsizetype i = i0; i < i1; ++i) {
        const quint64 a = hashes[i];
        for (qsizetype j = std::max(j0, i + 1); j < j1; ++j) {
            if (std::popcount(a ^ hashes[j]) <= limit) [[unlikely]]
                onHit(i, j);
        }
    }
}

template <typename OnHit>
void hashTile(const quint64 *hashes, qsizetype i0, qsizetype i1, qsizetype j0, qsizetype j1, int limit,
              OnHit &onHit)
{
    hashTileBody(hashes, i0, i1, j0, j1, limit, onHit);
}

TWINFOLD_FORCE_INLINE float dotInline(const float *a, const float *b, qsizetype n)
{
    // Independent lanes so that the compiler can keep them in vector registers.
    float acc[lanes] = {};
    for (qsizetype k = 0; k < n; k += lanes)
        for (qsizetype l = 0; l < lanes; ++l)
            acc[l] += a[k + l] * b[k + l];
    float sum = 0.f;
    for (qsizetype l = 0; l < lanes; ++l)
        sum += acc[l];
    return sum;
}

struct HistogramClass
{
    qsizetype bins = 0;
    qsizetype stride = 0;
    qsizetype blocks = 0;
    qsizetype blockStride = 0;
    std::vector<qint32> ids;
    std::vector<float> roots;
    std::vector<float> blockNorms;
};

template <typename OnCandidate>
TWINFOLD_FORCE_INLINE void histogramTileBody(const HistogramClass &c, const PairFilter &filter, qsizetype i0,
                                             qsizetype i1, qsizetype j0, qsizetype j1, float lowCoefficient,
                                             OnCandidate &onCandidate)
{
    for (qsizetype i = i0; i < i1; ++i) {
        const qint32 gi = c.ids[static_cast<size_t>(i)];
        const float *rootsI = c.roots.data() + i * c.stride;
        const float *normsI = c.blockNorms.data() + i * c.blockStride;
        for (qsizetype j = std::max(j0, i + 1); j < j1; ++j) {
            const qint32 gj = c.ids[static_cast<size_t>(j)];
            if (!filter.admits(gi, gj))
                continue;
            if (dotInline(normsI, c.blockNorms.data() + j * c.blockStride, c.blockStride) < lowCoefficient)
                continue;
            if (dotInline(rootsI, c.roots.data() + j * c.stride, c.stride) < lowCoefficient)
                continue;
            onCandidate(gi, gj);
        }
    }
}

template <typename OnCandidate>
void histogramTile(const HistogramClass &c, const PairFilter &filter, qsizetype i0, qsizetype i1,
                   qsizetype j0, qsizetype j1, float lowCoefficient, OnCandidate &onCandidate)
{
    histogramTileBody(c, filter, i0, i1, j0, j1, lowCoefficient, onCandidate);
}

#ifdef TWINFOLD_X86_DISPATCH
template <typename OnHit>
__attribute__((target("popcnt"))) void hashTilePopcnt(const quint64 *hashes, qsizetype i0, qsizetype i1,
                                                      qsizetype j0, qsizetype j1, int limit, OnHit &onHit)
{
    hashTileBody(hashes, i0, i1, j0, j1, limit, onHit);
}

template <typename OnCandidate>
__attribute__((target("avx2,fma"))) void
histogramTileAvx2(const HistogramClass &c, const PairFilter &filter, qsizetype i0, qsizetype i1, qsizetype j0,
                  qsizetype j1, float lowCoefficient, OnCandidate &onCandidate)
{
    histogramTileBody(c, filter, i0, i1, j0, j1, lowCoefficient, onCandidate);
}

bool cpuHasPopcnt()
{
    static const bool has = __builtin_cpu_supports("popcnt");
    return has;
}

bool cpuHasAvx2()
{
    static const bool has = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
    return has;
}
#endif

} // namespace

ImageCompareThread::ImageCompareThread(QObject *parent) : QThread(parent) {}

ImageCompareThread::~ImageCompareThread()
{
    stop();
    wait();
}

void ImageCompareThread::setConfig(const QJsonObject &json)
{
    settings = json;
    similarityValue = static_cast<float>(json.value(QLatin1String("SimilarityValue")).toDouble(0.0) / 100.0);
    featuresValue = static_cast<float>(json.value(QLatin1String("FeaturesValue")).toDouble(0.0) / 100.0);
    selectedSimilar = json.value(QLatin1String("selectedSimilar")).toBool(false);
    selectionHint = json.value(QLatin1String("selectionHint")).toInt(0);
    algorithmHint = json.value(QLatin1String("algorithmHint")).toInt(0);
    addFeatures = json.value(QLatin1String("isAddFeatures")).toBool(false);
    sameTypeOnly = json.value(QLatin1String("isImageType")).toBool(false);
    similarAspect = json.value(QLatin1String("isImageSize")).toBool(false);
    const qint32 limit = json.value(QLatin1String("imageMinSize")).toInt(0);
    aspectRatioLimit = limit <= 10 ? limit : 4;
    const QJsonValue priority = json.value(QLatin1String("mapPriority"));
    if (selectionHint == SelectByPriority && priority.isObject())
        priorityMap = GroupItemAutoSelector::priorityFromJson(priority.toObject());
}

void ImageCompareThread::setInput(const QStringList &files, const QMap<QString, QStringList> &groups)
{
    imageFiles = files;
    duplicateGroups = groups;
    // A new run starts here rather than in run(): a stop that arrives between start() and
    // the thread's first instruction must not be lost.
    cancelled.store(false, std::memory_order_relaxed);
}

void ImageCompareThread::stop()
{
    cancelled.store(true, std::memory_order_relaxed);
}

bool ImageCompareThread::chooseHash(int hint, qsizetype count)
{
    if (hint == HashAlgorithm)
        return true;
    if (hint == HistogramAlgorithm)
        return false;
    return count > smartHashThreshold;
}

void ImageCompareThread::run()
{
    runTimer.start();
    groupList.clear();
    groupedCount = 0;
    groupedSize = 0;

    ImageCacheManager::instance().setMaxCache();
    QList<ImageData> images;
    loadImages(images);
    hashCompare(images, groupList);
    ImageCacheManager::instance().clear();
    if (addFeatures)
        orbFeatureMatch(groupList);
    mapOnPool(groupList, [this](const QList<ImageData> &group) { emitGroup(group); });
    groupList.clear();
    {
        const SignalFence fence;
        emit finished(groupedCount.load(), groupedSize.load());
    }
}

void ImageCompareThread::loadImages(QList<ImageData> &images)
{
    images.clear();
    qsizetype standIns = 0;
    for (auto it = duplicateGroups.cbegin(); it != duplicateGroups.cend(); ++it)
        standIns += it.value().isEmpty() ? 0 : 1;
    images.reserve(standIns + imageFiles.size());
    QStringList standInKeys;
    for (auto it = duplicateGroups.cbegin(); it != duplicateGroups.cend(); ++it) {
        if (it.value().isEmpty())
            continue;
        images.append(ImageData(it.value().constFirst(), true));
        standInKeys.append(it.key());
    }
    for (const QString &path : std::as_const(imageFiles))
        images.append(ImageData(path, false));

    useHash = chooseHash(algorithmHint, images.size());
    const qsizetype total = images.size();
    logInfo(QStringLiteral("[TImageCompareThread]: Start loading image data, number of images [%1]...")
                .arg(total));

    ImageData *records = images.data();
    std::atomic<qsizetype> loadedCount{0};
    std::mutex reportMutex;
    QElapsedTimer reportTimer;
    reportTimer.start();
    const bool hash = useHash;
    mapOnPool(indexList(total), [&](qsizetype k) {
        if (cancelled.load(std::memory_order_relaxed))
            return;
        records[k].loadImageData(hash);
        const qsizetype done = ++loadedCount;
        if (done % 10 == 0) {
            std::lock_guard lock(reportMutex);
            if (reportTimer.elapsed() >= 101) {
                {
                    const SignalFence fence;
                    emit progressChanged(LoadingProgress, static_cast<int>(done * 100 / total));
                }
                reportTimer.restart();
            }
        }
    });
    // A stand-in speaks for its group under the group's own key.
    for (qsizetype k = 0; k < standInKeys.size(); ++k)
        images[k].pathKey = standInKeys.at(k);

    {
        const SignalFence fence;
        emit progressChanged(LoadingProgress, 100);
    }
    logInfo(QStringLiteral("[TImageCompareThread]: Image data loading completed. Time taken: [%1] seconds. "
                           "Quantity: [%2]")
                .arg(seconds(runTimer))
                .arg(total));
}

void ImageCompareThread::reportMatching(qsizetype rowsDone, qsizetype rows)
{
    // 100 belongs to the end of grouping; rows alone stop at 99.
    const int percent = rows > 0 ? static_cast<int>(std::min<qsizetype>(99, rowsDone * 100 / rows)) : 0;
    std::lock_guard lock(progressMutex);
    if (percent > lastMatchingPercent) {
        lastMatchingPercent = percent;
        {
            const SignalFence fence;
            emit progressChanged(MatchingProgress, percent);
        }
    }
}

std::vector<ImageCompareThread::Pair> ImageCompareThread::matchPairs(QList<ImageData> &images)
{
    pairLimitReached.store(false, std::memory_order_relaxed);
    {
        std::lock_guard lock(progressMutex);
        lastMatchingPercent = -1;
    }
    const qsizetype n = images.size();
    ImageData *records = images.data();
    const double s = static_cast<double>(similarityValue);

    // Every feature once, in parallel; the pair loops below touch neither strings nor the cache.
    std::vector<cv::Mat> features(static_cast<size_t>(n));
    mapOnPool(indexList(n), [&](qsizetype k) {
        if (!cancelled.load(std::memory_order_relaxed))
            features[static_cast<size_t>(k)] = records[k].getFeature();
    });

    PairFilter filter;
    filter.sameType = sameTypeOnly;
    filter.similarAspect = similarAspect;
    filter.lowRatio = 1.0 / static_cast<double>(aspectRatioLimit);
    filter.highRatio = static_cast<double>(aspectRatioLimit);
    filter.suffixId.resize(static_cast<size_t>(n));
    filter.aspect.resize(static_cast<size_t>(n));
    filter.duplicate.resize(static_cast<size_t>(n));
    {
        QHash<QString, qint32> suffixIds;
        for (qsizetype k = 0; k < n; ++k) {
            const ImageData &r = records[k];
            auto it = suffixIds.constFind(r.suffix);
            if (it == suffixIds.cend())
                it = suffixIds.insert(r.suffix, static_cast<qint32>(suffixIds.size()));
            filter.suffixId[static_cast<size_t>(k)] = it.value();
            filter.aspect[static_cast<size_t>(k)] =
                static_cast<double>(r.width) / static_cast<double>(r.height);
            filter.duplicate[static_cast<size_t>(k)] = r.isDuplicate ? 1 : 0;
        }
    }

    PairSink sink;
    sink.limit = maxPairs;
    std::atomic<qsizetype> rowsDone{0};
    const auto stopping = [this, &sink] {
        return cancelled.load(std::memory_order_relaxed) || sink.full.load(std::memory_order_relaxed);
    };
    // The measure itself, for pairs the fast paths do not cover.
    const auto exactPair = [&](qsizetype i, qsizetype j, std::vector<Pair> &local) {
        if (!filter.admits(i, j))
            return;
        const double score =
            compareFeatures(features[static_cast<size_t>(i)], features[static_cast<size_t>(j)], s);
        if (score >= s)
            local.push_back({static_cast<qint32>(i), static_cast<qint32>(j), shownPercent(score)});
    };
    const auto finishBatch = [&](std::vector<Pair> &local, bool force) {
        if (force || local.size() >= localPairBatch)
            sink.merge(local);
    };

    if (s <= 0.0) {
        // Every score reaches the threshold: all admitted pairs count, each with its measured score.
        const qsizetype rows = rowBlock(n, hashRowBlock);
        const qsizetype blocks = (n + rows - 1) / rows;
        mapOnPool(indexList(blocks), [&](qsizetype b) {
            if (stopping())
                return;
            std::vector<Pair> local;
            const qsizetype i0 = b * rows;
            const qsizetype i1 = std::min(n, i0 + rows);
            for (qsizetype i = i0; i < i1 && !stopping(); ++i) {
                for (qsizetype j = i + 1; j < n; ++j) {
                    exactPair(i, j, local);
                    finishBatch(local, false);
                }
            }
            finishBatch(local, true);
            reportMatching(rowsDone += i1 - i0, n);
        });
    } else if (s <= 1.0) {
        // Records whose feature the fast paths cannot read are matched against all others
        // through the measure itself.
        std::vector<qint32> odd;
        if (useHash) {
            std::vector<quint64> hashes;
            std::vector<qint32> ids;
            hashes.reserve(static_cast<size_t>(n));
            ids.reserve(static_cast<size_t>(n));
            for (qsizetype k = 0; k < n; ++k) {
                const cv::Mat &f = features[static_cast<size_t>(k)];
                if (f.empty())
                    continue;
                if (f.rows == 1 && f.cols == 8 && f.type() == CV_8UC1 && f.isContinuous()) {
                    quint64 h = 0;
                    std::memcpy(&h, f.data, sizeof h);
                    hashes.push_back(h);
                    ids.push_back(static_cast<qint32>(k));
                } else {
                    odd.push_back(static_cast<qint32>(k));
                }
            }
            // Same rule as the measure: trunc(distance) <= trunc(bytes * similarity).
            const int limit = static_cast<int>(std::trunc(8.0 * s));
            const auto m = static_cast<qsizetype>(hashes.size());
            const qsizetype rows = rowBlock(m, hashRowBlock);
            const qsizetype blocks = (m + rows - 1) / rows;
            mapOnPool(indexList(blocks), [&](qsizetype b) {
                if (stopping())
                    return;
                std::vector<Pair> local;
                const auto onHit = [&](qsizetype i, qsizetype j) {
                    const qint32 gi = ids[static_cast<size_t>(i)];
                    const qint32 gj = ids[static_cast<size_t>(j)];
                    if (filter.admits(gi, gj))
                        local.push_back({gi, gj, 99});
                };
                const qsizetype i0 = b * rows;
                const qsizetype i1 = std::min(m, i0 + rows);
                for (qsizetype j0 = i0 + 1; j0 < m && !stopping(); j0 += hashColumnTile) {
                    const qsizetype j1 = std::min(m, j0 + hashColumnTile);
#ifdef TWINFOLD_X86_DISPATCH
                    if (cpuHasPopcnt())
                        hashTilePopcnt(hashes.data(), i0, i1, j0, j1, limit, onHit);
                    else
#endif
                        hashTile(hashes.data(), i0, i1, j0, j1, limit, onHit);
                    finishBatch(local, false);
                }
                finishBatch(local, true);
                reportMatching(rowsDone += i1 - i0, n);
            });
        } else {
            // Bhattacharyya: d = sqrt(1 - sum(sqrt(h1 h2)) / sqrt(sum h1 sum h2)), so with
            // r = sqrt(h / sum h) the coefficient is one dot product and 1 - d >= s holds
            // exactly when dot(r1, r2) >= 1 - (1 - s)^2. By Cauchy-Schwarz the dot product
            // never exceeds the dot product of the per-block norms, a bound that costs
            // one hue row's worth of work instead of the whole histogram.
            std::vector<HistogramClass> classes;
            QHash<quint64, qsizetype> classOf;
            std::vector<qint32> classIndex(static_cast<size_t>(n), -1);
            for (qsizetype k = 0; k < n; ++k) {
                const cv::Mat &f = features[static_cast<size_t>(k)];
                if (f.empty())
                    continue;
                bool fast = f.type() == CV_32FC1 && f.isContinuous();
                double sum = 0.0;
                if (fast) {
                    const auto *h = f.ptr<float>();
                    for (size_t q = 0; q < f.total() && fast; ++q) {
                        fast = std::isfinite(h[q]) && h[q] >= 0.f;
                        sum += h[q];
                    }
                    // A near-empty histogram falls under the measure's own special case.
                    fast = fast && sum >= 1e-3;
                }
                if (!fast) {
                    odd.push_back(static_cast<qint32>(k));
                    continue;
                }
                const quint64 shape = (quint64(quint32(f.rows)) << 32) | quint32(f.cols);
                auto it = classOf.constFind(shape);
                if (it == classOf.cend()) {
                    HistogramClass c;
                    c.bins = static_cast<qsizetype>(f.total());
                    c.stride = padded(c.bins);
                    c.blocks = (c.bins + boundBlockBins - 1) / boundBlockBins;
                    c.blockStride = padded(c.blocks);
                    classes.push_back(std::move(c));
                    it = classOf.insert(shape, static_cast<qsizetype>(classes.size()) - 1);
                }
                classIndex[static_cast<size_t>(k)] = static_cast<qint32>(it.value());
                classes[static_cast<size_t>(it.value())].ids.push_back(static_cast<qint32>(k));
            }
            for (HistogramClass &c : classes) {
                const auto m = static_cast<qsizetype>(c.ids.size());
                c.roots.assign(static_cast<size_t>(m * c.stride), 0.f);
                c.blockNorms.assign(static_cast<size_t>(m * c.blockStride), 0.f);
                mapOnPool(indexList(m), [&c, &features](qsizetype row) {
                    const cv::Mat &f = features[static_cast<size_t>(c.ids[static_cast<size_t>(row)])];
                    const auto *h = f.ptr<float>();
                    double sum = 0.0;
                    for (qsizetype q = 0; q < c.bins; ++q)
                        sum += h[q];
                    float *roots = c.roots.data() + row * c.stride;
                    float *norms = c.blockNorms.data() + row * c.blockStride;
                    for (qsizetype b = 0; b < c.blocks; ++b) {
                        double squares = 0.0;
                        const qsizetype end = std::min(c.bins, (b + 1) * boundBlockBins);
                        for (qsizetype q = b * boundBlockBins; q < end; ++q) {
                            const double share = static_cast<double>(h[q]) / sum;
                            roots[q] = static_cast<float>(std::sqrt(share));
                            squares += share;
                        }
                        norms[b] = static_cast<float>(std::sqrt(squares));
                    }
                });
            }
            const double coefficient = 1.0 - (1.0 - s) * (1.0 - s);
            const auto lowCoefficient = static_cast<float>(coefficient - coefficientMargin);
            for (const HistogramClass &c : classes) {
                const auto m = static_cast<qsizetype>(c.ids.size());
                const qsizetype rows = rowBlock(m, histogramRowBlock);
                const qsizetype blocks = (m + rows - 1) / rows;
                mapOnPool(indexList(blocks), [&](qsizetype b) {
                    if (stopping())
                        return;
                    std::vector<Pair> local;
                    const auto onCandidate = [&](qsizetype gi, qsizetype gj) {
                        const double score = compareFeatures(features[static_cast<size_t>(gi)],
                                                             features[static_cast<size_t>(gj)], s);
                        if (score >= s)
                            local.push_back(
                                {static_cast<qint32>(gi), static_cast<qint32>(gj), shownPercent(score)});
                    };
                    const qsizetype i0 = b * rows;
                    const qsizetype i1 = std::min(m, i0 + rows);
                    for (qsizetype j0 = i0 + 1; j0 < m && !stopping(); j0 += histogramColumnTile) {
                        const qsizetype j1 = std::min(m, j0 + histogramColumnTile);
#ifdef TWINFOLD_X86_DISPATCH
                        if (cpuHasAvx2())
                            histogramTileAvx2(c, filter, i0, i1, j0, j1, lowCoefficient, onCandidate);
                        else
#endif
                            histogramTile(c, filter, i0, i1, j0, j1, lowCoefficient, onCandidate);
                        finishBatch(local, false);
                    }
                    finishBatch(local, true);
                    reportMatching(rowsDone += i1 - i0, n);
                });
            }
            // Histograms of different shapes cannot be compared (the measure gives 0.0),
            // so no pair across classes reaches a positive threshold.
        }
        if (!odd.empty()) {
            std::vector<quint8> isOdd(static_cast<size_t>(n), 0);
            for (qint32 k : odd)
                isOdd[static_cast<size_t>(k)] = 1;
            mapOnPool(QList<qint32>(odd.begin(), odd.end()), [&](qint32 o) {
                std::vector<Pair> local;
                for (qsizetype k = 0; k < n && !stopping(); ++k) {
                    if (k == o || (isOdd[static_cast<size_t>(k)] && k < o))
                        continue;
                    exactPair(std::min<qsizetype>(o, k), std::max<qsizetype>(o, k), local);
                    finishBatch(local, false);
                }
                finishBatch(local, true);
            });
        }
    }
    // Similarity above 1 leaves nothing to compare: no score exceeds 1.0.

    pairLimitReached.store(sink.full.load(std::memory_order_relaxed), std::memory_order_relaxed);
    if (pairLimitReached.load(std::memory_order_relaxed))
        logInfo(
            QStringLiteral("[TImageCompareThread]: Too many similar pairs, matching stopped at [%1] pairs.")
                .arg(maxPairs));

    std::vector<Pair> pairs = std::move(sink.pairs);
    std::sort(pairs.begin(), pairs.end(),
              [](const Pair &a, const Pair &b) { return a.i != b.i ? a.i < b.i : a.j < b.j; });
    // In row order the later acceptance of a record overwrites the earlier one, as a
    // single pass over the rows would leave it.
    for (const Pair &p : pairs)
        records[p.j].similarity = p.percent;
    return pairs;
}

QList<QList<qint32>> ImageCompareThread::buildGroups(qint32 count, const std::vector<Pair> &pairs)
{
    QList<QList<qint32>> groups;
    if (count <= 0)
        return groups;
    const auto n = static_cast<size_t>(count);
    std::vector<qint64> offsets(n + 1, 0);
    for (const Pair &p : pairs) {
        ++offsets[static_cast<size_t>(p.i) + 1];
        ++offsets[static_cast<size_t>(p.j) + 1];
    }
    std::partial_sum(offsets.begin(), offsets.end(), offsets.begin());
    std::vector<qint32> neighbours(static_cast<size_t>(offsets[n]));
    {
        std::vector<qint64> fill(offsets.begin(), offsets.end() - 1);
        for (const Pair &p : pairs) {
            neighbours[static_cast<size_t>(fill[static_cast<size_t>(p.i)]++)] = p.j;
            neighbours[static_cast<size_t>(fill[static_cast<size_t>(p.j)]++)] = p.i;
        }
    }
    for (size_t k = 0; k < n; ++k) {
        const auto first = neighbours.begin() + offsets[k];
        const auto last = neighbours.begin() + offsets[k + 1];
        std::sort(first, last);
        // A pair given twice is still one edge.
        std::fill(std::unique(first, last), last, -1);
    }

    std::vector<quint8> visited(n, 0);
    // For each image, how many members of the growing group it is similar to: it may join
    // when that equals the group's size, i.e. it is similar to every member.
    std::vector<qint32> hits(n, 0);
    std::vector<qint32> touched;
    const auto admit = [&](qint32 member, QList<qint32> &group) {
        group.append(member);
        visited[static_cast<size_t>(member)] = 1;
        for (qint64 e = offsets[static_cast<size_t>(member)]; e < offsets[static_cast<size_t>(member) + 1];
             ++e) {
            const qint32 x = neighbours[static_cast<size_t>(e)];
            if (x < 0)
                continue;
            if (hits[static_cast<size_t>(x)]++ == 0)
                touched.push_back(x);
        }
    };
    for (qint32 seed = 0; seed < count; ++seed) {
        if (visited[static_cast<size_t>(seed)])
            continue;
        QList<qint32> group;
        admit(seed, group);
        // The group itself is the first-in-first-out queue: members join at its end.
        for (qsizetype head = 0; head < group.size(); ++head) {
            const auto c = static_cast<size_t>(group.at(head));
            for (qint64 e = offsets[c]; e < offsets[c + 1]; ++e) {
                const qint32 candidate = neighbours[static_cast<size_t>(e)];
                if (candidate < 0 || visited[static_cast<size_t>(candidate)])
                    continue;
                if (hits[static_cast<size_t>(candidate)] != group.size())
                    continue;
                admit(candidate, group);
            }
        }
        for (qint32 x : touched)
            hits[static_cast<size_t>(x)] = 0;
        touched.clear();
        if (group.size() >= 2)
            groups.append(group);
    }
    return groups;
}

void ImageCompareThread::hashCompare(QList<ImageData> &images, QList<QList<ImageData>> &groups)
{
    const std::vector<Pair> pairs = matchPairs(images);
    const QList<QList<qint32>> indexGroups = buildGroups(static_cast<qint32>(images.size()), pairs);
    for (const QList<qint32> &members : indexGroups) {
        QList<ImageData> group;
        group.reserve(members.size());
        for (qint32 k : members)
            group.append(images.at(k));
        std::stable_sort(group.begin(), group.end(),
                         [](const ImageData &a, const ImageData &b) { return a.similarity > b.similarity; });
        groups.append(group);
    }
    {
        std::lock_guard lock(progressMutex);
        lastMatchingPercent = 100;
    }
    {
        const SignalFence fence;
        emit progressChanged(MatchingProgress, 100);
    }
    logInfo((useHash
                 ? QStringLiteral("[TImageCompareThread]: Hash matching process completed. Time taken: [%1] "
                                  "seconds. Quantity: [%2]")
                 : QStringLiteral("[TImageCompareThread]: Histogram matching process completed. Time taken: "
                                  "[%1] seconds. Quantity: [%2]"))
                .arg(seconds(runTimer))
                .arg(indexGroups.size()));
    images.clear();
    images.squeeze();
}

void ImageCompareThread::orbFeatureMatch(QList<QList<ImageData>> &groups)
{
    logInfo(QStringLiteral(
                "[TImageCompareThread]: Start OBR special symptom point deduplication. Quantity: [%1]...")
                .arg(groups.size()));
    qsizetype total = 0;
    for (const QList<ImageData> &group : std::as_const(groups))
        total += group.size();
    std::atomic<qsizetype> counter{0};
    const auto report = [&] {
        const qsizetype done = ++counter;
        {
            const SignalFence fence;
            emit progressChanged(OrbProgress, static_cast<int>(done * 100 / std::max<qsizetype>(1, total)));
        }
    };
    QList<ImageData> *list = groups.data();
    mapOnPool(indexList(groups.size()), [&](qsizetype g) {
        QList<ImageData> &group = list[g];
        if (group.isEmpty() || cancelled.load(std::memory_order_relaxed))
            return;
        const cv::Mat first = group[0].getOrbDescriptors();
        if (first.empty())
            return;
        report();
        QList<ImageData> kept;
        kept.append(group.at(0));
        for (qsizetype k = 1; k < group.size(); ++k) {
            if (cancelled.load(std::memory_order_relaxed))
                break;
            const cv::Mat other = group[k].getOrbDescriptors();
            if (other.empty())
                continue;
            if (orbMatchScore(first, other) >= static_cast<double>(featuresValue))
                kept.append(group.at(k));
            report();
        }
        group = kept;
    });
    {
        const SignalFence fence;
        emit progressChanged(OrbProgress, 100);
    }
    logInfo(
        QStringLiteral("[TImageCompareThread]: OBR special point deduplication completed. Time taken: [%1] "
                       "seconds. Quantity: [%2]")
            .arg(seconds(runTimer))
            .arg(groups.size()));
}

void ImageCompareThread::emitGroup(const QList<ImageData> &group)
{
    if (group.size() < 2)
        return;
    const QString suffix = ScanConstants::similarSuffix() + u'_';
    const auto entry = [&suffix](const QString &path, qint32 similarity) {
        QString text = path;
        text.append(suffix).append(QString::number(similarity));
        return text;
    };
    const auto select = [this](const QStringList &members) {
        QStringList chosen = selectionHint == SelectByPriority
                                 ? GroupItemAutoSelector::selectByPriority(members, priorityMap)
                                 : GroupItemAutoSelector::selectGroup(members, selectionHint);
        chosen.removeIf([&members](const QString &m) { return !members.contains(m); });
        return chosen;
    };

    QStringList absorbedKeys;
    for (const ImageData &member : group) {
        if (member.isDuplicate) {
            absorbedKeys.append(member.pathKey);
        } else {
            ++groupedCount;
            groupedSize += QFileInfo(member.path).size();
        }
    }
    TFileData &store = TFileData::instance();

    if (absorbedKeys.isEmpty()) {
        const QString key = group.constFirst().pathKey;
        QStringList entries;
        entries.reserve(group.size());
        for (const ImageData &member : group)
            entries.append(entry(member.path, member.similarity));
        store.replaceDuplicateGroup(key, entries);
        if (selectedSimilar) {
            const QStringList chosen = select(entries);
            if (!chosen.isEmpty())
                store.setSelected(key, chosen);
        }
        return;
    }

    QString key;
    QList<QStringList> absorbed;
    {
        ReadWriteLockGuard locker(store.lock, ReadWriteLockGuard::Read);
        for (const QString &absorbedKey : std::as_const(absorbedKeys)) {
            const auto it = store.duplicateGroups.constFind(absorbedKey);
            if (it == store.duplicateGroups.cend())
                continue;
            if (key.isEmpty())
                key = absorbedKey;
            absorbed.append(it.value());
        }
    }
    if (key.isEmpty())
        key = absorbedKeys.constFirst();

    // A file is listed once: later groups and members add only files not yet present.
    QStringList merged;
    QSet<QString> listed;
    if (!absorbed.isEmpty()) {
        merged = absorbed.constFirst();
        for (const QString &e : std::as_const(merged))
            listed.insert(GroupItem::realPath(e));
    }
    for (qsizetype g = 1; g < absorbed.size(); ++g) {
        for (const QString &e : absorbed.at(g)) {
            const QString path = GroupItem::realPath(e);
            if (listed.contains(path))
                continue;
            listed.insert(path);
            merged.append(entry(path, 99));
        }
    }
    for (const ImageData &member : group) {
        if (listed.contains(member.path))
            continue;
        listed.insert(member.path);
        merged.append(entry(member.path, member.similarity));
    }
    merged.removeDuplicates();
    store.replaceDuplicateGroup(key, merged);

    if (selectedSimilar) {
        QStringList previous;
        {
            ReadWriteLockGuard locker(store.lock, ReadWriteLockGuard::Read);
            previous = store.selectedFiles.value(key);
        }
        const QStringList chosen = select(merged);
        // The earlier choice stays selected next to what the rule picks in the merged group.
        QStringList selection;
        for (const QString &e : std::as_const(merged)) {
            if (previous.contains(e) || chosen.contains(e))
                selection.append(e);
        }
        if (!selection.isEmpty())
            store.setSelected(key, selection);
    }
}

double ImageCompareThread::compareFeatures(const cv::Mat &a, const cv::Mat &b, double threshold) const
{
    if (a.empty() || b.empty())
        return 0.0;
    try {
        if (useHash) {
            if (a.rows != b.rows || a.cols != b.cols || a.type() != b.type()) {
                logInfo(QStringLiteral("[ImageCompareThread] Image size or type mismatch in hash compare."));
                return 0.0;
            }
            const double distance = cv::norm(a, b, cv::NORM_HAMMING);
            const double limit = static_cast<double>(a.total()) * threshold;
            return std::trunc(distance) <= std::trunc(limit) ? 1.0 : 0.0;
        }
        if (a.type() != CV_32FC1 && a.type() != CV_64FC1) {
            logInfo(
                QStringLiteral("[ImageCompareThread] img1 type invalid for compareHist: %1").arg(a.type()));
            return 0.0;
        }
        if (b.type() != CV_32FC1 && b.type() != CV_64FC1) {
            logInfo(
                QStringLiteral("[ImageCompareThread] img2 type invalid for compareHist: %1").arg(b.type()));
            return 0.0;
        }
        return 1.0 - cv::compareHist(a, b, cv::HISTCMP_BHATTACHARYYA);
    } catch (const cv::Exception &e) {
        logInfo(QStringLiteral("[ImageCompareThread] OpenCV exception: %1").arg(QString::fromUtf8(e.what())));
    } catch (...) {
        logInfo(QStringLiteral("[ImageCompareThread] Unknown exception occurred."));
    }
    return 0.0;
}

double ImageCompareThread::orbMatchScore(const cv::Mat &descriptorsA, const cv::Mat &descriptorsB)
{
    if (descriptorsA.empty() || descriptorsB.empty())
        return 0.0;
    if (descriptorsA.rows < 2) {
        logInfo(
            QStringLiteral("[TImageCompareThread]: img1 descriptor count less than 2, skipping knnSearch."));
        return 0.0;
    }
    try {
        cv::flann::Index index(descriptorsA, cv::flann::LshIndexParams(12, 20, 2),
                               cvflann::FLANN_DIST_HAMMING);
        cv::Mat indices(descriptorsB.rows, 2, CV_32S);
        cv::Mat distances(descriptorsB.rows, 2, CV_32F);
        index.knnSearch(descriptorsB, indices, distances, 2, cv::flann::SearchParams(32, 0.0f, true));
        qsizetype good = 0;
        for (int r = 0; r < distances.rows; ++r) {
            // Hamming searches hand back integer distances.
            const bool integral = distances.type() == CV_32S;
            const float d0 =
                integral ? static_cast<float>(distances.at<qint32>(r, 0)) : distances.at<float>(r, 0);
            const float d1 =
                integral ? static_cast<float>(distances.at<qint32>(r, 1)) : distances.at<float>(r, 1);
            const float ratio = d0 / d1;
            if (0.9 > static_cast<double>(ratio))
                ++good;
        }
        return static_cast<double>(good) /
               static_cast<double>(std::max(descriptorsA.rows, descriptorsB.rows));
    } catch (const cv::Exception &e) {
        logInfo(QStringLiteral("[TImageCompareThread]: OpenCV Exception: [%1].")
                    .arg(QString::fromUtf8(e.what())));
    } catch (const std::exception &e) {
        logInfo(
            QStringLiteral("[TImageCompareThread]: std::exception: [%1].").arg(QString::fromUtf8(e.what())));
    } catch (...) {
        logInfo(QStringLiteral("[TImageCompareThread]: Unknown exception caught."));
    }
    return 0.0;
}
