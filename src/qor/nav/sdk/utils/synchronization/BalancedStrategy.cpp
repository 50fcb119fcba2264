#include "qor/nav/sdk/utils/synchronization/BalancedStrategy.h"

#include "qor/common/errors/IllegalStateException.h"
#include "qor/common/system/Clock.h"
#include "qor/common/types/Boolean.h"

#include <cstddef>
#include <cstdint>
#include <iterator>

namespace qor::nav::sdk::utils::synchronization {

using qor::common::errors::IllegalStateException;
using qor::common::system::Clock;
using qor::common::types::Boolean;

namespace {

constexpr std::uint32_t kHalfRange = 0x80000000u;

// Emptied list nodes kept for reuse, so that a steady flow of work (and every
// periodic record) is queued without allocating. Bounds the memory kept after
// a burst: about 64 KiB of empty nodes.
constexpr std::size_t kMaxSpareHolders = 1024;

// Tick `a` is not earlier than tick `b` when their 32-bit difference is below
// 2^31; this keeps the order right across the counter's wrap.
bool notEarlier(std::uint32_t a, std::uint32_t b)
{
    return static_cast<std::uint32_t>(a - b) < kHalfRange;
}

} // namespace

BalancedStrategy::BalancedStrategy()
    : m_UntimedFunctionExecutions(), m_TimedFunctionExecutions(), m_PreferUntimed(false),
      m_TimedWithinHalfRange(true), m_TimedTailRun(m_TimedFunctionExecutions.end())
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
    placeHolder(m_UntimedFunctionExecutions, m_UntimedFunctionExecutions.end(), functionExecution, 0u);
}

void BalancedStrategy::addFunctionExecution(const FunctionExecution& functionExecution, const Duration& delay)
{
    const std::uint32_t now = Clock::getTickCounter();
    // Only the low 32 bits of the delay count: small negative delays land in
    // the past (due at once), delays of 2^31 ms or more wrap.
    const std::uint32_t dueTime = now + static_cast<std::uint32_t>(delay.getValue());

    bool startsTailRun = false;
    const HolderList::iterator position = timedInsertPosition(dueTime, startsTailRun);
    const HolderList::iterator inserted =
        placeHolder(m_TimedFunctionExecutions, position, functionExecution, dueTime);
    if (startsTailRun)
    {
        m_TimedTailRun = inserted;
    }
}

BalancedStrategy::HolderList::iterator BalancedStrategy::timedInsertPosition(std::uint32_t dueTime,
                                                                             bool& startsTailRun)
{
    HolderList& timed = m_TimedFunctionExecutions;
    startsTailRun = false;
    if (timed.empty())
    {
        m_TimedWithinHalfRange = true;
        startsTailRun = true;
        return timed.end();
    }
    const std::uint32_t first = timed.front().dueTime;
    const std::uint32_t last = timed.back().dueTime;
    if (m_TimedWithinHalfRange)
    {
        // The queue's ticks span [first, last], less than 2^31 long. The new
        // tick keeps the span below 2^31 when it lies inside it or extends it
        // at one end to less than 2^31.
        const std::uint32_t span = last - first;
        const std::uint32_t offset = dueTime - first;
        m_TimedWithinHalfRange = offset <= span || offset < kHalfRange ||
                                 static_cast<std::uint32_t>(last - dueTime) < kHalfRange;
        if (!m_TimedWithinHalfRange)
        {
            m_TimedTailRun = timed.end();
        }
    }
    if (!m_TimedWithinHalfRange)
    {
        // In front of the first record that is not earlier: among equal due
        // ticks the newest record comes first.
        auto position = timed.begin();
        while (position != timed.end() && !notEarlier(position->dueTime, dueTime))
        {
            ++position;
        }
        return position;
    }
    if (m_TimedTailRun == timed.end())
    {
        // The run at the end was removed from under its first record: find
        // the new one (the records at the end with the last tick).
        m_TimedTailRun = timed.end();
        while (m_TimedTailRun != timed.begin() && std::prev(m_TimedTailRun)->dueTime == last)
        {
            --m_TimedTailRun;
        }
    }
    if (dueTime == last)
    {
        // In front of the equal ticks at the end, as the newest of them.
        startsTailRun = true;
        return m_TimedTailRun;
    }
    if (notEarlier(dueTime, last))
    {
        startsTailRun = true;
        return timed.end();
    }
    // Strictly before the run at the end: search from the nearer end. Both
    // searches find the first record that is not earlier than the new one.
    const std::int32_t fromFirst = static_cast<std::int32_t>(dueTime - first);
    const std::int32_t toLast = static_cast<std::int32_t>(last - dueTime);
    if (fromFirst < toLast)
    {
        auto position = timed.begin();
        while (!notEarlier(position->dueTime, dueTime))
        {
            ++position;
        }
        return position;
    }
    auto position = m_TimedTailRun;
    while (position != timed.begin() && notEarlier(std::prev(position)->dueTime, dueTime))
    {
        --position;
    }
    return position;
}

BalancedStrategy::HolderList::iterator BalancedStrategy::placeHolder(HolderList& list, HolderList::iterator position,
                                                                     const FunctionExecution& functionExecution,
                                                                     std::uint32_t dueTime)
{
    if (m_SpareHolders.empty())
    {
        // A failing allocation leaves the list as it was.
        return list.insert(position, FunctionExecutionHolder{functionExecution, dueTime});
    }
    // Reuse an emptied node: nothing below can throw.
    const HolderList::iterator node = m_SpareHolders.begin();
    node->functionExecution = functionExecution;
    node->dueTime = dueTime;
    list.splice(position, m_SpareHolders, node);
    return node;
}

void BalancedStrategy::retireFront(HolderList& list) noexcept
{
    if (m_SpareHolders.size() >= kMaxSpareHolders)
    {
        list.pop_front();
        return;
    }
    // The record has been moved out; drop what is left of it (its Function
    // reference, if any) before the node waits for reuse.
    list.front().functionExecution = FunctionExecution();
    m_SpareHolders.splice(m_SpareHolders.begin(), list, list.begin());
}

void BalancedStrategy::forgetTimed(HolderList::iterator position)
{
    if (m_TimedWithinHalfRange && position == m_TimedTailRun)
    {
        // What follows in the run has the same tick; if nothing does, the
        // end is marked unknown and found again by the next insertion.
        ++m_TimedTailRun;
    }
}

void BalancedStrategy::removeFunctionExecution(const FunctionExecutionId& id)
{
    // A copy: `id` may refer into a record that is about to be destroyed.
    const FunctionExecutionId wanted = id;
    m_UntimedFunctionExecutions.remove_if(
        [&wanted](const FunctionExecutionHolder& holder) { return holder.functionExecution.id == wanted; });
    for (auto position = m_TimedFunctionExecutions.begin(); position != m_TimedFunctionExecutions.end();)
    {
        if (position->functionExecution.id == wanted)
        {
            forgetTimed(position);
            position = m_TimedFunctionExecutions.erase(position);
        }
        else
        {
            ++position;
        }
    }
}

bool BalancedStrategy::hasPendingFunctionExecutions() const
{
    const unsigned int now = Clock::getTickCounter();
    return hasPendingTimedFunctionExecution(now) || hasPendingUntimedFunctionExecution(now);
}

FunctionExecution BalancedStrategy::getNextFunctionExecution()
{
    FunctionExecution result;
    // One reading serves both tests; without timed records nothing needs it.
    const unsigned int now = m_TimedFunctionExecutions.empty() ? 0u : Clock::getTickCounter();
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
    if (!m_UntimedFunctionExecutions.empty())
    {
        return 0;
    }
    if (m_TimedFunctionExecutions.empty())
    {
        return 0;
    }
    const std::uint32_t now = Clock::getTickCounter();
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
    forgetTimed(m_TimedFunctionExecutions.begin());
    retireFront(m_TimedFunctionExecutions);
    return result;
}

FunctionExecution BalancedStrategy::getNextUntimedFunctionExecution()
{
    if (m_UntimedFunctionExecutions.empty())
    {
        throw IllegalStateException("Queue is empty", nullptr, Boolean(false));
    }
    FunctionExecution result = std::move(m_UntimedFunctionExecutions.front().functionExecution);
    retireFront(m_UntimedFunctionExecutions);
    return result;
}

} // namespace qor::nav::sdk::utils::synchronization
