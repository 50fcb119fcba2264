// qor-utils-demo: the five services of libqor.nav.sdk.utils working together
// for a few seconds, with no set-up.
//
//   qor-utils-demo            # built-in text samples
//   qor-utils-demo FILE...    # validates and repairs these files instead
//
// A scheduler named "DemoScheduler" runs a periodic memory job (a guarded
// allocator fills a small budget until it refuses at Critical, then empties
// it), an immediate replacement-table job and a delayed state-machine job,
// while a foundation thread named "TextChecker" validates and repairs UTF-8.
// Every job records timeline sections into trace.json in the current folder;
// the libraries' log records are shown inline; a summary ends the run. Exit
// status 0 when all behaved, 1 with a message on standard error when something
// did not (the trace could not be written, a job did not end in time), 2 for a
// usage error. Every thread prints through say().
#include "GuardedAllocator.h"

#include "qor/Version.h"
#include "qor/common/logging/Logger.h"
#include "qor/common/system/Thread.h"
#include "qor/nav/sdk/utils/common/CharacterReplacements.h"
#include "qor/nav/sdk/utils/memory/IMemoryListener.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/CheckForBufferOverflow.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/NullptrOnError.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/ProtectByMutex.h"
#include "qor/nav/sdk/utils/statemachine/Utils.h"
#include "qor/nav/sdk/utils/synchronization/FunctionExecutionScheduler.h"
#include "qor/nav/sdk/utils/timeline/Timeline.h"
#include "qor/nav/sdk/utils/validation/UTF8Validator.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

using namespace qor::nav::sdk::utils;
using namespace qor::nav::sdk::utils::memory::allocator::policy;
using common::CharacterReplacements;
using example::statusName;
using qor::common::logging::Logger;
using qor::common::logging::LogLevel;
using qor::common::types::utf8::Utf8String;
using timeline::Timeline;
using validation::UTF8Validator;

namespace {

const char* const s_TraceFile = "trace.json";
const char* const s_StateMachineLogger = "qor.demo.RouteStateMachine";
constexpr long s_MemoryPeriodMs = 50;
constexpr long s_StateMachineDelayMs = 300;
constexpr long s_BudgetChunks = 64;
// Generous: the demo takes about two seconds, but may share a loaded machine.
constexpr std::chrono::seconds s_Deadline(60);

// Prints the parts as one line, prefixed with the calling thread's name, so
// that lines of different threads never mix and show where the work ran.
std::mutex s_Console;
template <typename... Parts>
void say(const Parts&... parts)
{
    std::ostringstream line;
    line << '[' << std::left << std::setw(14) << qor::common::system::Thread::getCurrentThread().getName() << "] ";
    (line << ... << parts) << '\n';
    std::lock_guard<std::mutex> lock(s_Console);
    std::cout << line.str() << std::flush;
}

// One console line per line of a record, with its level and the logger name
// (without the common "qor.nav.sdk.utils."); counts records at Warning and above.
struct ConsoleLogSink : qor::common::logging::ILogSink
{
    void write(const qor::common::logging::LogRecord& record) override
    {
        warningsAndErrors += record.level >= LogLevel::Warning ? 1 : 0;
        const std::size_t skip = record.loggerName.rfind("qor.nav.sdk.utils.", 0) == 0 ? 18 : 0;
        for (std::size_t start = 0, end = 0; start < record.text.size(); start = end + 1) {
            end = std::min(record.text.find('\n', start), record.text.size());
            say("  log ", LogLevel::toString(record.level), ' ', record.loggerName.substr(skip), ": ",
                record.text.substr(start, end - start));
        }
    }
    std::atomic<int> warningsAndErrors{0}; // read once the writers are joined: any memory order would do
};

// Opens a section on construction and closes it on destruction. `extra` is
// empty or starts with a comma (",\"args\":{...}"); keep quotes out of names.
struct Section
{
    Section(Timeline& timeline, const char* name, const char* category, const std::string& extra = "")
        : timeline(timeline)
    {
        timeline.beginSection(name, category, extra.c_str());
    }
    ~Section() { timeline.endSection(); }
    Timeline& timeline;
};

// Runs `work` inside a section and returns what it returns.
template <typename Work>
auto traced(Timeline& timeline, const char* name, const char* category, Work work)
{
    Section section(timeline, name, category);
    return work();
}

// Calls `step` with the number of the run on every execution until a step
// returns true; later runs are only counted.
struct Job : synchronization::Function
{
    explicit Job(std::function<bool(int)> step) : step(std::move(step)) {}
    void execute() override
    {
        const int run = ++runs;
        if (!finished && step(run)) {
            finished = true;
            done.set_value();
        }
    }
    std::function<bool(int)> step;
    std::atomic<int> runs{0}; // read once the scheduler is shut down (joined): any memory order would do
    bool finished = false; // on the scheduler's thread only
    std::promise<void> done;
    std::future<void> finishing = done.get_future(); // ready once a step returned true
};

// Reads the whole file; false, with `problem` set, when it cannot be opened.
bool readFile(const std::string& path, std::string& bytes, std::string& problem)
{
    std::ifstream in(path, std::ios::binary);
    problem = in ? "" : "cannot read " + path + ": " + std::strerror(errno);
    bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return problem.empty();
}

// Checks a finished trace file, since the Timeline reports no write errors:
// the problem found, or an empty text and what the file holds in `contents`.
std::string checkTrace(const std::string& path, std::string& contents)
{
    std::string text;
    std::string problem;
    readFile(path, text, problem);
    const auto count = [&text](const std::string& what) {
        std::size_t found = 0;
        for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
            ++found;
        }
        return found;
    };
    const std::size_t begins = count("\"ph\":\"B\"");
    contents = std::to_string(begins) + " sections on " + std::to_string(count("\"name\":\"thread_name\"")) +
               " named threads, " + std::to_string(count("\"name\":\"VSYNC\"")) + " VSYNC marks, " +
               std::to_string(text.size()) + " bytes";
    const bool whole = text.rfind("{\"displayTimeUnits\":\"ns\",\"traceEvents\":[\n", 0) == 0 &&
                       text.size() > 2 && text.compare(text.size() - 2, 2, "]}") == 0;
    if (!problem.empty() || !whole || begins == 0 || begins != count("\"ph\":\"E\"")) {
        return path + " is missing, cut short or has unpaired sections (disk full or write error?)";
    }
    return "";
}

// The memory job's work on a budget of its own, one step per run: takes four
// one-chunk blocks until the budget refuses, then frees four per step until
// none is left. As the budget's listener (called with its locks held) it
// prints and records every change of the memory status.
struct MemoryCycle : memory::IMemoryListener
{
    static constexpr std::size_t s_BlockSize = 4000; // one chunk with the guard words

    MemoryCycle() { budget.registerListener(*this); }
    ~MemoryCycle() override
    {
        for (void* block : blocks) {
            allocator.deallocate(block, s_BlockSize);
        }
        budget.unregisterListener(*this);
    }
    long chunksInUse() const { return std::lround(budget.getMemoryConsumption() * static_cast<float>(s_BudgetChunks)); }
    void onMemoryStatusChanged(memory::MemoryStatus newStatus, memory::MemoryStatus oldStatus) override
    {
        say("memory status ", statusName(oldStatus), " -> ", statusName(newStatus), " (", chunksInUse(), " of ",
            s_BudgetChunks, " chunks in use)");
        history += std::string(" -> ") + statusName(newStatus);
    }
    // True once the budget has been filled and emptied again.
    bool step(int run)
    {
        for (int i = 0; i < 4 && growing; ++i) {
            void* block = allocator.allocate(s_BlockSize, __FILE__, __LINE__);
            if (block == nullptr) {
                say("memory block ", blocks.size() + 1, " refused at ", statusName(budget.getMemoryStatus()), ", with ",
                    s_BudgetChunks - chunksInUse(), " chunk(s) still free; giving back");
                growing = false;
                return false;
            }
            std::memset(block, 0x5A, s_BlockSize); // every byte asked for is ours
            blocks.push_back(block);
            peakBlocks = std::max(peakBlocks, blocks.size());
        }
        for (int i = 0; i < 4 && !growing && !blocks.empty(); ++i) {
            allocator.deallocate(blocks.back(), s_BlockSize);
            blocks.pop_back();
        }
        if (!growing && blocks.empty()) {
            say("memory budget filled and emptied again after ", run, " steps");
        }
        return !growing && blocks.empty();
    }

    memory::MemoryManager budget{s_BudgetChunks * 4096};
    example::GuardedAllocator<ProtectByMutex, NullptrOnError, CheckForBufferOverflow> allocator{"DemoTiles", budget};
    std::vector<void*> blocks;
    std::size_t peakBlocks = 0;
    bool growing = true;
    std::string history = "Normal"; // "Normal -> Elevated -> ..."
};

struct TextInput
{
    std::string name;
    std::string bytes;
};

// Short texts with the faults that repair handles: CESU-8 surrogate pairs,
// broken and out-of-range bytes, control characters, a sequence cut short.
const std::vector<TextInput> s_Samples = {
    {"strict", "Stra\xC3\x9F" "e 12, M\xC3\xBCnchen"},
    {"CESU-8 pair", "smile \xED\xA0\xBD\xED\xB8\x80 (U+1F600 as two surrogates)"},
    {"Latin-1 bytes", "caf\xE9 cr\xE8me"},
    {"overlong and out of range", "\xC0\xAF" "etc \xF4\x90\x80\x80 passwd"},
    {"control characters", "line 1\nline 2\ttabbed\r\n"},
    {"cut short", "end of text \xE4\xB8"}};

// `bytes` with printable ASCII kept and other bytes written as \xNN, except
// those from 0x80 up when `keepUtf8` is set (strict UTF-8 a terminal can show).
std::string escaped(const std::string& bytes, bool keepUtf8)
{
    std::string out;
    for (unsigned char byte : bytes) {
        char code[8];
        const bool keep = (byte >= 0x20 && byte < 0x7F) || (keepUtf8 && byte >= 0x80);
        std::snprintf(code, sizeof code, keep ? "%c" : "\\x%02X", byte);
        out += code;
    }
    return out;
}

// Validates and repairs every input (the strict ones too, which drops their
// control characters) and prints one line per input, with the texts when
// `showTexts` is set. The counts are read once the thread has been joined.
struct TextChecker : qor::common::system::Runnable
{
    TextChecker(Timeline& timeline, const std::vector<TextInput>& inputs, bool showTexts)
        : timeline(timeline), inputs(inputs), showTexts(showTexts) {}
    void run() override
    {
        for (const TextInput& input : inputs) {
            Section section(timeline, "checkText", "text");
            const Utf8String text(input.bytes);
            const bool strict =
                traced(timeline, "validateStrictUtf8", "text", [&] { return UTF8Validator::validateStrictUtf8(text); });
            const Utf8String repaired = traced(timeline, "makeStrictUtf8Conform", "text",
                                               [&] { return UTF8Validator::makeStrictUtf8Conform(text); });
            const bool strictAfterRepair = UTF8Validator::validateStrictUtf8(repaired);
            std::ostringstream line;
            line << "UTF-8 \"" << input.name << "\": " << (showTexts ? escaped(input.bytes, strict) + "  =>  " : "");
            if (repaired == text) {
                line << "strict, unchanged";
            } else {
                line << (strict ? "strict" : "not strict") << ", repaired (" << text.size() << " -> " << repaired.size()
                     << " bytes" << (strictAfterRepair ? "" : ", STILL NOT STRICT") << ")"
                     << (showTexts ? ": " + escaped(repaired.str(), true) : "");
            }
            say(line.str());
            counts[0] += strict;
            counts[1] += repaired != text;
            counts[2] += strictAfterRepair;
        }
    }

    Timeline& timeline;
    const std::vector<TextInput>& inputs;
    const bool showTexts;
    std::size_t counts[3] = {0, 0, 0}; // strict as given, changed by repair, strict after repair
};

// Sets a replacement table and applies it to a street name in one pass and
// chained, printing both; returns the number of replacements recorded.
std::size_t showReplacements(Timeline& timeline)
{
    Section section(timeline, "replacements", "text");
    CharacterReplacements& replacements = CharacterReplacements::getInstance();
    const CharacterReplacements::ReplacementTable table = {
        {"Str.", "Stra\xC3\x9F" "e"}, {"\xC3\x9F", "ss"}, {"\xC3\xB6", "oe"}, {"&", "und"}};
    replacements.setCharacterReplacements({{CharacterReplacements::getReplacementLanguageId(), table}});
    std::ostringstream entries;
    for (const auto& entry : table) {
        entries << (entries.tellp() == 0 ? "\"" : ", \"") << entry.first.str() << "\" -> \"" << entry.second.str()
                << '"';
    }
    say("replacement table, by priority: ", entries.str());
    const Utf8String street("K\xC3\xB6lner Str. 12 & Gro\xC3\x9F" "e Allee");
    const common::CharacterReplacementResult result =
        traced(timeline, "replaceCharacters", "text", [&] { return replacements.replaceCharacters(street); });
    say("replaceCharacters(\"", street.str(), "\") = \"", result.text.str(), "\", ", result.replacements.size(),
        " replacements recorded:");
    for (const common::Replacement& replacement : result.replacements) {
        say("  at character ", replacement.position, ": \"", replacement.from.str(), "\" -> \"", replacement.to.str(),
            '"');
    }
    Utf8String chained = street;
    traced(timeline, "applyCharacterReplacements", "text", [&] { replacements.applyCharacterReplacements(chained); });
    say("applyCharacterReplacements, each entry on the output of the ones before: \"", chained.str(), '"');
    return result.replacements.size();
}

// A route state machine reacts to a few events and logs each reaction and its guard at level Trace.
void reactToRoute(Timeline& timeline)
{
    static Logger logger(s_StateMachineLogger);
    const char* const events[] = {"start", "destinationSet", "routeCalculated", "destinationReached"};
    const char* const states[] = {"Idle", "Routing", "Guiding", "Idle"};
    Section section(timeline, "routeStateMachine", "statemachine");
    for (int step = 0; step < 4; ++step) {
        Section react(timeline, states[step], "statemachine");
        say("state machine: event ", events[step], " enters ", states[step]);
        statemachine::utils::logStateReact(logger, states[step]);
        logger << LogLevel::Trace << statemachine::utils::print("routeAvailable", step == 2) << std::endl;
    }
}

// Runs every service while `timeline` records and prints what they did;
// returns the failures once every thread but the caller's has ended.
std::vector<std::string> runServices(Timeline& timeline, const std::vector<TextInput>& inputs, bool usingFiles,
                                     const ConsoleLogSink& sink)
{
    std::vector<std::string> failures;
    int runs[3] = {0, 0, 0}; // of the memory, the replacement and the state-machine job
    std::size_t replacements = 0;
    std::size_t peakBlocks = 0;
    std::string history;
    TextChecker checker(timeline, inputs, !usingFiles);
    {
        Section whole(timeline, "qor-utils-demo", "main");
        MemoryCycle cycle;
        // Watchdog: report a job that runs for more than 2 s, then every second.
        synchronization::FunctionExecutionScheduler scheduler("DemoScheduler", 2000, 1000);
        const std::shared_ptr<Job> jobs[] = {
            std::make_shared<Job>([&](int run) {
                Section step(timeline, "memoryStep", "memory", ",\"args\":{\"run\":" + std::to_string(run) + "}");
                return traced(timeline, cycle.growing ? "allocate" : "free", "memory", [&] { return cycle.step(run); });
            }),
            std::make_shared<Job>([&](int) { return (replacements = showReplacements(timeline), true); }),
            std::make_shared<Job>([&](int) { return (reactToRoute(timeline), true); })};
        qor::common::system::Thread textThread("TextChecker", &checker);
        traced(timeline, "start", "main", [&] {
            scheduler.start();
            textThread.start();
        });
        using Duration = synchronization::FunctionExecutionScheduler::Duration;
        const auto memoryId = scheduler.scheduleExecutionImmediately(jobs[0], Duration(s_MemoryPeriodMs));
        scheduler.scheduleExecutionImmediately(jobs[1]);
        scheduler.scheduleExecutionLater(jobs[2], Duration(s_StateMachineDelayMs));
        traced(timeline, "waitForJobs", "main", [&] {
            const auto deadline = std::chrono::steady_clock::now() + s_Deadline;
            const char* const names[] = {"memory", "replacement", "state-machine"};
            for (int job = 0; job < 3; ++job) {
                if (jobs[job]->finishing.wait_until(deadline) != std::future_status::ready) {
                    failures.push_back(std::string("the ") + names[job] + " job did not finish within " +
                                       std::to_string(s_Deadline.count()) + " s");
                }
            }
            textThread.join();
        });
        traced(timeline, "shutdown", "main", [&] {
            scheduler.asyncRemoveFunctionExecution(memoryId);
            scheduler.shutdown(); // joins DemoScheduler: the jobs' results are ours to read now
        });
        std::transform(std::begin(jobs), std::end(jobs), runs, [](const auto& job) { return job->runs.load(); });
        // Every allocator's statistics record is listed by the process-wide manager.
        memory::MemoryManager::locateInstance().logStatistics();
        if (cycle.history.find("Critical") == std::string::npos || cycle.budget.getMemoryStatus() != memory::Normal) {
            failures.push_back("the memory status did not rise to Critical and fall back to Normal: " + cycle.history);
        }
        peakBlocks = cycle.peakBlocks;
        history = cycle.history;
    }
    if (checker.counts[2] != inputs.size()) {
        failures.push_back("a repair did not give strict UTF-8");
    }
    std::cout << "\nSummary (qor " << QOR_VERSION_STRING << ")\n"
              << "  ran          scheduler \"DemoScheduler\": memory job every " << s_MemoryPeriodMs
              << " ms, replacement job at once, state-machine job after " << s_StateMachineDelayMs << " ms;\n"
              << "               thread \"TextChecker\": UTF-8 validation and repair\n"
              << "  executions   " << runs[0] + runs[1] + runs[2] << " on DemoScheduler: memory job " << runs[0]
              << ", replacement job " << runs[1] << ", state-machine job " << runs[2] << "\n"
              << "  memory       " << history << " (budget " << s_BudgetChunks << " chunks, at most " << peakBlocks
              << " blocks held)\n"
              << "  replacements " << replacements << " recorded by replaceCharacters\n"
              << "  validation   " << inputs.size() << (usingFiles ? " file(s): " : " built-in samples: ")
              << checker.counts[0] << " strict UTF-8 as given, " << checker.counts[1] << " changed by repair, "
              << checker.counts[2] << " strict after repair\n"
              << "  log          " << sink.warningsAndErrors << " record(s) at Warning or above\n";
    return failures;
}

// The exit status: 0 when every service behaved and the trace is whole, 1 otherwise.
int run(const std::vector<TextInput>& inputs, bool usingFiles, const ConsoleLogSink& sink)
{
    say("qor-utils-demo ", QOR_VERSION_STRING,
              ": scheduler, memory budget, text utilities, timeline and state-machine logging");
    // An old trace is removed first: a failed run must not leave it looking new.
    const bool removed = std::remove(s_TraceFile) == 0 || errno == ENOENT;
    FILE* stream = removed ? std::fopen(s_TraceFile, "w") : nullptr;
    if (stream == nullptr) {
        std::cerr << "qor-utils-demo: error: cannot " << (removed ? "create " : "remove the old ") << s_TraceFile
                  << ": " << std::strerror(errno) << std::endl;
        return 1;
    }
    Timeline timeline;
    timeline.startSession(stream); // the timeline owns the stream from here on
    std::vector<std::string> failures = runServices(timeline, inputs, usingFiles, sink);
    timeline.finishSession();

    std::string contents;
    const std::string problem = checkTrace(s_TraceFile, contents);
    if (problem.empty()) {
        std::cout << "  trace        " << std::filesystem::absolute(s_TraceFile).string() << ": " << contents << "\n"
                  << "  open it      https://ui.perfetto.dev -> \"Open trace file\" (one track per named thread);\n"
                  << "               for Chrome DevTools or speedscope: qor-trace export " << s_TraceFile
                  << " -o trace-devtools.json\n";
    } else {
        failures.push_back(problem);
    }
    std::cout << std::flush;
    for (const std::string& failure : failures) {
        std::cerr << "qor-utils-demo: error: " << failure << std::endl;
    }
    return failures.empty() ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<TextInput> inputs;
    bool help = false;
    bool filesOnly = false; // after "--"
    std::string unknown;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (filesOnly || arg.size() < 2 || arg[0] != '-') {
            inputs.push_back({arg, ""});
        } else if (arg == "--") {
            filesOnly = true;
        } else if (arg == "-h" || arg == "--help") {
            help = true;
        } else {
            unknown = arg;
        }
    }
    if (help || !unknown.empty()) {
        (help ? std::cout : std::cerr)
            << (help ? "" : "qor-utils-demo: unknown option " + unknown + "\n") << "usage: qor-utils-demo [FILE...]\n"
            << "Runs the scheduler, the memory budget with a guarded allocator, UTF-8 validation and\n"
               "repair (of the built-in samples, or of FILEs), a replacement table and state-machine\n"
               "logging together for a few seconds, and writes the timeline to ./trace.json.\n";
        return help ? 0 : 2;
    }
    std::string problem;
    for (TextInput& input : inputs) {
        if (!readFile(input.name, input.bytes, problem)) {
            std::cerr << "qor-utils-demo: error: " << problem << std::endl;
            return 1;
        }
    }
    // The libraries' log records go to the console, between the demo's lines;
    // the state machine's reactions are logged at Trace.
    auto sink = std::make_shared<ConsoleLogSink>();
    qor::common::logging::setLogSink(sink);
    Logger::setThreshold(s_StateMachineLogger, LogLevel::Trace);
    const int status = run(inputs.empty() ? s_Samples : inputs, !inputs.empty(), *sink);
    qor::common::logging::setLogSink(nullptr); // before static objects log at exit
    return status;
}
