// The worker thread behind a FunctionExecutionScheduler.
//
//   FunctionExecutionSchedulerImpl worker("Route", std::make_shared<BalancedStrategy>(), 5000, 1000);
//   worker.scheduleExecutionLater(function, Duration(200), Duration(1000));
//   worker.start();        // Thread::start(): the loop begins
//   ...
//   worker.shutdown();     // also done by the destructor
//
// The worker is itself the thread (it derives from Thread and overrides run()).
// Client threads hand it work; each request becomes a FunctionExecution with a
// fresh id, stored in the Strategy. The loop sleeps on a condition variable
// until the strategy has something due, takes it out, runs it without the
// lock, logs its start, end and (from 100 ms up) its duration, and queues
// periodic records again with the period minus the run time as delay. A
// WatchDog named "<name>Watchdog" supervises each run and is paused while the
// worker waits.
//
// Logger: "qor.nav.sdk.utils.FunctionExecutionScheduler.<name>". Level 1: the
// start and end of every run; level 3: started/stopped and slow runs; level 5:
// exceptions caught on the worker thread.
//
// Ownership: the worker owns the strategy it was given (shared with whoever
// else holds it) and shares each queued Function with its caller.
//
// Threads: every operation may be called from any thread, including from a
// Function running on this worker; the destructor must not run concurrently
// with other calls. getNextAction(), executeFunction() and run() belong to the
// worker thread and are public only so they can be exercised directly.
#ifndef QOR_NAV_SDK_UTILS_SYNCHRONIZATION_FUNCTIONEXECUTIONSCHEDULERIMPL_H
#define QOR_NAV_SDK_UTILS_SYNCHRONIZATION_FUNCTIONEXECUTIONSCHEDULERIMPL_H

#include "qor/common/logging/Logger.h"
#include "qor/common/system/CondVar.h"
#include "qor/common/system/Mutex.h"
#include "qor/common/system/Thread.h"
#include "qor/common/watchdog/WatchDog.h"
#include "qor/nav/sdk/utils/synchronization/Function.h"
#include "qor/nav/sdk/utils/synchronization/FunctionExecution.h"
#include "qor/nav/sdk/utils/synchronization/Strategy.h"

#include <cstdint>
#include <memory>
#include <string>

namespace qor::nav::sdk::utils::synchronization {

class FunctionExecutionSchedulerImpl : public qor::common::system::Thread
{
public:
    // What the loop does next (results of getNextAction()).
    enum Action : unsigned int
    {
        Stop = 0,            // stop was requested: leave the loop
        Execute = 1,         // a record is due and has been taken out
        WaitWithTimeout = 2, // nothing due yet: wait at most the returned time
        WaitForSignal = 3    // nothing to do (or the strategy failed): wait for a signal
    };

    // Sets up the worker named `name`, taking over `strategy` (which may be
    // null: ids are then handed out and nothing runs). `watchdogArg1` and
    // `watchdogArg2` go unchanged, in order, to the WatchDog. The thread is not
    // started; work scheduled before Thread::start() waits.
    FunctionExecutionSchedulerImpl(const std::string& name, std::shared_ptr<Strategy> strategy,
                                   unsigned int watchdogArg1, unsigned int watchdogArg2);

    // Calls shutdown() (the process ends if that throws), then destroys the members.
    ~FunctionExecutionSchedulerImpl() override;

    FunctionExecutionSchedulerImpl(const FunctionExecutionSchedulerImpl&) = delete;
    FunctionExecutionSchedulerImpl& operator=(const FunctionExecutionSchedulerImpl&) = delete;

    // Requests the stop, releases the strategy (dropping every queued record,
    // on this thread, with the mutex held), wakes the worker and waits until
    // the loop has ended. A running function finishes first and is not queued
    // again. Safe to call twice, before start(), and from a Function on this
    // worker (it then returns without waiting for the loop).
    void shutdown();

    // Reports progress to the watchdog; takes no lock. A long-running Function
    // calls it to show that it is alive.
    void refreshWatchdog();

    // The four schedule operations take the next id (a 32-bit counter starting
    // at 1 that wraps unguarded), queue a record and wake the worker. A period
    // keeps only the low 32 bits of its count (4294967296 becomes 0: run once).
    // A null function is queued like any other and logs an empty name. After
    // shutdown() they still return fresh ids but queue nothing. Exceptions of
    // the strategy reach the caller; the id is consumed all the same.

    // Runs `function` once, as soon as possible.
    FunctionExecutionId scheduleExecutionImmediately(Function::shared_ptr function);
    // Runs `function` as soon as possible and then every `period` ms (0: once).
    [[nodiscard]] FunctionExecutionId scheduleExecutionImmediately(Function::shared_ptr function,
                                                                   const Duration& period);
    // Runs `function` once, `delay` ms from now.
    FunctionExecutionId scheduleExecutionLater(Function::shared_ptr function, const Duration& delay);
    // Runs `function` `delay` ms from now and then every `period` ms (0: once).
    [[nodiscard]] FunctionExecutionId scheduleExecutionLater(Function::shared_ptr function, const Duration& delay,
                                                             const Duration& period);

    // Drops the queued record `id`, if the strategy still holds it. Does not
    // wait for a running function: a periodic record that is running at the
    // time is queued again afterwards and keeps running.
    void asyncRemoveFunctionExecution(const FunctionExecutionId& id);

    // Queues `execution` again, unchanged, after `delay` ms (dropped after
    // shutdown()), and wakes the worker in either case.
    void rescheduleFunctionExecution(const FunctionExecution& execution, const Duration& delay);

    // Decides the loop's next step; the caller holds the worker's mutex.
    // Returns an Action; on WaitWithTimeout `timeout` is the time to wait, on
    // Execute `execution` is the record taken out of the strategy. Failures of
    // the strategy are logged and give WaitForSignal; nothing escapes (an
    // exception from Strategy::empty() ends the process).
    unsigned int getNextAction(unsigned int& timeout, FunctionExecution& execution) noexcept;

    // Runs one record on the calling thread without the lock: logs, runs,
    // measures, logs the duration from 100 ms up and queues a periodic record
    // again with delay = period - run time (0 when overrun). Exceptions of the
    // function are logged at level 5 and end the handling of the record; a
    // periodic record is then not queued again.
    void executeFunction(FunctionExecution execution);

    // The loop of the worker thread, started by Thread::start().
    void run() override;

private:
    // The four schedule operations: takes the next id and, while a strategy
    // exists, queues {id, function, period}, timed when `delay` is not null.
    FunctionExecutionId enqueue(Function::shared_ptr&& function, std::uint32_t period, const Duration* delay);

    qor::common::logging::Logger m_logger;
    bool m_stopRequested;
    qor::common::system::Mutex m_mutex;
    std::uint64_t m_currentFunctionExecutionId;
    qor::common::system::CondVar m_condVar;
    qor::common::watchdog::WatchDog m_watchdog;
    std::uint32_t m_nextFunctionExecutionId;
    std::shared_ptr<Strategy> m_strategy;
};

} // namespace qor::nav::sdk::utils::synchronization

#endif
