// The character replacement rule written out step by step, for tests and
// fuzz targets that hold CharacterReplacements::replaceCharacters against it:
// every candidate tested against every accepted record in order of
// acceptance, an entry given up at the first text that cannot be decoded,
// the records applied one by one from the right through Utf8String.
//
// Threads: a pure function; any thread.
#ifndef QOR_TESTS_SUPPORT_REPLACEMENTMODEL_H
#define QOR_TESTS_SUPPORT_REPLACEMENTMODEL_H

#include "qor/common/errors/InvalidArgumentException.h"
#include "qor/nav/sdk/utils/common/CharacterReplacements.h"

#include <algorithm>
#include <vector>

namespace qor {
namespace test {

inline nav::sdk::utils::common::CharacterReplacementResult
replacedStepByStep(const common::types::utf8::Utf8String& text,
                   const nav::sdk::utils::common::CharacterReplacements::ReplacementTable& table)
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

} // namespace test
} // namespace qor

#endif
