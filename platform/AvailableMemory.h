#pragma once

#include <QtGlobal>

// Physical memory the system could hand out right now, the base of the image cache's
// memory budget.
class AvailableMemory
{
public:
    // Bytes available; 0 or less when the system cannot tell, so the caller's default applies.
    static qint64 physicalBytes();
};
