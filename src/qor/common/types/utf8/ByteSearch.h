// Internal to the kit's libraries: substring search and character counting
// over raw bytes, shared by Utf8String and the character replacement table.
//
// findBytes() answers what std::string::find() answers for a non-empty
// needle, but looks at sixteen candidate positions per step (SSE2, which
// every x86-64 processor has): a position is a candidate when both the
// needle's first and its last byte match there, and only candidates are
// compared in full. Elsewhere it falls back to std::string_view::find.
//
// Threads: pure functions; any thread.
#ifndef QOR_COMMON_TYPES_UTF8_BYTESEARCH_H
#define QOR_COMMON_TYPES_UTF8_BYTESEARCH_H

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qor::common::types::utf8::detail {

// The first offset at or after `from` where the `needleSize` bytes of
// `needle` occur in the `size` bytes of `data`, or std::string::npos.
// `needleSize` must not be 0.
inline std::size_t findBytes(const char* data, std::size_t size, std::size_t from, const char* needle,
                             std::size_t needleSize) noexcept
{
    if (from > size || size - from < needleSize)
    {
        return std::string::npos;
    }
    if (needleSize == 1)
    {
        const void* hit = std::memchr(data + from, needle[0], size - from);
        return hit != nullptr ? static_cast<std::size_t>(static_cast<const char*>(hit) - data) : std::string::npos;
    }
#if defined(__SSE2__)
    const std::size_t lastStart = size - needleSize; // the last offset the needle fits at
    const __m128i first = _mm_set1_epi8(needle[0]);
    const __m128i last = _mm_set1_epi8(needle[needleSize - 1]);
    // Candidates at offsets at..at+15, of which those below `skip` are not
    // wanted; the loads reach at most byte lastStart + 15 + needleSize - 1.
    auto candidates = [&](std::size_t at) {
        const __m128i head = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + at));
        const __m128i tail = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + at + needleSize - 1));
        return static_cast<unsigned>(
            _mm_movemask_epi8(_mm_and_si128(_mm_cmpeq_epi8(head, first), _mm_cmpeq_epi8(tail, last))));
    };
    auto confirmed = [&](std::size_t at) {
        return needleSize == 2 || std::memcmp(data + at + 1, needle + 1, needleSize - 2) == 0;
    };
    std::size_t at = from;
    if (lastStart - from >= 15)
    {
        for (; at + 15 <= lastStart; at += 16)
        {
            for (unsigned mask = candidates(at); mask != 0; mask &= mask - 1)
            {
                const std::size_t hit = at + static_cast<std::size_t>(__builtin_ctz(mask));
                if (confirmed(hit))
                {
                    return hit;
                }
            }
        }
        if (at <= lastStart)
        {
            // The last few offsets: one more step ending at lastStart, with
            // the offsets already looked at masked off.
            const std::size_t base = lastStart - 15;
            for (unsigned mask = candidates(base) & (~0u << (at - base)); mask != 0; mask &= mask - 1)
            {
                const std::size_t hit = base + static_cast<std::size_t>(__builtin_ctz(mask));
                if (confirmed(hit))
                {
                    return hit;
                }
            }
        }
        return std::string::npos;
    }
    for (; at <= lastStart; ++at)
    {
        if (data[at] == needle[0] && data[at + needleSize - 1] == needle[needleSize - 1] && confirmed(at))
        {
            return at;
        }
    }
    return std::string::npos;
#else
    return std::string_view(data, size).find(std::string_view(needle, needleSize), from);
#endif
}

// The number of bytes in `data`..`data + size` that are not UTF-8
// continuation bytes (10xxxxxx): the number of characters in well-formed
// text. Sixteen bytes a step with SSE2.
inline std::size_t countCharacterStarts(const char* data, std::size_t size) noexcept
{
    std::size_t count = 0;
    std::size_t i = 0;
#if defined(__SSE2__)
    // As signed bytes, continuation bytes are -128..-65; all others are
    // greater. Each step subtracts the comparison's -1s from byte counters,
    // which are summed before they can overflow.
    const __m128i lastContinuation = _mm_set1_epi8(static_cast<char>(0xBF));
    while (size - i >= 16)
    {
        __m128i counters = _mm_setzero_si128();
        for (int steps = 0; steps < 255 && size - i >= 16; ++steps, i += 16)
        {
            const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i));
            counters = _mm_sub_epi8(counters, _mm_cmpgt_epi8(bytes, lastContinuation));
        }
        const __m128i sums = _mm_sad_epu8(counters, _mm_setzero_si128());
        count += static_cast<std::size_t>(_mm_cvtsi128_si32(sums)) +
                 static_cast<std::size_t>(_mm_cvtsi128_si32(_mm_unpackhi_epi64(sums, sums)));
    }
#endif
    for (; i < size; ++i)
    {
        count += (static_cast<unsigned char>(data[i]) & 0xC0) != 0x80 ? 1u : 0u;
    }
    return count;
}

} // namespace qor::common::types::utf8::detail

#endif
