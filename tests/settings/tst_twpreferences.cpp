#include "platform/PreferencesDriveFallback.h"
#include "settings/TWPreferences.h"

#include "TestMain.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QSettings>
#include <QTemporaryDir>
#include <QThread>

#include <limits>
#include <thread>
#include <vector>

using Sel = TWSelectionPreferences;
using PriorityMap = QMap<QString, qint32>;

namespace {

// Every persisted value: its default as text ("$ideal" for the machine's thread count)
// and a changed value that stresses the file format.
struct Prop
{
    const char *object, *property, *defaultText;
    QVariant changed;
};

QList<Prop> allProperties()
{
    const auto list = [](const char *joined) { return QString::fromUtf8(joined).split(u'|'); };
    const char *ig = "ignoreList", *sel = "selection", *gen = "general";
    return {
        {ig, "ThreadCount", "$ideal", std::max(2, QThread::idealThreadCount()) + 3},
        {ig, "RemovealMethod", "moveToTrash", QVariant::fromValue(TWIgnoreListPreferences::moveToFolder)},
        {ig, "MaxFileSize", "100000", QVariant::fromValue<quint64>(2048)},
        {ig, "MinFileSize", "0", QVariant::fromValue<quint64>(10000000)},
        {ig, "TrashFolder", "", QStringLiteral("/tmp/bin, \"q\"; =eq [x] \u00e9t\u00e9")},
        {ig, "IgnorePathFile", "", list("/a,b/c|C:\\Users\\x y|@at")},
        {ig, "IgnoreFileType", "", list("tmp")},
        {ig, "OnlyFileType", "", list("jpg|PNG")},
        {ig, "HideSystemFile", "true", false},
        {ig, "ScanFileType", "0", 1},
        {ig, "OpenFolder", "", QStringLiteral("/open/here")},
        {ig, "SaveFolder", "", QStringLiteral("/save/there")},
        {ig, "deleteException", "0", 1},
        {sel, "scanMethod", "scanContent", QVariant::fromValue(Sel::scanAllContent)},
        {sel, "selectDuplicate", "autoSelect", QVariant::fromValue(Sel::NoSelected)},
        {sel, "mapPriority", "",
         QVariant::fromValue(PriorityMap{{QStringLiteral("E:/A"), 2}, {QStringLiteral("F:/B, c"), 10}})},
        {sel, "scanDupDirectory", "false", true},
        {gen, "hasSimilar", "true", false},
        {gen, "SimilarityValue", "55", 73},
        {gen, "FeaturesValue", "50", 20},
        {gen, "selectedSimilar", "false", true},
        {gen, "scanPriority", "scanResult", QVariant::fromValue(TWGenernalPreferences::scanCustom)},
        {gen, "selectionHint", "autoSelect", QVariant::fromValue(Sel::selectLowQuality)},
        {gen, "algorithmHint", "rbSmart", QVariant::fromValue(Sel::rbPhash)},
        {gen, "isAddFeatures", "true", false},
        {gen, "isImageType", "true", false},
        {gen, "isImageSize", "true", false},
        {gen, "imageMinSize", "4", 10},
    };
}

// One text for any property value, so that tables can hold expectations as text.
QString show(const QVariant &value)
{
    if (value.metaType() == QMetaType::fromType<PriorityMap>()) {
        QStringList parts;
        const PriorityMap map = value.value<PriorityMap>();
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            parts.append(it.key() + u'=' + QString::number(it.value()));
        return parts.join(u',');
    }
    return value.metaType().id() == QMetaType::QStringList ? value.toStringList().join(u'|')
                                                           : value.toString();
}

QString expectedText(const char *text)
{
    const QString expected = QString::fromUtf8(text);
    return expected == u"$ideal" ? QString::number(std::max(2, QThread::idealThreadCount())) : expected;
}

QObject *part(TWPreferences &prefs, const char *object)
{
    if (qstrcmp(object, "ignoreList") == 0)
        return prefs.ignoreList;
    return qstrcmp(object, "selection") == 0 ? static_cast<QObject *>(prefs.selection) : prefs.general;
}

// The object holding a property, found through the table.
QObject *owner(TWPreferences &prefs, const QByteArray &property)
{
    const QList<Prop> props = allProperties();
    const auto it =
        std::find_if(props.cbegin(), props.cend(), [&](const Prop &p) { return property == p.property; });
    return it == props.cend() ? nullptr : part(prefs, it->object);
}

void applyChanged(TWPreferences &prefs)
{
    const QList<Prop> props = allProperties();
    for (const Prop &p : props)
        QVERIFY2(part(prefs, p.object)->setProperty(p.property, p.changed), p.property);
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class TestTWPreferences : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    int m_counter = 0;
    QString freshPath() { return m_dir.filePath(QStringLiteral("p%1.cfg").arg(++m_counter)); }
    QString writtenFile(const QByteArray &content)
    {
        const QString path = freshPath();
        QFile file(path);
        if (file.open(QIODevice::WriteOnly))
            file.write(content);
        return path;
    }
    // A file saved with every value changed; the thresholds hold fractions that must be cut, not rounded.
    QString savedChanged()
    {
        const QString path = freshPath();
        TWPreferences prefs(path);
        applyChanged(prefs);
        prefs.general->SimilarityValue = 73.9f;
        prefs.general->FeaturesValue = 20.99f;
        return path; // destruction saves
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        // The native store must not be the user's own.
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope,
                           m_dir.filePath(QStringLiteral("native")));
        // The table must list every stored property (each object also has objectName).
        TWPreferences prefs(freshPath());
        int declared = 0;
        for (const char *object : {"ignoreList", "selection", "general"})
            declared += part(prefs, object)->metaObject()->propertyCount() - 1;
        QCOMPARE(declared, allProperties().size());
    }

    // Each property after a fresh start, a save and reread (all values changed at once, so
    // one leaking into another key shows), an assignment, and a partial reset.
    void eachProperty_data()
    {
        QTest::addColumn<int>("index");
        QTest::addColumn<QByteArray>("mode");
        const QList<Prop> props = allProperties();
        for (const char *mode : {"defaults", "round trip", "assignment", "reset"}) {
            for (int i = 0; i < props.size(); ++i)
                QTest::addRow("%s %s", mode, props.at(i).property) << i << QByteArray(mode);
        }
    }
    void eachProperty()
    {
        QFETCH(int, index);
        QFETCH(QByteArray, mode);
        const Prop p = allProperties().at(index);
        const QByteArray name(p.property);
        const QString path = mode == "round trip" ? savedChanged() : freshPath();
        TWPreferences prefs(path);
        bool changed = mode == "round trip";
        QCOMPARE(QFile::exists(path), mode == "round trip");
        if (mode == "assignment") {
            TWPreferences edited(freshPath());
            applyChanged(edited);
            edited.ignoreList->IgnoreBundle = true;
            edited.selection->similarSelectHint = Sel::selectHighQuality;
            edited.general->SimilarityValue = 73.25f;
            *prefs.ignoreList = *edited.ignoreList;
            *prefs.selection = *edited.selection;
            *prefs.general = *edited.general;
            changed = name != "OpenFolder" && name != "SaveFolder" && name != "deleteException";
            QCOMPARE(prefs.ignoreList->IgnoreBundle, true);
            QCOMPARE(prefs.selection->similarSelectHint, Sel::selectHighQuality);
            QCOMPARE(prefs.general->SimilarityValue, 73.25f);
        } else if (mode == "reset") {
            applyChanged(prefs);
            prefs.ignoreList->IgnoreBundle = true;
            prefs.selection->similarSelectHint = Sel::selectOldest;
            prefs.ignoreList->resetToDefaults();
            prefs.selection->resetToDefaults();
            prefs.general->resetToDefaults();
            changed = QByteArrayList{"TrashFolder", "IgnorePathFile", "IgnoreFileType",  "OnlyFileType",
                                     "OpenFolder",  "SaveFolder",     "deleteException", "mapPriority"}
                          .contains(name);
        }
        if (mode != "assignment") {
            QCOMPARE(prefs.ignoreList->IgnoreBundle, false);
            QCOMPARE(prefs.selection->similarSelectHint, Sel::autoSelect);
        }
        const QVariant actual = part(prefs, p.object)->property(p.property);
        if (changed)
            QCOMPARE(actual, p.changed);
        else
            QCOMPARE(show(actual), expectedText(p.defaultText));
    }

    void fileLayout()
    {
        const QString path = savedChanged();
        const QByteArray text = readFile(path);
        for (const char *type :
             {"TWSelectionPreferences::TWScanMethod", "TWSelectionPreferences::TWSelectionHint",
              "TWSelectionPreferences::TWAlgorithmsHint", "TWGenernalPreferences::TWScanPriority",
              "TWIgnoreListPreferences::TWRemovalMethod"})
            QVERIFY2(text.contains("=@Variant(") && text.contains(type), type);
        QVERIFY(text.contains("\nSimilarityValue=73\n") && text.contains("\nFeaturesValue=20\n"));
        QSettings raw(path, QSettings::IniFormat);
        QCOMPARE(raw.childGroups(),
                 QString::fromLatin1("Common,Duplicate_files,Similar_images,map").split(u','));
        QVERIFY(!raw.contains(QStringLiteral("Duplicate_files/mapPriority")));
        QVERIFY(!raw.contains(QStringLiteral("Common/IgnoreBundle")));
        QCOMPARE(raw.value(QStringLiteral("map/10")).toString(), QStringLiteral("F:/B, c"));
    }

    void mapSaving()
    {
        const QString path = writtenFile("[map]\n1=E:/A\n2=F:/B\n");
        {
            TWPreferences prefs(path);
            QCOMPARE(prefs.selection->mapPriority.size(), 2);
            prefs.selection->mapPriority.clear();
        }
        QVERIFY(!readFile(path).contains("[map]")); // an empty map leaves no group behind
        TWPreferences(path).selection->mapPriority = {{QStringLiteral("/c"), 4},
                                                      {QStringLiteral("/z"), 4},
                                                      {QStringLiteral("/a"), 4},
                                                      {QStringLiteral("/m"), 2}};
        QCOMPARE(show(QVariant::fromValue(TWPreferences(path).selection->mapPriority)),
                 QStringLiteral("/m=2,/z=4"));
    }

    // Hand-edited "group/key=value -> expected" rows: accepted values take effect, anything else
    // (out of range, wrong type, wrong group, foreign variant) leaves the default. The priority
    // map is read from its own group only, skipping entries without a positive number and a path.
    void handWrittenValues_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<QString>("expected");
        const QByteArray rows =
            "Duplicate_files/scanMethod=1 -> scanName;"
            "Duplicate_files/selectDuplicate= 8  -> NoSelected;"
            "Duplicate_files/scanMethod=scanAllContent -> scanAllContent;"
            "Common/RemovealMethod=2 -> moveToFolder;Similar_images/algorithmHint=1 -> rbHistogram;"
            "Similar_images/scanPriority=0 -> scanSpeed;Duplicate_files/scanMethod=3 -> scanContent;"
            "Duplicate_files/scanMethod=-1 -> scanContent;"
            "Duplicate_files/scanMethod=rbPhash -> scanContent;"
            "Duplicate_files/scanMethod=@Variant(\\0\\0\\0\\x7f\\0\\0\\0\\nNoSuchType) -> scanContent;"
            "Similar_images/scanPriority=4294967297 -> scanResult;"
            "Common/RemovealMethod=1, 2 -> moveToTrash;Common/ThreadCount= 3 -> 3;"
            "Common/ThreadCount=0 -> $ideal;Common/ThreadCount=2.5 -> $ideal;"
            "Similar_images/ThreadCount=5 -> $ideal;Common/ScanFileType=2 -> 0;"
            "Common/MaxFileSize=1 -> 1;Common/MaxFileSize=100001 -> 100000;"
            "Common/MaxFileSize=18446744073709551616 -> 100000;Common/MinFileSize=10000001 -> 0;"
            "Similar_images/SimilarityValue=101 -> 55;Similar_images/imageMinSize=0 -> 4;"
            "Duplicate_files/scanDupDirectory=TRUE -> true;Common/HideSystemFile=nope -> true;"
            "Common/TrashFolder=/a, /b -> ;Common/IgnoreFileType=a, , \"\",b -> a|b;"
            "Common/IgnorePathFile=@Variant(\\0\\0\\0\\x2\\0\\0\\0\\0\\x5) -> ;"
            "map/10=E:/A\n2=F:/B -> E:/A=10,F:/B=2;map/3=\"G:/a, b\" -> G:/a, b=3;"
            "map/0=/z\n-3=/n\nabc=/w\n4=\n5=/ok\n99999999999=/h -> /ok=5;"
            "map/3=G:/a, b\n7=/c -> /c=7;Duplicate_files/mapPriority=1 -> ;Common/8=/no -> ";
        for (const QByteArray &row : rows.split(';')) {
            const qsizetype arrow = row.indexOf(" -> ");
            QTest::newRow(QByteArray(row.left(arrow)).replace('\n', ' ').constData())
                << row.left(arrow) << expectedText(row.mid(arrow + 4).trimmed().constData());
        }
    }
    void handWrittenValues()
    {
        QFETCH(QByteArray, line);
        QFETCH(QString, expected);
        const qsizetype slash = line.indexOf('/');
        TWPreferences prefs(writtenFile('[' + line.left(slash) + "]\n" + line.mid(slash + 1) + '\n'));
        const QByteArray key = line.mid(slash + 1, line.indexOf('=') - slash - 1);
        const QByteArray property = owner(prefs, key) ? key : "mapPriority"; // other keys are map entries
        QCOMPARE(show(owner(prefs, property)->property(property.constData())), expected);
    }

    void damagedFiles_data()
    {
        QTest::addColumn<QByteArray>("content");
        QByteArray noise;
        for (int i = 0; i < 4096; ++i)
            noise.append(static_cast<char>((i * 131 + 17) % 256));
        QTest::newRow("binary noise") << noise;
        QTest::newRow("unterminated group") << QByteArray("[Common\nThreadCount=abc\n");
        QTest::newRow("keys without values") << QByteArray("[Common]\n=\nThreadCount\n\\\n[]\n[map]\n=x\n");
        QTest::newRow("variant claiming a huge string")
            << QByteArray("[Common]\nTrashFolder=@Variant(\\0\\0\\0\\n\\x7f\\xff\\xff\\xf0)\n");
        QTest::newRow("stale keys") << QByteArray("[Common]\nStale=1\n[Other]\nx=y\n");
        const QByteArray saved = readFile(savedChanged());
        QTest::newRow("cut inside a variant") << saved.left(saved.indexOf("@Variant(") + 14);
        QTest::newRow("cut at half") << saved.left(saved.size() / 2);
        QTest::newRow("oversized") << "[Common]\nThreadCount=9\n" + QByteArray(17 * 1024 * 1024, 'x');
    }
    // No crash, sane values, only an oversized file set aside, and a save that leaves exactly
    // the keys of a clean file.
    void damagedFiles()
    {
        QFETCH(QByteArray, content);
        const QString path = writtenFile(content), clean = freshPath();
        for (const QString &file : {path, clean}) {
            TWPreferences prefs(file);
            QVERIFY(prefs.ignoreList->ThreadCount >= 1);
            QVERIFY(prefs.ignoreList->MaxFileSize >= 1 && prefs.ignoreList->MaxFileSize <= 100000);
            prefs.ignoreList->ThreadCount = 7;
            prefs.selection->mapPriority = {{QStringLiteral("/kept"), 3}};
        }
        QCOMPARE(QFileInfo(path + QStringLiteral(".bad")).size(),
                 content.size() > 16 * 1024 * 1024 ? content.size() : 0);
        TWPreferences reread(path);
        QCOMPARE(reread.ignoreList->ThreadCount, 7);
        QCOMPARE(reread.selection->mapPriority, (PriorityMap{{QStringLiteral("/kept"), 3}}));
        QCOMPARE(QSettings(path, QSettings::IniFormat).allKeys(),
                 QSettings(clean, QSettings::IniFormat).allKeys());
    }

    void directoryInsteadOfFile()
    {
        const QString dirPath = freshPath();
        QVERIFY(QDir().mkpath(dirPath));
        TWPreferences(dirPath).save(); // nothing can be written, nothing breaks
        QVERIFY(QFileInfo(dirPath).isDir());
    }

    void toJsonOrderAndValues()
    {
        TWPreferences prefs(freshPath());
        applyChanged(prefs);
        prefs.ignoreList->ThreadCount = 6;
        prefs.ignoreList->TrashFolder = QStringLiteral("/t");
        prefs.ignoreList->IgnoreBundle = true;
        prefs.selection->similarSelectHint = Sel::selectLowResolution;
        prefs.general->SimilarityValue = 62.5f; // the float itself, not the whole percent
        const QByteArray ignore(
            R"({"MaxFileSize":2048,"MinFileSize":10000000,"IgnoreSystemHidden":false,"IgnoreBundle":true,)"
            R"("ScanFileType":1,"ThreadCount":6,"TrashFolder":"/t","OpenFolder":"/open/here",)"
            R"("SaveFolder":"/save/there","IgnorePathFile":["/a,b/c","C:\\Users\\x y","@at"],)"
            R"("IgnoreFileType":["tmp"],"OnlyFileType":["jpg","PNG"]})");
        const QByteArray selection(R"({"scanMethod":2,"duplicateSelectHint":8,"similarSelectHint":5,)"
                                   R"("scanDupDirectory":true,"mapPriority":{"E:/A":2,"F:/B, c":10}})");
        const QByteArray general(
            R"({"hasSimilar":false,"SimilarityValue":62.5,"FeaturesValue":20,)"
            R"("selectedSimilar":true,"scanPriority":2,"selectionHint":7,"algorithmHint":2,)"
            R"("isAddFeatures":false,"isImageType":false,"isImageSize":false,"imageMinSize":10})");
        QCOMPARE(prefs.ignoreList->toJsonText(), ignore);
        QCOMPARE(prefs.selection->toJsonText(), selection);
        QCOMPARE(prefs.general->toJsonText(), general);
        QCOMPARE(prefs.general->toJson(), QJsonDocument::fromJson(general).object());
        // Keys outside the order still appear, after the ordered ones.
        const QJsonObject extra{{QStringLiteral("b"), 1}, {QStringLiteral("a"), QStringLiteral("x\"y")}};
        QCOMPARE(TWPreferences::orderedJson(extra, {QStringLiteral("missing"), QStringLiteral("b")}),
                 QByteArray("{\"b\":1,\"a\":\"x\\\"y\"}"));
    }

    void priorityHelpers_data()
    {
        QTest::addColumn<PriorityMap>("map");
        QTest::addColumn<int>("next");
        const int top = std::numeric_limits<qint32>::max();
        const QString a = QStringLiteral("/a"), b = QStringLiteral("/b");
        QTest::newRow("empty") << PriorityMap() << 1;
        QTest::newRow("one") << PriorityMap{{a, 1}} << 2;
        QTest::newRow("gap") << PriorityMap{{a, 1}, {b, 5}} << 6;
        QTest::newRow("top number") << PriorityMap{{a, top}} << 1;
        QTest::newRow("top and 1, 2") << PriorityMap{{a, top}, {b, 1}, {QStringLiteral("/c"), 2}} << 3;
    }
    void priorityHelpers()
    {
        QFETCH(PriorityMap, map);
        QFETCH(int, next);
        TWSelectionPreferences selection;
        selection.mapPriority = map;
        QCOMPARE(selection.nextPriority(), next);
        QVERIFY(!selection.hasPriority(next));
        for (int number : {0, 1, 2, 3, 5, std::numeric_limits<qint32>::max()})
            QCOMPARE(selection.hasPriority(number), map.values().contains(number));
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            QCOMPARE(selection.priorityOf(it.key()), it.value());
        QCOMPARE(selection.priorityOf(QStringLiteral("/A")), 0); // paths are told apart by case
    }

    // What language() makes of a stored value; setLanguage() accepts exactly the values it keeps.
    void language_data()
    {
        QTest::addColumn<QString>("stored"); // the native store keeps text; empty: no value
        QTest::addColumn<int>("expected");
        const std::pair<const char *, int> rows[] = {{"", 1},  {"1", 1}, {"7", 7},           {"3", 3},
                                                     {"0", 1}, {"8", 1}, {"-2147483648", 1}, {"French", 1}};
        for (const auto &[stored, expected] : rows)
            QTest::addRow("%s", stored) << QString::fromLatin1(stored) << expected;
    }
    void language()
    {
        QFETCH(QString, stored);
        QFETCH(int, expected);
        {
            QSettings native(QStringLiteral("Orvant"), QStringLiteral("Twinfold"));
            QVERIFY(native.fileName().startsWith(m_dir.path()));
            native.setValue(QStringLiteral("Language"), stored);
            if (stored.isEmpty())
                native.remove(QStringLiteral("Language"));
        }
        QCOMPARE(TWPreferences::language(), expected);
        QCOMPARE(TWPreferences::setLanguage(stored.toInt()), stored.toInt() == expected);
        QCOMPARE(TWPreferences::language(), expected); // a refused value changes nothing
    }

    void singleInstance()
    {
        const QString path = TWPreferences::defaultFilePath();
        QVERIFY(path.endsWith(QStringLiteral("/Orvant/Twinfold/preferences.cfg")));
        QFile::remove(path);
        std::vector<TWPreferences *> seen(8, nullptr);
        std::vector<std::thread> threads;
        for (size_t i = 0; i < seen.size(); ++i)
            threads.emplace_back([&seen, i] { seen[i] = TWPreferences::instance(); });
        for (std::thread &thread : threads)
            thread.join();
        for (TWPreferences *p : seen)
            QCOMPARE(p, TWPreferences::instance());
        QCOMPARE(seen.front()->filePath(), path);
        TWPreferences::instance()->ignoreList->OpenFolder = QStringLiteral("/last/added");
        TWPreferences::releaseInstance(); // saves without an explicit save()
        TWPreferences::releaseInstance(); // a second release is harmless
        QCOMPARE(TWPreferences::instance()->ignoreList->OpenFolder, QStringLiteral("/last/added"));
        TWPreferences::releaseInstance();
        QFile::remove(path);
    }
};

TWINFOLD_TEST_MAIN(TestTWPreferences)
#include "tst_twpreferences.moc"
