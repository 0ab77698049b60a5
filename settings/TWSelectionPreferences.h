#pragma once

#include <QJsonObject>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>

// Preferences of the Duplicate files page; file group "Duplicate_files", with the folder
// priorities in the separate top-level group "map".
class TWSelectionPreferences : public QObject
{
    Q_OBJECT
public:
    enum TWScanMethod
    {
        scanContent = 0,
        scanName = 1,
        scanAllContent = 2,
    };
    Q_ENUM(TWScanMethod)

    enum TWSelectionHint
    {
        selectNewest = 0,
        selectOldest = 1,
        autoSelect = 2,
        selectPriority = 3,
        selectHighResolution = 4,
        selectLowResolution = 5,
        selectHighQuality = 6,
        selectLowQuality = 7,
        NoSelected = 8,
    };
    Q_ENUM(TWSelectionHint)

    enum TWAlgorithmsHint
    {
        rbSmart = 0,
        rbHistogram = 1,
        rbPhash = 2,
    };
    Q_ENUM(TWAlgorithmsHint)

    Q_PROPERTY(TWScanMethod scanMethod MEMBER scanMethod)
    Q_PROPERTY(TWSelectionHint selectDuplicate MEMBER selectDuplicate)
    Q_PROPERTY(QMap<QString, qint32> mapPriority MEMBER mapPriority)
    Q_PROPERTY(bool scanDupDirectory MEMBER scanDupDirectory)

    explicit TWSelectionPreferences(QObject *parent = nullptr);

    // Copies every field, the non-persisted ones included.
    TWSelectionPreferences &operator=(const TWSelectionPreferences &other);

    // The dialog's Default: everything but the priority map.
    void resetToDefaults();

    // The path's priority number, 0 when the path has none.
    qint32 priorityOf(const QString &path) const;
    // Whether some path already holds this number.
    bool hasPriority(qint32 number) const;
    // 1 for an empty map, else one above the largest number; should that overflow, the
    // smallest free positive number instead.
    qint32 nextPriority() const;

    QJsonObject toJson() const;
    static QStringList jsonKeys();
    QByteArray toJsonText() const;

    TWScanMethod scanMethod = scanContent;
    TWSelectionHint selectDuplicate = autoSelect;
    QMap<QString, qint32> mapPriority; // path -> priority number, unique from 1 upward
    bool scanDupDirectory = false;

    // Not persisted.
    TWSelectionHint similarSelectHint = autoSelect;
};
