// Fuzz target: the character replacement table applied to arbitrary bytes.
//
// The table is a fixed one (one- to four-byte search texts, an entry that
// matches what an earlier one inserts, an empty replacement text and, last,
// an empty search text) or, for an input that starts with '|', the input's
// own: "|from|to|from|to|...|text" (up to six entries, any bytes, so search
// and replacement texts that cannot be decoded too).
//
// Properties (qor::test::replacementDisagreements): replaceCharacters() gives
// what the rule written out step by step gives (records and text);
// applyCharacterReplacements() gives what the chained replaceAll calls give.
// Neither throws or hangs. Texts are cut to 512 bytes (the conflict test
// is quadratic by design).
#include "FuzzSupport.h"
#include "support/ReplacementModel.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

using Table = qor::test::ReplacementTable;

namespace {

const Table kFixedTable = {
    {"\xC3\xA4", "ae"},                 // ä
    {"\xC3\xB6", "oe"},                 // ö
    {"\xC3\x9F", "ss"},                 // ß
    {"ae", "\xC3\xA6"},                 // æ, matches what the first entry puts in
    {"\xE2\x82\xAC", "EUR"},            // €
    {"\xF0\x9F\x98\x80", ":-)"},        // U+1F600
    {"--", ""},                         // removed
    {"ab", "\xE2\x80\x94\xE2\x80\x94"}, // longer in characters than its search text
    {"", "\xC2\xB7"},                   // ·, at every free position
};

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    qor::fuzz::discardLogRecords();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Table table = kFixedTable;
    std::string input(reinterpret_cast<const char*>(data), size);
    if (size > 0 && data[0] == '|')
    {
        const std::vector<std::string> parts = qor::fuzz::splitInput(data, size, 14);
        table.clear();
        std::size_t last = 1;
        for (; last + 2 < parts.size() && !parts[last].empty(); last += 2)
        {
            table.emplace_back(parts[last], parts[last + 1]);
        }
        input = parts[last];
    }
    qor::fuzz::requireNothingWrong(qor::test::replacementDisagreements(input.substr(0, 512), table));
    return 0;
}
