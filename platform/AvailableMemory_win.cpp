#include "platform/AvailableMemory.h"

#include <limits>

#include <windows.h>

qint64 AvailableMemory::physicalBytes()
{
    MEMORYSTATUSEX status = {};
    status.dwLength = sizeof(status);
    if (!GlobalMemoryStatusEx(&status))
        return 0;
    if (status.ullAvailPhys > static_cast<DWORDLONG>(std::numeric_limits<qint64>::max()))
        return 0;
    return static_cast<qint64>(status.ullAvailPhys);
}
