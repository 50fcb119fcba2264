#include "qor/nav/middleware/interface/types/language/LanguageId.h"

#include <gtest/gtest.h>

#include <random>
#include <tuple>

namespace {

using qor::nav::middleware::interface::types::language::LanguageId;

// Ordered field by field, each earlier field deciding; the language code
// compares signed, the other fields unsigned. Values near the sign bits.
TEST(LanguageIdTest, OrdersAndComparesLikeATupleOfItsFields)
{
    std::mt19937 random(5);
    auto pick = [&random](std::uint32_t top) { return static_cast<std::uint32_t>(top - 1 + random() % 3); };
    for (int i = 0; i < 5000; ++i)
    {
        const LanguageId a(pick(0x8000), static_cast<std::int32_t>(pick(0)), pick(0x80000000u), pick(0x80));
        const LanguageId b(pick(0x8000), static_cast<std::int32_t>(pick(0)), pick(0x80000000u), pick(0x80));
        const auto ta = std::make_tuple(a.getKind(), a.getLanguageCode(), a.getRegionCode(), a.getVariant());
        const auto tb = std::make_tuple(b.getKind(), b.getLanguageCode(), b.getRegionCode(), b.getVariant());
        ASSERT_EQ(ta < tb, a < b);
        ASSERT_EQ(ta == tb, a == b);
        ASSERT_EQ(ta != tb, a != b);
    }
    EXPECT_EQ(-7258, LanguageId(0xFFFF, -7258, 0xFFFFFFFFu, 0xFF).getLanguageCode());
    EXPECT_EQ(LanguageId(), LanguageId(0, 0, 0, 0));
}

} // namespace
