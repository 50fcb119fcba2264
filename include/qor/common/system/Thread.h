// Named threads, and the Thread object of whatever thread is running.
//
//   class Worker : public Thread {
//   public:
//       Worker() : Thread("Worker", nullptr) {}
//       void run() override { ... }
//   };
//   Worker worker; worker.start(); ... worker.join();
//
// A Thread runs preExecute(), run() and postExecute() on a new POSIX thread.
// run() calls the Runnable given to the constructor; classes that pass none
// override run() instead. The thread's name is set as the operating system's
// thread name too (truncated to the 15 bytes Linux allows), so it shows in
// debuggers, `top -H` and trace viewers.
//
// join() is forgiving on purpose: it returns at once when the thread was never
// started, when it has been joined already, and when it is called by the
// thread itself (so a job may shut down the scheduler that runs it); in the
// last case a later join() from another thread still waits for the end.
//
// getCurrentThread() works on every thread: threads not started through this
// class (the main thread, threads of other libraries) get a Thread object on
// first use, named after their operating-system name and owned by the
// library until that thread ends.
//
// Threads: start(), join(), getId() and getName() may be called from any
// thread. The destructor must not run concurrently with other calls; it joins
// a thread still running (or detaches it when called on that thread itself).
#ifndef QOR_COMMON_SYSTEM_THREAD_H
#define QOR_COMMON_SYSTEM_THREAD_H

#include "qor/common/system/Mutex.h"

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace qor::common::system {

// A separate thread body.
class Runnable
{
public:
    virtual ~Runnable();
    virtual void run() = 0;
};

class Thread
{
public:
    // `runnable` is not owned and must outlive the thread; null means the
    // thread runs this object's own run().
    Thread(const std::string& name, Runnable* runnable);
    explicit Thread(const std::string& name) : Thread(name, nullptr) {}

    // The thread body. Calls the Runnable, if one was given.
    virtual void run();
    virtual ~Thread();
    // Called on the new thread before and after run(); do nothing by default.
    virtual void preExecute();
    virtual void postExecute();
    // Asks a running body to stop; does nothing by default.
    virtual void requestStop();

    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Starts the thread. Throws IllegalStateException when it was started
    // before, and std::system_error when the system cannot create a thread.
    void start();
    // Waits until run() has returned (see the header comment for the quiet cases).
    void join();

    // The calling thread's Thread object; valid on every thread.
    static Thread& getCurrentThread();

    // Kernel thread id (as shown by `ps -L`); 0 before the thread has started.
    // Lock-free, so it may also be read while holding getMutex().
    std::uint64_t getId() const { return m_Id.load(std::memory_order_acquire); }
    const char* getName() const { return m_Name.c_str(); }
    // The thread object's own mutex; the id is written under it.
    Mutex& getMutex() const { return m_Mutex; }

    bool isStarted() const;

private:
    struct AdoptTag {};
    Thread(AdoptTag, const std::string& name, std::uint64_t id);
    static void* threadMain(void* self);
    // The handle of a started thread of our own that nobody joined yet;
    // `claim` marks it joined. False for an adopted thread.
    bool unjoinedHandle(pthread_t& handle, bool claim);

    std::string m_Name;
    Runnable* m_Runnable;
    mutable Mutex m_Mutex;   // guards m_Id and the state flags below
    Mutex m_JoinMutex;       // serialises joiners
    pthread_t m_Handle;
    std::atomic<std::uint64_t> m_Id;
    bool m_Started;
    bool m_Joined;
    bool m_Adopted;          // represents a thread not started through this class
};

} // namespace qor::common::system

#endif
