#include "qor/nav/sdk/utils/synchronization/BalancedStrategy.h"

#include "qor/common/errors/IllegalStateException.h"
#include "support/TestFunctions.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
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
    // Runs `fill` on a fresh strategy until the tick counter held still
    // during it and returns that tick.
    std::uint32_t withinOneTick(const std::function<void(BalancedStrategy&)>& fill)
    {
        for (int attempt = 0; attempt < 1000; ++attempt)
        {
            m_Strategy = std::make_unique<BalancedStrategy>();
            const std::uint32_t before = Clock::getTickCounter();
            fill(*m_Strategy);
            if (Clock::getTickCounter() == before)
            {
                return before;
            }
        }
        ADD_FAILURE() << "the tick counter never held still";
        return 0;
    }
    std::uint32_t addWithinOneTick(const std::vector<std::pair<unsigned long, long>>& records)
    {
        return withinOneTick([&](BalancedStrategy& strategy) {
            for (const auto& r : records)
            {
                strategy.addFunctionExecution(record(r.first), Duration(r.second));
            }
        });
    }

    std::vector<unsigned long> take(int count)
    {
        std::vector<unsigned long> ids;
        while (count-- > 0)
        {
            ids.push_back(m_Strategy->getNextFunctionExecution().id.getValue());
        }
        return ids;
    }

    qor::test::ScopedTickCounter m_Ticks;
    std::unique_ptr<BalancedStrategy> m_Strategy = std::make_unique<BalancedStrategy>();
};

TEST_F(BalancedStrategyTest, EmptyQueuesThrowTheirMessages)
{
    EXPECT_TRUE(m_Strategy->empty());
    EXPECT_FALSE(m_Strategy->hasPendingFunctionExecutions());
    EXPECT_EQ(0u, m_Strategy->getTimeToNextFunctionExecution());
    EXPECT_EQ("No pending functionExecutions", failure([&] { m_Strategy->getNextFunctionExecution(); }));
    EXPECT_EQ("Queue is empty", failure([&] { m_Strategy->getNextTimedFunctionExecution(); }));
    EXPECT_EQ("Queue is empty", failure([&] { m_Strategy->getNextUntimedFunctionExecution(); }));
}

TEST_F(BalancedStrategyTest, DueTestIsWrapAwareAndEqualityIsDue)
{
    m_Ticks.placeAt(kBeforeWrap);
    const std::uint32_t due = addWithinOneTick({{1, 1500}}) + 1500u; // beyond the wrap
    ASSERT_LT(due, 1000u);
    EXPECT_FALSE(m_Strategy->hasPendingTimedFunctionExecution(0xFFFFFFFFu)); // an unsigned '>=' says due
    EXPECT_FALSE(m_Strategy->hasPendingTimedFunctionExecution(due - 1u));
    EXPECT_TRUE(m_Strategy->hasPendingTimedFunctionExecution(due));
    EXPECT_TRUE(m_Strategy->hasPendingTimedFunctionExecution(due + 0x7FFFFFFFu));
    EXPECT_FALSE(m_Strategy->hasPendingTimedFunctionExecution(due + 0x80000000u));
}

TEST_F(BalancedStrategyTest, TimedRecordsWaitAndComeOutInTickOrderAcrossTheWrap)
{
    m_Ticks.placeAt(kBeforeWrap);
    m_Strategy->addFunctionExecution(record(1), Duration(3000));
    m_Strategy->addFunctionExecution(record(2), Duration(500));
    m_Strategy->addFunctionExecution(record(3), Duration(1500));
    m_Strategy->addFunctionExecution(record(4), Duration(4294967296L + 100000L)); // low 32 bits: 100000

    EXPECT_FALSE(m_Strategy->empty());
    EXPECT_FALSE(m_Strategy->hasPendingFunctionExecutions());
    EXPECT_LE(m_Strategy->getTimeToNextFunctionExecution(), 500u);
    EXPECT_EQ("No pending functionExecutions", failure([&] { m_Strategy->getNextFunctionExecution(); }));

    m_Ticks.advance(10000);
    EXPECT_EQ(0u, m_Strategy->getTimeToNextFunctionExecution());
    EXPECT_EQ((std::vector<unsigned long>{2, 3, 1}), take(3));
    EXPECT_GT(m_Strategy->getTimeToNextFunctionExecution(), 80000u);
}

TEST_F(BalancedStrategyTest, EqualDueTicksComeOutNewestFirst)
{
    addWithinOneTick({{1, 20}, {2, 10}, {3, 20}, {4, 20}});
    m_Ticks.advance(1000);
    EXPECT_EQ((std::vector<unsigned long>{2, 4, 3, 1}), take(4));

    // Removing every record of the latest due tick makes an earlier tick the
    // latest; a record added with that tick still goes in front of its equals.
    withinOneTick([](BalancedStrategy& strategy) {
        strategy.addFunctionExecution(record(1), Duration(10));
        strategy.addFunctionExecution(record(2), Duration(20));
        strategy.removeFunctionExecution(FunctionExecutionId(2));
        strategy.addFunctionExecution(record(3), Duration(10));
    });
    EXPECT_EQ(3u, m_Strategy->getNextTimedFunctionExecution().id.getValue());
    EXPECT_EQ(1u, m_Strategy->getNextTimedFunctionExecution().id.getValue());
}

TEST_F(BalancedStrategyTest, AskingOrderAlternatesAfterEverySuccessfulPick)
{
    for (unsigned long id : {11ul, 12ul, 13ul})
    {
        m_Strategy->addFunctionExecution(record(id));
    }
    m_Strategy->addFunctionExecution(record(1), Duration(-300)); // negative: due at once
    m_Strategy->addFunctionExecution(record(2), Duration(-200));
    m_Strategy->addFunctionExecution(record(3), Duration(-100));
    EXPECT_EQ((std::vector<unsigned long>{1, 11, 2, 12, 3, 13}), take(6));

    // Untimed-only picks flip the order too (three: untimed is asked first
    // next); a failed pick leaves it alone.
    for (unsigned long id : {14ul, 15ul, 16ul})
    {
        m_Strategy->addFunctionExecution(record(id));
    }
    EXPECT_EQ((std::vector<unsigned long>{14, 15, 16}), take(3));
    EXPECT_EQ("No pending functionExecutions", failure([&] { m_Strategy->getNextFunctionExecution(); }));
    m_Strategy->addFunctionExecution(record(4), Duration(-10));
    m_Strategy->addFunctionExecution(record(17));
    m_Strategy->addFunctionExecution(record(5), Duration(100000)); // not due: never picked
    EXPECT_EQ((std::vector<unsigned long>{17, 4}), take(2));
    EXPECT_FALSE(m_Strategy->hasPendingFunctionExecutions());
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

// The timed queue's order must be that of a plain search from the front (in
// front of the first record that is not earlier, so equal ticks come out
// newest first), whatever mix of ticks, wrap-arounds, hand-outs and removals
// led to it. The model is that search on a vector of {id, due tick}.
using TimedOrderModel = std::vector<std::pair<unsigned long, std::uint32_t>>;

void addTo(TimedOrderModel& model, unsigned long id, std::uint32_t due)
{
    auto position = model.begin();
    while (position != model.end() && static_cast<std::uint32_t>(position->second - due) >= 0x80000000u)
    {
        ++position;
    }
    model.insert(position, {id, due});
}

unsigned long popFront(TimedOrderModel& model)
{
    const unsigned long id = model.front().first;
    model.erase(model.begin());
    return id;
}

TEST_F(BalancedStrategyTest, TimedOrderIsTheFrontSearchOrderForAnyMixOfTicks)
{
    struct Scenario
    {
        const char* name;
        long minDelay;
        long maxDelay;
        int farEvery;   // every n-th delay is one of the far values below (0: never)
        int jumpEvery;  // every n-th step the counter jumps by 2^30 (0: never)
        bool fixedTicks; // delays aim at the ticks base+minDelay..base+maxDelay; removals take the last record
    };
    const Scenario scenarios[] = {
        {"random delays within a second", 0, 1000, 0, 0, false},
        {"equal delays (periodic work)", 1000, 1000, 0, 0, false},
        {"few distinct ticks, latest ones removed", 100, 103, 0, 0, true},
        {"far, negative and wrapping delays", -2000, 2000, 3, 0, false},
        {"records left waiting for half the counter's range", 0, 1000, 0, 40, false},
    };
    const long farDelays[] = {2147483647L, 2147483648L, 3000000000L, 4294967295L, -2147483648L, -3000000000L};

    for (const Scenario& scenario : scenarios)
    {
        SCOPED_TRACE(scenario.name);
        m_Ticks.placeAt(kBeforeWrap);
        const std::uint32_t base = Clock::getTickCounter();
        BalancedStrategy strategy;
        TimedOrderModel model;
        std::mt19937 random(20240611);
        std::uniform_int_distribution<long> delays(scenario.minDelay, scenario.maxDelay);
        std::uniform_int_distribution<int> actions(0, 9);
        unsigned long nextId = 1;

        for (int step = 0; step < 3000; ++step)
        {
            if (scenario.jumpEvery != 0 && step % scenario.jumpEvery == 0)
            {
                m_Ticks.advance(0x40000000u);
            }
            const int action = actions(random);
            if (action < (scenario.fixedTicks ? 5 : 7) || model.empty())
            {
                long delay = delays(random);
                if (scenario.farEvery != 0 && step % scenario.farEvery == 0)
                {
                    delay = farDelays[static_cast<std::size_t>(step / scenario.farEvery) % 6];
                }
                const unsigned long id = nextId++;
                const std::uint32_t before = Clock::getTickCounter();
                if (scenario.fixedTicks)
                {
                    delay = static_cast<std::int32_t>(base + static_cast<std::uint32_t>(delay) - before);
                }
                strategy.addFunctionExecution(record(id), Duration(delay));
                if (Clock::getTickCounter() == before)
                {
                    addTo(model, id, before + static_cast<std::uint32_t>(delay));
                }
                else
                {
                    strategy.removeFunctionExecution(FunctionExecutionId(id)); // due tick unknown
                }
            }
            else if (action < (scenario.fixedTicks ? 6 : 9))
            {
                ASSERT_EQ(popFront(model), strategy.getNextTimedFunctionExecution().id.getValue()) << "step " << step;
            }
            else
            {
                const std::size_t index =
                    scenario.fixedTicks ? model.size() - 1 : static_cast<std::size_t>(random()) % model.size();
                const unsigned long id = model[index].first;
                model.erase(model.begin() + static_cast<long>(index));
                strategy.removeFunctionExecution(FunctionExecutionId(id));
            }
        }
        while (!model.empty())
        {
            ASSERT_EQ(popFront(model), strategy.getNextTimedFunctionExecution().id.getValue());
        }
        EXPECT_TRUE(strategy.empty());
    }
}

TEST_F(BalancedStrategyTest, HandedOutRecordsLeaveNoFunctionReferenceBehind)
{
    // Queues reuse the nodes of handed-out records; those must not keep the
    // Functions they carried alive.
    const auto function = std::make_shared<qor::test::CountingFunction>();
    for (int round = 0; round < 3; ++round)
    {
        for (unsigned long id = 1; id <= 300; ++id)
        {
            m_Strategy->addFunctionExecution(FunctionExecution{FunctionExecutionId(id), function, 0u});
            m_Strategy->addFunctionExecution(FunctionExecution{FunctionExecutionId(id + 1000), function, 0u},
                                            Duration(-1));
        }
        EXPECT_EQ(601, function.use_count());
        std::vector<unsigned long> ids;
        for (int i = 0; i < 600; ++i)
        {
            ids.push_back(m_Strategy->getNextFunctionExecution().id.getValue());
        }
        EXPECT_TRUE(m_Strategy->empty());
        std::sort(ids.begin(), ids.end());
        for (unsigned long id = 1; id <= 300; ++id)
        {
            ASSERT_EQ(id, ids[id - 1]);
            ASSERT_EQ(id + 1000, ids[id + 299]);
        }
        EXPECT_EQ(1, function.use_count());
    }
}

} // namespace
