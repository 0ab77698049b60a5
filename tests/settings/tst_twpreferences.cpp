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

// Every persisted value: its documented default (as text, "$ideal" for the machine's
// thread count) and a changed value that stresses the file format.
struct Prop
{
    const char *object;
    const char *property;
    const char *defaultText;
    QVariant changed;
};

QList<Prop> allProperties()
{
    const auto list = [](const char *joined) { return QString::fromUtf8(joined).split(u'|'); };
    return {
        {"ignoreList", "ThreadCount", "$ideal", std::max(2, QThread::idealThreadCount()) + 3},
        {"ignoreList", "RemovealMethod", "moveToTrash",
         QVariant::fromValue(TWIgnoreListPreferences::moveToFolder)},
        {"ignoreList", "MaxFileSize", "100000", QVariant::fromValue<quint64>(2048)},
        {"ignoreList", "MinFileSize", "0", QVariant::fromValue<quint64>(10000000)},
        {"ignoreList", "TrashFolder", "", QStringLiteral("/tmp/bin, \"q\"; =eq [x] \u00e9t\u00e9")},
        {"ignoreList", "IgnorePathFile", "", list("/a,b/c|C:\\Users\\x y|@at")},
        {"ignoreList", "IgnoreFileType", "", list("tmp")},
        {"ignoreList", "OnlyFileType", "", list("jpg|PNG")},
        {"ignoreList", "HideSystemFile", "true", false},
        {"ignoreList", "ScanFileType", "0", 1},
        {"ignoreList", "OpenFolder", "", QStringLiteral("/open/here")},
        {"ignoreList", "SaveFolder", "", QStringLiteral("/save/there")},
        {"ignoreList", "deleteException", "0", 1},
        {"selection", "scanMethod", "scanContent", QVariant::fromValue(Sel::scanAllContent)},
        {"selection", "selectDuplicate", "autoSelect", QVariant::fromValue(Sel::NoSelected)},
        {"selection", "mapPriority", "",
         QVariant::fromValue(PriorityMap{{QStringLiteral("E:/A"), 2}, {QStringLiteral("F:/B, c"), 10}})},
        {"selection", "scanDupDirectory", "false", true},
        {"general", "hasSimilar", "true", false},
        {"general", "SimilarityValue", "55", 73},
        {"general", "FeaturesValue", "50", 20},
        {"general", "selectedSimilar", "false", true},
        {"general", "scanPriority", "scanResult", QVariant::fromValue(TWGenernalPreferences::scanCustom)},
        {"general", "selectionHint", "autoSelect", QVariant::fromValue(Sel::selectLowQuality)},
        {"general", "algorithmHint", "rbSmart", QVariant::fromValue(Sel::rbPhash)},
        {"general", "isAddFeatures", "true", false},
        {"general", "isImageType", "true", false},
        {"general", "isImageSize", "true", false},
        {"general", "imageMinSize", "4", 10},
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
        return parts.join(u';');
    }
    if (value.metaType().id() == QMetaType::QStringList)
        return value.toStringList().join(u'|');
    return value.toString();
}

QString expectedText(const char *text)
{
    const QString expected = QString::fromUtf8(text);
    return expected == u"$ideal" ? QString::number(std::max(2, QThread::idealThreadCount())) : expected;
}

QObject *part(TWPreferences &prefs, const QString &which)
{
    if (which == u"ignoreList")
        return prefs.ignoreList;
    return which == u"selection" ? static_cast<QObject *>(prefs.selection) : prefs.general;
}

QVariant valueOf(TWPreferences &prefs, const char *object, const char *property)
{
    return part(prefs, QString::fromLatin1(object))->property(property);
}

void applyChanged(TWPreferences &prefs)
{
    const QList<Prop> props = allProperties();
    for (const Prop &p : props)
        QVERIFY2(part(prefs, QString::fromLatin1(p.object))->setProperty(p.property, p.changed), p.property);
}

// Whether a value read from a cut file can be a cut-short form of the saved one: a
// shorter number, or list items and map paths that are beginnings of saved ones.
bool isCutShort(const QVariant &actual, const QVariant &saved)
{
    if (actual.metaType() == QMetaType::fromType<PriorityMap>()) {
        const PriorityMap got = actual.value<PriorityMap>();
        const PriorityMap full = saved.value<PriorityMap>();
        for (auto it = got.cbegin(); it != got.cend(); ++it) {
            if (!std::any_of(full.keyBegin(), full.keyEnd(), [&](const QString &path) {
                    return path.startsWith(it.key()) && full.value(path) == it.value();
                }))
                return false;
        }
        return true;
    }
    if (actual.metaType().id() == QMetaType::QStringList) {
        const QStringList full = saved.toStringList();
        const QStringList got = actual.toStringList();
        return std::all_of(got.cbegin(), got.cend(), [&](const QString &item) {
            return std::any_of(full.cbegin(), full.cend(),
                               [&](const QString &f) { return f.startsWith(item); });
        });
    }
    const int id = actual.metaType().id();
    const bool number = id == QMetaType::Int || id == QMetaType::ULongLong;
    return (number || id == QMetaType::QString) && saved.toString().startsWith(actual.toString());
}

// JSON written with single quotes for readability.
QByteArray quoted(const char *text)
{
    return QByteArray(text).replace('\'', '"');
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void addPropertyRows()
{
    QTest::addColumn<int>("index");
    const QList<Prop> props = allProperties();
    for (int i = 0; i < props.size(); ++i)
        QTest::newRow(props.at(i).property) << i;
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

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        // The native store must not be the user's own.
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope,
                           m_dir.filePath(QStringLiteral("native")));
    }

    void typesRegisteredUnderStoredNames()
    {
        TWPreferences::registerTypes();
        QCOMPARE(QMetaType::fromName("QVector<QString>"), QMetaType::fromType<QStringList>());
        QCOMPARE(QMetaType::fromName("QMap<QString, qint32>"), QMetaType::fromType<PriorityMap>());
        QCOMPARE(QMetaType::fromName("TWSelectionPreferences::TWScanMethod"),
                 QMetaType::fromType<Sel::TWScanMethod>());
        QCOMPARE(QMetaType::fromName("TWSelectionPreferences::TWSelectionHint"),
                 QMetaType::fromType<Sel::TWSelectionHint>());
        QCOMPARE(QMetaType::fromName("TWSelectionPreferences::TWAlgorithmsHint"),
                 QMetaType::fromType<Sel::TWAlgorithmsHint>());
        QCOMPARE(QMetaType::fromName("TWGenernalPreferences::TWScanPriority"),
                 QMetaType::fromType<TWGenernalPreferences::TWScanPriority>());
        QCOMPARE(QMetaType::fromName("TWIgnoreListPreferences::TWRemovalMethod"),
                 QMetaType::fromType<TWIgnoreListPreferences::TWRemovalMethod>());
    }

    // The reader and writer walk the properties in declaration order.
    void propertyOrder()
    {
        TWPreferences prefs(freshPath());
        QStringList declared;
        for (const char *object : {"ignoreList", "selection", "general"}) {
            const QMetaObject *meta = part(prefs, QString::fromLatin1(object))->metaObject();
            QCOMPARE(meta->property(0).name(), "objectName");
            for (int i = 1; i < meta->propertyCount(); ++i)
                declared.append(QString::fromLatin1(meta->property(i).name()));
        }
        QStringList expected;
        const QList<Prop> props = allProperties();
        for (const Prop &p : props)
            expected.append(QString::fromLatin1(p.property));
        QCOMPARE(declared, expected);
    }

    void noFileGivesDefaults_data() { addPropertyRows(); }
    void noFileGivesDefaults()
    {
        QFETCH(int, index);
        const Prop p = allProperties().at(index);
        const QString path = freshPath();
        TWPreferences prefs(path);
        QVERIFY(!QFile::exists(path));
        QCOMPARE(show(valueOf(prefs, p.object, p.property)), expectedText(p.defaultText));
        QCOMPARE(prefs.ignoreList->IgnoreBundle, false);
        QCOMPARE(prefs.selection->similarSelectHint, Sel::autoSelect);
        QCOMPARE(prefs.general->SimilarityValue, 55.0f);
    }

    // All values changed at once: one leaking into another key shows up here.
    void roundTrip_data() { addPropertyRows(); }
    void roundTrip()
    {
        QFETCH(int, index);
        const Prop p = allProperties().at(index);
        const QString path = freshPath();
        {
            TWPreferences prefs(path);
            applyChanged(prefs);
        } // destruction saves
        TWPreferences reread(path);
        QCOMPARE(valueOf(reread, p.object, p.property), p.changed);
    }

    void fileLayout()
    {
        const QString path = freshPath();
        {
            TWPreferences prefs(path);
            applyChanged(prefs);
        }
        const QByteArray text = readFile(path);
        for (const char *name :
             {"TWSelectionPreferences::TWScanMethod", "TWSelectionPreferences::TWSelectionHint",
              "TWSelectionPreferences::TWAlgorithmsHint", "TWGenernalPreferences::TWScanPriority",
              "TWIgnoreListPreferences::TWRemovalMethod"})
            QVERIFY2(text.contains(QByteArray("@Variant(")) && text.contains(name), name);
        QSettings raw(path, QSettings::IniFormat);
        QCOMPARE(raw.childGroups(),
                 QString::fromLatin1("Common,Duplicate_files,Similar_images,map").split(u','));
        QVERIFY(raw.contains(QStringLiteral("Similar_images/objectName")));
        QVERIFY(!raw.contains(QStringLiteral("Duplicate_files/mapPriority")));
        QVERIFY(!raw.contains(QStringLiteral("Common/IgnoreBundle")));
        QCOMPARE(raw.value(QStringLiteral("map/10")).toString(), QStringLiteral("F:/B, c"));
        QCOMPARE(raw.value(QStringLiteral("Common/OnlyFileType")).toStringList(),
                 QString::fromLatin1("jpg|PNG").split(u'|'));
    }

    void mapGroup_data()
    {
        QTest::addColumn<QByteArray>("mapText");
        QTest::addColumn<QString>("expected");
        QTest::newRow("two entries") << QByteArray("1=E:/A\n2=F:/B") << QStringLiteral("E:/A=1;F:/B=2");
        QTest::newRow("unordered") << QByteArray("10=/x\n2=/y") << QStringLiteral("/x=10;/y=2");
        QTest::newRow("empty group") << QByteArray("") << QString();
        QTest::newRow("bad keys, empty path")
            << QByteArray("0=/z\n-3=/n\nabc=/w\n4=\n5=/ok\n99999999999=/h") << QStringLiteral("/ok=5");
        QTest::newRow("quoted comma") << QByteArray("3=\"G:/a, b\"") << QStringLiteral("G:/a, b=3");
        QTest::newRow("unquoted list") << QByteArray("3=G:/a, b\n7=/c") << QStringLiteral("/c=7");
    }
    void mapGroup()
    {
        QFETCH(QByteArray, mapText);
        QFETCH(QString, expected);
        TWPreferences prefs(
            writtenFile("[Duplicate_files]\nmapPriority=1\n[Common]\n8=/no\n[map]\n" + mapText + '\n'));
        QCOMPARE(show(QVariant::fromValue(prefs.selection->mapPriority)), expected);
    }

    void emptyMapRemovesGroup()
    {
        const QString path = writtenFile("[map]\n1=E:/A\n2=F:/B\n");
        {
            TWPreferences prefs(path);
            QCOMPARE(prefs.selection->mapPriority.size(), 2);
            prefs.selection->mapPriority.clear();
            prefs.save();
        }
        QVERIFY(!readFile(path).contains("[map]"));
        QVERIFY(TWPreferences(path).selection->mapPriority.isEmpty());
    }

    void duplicateNumbersKeepOne()
    {
        const QString path = freshPath();
        {
            TWPreferences prefs(path);
            prefs.selection->mapPriority = {{QStringLiteral("/c"), 4},
                                            {QStringLiteral("/z"), 4},
                                            {QStringLiteral("/a"), 4},
                                            {QStringLiteral("/m"), 2}};
        }
        QCOMPARE(show(QVariant::fromValue(TWPreferences(path).selection->mapPriority)),
                 QStringLiteral("/m=2;/z=4"));
    }

    void thresholdsAreWholePercents_data()
    {
        QTest::addColumn<float>("inMemory");
        QTest::addColumn<int>("whole");
        QTest::newRow("73") << 73.0f << 73;
        QTest::newRow("55.9") << 55.9f << 55;
        QTest::newRow("99.99") << 99.99f << 99;
        QTest::newRow("0.5") << 0.5f << 0;
    }
    void thresholdsAreWholePercents()
    {
        QFETCH(float, inMemory);
        QFETCH(int, whole);
        const QString path = freshPath();
        {
            TWPreferences prefs(path);
            prefs.general->SimilarityValue = inMemory;
            prefs.general->FeaturesValue = inMemory;
        }
        const QByteArray text = readFile(path);
        QVERIFY2(text.contains(QByteArray("\nSimilarityValue=" + QByteArray::number(whole) + '\n')),
                 text.constData());
        QVERIFY(text.contains(QByteArray("\nFeaturesValue=" + QByteArray::number(whole) + '\n')));
        TWPreferences reread(path);
        QCOMPARE(reread.general->SimilarityValue, static_cast<float>(whole));
        QCOMPARE(reread.general->FeaturesValue, static_cast<float>(whole));
    }

    // Hand-edited values: accepted ones take effect, anything else leaves the default.
    void handWrittenValues_data()
    {
        QTest::addColumn<QByteArray>("fileText");
        QTest::addColumn<QString>("object");
        QTest::addColumn<QByteArray>("property");
        QTest::addColumn<QString>("expected");
        struct Row
        {
            const char *group, *line, *object, *expected;
        };
        const Row rows[] = {
            {"Duplicate_files", "scanMethod=1", "selection", "scanName"},
            {"Duplicate_files", "selectDuplicate=3", "selection", "selectPriority"},
            {"Duplicate_files", "selectDuplicate= 8 ", "selection", "NoSelected"},
            {"Duplicate_files", "scanMethod=scanAllContent", "selection", "scanAllContent"},
            {"Common", "RemovealMethod=2", "ignoreList", "moveToFolder"},
            {"Similar_images", "algorithmHint=1", "general", "rbHistogram"},
            {"Similar_images", "scanPriority=0", "general", "scanSpeed"},
            {"Duplicate_files", "scanMethod=3", "selection", "scanContent"},
            {"Duplicate_files", "scanMethod=-1", "selection", "scanContent"},
            {"Duplicate_files", "selectDuplicate=9", "selection", "autoSelect"},
            {"Duplicate_files", "scanMethod=fast", "selection", "scanContent"},
            {"Duplicate_files", "scanMethod=rbPhash", "selection", "scanContent"},
            {"Similar_images", "scanPriority=4294967297", "general", "scanResult"},
            {"Common", "RemovealMethod=1, 2", "ignoreList", "moveToTrash"},
            {"Duplicate_files", "scanMethod=@Variant(\\0\\0\\0\\x7f\\0\\0\\0\\nNoSuchType\\0\\0\\0\\x1)",
             "selection", "scanContent"},
            {"Duplicate_files", "scanMethod=@Variant(\\0\\0\\0\\x7f\\0\\0\\0\\x24TWSelectionPre", "selection",
             "scanContent"},
            {"Common", "ThreadCount= 3", "ignoreList", "3"},
            {"Common", "ThreadCount=0", "ignoreList", "$ideal"},
            {"Common", "ThreadCount=-4", "ignoreList", "$ideal"},
            {"Common", "ThreadCount=99999999999", "ignoreList", "$ideal"},
            {"Common", "ThreadCount=many", "ignoreList", "$ideal"},
            {"Common", "ThreadCount=2.5", "ignoreList", "$ideal"},
            {"Similar_images", "ThreadCount=5", "ignoreList", "$ideal"},
            {"Common", "NoSuchKey=5\nThreadCount=5", "ignoreList", "5"},
            {"Common", "ScanFileType=2", "ignoreList", "0"},
            {"Common", "deleteException=1", "ignoreList", "1"},
            {"Similar_images", "SimilarityValue=101", "general", "55"},
            {"Similar_images", "SimilarityValue=0", "general", "0"},
            {"Similar_images", "imageMinSize=0", "general", "4"},
            {"Common", "MaxFileSize=1", "ignoreList", "1"},
            {"Common", "MaxFileSize=-1", "ignoreList", "100000"},
            {"Common", "MaxFileSize=18446744073709551616", "ignoreList", "100000"},
            {"Common", "MaxFileSize=100001", "ignoreList", "100000"},
            {"Common", "MaxFileSize=1e3", "ignoreList", "100000"},
            {"Common", "MinFileSize=10000000", "ignoreList", "10000000"},
            {"Common", "MinFileSize=10000001", "ignoreList", "0"},
            {"Common", "HideSystemFile=false", "ignoreList", "false"},
            {"Similar_images", "hasSimilar=0", "general", "false"},
            {"Duplicate_files", "scanDupDirectory=TRUE", "selection", "true"},
            {"Common", "HideSystemFile=nope", "ignoreList", "true"},
            {"Similar_images", "isImageSize=", "general", "true"},
            {"Common", "TrashFolder=/a, /b", "ignoreList", ""},
            {"Common", "TrashFolder=/bin", "ignoreList", "/bin"},
            {"Common", "OnlyFileType=jpg", "ignoreList", "jpg"},
            {"Common", "IgnoreFileType=a, , \"\",b", "ignoreList", "a|b"},
            {"Common", "IgnorePathFile=", "ignoreList", ""},
            {"Common", "IgnorePathFile=@Variant(\\0\\0\\0\\x2\\0\\0\\0\\0\\x5)", "ignoreList", ""},
        };
        for (const Row &row : rows) {
            const QByteArray line(row.line);
            const QByteArray property = line.mid(line.lastIndexOf('\n') + 1).split('=').first();
            QTest::newRow(QByteArray(row.line).replace('\n', ' ').constData())
                << (QByteArray("[") + row.group + "]\n" + line + '\n') << QString::fromLatin1(row.object)
                << property << expectedText(row.expected);
        }
    }
    void handWrittenValues()
    {
        QFETCH(QByteArray, fileText);
        QFETCH(QString, object);
        QFETCH(QByteArray, property);
        QFETCH(QString, expected);
        TWPreferences prefs(writtenFile(fileText));
        QCOMPARE(show(part(prefs, object)->property(property.constData())), expected);
    }

    void garbageFiles_data()
    {
        QTest::addColumn<QByteArray>("content");
        QByteArray noise;
        for (int i = 0; i < 4096; ++i)
            noise.append(static_cast<char>((i * 131 + 17) % 256));
        QTest::newRow("binary noise") << noise;
        QTest::newRow("nul bytes") << QByteArray(512, '\0');
        QTest::newRow("unterminated group") << QByteArray("[Common\nThreadCount=abc\n");
        QTest::newRow("keys without values") << QByteArray("[Common]\n=\nThreadCount\n\\\n[]\n[map]\n=x\n");
        QTest::newRow("unterminated quote") << QByteArray("[Common]\nTrashFolder=\"abc\n");
        QTest::newRow("variant of a picture") << QByteArray(
            "[Common]\nTrashFolder=@Variant(\\0\\0\\0\\x7f\\0\\0\\0\\x6QImage\\0\\0\\0\\x1\\xff)\n");
        QTest::newRow("variant claiming a huge string")
            << QByteArray("[Common]\nTrashFolder=@Variant(\\0\\0\\0\\n\\x7f\\xff\\xff\\xf0)\n");
    }
    // Damage of any kind: no crash, sane values, and a save that rewrites the file cleanly.
    void garbageFiles()
    {
        QFETCH(QByteArray, content);
        const QString path = writtenFile(content);
        {
            TWPreferences prefs(path);
            QVERIFY(prefs.ignoreList->ThreadCount >= 1);
            QVERIFY(prefs.ignoreList->MaxFileSize >= 1 && prefs.ignoreList->MaxFileSize <= 100000);
            prefs.ignoreList->ThreadCount = 7;
            prefs.selection->mapPriority = {{QStringLiteral("/kept"), 3}};
        }
        TWPreferences reread(path);
        QCOMPARE(reread.ignoreList->ThreadCount, 7);
        QCOMPARE(reread.selection->mapPriority, (PriorityMap{{QStringLiteral("/kept"), 3}}));
    }

    // A saved file cut at every length: each value is what was saved, the default, or a
    // cut-short form of the saved one.
    void truncatedFiles()
    {
        const QString full = freshPath();
        {
            TWPreferences prefs(full);
            applyChanged(prefs);
        }
        const QByteArray text = readFile(full);
        const QList<Prop> props = allProperties();
        for (qsizetype length = 0; length < text.size(); length += 5) {
            TWPreferences prefs(writtenFile(text.left(length)));
            for (const Prop &p : props) {
                const QVariant actual = valueOf(prefs, p.object, p.property);
                const QString shown = show(actual);
                QVERIFY2(shown == expectedText(p.defaultText) || actual == p.changed ||
                             isCutShort(actual, p.changed),
                         qPrintable(QStringLiteral("%1 at %2: %3")
                                        .arg(QLatin1String(p.property))
                                        .arg(length)
                                        .arg(shown)));
            }
        }
    }

    void oversizedFileIsSetAside()
    {
        QByteArray big("[Common]\nThreadCount=9\n");
        big.append(QByteArray(17 * 1024 * 1024, 'x'));
        const QString path = writtenFile(big);
        {
            TWPreferences prefs(path);
            QCOMPARE(prefs.ignoreList->ThreadCount, std::max(2, QThread::idealThreadCount()));
            prefs.ignoreList->ThreadCount = 5;
        }
        QVERIFY(QFileInfo(path).size() < 64 * 1024);
        QCOMPARE(QFileInfo(path + QStringLiteral(".bad")).size(), big.size());
        QCOMPARE(TWPreferences(path).ignoreList->ThreadCount, 5);
    }

    void unusableFiles()
    {
        const QString dirPath = freshPath();
        QVERIFY(QDir().mkpath(dirPath));
        TWPreferences(dirPath).save(); // nothing can be written, nothing breaks
        QVERIFY(QFileInfo(dirPath).isDir());

        const QString stale = writtenFile("[Common]\nStale=1\n[Other]\nx=y\n");
        TWPreferences(stale).save();
        const QByteArray text = readFile(stale);
        QVERIFY(!text.contains("Stale") && !text.contains("[Other]") && text.contains("[Similar_images]"));
    }

    void assignment_data() { addPropertyRows(); }
    void assignment()
    {
        QFETCH(int, index);
        const Prop p = allProperties().at(index);
        const QByteArray name(p.property);
        const bool keptByStore = name == "OpenFolder" || name == "SaveFolder" || name == "deleteException";
        TWPreferences store(freshPath());
        TWPreferences edited(freshPath());
        applyChanged(edited);
        edited.ignoreList->IgnoreBundle = true;
        edited.selection->similarSelectHint = Sel::selectHighQuality;
        edited.general->SimilarityValue = 73.25f; // the property still reads 73
        const QVariant before = valueOf(store, p.object, p.property);
        *store.ignoreList = *edited.ignoreList;
        *store.selection = *edited.selection;
        *store.general = *edited.general;
        QCOMPARE(valueOf(store, p.object, p.property), keptByStore ? before : p.changed);
        QCOMPARE(store.ignoreList->IgnoreBundle, true);
        QCOMPARE(store.selection->similarSelectHint, Sel::selectHighQuality);
        QCOMPARE(store.general->SimilarityValue, 73.25f);
    }

    void partialReset_data() { addPropertyRows(); }
    void partialReset()
    {
        QFETCH(int, index);
        const Prop p = allProperties().at(index);
        const QList<QByteArray> kept{"TrashFolder", "IgnorePathFile", "IgnoreFileType",  "OnlyFileType",
                                     "OpenFolder",  "SaveFolder",     "deleteException", "mapPriority"};
        TWPreferences prefs(freshPath());
        applyChanged(prefs);
        prefs.ignoreList->IgnoreBundle = true;
        prefs.selection->similarSelectHint = Sel::selectOldest;
        prefs.ignoreList->resetToDefaults();
        prefs.selection->resetToDefaults();
        prefs.general->resetToDefaults();
        if (kept.contains(QByteArray(p.property)))
            QCOMPARE(valueOf(prefs, p.object, p.property), p.changed);
        else
            QCOMPARE(show(valueOf(prefs, p.object, p.property)), expectedText(p.defaultText));
        QCOMPARE(prefs.ignoreList->IgnoreBundle, false);
        QCOMPARE(prefs.selection->similarSelectHint, Sel::autoSelect);
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
        const QByteArray ignore = quoted(
            "{'MaxFileSize':2048,'MinFileSize':10000000,'IgnoreSystemHidden':false,'IgnoreBundle':true,"
            "'ScanFileType':1,'ThreadCount':6,'TrashFolder':'/t','OpenFolder':'/open/here',"
            "'SaveFolder':'/save/there','IgnorePathFile':['/a,b/c','C:\\\\Users\\\\x y','@at'],"
            "'IgnoreFileType':['tmp'],'OnlyFileType':['jpg','PNG']}");
        const QByteArray selection = quoted("{'scanMethod':2,'duplicateSelectHint':8,'similarSelectHint':5,"
                                            "'scanDupDirectory':true,'mapPriority':{'E:/A':2,'F:/B, c':10}}");
        const QByteArray general =
            quoted("{'hasSimilar':false,'SimilarityValue':62.5,'FeaturesValue':20,"
                   "'selectedSimilar':true,'scanPriority':2,'selectionHint':7,'algorithmHint':2,"
                   "'isAddFeatures':false,'isImageType':false,'isImageSize':false,'imageMinSize':10}");
        QCOMPARE(prefs.ignoreList->toJsonText(), ignore);
        QCOMPARE(prefs.selection->toJsonText(), selection);
        QCOMPARE(prefs.general->toJsonText(), general);
        QCOMPARE(prefs.ignoreList->toJson(), QJsonDocument::fromJson(ignore).object());
        QCOMPARE(prefs.selection->toJson(), QJsonDocument::fromJson(selection).object());
        QCOMPARE(prefs.general->toJson(), QJsonDocument::fromJson(general).object());
        // Keys outside the order still appear, after the ordered ones.
        const QJsonObject extra{{QStringLiteral("b"), 1}, {QStringLiteral("a"), QStringLiteral("x\"y")}};
        QCOMPARE(TWPreferences::orderedJson(extra, {QStringLiteral("missing"), QStringLiteral("b")}),
                 quoted("{'b':1,'a':'x\\\"y'}"));
    }

    void priorityHelpers_data()
    {
        QTest::addColumn<PriorityMap>("map");
        QTest::addColumn<QString>("path");
        QTest::addColumn<int>("priorityOf");
        QTest::addColumn<int>("number");
        QTest::addColumn<bool>("hasPriority");
        QTest::addColumn<int>("next");
        const int top = std::numeric_limits<qint32>::max();
        const QString a = QStringLiteral("/a");
        QTest::newRow("empty") << PriorityMap() << a << 0 << 1 << false << 1;
        QTest::newRow("one") << PriorityMap{{a, 1}} << a << 1 << 1 << true << 2;
        QTest::newRow("absent path") << PriorityMap{{a, 1}} << QStringLiteral("/b") << 0 << 2 << false << 2;
        QTest::newRow("case matters") << PriorityMap{{QStringLiteral("/A"), 4}} << a << 0 << 4 << true << 5;
        QTest::newRow("gap") << PriorityMap{{a, 1}, {QStringLiteral("/b"), 5}} << a << 1 << 3 << false << 6;
        QTest::newRow("zero asked") << PriorityMap{{a, 2}} << a << 2 << 0 << false << 3;
        QTest::newRow("top number") << PriorityMap{{a, top}} << a << top << top << true << 1;
        QTest::newRow("top and 1, 2")
            << PriorityMap{{a, top}, {QStringLiteral("/b"), 1}, {QStringLiteral("/c"), 2}} << a << top << 1
            << true << 3;
    }
    void priorityHelpers()
    {
        QFETCH(PriorityMap, map);
        QFETCH(QString, path);
        QFETCH(int, priorityOf);
        QFETCH(int, number);
        QFETCH(bool, hasPriority);
        QFETCH(int, next);
        TWSelectionPreferences selection;
        selection.mapPriority = map;
        QCOMPARE(selection.priorityOf(path), priorityOf);
        QCOMPARE(selection.hasPriority(number), hasPriority);
        QCOMPARE(selection.nextPriority(), next);
    }

    void language_data()
    {
        QTest::addColumn<QVariant>("stored");
        QTest::addColumn<int>("expected");
        QTest::newRow("absent") << QVariant() << 1;
        QTest::newRow("7") << QVariant(7) << 7;
        QTest::newRow("text 3") << QVariant(QStringLiteral("3")) << 3;
        QTest::newRow("0") << QVariant(0) << 1;
        QTest::newRow("8") << QVariant(8) << 1;
        QTest::newRow("word") << QVariant(QStringLiteral("French")) << 1;
        QTest::newRow("list") << QVariant(QStringList{QStringLiteral("2"), QStringLiteral("3")}) << 1;
    }
    void language()
    {
        QFETCH(QVariant, stored);
        QFETCH(int, expected);
        {
            QSettings native(QStringLiteral("Orvant"), QStringLiteral("Twinfold"));
            QVERIFY(native.fileName().startsWith(m_dir.path()));
            native.setValue(QStringLiteral("Language"), stored);
            if (!stored.isValid())
                native.remove(QStringLiteral("Language"));
        }
        QCOMPARE(TWPreferences::language(), expected);
    }

    void setLanguage_data()
    {
        QTest::addColumn<int>("value");
        QTest::addColumn<bool>("accepted");
        QTest::newRow("0") << 0 << false;
        QTest::newRow("1") << 1 << true;
        QTest::newRow("7") << 7 << true;
        QTest::newRow("8") << 8 << false;
        QTest::newRow("min") << std::numeric_limits<int>::min() << false;
    }
    void setLanguage()
    {
        QFETCH(int, value);
        QFETCH(bool, accepted);
        QVERIFY(TWPreferences::setLanguage(6));
        QCOMPARE(TWPreferences::setLanguage(value), accepted);
        QCOMPARE(TWPreferences::language(), accepted ? value : 6);
    }

    void singleInstance()
    {
        const QString path = TWPreferences::defaultFilePath();
        QVERIFY(path.endsWith(QStringLiteral("/Orvant/Twinfold/preferences.cfg")));
        QVERIFY(QFile::exists(path)); // left behind by the writability probe
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

    void driveRootOf_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("root");
        QTest::newRow("native") << QStringLiteral("C:\\Users\\me") << QStringLiteral("C:/");
        QTest::newRow("lower") << QStringLiteral("d:/x/") << QStringLiteral("D:/");
        QTest::newRow("bare drive") << QStringLiteral("e:") << QStringLiteral("E:/");
        QTest::newRow("unix") << QStringLiteral("/home/me") << QString();
        QTest::newRow("empty") << QString() << QString();
        QTest::newRow("unc") << QStringLiteral("//server/share") << QString();
        QTest::newRow("digit") << QStringLiteral("1:/x") << QString();
    }
    void driveRootOf()
    {
        QFETCH(QString, path);
        QFETCH(QString, root);
        QCOMPARE(PreferencesDriveFallback::driveRootOf(path), root);
    }

    void fallbackChoosesAnotherDrive_data()
    {
        QTest::addColumn<QString>("drives"); // folders under a scratch root; "!" marks a plain file
        QTest::addColumn<QString>("own");
        QTest::addColumn<QString>("chosen");
        QTest::newRow("second drive") << QStringLiteral("C,D") << QStringLiteral("C") << QStringLiteral("D");
        QTest::newRow("own only") << QStringLiteral("C") << QStringLiteral("C") << QString();
        QTest::newRow("no drives") << QString() << QStringLiteral("C") << QString();
        QTest::newRow("first usable")
            << QStringLiteral("C,D,E") << QStringLiteral("C") << QStringLiteral("D");
        QTest::newRow("unusable skipped")
            << QStringLiteral("!D,C,E") << QStringLiteral("C") << QStringLiteral("E");
        QTest::newRow("own listed later")
            << QStringLiteral("D,C") << QStringLiteral("D") << QStringLiteral("C");
    }
    void fallbackChoosesAnotherDrive()
    {
        QFETCH(QString, drives);
        QFETCH(QString, own);
        QFETCH(QString, chosen);
        QTemporaryDir scratch;
        QStringList roots;
        const QStringList names = drives.split(u',', Qt::SkipEmptyParts);
        for (const QString &name : names) {
            const QString root = scratch.filePath(QString(name).remove(u'!'));
            if (name.startsWith(u'!')) {
                QFile file(root); // nothing can be created below a file
                QVERIFY(file.open(QIODevice::WriteOnly));
            } else {
                QVERIFY(QDir().mkpath(root));
            }
            roots.append(root + u'/');
        }
        const QString dir = PreferencesDriveFallback::chooseDirectory(scratch.filePath(own) + u'/', roots);
        QCOMPARE(dir, chosen.isEmpty() ? QString() : scratch.filePath(chosen + QStringLiteral("/Twinfold")));
        QVERIFY(!QFileInfo::exists(scratch.filePath(own + QStringLiteral("/Twinfold"))));
        QVERIFY(chosen.isEmpty() || QFileInfo(dir).isDir());
#ifndef Q_OS_WIN
        QCOMPARE(PreferencesDriveFallback::findDirectory(m_dir.path()), QString()); // no drives here
#endif
    }
};

TWINFOLD_TEST_MAIN(TestTWPreferences)
#include "tst_twpreferences.moc"
