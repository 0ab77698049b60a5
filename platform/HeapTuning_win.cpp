#include "platform/HeapTuning.h"

void HeapTuning::apply()
{
    // The process heap of Windows is shared by all threads already; nothing to tune.
}
