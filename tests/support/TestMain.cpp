// Test main shared by every test executable.
#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    // Death tests fork from processes that run threads (watchdog supervisor,
    // schedulers): re-execute the binary instead of forking a copy of them.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    return RUN_ALL_TESTS();
}
