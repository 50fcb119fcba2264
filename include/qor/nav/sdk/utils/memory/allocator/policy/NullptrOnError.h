// Error policy: a failed allocation yields a null pointer.
//
//   if (!budget.requestChunks(chunks)) {
//       return m_ErrorPolicy.handleAllocationError(size, align, __FILE__, __LINE__);   // nullptr
//   }
//
// The policy logs nothing and throws nothing; the allocator's caller checks
// the result.
//
// Threads: stateless; every operation may be called from any thread.
#ifndef QOR_NAV_SDK_UTILS_MEMORY_ALLOCATOR_POLICY_NULLPTRONERROR_H
#define QOR_NAV_SDK_UTILS_MEMORY_ALLOCATOR_POLICY_NULLPTRONERROR_H

#include <cstddef>
#include <cstdint>

namespace qor::nav::sdk::utils::memory::allocator::policy {

class NullptrOnError
{
public:
    // Called when a request of `size` bytes at `align` from `file`:`line`
    // cannot be met; returns the null pointer as the allocation's result.
    void* handleAllocationError(std::size_t /*size*/, std::uint16_t /*align*/, const char* /*file*/,
                                std::uint32_t /*line*/)
    {
        return nullptr;
    }

    // Called on the deallocation path; does nothing.
    void handleDeallocation(void* /*p*/) {}
};

} // namespace qor::nav::sdk::utils::memory::allocator::policy

#endif
