// Regular expressions for the memory tests' death tests.
#ifndef QOR_TESTS_NAV_SDK_UTILS_MEMORY_DEATHTESTPATTERNS_H
#define QOR_TESTS_NAV_SDK_UTILS_MEMORY_DEATHTESTPATTERNS_H

#include <string>

namespace qor::test {

// `text` as a regular expression that matches exactly that text.
inline std::string literal(const std::string& text)
{
    std::string pattern;
    for (char c : text)
    {
        if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos)
        {
            pattern += '\\';
        }
        pattern += c;
    }
    return pattern;
}

// What the standard assertion facility prints when `expression` fails.
inline std::string assertionFailure(const std::string& expression)
{
    return literal("Assertion `" + expression + "' failed");
}

} // namespace qor::test

#endif
