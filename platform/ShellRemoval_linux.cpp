#include "platform/ShellRemoval.h"

#include "app/TLogger.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <cerrno>
#include <cstring>
#include <unistd.h>

using namespace Qt::StringLiterals;

bool ShellRemoval::toolkitTrashUsable(const QString &path)
{
    // The toolkit trashes into $XDG_DATA_HOME/Trash (or a trash at the top of another
    // device, falling back to the home one). It creates only the last folder, and when
    // that fails it silently uses "files" and "info" under the working directory, so the
    // home trash must be creatable before it is asked.
    const QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (base.isEmpty() || !QDir().mkpath(base)) {
        logInfo(u"[TFileDeleter]: No data folder for the trash. file: %1"_s.arg(path));
        return false;
    }
    const QFileInfo trash(base + u"/Trash"_s);
    const QFileInfo parent(base);
    if (trash.isDir() ? trash.isWritable() : (!trash.exists() && parent.isDir() && parent.isWritable()))
        return true;
    logInfo(u"[TFileDeleter]: The trash folder cannot be used: %1. file: %2"_s.arg(trash.filePath(), path));
    return false;
}

bool ShellRemoval::fileOperation(const QString &path, bool allowUndo)
{
    const QFileInfo info(path);
    bool ok = false;
    QString reason;
    if (allowUndo) {
        // The freedesktop.org trash, so the desktop's trash view lists and restores it.
        QFile file(path);
        ok = toolkitTrashUsable(path) && file.moveToTrash();
        if (!ok)
            reason = file.errorString();
    } else if (info.isDir() && !info.isSymLink()) {
        // Never follows links inside the folder: a linked folder loses only the link.
        ok = QDir(path).removeRecursively();
        if (!ok)
            reason = u"the folder could not be removed completely"_s;
    } else {
        ok = ::unlink(QFile::encodeName(path).constData()) == 0;
        if (!ok)
            reason = systemErrorText(errno, false);
    }
    if (!ok)
        logInfo(u"[TFileDeleter]: PerformOperations failed. reason: %1. file: %2"_s.arg(reason, path));
    return ok;
}

bool ShellRemoval::sendToTrash(const QString &)
{
    return false;
}

bool ShellRemoval::legacyRecycle(const QString &)
{
    return false;
}

bool ShellRemoval::deleteFileNative(const QString &path)
{
    if (::unlink(QFile::encodeName(path).constData()) == 0)
        return true;
    const int error = errno;
    logInfo(
        u"[TFileDeleter]: Delete failed. Reason: %1. File: %2"_s.arg(systemErrorText(error, false), path));
    return false;
}

QString ShellRemoval::systemErrorText(qint32 code, bool isHResult)
{
    const int lookup = isHResult ? int(quint32(code) & 0xFFFFu) : code;
    if (const char *text = ::strerrordesc_np(lookup))
        return QString::fromLocal8Bit(text).trimmed();
    return u"Unknown error code: %1"_s.arg(code);
}

bool ShellRemoval::initThread()
{
    return false;
}

void ShellRemoval::releaseThread() {}
