// Locking policy for very short critical sections: a one-byte spin lock.
//
//   ProtectBySpinLock m_Lock;
//   void* allocate(std::size_t size) {
//       ProtectBySpinLockGuard guard = m_Lock.lock();   // spins until the flag is free
//       ...                                            // never block in here
//   }
//
// The lock is one byte (0 free, 1 taken). lock() exchanges it with 1 (acquire)
// until it was free, without pause, yield, back-off or limit; the guard stores
// 0 (release) when destroyed. It is not recursive: a second lock() on the
// thread that holds it never returns. Never hold it across a call that can
// block.
//
// ProtectBySpinLockGuard is movable, not copyable; a moved-from guard releases
// nothing.
//
// Threads: lock() may be called from any thread. A guard belongs to the thread
// that took the lock.
#ifndef QOR_NAV_SDK_UTILS_MEMORY_ALLOCATOR_POLICY_PROTECTBYSPINLOCK_H
#define QOR_NAV_SDK_UTILS_MEMORY_ALLOCATOR_POLICY_PROTECTBYSPINLOCK_H

#include <atomic>

namespace qor::nav::sdk::utils::memory::allocator::policy {

class ProtectBySpinLockGuard
{
public:
    // Holds the lock whose flag is `flag`; the caller has already taken it.
    explicit ProtectBySpinLockGuard(std::atomic<unsigned char>& flag) noexcept : m_pFlag(&flag) {}

    // Takes over `other`'s lock; `other` then holds nothing.
    ProtectBySpinLockGuard(ProtectBySpinLockGuard&& other) noexcept : m_pFlag(other.m_pFlag)
    {
        other.m_pFlag = nullptr;
    }

    // Releases this guard's lock, if any, then takes over `other`'s. Moving a
    // guard onto itself does nothing.
    ProtectBySpinLockGuard& operator=(ProtectBySpinLockGuard&& other) noexcept
    {
        if (this != &other)
        {
            release();
            m_pFlag = other.m_pFlag;
            other.m_pFlag = nullptr;
        }
        return *this;
    }

    // Frees the flag (release store of 0) if the guard still holds it.
    ~ProtectBySpinLockGuard() { release(); }

    ProtectBySpinLockGuard(const ProtectBySpinLockGuard&) = delete;
    ProtectBySpinLockGuard& operator=(const ProtectBySpinLockGuard&) = delete;

private:
    void release() noexcept
    {
        if (m_pFlag != nullptr)
        {
            m_pFlag->store(0, std::memory_order_release);
            m_pFlag = nullptr;
        }
    }

    std::atomic<unsigned char>* m_pFlag; // null when moved from
};

class ProtectBySpinLock
{
public:
    ProtectBySpinLock() noexcept : m_Flag(0) {}
    ProtectBySpinLock(const ProtectBySpinLock&) = delete;
    ProtectBySpinLock& operator=(const ProtectBySpinLock&) = delete;

    // Spins until the flag was free and is now taken, then returns the guard
    // that frees it.
    ProtectBySpinLockGuard lock() noexcept
    {
        ProtectBySpinLockGuard guard(m_Flag);
        while (m_Flag.exchange(1, std::memory_order_acquire) != 0)
        {
            // Busy on purpose: the sections guarded are a few instructions long.
        }
        return guard;
    }

private:
    std::atomic<unsigned char> m_Flag; // 0 free, 1 taken
};

static_assert(sizeof(std::atomic<unsigned char>) == 1, "the spin lock is a single byte");

} // namespace qor::nav::sdk::utils::memory::allocator::policy

#endif
