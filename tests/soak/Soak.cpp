// Soak test: every service of the utility library under concurrent load for a
// fixed time, then a balance sheet.
//
//   qor_soak [--seconds N]      (default 10)
//
// While it runs:
//  - three schedulers, each fed by two client threads that schedule immediate,
//    delayed and periodic work and remove it again at random;
//  - the scheduled functions allocate and free blocks through an allocator
//    composed from the locking, error and checking policies, on one small
//    MemoryManager budget whose use follows a slow wave so that the memory
//    status rises to Critical and falls back to Normal again and again; two
//    listeners count the notifications;
//  - every function records timeline sections into a multipart session with
//    small parts in a temporary directory;
//  - one thread keeps replacing the character-replacement tables while two
//    others apply them and check that no result mixes two tables, and
//    validate and repair random text.
//
// At the end it stops the load, waits for the queued one-shot work, shuts the
// schedulers down and checks: every one-shot that was not removed ran exactly
// once (removed ones at most once), nothing ran after shutdown, every function
// object was released, the thrown exceptions were all logged, the chunk
// balance is zero, the notifications form one chain ending in the final
// status, every part file is valid JSON and the sections pair up per thread
// over the series, and the peak RSS did not grow over the second half of the
// run. Exit status 0 when all hold, 1 with a "soak: FAILED: ..." line per
// broken check, 2 for bad arguments, 3 when the wind-down hangs.
#include "qor/common/logging/Logger.h"
#include "qor/common/types/utf8/Utf8String.h"
#include "qor/nav/sdk/utils/common/CharacterReplacements.h"
#include "qor/nav/sdk/utils/memory/IMemoryListener.h"
#include "qor/nav/sdk/utils/memory/MemoryManager.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/AllocationStatistics.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/CheckForBufferOverflow.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/NullptrOnError.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/ProtectByMutex.h"
#include "qor/nav/sdk/utils/synchronization/FunctionExecutionScheduler.h"
#include "qor/nav/sdk/utils/timeline/Timeline.h"
#include "qor/nav/sdk/utils/validation/UTF8Validator.h"
#include "support/FunctionThread.h"
#include "support/TemporaryDirectory.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace qor::nav::sdk::utils;
using qor::common::logging::LogLevel;
using qor::common::logging::LogRecord;
using qor::common::types::utf8::Utf8String;
using Clock = std::chrono::steady_clock;
using Scheduler = synchronization::FunctionExecutionScheduler;
using Duration = Scheduler::Duration;

// ---------------------------------------------------------------- reporting

std::vector<std::string> g_Failures;

void check(bool ok, const std::string& what)
{
    if (!ok)
    {
        g_Failures.push_back(what);
    }
}

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Counts the records that tell about faults and forwards unexpected errors to
// standard error. Everything below Error is dropped: the soak is about the
// balance sheet, not the log.
class CountingLogSink : public qor::common::logging::ILogSink
{
public:
    void write(const LogRecord& record) override
    {
        if (record.level < LogLevel::Error)
        {
            return;
        }
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (record.loggerName.rfind("qor.nav.sdk.utils.FunctionExecutionScheduler.", 0) == 0 &&
            record.text == "Unexpected exception while handling functionExecution: soak failure\n")
        {
            ++m_StandardExceptions;
        }
        else if (record.loggerName.rfind("qor.nav.sdk.utils.FunctionExecutionScheduler.", 0) == 0 &&
                 record.text == "Unexpected exception while handling functionExecution.\n")
        {
            ++m_OtherExceptions;
        }
        else if (record.loggerName == "qor.nav.sdk.utils.UTF8Validator")
        {
            ++m_ValidatorErrors; // repair of random bytes may report what it dropped
        }
        else
        {
            ++m_Unexpected;
            std::cerr << "soak: unexpected log record [" << record.loggerName << "] " << record.text;
        }
    }

    std::uint64_t standardExceptions() const { return read(m_StandardExceptions); }
    std::uint64_t otherExceptions() const { return read(m_OtherExceptions); }
    std::uint64_t validatorErrors() const { return read(m_ValidatorErrors); }
    std::uint64_t unexpected() const { return read(m_Unexpected); }

private:
    std::uint64_t read(const std::uint64_t& value) const
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return value;
    }

    mutable std::mutex m_Mutex;
    std::uint64_t m_StandardExceptions = 0;
    std::uint64_t m_OtherExceptions = 0;
    std::uint64_t m_ValidatorErrors = 0;
    std::uint64_t m_Unexpected = 0;
};

// Ends the process if the wind-down does not finish by the deadline, so that
// a hang fails the run instead of blocking the pipeline.
class HangGuard
{
public:
    explicit HangGuard(std::chrono::seconds limit)
        : m_Thread([this, limit] {
              std::unique_lock<std::mutex> lock(m_Mutex);
              if (!m_Done.wait_for(lock, limit, [this] { return m_Finished; }))
              {
                  std::fprintf(stderr, "soak: FAILED: still running %lld s after the start; something hangs\n",
                               static_cast<long long>(limit.count()));
                  std::fflush(stderr);
                  std::_Exit(3);
              }
          })
    {
    }
    ~HangGuard()
    {
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Finished = true;
        }
        m_Done.notify_all();
        m_Thread.join();
    }

private:
    std::mutex m_Mutex;
    std::condition_variable m_Done;
    bool m_Finished = false;
    std::thread m_Thread;
};

// VmHWM (peak) and VmRSS (current) from /proc/self/status, in KiB.
struct MemorySample
{
    long peakKiB = -1;
    long currentKiB = -1;
};

MemorySample sampleMemory()
{
    MemorySample sample;
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
    {
        if (line.rfind("VmHWM:", 0) == 0)
        {
            sample.peakKiB = std::atol(line.c_str() + 6);
        }
        else if (line.rfind("VmRSS:", 0) == 0)
        {
            sample.currentKiB = std::atol(line.c_str() + 6);
        }
    }
    return sample;
}

// ------------------------------------------------------------------- memory

// The allocator a user composes from the policies: budget first (it may call
// listeners, so never inside our lock), then the system, then the guard words
// and statistics under the locking policy.
template <typename LockingPolicy, typename ErrorPolicy, typename CheckingPolicy>
class PolicyAllocator
{
public:
    static constexpr std::uint16_t s_Align = 8;

    PolicyAllocator(const char* name, memory::MemoryManager& budget)
        : m_Statistics(name), m_Check(name), m_Budget(budget)
    {
    }

    void* allocate(std::size_t size, const char* file, std::uint32_t line)
    {
        const unsigned long chunks = chunksFor(size);
        if (!m_Budget.requestChunks(chunks))
        {
            m_Refused.fetch_add(1);
            return m_Errors.handleAllocationError(size, s_Align, file, line);
        }
        m_ChunksRequested.fetch_add(chunks);
        void* raw = std::malloc(grossSize(size));
        if (raw == nullptr)
        {
            giveBack(chunks);
            return m_Errors.handleAllocationError(size, s_Align, file, line);
        }
        auto guard = m_Lock.lock();
        m_Statistics.m_BytesAllocated += size;
        ++m_Statistics.m_AllocationsMade;
        return m_Check.onAllocation(raw, size, s_Align, file, line);
    }

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
            raw = m_Check.onDeallocation(p); // aborts with a report on a broken guard word
        }
        std::free(raw);
        giveBack(chunksFor(size));
    }

    std::uint64_t chunksRequested() const { return m_ChunksRequested.load(); }
    std::uint64_t chunksReturned() const { return m_ChunksReturned.load(); }
    std::uint64_t refused() const { return m_Refused.load(); }
    std::uint64_t allocationsMade()
    {
        auto guard = m_Lock.lock();
        return m_Statistics.m_AllocationsMade;
    }

private:
    static std::size_t grossSize(std::size_t size)
    {
        return size + CheckingPolicy::extraBytesFront() + CheckingPolicy::extraBytesBack();
    }
    static unsigned long chunksFor(std::size_t size) { return (grossSize(size) + 4095) / 4096; }
    void giveBack(unsigned long chunks)
    {
        m_Budget.returnChunks(chunks);
        m_ChunksReturned.fetch_add(chunks);
    }

    memory::allocator::policy::AllocationStatistics m_Statistics;
    CheckingPolicy m_Check;
    ErrorPolicy m_Errors;
    LockingPolicy m_Lock;
    memory::MemoryManager& m_Budget;
    std::atomic<std::uint64_t> m_ChunksRequested{0};
    std::atomic<std::uint64_t> m_ChunksReturned{0};
    std::atomic<std::uint64_t> m_Refused{0};
};

using SoakAllocator = PolicyAllocator<memory::allocator::policy::ProtectByMutex,
                                      memory::allocator::policy::NullptrOnError,
                                      memory::allocator::policy::CheckForBufferOverflow>;

// Counts notifications and checks that they form one chain: each one starts
// where the previous one ended. Called under the manager's chunk mutex, so
// calls never overlap; the mutex here is for the readers.
class CountingListener : public memory::IMemoryListener
{
public:
    void onMemoryStatusChanged(memory::MemoryStatus newStatus, memory::MemoryStatus oldStatus) override
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        ++m_Count;
        if (oldStatus != m_Last || newStatus == oldStatus)
        {
            ++m_Broken;
        }
        (newStatus > oldStatus ? m_Rises : m_Falls) += 1;
        m_ReachedCritical = m_ReachedCritical || newStatus == memory::Critical;
        m_Last = newStatus;
    }

    struct Summary
    {
        std::uint64_t count, rises, falls, broken;
        memory::MemoryStatus last;
        bool reachedCritical;
    };
    Summary summary() const
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return Summary{m_Count, m_Rises, m_Falls, m_Broken, m_Last, m_ReachedCritical};
    }

private:
    mutable std::mutex m_Mutex;
    std::uint64_t m_Count = 0;
    std::uint64_t m_Rises = 0;
    std::uint64_t m_Falls = 0;
    std::uint64_t m_Broken = 0;
    memory::MemoryStatus m_Last = memory::Normal;
    bool m_ReachedCritical = false;
};

// Blocks held between functions. The fill level it aims at follows a triangle
// wave over the budget, from 30 % to 105 % and back every 3 s, so that the
// status keeps rising and falling through every level.
class BlockPool
{
public:
    BlockPool(SoakAllocator& allocator, std::uint64_t budgetChunks, Clock::time_point start)
        : m_Allocator(allocator), m_BudgetChunks(budgetChunks), m_Start(start)
    {
    }

    void step(std::mt19937& random)
    {
        const std::uint64_t inUse = m_Allocator.chunksRequested() - m_Allocator.chunksReturned();
        if (inUse < targetChunks())
        {
            const std::size_t size = 1 + random() % (24 * 1024);
            auto* p = static_cast<unsigned char*>(m_Allocator.allocate(size, __FILE__, __LINE__));
            if (p == nullptr)
            {
                return; // refused by the budget: counted by the allocator
            }
            const unsigned char pattern = static_cast<unsigned char>(random());
            std::memset(p, pattern, size);
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Blocks.push_back(Block{p, size, pattern});
            return;
        }
        Block block;
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            if (m_Blocks.empty())
            {
                return;
            }
            const std::size_t i = random() % m_Blocks.size();
            block = m_Blocks[i];
            m_Blocks[i] = m_Blocks.back();
            m_Blocks.pop_back();
        }
        release(block);
    }

    void releaseAll()
    {
        std::vector<Block> blocks;
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            blocks.swap(m_Blocks);
        }
        for (const Block& block : blocks)
        {
            release(block);
        }
    }

    std::uint64_t corruptBlocks() const { return m_Corrupt.load(); }

private:
    struct Block
    {
        unsigned char* p;
        std::size_t size;
        unsigned char pattern;
    };

    std::uint64_t targetChunks() const
    {
        const double phase = std::fmod(secondsSince(m_Start), 3.0) / 3.0;
        const double wave = phase < 0.5 ? 2.0 * phase : 2.0 - 2.0 * phase;
        return static_cast<std::uint64_t>(m_BudgetChunks * (0.30 + 0.75 * wave));
    }

    void release(const Block& block)
    {
        // Sampled check of the content: another user of the block's memory
        // would have changed it.
        for (std::size_t i = 0; i < block.size; i += 61)
        {
            if (block.p[i] != block.pattern)
            {
                m_Corrupt.fetch_add(1);
                break;
            }
        }
        if (block.p[block.size - 1] != block.pattern)
        {
            m_Corrupt.fetch_add(1);
        }
        m_Allocator.deallocate(block.p, block.size);
    }

    SoakAllocator& m_Allocator;
    const std::uint64_t m_BudgetChunks;
    const Clock::time_point m_Start;
    std::mutex m_Mutex;
    std::vector<Block> m_Blocks;
    std::atomic<std::uint64_t> m_Corrupt{0};
};

// ----------------------------------------------------------------- timeline

struct SectionCounts
{
    std::atomic<std::uint64_t> begun{0};
    std::atomic<std::uint64_t> ended{0};
};

class Section
{
public:
    Section(timeline::Timeline& timeline, SectionCounts& counts, const char* name, const char* category)
        : m_Timeline(timeline), m_Counts(counts)
    {
        m_Timeline.beginSection(name, category, "");
        m_Counts.begun.fetch_add(1);
    }
    ~Section()
    {
        m_Timeline.endSection();
        m_Counts.ended.fetch_add(1);
    }
    Section(const Section&) = delete;
    Section& operator=(const Section&) = delete;

private:
    timeline::Timeline& m_Timeline;
    SectionCounts& m_Counts;
};

// Parses every part of the series in order. Sections may span parts, so the
// begin/end balance is followed per thread over the whole series: it never
// goes below zero and ends at zero.
struct TraceSummary
{
    std::size_t parts = 0;
    std::uint64_t begins = 0;
    std::uint64_t ends = 0;
    std::uint64_t events = 0;
    std::vector<std::string> problems;
};

TraceSummary readTrace(const std::string& dir, const std::string& baseName)
{
    TraceSummary summary;
    std::map<std::uint64_t, long> depth;
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir))
    {
        names.push_back(entry.path().filename().string());
    }
    // In part order: by the length of the name first, so that .1000 follows .999.
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        return a.size() != b.size() ? a.size() < b.size() : a < b;
    });
    for (std::size_t i = 0; i < names.size(); ++i)
    {
        char expected[64];
        std::snprintf(expected, sizeof expected, "%s.%03zu", baseName.c_str(), i + 1);
        if (names[i] != expected)
        {
            summary.problems.push_back("unexpected file " + names[i] + " (expected " + expected + ")");
            return summary;
        }
        std::ifstream in(dir + "/" + names[i], std::ios::binary);
        std::stringstream content;
        content << in.rdbuf();
        const nlohmann::json document = nlohmann::json::parse(content.str(), nullptr, false);
        if (document.is_discarded() || !document.contains("traceEvents") || !document["traceEvents"].is_array())
        {
            summary.problems.push_back(names[i] + " is not a valid trace document");
            continue;
        }
        ++summary.parts;
        for (const nlohmann::json& event : document["traceEvents"])
        {
            ++summary.events;
            const std::string phase = event.value("ph", "");
            if (phase != "B" && phase != "E")
            {
                continue;
            }
            long& d = depth[event.value("tid", std::uint64_t{0})];
            if (phase == "B")
            {
                ++summary.begins;
                ++d;
            }
            else
            {
                ++summary.ends;
                if (--d < 0)
                {
                    summary.problems.push_back(names[i] + ": section end without a begin");
                    d = 0;
                }
            }
        }
    }
    for (const auto& entry : depth)
    {
        if (entry.second != 0)
        {
            summary.problems.push_back("thread " + std::to_string(entry.first) + " left " +
                                       std::to_string(entry.second) + " sections open");
        }
    }
    return summary;
}

// ---------------------------------------------------------------- scheduler

enum class Kind : std::uint8_t { Immediate, Delayed, Periodic };

// What a client knows about one scheduled function. The function marks the
// record released as the last thing it does when destroyed: from then on it
// cannot run any more and the record's run count is final.
struct JobRecord
{
    std::atomic<std::uint32_t> runs{0};
    std::atomic<std::uint64_t> id{0};
    std::atomic<bool> removed{false};
    std::atomic<bool> removerQueued{false};
    std::atomic<bool> released{false};
    Kind kind = Kind::Immediate;
};

// The verdicts on settled records, summed up.
struct Tally
{
    std::uint64_t oneShots = 0;
    std::uint64_t removedOneShots = 0;
    std::uint64_t removedRan = 0;
    std::uint64_t expectedOnce = 0;
    std::uint64_t ranOnce = 0;
    std::uint64_t ranTwice = 0;
    std::uint64_t lost = 0; // released without running, yet never removed
    std::uint64_t periodic = 0;

    void settle(const JobRecord& record)
    {
        const std::uint32_t runs = record.runs.load();
        if (record.kind == Kind::Periodic)
        {
            ++periodic;
            return;
        }
        ++oneShots;
        ranTwice += runs > 1 ? 1 : 0;
        if (record.removed.load())
        {
            ++removedOneShots;
            removedRan += runs == 1 ? 1 : 0;
            return;
        }
        ++expectedOnce;
        ranOnce += runs == 1 ? 1 : 0;
        lost += runs == 0 ? 1 : 0;
    }
    void add(const Tally& o)
    {
        oneShots += o.oneShots;
        removedOneShots += o.removedOneShots;
        removedRan += o.removedRan;
        expectedOnce += o.expectedOnce;
        ranOnce += o.ranOnce;
        ranTwice += o.ranTwice;
        lost += o.lost;
        periodic += o.periodic;
    }
};

struct SharedState
{
    timeline::Timeline timeline;
    SectionCounts sections;
    std::atomic<bool> shutdownReturned{false};
    std::atomic<std::uint64_t> lateRuns{0};
    std::atomic<std::uint64_t> liveFunctions{0};
    std::atomic<std::uint64_t> oneShotRuns{0};
    std::atomic<std::uint64_t> periodicRuns{0};
    std::atomic<std::uint64_t> removerRuns{0};
    std::atomic<std::uint64_t> thrownStandard{0};
    std::atomic<std::uint64_t> thrownOther{0};
    BlockPool* pool = nullptr;
};

class LiveCount
{
public:
    explicit LiveCount(std::atomic<std::uint64_t>& live) : m_Live(live) { m_Live.fetch_add(1); }
    ~LiveCount() { m_Live.fetch_sub(1); }
    LiveCount(const LiveCount&) = delete;
    LiveCount& operator=(const LiveCount&) = delete;

private:
    std::atomic<std::uint64_t>& m_Live;
};

// Removes a periodic function from the worker thread of its own scheduler.
// While this runs the periodic one cannot be running (one function at a time),
// so it is in the queue and the removal takes effect.
class Remover : public synchronization::Function
{
public:
    Remover(SharedState& shared, Scheduler& scheduler, std::uint64_t id)
        : m_Live(shared.liveFunctions), m_Shared(shared), m_Scheduler(scheduler), m_Id(id)
    {
    }
    void execute() override
    {
        m_Shared.removerRuns.fetch_add(1);
        m_Scheduler.asyncRemoveFunctionExecution(Scheduler::FunctionExecutionId(m_Id));
    }

private:
    LiveCount m_Live;
    SharedState& m_Shared;
    Scheduler& m_Scheduler;
    const std::uint64_t m_Id;
};

class SoakJob : public synchronization::Function
{
public:
    // `throws`: 0 none, 1 a std::exception, 2 an int.
    SoakJob(SharedState& shared, Scheduler& scheduler, JobRecord& record, int throws, unsigned seed)
        : m_Live(shared.liveFunctions), m_Shared(shared), m_Scheduler(scheduler), m_Record(record),
          m_Throws(throws), m_Random(seed)
    {
    }
    ~SoakJob() override { m_Record.released.store(true); }

    void execute() override
    {
        m_Record.runs.fetch_add(1);
        if (m_Shared.shutdownReturned.load())
        {
            m_Shared.lateRuns.fetch_add(1);
        }
        {
            Section job(m_Shared.timeline, m_Shared.sections, "job", "soak");
            if (m_Random() % 2 == 0)
            {
                Section memory(m_Shared.timeline, m_Shared.sections, "memory", nullptr);
                for (unsigned i = 1 + m_Random() % 3; i > 0; --i)
                {
                    m_Shared.pool->step(m_Random);
                }
            }
        }
        if (m_Record.kind != Kind::Periodic)
        {
            m_Shared.oneShotRuns.fetch_add(1);
        }
        else
        {
            m_Shared.periodicRuns.fetch_add(1);
            // A client's removal misses a periodic function that is running
            // at that moment; it is queued again afterwards. Finish the job
            // from this scheduler's own thread.
            if (m_Record.removed.load() && !m_Record.removerQueued.exchange(true))
            {
                m_Scheduler.scheduleExecutionImmediately(
                    std::make_shared<Remover>(m_Shared, m_Scheduler, m_Record.id.load()));
            }
        }
        if (m_Throws == 1)
        {
            m_Shared.thrownStandard.fetch_add(1);
            throw std::runtime_error("soak failure");
        }
        if (m_Throws == 2)
        {
            m_Shared.thrownOther.fetch_add(1);
            throw 7;
        }
    }

private:
    LiveCount m_Live;
    SharedState& m_Shared;
    Scheduler& m_Scheduler;
    JobRecord& m_Record;
    const int m_Throws;
    std::mt19937 m_Random;
};

// One client thread of one scheduler. Its records live in a list (stable
// addresses); settled ones are judged and dropped as it goes, so that the
// bookkeeping stays bounded however long the soak runs.
class Client
{
public:
    Client(SharedState& shared, Scheduler& scheduler, unsigned seed)
        : m_Shared(shared), m_Scheduler(scheduler), m_Random(seed)
    {
    }

    void run(const std::atomic<bool>& stop)
    {
        for (std::uint64_t op = 1; !stop.load(); ++op)
        {
            operate();
            if (op % 64 == 0)
            {
                settle(kRecent);
            }
            std::this_thread::sleep_for(std::chrono::microseconds(500 + m_Random() % 3000)); // pacing only
        }
        // Periodic work is not left to the shutdown: remove it all.
        while (!m_LivePeriodic.empty())
        {
            remove(*m_LivePeriodic.front());
        }
    }

    // One-shot functions that were not removed and have not run yet. Call
    // after run() has returned.
    std::size_t waiting() const
    {
        return static_cast<std::size_t>(std::count_if(m_Records.begin(), m_Records.end(), [](const JobRecord& r) {
            return r.kind != Kind::Periodic && !r.removed.load() && r.runs.load() == 0;
        }));
    }

    // Judges every record whose function is gone, except the `keep` most
    // recent ones (candidates for removal). After the schedulers shut down,
    // settle(0) judges all; the result counts the records still unreleased.
    std::size_t settle(std::size_t keep = 0)
    {
        if (m_Records.size() <= keep)
        {
            return m_Records.size();
        }
        const auto end = std::prev(m_Records.end(), static_cast<std::ptrdiff_t>(keep));
        for (auto it = m_Records.begin(); it != end;)
        {
            if (it->released.load())
            {
                m_Tally.settle(*it);
                it = m_Records.erase(it);
            }
            else
            {
                ++it;
            }
        }
        return m_Records.size() - keep;
    }

    const Tally& tally() const { return m_Tally; }
    std::uint64_t removals() const { return m_Removals; }

private:
    static constexpr std::size_t kRecent = 32;
    static constexpr std::size_t kMaxLivePeriodic = 3;

    void operate()
    {
        const unsigned dice = m_Random() % 100;
        if (dice < 20)
        {
            if (!m_Records.empty())
            {
                // Mostly recent work, so that removal often meets queued work.
                const std::size_t window = std::min<std::size_t>(m_Records.size(), kRecent);
                auto victim = std::prev(m_Records.end(), static_cast<std::ptrdiff_t>(1 + m_Random() % window));
                if (!victim->removed.load())
                {
                    remove(*victim);
                }
            }
            return;
        }
        const Kind kind = dice < 60 ? Kind::Immediate : dice < 90 ? Kind::Delayed : Kind::Periodic;
        if (kind == Kind::Periodic && m_LivePeriodic.size() >= kMaxLivePeriodic)
        {
            remove(*m_LivePeriodic.front()); // the oldest makes room
        }
        m_Records.emplace_back();
        JobRecord& record = m_Records.back();
        record.kind = kind;
        const unsigned dice2 = m_Random() % 200;
        const int throws = kind == Kind::Periodic ? 0 : dice2 == 0 ? 1 : dice2 == 1 ? 2 : 0;
        auto job = std::make_shared<SoakJob>(m_Shared, m_Scheduler, record, throws, m_Random());
        Scheduler::FunctionExecutionId id;
        switch (kind)
        {
        case Kind::Immediate:
            id = m_Scheduler.scheduleExecutionImmediately(job);
            break;
        case Kind::Delayed:
            id = m_Scheduler.scheduleExecutionLater(job, Duration(m_Random() % 50));
            break;
        case Kind::Periodic:
            m_LivePeriodic.push_back(&record);
            id = m_Random() % 2 == 0
                     ? m_Scheduler.scheduleExecutionImmediately(job, Duration(10 + m_Random() % 40))
                     : m_Scheduler.scheduleExecutionLater(job, Duration(m_Random() % 20),
                                                          Duration(10 + m_Random() % 40));
            break;
        }
        record.id.store(id.getValue());
    }

    void remove(JobRecord& record)
    {
        record.removed.store(true); // before the call: a run after it sees the flag
        m_Scheduler.asyncRemoveFunctionExecution(Scheduler::FunctionExecutionId(record.id.load()));
        ++m_Removals;
        if (record.kind == Kind::Periodic)
        {
            m_LivePeriodic.erase(std::find(m_LivePeriodic.begin(), m_LivePeriodic.end(), &record));
        }
    }

    SharedState& m_Shared;
    Scheduler& m_Scheduler;
    std::mt19937 m_Random;
    std::list<JobRecord> m_Records;
    Tally m_Tally;
    std::uint64_t m_Removals = 0;
    std::deque<JobRecord*> m_LivePeriodic; // not removed yet, oldest first
};

// --------------------------------------------------------------------- text

// Two tables with the same search texts and different digits: a result with
// digits of both tables was built from a torn table. Every replacement text
// is one character long, so that no occurrence conflicts with another.
common::CharacterReplacements::ReplacementTables replacementTables(int which)
{
    using common::CharacterReplacements;
    if (which == 2)
    {
        return {};
    }
    return {{CharacterReplacements::getReplacementLanguageId(),
             {{"a", which == 0 ? "1" : "2"}, {"b", which == 0 ? "3" : "4"}}},
            {qor::nav::middleware::interface::types::language::LanguageId(1, 2, 3, 4), {{"x", "y"}}}};
}

bool fromTable(char digit, int table)
{
    return table == 0 ? (digit == '1' || digit == '3') : (digit == '2' || digit == '4');
}

struct TextCounts
{
    std::atomic<std::uint64_t> tableSwaps{0};
    std::atomic<std::uint64_t> replacements{0};
    std::atomic<std::uint64_t> validations{0};
    std::atomic<std::uint64_t> torn{0};
    std::atomic<std::uint64_t> badRepairs{0};
};

std::string randomText(std::mt19937& random)
{
    static const char* const pieces[] = {"a", "b", "c", " ", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x9A\x97"};
    std::string text;
    for (unsigned n = random() % 40; n > 0; --n)
    {
        text += pieces[random() % (sizeof pieces / sizeof pieces[0])];
    }
    return text;
}

std::string randomBytes(std::mt19937& random)
{
    static const char* const pieces[] = {"ok", "\xC3\xA9", "\xED\xA0\xBD\xED\xBA\x97", "\xED\xA0\x80", "\xC0\xAF",
                                         "\xF4\x90\x80\x80", "\xE2\x82", "\xFF"};
    std::string bytes;
    for (unsigned n = random() % 16; n > 0; --n)
    {
        if (random() % 3 == 0)
        {
            bytes += static_cast<char>(random());
        }
        else
        {
            bytes += pieces[random() % (sizeof pieces / sizeof pieces[0])];
        }
    }
    return bytes;
}

void checkReplacements(const std::string& input, TextCounts& counts)
{
    const auto& replacements = common::CharacterReplacements::getInstance();
    Utf8String applied(input);
    replacements.applyCharacterReplacements(applied);
    const std::string& out = applied.str();
    const bool first = std::any_of(out.begin(), out.end(), [](char c) { return fromTable(c, 0); });
    const bool second = std::any_of(out.begin(), out.end(), [](char c) { return fromTable(c, 1); });
    bool torn = first && second;

    const common::CharacterReplacementResult result = replacements.replaceCharacters(Utf8String(input));
    if (!result.replacements.empty())
    {
        const int table = fromTable(result.replacements.front().to.str()[0], 0) ? 0 : 1;
        const auto letters = std::count(input.begin(), input.end(), 'a') + std::count(input.begin(), input.end(), 'b');
        torn = torn || result.replacements.size() != static_cast<std::size_t>(letters);
        for (const common::Replacement& r : result.replacements)
        {
            torn = torn || !fromTable(r.to.str()[0], table);
        }
    }
    counts.torn.fetch_add(torn ? 1 : 0);
    counts.replacements.fetch_add(1);
}

void checkRepair(const std::string& bytes, TextCounts& counts)
{
    const Utf8String text(bytes);
    const Utf8String repaired = validation::UTF8Validator::makeStrictUtf8Conform(text);
    // Strict text without C0 control characters (which repair drops on
    // purpose) must come back unchanged.
    const bool keepsAsIs = validation::UTF8Validator::validateStrictUtf8(text) &&
                           std::none_of(bytes.begin(), bytes.end(),
                                        [](char c) { return static_cast<unsigned char>(c) < 0x20; });
    const bool bad = !validation::UTF8Validator::validateStrictUtf8(repaired) || (keepsAsIs && repaired != text);
    counts.badRepairs.fetch_add(bad ? 1 : 0);
    counts.validations.fetch_add(1);
}

// --------------------------------------------------------------------- main

struct Options
{
    long seconds = 10;
};

bool parseOptions(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i)
    {
        const std::string arg = argv[i];
        if (arg == "--seconds" && i + 1 < argc)
        {
            char* end = nullptr;
            options.seconds = std::strtol(argv[++i], &end, 10);
            if (*end != '\0' || options.seconds < 1)
            {
                return false;
            }
        }
        else
        {
            return false;
        }
    }
    return true;
}

std::string mib(long kib)
{
    std::ostringstream out;
    out.setf(std::ios::fixed);
    out.precision(1);
    out << static_cast<double>(kib) / 1024.0 << " MiB";
    return out.str();
}

int runSoak(const Options& options)
{
    const auto logSink = std::make_shared<CountingLogSink>();
    qor::common::logging::setLogSink(logSink);
    const Clock::time_point start = Clock::now();
    // Room for the wind-down (waiting for queued work, parsing the parts)
    // under a sanitizer on a loaded machine.
    HangGuard hangGuard(std::chrono::seconds(options.seconds * 3 + 300));

    qor::test::TemporaryDirectory dir;
    const std::string baseName = "soak.json";
    constexpr unsigned long kPartLimit = 64 * 1024;
    constexpr unsigned long kBudgetBytes = 2 * 1024 * 1024;

    memory::MemoryManager budget(kBudgetBytes);
    CountingListener listenerA;
    CountingListener listenerB;
    budget.registerListener(listenerA);
    budget.registerListener(listenerB);
    SoakAllocator allocator("SoakAllocator", budget);
    BlockPool pool(allocator, kBudgetBytes / 4096, start);

    SharedState shared;
    shared.pool = &pool;
    shared.timeline.startMultipartSession((dir.path() + "/" + baseName).c_str(), kPartLimit);

    const MemorySample atStart = sampleMemory();
    MemorySample atMiddle;
    MemorySample atEnd;

    std::vector<std::unique_ptr<Scheduler>> schedulers;
    for (const char* name : {"SoakA", "SoakB", "SoakC"})
    {
        // A report after 10 s without progress: no soak function takes that long.
        schedulers.push_back(std::make_unique<Scheduler>(name, 10000, 0));
        schedulers.back()->start();
    }

    std::atomic<bool> stop{false};
    std::vector<std::unique_ptr<Client>> clients;
    std::vector<std::thread> clientThreads;
    for (std::size_t s = 0; s < schedulers.size(); ++s)
    {
        for (unsigned c = 0; c < 2; ++c)
        {
            clients.push_back(std::make_unique<Client>(shared, *schedulers[s], 1000u + 10u * s + c));
            Client* client = clients.back().get();
            clientThreads.emplace_back([client, &stop] { client->run(stop); });
        }
    }

    TextCounts text;
    std::vector<std::unique_ptr<qor::test::FunctionThread>> textThreads;
    textThreads.push_back(std::make_unique<qor::test::FunctionThread>("SoakTables", [&] {
        int which = 0;
        while (!stop.load())
        {
            common::CharacterReplacements::getInstance().setCharacterReplacements(replacementTables(which));
            which = (which + 1) % 3;
            text.tableSwaps.fetch_add(1);
            std::this_thread::sleep_for(std::chrono::microseconds(300)); // pacing only
        }
    }));
    for (unsigned t = 0; t < 2; ++t)
    {
        textThreads.push_back(std::make_unique<qor::test::FunctionThread>("SoakText" + std::to_string(t), [&, t] {
            std::mt19937 random(77u + t);
            while (!stop.load())
            {
                {
                    Section section(shared.timeline, shared.sections, "text", "soak");
                    for (int i = 0; i < 16; ++i)
                    {
                        checkReplacements(randomText(random), text);
                        checkRepair(randomBytes(random), text);
                    }
                }
                std::this_thread::sleep_for(std::chrono::microseconds(500)); // pacing only
            }
        }));
    }
    for (auto& thread : textThreads)
    {
        thread->start();
    }

    // The load runs; memory is sampled at the middle and at the end of it.
    const auto middle = start + std::chrono::milliseconds(options.seconds * 500);
    const auto end = start + std::chrono::seconds(options.seconds);
    std::this_thread::sleep_until(middle);
    atMiddle = sampleMemory();
    std::this_thread::sleep_until(end);
    atEnd = sampleMemory();
    const double loadSeconds = secondsSince(start);

    // Wind-down: clients stop and remove their periodic work; the queued
    // one-shot work runs out; then the schedulers shut down.
    stop.store(true);
    for (std::thread& thread : clientThreads)
    {
        thread.join();
    }
    for (auto& thread : textThreads)
    {
        thread->join();
    }
    const auto drainDeadline = Clock::now() + std::chrono::seconds(120);
    std::size_t waiting = 0;
    for (;;)
    {
        waiting = 0;
        for (const auto& client : clients)
        {
            waiting += client->waiting();
        }
        if (waiting == 0 || Clock::now() >= drainDeadline)
        {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10)); // polling with a deadline
    }
    check(waiting == 0, std::to_string(waiting) + " queued one-shot functions never ran");

    for (auto& scheduler : schedulers)
    {
        scheduler->shutdown();
    }
    shared.shutdownReturned.store(true);
    shared.timeline.finishSession();

    // Executions.
    Tally tally;
    std::uint64_t removals = 0;
    std::size_t unreleased = 0;
    for (const auto& client : clients)
    {
        unreleased += client->settle();
        tally.add(client->tally());
        removals += client->removals();
    }
    check(tally.ranOnce == tally.expectedOnce, "one-shot functions expected to run once: " +
                                                   std::to_string(tally.expectedOnce) + ", ran once: " +
                                                   std::to_string(tally.ranOnce));
    check(tally.lost == 0, std::to_string(tally.lost) + " one-shot functions were dropped without running");
    check(tally.ranTwice == 0, std::to_string(tally.ranTwice) + " one-shot functions ran more than once");
    check(unreleased == 0, std::to_string(unreleased) + " functions not released after shutdown");
    check(shared.lateRuns.load() == 0, "functions ran after shutdown() returned");
    check(shared.liveFunctions.load() == 0,
          std::to_string(shared.liveFunctions.load()) + " function objects still alive after shutdown");
    check(logSink->standardExceptions() == shared.thrownStandard.load() &&
              logSink->otherExceptions() == shared.thrownOther.load(),
          "thrown exceptions and their log records differ");
    check(logSink->unexpected() == 0, std::to_string(logSink->unexpected()) + " unexpected error records");

    // Memory.
    pool.releaseAll();
    const std::uint64_t requested = allocator.chunksRequested();
    const std::uint64_t returned = allocator.chunksReturned();
    check(requested == returned, "chunk balance is not zero");
    check(budget.getMemoryConsumption() == 0.0f && budget.getMemoryStatus() == memory::Normal,
          "the budget is not back to empty and Normal");
    check(pool.corruptBlocks() == 0, "blocks changed while held");
    const CountingListener::Summary a = listenerA.summary();
    const CountingListener::Summary b = listenerB.summary();
    check(a.broken == 0 && b.broken == 0, "notifications do not form one chain");
    check(a.count == b.count, "the listeners heard different numbers of notifications");
    check(a.last == budget.getMemoryStatus(), "the last notification is not the final status");
    check(a.rises > 0 && a.falls > 0 && a.reachedCritical, "the status did not rise to Critical and fall again");
    budget.unregisterListener(listenerB);
    budget.unregisterListener(listenerA);

    // Text.
    check(text.torn.load() == 0, std::to_string(text.torn.load()) + " results mixed two replacement tables");
    check(text.badRepairs.load() == 0, std::to_string(text.badRepairs.load()) + " repairs were not strict UTF-8");

    // Timeline.
    const TraceSummary trace = readTrace(dir.path(), baseName);
    for (const std::string& problem : trace.problems)
    {
        check(false, "trace: " + problem);
    }
    check(trace.begins == shared.sections.begun.load() && trace.ends == shared.sections.ended.load(),
          "trace holds " + std::to_string(trace.begins) + "/" + std::to_string(trace.ends) +
              " begins/ends, recorded " + std::to_string(shared.sections.begun.load()) + "/" +
              std::to_string(shared.sections.ended.load()));

    // Peak RSS over the second half: the load is the same in both halves and
    // everything it holds is bounded (budget, queues, open part, settled
    // records dropped), so the peak may only move by noise: allocator arenas
    // and sanitizer bookkeeping grow in steps of a few megabytes. Allowed:
    // 8 MiB or 10 % of the middle value, whichever is more.
    const long tolerance = std::max<long>(8 * 1024, atMiddle.peakKiB / 10);
    const bool rssStable = atEnd.peakKiB - atMiddle.peakKiB <= tolerance;
    check(rssStable, "peak RSS grew from " + mib(atMiddle.peakKiB) + " to " + mib(atEnd.peakKiB) +
                         " over the second half (allowed " + mib(tolerance) + ")");

    const std::uint64_t executions =
        shared.oneShotRuns.load() + shared.periodicRuns.load() + shared.removerRuns.load();

    std::cout << "soak summary (" << options.seconds << " s requested, load ran " << loadSeconds << " s, total "
              << secondsSince(start) << " s)\n"
              << "  executions        " << executions << " (one-shot " << shared.oneShotRuns.load() << ", periodic "
              << shared.periodicRuns.load() << ", removers " << shared.removerRuns.load() << ")\n"
              << "  one-shot          scheduled " << tally.oneShots << ", removed " << tally.removedOneShots
              << " (of which ran " << tally.removedRan << "), expected once " << tally.expectedOnce
              << ", ran once " << tally.ranOnce << ", lost " << tally.lost << ", twice or more " << tally.ranTwice
              << "\n"
              << "  periodic          scheduled " << tally.periodic << ", removals by clients " << removals << "\n"
              << "  exceptions        thrown " << shared.thrownStandard.load() << " + " << shared.thrownOther.load()
              << ", logged " << logSink->standardExceptions() << " + " << logSink->otherExceptions() << "\n"
              << "  memory            allocations " << allocator.allocationsMade() << ", refused "
              << allocator.refused() << ", chunks requested " << requested << ", returned " << returned << "\n"
              << "  notifications     " << a.count << " per listener (rises " << a.rises << ", falls " << a.falls
              << "), final status " << static_cast<unsigned>(budget.getMemoryStatus()) << "\n"
              << "  timeline          sections " << shared.sections.begun.load() << ", events " << trace.events
              << ", parts " << trace.parts << " (limit " << kPartLimit << " bytes)\n"
              << "  text              table swaps " << text.tableSwaps.load() << ", replacement checks "
              << text.replacements.load() << ", repairs " << text.validations.load() << ", torn " << text.torn.load()
              << "\n"
              << "  RSS peak/current  start " << mib(atStart.peakKiB) << "/" << mib(atStart.currentKiB)
              << ", middle " << mib(atMiddle.peakKiB) << "/" << mib(atMiddle.currentKiB) << ", end "
              << mib(atEnd.peakKiB) << "/" << mib(atEnd.currentKiB) << " -> " << (rssStable ? "stable" : "GROWING")
              << " (tolerance " << mib(tolerance) << ")\n";

    for (const std::string& failure : g_Failures)
    {
        std::cout << "soak: FAILED: " << failure << "\n";
    }
    if (!g_Failures.empty())
    {
        return 1;
    }
    std::cout << "soak: PASSED\n";
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!parseOptions(argc, argv, options))
    {
        std::cerr << "usage: qor_soak [--seconds N]   (N >= 1, default 10)\n";
        return 2;
    }
    const int status = runSoak(options);
    qor::common::logging::setLogSink(nullptr);
    return status;
}
