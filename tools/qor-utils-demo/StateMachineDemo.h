// The state-machine part of the demo: a small route state machine reacts to
// a few events and logs each reaction and its guard in the kit's wording
// (statemachine::utils::logStateReact and print), at level Trace.
//
//   Logger::setThreshold(demo::StateMachineJob::loggerName(), LogLevel::Trace);
//   scheduler.scheduleExecutionLater(std::make_shared<demo::StateMachineJob>(timeline), Duration(300));
//
// Threads: execute() runs on the scheduler's thread; done() and runs() may be
// used from any thread.
#ifndef QOR_UTILS_DEMO_STATEMACHINEDEMO_H
#define QOR_UTILS_DEMO_STATEMACHINEDEMO_H

#include "Support.h"

#include "qor/nav/sdk/utils/synchronization/Function.h"
#include "qor/nav/sdk/utils/timeline/Timeline.h"

#include <atomic>

namespace demo {

class StateMachineJob : public qor::nav::sdk::utils::synchronization::Function
{
public:
    explicit StateMachineJob(qor::nav::sdk::utils::timeline::Timeline& timeline) : m_Timeline(timeline) {}
    // The logger the reactions are written to.
    static const char* loggerName() { return "qor.demo.RouteStateMachine"; }
    void execute() override;
    Completion& done() { return m_Done; }
    int runs() const { return m_Runs.load(); }

private:
    qor::nav::sdk::utils::timeline::Timeline& m_Timeline;
    std::atomic<int> m_Runs{0};
    Completion m_Done;
};

} // namespace demo

#endif
