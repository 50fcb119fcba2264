// Runs units of work on a dedicated, named worker thread: once or
// periodically, now or after a delay, with removal by id and a watchdog over
// each run.
//
//   FunctionExecutionScheduler scheduler("Route", 5000, 1000);   // watchdog: 5 s limit, 1 s repeat
//   scheduler.start();
//   auto id = scheduler.scheduleExecutionLater(function, Duration(100), Duration(1000));
//   scheduler.asyncRemoveFunctionExecution(id);
//   scheduler.shutdown();                                          // or just destroy it
//
// The scheduler runs one function at a time on its thread, named after the
// scheduler. Without a strategy of its own it queues work in a
// BalancedStrategy, which alternates between immediate and delayed work. Work
// may be scheduled before start(); it runs once the thread starts.
//
// Ownership: the scheduler owns its worker; the strategy and the scheduled
// functions are shared with the caller and released when the work is done,
// removed, or the scheduler shuts down.
//
// Threads: every operation may be called from any thread, including from a
// Function running on this scheduler; the destructor must not run concurrently
// with other calls.
#ifndef QOR_NAV_SDK_UTILS_SYNCHRONIZATION_FUNCTIONEXECUTIONSCHEDULER_H
#define QOR_NAV_SDK_UTILS_SYNCHRONIZATION_FUNCTIONEXECUTIONSCHEDULER_H

#include "qor/nav/sdk/common/api/TypeSafeId.h"
#include "qor/nav/sdk/utils/synchronization/Function.h"
#include "qor/nav/sdk/utils/synchronization/FunctionExecution.h"
#include "qor/nav/sdk/utils/synchronization/Strategy.h"

#include <memory>
#include <string>

namespace qor::nav::sdk::utils::synchronization {

class FunctionExecutionSchedulerImpl;

class FunctionExecutionScheduler
{
public:
    using FunctionExecutionId =
        qor::nav::sdk::common::api::TypeSafeId<FunctionExecutionScheduler, unsigned long, 18446744073709551615UL>;
    using Duration = synchronization::Duration;

    // A scheduler named `name` that queues its work in `strategy` (not
    // checked: a null strategy hands out ids and never runs anything). The
    // worker's logger is "qor.nav.sdk.utils.FunctionExecutionScheduler.<name>",
    // its watchdog "<name>Watchdog" built with `watchdogArg1` and
    // `watchdogArg2` in this order. The thread is not started.
    FunctionExecutionScheduler(const std::string& name, std::shared_ptr<Strategy> strategy,
                               unsigned int watchdogArg1, unsigned int watchdogArg2);
    // As above with a new BalancedStrategy.
    FunctionExecutionScheduler(const std::string& name, unsigned int watchdogArg1, unsigned int watchdogArg2);

    // Shuts the worker down and joins its thread (see shutdown()).
    virtual ~FunctionExecutionScheduler();

    FunctionExecutionScheduler(const FunctionExecutionScheduler&) = delete;
    FunctionExecutionScheduler& operator=(const FunctionExecutionScheduler&) = delete;

    // Starts the worker thread. Call once; a second call throws
    // IllegalStateException.
    void start();

    // Stops the worker: queued work is dropped, a running function finishes
    // first, then the thread is joined (not when called from a function on
    // this scheduler: it then returns at once and the thread ends after the
    // function). Later schedule calls return ids and run nothing. Safe to call
    // more than once.
    void shutdown();

    // Reports progress to the watchdog; for long-running functions. Lock-free.
    void refreshWatchdog();

    // Each schedule operation returns the new execution's id, the handle for
    // asyncRemoveFunctionExecution(). Ids count up from 1 per scheduler. A
    // period of 0 means run once; periods keep only the low 32 bits of their
    // count. Delays and periods are milliseconds; a periodic function runs at
    // most once per period, start to start, and is never skipped when it
    // overruns.

    // Runs `function` once, as soon as possible.
    FunctionExecutionId scheduleExecutionImmediately(Function::shared_ptr function);
    // Runs `function` as soon as possible and then every `period` ms.
    [[nodiscard]] FunctionExecutionId scheduleExecutionImmediately(Function::shared_ptr function,
                                                                   const Duration& period);
    // Runs `function` once, `delay` ms from now.
    FunctionExecutionId scheduleExecutionLater(Function::shared_ptr function, const Duration& delay);
    // Runs `function` `delay` ms from now and then every `period` ms.
    [[nodiscard]] FunctionExecutionId scheduleExecutionLater(Function::shared_ptr function, const Duration& delay,
                                                             const Duration& period);

    // Drops the queued execution `id`. Never blocks on a running function;
    // a periodic execution that is running at the time keeps running.
    void asyncRemoveFunctionExecution(const FunctionExecutionId& id);

private:
    std::unique_ptr<FunctionExecutionSchedulerImpl> m_pImpl;
};

} // namespace qor::nav::sdk::utils::synchronization

#endif
