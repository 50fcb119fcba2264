// A non-recursive mutual-exclusion lock and its scoped guard.
//
//   Mutex mutex;
//   { MutexGuard guard(mutex); ... }   // unlocked on every way out
//
// Mutex wraps a POSIX mutex so that CondVar can wait on it. Locking a Mutex
// the calling thread already holds deadlocks; unlocking one it does not hold
// is undefined, as with any POSIX normal mutex.
//
// Threads: lock and unlock may be called from any thread. A MutexGuard belongs
// to the thread that created it.
#ifndef QOR_COMMON_SYSTEM_MUTEX_H
#define QOR_COMMON_SYSTEM_MUTEX_H

#include <pthread.h>

namespace qor::common::system {

class CondVar;

class Mutex
{
public:
    enum Mode
    {
        NoWait = 0, // try once; lock() returns false when the mutex is taken
        Wait = 1    // block until the mutex is acquired
    };

    Mutex();
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    // Acquires the mutex. With Wait it blocks and returns true; with NoWait it
    // returns at once, true only if the mutex was acquired.
    bool lock(Mode mode = Wait);
    void unlock();

private:
    friend class CondVar;
    pthread_mutex_t m_Mutex;
};

class MutexGuard
{
public:
    explicit MutexGuard(Mutex& mutex);
    // Releases the mutex if the guard still holds it.
    ~MutexGuard();
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

    // Releases the mutex early; a second call does nothing.
    void unlock();
    bool ownsLock() const { return m_Locked; }

private:
    Mutex& m_Mutex;
    bool m_Locked;
};

} // namespace qor::common::system

#endif
