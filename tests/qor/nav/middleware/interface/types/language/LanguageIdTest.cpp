#include "qor/nav/middleware/interface/types/language/LanguageId.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <type_traits>

namespace {

using qor::nav::middleware::interface::types::language::LanguageId;

TEST(LanguageIdTest, KeepsTheFourFieldsWithTheirTypes)
{
    const LanguageId id(0x8000, -7258, 0xFFFFFFFFu, 0xFF);
    static_assert(std::is_same<decltype(id.getKind()), std::uint16_t>::value, "unsigned 16-bit");
    static_assert(std::is_same<decltype(id.getLanguageCode()), std::int32_t>::value, "signed 32-bit");
    static_assert(std::is_same<decltype(id.getRegionCode()), std::uint32_t>::value, "unsigned 32-bit");
    static_assert(std::is_same<decltype(id.getVariant()), std::uint8_t>::value, "unsigned 8-bit");
    EXPECT_EQ(id.getKind(), 0x8000);
    EXPECT_EQ(id.getLanguageCode(), -7258);
    EXPECT_EQ(id.getRegionCode(), 0xFFFFFFFFu);
    EXPECT_EQ(id.getVariant(), 0xFF);
    EXPECT_EQ(LanguageId(), LanguageId(0, 0, 0, 0));
}

TEST(LanguageIdTest, OrdersLexicographicallyWithASignedLanguageCode)
{
    // Each earlier field decides, whatever the later ones hold.
    EXPECT_LT(LanguageId(1, 9, 9, 9), LanguageId(2, 0, 0, 0));
    EXPECT_LT(LanguageId(1, 1, 9, 9), LanguageId(1, 2, 0, 0));
    EXPECT_LT(LanguageId(1, 1, 1, 9), LanguageId(1, 1, 2, 0));
    EXPECT_LT(LanguageId(1, 1, 1, 1), LanguageId(1, 1, 1, 2));
    // Unsigned where unsigned, signed where signed.
    EXPECT_LT(LanguageId(0x7FFF, 0, 0, 0), LanguageId(0x8000, 0, 0, 0));
    EXPECT_LT(LanguageId(0, -1, 0, 0), LanguageId(0, 0, 0, 0));
    EXPECT_LT(LanguageId(0, 0, 0x7FFFFFFFu, 0), LanguageId(0, 0, 0x80000000u, 0));
    EXPECT_LT(LanguageId(0, 0, 0, 0x7F), LanguageId(0, 0, 0, 0x80));

    const LanguageId same(0x8000, 7258, 998, 0);
    EXPECT_FALSE(same < same);
    EXPECT_EQ(same, LanguageId(0x8000, 7258, 998, 0));
    EXPECT_NE(same, LanguageId(0x8000, 7258, 998, 1));

    std::map<LanguageId, int> byId;
    byId[LanguageId(0x8000, 7258, 998, 0)] = 1;
    byId[LanguageId(0x8000, 7258, 998, 1)] = 2;
    byId[LanguageId(0x8000, -1, 998, 0)] = 3;
    EXPECT_EQ(byId.size(), 3u);
    EXPECT_EQ(byId.begin()->second, 3);
    EXPECT_EQ(byId.at(LanguageId(0x8000, 7258, 998, 0)), 1);
}

} // namespace
