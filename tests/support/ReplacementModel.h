// The character replacement rule written out step by step, and the property
// that the unit tests and the fuzz target hold CharacterReplacements against:
// every candidate tested against every accepted record in order of
// acceptance, an entry given up at the first text that cannot be decoded,
// the records applied one by one from the right through Utf8String.
//
// Threads: replacedStepByStep is a pure function; replacementDisagreements
// installs the table set, so tests that call it must not run beside other
// users of the process-wide instance.
#ifndef QOR_TESTS_SUPPORT_REPLACEMENTMODEL_H
#define QOR_TESTS_SUPPORT_REPLACEMENTMODEL_H

#include "qor/common/errors/InvalidArgumentException.h"
#include "qor/nav/sdk/utils/common/CharacterReplacements.h"

#include <algorithm>
#include <string>
#include <vector>

namespace qor::test {

using ReplacementTable = nav::sdk::utils::common::CharacterReplacements::ReplacementTable;

inline nav::sdk::utils::common::CharacterReplacementResult
replacedStepByStep(const common::types::utf8::Utf8String& text, const ReplacementTable& table)
{
    using common::types::utf8::Utf8String;
    using nav::sdk::utils::common::Replacement;
    std::vector<Replacement> accepted;
    for (const auto& entry : table)
    {
        const Utf8String& from = entry.first;
        try
        {
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
        catch (const common::errors::InvalidArgumentException&)
        {
        }
    }
    std::sort(accepted.begin(), accepted.end(),
              [](const Replacement& a, const Replacement& b) { return a.position < b.position; });
    nav::sdk::utils::common::CharacterReplacementResult result{text, accepted};
    for (auto r = accepted.rbegin(); r != accepted.rend(); ++r)
    {
        result.text.replace(r->position, r->from.length(), r->to);
    }
    return result;
}

// "text [position:from>to ...]", to compare and print results.
inline std::string describe(const nav::sdk::utils::common::CharacterReplacementResult& result)
{
    std::string out = result.text.str() + " [";
    for (const auto& r : result.replacements)
    {
        out += std::to_string(r.position) + ":" + r.from.str() + ">" + r.to.str() + " ";
    }
    return out + "]";
}

// With `table` installed as the replacement key's table: what
// replaceCharacters() gives unlike the rule above, or what
// applyCharacterReplacements() gives unlike the chained replaceAll calls;
// empty when both agree.
inline std::string replacementDisagreements(const common::types::utf8::Utf8String& text, const ReplacementTable& table)
{
    using nav::sdk::utils::common::CharacterReplacements;
    CharacterReplacements& instance = CharacterReplacements::getInstance();
    instance.setCharacterReplacements({{CharacterReplacements::getReplacementLanguageId(), table}});
    std::string wrong;
    const std::string actual = describe(instance.replaceCharacters(text));
    const std::string expected = describe(replacedStepByStep(text, table));
    wrong += actual != expected ? "replaceCharacters gave " + actual + ", the rule " + expected + "; " : "";
    common::types::utf8::Utf8String applied = text;
    common::types::utf8::Utf8String chained = text;
    instance.applyCharacterReplacements(applied);
    for (const auto& entry : table)
    {
        chained.replaceAll(entry.first, entry.second);
    }
    return wrong + (applied != chained ? "applied " + applied.str() + ", chained " + chained.str() : "");
}

} // namespace qor::test

#endif
