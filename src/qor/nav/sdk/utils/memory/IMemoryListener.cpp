#include "qor/nav/sdk/utils/memory/IMemoryListener.h"

namespace qor {
namespace nav {
namespace sdk {
namespace utils {
namespace memory {

// Out of line so that the interface's type information lives in this library.
IMemoryListener::~IMemoryListener() = default;

} // namespace memory
} // namespace utils
} // namespace sdk
} // namespace nav
} // namespace qor
