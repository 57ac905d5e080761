// The example installer (examples/installer, built with makensis) as the library's
// client: run silently under Wine against sample databases, it loads NVDBConv.dll
// into its own process, asks GetDBVersion, converts, and cleans up or rolls back.
// The tests check its log, its exit code and the registry afterwards.
#include <windows.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <string>
#include <vector>

#include "nvstore_inspect.h"
#include "support/dll_loader.h"
#include "support/legacy_db_tree.h"
#include "support/key_containers.h"
#include "support/process_runner.h"
#include "support/registry_sandbox.h"
#include "support/store_sandbox.h"
#include "writer/db20_writer.h"
#include "writer/legacy_writer.h"

using namespace nvtest;

namespace {

constexpr const wchar_t kDb[] = L"SOFTWARE\\Norvane\\DB";
constexpr const wchar_t kBackup10[] = L"SOFTWARE\\Norvane\\DB-v1.0";
constexpr const wchar_t kBackup20[] = L"SOFTWARE\\Norvane\\DB-v2.0";

std::wstring InstallerPath() { return ExeDirectory() + L"nvdbconv-setup.exe"; }

struct InstallerRun {
    DWORD exitCode = 0xdeadbeef;
    std::vector<std::string> log;
};

std::vector<std::string> ReadLogLines(const std::wstring& path)
{
    std::vector<std::string> lines;
    HANDLE file = ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return lines;
    std::string text;
    char buf[4096];
    DWORD n = 0;
    while (::ReadFile(file, buf, sizeof(buf), &n, nullptr) && n)
        text.append(buf, n);
    ::CloseHandle(file);
    text = WithoutCarriageReturns(text);
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

// Runs the installer silently with its log in a fresh temporary file.
InstallerRun RunInstaller()
{
    InstallerRun run;
    wchar_t dir[MAX_PATH] = {}, log[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, dir);
    ::GetTempFileNameW(dir, L"nvs", 0, log);
    ::DeleteFileW(log);
    EXPECT_NE(INVALID_FILE_ATTRIBUTES, ::GetFileAttributesW(InstallerPath().c_str()))
        << Narrow(InstallerPath()) << " is missing: the build makes it with makensis (package nsis)";
    const ProcessRun process = RunProcess(QuoteArg(InstallerPath()) + L" /S /LOG=" + log, 300000);
    EXPECT_TRUE(process.started);
    EXPECT_FALSE(process.timedOut);
    run.exitCode = process.exitCode;
    run.log = ReadLogLines(log);
    ::DeleteFileW(log);
    return run;
}

std::string Joined(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& l : lines)
        text += l + "\n";
    return text;
}

// The installer's thread is a COM apartment already (NSIS initialises OLE), so the
// script's own CoInitializeEx answers S_FALSE and is balanced all the same.
const char kComLine[] = "CoInitializeEx = 0x00000001";

} // namespace

class InstallerTest : public RegistrySandbox {};

TEST_F(InstallerTest, Converts10DatabaseThenCleansUpAndLogsEveryResult)
{
    nvwriter::DbOptions options;
    options.users = 9;
    options.domains = 2;
    nvwriter::DbRecord record;
    ASSERT_EQ(S_OK, nvwriter::WriteDatabase(options, &record));

    const InstallerRun run = RunInstaller();
    EXPECT_EQ(0u, run.exitCode) << Joined(run.log);
    EXPECT_EQ((std::vector<std::string>{
                  "LoadLibrary = ok",
                  kComLine,
                  "GetDBVersion = 0x00000000 current 0x00010000 target 0x00020000",
                  "Convert = 0x00000000",
                  "Cleanup = 0x00000001",
                  "outcome = converted",
                  "FreeLibrary = ok",
              }),
              run.log);

    wchar_t computer[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD cch = MAX_COMPUTERNAME_LENGTH + 1;
    ASSERT_TRUE(::GetComputerNameExW(ComputerNameNetBIOS, computer, &cch));
    const RegTree expected = ToRegTree(record.ExpectedAfter10To20(computer));
    const RegTree actual = Snapshot(kDb, kView32);
    EXPECT_TRUE(expected == actual) << DiffTrees(expected, actual);
    EXPECT_FALSE(KeyExists(kDb, kView64));
    EXPECT_FALSE(KeyExists(kBackup10, kView32));
    EXPECT_FALSE(KeyExists(kBackup10, kView64));
}

TEST_F(InstallerTest, AFailingConvertIsRolledBackAndTheInstallerExitsWith1)
{
    nvwriter::DbOptions options;
    options.users = 4;
    options.domains = 1;
    nvwriter::DbRecord record;
    ASSERT_EQ(S_OK, nvwriter::WriteDatabase(options, &record));
    // An empty value cannot be backed up (Win32 error 8), so Convert fails first thing.
    SetBinary(kDb, L"Empty", {}, kView32);
    const RegTree before = Snapshot(kDb, kView32);

    const InstallerRun run = RunInstaller();
    EXPECT_EQ(1u, run.exitCode) << Joined(run.log);
    EXPECT_EQ((std::vector<std::string>{
                  "LoadLibrary = ok",
                  kComLine,
                  "GetDBVersion = 0x00000000 current 0x00010000 target 0x00020000",
                  "Convert = 0x80070008",
                  "Rollback = 0x00000001",
                  "outcome = rolled back",
                  "FreeLibrary = ok",
              }),
              run.log);
    const RegTree after = Snapshot(kDb, kView32);
    EXPECT_TRUE(before == after) << DiffTrees(before, after);
    RegValue backupValue;
    EXPECT_FALSE(GetValue(kDb, L"Backup", kView32, &backupValue));
}

TEST_F(InstallerTest, WithoutADatabaseThereIsNothingToConvert)
{
    const InstallerRun run = RunInstaller();
    EXPECT_EQ(0u, run.exitCode) << Joined(run.log);
    EXPECT_EQ((std::vector<std::string>{
                  "LoadLibrary = ok",
                  kComLine,
                  "GetDBVersion = 0x00000000 current 0x00000000 target 0x00000000",
                  "outcome = nothing to convert",
                  "FreeLibrary = ok",
              }),
              run.log);
    EXPECT_FALSE(KeyExists(kDb, kView32));
    EXPECT_FALSE(KeyExists(kDb, kView64));
}

class InstallerStoreTest : public StoreSandbox {};

TEST_F(InstallerStoreTest, Converts20DatabaseIntoTheStoreThenCleansUp)
{
    nvwriter::Db20Options options;
    options.seed = 41;
    options.userCount = 4;
    options.domainCount = 1;
    const nvwriter::Db20Database db = nvwriter::MakeDb20Database(options);
    ContainerJanitor containers;
    containers.Track(db.hostId);
    ASSERT_EQ(S_OK, nvwriter::WriteDb20Database(db));

    const InstallerRun run = RunInstaller();
    EXPECT_EQ(0u, run.exitCode) << Joined(run.log);
    EXPECT_EQ((std::vector<std::string>{
                  "LoadLibrary = ok",
                  kComLine,
                  "GetDBVersion = 0x00000000 current 0x00020000 target 0x00030000",
                  "Convert = 0x00000000",
                  "Cleanup = 0x00000001",
                  "outcome = converted",
                  "FreeLibrary = ok",
              }),
              run.log);

    // Every user moved: the old per-user data and MainDB are gone, the rest of the
    // database stays, and no backup is left behind.
    EXPECT_TRUE(KeyExists(kDb, kView32));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB\\Data", kView32));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB\\MainDB", kView32));
    EXPECT_TRUE(KeyExists(L"SOFTWARE\\Norvane\\DB\\Cache", kView32));
    EXPECT_FALSE(KeyExists(kBackup20, kView64));
    EXPECT_FALSE(KeyExists(kBackup20, kView32));
    RegValue backupValue;
    EXPECT_FALSE(GetValue(kDb, L"Backup", kView32, &backupValue));

    std::vector<std::wstring> sids;
    for (const auto& user : db.users)
        sids.push_back(user.sidText);
    std::sort(sids.begin(), sids.end());
    EXPECT_EQ(sids, nvstore::inspect::ListUsers());
    for (const auto& user : db.users) {
        size_t templates = 0;
        for (const auto& credential : user.credentials)
            templates += credential.templates.size();
        EXPECT_EQ(templates, nvstore::inspect::ListTemplates(user.sidText).size()) << Narrow(user.sidText);
        EXPECT_EQ(user.secrets.size(), nvstore::inspect::ListSecrets(user.sidText).size()) << Narrow(user.sidText);
    }
}

TEST_F(InstallerTest, TheInstallerTurnsTheStrictConversionPolicyOn)
{
    const wchar_t kPolicy[] = L"SOFTWARE\\Norvane\\Policies\\Default";
    ASSERT_FALSE(KeyExists(kPolicy, kView64));
    const InstallerRun run = RunInstaller();
    EXPECT_EQ(0u, run.exitCode) << Joined(run.log);
    // In the library's own (64-bit) view, where Convert reads it.
    RegValue value;
    ASSERT_TRUE(GetValue(kPolicy, L"StrictConversion", kView64, &value));
    EXPECT_EQ(DWORD(REG_DWORD), value.type);
    EXPECT_EQ((std::vector<BYTE>{1, 0, 0, 0}), value.data);
    EXPECT_FALSE(KeyExists(kPolicy, kView32));
}
