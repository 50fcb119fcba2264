#include "qor/nav/sdk/utils/common/CharacterReplacements.h"

#include "qor/common/types/utf8/ByteSearch.h"
#include "qor/nav/sdk/utils/validation/Utf8Check.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <string>

namespace qor::nav::sdk::utils::common {

using qor::common::system::RWLockReadGuard;
using qor::common::system::RWLockWriteGuard;
using qor::common::types::utf8::detail::countCharacterStarts;
using qor::common::types::utf8::detail::findBytes;
using Utf8String = CharacterReplacements::Utf8String;

namespace detail {

// The replacement id's table as the readers use it, with what they need to
// know of each entry worked out once, when the table is set.
struct PreparedTable
{
    struct Entry
    {
        Utf8String from;
        Utf8String to;
        bool searchable;        // `from` is well-formed: Utf8String::find() takes it
        bool measurable;        // `to` is well-formed: Utf8String::length() takes it
        std::size_t fromLength; // characters, when searchable
        std::size_t toLength;   // characters, when measurable
    };

    std::vector<Entry> entries;
};

} // namespace detail

namespace {

using Entry = detail::PreparedTable::Entry;
using ByteSet = std::array<bool, 256>;

// Well-formed as Utf8String decodes it: what its length() and find() take
// without throwing InvalidArgumentException.
bool isWellFormed(const char* bytes, std::size_t size) noexcept
{
    return validation::detail::isStrictUtf8(reinterpret_cast<const std::uint8_t*>(bytes), size);
}

// The bytes of the character that starts with `lead` in well-formed text.
std::size_t sequenceLength(char lead) noexcept
{
    const unsigned char byte = static_cast<unsigned char>(lead);
    return byte < 0x80 ? 1 : byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
}

// The bytes Utf8String::replace() steps over as one character at `bytes`: a
// well-formed character, or one byte that starts none.
std::size_t characterStep(const char* bytes, std::size_t left) noexcept
{
    const std::size_t size = sequenceLength(bytes[0]);
    return size <= left && isWellFormed(bytes, size) ? size : 1;
}

// The byte values in `text`. Text longer than a line is taken to hold every
// value: looking would cost more than the searches it spares.
ByteSet bytesIn(const std::string& text) noexcept
{
    ByteSet bytes{};
    if (text.size() > 256)
    {
        bytes.fill(true);
        return bytes;
    }
    for (const char byte : text)
    {
        bytes[static_cast<unsigned char>(byte)] = true;
    }
    return bytes;
}

// False when `what` cannot occur in text of the byte values `bytes`.
bool mayOccur(const std::string& what, const ByteSet& bytes) noexcept
{
    return what.empty() ||
           (bytes[static_cast<unsigned char>(what.front())] && bytes[static_cast<unsigned char>(what.back())]);
}

// The first byte offset at or after `at` where Utf8String::find() finds
// `from` in well-formed `text` (an empty search text where any character
// starts), or npos. A well-formed search text starts with a lead byte, and in
// well-formed text a lead byte starts a character: a byte match is a
// character match.
std::size_t findFrom(const std::string& text, const std::string& from, std::size_t at) noexcept
{
    if (from.empty())
    {
        return at < text.size() ? at : std::string::npos;
    }
    return findBytes(text.data(), text.size(), at, from.data(), from.size());
}

// An accepted occurrence of an entry's search text in the input.
struct Occurrence
{
    std::size_t entry;
    std::size_t offset;   // in bytes
    std::size_t position; // in characters
};

// The occurrences the rule accepts in well-formed `text`, in the order it
// accepts them. The rule tests a candidate
// against the records accepted before it in the order of acceptance, and the
// first record that rejects it decides; but testing a candidate right of a
// record measures that record's replacement text, which throws when that is
// not well-formed and ends the candidate's entry. Instead of scanning the
// records, `slots` holds per character position the first record whose
// extent covers it and the record that starts there, which names that first
// record directly. Record numbers fit in 32 bits: the caller has reserved a
// record of more than 64 bytes per byte of the text.
std::vector<Occurrence> acceptedOccurrences(const std::vector<Entry>& entries, const std::string& text)
{
    const std::size_t length = countCharacterStarts(text.data(), text.size());
    constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();
    struct Slot
    {
        std::uint32_t coveredBy = kNone;
        std::uint32_t startedBy = kNone;
    };
    std::vector<Slot> slots;
    std::vector<std::uint32_t> unmeasurable; // records whose replacement text is not well-formed
    std::vector<Occurrence> accepted;
    accepted.reserve(16); // a line's worth
    const ByteSet bytes = bytesIn(text);
    for (std::size_t e = 0; e < entries.size(); ++e)
    {
        const Entry& entry = entries[e];
        const std::string& from = entry.from.str();
        if (!entry.searchable || !mayOccur(from, bytes))
        {
            continue; // Utf8String::find() throws, or finds nothing
        }
        std::size_t pos = 0; // characters before byte offset `counted`
        std::size_t counted = 0;
        // Overlapping occurrences count: the search goes on one character on.
        for (std::size_t at = findFrom(text, from, 0); at != std::string::npos;
             at = findFrom(text, from, at + sequenceLength(text[at])))
        {
            pos += countCharacterStarts(text.data() + counted, at - counted);
            counted = at;
            // A record at the same position or whose extent (the length of
            // its replacement text) holds this one rejects it, and so does
            // one after it but before its position plus its byte count.
            std::uint32_t rejectedBy = kNone;
            if (!accepted.empty())
            {
                rejectedBy = slots[pos].coveredBy;
                for (std::size_t p = pos + 1; p < std::min(pos + from.size(), length); ++p)
                {
                    rejectedBy = std::min(rejectedBy, slots[p].startedBy);
                }
            }
            // Measuring the replacement text of a record left of it throws.
            const auto throwing = std::find_if(unmeasurable.begin(), unmeasurable.end(),
                                               [&](std::uint32_t r) { return accepted[r].position < pos; });
            if (throwing != unmeasurable.end() && *throwing < rejectedBy)
            {
                break;
            }
            if (rejectedBy != kNone)
            {
                continue;
            }
            const auto record = static_cast<std::uint32_t>(accepted.size());
            slots.resize(length); // made with the first record
            accepted.push_back(Occurrence{e, at, pos});
            slots[pos].startedBy = record;
            const std::size_t extent = entry.measurable ? std::max<std::size_t>(entry.toLength, 1) : 1;
            for (std::size_t p = pos; p < std::min(pos + extent, length); ++p)
            {
                slots[p].coveredBy = std::min(slots[p].coveredBy, record);
            }
            if (!entry.measurable)
            {
                unmeasurable.push_back(record);
            }
        }
    }
    return accepted;
}

// The input with the occurrences (sorted by position) replaced from right to
// left, as Utf8String::replace(position, from.length(), to) replaces them one
// after the other: a search text that reaches past the next occurrence takes
// characters from the front of what replaced that one. The rewritten text
// grows from the back of `out` towards its front, so taking from its front
// is cheap.
std::string replaceFromTheRight(const std::string& input, const std::vector<Occurrence>& sorted,
                                const std::vector<Entry>& entries)
{
    std::size_t end = input.size();
    for (const Occurrence& occurrence : sorted)
    {
        end += entries[occurrence.entry].to.size();
    }
    std::string out(end, '\0');
    std::size_t begin = end;         // out[begin, end) is the rewritten text
    std::size_t done = input.size(); // of input[done, input.size())
    auto prepend = [&](const char* bytes, std::size_t size) {
        begin -= size;
        std::copy(bytes, bytes + size, &out[begin]);
    };
    for (auto occurrence = sorted.rbegin(); occurrence != sorted.rend(); ++occurrence)
    {
        const Entry& entry = entries[occurrence->entry];
        std::size_t replaced = occurrence->offset; // the end of the replaced characters in the input
        std::size_t left = entry.fromLength;
        for (; left > 0 && replaced < done; --left)
        {
            replaced += sequenceLength(input[replaced]);
        }
        for (; left > 0 && begin < end; --left)
        {
            begin += characterStep(out.data() + begin, end - begin);
        }
        prepend(input.data() + replaced, done - replaced);
        prepend(entry.to.str().data(), entry.to.size());
        done = occurrence->offset;
    }
    prepend(input.data(), done);
    out.erase(0, begin);
    return out;
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
    // Copied and prepared before the lock: a failure leaves everything as it
    // was, and readers wait only for the swap.
    ReplacementTables tables = replacements;
    std::shared_ptr<detail::PreparedTable> table;
    const auto found = tables.find(getReplacementLanguageId());
    if (found != tables.end() && !found->second.empty())
    {
        table = std::make_shared<detail::PreparedTable>();
        for (const auto& [from, to] : found->second)
        {
            const bool searchable = isWellFormed(from.str().data(), from.size());
            const bool measurable = isWellFormed(to.str().data(), to.size());
            table->entries.push_back(Entry{from, to, searchable, measurable,
                                           countCharacterStarts(from.str().data(), from.size()),
                                           countCharacterStarts(to.str().data(), to.size())});
        }
    }
    std::shared_ptr<const detail::PreparedTable> prepared = std::move(table);
    RWLockWriteGuard guard(m_Lock);
    m_Replacements.swap(tables);
    m_Table.swap(prepared);
    // The old set and table go after the lock is released.
}

std::shared_ptr<const detail::PreparedTable> CharacterReplacements::snapshot() const
{
    // The lock orders this copy after the writer's swap, so a reader sees a
    // table only once it is whole; nobody changes it afterwards, and the
    // shared count frees it with its last reader.
    RWLockReadGuard guard(m_Lock);
    return m_Table;
}

void CharacterReplacements::applyCharacterReplacements(Utf8String& text) const
{
    const std::shared_ptr<const detail::PreparedTable> table = snapshot();
    if (table == nullptr)
    {
        return;
    }
    // replaceAll() changes nothing where its search text does not occur (or
    // is empty); what it puts in may make a later search text occur.
    ByteSet bytes = bytesIn(text.str());
    for (const Entry& entry : table->entries)
    {
        if (!entry.from.empty() && mayOccur(entry.from.str(), bytes))
        {
            text.replaceAll(entry.from, entry.to);
            for (const char byte : entry.to.str())
            {
                bytes[static_cast<unsigned char>(byte)] = true;
            }
        }
    }
}

CharacterReplacementResult CharacterReplacements::replaceCharacters(const Utf8String& text) const
{
    CharacterReplacementResult result;
    // One slot per input byte, so that recording an occurrence never
    // reallocates.
    result.replacements.reserve(text.size());
    const std::shared_ptr<const detail::PreparedTable> table = snapshot();
    // Utf8String::find() throws for text that is not well-formed: then no
    // entry finds anything.
    std::vector<Occurrence> accepted;
    if (table != nullptr && isWellFormed(text.str().data(), text.size()))
    {
        accepted = acceptedOccurrences(table->entries, text.str());
    }
    if (accepted.empty())
    {
        result.text = text;
        return result;
    }
    std::sort(accepted.begin(), accepted.end(),
              [](const Occurrence& a, const Occurrence& b) { return a.position < b.position; });
    result.text = Utf8String(replaceFromTheRight(text.str(), accepted, table->entries));
    for (const Occurrence& occurrence : accepted)
    {
        // Built in place: a temporary would copy both texts twice.
        Replacement& record = result.replacements.emplace_back();
        record.position = occurrence.position;
        record.from = table->entries[occurrence.entry].from;
        record.to = table->entries[occurrence.entry].to;
    }
    return result;
}

} // namespace qor::nav::sdk::utils::common
