// The memory budget: chunks of 4,096 bytes that allocators request before they
// take memory from the system and return when they release it.
//
//   MemoryManager& budget = MemoryManager::locateInstance();   // 512 MiB
//   if (!budget.requestChunks(chunks)) { return nullptr; }     // over budget
//   void* p = std::malloc(chunks * 4096);
//   ...
//   std::free(p);
//   budget.returnChunks(chunks);
//
// From the share of the budget in use (the consumption) the manager derives a
// MemoryStatus with hysteresis:
//
//   level      rises to the next level above   falls to the previous level below
//   Normal     0.70                            -
//   Elevated   0.89                            0.65
//   High       0.98                            0.85
//   Critical   -                               0.95
//
// One call may cross several levels; registered IMemoryListener objects hear
// of each call that changes the level once, with the final and the previous
// level. At Critical no chunk is granted even if some remain.
//
// The manager also keeps a registry of AllocationStatistics records (one per
// allocator; a record registers itself with locateInstance()) and writes them
// to the log on request.
//
// Ownership: listeners and statistics records are linked in place, never
// owned; each must be unregistered before it is destroyed. The list keeps
// itself intact only when they are unregistered in the reverse order of
// registration (most recent first); callers rely on that order.
//
// Logging: logger "qor.nav.sdk.utils.memory.MemoryManager"; construction and
// destruction at Debug, registrations, notifications and statistics at Info.
//
// Threads: every operation may be called from any thread; the destructor must
// not run concurrently with other calls. Three mutexes split the work (chunks,
// listeners, statistics); the chunk mutex is taken before the listener mutex,
// and listeners are called on the requesting thread with both held.
#ifndef QOR_NAV_SDK_UTILS_MEMORY_MEMORYMANAGER_H
#define QOR_NAV_SDK_UTILS_MEMORY_MEMORYMANAGER_H

#include "qor/common/logging/Logger.h"
#include "qor/common/system/Mutex.h"
#include "qor/common/utils/intrusivelist/IntrusiveList.h"
#include "qor/nav/sdk/utils/memory/IMemoryListener.h"
#include "qor/nav/sdk/utils/memory/MemoryStatus.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/AllocationStatistics.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace qor::nav::sdk::utils::memory {

class MemoryManager
{
public:
    // A budget of `limitInBytes` / 4,096 chunks (truncated), all available;
    // status Normal, consumption 0.0. A limit below 4,096 bytes gives a budget
    // of no chunks: every request for one or more chunks is refused and the
    // status never changes.
    explicit MemoryManager(unsigned long limitInBytes);

    // Logs the shutdown. Listeners and records still linked are left alone.
    ~MemoryManager();

    MemoryManager(const MemoryManager&) = delete;
    MemoryManager& operator=(const MemoryManager&) = delete;

    // The process-wide budget of 536,870,912 bytes (131,072 chunks), created
    // on the first call and destroyed at process exit.
    static MemoryManager& locateInstance();

    // The level and the consumption (0.0 to 1.0) as last computed. Read
    // without a lock: a concurrent change may or may not be seen yet.
    MemoryStatus getMemoryStatus() const;
    float getMemoryConsumption() const;

    // Takes `count` chunks from the budget and returns true; returns false and
    // changes nothing when fewer than `count` chunks are available or the
    // status is Critical. A granted request recomputes the consumption and the
    // status and notifies the listeners of a change of level before it
    // returns; an exception from a listener passes out of this call, with the
    // chunks already taken.
    [[nodiscard]] bool requestChunks(unsigned long count);

    // Gives `count` chunks back, recomputes consumption and status and
    // notifies the listeners of a change of level. Returning more chunks than
    // were taken is a programming error: the assertion on the budget fails.
    void returnChunks(unsigned long count);

    // Links `listener` in place, in front of the listeners registered before,
    // so that it is called before them. Asserts that it is not registered yet.
    void registerListener(IMemoryListener& listener);
    // Unlinks `listener`. Asserts that it is registered.
    void unregisterListener(IMemoryListener& listener);

    // Links `statistics` in place, in front of the records registered before.
    // Asserts that it is not registered yet.
    void registerStatistics(allocator::policy::AllocationStatistics& statistics);
    // Unlinks `statistics`. Asserts that it is registered.
    void unregisterStatistics(allocator::policy::AllocationStatistics& statistics);

    // Writes one Info record per registered allocator, most recently
    // registered first, after an "Outputting." line; writes nothing at all
    // when no record is registered.
    void logStatistics();

    // Calls every listener, most recently registered first, with
    // (`newStatus`, `oldStatus`) under the listener mutex. Internal: called
    // by updateChunks() with the chunk mutex held.
    void notifyListeners(MemoryStatus newStatus, MemoryStatus oldStatus);

    // Adds `difference` (negative: takes) to the available chunks and
    // recomputes consumption and status, notifying the listeners of a change.
    // Internal: the caller holds the chunk mutex. Asserts that the result
    // stays between 0 and the budget.
    void updateChunks(std::ptrdiff_t difference);

private:
    static qor::common::logging::Logger& getLogger();

    // The full level computation over the thresholds, for a count in use
    // that leaves the current level's range.
    void recomputeStatus(float consumption);

    // Rise from level i when the consumption is above s_GrowingThresholds[i];
    // fall from level i when it is below s_DroppingThresholds[i]. The outer
    // entries are sentinels that are never reached.
    static constexpr float s_GrowingThresholds[4] = {0.70f, 0.89f, 0.98f, 100.0f};
    static constexpr float s_DroppingThresholds[4] = {-100.0f, 0.65f, 0.85f, 0.95f};

    const std::uint64_t m_MaxChunks;
    std::uint64_t m_AvailableChunks;                 // guarded by m_ChunkMutex
    std::atomic<float> m_MemoryConsumption;          // written under m_ChunkMutex, read freely
    std::atomic<MemoryStatus> m_MemoryStatus;        // written under m_ChunkMutex, read freely
    qor::common::utils::IntrusiveList<IMemoryListener, &IMemoryListener::m_Elem> m_Listeners; // m_ListenerMutex
    qor::common::utils::IntrusiveList<allocator::policy::AllocationStatistics,
                                 &allocator::policy::AllocationStatistics::m_Elem>
        m_Statistics; // guarded by m_StatisticsMutex
    qor::common::system::Mutex m_ListenerMutex;
    qor::common::system::Mutex m_ChunkMutex;
    qor::common::system::Mutex m_StatisticsMutex;

    // Derived from m_MaxChunks and the thresholds at construction, so that
    // a change of chunks that keeps the level needs no float comparison:
    // at level i the level rises once at least m_RisingChunks[i] chunks are
    // in use and falls once fewer than m_FallingChunks[i] are.
    std::uint64_t m_RisingChunks[4];
    std::uint64_t m_FallingChunks[4];
    float m_MaxChunksAsFloat;
};

} // namespace qor::nav::sdk::utils::memory

#endif
