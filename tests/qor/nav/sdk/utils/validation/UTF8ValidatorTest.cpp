#include "qor/nav/sdk/utils/validation/UTF8Validator.h"

// The byte-at-a-time reference automaton, the CESU-8 conversion and every
// whole-buffer check path are internal; the tests compare against them.
#include "qor/nav/sdk/utils/validation/Utf8Automaton.h"
#include "qor/nav/sdk/utils/validation/Utf8Check.h"

#include "support/FailingAllocation.h"
#include "support/RecordingLogSink.h"
#include "support/WellFormedUtf8.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cctype>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

using qor::common::logging::LogLevel;
using qor::common::types::utf8::Utf8String;
using qor::nav::sdk::utils::validation::UTF8Validator;
namespace detail = qor::nav::sdk::utils::validation::detail;

const char* const kLogger = "qor.nav.sdk.utils.UTF8Validator";

bool valid(const std::string& bytes) { return UTF8Validator::validateStrictUtf8(Utf8String(bytes)); }
std::string repaired(const std::string& bytes) { return UTF8Validator::makeStrictUtf8Conform(Utf8String(bytes)).str(); }

std::string hex(const std::string& bytes)
{
    std::ostringstream out;
    for (const unsigned char b : bytes)
    {
        out << "0123456789abcdef"[b >> 4] << "0123456789abcdef"[b & 15] << ' ';
    }
    return out.str();
}

bool withoutControls(const std::string& bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](char c) { return static_cast<unsigned char>(c) > 0x1F; });
}

// The validator, the automaton and every whole-buffer check path this
// processor has must agree with the Unicode table; repair must give its input
// back unchanged exactly when it is well-formed and free of controls, and
// otherwise strict text without controls, never longer.
testing::AssertionResult allAgree(const std::string& bytes)
{
    const bool expected = qor::test::isWellFormedUtf8(bytes);
    const bool clean = expected && withoutControls(bytes);
    const std::string fixed = repaired(bytes);
    std::ostringstream wrong;
    wrong << (valid(bytes) != expected ? "validator; " : "")
          << (detail::validateStrictUtf8Reference(bytes.data(), bytes.size()) != expected ? "automaton; " : "")
          << ((fixed == bytes) != clean ? "repair; " : "")
          << (!qor::test::isWellFormedUtf8(fixed) || !withoutControls(fixed) || fixed.size() > bytes.size()
                  ? "repaired text; "
                  : "");
    std::size_t count = 0;
    const detail::Utf8CheckPath* paths = detail::availableUtf8CheckPaths(count);
    const auto* data = reinterpret_cast<const std::uint8_t*>(bytes.data());
    for (std::size_t i = 0; i < count; ++i)
    {
        wrong << (paths[i].isStrictUtf8(data, bytes.size()) != expected ? paths[i].name + std::string("; ") : "")
              << (paths[i].isStrictUtf8WithoutControls(data, bytes.size()) != clean
                      ? paths[i].name + std::string(" without controls; ")
                      : "");
    }
    if (wrong.str().empty())
    {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "well-formed: " << expected << ", wrong: " << wrong.str() << bytes.size()
                                       << " bytes: " << hex(bytes);
}

// Every line of the public stress-test file that spells its bytes in hex
// ("3.5.1 ... = fe = ..."): the 2.3 boundaries and 5.3 noncharacters are
// strict, the rest is not; CESU-8 pairs of 5.2 repair to the one character.
TEST(UTF8ValidatorTest, StressFileLinesSpelledInHex)
{
    const char* dir = std::getenv("QOR_TEST_DATA");
    std::ifstream file(std::string(dir != nullptr ? dir : "tests/data") + "/UTF-8-test.txt", std::ios::binary);
    std::size_t checked = 0;
    std::size_t pairs = 0;
    for (std::string line; std::getline(file, line);)
    {
        // The bytes are the two-digit hex words right before '= "'.
        const std::size_t quote = line.find("= \"");
        if (line.empty() || !std::isdigit(static_cast<unsigned char>(line[0])) || quote == std::string::npos)
        {
            continue;
        }
        std::istringstream words(line.substr(0, quote));
        std::vector<std::string> all{std::istream_iterator<std::string>(words), {}};
        std::string bytes;
        for (auto word = all.rbegin(); word != all.rend() && word->size() == 2 && std::isxdigit(word->at(0)); ++word)
        {
            bytes.insert(bytes.begin(), static_cast<char>(std::stoul(*word, nullptr, 16)));
        }
        if (bytes.empty())
        {
            continue;
        }
        ++checked;
        SCOPED_TRACE(line);
        const std::string id = all.front();
        EXPECT_EQ(qor::test::isWellFormedUtf8(bytes),
                  (id.compare(0, 4, "2.3.") == 0 && id != "2.3.5") || id.compare(0, 4, "5.3.") == 0);
        EXPECT_TRUE(allAgree(bytes));
        if (id.compare(0, 4, "5.2.") == 0)
        {
            // ed a0 80 ed b0 80 (U+D800 U+DC00) is U+10000, and so on.
            const unsigned high = (bytes[1] & 0x0Fu) << 6 | (bytes[2] & 0x3Fu);
            const unsigned low = (bytes[4] & 0x0Fu) << 6 | (bytes[5] & 0x3Fu);
            Utf8String expected;
            expected.append(qor::common::types::utf8::Utf8Char(0x10000 + (high << 10) + low));
            EXPECT_EQ(hex(repaired(bytes)), hex(expected.str()));
            ++pairs;
        }
    }
    EXPECT_EQ(checked, 40u) << "UTF-8-test.txt under QOR_TEST_DATA";
    EXPECT_EQ(pairs, 8u);
}

// Well-formed texts broken at every offset: cut, a byte erased or replaced by
// a byte at the edge of a range, or a sequence (or a prefix of one) inserted.
// The texts: ASCII of every length up to 40 and on each side of 16-byte
// steps up to 192 (the vector paths' blocks), mixed characters after 0-3
// ASCII bytes.
TEST(UTF8ValidatorTest, ValidatorsAgreeOnTextBrokenAtEveryOffset)
{
    const std::vector<std::string> inserts = {
        "\x80", "\xBF", "\xC0", "\xC1", "\xC2", "\xE0", "\xED", "\xF0", "\xF4", "\xF5", "\xFF", "\xC3\xA4",
        "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80",
    };
    const std::vector<std::string> characters = {
        "a", "\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xED\x9F\xBF", "\xF4\x8F\xBF\xBF",
        "\xE0\xA0\x80", "\xF0\x90\x80\x80", "\xDF\xBF", "\xEF\xBF\xBF", "\xF3\xBF\xBF\xBF", "\x7F",
    };
    const std::string badBytes("\x00\x41\x80\x8F\x90\x9F\xA0\xBF\xC0\xC2\xDF\xE0\xE1\xED\xEF\xF0\xF4\xF5\xFF", 19);
    std::vector<std::string> texts;
    for (std::size_t n = 0; n <= 193; ++n)
    {
        if (n <= 40 || (n + 1) % 16 <= 2)
        {
            texts.emplace_back(n, 'a');
        }
    }
    for (std::size_t shift = 0; shift < 4; ++shift)
    {
        std::string text(shift, 'x');
        for (std::size_t i = 0; text.size() < 200; ++i)
        {
            text += characters[i % characters.size()];
        }
        texts.push_back(text);
    }
#ifdef __aarch64__
    // The validator runs the last path; every AArch64 processor has NEON.
    std::size_t count = 0;
    ASSERT_STREQ(detail::availableUtf8CheckPaths(count)[count - 1].name, "neon");
#endif
    for (const std::string& text : texts)
    {
        ASSERT_TRUE(valid(text));
        for (std::size_t at = 0; at <= text.size(); ++at)
        {
            ASSERT_TRUE(allAgree(text.substr(0, at)));
            for (const std::string& insert : inserts)
            {
                for (std::size_t keep = 1; keep <= insert.size(); ++keep)
                {
                    ASSERT_TRUE(allAgree(std::string(text).insert(at, insert, 0, keep)));
                }
            }
            for (std::size_t i = 0; at < text.size() && i <= badBytes.size(); ++i)
            {
                std::string broken = text;
                ASSERT_TRUE(allAgree(i == badBytes.size() ? broken.erase(at, 1) : broken.replace(at, 1, 1, badBytes[i])));
            }
        }
    }
}

// Bytes at or just outside the edges of the table's ranges: every
// combination of up to three, and each lead followed by three bytes that
// matter after a lead; alone and after 62 ASCII bytes (crossing 64).
TEST(UTF8ValidatorTest, ValidatorsAgreeOnEveryShortSequenceOfRangeEdgeBytes)
{
    const std::string edges("\x00\x7F\x80\x8F\x90\x9F\xA0\xBF\xC0\xC1\xC2\xDF\xE0\xE1\xEC\xED\xEE\xEF\xF0\xF1\xF3\xF4\xF5\xFF",
                            24);
    const std::string followers("\x7F\x80\x8F\x90\x9F\xA0\xBF\xC2", 8);
    const std::string ascii(62, 'a');
    std::size_t wellFormed = 0;
    // Every string whose i-th byte is taken from alphabets[i].
    const auto forEvery = [&](const std::vector<std::string>& alphabets) {
        std::vector<std::size_t> digit(alphabets.size(), 0);
        for (std::size_t i = 0; i < digit.size() && !testing::Test::HasFatalFailure();)
        {
            std::string bytes;
            for (std::size_t j = 0; j < digit.size(); ++j)
            {
                bytes.push_back(alphabets[j][digit[j]]);
            }
            ASSERT_TRUE(allAgree(bytes));
            ASSERT_TRUE(allAgree(ascii + bytes));
            wellFormed += qor::test::isWellFormedUtf8(bytes) ? 1 : 0;
            for (i = 0; i < digit.size() && ++digit[i] == alphabets[i].size(); ++i)
            {
                digit[i] = 0;
            }
        }
    };
    forEvery({edges});
    forEvery({edges, edges});
    forEvery({edges, edges, edges});
    forEvery({edges.substr(8), followers, followers, followers});
    EXPECT_GT(wellFormed, 1000u) << "the combinations must include many well-formed ones";
}

// Uniform random bytes, bytes drawn from the range edges, and random
// well-formed text with one to three mutations.
TEST(UTF8ValidatorTest, ValidatorsAgreeAndRepairHoldsOnRandomInput)
{
    std::mt19937 random(20261122);
    const std::string edges("\x00\x41\x7F\x80\x8F\x90\x9F\xA0\xBF\xC1\xC2\xDF\xE0\xE1\xEC\xED\xEE\xEF\xF0\xF1\xF3\xF4\xF5\xFF",
                            24);
    static const std::uint32_t high[] = {0x7F, 0x7F, 0x7F, 0x7F, 0x7F, 0x7FF, 0x7FF, 0xFFFF, 0xFFFF, 0x10FFFF};
    for (int i = 0; i < 40000; ++i)
    {
        std::string bytes;
        if (i % 2 == 0)
        {
            bytes.resize(random() % 201);
            for (char& b : bytes)
            {
                b = i % 4 == 0 ? static_cast<char>(random()) : edges[random() % edges.size()];
            }
            // Whatever comes before a CESU-8 pair, repair gives strict text.
            ASSERT_TRUE(allAgree(bytes + "\xED\xA0\xBD\xED\xB8\x80"));
        }
        else
        {
            Utf8String text;
            for (int n = random() % 61; n > 0; --n)
            {
                std::uint32_t codePoint = random() % (high[random() % 10] + 1);
                text.append(qor::common::types::utf8::Utf8Char(codePoint >= 0xD800 && codePoint <= 0xDFFF ? 0x41 : codePoint));
            }
            bytes = text.str();
            // Repair drops exactly the controls from well-formed text.
            std::string stripped;
            std::copy_if(bytes.begin(), bytes.end(), std::back_inserter(stripped), [](char c) { return static_cast<unsigned char>(c) > 0x1F; });
            ASSERT_EQ(hex(repaired(bytes)), hex(stripped));
            ASSERT_TRUE(allAgree(bytes));
            for (int m = i % 3; m >= 0 && !bytes.empty(); --m)
            {
                const std::size_t at = random() % bytes.size();
                switch (random() % 4)
                {
                case 0: bytes[at] = static_cast<char>(random()); break;
                case 1: bytes.insert(at, 1, static_cast<char>(random())); break;
                case 2: bytes.erase(at, 1); break;
                default: bytes.resize(at); break;
                }
            }
        }
        ASSERT_TRUE(allAgree(bytes));
    }
}

TEST(UTF8ValidatorTest, RepairExamples)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {std::string("a\0b\tc\nd\re\x1F" "f\x7F", 12), "abcdef\x7F"},      // controls dropped
        {"\xED\xA0\xBD\xED\xB8\x80", "\xF0\x9F\x98\x80"},                   // CESU-8 pair
        {"\xED\xA0\x80" "A", "A"},                                          // lone high surrogate
        {"\xE4\xB8" "A", "A"},                                              // broken sequence, breaking byte kept
        {"\xE4\xED\xA0\xBD\xED\xB8\x80\xB8\xAD", "\xF0\x9F\x98\x80\xE4\xB8\xAD"}, // sequence open across a pair
        {"x\xED\xA0\x80\xED", "x"},                                         // pair cut off by the end
        {"\xED\xA0\xBD\xED\xA8\x80", ""},                                   // pair with a bad low half
        {"ab\xF0\x9F\x98", "ab"},                                           // unfinished at the end
    };
    for (const auto& c : cases)
    {
        EXPECT_EQ(hex(repaired(c.first)), hex(c.second)) << hex(c.first);
    }
}

TEST(UTF8ValidatorTest, FailedReservationIsLoggedAndTheRepairGoesOn)
{
    auto sink = qor::test::RecordingLogSink::install();
    const std::string input = std::string(1000, 'a') + "\xED\xA0\xBD\xED\xB8\x80\n";
    const Utf8String text(input);
    // The result reserves the input's size (plus the terminator) first.
    qor::test::FailingAllocation::failNextOfSize(input.size() + 1);
    const std::string result = UTF8Validator::makeStrictUtf8Conform(text).str();
    EXPECT_FALSE(qor::test::FailingAllocation::pending());
    qor::test::FailingAllocation::failNextOfSize(0);

    EXPECT_EQ(result, std::string(1000, 'a') + "\xF0\x9F\x98\x80");
    const auto records = sink->recordsOf(kLogger);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, LogLevel::Error);
    EXPECT_EQ(records[0].text,
              "makeStrictUtf8Conform: caught an Exception: 'std::bad_alloc' trying to reserve space for strings!\n");
}

TEST(UTF8ValidatorTest, ConversionLogsGroupsItCannotConvert)
{
    auto sink = qor::test::RecordingLogSink::install();
    Utf8String out("x");
    EXPECT_FALSE(detail::convertCESU8ToUTF8("\xED\xA0\xBD\xED\xB8", out));
    EXPECT_FALSE(detail::convertCESU8ToUTF8("\xED\xA0\xBD\xED\xA8\x80", out)); // low half below B0
    EXPECT_FALSE(detail::convertCESU8ToUTF8("\xED\xB0\xBD\xED\xB8\x80", out)); // high half above AF
    EXPECT_EQ(out.str(), "x");
    EXPECT_TRUE(detail::convertCESU8ToUTF8("\xED\xAF\xBF\xED\xBF\xBF", out)); // U+10FFFF
    EXPECT_EQ(hex(out.str()), hex("x\xF4\x8F\xBF\xBF"));

    // E4 opens a sequence; the group ED A0 80 ED is cut off by the end and
    // stays collected. ED breaks the E4 sequence and is looked at again: the
    // collected bytes plus ED A0 make six that are not a surrogate pair.
    EXPECT_EQ(repaired("\xE4\xED\xA0\x80\xED"), "");

    const std::string badPair = "convertCESU8ToUTF8: Can't convert CESU-8 into UTF-8 - invalid CESU-8 surrogates pair!\n";
    const std::vector<std::string> expected = {
        "convertCESU8ToUTF8: Can't convert CESU-8 into UTF-8 - invalid source string!\n", badPair, badPair, badPair};
    EXPECT_EQ(sink->textsOf(kLogger), expected);
    for (const auto& record : sink->recordsOf(kLogger))
    {
        EXPECT_EQ(record.level, LogLevel::Error);
    }
}

} // namespace
