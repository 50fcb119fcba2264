// qor-utils-demo: shows the foundation layer at work.
//
// Two named worker threads log through the shared logger while a watchdog
// supervises one of them; the demo prints what it observed and exits 0, or
// exits 1 with a message when something did not behave.
#include "qor/Version.h"
#include "qor/common/logging/Logger.h"
#include "qor/common/system/Clock.h"
#include "qor/common/system/CondVar.h"
#include "qor/common/system/Mutex.h"
#include "qor/common/system/Thread.h"
#include "qor/common/watchdog/WatchDog.h"

#include <cstdio>
#include <string>

using qor::common::logging::Logger;
using qor::common::logging::LogLevel;
using qor::common::system::Clock;
using qor::common::system::CondVar;
using qor::common::system::Mutex;
using qor::common::system::MutexGuard;
using qor::common::system::Runnable;
using qor::common::system::Thread;
using qor::common::watchdog::WatchDog;

namespace {

class Counter : public Runnable
{
public:
    Counter(const char* loggerName, int steps) : m_Logger(loggerName), m_Steps(steps) {}

    void run() override
    {
        for (int i = 1; i <= m_Steps; ++i)
        {
            m_Logger << LogLevel::Info << Thread::getCurrentThread().getName() << " step " << i << std::endl;
            MutexGuard guard(m_Mutex);
            m_Wake.wait(m_Mutex, 50);
        }
    }

private:
    Logger m_Logger;
    int m_Steps;
    Mutex m_Mutex;
    CondVar m_Wake;
};

} // namespace

int main()
{
    Logger logger("qor.demo");
    logger << LogLevel::Info << "qor " << QOR_VERSION_STRING << " foundation demo" << std::endl;

    const std::uint32_t start = Clock::getTickCounter();
    Counter first("qor.demo.first", 3);
    Counter second("qor.demo.second", 3);
    Thread a("DemoWorkerA", &first);
    Thread b("DemoWorkerB", &second);
    a.start();
    b.start();
    a.join();
    b.join();

    // A watchdog over a "stuck" job: 100 ms without a refresh is reported.
    WatchDog dog("DemoWatchdog", 100, 0);
    dog.restart();
    Mutex mutex;
    CondVar never;
    {
        MutexGuard guard(mutex);
        const std::uint32_t waitStart = Clock::getTickCounter();
        while (dog.getReportCount() == 0 && Clock::getTickCounter() - waitStart < 5000)
        {
            never.wait(mutex, 20);
        }
    }
    dog.pause();

    const std::uint32_t elapsed = Clock::getTickCounter() - start;
    std::printf("demo: 2 named threads ran 3 steps each; watchdog reports: %llu; %u ms\n",
                static_cast<unsigned long long>(dog.getReportCount()), elapsed);
    if (dog.getReportCount() == 0)
    {
        std::fprintf(stderr, "demo: the watchdog did not report the stuck job\n");
        return 1;
    }
    return 0;
}
