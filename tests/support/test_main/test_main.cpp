// The main of every GoogleTest program that runs under Wine: GoogleTest's, with the
// result also written where scripts/wine-run asks for it (support/exit_file).
#include <gtest/gtest.h>

#include "exit_file/exit_file.h"

namespace {

int RunTests(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

} // namespace

int main(int argc, char** argv) { return nvtest::MainWithExitFile(RunTests, argc, argv); }
