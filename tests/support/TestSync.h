// Synchronisation helpers for tests that run threads.
//
//   qor::test::Latch started(1);
//   std::thread t([&] { started.countDown(); ... });
//   ASSERT_TRUE(started.waitFor());                       // false after the deadline
//   ASSERT_TRUE(qor::test::waitUntil([&] { return done.load(); }));
//
// Order between threads is proven with these (signalled from inside the work),
// never with bare sleeps. Deadlines are generous so that a loaded machine or a
// sanitizer build does not fail a correct test; they only stop a broken one
// from hanging.
//
// Under an emulator every thread runs many times slower: the test preset that
// runs the tests there sets QOR_TEST_TIME_SCALE (a whole number, default 1),
// and every deadline, and every real-time window a test has to hit, is
// stretched by it through scaled(). No check is skipped.
//
// Threads: every operation may be called from any thread.
#ifndef QOR_TESTS_SUPPORT_TESTSYNC_H
#define QOR_TESTS_SUPPORT_TESTSYNC_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <thread>

namespace qor::test {

// QOR_TEST_TIME_SCALE, read once; 1 when unset or below 1.
inline long timeScale()
{
    static const long s_Scale = [] {
        const char* text = std::getenv("QOR_TEST_TIME_SCALE");
        const long value = text != nullptr ? std::strtol(text, nullptr, 10) : 1;
        return value > 1 ? value : 1L;
    }();
    return s_Scale;
}

// `duration` as long as this run needs it.
inline std::chrono::milliseconds scaled(std::chrono::milliseconds duration)
{
    return duration * timeScale();
}

inline const std::chrono::milliseconds kDefaultDeadline = scaled(std::chrono::milliseconds(20000));

// A count-down latch: waiters pass once the count has reached zero.
class Latch
{
public:
    explicit Latch(std::size_t count) : m_Count(count) {}

    void countDown()
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (m_Count > 0 && --m_Count == 0)
        {
            m_Zero.notify_all();
        }
    }

    // Waits until the count is zero; false when `timeout` passes first.
    bool waitFor(std::chrono::milliseconds timeout = kDefaultDeadline) const
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Zero.wait_for(lock, timeout, [this] { return m_Count == 0; });
    }

private:
    mutable std::mutex m_Mutex;
    mutable std::condition_variable m_Zero;
    std::size_t m_Count;
};

// Polls `condition` until it holds; false when `timeout` passes first.
inline bool waitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds timeout = kDefaultDeadline,
                      std::chrono::milliseconds interval = std::chrono::milliseconds(2))
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition())
    {
        if (std::chrono::steady_clock::now() >= deadline)
        {
            return condition();
        }
        std::this_thread::sleep_for(interval);
    }
    return true;
}

} // namespace qor::test

#endif
