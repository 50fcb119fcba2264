// Locking policy for allocators shared by threads: a mutex held by a guard.
//
//   ProtectByMutex m_Lock;
//   void* allocate(std::size_t size) {
//       ProtectByMutexGuard guard = m_Lock.lock();   // blocks until the mutex is free
//       ...
//   }                                               // released here, on every way out
//
// ProtectByMutexGuard is movable, not copyable: a moved-from guard holds
// nothing and releases nothing; moving a guard onto one that holds a lock
// releases that lock first. The mutex is not recursive: a second lock() on
// the thread that holds it deadlocks.
//
// Threads: lock() may be called from any thread. A guard belongs to the thread
// that took the lock and must be destroyed there.
#ifndef QOR_NAV_SDK_UTILS_MEMORY_ALLOCATOR_POLICY_PROTECTBYMUTEX_H
#define QOR_NAV_SDK_UTILS_MEMORY_ALLOCATOR_POLICY_PROTECTBYMUTEX_H

#include "qor/common/system/Mutex.h"

namespace qor::nav::sdk::utils::memory::allocator::policy {

class ProtectByMutexGuard
{
public:
    // Locks `mutex` (waiting as long as it takes) and holds it.
    explicit ProtectByMutexGuard(qor::common::system::Mutex& mutex);

    // Takes over `other`'s lock; `other` then holds nothing.
    ProtectByMutexGuard(ProtectByMutexGuard&& other) noexcept;

    // Releases this guard's lock, if any, then takes over `other`'s. Moving a
    // guard onto itself does nothing.
    ProtectByMutexGuard& operator=(ProtectByMutexGuard&& other) noexcept;

    // Releases the lock if the guard still holds one.
    ~ProtectByMutexGuard();

    ProtectByMutexGuard(const ProtectByMutexGuard&) = delete;
    ProtectByMutexGuard& operator=(const ProtectByMutexGuard&) = delete;

private:
    qor::common::system::Mutex* m_pMutex; // null when moved from
};

class ProtectByMutex
{
public:
    // Locks the policy's mutex and returns the guard that holds it.
    ProtectByMutexGuard lock();

private:
    qor::common::system::Mutex m_Mutex;
};

} // namespace qor::nav::sdk::utils::memory::allocator::policy

#endif
