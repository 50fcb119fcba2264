// The reader's framing: a small state machine over the document's top level
// and the traceEvents array, with every element and member value parsed by
// simdjson, and nlohmann-json locating the byte where a broken element goes
// wrong.
#include "TraceReader.h"

#include <nlohmann/json.hpp>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>

namespace qor::trace {

namespace {

constexpr std::size_t kChunk = std::size_t(1) << 20;

// How many bytes of whole lines takeBlock() parses in one go.
constexpr std::size_t kBlock = std::size_t(128) << 10;

bool isSpace(char c)
{
    return c == ' ' || c == '\n' || c == '\r' || c == '\t';
}

// Bytes that may stand outside strings in a JSON value besides brackets,
// separators and blanks: those of numbers and of true, false and null.
bool isScalarByte(unsigned char c)
{
    return (c >= '0' && c <= '9') || std::strchr("-+.eEtrufalsn", c) != nullptr;
}

std::string describeByte(unsigned char c)
{
    char text[32];
    if (c >= 0x20 && c < 0x7f)
    {
        std::snprintf(text, sizeof text, "'%c'", c);
    }
    else
    {
        std::snprintf(text, sizeof text, "byte 0x%02x", c);
    }
    return text;
}

// A number in microseconds as integer nanoseconds, within kTimeLimit.
bool toNanoseconds(simdjson::dom::element value, std::int64_t& nanoseconds)
{
    std::int64_t whole = 0;
    if (value.get_int64().get(whole) == simdjson::SUCCESS)
    {
        if (whole > kTimeLimit / 1000 || whole < -kTimeLimit / 1000)
        {
            return false;
        }
        nanoseconds = whole * 1000;
        return true;
    }
    double micros = 0;
    if (value.get_double().get(micros) != simdjson::SUCCESS || !(std::fabs(micros) < double(kTimeLimit / 1000)))
    {
        return false;
    }
    const double integral = std::trunc(micros);
    nanoseconds = static_cast<std::int64_t>(integral) * 1000 + std::llround((micros - integral) * 1000);
    return true;
}

void appendId(std::string& to, simdjson::dom::element value)
{
    std::int64_t number = 0;
    if (value.get_int64().get(number) == simdjson::SUCCESS)
    {
        char digits[24];
        const auto done = std::to_chars(digits, digits + sizeof digits, number);
        to.append(digits, done.ptr);
        return;
    }
    std::string_view text;
    if (value.get_string().get(text) == simdjson::SUCCESS)
    {
        to.append(text);
        return;
    }
    to += simdjson::minify(value);
}

// Finds the first syntax error of a JSON text without building anything.
class ErrorFinder : public nlohmann::json::json_sax_t
{
public:
    bool null() override { return true; }
    bool boolean(bool) override { return true; }
    bool number_integer(number_integer_t) override { return true; }
    bool number_unsigned(number_unsigned_t) override { return true; }
    bool number_float(number_float_t, const string_t&) override { return true; }
    bool string(string_t&) override { return true; }
    bool binary(binary_t&) override { return true; }
    bool start_object(std::size_t) override { return true; }
    bool key(string_t&) override { return true; }
    bool end_object() override { return true; }
    bool start_array(std::size_t) override { return true; }
    bool end_array() override { return true; }
    bool parse_error(std::size_t position, const std::string&, const nlohmann::json::exception& error) override
    {
        found = true;
        byte = position;
        message = error.what();
        // "[json.exception.parse_error.101] parse error at line 1, column 9: syntax error ..."
        const std::size_t column = message.find("column ");
        const std::size_t colon = message.find(": ", column == std::string::npos ? 0 : column);
        if (colon != std::string::npos)
        {
            message.erase(0, colon + 2);
        }
        return false;
    }

    bool found = false;
    std::size_t byte = 0;
    std::string message;
};

} // namespace

std::string threadId(const Event& event)
{
    std::string id;
    if (event.hasPid)
    {
        appendId(id, event.pid);
    }
    id += '/';
    if (event.hasTid)
    {
        appendId(id, event.tid);
    }
    return id;
}

long FileSource::read(char* into, std::size_t size)
{
    for (;;)
    {
        const ssize_t count = ::read(m_Descriptor, into, size);
        if (count >= 0 || errno != EINTR)
        {
            return static_cast<long>(count);
        }
    }
}

long MemorySource::read(char* into, std::size_t size)
{
    const std::size_t count = std::min(size, m_Bytes.size());
    std::memcpy(into, m_Bytes.data(), count);
    m_Bytes.remove_prefix(count);
    return static_cast<long>(count);
}

enum class TraceReader::State
{
    Start,        // before the document's '{'
    FirstKey,     // after '{': a member name or '}'
    Key,          // after ',': a member name
    Colon,        // after a member name
    Value,        // after ':'
    AfterMember,  // ',' or '}'
    FirstEvent,   // after '[': an event or ']'
    Element,      // an event
    AfterEvent,   // ',' or ']'
    Done,         // after the document: blanks only
};

enum class TraceReader::Scan
{
    Found,
    NeedMore,
    Bad,
};

TraceReader::TraceReader()
    : m_Source(nullptr), m_Handler(nullptr), m_Parser(kMaxEventSize + simdjson::SIMDJSON_PADDING), m_Buffer(), m_End(0),
      m_Pos(0), m_Base(0), m_Line(1), m_AtEnd(false), m_ScanOffset(0), m_ScanDepth(0), m_ScanInString(false),
      m_ScanEscape(false), m_ScanLines(0), m_Key(), m_State(State::Start), m_SeenEvents(false), m_Event(), m_Pending(), m_NeedText(true), m_Block(),
      m_Result()
{
}

ReadResult TraceReader::read(Source& source, EventHandler& handler, bool needText)
{
    m_NeedText = needText;
    m_Source = &source;
    m_Handler = &handler;
    m_Buffer.assign(kChunk + simdjson::SIMDJSON_PADDING, ' ');
    m_End = m_Pos = 0;
    m_Base = 0;
    m_Line = 1;
    m_AtEnd = false;
    m_ScanOffset = 0;
    m_ScanDepth = 0;
    m_ScanInString = m_ScanEscape = false;
    m_ScanLines = 0;
    m_State = State::Start;
    m_SeenEvents = false;
    m_Result = ReadResult();

    bool cut = false;
    for (;;)
    {
        if (m_Pos == m_End)
        {
            if (m_AtEnd)
            {
                break;
            }
            if (!fill())
            {
                return m_Result;
            }
            continue;
        }
        const char c = m_Buffer[m_Pos];
        if (isSpace(c) && m_ScanOffset == 0)
        {
            m_Line += c == '\n' ? 1 : 0;
            ++m_Pos;
            continue;
        }
        std::size_t end = 0;
        switch (m_State)
        {
        case State::Start:
            if (c != '{')
            {
                fail(Ending::Broken, m_Pos, "a trace document starts with '{', not " + describeByte(c));
                return m_Result;
            }
            ++m_Pos;
            m_State = State::FirstKey;
            continue;
        case State::FirstKey:
        case State::Key:
            if (c == '}' && m_State == State::FirstKey)
            {
                fail(Ending::Broken, m_Pos, "the document has no traceEvents array");
                return m_Result;
            }
            if (c != '"')
            {
                fail(Ending::Broken, m_Pos, "expected a member name in quotes, not " + describeByte(c));
                return m_Result;
            }
            break;
        case State::Colon:
            if (c != ':')
            {
                fail(Ending::Broken, m_Pos, "expected ':' after the member name, not " + describeByte(c));
                return m_Result;
            }
            ++m_Pos;
            m_State = State::Value;
            continue;
        case State::Value:
            if (m_Key == "traceEvents")
            {
                if (c != '[' || m_SeenEvents)
                {
                    fail(Ending::Broken, m_Pos,
                         m_SeenEvents ? "a second traceEvents member" : "traceEvents is not an array");
                    return m_Result;
                }
                ++m_Pos;
                m_SeenEvents = true;
                m_Result.wholeUpTo = m_Base + m_Pos;
                m_State = State::FirstEvent;
                continue;
            }
            break;
        case State::AfterMember:
        case State::AfterEvent:
            if (c == ',')
            {
                ++m_Pos;
                m_State = m_State == State::AfterMember ? State::Key : State::Element;
                continue;
            }
            if (c == (m_State == State::AfterMember ? '}' : ']'))
            {
                if (c == '}' && !m_SeenEvents)
                {
                    fail(Ending::Broken, m_Pos, "the document has no traceEvents array");
                    return m_Result;
                }
                ++m_Pos;
                m_State = m_State == State::AfterMember ? State::Done : State::AfterMember;
                continue;
            }
            fail(Ending::Broken, m_Pos,
                 std::string("expected ',' or '") + (m_State == State::AfterMember ? '}' : ']') + "', not " +
                     describeByte(c));
            return m_Result;
        case State::FirstEvent:
            if (c == ']')
            {
                ++m_Pos;
                m_State = State::AfterMember;
                continue;
            }
            m_State = State::Element;
            continue;
        case State::Element:
            if (c == '{' && m_ScanOffset == 0 && !m_NeedText && takeBlock())
            {
                continue;
            }
            // The usual layout, one event per line: parse the line at once.
            if (c == '{' && m_ScanOffset == 0)
            {
                const char* const line = m_Buffer.data() + m_Pos;
                const void* const lineEnd = std::memchr(line, '\n', m_End - m_Pos);
                if (lineEnd == nullptr && !m_AtEnd && m_End - m_Pos < kMaxEventSize)
                {
                    if (!fill())
                    {
                        return m_Result;
                    }
                    continue;
                }
                if (lineEnd != nullptr)
                {
                    end = static_cast<const char*>(lineEnd) - m_Buffer.data();
                    while (isSpace(m_Buffer[end - 1]))
                    {
                        --end;
                    }
                    if (m_Buffer[end - 1] == '}' && takeEvent(m_Pos, end, true))
                    {
                        m_Pos = end;
                        m_State = State::AfterEvent;
                        continue;
                    }
                    if (m_Result.ending != Ending::Whole)
                    {
                        return m_Result;
                    }
                }
            }
            break;
        case State::Done:
            fail(Ending::Broken, m_Pos, "more after the end of the document: " + describeByte(c));
            return m_Result;
        }

        // A member name, a member value or an event that needs framing.
        switch (scanValue(end))
        {
        case Scan::Bad:
            return m_Result;
        case Scan::NeedMore:
            if (m_End - m_Pos > kMaxEventSize)
            {
                fail(Ending::Broken, m_Pos, "an element longer than " + std::to_string(kMaxEventSize >> 20) +
                                                " MiB: not a trace of this shape");
                return m_Result;
            }
            if (m_AtEnd)
            {
                cut = true;  // inside the value: reported below
                break;
            }
            if (!fill())
            {
                return m_Result;
            }
            continue;
        case Scan::Found:
            break;
        }
        if (cut)
        {
            break;
        }
        const bool taken = m_State == State::Element                         ? takeEvent(m_Pos, end, false)
                           : m_State == State::Value                         ? takeMember(m_Pos, end)
                                                                             : takeKey(m_Pos, end);
        if (!taken)
        {
            return m_Result;
        }
        m_Line += m_ScanLines;
        m_ScanLines = 0;
        m_Pos = end;
        m_State = m_State == State::Element ? State::AfterEvent
                  : m_State == State::Value ? State::AfterMember
                                            : State::Colon;
    }

    if (m_State != State::Done)
    {
        // m_Pos is the end of the bytes, or the start of a value cut short.
        const std::size_t cutAt = m_ScanOffset != 0 ? m_Pos : m_End;
        std::string problem;
        if (m_State == State::Start)
        {
            problem = "the file is empty";
        }
        else if (m_ScanOffset != 0 && m_State == State::Element)
        {
            problem = "the file ends inside an event";
        }
        else if (m_State == State::Element || m_State == State::AfterEvent || m_State == State::FirstEvent)
        {
            problem = "the file ends after its last whole event, without the closing ]}";
        }
        else
        {
            problem = "the file ends before the document does";
        }
        fail(Ending::Cut, cutAt, problem);
    }
    return m_Result;
}

bool TraceReader::fill()
{
    if (m_Pos > 0)
    {
        std::memmove(m_Buffer.data(), m_Buffer.data() + m_Pos, m_End - m_Pos);
        m_Base += m_Pos;
        m_End -= m_Pos;
        m_Pos = 0;
    }
    std::size_t room = m_Buffer.size() - simdjson::SIMDJSON_PADDING - m_End;
    if (room == 0)
    {
        const std::size_t data = m_Buffer.size() - simdjson::SIMDJSON_PADDING;
        m_Buffer.resize(std::min(2 * data, kMaxEventSize + kChunk) + simdjson::SIMDJSON_PADDING, ' ');
        room = m_Buffer.size() - simdjson::SIMDJSON_PADDING - m_End;
        if (room == 0)
        {
            return true;  // callers never let an element grow this far
        }
    }
    const long count = m_Source->read(m_Buffer.data() + m_End, room);
    if (count < 0)
    {
        fail(Ending::Broken, m_End, std::string("cannot read: ") + std::strerror(errno));
        return false;
    }
    m_AtEnd = count == 0;
    m_End += static_cast<std::size_t>(count);
    m_Result.bytes += static_cast<std::uint64_t>(count);
    return true;
}

TraceReader::Scan TraceReader::scanValue(std::size_t& end)
{
    const char* const bytes = m_Buffer.data();
    std::size_t i = m_Pos + m_ScanOffset;
    for (; i < m_End; ++i)
    {
        const unsigned char c = static_cast<unsigned char>(bytes[i]);
        if (m_ScanInString)
        {
            if (c < 0x20)
            {
                fail(Ending::Broken, i,
                     "a control character (" + describeByte(c) + ") inside a string; JSON needs it escaped");
                return Scan::Bad;
            }
            if (m_ScanEscape)
            {
                m_ScanEscape = false;
            }
            else if (c == '\\')
            {
                m_ScanEscape = true;
            }
            else if (c == '"')
            {
                m_ScanInString = false;
                if (m_ScanDepth == 0)
                {
                    end = i + 1;
                    break;
                }
            }
            continue;
        }
        bool ends = false;
        switch (c)
        {
        case '"':
            m_ScanInString = true;
            ends = i != m_Pos && m_ScanDepth == 0;  // a quote right after a number or word
            break;
        case '{':
        case '[':
            ends = i != m_Pos && m_ScanDepth == 0;
            ++m_ScanDepth;
            break;
        case '}':
        case ']':
            if (m_ScanDepth == 0)
            {
                end = i;  // closes the enclosing container: ends a number or word
                ends = true;
                break;
            }
            if (--m_ScanDepth == 0)
            {
                end = i + 1;
                ends = true;
            }
            break;
        case '\n':
        case ' ':
        case '\t':
        case '\r':
        case ',':
        case ':':
            if (m_ScanDepth == 0)
            {
                end = i;
                ends = true;
            }
            else if (c == '\n')
            {
                ++m_ScanLines;
            }
            break;
        default:
            if (!isScalarByte(c))
            {
                fail(Ending::Broken, i, "unexpected " + describeByte(c) + " outside a string");
                return Scan::Bad;
            }
        }
        if (ends)
        {
            if (c == '"' || c == '{' || c == '[')
            {
                end = i;
            }
            break;
        }
    }
    if (i == m_End)
    {
        m_ScanOffset = i - m_Pos;
        return Scan::NeedMore;
    }
    m_ScanOffset = 0;
    m_ScanDepth = 0;
    m_ScanInString = m_ScanEscape = false;
    if (end == m_Pos)
    {
        fail(Ending::Broken, m_Pos, "expected a value, not " + describeByte(static_cast<unsigned char>(bytes[m_Pos])));
        return Scan::Bad;
    }
    return Scan::Found;
}

bool TraceReader::takeEvent(std::size_t begin, std::size_t end, bool quiet)
{
    simdjson::dom::element element;
    const auto error = m_Parser.parse(m_Buffer.data() + begin, end - begin, false).get(element);
    if (error != simdjson::SUCCESS)
    {
        if (!quiet)
        {
            locateJsonError(begin, end, "this event");
        }
        return false;
    }
    if (element.get_object().get(m_Event.object) != simdjson::SUCCESS)
    {
        fail(Ending::Broken, begin, "an element of traceEvents that is not an object");
        return false;
    }
    m_Event.text = std::string_view(m_Buffer.data() + begin, end - begin);
    m_Event.at = position(begin);
    if (!interpret(m_Event, true))
    {
        return false;
    }
    m_Handler->event(m_Event);
    ++m_Result.events;
    m_Result.wholeUpTo = m_Base + end;
    return true;
}

bool TraceReader::takeBlock()
{
    // Whole lines "{...}", each following one starting with a comma, as far
    // as the buffer holds them.
    const char* const bytes = m_Buffer.data();
    std::size_t end = m_Pos;
    std::size_t lines = 0;
    for (std::size_t at = m_Pos; at < m_End && at - m_Pos < kBlock; ++lines)
    {
        const void* const newline = std::memchr(bytes + at, '\n', m_End - at);
        if (newline == nullptr)
        {
            break;
        }
        const std::size_t lineEnd = static_cast<const char*>(newline) - bytes;
        std::size_t last = lineEnd;
        while (last > at && isSpace(bytes[last - 1]))
        {
            --last;
        }
        if (last == at || bytes[last - 1] != '}')
        {
            break;
        }
        end = last;
        at = lineEnd + 1;
        if (at + 1 >= m_End || bytes[at] != ',' || bytes[at + 1] != '{')
        {
            ++lines;
            break;
        }
    }
    if (lines < 2)
    {
        return false;
    }
    m_Block.assign(1, '[');
    m_Block.append(bytes + m_Pos, end - m_Pos);
    m_Block += ']';
    const std::size_t length = m_Block.size();
    m_Block.append(simdjson::SIMDJSON_PADDING, ' ');
    simdjson::dom::array events;
    if (m_Parser.parse(m_Block.data(), length, false).get_array().get(events) != simdjson::SUCCESS)
    {
        return false;
    }
    // Handed over only when every element is an event: otherwise the lines
    // are read one by one, which says where the trouble is.
    std::size_t count = 0;
    for (const simdjson::dom::element element : events)
    {
        if (m_Pending.size() == count)
        {
            m_Pending.emplace_back();
        }
        Event& event = m_Pending[count++];
        if (element.get_object().get(event.object) != simdjson::SUCCESS || !interpret(event, false))
        {
            return false;
        }
    }
    const Position at = position(m_Pos);
    for (std::size_t i = 0; i < count; ++i)
    {
        m_Pending[i].text = {};
        m_Pending[i].at = at;
        m_Handler->event(m_Pending[i]);
    }
    m_Result.events += count;
    m_Result.wholeUpTo = m_Base + end;
    m_Line += lines - 1;
    m_Pos = end;
    m_State = State::AfterEvent;
    return true;
}

bool TraceReader::takeKey(std::size_t begin, std::size_t end)
{
    std::string_view key;
    simdjson::dom::element element;
    if (m_Buffer[begin] != '"' ||
        m_Parser.parse(m_Buffer.data() + begin, end - begin, false).get(element) != simdjson::SUCCESS ||
        element.get_string().get(key) != simdjson::SUCCESS)
    {
        locateJsonError(begin, end, "this member name");
        if (m_Result.ending == Ending::Whole)
        {
            fail(Ending::Broken, begin, "expected a member name in quotes");
        }
        return false;
    }
    m_Key.assign(key.data(), key.size());
    m_KeyText.assign(m_Buffer.data() + begin, end - begin);
    return true;
}

bool TraceReader::takeMember(std::size_t begin, std::size_t end)
{
    simdjson::dom::element element;
    if (m_Parser.parse(m_Buffer.data() + begin, end - begin, false).get(element) != simdjson::SUCCESS)
    {
        locateJsonError(begin, end, "the value of member \"" + m_Key + "\"");
        return false;
    }
    m_Handler->member(m_Key, m_KeyText + ":" + std::string(m_Buffer.data() + begin, end - begin), m_SeenEvents);
    return true;
}

bool TraceReader::interpret(Event& event, bool report)
{
    event.phase = {};
    event.name = {};
    event.hasTime = event.hasDuration = event.namesThread = false;
    event.threadName = {};
    // Default elements are not valid values: only those found are looked at.
    simdjson::dom::element& pid = event.pid;
    simdjson::dom::element& tid = event.tid;
    simdjson::dom::element args;
    bool& hasPid = event.hasPid;
    bool& hasTid = event.hasTid;
    hasPid = hasTid = false;
    bool hasArgs = false;
    for (const auto field : event.object)
    {
        const std::string_view key = field.key;
        bool ok = true;
        if (key == "ph")
        {
            ok = field.value.get_string().get(event.phase) == simdjson::SUCCESS;
        }
        else if (key == "name")
        {
            ok = field.value.get_string().get(event.name) == simdjson::SUCCESS;
        }
        else if (key == "ts")
        {
            ok = event.hasTime = toNanoseconds(field.value, event.time);
        }
        else if (key == "dur")
        {
            ok = event.hasDuration = toNanoseconds(field.value, event.duration);
        }
        else if (key == "pid")
        {
            pid = field.value;
            hasPid = true;
        }
        else if (key == "tid")
        {
            tid = field.value;
            hasTid = true;
        }
        else if (key == "args")
        {
            args = field.value;
            hasArgs = true;
        }
        if (!ok)
        {
            if (!report)
            {
                return false;
            }
            fail(Ending::Broken, static_cast<std::size_t>(event.text.data() - m_Buffer.data()),
                 "the event's \"" + std::string(key) +
                     (key == "ts" || key == "dur" ? "\" is not a number of microseconds within 31 years of zero"
                                                  : "\" is not a string"));
            return false;
        }
    }
    const std::string_view phase = event.phase;
    const bool timed = phase == "B" || phase == "E" || phase == "X" || phase == "i" || phase == "I";
    if ((timed && !event.hasTime) || (phase == "X" && !event.hasDuration))
    {
        if (!report)
        {
            return false;
        }
        fail(Ending::Broken, static_cast<std::size_t>(event.text.data() - m_Buffer.data()),
             "a \"" + std::string(phase) + "\" event without a numeric \"" + (event.hasTime ? "dur" : "ts") + "\"");
        return false;
    }
    // Integer ids, the usual kind, identify the thread without a text.
    event.numbered = hasPid && hasTid && pid.get_int64().get(event.pidNumber) == simdjson::SUCCESS &&
                     tid.get_int64().get(event.tidNumber) == simdjson::SUCCESS;
    if (!event.numbered)
    {
        event.thread = threadId(event);
    }
    if (phase == "M" && event.name == "thread_name")
    {
        event.namesThread = true;
        simdjson::dom::element name;
        if (hasArgs && args["name"].get(name) == simdjson::SUCCESS)
        {
            if (name.get_string().get(event.threadName) != simdjson::SUCCESS)
            {
                event.threadName = {};
            }
        }
    }
    return true;
}

bool TraceReader::fail(Ending ending, std::size_t at, const std::string& problem)
{
    m_Result.ending = ending;
    m_Result.at = position(at);
    m_Result.problem = problem;
    return false;
}

void TraceReader::locateJsonError(std::size_t begin, std::size_t end, const std::string& what)
{
    ErrorFinder finder;
    const char* const first = m_Buffer.data() + begin;
    nlohmann::json::sax_parse(first, first + (end - begin), &finder);
    if (finder.found)
    {
        const std::size_t offset = std::min(end - begin, finder.byte > 0 ? finder.byte - 1 : 0);
        fail(Ending::Broken, begin + offset, what + " is not valid JSON: " + finder.message);
        return;
    }
    simdjson::dom::element element;
    const auto error = m_Parser.parse(first, end - begin, false).get(element);
    fail(Ending::Broken, begin, what + " cannot be read: " + simdjson::error_message(error));
}

Position TraceReader::position(std::size_t at) const
{
    const std::size_t from = std::min(m_Pos, at);
    const std::size_t to = std::min(at, m_End);
    Position result;
    result.offset = m_Base + at;
    result.line = m_Line + static_cast<std::uint64_t>(std::count(m_Buffer.data() + from, m_Buffer.data() + to, '\n'));
    return result;
}

std::string formatMicros(std::int64_t nanoseconds)
{
    std::string text = nanoseconds < 0 ? "-" : "";
    const std::uint64_t magnitude =
        nanoseconds < 0 ? 0 - static_cast<std::uint64_t>(nanoseconds) : static_cast<std::uint64_t>(nanoseconds);
    text += std::to_string(magnitude / 1000);
    unsigned fraction = static_cast<unsigned>(magnitude % 1000);
    if (fraction != 0)
    {
        char digits[8];
        std::snprintf(digits, sizeof digits, ".%03u", fraction);
        std::size_t length = 4;
        while (digits[length - 1] == '0')
        {
            --length;
        }
        text.append(digits, length);
    }
    return text;
}

} // namespace qor::trace
