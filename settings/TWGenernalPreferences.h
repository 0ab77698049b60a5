#pragma once

#include "settings/TWSelectionPreferences.h"

#include <QJsonObject>
#include <QObject>
#include <QStringList>

// Preferences of the Similar images page; file group "Similar_images".
class TWGenernalPreferences : public QObject
{
    Q_OBJECT
public:
    enum TWScanPriority
    {
        scanSpeed = 0,
        scanResult = 1,
        scanCustom = 2,
    };
    Q_ENUM(TWScanPriority)

    Q_PROPERTY(bool hasSimilar MEMBER hasSimilar)
    // The two thresholds are held as floats; through the property they are whole
    // percents (truncated on read), so the file only ever holds integers.
    Q_PROPERTY(int SimilarityValue READ similarityPercent WRITE setSimilarityPercent)
    Q_PROPERTY(int FeaturesValue READ featuresPercent WRITE setFeaturesPercent)
    Q_PROPERTY(bool selectedSimilar MEMBER selectedSimilar)
    Q_PROPERTY(TWScanPriority scanPriority MEMBER scanPriority)
    Q_PROPERTY(TWSelectionPreferences::TWSelectionHint selectionHint MEMBER selectionHint)
    Q_PROPERTY(TWSelectionPreferences::TWAlgorithmsHint algorithmHint MEMBER algorithmHint)
    Q_PROPERTY(bool isAddFeatures MEMBER isAddFeatures)
    Q_PROPERTY(bool isImageType MEMBER isImageType)
    Q_PROPERTY(bool isImageSize MEMBER isImageSize)
    Q_PROPERTY(int imageMinSize MEMBER imageMinSize)

    explicit TWGenernalPreferences(QObject *parent = nullptr);

    // Copies every field.
    TWGenernalPreferences &operator=(const TWGenernalPreferences &other);

    // Every field back to its default.
    void resetToDefaults();

    int similarityPercent() const;
    void setSimilarityPercent(int percent);
    int featuresPercent() const;
    void setFeaturesPercent(int percent);

    QJsonObject toJson() const;
    static QStringList jsonKeys();
    QByteArray toJsonText() const;

    bool hasSimilar = true;
    float SimilarityValue = 55.0f;
    float FeaturesValue = 50.0f;
    bool selectedSimilar = false;
    TWScanPriority scanPriority = scanResult;
    TWSelectionPreferences::TWSelectionHint selectionHint = TWSelectionPreferences::autoSelect;
    TWSelectionPreferences::TWAlgorithmsHint algorithmHint = TWSelectionPreferences::rbSmart;
    bool isAddFeatures = true;
    bool isImageType = true;
    bool isImageSize = true;
    int imageMinSize = 4;
};
