#include "settings/TWGenernalPreferences.h"

#include "settings/TWPreferences.h"

TWGenernalPreferences::TWGenernalPreferences(QObject *parent) : QObject(parent) {}

TWGenernalPreferences &TWGenernalPreferences::operator=(const TWGenernalPreferences &other)
{
    if (this == &other)
        return *this;
    hasSimilar = other.hasSimilar;
    SimilarityValue = other.SimilarityValue;
    FeaturesValue = other.FeaturesValue;
    selectedSimilar = other.selectedSimilar;
    scanPriority = other.scanPriority;
    selectionHint = other.selectionHint;
    algorithmHint = other.algorithmHint;
    isAddFeatures = other.isAddFeatures;
    isImageType = other.isImageType;
    isImageSize = other.isImageSize;
    imageMinSize = other.imageMinSize;
    return *this;
}

void TWGenernalPreferences::resetToDefaults()
{
    const TWGenernalPreferences defaults;
    *this = defaults;
}

int TWGenernalPreferences::similarityPercent() const
{
    return static_cast<int>(SimilarityValue);
}

void TWGenernalPreferences::setSimilarityPercent(int percent)
{
    SimilarityValue = static_cast<float>(percent);
}

int TWGenernalPreferences::featuresPercent() const
{
    return static_cast<int>(FeaturesValue);
}

void TWGenernalPreferences::setFeaturesPercent(int percent)
{
    FeaturesValue = static_cast<float>(percent);
}

QJsonObject TWGenernalPreferences::toJson() const
{
    QJsonObject json;
    json.insert(QStringLiteral("hasSimilar"), hasSimilar);
    json.insert(QStringLiteral("SimilarityValue"), static_cast<double>(SimilarityValue));
    json.insert(QStringLiteral("FeaturesValue"), static_cast<double>(FeaturesValue));
    json.insert(QStringLiteral("selectedSimilar"), selectedSimilar);
    json.insert(QStringLiteral("scanPriority"), static_cast<int>(scanPriority));
    json.insert(QStringLiteral("selectionHint"), static_cast<int>(selectionHint));
    json.insert(QStringLiteral("algorithmHint"), static_cast<int>(algorithmHint));
    json.insert(QStringLiteral("isAddFeatures"), isAddFeatures);
    json.insert(QStringLiteral("isImageType"), isImageType);
    json.insert(QStringLiteral("isImageSize"), isImageSize);
    json.insert(QStringLiteral("imageMinSize"), imageMinSize);
    return json;
}

QStringList TWGenernalPreferences::jsonKeys()
{
    return {
        QStringLiteral("hasSimilar"),      QStringLiteral("SimilarityValue"), QStringLiteral("FeaturesValue"),
        QStringLiteral("selectedSimilar"), QStringLiteral("scanPriority"),    QStringLiteral("selectionHint"),
        QStringLiteral("algorithmHint"),   QStringLiteral("isAddFeatures"),   QStringLiteral("isImageType"),
        QStringLiteral("isImageSize"),     QStringLiteral("imageMinSize")};
}

QByteArray TWGenernalPreferences::toJsonText() const
{
    return TWPreferences::orderedJson(toJson(), jsonKeys());
}
