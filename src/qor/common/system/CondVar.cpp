#include "qor/common/system/CondVar.h"

#include "Futex.h"

#include <climits>

// Why relaxed ordering suffices on both words, and why a signaller may test
// m_Waiters without the mutex: a waiter registers and reads m_Sequence while
// it holds the mutex, after it found its condition false; a signaller changed
// the condition while holding the mutex, before it signals. Either the
// signaller's critical section came first, and the waiter sees the changed
// condition and does not wait; or the waiter's came first, and then the
// mutex's release and acquire order the registration and the reading before
// the signaller's test and increment. So the test sees the waiter, and the
// increment makes the value the waiter read stale, whether it sleeps yet or
// not; the kernel orders the futex calls against the word itself.

namespace qor::common::system {

void CondVar::wake(int count)
{
    // Relaxed: see above.
    if (m_Waiters.load(std::memory_order_relaxed) != 0)
    {
        // Relaxed: see above; the value only has to differ from what a waiter read.
        m_Sequence.fetch_add(1, std::memory_order_relaxed);
        detail::futexWake(m_Sequence, count);
    }
}

void CondVar::broadcast()
{
    wake(INT_MAX);
}

bool CondVar::wait(Mutex& mutex, unsigned int timeout)
{
    const timespec relative{static_cast<time_t>(timeout / 1000u), static_cast<long>(timeout % 1000u) * 1000000L};
    return waitFor(mutex, &relative);
}

bool CondVar::waitFor(Mutex& mutex, const timespec* relative)
{
    // Both relaxed, made while holding the mutex: see above.
    m_Waiters.fetch_add(1, std::memory_order_relaxed);
    const int sequence = m_Sequence.load(std::memory_order_relaxed);
    mutex.unlock();
    const bool timedOut = detail::futexWait(m_Sequence, sequence, relative);
    mutex.lock(Mutex::Wait);
    // Relaxed: under the mutex again, see above.
    m_Waiters.fetch_sub(1, std::memory_order_relaxed);
    return !timedOut;
}

} // namespace qor::common::system
