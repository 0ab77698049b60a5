#pragma once

#include <QHash>
#include <QList>
#include <QString>
#include <QtGlobal>

// Class of the drive that holds a file. Files on OtherBus are never memory-mapped.
enum DriveType : qint32
{
    SolidState = 0,
    Rotational = 1,
    OtherBus = 2,
    Unknown = 3,
};

// One candidate file as the walk found it.
struct FileMeta
{
    qint64 size = 0;
    QString filePath;
    qint32 driveType = DriveType::Unknown;
};

// The matcher's input: candidate files bucketed by size.
using SizeGroups = QHash<qint64, QList<FileMeta>>;
