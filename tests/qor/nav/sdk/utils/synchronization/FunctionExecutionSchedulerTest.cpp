#include "qor/nav/sdk/utils/synchronization/FunctionExecutionScheduler.h"

#include "qor/common/errors/IllegalStateException.h"
#include "support/RecordingLogSink.h"
#include "support/TestFunctions.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

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

TEST(FunctionExecutionSchedulerTest, FunctionMayShutDownAnotherSchedulerAfterItsRunningWork)
{
    FunctionExecutionScheduler target("Target", 0, 0);
    FunctionExecutionScheduler caller("Caller", 0, 0);
    auto running = std::make_shared<qor::test::BlockingFunction>();
    auto queued = std::make_shared<CountingFunction>();
    target.scheduleExecutionImmediately(running);
    target.scheduleExecutionLater(queued, Duration(60000));
    target.start();
    ASSERT_TRUE(running->entered.waitFor());

    qor::test::Latch stopping(1);
    std::atomic<int> runsSeenAfterStop{-1};
    std::atomic<long> queuedOwnersAfterStop{-1};
    auto stopper = std::make_shared<CountingFunction>([&] {
        stopping.countDown();
        target.shutdown(); // joins the target's thread from the caller's
        runsSeenAfterStop = running->runs();
        queuedOwnersAfterStop = queued.use_count();
    });
    caller.start();
    caller.scheduleExecutionImmediately(stopper);
    ASSERT_TRUE(stopping.waitFor());
    EXPECT_EQ(0, stopper->runs()); // cannot finish while the target's function blocks
    running->release();
    ASSERT_TRUE(stopper->waitForRuns(1));

    EXPECT_EQ(1, runsSeenAfterStop.load());     // shutdown() waited for the running function
    EXPECT_EQ(1, queuedOwnersAfterStop.load()); // and dropped the queue before it returned
    EXPECT_EQ(0, queued->started());
    auto after = std::make_shared<CountingFunction>();
    caller.scheduleExecutionImmediately(after);
    EXPECT_TRUE(after->waitForRuns(1)); // the caller goes on working
    target.shutdown();
}

// Clients schedule and remove work at random while the worker runs; some
// functions remove their own id while running (a deadlock if removal waited).
TEST(FunctionExecutionSchedulerStressTest, ConcurrentClientsNeitherLoseNorRepeatOneShotWork)
{
    constexpr int kClients = 4;
    constexpr int kOperationsPerClient = 1000;
    enum Kind { Immediate, Delayed, Periodic };
    struct Job
    {
        FunctionExecutionId id;
        std::shared_ptr<CountingFunction> function;
        Kind kind;
        bool removed;
    };

    FunctionExecutionScheduler scheduler("Stress", 0, 0);
    std::atomic<bool> shutdownReturned{false};
    std::atomic<int> lateRuns{0};
    scheduler.start();

    std::vector<std::vector<Job>> jobs(kClients);
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; ++c)
    {
        clients.emplace_back([&, c] {
            std::mt19937 random(1234u + static_cast<unsigned>(c));
            std::vector<Job>& mine = jobs[c];
            for (int op = 0; op < kOperationsPerClient; ++op)
            {
                const unsigned dice = random() % 10;
                if (dice >= 8 && !mine.empty())
                {
                    Job& victim = mine[random() % mine.size()];
                    scheduler.asyncRemoveFunctionExecution(victim.id);
                    victim.removed = true;
                    continue;
                }
                const Kind kind = dice < 3 ? Immediate : dice < 6 ? Delayed : Periodic;
                auto ownId = std::make_shared<std::atomic<std::uint64_t>>(0);
                const bool selfRemoving = random() % 4 == 0;
                auto function = std::make_shared<CountingFunction>([&, ownId, selfRemoving] {
                    if (shutdownReturned.load())
                    {
                        ++lateRuns;
                    }
                    if (selfRemoving)
                    {
                        scheduler.asyncRemoveFunctionExecution(FunctionExecutionId(ownId->load()));
                    }
                });
                FunctionExecutionId id;
                switch (kind)
                {
                case Immediate:
                    id = scheduler.scheduleExecutionImmediately(function);
                    break;
                case Delayed:
                    id = scheduler.scheduleExecutionLater(function, Duration(random() % 20));
                    break;
                case Periodic:
                    id = random() % 2 == 0
                             ? scheduler.scheduleExecutionImmediately(function, Duration(1 + random() % 5))
                             : scheduler.scheduleExecutionLater(function, Duration(random() % 10),
                                                                Duration(1 + random() % 5));
                    break;
                }
                ownId->store(id.getValue());
                mine.push_back(Job{id, function, kind, false});
            }
        });
    }
    for (std::thread& client : clients)
    {
        client.join();
    }

    std::set<std::uint64_t> ids;
    std::vector<const Job*> once; // one-shot work never removed
    for (const std::vector<Job>& mine : jobs)
    {
        for (const Job& job : mine)
        {
            ASSERT_TRUE(ids.insert(job.id.getValue()).second) << "id " << job.id.getValue() << " handed out twice";
            if (job.kind != Periodic && !job.removed)
            {
                once.push_back(&job);
            }
        }
    }
    ASSERT_TRUE(qor::test::waitUntil([&] {
        return std::all_of(once.begin(), once.end(), [](const Job* job) { return job->function->runs() > 0; });
    })) << "a queued one-shot function never ran";

    scheduler.shutdown();
    shutdownReturned.store(true);
    EXPECT_EQ(0, lateRuns.load()) << "a function ran after shutdown() returned";
    for (const std::vector<Job>& mine : jobs)
    {
        for (const Job& job : mine)
        {
            if (job.kind != Periodic)
            {
                EXPECT_EQ(job.removed ? job.function->started() : 1, job.function->runs()) << "id " << job.id.getValue();
                EXPECT_LE(job.function->started(), 1) << "id " << job.id.getValue();
            }
            EXPECT_EQ(1, job.function.use_count()) << "the scheduler still holds id " << job.id.getValue();
        }
    }
}

} // namespace
