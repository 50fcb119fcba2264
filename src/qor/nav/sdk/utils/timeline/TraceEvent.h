// Internal: the bytes of one trace-event line, put together with
// std::to_chars on the writing thread's stack before the timeline's lock is
// taken, so that the lock covers the time stamp and a single copy into the
// stream.
#ifndef QOR_NAV_SDK_UTILS_TIMELINE_TRACEEVENT_H
#define QOR_NAV_SDK_UTILS_TIMELINE_TRACEEVENT_H

#include <charconv>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <type_traits>

namespace qor::nav::sdk::utils::timeline {

class TraceEvent
{
public:
    // Null strings read as the C library prints them.
    static std::string_view text(const char* s) { return s != nullptr ? s : "(null)"; }

    // Room for `strings` bytes of caller text besides the fixed text and the
    // numbers: on the stack, or, for the rare long names, on the heap.
    explicit TraceEvent(std::size_t strings = 0)
        : m_Heap(strings > sizeof m_Stack - kFixedRoom ? new char[strings + kFixedRoom] : nullptr),
          m_End(m_Heap != nullptr ? m_Heap.get() : m_Stack), m_Begin(m_End)
    {
    }
    TraceEvent(const TraceEvent&) = delete;
    TraceEvent& operator=(const TraceEvent&) = delete;

    void threadName(std::uint64_t threadId, std::string_view name)
    {
        *this << "{\"pid\":1,\"tid\":" << threadId << ",\"ph\":\"M\",\"name\":\"thread_name\",\"args\":{\"name\":\""
              << name << "\"}}\n";
    }
    // Three pieces for the byte count: the line, the category member and the
    // closing brace. The comma in front of the category member is left out of
    // the count, as are the separators between events; kept that way so that
    // parts roll over where they always did.
    void begin(std::string_view name, std::uint64_t threadId, std::string_view extra, const char* category)
    {
        *this << "{\"name\":\"" << name << "\",\"ph\":\"B\",\"ts\":";
        m_Stamp = m_End;
        *this << ",\"pid\":1,\"tid\":" << threadId << extra;
        if (category != nullptr)
        {
            *this << ",\"cat\":\"" << std::string_view(category) << "\"";
            m_Uncounted = 1;
        }
        *this << "}\n";
        m_Writes = category != nullptr ? 3 : 2;
    }
    void end(std::uint64_t threadId)
    {
        *this << "{\"ph\":\"E\",\"ts\":";
        m_Stamp = m_End;
        *this << ",\"pid\":1,\"tid\":" << threadId << "}\n";
    }
    // The time stamp of a begin or end goes in last, with the timeline's lock
    // held, so that the events of a file stay in time order across threads.
    void stamp(std::int64_t timeStamp)
    {
        char digits[20];
        const auto size = static_cast<std::size_t>(std::to_chars(digits, digits + sizeof digits, timeStamp).ptr - digits);
        std::memmove(m_Stamp + size, m_Stamp, static_cast<std::size_t>(m_End - m_Stamp));
        std::memcpy(m_Stamp, digits, size);
        m_End += size;
    }
    void gridMark(std::int64_t timeStamp, std::uint64_t threadId)
    {
        *this << "{\"name\":\"VSYNC\",\"ph\":\"i\",\"s\":\"t\",\"ts\":" << timeStamp << ",\"pid\":1,\"tid\":"
              << threadId << "}\n";
    }

    std::string_view bytes() const { return {m_Begin, static_cast<std::size_t>(m_End - m_Begin)}; }
    // What the part's byte count grows by when the line is written.
    std::uint64_t counted() const { return bytes().size() - m_Uncounted; }
    // What it falls by when writing fails: one per piece of the line.
    std::uint64_t writes() const { return m_Writes; }

private:
    // The fixed text and two numbers of the longest line, with room to spare.
    static constexpr std::size_t kFixedRoom = 128;

    TraceEvent& operator<<(std::string_view s)
    {
        std::memcpy(m_End, s.data(), s.size());
        m_End += s.size();
        return *this;
    }
    // 20 characters hold any 64-bit number, sign included.
    template <typename Number, typename = std::enable_if_t<std::is_integral_v<Number>>>
    TraceEvent& operator<<(Number n)
    {
        m_End = std::to_chars(m_End, m_End + 20, n).ptr;
        return *this;
    }

    char m_Stack[384];
    std::unique_ptr<char[]> m_Heap;
    char* m_End;
    char* const m_Begin;
    char* m_Stamp = nullptr;
    std::size_t m_Uncounted = 0;
    std::uint64_t m_Writes = 1;
};

} // namespace qor::nav::sdk::utils::timeline

#endif
