// A small allocator composed from the allocator policies: a locking, an error
// and a checking policy, plus a statistics record. It asks a memory budget for
// chunks before it takes memory from the system, so the budget's status rises
// as blocks are taken and falls as they are given back.
//
//   MemoryManager budget(16 * 4096);
//   example::GuardedAllocator<ProtectByMutex, NullptrOnError, CheckForBufferOverflow> tiles("Tiles", budget);
//   void* block = tiles.allocate(4000, __FILE__, __LINE__);   // null once the budget refuses
//   tiles.deallocate(block, 4000);                            // the size given to allocate()
//
// Ownership: the allocator refers to the budget, which must outlive it; the
// name is not copied and must outlive the allocator too. Blocks still held
// when the allocator is destroyed are neither freed nor returned.
//
// Threads: with ProtectByMutex or ProtectBySpinLock every operation may be
// called from any thread; with NoMultiThreading from one thread at a time.
// The destructor must not run concurrently with other calls.
#ifndef QOR_EXAMPLES_GUARDEDALLOCATOR_H
#define QOR_EXAMPLES_GUARDEDALLOCATOR_H

#include "qor/nav/sdk/utils/memory/MemoryManager.h"
#include "qor/nav/sdk/utils/memory/MemoryStatus.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/AllocationStatistics.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace example {

using qor::nav::sdk::utils::memory::MemoryManager;
using qor::nav::sdk::utils::memory::MemoryStatus;

inline const char* statusName(MemoryStatus status)
{
    switch (status)
    {
    case qor::nav::sdk::utils::memory::Normal: return "Normal";
    case qor::nav::sdk::utils::memory::Elevated: return "Elevated";
    case qor::nav::sdk::utils::memory::High: return "High";
    case qor::nav::sdk::utils::memory::Critical: return "Critical";
    }
    return "?";
}

// malloc-backed blocks, counted against `budget` in whole chunks per block.
//   LockingPolicy:  NoMultiThreading, ProtectByMutex or ProtectBySpinLock
//   ErrorPolicy:    NullptrOnError (what a refused request returns)
//   CheckingPolicy: CheckForBufferOverflow (guard words around every block)
template <typename LockingPolicy, typename ErrorPolicy, typename CheckingPolicy>
class GuardedAllocator
{
public:
    // malloc's blocks are 16-byte aligned; 24 bytes in they are 8-byte aligned.
    static constexpr std::uint16_t s_Align = 8;

    GuardedAllocator(const char* name, MemoryManager& budget) : m_Statistics(name), m_Check(name), m_Budget(budget) {}

    // `size` bytes, or what the error policy returns when the budget or the
    // system refuses.
    void* allocate(std::size_t size, const char* file, std::uint32_t line)
    {
        const std::size_t total = grossSize(size);
        // The budget has its own locks and calls the listeners: never inside ours.
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

    // Frees a block of `size` bytes from allocate(). Aborts with a report if
    // the block was overrun.
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

    // Registers itself with MemoryManager::locateInstance(), which logs it in logStatistics().
    qor::nav::sdk::utils::memory::allocator::policy::AllocationStatistics m_Statistics;
    CheckingPolicy m_Check;
    ErrorPolicy m_Errors;
    LockingPolicy m_Lock;
    MemoryManager& m_Budget;
};

} // namespace example

#endif
