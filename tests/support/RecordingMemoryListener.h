// A memory listener that records every status change it hears of, with the
// calling thread. Listeners sharing a journal append themselves to it when
// called (the order of calls); setThrowing(true) makes it throw
// std::runtime_error after recording. Registration registers for its lifetime.
//
// Threads: notifications may arrive on any thread and the accessors may be
// called from any thread; a shared journal must be read only after the calls.
#ifndef QOR_TESTS_SUPPORT_RECORDINGMEMORYLISTENER_H
#define QOR_TESTS_SUPPORT_RECORDINGMEMORYLISTENER_H

#include "qor/nav/sdk/utils/memory/IMemoryListener.h"
#include "qor/nav/sdk/utils/memory/MemoryManager.h"

#include <mutex>
#include <ostream>
#include <stdexcept>
#include <thread>
#include <vector>

namespace qor::test {

class RecordingMemoryListener : public nav::sdk::utils::memory::IMemoryListener
{
public:
    using MemoryStatus = nav::sdk::utils::memory::MemoryStatus;
    using MemoryManager = nav::sdk::utils::memory::MemoryManager;

    struct Notification
    {
        MemoryStatus newStatus;
        MemoryStatus oldStatus;
        std::thread::id thread = std::this_thread::get_id(); // not compared

        bool operator==(const Notification& o) const { return newStatus == o.newStatus && oldStatus == o.oldStatus; }
        friend std::ostream& operator<<(std::ostream& out, const Notification& n)
        {
            return out << "(new " << unsigned(n.newStatus) << ", old " << unsigned(n.oldStatus) << ")";
        }
    };

    class Registration
    {
    public:
        Registration(MemoryManager& manager, IMemoryListener& listener) : m_Manager(manager), m_Listener(listener)
        {
            m_Manager.registerListener(m_Listener);
        }
        ~Registration() { m_Manager.unregisterListener(m_Listener); }
        Registration(const Registration&) = delete;
        Registration& operator=(const Registration&) = delete;

    private:
        MemoryManager& m_Manager;
        IMemoryListener& m_Listener;
    };

    using Journal = std::vector<const RecordingMemoryListener*>;

    explicit RecordingMemoryListener(Journal* journal = nullptr) : m_Journal(journal) {}

    void onMemoryStatusChanged(MemoryStatus newStatus, MemoryStatus oldStatus) override
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Notifications.push_back(Notification{newStatus, oldStatus});
        if (m_Journal != nullptr)
        {
            m_Journal->push_back(this);
        }
        if (m_Throwing)
        {
            throw std::runtime_error("listener failure");
        }
    }

    void setThrowing(bool throwing)
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Throwing = throwing;
    }

    std::vector<Notification> notifications() const
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Notifications;
    }

    void clear()
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Notifications.clear();
    }

private:
    Journal* const m_Journal;
    mutable std::mutex m_Mutex;
    std::vector<Notification> m_Notifications;
    bool m_Throwing = false;
};

} // namespace qor::test

#endif
