#pragma once

#include <QDir>
#include <QStandardPaths>
#include <QStorageInfo>
#include <QString>
#include <QTemporaryDir>

// Points the desktop trash into a test's own folder and returns its path, or an empty
// string when that could not be arranged. The home trash lives under $HOME, and a source
// on another device would go to that device's own trash, so both are moved and checked.
inline QString usePrivateTrash(const QTemporaryDir &root)
{
    qputenv("XDG_DATA_HOME", root.filePath(QStringLiteral("xdg")).toLocal8Bit());
    qputenv("HOME", root.filePath(QStringLiteral("home")).toLocal8Bit());
    if (!QDir().mkpath(root.filePath(QStringLiteral("home"))))
        return {};
    const QString trash =
        QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QStringLiteral("/Trash");
    if (!trash.startsWith(root.path() + u'/') || QStorageInfo(root.path()) != QStorageInfo(QDir::home()))
        return {};
    return trash;
}
