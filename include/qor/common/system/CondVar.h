// A condition variable that waits with a Mutex.
//
// Timed waits measure on the monotonic clock, so setting the wall clock
// neither stretches nor shortens them. Wake-ups may be spurious: callers wait
// in a loop over their own condition, which they change only while holding
// the mutex (the signal may follow after the mutex is released). A signal
// wakes every thread waiting at that moment, not just one: the kit has one
// waiter per condition variable, and in exchange a signal costs no system
// call unless a thread has started waiting since the previous signal.
//
// Threads: signal() and broadcast() may be called from any thread, with or
// without the mutex held; wait() must be called with the mutex held by the
// calling thread, and every waiter of one CondVar uses the same mutex.
#ifndef QOR_COMMON_SYSTEM_CONDVAR_H
#define QOR_COMMON_SYSTEM_CONDVAR_H

#include "qor/common/system/Mutex.h"

#include <atomic>

struct timespec;

namespace qor::common::system {

class CondVar
{
public:
    CondVar() noexcept : m_Word(0) {}
    CondVar(const CondVar&) = delete;
    CondVar& operator=(const CondVar&) = delete;

    // Wakes the waiting threads, if any.
    void signal() { broadcast(); }
    void broadcast()
    {
        // Relaxed: see CondVar.cpp. Nobody started waiting since the last
        // wake-up: no system call.
        if ((m_Word.load(std::memory_order_relaxed) & s_Waiting) != 0)
        {
            wakeWaiters();
        }
    }

    // Releases `mutex`, waits for a signal and reacquires it.
    void wait(Mutex& mutex) { waitFor(mutex, nullptr); }
    // As wait(mutex), for at most `timeout` milliseconds. Returns false when the
    // time ran out, true when woken (possibly spuriously).
    bool wait(Mutex& mutex, unsigned int timeout);

private:
    static constexpr int s_Waiting = 1;

    void wakeWaiters();
    bool waitFor(Mutex& mutex, const timespec* relative);

    // The futex word. Bit 0 (s_Waiting): a thread may be waiting that no
    // signal has woken yet. The bits above: a sequence that every waking
    // signal advances, so that a waiter that read the word before it released
    // the mutex does not fall asleep after the signal meant for it.
    std::atomic<int> m_Word;
};

} // namespace qor::common::system

#endif
