#include "Support.h"

#include "qor/common/system/Thread.h"

#include <cstdio>
#include <iostream>

namespace demo {

namespace {

std::mutex& consoleMutex()
{
    static std::mutex mutex;
    return mutex;
}

} // namespace

void say(const std::string& text)
{
    char thread[32];
    std::snprintf(thread, sizeof thread, "[%-14s]", qor::common::system::Thread::getCurrentThread().getName());
    std::lock_guard<std::mutex> lock(consoleMutex());
    std::cout << thread << ' ' << text << '\n' << std::flush;
}

void ConsoleLogSink::write(const qor::common::logging::LogRecord& record)
{
    using qor::common::logging::LogLevel;
    if (record.level >= LogLevel::Warning)
    {
        ++m_WarningsAndErrors;
    }
    static const std::string s_Common = "qor.nav.sdk.utils.";
    std::string name = record.loggerName;
    if (name.compare(0, s_Common.size(), s_Common) == 0)
    {
        name.erase(0, s_Common.size());
    }
    const std::string prefix = std::string("  log ") + LogLevel::toString(record.level) + ' ' + name + ": ";
    std::size_t start = 0;
    while (start < record.text.size())
    {
        std::size_t end = record.text.find('\n', start);
        if (end == std::string::npos)
        {
            end = record.text.size();
        }
        say(prefix + record.text.substr(start, end - start));
        start = end + 1;
    }
}

void Completion::set()
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Done = true;
    m_Changed.notify_all();
}

bool Completion::waitUntil(std::chrono::steady_clock::time_point deadline)
{
    std::unique_lock<std::mutex> lock(m_Mutex);
    return m_Changed.wait_until(lock, deadline, [this] { return m_Done; });
}

std::string escaped(const std::string& bytes, bool keepUtf8)
{
    std::string out;
    for (unsigned char byte : bytes)
    {
        if ((byte >= 0x20 && byte < 0x7F) || (keepUtf8 && byte >= 0x80))
        {
            out += static_cast<char>(byte);
        }
        else
        {
            char code[8];
            std::snprintf(code, sizeof code, "\\x%02X", byte);
            out += code;
        }
    }
    return out;
}

} // namespace demo
