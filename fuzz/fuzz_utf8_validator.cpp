// Fuzz target: strict UTF-8 validation and repair on arbitrary bytes.
//
// Properties, for every input x:
//   - validateStrictUtf8(x), the byte-at-a-time automaton, every whole-buffer
//     check path and the check built from the Unicode table of well-formed
//     sequences give the same answer;
//   - makeStrictUtf8Conform(x) is well-formed, holds no byte 00..1F, is never
//     longer than x, equals x exactly when x is well-formed and free of
//     control bytes, and is its own repair.
#include "qor/nav/sdk/utils/validation/UTF8Validator.h"

#include "qor/nav/sdk/utils/validation/Utf8Automaton.h"
#include "qor/nav/sdk/utils/validation/Utf8Check.h"

#include "FuzzSupport.h"
#include "support/WellFormedUtf8.h"

#include <cstddef>
#include <cstdint>
#include <string>

using qor::common::types::utf8::Utf8String;
using qor::nav::sdk::utils::validation::UTF8Validator;
namespace detail = qor::nav::sdk::utils::validation::detail;

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    qor::fuzz::discardLogRecords();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const Utf8String text(bytes);

    const bool wellFormed = qor::test::isWellFormedUtf8(bytes);
    QOR_FUZZ_CHECK(UTF8Validator::validateStrictUtf8(text) == wellFormed);
    QOR_FUZZ_CHECK(detail::validateStrictUtf8Reference(bytes.data(), bytes.size()) == wellFormed);

    const bool clean = wellFormed && qor::fuzz::withoutControlBytes(bytes);
    std::size_t count = 0;
    const detail::Utf8CheckPath* paths = detail::availableUtf8CheckPaths(count);
    for (std::size_t i = 0; i < count; ++i)
    {
        QOR_FUZZ_CHECK(paths[i].isStrictUtf8(data, size) == wellFormed);
        QOR_FUZZ_CHECK(paths[i].isStrictUtf8WithoutControls(data, size) == clean);
    }

    const Utf8String repaired = UTF8Validator::makeStrictUtf8Conform(text);
    QOR_FUZZ_CHECK(text.str() == bytes);
    QOR_FUZZ_CHECK(qor::test::isWellFormedUtf8(repaired.str()));
    QOR_FUZZ_CHECK(UTF8Validator::validateStrictUtf8(repaired));
    QOR_FUZZ_CHECK(qor::fuzz::withoutControlBytes(repaired.str()));
    QOR_FUZZ_CHECK(repaired.size() <= text.size());
    QOR_FUZZ_CHECK((repaired == text) == clean);
    QOR_FUZZ_CHECK(UTF8Validator::makeStrictUtf8Conform(repaired) == repaired);
    return 0;
}
