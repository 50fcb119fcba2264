// Helpers shared by the fuzz targets: stopping the run on a violated
// property, splitting one fuzz input into several strings, and a log sink
// that keeps the libraries' log records (formatted, as always) off the
// terminal.
//
// Threads: fuzz targets run on one thread; nothing here is synchronised
// beyond what setLogSink does itself.
#ifndef QOR_FUZZ_FUZZSUPPORT_H
#define QOR_FUZZ_FUZZSUPPORT_H

#include "qor/common/logging/Logger.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace qor::fuzz {

// Stops the run (libFuzzer saves the input) when `wrong`, what a property
// check of tests/support found, is not empty.
inline void requireNothingWrong(const std::string& wrong)
{
    if (!wrong.empty())
    {
        std::fprintf(stderr, "property violated: %s\n", wrong.c_str());
        __builtin_trap();
    }
}

// Stops the run when the condition `holds` is false, naming it.
#define QOR_FUZZ_CHECK(holds) ::qor::fuzz::requireNothingWrong((holds) ? std::string() : std::string(#holds))

// Formats nothing more and prints nothing: records are still built in full by
// the loggers, so that code path is fuzzed too.
class DiscardingLogSink : public qor::common::logging::ILogSink
{
public:
    void write(const qor::common::logging::LogRecord&) override {}
};

inline void discardLogRecords()
{
    qor::common::logging::setLogSink(std::make_shared<DiscardingLogSink>());
}

// The fuzz input as `count` strings separated by '|' (the last one takes the
// rest, separators included; missing ones are empty). The separator keeps
// seed files readable and lets the fuzzer move bytes between the parts.
inline std::vector<std::string> splitInput(const std::uint8_t* data, std::size_t size, std::size_t count)
{
    std::vector<std::string> parts(count);
    std::string rest(reinterpret_cast<const char*>(data), size);
    for (std::size_t i = 0; i + 1 < count; ++i)
    {
        const std::size_t bar = rest.find('|');
        parts[i] = rest.substr(0, bar);
        if (bar == std::string::npos)
        {
            return parts;
        }
        rest.erase(0, bar + 1);
    }
    parts[count - 1] = rest;
    return parts;
}

} // namespace qor::fuzz

#endif
