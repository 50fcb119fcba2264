// The scheduler and its worker: the loop's decisions, periodic rescheduling,
// the exact log records, removal, shutdown from any thread and the watchdog.
// Many clients at once are the soak program's part.
#include "qor/nav/sdk/utils/synchronization/FunctionExecutionScheduler.h"

#include "qor/common/errors/IllegalStateException.h"
#include "qor/common/system/Clock.h"
#include "qor/nav/sdk/utils/synchronization/BalancedStrategy.h"
#include "qor/nav/sdk/utils/synchronization/FunctionExecutionSchedulerImpl.h"
#include "support/RecordingLogSink.h"
#include "support/TestSync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

namespace {

using namespace qor::nav::sdk::utils::synchronization;
using namespace qor::test;
using qor::common::logging::LogRecord;
using Scheduler = FunctionExecutionScheduler;
using Worker = FunctionExecutionSchedulerImpl;
using Strings = std::vector<std::string>;

const std::string kName = "PN3qor3nav3sdk5utils15synchronization8FunctionE";

// Counts the calls of execute() (started) and those that returned (runs).
struct CountingFunction : Function
{
    explicit CountingFunction(std::function<void()> body = [] {}) : body(std::move(body)) {}
    void execute() override { ++started, body(), ++runs; }
    bool waitForRuns(int n) const { return waitUntil([&] { return runs.load() >= n; }); }
    const std::function<void()> body;
    std::atomic<int> started{0}, runs{0};
};

// Refuses untimed records; holds work but fails when asked how long to wait,
// first with an IllegalStateException, then with something else.
struct FailingStrategy : BalancedStrategy
{
    using BalancedStrategy::addFunctionExecution;
    void addFunctionExecution(const FunctionExecution&) override { throw std::runtime_error("full"); }
    bool empty() const override { return false; }
    unsigned int getTimeToNextFunctionExecution() const override
    {
        return ++calls == 1 ? throw qor::common::errors::IllegalStateException("strategy broken") : throw 2, 0u;
    }
    mutable int calls = 0;
};

class FunctionExecutionSchedulerTest : public ::testing::Test
{
protected:
    FunctionExecutionSchedulerTest() { qor::common::logging::Logger::setDefaultThreshold(qor::common::logging::LogLevel::Trace); }
    ~FunctionExecutionSchedulerTest() override
    {
        qor::common::logging::Logger::resetThresholds();
        qor::common::system::Clock::setTickCounterOffset(0);
    }

    // The records of schedulers, as "<level> <scheduler>: <text>".
    Strings lines() const
    {
        const std::string prefix = "qor.nav.sdk.utils.FunctionExecutionScheduler.";
        Strings result;
        for (const LogRecord& r : m_Sink->records()) {
            if (r.loggerName.rfind(prefix, 0) == 0) {
                result.push_back(std::to_string(r.level) + " " + r.loggerName.substr(prefix.size()) + ": " + r.text);
            }
        }
        return result;
    }

    // Moves Clock::getTickCounter() as if `ms` had passed.
    void advanceTicks(std::uint32_t ms) { qor::common::system::Clock::setTickCounterOffset(m_TickOffset += ms); }

    RecordingLogSink::Installation m_Sink;
    std::uint32_t m_TickOffset = 0;
};

TEST_F(FunctionExecutionSchedulerTest, WorkerHandsOutIdsAndRecordsAndDecidesItsNextAction)
{
    unsigned int timeout = 0;
    FunctionExecution execution;
    Worker none("None", nullptr, 0, 0), worker("Actions", std::make_shared<BalancedStrategy>(), 0, 0);
    EXPECT_EQ(1u, none.scheduleExecutionImmediately(nullptr).getValue());
    EXPECT_EQ(Worker::WaitForSignal, none.getNextAction(timeout, execution));
    EXPECT_EQ(Worker::WaitForSignal, worker.getNextAction(timeout, execution));
    EXPECT_EQ(1u, worker.scheduleExecutionLater(nullptr, Duration(100000), Duration(7)).getValue());
    EXPECT_EQ(Worker::WaitWithTimeout, worker.getNextAction(timeout, execution));
    EXPECT_TRUE(timeout > 90000u && timeout <= 100000u) << timeout;
    // Periods keep their low 32 bits; a negative delay is due at once.
    EXPECT_EQ(2u, worker.scheduleExecutionImmediately(nullptr, Duration(4294967296L + 5)).getValue());
    EXPECT_EQ(3u, worker.scheduleExecutionLater(nullptr, Duration(-5), Duration(-1)).getValue());
    EXPECT_EQ(4u, worker.scheduleExecutionImmediately(nullptr, Duration(4294967296L)).getValue());
    for (const auto& pick : {std::make_pair(3ul, 4294967295u), {2ul, 5u}, {4ul, 0u}}) {
        ASSERT_EQ(Worker::Execute, worker.getNextAction(timeout, execution));
        EXPECT_EQ(pick, std::make_pair(execution.id.getValue(), execution.period));
    }
    EXPECT_EQ(Worker::WaitWithTimeout, worker.getNextAction(timeout, execution));
    worker.shutdown();
    EXPECT_EQ(Worker::Stop, worker.getNextAction(timeout, execution));
    Worker broken("Broken", std::make_shared<FailingStrategy>(), 0, 0);
    EXPECT_THROW(broken.scheduleExecutionImmediately(nullptr), std::runtime_error);
    EXPECT_EQ(2u, broken.scheduleExecutionLater(nullptr, Duration(0)).getValue()); // unlocked, id consumed
    EXPECT_EQ(Worker::WaitForSignal, broken.getNextAction(timeout, execution));
    EXPECT_EQ(Worker::WaitForSignal, broken.getNextAction(timeout, execution));
    EXPECT_EQ((Strings{"5 Broken: Unexpected exception while handling getNextAction: strategy broken\n",
                       "5 Broken: Unexpected exception while handling getNextAction.\n"}),
              lines());
}

TEST_F(FunctionExecutionSchedulerTest, PeriodicRecordIsQueuedAgainWithPeriodMinusRunTimeAndSlowRunsAreLogged)
{
    auto strategy = std::make_shared<BalancedStrategy>();
    Worker worker("Periodic", strategy, 0, 0);
    // Runs a record on this thread for exactly `runMs` on the tick counter
    // (again while the counter moves by itself); returns the tick after it.
    auto runFor = [&](FunctionExecution execution, std::uint32_t runMs) {
        execution.function = std::make_shared<CountingFunction>([&] { advanceTicks(runMs); });
        for (std::uint32_t start = 0;; m_Sink->clear()) {
            while (!strategy->empty()) {
                strategy->getNextTimedFunctionExecution();
            }
            start = qor::common::system::Clock::getTickCounter();
            worker.executeFunction(execution);
            if (qor::common::system::Clock::getTickCounter() - start == runMs) {
                return start + runMs;
            }
        }
    };
    const std::uint32_t cases[][3] = {{50, 30, 20}, {50, 70, 0}, {1u << 31, 0, 0}, {1u << 31, 1, (1u << 31) - 1}};
    // The delays without any log record enabled, the records afterwards.
    qor::common::logging::Logger::setDefaultThreshold(qor::common::logging::LogLevel::Warning);
    for (const auto& c : cases) { // period, run time, delay of the next run
        const std::uint32_t due = runFor({FunctionExecutionId(42), nullptr, c[0]}, c[1]) + c[2];
        EXPECT_TRUE(strategy->hasPendingTimedFunctionExecution(due) && !strategy->hasPendingTimedFunctionExecution(due - 1))
            << c[0] << " " << c[1];
        const FunctionExecution again = strategy->getNextTimedFunctionExecution();
        EXPECT_EQ(std::make_pair(42ul, c[0]), std::make_pair(again.id.getValue(), again.period));
    }
    qor::common::logging::Logger::setDefaultThreshold(qor::common::logging::LogLevel::Trace);
    m_Sink->clear();
    runFor({}, 99);
    EXPECT_TRUE(strategy->empty()); // period 0: once
    const Strings fast = {"1 Periodic: execute functionExecution " + kName + " started\n",
                          "1 Periodic: execute functionExecution " + kName + " finished\n"};
    EXPECT_EQ(fast, lines());
    m_Sink->clear();
    runFor({}, 100);
    EXPECT_EQ((Strings{fast[0], fast[1], "3 Periodic: FunctionExecution " + kName + " tooks 100\n"}), lines());
}

TEST_F(FunctionExecutionSchedulerTest, RemovalNeverWaitsButShutdownWaitsForTheRunningFunctionExceptOnItsOwnThread)
{
    Scheduler self("Self", 0, 0), target("Target", 0, 0);
    auto inner = std::make_shared<CountingFunction>();
    auto stopper = std::make_shared<CountingFunction>([&] { self.shutdown(); });
    self.scheduleExecutionImmediately(std::make_shared<CountingFunction>([&] {
        self.asyncRemoveFunctionExecution(self.scheduleExecutionLater(inner, Duration(100000)));
        advanceTicks(200000); // the removed record would run before the stopper
        self.scheduleExecutionImmediately(inner);
        self.scheduleExecutionLater(stopper, Duration(0));
    }));
    self.start();
    ASSERT_TRUE(stopper->waitForRuns(1));
    EXPECT_EQ(1, inner->runs.load());
    EXPECT_EQ(5u, self.scheduleExecutionImmediately(inner).getValue()); // a fresh id, nothing queued
    EXPECT_EQ(1, inner.use_count());
    self.shutdown(); // again: harmless

    // Removal never waits for the running function; shutdown() does.
    Latch entered(1), release(1), stopping(1);
    const FunctionExecutionId id = target.scheduleExecutionImmediately(
        std::make_shared<CountingFunction>([&] { entered.countDown(), release.waitFor(); }));
    target.scheduleExecutionLater(inner, Duration(60000));
    target.start();
    ASSERT_TRUE(entered.waitFor());
    target.asyncRemoveFunctionExecution(id);
    long owners = 0;
    std::thread other([&] { stopping.countDown(), target.shutdown(), owners = inner.use_count(); });
    ASSERT_TRUE(stopping.waitFor());
    release.countDown();
    other.join();
    EXPECT_EQ(1, owners); // shutdown() has dropped the queued one when it returns
}

TEST_F(FunctionExecutionSchedulerTest, WatchdogNamedAfterTheSchedulerReportsASilentRunOnce)
{
    auto isReport = [](const LogRecord& r) {
        return r.loggerName == "qor.common.watchdog.WatchDog" && r.text.rfind("WatchDog DogWatchdog not refreshed for ", 0) == 0;
    };
    Scheduler scheduler("Dog", 20, 0);
    auto silent = std::make_shared<CountingFunction>([&] { m_Sink->waitFor(isReport); });
    scheduler.scheduleExecutionImmediately(silent);
    scheduler.start();
    ASSERT_TRUE(silent->waitForRuns(1));
    scheduler.shutdown();
    EXPECT_EQ(1u, m_Sink->count(isReport));
}

// Work queued before start() runs once in the worker's order between its
// "started." and "stopped." records; a null function runs as a nameless one,
// and a throwing function is logged and not queued again, even if periodic.
TEST_F(FunctionExecutionSchedulerTest, QueuedWorkRunsOnceAndThrowingWorkIsLoggedAndDropped)
{
    Scheduler scheduler("Life", 0, 0);
    auto once = std::make_shared<CountingFunction>();
    auto boom = std::make_shared<CountingFunction>([] { throw std::runtime_error("boom"); });
    auto odd = std::make_shared<CountingFunction>([] { throw 42; });
    scheduler.scheduleExecutionImmediately(once);
    scheduler.scheduleExecutionImmediately(nullptr);
    (void)scheduler.scheduleExecutionImmediately(boom, Duration(1));
    (void)scheduler.scheduleExecutionLater(odd, Duration(0), Duration(1));
    scheduler.start();
    EXPECT_THROW(scheduler.start(), qor::common::errors::IllegalStateException);
    ASSERT_TRUE(once->waitForRuns(1) && waitUntil([&] { return boom->started + odd->started == 2; }));
    auto last = std::make_shared<CountingFunction>(); // queued behind any periodic record run again
    scheduler.scheduleExecutionLater(last, Duration(2));
    ASSERT_TRUE(last->waitForRuns(1));
    scheduler.shutdown();
    EXPECT_EQ(std::make_pair(1, 1), std::make_pair(boom->started.load(), odd->started.load()));
    EXPECT_TRUE(once.use_count() == 1 && boom.use_count() == 1 && odd.use_count() == 1);
    const std::string run = "1 Life: execute functionExecution " + kName, error = "5 Life: Unexpected exception while handling functionExecution";
    EXPECT_EQ((Strings{"3 Life: started.\n", run + " started\n", error + ".\n", run + " started\n", run + " finished\n",
                       "1 Life: execute functionExecution  started\n", "1 Life: execute functionExecution  finished\n",
                       run + " started\n", error + ": boom\n", run + " started\n", run + " finished\n",
                       "3 Life: stopped.\n"}),
              lines());
}

} // namespace
