#include "qor/common/errors/BaseException.h"
#include "qor/common/errors/IllegalStateException.h"
#include "qor/common/errors/InvalidArgumentException.h"

#include <execinfo.h>

#include <cstdlib>

namespace qor::common::errors {

namespace {

std::string describe(const std::string& message, const BaseException* cause)
{
    if (cause == nullptr)
    {
        return message;
    }
    return message + " (caused by: " + cause->getDescription() + ")";
}

std::string captureBacktrace()
{
    void* frames[64];
    const int count = ::backtrace(frames, 64);
    char** symbols = ::backtrace_symbols(frames, count);
    if (symbols == nullptr)
    {
        return std::string();
    }
    std::string text;
    // Frame 0 is this function and frame 1 the constructor: start at the caller.
    for (int i = 2; i < count; ++i)
    {
        text += symbols[i];
        text += '\n';
    }
    std::free(symbols);
    return text;
}

} // namespace

ICloneable::~ICloneable() = default;

BaseException::BaseException(const std::string& message, const BaseException* cause, types::Boolean withBacktrace)
    : m_Message(message), m_Description(describe(message, cause)),
      m_Backtrace(withBacktrace ? captureBacktrace() : std::string())
{
    if (cause != nullptr)
    {
        causes.push_back(types::SmartPtr<BaseException>(cause->clone()));
    }
}

BaseException::BaseException(const BaseException& other)
    : std::exception(other), ICloneable(other), m_Message(other.m_Message), m_Description(other.m_Description),
      m_Backtrace(other.m_Backtrace), causes(other.causes)
{
}

BaseException& BaseException::operator=(const BaseException& other)
{
    if (this != &other)
    {
        BaseException copy(other);
        m_Message.swap(copy.m_Message);
        m_Description.swap(copy.m_Description);
        m_Backtrace.swap(copy.m_Backtrace);
        causes.swap(copy.causes);
    }
    return *this;
}

BaseException::~BaseException() = default;

const char* BaseException::what() const noexcept
{
    return m_Message.c_str();
}

void BaseException::raise()
{
    throw *this;
}

BaseException* BaseException::clone() const
{
    return new BaseException(*this);
}

IllegalStateException::~IllegalStateException() = default;

void IllegalStateException::raise()
{
    throw *this;
}

IllegalStateException* IllegalStateException::clone() const
{
    return new IllegalStateException(*this);
}

InvalidArgumentException::~InvalidArgumentException() = default;

void InvalidArgumentException::raise()
{
    throw *this;
}

InvalidArgumentException* InvalidArgumentException::clone() const
{
    return new InvalidArgumentException(*this);
}

} // namespace qor::common::errors
