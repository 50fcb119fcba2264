// The default queue of a scheduler: immediate work first-in first-out, delayed
// work by due tick, and the two taken in turn so neither starves the other.
//
//   BalancedStrategy strategy;
//   strategy.addFunctionExecution(now);                     // untimed
//   strategy.addFunctionExecution(later, Duration(500));    // due in 500 ms
//   if (strategy.hasPendingFunctionExecutions()) { run(strategy.getNextFunctionExecution()); }
//
// Timed records are due when the 32-bit millisecond tick counter
// (Clock::getTickCounter()) reaches their due tick; ticks are compared through
// the sign of their 32-bit difference, so ordering survives the counter's
// wrap. Records with equal due ticks come out newest first; this order is
// relied upon by existing callers and kept. When both queues have work, picks
// alternate between asking the timed queue first and asking the untimed queue
// first, starting with the timed queue.
//
// Ownership: each queued record is a copy sharing the caller's Function; it is
// released when handed out, removed, or when the strategy is destroyed.
//
// Threads: no lock of its own; the owner serialises every call (the scheduler
// calls it with its mutex held). The destructor must not run concurrently with
// other calls.
#ifndef QOR_NAV_SDK_UTILS_SYNCHRONIZATION_BALANCEDSTRATEGY_H
#define QOR_NAV_SDK_UTILS_SYNCHRONIZATION_BALANCEDSTRATEGY_H

#include "qor/nav/sdk/utils/synchronization/Strategy.h"

#include <cstddef>
#include <cstdint>
#include <list>
#include <vector>

namespace qor::nav::sdk::utils::synchronization {

class BalancedStrategy : public Strategy
{
public:
    // Both queues empty; the first pick asks the timed queue first.
    BalancedStrategy();
    // Drops the timed queue, then the untimed queue, releasing their Functions.
    ~BalancedStrategy() override;

    BalancedStrategy(const BalancedStrategy&) = delete;
    BalancedStrategy& operator=(const BalancedStrategy&) = delete;

    // True only when both queues are empty. Timed records that are not due yet
    // make the strategy non-empty although nothing is pending.
    bool empty() const override;

    // Appends a copy of `functionExecution` to the untimed queue.
    void addFunctionExecution(const FunctionExecution& functionExecution) override;

    // Inserts a copy into the timed queue, due at the current tick plus the
    // low 32 bits of `delay`. The 64-bit delay is truncated on purpose: a small
    // negative delay is due at once; a delay of 2^31 ms or more wraps and no
    // longer orders correctly. Equal due ticks: the new record goes in front.
    void addFunctionExecution(const FunctionExecution& functionExecution, const Duration& delay) override;

    // Drops every record with `id` from the untimed queue, then from the timed
    // queue. Unknown ids are ignored silently.
    void removeFunctionExecution(const FunctionExecutionId& id) override;

    // True when the first timed record is due or any untimed record waits.
    bool hasPendingFunctionExecutions() const override;

    // Takes the next record: asks the timed queue (due records only) and the
    // untimed queue in the preferred order, and flips the preference after
    // every successful pick, whichever queue supplied it. Throws
    // IllegalStateException("No pending functionExecutions") when neither has
    // anything, leaving the preference unchanged.
    FunctionExecution getNextFunctionExecution() override;

    // 0 when untimed work waits, when the timed queue is empty, or when the
    // first timed record is due; otherwise the milliseconds until it is due.
    unsigned int getTimeToNextFunctionExecution() const override;

    // True when the timed queue is non-empty and `now` is not earlier than the
    // first record's due tick (equality counts as due).
    bool hasPendingTimedFunctionExecution(unsigned int now) const;
    // True when the untimed queue is non-empty; `now` is ignored.
    bool hasPendingUntimedFunctionExecution(unsigned int now) const;
    // Removes and returns the first timed record whether due or not. Throws
    // IllegalStateException("Queue is empty") when there is none.
    FunctionExecution getNextTimedFunctionExecution();
    // Removes and returns the first untimed record. Throws
    // IllegalStateException("Queue is empty") when there is none.
    FunctionExecution getNextUntimedFunctionExecution();

    // A queued record and, for timed records, its due tick (0 when untimed).
    struct FunctionExecutionHolder
    {
        FunctionExecution functionExecution;
        unsigned int dueTime;
    };

private:
    using HolderList = std::list<FunctionExecutionHolder>;
    // A sampled position of the timed queue and the due tick of its record.
    struct Finger
    {
        std::uint32_t dueTime;
        HolderList::iterator node;
    };

    // Where the front walk puts a new timed record with `dueTime`; see the
    // definition for why the fingers do not change the answer.
    HolderList::iterator timedInsertPosition(std::uint32_t dueTime);
    // Samples every m_FingerStride-th record of the timed queue afresh.
    void sampleFingers();
    // Puts a holder {functionExecution, dueTime} into `list` before `position`,
    // reusing a spare node when there is one.
    HolderList::iterator placeHolder(HolderList& list, HolderList::iterator position,
                                     const FunctionExecution& functionExecution, std::uint32_t dueTime);
    // Removes the first holder of `list` and returns its record; the node is
    // kept for reuse while there are few spares.
    FunctionExecution takeFront(HolderList& list);

    HolderList m_UntimedFunctionExecutions;
    HolderList m_TimedFunctionExecutions;
    bool m_PreferUntimed;

    // The search aid for timed insertion. While m_TimedSorted holds, fingers
    // from m_FirstFinger on point at records of the timed queue in queue
    // order (fingers before it went with the front); at most kMaxFingers of
    // them, allocated once, resampled when a walk from them gets long.
    bool m_TimedSorted;
    std::vector<Finger> m_Fingers;
    std::size_t m_FirstFinger;
    std::size_t m_FingerStride;

    // Nodes of handed-out records, empty, kept for the next records (at most
    // 1,024). None holds a Function.
    HolderList m_SpareHolders;
};

} // namespace qor::nav::sdk::utils::synchronization

#endif
