#include "qor/nav/sdk/utils/synchronization/Strategy.h"

namespace qor {
namespace nav {
namespace sdk {
namespace utils {
namespace synchronization {

Strategy::~Strategy() = default;

} // namespace synchronization
} // namespace utils
} // namespace sdk
} // namespace nav
} // namespace qor
