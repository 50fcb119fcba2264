#include "qor/nav/sdk/utils/validation/Utf8Check.h"

#include "qor/nav/sdk/utils/validation/Utf8Automaton.h"

#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#define QOR_UTF8_X86 1
#include <immintrin.h>
#elif defined(__aarch64__)
#define QOR_UTF8_NEON 1
#include <arm_neon.h>
#endif

namespace qor::nav::sdk::utils::validation::detail {

namespace {

// --- Scalar path -------------------------------------------------------------
//
// The automaton, with runs of ASCII at character boundaries skipped sixteen
// and eight bytes at a time.

constexpr std::uint64_t kHighBits = 0x8080808080808080ull;
constexpr std::uint64_t kSpaces = 0x2020202020202020ull;

std::uint64_t load64(const std::uint8_t* at) noexcept
{
    std::uint64_t word;
    std::memcpy(&word, at, sizeof word);
    return word;
}

// For a word of ASCII bytes: whether one of them is below 0x20. (A borrow
// can only turn on high bits above a byte that really is below 0x20, so the
// answer is exact, though not which byte.)
bool hasControl(std::uint64_t asciiWord) noexcept
{
    return ((asciiWord - kSpaces) & ~asciiWord & kHighBits) != 0;
}

template <bool kRejectControls>
bool scalarCheck(const std::uint8_t* data, std::size_t size) noexcept
{
    std::size_t i = 0;
    std::uint32_t state = kAccept;
    while (i < size)
    {
        if (state == kAccept)
        {
            while (size - i >= 16)
            {
                const std::uint64_t a = load64(data + i);
                const std::uint64_t b = load64(data + i + 8);
                if (((a | b) & kHighBits) != 0)
                {
                    break;
                }
                if (kRejectControls && (hasControl(a) || hasControl(b)))
                {
                    return false;
                }
                i += 16;
            }
            if (size - i >= 8)
            {
                const std::uint64_t a = load64(data + i);
                if ((a & kHighBits) == 0)
                {
                    if (kRejectControls && hasControl(a))
                    {
                        return false;
                    }
                    i += 8;
                    continue;
                }
            }
        }
        // Up to sixteen bytes through the automaton, then try again.
        const std::size_t end = size - i > 16 ? i + 16 : size;
        for (; i < end; ++i)
        {
            if (kRejectControls && data[i] < 0x20)
            {
                return false;
            }
            state = kTransition[state + kByteClass[data[i]]];
            if (state == kReject)
            {
                return false;
            }
        }
    }
    return state == kAccept;
}

// --- The lookup tables of the vector paths ------------------------------------
//
// Each error a pair of bytes (the previous byte and this one) can show has a
// bit. Three tables map the previous byte's high nibble, its low nibble and
// this byte's high nibble to the errors each could be part of; an error is
// present when all three agree on its bit.

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
// A block whose last three bytes start sequences that need more bytes than
// the block has left: byte - limit is non-zero there.
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

// Copies the last `left` (< kStep) bytes into `block`, padded with spaces:
// ASCII, so a sequence cut short by the end fails as one followed by ASCII,
// and not a control character.
void padTail(std::uint8_t (&block)[kStep], const std::uint8_t* data, std::size_t left) noexcept
{
    std::memset(block, 0x20, kStep);
    if (left != 0)
    {
        std::memcpy(block, data, left);
    }
}

#ifdef QOR_UTF8_X86

// --- SSE4.1 path --------------------------------------------------------------

#define QOR_SSE41 __attribute__((target("sse4.1")))
#define QOR_AVX2 __attribute__((target("avx2")))

struct SseState
{
    __m128i error;
    __m128i previous;
    __m128i previousIncomplete;
};

QOR_SSE41 inline __m128i sseTable(const std::uint8_t* table)
{
    return _mm_load_si128(reinterpret_cast<const __m128i*>(table));
}

QOR_SSE41 inline void sseCheckVector(__m128i input, SseState& s)
{
    const __m128i nibble = _mm_set1_epi8(0x0F);
    const __m128i prev1 = _mm_alignr_epi8(input, s.previous, 15);
    const __m128i prevHigh = _mm_shuffle_epi8(sseTable(kPrevHigh), _mm_and_si128(_mm_srli_epi16(prev1, 4), nibble));
    const __m128i prevLow = _mm_shuffle_epi8(sseTable(kPrevLow), _mm_and_si128(prev1, nibble));
    const __m128i thisHigh = _mm_shuffle_epi8(sseTable(kThisHigh), _mm_and_si128(_mm_srli_epi16(input, 4), nibble));
    const __m128i special = _mm_and_si128(_mm_and_si128(prevHigh, prevLow), thisHigh);
    const __m128i prev2 = _mm_alignr_epi8(input, s.previous, 14);
    const __m128i prev3 = _mm_alignr_epi8(input, s.previous, 13);
    const __m128i third = _mm_subs_epu8(prev2, _mm_set1_epi8(static_cast<char>(kThirdByteBias)));
    const __m128i fourth = _mm_subs_epu8(prev3, _mm_set1_epi8(static_cast<char>(kFourthByteBias)));
    const __m128i required = _mm_and_si128(_mm_or_si128(third, fourth), _mm_set1_epi8(static_cast<char>(0x80)));
    s.error = _mm_or_si128(s.error, _mm_xor_si128(required, special));
    s.previous = input;
}

QOR_SSE41 inline __m128i sseControls(__m128i input)
{
    return _mm_subs_epu8(_mm_set1_epi8(0x20), input);
}

QOR_SSE41 inline void sseCheckStep(const std::uint8_t* at, SseState& s, __m128i& controls, bool rejectControls)
{
    const __m128i v0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
    const __m128i v1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at + 16));
    const __m128i v2 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at + 32));
    const __m128i v3 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at + 48));
    if (rejectControls)
    {
        controls = _mm_or_si128(controls, _mm_or_si128(_mm_or_si128(sseControls(v0), sseControls(v1)),
                                                       _mm_or_si128(sseControls(v2), sseControls(v3))));
    }
    const __m128i any = _mm_or_si128(_mm_or_si128(v0, v1), _mm_or_si128(v2, v3));
    if (_mm_movemask_epi8(any) == 0)
    {
        // All ASCII: only a sequence left open by the step before is wrong.
        s.error = _mm_or_si128(s.error, s.previousIncomplete);
        s.previousIncomplete = _mm_setzero_si128();
        s.previous = v3;
        return;
    }
    sseCheckVector(v0, s);
    sseCheckVector(v1, s);
    sseCheckVector(v2, s);
    sseCheckVector(v3, s);
    s.previousIncomplete = _mm_subs_epu8(v3, sseTable(kIncompleteLimit + 16));
}

template <bool kRejectControls>
QOR_SSE41 bool sseCheck(const std::uint8_t* data, std::size_t size) noexcept
{
    SseState s{_mm_setzero_si128(), _mm_setzero_si128(), _mm_setzero_si128()};
    __m128i controls = _mm_setzero_si128();
    std::size_t i = 0;
    for (; size - i >= kStep; i += kStep)
    {
        sseCheckStep(data + i, s, controls, kRejectControls);
        if (!_mm_testz_si128(_mm_or_si128(s.error, controls), _mm_or_si128(s.error, controls)))
        {
            return false;
        }
    }
    if (i < size)
    {
        std::uint8_t block[kStep];
        padTail(block, data + i, size - i);
        sseCheckStep(block, s, controls, kRejectControls);
    }
    const __m128i all = _mm_or_si128(_mm_or_si128(s.error, s.previousIncomplete), controls);
    return _mm_testz_si128(all, all) != 0;
}

QOR_SSE41 bool sseIsStrict(const std::uint8_t* data, std::size_t size) noexcept
{
    return sseCheck<false>(data, size);
}

QOR_SSE41 bool sseIsStrictWithoutControls(const std::uint8_t* data, std::size_t size) noexcept
{
    return sseCheck<true>(data, size);
}

// --- AVX2 path ----------------------------------------------------------------

struct AvxState
{
    __m256i error;
    __m256i previous;
    __m256i previousIncomplete;
};

QOR_AVX2 inline __m256i avxTable(const std::uint8_t* table)
{
    return _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(table)));
}

QOR_AVX2 inline void avxCheckVector(__m256i input, AvxState& s)
{
    const __m256i nibble = _mm256_set1_epi8(0x0F);
    // The previous vector's high half followed by this one's low half, so
    // that the byte shifts below reach across the lanes.
    const __m256i carried = _mm256_permute2x128_si256(s.previous, input, 0x21);
    const __m256i prev1 = _mm256_alignr_epi8(input, carried, 15);
    const __m256i prevHigh =
        _mm256_shuffle_epi8(avxTable(kPrevHigh), _mm256_and_si256(_mm256_srli_epi16(prev1, 4), nibble));
    const __m256i prevLow = _mm256_shuffle_epi8(avxTable(kPrevLow), _mm256_and_si256(prev1, nibble));
    const __m256i thisHigh =
        _mm256_shuffle_epi8(avxTable(kThisHigh), _mm256_and_si256(_mm256_srli_epi16(input, 4), nibble));
    const __m256i special = _mm256_and_si256(_mm256_and_si256(prevHigh, prevLow), thisHigh);
    const __m256i prev2 = _mm256_alignr_epi8(input, carried, 14);
    const __m256i prev3 = _mm256_alignr_epi8(input, carried, 13);
    const __m256i third = _mm256_subs_epu8(prev2, _mm256_set1_epi8(static_cast<char>(kThirdByteBias)));
    const __m256i fourth = _mm256_subs_epu8(prev3, _mm256_set1_epi8(static_cast<char>(kFourthByteBias)));
    const __m256i required =
        _mm256_and_si256(_mm256_or_si256(third, fourth), _mm256_set1_epi8(static_cast<char>(0x80)));
    s.error = _mm256_or_si256(s.error, _mm256_xor_si256(required, special));
    s.previous = input;
}

QOR_AVX2 inline __m256i avxControls(__m256i input)
{
    return _mm256_subs_epu8(_mm256_set1_epi8(0x20), input);
}

QOR_AVX2 inline void avxCheckStep(const std::uint8_t* at, AvxState& s, __m256i& controls, bool rejectControls)
{
    const __m256i v0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
    const __m256i v1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at + 32));
    if (rejectControls)
    {
        controls = _mm256_or_si256(controls, _mm256_or_si256(avxControls(v0), avxControls(v1)));
    }
    if (_mm256_movemask_epi8(_mm256_or_si256(v0, v1)) == 0)
    {
        s.error = _mm256_or_si256(s.error, s.previousIncomplete);
        s.previousIncomplete = _mm256_setzero_si256();
        s.previous = v1;
        return;
    }
    avxCheckVector(v0, s);
    avxCheckVector(v1, s);
    s.previousIncomplete =
        _mm256_subs_epu8(v1, _mm256_load_si256(reinterpret_cast<const __m256i*>(kIncompleteLimit)));
}

template <bool kRejectControls>
QOR_AVX2 bool avxCheck(const std::uint8_t* data, std::size_t size) noexcept
{
    AvxState s{_mm256_setzero_si256(), _mm256_setzero_si256(), _mm256_setzero_si256()};
    __m256i controls = _mm256_setzero_si256();
    std::size_t i = 0;
    // Long ASCII runs: 128 bytes a step, with one test.
    while (size - i >= 2 * kStep)
    {
        const __m256i* at = reinterpret_cast<const __m256i*>(data + i);
        const __m256i v0 = _mm256_loadu_si256(at);
        const __m256i v1 = _mm256_loadu_si256(at + 1);
        const __m256i v2 = _mm256_loadu_si256(at + 2);
        const __m256i v3 = _mm256_loadu_si256(at + 3);
        const __m256i any = _mm256_or_si256(_mm256_or_si256(v0, v1), _mm256_or_si256(v2, v3));
        if (_mm256_movemask_epi8(any) != 0)
        {
            break;
        }
        if (kRejectControls)
        {
            controls = _mm256_or_si256(controls, _mm256_or_si256(_mm256_or_si256(avxControls(v0), avxControls(v1)),
                                                                 _mm256_or_si256(avxControls(v2), avxControls(v3))));
        }
        s.error = _mm256_or_si256(s.error, s.previousIncomplete);
        s.previousIncomplete = _mm256_setzero_si256();
        s.previous = v3;
        i += 2 * kStep;
    }
    for (; size - i >= kStep; i += kStep)
    {
        avxCheckStep(data + i, s, controls, kRejectControls);
        const __m256i all = _mm256_or_si256(s.error, controls);
        if (!_mm256_testz_si256(all, all))
        {
            return false;
        }
    }
    if (i < size)
    {
        std::uint8_t block[kStep];
        padTail(block, data + i, size - i);
        avxCheckStep(block, s, controls, kRejectControls);
    }
    const __m256i all = _mm256_or_si256(_mm256_or_si256(s.error, s.previousIncomplete), controls);
    return _mm256_testz_si256(all, all) != 0;
}

QOR_AVX2 bool avxIsStrict(const std::uint8_t* data, std::size_t size) noexcept
{
    return avxCheck<false>(data, size);
}

QOR_AVX2 bool avxIsStrictWithoutControls(const std::uint8_t* data, std::size_t size) noexcept
{
    return avxCheck<true>(data, size);
}

// --- AVX-512 path (AVX512BW) ----------------------------------------------------
//
// The AVX2 step with one 64-byte vector: same tables, same checks.

#define QOR_AVX512 __attribute__((target("avx512f,avx512bw")))

// The incomplete-sequence limits for a 64-byte block.
alignas(64) constexpr std::uint8_t kIncompleteLimit64[64] = {
    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xEF, 0xDF, 0xBF,
};

struct Avx512State
{
    __m512i error;
    __m512i previous;
    __m512i previousIncomplete;
};

QOR_AVX512 inline __m512i avx512Table(const std::uint8_t* table)
{
    // The masked forms (all lanes selected) take a defined source, which
    // keeps GCC from warning about the undefined one of the plain forms.
    return _mm512_mask_broadcast_i32x4(_mm512_setzero_si512(), 0xFFFF,
                                       _mm_load_si128(reinterpret_cast<const __m128i*>(table)));
}

QOR_AVX512 inline void avx512CheckVector(__m512i input, Avx512State& s)
{
    const __m512i nibble = _mm512_set1_epi8(0x0F);
    // The previous vector's last 16 bytes followed by this one's first 48,
    // so that the byte shifts below reach across the 16-byte lanes.
    const __m512i carried = _mm512_mask_alignr_epi64(_mm512_setzero_si512(), 0xFF, input, s.previous, 6);
    const __m512i prev1 = _mm512_alignr_epi8(input, carried, 15);
    const __m512i prevHigh =
        _mm512_shuffle_epi8(avx512Table(kPrevHigh), _mm512_and_si512(_mm512_srli_epi16(prev1, 4), nibble));
    const __m512i prevLow = _mm512_shuffle_epi8(avx512Table(kPrevLow), _mm512_and_si512(prev1, nibble));
    const __m512i thisHigh =
        _mm512_shuffle_epi8(avx512Table(kThisHigh), _mm512_and_si512(_mm512_srli_epi16(input, 4), nibble));
    const __m512i special = _mm512_and_si512(_mm512_and_si512(prevHigh, prevLow), thisHigh);
    const __m512i prev2 = _mm512_alignr_epi8(input, carried, 14);
    const __m512i prev3 = _mm512_alignr_epi8(input, carried, 13);
    const __m512i third = _mm512_subs_epu8(prev2, _mm512_set1_epi8(static_cast<char>(kThirdByteBias)));
    const __m512i fourth = _mm512_subs_epu8(prev3, _mm512_set1_epi8(static_cast<char>(kFourthByteBias)));
    const __m512i required =
        _mm512_and_si512(_mm512_or_si512(third, fourth), _mm512_set1_epi8(static_cast<char>(0x80)));
    s.error = _mm512_or_si512(s.error, _mm512_xor_si512(required, special));
    s.previous = input;
}

QOR_AVX512 inline __m512i avx512Controls(__m512i input)
{
    return _mm512_subs_epu8(_mm512_set1_epi8(0x20), input);
}

QOR_AVX512 inline void avx512CheckStep(const std::uint8_t* at, Avx512State& s, __m512i& controls,
                                       bool rejectControls)
{
    const __m512i v = _mm512_loadu_si512(at);
    if (rejectControls)
    {
        controls = _mm512_or_si512(controls, avx512Controls(v));
    }
    if (_mm512_movepi8_mask(v) == 0)
    {
        s.error = _mm512_or_si512(s.error, s.previousIncomplete);
        s.previousIncomplete = _mm512_setzero_si512();
        s.previous = v;
        return;
    }
    avx512CheckVector(v, s);
    s.previousIncomplete = _mm512_subs_epu8(v, _mm512_load_si512(kIncompleteLimit64));
}

QOR_AVX512 inline bool avx512Any(__m512i v)
{
    return _mm512_test_epi8_mask(v, v) != 0;
}

template <bool kRejectControls>
QOR_AVX512 bool avx512Check(const std::uint8_t* data, std::size_t size) noexcept
{
    Avx512State s{_mm512_setzero_si512(), _mm512_setzero_si512(), _mm512_setzero_si512()};
    __m512i controls = _mm512_setzero_si512();
    std::size_t i = 0;
    // A leading ASCII run: 128 bytes a step with four 32-byte loads, which
    // (on the string's 16-byte alignment) split fewer cache lines than two
    // 64-byte ones and run faster.
    __m256i leadingControls = _mm256_setzero_si256();
    while (size - i >= 2 * kStep)
    {
        const __m256i* at = reinterpret_cast<const __m256i*>(data + i);
        const __m256i v0 = _mm256_loadu_si256(at);
        const __m256i v1 = _mm256_loadu_si256(at + 1);
        const __m256i v2 = _mm256_loadu_si256(at + 2);
        const __m256i v3 = _mm256_loadu_si256(at + 3);
        const __m256i any = _mm256_or_si256(_mm256_or_si256(v0, v1), _mm256_or_si256(v2, v3));
        if (_mm256_movemask_epi8(any) != 0)
        {
            break;
        }
        if (kRejectControls)
        {
            leadingControls =
                _mm256_or_si256(leadingControls, _mm256_or_si256(_mm256_or_si256(avxControls(v0), avxControls(v1)),
                                                                 _mm256_or_si256(avxControls(v2), avxControls(v3))));
        }
        i += 2 * kStep;
    }
    if (kRejectControls && !_mm256_testz_si256(leadingControls, leadingControls))
    {
        return false;
    }
    if (i != 0)
    {
        s.previous = _mm512_loadu_si512(data + i - kStep);
    }
    for (; size - i >= kStep; i += kStep)
    {
        avx512CheckStep(data + i, s, controls, kRejectControls);
        if (avx512Any(_mm512_or_si512(s.error, controls)))
        {
            return false;
        }
    }
    if (i < size)
    {
        std::uint8_t block[kStep];
        padTail(block, data + i, size - i);
        avx512CheckStep(block, s, controls, kRejectControls);
    }
    return !avx512Any(_mm512_or_si512(_mm512_or_si512(s.error, s.previousIncomplete), controls));
}

QOR_AVX512 bool avx512IsStrict(const std::uint8_t* data, std::size_t size) noexcept
{
    return avx512Check<false>(data, size);
}

QOR_AVX512 bool avx512IsStrictWithoutControls(const std::uint8_t* data, std::size_t size) noexcept
{
    return avx512Check<true>(data, size);
}

#endif // QOR_UTF8_X86

#ifdef QOR_UTF8_NEON

// --- NEON path ----------------------------------------------------------------

struct NeonState
{
    uint8x16_t error;
    uint8x16_t previous;
    uint8x16_t previousIncomplete;
};

inline void neonCheckVector(uint8x16_t input, NeonState& s)
{
    const uint8x16_t prev1 = vextq_u8(s.previous, input, 15);
    const uint8x16_t prevHigh = vqtbl1q_u8(vld1q_u8(kPrevHigh), vshrq_n_u8(prev1, 4));
    const uint8x16_t prevLow = vqtbl1q_u8(vld1q_u8(kPrevLow), vandq_u8(prev1, vdupq_n_u8(0x0F)));
    const uint8x16_t thisHigh = vqtbl1q_u8(vld1q_u8(kThisHigh), vshrq_n_u8(input, 4));
    const uint8x16_t special = vandq_u8(vandq_u8(prevHigh, prevLow), thisHigh);
    const uint8x16_t prev2 = vextq_u8(s.previous, input, 14);
    const uint8x16_t prev3 = vextq_u8(s.previous, input, 13);
    const uint8x16_t third = vqsubq_u8(prev2, vdupq_n_u8(kThirdByteBias));
    const uint8x16_t fourth = vqsubq_u8(prev3, vdupq_n_u8(kFourthByteBias));
    const uint8x16_t required = vandq_u8(vorrq_u8(third, fourth), vdupq_n_u8(0x80));
    s.error = vorrq_u8(s.error, veorq_u8(required, special));
    s.previous = input;
}

inline uint8x16_t neonControls(uint8x16_t input)
{
    return vqsubq_u8(vdupq_n_u8(0x20), input);
}

inline void neonCheckStep(const std::uint8_t* at, NeonState& s, uint8x16_t& controls, bool rejectControls)
{
    const uint8x16_t v0 = vld1q_u8(at);
    const uint8x16_t v1 = vld1q_u8(at + 16);
    const uint8x16_t v2 = vld1q_u8(at + 32);
    const uint8x16_t v3 = vld1q_u8(at + 48);
    if (rejectControls)
    {
        controls = vorrq_u8(controls, vorrq_u8(vorrq_u8(neonControls(v0), neonControls(v1)),
                                               vorrq_u8(neonControls(v2), neonControls(v3))));
    }
    const uint8x16_t any = vorrq_u8(vorrq_u8(v0, v1), vorrq_u8(v2, v3));
    if (vmaxvq_u8(any) < 0x80)
    {
        s.error = vorrq_u8(s.error, s.previousIncomplete);
        s.previousIncomplete = vdupq_n_u8(0);
        s.previous = v3;
        return;
    }
    neonCheckVector(v0, s);
    neonCheckVector(v1, s);
    neonCheckVector(v2, s);
    neonCheckVector(v3, s);
    s.previousIncomplete = vqsubq_u8(v3, vld1q_u8(kIncompleteLimit + 16));
}

template <bool kRejectControls>
bool neonCheck(const std::uint8_t* data, std::size_t size) noexcept
{
    NeonState s{vdupq_n_u8(0), vdupq_n_u8(0), vdupq_n_u8(0)};
    uint8x16_t controls = vdupq_n_u8(0);
    std::size_t i = 0;
    for (; size - i >= kStep; i += kStep)
    {
        neonCheckStep(data + i, s, controls, kRejectControls);
        if (vmaxvq_u8(vorrq_u8(s.error, controls)) != 0)
        {
            return false;
        }
    }
    if (i < size)
    {
        std::uint8_t block[kStep];
        padTail(block, data + i, size - i);
        neonCheckStep(block, s, controls, kRejectControls);
    }
    return vmaxvq_u8(vorrq_u8(vorrq_u8(s.error, s.previousIncomplete), controls)) == 0;
}

#endif // QOR_UTF8_NEON

// The scalar path beats a vector path's fixed costs on very short texts.
constexpr std::size_t kShortText = 16;

template <Utf8CheckFunction kVector, bool kRejectControls>
bool withShortCut(const std::uint8_t* data, std::size_t size) noexcept
{
    return size < kShortText ? scalarCheck<kRejectControls>(data, size) : kVector(data, size);
}

bool scalarIsStrict(const std::uint8_t* data, std::size_t size) noexcept
{
    return scalarCheck<false>(data, size);
}

bool scalarIsStrictWithoutControls(const std::uint8_t* data, std::size_t size) noexcept
{
    return scalarCheck<true>(data, size);
}

#ifdef QOR_UTF8_NEON
bool neonIsStrict(const std::uint8_t* data, std::size_t size) noexcept
{
    return neonCheck<false>(data, size);
}

bool neonIsStrictWithoutControls(const std::uint8_t* data, std::size_t size) noexcept
{
    return neonCheck<true>(data, size);
}
#endif

const Utf8CheckPath kPaths[] = {
    {"scalar", &scalarIsStrict, &scalarIsStrictWithoutControls},
#ifdef QOR_UTF8_X86
    {"sse4.1", &withShortCut<&sseIsStrict, false>, &withShortCut<&sseIsStrictWithoutControls, true>},
    {"avx2", &withShortCut<&avxIsStrict, false>, &withShortCut<&avxIsStrictWithoutControls, true>},
    {"avx512", &withShortCut<&avx512IsStrict, false>, &withShortCut<&avx512IsStrictWithoutControls, true>},
#endif
#ifdef QOR_UTF8_NEON
    {"neon", &withShortCut<&neonIsStrict, false>, &withShortCut<&neonIsStrictWithoutControls, true>},
#endif
};

std::size_t countAvailablePaths() noexcept
{
#ifdef QOR_UTF8_X86
    __builtin_cpu_init();
    if (!__builtin_cpu_supports("sse4.1"))
    {
        return 1;
    }
    if (!__builtin_cpu_supports("avx2"))
    {
        return 2;
    }
    return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") ? 4 : 3;
#else
    return sizeof kPaths / sizeof kPaths[0];
#endif
}

const Utf8CheckPath& fastestPath() noexcept
{
    static const Utf8CheckPath& s_Fastest = [] () -> const Utf8CheckPath& {
        return kPaths[countAvailablePaths() - 1];
    }();
    return s_Fastest;
}

} // namespace

const Utf8CheckPath* availableUtf8CheckPaths(std::size_t& count) noexcept
{
    count = countAvailablePaths();
    return kPaths;
}

bool isStrictUtf8(const std::uint8_t* data, std::size_t size) noexcept
{
    return fastestPath().isStrictUtf8(data, size);
}

bool isStrictUtf8WithoutControls(const std::uint8_t* data, std::size_t size) noexcept
{
    return fastestPath().isStrictUtf8WithoutControls(data, size);
}

} // namespace qor::nav::sdk::utils::validation::detail
