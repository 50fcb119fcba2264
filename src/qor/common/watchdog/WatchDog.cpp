#include "qor/common/watchdog/WatchDog.h"

#include "qor/common/logging/Logger.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <thread>
#include <vector>

namespace qor::common::watchdog {

namespace {

std::uint64_t nowMillis() noexcept
{
    using namespace std::chrono;
    return static_cast<std::uint64_t>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
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
    State(const std::string& n, unsigned int limit, unsigned int repeat)
        : name(n), timeLimitMs(limit), repeatMs(repeat), pollMs(limit / 4 != 0 ? limit / 4 : 1)
    {
    }

    const std::string name;
    const unsigned int timeLimitMs;
    const unsigned int repeatMs;
    // How often the supervisor looks at this dog while it runs: a report
    // comes at most this much after the time limit has passed.
    const unsigned int pollMs;
    // Set by every refresh and restart, cleared by the supervisor when it
    // looks: the per-run path is two plain stores, with no clock and no lock.
    std::atomic<bool> refreshed{false};
    std::atomic<bool> running{false};
    std::atomic<std::uint64_t> reportCount{0};
    // Supervisor's bookkeeping, guarded by the supervisor's mutex.
    bool watched = false;                // running when the supervisor last looked
    std::uint64_t seenAt = 0;            // when the supervisor last saw a refresh
    std::uint64_t reportedSeenAt = kNever; // seenAt of the silence already reported
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

    // Wakes the supervisor unless it already looks at least every `pollMs`
    // (planned poll 0: it is awake and may have planned without this dog).
    // The caller has stored its new state (seq_cst) before calling.
    void dogStarted(unsigned int pollMs)
    {
        const std::uint64_t planned = m_PlannedPoll.load();
        if (planned == 0 || pollMs < planned)
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
            std::uint64_t poll = kNever;
            for (const std::shared_ptr<WatchDog::State>& dog : m_Dogs)
            {
                const std::uint64_t look = check(dog, now, reports);
                if (look != kNever)
                {
                    next = std::min(next, look);
                    poll = std::min<std::uint64_t>(poll, dog->pollMs);
                }
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
            m_PlannedPoll.store(poll);
            if (next == kNever)
            {
                m_Wakeup.wait(lock);
            }
            else if (next > now)
            {
                m_Wakeup.wait_for(lock, std::chrono::milliseconds(next - now));
            }
            m_PlannedPoll.store(0);
        }
    }

    // Returns when `dog` next needs a look (kNever while it is paused);
    // queues a report when it is overdue. A refresh counts from the look that
    // saw it, so a silence is never reported before the limit has passed.
    static std::uint64_t check(const std::shared_ptr<WatchDog::State>& shared, std::uint64_t now,
                               std::vector<Report>& reports)
    {
        WatchDog::State& dog = *shared;
        if (dog.timeLimitMs == 0 || !dog.running.load())
        {
            dog.watched = false;
            return kNever;
        }
        if (dog.refreshed.exchange(false) || !dog.watched)
        {
            dog.seenAt = now;
            dog.watched = true;
        }
        const std::uint64_t silent = now - dog.seenAt;
        if (silent < dog.timeLimitMs)
        {
            return std::min<std::uint64_t>(dog.seenAt + dog.timeLimitMs, now + dog.pollMs);
        }
        const bool newSilence = (dog.reportedSeenAt != dog.seenAt);
        if (newSilence || (dog.repeatMs != 0 && now >= dog.lastReportAt + dog.repeatMs))
        {
            dog.reportedSeenAt = dog.seenAt;
            dog.lastReportAt = now;
            dog.reportCount.fetch_add(1, std::memory_order_acq_rel);
            reports.push_back(Report{shared, silent});
        }
        // Keep looking: a refresh ends the silence, and a new one must be
        // reported again.
        const std::uint64_t look = now + dog.pollMs;
        return dog.repeatMs != 0 ? std::min<std::uint64_t>(look, dog.lastReportAt + dog.repeatMs) : look;
    }

    std::mutex m_Mutex;
    std::condition_variable m_Wakeup;
    std::vector<std::shared_ptr<WatchDog::State>> m_Dogs;
    std::thread m_Thread;
    std::uint64_t m_Epoch = 0;
    // Shortest poll interval of the dogs that ran at the last look; kNever
    // while none did (the supervisor then sleeps until woken), 0 while awake.
    std::atomic<std::uint64_t> m_PlannedPoll{0};
};

} // namespace

WatchDog::WatchDog(const std::string& name, unsigned int timeLimitMs, unsigned int repeatMs)
    : m_State(std::make_shared<State>(name, timeLimitMs, repeatMs))
{
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
    m_State->refreshed.store(true, std::memory_order_release);
    m_State->running.store(true);
    if (m_State->timeLimitMs != 0)
    {
        Supervisor::instance().dogStarted(m_State->pollMs);
    }
}

void WatchDog::RefreshWatchDog()
{
    m_State->refreshed.store(true, std::memory_order_release);
}

const std::string& WatchDog::getName() const
{
    return m_State->name;
}

std::uint64_t WatchDog::getReportCount() const
{
    return m_State->reportCount.load(std::memory_order_acquire);
}

} // namespace qor::common::watchdog
