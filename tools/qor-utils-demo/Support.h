// Small helpers shared by the parts of qor-utils-demo: one console that every
// thread prints through, a log sink that sends the libraries' log records to
// that console, a one-shot completion flag with a deadline, and byte escaping
// for texts that are not printable as they stand.
//
// Threads: every function and every operation here may be called from any
// thread.
#ifndef QOR_UTILS_DEMO_SUPPORT_H
#define QOR_UTILS_DEMO_SUPPORT_H

#include "qor/common/logging/Logger.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

namespace demo {

// Prints `text` as one line on standard output, prefixed with the name of the
// calling thread's foundation Thread, so that lines of different threads
// never mix and show where the work ran.
void say(const std::string& text);

// Hands every log record to say(), one console line per record line, with
// its level and the logger name (without the common "qor.nav.sdk.utils."
// part). Counts the records at Warning and above.
class ConsoleLogSink : public qor::common::logging::ILogSink
{
public:
    void write(const qor::common::logging::LogRecord& record) override;
    int warningsAndErrors() const { return m_WarningsAndErrors.load(); }

private:
    std::atomic<int> m_WarningsAndErrors{0};
};

// Set once by the work, waited for by main() with a deadline.
class Completion
{
public:
    void set();
    // True once set(), false if `deadline` passed first.
    bool waitUntil(std::chrono::steady_clock::time_point deadline);

private:
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    bool m_Done = false;
};

// `bytes` with printable ASCII kept and control bytes written as \xNN; bytes
// from 0x80 up are kept when `keepUtf8` is set (for strict UTF-8 that the
// terminal can show) and written as \xNN otherwise.
std::string escaped(const std::string& bytes, bool keepUtf8);

} // namespace demo

#endif
