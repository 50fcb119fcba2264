// Runs work on a named scheduler thread: one job at once, one after a delay,
// one every 100 ms, and one that is removed before it is due.
//
//   ./example_scheduler
#include "qor/nav/sdk/utils/synchronization/FunctionExecutionScheduler.h"

#include <condition_variable>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>

using qor::nav::sdk::utils::synchronization::Function;
using qor::nav::sdk::utils::synchronization::FunctionExecutionScheduler;
using Duration = FunctionExecutionScheduler::Duration;

namespace {

// Prints its name each time it runs, and lets main() wait for a number of runs.
class PrintJob : public Function
{
public:
    explicit PrintJob(std::string name) : m_Name(std::move(name)) {}

    void execute() override
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        ++m_Runs;
        std::cout << m_Name << " ran (" << m_Runs << ")" << std::endl;
        m_Changed.notify_all();
    }

    void waitForRuns(int runs)
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_Changed.wait(lock, [&] { return m_Runs >= runs; });
    }

private:
    const std::string m_Name;
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    int m_Runs = 0;
};

} // namespace

int main()
{
    // Watchdog: report a job that runs longer than 5 s, then every second.
    FunctionExecutionScheduler scheduler("Example", 5000, 1000);
    scheduler.start();

    auto immediate = std::make_shared<PrintJob>("immediate");
    auto delayed = std::make_shared<PrintJob>("delayed (200 ms)");
    auto periodic = std::make_shared<PrintJob>("periodic (every 100 ms)");
    auto cancelled = std::make_shared<PrintJob>("cancelled");

    scheduler.scheduleExecutionImmediately(immediate);
    scheduler.scheduleExecutionLater(delayed, Duration(200));
    const auto periodicId = scheduler.scheduleExecutionImmediately(periodic, Duration(100));
    const auto cancelledId = scheduler.scheduleExecutionLater(cancelled, Duration(60000));

    // Removal by id: this one never runs.
    scheduler.asyncRemoveFunctionExecution(cancelledId);
    std::cout << "removed job " << cancelledId.getValue() << " before it was due" << std::endl;

    immediate->waitForRuns(1);
    delayed->waitForRuns(1);
    periodic->waitForRuns(3);
    // Drops the periodic job while it waits for its next turn (a run in
    // progress would finish and be queued again).
    scheduler.asyncRemoveFunctionExecution(periodicId);

    // Drops whatever is still queued and joins the thread; the destructor
    // would do the same.
    scheduler.shutdown();
    std::cout << "scheduler shut down" << std::endl;
    return 0;
}
