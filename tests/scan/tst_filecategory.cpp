#include "TestMain.h"

#include "scan/FileCategory.h"

#include <QCryptographicHash>
#include <QRegularExpression>

using namespace Qt::StringLiterals;

class TestFileCategory : public QObject
{
    Q_OBJECT
private slots:
    void listsKeepTheirStoredShape_data();
    void listsKeepTheirStoredShape();
    void categoryOf_data();
    void categoryOf();
    void categoryOfIsStableAcrossCalls();
    void isImageFile_data();
    void isImageFile();
    void groupKey_data();
    void groupKey();
    void groupKeyKnownDigests();
};

void TestFileCategory::listsKeepTheirStoredShape_data()
{
    QTest::addColumn<int>("category");
    QTest::addColumn<int>("count");
    QTest::addColumn<QString>("first");
    QTest::addColumn<QString>("last");
    QTest::newRow("images") << int(Images) << 64 << u"png"_s << u"jpc"_s;
    QTest::newRow("documents") << int(Documents) << 61 << u"pdf"_s << u"dwf"_s;
    QTest::newRow("musics") << int(Musics) << 20 << u"amr"_s << u"aif"_s;
    QTest::newRow("videos") << int(Videos) << 26 << u"webm"_s << u"swf"_s;
}

void TestFileCategory::listsKeepTheirStoredShape()
{
    QFETCH(int, category);
    QFETCH(int, count);
    QFETCH(QString, first);
    QFETCH(QString, last);
    const QStringList list = categorySuffixes().value(FileCategory(category));
    QCOMPARE(list.size(), count);
    QCOMPARE(list.constFirst(), first);
    QCOMPARE(list.constLast(), last);
    for (const QString &s : list)
        QCOMPARE(s, s.toLower());
}

void TestFileCategory::categoryOf_data()
{
    QTest::addColumn<QString>("suffix");
    QTest::addColumn<int>("expected");
    QTest::newRow("jpg") << u"jpg"_s << int(Images);
    QTest::newRow("upper JPG") << u"JPG"_s << int(Images);
    QTest::newRow("mixed HeIc") << u"HeIc"_s << int(Images);
    QTest::newRow("pdf") << u"pdf"_s << int(Documents);
    QTest::newRow("duplicate inside list") << u"mht"_s << int(Documents);
    QTest::newRow("flac") << u"FLAC"_s << int(Musics);
    QTest::newRow("mkv") << u"mkv"_s << int(Videos);
    QTest::newRow("ra in two lists goes to the lower category") << u"ra"_s << int(Images);
    QTest::newRow("exr is only excluded from similarity") << u"exr"_s << int(Others);
    QTest::newRow("empty") << QString() << int(Others);
    QTest::newRow("unknown") << u"xyz"_s << int(Others);
    QTest::newRow("with dot is not a suffix") << u".jpg"_s << int(Others);
    QTest::newRow("prefix of a known one") << u"jp"_s << int(Others);
}

void TestFileCategory::categoryOf()
{
    QFETCH(QString, suffix);
    QFETCH(int, expected);
    QCOMPARE(int(::categoryOf(suffix)), expected);
}

void TestFileCategory::categoryOfIsStableAcrossCalls()
{
    // An extension in two lists must not depend on hash iteration order.
    for (int i = 0; i < 50; ++i)
        QCOMPARE(::categoryOf(u"RA"_s), Images);
    QVERIFY(similarExcludedSuffixes().contains(u"exr"_s));
    QCOMPARE(similarExcludedSuffixes().size(), 20);
}

void TestFileCategory::isImageFile_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<bool>("expected");
    QTest::newRow("upper case suffix") << u"/a/photo.JPG"_s << true;
    QTest::newRow("raw") << u"/a/b/IMG_1.CR2"_s << true;
    QTest::newRow("no dot") << u"/a/photo"_s << false;
    QTest::newRow("dot only in folder") << u"/a.jpg/photo"_s << false;
    QTest::newRow("trailing dot") << u"/a/photo."_s << false;
    QTest::newRow("last dot wins") << u"/a/photo.jpg.txt"_s << false;
    QTest::newRow("hidden image") << u"/a/.cover.png"_s << true;
    QTest::newRow("similar-excluded still an image") << u"/a/anim.gif"_s << true;
    QTest::newRow("exr is not an image") << u"/a/clip.exr"_s << false;
    QTest::newRow("unicode name") << u"/ä/фото.jpeg"_s << true;
}

void TestFileCategory::isImageFile()
{
    QFETCH(QString, path);
    QFETCH(bool, expected);
    QCOMPARE(::isImageFile(path), expected);
}

void TestFileCategory::groupKey_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("ascii") << u"/home/a/b.txt"_s;
    QTest::newRow("unicode") << u"/home/ü/日本.jpg"_s;
    QTest::newRow("empty") << QString();
}

void TestFileCategory::groupKey()
{
    QFETCH(QString, path);
    const QString key = ::groupKey(path);
    QCOMPARE(key.size(), 32);
    QCOMPARE(key, key.toUpper());
    QVERIFY(key.contains(QRegularExpression(u"^[0-9A-F]{32}$"_s)));
    QVERIFY(::groupKey(path + u"x"_s) != key);
}

void TestFileCategory::groupKeyKnownDigests()
{
    // Reference digests, so a change of encoding or case would show.
    QCOMPARE(::groupKey(u"abc"_s), u"900150983CD24FB0D6963F7D28E17F72"_s);
    QCOMPARE(::groupKey(QString()), u"D41D8CD98F00B204E9800998ECF8427E"_s);
    // U+00E9 as UTF-8 (C3 A9), not Latin-1 (E9).
    QCOMPARE(
        ::groupKey(QString(QChar(0xE9))),
        QString::fromLatin1(QCryptographicHash::hash("\xc3\xa9", QCryptographicHash::Md5).toHex().toUpper()));
}

TWINFOLD_TEST_MAIN(TestFileCategory)
#include "tst_filecategory.moc"
