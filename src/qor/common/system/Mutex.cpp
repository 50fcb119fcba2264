#include "qor/common/system/Mutex.h"

#include <cassert>
#include <cerrno>
#include <system_error>

namespace qor::common::system {

Mutex::Mutex()
{
    // Adaptive: a thread that finds the mutex taken spins briefly before it
    // sleeps. Critical sections are short (a queue operation), so the holder
    // is usually gone before a sleep and its wake-up system call would pay off.
    pthread_mutexattr_t attr;
    ::pthread_mutexattr_init(&attr);
    ::pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ADAPTIVE_NP);
    const int rc = ::pthread_mutex_init(&m_Mutex, &attr);
    ::pthread_mutexattr_destroy(&attr);
    if (rc != 0)
    {
        throw std::system_error(rc, std::generic_category(), "pthread_mutex_init");
    }
}

Mutex::~Mutex()
{
    ::pthread_mutex_destroy(&m_Mutex);
}

bool Mutex::lock(Mode mode)
{
    if (mode == NoWait)
    {
        return ::pthread_mutex_trylock(&m_Mutex) == 0;
    }
    const int rc = ::pthread_mutex_lock(&m_Mutex);
    assert(rc == 0);
    (void)rc;
    return true;
}

void Mutex::unlock()
{
    ::pthread_mutex_unlock(&m_Mutex);
}

MutexGuard::MutexGuard(Mutex& mutex) : m_Mutex(mutex), m_Locked(false)
{
    m_Mutex.lock(Mutex::Wait);
    m_Locked = true;
}

MutexGuard::~MutexGuard()
{
    unlock();
}

void MutexGuard::unlock()
{
    if (m_Locked)
    {
        m_Locked = false;
        m_Mutex.unlock();
    }
}

} // namespace qor::common::system
