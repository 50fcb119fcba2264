#include "qor/common/types/utf8/Utf8String.h"

#include "qor/common/errors/InvalidArgumentException.h"
#include "support/WellFormedUtf8.h"

#include <gtest/gtest.h>

#include <random>
#include <stdexcept>

namespace {

using qor::common::errors::InvalidArgumentException;
using qor::common::types::utf8::Utf8Char;
using qor::common::types::utf8::Utf8String;
const auto npos = Utf8String::npos;

// Mostly whole characters of every length; rarely a lone continuation byte, a
// cut-short sequence, an overlong '/' (twice), a surrogate, a value above
// U+10FFFF or a five-byte form.
std::string randomText(std::mt19937& random, std::size_t maxPieces)
{
    static const char* const pieces[] = {"a", "b", "\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "ab", "\x80",
                                         "\xC3", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80",
                                         "\xF8\x88\x80\x80\x80"};
    std::string text;
    for (std::size_t n = random() % (maxPieces + 1); n > 0; --n)
    {
        const std::size_t piece = random() % 13;
        text += pieces[random() % 30 == 0 ? piece : piece % 6];
    }
    return text;
}

// The operations against the character and byte models of
// utf8StringDisagreements. replaceAll works in place when the replacement is
// not longer, else into a new string, searching sixteen offsets a step: texts
// of every length around those steps, and either operand aliasing it.
TEST(Utf8StringTest, OperationsMatchCharacterAndByteModels)
{
    std::mt19937 random(1357);
    for (int round = 0; round < 20000; ++round)
    {
        const std::string bytes = randomText(random, round % 100 == 0 ? 150 : 12);
        const std::string what = randomText(random, 2);
        const std::string with = randomText(random, 3);
        const std::size_t pos = round % 50 == 0 ? npos : random() % (qor::test::characterOrByteOffsets(bytes).size() + 2);
        const std::size_t count = round % 7 == 0 ? npos : random() % 4;
        ASSERT_EQ(qor::test::utf8StringDisagreements(bytes, what, with, pos, count), "")
            << bytes << " / " << what << " / " << with << " @" << pos << "+" << count;
    }
    Utf8String self("abab");
    EXPECT_EQ("x", self.replaceAll(self, "x").str());
    Utf8String twice("ab");
    EXPECT_EQ("abb", twice.replaceAll("a", twice).str());
}

TEST(Utf8StringTest, AppendEncodesScalarValuesAtEveryLengthBoundaryAndRejectsOthers)
{
    Utf8String text;
    for (const std::uint32_t cp : {0x0u, 0x7Fu, 0x80u, 0x7FFu, 0x800u, 0xD7FFu, 0xE000u, 0xFFFFu, 0x10000u, 0x10FFFFu})
    {
        text.append(Utf8Char(cp));
    }
    const std::string encoded("\0\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF"
                              "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF",
                              26);
    EXPECT_EQ(encoded, text.str());
    for (const std::uint32_t invalid : {0xD800u, 0xDFFFu, 0x110000u, 0xFFFFFFFFu})
    {
        EXPECT_THROW(text.append(Utf8Char(invalid)), InvalidArgumentException) << std::hex << invalid;
    }
    EXPECT_EQ(encoded + "\xFF", text.append(Utf8String("\xFF")).str());
    EXPECT_EQ("", Utf8String(static_cast<const char*>(nullptr)).str());
    EXPECT_THROW(Utf8String("ab", 3), std::out_of_range);
}

} // namespace
