#include "qor/nav/sdk/utils/memory/IMemoryListener.h"

namespace qor::nav::sdk::utils::memory {

// Out of line so that the interface's type information lives in this library.
IMemoryListener::~IMemoryListener() = default;

} // namespace qor::nav::sdk::utils::memory
