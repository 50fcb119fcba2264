// Internal: the files a timeline writes to. Part files of a multipart
// session are <baseName>.001, .002, ... (at least three digits), created
// exclusively so that an old recording is never overwritten.
#ifndef QOR_NAV_SDK_UTILS_TIMELINE_TRACEFILES_H
#define QOR_NAV_SDK_UTILS_TIMELINE_TRACEFILES_H

#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <new>
#include <string>

namespace qor::nav::sdk::utils::timeline {

// Part `number` of `baseName` as a new file, or null when it exists already
// or cannot be created.
inline FILE* createPart(const std::string& baseName, std::uint64_t number)
{
    char suffix[32];
    std::snprintf(suffix, sizeof suffix, ".%03lu", static_cast<unsigned long>(number));
    const int descriptor = ::open((baseName + suffix).c_str(), O_WRONLY | O_CREAT | O_EXCL, 0664);
    FILE* const stream = descriptor >= 0 ? ::fdopen(descriptor, "w") : nullptr;
    if (descriptor >= 0 && stream == nullptr)
    {
        ::close(descriptor);
    }
    return stream;
}

constexpr std::size_t kStreamBufferSize = 64 * 1024;

// A regular file whose stream has not been used yet gets a buffer of
// kStreamBufferSize (allocated once into `buffer` and reused for later
// files), so that a recording makes few, large writes: with the C library's
// default of one file system block the timeline spends more time writing
// than formatting. Other streams (terminals, pipes, memory streams), streams
// already in use and streams the caller made line-buffered keep theirs.
inline void tuneStream(FILE* stream, std::unique_ptr<char[]>& buffer)
{
    const int descriptor = ::fileno(stream);
    struct stat status;
    if (descriptor < 0 || ::__fbufsize(stream) != 0 || ::__flbf(stream) != 0 || ::fstat(descriptor, &status) != 0 ||
        !S_ISREG(status.st_mode))
    {
        return;
    }
    if (buffer == nullptr)
    {
        buffer.reset(new (std::nothrow) char[kStreamBufferSize]);
    }
    if (buffer != nullptr)
    {
        std::setvbuf(stream, buffer.get(), _IOFBF, kStreamBufferSize);
    }
}

} // namespace qor::nav::sdk::utils::timeline

#endif
