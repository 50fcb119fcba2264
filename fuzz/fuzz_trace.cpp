// Fuzz target: qor-trace's reader, repair and export on arbitrary bytes.
//
// Properties, for every input x:
//   - reading x never crashes, and when the reader calls x whole, x is valid
//     JSON to an independent parser (nlohmann-json);
//   - reading runs of lines in one go (as check does) gives the same events,
//     ending and position as reading element by element;
//   - the repair of x (events as they are) and the export of x (complete
//     events) both read back whole, with no section left open and exactly
//     the sections that x holds.
#include "TracePass.h"
#include "TraceReader.h"

#include "FuzzSupport.h"

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <string_view>

using namespace qor::trace;

namespace {

struct Totals
{
    ReadResult result;
    std::uint64_t sections = 0;
    std::uint64_t open = 0;
};

Totals readAll(TraceReader& reader, std::string_view bytes, bool needText)
{
    MemorySource source(bytes);
    TracePass pass(Format::None, nullptr);
    Totals totals;
    totals.result = reader.read(source, pass, needText);
    for (const ThreadState& thread : pass.threads())
    {
        totals.sections += thread.sections;
        totals.open += thread.open.size();
    }
    return totals;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static TraceReader reader;  // keeps its parser's memory between inputs
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const Totals source = readAll(reader, bytes, true);
    if (source.result.ending == Ending::Whole)
    {
        QOR_FUZZ_CHECK(nlohmann::json::accept(bytes));
    }
    // Runs of lines parsed in one go, as check does, come to the same.
    const Totals quick = readAll(reader, bytes, false);
    QOR_FUZZ_CHECK(quick.result.ending == source.result.ending && quick.result.events == source.result.events &&
                   quick.result.at.offset == source.result.at.offset && quick.sections == source.sections &&
                   quick.open == source.open);
    for (const Format format : {Format::Events, Format::Complete})
    {
        Output output;
        TracePass pass(format, &output);
        MemorySource again(bytes);
        reader.read(again, pass);
        pass.finish();
        QOR_FUZZ_CHECK(output.finish());
        const Totals written = readAll(reader, output.memory(), false);
        QOR_FUZZ_CHECK(written.result.ending == Ending::Whole);
        QOR_FUZZ_CHECK(written.open == 0);
        QOR_FUZZ_CHECK(written.sections == source.sections);
    }
    return 0;
}
