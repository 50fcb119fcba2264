// Internal to the vector paths of the UTF-8 check (Utf8CheckSse41.cpp,
// Utf8CheckAvx2.cpp, Utf8CheckNeon.cpp): the one check kernel, written against
// a vector-traits type V that each of those files defines for its instruction
// set:
//   V::Reg                       the vector register type
//   V::kWidth                    its size in bytes (16 or 32)
//   V::load(p), V::splat(b)      an unaligned load; every byte set to b
//   V::previous<N>(in, before)   `in` shifted up by N bytes, the last N
//                                bytes of `before` shifted in
//   V::lookup(table, index)      16-entry table look-up per byte (index < 16)
//   V::highNibble(v)             each byte shifted right by four
//   V::subs(a, b)                saturating unsigned subtract per byte
//   V::anyHigh(v), V::anySet(v)  any byte >= 0x80; any bit set
// The bitwise operators | & ^ on V::Reg are the GCC/Clang vector extensions.
//
// Everything here has internal linkage on purpose: each including file is
// compiled for a different instruction set, and a shared inline function
// could be merged by the linker into the copy built for the widest one.
//
// The method: each error a pair of bytes (the previous byte and this one) can
// show has a bit. Three tables map the previous byte's high nibble, its low
// nibble and this byte's high nibble to the errors each could be part of; an
// error is present when all three agree on its bit. Besides, a continuation
// byte must stand exactly where a three- or four-byte lead two or three bytes
// back requires one. Text is checked 64 bytes a step; a step of ASCII only
// needs no look-up, just the check that the step before left no sequence open.
#ifndef QOR_NAV_SDK_UTILS_VALIDATION_UTF8CHECKKERNEL_H
#define QOR_NAV_SDK_UTILS_VALIDATION_UTF8CHECKKERNEL_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qor::nav::sdk::utils::validation::detail {
namespace {

constexpr std::uint8_t kTooShort = 0x01;     // lead not followed by a continuation
constexpr std::uint8_t kTooLong = 0x02;      // ASCII followed by a continuation
constexpr std::uint8_t kOverlong3 = 0x04;    // E0 80..9F
constexpr std::uint8_t kTooLarge = 0x08;     // F4 90..BF, F5..FF 90..BF
constexpr std::uint8_t kSurrogate = 0x10;    // ED A0..BF
constexpr std::uint8_t kOverlong2 = 0x20;    // C0, C1 followed by a continuation
constexpr std::uint8_t kTooLarge1000 = 0x40; // F5..FF 80..8F
constexpr std::uint8_t kOverlong4 = 0x40;    // F0 80..8F
constexpr std::uint8_t kTwoConts = 0x80;     // continuation after continuation
constexpr std::uint8_t kCarry = kTooShort | kTooLong | kTwoConts;

// clang-format off
alignas(16) constexpr std::uint8_t kPrevHigh[16] = {
    kTooLong, kTooLong, kTooLong, kTooLong, kTooLong, kTooLong, kTooLong, kTooLong,  // 0..7: ASCII
    kTwoConts, kTwoConts, kTwoConts, kTwoConts,                                      // 8..B: continuation
    kTooShort | kOverlong2,                                                          // C
    kTooShort,                                                                       // D
    kTooShort | kOverlong3 | kSurrogate,                                             // E
    kTooShort | kTooLarge | kTooLarge1000 | kOverlong4,                              // F
};
alignas(16) constexpr std::uint8_t kPrevLow[16] = {
    kCarry | kOverlong3 | kOverlong2 | kOverlong4,  // 0
    kCarry | kOverlong2,                            // 1
    kCarry,                                         // 2
    kCarry,                                         // 3
    kCarry | kTooLarge,                             // 4
    kCarry | kTooLarge | kTooLarge1000,             // 5
    kCarry | kTooLarge | kTooLarge1000,             // 6
    kCarry | kTooLarge | kTooLarge1000,             // 7
    kCarry | kTooLarge | kTooLarge1000,             // 8
    kCarry | kTooLarge | kTooLarge1000,             // 9
    kCarry | kTooLarge | kTooLarge1000,             // A
    kCarry | kTooLarge | kTooLarge1000,             // B
    kCarry | kTooLarge | kTooLarge1000,             // C
    kCarry | kTooLarge | kTooLarge1000 | kSurrogate, // D
    kCarry | kTooLarge | kTooLarge1000,             // E
    kCarry | kTooLarge | kTooLarge1000,             // F
};
alignas(16) constexpr std::uint8_t kThisHigh[16] = {
    kTooShort, kTooShort, kTooShort, kTooShort, kTooShort, kTooShort, kTooShort, kTooShort,  // 0..7
    kTooLong | kOverlong2 | kTwoConts | kOverlong3 | kTooLarge1000 | kOverlong4,             // 8
    kTooLong | kOverlong2 | kTwoConts | kOverlong3 | kTooLarge,                               // 9
    kTooLong | kOverlong2 | kTwoConts | kSurrogate | kTooLarge,                              // A
    kTooLong | kOverlong2 | kTwoConts | kSurrogate | kTooLarge,                              // B
    kTooShort, kTooShort, kTooShort, kTooShort,                                              // C..F
};
// A vector whose last three bytes start sequences that need more bytes than
// the vector has left: byte - limit is non-zero there. A narrower vector
// takes the table's tail.
alignas(32) constexpr std::uint8_t kIncompleteLimit[32] = {
    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xEF, 0xDF, 0xBF,
};
// clang-format on

// Continuations that a three-byte lead two bytes back (E0..EF, so >= 0xE0)
// or a four-byte lead three bytes back (F0..FF) requires: subtracting these
// with saturation leaves the high bit set exactly for such leads.
constexpr std::uint8_t kThirdByteBias = 0xE0 - 0x80;
constexpr std::uint8_t kFourthByteBias = 0xF0 - 0x80;

constexpr std::size_t kStep = 64;

template <class V, bool kRejectControls>
class Utf8Kernel
{
public:
    using Reg = typename V::Reg;

    static bool check(const std::uint8_t* data, std::size_t size) noexcept
    {
        Utf8Kernel k;
        std::size_t i = k.skipLeadingAscii(data, size);
        for (; size - i >= kStep; i += kStep)
        {
            k.step(data + i);
            if (V::anySet(k.m_Error | k.m_Controls))
            {
                return false;
            }
        }
        if (i < size)
        {
            // The end, padded with spaces: ASCII, so a sequence cut short by
            // the end fails as one followed by ASCII, and not a control.
            std::uint8_t block[kStep];
            std::memset(block, 0x20, kStep);
            std::memcpy(block, data + i, size - i);
            k.step(block);
        }
        return !V::anySet(k.m_Error | k.m_PreviousIncomplete | k.m_Controls);
    }

private:
    static constexpr std::size_t kVectors = kStep / V::kWidth;

    // A leading ASCII run, two steps at a time with one test; returns where
    // it ends, at a step boundary. It leaves no sequence open, and m_Previous
    // may stay zero: to the checks one ASCII byte before is as good as another.
    std::size_t skipLeadingAscii(const std::uint8_t* data, std::size_t size) noexcept
    {
        std::size_t i = 0;
        for (Reg v[2 * kVectors]; size - i >= 2 * kStep && loadAscii(data + i, v);)
        {
            i += 2 * kStep;
        }
        return i;
    }

    // Loads N vectors from `at`, notes the control characters among them and
    // returns whether all are ASCII.
    template <std::size_t N>
    bool loadAscii(const std::uint8_t* at, Reg (&v)[N]) noexcept
    {
        Reg any = V::splat(0);
        for (std::size_t j = 0; j < N; ++j)
        {
            v[j] = V::load(at + j * V::kWidth);
            any = any | v[j];
            if (kRejectControls)
            {
                m_Controls = m_Controls | V::subs(V::splat(0x20), v[j]);
            }
        }
        return !V::anyHigh(any);
    }

    void step(const std::uint8_t* at) noexcept
    {
        Reg v[kVectors];
        if (loadAscii(at, v))
        {
            // Only a sequence left open by the step before is wrong.
            m_Error = m_Error | m_PreviousIncomplete;
            m_PreviousIncomplete = V::splat(0);
            m_Previous = v[kVectors - 1];
            return;
        }
        for (const Reg& input : v)
        {
            checkVector(input);
        }
        m_PreviousIncomplete = V::subs(v[kVectors - 1], V::load(kIncompleteLimit + sizeof kIncompleteLimit - V::kWidth));
    }

    void checkVector(Reg input) noexcept
    {
        const Reg prev1 = V::template previous<1>(input, m_Previous);
        const Reg special = V::lookup(kPrevHigh, V::highNibble(prev1)) &
                            V::lookup(kPrevLow, prev1 & V::splat(0x0F)) & V::lookup(kThisHigh, V::highNibble(input));
        const Reg third = V::subs(V::template previous<2>(input, m_Previous), V::splat(kThirdByteBias));
        const Reg fourth = V::subs(V::template previous<3>(input, m_Previous), V::splat(kFourthByteBias));
        m_Error = m_Error | (((third | fourth) & V::splat(0x80)) ^ special);
        m_Previous = input;
    }

    Reg m_Error = V::splat(0);
    Reg m_Previous = V::splat(0);
    Reg m_PreviousIncomplete = V::splat(0);
    Reg m_Controls = V::splat(0);
};

// The entry point of a vector path.
template <class V>
bool utf8Check(const std::uint8_t* data, std::size_t size, bool rejectControls) noexcept
{
    return rejectControls ? Utf8Kernel<V, true>::check(data, size) : Utf8Kernel<V, false>::check(data, size);
}

} // namespace
} // namespace qor::nav::sdk::utils::validation::detail

#endif
