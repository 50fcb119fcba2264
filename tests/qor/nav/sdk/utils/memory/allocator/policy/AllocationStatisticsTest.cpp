#include "qor/nav/sdk/utils/memory/allocator/policy/AllocationStatistics.h"

#include "qor/nav/sdk/utils/memory/DeathTestPatterns.h"
#include "qor/nav/sdk/utils/memory/MemoryManager.h"
#include "support/RecordingLogSink.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace qor {
namespace nav {
namespace sdk {
namespace utils {
namespace memory {
namespace allocator {
namespace policy {
namespace {

using common::logging::Logger;
using common::logging::LogLevel;
using test::RecordingLogSink;

const char* const s_LoggerName = "qor.nav.sdk.utils.memory.MemoryManager";

class AllocationStatisticsTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        MemoryManager::locateInstance(); // its creation record is not part of these tests
        Logger::setDefaultThreshold(LogLevel::Trace);
        m_Sink.emplace();
    }
    void TearDown() override
    {
        m_Sink.reset();
        Logger::resetThresholds();
    }

    std::optional<RecordingLogSink::Installation> m_Sink;
};

TEST_F(AllocationStatisticsTest, NewRecordHasZeroCountersAndKeepsTheNamePointer)
{
    static const char name[] = "Tiles";
    AllocationStatistics statistics(name);
    EXPECT_EQ(0u, statistics.m_BytesAllocated);
    EXPECT_EQ(0u, statistics.m_AllocationsMade);
    EXPECT_EQ(name, statistics.m_Name);
    EXPECT_TRUE(statistics.m_Elem.isInList());
}

TEST_F(AllocationStatisticsTest, RecordIsListedByTheProcessWideManagerForItsLifetime)
{
    {
        AllocationStatistics statistics("Tiles");
        statistics.m_BytesAllocated = 8192;
        statistics.m_AllocationsMade = 2;
        MemoryManager::locateInstance().logStatistics();
    }
    MemoryManager::locateInstance().logStatistics(); // nothing left to list

    EXPECT_EQ((std::vector<std::string>{"registerStatistics :: Registering [Tiles]\n",
                                        "logStatistics :: Outputting.\n",
                                        "logStatistics :: Allocator [Tiles] statistics:\n"
                                        "       Bytes allocated: 8192\n"
                                        "       Allocations made: 2\n",
                                        "unregisterStatistics :: Unregistering [Tiles]\n"}),
              (*m_Sink)->textsOf(s_LoggerName));
}

TEST_F(AllocationStatisticsTest, NullNameRegistersWithATruncatedLogLine)
{
    {
        AllocationStatistics statistics(nullptr);
        EXPECT_TRUE(statistics.m_Elem.isInList());
    }
    EXPECT_EQ((std::vector<std::string>{"registerStatistics :: Registering [",
                                        "unregisterStatistics :: Unregistering ["}),
              (*m_Sink)->textsOf(s_LoggerName));
}

TEST(AllocationStatisticsDeathTest, RegisteringARecordTwiceFailsTheListAssertion)
{
    AllocationStatistics statistics("Tiles");
    EXPECT_DEATH(MemoryManager::locateInstance().registerStatistics(statistics),
                 test::assertionFailure("!(elem->*OFFSET).isInList()"));
}

} // namespace
} // namespace policy
} // namespace allocator
} // namespace memory
} // namespace utils
} // namespace sdk
} // namespace nav
} // namespace qor
