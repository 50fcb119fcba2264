#include "qor/nav/sdk/utils/memory/allocator/policy/ProtectBySpinLock.h"

#include "qor/nav/sdk/utils/memory/allocator/policy/LockGuardContract.h"

#include <gtest/gtest.h>

namespace qor::nav::sdk::utils::memory::allocator::policy {
namespace {

using namespace qor::test; // the shared suite

static_assert(sizeof(ProtectBySpinLock) == 1, "the spin lock is its flag byte");

struct SpinLockGuardTraits
{
    using Policy = ProtectBySpinLock;
    using Lock = ProtectBySpinLock;
    using Guard = ProtectBySpinLockGuard;
    static Guard lock(Lock& lock) { return lock.lock(); }
    // The flag byte: 0 free, 1 taken; any other value is a fault.
    static bool isTaken(const Lock& lock)
    {
        const unsigned flag = *reinterpret_cast<const unsigned char*>(&lock);
        EXPECT_LE(flag, 1u);
        return flag == 1u;
    }
};

INSTANTIATE_TYPED_TEST_SUITE_P(ProtectBySpinLock, LockGuardContract, SpinLockGuardTraits);

} // namespace
} // namespace qor::nav::sdk::utils::memory::allocator::policy
