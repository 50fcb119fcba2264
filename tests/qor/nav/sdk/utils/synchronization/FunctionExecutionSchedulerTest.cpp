#include "qor/nav/sdk/utils/synchronization/FunctionExecutionScheduler.h"

#include "qor/common/errors/IllegalStateException.h"
#include "support/RecordingLogSink.h"
#include "support/TestFunctions.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace {

using qor::common::errors::IllegalStateException;
using qor::nav::sdk::utils::synchronization::FunctionExecution;
using qor::nav::sdk::utils::synchronization::FunctionExecutionScheduler;
using qor::test::CountingFunction;
using qor::test::RecordingLogSink;
using qor::test::RecordingStrategy;
using Duration = FunctionExecutionScheduler::Duration;
using FunctionExecutionId = FunctionExecutionScheduler::FunctionExecutionId;
using LogRecord = qor::common::logging::LogRecord;

bool isStopped(const LogRecord& r, const std::string& scheduler)
{
    return r.loggerName == "qor.nav.sdk.utils.FunctionExecutionScheduler." + scheduler && r.text == "stopped.\n";
}

// Refuses the first untimed record it is given.
class RefusingStrategy : public RecordingStrategy
{
public:
    void addFunctionExecution(const FunctionExecution& execution) override
    {
        if (!m_Refused)
        {
            m_Refused = true;
            throw std::runtime_error("full");
        }
        RecordingStrategy::addFunctionExecution(execution);
    }
    using RecordingStrategy::addFunctionExecution;

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
    EXPECT_THROW(scheduler.start(), IllegalStateException);
    EXPECT_EQ(2u, scheduler.scheduleExecutionLater(later, Duration(10)).getValue());
    const FunctionExecutionId oftenId = scheduler.scheduleExecutionImmediately(often, Duration(1));
    const FunctionExecutionId everyLaterId = scheduler.scheduleExecutionLater(everyLater, Duration(5), Duration(1));

    EXPECT_TRUE(now->waitForRuns(1));
    EXPECT_TRUE(later->waitForRuns(1));
    EXPECT_TRUE(often->waitForRuns(3));
    EXPECT_TRUE(everyLater->waitForRuns(3));
    scheduler.refreshWatchdog();
    scheduler.asyncRemoveFunctionExecution(oftenId);
    scheduler.asyncRemoveFunctionExecution(everyLaterId);
    scheduler.shutdown();

    EXPECT_EQ(1, now->runs());
    EXPECT_EQ(1, later->runs());
    EXPECT_EQ(1, often.use_count());
    EXPECT_EQ(1, everyLater.use_count());
}

TEST(FunctionExecutionSchedulerTest, NullStrategyHandsOutIdsAndRunsNothing)
{
    auto sink = RecordingLogSink::install();
    auto job = std::make_shared<CountingFunction>();
    {
        FunctionExecutionScheduler scheduler("Void", nullptr, 0, 0);
        scheduler.start();
        EXPECT_EQ(1u, scheduler.scheduleExecutionImmediately(job).getValue());
        EXPECT_EQ(2u, scheduler.scheduleExecutionLater(job, Duration(0)).getValue());
        EXPECT_EQ(3u, scheduler.scheduleExecutionLater(job, Duration(0), Duration(1)).getValue());
        EXPECT_EQ(1, job.use_count()); // nothing kept
        scheduler.asyncRemoveFunctionExecution(FunctionExecutionId(1));
    }
    EXPECT_EQ(1u, sink->count([](const LogRecord& r) { return isStopped(r, "Void"); }));
    EXPECT_EQ(0, job->started());
}

TEST(FunctionExecutionSchedulerTest, DestructionShutsDownJoinsAndDropsQueuedWork)
{
    auto sink = RecordingLogSink::install();
    auto ran = std::make_shared<CountingFunction>();
    auto pending = std::make_shared<CountingFunction>();
    {
        FunctionExecutionScheduler scheduler("Scoped", 0, 0);
        scheduler.start();
        scheduler.scheduleExecutionImmediately(ran);
        scheduler.scheduleExecutionLater(pending, Duration(100000));
        ASSERT_TRUE(ran->waitForRuns(1));
    }
    // Logged by the worker thread before the destructor returned.
    EXPECT_EQ(1u, sink->count([](const LogRecord& r) { return isStopped(r, "Scoped"); }));
    EXPECT_EQ(1, pending.use_count());
    EXPECT_EQ(0, pending->started());
}

TEST(FunctionExecutionSchedulerTest, ShutdownTwiceAndSchedulingAfterwardsAreHarmless)
{
    auto job = std::make_shared<CountingFunction>();
    FunctionExecutionScheduler scheduler("Twice", 0, 0);
    scheduler.shutdown(); // never started
    scheduler.start();
    scheduler.shutdown();
    scheduler.shutdown();
    EXPECT_EQ(1u, scheduler.scheduleExecutionImmediately(job, Duration(1)).getValue());
    EXPECT_EQ(2u, scheduler.scheduleExecutionImmediately(job).getValue());
    EXPECT_EQ(1, job.use_count());
    EXPECT_EQ(0, job->started());
}

TEST(FunctionExecutionSchedulerTest, StrategyFailureReachesCallerAndConsumesTheId)
{
    auto strategy = std::make_shared<RefusingStrategy>();
    FunctionExecutionScheduler scheduler("Refusing", strategy, 0, 0);
    auto job = std::make_shared<CountingFunction>();

    EXPECT_THROW(scheduler.scheduleExecutionImmediately(job), std::runtime_error);
    EXPECT_EQ(1, job.use_count());
    // The lock was released and the id is gone.
    EXPECT_EQ(2u, scheduler.scheduleExecutionImmediately(job).getValue());
    scheduler.start();
    EXPECT_TRUE(job->waitForRuns(1));
    ASSERT_EQ(1u, strategy->added().size());
    EXPECT_EQ(2u, strategy->added()[0].id);
}

} // namespace
