#include "qor/nav/sdk/utils/timeline/Timeline.h"

#include "qor/common/system/HighResolutionTimer.h"
#include "qor/common/system/Thread.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using qor::common::system::HighResolutionTimer;
using qor::nav::sdk::utils::timeline::Timeline;
using qor::test::TemporaryDirectory;
using Json = nlohmann::json;

const std::string kHeader = "{\"displayTimeUnits\":\"ns\",\"traceEvents\":[\n";

// A named foundation Thread running a callable; joined when it goes.
struct FunctionThread : qor::common::system::Thread
{
    FunctionThread(const std::string& name, std::function<void()> body) : Thread(name), body(std::move(body)) {}
    ~FunctionThread() override { join(); }
    void run() override { body(); }
    const std::function<void()> body;
};

// The timer reads s_Micros while a HandClock lives.
std::atomic<std::uint64_t> s_Micros{1000000};
struct HandClock
{
    HandClock() { HighResolutionTimer::setTickSource([] { return s_Micros.load() * 1000u; }); }
    ~HandClock() { HighResolutionTimer::setTickSource(nullptr); }
};

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string part(const std::string& base, std::size_t number)
{
    return base + (number < 10 ? ".00" : number < 100 ? ".0" : ".") + std::to_string(number);
}

void sections(Timeline& timeline, int count)
{
    for (int i = 0; i < count; ++i) {
        timeline.beginSection("step", "c", "");
        timeline.endSection();
    }
}

// The events of one document, which must be a complete trace.
std::vector<Json> eventsOf(const std::string& document)
{
    const Json parsed = Json::parse(document, nullptr, false);
    const bool valid = document.rfind(kHeader, 0) == 0 && parsed.is_object() && parsed.contains("traceEvents");
    EXPECT_TRUE(valid) << "not a trace:\n" << document;
    return valid ? parsed["traceEvents"].get<std::vector<Json>>() : std::vector<Json>{};
}

std::size_t countPhase(const std::string& document, const std::string& phase)
{
    const std::vector<Json> events = eventsOf(document);
    return static_cast<std::size_t>(
        std::count_if(events.begin(), events.end(), [&](const Json& e) { return e["ph"] == phase; }));
}

TEST(TimelineTest, SessionOfOneNamedThreadHasExactBytesAndASixtyHertzGrid)
{
    HandClock clock;
    TemporaryDirectory dir;
    const std::string path = dir.path() + "/used.json";
    const std::string extra = ",\"args\":{\"n\":\"" + std::string(400, 'n') + "\"}"; // longer than a line usually is
    FunctionThread thread("RendererWithALongName", [&] {
        FILE* used = std::fopen(path.c_str(), "w");
        std::fputs("prefix\n", used); // the stream keeps its buffer and this text
        Timeline timeline;
        s_Micros = 5000;
        timeline.startSession(used);
        timeline.setThreadName(42, nullptr); // printed as the C library prints a null string
        s_Micros = 5100;
        timeline.beginSection("frame", "gfx", "");
        s_Micros = 5200;
        timeline.beginSection("layout", nullptr, extra.c_str());
        s_Micros = 5300;
        timeline.endSection();
        s_Micros = 5400;
        timeline.endSection();
        s_Micros = 25000;
    }); // the timeline's destructor finishes the session
    thread.start();
    thread.join();
    const std::string t = std::to_string(thread.getId());
    EXPECT_EQ("prefix\n" + kHeader +
        R"x({"pid":1,"tid":42,"ph":"M","name":"thread_name","args":{"name":"(null)"}})x" "\n"
        R"(,{"pid":1,"tid":)" + t + R"(,"ph":"M","name":"thread_name","args":{"name":"RendererWithALongName"}})" "\n"
        R"(,{"name":"frame","ph":"B","ts":5100,"pid":1,"tid":)" + t + R"(,"cat":"gfx"})" "\n"
        R"(,{"name":"layout","ph":"B","ts":5200,"pid":1,"tid":)" + t + extra + "}\n"
        R"(,{"ph":"E","ts":5300,"pid":1,"tid":)" + t + "}\n"
        R"(,{"ph":"E","ts":5400,"pid":1,"tid":)" + t + "}\n"
        R"(,{"name":"VSYNC","ph":"i","s":"t","ts":5000,"pid":1,"tid":)" + t + "}\n"
        R"(,{"name":"VSYNC","ph":"i","s":"t","ts":5000,"pid":1,"tid":)" + t + "}\n"
        R"(,{"name":"VSYNC","ph":"i","s":"t","ts":21666,"pid":1,"tid":)" + t + "}\n]}",
        readFile(path));
}

TEST(TimelineTest, PartsRollOverOnlyAboveTheLimitAndNameTheThreadInEach)
{
    HandClock clock; // standing still: no grid marks unless advanced
    TemporaryDirectory dir;
    const std::string base = dir.path() + "/m.json";
    Timeline timeline;
    timeline.startMultipartSession((dir.path() + "/one").c_str(), 1000000);
    sections(timeline, 1);
    timeline.finishSession(); // header, name, begin and end, less the trailer and three commas (one before "cat"):
    const std::uint64_t cycle = readFile(dir.path() + "/one.001").size() - 5;
    timeline.startMultipartSession(base.c_str(), cycle); // exactly at the limit is not above it
    int fds[2];
    ASSERT_EQ(0, ::pipe2(fds, O_NONBLOCK));
    timeline.startSession(::fdopen(fds[1], "w"));
    char byte = 0;
    EXPECT_EQ(0, ::read(fds[0], &byte, 1)) << "a stream given while active must be closed at once";
    ::close(fds[0]);
    timeline.startMultipartSession((dir.path() + "/ignored").c_str(), 10);
    timeline.startMultipartSession(nullptr, 10); // ignored too, not checked
    sections(timeline, 4);
    s_Micros += 1000000; // sixty grid marks take the empty third part above the limit, ...
    timeline.finishSession();
    timeline.endSection(); // ... so that a late section end opens a fourth (kept for compatibility)
    timeline.finishSession();
    timeline.startSession(std::fopen((dir.path() + "/single.json").c_str(), "w")); // never rolls over
    sections(timeline, 50);
    timeline.finishSession();
    EXPECT_EQ((std::vector<std::string>{"m.json.001", "m.json.002", "m.json.003", "m.json.004", "one.001", "single.json"}),
              dir.entries());
    for (const std::string& file : {part(base, 1), part(base, 2)}) {
        EXPECT_EQ(1u, countPhase(readFile(file), "M")) << file; // the thread is named once in each part
        EXPECT_EQ(2u, countPhase(readFile(file), "E")) << file;
    }
    EXPECT_EQ(61u, countPhase(readFile(part(base, 3)), "i"));
    EXPECT_EQ(kHeader + "]}", readFile(part(base, 4)));
    EXPECT_EQ(50u, countPhase(readFile(dir.path() + "/single.json"), "E"));
}

TEST(TimelineTest, ThreadsRecordRandomSectionsIntoPartsAfterOutputsThatFailedQuietly)
{
    TemporaryDirectory dir;
    const std::string base = dir.path() + "/trace.json";
    Timeline timeline;
    FILE* full = std::fopen("/dev/full", "w"); // every write fails
    ASSERT_NE(nullptr, full);
    timeline.startSession(full);
    std::ofstream(dir.path() + "/plain") << "x";
    std::ofstream(part(base, 3)) << "keep"; // an existing part stops the recording there
    sections(timeline, 100);
    timeline.finishSession();
    timeline.startMultipartSession((dir.path() + "/plain/sub/t.json").c_str(), 100); // no such folder
    sections(timeline, 100);
    timeline.finishSession();
    timeline.startMultipartSession(base.c_str(), 500);
    sections(timeline, 100);
    timeline.finishSession();
    EXPECT_EQ("keep", readFile(part(base, 3)));
    EXPECT_EQ((std::vector<std::string>{"plain", "trace.json.001", "trace.json.002", "trace.json.003"}), dir.entries());
    EXPECT_LT(0u, countPhase(readFile(part(base, 2)), "E"));

    // Named threads open and close random nested sections at once, section i
    // of each named i and in the category "work" when i is a multiple of 3,
    // into parts larger than the 64 KiB stream buffer.
    const std::string next = dir.path() + "/next.json";
    const std::uint64_t limit = 70000;
    timeline.startMultipartSession(next.c_str(), limit);
    std::map<std::uint64_t, std::string> names;
    std::vector<std::unique_ptr<FunctionThread>> threads;
    std::atomic<int> ready{0};
    for (int k = 0; k < 4; ++k) {
        threads.push_back(std::make_unique<FunctionThread>("Worker-" + std::to_string(k), [&, k] {
            std::mt19937 random(static_cast<unsigned>(k));
            for (ready.fetch_add(1); ready.load() < 4;) { // start together to contend for the writer
                std::this_thread::yield();
            }
            for (int i = 0, depth = 0; i < 500 || depth > 0;) {
                if (i < 500 && (depth == 0 || (depth < 3 && random() % 2 == 0))) {
                    timeline.beginSection(std::to_string(i).c_str(), i % 3 == 0 ? "work" : nullptr, "");
                    ++i;
                    ++depth;
                } else {
                    timeline.endSection();
                    --depth;
                }
            }
        }));
        threads.back()->start();
    }
    for (auto& thread : threads) {
        thread->join();
        names[thread->getId()] = thread->getName();
    }
    timeline.finishSession();

    // Each part parses and names each worker at most once; each worker's
    // sections come in its order with their category, each end closes a
    // section of the same thread, and the sections of all threads are in
    // time order.
    std::map<std::uint64_t, int> begun, depth;
    const std::size_t parts = dir.entries().size() - 4;
    ASSERT_LT(2u, parts);
    for (std::size_t p = 1; p <= parts; ++p) {
        std::map<std::uint64_t, int> named;
        std::int64_t last = 0;
        for (const Json& e : eventsOf(readFile(part(next, p)))) { // a gap reads empty and fails
            const std::uint64_t id = e["tid"].get<std::uint64_t>();
            ASSERT_TRUE(names.count(id) == 1 || e["ph"] == "i") << e.dump();
            if (e["ph"] == "B" || e["ph"] == "E") {
                EXPECT_LE(last, e["ts"].get<std::int64_t>()) << e.dump();
                last = e["ts"].get<std::int64_t>();
            }
            if (e["ph"] == "M") {
                EXPECT_EQ(names.at(id), e["args"]["name"]);
                EXPECT_EQ(1, ++named[id]) << "named twice: " << e.dump();
            } else if (e["ph"] == "E") {
                ASSERT_LT(0, depth[id]--) << "unmatched end: " << e.dump();
            } else if (e["ph"] == "B") {
                ++depth[id];
                EXPECT_EQ(std::to_string(begun[id]), e["name"]);
                EXPECT_EQ(begun[id]++ % 3 == 0 ? Json("work") : Json(), e.value("cat", Json())) << e.dump();
            }
        }
    }
    for (const auto& [id, name] : names) {
        EXPECT_EQ(500, begun[id]) << name;
        EXPECT_EQ(0, depth[id]) << name;
    }
}

TEST(TimelineDeathTest, NullBaseNameWhileIdleIsAProgrammingError)
{
    Timeline timeline;
    EXPECT_DEATH(timeline.startMultipartSession(nullptr, 10), "baseName != nullptr");
}

} // namespace
