#include "qor/common/logging/Logger.h"

#include "support/RecordingLogSink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using qor::common::logging::ILogSink;
using qor::common::logging::Logger;
using qor::common::logging::LogLevel;
using qor::common::logging::LogRecord;
using qor::common::logging::ScopedLogger;
using qor::test::RecordingLogSink;

std::uint64_t kernelThreadId()
{
    return static_cast<std::uint64_t>(::syscall(SYS_gettid));
}

// Counts how often it is formatted into a stream.
struct FormatCounter
{
    mutable int formatted = 0;
};

std::ostream& operator<<(std::ostream& os, const FormatCounter& counter)
{
    ++counter.formatted;
    return os << "counted";
}

class LoggerTest : public ::testing::Test
{
protected:
    void SetUp() override { Logger::resetThresholds(); }
    void TearDown() override { Logger::resetThresholds(); }
};

TEST_F(LoggerTest, LongestMatchingPrefixDecidesOnDottedBoundaries)
{
    Logger::setDefaultThreshold(LogLevel::Warning);
    // Longer prefix set first, so that the result cannot come from set order.
    Logger::setThreshold("a.b.c", LogLevel::Error);
    Logger::setThreshold("a.b", LogLevel::Debug);

    // Lowest enabled level per logger; "a.bc" does not continue "a.b" with a dot.
    const std::vector<std::pair<const char*, LogLevel::logLevel>> cases = {
        {"a.b", LogLevel::Debug},       {"a.b.x", LogLevel::Debug}, {"a.bc", LogLevel::Warning},
        {"a.b.c.d", LogLevel::Error}, {"a", LogLevel::Warning},
    };
    for (const auto& c : cases)
    {
        const Logger log(c.first);
        EXPECT_TRUE(log.isEnabled(c.second)) << c.first;
        EXPECT_FALSE(log.isEnabled(static_cast<LogLevel::logLevel>(c.second - 1))) << c.first;
    }
    Logger::resetThresholds();
    const Logger afterReset("a.b.c.d");
    EXPECT_FALSE(afterReset.isEnabled(LogLevel::Debug));
    EXPECT_TRUE(afterReset.isEnabled(LogLevel::Info));
}

TEST_F(LoggerTest, ThresholdChangesReachLoggersThatAlreadyLogged)
{
    auto sink = RecordingLogSink::install();
    static Logger log("qor.test.cached");

    log << LogLevel::Debug << "before" << std::endl;   // caches Info
    Logger::setThreshold("qor.test", LogLevel::Debug);
    log << LogLevel::Debug << "after" << std::endl;
    Logger::setDefaultThreshold(LogLevel::Fatal);      // the prefix still wins
    log << LogLevel::Debug << "prefix wins" << std::endl;
    Logger::resetThresholds();
    log << LogLevel::Debug << "reset" << std::endl;

    EXPECT_THAT(sink->textsOf("qor.test.cached"), ::testing::ElementsAre("after\n", "prefix wins\n"));
}

TEST_F(LoggerTest, DisabledRecordFormatsNothingAndReachesNoSink)
{
    auto sink = RecordingLogSink::install();
    const Logger log("qor.test.disabled");
    FormatCounter counter;

    {
        ScopedLogger record = log << LogLevel::Debug;
        EXPECT_FALSE(record.isEnabled());
        EXPECT_EQ(nullptr, record.stream());
        record << counter << 42 << std::string("text") << std::endl;
    }
    EXPECT_EQ(0, counter.formatted);
    EXPECT_TRUE(sink->records().empty());

    log << LogLevel::Info << counter << std::endl;
    EXPECT_EQ(1, counter.formatted);
    EXPECT_THAT(sink->textsOf("qor.test.disabled"), ::testing::ElementsAre("counted\n"));
}

TEST_F(LoggerTest, RecordCarriesExactTextLevelNameAndThread)
{
    auto sink = RecordingLogSink::install();
    const Logger log("qor.test.record");
    const void* pointer = reinterpret_cast<const void*>(0x1234);
    std::ostringstream expectedPointer;
    expectedPointer << pointer;

    log << LogLevel::Warning << "n=" << 42u << " m=" << -7 << " " << true << "/" << false << " p=" << pointer
        << std::endl
        << std::string("second line") << std::endl;
    log << LogLevel::Error << "no line end";

    const std::vector<LogRecord> records = sink->recordsOf("qor.test.record");
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ("n=42 m=-7 true/false p=" + expectedPointer.str() + "\nsecond line\n", records[0].text);
    EXPECT_EQ(LogLevel::Warning, records[0].level);
    EXPECT_EQ(kernelThreadId(), records[0].threadId);
    EXPECT_NE(0u, records[0].timestampMicros);
    EXPECT_EQ("no line end", records[1].text);
    EXPECT_EQ(LogLevel::Error, records[1].level);
}

TEST_F(LoggerTest, MovedFromRecordDeliversNothing)
{
    auto sink = RecordingLogSink::install();
    const Logger log("qor.test.moved");
    {
        ScopedLogger first = log << LogLevel::Info;
        first << "part one, ";
        ScopedLogger second(std::move(first));
        EXPECT_FALSE(first.isEnabled());
        first << "lost";
        second << "part two" << std::endl;
    }
    EXPECT_THAT(sink->textsOf("qor.test.moved"), ::testing::ElementsAre("part one, part two\n"));
}

class ThrowingSink : public ILogSink
{
public:
    void write(const LogRecord&) override
    {
        ++calls;
        throw std::runtime_error("sink failed");
    }
    std::atomic<int> calls{0};
};

TEST_F(LoggerTest, FailingSinkDoesNotThrowIntoTheCaller)
{
    auto sink = std::make_shared<ThrowingSink>();
    qor::common::logging::setLogSink(sink);
    const Logger log("qor.test.throwing");
    EXPECT_NO_THROW(log << LogLevel::Error << "lost" << std::endl);
    qor::common::logging::setLogSink(nullptr);
    EXPECT_EQ(1, sink->calls.load());
}

TEST_F(LoggerTest, RecordsFromManyThreadsArriveWholeAndOnce)
{
    auto sink = RecordingLogSink::install();
    static Logger log("qor.test.concurrent");
    constexpr int kThreads = 4;
    constexpr int kRecords = 500;

    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
    {
        threads.emplace_back([t] {
            for (int r = 0; r < kRecords; ++r)
            {
                // Several insertions and two lines: torn records would show.
                log << LogLevel::Info << "thread " << t << " record " << r << std::endl
                    << "  tail " << t << "/" << r << std::endl;
            }
        });
    }
    // Thresholds change meanwhile; Info stays enabled throughout.
    for (int i = 0; i < 200; ++i)
    {
        Logger::setThreshold("qor.test.other" + std::to_string(i % 5), LogLevel::Trace);
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }

    const std::vector<LogRecord> records = sink->recordsOf("qor.test.concurrent");
    ASSERT_EQ(static_cast<std::size_t>(kThreads * kRecords), records.size());
    std::vector<int> nextRecord(kThreads, 0);
    std::map<int, std::uint64_t> threadIds;
    for (const LogRecord& record : records)
    {
        int t = -1;
        int r = -1;
        ASSERT_EQ(2, std::sscanf(record.text.c_str(), "thread %d record %d", &t, &r)) << record.text;
        ASSERT_TRUE(t >= 0 && t < kThreads) << record.text;
        ASSERT_EQ("thread " + std::to_string(t) + " record " + std::to_string(r) + "\n  tail " + std::to_string(t) +
                      "/" + std::to_string(r) + "\n",
                  record.text);
        // Each thread's records arrive in the order it wrote them.
        ASSERT_EQ(nextRecord[t], r);
        ++nextRecord[t];
        auto inserted = threadIds.emplace(t, record.threadId);
        EXPECT_EQ(inserted.first->second, record.threadId);
    }
    EXPECT_EQ(static_cast<std::size_t>(kThreads), threadIds.size());
}

TEST_F(LoggerTest, DefaultSinkWritesOnePrefixedStderrLinePerRecordLine)
{
    qor::common::logging::setLogSink(nullptr);
    const Logger log("qor.test.stderr");

    ::testing::internal::CaptureStderr();
    log << LogLevel::Error << "first line" << std::endl << "second line" << std::endl;
    log << LogLevel::Warning << "unterminated";
    log << LogLevel::Debug << "disabled" << std::endl;
    const std::string output = ::testing::internal::GetCapturedStderr();

    const std::string tid = std::to_string(kernelThreadId());
    // Each line: "YYYY-MM-DD hh:mm:ss.uuuuuu LEVEL   [tid] logger: text".
    const std::string shape = "dddd-dd-dd dd:dd:dd.dddddd";
    const std::vector<std::string> tails{
        " ERROR   [" + tid + "] qor.test.stderr: first line\n",
        " ERROR   [" + tid + "] qor.test.stderr: second line\n",
        " WARNING [" + tid + "] qor.test.stderr: unterminated\n",
    };
    std::size_t at = 0;
    for (const std::string& tail : tails)
    {
        ASSERT_LE(at + shape.size(), output.size()) << output;
        for (std::size_t i = 0; i < shape.size(); ++i)
        {
            const char c = output[at + i];
            ASSERT_TRUE(shape[i] == 'd' ? (c >= '0' && c <= '9') : c == shape[i]) << output.substr(at);
        }
        at += shape.size();
        ASSERT_EQ(tail, output.substr(at, tail.size())) << output;
        at += tail.size();
    }
    EXPECT_EQ(output.size(), at) << output;
}

TEST(LogLevelTest, NamesLevelsAndMarksUnknownValues)
{
    EXPECT_STREQ("TRACE", LogLevel::toString(LogLevel::Trace));
    EXPECT_STREQ("FATAL", LogLevel::toString(LogLevel::Fatal));
    EXPECT_STREQ("LEVEL?", LogLevel::toString(static_cast<LogLevel::logLevel>(0)));
}

} // namespace
