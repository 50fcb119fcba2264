// A unit of work run by a FunctionExecutionScheduler.
//
//   class SaveRoute : public Function {
//   public:
//       void execute() override { ... }
//   };
//   scheduler.scheduleExecutionImmediately(std::make_shared<SaveRoute>());
//
// Functions are handed to the scheduler as Function::shared_ptr; the scheduler
// shares ownership with the caller for as long as an execution of the function
// is queued or running, and drops its share when the execution is done,
// removed, or the scheduler shuts down.
//
// Threads: execute() is called on the scheduler's worker thread, never on two
// threads at once by the same scheduler. A function handed to several
// schedulers must be safe to run on all of their threads.
#ifndef QOR_NAV_SDK_UTILS_SYNCHRONIZATION_FUNCTION_H
#define QOR_NAV_SDK_UTILS_SYNCHRONIZATION_FUNCTION_H

#include <memory>

namespace qor::nav::sdk::utils::synchronization {

class Function
{
public:
    using shared_ptr = std::shared_ptr<Function>;

    virtual ~Function();

    // Does the work. Called on the scheduler's worker thread without any
    // scheduler lock held, so it may schedule, remove or shut down work on its
    // own scheduler. Exceptions are caught and logged by the scheduler; a
    // periodic function that throws is not run again.
    virtual void execute() = 0;
};

} // namespace qor::nav::sdk::utils::synchronization

#endif
