#include "TestMain.h"

#include "app/TLogger.h"
#include "result/GroupItemAutoSelector.h"
#include "scan/FileCategory.h"
#include "scan/TFileData.h"
#include "similar/ImageCacheManager.h"
#include "similar/ImageCompareThread.h"

#include <QJsonDocument>

#include <opencv2/features2d.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <random>

using namespace Qt::StringLiterals;
using Pairs = QList<QList<int>>;

class TestImageCompareThread : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void settingsParsing_data();
    void settingsParsing();
    void smartChoice_data();
    void smartChoice();
    void fastDecisionsEqualMeasure_data();
    void fastDecisionsEqualMeasure();
    void pairFilters_data();
    void pairFilters();
    void grouping_data();
    void grouping();
    void chainKeepsFirstPairOnly();
    void measureEdgeCases();
    void orbScores();
    void emitGroupPlainAndAbsorbed_data();
    void emitGroupPlainAndAbsorbed();
    void fullRunWithOrbThinning_data();
    void fullRunWithOrbThinning();
    void stopDuringPhases_data();
    void stopDuringPhases();
    void pairLimitStopsQuietly();

private:
    QString logText() const;
    ImageData record(const QString &name, const cv::Mat &feature, int width = 400, int height = 300,
                     const QString &suffix = u"jpg"_s, bool duplicate = false);
    QString writeImage(const QString &name, const cv::Mat &image);
    std::unique_ptr<QTemporaryDir> appDir;
    std::unique_ptr<QTemporaryDir> files;
    int serial = 0;
};

namespace {

cv::Mat hashOf(quint64 bits)
{
    cv::Mat h(1, 8, CV_8UC1);
    std::memcpy(h.data, &bits, sizeof bits);
    return h;
}

cv::Mat randomHistogram(std::mt19937 &rng, int rows = 50, int cols = 60)
{
    std::uniform_real_distribution<float> unit(0.f, 1.f);
    cv::Mat h(rows, cols, CV_32F, cv::Scalar(0));
    for (int k = 0; k < 40; ++k)
        h.at<float>(int(unit(rng) * rows) % rows, int(unit(rng) * cols) % cols) += unit(rng);
    cv::normalize(h, h, 0, 1, cv::NORM_MINMAX);
    return h;
}

cv::Mat blend(const cv::Mat &a, const cv::Mat &b, double t)
{
    cv::Mat m = a * (1.0 - t) + b * t;
    cv::normalize(m, m, 0, 1, cv::NORM_MINMAX);
    return m;
}

double referenceScore(bool hash, const cv::Mat &a, const cv::Mat &b, double s)
{
    if (a.empty() || b.empty() || a.size() != b.size() || a.type() != b.type())
        return 0.0;
    if (hash)
        return std::trunc(cv::norm(a, b, cv::NORM_HAMMING)) <= std::trunc(8.0 * s) ? 1.0 : 0.0;
    return 1.0 - cv::compareHist(a, b, cv::HISTCMP_BHATTACHARYYA);
}

cv::Mat texture(int seed, int side = 256)
{
    cv::Mat noise(side / 8, side / 8, CV_8UC3);
    cv::RNG rng(seed);
    rng.fill(noise, cv::RNG::UNIFORM, 0, 256);
    cv::Mat image;
    cv::resize(noise, image, cv::Size(side, side), 0, 0, cv::INTER_NEAREST);
    return image;
}

} // namespace

void TestImageCompareThread::initTestCase()
{
    appDir = std::make_unique<QTemporaryDir>();
    QVERIFY(initLogger(appDir->path()));
    ImageCacheManager::instance(appDir->filePath(u"cache"_s)).setMaxCache();
}

void TestImageCompareThread::init()
{
    files = std::make_unique<QTemporaryDir>();
    ImageCacheManager::instance().clear();
    TFileData::instance().clear();
}

QString TestImageCompareThread::logText() const
{
    TLogger::flush();
    QFile f(appDir->filePath(u"Log/"_s + TLogger::todaysFileName()));
    return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
}

ImageData TestImageCompareThread::record(const QString &name, const cv::Mat &feature, int width, int height,
                                         const QString &suffix, bool duplicate)
{
    ImageData r(files->filePath(name + u'_' + QString::number(++serial) + u'.' + suffix), duplicate);
    r.suffix = suffix;
    r.width = width;
    r.height = height;
    r.pathKey = groupKey(r.path);
    r.loaded = true;
    r.cached = !feature.empty() && ImageCacheManager::instance().insert(r.path, feature);
    return r;
}

QString TestImageCompareThread::writeImage(const QString &name, const cv::Mat &image)
{
    const QString path = files->filePath(name);
    cv::imwrite(path.toStdString(), image);
    return path;
}

void TestImageCompareThread::settingsParsing_data()
{
    QTest::addColumn<QString>("json");
    QTest::addColumn<QList<double>>("expected"); // similarity, features, hint, algorithm, aspect
    QTest::addColumn<QList<bool>>("flags");      // selected, orb, sameType, aspect
    QTest::newRow("absent") << u"{}"_s << QList<double>{0, 0, 0, 0, 0}
                            << QList<bool>{false, false, false, false};
    QTest::newRow("full")
        << uR"({"SimilarityValue":90,"FeaturesValue":35,"selectedSimilar":true,"selectionHint":5,
        "algorithmHint":2,"isAddFeatures":true,"isImageType":true,"isImageSize":true,"imageMinSize":3})"_s
        << QList<double>{0.9f, 0.35f, 5, 2, 3} << QList<bool>{true, true, true, true};
    QTest::newRow("limit 25 read as 4") << uR"({"imageMinSize":25})"_s << QList<double>{0, 0, 0, 0, 4}
                                        << QList<bool>{false, false, false, false};
    QTest::newRow("limit 10 kept") << uR"({"imageMinSize":10})"_s << QList<double>{0, 0, 0, 0, 10}
                                   << QList<bool>{false, false, false, false};
    QTest::newRow("limit 11 read as 4") << uR"({"imageMinSize":11})"_s << QList<double>{0, 0, 0, 0, 4}
                                        << QList<bool>{false, false, false, false};
    QTest::newRow("limit -2 kept") << uR"({"imageMinSize":-2})"_s << QList<double>{0, 0, 0, 0, -2}
                                   << QList<bool>{false, false, false, false};
    QTest::newRow("wrong types") << uR"({"SimilarityValue":"90","isImageType":1,"imageMinSize":"3"})"_s
                                 << QList<double>{0, 0, 0, 0, 0} << QList<bool>{false, false, false, false};
}

void TestImageCompareThread::settingsParsing()
{
    QFETCH(QString, json);
    QFETCH(QList<double>, expected);
    QFETCH(QList<bool>, flags);
    ImageCompareThread t;
    t.setConfig(QJsonDocument::fromJson(json.toUtf8()).object());
    QCOMPARE(t.similarityValue, float(expected[0]));
    QCOMPARE(t.featuresValue, float(expected[1]));
    QCOMPARE(t.selectionHint, int(expected[2]));
    QCOMPARE(t.algorithmHint, int(expected[3]));
    QCOMPARE(t.aspectRatioLimit, int(expected[4]));
    QCOMPARE(t.selectedSimilar, flags[0]);
    QCOMPARE(t.addFeatures, flags[1]);
    QCOMPARE(t.sameTypeOnly, flags[2]);
    QCOMPARE(t.similarAspect, flags[3]);
}

void TestImageCompareThread::smartChoice_data()
{
    QTest::addColumn<int>("hint");
    QTest::addColumn<qsizetype>("count");
    QTest::addColumn<bool>("hash");
    QTest::newRow("smart 10000") << 0 << qsizetype(10000) << false;
    QTest::newRow("smart 10001") << 0 << qsizetype(10001) << true;
    QTest::newRow("unknown hint is smart") << 7 << qsizetype(10001) << true;
    QTest::newRow("histogram forced") << 1 << qsizetype(50000) << false;
    QTest::newRow("hash forced") << 2 << qsizetype(3) << true;
}

void TestImageCompareThread::smartChoice()
{
    QFETCH(int, hint);
    QFETCH(qsizetype, count);
    QFETCH(bool, hash);
    QCOMPARE(ImageCompareThread::chooseHash(hint, count), hash);
}

void TestImageCompareThread::fastDecisionsEqualMeasure_data()
{
    QTest::addColumn<bool>("hash");
    QTest::addColumn<float>("similarity");
    QTest::addColumn<bool>("filters");
    for (float s : {0.9f, 0.5f, 0.1f, 1.0f, 0.0f, 1.2f})
        QTest::addRow("hash %.2f", s) << true << s << false;
    for (float s : {0.9f, 0.75f, 0.6f, 0.97f, 1.0f, 0.0f})
        QTest::addRow("histogram %.2f", s) << false << s << false;
    QTest::newRow("histogram with filters") << false << 0.8f << true;
    QTest::newRow("hash with filters") << true << 0.75f << true;
}

void TestImageCompareThread::fastDecisionsEqualMeasure()
{
    QFETCH(bool, hash);
    QFETCH(float, similarity);
    QFETCH(bool, filters);
    std::mt19937 rng(1234);
    std::vector<cv::Mat> features;
    if (hash) {
        for (int base = 0; base < 20; ++base) {
            const quint64 bits = (quint64(rng()) << 32) | rng();
            features.push_back(hashOf(bits));
            // Copies exactly at and around every possible bit limit.
            for (int flips = 0; flips <= 9; ++flips) {
                quint64 v = bits;
                for (int f = 0; f < flips; ++f)
                    v ^= quint64(1) << ((base + 7 * f) % 64);
                features.push_back(hashOf(v));
            }
        }
        features.push_back(cv::Mat());
        features.push_back(cv::Mat(8, 1, CV_8UC1, cv::Scalar(0))); // a shape the measure refuses
    } else {
        const double s = similarity;
        for (int base = 0; base < 12; ++base) {
            const cv::Mat a = randomHistogram(rng);
            const cv::Mat b = randomHistogram(rng);
            features.push_back(a);
            // Blends whose score to the base sits just either side of the threshold.
            double lo = 0.0, hi = 1.0;
            for (int step = 0; step < 40; ++step) {
                const double mid = (lo + hi) / 2;
                (1.0 - cv::compareHist(a, blend(a, b, mid), cv::HISTCMP_BHATTACHARYYA) >= s ? lo : hi) = mid;
            }
            features.push_back(blend(a, b, lo));
            features.push_back(blend(a, b, hi));
            for (double t : {0.0, 0.01, 0.05, 0.2, 0.6})
                features.push_back(blend(a, b, t));
        }
        features.push_back(cv::Mat(50, 60, CV_32F, cv::Scalar(0)));
        features.push_back(cv::Mat(256, 1, CV_32F, cv::Scalar(1)));
        cv::Mat wide;
        features.back().convertTo(wide, CV_64F);
        features.push_back(wide);
        features.push_back(features.front().clone());
    }

    ImageCompareThread t;
    t.useHash = hash;
    t.similarityValue = similarity;
    t.sameTypeOnly = filters;
    t.similarAspect = filters;
    QList<ImageData> images;
    for (size_t k = 0; k < features.size(); ++k) {
        const bool odd = filters && k % 3 == 0;
        images.append(record(u"f"_s, features[k], odd ? 300 : 400, odd ? 400 : 300,
                             k % 5 == 0 ? u"png"_s : u"jpg"_s, k % 7 == 0));
    }
    QList<ImageData> copy = images;
    const std::vector<ImageCompareThread::Pair> pairs = t.matchPairs(copy);

    // The measure applied pair by pair in row order, as the stated rule goes.
    Pairs expected;
    QList<int> shown(images.size(), 100);
    for (int i = 0; i < images.size(); ++i) {
        for (int j = i + 1; j < images.size(); ++j) {
            const ImageData &a = images[i], &b = images[j];
            if (a.isDuplicate && b.isDuplicate)
                continue;
            if (filters && a.suffix != b.suffix)
                continue;
            if (filters) {
                const double r = (double(a.width) / a.height) / (double(b.width) / b.height);
                if (r < 0.25 || r > 4.0)
                    continue;
            }
            const double score = referenceScore(hash, features[i], features[j], double(similarity));
            if (score >= double(similarity)) {
                const int percent = score * 100 == 100 ? 99 : int(score * 100);
                expected.append({i, j, percent});
                shown[j] = percent;
            }
        }
    }
    Pairs actual;
    for (const auto &p : pairs)
        actual.append({p.i, p.j, p.percent});
    QCOMPARE(actual, expected);
    QList<int> actualShown;
    for (const ImageData &r : std::as_const(copy))
        actualShown.append(r.similarity);
    QCOMPARE(actualShown, shown);
    if (!hash && similarity > 0.f && similarity <= 1.f)
        QVERIFY2(!expected.isEmpty() && expected.size() < images.size() * 4, "cases must sit on both sides");
}

void TestImageCompareThread::pairFilters_data()
{
    QTest::addColumn<int>("limit");
    QTest::addColumn<bool>("aspectOn");
    QTest::addColumn<bool>("typeOn");
    QTest::addColumn<QList<int>>("sizes"); // width, height of four identical images
    QTest::addColumn<QStringList>("suffixes");
    QTest::addColumn<QList<bool>>("standIns");
    QTest::addColumn<Pairs>("expected");
    const QStringList jpg(4, u"jpg"_s);
    const QList<bool> none(4, false);
    QTest::newRow("limit 1 equal ratios only")
        << 1 << true << true << QList<int>{400, 300, 800, 600, 401, 300, 300, 400} << jpg << none
        << Pairs{{0, 1}};
    QTest::newRow("limit 0 nothing") << 0 << true << true
                                     << QList<int>{400, 300, 400, 300, 400, 300, 400, 300} << jpg << none
                                     << Pairs{};
    QTest::newRow("limit 4 boundary")
        << 4 << true << true << QList<int>{400, 100, 100, 100, 401, 100, 100, 401} << jpg << none
        << Pairs{{0, 1}, {0, 2}};
    QTest::newRow("no height never pairs")
        << 4 << true << true << QList<int>{400, 300, 400, 0, 400, 300, 0, 0} << jpg << none << Pairs{{0, 2}};
    QTest::newRow("aspect off") << 1 << false << true << QList<int>{400, 300, 800, 100, 1, 300, 0, 0} << jpg
                                << none << Pairs{{0, 1}, {0, 2}, {0, 3}, {1, 2}, {1, 3}, {2, 3}};
    QTest::newRow("types differ") << 4 << false << true << QList<int>(8, 100)
                                  << QStringList{u"jpg"_s, u"png"_s, u"jpg"_s, u"webp"_s} << none
                                  << Pairs{{0, 2}};
    QTest::newRow("types ignored") << 4 << false << false << QList<int>(8, 100)
                                   << QStringList{u"jpg"_s, u"png"_s, u"jpg"_s, u"webp"_s} << none
                                   << Pairs{{0, 1}, {0, 2}, {0, 3}, {1, 2}, {1, 3}, {2, 3}};
    QTest::newRow("stand-ins not with each other")
        << 4 << false << true << QList<int>(8, 100) << jpg << QList<bool>{true, true, false, true}
        << Pairs{{0, 2}, {1, 2}, {2, 3}};
}

void TestImageCompareThread::pairFilters()
{
    QFETCH(int, limit);
    QFETCH(bool, aspectOn);
    QFETCH(bool, typeOn);
    QFETCH(QList<int>, sizes);
    QFETCH(QStringList, suffixes);
    QFETCH(QList<bool>, standIns);
    QFETCH(Pairs, expected);
    ImageCompareThread t;
    t.useHash = true;
    t.similarityValue = 0.9f;
    t.aspectRatioLimit = limit;
    t.similarAspect = aspectOn;
    t.sameTypeOnly = typeOn;
    QList<ImageData> images;
    for (int k = 0; k < 4; ++k)
        images.append(record(u"p"_s, hashOf(0xF0F0'1234'5678'9ABCull), sizes[2 * k], sizes[2 * k + 1],
                             suffixes[k], standIns[k]));
    Pairs actual;
    for (const auto &p : t.matchPairs(images)) {
        QCOMPARE(p.percent, 99);
        actual.append({p.i, p.j});
    }
    QCOMPARE(actual, expected);
}

void TestImageCompareThread::grouping_data()
{
    QTest::addColumn<int>("count");
    QTest::addColumn<Pairs>("pairs");
    QTest::addColumn<Pairs>("groups");
    QTest::newRow("chain A-B-C") << 3 << Pairs{{0, 1}, {1, 2}} << Pairs{{0, 1}};
    QTest::newRow("triangle") << 3 << Pairs{{0, 1}, {0, 2}, {1, 2}} << Pairs{{0, 1, 2}};
    QTest::newRow("chain of four") << 4 << Pairs{{0, 1}, {1, 2}, {2, 3}} << Pairs{{0, 1}, {2, 3}};
    QTest::newRow("skipped image seeds later")
        << 5 << Pairs{{0, 1}, {0, 2}, {1, 2}, {2, 3}, {3, 4}} << Pairs{{0, 1, 2}, {3, 4}};
    QTest::newRow("square without diagonals")
        << 4 << Pairs{{0, 1}, {1, 2}, {2, 3}, {0, 3}} << Pairs{{0, 1}, {2, 3}};
    QTest::newRow("clique grows through queue")
        << 4 << Pairs{{0, 3}, {2, 3}, {0, 2}, {1, 3}} << Pairs{{0, 2, 3}};
    QTest::newRow("repeated pair") << 3 << Pairs{{0, 2}, {0, 2}} << Pairs{{0, 2}};
    QTest::newRow("no pairs") << 3 << Pairs{} << Pairs{};
}

void TestImageCompareThread::grouping()
{
    QFETCH(int, count);
    QFETCH(Pairs, pairs);
    QFETCH(Pairs, groups);
    std::vector<ImageCompareThread::Pair> input;
    for (const QList<int> &p : std::as_const(pairs))
        input.push_back({p[0], p[1], 90});
    QCOMPARE(ImageCompareThread::buildGroups(count, input), groups);
}

void TestImageCompareThread::chainKeepsFirstPairOnly()
{
    // Similarity 50: up to 4 differing bits. A-B 3 bits, B-C 3 bits, A-C 6 bits.
    ImageCompareThread t;
    t.useHash = true;
    t.similarityValue = 0.5f;
    QList<ImageData> images{record(u"a"_s, hashOf(0)), record(u"b"_s, hashOf(0b111)),
                            record(u"c"_s, hashOf(0b111'000'111))};
    const QStringList paths{images[0].path, images[1].path, images[2].path};
    QList<QList<ImageData>> groups;
    t.hashCompare(images, groups);
    QVERIFY(images.isEmpty());
    QCOMPARE(groups.size(), 1);
    QCOMPARE(groups[0].size(), 2);
    // B got 99 from A, and A keeps its initial 100, so A sorts first.
    QCOMPARE(groups[0][0].path, paths[0]);
    QCOMPARE(groups[0][0].similarity, 100);
    QCOMPARE(groups[0][1].path, paths[1]);
    QCOMPARE(groups[0][1].similarity, 99);
    QVERIFY(logText().contains(u"[TImageCompareThread]: Hash matching process completed. Time taken: ["_s));
}

void TestImageCompareThread::measureEdgeCases()
{
    ImageCompareThread t;
    // Histogram of one pure colour against itself: distance exactly 0, shown as 99.
    cv::Mat pure(50, 60, CV_32F, cv::Scalar(0));
    pure.at<float>(0, 59) = 1.f;
    QCOMPARE(cv::compareHist(pure, pure, cv::HISTCMP_BHATTACHARYYA), 0.0);
    QCOMPARE(t.compareFeatures(pure, pure, 0.9), 1.0);
    QList<ImageData> images{record(u"r"_s, pure), record(u"r"_s, pure.clone())};
    t.similarityValue = 0.9f;
    const auto pairs = t.matchPairs(images);
    QCOMPARE(pairs.size(), size_t(1));
    QCOMPARE(pairs[0].percent, 99);
    QCOMPARE(images[1].similarity, 99);

    // Grey against colour: compareHist refuses the shapes; logged, scored 0.
    const cv::Mat grey(256, 1, CV_32F, cv::Scalar(0.5));
    QCOMPARE(t.compareFeatures(grey, pure, 0.9), 0.0);
    QVERIFY(logText().contains(u"[ImageCompareThread] OpenCV exception: "_s));
    QCOMPARE(t.compareFeatures(cv::Mat(1, 8, CV_8U), pure, 0.9), 0.0);
    QVERIFY(logText().contains(u"[ImageCompareThread] img1 type invalid for compareHist: 0"_s));
    QCOMPARE(t.compareFeatures(cv::Mat(), pure, 0.0), 0.0);

    t.useHash = true;
    QCOMPARE(t.compareFeatures(hashOf(0), hashOf(0xFF), 1.0), 1.0); // 8 bits <= trunc(8.0)
    QCOMPARE(t.compareFeatures(hashOf(0), hashOf(0x1FF), 1.0), 0.0);
    QCOMPARE(t.compareFeatures(hashOf(0), hashOf(0), 0.1), 1.0); // trunc(0.8) = 0: identical only
    QCOMPARE(t.compareFeatures(hashOf(0), hashOf(1), 0.1), 0.0);
    QCOMPARE(t.compareFeatures(hashOf(0), cv::Mat(8, 1, CV_8UC1, cv::Scalar(0)), 0.9), 0.0);
    QVERIFY(logText().contains(u"[ImageCompareThread] Image size or type mismatch in hash compare."_s));
}

void TestImageCompareThread::orbScores()
{
    cv::Mat descriptors(60, 32, CV_8UC1);
    cv::RNG(7).fill(descriptors, cv::RNG::UNIFORM, 0, 256);
    QCOMPARE(ImageCompareThread::orbMatchScore(descriptors.rowRange(0, 1), descriptors), 0.0);
    QVERIFY(logText().contains(
        u"[TImageCompareThread]: img1 descriptor count less than 2, skipping knnSearch."_s));
    QCOMPARE(ImageCompareThread::orbMatchScore(cv::Mat(), descriptors), 0.0);
    // A single query row that is in the index matches exactly: 1 of max(60, 1).
    QCOMPARE(ImageCompareThread::orbMatchScore(descriptors, descriptors.rowRange(5, 6)), 1.0 / 60);
    QVERIFY(ImageCompareThread::orbMatchScore(descriptors, descriptors) > 0.9);
    cv::Mat unrelated(60, 32, CV_8UC1);
    cv::RNG(8).fill(unrelated, cv::RNG::UNIFORM, 0, 256);
    QVERIFY(ImageCompareThread::orbMatchScore(descriptors, unrelated) < 0.5);
    // Descriptors of the wrong type are refused inside FLANN: caught, scored 0.
    QCOMPARE(ImageCompareThread::orbMatchScore(cv::Mat(10, 4, CV_32F, cv::Scalar(1)), descriptors), 0.0);
}

void TestImageCompareThread::emitGroupPlainAndAbsorbed_data()
{
    QTest::addColumn<bool>("absorb");
    QTest::addColumn<int>("rule");
    QTest::newRow("plain, select all") << false << int(SelectAll);
    QTest::newRow("plain, deselect") << false << int(Deselect);
    QTest::newRow("absorbed, select all") << true << int(SelectAll);
    QTest::newRow("absorbed, deselect keeps earlier choice") << true << int(Deselect);
}

void TestImageCompareThread::emitGroupPlainAndAbsorbed()
{
    QFETCH(bool, absorb);
    QFETCH(int, rule);
    const QString x = writeImage(u"x.png"_s, texture(1));
    const QString y = writeImage(u"y.png"_s, texture(2));
    const QString d1a = files->filePath(u"d1a.png"_s), d1b = files->filePath(u"d1b.png"_s);
    const QString d2a = files->filePath(u"d2a.png"_s), d2b = files->filePath(u"d2b.png"_s);
    TFileData &store = TFileData::instance();
    store.addDuplicateGroup(groupKey(d1a), {d1a, d1b});
    store.addDuplicateGroup(groupKey(d2a), {d2a, d2b, d1b});
    store.setSelected(groupKey(d1a), {d1b});

    ImageCompareThread t;
    t.selectedSimilar = true;
    t.selectionHint = rule;
    QList<ImageData> group;
    auto member = [&](const QString &path, bool dup, int similarity) {
        ImageData r(path, dup);
        r.pathKey = groupKey(path);
        r.similarity = similarity;
        group.append(r);
    };
    member(x, false, 100);
    if (absorb) {
        member(d1a, true, 97);
        member(files->filePath(u"gone.png"_s), true, 95); // its group is not stored: passed over
        member(d2a, true, 93);
    }
    member(y, false, 87);
    t.emitGroup(group);
    t.emitGroup(group.mid(0, 1)); // a single member is never written

    const QString key = absorb ? groupKey(d1a) : groupKey(x);
    QStringList entries;
    if (absorb)
        entries = {d1a,
                   d1b,
                   d2a + u"_simlar_99"_s,
                   d2b + u"_simlar_99"_s,
                   x + u"_simlar_100"_s,
                   files->filePath(u"gone.png"_s) + u"_simlar_95"_s,
                   y + u"_simlar_87"_s};
    else
        entries = {x + u"_simlar_100"_s, y + u"_simlar_87"_s};
    QCOMPARE(store.duplicateGroups.value(key), entries);
    QCOMPARE(store.duplicateGroups.size(), absorb ? 2 : 3);
    if (absorb)
        QCOMPARE(store.duplicateGroups.value(groupKey(d2a)).size(), 3);
    QStringList selected;
    if (rule == SelectAll)
        selected = entries;
    else if (absorb)
        selected = {d1b};
    QCOMPARE(store.selectedFiles.value(key), selected);
    QCOMPARE(t.groupedCount.load(), 2);
    QCOMPARE(t.groupedSize.load(), QFileInfo(x).size() + QFileInfo(y).size());
}

void TestImageCompareThread::fullRunWithOrbThinning_data()
{
    QTest::addColumn<int>("features");
    QTest::addColumn<int>("groupSize");
    QTest::newRow("kept") << 20 << 3;
    QTest::newRow("thinned to one") << 101 << 0;
}

void TestImageCompareThread::fullRunWithOrbThinning()
{
    QFETCH(int, features);
    QFETCH(int, groupSize);
    const QStringList images{writeImage(u"a.png"_s, texture(3)), writeImage(u"b.png"_s, texture(3)),
                             writeImage(u"c.png"_s, texture(4)), writeImage(u"e.png"_s, texture(3))};
    QFile::copy(images[3], files->filePath(u"e2.png"_s));
    const QString dupKey = groupKey(images[3]);
    TFileData::instance().addDuplicateGroup(dupKey, {images[3], files->filePath(u"e2.png"_s)});

    ImageCompareThread t;
    t.setConfig(QJsonObject{{u"SimilarityValue"_s, 90},
                            {u"FeaturesValue"_s, features},
                            {u"isAddFeatures"_s, true},
                            {u"isImageType"_s, true},
                            {u"isImageSize"_s, true},
                            {u"imageMinSize"_s, 4},
                            {u"algorithmHint"_s, 1}});
    t.setInput(images.mid(0, 3), {{dupKey, {images[3], files->filePath(u"e2.png"_s)}}});
    QList<QPair<int, int>> progress;
    QList<QPair<int, qint64>> done;
    connect(&t, &ImageCompareThread::progressChanged, this, [&](int type, int p) {
        progress.append({type, p});
    });
    connect(&t, &ImageCompareThread::finished, this, [&](int count, qint64 size) {
        done.append({count, size});
    });
    t.start();
    QVERIFY(t.wait(120000));
    QCoreApplication::sendPostedEvents();

    QCOMPARE(done.size(), 1);
    const auto &store = TFileData::instance().duplicateGroups;
    QCOMPARE(store.value(dupKey).size(), groupSize ? 4 : 2); // e, e2 + a, b
    QCOMPARE(done[0].first, groupSize ? 2 : 0);
    QCOMPARE(done[0].second, groupSize ? QFileInfo(images[0]).size() * 2 : 0);
    if (groupSize)
        QCOMPARE(store.value(dupKey).mid(2),
                 (QStringList{images[0] + u"_simlar_99"_s, images[1] + u"_simlar_99"_s}));
    for (int phase : {2, 3, 4})
        QVERIFY(progress.contains(QPair<int, int>(phase, 100)));
    QCOMPARE(progress.count(QPair<int, int>(3, 100)), 1);
    const QString log = logText();
    QVERIFY(log.contains(u"[TImageCompareThread]: Start loading image data, number of images [4]..."_s));
    QVERIFY(log.contains(u"[TImageCompareThread]: Histogram matching process completed. Time taken: ["_s));
    QVERIFY(log.contains(
        u"[TImageCompareThread]: Start OBR special symptom point deduplication. Quantity: [1]..."_s));
}

void TestImageCompareThread::stopDuringPhases_data()
{
    QTest::addColumn<int>("phase");
    QTest::newRow("matching") << 3;
    QTest::newRow("orb") << 4;
}

void TestImageCompareThread::stopDuringPhases()
{
    QFETCH(int, phase);
    // Many identical images: without the stop every row pairs and one big group forms.
    // ORB needs room for its border, so its images are larger.
    const QString first = writeImage(u"s0.png"_s, texture(9, phase == 3 ? 64 : 256));
    QStringList images{first};
    const int count = phase == 3 ? 300 : 40;
    for (int k = 1; k < count; ++k) {
        images.append(files->filePath(u"s%1.png"_s.arg(k)));
        QVERIFY(QFile::copy(first, images.back()));
    }
    ImageCompareThread t;
    t.setConfig(QJsonObject{{u"SimilarityValue"_s, 90},
                            {u"FeaturesValue"_s, 10},
                            {u"isAddFeatures"_s, true},
                            {u"algorithmHint"_s, 2}});
    t.setInput(images, {});
    std::atomic<int> stoppedAt{-1};
    std::atomic<int> afterStop{0};
    connect(
        &t, &ImageCompareThread::progressChanged, this,
        [&](int type, int p) {
            if (stoppedAt.load() >= 0) {
                if (type == phase && p < 100)
                    afterStop.fetch_add(1);
                return;
            }
            if (type == phase && p < 100) {
                stoppedAt.store(p);
                t.stop();
            }
        },
        Qt::DirectConnection);
    std::atomic<int> finishedCount{0};
    connect(
        &t, &ImageCompareThread::finished, this, [&](int, qint64) { ++finishedCount; }, Qt::DirectConnection);
    t.start();
    QVERIFY(t.wait(120000));
    QCOMPARE(finishedCount.load(), 1);
    QVERIFY(stoppedAt.load() >= 0);
    // Only tasks already under way may still report.
    QVERIFY2(afterStop.load() <= 4, qPrintable(QString::number(afterStop.load())));
    qsizetype largest = 0;
    for (const QStringList &g : std::as_const(TFileData::instance().duplicateGroups))
        largest = std::max(largest, g.size());
    QVERIFY(largest < count);
}

void TestImageCompareThread::pairLimitStopsQuietly()
{
    ImageCompareThread t;
    t.useHash = true;
    t.similarityValue = 0.9f;
    t.maxPairs = 50;
    QList<ImageData> images;
    for (int k = 0; k < 40; ++k)
        images.append(record(u"same"_s, hashOf(42)));
    // Loading with the stop flag set leaves every record untouched.
    QList<ImageData> unloaded;
    t.setInput({images[0].path}, {});
    t.stop();
    t.loadImages(unloaded);
    QCOMPARE(unloaded.size(), 1);
    QVERIFY(!unloaded[0].loaded);
    t.cancelled = false;
    t.useHash = true;

    const auto pairs = t.matchPairs(images);
    QCOMPARE(pairs.size(), size_t(50));
    QVERIFY(t.pairLimitReached.load());
    QVERIFY(logText().contains(
        u"[TImageCompareThread]: Too many similar pairs, matching stopped at [50] pairs."_s));
    t.maxPairs = 10000;
    QCOMPARE(t.matchPairs(images).size(), size_t(40 * 39 / 2));
    QVERIFY(!t.pairLimitReached.load());
}

TWINFOLD_TEST_MAIN(TestImageCompareThread)
#include "tst_imagecomparethread.moc"
