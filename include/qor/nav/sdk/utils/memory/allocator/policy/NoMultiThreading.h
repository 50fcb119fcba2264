// Locking policy for allocators used by one thread only: locks nothing.
//
//   NoMultiThreading m_Lock;
//   void* allocate(std::size_t size) {
//       auto guard = m_Lock.lock();   // same shape as ProtectByMutex, ProtectBySpinLock
//       ...
//   }
//
// Because nothing is locked, nested lock() calls on one thread do not block.
//
// Threads: only for allocators whose every call comes from the same thread.
#ifndef QOR_NAV_SDK_UTILS_MEMORY_ALLOCATOR_POLICY_NOMULTITHREADING_H
#define QOR_NAV_SDK_UTILS_MEMORY_ALLOCATOR_POLICY_NOMULTITHREADING_H

namespace qor::nav::sdk::utils::memory::allocator::policy {

class NoMultiThreading
{
public:
    // The guard of a lock that does not exist: acquires and releases nothing.
    class Guard
    {
    public:
        Guard() {}
        // User-provided, so that an unused `auto guard = lock();` does not
        // warn: the guard looks like the other policies' guards.
        ~Guard() {}
    };

    // Returns an empty guard at once.
    Guard lock() { return Guard(); }
};

} // namespace qor::nav::sdk::utils::memory::allocator::policy

#endif
