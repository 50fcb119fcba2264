// Strict UTF-8 checking and repair.
//
//   if (!UTF8Validator::validateStrictUtf8(name))
//   {
//       name = UTF8Validator::makeStrictUtf8Conform(name);
//   }
//
// Strict UTF-8 is what a table-driven decoding automaton accepts: one- to
// four-byte forms only (bytes F5..FF never occur), no overlong forms (C0, C1
// never occur; E0 is followed by A0..BF, F0 by 90..BF), no surrogate code
// points (ED is followed by 80..9F, so CESU-8 is not strict), nothing above
// U+10FFFF (F4 is followed by 80..8F) and no sequence cut short at the end.
// Control characters, U+0000 included, are strict UTF-8.
//
// Neither operation treats bad input as an error: validation answers false,
// repair drops what it cannot decode. Repair logs at level Error (5) through
// the logger "qor.nav.sdk.utils.UTF8Validator" when it cannot reserve memory
// up front or cannot convert a collected CESU-8 group.
//
// Threads: both operations are static and re-entrant; they may be called from
// any thread at any time.
#ifndef QOR_NAV_SDK_UTILS_VALIDATION_UTF8VALIDATOR_H
#define QOR_NAV_SDK_UTILS_VALIDATION_UTF8VALIDATOR_H

#include "qor/common/types/utf8/Utf8String.h"

namespace qor::nav::sdk::utils::validation {

class UTF8Validator
{
public:
    using Utf8String = qor::common::types::utf8::Utf8String;

    UTF8Validator() = delete;

    // True if the bytes of `text` are strict UTF-8; an empty text is. Stops
    // reading within 64 bytes of the first byte that cannot be valid. Checks
    // 64 bytes per step with SSE4.1, AVX2 or NEON where the processor has
    // them (chosen at run time), a word at a time otherwise. Never throws.
    static bool validateStrictUtf8(const Utf8String& text) noexcept;

    // A strict UTF-8 copy of `text` (`text` is not changed):
    //   - six-byte CESU-8 surrogate pairs (ED A0..AF 80..BF ED B0..BF 80..BF)
    //     become the four-byte form of their supplementary character; a
    //     sequence that was open before the pair stays open across it;
    //   - bytes that cannot be decoded are dropped; a broken sequence is
    //     dropped from its lead byte, and the byte that broke it is looked at
    //     again as the start of a new character; a sequence unfinished at the
    //     end is dropped;
    //   - the control characters U+0000..U+001F (NUL, TAB, LF, CR, ...) are
    //     dropped.
    // Strict text without control characters comes back unchanged; it is
    // recognised by one pass of the check above and copied whole. The result
    // is never longer than `text`, and room for it is reserved first; when
    // reserving throws a std::exception the failure is logged and the repair
    // goes on without it. Allocation failures while appending propagate.
    static Utf8String makeStrictUtf8Conform(const Utf8String& text);
};

} // namespace qor::nav::sdk::utils::validation

#endif
