#include "Trace.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

namespace demo {

namespace {

std::size_t count(const std::string& text, const std::string& what)
{
    std::size_t found = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size()))
    {
        ++found;
    }
    return found;
}

bool startsWith(const std::string& text, const std::string& start)
{
    return text.compare(0, start.size(), start) == 0;
}

bool endsWith(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

} // namespace

FILE* openFreshTrace(const std::string& path, std::string& problem)
{
    if (std::remove(path.c_str()) != 0 && errno != ENOENT)
    {
        problem = "cannot remove the old " + path + ": " + std::strerror(errno);
        return nullptr;
    }
    FILE* stream = std::fopen(path.c_str(), "w");
    if (stream == nullptr)
    {
        problem = "cannot create " + path + ": " + std::strerror(errno);
    }
    return stream;
}

TraceCheck checkTrace(const std::string& path)
{
    TraceCheck check;
    std::ifstream in(path, std::ios::binary);
    if (!in)
    {
        check.problem = path + " is missing after the session";
        return check;
    }
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    check.bytes = text.size();
    check.begins = count(text, "\"ph\":\"B\"");
    check.ends = count(text, "\"ph\":\"E\"");
    check.threadNames = count(text, "\"name\":\"thread_name\"");
    check.gridMarks = count(text, "\"name\":\"VSYNC\"");
    if (text.empty())
    {
        check.problem = path + " is empty: the trace could not be written";
    }
    else if (!startsWith(text, "{\"displayTimeUnits\":\"ns\",\"traceEvents\":[\n") || !endsWith(text, "]}"))
    {
        check.problem = path + " is not a complete trace document (disk full or write error?)";
    }
    else if (check.begins == 0 || check.begins != check.ends)
    {
        check.problem = path + " has " + std::to_string(check.begins) + " section begins and " +
                        std::to_string(check.ends) + " ends";
    }
    else
    {
        check.ok = true;
    }
    return check;
}

} // namespace demo
