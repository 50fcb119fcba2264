#include "qor/nav/sdk/utils/memory/allocator/policy/NoMultiThreading.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace qor::nav::sdk::utils::memory::allocator::policy {
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
} // namespace qor::nav::sdk::utils::memory::allocator::policy
