#include "qor/nav/sdk/utils/synchronization/Strategy.h"

#include "qor/nav/sdk/utils/synchronization/FunctionExecutionScheduler.h"
#include "support/TestFunctions.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>

namespace {

using namespace qor::nav::sdk::utils::synchronization;

// First in, first out, written against the interface only: answers "wait
// 1 ms" once before each hand-out and logs the calls it receives.
class ScriptedStrategy : public Strategy
{
public:
    bool empty() const override { return note('e'), m_Queue.empty(); }
    void addFunctionExecution(const FunctionExecution& e) override { note('a'), m_Queue.push_back(e); }
    void addFunctionExecution(const FunctionExecution& e, const Duration&) override { note('a'), m_Queue.push_back(e); }
    void removeFunctionExecution(const FunctionExecutionId&) override { note('r'); }
    bool hasPendingFunctionExecutions() const override { return note('p'), true; }
    FunctionExecution getNextFunctionExecution() override
    {
        note('n');
        m_Waited = false;
        const FunctionExecution next = m_Queue.front();
        m_Queue.pop_front();
        return next;
    }
    unsigned int getTimeToNextFunctionExecution() const override
    {
        note('t');
        return m_Waited ? 0u : (m_Waited = true, 1u);
    }
    std::string calls() const
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Calls;
    }

private:
    void note(char call) const
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Calls += call;
    }
    mutable std::mutex m_Mutex; // guards m_Calls for the test thread; the scheduler serialises the rest
    mutable std::string m_Calls;
    std::deque<FunctionExecution> m_Queue;
    mutable bool m_Waited = false;
};

TEST(StrategyTest, SchedulerAsksEmptyThenWaitTimeBeforeEachHandOut)
{
    auto strategy = std::make_shared<ScriptedStrategy>();
    auto job = std::make_shared<qor::test::CountingFunction>();
    {
        FunctionExecutionScheduler scheduler("Scripted", strategy, 0, 0);
        scheduler.scheduleExecutionImmediately(job);
        scheduler.scheduleExecutionLater(job, Duration(5));
        scheduler.start();
        ASSERT_TRUE(job->waitForRuns(2));
    }
    // Per hand-out: empty, 1 ms (so wait), empty, 0 ms, next. Afterwards only
    // empty() (nothing queued): the worker never polls hasPending...().
    const std::string calls = strategy->calls();
    EXPECT_EQ("aaetetnetetn", calls.substr(0, 12));
    EXPECT_EQ(std::string::npos, calls.find_first_not_of('e', 12));
}

} // namespace
