#include "qor/common/watchdog/WatchDog.h"

#include "qor/common/logging/Logger.h"

#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <thread>
#include <vector>

namespace qor {
namespace common {
namespace watchdog {

namespace {

// The coarse monotonic clock: a few ns to read instead of tens, at the
// resolution of the kernel's tick (1-4 ms). Refreshing and restarting read it
// around every scheduled run; time limits are far longer than its steps.
std::uint64_t nowMillis() noexcept
{
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000u + static_cast<std::uint64_t>(ts.tv_nsec) / 1000000u;
}

constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();

logging::Logger& watchDogLogger()
{
    static logging::Logger* s_Logger = new logging::Logger("qor.common.watchdog.WatchDog");
    return *s_Logger;
}

} // namespace

struct WatchDog::State
{
    State(const std::string& n, unsigned int limit, unsigned int repeat) : name(n), timeLimitMs(limit), repeatMs(repeat)
    {
    }

    const std::string name;
    const unsigned int timeLimitMs;
    const unsigned int repeatMs;
    std::atomic<std::uint64_t> lastRefresh{0};
    std::atomic<bool> running{false};
    std::atomic<std::uint64_t> reportCount{0};
    // Supervisor's bookkeeping, guarded by the supervisor's mutex.
    std::uint64_t reportedRefresh = kNever; // lastRefresh value of the silence already reported
    std::uint64_t lastReportAt = 0;
};

namespace {

// The one thread that checks every watchdog of the process. It exists while at
// least one watchdog does and sleeps until the earliest deadline.
class Supervisor
{
public:
    static Supervisor& instance()
    {
        // Never destroyed: watchdogs may be destroyed during static destruction.
        static Supervisor* s_Instance = new Supervisor();
        return *s_Instance;
    }

    void add(const std::shared_ptr<WatchDog::State>& state)
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Dogs.push_back(state);
        if (!m_Thread.joinable())
        {
            m_Thread = std::thread(&Supervisor::loop, this, m_Epoch);
        }
    }

    void remove(const WatchDog::State* state)
    {
        std::thread finished;
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Dogs.erase(std::remove_if(m_Dogs.begin(), m_Dogs.end(),
                                        [state](const std::shared_ptr<WatchDog::State>& d) { return d.get() == state; }),
                         m_Dogs.end());
            if (m_Dogs.empty() && m_Thread.joinable())
            {
                ++m_Epoch; // tells the current thread to end
                finished = std::move(m_Thread);
            }
        }
        m_Wakeup.notify_all();
        if (finished.joinable())
        {
            finished.join();
        }
    }

    // Wakes the supervisor if `deadline` is earlier than its planned wake-up,
    // or if it is awake (planned wake-up 0) and may have planned without it.
    // The caller has stored its new state (seq_cst) before calling.
    void deadlineMoved(std::uint64_t deadline)
    {
        const std::uint64_t planned = m_PlannedWake.load();
        if (planned == 0 || deadline < planned)
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Wakeup.notify_all();
        }
    }

private:
    struct Report
    {
        std::shared_ptr<WatchDog::State> dog;
        std::uint64_t silentMs;
    };

    void loop(std::uint64_t epoch)
    {
        ::pthread_setname_np(::pthread_self(), "qorWatchDog");
        std::unique_lock<std::mutex> lock(m_Mutex);
        std::vector<Report> reports;
        while (m_Epoch == epoch)
        {
            const std::uint64_t now = nowMillis();
            std::uint64_t next = kNever;
            for (const std::shared_ptr<WatchDog::State>& dog : m_Dogs)
            {
                next = std::min(next, check(dog, now, reports));
            }
            if (!reports.empty())
            {
                // The sink runs without the supervisor's lock, so it may use watchdogs itself.
                lock.unlock();
                for (const Report& report : reports)
                {
                    watchDogLogger() << logging::LogLevel::Error << "WatchDog " << report.dog->name
                                     << " not refreshed for " << report.silentMs << " ms (limit "
                                     << report.dog->timeLimitMs << " ms)" << std::endl;
                }
                reports.clear();
                lock.lock();
                continue; // time has passed: plan again
            }
            m_PlannedWake.store(next);
            if (next == kNever)
            {
                m_Wakeup.wait(lock);
            }
            else if (next > now)
            {
                m_Wakeup.wait_for(lock, std::chrono::milliseconds(next - now));
            }
            m_PlannedWake.store(0);
        }
    }

    // Returns when `dog` next needs a look; queues a report when it is overdue.
    static std::uint64_t check(const std::shared_ptr<WatchDog::State>& shared, std::uint64_t now,
                               std::vector<Report>& reports)
    {
        WatchDog::State& dog = *shared;
        if (dog.timeLimitMs == 0 || !dog.running.load())
        {
            return kNever;
        }
        const std::uint64_t last = dog.lastRefresh.load(std::memory_order_acquire);
        const std::uint64_t deadline = last + dog.timeLimitMs;
        if (now < deadline)
        {
            return deadline;
        }
        const bool newSilence = (dog.reportedRefresh != last);
        if (newSilence || (dog.repeatMs != 0 && now >= dog.lastReportAt + dog.repeatMs))
        {
            dog.reportedRefresh = last;
            dog.lastReportAt = now;
            dog.reportCount.fetch_add(1, std::memory_order_acq_rel);
            reports.push_back(Report{shared, now - last});
        }
        // Without repeats, look again after one more time limit: a refresh
        // followed by a new silence must be noticed although refreshing
        // never wakes the supervisor.
        return dog.repeatMs != 0 ? dog.lastReportAt + dog.repeatMs : now + dog.timeLimitMs;
    }

    std::mutex m_Mutex;
    std::condition_variable m_Wakeup;
    std::vector<std::shared_ptr<WatchDog::State>> m_Dogs;
    std::thread m_Thread;
    std::uint64_t m_Epoch = 0;
    std::atomic<std::uint64_t> m_PlannedWake{0};
};

} // namespace

WatchDog::WatchDog(const std::string& name, unsigned int timeLimitMs, unsigned int repeatMs)
    : m_State(std::make_shared<State>(name, timeLimitMs, repeatMs))
{
    m_State->lastRefresh.store(nowMillis(), std::memory_order_release);
    Supervisor::instance().add(m_State);
}

WatchDog::~WatchDog()
{
    Supervisor::instance().remove(m_State.get());
}

void WatchDog::pause()
{
    m_State->running.store(false, std::memory_order_release);
}

void WatchDog::restart()
{
    const std::uint64_t now = nowMillis();
    m_State->lastRefresh.store(now, std::memory_order_release);
    m_State->running.store(true);
    if (m_State->timeLimitMs != 0)
    {
        Supervisor::instance().deadlineMoved(now + m_State->timeLimitMs);
    }
}

void WatchDog::RefreshWatchDog()
{
    m_State->lastRefresh.store(nowMillis(), std::memory_order_release);
}

const std::string& WatchDog::getName() const
{
    return m_State->name;
}

std::uint64_t WatchDog::getReportCount() const
{
    return m_State->reportCount.load(std::memory_order_acquire);
}

} // namespace watchdog
} // namespace common
} // namespace qor
