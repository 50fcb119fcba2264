// The text utilities next to what a user would pick instead.
//
// Figures (every ":ours" has an ":anchor" measured in the same run):
//   validate/<corpus>            UTF8Validator::validateStrictUtf8 vs
//                                simdjson::validate_utf8
//   validate-automaton/<corpus>  the same vs the byte-at-a-time decoding
//                                automaton (the plain table-driven validator)
//   validate-vs-icu/<corpus>     the same vs a U8_NEXT loop of ICU that counts
//                                ill-formed sequences
//   validate/lines-100B          one call on a ~100-byte line (time per call)
//                                vs simdjson on the same line
//   conform/<corpus>             UTF8Validator::makeStrictUtf8Conform on text
//                                that needs no repair vs a loop that decodes
//                                each character and appends it (dropping
//                                controls), the way one writes it by hand
//   replacements-apply/<size>    CharacterReplacements::applyCharacterReplacements
//   replacements-replace/<size>  CharacterReplacements::replaceCharacters
//                                both vs a chained std::string find/replace
//                                loop over the same 18-entry table; <size> is
//                                100B (street-name lines) or 10KB (a hundred
//                                of them joined)
// Corpora come from Corpora.h: ~16 MiB each of ASCII prose, Latin-script
// names (~10% two-byte characters), CJK text and emoji-rich messages.
// Throughput figures set bytes processed; per-call figures items processed.
#include "Corpora.h"

#include "qor/nav/sdk/utils/common/CharacterReplacements.h"
#include "qor/nav/sdk/utils/validation/UTF8Validator.h"
#include "qor/nav/sdk/utils/validation/Utf8Automaton.h"

#include <benchmark/benchmark.h>
#include <simdjson.h>
#include <unicode/utf8.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using qor::bench::Corpus;
using qor::common::types::utf8::Utf8Char;
using qor::common::types::utf8::Utf8String;
using qor::nav::sdk::utils::common::CharacterReplacements;
using qor::nav::sdk::utils::validation::UTF8Validator;
namespace automaton = qor::nav::sdk::utils::validation::detail;

const Corpus kCorpora[] = {Corpus::Ascii, Corpus::Latin, Corpus::Cjk, Corpus::Emoji};

std::string corpusLabel(Corpus corpus)
{
    return std::string(qor::bench::corpusName(corpus)) + "-" +
           std::to_string(qor::bench::corpus(corpus).size() >> 20) + "MiB";
}

// --- Anchors -------------------------------------------------------------------

bool icuIsWellFormed(const std::string& bytes)
{
    const auto* s = reinterpret_cast<const std::uint8_t*>(bytes.data());
    const std::int32_t length = static_cast<std::int32_t>(bytes.size());
    std::int32_t i = 0;
    std::size_t errors = 0;
    while (i < length)
    {
        UChar32 c;
        U8_NEXT(s, i, length, c);
        errors += c < 0 ? 1u : 0u;
    }
    return errors == 0;
}

// Decodes character by character and appends each one, dropping what cannot
// be decoded and the C0 controls.
Utf8String decodeAndAppend(const Utf8String& text)
{
    Utf8String result;
    result.reserve(text.size());
    std::uint32_t state = automaton::kAccept;
    std::uint32_t codePoint = 0;
    for (const char c : text.str())
    {
        const std::uint32_t next = automaton::decode(state, codePoint, static_cast<std::uint8_t>(c));
        if (next == automaton::kAccept && codePoint > 0x1F)
        {
            result.append(Utf8Char(codePoint));
        }
        state = next == automaton::kReject ? automaton::kAccept : next;
    }
    return result;
}

using PlainTable = std::vector<std::pair<std::string, std::string>>;

// Each entry, in order, replaced everywhere in the text in place.
void chainedFindReplace(std::string& text, const PlainTable& table)
{
    for (const auto& entry : table)
    {
        std::size_t at = text.find(entry.first);
        while (at != std::string::npos)
        {
            text.replace(at, entry.first.size(), entry.second);
            at = text.find(entry.first, at + entry.second.size());
        }
    }
}

// --- Data ------------------------------------------------------------------------

const PlainTable& replacementTable()
{
    static const PlainTable s_Table = {
        {"\xC3\x9F", "ss"}, {"\xC3\xA4", "ae"}, {"\xC3\xB6", "oe"}, {"\xC3\xBC", "ue"}, {"\xC3\x84", "Ae"},
        {"\xC3\x96", "Oe"}, {"\xC3\x9C", "Ue"}, {"\xC3\xA9", "e"},  {"\xC3\xA8", "e"},  {"\xC3\xAA", "e"},
        {"\xC3\xA0", "a"},  {"\xC3\xA1", "a"},  {"\xC3\xA7", "c"},  {"\xC3\xB1", "n"},  {"\xC3\xB8", "o"},
        {"&", "and"},       {"Str.", "Strasse"}, {"St. ", "Saint "},
    };
    return s_Table;
}

void installReplacementTable()
{
    CharacterReplacements::ReplacementTable table;
    for (const auto& entry : replacementTable())
    {
        table.emplace_back(Utf8String(entry.first), Utf8String(entry.second));
    }
    CharacterReplacements::getInstance().setCharacterReplacements(
        {{CharacterReplacements::getReplacementLanguageId(), table}});
}

// The street-name lines, or sixteen texts of a hundred of them joined.
const std::vector<std::string>& replacementTexts(bool long10k)
{
    const std::vector<std::string>& lines = qor::bench::shortLines();
    static const std::vector<std::string> s_Long = [&lines] {
        std::vector<std::string> texts;
        std::size_t next = 0;
        for (int i = 0; i < 16; ++i)
        {
            std::string text;
            while (text.size() < 10000)
            {
                text += lines[next++ % lines.size()];
                text += "; ";
            }
            texts.push_back(text);
        }
        return texts;
    }();
    return long10k ? s_Long : lines;
}

// --- Registration -------------------------------------------------------------------

enum class Rate
{
    Bytes, // throughput: the bytes of the texts worked on
    Calls, // calls per second
};

// Registers `figure`: each iteration calls `work` on the next of `texts`,
// converted to an Input before timing starts. Ours and its anchor are two
// registrations of this one loop, so they differ only in `work`.
template <typename Input, typename Work>
void registerFigure(const std::string& figure, std::vector<std::string_view> texts, Rate rate, Work work)
{
    benchmark::RegisterBenchmark(figure.c_str(), [texts, rate, work](benchmark::State& state) {
        std::vector<Input> inputs;
        std::size_t bytes = 0;
        for (const std::string_view text : texts)
        {
            inputs.emplace_back(std::string(text));
            bytes += text.size();
        }
        std::size_t next = 0;
        for (auto _ : state)
        {
            benchmark::DoNotOptimize(work(inputs[next++ % inputs.size()]));
        }
        const auto iterations = static_cast<std::int64_t>(state.iterations());
        if (rate == Rate::Bytes)
        {
            state.SetBytesProcessed(iterations * static_cast<std::int64_t>(bytes / inputs.size()));
        }
        else
        {
            state.SetItemsProcessed(iterations);
        }
    });
}

std::vector<std::string_view> views(const std::vector<std::string>& texts)
{
    return std::vector<std::string_view>(texts.begin(), texts.end());
}

void registerValidation()
{
    const auto ours = [](const Utf8String& text) { return UTF8Validator::validateStrictUtf8(text); };
    for (const Corpus corpus : kCorpora)
    {
        const std::string label = corpusLabel(corpus);
        const std::vector<std::string_view> whole{qor::bench::corpus(corpus)};
        for (const char* figure : {"validate/", "validate-automaton/", "validate-vs-icu/"})
        {
            registerFigure<Utf8String>(figure + label + ":ours", whole, Rate::Bytes, ours);
        }
        registerFigure<std::string>("validate/" + label + ":anchor", whole, Rate::Bytes,
                                    [](const std::string& bytes) {
                                        return simdjson::validate_utf8(bytes.data(), bytes.size());
                                    });
        registerFigure<std::string>("validate-automaton/" + label + ":anchor", whole, Rate::Bytes,
                                    [](const std::string& bytes) {
                                        return automaton::validateStrictUtf8Reference(bytes.data(), bytes.size());
                                    });
        registerFigure<std::string>("validate-vs-icu/" + label + ":anchor", whole, Rate::Bytes, icuIsWellFormed);
    }
    const std::vector<std::string_view> lines = views(qor::bench::shortLines());
    registerFigure<Utf8String>("validate/lines-100B:ours", lines, Rate::Calls, ours);
    registerFigure<std::string>("validate/lines-100B:anchor", lines, Rate::Calls, [](const std::string& line) {
        return simdjson::validate_utf8(line.data(), line.size());
    });
}

void registerRepair()
{
    for (const Corpus corpus : kCorpora)
    {
        const std::string label = corpusLabel(corpus);
        const std::vector<std::string_view> whole{qor::bench::corpus(corpus)};
        registerFigure<Utf8String>("conform/" + label + ":ours", whole, Rate::Bytes,
                                   [](const Utf8String& text) { return UTF8Validator::makeStrictUtf8Conform(text); });
        registerFigure<Utf8String>("conform/" + label + ":anchor", whole, Rate::Bytes, decodeAndAppend);
    }
}

void registerReplacements()
{
    const auto apply = [](const Utf8String& input) {
        Utf8String text = input;
        CharacterReplacements::getInstance().applyCharacterReplacements(text);
        return text;
    };
    const auto replace = [](const Utf8String& input) {
        return CharacterReplacements::getInstance().replaceCharacters(input);
    };
    const auto anchor = [](const std::string& input) {
        std::string text = input;
        chainedFindReplace(text, replacementTable());
        return text;
    };
    for (const bool long10k : {false, true})
    {
        const std::string size = long10k ? "10KB" : "100B";
        const std::vector<std::string_view> texts = views(replacementTexts(long10k));
        registerFigure<Utf8String>("replacements-apply/" + size + ":ours", texts, Rate::Bytes, apply);
        registerFigure<std::string>("replacements-apply/" + size + ":anchor", texts, Rate::Bytes, anchor);
        registerFigure<Utf8String>("replacements-replace/" + size + ":ours", texts, Rate::Bytes, replace);
        registerFigure<std::string>("replacements-replace/" + size + ":anchor", texts, Rate::Bytes, anchor);
    }
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
    {
        return 1;
    }
    installReplacementTable();
    registerValidation();
    registerRepair();
    registerReplacements();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
