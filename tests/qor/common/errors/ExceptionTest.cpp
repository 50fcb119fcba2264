#include "qor/common/errors/BaseException.h"
#include "qor/common/errors/IllegalStateException.h"
#include "qor/common/errors/InvalidArgumentException.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

using qor::common::errors::BaseException;
using qor::common::errors::ICloneable;
using qor::common::errors::IllegalStateException;
using qor::common::errors::InvalidArgumentException;
using qor::common::types::SmartPtr;

static_assert(std::is_base_of<std::exception, BaseException>::value, "family root is a std::exception");
static_assert(std::is_base_of<ICloneable, BaseException>::value, "family root is cloneable");

// A cause that counts its destructions, to see when shared causes die.
class TrackedCause : public BaseException
{
public:
    TrackedCause(const std::string& message, std::atomic<int>& destroyed)
        : BaseException(message, nullptr, false), m_Destroyed(destroyed)
    {
    }
    TrackedCause(const TrackedCause&) = default;
    ~TrackedCause() override { ++m_Destroyed; }
    void raise() override { throw *this; }
    TrackedCause* clone() const override { return new TrackedCause(*this); }

private:
    std::atomic<int>& m_Destroyed;
};

// Throws `e` again through its BaseException interface only.
[[noreturn]] void raiseAsBase(BaseException& e)
{
    e.raise();
    std::abort(); // raise() never returns
}

TEST(ExceptionTest, MessageDescriptionAndCauseChain)
{
    const IllegalStateException root("root", nullptr, false);
    const InvalidArgumentException middle("middle", &root, false);
    const IllegalStateException outer("outer", &middle, false);

    EXPECT_STREQ("outer", outer.what());
    EXPECT_EQ("outer", outer.getMessage());
    EXPECT_EQ("outer (caused by: middle (caused by: root))", outer.getDescription());
    EXPECT_TRUE(outer.getBacktrace().empty());

    // Causes are clones that keep their real type.
    ASSERT_EQ(1u, outer.causes.size());
    const BaseException* cause = outer.causes.front().get();
    EXPECT_NE(&middle, cause);
    EXPECT_STREQ("middle", cause->what());
    EXPECT_NE(nullptr, dynamic_cast<const InvalidArgumentException*>(cause));
    ASSERT_EQ(1u, cause->causes.size());
    EXPECT_NE(nullptr, dynamic_cast<const IllegalStateException*>(cause->causes.front().get()));
}

TEST(ExceptionTest, NullCauseStaysEmptyInCopiesAndClonesAndBacktraceOnlyWhenAsked)
{
    const IllegalStateException e("Queue is empty", nullptr, false);
    EXPECT_EQ("Queue is empty", e.getDescription());
    EXPECT_TRUE(IllegalStateException(e).causes.empty());
    // Cloned through the cloning interface: same kind, no causes.
    std::unique_ptr<ICloneable> clone(static_cast<const ICloneable&>(e).clone());
    const auto* concrete = dynamic_cast<const IllegalStateException*>(clone.get());
    ASSERT_NE(nullptr, concrete);
    EXPECT_TRUE(concrete->causes.empty());
    EXPECT_STREQ("Queue is empty", concrete->what());

    EXPECT_FALSE(IllegalStateException("traced", nullptr, true).getBacktrace().empty());
}

TEST(ExceptionTest, ClonesAndCopiesShareCausesInOrderAndKeepThemAlive)
{
    std::atomic<int> destroyed{0};
    auto* source = new IllegalStateException("No pending functionExecutions", nullptr, false);
    source->causes.push_back(SmartPtr<BaseException>(new TrackedCause("first", destroyed)));
    source->causes.push_back(SmartPtr<BaseException>(new TrackedCause("second", destroyed)));
    const BaseException* first = source->causes.front().get();
    const BaseException* second = source->causes.back().get();

    // Cloned through the base: the clone has the concrete type.
    std::unique_ptr<BaseException> clone(static_cast<BaseException*>(source)->clone());
    ASSERT_NE(nullptr, dynamic_cast<IllegalStateException*>(clone.get()));
    ASSERT_EQ(2u, clone->causes.size());
    EXPECT_EQ(first, clone->causes.front().get());
    EXPECT_EQ(second, clone->causes.back().get());
    EXPECT_EQ(2, clone->causes.front().useCount());

    IllegalStateException copy(*source);
    EXPECT_EQ(3, copy.causes.back().useCount());

    delete source;
    EXPECT_EQ(0, destroyed.load());
    EXPECT_EQ(2, clone->causes.front().useCount());
    EXPECT_STREQ("first", clone->causes.front()->what());

    clone.reset();
    EXPECT_EQ(0, destroyed.load());
    EXPECT_EQ(1, copy.causes.front().useCount());

    // Assignment shares the new causes and releases the old ones.
    IllegalStateException other("other", nullptr, false);
    other = copy;
    EXPECT_EQ(2, other.causes.front().useCount());
    copy = IllegalStateException("replaced", nullptr, false);
    EXPECT_TRUE(copy.causes.empty());
    EXPECT_EQ(0, destroyed.load());
    other = copy;
    EXPECT_EQ(2, destroyed.load());
}

TEST(ExceptionTest, RaiseThrowsTheRealTypeFromABaseReference)
{
    IllegalStateException original("raised", nullptr, false);
    std::atomic<int> destroyed{0};
    original.causes.push_back(SmartPtr<BaseException>(new TrackedCause("cause", destroyed)));

    bool caught = false;
    try
    {
        raiseAsBase(original);
    }
    catch (IllegalStateException& e)
    {
        caught = true;
        EXPECT_NE(&original, &e);
        EXPECT_STREQ(original.what(), e.what());
        ASSERT_EQ(1u, e.causes.size());
        EXPECT_EQ(original.causes.front().get(), e.causes.front().get());
        EXPECT_EQ(2, e.causes.front().useCount());
    }
    EXPECT_TRUE(caught);
    EXPECT_EQ(1, original.causes.front().useCount());

    // A clone held as BaseException raises with its real type too, and a
    // handler for the base catches it.
    std::unique_ptr<BaseException> clone(original.clone());
    EXPECT_THROW(raiseAsBase(*clone), IllegalStateException);
    EXPECT_THROW(raiseAsBase(*clone), BaseException);

    InvalidArgumentException invalid("bad argument", nullptr, false);
    try
    {
        raiseAsBase(invalid);
    }
    catch (const InvalidArgumentException& e)
    {
        EXPECT_STREQ("bad argument", e.what());
    }
    EXPECT_EQ(0, destroyed.load());
}

TEST(ExceptionTest, CausesSharedByClonesInOtherThreadsDieOnce)
{
    std::atomic<int> destroyed{0};
    {
        const TrackedCause cause("shared", destroyed);
        IllegalStateException e("outer", &cause, false);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
        {
            std::shared_ptr<BaseException> clone(e.clone());
            threads.emplace_back([clone] {
                for (int i = 0; i < 2000; ++i)
                {
                    std::unique_ptr<BaseException> again(clone->clone());
                    IllegalStateException copy(static_cast<IllegalStateException&>(*again));
                }
            });
        }
        for (std::thread& thread : threads)
        {
            thread.join();
        }
        EXPECT_EQ(1, e.causes.front().useCount());
        EXPECT_EQ(0, destroyed.load());
    }
    // The original cause and its one clone.
    EXPECT_EQ(2, destroyed.load());
}

} // namespace
