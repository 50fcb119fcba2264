#include "qor/nav/sdk/utils/synchronization/Function.h"

namespace qor {
namespace nav {
namespace sdk {
namespace utils {
namespace synchronization {

Function::~Function() = default;

} // namespace synchronization
} // namespace utils
} // namespace sdk
} // namespace nav
} // namespace qor
