#include "qor/nav/sdk/utils/synchronization/Function.h"

#include "qor/nav/sdk/utils/synchronization/FunctionExecutionScheduler.h"
#include "support/TestSync.h"

#include <gtest/gtest.h>

namespace {

using qor::nav::sdk::utils::synchronization::Function;
using qor::nav::sdk::utils::synchronization::FunctionExecutionScheduler;
using qor::test::Latch;

// Opens `ran` when run and `destroyed` when destroyed.
class OwnedFunction : public Function
{
public:
    OwnedFunction(Latch& ran, Latch& destroyed) : m_Ran(ran), m_Destroyed(destroyed) {}
    ~OwnedFunction() override { m_Destroyed.countDown(); }
    void execute() override { m_Ran.countDown(); }

private:
    Latch& m_Ran;
    Latch& m_Destroyed;
};

TEST(FunctionTest, SchedulerReleasesFunctionsAfterTheirLastRunAndOnShutdown)
{
    Latch onceRan(1), onceGone(1), periodicRan(1), periodicGone(1), neverRan(1), neverGone(1);
    FunctionExecutionScheduler scheduler("Owner", 0, 0);
    scheduler.start();
    scheduler.scheduleExecutionImmediately(std::make_shared<OwnedFunction>(onceRan, onceGone));
    scheduler.scheduleExecutionImmediately(std::make_shared<OwnedFunction>(periodicRan, periodicGone),
                                           FunctionExecutionScheduler::Duration(100000));
    scheduler.scheduleExecutionLater(std::make_shared<OwnedFunction>(neverRan, neverGone),
                                     FunctionExecutionScheduler::Duration(100000));
    EXPECT_TRUE(onceGone.waitFor()); // the scheduler held the only reference
    ASSERT_TRUE(periodicRan.waitFor());
    EXPECT_FALSE(periodicGone.isOpen()); // queued for its next period
    scheduler.shutdown();
    EXPECT_TRUE(periodicGone.isOpen());
    EXPECT_TRUE(neverGone.isOpen());
    EXPECT_FALSE(neverRan.isOpen());
}

} // namespace
