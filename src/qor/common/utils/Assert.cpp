// Whatever the build defines, the C library's report must be declared here.
#undef NDEBUG
#include "qor/common/utils/Assert.h"

#include <assert.h>

namespace qor::common::utils {

void assertionFailed(const char* condition, const char* file, unsigned int line, const char* function) noexcept
{
    __assert_fail(condition, file, line, function);
}

} // namespace qor::common::utils
