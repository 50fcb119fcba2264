#include "qor/common/units/CommonUnit.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

using qor::common::errors::InvalidArgumentException;
using qor::common::units::CommonUnit;
using qor::common::units::eDurationUnit;

using Duration = CommonUnit<long, eDurationUnit, 1000, 1000, -2000000000000, 2000000000000, false>;
using Percent = CommonUnit<int, eDurationUnit, 1, 1, 10, 100, true>;

TEST(CommonUnitTest, DurationAcceptsItsExactBoundsAndRejectsOneBeyond)
{
    EXPECT_EQ(2000000000000L, Duration(2000000000000L).getValue());
    EXPECT_EQ(-2000000000000L, Duration(-2000000000000L).getValue());
    EXPECT_EQ(0L, Duration(0).getValue());
    EXPECT_EQ(0L, Duration().getValue());

    for (const long beyond : {2000000000001L, -2000000000001L, std::numeric_limits<long>::max(),
                              std::numeric_limits<long>::min()})
    {
        EXPECT_THROW(static_cast<void>(Duration(beyond)), InvalidArgumentException) << beyond;
    }
}

TEST(CommonUnitTest, SaturatingUnitClampsToItsBounds)
{
    EXPECT_EQ(100, Percent(101).getValue());
    EXPECT_EQ(10, Percent(-5).getValue());
    EXPECT_EQ(55, Percent(55).getValue());
    // The default value is the bound nearest to zero when zero is outside.
    EXPECT_EQ(10, Percent().getValue());
}

TEST(CommonUnitTest, ComparesByCount)
{
    EXPECT_EQ(Duration(5), Duration(5));
    EXPECT_NE(Duration(5), Duration(6));
    EXPECT_LT(Duration(-2000000000000L), Duration(2000000000000L));
    EXPECT_FALSE(Duration(6) < Duration(5));
}

} // namespace
