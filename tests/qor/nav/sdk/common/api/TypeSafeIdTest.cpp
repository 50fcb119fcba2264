#include "qor/nav/sdk/common/api/TypeSafeId.h"

#include <gtest/gtest.h>

#include <type_traits>
#include <unordered_set>

namespace {

using JobId = qor::nav::sdk::common::api::TypeSafeId<struct JobTag, unsigned long, 18446744073709551615UL>;
using TimerId = qor::nav::sdk::common::api::TypeSafeId<struct TimerTag, unsigned long, 18446744073709551615UL>;

// Ids of different owners, and raw values, do not mix without an explicit step.
static_assert(!std::is_convertible<JobId, TimerId>::value && !std::is_constructible<TimerId, JobId>::value, "");
static_assert(!std::is_convertible<unsigned long, JobId>::value, "construction from a value is explicit");

TEST(TypeSafeIdTest, DefaultIsInvalidAndIdsCompareAndHashByValue)
{
    EXPECT_TRUE(!JobId().isValid() && JobId(0).isValid());
    EXPECT_TRUE(JobId(42) == JobId(42) && JobId(42) != JobId(43) && JobId(42) < JobId(43) && !(JobId(43) < JobId(42)));
    EXPECT_EQ(2u, (std::unordered_set<JobId>{JobId(1), JobId(2), JobId(1)}.size()));
}

} // namespace
