// The queue of pending function executions behind a scheduler.
//
//   class MyStrategy : public Strategy { ... };   // override all operations
//   FunctionExecutionScheduler scheduler("Route", std::make_shared<MyStrategy>(), 5000, 1000);
//
// A Strategy decides which queued execution runs next and how long the worker
// may sleep until one is due. It never runs a Function. The worker asks it in
// this order on every turn: empty() (true: sleep until signalled),
// getTimeToNextFunctionExecution() (non-zero: sleep that long), otherwise
// getNextFunctionExecution().
//
// Ownership: the strategy keeps copies of the records it is given; they share
// their Function with the caller. Destroying the strategy drops every queued
// record without running it.
//
// Threads: a Strategy has no lock of its own. Its owner serialises every call;
// the scheduler makes each call with its own mutex held. The destructor must
// not run concurrently with other calls.
#ifndef QOR_NAV_SDK_UTILS_SYNCHRONIZATION_STRATEGY_H
#define QOR_NAV_SDK_UTILS_SYNCHRONIZATION_STRATEGY_H

#include "qor/nav/sdk/utils/synchronization/FunctionExecution.h"

namespace qor::nav::sdk::utils::synchronization {

class Strategy
{
public:
    virtual ~Strategy();

    // True when no execution is queued at all, due or not.
    virtual bool empty() const = 0;

    // Queues `functionExecution` to run as soon as possible.
    virtual void addFunctionExecution(const FunctionExecution& functionExecution) = 0;

    // Queues `functionExecution` to run once `delay` milliseconds have passed.
    virtual void addFunctionExecution(const FunctionExecution& functionExecution, const Duration& delay) = 0;

    // Drops every queued execution with this id; an unknown id is no error.
    virtual void removeFunctionExecution(const FunctionExecutionId& id) = 0;

    // True when an execution could be handed out now.
    virtual bool hasPendingFunctionExecutions() const = 0;

    // Removes the next execution to run and returns it. Throws
    // IllegalStateException when nothing can be handed out now.
    virtual FunctionExecution getNextFunctionExecution() = 0;

    // Milliseconds until the next execution is due; 0 when one is due now or
    // when nothing is queued (tell these apart with empty()).
    virtual unsigned int getTimeToNextFunctionExecution() const = 0;
};

} // namespace qor::nav::sdk::utils::synchronization

#endif
