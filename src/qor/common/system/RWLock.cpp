#include "qor/common/system/RWLock.h"

#include <cassert>
#include <system_error>

namespace qor::common::system {

RWLock::RWLock()
{
    pthread_rwlockattr_t attr;
    ::pthread_rwlockattr_init(&attr);
    // Waiting writers hold off new readers, so readers cannot starve a writer.
    ::pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    const int rc = ::pthread_rwlock_init(&m_Lock, &attr);
    ::pthread_rwlockattr_destroy(&attr);
    if (rc != 0)
    {
        throw std::system_error(rc, std::generic_category(), "pthread_rwlock_init");
    }
}

RWLock::~RWLock()
{
    ::pthread_rwlock_destroy(&m_Lock);
}

void RWLock::ReadLock() const
{
    const int rc = ::pthread_rwlock_rdlock(&m_Lock);
    if (rc != 0)
    {
        throw std::system_error(rc, std::generic_category(), "pthread_rwlock_rdlock");
    }
}

void RWLock::WriteLock() const
{
    const int rc = ::pthread_rwlock_wrlock(&m_Lock);
    if (rc != 0)
    {
        throw std::system_error(rc, std::generic_category(), "pthread_rwlock_wrlock");
    }
}

void RWLock::UnLock() const noexcept
{
    ::pthread_rwlock_unlock(&m_Lock);
}

void RWLock::UnLock() noexcept
{
    ::pthread_rwlock_unlock(&m_Lock);
}

} // namespace qor::common::system
