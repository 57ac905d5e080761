// The example installer (examples/installer, built with makensis) as the library's
// client: run silently under Wine against sample databases, it brings the database
// to the newest format one step per library load (GetDBVersion, Convert, then
// Cleanup, or Rollback when its backup key exists), leaves a converted database
// alone, and names the users the strict policy held. The tests check its log, its
// exit code and the registry afterwards.
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
#include "support/db_paths.h"
#include "support/text_util.h"
#include "support/tool_runs.h"
#include "support/sample_databases.h"
#include "writer/db20_writer.h"
#include "writer/legacy_writer.h"

using namespace nvtest;

namespace {

constexpr const wchar_t kBackup10[] = L"SOFTWARE\\Norvane\\DB-v1.0";

std::wstring InstallerPath() { return ExeDirectory() + L"nvdbconv-setup.exe"; }

struct InstallerRun {
    DWORD exitCode = 0xdeadbeef;
    std::vector<std::string> log;
};

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
    run.log = ReadFileLines(log);
    ::DeleteFileW(log);
    return run;
}

// The same run, which must exit with `exitCode` (a failure shows the log).
InstallerRun RunInstallerExpecting(DWORD exitCode)
{
    InstallerRun run = RunInstaller();
    EXPECT_EQ(exitCode, run.exitCode) << Joined(run.log);
    return run;
}

// The installer's thread is a COM apartment already (NSIS initialises OLE), so the
// script's own CoInitializeEx answers S_FALSE and is balanced all the same.
const char kComLine[] = "CoInitializeEx = 0x00000001";

// The log of a run that found the database converted already and called nothing.
std::vector<std::string> AlreadyConvertedLog()
{
    return {kComLine, "layout = 3.0 (no Data and no MainDB under HKLM\\SOFTWARE\\Norvane\\DB)",
            "outcome = already converted"};
}

// The database key stays, its per-user data and MainDB do not; `line` is the caller's.
void ExpectOnlyTheOldUserDataGone(int line)
{
    SCOPED_TRACE(testing::Message() << "checked at line " << line);
    EXPECT_TRUE(KeyExists(kDbPath, kView32));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB\\Data", kView32));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB\\MainDB", kView32));
}

// Everything the suite keeps, both views. The installer writes the policy value on
// every run; a test that compares sets it first.
nvwriter::Db20Database Write20(ContainerJanitor& containers, unsigned users)
{
    return WriteTracked20(containers, users, 41);
}

// The lines of one step that converts, Cleanup finding nothing left to remove.
std::vector<std::string> StepLines(int step, const char* current, const char* target, const std::string& outcome)
{
    return {"step " + std::to_string(step),
            "LoadLibrary = ok",
            std::string("GetDBVersion = 0x00000000 current ") + current + " target " + target,
            "Convert = 0x00000000",
            "Cleanup = 0x00000001",
            "step " + std::to_string(step) + " = " + outcome,
            "FreeLibrary = ok"};
}

// The lines of a 1.0 step whose Convert fails, and the installer's Rollback (which
// cannot reach the 32-bit database: the outcome says so).
std::vector<std::string> FailedStepLines(const char* convert, const std::string& rollback)
{
    return {"step 1",
            "LoadLibrary = ok",
            "GetDBVersion = 0x00000000 current 0x00010000 target 0x00020000",
            std::string("Convert = ") + convert,
            "Rollback = " + rollback,
            "step 1 = failed 1.0 -> 2.0",
            "outcome = failed, database left as the step stopped",
            "FreeLibrary = ok"};
}

std::vector<std::string> Concat(std::initializer_list<std::vector<std::string>> parts)
{
    std::vector<std::string> all;
    for (const auto& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

} // namespace

class InstallerTest : public RegistrySandbox {};
class InstallerStoreTest : public StoreSandbox {};

// A 1.0 database whose users carry 2.0 records reaches 3.0 in one run: one library
// load per step, each step logged.
TEST_F(InstallerStoreTest, A10DatabaseReaches30InOneRun)
{
    ContainerJanitor containers;
    nvwriter::Db20Database db20;
    ASSERT_EQ(S_OK, Write10With20Records(containers, 4, 4, false, &db20));

    const InstallerRun run = RunInstallerExpecting(0);
    EXPECT_EQ(Concat({{kComLine},
                      StepLines(1, "0x00010000", "0x00020000", "converted 1.0 -> 2.0"),
                      StepLines(2, "0x00020000", "0x00030000", "converted 2.0 -> 3.0, users in the store: 4 of 4"),
                      {"outcome = converted 1.0 -> 2.0 -> 3.0"}}),
              run.log);

    ExpectOnlyTheOldUserDataGone(__LINE__);
    for (const wchar_t* backup : {kBackup10, kBackup20Path}) {
        EXPECT_FALSE(KeyExists(backup, kView32));
        EXPECT_FALSE(KeyExists(backup, kView64));
    }
    RegValue backupValue;
    EXPECT_FALSE(GetValue(kDbPath, L"Backup", kView32, &backupValue));
    EXPECT_EQ(SortedUserSids(db20), nvstore::inspect::ListUsers());
}

TEST_F(InstallerStoreTest, Converts20DatabaseIntoTheStoreThenCleansUp)
{
    ContainerJanitor containers;
    const nvwriter::Db20Database db = Write20(containers, 4);

    const InstallerRun run = RunInstallerExpecting(0);
    EXPECT_EQ(Concat({{kComLine},
                      StepLines(1, "0x00020000", "0x00030000", "converted 2.0 -> 3.0, users in the store: 4 of 4"),
                      {"outcome = converted 2.0 -> 3.0"}}),
              run.log);

    // Every user moved: the old per-user data and MainDB are gone, the rest of the
    // database stays, and no backup is left behind.
    ExpectOnlyTheOldUserDataGone(__LINE__);
    EXPECT_TRUE(KeyExists(L"SOFTWARE\\Norvane\\DB\\Cache", kView32));
    EXPECT_FALSE(KeyExists(kBackup20Path, kView64));
    EXPECT_FALSE(KeyExists(kBackup20Path, kView32));
    RegValue backupValue;
    EXPECT_FALSE(GetValue(kDbPath, L"Backup", kView32, &backupValue));

    EXPECT_EQ(SortedUserSids(db), nvstore::inspect::ListUsers());
    for (const auto& user : db.users) {
        size_t templates = 0;
        for (const auto& credential : user.credentials)
            templates += credential.templates.size();
        EXPECT_EQ(templates, nvstore::inspect::ListTemplates(user.sidText).size()) << Narrow(user.sidText);
        EXPECT_EQ(user.secrets.size(), nvstore::inspect::ListSecrets(user.sidText).size()) << Narrow(user.sidText);
    }
}

// A repair or a second install on a converted machine: "Version" still reads 2.1,
// and Convert would back the database up and fail. The installer calls nothing,
// succeeds and changes nothing.
TEST_F(InstallerStoreTest, ASecondRunOnAConvertedMachineSucceedsAndChangesNothing)
{
    ContainerJanitor containers;
    Write20(containers, 3);
    ASSERT_EQ(0u, RunInstaller().exitCode);
    std::wstring version;
    ASSERT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    ASSERT_EQ(L"2.1", version);
    const SuiteSnapshot before = SnapshotSuite();

    const InstallerRun run = RunInstallerExpecting(0);
    EXPECT_EQ(AlreadyConvertedLog(), run.log);
    ExpectSuiteUnchanged(before, __LINE__);
    EXPECT_FALSE(KeyExists(kBackup20Path, kView64));
}

// The layout decides, not "Version".
TEST_F(InstallerTest, ALayout30DatabaseIsConvertedWhateverVersionReads)
{
    for (const wchar_t* text : {L"2.0", L"2.1", L"3.0"}) {
        SCOPED_TRACE(Narrow(text));
        ASSERT_NO_FATAL_FAILURE(WriteLayout30Database(text));
        SetDword(kPolicyDefaultPath, L"StrictConversion", 1, kView64);
        const SuiteSnapshot before = SnapshotSuite();
        const InstallerRun run = RunInstallerExpecting(0);
        EXPECT_EQ(AlreadyConvertedLog(), run.log);
        ExpectSuiteUnchanged(before, __LINE__);
    }
}

// The strict policy holds a user the store refuses: the installer names it with
// what the held-users record says, and exits 4. The next run tries it again.
TEST_F(InstallerStoreTest, AUserTheStrictPolicyHeldIsNamedAndTheInstallerExits4)
{
    ContainerJanitor containers;
    const nvwriter::Db20Database db = Write20(containers, 3);
    const nvwriter::Db20User& held = db.users[1];
    nvstore::inspect::SetFailOpenUser({held.sidText}, E_ACCESSDENIED);

    InstallerRun run = RunInstallerExpecting(4);
    EXPECT_EQ((std::vector<std::string>{
                  kComLine,
                  "step 1",
                  "LoadLibrary = ok",
                  "GetDBVersion = 0x00000000 current 0x00020000 target 0x00030000",
                  "Convert = 0x00000000",
                  "Cleanup = 0x00000001",
                  "held user = " + Narrow(nvwriter::GuidText(held.guid)) + " " + Narrow(held.sidText) +
                      " 0x80070005: conversion failed (0x80070005)",
                  "step 1 = converted 2.0 -> 3.0, users in the store: 2 of 3",
                  "FreeLibrary = ok",
                  "outcome = converted 2.0 -> 3.0, users held in the old database: 1",
              }),
              run.log);
    EXPECT_TRUE(KeyExists((L"SOFTWARE\\Norvane\\DB\\Data\\Users\\" + nvwriter::GuidText(held.guid)).c_str(), kView32));
    EXPECT_FALSE(nvstore::inspect::IsRegistered(held.sidText));

    // The store takes the user now: the next run moves it and finishes.
    nvstore::inspect::ClearTestBehaviours();
    run = RunInstallerExpecting(0);
    EXPECT_EQ(Concat({{kComLine},
                      StepLines(1, "0x00020001", "0x00030000", "converted 2.1 -> 3.0, users in the store: 1 of 1"),
                      {"outcome = converted 2.1 -> 3.0"}}),
              run.log);
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB\\Data", kView32));
    EXPECT_EQ(SortedUserSids(db), nvstore::inspect::ListUsers());
}

// Convert restores the database itself when it fails, and the "Backup" value goes
// with the backup: the installer does not call Rollback without it.
TEST_F(InstallerTest, AFailingConvertWithoutABackupIsNotRolledBackAgain)
{
    ASSERT_EQ(S_OK, WriteDb10(4, 1));
    // An empty value cannot be backed up (Win32 error 8), so Convert fails first thing.
    SetBinary(kDbPath, L"Empty", {}, kView32);
    const RegTree before = Snapshot(kDbPath, kView32);

    const InstallerRun run = RunInstallerExpecting(1);
    EXPECT_EQ(Concat({{kComLine}, FailedStepLines("0x80070008", "not called: no \"Backup\" value")}), run.log);
    const RegTree after = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(before == after) << DiffTrees(before, after);
    RegValue backupValue;
    EXPECT_FALSE(GetValue(kDbPath, L"Backup", kView32, &backupValue));
}

// "Backup" left naming a key that is not there (here one the library refuses, so
// that an unguarded Rollback would show in the log without harm): Rollback would
// delete the database and restore nothing, so the installer does not call it.
TEST_F(InstallerTest, RollbackIsNotCalledWhenTheBackupKeyIsMissing)
{
    ASSERT_EQ(S_OK, WriteDb10(4, 1));
    SetBinary(kDbPath, L"Empty", {}, kView32);
    SetString(kDbPath, L"Backup", L"SOFTWARE\\Norvane\\Gone", kView32);
    const RegTree before = Snapshot(kDbPath, kView32);

    const InstallerRun run = RunInstallerExpecting(1);
    EXPECT_EQ(Concat({{kComLine},
                      FailedStepLines("0x80070008", "not called: \"Backup\" names HKLM\\SOFTWARE\\Norvane\\Gone, "
                                                    "which is missing (32-bit view)")}),
              run.log);
    const RegTree after = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(before == after) << DiffTrees(before, after);
}

// A failed 1.0 step whose own rollback restored nothing leaves "Backup" naming the
// backup key, which exists: then the installer calls Rollback.
TEST_F(InstallerTest, RollbackIsCalledWhenTheBackupKeyExists)
{
    nvwriter::DbWriter writer(kDbPath, KEY_WOW64_32KEY);
    const nvwriter::DbOptions options = WriterOptions(nvwriter::DbFormat::V10, 6, 1, 1);
    nvwriter::Prng rng(5);
    nvwriter::Write10(writer, options, rng);
    // The machine's name index missing fails the step (HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)).
    writer.DeleteKey(L"MainDB\\Users\\Index\\NameIndex");
    writer.Flush();

    const InstallerRun run = RunInstallerExpecting(1);
    EXPECT_EQ(Concat({{kComLine}, FailedStepLines("0x80070002", "0x00000000")}), run.log);
}

TEST_F(InstallerTest, WithoutADatabaseThereIsNothingToConvert)
{
    const InstallerRun run = RunInstallerExpecting(0);
    EXPECT_EQ((std::vector<std::string>{
                  kComLine,
                  "step 1",
                  "LoadLibrary = ok",
                  "GetDBVersion = 0x00000000 current 0x00000000 target 0x00000000",
                  "outcome = nothing to convert",
                  "FreeLibrary = ok",
              }),
              run.log);
    EXPECT_FALSE(KeyExists(kDbPath, kView32));
    EXPECT_FALSE(KeyExists(kDbPath, kView64));
}

TEST_F(InstallerTest, TheInstallerTurnsTheStrictConversionPolicyOn)
{
    ASSERT_FALSE(KeyExists(kPolicyDefaultPath, kView64));
    const InstallerRun run = RunInstallerExpecting(0);
    // In the library's own (64-bit) view, where Convert reads it.
    RegValue value;
    ASSERT_TRUE(GetValue(kPolicyDefaultPath, L"StrictConversion", kView64, &value));
    EXPECT_EQ(DWORD(REG_DWORD), value.type);
    EXPECT_EQ((std::vector<BYTE>{1, 0, 0, 0}), value.data);
    EXPECT_FALSE(KeyExists(kPolicyDefaultPath, kView32));
}
