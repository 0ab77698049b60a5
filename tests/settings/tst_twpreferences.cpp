#include "settings/TWPreferences.h"

#include "TestMain.h"

#include <QJsonDocument>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryDir>
#include <QThread>

#include <thread>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

// Every stored property in declaration order as "name:default>changed". The changed values stress
// the file format; '|' joins list items; "$ideal" is the machine's thread count. '!' marks values
// an assignment leaves alone, '*' values a reset to defaults keeps.
const QString kProps =
    uR"(ThreadCount:$ideal>777; RemovealMethod:moveToTrash>moveToFolder; MaxFileSize:100000>2048; )"
    uR"(MinFileSize:0>10000000; *TrashFolder:>/tmp/bin, "q";=eq [x] été; )"
    uR"(*IgnorePathFile:>/a,b/c|C:\Users\x y|@at; *IgnoreFileType:>tmp; *OnlyFileType:>jpg|PNG; )"
    uR"(HideSystemFile:true>false; ScanFileType:0>1; !*OpenFolder:>/open/here; !*SaveFolder:>/save/there; )"
    uR"(!*deleteException:0>1; scanMethod:scanContent>scanAllContent; )"
    uR"(selectDuplicate:autoSelect>NoSelected; *mapPriority:{}>{"E:/A":2,"F:/B, c":10}; )"
    uR"(scanDupDirectory:false>true; hasSimilar:true>false; SimilarityValue:55>73; FeaturesValue:50>20; )"
    uR"(selectedSimilar:false>true; scanPriority:scanResult>scanCustom; )"
    uR"(selectionHint:autoSelect>selectLowQuality; algorithmHint:rbSmart>rbPhash; isAddFeatures:true>false; )"
    uR"(isImageType:true>false; isImageSize:true>false; imageMinSize:4>10)"_s;

// Every property as "name=value" (first set to the value of the same line of `set`, when given; lists
// joined by '|', the priorities as JSON), then the unstored values.
QStringList dump(const TWPreferences &prefs, const QStringList &set = {})
{
    QStringList lines;
    for (QObject *object : QObjectList{prefs.ignoreList, prefs.selection, prefs.general})
        for (int i = object->metaObject()->propertyOffset(); i < object->metaObject()->propertyCount(); ++i) {
            const QMetaProperty property = object->metaObject()->property(i);
            const QString text = set.value(lines.size()).section(u'=', 1);
            if (!set.isEmpty())
                property.write(object, text.contains(u'|') ? QVariant(text.split(u'|')) : QVariant(text));
            const QVariant value = property.read(object);
            const QJsonObject map = QJsonObject::fromVariantMap(value.toMap());
            lines.append(QString::fromLatin1(property.name()) + u'=' +
                         (value.metaType().id() == QMetaType::QStringList ? value.toStringList().join(u'|')
                          : property.name() == "mapPriority"_ba
                              ? QString::fromUtf8(QJsonDocument(map).toJson(QJsonDocument::Compact))
                              : value.toString()));
        }
    // Values that are held and copied but not stored.
    return lines << u"IgnoreBundle similarSelectHint SimilarityValue=%1 %2 %3"_s.arg(
               QVariant(prefs.ignoreList->IgnoreBundle).toString(),
               QVariant::fromValue(prefs.selection->similarSelectHint).toString(),
               QString::number(prefs.general->SimilarityValue));
}

// The dump the table predicts after `step`: '-' a fresh start, '+' every value changed, '!' an
// assignment of changed values to defaults, '*' a reset of changed values.
QStringList expected(QChar step, const char *unstored)
{
    QStringList lines;
    for (const QString &row : kProps.split(u"; "_s)) {
        const QString marks = row.section(u':', 0, 0), name = QString(marks).remove(u'!').remove(u'*');
        const bool changed = step == u'+' || (step != u'-' && marks.contains(step) == (step == u'*'));
        const QString ideal = QString::number(std::max(2, QThread::idealThreadCount()));
        lines.append(name + u'=' +
                     (changed ? row.section(u'>', 1)
                              : row.section(u':', 1).section(u'>', 0, 0).replace(u"$ideal"_s, ideal)));
    }
    return lines << u"IgnoreBundle similarSelectHint SimilarityValue="_s + QString::fromLatin1(unstored);
}

} // namespace

class TestTWPreferences : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    int m_counter = 0;
    // A new file name, the file written when there is content; empty when it cannot be written.
    QString freshPath(const QByteArray &content = {})
    {
        QFile file(m_dir.filePath(u"p%1.cfg"_s.arg(++m_counter)));
        const bool written =
            content.isEmpty() || (file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
        return written ? file.fileName() : QString();
    }

private slots:
    // Defaults on a fresh start, where reading alone writes nothing. Every value changed at once: in
    // the scan's JSON with its fixed key order (keys outside the order after the ordered ones); copied
    // by assignment, values the file does not hold included; saved and reread (one value leaking into
    // another key shows), the stored text holding enumerations as typed variants, thresholds cut to
    // whole percents, not rounded, and the priorities in a group of their own, where of two folders
    // with one number the last by path stays; reset, which leaves folders, lists and priorities alone.
    void roundTripCopyAndReset()
    {
        const QString path = freshPath(), freshFile = freshPath();
        TWPreferences fresh(freshFile);
        QVERIFY(!QFile::exists(freshFile));
        QCOMPARE(dump(fresh), expected(u'-', "false autoSelect 55"));
        TWPreferences prefs(path);
        dump(prefs, expected(u'+', "- - -"));
        prefs.selection->mapPriority = {{u"E:/A"_s, 2}, {u"F:/B, c"_s, 10}};
        prefs.ignoreList->IgnoreBundle = true;
        prefs.selection->similarSelectHint = TWSelectionPreferences::selectHighQuality;
        prefs.general->SimilarityValue = 73.5f;
        prefs.general->FeaturesValue = 20.75f;
        QCOMPARE(prefs.ignoreList->toJsonText() + prefs.selection->toJsonText() + prefs.general->toJsonText(),
                 QByteArray(
                     R"({"MaxFileSize":2048,"MinFileSize":10000000,"IgnoreSystemHidden":false,)"
                     R"("IgnoreBundle":true,"ScanFileType":1,"ThreadCount":777,)"
                     "\"TrashFolder\":\"/tmp/bin, \\\"q\\\";=eq [x] été\",\"OpenFolder\":\"/open/here\","
                     R"("SaveFolder":"/save/there","IgnorePathFile":["/a,b/c","C:\\Users\\x y","@at"],)"
                     R"("IgnoreFileType":["tmp"],"OnlyFileType":["jpg","PNG"]})"
                     R"({"scanMethod":2,"duplicateSelectHint":8,"similarSelectHint":6,)"
                     R"("scanDupDirectory":true,"mapPriority":{"E:/A":2,"F:/B, c":10}})"
                     R"({"hasSimilar":false,"SimilarityValue":73.5,"FeaturesValue":20.75,)"
                     R"("selectedSimilar":true,"scanPriority":2,"selectionHint":7,"algorithmHint":2,)"
                     R"("isAddFeatures":false,"isImageType":false,"isImageSize":false,"imageMinSize":10})"));
        QCOMPARE(TWPreferences::orderedJson({{u"b"_s, 1}, {u"a"_s, u"x\"y"_s}}, {u"missing"_s, u"b"_s}),
                 QByteArray("{\"b\":1,\"a\":\"x\\\"y\"}"));
        *fresh.ignoreList = *prefs.ignoreList;
        *fresh.selection = *prefs.selection;
        *fresh.general = *prefs.general;
        prefs.save();
        QCOMPARE(dump(fresh), expected(u'!', "true selectHighQuality 73.5"));
        TWPreferences reread(path);
        QCOMPARE(dump(reread), expected(u'+', "false autoSelect 73"));

        QFile file(path);
        const QByteArray text = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        for (const char *needle :
             {"\nSimilarityValue=73\n", "\nFeaturesValue=20\n", "TWSelectionPreferences::TWScanMethod",
              "TWSelectionPreferences::TWSelectionHint", "TWSelectionPreferences::TWAlgorithmsHint",
              "TWGenernalPreferences::TWScanPriority", "TWIgnoreListPreferences::TWRemovalMethod",
              "\n[map]\n10=\"F:/B, c\"\n2=E:/A\n"})
            QVERIFY2(text.contains(needle), needle);
        QVERIFY(!text.contains("mapPriority") && !text.contains("IgnoreBundle"));
        QCOMPARE(QSettings(path, QSettings::IniFormat).childGroups(),
                 u"Common,Duplicate_files,Similar_images,map"_s.split(u','));

        prefs.ignoreList->resetToDefaults();
        prefs.selection->resetToDefaults();
        prefs.general->resetToDefaults();
        QCOMPARE(dump(prefs), expected(u'*', "false autoSelect 55"));
        reread.selection->mapPriority = {{u"/c"_s, 4}, {u"/z"_s, 4}, {u"/a"_s, 4}, {u"/m"_s, 2}};
        reread.save();
        QCOMPARE(TWPreferences(path).selection->mapPriority,
                 (QMap<QString, qint32>{{u"/m"_s, 2}, {u"/z"_s, 4}}));
    }

    // A store that does not write back leaves its file as it was, and makes none, whatever
    // its values were changed to; it still reads what the file holds.
    void readOnlyStoreLeavesTheFile()
    {
        const QByteArray before = "[Duplicate_files]\nscanMethod=1\n";
        const QString path = freshPath(before), absent = freshPath();
        {
            TWPreferences prefs(path, false), none(absent, false);
            QCOMPARE(prefs.selection->scanMethod, TWSelectionPreferences::scanName);
            prefs.selection->scanMethod = TWSelectionPreferences::scanAllContent;
            none.general->hasSimilar = !none.general->hasSimilar;
        }
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly) && file.readAll() == before);
        QVERIFY(!QFile::exists(absent));
    }

    // Hand-edited and damaged files. "group/key=value -> dump line" rows: accepted values take effect;
    // anything else (out of range, wrong type, wrong group, foreign variant, broken lines) leaves
    // every default (no dump line), and no other key changes. The priority map is read from its own
    // group only, skipping entries without a positive number and a path. A save then leaves exactly
    // the keys of a clean file (no map group for an empty map) and sets only an oversized file aside;
    // a folder in the file's place is neither read nor replaced.
    void handEditedFiles_data()
    {
        QTest::addColumn<QByteArray>("content"); // empty: a folder
        QTest::addColumn<QString>("line");       // of the dump that differs from a fresh start
        const QByteArray rows =
            "Duplicate_files/selectDuplicate= 8  -> selectDuplicate=NoSelected;"
            "Duplicate_files/scanMethod=3 -> ;Similar_images/scanPriority=0 -> scanPriority=scanSpeed;"
            "Duplicate_files/scanMethod=rbPhash -> ;"
            "Duplicate_files/scanMethod=scanAllContent -> scanMethod=scanAllContent;"
            "Duplicate_files/scanMethod=@Variant(\\0\\0\\0\\x7f\\0\\0\\0\\nNoSuchType) -> ;"
            "Similar_images/scanPriority=4294967296 -> ;Common/RemovealMethod=1, 2 -> ;"
            "Common/ThreadCount= 3 -> ThreadCount=3;Common/ThreadCount=0 -> ;Common/ThreadCount=2.5 -> ;"
            "Similar_images/ThreadCount=5 -> ;Common/ScanFileType=2 -> ;"
            "Common/MaxFileSize=1 -> MaxFileSize=1;Common/MaxFileSize=100001 -> ;"
            "Common/MinFileSize=10000001 -> ;Common/MaxFileSize=18446744073709551616 -> ;"
            "Similar_images/SimilarityValue=101 -> ;Similar_images/imageMinSize=0 -> ;"
            "Duplicate_files/scanDupDirectory=TRUE -> scanDupDirectory=true;Common/HideSystemFile=nope -> ;"
            "Common/TrashFolder=/a, /b -> ;Common/TrashFolder=@Variant(\\0\\0\\0\\n\\x7f\\xff\\xff\\xf0) -> ;"
            "Common/IgnoreFileType=a, , \"\",b -> IgnoreFileType=a|b;"
            "Common/IgnorePathFile=@Variant(\\0\\0\\0\\x2\\0\\0\\0\\0\\x5) -> ;"
            "map/10=E:/A\n2=F:/B -> mapPriority={\"E:/A\":10,\"F:/B\":2};"
            "map/3=\"G:/a, b\" -> mapPriority={\"G:/a, b\":3};map/3=G:/a, b\n7=/c -> mapPriority={\"/c\":7};"
            "map/0=/z\n-3=/n\nabc=/w\n4=\n5=/ok\n99999999999=/h -> mapPriority={\"/ok\":5};map/0=/z -> ;"
            "Duplicate_files/mapPriority=1 -> ;Common/8=/no -> ;Common/=\nThreadCount\n\\\n[]\n[map]\n=x -> ;"
            "Common/Stale=1\n[Other]\nx=y -> ";
        for (const QByteArray &row : rows.split(';')) {
            const QByteArray line = row.left(row.indexOf(" -> "));
            const qsizetype slash = line.indexOf('/');
            QTest::newRow(QByteArray(line).replace('\n', ' ').constData())
                << '[' + line.left(slash) + "]\n" + line.mid(slash + 1) + '\n'
                << QString::fromUtf8(row.mid(line.size() + 4).trimmed());
        }
        QByteArray noise;
        for (int i = 0; i < 4096; ++i)
            noise += char(i * 131 + 17);
        QTest::newRow("binary noise") << noise << QString();
        QTest::newRow("oversized") << "[Common]\nThreadCount=9\n" + QByteArray(16 << 20, 'x') << QString();
        QTest::newRow("folder") << QByteArray() << QString();
    }
    void handEditedFiles()
    {
        QFETCH(QByteArray, content);
        QFETCH(QString, line);
        const QString path = freshPath(content), clean = content.isEmpty() ? path : freshPath();
        QVERIFY(content.isEmpty() ? QDir().mkpath(path) : !path.isEmpty());
        QStringList want = expected(u'-', "false autoSelect 55");
        if (!line.isEmpty())
            want.replaceInStrings(QRegularExpression(u'^' + line.section(u'=', 0, 0) + u"=.*"), line);
        {
            TWPreferences prefs(path), cleanPrefs(clean);
            QCOMPARE(dump(prefs), want);
            cleanPrefs.selection->mapPriority = prefs.selection->mapPriority;
        }
        QVERIFY(!content.isEmpty() || (QFileInfo(path).isDir() && QDir(path).isEmpty()));
        QCOMPARE(QFileInfo(path + u".bad"_s).size(), content.size() > 16 * 1024 * 1024 ? content.size() : 0);
        QCOMPARE(dump(TWPreferences(path)), want);
        QCOMPARE(QSettings(path, QSettings::IniFormat).allKeys(),
                 QSettings(clean, QSettings::IniFormat).allKeys());
    }

    // The next free number, also when a hand-edited file holds the largest number there is.
    void nextPriority_data()
    {
        QTest::addColumn<QString>("numbers"); // of the folders "/p<number>"
        QTest::addColumn<int>("next");
        for (const auto &[n, next] : {std::pair{"", 1}, {"1 5", 6}, {"2147483647", 1}, {"2147483647 1 2", 3}})
            QTest::addRow("%s", n) << QString::fromLatin1(n) << next;
    }
    void nextPriority()
    {
        QFETCH(QString, numbers);
        QFETCH(int, next);
        TWSelectionPreferences selection;
        for (const QString &number : numbers.split(u' ', Qt::SkipEmptyParts))
            selection.mapPriority.insert(u"/p"_s + number, number.toInt());
        QCOMPARE(selection.nextPriority(), next);
        QVERIFY(!selection.hasPriority(next));
        QCOMPARE(selection.hasPriority(1), selection.priorityOf(u"/p1"_s) == 1);
        QCOMPARE(selection.priorityOf(u"/P1"_s), 0); // paths are told apart by case
    }

    // What language() makes of a stored value (empty: none); setLanguage() accepts exactly the
    // values it keeps, and a refused value changes nothing.
    void language_data()
    {
        QTest::addColumn<QString>("stored");
        QTest::addColumn<int>("expected");
        for (const auto &[s, id] : {std::pair{"", 1}, {"1", 1}, {"7", 7}, {"0", 1}, {"8", 1}, {"French", 1}})
            QTest::addRow("%s", s) << QString::fromLatin1(s) << id;
    }
    void language()
    {
        QFETCH(QString, stored);
        QFETCH(int, expected);
        QSettings native(u"Orvant"_s, u"Twinfold"_s);
        stored.isEmpty() ? native.remove(u"Language"_s) : native.setValue(u"Language"_s, stored);
        QCOMPARE(TWPreferences::language(), expected);
        QCOMPARE(TWPreferences::setLanguage(stored.toInt()), stored.toInt() == expected);
        QCOMPARE(TWPreferences::language(), expected);
    }

    void singleInstance()
    {
        const QString path = TWPreferences::defaultFilePath();
        std::vector<TWPreferences *> seen(8, nullptr);
        std::vector<std::thread> threads;
        for (size_t i = 0; i < seen.size(); ++i)
            threads.emplace_back([&seen, i] { seen[i] = TWPreferences::instance(); });
        for (std::thread &thread : threads)
            thread.join();
        QCOMPARE(std::count(seen.cbegin(), seen.cend(), TWPreferences::instance()), 8);
        QVERIFY(seen.front()->filePath() == path && path.endsWith(u"/Orvant/Twinfold/preferences.cfg"_s));
        TWPreferences::instance()->ignoreList->OpenFolder = u"/last/added"_s;
        TWPreferences::releaseInstance(); // saves without an explicit save()
        TWPreferences::releaseInstance(); // a second release is harmless
        QCOMPARE(TWPreferences::instance()->ignoreList->OpenFolder, u"/last/added"_s);
        TWPreferences::releaseInstance();
    }
};

TWINFOLD_TEST_MAIN(TestTWPreferences)
#include "tst_twpreferences.moc"
