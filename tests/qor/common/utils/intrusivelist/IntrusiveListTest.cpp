#include "qor/common/utils/intrusivelist/IntrusiveList.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using qor::common::utils::IntrusiveList;
using qor::common::utils::IntrusiveListElem;

struct Node
{
    explicit Node(std::string n) : name(std::move(n)) {}
    std::string name;
    IntrusiveListElem<Node> m_Elem;
};

using NodeList = IntrusiveList<Node, &Node::m_Elem>;

std::vector<std::string> names(const NodeList& list)
{
    std::vector<std::string> result;
    for (const Node* node = list.front(); node != nullptr; node = node->m_Elem.next)
    {
        result.push_back(node->name);
    }
    return result;
}

using Names = std::vector<std::string>;

TEST(IntrusiveListTest, PrependPutsNewestFirstAndRemovalNewestFirstKeepsElementsReusable)
{
    NodeList list;
    EXPECT_TRUE(list.empty());
    Node a("A"), b("B"), c("C");
    EXPECT_FALSE(a.m_Elem.isInList());
    list.prepend(&a);
    list.prepend(&b);
    list.prepend(&c);
    EXPECT_EQ((Names{"C", "B", "A"}), names(list));
    EXPECT_TRUE(a.m_Elem.isInList());
    EXPECT_FALSE(list.empty());

    list.remove(&c);
    EXPECT_FALSE(c.m_Elem.isInList());
    EXPECT_EQ((Names{"B", "A"}), names(list));
    list.remove(&b);
    EXPECT_EQ((Names{"A"}), names(list));
    list.remove(&a);
    EXPECT_EQ(Names{}, names(list));
    EXPECT_FALSE(a.m_Elem.isInList());

    // Emptied lists and removed elements work again.
    list.prepend(&c);
    list.prepend(&a);
    EXPECT_EQ((Names{"A", "C"}), names(list));
    list.remove(&a);
    list.remove(&c);
    EXPECT_TRUE(list.empty());
}

// Prepending does not re-point the former head's back link, so removing an
// older element drops the newer ones; kept for existing callers.
TEST(IntrusiveListTest, RemovingAnOlderElementDropsTheNewerOnesThatStillCountAsLinked)
{
    NodeList list;
    Node a("A"), b("B");
    list.prepend(&a);
    list.prepend(&b);
    // Both point at the list's head pointer, which holds B.
    EXPECT_EQ(&b, *b.m_Elem.back);
    EXPECT_EQ(b.m_Elem.back, a.m_Elem.back);

    list.remove(&a);
    EXPECT_EQ(nullptr, list.front());
    EXPECT_FALSE(a.m_Elem.isInList());
    EXPECT_TRUE(b.m_Elem.isInList());

    // From the middle: A, then B, then C prepended; removing B makes its
    // successor A the head and drops C.
    NodeList three;
    Node x("A"), y("B"), z("C");
    three.prepend(&x);
    three.prepend(&y);
    three.prepend(&z);
    three.remove(&y);
    EXPECT_EQ((Names{"A"}), names(three));
    EXPECT_TRUE(z.m_Elem.isInList());
    EXPECT_FALSE(y.m_Elem.isInList());
}

TEST(IntrusiveListDeathTest, NullElementIsRejected)
{
    NodeList list;
    // The report names the header, line and operation, then the expression.
    EXPECT_DEATH(list.prepend(nullptr), "IntrusiveList\\.h:[0-9]+: .*prepend\\(T ?\\*\\).*: Assertion `elem' failed");
    EXPECT_DEATH(list.remove(nullptr), "IntrusiveList\\.h:[0-9]+: .*remove\\(T ?\\*\\).*: Assertion `elem' failed");
}

TEST(IntrusiveListDeathTest, LinkedElementCannotBePrependedAgainNorUnlinkedOneRemoved)
{
    NodeList list;
    NodeList other;
    Node a("A");
    EXPECT_DEATH(list.remove(&a), "Assertion `\\(elem->\\*OFFSET\\)\\.isInList\\(\\)' failed");
    list.prepend(&a);
    EXPECT_DEATH(list.prepend(&a), "Assertion `!\\(elem->\\*OFFSET\\)\\.isInList\\(\\)' failed");
    EXPECT_DEATH(other.prepend(&a), "Assertion `!\\(elem->\\*OFFSET\\)\\.isInList\\(\\)' failed");
    list.remove(&a);
    EXPECT_DEATH(list.remove(&a), "Assertion `\\(elem->\\*OFFSET\\)\\.isInList\\(\\)' failed");
}

} // namespace
