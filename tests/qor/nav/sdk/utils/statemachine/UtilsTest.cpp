#include "qor/nav/sdk/utils/statemachine/Utils.h"

#include "support/RecordingLogSink.h"

#include <gtest/gtest.h>

namespace {

using qor::common::logging::Logger;
using qor::common::logging::LogLevel;
using namespace qor::nav::sdk::utils::statemachine::utils;

TEST(UtilsTest, PrintAndLogStateReactWriteTheirFixedTexts)
{
    EXPECT_EQ("isReady true", print("isReady", true));
    EXPECT_EQ("done  false", print("done ", false));

    static Logger log("qor.test.statemachine.Machine");
    Logger::setThreshold("qor.test.statemachine", LogLevel::Trace);
    qor::test::RecordingLogSink::Installation sink;
    logStateReact(log, "Idle");
    const auto records = sink->records();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ("qor.test.statemachine.Machine", records[0].loggerName);
    EXPECT_EQ(LogLevel::Trace, records[0].level);
    EXPECT_EQ("Idle called\n", records[0].text);
    Logger::resetThresholds();
}

} // namespace
