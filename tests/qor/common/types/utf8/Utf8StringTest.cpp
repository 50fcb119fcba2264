#include "qor/common/types/utf8/Utf8String.h"

#include "qor/common/errors/InvalidArgumentException.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

using qor::common::errors::InvalidArgumentException;
using qor::common::types::utf8::Utf8Char;
using qor::common::types::utf8::Utf8String;

// "a", "ä" (C3 A4), "€" (E2 82 AC), U+1F600 (F0 9F 98 80), "b": 5 characters in 11 bytes.
const std::string kMixed = "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"
                           "b";

TEST(Utf8StringTest, HoldsExactlyItsBytes)
{
    static_assert(sizeof(Utf8String) == sizeof(std::string), "one std::string and nothing else");
    EXPECT_EQ(Utf8String().str(), "");
    EXPECT_EQ(Utf8String(static_cast<const char*>(nullptr)).str(), "");
    EXPECT_EQ(Utf8String(kMixed).str(), kMixed);
    EXPECT_EQ(Utf8String(kMixed, 1, 2).str(), "\xC3\xA4");
    EXPECT_EQ(Utf8String(kMixed, 3).str(), kMixed.substr(3));
    EXPECT_THROW(Utf8String(kMixed, kMixed.size() + 1), std::out_of_range);
    EXPECT_TRUE(Utf8String("x") == Utf8String(std::string("x")));
    EXPECT_TRUE(Utf8String("x") != Utf8String("y"));
}

TEST(Utf8StringTest, SizeCountsBytesAndLengthCountsCharacters)
{
    EXPECT_EQ(Utf8String("\xC3\xA4").size(), 2u);
    EXPECT_EQ(Utf8String("\xC3\xA4").length(), 1u);
    EXPECT_EQ(Utf8String(kMixed).size(), 11u);
    EXPECT_EQ(Utf8String(kMixed).length(), 5u);
    EXPECT_EQ(Utf8String().length(), 0u);
    EXPECT_EQ(Utf8String(std::string("a\0b", 3)).length(), 3u);
}

TEST(Utf8StringTest, BytesThatAreNotWellFormedMakeLengthFindAndReplaceThrowButNotSize)
{
    const std::vector<std::string> bad = {
        "\x80",                      // lone continuation byte
        "a\xC3",                     // cut short at the end
        "\xC0\xAF",                  // overlong '/'
        "\xE0\x80\xAF",              // overlong '/'
        "\xED\xA0\x80",              // surrogate U+D800 (CESU-8 half)
        "\xF4\x90\x80\x80",          // above U+10FFFF
        "\xF8\x88\x80\x80\x80",      // five-byte form
        "\xE4\xB8" "A",              // broken sequence
    };
    for (const std::string& bytes : bad)
    {
        SCOPED_TRACE(testing::PrintToString(bytes));
        const Utf8String text(bytes);
        EXPECT_EQ(text.size(), bytes.size());
        EXPECT_THROW(text.length(), InvalidArgumentException);
        EXPECT_THROW(text.find("A"), InvalidArgumentException);
        EXPECT_THROW(Utf8String("abc").find(text), InvalidArgumentException);
        Utf8String copy = text;
        EXPECT_THROW(copy.replace(0, 1, "x"), InvalidArgumentException);
        EXPECT_EQ(copy, text);
    }
}

TEST(Utf8StringTest, FindCountsCharacters)
{
    const Utf8String text(kMixed);
    EXPECT_EQ(Utf8String("a\xC3\xA4").find("\xC3\xA4"), 1u);
    EXPECT_EQ(text.find("\xF0\x9F\x98\x80"), 3u);
    EXPECT_EQ(text.find("b"), 4u);
    EXPECT_EQ(text.find("\xE2\x82\xAC\xF0\x9F\x98\x80", 1), 2u);
    EXPECT_EQ(text.find("\xC3\xA4", 2), Utf8String::npos);
    EXPECT_EQ(text.find("z"), Utf8String::npos);
    EXPECT_EQ(Utf8String("abab").find("ab", 1), 2u);
}

TEST(Utf8StringTest, FindGivesAPositionBelowLengthOrNpos)
{
    const Utf8String text(kMixed);
    EXPECT_EQ(text.find("b", 5), Utf8String::npos);
    EXPECT_EQ(text.find("b", Utf8String::npos), Utf8String::npos);
    // An empty needle is found where the search starts, except at or past the end.
    EXPECT_EQ(text.find("", 0), 0u);
    EXPECT_EQ(text.find("", 4), 4u);
    EXPECT_EQ(text.find("", 5), Utf8String::npos);
    EXPECT_EQ(Utf8String().find(""), Utf8String::npos);
    EXPECT_EQ(Utf8String().find("a"), Utf8String::npos);
}

TEST(Utf8StringTest, ReplaceWorksOnCharacters)
{
    Utf8String text("a\xC3\xA4");
    text.replace(1, 1, "ae");
    EXPECT_EQ(text.str(), "aae");

    Utf8String mixed(kMixed);
    mixed.replace(2, 2, "-");
    EXPECT_EQ(mixed.str(), "a\xC3\xA4-b");

    Utf8String tail(kMixed);
    tail.replace(3, Utf8String::npos, "");
    EXPECT_EQ(tail.str(), "a\xC3\xA4\xE2\x82\xAC");

    Utf8String atEnd("ab");
    atEnd.replace(2, 5, "\xC3\xA4");
    EXPECT_EQ(atEnd.str(), "ab\xC3\xA4");

    Utf8String past("ab");
    EXPECT_THROW(past.replace(3, 1, "x"), InvalidArgumentException);
    EXPECT_EQ(past.str(), "ab");
}

TEST(Utf8StringTest, ReplaceAllGoesLeftToRightWithoutRescanningInsertedText)
{
    Utf8String text("aaa");
    text.replaceAll("aa", "b");
    EXPECT_EQ(text.str(), "ba");

    Utf8String growing("a-a");
    growing.replaceAll("a", "aa");
    EXPECT_EQ(growing.str(), "aa-aa");

    Utf8String umlauts("\xC3\xA4x\xC3\xA4");
    umlauts.replaceAll("\xC3\xA4", "ae");
    EXPECT_EQ(umlauts.str(), "aexae");

    Utf8String unchanged("abc");
    unchanged.replaceAll("", "x");
    unchanged.replaceAll("z", "x");
    EXPECT_EQ(unchanged.str(), "abc");

    // Works on bytes, so text that is not well-formed does not stop it.
    Utf8String broken("\xFF" "a\xFF");
    broken.replaceAll("a", "b");
    EXPECT_EQ(broken.str(), "\xFF" "b\xFF");
}

// replaceAll rewrites in place when the replacement is not longer, builds a
// new string otherwise, and searches sixteen offsets a step; all of it must
// give what the plain find-and-replace loop gives, at every length around
// those steps and with either operand being the string itself.
TEST(Utf8StringTest, ReplaceAllMatchesAPlainFindAndReplaceLoop)
{
    auto plain = [](std::string text, const std::string& what, const std::string& with) {
        for (std::size_t at = text.find(what); !what.empty() && at != std::string::npos;
             at = text.find(what, at + with.size()))
        {
            text.replace(at, what.size(), with);
        }
        return text;
    };
    std::mt19937 random(1357);
    auto randomBytes = [&random](std::size_t maxSize) {
        static const char alphabet[] = {'a', 'b', '\xC3', '\xA4'};
        std::string bytes(random() % (maxSize + 1), 'a');
        for (char& c : bytes)
        {
            c = alphabet[random() % 4];
        }
        return bytes;
    };
    for (int round = 0; round < 20000; ++round)
    {
        const std::string text = randomBytes(round % 100 == 0 ? 300 : 40);
        const std::string what = randomBytes(4);
        const std::string with = randomBytes(6);
        Utf8String actual(text);
        actual.replaceAll(what, with);
        ASSERT_EQ(actual.str(), plain(text, what, with)) << "'" << text << "' '" << what << "' '" << with << "'";
    }
    Utf8String self("abab");
    self.replaceAll(self, "x");
    EXPECT_EQ(self.str(), "x");
    Utf8String twice("ab");
    twice.replaceAll("a", twice);
    EXPECT_EQ(twice.str(), "abb");
    Utf8String gone("ab");
    gone.replaceAll("ab", gone);
    EXPECT_EQ(gone.str(), "ab");
}

TEST(Utf8StringTest, AppendEncodesCodePointsAtEveryLengthBoundary)
{
    struct Case
    {
        std::uint32_t codePoint;
        std::string bytes;
    };
    const std::vector<Case> cases = {
        {0x0, std::string(1, '\0')}, {0x7F, "\x7F"},
        {0x80, "\xC2\x80"},           {0x7FF, "\xDF\xBF"},
        {0x800, "\xE0\xA0\x80"},      {0xD7FF, "\xED\x9F\xBF"},
        {0xE000, "\xEE\x80\x80"},     {0xFFFF, "\xEF\xBF\xBF"},
        {0x10000, "\xF0\x90\x80\x80"}, {0x10FFFF, "\xF4\x8F\xBF\xBF"},
    };
    for (const Case& c : cases)
    {
        Utf8String text("x");
        text.append(Utf8Char(c.codePoint));
        EXPECT_EQ(text.str(), "x" + c.bytes) << std::hex << c.codePoint;
        EXPECT_EQ(text.length(), 2u);
    }
    for (const std::uint32_t invalid : {0xD800u, 0xDFFFu, 0x110000u, 0xFFFFFFFFu})
    {
        Utf8String text("x");
        EXPECT_THROW(text.append(Utf8Char(invalid)), InvalidArgumentException) << std::hex << invalid;
        EXPECT_EQ(text.str(), "x");
    }
    Utf8String joined("a");
    joined.append(Utf8String("\xFF" "b"));
    EXPECT_EQ(joined.str(), "a\xFF" "b");
}

} // namespace
