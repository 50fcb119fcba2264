#include "StateMachineDemo.h"

#include "Trace.h"

#include "qor/common/logging/Logger.h"
#include "qor/nav/sdk/utils/statemachine/Utils.h"

#include <string>

using qor::common::logging::Logger;
using qor::common::logging::LogLevel;
using qor::nav::sdk::utils::statemachine::utils::logStateReact;
using qor::nav::sdk::utils::statemachine::utils::print;

namespace demo {

void StateMachineJob::execute()
{
    ++m_Runs;
    static Logger logger(loggerName());
    struct Step
    {
        const char* event;
        const char* state;
        bool routeAvailable;
    };
    const Step steps[] = {{"start", "Idle", false},
                          {"destinationSet", "Routing", false},
                          {"routeCalculated", "Guiding", true},
                          {"destinationReached", "Idle", false}};

    Section section(m_Timeline, "routeStateMachine", "statemachine");
    for (const Step& step : steps)
    {
        Section react(m_Timeline, step.state, "statemachine");
        say(std::string("state machine: event ") + step.event + " enters " + step.state);
        logStateReact(logger, step.state);
        logger << LogLevel::Trace << print("routeAvailable", step.routeAvailable) << std::endl;
    }
    m_Done.set();
}

} // namespace demo
