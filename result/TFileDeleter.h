#pragma once

#include "result/DeleteResult.h"
#include "settings/TWIgnoreListPreferences.h"

#include <QString>

// Removes one file or folder by one of the three removal methods, trying the toolkit and
// then the system's mechanisms in a fixed order, and reports the outcome as a
// DeleteResult. Holds no state; callable from any thread. On Windows the calling thread
// needs COM (ShellRemoval::initThread) for the shell steps.
//
// Safety rules on top of the fallbacks: only absolute paths are acted on; a symbolic link
// is removed as a link and never followed; moving into the target folder never replaces
// or removes what is already there (a clashing name gets a free " (n)" name instead).
class TFileDeleter
{
public:
    using Method = TWIgnoreListPreferences::TWRemovalMethod;

    // A path that does not exist is a success with nothing done. A folder goes to
    // deleteFolder, anything else (files and links) to deleteFile.
    static DeleteResult deletePath(const QString &path, Method method, const QString &targetFolder);
    static DeleteResult deleteFile(const QString &path, Method method, const QString &targetFolder);
    static DeleteResult deleteFolder(const QString &path, Method method, const QString &targetFolder);
    // The system's message for a Win32 error (or errno on Linux) or an HRESULT.
    static QString systemErrorText(qint32 code, bool isHResult);

    // The path that moving `path` into `targetFolder` would take: the folder joined with
    // the name, or with "name (n).suffix" for the lowest n that is free.
    static QString freeDestination(const QString &targetFolder, const QString &name);

private:
    static bool trashFile(const QString &path);
    static bool removeFilePermanently(const QString &path);
    static bool moveIntoFolder(const QString &path, const QString &targetFolder, bool isFolder);
};
