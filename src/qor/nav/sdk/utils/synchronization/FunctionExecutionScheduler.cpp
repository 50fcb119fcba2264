#include "qor/nav/sdk/utils/synchronization/FunctionExecutionScheduler.h"

#include "qor/nav/sdk/utils/synchronization/BalancedStrategy.h"
#include "qor/nav/sdk/utils/synchronization/FunctionExecutionSchedulerImpl.h"

#include <cassert>
#include <utility>

namespace qor::nav::sdk::utils::synchronization {

FunctionExecutionScheduler::FunctionExecutionScheduler(const std::string& name, std::shared_ptr<Strategy> strategy,
                                                       unsigned int watchdogArg1, unsigned int watchdogArg2)
    : m_pImpl(new FunctionExecutionSchedulerImpl(name, std::move(strategy), watchdogArg1, watchdogArg2))
{
}

FunctionExecutionScheduler::FunctionExecutionScheduler(const std::string& name, unsigned int watchdogArg1,
                                                       unsigned int watchdogArg2)
    : FunctionExecutionScheduler(name, std::make_shared<BalancedStrategy>(), watchdogArg1, watchdogArg2)
{
}

FunctionExecutionScheduler::~FunctionExecutionScheduler()
{
    // Clears the pointer, then deletes the worker, which shuts down and joins
    // its thread while this object is still intact.
    m_pImpl.reset();
}

void FunctionExecutionScheduler::start()
{
    assert(nullptr != m_pImpl);
    m_pImpl->start();
}

void FunctionExecutionScheduler::shutdown()
{
    // Deliberately unchecked, unlike the other operations.
    if (m_pImpl)
    {
        m_pImpl->shutdown();
    }
}

void FunctionExecutionScheduler::refreshWatchdog()
{
    assert(nullptr != m_pImpl);
    m_pImpl->refreshWatchdog();
}

FunctionExecutionScheduler::FunctionExecutionId
FunctionExecutionScheduler::scheduleExecutionImmediately(Function::shared_ptr function)
{
    assert(nullptr != m_pImpl);
    return m_pImpl->scheduleExecutionImmediately(std::move(function));
}

FunctionExecutionScheduler::FunctionExecutionId
FunctionExecutionScheduler::scheduleExecutionImmediately(Function::shared_ptr function, const Duration& period)
{
    assert(nullptr != m_pImpl);
    return m_pImpl->scheduleExecutionImmediately(std::move(function), period);
}

FunctionExecutionScheduler::FunctionExecutionId
FunctionExecutionScheduler::scheduleExecutionLater(Function::shared_ptr function, const Duration& delay)
{
    assert(nullptr != m_pImpl);
    return m_pImpl->scheduleExecutionLater(std::move(function), delay);
}

FunctionExecutionScheduler::FunctionExecutionId
FunctionExecutionScheduler::scheduleExecutionLater(Function::shared_ptr function, const Duration& delay,
                                                   const Duration& period)
{
    assert(nullptr != m_pImpl);
    return m_pImpl->scheduleExecutionLater(std::move(function), delay, period);
}

void FunctionExecutionScheduler::asyncRemoveFunctionExecution(const FunctionExecutionId& id)
{
    assert(nullptr != m_pImpl);
    m_pImpl->asyncRemoveFunctionExecution(id);
}

} // namespace qor::nav::sdk::utils::synchronization
