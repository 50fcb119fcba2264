#include "qor/nav/sdk/utils/synchronization/FunctionExecution.h"

#include "qor/common/errors/InvalidArgumentException.h"
#include "qor/nav/sdk/utils/synchronization/FunctionExecutionScheduler.h"
#include "support/TestFunctions.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace {

using qor::common::errors::InvalidArgumentException;
using qor::nav::sdk::utils::synchronization::Duration;
using qor::nav::sdk::utils::synchronization::FunctionExecution;
using qor::nav::sdk::utils::synchronization::FunctionExecutionId;
using qor::nav::sdk::utils::synchronization::FunctionExecutionScheduler;

// Ids and durations handed out by the facade go into records unchanged.
static_assert(std::is_same<FunctionExecutionId, FunctionExecutionScheduler::FunctionExecutionId>::value,
              "one id type for records and the facade");
static_assert(std::is_same<Duration, FunctionExecutionScheduler::Duration>::value,
              "one duration type for records and the facade");
static_assert(FunctionExecutionId::invalidValue == 18446744073709551615UL, "the invalid id is 2^64-1");

TEST(FunctionExecutionTest, DefaultRecordIsIdZeroWithoutFunctionRunningOnce)
{
    const FunctionExecution record;
    EXPECT_EQ(0u, record.id.getValue()); // not the invalid id
    EXPECT_EQ(nullptr, record.function);
    EXPECT_EQ(0u, record.period);
}

TEST(FunctionExecutionTest, CopiesShareTheFunction)
{
    auto job = std::make_shared<qor::test::CountingFunction>();
    const FunctionExecution record{FunctionExecutionId(3), job, 250u};
    {
        const FunctionExecution copy = record;
        EXPECT_EQ(job, copy.function);
        EXPECT_EQ(3, job.use_count());
    }
    EXPECT_EQ(2, job.use_count());
}

TEST(FunctionExecutionTest, DurationAcceptsItsBoundsAndRejectsBeyond)
{
    EXPECT_EQ(2000000000000L, Duration(2000000000000L).getValue());
    EXPECT_EQ(-2000000000000L, Duration(-2000000000000L).getValue());
    EXPECT_THROW(Duration(2000000000001L), InvalidArgumentException);
    EXPECT_THROW(Duration(-2000000000001L), InvalidArgumentException);
}

} // namespace
