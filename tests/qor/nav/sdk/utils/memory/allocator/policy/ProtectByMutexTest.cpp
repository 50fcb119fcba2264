#include "qor/nav/sdk/utils/memory/allocator/policy/ProtectByMutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
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

using common::system::Mutex;

// Whether another thread finds `mutex` taken.
bool isTaken(Mutex& mutex)
{
    bool taken = false;
    std::thread probe([&] {
        taken = !mutex.lock(Mutex::NoWait);
        if (!taken)
        {
            mutex.unlock();
        }
    });
    probe.join();
    return taken;
}

TEST(ProtectByMutexTest, GuardsSerialiseThreads)
{
    ProtectByMutex policy;
    long counter = 0; // deliberately not atomic: only the lock protects it
    constexpr int s_Threads = 3;
    constexpr int s_Rounds = 5000;
    std::vector<std::thread> threads;
    for (int t = 0; t < s_Threads; ++t)
    {
        threads.emplace_back([&] {
            for (int i = 0; i < s_Rounds; ++i)
            {
                ProtectByMutexGuard guard = policy.lock();
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(s_Threads * s_Rounds, counter);
}

TEST(ProtectByMutexTest, MovedFromGuardReleasesNothing)
{
    Mutex mutex;
    std::optional<ProtectByMutexGuard> original(std::in_place, mutex);
    {
        ProtectByMutexGuard moved(std::move(*original));
        EXPECT_TRUE(isTaken(mutex));
    }
    EXPECT_FALSE(isTaken(mutex));

    mutex.lock(Mutex::Wait); // held by no guard
    original.reset();        // the moved-from guard must leave it alone
    EXPECT_TRUE(isTaken(mutex));
    mutex.unlock();
}

TEST(ProtectByMutexTest, MoveAssignmentReleasesTheHeldLockFirst)
{
    Mutex first;
    Mutex second;
    {
        ProtectByMutexGuard target(first);
        ProtectByMutexGuard source(second);
        target = std::move(source);
        EXPECT_FALSE(isTaken(first));
        EXPECT_TRUE(isTaken(second));

        ProtectByMutexGuard& same = target;
        target = std::move(same); // onto itself: keeps the lock
        EXPECT_TRUE(isTaken(second));
    }
    EXPECT_FALSE(isTaken(second));
}

TEST(ProtectByMutexTest, MoveAssignmentOntoAnEmptyGuardTakesTheLockOver)
{
    Mutex first;
    Mutex second;
    ProtectByMutexGuard holder(first);
    {
        ProtectByMutexGuard emptied(second);
        ProtectByMutexGuard taker(std::move(emptied));
        emptied = std::move(holder);
        EXPECT_TRUE(isTaken(first));
    }
    EXPECT_FALSE(isTaken(first));
    EXPECT_FALSE(isTaken(second));
}

} // namespace
} // namespace policy
} // namespace allocator
} // namespace memory
} // namespace utils
} // namespace sdk
} // namespace nav
} // namespace qor
