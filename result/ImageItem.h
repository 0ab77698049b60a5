#pragma once

#include <QSize>
#include <QString>
#include <QtGlobal>

// One member row of a result group.
struct ImageItem
{
    QString groupKey;
    // Position of the row's group in the group list; travels with every change of checked.
    qint32 groupIndex = -1;
    // Real path of the member (similar-image marker stripped).
    QString path;
    qint64 size = 0;
    // Cached modification date text; empty until filled.
    QString dateText;
    bool checked = false;
    qint32 category = 0;
    // The member entry exactly as stored in the group, marker included; selection and
    // removal match on it.
    QString entry;
    // The member is a folder of a duplicate-folder group.
    bool isFolder = false;
    // Similarity percent of a similar-image entry, -1 for a plain entry.
    qint32 similarity = -1;

    // Reads the facts of one member entry from the file system. A vanished member gets
    // size 0 and the category of its suffix.
    static ImageItem fromEntry(const QString &groupKey, qint32 groupIndex, const QString &entry,
                               bool checked);

    // dateText when filled, else the file's modification time, empty when the file is gone.
    QString dateDisplay() const;
    // "<width>x<height>" from the image header, "-x-" when it cannot be read.
    QString resolutionDisplay() const { return resolutionText(path); }

    // Width and height from the image header without decoding pixels; -1 x -1 when the
    // file is missing or its header cannot be read.
    static QSize headerSize(const QString &path);
    static QString resolutionText(const QString &path);
    static QString modifiedText(const QString &path);
};
