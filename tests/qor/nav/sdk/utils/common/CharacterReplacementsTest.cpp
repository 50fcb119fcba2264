#include "qor/nav/sdk/utils/common/CharacterReplacements.h"

#include "support/TestSync.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using qor::common::types::utf8::Utf8String;
using qor::nav::middleware::interface::types::language::LanguageId;
using qor::nav::sdk::utils::common::CharacterReplacementResult;
using qor::nav::sdk::utils::common::CharacterReplacements;
using qor::nav::sdk::utils::common::Replacement;

using Table = CharacterReplacements::ReplacementTable;
using Records = std::vector<std::string>;

const LanguageId kKey(0x8000, 7258, 998, 0);

// The table set is process-wide: every test starts and ends with it empty.
class CharacterReplacementsTest : public testing::Test
{
protected:
    void SetUp() override { instance().setCharacterReplacements({}); }
    void TearDown() override { instance().setCharacterReplacements({}); }

    static CharacterReplacements& instance() { return CharacterReplacements::getInstance(); }
    static void use(const Table& table) { instance().setCharacterReplacements({{kKey, table}}); }

    static std::string applied(const std::string& input)
    {
        Utf8String text(input);
        instance().applyCharacterReplacements(text);
        return text.str();
    }

    // "position:from>to" for each record.
    static Records describe(const CharacterReplacementResult& result)
    {
        Records out;
        for (const Replacement& r : result.replacements)
        {
            out.push_back(std::to_string(r.position) + ":" + r.from.str() + ">" + r.to.str());
        }
        return out;
    }
};

TEST_F(CharacterReplacementsTest, ReadersUseOnlyTheReplacementKeysTable)
{
    EXPECT_EQ(CharacterReplacements::getReplacementLanguageId(), kKey);
    instance().setCharacterReplacements({{LanguageId(0x8000, 7258, 998, 1), {{"a", "X"}}},
                                         {LanguageId(0x8000, 7259, 998, 0), {{"a", "Y"}}}});
    EXPECT_EQ(applied("abc"), "abc");
    const CharacterReplacementResult result = instance().replaceCharacters("abc");
    EXPECT_EQ(result.text.str(), "abc");
    EXPECT_TRUE(result.replacements.empty());

    // Nothing is merged: the whole set is replaced.
    instance().setCharacterReplacements({{kKey, {{"a", "Z"}}}});
    EXPECT_EQ(applied("abc"), "Zbc");
    instance().setCharacterReplacements({{LanguageId(1, 2, 3, 4), {{"a", "Q"}}}});
    EXPECT_EQ(applied("abc"), "abc");

    // Applying chains replaceAll in table order (checked at large below); it
    // works on bytes, so text that is not well-formed does not stop it.
    use({{"a", "b"}, {"b", "c"}});
    EXPECT_EQ(applied("ab\xFF"), "cc\xFF");
}

TEST_F(CharacterReplacementsTest, ReplaceCharactersExamples)
{
    struct Case
    {
        const char* what;
        Table table;
        std::string input;
        std::string output;
        Records records;
    };
    const std::vector<Case> cases = {
        {"empty input", {{"a", "X"}}, "", "", {}},
        {"searches the unchanged input", {{"a", "b"}, {"b", "c"}}, "ab", "bc", {"0:a>b", "1:b>c"}},
        // 'b' at 1 does not overlap 'a' in the input but falls inside 'XYZ'.
        {"accepted extent is the replacement's length", {{"a", "XYZ"}, {"b", "Q"}}, "abcd", "XYZbcd", {"0:a>XYZ"}},
        // An empty replacement has no extent: 'b' inside 'ab' is accepted,
        // and its 'Q' is then swallowed when 'ab' is replaced.
        {"empty replacement", {{"ab", ""}, {"b", "Q"}}, "abc", "c", {"0:ab>", "1:b>Q"}},
        {"overlapping hits resume one character on", {{"aa", "b"}}, "aaa", "b", {"0:aa>b", "1:aa>b"}},
        // 'ä' (2 bytes) at 0 ends before 'b' at 1 in characters, but its byte
        // count reaches 1, so it is rejected; with ASCII both measures agree.
        {"earlier candidate measured in bytes", {{"b", "B"}, {"\xC3\xA4", "ae"}}, "\xC3\xA4" "b", "\xC3\xA4" "B",
         {"1:b>B"}},
        {"earlier ASCII candidate", {{"b", "B"}, {"a", "ae"}}, "ab", "aeB", {"0:a>ae", "1:b>B"}},
        // Characters 0 'x', 1 ' ', 2 'ä', 3 ' ', 4 'ä': the blank at 3 falls
        // inside 'ae'; the repeated 'ä' entry finds only taken positions.
        {"records sorted by input position", {{"\xC3\xA4", "ae"}, {" ", "_"}, {"\xC3\xA4", "AE"}},
         "x \xC3\xA4 \xC3\xA4", "x_ae ae", {"1: >_", "2:\xC3\xA4>ae", "4:\xC3\xA4>ae"}},
        {"bad input: no entry can search it", {{"a", "b"}}, "a\xFF", "a\xFF", {}},
        {"bad search text skips only its entry", {{"\xFF", "x"}, {"a", "b"}}, "abc", "bbc", {"0:a>b"}},
        // Measured only when a later candidate is tested against it; that
        // ends the later entry, what was kept stays.
        {"bad replacement text", {{"a", "\xFF"}, {"c", "C"}, {"b", "B"}}, "abc", "\xFF" "bc", {"0:a>\xFF"}},
        {"empty search text takes every free position", {{"", "X"}}, "abc", "XaXbXc", {"0:>X", "1:>X", "2:>X"}},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.what);
        use(c.table);
        const Utf8String input(c.input);
        const CharacterReplacementResult result = instance().replaceCharacters(input);
        EXPECT_EQ(input.str(), c.input);
        EXPECT_EQ(result.text.str(), c.output);
        EXPECT_EQ(describe(result), c.records);
    }
}

// The plain model of the rule, through Utf8String's character positions:
// every candidate tested against every accepted record, the records applied
// one by one from the right.
CharacterReplacementResult replacedStepByStep(const Utf8String& text, const Table& table)
{
    std::vector<Replacement> accepted;
    for (const auto& entry : table)
    {
        const Utf8String& from = entry.first;
        for (std::size_t pos = text.find(from, 0); pos != Utf8String::npos; pos = text.find(from, pos + 1))
        {
            const bool rejected = std::any_of(accepted.begin(), accepted.end(), [&](const Replacement& r) {
                return pos == r.position || (pos > r.position && pos < r.position + r.to.length()) ||
                       (pos < r.position && pos + from.size() > r.position);
            });
            if (!rejected)
            {
                accepted.push_back(Replacement{pos, from, entry.second});
            }
        }
    }
    std::sort(accepted.begin(), accepted.end(),
              [](const Replacement& a, const Replacement& b) { return a.position < b.position; });
    CharacterReplacementResult result{text, accepted};
    for (auto r = accepted.rbegin(); r != accepted.rend(); ++r)
    {
        result.text.replace(r->position, r->from.length(), r->to);
    }
    return result;
}

// Random text over a small alphabet of one- to four-byte characters, so that
// search texts hit often and overlap.
std::string randomText(std::mt19937& random, std::size_t maxCharacters)
{
    static const char* const alphabet[] = {"a", "b", " ", "\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"};
    std::string text;
    for (std::size_t n = random() % (maxCharacters + 1); n > 0; --n)
    {
        text += alphabet[random() % 6];
    }
    return text;
}

TEST_F(CharacterReplacementsTest, ReadersMatchTheRuleAppliedStepByStepOnRandomTables)
{
    std::mt19937 random(4711);
    for (int round = 0; round < 3000; ++round)
    {
        Table table;
        for (std::size_t n = 1 + random() % 6; n > 0; --n)
        {
            const std::string from = randomText(random, 3);
            // Replacement texts from empty to longer than any search text.
            table.emplace_back(from.empty() ? "a" : from, randomText(random, round % 5 == 0 ? 12 : 4));
        }
        use(table);
        // Mostly short lines, some with many records, a few past 4 KiB.
        const std::size_t length = round % 1000 == 999 ? 3000 : round % 10 == 0 ? 400 : 40;
        const Utf8String text(randomText(random, length));
        SCOPED_TRACE("round " + std::to_string(round) + ", text '" + text.str() + "'");

        const CharacterReplacementResult expected = replacedStepByStep(text, table);
        const CharacterReplacementResult actual = instance().replaceCharacters(text);
        ASSERT_EQ(actual.text.str(), expected.text.str());
        ASSERT_EQ(describe(actual), describe(expected));

        Utf8String chained = text;
        for (const auto& entry : table)
        {
            chained.replaceAll(entry.first, entry.second);
        }
        ASSERT_EQ(applied(text.str()), chained.str());
    }
}

TEST_F(CharacterReplacementsTest, ReadersSeeWholeTablesWhileAWriterReplacesThem)
{
    constexpr int kReaders = 3;
    const auto deadline = std::chrono::steady_clock::now() + qor::test::scaled(std::chrono::seconds(30));
    std::atomic<int> readersDone{0};
    std::atomic<int> mixedResults{0};
    std::vector<CharacterReplacements*> seen(kReaders, nullptr);
    std::vector<std::thread> readers;
    for (int i = 0; i < kReaders; ++i)
    {
        readers.emplace_back([&, i] {
            CharacterReplacements& shared = CharacterReplacements::getInstance();
            seen[static_cast<std::size_t>(i)] = &shared;
            bool sawFirst = false;
            bool sawSecond = false;
            // Each reader runs until it has seen both tables (or time is up).
            while (!(sawFirst && sawSecond) && std::chrono::steady_clock::now() < deadline)
            {
                Utf8String text("abc");
                if (i % 2 == 0)
                {
                    text = shared.replaceCharacters(text).text;
                }
                else
                {
                    shared.applyCharacterReplacements(text);
                }
                sawFirst = sawFirst || text.str() == "111";
                sawSecond = sawSecond || text.str() == "222";
                mixedResults += text.str() != "111" && text.str() != "222" && text.str() != "abc" ? 1 : 0;
            }
            readersDone += sawFirst && sawSecond ? 1 : 0;
        });
    }
    for (bool first = true; readersDone.load() < kReaders && std::chrono::steady_clock::now() < deadline;
         first = !first)
    {
        use(first ? Table{{"a", "1"}, {"b", "1"}, {"c", "1"}} : Table{{"a", "2"}, {"b", "2"}, {"c", "2"}});
        std::this_thread::yield();
    }
    for (std::thread& reader : readers)
    {
        reader.join();
    }
    EXPECT_EQ(mixedResults.load(), 0);
    EXPECT_EQ(readersDone.load(), kReaders);
    EXPECT_EQ(seen, std::vector<CharacterReplacements*>(kReaders, &instance())) << "one instance for every thread";
}

} // namespace
