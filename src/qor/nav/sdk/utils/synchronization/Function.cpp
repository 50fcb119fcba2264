#include "qor/nav/sdk/utils/synchronization/Function.h"

namespace qor::nav::sdk::utils::synchronization {

Function::~Function() = default;

} // namespace qor::nav::sdk::utils::synchronization
