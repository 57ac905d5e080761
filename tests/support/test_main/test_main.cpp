// The main of every GoogleTest program that runs under Wine: GoogleTest's, with the
// result also written where scripts/wine-run asks for it (support/exit_file).
#include <gtest/gtest.h>

#include "exit_file/exit_file.h"

int main(int argc, char** argv)
{
    nvtest::TakeExitFile();
    testing::InitGoogleTest(&argc, argv);
    return nvtest::ExitWith(RUN_ALL_TESTS());
}
