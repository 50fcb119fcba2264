// Thrown when an operation is called in a state that does not allow it.
//
// Adds no fields to BaseException; copies and clones share their causes.
// Threads: as BaseException.
#ifndef QOR_COMMON_ERRORS_ILLEGALSTATEEXCEPTION_H
#define QOR_COMMON_ERRORS_ILLEGALSTATEEXCEPTION_H

#include "qor/common/errors/BaseException.h"

namespace qor::common::errors {

class IllegalStateException : public BaseException
{
public:
    IllegalStateException(const std::string& message, const BaseException* cause, types::Boolean withBacktrace)
        : BaseException(message, cause, withBacktrace)
    {
    }
    explicit IllegalStateException(const std::string& message)
        : BaseException(message, nullptr, types::Boolean(false))
    {
    }
    IllegalStateException(const IllegalStateException& other) = default;
    ~IllegalStateException() override;

    // Throws a copy of *this as IllegalStateException.
    void raise() override;
    // A heap copy sharing the causes; the caller deletes it.
    IllegalStateException* clone() const override;
};

} // namespace qor::common::errors

#endif
