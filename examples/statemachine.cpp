// Logs the reactions of a small state machine in the kit's common wording.
//
//   ./example_statemachine
#include "qor/common/logging/Logger.h"
#include "qor/nav/sdk/utils/statemachine/Utils.h"

#include <string>

using namespace qor::common::logging;
using qor::nav::sdk::utils::statemachine::utils::logStateReact;
using qor::nav::sdk::utils::statemachine::utils::print;

namespace {

class RouteStateMachine
{
public:
    void onDestinationSet() { enter("Routing"); }

    void onRouteCalculated(bool routeAvailable)
    {
        m_Logger << LogLevel::Trace << print("routeAvailable", routeAvailable) << std::endl; // "routeAvailable true"
        enter(routeAvailable ? "Guiding" : "Idle");
    }

private:
    void enter(const std::string& state)
    {
        m_State = state;
        logStateReact(m_Logger, m_State); // "Guiding called", at level Trace
    }

    Logger m_Logger{"myapp.RouteStateMachine"};
    std::string m_State = "Idle";
};

} // namespace

int main()
{
    // Reactions are logged at Trace, below the default threshold Info.
    Logger::setThreshold("myapp.RouteStateMachine", LogLevel::Trace);

    RouteStateMachine machine;
    machine.onDestinationSet();
    machine.onRouteCalculated(true);
    return 0;
}
