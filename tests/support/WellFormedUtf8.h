// An independent answer to "is this well-formed UTF-8?", and the properties
// that the unit tests and the fuzz targets hold the text code against.
//
//   #include "support/WellFormedUtf8.h"
//   EXPECT_EQ(qor::test::validationDisagreements(bytes), "");
//
// The checker is written straight from the Unicode Standard's table of
// well-formed UTF-8 byte sequences (chapter 3): each row gives, for a range
// of lead bytes, the range of the byte after the lead; any further bytes are
// 80..BF. A sequence is well-formed when it splits, left to right, into
// sequences that each match a row. It deliberately shares nothing with the
// decoding automaton (no byte classes, no states), so a slip in the
// automaton's tables or in a fast path cannot hide in both.
//
// Threads: pure functions over constant data; any thread.
#ifndef QOR_TESTS_SUPPORT_WELLFORMEDUTF8_H
#define QOR_TESTS_SUPPORT_WELLFORMEDUTF8_H

#include "qor/common/errors/InvalidArgumentException.h"
#include "qor/common/types/utf8/Utf8String.h"
#include "qor/nav/sdk/utils/validation/UTF8Validator.h"
#include "qor/nav/sdk/utils/validation/Utf8Automaton.h"
#include "qor/nav/sdk/utils/validation/Utf8Check.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace qor::test {

namespace wellformed {

struct Row
{
    std::uint8_t leadLow, leadHigh;
    std::size_t trailing;
    std::uint8_t low, high; // the byte after the lead
};

constexpr Row kRows[] = {
    {0x00, 0x7F, 0, 0, 0},       // U+0000..U+007F
    {0xC2, 0xDF, 1, 0x80, 0xBF}, // U+0080..U+07FF
    {0xE0, 0xE0, 2, 0xA0, 0xBF}, // U+0800..U+0FFF
    {0xE1, 0xEC, 2, 0x80, 0xBF}, // U+1000..U+CFFF
    {0xED, 0xED, 2, 0x80, 0x9F}, // U+D000..U+D7FF
    {0xEE, 0xEF, 2, 0x80, 0xBF}, // U+E000..U+FFFF
    {0xF0, 0xF0, 3, 0x90, 0xBF}, // U+10000..U+3FFFF
    {0xF1, 0xF3, 3, 0x80, 0xBF}, // U+40000..U+FFFFF
    {0xF4, 0xF4, 3, 0x80, 0x8F}, // U+100000..U+10FFFF
};

} // namespace wellformed

// Byte count of the well-formed sequence at `at`, or 0 when none starts there.
inline std::size_t wellFormedSequenceAt(const std::string& bytes, std::size_t at)
{
    const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(bytes[at + i]); };
    for (const wellformed::Row& row : wellformed::kRows)
    {
        if (byte(0) < row.leadLow || byte(0) > row.leadHigh)
        {
            continue;
        }
        if (bytes.size() - at <= row.trailing)
        {
            return 0;
        }
        for (std::size_t i = 1; i <= row.trailing; ++i)
        {
            if (byte(i) < (i == 1 ? row.low : 0x80) || byte(i) > (i == 1 ? row.high : 0xBF))
            {
                return 0;
            }
        }
        return row.trailing + 1;
    }
    return 0;
}

// Byte offsets of the characters of `bytes`, followed by bytes.size(), where
// a byte that starts no well-formed sequence is a character of its own.
inline std::vector<std::size_t> characterOrByteOffsets(const std::string& bytes)
{
    std::vector<std::size_t> offsets;
    for (std::size_t at = 0; at < bytes.size(); at += std::max<std::size_t>(1, wellFormedSequenceAt(bytes, at)))
    {
        offsets.push_back(at);
    }
    offsets.push_back(bytes.size());
    return offsets;
}

inline bool isWellFormedUtf8(const std::string& bytes)
{
    for (std::size_t at = 0; at < bytes.size(); at += wellFormedSequenceAt(bytes, at))
    {
        if (wellFormedSequenceAt(bytes, at) == 0)
        {
            return false;
        }
    }
    return true;
}

// What disagrees with the table on `bytes`, empty when nothing does: the
// validator, the automaton and every whole-buffer check path this processor
// has (plain and without controls); repair must give its input back exactly
// when it is well-formed and free of controls, and otherwise strict text
// without controls, never longer.
inline std::string validationDisagreements(const std::string& bytes)
{
    using nav::sdk::utils::validation::UTF8Validator;
    namespace detail = nav::sdk::utils::validation::detail;
    const auto withoutControls = [](const std::string& text) {
        return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) > 0x1F; });
    };
    const bool expected = isWellFormedUtf8(bytes);
    const bool clean = expected && withoutControls(bytes);
    const std::string fixed = UTF8Validator::makeStrictUtf8Conform(common::types::utf8::Utf8String(bytes)).str();
    std::string wrong;
    wrong += UTF8Validator::validateStrictUtf8(common::types::utf8::Utf8String(bytes)) != expected ? "validator; " : "";
    wrong += detail::validateStrictUtf8Reference(bytes.data(), bytes.size()) != expected ? "automaton; " : "";
    wrong += (fixed == bytes) != clean ? "repair; " : "";
    wrong += !isWellFormedUtf8(fixed) || !withoutControls(fixed) || fixed.size() > bytes.size() ? "repaired text; " : "";
    std::size_t count = 0;
    const detail::Utf8CheckPath* paths = detail::availableUtf8CheckPaths(count);
    const auto* data = reinterpret_cast<const std::uint8_t*>(bytes.data());
    for (std::size_t i = 0; i < count; ++i)
    {
        wrong += paths[i].isStrictUtf8(data, bytes.size()) != expected ? paths[i].name + std::string("; ") : "";
        wrong += paths[i].isStrictUtf8WithoutControls(data, bytes.size()) != clean
                     ? paths[i].name + std::string(" without controls; ")
                     : "";
    }
    return wrong;
}

template <typename Exception, typename Operation>
bool throws(Operation operation)
{
    try
    {
        operation();
    }
    catch (const Exception&)
    {
        return true;
    }
    return false;
}

// What Utf8String gets wrong on these operands, empty when nothing: length()
// and find() count the characters of well-formed text and throw
// InvalidArgumentException for any other; replace() counts a byte that starts
// no character as one character and throws std::out_of_range (changing
// nothing) for a position past the end; replaceAll() works on bytes, as a
// plain find-and-replace loop that goes on after what it put in.
inline std::string utf8StringDisagreements(const std::string& bytes, const std::string& what, const std::string& with,
                                           std::size_t pos, std::size_t count)
{
    using common::types::utf8::Utf8String;
    using Invalid = common::errors::InvalidArgumentException;
    const std::vector<std::size_t> chars = characterOrByteOffsets(bytes);
    const Utf8String text(bytes);
    const bool wellFormed = isWellFormedUtf8(bytes) && isWellFormedUtf8(what);
    std::string wrong;
    wrong += throws<Invalid>([&] { (void)text.length(); }) == isWellFormedUtf8(bytes) ? "length throws; " : "";
    wrong += throws<Invalid>([&] { (void)Utf8String(what).length(); }) == isWellFormedUtf8(what) ? "length throws; " : "";
    wrong += throws<Invalid>([&] { (void)Utf8String(what).find(text); }) == wellFormed ? "find throws; " : "";
    std::size_t found = Utf8String::npos;
    for (std::size_t p = pos; p < chars.size() - 1 && found == Utf8String::npos; ++p)
    {
        found = bytes.compare(chars[p], what.size(), what) == 0 ? p : Utf8String::npos;
    }
    wrong += wellFormed && (text.length() != chars.size() - 1 || text.find(what, pos) != found) ? "length or find; " : "";

    std::string expected = bytes;
    for (std::size_t at = what.empty() ? std::string::npos : expected.find(what); at != std::string::npos;
         at = expected.find(what, at + with.size()))
    {
        expected.replace(at, what.size(), with);
    }
    wrong += Utf8String(bytes).replaceAll(what, with).str() != expected ? "replaceAll; " : "";

    Utf8String replaced(bytes);
    if (pos >= chars.size())
    {
        const bool threw = throws<std::out_of_range>([&] { replaced.replace(pos, count, with); });
        return wrong + (!threw || replaced.str() != bytes ? "replace past the end; " : "");
    }
    const std::size_t end = count >= chars.size() - 1 - pos ? chars.size() - 1 : pos + count;
    expected = bytes;
    expected.replace(chars[pos], chars[end] - chars[pos], with);
    return wrong + (replaced.replace(pos, count, with).str() != expected ? "replace; " : "");
}

} // namespace qor::test

#endif
