#include "qor/common/system/CondVar.h"

#include <time.h>

#include <cerrno>
#include <system_error>

namespace qor::common::system {

CondVar::CondVar()
{
    pthread_condattr_t attr;
    ::pthread_condattr_init(&attr);
    // Timed waits measure on the monotonic clock, immune to wall-clock changes.
    ::pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    const int rc = ::pthread_cond_init(&m_Cond, &attr);
    ::pthread_condattr_destroy(&attr);
    if (rc != 0)
    {
        throw std::system_error(rc, std::generic_category(), "pthread_cond_init");
    }
}

CondVar::~CondVar()
{
    ::pthread_cond_destroy(&m_Cond);
}

void CondVar::signal()
{
    ::pthread_cond_signal(&m_Cond);
}

void CondVar::broadcast()
{
    ::pthread_cond_broadcast(&m_Cond);
}

void CondVar::wait(Mutex& mutex)
{
    ::pthread_cond_wait(&m_Cond, &mutex.m_Mutex);
}

bool CondVar::wait(Mutex& mutex, unsigned int timeout)
{
    timespec deadline{};
    ::clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += static_cast<time_t>(timeout / 1000u);
    deadline.tv_nsec += static_cast<long>(timeout % 1000u) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L)
    {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    return ::pthread_cond_timedwait(&m_Cond, &mutex.m_Mutex, &deadline) != ETIMEDOUT;
}

} // namespace qor::common::system
