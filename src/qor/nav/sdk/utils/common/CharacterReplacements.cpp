#include "qor/nav/sdk/utils/common/CharacterReplacements.h"

#include "qor/common/errors/InvalidArgumentException.h"

#include <algorithm>

namespace qor {
namespace nav {
namespace sdk {
namespace utils {
namespace common {

using qor::common::errors::InvalidArgumentException;
using qor::common::system::RWLockReadGuard;
using qor::common::system::RWLockWriteGuard;

namespace {

// True when an occurrence of `from` at `pos` collides with the accepted
// record `r`. The accepted record's extent is the length of its replacement
// text, the candidate's the byte count of its search text; existing callers
// depend on exactly this rule, so it stays as it is. May throw
// InvalidArgumentException from Utf8String::length().
bool conflicts(std::uint64_t pos, const CharacterReplacements::Utf8String& from, const Replacement& r)
{
    if (pos == r.position)
    {
        return true;
    }
    if (pos > r.position)
    {
        return pos < r.position + r.to.length();
    }
    return pos + from.size() > r.position;
}

} // namespace

CharacterReplacements& CharacterReplacements::getInstance()
{
    static CharacterReplacements s_Instance;
    return s_Instance;
}

CharacterReplacements::CharacterReplacements() = default;

CharacterReplacements::~CharacterReplacements() = default;

void CharacterReplacements::setCharacterReplacements(const ReplacementTables& replacements)
{
    RWLockWriteGuard guard(m_Lock);
    m_Replacements = replacements;
}

CharacterReplacements::ReplacementTable CharacterReplacements::takeSnapshot() const
{
    const LanguageId key = getReplacementLanguageId();
    ReplacementTable table;
    RWLockReadGuard guard(m_Lock);
    const auto found = m_Replacements.find(key);
    if (found != m_Replacements.end())
    {
        table = found->second;
    }
    return table;
}

void CharacterReplacements::applyCharacterReplacements(Utf8String& text) const
{
    const ReplacementTable table = takeSnapshot();
    for (const auto& entry : table)
    {
        text.replaceAll(entry.first, entry.second);
    }
}

CharacterReplacementResult CharacterReplacements::replaceCharacters(const Utf8String& text) const
{
    std::vector<Replacement> accepted;
    // One slot per input byte, so that accepting an occurrence never
    // reallocates.
    accepted.reserve(text.size());

    const ReplacementTable table = takeSnapshot();
    for (const auto& entry : table)
    {
        const Utf8String& from = entry.first;
        const Utf8String& to = entry.second;
        try
        {
            const std::size_t textLength = text.length();
            std::size_t pos = 0;
            while (true)
            {
                pos = text.find(from, pos);
                if (pos == Utf8String::npos)
                {
                    break;
                }
                if (pos >= textLength)
                {
                    // Not a position inside the text: search again from there.
                    continue;
                }
                bool rejected = false;
                for (const Replacement& r : accepted)
                {
                    if (conflicts(pos, from, r))
                    {
                        rejected = true;
                        break;
                    }
                }
                if (!rejected)
                {
                    accepted.push_back(Replacement{pos, from, to});
                }
                ++pos;
                if (pos == Utf8String::npos)
                {
                    break;
                }
            }
        }
        catch (const InvalidArgumentException&)
        {
            // Text or search text that is not well-formed: this entry ends
            // here, what was accepted stays.
        }
    }

    std::sort(accepted.begin(), accepted.end(),
              [](const Replacement& a, const Replacement& b) { return a.position < b.position; });

    CharacterReplacementResult result{text, {}};
    // Right to left, so that the positions still to be applied stay valid.
    for (auto r = accepted.rbegin(); r != accepted.rend(); ++r)
    {
        result.text.replace(r->position, r->from.length(), r->to);
    }
    result.replacements = std::move(accepted);
    return result;
}

} // namespace common
} // namespace utils
} // namespace sdk
} // namespace nav
} // namespace qor
