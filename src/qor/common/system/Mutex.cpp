#include "qor/common/system/Mutex.h"

#include "Futex.h"
#include "qor/common/utils/Assert.h"

namespace qor::common::system {

namespace {

// How often a thread that finds the mutex held looks again before it sleeps:
// a few microseconds, longer than the critical sections of the kit, shorter
// than a sleep and its wake-up.
constexpr int s_SpinCount = 100;

} // namespace

void Mutex::lockContended() noexcept
{
    // Spin while the holder runs and nobody sleeps yet. Once a thread sleeps
    // (Contended), newcomers queue behind it instead of racing it for every
    // release.
    for (int i = 0; i < s_SpinCount; ++i)
    {
        // Relaxed: only a hint of when to try; the compare-exchange that
        // takes the mutex has the acquire, as in lock().
        int state = m_State.load(std::memory_order_relaxed);
        if (state == Contended)
        {
            break;
        }
        if (state == Unlocked && m_State.compare_exchange_weak(state, Locked, std::memory_order_acquire,
                                                               std::memory_order_relaxed))
        {
            return;
        }
        detail::cpuRelax();
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

void Mutex::unlockContended(int previous) noexcept
{
    QOR_ASSERT(previous != Unlocked && "unlock of a mutex that is not locked");
    // The release in unlock() already published the holder's writes; the
    // woken thread takes the mutex with an acquire of its own.
    detail::futexWake(m_State, 1);
}

} // namespace qor::common::system
