#pragma once

#include <QByteArray>
#include <QString>
#include <QtGlobal>

// Finds the class of the drive that holds a path (the DriveType values of scan/FileMeta.h):
// 0 solid state, 1 rotational, 2 other bus (removable, network, USB, SD...), 3 unknown.
// It asks the system every time; callers cache by cacheKey().
class DriveClassifier
{
public:
    static qint32 classify(const QString &path);
    // Names the drive of a path for caching: the upper-cased drive letter and colon on
    // Windows, the device number on Linux. Empty when the path cannot be read.
    static QString cacheKey(const QString &path);

#ifndef Q_OS_WIN
    // The Linux decision over a given mount table (the text of /proc/self/mountinfo)
    // and sysfs folder, for an absolute path with links already resolved.
    static qint32 classifyWith(const QString &canonicalPath, const QByteArray &mountInfo,
                               const QString &sysRoot);
#endif
};
