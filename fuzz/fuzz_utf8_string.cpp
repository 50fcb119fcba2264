// Fuzz target: Utf8String's character operations on arbitrary bytes.
//
// Input: one byte for a character position (FF: npos), one byte for a
// character count (FF: npos), then "text|what|with".
//
// Properties: size() is the byte count; length() and find() throw
// InvalidArgumentException exactly when the documented inputs are not
// well-formed (judged by the check built from the Unicode table) and give the
// character-wise answer otherwise; find() gives a position below length() or
// npos; replace() never throws it and counts a byte that starts no
// well-formed character as one character; replaceAll() never throws it and
// gives what a byte-wise find-and-replace loop gives.
#include "qor/common/types/utf8/Utf8String.h"

#include "qor/common/errors/InvalidArgumentException.h"

#include "FuzzSupport.h"
#include "support/WellFormedUtf8.h"

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

using qor::common::errors::InvalidArgumentException;
using qor::common::types::utf8::Utf8String;

namespace {

constexpr std::size_t npos = Utf8String::npos;

std::size_t parameter(std::uint8_t byte)
{
    return byte == 0xFF ? npos : byte;
}

void checkLength(const Utf8String& text, const std::vector<std::size_t>& offsets)
{
    QOR_FUZZ_CHECK(text.size() == text.str().size());
    try
    {
        const std::size_t length = text.length();
        QOR_FUZZ_CHECK(!offsets.empty());
        QOR_FUZZ_CHECK(length == offsets.size() - 1);
    }
    catch (const InvalidArgumentException&)
    {
        QOR_FUZZ_CHECK(offsets.empty());
    }
}

// Character position of the first occurrence of `what` at or after `pos`,
// trying every character start in turn. `offsets` is not empty.
std::size_t naiveFind(const std::string& text, const std::vector<std::size_t>& offsets, const std::string& what,
                      std::size_t pos)
{
    for (std::size_t k = pos; k < offsets.size() - 1; ++k)
    {
        if (text.compare(offsets[k], what.size(), what) == 0)
        {
            return k;
        }
    }
    return npos;
}

void checkFind(const Utf8String& text, const std::vector<std::size_t>& textOffsets, const Utf8String& what,
               bool whatWellFormed, std::size_t pos)
{
    const bool wellFormed = !textOffsets.empty() && whatWellFormed;
    try
    {
        const std::size_t found = text.find(what, pos);
        QOR_FUZZ_CHECK(wellFormed);
        QOR_FUZZ_CHECK(found == npos || found < textOffsets.size() - 1);
        QOR_FUZZ_CHECK(found == naiveFind(text.str(), textOffsets, what.str(), pos));
    }
    catch (const InvalidArgumentException&)
    {
        QOR_FUZZ_CHECK(!wellFormed);
    }
}

// replace() reads any bytes: a byte that starts no well-formed character
// counts as one character.
void checkReplace(const Utf8String& text, std::size_t pos, std::size_t len, const Utf8String& with)
{
    const std::vector<std::size_t> offsets = qor::test::characterOrByteOffsets(text.str());
    const std::size_t length = offsets.size() - 1;
    Utf8String changed = text;
    try
    {
        changed.replace(pos, len, with);
        QOR_FUZZ_CHECK(pos <= length);
        const std::size_t end = len >= length - pos ? length : pos + len;
        const std::string& bytes = text.str();
        QOR_FUZZ_CHECK(changed.str() ==
                       bytes.substr(0, offsets[pos]) + with.str() + bytes.substr(offsets[end]));
    }
    catch (const std::out_of_range&)
    {
        QOR_FUZZ_CHECK(pos > length);
        QOR_FUZZ_CHECK(changed == text);
    }
}

// replaceAll() works on bytes, left to right, going on after what it put in.
void checkReplaceAll(const Utf8String& text, const Utf8String& what, const Utf8String& with)
{
    Utf8String changed = text;
    changed.replaceAll(what, with); // must not throw, whatever the bytes
    std::string expected = text.str();
    for (std::size_t at = what.empty() ? npos : expected.find(what.str()); at != npos;
         at = expected.find(what.str(), at + with.size()))
    {
        expected.replace(at, what.size(), with.str());
    }
    QOR_FUZZ_CHECK(changed.str() == expected);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 2)
    {
        return 0;
    }
    const std::size_t pos = parameter(data[0]);
    const std::size_t len = parameter(data[1]);
    const std::vector<std::string> parts = qor::fuzz::splitInput(data + 2, size - 2, 3);
    const Utf8String text(parts[0]);
    const Utf8String what(parts[1]);
    const Utf8String with(parts[2]);

    const std::vector<std::size_t> textOffsets = qor::test::wellFormedCharacterOffsets(text.str());
    const bool whatWellFormed = qor::test::isWellFormedUtf8(what.str());

    checkLength(text, textOffsets);
    checkLength(what, qor::test::wellFormedCharacterOffsets(what.str()));
    checkFind(text, textOffsets, what, whatWellFormed, pos);
    checkFind(text, textOffsets, what, whatWellFormed, 0);
    checkReplace(text, pos, len, with);
    checkReplaceAll(text, what, with);
    return 0;
}
