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
// Every job records timeline sections into trace.json in the current folder
// (an old one is removed first); log records of the libraries are shown
// inline. A summary ends the run. The exit status is 0 when everything
// behaved, 1 with a message on standard error when something did not (the
// trace could not be written, a job did not run in time, ...), 2 for a
// usage error.
#include "MemoryDemo.h"
#include "StateMachineDemo.h"
#include "Support.h"
#include "TextDemo.h"
#include "Trace.h"

#include "qor/Version.h"
#include "qor/common/logging/Logger.h"
#include "qor/common/system/Thread.h"
#include "qor/nav/sdk/utils/memory/MemoryManager.h"
#include "qor/nav/sdk/utils/synchronization/FunctionExecutionScheduler.h"
#include "qor/nav/sdk/utils/timeline/Timeline.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

using qor::common::logging::Logger;
using qor::common::logging::LogLevel;
using qor::common::system::Thread;
using qor::nav::sdk::utils::memory::Critical;
using qor::nav::sdk::utils::memory::MemoryManager;
using qor::nav::sdk::utils::memory::MemoryStatus;
using qor::nav::sdk::utils::memory::Normal;
using qor::nav::sdk::utils::synchronization::FunctionExecutionScheduler;
using qor::nav::sdk::utils::timeline::Timeline;
using Duration = FunctionExecutionScheduler::Duration;

namespace {

const char* const s_TraceFile = "trace.json";
constexpr long s_MemoryPeriodMs = 50;
constexpr long s_StateMachineDelayMs = 300;
// Generous: the demo takes about two seconds, but may share a loaded machine.
constexpr std::chrono::seconds s_Deadline(60);

struct Options
{
    std::vector<std::string> files;
    bool help = false;
    std::string problem;
};

Options parse(int argc, char** argv)
{
    Options options;
    bool filesOnly = false;
    for (int i = 1; i < argc; ++i)
    {
        const std::string arg = argv[i];
        if (!filesOnly && (arg == "-h" || arg == "--help"))
        {
            options.help = true;
        }
        else if (!filesOnly && arg == "--")
        {
            filesOnly = true;
        }
        else if (!filesOnly && arg.size() > 1 && arg[0] == '-')
        {
            options.problem = "unknown option " + arg;
        }
        else
        {
            options.files.push_back(arg);
        }
    }
    return options;
}

void usage(std::ostream& out)
{
    out << "usage: qor-utils-demo [FILE...]\n"
           "Runs the scheduler, the memory budget with a guarded allocator, UTF-8 validation and\n"
           "repair (of the built-in samples, or of FILEs), a replacement table and state-machine\n"
           "logging together for a few seconds, and writes the timeline to ./trace.json.\n";
}

// What the session did, for the summary and the checks.
struct Outcome
{
    std::vector<std::string> failures;
    int memoryRuns = 0;
    int replacementRuns = 0;
    int stateMachineRuns = 0;
    std::size_t replacementsMade = 0;
    std::size_t peakBlocks = 0;
    std::vector<MemoryStatus> levels;
    std::string history;
    std::vector<demo::ValidationResult> validation;
};

void await(demo::Completion& completion, std::chrono::steady_clock::time_point deadline, const std::string& what,
           Outcome& outcome)
{
    if (!completion.waitUntil(deadline))
    {
        outcome.failures.push_back(what + " did not finish within " + std::to_string(s_Deadline.count()) + " s");
    }
}

// Runs every service while `timeline` records; returns when all work is done
// and every thread but the caller's has ended.
Outcome runServices(Timeline& timeline, const std::vector<demo::TextInput>& inputs, bool showTexts)
{
    Outcome outcome;
    demo::Section whole(timeline, "qor-utils-demo", "main");

    MemoryManager budget(demo::s_BudgetBytes); // a small budget of the demo's own
    demo::StatusHistory history(budget);
    budget.registerListener(history);
    {
        // Watchdog: report a job that runs for more than 2 s, then every second.
        FunctionExecutionScheduler scheduler("DemoScheduler", 2000, 1000);
        auto memoryJob = std::make_shared<demo::MemoryJob>(timeline, budget);
        auto replacementJob = std::make_shared<demo::ReplacementJob>(timeline);
        auto stateMachineJob = std::make_shared<demo::StateMachineJob>(timeline);
        demo::TextChecker checker(timeline, inputs, showTexts);
        Thread textThread("TextChecker", &checker);

        {
            demo::Section start(timeline, "start", "main");
            scheduler.start();
            textThread.start();
        }
        const auto memoryId = scheduler.scheduleExecutionImmediately(memoryJob, Duration(s_MemoryPeriodMs));
        scheduler.scheduleExecutionImmediately(replacementJob);
        scheduler.scheduleExecutionLater(stateMachineJob, Duration(s_StateMachineDelayMs));

        {
            demo::Section wait(timeline, "waitForJobs", "main");
            const auto deadline = std::chrono::steady_clock::now() + s_Deadline;
            await(memoryJob->cycleDone(), deadline, "the memory job", outcome);
            await(replacementJob->done(), deadline, "the replacement job", outcome);
            await(stateMachineJob->done(), deadline, "the state-machine job", outcome);
            textThread.join();
        }
        {
            demo::Section stop(timeline, "shutdown", "main");
            scheduler.asyncRemoveFunctionExecution(memoryId);
            scheduler.shutdown(); // joins DemoScheduler: the jobs' results are ours to read now
        }
        memoryJob->releaseAll();
        // Every allocator's statistics record is listed by the process-wide manager.
        MemoryManager::locateInstance().logStatistics();

        outcome.memoryRuns = memoryJob->runs();
        outcome.replacementRuns = replacementJob->runs();
        outcome.stateMachineRuns = stateMachineJob->runs();
        outcome.replacementsMade = replacementJob->replacementsMade();
        outcome.peakBlocks = memoryJob->peakBlocks();
        outcome.validation = checker.results();
    }
    budget.unregisterListener(history);
    outcome.levels = history.levels();
    outcome.history = history.describe();

    const bool reachedCritical = std::find(outcome.levels.begin(), outcome.levels.end(), Critical) != outcome.levels.end();
    if (!reachedCritical || outcome.levels.back() != Normal)
    {
        outcome.failures.push_back("the memory status did not rise to Critical and fall back to Normal: " +
                                   outcome.history);
    }
    for (const demo::ValidationResult& result : outcome.validation)
    {
        if (!result.strictAfterRepair)
        {
            outcome.failures.push_back("the repair of \"" + result.name + "\" is not strict UTF-8");
        }
    }
    return outcome;
}

void printSummary(const Outcome& outcome, const demo::TraceCheck& trace, const std::string& tracePath,
                  bool usingFiles, int logProblems)
{
    std::size_t strict = 0;
    std::size_t changed = 0;
    std::size_t strictAfterRepair = 0;
    for (const demo::ValidationResult& result : outcome.validation)
    {
        strict += result.strict ? 1 : 0;
        changed += result.changed ? 1 : 0;
        strictAfterRepair += result.strictAfterRepair ? 1 : 0;
    }
    std::cout << "\nSummary (qor " << QOR_VERSION_STRING << ")\n"
              << "  ran          scheduler \"DemoScheduler\": memory job every " << s_MemoryPeriodMs
              << " ms, replacement job at once, state-machine job after " << s_StateMachineDelayMs << " ms;\n"
              << "               thread \"TextChecker\": UTF-8 validation and repair\n"
              << "  executions   " << outcome.memoryRuns + outcome.replacementRuns + outcome.stateMachineRuns
              << " on DemoScheduler: memory job " << outcome.memoryRuns << ", replacement job "
              << outcome.replacementRuns << ", state-machine job " << outcome.stateMachineRuns << "\n"
              << "  memory       " << outcome.history << " (budget " << demo::s_BudgetChunks
              << " chunks, at most " << outcome.peakBlocks << " blocks held)\n"
              << "  replacements " << outcome.replacementsMade << " recorded by replaceCharacters\n"
              << "  validation   " << outcome.validation.size() << (usingFiles ? " file(s): " : " built-in samples: ")
              << strict << " strict UTF-8 as given, " << changed << " changed by repair, " << strictAfterRepair
              << " strict after repair\n"
              << "  log          " << logProblems << " record(s) at Warning or above\n";
    if (trace.ok)
    {
        std::cout << "  trace        " << tracePath << ": " << trace.begins << " sections on " << trace.threadNames
                  << " named threads, " << trace.gridMarks << " VSYNC marks, " << trace.bytes << " bytes\n"
                  << "  open it      https://ui.perfetto.dev -> \"Open trace file\" (one track per named thread);\n"
                  << "               for Chrome DevTools or speedscope: qor-trace export " << s_TraceFile
                  << " -o trace-devtools.json\n";
    }
    std::cout << std::flush;
}

int run(const std::vector<demo::TextInput>& inputs, bool usingFiles, const demo::ConsoleLogSink& sink)
{
    demo::say(std::string("qor-utils-demo ") + QOR_VERSION_STRING +
              ": scheduler, memory budget, text utilities, timeline and state-machine logging");

    std::string problem;
    FILE* stream = demo::openFreshTrace(s_TraceFile, problem);
    if (stream == nullptr)
    {
        std::cerr << "qor-utils-demo: error: " << problem << std::endl;
        return 1;
    }
    Timeline timeline;
    timeline.startSession(stream); // the timeline owns the stream from here on
    Outcome outcome = runServices(timeline, inputs, !usingFiles);
    timeline.finishSession();

    const std::string tracePath = std::filesystem::absolute(s_TraceFile).string();
    const demo::TraceCheck trace = demo::checkTrace(s_TraceFile);
    if (!trace.ok)
    {
        outcome.failures.push_back(trace.problem);
    }
    printSummary(outcome, trace, tracePath, usingFiles, sink.warningsAndErrors());
    for (const std::string& failure : outcome.failures)
    {
        std::cerr << "qor-utils-demo: error: " << failure << std::endl;
    }
    return outcome.failures.empty() ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    const Options options = parse(argc, argv);
    if (options.help)
    {
        usage(std::cout);
        return 0;
    }
    if (!options.problem.empty())
    {
        std::cerr << "qor-utils-demo: " << options.problem << "\n";
        usage(std::cerr);
        return 2;
    }
    std::vector<demo::TextInput> inputs;
    std::string problem;
    if (!options.files.empty() && !demo::readInputFiles(options.files, inputs, problem))
    {
        std::cerr << "qor-utils-demo: error: " << problem << std::endl;
        return 1;
    }
    const bool usingFiles = !inputs.empty();
    if (!usingFiles)
    {
        inputs = demo::builtInSamples();
    }

    // The libraries' log records go to the console, between the demo's lines;
    // the state machine's reactions are logged at Trace.
    auto sink = std::make_shared<demo::ConsoleLogSink>();
    qor::common::logging::setLogSink(sink);
    Logger::setThreshold(demo::StateMachineJob::loggerName(), LogLevel::Trace);
    const int status = run(inputs, usingFiles, *sink);
    qor::common::logging::setLogSink(nullptr); // before static objects log at exit
    return status;
}
