// The session state of a timeline: which file is current, which threads are
// named in it, when it began, and when a multipart session rolls over. The
// lines are put together by TraceEvent and the files made by TraceFiles.
#include "qor/nav/sdk/utils/timeline/Timeline.h"

#include "TraceEvent.h"
#include "TraceFiles.h"
#include "qor/common/system/HighResolutionTimer.h"
#include "qor/common/system/Thread.h"

#include <algorithm>
#include <cassert>
#include <cstdarg>

namespace qor::nav::sdk::utils::timeline {

namespace {

using ::qor::common::system::HighResolutionTimer;
using ::qor::common::system::MutexGuard;
using ::qor::common::system::Thread;

const char* const kHeader = "{\"displayTimeUnits\":\"ns\",\"traceEvents\":[\n";
const char* const kTrailer = "]}";

// One frame at 60 Hz, in microseconds.
const double kGridSpacing = 16666.666666666668;

// Microseconds of the high-resolution clock, absolute, as the files write
// them (a signed number).
std::int64_t now()
{
    return static_cast<std::int64_t>(HighResolutionTimer::getTicks() / 1000u);
}

// What a thread remembers between its events: its id, and the number of
// the file in which it last named itself (0: none). Trivially destructible,
// so it stays usable while the thread ends.
struct ThreadMemo
{
    std::uint64_t id;
    std::uint64_t namedInFile;
};

thread_local ThreadMemo t_Memo = {0, 0};

// File numbers are unique in the process, so that a thread's memo can never
// match a file of another timeline, nor a later file of the same one.
std::atomic<std::uint64_t> s_NextFileNumber{1};

// The calling thread's id. Read once per thread from its Thread object, under
// that Thread's own mutex, and kept: the id of a running thread never
// changes, and the lookup would otherwise cost two calls and a lock per event.
// The callers look the memo up once per event, as every look-up of a
// thread_local of a shared library is a call.
std::uint64_t currentThreadId(ThreadMemo& memo)
{
    if (memo.id == 0)
    {
        Thread& thread = Thread::getCurrentThread();
        MutexGuard guard(thread.getMutex());
        memo.id = thread.getId();
    }
    return memo.id;
}

// Whether the thread named itself in the current file; known without the
// lock. Should the file change right after this check, the thread's next
// event lands in the new file unnamed, exactly as when the locked check runs
// just before the change. Relaxed: only the number itself is compared,
// nothing else is read on the strength of it.
bool namedIn(const ThreadMemo& memo, const std::atomic<std::uint64_t>& fileNumber)
{
    return memo.namedInFile != 0 && memo.namedInFile == fileNumber.load(std::memory_order_relaxed);
}

} // namespace

// m_Active is written with m_Lock held and read with it held, or by
// setThreadName(), whose caller rules out concurrent calls: the lock (or the
// caller) orders every access, so all of them are relaxed.
Timeline::Timeline() = default;

Timeline::~Timeline()
{
    finishSession();
}

void Timeline::startSession(FILE* stream)
{
    MutexGuard guard(m_Lock);
    if (m_Active.load(std::memory_order_relaxed))
    {
        if (stream != nullptr)
        {
            std::fclose(stream);
        }
        return;
    }
    m_File = stream;
    m_PartNumber = 0;
    startSessionCommon();
}

void Timeline::startMultipartSession(const char* baseName, unsigned long partSizeLimit)
{
    MutexGuard guard(m_Lock);
    if (m_Active.load(std::memory_order_relaxed))
    {
        // Ignored while a session is active, whatever the arguments.
        return;
    }
    assert(baseName != nullptr);
    m_BaseName = baseName;
    m_PartNumber = 0;
    m_PartSizeLimit = partSizeLimit;
    startNewPart();
}

void Timeline::finishSession()
{
    MutexGuard guard(m_Lock);
    finishSessionCommon();
}

void Timeline::beginSection(const char* name, const char* category, const char* extra)
{
    ThreadMemo& memo = t_Memo;
    if (!namedIn(memo, m_FileNumber))
    {
        setCurrentThreadNameIfNeeded();
    }
    const std::string_view nameText = TraceEvent::text(name);
    const std::string_view extraText = TraceEvent::text(extra);
    TraceEvent event(nameText.size() + extraText.size() + (category != nullptr ? std::strlen(category) : 0));
    event.begin(nameText, currentThreadId(memo), extraText, category);
    MutexGuard guard(m_Lock);
    if (m_Active.load(std::memory_order_relaxed))
    {
        event.stamp(now());
        write(event);
    }
}

void Timeline::endSection()
{
    TraceEvent event;
    event.end(currentThreadId(t_Memo));
    MutexGuard guard(m_Lock);
    if (m_Active.load(std::memory_order_relaxed))
    {
        event.stamp(now());
        write(event);
    }
    // Deliberately outside the check above: see the header on endSection().
    if (m_PartNumber != 0 && m_BytesWritten > m_PartSizeLimit)
    {
        startNewPart();
    }
}

void Timeline::setThreadName(unsigned long threadId, const char* name)
{
    if (m_Active.load(std::memory_order_relaxed))
    {
        const std::string_view nameText = TraceEvent::text(name);
        TraceEvent event(nameText.size());
        event.threadName(threadId, nameText);
        write(event);
    }
}

void Timeline::setCurrentThreadNameIfNeeded()
{
    ThreadMemo& memo = t_Memo;
    if (namedIn(memo, m_FileNumber))
    {
        return;
    }
    MutexGuard guard(m_Lock);
    if (!m_Active.load(std::memory_order_relaxed))
    {
        return;
    }
    const std::uint64_t threadId = currentThreadId(memo);
    const auto position = std::lower_bound(m_NamedThreads.begin(), m_NamedThreads.end(), threadId);
    if (position == m_NamedThreads.end() || *position != threadId)
    {
        setThreadName(static_cast<unsigned long>(threadId), Thread::getCurrentThread().getName());
        m_NamedThreads.insert(position, threadId);
    }
    memo.namedInFile = m_FileNumber.load(std::memory_order_relaxed);
}

void Timeline::write(const TraceEvent& event)
{
    if (m_File == nullptr)
    {
        return;
    }
    if (m_NeedComma)
    {
        ::fputc_unlocked(',', m_File);
    }
    m_NeedComma = true;
    // A failed write lowers the count (unsigned, so it wraps): by one per
    // piece of the line.
    const std::string_view bytes = event.bytes();
    const bool written = ::fwrite_unlocked(bytes.data(), 1, bytes.size(), m_File) == bytes.size();
    m_BytesWritten += written ? event.counted() : 0 - event.writes();
}

void Timeline::append(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vappend(false, format, args);
    va_end(args);
}

void Timeline::appendCSV(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vappend(true, format, args);
    va_end(args);
}

void Timeline::vappend(bool separated, const char* format, va_list args)
{
    if (m_File == nullptr)
    {
        return;
    }
    if (separated && m_NeedComma)
    {
        ::fputc_unlocked(',', m_File);
    }
    m_NeedComma = m_NeedComma || separated;
    // The reported count, -1 on failure, taken as a signed number.
    m_BytesWritten += static_cast<std::uint64_t>(static_cast<std::int64_t>(std::vfprintf(m_File, format, args)));
}

void Timeline::startNewPart()
{
    if (m_Active.load(std::memory_order_relaxed))
    {
        finishSessionCommon();
    }
    m_PartNumber += 1;
    m_BytesWritten = 0;
    m_File = createPart(m_BaseName, m_PartNumber);
    startSessionCommon();
}

void Timeline::startSessionCommon()
{
    if (m_File == nullptr)
    {
        return;
    }
    tuneStream(m_File, m_StreamBuffer);
    m_Active.store(true, std::memory_order_relaxed);
    m_NeedComma = false;
    m_SessionThreadId = currentThreadId(t_Memo);
    append("%s", kHeader);
    m_NamedThreads.clear();
    m_FileNumber.store(s_NextFileNumber.fetch_add(1, std::memory_order_relaxed), std::memory_order_relaxed);
    m_StartTime = static_cast<std::uint64_t>(now());
}

void Timeline::finishSessionCommon()
{
    if (m_Active.load(std::memory_order_relaxed))
    {
        const std::uint64_t end = static_cast<std::uint64_t>(now());
        std::uint64_t t = m_StartTime;
        std::uint64_t i = 0;
        // The first computed mark equals the start again, so every file begins
        // with two marks at its start time; kept for compatibility with
        // existing traces and the tools that read them.
        while (t < end)
        {
            TraceEvent mark;
            mark.gridMark(static_cast<std::int64_t>(t), m_SessionThreadId);
            write(mark);
            t = m_StartTime + static_cast<std::uint64_t>(static_cast<double>(i) * kGridSpacing);
            ++i;
        }
    }
    m_Active.store(false, std::memory_order_relaxed);
    if (m_File != nullptr)
    {
        append("%s", kTrailer);
        std::fclose(m_File);
        m_File = nullptr;
    }
}

} // namespace qor::nav::sdk::utils::timeline
