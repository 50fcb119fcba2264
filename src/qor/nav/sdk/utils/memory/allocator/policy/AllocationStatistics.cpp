#include "qor/nav/sdk/utils/memory/allocator/policy/AllocationStatistics.h"

#include "qor/nav/sdk/utils/memory/MemoryManager.h"

namespace qor::nav::sdk::utils::memory::allocator::policy {

AllocationStatistics::AllocationStatistics(const char* name)
    : m_BytesAllocated(0), m_AllocationsMade(0), m_Elem(), m_Name(name)
{
    MemoryManager::locateInstance().registerStatistics(*this);
}

AllocationStatistics::~AllocationStatistics()
{
    MemoryManager::locateInstance().unregisterStatistics(*this);
}

} // namespace qor::nav::sdk::utils::memory::allocator::policy
