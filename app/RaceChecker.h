#pragma once

// TWINFOLD_TSAN_LOCKS is defined when the race checker (ThreadSanitizer) instruments this
// build; the annotations that tell it about hand-overs inside Qt compile only then.
#if defined(__SANITIZE_THREAD__)
#define TWINFOLD_TSAN_LOCKS 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TWINFOLD_TSAN_LOCKS 1
#endif
#endif
#ifdef TWINFOLD_TSAN_LOCKS
#include <sanitizer/tsan_interface.h>
#endif
