// Helpers shared by the fuzz targets: a property check that stops the run,
// splitting one fuzz input into several strings, and a log sink that keeps
// the libraries' log records (formatted, as always) off the terminal.
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

// Stops the run (libFuzzer saves the input) when a property does not hold.
#define QOR_FUZZ_CHECK(condition)                                                                     \
    do                                                                                                \
    {                                                                                                 \
        if (!(condition))                                                                             \
        {                                                                                             \
            std::fprintf(stderr, "property violated at %s:%d: %s\n", __FILE__, __LINE__, #condition); \
            __builtin_trap();                                                                         \
        }                                                                                             \
    } while (false)

namespace qor {
namespace fuzz {

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
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::size_t from = 0;
    for (std::size_t i = 0; i + 1 < count && from <= input.size(); ++i)
    {
        const std::size_t bar = input.find('|', from);
        if (bar == std::string::npos)
        {
            parts[i] = input.substr(from);
            from = input.size() + 1;
            break;
        }
        parts[i] = input.substr(from, bar - from);
        from = bar + 1;
    }
    if (from <= input.size())
    {
        parts[count - 1] = input.substr(from);
    }
    return parts;
}

inline bool withoutControlBytes(const std::string& bytes)
{
    for (const char c : bytes)
    {
        if (static_cast<unsigned char>(c) <= 0x1F)
        {
            return false;
        }
    }
    return true;
}

} // namespace fuzz
} // namespace qor

#endif
