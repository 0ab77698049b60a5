#include "TestMain.h"

#include "app/TLogger.h"
#include "result/GroupItemAutoSelector.h"
#include "scan/FileCategory.h"
#include "scan/TFileData.h"
#include "similar/ImageCacheManager.h"
#include "similar/ImageCompareThread.h"

#include <QJsonDocument>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <random>

using namespace Qt::StringLiterals;
using Pairs = QList<QList<int>>;
using Reports = QList<QList<qint64>>;

namespace {

cv::Mat hashOf(quint64 bits)
{
    cv::Mat h(1, 8, CV_8UC1);
    std::memcpy(h.data, &bits, sizeof bits);
    return h;
}

cv::Mat randomHistogram(std::mt19937 &rng)
{
    std::uniform_real_distribution<float> unit(0.f, 1.f);
    cv::Mat h(50, 60, CV_32F, cv::Scalar(0));
    for (int k = 0; k < 40; ++k)
        h.at<float>(int(unit(rng) * 50) % 50, int(unit(rng) * 60) % 60) += unit(rng);
    cv::normalize(h, h, 0, 1, cv::NORM_MINMAX);
    return h;
}

cv::Mat blend(const cv::Mat &a, const cv::Mat &b, double t)
{
    cv::Mat m = a * (1.0 - t) + b * t;
    cv::normalize(m, m, 0, 1, cv::NORM_MINMAX);
    return m;
}

// The measure straight from OpenCV, against which the fast pair paths are checked.
double referenceScore(bool hash, const cv::Mat &a, const cv::Mat &b, double s)
{
    if (a.empty() || b.empty() || a.size != b.size || a.type() != b.type())
        return 0.0;
    if (hash)
        return std::trunc(cv::norm(a, b, cv::NORM_HAMMING)) <= std::trunc(8.0 * s) ? 1.0 : 0.0;
    return 1.0 - cv::compareHist(a, b, cv::HISTCMP_BHATTACHARYYA);
}

// The accepted pairs of one pass as (i, j, percent) rows.
Pairs matchedPairs(ImageCompareThread &t, QList<ImageData> &images)
{
    Pairs pairs;
    for (const auto &p : t.matchPairs(images))
        pairs.append({p.i, p.j, p.percent});
    return pairs;
}
QJsonObject jsonOf(const QString &text)
{
    return QJsonDocument::fromJson(text.toUtf8()).object();
}

} // namespace

class TestImageCompareThread : public QObject
{
    Q_OBJECT
    std::unique_ptr<QTemporaryDir> appDir;
    std::unique_ptr<QTemporaryDir> files;
    int serial = 0;

    QString logText() const
    {
        TLogger::flush();
        QFile f(appDir->filePath(u"Log/"_s + TLogger::todaysFileName()));
        return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
    }

    // A loaded record whose feature sits in the image cache, under a fresh file name; shape is
    // "WxH", optionally with ".suffix" (else jpg) and "*" for a stand-in of a duplicate group.
    ImageData record(const cv::Mat &feature, const QString &shape = u"400x300"_s)
    {
        const QString suffix = shape.section(u'.', 1).remove(u'*');
        ImageData r(files->filePath(u"r%1."_s.arg(++serial) + (suffix.isEmpty() ? u"jpg"_s : suffix)),
                    shape.endsWith(u'*'));
        r.suffix = QFileInfo(r.path).suffix();
        r.width = shape.section(u'x', 0, 0).toInt();
        r.height = shape.section(u'x', 1).section(u'.', 0, 0).remove(u'*').toInt();
        r.loaded = true;
        r.cached = !feature.empty() && ImageCacheManager::instance().insert(r.path, feature);
        return r;
    }

    // A PNG of coarse random blocks; the same seed gives the same picture.
    QString writeTexture(const QString &name, int seed, int side = 256)
    {
        cv::Mat noise(side / 8, side / 8, CV_8UC3), image;
        cv::RNG(seed).fill(noise, cv::RNG::UNIFORM, 0, 256);
        cv::resize(noise, image, cv::Size(side, side), 0, 0, cv::INTER_NEAREST);
        cv::imwrite(files->filePath(name).toStdString(), image);
        return files->filePath(name);
    }
    // Runs the whole matcher on its thread; the progress reports and the finished signal it sent.
    Reports run(ImageCompareThread &t, const QString &config, const QStringList &images,
                const QMap<QString, QStringList> &groups = {})
    {
        t.setConfig(jsonOf(config));
        t.setInput(images, groups);
        Reports reports;
        connect(&t, &ImageCompareThread::progressChanged, this, [&](int type, int p) {
            reports.append({type, p});
        });
        connect(&t, &ImageCompareThread::finished, this, [&](int n, qint64 size) {
            reports.append({-1, n, size});
        });
        t.start();
        if (!t.wait(120000))
            return {};
        QCoreApplication::sendPostedEvents();
        return reports;
    }

private slots:
    void initTestCase()
    {
        appDir = std::make_unique<QTemporaryDir>();
        QVERIFY(initLogger(appDir->path()));
        ImageCacheManager::instance(appDir->filePath(u"cache"_s)).setMaxCache();
    }

    void init()
    {
        files = std::make_unique<QTemporaryDir>();
        ImageCacheManager::instance().clear();
        TFileData::instance().clear();
    }

    void settingsAndMeasureChoice_data()
    {
        QTest::addColumn<QString>("json");
        QTest::addColumn<qsizetype>("count");
        // similarity, features, selection hint, algorithm, aspect limit, then as 0/1: selected,
        // ORB, same type, similar aspect, and whether count images are matched by hash.
        QTest::addColumn<QList<double>>("expected");
        const auto row = [](const char *name, const QString &json, qsizetype count, const QList<double> &e) {
            QTest::newRow(name) << json << count << e;
        };
        row("absent, smart at 10000", u"{}"_s, 10000, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
        row("full, hash forced",
            uR"({"SimilarityValue":90,"FeaturesValue":35,"selectedSimilar":true,"selectionHint":5,
            "algorithmHint":2,"isAddFeatures":true,"isImageType":true,"isImageSize":true,"imageMinSize":3})"_s,
            3, {0.9f, 0.35f, 5, 2, 3, 1, 1, 1, 1, 1});
        row("histogram forced", uR"({"algorithmHint":1})"_s, 50000, {0, 0, 0, 1, 0, 0, 0, 0, 0, 0});
        row("unknown hint is smart, above 10000", uR"({"algorithmHint":7})"_s, 10001,
            {0, 0, 0, 7, 0, 0, 0, 0, 0, 1});
        row("limit 10 kept", uR"({"imageMinSize":10})"_s, 0, {0, 0, 0, 0, 10, 0, 0, 0, 0, 0});
        row("limit 11 read as 4", uR"({"imageMinSize":11})"_s, 0, {0, 0, 0, 0, 4, 0, 0, 0, 0, 0});
        row("wrong types", uR"({"SimilarityValue":"90","isImageType":1,"imageMinSize":"3"})"_s, 0,
            {0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    }

    void settingsAndMeasureChoice()
    {
        QFETCH(QString, json);
        QFETCH(qsizetype, count);
        QFETCH(QList<double>, expected);
        ImageCompareThread t;
        t.setConfig(jsonOf(json));
        QCOMPARE(
            (QList<double>{t.similarityValue, t.featuresValue, double(t.selectionHint),
                           double(t.algorithmHint), double(t.aspectRatioLimit), double(t.selectedSimilar),
                           double(t.addFeatures), double(t.sameTypeOnly), double(t.similarAspect),
                           double(ImageCompareThread::chooseHash(t.algorithmHint, count))}),
            expected);
    }

    void fastDecisionsEqualMeasure_data()
    {
        QTest::addColumn<bool>("hash");
        QTest::addColumn<float>("similarity");
        for (float s : {0.9f, 0.5f, 0.1f, 1.0f, 0.0f, 1.2f})
            QTest::addRow("hash %.2f", s) << true << s;
        for (float s : {0.9f, 0.75f, 0.6f, 0.97f, 1.0f, 0.0f})
            QTest::addRow("histogram %.2f", s) << false << s;
    }

    void fastDecisionsEqualMeasure()
    {
        QFETCH(bool, hash);
        QFETCH(float, similarity);
        std::mt19937 rng(1234);
        std::vector<cv::Mat> features;
        if (hash) {
            for (int base = 0; base < 20; ++base) {
                quint64 v = (quint64(rng()) << 32) | rng();
                // The base, an identical copy and copies with 1 to 9 bits flipped: at and around
                // every possible bit limit.
                features.push_back(hashOf(v));
                for (int flips = 0; flips <= 9; v ^= quint64(1) << ((base + 7 * flips++) % 64))
                    features.push_back(hashOf(v));
            }
            features.push_back(cv::Mat());
            features.push_back(cv::Mat(8, 1, CV_8UC1, cv::Scalar(0))); // a shape the measure refuses
        } else {
            for (int base = 0; base < 12; ++base) {
                const cv::Mat a = randomHistogram(rng);
                const cv::Mat b = randomHistogram(rng);
                features.push_back(a);
                // Blends whose score to the base sits just either side of the threshold.
                double lo = 0.0, hi = 1.0;
                for (int step = 0; step < 40; ++step) {
                    const double mid = (lo + hi) / 2;
                    (1.0 - cv::compareHist(a, blend(a, b, mid), cv::HISTCMP_BHATTACHARYYA) >= similarity
                         ? lo
                         : hi) = mid;
                }
                for (double t : {lo, hi, 0.0, 0.01, 0.05, 0.2, 0.6})
                    features.push_back(blend(a, b, t));
            }
            // Empty, grey-shaped, double-typed and repeated histograms leave the fast path.
            features.insert(features.end(),
                            {cv::Mat(50, 60, CV_32F, cv::Scalar(0)), cv::Mat(256, 1, CV_32F, cv::Scalar(1)),
                             cv::Mat(256, 1, CV_64F, cv::Scalar(1)), features[0].clone()});
        }

        QList<ImageData> images;
        for (const cv::Mat &f : features)
            images.append(record(f));
        // The measure applied pair by pair in row order.
        Pairs expected;
        QList<int> shown(images.size(), 100), actualShown;
        for (int i = 0; i < images.size(); ++i) {
            for (int j = i + 1; j < images.size(); ++j) {
                const double score = referenceScore(hash, features[i], features[j], double(similarity));
                if (score >= double(similarity)) {
                    const int percent = score * 100 == 100 ? 99 : int(score * 100);
                    expected.append({i, j, percent});
                    shown[j] = percent;
                }
            }
        }
        ImageCompareThread t;
        t.useHash = hash;
        t.similarityValue = similarity;
        QCOMPARE(matchedPairs(t, images), expected);
        for (const ImageData &r : std::as_const(images))
            actualShown.append(r.similarity);
        QCOMPARE(actualShown, shown);
        if (!hash && similarity > 0.f && similarity <= 1.f)
            QVERIFY2(!expected.isEmpty() && expected.size() < images.size() * 4,
                     "cases must sit on both sides");
    }

    void pairFilters_data()
    {
        QTest::addColumn<int>("limit");
        QTest::addColumn<bool>("aspectOn");
        QTest::addColumn<QStringList>("shapes"); // of images with one feature, as record() reads them
        QTest::addColumn<Pairs>("expected");
        const auto row = [](const char *name, int limit, bool aspect, const char *shapes,
                            const Pairs &expected) {
            QTest::newRow(name) << limit << aspect << QString::fromLatin1(shapes).split(u' ') << expected;
        };
        row("limit 1 equal ratios only", 1, true, "400x300 800x600 401x300 300x400", {{0, 1}});
        row("limit 0 nothing", 0, true, "400x300 400x300 400x300 400x300", {});
        row("limit 4 boundary", 4, true, "400x100 100x100 401x100 100x401", {{0, 1}, {0, 2}});
        row("no height never pairs", 4, true, "400x300 400x0 400x300 0x0", {{0, 2}});
        row("aspect off", 1, false, "400x300 800x100 1x300 0x0",
            {{0, 1}, {0, 2}, {0, 3}, {1, 2}, {1, 3}, {2, 3}});
        row("same type only", 4, true, "400x300.png 400x300 400x300.gif 400x300.png", {{0, 3}});
        row("stand-ins never pair with each other", 4, true, "400x300* 400x300* 400x300 400x300*",
            {{0, 2}, {1, 2}, {2, 3}});
    }

    void pairFilters()
    {
        QFETCH(int, limit);
        QFETCH(bool, aspectOn);
        QFETCH(QStringList, shapes);
        QFETCH(Pairs, expected);
        for (QList<int> &p : expected)
            p.append(99);
        // The filters sit inside each measure's own fast path.
        for (bool hash : {true, false}) {
            ImageCompareThread t;
            t.useHash = hash;
            t.similarityValue = 0.9f;
            t.aspectRatioLimit = limit;
            t.similarAspect = aspectOn;
            std::mt19937 rng(5);
            const cv::Mat feature = hash ? hashOf(0xF0F0'1234'5678'9ABCull) : randomHistogram(rng);
            QList<ImageData> records;
            for (const QString &shape : std::as_const(shapes))
                records.append(record(feature, shape));
            QCOMPARE(matchedPairs(t, records), expected);
        }
    }

    void grouping_data()
    {
        QTest::addColumn<int>("count");
        QTest::addColumn<Pairs>("pairs");
        QTest::addColumn<Pairs>("groups");
        QTest::newRow("chain A-B-C") << 3 << Pairs{{0, 1}, {1, 2}} << Pairs{{0, 1}};
        QTest::newRow("triangle") << 3 << Pairs{{0, 1}, {0, 2}, {1, 2}} << Pairs{{0, 1, 2}};
        QTest::newRow("skipped image seeds later")
            << 5 << Pairs{{0, 1}, {0, 2}, {1, 2}, {2, 3}, {3, 4}} << Pairs{{0, 1, 2}, {3, 4}};
        QTest::newRow("square without diagonals")
            << 4 << Pairs{{0, 1}, {1, 2}, {2, 3}, {0, 3}} << Pairs{{0, 1}, {2, 3}};
        QTest::newRow("clique grows through queue")
            << 4 << Pairs{{0, 3}, {2, 3}, {0, 2}, {1, 3}} << Pairs{{0, 2, 3}};
        QTest::newRow("repeated pair") << 3 << Pairs{{0, 2}, {0, 2}} << Pairs{{0, 2}};
    }

    void grouping()
    {
        QFETCH(int, count);
        QFETCH(Pairs, pairs);
        QFETCH(Pairs, groups);
        std::vector<ImageCompareThread::Pair> input;
        for (const QList<int> &p : std::as_const(pairs))
            input.push_back({p[0], p[1], 90});
        QCOMPARE(ImageCompareThread::buildGroups(count, input), groups);
    }

    // Inputs the measures refuse score 0, with one log line.
    void refusedInputs()
    {
        ImageCompareThread t;
        cv::Mat pure(50, 60, CV_32F, cv::Scalar(0));
        pure.at<float>(0, 59) = 1.f;
        QCOMPARE(t.compareFeatures(cv::Mat(256, 1, CV_32F, cv::Scalar(0.5)), pure, 0.9), 0.0);
        QVERIFY(logText().contains(u"[ImageCompareThread] OpenCV exception: "_s));
        QCOMPARE(t.compareFeatures(cv::Mat(1, 8, CV_8U), pure, 0.9), 0.0);
        QVERIFY(logText().contains(u"[ImageCompareThread] img1 type invalid for compareHist: 0"_s));
        QCOMPARE(t.compareFeatures(cv::Mat(), pure, 0.0), 0.0);
        t.useHash = true;
        // 8 bits <= trunc(8.0); at 0.1 trunc(0.8) = 0 leaves identical hashes only.
        for (const auto &[other, s, score] : QList<std::tuple<quint64, double, double>>{
                 {0xFF, 1.0, 1.0}, {0x1FF, 1.0, 0.0}, {0, 0.1, 1.0}, {1, 0.1, 0.0}})
            QCOMPARE(t.compareFeatures(hashOf(0), hashOf(other), s), score);
        QCOMPARE(t.compareFeatures(hashOf(0), cv::Mat(8, 1, CV_8UC1, cv::Scalar(0)), 0.9), 0.0);
        QVERIFY(logText().contains(u"[ImageCompareThread] Image size or type mismatch in hash compare."_s));

        cv::Mat descriptors(60, 32, CV_8UC1), unrelated(60, 32, CV_8UC1);
        cv::RNG(7).fill(descriptors, cv::RNG::UNIFORM, 0, 256);
        cv::RNG(8).fill(unrelated, cv::RNG::UNIFORM, 0, 256);
        QCOMPARE(ImageCompareThread::orbMatchScore(descriptors.rowRange(0, 1), descriptors), 0.0);
        QVERIFY(logText().contains(
            u"[TImageCompareThread]: img1 descriptor count less than 2, skipping knnSearch."_s));
        QCOMPARE(ImageCompareThread::orbMatchScore(cv::Mat(), descriptors), 0.0);
        // A single query row that is in the index matches exactly: 1 of max(60, 1).
        QCOMPARE(ImageCompareThread::orbMatchScore(descriptors, descriptors.rowRange(5, 6)), 1.0 / 60);
        QVERIFY(ImageCompareThread::orbMatchScore(descriptors, descriptors) > 0.9);
        QVERIFY(ImageCompareThread::orbMatchScore(descriptors, unrelated) < 0.5);
        // Descriptors of the wrong type are refused inside FLANN: caught, scored 0.
        QCOMPARE(ImageCompareThread::orbMatchScore(cv::Mat(10, 4, CV_32F, cv::Scalar(1)), descriptors), 0.0);
    }

    void emitGroupPlainAndAbsorbed_data()
    {
        QTest::addColumn<bool>("absorb");
        QTest::addColumn<int>("rule");
        QTest::newRow("plain, select all") << false << int(SelectAll);
        QTest::newRow("plain, deselect") << false << int(Deselect);
        QTest::newRow("absorbed, select all") << true << int(SelectAll);
        QTest::newRow("absorbed, deselect keeps earlier choice") << true << int(Deselect);
    }

    void emitGroupPlainAndAbsorbed()
    {
        QFETCH(bool, absorb);
        QFETCH(int, rule);
        const QString x = writeTexture(u"x.png"_s, 1), y = writeTexture(u"y.png"_s, 2);
        const auto path = [this](const char *name) { return files->filePath(QString::fromLatin1(name)); };
        // The group of gone is not stored: it is passed over.
        const QString d1a = path("d1a.png"), d1b = path("d1b.png"), d2a = path("d2a.png"),
                      d2b = path("d2b.png"), gone = path("gone.png");
        TFileData &store = TFileData::instance();
        store.addDuplicateGroup(groupKey(d1a), {d1a, d1b});
        store.addDuplicateGroup(groupKey(d2a), {d2a, d2b, d1b});
        store.setSelected(groupKey(d1a), {d1b});
        ImageCompareThread t;
        t.selectedSimilar = true;
        t.selectionHint = rule;
        QList<ImageData> group;
        for (const auto &[member, standIn, similarity] : QList<std::tuple<QString, bool, int>>{
                 {x, false, 100}, {d1a, true, 97}, {gone, true, 95}, {d2a, true, 93}, {y, false, 87}}) {
            if (standIn && !absorb)
                continue;
            group.append(ImageData(member, standIn));
            group.back().pathKey = groupKey(member);
            group.back().similarity = similarity;
        }
        t.emitGroup(group);
        t.emitGroup(group.mid(0, 1)); // a single member is never written

        const QString key = groupKey(absorb ? d1a : x);
        const auto shown = [](const QString &p, int n) -> QString {
            return p + u"_simlar_"_s + QString::number(n);
        };
        QStringList entries{shown(x, 100), shown(gone, 95), shown(y, 87)};
        entries = absorb ? QStringList{d1a, d1b, shown(d2a, 99), shown(d2b, 99)} + entries
                         : QStringList{entries[0], entries[2]};
        QCOMPARE(store.duplicateGroups.value(key), entries);
        QCOMPARE(store.duplicateGroups.size(), absorb ? 2 : 3);
        QVERIFY(!absorb || store.duplicateGroups.value(groupKey(d2a)).size() == 3);
        QCOMPARE(store.selectedFiles.value(key), rule == SelectAll ? entries
                                                 : absorb          ? QStringList{d1b}
                                                                   : QStringList{});
        QCOMPARE(QList<qint64>({t.groupedCount.load(), t.groupedSize.load()}),
                 QList<qint64>({2, QFileInfo(x).size() + QFileInfo(y).size()}));
    }

    void fullRunWithOrbThinning_data()
    {
        QTest::addColumn<int>("features");
        QTest::addColumn<bool>("kept");
        QTest::newRow("kept") << 20 << true;
        QTest::newRow("thinned to one") << 101 << false;
    }

    void fullRunWithOrbThinning()
    {
        QFETCH(int, features);
        QFETCH(bool, kept);
        const QStringList images{writeTexture(u"a.png"_s, 3), writeTexture(u"b.png"_s, 3),
                                 writeTexture(u"c.png"_s, 4), writeTexture(u"e.png"_s, 3)};
        const QString e2 = files->filePath(u"e2.png"_s), dupKey = groupKey(images[3]);
        QVERIFY(QFile::copy(images[3], e2));
        TFileData::instance().addDuplicateGroup(dupKey, {images[3], e2});
        ImageCompareThread t;
        const Reports reports =
            run(t, uR"({"SimilarityValue":90,"isAddFeatures":true,"isImageType":true,"isImageSize":true,
                    "imageMinSize":4,"algorithmHint":1,"FeaturesValue":%1})"_s.arg(features),
                images.mid(0, 3), {{dupKey, {images[3], e2}}});

        // a and b join the stand-in of e and e2; c differs; the ORB bar may thin them out again.
        QCOMPARE(reports.last(),
                 (QList<qint64>{-1, kept ? 2 : 0, kept ? QFileInfo(images[0]).size() * 2 : 0}));
        const QStringList joined{images[0] + u"_simlar_99"_s, images[1] + u"_simlar_99"_s};
        QCOMPARE(TFileData::instance().duplicateGroups.value(dupKey),
                 QStringList({images[3], e2}) + (kept ? joined : QStringList{}));
        for (int phase : {2, 4})
            QVERIFY(reports.contains(QList<qint64>{phase, 100}));
        QCOMPARE(reports.count(QList<qint64>{3, 100}), 1);
        const QString log = logText();
        for (const QString &line :
             {u"[TImageCompareThread]: Start loading image data, number of images [4]..."_s,
              u"[TImageCompareThread]: Histogram matching process completed. Time taken: ["_s,
              u"[TImageCompareThread]: Start OBR special symptom point deduplication. Quantity: [1]..."_s})
            QVERIFY2(log.contains(line), qPrintable(line));
    }

    void stopDuringPhases_data()
    {
        QTest::addColumn<int>("phase");
        QTest::newRow("matching") << 3;
        QTest::newRow("orb") << 4;
    }

    void stopDuringPhases()
    {
        QFETCH(int, phase);
        // Many identical images: without the stop every row pairs and one big group forms.
        // ORB needs room for its border, so its images are larger.
        QStringList images{writeTexture(u"s0.png"_s, 9, phase == 3 ? 64 : 256)};
        const int count = phase == 3 ? 300 : 40;
        for (int k = 1; k < count; ++k) {
            images.append(files->filePath(u"s%1.png"_s.arg(k)));
            QVERIFY(QFile::copy(images[0], images.back()));
        }
        ImageCompareThread t;
        std::atomic<int> stoppedAt{-1}, afterStop{0};
        connect(
            &t, &ImageCompareThread::progressChanged, this,
            [&](int type, int p) {
                int none = -1;
                if (type != phase || p >= 100)
                    return;
                if (stoppedAt.compare_exchange_strong(none, p))
                    t.stop();
                else
                    afterStop.fetch_add(1);
            },
            Qt::DirectConnection);
        const Reports reports =
            run(t, uR"({"SimilarityValue":90,"FeaturesValue":10,"isAddFeatures":true,"algorithmHint":2})"_s,
                images);
        QCOMPARE(std::count_if(reports.cbegin(), reports.cend(),
                               [](const QList<qint64> &r) { return r[0] == -1; }),
                 1);
        QVERIFY(stoppedAt.load() >= 0);
        // Only tasks already under way may still report.
        QVERIFY2(afterStop.load() <= 4, qPrintable(QString::number(afterStop.load())));
        qsizetype largest = 0;
        for (const QStringList &g : std::as_const(TFileData::instance().duplicateGroups))
            largest = std::max(largest, g.size());
        QVERIFY(largest < count);
        QVERIFY(
            logText().contains(u"[TImageCompareThread]: Hash matching process completed. Time taken: ["_s));
    }

    void pairLimitStopsQuietly()
    {
        ImageCompareThread t;
        QList<ImageData> images, unloaded;
        for (int k = 0; k < 40; ++k)
            images.append(record(hashOf(42)));
        // Loading with the stop flag set leaves every record untouched.
        t.setInput({images[0].path}, {});
        t.stop();
        t.loadImages(unloaded);
        QVERIFY(unloaded.size() == 1 && !unloaded[0].loaded);
        t.cancelled = false;
        t.useHash = true;
        t.similarityValue = 0.9f;
        t.maxPairs = 50;
        QCOMPARE(t.matchPairs(images).size(), size_t(50));
        QVERIFY(t.pairLimitReached.load());
        QVERIFY(logText().contains(
            u"[TImageCompareThread]: Too many similar pairs, matching stopped at [50] pairs."_s));
        t.maxPairs = 10000;
        QCOMPARE(t.matchPairs(images).size(), size_t(40 * 39 / 2));
        QVERIFY(!t.pairLimitReached.load());
    }
};

TWINFOLD_TEST_MAIN(TestImageCompareThread)
#include "tst_imagecomparethread.moc"
