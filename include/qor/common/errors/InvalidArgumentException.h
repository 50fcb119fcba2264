// Thrown when an argument cannot be used (bad bytes, a value out of range).
//
// Adds no fields to BaseException; copies and clones share their causes.
// Threads: as BaseException.
#ifndef QOR_COMMON_ERRORS_INVALIDARGUMENTEXCEPTION_H
#define QOR_COMMON_ERRORS_INVALIDARGUMENTEXCEPTION_H

#include "qor/common/errors/BaseException.h"

namespace qor::common::errors {

class InvalidArgumentException : public BaseException
{
public:
    InvalidArgumentException(const std::string& message, const BaseException* cause, types::Boolean withBacktrace)
        : BaseException(message, cause, withBacktrace)
    {
    }
    explicit InvalidArgumentException(const std::string& message)
        : BaseException(message, nullptr, types::Boolean(false))
    {
    }
    InvalidArgumentException(const InvalidArgumentException& other) = default;
    ~InvalidArgumentException() override;

    // Throws a copy of *this as InvalidArgumentException.
    void raise() override;
    // A heap copy sharing the causes; the caller deletes it.
    InvalidArgumentException* clone() const override;
};

} // namespace qor::common::errors

#endif
