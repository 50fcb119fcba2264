#include "qor/common/system/Mutex.h"

#include "Futex.h"

namespace qor::common::system {

namespace {

// A thread that finds the mutex held looks again after 1, 2, 4, ... pauses,
// this many times, before it sleeps: about 130 pauses (microseconds) in all,
// longer than the critical sections of the kit, shorter than a sleep and its
// wake-up. The growing gaps catch a short hold at once and keep a long one
// from being flooded with reads of the word its holder is about to write.
constexpr int s_SpinRounds = 7;

} // namespace

void Mutex::lockContended() noexcept
{
    // Spinners take a free mutex as plain Locked, even ahead of a sleeper:
    // the sleeper's own Contended mark stays until it takes the mutex, so no
    // wake-up is lost, and the convoy of a system call per unlock is avoided.
    for (int round = 0; round < s_SpinRounds; ++round)
    {
        for (int i = 0; i < (1 << round); ++i)
        {
            detail::cpuRelax();
        }
        // Relaxed: only a hint of when to try; the compare-exchange that
        // takes the mutex has the acquire, as in lock().
        int state = m_State.load(std::memory_order_relaxed);
        if (state == Unlocked && m_State.compare_exchange_strong(state, Locked, std::memory_order_acquire,
                                                                 std::memory_order_relaxed))
        {
            return;
        }
    }
    // Mark the mutex contended before sleeping, so that the holder's unlock
    // wakes us. When the exchange finds it free we hold it, still marked
    // Contended: others may sleep on it, and our unlock must wake one of them.
    // Acquire, as in lock(). The wait returns at once if the word changed
    // since the exchange.
    while (m_State.exchange(Contended, std::memory_order_acquire) != Unlocked)
    {
        detail::futexWait(m_State, Contended, nullptr);
    }
}

void Mutex::wakeOne() noexcept
{
    // The release in unlock() already published the holder's writes; the
    // woken thread takes the mutex with an acquire of its own.
    detail::futexWake(m_State, 1);
}

} // namespace qor::common::system
