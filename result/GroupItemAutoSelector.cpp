#include "result/GroupItemAutoSelector.h"

// Placeholder until the rules land: selects nothing.
QStringList GroupItemAutoSelector::selectGroup(const QStringList &, int)
{
    return {};
}

QStringList GroupItemAutoSelector::selectByPriority(const QStringList &, const QMap<QString, qint32> &)
{
    return {};
}

qint32 GroupItemAutoSelector::filenameScore(const QString &)
{
    return 0;
}

void GroupItemAutoSelector::autoSelectAllEx(const QList<Group> &, int) {}
