#include "qor/common/units/CommonUnit.h"

#include <gtest/gtest.h>

namespace {

using qor::common::units::CommonUnit;

// The scheduler's Duration rejects counts beyond its bounds; a saturating
// unit clamps them, and defaults to the bound nearest zero when zero is out.
TEST(CommonUnitTest, CountsOutsideTheBoundsAreRejectedOrClamped)
{
    using Duration = CommonUnit<long, qor::common::units::eDurationUnit, 1000, 1000, -2000000000000, 2000000000000, false>;
    using Percent = CommonUnit<int, qor::common::units::eDurationUnit, 1, 1, 10, 100, true>;
    EXPECT_EQ(2000000000000L, Duration(2000000000000L).getValue());
    EXPECT_EQ(-2000000000000L, Duration(-2000000000000L).getValue());
    EXPECT_THROW(Duration(2000000000001L), qor::common::errors::InvalidArgumentException);
    EXPECT_THROW(Duration(-2000000000001L), qor::common::errors::InvalidArgumentException);
    EXPECT_TRUE(Duration(-1) < Duration(0) && !(Duration(0) < Duration(0)) && Duration(5) != Duration(6));
    EXPECT_EQ(0L, Duration().getValue());
    EXPECT_EQ(100, Percent(101).getValue());
    EXPECT_EQ(10, Percent(-5).getValue());
    EXPECT_EQ(55, Percent(55).getValue());
    EXPECT_EQ(10, Percent().getValue());
}

} // namespace
