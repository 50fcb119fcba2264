#include "qor/nav/sdk/utils/validation/UTF8Validator.h"

// The byte-at-a-time reference automaton, the CESU-8 conversion and every
// whole-buffer check path are internal; the tests compare against them.
#include "../../../../../../src/qor/nav/sdk/utils/validation/Utf8Automaton.h"
#include "../../../../../../src/qor/nav/sdk/utils/validation/Utf8Check.h"

#include "support/FailingAllocation.h"
#include "support/RecordingLogSink.h"
#include "support/WellFormedUtf8.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <map>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace {

using qor::common::logging::LogLevel;
using qor::common::types::utf8::Utf8Char;
using qor::common::types::utf8::Utf8String;
using qor::nav::sdk::utils::validation::UTF8Validator;
namespace detail = qor::nav::sdk::utils::validation::detail;

const char* const kLogger = "qor.nav.sdk.utils.UTF8Validator";
const char* const kBadPair = "convertCESU8ToUTF8: Can't convert CESU-8 into UTF-8 - invalid CESU-8 surrogates pair!\n";

bool valid(const std::string& bytes) { return UTF8Validator::validateStrictUtf8(Utf8String(bytes)); }
bool reference(const std::string& bytes) { return detail::validateStrictUtf8Reference(bytes.data(), bytes.size()); }
bool unicode(const std::string& bytes) { return qor::test::isWellFormedUtf8(bytes); }
std::string repaired(const std::string& bytes) { return UTF8Validator::makeStrictUtf8Conform(Utf8String(bytes)).str(); }

std::string encode(std::uint32_t codePoint)
{
    Utf8String text;
    text.append(Utf8Char(codePoint));
    return text.str();
}

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

// --- The public stress-test file -------------------------------------------

std::string testDataDirectory()
{
    const char* dir = std::getenv("QOR_TEST_DATA");
    const std::string self = __FILE__;
    return dir ? dir : self.substr(0, self.rfind("/qor/nav/sdk/utils/validation/")) + "/data";
}

// The numbered lines of UTF-8-test.txt ("4.1.1 U+002F = c0 af = ..."), by section id.
std::map<std::string, std::string> stressTestLines()
{
    std::ifstream file(testDataDirectory() + "/UTF-8-test.txt", std::ios::binary);
    std::map<std::string, std::string> lines;
    const std::regex numbered(R"(^(\d+\.\d+\.\d+)\s)");
    std::smatch match;
    for (std::string line; std::getline(file, line);)
    {
        if (std::regex_search(line, match, numbered))
        {
            lines[match[1]] = line;
        }
    }
    return lines;
}

// The bytes a line spells in hexadecimal before its quoted sample, "" if none.
std::string hexBytesOf(const std::string& line)
{
    static const std::regex notation(R"(((?:[0-9a-f]{2} )+)\s*= ")");
    std::smatch match;
    std::string bytes;
    if (std::regex_search(line, match, notation))
    {
        std::istringstream in(match[1].str());
        for (unsigned value; in >> std::hex >> value;)
        {
            bytes.push_back(static_cast<char>(value));
        }
    }
    return bytes;
}

// The bytes between the first and the last double quote of a line.
std::string quotedBytesOf(const std::string& line)
{
    const std::size_t first = line.find('"');
    const std::size_t last = line.rfind('"');
    return first < last ? line.substr(first + 1, last - first - 1) : std::string();
}

TEST(UTF8ValidatorTest, StressFileSections)
{
    const auto lines = stressTestLines();
    ASSERT_GT(lines.size(), 70u) << "UTF-8-test.txt not found under " << testDataDirectory();

    // Lines spelled in hex: 2.3.1-2.3.4 boundaries and 5.3.1-5.3.2
    // noncharacters are strict; 2.3.5, 3.5, 4.1-4.3, 5.1 and 5.2 are not.
    const std::vector<std::string> strict = {"2.3.1", "2.3.2", "2.3.3", "2.3.4", "5.3.1", "5.3.2"};
    const std::regex pair(R"(U\+([0-9A-F]{4}) U\+([0-9A-F]{4}) = )");
    std::size_t checked = 0;
    std::size_t pairs = 0;
    for (const auto& entry : lines)
    {
        const std::string bytes = hexBytesOf(entry.second);
        if (bytes.empty())
        {
            continue;
        }
        ++checked;
        SCOPED_TRACE(entry.first + ": " + hex(bytes));
        const bool expected = std::find(strict.begin(), strict.end(), entry.first) != strict.end();
        EXPECT_EQ(valid(bytes), expected);
        EXPECT_EQ(reference(bytes), expected);
        EXPECT_EQ(unicode(bytes), expected);
        std::smatch match;
        if (expected)
        {
            EXPECT_EQ(quotedBytesOf(entry.second), bytes);
            EXPECT_EQ(repaired(bytes), bytes);
        }
        else if (entry.first.compare(0, 4, "5.2.") != 0)
        {
            EXPECT_EQ(repaired(bytes), "") << "nothing of it can be decoded";
        }
        else if (std::regex_search(entry.second, match, pair))
        {
            // "U+D800 U+DC00 = ed a0 80 ed b0 80": CESU-8 of U+10000.
            ++pairs;
            const auto high = static_cast<std::uint32_t>(std::stoul(match[1], nullptr, 16));
            const auto low = static_cast<std::uint32_t>(std::stoul(match[2], nullptr, 16));
            EXPECT_EQ(hex(repaired(bytes)), hex(encode(0x10000 + ((high - 0xD800) << 10) + (low - 0xDC00))));
        }
    }
    EXPECT_EQ(checked, 5u + 3u + 15u + 7u + 8u + 2u);
    EXPECT_EQ(pairs, 8u);

    // Quoted well-formed samples: first and last sequences of each length
    // (2.1.1 is U+0000, dropped by repair) and 5.3.3 noncharacters.
    for (const char* id : {"2.1.1", "2.1.2", "2.1.3", "2.1.4", "2.2.1", "2.2.2", "2.2.3", "5.3.3"})
    {
        SCOPED_TRACE(id);
        const std::string sample = quotedBytesOf(lines.at(id));
        ASSERT_FALSE(sample.empty());
        EXPECT_TRUE(valid(sample));
        EXPECT_TRUE(valid("x" + sample + "y"));
    }
    EXPECT_EQ(repaired(quotedBytesOf(lines.at("2.1.1"))), "");
}

TEST(UTF8ValidatorTest, MalformedSequencesOfTheStressSections)
{
    std::string continuations; // 3.1.9: all 64 continuation bytes
    for (int b = 0x80; b <= 0xBF; ++b)
    {
        continuations.push_back(static_cast<char>(b));
    }
    EXPECT_EQ(repaired(continuations), "");
    for (const std::string& bytes : std::vector<std::string>{
             "\xF8\x88\x80\x80\x80", "\xFC\x84\x80\x80\x80\x80", "\xF7\xBF\xBF\xBF", "\xFD\xBF\xBF\xBF\xBF\xBF",
             "\x80", "\xBF", "\x80\xBF\x80\xBF\x80\xBF\x80", continuations, "\xC0 ", "\xDF ", "\xE0 ", "\xF0 ",
             "\xF8 ", "\xFD ", "\xC0", "\xE0\x80", "\xF0\x80\x80", "\xDF", "\xEF\xBF", "\xF7\xBF\xBF",
             "\xC0\xE0\x80\xF0\x80\x80\xF8\x80\x80\x80\xFC\x80\x80\x80\x80\xDF\xEF\xBF\xF7\xBF\xBF\xFB\xBF\xBF\xBF"
             "\xFD\xBF\xBF\xBF\xBF",
             // CESU-8, overlong, above U+10FFFF; a reject stops the reading.
             "\xED\xA0\xBD\xED\xB8\x80", "\xC1\xBF", "\xF5\x80\x80\x80", "\xFF" "abc"})
    {
        SCOPED_TRACE(hex(bytes));
        EXPECT_FALSE(valid(bytes));
        EXPECT_FALSE(valid("abcdefghijklmnop" + bytes));
        EXPECT_FALSE(reference(bytes));
        EXPECT_TRUE(valid(repaired(bytes)));
    }
    EXPECT_TRUE(valid(std::string("a\0\t\n\r\x1F", 6))) << "controls are strict UTF-8";
}

// --- Differential checks against the Unicode table -------------------------

// The validator, the automaton and every whole-buffer check path must agree
// with the table; repair must give its input back unchanged exactly when it
// is well-formed and free of control characters.
testing::AssertionResult allAgree(const std::string& bytes)
{
    const bool expected = unicode(bytes);
    const bool clean = expected && withoutControls(bytes);
    std::ostringstream wrong;
    wrong << (valid(bytes) != expected ? "validator; " : "") << (reference(bytes) != expected ? "automaton; " : "")
          << ((repaired(bytes) == bytes) != clean ? "repair; " : "");
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

// Well-formed texts (ASCII of lengths around the edges of 8- to 64-byte
// blocks and the scalar tail; about 200 bytes cycling through characters of every length, edge values included,
// after 0-3 ASCII bytes) cut, erased, overwritten and with a sequence or a
// prefix of one inserted at every offset.
TEST(UTF8ValidatorTest, ValidatorsAgreeOnTextBrokenAtEveryOffset)
{
    const std::vector<std::string> inserts = {
        "\x80", "\xBF", "\xC0", "\xC1", "\xC2", "\xE0", "\xED", "\xF0", "\xF4", "\xF5", "\xFF",  // bad alone
        "\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x98\x80",                                          // good
        "\xE0\x9F\xBF", "\xED\xA0\x80", "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80",                   // bad
    };
    const std::vector<std::string> characters = {
        "a", "\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xED\x9F\xBF", "\xF4\x8F\xBF\xBF",
        "\xE0\xA0\x80", "\xF0\x90\x80\x80", "\xDF\xBF", "\xEF\xBF\xBF", "\xF3\xBF\xBF\xBF", "\x7F",
    };
    const std::string badBytes("\x00\x41\x80\x8F\x90\x9F\xA0\xBF\xC0\xC2\xDF\xE0\xE1\xED\xEF\xF0\xF4\xF5\xFF", 19);
    // ASCII of every length up to 40, then each side of every 16-byte step.
    std::vector<std::string> texts = {std::string(200, 'a')};
    for (std::size_t n = 0; n <= 40; ++n)
    {
        texts.emplace_back(n, 'a');
    }
    for (std::size_t edge = 48; edge <= 192; edge += 16)
    {
        texts.insert(texts.end(), {std::string(edge - 1, 'a'), std::string(edge, 'a'), std::string(edge + 1, 'a')});
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
    const detail::Utf8CheckPath* paths = detail::availableUtf8CheckPaths(count);
    ASSERT_STREQ(paths[count - 1].name, "neon");
#endif
    for (const std::string& text : texts)
    {
        ASSERT_TRUE(valid(text));
        ASSERT_TRUE(allAgree(text));
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

TEST(UTF8ValidatorTest, ValidatorsAgreeOnLongRunsWithAFaultNearTheirEdges)
{
    // Well-formed runs, then runs of what is never allowed.
    for (const std::string unit : {"a", "\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\x80", "\xED\xA0\x80", "\xC0\xAF"})
    {
        std::string run;
        while (run.size() < 4096)
        {
            run += unit;
        }
        SCOPED_TRACE(hex(unit));
        for (const std::string tail : {"", "\xC3", "\xE2\x82", "\xF0\x9F\x98", "\xFF", "\xF4\x90\x80\x80"})
        {
            ASSERT_TRUE(allAgree(run + tail));
        }
        for (const std::size_t at : {0u, 7u, 8u, 15u, 16u, 31u, 32u, 63u, 64u, 65u, 127u, 128u, 4031u, 4032u, 4095u})
        {
            for (const char bad : {'\x80', '\xC0', '\xFF', 'a'})
            {
                std::string broken = run;
                broken[at] = bad;
                ASSERT_TRUE(allAgree(broken)) << "at " << at;
            }
        }
    }
    EXPECT_TRUE(valid(std::string(1 << 20, 'a') + "\xF4\x8F\xBF\xBF"));
    EXPECT_FALSE(valid(std::string(1 << 20, 'a') + "\xF4\x8F\xBF"));
}

// Calls `check` with every string whose i-th byte is taken from alphabets[i].
template <typename Check>
void forEveryCombination(const std::vector<std::string>& alphabets, Check check)
{
    std::vector<std::size_t> digit(alphabets.size(), 0);
    for (std::size_t i = 0; i < digit.size();)
    {
        std::string bytes;
        for (std::size_t j = 0; j < digit.size(); ++j)
        {
            bytes.push_back(alphabets[j][digit[j]]);
        }
        check(bytes);
        for (i = 0; i < digit.size() && ++digit[i] == alphabets[i].size(); ++i)
        {
            digit[i] = 0;
        }
    }
}

TEST(UTF8ValidatorTest, ValidatorsAgreeOnEveryShortSequenceOfRangeEdgeBytes)
{
    // Bytes at or just outside the edges of the table's ranges: every
    // combination of up to three, and each lead followed by three bytes that
    // matter after a lead; alone and after 62 ASCII bytes (crossing 64).
    const std::string edges("\x00\x7F\x80\x8F\x90\x9F\xA0\xBF\xC0\xC1\xC2\xDF\xE0\xE1\xEC\xED\xEE\xEF\xF0\xF1\xF3\xF4\xF5\xFF",
                            24);
    const std::string followers("\x7F\x80\x8F\x90\x9F\xA0\xBF\xC2", 8);
    const std::string ascii(62, 'a');
    std::size_t wellFormed = 0;
    const auto check = [&](const std::string& bytes) {
        if (testing::Test::HasFatalFailure())
        {
            return; // report the first disagreement only
        }
        ASSERT_TRUE(allAgree(bytes));
        ASSERT_TRUE(allAgree(ascii + bytes));
        wellFormed += unicode(bytes) ? 1 : 0;
    };
    forEveryCombination({edges}, check);
    forEveryCombination({edges, edges}, check);
    forEveryCombination({edges, edges, edges}, check);
    forEveryCombination({edges.substr(8), followers, followers, followers}, check);
    EXPECT_GT(wellFormed, 1000u) << "the combinations must include many well-formed ones";
}

// Random well-formed text of up to `maxCharacters`, half of it ASCII.
std::string randomValidText(std::mt19937& random, int maxCharacters)
{
    static const std::uint32_t low[] = {0, 0, 0, 0, 0, 0x80, 0x80, 0x800, 0x800, 0x10000};
    static const std::uint32_t high[] = {0x7F, 0x7F, 0x7F, 0x7F, 0x7F, 0x7FF, 0x7FF, 0xFFFF, 0xFFFF, 0x10FFFF};
    std::string text;
    for (int n = std::uniform_int_distribution<int>(0, maxCharacters)(random); n > 0; --n)
    {
        const std::size_t k = random() % 10;
        std::uint32_t codePoint = std::uniform_int_distribution<std::uint32_t>(low[k], high[k])(random);
        text += encode(codePoint >= 0xD800 && codePoint <= 0xDFFF ? codePoint - 0x800 : codePoint);
    }
    return text;
}

TEST(UTF8ValidatorTest, ValidatorsAgreeAndRepairHoldsOnRandomInput)
{
    // Whatever comes before a pair, repair gives strict text without controls.
    const auto repairsToStrictText = [](const std::string& bytes) {
        const std::string fixed = repaired(bytes + "\xED\xA0\xBD\xED\xB8\x80");
        return unicode(fixed) && withoutControls(fixed) && fixed.size() <= bytes.size() + 4;
    };
    std::mt19937 random(20261122);
    std::uniform_int_distribution<int> byte(0, 255);
    // Uniform bytes are rarely valid past the first few; bytes drawn from the
    // edges of the table's ranges get much further.
    const std::string edges("\x00\x41\x7F\x80\x8F\x90\x9F\xA0\xBF\xC1\xC2\xDF\xE0\xE1\xEC\xED\xEE\xEF\xF0\xF1\xF3\xF4\xF5\xFF",
                            24);
    for (int i = 0; i < 20000; ++i)
    {
        std::string bytes(random() % 201, '\0');
        for (char& b : bytes)
        {
            b = i % 2 == 0 ? static_cast<char>(byte(random)) : edges[random() % edges.size()];
        }
        ASSERT_TRUE(allAgree(bytes));
        ASSERT_TRUE(repairsToStrictText(bytes)) << hex(bytes);
    }
    for (int i = 0; i < 20000; ++i)
    {
        std::string text = randomValidText(random, 60);
        ASSERT_TRUE(valid(text)) << hex(text);
        ASSERT_TRUE(allAgree(text));
        // Repair drops exactly the controls from well-formed text.
        std::string stripped;
        std::copy_if(text.begin(), text.end(), std::back_inserter(stripped),
                     [](char c) { return static_cast<unsigned char>(c) > 0x1F; });
        ASSERT_EQ(hex(repaired(stripped)), hex(stripped));
        ASSERT_EQ(hex(repaired(text)), hex(stripped));
        // One to three mutations: overwrite, insert, erase or cut the end.
        for (int m = i % 3; m >= 0 && !text.empty(); --m)
        {
            const std::size_t at = random() % text.size();
            switch (byte(random) % 4)
            {
            case 0: text[at] = static_cast<char>(byte(random)); break;
            case 1: text.insert(at, 1, static_cast<char>(byte(random))); break;
            case 2: text.erase(at, 1); break;
            default: text.resize(at); break;
            }
        }
        ASSERT_TRUE(allAgree(text));
        ASSERT_TRUE(repairsToStrictText(text)) << hex(text);
    }
}

// --- makeStrictUtf8Conform -------------------------------------------------

TEST(UTF8ValidatorTest, RepairExamples)
{
    const std::vector<std::tuple<const char*, std::string, std::string>> cases = {
        {"empty", "", ""},
        {"controls dropped", std::string("a\0b\tc\nd\re\x1F" "f\x7F", 12), "abcdef\x7F"},
        {"CESU-8 pair", "\xED\xA0\xBD\xED\xB8\x80", "\xF0\x9F\x98\x80"},
        {"lone high surrogate", "\xED\xA0\x80" "A", "A"},
        {"overlong", "\xC0\x80", ""},
        {"above U+10FFFF", "\xF4\x90\x80\x80", ""},
        {"broken sequence, breaking byte kept", "\xE4\xB8" "A", "A"},
        {"sequence open across a pair", "\xE4\xED\xA0\xBD\xED\xB8\x80\xB8\xAD", "\xF0\x9F\x98\x80\xE4\xB8\xAD"},
        {"pair cut off by the end", "x\xED\xA0\x80\xED", "x"},
        {"pair with a bad low half", "\xED\xA0\xBD\xED\xA8\x80", ""},
        {"unfinished at the end", "ab\xF0\x9F\x98", "ab"},
    };
    for (const auto& c : cases)
    {
        EXPECT_EQ(hex(repaired(std::get<1>(c))), hex(std::get<2>(c))) << std::get<0>(c);
    }
}

TEST(UTF8ValidatorTest, FailedReservationIsLoggedAndTheRepairGoesOn)
{
    auto sink = qor::test::RecordingLogSink::install();
    const std::string input = std::string(1000, 'a') + "\xED\xA0\xBD\xED\xB8\x80\n";
    const Utf8String text(input);
    // The result reserves the input's size (plus the terminator) first.
    qor::test::FailingAllocation::failNextOfSize(input.size() + 1);
    const Utf8String result = UTF8Validator::makeStrictUtf8Conform(text);
    EXPECT_FALSE(qor::test::FailingAllocation::pending());
    qor::test::FailingAllocation::failNextOfSize(0);

    EXPECT_EQ(result.str(), std::string(1000, 'a') + "\xF0\x9F\x98\x80");
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

    const std::vector<std::string> expected = {
        "convertCESU8ToUTF8: Can't convert CESU-8 into UTF-8 - invalid source string!\n", kBadPair, kBadPair, kBadPair};
    EXPECT_EQ(sink->textsOf(kLogger), expected);
    for (const auto& record : sink->recordsOf(kLogger))
    {
        EXPECT_EQ(record.level, LogLevel::Error);
    }
}

} // namespace
