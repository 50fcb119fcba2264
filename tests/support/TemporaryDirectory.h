// A fresh, empty directory for one test, removed with its content afterwards.
//
//   TemporaryDirectory dir;
//   std::string path = dir.path() + "/trace.json";
//
// Created under $TMPDIR (or /tmp) with mkdtemp, so parallel test runs never
// share one. Threads: plain value; use from one thread.
#ifndef QOR_TESTS_SUPPORT_TEMPORARYDIRECTORY_H
#define QOR_TESTS_SUPPORT_TEMPORARYDIRECTORY_H

#include <stdlib.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace qor {
namespace test {

class TemporaryDirectory
{
public:
    TemporaryDirectory()
    {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/qor-test-XXXXXX";
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        if (::mkdtemp(buffer.data()) == nullptr)
        {
            throw std::runtime_error("mkdtemp failed for " + pattern);
        }
        m_Path = buffer.data();
    }
    ~TemporaryDirectory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_Path, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::string& path() const { return m_Path; }

    // Names of the entries directly inside, sorted.
    std::vector<std::string> entries() const
    {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(m_Path))
        {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

private:
    std::string m_Path;
};

} // namespace test
} // namespace qor

#endif
