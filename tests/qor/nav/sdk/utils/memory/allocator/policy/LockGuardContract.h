// Typed tests shared by the locking policies. A test file instantiates them
// with a traits type that names `Policy` (has lock()), `Lock` (what a guard
// holds), `Guard`, `static Guard lock(Lock&)` and `static bool isTaken(Lock&)`
// (only called while no other thread uses the lock).
#ifndef QOR_TESTS_NAV_SDK_UTILS_MEMORY_ALLOCATOR_POLICY_LOCKGUARDCONTRACT_H
#define QOR_TESTS_NAV_SDK_UTILS_MEMORY_ALLOCATOR_POLICY_LOCKGUARDCONTRACT_H

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace qor::test {

template <typename Traits>
class LockGuardContract : public ::testing::Test
{
};
TYPED_TEST_SUITE_P(LockGuardContract);

TYPED_TEST_P(LockGuardContract, GuardsSerialiseThreads)
{
    typename TypeParam::Policy policy;
    long counter = 0; // deliberately not atomic: only the lock protects it
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
    {
        threads.emplace_back([&] {
            for (int i = 0; i < 5000; ++i)
            {
                auto guard = policy.lock();
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(3 * 5000, counter);
}

TYPED_TEST_P(LockGuardContract, MovedFromGuardReleasesNothing)
{
    typename TypeParam::Lock lock;
    auto original = std::make_unique<typename TypeParam::Guard>(TypeParam::lock(lock));
    auto moved = std::make_unique<typename TypeParam::Guard>(std::move(*original));
    original.reset();
    EXPECT_TRUE(TypeParam::isTaken(lock));
    moved.reset();
    EXPECT_FALSE(TypeParam::isTaken(lock));
}

TYPED_TEST_P(LockGuardContract, MoveAssignmentReleasesTheHeldLockFirst)
{
    typename TypeParam::Lock first;
    typename TypeParam::Lock second;
    typename TypeParam::Lock third;
    {
        typename TypeParam::Guard target = TypeParam::lock(first);
        typename TypeParam::Guard source = TypeParam::lock(second);
        target = std::move(source);
        EXPECT_FALSE(TypeParam::isTaken(first));
        EXPECT_TRUE(TypeParam::isTaken(second));

        typename TypeParam::Guard& same = target;
        target = std::move(same); // onto itself: keeps the lock
        EXPECT_TRUE(TypeParam::isTaken(second));

        // An emptied guard takes another lock over and releases it when it ends.
        typename TypeParam::Guard holder = TypeParam::lock(third);
        source = std::move(holder);
        EXPECT_TRUE(TypeParam::isTaken(third));
    }
    EXPECT_FALSE(TypeParam::isTaken(second));
    EXPECT_FALSE(TypeParam::isTaken(third));
}

REGISTER_TYPED_TEST_SUITE_P(LockGuardContract, GuardsSerialiseThreads, MovedFromGuardReleasesNothing,
                            MoveAssignmentReleasesTheHeldLockFirst);

} // namespace qor::test

#endif
