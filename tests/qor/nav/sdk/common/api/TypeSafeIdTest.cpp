#include "qor/nav/sdk/common/api/TypeSafeId.h"

#include <gtest/gtest.h>

#include <map>
#include <type_traits>
#include <unordered_set>

namespace {

using qor::nav::sdk::common::api::TypeSafeId;

struct SchedulerTag;
struct TimerTag;
using JobId = TypeSafeId<SchedulerTag, unsigned long, 18446744073709551615UL>;
using TimerId = TypeSafeId<TimerTag, unsigned long, 18446744073709551615UL>;

// Ids of different owners, and raw values, do not mix without an explicit step.
static_assert(!std::is_convertible<JobId, TimerId>::value, "tags keep ids apart");
static_assert(!std::is_constructible<TimerId, JobId>::value, "tags keep ids apart");
static_assert(!std::is_convertible<unsigned long, JobId>::value, "construction from a value is explicit");
static_assert(sizeof(JobId) == sizeof(unsigned long), "no overhead over the value");
static_assert(JobId(7).getValue() == 7, "usable in constant expressions");

TEST(TypeSafeIdTest, DefaultIsTheInvalidValue)
{
    const JobId none;
    EXPECT_EQ(18446744073709551615UL, none.getValue());
    EXPECT_FALSE(none.isValid());
    EXPECT_EQ(none, JobId(18446744073709551615UL));
    EXPECT_TRUE(JobId(0).isValid());
}

TEST(TypeSafeIdTest, ComparesAndHashesByValue)
{
    EXPECT_EQ(JobId(42), JobId(42));
    EXPECT_NE(JobId(42), JobId(43));
    EXPECT_LT(JobId(42), JobId(43));
    EXPECT_FALSE(JobId(43) < JobId(42));
    EXPECT_LT(JobId(0), JobId());

    std::map<JobId, int> ordered{{JobId(3), 3}, {JobId(1), 1}, {JobId(2), 2}};
    EXPECT_EQ(1, ordered.begin()->second);
    std::unordered_set<JobId> hashed{JobId(1), JobId(2), JobId(1)};
    EXPECT_EQ(2u, hashed.size());
    EXPECT_EQ(1u, hashed.count(JobId(2)));
}

} // namespace
