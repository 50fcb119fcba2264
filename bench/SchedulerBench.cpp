// The scheduler's speed and the foundation pieces on its per-run path.
//
// Anchors, measured in the same run:
//   - Boost.Asio: an io_context run by one thread (the same shape as our one
//     worker), with post() for immediate work and steady_timer for delays;
//   - a std::mutex-protected record where a plain lock is what a user would
//     write instead (the watchdog's per-run bookkeeping).
//
// Figures:
//   scheduler/immediate-1producer   one Function scheduled again and again from
//                                   one thread, each run to completion (items/s
//                                   = functions per second); the Asio handler
//                                   shares the same Function and calls
//                                   execute(), as a queued record does
//   scheduler/immediate-2producers  the same from two threads at once
//   scheduler/immediate-new-function-1producer, -2producers
//                                   what users write: a new Function
//                                   (std::make_shared) per task against Asio
//                                   post() of a small lambda
//   scheduler/arm-10000-random      time to arm 10,000 delayed runs of one
//                                   Function with random delays of 0-1000 ms on a
//                                   running worker, against steady_timers made
//                                   beforehand
//   scheduler/arm-10000-equal       the same with equal delays (periodic work)
//   scheduler/arm-10000-random-new-function
//                                   a new Function per timer against a new
//                                   steady_timer per timer
//   scheduler/lateness              how late due functions start, from the
//                                   start of the millisecond tick they are due
//                                   at (counters p50_us, p99_us, max_us, and
//                                   p99_ticks_late: whole ticks late at p99)
//   logger/disabled-record          one record below the threshold, with two
//                                   insertions and a line end (ns per record)
//   watchdog/per-run                pause + RefreshWatchDog + restart, the
//                                   worker's bookkeeping around every run
#include "qor/common/logging/Logger.h"
#include "qor/common/system/Clock.h"
#include "qor/common/system/HighResolutionTimer.h"
#include "qor/common/watchdog/WatchDog.h"
#include "qor/nav/sdk/utils/synchronization/Function.h"
#include "qor/nav/sdk/utils/synchronization/FunctionExecutionScheduler.h"

#include <benchmark/benchmark.h>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using qor::common::logging::Logger;
using qor::common::logging::LogLevel;
using qor::common::system::Clock;
using qor::common::system::HighResolutionTimer;
using qor::common::watchdog::WatchDog;
using qor::nav::sdk::utils::synchronization::Duration;
using qor::nav::sdk::utils::synchronization::Function;
using qor::nav::sdk::utils::synchronization::FunctionExecutionScheduler;

// Realistic watchdog arguments: supervised runs, silent unless a run hangs.
constexpr unsigned int kWatchdogLimitMs = 5000;

bool smokeRun()
{
    return std::getenv("QOR_BENCH_SMOKE") != nullptr;
}

// Counts finished work; wait() returns once the batch given to arm() is done.
class Completion
{
public:
    void done()
    {
        const std::uint64_t count = m_Count.fetch_add(1, std::memory_order_acq_rel) + 1;
        if (count == m_Target.load(std::memory_order_acquire))
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Reached = true;
            m_Cv.notify_all();
        }
    }

    // Sets the total to reach (counts accumulate over the whole benchmark).
    void arm(std::uint64_t batch)
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Reached = false;
        m_Target.store(m_Count.load(std::memory_order_acquire) + batch, std::memory_order_release);
        m_Reached = m_Count.load(std::memory_order_acquire) >= m_Target.load(std::memory_order_relaxed);
    }

    bool isDone() const
    {
        return m_Count.load(std::memory_order_acquire) >= m_Target.load(std::memory_order_acquire);
    }

    // Busy waiting that hands the processor to any other runnable thread
    // (the worker) at once.
    void spinUntilDone() const
    {
        while (!isDone())
        {
            std::this_thread::yield();
        }
    }

    void wait()
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_Cv.wait(lock, [this] { return m_Reached; });
    }

private:
    std::mutex m_Mutex;
    std::condition_variable m_Cv;
    bool m_Reached = false;
    std::atomic<std::uint64_t> m_Count{0};
    std::atomic<std::uint64_t> m_Target{0};
};

class CountingFunction final : public Function
{
public:
    explicit CountingFunction(Completion& completion) : m_Completion(completion) {}
    void execute() override { m_Completion.done(); }

private:
    Completion& m_Completion;
};

class NoopFunction final : public Function
{
public:
    void execute() override {}
};

// The calling thread plus `count - 1` helper threads that run one job
// together: run(job) calls job(0) here and job(1..) on the helpers and returns
// when every part has returned.
class ProducerTeam
{
public:
    explicit ProducerTeam(int count)
    {
        for (int index = 1; index < count; ++index)
        {
            m_Helpers.emplace_back([this, index] { helperLoop(index); });
        }
    }

    ~ProducerTeam()
    {
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Stop = true;
        }
        m_Cv.notify_all();
        for (std::thread& helper : m_Helpers)
        {
            helper.join();
        }
    }

    void run(const std::function<void(int)>& job)
    {
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Job = &job;
            m_Pending = m_Helpers.size();
            ++m_Generation;
        }
        m_Cv.notify_all();
        job(0);
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_Cv.wait(lock, [this] { return m_Pending == 0; });
    }

private:
    void helperLoop(int index)
    {
        std::uint64_t seen = 0;
        for (;;)
        {
            const std::function<void(int)>* job = nullptr;
            {
                std::unique_lock<std::mutex> lock(m_Mutex);
                m_Cv.wait(lock, [&] { return m_Stop || m_Generation != seen; });
                if (m_Stop)
                {
                    return;
                }
                seen = m_Generation;
                job = m_Job;
            }
            (*job)(index);
            std::lock_guard<std::mutex> lock(m_Mutex);
            if (--m_Pending == 0)
            {
                m_Cv.notify_all();
            }
        }
    }

    std::mutex m_Mutex;
    std::condition_variable m_Cv;
    const std::function<void(int)>* m_Job = nullptr;
    std::size_t m_Pending = 0;
    std::uint64_t m_Generation = 0;
    bool m_Stop = false;
    std::vector<std::thread> m_Helpers;
};

// An io_context run by one thread until destroyed.
class AsioWorker
{
public:
    AsioWorker() : m_Guard(boost::asio::make_work_guard(m_Io)), m_Thread([this] { m_Io.run(); }) {}
    ~AsioWorker()
    {
        m_Guard.reset();
        m_Io.stop();
        m_Thread.join();
    }
    boost::asio::io_context& io() { return m_Io; }

private:
    boost::asio::io_context m_Io;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> m_Guard;
    std::thread m_Thread;
};

constexpr std::uint64_t kBatch = 1000;

// Items per second of wall time. The benchmark thread mostly waits for the
// worker, so the library's own rate (over the benchmark thread's CPU time)
// would flatter both sides.
void setWallClockRate(benchmark::State& state, std::chrono::steady_clock::time_point start, std::uint64_t items)
{
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.counters["items_per_second"] = benchmark::Counter(seconds > 0 ? static_cast<double>(items) / seconds : 0.0);
}

// --- immediate work -------------------------------------------------------

// Items per second of `post()` calls, kBatch per iteration shared by
// `producers` threads, each run to completion (counted by `completion`).
template <typename Post>
void runImmediate(benchmark::State& state, int producers, Completion& completion, const Post& post)
{
    ProducerTeam team(producers);
    const std::uint64_t share = kBatch / static_cast<std::uint64_t>(producers);
    const std::uint64_t total = share * static_cast<std::uint64_t>(producers);
    const std::function<void(int)> job = [&](int) {
        for (std::uint64_t i = 0; i < share; ++i)
        {
            post();
        }
    };
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state)
    {
        completion.arm(total);
        team.run(job);
        completion.wait();
    }
    setWallClockRate(state, start, state.iterations() * total);
}

// `newFunction`: what users write, a new Function per task; otherwise one
// Function scheduled again and again.
void immediateOurs(benchmark::State& state, int producers, bool newFunction)
{
    Completion completion;
    const Function::shared_ptr function = std::make_shared<CountingFunction>(completion);
    FunctionExecutionScheduler scheduler("benchImmediate", kWatchdogLimitMs, 0);
    scheduler.start();
    runImmediate(state, producers, completion, [&] {
        scheduler.scheduleExecutionImmediately(newFunction ? std::make_shared<CountingFunction>(completion) : function);
    });
}

// `newFunction`: what Asio users write, a small lambda; otherwise a handler
// that shares one Function and calls it through its interface, as a queued
// record does.
void immediateAnchor(benchmark::State& state, int producers, bool newFunction)
{
    Completion completion;
    const Function::shared_ptr function = std::make_shared<CountingFunction>(completion);
    AsioWorker worker;
    runImmediate(state, producers, completion, [&] {
        if (newFunction)
        {
            boost::asio::post(worker.io(), [&completion] { completion.done(); });
        }
        else
        {
            boost::asio::post(worker.io(), [function] { function->execute(); });
        }
    });
}

// --- arming delayed work --------------------------------------------------

constexpr std::size_t kArmed = 10000;

std::vector<long> armingDelays(bool random)
{
    std::vector<long> delays(kArmed, 1000);
    if (random)
    {
        std::mt19937 generator(12345);
        std::uniform_int_distribution<long> distribution(0, 1000);
        for (long& delay : delays)
        {
            delay = distribution(generator);
        }
    }
    return delays;
}

// Times arm(i, delay) for every delay; setUp() before and tearDown() after
// each round are not timed.
template <typename SetUp, typename Arm, typename TearDown>
void runArming(benchmark::State& state, bool random, const SetUp& setUp, const Arm& arm, const TearDown& tearDown)
{
    const std::vector<long> delays = armingDelays(random);
    for (auto _ : state)
    {
        state.PauseTiming();
        setUp();
        state.ResumeTiming();
        for (std::size_t i = 0; i < delays.size(); ++i)
        {
            arm(i, delays[i]);
        }
        state.PauseTiming();
        tearDown();
        state.ResumeTiming();
    }
}

// `newFunction`: a new Function per timer; otherwise one for all.
void armOurs(benchmark::State& state, bool random, bool newFunction)
{
    const Function::shared_ptr function = std::make_shared<NoopFunction>();
    std::unique_ptr<FunctionExecutionScheduler> scheduler;
    runArming(
        state, random,
        [&] {
            scheduler = std::make_unique<FunctionExecutionScheduler>("benchArming", kWatchdogLimitMs, 0);
            scheduler->start();
        },
        [&](std::size_t, long delay) {
            scheduler->scheduleExecutionLater(newFunction ? std::make_shared<NoopFunction>() : function,
                                              Duration(delay));
        },
        [&] { scheduler.reset(); }); // drops what is still queued
}

// `newTimer`: a steady_timer made per timer, owned by its handler; otherwise
// timers made beforehand and only armed in the timed part.
void armAnchor(benchmark::State& state, bool random, bool newTimer)
{
    std::unique_ptr<AsioWorker> worker;
    std::vector<std::unique_ptr<boost::asio::steady_timer>> timers;
    runArming(
        state, random,
        [&] {
            worker = std::make_unique<AsioWorker>();
            for (std::size_t i = 0; i < (newTimer ? 0 : kArmed); ++i)
            {
                timers.push_back(std::make_unique<boost::asio::steady_timer>(worker->io()));
            }
        },
        [&](std::size_t i, long delay) {
            if (newTimer)
            {
                auto timer = std::make_shared<boost::asio::steady_timer>(worker->io(), std::chrono::milliseconds(delay));
                timer->async_wait([timer](const boost::system::error_code&) {});
                return;
            }
            timers[i]->expires_after(std::chrono::milliseconds(delay));
            timers[i]->async_wait([](const boost::system::error_code&) {});
        },
        [&] {
            timers.clear();
            worker.reset();
        });
}

// --- lateness of due work -------------------------------------------------

// Records, when run, how far past the start of its due tick it started.
class LatenessProbe final : public Function
{
public:
    LatenessProbe(std::uint32_t dueTick, std::int64_t& lateUs, Completion& completion)
        : m_DueTick(dueTick), m_LateUs(lateUs), m_Completion(completion)
    {
    }

    void execute() override
    {
        const std::uint64_t nanos = HighResolutionTimer::getTicks();
        const std::uint32_t tick = Clock::getTickCounter();
        // Whole ticks late, plus how far into the current tick we are (the
        // tick counter counts whole milliseconds of the same monotonic clock).
        const std::int32_t ticksLate = static_cast<std::int32_t>(tick - m_DueTick);
        m_LateUs = static_cast<std::int64_t>(ticksLate) * 1000 + static_cast<std::int64_t>(nanos % 1000000u) / 1000;
        m_Completion.done();
    }

private:
    std::uint32_t m_DueTick;
    std::int64_t& m_LateUs;
    Completion& m_Completion;
};

void latenessOurs(benchmark::State& state)
{
    const bool smoke = smokeRun();
    const std::size_t count = smoke ? 200 : 2000;
    const long maxDelay = smoke ? 20 : 300;
    std::mt19937 generator(777);
    std::uniform_int_distribution<long> distribution(1, maxDelay);
    std::vector<std::int64_t> samples;
    Completion completion;
    FunctionExecutionScheduler scheduler("benchLateness", kWatchdogLimitMs, 0);
    scheduler.start();
    for (auto _ : state)
    {
        std::vector<std::int64_t> late(count, 0);
        std::vector<bool> valid(count, false);
        completion.arm(count);
        for (std::size_t i = 0; i < count; ++i)
        {
            const long delay = distribution(generator);
            // The strategy reads the tick inside the call; a sample is kept
            // only when the tick did not move around the call.
            const std::uint32_t before = Clock::getTickCounter();
            const std::uint32_t due = before + static_cast<std::uint32_t>(delay);
            scheduler.scheduleExecutionLater(std::make_shared<LatenessProbe>(due, late[i], completion), Duration(delay));
            valid[i] = Clock::getTickCounter() == before;
        }
        // Busy until done, so that the benchmark's time (CPU of this thread)
        // matches the wall time and the run stays a few iterations long.
        completion.spinUntilDone();
        for (std::size_t i = 0; i < count; ++i)
        {
            if (valid[i])
            {
                samples.push_back(late[i]);
            }
        }
    }
    std::sort(samples.begin(), samples.end());
    if (samples.empty())
    {
        state.SkipWithError("no lateness samples");
        return;
    }
    const auto percentile = [&samples](double p) {
        const std::size_t index = std::min(samples.size() - 1, static_cast<std::size_t>(p * samples.size()));
        return static_cast<double>(samples[index]);
    };
    state.counters["p50_us"] = percentile(0.50);
    state.counters["p99_us"] = percentile(0.99);
    // Whole ticks late: 0 means it ran within the millisecond it was due in.
    state.counters["p99_ticks_late"] = std::floor(percentile(0.99) / 1000.0);
    state.counters["max_us"] = static_cast<double>(samples.back());
    state.counters["samples"] = static_cast<double>(samples.size());
}

// --- per-run foundation paths ---------------------------------------------

void disabledLogRecord(benchmark::State& state)
{
    static Logger logger("qor.bench.DisabledRecord");
    long value = 0;
    for (auto _ : state)
    {
        logger << LogLevel::Trace << "execute functionExecution " << value << std::endl;
        benchmark::DoNotOptimize(++value);
    }
}

void watchdogPerRunOurs(benchmark::State& state)
{
    WatchDog dog("benchWatchdog", kWatchdogLimitMs, 0);
    for (auto _ : state)
    {
        dog.pause();
        dog.RefreshWatchDog();
        dog.restart();
    }
    dog.pause();
}

// What a watchdog built on a plain lock does for the same three calls.
class LockedWatchdog
{
public:
    __attribute__((noinline)) void pause()
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Running = false;
    }
    __attribute__((noinline)) void refresh()
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_LastRefresh = std::chrono::steady_clock::now();
    }
    __attribute__((noinline)) void restart()
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_LastRefresh = std::chrono::steady_clock::now();
        m_Running = true;
    }

private:
    std::mutex m_Mutex;
    std::chrono::steady_clock::time_point m_LastRefresh;
    bool m_Running = false;
};

void watchdogPerRunAnchor(benchmark::State& state)
{
    LockedWatchdog dog;
    for (auto _ : state)
    {
        dog.pause();
        dog.refresh();
        dog.restart();
    }
}

void registerAll()
{
    for (const bool newFunction : {false, true})
    {
        for (const int producers : {1, 2})
        {
            const std::string figure = std::string("scheduler/immediate-") + (newFunction ? "new-function-" : "") +
                                       std::to_string(producers) + (producers == 1 ? "producer" : "producers");
            benchmark::RegisterBenchmark((figure + ":ours").c_str(), immediateOurs, producers, newFunction);
            benchmark::RegisterBenchmark((figure + ":anchor").c_str(), immediateAnchor, producers, newFunction);
        }
    }
    struct Arming
    {
        const char* figure;
        bool random;
        bool newFunction;
    };
    for (const Arming& arming : {Arming{"scheduler/arm-10000-random", true, false},
                                 Arming{"scheduler/arm-10000-equal", false, false},
                                 Arming{"scheduler/arm-10000-random-new-function", true, true}})
    {
        const std::string figure = arming.figure;
        benchmark::RegisterBenchmark((figure + ":ours").c_str(), armOurs, arming.random, arming.newFunction)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((figure + ":anchor").c_str(), armAnchor, arming.random, arming.newFunction)
            ->Unit(benchmark::kMillisecond);
    }
    benchmark::RegisterBenchmark("scheduler/lateness:ours", latenessOurs)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("logger/disabled-record:ours", disabledLogRecord);
    benchmark::RegisterBenchmark("watchdog/per-run:ours", watchdogPerRunOurs);
    benchmark::RegisterBenchmark("watchdog/per-run:anchor", watchdogPerRunAnchor);
}

} // namespace

int main(int argc, char** argv)
{
    registerAll();
    // Only the figures on standard output: the workers' started/stopped lines stay quiet.
    Logger::setThreshold("qor.nav.sdk.utils.FunctionExecutionScheduler", LogLevel::Warning);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
    {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
