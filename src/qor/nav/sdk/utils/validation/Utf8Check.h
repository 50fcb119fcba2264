// Internal to libqor.nav.sdk.utils.so: the fast whole-buffer checks behind
// UTF8Validator and CharacterReplacements.
//
// Two questions are answered, each with the same answer as the decoding
// automaton of Utf8Automaton.h:
//   - isStrictUtf8: are the bytes strict UTF-8 (what the automaton accepts)?
//   - isStrictUtf8WithoutControls: are they strict UTF-8 and free of the
//     bytes 00..1F? (In strict UTF-8 these bytes only occur as the control
//     characters U+0000..U+001F.)
//
// Several implementations exist; which ones can run depends on the processor:
// a word-at-a-time scalar path everywhere, SSE4.1, AVX2 and AVX-512 (BW)
// paths on x86-64 (chosen at run time, the build needs no -m flags), a NEON
// path on AArch64.
// The vector paths check 64 bytes per step with three 16-entry table lookups
// on the nibbles of each byte and of the byte before it, plus a check that
// continuation bytes appear exactly where a three- or four-byte lead needs
// them. The fastest available path is picked on first use.
//
// Threads: constant data and re-entrant functions; any thread.
#ifndef QOR_NAV_SDK_UTILS_VALIDATION_UTF8CHECK_H
#define QOR_NAV_SDK_UTILS_VALIDATION_UTF8CHECK_H

#include <cstddef>
#include <cstdint>

namespace qor::nav::sdk::utils::validation::detail {

using Utf8CheckFunction = bool (*)(const std::uint8_t* data, std::size_t size) noexcept;

// One implementation of both checks.
struct Utf8CheckPath
{
    const char* name; // "scalar", "sse4.1", "avx2", "avx512", "neon"
    Utf8CheckFunction isStrictUtf8;
    Utf8CheckFunction isStrictUtf8WithoutControls;
};

// The paths this processor can run, slowest first; `count` receives their
// number. The last one is the one the two functions below use. Exposed so
// that tests can hold every path against the automaton.
const Utf8CheckPath* availableUtf8CheckPaths(std::size_t& count) noexcept;

// The checks through the fastest available path.
bool isStrictUtf8(const std::uint8_t* data, std::size_t size) noexcept;
bool isStrictUtf8WithoutControls(const std::uint8_t* data, std::size_t size) noexcept;

} // namespace qor::nav::sdk::utils::validation::detail

#endif
