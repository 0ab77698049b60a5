#include "TestMain.h"

#include "platform/ReadOnlyFile.h"
#include "scan/DuplicateFileFinder.h"
#include "scan/TFileData.h"

#include <QCryptographicHash>
#include <QRandomGenerator>
#include <QSignalSpy>

#include <xxhash.h>

#include <sys/stat.h>

using namespace Qt::StringLiterals;
using Groups = QList<QStringList>;
using Bytes = QList<qint64>;

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

// Input in the given order, bucketed by the size each file has now.
SizeGroups bucketsOf(const QStringList &paths, int driveType = SolidState)
{
    SizeGroups groups;
    for (const QString &path : paths)
        groups[QFileInfo(path).size()].append({QFileInfo(path).size(), path.toUtf8(), driveType});
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
    QMap<QByteArray, QStringList> byContent;
    for (const QString &path : paths) {
        QFile file(path);
        if (file.open(QIODevice::ReadOnly) && file.size() > 0)
            byContent[file.readAll()].append(path);
    }
    Groups groups;
    for (const QStringList &g : std::as_const(byContent))
        if (g.size() >= 2)
            groups.append(g);
    return sorted(groups);
}

void run(DuplicateFileFinder &finder, const SizeGroups &input, int method)
{
    finder.setInput(input, {});
    finder.setConfig(
        {{u"scanMethod"_s, method}, {u"scanDupDirectory"_s, false}, {u"duplicateSelectHint"_s, 8}});
    finder.start();
    QVERIFY(finder.wait());
    // Released at the end of the run; read first, as the accessors order us after the run.
    QVERIFY(finder.dirStats().isEmpty());
}
} // namespace

class TestDuplicateFileFinder : public QObject
{
    Q_OBJECT
    static QByteArray md5(const QString &text)
    {
        return QCryptographicHash::hash(text.toUtf8(), QCryptographicHash::Md5).toHex().toUpper();
    }
    static QByteArray hex(XXH64_hash_t h)
    {
        return QByteArray::number(qulonglong(h), 16).rightJustified(16, '0');
    }

private slots:
    void init() { TFileData::instance().clear(); }

    // Two files of `size` bytes differing at the given bytes: method 0 samples 4 KiB at the
    // start, middle and end of files over 12 KiB, 1 takes the name, 2 the whole content.
    void keys_data()
    {
        QTest::addColumn<int>("method");
        QTest::addColumn<qint64>("size");
        QTest::addColumn<Bytes>("changedBytes");
        QTest::addColumn<bool>("equal");
        QTest::addColumn<int>("drive");
        for (int drive : {int(SolidState), int(OtherBus)}) {
            const auto row = [drive](const char *name, int method, qint64 size, const Bytes &changed,
                                     bool equal) {
                QTest::addRow("%s, %s", name, drive == OtherBus ? "read" : "mapped")
                    << method << size << changed << equal << drive;
            };
            row("sampled 12288, byte 5000", 0, 12288, {5000}, false);
            row("sampled 12289, unsampled byte", 0, 12289, {8192}, true);
            row("content 12289, unsampled byte", 2, 12289, {8192}, false);
            row("sampled 1 byte", 0, 1, {0}, false);
            row("sampled big, end of first block", 0, 100000, {4095}, false);
            row("sampled big, middle", 0, 100000, {50000}, false);
            row("sampled big, last byte", 0, 100000, {99999}, false);
            row("sampled big, between blocks", 0, 100000, {4096, 47951, 52048, 95903}, true);
            row("content big, one byte", 2, 300000, {150001}, false);
            // Around the size read in one piece, where the digest is taken in one call.
            row("content one piece less a byte", 2, 65535, {65534}, false);
            row("content one piece", 2, 65536, {65535}, false);
            row("content one piece and a byte", 2, 65537, {65536}, false);
            row("name, other content", 1, 5000, {10}, true);
        }
    }
    void keys()
    {
        QFETCH(int, method);
        QFETCH(qint64, size);
        QFETCH(Bytes, changedBytes);
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
        QCOMPARE(keyA ==
                     DuplicateFileFinder::calculateFileHash(method, dir.filePath(u"b/f.bin"_s), size, drive),
                 equal);
        const QByteArray sampled =
            method == 2 || size <= 12288 ? a : a.left(4096) + a.mid(size / 2 - 2048, 4096) + a.right(4096);
        QCOMPARE(keyA, method == 1 ? md5(u"f.bin"_s)
                                   : hex(XXH3_64bits(sampled.constData(), size_t(sampled.size()))));
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
        // A file that grows while it is read (after the open took its size) has no whole-
        // content key either, also when its size is a whole number of read pieces.
        for (qint64 size : {10000, 40000, 65536, 131072}) {
            const QString path = dir.filePath(u"grown%1"_s.arg(size));
            const QByteArray data = randomBytes(size, 7);
            writeFile(path, data);
            const QByteArray before = DuplicateFileFinder::calculateFileHash(0, path, size, drive);
            QVERIFY(!before.isEmpty());
            ReadOnlyFile opened;
            QVERIFY(opened.open(path.toUtf8()).isValid());
            writeFile(path, data + randomBytes(9000, 8));
            QCOMPARE(DuplicateFileFinder::calculateFileHash(method, path, size, drive),
                     method == 0 ? before : QByteArray());
            if (method != 1) // names are not read from an open file
                QCOMPARE(DuplicateFileFinder::hashOpenFile(method, opened, path.toUtf8(), size, drive),
                         method == 0 ? before : QByteArray());
        }
    }

    // The input: ';'-separated "name:size:seed", a file of random bytes drawn from the seed ("^n"
    // flips byte n; seed "-" lists a file the walk saw that is not there), "name>target" a link
    // to a file, or a bare name listing a file again. Changed files are removed after the walk,
    // or shrunk when written "~name"; the group "*" is what a byte comparison finds.
    void runs_data()
    {
        QTest::addColumn<QString>("files");
        QTest::addColumn<QString>("changed");
        QTest::addColumn<QString>("group");
        QTest::addColumn<QString>("images");
        QTest::addColumn<QList<int>>("methods");
        QTest::addColumn<int>("drive");
        const auto row = [](const char *name, const QString &files, const char *changed, const char *group,
                            const QList<int> &methods = {0, 2}, const char *images = "",
                            int drive = SolidState) {
            QTest::newRow(name) << files << QString::fromLatin1(changed) << QString::fromLatin1(group)
                                << QString::fromLatin1(images) << methods << drive;
        };
        const QString x = u"x1:30000:3;x2:30000:3;x3:30000:3"_s;
        row("deleted after the walk", x, "x2", "x1,x3");
        row("only one left", x, "x1,x3", "");
        row("shrank after the walk", x, "~x1,~x2", "");
        row("same path twice", u"x1:30000:3;x1"_s, "", "", {0, 1, 2});
        row("link to a listed file", u"x1:30000:3;link>x1"_s, "", "");
        row("repeat beside a copy", u"x1:30000:3;x2:30000:3;x1"_s, "", "x1,x2");
        row("same name, other content", u"x1:30000:3;other/x1:30000:4"_s, "", "x1,other/x1", {1});
        // An image alone in its size, or that could not be read, is unique.
        row("unique images",
            u"a.png:500:1;b.png:500:2;c.jpg:600:3;d.jpg:600:3;e.jpg:700:4;f.jpg:700:4;g.txt:800:5;"
            "never/existed.jpg:12345:-;missing.txt:99:-"_s,
            "f.jpg", "c.jpg,d.jpg", {0}, "a.png,b.png,e.jpg,never/existed.jpg");
        // A bucket too large to be searched in order: every other file alike, plus a second
        // listing and a link, which must not join their own group.
        QString big, bigGroup;
        for (int i = 0; i < 40; ++i) {
            big += u"b/f%1:5000:%2;"_s.arg(i).arg(i % 2 ? 100 + i : 7);
            bigGroup += i % 2 ? QString() : u"b/f%1,"_s.arg(i);
        }
        row("large bucket", big + u"b/f0;b/l>b/f2"_s, "", qPrintable(bigGroup));
        // Sixty files of a few sizes, some equal and some one byte apart, in three folders.
        const Bytes large{0, 3, 12289, 65536, 65537, 200000};
        for (const auto &[name, method, drive, sizes] : QList<std::tuple<const char *, int, int, Bytes>>{
                 {"sampled, small files", 0, SolidState, {0, 1, 7, 4096, 12288}},
                 {"content, mapped", 2, SolidState, large},
                 {"content, streamed", 2, OtherBus, large}}) {
            QRandomGenerator rng(42);
            QString files;
            for (int i = 0; i < 60; ++i) {
                const qint64 size = sizes.at(rng.bounded(int(sizes.size())));
                files += u"d%1/f%2.bin:%3:%4"_s.arg(rng.bounded(3))
                             .arg(i)
                             .arg(size)
                             .arg(size * 4 + rng.bounded(3));
                files += size > 0 && rng.bounded(4) == 0 ? u"^%1;"_s.arg(rng.bounded(int(size))) : u";"_s;
            }
            row(name, files, "", "*", {method}, "", drive);
        }
    }
    void runs()
    {
        QFETCH(QString, files);
        QFETCH(QString, changed);
        QFETCH(QString, group);
        QFETCH(QString, images);
        QFETCH(QList<int>, methods);
        QFETCH(int, drive);
        QTemporaryDir dir;
        QStringList order;
        SizeGroups buckets;
        for (const QString &item : files.split(u';', Qt::SkipEmptyParts)) {
            const QStringList f = item.split(u':');
            const QString path = dir.filePath(f.at(0).section(u'>', 0, 0));
            if (item.contains(u'>')) {
                QVERIFY(QFile::link(dir.filePath(item.section(u'>', 1)), path));
            } else if (f.size() == 3 && f.at(2) != u"-") {
                QByteArray data = randomBytes(f.at(1).toLongLong(), f.at(2).section(u'^', 0, 0).toUInt());
                if (item.contains(u'^'))
                    data[f.at(2).section(u'^', 1).toInt()] ^= 1;
                writeFile(path, data);
            }
            const qint64 size = f.size() == 3 ? f.at(1).toLongLong() : QFileInfo(path).size();
            buckets[size].append({size, path.toUtf8(), drive});
            order.append(path);
        }
        const auto named = [&dir](const QString &names) {
            QStringList out;
            for (const QString &name : names.split(u',', Qt::SkipEmptyParts))
                out.append(dir.filePath(name));
            return out;
        };
        for (const QString &name : changed.split(u',', Qt::SkipEmptyParts))
            QVERIFY(name.startsWith(u'~') ? QFile::resize(dir.filePath(name.mid(1)), 100)
                                          : QFile::remove(dir.filePath(name)));
        const Groups expected = group == u"*"     ? bruteForceGroups(order)
                                : group.isEmpty() ? Groups{}
                                                  : Groups{named(group)};
        QVERIFY(group != u"*" || expected.size() >= 5);

        for (int method : std::as_const(methods)) {
            TFileData::instance().clear();
            DuplicateFileFinder finder;
            QSignalSpy progress(&finder, &DuplicateFileFinder::progressUpdated);
            QSignalSpy found(&finder, &DuplicateFileFinder::onFindItem);
            run(finder, buckets, method);
            const auto &stored = TFileData::instance().duplicateGroups;
            QCOMPARE(sorted(stored.values()), sorted(expected));
            qint64 count = 0, bytes = 0;
            for (auto it = stored.cbegin(); it != stored.cend(); ++it) {
                // In input order, keyed by the MD5 of the member that came first.
                QStringList byInput = it.value();
                std::sort(byInput.begin(), byInput.end(),
                          [&order](auto &a, auto &b) { return order.indexOf(a) < order.indexOf(b); });
                QCOMPARE(it.value(), byInput);
                QCOMPARE(it.key().toLatin1(), md5(byInput.first()));
                count += it.value().size();
                bytes += it.value().size() * QFileInfo(it.value().first()).size();
            }
            QCOMPARE(found.last(), (QVariantList{int(count), bytes}));
            // Rising to 100, which the bucket that completes the pass reports before the closing report.
            QList<double> percents;
            for (const QVariantList &report : std::as_const(progress))
                percents.append(report.at(0).toInt() == 0 ? report.at(1).toDouble() : -1.0);
            QVERIFY(std::is_sorted(percents.cbegin(), percents.cend()) && percents.size() >= 2);
            QCOMPARE(percents.mid(percents.size() - 2), (QList<double>{100.0, 100.0}));
            QStringList unique = finder.uniqueImages(), wanted = named(images);
            unique.sort();
            wanted.sort();
            QCOMPARE(unique, wanted);
        }
    }

    // Stopped at several moments, -1 being before the thread even runs: one finish, progress
    // ending at 0 (or at 100 when the run was over), and only true groups stored.
    void stopKeepsOnlyTrueGroups()
    {
        QTemporaryDir dir;
        QStringList paths;
        for (int i = 0; i < 400; ++i) {
            paths.append(dir.filePath(u"d%1/f%2"_s.arg(i % 7).arg(i)));
            writeFile(paths.last(), randomBytes(2000 + i % 150, quint32(i % 150 + (i >= 300 ? 1000 : 0))));
        }
        const Groups all = bruteForceGroups(paths);
        for (int delayMs : {-1, 0, 1, 3, 10, 30}) {
            TFileData::instance().clear();
            DuplicateFileFinder finder;
            QSignalSpy progress(&finder, &DuplicateFileFinder::progressUpdated);
            QSignalSpy finished(&finder, &DuplicateFileFinder::scanFinished);
            finder.setInput(bucketsOf(paths), {});
            finder.setConfig({{u"scanMethod"_s, delayMs % 2 ? 0 : 2}, {u"scanDupDirectory"_s, true}});
            finder.start();
            if (delayMs >= 0)
                QThread::msleep(ulong(delayMs));
            finder.stop();
            QVERIFY(finder.wait());
            QVERIFY(finder.dirStats().isEmpty());
            QCOMPARE(finished.size(), 1);
            const double last = progress.last().at(1).toDouble();
            QVERIFY(last == 0.0 || (delayMs >= 0 && last == 100.0));
            for (const QStringList &group : sorted(TFileData::instance().duplicateGroups.values()))
                QVERIFY(all.contains(group));
            QVERIFY(delayMs >= 0 || (TFileData::instance().duplicateGroups.isEmpty() &&
                                     TFileData::instance().folderGroups.isEmpty()));
        }
        // Destroying a running finder stops it and waits.
        auto *finder = new DuplicateFileFinder;
        finder->setInput(bucketsOf(paths), {});
        finder->start();
        delete finder;
    }
};

TWINFOLD_TEST_MAIN(TestDuplicateFileFinder)
#include "tst_duplicatefilefinder.moc"
