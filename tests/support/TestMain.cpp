// Test main shared by every test executable.
#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    // Death tests fork from processes that run threads (watchdog supervisor,
    // schedulers): re-execute the binary instead of forking a copy of them.
    // Under a user-mode emulator the kernel cannot execute the binary itself,
    // so the test preset that runs there chooses a style through
    // GTEST_DEATH_TEST_STYLE, which then stands.
    if (std::getenv("GTEST_DEATH_TEST_STYLE") == nullptr)
    {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    }
    return RUN_ALL_TESTS();
}
