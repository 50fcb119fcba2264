#include "qor/common/types/utf8/Utf8String.h"

#include "qor/common/errors/InvalidArgumentException.h"

#include <gtest/gtest.h>

#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using qor::common::errors::InvalidArgumentException;
using qor::common::types::utf8::Utf8Char;
using qor::common::types::utf8::Utf8String;

// "a", "ä" (C3 A4), "€" (E2 82 AC), U+1F600 (F0 9F 98 80), "b": 5 characters in 11 bytes.
const std::string kMixed = "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80" "b";
const auto npos = Utf8String::npos;

TEST(Utf8StringTest, HoldsExactlyItsBytesAndCountsCharacters)
{
    static_assert(sizeof(Utf8String) == sizeof(std::string), "one std::string and nothing else");
    EXPECT_EQ(Utf8String(static_cast<const char*>(nullptr)).str(), "");
    EXPECT_EQ(Utf8String(kMixed, 1, 2).str(), "\xC3\xA4");
    EXPECT_EQ(Utf8String(kMixed, 3).str(), kMixed.substr(3));
    EXPECT_THROW(Utf8String(kMixed, kMixed.size() + 1), std::out_of_range);
    EXPECT_TRUE(Utf8String("x") == Utf8String(std::string("x")));
    EXPECT_TRUE(Utf8String("x") != Utf8String("y"));

    EXPECT_EQ(Utf8String(kMixed).size(), 11u);
    EXPECT_EQ(Utf8String(kMixed).length(), 5u);
    EXPECT_EQ(Utf8String().length(), 0u);
    EXPECT_EQ(Utf8String(std::string("a\0b", 3)).length(), 3u);
}

TEST(Utf8StringTest, BytesThatAreNotWellFormedMakeLengthAndFindThrowButNotSizeOrReplace)
{
    // Lone continuation, cut short, overlong '/' twice, surrogate, above
    // U+10FFFF, five-byte form, broken sequence.
    for (const std::string bytes : {"\x80", "a\xC3", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80",
                                    "\xF8\x88\x80\x80\x80", "\xE4\xB8" "A"})
    {
        SCOPED_TRACE(testing::PrintToString(bytes));
        const Utf8String text(bytes);
        EXPECT_EQ(text.size(), bytes.size());
        EXPECT_THROW(text.length(), InvalidArgumentException);
        EXPECT_THROW(text.find("A"), InvalidArgumentException);
        EXPECT_THROW(Utf8String("abc").find(text), InvalidArgumentException);
        // replace() counts a byte that starts no character as one.
        Utf8String copy = "\xC3\xA4" + bytes;
        copy.replace(1, 1, "x");
        EXPECT_EQ(copy.str(), "\xC3\xA4x" + bytes.substr(1));
    }
    // replace() reads only as far as it replaces.
    Utf8String tail(std::string("a\xC3\xA4\xFF"));
    tail.replace(0, 2, "c");
    EXPECT_EQ(tail.str(), "c\xFF");
}

TEST(Utf8StringTest, FindCountsCharactersAndGivesAPositionBelowLengthOrNpos)
{
    struct Case
    {
        std::string text;
        std::string what;
        std::size_t from;
        std::size_t found;
    };
    const std::vector<Case> cases = {
        {"a\xC3\xA4", "\xC3\xA4", 0, 1},   {kMixed, "\xF0\x9F\x98\x80", 0, 3},
        {kMixed, "b", 0, 4},               {kMixed, "\xE2\x82\xAC\xF0\x9F\x98\x80", 1, 2},
        {kMixed, "\xC3\xA4", 2, npos},     {kMixed, "z", 0, npos},
        {"abab", "ab", 1, 2},              {kMixed, "b", 5, npos},
        {kMixed, "b", npos, npos},
        // An empty needle is found where the search starts, except at or past the end.
        {kMixed, "", 0, 0},                {kMixed, "", 4, 4},
        {kMixed, "", 5, npos},             {"", "", 0, npos},
        {"", "a", 0, npos},
    };
    for (const Case& c : cases)
    {
        EXPECT_EQ(Utf8String(c.text).find(c.what, c.from), c.found) << c.text << " / " << c.what << " @" << c.from;
    }
}

TEST(Utf8StringTest, ReplaceWorksOnCharacters)
{
    struct Case
    {
        std::string text;
        std::size_t at;
        std::size_t count;
        std::string with;
        std::string result;
    };
    const std::vector<Case> cases = {
        {"a\xC3\xA4", 1, 1, "ae", "aae"},
        {kMixed, 2, 2, "-", "a\xC3\xA4-b"},
        {kMixed, 3, npos, "", "a\xC3\xA4\xE2\x82\xAC"},
        {"ab", 2, 5, "\xC3\xA4", "ab\xC3\xA4"},
    };
    for (const Case& c : cases)
    {
        Utf8String text(c.text);
        text.replace(c.at, c.count, c.with);
        EXPECT_EQ(text.str(), c.result);
    }
    Utf8String past("ab");
    EXPECT_THROW(past.replace(3, 1, "x"), std::out_of_range);
    EXPECT_EQ(past.str(), "ab");
}

// replaceAll rewrites in place when the replacement is not longer, builds a
// new string otherwise, and searches sixteen offsets a step: it must match
// the plain find-and-replace loop at every length around those steps,
// including text that is not well-formed, and with either operand aliasing it.
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
    const std::vector<std::pair<std::uint32_t, std::string>> cases = {
        {0x0, std::string(1, '\0')}, {0x7F, "\x7F"},           {0x80, "\xC2\x80"},
        {0x7FF, "\xDF\xBF"},         {0x800, "\xE0\xA0\x80"},   {0xD7FF, "\xED\x9F\xBF"},
        {0xE000, "\xEE\x80\x80"},    {0xFFFF, "\xEF\xBF\xBF"},  {0x10000, "\xF0\x90\x80\x80"},
        {0x10FFFF, "\xF4\x8F\xBF\xBF"},
    };
    for (const auto& c : cases)
    {
        Utf8String text("x");
        text.append(Utf8Char(c.first));
        EXPECT_EQ(text.str(), "x" + c.second) << std::hex << c.first;
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
