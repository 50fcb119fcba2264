#include "qor/nav/sdk/utils/synchronization/FunctionExecutionSchedulerImpl.h"

#include "qor/common/errors/IllegalStateException.h"
#include "support/RecordingLogSink.h"
#include "support/TestFunctions.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using qor::common::logging::LogLevel;
using qor::common::logging::LogRecord;
using qor::common::logging::Logger;
using qor::common::system::Clock;
using namespace qor::nav::sdk::utils::synchronization;
using namespace qor::test;
using Worker = FunctionExecutionSchedulerImpl;

const std::string kName = "PN3qor3nav3sdk5utils15synchronization8FunctionE";

// Holds work but fails when asked how long to wait.
class FailingStrategy : public BalancedStrategy
{
public:
    explicit FailingStrategy(bool illegalState) : m_IllegalState(illegalState) {}
    bool empty() const override { return false; }
    unsigned int getTimeToNextFunctionExecution() const override
    {
        if (m_IllegalState)
        {
            throw qor::common::errors::IllegalStateException("strategy broken");
        }
        throw std::runtime_error("strategy broken");
    }

private:
    const bool m_IllegalState;
};

class FunctionExecutionSchedulerImplTest : public ::testing::Test
{
protected:
    FunctionExecutionSchedulerImplTest() { Logger::setDefaultThreshold(LogLevel::Trace); }
    ~FunctionExecutionSchedulerImplTest() override { Logger::resetThresholds(); }

    // Waits for `text` at `level` from the scheduler `name`.
    bool logged(const std::string& name, LogLevel::logLevel level, const std::string& text) const
    {
        return m_Sink->waitFor([&](const LogRecord& r) {
            return r.loggerName == "qor.nav.sdk.utils.FunctionExecutionScheduler." + name && r.level == level &&
                   r.text == text;
        });
    }
    std::size_t count(const std::string& text) const
    {
        return m_Sink->count([&](const LogRecord& r) { return r.text == text; });
    }

    // Runs `execution` through executeFunction() on this thread with a body
    // that moves the tick counter by `runMs`, retrying until the counter did
    // not move by itself: the worker then measures exactly `runMs`.
    void runFor(Worker& worker, FunctionExecution execution, std::uint32_t runMs)
    {
        execution.function = std::make_shared<CountingFunction>([this, runMs] { m_Ticks.advance(runMs); });
        for (int attempt = 0; attempt < 1000; ++attempt)
        {
            m_Sink->clear();
            const std::uint32_t before = Clock::getTickCounter();
            worker.executeFunction(execution);
            if (Clock::getTickCounter() - before == runMs)
            {
                return;
            }
        }
        FAIL() << "the tick counter never held still";
    }

    RecordingLogSink::Installation m_Sink;
    ScopedTickCounter m_Ticks;
    std::shared_ptr<RecordingStrategy> m_Strategy = std::make_shared<RecordingStrategy>();
};

TEST_F(FunctionExecutionSchedulerImplTest, IdsCountFromOneAndPeriodsKeepTheirLow32Bits)
{
    Worker worker("Ids", m_Strategy, 0, 0);
    auto job = std::make_shared<CountingFunction>();
    EXPECT_EQ(1u, worker.scheduleExecutionImmediately(job).getValue());
    EXPECT_EQ(2u, worker.scheduleExecutionImmediately(job, Duration(4294967296L)).getValue());
    EXPECT_EQ(3u, worker.scheduleExecutionLater(job, Duration(-5), Duration(4294967296L + 5)).getValue());
    EXPECT_EQ(4u, worker.scheduleExecutionImmediately(job, Duration(-1)).getValue());
    EXPECT_EQ(5u, worker.scheduleExecutionLater(job, Duration(10)).getValue());

    const std::vector<RecordingStrategy::Added> added = m_Strategy->added();
    ASSERT_EQ(5u, added.size());
    const std::uint32_t periods[] = {0u, 0u, 5u, 4294967295u, 0u};
    for (std::size_t i = 0; i < added.size(); ++i)
    {
        EXPECT_EQ(i + 1, added[i].id);
        EXPECT_EQ(periods[i], added[i].period) << "record " << i + 1;
    }
    EXPECT_TRUE(added[2].timed);
    EXPECT_EQ(-5, added[2].delay); // delays reach the strategy untouched
    EXPECT_EQ(1u, Worker("Ids2", nullptr, 0, 0).scheduleExecutionImmediately(job).getValue());
}

TEST_F(FunctionExecutionSchedulerImplTest, NextActionFollowsStopStrategyAndDueWork)
{
    unsigned int timeout = 0;
    FunctionExecution execution;
    EXPECT_EQ(Worker::WaitForSignal, Worker("None", nullptr, 0, 0).getNextAction(timeout, execution));

    Worker worker("Actions", m_Strategy, 0, 0);
    EXPECT_EQ(Worker::WaitForSignal, worker.getNextAction(timeout, execution));
    worker.scheduleExecutionLater(nullptr, Duration(100000));
    EXPECT_EQ(Worker::WaitWithTimeout, worker.getNextAction(timeout, execution));
    EXPECT_GT(timeout, 90000u);
    const FunctionExecutionId id = worker.scheduleExecutionImmediately(nullptr);
    EXPECT_EQ(Worker::Execute, worker.getNextAction(timeout, execution));
    EXPECT_EQ(id, execution.id);
    worker.shutdown();
    EXPECT_EQ(Worker::Stop, worker.getNextAction(timeout, execution));

    Worker illegal("Broken", std::make_shared<FailingStrategy>(true), 0, 0);
    EXPECT_EQ(Worker::WaitForSignal, illegal.getNextAction(timeout, execution));
    EXPECT_TRUE(logged("Broken", LogLevel::Error, "Unexpected exception while handling getNextAction: strategy broken\n"));
    Worker other("Broken2", std::make_shared<FailingStrategy>(false), 0, 0);
    EXPECT_EQ(Worker::WaitForSignal, other.getNextAction(timeout, execution));
    EXPECT_TRUE(logged("Broken2", LogLevel::Error, "Unexpected exception while handling getNextAction.\n"));
}

TEST_F(FunctionExecutionSchedulerImplTest, PeriodicRecordIsQueuedAgainWithPeriodMinusRunTime)
{
    Worker worker("Periodic", m_Strategy, 0, 0);
    const struct
    {
        std::uint32_t period, runMs;
        long delay;
    } cases[] = {{50, 30, 20}, {50, 70, 0}, {2147483648u, 0, 0}, {2147483648u, 1, 2147483647}};
    for (const auto& c : cases)
    {
        runFor(worker, FunctionExecution{FunctionExecutionId(42), nullptr, c.period}, c.runMs);
        const RecordingStrategy::Added last = m_Strategy->added().back();
        EXPECT_EQ(42u, last.id);
        EXPECT_EQ(c.period, last.period);
        EXPECT_EQ(c.delay, last.delay) << "period " << c.period << ", run " << c.runMs << " ms";
    }
    const std::size_t queued = m_Strategy->added().size();
    runFor(worker, FunctionExecution{FunctionExecutionId(43), nullptr, 0u}, 0);
    EXPECT_EQ(queued, m_Strategy->added().size()); // period 0: once

    runFor(worker, FunctionExecution{}, 99);
    EXPECT_EQ(2u, m_Sink->records().size()); // started and finished only
    EXPECT_EQ(1u, count("execute functionExecution " + kName + " started\n"));
    runFor(worker, FunctionExecution{}, 100);
    EXPECT_TRUE(logged("Periodic", LogLevel::Info, "FunctionExecution " + kName + " tooks 100\n"));
    EXPECT_TRUE(logged("Periodic", LogLevel::Trace, "execute functionExecution " + kName + " finished\n"));
}

TEST_F(FunctionExecutionSchedulerImplTest, LoopRunsWorkAndSurvivesExceptions)
{
    Worker worker("Loop", std::make_shared<BalancedStrategy>(), 0, 0);
    auto early = std::make_shared<CountingFunction>();
    auto standard = std::make_shared<CountingFunction>([] { throw std::runtime_error("boom"); });
    auto other = std::make_shared<CountingFunction>([] { throw 42; });
    auto periodic = std::make_shared<CountingFunction>();
    worker.scheduleExecutionImmediately(early); // before start: waits
    worker.scheduleExecutionImmediately(nullptr);
    worker.scheduleExecutionImmediately(standard, Duration(1));
    worker.scheduleExecutionLater(other, Duration(0), Duration(1));
    worker.start();
    worker.scheduleExecutionLater(periodic, Duration(5), Duration(1));

    ASSERT_TRUE(periodic->waitForRuns(3));
    EXPECT_TRUE(logged("Loop", LogLevel::Info, "started.\n"));
    EXPECT_TRUE(logged("Loop", LogLevel::Trace, "execute functionExecution  finished\n"));
    EXPECT_EQ(1u, count("execute functionExecution  started\n"));
    EXPECT_TRUE(logged("Loop", LogLevel::Error, "Unexpected exception while handling functionExecution: boom\n"));
    EXPECT_TRUE(logged("Loop", LogLevel::Error, "Unexpected exception while handling functionExecution.\n"));
    worker.shutdown();
    EXPECT_TRUE(logged("Loop", LogLevel::Info, "stopped.\n"));
    EXPECT_EQ(1, early->runs());
    EXPECT_EQ(1, standard->started()); // dropped after throwing
    EXPECT_EQ(1, other->started());
    EXPECT_EQ(1, periodic.use_count()); // its queued record went with the strategy
}

TEST_F(FunctionExecutionSchedulerImplTest, RemovalDropsQueuedWorkButNotARunningPeriodicRecord)
{
    Worker worker("Remove", m_Strategy, 0, 0);
    worker.start();
    auto blocking = std::make_shared<BlockingFunction>();
    const FunctionExecutionId id = worker.scheduleExecutionImmediately(blocking, Duration(60000));
    ASSERT_TRUE(blocking->entered.waitFor());
    worker.asyncRemoveFunctionExecution(id); // returns while the function blocks
    blocking->release();
    ASSERT_TRUE(m_Strategy->waitForAdded(2)); // so it is queued again

    worker.asyncRemoveFunctionExecution(id); // now it waits in the strategy
    m_Ticks.advance(120000);
    auto sentinel = std::make_shared<CountingFunction>();
    worker.scheduleExecutionLater(sentinel, Duration(0));
    ASSERT_TRUE(sentinel->waitForRuns(1)); // an earlier due record would have come first
    EXPECT_EQ(1, blocking->started());
    EXPECT_EQ(1, blocking.use_count());
}

TEST_F(FunctionExecutionSchedulerImplTest, FunctionMayUseAndShutDownItsOwnScheduler)
{
    Worker worker("Self", m_Strategy, 0, 0);
    auto inner = std::make_shared<CountingFunction>();
    auto stopper = std::make_shared<CountingFunction>([&] { worker.shutdown(); });
    auto outer = std::make_shared<CountingFunction>([&] {
        worker.asyncRemoveFunctionExecution(worker.scheduleExecutionLater(inner, Duration(100000)));
        worker.scheduleExecutionImmediately(inner);
        worker.scheduleExecutionLater(stopper, Duration(0));
    });
    worker.scheduleExecutionImmediately(outer);
    worker.start();
    ASSERT_TRUE(stopper->waitForRuns(1));
    EXPECT_TRUE(logged("Self", LogLevel::Info, "stopped.\n"));
    EXPECT_EQ(1, inner->runs());
    EXPECT_EQ(5u, worker.scheduleExecutionImmediately(inner).getValue()); // fresh id, queues nothing
    EXPECT_EQ(1, inner.use_count());
}

TEST_F(FunctionExecutionSchedulerImplTest, WatchdogNamedAfterTheSchedulerSupervisesRuns)
{
    Worker worker("Dog", m_Strategy, 20, 0);
    auto overdue = std::make_shared<CountingFunction>([&] {
        m_Sink->waitFor([](const LogRecord& r) { return r.text.rfind("WatchDog DogWatchdog not refreshed", 0) == 0; });
    });
    worker.scheduleExecutionImmediately(overdue);
    worker.start();
    ASSERT_TRUE(overdue->waitForRuns(1));
    EXPECT_EQ(1u, m_Sink->count([](const LogRecord& r) { return r.loggerName == "qor.common.watchdog.WatchDog"; }));
}

} // namespace
