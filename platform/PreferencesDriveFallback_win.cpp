#include "platform/PreferencesDriveFallback.h"

#include <QFileInfo>

#include <windows.h>

QStringList PreferencesDriveFallback::fixedDriveRoots()
{
    QStringList roots;
    const QFileInfoList drives = QDir::drives();
    for (const QFileInfo &drive : drives) {
        const QString root = drive.absoluteFilePath(); // "C:/"
        const QString native = QDir::toNativeSeparators(root);
        if (GetDriveTypeW(reinterpret_cast<LPCWSTR>(native.utf16())) == DRIVE_FIXED)
            roots.append(root);
    }
    return roots;
}
