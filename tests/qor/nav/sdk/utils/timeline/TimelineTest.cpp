#include "qor/nav/sdk/utils/timeline/Timeline.h"

#include "qor/common/system/Thread.h"
#include "support/FunctionThread.h"
#include "support/ManualTickSource.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using qor::common::system::Thread;
using qor::nav::sdk::utils::timeline::Timeline;
using qor::test::FunctionThread;
using qor::test::ManualTickSource;
using qor::test::TemporaryDirectory;
using Json = nlohmann::json;

const std::string kHeader = "{\"displayTimeUnits\":\"ns\",\"traceEvents\":[\n";
const std::string kTrailer = "]}";

// An in-memory stream handed over to Timeline::startSession, which closes it;
// text() is valid after that.
class MemoryStream
{
public:
    MemoryStream() : m_Stream(::open_memstream(&m_Buffer, &m_Size)) {}
    ~MemoryStream()
    {
        if (m_Stream != nullptr)
        {
            std::fclose(m_Stream);
        }
        std::free(m_Buffer);
    }
    MemoryStream(const MemoryStream&) = delete;
    MemoryStream& operator=(const MemoryStream&) = delete;
    FILE* release() { return std::exchange(m_Stream, nullptr); }
    std::string text() const { return m_Buffer != nullptr ? std::string(m_Buffer, m_Size) : std::string(); }

private:
    char* m_Buffer = nullptr;
    std::size_t m_Size = 0;
    FILE* m_Stream;
};

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const std::string& path, const std::string& content)
{
    std::ofstream(path, std::ios::binary) << content;
}

std::uint64_t currentThreadId()
{
    return Thread::getCurrentThread().getId();
}

// The events of one document; fails the test when it is not valid JSON.
std::vector<Json> eventsOf(const std::string& document)
{
    Json parsed = Json::parse(document, nullptr, false);
    EXPECT_FALSE(parsed.is_discarded()) << "not valid JSON:\n" << document;
    if (parsed.is_discarded() || !parsed.contains("traceEvents"))
    {
        return {};
    }
    EXPECT_EQ("ns", parsed["displayTimeUnits"]);
    return parsed["traceEvents"].get<std::vector<Json>>();
}

std::size_t countPhase(const std::vector<Json>& events, const std::string& phase)
{
    return static_cast<std::size_t>(
        std::count_if(events.begin(), events.end(), [&](const Json& e) { return e.value("ph", "") == phase; }));
}

// Thread-name events per thread id.
std::map<std::uint64_t, std::vector<std::string>> threadNames(const std::vector<Json>& events)
{
    std::map<std::uint64_t, std::vector<std::string>> names;
    for (const Json& e : events)
    {
        if (e.value("ph", "") == "M" && e.value("name", "") == "thread_name")
        {
            names[e["tid"].get<std::uint64_t>()].push_back(e["args"]["name"].get<std::string>());
        }
    }
    return names;
}

// Every E closes a B of the same thread, every B is closed, and the section
// events carry non-decreasing time stamps in file order (they are stamped
// under the writer's lock).
void expectSectionsPairUp(const std::vector<Json>& events)
{
    std::map<std::uint64_t, long> depth;
    long lastTimeStamp = 0;
    for (const Json& e : events)
    {
        const std::string phase = e.value("ph", "");
        if (phase != "B" && phase != "E")
        {
            continue;
        }
        const long ts = e["ts"].get<long>();
        EXPECT_LE(lastTimeStamp, ts) << e.dump();
        lastTimeStamp = ts;
        long& d = depth[e["tid"].get<std::uint64_t>()];
        d += phase == "B" ? 1 : -1;
        ASSERT_GE(d, 0) << "unmatched end: " << e.dump();
    }
    for (const auto& entry : depth)
    {
        EXPECT_EQ(0, entry.second) << "sections left open by thread " << entry.first;
    }
}

// Bytes the timeline counts for a finished document: everything but the
// separating commas at line starts and the trailer. Valid for documents whose
// sections carry no category.
std::uint64_t countedBytesBeforeTrailer(const std::string& document)
{
    std::uint64_t separators = 0;
    for (std::size_t i = 0; i + 1 < document.size(); ++i)
    {
        separators += (document[i] == '\n' && document[i + 1] == ',') ? 1u : 0u;
    }
    return document.size() - separators - kTrailer.size();
}

std::vector<std::string> partNames(const std::string& baseName, int first, int last)
{
    std::vector<std::string> names;
    for (int part = first; part <= last; ++part)
    {
        char suffix[16];
        std::snprintf(suffix, sizeof suffix, ".%03d", part);
        names.push_back(baseName + suffix);
    }
    return names;
}

void oneSection(Timeline& timeline, const char* name = "step")
{
    timeline.beginSection(name, nullptr, "");
    timeline.endSection();
}

TEST(TimelineTest, SessionOfOneNamedThreadHasExactBytes)
{
    ManualTickSource clock;
    MemoryStream out;
    std::uint64_t tid = 0;
    FunctionThread::runAndJoin("RendererWithALongName", [&] {
        tid = currentThreadId();
        Timeline timeline;
        clock.setMicros(5000);
        timeline.startSession(out.release());
        timeline.setThreadName(42, "Loader");
        clock.setMicros(5100);
        timeline.beginSection("frame", "gfx", "");
        clock.setMicros(5200);
        timeline.beginSection("layout", nullptr, ",\"args\":{\"n\":1}");
        clock.setMicros(5300);
        timeline.endSection();
        clock.setMicros(5400);
        timeline.endSection();
        timeline.beginSection("frame", nullptr, "");
        timeline.endSection();
        clock.setMicros(45000);
        timeline.finishSession();
    });
    const std::string t = std::to_string(tid);
    const std::string expected =
        kHeader +
        R"({"pid":1,"tid":42,"ph":"M","name":"thread_name","args":{"name":"Loader"}})" "\n"
        R"(,{"pid":1,"tid":)" + t + R"(,"ph":"M","name":"thread_name","args":{"name":"RendererWithALongName"}})" "\n"
        R"(,{"name":"frame","ph":"B","ts":5100,"pid":1,"tid":)" + t + R"(,"cat":"gfx"})" "\n"
        R"(,{"name":"layout","ph":"B","ts":5200,"pid":1,"tid":)" + t + R"(,"args":{"n":1}})" "\n"
        R"(,{"ph":"E","ts":5300,"pid":1,"tid":)" + t + "}\n"
        R"(,{"ph":"E","ts":5400,"pid":1,"tid":)" + t + "}\n"
        R"(,{"name":"frame","ph":"B","ts":5400,"pid":1,"tid":)" + t + "}\n"
        R"(,{"ph":"E","ts":5400,"pid":1,"tid":)" + t + "}\n"
        R"(,{"name":"VSYNC","ph":"i","s":"t","ts":5000,"pid":1,"tid":)" + t + "}\n"
        R"(,{"name":"VSYNC","ph":"i","s":"t","ts":5000,"pid":1,"tid":)" + t + "}\n"
        R"(,{"name":"VSYNC","ph":"i","s":"t","ts":21666,"pid":1,"tid":)" + t + "}\n"
        R"(,{"name":"VSYNC","ph":"i","s":"t","ts":38333,"pid":1,"tid":)" + t + "}\n" +
        kTrailer;
    EXPECT_EQ(expected, out.text());
}

TEST(TimelineTest, GridMarksRepeatTheStartThenFollowSixtyHertz)
{
    struct Case
    {
        std::uint64_t lengthNanos;
        std::vector<long> offsets;
    };
    const std::vector<Case> cases = {
        {999, {}}, // not a whole microsecond: header and trailer only
        {1000, {0, 0}},
        {16666000, {0, 0}},
        {16667000, {0, 0, 16666}},
        {100001000, {0, 0, 16666, 33333, 50000, 66666, 83333, 100000}},
    };
    ManualTickSource clock;
    for (const Case& c : cases)
    {
        const long start = 7000000;
        clock.setMicros(start);
        MemoryStream out;
        Timeline timeline;
        timeline.startSession(out.release());
        clock.setNanos(clock.nanos() + c.lengthNanos);
        timeline.finishSession();

        std::vector<long> offsets;
        for (const Json& e : eventsOf(out.text()))
        {
            EXPECT_EQ("VSYNC", e["name"]);
            EXPECT_EQ(currentThreadId(), e["tid"].get<std::uint64_t>());
            offsets.push_back(e["ts"].get<long>() - start);
        }
        EXPECT_EQ(c.offsets, offsets) << "session of " << c.lengthNanos << " ns";
        if (c.offsets.empty())
        {
            EXPECT_EQ(kHeader + kTrailer, out.text());
        }
    }
}

TEST(TimelineTest, StartingASessionWhileActiveClosesTheStreamOrIsIgnored)
{
    TemporaryDirectory dir;
    MemoryStream first;
    {
        Timeline timeline;
        timeline.startSession(first.release());

        int fds[2];
        ASSERT_EQ(0, ::pipe2(fds, O_NONBLOCK));
        timeline.startSession(::fdopen(fds[1], "w"));
        char byte = 0;
        EXPECT_EQ(0, ::read(fds[0], &byte, 1)) << "the second stream must be closed at once";
        ::close(fds[0]);

        timeline.startMultipartSession((dir.path() + "/ignored.json").c_str(), 10);
        EXPECT_TRUE(dir.entries().empty());
        timeline.startMultipartSession(nullptr, 10); // ignored too, not checked

        oneSection(timeline);
        // The destructor finishes the session.
    }
    const std::string text = first.text();
    EXPECT_EQ(0u, text.find(kHeader));
    EXPECT_EQ(std::string::npos, text.find(kHeader, 1));
    const std::vector<Json> events = eventsOf(text);
    EXPECT_EQ(1u, countPhase(events, "B"));
    EXPECT_EQ(1u, countPhase(events, "E"));
}

TEST(TimelineTest, MultipartSessionRollsOverOnlyAboveTheLimitAfterASectionEnd)
{
    ManualTickSource clock;
    TemporaryDirectory measureDir;
    TemporaryDirectory equalDir;
    TemporaryDirectory belowDir;
    std::uint64_t tid = 0;
    std::string singleStream;

    FunctionThread::runAndJoin("Worker", [&] {
        tid = currentThreadId();
        // The counted size of header, thread name, one begin and one end.
        std::uint64_t oneCycle = 0;
        {
            Timeline timeline;
            timeline.startMultipartSession((measureDir.path() + "/m.json").c_str(), 1000000);
            oneSection(timeline);
            timeline.finishSession();
            oneCycle = countedBytesBeforeTrailer(readFile(measureDir.path() + "/m.json.001"));
        }
        // Exactly at the limit is not above it: the second section end rolls over.
        {
            Timeline timeline;
            timeline.startMultipartSession((equalDir.path() + "/m.json").c_str(), oneCycle);
            oneSection(timeline);
            oneSection(timeline);
            timeline.finishSession();
        }
        // One byte less: every section end rolls over, and the worker is named
        // again in each part in which it begins a section. A single-stream
        // session on the same object afterwards never rolls over.
        {
            Timeline timeline;
            timeline.startMultipartSession((belowDir.path() + "/m.json").c_str(), oneCycle - 1);
            oneSection(timeline);
            oneSection(timeline);
            timeline.finishSession();

            MemoryStream out;
            timeline.startSession(out.release());
            for (int i = 0; i < 50; ++i)
            {
                oneSection(timeline);
            }
            timeline.finishSession();
            singleStream = out.text();
        }
    });

    const std::string empty = kHeader + kTrailer;
    EXPECT_EQ(partNames("m.json", 1, 2), equalDir.entries());
    EXPECT_EQ(2u, countPhase(eventsOf(readFile(equalDir.path() + "/m.json.001")), "E"));
    EXPECT_EQ(empty, readFile(equalDir.path() + "/m.json.002"));

    EXPECT_EQ(partNames("m.json", 1, 3), belowDir.entries());
    for (const std::string& part : partNames("/m.json", 1, 2))
    {
        const std::vector<Json> events = eventsOf(readFile(belowDir.path() + part));
        EXPECT_EQ(1u, countPhase(events, "B")) << part;
        EXPECT_EQ(1u, countPhase(events, "E")) << part;
        EXPECT_EQ((std::map<std::uint64_t, std::vector<std::string>>{{tid, {"Worker"}}}), threadNames(events)) << part;
    }
    EXPECT_EQ(empty, readFile(belowDir.path() + "/m.json.003"));

    // A stale part number would have made the single-stream session create m.json.004.
    EXPECT_EQ(partNames("m.json", 1, 3), belowDir.entries());
    EXPECT_EQ(50u, countPhase(eventsOf(singleStream), "E"));
}

TEST(TimelineTest, PartFilesAreNumberedWithAtLeastThreeDigitsAndMode0664)
{
    TemporaryDirectory dir;
    const std::string base = dir.path() + "/trace.json";
    {
        Timeline timeline;
        timeline.startMultipartSession(base.c_str(), 0);
        for (int i = 0; i < 999; ++i)
        {
            oneSection(timeline); // every section end rolls over
        }
        timeline.finishSession();
    }
    std::vector<std::string> expected = partNames("trace.json", 1, 1000);
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, dir.entries());
    EXPECT_EQ(kHeader, readFile(base + ".1000").substr(0, kHeader.size()));

    const mode_t mask = ::umask(0);
    ::umask(mask);
    struct stat info = {};
    ASSERT_EQ(0, ::stat((base + ".001").c_str(), &info));
    EXPECT_EQ(0664u & ~static_cast<unsigned>(mask), info.st_mode & 0777u);
}

TEST(TimelineTest, PartFilesThatCannotBeCreatedStopTheRecordingSilently)
{
    TemporaryDirectory dir;
    const std::string base = dir.path() + "/t.json";
    {
        writeFile(base + ".001", "keep");
        Timeline timeline;
        timeline.startMultipartSession(base.c_str(), 1000);
        oneSection(timeline);
        timeline.finishSession();
        EXPECT_EQ("keep", readFile(base + ".001"));
        EXPECT_EQ(partNames("t.json", 1, 1), dir.entries());
    }
    {
        std::remove((base + ".001").c_str());
        writeFile(base + ".002", "keep");
        Timeline timeline;
        timeline.startMultipartSession(base.c_str(), 0);
        oneSection(timeline, "recorded");
        oneSection(timeline, "lost"); // part 2 could not be created: idle
        timeline.finishSession();
        EXPECT_EQ("keep", readFile(base + ".002"));
        const std::vector<Json> events = eventsOf(readFile(base + ".001"));
        EXPECT_EQ(1u, countPhase(events, "B"));
        EXPECT_EQ(1u, countPhase(events, "E"));
        EXPECT_EQ(partNames("t.json", 1, 2), dir.entries());
    }
}

TEST(TimelineTest, LateSectionEndAfterFinishingAFullPartOpensTheNextPart)
{
    // endSection() checks the limit even without a session (kept for
    // compatibility): a stray end after a part that ended above the limit,
    // grid marks included, opens the next part.
    ManualTickSource clock;
    TemporaryDirectory dir;
    const std::string base = dir.path() + "/late.json";
    Timeline timeline;
    timeline.startMultipartSession(base.c_str(), 1000);
    oneSection(timeline);
    clock.advanceMicros(1000000); // sixty grid marks: well above 1000 bytes
    timeline.finishSession();
    EXPECT_EQ(partNames("late.json", 1, 1), dir.entries());

    timeline.endSection();
    timeline.finishSession();
    EXPECT_EQ(partNames("late.json", 1, 2), dir.entries());
    EXPECT_EQ(kHeader + kTrailer, readFile(base + ".002"));
}

// Several named threads record nested sections at once; returns their ids.
std::vector<std::uint64_t> recordFromThreads(Timeline& timeline, int threads, int sectionsPerThread)
{
    std::vector<std::uint64_t> ids(static_cast<std::size_t>(threads), 0);
    std::atomic<int> ready{0};
    std::vector<std::unique_ptr<FunctionThread>> workers;
    for (int k = 0; k < threads; ++k)
    {
        workers.push_back(std::make_unique<FunctionThread>("Worker-" + std::to_string(k), [&, k] {
            ids[static_cast<std::size_t>(k)] = currentThreadId();
            ready.fetch_add(1); // start together to contend for the writer
            while (ready.load() < threads)
            {
                std::this_thread::yield();
            }
            for (int i = 0; i < sectionsPerThread; ++i)
            {
                const std::string extra = ",\"args\":{\"i\":" + std::to_string(i) + "}";
                timeline.beginSection("outer", "work", extra.c_str());
                timeline.beginSection("inner", nullptr, "");
                timeline.endSection();
                timeline.endSection();
            }
        }));
    }
    for (auto& worker : workers)
    {
        worker->start();
    }
    for (auto& worker : workers)
    {
        worker->join();
    }
    return ids;
}

TEST(TimelineThreadsTest, ConcurrentThreadsRollOverIntoValidParts)
{
    TemporaryDirectory dir;
    const std::string base = dir.path() + "/trace.json";
    Timeline timeline;
    timeline.startMultipartSession(base.c_str(), 2000);
    recordFromThreads(timeline, 4, 100);
    timeline.finishSession();

    const std::vector<std::string> entries = dir.entries();
    ASSERT_GT(entries.size(), 2u);
    std::vector<std::string> expected = partNames("trace.json", 1, static_cast<int>(entries.size()));
    std::sort(expected.begin(), expected.end());
    ASSERT_EQ(expected, entries);

    // Sections may span parts, so they pair up over the whole series.
    std::vector<Json> all;
    for (const std::string& name : partNames("/trace.json", 1, static_cast<int>(entries.size())))
    {
        const std::string document = readFile(dir.path() + name);
        EXPECT_EQ(0u, document.find(kHeader)) << name;
        const std::vector<Json> events = eventsOf(document);
        for (const auto& entry : threadNames(events))
        {
            EXPECT_EQ(1u, entry.second.size()) << name << ": thread " << entry.first << " named twice";
        }
        all.insert(all.end(), events.begin(), events.end());
    }
    EXPECT_EQ(4u * 200u, countPhase(all, "E"));
    expectSectionsPairUp(all);
}

// Writes into a full device, part files under a regular file, and a part that
// already exists half-way through: recording stops or fails quietly while
// threads contend, nothing hangs, and the object serves the next session.
TEST(TimelineThreadsTest, BrokenOutputsFailQuietlyAndTheNextSessionRecordsAllThreads)
{
    TemporaryDirectory dir;
    Timeline timeline;
    if (FILE* full = std::fopen("/dev/full", "w"))
    {
        timeline.startSession(full);
        recordFromThreads(timeline, 3, 300);
        timeline.finishSession();
    }

    writeFile(dir.path() + "/plain", "x");
    timeline.startMultipartSession((dir.path() + "/plain/sub/t.json").c_str(), 100);
    recordFromThreads(timeline, 3, 50);
    timeline.finishSession();
    EXPECT_EQ(std::vector<std::string>{"plain"}, dir.entries());

    const std::string base = dir.path() + "/t.json";
    writeFile(base + ".003", "keep");
    timeline.startMultipartSession(base.c_str(), 500);
    recordFromThreads(timeline, 3, 100);
    timeline.finishSession();
    EXPECT_EQ("keep", readFile(base + ".003"));
    std::vector<std::string> expected = partNames("t.json", 1, 3);
    expected.insert(expected.begin(), "plain");
    EXPECT_EQ(expected, dir.entries()); // recording stopped at part 3
    for (const std::string& name : partNames("/t.json", 1, 2))
    {
        EXPECT_LT(0u, countPhase(eventsOf(readFile(dir.path() + name)), "E")) << name;
    }

    // The next session records every contending thread, named once each.
    const std::string path = dir.path() + "/later.json";
    timeline.startSession(std::fopen(path.c_str(), "w"));
    const std::vector<std::uint64_t> ids = recordFromThreads(timeline, 4, 200);
    timeline.finishSession();
    const std::vector<Json> events = eventsOf(readFile(path));
    EXPECT_EQ(4u * 400u, countPhase(events, "B"));
    expectSectionsPairUp(events);
    const auto names = threadNames(events);
    ASSERT_EQ(4u, names.size());
    for (std::size_t k = 0; k < ids.size(); ++k)
    {
        EXPECT_EQ(std::vector<std::string>{"Worker-" + std::to_string(k)}, names.at(ids[k]));
    }
}

TEST(TimelineTest, ThreadIsNamedOnceInEveryFileOfEveryTimelineItWritesTo)
{
    // Alternating timelines, a new file on one of them, and a timeline built
    // where a destroyed one lived: each file names the thread exactly once.
    MemoryStream firstOfA, onlyOfB, secondOfA, laterOne, laterTwo;
    std::uint64_t tid = 0;
    FunctionThread::runAndJoin("Alternator", [&] {
        tid = currentThreadId();
        Timeline a;
        Timeline b;
        a.startSession(firstOfA.release());
        b.startSession(onlyOfB.release());
        for (int i = 0; i < 3; ++i)
        {
            oneSection(a);
            oneSection(b);
        }
        a.finishSession();
        a.startSession(secondOfA.release());
        oneSection(a);
        oneSection(b);
        oneSection(a);
        a.finishSession();
        b.finishSession();
        for (MemoryStream* out : {&laterOne, &laterTwo})
        {
            Timeline scoped; // most likely at the same address both times
            scoped.startSession(out->release());
            oneSection(scoped);
            oneSection(scoped);
        }
    });
    for (const MemoryStream* out : {&firstOfA, &onlyOfB, &secondOfA, &laterOne, &laterTwo})
    {
        EXPECT_EQ((std::map<std::uint64_t, std::vector<std::string>>{{tid, {"Alternator"}}}),
                  threadNames(eventsOf(out->text())));
    }
}

TEST(TimelineTest, FileStreamsHoldTheSameBytesAsMemoryStreams)
{
    // Files get a larger buffer: several hundred KiB must arrive unchanged,
    // also behind text the caller wrote first and across reused-buffer parts.
    ManualTickSource clock;
    TemporaryDirectory dir;
    auto record = [&clock](Timeline& timeline) {
        clock.setMicros(1000);
        for (int i = 0; i < 4000; ++i)
        {
            clock.advanceMicros(3);
            timeline.beginSection("section", i % 2 == 0 ? "even" : nullptr, ",\"args\":{\"i\":7}");
            timeline.endSection();
        }
    };
    const std::string path = dir.path() + "/single.json";
    const std::string used = dir.path() + "/used.json";
    MemoryStream reference;
    {
        Timeline timeline;
        timeline.startSession(reference.release());
        record(timeline);
        timeline.finishSession();

        timeline.startSession(std::fopen(path.c_str(), "w"));
        record(timeline);
        timeline.finishSession();

        FILE* stream = std::fopen(used.c_str(), "w");
        ASSERT_NE(nullptr, stream);
        std::fputs("prefix\n", stream);
        timeline.startSession(stream);
        record(timeline);
        timeline.finishSession();
    }
    const std::string expected = reference.text();
    ASSERT_LT(300000u, expected.size());
    EXPECT_TRUE(expected == readFile(path)) << "single-stream file differs";
    EXPECT_TRUE("prefix\n" + expected == readFile(used)) << "file used before the session differs";

    TemporaryDirectory partsDir;
    Timeline parts;
    parts.startMultipartSession((partsDir.path() + "/part.json").c_str(), 100000);
    record(parts);
    parts.finishSession();
    const std::vector<std::string> names = partsDir.entries();
    ASSERT_LE(2u, names.size());
    std::size_t begins = 0;
    for (std::size_t i = 0; i < names.size(); ++i)
    {
        const std::string document = readFile(partsDir.path() + "/" + names[i]);
        if (i + 1 < names.size())
        {
            EXPECT_LT(100000u, document.size()) << names[i];
        }
        begins += countPhase(eventsOf(document), "B");
    }
    EXPECT_EQ(4000u, begins);
}

TEST(TimelineDeathTest, NullBaseNameWhileIdleIsAProgrammingError)
{
    Timeline timeline;
    EXPECT_DEATH(timeline.startMultipartSession(nullptr, 10), "baseName != nullptr");
}

} // namespace
