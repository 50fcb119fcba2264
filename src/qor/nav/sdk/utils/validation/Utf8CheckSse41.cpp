// The SSE4.1 path of the UTF-8 check. This file alone is compiled with
// -msse4.1 (src/CMakeLists.txt); Utf8Check.cpp calls it only on processors
// that have SSE4.1.
#include "qor/nav/sdk/utils/validation/Utf8Check.h"

#if defined(__x86_64__) || defined(__i386__)
#ifndef __SSE4_1__
#error "Utf8CheckSse41.cpp needs -msse4.1"
#endif

#include "qor/nav/sdk/utils/validation/Utf8CheckKernel.h"

#include <immintrin.h>

namespace qor::nav::sdk::utils::validation::detail {
namespace {

struct Sse41
{
    using Reg = __m128i;
    static constexpr std::size_t kWidth = 16;

    static Reg load(const std::uint8_t* at) { return _mm_loadu_si128(reinterpret_cast<const Reg*>(at)); }
    static Reg splat(std::uint8_t byte) { return _mm_set1_epi8(static_cast<char>(byte)); }
    template <int N>
    static Reg previous(Reg input, Reg before)
    {
        return _mm_alignr_epi8(input, before, 16 - N);
    }
    static Reg lookup(const std::uint8_t* table, Reg index) { return _mm_shuffle_epi8(load(table), index); }
    static Reg highNibble(Reg v) { return _mm_srli_epi16(v, 4) & splat(0x0F); }
    static Reg subs(Reg a, Reg b) { return _mm_subs_epu8(a, b); }
    static bool anyHigh(Reg v) { return _mm_movemask_epi8(v) != 0; }
    static bool anySet(Reg v) { return _mm_testz_si128(v, v) == 0; }
};

} // namespace

bool sse41Utf8Check(const std::uint8_t* data, std::size_t size, bool rejectControls) noexcept
{
    return utf8Check<Sse41>(data, size, rejectControls);
}

} // namespace qor::nav::sdk::utils::validation::detail

#endif
