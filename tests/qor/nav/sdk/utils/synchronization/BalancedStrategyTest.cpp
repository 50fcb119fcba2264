#include "qor/nav/sdk/utils/synchronization/BalancedStrategy.h"

#include "qor/common/errors/IllegalStateException.h"
#include "qor/common/system/Clock.h"
#include "support/TestFunctions.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace {

using qor::common::errors::IllegalStateException;
using qor::common::system::Clock;
using qor::nav::sdk::utils::synchronization::BalancedStrategy;
using qor::nav::sdk::utils::synchronization::Duration;
using qor::nav::sdk::utils::synchronization::FunctionExecution;
using qor::nav::sdk::utils::synchronization::FunctionExecutionId;
using qor::test::CountingFunction;
using qor::test::ScopedTickCounter;

constexpr std::uint32_t kBeforeWrap = 0xFFFFFFFFu - 999u; // 1000 ms before the counter wraps

FunctionExecution record(unsigned long id)
{
    return FunctionExecution{FunctionExecutionId(id), std::make_shared<CountingFunction>(), 0u};
}

// Adds each (id, delay) pair as a timed record within one tick of the counter,
// retrying until the counter held still, and returns that tick.
std::uint32_t addTimedWithinOneTick(BalancedStrategy& strategy,
                                    const std::vector<std::pair<unsigned long, long>>& records)
{
    for (int attempt = 0; attempt < 1000; ++attempt)
    {
        const std::uint32_t before = Clock::getTickCounter();
        for (const auto& r : records)
        {
            strategy.addFunctionExecution(record(r.first), Duration(r.second));
        }
        if (Clock::getTickCounter() == before)
        {
            return before;
        }
        for (const auto& r : records)
        {
            strategy.removeFunctionExecution(FunctionExecutionId(r.first));
        }
    }
    ADD_FAILURE() << "the tick counter never held still";
    return 0;
}

std::vector<unsigned long> takeIds(BalancedStrategy& strategy, int count)
{
    std::vector<unsigned long> ids;
    for (int i = 0; i < count; ++i)
    {
        ids.push_back(strategy.getNextFunctionExecution().id.getValue());
    }
    return ids;
}

void expectIllegalState(const std::function<void()>& call, const std::string& message)
{
    try
    {
        call();
        ADD_FAILURE() << "expected IllegalStateException \"" << message << "\"";
    }
    catch (const IllegalStateException& e)
    {
        EXPECT_EQ(message, e.what());
    }
}

class BalancedStrategyTest : public ::testing::Test
{
protected:
    ScopedTickCounter m_Ticks; // back to normal readings after every test
    BalancedStrategy m_Strategy;
};

TEST_F(BalancedStrategyTest, FreshStrategyHasNothingToHandOut)
{
    EXPECT_TRUE(m_Strategy.empty());
    EXPECT_FALSE(m_Strategy.hasPendingFunctionExecutions());
    EXPECT_EQ(0u, m_Strategy.getTimeToNextFunctionExecution());
    expectIllegalState([&] { m_Strategy.getNextFunctionExecution(); }, "No pending functionExecutions");
    expectIllegalState([&] { m_Strategy.getNextTimedFunctionExecution(); }, "Queue is empty");
    expectIllegalState([&] { m_Strategy.getNextUntimedFunctionExecution(); }, "Queue is empty");
}

TEST_F(BalancedStrategyTest, DueTestIsWrapAwareAndCountsEqualityAsDue)
{
    m_Ticks.placeAt(kBeforeWrap);
    const std::uint32_t added = addTimedWithinOneTick(m_Strategy, {{1, 1500}});
    const std::uint32_t due = added + 1500u; // lies beyond the wrap
    ASSERT_LT(due, 1000u);

    EXPECT_FALSE(m_Strategy.hasPendingTimedFunctionExecution(0xFFFFFFFFu)); // unsigned '>=' would say due
    EXPECT_FALSE(m_Strategy.hasPendingTimedFunctionExecution(due - 1u));
    EXPECT_TRUE(m_Strategy.hasPendingTimedFunctionExecution(due));
    EXPECT_TRUE(m_Strategy.hasPendingTimedFunctionExecution(due + 0x7FFFFFFFu));
    EXPECT_FALSE(m_Strategy.hasPendingTimedFunctionExecution(due + 0x80000000u));
    EXPECT_FALSE(m_Strategy.hasPendingUntimedFunctionExecution(due));
}

TEST_F(BalancedStrategyTest, TimedRecordWaitsForItsTickThenComesOut)
{
    m_Ticks.placeAt(kBeforeWrap);
    m_Strategy.addFunctionExecution(record(7), Duration(100000));

    EXPECT_FALSE(m_Strategy.empty());
    EXPECT_FALSE(m_Strategy.hasPendingFunctionExecutions());
    const unsigned int wait = m_Strategy.getTimeToNextFunctionExecution();
    EXPECT_LE(wait, 100000u);
    EXPECT_GT(wait, 90000u);
    expectIllegalState([&] { m_Strategy.getNextFunctionExecution(); }, "No pending functionExecutions");

    m_Ticks.advance(100000);
    EXPECT_TRUE(m_Strategy.hasPendingFunctionExecutions());
    EXPECT_EQ(0u, m_Strategy.getTimeToNextFunctionExecution());
    EXPECT_EQ(7u, m_Strategy.getNextFunctionExecution().id.getValue());
    EXPECT_TRUE(m_Strategy.empty());
}

TEST_F(BalancedStrategyTest, TimedRecordsComeOutInTickOrderAcrossTheWrap)
{
    m_Ticks.placeAt(kBeforeWrap);
    m_Strategy.addFunctionExecution(record(1), Duration(3000)); // after the wrap
    m_Strategy.addFunctionExecution(record(2), Duration(500));  // before it
    m_Strategy.addFunctionExecution(record(3), Duration(1500)); // just after it
    m_Strategy.addFunctionExecution(record(4), Duration(-50));  // already due

    EXPECT_EQ(std::vector<unsigned long>{4}, takeIds(m_Strategy, 1));
    m_Ticks.advance(10000);
    EXPECT_EQ((std::vector<unsigned long>{2, 3, 1}), takeIds(m_Strategy, 3));
}

TEST_F(BalancedStrategyTest, EqualDueTicksComeOutNewestFirst)
{
    addTimedWithinOneTick(m_Strategy, {{1, 20}, {2, 10}, {3, 20}, {4, 20}});
    m_Ticks.advance(1000);
    EXPECT_EQ((std::vector<unsigned long>{2, 4, 3, 1}), takeIds(m_Strategy, 4));
}

TEST_F(BalancedStrategyTest, DelayKeepsOnlyItsLow32Bits)
{
    m_Strategy.addFunctionExecution(record(1), Duration(4294967296L + 60000L)); // due in about a minute
    EXPECT_FALSE(m_Strategy.hasPendingFunctionExecutions());
    EXPECT_LE(m_Strategy.getTimeToNextFunctionExecution(), 60000u);
    EXPECT_GT(m_Strategy.getTimeToNextFunctionExecution(), 50000u);

    m_Strategy.addFunctionExecution(record(2), Duration(-5)); // in the past: due at once
    EXPECT_TRUE(m_Strategy.hasPendingFunctionExecutions());
    EXPECT_EQ(2u, m_Strategy.getNextFunctionExecution().id.getValue());
}

TEST_F(BalancedStrategyTest, AlternatesBetweenQueuesStartingWithTimed)
{
    for (unsigned long id : {11ul, 12ul, 13ul})
    {
        m_Strategy.addFunctionExecution(record(id));
    }
    m_Strategy.addFunctionExecution(record(1), Duration(-300));
    m_Strategy.addFunctionExecution(record(2), Duration(-200));
    m_Strategy.addFunctionExecution(record(3), Duration(-100));

    EXPECT_EQ((std::vector<unsigned long>{1, 11, 2, 12, 3, 13}), takeIds(m_Strategy, 6));
}

TEST_F(BalancedStrategyTest, PreferenceFlipsOnEveryPickButNotOnFailure)
{
    // Three untimed picks with the timed queue empty: the order of asking
    // still flips each time, ending with "untimed first".
    for (unsigned long id : {11ul, 12ul, 13ul})
    {
        m_Strategy.addFunctionExecution(record(id));
    }
    EXPECT_EQ((std::vector<unsigned long>{11, 12, 13}), takeIds(m_Strategy, 3));
    expectIllegalState([&] { m_Strategy.getNextFunctionExecution(); }, "No pending functionExecutions");

    m_Strategy.addFunctionExecution(record(1), Duration(-10));
    m_Strategy.addFunctionExecution(record(14));
    EXPECT_EQ((std::vector<unsigned long>{14, 1}), takeIds(m_Strategy, 2));
}

TEST_F(BalancedStrategyTest, TimedRecordNotDueLeavesUntimedWorkFirst)
{
    m_Strategy.addFunctionExecution(record(1), Duration(100000));
    m_Strategy.addFunctionExecution(record(2));

    EXPECT_EQ(0u, m_Strategy.getTimeToNextFunctionExecution());
    EXPECT_EQ(2u, m_Strategy.getNextFunctionExecution().id.getValue()); // timed is asked first, but not due
    EXPECT_GT(m_Strategy.getTimeToNextFunctionExecution(), 0u);
    expectIllegalState([&] { m_Strategy.getNextFunctionExecution(); }, "No pending functionExecutions");
}

TEST_F(BalancedStrategyTest, RemoveDropsEveryMatchingRecordAndReleasesItsFunction)
{
    const FunctionExecution twice = record(5);
    m_Strategy.addFunctionExecution(twice);
    m_Strategy.addFunctionExecution(record(6));
    m_Strategy.addFunctionExecution(twice);
    m_Strategy.addFunctionExecution(twice, Duration(100000));
    ASSERT_EQ(4, twice.function.use_count());

    m_Strategy.removeFunctionExecution(FunctionExecutionId(99)); // unknown: nothing happens
    m_Strategy.removeFunctionExecution(twice.id);
    EXPECT_EQ(1, twice.function.use_count());
    EXPECT_EQ(0u, m_Strategy.getTimeToNextFunctionExecution());
    EXPECT_EQ(std::vector<unsigned long>{6}, takeIds(m_Strategy, 1));
    EXPECT_TRUE(m_Strategy.empty());
}

TEST(BalancedStrategyLifetimeTest, DestructionReleasesQueuedFunctions)
{
    const FunctionExecution queued = record(1);
    {
        BalancedStrategy strategy;
        strategy.addFunctionExecution(queued);
        strategy.addFunctionExecution(queued, Duration(100000));
        EXPECT_EQ(3, queued.function.use_count());
    }
    EXPECT_EQ(1, queued.function.use_count());
}

} // namespace
