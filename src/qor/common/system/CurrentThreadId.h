// Internal: the kernel id of the calling thread, cached per thread.
#ifndef QOR_COMMON_SYSTEM_CURRENTTHREADID_H
#define QOR_COMMON_SYSTEM_CURRENTTHREADID_H

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>

namespace qor::common::system::detail {

inline std::uint64_t currentKernelThreadId() noexcept
{
    // Trivially destructible, so it stays readable during thread and process teardown.
    static thread_local std::uint64_t t_Id = 0;
    if (t_Id == 0)
    {
        t_Id = static_cast<std::uint64_t>(::syscall(SYS_gettid));
    }
    return t_Id;
}

} // namespace qor::common::system::detail

#endif
