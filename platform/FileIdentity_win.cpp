#include "platform/FileIdentity.h"

#include <QDir>

#include <io.h>
#include <windows.h>

FileIdentity FileIdentity::of(const QString &path)
{
    if (path.isEmpty())
        return FileIdentity();
    const std::wstring native = QDir::toNativeSeparators(path).toStdWString();
    // No access rights are needed to read the file number; backup semantics let the
    // call open folders too. Links and junctions are followed to their target.
    HANDLE h = CreateFileW(native.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return FileIdentity();
    BY_HANDLE_FILE_INFORMATION info;
    const BOOL ok = GetFileInformationByHandle(h, &info);
    CloseHandle(h);
    if (!ok)
        return FileIdentity();
    const quint64 index = (static_cast<quint64>(info.nFileIndexHigh) << 32) | info.nFileIndexLow;
    return FileIdentity(static_cast<quint64>(info.dwVolumeSerialNumber), index);
}

FileIdentity FileIdentity::openRegular(const QByteArray &utf8Path, QFile &file, qint64 *size)
{
    const QString path = QString::fromUtf8(utf8Path);
    file.setFileName(path);
    if (path.isEmpty() || !file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return FileIdentity();
    const HANDLE h = reinterpret_cast<HANDLE>(_get_osfhandle(file.handle()));
    BY_HANDLE_FILE_INFORMATION info;
    // Only disk files: a pipe or device name opens too but is not a file to compare.
    if (h == INVALID_HANDLE_VALUE || GetFileType(h) != FILE_TYPE_DISK ||
        !GetFileInformationByHandle(h, &info) || (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        file.close();
        return FileIdentity();
    }
    if (size)
        *size = static_cast<qint64>((static_cast<quint64>(info.nFileSizeHigh) << 32) | info.nFileSizeLow);
    const quint64 index = (static_cast<quint64>(info.nFileIndexHigh) << 32) | info.nFileIndexLow;
    return FileIdentity(static_cast<quint64>(info.dwVolumeSerialNumber), index);
}

bool FileIdentity::mappingSurvivesTruncation()
{
    return true;
}

bool FileIdentity::isHiddenOrSystem(const QString &path)
{
    const std::wstring native = QDir::toNativeSeparators(path).toStdWString();
    const DWORD attributes = GetFileAttributesW(native.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return false;
    return (attributes & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM)) != 0;
}
