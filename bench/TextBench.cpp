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

std::vector<std::string> replacementTexts(bool long10k)
{
    const std::vector<std::string>& lines = qor::bench::shortLines();
    if (!long10k)
    {
        return lines;
    }
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
}

std::vector<Utf8String> asUtf8(const std::vector<std::string>& texts)
{
    return std::vector<Utf8String>(texts.begin(), texts.end());
}

std::size_t totalBytes(const std::vector<std::string>& texts)
{
    std::size_t bytes = 0;
    for (const std::string& text : texts)
    {
        bytes += text.size();
    }
    return bytes;
}

// --- Registration -------------------------------------------------------------------

void registerValidation()
{
    for (const Corpus corpus : kCorpora)
    {
        const std::string label = corpusLabel(corpus);
        const std::string& bytes = qor::bench::corpus(corpus);
        auto ours = [&bytes](benchmark::State& state) {
            const Utf8String text(bytes);
            for (auto _ : state)
            {
                benchmark::DoNotOptimize(UTF8Validator::validateStrictUtf8(text));
            }
            state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
        };
        benchmark::RegisterBenchmark(("validate/" + label + ":ours").c_str(), ours);
        benchmark::RegisterBenchmark(("validate/" + label + ":anchor").c_str(), [&bytes](benchmark::State& state) {
            for (auto _ : state)
            {
                benchmark::DoNotOptimize(simdjson::validate_utf8(bytes.data(), bytes.size()));
            }
            state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
        });
        benchmark::RegisterBenchmark(("validate-automaton/" + label + ":ours").c_str(), ours);
        benchmark::RegisterBenchmark(("validate-automaton/" + label + ":anchor").c_str(),
                                     [&bytes](benchmark::State& state) {
                                         for (auto _ : state)
                                         {
                                             benchmark::DoNotOptimize(automaton::validateStrictUtf8Reference(
                                                 bytes.data(), bytes.size()));
                                         }
                                         state.SetBytesProcessed(
                                             static_cast<std::int64_t>(state.iterations() * bytes.size()));
                                     });
        benchmark::RegisterBenchmark(("validate-vs-icu/" + label + ":ours").c_str(), ours);
        benchmark::RegisterBenchmark(("validate-vs-icu/" + label + ":anchor").c_str(),
                                     [&bytes](benchmark::State& state) {
                                         for (auto _ : state)
                                         {
                                             benchmark::DoNotOptimize(icuIsWellFormed(bytes));
                                         }
                                         state.SetBytesProcessed(
                                             static_cast<std::int64_t>(state.iterations() * bytes.size()));
                                     });
    }

    benchmark::RegisterBenchmark("validate/lines-100B:ours", [](benchmark::State& state) {
        const std::vector<Utf8String> lines = asUtf8(qor::bench::shortLines());
        std::size_t next = 0;
        for (auto _ : state)
        {
            benchmark::DoNotOptimize(UTF8Validator::validateStrictUtf8(lines[next++ & 1023]));
        }
        state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
    });
    benchmark::RegisterBenchmark("validate/lines-100B:anchor", [](benchmark::State& state) {
        const std::vector<std::string>& lines = qor::bench::shortLines();
        std::size_t next = 0;
        for (auto _ : state)
        {
            const std::string& line = lines[next++ & 1023];
            benchmark::DoNotOptimize(simdjson::validate_utf8(line.data(), line.size()));
        }
        state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
    });
}

void registerRepair()
{
    for (const Corpus corpus : kCorpora)
    {
        const std::string label = corpusLabel(corpus);
        const std::string& bytes = qor::bench::corpus(corpus);
        benchmark::RegisterBenchmark(("conform/" + label + ":ours").c_str(), [&bytes](benchmark::State& state) {
            const Utf8String text(bytes);
            for (auto _ : state)
            {
                benchmark::DoNotOptimize(UTF8Validator::makeStrictUtf8Conform(text));
            }
            state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
        });
        benchmark::RegisterBenchmark(("conform/" + label + ":anchor").c_str(), [&bytes](benchmark::State& state) {
            const Utf8String text(bytes);
            for (auto _ : state)
            {
                benchmark::DoNotOptimize(decodeAndAppend(text));
            }
            state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
        });
    }
}

void registerReplacements()
{
    for (const bool long10k : {false, true})
    {
        const std::string size = long10k ? "10KB" : "100B";
        const std::vector<std::string> texts = replacementTexts(long10k);
        const std::size_t count = texts.size();
        const std::size_t bytes = totalBytes(texts);
        benchmark::RegisterBenchmark(("replacements-apply/" + size + ":ours").c_str(),
                                     [texts, count, bytes](benchmark::State& state) {
                                         const std::vector<Utf8String> inputs = asUtf8(texts);
                                         const CharacterReplacements& replacements =
                                             CharacterReplacements::getInstance();
                                         std::size_t next = 0;
                                         for (auto _ : state)
                                         {
                                             Utf8String text = inputs[next++ % count];
                                             replacements.applyCharacterReplacements(text);
                                             benchmark::DoNotOptimize(text);
                                         }
                                         state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
                                         state.SetBytesProcessed(
                                             static_cast<std::int64_t>(state.iterations() * bytes / count));
                                     });
        auto anchor = [texts, count, bytes](benchmark::State& state) {
            const PlainTable& table = replacementTable();
            std::size_t next = 0;
            for (auto _ : state)
            {
                std::string text = texts[next++ % count];
                chainedFindReplace(text, table);
                benchmark::DoNotOptimize(text);
            }
            state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
            state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes / count));
        };
        benchmark::RegisterBenchmark(("replacements-apply/" + size + ":anchor").c_str(), anchor);
        benchmark::RegisterBenchmark(("replacements-replace/" + size + ":ours").c_str(),
                                     [texts, count, bytes](benchmark::State& state) {
                                         const std::vector<Utf8String> inputs = asUtf8(texts);
                                         const CharacterReplacements& replacements =
                                             CharacterReplacements::getInstance();
                                         std::size_t next = 0;
                                         for (auto _ : state)
                                         {
                                             benchmark::DoNotOptimize(
                                                 replacements.replaceCharacters(inputs[next++ % count]));
                                         }
                                         state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
                                         state.SetBytesProcessed(
                                             static_cast<std::int64_t>(state.iterations() * bytes / count));
                                     });
        benchmark::RegisterBenchmark(("replacements-replace/" + size + ":anchor").c_str(), anchor);
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
