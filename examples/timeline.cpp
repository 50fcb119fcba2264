// Records three named threads doing nested work as a trace for a trace viewer.
//
//   example_timeline            # writes trace.json and trace-parts.json.001, .002, ...
//
// Open trace.json (or any single part) in Perfetto UI (ui.perfetto.dev,
// "Open trace file"): one track per thread, named after its foundation
// Thread, with the nested sections stacked and the 60 Hz "VSYNC" grid on the
// main thread's track. For Chrome DevTools and speedscope, export it first:
// `qor-trace export trace.json -o trace-devtools.json`; `qor-trace merge
// trace-parts.json -o all.json` joins the parts into one trace.
#include "qor/common/system/Thread.h"
#include "qor/nav/sdk/utils/timeline/Timeline.h"

#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <utility>

namespace {

using qor::common::system::Runnable;
using qor::common::system::Thread;
using qor::nav::sdk::utils::timeline::Timeline;

// A thread body made of a callable.
class Job : public Runnable
{
public:
    explicit Job(std::function<void()> body) : m_Body(std::move(body)) {}
    void run() override { m_Body(); }

private:
    std::function<void()> m_Body;
};

void work(int milliseconds)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

// Opens a section on construction and closes it on destruction.
class Section
{
public:
    Section(Timeline& timeline, const char* name, const char* category = nullptr, const std::string& extra = "")
        : m_Timeline(timeline)
    {
        m_Timeline.beginSection(name, category, extra.c_str());
    }
    ~Section() { m_Timeline.endSection(); }
    Section(const Section&) = delete;
    Section& operator=(const Section&) = delete;

private:
    Timeline& m_Timeline;
};

void render(Timeline& timeline)
{
    for (int frame = 0; frame < 20; ++frame)
    {
        Section s(timeline, "frame", "render", ",\"args\":{\"frame\":" + std::to_string(frame) + "}");
        {
            Section layout(timeline, "layout", "render");
            work(3);
        }
        {
            Section draw(timeline, "draw", "render");
            for (int layer = 0; layer < 3; ++layer)
            {
                Section l(timeline, "drawLayer", nullptr, ",\"args\":{\"layer\":" + std::to_string(layer) + "}");
                work(2);
            }
        }
        work(5);
    }
}

void route(Timeline& timeline)
{
    for (int request = 0; request < 4; ++request)
    {
        Section s(timeline, "calculateRoute", "routing", ",\"args\":{\"request\":" + std::to_string(request) + "}");
        for (int step = 0; step < 3; ++step)
        {
            Section expand(timeline, "expandGraph", "routing");
            work(20);
        }
        Section reconstruct(timeline, "reconstructPath", "routing");
        work(10);
    }
}

void loadTiles(Timeline& timeline)
{
    for (int tile = 0; tile < 10; ++tile)
    {
        Section s(timeline, "loadTile", "io", ",\"args\":{\"tile\":" + std::to_string(tile) + "}");
        {
            Section read(timeline, "read", "io");
            work(15);
        }
        Section decode(timeline, "decode", "cpu");
        work(8);
    }
}

void recordSession(Timeline& timeline)
{
    Section all(timeline, "session", "main");
    Job renderJob([&] { render(timeline); });
    Job routeJob([&] { route(timeline); });
    Job tileJob([&] { loadTiles(timeline); });
    Thread renderer("Renderer", &renderJob);
    Thread router("Router", &routeJob);
    Thread loader("TileLoader", &tileJob);
    renderer.start();
    router.start();
    loader.start();
    renderer.join();
    router.join();
    loader.join();
}

} // namespace

int main()
{
    Timeline timeline;

    // One document on a stream the timeline takes over.
    FILE* stream = std::fopen("trace.json", "w");
    if (stream == nullptr)
    {
        std::perror("trace.json");
        return 1;
    }
    timeline.startSession(stream);
    recordSession(timeline);
    timeline.finishSession();
    std::printf("wrote trace.json\n");

    // Part files are never overwritten: remove those of an earlier run first.
    const std::string base = "trace-parts.json";
    for (int part = 1;; ++part)
    {
        char name[64];
        std::snprintf(name, sizeof name, "%s.%03d", base.c_str(), part);
        if (std::remove(name) != 0)
        {
            break;
        }
    }
    timeline.startMultipartSession(base.c_str(), 16 * 1024);
    recordSession(timeline);
    timeline.finishSession();
    std::printf("wrote %s.001 and following parts (about 16 KiB each)\n", base.c_str());
    return 0;
}
