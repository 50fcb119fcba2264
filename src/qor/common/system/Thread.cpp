#include "qor/common/system/Thread.h"

#include "qor/common/errors/IllegalStateException.h"
#include "qor/common/logging/Logger.h"
#include "qor/common/system/CurrentThreadId.h"

#include <cstdlib>
#include <exception>
#include <system_error>

namespace qor::common::system {

namespace {

// The Thread object of the calling thread: the started Thread, or an adopted
// object for threads not started through this class.
thread_local Thread* t_Current = nullptr;

// Set when a thread body destroys its own Thread object: from then on the
// thread must not touch that object again.
thread_local bool t_SelfDestroyed = false;

void deleteAdoptedThread(void* thread)
{
    t_Current = nullptr;
    delete static_cast<Thread*>(thread);
}

// Frees adopted Thread objects when their threads end. Never destroyed.
pthread_key_t adoptedThreadKey()
{
    static const pthread_key_t s_Key = [] {
        pthread_key_t key;
        const int rc = ::pthread_key_create(&key, &deleteAdoptedThread);
        if (rc != 0)
        {
            throw std::system_error(rc, std::generic_category(), "pthread_key_create");
        }
        return key;
    }();
    return s_Key;
}

// Linux limits thread names to 15 bytes; cut at a UTF-8 character boundary.
std::string osThreadName(const std::string& name)
{
    if (name.size() <= 15)
    {
        return name;
    }
    std::size_t length = 15;
    while (length > 0 && (static_cast<unsigned char>(name[length]) & 0xC0u) == 0x80u)
    {
        --length;
    }
    return name.substr(0, length);
}

logging::Logger& threadLogger()
{
    static logging::Logger s_Logger("qor.common.system.Thread");
    return s_Logger;
}

} // namespace

Runnable::~Runnable() = default;

Thread::Thread(const std::string& name, Runnable* runnable)
    : m_Name(name), m_Runnable(runnable), m_Handle(), m_Id(0), m_Started(false), m_Joined(false), m_Adopted(false)
{
}

Thread::Thread(AdoptTag, const std::string& name, std::uint64_t id)
    : m_Name(name), m_Runnable(nullptr), m_Handle(::pthread_self()), m_Id(id), m_Started(true), m_Joined(false),
      m_Adopted(true)
{
}

Thread::~Thread()
{
    if (t_Current == this)
    {
        // Destroyed by its own body: getCurrentThread() must not hand out the
        // freed object, and threadMain() must not call its hooks any more.
        t_Current = nullptr;
        t_SelfDestroyed = true;
    }
    pthread_t handle;
    if (!unjoinedHandle(handle, true))
    {
        return;
    }
    if (::pthread_equal(handle, ::pthread_self()))
    {
        ::pthread_detach(handle);
    }
    else
    {
        ::pthread_join(handle, nullptr);
    }
}

void Thread::run()
{
    if (m_Runnable != nullptr)
    {
        m_Runnable->run();
    }
}

void Thread::preExecute()
{
}

void Thread::postExecute()
{
}

void Thread::requestStop()
{
}

bool Thread::isStarted() const
{
    MutexGuard guard(m_Mutex);
    return m_Started;
}

void Thread::start()
{
    // Held across pthread_create: the new thread publishes its id under this
    // mutex, so it waits until the handle and state are recorded here.
    MutexGuard guard(m_Mutex);
    if (m_Started)
    {
        throw errors::IllegalStateException("Thread " + m_Name + " already started", nullptr, false);
    }
    pthread_t handle;
    const int rc = ::pthread_create(&handle, nullptr, &Thread::threadMain, this);
    if (rc != 0)
    {
        throw std::system_error(rc, std::generic_category(), "pthread_create");
    }
    m_Handle = handle;
    m_Started = true;
}

bool Thread::unjoinedHandle(pthread_t& handle, bool claim)
{
    if (m_Adopted)
    {
        return false;
    }
    MutexGuard guard(m_Mutex);
    if (!m_Started || m_Joined)
    {
        return false;
    }
    handle = m_Handle;
    m_Joined = claim;
    return true;
}

void Thread::join()
{
    pthread_t handle;
    if (!unjoinedHandle(handle, false))
    {
        return;
    }
    // A thread joining itself returns at once; checked before m_JoinMutex so
    // that it cannot block behind another joiner that waits for it.
    if (::pthread_equal(handle, ::pthread_self()))
    {
        return;
    }
    MutexGuard joinGuard(m_JoinMutex);
    {
        MutexGuard guard(m_Mutex);
        if (m_Joined)
        {
            return;
        }
    }
    ::pthread_join(handle, nullptr);
    MutexGuard guard(m_Mutex);
    m_Joined = true;
}

Thread& Thread::getCurrentThread()
{
    if (t_Current != nullptr)
    {
        return *t_Current;
    }
    char name[16] = {};
    ::pthread_getname_np(::pthread_self(), name, sizeof name);
    Thread* adopted = new Thread(AdoptTag{}, name, detail::currentKernelThreadId());
    ::pthread_setspecific(adoptedThreadKey(), adopted);
    t_Current = adopted;
    return *adopted;
}

void* Thread::threadMain(void* self)
{
    Thread* thread = static_cast<Thread*>(self);
    t_Current = thread;
    t_SelfDestroyed = false;
    {
        MutexGuard guard(thread->m_Mutex);
        thread->m_Id.store(detail::currentKernelThreadId(), std::memory_order_release);
    }
    ::pthread_setname_np(::pthread_self(), osThreadName(thread->m_Name).c_str());
    // Copied: the body may destroy the Thread object (see ~Thread).
    const std::string name = thread->m_Name;
    try
    {
        thread->preExecute();
        if (!t_SelfDestroyed)
        {
            thread->run();
        }
        if (!t_SelfDestroyed)
        {
            thread->postExecute();
        }
    }
    catch (const std::exception& e)
    {
        threadLogger() << logging::LogLevel::Fatal << "Thread " << name << ": uncaught exception: " << e.what()
                       << std::endl;
        std::terminate();
    }
    catch (...)
    {
        threadLogger() << logging::LogLevel::Fatal << "Thread " << name << ": uncaught exception of unknown type"
                       << std::endl;
        std::terminate();
    }
    if (!t_SelfDestroyed)
    {
        t_Current = nullptr;
    }
    // Otherwise t_Current is null or an adopted object, freed when the thread ends.
    return nullptr;
}

} // namespace qor::common::system
