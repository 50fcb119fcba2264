#include "qor/nav/sdk/utils/statemachine/Utils.h"

#include "support/RecordingLogSink.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using qor::common::logging::Logger;
using qor::common::logging::LogLevel;
using namespace qor::nav::sdk::utils::statemachine::utils;

TEST(UtilsTest, PrintAndLogStateReactWriteTheirFixedTexts)
{
    EXPECT_EQ("isReady true", print("isReady", true));
    EXPECT_EQ(" false", print("", false));
    EXPECT_EQ("done  true", print("done ", true));

    static Logger log("qor.test.statemachine.Machine");
    static Logger quiet("qor.test.quiet.Machine");
    Logger::setDefaultThreshold(LogLevel::Debug);
    Logger::setThreshold("qor.test.statemachine", LogLevel::Trace);
    auto sink = qor::test::RecordingLogSink::install();
    logStateReact(quiet, "Idle"); // Trace is off for it
    logStateReact(log, "Idle");
    logStateReact(log, "");
    const auto records = sink->records();
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ("qor.test.statemachine.Machine", records[0].loggerName);
    EXPECT_EQ(LogLevel::Trace, records[0].level);
    EXPECT_EQ("Idle called\n", records[0].text);
    EXPECT_EQ(" called\n", records[1].text);
    Logger::resetThresholds();
}

} // namespace
