// Internal: the futex calls beneath Mutex and CondVar, and the pause of a
// spin loop.
//
// The kernel compares the word with the expected value and queues the caller
// as one step, with full barriers around it, so that a wake issued after a
// change of the word cannot fall between a waiter's check and its sleep. The
// atomic operations on the word therefore need only the ordering that the
// data behind them needs; their callers say which.
#ifndef QOR_COMMON_SYSTEM_FUTEX_H
#define QOR_COMMON_SYSTEM_FUTEX_H

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace qor::common::system::detail {

// The kernel reads the word as a plain int.
static_assert(sizeof(std::atomic<int>) == sizeof(int) && std::atomic<int>::is_always_lock_free,
              "a futex word is a lock-free 32-bit int");

// Sleeps while `word` holds `expected`, for at most `relative` on the
// monotonic clock (null: no limit). True when the time ran out; every other
// return (woken, word changed, interrupted) may be spurious to the caller.
inline bool futexWait(std::atomic<int>& word, int expected, const timespec* relative) noexcept
{
    return ::syscall(SYS_futex, reinterpret_cast<int*>(&word), FUTEX_WAIT_PRIVATE, expected, relative, nullptr,
                     0) != 0 &&
           errno == ETIMEDOUT;
}

// Wakes up to `count` threads sleeping on `word`.
inline void futexWake(std::atomic<int>& word, int count) noexcept
{
    ::syscall(SYS_futex, reinterpret_cast<int*>(&word), FUTEX_WAKE_PRIVATE, count, nullptr, nullptr, 0);
}

// One step of a spin loop: yields the core's pipeline to its sibling thread
// and keeps the loop from flooding the memory system with reads. On AArch64
// "isb" rather than "yield", which most cores retire at once.
inline void cpuRelax() noexcept
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("isb" ::: "memory");
#endif
}

} // namespace qor::common::system::detail

#endif
