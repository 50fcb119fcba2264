// The memory part of the demo: a guarded allocator composed from the
// allocator policies draws on a small budget of its own, step by step, until
// the budget refuses at Critical, then gives everything back; a listener
// prints and records each change of the memory status.
//
//   MemoryManager budget(demo::s_BudgetBytes);
//   demo::StatusHistory history(budget);
//   budget.registerListener(history);
//   auto job = std::make_shared<demo::MemoryJob>(timeline, budget);
//   scheduler.scheduleExecutionImmediately(job, Duration(50));   // one step per run
//   job->cycleDone().waitUntil(deadline);
//
// Ownership: the job holds the allocator, the allocator holds its blocks and
// a reference to the budget, which must outlive the job; the listener must
// be unregistered before it is destroyed.
//
// Threads: execute() runs on the scheduler's thread; releaseAll() and the
// read-outs are for main() once the scheduler has been shut down, except
// runs(), cycleDone() and StatusHistory, which any thread may use.
#ifndef QOR_UTILS_DEMO_MEMORYDEMO_H
#define QOR_UTILS_DEMO_MEMORYDEMO_H

#include "Support.h"

#include "qor/nav/sdk/utils/memory/IMemoryListener.h"
#include "qor/nav/sdk/utils/memory/MemoryManager.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/AllocationStatistics.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/CheckForBufferOverflow.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/NullptrOnError.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/ProtectByMutex.h"
#include "qor/nav/sdk/utils/synchronization/Function.h"
#include "qor/nav/sdk/utils/timeline/Timeline.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

namespace demo {

constexpr unsigned long s_BudgetChunks = 64;
constexpr unsigned long s_BudgetBytes = s_BudgetChunks * 4096;

const char* statusName(qor::nav::sdk::utils::memory::MemoryStatus status);

// Prints every change of the memory status and keeps the sequence of levels.
// Called with the budget's locks held: it only prints and records.
class StatusHistory : public qor::nav::sdk::utils::memory::IMemoryListener
{
public:
    explicit StatusHistory(const qor::nav::sdk::utils::memory::MemoryManager& budget);
    void onMemoryStatusChanged(qor::nav::sdk::utils::memory::MemoryStatus newStatus,
                               qor::nav::sdk::utils::memory::MemoryStatus oldStatus) override;
    // The levels seen, starting with Normal.
    std::vector<qor::nav::sdk::utils::memory::MemoryStatus> levels() const;
    // "Normal -> Elevated -> ...".
    std::string describe() const;

private:
    const qor::nav::sdk::utils::memory::MemoryManager& m_Budget;
    mutable std::mutex m_Mutex;
    std::vector<qor::nav::sdk::utils::memory::MemoryStatus> m_Levels;
};

// malloc-backed blocks counted against a budget in whole chunks, guarded
// against overruns and counted in a statistics record; one policy of each
// kind, as an allocator of the kit is put together.
template <typename LockingPolicy, typename ErrorPolicy, typename CheckingPolicy>
class GuardedAllocator
{
public:
    static constexpr std::uint16_t s_Align = 8; // malloc's blocks + 24 stay 8-byte aligned

    GuardedAllocator(const char* name, qor::nav::sdk::utils::memory::MemoryManager& budget)
        : m_Statistics(name), m_Check(name), m_Budget(budget)
    {
    }

    // `size` bytes, or what the error policy returns when the budget refuses.
    void* allocate(std::size_t size, const char* file, std::uint32_t line)
    {
        const std::size_t total = grossSize(size);
        // The budget locks itself and calls the listeners: never inside our lock.
        if (!m_Budget.requestChunks(chunksFor(total)))
        {
            return m_Errors.handleAllocationError(size, s_Align, file, line);
        }
        void* raw = std::malloc(total);
        if (raw == nullptr)
        {
            m_Budget.returnChunks(chunksFor(total));
            return m_Errors.handleAllocationError(size, s_Align, file, line);
        }
        auto guard = m_Lock.lock();
        m_Statistics.m_BytesAllocated += size;
        ++m_Statistics.m_AllocationsMade;
        return m_Check.onAllocation(raw, size, s_Align, file, line);
    }

    // Frees a block of `size` bytes from allocate(); aborts with a report if
    // it was overrun.
    void deallocate(void* p, std::size_t size)
    {
        m_Errors.handleDeallocation(p);
        if (p == nullptr)
        {
            return;
        }
        void* raw = nullptr;
        {
            auto guard = m_Lock.lock();
            raw = m_Check.onDeallocation(p);
        }
        std::free(raw);
        m_Budget.returnChunks(chunksFor(grossSize(size)));
    }

private:
    static std::size_t grossSize(std::size_t size)
    {
        return size + CheckingPolicy::extraBytesFront() + CheckingPolicy::extraBytesBack();
    }
    static unsigned long chunksFor(std::size_t bytes) { return (bytes + 4095) / 4096; }

    qor::nav::sdk::utils::memory::allocator::policy::AllocationStatistics m_Statistics;
    CheckingPolicy m_Check;
    ErrorPolicy m_Errors;
    LockingPolicy m_Lock;
    qor::nav::sdk::utils::memory::MemoryManager& m_Budget;
};

using TileAllocator = GuardedAllocator<qor::nav::sdk::utils::memory::allocator::policy::ProtectByMutex,
                                       qor::nav::sdk::utils::memory::allocator::policy::NullptrOnError,
                                       qor::nav::sdk::utils::memory::allocator::policy::CheckForBufferOverflow>;

// One step per run: takes four one-chunk blocks until the budget refuses,
// then frees four per run until none is left, and then does nothing more.
class MemoryJob : public qor::nav::sdk::utils::synchronization::Function
{
public:
    MemoryJob(qor::nav::sdk::utils::timeline::Timeline& timeline, qor::nav::sdk::utils::memory::MemoryManager& budget);
    // Frees the blocks still held.
    ~MemoryJob() override;

    void execute() override;

    // Set when the budget has been filled and emptied again.
    Completion& cycleDone() { return m_CycleDone; }
    int runs() const { return m_Runs.load(); }
    // The most blocks held at once.
    std::size_t peakBlocks() const { return m_PeakBlocks; }
    // Frees the blocks still held. Not while execute() may run.
    void releaseAll();

private:
    static constexpr std::size_t s_BlockSize = 4000; // one chunk with the guard words
    static constexpr int s_BlocksPerStep = 4;
    enum class Phase { Growing, Shrinking, Done };

    void grow();
    void shrink();

    qor::nav::sdk::utils::timeline::Timeline& m_Timeline;
    qor::nav::sdk::utils::memory::MemoryManager& m_Budget;
    TileAllocator m_Allocator;
    std::vector<void*> m_Blocks;
    std::size_t m_PeakBlocks = 0;
    Phase m_Phase = Phase::Growing;
    std::atomic<int> m_Runs{0};
    Completion m_CycleDone;
};

} // namespace demo

#endif
