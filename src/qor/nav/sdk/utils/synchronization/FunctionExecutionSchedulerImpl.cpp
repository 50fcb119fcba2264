#include "qor/nav/sdk/utils/synchronization/FunctionExecutionSchedulerImpl.h"

#include "qor/common/errors/IllegalStateException.h"
#include "qor/common/logging/LogLevel.h"
#include "qor/common/system/Clock.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace qor::nav::sdk::utils::synchronization {

using qor::common::errors::IllegalStateException;
using qor::common::logging::LogLevel;
using qor::common::system::Clock;
using qor::common::system::MutexGuard;

namespace {

// The name every non-null function is logged under: the type name of
// Function*, the same for all functions. Existing log filters match on it.
const char* const kFunctionLogName = "PN3qor3nav3sdk5utils15synchronization8FunctionE";

// Run times from this many milliseconds up get a duration line.
const std::uint32_t kSlowExecutionMs = 100;

} // namespace

FunctionExecutionSchedulerImpl::FunctionExecutionSchedulerImpl(const std::string& name,
                                                               std::shared_ptr<Strategy> strategy,
                                                               unsigned int watchdogArg1, unsigned int watchdogArg2)
    : Thread(name, nullptr), m_logger("qor.nav.sdk.utils.FunctionExecutionScheduler." + name),
      m_stopRequested(false), m_mutex(), m_currentFunctionExecutionId(0), m_condVar(),
      m_watchdog(name + "Watchdog", watchdogArg1, watchdogArg2), m_nextFunctionExecutionId(1),
      m_strategy(std::move(strategy))
{
    m_watchdog.pause();
}

FunctionExecutionSchedulerImpl::~FunctionExecutionSchedulerImpl()
{
    // The destructor is noexcept: an exception from shutdown() ends the process.
    shutdown();
}

void FunctionExecutionSchedulerImpl::shutdown()
{
    {
        MutexGuard guard(m_mutex);
        m_stopRequested = true;
        // Queued records and their functions go here, with the mutex held.
        m_strategy.reset();
    }
    m_condVar.signal();
    // Returns at once when called on the worker thread itself, or when the
    // thread was never started or has been joined already.
    join();
}

void FunctionExecutionSchedulerImpl::refreshWatchdog()
{
    m_watchdog.RefreshWatchDog();
}

FunctionExecutionId FunctionExecutionSchedulerImpl::scheduleExecutionImmediately(Function::shared_ptr function)
{
    return enqueue(std::move(function), 0u, nullptr);
}

FunctionExecutionId FunctionExecutionSchedulerImpl::scheduleExecutionImmediately(Function::shared_ptr function,
                                                                                const Duration& period)
{
    // Only the low 32 bits of the period are kept.
    return enqueue(std::move(function), static_cast<std::uint32_t>(period.getValue()), nullptr);
}

FunctionExecutionId FunctionExecutionSchedulerImpl::scheduleExecutionLater(Function::shared_ptr function,
                                                                          const Duration& delay)
{
    return enqueue(std::move(function), 0u, &delay);
}

FunctionExecutionId FunctionExecutionSchedulerImpl::scheduleExecutionLater(Function::shared_ptr function,
                                                                          const Duration& delay,
                                                                          const Duration& period)
{
    // Only the low 32 bits of the period are kept.
    return enqueue(std::move(function), static_cast<std::uint32_t>(period.getValue()), &delay);
}

FunctionExecutionId FunctionExecutionSchedulerImpl::enqueue(Function::shared_ptr&& function, std::uint32_t period,
                                                           const Duration* delay)
{
    // Built before locking and released after unlocking, so that the mutex
    // is held only for the id and the strategy call.
    FunctionExecution record{FunctionExecutionId(0), std::move(function), period};
    {
        MutexGuard guard(m_mutex);
        record.id = FunctionExecutionId(m_nextFunctionExecutionId++);
        if (!m_strategy)
        {
            // Stopped: the id is consumed, the function dropped.
            return record.id;
        }
        if (delay != nullptr)
        {
            m_strategy->addFunctionExecution(record, *delay);
        }
        else
        {
            m_strategy->addFunctionExecution(record);
        }
    }
    // Signalled after unlocking, so that the woken worker does not at once
    // block on the mutex this thread still holds. The worker checks its
    // strategy under the mutex, so no record can be missed.
    m_condVar.signal();
    return record.id;
}

void FunctionExecutionSchedulerImpl::asyncRemoveFunctionExecution(const FunctionExecutionId& id)
{
    MutexGuard guard(m_mutex);
    if (m_strategy)
    {
        m_strategy->removeFunctionExecution(id);
    }
}

void FunctionExecutionSchedulerImpl::rescheduleFunctionExecution(const FunctionExecution& execution,
                                                                 const Duration& delay)
{
    MutexGuard guard(m_mutex);
    if (m_strategy)
    {
        m_strategy->addFunctionExecution(execution, delay);
    }
    // Also without a strategy: the loop then finds the stop request at once.
    m_condVar.signal();
}

unsigned int FunctionExecutionSchedulerImpl::getNextAction(unsigned int& timeout, FunctionExecution& execution) noexcept
{
    if (m_stopRequested)
    {
        return Stop;
    }
    // Not guarded: a failing empty() ends the process.
    if (!m_strategy || m_strategy->empty())
    {
        return WaitForSignal;
    }
    try
    {
        timeout = m_strategy->getTimeToNextFunctionExecution();
        if (timeout != 0)
        {
            return WaitWithTimeout;
        }
        execution = m_strategy->getNextFunctionExecution();
        return Execute;
    }
    catch (const IllegalStateException& e)
    {
        m_logger << LogLevel::Error << "Unexpected exception while handling getNextAction: " << e.what()
                 << std::endl;
    }
    catch (...)
    {
        m_logger << LogLevel::Error << "Unexpected exception while handling getNextAction." << std::endl;
    }
    // Sleep until the next schedule, reschedule or shutdown rather than spin.
    return WaitForSignal;
}

void FunctionExecutionSchedulerImpl::executeFunction(FunctionExecution execution)
{
    const char* const name = execution.function ? kFunctionLogName : "";
    try
    {
        m_logger << LogLevel::Trace << "execute functionExecution " << name << " started" << std::endl;
        const std::uint32_t start = Clock::getTickCounter();
        if (execution.function)
        {
            execution.function->execute();
        }
        // The run time matters only to a periodic record and to the duration
        // line: the second reading of the clock is saved when neither needs it.
        const bool measured = execution.period != 0 || m_logger.isEnabled(LogLevel::Info);
        const std::uint32_t end = measured ? Clock::getTickCounter() : start;
        const std::uint32_t elapsed = end - start; // right across a wrap of the counter too
        m_logger << LogLevel::Trace << "execute functionExecution " << name << " finished" << std::endl;
        if (elapsed >= kSlowExecutionMs)
        {
            m_logger << LogLevel::Info << "FunctionExecution " << name << " tooks " << elapsed << std::endl;
        }
        if (execution.period != 0)
        {
            // Start to start: the run time counts against the period. Read as
            // signed, so an overrun (or a period of 2^31 ms or more that the run
            // time does not bring below 2^31) gives delay 0.
            const std::int32_t delay = std::max<std::int32_t>(0, static_cast<std::int32_t>(execution.period - elapsed));
            rescheduleFunctionExecution(execution, Duration(static_cast<long>(delay)));
        }
    }
    catch (const std::exception& e)
    {
        m_logger << LogLevel::Error << "Unexpected exception while handling functionExecution: " << e.what()
                 << std::endl;
    }
    catch (...)
    {
        m_logger << LogLevel::Error << "Unexpected exception while handling functionExecution." << std::endl;
    }
}

void FunctionExecutionSchedulerImpl::run()
{
    m_logger << LogLevel::Info << "started." << std::endl;
    for (;;)
    {
        // Not supervised while waiting or between runs.
        m_watchdog.pause();
        MutexGuard guard(m_mutex);
        m_currentFunctionExecutionId = 0;
        unsigned int timeout = 0;
        FunctionExecution execution;
        const unsigned int action = getNextAction(timeout, execution);
        if (action == Stop)
        {
            break;
        }
        switch (action)
        {
        case Execute:
            m_watchdog.RefreshWatchDog();
            m_watchdog.restart();
            m_currentFunctionExecutionId = execution.id.getValue();
            // The function runs without the lock, so it may use this scheduler.
            guard.unlock();
            executeFunction(std::move(execution));
            break;
        case WaitWithTimeout:
            m_condVar.wait(m_mutex, timeout);
            break;
        case WaitForSignal:
            m_condVar.wait(m_mutex);
            break;
        default:
            m_logger << LogLevel::Info << "Reached unreachable code" << std::endl;
            break;
        }
    }
    m_logger << LogLevel::Info << "stopped." << std::endl;
}

} // namespace qor::nav::sdk::utils::synchronization
