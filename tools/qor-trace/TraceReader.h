// Streaming reader of trace-event JSON documents ({"traceEvents":[...]} with
// any other top-level members), as the Timeline writes them and as other
// writers of that shape do.
//
//   FileSource source(fd);
//   TraceReader reader;
//   ReadResult result = reader.read(source, handler);   // handler.event() per whole event
//   if (result.ending != Ending::Whole) { ... result.at, result.problem ... }
//
// Memory stays bounded by the read buffer and the largest single event, not
// the file size: the reader frames one array element at a time (with a fast
// path for the usual one event per line) and has each element parsed in full
// by simdjson. Every event is valid JSON when it reaches the handler; time
// stamps are integer nanoseconds (exact for integer microseconds, and to the
// nanosecond for fractions). A document that stops early, or holds anything
// that is not valid JSON of this shape, ends the read at that point with its
// byte offset and line; everything before it has been handed over.
//
// Threads: a reader and its sources are used by one thread at a time.
#ifndef QOR_TRACE_TRACEREADER_H
#define QOR_TRACE_TRACEREADER_H

#include <simdjson.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qor::trace {

// Where something is in a file: byte offset from 0, line from 1.
struct Position
{
    std::uint64_t offset = 0;
    std::uint64_t line = 1;
};

// Bytes of a trace, from a file or from memory.
class Source
{
public:
    virtual ~Source() = default;
    // Reads up to `size` bytes into `into`: the count, 0 at the end, -1 on a
    // read error (with errno set).
    virtual long read(char* into, std::size_t size) = 0;
};

// Reads a descriptor that the caller opened and closes.
class FileSource : public Source
{
public:
    explicit FileSource(int descriptor) : m_Descriptor(descriptor) {}
    long read(char* into, std::size_t size) override;

private:
    int m_Descriptor;
};

// Reads a buffer that must outlive the source.
class MemorySource : public Source
{
public:
    explicit MemorySource(std::string_view bytes) : m_Bytes(bytes) {}
    long read(char* into, std::size_t size) override;

private:
    std::string_view m_Bytes;
};

// One whole element of the traceEvents array. Views point into the reader's
// buffer and parser: valid during the handler call only.
struct Event
{
    std::string_view text;          // the element's JSON text, as in the file (see TraceReader::read)
    Position at;                    // where it starts
    simdjson::dom::object object;   // the parsed element
    std::string_view phase;         // "ph", empty when missing
    std::string_view name;          // "name", empty when missing
    bool numbered = false;          // "pid" and "tid" are integers: they identify the thread
    std::int64_t pidNumber = 0;
    std::int64_t tidNumber = 0;
    std::string thread;             // otherwise threadId() identifies it
    bool hasPid = false;            // the "pid" and "tid" members, when present
    bool hasTid = false;
    simdjson::dom::element pid;
    simdjson::dom::element tid;
    bool hasTime = false;           // "ts" present (required for B, E, X, i and I)
    std::int64_t time = 0;          // "ts" in nanoseconds
    bool hasDuration = false;       // "dur" present
    std::int64_t duration = 0;      // "dur" in nanoseconds
    std::string_view threadName;    // args.name of a "thread_name" metadata event
    bool namesThread = false;       // this is such an event
};

class EventHandler
{
public:
    virtual ~EventHandler() = default;
    // A top-level member other than traceEvents, as "key":value text taken
    // from the file (valid JSON); `afterEvents` when it follows the array.
    virtual void member(std::string_view key, std::string_view text, bool afterEvents) = 0;
    virtual void event(const Event& event) = 0;
};

enum class Ending
{
    Whole,   // one complete document
    Cut,     // the bytes end before the document does (a crash, a full disk)
    Broken,  // something that is not valid JSON of this shape, or a read error
};

struct ReadResult
{
    Ending ending = Ending::Whole;
    Position at;                  // where a cut or broken file stops being whole
    std::string problem;          // what is wrong there
    std::uint64_t events = 0;     // whole events handed over
    std::uint64_t bytes = 0;      // bytes read
    std::uint64_t wholeUpTo = 0;  // end offset of the last whole event (or of the array's opening)
};

// Time stamps beyond this many nanoseconds either side of zero (about 31
// years) are refused, so that differences of two never overflow.
constexpr std::int64_t kTimeLimit = 1000000000000000000;

// The largest event accepted; a longer element is taken as damage.
constexpr std::size_t kMaxEventSize = std::size_t(64) << 20;

class TraceReader
{
public:
    TraceReader();
    // Reads one document from `source`, handing each whole event and member
    // to `handler` as soon as it is complete. Without `needText`, events may
    // come without their text (Event::text empty, Event::at the start of a
    // run of lines): runs of one-event lines are then parsed in one go.
    ReadResult read(Source& source, EventHandler& handler, bool needText = true);

private:
    enum class State;
    enum class Scan;

    bool fill();
    Scan scanValue(std::size_t& end);
    bool takeBlock();
    bool takeEvent(std::size_t begin, std::size_t end, bool quiet);
    bool takeMember(std::size_t begin, std::size_t end);
    bool takeKey(std::size_t begin, std::size_t end);
    bool interpret(Event& event, bool report);
    bool fail(Ending ending, std::size_t at, const std::string& problem);
    void locateJsonError(std::size_t begin, std::size_t end, const std::string& what);
    Position position(std::size_t at) const;

    Source* m_Source;
    EventHandler* m_Handler;
    simdjson::dom::parser m_Parser;
    std::vector<char> m_Buffer;  // data in [0, m_End), then at least SIMDJSON_PADDING bytes
    std::size_t m_End;
    std::size_t m_Pos;           // next byte to look at
    std::uint64_t m_Base;        // file offset of m_Buffer[0]
    std::uint64_t m_Line;        // line of m_Pos
    bool m_AtEnd;                // the source has no more bytes
    // The value being framed starts at m_Pos; the scan resumes at m_Pos + m_ScanOffset.
    std::size_t m_ScanOffset;
    int m_ScanDepth;
    bool m_ScanInString;
    bool m_ScanEscape;
    std::uint64_t m_ScanLines;
    std::string m_Key;           // the top-level member being read, unescaped
    std::string m_KeyText;       // and as written
    State m_State;
    bool m_SeenEvents;
    Event m_Event;
    std::vector<Event> m_Pending;  // the events of a run of lines, for takeBlock()
    bool m_NeedText;
    std::string m_Block;         // a run of lines as one array, for takeBlock()
    ReadResult m_Result;
};

// "pid/tid" as written, for showing a thread.
std::string threadId(const Event& event);

// Formats nanoseconds as microseconds, with only the fraction digits needed.
std::string formatMicros(std::int64_t nanoseconds);

} // namespace qor::trace

#endif
