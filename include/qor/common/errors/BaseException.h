// Root of the foundation's exception family.
//
//   try { ... } catch (const BaseException& e) { log << e.what(); }
//   BaseException* copy = e.clone();  copy->raise();   // rethrows with the real type
//
// A BaseException carries three texts and a list of causes:
//   message     the message given to the constructor; what() returns it.
//   description the message followed by the chain of cause messages,
//               "message (caused by: cause message (caused by: ...))".
//   backtrace   the call stack at construction when the constructor's flag is
//               true, empty otherwise (capturing it costs time: off by default).
// `causes` holds clones of earlier exceptions; copies and clones of an
// exception share them through SmartPtr's atomic counts.
//
// Every concrete type overrides raise() (throw a copy with its own type) and
// clone() (a heap copy the caller deletes), so exceptions held as
// `BaseException&` or as clones can be rethrown with their real type.
//
// Threads: one exception object is used by one thread at a time; its causes
// may be shared with copies living in other threads.
#ifndef QOR_COMMON_ERRORS_BASEEXCEPTION_H
#define QOR_COMMON_ERRORS_BASEEXCEPTION_H

#include "qor/common/types/Boolean.h"
#include "qor/common/types/SmartPtr.h"

#include <exception>
#include <list>
#include <string>

namespace qor::common::errors {

// The cloning interface of the exception family.
class ICloneable
{
public:
    virtual ~ICloneable();
    virtual ICloneable* clone() const = 0;
};

class BaseException : public std::exception, public ICloneable
{
private:
    // Declared before `causes`: destruction releases the causes first, then
    // the texts in reverse order.
    std::string m_Message;
    std::string m_Description;
    std::string m_Backtrace;

public:
    // `cause`, when not null, is cloned into `causes`; `withBacktrace` captures
    // the current call stack into getBacktrace().
    BaseException(const std::string& message, const BaseException* cause, types::Boolean withBacktrace);
    explicit BaseException(const std::string& message)
        : BaseException(message, nullptr, types::Boolean(false))
    {
    }
    BaseException(const BaseException& other);
    BaseException& operator=(const BaseException& other);
    ~BaseException() override;

    const char* what() const noexcept override;
    // Throws a copy of *this with its most derived type.
    virtual void raise();
    // A heap-allocated copy with its most derived type; the caller owns it.
    BaseException* clone() const override;

    const std::string& getMessage() const noexcept { return m_Message; }
    const std::string& getDescription() const noexcept { return m_Description; }
    const std::string& getBacktrace() const noexcept { return m_Backtrace; }

    std::list<types::SmartPtr<BaseException>> causes;
};

} // namespace qor::common::errors

#endif
