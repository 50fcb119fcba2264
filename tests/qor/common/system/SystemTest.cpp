#include "qor/common/system/Clock.h"
#include "qor/common/system/CondVar.h"
#include "qor/common/system/HighResolutionTimer.h"
#include "qor/common/system/RWLock.h"

#include "support/TestSync.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

using namespace qor::common::system;
using std::chrono::steady_clock;

// Milliseconds of the monotonic clock, as the nanosecond timer reads it too,
// plus the offset; differences stay right across the wrap at 2^32.
TEST(SystemTest, TickCounterIsMonotonicMillisecondsPlusTheOffsetAcrossTheWrap)
{
    const std::uint32_t before = Clock::getTickCounter();
    const auto nanosAsMs = static_cast<std::uint32_t>(HighResolutionTimer::getTicks() / 1000000u);
    EXPECT_LE(0, static_cast<std::int32_t>(nanosAsMs - before));
    EXPECT_LE(0, static_cast<std::int32_t>(Clock::getTickCounter() - nanosAsMs));
    Clock::setTickCounterOffset(0u - before - 40u); // 40 ms before the wrap
    const std::uint32_t beforeWrap = Clock::getTickCounter();
    EXPECT_GT(beforeWrap, 0xFFFF0000u);
    ASSERT_TRUE(qor::test::waitUntil([] { return Clock::getTickCounter() < 0x80000000u; }));
    EXPECT_LE(40, static_cast<std::int32_t>(Clock::getTickCounter() - beforeWrap));
    Clock::setTickCounterOffset(0);
    EXPECT_LE(40, static_cast<std::int32_t>(Clock::getTickCounter() - before));
    EXPECT_GT(100000, static_cast<std::int32_t>(Clock::getTickCounter() - before));

    HighResolutionTimer::setTickSource([] { return std::uint64_t{42}; });
    EXPECT_EQ(42u, HighResolutionTimer::getTicks());
    HighResolutionTimer::setTickSource(nullptr);
    EXPECT_LT(42u, HighResolutionTimer::getTicks());
}

// True when another thread can take `mutex` without waiting.
bool freeForOthers(Mutex& mutex)
{
    bool acquired = false;
    std::thread([&] { acquired = mutex.lock(Mutex::NoWait) && (mutex.unlock(), true); }).join();
    return acquired;
}

// A guard holds its mutex until released early, once, or until it goes; a
// read lock lets other readers in.
TEST(SystemTest, GuardsHoldTheirLockAndReadersShareIt)
{
    Mutex mutex;
    {
        MutexGuard guard(mutex);
        EXPECT_FALSE(freeForOthers(mutex));
        guard.unlock();
        guard.unlock();
        ASSERT_TRUE(mutex.lock(Mutex::NoWait)); // taken by hand: the guard must not release it
    }
    EXPECT_FALSE(freeForOthers(mutex));
    mutex.unlock();
    EXPECT_TRUE(freeForOthers(mutex));

    RWLock lock;
    qor::test::Latch shared(1);
    std::thread reader;
    {
        RWLockReadGuard held(lock);
        reader = std::thread([&] {
            RWLockReadGuard guard(lock);
            shared.countDown();
        });
        EXPECT_TRUE(shared.waitFor());
    }
    reader.join();
}

// A timed wait without signal lasts at least its timeout (990 ms carries the
// deadline's nanoseconds into seconds) and returns with the mutex held; a
// signal ends it early. (The scheduler's tests wake waits with signal().)
TEST(SystemTest, CondVarTimedWaitsLastTheirTimeoutOrEndOnASignal)
{
    Mutex mutex;
    CondVar cond;
    for (const unsigned int timeout : {0u, 30u, 990u})
    {
        MutexGuard guard(mutex);
        const auto start = steady_clock::now();
        while (cond.wait(mutex, timeout) && steady_clock::now() - start < std::chrono::milliseconds(timeout))
        {
        }
        EXPECT_LE(std::chrono::milliseconds(timeout), steady_clock::now() - start);
        EXPECT_FALSE(freeForOthers(mutex));
    }
    bool waiting = false;
    bool go = false;
    std::thread waiter([&] {
        MutexGuard guard(mutex);
        for (waiting = true; !go;)
        {
            EXPECT_TRUE(cond.wait(mutex, 60000)) << "a woken timed wait reports the signal";
        }
    });
    // The waiter releases the mutex only inside wait().
    ASSERT_TRUE(qor::test::waitUntil([&] {
        MutexGuard guard(mutex);
        return waiting;
    }));
    MutexGuard guard(mutex);
    go = true;
    cond.broadcast();
    guard.unlock();
    waiter.join();
}

} // namespace
