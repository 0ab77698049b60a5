#pragma once

#include <QReadWriteLock>

#include "app/RaceChecker.h"

// Holds a QReadWriteLock for reading or writing, like QReadLocker and QWriteLocker.
// QReadWriteLock takes and releases itself inside Qt's library, out of the race checker's
// sight; under the checker this guard announces every lock and unlock to it, so that the
// data the lock guards is seen as ordered. Every holder of a shared lock uses this guard.
class ReadWriteLockGuard
{
public:
    enum Mode
    {
        Read,
        Write
    };

    ReadWriteLockGuard(QReadWriteLock &lock, Mode mode) : lock(lock), mode(mode) { relock(); }
    ~ReadWriteLockGuard() { unlock(); }
    ReadWriteLockGuard(const ReadWriteLockGuard &) = delete;
    ReadWriteLockGuard &operator=(const ReadWriteLockGuard &) = delete;

    void relock()
    {
        if (held)
            return;
#ifdef TWINFOLD_TSAN_LOCKS
        __tsan_mutex_pre_lock(&lock, flags());
#endif
        if (mode == Read)
            lock.lockForRead();
        else
            lock.lockForWrite();
#ifdef TWINFOLD_TSAN_LOCKS
        __tsan_mutex_post_lock(&lock, flags(), 0);
#endif
        held = true;
    }

    void unlock()
    {
        if (!held)
            return;
#ifdef TWINFOLD_TSAN_LOCKS
        __tsan_mutex_pre_unlock(&lock, flags());
#endif
        lock.unlock();
#ifdef TWINFOLD_TSAN_LOCKS
        __tsan_mutex_post_unlock(&lock, flags());
#endif
        held = false;
    }

private:
#ifdef TWINFOLD_TSAN_LOCKS
    unsigned flags() const
    {
        return mode == Read ? unsigned(__tsan_mutex_read_lock) : 0u;
    }
#endif

    QReadWriteLock &lock;
    const Mode mode;
    bool held = false;
};
