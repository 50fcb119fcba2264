// A guarded allocator composed from the allocator policies, drawing on a small
// memory budget: it allocates until the budget refuses, prints each change of
// the memory status, logs the allocators' statistics and gives everything back.
//
//   ./example_memory
#include "qor/nav/sdk/utils/memory/IMemoryListener.h"
#include "qor/nav/sdk/utils/memory/MemoryManager.h"
#include "qor/nav/sdk/utils/memory/MemoryStatus.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/AllocationStatistics.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/CheckForBufferOverflow.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/NoMultiThreading.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/NullptrOnError.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/ProtectBySpinLock.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <vector>

using namespace qor::nav::sdk::utils::memory;
using namespace qor::nav::sdk::utils::memory::allocator::policy;

namespace {

const char* statusName(MemoryStatus status)
{
    switch (status)
    {
    case Normal: return "Normal";
    case Elevated: return "Elevated";
    case High: return "High";
    case Critical: return "Critical";
    }
    return "?";
}

// Prints every change of the memory status.
class PrintingListener : public IMemoryListener
{
public:
    void onMemoryStatusChanged(MemoryStatus newStatus, MemoryStatus oldStatus) override
    {
        std::cout << "  memory status " << statusName(oldStatus) << " -> " << statusName(newStatus) << std::endl;
    }
};

// malloc-backed blocks of up to 8-byte alignment, counted against `budget` in
// whole chunks per block, guarded against overruns and counted in statistics.
// LockingPolicy is NoMultiThreading, ProtectByMutex or ProtectBySpinLock.
template <typename LockingPolicy>
class GuardedAllocator
{
public:
    static constexpr std::uint16_t s_Align = 8; // malloc's 16-byte blocks + 24 stay 8-byte aligned

    GuardedAllocator(const char* name, MemoryManager& budget) : m_Statistics(name), m_Check(name), m_Budget(budget) {}

    // `size` bytes, or null when the budget (or the system) refuses.
    void* allocate(std::size_t size, const char* file, std::uint32_t line)
    {
        const std::size_t total = grossSize(size);
        // The budget has its own locks and may call listeners: never inside ours.
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
        return size + CheckForBufferOverflow::extraBytesFront() + CheckForBufferOverflow::extraBytesBack();
    }
    static unsigned long chunksFor(std::size_t bytes) { return (bytes + 4095) / 4096; }

    AllocationStatistics m_Statistics;
    CheckForBufferOverflow m_Check;
    NullptrOnError m_Errors;
    LockingPolicy m_Lock;
    MemoryManager& m_Budget;
};

} // namespace

int main()
{
    MemoryManager budget(16 * 4096); // 16 chunks
    PrintingListener listener;
    budget.registerListener(listener);
    {
        GuardedAllocator<ProtectBySpinLock> tiles("Tiles", budget);
        GuardedAllocator<NoMultiThreading> scratch("Scratch", budget);

        constexpr std::size_t s_TileSize = 4000; // one chunk each, guards included
        std::vector<void*> blocks;
        for (;;)
        {
            void* block = tiles.allocate(s_TileSize, __FILE__, __LINE__);
            if (block == nullptr)
            {
                std::cout << "tile " << blocks.size() + 1 << " refused at consumption "
                          << budget.getMemoryConsumption() << std::endl;
                break;
            }
            std::memset(block, 0, s_TileSize); // every byte asked for may be used
            blocks.push_back(block);
            std::cout << "tile " << blocks.size() << " allocated" << std::endl;
        }
        std::cout << "scratch at Critical: " << (scratch.allocate(16, __FILE__, __LINE__) ? "granted" : "refused")
                  << std::endl;

        // The records register with the process-wide budget; logged at Info.
        MemoryManager::locateInstance().logStatistics();

        for (void* block : blocks)
        {
            tiles.deallocate(block, s_TileSize);
        }
        void* small = scratch.allocate(16, __FILE__, __LINE__);
        std::cout << "scratch after release: " << (small ? "granted" : "refused") << std::endl;
        scratch.deallocate(small, 16);
    }
    budget.unregisterListener(listener);
    return 0;
}
