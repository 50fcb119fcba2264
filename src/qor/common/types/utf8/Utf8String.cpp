#include "qor/common/types/utf8/Utf8String.h"

#include "qor/common/errors/InvalidArgumentException.h"
#include "qor/common/types/utf8/ByteSearch.h"

#include <cstring>
#include <stdexcept>

namespace qor::common::types::utf8 {

namespace {

using errors::InvalidArgumentException;

bool inRange(unsigned char byte, unsigned char low, unsigned char high) noexcept
{
    return byte >= low && byte <= high;
}

// Number of bytes of the well-formed character that starts at `at`, or 0 when
// the bytes there do not form one (bad lead byte, bad or missing continuation
// byte, overlong form, surrogate, above U+10FFFF).
std::size_t characterSize(const std::string& bytes, std::size_t at) noexcept
{
    const std::size_t left = bytes.size() - at;
    const unsigned char lead = static_cast<unsigned char>(bytes[at]);
    if (lead < 0x80)
    {
        return 1;
    }
    auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(bytes[at + i]); };
    if (inRange(lead, 0xC2, 0xDF))
    {
        return left >= 2 && inRange(byteAt(1), 0x80, 0xBF) ? 2 : 0;
    }
    if (inRange(lead, 0xE0, 0xEF))
    {
        // E0 needs A0.. (no overlong form), ED needs ..9F (no surrogates).
        const unsigned char low = lead == 0xE0 ? 0xA0 : 0x80;
        const unsigned char high = lead == 0xED ? 0x9F : 0xBF;
        return left >= 3 && inRange(byteAt(1), low, high) && inRange(byteAt(2), 0x80, 0xBF) ? 3 : 0;
    }
    if (inRange(lead, 0xF0, 0xF4))
    {
        // F0 needs 90.. (no overlong form), F4 needs ..8F (nothing above U+10FFFF).
        const unsigned char low = lead == 0xF0 ? 0x90 : 0x80;
        const unsigned char high = lead == 0xF4 ? 0x8F : 0xBF;
        return left >= 4 && inRange(byteAt(1), low, high) && inRange(byteAt(2), 0x80, 0xBF) &&
                       inRange(byteAt(3), 0x80, 0xBF)
                   ? 4
                   : 0;
    }
    return 0;
}

// The result of reading a whole string: its length in characters and the byte
// offsets of up to two character positions (npos for positions past the end;
// a position equal to the length maps to the byte count).
struct Scan
{
    std::size_t length;
    std::size_t firstOffset;
    std::size_t secondOffset;
};

Scan scan(const std::string& bytes, std::size_t firstPos, std::size_t secondPos)
{
    Scan result{0, Utf8String::npos, Utf8String::npos};
    std::size_t at = 0;
    while (true)
    {
        if (result.length == firstPos)
        {
            result.firstOffset = at;
        }
        if (result.length == secondPos)
        {
            result.secondOffset = at;
        }
        if (at == bytes.size())
        {
            return result;
        }
        const std::size_t step = characterSize(bytes, at);
        if (step == 0)
        {
            throw InvalidArgumentException("Utf8String: not well-formed UTF-8 at byte " + std::to_string(at));
        }
        at += step;
        ++result.length;
    }
}

// Number of characters that start in bytes [from, to) of well-formed text.
std::size_t charactersBetween(const std::string& bytes, std::size_t from, std::size_t to) noexcept
{
    std::size_t count = 0;
    for (std::size_t i = from; i < to; ++i)
    {
        count += (static_cast<unsigned char>(bytes[i]) & 0xC0) != 0x80 ? 1u : 0u;
    }
    return count;
}

} // namespace

Utf8String::Utf8String(const char* bytes) : m_Bytes(bytes != nullptr ? bytes : "")
{
}

Utf8String::Utf8String(const std::string& bytes, std::size_t pos, std::size_t len) : m_Bytes(bytes, pos, len)
{
}

std::size_t Utf8String::length() const
{
    return scan(m_Bytes, npos, npos).length;
}

std::size_t Utf8String::find(const Utf8String& what, std::size_t pos) const
{
    scan(what.m_Bytes, npos, npos);
    const Scan here = scan(m_Bytes, pos, npos);
    if (pos >= here.length)
    {
        return npos;
    }
    // A well-formed needle starts with a lead byte, and a lead byte of
    // well-formed text always starts a character: a byte match is a
    // character match.
    const std::size_t at = m_Bytes.find(what.m_Bytes, here.firstOffset);
    if (at == std::string::npos)
    {
        return npos;
    }
    return pos + charactersBetween(m_Bytes, here.firstOffset, at);
}

Utf8String& Utf8String::replace(std::size_t pos, std::size_t len, const Utf8String& with)
{
    // Counts only as far as the replaced characters reach, so bytes after
    // them are never read. A byte that does not start a well-formed
    // character counts as one character: text put in by an earlier
    // replacement that is not well-formed is then replaced byte by byte
    // instead of making the call fail.
    const std::size_t end = len > npos - pos ? npos : pos + len;
    const std::size_t size = m_Bytes.size();
    std::size_t at = 0;
    std::size_t count = 0;
    for (; count < pos && at < size; ++count)
    {
        const std::size_t step = characterSize(m_Bytes, at);
        at += step != 0 ? step : 1;
    }
    if (count < pos)
    {
        throw std::out_of_range("Utf8String::replace: position " + std::to_string(pos) + " is past the length " +
                                std::to_string(count));
    }
    const std::size_t first = at;
    for (; count < end && at < size; ++count)
    {
        const std::size_t step = characterSize(m_Bytes, at);
        at += step != 0 ? step : 1;
    }
    m_Bytes.replace(first, at - first, with.m_Bytes);
    return *this;
}

Utf8String& Utf8String::replaceAll(const Utf8String& what, const Utf8String& with)
{
    const std::size_t whatSize = what.m_Bytes.size();
    if (whatSize == 0)
    {
        return *this;
    }
    const char* const needle = what.m_Bytes.data();
    std::size_t at = detail::findBytes(m_Bytes.data(), m_Bytes.size(), 0, needle, whatSize);
    if (at == std::string::npos)
    {
        return *this;
    }
    const std::size_t withSize = with.m_Bytes.size();
    if (withSize <= whatSize && &with != this && &what != this)
    {
        // Not longer: rewrite in place, front to back. What is written never
        // passes what is still to be read, so every search sees the original
        // bytes.
        char* const bytes = &m_Bytes[0];
        const std::size_t size = m_Bytes.size();
        std::size_t read = at;
        std::size_t write = at;
        while (at != std::string::npos)
        {
            std::memmove(bytes + write, bytes + read, at - read);
            write += at - read;
            std::memcpy(bytes + write, with.m_Bytes.data(), withSize);
            write += withSize;
            read = at + whatSize;
            at = detail::findBytes(bytes, size, read, needle, whatSize);
        }
        std::memmove(bytes + write, bytes + read, size - read);
        m_Bytes.resize(write + size - read);
        return *this;
    }
    std::string result;
    result.reserve(m_Bytes.size());
    std::size_t copied = 0;
    while (at != std::string::npos)
    {
        result.append(m_Bytes, copied, at - copied);
        result.append(with.m_Bytes);
        copied = at + whatSize;
        at = detail::findBytes(m_Bytes.data(), m_Bytes.size(), copied, needle, whatSize);
    }
    result.append(m_Bytes, copied, std::string::npos);
    m_Bytes.swap(result);
    return *this;
}

Utf8String& Utf8String::append(const Utf8Char& character)
{
    const std::uint32_t cp = character.getCodePoint();
    if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
    {
        throw InvalidArgumentException("Utf8String::append: " + std::to_string(cp) + " is not a Unicode scalar value");
    }
    char encoded[4];
    std::size_t count;
    if (cp < 0x80)
    {
        encoded[0] = static_cast<char>(cp);
        count = 1;
    }
    else if (cp < 0x800)
    {
        encoded[0] = static_cast<char>(0xC0 | (cp >> 6));
        encoded[1] = static_cast<char>(0x80 | (cp & 0x3F));
        count = 2;
    }
    else if (cp < 0x10000)
    {
        encoded[0] = static_cast<char>(0xE0 | (cp >> 12));
        encoded[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        encoded[2] = static_cast<char>(0x80 | (cp & 0x3F));
        count = 3;
    }
    else
    {
        encoded[0] = static_cast<char>(0xF0 | (cp >> 18));
        encoded[1] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        encoded[2] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        encoded[3] = static_cast<char>(0x80 | (cp & 0x3F));
        count = 4;
    }
    m_Bytes.append(encoded, count);
    return *this;
}

Utf8String& Utf8String::append(const Utf8String& other)
{
    m_Bytes.append(other.m_Bytes);
    return *this;
}

} // namespace qor::common::types::utf8
