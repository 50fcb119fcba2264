// The timeline's hot path: one beginSection + endSection pair (section "draw",
// category "gfx", no extra text) written into a trace file.
//
// Anchors: what a user would write instead, two plain trace writers that
// produce the same trace-event lines (begin with name, time stamp, thread id
// and category; end with time stamp and thread id), each line one call:
//   timeline/...            a writer with one fprintf per event
//   timeline-tochars/...    a writer that formats each line with
//                           std::to_chars into a local buffer and writes it
//                           with one fwrite
//   timeline-buffered/...   the fprintf writer on a stream with the same
//                           64 KiB buffer that the timeline gives a file, so
//                           that only the work per event is compared
// All anchors read a monotonic clock per event and keep the kernel thread id
// per thread, as such writers do; the stream's own lock keeps their lines
// whole when several threads write.
//
// Figures (time per pair; items/s = pairs per second over all threads):
//   .../section-1thread    one thread
//   .../section-2threads   two threads on the same file
// The two-thread figures run a helper thread next to the benchmark thread;
// each performs the same number of pairs, and the timed region ends when both
// are done.
//
// Output goes to a real file under the temporary folder, opened for appending
// and truncated to nothing every few thousand pairs (from the benchmark
// thread, while writing goes on), so that the file system does real writes
// but the file never grows large.
#include "qor/nav/sdk/utils/timeline/Timeline.h"

#include <benchmark/benchmark.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace {

using qor::nav::sdk::utils::timeline::Timeline;

constexpr benchmark::IterationCount kTruncateEvery = 1 << 14; // about 2 MiB of events

std::string tracePath()
{
    const char* folder = std::getenv("TMPDIR");
    return std::string(folder != nullptr && *folder != '\0' ? folder : "/tmp") + "/qor-timeline-bench-" +
           std::to_string(::getpid()) + ".json";
}

// The file that one benchmark run writes: opened for appending (so that a
// truncation from outside makes the writers start again at offset 0) and
// removed at the end.
class TraceFile
{
public:
    TraceFile() : m_Path(tracePath()), m_Stream(std::fopen(m_Path.c_str(), "w")) {}
    ~TraceFile()
    {
        if (m_Stream != nullptr)
        {
            std::fclose(m_Stream);
        }
        std::remove(m_Path.c_str());
    }
    TraceFile(const TraceFile&) = delete;
    TraceFile& operator=(const TraceFile&) = delete;

    bool ok() const { return m_Stream != nullptr; }
    int descriptor() const { return m_Descriptor; }

    // Reopens the file for appending and hands the stream over (the Timeline
    // takes ownership; the anchors give it back through close()).
    FILE* openForAppending()
    {
        if (m_Stream != nullptr)
        {
            std::fclose(m_Stream);
        }
        m_Stream = std::fopen(m_Path.c_str(), "a");
        m_Descriptor = m_Stream != nullptr ? ::fileno(m_Stream) : -1;
        FILE* stream = m_Stream;
        m_Stream = nullptr;
        return stream;
    }

    void truncate() const
    {
        if (m_Descriptor >= 0 && ::ftruncate(m_Descriptor, 0) != 0)
        {
            std::abort();
        }
    }

private:
    std::string m_Path;
    FILE* m_Stream;
    int m_Descriptor = -1;
};

std::uint64_t kernelThreadId()
{
    static thread_local const std::uint64_t t_Id = static_cast<std::uint64_t>(::syscall(SYS_gettid));
    return t_Id;
}

long microsecondsNow()
{
    return static_cast<long>(std::chrono::duration_cast<std::chrono::microseconds>(
                                 std::chrono::steady_clock::now().time_since_epoch())
                                 .count());
}

const char kHeader[] = "{\"displayTimeUnits\":\"ns\",\"traceEvents\":[\n";

// Anchor lines: one fprintf per event.
struct FprintfLines
{
    static void begin(FILE* stream, const char* name, const char* category)
    {
        std::fprintf(stream, ",{\"name\":\"%s\",\"ph\":\"B\",\"ts\":%ld,\"pid\":1,\"tid\":%lu,\"cat\":\"%s\"}\n", name,
                     microsecondsNow(), static_cast<unsigned long>(kernelThreadId()), category);
    }
    static void end(FILE* stream)
    {
        std::fprintf(stream, ",{\"ph\":\"E\",\"ts\":%ld,\"pid\":1,\"tid\":%lu}\n", microsecondsNow(),
                     static_cast<unsigned long>(kernelThreadId()));
    }
};

// Anchor lines: each put together with std::to_chars and memcpy in a local
// buffer, then one fwrite.
struct ToCharsLines
{
    static void begin(FILE* stream, const char* name, const char* category)
    {
        char line[512];
        char* const end = line + sizeof line - 64; // room for the numbers and the fixed text
        char* out = text(line, ",{\"name\":\"");
        out = bounded(out, name, end);
        out = text(out, "\",\"ph\":\"B\",\"ts\":");
        out = std::to_chars(out, line + sizeof line, microsecondsNow()).ptr;
        out = text(out, ",\"pid\":1,\"tid\":");
        out = std::to_chars(out, line + sizeof line, kernelThreadId()).ptr;
        out = text(out, ",\"cat\":\"");
        out = bounded(out, category, end);
        out = text(out, "\"}\n");
        std::fwrite(line, 1, static_cast<std::size_t>(out - line), stream);
    }
    static void end(FILE* stream)
    {
        char line[96];
        char* out = text(line, ",{\"ph\":\"E\",\"ts\":");
        out = std::to_chars(out, line + sizeof line, microsecondsNow()).ptr;
        out = text(out, ",\"pid\":1,\"tid\":");
        out = std::to_chars(out, line + sizeof line, kernelThreadId()).ptr;
        out = text(out, "}\n");
        std::fwrite(line, 1, static_cast<std::size_t>(out - line), stream);
    }
    template <std::size_t N>
    static char* text(char* out, const char (&literal)[N])
    {
        std::memcpy(out, literal, N - 1);
        return out + (N - 1);
    }
    static char* bounded(char* out, const char* s, char* end)
    {
        const std::size_t length = std::min<std::size_t>(std::strlen(s), static_cast<std::size_t>(end - out) / 2);
        std::memcpy(out, s, length);
        return out + length;
    }
};

// Anchor: a plain trace writer putting out its lines with `Lines`, on a
// stream with the C library's buffer or (kBuffered) with the timeline's
// buffer size. The header carries a first event, so that every event line
// can start with its separating comma without a shared flag.
template <typename Lines, bool kBuffered = false>
class PlainWriter
{
public:
    explicit PlainWriter(FILE* stream) : m_Stream(stream)
    {
        if (kBuffered)
        {
            // One writer at a time uses the buffer (the one-thread figure
            // only), and it outlives every stream.
            static char buffer[64 * 1024];
            std::setvbuf(m_Stream, buffer, _IOFBF, sizeof buffer);
        }
        std::fprintf(m_Stream, "%s{\"pid\":1,\"tid\":%lu,\"ph\":\"M\",\"name\":\"thread_name\",\"args\":{\"name\":\"%s\"}}\n",
                     kHeader, static_cast<unsigned long>(kernelThreadId()), "bench");
    }
    ~PlainWriter()
    {
        std::fputs("]}", m_Stream);
        std::fclose(m_Stream);
    }
    PlainWriter(const PlainWriter&) = delete;
    PlainWriter& operator=(const PlainWriter&) = delete;

    void beginSection(const char* name, const char* category) { Lines::begin(m_Stream, name, category); }
    void endSection() { Lines::end(m_Stream); }

private:
    FILE* m_Stream;
};

using FprintfWriter = PlainWriter<FprintfLines>;
using BufferedFprintfWriter = PlainWriter<FprintfLines, true>;
using ToCharsWriter = PlainWriter<ToCharsLines>;

// Ours: the Timeline on a single-stream session.
class OurWriter
{
public:
    explicit OurWriter(FILE* stream) { m_Timeline.startSession(stream); }
    void beginSection(const char* name, const char* category) { m_Timeline.beginSection(name, category, ""); }
    void endSection() { m_Timeline.endSection(); }

private:
    Timeline m_Timeline; // finishes the session (and closes the stream) when destroyed
};

template <typename Writer>
inline void section(Writer& writer)
{
    writer.beginSection("draw", "gfx");
    writer.endSection();
}

template <typename Writer>
void sectionOneThread(benchmark::State& state)
{
    TraceFile file;
    if (!file.ok())
    {
        state.SkipWithError("cannot create the trace file");
        return;
    }
    {
        Writer writer(file.openForAppending());
        benchmark::IterationCount n = 0;
        for (auto _ : state)
        {
            section(writer);
            if (++n % kTruncateEvery == 0)
            {
                file.truncate();
            }
        }
    }
    state.SetItemsProcessed(state.iterations());
}

// The benchmark thread and one helper each write max_iterations pairs into
// the same writer; the helper is joined inside the last timed iteration.
// items_per_second counts the pairs of both threads over the wall time from
// the first iteration to the join.
template <typename Writer>
void sectionTwoThreads(benchmark::State& state)
{
    TraceFile file;
    if (!file.ok())
    {
        state.SkipWithError("cannot create the trace file");
        return;
    }
    const benchmark::IterationCount count = state.max_iterations;
    double seconds = 0.0;
    {
        Writer writer(file.openForAppending());
        std::atomic<bool> go{false};
        std::thread helper([&] {
            while (!go.load(std::memory_order_acquire))
            {
            }
            for (benchmark::IterationCount i = 0; i < count; ++i)
            {
                section(writer);
            }
        });
        std::chrono::steady_clock::time_point start;
        benchmark::IterationCount left = count;
        for (auto _ : state)
        {
            if (left == count)
            {
                start = std::chrono::steady_clock::now();
                go.store(true, std::memory_order_release);
            }
            section(writer);
            if (--left % (kTruncateEvery / 2) == 0)
            {
                file.truncate();
            }
            if (left == 0)
            {
                helper.join();
                seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            }
        }
        if (helper.joinable())
        {
            go.store(true, std::memory_order_release);
            helper.join(); // only when the loop ended early (an error); not timed
        }
    }
    if (seconds > 0.0)
    {
        state.counters["items_per_second"] = benchmark::Counter(2.0 * static_cast<double>(count) / seconds);
    }
}

} // namespace

BENCHMARK_TEMPLATE(sectionOneThread, OurWriter)->Name("timeline/section-1thread:ours");
BENCHMARK_TEMPLATE(sectionOneThread, FprintfWriter)->Name("timeline/section-1thread:anchor");
BENCHMARK_TEMPLATE(sectionOneThread, OurWriter)->Name("timeline-tochars/section-1thread:ours");
BENCHMARK_TEMPLATE(sectionOneThread, ToCharsWriter)->Name("timeline-tochars/section-1thread:anchor");
BENCHMARK_TEMPLATE(sectionOneThread, OurWriter)->Name("timeline-buffered/section-1thread:ours");
BENCHMARK_TEMPLATE(sectionOneThread, BufferedFprintfWriter)->Name("timeline-buffered/section-1thread:anchor");
BENCHMARK_TEMPLATE(sectionTwoThreads, OurWriter)->Name("timeline/section-2threads:ours");
BENCHMARK_TEMPLATE(sectionTwoThreads, FprintfWriter)->Name("timeline/section-2threads:anchor");
BENCHMARK_TEMPLATE(sectionTwoThreads, OurWriter)->Name("timeline-tochars/section-2threads:ours");
BENCHMARK_TEMPLATE(sectionTwoThreads, ToCharsWriter)->Name("timeline-tochars/section-2threads:anchor");

BENCHMARK_MAIN();
