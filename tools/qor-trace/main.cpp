// qor-trace: checks, repairs, merges and exports the trace files that the
// Timeline writes, so that every viewer opens them whole and right.
//
//   qor-trace check trace.json                 # whole? sections paired? per thread
//   qor-trace repair crashed.json -o fixed.json
//   qor-trace merge trace-parts.json -o all.json          # the parts .001, .002, ...
//   qor-trace export trace.json -o devtools.json          # for DevTools and speedscope
//
// Exit status: 0 when every file checked is whole and paired (check) or the
// output was written (repair, merge, export); 1 otherwise; 2 for a usage error.
#include "TracePass.h"
#include "TraceReader.h"

#include "qor/Version.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

namespace {

using namespace qor::trace;

const char* const kUsage =
    "usage: qor-trace check FILE...\n"
    "       qor-trace repair FILE -o OUT\n"
    "       qor-trace merge PART... -o OUT\n"
    "       qor-trace export FILE... -o OUT [--format complete]\n"
    "\n"
    "  check    says for each trace whether it is whole (or where it is cut or broken)\n"
    "           and, per thread, its sections, their deepest nesting, sections left open,\n"
    "           ends without a begin and the time span. Exit status 0 only when every\n"
    "           file is whole and all its sections are paired.\n"
    "  repair   makes a trace cut short by a crash whole: drops a partial last event,\n"
    "           closes the sections still open at the last time stamp of their thread\n"
    "           and adds the trailer.\n"
    "  merge    joins the parts of a multipart session, in part order, into one trace:\n"
    "           each thread named once, sections that span a part boundary paired.\n"
    "  export   writes one trace that Chrome DevTools (Performance panel, \"Load\n"
    "           profile\") and speedscope draw correctly: each section as one complete\n"
    "           event with its duration, instant events as they read them, thread names\n"
    "           kept. Repairs and merges on the way. The only format is \"complete\".\n"
    "\n"
    "A FILE may be the base name of a multipart session: trace.json stands for\n"
    "trace.json.001, trace.json.002, ... up to the first missing part.\n";

int usageError(const std::string& problem)
{
    std::cerr << "qor-trace: " << problem << "\n" << kUsage;
    return 2;
}

struct Options
{
    std::string command;
    std::vector<std::string> files;
    std::string output;
    std::string format;
};

bool exists(const std::string& path)
{
    struct stat status;
    return ::stat(path.c_str(), &status) == 0;
}

std::string partName(const std::string& base, unsigned part)
{
    char suffix[16];
    std::snprintf(suffix, sizeof suffix, ".%03u", part);
    return base + suffix;
}

// The part number of "<base>.<digits>", or 0.
unsigned partNumber(const std::string& path, std::string& base)
{
    const std::size_t dot = path.rfind('.');
    if (dot == std::string::npos || dot + 1 == path.size() || path.size() - dot > 10 ||
        path.find_first_not_of("0123456789", dot + 1) != std::string::npos)
    {
        return 0;
    }
    base = path.substr(0, dot);
    return static_cast<unsigned>(std::stoul(path.substr(dot + 1)));
}

// A file, or the parts of the multipart session with that base name.
std::vector<std::string> expand(const std::string& name)
{
    if (exists(name) || !exists(partName(name, 1)))
    {
        return {name};
    }
    std::vector<std::string> parts;
    for (unsigned part = 1; exists(partName(name, part)); ++part)
    {
        parts.push_back(partName(name, part));
    }
    return parts;
}

// Parts of one session named one by one (as a shell pattern lists them, with
// part 1000 before part 101) go in the order of their numbers.
void sortParts(std::vector<std::string>& files)
{
    std::string firstBase;
    std::string base;
    for (const std::string& file : files)
    {
        if (partNumber(file, base) == 0 || (!firstBase.empty() && base != firstBase))
        {
            return;
        }
        firstBase = base;
    }
    std::stable_sort(files.begin(), files.end(), [](const std::string& a, const std::string& b) {
        std::string ignored;
        return partNumber(a, ignored) < partNumber(b, ignored);
    });
}

std::string where(const ReadResult& result)
{
    return "at byte " + std::to_string(result.at.offset) + " (line " + std::to_string(result.at.line) + ")";
}

// Reads one file into `pass`; false (with a message) when it cannot be opened.
bool readFile(const std::string& path, TraceReader& reader, TracePass& pass, ReadResult& result,
              std::uint64_t& size, bool needText)
{
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status;
    if (descriptor < 0 || ::fstat(descriptor, &status) != 0 || S_ISDIR(status.st_mode))
    {
        std::cerr << "qor-trace: cannot read " << path << ": " << std::strerror(descriptor < 0 ? errno : EISDIR)
                  << "\n";
        if (descriptor >= 0)
        {
            ::close(descriptor);
        }
        return false;
    }
    FileSource source(descriptor);
    result = reader.read(source, pass, needText);
    ::close(descriptor);
    size = static_cast<std::uint64_t>(status.st_size);
    return true;
}

std::string describeEnding(const ReadResult& result)
{
    switch (result.ending)
    {
    case Ending::Whole:
        return "whole";
    case Ending::Cut:
        return "cut short " + where(result) + ": " + result.problem;
    case Ending::Broken:
        break;
    }
    return "broken " + where(result) + ": " + result.problem;
}

std::string seconds(std::int64_t nanoseconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.6f s", static_cast<double>(nanoseconds) / 1e9);
    return text;
}

// The per-thread table of a check; returns the number of unpaired sections and ends.
std::uint64_t printThreads(const TracePass& pass)
{
    if (pass.threads().empty())
    {
        return 0;
    }
    std::size_t nameWidth = 6;
    std::size_t idWidth = 2;
    for (const ThreadState& thread : pass.threads())
    {
        nameWidth = std::max(nameWidth, thread.name.size());
        idWidth = std::max(idWidth, thread.id.size());
    }
    std::printf("  %-*s  %-*s  %8s  %9s  %4s  %18s  %s\n", static_cast<int>(nameWidth), "thread",
                static_cast<int>(idWidth), "id", "sections", "max depth", "open", "ends without begin", "time span");
    std::uint64_t unpaired = 0;
    for (const ThreadState& thread : pass.threads())
    {
        const std::string span = thread.timed ? seconds(thread.last - thread.first) + " (" +
                                                    formatMicros(thread.first) + " to " + formatMicros(thread.last) +
                                                    " us)"
                                              : "-";
        std::printf("  %-*s  %-*s  %8llu  %9llu  %4zu  %18llu  %s\n", static_cast<int>(nameWidth),
                    thread.name.empty() ? "-" : thread.name.c_str(), static_cast<int>(idWidth), thread.id.c_str(),
                    static_cast<unsigned long long>(thread.sections),
                    static_cast<unsigned long long>(thread.maxDepth), thread.open.size(),
                    static_cast<unsigned long long>(thread.unmatchedEnds), span.c_str());
        unpaired += thread.open.size() + thread.unmatchedEnds;
    }
    return unpaired;
}

int check(const Options& options)
{
    TraceReader reader;
    bool allGood = true;
    for (const std::string& name : options.files)
    {
        const std::vector<std::string> files = expand(name);
        TracePass pass(Format::None, nullptr);
        bool whole = true;
        for (const std::string& file : files)
        {
            ReadResult result;
            std::uint64_t size = 0;
            if (!readFile(file, reader, pass, result, size, false))
            {
                whole = false;
                continue;
            }
            std::printf("%s: %llu events, %llu bytes, %s\n", file.c_str(),
                        static_cast<unsigned long long>(result.events), static_cast<unsigned long long>(size),
                        describeEnding(result).c_str());
            whole = whole && result.ending == Ending::Whole;
            pass.nextFile();
        }
        const std::uint64_t unpaired = printThreads(pass);
        const bool good = whole && unpaired == 0;
        std::printf("%s: %s\n", name.c_str(),
                    good     ? "ok"
                    : !whole ? "NOT OK: not whole (qor-trace repair or export makes it whole)"
                             : "NOT OK: sections not paired");
        std::string base;
        if (files.size() == 1 && whole && !good && partNumber(files[0], base) != 0)
        {
            std::printf("  (a part of a multipart session: sections that span a part boundary pair up when the "
                        "session is checked as a whole: qor-trace check %s)\n",
                        base.c_str());
        }
        allGood = allGood && good;
    }
    return allGood ? 0 : 1;
}

// Opens the output for a new document, refusing to overwrite an input.
int openOutput(const std::string& path, const std::vector<std::string>& inputs)
{
    struct stat out;
    if (::stat(path.c_str(), &out) == 0)
    {
        for (const std::string& input : inputs)
        {
            struct stat in;
            if (::stat(input.c_str(), &in) == 0 && in.st_dev == out.st_dev && in.st_ino == out.st_ino)
            {
                std::cerr << "qor-trace: the output " << path << " is one of the inputs\n";
                return -1;
            }
        }
    }
    const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (descriptor < 0)
    {
        std::cerr << "qor-trace: cannot create " << path << ": " << std::strerror(errno) << "\n";
    }
    return descriptor;
}

// repair, merge and export: one pass over every input into one new document.
int rewrite(const Options& options, Format format)
{
    std::vector<std::string> files;
    for (const std::string& name : options.files)
    {
        const std::vector<std::string> expanded = expand(name);
        files.insert(files.end(), expanded.begin(), expanded.end());
    }
    sortParts(files);
    const int descriptor = openOutput(options.output, files);
    if (descriptor < 0)
    {
        return 1;
    }
    Output output(descriptor);
    TracePass pass(format, &output);
    TraceReader reader;
    bool ok = true;
    for (const std::string& file : files)
    {
        ReadResult result;
        std::uint64_t size = 0;
        if (!readFile(file, reader, pass, result, size, true))
        {
            ok = false;
            break;
        }
        if (result.ending != Ending::Whole)
        {
            std::printf("%s: %s; kept the %llu whole events before it, dropped the %llu bytes from byte %llu on\n",
                        file.c_str(), describeEnding(result).c_str(), static_cast<unsigned long long>(result.events),
                        static_cast<unsigned long long>(size > result.wholeUpTo ? size - result.wholeUpTo : 0),
                        static_cast<unsigned long long>(result.wholeUpTo));
        }
        pass.nextFile();
    }
    for (const std::string& note : pass.finish())
    {
        std::printf("%s\n", note.c_str());
    }
    if (files.size() > 1)
    {
        std::printf("joined %zu files; %llu section(s) paired across file boundaries\n", files.size(),
                    static_cast<unsigned long long>(pass.pairedAcrossFiles()));
    }
    ok = output.finish() && ok;
    ::close(descriptor);
    if (!ok)
    {
        if (!output.error().empty())
        {
            std::cerr << "qor-trace: " << options.output << ": " << output.error() << "\n";
        }
        ::unlink(options.output.c_str());
        return 1;
    }
    std::uint64_t sections = 0;
    for (const ThreadState& thread : pass.threads())
    {
        sections += thread.sections;
    }
    std::printf("wrote %s: %llu sections on %zu threads, %llu bytes%s\n", options.output.c_str(),
                static_cast<unsigned long long>(sections), pass.threads().size(),
                static_cast<unsigned long long>(output.size()),
                format == Format::Complete ? " (open it in Chrome DevTools, Performance panel, or speedscope)" : "");
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    bool filesOnly = false;
    for (int i = 1; i < argc; ++i)
    {
        const std::string arg = argv[i];
        if (!filesOnly && (arg == "-h" || arg == "--help"))
        {
            std::cout << kUsage;
            return 0;
        }
        if (!filesOnly && arg == "--version")
        {
            std::cout << "qor-trace (qor " << QOR_VERSION_STRING << ")\n";
            return 0;
        }
        if (!filesOnly && (arg == "-o" || arg == "--output" || arg == "--format"))
        {
            if (i + 1 == argc)
            {
                return usageError(arg + " needs a value");
            }
            (arg == "--format" ? options.format : options.output) = argv[++i];
        }
        else if (!filesOnly && arg == "--")
        {
            filesOnly = true;
        }
        else if (!filesOnly && arg.size() > 1 && arg[0] == '-')
        {
            return usageError("unknown option " + arg);
        }
        else if (options.command.empty())
        {
            options.command = arg;
        }
        else
        {
            options.files.push_back(arg);
        }
    }
    const std::string& command = options.command;
    if (command != "check" && command != "repair" && command != "merge" && command != "export")
    {
        return usageError(command.empty() ? "no command given" : "unknown command " + command);
    }
    if (options.files.empty())
    {
        return usageError(command + " needs a file");
    }
    if (command == "check")
    {
        return options.output.empty() ? check(options) : usageError("check writes no file: drop -o");
    }
    if (options.output.empty())
    {
        return usageError(command + " needs -o OUT");
    }
    if (command == "repair" && options.files.size() != 1)
    {
        return usageError("repair takes one file (merge joins several)");
    }
    if (!options.format.empty() && (command != "export" || options.format != "complete"))
    {
        return usageError(command != "export" ? "only export takes --format"
                                              : "unknown format " + options.format + " (the only one is complete)");
    }
    return rewrite(options, command == "export" ? Format::Complete : Format::Events);
}
