#include "qor/common/types/SmartPtr.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

using qor::common::types::SmartPtr;

struct Tracked
{
    explicit Tracked(std::atomic<int>& destroyed) : m_Destroyed(destroyed) {}
    virtual ~Tracked() { ++m_Destroyed; }
    std::atomic<int>& m_Destroyed;
};

// Copies and assignments in several threads keep the count exact; of last
// releases racing in several threads exactly one deletes. (Single-threaded
// sharing is exercised through the exception causes.)
TEST(SmartPtrTest, CopiesAndLastReleasesInManyThreadsCountExactly)
{
    for (int round = 0; round < 50; ++round)
    {
        std::atomic<int> destroyed{0};
        SmartPtr<Tracked> keeper(new Tracked(destroyed));
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
        {
            threads.emplace_back([own = keeper]() mutable {
                for (int i = 0; i < 1000; ++i)
                {
                    SmartPtr<Tracked> copy(own);
                    own = copy;
                }
                own = SmartPtr<Tracked>();
            });
        }
        if (round % 2 == 1)
        {
            keeper.reset(); // the threads race to release last
        }
        for (std::thread& thread : threads)
        {
            thread.join();
        }
        ASSERT_EQ(round % 2 == 0 ? 1 : 0, keeper.useCount());
        ASSERT_EQ(round % 2 == 0 ? 0 : 1, destroyed.load());
        keeper.reset();
        ASSERT_EQ(1, destroyed.load()) << "round " << round;
    }
}

} // namespace
