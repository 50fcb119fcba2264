// One wording for the trace output of the kit's state machines.
//
//   static Logger log("qor.nav.sdk.route.RouteStateMachine");
//   logStateReact(log, "Idle");                  // "Idle called\n" at level Trace
//   log << LogLevel::Trace << print("isReady", ready) << std::endl;   // "isReady true"
//
// Threads: both functions may be called from any thread; they keep no state
// of their own (logStateReact is as thread-safe as the Logger it is given).
#ifndef QOR_NAV_SDK_UTILS_STATEMACHINE_UTILS_H
#define QOR_NAV_SDK_UTILS_STATEMACHINE_UTILS_H

#include "qor/common/logging/Logger.h"

#include <string>

namespace qor::nav::sdk::utils::statemachine::utils {

// Returns `label`, one blank and "true" or "false" (std::boolalpha), with no
// quoting and no line end: print("isReady", true) is "isReady true". An empty
// label gives a text that starts with the blank; a label ending in a blank
// gets a second one. Throws only what string and stream operations throw.
std::string print(std::string label, bool value);

// Logs "<stateName> called" and a line end on `logger` at level 1 (Trace).
// When that level is disabled for the logger nothing is formatted and
// `stateName` is not read. The record is handed to the logger also when a
// stream operation throws; the exception passes on.
void logStateReact(::qor::common::logging::Logger& logger, const std::string& stateName);

} // namespace qor::nav::sdk::utils::statemachine::utils

#endif
