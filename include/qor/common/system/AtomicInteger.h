// Atomic read-modify-write on a plain int, for counters shared between
// threads that are not declared std::atomic (such as SmartPtr's share count).
//
// Threads: any thread; every access to the same int must go through this
// class while other threads may touch it.
#ifndef QOR_COMMON_SYSTEM_ATOMICINTEGER_H
#define QOR_COMMON_SYSTEM_ATOMICINTEGER_H

namespace qor::common::system {

class AtomicInteger
{
public:
    // Adds `delta` to `value` atomically (acquire-release) and returns the
    // value before the addition.
    static int exchangeAdd(int& value, int delta) noexcept
    {
        return __atomic_fetch_add(&value, delta, __ATOMIC_ACQ_REL);
    }

    // Reads `value` atomically (acquire).
    static int get(const int& value) noexcept
    {
        return __atomic_load_n(&value, __ATOMIC_ACQUIRE);
    }
};

} // namespace qor::common::system

#endif
