// The test programs' main (tests/support/test_main) takes the name of the file for
// its result out of the environment before any test runs: scripts/wine-run names one
// for every launch, and no program a test starts may write to it.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>

#include "support/process_runner.h"

TEST(TestMainTest, TheResultFileIsNamedToTheTestProgramAloneNotToWhatItStarts)
{
    EXPECT_EQ(nullptr, std::getenv("NV_TEST_EXIT_FILE"));
    EXPECT_EQ(0u, ::GetEnvironmentVariableW(L"NV_TEST_EXIT_FILE", nullptr, 0));
    // cmd leaves a variable it does not know as it stands.
    const nvtest::ProcessRun run = nvtest::RunProcess(L"cmd /c echo [%NV_TEST_EXIT_FILE%]");
    ASSERT_TRUE(run.started);
    EXPECT_EQ("[%NV_TEST_EXIT_FILE%]\r\n", run.out);
}
