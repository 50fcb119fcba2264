#include "qor/common/logging/Logger.h"

#include "qor/common/system/CurrentThreadId.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>

namespace qor::common::logging {

namespace {

std::uint64_t wallClockMicros() noexcept
{
    using namespace std::chrono;
    return static_cast<std::uint64_t>(duration_cast<microseconds>(system_clock::now().time_since_epoch()).count());
}

// Writes all of `data` to standard error, retrying short writes.
void writeAllToStderr(const std::string& data) noexcept
{
    const char* p = data.data();
    std::size_t left = data.size();
    while (left > 0)
    {
        const ssize_t n = ::write(STDERR_FILENO, p, left);
        if (n < 0)
        {
            if (errno == EINTR)
            {
                continue;
            }
            return;
        }
        p += n;
        left -= static_cast<std::size_t>(n);
    }
}

class StderrSink final : public ILogSink
{
public:
    void write(const LogRecord& record) override
    {
        char prefix[128];
        const time_t seconds = static_cast<time_t>(record.timestampMicros / 1000000u);
        tm local{};
        ::localtime_r(&seconds, &local);
        const int n = std::snprintf(prefix, sizeof prefix, "%04d-%02d-%02d %02d:%02d:%02d.%06u %-7s [%llu] ",
                                    local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                                    local.tm_min, local.tm_sec,
                                    static_cast<unsigned>(record.timestampMicros % 1000000u),
                                    LogLevel::toString(record.level),
                                    static_cast<unsigned long long>(record.threadId));
        std::string head(prefix, n > 0 ? static_cast<std::size_t>(n) : 0u);
        head += record.loggerName;
        head += ": ";

        // One line per line of the record; all of it in one write under the
        // lock so that records of different threads never interleave.
        std::string out;
        out.reserve(record.text.size() + head.size() * 2);
        const std::string& text = record.text;
        std::size_t start = 0;
        do
        {
            std::size_t end = text.find('\n', start);
            if (end == std::string::npos)
            {
                end = text.size();
            }
            out += head;
            out.append(text, start, end - start);
            out += '\n';
            start = end + 1;
        } while (start < text.size());

        std::lock_guard<std::mutex> lock(m_Mutex);
        writeAllToStderr(out);
    }

private:
    std::mutex m_Mutex;
};

// Process-wide logging state. Created on first use and never destroyed, so
// that loggers keep working while static objects are destroyed at exit.
struct LoggingState
{
    std::mutex sinkMutex;
    std::shared_ptr<ILogSink> defaultSink = std::make_shared<StderrSink>();
    std::shared_ptr<ILogSink> sink = defaultSink;

    std::mutex thresholdMutex;
    LogLevel::logLevel defaultThreshold = LogLevel::Info;
    std::map<std::string, LogLevel::logLevel> prefixThresholds;

    std::shared_ptr<ILogSink> currentSink()
    {
        std::lock_guard<std::mutex> lock(sinkMutex);
        return sink;
    }

    // Caller holds thresholdMutex.
    LogLevel::logLevel thresholdFor(const std::string& name) const
    {
        LogLevel::logLevel result = defaultThreshold;
        std::size_t bestLength = 0;
        bool found = false;
        for (const auto& entry : prefixThresholds)
        {
            const std::string& prefix = entry.first;
            const bool matches = name.compare(0, prefix.size(), prefix) == 0 &&
                                 (name.size() == prefix.size() || name[prefix.size()] == '.');
            if (matches && (!found || prefix.size() > bestLength))
            {
                result = entry.second;
                bestLength = prefix.size();
                found = true;
            }
        }
        return result;
    }
};

LoggingState& state()
{
    static LoggingState* s_State = new LoggingState();
    return *s_State;
}

} // namespace

const char* LogLevel::toString(logLevel level) noexcept
{
    switch (level)
    {
    case Trace: return "TRACE";
    case Debug: return "DEBUG";
    case Info: return "INFO";
    case Warning: return "WARNING";
    case Error: return "ERROR";
    case Fatal: return "FATAL";
    }
    return "LEVEL?";
}

ILogSink::~ILogSink() = default;

void setLogSink(std::shared_ptr<ILogSink> sink)
{
    LoggingState& s = state();
    std::lock_guard<std::mutex> lock(s.sinkMutex);
    s.sink = sink ? std::move(sink) : s.defaultSink;
}

void ScopedLogger::openStream()
{
    m_Stream.reset(new std::ostringstream());
    *m_Stream << std::boolalpha;
}

ScopedLogger::ScopedLogger(ScopedLogger&& other) noexcept
    : m_Logger(other.m_Logger), m_Level(other.m_Level), m_Enabled(other.m_Enabled),
      m_Stream(std::move(other.m_Stream))
{
    other.m_Enabled = false;
}

void ScopedLogger::deliver() noexcept
{
    try
    {
        LogRecord record{m_Logger->getName(), m_Level, m_Stream->str(),
                         system::detail::currentKernelThreadId(), wallClockMicros()};
        std::shared_ptr<ILogSink> sink = state().currentSink();
        sink->write(record);
    }
    catch (...)
    {
        // A failing sink must not take the logging code down with it.
    }
}

// Generation 0 is never current, so a new logger looks its threshold up on first use.
std::atomic<std::uint32_t> Logger::s_ThresholdGeneration{1};

Logger::Logger(const std::string& name) : m_Name(name), m_CachedThreshold(0)
{
}

Logger::~Logger() = default;

LogLevel::logLevel Logger::refreshThreshold() const
{
    LoggingState& s = state();
    std::lock_guard<std::mutex> lock(s.thresholdMutex);
    const std::uint64_t current = s_ThresholdGeneration.load(std::memory_order_relaxed);
    const LogLevel::logLevel level = s.thresholdFor(m_Name);
    m_CachedThreshold.store((current << 32) | static_cast<std::uint32_t>(level), std::memory_order_relaxed);
    return level;
}

void Logger::setDefaultThreshold(LogLevel::logLevel level)
{
    LoggingState& s = state();
    std::lock_guard<std::mutex> lock(s.thresholdMutex);
    s.defaultThreshold = level;
    s_ThresholdGeneration.fetch_add(1, std::memory_order_acq_rel);
}

void Logger::setThreshold(const std::string& namePrefix, LogLevel::logLevel level)
{
    LoggingState& s = state();
    std::lock_guard<std::mutex> lock(s.thresholdMutex);
    s.prefixThresholds[namePrefix] = level;
    s_ThresholdGeneration.fetch_add(1, std::memory_order_acq_rel);
}

void Logger::resetThresholds()
{
    LoggingState& s = state();
    std::lock_guard<std::mutex> lock(s.thresholdMutex);
    s.prefixThresholds.clear();
    s.defaultThreshold = LogLevel::Info;
    s_ThresholdGeneration.fetch_add(1, std::memory_order_acq_rel);
}

} // namespace qor::common::logging
