#include "qor/common/system/Thread.h"

#include "qor/common/errors/IllegalStateException.h"
#include "support/TestSync.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using qor::common::errors::IllegalStateException;
using qor::common::system::Runnable;
using qor::common::system::Thread;
using qor::test::Latch;

std::uint64_t kernelThreadId()
{
    return static_cast<std::uint64_t>(::syscall(SYS_gettid));
}

std::string osNameOfCallingThread()
{
    char name[16] = {};
    ::pthread_getname_np(::pthread_self(), name, sizeof name);
    return name;
}

// A Runnable that runs a test-supplied body.
class FunctionRunnable : public Runnable
{
public:
    explicit FunctionRunnable(std::function<void()> body) : m_Body(std::move(body)) {}
    void run() override { m_Body(); }

private:
    std::function<void()> m_Body;
};

// A Thread subclass that records what its hooks saw on the new thread.
class RecordingThread : public Thread
{
public:
    explicit RecordingThread(const std::string& name) : Thread(name, nullptr) {}
    ~RecordingThread() override { join(); }

    void preExecute() override { m_Calls += "pre,"; }
    void run() override
    {
        m_Calls += "run,";
        m_CurrentIsThis = (&Thread::getCurrentThread() == this);
        m_IdSeen = getId();
        m_KernelId = kernelThreadId();
        m_OsName = osNameOfCallingThread();
    }
    void postExecute() override { m_Calls += "post"; }

    // Read after join().
    std::string m_Calls;
    bool m_CurrentIsThis = false;
    std::uint64_t m_IdSeen = 0;
    std::uint64_t m_KernelId = 0;
    std::string m_OsName;
};

TEST(ThreadTest, RunsHooksInOrderOnTheNewThreadWithItsIdAndCurrentThread)
{
    RecordingThread thread("Recorder");
    EXPECT_EQ(0u, thread.getId());
    EXPECT_FALSE(thread.isStarted());
    thread.start();
    thread.join();

    EXPECT_EQ("pre,run,post", thread.m_Calls);
    EXPECT_TRUE(thread.m_CurrentIsThis);
    EXPECT_EQ(thread.m_KernelId, thread.m_IdSeen);
    EXPECT_EQ(thread.m_KernelId, thread.getId());
    EXPECT_NE(kernelThreadId(), thread.getId());
    EXPECT_STREQ("Recorder", thread.getName());
    EXPECT_EQ("Recorder", thread.m_OsName);
}

TEST(ThreadTest, OsNameIsCutToFifteenBytesAtACharacterBoundary)
{
    // 15 bytes fit; a two-byte character across bytes 15 and 16 is dropped whole.
    RecordingThread ascii("ABCDEFGHIJKLMNOPQRS");
    RecordingThread utf8("ABCDEFGHIJKLMN\xC3\xA9xyz");
    ascii.start();
    utf8.start();
    ascii.join();
    utf8.join();

    EXPECT_EQ("ABCDEFGHIJKLMNO", ascii.m_OsName);
    EXPECT_STREQ("ABCDEFGHIJKLMNOPQRS", ascii.getName());
    EXPECT_EQ("ABCDEFGHIJKLMN", utf8.m_OsName);
    EXPECT_STREQ("ABCDEFGHIJKLMN\xC3\xA9xyz", utf8.getName());
}

TEST(ThreadTest, RunsTheRunnableOnceStartsOnceAndJoinsQuietlyAnyNumberOfTimes)
{
    std::atomic<int> runs{0};
    FunctionRunnable body([&] { ++runs; });
    Thread neverStarted("NeverStarted", &body);
    neverStarted.join();
    neverStarted.join();
    EXPECT_FALSE(neverStarted.isStarted());

    Thread thread("StartedTwice", &body);
    thread.start();
    EXPECT_THROW(thread.start(), IllegalStateException);
    thread.join();
    EXPECT_EQ(1, runs.load());
    thread.join();
    EXPECT_THROW(thread.start(), IllegalStateException);
}

TEST(ThreadTest, JoinFromTheThreadItselfReturnsAndALaterJoinStillWaits)
{
    Latch selfJoinReturned(1);
    std::atomic<bool> release{false};
    std::atomic<bool> finished{false};
    Thread* self = nullptr;
    FunctionRunnable body([&] {
        self->join();
        selfJoinReturned.countDown();
        ASSERT_TRUE(qor::test::waitUntil([&] { return release.load(); }));
        finished = true;
    });
    Thread thread("SelfJoiner", &body);
    self = &thread;
    thread.start();

    ASSERT_TRUE(selfJoinReturned.waitFor());
    release = true;
    thread.join();
    // Only a join that waited for the end can see this.
    EXPECT_TRUE(finished.load());
}

TEST(ThreadTest, ConcurrentJoinersAllWaitForTheEnd)
{
    Latch release(1);
    std::atomic<bool> finished{false};
    FunctionRunnable body([&] {
        ASSERT_TRUE(release.waitFor());
        finished = true;
    });
    Thread thread("ManyJoiners", &body);
    thread.start();

    std::atomic<int> sawFinished{0};
    std::vector<std::thread> joiners;
    for (int i = 0; i < 3; ++i)
    {
        joiners.emplace_back([&] {
            thread.join();
            sawFinished += finished.load() ? 1 : 0;
        });
    }
    release.countDown();
    for (std::thread& joiner : joiners)
    {
        joiner.join();
    }
    EXPECT_EQ(3, sawFinished.load());
}

TEST(ThreadTest, DestructorWaitsForARunningThread)
{
    Latch running(1);
    std::atomic<bool> release{false};
    std::atomic<bool> finished{false};
    FunctionRunnable body([&] {
        running.countDown();
        ASSERT_TRUE(qor::test::waitUntil([&] { return release.load(); }));
        finished = true;
    });
    {
        Thread thread("Destroyed", &body);
        thread.start();
        ASSERT_TRUE(running.waitFor());
        release = true;
    }
    EXPECT_TRUE(finished.load());
}

bool kernelThreadAlive(std::uint64_t tid)
{
    return ::access(("/proc/self/task/" + std::to_string(tid)).c_str(), F_OK) == 0;
}

// A body that destroys its own Thread object (a job shutting down its worker).
class SelfDestroyingRunnable : public Runnable
{
public:
    void run() override
    {
        m_KernelId = kernelThreadId();
        delete m_Thread;
        // The object is gone: the calling thread is adopted afresh.
        m_NameAfterwards = Thread::getCurrentThread().getName();
        m_Done.countDown();
    }

    Thread* m_Thread = nullptr;
    std::atomic<std::uint64_t> m_KernelId{0};
    std::string m_NameAfterwards; // read after m_Done
    Latch m_Done{1};
};

TEST(ThreadTest, BodyMayDestroyItsOwnThreadObject)
{
    SelfDestroyingRunnable body;
    body.m_Thread = new Thread("SelfDestroyer", &body);
    body.m_Thread->start();
    ASSERT_TRUE(body.m_Done.waitFor());
    EXPECT_EQ("SelfDestroyer", body.m_NameAfterwards);
    // The detached thread ends on its own, without touching the freed object
    // (the sanitizer builds check that part).
    EXPECT_TRUE(qor::test::waitUntil([&] { return !kernelThreadAlive(body.m_KernelId.load()); }));
}

// The calling thread's object when no Thread started it: one per thread, under
// its kernel id and OS name, started for good and never joined.
void expectAdopted(const std::string& osName)
{
    Thread& current = Thread::getCurrentThread();
    EXPECT_EQ(&current, &Thread::getCurrentThread());
    EXPECT_EQ(kernelThreadId(), current.getId());
    EXPECT_EQ(osName, current.getName());
    EXPECT_TRUE(current.isStarted());
    current.join();
    EXPECT_THROW(current.start(), IllegalStateException);
    ASSERT_TRUE(current.getMutex().lock(qor::common::system::Mutex::NoWait));
    current.getMutex().unlock();
}

TEST(ThreadTest, MainAndForeignThreadsAreAdoptedUnderTheirOsNames)
{
    // gtest runs tests on the main thread, whose kernel id is the process id.
    EXPECT_EQ(static_cast<std::uint64_t>(::getpid()), Thread::getCurrentThread().getId());
    expectAdopted(osNameOfCallingThread());
    std::thread foreign([] {
        ::pthread_setname_np(::pthread_self(), "foreignWorker");
        expectAdopted("foreignWorker");
    });
    foreign.join();
}

TEST(ThreadDeathTest, ExceptionEscapingRunIsLoggedAndTerminates)
{
    EXPECT_DEATH(
        {
            FunctionRunnable body([] { throw IllegalStateException("boom"); });
            Thread thread("Thrower", &body);
            thread.start();
            thread.join();
        },
        "qor\\.common\\.system\\.Thread: Thread Thrower: uncaught exception: boom");
}

} // namespace
