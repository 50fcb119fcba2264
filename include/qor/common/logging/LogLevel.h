// Severity levels of log records.
//
// Higher values are more severe. A record is written when its level is at or
// above the threshold of its logger (see Logger.h). Plain values: usable from
// any thread.
#ifndef QOR_COMMON_LOGGING_LOGLEVEL_H
#define QOR_COMMON_LOGGING_LOGLEVEL_H

namespace qor::common::logging {

struct LogLevel
{
    enum logLevel
    {
        Trace = 1,
        Debug = 2,
        Info = 3,
        Warning = 4,
        Error = 5,
        Fatal = 6
    };

    // Upper-case name of a level ("TRACE" ... "FATAL"), "LEVEL?" for values
    // outside the enumeration.
    static const char* toString(logLevel level) noexcept;
};

} // namespace qor::common::logging

#endif
