// The foundation's boolean value type, converting to and from bool.
// A plain value: usable from any thread.
#ifndef QOR_COMMON_TYPES_BOOLEAN_H
#define QOR_COMMON_TYPES_BOOLEAN_H

namespace qor::common::types {

class Boolean
{
public:
    constexpr Boolean(bool value = false) noexcept : m_Value(value) {}
    constexpr operator bool() const noexcept { return m_Value; }

private:
    bool m_Value;
};

} // namespace qor::common::types

#endif
