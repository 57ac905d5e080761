// The full chain: a format 1.0 database that also holds 2.0-style users converts to
// 2.0 in one process, to 3.0 in a fresh process, and is cleaned up in a third.
//
// Each step runs in a child process: this test executable started again with
// NV_FULL_CHAIN_STEP set, which runs the one library action before any test and
// prints "current target result" (hex) on its standard output.
#include <windows.h>
#include <objbase.h>
#include <gtest/gtest.h>
#include <cstdio>
#include <string>
#include <vector>

#include "nvstore_inspect.h"
#include "support/conversion_fixture.h"
#include "support/dll_loader.h"
#include "support/registry_sandbox.h"
#include "support/store_sandbox.h"
#include "writer/legacy_writer.h"

using namespace nvtest;
namespace inspect = nvstore::inspect;

namespace {

constexpr wchar_t kStepVariable[] = L"NV_FULL_CHAIN_STEP";

// In a child: load the library afresh, run the action the variable names, report
// and end the process before the tests would run.
int RunStepIfAsked()
{
    wchar_t step[32] = {};
    const DWORD n = ::GetEnvironmentVariableW(kStepVariable, step, 32);
    if (n == 0 || n >= 32)
        return 0;
    const HRESULT hrCom = ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    DWORD current = 0xdeadbeef, target = 0xdeadbeef;
    HRESULT hr = E_INVALIDARG;
    {
        LoadedLibrary dll;
        if (dll.loaded()) {
            dll.GetDBVersion(&current, &target);
            const std::wstring action(step);
            if (action == L"Convert")
                hr = dll.Convert();
            else if (action == L"Cleanup")
                hr = dll.Cleanup();
            else if (action == L"Rollback")
                hr = dll.Rollback();
        }
    }
    if (SUCCEEDED(hrCom))
        ::CoUninitialize();
    std::printf("%08lX %08lX %08lX\n", static_cast<unsigned long>(current), static_cast<unsigned long>(target),
                static_cast<unsigned long>(hr));
    std::fflush(stdout);
    ::ExitProcess(0);
}

const int g_childStep = RunStepIfAsked();

// Runs one action in a fresh process; its output line.
std::string RunStep(const wchar_t* action)
{
    wchar_t exe[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, exe, MAX_PATH);
    ::SetEnvironmentVariableW(kStepVariable, action);
    std::string output;
    const int code = RunAndCapture(std::wstring(L"\"") + exe + L"\"", &output, 300000);
    ::SetEnvironmentVariableW(kStepVariable, nullptr);
    EXPECT_EQ(0, code) << Narrow(action);
    while (!output.empty() && (output.back() == '\n' || output.back() == '\r'))
        output.pop_back();
    return output;
}

class FullChainTest : public Db20ConversionTest {};

} // namespace

TEST_F(FullChainTest, Database10HoldingUsers20ConvertsTo20ThenTo30InFreshProcessesAndIsCleanedUp)
{
    ASSERT_EQ(0, g_childStep);
    // A 1.0 database (name indexes, policies) with four 2.0-style users beside it:
    // their sealed records and secrets under Data\Users, their account policies,
    // and the host identifier with the machine container.
    nvwriter::DbOptions options10;
    options10.users = 9;
    options10.domains = 1;
    options10.seed = 606;
    nvwriter::DbRecord record10;
    ASSERT_EQ(S_OK, nvwriter::WriteDatabase(options10, &record10));
    nvwriter::Db20Database users20 = MakeDatabase(4, 607);
    m_written.push_back(users20);
    ASSERT_EQ(S_OK, nvwriter::WriteDb20Users(users20));
    std::wstring version;
    ASSERT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    ASSERT_EQ(L"1.0", version);
    ASSERT_TRUE(KeyExists(L"SOFTWARE\\Norvane\\DB\\Data\\Policies", kView32));
    const RegTree dataUsers = Snapshot(kDataUsersPath, kView32);
    ASSERT_EQ(4u, SubkeyNames(kDataUsersPath, kView32).size());

    // 1.0 -> 2.0.
    EXPECT_EQ("00010000 00020000 00000000", RunStep(L"Convert"));
    EXPECT_TRUE(trace.Contains("U Using CConverter2")) << trace.Dump();
    EXPECT_TRUE(trace.Contains("U version put"));
    ASSERT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    EXPECT_EQ(L"2.0", version);
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB\\Data\\Policies", kView32));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB-v1.0", kView32));
    // The 2.0-style users are untouched by the first step.
    EXPECT_EQ("", DiffTrees(dataUsers, Snapshot(kDataUsersPath, kView32)));
    EXPECT_EQ((std::vector<std::wstring>{}), inspect::ListUsers());

    // 2.0 -> 3.0, in a fresh process.
    EXPECT_EQ("00020000 00030000 00000000", RunStep(L"Convert"));
    EXPECT_TRUE(trace.Contains("U Using CConverter3")) << trace.Dump();
    EXPECT_FALSE(trace.Contains("U Using CConverter2"));
    EXPECT_EQ(4u, trace.Count("> CLocalDBUserExtractor::InternalLoadSecretsToMap"));
    for (const auto& u : users20.users) {
        EXPECT_TRUE(trace.Contains("U Conversion process is over for '" + Narrow(u.sidText) + "', " +
                                   Hex(ExpectedTemplates(u).empty() ? NTE_NO_KEY : S_OK)))
            << trace.Dump();
        ExpectUserConverted(u);
    }
    EXPECT_EQ((std::vector<std::string>{"U Completely delete old DB"}), OwnLines(trace, "CConverter3::do_Cleanup"));
    EXPECT_FALSE(KeyExists(kDataPath, kView32));
    EXPECT_FALSE(KeyExists(kMainDbPath, kView32));
    EXPECT_FALSE(KeyExists(kBackup20Path, kView64));
    ASSERT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    EXPECT_EQ(L"2.1", version); // stamped by the legacy reader

    // The installer's Cleanup, in a third process: nothing of its own is left to do.
    const RegTree before = Snapshot(L"SOFTWARE\\Norvane", kView32);
    EXPECT_EQ("00020001 00030000 00000001", RunStep(L"Cleanup"));
    EXPECT_TRUE(trace.Contains("U backup key name is empty, nothing to do")) << trace.Dump();
    EXPECT_EQ((std::vector<std::string>{}), trace.LinesInScope("CConverter3::do_Cleanup"));
    EXPECT_EQ("", DiffTrees(before, Snapshot(L"SOFTWARE\\Norvane", kView32)));
    EXPECT_EQ(users20.users.size(), inspect::ListUsers().size());
}
