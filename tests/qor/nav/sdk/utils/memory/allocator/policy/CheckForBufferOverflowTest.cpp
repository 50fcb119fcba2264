#include "qor/nav/sdk/utils/memory/allocator/policy/CheckForBufferOverflow.h"

#include "qor/nav/sdk/utils/memory/DeathTestPatterns.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>

namespace qor {
namespace nav {
namespace sdk {
namespace utils {
namespace memory {
namespace allocator {
namespace policy {
namespace {

using test::assertionFailure;
using test::literal;

constexpr std::uint32_t s_FrontGuard = 0xFF1234DDu;
constexpr std::uint32_t s_BackGuard = 0xAA9876CCu;
constexpr unsigned char s_Filler = 0x5A;
const char* const s_File = "TileCache.cpp";

template <typename T>
T readAt(const unsigned char* at)
{
    T value;
    std::memcpy(&value, at, sizeof(T));
    return value;
}

template <typename T>
void writeAt(unsigned char* at, T value)
{
    std::memcpy(at, &value, sizeof(T));
}

// Room for a guarded block of up to 64 bytes, 16-byte aligned and pre-filled,
// so that bytes the policy must not touch can be checked.
struct RawBlock
{
    RawBlock() { std::memset(bytes, s_Filler, sizeof(bytes)); }
    alignas(16) unsigned char bytes[24 + 64 + 4 + 8];
};

std::string pointerText(const void* p)
{
    std::ostringstream out;
    out << p;
    return out.str();
}

TEST(CheckForBufferOverflowTest, AllocationWritesHeaderAndGuardsInNativeByteOrder)
{
    CheckForBufferOverflow check("Tiles");
    RawBlock raw;
    unsigned char* const user = static_cast<unsigned char*>(check.onAllocation(raw.bytes, 5, 8, s_File, 42));

    ASSERT_EQ(raw.bytes + 24, user);
    EXPECT_EQ(5u, readAt<std::uint64_t>(raw.bytes));
    EXPECT_EQ(s_File, readAt<const char*>(raw.bytes + 8)); // the pointer itself, not a copy
    EXPECT_EQ(42u, readAt<std::uint32_t>(raw.bytes + 16));
    EXPECT_EQ(s_FrontGuard, readAt<std::uint32_t>(raw.bytes + 20));
    EXPECT_EQ(s_BackGuard, readAt<std::uint32_t>(user + 5)); // unaligned, right behind the block
    for (std::size_t i = 0; i < 5; ++i)
    {
        EXPECT_EQ(s_Filler, user[i]) << "caller's byte " << i;
    }
    for (unsigned char* p = user + 9; p < raw.bytes + sizeof(raw.bytes); ++p)
    {
        EXPECT_EQ(s_Filler, *p) << "byte " << (p - raw.bytes) << " lies behind the back guard";
    }
}

TEST(CheckForBufferOverflowTest, IntactBlocksGiveBackTheRawBlock)
{
    CheckForBufferOverflow check("Tiles");
    const struct
    {
        std::size_t offset; // from a 16-byte boundary
        std::size_t size;
        std::uint16_t align;
    } cases[] = {
        {0, 64, 8},  // 8-byte aligned raw block, 8-byte alignment
        {0, 0, 8},   // empty block: back guard at the caller's pointer
        {8, 13, 16}, // raw + 24 on a 16-byte boundary
        {3, 7, 1},   // nothing aligned at all
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(::testing::Message() << "offset " << c.offset << ", size " << c.size);
        RawBlock raw;
        unsigned char* const block = raw.bytes + c.offset;
        unsigned char* const user = static_cast<unsigned char*>(check.onAllocation(block, c.size, c.align, s_File, 7));
        EXPECT_EQ(s_BackGuard, readAt<std::uint32_t>(user + c.size));
        std::memset(user, 0xFF, c.size); // the caller may use every byte it asked for
        EXPECT_EQ(block, check.onDeallocation(user));
    }
}

// The overflow report as the default sink writes it to standard error.
std::string reportPattern(const char* allocator, const unsigned char* user, std::size_t size, unsigned line)
{
    return literal(std::string("onDeallocation :: Buffer overflow happened in allocator [") + allocator +
                   "]! Allocation was made in " + s_File + " at line " + std::to_string(line) +
                   ". Note that this is the allocation that was overwritten, not the one responsible for "
                   "overwriting. To identify the offender, try setting breakpoints for addresses " +
                   pointerText(user - 4) + " and " + pointerText(user + size) + " in your debugger.") +
           "(.|\n)*" + assertionFailure("false");
}

// The report names addresses of this very process: the death tests below fork
// instead of re-running the test, so that parent and child share them.
class CheckForBufferOverflowDeathTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_Style = GTEST_FLAG_GET(death_test_style);
        GTEST_FLAG_SET(death_test_style, "fast");
    }
    void TearDown() override { GTEST_FLAG_SET(death_test_style, m_Style); }

    CheckForBufferOverflow m_Check{"Tiles"};
    RawBlock m_Raw;

private:
    std::string m_Style;
};

TEST_F(CheckForBufferOverflowDeathTest, WritingOneBytePastTheEndIsReportedAndAborts)
{
    unsigned char* const user = static_cast<unsigned char*>(m_Check.onAllocation(m_Raw.bytes, 6, 8, s_File, 314));
    user[6] = 0;
    EXPECT_DEATH(m_Check.onDeallocation(user), reportPattern("Tiles", user, 6, 314));
}

TEST_F(CheckForBufferOverflowDeathTest, WritingBeforeTheStartIsReportedWithoutReadingTheBackGuard)
{
    unsigned char* const user = static_cast<unsigned char*>(m_Check.onAllocation(m_Raw.bytes, 6, 8, s_File, 15));
    user[-1] = 0;
    // Had the back guard been read, this size would crash the check instead.
    const std::size_t hugeSize = std::size_t(1) << 46;
    writeAt<std::uint64_t>(m_Raw.bytes, hugeSize);
    EXPECT_DEATH(m_Check.onDeallocation(user), reportPattern("Tiles", user, hugeSize, 15));
}

TEST_F(CheckForBufferOverflowDeathTest, NullAllocatorNameCutsTheReportButStillAborts)
{
    CheckForBufferOverflow anonymous(nullptr);
    unsigned char* const user = static_cast<unsigned char*>(anonymous.onAllocation(m_Raw.bytes, 0, 8, s_File, 1));
    user[0] ^= 1;
    EXPECT_DEATH(anonymous.onDeallocation(user),
                 literal("onDeallocation :: Buffer overflow happened in allocator [") + "\n(.|\n)*" +
                     assertionFailure("false"));
}

TEST_F(CheckForBufferOverflowDeathTest, CallerPointerOffTheRequestedAlignmentFailsTheAssertion)
{
    const std::string alignment =
        assertionFailure("( reinterpret_cast< std::size_t >( p ) + extraBytesFront() ) % align == 0");
    // 16-byte aligned raw block: raw + 24 is 8- but not 16-byte aligned.
    EXPECT_DEATH(m_Check.onAllocation(m_Raw.bytes, 8, 16, s_File, 1), alignment);
    EXPECT_DEATH(m_Check.onAllocation(m_Raw.bytes + 1, 8, 2, s_File, 1), alignment);
    EXPECT_DEATH(m_Check.onAllocation(m_Raw.bytes, 8, 0, s_File, 1), alignment);
}

} // namespace
} // namespace policy
} // namespace allocator
} // namespace memory
} // namespace utils
} // namespace sdk
} // namespace nav
} // namespace qor
