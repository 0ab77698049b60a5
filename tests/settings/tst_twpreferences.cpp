#include "settings/TWPreferences.h"

#include "TestMain.h"

#include <QSettings>
#include <QTemporaryDir>
#include <QThread>

#include <limits>
#include <thread>
#include <vector>

using Sel = TWSelectionPreferences;
using PriorityMap = QMap<QString, qint32>;
using namespace Qt::StringLiterals;

namespace {

// Every persisted value: its default as text ("$ideal" for the machine's thread count)
// and a changed value that stresses the file format.
struct Prop
{
    const char *property, *defaultText;
    QVariant changed;
};

QList<Prop> allProperties()
{
    const auto list = [](const char *joined) { return QVariant(QString::fromUtf8(joined).split(u'|')); };
    const auto v = [](auto value) { return QVariant::fromValue(value); };
    return {{"ThreadCount", "$ideal", std::max(2, QThread::idealThreadCount()) + 3},
            {"RemovealMethod", "moveToTrash", v(TWIgnoreListPreferences::moveToFolder)},
            {"MaxFileSize", "100000", v(quint64(2048))},
            {"MinFileSize", "0", v(quint64(10000000))},
            {"TrashFolder", "", u"/tmp/bin, \"q\"; =eq [x] \u00e9t\u00e9"_s},
            {"IgnorePathFile", "", list("/a,b/c|C:\\Users\\x y|@at")},
            {"IgnoreFileType", "", list("tmp")},
            {"OnlyFileType", "", list("jpg|PNG")},
            {"HideSystemFile", "true", false},
            {"ScanFileType", "0", 1},
            {"OpenFolder", "", u"/open/here"_s},
            {"SaveFolder", "", u"/save/there"_s},
            {"deleteException", "0", 1},
            {"scanMethod", "scanContent", v(Sel::scanAllContent)},
            {"selectDuplicate", "autoSelect", v(Sel::NoSelected)},
            {"mapPriority", "", v(PriorityMap{{u"E:/A"_s, 2}, {u"F:/B, c"_s, 10}})},
            {"scanDupDirectory", "false", true},
            {"hasSimilar", "true", false},
            {"SimilarityValue", "55", 73},
            {"FeaturesValue", "50", 20},
            {"selectedSimilar", "false", true},
            {"scanPriority", "scanResult", v(TWGenernalPreferences::scanCustom)},
            {"selectionHint", "autoSelect", v(Sel::selectLowQuality)},
            {"algorithmHint", "rbSmart", v(Sel::rbPhash)},
            {"isAddFeatures", "true", false},
            {"isImageType", "true", false},
            {"isImageSize", "true", false},
            {"imageMinSize", "4", 10}};
}

// One text for any property value, so that tables can hold expectations as text.
QString show(const QVariant &value)
{
    QStringList parts;
    const PriorityMap map = value.value<PriorityMap>();
    for (auto it = map.cbegin(); it != map.cend(); ++it)
        parts.append(it.key() + u'=' + QString::number(it.value()));
    if (value.metaType() == QMetaType::fromType<PriorityMap>())
        return parts.join(u',');
    return value.metaType().id() == QMetaType::QStringList ? value.toStringList().join(u'|')
                                                           : value.toString();
}

QString expectedText(const QString &text)
{
    return text == u"$ideal" ? QString::number(std::max(2, QThread::idealThreadCount())) : text;
}

QList<QObject *> parts(const TWPreferences &prefs)
{
    return {prefs.ignoreList, prefs.selection, prefs.general};
}

// The object holding a property (null when none does), and the property's value as text.
QObject *owner(const TWPreferences &prefs, const char *property)
{
    for (QObject *object : parts(prefs))
        if (object->metaObject()->indexOfProperty(property) >= 0)
            return object;
    return nullptr;
}
QString value(const TWPreferences &prefs, const char *property)
{
    return show(owner(prefs, property)->property(property));
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
    QString freshPath() { return m_dir.filePath(u"p%1.cfg"_s.arg(++m_counter)); }
    QString writtenFile(const QByteArray &content)
    {
        const QString path = freshPath();
        QFile file(path);
        return file.open(QIODevice::WriteOnly) && file.write(content) == content.size() ? path : QString();
    }
    // A file saved with every value changed; the thresholds hold fractions that must be cut, not rounded.
    QString savedChanged()
    {
        const QString path = freshPath();
        TWPreferences prefs(path);
        for (const Prop &p : allProperties())
            owner(prefs, p.property)->setProperty(p.property, p.changed);
        prefs.ignoreList->IgnoreBundle = true;                  // not stored
        prefs.selection->similarSelectHint = Sel::selectOldest; // not stored
        prefs.general->SimilarityValue = 73.9f;
        prefs.general->FeaturesValue = 20.99f;
        return path; // destruction saves
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        // The native store must not be the user's own.
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_dir.filePath(u"native"_s));
        // The table must list every stored property (each object also has objectName).
        TWPreferences prefs(freshPath());
        int declared = 0;
        for (QObject *object : parts(prefs))
            declared += object->metaObject()->propertyCount() - 1;
        QCOMPARE(declared, allProperties().size());
    }

    // Each property on a fresh start, after a save and reread (all values changed at once,
    // so one leaking into another key shows), copied by assignment, and after a reset, which
    // leaves folders, lists and priorities alone. Values the file does not hold are still
    // copied and reset.
    void eachProperty_data()
    {
        QTest::addColumn<int>("index");
        const QList<Prop> props = allProperties();
        for (int i = 0; i < props.size(); ++i)
            QTest::addRow("%s", props.at(i).property) << i;
    }
    void eachProperty()
    {
        QFETCH(int, index);
        const Prop p = allProperties().at(index);
        const QByteArray name(p.property);
        const QString freshFile = freshPath();
        TWPreferences fresh(freshFile), reread(savedChanged());
        QVERIFY(!QFile::exists(freshFile)); // reading alone writes nothing
        const QString before = expectedText(QString::fromUtf8(p.defaultText)), after = show(p.changed);
        QCOMPARE(value(fresh, p.property), before);
        QCOMPARE(value(reread, p.property), after);
        QVERIFY(!reread.ignoreList->IgnoreBundle && reread.selection->similarSelectHint == Sel::autoSelect);

        reread.ignoreList->IgnoreBundle = true;
        reread.selection->similarSelectHint = Sel::selectHighQuality;
        reread.general->SimilarityValue = 73.25f;
        *fresh.ignoreList = *reread.ignoreList;
        *fresh.selection = *reread.selection;
        *fresh.general = *reread.general;
        const bool copied = name != "OpenFolder" && name != "SaveFolder" && name != "deleteException";
        QCOMPARE(value(fresh, p.property), copied ? after : before);
        QVERIFY(fresh.ignoreList->IgnoreBundle &&
                fresh.selection->similarSelectHint == Sel::selectHighQuality);
        QCOMPARE(fresh.general->SimilarityValue, 73.25f);

        reread.ignoreList->resetToDefaults();
        reread.selection->resetToDefaults();
        reread.general->resetToDefaults();
        const bool kept = QByteArrayList{"TrashFolder", "IgnorePathFile", "IgnoreFileType",  "OnlyFileType",
                                         "OpenFolder",  "SaveFolder",     "deleteException", "mapPriority"}
                              .contains(name);
        QCOMPARE(value(reread, p.property), kept ? after : before);
        QVERIFY(!reread.ignoreList->IgnoreBundle && reread.selection->similarSelectHint == Sel::autoSelect);
    }

    // The stored text (enumerations as typed variants, thresholds cut to whole percents, the
    // priorities in their own group) and the scan's JSON with its fixed key order.
    void fileAndJsonLayout()
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
        QCOMPARE(raw.childGroups(), u"Common,Duplicate_files,Similar_images,map"_s.split(u','));
        QVERIFY(!raw.contains(u"Duplicate_files/mapPriority"_s) && !raw.contains(u"Common/IgnoreBundle"_s));
        QCOMPARE(raw.value(u"map/10"_s).toString(), u"F:/B, c"_s);
        // An emptied map leaves no group behind; two folders with one number keep the last by path.
        TWPreferences(path).selection->mapPriority.clear();
        QVERIFY(!readFile(path).contains("[map]"));
        TWPreferences(path).selection->mapPriority = {{u"/c"_s, 4}, {u"/z"_s, 4}, {u"/a"_s, 4}, {u"/m"_s, 2}};
        QCOMPARE(value(TWPreferences(path), "mapPriority"), u"/m=2,/z=4"_s);

        TWPreferences prefs(savedChanged());
        prefs.ignoreList->ThreadCount = 6;
        prefs.ignoreList->TrashFolder = u"/t"_s;
        prefs.ignoreList->IgnoreBundle = true;
        prefs.selection->similarSelectHint = Sel::selectLowResolution;
        prefs.general->SimilarityValue = 62.5f; // the float itself, not the whole percent
        QCOMPARE(prefs.ignoreList->toJsonText(),
                 QByteArray(R"({"MaxFileSize":2048,"MinFileSize":10000000,"IgnoreSystemHidden":false,)"
                            R"("IgnoreBundle":true,"ScanFileType":1,"ThreadCount":6,"TrashFolder":"/t",)"
                            R"("OpenFolder":"/open/here","SaveFolder":"/save/there",)"
                            R"("IgnorePathFile":["/a,b/c","C:\\Users\\x y","@at"],"IgnoreFileType":["tmp"],)"
                            R"("OnlyFileType":["jpg","PNG"]})"));
        QCOMPARE(prefs.selection->toJsonText(),
                 QByteArray(R"({"scanMethod":2,"duplicateSelectHint":8,"similarSelectHint":5,)"
                            R"("scanDupDirectory":true,"mapPriority":{"E:/A":2,"F:/B, c":10}})"));
        QCOMPARE(prefs.general->toJsonText(),
                 QByteArray(
                     R"({"hasSimilar":false,"SimilarityValue":62.5,"FeaturesValue":20,)"
                     R"("selectedSimilar":true,"scanPriority":2,"selectionHint":7,"algorithmHint":2,)"
                     R"("isAddFeatures":false,"isImageType":false,"isImageSize":false,"imageMinSize":10})"));
        // Keys outside the order still appear, after the ordered ones.
        QCOMPARE(TWPreferences::orderedJson({{u"b"_s, 1}, {u"a"_s, u"x\"y"_s}}, {u"missing"_s, u"b"_s}),
                 QByteArray("{\"b\":1,\"a\":\"x\\\"y\"}"));
    }

    // Hand-edited "group/key=value -> expected" rows: accepted values take effect, anything else
    // (out of range, wrong type, wrong group, foreign variant) leaves the default. The priority
    // map is read from its own group only, skipping entries without a positive number and a path.
    void handWrittenValues_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<QString>("expected");
        const QByteArray rows =
            "Duplicate_files/scanMethod=1 -> scanName;Duplicate_files/selectDuplicate= 8  -> NoSelected;"
            "Duplicate_files/scanMethod=scanAllContent -> scanAllContent;Similar_images/scanPriority=0 -> "
            "scanSpeed;"
            "Duplicate_files/scanMethod=3 -> scanContent;Duplicate_files/scanMethod=-1 -> scanContent;"
            "Duplicate_files/scanMethod=rbPhash -> scanContent;"
            "Duplicate_files/scanMethod=@Variant(\\0\\0\\0\\x7f\\0\\0\\0\\nNoSuchType) -> scanContent;"
            "Similar_images/scanPriority=4294967297 -> scanResult;Common/RemovealMethod=1, 2 -> moveToTrash;"
            "Common/ThreadCount= 3 -> 3;Common/ThreadCount=0 -> $ideal;Common/ThreadCount=2.5 -> $ideal;"
            "Similar_images/ThreadCount=5 -> $ideal;Common/ScanFileType=2 -> 0;Common/MaxFileSize=1 -> 1;"
            "Common/MaxFileSize=100001 -> 100000;Common/MaxFileSize=18446744073709551616 -> 100000;"
            "Common/MinFileSize=10000001 -> 0;Similar_images/SimilarityValue=101 -> 55;"
            "Similar_images/imageMinSize=0 -> 4;Duplicate_files/scanDupDirectory=TRUE -> true;"
            "Common/HideSystemFile=nope -> true;Common/TrashFolder=/a, /b -> ;"
            "Common/IgnoreFileType=a, , \"\",b -> a|b;"
            "Common/IgnorePathFile=@Variant(\\0\\0\\0\\x2\\0\\0\\0\\0\\x5) -> ;"
            "map/10=E:/A\n2=F:/B -> E:/A=10,F:/B=2;map/3=\"G:/a, b\" -> G:/a, b=3;"
            "map/0=/z\n-3=/n\nabc=/w\n4=\n5=/ok\n99999999999=/h -> /ok=5;map/3=G:/a, b\n7=/c -> /c=7;"
            "Duplicate_files/mapPriority=1 -> ;Common/8=/no -> ";
        for (const QByteArray &row : rows.split(';')) {
            const qsizetype arrow = row.indexOf(" -> ");
            QTest::newRow(QByteArray(row.left(arrow)).replace('\n', ' ').constData())
                << row.left(arrow) << expectedText(QString::fromUtf8(row.mid(arrow + 4).trimmed()));
        }
    }
    void handWrittenValues()
    {
        QFETCH(QByteArray, line);
        QFETCH(QString, expected);
        const qsizetype slash = line.indexOf('/');
        TWPreferences prefs(writtenFile('[' + line.left(slash) + "]\n" + line.mid(slash + 1) + '\n'));
        const QByteArray key = line.mid(slash + 1, line.indexOf('=') - slash - 1);
        // Other keys are map entries.
        QCOMPARE(value(prefs, owner(prefs, key.constData()) ? key.constData() : "mapPriority"), expected);
    }

    // No crash, sane values, only an oversized file set aside, and a save that leaves exactly
    // the keys of a clean file. A folder in the file's place is neither read nor replaced.
    void damagedFiles_data()
    {
        QTest::addColumn<QByteArray>("content"); // empty: a folder
        QByteArray noise;
        for (int i = 0; i < 4096; ++i)
            noise.append(static_cast<char>((i * 131 + 17) % 256));
        const QByteArray saved = readFile(savedChanged());
        QTest::newRow("binary noise") << noise;
        QTest::newRow("unterminated group") << QByteArray("[Common\nThreadCount=abc\n");
        QTest::newRow("keys without values") << QByteArray("[Common]\n=\nThreadCount\n\\\n[]\n[map]\n=x\n");
        QTest::newRow("variant claiming a huge string")
            << QByteArray("[Common]\nTrashFolder=@Variant(\\0\\0\\0\\n\\x7f\\xff\\xff\\xf0)\n");
        QTest::newRow("stale keys") << QByteArray("[Common]\nStale=1\n[Other]\nx=y\n");
        QTest::newRow("cut inside a variant") << saved.left(saved.indexOf("@Variant(") + 14);
        QTest::newRow("oversized") << "[Common]\nThreadCount=9\n" + QByteArray(17 * 1024 * 1024, 'x');
        QTest::newRow("folder") << QByteArray();
    }
    void damagedFiles()
    {
        QFETCH(QByteArray, content);
        const QString path = content.isEmpty() ? freshPath() : writtenFile(content), clean = freshPath();
        QVERIFY(content.isEmpty() ? QDir().mkpath(path) : !path.isEmpty());
        for (const QString &file : {path, clean}) {
            TWPreferences prefs(file);
            QVERIFY(prefs.ignoreList->ThreadCount >= 1);
            QVERIFY(prefs.ignoreList->MaxFileSize >= 1 && prefs.ignoreList->MaxFileSize <= 100000);
            prefs.ignoreList->ThreadCount = 7;
            prefs.selection->mapPriority = {{u"/kept"_s, 3}};
        }
        if (content.isEmpty()) {
            QVERIFY(QFileInfo(path).isDir() && QDir(path).isEmpty());
            return;
        }
        QCOMPARE(QFileInfo(path + u".bad"_s).size(), content.size() > 16 * 1024 * 1024 ? content.size() : 0);
        TWPreferences reread(path);
        QCOMPARE(reread.ignoreList->ThreadCount, 7);
        QCOMPARE(reread.selection->mapPriority, (PriorityMap{{u"/kept"_s, 3}}));
        QCOMPARE(QSettings(path, QSettings::IniFormat).allKeys(),
                 QSettings(clean, QSettings::IniFormat).allKeys());
    }

    // The next free number, also when a hand-edited file holds the largest number there is.
    void nextPriority_data()
    {
        QTest::addColumn<PriorityMap>("map");
        QTest::addColumn<int>("next");
        const int top = std::numeric_limits<qint32>::max();
        QTest::newRow("empty") << PriorityMap() << 1;
        QTest::newRow("gap") << PriorityMap{{u"/a"_s, 1}, {u"/b"_s, 5}} << 6;
        QTest::newRow("top number") << PriorityMap{{u"/a"_s, top}} << 1;
        QTest::newRow("top and 1, 2") << PriorityMap{{u"/a"_s, top}, {u"/b"_s, 1}, {u"/c"_s, 2}} << 3;
    }
    void nextPriority()
    {
        QFETCH(PriorityMap, map);
        QFETCH(int, next);
        TWSelectionPreferences selection;
        selection.mapPriority = map;
        QCOMPARE(selection.nextPriority(), next);
        QVERIFY(!selection.hasPriority(next));
        QCOMPARE(selection.hasPriority(1), map.values().contains(1));
        QCOMPARE(selection.priorityOf(u"/A"_s), 0); // paths are told apart by case
    }

    // What language() makes of a stored value (empty: none); setLanguage() accepts exactly the
    // values it keeps, and a refused value changes nothing.
    void language_data()
    {
        QTest::addColumn<QString>("stored");
        QTest::addColumn<int>("expected");
        const std::pair<const char *, int> rows[] = {{"", 1},  {"1", 1},           {"7", 7},     {"0", 1},
                                                     {"8", 1}, {"-2147483648", 1}, {"French", 1}};
        for (const auto &[stored, expected] : rows)
            QTest::addRow("%s", stored) << QString::fromLatin1(stored) << expected;
    }
    void language()
    {
        QFETCH(QString, stored);
        QFETCH(int, expected);
        {
            QSettings native(u"Orvant"_s, u"Twinfold"_s);
            QVERIFY(native.fileName().startsWith(m_dir.path()));
            native.setValue(u"Language"_s, stored);
            if (stored.isEmpty())
                native.remove(u"Language"_s);
        }
        QCOMPARE(TWPreferences::language(), expected);
        QCOMPARE(TWPreferences::setLanguage(stored.toInt()), stored.toInt() == expected);
        QCOMPARE(TWPreferences::language(), expected);
    }

    void singleInstance()
    {
        const QString path = TWPreferences::defaultFilePath();
        QVERIFY(path.endsWith(u"/Orvant/Twinfold/preferences.cfg"_s));
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
        TWPreferences::instance()->ignoreList->OpenFolder = u"/last/added"_s;
        TWPreferences::releaseInstance(); // saves without an explicit save()
        TWPreferences::releaseInstance(); // a second release is harmless
        QCOMPARE(TWPreferences::instance()->ignoreList->OpenFolder, u"/last/added"_s);
        TWPreferences::releaseInstance();
        QFile::remove(path);
    }
};

TWINFOLD_TEST_MAIN(TestTWPreferences)
#include "tst_twpreferences.moc"
