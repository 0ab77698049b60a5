#include "platform/FileIdentity.h"

#include <QDir>

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
