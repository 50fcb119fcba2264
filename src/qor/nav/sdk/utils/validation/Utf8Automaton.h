// Internal to libqor.nav.sdk.utils.so: the decoding automaton behind
// UTF8Validator, and the pieces of it that the validator's tests call
// directly (the byte-at-a-time reference validation that the fast
// validation must agree with, and the CESU-8 group conversion).
//
// The automaton: every byte has a class (kByteClass); the next state is
// kTransition[state + class]. State 0 accepts (a character boundary), state 12
// rejects; 24 waits for one more continuation byte, 36 for two, 48 follows
// E0, 60 follows ED, 72 follows F0, 84 follows F1..F3, 96 follows F4.
//
// Threads: constant data and re-entrant functions; any thread.
#ifndef QOR_NAV_SDK_UTILS_VALIDATION_UTF8AUTOMATON_H
#define QOR_NAV_SDK_UTILS_VALIDATION_UTF8AUTOMATON_H

#include "qor/common/types/utf8/Utf8String.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace qor::nav::sdk::utils::validation::detail {

constexpr std::uint8_t kAccept = 0;
constexpr std::uint8_t kReject = 12;

extern const std::uint8_t kByteClass[256];
extern const std::uint8_t kTransition[108];

// One decoder step for `byte` in `state`: updates the code point accumulator
// and returns the next state. `codePoint` is complete when the result is 0.
inline std::uint32_t decode(std::uint32_t state, std::uint32_t& codePoint, std::uint8_t byte) noexcept
{
    const std::uint32_t byteClass = kByteClass[byte];
    codePoint = state != kAccept ? (codePoint << 6) | (byte & 0x3Fu) : (0xFFu >> byteClass) & byte;
    return kTransition[state + byteClass];
}

// The reference validation: the automaton fed one byte at a time, stopping at
// the first reject. UTF8Validator::validateStrictUtf8 gives the same answer
// for every input.
bool validateStrictUtf8Reference(const char* bytes, std::size_t size) noexcept;

// Converts a collected CESU-8 group (six bytes: ED A0..AF 80..BF ED B0..BF
// 80..BF) into the four-byte UTF-8 form of its supplementary character and
// appends that to `result`. When `group` is not six bytes or not such a pair,
// logs why at level Error, leaves `result` alone and returns false.
bool convertCESU8ToUTF8(const std::string& group, qor::common::types::utf8::Utf8String& result);

} // namespace qor::nav::sdk::utils::validation::detail

#endif
