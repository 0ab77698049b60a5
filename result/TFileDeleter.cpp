#include "result/TFileDeleter.h"

#include "app/TLogger.h"
#include "platform/ShellRemoval.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

using namespace Qt::StringLiterals;

namespace {

#ifdef Q_OS_WIN
constexpr Qt::CaseSensitivity kPathCase = Qt::CaseInsensitive;
#else
constexpr Qt::CaseSensitivity kPathCase = Qt::CaseSensitive;
#endif

// A dangling link is still something the user selected and can remove.
bool present(const QString &path)
{
    const QFileInfo info(path);
    return info.exists() || info.isSymLink();
}

bool isRealFolder(const QFileInfo &info)
{
    return info.isDir() && !info.isSymLink();
}

// Relative paths would resolve against whatever the working folder happens to be, and a
// root is never a removal target; both are refused before anything is looked at.
bool acceptable(const QString &path)
{
    if (path.isEmpty() || !QDir::isAbsolutePath(path)) {
        logInfo(u"[TFileDeleter]: Refused a path that is not absolute: %1"_s.arg(path));
        return false;
    }
    if (QFileInfo(QDir::cleanPath(path)).isRoot()) {
        logInfo(u"[TFileDeleter]: Refused to remove a root folder: %1"_s.arg(path));
        return false;
    }
    return true;
}

bool sameOrInside(const QString &inner, const QString &outer)
{
    return inner.compare(outer, kPathCase) == 0 || inner.startsWith(outer + u'/', kPathCase);
}

DeleteResult failure(const QString &path, DeleteError code, const QString &message)
{
    return DeleteResult{path, false, static_cast<qint32>(code), message};
}

// Write access lets a read-only file go; the old bits come back if every step failed.
// Links are left alone: changing them would change the file they point to.
class WritableForRemoval
{
public:
    explicit WritableForRemoval(const QString &path)
        : m_path(path), m_link(QFileInfo(path).isSymLink()), m_old(QFile::permissions(path))
    {
        if (!m_link && !(m_old & QFileDevice::WriteUser))
            QFile::setPermissions(m_path, m_old | QFileDevice::WriteUser);
    }
    void restoreIfStillThere() const
    {
        if (!m_link && !(m_old & QFileDevice::WriteUser) && present(m_path))
            QFile::setPermissions(m_path, m_old);
    }

private:
    QString m_path;
    bool m_link;
    QFileDevice::Permissions m_old;
};

} // namespace

DeleteResult TFileDeleter::deletePath(const QString &path, Method method, const QString &targetFolder)
{
    if (!acceptable(path))
        return failure(path, DeleteError::Unknown, u"Deletion failed."_s);
    if (!present(path))
        return DeleteResult{path, true, 0, QString()};
    // A link to a folder is removed as a link, never by walking into the folder.
    if (isRealFolder(QFileInfo(path)))
        return deleteFolder(path, method, targetFolder);
    return deleteFile(path, method, targetFolder);
}

DeleteResult TFileDeleter::deleteFile(const QString &path, Method method, const QString &targetFolder)
{
    if (!acceptable(path))
        return failure(path, DeleteError::Unknown, u"Deletion failed."_s);
    if (!present(path))
        return DeleteResult{path, true, 0, QString()};
    const QFileInfo info(path);
    if (!info.isFile() && !info.isSymLink())
        return failure(path, DeleteError::NotAFile, u"Target is not a file."_s);

    bool ok = false;
    DeleteError code = DeleteError::None;
    switch (method) {
    case TWIgnoreListPreferences::moveToTrash:
        ok = trashFile(path);
        break;
    case TWIgnoreListPreferences::removePermanently:
        ok = removeFilePermanently(path);
        break;
    case TWIgnoreListPreferences::moveToFolder:
        ok = moveIntoFolder(path, targetFolder, false);
        if (!ok)
            code = DeleteError::MoveFailed;
        break;
    default:
        logInfo(u"[TFileDeleter]: Unknown removal method %1. file: %2"_s.arg(int(method)).arg(path));
        break;
    }
    if (ok)
        return DeleteResult{path, true, 0, QString()};
    return failure(path, code == DeleteError::None ? DeleteError::Unknown : code, u"Deletion failed."_s);
}

DeleteResult TFileDeleter::deleteFolder(const QString &path, Method method, const QString &targetFolder)
{
    if (!acceptable(path))
        return failure(path, DeleteError::Unknown, u"Folder deletion failed."_s);
    if (!present(path))
        return DeleteResult{path, true, 0, QString()};
    if (!isRealFolder(QFileInfo(path)))
        return failure(path, DeleteError::NotADirectory, u"Target is not a folder."_s);

    bool ok = false;
    DeleteError code = DeleteError::None;
    switch (method) {
    case TWIgnoreListPreferences::moveToTrash:
        // Only the shell moves whole folders to the recycle bin.
        ok = ShellRemoval::fileOperation(path, true);
        break;
    case TWIgnoreListPreferences::removePermanently:
        ok = QDir(path).removeRecursively();
        if (!ok) {
            logInfo(u"[TFileDeleter]: removeRecursively failed. folder: %1"_s.arg(path));
            ok = ShellRemoval::fileOperation(path, false);
        }
        break;
    case TWIgnoreListPreferences::moveToFolder:
        ok = moveIntoFolder(path, targetFolder, true);
        if (!ok)
            code = DeleteError::MoveFailed;
        break;
    default:
        logInfo(u"[TFileDeleter]: Unknown removal method %1. folder: %2"_s.arg(int(method)).arg(path));
        break;
    }
    if (ok)
        return DeleteResult{path, true, 0, QString()};
    return failure(path, code == DeleteError::None ? DeleteError::Unknown : code,
                   u"Folder deletion failed."_s);
}

QString TFileDeleter::systemErrorText(qint32 code, bool isHResult)
{
    return ShellRemoval::systemErrorText(code, isHResult);
}

bool TFileDeleter::trashFile(const QString &path)
{
    WritableForRemoval writable(path);
    QFile file(path);
    if (ShellRemoval::toolkitTrashUsable(path) && file.moveToTrash())
        return true;
    logInfo(u"[TFileDeleter]: moveToTrash Failed. file: %1"_s.arg(path));
    // Each later step runs only while the file is still there: gone is what success means.
    if (!present(path) || ShellRemoval::fileOperation(path, true) || !present(path) ||
        ShellRemoval::sendToTrash(path) || !present(path) || ShellRemoval::legacyRecycle(path) ||
        !present(path))
        return true;
    writable.restoreIfStillThere();
    return false;
}

bool TFileDeleter::removeFilePermanently(const QString &path)
{
    WritableForRemoval writable(path);
    QFile file(path);
    if (file.remove())
        return true;
    logInfo(u"[TFileDeleter] QFile::remove failed: %1"_s.arg(path));
    if (!present(path) || ShellRemoval::fileOperation(path, false) || !present(path))
        return true;
    logInfo(u"[TFileDeleter] IFileOperation failed: %1"_s.arg(path));
    if (ShellRemoval::deleteFileNative(path) || !present(path))
        return true;
    writable.restoreIfStillThere();
    return false;
}

QString TFileDeleter::freeDestination(const QString &targetFolder, const QString &name)
{
    const QDir dir(targetFolder);
    const QString first = dir.filePath(name);
    if (!present(first))
        return first;
    // "photo.jpg" becomes "photo (1).jpg"; names without a usable suffix get the number
    // at the end (folders, ".hidden", "README").
    const qsizetype dot = name.lastIndexOf(u'.');
    const bool split = dot > 0 && dot < name.size() - 1;
    const QString stem = split ? name.left(dot) : name;
    const QString suffix = split ? name.mid(dot) : QString();
    for (int n = 1; n < 100000; ++n) {
        const QString candidate = dir.filePath(stem + u" ("_s + QString::number(n) + u')' + suffix);
        if (!present(candidate))
            return candidate;
    }
    return QString();
}

bool TFileDeleter::moveIntoFolder(const QString &path, const QString &targetFolder, bool isFolder)
{
    const auto fail = [&path](const QString &reason) {
        logInfo(u"[TFileDeleter]: Move to folder failed. reason: %1. file: %2"_s.arg(reason, path));
        return false;
    };
    // An empty or relative folder would mean the working folder: never a place to move to.
    if (targetFolder.trimmed().isEmpty())
        return fail(u"no target folder is set"_s);
    if (!QDir::isAbsolutePath(targetFolder))
        return fail(u"the target folder is not an absolute path: %1"_s.arg(targetFolder));

    const QString source = QDir::cleanPath(QFileInfo(path).absoluteFilePath());
    const QString target = QDir::cleanPath(targetFolder);
    if (isFolder) {
        const QString canonicalSource = QFileInfo(source).canonicalFilePath();
        const QString canonicalTarget = QFileInfo(target).canonicalFilePath();
        if (sameOrInside(target, source) ||
            (!canonicalTarget.isEmpty() && sameOrInside(canonicalTarget, canonicalSource)))
            return fail(u"the target folder lies inside the folder"_s);
    }
    if (!QDir().mkpath(target) || !QFileInfo(target).isDir())
        return fail(u"the target folder cannot be created: %1"_s.arg(target));

    // Already in the target folder: nothing to move, and nothing there may be replaced.
    const QString canonicalTarget = QFileInfo(target).canonicalFilePath();
    if (QFileInfo(source).dir().canonicalPath().compare(canonicalTarget, kPathCase) == 0)
        return true;

    const QString destination = freeDestination(target, QFileInfo(source).fileName());
    if (destination.isEmpty())
        return fail(u"no free name in the target folder"_s);
    const bool moved = isFolder ? QDir().rename(source, destination) : QFile::rename(source, destination);
    if (!moved)
        return fail(u"the rename to %1 failed"_s.arg(destination));
    return true;
}
