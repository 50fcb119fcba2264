// A singly linked list that links its elements in place.
//
//   struct Listener { IntrusiveListElem<Listener> m_Elem; ... };
//   IntrusiveList<Listener, &Listener::m_Elem> list;
//   list.prepend(&a);
//   for (Listener* l = list.front(); l != nullptr; l = l->m_Elem.next) { ... }
//   list.remove(&a);
//
// The list links its elements in place and never owns them: an element must
// be removed before it is destroyed. Each element remembers (`back`) the
// address of the pointer that points at it.
//
// Known and kept behaviour: prepend() does not update the former head's
// `back`, which still points at the list's head pointer. Removing elements in
// the reverse order of insertion (most recently prepended first) keeps the
// list intact; removing an older element while newer ones are linked drops
// the newer ones from the list although they still count as linked. Existing
// callers depend on this, so it is not "fixed" here.
//
// Misuse is a programming error caught by assertions (active in every build,
// NDEBUG or not): a null element, an element prepended while linked, or
// removed while not linked.
//
// Threads: no lock. The owner serialises every access to a list and its
// elements.
#ifndef QOR_COMMON_UTILS_INTRUSIVELIST_INTRUSIVELIST_H
#define QOR_COMMON_UTILS_INTRUSIVELIST_INTRUSIVELIST_H

#include "qor/common/utils/Assert.h"

namespace qor::common::utils {

template <typename T>
struct IntrusiveListElem
{
    T* next = nullptr;   // the following element, null at the end
    T** back = nullptr;  // the pointer that points at this element; null when unlinked

    bool isInList() const { return back != nullptr; }
};

template <typename T, IntrusiveListElem<T> T::*OFFSET>
class IntrusiveList
{
public:
    IntrusiveList() : m_Head(nullptr), m_End(&m_Head) {}
    // The end link points into the list object itself: not copyable or movable.
    IntrusiveList(const IntrusiveList&) = delete;
    IntrusiveList& operator=(const IntrusiveList&) = delete;

    // Links `elem` in front of the current head.
    void prepend(T* elem)
    {
        QOR_ASSERT(elem);
        QOR_ASSERT(!(elem->*OFFSET).isInList());
        IntrusiveListElem<T>& link = elem->*OFFSET;
        const bool wasEmpty = (m_Head == nullptr);
        link.next = m_Head;
        link.back = &m_Head;
        m_Head = elem;
        if (wasEmpty)
        {
            m_End = &link.next;
        }
    }

    // Unlinks `elem` (see the header comment for the order this relies on).
    void remove(T* elem)
    {
        QOR_ASSERT(elem);
        QOR_ASSERT((elem->*OFFSET).isInList());
        IntrusiveListElem<T>& link = elem->*OFFSET;
        *link.back = link.next;
        if (link.next != nullptr)
        {
            (link.next->*OFFSET).back = link.back;
        }
        else
        {
            m_End = link.back;
        }
        link.back = nullptr;
    }

    // The head, null when the list is empty.
    T* front() const { return m_Head; }
    bool empty() const { return m_Head == nullptr; }

private:
    T* m_Head;
    T** m_End;
};

} // namespace qor::common::utils

#endif
