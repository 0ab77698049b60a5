#pragma once

#include "app/RaceChecker.h"

#ifdef TWINFOLD_TSAN_LOCKS
#include <mutex>
#endif

// A signal sent to another thread travels as an event through Qt's queue, whose lock the
// race checker cannot see: it would take the sender's allocation of the event and the
// receiver's release of it for a race. Under the checker a sender holds the fence while it
// emits, and the receiving slot passes through it first, which orders the two; in every
// other build both are empty. The mutex is recursive because a direct connection runs
// the slot inside the emit.
class SignalFence
{
public:
#ifdef TWINFOLD_TSAN_LOCKS
    SignalFence()
    {
        mutex().lock();
    }
    ~SignalFence()
    {
        mutex().unlock();
    }
    static void pass()
    {
        std::lock_guard<std::recursive_mutex> passing(mutex());
    }
#else
    SignalFence() {}
    ~SignalFence() {}
    static void pass() {}
#endif
    SignalFence(const SignalFence &) = delete;
    SignalFence &operator=(const SignalFence &) = delete;

private:
#ifdef TWINFOLD_TSAN_LOCKS
    static std::recursive_mutex &mutex()
    {
        static std::recursive_mutex fence;
        return fence;
    }
#endif
};
