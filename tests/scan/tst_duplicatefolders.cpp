#include "TestMain.h"

#include "scan/DuplicateFileFinder.h"
#include "scan/TFileData.h"

#include <QCryptographicHash>
#include <QSignalSpy>

using namespace Qt::StringLiterals;

namespace {
// A tree is ';'-separated "folder/name=letter": files with one letter have equal bytes, and
// every letter has its own size.
QStringList buildTree(const QTemporaryDir &dir, const QString &tree)
{
    QStringList paths;
    for (const QString &entry : tree.split(u';')) {
        const QString path = dir.filePath(entry.section(u'=', 0, 0));
        QDir().mkpath(QFileInfo(path).absolutePath());
        QFile file(path);
        const char letter = char(entry.back().unicode());
        if (!file.open(QIODevice::WriteOnly) || file.write(QByteArray(3000 + 7 * (letter - 'a'), letter)) < 0)
            return {};
        paths.append(path);
    }
    return paths;
}

SizeGroups bucketsOf(const QStringList &paths)
{
    SizeGroups groups;
    for (const QString &path : paths)
        groups[QFileInfo(path).size()].append({QFileInfo(path).size(), path.toUtf8(), SolidState});
    return groups;
}
} // namespace

class TestDuplicateFolders : public QObject
{
    Q_OBJECT
private slots:
    void init() { TFileData::instance().clear(); }

    // Folder groups are '|'-separated, each a ','-separated list of folders; the letters are
    // those of the file groups left once the folders are grouped.
    void folderGroups_data()
    {
        QTest::addColumn<QString>("tree");
        QTest::addColumn<QString>("folderGroups");
        QTest::addColumn<QString>("survivingLetters");
        const auto row = [](const char *name, const QString &tree, const char *groups, const char *letters) {
            QTest::newRow(name) << tree << QString::fromLatin1(groups) << QString::fromLatin1(letters);
        };
        const QString twins = u"A/x=x;A/y=y;A/z=z;B/x=x;B/y=y;B/z=z"_s;
        row("same three files", twins, "A,B", "");
        row("one extra unique file", twins + u";A/u=u"_s, "", "xyz");
        row("hidden file does not count", twins + u";A/.h=u"_s, "A,B", "");
        row("subfolders play no part", twins + u";A/s/v=v;B/s/w=w"_s, "A,B", "");
        row("subfolders match on their own", twins + u";A/s/v=v;B/s/v=v"_s, "A,B|A/s,B/s", "");
        row("two copies differ from one", u"A/x1=x;A/x2=x;A/y=y;B/x=x;B/y1=y;B/y2=y"_s, "", "xy");
        row("two copies match two copies", u"A/x1=x;A/x2=x;A/y=y;C/x=x;C/xx=x;C/y=y"_s, "A,C", "");
        row("copies outside the folders go too", u"A/x=x;A/y=y;B/x=x;B/y=y;C/x=x;C/u=u;D/z=z;E/z=z;E/y=y"_s,
            "A,B", "z");
        row("single folder of copies", u"A/x1=x;A/x2=x"_s, "", "x");
    }
    void folderGroups()
    {
        QFETCH(QString, tree);
        QFETCH(QString, folderGroups);
        QFETCH(QString, survivingLetters);
        QTemporaryDir dir;
        const QStringList paths = buildTree(dir, tree);
        QCOMPARE(paths.size(), tree.count(u';') + 1);
        DuplicateFileFinder finder;
        finder.setInput(bucketsOf(paths), {});
        finder.setConfig(
            {{u"scanMethod"_s, 2}, {u"scanDupDirectory"_s, true}, {u"duplicateSelectHint"_s, 8}});
        finder.processDuplicates();

        // Every duplicate file is counted in its own folder, under its group, and nothing else is.
        auto &store = TFileData::instance();
        QHash<QString, QList<qint64>> figures; // folder: files, bytes
        for (auto it = store.duplicateGroups.cbegin(); it != store.duplicateGroups.cend(); ++it) {
            store.setSelected(it.key(), it.value().mid(1));
            for (const QString &path : it.value()) {
                QList<qint64> &f = figures[QFileInfo(path).absolutePath()];
                f = {f.value(0) + 1, f.value(1) + QFileInfo(path).size()};
            }
        }
        const QHash<QString, DirStat> stats = finder.dirStats();
        QCOMPARE(stats.size(), figures.size());
        for (auto it = stats.cbegin(); it != stats.cend(); ++it) {
            QCOMPARE(QList<qint64>({it->fileCount, it->totalSize}), figures.value(it.key()));
            QCOMPARE(it->groupKeys.size(), it->fileCount);
        }

        // A folder group is keyed by the MD5 of its first folder and records each folder's figures.
        finder.processDirectories();
        QStringList groups;
        for (auto it = store.folderGroups.cbegin(); it != store.folderGroups.cend(); ++it) {
            QStringList folders;
            for (const FolderRecord &record : *it) {
                QCOMPARE(QList<qint64>({record.fileCount, record.totalSize}),
                         figures.value(record.folderPath));
                folders.append(QDir(dir.path()).relativeFilePath(record.folderPath));
            }
            const QByteArray md5 =
                QCryptographicHash::hash(it->constFirst().folderPath.toUtf8(), QCryptographicHash::Md5);
            QCOMPARE(it.key(), QString::fromLatin1(md5.toHex().toUpper()));
            groups.append(folders.join(u','));
        }
        groups.sort();
        QCOMPARE(groups.join(u'|'), folderGroups);
        QString letters; // told apart by their sizes
        for (const QStringList &group : std::as_const(store.duplicateGroups))
            letters += QChar(char16_t(u'a' + (QFileInfo(group.first()).size() - 3000) / 7));
        std::sort(letters.begin(), letters.end());
        QCOMPARE(letters, survivingLetters);
        QCOMPARE(QSet<QString>(store.selectedFiles.keyBegin(), store.selectedFiles.keyEnd()),
                 QSet<QString>(store.duplicateGroups.keyBegin(), store.duplicateGroups.keyEnd()));
    }

    void fullRunReportsFolderPhase_data()
    {
        QTest::addColumn<bool>("folders");
        QTest::newRow("folders on") << true;
        QTest::newRow("folders off") << false;
    }
    void fullRunReportsFolderPhase()
    {
        QFETCH(bool, folders);
        QTemporaryDir dir;
        const QStringList paths = buildTree(dir, u"A/x=x;A/y=y;B/x=x;B/y=y;C/x=x"_s);
        DuplicateFileFinder finder;
        QSignalSpy progress(&finder, &DuplicateFileFinder::progressUpdated);
        finder.setInput(bucketsOf(paths), {});
        finder.setConfig(
            {{u"scanMethod"_s, 0}, {u"scanDupDirectory"_s, folders}, {u"duplicateSelectHint"_s, 8}});
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
        QCOMPARE(folderPhase.value(folderPhase.size() - 1, 100.0), 100.0);
    }
};

TWINFOLD_TEST_MAIN(TestDuplicateFolders)
#include "tst_duplicatefolders.moc"
