#include "qor/nav/sdk/utils/synchronization/FunctionExecutionScheduler.h"

#include "qor/common/errors/IllegalStateException.h"
#include "support/RecordingLogSink.h"
#include "support/TestFunctions.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using qor::nav::sdk::utils::synchronization::FunctionExecution;
using qor::nav::sdk::utils::synchronization::FunctionExecutionScheduler;
using qor::test::CountingFunction;
using Duration = FunctionExecutionScheduler::Duration;
using FunctionExecutionId = FunctionExecutionScheduler::FunctionExecutionId;

// Refuses the first untimed record it is given.
class RefusingStrategy : public qor::test::RecordingStrategy
{
public:
    using RecordingStrategy::addFunctionExecution;
    void addFunctionExecution(const FunctionExecution& execution) override
    {
        if (!m_Refused)
        {
            m_Refused = true;
            throw std::runtime_error("full");
        }
        RecordingStrategy::addFunctionExecution(execution);
    }

private:
    bool m_Refused = false;
};

TEST(FunctionExecutionSchedulerTest, DefaultStrategyRunsImmediateDelayedAndPeriodicWork)
{
    FunctionExecutionScheduler scheduler("Facade", 0, 0);
    auto now = std::make_shared<CountingFunction>();
    auto later = std::make_shared<CountingFunction>();
    auto often = std::make_shared<CountingFunction>();
    auto everyLater = std::make_shared<CountingFunction>();
    EXPECT_EQ(1u, scheduler.scheduleExecutionImmediately(now).getValue()); // before start: waits
    scheduler.start();
    EXPECT_THROW(scheduler.start(), qor::common::errors::IllegalStateException);
    EXPECT_EQ(2u, scheduler.scheduleExecutionLater(later, Duration(10)).getValue());
    const FunctionExecutionId oftenId = scheduler.scheduleExecutionImmediately(often, Duration(1));
    scheduler.scheduleExecutionLater(everyLater, Duration(5), Duration(1));

    EXPECT_TRUE(now->waitForRuns(1));
    EXPECT_TRUE(later->waitForRuns(1));
    EXPECT_TRUE(often->waitForRuns(3));
    EXPECT_TRUE(everyLater->waitForRuns(3));
    scheduler.refreshWatchdog();
    scheduler.asyncRemoveFunctionExecution(oftenId);
    scheduler.shutdown();
    EXPECT_EQ(1, later->runs());
    EXPECT_EQ(1, everyLater.use_count()); // released by shutdown
}

TEST(FunctionExecutionSchedulerTest, NullStrategyHandsOutIdsRunsNothingAndStopsOnDestruction)
{
    auto sink = qor::test::RecordingLogSink::install();
    auto job = std::make_shared<CountingFunction>();
    {
        FunctionExecutionScheduler scheduler("Void", nullptr, 0, 0);
        scheduler.start();
        EXPECT_EQ(1u, scheduler.scheduleExecutionImmediately(job).getValue());
        EXPECT_EQ(2u, scheduler.scheduleExecutionLater(job, Duration(0)).getValue());
        EXPECT_EQ(3u, scheduler.scheduleExecutionLater(job, Duration(0), Duration(1)).getValue());
        EXPECT_EQ(1, job.use_count());
    }
    // Logged by the worker before the destructor returned.
    EXPECT_EQ(1u, sink->count([](const qor::common::logging::LogRecord& r) {
        return r.loggerName == "qor.nav.sdk.utils.FunctionExecutionScheduler.Void" && r.text == "stopped.\n";
    }));
    EXPECT_EQ(0, job->started());
}

TEST(FunctionExecutionSchedulerTest, FailuresReachTheCallerAndRepeatedShutdownIsHarmless)
{
    auto strategy = std::make_shared<RefusingStrategy>();
    FunctionExecutionScheduler scheduler("Refusing", strategy, 0, 0);
    auto job = std::make_shared<CountingFunction>();
    EXPECT_THROW(scheduler.scheduleExecutionImmediately(job), std::runtime_error);
    EXPECT_EQ(2u, scheduler.scheduleExecutionImmediately(job).getValue()); // lock released, id consumed
    scheduler.start();
    EXPECT_TRUE(job->waitForRuns(1));

    scheduler.shutdown();
    scheduler.shutdown();
    EXPECT_EQ(3u, scheduler.scheduleExecutionImmediately(job, Duration(1)).getValue());
    EXPECT_EQ(1, job.use_count());
    ASSERT_EQ(1u, strategy->added().size());
    EXPECT_EQ(2u, strategy->added()[0].id);
}

} // namespace
