// A condition variable that waits with a Mutex.
//
// Timed waits measure on the monotonic clock, so setting the wall clock
// neither stretches nor shortens them. Wake-ups may be spurious: callers wait
// in a loop over their own condition, which they change only while holding
// the mutex (the signal may follow after the mutex is released). A signal
// with nobody waiting costs no system call.
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
    CondVar() noexcept : m_Sequence(0), m_Waiters(0) {}
    CondVar(const CondVar&) = delete;
    CondVar& operator=(const CondVar&) = delete;

    // Wakes one waiting thread, if any.
    void signal() { wake(1); }
    // Wakes every waiting thread.
    void broadcast();

    // Releases `mutex`, waits for a signal and reacquires it.
    void wait(Mutex& mutex) { waitFor(mutex, nullptr); }
    // As wait(mutex), for at most `timeout` milliseconds. Returns false when the
    // time ran out, true when woken (possibly spuriously).
    bool wait(Mutex& mutex, unsigned int timeout);

private:
    void wake(int count);
    bool waitFor(Mutex& mutex, const timespec* relative);

    // The futex word: advanced by every signal that finds a waiter, so that a
    // waiter that read it before releasing the mutex does not fall asleep
    // after the signal meant for it.
    std::atomic<int> m_Sequence;
    // Threads inside wait(); changed only with the mutex held. Lets a signal
    // with nobody waiting skip the system call.
    std::atomic<int> m_Waiters;
};

} // namespace qor::common::system

#endif
