#include "TextDemo.h"

#include "Trace.h"

#include "qor/nav/sdk/utils/common/CharacterReplacements.h"
#include "qor/nav/sdk/utils/validation/UTF8Validator.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

using qor::common::types::utf8::Utf8String;
using qor::nav::sdk::utils::common::CharacterReplacementResult;
using qor::nav::sdk::utils::common::CharacterReplacements;
using qor::nav::sdk::utils::common::Replacement;
using qor::nav::sdk::utils::timeline::Timeline;
using qor::nav::sdk::utils::validation::UTF8Validator;

namespace demo {

std::vector<TextInput> builtInSamples()
{
    return {
        {"strict", "Stra\xC3\x9F" "e 12, M\xC3\xBCnchen"},
        {"CESU-8 pair", "smile \xED\xA0\xBD\xED\xB8\x80 (U+1F600 as two surrogates)"},
        {"Latin-1 bytes", "caf\xE9 cr\xE8me"},
        {"overlong and out of range", "\xC0\xAF" "etc \xF4\x90\x80\x80 passwd"},
        {"control characters", "line 1\nline 2\ttabbed\r\n"},
        {"cut short", "end of text \xE4\xB8"},
    };
}

bool readInputFiles(const std::vector<std::string>& paths, std::vector<TextInput>& inputs, std::string& problem)
{
    for (const std::string& path : paths)
    {
        std::ifstream in(path, std::ios::binary);
        if (!in)
        {
            problem = "cannot read " + path + ": " + std::strerror(errno);
            return false;
        }
        std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (in.bad())
        {
            problem = "cannot read " + path;
            return false;
        }
        inputs.push_back({path, std::move(bytes)});
    }
    return true;
}

TextChecker::TextChecker(Timeline& timeline, std::vector<TextInput> inputs, bool showTexts)
    : m_Timeline(timeline), m_Inputs(std::move(inputs)), m_ShowTexts(showTexts)
{
}

void TextChecker::run()
{
    for (const TextInput& input : m_Inputs)
    {
        Section section(m_Timeline, "checkText", "text");
        const Utf8String text(input.bytes);
        ValidationResult result;
        result.name = input.name;
        result.bytesBefore = input.bytes.size();
        {
            Section validate(m_Timeline, "validateStrictUtf8", "text");
            result.strict = UTF8Validator::validateStrictUtf8(text);
        }
        Utf8String repaired;
        {
            Section repair(m_Timeline, "makeStrictUtf8Conform", "text");
            repaired = UTF8Validator::makeStrictUtf8Conform(text);
        }
        result.bytesAfter = repaired.size();
        result.changed = repaired != text;
        result.strictAfterRepair = UTF8Validator::validateStrictUtf8(repaired);

        std::string line = "UTF-8 \"" + input.name + "\": ";
        if (m_ShowTexts)
        {
            line += escaped(input.bytes, result.strict) + "  =>  ";
        }
        if (!result.changed)
        {
            line += "strict, unchanged";
        }
        else
        {
            line += std::string(result.strict ? "strict" : "not strict") + ", repaired (" +
                    std::to_string(result.bytesBefore) + " -> " + std::to_string(result.bytesAfter) + " bytes" +
                    (result.strictAfterRepair ? "" : ", STILL NOT STRICT") + ")";
            if (m_ShowTexts)
            {
                line += ": " + escaped(repaired.str(), true);
            }
        }
        say(line);
        m_Results.push_back(result);
    }
}

void ReplacementJob::execute()
{
    ++m_Runs;
    Section section(m_Timeline, "replacements", "text");
    CharacterReplacements& replacements = CharacterReplacements::getInstance();
    const CharacterReplacements::ReplacementTable table = {
        {"Str.", "Stra\xC3\x9F" "e"}, {"\xC3\x9F", "ss"}, {"\xC3\xB6", "oe"}, {"&", "und"}};
    replacements.setCharacterReplacements({{CharacterReplacements::getReplacementLanguageId(), table}});

    std::string entries;
    for (const auto& entry : table)
    {
        entries += (entries.empty() ? "" : ", ") + ("\"" + entry.first.str() + "\" -> \"" + entry.second.str() + "\"");
    }
    say("replacement table, by priority: " + entries);

    const Utf8String street("K\xC3\xB6lner Str. 12 & Gro\xC3\x9F" "e Allee");
    CharacterReplacementResult result;
    {
        Section once(m_Timeline, "replaceCharacters", "text");
        result = replacements.replaceCharacters(street);
    }
    say("replaceCharacters(\"" + street.str() + "\") = \"" + result.text.str() + "\", " +
        std::to_string(result.replacements.size()) + " replacements recorded:");
    for (const Replacement& replacement : result.replacements)
    {
        say("  at character " + std::to_string(replacement.position) + ": \"" + replacement.from.str() + "\" -> \"" +
            replacement.to.str() + "\"");
    }

    Utf8String chained = street;
    {
        Section inPlace(m_Timeline, "applyCharacterReplacements", "text");
        replacements.applyCharacterReplacements(chained);
    }
    say("applyCharacterReplacements, each entry on the output of the ones before: \"" + chained.str() + "\"");

    m_ReplacementsMade = result.replacements.size();
    m_Done.set();
}

} // namespace demo
