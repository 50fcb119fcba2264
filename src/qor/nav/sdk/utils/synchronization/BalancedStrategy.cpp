#include "qor/nav/sdk/utils/synchronization/BalancedStrategy.h"

#include "qor/common/errors/IllegalStateException.h"
#include "qor/common/system/Clock.h"
#include "qor/common/types/Boolean.h"

#include <cstdint>

namespace qor {
namespace nav {
namespace sdk {
namespace utils {
namespace synchronization {

using qor::common::errors::IllegalStateException;
using qor::common::system::Clock;
using qor::common::types::Boolean;

namespace {

// Tick `a` is not earlier than tick `b` when their 32-bit difference is below
// 2^31; this keeps the order right across the counter's wrap.
bool notEarlier(std::uint32_t a, std::uint32_t b)
{
    return static_cast<std::uint32_t>(a - b) < 0x80000000u;
}

} // namespace

BalancedStrategy::BalancedStrategy() : m_UntimedFunctionExecutions(), m_TimedFunctionExecutions(), m_PreferUntimed(false)
{
}

// The members go in reverse order: the timed queue first, then the untimed one.
BalancedStrategy::~BalancedStrategy() = default;

bool BalancedStrategy::empty() const
{
    return m_UntimedFunctionExecutions.empty() && m_TimedFunctionExecutions.empty();
}

void BalancedStrategy::addFunctionExecution(const FunctionExecution& functionExecution)
{
    m_UntimedFunctionExecutions.push_back(FunctionExecutionHolder{functionExecution, 0u});
}

void BalancedStrategy::addFunctionExecution(const FunctionExecution& functionExecution, const Duration& delay)
{
    const std::uint32_t now = Clock::getTickCounter();
    // Only the low 32 bits of the delay count: small negative delays land in
    // the past (due at once), delays of 2^31 ms or more wrap.
    const std::uint32_t dueTime = now + static_cast<std::uint32_t>(delay.getValue());

    // In front of the first record that is not earlier: among equal due ticks
    // the newest record comes first.
    auto position = m_TimedFunctionExecutions.begin();
    while (position != m_TimedFunctionExecutions.end() && !notEarlier(position->dueTime, dueTime))
    {
        ++position;
    }
    m_TimedFunctionExecutions.insert(position, FunctionExecutionHolder{functionExecution, dueTime});
}

void BalancedStrategy::removeFunctionExecution(const FunctionExecutionId& id)
{
    // A copy: `id` may refer into a record that is about to be destroyed.
    const FunctionExecutionId wanted = id;
    const auto matches = [&wanted](const FunctionExecutionHolder& holder) {
        return holder.functionExecution.id == wanted;
    };
    m_UntimedFunctionExecutions.remove_if(matches);
    m_TimedFunctionExecutions.remove_if(matches);
}

bool BalancedStrategy::hasPendingFunctionExecutions() const
{
    const unsigned int now = Clock::getTickCounter();
    return hasPendingTimedFunctionExecution(now) || hasPendingUntimedFunctionExecution(now);
}

FunctionExecution BalancedStrategy::getNextFunctionExecution()
{
    FunctionExecution result;
    const unsigned int now = Clock::getTickCounter();
    if (!m_PreferUntimed)
    {
        if (hasPendingTimedFunctionExecution(now))
        {
            result = getNextTimedFunctionExecution();
        }
        else if (hasPendingUntimedFunctionExecution(now))
        {
            result = getNextUntimedFunctionExecution();
        }
        else
        {
            throw IllegalStateException("No pending functionExecutions", nullptr, Boolean(false));
        }
    }
    else
    {
        if (hasPendingUntimedFunctionExecution(now))
        {
            result = getNextUntimedFunctionExecution();
        }
        else if (hasPendingTimedFunctionExecution(now))
        {
            result = getNextTimedFunctionExecution();
        }
        else
        {
            throw IllegalStateException("No pending functionExecutions", nullptr, Boolean(false));
        }
    }
    // The order in which the queues are asked alternates, whichever queue
    // supplied this record.
    m_PreferUntimed = !m_PreferUntimed;
    return result;
}

unsigned int BalancedStrategy::getTimeToNextFunctionExecution() const
{
    const std::uint32_t now = Clock::getTickCounter();
    if (!m_UntimedFunctionExecutions.empty())
    {
        return 0;
    }
    if (m_TimedFunctionExecutions.empty())
    {
        return 0;
    }
    const std::uint32_t dueTime = m_TimedFunctionExecutions.front().dueTime;
    if (static_cast<std::int32_t>(now - dueTime) < 0)
    {
        return dueTime - now;
    }
    return 0;
}

bool BalancedStrategy::hasPendingTimedFunctionExecution(unsigned int now) const
{
    return !m_TimedFunctionExecutions.empty() && notEarlier(now, m_TimedFunctionExecutions.front().dueTime);
}

bool BalancedStrategy::hasPendingUntimedFunctionExecution(unsigned int /*now*/) const
{
    return !m_UntimedFunctionExecutions.empty();
}

FunctionExecution BalancedStrategy::getNextTimedFunctionExecution()
{
    if (m_TimedFunctionExecutions.empty())
    {
        throw IllegalStateException("Queue is empty", nullptr, Boolean(false));
    }
    FunctionExecution result = std::move(m_TimedFunctionExecutions.front().functionExecution);
    m_TimedFunctionExecutions.pop_front();
    return result;
}

FunctionExecution BalancedStrategy::getNextUntimedFunctionExecution()
{
    if (m_UntimedFunctionExecutions.empty())
    {
        throw IllegalStateException("Queue is empty", nullptr, Boolean(false));
    }
    FunctionExecution result = std::move(m_UntimedFunctionExecutions.front().functionExecution);
    m_UntimedFunctionExecutions.pop_front();
    return result;
}

} // namespace synchronization
} // namespace utils
} // namespace sdk
} // namespace nav
} // namespace qor
