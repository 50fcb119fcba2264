#include "qor/nav/sdk/utils/memory/allocator/policy/CheckForBufferOverflow.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/ProtectByMutex.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/ProtectBySpinLock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace qor::nav::sdk::utils::memory::allocator::policy {
namespace {

using common::system::Mutex;
using ::testing::AllOf;
using ::testing::HasSubstr;

struct MutexTraits
{
    using Policy = ProtectByMutex;
    using Lock = Mutex;
    using Guard = ProtectByMutexGuard;
    static Guard lock(Lock& mutex) { return Guard(mutex); }
    static bool isTaken(Lock& mutex) // not recursive: a try from the holder fails too
    {
        const bool free = mutex.lock(Mutex::NoWait);
        if (free) {
            mutex.unlock();
        }
        return !free;
    }
};

struct SpinLockTraits
{
    using Policy = ProtectBySpinLock;
    using Lock = ProtectBySpinLock;
    using Guard = ProtectBySpinLockGuard;
    static Guard lock(Lock& lock) { return lock.lock(); }
    static bool isTaken(const Lock& lock) // the flag byte: 0 free, 1 taken
    {
        return *reinterpret_cast<const unsigned char*>(&lock) == 1u;
    }
};

// What allocators rely on from a locking policy: its guards serialise
// threads, a moved-from guard releases nothing, and moving a guard onto one
// that holds a lock releases that lock first (onto itself: keeps it).
template <typename Traits>
void expectGuardContract()
{
    typename Traits::Policy policy;
    long counter = 0; // deliberately not atomic: only the lock protects it
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 5000; ++i) {
                auto guard = policy.lock();
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(3 * 5000, counter);

    typename Traits::Lock first, second, third;
    {
        auto original = std::make_unique<typename Traits::Guard>(Traits::lock(first));
        typename Traits::Guard target = std::move(*original);
        original.reset();
        EXPECT_TRUE(Traits::isTaken(first));
        typename Traits::Guard source = Traits::lock(second);
        target = std::move(source);
        EXPECT_FALSE(Traits::isTaken(first));
        typename Traits::Guard& same = target;
        target = std::move(same);
        EXPECT_TRUE(Traits::isTaken(second));
        typename Traits::Guard holder = Traits::lock(third);
        source = std::move(holder); // an emptied guard takes another lock over
        EXPECT_TRUE(Traits::isTaken(second) && Traits::isTaken(third));
    }
    EXPECT_FALSE(Traits::isTaken(second));
    EXPECT_FALSE(Traits::isTaken(third));
}

TEST(AllocatorPolicyTest, LockingPoliciesKeepTheGuardContract)
{
    expectGuardContract<MutexTraits>();
    expectGuardContract<SpinLockTraits>();
}

const char* const s_File = "TileCache.cpp";

TEST(AllocatorPolicyTest, BlocksOfAnySizeAndAlignmentComeBackWhole)
{
    CheckForBufferOverflow check("Tiles");
    // Offset of the raw block from a 16-byte boundary, size, alignment.
    const struct { std::size_t offset, size; std::uint16_t align; } cases[] = {{0, 64, 8}, {0, 0, 8}, {8, 13, 16}, {3, 7, 1}};
    for (const auto& c : cases) {
        alignas(16) unsigned char raw[24 + 64 + 4 + 8];
        unsigned char* const block = raw + c.offset;
        auto* const user = static_cast<unsigned char*>(check.onAllocation(block, c.size, c.align, s_File, 42));
        std::memset(user, 0xFF, c.size); // every byte asked for may be used
        EXPECT_EQ(block, check.onDeallocation(user));
    }
}

// The overflow report as the default sink writes it to standard error, then the abort.
::testing::Matcher<const std::string&> report(const unsigned char* user, std::uint64_t size, unsigned line)
{
    std::ostringstream text;
    text << "onDeallocation :: Buffer overflow happened in allocator [Tiles]! Allocation was made in " << s_File
         << " at line " << line
         << ". Note that this is the allocation that was overwritten, not the one responsible for overwriting. "
            "To identify the offender, try setting breakpoints for addresses "
         << static_cast<const void*>(user - 4) << " and " << static_cast<const void*>(user + size)
         << " in your debugger.\n";
    return AllOf(HasSubstr(text.str()), HasSubstr("Assertion `false' failed"));
}

TEST(AllocatorPolicyDeathTest, BrokenGuardsAndMisalignedBlocksAbort)
{
    GTEST_FLAG_SET(death_test_style, "fast"); // the reports name addresses of this very process
    CheckForBufferOverflow check("Tiles");
    alignas(16) unsigned char raw[40];
    auto* user = static_cast<unsigned char*>(check.onAllocation(raw, 6, 8, s_File, 314));
    user[6] = 0; // overrun past the end
    EXPECT_DEATH(check.onDeallocation(user), report(user, 6, 314));

    user = static_cast<unsigned char*>(check.onAllocation(raw, 6, 8, s_File, 15));
    user[-1] = 0; // underrun: the back guard is not read, or this size would crash the check
    const std::uint64_t hugeSize = std::uint64_t(1) << 46;
    std::memcpy(raw, &hugeSize, sizeof hugeSize);
    EXPECT_DEATH(check.onDeallocation(user), report(user, hugeSize, 15));

    const auto misaligned = HasSubstr("Assertion `( reinterpret_cast< std::size_t >( p ) + extraBytesFront() ) % "
                                      "align == 0' failed");
    EXPECT_DEATH(check.onAllocation(raw, 8, 16, s_File, 1), misaligned); // raw + 24 is not 16-aligned
    EXPECT_DEATH(check.onAllocation(raw + 1, 8, 2, s_File, 1), misaligned);
    EXPECT_DEATH(check.onAllocation(raw, 8, 0, s_File, 1), misaligned);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
}

} // namespace
} // namespace qor::nav::sdk::utils::memory::allocator::policy
