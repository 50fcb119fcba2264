// A non-recursive mutual-exclusion lock and its scoped guard.
//
//   Mutex mutex;
//   { MutexGuard guard(mutex); ... }   // unlocked on every way out
//
// Mutex is one 32-bit futex word: locking and unlocking a mutex nobody else
// wants is one atomic instruction each, inline, with no system call. A thread
// that finds it taken spins briefly, backing off (the critical sections of
// the kit are a few list or counter operations), and then sleeps in the
// kernel until an unlock wakes it. Waiters are not queued in order: a running thread may take
// the mutex ahead of a woken one, as with the C library's mutexes, but a woken
// waiter marks the mutex contended again, so every unlock that leaves it
// behind wakes it once more.
//
// Locking a Mutex the calling thread already holds deadlocks; unlocking one
// that is not locked is undefined.
//
// Threads: lock and unlock may be called from any thread. A MutexGuard
// belongs to the thread that created it.
#ifndef QOR_COMMON_SYSTEM_MUTEX_H
#define QOR_COMMON_SYSTEM_MUTEX_H

#include <atomic>

namespace qor::common::system {

class Mutex
{
public:
    enum Mode
    {
        NoWait = 0, // try once; lock() returns false when the mutex is taken
        Wait = 1    // block until the mutex is acquired
    };

    Mutex() noexcept : m_State(Unlocked) {}
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    // Acquires the mutex. With Wait it blocks and returns true; with NoWait it
    // returns at once, true only if the mutex was acquired.
    bool lock(Mode mode = Wait)
    {
        int expected = Unlocked;
        // Acquire on success: what the previous holder wrote before its
        // release in unlock() must be visible to this holder. On failure
        // nothing guarded is read: relaxed. Strong, because a NoWait attempt
        // must not fail on a free mutex (AArch64's exclusive pairs can).
        if (m_State.compare_exchange_strong(expected, Locked, std::memory_order_acquire,
                                            std::memory_order_relaxed))
        {
            return true;
        }
        if (mode == NoWait)
        {
            return false;
        }
        lockContended();
        return true;
    }

    void unlock()
    {
        // Release: what this holder wrote must be visible to the next one,
        // whose acquire reads this store. An exchange, not a store, so that a
        // Contended mark set by a thread about to sleep is never missed.
        if (m_State.exchange(Unlocked, std::memory_order_release) == Contended)
        {
            wakeOne();
        }
    }

private:
    enum State : int
    {
        Unlocked = 0,
        Locked = 1,   // held, nobody sleeps on it
        Contended = 2 // held, and a thread may sleep on it: unlock wakes one
    };

    void lockContended() noexcept;
    void wakeOne() noexcept;

    std::atomic<int> m_State; // the futex word
};

class MutexGuard
{
public:
    explicit MutexGuard(Mutex& mutex) : m_Mutex(mutex), m_Locked(m_Mutex.lock(Mutex::Wait)) {}
    // Releases the mutex if the guard still holds it.
    ~MutexGuard() { unlock(); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

    // Releases the mutex early; a second call does nothing.
    void unlock()
    {
        if (m_Locked)
        {
            m_Locked = false;
            m_Mutex.unlock();
        }
    }
    bool ownsLock() const { return m_Locked; }

private:
    Mutex& m_Mutex;
    bool m_Locked;
};

} // namespace qor::common::system

#endif
