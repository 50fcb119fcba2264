// Records nested timed sections of any number of threads as trace-event JSON,
// for viewing in a trace viewer (Perfetto UI directly; Chrome DevTools and
// speedscope through `qor-trace export`).
//
//   Timeline timeline;
//   timeline.startSession(std::fopen("trace.json", "w"));   // or startMultipartSession("trace.json", 1 << 20)
//   timeline.beginSection("draw", "gfx", "");               // on any thread
//   ...
//   timeline.endSection();
//   timeline.finishSession();                               // also done by the destructor
//
// Output: one JSON object {"displayTimeUnits":"ns","traceEvents":[...]} per
// file, one event per line, each separating comma at the start of the next
// line, and the trailer "]}" without a line end. Time stamps are absolute
// microseconds of HighResolutionTimer; thread ids and names come from the
// foundation Thread of the calling thread, and each thread is named once per
// file, the first time it opens a section there. Finishing a file adds
// instant events "VSYNC" every 1/60 s over the recorded span as a time grid;
// its first two marks carry the same time stamp, kept that way for
// compatibility with existing traces.
//
// Strings (section names, categories, extra texts, thread names) are written
// verbatim, without JSON escaping: quotes, backslashes or control characters
// in them make the file invalid JSON. Nothing reports errors: failed writes,
// or part files that cannot be created, silently stop or spoil the recording.
// Only an event whose strings run to hundreds of bytes allocates memory for
// its line, and throws std::bad_alloc when there is none.
//
// A multipart session writes <baseName>.001, <baseName>.002, ... (at least
// three digits), each a complete document. A part is closed and the next one
// created right after a section end that leaves more than the size limit in
// the current part, so a part may exceed the limit by whatever was written
// since the previous section end. Part files are created exclusively (0664
// before the umask): an existing part file stops the recording, so removing
// old parts is the caller's job.
//
// Threads: every operation may be called from any thread, except that
// setThreadName(), append() and appendCSV() take no lock and must not race
// with other calls on the same object; the destructor must not run
// concurrently with other calls. A thread puts its event line together
// before it takes the timeline's lock (a foundation Mutex, held across file
// output, including closing and creating part files), stamps it with the time
// under the lock and writes it whole, so lines of different threads never
// interleave and a file's events are in time order.
#ifndef QOR_NAV_SDK_UTILS_TIMELINE_TIMELINE_H
#define QOR_NAV_SDK_UTILS_TIMELINE_TIMELINE_H

#include "qor/common/system/Mutex.h"

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace qor::nav::sdk::utils::timeline {

class TraceEvent;

class Timeline
{
public:
    // An idle timeline: no session, no file.
    Timeline();
    // Finishes the current session, if any (see finishSession()).
    ~Timeline();

    Timeline(const Timeline&) = delete;
    Timeline& operator=(const Timeline&) = delete;

    // Starts a session on `stream`, which the caller opened for writing. Takes
    // ownership of the stream in every case: when a session is already active
    // the stream is closed at once and nothing else happens. The header is
    // written at once; a null stream leaves the timeline idle. A single-stream
    // session never rolls over, whatever its size. The timeline gives a
    // regular file that has not been written through the stream yet a 64 KiB
    // buffer; other streams keep their buffering.
    void startSession(FILE* stream);

    // Starts a multipart session writing <baseName>.001 and its successors,
    // rolling over once a part holds more than `partSizeLimit` counted bytes
    // after a section end. Ignored (arguments included) while a session is
    // active. When the first part cannot be created (it exists already, or the
    // folder is missing) the timeline stays idle without notice. `baseName`
    // is copied and must not be null (asserted).
    void startMultipartSession(const char* baseName, unsigned long partSizeLimit);

    // Finishes the current file: writes the "VSYNC" grid over the time since
    // the session or part began, the trailer "]}", and closes the stream. The
    // timeline is idle afterwards. Harmless when no session is open.
    void finishSession();

    // Opens a section named `name` on the calling thread. Names the thread
    // first if this file has not named it yet. `category` (null: no "cat"
    // member) and `extra` are inserted verbatim; `extra` follows the thread id
    // directly, so it is either empty or starts with a comma, e.g.
    // ",\"args\":{\"frame\":12}". Does nothing while idle.
    void beginSection(const char* name, const char* category, const char* extra);

    // Closes the calling thread's innermost section (ends carry no name and
    // pair with begins per thread; an unmatched end is written all the same).
    // Then, in a multipart session, closes the part and creates the next one
    // when the current part holds more than the limit. That check runs even
    // when the timeline went idle through finishSession(): a late endSection()
    // after a multipart session whose last part ended above the limit creates
    // the next part and makes the session active again.
    void endSection();

    // Writes a thread-name event for `threadId` if a session is active.
    // Unlocked, and does not record the id as named: the calling thread may
    // still be named again by its next beginSection(). Use only while no other
    // thread uses this object.
    void setThreadName(unsigned long threadId, const char* name);

    // Names the calling thread in the current file unless it was named there
    // already. beginSection() calls it; calling it ahead lets a thread appear
    // in the viewer before its first section.
    void setCurrentThreadNameIfNeeded();

    // Low-level output, unlocked (call them while no other thread uses the
    // object): a formatted write to the current file, whose result (the byte
    // count, or -1 on failure) is added to the part's byte count. appendCSV()
    // first writes the separating comma unless this is the file's first
    // event; that comma is not counted. Nothing is written without a file.
    void append(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void appendCSV(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // Internal steps, public for existing callers. Each must run with the
    // timeline's lock held or while no other thread uses the object.
    //
    // startNewPart(): finishes the current part if one is active, then creates
    // the next part file and starts it (idle if it cannot be created).
    void startNewPart();
    // startSessionCommon(): on the current file, activates the session, takes
    // the calling thread as the owner of the grid marks, writes the header,
    // forgets the named threads and notes the start time.
    void startSessionCommon();
    // finishSessionCommon(): writes the grid marks if active, goes idle, and
    // writes the trailer and closes the current file if there is one.
    void finishSessionCommon();

private:
    // The locked writes of the class: `event` after its separator, counted
    // without the separators.
    void write(const TraceEvent& event);
    void vappend(bool separated, const char* format, va_list args) __attribute__((format(printf, 3, 0)));

    std::atomic<bool> m_Active{false};
    FILE* m_File = nullptr;
    std::string m_BaseName;
    std::uint64_t m_PartNumber = 0;
    std::uint64_t m_BytesWritten = 0;
    std::uint64_t m_PartSizeLimit = 0;
    std::uint64_t m_SessionThreadId = 0;
    std::vector<std::uint64_t> m_NamedThreads; // ascending
    std::uint64_t m_StartTime = 0;             // microseconds
    bool m_NeedComma = false;
    // Guards every field above. On a cache line of its own: threads that
    // wait for the lock would otherwise take the line holding the fields
    // that the lock's holder is writing away from the holder again and again.
    alignas(64) ::qor::common::system::Mutex m_Lock;

    // A process-wide unique number of the current file, changed whenever
    // m_NamedThreads is emptied for a new file; read without the lock by a
    // thread that wants to know whether it has been named in this file.
    alignas(64) std::atomic<std::uint64_t> m_FileNumber{0};
    // The output buffer of files that the timeline tunes (regular files
    // whose stream has not been used yet); allocated with the first such
    // file and reused for the following ones.
    std::unique_ptr<char[]> m_StreamBuffer;
};

} // namespace qor::nav::sdk::utils::timeline

#endif
