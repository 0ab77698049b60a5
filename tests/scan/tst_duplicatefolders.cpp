#include "TestMain.h"

#include "scan/DuplicateFileFinder.h"
#include "scan/TFileData.h"

#include <QCryptographicHash>
#include <QSignalSpy>
#include <QTemporaryDir>

using namespace Qt::StringLiterals;
using Groups = QList<QStringList>;

namespace {
// A tree is a list of "folder/name=letter": files with one letter have equal bytes,
// and every letter has its own size.
QByteArray contentOf(QChar letter)
{
    return QByteArray(3000 + 7 * (letter.unicode() - 'a'), char(letter.unicode()));
}

QStringList buildTree(const QTemporaryDir &dir, const QStringList &tree)
{
    QStringList paths;
    for (const QString &entry : tree) {
        const QString path = dir.filePath(entry.section(u'=', 0, 0));
        QDir().mkpath(QFileInfo(path).absolutePath());
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(contentOf(entry.back())) < 0)
            return {};
        paths.append(path);
    }
    return paths;
}

SizeGroups bucketsOf(const QStringList &paths)
{
    SizeGroups groups;
    for (const QString &path : paths)
        groups[QFileInfo(path).size()].append({QFileInfo(path).size(), path, SolidState});
    return groups;
}
} // namespace

class TestDuplicateFolders : public QObject
{
    Q_OBJECT
private slots:
    void init() { TFileData::instance().clear(); }
    void folderGroups_data();
    void folderGroups();
    void fullRunReportsFolderPhase_data();
    void fullRunReportsFolderPhase();
};

void TestDuplicateFolders::folderGroups_data()
{
    QTest::addColumn<QStringList>("tree");
    QTest::addColumn<Groups>("folderGroups");
    QTest::addColumn<QString>("survivingLetters");
    const QStringList twins{u"A/x=x"_s, u"A/y=y"_s, u"A/z=z"_s, u"B/x=x"_s, u"B/y=y"_s, u"B/z=z"_s};
    QTest::newRow("same three files") << twins << Groups{{u"A"_s, u"B"_s}} << QString();
    QTest::newRow("one extra unique file") << twins + QStringList{u"A/u=u"_s} << Groups{} << u"xyz"_s;
    QTest::newRow("hidden file does not count")
        << twins + QStringList{u"A/.h=u"_s} << Groups{{u"A"_s, u"B"_s}} << QString();
    QTest::newRow("subfolders play no part")
        << twins + QStringList{u"A/s/v=v"_s, u"B/s/w=w"_s} << Groups{{u"A"_s, u"B"_s}} << QString();
    QTest::newRow("subfolders match on their own")
        << twins + QStringList{u"A/s/v=v"_s, u"B/s/v=v"_s} << Groups{{u"A"_s, u"B"_s}, {u"A/s"_s, u"B/s"_s}}
        << QString();
    QTest::newRow("two copies differ from one")
        << QStringList{u"A/x1=x"_s, u"A/x2=x"_s, u"A/y=y"_s, u"B/x=x"_s, u"B/y1=y"_s, u"B/y2=y"_s} << Groups{}
        << u"xy"_s;
    QTest::newRow("two copies match two copies")
        << QStringList{u"A/x1=x"_s, u"A/x2=x"_s, u"A/y=y"_s, u"C/x=x"_s, u"C/xx=x"_s, u"C/y=y"_s}
        << Groups{{u"A"_s, u"C"_s}} << QString();
    QTest::newRow("copies outside the folders go too")
        << QStringList{u"A/x=x"_s, u"A/y=y"_s, u"B/x=x"_s, u"B/y=y"_s, u"C/x=x"_s,
                       u"C/u=u"_s, u"D/z=z"_s, u"E/z=z"_s, u"E/y=y"_s}
        << Groups{{u"A"_s, u"B"_s}} << u"z"_s;
    QTest::newRow("single folder of copies") << QStringList{u"A/x1=x"_s, u"A/x2=x"_s} << Groups{} << u"x"_s;
}

void TestDuplicateFolders::folderGroups()
{
    QFETCH(QStringList, tree);
    QFETCH(Groups, folderGroups);
    QFETCH(QString, survivingLetters);
    QTemporaryDir dir;
    const QStringList paths = buildTree(dir, tree);
    QCOMPARE(paths.size(), tree.size());

    DuplicateFileFinder finder;
    finder.setInput(bucketsOf(paths), paths);
    finder.setConfig({{u"scanMethod"_s, 2}, {u"scanDupDirectory"_s, true}, {u"duplicateSelectHint"_s, 8}});
    finder.processDuplicates();

    // Every duplicate file is counted in its own folder, and nothing else is.
    auto &store = TFileData::instance();
    QHash<QString, DirStat> expectedStats;
    for (auto it = store.duplicateGroups.cbegin(); it != store.duplicateGroups.cend(); ++it) {
        store.setSelected(it.key(), it.value().mid(1));
        for (const QString &path : it.value()) {
            DirStat &stat = expectedStats[QFileInfo(path).absolutePath()];
            ++stat.fileCount;
            stat.totalSize += QFileInfo(path).size();
            stat.groupKeys.append(it.key());
        }
    }
    const QHash<QString, DirStat> stats = finder.dirStats();
    QCOMPARE(stats.keys().size(), expectedStats.size());
    for (auto it = expectedStats.cbegin(); it != expectedStats.cend(); ++it) {
        QCOMPARE(stats.value(it.key()).fileCount, it->fileCount);
        QCOMPARE(stats.value(it.key()).totalSize, it->totalSize);
        QStringList keys = stats.value(it.key()).groupKeys;
        QStringList expectedKeys = it->groupKeys;
        keys.sort();
        expectedKeys.sort();
        QCOMPARE(keys, expectedKeys);
    }

    finder.processDirectories();
    QCOMPARE(store.folderGroups.size(), folderGroups.size());
    for (const QStringList &folders : std::as_const(folderGroups)) {
        const QString first = dir.filePath(folders.first());
        const QString key = QString::fromLatin1(
            QCryptographicHash::hash(first.toUtf8(), QCryptographicHash::Md5).toHex().toUpper());
        QVERIFY2(store.folderGroups.contains(key), qPrintable(folders.join(u',')));
        const FolderRecords records = store.folderGroups.value(key);
        QCOMPARE(records.size(), folders.size());
        for (qsizetype i = 0; i < folders.size(); ++i) {
            const QString folder = dir.filePath(folders.at(i));
            QCOMPARE(records.at(i).folderPath, folder);
            QCOMPARE(records.at(i).fileCount, stats.value(folder).fileCount);
            QCOMPARE(records.at(i).totalSize, stats.value(folder).totalSize);
        }
    }
    QString letters;
    for (const QStringList &group : std::as_const(store.duplicateGroups)) {
        QFile first(group.first());
        QVERIFY(first.open(QIODevice::ReadOnly));
        letters += QLatin1Char(first.read(1).at(0));
    }
    std::sort(letters.begin(), letters.end());
    QCOMPARE(letters, survivingLetters);
    QCOMPARE(QSet<QString>(store.selectedFiles.keyBegin(), store.selectedFiles.keyEnd()),
             QSet<QString>(store.duplicateGroups.keyBegin(), store.duplicateGroups.keyEnd()));
}

void TestDuplicateFolders::fullRunReportsFolderPhase_data()
{
    QTest::addColumn<bool>("folders");
    QTest::newRow("folders on") << true;
    QTest::newRow("folders off") << false;
}

void TestDuplicateFolders::fullRunReportsFolderPhase()
{
    QFETCH(bool, folders);
    QTemporaryDir dir;
    const QStringList paths = buildTree(dir, {u"A/x=x"_s, u"A/y=y"_s, u"B/x=x"_s, u"B/y=y"_s, u"C/x=x"_s});
    DuplicateFileFinder finder;
    QSignalSpy progress(&finder, &DuplicateFileFinder::progressUpdated);
    finder.setInput(bucketsOf(paths), paths);
    finder.setConfig({{u"scanMethod"_s, 0}, {u"scanDupDirectory"_s, folders}, {u"duplicateSelectHint"_s, 8}});
    finder.start();
    QVERIFY(finder.wait());
    QVERIFY(finder.dirStats().isEmpty());
    QCOMPARE(TFileData::instance().folderGroups.size(), folders ? 1 : 0);
    QCOMPARE(TFileData::instance().duplicateGroups.size(), folders ? 0 : 2);
    QList<double> folderPhase;
    for (const QVariantList &report : std::as_const(progress))
        if (report.at(0).toInt() == 1)
            folderPhase.append(report.at(1).toDouble());
    QCOMPARE(folderPhase.isEmpty(), !folders);
    QVERIFY(std::is_sorted(folderPhase.cbegin(), folderPhase.cend()));
    if (folders)
        QCOMPARE(folderPhase.last(), 100.0);
}

TWINFOLD_TEST_MAIN(TestDuplicateFolders)
#include "tst_duplicatefolders.moc"
