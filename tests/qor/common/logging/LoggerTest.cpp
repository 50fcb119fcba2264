#include "qor/common/logging/Logger.h"

#include "support/RecordingLogSink.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <map>
#include <random>
#include <stdexcept>
#include <thread>

namespace {

using qor::common::logging::Logger;
using qor::common::logging::LogLevel;
using qor::common::logging::ScopedLogger;

// Random threshold changes against the rule: the longest prefix that is the
// whole name or ends at one of its dots decides, else the default. The
// loggers live through all changes, so their cached thresholds must follow.
TEST(LoggerTest, ThresholdsFollowTheLongestDottedPrefix)
{
    const std::string names[] = {"a", "a.b", "a.bc", "a.b.c", "a.b.c.d", "b"};
    std::vector<std::unique_ptr<Logger>> loggers;
    std::map<std::string, int> model; // prefix -> threshold; "" is the default
    std::mt19937 random(2024);
    for (int step = 0; step < 400; ++step)
    {
        const auto level = static_cast<LogLevel::logLevel>(LogLevel::Trace + random() % 6);
        const std::size_t which = random() % 8;
        which == 6 ? Logger::resetThresholds()
                   : which == 7 ? Logger::setDefaultThreshold(level) : Logger::setThreshold(names[which], level);
        which == 6 ? model.clear() : void(model[which == 7 ? "" : names[which]] = level);
        loggers.emplace_back(new Logger(names[step % 6])); // new ones beside those that cached
        for (const std::unique_ptr<Logger>& logger : loggers)
        {
            const std::string& name = logger->getName();
            int expected = LogLevel::Info;
            for (const auto& entry : model) // a longer matching prefix sorts later
            {
                const std::string& p = entry.first;
                expected = p.empty() || name == p || name.rfind(p + ".", 0) == 0 ? entry.second : expected;
            }
            for (int l = LogLevel::Trace; l <= LogLevel::Fatal; ++l)
            {
                ASSERT_EQ(l >= expected, logger->isEnabled(static_cast<LogLevel::logLevel>(l))) << step << name << l;
            }
        }
    }
    Logger::resetThresholds();
}

struct ThrowingSink : qor::common::logging::ILogSink
{
    void write(const qor::common::logging::LogRecord&) override { throw std::runtime_error("sink failed"); }
};

TEST(LoggerTest, EnabledRecordsArriveOnceWithTheirFieldsAndDisabledOnesFormatNothing)
{
    qor::test::RecordingLogSink::Installation sink;
    const Logger log("qor.test.record");
    ScopedLogger disabled = log << LogLevel::Debug;
    EXPECT_EQ(nullptr, disabled.stream());
    disabled << "lost" << std::endl;
    log << LogLevel::Warning << "n=" << 42u << " " << true << "/" << false << std::endl << "2nd" << std::endl;
    {
        ScopedLogger first = log << LogLevel::Error;
        first << "no line end, ";
        ScopedLogger second(std::move(first));
        first << "lost";
        second << "moved";
    }
    const auto records = sink->records();
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ("n=42 true/false\n2nd\n", records[0].text);
    EXPECT_EQ(LogLevel::Warning, records[0].level);
    EXPECT_EQ(static_cast<std::uint64_t>(::gettid()), records[0].threadId);
    EXPECT_NEAR(static_cast<double>(std::time(nullptr)), records[1].timestampMicros / 1e6, 10.0);
    EXPECT_EQ("no line end, moved", records[1].text);
    EXPECT_EQ(LogLevel::Error, records[1].level);
    qor::common::logging::setLogSink(std::make_shared<ThrowingSink>());
    EXPECT_NO_THROW(log << LogLevel::Error << "lost" << std::endl);
}

// Each line: "YYYY-MM-DD hh:mm:ss.uuuuuu LEVEL   [tid] logger: text", a line
// end added where the text has none. Records of several threads at once keep
// their lines whole, together and in each thread's order.
TEST(LoggerTest, DefaultSinkWritesWholePrefixedLinesFromManyThreads)
{
    Logger::setDefaultThreshold(LogLevel::Trace);
    static Logger log("qor.test.stderr");
    const char* const levels[] = {"TRACE  ", "DEBUG  ", "INFO   ", "WARNING", "ERROR  ", "FATAL  "};
    std::vector<std::thread> threads;
    ::testing::internal::CaptureStderr();
    for (int t = 0; t < 6; ++t) // one thread per level
    {
        threads.emplace_back([t] {
            for (int r = 0; r < 100; ++r)
            {
                log << static_cast<LogLevel::logLevel>(LogLevel::Trace + t) << "thread " << t << " record " << r
                    << std::endl
                    << "tail";
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    std::istringstream output(::testing::internal::GetCapturedStderr());
    const std::string stamp = "dddd-dd-dd dd:dd:dd.dddddd ";
    std::vector<int> next(6, 0);
    for (std::string line, tail; std::getline(output, line);)
    {
        ASSERT_TRUE(std::getline(output, tail) && line.size() > stamp.size()) << line;
        for (std::size_t c = 0; c < stamp.size(); ++c)
        {
            ASSERT_TRUE(stamp[c] == 'd' ? line[c] >= '0' && line[c] <= '9' : line[c] == stamp[c]) << line;
        }
        int t = -1;
        unsigned long tid = 0;
        ASSERT_EQ(2, std::sscanf(line.c_str() + stamp.size(), "%*s [%lu] qor.test.stderr: thread %d", &tid, &t)) << line;
        ASSERT_TRUE(t >= 0 && t < 6) << line;
        const std::string head = line.substr(0, stamp.size()) + levels[t] + " [" + std::to_string(tid) + "] ";
        ASSERT_EQ(head + "qor.test.stderr: thread " + std::to_string(t) + " record " + std::to_string(next[t]++), line);
        ASSERT_EQ(head + "qor.test.stderr: tail", tail);
    }
    EXPECT_EQ(std::vector<int>(6, 100), next);
    Logger::resetThresholds();
}

} // namespace
