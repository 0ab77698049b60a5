#pragma once

#include <QList>
#include <QString>
#include <QtGlobal>

// One folder of a duplicate-folder group.
struct FolderRecord
{
    QString folderPath;
    qint32 fileCount = 0;
    qint64 totalSize = 0;

    bool operator==(const FolderRecord &) const = default;
};

using FolderRecords = QList<FolderRecord>;
