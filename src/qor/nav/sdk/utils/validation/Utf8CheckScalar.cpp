// The scalar path of the UTF-8 check: the automaton, with runs of ASCII at
// character boundaries skipped eight bytes at a time. It serves processors
// without a vector path, and short texts on all of them.
#include "qor/nav/sdk/utils/validation/Utf8Automaton.h"
#include "qor/nav/sdk/utils/validation/Utf8Check.h"

#include <cstring>

namespace qor::nav::sdk::utils::validation::detail {
namespace {

constexpr std::uint64_t kHighBits = 0x8080808080808080ull;
constexpr std::uint64_t kSpaces = 0x2020202020202020ull;

template <bool kRejectControls>
bool scalarCheck(const std::uint8_t* data, std::size_t size) noexcept
{
    std::uint32_t state = kAccept;
    for (std::size_t i = 0; i < size;)
    {
        std::uint64_t word;
        if (state == kAccept && size - i >= sizeof word)
        {
            std::memcpy(&word, data + i, sizeof word);
            if ((word & kHighBits) == 0)
            {
                // A borrow can only turn on high bits above a byte that really
                // is below 0x20, so this finds a control exactly, though not
                // which one.
                if (kRejectControls && ((word - kSpaces) & ~word & kHighBits) != 0)
                {
                    return false;
                }
                i += sizeof word;
                continue;
            }
        }
        // Up to eight bytes through the automaton, then try again.
        for (const std::size_t end = size - i > 8 ? i + 8 : size; i < end; ++i)
        {
            state = kTransition[state + kByteClass[data[i]]];
            if (state == kReject || (kRejectControls && data[i] < 0x20))
            {
                return false;
            }
        }
    }
    return state == kAccept;
}

} // namespace

bool scalarUtf8Check(const std::uint8_t* data, std::size_t size, bool rejectControls) noexcept
{
    return rejectControls ? scalarCheck<true>(data, size) : scalarCheck<false>(data, size);
}

} // namespace qor::nav::sdk::utils::validation::detail
