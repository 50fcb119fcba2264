#include "qor/nav/sdk/utils/memory/allocator/policy/ProtectByMutex.h"

namespace qor::nav::sdk::utils::memory::allocator::policy {

using common::system::Mutex;

ProtectByMutexGuard::ProtectByMutexGuard(Mutex& mutex) : m_pMutex(&mutex)
{
    m_pMutex->lock(Mutex::Wait);
}

ProtectByMutexGuard::ProtectByMutexGuard(ProtectByMutexGuard&& other) noexcept : m_pMutex(other.m_pMutex)
{
    other.m_pMutex = nullptr;
}

ProtectByMutexGuard& ProtectByMutexGuard::operator=(ProtectByMutexGuard&& other) noexcept
{
    if (this != &other)
    {
        if (m_pMutex != nullptr)
        {
            m_pMutex->unlock();
            m_pMutex = nullptr;
        }
        m_pMutex = other.m_pMutex;
        other.m_pMutex = nullptr;
    }
    return *this;
}

ProtectByMutexGuard::~ProtectByMutexGuard()
{
    if (m_pMutex != nullptr)
    {
        m_pMutex->unlock();
    }
}

ProtectByMutexGuard ProtectByMutex::lock()
{
    return ProtectByMutexGuard(m_Mutex);
}

} // namespace qor::nav::sdk::utils::memory::allocator::policy
