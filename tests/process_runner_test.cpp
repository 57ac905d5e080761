// The process runner of the tool tests: a launch that Wine failed before the program
// ran is made again; a program that ran keeps its result.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <string>

#include "support/process_runner.h"

using namespace nvtest;

namespace {

// A scratch file that every launch of the command below appends one line to.
class CountedLaunches : public ::testing::Test {
protected:
    void SetUp() override
    {
        wchar_t dir[MAX_PATH] = {}, path[MAX_PATH] = {};
        ::GetTempPathW(MAX_PATH, dir);
        ASSERT_NE(0u, ::GetTempFileNameW(dir, L"nvr", 0, path));
        m_path = path;
    }
    void TearDown() override { ::DeleteFileW(m_path.c_str()); }

    // cmd.exe appending to the file (not to its output) and exiting with the code.
    ProcessRun Launch(const char* exitCode)
    {
        return RunProcess(L"cmd.exe /c \"echo launched>>" + m_path + L"& exit " +
                          std::wstring(exitCode, exitCode + std::strlen(exitCode)) + L"\"");
    }

    size_t Launches() const
    {
        HANDLE file = ::CreateFileW(m_path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    OPEN_EXISTING, 0, nullptr);
        if (file == INVALID_HANDLE_VALUE)
            return 0;
        std::string text(4096, '\0');
        DWORD n = 0;
        ::ReadFile(file, &text[0], static_cast<DWORD>(text.size()), &n, nullptr);
        ::CloseHandle(file);
        text.resize(n);
        size_t count = 0;
        for (size_t at = text.find("launched"); at != std::string::npos; at = text.find("launched", at + 1))
            ++count;
        return count;
    }

    std::wstring m_path;
};

} // namespace

TEST_F(CountedLaunches, ALoaderFailureWithoutOutputIsLaunchedAgainUpToThreeTimes)
{
    // -1073741502 is STATUS_DLL_INIT_FAILED (0xC0000142) as cmd's exit takes it.
    ProcessRun run = Launch("-1073741502");
    EXPECT_TRUE(run.started);
    EXPECT_EQ(0xC0000142u, run.exitCode);
    EXPECT_EQ("", run.out);
    EXPECT_EQ(3u, Launches());
}

TEST(ProcessRunnerTest, AProgramThatDoesNotExistIsNotStartedAndItsErrorIsKept)
{
    ProcessRun run = RunProcess(L"C:\\nonexistent\\no-such-program.exe");
    EXPECT_FALSE(run.started);
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), run.startError);
}

TEST_F(CountedLaunches, AProgramThatRanAndFailedKeepsItsResult)
{
    ProcessRun run = Launch("3");
    EXPECT_TRUE(run.started);
    EXPECT_EQ(3u, run.exitCode);
    EXPECT_EQ(1u, Launches());
}

TEST_F(CountedLaunches, AProgramThatSucceededRunsOnce)
{
    ProcessRun run = Launch("0");
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_EQ(1u, Launches());
}
