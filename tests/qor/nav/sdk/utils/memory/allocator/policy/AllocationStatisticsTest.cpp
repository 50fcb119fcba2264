#include "qor/nav/sdk/utils/memory/allocator/policy/AllocationStatistics.h"

#include "qor/nav/sdk/utils/memory/DeathTestPatterns.h"
#include "qor/nav/sdk/utils/memory/MemoryManager.h"
#include "support/RecordingLogSink.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace qor::nav::sdk::utils::memory::allocator::policy {
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

TEST_F(AllocationStatisticsTest, RecordIsListedByTheProcessWideManagerForItsLifetime)
{
    static const char name[] = "Tiles";
    {
        AllocationStatistics statistics(name);
        EXPECT_EQ(name, statistics.m_Name); // the pointer, not a copy
        EXPECT_EQ(0u, statistics.m_AllocationsMade);
        statistics.m_BytesAllocated += 8192;
        statistics.m_AllocationsMade += 2;
        MemoryManager::locateInstance().logStatistics();
    }
    MemoryManager::locateInstance().logStatistics(); // nothing left to list
    {
        AllocationStatistics anonymous(nullptr); // a null name cuts the log line short
    }
    EXPECT_EQ((std::vector<std::string>{"registerStatistics :: Registering [Tiles]\n",
                                        "logStatistics :: Outputting.\n",
                                        "logStatistics :: Allocator [Tiles] statistics:\n"
                                        "       Bytes allocated: 8192\n"
                                        "       Allocations made: 2\n",
                                        "unregisterStatistics :: Unregistering [Tiles]\n",
                                        "registerStatistics :: Registering [",
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
} // namespace qor::nav::sdk::utils::memory::allocator::policy
