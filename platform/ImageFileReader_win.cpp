#include "platform/ImageFileReader.h"

#include <QDir>
#include <QScopeGuard>

#include <new>
#include <string>

#include <windows.h>

ImageFileReader::Status ImageFileReader::readAll(const QString &path, std::vector<uchar> &bytes)
{
    bytes.clear();
    // UTF-16 path so every Unicode file name opens; other readers may keep the file open.
    const std::wstring native = QDir::toNativeSeparators(path).toStdWString();
    HANDLE file = CreateFileW(native.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return Status::CannotOpen;
    const auto closeFile = qScopeGuard([file] { CloseHandle(file); });

    LARGE_INTEGER fileSize;
    if (!GetFileSizeEx(file, &fileSize))
        return Status::NoSize;
    // One unsigned comparison refuses both 0 bytes and anything above the limit.
    const quint64 size = static_cast<quint64>(fileSize.QuadPart);
    if (size - 1 > static_cast<quint64>(maxFileSize - 1))
        return Status::TooLargeOrEmpty;

    try {
        bytes.assign(static_cast<size_t>(size), 0);
    } catch (const std::bad_alloc &) {
        return Status::NoMemory;
    }

    quint64 offset = 0;
    while (offset < size) {
        const DWORD want = static_cast<DWORD>(qMin<quint64>(chunkSize, size - offset));
        DWORD got = 0;
        if (!ReadFile(file, bytes.data() + offset, want, &got, nullptr)) {
            std::vector<uchar>().swap(bytes);
            return Status::ReadFailed;
        }
        if (got == 0)
            break; // the file became shorter than reported: keep what was read
        offset += got;
    }
    bytes.resize(static_cast<size_t>(offset));
    return Status::Ok;
}
