// A fresh, empty directory under $TMPDIR (or /tmp) for one test, removed with
// its content afterwards. Threads: plain value; use from one thread.
#ifndef QOR_TESTS_SUPPORT_TEMPORARYDIRECTORY_H
#define QOR_TESTS_SUPPORT_TEMPORARYDIRECTORY_H

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace qor::test {

class TemporaryDirectory
{
public:
    TemporaryDirectory() : m_Path((std::filesystem::temp_directory_path() / "qor-test-XXXXXX").string())
    {
        if (::mkdtemp(m_Path.data()) == nullptr)
        {
            throw std::runtime_error("mkdtemp failed for " + m_Path);
        }
    }
    ~TemporaryDirectory() { std::filesystem::remove_all(m_Path, m_Ignored); }
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
    std::error_code m_Ignored;
};

} // namespace qor::test

#endif
