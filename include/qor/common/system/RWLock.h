// A reader/writer lock: several readers or one writer.
//
//   RWLock lock;
//   { RWLockReadGuard guard(lock); ... }    // shared
//   { RWLockWriteGuard guard(lock); ... }   // exclusive
//
// Writers are preferred: once a writer waits, new readers wait behind it, so a
// steady stream of readers cannot starve a writer. The lock is not recursive;
// a thread that holds it must not take it again. UnLock() never throws, so it
// is safe on every way out of a scope.
//
// Threads: every operation may be called from any thread; a lock is released
// by the thread that took it.
#ifndef QOR_COMMON_SYSTEM_RWLOCK_H
#define QOR_COMMON_SYSTEM_RWLOCK_H

#include <pthread.h>

namespace qor::common::system {

class RWLock
{
public:
    RWLock();
    ~RWLock();
    RWLock(const RWLock&) = delete;
    RWLock& operator=(const RWLock&) = delete;

    // Locking is const so that const readers of guarded data can lock.
    void ReadLock() const;
    void WriteLock() const;
    void UnLock() const noexcept;
    void UnLock() noexcept;

private:
    mutable pthread_rwlock_t m_Lock;
};

// Holds the read lock of an RWLock for its lifetime.
class RWLockReadGuard
{
public:
    explicit RWLockReadGuard(const RWLock& lock) : m_Lock(lock) { m_Lock.ReadLock(); }
    ~RWLockReadGuard() { m_Lock.UnLock(); }
    RWLockReadGuard(const RWLockReadGuard&) = delete;
    RWLockReadGuard& operator=(const RWLockReadGuard&) = delete;

private:
    const RWLock& m_Lock;
};

// Holds the write lock of an RWLock for its lifetime.
class RWLockWriteGuard
{
public:
    explicit RWLockWriteGuard(const RWLock& lock) : m_Lock(lock) { m_Lock.WriteLock(); }
    ~RWLockWriteGuard() { m_Lock.UnLock(); }
    RWLockWriteGuard(const RWLockWriteGuard&) = delete;
    RWLockWriteGuard& operator=(const RWLockWriteGuard&) = delete;

private:
    const RWLock& m_Lock;
};

} // namespace qor::common::system

#endif
