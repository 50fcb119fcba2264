#include "qor/nav/sdk/utils/synchronization/FunctionExecution.h"

#include "qor/nav/sdk/utils/synchronization/FunctionExecutionScheduler.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace {

using namespace qor::nav::sdk::utils::synchronization;

// Ids and durations of the facade go into records unchanged.
static_assert(std::is_same<FunctionExecutionId, FunctionExecutionScheduler::FunctionExecutionId>::value, "");
static_assert(std::is_same<Duration, FunctionExecutionScheduler::Duration>::value, "");

TEST(FunctionExecutionTest, DefaultRecordIsIdZeroNotTheInvalidId)
{
    const FunctionExecution record;
    EXPECT_EQ(0u, record.id.getValue());
    EXPECT_EQ(nullptr, record.function);
    EXPECT_EQ(0u, record.period);
}

} // namespace
