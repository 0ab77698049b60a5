#include "platform/ReadOnlyFile.h"

#include <QDir>
#include <QString>

#include <windows.h>

#include <string>

ReadOnlyFile::~ReadOnlyFile()
{
    close();
}

void ReadOnlyFile::close()
{
    if (handle)
        CloseHandle(static_cast<HANDLE>(handle));
    handle = nullptr;
    fileSize = 0;
}

FileIdentity ReadOnlyFile::open(const QByteArray &utf8Path)
{
    close();
    if (utf8Path.isEmpty())
        return FileIdentity();
    const std::wstring native = QDir::toNativeSeparators(QString::fromUtf8(utf8Path)).toStdWString();
    // Others may go on reading, writing, renaming and deleting while we hash.
    HANDLE h =
        CreateFileW(native.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return FileIdentity();
    handle = h;
    BY_HANDLE_FILE_INFORMATION info;
    // Only disk files: a pipe or device name opens too but is not a file to compare.
    if (GetFileType(h) != FILE_TYPE_DISK || !GetFileInformationByHandle(h, &info) ||
        (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        close();
        return FileIdentity();
    }
    fileSize = static_cast<qint64>((static_cast<quint64>(info.nFileSizeHigh) << 32) | info.nFileSizeLow);
    const quint64 index = (static_cast<quint64>(info.nFileIndexHigh) << 32) | info.nFileIndexLow;
    return FileIdentity(static_cast<quint64>(info.dwVolumeSerialNumber), index);
}

bool ReadOnlyFile::isOpen() const
{
    return handle != nullptr;
}

qint64 ReadOnlyFile::read(char *data, qint64 length)
{
    if (!handle)
        return -1;
    DWORD got = 0;
    const DWORD want = static_cast<DWORD>(qMin<qint64>(length, MAXDWORD));
    if (!ReadFile(static_cast<HANDLE>(handle), data, want, &got, nullptr))
        return -1;
    return static_cast<qint64>(got);
}

qint64 ReadOnlyFile::readAt(qint64 offset, char *data, qint64 length)
{
    if (!handle)
        return -1;
    // On a synchronous handle the offset in OVERLAPPED makes this a positioned read.
    OVERLAPPED at = {};
    at.Offset = static_cast<DWORD>(static_cast<quint64>(offset) & 0xFFFFFFFFu);
    at.OffsetHigh = static_cast<DWORD>(static_cast<quint64>(offset) >> 32);
    DWORD got = 0;
    const DWORD want = static_cast<DWORD>(qMin<qint64>(length, MAXDWORD));
    if (!ReadFile(static_cast<HANDLE>(handle), data, want, &got, &at))
        return GetLastError() == ERROR_HANDLE_EOF ? 0 : -1;
    return static_cast<qint64>(got);
}

const uchar *ReadOnlyFile::map(qint64 length)
{
    if (!handle || length <= 0)
        return nullptr;
    const quint64 end = static_cast<quint64>(length);
    HANDLE mapping =
        CreateFileMappingW(static_cast<HANDLE>(handle), nullptr, PAGE_READONLY, static_cast<DWORD>(end >> 32),
                           static_cast<DWORD>(end & 0xFFFFFFFFu), nullptr);
    if (!mapping)
        return nullptr;
    void *address = MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, static_cast<SIZE_T>(length));
    // The view keeps the mapping object alive until it is unmapped.
    CloseHandle(mapping);
    return static_cast<const uchar *>(address);
}

void ReadOnlyFile::unmap(const uchar *address, qint64)
{
    if (address)
        UnmapViewOfFile(address);
}
