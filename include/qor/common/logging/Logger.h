// Named log channels, scoped log records, the process-wide sink and thresholds.
//
//   static Logger logger("qor.nav.sdk.utils.memory.MemoryManager");
//   logger << LogLevel::Info << "registerListener" << " :: Registering listener." << std::endl;
//
// `Logger::operator<<(level)` opens one record and returns a ScopedLogger; the
// record is handed to the installed sink, once, when that ScopedLogger is
// destroyed (normally at the end of the full expression). A record below its
// logger's threshold is disabled: every insertion into it does nothing, no
// text is formatted and the sink is not called.
//
// Thresholds: every logger starts at the default threshold (Info).
// `setThreshold("qor.nav", Debug)` overrides it for "qor.nav" and every logger
// whose name continues with "qor.nav."; the longest matching prefix wins.
//
// Process-wide state (the sink and the thresholds) lives once per process in
// libqor.common.so and is never destroyed, so loggers keep working in
// destructors of static objects at process exit.
//
// Threads: every operation may be called from any thread; one Logger may be
// used by several threads at once. A ScopedLogger belongs to the thread that
// opened it. Records are delivered whole: lines of concurrent records never
// interleave.
#ifndef QOR_COMMON_LOGGING_LOGGER_H
#define QOR_COMMON_LOGGING_LOGGER_H

#include "qor/common/logging/LogLevel.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>

namespace qor::common::logging {

// One finished log record, as handed to the sink.
struct LogRecord
{
    std::string loggerName;
    LogLevel::logLevel level;
    std::string text;            // exactly what the record's stream received, line ends included
    std::uint64_t threadId;      // kernel thread id of the writing thread
    std::uint64_t timestampMicros; // wall clock, microseconds since the Unix epoch
};

// Receives every enabled record once. `write` may be called from several
// threads at once; an implementation serialises its output itself. Exceptions
// thrown by `write` are swallowed by the caller.
class ILogSink
{
public:
    virtual ~ILogSink();
    virtual void write(const LogRecord& record) = 0;
};

// Installs `sink` for the whole process; nullptr restores the default sink,
// which writes each line of a record to standard error prefixed with the time,
// level, thread id and logger name. Records already being delivered finish on
// the sink they started with.
void setLogSink(std::shared_ptr<ILogSink> sink);

class Logger;

// One log record in the making. Returned by value from Logger::operator<<.
// Movable, not copyable; the moved-from object delivers nothing.
class ScopedLogger
{
public:
    // Inline so that a disabled record costs one threshold check and nothing else.
    inline ScopedLogger(const Logger& logger, LogLevel::logLevel level);
    ScopedLogger(ScopedLogger&& other) noexcept;
    ScopedLogger(const ScopedLogger&) = delete;
    ScopedLogger& operator=(const ScopedLogger&) = delete;
    ScopedLogger& operator=(ScopedLogger&&) = delete;
    // Hands the record to the sink if it is enabled. Never throws.
    ~ScopedLogger()
    {
        if (m_Enabled && m_Stream)
        {
            deliver();
        }
    }

    // Non-zero when the record's level passes its logger's threshold.
    bool isEnabled() const { return m_Enabled; }

    // The record's stream (booleans as "true"/"false"), or null when disabled.
    std::ostream* stream() { return m_Stream.get(); }

    template <typename T>
    ScopedLogger& operator<<(const T& value)
    {
        if (m_Enabled)
        {
            *m_Stream << value;
        }
        return *this;
    }

    // Manipulators such as std::endl (line end and flush) and std::hex.
    ScopedLogger& operator<<(std::ostream& (*manipulator)(std::ostream&))
    {
        if (m_Enabled)
        {
            manipulator(*m_Stream);
        }
        return *this;
    }

private:
    void openStream();
    void deliver() noexcept;

    const Logger* m_Logger;
    LogLevel::logLevel m_Level;
    bool m_Enabled;
    std::unique_ptr<std::ostringstream> m_Stream; // created only for enabled records
};

// A named log channel. Names are dotted paths such as
// "qor.nav.sdk.utils.UTF8Validator". Cheap to keep as a static; the threshold
// is looked up once and cached until thresholds change.
class Logger
{
public:
    explicit Logger(const std::string& name);
    ~Logger();
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    // Opens one record at `level`.
    ScopedLogger operator<<(LogLevel::logLevel level) const
    {
        return ScopedLogger(*this, level);
    }

    // True when records at `level` are written. Lock-free while the
    // thresholds stay as they are: one comparison with the cached value.
    bool isEnabled(LogLevel::logLevel level) const
    {
        const std::uint64_t cached = m_CachedThreshold.load(std::memory_order_relaxed);
        if ((cached >> 32) == s_ThresholdGeneration.load(std::memory_order_acquire))
        {
            return level >= static_cast<LogLevel::logLevel>(cached & 0xFFFFFFFFu);
        }
        return level >= refreshThreshold();
    }

    const std::string& getName() const { return m_Name; }

    // Threshold of every logger without a more specific setting (default Info).
    static void setDefaultThreshold(LogLevel::logLevel level);
    // Threshold of the loggers named `namePrefix` or "`namePrefix`.<anything>".
    static void setThreshold(const std::string& namePrefix, LogLevel::logLevel level);
    // Removes every prefix setting and restores the default threshold Info.
    static void resetThresholds();

private:
    // Looks the threshold up again and caches it with the current generation.
    LogLevel::logLevel refreshThreshold() const;

    // Generation of the threshold table: bumped by every threshold change, so
    // that each logger looks its threshold up again. Defined once, in the
    // library; constant-initialised, so usable during static construction
    // and destruction.
    static std::atomic<std::uint32_t> s_ThresholdGeneration;

    std::string m_Name;
    // Generation of the threshold table (high 32 bits) and the threshold
    // (low 32 bits) it gave for this logger; refreshed when the table changes.
    mutable std::atomic<std::uint64_t> m_CachedThreshold;
};

inline ScopedLogger::ScopedLogger(const Logger& logger, LogLevel::logLevel level)
    : m_Logger(&logger), m_Level(level), m_Enabled(logger.isEnabled(level))
{
    if (m_Enabled)
    {
        openStream();
    }
}

} // namespace qor::common::logging

#endif
