#include "qor/common/system/Clock.h"
#include "qor/common/system/CondVar.h"
#include "qor/common/system/HighResolutionTimer.h"
#include "qor/common/system/RWLock.h"
#include "qor/common/system/Thread.h"

#include "qor/common/errors/IllegalStateException.h"

#include "support/TestSync.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <functional>
#include <thread>

namespace {

using namespace qor::common::system;
using qor::common::errors::IllegalStateException;
using qor::test::Latch;
using std::chrono::steady_clock;

// Milliseconds of the monotonic clock, as the nanosecond timer reads it too,
// plus the offset; differences stay right across the wrap at 2^32.
TEST(SystemTest, TickCounterIsMonotonicMillisecondsPlusTheOffsetAcrossTheWrap)
{
    const std::uint32_t before = Clock::getTickCounter();
    const auto nanosAsMs = static_cast<std::uint32_t>(HighResolutionTimer::getTicks() / 1000000u);
    EXPECT_LE(0, static_cast<std::int32_t>(nanosAsMs - before));
    EXPECT_LE(0, static_cast<std::int32_t>(Clock::getTickCounter() - nanosAsMs));
    // Far enough before the wrap that the next reading comes before it, also under an emulator.
    const auto lead = static_cast<std::int32_t>(qor::test::scaled(std::chrono::milliseconds(40)).count());
    Clock::setTickCounterOffset(0u - before - static_cast<std::uint32_t>(lead));
    const std::uint32_t beforeWrap = Clock::getTickCounter();
    EXPECT_GT(beforeWrap, 0xFFFF0000u);
    ASSERT_TRUE(qor::test::waitUntil([] { return Clock::getTickCounter() < 0x80000000u; }));
    EXPECT_LE(lead, static_cast<std::int32_t>(Clock::getTickCounter() - beforeWrap));
    Clock::setTickCounterOffset(0);
    EXPECT_LE(lead, static_cast<std::int32_t>(Clock::getTickCounter() - before));

    HighResolutionTimer::setTickSource([] { return std::uint64_t{42}; });
    EXPECT_EQ(42u, HighResolutionTimer::getTicks());
    HighResolutionTimer::setTickSource(nullptr);
    EXPECT_LT(42u, HighResolutionTimer::getTicks());
}

// True when another thread can take `mutex` without waiting.
bool freeForOthers(Mutex& mutex)
{
    bool acquired = false;
    std::thread([&] { acquired = mutex.lock(Mutex::NoWait) && (mutex.unlock(), true); }).join();
    return acquired;
}

// A guard holds its mutex until released early, once, or until it goes; a
// read lock lets other readers in.
TEST(SystemTest, GuardsHoldTheirLockAndReadersShareIt)
{
    Mutex mutex;
    {
        MutexGuard guard(mutex);
        EXPECT_FALSE(freeForOthers(mutex));
        guard.unlock();
        guard.unlock();
        ASSERT_TRUE(mutex.lock(Mutex::NoWait)); // taken by hand: the guard must not release it
    }
    EXPECT_FALSE(freeForOthers(mutex));
    mutex.unlock();

    RWLock lock;
    Latch shared(1);
    std::thread reader;
    {
        RWLockReadGuard held(lock);
        reader = std::thread([&] {
            RWLockReadGuard guard(lock);
            shared.countDown();
        });
        EXPECT_TRUE(shared.waitFor());
    }
    reader.join();
}

// A timed wait without signal reports the timeout after at least its length
// (1100 ms has whole seconds and a rest) with the mutex held. Two threads then
// hand a turn back and forth, signalling with and without the mutex held: no
// hand-off is lost (a long wait never runs out).
TEST(SystemTest, CondVarWaitsLastTheirTimeoutAndNoHandOffIsLost)
{
    Mutex mutex;
    CondVar cond;
    for (const unsigned int timeout : {0u, 30u, 1100u})
    {
        MutexGuard guard(mutex);
        const auto start = steady_clock::now();
        while (cond.wait(mutex, timeout)) // woken spuriously: wait again
        {
            ASSERT_LT(steady_clock::now() - start, std::chrono::seconds(10)) << "the wait never times out";
        }
        EXPECT_LE(std::chrono::milliseconds(timeout), steady_clock::now() - start);
        EXPECT_FALSE(freeForOthers(mutex));
    }
    const auto patience = static_cast<unsigned int>(qor::test::scaled(std::chrono::seconds(20)).count());
    int turn = 0;
    bool lost = false;
    const auto player = [&](int me) {
        for (int round = 0; round < 3000; ++round)
        {
            MutexGuard guard(mutex);
            while (turn != me && !lost)
            {
                lost = !cond.wait(mutex, patience);
            }
            turn = 1 - me;
            if (round % 2 == me)
            {
                guard.unlock();
            }
            cond.signal();
        }
    };
    std::thread other(player, 1);
    player(0);
    other.join();
    EXPECT_FALSE(lost);
}

// Runs a test-supplied body and records what the hooks saw on the new thread.
class RecordingThread : public Thread
{
public:
    explicit RecordingThread(const std::string& name, std::function<void()> body = [] {})
        : Thread(name), m_Body(std::move(body))
    {
    }
    void preExecute() override { m_Seen += "pre,"; }
    void run() override
    {
        const bool current = &getCurrentThread() == this && getId() == static_cast<std::uint64_t>(::gettid());
        char osName[16] = {};
        ::pthread_getname_np(::pthread_self(), osName, sizeof osName);
        m_Seen += (current ? "run as " : "run,") + std::string(osName) + ",";
        m_Body();
    }
    void postExecute() override { m_Seen += "post"; }
    std::function<void()> m_Body;
    std::string m_Seen; // read after join()
};

TEST(ThreadTest, HooksRunInOrderOnTheNewThreadUnderItsIdAndAnOsNameCutToFifteenBytes)
{
    RecordingThread ascii("ABCDEFGHIJKLMNOPQRS");
    RecordingThread utf8("ABCDEFGHIJKLMN\xC3\xA9xyz"); // a character across bytes 15 and 16 goes whole
    ascii.start();
    utf8.start();
    ascii.join();
    utf8.join();
    EXPECT_EQ("pre,run as ABCDEFGHIJKLMNO,post", ascii.m_Seen);
    EXPECT_EQ("pre,run as ABCDEFGHIJKLMN,post", utf8.m_Seen);
    EXPECT_STREQ("ABCDEFGHIJKLMN\xC3\xA9xyz", utf8.getName());
}

// Started once; join() returns at once before start and in the thread itself,
// waits for the end in every other thread, and may be repeated; a body may
// destroy its own Thread object.
TEST(ThreadTest, StartsOnceAndEveryJoinButTheThreadsOwnWaitsForTheEnd)
{
    Latch selfJoined(1);
    Latch release(1);
    std::atomic<int> runs{0};
    RecordingThread* self = nullptr;
    RecordingThread thread("Joined", [&] {
        self->join();
        selfJoined.countDown();
        ASSERT_TRUE(release.waitFor());
        ++runs;
    });
    self = &thread;
    thread.join();
    thread.start();
    EXPECT_THROW(thread.start(), IllegalStateException);
    ASSERT_TRUE(selfJoined.waitFor());
    std::thread joiner([&] {
        thread.join();
        EXPECT_EQ(1, runs.load());
    });
    release.countDown();
    thread.join();
    EXPECT_EQ(1, runs.load());
    joiner.join();
    thread.join();
    EXPECT_THROW(thread.start(), IllegalStateException);

    std::string nameAfterwards;
    Latch done(1);
    auto* doomed = new RecordingThread("SelfDestroyer");
    doomed->m_Body = [&] {
        Latch& gone = done; // the closure dies with the object
        std::string& name = nameAfterwards;
        delete doomed;
        // Adopted afresh, as any thread that no Thread started: once, under its
        // kernel id and OS name, started for good and never joined.
        Thread& adopted = Thread::getCurrentThread();
        const bool once = &adopted == &Thread::getCurrentThread();
        name = adopted.getName() + std::string(once && adopted.getId() == static_cast<std::uint64_t>(::gettid()) ? " adopted" : "");
        adopted.join();
        EXPECT_THROW(adopted.start(), IllegalStateException);
        gone.countDown();
    };
    doomed->start();
    ASSERT_TRUE(done.waitFor());
    EXPECT_EQ("SelfDestroyer adopted", nameAfterwards);
}

TEST(ThreadDeathTest, ExceptionEscapingRunIsLoggedAndTerminates)
{
    EXPECT_DEATH(
        {
            RecordingThread thread("Thrower", [] { throw IllegalStateException("boom"); });
            thread.start();
            thread.join();
        },
        "qor\\.common\\.system\\.Thread: Thread Thrower: uncaught exception: boom");
}

} // namespace
