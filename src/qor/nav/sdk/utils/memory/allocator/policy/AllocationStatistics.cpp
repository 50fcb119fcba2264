#include "qor/nav/sdk/utils/memory/allocator/policy/AllocationStatistics.h"

#include "qor/nav/sdk/utils/memory/MemoryManager.h"

namespace qor {
namespace nav {
namespace sdk {
namespace utils {
namespace memory {
namespace allocator {
namespace policy {

AllocationStatistics::AllocationStatistics(const char* name)
    : m_BytesAllocated(0), m_AllocationsMade(0), m_Elem(), m_Name(name)
{
    MemoryManager::locateInstance().registerStatistics(*this);
}

AllocationStatistics::~AllocationStatistics()
{
    MemoryManager::locateInstance().unregisterStatistics(*this);
}

} // namespace policy
} // namespace allocator
} // namespace memory
} // namespace utils
} // namespace sdk
} // namespace nav
} // namespace qor
