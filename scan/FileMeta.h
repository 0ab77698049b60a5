#pragma once

#include <QByteArray>
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

// One candidate file as the walk found it. The path is kept as UTF-8: a scan holds one
// record per file until matching, and most paths are ASCII, which UTF-16 would double.
struct FileMeta
{
    qint64 size = 0;
    QByteArray filePath;
    qint32 driveType = DriveType::Unknown;

    QString path() const { return QString::fromUtf8(filePath); }
};

// The matcher's input: candidate files bucketed by size.
using SizeGroups = QHash<qint64, QList<FileMeta>>;
