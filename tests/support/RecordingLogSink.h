// A log sink that records every record, for tests that check log output.
//
//   RecordingLogSink::Installation sink;   // restores the default sink when destroyed
//   ... code under test ...
//   EXPECT_TRUE(sink->waitFor([](const LogRecord& r) { return r.text == "started.\n"; }));
#ifndef QOR_TESTS_SUPPORT_RECORDINGLOGSINK_H
#define QOR_TESTS_SUPPORT_RECORDINGLOGSINK_H

#include "qor/common/logging/Logger.h"
#include "support/TestSync.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace qor::test {

class RecordingLogSink : public common::logging::ILogSink
{
public:
    using LogRecord = common::logging::LogRecord;
    using Match = std::function<bool(const LogRecord&)>;

    // Installs a new recording sink for the whole process.
    class Installation
    {
    public:
        Installation() : m_Sink(std::make_shared<RecordingLogSink>()) { common::logging::setLogSink(m_Sink); }
        ~Installation() { common::logging::setLogSink(nullptr); }
        Installation(const Installation&) = delete;
        Installation& operator=(const Installation&) = delete;
        RecordingLogSink* operator->() const { return m_Sink.get(); }

    private:
        std::shared_ptr<RecordingLogSink> m_Sink;
    };

    void write(const LogRecord& record) override
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Records.push_back(record);
        m_Changed.notify_all();
    }

    std::vector<LogRecord> records() const
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Records;
    }

    // Records of one logger, in arrival order.
    std::vector<LogRecord> recordsOf(const std::string& loggerName) const
    {
        std::vector<LogRecord> result = records();
        result.erase(std::remove_if(result.begin(), result.end(),
                                    [&](const LogRecord& r) { return r.loggerName != loggerName; }),
                     result.end());
        return result;
    }

    std::size_t count(const Match& match) const
    {
        const std::vector<LogRecord> all = records();
        return static_cast<std::size_t>(std::count_if(all.begin(), all.end(), match));
    }

    // Waits until a record matches; false when `timeout` passes first.
    bool waitFor(const Match& match, std::chrono::milliseconds timeout = kDefaultDeadline) const
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Changed.wait_for(lock, timeout,
                                  [&] { return std::any_of(m_Records.begin(), m_Records.end(), match); });
    }

    void clear()
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Records.clear();
    }

private:
    mutable std::mutex m_Mutex;
    mutable std::condition_variable m_Changed;
    std::vector<LogRecord> m_Records;
};

} // namespace qor::test

#endif
