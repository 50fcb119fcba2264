// The process-wide table of per-language character replacements.
//
//   CharacterReplacements& replacements = CharacterReplacements::getInstance();
//   replacements.setCharacterReplacements(
//       {{CharacterReplacements::getReplacementLanguageId(), {{"\xC3\x9F", "ss"}, {"&", "and"}}}});
//   Utf8String text("Stra\xC3\x9F" "e & Weg");
//   CharacterReplacementResult result = replacements.replaceCharacters(text);  // text unchanged
//   replacements.applyCharacterReplacements(text);                             // text rewritten
//
// The user hands in the whole table set (one replacement table per
// LanguageId) and may replace it at any time. Both readers use only the table
// stored under getReplacementLanguageId(); tables under other ids are kept but
// not consulted. A missing or empty table leaves text unchanged.
//
// A table is an ordered list of (search text, replacement text) pairs; earlier
// entries have priority. The two readers apply it differently on purpose:
// applyCharacterReplacements() chains Utf8String::replaceAll() calls (each
// entry sees what the earlier ones produced); replaceCharacters() searches the
// unchanged input for all entries, keeps non-conflicting occurrences and
// substitutes them in one pass. Search texts must not be empty: an empty
// search text matches at every free position.
//
// Ownership: the instance is a function-local static created on first use
// and destroyed at process exit; it keeps its own copy of the table set, and
// the replacement id's table prepared for the readers. That prepared table is
// immutable and shared: a reader takes a reference and works on it, and a
// replaced table goes with its last reader.
//
// Threads: every operation may be called from any thread at the same time.
// setCharacterReplacements() prepares the new tables first and holds the
// write lock only to put them in place; readers hold the read lock only to
// take their reference, so a reader sees one whole table, old or new, and a
// table set replaced during a read does not affect that read.
#ifndef QOR_NAV_SDK_UTILS_COMMON_CHARACTERREPLACEMENTS_H
#define QOR_NAV_SDK_UTILS_COMMON_CHARACTERREPLACEMENTS_H

#include "qor/common/system/RWLock.h"
#include "qor/common/types/utf8/Utf8String.h"
#include "qor/nav/middleware/interface/types/language/LanguageId.h"

#include <cstdint>
#include <map>
#include <memory>
#include <utility>
#include <vector>

namespace qor::nav::sdk::utils::common {

namespace detail {
// Internal: the replacement id's table as the readers use it.
struct PreparedTable;
} // namespace detail

// One occurrence accepted by CharacterReplacements::replaceCharacters().
struct Replacement
{
    // Where `from` was found in the input, in characters (Utf8String::find).
    std::uint64_t position;
    // The search text.
    qor::common::types::utf8::Utf8String from;
    // The text put in its place.
    qor::common::types::utf8::Utf8String to;
};

// What CharacterReplacements::replaceCharacters() returns.
struct CharacterReplacementResult
{
    // The input with every accepted occurrence replaced.
    qor::common::types::utf8::Utf8String text;
    // The accepted occurrences by ascending position; positions refer to the
    // input, not to `text`.
    std::vector<Replacement> replacements;
};

class CharacterReplacements
{
public:
    using Utf8String = qor::common::types::utf8::Utf8String;
    using LanguageId = qor::nav::middleware::interface::types::language::LanguageId;
    // (search text, replacement text) pairs in order of priority.
    using ReplacementTable = std::vector<std::pair<Utf8String, Utf8String>>;
    using ReplacementTables = std::map<LanguageId, ReplacementTable>;

    // The one instance, built on the first call (thread-safe). If building
    // it throws, the next call tries again.
    static CharacterReplacements& getInstance();

    // The id whose table the readers use: kind 0x8000, language code 7258,
    // region code 998, variant 0.
    static constexpr LanguageId getReplacementLanguageId() noexcept { return LanguageId(0x8000, 7258, 998, 0); }

    ~CharacterReplacements();
    CharacterReplacements(const CharacterReplacements&) = delete;
    CharacterReplacements& operator=(const CharacterReplacements&) = delete;

    // Replaces the whole table set by a copy of `replacements`; ids missing
    // from it are gone afterwards. Waits while readers take their reference.
    // On an allocation failure the old set stays and the exception
    // propagates.
    void setCharacterReplacements(const ReplacementTables& replacements);

    // Rewrites `text` in place: for each entry of the table, in order,
    // text.replaceAll(search, replacement). A later entry can rewrite what an
    // earlier one inserted. Never throws InvalidArgumentException; allocation
    // failures propagate.
    void applyCharacterReplacements(Utf8String& text) const;

    // Returns `text` with the table's non-conflicting occurrences replaced,
    // and the list of them. For each entry in table order, every occurrence
    // in the input (overlapping ones too: the search goes on one character
    // after each hit) is tested against the occurrences already accepted and
    // rejected when it starts at the same position, when it starts inside an
    // accepted one's extent measured by the length of its replacement text,
    // or when it starts before an accepted one and its search text's byte
    // count reaches past that one's position. The accepted occurrences are
    // then replaced from right to left. Text that is not well-formed UTF-8
    // ends the search as an InvalidArgumentException from Utf8String's
    // find() or length() would: the input gets no records, such a search
    // text no occurrences, and a replacement text that must be measured to
    // test a later occurrence ends that occurrence's entry, the occurrences
    // kept so far staying; nothing is logged. Other exceptions (allocation
    // failures, std::length_error "vector::reserve" for inputs beyond the
    // record vector's maximum) propagate. The time grows linearly with the
    // text and the number of occurrences.
    CharacterReplacementResult replaceCharacters(const Utf8String& text) const;

private:
    CharacterReplacements();

    // The prepared table of the replacement id (null when there is none or
    // it is empty), taken under the read lock.
    std::shared_ptr<const detail::PreparedTable> snapshot() const;

    ReplacementTables m_Replacements;                     // guarded by m_Lock
    std::shared_ptr<const detail::PreparedTable> m_Table; // guarded by m_Lock
    qor::common::system::RWLock m_Lock;
};

} // namespace qor::nav::sdk::utils::common

#endif
