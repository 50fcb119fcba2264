#include "qor/nav/sdk/utils/common/CharacterReplacements.h"

#include "support/ReplacementModel.h"
#include "support/TestSync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using qor::common::types::utf8::Utf8String;
using qor::nav::middleware::interface::types::language::LanguageId;
using qor::nav::sdk::utils::common::CharacterReplacements;

using Table = CharacterReplacements::ReplacementTable;
using qor::test::describe;

const LanguageId kKey(0x8000, 7258, 998, 0);

CharacterReplacements& instance() { return CharacterReplacements::getInstance(); }
void use(const Table& table) { instance().setCharacterReplacements({{kKey, table}}); }

std::string applied(const std::string& input)
{
    Utf8String text(input);
    instance().applyCharacterReplacements(text);
    return text.str();
}

// The table set is process-wide: every test starts and ends with it empty.
class CharacterReplacementsTest : public testing::Test
{
protected:
    void SetUp() override { instance().setCharacterReplacements({}); }
    void TearDown() override { instance().setCharacterReplacements({}); }
};

TEST_F(CharacterReplacementsTest, ReadersUseOnlyTheReplacementKeysTable)
{
    EXPECT_EQ(CharacterReplacements::getReplacementLanguageId(), kKey);
    instance().setCharacterReplacements({{LanguageId(0x8000, 7258, 998, 1), {{"a", "X"}}},
                                         {LanguageId(0x8000, 7259, 998, 0), {{"a", "Y"}}}});
    EXPECT_EQ(applied("abc"), "abc");
    EXPECT_EQ(describe(instance().replaceCharacters("abc")), "abc []");
    // Nothing is merged: the whole set is replaced.
    instance().setCharacterReplacements({{kKey, {{"a", "Z"}}}});
    EXPECT_EQ(applied("abc"), "Zbc");
    instance().setCharacterReplacements({{LanguageId(1, 2, 3, 4), {{"a", "Q"}}}});
    EXPECT_EQ(applied("abc"), "abc");
}

// Worked examples of the rule on text the random test below cannot reach:
// bytes that cannot be decoded and an empty search text.
TEST_F(CharacterReplacementsTest, ReplaceCharactersExamples)
{
    // What, table, input, then the text and the records it gives.
    const std::vector<std::tuple<const char*, Table, std::string, std::string>> cases = {
        {"bad input: no entry can search it", {{"a", "b"}}, "a\xFF", "a\xFF []"},
        {"bad search text skips only its entry", {{"\xFF", "x"}, {"a", "b"}}, "abc", "bbc [0:a>b ]"},
        // Measured only when a later candidate is tested against it; that
        // ends the later entry, what was kept stays.
        {"bad replacement text", {{"a", "\xFF"}, {"c", "C"}, {"b", "B"}}, "abc", "\xFF" "bc [0:a>\xFF ]"},
        // Right of every earlier record it is never measured: both records
        // are applied, the left one counting only its own characters.
        {"bad replacement text on the right", {{"a", "c"}, {"b", "\xFF"}}, "ab", "c\xFF [0:a>c 1:b>\xFF ]"},
        // Replaced again from the left, its bytes count one character each.
        {"bad replacement text swallowed", {{"ab", "x"}, {"b", "\xC3\xFF"}}, "abc", "x\xFF" "c [0:ab>x 1:b>\xC3\xFF ]"},
        {"empty search text takes every free position", {{"", "X"}}, "abc", "XaXbXc [0:>X 1:>X 2:>X ]"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(std::get<0>(c));
        use(std::get<1>(c));
        EXPECT_EQ(describe(instance().replaceCharacters(std::get<2>(c))), std::get<3>(c));
    }
}

// Random text over a small alphabet of one- to four-byte characters, so that
// search texts hit often and overlap; with `broken`, also pieces that are not
// well-formed (a lone continuation, a cut lead byte, a surrogate, a lead
// byte that a following 80..BF completes).
std::string randomText(std::mt19937& random, std::size_t maxCharacters, bool broken = false)
{
    static const char* const alphabet[] = {"a", "b", " ", "\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x98\x80",
                                           "\x80", "\xC3", "\xED\xA0\x80", "\xFF"};
    std::string text;
    for (std::size_t n = random() % (maxCharacters + 1); n > 0; --n)
    {
        text += alphabet[random() % (broken ? 10 : 6)];
    }
    return text;
}

TEST_F(CharacterReplacementsTest, ReadersMatchTheRuleAppliedStepByStepOnRandomTables)
{
    std::mt19937 random(4711);
    for (int round = 0; round < 3000; ++round)
    {
        // Every fourth table has replacement texts that cannot be decoded,
        // every twentieth also search texts; every fiftieth text is broken.
        Table table;
        for (std::size_t n = 1 + random() % 6; n > 0; --n)
        {
            const std::string from = randomText(random, 3, round % 20 == 1);
            // Replacement texts from empty to longer than any search text.
            table.emplace_back(from.empty() ? "a" : from, randomText(random, round % 5 == 0 ? 12 : 4, round % 4 == 1));
        }
        // Mostly short lines, some with many records, a few past 4 KiB.
        const std::size_t length = round % 1000 == 999 ? 3000 : round % 10 == 0 ? 400 : 40;
        const Utf8String text(randomText(random, length, round % 50 == 3));
        ASSERT_EQ(qor::test::replacementDisagreements(text, table), "") << "round " << round << ", text " << text.str();
    }
}

// Two readers, one of each kind, run until each has seen both tables (or
// time is up); no reader may see a mix of the two.
TEST_F(CharacterReplacementsTest, ReadersSeeWholeTablesWhileAWriterReplacesThem)
{
    const auto deadline = std::chrono::steady_clock::now() + qor::test::kDefaultDeadline;
    std::atomic<int> readersDone{0};
    std::atomic<int> mixedResults{0};
    const auto read = [&](bool byRecords) {
        std::set<std::string> seen;
        while ((seen.count("111") == 0 || seen.count("222") == 0) && std::chrono::steady_clock::now() < deadline)
        {
            const std::string text = byRecords ? instance().replaceCharacters("abc").text.str() : applied("abc");
            mixedResults += text != "111" && text != "222" && text != "abc" ? 1 : 0;
            seen.insert(text);
        }
        readersDone += seen.count("111") + seen.count("222") == 2 ? 1 : 0;
    };
    std::thread first(read, true);
    std::thread second(read, false);
    for (bool one = true; readersDone.load() < 2 && std::chrono::steady_clock::now() < deadline; one = !one)
    {
        use(one ? Table{{"a", "1"}, {"b", "1"}, {"c", "1"}} : Table{{"a", "2"}, {"b", "2"}, {"c", "2"}});
        std::this_thread::yield();
    }
    first.join();
    second.join();
    EXPECT_EQ(mixedResults.load(), 0);
    EXPECT_EQ(readersDone.load(), 2);
}

} // namespace
