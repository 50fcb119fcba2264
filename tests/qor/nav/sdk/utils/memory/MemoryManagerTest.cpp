#include "qor/nav/sdk/utils/memory/MemoryManager.h"

#include "qor/nav/sdk/utils/memory/DeathTestPatterns.h"
#include "qor/nav/sdk/utils/memory/allocator/policy/AllocationStatistics.h"
#include "support/RecordingLogSink.h"
#include "support/RecordingMemoryListener.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace qor::nav::sdk::utils::memory {
namespace {

using common::logging::Logger;
using common::logging::LogLevel;
using test::RecordingLogSink;
using test::RecordingMemoryListener;
using Notifications = std::vector<RecordingMemoryListener::Notification>;
using Texts = std::vector<std::string>;

const char* const s_LoggerName = "qor.nav.sdk.utils.memory.MemoryManager";

// 100 chunks: chunks in use read as percent.
class MemoryManagerTest : public ::testing::Test
{
protected:
    void TearDown() override { Logger::resetThresholds(); }

    MemoryManager m_Manager{100 * 4096};
    RecordingMemoryListener m_Listener;
    RecordingMemoryListener::Registration m_Registration{m_Manager, m_Listener};
};

TEST(MemoryManagerBudgetTest, LimitIsCountedInWholeChunks)
{
    MemoryManager truncated(3 * 4096 + 4095);
    EXPECT_EQ(Normal, truncated.getMemoryStatus());
    EXPECT_EQ(0.0f, truncated.getMemoryConsumption());
    EXPECT_FALSE(truncated.requestChunks(4));
    EXPECT_TRUE(truncated.requestChunks(3));

    MemoryManager empty(4095); // no chunk at all: consumption 0/0, level never moves
    EXPECT_FALSE(empty.requestChunks(1));
    EXPECT_TRUE(empty.requestChunks(0));
    EXPECT_TRUE(std::isnan(empty.getMemoryConsumption()));
    EXPECT_EQ(Normal, empty.getMemoryStatus());

    MemoryManager& instance = MemoryManager::locateInstance();
    EXPECT_EQ(&instance, &MemoryManager::locateInstance());
    EXPECT_FALSE(instance.requestChunks(131073));
    ASSERT_TRUE(instance.requestChunks(131072));
    instance.returnChunks(131072);
}

TEST_F(MemoryManagerTest, LevelFollowsConsumptionWithHysteresisAndOneNotificationPerChange)
{
    const struct
    {
        long change; // chunks requested (> 0) or returned (< 0)
        int inUse;
        MemoryStatus level;
        Notifications heard;
    } steps[] = {
        {70, 70, Normal, {}}, // 0.70 is not above 0.70
        {1, 71, Elevated, {{Elevated, Normal}}},
        {18, 89, Elevated, {}},
        {1, 90, High, {{High, Elevated}}},
        {8, 98, High, {}},
        {1, 99, Critical, {{Critical, High}}},
        {-4, 95, Critical, {}}, // 0.95 is not below 0.95
        {-1, 94, High, {{High, Critical}}},
        {-9, 85, High, {}},
        {-1, 84, Elevated, {{Elevated, High}}},
        {-19, 65, Elevated, {}},
        {-1, 64, Normal, {{Normal, Elevated}}},
        {35, 99, Critical, {{Critical, Normal}}}, // several levels, one call
        {-30, 69, Elevated, {{Elevated, Critical}}},
        {0, 69, Elevated, {}},
        {-69, 0, Normal, {{Normal, Elevated}}},
    };
    for (const auto& step : steps)
    {
        SCOPED_TRACE(::testing::Message() << "change " << step.change << " to " << step.inUse << " in use");
        m_Listener.clear();
        if (step.change < 0)
        {
            m_Manager.returnChunks(static_cast<unsigned long>(-step.change));
        }
        else
        {
            ASSERT_TRUE(m_Manager.requestChunks(static_cast<unsigned long>(step.change)));
        }
        EXPECT_EQ(step.level, m_Manager.getMemoryStatus());
        EXPECT_EQ(static_cast<float>(step.inUse) / 100.0f, m_Manager.getMemoryConsumption());
        EXPECT_EQ(step.heard, m_Listener.notifications());
    }
}

TEST_F(MemoryManagerTest, RefusedRequestsChangeNothingAndCriticalRefusesAll)
{
    ASSERT_TRUE(m_Manager.requestChunks(60));
    EXPECT_FALSE(m_Manager.requestChunks(41));
    EXPECT_EQ(0.60f, m_Manager.getMemoryConsumption());
    EXPECT_TRUE(m_Manager.requestChunks(40)); // exactly what is left

    m_Manager.returnChunks(5); // 95 in use: still Critical with 5 chunks left
    EXPECT_FALSE(m_Manager.requestChunks(1));
    EXPECT_FALSE(m_Manager.requestChunks(0));
    EXPECT_EQ(0.95f, m_Manager.getMemoryConsumption());

    m_Manager.returnChunks(1);
    EXPECT_TRUE(m_Manager.requestChunks(1));
    EXPECT_EQ((Notifications{{Critical, Normal}, {High, Critical}}), m_Listener.notifications());
}

TEST_F(MemoryManagerTest, ListenersAreCalledNewestFirstOnTheRequestingThread)
{
    RecordingMemoryListener::Journal journal;
    RecordingMemoryListener first(&journal);
    RecordingMemoryListener second(&journal);
    RecordingMemoryListener::Registration r1(m_Manager, first);
    RecordingMemoryListener::Registration r2(m_Manager, second);

    std::thread::id requester;
    std::thread worker([&] {
        requester = std::this_thread::get_id();
        EXPECT_TRUE(m_Manager.requestChunks(80));
    });
    worker.join();

    EXPECT_EQ((RecordingMemoryListener::Journal{&second, &first}), journal);
    ASSERT_EQ((Notifications{{Elevated, Normal}}), first.notifications());
    EXPECT_EQ(requester, first.notifications()[0].thread);
}

TEST_F(MemoryManagerTest, ThrowingListenerPassesTheExceptionOnAndReleasesTheLocks)
{
    RecordingMemoryListener thrower;
    thrower.setThrowing(true);
    {
        RecordingMemoryListener::Registration registration(m_Manager, thrower);
        EXPECT_THROW(m_Manager.requestChunks(71), std::runtime_error);
    }
    EXPECT_EQ(Elevated, m_Manager.getMemoryStatus()); // the chunks stay taken
    EXPECT_TRUE(m_Listener.notifications().empty());  // not reached

    // Would deadlock if either mutex were still held.
    RecordingMemoryListener later;
    RecordingMemoryListener::Registration registration(m_Manager, later);
    m_Manager.returnChunks(71);
    EXPECT_EQ((Notifications{{Normal, Elevated}}), later.notifications());
}

TEST_F(MemoryManagerTest, LogTexts)
{
    Logger::setDefaultThreshold(LogLevel::Trace);
    auto sink = RecordingLogSink::install();
    {
        MemoryManager manager(1048576);
    }
    {
        RecordingMemoryListener other;
        RecordingMemoryListener::Registration registration(m_Manager, other);
        ASSERT_TRUE(m_Manager.requestChunks(71));
        ASSERT_TRUE(m_Manager.requestChunks(1)); // no change, no record
    }

    const auto records = sink->recordsOf(s_LoggerName);
    Texts texts;
    for (const auto& record : records)
    {
        texts.push_back(record.text);
        EXPECT_EQ(texts.size() <= 2 ? LogLevel::Debug : LogLevel::Info, record.level) << record.text;
    }
    EXPECT_EQ((Texts{"MemoryManagerInitialized memory manager with a limit of 256 chunks!\n",
                     "~MemoryManagerShutting down memory manager.\n",
                     "registerListener :: Registering listener.\n",
                     "notifyListeners :: Informing listeners of change in memory state.\n",
                     "unregisterListener :: Unregistering listener.\n"}),
              texts);
}

TEST_F(MemoryManagerTest, LogStatisticsWritesOneRecordPerAllocatorNewestFirst)
{
    MemoryManager& instance = MemoryManager::locateInstance();
    auto sink = RecordingLogSink::install();
    instance.logStatistics(); // no records: not even the heading
    EXPECT_TRUE(sink->textsOf(s_LoggerName).empty());

    allocator::policy::AllocationStatistics tiles("Tiles");
    allocator::policy::AllocationStatistics glyphs("Glyphs");
    tiles.m_BytesAllocated = 18446744073709551615u;
    tiles.m_AllocationsMade = 3;
    glyphs.m_BytesAllocated = 10;
    glyphs.m_AllocationsMade = 1;
    sink->clear();
    instance.logStatistics();
    EXPECT_EQ((Texts{"logStatistics :: Outputting.\n",
                     "logStatistics :: Allocator [Glyphs] statistics:\n"
                     "       Bytes allocated: 10\n"
                     "       Allocations made: 1\n",
                     "logStatistics :: Allocator [Tiles] statistics:\n"
                     "       Bytes allocated: 18446744073709551615\n"
                     "       Allocations made: 3\n"}),
              sink->textsOf(s_LoggerName));
}

TEST_F(MemoryManagerTest, ConcurrentRequestersEndBalancedWithAConsistentStatusHistory)
{
    Logger::setThreshold(s_LoggerName, LogLevel::Warning); // thousands of registrations
    constexpr int s_Requesters = 3;
    std::atomic<int> finished{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < s_Requesters; ++t)
    {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 5000; ++i)
            {
                const unsigned long count = 1 + static_cast<unsigned long>((i * 7 + t * 13) % 40);
                if (m_Manager.requestChunks(count))
                {
                    m_Manager.returnChunks(count);
                }
            }
            finished.fetch_add(1);
        });
    }
    RecordingMemoryListener visitor; // registers and reads the lock-free getters meanwhile
    while (finished.load() < s_Requesters)
    {
        RecordingMemoryListener::Registration visit(m_Manager, visitor);
        EXPECT_LE(m_Manager.getMemoryStatus(), Critical);
        EXPECT_LE(m_Manager.getMemoryConsumption(), 1.0f);
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }

    EXPECT_EQ(0.0f, m_Manager.getMemoryConsumption());
    EXPECT_TRUE(m_Manager.requestChunks(100)); // every chunk came back
    MemoryStatus level = Normal;
    for (const auto& heard : m_Listener.notifications()) // each change starts where the last ended
    {
        EXPECT_EQ(level, heard.oldStatus);
        level = heard.newStatus;
    }
    EXPECT_EQ(Critical, level);
}

// Drives a manager of `maxChunks` chunks through `targets` (chunks in use, one
// request or return each) against a reference that applies the thresholds in
// single precision: granted or refused, level, consumption and notifications.
void expectLevelsAlong(std::uint64_t maxChunks, const std::vector<std::uint64_t>& targets)
{
    static const float rising[] = {0.70f, 0.89f, 0.98f};
    static const float falling[] = {0.0f, 0.65f, 0.85f, 0.95f};
    MemoryManager manager(static_cast<unsigned long>(maxChunks << 12));
    RecordingMemoryListener listener;
    RecordingMemoryListener::Registration registration(manager, listener);
    unsigned level = Normal;
    std::uint64_t inUse = 0;
    for (const std::uint64_t target : targets)
    {
        const auto where = [&] { return ::testing::Message() << maxChunks << " chunks, " << inUse << " -> " << target; };
        listener.clear();
        if (target >= inUse)
        {
            ASSERT_EQ(level != Critical, manager.requestChunks(static_cast<unsigned long>(target - inUse))) << where();
            if (level == Critical)
            {
                ASSERT_TRUE(listener.notifications().empty()) << where();
                continue;
            }
        }
        else
        {
            manager.returnChunks(static_cast<unsigned long>(inUse - target));
        }
        inUse = target;
        const float consumption = static_cast<float>(inUse) / static_cast<float>(maxChunks);
        const unsigned old = level;
        while (level < 3 && consumption > rising[level])
        {
            ++level;
        }
        while (level > 0 && consumption < falling[level])
        {
            --level;
        }
        Notifications expected;
        if (level != old)
        {
            expected.push_back({static_cast<MemoryStatus>(level), static_cast<MemoryStatus>(old)});
        }
        ASSERT_EQ(expected, listener.notifications()) << where();
        ASSERT_EQ(static_cast<MemoryStatus>(level), manager.getMemoryStatus()) << where();
        ASSERT_EQ(consumption, manager.getMemoryConsumption()) << where();
    }
}

TEST(MemoryManagerLevelsTest, EveryCountInUseGetsTheLevelOfTheThresholds)
{
    // One chunk at a time up to the first refusal and back, for budgets where
    // the thresholds fall on, next to and between whole chunks.
    for (const std::uint64_t maxChunks : {1u, 2u, 3u, 7u, 20u, 99u, 100u, 101u, 1000u, 12345u, 131072u})
    {
        std::vector<std::uint64_t> targets;
        for (std::uint64_t k = 1; k <= maxChunks; ++k)
        {
            targets.push_back(k);
        }
        for (std::uint64_t k = maxChunks; k-- > 0;)
        {
            targets.push_back(k);
        }
        expectLevelsAlong(maxChunks, targets);
    }
    // Budgets beyond the float's mantissa, where neighbouring counts share a
    // consumption: jumps to every count near a threshold from empty and full.
    for (const std::uint64_t maxChunks :
         {std::uint64_t{1} << 24, (std::uint64_t{1} << 30) + 3, std::uint64_t{0xFFFFFFFFFFFFFFFFu} >> 12})
    {
        std::vector<std::uint64_t> targets;
        for (const float threshold : {0.65f, 0.70f, 0.85f, 0.89f, 0.95f, 0.98f})
        {
            const auto middle = static_cast<std::uint64_t>(static_cast<double>(threshold) * static_cast<double>(maxChunks));
            for (std::uint64_t k = middle - 300; k <= middle + 300; k += 3)
            {
                targets.insert(targets.end(), {k, 0, k, maxChunks / 2, maxChunks, k});
            }
            targets.push_back(0);
        }
        expectLevelsAlong(maxChunks, targets);
    }
}

using MemoryManagerDeathTest = MemoryManagerTest;

TEST_F(MemoryManagerDeathTest, ChangesBeyondTheBudgetFailItsAssertions)
{
    ASSERT_TRUE(m_Manager.requestChunks(2));
    // The report names the function that holds the checks.
    EXPECT_DEATH(m_Manager.returnChunks(3),
                 "MemoryManager::updateChunks\\([^)]*\\): " + test::assertionFailure("( difference < 0 ) || ( static_cast< std::size_t >( difference ) + "
                                        "m_AvailableChunks <= m_MaxChunks )"));
    EXPECT_DEATH(m_Manager.updateChunks(-99),
                 "MemoryManager::updateChunks\\([^)]*\\): " + test::assertionFailure("( difference >= 0 ) || ( static_cast< std::size_t >( - difference ) <= "
                                        "m_AvailableChunks )"));
}

TEST_F(MemoryManagerDeathTest, ListenerRegisteredTwiceOrNotAtAllFailsTheListAssertions)
{
    EXPECT_DEATH(m_Manager.registerListener(m_Listener), test::assertionFailure("!(elem->*OFFSET).isInList()"));
    RecordingMemoryListener stranger;
    EXPECT_DEATH(m_Manager.unregisterListener(stranger), test::assertionFailure("(elem->*OFFSET).isInList()"));
}

} // namespace
} // namespace qor::nav::sdk::utils::memory
