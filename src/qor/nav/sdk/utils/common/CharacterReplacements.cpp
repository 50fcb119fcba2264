#include "qor/nav/sdk/utils/common/CharacterReplacements.h"

#include "qor/common/errors/InvalidArgumentException.h"
#include "qor/common/types/utf8/ByteSearch.h"
#include "qor/nav/sdk/utils/validation/Utf8Check.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace qor::nav::sdk::utils::common {

using qor::common::errors::InvalidArgumentException;
using qor::common::system::RWLockReadGuard;
using qor::common::system::RWLockWriteGuard;
using qor::common::types::utf8::detail::findBytes;

// The copied table: the bytes of every search and replacement text one after
// the other, and where each entry's texts lie in them. One buffer instead of
// two strings per entry keeps the copy made under the lock short.
namespace detail {

struct ReplacementSnapshot
{
    using Utf8String = CharacterReplacements::Utf8String;

    struct Entry
    {
        std::size_t from;
        std::size_t fromSize;
        std::size_t to;
        std::size_t toSize;
    };

    std::string bytes;
    std::vector<Entry> entries;

    Utf8String from(const Entry& e) const { return Utf8String(bytes, e.from, e.fromSize); }
    Utf8String to(const Entry& e) const { return Utf8String(bytes, e.to, e.toSize); }
};

} // namespace detail

namespace {

using Utf8String = CharacterReplacements::Utf8String;
using Snapshot = detail::ReplacementSnapshot;

bool isContinuation(char byte) noexcept
{
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

// Characters in well-formed bytes: the bytes that are not continuations.
std::size_t countCharacters(const char* bytes, std::size_t size) noexcept
{
    return qor::common::types::utf8::detail::countCharacterStarts(bytes, size);
}

// Bytes of the well-formed character whose lead byte is `lead`.
std::size_t characterBytes(char lead) noexcept
{
    const unsigned char b = static_cast<unsigned char>(lead);
    return b < 0x80 ? 1 : b < 0xE0 ? 2 : b < 0xF0 ? 3 : 4;
}

bool isStrict(const std::string& bytes) noexcept
{
    return validation::detail::isStrictUtf8(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

// True when an occurrence of `from` at `pos` collides with the accepted
// record `r`. The accepted record's extent is the length of its replacement
// text, the candidate's the byte count of its search text; existing callers
// depend on exactly this rule, so it stays as it is. May throw
// InvalidArgumentException from Utf8String::length().
bool conflicts(std::uint64_t pos, const Utf8String& from, const Replacement& r)
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

// The search for any text and table, through Utf8String's character
// positions; used when the text or the table is not well-formed or a search
// text is empty, where exceptions decide what is kept.
void searchThroughUtf8String(const Utf8String& text, const Snapshot& table, std::vector<Replacement>& accepted)
{
    for (const Snapshot::Entry& entry : table.entries)
    {
        const Utf8String from = table.from(entry);
        const Utf8String to = table.to(entry);
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
}

// Whether the search over bytes below gives what the search through
// Utf8String gives: the text and every search and replacement text are
// well-formed (so nothing throws, and a byte match at a lead byte is a
// character match) and no search text is empty.
bool searchableAsBytes(const Utf8String& text, const Snapshot& table) noexcept
{
    // The concatenated texts are well-formed and each starts at a character
    // boundary exactly when each of them is well-formed.
    if (!isStrict(text.str()) || !isStrict(table.bytes))
    {
        return false;
    }
    for (const Snapshot::Entry& entry : table.entries)
    {
        if (entry.fromSize == 0 || isContinuation(table.bytes[entry.from]) ||
            (entry.toSize != 0 && isContinuation(table.bytes[entry.to])))
        {
            return false;
        }
    }
    return true;
}

// What the accepted records occupy, per character position of the text: the
// conflict rule as a look-up instead of a scan over every accepted record,
// so that long texts with many records stay linear. A record covers its
// position and, after it, as many positions as its replacement text has
// characters; a candidate is rejected when its position is covered or when
// a record starts after it but before its position plus its search text's
// byte count.
class Occupancy
{
public:
    explicit Occupancy(std::size_t textLength) : m_TextLength(textLength) {}

    bool rejects(std::size_t pos, std::size_t fromSize) const
    {
        if (m_Marks == nullptr)
        {
            return false;
        }
        if ((m_Marks[pos] & kCovered) != 0)
        {
            return true;
        }
        const std::size_t end = std::min(pos + fromSize, m_TextLength);
        for (std::size_t at = pos + 1; at < end; ++at)
        {
            if ((m_Marks[at] & kStart) != 0)
            {
                return true;
            }
        }
        return false;
    }

    void accept(std::size_t pos, std::size_t toLength)
    {
        if (m_Marks == nullptr)
        {
            // Made on the first accepted record; short texts use the buffer
            // inside the object.
            if (m_TextLength <= sizeof m_Short)
            {
                m_Marks = m_Short;
            }
            else
            {
                m_Long.resize(m_TextLength);
                m_Marks = m_Long.data();
            }
            std::fill(m_Marks, m_Marks + m_TextLength, 0);
        }
        m_Marks[pos] |= kStart | kCovered;
        const std::size_t end = std::min(pos + toLength, m_TextLength);
        for (std::size_t at = pos + 1; at < end; ++at)
        {
            m_Marks[at] |= kCovered;
        }
    }

private:
    static constexpr unsigned char kCovered = 1;
    static constexpr unsigned char kStart = 2;

    std::size_t m_TextLength;
    unsigned char* m_Marks = nullptr;
    unsigned char m_Short[256];
    std::vector<unsigned char> m_Long;
};

// The search of the table's entries in well-formed text, over bytes, with the
// character positions counted along the way. Accepts what
// searchThroughUtf8String accepts, in the same order.
// `offsets` receives the byte offset of each accepted record.
void searchAsBytes(const Utf8String& text, const Snapshot& table, std::vector<Replacement>& accepted,
                   std::vector<std::size_t>& offsets)
{
    const std::string& bytes = text.str();
    const char* const data = bytes.data();
    const std::size_t size = bytes.size();
    Occupancy occupancy(countCharacters(data, size));
    for (const Snapshot::Entry& entry : table.entries)
    {
        const char* const from = table.bytes.data() + entry.from;
        std::size_t at = findBytes(data, size, 0, from, entry.fromSize);
        if (at == std::string::npos)
        {
            continue;
        }
        const std::size_t toLength = countCharacters(table.bytes.data() + entry.to, entry.toSize);
        const Replacement record{0, table.from(entry), table.to(entry)}; // copied for each accepted one
        std::size_t countedBytes = 0; // character positions are known up to this byte
        std::size_t countedCharacters = 0;
        while (at != std::string::npos)
        {
            countedCharacters += countCharacters(data + countedBytes, at - countedBytes);
            countedBytes = at;
            const std::size_t pos = countedCharacters;
            if (!occupancy.rejects(pos, entry.fromSize))
            {
                accepted.push_back(record);
                accepted.back().position = pos;
                offsets.push_back(at);
                occupancy.accept(pos, toLength);
            }
            // Overlapping occurrences count: go on one character further.
            at = findBytes(data, size, at + characterBytes(data[at]), from, entry.fromSize);
        }
    }
}

// A stack of pieces of text in a caller's fixed buffer when they fit, in a
// vector otherwise.
template <typename Piece>
class PieceStackOf
{
public:
    template <std::size_t N>
    PieceStackOf(Piece (&buffer)[N], std::vector<Piece>& heap, std::size_t capacity) : m_Data(buffer)
    {
        if (capacity > N)
        {
            heap.resize(capacity);
            m_Data = heap.data();
        }
    }

    bool empty() const { return m_Size == 0; }
    void push_back(const Piece& piece) { m_Data[m_Size++] = piece; }
    void pop_back() { --m_Size; }
    Piece& back() { return m_Data[m_Size - 1]; }
    const Piece* begin() const { return m_Data; }
    const Piece* end() const { return m_Data + m_Size; }

private:
    Piece* m_Data;
    std::size_t m_Size = 0;
};

// The records (sorted by position) applied to well-formed text from right to
// left, as Utf8String::replace(position, from.length(), to) would apply them
// one after the other, but in time linear in the text: the rewritten part
// right of the record being applied is kept as a list of pieces, so a
// replacement that reaches into text that a record further right put in
// removes characters from the front of that list.
std::string applyFromRightToLeft(const std::string& input, const std::vector<Replacement>& sorted,
                                 const std::vector<std::size_t>& offsets)
{
    struct Piece
    {
        const char* data;
        std::size_t size;
    };
    using PieceStack = PieceStackOf<Piece>;

    // The rewritten text right of the current record, front piece last.
    // Each record adds at most two pieces; a line's few fit in `inPlace`.
    Piece inPlace[64];
    std::vector<Piece> onHeap;
    PieceStack right(inPlace, onHeap, 2 * sorted.size());
    std::size_t rightEnd = input.size(); // where the untouched input ends
    for (std::size_t i = sorted.size(); i-- > 0;)
    {
        const Replacement& r = sorted[i];
        std::size_t remove = countCharacters(r.from.str().data(), r.from.size());
        // First from the untouched input up to the next record...
        std::size_t end = offsets[i];
        for (; remove > 0 && end < rightEnd; --remove)
        {
            end += characterBytes(input[end]);
        }
        if (end < rightEnd)
        {
            right.push_back(Piece{input.data() + end, rightEnd - end});
        }
        // ...then from the front of what the records further right made.
        while (remove > 0 && !right.empty())
        {
            Piece& front = right.back();
            std::size_t skipped = 0;
            while (remove > 0 && skipped < front.size)
            {
                skipped += characterBytes(front.data[skipped]);
                --remove;
            }
            if (skipped == front.size)
            {
                right.pop_back();
            }
            else
            {
                front.data += skipped;
                front.size -= skipped;
            }
        }
        if (!r.to.empty())
        {
            right.push_back(Piece{r.to.str().data(), r.to.size()});
        }
        rightEnd = offsets[i];
    }

    std::size_t total = rightEnd;
    for (const Piece& piece : right)
    {
        total += piece.size;
    }
    std::string result;
    result.reserve(total);
    result.append(input, 0, rightEnd);
    for (const Piece* piece = right.end(); piece != right.begin();)
    {
        --piece;
        result.append(piece->data, piece->size);
    }
    return result;
}

// Sorts the records by position, and their byte offsets with them. The
// positions are distinct, so the order is unique; each record is moved once
// (along the cycles of the permutation) instead of at every step of a sort.
void sortByPosition(std::vector<Replacement>& records, std::vector<std::size_t>& offsets)
{
    const std::size_t count = records.size();
    if (count <= 32)
    {
        // Few records (a line of text): insertion sort in place.
        for (std::size_t i = 1; i < count; ++i)
        {
            if (records[i].position > records[i - 1].position)
            {
                continue;
            }
            Replacement record = std::move(records[i]);
            const std::size_t offset = offsets[i];
            std::size_t j = i;
            for (; j > 0 && records[j - 1].position > record.position; --j)
            {
                records[j] = std::move(records[j - 1]);
                offsets[j] = offsets[j - 1];
            }
            records[j] = std::move(record);
            offsets[j] = offset;
        }
        return;
    }
    std::vector<std::pair<std::uint64_t, std::size_t>> order(count); // (position, where it is now)
    for (std::size_t i = 0; i < count; ++i)
    {
        order[i] = {records[i].position, i};
    }
    std::sort(order.begin(), order.end());
    std::vector<std::size_t> sortedOffsets(count);
    for (std::size_t i = 0; i < count; ++i)
    {
        sortedOffsets[i] = offsets[order[i].second];
    }
    offsets.swap(sortedOffsets);
    // Slot i receives records[order[i].second]; walk each cycle once.
    std::vector<bool> placed(count, false);
    for (std::size_t start = 0; start < count; ++start)
    {
        if (placed[start] || order[start].second == start)
        {
            continue;
        }
        Replacement held = std::move(records[start]);
        std::size_t slot = start;
        while (order[slot].second != start)
        {
            records[slot] = std::move(records[order[slot].second]);
            placed[slot] = true;
            slot = order[slot].second;
        }
        records[slot] = std::move(held);
        placed[slot] = true;
    }
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

void CharacterReplacements::takeSnapshot(detail::ReplacementSnapshot& snapshot) const
{
    const LanguageId key = getReplacementLanguageId();
    RWLockReadGuard guard(m_Lock);
    const auto found = m_Replacements.find(key);
    if (found == m_Replacements.end())
    {
        return;
    }
    const ReplacementTable& table = found->second;
    std::size_t total = 0;
    for (const auto& entry : table)
    {
        total += entry.first.size() + entry.second.size();
    }
    snapshot.bytes.resize(total);
    snapshot.entries.resize(table.size());
    char* const bytes = &snapshot.bytes[0];
    std::size_t at = 0;
    Snapshot::Entry* copied = snapshot.entries.data();
    for (const auto& entry : table)
    {
        const std::string& from = entry.first.str();
        const std::string& to = entry.second.str();
        std::memcpy(bytes + at, from.data(), from.size());
        copied->from = at;
        copied->fromSize = from.size();
        at += from.size();
        std::memcpy(bytes + at, to.data(), to.size());
        copied->to = at;
        copied->toSize = to.size();
        at += to.size();
        ++copied;
    }
}

void CharacterReplacements::applyCharacterReplacements(Utf8String& text) const
{
    Snapshot table;
    takeSnapshot(table);
    for (const Snapshot::Entry& entry : table.entries)
    {
        // replaceAll changes nothing where the search text does not occur
        // (or is empty), so that call is left out.
        const std::string& bytes = text.str();
        if (entry.fromSize == 0 ||
            findBytes(bytes.data(), bytes.size(), 0, table.bytes.data() + entry.from, entry.fromSize) ==
                std::string::npos)
        {
            continue;
        }
        text.replaceAll(table.from(entry), table.to(entry));
    }
}

CharacterReplacementResult CharacterReplacements::replaceCharacters(const Utf8String& text) const
{
    std::vector<Replacement> accepted;
    // One slot per input byte, so that accepting an occurrence never
    // reallocates.
    accepted.reserve(text.size());

    Snapshot table;
    takeSnapshot(table);
    const bool asBytes = searchableAsBytes(text, table);
    std::vector<std::size_t> offsets; // byte offsets of the accepted records
    if (asBytes)
    {
        offsets.reserve(std::min<std::size_t>(text.size(), 64));
        searchAsBytes(text, table, accepted, offsets);
    }
    else
    {
        searchThroughUtf8String(text, table, accepted);
    }

    CharacterReplacementResult result;
    if (asBytes)
    {
        sortByPosition(accepted, offsets);
        result.text = accepted.empty() ? text : Utf8String(applyFromRightToLeft(text.str(), accepted, offsets));
    }
    else
    {
        std::sort(accepted.begin(), accepted.end(),
                  [](const Replacement& a, const Replacement& b) { return a.position < b.position; });
        result.text = text;
        // Right to left, so that the positions still to be applied stay valid.
        for (auto r = accepted.rbegin(); r != accepted.rend(); ++r)
        {
            result.text.replace(r->position, r->from.length(), r->to);
        }
    }
    result.replacements = std::move(accepted);
    return result;
}

} // namespace qor::nav::sdk::utils::common
