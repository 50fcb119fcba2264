#include "qor/nav/sdk/utils/common/CharacterReplacements.h"

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

    // "position:from>to" for each record, for compact comparison.
    static std::vector<std::string> describe(const CharacterReplacementResult& result)
    {
        std::vector<std::string> out;
        for (const Replacement& r : result.replacements)
        {
            out.push_back(std::to_string(r.position) + ":" + r.from.str() + ">" + r.to.str());
        }
        return out;
    }
};

using Records = std::vector<std::string>;

TEST_F(CharacterReplacementsTest, ReadersUseOnlyTheReplacementKeysTable)
{
    EXPECT_EQ(CharacterReplacements::getReplacementLanguageId(), kKey);

    instance().setCharacterReplacements({{LanguageId(0x8000, 7258, 998, 1), {{"a", "X"}}},
                                         {LanguageId(0x8000, 7259, 998, 0), {{"a", "Y"}}}});
    EXPECT_EQ(applied("abc"), "abc");
    CharacterReplacementResult result = instance().replaceCharacters("abc");
    EXPECT_EQ(result.text.str(), "abc");
    EXPECT_TRUE(result.replacements.empty());

    // Nothing is merged: the whole set is replaced.
    instance().setCharacterReplacements({{kKey, {{"a", "Z"}}}});
    EXPECT_EQ(applied("abc"), "Zbc");
    instance().setCharacterReplacements({{LanguageId(1, 2, 3, 4), {{"a", "Q"}}}});
    EXPECT_EQ(applied("abc"), "abc");

    use({{"a", "X"}});
    result = instance().replaceCharacters("");
    EXPECT_EQ(result.text.str(), "");
    EXPECT_TRUE(result.replacements.empty());
}

TEST_F(CharacterReplacementsTest, ApplyChainsReplaceAllInTableOrder)
{
    use({{"a", "b"}, {"b", "c"}});
    EXPECT_EQ(applied("ab"), "cc"); // the second entry rewrites what the first put in
    use({{"aa", "b"}});
    EXPECT_EQ(applied("aaa"), "ba");
    // Text that is not well-formed does not stop the byte-wise rewrite.
    use({{"a", "b"}});
    EXPECT_EQ(applied("a\xFF"), "b\xFF");
}

TEST_F(CharacterReplacementsTest, ReplaceCharactersSearchesTheUnchangedInput)
{
    use({{"a", "b"}, {"b", "c"}});
    const Utf8String input("ab");
    const CharacterReplacementResult result = instance().replaceCharacters(input);
    EXPECT_EQ(input.str(), "ab");
    EXPECT_EQ(result.text.str(), "bc");
    EXPECT_EQ(describe(result), (Records{"0:a>b", "1:b>c"}));
}

TEST_F(CharacterReplacementsTest, AcceptedExtentIsTheLengthOfItsReplacementText)
{
    // 'b' at 1 does not overlap 'a' in the input but falls inside 'XYZ'.
    use({{"a", "XYZ"}, {"b", "Q"}});
    CharacterReplacementResult result = instance().replaceCharacters("abcd");
    EXPECT_EQ(result.text.str(), "XYZbcd");
    EXPECT_EQ(describe(result), (Records{"0:a>XYZ"}));

    // An empty replacement has no extent: 'b' inside 'ab' is accepted, and
    // its 'Q' is then swallowed when 'ab' is replaced.
    use({{"ab", ""}, {"b", "Q"}});
    result = instance().replaceCharacters("abc");
    EXPECT_EQ(result.text.str(), "c");
    EXPECT_EQ(describe(result), (Records{"0:ab>", "1:b>Q"}));

    // Overlapping hits of one entry: the search resumes one character on.
    use({{"aa", "b"}});
    result = instance().replaceCharacters("aaa");
    EXPECT_EQ(result.text.str(), "b");
    EXPECT_EQ(describe(result), (Records{"0:aa>b", "1:aa>b"}));
}

TEST_F(CharacterReplacementsTest, CandidateBeforeAnAcceptedRecordIsMeasuredInBytes)
{
    // 'ä' (2 bytes, 1 character) at 0 ends before 'b' at 1, but its byte
    // count reaches 1, so it is rejected.
    use({{"b", "B"}, {"\xC3\xA4", "ae"}});
    CharacterReplacementResult result = instance().replaceCharacters("\xC3\xA4" "b");
    EXPECT_EQ(result.text.str(), "\xC3\xA4" "B");
    EXPECT_EQ(describe(result), (Records{"1:b>B"}));

    // With ASCII the two measures agree and both are replaced.
    use({{"b", "B"}, {"a", "ae"}});
    result = instance().replaceCharacters("ab");
    EXPECT_EQ(result.text.str(), "aeB");
    EXPECT_EQ(describe(result), (Records{"0:a>ae", "1:b>B"}));
}

TEST_F(CharacterReplacementsTest, RecordsAreSortedWithPositionsInTheInput)
{
    // Characters: 0 'x', 1 ' ', 2 'ä', 3 ' ', 4 'ä'. The blank at 3 falls
    // inside the 'ae' put in at 2; the repeated 'ä' entry finds only taken
    // positions.
    use({{"\xC3\xA4", "ae"}, {" ", "_"}, {"\xC3\xA4", "AE"}});
    const CharacterReplacementResult result = instance().replaceCharacters("x \xC3\xA4 \xC3\xA4");
    EXPECT_EQ(result.text.str(), "x_ae ae");
    EXPECT_EQ(describe(result), (Records{"1: >_", "2:\xC3\xA4>ae", "4:\xC3\xA4>ae"}));
}

TEST_F(CharacterReplacementsTest, TextThatIsNotWellFormedEndsOnlyTheEntryBeingSearched)
{
    // The input itself: no entry can search it.
    use({{"a", "b"}});
    CharacterReplacementResult result = instance().replaceCharacters("a\xFF");
    EXPECT_EQ(result.text.str(), "a\xFF");
    EXPECT_TRUE(result.replacements.empty());

    // A bad search text: that entry is skipped, the next one is applied.
    use({{"\xFF", "x"}, {"a", "b"}});
    result = instance().replaceCharacters("abc");
    EXPECT_EQ(result.text.str(), "bbc");
    EXPECT_EQ(describe(result), (Records{"0:a>b"}));

    // A bad replacement text is only measured when a later candidate is
    // tested against it; that ends the later entry, what was kept stays.
    use({{"a", "\xFF"}, {"c", "C"}, {"b", "B"}});
    result = instance().replaceCharacters("abc");
    EXPECT_EQ(result.text.str(), "\xFF" "bc");
    EXPECT_EQ(describe(result), (Records{"0:a>\xFF"}));
}

TEST_F(CharacterReplacementsTest, EmptySearchTextTakesEveryFreePositionAndStops)
{
    use({{"", "X"}});
    const CharacterReplacementResult result = instance().replaceCharacters("abc");
    EXPECT_EQ(result.text.str(), "XaXbXc");
    EXPECT_EQ(describe(result), (Records{"0:>X", "1:>X", "2:>X"}));
}

// --- Against the rule applied step by step ------------------------------------
//
// The readers work on bytes and keep an index of what accepted records
// occupy, so that long texts stay linear. These models do the same work the
// plain way, through Utf8String's character positions: every candidate tested
// against every accepted record, the records applied one by one from the
// right, replaceAll chained over the whole table.

CharacterReplacementResult replacedStepByStep(const Utf8String& text, const Table& table)
{
    std::vector<Replacement> accepted;
    for (const auto& entry : table)
    {
        const Utf8String& from = entry.first;
        const Utf8String& to = entry.second;
        for (std::size_t pos = text.find(from, 0); pos != Utf8String::npos; pos = text.find(from, pos + 1))
        {
            bool rejected = false;
            for (const Replacement& r : accepted)
            {
                rejected = rejected || pos == r.position ||
                           (pos > r.position && pos < r.position + r.to.length()) ||
                           (pos < r.position && pos + from.size() > r.position);
            }
            if (!rejected)
            {
                accepted.push_back(Replacement{pos, from, to});
            }
        }
    }
    std::sort(accepted.begin(), accepted.end(),
              [](const Replacement& a, const Replacement& b) { return a.position < b.position; });
    CharacterReplacementResult result{text, {}};
    for (auto r = accepted.rbegin(); r != accepted.rend(); ++r)
    {
        result.text.replace(r->position, r->from.length(), r->to);
    }
    result.replacements = accepted;
    return result;
}

// Random well-formed text over a small alphabet of one- to four-byte
// characters, so that search texts hit often and overlap.
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
            std::string from = randomText(random, 3);
            if (from.empty())
            {
                from = "a";
            }
            // Replacement texts from empty to longer than any search text.
            table.emplace_back(from, randomText(random, round % 5 == 0 ? 12 : 4));
        }
        use(table);
        // Mostly short lines; every tenth text long enough for many records,
        // a few longer than the 4 KiB that counters cover in one go.
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
    const Table first = {{"a", "1"}, {"b", "1"}, {"c", "1"}};
    const Table second = {{"a", "2"}, {"b", "2"}, {"c", "2"}};
    constexpr int kReaders = 3;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);

    std::atomic<int> readersDone{0};
    std::atomic<int> mixedResults{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < kReaders; ++i)
    {
        readers.emplace_back([&, i] {
            bool sawFirst = false;
            bool sawSecond = false;
            // Each reader runs until it has seen both tables (or time is up).
            while (!(sawFirst && sawSecond) && std::chrono::steady_clock::now() < deadline)
            {
                std::string text;
                if (i % 2 == 0)
                {
                    text = CharacterReplacements::getInstance().replaceCharacters("abc").text.str();
                }
                else
                {
                    Utf8String inPlace("abc");
                    CharacterReplacements::getInstance().applyCharacterReplacements(inPlace);
                    text = inPlace.str();
                }
                sawFirst = sawFirst || text == "111";
                sawSecond = sawSecond || text == "222";
                if (text != "111" && text != "222" && text != "abc")
                {
                    ++mixedResults;
                }
            }
            if (sawFirst && sawSecond)
            {
                ++readersDone;
            }
        });
    }

    bool useFirst = true;
    while (readersDone.load() < kReaders && std::chrono::steady_clock::now() < deadline)
    {
        use(useFirst ? first : second);
        useFirst = !useFirst;
        std::this_thread::yield();
    }
    for (std::thread& reader : readers)
    {
        reader.join();
    }
    EXPECT_EQ(mixedResults.load(), 0);
    EXPECT_EQ(readersDone.load(), kReaders);
}

TEST_F(CharacterReplacementsTest, GetInstanceGivesOneObjectToEveryThread)
{
    std::vector<CharacterReplacements*> seen(4, nullptr);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < seen.size(); ++i)
    {
        threads.emplace_back([&seen, i] { seen[i] = &CharacterReplacements::getInstance(); });
    }
    for (std::thread& t : threads)
    {
        t.join();
    }
    for (CharacterReplacements* p : seen)
    {
        EXPECT_EQ(p, &instance());
    }
}

} // namespace
