#include "qor/nav/sdk/utils/memory/allocator/policy/CheckForBufferOverflow.h"

#include "qor/nav/sdk/utils/memory/DeathTestPatterns.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>

namespace qor::nav::sdk::utils::memory::allocator::policy {
namespace {

using test::assertionFailure;
using test::literal;

const char* const s_File = "TileCache.cpp";

template <typename T>
T readAt(const unsigned char* at)
{
    T value;
    std::memcpy(&value, at, sizeof(T));
    return value;
}

// Room for a guarded block of up to 64 bytes at any offset below 8, 16-byte
// aligned and pre-filled, so that bytes the policy must not touch show.
struct RawBlock
{
    RawBlock() { std::memset(bytes, 0x5A, sizeof(bytes)); }
    alignas(16) unsigned char bytes[24 + 64 + 4 + 8];
};

TEST(CheckForBufferOverflowTest, BlocksCarryHeaderAndGuardsInNativeByteOrderAndComeBackWhole)
{
    CheckForBufferOverflow check("Tiles");
    const struct
    {
        std::size_t offset; // of the raw block from a 16-byte boundary
        std::size_t size;
        std::uint16_t align;
    } cases[] = {{0, 64, 8}, {0, 5, 8}, {0, 0, 8}, {8, 13, 16}, {3, 7, 1}};
    for (const auto& c : cases)
    {
        SCOPED_TRACE(::testing::Message() << "offset " << c.offset << ", size " << c.size);
        RawBlock raw;
        unsigned char* const block = raw.bytes + c.offset;
        unsigned char* const user =
            static_cast<unsigned char*>(check.onAllocation(block, c.size, c.align, s_File, 42));
        ASSERT_EQ(block + 24, user);
        EXPECT_EQ(c.size, readAt<std::uint64_t>(block));
        EXPECT_EQ(s_File, readAt<const char*>(block + 8)); // the pointer, not a copy
        EXPECT_EQ(42u, readAt<std::uint32_t>(block + 16));
        EXPECT_EQ(0xFF1234DDu, readAt<std::uint32_t>(block + 20));
        EXPECT_EQ(0xAA9876CCu, readAt<std::uint32_t>(user + c.size));
        EXPECT_EQ(0x5A, user[0 < c.size ? 0 : 4]) << "caller's memory or the byte behind the guard changed";

        std::memset(user, 0xFF, c.size); // every byte asked for may be used
        EXPECT_EQ(block, check.onDeallocation(user));
    }
}

// The report names addresses of this very process, so these death tests fork
// (instead of re-running the test) to share them with the child.
class CheckForBufferOverflowDeathTest : public ::testing::Test
{
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "fast"); }
    void TearDown() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    unsigned char* allocate(std::size_t size, std::uint32_t line)
    {
        return static_cast<unsigned char*>(m_Check.onAllocation(m_Raw.bytes, size, 8, s_File, line));
    }

    // The report as the default sink writes it to standard error, then the abort.
    static std::string report(const unsigned char* user, std::size_t size, unsigned line)
    {
        std::ostringstream text;
        text << "onDeallocation :: Buffer overflow happened in allocator [Tiles]! Allocation was made in " << s_File
             << " at line " << line
             << ". Note that this is the allocation that was overwritten, not the one responsible for overwriting. "
                "To identify the offender, try setting breakpoints for addresses "
             << static_cast<const void*>(user - 4) << " and " << static_cast<const void*>(user + size)
             << " in your debugger.";
        return literal(text.str()) + "(.|\n)*" + assertionFailure("false");
    }

    CheckForBufferOverflow m_Check{"Tiles"};
    RawBlock m_Raw;
};

TEST_F(CheckForBufferOverflowDeathTest, OverrunPastTheEndIsReportedAndAborts)
{
    unsigned char* const user = allocate(6, 314);
    user[6] = 0;
    EXPECT_DEATH(m_Check.onDeallocation(user), report(user, 6, 314));
}

TEST_F(CheckForBufferOverflowDeathTest, UnderrunIsReportedWithoutReadingTheBackGuard)
{
    unsigned char* const user = allocate(6, 15);
    user[-1] = 0;
    // Were the back guard read, this size would crash the check instead.
    const std::uint64_t hugeSize = std::uint64_t(1) << 46;
    std::memcpy(m_Raw.bytes, &hugeSize, sizeof(hugeSize));
    EXPECT_DEATH(m_Check.onDeallocation(user), report(user, hugeSize, 15));
}

TEST_F(CheckForBufferOverflowDeathTest, NullAllocatorNameCutsTheReportButStillAborts)
{
    CheckForBufferOverflow anonymous(nullptr);
    unsigned char* const user = static_cast<unsigned char*>(anonymous.onAllocation(m_Raw.bytes, 0, 8, s_File, 1));
    user[0] ^= 1;
    EXPECT_DEATH(anonymous.onDeallocation(user),
                 literal("Buffer overflow happened in allocator [") + "\n(.|\n)*" + assertionFailure("false"));
}

TEST_F(CheckForBufferOverflowDeathTest, CallerPointerOffTheRequestedAlignmentFailsTheAssertion)
{
    const std::string alignment =
        assertionFailure("( reinterpret_cast< std::size_t >( p ) + extraBytesFront() ) % align == 0");
    EXPECT_DEATH(m_Check.onAllocation(m_Raw.bytes, 8, 16, s_File, 1), alignment); // raw + 24 is not 16-aligned
    EXPECT_DEATH(m_Check.onAllocation(m_Raw.bytes + 1, 8, 2, s_File, 1), alignment);
    EXPECT_DEATH(m_Check.onAllocation(m_Raw.bytes, 8, 0, s_File, 1), alignment);
}

} // namespace
} // namespace qor::nav::sdk::utils::memory::allocator::policy
