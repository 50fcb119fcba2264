#include "qor/nav/sdk/utils/memory/allocator/policy/ProtectByMutex.h"

#include "qor/nav/sdk/utils/memory/allocator/policy/LockGuardContract.h"

#include <gtest/gtest.h>

#include <thread>

namespace qor::nav::sdk::utils::memory::allocator::policy {
namespace {

using namespace qor::test; // the shared suite

using common::system::Mutex;

struct MutexGuardTraits
{
    using Policy = ProtectByMutex;
    using Lock = Mutex;
    using Guard = ProtectByMutexGuard;
    static Guard lock(Lock& mutex) { return Guard(mutex); }
    // Whether another thread finds `mutex` taken.
    static bool isTaken(Lock& mutex)
    {
        bool taken = false;
        std::thread probe([&] {
            taken = !mutex.lock(Mutex::NoWait);
            if (!taken)
            {
                mutex.unlock();
            }
        });
        probe.join();
        return taken;
    }
};

INSTANTIATE_TYPED_TEST_SUITE_P(ProtectByMutex, LockGuardContract, MutexGuardTraits);

} // namespace
} // namespace qor::nav::sdk::utils::memory::allocator::policy
