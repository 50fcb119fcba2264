// Soak test: the services of the utility library under concurrent load for a
// fixed time, then a balance sheet.
//
//   qor_soak [--seconds N]      (default 10)
//
// While it runs, three schedulers are fed by two client threads each with
// immediate, delayed and periodic work that they remove again at random. The
// functions take and free blocks through a guarded allocator (locking, error
// and checking policies) on one small MemoryManager budget whose use follows
// a wave, so that its status rises to Critical and falls back again and
// again; two listeners follow the notifications. The functions also apply
// the character-replacement table, which one more thread keeps replacing,
// checking that no result mixes two tables, repair broken bytes, and record
// timeline sections into a multipart session with small parts.
//
// Then the load stops, the queued one-shot work runs out, the schedulers shut
// down, and the soak checks: every one-shot that was not removed ran exactly
// once (removed ones at most once), nothing ran after shutdown, every function
// was released, every thrown exception was logged, the chunks balance, the
// notifications form one chain, every part parses and the sections pair up
// per thread over the series, and the peak RSS did not grow over the second
// half. Exit status 0 when all hold, 1 with a "soak: FAILED: ..." line per
// broken check, 2 for bad arguments; a wind-down that hangs is ended by
// SIGALRM.
#include "qor/common/logging/Logger.h"
#include "qor/nav/sdk/utils/common/CharacterReplacements.h"
#include "qor/nav/sdk/utils/memory/MemoryManager.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/CheckForBufferOverflow.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/NullptrOnError.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/ProtectByMutex.h"
#include "qor/nav/sdk/utils/synchronization/FunctionExecutionScheduler.h"
#include "qor/nav/sdk/utils/timeline/Timeline.h"
#include "qor/nav/sdk/utils/validation/UTF8Validator.h"
#include "support/TemporaryDirectory.h"

#include <nlohmann/json.hpp>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <thread>

namespace {

using namespace qor::nav::sdk::utils;
using namespace memory::allocator::policy;
using qor::common::types::utf8::Utf8String;
using Scheduler = synchronization::FunctionExecutionScheduler;
using Block = std::pair<unsigned char*, std::size_t>;

int g_Failures = 0;
void check(bool ok, const std::string& what)
{
    g_Failures += ok ? 0 : (std::cout << "soak: FAILED: " << what << "\n", 1);
}

// Counts the error records of thrown soak failures; prints any other.
struct ErrorSink : qor::common::logging::ILogSink
{
    void write(const qor::common::logging::LogRecord& r) override
    {
        const bool thrown = r.text == "Unexpected exception while handling functionExecution: soak failure\n";
        // Repairs may report what they dropped.
        if (r.level >= qor::common::logging::LogLevel::Error && r.loggerName != "qor.nav.sdk.utils.UTF8Validator") {
            ++(thrown ? logged : unexpected);
            std::cerr << (thrown ? "" : "soak: unexpected log record [" + r.loggerName + "] " + r.text);
        }
    }
    std::atomic<long> logged{0}, unexpected{0};
};

// Checks that the status notifications form one chain from Normal on. Called
// with the budget's lock held, so never concurrently.
struct ChainListener : memory::IMemoryListener
{
    void onMemoryStatusChanged(memory::MemoryStatus newStatus, memory::MemoryStatus oldStatus) override
    {
        broken += oldStatus != last || newStatus == oldStatus;
        critical = critical || newStatus == memory::Critical;
        last = newStatus;
        ++count;
    }
    long count = 0, broken = 0;
    bool critical = false;
    memory::MemoryStatus last = memory::Normal;
};

struct Shared
{
    explicit Shared(memory::MemoryManager& budget) : budget(budget) {}

    // Takes or frees a block through an allocator composed from the policies:
    // the budget first (it calls the listeners, so not under our lock), then
    // the guard words under the locking policy. The fill level
    // aimed at goes from 30 % to 105 % of the 512-chunk budget and back every 3 s.
    void memoryStep(std::mt19937& random)
    {
        const long ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count() % 3000;
        Block block{nullptr, 1 + random() % (24 * 1024)};
        if (chunksHeld * 1500 < 512 * (450 + 75 * std::min(ms, 3000 - ms) / 100)) {
            if (!budget.requestChunks(chunks(block.second))) {
                return (void)errors.handleAllocationError(block.second, 8, __FILE__, __LINE__);
            }
            chunksHeld += chunks(block.second);
            void* raw = std::malloc(block.second + CheckForBufferOverflow::extraBytesFront() + CheckForBufferOverflow::extraBytesBack());
            auto guard = lock.lock();
            block.first = static_cast<unsigned char*>(check.onAllocation(raw, block.second, 8, __FILE__, __LINE__));
            blocks.push_back(block);
            return;
        }
        {
            auto guard = lock.lock();
            if (blocks.empty()) {
                return;
            }
            std::swap(blocks[random() % blocks.size()], blocks.back());
            block = blocks.back();
            blocks.pop_back();
        }
        free(block);
    }
    void free(const Block& block)
    {
        std::memset(block.first, 0xA5, block.second); // all of it is ours to use
        void* raw = nullptr;
        {
            auto guard = lock.lock();
            raw = check.onDeallocation(block.first); // aborts with a report on a broken guard word
        }
        std::free(raw);
        budget.returnChunks(chunks(block.second));
        chunksHeld -= chunks(block.second);
    }
    static unsigned long chunks(std::size_t size) { return (size + 28 + 4095) / 4096; }

    // Runs `body` inside a timeline section.
    template <typename Body>
    void section(const char* name, Body body)
    {
        timeline.beginSection(name, "soak", "");
        ++sections;
        body();
        timeline.endSection();
    }

    memory::MemoryManager& budget;
    CheckForBufferOverflow check{"Soak"};
    NullptrOnError errors;
    ProtectByMutex lock;
    std::vector<Block> blocks;
    timeline::Timeline timeline;
    const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    std::atomic<bool> shutdownReturned{false};
    std::atomic<long> chunksHeld{0}, sections{0}, runs{0}, lateRuns{0}, thrown{0}, textFailures{0};
    // Functions alive, one-shot ones not removed, and verdicts on the released ones.
    std::atomic<long> alive{0}, oneShotsPending{0}, periodic{0}, ranOnce{0}, removed{0}, lost{0}, repeated{0};
};

// The table replaces "a" by "1" or by "2", or there is none. A text whose
// letters came out as more than one of them was built from a torn table.
common::CharacterReplacements::ReplacementTables replacementTable(int which)
{
    using Tables = common::CharacterReplacements::ReplacementTables;
    return which == 2 ? Tables{} : Tables{{common::CharacterReplacements::getReplacementLanguageId(), {{"a", which ? "2" : "1"}}}};
}

// True when both ways of replacing used one table, and repairing broken
// bytes gives strict UTF-8.
bool textHolds()
{
    static const Utf8String broken("\xED\xA0\xBD\xC0\xAF" "a\xF4\x90\x80\x80\xE2\x82\xFF");
    const auto& replacements = common::CharacterReplacements::getInstance();
    const Utf8String text("a\xC3\xA9" "a\xE2\x82\xAC" "a\xF0\x9F\x9A\x97" "a");
    Utf8String applied(text);
    replacements.applyCharacterReplacements(applied);
    const std::string& out = applied.str();
    const auto found = replacements.replaceCharacters(text).replacements;
    return std::count(out.begin(), out.end(), out[0]) == 4 && (found.empty() || (found.size() == 4 && found[0].to == found[3].to)) &&
           validation::UTF8Validator::validateStrictUtf8(validation::UTF8Validator::makeStrictUtf8Conform(broken));
}

// What a client knows of one scheduled function.
struct Record
{
    std::atomic<int> runs{0};
    std::atomic<bool> removed{false};
    bool periodic = false;
    Scheduler::FunctionExecutionId id;
};

// Judges its record when the scheduler lets go of it: then its runs are final.
struct SoakJob : synchronization::Function
{
    SoakJob(Shared& shared, std::shared_ptr<Record> record, unsigned seed) : shared(shared), record(std::move(record)), random(seed)
    {
        ++shared.alive;
        shared.oneShotsPending += !this->record->periodic;
    }
    ~SoakJob() override
    {
        const Record& r = *record;
        ++(r.periodic ? shared.periodic : r.runs > 1 ? shared.repeated : r.removed ? shared.removed : r.runs == 1 ? shared.ranOnce : shared.lost);
        shared.oneShotsPending -= !r.periodic;
        --shared.alive;
    }
    void execute() override
    {
        ++record->runs, ++shared.runs;
        shared.lateRuns += shared.shutdownReturned;
        shared.section("job", [&] {
            for (unsigned i = random() % 4; i > 0; --i) {
                shared.section("memory", [&] { shared.memoryStep(random); });
            }
            shared.textFailures += !textHolds();
        });
        // A removal misses a periodic function while it runs; one that throws
        // is not run again. Now and then a one-shot function throws too.
        if ((record->periodic && record->removed) || random() % 200 == 0) {
            ++shared.thrown;
            throw std::runtime_error("soak failure");
        }
    }

    Shared& shared;
    const std::shared_ptr<Record> record;
    std::mt19937 random;
};

// Schedules and removes work until `stop`: removes mostly recent work, so
// that the removal often meets queued work, and keeps at most three periodic
// functions at once.
void client(Shared& shared, Scheduler& scheduler, unsigned seed, const std::atomic<bool>& stop)
{
    std::mt19937 random(seed);
    std::deque<std::shared_ptr<Record>> recent, periodic;
    // The flag first: a run after the call sees it.
    auto remove = [&](Record& record) { record.removed = true, scheduler.asyncRemoveFunctionExecution(record.id); };
    while (!stop) {
        const unsigned dice = random() % 100;
        if (dice < 20 && !recent.empty()) {
            remove(*recent[random() % recent.size()]);
        } else if (dice >= 20) {
            auto record = std::make_shared<Record>();
            record->periodic = dice >= 90;
            auto job = std::make_shared<SoakJob>(shared, record, static_cast<unsigned>(random()));
            const Scheduler::Duration delay(random() % 50), period(10 + random() % 40);
            record->id = dice < 60   ? scheduler.scheduleExecutionImmediately(job)
                         : dice < 90 ? scheduler.scheduleExecutionLater(job, delay)
                         : dice < 95 ? scheduler.scheduleExecutionImmediately(job, period)
                                     : scheduler.scheduleExecutionLater(job, delay, period);
            recent.push_back(record);
            if (record->periodic) {
                periodic.push_back(record);
            }
        }
        recent.erase(recent.begin(), recent.end() - std::min<std::ptrdiff_t>(recent.size(), 32));
        for (; periodic.size() > 3; periodic.pop_front()) {
            remove(*periodic.front());
        }
        std::this_thread::sleep_for(std::chrono::microseconds(500 + random() % 3000)); // pacing only
    }
}

} // namespace

int main(int argc, char** argv)
{
    char* end = nullptr;
    const long seconds = argc == 1 ? 10 : argc == 3 && std::string(argv[1]) == "--seconds" ? std::strtol(argv[2], &end, 10) : 0;
    if (seconds < 1 || (end != nullptr && *end != '\0')) {
        std::cerr << "usage: qor_soak [--seconds N]   (N >= 1, default 10)\n";
        return 2;
    }
    // A hang in the wind-down ends the process (SIGALRM) instead of blocking the pipeline.
    ::alarm(static_cast<unsigned>(seconds * 3 + 300));
    const auto sink = std::make_shared<ErrorSink>();
    qor::common::logging::setLogSink(sink);
    qor::test::TemporaryDirectory dir;
    const std::string base = dir.path() + "/soak.json";
    memory::MemoryManager budget(512 * 4096);
    ChainListener listeners[2];
    budget.registerListener(listeners[0]);
    budget.registerListener(listeners[1]);
    Shared shared(budget);
    shared.timeline.startMultipartSession(base.c_str(), 64 * 1024);

    // A report after 10 s without progress: no soak function takes that long.
    Scheduler schedulers[] = {{"SoakA", 10000, 0}, {"SoakB", 10000, 0}, {"SoakC", 10000, 0}};
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (unsigned c = 0; c < 6; ++c) {
        if (c % 2 == 0) {
            schedulers[c / 2].start();
        }
        threads.emplace_back([&, c] { client(shared, schedulers[c / 2], 1000 + c, stop); });
    }
    threads.emplace_back([&] {
        for (int which = 0; !stop; which = (which + 1) % 3) {
            common::CharacterReplacements::getInstance().setCharacterReplacements(replacementTable(which));
            std::this_thread::sleep_for(std::chrono::microseconds(300)); // pacing only
        }
    });

    // The load runs; the peak RSS is read at the middle and at the end.
    rusage usage{};
    std::this_thread::sleep_until(shared.start + std::chrono::milliseconds(seconds * 500));
    const long middleKiB = (::getrusage(RUSAGE_SELF, &usage), usage.ru_maxrss);
    std::this_thread::sleep_until(shared.start + std::chrono::seconds(seconds));
    const long endKiB = (::getrusage(RUSAGE_SELF, &usage), usage.ru_maxrss);
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    // The queued one-shot work runs out (polled, with a deadline); then the schedulers stop.
    for (auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
         shared.oneShotsPending != 0 && std::chrono::steady_clock::now() < deadline;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    check(shared.oneShotsPending == 0, std::to_string(shared.oneShotsPending) + " one-shot functions still queued");
    for (Scheduler& scheduler : schedulers) {
        scheduler.shutdown();
    }
    shared.shutdownReturned = true;
    shared.timeline.finishSession();
    check(shared.lost + shared.repeated == 0, std::to_string(shared.lost) + " one-shot functions lost, " +
                                                  std::to_string(shared.repeated) + " run more than once");
    check(shared.alive == 0, std::to_string(shared.alive) + " functions not released after shutdown");
    check(shared.lateRuns == 0, "functions ran after shutdown() returned");
    check(sink->logged == shared.thrown && sink->unexpected == 0, "thrown exceptions and error records differ");
    check(shared.textFailures == 0, std::to_string(shared.textFailures) + " replacements mixed two tables or repairs failed");

    for (const Block& block : shared.blocks) {
        shared.free(block);
    }
    check(shared.chunksHeld == 0 && budget.getMemoryConsumption() == 0.0f && budget.getMemoryStatus() == memory::Normal,
          "the chunks do not balance");
    check(listeners[0].broken + listeners[1].broken == 0 && listeners[0].count == listeners[1].count &&
              listeners[0].last == memory::Normal && listeners[0].critical,
          "the notifications do not form one chain from Normal to Critical and back");
    budget.unregisterListener(listeners[1]);
    budget.unregisterListener(listeners[0]);

    // Every part parses; per thread, no section ends unopened and all end.
    long parts = 0, begins = 0;
    std::map<std::uint64_t, long> depth;
    for (char name[32]; std::snprintf(name, sizeof name, ".%03ld", parts + 1), std::ifstream(base + name).good(); ++parts) {
        const nlohmann::json part = nlohmann::json::parse(std::ifstream(base + name), nullptr, false);
        check(part.is_object() && part.contains("traceEvents"), std::string("part ") + name + " does not parse");
        for (const auto& event : part.is_object() ? part.value("traceEvents", nlohmann::json::array()) : nlohmann::json::array()) {
            const std::string phase = event.value("ph", "");
            long& open = depth[event.value("tid", std::uint64_t{0})];
            begins += phase == "B";
            open += phase == "B" ? 1 : phase == "E" ? -1 : 0;
            check(open >= 0, std::string("part ") + name + ": a section ends that never began");
            open = std::max(open, 0l);
        }
    }
    check(std::all_of(depth.begin(), depth.end(), [](const auto& d) { return d.second == 0; }), "sections left open");
    check(begins == shared.sections, std::to_string(begins) + " sections traced, " + std::to_string(shared.sections) + " begun");

    // The load is the same in both halves and all it holds is bounded, so the
    // peak may only move by noise (allocator arenas and sanitizer bookkeeping
    // grow in steps of a few megabytes): 8 MiB or 10 %, whichever is more.
    check(endKiB - middleKiB <= std::max(8 * 1024l, middleKiB / 10),
          "peak RSS grew from " + std::to_string(middleKiB) + " to " + std::to_string(endKiB) + " KiB over the second half");

    std::cout << "soak summary (" << seconds << " s): executions " << shared.runs << "; one-shot functions ran once "
              << shared.ranOnce << ", removed " << shared.removed << "; periodic " << shared.periodic << "; thrown "
              << shared.thrown << "; notifications " << listeners[0].count << " per listener; timeline parts " << parts
              << ", sections " << begins << "; peak RSS middle/end " << middleKiB << "/" << endKiB << " KiB\n";
    std::cout << (g_Failures == 0 ? "soak: PASSED\n" : "");
    return g_Failures == 0 ? 0 : 1;
}
