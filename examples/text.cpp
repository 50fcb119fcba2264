// Repairs text to strict UTF-8, then applies a small table of German
// character replacements and prints what was replaced where.
//
//   example_text              uses a built-in sample
//   example_text notes.txt    uses the bytes of notes.txt
#include "qor/nav/sdk/utils/common/CharacterReplacements.h"
#include "qor/nav/sdk/utils/validation/UTF8Validator.h"

#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>

using qor::common::types::utf8::Utf8String;
using qor::nav::middleware::interface::types::language::LanguageId;
using qor::nav::sdk::utils::common::CharacterReplacementResult;
using qor::nav::sdk::utils::common::CharacterReplacements;
using qor::nav::sdk::utils::common::Replacement;
using qor::nav::sdk::utils::validation::UTF8Validator;

namespace {

// "Grüße aus Köln 😀, Straße (?) Ärger" with the emoji in CESU-8 (as some
// Java and database exports write it), a broken two-byte sequence, a stray
// FF byte, a tab and CR LF.
const std::string kSample = "Gr\xC3\xBC\xC3\x9F" "e aus K\xC3\xB6ln \xED\xA0\xBD\xED\xB8\x80, "
                            "Stra\xC3\x9F" "e (\xC3\xFF) \xC3\x84rger\t\r\n";

// Bytes 20..7E as they are, everything else as \xNN, so broken input shows.
std::string visible(const std::string& bytes)
{
    std::string out;
    for (const unsigned char b : bytes)
    {
        if (b >= 0x20 && b < 0x7F)
        {
            out += static_cast<char>(b);
        }
        else
        {
            char escaped[5];
            std::snprintf(escaped, sizeof escaped, "\\x%02X", b);
            out += escaped;
        }
    }
    return out;
}

} // namespace

int main(int argc, char** argv)
{
    std::string bytes = kSample;
    if (argc > 1)
    {
        std::ifstream file(argv[1], std::ios::binary);
        if (!file)
        {
            std::cerr << "cannot read " << argv[1] << "\n";
            return 1;
        }
        bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }

    // 1. Validate, and repair when needed: CESU-8 pairs become four-byte
    //    UTF-8, undecodable bytes and control characters are dropped.
    Utf8String text(bytes);
    std::cout << "input     (" << text.size() << " bytes): " << visible(text.str()) << "\n";
    if (!UTF8Validator::validateStrictUtf8(text))
    {
        text = UTF8Validator::makeStrictUtf8Conform(text);
        std::cout << "repaired  (" << text.size() << " bytes): " << visible(text.str()) << "\n";
    }
    std::cout << "strict UTF-8 now: " << std::boolalpha << UTF8Validator::validateStrictUtf8(text) << "\n\n";

    // 2. Install the replacement table. The library reads only the table
    //    stored under the replacement id; earlier entries win conflicts.
    CharacterReplacements& replacements = CharacterReplacements::getInstance();
    replacements.setCharacterReplacements({
        {CharacterReplacements::getReplacementLanguageId(),
         {{"\xC3\xA4", "ae"}, {"\xC3\xB6", "oe"}, {"\xC3\xBC", "ue"},
          {"\xC3\x84", "Ae"}, {"\xC3\x96", "Oe"}, {"\xC3\x9C", "Ue"},
          {"\xC3\x9F", "ss"}}},
    });

    // 3. replaceCharacters leaves `text` alone and lists every substitution;
    //    positions count characters of the input. An accepted substitution
    //    also claims as many characters after its position as its
    //    replacement has, so the "ß" right after "ü" in "Grüße" stays
    //    (callers rely on this; a one-character search text that becomes two
    //    characters shadows its neighbour).
    const CharacterReplacementResult result = replacements.replaceCharacters(text);
    std::cout << "replaced: " << result.text.str() << "\n";
    for (const Replacement& r : result.replacements)
    {
        std::cout << "  at " << r.position << ": " << r.from.str() << " -> " << r.to.str() << "\n";
    }

    // 4. applyCharacterReplacements rewrites in place, entry after entry.
    replacements.applyCharacterReplacements(text);
    std::cout << "applied:  " << text.str() << "\n";
    return 0;
}
