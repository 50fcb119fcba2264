#include "qor/nav/sdk/utils/memory/allocator/policy/ProtectBySpinLock.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace qor {
namespace nav {
namespace sdk {
namespace utils {
namespace memory {
namespace allocator {
namespace policy {
namespace {

static_assert(sizeof(ProtectBySpinLock) == 1, "the spin lock is its flag byte");

// The lock's flag byte: 0 free, 1 taken. Read only while no other thread uses
// the lock.
unsigned flagOf(const ProtectBySpinLock& lock)
{
    return *reinterpret_cast<const unsigned char*>(&lock);
}

TEST(ProtectBySpinLockTest, GuardSetsTheFlagAndItsEndClearsIt)
{
    ProtectBySpinLock lock;
    EXPECT_EQ(0u, flagOf(lock));
    {
        ProtectBySpinLockGuard guard = lock.lock();
        EXPECT_EQ(1u, flagOf(lock));
    }
    EXPECT_EQ(0u, flagOf(lock));
    ProtectBySpinLockGuard again = lock.lock(); // free again: does not spin
    EXPECT_EQ(1u, flagOf(lock));
}

TEST(ProtectBySpinLockTest, GuardsSerialiseThreads)
{
    ProtectBySpinLock lock;
    long counter = 0; // deliberately not atomic: only the lock protects it
    constexpr int s_Threads = 2;
    constexpr int s_Rounds = 5000;
    std::vector<std::thread> threads;
    for (int t = 0; t < s_Threads; ++t)
    {
        threads.emplace_back([&] {
            for (int i = 0; i < s_Rounds; ++i)
            {
                ProtectBySpinLockGuard guard = lock.lock();
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(s_Threads * s_Rounds, counter);
    EXPECT_EQ(0u, flagOf(lock));
}

TEST(ProtectBySpinLockTest, MovedFromGuardReleasesNothing)
{
    ProtectBySpinLock lock;
    auto original = std::make_unique<ProtectBySpinLockGuard>(lock.lock());
    auto moved = std::make_unique<ProtectBySpinLockGuard>(std::move(*original));
    original.reset();
    EXPECT_EQ(1u, flagOf(lock));
    moved.reset();
    EXPECT_EQ(0u, flagOf(lock));
}

TEST(ProtectBySpinLockTest, MoveAssignmentReleasesTheHeldLockFirst)
{
    ProtectBySpinLock first;
    ProtectBySpinLock second;
    {
        ProtectBySpinLockGuard target = first.lock();
        ProtectBySpinLockGuard source = second.lock();
        target = std::move(source);
        EXPECT_EQ(0u, flagOf(first));
        EXPECT_EQ(1u, flagOf(second));
    }
    EXPECT_EQ(0u, flagOf(second));
}

} // namespace
} // namespace policy
} // namespace allocator
} // namespace memory
} // namespace utils
} // namespace sdk
} // namespace nav
} // namespace qor
