// Reusable doubles for scheduler tests: Functions that count, throw, block and
// signal, a strategy that records what it is given, and a guard that
// moves the tick counter.
//
//   auto job = std::make_shared<qor::test::CountingFunction>();
//   scheduler.scheduleExecutionImmediately(job);
//   ASSERT_TRUE(job->waitForRuns(1));                       // signalled from inside execute()
//
//   auto gate = std::make_shared<qor::test::BlockingFunction>();
//   scheduler.scheduleExecutionImmediately(gate);
//   ASSERT_TRUE(gate->waitUntilEntered());                  // the worker is inside execute()
//   gate->release();
//
// Waits take a deadline (kDefaultDeadline of TestSync.h by default) and return
// false when it passes, so a broken scheduler fails the test instead of
// hanging it.
#ifndef QOR_TESTS_SUPPORT_TESTFUNCTIONS_H
#define QOR_TESTS_SUPPORT_TESTFUNCTIONS_H

#include "qor/common/system/Clock.h"
#include "qor/nav/sdk/utils/synchronization/BalancedStrategy.h"
#include "qor/nav/sdk/utils/synchronization/Function.h"
#include "support/TestSync.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace qor {
namespace test {

constexpr std::chrono::milliseconds kTestDeadline = kDefaultDeadline;

// Runs a callback (if any) and counts finished and started runs; the count is
// raised after the callback, so waitForRuns(n) returns once n runs are over.
class CountingFunction : public nav::sdk::utils::synchronization::Function
{
public:
    CountingFunction() = default;
    explicit CountingFunction(std::function<void()> body) : m_Body(std::move(body)) {}

    void execute() override
    {
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            ++m_Started;
        }
        if (m_Body)
        {
            m_Body();
        }
        std::lock_guard<std::mutex> lock(m_Mutex);
        ++m_Runs;
        m_Changed.notify_all();
    }

    int runs() const
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Runs;
    }

    int started() const
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Started;
    }

    bool waitForRuns(int n, std::chrono::milliseconds timeout = kTestDeadline) const
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Changed.wait_for(lock, timeout, [&] { return m_Runs >= n; });
    }

private:
    std::function<void()> m_Body;
    mutable std::mutex m_Mutex;
    mutable std::condition_variable m_Changed;
    int m_Runs = 0;
    int m_Started = 0;
};

// Throws on every run: a std::runtime_error with `message`, or, when
// `standard` is false, an int. Signals `thrown` first, so a test can wait for
// the run.
class ThrowingFunction : public nav::sdk::utils::synchronization::Function
{
public:
    explicit ThrowingFunction(std::string message, bool standard = true)
        : m_Message(std::move(message)), m_Standard(standard)
    {
    }

    void execute() override
    {
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            ++m_Runs;
        }
        if (m_Standard)
        {
            throw std::runtime_error(m_Message);
        }
        throw 42;
    }

    int runs() const
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Runs;
    }

private:
    const std::string m_Message;
    const bool m_Standard;
    mutable std::mutex m_Mutex;
    int m_Runs = 0;
};

// Blocks inside execute() until released. Every run announces itself (see
// waitUntilEntered) and consumes one release; release() may come first.
class BlockingFunction : public nav::sdk::utils::synchronization::Function
{
public:
    void execute() override
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        ++m_Entered;
        m_Changed.notify_all();
        m_Changed.wait_for(lock, kTestDeadline, [this] { return m_Releases > 0; });
        if (m_Releases > 0)
        {
            --m_Releases;
        }
        ++m_Finished;
        m_Changed.notify_all();
    }

    // Lets one blocked (or the next) run finish.
    void release()
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        ++m_Releases;
        m_Changed.notify_all();
    }

    // Waits until `n` runs have entered execute().
    bool waitUntilEntered(int n = 1, std::chrono::milliseconds timeout = kTestDeadline)
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Changed.wait_for(lock, timeout, [&] { return m_Entered >= n; });
    }

    bool waitUntilFinished(int n = 1, std::chrono::milliseconds timeout = kTestDeadline)
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Changed.wait_for(lock, timeout, [&] { return m_Finished >= n; });
    }

    int entered() const
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Entered;
    }

private:
    mutable std::mutex m_Mutex;
    std::condition_variable m_Changed;
    int m_Entered = 0;
    int m_Finished = 0;
    int m_Releases = 0;
};

// Moves Clock::getTickCounter() for the guard's lifetime and puts it back to
// normal readings (offset 0) when destroyed.
class ScopedTickCounter
{
public:
    ScopedTickCounter() = default;
    ~ScopedTickCounter() { common::system::Clock::setTickCounterOffset(0); }
    ScopedTickCounter(const ScopedTickCounter&) = delete;
    ScopedTickCounter& operator=(const ScopedTickCounter&) = delete;

    // From now on the counter reads `tick` (and goes on counting from there).
    void placeAt(std::uint32_t tick)
    {
        common::system::Clock::setTickCounterOffset(0);
        const std::uint32_t raw = common::system::Clock::getTickCounter();
        m_Offset = tick - raw;
        common::system::Clock::setTickCounterOffset(m_Offset);
    }

    // Moves the counter forward by `ms`, as if that much time had passed.
    void advance(std::uint32_t ms)
    {
        m_Offset += ms;
        common::system::Clock::setTickCounterOffset(m_Offset);
    }

private:
    std::uint32_t m_Offset = 0;
};

// A BalancedStrategy that also records what it is asked to queue or drop.
// Recording has its own lock, so tests may read and wait from any thread.
class RecordingStrategy : public nav::sdk::utils::synchronization::BalancedStrategy
{
public:
    using FunctionExecution = nav::sdk::utils::synchronization::FunctionExecution;
    using FunctionExecutionId = nav::sdk::utils::synchronization::FunctionExecutionId;
    using Duration = nav::sdk::utils::synchronization::Duration;

    struct Added
    {
        std::uint64_t id;
        std::uint32_t period;
        bool timed;
        long delay; // 0 for untimed records
    };

    void addFunctionExecution(const FunctionExecution& execution) override
    {
        BalancedStrategy::addFunctionExecution(execution);
        record(Added{execution.id.getValue(), execution.period, false, 0});
    }

    void addFunctionExecution(const FunctionExecution& execution, const Duration& delay) override
    {
        BalancedStrategy::addFunctionExecution(execution, delay);
        record(Added{execution.id.getValue(), execution.period, true, delay.getValue()});
    }

    void removeFunctionExecution(const FunctionExecutionId& id) override
    {
        BalancedStrategy::removeFunctionExecution(id);
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Removed.push_back(id.getValue());
        m_Changed.notify_all();
    }

    std::vector<Added> added() const
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Added;
    }

    std::vector<std::uint64_t> removed() const
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Removed;
    }

    // Waits until `n` records have been queued in total.
    bool waitForAdded(std::size_t n, std::chrono::milliseconds timeout = kTestDeadline) const
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Changed.wait_for(lock, timeout, [&] { return m_Added.size() >= n; });
    }

private:
    void record(const Added& added)
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Added.push_back(added);
        m_Changed.notify_all();
    }

    mutable std::mutex m_Mutex;
    mutable std::condition_variable m_Changed;
    std::vector<Added> m_Added;
    std::vector<std::uint64_t> m_Removed;
};

} // namespace test
} // namespace qor

#endif
