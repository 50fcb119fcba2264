#include "qor/nav/sdk/utils/statemachine/Utils.h"

#include "qor/common/logging/LogLevel.h"

#include <ostream>
#include <sstream>

namespace qor::nav::sdk::utils::statemachine::utils {

using ::qor::common::logging::Logger;
using ::qor::common::logging::LogLevel;
using ::qor::common::logging::ScopedLogger;

std::string print(std::string label, bool value)
{
    std::ostringstream text;
    text << std::boolalpha << value;
    label += ' ';
    label += text.str();
    return label;
}

void logStateReact(Logger& logger, const std::string& stateName)
{
    // The record is delivered when `record` goes out of scope, on every way out.
    ScopedLogger record = logger << LogLevel::Trace;
    if (record.isEnabled())
    {
        record << stateName << " called" << std::endl;
    }
}

} // namespace qor::nav::sdk::utils::statemachine::utils
