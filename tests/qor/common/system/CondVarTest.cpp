#include "qor/common/system/CondVar.h"

#include "support/TestSync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

using qor::common::system::CondVar;
using qor::common::system::Mutex;
using qor::common::system::MutexGuard;

using Clock = std::chrono::steady_clock;

long elapsedMs(Clock::time_point since)
{
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
}

TEST(CondVarTest, TimedWaitWithoutSignalTimesOutNoEarlierThanItsTimeout)
{
    Mutex mutex;
    CondVar cond;
    MutexGuard guard(mutex);

    // Spurious wake-ups are allowed, so wait in a loop until time runs out.
    // 990 ms makes the deadline's nanoseconds carry into seconds on almost
    // every run.
    for (unsigned int timeout : {0u, 30u, 990u})
    {
        const auto start = Clock::now();
        while (cond.wait(mutex, timeout) && elapsedMs(start) < static_cast<long>(timeout))
        {
        }
        EXPECT_GE(elapsedMs(start), static_cast<long>(timeout)) << "timeout " << timeout;
        // The mutex is held again on return.
        const bool free = mutex.lock(Mutex::NoWait);
        if (free)
        {
            mutex.unlock();
        }
        EXPECT_FALSE(free);
    }
}

TEST(CondVarTest, SignalWakesATimedAndAnUntimedWaiter)
{
    for (const bool timed : {true, false})
    {
        Mutex mutex;
        CondVar cond;
        bool waiting = false;
        bool ready = false;
        bool lastWaitSignalled = false;
        std::thread waiter([&] {
            MutexGuard guard(mutex);
            waiting = true;
            while (!ready)
            {
                if (timed)
                {
                    lastWaitSignalled = cond.wait(mutex, 60000);
                }
                else
                {
                    cond.wait(mutex);
                }
            }
        });
        // The waiter releases the mutex only inside wait(), so once `waiting`
        // is seen under the mutex the waiter is blocked in wait().
        ASSERT_TRUE(qor::test::waitUntil([&] {
            MutexGuard guard(mutex);
            return waiting;
        }));
        {
            MutexGuard guard(mutex);
            ready = true;
            cond.signal();
        }
        waiter.join();
        if (timed)
        {
            EXPECT_TRUE(lastWaitSignalled);
        }
    }
}

TEST(CondVarTest, BroadcastWakesEveryWaiter)
{
    Mutex mutex;
    CondVar cond;
    int waiting = 0;
    bool ready = false;
    constexpr int kWaiters = 3;
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < kWaiters; ++i)
    {
        waiters.emplace_back([&] {
            MutexGuard guard(mutex);
            ++waiting;
            while (!ready)
            {
                cond.wait(mutex, 60000);
            }
            ++woken;
        });
    }
    ASSERT_TRUE(qor::test::waitUntil([&] {
        MutexGuard guard(mutex);
        return waiting == kWaiters;
    }));
    {
        MutexGuard guard(mutex);
        ready = true;
        cond.broadcast();
    }
    for (std::thread& waiter : waiters)
    {
        waiter.join();
    }
    EXPECT_EQ(kWaiters, woken.load());
}

} // namespace
