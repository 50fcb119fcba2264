// The demo's trace file: opening a fresh one, scoped sections, and a check of
// the finished file.
//
//   std::string problem;
//   FILE* stream = openFreshTrace("trace.json", problem);   // null: see problem
//   timeline.startSession(stream);                          // the timeline owns it now
//   { Section s(timeline, "step", "memory"); ... }
//   timeline.finishSession();
//   TraceCheck check = checkTrace("trace.json");
//
// The Timeline reports no write errors, so the file is checked after the
// session: present, not empty, one complete document, every section closed.
//
// Threads: Section may be used on any thread (the Timeline serialises the
// writes); openFreshTrace() and checkTrace() touch only their own file.
#ifndef QOR_UTILS_DEMO_TRACE_H
#define QOR_UTILS_DEMO_TRACE_H

#include "qor/nav/sdk/utils/timeline/Timeline.h"

#include <cstddef>
#include <cstdio>
#include <string>

namespace demo {

// Opens a section on construction and closes it on destruction. `category`
// may be null; `extra` is empty or starts with a comma (",\"args\":{...}").
// Names, categories and extras are written verbatim: keep quotes out of them.
class Section
{
public:
    Section(qor::nav::sdk::utils::timeline::Timeline& timeline, const char* name, const char* category,
            const std::string& extra = "")
        : m_Timeline(timeline)
    {
        m_Timeline.beginSection(name, category, extra.c_str());
    }
    ~Section() { m_Timeline.endSection(); }
    Section(const Section&) = delete;
    Section& operator=(const Section&) = delete;

private:
    qor::nav::sdk::utils::timeline::Timeline& m_Timeline;
};

// Removes an old file at `path` and opens a new one for writing. Returns null
// and describes the failure in `problem` when either step fails.
FILE* openFreshTrace(const std::string& path, std::string& problem);

// What checkTrace() found in a finished trace file.
struct TraceCheck
{
    bool ok = false;
    std::string problem;         // why not ok
    std::size_t bytes = 0;
    std::size_t begins = 0;      // section begins ("ph":"B")
    std::size_t ends = 0;        // section ends ("ph":"E")
    std::size_t threadNames = 0; // named tracks
    std::size_t gridMarks = 0;   // "VSYNC" marks
};

// Reads the file at `path` and checks that it is one complete trace document
// with at least one section and as many section ends as begins.
TraceCheck checkTrace(const std::string& path);

} // namespace demo

#endif
