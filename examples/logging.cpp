// Routes the log records of the libraries and of the application into one
// sink of the application's own, and sets thresholds per family of loggers.
//
//   ./example_logging
#include "qor/common/logging/Logger.h"

#include <iostream>
#include <memory>
#include <mutex>

using namespace qor::common::logging;

namespace {

// Receives every enabled record of the process once, whole, from whatever
// thread wrote it: serialise the output here.
class ConsoleSink : public ILogSink
{
public:
    void write(const LogRecord& record) override
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        std::cout << LogLevel::toString(record.level) << ' ' << record.loggerName << ": " << record.text;
    }

private:
    std::mutex m_Mutex;
};

} // namespace

int main()
{
    static Logger logger("myapp.routing");
    static Logger tiles("myapp.tiles");

    setLogSink(std::make_shared<ConsoleSink>());              // every record of the process
    Logger::setDefaultThreshold(LogLevel::Warning);           // every logger
    Logger::setThreshold("myapp.routing", LogLevel::Trace);   // this family (longest prefix wins)
    Logger::setThreshold("qor.nav.sdk.utils.memory", LogLevel::Debug); // a family of the library

    logger << LogLevel::Info << "route has " << 12 << " legs" << std::endl;      // written
    tiles << LogLevel::Info << "tile cache warm" << std::endl;                   // disabled: nothing formatted
    tiles << LogLevel::Warning << "tile cache at " << 91 << " %" << std::endl;   // written

    Logger::resetThresholds(); // default threshold Info again, no families
    setLogSink(nullptr);       // the default sink: one line per record line on standard error
    return 0;
}
