#include "qor/nav/sdk/utils/memory/allocator/policy/NoMultiThreading.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace qor {
namespace nav {
namespace sdk {
namespace utils {
namespace memory {
namespace allocator {
namespace policy {
namespace {

static_assert(std::is_empty<NoMultiThreading>::value && std::is_empty<NoMultiThreading::Guard>::value,
              "single-threaded allocators pay nothing for locking");

TEST(NoMultiThreadingTest, NestedLocksOnOneThreadDoNotBlock)
{
    NoMultiThreading policy;
    NoMultiThreading::Guard outer = policy.lock();
    NoMultiThreading::Guard inner = policy.lock();
    NoMultiThreading::Guard other = NoMultiThreading().lock();
    SUCCEED();
}

} // namespace
} // namespace policy
} // namespace allocator
} // namespace memory
} // namespace utils
} // namespace sdk
} // namespace nav
} // namespace qor
