// The AVX2 path of the UTF-8 check. This file alone is compiled with -mavx2
// (src/CMakeLists.txt); Utf8Check.cpp calls it only on processors that have
// AVX2.
#include "qor/nav/sdk/utils/validation/Utf8Check.h"

#if defined(__x86_64__) || defined(__i386__)
#ifndef __AVX2__
#error "Utf8CheckAvx2.cpp needs -mavx2"
#endif

#include "qor/nav/sdk/utils/validation/Utf8CheckKernel.h"

#include <immintrin.h>

namespace qor::nav::sdk::utils::validation::detail {
namespace {

struct Avx2
{
    using Reg = __m256i;
    static constexpr std::size_t kWidth = 32;

    static Reg load(const std::uint8_t* at) { return _mm256_loadu_si256(reinterpret_cast<const Reg*>(at)); }
    static Reg splat(std::uint8_t byte) { return _mm256_set1_epi8(static_cast<char>(byte)); }
    template <int N>
    static Reg previous(Reg input, Reg before)
    {
        // Byte shifts stay within 16-byte lanes: shift in from the previous
        // vector's high lane followed by this one's low lane.
        return _mm256_alignr_epi8(input, _mm256_permute2x128_si256(before, input, 0x21), 16 - N);
    }
    static Reg lookup(const std::uint8_t* table, Reg index)
    {
        return _mm256_shuffle_epi8(_mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(table))),
                                   index);
    }
    static Reg highNibble(Reg v) { return _mm256_srli_epi16(v, 4) & splat(0x0F); }
    static Reg subs(Reg a, Reg b) { return _mm256_subs_epu8(a, b); }
    static bool anyHigh(Reg v) { return _mm256_movemask_epi8(v) != 0; }
    static bool anySet(Reg v) { return _mm256_testz_si256(v, v) == 0; }
};

} // namespace

bool avx2Utf8Check(const std::uint8_t* data, std::size_t size, bool rejectControls) noexcept
{
    return utf8Check<Avx2>(data, size, rejectControls);
}

} // namespace qor::nav::sdk::utils::validation::detail

#endif
