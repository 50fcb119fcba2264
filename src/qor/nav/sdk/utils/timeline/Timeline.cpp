#include "qor/nav/sdk/utils/timeline/Timeline.h"

#include "qor/common/system/HighResolutionTimer.h"
#include "qor/common/system/Mutex.h"
#include "qor/common/system/Thread.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cstdarg>
#include <new>

namespace qor::nav::sdk::utils::timeline {

namespace {

using ::qor::common::system::HighResolutionTimer;
using ::qor::common::system::MutexGuard;
using ::qor::common::system::Thread;

const char* const kHeader = "{\"displayTimeUnits\":\"ns\",\"traceEvents\":[\n";
const char* const kTrailer = "]}";
const char* const kThreadNameEvent =
    "{\"pid\":1,\"tid\":%lu,\"ph\":\"M\",\"name\":\"thread_name\",\"args\":{\"name\":\"%s\"}}\n";
const char* const kBeginEvent = "{\"name\":\"%s\",\"ph\":\"B\",\"ts\":%ld,\"pid\":1,\"tid\":%lu%s";
const char* const kCategoryMember = "\"cat\":\"%s\"";
const char* const kEndEvent = "{\"ph\":\"E\",\"ts\":%ld,\"pid\":1,\"tid\":%lu}\n";
const char* const kGridMark = "{\"name\":\"VSYNC\",\"ph\":\"i\",\"s\":\"t\",\"ts\":%ld,\"pid\":1,\"tid\":%lu}\n";

// One frame at 60 Hz, in microseconds.
const double kGridSpacing = 16666.666666666668;

// Microseconds of the high-resolution clock, absolute.
std::uint64_t now()
{
    return HighResolutionTimer::getTicks() / 1000u;
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
std::uint64_t currentThreadId()
{
    ThreadMemo& memo = t_Memo;
    if (memo.id == 0)
    {
        Thread& thread = Thread::getCurrentThread();
        MutexGuard guard(thread.getMutex());
        memo.id = thread.getId();
    }
    return memo.id;
}

constexpr std::size_t kStreamBufferSize = 64 * 1024;

// Prepares a stream for this class's writes. The stream's own lock is left
// to the caller: every write of the class happens under the timeline's lock,
// so locking the stream again per call would only cost time. A regular file
// whose stream has not been used yet gets a larger buffer, so that a
// recording makes few, large writes; other streams (terminals, pipes,
// devices, memory streams), streams already in use and streams the caller
// made line-buffered or gave a buffer keep theirs.
void tuneStream(FILE* stream, std::unique_ptr<char[]>& buffer)
{
    ::__fsetlocking(stream, FSETLOCKING_BYCALLER);
    const int descriptor = ::fileno(stream);
    struct stat status;
    if (descriptor < 0 || ::__fbufsize(stream) != 0 || ::__flbf(stream) != 0 || ::fstat(descriptor, &status) != 0 ||
        !S_ISREG(status.st_mode))
    {
        return;
    }
    if (buffer == nullptr)
    {
        buffer.reset(new (std::nothrow) char[kStreamBufferSize]);
    }
    if (buffer != nullptr)
    {
        std::setvbuf(stream, buffer.get(), _IOFBF, kStreamBufferSize);
    }
}

// Null strings print as glibc's "%s" prints them, without handing null to it.
const char* orNull(const char* text)
{
    return text != nullptr ? text : "(null)";
}

// The byte count reported by a formatted write (-1 on failure), added to an
// unsigned total: a failure lowers the total by one.
void addReported(std::uint64_t& total, int reported)
{
    total += static_cast<std::uint64_t>(static_cast<std::int64_t>(reported));
}

__attribute__((format(printf, 2, 0))) int writeFormatted(FILE* file, const char* format, va_list args)
{
    return std::vfprintf(file, format, args);
}

} // namespace

// Busy-waits for the one-byte lock, with no back-off: sections are short and
// a blocking mutex would cost more than the wait.
class Timeline::SpinLockGuard
{
public:
    explicit SpinLockGuard(std::atomic<std::uint8_t>& lock) : m_Lock(lock)
    {
        while (m_Lock.exchange(1, std::memory_order_acquire) != 0)
        {
        }
    }
    ~SpinLockGuard() { m_Lock.store(0, std::memory_order_release); }
    SpinLockGuard(const SpinLockGuard&) = delete;
    SpinLockGuard& operator=(const SpinLockGuard&) = delete;

private:
    std::atomic<std::uint8_t>& m_Lock;
};

static_assert(sizeof(std::atomic<std::uint8_t>) == 1, "the lock is one byte");
static_assert(sizeof(unsigned long) == sizeof(std::uint64_t), "%lu prints 64-bit ids");

Timeline::Timeline()
    : m_Active(false), m_File(nullptr), m_BaseName(), m_PartNumber(0), m_BytesWritten(0), m_PartSizeLimit(0),
      m_SessionThreadId(0), m_NamedThreads(), m_StartTime(0), m_NeedComma(false), m_Lock(0), m_FileNumber(0),
      m_StreamBuffer()
{
}

Timeline::~Timeline()
{
    finishSession();
}

void Timeline::startSession(FILE* stream)
{
    SpinLockGuard guard(m_Lock);
    if (m_Active.load())
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
    SpinLockGuard guard(m_Lock);
    if (m_Active.load())
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
    SpinLockGuard guard(m_Lock);
    finishSessionCommon();
}

void Timeline::beginSection(const char* name, const char* category, const char* extra)
{
    setCurrentThreadNameIfNeeded();
    SpinLockGuard guard(m_Lock);
    if (!m_Active.load())
    {
        return;
    }
    const std::uint64_t threadId = currentThreadId();
    const std::uint64_t timeStamp = now();
    appendCSV(kBeginEvent, orNull(name), static_cast<long>(timeStamp), static_cast<unsigned long>(threadId),
              orNull(extra));
    if (category != nullptr)
    {
        // Not the first output of the file, so this puts the comma in front of the member.
        appendCSV(kCategoryMember, category);
    }
    append("}\n");
}

void Timeline::endSection()
{
    SpinLockGuard guard(m_Lock);
    if (m_Active.load())
    {
        const std::uint64_t threadId = currentThreadId();
        const std::uint64_t timeStamp = now();
        appendCSV(kEndEvent, static_cast<long>(timeStamp), static_cast<unsigned long>(threadId));
    }
    // Deliberately outside the check above: see the header on endSection().
    if (m_PartNumber != 0 && m_BytesWritten > m_PartSizeLimit)
    {
        startNewPart();
    }
}

void Timeline::setThreadName(unsigned long threadId, const char* name)
{
    if (m_Active.load())
    {
        appendCSV(kThreadNameEvent, threadId, orNull(name));
    }
}

void Timeline::setCurrentThreadNameIfNeeded()
{
    // A thread that named itself in the current file knows it without the
    // lock. Should the file change right after this check, the thread's next
    // event lands in the new file unnamed, exactly as when the locked check
    // below runs just before the change.
    ThreadMemo& memo = t_Memo;
    if (memo.namedInFile != 0 && memo.namedInFile == m_FileNumber.load(std::memory_order_acquire))
    {
        return;
    }
    SpinLockGuard guard(m_Lock);
    if (!m_Active.load())
    {
        return;
    }
    const std::uint64_t threadId = currentThreadId();
    const auto position = std::lower_bound(m_NamedThreads.begin(), m_NamedThreads.end(), threadId);
    if (position == m_NamedThreads.end() || *position != threadId)
    {
        setThreadName(static_cast<unsigned long>(threadId), Thread::getCurrentThread().getName());
        m_NamedThreads.insert(position, threadId);
    }
    memo.namedInFile = m_FileNumber.load(std::memory_order_relaxed);
}

void Timeline::append(const char* format, ...)
{
    if (m_File == nullptr)
    {
        return;
    }
    va_list args;
    va_start(args, format);
    const int reported = writeFormatted(m_File, format, args);
    va_end(args);
    addReported(m_BytesWritten, reported);
}

void Timeline::appendCSV(const char* format, ...)
{
    if (m_File == nullptr)
    {
        return;
    }
    if (m_NeedComma)
    {
        // The stream is locked by the caller (see tuneStream()).
        ::fputc_unlocked(',', m_File);
    }
    m_NeedComma = true;
    va_list args;
    va_start(args, format);
    const int reported = writeFormatted(m_File, format, args);
    va_end(args);
    addReported(m_BytesWritten, reported);
}

void Timeline::startNewPart()
{
    if (m_Active.load())
    {
        finishSessionCommon();
    }
    m_PartNumber += 1;
    m_BytesWritten = 0;

    char suffix[32];
    std::snprintf(suffix, sizeof suffix, ".%03lu", static_cast<unsigned long>(m_PartNumber));
    const std::string fileName = m_BaseName + suffix;
    const int descriptor = ::open(fileName.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0664);
    if (descriptor >= 0)
    {
        m_File = ::fdopen(descriptor, "w");
        if (m_File == nullptr)
        {
            ::close(descriptor);
        }
    }
    startSessionCommon();
}

void Timeline::startSessionCommon()
{
    if (m_File == nullptr)
    {
        return;
    }
    tuneStream(m_File, m_StreamBuffer);
    m_Active.store(true);
    m_NeedComma = false;
    m_SessionThreadId = currentThreadId();
    append("%s", kHeader);
    m_NamedThreads.clear();
    m_FileNumber.store(s_NextFileNumber.fetch_add(1, std::memory_order_relaxed), std::memory_order_release);
    m_StartTime = now();
}

void Timeline::finishSessionCommon()
{
    if (m_Active.load())
    {
        const std::uint64_t end = now();
        std::uint64_t t = m_StartTime;
        std::uint64_t i = 0;
        // The first computed mark equals the start again, so every file begins
        // with two marks at its start time; kept for compatibility with
        // existing traces and the tools that read them.
        while (t < end)
        {
            appendCSV(kGridMark, static_cast<long>(t), static_cast<unsigned long>(m_SessionThreadId));
            t = m_StartTime + static_cast<std::uint64_t>(static_cast<double>(i) * kGridSpacing);
            ++i;
        }
    }
    m_Active.store(false);
    if (m_File != nullptr)
    {
        append("%s", kTrailer);
        std::fclose(m_File);
        m_File = nullptr;
    }
}

} // namespace qor::nav::sdk::utils::timeline
