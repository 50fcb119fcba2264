#include "qor/common/system/RWLock.h"

#include "support/TestSync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using qor::common::system::RWLock;
using qor::common::system::RWLockReadGuard;
using qor::common::system::RWLockWriteGuard;
using qor::test::Latch;

TEST(RWLockTest, ReadersShareTheLock)
{
    const RWLock lock;
    constexpr int kReaders = 3;
    // Every reader holds the lock until all of them hold it: with an exclusive
    // lock the latch would never open.
    Latch allInside(kReaders);
    std::atomic<int> sawAll{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < kReaders; ++i)
    {
        readers.emplace_back([&] {
            RWLockReadGuard guard(lock);
            allInside.countDown();
            sawAll += allInside.waitFor() ? 1 : 0;
        });
    }
    for (std::thread& reader : readers)
    {
        reader.join();
    }
    EXPECT_EQ(kReaders, sawAll.load());
}

TEST(RWLockTest, WriterExcludesReadersAndWriters)
{
    RWLock lock;
    // Written under the write lock only; a reader must always see them equal.
    long first = 0;
    long second = 0;
    std::atomic<int> writersInside{0};
    std::atomic<int> readersInside{0};
    std::atomic<int> violations{0};
    std::atomic<bool> stop{false};

    std::vector<std::thread> threads;
    for (int w = 0; w < 2; ++w)
    {
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; ++i)
            {
                RWLockWriteGuard guard(lock);
                if (writersInside.fetch_add(1) != 0 || readersInside.load() != 0)
                {
                    ++violations;
                }
                ++first;
                ++second;
                writersInside.fetch_sub(1);
            }
        });
    }
    for (int r = 0; r < 2; ++r)
    {
        threads.emplace_back([&] {
            while (!stop.load())
            {
                RWLockReadGuard guard(lock);
                readersInside.fetch_add(1);
                if (writersInside.load() != 0 || first != second)
                {
                    ++violations;
                }
                readersInside.fetch_sub(1);
            }
        });
    }
    threads[0].join();
    threads[1].join();
    stop = true;
    threads[2].join();
    threads[3].join();

    EXPECT_EQ(0, violations.load());
    EXPECT_EQ(4000, first);
    EXPECT_EQ(4000, second);
}

TEST(RWLockTest, GuardsReleaseOnEveryWayOut)
{
    RWLock lock;
    try
    {
        RWLockWriteGuard guard(lock);
        throw std::runtime_error("leave the scope");
    }
    catch (const std::runtime_error&)
    {
    }
    try
    {
        RWLockReadGuard guard(lock);
        throw std::runtime_error("leave the scope");
    }
    catch (const std::runtime_error&)
    {
    }
    // Both released: another thread gets the write lock.
    Latch written(1);
    std::thread writer([&] {
        lock.WriteLock();
        lock.UnLock();
        written.countDown();
    });
    EXPECT_TRUE(written.waitFor());
    writer.join();
}

} // namespace
