// Callback interface for changes of the memory budget's status.
//
//   class CacheTrimmer : public IMemoryListener {
//       void onMemoryStatusChanged(MemoryStatus newStatus, MemoryStatus oldStatus) override
//       { if (newStatus > oldStatus) trim(); }
//   };
//   CacheTrimmer trimmer;
//   MemoryManager::locateInstance().registerListener(trimmer);
//   ...
//   MemoryManager::locateInstance().unregisterListener(trimmer);   // before it is destroyed
//
// A listener carries its own list link (`m_Elem`): the manager links it in
// place and never owns or copies it. The owner must unregister the listener
// before destroying it. A copy of a listener starts unlinked.
//
// Threads: onMemoryStatusChanged() runs on the thread that requested or
// returned the chunks, with the manager's chunk and listener mutexes held. It
// must return quickly and must not call requestChunks(), returnChunks(),
// registerListener() or unregisterListener() of the same manager.
#ifndef QOR_NAV_SDK_UTILS_MEMORY_IMEMORYLISTENER_H
#define QOR_NAV_SDK_UTILS_MEMORY_IMEMORYLISTENER_H

#include "qor/common/utils/intrusivelist/IntrusiveList.h"
#include "qor/nav/sdk/utils/memory/MemoryStatus.h"

namespace qor::nav::sdk::utils::memory {

class IMemoryListener
{
public:
    // Called once per change of level with the level reached (`newStatus`) and
    // the level before the change (`oldStatus`); intermediate levels crossed
    // in the same step are not reported. An exception thrown here passes out
    // of the requestChunks() or returnChunks() call that caused the change;
    // the chunks of that call stay counted as taken or returned.
    virtual void onMemoryStatusChanged(MemoryStatus newStatus, MemoryStatus oldStatus) = 0;

    virtual ~IMemoryListener();

    IMemoryListener() = default;
    // Copies never share the original's place in a list.
    IMemoryListener(const IMemoryListener&) : m_Elem() {}
    IMemoryListener& operator=(const IMemoryListener&) { return *this; }

    // The link through which a MemoryManager lists this listener; null
    // pointers while unregistered. Managed by MemoryManager only.
    qor::common::utils::IntrusiveListElem<IMemoryListener> m_Elem;
};

} // namespace qor::nav::sdk::utils::memory

#endif
