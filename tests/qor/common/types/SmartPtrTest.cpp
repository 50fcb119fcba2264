#include "qor/common/types/SmartPtr.h"

#include "support/TestSync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

using qor::common::types::SmartPtr;

// Counts its destructions, reached through a base class.
struct Base
{
    virtual ~Base() = default;
};

struct Tracked : Base
{
    explicit Tracked(std::atomic<int>& destroyed) : m_Destroyed(destroyed) {}
    ~Tracked() override { ++m_Destroyed; }
    std::atomic<int>& m_Destroyed;
};

static_assert(sizeof(SmartPtr<Base>) == 2 * sizeof(void*), "two words: object and count");

TEST(SmartPtrTest, LastCopyDeletesThroughTheVirtualDestructorExactlyOnce)
{
    std::atomic<int> destroyed{0};
    {
        SmartPtr<Base> first(new Tracked(destroyed));
        EXPECT_TRUE(first);
        EXPECT_EQ(1, first.useCount());
        {
            SmartPtr<Base> second(first);
            SmartPtr<Base> third;
            third = second;
            EXPECT_EQ(first.get(), third.get());
            EXPECT_EQ(3, first.useCount());
            const SmartPtr<Base>& alias = third;
            third = alias; // self-assignment changes nothing
            EXPECT_EQ(3, third.useCount());
            second.reset();
            EXPECT_FALSE(second);
            EXPECT_EQ(2, first.useCount());
        }
        EXPECT_EQ(1, first.useCount());
        EXPECT_EQ(0, destroyed.load());
    }
    EXPECT_EQ(1, destroyed.load());
}

TEST(SmartPtrTest, AssignmentReleasesTheFormerObjectAndEmptyPointersHaveNoCount)
{
    std::atomic<int> destroyedA{0};
    std::atomic<int> destroyedB{0};
    SmartPtr<Base> a(new Tracked(destroyedA));
    SmartPtr<Base> b(new Tracked(destroyedB));
    SmartPtr<Base> keepB(b);
    b = a;
    EXPECT_EQ(0, destroyedB.load());
    EXPECT_EQ(1, keepB.useCount());
    keepB = a;
    EXPECT_EQ(1, destroyedB.load());
    EXPECT_EQ(3, a.useCount());

    const SmartPtr<Base> empty;
    b = empty;
    EXPECT_FALSE(b);
    EXPECT_EQ(0, b.useCount());
    EXPECT_EQ(nullptr, SmartPtr<Base>(empty).get());
    EXPECT_EQ(2, a.useCount());
    EXPECT_EQ(0, destroyedA.load());
}

TEST(SmartPtrTest, CopiesInManyThreadsKeepTheCountExact)
{
    std::atomic<int> destroyed{0};
    SmartPtr<Base> shared(new Tracked(destroyed));
    constexpr int kThreads = 4;
    qor::test::Latch go(1);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
    {
        // Each thread gets its own SmartPtr object sharing the one Tracked.
        threads.emplace_back([own = shared, &go]() mutable {
            ASSERT_TRUE(go.waitFor());
            for (int i = 0; i < 20000; ++i)
            {
                SmartPtr<Base> copy(own);
                SmartPtr<Base> another;
                another = copy;
            }
        });
    }
    EXPECT_EQ(1 + kThreads, shared.useCount());
    go.countDown();
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(1, shared.useCount());
    EXPECT_EQ(0, destroyed.load());
}

TEST(SmartPtrTest, ConcurrentLastReleasesDeleteOnce)
{
    for (int round = 0; round < 50; ++round)
    {
        std::atomic<int> destroyed{0};
        constexpr int kThreads = 4;
        qor::test::Latch go(1);
        std::vector<std::thread> threads;
        {
            SmartPtr<Base> original(new Tracked(destroyed));
            for (int t = 0; t < kThreads; ++t)
            {
                threads.emplace_back([own = original, &go]() mutable {
                    ASSERT_TRUE(go.waitFor());
                    own.reset();
                });
            }
        }
        go.countDown();
        for (std::thread& thread : threads)
        {
            thread.join();
        }
        ASSERT_EQ(1, destroyed.load()) << "round " << round;
    }
}

} // namespace
