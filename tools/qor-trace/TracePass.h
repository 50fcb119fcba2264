// One pass over the events of one or more trace files: sections paired per
// thread, statistics per thread, and optionally a new document written as
// the events stream by.
//
//   Output output(descriptor);                  // or Output() to keep it in memory
//   TracePass pass(Format::Complete, &output);
//   reader.read(part1, pass); reader.read(part2, pass);   // parts in order
//   std::vector<std::string> notes = pass.finish();       // closes what is open, writes the trailer
//   output.finish();
//
// Formats: Format::None only counts (check). Format::Events writes the
// events as they are (repair, merge): whole events verbatim, each thread's
// name once, sections still open at the end closed at the last time stamp of
// their thread, and the trailer. Format::Complete writes what trace viewers
// draw without pairing anything themselves (export): each section as one
// "X" event with its duration, in the order the sections began, instant
// events as "I"; ends without a begin are dropped. Several events of one
// thread at the same whole microsecond are spread 1 ns apart in file order
// there, so that a section that begins in the microsecond its parent ends in
// still lies inside it; time stamps with a fraction are kept as they are.
//
// Memory: the open sections of every thread, the threads, and the output
// buffer; the output's "dur" of a section is reserved in place when it begins
// and filled in when it ends.
//
// Threads: a pass and its output are used by one thread at a time.
#ifndef QOR_TRACE_TRACEPASS_H
#define QOR_TRACE_TRACEPASS_H

#include "TraceReader.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace qor::trace {

// A written document: into a descriptor that the caller opened for writing
// (it must allow positioned writes: a regular file) and closes, or kept in
// memory.
class Output
{
public:
    Output() : Output(-1) {}
    explicit Output(int descriptor);
    void write(std::string_view bytes);
    // Replaces bytes written earlier, starting at offset `at`.
    void overwrite(std::uint64_t at, std::string_view bytes);
    std::uint64_t size() const { return m_Flushed + m_Buffer.size(); }
    // Writes what is buffered; false when any write failed (see error()).
    bool finish();
    const std::string& error() const { return m_Error; }
    // Everything written, for an output kept in memory.
    const std::string& memory() const { return m_Buffer; }

private:
    void flush();

    int m_Descriptor;
    std::string m_Buffer;
    std::uint64_t m_Flushed;
    std::string m_Error;
};

enum class Format
{
    None,
    Events,
    Complete,
};

struct OpenSection
{
    std::int64_t begin;         // ns, as written
    std::uint64_t placeholder;  // where its duration goes in the output
    unsigned file;              // the file of its begin, counted from 0
    std::string name;
};

struct ThreadState
{
    std::string id;        // "pid/tid"
    bool numbered = false;  // found by integer pid and tid (see Event)
    std::int64_t pidNumber = 0;
    std::int64_t tidNumber = 0;
    std::string name;      // from its first thread_name event, else empty
    std::string pidJson;   // "pid" and "tid" as JSON, for the ends that a repair writes
    std::string tidJson;
    bool namedInOutput = false;
    std::uint64_t sections = 0;
    std::uint64_t maxDepth = 0;
    std::uint64_t unmatchedEnds = 0;
    std::vector<OpenSection> open;           // innermost last
    std::vector<std::int64_t> completeEnds;  // ends of enclosing "X" events, innermost last
    bool timed = false;
    std::int64_t first = 0;  // earliest and latest time stamp, ns
    std::int64_t last = 0;
    std::int64_t latest = 0;  // the last time stamp of a section or instant event, in file order
    std::int64_t tieTime = 0;
    int tieIndex = -1;
};

class TracePass : public EventHandler
{
public:
    TracePass(Format format, Output* output);

    void member(std::string_view key, std::string_view text, bool afterEvents) override;
    void event(const Event& event) override;
    // The next file continues the same session (its top-level members are ignored).
    void nextFile() { ++m_Files; }
    // Closes the sections still open, writes the trailer (unless Format::None)
    // and says what it changed.
    std::vector<std::string> finish();

    const std::vector<ThreadState>& threads() const { return m_Threads; }
    std::uint64_t events() const { return m_Events; }
    // Sections whose begin and end lie in different files.
    std::uint64_t pairedAcrossFiles() const { return m_PairedAcross; }

private:
    ThreadState& threadOf(const Event& event);
    std::int64_t spread(ThreadState& thread, std::int64_t time);
    void startEvent();
    void writeRewritten(const Event& event, std::int64_t time, const char* phase, std::uint64_t* placeholder);
    void fillDuration(std::uint64_t placeholder, std::int64_t duration);
    void writeHeader();

    Format m_Format;
    Output* m_Output;
    std::vector<ThreadState> m_Threads;
    std::unordered_map<std::string, std::size_t> m_ThreadIndex;         // by id text
    std::map<std::pair<std::int64_t, std::int64_t>, std::size_t> m_NumberIndex;  // by integer pid and tid
    std::size_t m_LastThread;
    std::uint64_t m_Events;
    std::uint64_t m_Written;
    std::uint64_t m_DroppedEnds;
    std::uint64_t m_PairedAcross;
    unsigned m_Files;
    bool m_HeaderWritten;
    std::vector<std::string> m_MemberKeys;
    std::vector<std::string> m_MembersBefore;
    std::vector<std::string> m_MembersAfter;
    std::string m_Scratch;
};

} // namespace qor::trace

#endif
