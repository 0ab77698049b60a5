#include "TestMain.h"

#include "scan/DuplicateFileFinder.h"
#include "scan/TFileData.h"

#include <QCryptographicHash>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <xxhash.h>

#include <sys/stat.h>

using namespace Qt::StringLiterals;
using Groups = QList<QStringList>;

namespace {
QByteArray randomBytes(qint64 size, quint32 seed)
{
    QByteArray data(size, Qt::Uninitialized);
    QRandomGenerator rng(seed);
    for (char &c : data)
        c = char(rng.bounded(256));
    return data;
}

void writeFile(const QString &path, const QByteArray &data)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(data), data.size());
}

QByteArray hex(XXH64_hash_t h)
{
    return QByteArray::fromStdString(QString::asprintf("%016llx", qulonglong(h)).toStdString());
}

// Input in the given order, bucketed by the size each file has now.
SizeGroups bucketsOf(const QStringList &paths, int driveType = SolidState)
{
    SizeGroups groups;
    for (const QString &path : paths) {
        const qint64 size = QFileInfo(path).size();
        groups[size].append({size, path, driveType});
    }
    return groups;
}

Groups sorted(Groups groups)
{
    for (QStringList &g : groups)
        g.sort();
    std::sort(groups.begin(), groups.end());
    return groups;
}

// The reference: files of one size that are byte-for-byte equal.
Groups bruteForceGroups(const QStringList &paths)
{
    QMap<QPair<qint64, QByteArray>, QStringList> byContent;
    for (const QString &path : paths) {
        QFile file(path);
        if (file.open(QIODevice::ReadOnly) && file.size() > 0)
            byContent[{file.size(), file.readAll()}].append(path);
    }
    Groups groups;
    for (const QStringList &g : std::as_const(byContent))
        if (g.size() >= 2)
            groups.append(g);
    return sorted(groups);
}

void run(DuplicateFileFinder &finder, const SizeGroups &input, int method, bool folders = false)
{
    finder.setInput(input, {});
    finder.setConfig(
        {{u"scanMethod"_s, method}, {u"scanDupDirectory"_s, folders}, {u"duplicateSelectHint"_s, 8}});
    finder.start();
    QVERIFY(finder.wait());
    // Released at the end of the run; read first, as the accessors order us after the run.
    QVERIFY(finder.dirStats().isEmpty());
}
} // namespace

class TestDuplicateFileFinder : public QObject
{
    Q_OBJECT
private slots:
    void init() { TFileData::instance().clear(); }

    void keys_data()
    {
        QTest::addColumn<int>("method");
        QTest::addColumn<qint64>("size");
        QTest::addColumn<QList<qint64>>("changedBytes");
        QTest::addColumn<bool>("equal");
        QTest::addColumn<int>("drive");
        for (int drive : {int(SolidState), int(OtherBus)}) {
            const QByteArray how = drive == OtherBus ? ", read" : ", mapped";
            auto row = [&](const char *name) -> QTestData & {
                return QTest::newRow(QByteArray(name + how).constData());
            };
            using Bytes = QList<qint64>;
            row("sampled 12288, byte 5000") << 0 << 12288LL << Bytes{5000} << false << drive;
            row("sampled 12289, unsampled byte") << 0 << 12289LL << Bytes{8192} << true << drive;
            row("content 12289, unsampled byte") << 2 << 12289LL << Bytes{8192} << false << drive;
            row("sampled 1 byte") << 0 << 1LL << Bytes{0} << false << drive;
            row("sampled big, equal") << 0 << 100000LL << Bytes{} << true << drive;
            row("sampled big, end of first block") << 0 << 100000LL << Bytes{4095} << false << drive;
            row("sampled big, middle") << 0 << 100000LL << Bytes{50000} << false << drive;
            row("sampled big, last byte") << 0 << 100000LL << Bytes{99999} << false << drive;
            row("sampled big, between blocks")
                << 0 << 100000LL << Bytes{4096, 47951, 52048, 95903} << true << drive;
            row("content big, one byte") << 2 << 300000LL << Bytes{150001} << false << drive;
            row("name, other content") << 1 << 5000LL << Bytes{10} << true << drive;
        }
    }

    void keys()
    {
        QFETCH(int, method);
        QFETCH(qint64, size);
        QFETCH(QList<qint64>, changedBytes);
        QFETCH(bool, equal);
        QFETCH(int, drive);
        QTemporaryDir dir;
        const QByteArray a = randomBytes(size, quint32(size));
        QByteArray b = a;
        for (qint64 at : changedBytes)
            b[at] = char(b[at] ^ 0x5a);
        writeFile(dir.filePath(u"a/f.bin"_s), a);
        writeFile(dir.filePath(u"b/f.bin"_s), b);
        const QByteArray keyA =
            DuplicateFileFinder::calculateFileHash(method, dir.filePath(u"a/f.bin"_s), size, drive);
        const QByteArray keyB =
            DuplicateFileFinder::calculateFileHash(method, dir.filePath(u"b/f.bin"_s), size, drive);
        QCOMPARE(keyA == keyB, equal);

        QByteArray expected;
        if (method == 1) {
            expected = QCryptographicHash::hash("f.bin", QCryptographicHash::Md5).toHex().toUpper();
        } else if (method == 2 || size <= 12288) {
            expected = hex(XXH3_64bits(a.constData(), size_t(a.size())));
        } else {
            const qint64 middle = size / 2 - 2048;
            const QByteArray blocks = a.left(4096) + a.mid(middle, 4096) + a.right(4096);
            expected = hex(XXH3_64bits(blocks.constData(), size_t(blocks.size())));
        }
        QCOMPARE(keyA, expected);
    }

    void keyIsZeroPadded()
    {
        QTemporaryDir dir;
        QByteArray data;
        for (quint32 seed = 1; data.isEmpty() || XXH3_64bits(data.constData(), 64) >= (1ULL << 60); ++seed)
            data = randomBytes(64, seed);
        writeFile(dir.filePath(u"z"_s), data);
        const QByteArray key =
            DuplicateFileFinder::calculateFileHash(0, dir.filePath(u"z"_s), 64, SolidState);
        QCOMPARE(key, hex(XXH3_64bits(data.constData(), 64)));
        QVERIFY(key.startsWith('0'));
    }

    void badAndGrownFiles_data()
    {
        QTest::addColumn<int>("method");
        QTest::addColumn<int>("drive");
        for (int method : {0, 1, 2})
            for (int drive : {int(SolidState), int(OtherBus)})
                QTest::addRow("method %d drive %d", method, drive) << method << drive;
    }

    void badAndGrownFiles()
    {
        QFETCH(int, method);
        QFETCH(int, drive);
        QTemporaryDir dir;
        writeFile(dir.filePath(u"empty"_s), {});
        writeFile(dir.filePath(u"shrunk"_s), randomBytes(15000, 1));
        QVERIFY(::mkfifo(QFile::encodeName(dir.filePath(u"pipe"_s)).constData(), 0600) == 0);
        const QList<QPair<QString, qint64>> bad = {
            {dir.filePath(u"missing"_s), 100},  {dir.path(), 4096},
            {dir.filePath(u"empty"_s), 0},      {dir.filePath(u"empty"_s), 100},
            {dir.filePath(u"shrunk"_s), 20000}, {dir.filePath(u"pipe"_s), 100}};
        for (const auto &[path, size] : bad)
            QVERIFY2(DuplicateFileFinder::calculateFileHash(method, path, size, drive).isEmpty(),
                     qPrintable(path));
        // A grown file is sampled over the length the walk saw, so it still meets its former
        // equals; by name or whole content it no longer is what the walk saw.
        for (qint64 size : {10000, 40000}) {
            const QString path = dir.filePath(u"grown%1"_s.arg(size));
            const QByteArray data = randomBytes(size, 7);
            writeFile(path, data);
            const QByteArray before = DuplicateFileFinder::calculateFileHash(0, path, size, drive);
            QVERIFY(!before.isEmpty());
            writeFile(path, data + randomBytes(9000, 8));
            QCOMPARE(DuplicateFileFinder::calculateFileHash(method, path, size, drive),
                     method == 0 ? before : QByteArray());
        }
    }

    void groupsEqualByteComparison_data()
    {
        QTest::addColumn<int>("method");
        QTest::addColumn<int>("drive");
        QTest::addColumn<QList<qint64>>("sizes");
        const QList<qint64> small{0, 1, 7, 4096, 12288};
        const QList<qint64> large{0, 3, 12289, 65536, 65537, 200000};
        QTest::newRow("sampled, small files") << 0 << int(SolidState) << small;
        QTest::newRow("content, mapped") << 2 << int(SolidState) << large;
        QTest::newRow("content, streamed") << 2 << int(OtherBus) << large;
    }

    void groupsEqualByteComparison()
    {
        QFETCH(int, method);
        QFETCH(int, drive);
        QFETCH(QList<qint64>, sizes);
        QTemporaryDir dir;
        QRandomGenerator rng(42);
        QStringList paths;
        for (int i = 0; i < 60; ++i) {
            const qint64 size = sizes.at(rng.bounded(int(sizes.size())));
            QByteArray data = randomBytes(size, quint32(size * 4 + rng.bounded(3)));
            if (size > 0 && rng.bounded(4) == 0)
                data[rng.bounded(int(size))] ^= 1;
            paths.append(dir.filePath(u"d%1/f%2.bin"_s.arg(rng.bounded(3)).arg(i)));
            writeFile(paths.last(), data);
        }
        const Groups expected = bruteForceGroups(paths);
        QVERIFY(expected.size() >= 5);

        DuplicateFileFinder finder;
        QSignalSpy progress(&finder, &DuplicateFileFinder::progressUpdated);
        QSignalSpy found(&finder, &DuplicateFileFinder::onFindItem);
        run(finder, bucketsOf(paths, drive), method);

        const auto &stored = TFileData::instance().duplicateGroups;
        QCOMPARE(sorted(stored.values()), expected);
        qint64 files = 0, bytes = 0;
        for (auto it = stored.cbegin(); it != stored.cend(); ++it) {
            // Keyed by the MD5 of the member that came first in the input.
            QCOMPARE(it.value().first(),
                     *std::min_element(it.value().cbegin(), it.value().cend(), [&](auto &x, auto &y) {
                         return paths.indexOf(x) < paths.indexOf(y);
                     }));
            QCOMPARE(it.key().toLatin1(),
                     QCryptographicHash::hash(it.value().first().toUtf8(), QCryptographicHash::Md5)
                         .toHex()
                         .toUpper());
            files += it.value().size();
            bytes += it.value().size() * QFileInfo(it.value().first()).size();
        }
        QCOMPARE(found.last(), (QVariantList{int(files), bytes}));
        double last = -1;
        for (const QVariantList &report : std::as_const(progress)) {
            QCOMPARE(report.at(0).toInt(), 0);
            QVERIFY(report.at(1).toDouble() >= last);
            last = report.at(1).toDouble();
        }
        QCOMPARE(last, 100.0);
        // The bucket that completes the pass reports 100 itself, before the closing report.
        QVERIFY(progress.size() >= 2);
        QCOMPARE(progress.at(progress.size() - 2).at(1).toDouble(), 100.0);
    }

    void vanishedAndRepeatedFiles_data()
    {
        QTest::addColumn<QStringList>("input");
        QTest::addColumn<QStringList>("deleted");
        QTest::addColumn<QStringList>("group");
        QTest::addColumn<QList<int>>("methods");
        const auto row = [](const char *name, const QStringList &input, const QStringList &deleted,
                            const QStringList &group, const QList<int> &methods = {0, 2}) {
            QTest::newRow(name) << input << deleted << group << methods;
        };
        const QStringList three{u"x1"_s, u"x2"_s, u"x3"_s};
        row("deleted after the walk", three, {u"x2"_s}, {u"x1"_s, u"x3"_s});
        row("only one left", three, {u"x1"_s, u"x3"_s}, {});
        row("shrank after the walk", three, {u"~x1"_s, u"~x2"_s}, {});
        row("same path twice", {u"x1"_s, u"x1"_s}, {}, {}, {0, 1, 2});
        row("link to a listed file", {u"x1"_s, u"link"_s}, {}, {});
        row("repeat beside a copy", {u"x1"_s, u"x2"_s, u"x1"_s}, {}, {u"x1"_s, u"x2"_s});
        row("same name, other content", {u"x1"_s, u"other/x1"_s}, {}, {u"x1"_s, u"other/x1"_s}, {1});
    }

    void vanishedAndRepeatedFiles()
    {
        QFETCH(QStringList, input);
        QFETCH(QStringList, deleted);
        QFETCH(QStringList, group);
        QFETCH(QList<int>, methods);
        QTemporaryDir dir;
        const QByteArray data = randomBytes(30000, 3);
        for (const char *name : {"x1", "x2", "x3"})
            writeFile(dir.filePath(QLatin1String(name)), data);
        writeFile(dir.filePath(u"other/x1"_s), randomBytes(30000, 4));
        QVERIFY(QFile::link(dir.filePath(u"x1"_s), dir.filePath(u"link"_s)));
        QStringList paths;
        for (const QString &name : std::as_const(input))
            paths.append(dir.filePath(name));
        const SizeGroups buckets = bucketsOf(paths);
        for (const QString &name : std::as_const(deleted)) // "~name" shrinks the file instead
            QVERIFY(name.startsWith(u'~') ? QFile::resize(dir.filePath(name.mid(1)), 100)
                                          : QFile::remove(dir.filePath(name)));

        for (int method : std::as_const(methods)) {
            TFileData::instance().clear();
            DuplicateFileFinder finder;
            run(finder, buckets, method);
            QStringList expected;
            for (const QString &name : std::as_const(group))
                expected.append(dir.filePath(name));
            QCOMPARE(TFileData::instance().duplicateGroups.values(),
                     expected.isEmpty() ? Groups{} : Groups{expected});
        }
    }

    void uniqueImages()
    {
        QTemporaryDir dir;
        // name, size, content seed: a/b differ, c/d are copies, f is e's copy deleted before the run.
        const QList<std::tuple<const char *, int, int>> files{
            {"a.png", 500, 1}, {"b.png", 500, 2}, {"c.jpg", 600, 3}, {"d.jpg", 600, 3},
            {"e.jpg", 700, 4}, {"f.jpg", 700, 4}, {"g.txt", 800, 5}};
        QStringList paths;
        for (const auto &[name, size, seed] : files) {
            paths.append(dir.filePath(QLatin1String(name)));
            writeFile(paths.last(), randomBytes(size, quint32(seed)));
        }
        SizeGroups input = bucketsOf(paths);
        const QString never = dir.filePath(u"never/existed.jpg"_s);
        input[12345].append({12345, never, SolidState});
        input[99].append({99, dir.filePath(u"missing.txt"_s), SolidState});
        QVERIFY(QFile::remove(paths.at(5)));

        DuplicateFileFinder finder;
        run(finder, input, 0);
        QStringList images = finder.uniqueImages();
        images.sort();
        QCOMPARE(images, (QStringList{paths.at(0), paths.at(1), paths.at(4), never}));
        QCOMPARE(TFileData::instance().duplicateGroups.values(), (Groups{{paths.at(2), paths.at(3)}}));
    }

    void stopKeepsOnlyTrueGroups()
    {
        QTemporaryDir dir;
        QStringList paths;
        for (int i = 0; i < 400; ++i) {
            paths.append(dir.filePath(u"d%1/f%2"_s.arg(i % 7).arg(i)));
            writeFile(paths.last(), randomBytes(2000 + i % 150, quint32(i % 150 + (i >= 300 ? 1000 : 0))));
        }
        const Groups all = bruteForceGroups(paths);
        const SizeGroups input = bucketsOf(paths);
        // -1: stop before the thread even runs, which must end at 0 with nothing stored.
        for (int delayMs : {-1, 0, 1, 3, 10, 30}) {
            TFileData::instance().clear();
            DuplicateFileFinder finder;
            QSignalSpy progress(&finder, &DuplicateFileFinder::progressUpdated);
            QSignalSpy finished(&finder, &DuplicateFileFinder::scanFinished);
            finder.setInput(input, paths);
            finder.setConfig({{u"scanMethod"_s, delayMs % 2 ? 0 : 2}, {u"scanDupDirectory"_s, true}});
            finder.start();
            if (delayMs >= 0)
                QThread::msleep(ulong(delayMs));
            finder.stop();
            QVERIFY(finder.wait());
            QVERIFY(finder.dirStats().isEmpty());
            QCOMPARE(finished.size(), 1);
            // Either the stop arrived in time and the run ends at 0, or it had finished at 100.
            const double last = progress.last().at(1).toDouble();
            QVERIFY(last == 0.0 || (delayMs >= 0 && last == 100.0));
            for (const QStringList &group : sorted(TFileData::instance().duplicateGroups.values()))
                QVERIFY(all.contains(group));
            if (delayMs < 0)
                QVERIFY(TFileData::instance().duplicateGroups.isEmpty() &&
                        TFileData::instance().folderGroups.isEmpty());
        }
        // Destroying a running finder stops it and waits.
        auto *finder = new DuplicateFileFinder;
        finder->setInput(input, paths);
        finder->start();
        delete finder;
    }
};

TWINFOLD_TEST_MAIN(TestDuplicateFileFinder)
#include "tst_duplicatefilefinder.moc"
