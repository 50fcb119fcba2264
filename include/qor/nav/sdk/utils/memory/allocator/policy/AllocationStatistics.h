// Per-allocator counters, listed in the process-wide MemoryManager's registry.
//
//   class PoolAllocator {
//       AllocationStatistics m_Statistics{"PoolAllocator"};
//       void* allocate(std::size_t size) {
//           ...
//           m_Statistics.m_BytesAllocated += size;
//           ++m_Statistics.m_AllocationsMade;
//       }
//   };
//   MemoryManager::locateInstance().logStatistics();   // prints every record
//
// The record only carries the counters; the allocator that owns it advances
// them (under its own lock) and MemoryManager::logStatistics() prints them.
// The name is not copied: it must outlive the record (a literal, typically).
//
// A record registers itself with MemoryManager::locateInstance() when it is
// constructed (creating that instance on first use) and unregisters itself
// when destroyed. Records should be destroyed in the reverse order of their
// construction, which automatic and static objects do by themselves.
//
// Threads: construction and destruction may run on any thread (they lock the
// manager's statistics mutex). The counters carry no lock of their own.
#ifndef QOR_NAV_SDK_UTILS_MEMORY_ALLOCATOR_POLICY_ALLOCATIONSTATISTICS_H
#define QOR_NAV_SDK_UTILS_MEMORY_ALLOCATOR_POLICY_ALLOCATIONSTATISTICS_H

#include "qor/common/utils/intrusivelist/IntrusiveList.h"

#include <cstdint>

namespace qor::nav::sdk::utils::memory::allocator::policy {

class AllocationStatistics
{
public:
    // Zero counters, named `name` (not copied; may be null, which only spoils
    // the record's log lines), registered with MemoryManager::locateInstance().
    explicit AllocationStatistics(const char* name);

    // Unregisters the record from MemoryManager::locateInstance().
    ~AllocationStatistics();

    // Linked in place by the manager: neither copyable nor movable.
    AllocationStatistics(const AllocationStatistics&) = delete;
    AllocationStatistics& operator=(const AllocationStatistics&) = delete;

    std::uint64_t m_BytesAllocated;  // advanced by the owning allocator
    std::uint64_t m_AllocationsMade; // advanced by the owning allocator
    qor::common::utils::IntrusiveListElem<AllocationStatistics> m_Elem; // the manager's link
    const char* m_Name;              // not owned
};

} // namespace qor::nav::sdk::utils::memory::allocator::policy

#endif
