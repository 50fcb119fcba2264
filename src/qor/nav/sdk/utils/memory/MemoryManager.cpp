#include "qor/nav/sdk/utils/memory/MemoryManager.h"

#include "qor/common/logging/LogLevel.h"

#include <cassert>
#include <ostream>

namespace qor {
namespace nav {
namespace sdk {
namespace utils {
namespace memory {

using common::logging::Logger;
using common::logging::LogLevel;
using common::system::MutexGuard;
using allocator::policy::AllocationStatistics;

namespace {

constexpr unsigned s_ChunkShift = 12; // chunks of 4,096 bytes
constexpr unsigned long s_InstanceLimitInBytes = 536870912UL; // 512 MiB

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
      m_MemoryStatus(Normal)
{
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

    // Both operands in single precision, so that consumption and thresholds
    // compare exactly (70 of 100 chunks is not above 0.70). An empty budget
    // gives 0/0, a NaN that compares false with every threshold.
    const float consumption =
        static_cast<float>(m_MaxChunks - m_AvailableChunks) / static_cast<float>(m_MaxChunks);
    m_MemoryConsumption.store(consumption, std::memory_order_relaxed);

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

} // namespace memory
} // namespace utils
} // namespace sdk
} // namespace nav
} // namespace qor
