#include "qor/common/system/Clock.h"
#include "qor/common/system/HighResolutionTimer.h"

#include "support/TestSync.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

using qor::common::system::Clock;
using qor::common::system::HighResolutionTimer;

std::int32_t tickDiff(std::uint32_t later, std::uint32_t earlier)
{
    return static_cast<std::int32_t>(later - earlier);
}

class ClockTest : public ::testing::Test
{
protected:
    void TearDown() override
    {
        Clock::setTickCounterOffset(0);
        HighResolutionTimer::setTickSource(nullptr);
    }
};

TEST_F(ClockTest, TickCounterAdvances)
{
    const std::uint32_t start = Clock::getTickCounter();
    ASSERT_TRUE(qor::test::waitUntil([&] { return tickDiff(Clock::getTickCounter(), start) >= 5; }));
    EXPECT_GE(tickDiff(Clock::getTickCounter(), start), 5);
}

TEST_F(ClockTest, OffsetShiftsLaterReadingsAndZeroRestoresThem)
{
    const std::uint32_t plain = Clock::getTickCounter();
    Clock::setTickCounterOffset(100000);
    const std::uint32_t shifted = Clock::getTickCounter();
    Clock::setTickCounterOffset(0);
    const std::uint32_t restored = Clock::getTickCounter();

    EXPECT_GE(tickDiff(shifted, plain), 100000);
    EXPECT_GE(tickDiff(restored, plain), 0);
    // `restored` was read after `shifted`, so it is at most the offset behind.
    EXPECT_LE(tickDiff(shifted, restored), 100000);
    EXPECT_LT(tickDiff(restored, plain), tickDiff(shifted, plain));
}

TEST_F(ClockTest, CounterWrapsAtTwoToThe32AndSignedDifferencesStayCorrect)
{
    // Put the counter 40 ms (natively) before its wrap: the next reading must
    // come before the wrap.
    const std::uint32_t lead = static_cast<std::uint32_t>(qor::test::scaled(std::chrono::milliseconds(40)).count());
    const std::uint32_t now = Clock::getTickCounter();
    Clock::setTickCounterOffset(0u - now - lead);
    const std::uint32_t beforeWrap = Clock::getTickCounter();
    ASSERT_GT(beforeWrap, 0xFFFF0000u);
    const std::uint32_t due = beforeWrap + lead + 20u; // a delay added across the wrap
    ASSERT_LT(due, 1000u);
    EXPECT_LT(tickDiff(beforeWrap, due), 0);

    ASSERT_TRUE(qor::test::waitUntil([] { return Clock::getTickCounter() < 0x80000000u; }));
    ASSERT_TRUE(qor::test::waitUntil([&] { return tickDiff(Clock::getTickCounter(), due) >= 0; }));
    const std::uint32_t afterWrap = Clock::getTickCounter();
    EXPECT_LT(afterWrap, beforeWrap);
    EXPECT_GE(tickDiff(afterWrap, beforeWrap), static_cast<std::int32_t>(lead + 20u));
    EXPECT_GE(tickDiff(afterWrap, due), 0);
}

TEST_F(ClockTest, HighResolutionTicksAreMonotonicNanosecondsOfTheSameClock)
{
    const std::uint32_t tickBefore = Clock::getTickCounter();
    std::uint64_t previous = HighResolutionTimer::getTicks();
    const std::uint64_t first = previous;
    for (int i = 0; i < 10000; ++i)
    {
        const std::uint64_t ticks = HighResolutionTimer::getTicks();
        ASSERT_GE(ticks, previous);
        previous = ticks;
    }
    const std::uint32_t tickAfter = Clock::getTickCounter();
    // Both count the monotonic clock: the millisecond counter brackets the
    // nanosecond readings taken between its two readings.
    const std::uint32_t firstMs = static_cast<std::uint32_t>(first / 1000000u);
    EXPECT_GE(tickDiff(firstMs, tickBefore), 0);
    EXPECT_GE(tickDiff(tickAfter, firstMs), 0);

    ASSERT_TRUE(qor::test::waitUntil([&] { return HighResolutionTimer::getTicks() - first >= 3000000u; }));
    EXPECT_GE(tickDiff(Clock::getTickCounter(), firstMs), 3);
}

std::uint64_t fixedTicks()
{
    return 42;
}

TEST_F(ClockTest, TickSourceHookReplacesAndRestoresTheTimer)
{
    HighResolutionTimer::setTickSource(&fixedTicks);
    EXPECT_EQ(42u, HighResolutionTimer::getTicks());
    HighResolutionTimer::setTickSource(nullptr);
    EXPECT_GT(HighResolutionTimer::getTicks(), 42u);
}

} // namespace
