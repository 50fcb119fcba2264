// A string of UTF-8 bytes that counts, finds and replaces in characters.
//
//   Utf8String text("Stra\xC3\x9F" "e");        // "Straße": size() 7 bytes, length() 6 characters
//   std::size_t at = text.find("\xC3\x9F");      // 4, a character position
//   text.replace(at, 1, "ss");                   // "Strasse"
//   text.append(Utf8Char(0x20AC));               // appends E2 82 AC
//
// A Utf8String holds exactly one std::string with the bytes and nothing else;
// str() gives them back unchanged. Any bytes may be stored: construction and
// append never check them. Well-formed UTF-8 is what the strict validator of
// the kit accepts: one- to four-byte forms, no overlong forms, no surrogate
// code points (so CESU-8 is not well-formed), nothing above U+10FFFF and no
// sequence cut short at the end.
//
// Which operations throw InvalidArgumentException:
//   - length() and find() decode this string and throw when its bytes are
//     not well-formed UTF-8; find() also throws when the searched text is
//     not. Callers that take text from outside catch it and skip the text
//     (the character replacement table does).
//   - append(Utf8Char) throws for a value that is not a Unicode scalar value
//     (a surrogate or anything above U+10FFFF).
//   - size(), str(), replace(), replaceAll(), append(Utf8String), comparison
//     and copying never throw it.
// Positions given to and returned by find() and replace() count characters
// (code points), the unit of length(); size() counts bytes.
//
// Threads: a Utf8String carries no lock; distinct objects may be used from
// any thread, one object by one thread at a time (const operations may run
// concurrently). Utf8Char is a plain value.
#ifndef QOR_COMMON_TYPES_UTF8_UTF8STRING_H
#define QOR_COMMON_TYPES_UTF8_UTF8STRING_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace qor::common::types::utf8 {

// One Unicode code point. The value is stored as given; append() checks it.
class Utf8Char
{
public:
    constexpr explicit Utf8Char(std::uint32_t codePoint) noexcept : m_CodePoint(codePoint) {}

    constexpr std::uint32_t getCodePoint() const noexcept { return m_CodePoint; }

    friend constexpr bool operator==(const Utf8Char& a, const Utf8Char& b) noexcept { return a.m_CodePoint == b.m_CodePoint; }
    friend constexpr bool operator!=(const Utf8Char& a, const Utf8Char& b) noexcept { return a.m_CodePoint != b.m_CodePoint; }

private:
    std::uint32_t m_CodePoint;
};

class Utf8String
{
public:
    // "Not found" from find(), "to the end" for lengths.
    static constexpr std::size_t npos = std::string::npos;

    // The empty string.
    Utf8String() = default;

    // The bytes of a zero-terminated text; null gives the empty string.
    Utf8String(const char* bytes);

    // At most `len` bytes of `bytes` from byte `pos` on (std::string's rule;
    // std::out_of_range when `pos` is past the end). Takes the bytes as they
    // are, whole characters or not.
    Utf8String(const std::string& bytes, std::size_t pos = 0, std::size_t len = npos);

    // Takes over the bytes of a whole string without copying them.
    Utf8String(std::string&& bytes) noexcept : m_Bytes(std::move(bytes)) {}

    // The bytes. The reference stays valid until the string is changed.
    const std::string& str() const noexcept { return m_Bytes; }

    // Number of bytes. Never throws, whatever the bytes are.
    std::size_t size() const noexcept { return m_Bytes.size(); }

    // True when there are no bytes.
    bool empty() const noexcept { return m_Bytes.empty(); }

    // Number of characters (code points). Reads the whole string; throws
    // InvalidArgumentException when the bytes are not well-formed UTF-8.
    std::size_t length() const;

    // Character position of the first occurrence of `what` that starts at or
    // after character `pos`, or npos. A `pos` at or past length() always
    // gives npos, so the result is either below length() or npos; an empty
    // `what` is found at `pos` when `pos` is below length(). Throws
    // InvalidArgumentException when this string or `what` is not well-formed.
    std::size_t find(const Utf8String& what, std::size_t pos = 0) const;

    // Replaces, in place, `len` characters from character `pos` on (fewer
    // when the string ends first) by the bytes of `with`. Reads the string
    // only up to the end of the replaced characters; there a byte that does
    // not start a well-formed character counts as one character, so bytes
    // that are not well-formed never make it throw. Throws std::out_of_range,
    // leaving the string unchanged, when `pos` is past the end. `with` is not
    // checked.
    Utf8String& replace(std::size_t pos, std::size_t len, const Utf8String& with);

    // Replaces, in place, every occurrence of `what` by `with`, left to right;
    // the search goes on after the inserted text, so text that `with` brings
    // in is never matched again. Compares bytes, which for well-formed text
    // is the same as comparing characters, and never throws
    // InvalidArgumentException. An empty `what` changes nothing.
    Utf8String& replaceAll(const Utf8String& what, const Utf8String& with);

    // Appends the UTF-8 encoding (one to four bytes) of `character`. Throws
    // InvalidArgumentException, leaving the string unchanged, for surrogates
    // (U+D800..U+DFFF) and values above U+10FFFF.
    Utf8String& append(const Utf8Char& character);

    // Appends the bytes of `other` unchanged.
    Utf8String& append(const Utf8String& other);

    // Makes room for `bytes` bytes in total, so that appending up to that
    // size does not reallocate. std::length_error / std::bad_alloc as
    // std::string::reserve.
    void reserve(std::size_t bytes) { m_Bytes.reserve(bytes); }

    friend bool operator==(const Utf8String& a, const Utf8String& b) noexcept { return a.m_Bytes == b.m_Bytes; }
    friend bool operator!=(const Utf8String& a, const Utf8String& b) noexcept { return a.m_Bytes != b.m_Bytes; }

private:
    std::string m_Bytes;
};

} // namespace qor::common::types::utf8

#endif
