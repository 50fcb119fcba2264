#include "qor/nav/sdk/utils/memory/MemoryManager.h"

#include "qor/nav/sdk/utils/memory/DeathTestPatterns.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/AllocationStatistics.h"
#include "support/RecordingLogSink.h"
#include "support/RecordingMemoryListener.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

namespace qor {
namespace nav {
namespace sdk {
namespace utils {
namespace memory {
namespace {

using common::logging::Logger;
using common::logging::LogLevel;
using allocator::policy::AllocationStatistics;
using test::RecordingLogSink;
using test::RecordingMemoryListener;
using Notification = RecordingMemoryListener::Notification;
using Notifications = std::vector<Notification>;

const char* const s_LoggerName = "qor.nav.sdk.utils.memory.MemoryManager";
constexpr unsigned long s_ChunkBytes = 4096;

// Log thresholds low enough for every record of the manager; restored after.
class AllLevelsLogged
{
public:
    AllLevelsLogged() { Logger::setDefaultThreshold(LogLevel::Trace); }
    ~AllLevelsLogged() { Logger::resetThresholds(); }
};

// A budget of 100 chunks, so that chunks in use read as percent, with one
// recording listener.
class MemoryManagerTest : public ::testing::Test
{
protected:
    MemoryManager m_Manager{100 * s_ChunkBytes};
    RecordingMemoryListener m_Listener;
    RecordingMemoryListener::Registration m_Registration{m_Manager, m_Listener};
};

TEST(MemoryManagerConstructionTest, BudgetIsTheLimitInWholeChunks)
{
    MemoryManager manager(1048576);
    EXPECT_EQ(Normal, manager.getMemoryStatus());
    EXPECT_EQ(0.0f, manager.getMemoryConsumption());

    MemoryManager truncated(3 * s_ChunkBytes + 4095);
    EXPECT_FALSE(truncated.requestChunks(4));
    EXPECT_TRUE(truncated.requestChunks(3));
    EXPECT_EQ(1.0f, truncated.getMemoryConsumption());
}

TEST(MemoryManagerConstructionTest, CreationAndShutdownAreLoggedAtDebug)
{
    AllLevelsLogged levels;
    auto sink = RecordingLogSink::install();
    {
        MemoryManager manager(1048576);
    }
    const auto records = sink->recordsOf(s_LoggerName);
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ("MemoryManagerInitialized memory manager with a limit of 256 chunks!\n", records[0].text);
    EXPECT_EQ(LogLevel::Debug, records[0].level);
    EXPECT_EQ("~MemoryManagerShutting down memory manager.\n", records[1].text);
    EXPECT_EQ(LogLevel::Debug, records[1].level);
}

TEST(MemoryManagerConstructionTest, BudgetBelowOneChunkGrantsNothingAndNeverChangesLevel)
{
    AllLevelsLogged levels;
    auto sink = RecordingLogSink::install();
    MemoryManager manager(s_ChunkBytes - 1);
    RecordingMemoryListener listener;
    RecordingMemoryListener::Registration registration(manager, listener);

    EXPECT_FALSE(manager.requestChunks(1));
    EXPECT_TRUE(manager.requestChunks(0));
    manager.returnChunks(0);
    EXPECT_TRUE(std::isnan(manager.getMemoryConsumption()));
    EXPECT_EQ(Normal, manager.getMemoryStatus());
    EXPECT_EQ(0u, listener.count());
    EXPECT_EQ("MemoryManagerInitialized memory manager with a limit of 0 chunks!\n", sink->textsOf(s_LoggerName).at(0));
}

TEST(MemoryManagerConstructionTest, ProcessWideInstanceHas512MiB)
{
    MemoryManager& instance = MemoryManager::locateInstance();
    EXPECT_EQ(&instance, &MemoryManager::locateInstance());

    EXPECT_FALSE(instance.requestChunks(131073));
    ASSERT_TRUE(instance.requestChunks(131072));
    EXPECT_EQ(Critical, instance.getMemoryStatus());
    instance.returnChunks(131072);
    EXPECT_EQ(Normal, instance.getMemoryStatus());
    EXPECT_EQ(0.0f, instance.getMemoryConsumption());
}

TEST_F(MemoryManagerTest, LevelRisesOnlyPastEachThreshold)
{
    const struct
    {
        unsigned long request;
        unsigned long inUse;
        MemoryStatus expected;
    } steps[] = {
        {70, 70, Normal},   // 0.70 is not above 0.70
        {1, 71, Elevated},  //
        {18, 89, Elevated}, // 0.89 is not above 0.89
        {1, 90, High},      //
        {8, 98, High},      // 0.98 is not above 0.98
        {1, 99, Critical},
    };
    for (const auto& step : steps)
    {
        SCOPED_TRACE(step.inUse);
        ASSERT_TRUE(m_Manager.requestChunks(step.request));
        EXPECT_EQ(step.expected, m_Manager.getMemoryStatus());
        EXPECT_EQ(static_cast<float>(step.inUse) / 100.0f, m_Manager.getMemoryConsumption());
    }
    EXPECT_EQ((Notifications{{Elevated, Normal}, {High, Elevated}, {Critical, High}}), m_Listener.notifications());
}

TEST_F(MemoryManagerTest, LevelFallsOnlyBelowTheLowerThresholds)
{
    ASSERT_TRUE(m_Manager.requestChunks(99));
    m_Listener.clear();
    const struct
    {
        unsigned long giveBack;
        unsigned long inUse;
        MemoryStatus expected;
    } steps[] = {
        {4, 95, Critical},  // 0.95 is not below 0.95
        {1, 94, High},      //
        {9, 85, High},      // 0.85 is not below 0.85
        {1, 84, Elevated},  //
        {18, 66, Elevated}, //
        {1, 65, Elevated},  // 0.65 is not below 0.65
        {1, 64, Normal},
    };
    for (const auto& step : steps)
    {
        SCOPED_TRACE(step.inUse);
        m_Manager.returnChunks(step.giveBack);
        EXPECT_EQ(step.expected, m_Manager.getMemoryStatus());
        EXPECT_EQ(static_cast<float>(step.inUse) / 100.0f, m_Manager.getMemoryConsumption());
    }
    EXPECT_EQ((Notifications{{High, Critical}, {Elevated, High}, {Normal, Elevated}}), m_Listener.notifications());
}

TEST_F(MemoryManagerTest, OneCallCrossingSeveralLevelsNotifiesOnceWithTheFinalLevel)
{
    ASSERT_TRUE(m_Manager.requestChunks(99));
    EXPECT_EQ((Notifications{{Critical, Normal}}), m_Listener.notifications());

    m_Listener.clear();
    m_Manager.returnChunks(30); // 69 in use: below 0.95 and 0.85, not below 0.65
    EXPECT_EQ((Notifications{{Elevated, Critical}}), m_Listener.notifications());

    m_Listener.clear();
    m_Manager.returnChunks(69);
    EXPECT_EQ((Notifications{{Normal, Elevated}}), m_Listener.notifications());
    EXPECT_EQ(0.0f, m_Manager.getMemoryConsumption());
}

TEST_F(MemoryManagerTest, CallsThatKeepTheLevelNotifyNobody)
{
    ASSERT_TRUE(m_Manager.requestChunks(75));
    m_Listener.clear();
    ASSERT_TRUE(m_Manager.requestChunks(0));
    ASSERT_TRUE(m_Manager.requestChunks(5));
    m_Manager.returnChunks(10);
    m_Manager.returnChunks(0);
    EXPECT_EQ(Elevated, m_Manager.getMemoryStatus());
    EXPECT_EQ(0.70f, m_Manager.getMemoryConsumption());
    EXPECT_EQ(0u, m_Listener.count());
}

TEST_F(MemoryManagerTest, RefusedRequestChangesNothing)
{
    ASSERT_TRUE(m_Manager.requestChunks(60));
    m_Listener.clear();

    EXPECT_FALSE(m_Manager.requestChunks(41));
    EXPECT_EQ(0.60f, m_Manager.getMemoryConsumption());
    EXPECT_EQ(Normal, m_Manager.getMemoryStatus());
    EXPECT_EQ(0u, m_Listener.count());

    // Exactly the remaining chunks are granted.
    ASSERT_TRUE(m_Manager.requestChunks(40));
    EXPECT_EQ(1.0f, m_Manager.getMemoryConsumption());
    EXPECT_EQ((Notifications{{Critical, Normal}}), m_Listener.notifications());
}

TEST_F(MemoryManagerTest, CriticalRefusesRequestsUntilConsumptionDropsBelow95Percent)
{
    ASSERT_TRUE(m_Manager.requestChunks(99));
    EXPECT_FALSE(m_Manager.requestChunks(1)); // one chunk is still available
    EXPECT_FALSE(m_Manager.requestChunks(0));
    EXPECT_EQ(0.99f, m_Manager.getMemoryConsumption());

    m_Manager.returnChunks(4);
    EXPECT_FALSE(m_Manager.requestChunks(1)); // 95 in use: still Critical

    m_Manager.returnChunks(1);
    EXPECT_TRUE(m_Manager.requestChunks(1)); // back to 95 in use, High stays
    EXPECT_EQ(High, m_Manager.getMemoryStatus());
    EXPECT_EQ((Notifications{{Critical, Normal}, {High, Critical}}), m_Listener.notifications());
}

TEST_F(MemoryManagerTest, ListenersAreCalledNewestFirstOnTheRequestingThread)
{
    RecordingMemoryListener::CallJournal journal;
    RecordingMemoryListener first(&journal);
    RecordingMemoryListener second(&journal);
    RecordingMemoryListener third(&journal);
    RecordingMemoryListener::Registration r1(m_Manager, first);
    RecordingMemoryListener::Registration r2(m_Manager, second);
    RecordingMemoryListener::Registration r3(m_Manager, third);

    std::thread::id requester;
    std::thread worker([&] {
        requester = std::this_thread::get_id();
        EXPECT_TRUE(m_Manager.requestChunks(80));
    });
    worker.join();

    EXPECT_EQ((std::vector<const RecordingMemoryListener*>{&third, &second, &first}), journal.calls());
    for (const RecordingMemoryListener* listener : {&first, &second, &third})
    {
        EXPECT_EQ((Notifications{{Elevated, Normal}}), listener->notifications());
        EXPECT_EQ(std::vector<std::thread::id>{requester}, listener->threads());
    }
}

TEST_F(MemoryManagerTest, ThrowingListenerPassesTheExceptionOnAndReleasesTheLocks)
{
    RecordingMemoryListener thrower;
    thrower.setThrowing(true);
    {
        RecordingMemoryListener::Registration registration(m_Manager, thrower);
        EXPECT_THROW(m_Manager.requestChunks(71), RecordingMemoryListener::ListenerFailure);
    }
    // The chunks of the failed call stay taken; the listener registered
    // earlier was not reached.
    EXPECT_EQ(Elevated, m_Manager.getMemoryStatus());
    EXPECT_EQ(0u, m_Listener.count());

    // Both mutexes are free again: these would deadlock otherwise.
    RecordingMemoryListener later;
    RecordingMemoryListener::Registration registration(m_Manager, later);
    m_Manager.returnChunks(71);
    EXPECT_TRUE(m_Manager.requestChunks(10));
    EXPECT_EQ((Notifications{{Normal, Elevated}}), later.notifications());
    EXPECT_EQ((Notifications{{Normal, Elevated}}), m_Listener.notifications());
}

TEST(MemoryManagerLoggingTest, RegistrationAndNotificationTexts)
{
    AllLevelsLogged levels;
    MemoryManager manager(100 * s_ChunkBytes);
    auto sink = RecordingLogSink::install();
    RecordingMemoryListener listener;
    {
        RecordingMemoryListener::Registration registration(manager, listener);
        ASSERT_TRUE(manager.requestChunks(71));
        ASSERT_TRUE(manager.requestChunks(1)); // no change, no record
    }
    EXPECT_EQ((std::vector<std::string>{"registerListener :: Registering listener.\n",
                                        "notifyListeners :: Informing listeners of change in memory state.\n",
                                        "unregisterListener :: Unregistering listener.\n"}),
              sink->textsOf(s_LoggerName));
    for (const auto& record : sink->recordsOf(s_LoggerName))
    {
        EXPECT_EQ(LogLevel::Info, record.level);
    }
}

TEST(MemoryManagerLoggingTest, LogStatisticsWithoutRecordsWritesNothing)
{
    MemoryManager& instance = MemoryManager::locateInstance();
    AllLevelsLogged levels;
    auto sink = RecordingLogSink::install();
    instance.logStatistics();
    EXPECT_TRUE(sink->textsOf(s_LoggerName).empty());
}

TEST(MemoryManagerLoggingTest, LogStatisticsWritesOneRecordPerAllocatorNewestFirst)
{
    AllLevelsLogged levels;
    AllocationStatistics tiles("Tiles");
    AllocationStatistics glyphs("Glyphs");
    tiles.m_BytesAllocated = 18446744073709551615u;
    tiles.m_AllocationsMade = 3;
    glyphs.m_BytesAllocated = 10;
    glyphs.m_AllocationsMade = 1;

    auto sink = RecordingLogSink::install();
    MemoryManager::locateInstance().logStatistics();
    const auto records = sink->recordsOf(s_LoggerName);
    ASSERT_EQ(3u, records.size());
    EXPECT_EQ("logStatistics :: Outputting.\n", records[0].text);
    EXPECT_EQ("logStatistics :: Allocator [Glyphs] statistics:\n"
              "       Bytes allocated: 10\n"
              "       Allocations made: 1\n",
              records[1].text);
    EXPECT_EQ("logStatistics :: Allocator [Tiles] statistics:\n"
              "       Bytes allocated: 18446744073709551615\n"
              "       Allocations made: 3\n",
              records[2].text);
    for (const auto& record : records)
    {
        EXPECT_EQ(LogLevel::Info, record.level);
    }
}

TEST(MemoryManagerConcurrencyTest, ConcurrentRequestersEndBalancedWithAConsistentStatusHistory)
{
    // Thousands of registrations: keep them out of the test's output.
    Logger::setThreshold(s_LoggerName, LogLevel::Warning);
    MemoryManager manager(100 * s_ChunkBytes);
    RecordingMemoryListener listener;
    RecordingMemoryListener::Registration registration(manager, listener);

    constexpr int s_Requesters = 3;
    constexpr int s_Rounds = 5000;
    std::atomic<int> ready{0};
    std::atomic<int> finished{0};
    std::atomic<unsigned long> granted{0};

    auto waitForAll = [&] {
        ready.fetch_add(1);
        while (ready.load() < s_Requesters + 2)
        {
            std::this_thread::yield();
        }
    };

    std::vector<std::thread> threads;
    for (int t = 0; t < s_Requesters; ++t)
    {
        threads.emplace_back([&, t] {
            waitForAll();
            for (int i = 0; i < s_Rounds; ++i)
            {
                const unsigned long count = 1 + static_cast<unsigned long>((i * 7 + t * 13) % 40);
                if (manager.requestChunks(count))
                {
                    granted.fetch_add(1);
                    manager.returnChunks(count);
                }
            }
            finished.fetch_add(1);
        });
    }
    // A reader of the lock-free getters and a listener that comes and goes.
    threads.emplace_back([&] {
        waitForAll();
        while (finished.load() < s_Requesters)
        {
            const MemoryStatus status = manager.getMemoryStatus();
            const float consumption = manager.getMemoryConsumption();
            EXPECT_LE(status, Critical);
            EXPECT_GE(consumption, 0.0f);
            EXPECT_LE(consumption, 1.0f);
        }
    });
    threads.emplace_back([&] {
        waitForAll();
        RecordingMemoryListener visitor;
        while (finished.load() < s_Requesters)
        {
            RecordingMemoryListener::Registration visit(manager, visitor);
        }
    });
    for (std::thread& thread : threads)
    {
        thread.join();
    }

    EXPECT_GT(granted.load(), 0u);
    EXPECT_EQ(Normal, manager.getMemoryStatus());
    EXPECT_EQ(0.0f, manager.getMemoryConsumption());
    EXPECT_TRUE(manager.requestChunks(100)); // every chunk came back
    manager.returnChunks(100);

    // Every change continues from the level the previous one reached.
    MemoryStatus level = Normal;
    for (const Notification& n : listener.notifications())
    {
        EXPECT_EQ(level, n.oldStatus);
        EXPECT_NE(n.newStatus, n.oldStatus);
        level = n.newStatus;
    }
    EXPECT_EQ(Normal, level);
    Logger::resetThresholds();
}

using MemoryManagerDeathTest = MemoryManagerTest;

TEST_F(MemoryManagerDeathTest, ReturningMoreThanWasTakenFailsTheBudgetAssertion)
{
    ASSERT_TRUE(m_Manager.requestChunks(2));
    EXPECT_DEATH(m_Manager.returnChunks(3),
                 test::assertionFailure("( difference < 0 ) || ( static_cast< std::size_t >( difference ) + "
                                        "m_AvailableChunks <= m_MaxChunks )"));
}

TEST_F(MemoryManagerDeathTest, TakingMoreThanIsAvailableFailsTheBudgetAssertion)
{
    ASSERT_TRUE(m_Manager.requestChunks(98));
    EXPECT_DEATH(m_Manager.updateChunks(-3),
                 test::assertionFailure("( difference >= 0 ) || ( static_cast< std::size_t >( - difference ) <= "
                                        "m_AvailableChunks )"));
}

TEST_F(MemoryManagerDeathTest, ListenerRegisteredTwiceFailsTheListAssertion)
{
    EXPECT_DEATH(m_Manager.registerListener(m_Listener), test::assertionFailure("!(elem->*OFFSET).isInList()"));
}

TEST_F(MemoryManagerDeathTest, UnregisteringAnUnknownListenerFailsTheListAssertion)
{
    RecordingMemoryListener stranger;
    EXPECT_DEATH(m_Manager.unregisterListener(stranger), test::assertionFailure("(elem->*OFFSET).isInList()"));
}

} // namespace
} // namespace memory
} // namespace utils
} // namespace sdk
} // namespace nav
} // namespace qor
