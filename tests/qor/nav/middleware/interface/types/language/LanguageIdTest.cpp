#include "qor/nav/middleware/interface/types/language/LanguageId.h"

#include <gtest/gtest.h>

#include <random>
#include <tuple>

namespace {

using qor::nav::middleware::interface::types::language::LanguageId;

// Ordered field by field, each earlier field deciding; the language code
// compares signed, the other fields unsigned: values around the sign bits.
TEST(LanguageIdTest, OrdersAndComparesLikeATupleOfItsFields)
{
    std::mt19937 random(5);
    auto near = [&random](std::uint32_t value) { return static_cast<std::uint32_t>(value - 1 + random() % 3); };
    for (int i = 0; i < 5000; ++i)
    {
        const LanguageId a(near(0x8000), static_cast<std::int32_t>(near(0)), near(0x80000000u), near(0x80));
        const LanguageId b(near(0x8000), static_cast<std::int32_t>(near(0)), near(0x80000000u), near(0x80));
        const auto ta = std::make_tuple(a.getKind(), a.getLanguageCode(), a.getRegionCode(), a.getVariant());
        const auto tb = std::make_tuple(b.getKind(), b.getLanguageCode(), b.getRegionCode(), b.getVariant());
        ASSERT_TRUE((ta < tb) == (a < b) && (ta == tb) == (a == b) && (ta != tb) == (a != b));
    }
}

} // namespace
