// The allocator of GuardedAllocator.h at work: it asks a memory budget for
// chunks before it takes memory from the system, so the budget's status rises
// as blocks are taken and falls as they are given back; a listener prints each
// change. At the end the statistics are logged and an overwritten guard word is
// reported.
//
//   ./example_guarded_allocator              # the overflow report runs in a forked child
//   ./example_guarded_allocator --overflow   # the overflow report aborts this process
//
// The overflow report ends in a failed assertion, which aborts the process
// that frees the overwritten block. That is why the example shows it in a
// child process unless asked to do it in its own.
#include "GuardedAllocator.h"

#include "qor/nav/sdk/utils/memory/IMemoryListener.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/CheckForBufferOverflow.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/NoMultiThreading.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/NullptrOnError.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/ProtectByMutex.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

using namespace qor::nav::sdk::utils::memory;
using namespace qor::nav::sdk::utils::memory::allocator::policy;

namespace {

using example::GuardedAllocator;
using example::statusName;

// Prints every change of the memory status. Called on the thread that took or
// returned the chunks, with the budget's locks held: print and return.
class PrintingListener : public IMemoryListener
{
public:
    void onMemoryStatusChanged(MemoryStatus newStatus, MemoryStatus oldStatus) override
    {
        std::cout << "  memory status " << statusName(oldStatus) << " -> " << statusName(newStatus) << std::endl;
    }
};

using SharedAllocator = GuardedAllocator<ProtectByMutex, NullptrOnError, CheckForBufferOverflow>;
using LocalAllocator = GuardedAllocator<NoMultiThreading, NullptrOnError, CheckForBufferOverflow>;

// Writes one byte past the end of a block and frees it: the checking policy
// logs which block was overwritten (allocator, file, line, guard addresses)
// and aborts.
void overrunAndFree(MemoryManager& budget)
{
    LocalAllocator scratch("Scratch", budget);
    char* text = static_cast<char*>(scratch.allocate(8, __FILE__, __LINE__));
    std::memcpy(text, "12345678", 9); // 9 bytes into 8: the terminator hits the back guard
    scratch.deallocate(text, 8);      // reports and aborts here
}

} // namespace

int main(int argc, char** argv)
{
    const bool overflowHere = argc > 1 && std::string(argv[1]) == "--overflow";

    MemoryManager budget(16 * 4096); // a budget of 16 chunks, apart from the process-wide one
    PrintingListener listener;
    budget.registerListener(listener);

    if (overflowHere)
    {
        overrunAndFree(budget); // does not return
    }

    {
        SharedAllocator tiles("Tiles", budget);
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
        }
        std::cout << blocks.size() << " tiles allocated" << std::endl;

        // Every AllocationStatistics record is listed by the process-wide
        // manager; the records are logged at level Info.
        MemoryManager::locateInstance().logStatistics();

        for (void* block : blocks)
        {
            tiles.deallocate(block, s_TileSize);
        }
        std::cout << "all tiles freed, consumption " << budget.getMemoryConsumption() << std::endl;
    }

    // The overflow report in a child process, so that its abort ends only the child.
    std::cout << "overrunning a block in a child process:" << std::endl;
    const pid_t child = fork();
    if (child == 0)
    {
        overrunAndFree(budget);
        _exit(0); // not reached
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child)
    {
        std::cerr << "could not run the child process" << std::endl;
        return 1;
    }
    const bool aborted = WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
    std::cout << "child " << (aborted ? "aborted after the report, as expected" : "did not abort") << std::endl;

    budget.unregisterListener(listener);
    return aborted ? 0 : 1;
}
