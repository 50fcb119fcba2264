#include "qor/common/watchdog/WatchDog.h"

#include "support/RecordingLogSink.h"
#include "support/TestSync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <thread>

namespace {

using qor::common::watchdog::WatchDog;
using qor::test::waitUntil;

// Refreshed, paused, never started and unlimited watchdogs stay silent past
// their limit, while silent ones are reported once per silence, or again every
// `repeat` ms, each time with the exact record text and the silence so far.
TEST(WatchDogTest, OnlySilencesAreReportedOnceOrRepeatedlyWithTheirLength)
{
    qor::test::RecordingLogSink::Installation sink;
    WatchDog control("ControlWatchdog", 1000, 0);
    WatchDog refreshed("RefreshedWatchdog", 1000, 0);
    WatchDog paused("PausedWatchdog", 1000, 0);
    WatchDog idle("IdleWatchdog", 1000, 0);
    WatchDog unlimited("UnlimitedWatchdog", 0, 0);
    WatchDog repeating("RepeatingWatchdog", 40, 40);
    WatchDog again("AgainWatchdog", 40, 0);
    for (WatchDog* dog : {&paused, &unlimited, &refreshed, &control, &repeating, &again})
    {
        dog->restart();
    }
    paused.pause();
    std::atomic<bool> stop{false};
    std::thread refresher([&] {
        for (; !stop.load(); std::this_thread::sleep_for(std::chrono::milliseconds(5)))
        {
            refreshed.RefreshWatchDog();
        }
    });
    ASSERT_TRUE(waitUntil([&] { return again.getReportCount() == 1; }));
    again.RefreshWatchDog(); // ends the silence: the next one is new
    ASSERT_TRUE(waitUntil([&] { return again.getReportCount() == 2; }));
    again.pause();
    again.restart();
    ASSERT_TRUE(waitUntil([&] { return again.getReportCount() == 3 && control.getReportCount() == 1; }));
    const std::uint64_t repeated = repeating.getReportCount();
    ASSERT_TRUE(waitUntil([&] { return repeating.getReportCount() >= repeated + 3; }));
    repeating.pause();
    stop = true;
    refresher.join();

    EXPECT_EQ(1u, control.getReportCount());
    EXPECT_EQ(3u, again.getReportCount());
    EXPECT_EQ(0u, refreshed.getReportCount() + paused.getReportCount() + idle.getReportCount() +
                      unlimited.getReportCount());
    // A report is counted just before its record is written.
    const std::uint64_t reports = 4 + repeating.getReportCount();
    ASSERT_TRUE(waitUntil([&] { return sink->recordsOf("qor.common.watchdog.WatchDog").size() == reports; }));
    long lastRepeat = 0;
    for (const auto& record : sink->recordsOf("qor.common.watchdog.WatchDog"))
    {
        char name[32] = {};
        long silence = 0;
        ASSERT_EQ(2, std::sscanf(record.text.c_str(), "WatchDog %31s not refreshed for %ld", name, &silence));
        const long limit = std::string(name) == "ControlWatchdog" ? 1000 : 40;
        EXPECT_EQ("WatchDog " + std::string(name) + " not refreshed for " + std::to_string(silence) + " ms (limit " +
                      std::to_string(limit) + " ms)\n",
                  record.text);
        EXPECT_EQ(qor::common::logging::LogLevel::Error, record.level);
        EXPECT_GE(silence, limit) << name;
        EXPECT_TRUE(std::string(name) != "RepeatingWatchdog" || silence >= lastRepeat + 40) << "repeated too early";
        lastRepeat = std::string(name) == "RepeatingWatchdog" ? silence : lastRepeat;
    }
}

// Watchdogs come and go in several threads at once; a short limit is
// watched at its own pace beside a long one and after spells with every
// watchdog paused; once the last watchdog is gone, a new one is watched again.
TEST(WatchDogTest, EachWatchdogKeepsItsPaceWhileOthersComeAndGo)
{
    qor::test::RecordingLogSink::Installation sink;
    {
        WatchDog slow("SlowPacedWatchdog", 400000, 0); // looked at every 100 s
        WatchDog quick("QuickWatchdog", 30, 0);
        slow.restart();
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
        {
            threads.emplace_back([] {
                for (int i = 0; i < 50; ++i)
                {
                    WatchDog("ShortLivedWatchdog", 1, 1).restart();
                }
            });
        }
        for (std::thread& thread : threads)
        {
            thread.join();
        }
        for (std::uint64_t round = 1; round <= 3; ++round)
        {
            quick.restart();
            ASSERT_TRUE(waitUntil([&] { return quick.getReportCount() == round; })) << "round " << round;
            quick.pause();
            if (round == 2)
            {
                slow.pause(); // the last round starts with every dog paused
            }
        }
        EXPECT_EQ(0u, slow.getReportCount());
    }
    WatchDog again("AfterStopWatchdog", 30, 0);
    again.restart();
    EXPECT_TRUE(waitUntil([&] { return again.getReportCount() == 1; }));
}

} // namespace
