// Pair-matching throughput of the similar-image matcher on synthetic features that are
// already loaded into the image cache, so that only the all-pairs pass and the grouping
// are timed. Histograms imitate photographs: a few colour clusters in hue and saturation,
// whole pixel counts, min-max normalised; a share of the images are slightly altered
// copies of others so that real groups form.
#include "scan/PoolMap.h"
#include "similar/ImageCacheManager.h"
#include "similar/ImageCompareThread.h"
#include "similar/ImageData.h"
#include "similar/ImageSamples.h"
#include "similar/TReadImage.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QThreadPool>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include <atomic>
#include <cstdio>
#include <random>

namespace {

struct Result
{
    QString name;
    qsizetype images = 0;
    double seconds = 0.0;
    qsizetype groups = 0;
    qsizetype grouped = 0;
};

cv::Mat photoHistogram(std::mt19937_64 &rng)
{
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    cv::Mat counts(ImageData::hueBins, ImageData::saturationBins, CV_64F, cv::Scalar(0));
    const int clusters = 2 + static_cast<int>(unit(rng) * 4);
    for (int c = 0; c < clusters; ++c) {
        const double hue = unit(rng) * ImageData::hueBins;
        const double saturation = unit(rng) * ImageData::saturationBins;
        const double hueSpread = 0.7 + unit(rng) * 3.0;
        const double saturationSpread = 2.0 + unit(rng) * 12.0;
        const double pixels = 1e5 + unit(rng) * 4e5;
        for (int h = 0; h < ImageData::hueBins; ++h) {
            double dh = std::abs(h - hue);
            dh = std::min(dh, ImageData::hueBins - dh);
            for (int s = 0; s < ImageData::saturationBins; ++s) {
                const double ds = s - saturation;
                counts.at<double>(h, s) +=
                    pixels * std::exp(-0.5 * (dh * dh / (hueSpread * hueSpread) +
                                              ds * ds / (saturationSpread * saturationSpread)));
            }
        }
    }
    return counts;
}

cv::Mat normalised(const cv::Mat &counts)
{
    cv::Mat whole;
    counts.convertTo(whole, CV_32F);
    for (int r = 0; r < whole.rows; ++r)
        for (int c = 0; c < whole.cols; ++c)
            whole.at<float>(r, c) = std::floor(whole.at<float>(r, c));
    cv::normalize(whole, whole, 0, 1, cv::NORM_MINMAX);
    return whole;
}

cv::Mat hashFeature(quint64 bits)
{
    cv::Mat hash(1, 8, CV_8UC1);
    std::memcpy(hash.data, &bits, sizeof bits);
    return hash;
}

// Records as the loader leaves them, with their features in the cache.
QList<ImageData> syntheticRecords(qsizetype count, bool hash, quint64 seed)
{
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    QList<ImageData> images;
    images.reserve(count);
    std::vector<cv::Mat> bases;
    std::vector<quint64> baseHashes;
    for (qsizetype k = 0; k < count; ++k) {
        ImageData record(QStringLiteral("/bench/%1/img%2.jpg").arg(k % 97).arg(k), false);
        record.suffix = QStringLiteral("jpg");
        record.width = 4000;
        record.height = unit(rng) < 0.8 ? 3000 : 2250;
        record.loaded = true;
        // One in twenty images is a slightly altered copy of an earlier one.
        const bool copy = k > 0 && unit(rng) < 0.05;
        cv::Mat feature;
        if (hash) {
            quint64 bits = rng();
            if (copy) {
                bits = baseHashes[static_cast<size_t>(rng() % baseHashes.size())];
                const int flips = static_cast<int>(rng() % 8);
                for (int f = 0; f < flips; ++f)
                    bits ^= quint64(1) << (rng() % 64);
            }
            baseHashes.push_back(bits);
            feature = hashFeature(bits);
        } else {
            cv::Mat counts;
            if (copy) {
                counts = bases[static_cast<size_t>(rng() % bases.size())].clone();
                counts.forEach<double>([&](double &v, const int *) { v *= 0.97 + unit(rng) * 0.06; });
            } else {
                counts = photoHistogram(rng);
            }
            bases.push_back(counts);
            feature = normalised(counts);
        }
        record.cached = ImageCacheManager::instance().insert(record.path, feature);
        images.append(record);
    }
    return images;
}

Result matchBench(const QString &name, qsizetype count, bool hash)
{
    ImageCacheManager::instance().clear();
    QList<ImageData> images = syntheticRecords(count, hash, 20240601 + static_cast<quint64>(count));
    ImageCompareThread matcher;
    matcher.similarityValue = 0.9f;
    matcher.useHash = hash;
    QList<QList<ImageData>> groups;
    QElapsedTimer timer;
    timer.start();
    matcher.hashCompare(images, groups);
    Result result{name, count, static_cast<double>(timer.nsecsElapsed()) / 1e9, groups.size(), 0};
    for (const QList<ImageData> &group : std::as_const(groups))
        result.grouped += group.size();
    ImageCacheManager::instance().clear();
    return result;
}

// A 12-megapixel picture with what makes photographs costly to code: smooth light,
// edges and sensor-like noise.
cv::Mat photograph(int seed)
{
    const int width = 4000, height = 3000;
    cv::Mat image(height, width, CV_8UC3);
    std::mt19937 rng(static_cast<unsigned>(seed));
    std::normal_distribution<float> noise(0.f, 6.f);
    const float phase = float(seed) * 0.7f;
    for (int y = 0; y < height; ++y) {
        auto *row = image.ptr<cv::Vec3b>(y);
        for (int x = 0; x < width; ++x) {
            const float fx = float(x) / width, fy = float(y) / height;
            const float light = 120.f + 90.f * std::sin(3.f * fx + phase) * std::cos(2.f * fy);
            for (int c = 0; c < 3; ++c)
                row[x][c] = cv::saturate_cast<uchar>(light + 40.f * float(c - 1) * fy + noise(rng));
        }
    }
    for (int k = 0; k < 40; ++k)
        cv::circle(image, cv::Point(int(rng() % width), int(rng() % height)), 40 + int(rng() % 300),
                   cv::Scalar(rng() % 256, rng() % 256, rng() % 256), cv::FILLED, cv::LINE_AA);
    return image;
}

struct Throughput
{
    QString name;
    qsizetype files = 0;
    qsizetype decoded = 0;
    double decodePerSecond = 0.0;
    double loadPerSecond = 0.0;
};

// Decoding alone and the whole per-image load (decode, hash, cache), each over every file
// several times on the global pool, as the matcher's loader runs.
Throughput decodeBench(const QString &name, const QStringList &files, int rounds)
{
    QStringList work;
    for (int r = 0; r < rounds; ++r)
        work += files;
    std::atomic<qsizetype> decoded{0};
    QElapsedTimer timer;
    timer.start();
    mapOnPool(work, [&decoded](const QString &path) {
        int w = 0, h = 0;
        if (!TReadImage::readImageToMat(path, w, h).empty())
            ++decoded;
    });
    const double decodeSeconds = double(timer.nsecsElapsed()) / 1e9;

    QList<ImageData> records;
    for (const QString &path : std::as_const(work))
        records.append(ImageData(path, false));
    timer.restart();
    mapOnPool(records, [](const ImageData &record) { const_cast<ImageData &>(record).loadImageData(true); });
    const double loadSeconds = double(timer.nsecsElapsed()) / 1e9;
    ImageCacheManager::instance().clear();
    return {name, files.size(), decoded.load(), double(work.size()) / decodeSeconds,
            double(work.size()) / loadSeconds};
}

QStringList writeSamples(const QString &dir, const QString &kind, int count)
{
    QStringList paths;
    for (int i = 0; i < count; ++i) {
        const cv::Mat image = photograph(i);
        const QString path = QStringLiteral("%1/%2-%3.%4")
                                 .arg(dir, kind)
                                 .arg(i)
                                 .arg(kind.startsWith(u"heic") ? QStringLiteral("heic")
                                      : kind == u"dng"         ? QStringLiteral("dng")
                                                               : QStringLiteral("jpg"));
        bool ok = false;
        if (kind == u"jpeg") {
            ok = cv::imwrite(path.toStdString(), image, {cv::IMWRITE_JPEG_QUALITY, 90});
        } else if (kind == u"dng") {
            // Cameras embed a full-size JPEG preview; the raw data itself is never developed.
            std::vector<uchar> jpeg;
            cv::imencode(".jpg", image, jpeg, {cv::IMWRITE_JPEG_QUALITY, 90});
            QFile file(path);
            ok = file.open(QIODevice::WriteOnly) &&
                 file.write(ImageSamples::makeDng(
                     QByteArray(reinterpret_cast<const char *>(jpeg.data()), qsizetype(jpeg.size())),
                     QSize(image.cols, image.rows), true, 1)) > 0;
        } else {
            ok = ImageSamples::writeHeic(path, image, kind == u"heic+thumb" ? 320 : 0).isEmpty();
        }
        if (ok)
            paths.append(path);
        else
            std::fprintf(stderr, "could not write %s\n", qPrintable(path));
    }
    return paths;
}

void printTable(const char *title, const QList<Result> &results)
{
    std::printf("\n%s\n%-28s %10s %10s %10s %10s\n", title, "case", "images", "seconds", "groups", "grouped");
    for (const Result &r : results)
        std::printf("%-28s %10lld %10.3f %10lld %10lld\n", qPrintable(r.name),
                    static_cast<long long>(r.images), r.seconds, static_cast<long long>(r.groups),
                    static_cast<long long>(r.grouped));
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QTemporaryDir cacheDir;
    ImageCacheManager::instance(cacheDir.path()).setMaxCache();

    // Section 1: pair matching on features already in the cache, similarity 90.
    QList<Result> matching;
    matching.append(matchBench(QStringLiteral("histogram"), 10000, false));
    matching.append(matchBench(QStringLiteral("hash"), 10000, true));
    matching.append(matchBench(QStringLiteral("hash"), 100000, true));
    printTable("Pair matching (features loaded)", matching);

    // Section 2: decoding 12-megapixel files of each kind.
    QTemporaryDir samples;
    QList<Throughput> decoding;
    const struct
    {
        const char *kind;
        int files;
        int rounds;
    } kinds[] = {{"jpeg", 6, 4}, {"dng", 6, 4}, {"heic+thumb", 3, 4}, {"heic", 3, 2}};
    for (const auto &k : kinds) {
        const QString kind = QString::fromLatin1(k.kind);
        decoding.append(decodeBench(kind, writeSamples(samples.path(), kind, k.files), k.rounds));
    }
    std::printf("\nDecoding 4000x3000 files (global pool, %d threads)\n%-14s %8s %10s %16s %16s\n",
                QThreadPool::globalInstance()->maxThreadCount(), "kind", "files", "decoded", "decodes/s",
                "loads/s (hash)");
    for (const Throughput &t : std::as_const(decoding))
        std::printf("%-14s %8lld %10lld %16.1f %16.1f\n", qPrintable(t.name), static_cast<long long>(t.files),
                    static_cast<long long>(t.decoded), t.decodePerSecond, t.loadPerSecond);
    return 0;
}
