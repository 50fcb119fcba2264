// A memory listener that records every status change it hears of.
//
//   RecordingMemoryListener listener;
//   RecordingMemoryListener::Registration registered(manager, listener);   // unregisters when destroyed
//   manager.requestChunks(71);
//   EXPECT_EQ((Notifications{{Elevated, Normal}}), listener.notifications());
//
// Listeners given the same journal append themselves to it when called, which
// shows the order of calls. setThrowing(true) makes the listener throw
// std::runtime_error after recording.
//
// Threads: notifications may arrive on any thread; the accessors may be called
// from any thread. A shared journal is written under the manager's listener
// mutex and must be read only after the calls.
#ifndef QOR_TESTS_SUPPORT_RECORDINGMEMORYLISTENER_H
#define QOR_TESTS_SUPPORT_RECORDINGMEMORYLISTENER_H

#include "qor/nav/sdk/utils/memory/IMemoryListener.h"
#include "qor/nav/sdk/utils/memory/MemoryManager.h"

#include <mutex>
#include <ostream>
#include <stdexcept>
#include <thread>
#include <vector>

namespace qor {
namespace test {

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

    // Registers a listener for the registration's lifetime. Local
    // registrations end in the reverse order of their start, which is the
    // order the manager's list needs.
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

} // namespace test
} // namespace qor

#endif
