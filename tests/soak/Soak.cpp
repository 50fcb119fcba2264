// Soak test: the services of the utility library under concurrent load for a
// fixed time, then a balance sheet.
//
//   qor_soak [--seconds N]      (default 10)
//
// While it runs, three schedulers are fed by two client threads each with
// immediate, delayed and periodic work that they remove again at random;
// periodic functions also end themselves (by throwing) after a few runs. The
// functions take and free blocks through the examples' guarded allocator on
// one small MemoryManager budget whose use follows a wave, so that its status
// rises to Critical and falls back again and again; two listeners follow the
// notifications. The functions also apply the character-replacement table,
// which one more thread keeps replacing, checking that no result mixes two
// tables, repair broken bytes, and record timeline sections into a multipart
// session with small parts.
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
#include "GuardedAllocator.h"
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
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <thread>

namespace {

using namespace qor::nav::sdk::utils;
using qor::common::types::utf8::Utf8String;
using Scheduler = synchronization::FunctionExecutionScheduler;

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
        criticals += newStatus == memory::Critical;
        last = newStatus;
        ++count;
    }
    long count = 0, broken = 0, criticals = 0;
    memory::MemoryStatus last = memory::Normal;
};

struct Shared
{
    using Blocks = std::vector<std::pair<void*, std::size_t>>;
    // Takes a block of a few chunks or frees one of `held`, aiming at a fill
    // level that goes from 30 % to 105 % of the 512-chunk budget and back every 3 s.
    void memoryStep(std::mt19937& random, Blocks& held)
    {
        const long ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count() % 3000;
        // 1 to 7 chunks, one more for about half of them once the guard words are added
        const std::size_t size = 4096 * (1 + random() % 7) - 36 + random() % 24;
        if (budget.getMemoryConsumption() < 0.3f + std::min(ms, 3000 - ms) / 2000.0f) {
            if (void* block = allocator.allocate(size, __FILE__, __LINE__)) {
                held.emplace_back(std::memset(block, 0x5A, size), size); // all of it is ours: the guards must hold
            }
        } else if (!held.empty()) {
            allocator.deallocate(held.back().first, held.back().second);
            held.pop_back();
        }
    }

    memory::MemoryManager budget{512 * 4096};
    example::GuardedAllocator<memory::allocator::policy::ProtectByMutex, memory::allocator::policy::NullptrOnError,
                              memory::allocator::policy::CheckForBufferOverflow> allocator{"Soak", budget};
    timeline::Timeline timeline;
    const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    std::atomic<bool> shutdownReturned{false};
    // Functions alive (one-shot, periodic); one-shot ones that did not run once (removed: at most once).
    std::atomic<long> alive[2] = {0, 0}, wrongRuns{0}, lateRuns{0}, thrown{0}, textFailures{0}, sections{0};
};

// A scheduled function. Judged when its last holder lets go of it: the
// scheduler has released it then, so its runs are final.
struct SoakJob : synchronization::Function
{
    SoakJob(Shared& shared, bool periodic, unsigned seed) : shared(shared), periodic(periodic), random(seed)
    {
        ++shared.alive[periodic];
    }
    ~SoakJob() override
    {
        for (const auto& [block, size] : held) {
            shared.allocator.deallocate(block, size);
        }
        shared.wrongRuns += !periodic && (runs > 1 || (runs == 0 && !removed));
        --shared.alive[periodic];
    }
    void execute() override
    {
        ++runs;
        shared.lateRuns += shared.shutdownReturned;
        shared.timeline.beginSection("job", "soak", "");
        ++shared.sections;
        for (unsigned i = random() % 4; i > 0; --i) {
            shared.timeline.beginSection("memory", "soak", "");
            ++shared.sections;
            shared.memoryStep(random, held);
            shared.timeline.endSection();
        }
        // Both ways of replacing must use one table, and repairing broken bytes
        // must give strict UTF-8. The table replaces "a" by "1" or by "2", or
        // there is none: letters that came out as two of them met a torn table.
        Utf8String text("a\xC3\xA9" "a\xE2\x82\xAC" "a\xF0\x9F\x9A\x97" "a");
        const auto found = common::CharacterReplacements::getInstance().replaceCharacters(text).replacements;
        common::CharacterReplacements::getInstance().applyCharacterReplacements(text);
        const std::string& out = text.str();
        shared.textFailures += std::count(out.begin(), out.end(), out[0]) != 4 ||
                               !(found.empty() || (found.size() == 4 && found[0].to == found[3].to)) ||
                               !validation::UTF8Validator::validateStrictUtf8(validation::UTF8Validator::makeStrictUtf8Conform(
                                   "\xED\xA0\xBD\xC0\xAF" "a\xF4\x90\x80\x80\xE2\x82\xFF"));
        shared.timeline.endSection();
        // A periodic function that throws is not run again: so ends one that
        // has run its course or whose removal missed it while it ran. Now and
        // then a one-shot function throws too.
        if ((periodic && (removed || runs > 20)) || random() % 200 == 0) {
            ++shared.thrown;
            throw std::runtime_error("soak failure");
        }
    }

    Shared& shared;
    const bool periodic;
    std::mt19937 random;
    Shared::Blocks held; // freed by the last holder
    std::atomic<int> runs{0};
    std::atomic<bool> removed{false};
    Scheduler::FunctionExecutionId id;
};

// Schedules and removes work until `stop`. Removes recent work, so that the
// removal often meets queued work.
void client(Shared& shared, Scheduler& scheduler, unsigned seed, const std::atomic<bool>& stop)
{
    std::mt19937 random(seed);
    std::vector<std::shared_ptr<SoakJob>> recent;
    while (!stop) {
        const unsigned dice = random() % 100;
        if (dice < 20 && !recent.empty()) {
            SoakJob& job = *recent[random() % recent.size()];
            job.removed = true; // first: a run after the call sees it
            scheduler.asyncRemoveFunctionExecution(job.id);
        } else if (dice >= 20) {
            auto job = std::make_shared<SoakJob>(shared, dice >= 90, static_cast<unsigned>(random()));
            const Scheduler::Duration delay(random() % 50), period(10 + random() % 40);
            job->id = dice < 60   ? scheduler.scheduleExecutionImmediately(job)
                      : dice < 90 ? scheduler.scheduleExecutionLater(job, delay)
                      : dice < 95 ? scheduler.scheduleExecutionImmediately(job, period)
                                  : scheduler.scheduleExecutionLater(job, delay, period);
            recent.push_back(job);
        }
        recent.erase(recent.begin(), recent.end() - std::min<std::ptrdiff_t>(recent.size(), 32));
        std::this_thread::sleep_for(std::chrono::microseconds(500 + random() % 3000)); // pacing only
    }
}

} // namespace

int main(int argc, char** argv)
{
    const long seconds = argc == 1 ? 10 : argc == 3 && std::string(argv[1]) == "--seconds" ? std::atol(argv[2]) : 0;
    if (seconds < 1) {
        std::cerr << "usage: qor_soak [--seconds N]   (N >= 1, default 10)\n";
        return 2;
    }
    // A hang in the wind-down ends the process (SIGALRM) instead of blocking the pipeline.
    ::alarm(static_cast<unsigned>(seconds * 3 + 300));
    const auto sink = std::make_shared<ErrorSink>();
    qor::common::logging::setLogSink(sink);
    qor::test::TemporaryDirectory dir;
    const std::string base = dir.path() + "/soak.json";
    ChainListener listeners[2]; // outlive the budget, so they stay registered
    Shared shared;
    shared.budget.registerListener(listeners[0]);
    shared.budget.registerListener(listeners[1]);
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
        const auto language = common::CharacterReplacements::getReplacementLanguageId();
        const common::CharacterReplacements::ReplacementTables tables[] = {{{language, {{"a", "1"}}}}, {{language, {{"a", "2"}}}}, {}};
        for (int which = 0; !stop; which = (which + 1) % 3) {
            common::CharacterReplacements::getInstance().setCharacterReplacements(tables[which]);
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
    // The queued one-shot work runs out (a hang here ends in SIGALRM); then the schedulers stop.
    while (shared.alive[0] != 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    for (Scheduler& scheduler : schedulers) {
        scheduler.shutdown();
    }
    shared.shutdownReturned = true;
    shared.timeline.finishSession();
    check(shared.wrongRuns == 0, std::to_string(shared.wrongRuns) + " one-shot functions lost or run more than once");
    check(shared.alive[1] == 0, std::to_string(shared.alive[1]) + " periodic functions not released after shutdown");
    check(sink->logged == shared.thrown && sink->unexpected == 0, "thrown exceptions and error records differ");
    check(shared.textFailures == 0, std::to_string(shared.textFailures) + " replacements mixed two tables or repairs failed");

    check(shared.budget.getMemoryConsumption() == 0.0f && shared.budget.getMemoryStatus() == memory::Normal, "the chunks do not balance");
    check(listeners[0].broken + listeners[1].broken == 0 && listeners[0].count == listeners[1].count &&
              listeners[0].last == memory::Normal && listeners[0].criticals > 0,
          "the notifications do not form one chain from Normal to Critical and back");

    // Every part parses; per thread, no section ends unopened and all end.
    long parts = 0, begins = 0, unopened = 0;
    std::map<std::uint64_t, long> depth;
    for (char name[32]; std::snprintf(name, sizeof name, ".%03ld", parts + 1), std::ifstream(base + name).good(); ++parts) {
        const nlohmann::json part = nlohmann::json::parse(std::ifstream(base + name), nullptr, false);
        check(part.contains("traceEvents"), std::string("part ") + name + " does not parse");
        for (const auto& event : part.contains("traceEvents") ? part["traceEvents"] : nlohmann::json::array()) {
            const std::string phase = event.value("ph", "");
            long& open = depth[event.value("tid", std::uint64_t{0})];
            begins += phase == "B";
            open += phase == "B" ? 1 : phase == "E" ? -1 : 0;
            unopened += open < 0;
        }
    }
    check(unopened == 0 && std::all_of(depth.begin(), depth.end(), [](const auto& d) { return d.second == 0; }),
          "sections do not pair up per thread");
    check(begins == shared.sections, std::to_string(begins) + " sections traced, " + std::to_string(shared.sections) + " begun");
    // Checked after the parts were read, so that a function running late has had time to show.
    check(shared.lateRuns == 0, "functions ran after shutdown() returned");

    // The load is the same in both halves and all it holds is bounded, so the
    // peak may only move by noise (allocator arenas and sanitizer bookkeeping
    // grow in steps of a few megabytes): 8 MiB or 10 %, whichever is more.
    check(endKiB - middleKiB <= std::max(8 * 1024l, middleKiB / 10),
          "peak RSS grew from " + std::to_string(middleKiB) + " to " + std::to_string(endKiB) + " KiB over the second half");

    std::cout << "soak: " << (g_Failures == 0 ? "PASSED" : "FAILED") << ", " << begins << " sections in " << parts << " parts\n";
    return g_Failures == 0 ? 0 : 1;
}
