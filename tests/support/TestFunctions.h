// Scheduler test doubles: Functions that count and block, a strategy
// that records what it is given, and a guard that moves the tick counter.
// Waits give up (return false) after a deadline instead of hanging a test.
#ifndef QOR_TESTS_SUPPORT_TESTFUNCTIONS_H
#define QOR_TESTS_SUPPORT_TESTFUNCTIONS_H

#include "qor/common/system/Clock.h"
#include "qor/nav/sdk/utils/synchronization/BalancedStrategy.h"
#include "support/TestSync.h"

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace qor::test {

// Runs an optional body; started() counts entries, runs() completed runs.
class CountingFunction : public nav::sdk::utils::synchronization::Function
{
public:
    explicit CountingFunction(std::function<void()> body = {}) : m_Body(std::move(body)) {}

    void execute() override
    {
        bump(m_Started);
        if (m_Body)
        {
            m_Body();
        }
        bump(m_Runs);
    }

    int started() const { return read(m_Started); }
    int runs() const { return read(m_Runs); }

    bool waitForRuns(int n, std::chrono::milliseconds timeout = kDefaultDeadline) const
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Changed.wait_for(lock, timeout, [&] { return m_Runs >= n; });
    }

private:
    void bump(int& counter)
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        ++counter;
        m_Changed.notify_all();
    }
    int read(const int& counter) const
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return counter;
    }

    std::function<void()> m_Body;
    mutable std::mutex m_Mutex;
    mutable std::condition_variable m_Changed;
    int m_Started = 0;
    int m_Runs = 0;
};

// Opens `entered` and blocks in its first run until release(); later runs pass.
class BlockingFunction : public CountingFunction
{
public:
    BlockingFunction() : CountingFunction([this] {
        entered.countDown();
        m_Released.waitFor();
    })
    {
    }
    void release() { m_Released.countDown(); }

    Latch entered{1};

private:
    Latch m_Released{1};
};

// Moves Clock::getTickCounter() for the guard's lifetime; normal readings afterwards.
class ScopedTickCounter
{
public:
    ScopedTickCounter() = default;
    ScopedTickCounter(const ScopedTickCounter&) = delete;
    ScopedTickCounter& operator=(const ScopedTickCounter&) = delete;
    ~ScopedTickCounter() { common::system::Clock::setTickCounterOffset(0); }

    // The counter reads `tick` now and counts on from there.
    void placeAt(std::uint32_t tick)
    {
        common::system::Clock::setTickCounterOffset(0);
        set(tick - common::system::Clock::getTickCounter());
    }
    // As if `ms` had passed.
    void advance(std::uint32_t ms) { set(m_Offset + ms); }

private:
    void set(std::uint32_t offset)
    {
        m_Offset = offset;
        common::system::Clock::setTickCounterOffset(offset);
    }
    std::uint32_t m_Offset = 0;
};

// A BalancedStrategy that records every record it is given, under its own lock.
class RecordingStrategy : public nav::sdk::utils::synchronization::BalancedStrategy
{
public:
    using FunctionExecution = nav::sdk::utils::synchronization::FunctionExecution;

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
        record({execution.id.getValue(), execution.period, false, 0});
    }
    void addFunctionExecution(const FunctionExecution& execution,
                              const nav::sdk::utils::synchronization::Duration& delay) override
    {
        BalancedStrategy::addFunctionExecution(execution, delay);
        record({execution.id.getValue(), execution.period, true, delay.getValue()});
    }

    std::vector<Added> added() const
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Added;
    }
    bool waitForAdded(std::size_t n) const
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Changed.wait_for(lock, kDefaultDeadline, [&] { return m_Added.size() >= n; });
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
};

} // namespace qor::test

#endif
