// A two-word shared pointer with an atomic share count.
//
//   SmartPtr<BaseException> cause(new IllegalStateException("x", nullptr, false));
//   SmartPtr<BaseException> copy = cause;   // both share the object; count 2
//
// Layout: the object pointer, then a pointer to a separately allocated signed
// 32-bit share count (null for an empty pointer). Copies share the object and
// add 1 to the count with AtomicInteger::exchangeAdd; the copy that takes the
// count from 1 to 0 deletes the object through its (virtual) destructor and
// frees the count.
//
// Threads: distinct SmartPtr objects may be copied and destroyed in different
// threads even when they share one object; one SmartPtr object must not be
// changed by two threads at once. The pointee is not protected.
#ifndef QOR_COMMON_TYPES_SMARTPTR_H
#define QOR_COMMON_TYPES_SMARTPTR_H

#include "qor/common/system/AtomicInteger.h"

#include <utility>

namespace qor::common::types {

template <typename T>
class SmartPtr
{
public:
    // Takes ownership of `object`. If the count cannot be allocated the object
    // is deleted and std::bad_alloc propagates.
    explicit SmartPtr(T* object = nullptr) : m_Object(object), m_Count(nullptr)
    {
        if (object != nullptr)
        {
            try
            {
                m_Count = new int(1);
            }
            catch (...)
            {
                delete object;
                throw;
            }
        }
    }

    SmartPtr(const SmartPtr& other) noexcept : m_Object(other.m_Object), m_Count(other.m_Count)
    {
        if (m_Count != nullptr)
        {
            system::AtomicInteger::exchangeAdd(*m_Count, 1);
        }
    }

    SmartPtr& operator=(const SmartPtr& other) noexcept
    {
        SmartPtr copy(other);
        swap(copy);
        return *this;
    }

    ~SmartPtr() noexcept { release(); }

    T* get() const noexcept { return m_Object; }
    T* operator->() const noexcept { return m_Object; }
    T& operator*() const noexcept { return *m_Object; }
    explicit operator bool() const noexcept { return m_Object != nullptr; }

    // Number of SmartPtr objects sharing the object; 0 for an empty pointer.
    int useCount() const noexcept
    {
        return m_Count != nullptr ? system::AtomicInteger::get(*m_Count) : 0;
    }

    // Drops this pointer's share (deleting the object if it was the last).
    void reset() noexcept
    {
        release();
        m_Object = nullptr;
        m_Count = nullptr;
    }

    void swap(SmartPtr& other) noexcept
    {
        std::swap(m_Object, other.m_Object);
        std::swap(m_Count, other.m_Count);
    }

private:
    void release() noexcept
    {
        if (m_Count != nullptr && system::AtomicInteger::exchangeAdd(*m_Count, -1) == 1)
        {
            delete m_Object;
            m_Object = nullptr;
            delete m_Count;
            m_Count = nullptr;
        }
    }

    T* m_Object;
    int* m_Count;
};

} // namespace qor::common::types

#endif
