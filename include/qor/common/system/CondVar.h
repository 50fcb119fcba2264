// A condition variable that waits with a Mutex.
//
// Timed waits measure on the monotonic clock, so setting the wall clock
// neither stretches nor shortens them. Wake-ups may be spurious: callers wait
// in a loop over their own condition.
//
// Threads: signal() may be called from any thread, with or without the mutex
// held; wait() must be called with the mutex held by the calling thread.
#ifndef QOR_COMMON_SYSTEM_CONDVAR_H
#define QOR_COMMON_SYSTEM_CONDVAR_H

#include "qor/common/system/Mutex.h"

#include <pthread.h>

namespace qor::common::system {

class CondVar
{
public:
    CondVar();
    ~CondVar();
    CondVar(const CondVar&) = delete;
    CondVar& operator=(const CondVar&) = delete;

    // Wakes one waiting thread, if any.
    void signal();
    // Wakes every waiting thread.
    void broadcast();

    // Releases `mutex`, waits for a signal and reacquires it.
    void wait(Mutex& mutex);
    // As wait(mutex), for at most `timeout` milliseconds. Returns false when the
    // time ran out, true when woken (possibly spuriously).
    bool wait(Mutex& mutex, unsigned int timeout);

private:
    pthread_cond_t m_Cond;
};

} // namespace qor::common::system

#endif
