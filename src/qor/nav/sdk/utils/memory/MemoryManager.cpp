#include "qor/nav/sdk/utils/memory/MemoryManager.h"

#include "qor/common/logging/LogLevel.h"

#include <cassert>
#include <limits>
#include <ostream>

#if defined(__SSE__) && defined(__x86_64__)
#include <xmmintrin.h>
#endif

namespace qor::nav::sdk::utils::memory {

using common::logging::Logger;
using common::logging::LogLevel;
using common::system::MutexGuard;
using allocator::policy::AllocationStatistics;

namespace {

constexpr unsigned s_ChunkShift = 12; // chunks of 4,096 bytes
constexpr unsigned long s_InstanceLimitInBytes = 536870912UL; // 512 MiB
constexpr std::uint64_t s_Never = std::numeric_limits<std::uint64_t>::max();

// static_cast<float>(count) for the counts of a budget (below 2^52, so the
// signed conversion gives the same result). On x86 the conversion writes
// only the low lane of its register and so waits for whatever computed the
// register's last value, which would chain each update to the previous
// one's division; converting into a zeroed register breaks that chain.
inline float toFloat(std::uint64_t count)
{
#if defined(__SSE__) && defined(__x86_64__)
    return _mm_cvtss_f32(_mm_cvtsi64_ss(_mm_setzero_ps(), static_cast<long long>(count)));
#else
    return static_cast<float>(count);
#endif
}

// The smallest count in [0, limit] for which `holds` is true, or s_Never;
// `holds` must be false up to some count and true from there on.
template <typename Predicate>
std::uint64_t firstCountWhere(std::uint64_t limit, Predicate holds)
{
    if (!holds(limit))
    {
        return s_Never;
    }
    std::uint64_t low = 0;     // first candidate
    std::uint64_t high = limit; // holds(high) is true
    while (low < high)
    {
        const std::uint64_t middle = low + (high - low) / 2;
        if (holds(middle))
        {
            high = middle;
        }
        else
        {
            low = middle + 1;
        }
    }
    return high;
}

} // namespace

Logger& MemoryManager::getLogger()
{
    static Logger logger("qor.nav.sdk.utils.memory.MemoryManager");
    return logger;
}

MemoryManager::MemoryManager(unsigned long limitInBytes)
    : m_MaxChunks(limitInBytes >> s_ChunkShift),
      m_AvailableChunks(m_MaxChunks),
      m_MemoryConsumption(0.0f),
      m_MemoryStatus(Normal),
      m_MaxChunksAsFloat(static_cast<float>(m_MaxChunks))
{
    // The consumption of a count in use is the float quotient used by
    // updateChunks(); it never falls as the count grows, so each threshold
    // splits the counts 0..m_MaxChunks at one place. An empty budget divides
    // 0 by 0: no count passes any threshold, and the level never moves.
    const auto consumptionOf = [this](std::uint64_t inUse) {
        return toFloat(inUse) / m_MaxChunksAsFloat;
    };
    for (unsigned level = Normal; level <= Critical; ++level)
    {
        m_RisingChunks[level] =
            level == Critical ? s_Never : firstCountWhere(m_MaxChunks, [&](std::uint64_t inUse) {
                return consumptionOf(inUse) > s_GrowingThresholds[level];
            });
        m_FallingChunks[level] =
            level == Normal ? 0 : firstCountWhere(m_MaxChunks, [&](std::uint64_t inUse) {
                return !(consumptionOf(inUse) < s_DroppingThresholds[level]);
            });
    }
    // No separator after the operation name here: existing log parsers expect
    // the line exactly like this.
    getLogger() << LogLevel::Debug << "MemoryManager" << "Initialized memory manager with a limit of "
                << m_MaxChunks << " chunks!" << std::endl;
}

MemoryManager::~MemoryManager()
{
    getLogger() << LogLevel::Debug << "~MemoryManager" << "Shutting down memory manager." << std::endl;
}

MemoryManager& MemoryManager::locateInstance()
{
    static MemoryManager s_Instance(s_InstanceLimitInBytes);
    return s_Instance;
}

MemoryStatus MemoryManager::getMemoryStatus() const
{
    return m_MemoryStatus.load(std::memory_order_relaxed);
}

float MemoryManager::getMemoryConsumption() const
{
    return m_MemoryConsumption.load(std::memory_order_relaxed);
}

// The hot path of requestChunks() and returnChunks(): the caller holds the
// chunk mutex. The consumption is stored on every change; the level is only
// recomputed when the count in use leaves the current level's range, so a
// change that keeps the level costs one division and two integer compares.
// The two checks stay here, so that a failure report names this function.
void MemoryManager::updateChunks(std::ptrdiff_t difference)
{
    assert( ( difference >= 0 ) || ( static_cast< std::size_t >( - difference ) <= m_AvailableChunks ) );
    assert( ( difference < 0 ) || ( static_cast< std::size_t >( difference ) + m_AvailableChunks <= m_MaxChunks ) );

    if (difference < 0)
    {
        m_AvailableChunks -= static_cast<std::uint64_t>(-difference);
    }
    else
    {
        m_AvailableChunks += static_cast<std::uint64_t>(difference);
    }
    const std::uint64_t inUse = m_MaxChunks - m_AvailableChunks;

    // Both operands in single precision, so that consumption and thresholds
    // compare exactly (70 of 100 chunks is not above 0.70).
    const float consumption = toFloat(inUse) / m_MaxChunksAsFloat;
    m_MemoryConsumption.store(consumption, std::memory_order_relaxed);

    const unsigned level = m_MemoryStatus.load(std::memory_order_relaxed);
    if (inUse >= m_RisingChunks[level] || inUse < m_FallingChunks[level])
    {
        recomputeStatus(consumption);
    }
}

bool MemoryManager::requestChunks(unsigned long count)
{
    MutexGuard guard(m_ChunkMutex);
    if (m_AvailableChunks < count)
    {
        return false;
    }
    // Refused at Critical even when chunks remain, so that the last few
    // percent stay free for the work that brings consumption down again.
    if (m_MemoryStatus.load(std::memory_order_relaxed) > High)
    {
        return false;
    }
    updateChunks(-static_cast<std::ptrdiff_t>(count));
    return true;
}

void MemoryManager::returnChunks(unsigned long count)
{
    MutexGuard guard(m_ChunkMutex);
    updateChunks(static_cast<std::ptrdiff_t>(count));
}

void MemoryManager::registerListener(IMemoryListener& listener)
{
    MutexGuard guard(m_ListenerMutex);
    getLogger() << LogLevel::Info << "registerListener" << " :: Registering listener." << std::endl;
    m_Listeners.prepend(&listener);
}

void MemoryManager::unregisterListener(IMemoryListener& listener)
{
    MutexGuard guard(m_ListenerMutex);
    getLogger() << LogLevel::Info << "unregisterListener" << " :: Unregistering listener." << std::endl;
    m_Listeners.remove(&listener);
}

void MemoryManager::registerStatistics(AllocationStatistics& statistics)
{
    MutexGuard guard(m_StatisticsMutex);
    getLogger() << LogLevel::Info << "registerStatistics" << " :: Registering [" << statistics.m_Name << "]"
                << std::endl;
    m_Statistics.prepend(&statistics);
}

void MemoryManager::unregisterStatistics(AllocationStatistics& statistics)
{
    MutexGuard guard(m_StatisticsMutex);
    getLogger() << LogLevel::Info << "unregisterStatistics" << " :: Unregistering [" << statistics.m_Name << "]"
                << std::endl;
    m_Statistics.remove(&statistics);
}

void MemoryManager::logStatistics()
{
    MutexGuard guard(m_StatisticsMutex);
    if (m_Statistics.empty())
    {
        return;
    }
    getLogger() << LogLevel::Info << "logStatistics" << " :: Outputting." << std::endl;
    for (const AllocationStatistics* record = m_Statistics.front(); record != nullptr; record = record->m_Elem.next)
    {
        getLogger() << LogLevel::Info << "logStatistics" << " :: Allocator [" << record->m_Name << "] statistics:"
                    << std::endl
                    << "       Bytes allocated: " << record->m_BytesAllocated << std::endl
                    << "       Allocations made: " << record->m_AllocationsMade << std::endl;
    }
}

void MemoryManager::notifyListeners(MemoryStatus newStatus, MemoryStatus oldStatus)
{
    MutexGuard guard(m_ListenerMutex);
    getLogger() << LogLevel::Info << "notifyListeners" << " :: Informing listeners of change in memory state."
                << std::endl;
    for (IMemoryListener* listener = m_Listeners.front(); listener != nullptr; listener = listener->m_Elem.next)
    {
        listener->onMemoryStatusChanged(newStatus, oldStatus);
    }
}

// Rises while the consumption is above the current level's rising threshold,
// then falls while it is below the falling one, storing every step; tells
// the listeners once, with the final level, when it differs from the first.
void MemoryManager::recomputeStatus(float consumption)
{
    const MemoryStatus old = m_MemoryStatus.load(std::memory_order_relaxed);
    unsigned s = old;
    while (s < Critical && consumption > s_GrowingThresholds[s])
    {
        ++s;
        m_MemoryStatus.store(static_cast<MemoryStatus>(s), std::memory_order_relaxed);
    }
    if (s == Normal)
    {
        return;
    }
    while (consumption < s_DroppingThresholds[s])
    {
        --s;
        m_MemoryStatus.store(static_cast<MemoryStatus>(s), std::memory_order_relaxed);
        if (s == Normal)
        {
            break;
        }
    }
    if (s != old)
    {
        notifyListeners(static_cast<MemoryStatus>(s), old);
    }
}

} // namespace qor::nav::sdk::utils::memory
