// Pairing of sections per thread, and the two output formats of a pass.
#include "TracePass.h"

#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>

namespace qor::trace {

namespace {

constexpr std::size_t kFlushSize = std::size_t(1) << 20;

// Room for any duration below 2 * kTimeLimit ns: 16 digits, a point, 3 digits.
constexpr std::size_t kDurationWidth = 20;

void appendJsonString(std::string& to, std::string_view text)
{
    to += '"';
    for (const char c : text)
    {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\')
        {
            to += '\\';
            to += c;
        }
        else if (byte < 0x20)
        {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
            to += escaped;
        }
        else
        {
            to += c;
        }
    }
    to += '"';
}


} // namespace

Output::Output(int descriptor) : m_Descriptor(descriptor), m_Buffer(), m_Flushed(0), m_Error() {}

void Output::write(std::string_view bytes)
{
    m_Buffer.append(bytes.data(), bytes.size());
    if (m_Descriptor >= 0 && m_Buffer.size() >= kFlushSize)
    {
        flush();
    }
}

void Output::overwrite(std::uint64_t at, std::string_view bytes)
{
    assert(at + bytes.size() <= size());
    if (at >= m_Flushed)
    {
        std::memcpy(&m_Buffer[at - m_Flushed], bytes.data(), bytes.size());
        return;
    }
    if (m_Error.empty() &&
        ::pwrite(m_Descriptor, bytes.data(), bytes.size(), static_cast<off_t>(at)) != static_cast<ssize_t>(bytes.size()))
    {
        m_Error = std::string("cannot write: ") + std::strerror(errno);
    }
}

void Output::flush()
{
    std::size_t done = 0;
    while (done < m_Buffer.size() && m_Error.empty())
    {
        const ssize_t count = ::write(m_Descriptor, m_Buffer.data() + done, m_Buffer.size() - done);
        if (count < 0 && errno == EINTR)
        {
            continue;
        }
        if (count <= 0)
        {
            m_Error = std::string("cannot write: ") + std::strerror(count < 0 ? errno : ENOSPC);
            break;
        }
        done += static_cast<std::size_t>(count);
    }
    m_Flushed += m_Buffer.size();
    m_Buffer.clear();
}

bool Output::finish()
{
    if (m_Descriptor >= 0)
    {
        flush();
    }
    return m_Error.empty();
}

TracePass::TracePass(Format format, Output* output)
    : m_Format(format), m_Output(output), m_Threads(), m_ThreadIndex(), m_NumberIndex(), m_LastThread(0), m_Events(0), m_Written(0),
      m_DroppedEnds(0), m_PairedAcross(0), m_Files(0), m_HeaderWritten(false), m_MemberKeys(), m_MembersBefore(), m_MembersAfter(),
      m_Scratch()
{
    assert((format == Format::None) == (output == nullptr));
}

void TracePass::member(std::string_view key, std::string_view text, bool afterEvents)
{
    if (m_Files > 0 || std::find(m_MemberKeys.begin(), m_MemberKeys.end(), key) != m_MemberKeys.end())
    {
        return;
    }
    m_MemberKeys.emplace_back(key);
    (afterEvents ? m_MembersAfter : m_MembersBefore).emplace_back(text);
}

ThreadState& TracePass::threadOf(const Event& event)
{
    if (m_LastThread < m_Threads.size())
    {
        const ThreadState& last = m_Threads[m_LastThread];
        if (event.numbered ? last.numbered && last.pidNumber == event.pidNumber && last.tidNumber == event.tidNumber
                           : !last.numbered && last.id == event.thread)
        {
            return m_Threads[m_LastThread];
        }
    }
    const auto numbers = std::make_pair(event.pidNumber, event.tidNumber);
    if (event.numbered ? m_NumberIndex.count(numbers) != 0 : m_ThreadIndex.count(event.thread) != 0)
    {
        m_LastThread = event.numbered ? m_NumberIndex[numbers] : m_ThreadIndex[event.thread];
        return m_Threads[m_LastThread];
    }
    m_LastThread = m_Threads.size();
    if (event.numbered)
    {
        m_NumberIndex.emplace(numbers, m_LastThread);
    }
    else
    {
        m_ThreadIndex.emplace(event.thread, m_LastThread);
    }
    m_Threads.emplace_back();
    ThreadState& thread = m_Threads.back();
    thread.id = threadId(event);
    thread.numbered = event.numbered;
    thread.pidNumber = event.pidNumber;
    thread.tidNumber = event.tidNumber;
    thread.pidJson = event.hasPid ? simdjson::minify(event.pid) : std::string();
    thread.tidJson = event.hasTid ? simdjson::minify(event.tid) : std::string();
    return thread;
}

std::int64_t TracePass::spread(ThreadState& thread, std::int64_t time)
{
    if (m_Format != Format::Complete || time % 1000 != 0)
    {
        return time;
    }
    if (thread.tieIndex >= 0 && time == thread.tieTime)
    {
        thread.tieIndex = std::min(thread.tieIndex + 1, 999);
    }
    else
    {
        thread.tieTime = time;
        thread.tieIndex = 0;
    }
    return time + thread.tieIndex;
}

void TracePass::event(const Event& event)
{
    ++m_Events;
    ThreadState& thread = threadOf(event);
    std::int64_t time = event.time;
    if (event.hasTime)
    {
        thread.first = thread.timed ? std::min(thread.first, time) : time;
        thread.last = thread.timed ? std::max(thread.last, time) : time;
        thread.timed = true;
    }
    const std::string_view phase = event.phase;
    const bool rewrite = m_Format == Format::Complete;
    if (phase == "B" || phase == "E" || phase == "i" || phase == "I")
    {
        thread.latest = time;
        time = spread(thread, time);
    }
    if (phase == "B")
    {
        ++thread.sections;
        thread.maxDepth = std::max<std::uint64_t>(thread.maxDepth, thread.open.size() + 1);
        std::uint64_t placeholder = 0;
        if (rewrite)
        {
            writeRewritten(event, time, "X", &placeholder);
        }
        thread.open.push_back(OpenSection{time, placeholder, m_Files, std::string(event.name)});
    }
    else if (phase == "E" && thread.open.empty())
    {
        ++thread.unmatchedEnds;
        m_DroppedEnds += rewrite ? 1 : 0;
    }
    else if (phase == "E")
    {
        if (rewrite)
        {
            fillDuration(thread.open.back().placeholder, time - thread.open.back().begin);
        }
        m_PairedAcross += thread.open.back().file != m_Files ? 1 : 0;
        thread.open.pop_back();
    }
    else if (phase == "X")
    {
        // Complete events nest by time, as viewers nest them.
        while (!thread.completeEnds.empty() && thread.completeEnds.back() <= event.time)
        {
            thread.completeEnds.pop_back();
        }
        thread.completeEnds.push_back(event.time + std::max<std::int64_t>(event.duration, 0));
        ++thread.sections;
        thread.maxDepth =
            std::max<std::uint64_t>(thread.maxDepth, thread.completeEnds.size() + thread.open.size());
    }
    else if (event.namesThread)
    {
        if (thread.name.empty())
        {
            thread.name = std::string(event.threadName);
        }
        if (thread.namedInOutput)
        {
            return;
        }
        thread.namedInOutput = true;
    }
    else if ((phase == "i" || phase == "I") && rewrite)
    {
        writeRewritten(event, time, "I", nullptr);
        return;
    }
    if (m_Format == Format::Events || (rewrite && phase != "B" && phase != "E"))
    {
        startEvent();
        m_Output->write(event.text);
        m_Output->write("\n");
    }
}

void TracePass::startEvent()
{
    if (!m_HeaderWritten)
    {
        writeHeader();
    }
    if (m_Written++ != 0)
    {
        m_Output->write(",");
    }
}

void TracePass::writeHeader()
{
    m_HeaderWritten = true;
    m_Output->write("{");
    for (const std::string& member : m_MembersBefore)
    {
        m_Output->write(member);
        m_Output->write(",");
    }
    m_Output->write("\"traceEvents\":[\n");
}

void TracePass::writeRewritten(const Event& event, std::int64_t time, const char* phase, std::uint64_t* placeholder)
{
    startEvent();
    std::string& text = m_Scratch;
    text = "{";
    for (const auto field : event.object)
    {
        const std::string_view key = field.key;
        if (key == "dur")
        {
            continue;
        }
        if (text.size() > 1)
        {
            text += ',';
        }
        appendJsonString(text, key);
        text += ':';
        if (key == "ph")
        {
            appendJsonString(text, phase);
        }
        else if (key == "ts")
        {
            text += formatMicros(time);
        }
        else
        {
            text += simdjson::minify(field.value);
        }
    }
    if (placeholder != nullptr)
    {
        text += ",\"dur\":";
        *placeholder = m_Output->size() + text.size();
        text.append(kDurationWidth, ' ');
    }
    text += "}\n";
    m_Output->write(text);
}

void TracePass::fillDuration(std::uint64_t placeholder, std::int64_t duration)
{
    const std::string text = formatMicros(std::max<std::int64_t>(duration, 0));
    assert(text.size() <= kDurationWidth);
    m_Output->overwrite(placeholder, text);
}

std::vector<std::string> TracePass::finish()
{
    std::vector<std::string> notes;
    if (m_Format == Format::None)
    {
        return notes;
    }
    std::size_t closed = 0;
    std::string where;
    for (ThreadState& thread : m_Threads)
    {
        if (thread.open.empty())
        {
            continue;
        }
        closed += thread.open.size();
        where += where.empty() ? "" : "; ";
        where += (thread.name.empty() ? "thread " : thread.name + " ") + "(" + thread.id + "): ";
        for (std::size_t i = 0; i < thread.open.size(); ++i)
        {
            where += (i == 0 ? "" : " > ") + thread.open[i].name;
        }
        while (!thread.open.empty())
        {
            // Closed innermost first, each one a moment after the last event.
            const OpenSection& section = thread.open.back();
            const std::int64_t end = std::max(spread(thread, thread.latest), section.begin);
            if (m_Format == Format::Complete)
            {
                fillDuration(section.placeholder, end - section.begin);
            }
            else
            {
                startEvent();
                std::string text = "{\"ph\":\"E\",\"ts\":" + formatMicros(end);
                text += thread.pidJson.empty() ? "" : ",\"pid\":" + thread.pidJson;
                text += thread.tidJson.empty() ? "" : ",\"tid\":" + thread.tidJson;
                text += "}\n";
                m_Output->write(text);
            }
            thread.open.pop_back();
        }
    }
    if (closed != 0)
    {
        notes.push_back("closed " + std::to_string(closed) +
                        " section(s) still open at the last time stamp of their thread: " + where);
    }
    if (m_DroppedEnds != 0)
    {
        notes.push_back("dropped " + std::to_string(m_DroppedEnds) + " section end(s) without a begin");
    }
    if (!m_HeaderWritten)
    {
        writeHeader();
    }
    m_Output->write("]");
    for (const std::string& member : m_MembersAfter)
    {
        m_Output->write(",");
        m_Output->write(member);
    }
    m_Output->write("}");
    return notes;
}

} // namespace qor::trace
