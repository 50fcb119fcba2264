#include "qor/nav/middleware/interface/types/language/LanguageId.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <type_traits>
#include <utility>

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
    // Each earlier field decides whatever the later ones hold; unsigned
    // fields compare unsigned, the language code signed.
    const std::pair<LanguageId, LanguageId> lessThan[] = {
        {LanguageId(1, 9, 9, 9), LanguageId(2, 0, 0, 0)},        {LanguageId(1, 1, 9, 9), LanguageId(1, 2, 0, 0)},
        {LanguageId(1, 1, 1, 9), LanguageId(1, 1, 2, 0)},        {LanguageId(1, 1, 1, 1), LanguageId(1, 1, 1, 2)},
        {LanguageId(0x7FFF, 0, 0, 0), LanguageId(0x8000, 0, 0, 0)}, {LanguageId(0, -1, 0, 0), LanguageId(0, 0, 0, 0)},
        {LanguageId(0, 0, 0x7FFFFFFFu, 0), LanguageId(0, 0, 0x80000000u, 0)},
        {LanguageId(0, 0, 0, 0x7F), LanguageId(0, 0, 0, 0x80)},
    };
    for (const auto& pair : lessThan)
    {
        EXPECT_TRUE(pair.first < pair.second);
        EXPECT_FALSE(pair.second < pair.first);
        EXPECT_NE(pair.first, pair.second);
    }
    const LanguageId same(0x8000, 7258, 998, 0);
    EXPECT_FALSE(same < same);
    EXPECT_EQ(same, LanguageId(0x8000, 7258, 998, 0));

    const std::map<LanguageId, int> byId = {{same, 1}, {LanguageId(0x8000, 7258, 998, 1), 2}, {LanguageId(0x8000, -1, 998, 0), 3}};
    EXPECT_EQ(byId.size(), 3u);
    EXPECT_EQ(byId.begin()->second, 3);
    EXPECT_EQ(byId.at(LanguageId(0x8000, 7258, 998, 0)), 1);
}

} // namespace
