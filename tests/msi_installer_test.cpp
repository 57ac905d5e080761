// The example Windows Installer package (examples/msi, built with wixl and msitools)
// installed silently under Wine with msiexec: its deferred custom action brings the
// database to the newest format one step per library load, leaves a converted
// database alone, names the users the strict policy held, a failing conversion fails
// the install with 1603 and runs the rollback action, and the commit action cleans up. The tests read msiexec's exit code, the
// verbose log (every result the custom actions report) and the registry afterwards.
#include <windows.h>
#include <msi.h>
#include <gtest/gtest.h>
#include <cstdio>
#include <algorithm>
#include <string>
#include <vector>

#include "nvstore_inspect.h"
#include "support/dll_loader.h"
#include "support/import_patch.h"
#include "support/key_containers.h"
#include "support/legacy_db_tree.h"
#include "support/process_runner.h"
#include "support/registry_sandbox.h"
#include "support/store_sandbox.h"
#include "support/db_paths.h"
#include "support/tool_runs.h"
#include "support/sample_databases.h"
#include "writer/db20_writer.h"
#include "writer/legacy_writer.h"

using namespace nvtest;

namespace {

constexpr DWORD kInstallFailure = 1603;

std::wstring PackagePath() { return ExeDirectory() + L"nvdbconv-upgrade.msi"; }

std::wstring InstalledLibrary()
{
    wchar_t folder[MAX_PATH] = {};
    ::ExpandEnvironmentStringsW(L"%ProgramW6432%\\Norvane\\NVDBConv\\NVDBConv.dll", folder, MAX_PATH);
    return folder;
}

struct MsiRun {
    DWORD exitCode = 0xdeadbeef;
    std::string log;
    // The custom actions' own lines, "NVDBConv: " and what follows, in order.
    std::vector<std::string> lines;
};

std::string ReadLog(const std::wstring& path)
{
    std::string bytes;
    HANDLE file = ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return bytes;
    char buf[8192];
    DWORD n = 0;
    while (::ReadFile(file, buf, sizeof(buf), &n, nullptr) && n)
        bytes.append(buf, n);
    ::CloseHandle(file);
    // A log written in UTF-16 (byte order mark FF FE) is read as such.
    if (bytes.size() >= 2 && static_cast<unsigned char>(bytes[0]) == 0xFF && static_cast<unsigned char>(bytes[1]) == 0xFE)
        return Narrow(std::wstring(reinterpret_cast<const wchar_t*>(bytes.data() + 2), (bytes.size() - 2) / 2));
    return bytes;
}

std::vector<std::string> CustomActionLines(const std::string& log)
{
    std::vector<std::string> lines;
    const std::string mark = "NVDBConv: ";
    size_t at = 0;
    while ((at = log.find(mark, at)) != std::string::npos) {
        size_t end = log.find_first_of("\r\n", at);
        if (end == std::string::npos)
            end = log.size();
        lines.push_back(log.substr(at + mark.size(), end - at - mark.size()));
        at = end;
    }
    return lines;
}

MsiRun Msiexec(const std::wstring& action)
{
    MsiRun run;
    wchar_t dir[MAX_PATH] = {}, log[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, dir);
    ::GetTempFileNameW(dir, L"nvm", 0, log);
    ::DeleteFileW(log);
    EXPECT_NE(INVALID_FILE_ATTRIBUTES, ::GetFileAttributesW(PackagePath().c_str()))
        << Narrow(PackagePath()) << " is missing: the build makes it with wixl (packages wixl and msitools)";
    ProcessRun process =
        RunProcess(L"msiexec.exe " + action + L" " + QuoteArg(PackagePath()) + L" /qn /l*v " + QuoteArg(log), 300000);
    EXPECT_TRUE(process.started);
    EXPECT_FALSE(process.timedOut);
    run.exitCode = process.exitCode;
    run.log = ReadLog(log);
    run.lines = CustomActionLines(run.log);
    ::DeleteFileW(log);
    return run;
}

bool FileExists(const std::wstring& path) { return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

} // namespace

class MsiInstallerTest : public StoreSandbox {
protected:
    void TearDown() override
    {
        // An install that succeeded is removed again, so the next test installs afresh.
        if (m_installed) {
            const MsiRun removal = Msiexec(L"/x");
            EXPECT_EQ(0u, removal.exitCode) << removal.log;
            // Removal runs no conversion step.
            EXPECT_TRUE(removal.lines.empty()) << Joined(removal.lines);
            EXPECT_FALSE(FileExists(InstalledLibrary()));
        }
        StoreSandbox::TearDown();
    }
    // Installs the package, which must exit with that code; a package that went in is
    // removed again at the end.
    MsiRun Install(DWORD exitCode)
    {
        MsiRun run = Msiexec(L"/i");
        m_installed = run.exitCode == 0;
        EXPECT_EQ(exitCode, run.exitCode) << run.log;
        return run;
    }

    // The first lines of step n: the library it loads and GetDBVersion's answer.
    static std::vector<std::string> StepStart(int step, const char* current, const char* target)
    {
        return {"step " + std::to_string(step), "loaded " + Narrow(InstalledLibrary()),
                std::string("GetDBVersion = 0x00000000 (S_OK), current ") + current + ", target " + target};
    }
    // The install's log is these parts one after the other; a failure shows the whole log.
    static void ExpectInstallLog(const MsiRun& run, std::initializer_list<std::vector<std::string>> parts)
    {
        std::vector<std::string> lines;
        for (const auto& part : parts)
            lines.insert(lines.end(), part.begin(), part.end());
        ExpectInstallLines(run, lines);
    }
    // The install's log lines are exactly these; a failure shows the whole log.
    static void ExpectInstallLines(const MsiRun& run, const std::vector<std::string>& lines)
    {
        EXPECT_EQ(lines, run.lines) << run.log;
    }

    bool m_installed = false;
};

TEST_F(MsiInstallerTest, A20DatabaseConvertsIntoTheStoreAndTheInstallReturns0)
{
    nvwriter::Db20Options options;
    options.seed = 16;
    options.userCount = 3;
    options.domainCount = 1;
    const nvwriter::Db20Database db = nvwriter::MakeDb20Database(options);
    ContainerJanitor containers;
    containers.Track(db.hostId);
    ASSERT_EQ(S_OK, nvwriter::WriteDb20Database(db));

    const MsiRun run = Install(0u);
    const std::string library = Narrow(InstalledLibrary());
    ExpectInstallLog(run, {
        {"converting the database"},
        StepStart(1, "0x00020000", "0x00030000"),
        {
            "Convert = 0x00000000 (S_OK)",
            "step 1: converted 2.0 -> 3.0, 3 of 3 users in the store",
            "outcome: converted 2.0 -> 3.0",
            "committing the database",
            "loaded " + library,
            "Cleanup = 0x00000001 (S_FALSE, no backup to remove)",
        },
    });
    EXPECT_TRUE(FileExists(InstalledLibrary()));

    // The strict conversion policy is on, in the library's own (64-bit) view.
    DWORD strict = 0;
    EXPECT_TRUE(GetDword(kPolicyDefaultPath, L"StrictConversion", kView64, &strict));
    EXPECT_EQ(1u, strict);

    // Every user moved: the old per-user data is gone, no backup is left.
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB\\Data", kView32));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB\\MainDB", kView32));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB-v2.0", kView64));
    RegValue backup;
    EXPECT_FALSE(GetValue(kDbPath, L"Backup", kView32, &backup));
    EXPECT_EQ(SortedUserSids(db), nvstore::inspect::ListUsers());
}

TEST_F(MsiInstallerTest, AFailingConvertFailsTheInstallWith1603AndRunsTheRollbackAction)
{
    ASSERT_EQ(S_OK, WriteDb10(4, 1));
    // An empty value cannot be backed up (Win32 error 8): Convert fails first thing.
    SetBinary(kDbPath, L"Empty", {}, kView32);
    const RegTree before32 = Snapshot(kDbPath, kView32);
    const RegTree before64 = Snapshot(kDbPath, kView64);

    const MsiRun run = Install(kInstallFailure);
    const std::string library = Narrow(InstalledLibrary());
    ExpectInstallLog(run, {
        {"converting the database"},
        StepStart(1, "0x00010000", "0x00020000"),
        {
            "Convert = 0x80070008 (failure)",
            "step 1: 1.0 -> 2.0 failed; Convert rolled this step back",
            "outcome: Convert failed; the install fails",
            "rolling the database back",
            "no \"Backup\" value: nothing to roll back",
        },
    });

    // Nothing lost: the database as before, in both views. The install is undone:
    // no policy value, no library. The backup copy that stopped at the empty value
    // stays behind (it was never named by "Backup", so nothing restores from it).
    const RegTree after32 = Snapshot(kDbPath, kView32);
    const RegTree after64 = Snapshot(kDbPath, kView64);
    EXPECT_TRUE(before32 == after32) << DiffTrees(before32, after32);
    EXPECT_TRUE(before64 == after64) << DiffTrees(before64, after64);
    DWORD strict = 0;
    EXPECT_FALSE(GetDword(kPolicyDefaultPath, L"StrictConversion", kView64, &strict));
    EXPECT_FALSE(FileExists(InstalledLibrary()));
    EXPECT_TRUE(KeyExists(L"SOFTWARE\\Norvane\\DB-v1.0", kView32));
}

namespace {

constexpr const wchar_t kSuiteKeys[][40] = {L"SOFTWARE\\Norvane\\DB", L"SOFTWARE\\Norvane\\DBConversion",
                                            L"SOFTWARE\\Norvane\\Store", L"SOFTWARE\\Norvane\\DB-v1.0",
                                            L"SOFTWARE\\Norvane\\DB-v2.0"};

// The database, its backups, the held-users record and the store, both views (the
// package's own policy value and product registration are not among them).
std::vector<RegTree> SnapshotData()
{
    std::vector<RegTree> trees;
    for (const wchar_t* key : kSuiteKeys)
        for (REGSAM view : {kView32, kView64})
            trees.push_back(Snapshot(key, view));
    return trees;
}

nvwriter::Db20Database Write20(ContainerJanitor& containers, unsigned users)
{
    return WriteTracked20(containers, users, 16);
}

} // namespace

// A 1.0 database whose users carry 2.0 records reaches 3.0 in one install: one
// library load per step, each step logged.
TEST_F(MsiInstallerTest, A10DatabaseReaches30InOneInstall)
{
    ContainerJanitor containers;
    nvwriter::Db20Database db20;
    ASSERT_EQ(S_OK, Write10With20Records(containers, 3, 3, false, &db20));

    const MsiRun run = Install(0u);
    const std::string library = Narrow(InstalledLibrary());
    ExpectInstallLog(run, {
        {"converting the database"},
        StepStart(1, "0x00010000", "0x00020000"),
        {
            "Convert = 0x00000000 (S_OK)",
            "step 1: converted 1.0 -> 2.0",
        },
        StepStart(2, "0x00020000", "0x00030000"),
        {
            "Convert = 0x00000000 (S_OK)",
            "step 2: converted 2.0 -> 3.0, 3 of 3 users in the store",
            "outcome: converted 1.0 -> 2.0 -> 3.0",
            "committing the database",
            "loaded " + library,
            "Cleanup = 0x00000001 (S_FALSE, no backup to remove)",
        },
    });
    EXPECT_TRUE(KeyExists(kDbPath, kView32));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB\\Data", kView32));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB\\MainDB", kView32));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB-v1.0", kView32));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB-v2.0", kView64));
    EXPECT_EQ(SortedUserSids(db20), nvstore::inspect::ListUsers());
}

// Installed, removed (which leaves the database as it is) and installed again: the
// second install finds the conversion done ("Version" still reads 2.1), calls no
// Convert, succeeds and changes nothing.
TEST_F(MsiInstallerTest, ASecondInstallOnAConvertedMachineSucceedsAndChangesNothing)
{
    ContainerJanitor containers;
    Write20(containers, 2);
    MsiRun run = Msiexec(L"/i");
    ASSERT_EQ(0u, run.exitCode) << run.log;
    run = Msiexec(L"/x");
    ASSERT_EQ(0u, run.exitCode) << run.log;
    std::wstring version;
    ASSERT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    ASSERT_EQ(L"2.1", version);
    const std::vector<RegTree> before = SnapshotData();

    run = Install(0u);
    const std::string library = Narrow(InstalledLibrary());
    ExpectInstallLines(run, {
        "converting the database",
        "outcome: already converted: format 3.0 (no Data and no MainDB under "
        "HKLM\\SOFTWARE\\Norvane\\DB); Convert not called",
        "committing the database",
        "loaded " + library,
        "Cleanup = 0x00000001 (S_FALSE, no backup to remove)",
    });
    const std::vector<RegTree> after = SnapshotData();
    for (size_t i = 0; i < before.size(); ++i)
        EXPECT_TRUE(before[i] == after[i]) << Narrow(kSuiteKeys[i / 2]) << (i % 2 ? " 64" : " 32") << ":\n"
                                           << DiffTrees(before[i], after[i]);
}

// The strict policy holds a user the store refuses. Convert answers S_OK, the
// custom action names the user with the held-users record's words, and the install
// succeeds: the step cannot be undone, and the held user keeps its old data for the
// next install.
TEST_F(MsiInstallerTest, StrictPolicyHoldsAUserAndTheInstallSucceedsWithALogLine)
{
    ContainerJanitor containers;
    const nvwriter::Db20Database db = Write20(containers, 3);
    const nvwriter::Db20User& held = db.users[2];
    nvstore::inspect::SetFailOpenUser({held.sidText}, E_ACCESSDENIED);

    const MsiRun run = Install(0u);
    const std::string library = Narrow(InstalledLibrary());
    const std::string key = Narrow(nvwriter::GuidText(held.guid));
    ExpectInstallLog(run, {
        {"converting the database"},
        StepStart(1, "0x00020000", "0x00030000"),
        {
            "Convert = 0x00000000 (S_OK)",
            "held user: " + key + " " + Narrow(held.sidText) + " 0x80070005: conversion failed (0x80070005)",
            "step 1: converted 2.0 -> 3.0, 2 of 3 users in the store",
            "1 of 3 users kept their old data; the next install tries them again",
            "outcome: converted 2.0 -> 3.0",
            "committing the database",
            "loaded " + library,
            "Cleanup = 0x00000001 (S_FALSE, no backup to remove)",
        },
    });
    // Held: its old key and the record stay, the others moved.
    EXPECT_TRUE(KeyExists((L"SOFTWARE\\Norvane\\DB\\Data\\Users\\" + nvwriter::GuidText(held.guid)).c_str(), kView32));
    EXPECT_TRUE(
        KeyExists((L"SOFTWARE\\Norvane\\DBConversion\\HeldUsers\\" + nvwriter::GuidText(held.guid)).c_str(), kView32));
    std::vector<std::wstring> moved;
    for (const auto& user : db.users)
        if (&user != &held)
            moved.push_back(user.sidText);
    std::sort(moved.begin(), moved.end());
    EXPECT_EQ(moved, nvstore::inspect::ListUsers());
}

namespace {

// What the custom action asked the loader for while its LoadLibraryExW was refused.
struct CaLoad {
    std::wstring name;
    DWORD flags;
};
std::vector<CaLoad> g_caLoads;
std::wstring g_caLibraryPath;

UINT WINAPI FakeMsiGetPropertyW(MSIHANDLE, LPCWSTR name, LPWSTR value, DWORD* size)
{
    if (!name || std::wstring(name) != L"CustomActionData")
        return ERROR_UNKNOWN_PROPERTY;
    const DWORD length = static_cast<DWORD>(g_caLibraryPath.size());
    if (!value || *size <= length) {
        *size = length;
        return ERROR_MORE_DATA;
    }
    std::copy(g_caLibraryPath.begin(), g_caLibraryPath.end(), value);
    value[length] = L'\0';
    *size = length;
    return ERROR_SUCCESS;
}

// A system that refuses the restricted search answers ERROR_INVALID_PARAMETER.
HMODULE WINAPI RefusingLoadLibraryExW(LPCWSTR name, HANDLE, DWORD flags)
{
    g_caLoads.push_back({name ? name : L"", flags});
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
}

} // namespace

// The custom action loads the library by its full path with the system directory
// as the only search place for its dependencies, and where that load is refused it
// fails the install instead of trying again with a search that takes the
// installer's folders.
TEST(MsiCustomAction, LoadsTheLibraryOnlyWithTheSystemDirectorySearchAndFailsWithoutFallback)
{
    g_caLoads.clear();
    g_caLibraryPath = ExeDirectory() + L"NVDBConv.dll";
    const HMODULE ca = ::LoadLibraryW((ExeDirectory() + L"nvdbconv_ca.dll").c_str());
    ASSERT_NE(nullptr, ca);
    using ActionFn = UINT(WINAPI*)(MSIHANDLE);
    const auto convert = reinterpret_cast<ActionFn>(reinterpret_cast<void*>(::GetProcAddress(ca, "NvConvertDatabase")));
    ASSERT_NE(nullptr, convert);
    UINT result = 0;
    {
        const ImportPatch patch(ca, {{"MsiGetPropertyW", reinterpret_cast<void*>(&FakeMsiGetPropertyW)},
                                     {"LoadLibraryExW", reinterpret_cast<void*>(&RefusingLoadLibraryExW)}});
        ASSERT_TRUE(patch.ok());
        ASSERT_EQ(2u, patch.names().size()) << "the custom action no longer imports what the test replaces";
        result = convert(0);
    }
    ::FreeLibrary(ca);

    EXPECT_EQ(static_cast<UINT>(ERROR_INSTALL_FAILURE), result);
    ASSERT_EQ(1u, g_caLoads.size());
    EXPECT_EQ(g_caLibraryPath, g_caLoads[0].name);
    EXPECT_EQ(static_cast<DWORD>(LOAD_LIBRARY_SEARCH_SYSTEM32), g_caLoads[0].flags);
}
