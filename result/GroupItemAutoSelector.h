#pragma once

#include <QList>
#include <QMap>
#include <QPair>
#include <QString>
#include <QStringList>

// The ten rules that pre-select the copies of a group that can go.
enum AutoSelectRule : qint32
{
    SelectNewest = 0,
    SelectOldest = 1,
    SelectByFilename = 2,
    SelectByPriority = 3,
    SelectHighResolution = 4,
    SelectLowResolution = 5,
    SelectHighQuality = 6,
    SelectLowQuality = 7,
    SelectAll = 8,
    Deselect = 9,
};

class GroupItemAutoSelector
{
public:
    using Group = QPair<QString, QStringList>;

    // Members to select by any rule but SelectByPriority; keeps group order.
    static QStringList selectGroup(const QStringList &paths, int rule);
    // Members to select by the folder priority table.
    static QStringList selectByPriority(const QStringList &paths, const QMap<QString, qint32> &priority);
    static qint32 filenameScore(const QString &path);
    // Applies the rule to every group in parallel and stores each selection in TFileData.
    static void autoSelectAllEx(const QList<Group> &groups, int rule);
};
