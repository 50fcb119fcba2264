// The queued record of one scheduled function, and the scheduler's time unit.
//
//   FunctionExecution record{FunctionExecutionId(7), function, 250};   // every 250 ms
//   strategy.addFunctionExecution(record, Duration(1000));            // first run in 1 s
//
// A FunctionExecution is a plain copyable value: `id` identifies it for
// removal, `function` shares ownership of the work, `period` is the repeat
// interval in milliseconds (0 = run once). A default record has id 0, no
// function and period 0. Copies share the Function.
//
// Duration is a signed count of milliseconds, bounded to +-2000000000000;
// constructing one outside that range throws InvalidArgumentException.
//
// Threads: plain values; a record is used by one thread at a time.
#ifndef QOR_NAV_SDK_UTILS_SYNCHRONIZATION_FUNCTIONEXECUTION_H
#define QOR_NAV_SDK_UTILS_SYNCHRONIZATION_FUNCTIONEXECUTION_H

#include "qor/common/units/CommonUnit.h"
#include "qor/nav/sdk/common/api/TypeSafeId.h"
#include "qor/nav/sdk/utils/synchronization/Function.h"

#include <cstdint>

namespace qor::nav::sdk::utils::synchronization {

class FunctionExecutionScheduler;

// Milliseconds, as used by every scheduler signature.
using Duration = qor::common::units::CommonUnit<long, qor::common::units::eDurationUnit, 1000, 1000, -2000000000000,
                                                2000000000000, false>;

// The typed id of a queued execution; the same type as
// FunctionExecutionScheduler::FunctionExecutionId.
using FunctionExecutionId = qor::nav::sdk::common::api::TypeSafeId<FunctionExecutionScheduler, unsigned long,
                                                                    18446744073709551615UL>;

struct FunctionExecution
{
    FunctionExecutionId id{0};
    Function::shared_ptr function;
    std::uint32_t period{0};
};

} // namespace qor::nav::sdk::utils::synchronization

#endif
