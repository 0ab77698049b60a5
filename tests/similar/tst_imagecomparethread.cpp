#include "TestMain.h"
#include "TodaysLog.h"

#include "app/TLogger.h"
#include "result/GroupItemAutoSelector.h"
#include "scan/FileCategory.h"
#include "scan/TFileData.h"
#include "similar/ImageCacheManager.h"
#include "similar/ImageCompareThread.h"

#include <QJsonDocument>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

using namespace Qt::StringLiterals;

namespace {

cv::Mat hashOf(quint64 bits)
{
    return cv::Mat(1, 8, CV_8UC1, &bits).clone();
}

cv::Mat randomHistogram(cv::RNG &rng)
{
    cv::Mat h(50, 60, CV_32F, cv::Scalar(0));
    for (int k = 0; k < 40; ++k)
        h.at<float>(rng.uniform(0, 50), rng.uniform(0, 60)) += rng.uniform(0.f, 1.f);
    return h;
}

// The accepted pairs of one pass as "i-j:percent" words, then the groups they form as "((0, 1))".
QString matchedPairs(ImageCompareThread &t, QList<ImageData> &images)
{
    QStringList pairs;
    QString groups;
    const std::vector<ImageCompareThread::Pair> matched = t.matchPairs(images);
    for (const auto &p : matched)
        pairs.append(u"%1-%2:%3"_s.arg(p.i).arg(p.j).arg(p.percent));
    QDebug(&groups).nospace() << ImageCompareThread::buildGroups(qint32(images.size()), matched);
    return pairs.join(u' ') + u" | "_s + groups.remove(u"QList"_s);
}

// Data rows "input -> expected", separated by ';', named after their input.
void addRows(const QString &rows)
{
    QTest::addColumn<QString>("input");
    QTest::addColumn<QString>("expected");
    for (const QString &row : rows.split(u';'))
        QTest::newRow(row.section(u" -> "_s, 0, 0).toUtf8().constData())
            << row.section(u" -> "_s, 0, 0) << row.section(u" -> "_s, 1);
}

} // namespace

class TestImageCompareThread : public QObject
{
    Q_OBJECT
    QTemporaryDir appDir, files;
    int serial = 0;

    QString logText() const { return todaysLog(appDir.path()); }

    // A loaded record whose feature sits in the image cache, under a fresh file name; shape is
    // "WxH.suffix", with "*" for a stand-in of a duplicate group.
    ImageData record(const cv::Mat &feature, const QString &shape = u"400x300.jpg"_s)
    {
        ImageData r(files.filePath(u"r%1.%2"_s.arg(++serial).arg(shape.section(u'.', 1).remove(u'*'))),
                    shape.endsWith(u'*'));
        r.suffix = QFileInfo(r.path).suffix();
        r.width = shape.section(u'x', 0, 0).toInt();
        r.height = shape.section(u'x', 1).section(u'.', 0, 0).toInt();
        r.cached = !feature.empty() && ImageCacheManager::instance().insert(r.path, feature);
        return r;
    }

    // A PNG of coarse random blocks; the same seed gives the same picture.
    QString writeTexture(const QString &name, int seed, int side = 256)
    {
        cv::Mat noise(side / 8, side / 8, CV_8UC3), image;
        cv::RNG(seed).fill(noise, cv::RNG::UNIFORM, 0, 256);
        cv::resize(noise, image, cv::Size(side, side), 0, 0, cv::INTER_NEAREST);
        return cv::imwrite(files.filePath(name).toStdString(), image) ? files.filePath(name) : QString();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(initLogger(appDir.path()));
        ImageCacheManager::instance(appDir.filePath(u"cache"_s)).setMaxCache();
    }

    // "json | images -> parsed": similarity, features, selection hint, algorithm, aspect limit,
    // selected, ORB, same type, similar aspect, and whether that many images are matched by hash.
    void settingsAndMeasureChoice_data()
    {
        addRows(uR"({} | 10000 -> 0 0 0 0 0 false false false false false;)"
                uR"({"algorithmHint":7} | 10001 -> 0 0 0 7 0 false false false false true;)"
                uR"({"algorithmHint":1} | 50000 -> 0 0 0 1 0 false false false false false;)"
                uR"({"imageMinSize":10} | 0 -> 0 0 0 0 10 false false false false false;)"
                uR"({"imageMinSize":11} | 0 -> 0 0 0 0 4 false false false false false;)"
                uR"({"SimilarityValue":90,"FeaturesValue":35,"selectedSimilar":true,"selectionHint":5,)"
                uR"("algorithmHint":2,"isAddFeatures":true,"isImageType":true,"isImageSize":true,)"
                uR"("imageMinSize":3} | 3 -> 0.9 0.35 5 2 3 true true true true true;)"
                uR"({"SimilarityValue":"90","isImageType":1,"imageMinSize":"3"} | 0)"
                uR"( -> 0 0 0 0 0 false false false false false)"_s);
    }
    void settingsAndMeasureChoice()
    {
        QFETCH(QString, input);
        QFETCH(QString, expected);
        ImageCompareThread t;
        t.setConfig(QJsonDocument::fromJson(input.section(u'|', 0, 0).toUtf8()).object());
        QString text;
        QDebug(&text) << t.similarityValue << t.featuresValue << t.selectionHint << t.algorithmHint
                      << t.aspectRatioLimit << t.selectedSimilar << t.addFeatures << t.sameTypeOnly
                      << t.similarAspect
                      << t.chooseHash(t.algorithmHint, input.section(u'|', 1).toLongLong());
        QCOMPARE(text.trimmed(), expected);
    }

    // The fast pair paths accept exactly the pairs the measure itself accepts, with its percentages,
    // each record showing the last one in row order: hashes 0 to 9 bits apart around every bit limit,
    // histogram blends just either side of the threshold, and features the fast paths cannot read.
    // With room for one pair less the pass stops at the limit and says so; with room for all it does
    // not.
    void fastDecisionsEqualMeasure_data()
    {
        addRows(u"hash 0.9;hash 0.1;hash 1;hash 0;hash 1.2;histogram 0.9;histogram 1;histogram 0"_s);
    }
    void fastDecisionsEqualMeasure()
    {
        QFETCH(QString, input);
        const bool hash = input.startsWith(u'h');
        const float similarity = input.section(u' ', 1).toFloat();
        ImageCompareThread t;
        t.useHash = hash;
        t.similarityValue = similarity;
        cv::RNG rng(1234);
        QList<cv::Mat> features;
        for (int base = 0; base < 20 && hash; ++base) {
            const quint64 v = (quint64(rng.next()) << 32) | rng.next();
            for (int bits = -1; bits <= 9; ++bits) // the hash, an identical copy, 1 to 9 bits flipped
                features.push_back(hashOf(v ^ ((quint64(1) << std::max(bits, 0)) - 1) << base));
        }
        for (int base = 0; base < 12 && !hash; ++base) {
            // A histogram and blends towards another, two of them just either side of the threshold.
            const cv::Mat a = randomHistogram(rng), b = randomHistogram(rng);
            double lo = 0.0, hi = 1.0;
            for (double mid = 0.5; hi - lo > 1e-12; mid = (lo + hi) / 2)
                (t.compareFeatures(a, a * (1.0 - mid) + b * mid, 0.0) >= similarity ? lo : hi) = mid;
            for (double step : {0.0, lo, hi, 0.01, 0.05, 0.2, 0.6})
                features.push_back(a * (1.0 - step) + b * step);
        }
        // Nothing, and features the fast paths cannot read: a repeated one, a hash of another shape, an
        // empty, a grey-shaped and a double histogram.
        features << cv::Mat() << features[0].clone() << cv::Mat(8, 1, CV_8UC1, cv::Scalar(0))
                 << cv::Mat(50, 60, CV_32F, cv::Scalar(0)) << cv::Mat(256, 1, CV_32F, cv::Scalar(1))
                 << cv::Mat(256, 1, CV_64F, cv::Scalar(1));
        QList<ImageData> images;
        QStringList expected;
        QList<int> shown(features.size(), 100), actual;
        for (qsizetype i = 0; i < features.size(); ++i) {
            images.append(record(features[i]));
            for (qsizetype j = i + 1; j < features.size(); ++j) {
                const double score = t.compareFeatures(features[i], features[j], similarity);
                if (score >= double(similarity))
                    expected << u"%1-%2:%3"_s.arg(i).arg(j).arg(shown[j] = std::min(99, int(score * 100)));
            }
        }
        QCOMPARE(matchedPairs(t, images).section(u" | "_s, 0, 0), expected.join(u' '));
        for (const ImageData &r : std::as_const(images))
            actual.append(r.similarity);
        QCOMPARE(actual, shown);
        // The cases sit on both sides of the threshold.
        QVERIFY(hash || similarity <= 0.f || (!expected.isEmpty() && expected.size() < images.size() * 4));
        for (const qsizetype room : {std::max<qsizetype>(expected.size() - 1, 0), expected.size()}) {
            t.maxPairs = room;
            QCOMPARE(qsizetype(t.matchPairs(images).size()), room);
            QCOMPARE(t.pairLimitReached.load(), room < expected.size());
        }
        QVERIFY(expected.isEmpty() || logText().contains(u"at [%1] pairs."_s.arg(expected.size() - 1)));
    }

    // Pairs and groups of records "WxH.suffix" ('*' a stand-in of a duplicate group, "#mask" bits
    // flipped in a common hash) under an aspect limit, on or off: the filters that need no feature
    // sit inside each measure's own fast path (aspect limit 1 equal ratios only, 0 nothing, at and
    // one past the limit, no height; same type; stand-ins never pair with each other), so rows of one
    // feature run with both measures. Groups grow by complete linkage, seeds in index order.
    void pairsAndGroups_data()
    {
        addRows(
            u"1 on: 400x300.jpg 800x600.jpg 401x300.jpg 300x400.jpg -> 0-1 | ((0, 1));"
            u"0 on: 400x300.jpg 400x300.jpg 400x300.jpg 400x300.jpg ->  | ();"
            u"4 on: 400x100.jpg 100x100.jpg 401x100.jpg 100x401.jpg -> 0-1 0-2 | ((0, 1));"
            u"4 on: 400x300.jpg 400x0.jpg 400x300.jpg 0x0.jpg -> 0-2 | ((0, 2));"
            u"1 off: 400x300.jpg 800x100.jpg 1x300.jpg 0x0.jpg -> 0-1 0-2 0-3 1-2 1-3 2-3 | ((0, 1, 2, 3));"
            u"4 on: 400x300.png 400x300.jpg 400x300.gif 400x300.png -> 0-3 | ((0, 3));"
            u"4 on: 400x300.jpg* 400x300.jpg* 400x300.jpg 400x300.jpg* -> 0-2 1-2 2-3 | ((0, 2));"
            u"4 on: 1x1.jpg#0 1x1.jpg#127 1x1.jpg#16383 -> 0-1 1-2 | ((0, 1));"
            u"4 on: 1x1.jpg#0 1x1.jpg#1 1x1.jpg#31 1x1.jpg#4095 1x1.jpg#524287"
            u" -> 0-1 0-2 1-2 2-3 3-4 | ((0, 1, 2), (3, 4));"
            u"4 on: 1x1.jpg#0 1x1.jpg#127 1x1.jpg#16383 1x1.jpg#16256 -> 0-1 0-3 1-2 2-3 | ((0, 1), (2, 3));"
            u"4 on: 1x1.jpg#16383 1x1.jpg#0 1x1.jpg#16383 1x1.jpg#127 -> 0-2 0-3 1-3 2-3 | ((0, 2, 3))"_s);
    }
    void pairsAndGroups()
    {
        QFETCH(QString, input);
        QFETCH(QString, expected);
        cv::RNG rng(5);
        const cv::Mat histogram = randomHistogram(rng);
        for (bool hash : {true, false}) {
            ImageCompareThread t;
            t.useHash = hash || input.contains(u'#');
            t.similarityValue = 0.9f;
            t.aspectRatioLimit = input.section(u' ', 0, 0).toInt();
            t.similarAspect = input.section(u' ', 1, 1) == u"on:";
            QList<ImageData> records;
            for (const QString &item : input.section(u": "_s, 1).split(u' '))
                records.append(record(t.useHash ? hashOf(item.section(u'#', 1).toULongLong()) : histogram,
                                      item.section(u'#', 0, 0)));
            QCOMPARE(matchedPairs(t, records).remove(u":99"_s), expected);
        }
    }

    // The histogram measure is 1 - Bhattacharyya distance, the hash one 1 within trunc(8 x similarity)
    // bits; inputs they refuse score 0, with one log line. ORB: the share of B's descriptors with a
    // clearly best partner among A's.
    void measures()
    {
        ImageCompareThread t;
        const cv::Mat histogram(50, 60, CV_32F, cv::Scalar(1));
        QCOMPARE(t.compareFeatures(cv::Mat(256, 1, CV_32F, cv::Scalar(0.5)), histogram, 0.9), 0.0);
        QCOMPARE(t.compareFeatures(cv::Mat(1, 8, CV_8U), histogram, 0.9), 0.0);
        QCOMPARE(t.compareFeatures(cv::Mat(), histogram, 0.0), 0.0);
        cv::RNG rng(3);
        const cv::Mat a = randomHistogram(rng), b = randomHistogram(rng);
        QCOMPARE(t.compareFeatures(a, b, 0.9), 1.0 - cv::compareHist(a, b, cv::HISTCMP_BHATTACHARYYA));
        t.useHash = true;
        for (const auto &[other, s, score] : QList<std::tuple<quint64, double, double>>{
                 {0xFF, 1.0, 1.0}, {0x1FF, 1.0, 0.0}, {0, 0.1, 1.0}, {1, 0.1, 0.0}})
            QCOMPARE(t.compareFeatures(hashOf(0), hashOf(other), s), score);
        QCOMPARE(t.compareFeatures(hashOf(0), cv::Mat(8, 1, CV_8UC1, cv::Scalar(0)), 0.9), 0.0);
        cv::Mat descriptors(60, 32, CV_8UC1), unrelated(60, 32, CV_8UC1);
        cv::RNG(7).fill(descriptors, cv::RNG::UNIFORM, 0, 256);
        cv::RNG(8).fill(unrelated, cv::RNG::UNIFORM, 0, 256);
        QCOMPARE(ImageCompareThread::orbMatchScore(descriptors.rowRange(0, 1), descriptors), 0.0);
        QCOMPARE(ImageCompareThread::orbMatchScore(cv::Mat(), descriptors), 0.0);
        // A single query row that is in the index matches exactly: 1 of max(60, 1).
        QCOMPARE(ImageCompareThread::orbMatchScore(descriptors, descriptors.rowRange(5, 6)), 1.0 / 60);
        QVERIFY(ImageCompareThread::orbMatchScore(descriptors, descriptors) > 0.9);
        QVERIFY(ImageCompareThread::orbMatchScore(descriptors, unrelated) < 0.5);
        QCOMPARE(ImageCompareThread::orbMatchScore(cv::Mat(10, 4, CV_32F, cv::Scalar(1)), descriptors), 0.0);
        // A pair given twice is one edge.
        QCOMPARE(ImageCompareThread::buildGroups(3, {{0, 2, 90}, {0, 2, 90}}),
                 (QList<QList<qint32>>{{0, 2}}));
        const QString log = logText();
        for (const char *line :
             {"[ImageCompareThread] OpenCV exception: ",
              "[ImageCompareThread] img1 type invalid for compareHist: 0",
              "[ImageCompareThread] Image size or type mismatch in hash compare.",
              "[TImageCompareThread]: img1 descriptor count less than 2, skipping knnSearch."})
            QVERIFY2(log.contains(QLatin1String(line)), line);
    }

    // Two groups into the store, members "name:similarity" ('*' a stand-in): x, y plain, under its
    // first member's key; w, v absorbing duplicate groups, under the first stored one's key (gone is
    // not stored: passed over) with its list first, the other's files at 99, then members not yet
    // listed, while the other group stays. A single member is never written. Each written group as
    // "entries | selected": the rule's choice, and in an absorbed group also the earlier one.
    void emitGroup_data()
    {
        addRows(u"select all -> d1a d1b d2a_simlar_99 d2b_simlar_99 w_simlar_100 gone_simlar_95 v_simlar_87 |"
                u" d1a d1b d2a_simlar_99 d2b_simlar_99 w_simlar_100 gone_simlar_95 v_simlar_87 / d2a d2b d1b"
                u" |  / x_simlar_100 y_simlar_87 | x_simlar_100 y_simlar_87;deselect keeps earlier choice ->"
                u" d1a d1b d2a_simlar_99 d2b_simlar_99 w_simlar_100 gone_simlar_95 v_simlar_87 | d1b /"
                u" d2a d2b d1b |  / x_simlar_100 y_simlar_87 | "_s);
    }
    void emitGroup()
    {
        QFETCH(QString, input);
        QFETCH(QString, expected);
        const auto path = [this](const QString &name) { return files.filePath(name + u".png"_s); };
        TFileData &store = TFileData::instance();
        store.clear();
        store.addDuplicateGroup(groupKey(path(u"d1a"_s)), {path(u"d1a"_s), path(u"d1b"_s)});
        store.addDuplicateGroup(groupKey(path(u"d2a"_s)), {path(u"d2a"_s), path(u"d2b"_s), path(u"d1b"_s)});
        store.setSelected(groupKey(path(u"d1a"_s)), {path(u"d1b"_s)});
        ImageCompareThread t;
        t.selectedSimilar = true;
        t.selectionHint = input == u"select all" ? SelectAll : Deselect;
        for (const QString &members : {u"x:100 y:87"_s, u"w:100 *d1a:97 *gone:95 *d2a:93 v:87"_s}) {
            QList<ImageData> group;
            for (const QString &member : members.split(u' ')) {
                const QString name = member.section(u':', 0, 0).remove(u'*');
                if (!member.startsWith(u'*'))
                    writeTexture(name + u".png"_s, 1);
                group.append(ImageData(path(name), member.startsWith(u'*')));
                group.back().pathKey = groupKey(group.back().path);
                group.back().similarity = member.section(u':', 1).toInt();
            }
            t.emitGroup(group);
            t.emitGroup(group.mid(0, 1));
        }
        // Each group under the key of its first entry's file.
        QStringList text;
        for (auto it = store.duplicateGroups.cbegin(); it != store.duplicateGroups.cend(); ++it)
            text << (groupKey(it->value(0).section(u"_simlar"_s, 0, 0)) == it.key() ? u""_s : u"key? "_s) +
                        it->join(u' ') + u" | "_s + store.selectedFiles.value(it.key()).join(u' ');
        text.sort();
        QCOMPARE(text.join(u" / "_s).remove(files.path() + u'/').remove(u".png"_s), expected);
        QCOMPARE(QList<qint64>({t.groupedCount.load(), t.groupedSize.load()}),
                 QList<qint64>({4, 4 * QFileInfo(path(u"x"_s)).size()}));
    }

    // Whole runs on files. Without a stop, s0 and s1 join the stand-in of the duplicate group e, e2
    // while s2 differs, unless the ORB bar thins the group out to one member, which is not written;
    // each phase ends at 100, matching only once. Many identical images would form one big group: a
    // stop during matching or ORB leaves it smaller, only tasks already under way may still report,
    // and the run finishes once. Loading with the stop flag set leaves every record untouched.
    void wholeRun_data() { addRows(u"ORB bar 20;ORB bar 101;stop at phase 3;stop at phase 4"_s); }
    void wholeRun()
    {
        QFETCH(QString, input);
        const int features = input.startsWith(u"ORB"_s) ? input.section(u' ', -1).toInt() : 10;
        const int stopPhase = input.startsWith(u"stop"_s) ? input.section(u' ', -1).toInt() : 0;
        TFileData::instance().clear();
        // ORB needs room for its border, so only matching stops on small images.
        QStringList images;
        for (int k = 0; k < (stopPhase == 3 ? 300 : stopPhase ? 40 : 3); ++k)
            images << writeTexture(u"s%1.png"_s.arg(k), stopPhase ? 9 : 3 + k / 2, stopPhase == 3 ? 64 : 256);
        const QString e = writeTexture(u"e.png"_s, 3), e2 = writeTexture(u"e2.png"_s, 3);
        TFileData::instance().addDuplicateGroup(groupKey(e), {e, e2});
        ImageCompareThread t;
        QList<ImageData> unloaded;
        t.setInput(images.mid(0, 1), {});
        t.stop();
        t.loadImages(unloaded);
        QVERIFY(unloaded.size() == 1 && !unloaded[0].loaded);
        // The first report of the phase stops the run.
        std::atomic<int> stoppedAt{-1}, afterStop{0};
        const auto stopper = [&](int type, int p) {
            int none = -1;
            if (type == stopPhase && p < 100)
                stoppedAt.compare_exchange_strong(none, p) ? t.stop() : void(++afterStop);
        };
        connect(&t, &ImageCompareThread::progressChanged, &t, stopper, Qt::DirectConnection);
        // Progress as "phase:percent", the end as "done count size".
        QStringList out;
        connect(&t, &ImageCompareThread::progressChanged, &t,
                [&](int a, int b) { out << u"%1:%2"_s.arg(a).arg(b); });
        connect(&t, &ImageCompareThread::finished, &t,
                [&](int a, qint64 b) { out << u"done %1 %2"_s.arg(a).arg(b); });
        t.similarityValue = 0.9f;
        t.featuresValue = float(features) / 100.f;
        t.algorithmHint = stopPhase ? ImageCompareThread::HashAlgorithm : ImageCompareThread::SmartAlgorithm;
        t.setInput(images, {{groupKey(e), {e, e2}}});
        t.start();
        QVERIFY(t.wait(120000));
        QCoreApplication::sendPostedEvents();
        QVERIFY(out.last().startsWith(u"done"_s) && out.filter(u"done"_s).size() == 1);
        const QString log = logText();
        if (stopPhase) {
            QVERIFY(stoppedAt.load() >= 0 && out.last().section(u' ', 1, 1).toInt() < images.size());
            QVERIFY2(afterStop.load() <= 4, qPrintable(QString::number(afterStop.load())));
            QVERIFY(log.contains(u"[TImageCompareThread]: Hash matching process completed. Time taken: ["_s));
            return;
        }
        const bool kept = features <= 100;
        QCOMPARE(out.last(), u"done %1 %2"_s.arg(kept ? 2 : 0).arg(kept ? QFileInfo(e).size() * 2 : 0));
        const QStringList joined{images[0] + u"_simlar_99"_s, images[1] + u"_simlar_99"_s};
        QCOMPARE(TFileData::instance().duplicateGroups.value(groupKey(e)),
                 QStringList({e, e2}) + (kept ? joined : QStringList()));
        QVERIFY(out.contains(u"2:100"_s) && out.contains(u"4:100"_s) && out.count(u"3:100"_s) == 1);
        for (const QString &line :
             {u"[TImageCompareThread]: Start loading image data, number of images [4]..."_s,
              u"[TImageCompareThread]: Histogram matching process completed. Time taken: ["_s,
              u"[TImageCompareThread]: Start OBR special symptom point deduplication. Quantity: [1]..."_s})
            QVERIFY2(log.contains(line), qPrintable(line));
    }
};

TWINFOLD_TEST_MAIN(TestImageCompareThread)
#include "tst_imagecomparethread.moc"
