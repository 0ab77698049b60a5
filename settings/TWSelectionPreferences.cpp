#include "settings/TWSelectionPreferences.h"

#include "settings/TWPreferences.h"

#include <QSet>

#include <algorithm>
#include <limits>

TWSelectionPreferences::TWSelectionPreferences(QObject *parent) : QObject(parent) {}

TWSelectionPreferences &TWSelectionPreferences::operator=(const TWSelectionPreferences &other)
{
    if (this == &other)
        return *this;
    scanMethod = other.scanMethod;
    selectDuplicate = other.selectDuplicate;
    mapPriority = other.mapPriority;
    scanDupDirectory = other.scanDupDirectory;
    similarSelectHint = other.similarSelectHint;
    return *this;
}

void TWSelectionPreferences::resetToDefaults()
{
    scanMethod = scanContent;
    selectDuplicate = autoSelect;
    similarSelectHint = autoSelect;
    scanDupDirectory = false;
}

qint32 TWSelectionPreferences::priorityOf(const QString &path) const
{
    return mapPriority.value(path, 0);
}

bool TWSelectionPreferences::hasPriority(qint32 number) const
{
    return std::any_of(mapPriority.cbegin(), mapPriority.cend(), [number](qint32 n) { return n == number; });
}

qint32 TWSelectionPreferences::nextPriority() const
{
    if (mapPriority.isEmpty())
        return 1;
    const qint32 largest = *std::max_element(mapPriority.cbegin(), mapPriority.cend());
    if (largest < std::numeric_limits<qint32>::max())
        return std::max(largest, 0) + 1;
    // A hand-edited file can hold the largest number there is; hand out a free one.
    QSet<qint32> used;
    for (const qint32 n : mapPriority)
        used.insert(n);
    qint32 candidate = 1;
    while (used.contains(candidate))
        ++candidate;
    return candidate;
}

QJsonObject TWSelectionPreferences::toJson() const
{
    QJsonObject priorities;
    for (auto it = mapPriority.cbegin(); it != mapPriority.cend(); ++it)
        priorities.insert(it.key(), it.value());

    QJsonObject json;
    json.insert(QStringLiteral("scanMethod"), static_cast<int>(scanMethod));
    json.insert(QStringLiteral("duplicateSelectHint"), static_cast<int>(selectDuplicate));
    json.insert(QStringLiteral("similarSelectHint"), static_cast<int>(similarSelectHint));
    json.insert(QStringLiteral("scanDupDirectory"), scanDupDirectory);
    json.insert(QStringLiteral("mapPriority"), priorities);
    return json;
}

QStringList TWSelectionPreferences::jsonKeys()
{
    return {QStringLiteral("scanMethod"), QStringLiteral("duplicateSelectHint"),
            QStringLiteral("similarSelectHint"), QStringLiteral("scanDupDirectory"),
            QStringLiteral("mapPriority")};
}

QByteArray TWSelectionPreferences::toJsonText() const
{
    return TWPreferences::orderedJson(toJson(), jsonKeys());
}
