// Checking policy: encloses every block in guard words and catches overruns
// when the block is freed.
//
//   CheckForBufferOverflow check("TileCache");
//   void* raw = std::malloc(size + CheckForBufferOverflow::extraBytesFront()
//                                + CheckForBufferOverflow::extraBytesBack());
//   void* p = check.onAllocation(raw, size, 8, __FILE__, __LINE__);
//   ...
//   std::free(check.onDeallocation(p));   // aborts with a report if p was overrun
//
// Layout of a guarded block (native byte order; the caller's pointer is 24
// bytes into the raw block):
//
//   offset      width  content
//   0           8      size the caller asked for
//   8           8      pointer to the source file name (not copied)
//   16          4      source line
//   20          4      front guard 0xFF1234DD
//   24          size   the caller's memory
//   24 + size   4      back guard 0xAA9876CC (at whatever alignment falls there)
//
// On a broken guard the policy writes one Fatal record to the logger
// "qor.nav.sdk.utils.memory.CheckForBufferOverflow", naming the allocator, the
// place of the allocation and the addresses of both guard words (for data
// breakpoints in a later run), and aborts through a failed assertion. The block
// named is the one that was overwritten, not the code that overwrote it.
//
// The allocator's name and the file names are not copied: they must live for
// the whole run (literals).
//
// Threads: the policy keeps no shared state and takes no lock; distinct blocks
// may be handled from any threads at once.
#ifndef QOR_NAV_SDK_UTILS_MEMORY_ALLOCATOR_POLICY_CHECKFORBUFFEROVERFLOW_H
#define QOR_NAV_SDK_UTILS_MEMORY_ALLOCATOR_POLICY_CHECKFORBUFFEROVERFLOW_H

#include "qor/common/logging/Logger.h"

#include <cstddef>
#include <cstdint>

namespace qor::nav::sdk::utils::memory::allocator::policy {

class CheckForBufferOverflow
{
public:
    // `name` identifies the allocator in the overflow report; not copied.
    explicit CheckForBufferOverflow(const char* name);

    // Bytes an allocator adds in front of and behind every block.
    static constexpr std::size_t extraBytesFront() { return 24; }
    static constexpr std::size_t extraBytesBack() { return 4; }

    // Fills the header and both guard words of the raw block `p` (at least
    // `size` + 28 bytes) and returns the caller's pointer `p` + 24. Asserts
    // that this pointer is a multiple of `align`; an `align` of 0 fails too.
    // An allocator that needs more than 8-byte alignment offsets the raw block
    // so that `p` + 24 is aligned.
    void* onAllocation(void* p, std::size_t size, std::uint16_t align, const char* file, std::uint32_t line);

    // Checks the front guard and then, if that is intact, the back guard of
    // the block returned by onAllocation() and returns the raw block
    // (`userPtr` - 24) for the allocator to free. On a broken guard it logs
    // the overflow report and aborts; it never returns then.
    void* onDeallocation(void* userPtr);

    // The policy's logger, created on first use.
    static qor::common::logging::Logger& getLogger();

private:
    const char* m_Name;
};

} // namespace qor::nav::sdk::utils::memory::allocator::policy

#endif
