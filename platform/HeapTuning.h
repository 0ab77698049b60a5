#pragma once

// Settings of the C library's allocator that suit a scan, applied once at start-up before
// any worker thread exists.
class HeapTuning
{
public:
    static void apply();
};
