// nvdbconv as installers run it, blindly and more than once, as processes under
// Wine: a database whose layout is already 3.0 is converted, whatever "Version"
// reads, and convert and upgrade leave it alone; unregister with nothing registered
// succeeds; a failed step is labelled by the format it was to reach; counts of one
// are singular; check judges only the next step; and the empty value on which the
// backup fails is named by check, convert and upgrade.
#include <windows.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "common/storecontract.h"
#include "nvdbconv/result_codes.h"
#include "support/dll_loader.h"
#include "support/json_reader.h"
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

constexpr const wchar_t kComponents[] = L"SOFTWARE\\Norvane\\Core\\SysComponents";
constexpr const wchar_t kBackup10Path[] = L"SOFTWARE\\Norvane\\DB-v1.0";

const std::string kAlreadyConverted =
    "already converted: format 3.0 (no Data and no MainDB under HKLM\\SOFTWARE\\Norvane\\DB)";

ProcessRun Nvdbconv(const std::wstring& args) { return WithPlainLineEnds(RunTool(L"nvdbconv.exe", args)); }

// The run printed no error and the suite is as it was; `line` is the caller's.
void ExpectQuietAndNothingChanged(const ProcessRun& run, const SuiteSnapshot& before, int line)
{
    EXPECT_EQ("", run.err) << "checked at line " << line;
    ExpectSuiteUnchanged(before, line);
}

// A text row with its line end.
std::string RowLine(const std::string& label, const std::string& value) { return Row(label, value) + "\n"; }

std::string Described(HRESULT hr) { return nvdbconv::DescribeResult(hr); }

// The container is tracked (which deletes any old one) before the writer makes it.
void Write20(ContainerJanitor& containers, unsigned users)
{
    nvwriter::Db20Database db;
    ASSERT_EQ(S_OK, WriteTracked20(containers, users, 4242, {}, &db));
}

// A 1.0 database; with users20 it already holds that many 2.0-style users.
void Write10(ContainerJanitor& containers, unsigned users20 = 0)
{
    ASSERT_EQ(S_OK, Write10With20Records(containers, 4, users20, true));
}

const std::string kEmptyValueInMainDb =
    "HKLM\\SOFTWARE\\Norvane\\DB\\MainDB: value \"Blank\" is empty; the backup cannot copy empty values";

} // namespace

class NvdbconvFinishedTest : public StoreSandbox {};

// The installer's sequence: upgrade, then (another installer, or a rerun) convert.
// Convert would back the finished database up and fail on the missing Data\Users,
// leaving "Backup" and a DB-v2.0 key behind.
TEST_F(NvdbconvFinishedTest, ConvertAfterUpgradeSaysAlreadyConvertedAndChangesNothing)
{
    ContainerJanitor containers;
    Write20(containers, 3);
    const ProcessRun upgrade = Nvdbconv(L"upgrade");
    ASSERT_EQ(0u, upgrade.exitCode) << upgrade.out << upgrade.err;
    // Finished as the format has it: "Version" reads 2.1, no Data, no MainDB.
    std::wstring version;
    ASSERT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    EXPECT_EQ(L"2.1", version);
    ASSERT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB\\Data", kView32));
    ASSERT_FALSE(KeyExists(kMainDbPath, kView32));
    const SuiteSnapshot before = SnapshotSuite();

    ProcessRun run = ExitedWith(0, Nvdbconv(L"convert"));
    EXPECT_TRUE(Contains(run.out, RowLine("version", "2.1 (0x00020001) -> target 3.0 (0x00030000)"))) << run.out;
    EXPECT_TRUE(Contains(run.out, RowLine("state", kAlreadyConverted + "; Convert not called"))) << run.out;
    EXPECT_FALSE(Contains(run.out, "  Convert ")) << run.out;
    ExpectQuietAndNothingChanged(run, before, __LINE__);

    const JsonValue doc = Json(ExitedWith(0, Nvdbconv(L"--json convert")));
    EXPECT_TRUE(doc["alreadyConverted"].Bool());
    EXPECT_FALSE(doc.Has("convert")); // never called
    EXPECT_EQ("3.0", doc["before"]["layout"].Text());
    EXPECT_EQ(0, doc["exitCode"].Int());
    ExpectSuiteUnchanged(before, __LINE__);
    EXPECT_FALSE(KeyExists(kBackup20Path, kView64));
}

TEST_F(NvdbconvFinishedTest, UpgradeOfAConvertedDatabaseSaysSoAndChangesNothing)
{
    ContainerJanitor containers;
    Write20(containers, 3);
    ASSERT_EQ(0u, ExitedWith(0, Nvdbconv(L"upgrade")).exitCode); // says why when it is not
    const SuiteSnapshot before = SnapshotSuite();

    ProcessRun run = ExitedWith(0, Nvdbconv(L"upgrade"));
    EXPECT_TRUE(Contains(run.out, RowLine("upgrade", kAlreadyConverted + "; nothing to do"))) << run.out;
    EXPECT_FALSE(Contains(run.out, "  step ")) << run.out;
    ExpectQuietAndNothingChanged(run, before, __LINE__);

    const JsonValue doc = Json(ExitedWith(0, Nvdbconv(L"--json upgrade")));
    EXPECT_TRUE(doc["alreadyConverted"].Bool());
    EXPECT_EQ(0u, doc["steps"].Size());
    EXPECT_EQ(kAlreadyConverted + "; nothing to do", doc["summary"].Text());
    ExpectSuiteUnchanged(before, __LINE__);
}

// The layout decides, not "Version": a database key without Data and MainDB is
// converted whether it reads 2.0 (a 2.0 -> 3.0 step finished by another host),
// 2.1 or 3.0.
TEST_F(NvdbconvFinishedTest, ALayout30DatabaseIsConvertedWhateverVersionReads)
{
    for (const wchar_t* text : {L"2.0", L"2.1", L"3.0"}) {
        SCOPED_TRACE(Narrow(text));
        ASSERT_NO_FATAL_FAILURE(WriteLayout30Database(text));
        const SuiteSnapshot before = SnapshotSuite();
        for (const wchar_t* command : {L"convert", L"upgrade"}) {
            const ProcessRun run = ExitedWith(0, Nvdbconv(command));
            EXPECT_TRUE(Contains(run.out, kAlreadyConverted)) << run.out;
            ExpectQuietAndNothingChanged(run, before, __LINE__);
        }
    }
}

// A run interrupted inside Cleanup leaves a finished database with its backup key and
// "Backup" naming it, or with "Backup" naming a key already deleted. convert removes
// what is left (Cleanup; or the dangling value), and a second convert changes nothing.
// upgrade does the same through its convert child, and its summary then says that no
// step was run rather than that there was nothing to do. A foreign "Backup" stays as
// it is.
TEST_F(NvdbconvFinishedTest, ConvertAndUpgradeOfAFinishedDatabaseRemoveWhatAnInterruptedRunLeft)
{
    ContainerJanitor containers;
    Write20(containers, 2);
    ASSERT_EQ(0u, ExitedWith(0, Nvdbconv(L"upgrade")).exitCode); // says why when it is not
    const SuiteSnapshot finished = SnapshotSuite();
    struct Case {
        const wchar_t* command;
        std::string tidiedRow, untouchedRow; // what it says with and without a left-over
    };
    const Case cases[] = {
        {L"convert", RowLine("state", kAlreadyConverted + "; Convert not called"),
         RowLine("state", kAlreadyConverted + "; Convert not called")},
        {L"upgrade", RowLine("upgrade", kAlreadyConverted + "; no step to run"),
         RowLine("upgrade", kAlreadyConverted + "; nothing to do")},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(Narrow(c.command));
        // The backup key and its name, as Cleanup found them before it was interrupted.
        SetString(L"SOFTWARE\\Norvane\\DB-v2.0\\Data\\Users\\{00000000-0000-0000-0000-000000000001}", L"Kept",
                  L"old", kView64);
        SetString(kDbPath, L"Backup", L"SOFTWARE\\Norvane\\DB-v2.0", kView32);
        ProcessRun run = ExitedWith(0, Nvdbconv(c.command));
        EXPECT_TRUE(Contains(run.out, c.tidiedRow)) << run.out;
        EXPECT_TRUE(Contains(run.out, RowLine("left over", "backup key HKLM\\SOFTWARE\\Norvane\\DB-v2.0 of an "
                                                       "interrupted run: Cleanup " + kSucceeded)))
            << run.out;
        EXPECT_FALSE(Contains(run.out, "  step ")) << run.out;
        EXPECT_FALSE(KeyExists(kBackup20Path, kView64));
        ExpectSuiteUnchanged(finished, __LINE__);
        run = ExitedWith(0, Nvdbconv(c.command));
        EXPECT_FALSE(Contains(run.out, "left over")) << run.out;
        EXPECT_TRUE(Contains(run.out, c.untouchedRow)) << run.out;
        ExpectSuiteUnchanged(finished, __LINE__);

        // "Backup" naming a key that is gone: only the value goes.
        SetString(kDbPath, L"Backup", L"SOFTWARE\\Norvane\\DB-v2.0", kView32);
        run = ExitedWith(0, Nvdbconv(std::wstring(L"--json ") + c.command));
        const JsonValue doc = Json(run);
        EXPECT_TRUE(doc["leftoverBackupValueRemoved"]["ok"].Bool()) << run.out;
        EXPECT_EQ("0x00000000", doc["leftoverBackupValueRemoved"]["hr"].Text()) << run.out;
        EXPECT_FALSE(doc.Has("leftoverCleanup")) << run.out;
        ExpectSuiteUnchanged(finished, __LINE__);

        // A foreign one is not ours to touch.
        SetString(kDbPath, L"Backup", L"SOFTWARE\\Elsewhere", kView32);
        const SuiteSnapshot planted = SnapshotSuite();
        run = ExitedWith(0, Nvdbconv(c.command));
        EXPECT_FALSE(Contains(run.out, "left over")) << run.out;
        EXPECT_TRUE(Contains(run.out, c.untouchedRow)) << run.out;
        ExpectSuiteUnchanged(planted, __LINE__);
        DeleteValue(kDbPath, L"Backup", kView32);
    }
}

// A clean-up cut short after Data\Users went leaves the rest of the old database:
// Convert would make a backup and fail on the missing key. convert calls nothing,
// exits 0 and changes nothing.
TEST_F(NvdbconvFinishedTest, A2xDatabaseWithoutDataUsersIsNotConvertedAgain)
{
    ContainerJanitor containers;
    Write20(containers, 2);
    ASSERT_EQ(0u, ExitedWith(0, Nvdbconv(L"upgrade")).exitCode); // says why when it is not
    SetString(L"SOFTWARE\\Norvane\\DB\\Data\\Other", L"Left", L"over", kView32);
    SetString(kMainDbPath, L"Left", L"over", kView32);
    const SuiteSnapshot before = SnapshotSuite();

    for (int run = 0; run < 2; ++run) {
        const ProcessRun convert = ExitedWith(0, Nvdbconv(L"convert"));
        EXPECT_TRUE(Contains(convert.out, RowLine("state", "no Data\\Users: every user was moved, the rest of the old "
                                                       "database is what an interrupted clean-up left; Convert not "
                                                       "called")))
            << convert.out;
        EXPECT_FALSE(Contains(convert.out, "  Convert ")) << convert.out;
        ExpectSuiteUnchanged(before, __LINE__);
    }
    EXPECT_FALSE(KeyExists(kBackup20Path, kView64));
}

// A 2.0 database with users still under Data\Users is not finished: convert runs.
TEST_F(NvdbconvFinishedTest, A20DatabaseWithUsersLeftIsStillConverted)
{
    ContainerJanitor containers;
    Write20(containers, 2);
    const ProcessRun run = ExitedWith(0, Nvdbconv(L"convert"));
    EXPECT_FALSE(Contains(run.out, "already converted")) << run.out;
    EXPECT_TRUE(Contains(run.out, RowLine("Convert", kSucceeded))) << run.out;
    EXPECT_FALSE(KeyExists(kMainDbPath, kView32));
}

class NvdbconvInstallerTest : public StoreSandbox {};

TEST_F(NvdbconvInstallerTest, UnregisterWithNothingRegisteredSucceedsTwice)
{
    ASSERT_FALSE(KeyExists(kComponents, kView64));
    for (int i = 0; i < 2; ++i) {
        SCOPED_TRACE(i);
        const ProcessRun run = ExitedWith(0, Nvdbconv(L"unregister"));
        EXPECT_TRUE(Contains(run.out, RowLine("DllUnregisterServer", Described(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)))))
            << run.out;
        EXPECT_TRUE(Contains(
            run.out, RowLine("unregistered", "nothing was registered (no HKLM\\SOFTWARE\\Norvane\\Core\\SysComponents)")))
            << run.out;
        EXPECT_EQ("", run.err);
        EXPECT_FALSE(KeyExists(kComponents, kView64));
    }
    const ProcessRun json = Nvdbconv(L"--json unregister");
    EXPECT_EQ(0u, json.exitCode);
    const JsonValue doc = Json(json);
    EXPECT_TRUE(doc["nothingRegistered"].Bool());
    EXPECT_EQ(0, doc["exitCode"].Int());
}

// Unregistering what is registered is still judged by the library's answer alone.
TEST_F(NvdbconvInstallerTest, UnregisterAfterRegisterIsNotNothingRegistered)
{
    ASSERT_EQ(0u, Nvdbconv(L"register").exitCode);
    const ProcessRun run = ExitedWith(0, Nvdbconv(L"--json unregister"));
    const JsonValue doc = Json(run);
    EXPECT_FALSE(doc["nothingRegistered"].Bool());
    EXPECT_EQ("0x00000000", doc["unregister"]["hr"].Text());
    EXPECT_FALSE(KeyExists(kComponents, kView64));
}

TEST_F(NvdbconvInstallerTest, OneUserIsCountedInTheSingular)
{
    ContainerJanitor containers;
    Write20(containers, 1);
    ASSERT_TRUE(DeleteTree(StoreClassKey().c_str(), kView64));

    ProcessRun run = Nvdbconv(L"status");
    EXPECT_TRUE(Contains(run.out, RowLine("state", "format 2.0: 1 user to move into the store (convert)"))) << run.out;

    run = ExitedWith(3, Nvdbconv(L"convert"));
    EXPECT_TRUE(Contains(run.out, RowLine("users", "1 user key under Data\\Users to move into the store"))) << run.out;
    EXPECT_TRUE(Contains(run.err, "none of the\n  1 user can be moved: every one")) << run.err;

    run = ExitedWith(4, Nvdbconv(L"convert --force"));
    EXPECT_TRUE(Contains(run.out, RowLine("kept old data", "1 of 1 user (Convert answered S_OK all the same)"))) << run.out;
    EXPECT_TRUE(Contains(run.err, "nvdbconv: 1 of 1 user kept their old data under "
                                  "HKLM\\SOFTWARE\\Norvane\\DB\\Data\\Users (exit code 4)\n"))
        << run.err;

    run = ExitedWith(4, Nvdbconv(L"check"));
    EXPECT_TRUE(Contains(run.out, RowLine("verdict", "1 of 1 user would not convert and would keep their old data")))
        << run.out;
}

// The 1.0 -> 2.0 step stays in the registry: the store, which only the next step
// needs, is no obstacle, and its users are not judged yet.
TEST_F(NvdbconvInstallerTest, CheckOfA10DatabaseJudgesOnlyTheStepTo20)
{
    ContainerJanitor containers;
    Write10(containers, 3);
    ASSERT_TRUE(DeleteTree(StoreClassKey().c_str(), kView64));
    const SuiteSnapshot before = SnapshotSuite();

    ProcessRun run = ExitedWith(0, Nvdbconv(L"check"));
    EXPECT_FALSE(Contains(run.out, "would fail")) << run.out;
    EXPECT_TRUE(Contains(run.out, RowLine("users", "3 under Data\\Users (the next step does not move them)"))) << run.out;
    // Listed, one of them with a single template, without a verdict on each.
    EXPECT_TRUE(Contains(run.out, ": record ok, 1 template (mask 0x00000002), 2 secrets, password secret opens\n"))
        << run.out;
    EXPECT_TRUE(Contains(run.out, RowLine("verdict", "the 1.0 -> 2.0 step moves no user; nothing stands in its way")))
        << run.out;
    EXPECT_EQ("", run.err);

    run = Nvdbconv(L"--json check");
    EXPECT_EQ(0u, run.exitCode);
    const JsonValue doc = Json(run);
    EXPECT_EQ(0, doc["wouldFail"].Int());
    EXPECT_TRUE(doc["emptyValue"].IsNull());
    ASSERT_EQ(3u, doc["users"].Size());
    for (size_t i = 0; i < 3; ++i)
        EXPECT_TRUE(doc["users"][i]["reason"].IsNull());
    ExpectSuiteUnchanged(before, __LINE__);
}

class NvdbconvEmptyValueTest : public StoreSandbox {
protected:
    void SetUp() override
    {
        StoreSandbox::SetUp();
        Write10(m_containers);
        // Zero bytes: the backup's copy refuses it.
        SetBinary(kMainDbPath, L"Blank", {}, kView32);
    }
    ContainerJanitor m_containers;
};

TEST_F(NvdbconvEmptyValueTest, CheckNamesTheKeyAndTheValueAndExits4)
{
    const SuiteSnapshot before = SnapshotSuite();
    ProcessRun run = ExitedWith(4, Nvdbconv(L"check"));
    EXPECT_TRUE(Contains(run.out, RowLine("backup", "would fail: " + kEmptyValueInMainDb))) << run.out;
    const std::string verdict = "the 1.0 -> 2.0 step would fail before converting anything: " + kEmptyValueInMainDb;
    EXPECT_TRUE(Contains(run.out, RowLine("verdict", verdict))) << run.out;
    EXPECT_EQ("nvdbconv: " + verdict + "\n", run.err);

    run = Nvdbconv(L"--json check");
    EXPECT_EQ(4u, run.exitCode);
    const JsonValue doc = Json(run);
    EXPECT_EQ("HKLM\\SOFTWARE\\Norvane\\DB\\MainDB", doc["emptyValue"]["key"].Text());
    EXPECT_EQ("Blank", doc["emptyValue"]["value"].Text());
    ExpectSuiteUnchanged(before, __LINE__);
}

// What a backup stopped half way leaves: a backup key that no "Backup" names.
const std::string kUnnamedBackup10 =
    "HKLM\\SOFTWARE\\Norvane\\DB-v1.0 (32-bit view) is there, but no \"Backup\" names it: a backup\n"
    "  that failed half way (an empty value stops the copy) leaves what it copied, users' records\n"
    "  and secrets included. cleanup and rollback do not touch it. The next convert copies the\n"
    "  database into it (merging with what it holds) and removes it when the step succeeds;\n"
    "  \"nvdbconv check\" names what stops the step. Without a conversion, delete it by hand\n"
    "  (reg delete <key> /f, with /reg:32 for the 32-bit view). (A conversion running right now\n"
    "  shows the same until it has copied the database and written \"Backup\".)";

TEST_F(NvdbconvEmptyValueTest, ConvertNamesTheKeyAndTheValueWhenTheBackupFails)
{
    const HRESULT refused = HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY);
    const ProcessRun run = ExitedWith(1, Nvdbconv(L"convert"));
    EXPECT_TRUE(Contains(run.out, RowLine("Convert", Described(refused)) + RowLine("cause", kEmptyValueInMainDb)))
        << run.out;
    // The copy made before the empty value stays, named by no "Backup": said so.
    EXPECT_EQ("nvdbconv: Convert failed: " + Described(refused) + ": " + kEmptyValueInMainDb + "\n" +
                  "nvdbconv: warning: " + kUnnamedBackup10 + "\n",
              run.err);
    std::wstring version;
    EXPECT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    EXPECT_EQ(L"1.0", version);
    EXPECT_TRUE(KeyExists(kBackup10Path, kView32));
    RegValue backup;
    EXPECT_FALSE(GetValue(kDbPath, L"Backup", kView32, &backup));

    // status names it with what removes it; cleanup, which cannot, says so too.
    const ProcessRun status = ExitedWith(0, Nvdbconv(L"status"));
    EXPECT_TRUE(Contains(status.out, RowLine("unnamed backup", kUnnamedBackup10))) << status.out;
    const ProcessRun cleanup = ExitedWith(0, Nvdbconv(L"cleanup"));
    EXPECT_EQ("nvdbconv: warning: " + kUnnamedBackup10 + "\n", cleanup.err);
    EXPECT_TRUE(KeyExists(kBackup10Path, kView32));
    EXPECT_EQ(kUnnamedBackup10, Json(Nvdbconv(L"--json status"))["unnamedBackupAdvice"].Text());
}

// A failed step is labelled by the format it was to reach (not "1.0 -> 1.0"), and
// the summary names the value.
TEST_F(NvdbconvEmptyValueTest, UpgradeLabelsTheFailedStepByItsTargetAndNamesTheValue)
{
    const HRESULT refused = HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY);
    ProcessRun run = ExitedWith(1, Nvdbconv(L"upgrade"));
    EXPECT_TRUE(Contains(run.out, "  step 1: 1.0 -> 2.0, Convert " + Described(refused) + ", exit 1\n"
                                  "    cause: " + kEmptyValueInMainDb + "\n"))
        << run.out;
    EXPECT_TRUE(Contains(run.out, RowLine("upgrade", "1.0 failed: " + kEmptyValueInMainDb))) << run.out;
    // The step's own warning comes through first.
    EXPECT_EQ("nvdbconv: warning: " + kUnnamedBackup10 + "\nnvdbconv: upgrade failed: 1.0 failed: " +
                  kEmptyValueInMainDb + "\n",
              run.err);

    run = Nvdbconv(L"--json upgrade");
    EXPECT_EQ(1u, run.exitCode);
    const JsonValue doc = Json(run);
    ASSERT_EQ(1u, doc["steps"].Size());
    EXPECT_EQ("1.0", doc["steps"][0]["from"].Text());
    EXPECT_EQ("2.0", doc["steps"][0]["to"].Text());
    EXPECT_EQ("1.0", doc["steps"][0]["reached"].Text());
    EXPECT_EQ("Blank", doc["steps"][0]["child"]["emptyValue"]["value"].Text());
}

// The library's trace names the value too, so the support engineer reading
// nvtrace --summary sees the same key and value as the one who ran convert.
TEST_F(NvdbconvEmptyValueTest, TheTraceSummaryNamesTheKeyAndTheValue)
{
    wchar_t dir[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, dir);
    const std::wstring file = std::wstring(dir) + L"nvdbconv-empty-" + std::to_wstring(::GetCurrentProcessId()) + L".trc3";
    ::DeleteFileW(file.c_str());
    ASSERT_EQ(0u, Nvdbconv(L"trace on --new-file --file " + QuoteArg(file)).exitCode);
    EXPECT_EQ(1u, Nvdbconv(L"convert").exitCode);

    const ProcessRun summary = RunProcess(QuoteArg(ExeDirectory() + L"nvtrace.exe") + L" --summary " + QuoteArg(file));
    ::DeleteFileW(file.c_str());
    EXPECT_EQ(0u, summary.exitCode) << summary.err;
    const std::string text = WithoutCarriageReturns(summary.out);
    EXPECT_TRUE(Contains(text, "\nvalues the backup refused: 1\n  " + kEmptyValueInMainDb + "\n")) << text;
}
