// The system's millisecond tick counter.
//
// getTickCounter() counts milliseconds on the monotonic clock as an unsigned
// 32-bit value that wraps at 2^32 (about every 49.7 days). Compare two ticks
// only through the sign of their 32-bit difference:
//   bool notEarlier = static_cast<std::int32_t>(a - b) >= 0;
// Delays are added to ticks directly.
//
// Threads: every operation may be called from any thread.
#ifndef QOR_COMMON_SYSTEM_CLOCK_H
#define QOR_COMMON_SYSTEM_CLOCK_H

#include <cstdint>

namespace qor::common::system {

class Clock
{
public:
    // Monotonic milliseconds, modulo 2^32, shifted by the test offset.
    static std::uint32_t getTickCounter() noexcept;

    // Test hook: every later getTickCounter() reading is shifted by `offset`
    // (modulo 2^32), so that a test can put the counter just before its wrap.
    // 0 restores normal readings. Takes effect for all threads at once.
    static void setTickCounterOffset(std::uint32_t offset) noexcept;
};

} // namespace qor::common::system

#endif
