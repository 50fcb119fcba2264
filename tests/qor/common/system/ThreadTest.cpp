#include "qor/common/system/Thread.h"

#include "qor/common/errors/IllegalStateException.h"
#include "support/TestSync.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <functional>
#include <thread>

namespace {

using qor::common::errors::IllegalStateException;
using qor::common::system::Thread;
using qor::test::Latch;

std::string osName()
{
    char name[16] = {};
    ::pthread_getname_np(::pthread_self(), name, sizeof name);
    return name;
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
        m_Seen += (current ? "run as " : "run,") + osName() + ",";
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
