// A count of some unit held in a value of type T, bounded to [MIN, MAX].
//
//   using Duration = CommonUnit<long, eDurationUnit, 1000, 1000,
//                               -2000000000000, 2000000000000, false>;
//   Duration delay(250);          // 250 ms
//   long ms = delay.getValue();   // the raw count back
//
// Template arguments:
//   T              type of the count.
//   U              unit kind (eDurationUnit: the base unit is the millisecond).
//   NUM, DEN       one count equals NUM / DEN base units (1000 / 1000: one ms).
//   MIN, MAX       the admissible range of counts, both inclusive.
//   SATURATE       what a count outside [MIN, MAX] does: true clamps it to the
//                  nearest bound; false rejects it with InvalidArgumentException.
// The scheduler's Duration rejects: Duration(2000000000000) and
// Duration(-2000000000000) are valid, one beyond either bound throws.
//
// A plain value: usable from any thread.
#ifndef QOR_COMMON_UNITS_COMMONUNIT_H
#define QOR_COMMON_UNITS_COMMONUNIT_H

#include "qor/common/errors/InvalidArgumentException.h"

#include <string>

namespace qor::common::units {

// Unit kind of durations; the base unit is the millisecond.
enum eDurationUnit
{
    eDurationMilliseconds = 0
};

template <typename T, typename U, long NUM, long DEN, T MIN, T MAX, bool SATURATE>
class CommonUnit
{
    static_assert(MIN <= MAX, "empty range");
    static_assert(NUM > 0 && DEN > 0, "unit ratio must be positive");

public:
    using value_type = T;
    using unit_type = U;
    static constexpr T minValue = MIN;
    static constexpr T maxValue = MAX;

    constexpr CommonUnit() noexcept : m_Count(0 < MIN ? MIN : (0 > MAX ? MAX : 0)) {}

    explicit CommonUnit(T count) : m_Count(check(count)) {}

    T getValue() const noexcept { return m_Count; }

    friend bool operator==(const CommonUnit& a, const CommonUnit& b) noexcept { return a.m_Count == b.m_Count; }
    friend bool operator!=(const CommonUnit& a, const CommonUnit& b) noexcept { return a.m_Count != b.m_Count; }
    friend bool operator<(const CommonUnit& a, const CommonUnit& b) noexcept { return a.m_Count < b.m_Count; }

private:
    static T check(T count)
    {
        if (count < MIN)
        {
            if (SATURATE)
            {
                return MIN;
            }
            throw errors::InvalidArgumentException(
                "CommonUnit: count " + std::to_string(count) + " below minimum " + std::to_string(MIN), nullptr, false);
        }
        if (count > MAX)
        {
            if (SATURATE)
            {
                return MAX;
            }
            throw errors::InvalidArgumentException(
                "CommonUnit: count " + std::to_string(count) + " above maximum " + std::to_string(MAX), nullptr, false);
        }
        return count;
    }

    T m_Count;
};

} // namespace qor::common::units

#endif
