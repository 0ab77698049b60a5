#include "app/ReadWriteLockGuard.h"
#include "result/TGroupItemBuilder.h"
#include "scan/FileCategory.h"
#include "scan/TFileData.h"

#include "TestMain.h"

#include <QImage>
#include <QtTest>

using namespace Qt::StringLiterals;

class TestGroupItem : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    QString rel(const QString &path) const { return path.mid(m_dir.path().size() + 1); }

    // Member entries under the test folder, ';'-separated: "name:bytes" writes a file, "name:-"
    // leaves it absent, "name/" makes a folder; a ">suffix" part is appended to the entry.
    QStringList makeMembers(const QString &layout)
    {
        QStringList entries;
        for (const QString &desc : layout.split(u';', Qt::SkipEmptyParts)) {
            const QString item = desc.section(u'>', 0, 0), path = m_dir.filePath(item.section(u':', 0, 0));
            QDir().mkpath(item.endsWith(u'/') ? path : QFileInfo(path).path());
            QFile file(path);
            if (!item.endsWith(u'/') && !item.endsWith(u":-") && file.open(QIODevice::WriteOnly))
                file.write(QByteArray(item.section(u':', 1).toInt(), 'z'));
            entries.append(QDir::cleanPath(path) + desc.section(u'>', 1));
        }
        return entries;
    }

private slots:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    void realPath_data()
    {
        QTest::addColumn<QString>("entry");
        QTest::addColumn<QString>("path");
        QTest::addColumn<qint32>("similarity");
        QTest::newRow("marker without number") << u"/x/b.png_simlar_"_s << u"/x/b.png_simlar_"_s << -1;
        QTest::newRow("only the last marker goes") << u"/x/a_simlar_3_simlar_4"_s << u"/x/a_simlar_3"_s << 4;
        QTest::newRow("newline in name") << u"/x/a\nb.jpg_simlar_5"_s << u"/x/a\nb.jpg"_s << 5;
        QTest::newRow("huge number") << u"/x/a.jpg_simlar_99999999999"_s << u"/x/a.jpg"_s << -1;
        QTest::newRow("plain") << u"D:/p/a.jpg_simlar_87"_s << u"D:/p/a.jpg"_s << 87;
        QTest::newRow("letters after marker") << u"/x/a_simlar_5b"_s << u"/x/a_simlar_5b"_s << -1;
        QTest::newRow("non-ASCII digits") << u"/x/a_simlar_\u0663"_s << u"/x/a_simlar_\u0663"_s << -1;
        // Stripping would leave the folder's own path, which removal must never take for a member.
        QTest::newRow("marker is the whole name") << u"/x/_simlar_5"_s << u"/x/_simlar_5"_s << -1;
        QTest::newRow("digits after another word") << u"/x/IMG_simlbr_5"_s << u"/x/IMG_simlbr_5"_s << -1;
        QTest::newRow("only digits") << u"12"_s << u"12"_s << -1;
        QTest::newRow("empty") << QString() << QString() << -1;
    }
    void realPath()
    {
        QFETCH(QString, entry);
        QFETCH(QString, path);
        QFETCH(qint32, similarity);
        QCOMPARE(GroupItem::realPath(entry), path);
        QCOMPARE(GroupItem::similarityOf(entry), similarity);
    }

    // Group rows read the first member's facts; member rows read each member's, folder rows
    // showing the size their record measured, not the directory entry's.
    void groupsAndRows()
    {
        const QStringList dirs = makeMembers(u"fa/;fb/"_s);
        const QHash<QString, QStringList> files{
            {u"EMPTY"_s, {}},
            {u"DOCS"_s, makeMembers(u"d1/a.txt:10;d2/a.txt:10;d3/a.txt:10"_s)},
            {u"S"_s, makeMembers(u"sim/a.png:11>_simlar_87;sim/b.tif:6>_simlar_99;sim/c.png:->_simlar_5"_s)}};
        // Selection matches the stored entry, not the bare path.
        const TGroupItemBuilder builder(
            files,
            {{u"DIRS"_s, {{dirs.at(0), 3, 300}, {dirs.at(1), 3, 301}}},
             {u"LOST"_s, {{m_dir.filePath(u"never-made"_s), 1, 10}, {dirs.at(0), 1, 10}}}},
            {{u"DIRS"_s, {dirs.at(1)}},
             {u"S"_s, {files[u"S"_s].at(1), m_dir.filePath(u"sim/a.png"_s)}},
             {u"DOCS"_s, files[u"DOCS"_s].mid(1)}});
        QStringList groups;
        for (const QString &key : builder.keys()) {
            const GroupItem g = builder.buildItem(key);
            groups.append(QString::asprintf("%s %s %s %lld %d %d/%d", qPrintable(key),
                                            qPrintable(rel(g.firstPath)), qPrintable(g.fileName), g.totalSize,
                                            g.category, g.selectedCount, g.memberCount));
        }
        groups.sort();
        QCOMPARE(groups, (QStringList{u"DIRS fa fa 601 6 1/2"_s, u"DOCS d1/a.txt a.txt 30 2 2/3"_s,
                                      u"EMPTY   0 7 0/0"_s, u"LOST never-made never-made 0 7 0/2"_s,
                                      u"S sim/a.png a.png 33 1 2/3"_s}));

        // Row: group, entry, path, size, similarity, category, checked, folder, group index.
        const auto rows = [this, &builder](const QString &key, qint32 index) {
            QStringList out;
            for (const ImageItem &r : builder.imageItems(builder.buildItem(key), index))
                out.append(QString::asprintf("%s %s %s %lld %d %d %d %d %d", qPrintable(r.groupKey),
                                             qPrintable(rel(r.entry)), qPrintable(rel(r.path)), r.size,
                                             r.similarity, r.category, r.checked, r.isFolder, r.groupIndex));
            return out;
        };
        QCOMPARE(rows(u"DIRS"_s, 4),
                 (QStringList{u"DIRS fa fa 300 -1 6 0 1 4"_s, u"DIRS fb fb 301 -1 6 1 1 4"_s}));
        QCOMPARE(rows(u"S"_s, 0), (QStringList{u"S sim/a.png_simlar_87 sim/a.png 11 87 1 0 0 0"_s,
                                               u"S sim/b.tif_simlar_99 sim/b.tif 6 99 1 1 0 0"_s,
                                               u"S sim/c.png_simlar_5 sim/c.png 0 5 1 0 0 0"_s}));
    }

    // Built through the store with files vanishing meanwhile: every group comes back in key
    // order, each either with the file's facts or with the vanished values.
    void buildAllWhileFilesVanish()
    {
        TFileData &store = TFileData::instance();
        {
            ReadWriteLockGuard locker(store.lock, ReadWriteLockGuard::Write);
            store.clear();
            for (int g = 0; g < 400; ++g)
                store.duplicateGroups[u"F"_s + QString::number(g)] =
                    makeMembers(QStringLiteral("order/%1/a.txt:5;order/%1/b.txt:5").arg(g));
        }
        const TGroupItemBuilder builder = TGroupItemBuilder::fromStore(store);
        QFuture<QList<GroupItem>> future = builder.start();
        for (int g = 0; g < 400; g += 2)
            QFile::remove(m_dir.filePath(QStringLiteral("order/%1/a.txt").arg(g)));
        const QList<GroupItem> items = builder.results(future);
        const QStringList keys = builder.keys();
        QCOMPARE(keys.size(), 400);
        QCOMPARE(items.size(), keys.size());
        for (qsizetype i = 0; i < items.size(); ++i) {
            QCOMPARE(items.at(i).groupKey, keys.at(i));
            // Only a group whose first file was removed may come back as vanished.
            const bool gone = items.at(i).category == Others && keys.at(i).mid(1).toInt() % 2 == 0;
            QCOMPARE(QList<qint64>({items.at(i).category, items.at(i).totalSize}),
                     QList<qint64>({gone ? Others : Documents, gone ? 0 : 10}));
        }
        // An empty key list may finish without a result.
        QVERIFY(TGroupItemBuilder({}, {}, {}).buildAll().isEmpty());
    }

    // A PNG and a JPEG under a png name are read by content; a broken image, a missing file
    // and a folder have no header. Dates show the file's own time, nothing when it is gone.
    void displayTexts()
    {
        const QStringList paths = makeMembers(u"r/a.png:0;r/c.png:0;r/e.png:64;r/none.png:-;r/f.png/"_s);
        QImage image(17, 9, QImage::Format_RGB32);
        image.fill(Qt::red);
        QVERIFY(image.save(paths.at(0), "PNG") && image.save(paths.at(1), "JPG"));
        QFile file(paths.at(0));
        QVERIFY(file.open(QIODevice::ReadWrite) &&
                file.setFileTime(QDateTime(QDate(2021, 3, 4), QTime(5, 6, 7)),
                                 QFileDevice::FileModificationTime));
        QStringList seen;
        for (const QString &path : paths)
            seen.append(ImageItem::fromEntry(u"K"_s, 0, path + u"_simlar_1"_s, false).resolutionDisplay() +
                        QString::asprintf(" %d", ImageItem::headerSize(path).height()));
        QCOMPARE(seen, (QStringList{u"17x9 9"_s, u"17x9 9"_s, u"-x- -1"_s, u"-x- -1"_s, u"-x- -1"_s}));
        QCOMPARE(ImageItem::fromEntry(u"K"_s, 0, paths.at(0) + u"_simlar_70"_s, false).dateDisplay(),
                 u"2021/03/04 05:06:07"_s);
        QCOMPARE(ImageItem::fromEntry(u"K"_s, 0, paths.at(3), true).dateDisplay(), QString());
    }

    void cleanupTestCase()
    {
        ReadWriteLockGuard locker(TFileData::instance().lock, ReadWriteLockGuard::Write);
        TFileData::instance().clear();
    }
};

TWINFOLD_TEST_MAIN(TestGroupItem)
#include "tst_groupitem.moc"
