// The four levels of the process-wide memory budget's consumption.
//
//   if (status >= MemoryStatus::High) { cache.shrink(); }
//
// The levels rise with the share of the budget in use (see MemoryManager.h for
// the thresholds and their hysteresis): Normal, Elevated, High and Critical.
// At Critical the budget grants no further chunks.
//
// Threads: a plain value, usable from any thread.
#ifndef QOR_NAV_SDK_UTILS_MEMORY_MEMORYSTATUS_H
#define QOR_NAV_SDK_UTILS_MEMORY_MEMORYSTATUS_H

#include <cstdint>

namespace qor::nav::sdk::utils::memory {

// Unscoped on purpose: existing callers write both `MemoryStatus::High` and
// compare levels by their order (`status > High`).
enum MemoryStatus : std::uint16_t
{
    Normal = 0,   // consumption has not passed 0.70
    Elevated = 1, // passed 0.70, not yet back below 0.65
    High = 2,     // passed 0.89, not yet back below 0.85
    Critical = 3  // passed 0.98, not yet back below 0.95; no chunks are granted
};

} // namespace qor::nav::sdk::utils::memory

#endif
