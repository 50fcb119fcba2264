#include "qor/nav/sdk/utils/memory/allocator/policy/NullptrOnError.h"

#include <gtest/gtest.h>

namespace qor::nav::sdk::utils::memory::allocator::policy {
namespace {

TEST(NullptrOnErrorTest, FailedAllocationYieldsNullAndDeallocationToleratesAnyPointer)
{
    NullptrOnError policy;
    EXPECT_EQ(nullptr, policy.handleAllocationError(0, 0, nullptr, 0));
    EXPECT_EQ(nullptr, policy.handleAllocationError(~std::size_t(0), 4096, __FILE__, __LINE__));

    int object = 7;
    policy.handleDeallocation(nullptr);
    policy.handleDeallocation(&object);
    EXPECT_EQ(7, object);
}

} // namespace
} // namespace qor::nav::sdk::utils::memory::allocator::policy
