#include "qor/nav/sdk/utils/memory/MemoryManager.h"

#include "support/RecordingLogSink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace qor::nav::sdk::utils::memory {
namespace {

using allocator::policy::AllocationStatistics;
using common::logging::Logger;
using common::logging::LogLevel;
using ::testing::AllOf;
using ::testing::HasSubstr;
using Heard = std::vector<std::pair<MemoryStatus, MemoryStatus>>; // (new, old)

// Records the changes it hears of; registered for its lifetime.
struct Listener : IMemoryListener
{
    explicit Listener(MemoryManager& manager, bool throws = false) : manager(manager), throws(throws)
    {
        manager.registerListener(*this);
    }
    ~Listener() override { manager.unregisterListener(*this); }
    void onMemoryStatusChanged(MemoryStatus newStatus, MemoryStatus oldStatus) override
    {
        heard.emplace_back(newStatus, oldStatus);
        if (throws) {
            throw std::runtime_error("listener failure");
        }
    }
    MemoryManager& manager;
    const bool throws;
    Heard heard;
};

TEST(MemoryManagerTest, EveryCountInUseGetsTheLevelOfTheThresholdModel)
{
    // For budgets where the thresholds fall on, next to and between whole
    // chunks: one chunk at a time past the end and back (small budgets), random
    // jumps (several levels at once, refusals at Critical and beyond the
    // budget), and jumps to every count near a threshold from empty and full,
    // which for budgets beyond the float's mantissa share a consumption. An
    // empty budget refuses every chunk, and its level never moves.
    Logger::setThreshold("qor.nav.sdk.utils.memory", LogLevel::Warning);
    std::mt19937_64 random(15);
    const std::uint64_t one = 1;
    for (const std::uint64_t maxChunks : {0ul, 1ul, 2ul, 3ul, 7ul, 20ul, 99ul, 100ul, 101ul, 1000ul, 12345ul, one << 17,
                                          one << 24, (one << 30) + 3, ~std::uint64_t{0} >> 12}) {
        std::vector<std::uint64_t> targets;
        for (std::uint64_t k = 1; maxChunks <= (one << 17) && k < 2 * maxChunks + 4; ++k) {
            targets.push_back(k <= maxChunks + 1 ? k : 2 * maxChunks + 3 - k);
        }
        for (int i = 0; i < 3000; ++i) {
            targets.push_back(random() % (maxChunks + 2));
        }
        for (const float threshold : {0.65f, 0.70f, 0.85f, 0.89f, 0.95f, 0.98f}) {
            const auto middle = static_cast<std::uint64_t>(static_cast<double>(threshold) * static_cast<double>(maxChunks));
            for (std::uint64_t k = std::max<std::uint64_t>(middle, 300) - 300; k <= middle + 300; k += 3) {
                targets.insert(targets.end(), {k, 0, k, maxChunks / 2, maxChunks, k, 0});
            }
        }
        // Each count in use reached by one request or return, against the
        // thresholds applied in single precision: granted or refused, level,
        // consumption and notifications; a partial chunk does not count.
        static const float rising[] = {0.70f, 0.89f, 0.98f, 2.0f};
        static const float falling[] = {-1.0f, 0.65f, 0.85f, 0.95f};
        MemoryManager manager(static_cast<unsigned long>((maxChunks << 12) + 4095));
        Listener listener(manager);
        unsigned level = Normal;
        std::uint64_t inUse = 0;
        float consumption = 0.0f; // as last computed: a refused request changes nothing
        for (const std::uint64_t target : targets) {
            const bool changes = target < inUse || (level != Critical && target <= maxChunks);
            if (target < inUse) {
                manager.returnChunks(static_cast<unsigned long>(inUse - target));
            } else {
                ASSERT_EQ(changes, manager.requestChunks(static_cast<unsigned long>(target - inUse)))
                    << maxChunks << " chunks, " << inUse << " -> " << target;
            }
            inUse = changes ? target : inUse;
            consumption = changes ? static_cast<float>(inUse) / static_cast<float>(maxChunks) : consumption;
            const auto old = static_cast<MemoryStatus>(level);
            while (consumption > rising[level]) {
                ++level;
            }
            while (consumption < falling[level]) {
                --level;
            }
            const float reported = manager.getMemoryConsumption();
            ASSERT_TRUE(reported == consumption || (reported != reported && consumption != consumption));
            ASSERT_EQ(MemoryStatus(level), manager.getMemoryStatus()) << maxChunks << " chunks, " << inUse << " in use";
            const Heard expected = level == old ? Heard{} : Heard{{MemoryStatus(level), old}};
            ASSERT_EQ(expected, listener.heard) << maxChunks << " chunks, " << inUse << " in use";
            listener.heard.clear();
        }
    }
    Logger::resetThresholds();
}

TEST(MemoryManagerTest, LogTextsAndListenersNewestFirst)
{
    MemoryManager& instance = MemoryManager::locateInstance(); // its creation record is not part of this
    Logger::setDefaultThreshold(LogLevel::Trace);
    qor::test::RecordingLogSink::Installation sink;
    instance.logStatistics(); // no records: not even the heading
    {
        MemoryManager manager(256 * 4096 + 100);
        Listener older(manager);
        Listener newer(manager, true); // heard first; its throw passes out of the call
        EXPECT_THROW((void)manager.requestChunks(180), std::runtime_error);
        EXPECT_TRUE(older.heard.empty() && newer.heard == (Heard{{Elevated, Normal}}));
        ASSERT_TRUE(manager.requestChunks(1)); // no change, no record
    } // unregistering would deadlock if the throw had left a mutex held
    {
        AllocationStatistics tiles("Tiles");
        AllocationStatistics glyphs("Glyphs");
        tiles.m_BytesAllocated = 18446744073709551615u;
        tiles.m_AllocationsMade = 3;
        glyphs.m_BytesAllocated = 10;
        glyphs.m_AllocationsMade = 1;
        instance.logStatistics();
    }
    AllocationStatistics{nullptr}; // a null name cuts the lines short
    std::vector<std::string> texts;
    for (const auto& record : sink->recordsOf("qor.nav.sdk.utils.memory.MemoryManager")) {
        texts.push_back(record.text);
        EXPECT_EQ(texts.size() == 1 || texts.size() == 7 ? LogLevel::Debug : LogLevel::Info, record.level);
    }
    EXPECT_EQ((std::vector<std::string>{
                  "MemoryManagerInitialized memory manager with a limit of 256 chunks!\n",
                  "registerListener :: Registering listener.\n",
                  "registerListener :: Registering listener.\n",
                  "notifyListeners :: Informing listeners of change in memory state.\n",
                  "unregisterListener :: Unregistering listener.\n",
                  "unregisterListener :: Unregistering listener.\n",
                  "~MemoryManagerShutting down memory manager.\n",
                  "registerStatistics :: Registering [Tiles]\n",
                  "registerStatistics :: Registering [Glyphs]\n",
                  "logStatistics :: Outputting.\n",
                  "logStatistics :: Allocator [Glyphs] statistics:\n       Bytes allocated: 10\n"
                  "       Allocations made: 1\n",
                  "logStatistics :: Allocator [Tiles] statistics:\n       Bytes allocated: 18446744073709551615\n"
                  "       Allocations made: 3\n",
                  "unregisterStatistics :: Unregistering [Glyphs]\n",
                  "unregisterStatistics :: Unregistering [Tiles]\n",
                  "registerStatistics :: Registering [",
                  "unregisterStatistics :: Unregistering ["}),
              texts);
    Logger::resetThresholds();
}

TEST(MemoryManagerDeathTest, ChangesBeyondTheBudgetFailTheirAssertions)
{
    MemoryManager manager(100 * 4096);
    ASSERT_TRUE(manager.requestChunks(2));
    // The report names the function that holds the checks.
    EXPECT_DEATH(manager.returnChunks(3), AllOf(HasSubstr("MemoryManager::updateChunks("),
                                                HasSubstr("Assertion `( difference < 0 ) || ( static_cast< std::size_t >"
                                                          "( difference ) + m_AvailableChunks <= m_MaxChunks )' failed")));
    EXPECT_DEATH(manager.updateChunks(-99), AllOf(HasSubstr("MemoryManager::updateChunks("),
                                                  HasSubstr("Assertion `( difference >= 0 ) || ( static_cast< std::size_t"
                                                            " >( - difference ) <= m_AvailableChunks )' failed")));
}

} // namespace
} // namespace qor::nav::sdk::utils::memory
