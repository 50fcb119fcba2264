#include "qor/nav/sdk/utils/synchronization/Strategy.h"

#include "qor/nav/sdk/utils/synchronization/FunctionExecutionScheduler.h"
#include "support/TestFunctions.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace {

using qor::nav::sdk::utils::synchronization::Duration;
using qor::nav::sdk::utils::synchronization::FunctionExecution;
using qor::nav::sdk::utils::synchronization::FunctionExecutionId;
using qor::nav::sdk::utils::synchronization::FunctionExecutionScheduler;
using qor::nav::sdk::utils::synchronization::Strategy;
using qor::test::CountingFunction;

// A first-in first-out strategy written only against the Strategy interface.
// It ignores delays, says "wait 1 ms" once per record before handing it out,
// and logs every call it receives.
class ScriptedStrategy : public Strategy
{
public:
    bool empty() const override
    {
        note("empty");
        return m_Queue.empty();
    }
    void addFunctionExecution(const FunctionExecution& execution) override
    {
        note("add");
        m_Queue.push_back(execution);
    }
    void addFunctionExecution(const FunctionExecution& execution, const Duration&) override
    {
        note("addLater");
        m_Queue.push_back(execution);
    }
    void removeFunctionExecution(const FunctionExecutionId&) override { note("remove"); }
    bool hasPendingFunctionExecutions() const override
    {
        note("pending");
        return !m_Queue.empty();
    }
    FunctionExecution getNextFunctionExecution() override
    {
        note("next");
        m_Waited = false;
        FunctionExecution next = m_Queue.front();
        m_Queue.pop_front();
        return next;
    }
    unsigned int getTimeToNextFunctionExecution() const override
    {
        note("time");
        const bool waited = m_Waited;
        m_Waited = true;
        return waited ? 0u : 1u;
    }

    std::vector<std::string> calls() const
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Calls;
    }

private:
    void note(const char* call) const
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Calls.push_back(call);
    }

    mutable std::mutex m_Mutex; // guards m_Calls only; the scheduler serialises the rest
    mutable std::vector<std::string> m_Calls;
    std::deque<FunctionExecution> m_Queue;
    mutable bool m_Waited = false;
};

TEST(StrategyTest, SchedulerDrivesACustomStrategyInTheDocumentedOrder)
{
    auto strategy = std::make_shared<ScriptedStrategy>();
    auto first = std::make_shared<CountingFunction>();
    auto second = std::make_shared<CountingFunction>();
    {
        FunctionExecutionScheduler scheduler("Scripted", strategy, 0, 0);
        scheduler.scheduleExecutionImmediately(first);
        scheduler.scheduleExecutionLater(second, Duration(5));
        scheduler.start();
        ASSERT_TRUE(second->waitForRuns(1));
        scheduler.asyncRemoveFunctionExecution(FunctionExecutionId(1));
    }
    EXPECT_EQ(1, first->runs());

    // Every hand-out follows empty() and a zero getTimeToNextFunctionExecution();
    // a non-zero time makes the worker wait and ask again from the start.
    const std::vector<std::string> calls = strategy->calls();
    ASSERT_GE(calls.size(), 4u);
    EXPECT_EQ("add", calls[0]);
    EXPECT_EQ("addLater", calls[1]);
    int handedOut = 0;
    for (std::size_t i = 2; i < calls.size(); ++i)
    {
        EXPECT_NE("pending", calls[i]) << "the worker does not ask for pending work";
        if (calls[i] == "next")
        {
            ++handedOut;
            ASSERT_GE(i, 4u);
            EXPECT_EQ("time", calls[i - 1]);
            EXPECT_EQ("empty", calls[i - 2]);
            EXPECT_EQ("time", calls[i - 3]); // the 1 ms answer before it
        }
    }
    EXPECT_EQ(2, handedOut);
    EXPECT_EQ(1, std::count(calls.begin(), calls.end(), "remove"));
}

} // namespace
