#include "qor/nav/sdk/utils/memory/allocator/policy/CheckForBufferOverflow.h"

#include "qor/common/logging/LogLevel.h"

#include <cassert>
#include <cstdlib>
#include <cstring>
#include <ostream>

namespace qor::nav::sdk::utils::memory::allocator::policy {

using common::logging::Logger;
using common::logging::LogLevel;

namespace {

constexpr std::uint32_t s_FrontGuard = 0xFF1234DDu;
constexpr std::uint32_t s_BackGuard = 0xAA9876CCu;

// Header offsets within the raw block.
constexpr std::size_t s_SizeOffset = 0;
constexpr std::size_t s_FileOffset = 8;
constexpr std::size_t s_LineOffset = 16;
constexpr std::size_t s_FrontGuardOffset = 20;

static_assert(sizeof(std::uint64_t) == 8 && sizeof(const char*) == 8, "the header holds two 64-bit words");
static_assert(s_FrontGuardOffset + sizeof(s_FrontGuard) == CheckForBufferOverflow::extraBytesFront(),
              "the front guard ends where the caller's memory begins");
static_assert(sizeof(s_BackGuard) == CheckForBufferOverflow::extraBytesBack(), "the back guard is one word");

// A requested alignment used as divisor of an address. An alignment of 0
// divides nothing, so the alignment check fails for it instead of dividing by
// zero.
struct Alignment
{
    std::uint16_t value;
};

std::size_t operator%(std::size_t address, Alignment align)
{
    return align.value == 0 ? 1 : address % align.value;
}

// The header and the back guard may sit at any alignment: copy bytes.
template <typename T>
void store(unsigned char* at, T value)
{
    std::memcpy(at, &value, sizeof(T));
}

template <typename T>
T load(const unsigned char* at)
{
    T value;
    std::memcpy(&value, at, sizeof(T));
    return value;
}

} // namespace

CheckForBufferOverflow::CheckForBufferOverflow(const char* name) : m_Name(name)
{
}

Logger& CheckForBufferOverflow::getLogger()
{
    static Logger logger("qor.nav.sdk.utils.memory.CheckForBufferOverflow");
    return logger;
}

void* CheckForBufferOverflow::onAllocation(void* p, std::size_t size, std::uint16_t requestedAlign, const char* file,
                                           std::uint32_t line)
{
    const Alignment align{requestedAlign};
    assert( ( reinterpret_cast< std::size_t >( p ) + extraBytesFront() ) % align == 0 );

    unsigned char* const raw = static_cast<unsigned char*>(p);
    unsigned char* const user = raw + extraBytesFront();
    store<std::uint64_t>(raw + s_SizeOffset, size);
    store<const char*>(raw + s_FileOffset, file);
    store<std::uint32_t>(raw + s_LineOffset, line);
    store<std::uint32_t>(raw + s_FrontGuardOffset, s_FrontGuard);
    store<std::uint32_t>(user + size, s_BackGuard);
    return user;
}

void* CheckForBufferOverflow::onDeallocation(void* userPtr)
{
    unsigned char* const user = static_cast<unsigned char*>(userPtr);
    unsigned char* const raw = user - extraBytesFront();
    // The size word is trusted as it stands: it locates the back guard.
    const std::uint64_t size = load<std::uint64_t>(raw + s_SizeOffset);
    unsigned char* const frontGuard = raw + s_FrontGuardOffset;
    unsigned char* const backGuard = user + size;

    // The back guard is only read behind an intact front guard.
    const bool intact = load<std::uint32_t>(frontGuard) == s_FrontGuard && load<std::uint32_t>(backGuard) == s_BackGuard;
    if (!intact)
    {
        getLogger() << LogLevel::Fatal << "onDeallocation" << " :: Buffer overflow happened in allocator [" << m_Name
                    << "]! Allocation was made in " << load<const char*>(raw + s_FileOffset) << " at line "
                    << load<std::uint32_t>(raw + s_LineOffset)
                    << ". Note that this is the allocation that was overwritten, not the one responsible for "
                       "overwriting. "
                    << "To identify the offender, try setting breakpoints for addresses "
                    << static_cast<const void*>(frontGuard) << " and " << static_cast<const void*>(backGuard)
                    << " in your debugger." << std::endl;
        assert( false );
        std::abort(); // the block is corrupt: never hand it back
    }
    return raw;
}

} // namespace qor::nav::sdk::utils::memory::allocator::policy
