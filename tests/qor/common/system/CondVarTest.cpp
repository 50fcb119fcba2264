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

// One waiter woken by signal() from a timed and from an untimed wait, then
// three timed waiters woken by one broadcast().
TEST(CondVarTest, SignalWakesOneWaiterAndBroadcastWakesEvery)
{
    struct Case
    {
        int waiters;
        bool timed;
    };
    for (const Case c : {Case{1, true}, Case{1, false}, Case{3, true}})
    {
        Mutex mutex;
        CondVar cond;
        int waiting = 0;
        bool ready = false;
        std::atomic<int> woken{0};
        std::atomic<int> signalledWaits{0};
        std::vector<std::thread> waiters;
        for (int i = 0; i < c.waiters; ++i)
        {
            waiters.emplace_back([&] {
                MutexGuard guard(mutex);
                ++waiting;
                while (!ready)
                {
                    if (c.timed)
                    {
                        signalledWaits += cond.wait(mutex, 60000) ? 1 : 0;
                    }
                    else
                    {
                        cond.wait(mutex);
                    }
                }
                ++woken;
            });
        }
        // Waiters release the mutex only inside wait(): once all are counted
        // under the mutex, all are blocked in wait().
        ASSERT_TRUE(qor::test::waitUntil([&] {
            MutexGuard guard(mutex);
            return waiting == c.waiters;
        }));
        {
            MutexGuard guard(mutex);
            ready = true;
            c.waiters == 1 ? cond.signal() : cond.broadcast();
        }
        for (std::thread& waiter : waiters)
        {
            waiter.join();
        }
        EXPECT_EQ(c.waiters, woken.load());
        if (c.timed)
        {
            EXPECT_LE(c.waiters, signalledWaits.load()) << "a woken timed wait reports the signal";
        }
    }
}

} // namespace
