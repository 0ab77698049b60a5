#pragma once

#include <QString>
#include <QtGlobal>

// The operating system's own removal mechanisms, tried by TFileDeleter after the
// toolkit's. Every failed step writes its own log line. On Windows these are the shell's
// file operations and the plain Win32 deletion (the calling thread needs COM, see
// initThread); on Linux the recycle bin is the freedesktop.org trash, so the desktop can
// list and restore what went there, and steps without a Linux counterpart report failure.
class ShellRemoval
{
public:
    // The shell's file operation on one file or folder. With undo it goes to the recycle
    // bin, without it is deleted for good.
    static bool fileOperation(const QString &path, bool allowUndo);
    // The recycle-bin call that newer shells export, looked up at every call; false where
    // the system lacks it.
    static bool sendToTrash(const QString &path);
    // The older shell operation that sends one path to the recycle bin.
    static bool legacyRecycle(const QString &path);
    // The system's plain deletion of one file.
    static bool deleteFileNative(const QString &path);
    // The system's message for an error code; for an HRESULT only its low 16 bits are
    // looked up. "Unknown error code: %1" when the system has none.
    static QString systemErrorText(qint32 code, bool isHResult);
    // Whether the toolkit's own move to the recycle bin can be used for `path` right now.
    // On Linux it makes sure the home trash can be set up first: when it cannot, the
    // toolkit would fall back to folders under the working directory.
    static bool toolkitTrashUsable(const QString &path);
    // Prepares the calling thread for fileOperation. Returns true when releaseThread must
    // be called on the same thread afterwards.
    static bool initThread();
    static void releaseThread();
};
