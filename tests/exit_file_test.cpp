// The project's own programs that scripts/wine-run starts outside GoogleTest (the
// fault sweeps, the parser fuzzer, the benchmarks; the cross-check's producer takes
// any argument for a file to write, so it is left out here) write their result where
// NV_TEST_EXIT_FILE names, as the test programs' main does, so that it stands when
// the host's loader fails as wine64 ends. Each is given a wrong option here: its
// usage error (2) must be both its status and the file's content. (That the name
// reaches no program they start is TestMainTest's: they take it as that main does.)
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "support/dll_loader.h"
#include "support/process_runner.h"
#include "support/text_util.h"

namespace {

class ExitFileTest : public testing::TestWithParam<const wchar_t*> {
protected:
    void SetUp() override
    {
        wchar_t folder[MAX_PATH] = {};
        ASSERT_NE(0u, ::GetTempPathW(MAX_PATH, folder));
        wchar_t name[MAX_PATH] = {};
        ASSERT_NE(0u, ::GetTempFileNameW(folder, L"nvx", 0, name));
        m_file = name;
        ASSERT_TRUE(::DeleteFileW(m_file.c_str()));
    }
    void TearDown() override
    {
        ::SetEnvironmentVariableW(L"NV_TEST_EXIT_FILE", nullptr);
        ::DeleteFileW(m_file.c_str());
    }
    std::string FileText() const { return nvtest::ReadFileBytes(m_file); }

    std::wstring m_file;
};

TEST_P(ExitFileTest, AProgramsResultIsItsStatusAndTheFilesContent)
{
    ASSERT_TRUE(::SetEnvironmentVariableW(L"NV_TEST_EXIT_FILE", m_file.c_str()));
    const std::wstring program = nvtest::ExeDirectory() + GetParam() + L".exe";
    const nvtest::ProcessRun run = nvtest::RunProcess(nvtest::QuoteArg(program) + L" --no-such-option");
    ASSERT_TRUE(run.started) << "error " << run.startError;
    EXPECT_EQ(2u, run.exitCode) << run.err;
    EXPECT_EQ("2\n", FileText());
}

INSTANTIATE_TEST_SUITE_P(Programs, ExitFileTest,
                         testing::Values(L"nvfaults", L"parser_fuzz", L"convert10_bench", L"convert20_bench",
                                         L"api_profile"),
                         [](const testing::TestParamInfo<const wchar_t*>& info) {
                             std::string name;
                             for (const wchar_t* c = info.param; *c; ++c)
                                 if (*c != L'_')
                                     name += static_cast<char>(*c);
                             return name;
                         });

} // namespace
