// Fuzz target: Utf8String's character operations on arbitrary bytes.
//
// Input: one byte for a character position (FF: npos), one byte for a
// character count (FF: npos), then "text|what|with".
//
// Properties (qor::test::utf8StringDisagreements): length() and find() throw
// InvalidArgumentException exactly when the documented inputs are not
// well-formed (judged by the check built from the Unicode table) and give the
// character-wise answer otherwise; replace() counts a byte that starts no
// well-formed character as one character; replaceAll() gives what a
// byte-wise find-and-replace loop gives. None throws anything else.
#include "FuzzSupport.h"
#include "support/WellFormedUtf8.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 2)
    {
        return 0;
    }
    const auto parameter = [](std::uint8_t byte) { return byte == 0xFF ? std::string::npos : byte; };
    const std::vector<std::string> parts = qor::fuzz::splitInput(data + 2, size - 2, 3);
    qor::fuzz::requireNothingWrong(
        qor::test::utf8StringDisagreements(parts[0], parts[1], parts[2], parameter(data[0]), parameter(data[1])));
    return 0;
}
