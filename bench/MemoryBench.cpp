// The memory budget's hot path: one requestChunks + returnChunks pair, as an
// allocator does around every block it takes from the system.
//
// Anchor: what a user would write instead, a counter of available chunks
// behind a std::mutex (lock, subtract, unlock; lock, add, unlock). The
// anchor's two operations are out-of-line calls, like ours, so both sides pay
// for a call boundary and only the work behind it differs.
//
// Figures (time per pair; items/s = pairs per second over all threads):
//   memory/pair-1thread    one thread
//   memory/pair-2threads   two threads on the same budget (contended mutex)
//   memory/pair-1thread-mtprocess
//                          one thread, in a process that has started another
//                          thread before (as every process of the kit has):
//                          the C library then takes its locks with atomic
//                          instructions, which it skips while a process has
//                          only ever had one thread. memory/pair-1thread runs
//                          first and sees a single-threaded process.
//
// The two-thread figures run a helper thread next to the benchmark thread;
// each performs the same number of pairs, and the timed region ends when both
// are done, so time per iteration is wall time per pair per thread.
#include "qor/nav/sdk/utils/memory/MemoryManager.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <thread>

namespace {

using qor::nav::sdk::utils::memory::MemoryManager;

constexpr unsigned long kBudgetBytes = 536870912UL; // the process-wide size: 131,072 chunks

// The anchor: a std::mutex-protected chunk counter.
class AnchorBudget
{
public:
    __attribute__((noinline)) bool requestChunks(unsigned long count)
    {
        std::lock_guard<std::mutex> guard(m_Mutex);
        if (m_Available < count)
        {
            return false;
        }
        m_Available -= count;
        return true;
    }

    __attribute__((noinline)) void returnChunks(unsigned long count)
    {
        std::lock_guard<std::mutex> guard(m_Mutex);
        m_Available += count;
    }

private:
    std::mutex m_Mutex;
    std::uint64_t m_Available = kBudgetBytes >> 12;
};

template <typename Budget>
inline void pair(Budget& budget)
{
    const bool granted = budget.requestChunks(1);
    benchmark::DoNotOptimize(granted);
    budget.returnChunks(1);
}

template <typename Budget>
void pairOneThread(benchmark::State& state)
{
    static Budget budget; // lives for the whole run, like the process-wide instance
    for (auto _ : state)
    {
        pair(budget);
    }
    state.SetItemsProcessed(state.iterations());
}

// The benchmark thread and one helper each run max_iterations pairs on the
// same budget; the helper is joined inside the last timed iteration.
// items_per_second counts the pairs of both threads over the wall time from
// the first iteration to the join (the default would divide by the CPU time
// of the benchmark thread alone, which shrinks while it sleeps on the mutex).
template <typename Budget>
void pairTwoThreads(benchmark::State& state)
{
    static Budget budget;
    const benchmark::IterationCount count = state.max_iterations;
    std::atomic<bool> go{false};
    std::thread helper([&] {
        while (!go.load(std::memory_order_acquire))
        {
        }
        for (benchmark::IterationCount i = 0; i < count; ++i)
        {
            pair(budget);
        }
    });
    std::chrono::steady_clock::time_point start;
    std::chrono::steady_clock::time_point end;
    benchmark::IterationCount left = count;
    for (auto _ : state)
    {
        if (left == count)
        {
            start = std::chrono::steady_clock::now();
            go.store(true, std::memory_order_release);
        }
        pair(budget);
        if (--left == 0)
        {
            helper.join();
            end = std::chrono::steady_clock::now();
        }
    }
    if (helper.joinable())
    {
        go.store(true, std::memory_order_release);
        helper.join(); // only when the loop ended early (an error); not timed
        return;
    }
    const double seconds = std::chrono::duration<double>(end - start).count();
    state.counters["items_per_second"] = benchmark::Counter(seconds > 0 ? 2.0 * count / seconds : 0.0);
}

// As pairOneThread, after a thread was started and ended, so that the C
// library has left its single-thread mode for good.
template <typename Budget>
void pairOneThreadInThreadedProcess(benchmark::State& state)
{
    std::thread([] {}).join();
    pairOneThread<Budget>(state);
}

struct OurBudget : MemoryManager
{
    OurBudget() : MemoryManager(kBudgetBytes) {}
};

} // namespace

BENCHMARK_TEMPLATE(pairOneThread, OurBudget)->Name("memory/pair-1thread:ours");
BENCHMARK_TEMPLATE(pairOneThread, AnchorBudget)->Name("memory/pair-1thread:anchor");
BENCHMARK_TEMPLATE(pairTwoThreads, OurBudget)->Name("memory/pair-2threads:ours");
BENCHMARK_TEMPLATE(pairTwoThreads, AnchorBudget)->Name("memory/pair-2threads:anchor");

BENCHMARK_TEMPLATE(pairOneThreadInThreadedProcess, OurBudget)->Name("memory/pair-1thread-mtprocess:ours");
BENCHMARK_TEMPLATE(pairOneThreadInThreadedProcess, AnchorBudget)->Name("memory/pair-1thread-mtprocess:anchor");

BENCHMARK_MAIN();
