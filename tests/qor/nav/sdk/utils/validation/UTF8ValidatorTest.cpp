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
#include <fstream>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

using qor::common::logging::LogLevel;
using qor::common::types::utf8::Utf8String;
using qor::nav::sdk::utils::validation::UTF8Validator;
namespace detail = qor::nav::sdk::utils::validation::detail;

const char* const kLogger = "qor.nav.sdk.utils.UTF8Validator";

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

// Bytes at or just outside the edges of the table's ranges.
const std::string kEdges("\x00\x7F\x80\x8F\x90\x9F\xA0\xBF\xC0\xC1\xC2\xDF"
                         "\xE0\xE1\xEC\xED\xEE\xEF\xF0\xF1\xF3\xF4\xF5\xFF", 24);

// The validator, the automaton, every check path and repair held against the
// table on uniform random bytes, on bytes drawn from the range edges (some
// short ones after an ASCII run, to cross the vector paths' steps; some before
// a CESU-8 pair, which must repair to strict text whatever precedes it), and
// on random well-formed text, whose repair drops exactly the controls, with
// up to three mutations.
TEST(UTF8ValidatorTest, ValidatorsAgreeAndRepairHoldsOnRandomInput)
{
    // The validator runs the last path: NEON on every AArch64 processor, on
    // x86-64 the widest the processor has.
    std::size_t count = 0;
    const char* const fastest = detail::availableUtf8CheckPaths(count)[count - 1].name;
#if defined(__aarch64__)
    ASSERT_STREQ(fastest, "neon");
#elif defined(__x86_64__)
    ASSERT_STREQ(fastest, __builtin_cpu_supports("avx2") ? "avx2" : __builtin_cpu_supports("sse4.1") ? "sse4.1" : "scalar");
#else
    ASSERT_STREQ(fastest, "scalar");
#endif
    std::mt19937 random(20261122);
    static const std::uint32_t high[] = {0x7F, 0x7F, 0x7F, 0x7F, 0x7F, 0x7FF, 0x7FF, 0xFFFF, 0xFFFF, 0x10FFFF};
    for (int i = 0; i < 40000; ++i)
    {
        std::string bytes;
        if (i % 2 == 0)
        {
            const bool afterAscii = i % 6 == 0;
            bytes.assign(afterAscii ? random() % 256 : 0, 'a');
            for (std::size_t n = random() % (afterAscii ? 5 : 201); n > 0; --n)
            {
                bytes.push_back(i % 4 == 0 ? static_cast<char>(random()) : kEdges[random() % kEdges.size()]);
            }
            bytes += i % 8 == 2 ? "\xED\xA0\xBD\xED\xB8\x80" : "";
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
            std::string stripped = bytes;
            stripped.erase(std::remove_if(stripped.begin(), stripped.end(), [](char c) { return static_cast<unsigned char>(c) <= 0x1F; }),
                           stripped.end());
            ASSERT_EQ(hex(repaired(bytes)), hex(stripped));
            ASSERT_EQ(qor::test::validationDisagreements(bytes), "") << hex(bytes);
            // Up to three bytes replaced, erased or inserted (none or one by
            // none or one random byte), then sometimes cut.
            for (int m = i % 3; m >= 0 && !bytes.empty(); --m)
            {
                bytes.replace(random() % bytes.size(), random() % 2, random() % 2, static_cast<char>(random()));
            }
            bytes.resize(i % 7 == 1 ? random() % (bytes.size() + 1) : bytes.size());
        }
        ASSERT_EQ(qor::test::validationDisagreements(bytes), "") << hex(bytes);
    }
}

// Every line of the public stress-test file that spells its bytes in hex
// ("3.5.1 ... = fe = ..."): the 2.3 boundaries and 5.3 noncharacters are
// strict, the rest is not; CESU-8 pairs of 5.2 repair to the one character.
TEST(UTF8ValidatorTest, StressFileLinesSpelledInHex)
{
    const char* dir = std::getenv("QOR_TEST_DATA");
    std::ifstream file(std::string(dir != nullptr ? dir : "tests/data") + "/UTF-8-test.txt", std::ios::binary);
    // The id, then the two-digit hex words right before '= "'.
    const std::regex spelled(R"(^(\d\.\d\.\d+) .*?((?:[0-9a-f]{2} )+) *= ")");
    std::size_t checked = 0;
    std::smatch match;
    for (std::string line; std::getline(file, line);)
    {
        if (!std::regex_search(line, match, spelled))
        {
            continue;
        }
        std::istringstream words(match[2]);
        std::string bytes;
        for (unsigned byte = 0; words >> std::hex >> byte;)
        {
            bytes.push_back(static_cast<char>(byte));
        }
        ++checked;
        SCOPED_TRACE(line);
        const std::string id = match[1];
        EXPECT_EQ(qor::test::isWellFormedUtf8(bytes),
                  (id.compare(0, 4, "2.3.") == 0 && id != "2.3.5") || id.compare(0, 4, "5.3.") == 0);
        ASSERT_EQ(qor::test::validationDisagreements(bytes), "") << hex(bytes);
        if (id.compare(0, 4, "5.2.") == 0)
        {
            // ed a0 80 ed b0 80 (U+D800 U+DC00) is U+10000, and so on.
            const unsigned high = (bytes[1] & 0x0Fu) << 6 | (bytes[2] & 0x3Fu);
            const unsigned low = (bytes[4] & 0x0Fu) << 6 | (bytes[5] & 0x3Fu);
            Utf8String expected;
            expected.append(qor::common::types::utf8::Utf8Char(0x10000 + (high << 10) + low));
            EXPECT_EQ(hex(repaired(bytes)), hex(expected.str()));
        }
    }
    EXPECT_EQ(checked, 40u) << "UTF-8-test.txt under QOR_TEST_DATA";
}

TEST(UTF8ValidatorTest, RepairExamples)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"\xED\xA0\x80\xED\xB0\x80", "\xF0\x90\x80\x80"},                   // CESU-8 pair: U+10000
        {"\xED\xAF\xBF\xED\xBF\xBF", "\xF4\x8F\xBF\xBF"},                   // and U+10FFFF
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

// Repair goes on without its reservation; the conversion refuses groups
// that are not six bytes or not a surrogate pair. Each logs an error.
TEST(UTF8ValidatorTest, FailedReservationAndGroupsThatCannotBeConvertedAreLogged)
{
    qor::test::RecordingLogSink::Installation sink;
    const Utf8String text(std::string(1000, 'a') + "\xED\xA0\xBD\xED\xB8\x80\n");
    // The result reserves the input's size (plus the terminator) first.
    qor::test::FailingAllocation::failNextOfSize(text.size() + 1);
    EXPECT_EQ(UTF8Validator::makeStrictUtf8Conform(text).str(), std::string(1000, 'a') + "\xF0\x9F\x98\x80");
    EXPECT_FALSE(qor::test::FailingAllocation::pending());
    qor::test::FailingAllocation::failNextOfSize(0);

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
    // A pair broken after its high half is no group: nothing to convert.
    EXPECT_EQ(repaired("\xED\xA0\xBD" "A\xB8\x80"), "A");

    const std::string badPair = "convertCESU8ToUTF8: Can't convert CESU-8 into UTF-8 - invalid CESU-8 surrogates pair!\n";
    const std::vector<std::string> expected = {
        "makeStrictUtf8Conform: caught an Exception: 'std::bad_alloc' trying to reserve space for strings!\n",
        "convertCESU8ToUTF8: Can't convert CESU-8 into UTF-8 - invalid source string!\n", badPair, badPair, badPair};
    std::vector<std::string> texts;
    for (const auto& record : sink->recordsOf(kLogger))
    {
        texts.push_back(record.text);
        EXPECT_EQ(record.level, LogLevel::Error);
    }
    EXPECT_EQ(texts, expected);
}

} // namespace
