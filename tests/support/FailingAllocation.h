// Makes one chosen heap allocation fail, for tests of code that must survive
// std::bad_alloc.
//
//   #include "support/FailingAllocation.h"   // in exactly ONE source file of the test executable
//   qor::test::FailingAllocation::failNextOfSize(1001);  // this thread's next 1001-byte allocation throws
//   ... code under test ...
//   EXPECT_FALSE(qor::test::FailingAllocation::pending());  // it was hit
//
// Including this header replaces the global operator new and delete (the
// plain forms, which std::string and the other standard containers use) of
// the whole executable with malloc/free based versions, so it must be
// included by one source file only. Other forms keep the toolchain's
// versions.
//
// Threads: the armed size belongs to the thread that armed it; allocations of
// other threads are never failed.
#ifndef QOR_TESTS_SUPPORT_FAILINGALLOCATION_H
#define QOR_TESTS_SUPPORT_FAILINGALLOCATION_H

#include <cstddef>
#include <cstdlib>
#include <new>

namespace qor::test {

struct FailingAllocation
{
    // The calling thread's next allocation of exactly `bytes` bytes throws
    // std::bad_alloc; 0 disarms.
    static void failNextOfSize(std::size_t bytes) noexcept { armed = bytes; }
    // True while the armed failure has not happened yet.
    static bool pending() noexcept { return armed != 0; }
    static inline thread_local std::size_t armed = 0;
};

} // namespace qor::test

void* operator new(std::size_t bytes)
{
    std::size_t& armed = qor::test::FailingAllocation::armed;
    if (armed != 0 && armed == bytes)
    {
        armed = 0;
        throw std::bad_alloc();
    }
    if (void* memory = std::malloc(bytes == 0 ? 1 : bytes))
    {
        return memory;
    }
    throw std::bad_alloc();
}

// Not inlined: a caller that sees `new` paired with a free() would warn.
__attribute__((noinline)) void operator delete(void* memory) noexcept
{
    std::free(memory);
}

__attribute__((noinline)) void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

#endif
