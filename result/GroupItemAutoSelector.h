#pragma once

#include <QJsonObject>
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

// Decides which members of a group are selected for removal. Members may be
// similar-image entries; file facts are read from the path behind the marker, while the
// returned entries are the members as given, in group order.
class GroupItemAutoSelector
{
public:
    using Group = QPair<QString, QStringList>;

    // Members to select by any rule but SelectByPriority; keeps group order. Rule 3 and
    // values outside 0..9 select nothing (rule 3 needs its table: selectByPriority).
    static QStringList selectGroup(const QStringList &paths, int rule);
    // Members to select by the folder priority table (larger = more eligible for removal,
    // negative = never selected).
    static QStringList selectByPriority(const QStringList &paths, const QMap<QString, qint32> &priority);
    // 100 minus penalties for copy-like words in the name and folder and for numbered
    // endings such as "(1)", "_2", "-3" in the name; unbounded below.
    static qint32 filenameScore(const QString &path);
    // The folder priority table as the matchers' configuration carries it (path → number).
    static QMap<QString, qint32> priorityFromJson(const QJsonObject &table);
    // Applies the rule to every group in parallel on the global thread pool and stores each
    // selection in TFileData (an empty selection removes the group's entry); returns when
    // all groups are done. Rule 3 reads the priority table of the preferences, so this
    // overload belongs to the user-interface thread.
    static void autoSelectAllEx(const QList<Group> &groups, int rule);
    // Same with an explicit priority table for rule 3.
    static void autoSelectAllEx(const QList<Group> &groups, int rule, const QMap<QString, qint32> &priority);
};
