#include "TestMain.h"

#include "scan/FileCategory.h"
#include "scan/TFileData.h"

#include <QtConcurrent>

using namespace Qt::StringLiterals;

class TestTFileData : public QObject
{
    Q_OBJECT
private slots:
    void init() { TFileData::instance().clear(); }
    void instanceIsOneObjectForAllThreads();
    void imageDuplicateGroups_data();
    void imageDuplicateGroups();
    void hasResults();
    void replaceDropsTheOldMembers();
    void concurrentWritersAndReaders();
};

void TestTFileData::instanceIsOneObjectForAllThreads()
{
    const QList<quintptr> seen = QtConcurrent::blockingMapped(
        QList<int>(64, 0), [](int) { return reinterpret_cast<quintptr>(&TFileData::instance()); });
    for (quintptr p : seen)
        QCOMPARE(p, reinterpret_cast<quintptr>(&TFileData::instance()));
}

void TestTFileData::imageDuplicateGroups_data()
{
    QTest::addColumn<QStringList>("members");
    QTest::addColumn<bool>("isImageGroup");
    QTest::newRow("jpeg") << QStringList{u"/a/x.jpg"_s, u"/b/x.jpg"_s} << true;
    QTest::newRow("decided by the first member") << QStringList{u"/a/x.txt"_s, u"/b/x.jpg"_s} << false;
    QTest::newRow("first is image") << QStringList{u"/a/x.PNG"_s, u"/b/x.txt"_s} << true;
    QTest::newRow("no suffix") << QStringList{u"/a/x"_s, u"/b/x"_s} << false;
    QTest::newRow("empty group") << QStringList{} << false;
}

void TestTFileData::imageDuplicateGroups()
{
    QFETCH(QStringList, members);
    QFETCH(bool, isImageGroup);
    auto &store = TFileData::instance();
    store.addDuplicateGroup(u"K"_s, members);
    store.addDuplicateGroup(u"DOC"_s, {u"/a/d.pdf"_s, u"/b/d.pdf"_s});
    const auto images = store.imageDuplicateGroups();
    QCOMPARE(images.contains(u"K"_s), isImageGroup);
    QVERIFY(!images.contains(u"DOC"_s));
    if (isImageGroup)
        QCOMPARE(images.value(u"K"_s), members);
}

void TestTFileData::hasResults()
{
    auto &store = TFileData::instance();
    QVERIFY(!store.hasResults());
    store.setSelected(u"K"_s, {u"/a"_s});
    QVERIFY2(!store.hasResults(), "a selection alone is no result");
    store.addFolderGroup(u"F"_s, {FolderRecord{u"/a"_s, 1, 2}, FolderRecord{u"/b"_s, 1, 2}});
    QVERIFY(store.hasResults());
    store.clear();
    QVERIFY(!store.hasResults());
    QVERIFY(store.selectedFiles.isEmpty());
    store.addDuplicateGroup(u"D"_s, {u"/a"_s, u"/b"_s});
    QVERIFY(store.hasResults());
}

void TestTFileData::replaceDropsTheOldMembers()
{
    auto &store = TFileData::instance();
    store.addDuplicateGroup(u"K"_s, {u"/a.jpg"_s, u"/b.jpg"_s});
    store.replaceDuplicateGroup(u"K"_s, {u"/c.jpg"_s, u"/a.jpg_simlar_90"_s});
    QCOMPARE(store.duplicateGroups.size(), 1);
    QCOMPARE(store.duplicateGroups.value(u"K"_s), (QStringList{u"/c.jpg"_s, u"/a.jpg_simlar_90"_s}));
}

void TestTFileData::concurrentWritersAndReaders()
{
    // The locked operations must be usable from pool threads at the same time.
    auto &store = TFileData::instance();
    QList<int> jobs(2000);
    std::iota(jobs.begin(), jobs.end(), 0);
    QtConcurrent::blockingMap(jobs, [&store](int i) {
        const QString key = groupKey(QString::number(i));
        const QStringList members{u"/p/%1.jpg"_s.arg(i), u"/q/%1.jpg"_s.arg(i)};
        switch (i % 4) {
        case 0:
            store.replaceDuplicateGroup(key, members);
            break;
        case 1:
            store.setSelected(key, members.mid(1));
            break;
        case 2:
            (void)store.imageDuplicateGroups();
            break;
        default:
            (void)store.hasResults();
        }
    });
    QCOMPARE(store.duplicateGroups.size(), 500);
    QCOMPARE(store.selectedFiles.size(), 500);
    QCOMPARE(store.imageDuplicateGroups().size(), 500);
}

TWINFOLD_TEST_MAIN(TestTFileData)
#include "tst_tfiledata.moc"
