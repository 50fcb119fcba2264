// A memory listener that records every status change, for tests of the memory
// budget and of code that reacts to it.
//
//   RecordingMemoryListener listener;
//   RecordingMemoryListener::Registration registered(manager, listener);   // unregisters when destroyed
//   manager.requestChunks(71);
//   EXPECT_EQ(listener.notifications(), (std::vector<Notification>{{Elevated, Normal}}));
//
// Listeners may share a CallJournal to see the order in which the manager
// calls them. setThrowing(true) makes the listener throw ListenerFailure after
// recording a notification.
//
// Threads: notifications may arrive on any thread; every accessor may be
// called from any thread.
#ifndef QOR_TESTS_SUPPORT_RECORDINGMEMORYLISTENER_H
#define QOR_TESTS_SUPPORT_RECORDINGMEMORYLISTENER_H

#include "qor/nav/sdk/utils/memory/IMemoryListener.h"
#include "qor/nav/sdk/utils/memory/MemoryManager.h"
#include "qor/nav/sdk/utils/memory/MemoryStatus.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
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

        bool operator==(const Notification& other) const
        {
            return newStatus == other.newStatus && oldStatus == other.oldStatus;
        }
        friend std::ostream& operator<<(std::ostream& out, const Notification& n)
        {
            return out << "(new " << static_cast<unsigned>(n.newStatus) << ", old "
                       << static_cast<unsigned>(n.oldStatus) << ")";
        }
    };

    // The order in which several listeners were called.
    class CallJournal
    {
    public:
        void add(const RecordingMemoryListener* listener)
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Calls.push_back(listener);
        }
        std::vector<const RecordingMemoryListener*> calls() const
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            return m_Calls;
        }

    private:
        mutable std::mutex m_Mutex;
        std::vector<const RecordingMemoryListener*> m_Calls;
    };

    // Thrown by a listener set to throw.
    struct ListenerFailure : std::runtime_error
    {
        ListenerFailure() : std::runtime_error("listener failure") {}
    };

    // Registers a listener with a manager for the registration's lifetime.
    // Registrations that are local objects end in the reverse order of their
    // start, the order the manager's list needs.
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

    explicit RecordingMemoryListener(CallJournal* journal = nullptr) : m_Journal(journal) {}

    void onMemoryStatusChanged(MemoryStatus newStatus, MemoryStatus oldStatus) override
    {
        bool throwing = false;
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Notifications.push_back(Notification{newStatus, oldStatus});
            m_Threads.push_back(std::this_thread::get_id());
            throwing = m_Throwing;
        }
        m_Changed.notify_all();
        if (m_Journal != nullptr)
        {
            m_Journal->add(this);
        }
        if (throwing)
        {
            throw ListenerFailure();
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

    // The threads the notifications arrived on, in the same order.
    std::vector<std::thread::id> threads() const
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Threads;
    }

    std::size_t count() const
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Notifications.size();
    }

    // Waits until at least `n` notifications have arrived; false when
    // `timeout` passes first.
    bool waitForCount(std::size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Changed.wait_for(lock, timeout, [&] { return m_Notifications.size() >= n; });
    }

    void clear()
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Notifications.clear();
        m_Threads.clear();
    }

private:
    CallJournal* const m_Journal;
    mutable std::mutex m_Mutex;
    mutable std::condition_variable m_Changed;
    std::vector<Notification> m_Notifications;
    std::vector<std::thread::id> m_Threads;
    bool m_Throwing = false;
};

} // namespace test
} // namespace qor

#endif
