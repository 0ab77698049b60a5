#include "platform/DriveClassifier.h"

#include "scan/FileMeta.h"

#include <QDir>
#include <QFileInfo>

#include <windows.h>
#include <winioctl.h>

QString DriveClassifier::cacheKey(const QString &path)
{
    return QFileInfo(path).absoluteFilePath().left(2).toUpper();
}

qint32 DriveClassifier::classify(const QString &path)
{
    const QString drive = cacheKey(path);
    const std::wstring volume = (QStringLiteral("\\\\.\\") + drive).toStdWString();
    // No access rights: the storage queries below need none.
    HANDLE h = CreateFileW(volume.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                           nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return DriveType::Unknown;

    STORAGE_PROPERTY_QUERY query = {};
    query.PropertyId = StorageDeviceProperty;
    query.QueryType = PropertyStandardQuery;
    alignas(STORAGE_DEVICE_DESCRIPTOR) BYTE buffer[1024] = {};
    DWORD returned = 0;
    if (!DeviceIoControl(h, IOCTL_STORAGE_QUERY_PROPERTY, &query, sizeof(query), buffer, sizeof(buffer),
                         &returned, nullptr)) {
        CloseHandle(h);
        return DriveType::Unknown;
    }
    const auto *descriptor = reinterpret_cast<const STORAGE_DEVICE_DESCRIPTOR *>(buffer);
    const STORAGE_BUS_TYPE bus = descriptor->BusType;
    if (bus != BusTypeScsi && bus != BusTypeAta && bus != BusTypeSata && bus != BusTypeNvme) {
        CloseHandle(h);
        return DriveType::OtherBus;
    }

    STORAGE_PROPERTY_QUERY seekQuery = {};
    seekQuery.PropertyId = StorageDeviceSeekPenaltyProperty;
    seekQuery.QueryType = PropertyStandardQuery;
    DEVICE_SEEK_PENALTY_DESCRIPTOR seek = {};
    returned = 0;
    const BOOL ok = DeviceIoControl(h, IOCTL_STORAGE_QUERY_PROPERTY, &seekQuery, sizeof(seekQuery), &seek,
                                    sizeof(seek), &returned, nullptr);
    CloseHandle(h);
    if (!ok)
        return DriveType::Unknown;
    return seek.IncursSeekPenalty ? DriveType::Rotational : DriveType::SolidState;
}
