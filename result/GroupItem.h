#pragma once

#include <QString>
#include <QStringList>
#include <QtGlobal>

// One result group as the result side sees it: a summary row of the group list.
struct GroupItem
{
    QString groupKey;
    // Member entries as stored, in scan order; similar-image entries keep their marker.
    QStringList members;
    // Real path of the first member; empty when the group has no members.
    QString firstPath;
    QString fileName;
    // 0 when the first member is gone; folder groups: sum of the folder records;
    // otherwise the first member's size times memberCount.
    qint64 totalSize = 0;
    qint32 selectedCount = 0;
    qint32 memberCount = 0;
    // FileCategory of the first member, 6 for a folder group, 7 when the first member is gone.
    qint32 category = 0;

    // The file path behind a member entry: a similar-image entry "<path>_simlar_<percent>"
    // loses its marker, anything else is returned unchanged.
    static QString realPath(const QString &entry);
    // The percent of a similar-image entry, -1 for a plain entry.
    static qint32 similarityOf(const QString &entry);
};
