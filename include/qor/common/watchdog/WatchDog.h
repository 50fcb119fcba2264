// Supervision of a thread that must report progress.
//
//   WatchDog dog("RouteWatchdog", 5000, 1000);   // silent for 5 s -> report, then every 1 s
//   dog.restart();                               // supervise from now on
//   while (working) { step(); dog.RefreshWatchDog(); }
//   dog.pause();                                 // idle: not supervised
//
// Constructor arguments:
//   timeLimitMs   how long a running watchdog may go without RefreshWatchDog()
//                 before it is reported; 0 switches supervision off for good.
//   repeatMs      while it stays silent after the first report, it is reported
//                 again every repeatMs milliseconds; 0 reports each silence once.
// A report is one log record at level Error on the logger
// "qor.common.watchdog.WatchDog":
//   "WatchDog <name> not refreshed for <n> ms (limit <timeLimitMs> ms)"
//
// A watchdog starts paused. All watchdogs of the process are checked by one
// shared supervisor thread, which exists while at least one watchdog does,
// looks at each running watchdog every quarter of its time limit (at least
// every millisecond) and sleeps while none runs; it never runs user code but
// the log sink. A silence is therefore reported after at least timeLimitMs
// and at most about a quarter of it later.
//
// pause(), RefreshWatchDog() and restart() are a few plain atomic stores: no
// clock reading, no allocation, and no lock except when restart() must wake
// a sleeping supervisor.
//
// Threads: RefreshWatchDog() is lock-free and may be called from any thread.
// pause() and restart() may be called from any thread. The destructor must not
// run concurrently with other calls on the same object.
#ifndef QOR_COMMON_WATCHDOG_WATCHDOG_H
#define QOR_COMMON_WATCHDOG_WATCHDOG_H

#include <cstdint>
#include <memory>
#include <string>

namespace qor::common::watchdog {

class WatchDog
{
public:
    WatchDog(const std::string& name, unsigned int timeLimitMs, unsigned int repeatMs);
    ~WatchDog();
    WatchDog(const WatchDog&) = delete;
    WatchDog& operator=(const WatchDog&) = delete;

    // Stops supervision until the next restart().
    void pause();
    // Resumes supervision with a fresh deadline (now + timeLimitMs).
    void restart();
    // Reports progress: the time limit counts again from now. Lock-free.
    void RefreshWatchDog();

    const std::string& getName() const;
    // Number of reports made so far (for tests and diagnostics).
    std::uint64_t getReportCount() const;

    struct State;

private:
    std::shared_ptr<State> m_State;
};

} // namespace qor::common::watchdog

#endif
