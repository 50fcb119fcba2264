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
// Several implementations ("paths") exist; which ones can run depends on the
// processor: a word-at-a-time scalar path everywhere, SSE4.1 and AVX2 paths
// on x86-64, a NEON path on AArch64. The vector paths are one kernel
// (Utf8CheckKernel.h) instantiated per instruction set, each in its own file
// compiled for that set; Utf8Check.cpp picks the fastest one the processor
// has on first use, so the build as a whole needs no -m flags.
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
    const char* name; // "scalar", "sse4.1", "avx2", "neon"
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

// The paths themselves, one per file; `rejectControls` selects the second
// check. A vector path exists only on its processor family and may be called
// only when the processor has its instruction set. Hidden, so that the
// dispatch calls them directly rather than through the library's PLT.
[[gnu::visibility("hidden")]] bool scalarUtf8Check(const std::uint8_t* data, std::size_t size,
                                                   bool rejectControls) noexcept;
#if defined(__x86_64__) || defined(__i386__)
[[gnu::visibility("hidden")]] bool sse41Utf8Check(const std::uint8_t* data, std::size_t size,
                                                  bool rejectControls) noexcept;
[[gnu::visibility("hidden")]] bool avx2Utf8Check(const std::uint8_t* data, std::size_t size,
                                                 bool rejectControls) noexcept;
#elif defined(__aarch64__)
[[gnu::visibility("hidden")]] bool neonUtf8Check(const std::uint8_t* data, std::size_t size,
                                                 bool rejectControls) noexcept;
#endif

} // namespace qor::nav::sdk::utils::validation::detail

#endif
