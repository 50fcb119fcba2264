#include "qor/nav/sdk/utils/synchronization/BalancedStrategy.h"

#include "qor/common/errors/IllegalStateException.h"
#include "support/TestFunctions.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace {

using qor::common::errors::IllegalStateException;
using qor::common::system::Clock;
using namespace qor::nav::sdk::utils::synchronization;

constexpr std::uint32_t kBeforeWrap = 0xFFFFFFFFu - 999u; // 1000 ms before the counter wraps

FunctionExecution record(unsigned long id)
{
    return FunctionExecution{FunctionExecutionId(id), std::make_shared<qor::test::CountingFunction>(), 0u};
}

std::string failure(const std::function<void()>& call)
{
    try
    {
        call();
    }
    catch (const IllegalStateException& e)
    {
        return e.what();
    }
    return "no IllegalStateException";
}

class BalancedStrategyTest : public ::testing::Test
{
protected:
    // Adds timed records {id, delay} within one tick (retrying until the
    // counter held still) and returns that tick.
    std::uint32_t addWithinOneTick(const std::vector<std::pair<unsigned long, long>>& records)
    {
        for (int attempt = 0; attempt < 1000; ++attempt)
        {
            const std::uint32_t before = Clock::getTickCounter();
            for (const auto& r : records)
            {
                m_Strategy.addFunctionExecution(record(r.first), Duration(r.second));
            }
            if (Clock::getTickCounter() == before)
            {
                return before;
            }
            for (const auto& r : records)
            {
                m_Strategy.removeFunctionExecution(FunctionExecutionId(r.first));
            }
        }
        ADD_FAILURE() << "the tick counter never held still";
        return 0;
    }

    std::vector<unsigned long> take(int count)
    {
        std::vector<unsigned long> ids;
        while (count-- > 0)
        {
            ids.push_back(m_Strategy.getNextFunctionExecution().id.getValue());
        }
        return ids;
    }

    qor::test::ScopedTickCounter m_Ticks;
    BalancedStrategy m_Strategy;
};

TEST_F(BalancedStrategyTest, EmptyQueuesThrowTheirMessages)
{
    EXPECT_TRUE(m_Strategy.empty());
    EXPECT_FALSE(m_Strategy.hasPendingFunctionExecutions());
    EXPECT_EQ(0u, m_Strategy.getTimeToNextFunctionExecution());
    EXPECT_EQ("No pending functionExecutions", failure([&] { m_Strategy.getNextFunctionExecution(); }));
    EXPECT_EQ("Queue is empty", failure([&] { m_Strategy.getNextTimedFunctionExecution(); }));
    EXPECT_EQ("Queue is empty", failure([&] { m_Strategy.getNextUntimedFunctionExecution(); }));
}

TEST_F(BalancedStrategyTest, DueTestIsWrapAwareAndEqualityIsDue)
{
    m_Ticks.placeAt(kBeforeWrap);
    const std::uint32_t due = addWithinOneTick({{1, 1500}}) + 1500u; // beyond the wrap
    ASSERT_LT(due, 1000u);
    EXPECT_FALSE(m_Strategy.hasPendingTimedFunctionExecution(0xFFFFFFFFu)); // an unsigned '>=' says due
    EXPECT_FALSE(m_Strategy.hasPendingTimedFunctionExecution(due - 1u));
    EXPECT_TRUE(m_Strategy.hasPendingTimedFunctionExecution(due));
    EXPECT_TRUE(m_Strategy.hasPendingTimedFunctionExecution(due + 0x7FFFFFFFu));
    EXPECT_FALSE(m_Strategy.hasPendingTimedFunctionExecution(due + 0x80000000u));
}

TEST_F(BalancedStrategyTest, TimedRecordsWaitAndComeOutInTickOrderAcrossTheWrap)
{
    m_Ticks.placeAt(kBeforeWrap);
    m_Strategy.addFunctionExecution(record(1), Duration(3000));
    m_Strategy.addFunctionExecution(record(2), Duration(500));
    m_Strategy.addFunctionExecution(record(3), Duration(1500));
    m_Strategy.addFunctionExecution(record(4), Duration(4294967296L + 100000L)); // low 32 bits: 100000

    EXPECT_FALSE(m_Strategy.empty());
    EXPECT_FALSE(m_Strategy.hasPendingFunctionExecutions());
    EXPECT_LE(m_Strategy.getTimeToNextFunctionExecution(), 500u);
    EXPECT_EQ("No pending functionExecutions", failure([&] { m_Strategy.getNextFunctionExecution(); }));

    m_Ticks.advance(10000);
    EXPECT_EQ(0u, m_Strategy.getTimeToNextFunctionExecution());
    EXPECT_EQ((std::vector<unsigned long>{2, 3, 1}), take(3));
    EXPECT_GT(m_Strategy.getTimeToNextFunctionExecution(), 80000u);
}

TEST_F(BalancedStrategyTest, EqualDueTicksComeOutNewestFirst)
{
    addWithinOneTick({{1, 20}, {2, 10}, {3, 20}, {4, 20}});
    m_Ticks.advance(1000);
    EXPECT_EQ((std::vector<unsigned long>{2, 4, 3, 1}), take(4));
}

TEST_F(BalancedStrategyTest, AskingOrderAlternatesAfterEverySuccessfulPick)
{
    for (unsigned long id : {11ul, 12ul, 13ul})
    {
        m_Strategy.addFunctionExecution(record(id));
    }
    m_Strategy.addFunctionExecution(record(1), Duration(-300)); // negative: due at once
    m_Strategy.addFunctionExecution(record(2), Duration(-200));
    m_Strategy.addFunctionExecution(record(3), Duration(-100));
    EXPECT_EQ((std::vector<unsigned long>{1, 11, 2, 12, 3, 13}), take(6));

    // Untimed-only picks flip the order too (three: untimed is asked first
    // next); a failed pick leaves it alone.
    for (unsigned long id : {14ul, 15ul, 16ul})
    {
        m_Strategy.addFunctionExecution(record(id));
    }
    EXPECT_EQ((std::vector<unsigned long>{14, 15, 16}), take(3));
    EXPECT_EQ("No pending functionExecutions", failure([&] { m_Strategy.getNextFunctionExecution(); }));
    m_Strategy.addFunctionExecution(record(4), Duration(-10));
    m_Strategy.addFunctionExecution(record(17));
    m_Strategy.addFunctionExecution(record(5), Duration(100000)); // not due: never picked
    EXPECT_EQ((std::vector<unsigned long>{17, 4}), take(2));
    EXPECT_FALSE(m_Strategy.hasPendingFunctionExecutions());
}

TEST_F(BalancedStrategyTest, RemoveDropsEveryMatchingRecordAndReleasesFunctions)
{
    const FunctionExecution twice = record(5);
    const FunctionExecution kept = record(6);
    {
        BalancedStrategy strategy;
        strategy.addFunctionExecution(twice);
        strategy.addFunctionExecution(kept);
        strategy.addFunctionExecution(twice);
        strategy.addFunctionExecution(twice, Duration(100000));
        strategy.addFunctionExecution(kept, Duration(100000));
        strategy.removeFunctionExecution(FunctionExecutionId(99)); // unknown: nothing happens
        strategy.removeFunctionExecution(twice.id);
        EXPECT_EQ(1, twice.function.use_count());
        EXPECT_EQ(3, kept.function.use_count());
        strategy.removeFunctionExecution(kept.id);
        EXPECT_TRUE(strategy.empty());
        EXPECT_EQ(0u, strategy.getTimeToNextFunctionExecution());
        strategy.addFunctionExecution(kept);
        strategy.addFunctionExecution(kept, Duration(100000));
    }
    EXPECT_EQ(1, kept.function.use_count()); // destruction released both
}

} // namespace
