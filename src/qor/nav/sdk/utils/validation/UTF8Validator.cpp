#include "qor/nav/sdk/utils/validation/UTF8Validator.h"

#include "qor/common/logging/Logger.h"
#include "qor/nav/sdk/utils/validation/Utf8Automaton.h"
#include "qor/nav/sdk/utils/validation/Utf8Check.h"

#include <cstring>
#include <exception>

namespace qor::nav::sdk::utils::validation {

using qor::common::logging::Logger;
using qor::common::logging::LogLevel;
using qor::common::types::utf8::Utf8Char;
using qor::common::types::utf8::Utf8String;

namespace detail {

// clang-format off
const std::uint8_t kByteClass[256] = {
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 00..0F
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 10..1F
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 20..2F
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 30..3F
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 40..4F
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 50..5F
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 60..6F
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 70..7F
     1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  // 80..8F
     9,  9,  9,  9,  9,  9,  9,  9,  9,  9,  9,  9,  9,  9,  9,  9,  // 90..9F
     7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  // A0..AF
     7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  // B0..BF
     8,  8,  2,  2,  2,  2,  2,  2,  2,  2,  2,  2,  2,  2,  2,  2,  // C0..CF
     2,  2,  2,  2,  2,  2,  2,  2,  2,  2,  2,  2,  2,  2,  2,  2,  // D0..DF
    10,  3,  3,  3,  3,  3,  3,  3,  3,  3,  3,  3,  3,  4,  3,  3,  // E0..EF
    11,  6,  6,  6,  5,  8,  8,  8,  8,  8,  8,  8,  8,  8,  8,  8,  // F0..FF
};

// Rows are states, columns byte classes 0..11.
const std::uint8_t kTransition[108] = {
     0, 12, 24, 36, 60, 96, 84, 12, 12, 12, 48, 72,  // 0: accept
    12, 12, 12, 12, 12, 12, 12, 12, 12, 12, 12, 12,  // 12: reject
    12,  0, 12, 12, 12, 12, 12,  0, 12,  0, 12, 12,  // 24: one more
    12, 24, 12, 12, 12, 12, 12, 24, 12, 24, 12, 12,  // 36: two more
    12, 12, 12, 12, 12, 12, 12, 24, 12, 12, 12, 12,  // 48: after E0
    12, 24, 12, 12, 12, 12, 12, 12, 12, 24, 12, 12,  // 60: after ED
    12, 12, 12, 12, 12, 12, 12, 36, 12, 36, 12, 12,  // 72: after F0
    12, 36, 12, 12, 12, 12, 12, 36, 12, 36, 12, 12,  // 84: after F1..F3
    12, 36, 12, 12, 12, 12, 12, 12, 12, 12, 12, 12,  // 96: after F4
};
// clang-format on

namespace {

const char* const kLoggerName = "qor.nav.sdk.utils.UTF8Validator";

bool inRange(std::uint8_t byte, std::uint8_t low, std::uint8_t high) noexcept
{
    return byte >= low && byte <= high;
}

} // namespace

bool validateStrictUtf8Reference(const char* bytes, std::size_t size) noexcept
{
    if (size == 0)
    {
        return true;
    }
    std::uint32_t state = kAccept;
    for (std::size_t i = 0; i < size; ++i)
    {
        state = kTransition[state + kByteClass[static_cast<std::uint8_t>(bytes[i])]];
        if (state == kReject)
        {
            return false;
        }
    }
    return state == kAccept;
}

bool convertCESU8ToUTF8(const std::string& group, Utf8String& result)
{
    // Made for every group on purpose: keeps the conversion self-contained,
    // at the price of one logger per supplementary character.
    const Logger log(kLoggerName);
    if (group.size() != 6)
    {
        log << LogLevel::Error << "convertCESU8ToUTF8" << ": Can't convert CESU-8 into UTF-8 - invalid source string!"
            << std::endl;
        return false;
    }
    std::uint8_t b[6];
    std::memcpy(b, group.data(), 6);
    if (b[0] != 0xED || !inRange(b[1], 0xA0, 0xAF) || !inRange(b[2], 0x80, 0xBF) || b[3] != 0xED ||
        !inRange(b[4], 0xB0, 0xBF) || !inRange(b[5], 0x80, 0xBF))
    {
        log << LogLevel::Error << "convertCESU8ToUTF8"
            << ": Can't convert CESU-8 into UTF-8 - invalid CESU-8 surrogates pair!" << std::endl;
        return false;
    }
    // High surrogate H = ED b1 b2, low surrogate L = ED b4 b5; the character
    // is 0x10000 + ((H - 0xD800) << 10) + (L - 0xDC00). Its top five bits
    // are (b1 & 0x0F) + 1, which is what (b1 + 1) carries in its low bits.
    const std::uint8_t u = static_cast<std::uint8_t>(b[1] + 1);
    const char utf8[4] = {
        static_cast<char>(0xF0 | ((u >> 2) & 0x07)),
        static_cast<char>(0x80 | ((u & 0x03) << 4) | ((b[2] >> 2) & 0x0F)),
        static_cast<char>(0x80 | ((b[2] & 0x03) << 4) | (b[4] & 0x0F)),
        static_cast<char>(b[5]),
    };
    result.append(Utf8String(std::string(utf8, 4)));
    return true;
}

} // namespace detail

namespace {

// Whether `byte` continues a CESU-8 group of which `collected` bytes are
// already in the buffer: ED A0..AF 80..BF ED B0..BF 80..BF.
bool continuesCesu8Group(std::uint8_t byte, std::size_t collected) noexcept
{
    return (byte == 0xED && (collected == 0 || collected == 3)) ||
           (collected == 1 && byte >= 0xA0 && byte <= 0xAF) ||
           ((collected == 2 || collected == 5) && byte >= 0x80 && byte <= 0xBF) ||
           (collected == 4 && byte >= 0xB0 && byte <= 0xBF);
}

} // namespace

bool UTF8Validator::validateStrictUtf8(const Utf8String& text) noexcept
{
    const std::string& bytes = text.str();
    return detail::isStrictUtf8(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

Utf8String UTF8Validator::makeStrictUtf8Conform(const Utf8String& text)
{
    Utf8String result;
    const std::string& bytes = text.str();
    const std::size_t size = bytes.size();
    if (size == 0)
    {
        return result;
    }

    std::string group; // the CESU-8 group being collected
    try
    {
        // The result is never longer than the input.
        result.reserve(size);
        group.reserve(6);
    }
    catch (const std::exception& e)
    {
        static const Logger s_Log(detail::kLoggerName);
        s_Log << LogLevel::Error << "makeStrictUtf8Conform" << ": caught an Exception: '" << e.what()
              << "' trying to reserve space for strings!" << std::endl;
    }

    const std::uint8_t* const data = reinterpret_cast<const std::uint8_t*>(bytes.data());
    if (detail::isStrictUtf8WithoutControls(data, size))
    {
        // Strict text without control characters: the walk below would emit
        // every character as it is (an ED here is followed by 80..9F, so it
        // never starts a CESU-8 group), so the result is the text itself.
        result.append(text);
        return result;
    }

    std::size_t collected = 0; // bytes in `group`
    std::uint32_t state = detail::kAccept;
    std::uint32_t codePoint = 0;
    std::size_t p = 0;
    while (p < size)
    {
        const std::uint8_t byte = data[p];

        // Every ED may start a CESU-8 group, whatever the decoder state. A
        // group is complete when an accepted byte brings it to six.
        if (byte == 0xED)
        {
            group.push_back(static_cast<char>(byte));
            ++collected;
            bool complete = false;
            for (std::size_t q = p + 1; q < size; ++q)
            {
                if (!continuesCesu8Group(data[q], collected))
                {
                    group.clear();
                    collected = 0;
                    break;
                }
                group.push_back(static_cast<char>(data[q]));
                ++collected;
                if (collected == 6)
                {
                    complete = true;
                    break;
                }
            }
            // When the input ends first, the group stays as collected; no
            // later byte can complete it.
            if (complete && detail::convertCESU8ToUTF8(group, result))
            {
                group.clear();
                collected = 0;
                p += 6;
                // `state` and `codePoint` stay: a sequence open before the
                // group may still be completed after it.
                continue;
            }
        }

        // Ordinary decoding.
        const std::uint32_t previous = state;
        const std::uint32_t next = detail::decode(state, codePoint, byte);
        if (next == detail::kAccept)
        {
            // C0 controls are dropped on purpose.
            if (codePoint > 0x1F)
            {
                result.append(Utf8Char(codePoint));
            }
            state = detail::kAccept;
            ++p;
        }
        else if (next == detail::kReject)
        {
            if (previous == detail::kAccept)
            {
                ++p; // cannot start a character: dropped
            }
            else
            {
                // Broken sequence: drop it and look at this byte again as
                // the possible start of a new character.
                state = detail::kAccept;
            }
        }
        else
        {
            state = next;
            ++p;
        }
    }
    // A sequence still open at the end is dropped.
    return result;
}

} // namespace qor::nav::sdk::utils::validation
