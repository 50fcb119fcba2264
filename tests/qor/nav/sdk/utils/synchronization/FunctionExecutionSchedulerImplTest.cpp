#include "qor/nav/sdk/utils/synchronization/FunctionExecutionSchedulerImpl.h"

#include "qor/common/errors/IllegalStateException.h"
#include "qor/common/logging/Logger.h"
#include "qor/common/system/Clock.h"
#include "support/RecordingLogSink.h"
#include "support/TestFunctions.h"
#include "support/TestSync.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using qor::common::errors::IllegalStateException;
using qor::common::logging::LogLevel;
using qor::common::logging::Logger;
using qor::common::system::Clock;
using qor::nav::sdk::utils::synchronization::Duration;
using qor::nav::sdk::utils::synchronization::Function;
using qor::nav::sdk::utils::synchronization::FunctionExecution;
using qor::nav::sdk::utils::synchronization::FunctionExecutionId;
using qor::nav::sdk::utils::synchronization::FunctionExecutionSchedulerImpl;
using qor::nav::sdk::utils::synchronization::Strategy;
using qor::test::BlockingFunction;
using qor::test::CountingFunction;
using qor::test::Latch;
using qor::test::RecordingLogSink;
using qor::test::RecordingStrategy;
using qor::test::ScopedTickCounter;
using qor::test::ThrowingFunction;
using Worker = FunctionExecutionSchedulerImpl;
using LogRecord = qor::common::logging::LogRecord;

const std::string kFunctionName = "PN3qor3nav3sdk5utils15synchronization8FunctionE";

std::string loggerOf(const std::string& schedulerName)
{
    return "qor.nav.sdk.utils.FunctionExecutionScheduler." + schedulerName;
}

// A strategy that holds work but fails when asked for it.
class FailingStrategy : public RecordingStrategy
{
public:
    explicit FailingStrategy(bool illegalState) : m_IllegalState(illegalState) {}
    bool empty() const override { return false; }
    unsigned int getTimeToNextFunctionExecution() const override
    {
        if (m_IllegalState)
        {
            throw IllegalStateException("strategy broken", nullptr, false);
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

    bool logged(const std::string& scheduler, LogLevel::logLevel level, const std::string& text) const
    {
        return m_Sink->waitFor([&](const LogRecord& r) {
            return r.loggerName == loggerOf(scheduler) && r.level == level && r.text == text;
        });
    }

    std::size_t countTexts(const std::string& scheduler, const std::string& text) const
    {
        const std::vector<std::string> texts = m_Sink->textsOf(loggerOf(scheduler));
        return static_cast<std::size_t>(std::count(texts.begin(), texts.end(), text));
    }

    // Runs `execution` through executeFunction() on this thread, with a body
    // that moves the tick counter by `runMs`; retries until the counter did not
    // move by itself, so the run time seen by the worker is exactly `runMs`.
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
};

TEST_F(FunctionExecutionSchedulerImplTest, IdsCountFromOneAndPeriodsKeepTheirLow32Bits)
{
    auto strategy = std::make_shared<RecordingStrategy>();
    Worker worker("Ids", strategy, 0, 0);
    auto job = std::make_shared<CountingFunction>();

    EXPECT_EQ(1u, worker.scheduleExecutionImmediately(job).getValue());
    EXPECT_EQ(2u, worker.scheduleExecutionImmediately(job, Duration(4294967296L)).getValue());
    EXPECT_EQ(3u, worker.scheduleExecutionLater(job, Duration(10)).getValue());
    EXPECT_EQ(4u, worker.scheduleExecutionLater(job, Duration(-5), Duration(4294967296L + 5)).getValue());
    EXPECT_EQ(5u, worker.scheduleExecutionImmediately(job, Duration(-1)).getValue());
    EXPECT_EQ(6u, worker.scheduleExecutionImmediately(job, Duration(2147483648L)).getValue());

    const std::vector<RecordingStrategy::Added> added = strategy->added();
    ASSERT_EQ(6u, added.size());
    const std::uint32_t periods[] = {0u, 0u, 0u, 5u, 4294967295u, 2147483648u};
    const bool timed[] = {false, false, true, true, false, false};
    for (std::size_t i = 0; i < added.size(); ++i)
    {
        EXPECT_EQ(i + 1, added[i].id);
        EXPECT_EQ(periods[i], added[i].period) << "record " << i + 1;
        EXPECT_EQ(timed[i], added[i].timed) << "record " << i + 1;
    }
    EXPECT_EQ(-5, added[3].delay); // the delay goes to the strategy untouched

    Worker other("Ids2", std::make_shared<RecordingStrategy>(), 0, 0);
    EXPECT_EQ(1u, other.scheduleExecutionImmediately(job).getValue());
}

TEST_F(FunctionExecutionSchedulerImplTest, NextActionReflectsStopStrategyAndDueWork)
{
    unsigned int timeout = 0;
    FunctionExecution execution;

    Worker withoutStrategy("NoStrategy", nullptr, 0, 0);
    EXPECT_EQ(Worker::WaitForSignal, withoutStrategy.getNextAction(timeout, execution));

    Worker worker("Actions", std::make_shared<RecordingStrategy>(), 0, 0);
    EXPECT_EQ(Worker::WaitForSignal, worker.getNextAction(timeout, execution));

    worker.scheduleExecutionLater(std::make_shared<CountingFunction>(), Duration(100000));
    EXPECT_EQ(Worker::WaitWithTimeout, worker.getNextAction(timeout, execution));
    EXPECT_GT(timeout, 90000u);
    EXPECT_LE(timeout, 100000u);

    const FunctionExecutionId id = worker.scheduleExecutionImmediately(std::make_shared<CountingFunction>());
    EXPECT_EQ(Worker::Execute, worker.getNextAction(timeout, execution));
    EXPECT_EQ(id, execution.id);

    worker.shutdown();
    EXPECT_EQ(Worker::Stop, worker.getNextAction(timeout, execution));
}

TEST_F(FunctionExecutionSchedulerImplTest, StrategyFailuresAreLoggedAndMeanWaitForSignal)
{
    unsigned int timeout = 0;
    FunctionExecution execution;

    Worker illegal("Broken", std::make_shared<FailingStrategy>(true), 0, 0);
    EXPECT_EQ(Worker::WaitForSignal, illegal.getNextAction(timeout, execution));
    EXPECT_TRUE(logged("Broken", LogLevel::Error, "Unexpected exception while handling getNextAction: strategy broken\n"));

    Worker other("Broken2", std::make_shared<FailingStrategy>(false), 0, 0);
    EXPECT_EQ(Worker::WaitForSignal, other.getNextAction(timeout, execution));
    EXPECT_TRUE(logged("Broken2", LogLevel::Error, "Unexpected exception while handling getNextAction.\n"));
}

TEST_F(FunctionExecutionSchedulerImplTest, PeriodicRecordIsQueuedAgainWithPeriodMinusRunTime)
{
    auto strategy = std::make_shared<RecordingStrategy>();
    Worker worker("Periodic", strategy, 0, 0);
    const struct
    {
        std::uint32_t period;
        std::uint32_t runMs;
        long delay;
    } cases[] = {
        {50, 30, 20},
        {50, 50, 0},
        {50, 70, 0},         // overrun: queued at once, never skipped
        {2147483648u, 0, 0}, // read as signed, this period always overruns a 0 ms run
        {2147483648u, 1, 2147483647},
    };
    for (const auto& c : cases)
    {
        runFor(worker, FunctionExecution{FunctionExecutionId(42), nullptr, c.period}, c.runMs);
        const RecordingStrategy::Added last = strategy->added().back();
        EXPECT_EQ(42u, last.id);
        EXPECT_EQ(c.period, last.period);
        EXPECT_TRUE(last.timed);
        EXPECT_EQ(c.delay, last.delay) << "period " << c.period << ", run " << c.runMs << " ms";
    }

    const std::size_t before = strategy->added().size();
    runFor(worker, FunctionExecution{FunctionExecutionId(43), nullptr, 0u}, 0);
    EXPECT_EQ(before, strategy->added().size()); // period 0: run once
}

TEST_F(FunctionExecutionSchedulerImplTest, RunsFrom100msOnLogTheirDuration)
{
    Worker worker("Slow", nullptr, 0, 0);
    runFor(worker, FunctionExecution{}, 99);
    EXPECT_EQ(1u, countTexts("Slow", "execute functionExecution " + kFunctionName + " started\n"));
    EXPECT_EQ(1u, countTexts("Slow", "execute functionExecution " + kFunctionName + " finished\n"));
    EXPECT_EQ(2u, m_Sink->records().size()); // the two level-1 lines only

    runFor(worker, FunctionExecution{}, 100);
    EXPECT_TRUE(logged("Slow", LogLevel::Info, "FunctionExecution " + kFunctionName + " tooks 100\n"));
    EXPECT_TRUE(logged("Slow", LogLevel::Trace, "execute functionExecution " + kFunctionName + " finished\n"));
}

TEST_F(FunctionExecutionSchedulerImplTest, ThreadRunsWorkQueuedBeforeAndAfterStart)
{
    Worker worker("Runner", std::make_shared<RecordingStrategy>(), 0, 0);
    auto early = std::make_shared<CountingFunction>();
    auto delayed = std::make_shared<CountingFunction>();
    auto periodic = std::make_shared<CountingFunction>();
    worker.scheduleExecutionImmediately(early);
    worker.scheduleExecutionLater(delayed, Duration(20));
    worker.scheduleExecutionImmediately(nullptr); // accepted; runs nothing

    worker.start();
    EXPECT_TRUE(early->waitForRuns(1));
    EXPECT_TRUE(delayed->waitForRuns(1));
    worker.scheduleExecutionLater(periodic, Duration(0), Duration(1));
    EXPECT_TRUE(periodic->waitForRuns(3));
    EXPECT_TRUE(logged("Runner", LogLevel::Info, "started.\n"));
    EXPECT_TRUE(logged("Runner", LogLevel::Trace, "execute functionExecution  started\n"));
    EXPECT_TRUE(logged("Runner", LogLevel::Trace, "execute functionExecution  finished\n"));

    worker.shutdown();
    EXPECT_TRUE(logged("Runner", LogLevel::Info, "stopped.\n"));
    EXPECT_EQ(1, early->runs());
    EXPECT_EQ(1, periodic.use_count()); // the queued periodic record went with the strategy
}

TEST_F(FunctionExecutionSchedulerImplTest, ExceptionsAreLoggedAndDropThePeriodicRecord)
{
    auto strategy = std::make_shared<RecordingStrategy>();
    Worker worker("Throwing", strategy, 0, 0);
    auto standard = std::make_shared<ThrowingFunction>("boom");
    auto other = std::make_shared<ThrowingFunction>("", false);
    auto after = std::make_shared<CountingFunction>();
    const FunctionExecutionId first = worker.scheduleExecutionImmediately(standard, Duration(1));
    const FunctionExecutionId second = worker.scheduleExecutionImmediately(other, Duration(1));
    worker.scheduleExecutionImmediately(after);

    worker.start();
    ASSERT_TRUE(after->waitForRuns(1)); // runs after both throwing functions
    EXPECT_TRUE(logged("Throwing", LogLevel::Error, "Unexpected exception while handling functionExecution: boom\n"));
    EXPECT_TRUE(logged("Throwing", LogLevel::Error, "Unexpected exception while handling functionExecution.\n"));
    ASSERT_TRUE(logged("Throwing", LogLevel::Trace, "execute functionExecution " + kFunctionName + " finished\n"));
    EXPECT_EQ(1u, countTexts("Throwing", "execute functionExecution " + kFunctionName + " finished\n"));
    for (const RecordingStrategy::Added& added : strategy->added())
    {
        EXPECT_TRUE(added.id != first.getValue() || !added.timed) << "a throwing record was queued again";
        EXPECT_TRUE(added.id != second.getValue() || !added.timed) << "a throwing record was queued again";
    }
    EXPECT_EQ(1, standard->runs());
    EXPECT_EQ(1, other->runs());
}

TEST_F(FunctionExecutionSchedulerImplTest, RemovalDropsQueuedWorkButNotARunningPeriodicRecord)
{
    auto strategy = std::make_shared<RecordingStrategy>();
    Worker worker("Remove", strategy, 0, 0);
    worker.start();
    auto blocking = std::make_shared<BlockingFunction>();
    const FunctionExecutionId id = worker.scheduleExecutionImmediately(blocking, Duration(60000));
    ASSERT_TRUE(blocking->waitUntilEntered());

    worker.asyncRemoveFunctionExecution(id); // returns although the function still blocks
    blocking->release();
    ASSERT_TRUE(strategy->waitForAdded(2)); // queued again after its run
    EXPECT_EQ(id.getValue(), strategy->added()[1].id);

    worker.asyncRemoveFunctionExecution(id); // now it waits in the strategy: dropped
    m_Ticks.advance(120000);                 // it would be due by now
    auto sentinel = std::make_shared<CountingFunction>();
    worker.scheduleExecutionLater(sentinel, Duration(0));
    ASSERT_TRUE(sentinel->waitForRuns(1)); // an earlier due record would have come first
    EXPECT_EQ(1, blocking->entered());
    EXPECT_EQ(1, blocking.use_count());
}

TEST_F(FunctionExecutionSchedulerImplTest, FunctionMayUseAndShutDownItsOwnScheduler)
{
    Worker worker("Self", std::make_shared<RecordingStrategy>(), 0, 0);
    auto inner = std::make_shared<CountingFunction>();
    Latch shutDown(1);
    auto stopper = std::make_shared<CountingFunction>([&] {
        worker.shutdown(); // returns at once on the worker thread
        shutDown.countDown();
    });
    auto outer = std::make_shared<CountingFunction>([&] {
        const FunctionExecutionId removed = worker.scheduleExecutionLater(inner, Duration(100000));
        worker.asyncRemoveFunctionExecution(removed);
        worker.scheduleExecutionImmediately(inner);
        worker.scheduleExecutionLater(stopper, Duration(0));
    });
    worker.scheduleExecutionImmediately(outer);
    worker.start();

    ASSERT_TRUE(shutDown.waitFor());
    EXPECT_TRUE(logged("Self", LogLevel::Info, "stopped.\n"));
    EXPECT_EQ(1, inner->runs());

    auto late = std::make_shared<CountingFunction>();
    EXPECT_EQ(5u, worker.scheduleExecutionImmediately(late).getValue()); // fresh id, nothing queued
    EXPECT_EQ(1, late.use_count());
    worker.asyncRemoveFunctionExecution(FunctionExecutionId(5)); // does nothing
    worker.shutdown();                                            // a second time: harmless
}

TEST_F(FunctionExecutionSchedulerImplTest, WatchdogNamedAfterSchedulerSupervisesRuns)
{
    Worker worker("Dog", std::make_shared<RecordingStrategy>(), 20, 0);
    auto overdue = std::make_shared<CountingFunction>([&] {
        // Stays inside the run until the watchdog has reported it.
        m_Sink->waitFor([](const LogRecord& r) {
            return r.loggerName == "qor.common.watchdog.WatchDog" &&
                   r.text.rfind("WatchDog DogWatchdog not refreshed for ", 0) == 0;
        });
    });
    worker.scheduleExecutionImmediately(overdue);
    worker.start();
    ASSERT_TRUE(overdue->waitForRuns(1));
    EXPECT_EQ(1u, m_Sink->count([](const LogRecord& r) { return r.loggerName == "qor.common.watchdog.WatchDog"; }));
    worker.refreshWatchdog();
}

} // namespace
