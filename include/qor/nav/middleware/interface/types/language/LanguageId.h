// The key under which per-language data (such as character replacement
// tables) is stored.
//
//   LanguageId id(0x8000, 7258, 998, 0);
//   std::map<LanguageId, Table> tables;     // ordered by operator<
//
// A LanguageId is four numbers, kept in this order: an unsigned 16-bit kind,
// a signed 32-bit language code, an unsigned 32-bit region code and an
// unsigned 8-bit variant. What the numbers mean is up to the middleware that
// hands the ids out; this type only stores, compares and orders them.
// operator< compares the four fields lexicographically in that order (the
// language code as a signed number), so ids can key a std::map.
//
// Threads: a plain value; distinct objects may be used from any thread.
#ifndef QOR_NAV_MIDDLEWARE_INTERFACE_TYPES_LANGUAGE_LANGUAGEID_H
#define QOR_NAV_MIDDLEWARE_INTERFACE_TYPES_LANGUAGE_LANGUAGEID_H

#include <cstdint>

namespace qor::nav::middleware::interface::types::language {

class LanguageId
{
public:
    // All four fields 0.
    constexpr LanguageId() noexcept = default;

    constexpr LanguageId(std::uint16_t kind, std::int32_t languageCode, std::uint32_t regionCode,
                         std::uint8_t variant) noexcept
        : m_Kind(kind), m_LanguageCode(languageCode), m_RegionCode(regionCode), m_Variant(variant)
    {
    }

    constexpr std::uint16_t getKind() const noexcept { return m_Kind; }
    constexpr std::int32_t getLanguageCode() const noexcept { return m_LanguageCode; }
    constexpr std::uint32_t getRegionCode() const noexcept { return m_RegionCode; }
    constexpr std::uint8_t getVariant() const noexcept { return m_Variant; }

    friend constexpr bool operator==(const LanguageId& a, const LanguageId& b) noexcept
    {
        return a.m_Kind == b.m_Kind && a.m_LanguageCode == b.m_LanguageCode && a.m_RegionCode == b.m_RegionCode &&
               a.m_Variant == b.m_Variant;
    }

    friend constexpr bool operator!=(const LanguageId& a, const LanguageId& b) noexcept { return !(a == b); }

    // Lexicographic: kind, then language code (signed), then region code,
    // then variant.
    friend constexpr bool operator<(const LanguageId& a, const LanguageId& b) noexcept
    {
        if (a.m_Kind != b.m_Kind)
        {
            return a.m_Kind < b.m_Kind;
        }
        if (a.m_LanguageCode != b.m_LanguageCode)
        {
            return a.m_LanguageCode < b.m_LanguageCode;
        }
        if (a.m_RegionCode != b.m_RegionCode)
        {
            return a.m_RegionCode < b.m_RegionCode;
        }
        return a.m_Variant < b.m_Variant;
    }

private:
    std::uint16_t m_Kind = 0;
    std::int32_t m_LanguageCode = 0;
    std::uint32_t m_RegionCode = 0;
    std::uint8_t m_Variant = 0;
};

} // namespace qor::nav::middleware::interface::types::language

#endif
