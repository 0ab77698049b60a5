#include "platform/HeapTuning.h"

#include <cstdlib> // defines __GLIBC__ when the C library is glibc

#if defined(__GLIBC__)
#include <malloc.h>
#endif

void HeapTuning::apply()
{
#if defined(__GLIBC__)
    // The walk's threads allocate one record per file and the matcher's threads free them
    // while they build the groups. With glibc's default of one allocation arena per thread
    // the freed space sits in arenas the matcher never allocates from, and a scan's peak
    // grows by about a quarter; two shared arenas let the groups reuse it.
    mallopt(M_ARENA_MAX, 2);
#endif
}
