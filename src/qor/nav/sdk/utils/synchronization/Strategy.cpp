#include "qor/nav/sdk/utils/synchronization/Strategy.h"

namespace qor::nav::sdk::utils::synchronization {

Strategy::~Strategy() = default;

} // namespace qor::nav::sdk::utils::synchronization
