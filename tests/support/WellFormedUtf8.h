// An independent answer to "is this well-formed UTF-8?", for tests and fuzz
// targets that hold the library's validators against it.
//
//   #include "support/WellFormedUtf8.h"
//   EXPECT_EQ(UTF8Validator::validateStrictUtf8(text), qor::test::isWellFormedUtf8(text.str()));
//
// Written straight from the Unicode Standard's table of well-formed UTF-8
// byte sequences (chapter 3, "Well-Formed UTF-8 Byte Sequences"): each row
// gives, for a range of lead bytes, the allowed range of every following
// byte. A sequence is well-formed when it splits, left to right, into
// sequences that each match a row. It deliberately shares nothing with the
// decoding automaton (no byte classes, no states), so a slip in the
// automaton's tables or in a fast path cannot hide in both.
//
// Threads: pure functions over constant data; any thread.
#ifndef QOR_TESTS_SUPPORT_WELLFORMEDUTF8_H
#define QOR_TESTS_SUPPORT_WELLFORMEDUTF8_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qor {
namespace test {

namespace wellformed {

struct ByteRange
{
    std::uint8_t low;
    std::uint8_t high;
};

// One row: the lead byte range, then the range of each trailing byte.
struct Row
{
    ByteRange lead;
    std::size_t trailing;
    ByteRange next[3];
};

// U+0000..U+007F       00..7F
// U+0080..U+07FF       C2..DF  80..BF
// U+0800..U+0FFF       E0      A0..BF  80..BF
// U+1000..U+CFFF       E1..EC  80..BF  80..BF
// U+D000..U+D7FF       ED      80..9F  80..BF
// U+E000..U+FFFF       EE..EF  80..BF  80..BF
// U+10000..U+3FFFF     F0      90..BF  80..BF  80..BF
// U+40000..U+FFFFF     F1..F3  80..BF  80..BF  80..BF
// U+100000..U+10FFFF   F4      80..8F  80..BF  80..BF
constexpr Row kRows[] = {
    {{0x00, 0x7F}, 0, {}},
    {{0xC2, 0xDF}, 1, {{0x80, 0xBF}}},
    {{0xE0, 0xE0}, 2, {{0xA0, 0xBF}, {0x80, 0xBF}}},
    {{0xE1, 0xEC}, 2, {{0x80, 0xBF}, {0x80, 0xBF}}},
    {{0xED, 0xED}, 2, {{0x80, 0x9F}, {0x80, 0xBF}}},
    {{0xEE, 0xEF}, 2, {{0x80, 0xBF}, {0x80, 0xBF}}},
    {{0xF0, 0xF0}, 3, {{0x90, 0xBF}, {0x80, 0xBF}, {0x80, 0xBF}}},
    {{0xF1, 0xF3}, 3, {{0x80, 0xBF}, {0x80, 0xBF}, {0x80, 0xBF}}},
    {{0xF4, 0xF4}, 3, {{0x80, 0x8F}, {0x80, 0xBF}, {0x80, 0xBF}}},
};

inline bool within(std::uint8_t byte, ByteRange range)
{
    return byte >= range.low && byte <= range.high;
}

} // namespace wellformed

// Byte count of the well-formed sequence at `at`, or 0 when none starts there.
inline std::size_t wellFormedSequenceAt(const std::string& bytes, std::size_t at)
{
    const auto byteAt = [&bytes](std::size_t i) { return static_cast<std::uint8_t>(bytes[i]); };
    for (const wellformed::Row& row : wellformed::kRows)
    {
        if (!wellformed::within(byteAt(at), row.lead))
        {
            continue;
        }
        if (bytes.size() - at <= row.trailing)
        {
            return 0;
        }
        for (std::size_t i = 0; i < row.trailing; ++i)
        {
            if (!wellformed::within(byteAt(at + 1 + i), row.next[i]))
            {
                return 0;
            }
        }
        return row.trailing + 1;
    }
    return 0;
}

inline bool isWellFormedUtf8(const std::string& bytes)
{
    for (std::size_t at = 0; at < bytes.size();)
    {
        const std::size_t step = wellFormedSequenceAt(bytes, at);
        if (step == 0)
        {
            return false;
        }
        at += step;
    }
    return true;
}

// Byte offsets at which the characters of well-formed `bytes` start, in
// order, followed by bytes.size(); so the character count is size() - 1.
// Empty when `bytes` is not well-formed.
inline std::vector<std::size_t> wellFormedCharacterOffsets(const std::string& bytes)
{
    std::vector<std::size_t> offsets;
    for (std::size_t at = 0; at < bytes.size();)
    {
        const std::size_t step = wellFormedSequenceAt(bytes, at);
        if (step == 0)
        {
            return {};
        }
        offsets.push_back(at);
        at += step;
    }
    offsets.push_back(bytes.size());
    return offsets;
}

// Byte offsets of the characters of any `bytes`, followed by bytes.size(),
// where a byte that starts no well-formed sequence is a character of its own.
inline std::vector<std::size_t> characterOrByteOffsets(const std::string& bytes)
{
    std::vector<std::size_t> offsets;
    for (std::size_t at = 0; at < bytes.size();)
    {
        offsets.push_back(at);
        const std::size_t step = wellFormedSequenceAt(bytes, at);
        at += step != 0 ? step : 1;
    }
    offsets.push_back(bytes.size());
    return offsets;
}

} // namespace test
} // namespace qor

#endif
