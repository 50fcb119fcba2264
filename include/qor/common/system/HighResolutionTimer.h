// A monotonic nanosecond clock for time stamps and measurements.
//
// Threads: every operation may be called from any thread.
#ifndef QOR_COMMON_SYSTEM_HIGHRESOLUTIONTIMER_H
#define QOR_COMMON_SYSTEM_HIGHRESOLUTIONTIMER_H

#include <cstdint>

namespace qor::common::system {

class HighResolutionTimer
{
public:
    using TickSource = std::uint64_t (*)();

    // Nanoseconds on the monotonic clock (or from the installed test source).
    static std::uint64_t getTicks() noexcept;

    // Test hook: getTicks() returns what `source` returns until it is reset
    // with nullptr. Lets tests drive time-dependent output deterministically.
    static void setTickSource(TickSource source) noexcept;
};

} // namespace qor::common::system

#endif
