// Fuzz target: the character replacement table applied to arbitrary bytes.
//
// A fixed table, installed once under the replacement id, with one- to
// four-byte search texts, an entry that matches what an earlier one inserts,
// an empty replacement text and, last, an empty search text (with this
// Utf8String it takes every free position and stops).
//
// Properties, for every input x (the first 1024 bytes; the conflict test is
// quadratic by design):
//   - neither reader throws or hangs;
//   - x that is not well-formed: replaceCharacters() returns x and no
//     records, since every search ends at once;
//   - well-formed x: records are strictly ascending, inside x, each a table
//     entry whose search text is really at its position in x; the result is
//     well-formed; records that do not overlap in x give exactly x with each
//     search text swapped for its replacement;
//   - applyCharacterReplacements() keeps well-formed text well-formed and
//     leaves x alone when no search text occurs in it.
//
// An input that starts with '|' instead brings its own table, any bytes:
// "|from|to|from|to|...|text" (up to six entries), and replaceCharacters()
// must give what the rule written out step by step gives, also where search
// or replacement texts cannot be decoded.
#include "qor/nav/sdk/utils/common/CharacterReplacements.h"

#include "FuzzSupport.h"
#include "support/ReplacementModel.h"
#include "support/WellFormedUtf8.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

using qor::common::types::utf8::Utf8String;
using qor::nav::sdk::utils::common::CharacterReplacementResult;
using qor::nav::sdk::utils::common::CharacterReplacements;
using qor::nav::sdk::utils::common::Replacement;

namespace {

const CharacterReplacements::ReplacementTable& table()
{
    static const CharacterReplacements::ReplacementTable entries = {
        {"\xC3\xA4", "ae"},                 // ä
        {"\xC3\xB6", "oe"},                 // ö
        {"\xC3\x9F", "ss"},                 // ß
        {"ae", "\xC3\xA6"},                 // æ, matches what the first entry puts in
        {"\xE2\x82\xAC", "EUR"},            // €
        {"\xF0\x9F\x98\x80", ":-)"},        // U+1F600
        {"--", ""},                         // removed
        {"ab", "\xE2\x80\x94\xE2\x80\x94"}, // longer in characters than its search text
        {"", "\xC2\xB7"},                   // ·, at every free position
    };
    return entries;
}

bool isTableEntry(const Replacement& record)
{
    return std::any_of(table().begin(), table().end(),
                       [&](const auto& entry) { return entry.first == record.from && entry.second == record.to; });
}

void checkReplaceCharacters(const std::string& input)
{
    const CharacterReplacementResult result = CharacterReplacements::getInstance().replaceCharacters(input);
    const std::vector<std::size_t> offsets = qor::test::wellFormedCharacterOffsets(input);
    if (offsets.empty())
    {
        QOR_FUZZ_CHECK(result.text.str() == input);
        QOR_FUZZ_CHECK(result.replacements.empty());
        return;
    }
    const std::size_t length = offsets.size() - 1;
    bool overlapping = false;
    for (std::size_t i = 0; i < result.replacements.size(); ++i)
    {
        const Replacement& record = result.replacements[i];
        QOR_FUZZ_CHECK(isTableEntry(record));
        QOR_FUZZ_CHECK(record.position < length);
        QOR_FUZZ_CHECK(input.compare(offsets[record.position], record.from.size(), record.from.str()) == 0);
        if (i > 0)
        {
            const Replacement& before = result.replacements[i - 1];
            QOR_FUZZ_CHECK(before.position < record.position);
            overlapping = overlapping || before.position + before.from.length() > record.position;
        }
    }
    QOR_FUZZ_CHECK(qor::test::isWellFormedUtf8(result.text.str()));
    if (result.replacements.empty())
    {
        QOR_FUZZ_CHECK(result.text.str() == input);
    }
    if (!overlapping)
    {
        std::string expected;
        std::size_t copied = 0; // bytes of the input
        for (const Replacement& record : result.replacements)
        {
            const std::size_t at = offsets[record.position];
            expected += input.substr(copied, at - copied) + record.to.str();
            copied = at + record.from.size();
        }
        expected += input.substr(copied);
        QOR_FUZZ_CHECK(result.text.str() == expected);
    }
}

void checkApplyCharacterReplacements(const std::string& input)
{
    Utf8String text(input);
    CharacterReplacements::getInstance().applyCharacterReplacements(text);
    const bool anySearchTextInInput = std::any_of(table().begin(), table().end(), [&](const auto& entry) {
        return !entry.first.empty() && input.find(entry.first.str()) != std::string::npos;
    });
    if (!anySearchTextInInput)
    {
        QOR_FUZZ_CHECK(text.str() == input);
    }
    if (qor::test::isWellFormedUtf8(input))
    {
        QOR_FUZZ_CHECK(qor::test::isWellFormedUtf8(text.str()));
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    qor::fuzz::discardLogRecords();
    CharacterReplacements::getInstance().setCharacterReplacements(
        {{CharacterReplacements::getReplacementLanguageId(), table()},
         {CharacterReplacements::LanguageId(0x8000, 7258, 999, 0), {{"a", "never used"}}}});
    return 0;
}

void checkAgainstTheRule(const std::uint8_t* data, std::size_t size)
{
    const std::vector<std::string> parts = qor::fuzz::splitInput(data, size, 14);
    CharacterReplacements::ReplacementTable own;
    std::size_t last = 1;
    for (; last + 2 < parts.size() && !parts[last].empty(); last += 2)
    {
        own.emplace_back(parts[last], parts[last + 1]);
    }
    const Utf8String text(parts[last].substr(0, 256));
    CharacterReplacements& instance = CharacterReplacements::getInstance();
    instance.setCharacterReplacements({{CharacterReplacements::getReplacementLanguageId(), own}});
    const CharacterReplacementResult actual = instance.replaceCharacters(text);
    const CharacterReplacementResult expected = qor::test::replacedStepByStep(text, own);
    instance.setCharacterReplacements({{CharacterReplacements::getReplacementLanguageId(), table()}});
    QOR_FUZZ_CHECK(actual.text == expected.text);
    QOR_FUZZ_CHECK(actual.replacements.size() == expected.replacements.size());
    for (std::size_t i = 0; i < actual.replacements.size(); ++i)
    {
        const Replacement& a = actual.replacements[i];
        const Replacement& e = expected.replacements[i];
        QOR_FUZZ_CHECK(a.position == e.position && a.from == e.from && a.to == e.to);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size > 0 && data[0] == '|')
    {
        checkAgainstTheRule(data, size);
        return 0;
    }
    const std::string input(reinterpret_cast<const char*>(data), std::min<std::size_t>(size, 1024));
    checkReplaceCharacters(input);
    checkApplyCharacterReplacements(input);
    return 0;
}
