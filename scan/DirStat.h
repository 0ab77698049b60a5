#pragma once

#include <QByteArrayList>
#include <QStringList>
#include <QtGlobal>

// What the folder matcher needs to know about one folder that holds duplicates.
// The lists hold one entry per duplicate file, so a folder with two copies of one
// group carries that group's keys twice.
struct DirStat
{
    QByteArrayList contentKeys;
    QStringList groupKeys;
    qint32 fileCount = 0;
    qint64 totalSize = 0;
};
