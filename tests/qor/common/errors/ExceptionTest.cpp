#include "qor/common/errors/IllegalStateException.h"
#include "qor/common/errors/InvalidArgumentException.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

using qor::common::errors::BaseException;
using qor::common::errors::IllegalStateException;
using qor::common::errors::InvalidArgumentException;

// A cause that counts its destructions, to see when shared causes die.
struct TrackedCause : InvalidArgumentException
{
    TrackedCause(const std::string& message, int& destroyed) : InvalidArgumentException(message), m_Destroyed(destroyed) {}
    TrackedCause(const TrackedCause&) = default;
    ~TrackedCause() override { ++m_Destroyed; }
    TrackedCause* clone() const override { return new TrackedCause(*this); }
    int& m_Destroyed;
};

// Causes are clones of the given cause, of its real type; copies, clones and
// assignments share them, and the last holder destroys them once.
TEST(ExceptionTest, CauseChainsDescribeThemselvesAndAreSharedByCopiesAndClones)
{
    int destroyed = 0;
    {
        const TrackedCause root("root", destroyed);
        const InvalidArgumentException middle("middle", &root, false);
        IllegalStateException outer("outer", &middle, false);
        EXPECT_STREQ("outer", outer.what());
        EXPECT_EQ("outer (caused by: middle (caused by: root))", outer.getDescription());
        EXPECT_EQ("root", IllegalStateException("root").getDescription());
        EXPECT_TRUE(outer.getBacktrace().empty());
        EXPECT_FALSE(IllegalStateException("traced", nullptr, true).getBacktrace().empty());

        ASSERT_EQ(1u, outer.causes.size());
        const BaseException* cause = outer.causes.front().get();
        EXPECT_NE(&middle, cause);
        ASSERT_NE(nullptr, dynamic_cast<const InvalidArgumentException*>(cause));
        ASSERT_NE(nullptr, dynamic_cast<const TrackedCause*>(cause->causes.front().get()));

        std::unique_ptr<BaseException> clone(static_cast<BaseException&>(outer).clone());
        ASSERT_NE(nullptr, dynamic_cast<IllegalStateException*>(clone.get()));
        EXPECT_EQ(cause, clone->causes.front().get());
        IllegalStateException copy(outer);
        IllegalStateException assigned("assigned", &root, false);
        assigned = copy;
        EXPECT_EQ(1, destroyed); // the clone `assigned` held before
        EXPECT_EQ(4, assigned.causes.front().useCount());
        EXPECT_EQ("outer (caused by: middle (caused by: root))", assigned.getDescription());
        outer = IllegalStateException("replaced");
        EXPECT_TRUE(outer.causes.empty());
        EXPECT_EQ(3, copy.causes.front().useCount());
    }
    EXPECT_EQ(3, destroyed); // and root, and the clone that `middle` shared
}

TEST(ExceptionTest, RaiseThrowsTheRealTypeFromABaseReference)
{
    const IllegalStateException illegal("illegal", nullptr, false);
    std::unique_ptr<BaseException> clone(InvalidArgumentException("invalid", &illegal, false).clone());
    EXPECT_THROW(clone->raise(), InvalidArgumentException);
    EXPECT_THROW(std::unique_ptr<BaseException>(illegal.clone())->raise(), IllegalStateException);
    EXPECT_THROW(BaseException("base").raise(), BaseException);
}

} // namespace
