// An identifier value tagged with the type of its owner, so that ids of
// different owners cannot be mixed up at compile time.
//
//   using JobId = TypeSafeId<Scheduler, unsigned long, ULONG_MAX>;
//   JobId id(42);   JobId none;   // none.getValue() == ULONG_MAX
//
// A plain value: usable from any thread.
#ifndef QOR_NAV_SDK_COMMON_API_TYPESAFEID_H
#define QOR_NAV_SDK_COMMON_API_TYPESAFEID_H

#include <cstddef>
#include <functional>

namespace qor::nav::sdk::common::api {

template <typename Tag, typename T, T INVALID>
class TypeSafeId
{
public:
    using value_type = T;
    static constexpr T invalidValue = INVALID;

    // The invalid id.
    constexpr TypeSafeId() noexcept : m_Value(INVALID) {}
    constexpr explicit TypeSafeId(T value) noexcept : m_Value(value) {}

    constexpr T getValue() const noexcept { return m_Value; }
    constexpr bool isValid() const noexcept { return m_Value != INVALID; }

    friend constexpr bool operator==(const TypeSafeId& a, const TypeSafeId& b) noexcept { return a.m_Value == b.m_Value; }
    friend constexpr bool operator!=(const TypeSafeId& a, const TypeSafeId& b) noexcept { return a.m_Value != b.m_Value; }
    friend constexpr bool operator<(const TypeSafeId& a, const TypeSafeId& b) noexcept { return a.m_Value < b.m_Value; }

private:
    T m_Value;
};

} // namespace qor::nav::sdk::common::api

namespace std {
template <typename Tag, typename T, T INVALID>
struct hash<qor::nav::sdk::common::api::TypeSafeId<Tag, T, INVALID>>
{
    size_t operator()(const qor::nav::sdk::common::api::TypeSafeId<Tag, T, INVALID>& id) const noexcept
    {
        return std::hash<T>()(id.getValue());
    }
};
} // namespace std

#endif
