#include "settings/TWPreferences.h"

#include "app/AppInfo.h"
#include "app/TLogger.h"
#include "platform/PreferencesDriveFallback.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMetaEnum>
#include <QMutex>
#include <QMutexLocker>
#include <QSettings>
#include <QVector>

#include <cstring>
#include <limits>

namespace {

QMutex &instanceMutex()
{
    static QMutex mutex;
    return mutex;
}

TWPreferences *s_instance = nullptr; // guarded by instanceMutex()

QString preferencesFileName()
{
    return QStringLiteral("preferences.cfg");
}

// Far beyond any real preferences file; a bigger one is damage and is not loaded.
constexpr qint64 kMaxFileBytes = 16 * 1024 * 1024;

using PriorityMap = QMap<QString, qint32>;

struct ValueRange
{
    const char *property;
    qint64 lowest;
    qint64 highest;
};

// What the preferences dialog can produce; a hand-edited value outside is taken as damage.
constexpr ValueRange kRanges[] = {
    {"ThreadCount", 1, 1024},  {"MaxFileSize", 1, 100000}, {"MinFileSize", 0, 10000000},
    {"ScanFileType", 0, 1},    {"deleteException", 0, 1},  {"SimilarityValue", 0, 100},
    {"FeaturesValue", 0, 100}, {"imageMinSize", 1, 10},
};

const ValueRange *rangeOf(const char *property)
{
    for (const ValueRange &range : kRanges) {
        if (std::strcmp(range.property, property) == 0)
            return &range;
    }
    return nullptr;
}

bool isText(const QVariant &value)
{
    const int id = value.metaType().id();
    return id == QMetaType::QString || id == QMetaType::QByteArray;
}

bool isIntegral(const QVariant &value)
{
    switch (value.metaType().id()) {
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Long:
    case QMetaType::ULong:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Char:
    case QMetaType::SChar:
    case QMetaType::UChar:
        return true;
    default:
        return (value.metaType().flags() & QMetaType::IsEnumeration) != 0;
    }
}

std::optional<qint64> signedFrom(const QVariant &stored)
{
    bool ok = false;
    qint64 number = 0;
    if (isText(stored))
        number = stored.toString().trimmed().toLongLong(&ok);
    else if (isIntegral(stored))
        number = stored.toLongLong(&ok);
    return ok ? std::optional<qint64>(number) : std::nullopt;
}

// Lists come back from the file as a list, a single string or nothing at all; blank
// entries carry no meaning for paths or extensions and are dropped.
QStringList stringListFrom(const QVariant &stored)
{
    QStringList items;
    if (stored.metaType().id() == QMetaType::QStringList) {
        items = stored.toStringList();
    } else if (isText(stored)) {
        items.append(stored.toString());
    } else if (stored.metaType().id() == QMetaType::QVariantList) {
        const QVariantList list = stored.toList();
        for (const QVariant &item : list) {
            if (isText(item))
                items.append(item.toString());
        }
    }
    items.removeIf([](const QString &item) { return item.trimmed().isEmpty(); });
    return items;
}

} // namespace

TWPreferences::TWPreferences(const QString &filePath, bool writesBack)
    : general((registerTypes(), new TWGenernalPreferences)), ignoreList(new TWIgnoreListPreferences),
      selection(new TWSelectionPreferences), m_filePath(filePath), m_writesBack(writesBack)
{
    load();
}

TWPreferences::~TWPreferences()
{
    if (m_writesBack)
        save();
    qDebug() << "~TWPreferences()";
    delete general;
    delete ignoreList;
    delete selection;
}

TWPreferences *TWPreferences::instance()
{
    QMutexLocker lock(&instanceMutex());
    if (!s_instance)
        s_instance = new TWPreferences(defaultFilePath());
    return s_instance;
}

void TWPreferences::releaseInstance()
{
    QMutexLocker lock(&instanceMutex());
    delete s_instance;
    s_instance = nullptr;
}

QString TWPreferences::defaultFilePath()
{
    const QString dir = TLogger::appDir();
    if (!QDir(dir).exists())
        QDir().mkpath(dir);
    const QString path = dir + preferencesFileName();
    QFile probe(path);
    if (probe.open(QIODevice::WriteOnly | QIODevice::Append)) {
        probe.close();
        return path;
    }
    const QString fallback = PreferencesDriveFallback::findDirectory(dir);
    if (fallback.isEmpty())
        return path;
    logInfo(QStringLiteral("[TWPreferences]: %1 is not writable, using %2").arg(dir, fallback));
    return fallback + u'/' + preferencesFileName();
}

void TWPreferences::registerTypes()
{
    static const bool registered = [] {
        qRegisterMetaType<QVector<QString>>("QVector<QString>");
        qRegisterMetaType<PriorityMap>("QMap<QString, qint32>");
        qRegisterMetaType<TWSelectionPreferences::TWScanMethod>("TWSelectionPreferences::TWScanMethod");
        qRegisterMetaType<TWSelectionPreferences::TWSelectionHint>("TWSelectionPreferences::TWSelectionHint");
        qRegisterMetaType<TWSelectionPreferences::TWAlgorithmsHint>(
            "TWSelectionPreferences::TWAlgorithmsHint");
        qRegisterMetaType<TWGenernalPreferences::TWScanPriority>("TWGenernalPreferences::TWScanPriority");
        qRegisterMetaType<TWIgnoreListPreferences::TWRemovalMethod>(
            "TWIgnoreListPreferences::TWRemovalMethod");
        return true;
    }();
    Q_UNUSED(registered)
}

int TWPreferences::language()
{
    const QSettings settings(AppInfo::organization(), AppInfo::application());
    const std::optional<qint64> value = signedFrom(settings.value(QStringLiteral("Language"), 1));
    if (!value || *value < 1 || *value > 7)
        return 1;
    return static_cast<int>(*value);
}

bool TWPreferences::setLanguage(int language)
{
    if (language < 1 || language > 7)
        return false;
    QSettings settings(AppInfo::organization(), AppInfo::application());
    settings.setValue(QStringLiteral("Language"), language);
    return true;
}

void TWPreferences::load()
{
    const QFileInfo info(m_filePath);
    if (info.exists() && info.size() > kMaxFileBytes) {
        logInfo(QStringLiteral("[TWPreferences]: %1 is too large to be preferences, using defaults")
                    .arg(m_filePath));
        return;
    }
    QSettings settings(m_filePath, QSettings::IniFormat);
    if (settings.status() != QSettings::NoError)
        logInfo(QStringLiteral("[TWPreferences]: %1 is damaged, reading what can be read").arg(m_filePath));
    readGroup(settings, ignoreList, QStringLiteral("Common"));
    readGroup(settings, selection, QStringLiteral("Duplicate_files"));
    readGroup(settings, general, QStringLiteral("Similar_images"));
}

void TWPreferences::save()
{
    const QFileInfo info(m_filePath);
    if (info.exists() && info.size() > kMaxFileBytes) {
        // The settings class would read the whole damaged file before writing; keep it
        // aside instead, one copy at most.
        const QString aside = m_filePath + QStringLiteral(".bad");
        QFile::remove(aside);
        if (!QFile::rename(m_filePath, aside)) {
            logInfo(QStringLiteral("[TWPreferences]: cannot replace %1").arg(m_filePath));
            return;
        }
    }
    QSettings settings(m_filePath, QSettings::IniFormat);
    // The file is rewritten whole, so keys left from damage or hand edits disappear.
    settings.clear();
    writeGroup(settings, ignoreList, QStringLiteral("Common"));
    writeGroup(settings, selection, QStringLiteral("Duplicate_files"));
    writeGroup(settings, general, QStringLiteral("Similar_images"));
    settings.sync();
    if (settings.status() == QSettings::AccessError)
        logInfo(QStringLiteral("[TWPreferences]: cannot write %1").arg(m_filePath));
}

std::optional<QVariant> TWPreferences::acceptedValue(const QMetaProperty &property, const QVariant &stored)
{
    if (!stored.isValid())
        return std::nullopt;
    const QMetaType target = property.metaType();

    if (property.isEnumType()) {
        const QMetaEnum enumeration = property.enumerator();
        bool ok = false;
        int number = 0;
        if (isText(stored)) {
            const QString text = stored.toString().trimmed();
            number = text.toInt(&ok);
            if (!ok)
                number = enumeration.keyToValue(text.toUtf8().constData(), &ok);
        } else if (isIntegral(stored)) {
            const qint64 wide = stored.toLongLong(&ok);
            ok = ok && wide >= std::numeric_limits<int>::min() && wide <= std::numeric_limits<int>::max();
            number = static_cast<int>(wide);
        }
        if (!ok || enumeration.valueToKey(number) == nullptr)
            return std::nullopt;
        QVariant value(number);
        if (!value.convert(target))
            return std::nullopt;
        return value;
    }

    switch (target.id()) {
    case QMetaType::Bool: {
        if (stored.metaType().id() == QMetaType::Bool)
            return stored;
        if (isText(stored)) {
            const QString text = stored.toString().trimmed().toLower();
            if (text == u"true" || text == u"1")
                return QVariant(true);
            if (text == u"false" || text == u"0")
                return QVariant(false);
            return std::nullopt;
        }
        if (isIntegral(stored))
            return QVariant(stored.toLongLong() != 0);
        return std::nullopt;
    }
    case QMetaType::Int:
    case QMetaType::LongLong: {
        const std::optional<qint64> number = signedFrom(stored);
        if (!number)
            return std::nullopt;
        const ValueRange *range = rangeOf(property.name());
        const qint64 lowest = range ? range->lowest : std::numeric_limits<int>::min();
        const qint64 highest = range ? range->highest : std::numeric_limits<int>::max();
        if (*number < lowest || *number > highest)
            return std::nullopt;
        QVariant value(*number);
        if (!value.convert(target))
            return std::nullopt;
        return value;
    }
    case QMetaType::ULongLong:
    case QMetaType::UInt: {
        bool ok = false;
        quint64 number = 0;
        if (isText(stored)) {
            number = stored.toString().trimmed().toULongLong(&ok);
        } else if (isIntegral(stored)) {
            const qint64 wide = stored.toLongLong(&ok);
            ok = ok && wide >= 0;
            number = static_cast<quint64>(wide);
        }
        if (!ok)
            return std::nullopt;
        const ValueRange *range = rangeOf(property.name());
        const quint64 highest = range
                                    ? static_cast<quint64>(range->highest)
                                    : (target.id() == QMetaType::UInt ? std::numeric_limits<uint>::max()
                                                                      : std::numeric_limits<quint64>::max());
        const quint64 lowest = range ? static_cast<quint64>(range->lowest) : 0;
        if (number < lowest || number > highest)
            return std::nullopt;
        QVariant value(number);
        if (!value.convert(target))
            return std::nullopt;
        return value;
    }
    case QMetaType::QString: {
        if (isText(stored))
            return QVariant(stored.toString());
        QVariant value = stored;
        if (!value.convert(target))
            return std::nullopt;
        return value;
    }
    case QMetaType::QStringList:
        return QVariant(stringListFrom(stored));
    default:
        break;
    }
    if (target == QMetaType::fromType<PriorityMap>())
        return std::nullopt; // has a group of its own
    QVariant value = stored;
    if (!value.convert(target))
        return std::nullopt;
    return value;
}

void TWPreferences::readGroup(QSettings &settings, QObject *object, const QString &group)
{
    settings.beginGroup(group);
    const QMetaObject *meta = object->metaObject();
    for (int i = 0; i < meta->propertyCount(); ++i) {
        const QMetaProperty property = meta->property(i);
        if (property.metaType() == QMetaType::fromType<PriorityMap>())
            continue;
        const QString key = QString::fromLatin1(property.name());
        const QVariant stored = settings.value(key);
        if (property.metaType().id() == QMetaType::QStringList) {
            property.write(object, QVariant(stringListFrom(stored)));
            continue;
        }
        if (!stored.isValid())
            continue;
        const std::optional<QVariant> value = acceptedValue(property, stored);
        if (!value || !property.write(object, *value))
            logInfo(QStringLiteral("[TWPreferences]: ignored the unusable value of %1/%2").arg(group, key));
    }
    settings.endGroup();

    if (group != u"Duplicate_files")
        return;
    PriorityMap priorities;
    settings.beginGroup(QStringLiteral("map"));
    const QStringList keys = settings.childKeys();
    for (const QString &key : keys) {
        bool ok = false;
        const int number = key.toInt(&ok);
        const QVariant stored = settings.value(key);
        const QString path = isText(stored) ? stored.toString() : QString();
        if (!ok || number <= 0 || path.isEmpty()) {
            logInfo(QStringLiteral("[TWPreferences]: ignored the folder priority %1").arg(key));
            continue;
        }
        priorities.insert(path, number);
    }
    settings.endGroup();
    object->setProperty("mapPriority", QVariant::fromValue(priorities));
}

void TWPreferences::writeGroup(QSettings &settings, QObject *object, const QString &group)
{
    bool hasMap = false;
    PriorityMap priorities;
    settings.beginGroup(group);
    const QMetaObject *meta = object->metaObject();
    for (int i = 0; i < meta->propertyCount(); ++i) {
        const QMetaProperty property = meta->property(i);
        const QString key = QString::fromLatin1(property.name());
        const QVariant value = property.read(object);
        if (property.metaType().id() == QMetaType::QStringList) {
            settings.setValue(key, value.toStringList());
        } else if (property.metaType() == QMetaType::fromType<PriorityMap>()) {
            priorities = value.value<PriorityMap>();
            hasMap = true;
        } else if (value.isValid()) {
            settings.setValue(key, value);
        }
    }
    settings.endGroup();

    if (!hasMap)
        return;
    settings.remove(QStringLiteral("map"));
    if (priorities.isEmpty())
        return;
    settings.beginGroup(QStringLiteral("map"));
    // Keyed by number: of two paths sharing a number, the one sorting last survives.
    for (auto it = priorities.cbegin(); it != priorities.cend(); ++it)
        settings.setValue(QStringLiteral("%1").arg(it.value(), 0, 10), it.key());
    settings.endGroup();
}

QByteArray TWPreferences::orderedJson(const QJsonObject &object, const QStringList &keyOrder)
{
    // One value as JSON text: the only element of a one-element array.
    const auto valueText = [](const QJsonValue &value) {
        const QByteArray array = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
        return array.mid(1, array.size() - 2);
    };
    QStringList keys;
    for (const QString &key : keyOrder) {
        if (object.contains(key) && !keys.contains(key))
            keys.append(key);
    }
    // Keys the order does not know still appear, after the known ones.
    const QStringList objectKeys = object.keys();
    for (const QString &key : objectKeys) {
        if (!keys.contains(key))
            keys.append(key);
    }
    QByteArray text("{");
    for (qsizetype i = 0; i < keys.size(); ++i) {
        if (i > 0)
            text += ',';
        text += valueText(QJsonValue(keys.at(i))) + ':' + valueText(object.value(keys.at(i)));
    }
    text += '}';
    return text;
}
