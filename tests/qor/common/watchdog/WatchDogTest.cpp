#include "qor/common/watchdog/WatchDog.h"

#include "qor/common/logging/Logger.h"
#include "support/RecordingLogSink.h"
#include "support/TestSync.h"

#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using qor::common::logging::Logger;
using qor::common::logging::LogLevel;
using qor::common::logging::LogRecord;
using qor::common::watchdog::WatchDog;
using qor::test::Latch;
using qor::test::RecordingLogSink;

const char* const kLoggerName = "qor.common.watchdog.WatchDog";

// Reports of the watchdog `name`, as "not refreshed for" counts in ms.
std::vector<long> reportedSilences(const RecordingLogSink& sink, const std::string& name, unsigned int limit)
{
    const std::string head = "WatchDog " + name + " not refreshed for ";
    const std::string tail = " ms (limit " + std::to_string(limit) + " ms)\n";
    std::vector<long> silences;
    for (const LogRecord& record : sink.recordsOf(kLoggerName))
    {
        const std::string& text = record.text;
        if (text.compare(0, head.size(), head) != 0)
        {
            continue;
        }
        const std::size_t digits = text.find_first_not_of("0123456789", head.size());
        EXPECT_GT(digits, head.size()) << text;
        EXPECT_EQ(tail, text.substr(std::min(digits, text.size()))) << text;
        EXPECT_EQ(LogLevel::Error, record.level);
        silences.push_back(std::stol(text.substr(head.size(), digits - head.size())));
    }
    return silences;
}

// True while a thread named like the shared supervisor exists in this process.
bool supervisorThreadExists()
{
    DIR* tasks = ::opendir("/proc/self/task");
    if (tasks == nullptr)
    {
        return false;
    }
    bool found = false;
    while (dirent* entry = ::readdir(tasks))
    {
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        if (std::getline(comm, name) && name == "qorWatchDog")
        {
            found = true;
        }
    }
    ::closedir(tasks);
    return found;
}

// A thread that restarts `dog` and then really blocks, without refreshing,
// until released.
class BlockedThread
{
public:
    explicit BlockedThread(WatchDog& dog)
        : m_Thread([this, &dog] {
              dog.restart();
              m_Restarted.countDown();
              m_Release.waitFor(std::chrono::minutes(2));
          })
    {
        m_Restarted.waitFor();
    }
    ~BlockedThread()
    {
        m_Release.countDown();
        m_Thread.join();
    }

private:
    Latch m_Restarted{1};
    Latch m_Release{1};
    std::thread m_Thread;
};

class WatchDogTest : public ::testing::Test
{
protected:
    void SetUp() override { Logger::resetThresholds(); }
    RecordingLogSink::Installation sink = RecordingLogSink::install();
};

TEST_F(WatchDogTest, BlockedThreadIsReportedByName)
{
    WatchDog dog("BlockedWatchdog", 50, 0);
    BlockedThread blocked(dog);

    ASSERT_TRUE(sink->waitFor([](const LogRecord& r) {
        return r.loggerName == kLoggerName && r.text.find("BlockedWatchdog") != std::string::npos;
    }));
    const std::vector<long> silences = reportedSilences(*sink, "BlockedWatchdog", 50);
    ASSERT_EQ(1u, silences.size()) << "unexpected record text";
    EXPECT_GE(silences[0], 50);
    EXPECT_EQ(1u, dog.getReportCount());
}

TEST_F(WatchDogTest, RefreshedPausedIdleAndUnlimitedWatchdogsStaySilent)
{
    // The control dog, silent as long as the others, proves the supervisor was
    // checking all along. Several threads refresh `refreshed` at once.
    WatchDog control("ControlWatchdog", 1000, 0);
    WatchDog refreshed("RefreshedWatchdog", 1000, 0);
    WatchDog paused("PausedWatchdog", 1000, 0);
    WatchDog idle("IdleWatchdog", 1000, 0);       // never restarted
    WatchDog unlimited("UnlimitedWatchdog", 0, 0); // a zero limit disables it

    paused.restart();
    paused.pause();
    unlimited.restart();
    refreshed.restart();
    std::atomic<bool> stop{false};
    std::vector<std::thread> refreshers;
    for (int i = 0; i < 3; ++i)
    {
        refreshers.emplace_back([&] {
            while (!stop.load())
            {
                refreshed.RefreshWatchDog();
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        });
    }
    control.restart();

    ASSERT_TRUE(qor::test::waitUntil([&] { return control.getReportCount() >= 1; }));
    // The record follows the count; wait for it so that the texts below are complete.
    ASSERT_TRUE(sink->waitFor([](const LogRecord& r) { return r.text.find("ControlWatchdog") != std::string::npos; }));
    stop = true;
    for (std::thread& refresher : refreshers)
    {
        refresher.join();
    }

    EXPECT_EQ(0u, refreshed.getReportCount());
    EXPECT_EQ(0u, paused.getReportCount());
    EXPECT_EQ(0u, idle.getReportCount());
    EXPECT_EQ(0u, unlimited.getReportCount());
    for (const std::string& text : sink->textsOf(kLoggerName))
    {
        EXPECT_NE(std::string::npos, text.find("ControlWatchdog")) << text;
    }
}

TEST_F(WatchDogTest, RepeatArgumentReportsAContinuingSilenceAgain)
{
    WatchDog repeating("RepeatingWatchdog", 40, 40);
    WatchDog once("OnceWatchdog", 40, 0);
    repeating.restart();
    once.restart();

    ASSERT_TRUE(qor::test::waitUntil([&] { return repeating.getReportCount() >= 3; }));
    // Equal limits, restarted together: `once` was overdue all along.
    EXPECT_EQ(1u, once.getReportCount());

    const std::vector<long> silences = reportedSilences(*sink, "RepeatingWatchdog", 40);
    ASSERT_GE(silences.size(), 3u);
    EXPECT_GE(silences[0], 40);
    for (std::size_t i = 1; i < silences.size(); ++i)
    {
        EXPECT_GE(silences[i], silences[i - 1] + 40) << "report " << i;
    }
}

TEST_F(WatchDogTest, RefreshEndsASilenceAndANewSilenceIsReportedAgain)
{
    WatchDog dog("AgainWatchdog", 40, 0);
    dog.restart();
    ASSERT_TRUE(qor::test::waitUntil([&] { return dog.getReportCount() == 1; }));
    dog.RefreshWatchDog();
    ASSERT_TRUE(qor::test::waitUntil([&] { return dog.getReportCount() == 2; }));

    // A restart after a pause is a fresh start too.
    dog.pause();
    dog.restart();
    ASSERT_TRUE(qor::test::waitUntil([&] { return dog.getReportCount() == 3; }));
    // A report is counted just before its record is written.
    EXPECT_TRUE(qor::test::waitUntil([&] { return reportedSilences(*sink, "AgainWatchdog", 40).size() == 3u; }));
}

TEST_F(WatchDogTest, LastWatchdogGoneStopsTheSupervisorAndANewOneRestartsIt)
{
    {
        WatchDog first("FirstWatchdog", 100000, 0);
        WatchDog second("SecondWatchdog", 100000, 0);
        first.restart();
        ASSERT_TRUE(qor::test::waitUntil(&supervisorThreadExists));
    }
    // The destructor of the last watchdog joins the supervisor.
    EXPECT_TRUE(qor::test::waitUntil([] { return !supervisorThreadExists(); }));

    WatchDog again("AgainAfterStopWatchdog", 30, 0);
    again.restart();
    EXPECT_TRUE(qor::test::waitUntil([&] { return again.getReportCount() == 1; }));
}

TEST_F(WatchDogTest, WatchdogsComeAndGoFromManyThreads)
{
    WatchDog longLived("LongLivedWatchdog", 30, 0);
    longLived.restart();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
    {
        threads.emplace_back([t] {
            for (int i = 0; i < 50; ++i)
            {
                WatchDog dog("ShortLived" + std::to_string(t), 1, 1);
                dog.restart();
                dog.RefreshWatchDog();
                dog.pause();
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_TRUE(qor::test::waitUntil([&] { return longLived.getReportCount() >= 1; }));
}

TEST_F(WatchDogTest, ShortLimitIsWatchedBesideLongOnesAndAfterIdleSpells)
{
    // A short-limit dog started while only a slow-paced dog runs, or while all
    // dogs are paused, must still be looked at at its own pace.
    WatchDog slow("SlowPacedWatchdog", 400000, 0); // looked at every 100 s
    WatchDog quick("QuickWatchdog", 30, 0);
    slow.restart();
    ASSERT_TRUE(qor::test::waitUntil(&supervisorThreadExists));

    for (std::uint64_t round = 1; round <= 3; ++round)
    {
        quick.restart();
        ASSERT_TRUE(qor::test::waitUntil([&] { return quick.getReportCount() == round; }, qor::test::scaled(std::chrono::seconds(20))))
            << "round " << round;
        quick.pause();
        if (round == 2)
        {
            slow.pause(); // the last round starts with every dog paused
        }
    }
    EXPECT_EQ(0u, slow.getReportCount());
}

} // namespace
