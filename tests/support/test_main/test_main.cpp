// The main of every GoogleTest program that runs under Wine: GoogleTest's own, and
// the result is also written to the file NV_TEST_EXIT_FILE names, when it names one.
// scripts/wine-run names a file of its own there: the host's loader can fail as
// wine64 ends, after the program has returned (status 127 in place of the program's),
// and the program's own result is then still known.
//
// The file is written as late as the program's own code runs: by the destructor of
// the object constructed first, so after every other static destructor and exit
// handler. If any of them crashes, no file is written and the host's status stands.
// (The DLLs' detach runs later still, in the system's exit.) The name is taken out
// of the environment first, so that no program this one starts writes to the file.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

class ExitFile {
public:
    ~ExitFile()
    {
        if (m_path.empty() || m_result < 0)
            return;
        std::fflush(nullptr);
        if (std::FILE* file = std::fopen(m_path.c_str(), "wb")) {
            std::fprintf(file, "%d\n", m_result);
            std::fclose(file);
        }
    }
    void Take()
    {
        if (const char* named = std::getenv("NV_TEST_EXIT_FILE")) {
            m_path = named;
            _putenv("NV_TEST_EXIT_FILE=");
        }
    }
    void Result(int result) { m_result = result; }

private:
    std::string m_path;
    int m_result = -1;
};

ExitFile g_exitFile __attribute__((init_priority(101)));

} // namespace

int main(int argc, char** argv)
{
    g_exitFile.Take();
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    g_exitFile.Result(result);
    return result;
}
