#include "result/GroupItem.h"
#include "result/ImageItem.h"
#include "result/TGroupItemBuilder.h"
#include "scan/FileCategory.h"
#include "scan/TFileData.h"

#include "TestMain.h"

#include <QDateTime>
#include <QFile>
#include <QImage>
#include <QTemporaryDir>
#include <QWriteLocker>
#include <QtTest>

using namespace Qt::StringLiterals;

class TestGroupItem : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    QString abs(const QString &name) const { return m_dir.path() + u'/' + name; }

    QString writeFile(const QString &name, qint64 bytes)
    {
        const QString path = abs(name);
        QDir().mkpath(QFileInfo(path).absolutePath());
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            return QString();
        file.write(QByteArray(bytes, 'z'));
        return path;
    }

    // Member entries name files under the test folder: "name:bytes", "name:-" for a file that
    // is never written, "name/" for a folder; a ">suffix" part is appended to the entry.
    QStringList makeMembers(const QStringList &layout)
    {
        QStringList entries;
        for (const QString &desc : layout) {
            const QString fileDesc = desc.section(u'>', 0, 0);
            const QString suffix = desc.section(u'>', 1);
            const QString name = fileDesc.section(u':', 0, 0);
            const QString bytes = fileDesc.section(u':', 1);
            if (name.endsWith(u'/')) {
                QDir().mkpath(abs(name));
                entries.append(abs(name.chopped(1)) + suffix);
            } else if (bytes == u"-") {
                entries.append(abs(name) + suffix);
            } else {
                entries.append(writeFile(name, bytes.toLongLong()) + suffix);
            }
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
        QTest::newRow("plain") << u"D:/p/a.jpg"_s << u"D:/p/a.jpg"_s << -1;
        QTest::newRow("similar") << u"D:/p/a.jpg_simlar_87"_s << u"D:/p/a.jpg"_s << 87;
        QTest::newRow("absorbed duplicate") << u"/x/b.png_simlar_99"_s << u"/x/b.png"_s << 99;
        QTest::newRow("zero") << u"/x/b.png_simlar_0"_s << u"/x/b.png"_s << 0;
        QTest::newRow("marker without number") << u"/x/b.png_simlar_"_s << u"/x/b.png_simlar_"_s << -1;
        QTest::newRow("marker with letters") << u"/x/b.png_simlar_8a"_s << u"/x/b.png_simlar_8a"_s << -1;
        QTest::newRow("marker inside the name") << u"/x/a_simlar_3.png"_s << u"/x/a_simlar_3.png"_s << -1;
        QTest::newRow("only the last marker goes") << u"/x/a_simlar_3_simlar_4"_s << u"/x/a_simlar_3"_s << 4;
        QTest::newRow("folder with marker")
            << u"/x_simlar_1/c.jpg_simlar_50"_s << u"/x_simlar_1/c.jpg"_s << 50;
        QTest::newRow("newline in name") << u"/x/a\nb.jpg_simlar_5"_s << u"/x/a\nb.jpg"_s << 5;
        QTest::newRow("huge number") << u"/x/a.jpg_simlar_99999999999"_s << u"/x/a.jpg"_s << -1;
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

    void buildItem_data()
    {
        QTest::addColumn<QStringList>("layout");
        QTest::addColumn<qint32>("selected");
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<qint64>("totalSize");
        QTest::addColumn<qint32>("category");
        QTest::newRow("three 10-byte documents")
            << QStringList{u"d1/a.txt:10"_s, u"d2/a.txt:10"_s, u"d3/a.txt:10"_s} << 2 << u"a.txt"_s
            << qint64(30) << qint32(Documents);
        QTest::newRow("upper-case image suffix")
            << QStringList{u"i/P.JPG:7"_s, u"j/P.JPG:7"_s} << 0 << u"P.JPG"_s << qint64(14) << qint32(Images);
        QTest::newRow("ra lands in images")
            << QStringList{u"r/s.ra:3"_s, u"t/s.ra:3"_s} << 0 << u"s.ra"_s << qint64(6) << qint32(Images);
        QTest::newRow("no suffix") << QStringList{u"n/README:5"_s, u"m/README:5"_s} << 1 << u"README"_s
                                   << qint64(10) << qint32(Others);
        QTest::newRow("empty files") << QStringList{u"e/a.mp3:0"_s, u"f/a.mp3:0"_s} << 0 << u"a.mp3"_s
                                     << qint64(0) << qint32(Musics);
        QTest::newRow("first member deleted") << QStringList{u"g/gone.mp4:-"_s, u"h/gone.mp4:9"_s} << 1
                                              << u"gone.mp4"_s << qint64(0) << qint32(Others);
        QTest::newRow("similar entries")
            << QStringList{u"s/pic.png:12>_simlar_87"_s, u"s/pic2.png:5>_simlar_99"_s,
                           u"t/pic.png:12>_simlar_60"_s}
            << 1 << u"pic.png"_s << qint64(36) << qint32(Images);
        QTest::newRow("similar first vanished")
            << QStringList{u"s/lost.png:->_simlar_87"_s, u"s/b.png:5>_simlar_99"_s} << 0 << u"lost.png"_s
            << qint64(0) << qint32(Others);
    }
    void buildItem()
    {
        QFETCH(QStringList, layout);
        QFETCH(qint32, selected);
        QFETCH(QString, fileName);
        QFETCH(qint64, totalSize);
        QFETCH(qint32, category);
        const QStringList members = makeMembers(layout);
        QHash<QString, QStringList> selection;
        if (selected > 0)
            selection.insert(u"KEY"_s, members.mid(0, selected));
        selection.insert(u"OTHER"_s, members);
        const TGroupItemBuilder builder({{u"KEY"_s, members}}, {}, selection);
        const GroupItem item = builder.buildItem(u"KEY"_s);
        QCOMPARE(item.groupKey, u"KEY"_s);
        QCOMPARE(item.members, members);
        QCOMPARE(item.memberCount, qint32(members.size()));
        QCOMPARE(item.selectedCount, selected);
        QCOMPARE(item.fileName, fileName);
        QCOMPARE(item.firstPath, abs(layout.constFirst().section(u':', 0, 0)));
        QCOMPARE(item.totalSize, totalSize);
        QCOMPARE(item.category, category);
    }

    void unknownKeyAndEmptyGroup()
    {
        const TGroupItemBuilder builder({{u"EMPTY"_s, {}}}, {}, {});
        for (const QString &key : {u"EMPTY"_s, u"MISSING"_s}) {
            const GroupItem item = builder.buildItem(key);
            QCOMPARE(item.groupKey, key);
            QVERIFY(item.members.isEmpty());
            QCOMPARE(item.memberCount, 0);
            QVERIFY(item.firstPath.isEmpty());
            QVERIFY(item.fileName.isEmpty());
            QCOMPARE(item.totalSize, 0);
            QCOMPARE(item.category, qint32(Others));
        }
    }

    void folderGroups()
    {
        const QStringList live = makeMembers({u"fa/"_s, u"fb/"_s});
        const FolderRecords records{{live.at(0), 3, 300}, {live.at(1), 3, 301}};
        const FolderRecords vanished{{abs(u"never-made"_s), 1, 10}, {live.at(0), 1, 10}};
        const TGroupItemBuilder builder({{u"FILES"_s, makeMembers({u"x/a.txt:4"_s, u"y/a.txt:4"_s})}},
                                        {{u"DIRS"_s, records}, {u"LOST"_s, vanished}},
                                        {{u"DIRS"_s, {live.at(1)}}});
        const QStringList keys = builder.keys();
        QCOMPARE(QSet<QString>(keys.cbegin(), keys.cend()),
                 (QSet<QString>{u"FILES"_s, u"DIRS"_s, u"LOST"_s}));

        const GroupItem dirs = builder.buildItem(u"DIRS"_s);
        QCOMPARE(dirs.members, live);
        QCOMPARE(dirs.category, qint32(Folder));
        QCOMPARE(dirs.totalSize, 601);
        QCOMPARE(dirs.fileName, u"fa"_s);
        QCOMPARE(dirs.selectedCount, 1);

        const GroupItem lost = builder.buildItem(u"LOST"_s);
        QCOMPARE(lost.category, qint32(Others));
        QCOMPARE(lost.totalSize, 0);

        const QList<ImageItem> rows = builder.imageItems(dirs, 4);
        QCOMPARE(rows.size(), 2);
        QCOMPARE(rows.at(0).path, live.at(0));
        QVERIFY(rows.at(0).isFolder);
        QCOMPARE(rows.at(0).size, 300);
        QCOMPARE(rows.at(0).category, qint32(Folder));
        QVERIFY(!rows.at(0).checked);
        QVERIFY(rows.at(1).checked);
        QCOMPARE(rows.at(1).size, 301);
        QCOMPARE(rows.at(1).groupIndex, 4);
        QCOMPARE(rows.at(1).groupKey, u"DIRS"_s);
    }

    void imageItemsOfSimilarGroup()
    {
        const QStringList members = makeMembers({u"sim/a.png:11>_simlar_87"_s, u"sim/b.tif:6>_simlar_99"_s,
                                                 u"sim/c.png:->_simlar_55"_s, u"sim/d.doc:2"_s});
        const TGroupItemBuilder builder({{u"S"_s, members}}, {},
                                        {{u"S"_s, {members.at(1), abs(u"sim/a.png"_s)}}});
        const QList<ImageItem> rows = builder.imageItems(builder.buildItem(u"S"_s), 0);
        QCOMPARE(rows.size(), 4);
        const QList<QString> paths{abs(u"sim/a.png"_s), abs(u"sim/b.tif"_s), abs(u"sim/c.png"_s),
                                   abs(u"sim/d.doc"_s)};
        const QList<qint64> sizes{11, 6, 0, 2};
        const QList<qint32> similarity{87, 99, 55, -1};
        const QList<qint32> categories{qint32(Images), qint32(Images), qint32(Images), qint32(Documents)};
        // Selection matches the stored entry, not the bare path.
        const QList<bool> checked{false, true, false, false};
        for (qsizetype i = 0; i < rows.size(); ++i) {
            QCOMPARE(rows.at(i).entry, members.at(i));
            QCOMPARE(rows.at(i).path, paths.at(i));
            QCOMPARE(rows.at(i).size, sizes.at(i));
            QCOMPARE(rows.at(i).similarity, similarity.at(i));
            QCOMPARE(rows.at(i).category, categories.at(i));
            QCOMPARE(rows.at(i).checked, checked.at(i));
            QVERIFY(!rows.at(i).isFolder);
        }
    }

    void buildAllKeepsKeyOrder_data()
    {
        QTest::addColumn<int>("groups");
        QTest::newRow("none") << 0;
        QTest::newRow("one") << 1;
        QTest::newRow("many") << 400;
    }
    void buildAllKeepsKeyOrder()
    {
        QFETCH(int, groups);
        QHash<QString, QStringList> files;
        QHash<QString, FolderRecords> folders;
        for (int g = 0; g < groups; ++g) {
            const QString name = QStringLiteral("order%1/%2").arg(groups).arg(g);
            if (g % 10 == 9) {
                const QStringList dirs = makeMembers({name + u"/u/"_s, name + u"/v/"_s});
                folders.insert(QStringLiteral("D%1").arg(g), {{dirs.at(0), 1, g}, {dirs.at(1), 1, g}});
            } else {
                files.insert(QStringLiteral("F%1").arg(g),
                             makeMembers({QStringLiteral("%1/a.txt:%2").arg(name).arg(g % 4),
                                          QStringLiteral("%1/b.txt:%2").arg(name).arg(g % 4)}));
            }
        }
        {
            QWriteLocker locker(&TFileData::instance().lock);
            TFileData::instance().clear();
            TFileData::instance().duplicateGroups = files;
            TFileData::instance().folderGroups = folders;
        }
        const TGroupItemBuilder builder = TGroupItemBuilder::fromStore(TFileData::instance());
        const QStringList keys = builder.keys();
        QCOMPARE(keys.size(), groups);
        const QList<GroupItem> items = builder.buildAll();
        QCOMPARE(items.size(), keys.size());
        for (qsizetype i = 0; i < items.size(); ++i) {
            const GroupItem &item = items.at(i);
            QCOMPARE(item.groupKey, keys.at(i));
            const int g = item.groupKey.mid(1).toInt();
            if (item.groupKey.startsWith(u'D')) {
                QCOMPARE(item.category, qint32(Folder));
                QCOMPARE(item.totalSize, 2 * g);
            } else {
                QCOMPARE(item.category, qint32(Documents));
                QCOMPARE(item.totalSize, 2 * (g % 4));
            }
        }
    }

    // Files vanish while the build runs: every group still comes back, each either with the
    // file's facts or with the vanished values.
    void buildWhileFilesVanish()
    {
        QHash<QString, QStringList> files;
        for (int g = 0; g < 300; ++g)
            files.insert(QStringLiteral("V%1").arg(g),
                         makeMembers({QStringLiteral("vanish/%1.txt:5").arg(g),
                                      QStringLiteral("vanish/%1b.txt:5").arg(g)}));
        const TGroupItemBuilder builder(files, {}, {});
        QFuture<QList<GroupItem>> future = builder.start();
        for (int g = 0; g < 300; g += 2)
            QFile::remove(abs(QStringLiteral("vanish/%1.txt").arg(g)));
        const QList<GroupItem> items = builder.results(future);
        QCOMPARE(items.size(), 300);
        for (const GroupItem &item : items) {
            const bool gone = item.category == Others;
            QCOMPARE(item.totalSize, gone ? 0 : 10);
            QVERIFY(gone || item.category == Documents);
        }
    }

    void dateDisplay()
    {
        const QString path = writeFile(u"dates/a.txt"_s, 1);
        const QDateTime when(QDate(2021, 3, 4), QTime(5, 6, 7));
        {
            QFile file(path);
            QVERIFY(file.open(QIODevice::ReadWrite));
            QVERIFY(file.setFileTime(when, QFileDevice::FileModificationTime));
        }
        ImageItem item = ImageItem::fromEntry(u"K"_s, 0, path + u"_simlar_70"_s, false);
        QCOMPARE(item.dateDisplay(), u"2021/03/04 05:06:07"_s);
        item.dateText = u"cached"_s;
        QCOMPARE(item.dateDisplay(), u"cached"_s);
        const ImageItem gone = ImageItem::fromEntry(u"K"_s, 0, abs(u"dates/none.txt"_s), true);
        QVERIFY(gone.dateDisplay().isEmpty());
        QCOMPARE(gone.size, 0);
        QVERIFY(gone.checked);
    }

    void resolution_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QSize>("written");
        QTest::addColumn<QString>("text");
        QTest::newRow("png") << u"r/a.png"_s << QSize(40, 30) << u"40x30"_s;
        QTest::newRow("one pixel") << u"r/b.png"_s << QSize(1, 1) << u"1x1"_s;
        QTest::newRow("jpeg under a png name") << u"r/c.png"_s << QSize(17, 9) << u"17x9"_s;
        QTest::newRow("no suffix") << u"r/d"_s << QSize(5, 8) << u"5x8"_s;
        QTest::newRow("broken image") << u"r/e.png"_s << QSize() << u"-x-"_s;
        QTest::newRow("missing") << u"r/none.png"_s << QSize(-2, -2) << u"-x-"_s;
        QTest::newRow("folder") << u"r"_s << QSize(-2, -2) << u"-x-"_s;
    }
    void resolution()
    {
        QFETCH(QString, name);
        QFETCH(QSize, written);
        QFETCH(QString, text);
        const QString path = abs(name);
        QDir().mkpath(abs(u"r"_s));
        if (written.isValid()) {
            QImage image(written, QImage::Format_RGB32);
            image.fill(Qt::red);
            QVERIFY(image.save(path, name.endsWith(u"c.png") ? "JPG" : "PNG"));
        } else if (written == QSize()) {
            QCOMPARE(writeFile(name, 64), path);
        }
        QCOMPARE(ImageItem::resolutionText(path), text);
        const QSize size = ImageItem::headerSize(path);
        QCOMPARE(size, written.isValid() ? written : QSize(-1, -1));
        QCOMPARE(ImageItem::fromEntry(u"K"_s, 0, path + u"_simlar_1"_s, false).resolutionDisplay(), text);
    }

    void cleanupTestCase()
    {
        QWriteLocker locker(&TFileData::instance().lock);
        TFileData::instance().clear();
    }
};

TWINFOLD_TEST_MAIN(TestGroupItem)
#include "tst_groupitem.moc"
