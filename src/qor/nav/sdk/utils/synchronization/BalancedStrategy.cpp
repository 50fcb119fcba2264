#include "qor/nav/sdk/utils/synchronization/BalancedStrategy.h"

#include "qor/common/errors/IllegalStateException.h"
#include "qor/common/system/Clock.h"
#include "qor/common/types/Boolean.h"

#include <algorithm>
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

// Fingers into the timed queue: 4 KiB, so a walk from the nearest one covers
// about 1/256 of the queue.
constexpr std::size_t kMaxFingers = 256;

// Tick `a` is not earlier than tick `b` when their 32-bit difference is below
// 2^31; this keeps the order right across the counter's wrap.
bool notEarlier(std::uint32_t a, std::uint32_t b)
{
    return static_cast<std::uint32_t>(a - b) < kHalfRange;
}

} // namespace

BalancedStrategy::BalancedStrategy()
    : m_UntimedFunctionExecutions(), m_TimedFunctionExecutions(), m_PreferUntimed(false), m_TimedSorted(true),
      m_Fingers(), m_FirstFinger(0), m_FingerStride(0)
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
    // Only the low 32 bits of the delay count: small negative delays land in
    // the past (due at once), delays of 2^31 ms or more wrap.
    const std::uint32_t dueTime = Clock::getTickCounter() + static_cast<std::uint32_t>(delay.getValue());
    placeHolder(m_TimedFunctionExecutions, timedInsertPosition(dueTime), functionExecution, dueTime);
}

// The order is that of the front walk: the new record goes in front of the
// first record that is not earlier (so among equal ticks the newest comes
// first), or at the end. The walk tests one predicate, notEarlier(record,
// dueTime). While every tick of the queue and the new tick lie within 2^31 ms
// of the queue's first tick (m_TimedSorted, kept since the queue was last
// empty), that predicate is the plain comparison of distances from the first
// tick, every insertion so far has kept the queue sorted by it, and so it is
// false up to one record and true from there on. Then the walk may start at
// any record where it is false, without changing where it stops: after the
// last finger where it is false (a binary search over the fingers, which are
// queue records in queue order), or nowhere when it is false at the last
// record. Otherwise the walk starts at the front.
BalancedStrategy::HolderList::iterator BalancedStrategy::timedInsertPosition(std::uint32_t dueTime)
{
    HolderList& timed = m_TimedFunctionExecutions;
    if (timed.empty())
    {
        m_TimedSorted = true;
        m_Fingers.clear();
        m_FirstFinger = 0;
        return timed.end();
    }
    const std::uint32_t first = timed.front().dueTime;
    const std::uint32_t last = timed.back().dueTime;
    // Within half the range: the new tick lies inside [first, last] or
    // extends it at one end to less than 2^31.
    const std::uint32_t offset = dueTime - first;
    m_TimedSorted = m_TimedSorted && (offset <= static_cast<std::uint32_t>(last - first) || offset < kHalfRange ||
                                      static_cast<std::uint32_t>(last - dueTime) < kHalfRange);
    HolderList::iterator position = timed.begin();
    if (m_TimedSorted)
    {
        if (!notEarlier(last, dueTime))
        {
            return timed.end();
        }
        const auto from = m_Fingers.begin() + static_cast<std::ptrdiff_t>(m_FirstFinger);
        const auto after = std::partition_point(
            from, m_Fingers.end(), [dueTime](const Finger& finger) { return !notEarlier(finger.dueTime, dueTime); });
        if (after != from)
        {
            position = std::prev(after)->node;
        }
    }
    std::size_t steps = 0;
    for (; position != timed.end() && !notEarlier(position->dueTime, dueTime); ++position)
    {
        ++steps;
    }
    if (m_TimedSorted && steps > 2 * m_FingerStride + 8)
    {
        sampleFingers();
    }
    return position;
}

void BalancedStrategy::sampleFingers()
{
    // ceil(size / stride) <= kMaxFingers: the vector never grows past its
    // first allocation.
    m_FingerStride = (m_TimedFunctionExecutions.size() + kMaxFingers - 1) / kMaxFingers;
    m_Fingers.reserve(kMaxFingers);
    m_Fingers.clear();
    m_FirstFinger = 0;
    std::size_t index = 0;
    for (auto node = m_TimedFunctionExecutions.begin(); node != m_TimedFunctionExecutions.end(); ++node, ++index)
    {
        if (index % m_FingerStride == 0)
        {
            m_Fingers.push_back(Finger{node->dueTime, node});
        }
    }
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

FunctionExecution BalancedStrategy::takeFront(HolderList& list)
{
    if (list.empty())
    {
        throw IllegalStateException("Queue is empty", nullptr, Boolean(false));
    }
    if (&list == &m_TimedFunctionExecutions && m_FirstFinger < m_Fingers.size() &&
        m_Fingers[m_FirstFinger].node == list.begin())
    {
        ++m_FirstFinger;
    }
    // Moving out leaves the node without a Function reference.
    FunctionExecution result = std::move(list.front().functionExecution);
    if (m_SpareHolders.size() < kMaxSpareHolders)
    {
        m_SpareHolders.splice(m_SpareHolders.begin(), list, list.begin());
    }
    else
    {
        list.pop_front();
    }
    return result;
}

void BalancedStrategy::removeFunctionExecution(const FunctionExecutionId& id)
{
    // A copy: `id` may refer into a record that is about to be destroyed.
    const FunctionExecutionId wanted = id;
    const auto matches = [&wanted](const FunctionExecutionHolder& holder) {
        return holder.functionExecution.id == wanted;
    };
    m_UntimedFunctionExecutions.remove_if(matches);
    const std::size_t before = m_TimedFunctionExecutions.size();
    m_TimedFunctionExecutions.remove_if(matches);
    if (m_TimedFunctionExecutions.size() != before)
    {
        // Fingers may point at removed records: resampled when needed.
        m_Fingers.clear();
        m_FirstFinger = 0;
    }
}

bool BalancedStrategy::hasPendingFunctionExecutions() const
{
    const unsigned int now = Clock::getTickCounter();
    return hasPendingTimedFunctionExecution(now) || hasPendingUntimedFunctionExecution(now);
}

FunctionExecution BalancedStrategy::getNextFunctionExecution()
{
    // One reading serves both tests; without timed records nothing needs it.
    const unsigned int now = m_TimedFunctionExecutions.empty() ? 0u : Clock::getTickCounter();
    const bool timed = hasPendingTimedFunctionExecution(now);
    const bool untimed = hasPendingUntimedFunctionExecution(now);
    if (!timed && !untimed)
    {
        throw IllegalStateException("No pending functionExecutions", nullptr, Boolean(false));
    }
    // The preferred queue when it has something, else the other one.
    FunctionExecution result = timed && (!m_PreferUntimed || !untimed) ? getNextTimedFunctionExecution()
                                                                       : getNextUntimedFunctionExecution();
    // The order in which the queues are asked alternates, whichever queue
    // supplied this record.
    m_PreferUntimed = !m_PreferUntimed;
    return result;
}

unsigned int BalancedStrategy::getTimeToNextFunctionExecution() const
{
    if (!m_UntimedFunctionExecutions.empty() || m_TimedFunctionExecutions.empty())
    {
        return 0;
    }
    const std::uint32_t now = Clock::getTickCounter();
    const std::uint32_t dueTime = m_TimedFunctionExecutions.front().dueTime;
    return notEarlier(now, dueTime) ? 0u : dueTime - now;
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
    return takeFront(m_TimedFunctionExecutions);
}

FunctionExecution BalancedStrategy::getNextUntimedFunctionExecution()
{
    return takeFront(m_UntimedFunctionExecutions);
}

} // namespace qor::nav::sdk::utils::synchronization
