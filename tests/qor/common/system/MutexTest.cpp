#include "qor/common/system/Mutex.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using qor::common::system::Mutex;
using qor::common::system::MutexGuard;

// True when another thread can take `mutex` without waiting.
bool freeForOtherThreads(Mutex& mutex)
{
    bool acquired = false;
    std::thread other([&] {
        acquired = mutex.lock(Mutex::NoWait);
        if (acquired)
        {
            mutex.unlock();
        }
    });
    other.join();
    return acquired;
}

TEST(MutexTest, NoWaitFailsWhileHeldAndTheGuardReleasesOnceOnEveryWayOut)
{
    Mutex mutex;
    {
        MutexGuard guard(mutex);
        EXPECT_TRUE(guard.ownsLock());
        EXPECT_FALSE(freeForOtherThreads(mutex));
        guard.unlock();
        EXPECT_FALSE(guard.ownsLock());
        guard.unlock();
        // Taken again by hand: the guard must not release it a second time.
        ASSERT_TRUE(mutex.lock(Mutex::NoWait));
    }
    EXPECT_FALSE(freeForOtherThreads(mutex));
    mutex.unlock();

    try
    {
        MutexGuard guard(mutex);
        throw std::runtime_error("leave the scope");
    }
    catch (const std::runtime_error&)
    {
    }
    EXPECT_TRUE(freeForOtherThreads(mutex));
    EXPECT_TRUE(mutex.lock(Mutex::Wait));
    mutex.unlock();
}

TEST(MutexTest, GuardedCounterLosesNoIncrements)
{
    Mutex mutex;
    long counter = 0;
    constexpr int kThreads = 4;
    constexpr int kIncrements = 20000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
    {
        threads.emplace_back([&] {
            for (int i = 0; i < kIncrements; ++i)
            {
                MutexGuard guard(mutex);
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(static_cast<long>(kThreads) * kIncrements, counter);
}

} // namespace
