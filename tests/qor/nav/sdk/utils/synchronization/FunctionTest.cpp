#include "qor/nav/sdk/utils/synchronization/Function.h"

#include "qor/nav/sdk/utils/synchronization/FunctionExecutionScheduler.h"
#include "support/TestFunctions.h"
#include "support/TestSync.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

using qor::nav::sdk::utils::synchronization::Function;
using qor::nav::sdk::utils::synchronization::FunctionExecutionScheduler;
using qor::test::Latch;
using Duration = FunctionExecutionScheduler::Duration;

// Counts its runs and opens a latch when destroyed.
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

TEST(FunctionTest, SchedulerReleasesAFunctionAfterItsLastRun)
{
    Latch ran(1);
    Latch destroyed(1);
    FunctionExecutionScheduler scheduler("Owner", 0, 0);
    scheduler.start();
    scheduler.scheduleExecutionImmediately(std::make_shared<OwnedFunction>(ran, destroyed));
    // The scheduler held the only reference: it goes once the run is over,
    // while the scheduler keeps running.
    EXPECT_TRUE(ran.waitFor());
    EXPECT_TRUE(destroyed.waitFor());
}

TEST(FunctionTest, ShutdownReleasesQueuedAndPeriodicFunctions)
{
    Latch ran(1);
    Latch ranAgain(1); // never opened: the delayed function is not due before shutdown
    Latch periodicGone(1);
    Latch delayedGone(1);
    FunctionExecutionScheduler scheduler("Release", 0, 0);
    scheduler.start();
    scheduler.scheduleExecutionImmediately(std::make_shared<OwnedFunction>(ran, periodicGone), Duration(100000));
    scheduler.scheduleExecutionLater(std::make_shared<OwnedFunction>(ranAgain, delayedGone), Duration(100000));
    ASSERT_TRUE(ran.waitFor());
    EXPECT_FALSE(periodicGone.isOpen()); // queued again for its next period
    scheduler.shutdown();
    EXPECT_TRUE(periodicGone.isOpen());
    EXPECT_TRUE(delayedGone.isOpen());
    EXPECT_FALSE(ranAgain.isOpen());
}

} // namespace
