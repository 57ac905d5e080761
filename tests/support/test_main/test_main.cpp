// The main of every GoogleTest program that runs under Wine: GoogleTest's own, and
// then the result is also written to the file NV_TEST_EXIT_FILE names, when it names
// one. scripts/wine-run names a file of its own there: the host's loader can fail as
// wine64 ends, after the program has returned (status 127 in place of the program's),
// and the program's own result is then still known. The name is taken out of the
// environment first, so that no program this one starts writes to the file.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

int main(int argc, char** argv)
{
    const char* named = std::getenv("NV_TEST_EXIT_FILE");
    const std::string exitFile = named ? named : "";
    if (named)
        _putenv("NV_TEST_EXIT_FILE=");
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    if (!exitFile.empty()) {
        if (std::FILE* file = std::fopen(exitFile.c_str(), "w")) {
            std::fprintf(file, "%d\n", result);
            std::fclose(file);
        }
    }
    return result;
}
