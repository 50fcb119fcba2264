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

// Copies, assignments and releases in several threads keep the count exact:
// of the last releases, racing in several threads, exactly one deletes.
// (Sharing in one thread is exercised through the causes of exceptions.)
TEST(SmartPtrTest, CopiesAndLastReleasesInManyThreadsCountExactly)
{
    for (int round = 0; round < 50; ++round)
    {
        std::atomic<int> destroyed{0};
        std::vector<std::thread> threads;
        {
            SmartPtr<Tracked> original(new Tracked(destroyed));
            for (int t = 0; t < 4; ++t)
            {
                threads.emplace_back([own = original]() mutable {
                    for (int i = 0; i < 1000; ++i)
                    {
                        SmartPtr<Tracked> copy(own);
                        own = copy;
                    }
                    own.reset();
                });
            }
            EXPECT_EQ(0, destroyed.load());
        }
        for (std::thread& thread : threads)
        {
            thread.join();
        }
        ASSERT_EQ(1, destroyed.load()) << "round " << round;
    }
}

} // namespace
