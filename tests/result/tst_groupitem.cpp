#include "app/ReadWriteLockGuard.h"
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
#include <QtTest>

using namespace Qt::StringLiterals;

class TestGroupItem : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    QString abs(const QString &name) const { return m_dir.path() + u'/' + name; }
    QString rel(const QString &path) const { return path.mid(m_dir.path().size() + 1); }

    // Member entries under the test folder: "name:bytes" writes a file, "name:-" leaves it
    // absent, "name/" makes a folder; a ">suffix" part is appended to the entry.
    QStringList makeMembers(const QStringList &layout)
    {
        QStringList entries;
        for (const QString &desc : layout) {
            const QString name = desc.section(u'>', 0, 0).section(u':', 0, 0);
            const QString bytes = desc.section(u'>', 0, 0).section(u':', 1);
            const bool folder = name.endsWith(u'/');
            const QString path = abs(folder ? name.chopped(1) : name);
            QDir().mkpath(folder ? path : QFileInfo(path).path());
            if (!folder && bytes != u"-") {
                QFile file(path);
                if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
                    return {};
                file.write(QByteArray(bytes.toLongLong(), 'z'));
            }
            entries.append(path + desc.section(u'>', 1));
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
        QTest::newRow("similar") << u"D:/p/a.jpg_simlar_87"_s << u"D:/p/a.jpg"_s << 87;
        QTest::newRow("zero") << u"/x/b.png_simlar_0"_s << u"/x/b.png"_s << 0;
        QTest::newRow("marker without number") << u"/x/b.png_simlar_"_s << u"/x/b.png_simlar_"_s << -1;
        QTest::newRow("marker with letters") << u"/x/b.png_simlar_8a"_s << u"/x/b.png_simlar_8a"_s << -1;
        QTest::newRow("only the last marker goes") << u"/x/a_simlar_3_simlar_4"_s << u"/x/a_simlar_3"_s << 4;
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
        const auto row = [](const char *name, const QStringList &layout, qint32 selected,
                            const QString &fileName, qint64 size, qint32 category) {
            QTest::newRow(name) << layout << selected << fileName << size << category;
        };
        row("three documents", {u"d1/a.txt:10"_s, u"d2/a.txt:10"_s, u"d3/a.txt:10"_s}, 2, u"a.txt"_s, 30,
            Documents);
        row("no suffix", {u"n/README:5"_s, u"m/README:5"_s}, 1, u"README"_s, 10, Others);
        row("first member deleted", {u"g/gone.mp4:-"_s, u"h/gone.mp4:9"_s}, 1, u"gone.mp4"_s, 0, Others);
        row("similar entries",
            {u"s/pic.png:12>_simlar_87"_s, u"s/pic2.png:5>_simlar_99"_s, u"t/pic.png:12>_simlar_60"_s}, 1,
            u"pic.png"_s, 36, Images);
        row("empty group", {}, 0, QString(), 0, Others);
        row("similar first vanished", {u"s/lost.png:->_simlar_87"_s, u"s/b.png:5>_simlar_99"_s}, 0,
            u"lost.png"_s, 0, Others);
    }
    void buildItem()
    {
        QFETCH(QStringList, layout);
        QFETCH(qint32, selected);
        QFETCH(QString, fileName);
        QFETCH(qint64, totalSize);
        QFETCH(qint32, category);
        const QStringList members = makeMembers(layout);
        QCOMPARE(members.size(), layout.size());
        // Another group's selection must not be counted.
        QHash<QString, QStringList> selection{{u"OTHER"_s, members}};
        if (selected > 0)
            selection.insert(u"KEY"_s, members.mid(0, selected));
        const GroupItem item = TGroupItemBuilder({{u"KEY"_s, members}}, {}, selection).buildItem(u"KEY"_s);
        QCOMPARE(item.groupKey, u"KEY"_s);
        QCOMPARE(item.members, members);
        QCOMPARE(item.memberCount, qint32(members.size()));
        QCOMPARE(item.selectedCount, selected);
        QCOMPARE(item.fileName, fileName);
        QCOMPARE(item.firstPath, layout.isEmpty() ? QString() : abs(layout.constFirst().section(u':', 0, 0)));
        QCOMPARE(item.totalSize, totalSize);
        QCOMPARE(item.category, category);
    }

    void imageItems()
    {
        const QStringList live = makeMembers({u"fa/"_s, u"fb/"_s});
        const FolderRecords records{{live.at(0), 3, 300}, {live.at(1), 3, 301}};
        const FolderRecords vanished{{abs(u"never-made"_s), 1, 10}, {live.at(0), 1, 10}};
        const QStringList similar = makeMembers({u"sim/a.png:11>_simlar_87"_s, u"sim/b.tif:6>_simlar_99"_s,
                                                 u"sim/c.png:->_simlar_55"_s, u"sim/d.doc:2"_s});
        // Selection matches the stored entry, not the bare path.
        const TGroupItemBuilder builder(
            {{u"S"_s, similar}}, {{u"DIRS"_s, records}, {u"LOST"_s, vanished}},
            {{u"DIRS"_s, {live.at(1)}}, {u"S"_s, {similar.at(1), abs(u"sim/a.png"_s)}}});
        const QStringList keys = builder.keys();
        QCOMPARE(QSet<QString>(keys.cbegin(), keys.cend()), (QSet<QString>{u"S"_s, u"DIRS"_s, u"LOST"_s}));

        const GroupItem dirs = builder.buildItem(u"DIRS"_s);
        QCOMPARE(dirs.category, qint32(Folder));
        QCOMPARE(dirs.totalSize, 601);
        QCOMPARE(dirs.fileName, u"fa"_s);
        const GroupItem lost = builder.buildItem(u"LOST"_s);
        QCOMPARE(lost.category, qint32(Others));
        QCOMPARE(lost.totalSize, 0);

        // Row: entry, path, size, similarity, category, checked, folder, group index. Folder rows
        // show the size their record measured, not the directory entry's.
        const auto describe = [this](const QList<ImageItem> &rows) {
            QStringList out;
            for (const ImageItem &r : rows)
                out.append(QStringList{rel(r.entry), rel(r.path), QString::number(r.size),
                                       QString::number(r.similarity), QString::number(r.category),
                                       QString::number(r.checked), QString::number(r.isFolder),
                                       QString::number(r.groupIndex)}
                               .join(u' '));
            return out;
        };
        QCOMPARE(describe(builder.imageItems(dirs, 4)),
                 (QStringList{u"fa fa 300 -1 6 0 1 4"_s, u"fb fb 301 -1 6 1 1 4"_s}));
        QCOMPARE(describe(builder.imageItems(builder.buildItem(u"S"_s), 0)),
                 (QStringList{u"sim/a.png_simlar_87 sim/a.png 11 87 1 0 0 0"_s,
                              u"sim/b.tif_simlar_99 sim/b.tif 6 99 1 1 0 0"_s,
                              u"sim/c.png_simlar_55 sim/c.png 0 55 1 0 0 0"_s,
                              u"sim/d.doc sim/d.doc 2 -1 2 0 0 0"_s}));
        QCOMPARE(builder.imageItems(dirs, 4).constFirst().groupKey, u"DIRS"_s);
    }

    // Built through the store with files vanishing meanwhile: every group comes back in key
    // order, each either with the file's facts or with the vanished values.
    void buildAllWhileFilesVanish()
    {
        QHash<QString, QStringList> files;
        QHash<QString, FolderRecords> folders;
        for (int g = 0; g < 400; ++g) {
            const QString name = QStringLiteral("order/%1").arg(g);
            if (g % 10 == 9) {
                const QStringList dirs = makeMembers({name + u"/u/"_s, name + u"/v/"_s});
                folders.insert(QStringLiteral("D%1").arg(g), {{dirs.at(0), 1, g}, {dirs.at(1), 1, g}});
            } else {
                files.insert(QStringLiteral("F%1").arg(g),
                             makeMembers({name + u"/a.txt:5"_s, name + u"/b.txt:5"_s}));
            }
        }
        {
            ReadWriteLockGuard locker(TFileData::instance().lock, ReadWriteLockGuard::Write);
            TFileData::instance().clear();
            TFileData::instance().duplicateGroups = files;
            TFileData::instance().folderGroups = folders;
        }
        const TGroupItemBuilder builder = TGroupItemBuilder::fromStore(TFileData::instance());
        QFuture<QList<GroupItem>> future = builder.start();
        for (int g = 0; g < 400; g += 2)
            QFile::remove(abs(QStringLiteral("order/%1/a.txt").arg(g)));
        const QList<GroupItem> items = builder.results(future);
        const QStringList keys = builder.keys();
        QCOMPARE(keys.size(), 400);
        QCOMPARE(items.size(), keys.size());
        for (qsizetype i = 0; i < items.size(); ++i) {
            const GroupItem &item = items.at(i);
            QCOMPARE(item.groupKey, keys.at(i));
            const int g = item.groupKey.mid(1).toInt();
            if (item.groupKey.startsWith(u'D')) {
                QCOMPARE(item.category, qint32(Folder));
                QCOMPARE(item.totalSize, 2 * g);
            } else {
                // Only a group whose first file was removed may come back as vanished.
                QCOMPARE(item.category, qint32(item.category == Others && g % 2 == 0 ? Others : Documents));
                QCOMPARE(item.totalSize, item.category == Others ? 0 : 10);
            }
        }
        // An empty key list may finish without a result; an unknown key builds an empty group.
        QVERIFY(TGroupItemBuilder({}, {}, {}).buildAll().isEmpty());
        const GroupItem unknown = builder.buildItem(u"MISSING"_s);
        QVERIFY(unknown.members.isEmpty() && unknown.firstPath.isEmpty() && unknown.fileName.isEmpty());
        QCOMPARE(unknown.category, qint32(Others));
    }

    void dateDisplay()
    {
        const QString path = makeMembers({u"dates/a.txt:1"_s}).value(0);
        {
            QFile file(path);
            QVERIFY(file.open(QIODevice::ReadWrite));
            QVERIFY(file.setFileTime(QDateTime(QDate(2021, 3, 4), QTime(5, 6, 7)),
                                     QFileDevice::FileModificationTime));
        }
        ImageItem item = ImageItem::fromEntry(u"K"_s, 0, path + u"_simlar_70"_s, false);
        QCOMPARE(item.dateDisplay(), u"2021/03/04 05:06:07"_s);
        item.dateText = u"cached"_s;
        QCOMPARE(item.dateDisplay(), u"cached"_s);
        QVERIFY(ImageItem::fromEntry(u"K"_s, 0, abs(u"dates/none.txt"_s), true).dateDisplay().isEmpty());
    }

    void resolution_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QSize>("written");
        QTest::addColumn<QString>("text");
        QTest::newRow("png") << u"r/a.png"_s << QSize(40, 30) << u"40x30"_s;
        QTest::newRow("one pixel") << u"r/b.png"_s << QSize(1, 1) << u"1x1"_s;
        QTest::newRow("jpeg under a png name") << u"r/c.png"_s << QSize(17, 9) << u"17x9"_s;
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
            QCOMPARE(makeMembers({name + u":64"_s}).value(0), path);
        }
        QCOMPARE(ImageItem::resolutionText(path), text);
        QCOMPARE(ImageItem::headerSize(path), written.isValid() ? written : QSize(-1, -1));
        QCOMPARE(ImageItem::fromEntry(u"K"_s, 0, path + u"_simlar_1"_s, false).resolutionDisplay(), text);
    }

    void cleanupTestCase()
    {
        ReadWriteLockGuard locker(TFileData::instance().lock, ReadWriteLockGuard::Write);
        TFileData::instance().clear();
    }
};

TWINFOLD_TEST_MAIN(TestGroupItem)
#include "tst_groupitem.moc"
