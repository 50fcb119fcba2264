// Fuzz target: strict UTF-8 validation and repair on arbitrary bytes.
//
// Properties (qor::test::validationDisagreements), for every input x:
// validateStrictUtf8(x), the byte-at-a-time automaton, every whole-buffer
// check path and the check built from the Unicode table of well-formed
// sequences give the same answer; makeStrictUtf8Conform(x) is well-formed,
// holds no byte 00..1F, is never longer than x and equals x exactly when x is
// well-formed and free of control bytes (so it is its own repair).
#include "FuzzSupport.h"
#include "support/WellFormedUtf8.h"

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    qor::fuzz::discardLogRecords();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    qor::fuzz::requireNothingWrong(
        qor::test::validationDisagreements(std::string(reinterpret_cast<const char*>(data), size)));
    return 0;
}
