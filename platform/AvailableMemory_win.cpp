#include "platform/AvailableMemory.h"

#include <windows.h>

qint64 AvailableMemory::physicalBytes()
{
    MEMORYSTATUSEX status = {};
    status.dwLength = sizeof(status);
    if (!GlobalMemoryStatusEx(&status))
        return 0;
    // windows.h defines min and max as macros, so no numeric_limits here.
    constexpr DWORDLONG largest = DWORDLONG(Q_INT64_C(0x7fffffffffffffff));
    return status.ullAvailPhys > largest ? 0 : static_cast<qint64>(status.ullAvailPhys);
}
