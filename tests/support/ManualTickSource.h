// A hand-driven HighResolutionTimer, for tests whose output depends on time.
//
//   ManualTickSource clock(5000000);   // getTicks() now returns 5,000,000 ns
//   clock.advanceMicros(40000);        // ... and now 45,000,000 ns
//   // the real clock is back when `clock` is destroyed
//
// Only one may exist at a time (the timer takes a plain function pointer, so
// the time lives in a static). Threads: set/advance/nanos may be called from
// any thread; readings are atomic.
#ifndef QOR_TESTS_SUPPORT_MANUALTICKSOURCE_H
#define QOR_TESTS_SUPPORT_MANUALTICKSOURCE_H

#include "qor/common/system/HighResolutionTimer.h"

#include <atomic>
#include <cstdint>

namespace qor {
namespace test {

class ManualTickSource
{
public:
    explicit ManualTickSource(std::uint64_t startNanos = 1000000000u)
    {
        nanosRef().store(startNanos);
        common::system::HighResolutionTimer::setTickSource(&read);
    }
    ~ManualTickSource() { common::system::HighResolutionTimer::setTickSource(nullptr); }
    ManualTickSource(const ManualTickSource&) = delete;
    ManualTickSource& operator=(const ManualTickSource&) = delete;

    void setNanos(std::uint64_t nanos) { nanosRef().store(nanos); }
    void setMicros(std::uint64_t micros) { nanosRef().store(micros * 1000u); }
    void advanceMicros(std::uint64_t micros) { nanosRef().fetch_add(micros * 1000u); }
    std::uint64_t nanos() const { return nanosRef().load(); }

private:
    static std::atomic<std::uint64_t>& nanosRef()
    {
        static std::atomic<std::uint64_t> s_Nanos{0};
        return s_Nanos;
    }
    static std::uint64_t read() { return nanosRef().load(); }
};

} // namespace test
} // namespace qor

#endif
