#include "qor/common/system/CondVar.h"

#include "Futex.h"

#include <climits>

// Why relaxed ordering suffices, and why a signaller may read the word
// without the mutex: a waiter sets s_Waiting and reads the word in one atomic
// operation while it holds the mutex, after it found its condition false; a
// signaller changed the condition while holding the mutex, before it signals.
// Either the signaller's critical section came first, and the waiter sees
// the changed condition and does not wait; or the waiter's came first, and
// then the mutex's release and acquire order the waiter's mark before the
// signaller's read. So the signaller sees the mark, or a later value whose
// change already woke the waiter; and since every change happens on the one
// word, the value the waiter sleeps on is stale once a signal has changed it,
// whether the waiter sleeps yet or not. The kernel orders the futex calls
// against the word itself.

namespace qor::common::system {

void CondVar::wakeWaiters()
{
    int word = m_Word.load(std::memory_order_relaxed);
    // Relaxed: see above. Clears s_Waiting and advances the sequence in one
    // step: the word is odd here, so one more is the next sequence, unmarked
    // (counted in unsigned, which wraps).
    while ((word & s_Waiting) != 0)
    {
        if (m_Word.compare_exchange_weak(word, static_cast<int>(static_cast<unsigned>(word) + 1u),
                                         std::memory_order_relaxed))
        {
            detail::futexWake(m_Word, INT_MAX);
            return;
        }
    }
}

bool CondVar::wait(Mutex& mutex, unsigned int timeout)
{
    const timespec relative{static_cast<time_t>(timeout / 1000u), static_cast<long>(timeout % 1000u) * 1000000L};
    return waitFor(mutex, &relative);
}

bool CondVar::waitFor(Mutex& mutex, const timespec* relative)
{
    // Relaxed, with the mutex held: see above.
    const int word = m_Word.fetch_or(s_Waiting, std::memory_order_relaxed) | s_Waiting;
    mutex.unlock();
    const bool timedOut = detail::futexWait(m_Word, word, relative);
    mutex.lock(Mutex::Wait);
    return !timedOut;
}

} // namespace qor::common::system
