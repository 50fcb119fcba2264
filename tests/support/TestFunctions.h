// Scheduler test helpers: a Function that counts its runs around an optional
// body, and a guard that moves the tick counter. waitForRuns() gives up after
// the deadline of TestSync.h instead of hanging a test.
#ifndef QOR_TESTS_SUPPORT_TESTFUNCTIONS_H
#define QOR_TESTS_SUPPORT_TESTFUNCTIONS_H

#include "qor/common/system/Clock.h"
#include "qor/nav/sdk/utils/synchronization/Function.h"
#include "support/TestSync.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <utility>

namespace qor::test {

// started() counts the calls of execute(), runs() those that returned.
class CountingFunction : public nav::sdk::utils::synchronization::Function
{
public:
    explicit CountingFunction(std::function<void()> body = [] {}) : m_Body(std::move(body)) {}
    void execute() override { ++m_Started, m_Body(), ++m_Runs; }
    int started() const { return m_Started.load(); }
    int runs() const { return m_Runs.load(); }
    bool waitForRuns(int n) const { return waitUntil([&] { return m_Runs.load() >= n; }); }

private:
    std::function<void()> m_Body;
    std::atomic<int> m_Started{0}, m_Runs{0};
};

// Shifts Clock::getTickCounter() for its lifetime: advance() moves it as if
// `ms` had passed.
class ScopedTickCounter
{
public:
    ~ScopedTickCounter() { common::system::Clock::setTickCounterOffset(0); }
    void advance(std::uint32_t ms) { common::system::Clock::setTickCounterOffset(m_Offset += ms); }

private:
    std::uint32_t m_Offset = 0;
};

} // namespace qor::test

#endif
