// nvdbconv, the command line host of NVDBConv.dll: run as its own process under
// Wine as a user would run it (every command, text and --json output, exit codes,
// the rollback refusal, bad arguments), plus its in-process parts: the progress
// poller, the JSON writer, and the test support's JSON reader that checks it.
#include <windows.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "nv_version.h"
#include "nvdbconv/cli.h"
#include "nvdbconv/json.h"
#include "nvdbconv/progress.h"
#include "nvdbconv/result_codes.h"
#include "nvdbconv/tracewatch.h"
#include "nvstore_inspect.h"
#include "nvtracelib.h"
#include "support/db_paths.h"
#include "support/dll_loader.h"
#include "support/import_patch.h"
#include "support/json_reader.h"
#include "support/key_containers.h"
#include "support/legacy_db_tree.h"
#include "support/process_runner.h"
#include "support/registry_sandbox.h"
#include "support/sample_databases.h"
#include "support/store_sandbox.h"
#include "support/text_util.h"
#include "support/tool_runs.h"
#include "support/unix_side.h"
#include "writer/db20_writer.h"
#include "writer/legacy_writer.h"

using namespace nvtest;

namespace {

constexpr const wchar_t kBackup10[] = L"SOFTWARE\\Norvane\\DB-v1.0";
constexpr const wchar_t kTracing[] = L"SOFTWARE\\Norvane\\Tracing";
constexpr const wchar_t kComponents[] = L"SOFTWARE\\Norvane\\Core\\SysComponents";

std::wstring LibraryPath() { return ExeDirectory() + L"NVDBConv.dll"; }
std::string LibraryPathU8() { return Narrow(LibraryPath()); }
ProcessRun Nvdbconv(const std::wstring& args) { return RunTool(L"nvdbconv.exe", args, 120000); }

// The tool's line for a failed call: code, symbol and Wine's message text.
const std::string kFailed = "0x80004005 E_FAIL \"Call failed.\"";

nvwriter::DbRecord Write10(unsigned users = 6, unsigned domains = 1, REGSAM view = KEY_WOW64_32KEY)
{
    nvwriter::DbOptions options = WriterOptions(nvwriter::DbFormat::V10, users, domains, 1);
    options.view = view;
    options.wipe = true;
    nvwriter::DbRecord record;
    EXPECT_EQ(S_OK, nvwriter::WriteDatabase(options, &record));
    return record;
}

void CheckResult(const JsonValue& result, HRESULT hr, const std::string& message)
{
    EXPECT_EQ(Hex(hr), result["hr"].Text());
    EXPECT_EQ(static_cast<long>(hr), result["code"].Int());
    EXPECT_EQ(message, result["message"].Text());
    EXPECT_EQ(SUCCEEDED(hr), result["ok"].Bool());
    EXPECT_TRUE(result["ok"].IsBool());
}

DWORD SessionOfThisProcess()
{
    DWORD session = 0;
    ::ProcessIdToSessionId(::GetCurrentProcessId(), &session);
    return session;
}

std::wstring TempDirectory(const wchar_t* name)
{
    wchar_t tmp[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, tmp);
    std::wstring dir = std::wstring(tmp) + name + std::to_wstring(::GetCurrentProcessId());
    ::CreateDirectoryW(dir.c_str(), nullptr);
    return dir;
}

void RemoveDirectoryTree(const std::wstring& dir)
{
    WIN32_FIND_DATAW data;
    HANDLE find = ::FindFirstFileW((dir + L"\\*").c_str(), &data);
    if (find != INVALID_HANDLE_VALUE) {
        do {
            if (data.cFileName[0] != L'.')
                ::DeleteFileW((dir + L"\\" + data.cFileName).c_str());
        } while (::FindNextFileW(find, &data));
        ::FindClose(find);
    }
    ::RemoveDirectoryW(dir.c_str());
}

} // namespace

// ---- bad arguments and help ------------------------------------------------------

class NvdbconvCliTest : public RegistrySandbox {};

TEST_F(NvdbconvCliTest, BadArgumentsExitWith2AndAShortUsageWithoutTouchingAnything)
{
    const std::pair<const wchar_t*, const char*> cases[] = {
        {L"", "no command given"},
        {L"frobnicate", "unknown command 'frobnicate'"},
        {L"--bogus status", "unknown option '--bogus'"},
        {L"status --dll", "--dll needs a value"},
        {L"status extra", "unexpected 'extra'"},
        {L"trace", "trace needs on, off or show"},
        {L"trace sideways", "trace takes on, off or show, not 'sideways'"},
        {L"trace on now", "unexpected 'now'"},
        {L"trace off --verbosity 3", "--verbosity, --file, --append and --new-file go with trace on"},
        {L"status --verbosity 3", "--verbosity, --file, --append and --new-file go with trace on"},
        {L"trace on --verbosity -1", "--verbosity takes a number from 0 to 4294967295, not '-1'"},
        {L"trace on --verbosity 12x", "--verbosity takes a number from 0 to 4294967295, not '12x'"},
        {L"trace on --append --new-file", "--append and --new-file exclude each other"},
        {L"status --force", "--force goes with rollback, convert or upgrade"},
        {L"status --progress always", "--progress goes with convert"},
        {L"convert --progress sometimes", "--progress takes auto, always or never, not 'sometimes'"},
        {L"--json=yes status", "--json takes no value"},
    };
    for (const auto& [args, message] : cases) {
        ProcessRun run = Nvdbconv(args);
        EXPECT_EQ(2u, run.exitCode) << Narrow(args);
        EXPECT_EQ("", run.out) << Narrow(args);
        EXPECT_EQ(std::string("nvdbconv: ") + message + "\n" + nvdbconv::ShortUsageText(), run.err) << Narrow(args);
    }
    EXPECT_FALSE(KeyExists(kTracing, kView64));
    EXPECT_FALSE(KeyExists(kTracing, kView32));
}

TEST_F(NvdbconvCliTest, HelpPrintsTheFullUsageAndExits0)
{
    for (const wchar_t* args : {L"--help", L"-h", L"help", L"status --help"}) {
        ProcessRun run = Nvdbconv(args);
        EXPECT_EQ(0u, run.exitCode) << Narrow(args);
        EXPECT_EQ(nvdbconv::UsageText(), run.out) << Narrow(args);
        EXPECT_EQ("", run.err);
    }
    EXPECT_TRUE(Contains(nvdbconv::UsageText(), "exit codes: 0 done, 1 a call failed, 2 usage error, 3 refused"));
    EXPECT_TRUE(Contains(nvdbconv::UsageText(), "4 Convert answered S_OK but users kept"));
    EXPECT_TRUE(Contains(nvdbconv::UsageText(), "their old data, or moved with gaps: parts of them did not reach the store"));
}

TEST(NvdbconvCommandLineTest, OptionsGoBeforeOrAfterTheCommandAndTakeInlineValues)
{
    auto parsed = nvdbconv::ParseCommandLine({L"--json", L"convert", L"--progress=always", L"--dll", L"x.dll"});
    ASSERT_TRUE(parsed.ok) << parsed.error;
    EXPECT_EQ(nvdbconv::Command::Convert, parsed.options.command);
    EXPECT_TRUE(parsed.options.json);
    EXPECT_FALSE(parsed.options.quiet);
    EXPECT_EQ(nvdbconv::ProgressMode::Always, parsed.options.progress);
    EXPECT_EQ(L"x.dll", parsed.options.dll);

    parsed = nvdbconv::ParseCommandLine({L"trace", L"on", L"--file=C:\\t.trc3", L"--verbosity", L"10", L"--append"});
    ASSERT_TRUE(parsed.ok) << parsed.error;
    EXPECT_EQ(nvdbconv::Command::Trace, parsed.options.command);
    EXPECT_TRUE(parsed.options.traceOn);
    ASSERT_TRUE(parsed.options.verbosity.has_value());
    EXPECT_EQ(10u, *parsed.options.verbosity);
    ASSERT_TRUE(parsed.options.file.has_value());
    EXPECT_EQ(L"C:\\t.trc3", *parsed.options.file);
    ASSERT_TRUE(parsed.options.newFileAlways.has_value());
    EXPECT_EQ(0u, *parsed.options.newFileAlways);

    parsed = nvdbconv::ParseCommandLine({L"rollback", L"--force", L"-q"});
    ASSERT_TRUE(parsed.ok) << parsed.error;
    EXPECT_TRUE(parsed.options.force);
    EXPECT_TRUE(parsed.options.quiet);
    EXPECT_EQ(nvdbconv::ProgressMode::Auto, parsed.options.progress);
}

// ---- status ------------------------------------------------------------------------

class NvdbconvStatusTest : public RegistrySandbox {};

TEST_F(NvdbconvStatusTest, A10DatabaseInText)
{
    Write10(6, 1);
    ProcessRun run = Nvdbconv(L"status");
    EXPECT_EQ(0u, run.exitCode) << run.err;
    EXPECT_EQ("", run.err);
    const std::vector<std::string> expected = {
        "nvdbconv status",
        Row("library", LibraryPathU8()),
        Row("GetDBVersion", kSucceeded),
        Row("version", "1.0 (0x00010000) -> target 2.0 (0x00020000)"),
        Row("database", "HKLM\\SOFTWARE\\Norvane\\DB, 32-bit view"),
        Row("\"Version\"", "\"1.0\" (32-bit view)"),
        Row("MainDB", "present"),
        Row("user keys", "none (no Data\\Users key)"),
        Row("state", "format 1.0: convert rewrites it to 2.0"),
        Row("backup", "no \"Backup\" value"),
        Row("backup keys", "DB-v1.0 (32-bit view) absent, DB-v2.0 (64-bit view) absent"),
        Row("store server", RegisteredStoreServerPath().empty()
                                ? "not registered (a 2.0 conversion needs it)"
                                : "registered: " + Narrow(RegisteredStoreServerPath())),
        Row("trace", "off (no HKLM\\SOFTWARE\\Norvane\\Tracing key)"),
    };
    EXPECT_EQ(expected, SplitLines(run.out));
}

TEST_F(NvdbconvStatusTest, JsonReportsVersionViewsBackupUsersAndTraceSettings)
{
    Write10(6, 1);
    SetString(kDbPath, L"Backup", L"SOFTWARE\\Norvane\\DB-v1.0", kView32);
    CreateKeyPath(kBackup10, kView32);
    CreateKeyPath(L"SOFTWARE\\Norvane\\DB\\Data\\Users\\{00000000-0000-0000-0000-000000000001}", kView32);
    CreateKeyPath(L"SOFTWARE\\Norvane\\DB\\Data\\Users\\{00000000-0000-0000-0000-000000000002}", kView32);
    SetDword(kTracing, L"DoTrace", 1, kView64);
    SetDword(kTracing, L"Verbosity", 3, kView64);
    SetDword(kTracing, L"NewFileAlways", 0, kView64);
    SetString(kTracing, L"FileName", L"C:\\traces\\support.trc3", kView64);
    SetString(kTracing, L"TracePath", L"C:\\unused", kView64, REG_EXPAND_SZ);

    ProcessRun run = Nvdbconv(L"--json status");
    EXPECT_EQ(0u, run.exitCode) << run.err;
    EXPECT_EQ("", run.err);
    const JsonValue doc = Json(run);
    EXPECT_EQ("nvdbconv", doc["tool"].Text());
    EXPECT_EQ("status", doc["command"].Text());
    EXPECT_EQ(LibraryPathU8(), doc["dll"].Text());
    CheckResult(doc["load"], S_OK, "Success.");
    CheckResult(doc["getDBVersion"]["result"], S_OK, "Success.");
    EXPECT_EQ(0x00010000, doc["getDBVersion"]["current"].Int());
    EXPECT_EQ("1.0", doc["getDBVersion"]["currentText"].Text());
    EXPECT_EQ(0x00020000, doc["getDBVersion"]["target"].Int());
    EXPECT_EQ("2.0", doc["getDBVersion"]["targetText"].Text());

    const JsonValue& db = doc["database"];
    EXPECT_TRUE(db["present"].Bool());
    ASSERT_EQ(1u, db["views"].Size());
    EXPECT_EQ("32-bit", db["views"][0].Text());
    EXPECT_EQ("1.0", db["version"].Text());
    EXPECT_TRUE(db["mainDB"].Bool());
    EXPECT_EQ(2, db["userKeys"].Int());
    EXPECT_EQ("1.0", db["layout"].Text());
    EXPECT_EQ("SOFTWARE\\Norvane\\DB-v1.0", db["backup"]["value"].Text());
    EXPECT_TRUE(db["backup"]["DB-v1.0"]["exists"].Bool());
    EXPECT_EQ("32-bit", db["backup"]["DB-v1.0"]["view"].Text());
    EXPECT_FALSE(db["backup"]["DB-v2.0"]["exists"].Bool());
    EXPECT_TRUE(db["backup"]["DB-v2.0"]["exists"].IsBool());
    EXPECT_EQ("64-bit", db["backup"]["DB-v2.0"]["view"].Text());

    const JsonValue& trace = doc["trace"];
    EXPECT_TRUE(trace["key"].Bool());
    EXPECT_EQ("64-bit", trace["view"].Text());
    EXPECT_EQ(1, trace["DoTrace"].Int());
    EXPECT_TRUE(trace["TraceToFile"].IsNull());
    EXPECT_EQ(0, trace["NewFileAlways"].Int());
    EXPECT_TRUE(trace["DoProfiling"].IsNull());
    EXPECT_EQ(3, trace["Verbosity"].Int());
    EXPECT_EQ("C:\\unused", trace["TracePath"].Text());
    EXPECT_EQ("C:\\traces\\support.trc3", trace["FileName"].Text());
    EXPECT_TRUE(trace["on"].Bool());
    EXPECT_TRUE(trace["toFile"].Bool());
    EXPECT_TRUE(trace["append"].Bool());
    EXPECT_EQ("C:\\traces\\support.trc3", trace["file"].Text());
    EXPECT_EQ(0, doc["exitCode"].Int());
}

TEST_F(NvdbconvStatusTest, NoDatabaseReportsVersionZeroAndNothingToConvert)
{
    ProcessRun run = Nvdbconv(L"--json status");
    EXPECT_EQ(0u, run.exitCode);
    const JsonValue doc = Json(run);
    EXPECT_EQ(0, doc["getDBVersion"]["current"].Int());
    EXPECT_EQ(0, doc["getDBVersion"]["target"].Int());
    EXPECT_FALSE(doc["database"]["present"].Bool());
    EXPECT_EQ(0u, doc["database"]["views"].Size());
    EXPECT_TRUE(doc["database"]["version"].IsNull());
    EXPECT_TRUE(doc["database"]["userKeys"].IsNull());
    EXPECT_EQ("none", doc["database"]["layout"].Text());

    run = Nvdbconv(L"status");
    EXPECT_EQ(0u, run.exitCode);
    const std::vector<std::string> lines = SplitLines(run.out);
    EXPECT_NE(lines.end(), std::find(lines.begin(), lines.end(),
                                     Row("version", "none (0x00000000) -> target none (0x00000000): no converter for "
                                                    "this database")))
        << run.out;
    EXPECT_NE(lines.end(), std::find(lines.begin(), lines.end(), Row("state", "no database: nothing to convert")))
        << run.out;
}

TEST_F(NvdbconvStatusTest, DatabaseInBothViewsIsReadFromThe64BitViewFirst)
{
    Write10(3, 0, KEY_WOW64_32KEY);
    SetString(kDbPath, L"Version", L"2.0", kView64);
    const JsonValue doc = Json(Nvdbconv(L"--json status"));
    ASSERT_EQ(2u, doc["database"]["views"].Size());
    EXPECT_EQ("32-bit", doc["database"]["views"][0].Text());
    EXPECT_EQ("64-bit", doc["database"]["views"][1].Text());
    EXPECT_EQ("2.0", doc["database"]["version"].Text());
    EXPECT_EQ(0x00020000, doc["getDBVersion"]["current"].Int());
}

TEST_F(NvdbconvStatusTest, ALibraryThatDoesNotLoadExits1AndSaysWhy)
{
    const std::wstring missing = ExeDirectory() + L"no-such-folder\\NVDBConv.dll";
    ProcessRun run = Nvdbconv(L"--json --dll " + QuoteArg(missing) + L" status");
    EXPECT_EQ(1u, run.exitCode);
    const JsonValue doc = Json(run);
    EXPECT_EQ(Narrow(missing), doc["dll"].Text());
    EXPECT_FALSE(doc["load"]["ok"].Bool());
    EXPECT_TRUE(doc["load"]["ok"].IsBool());
    EXPECT_EQ(HRESULT_FACILITY(static_cast<HRESULT>(doc["load"]["code"].Int())), FACILITY_WIN32) << run.out;
    EXPECT_TRUE(doc["getDBVersion"].IsNull());
    EXPECT_EQ(1, doc["exitCode"].Int());

    run = Nvdbconv(L"--dll " + QuoteArg(missing) + L" status");
    EXPECT_EQ(1u, run.exitCode);
    EXPECT_EQ(0u, run.err.find("nvdbconv: cannot load " + Narrow(missing) + ": 0x8007")) << run.err;
}

// ---- convert, cleanup, rollback on a 1.0 database --------------------------------

class NvdbconvConvertTest : public RegistrySandbox {};

TEST_F(NvdbconvConvertTest, Convert10RewritesTheDatabaseTo20AndReportsIt)
{
    nvwriter::DbRecord record = Write10(8, 2);
    ProcessRun run = Nvdbconv(L"--json convert");
    EXPECT_EQ(0u, run.exitCode) << run.err;
    const JsonValue doc = Json(run);
    CheckResult(doc["convert"], S_OK, "Success.");
    EXPECT_EQ("1.0", doc["before"]["version"].Text());
    EXPECT_EQ("1.0", doc["before"]["layout"].Text());
    EXPECT_EQ("2.0", doc["after"]["version"].Text());
    EXPECT_TRUE(doc["after"]["backup"]["value"].IsNull());
    EXPECT_FALSE(doc["after"]["backup"]["DB-v1.0"]["exists"].Bool());
    // A 1.0 conversion moves no users: no progress, no users report.
    EXPECT_TRUE(doc["users"].IsMissing());
    EXPECT_EQ(0, doc["exitCode"].Int());

    wchar_t computer[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD cch = MAX_COMPUTERNAME_LENGTH + 1;
    ASSERT_TRUE(::GetComputerNameExW(ComputerNameNetBIOS, computer, &cch));
    RegTree expected = ToRegTree(record.ExpectedAfter10To20(computer));
    RegTree actual = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(expected == actual) << DiffTrees(expected, actual);
    EXPECT_FALSE(KeyExists(kBackup10, kView32));
}

TEST_F(NvdbconvConvertTest, ConvertInTextShowsEveryResultAndTheOutcome)
{
    Write10(4, 1);
    ProcessRun run = Nvdbconv(L"convert");
    EXPECT_EQ(0u, run.exitCode) << run.err;
    const std::vector<std::string> expected = {
        "nvdbconv convert",
        Row("library", LibraryPathU8()),
        Row("GetDBVersion", kSucceeded),
        Row("version", "1.0 (0x00010000) -> target 2.0 (0x00020000)"),
        Row("Convert", kSucceeded),
        Row("now", "format 2.0, no users under Data\\Users: convert has nobody to move"),
        Row("backup", "no \"Backup\" value"),
    };
    EXPECT_EQ(expected, SplitLines(run.out));
    EXPECT_FALSE(Contains(run.out, "\r")) << "no progress line for a 1.0 conversion";
}

TEST_F(NvdbconvConvertTest, ConvertWithoutADatabaseFailsWithEFailAndExits1)
{
    ProcessRun run = Nvdbconv(L"convert");
    EXPECT_EQ(1u, run.exitCode);
    const std::vector<std::string> lines = SplitLines(run.out);
    EXPECT_NE(lines.end(), std::find(lines.begin(), lines.end(), Row("Convert", kFailed))) << run.out;
    EXPECT_EQ("nvdbconv: Convert failed: " + kFailed + "\n", run.err);

    const JsonValue doc = Json(Nvdbconv(L"--json convert"));
    CheckResult(doc["convert"], E_FAIL, "Call failed.");
    EXPECT_EQ("E_FAIL", doc["convert"]["symbol"].Text());
    EXPECT_FALSE(doc["convert"]["message"].Text().empty());
    EXPECT_EQ(1, doc["exitCode"].Int());
}

TEST_F(NvdbconvConvertTest, QuietPrintsNothingButKeepsTheExitCodeAndTheProblem)
{
    ProcessRun run = Nvdbconv(L"--quiet status");
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_EQ("", run.out);
    EXPECT_EQ("", run.err);

    run = Nvdbconv(L"convert --quiet");
    EXPECT_EQ(1u, run.exitCode);
    EXPECT_EQ("", run.out);
    EXPECT_EQ("nvdbconv: Convert failed: " + kFailed + "\n", run.err);

    Write10(3, 0);
    run = Nvdbconv(L"-q convert");
    EXPECT_EQ(0u, run.exitCode) << run.err;
    EXPECT_EQ("", run.out);
    std::wstring version;
    ASSERT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    EXPECT_EQ(L"2.0", version);
}

TEST_F(NvdbconvConvertTest, CleanupWithoutABackupAnswersSFalse)
{
    Write10(4, 1);
    ProcessRun run = Nvdbconv(L"cleanup");
    EXPECT_EQ(0u, run.exitCode) << run.err;
    const std::vector<std::string> lines = SplitLines(run.out);
    EXPECT_NE(lines.end(), std::find(lines.begin(), lines.end(),
                                     Row("Cleanup", "0x00000001 S_FALSE \"no backup to remove\"")))
        << run.out;
    const JsonValue doc = Json(Nvdbconv(L"--json cleanup"));
    CheckResult(doc["cleanup"], S_FALSE, "no backup to remove");
    EXPECT_EQ("S_FALSE", doc["cleanup"]["symbol"].Text());
    EXPECT_EQ("no backup to remove", doc["cleanup"]["message"].Text());
    EXPECT_FALSE(Contains(run.out, "Invalid function")) << run.out;
    EXPECT_EQ(0, doc["exitCode"].Int());
}

TEST_F(NvdbconvConvertTest, CleanupRemovesTheBackupKeyAndTheBackupValue)
{
    Write10(4, 1);
    SetString(kDbPath, L"Backup", L"SOFTWARE\\Norvane\\DB-v1.0", kView32);
    SetString(kBackup10, L"Version", L"1.0", kView32);
    const JsonValue doc = Json(Nvdbconv(L"--json cleanup"));
    CheckResult(doc["cleanup"], S_OK, "Success.");
    EXPECT_EQ("SOFTWARE\\Norvane\\DB-v1.0", doc["before"]["backup"]["value"].Text());
    EXPECT_TRUE(doc["before"]["backup"]["DB-v1.0"]["exists"].Bool());
    EXPECT_TRUE(doc["after"]["backup"]["value"].IsNull());
    EXPECT_FALSE(doc["after"]["backup"]["DB-v1.0"]["exists"].Bool());
    EXPECT_FALSE(KeyExists(kBackup10, kView32));
    RegValue backup;
    EXPECT_FALSE(GetValue(kDbPath, L"Backup", kView32, &backup));
}

class NvdbconvRollbackTest : public RegistrySandbox {
protected:
    // A 1.0 database in both views: the converter reads "Backup" from the 32-bit
    // one, Rollback deletes and restores the one in the library's own view.
    void SetUpDatabaseInBothViews()
    {
        Write10(4, 1, KEY_WOW64_32KEY);
        Write10(4, 1, KEY_WOW64_64KEY);
        SetString(kDbPath, L"Backup", L"SOFTWARE\\Norvane\\DB-v1.0", kView32);
    }
};

TEST_F(NvdbconvRollbackTest, RefusesWhenTheBackupKeyThatBackupNamesIsMissing)
{
    SetUpDatabaseInBothViews();
    const RegTree before32 = Snapshot(kDbPath, kView32);
    const RegTree before64 = Snapshot(kDbPath, kView64);

    ProcessRun run = Nvdbconv(L"rollback");
    EXPECT_EQ(3u, run.exitCode);
    EXPECT_TRUE(Contains(run.out, Row("backup key", "MISSING (32-bit view)"))) << run.out;
    EXPECT_FALSE(Contains(run.out, "Rollback ")) << "Rollback must not have been called:\n" << run.out;
    EXPECT_EQ("nvdbconv: refusing to roll back: \"Backup\" names HKLM\\SOFTWARE\\Norvane\\DB-v1.0, but that key "
              "does not exist in the 32-bit view.\n"
              "  Rollback deletes HKLM\\SOFTWARE\\Norvane\\DB (the library's own view) and then restores it\n"
              "  from the backup key. Without the backup nothing would be restored: the database key, its\n"
              "  \"Version\", name indexes and policies would be deleted for good.\n"
              "  Run \"nvdbconv rollback --force\" to roll back anyway.\n",
              run.err);

    const JsonValue doc = Json(Nvdbconv(L"--json rollback"));
    EXPECT_TRUE(doc["refused"].Bool());
    EXPECT_TRUE(Contains(doc["reason"].Text(), "refusing to roll back"));
    EXPECT_EQ("SOFTWARE\\Norvane\\DB-v1.0", doc["backupKey"]["path"].Text());
    EXPECT_EQ("32-bit", doc["backupKey"]["view"].Text());
    EXPECT_FALSE(doc["backupKey"]["exists"].Bool());
    EXPECT_TRUE(doc["rollback"].IsMissing());
    EXPECT_EQ(3, doc["exitCode"].Int());

    const RegTree after32 = Snapshot(kDbPath, kView32);
    const RegTree after64 = Snapshot(kDbPath, kView64);
    EXPECT_TRUE(before32 == after32) << DiffTrees(before32, after32);
    EXPECT_TRUE(before64 == after64) << DiffTrees(before64, after64);
}

TEST_F(NvdbconvRollbackTest, ForceRollsBackAnywayAndTheDatabaseKeyIsLost)
{
    SetUpDatabaseInBothViews();
    ASSERT_TRUE(KeyExists(kDbPath, kView64));
    const JsonValue doc = Json(Nvdbconv(L"--json rollback --force"));
    EXPECT_FALSE(doc["refused"].Bool());
    EXPECT_TRUE(doc["refused"].IsBool());
    EXPECT_FALSE(doc["backupKey"]["exists"].Bool());
    // The delete succeeded, the copy from the missing backup failed, and Rollback
    // reports S_OK all the same: what the refusal protects against.
    CheckResult(doc["rollback"], S_OK, "Success.");
    EXPECT_EQ(0, doc["exitCode"].Int());
    EXPECT_FALSE(KeyExists(kDbPath, kView64));
}

TEST_F(NvdbconvRollbackTest, WithTheBackupKeyPresentRollsBackFromIt)
{
    SetUpDatabaseInBothViews();
    SetString(kBackup10, L"Version", L"1.0", kView32);
    SetString(kBackup10, L"Restored", L"yes", kView32);
    ProcessRun run = Nvdbconv(L"--json rollback");
    EXPECT_EQ(0u, run.exitCode) << run.out;
    const JsonValue doc = Json(run);
    EXPECT_FALSE(doc["refused"].Bool());
    EXPECT_TRUE(doc["backupKey"]["exists"].Bool());
    CheckResult(doc["rollback"], S_OK, "Success.");
    // The restore took the backup key with it: no warning.
    EXPECT_TRUE(doc["notRestoredAdvice"].IsMissing());
    EXPECT_EQ("", run.err);
    std::wstring restored;
    ASSERT_TRUE(GetString(kDbPath, L"Restored", kView64, &restored));
    EXPECT_EQ(L"yes", restored);
    EXPECT_FALSE(KeyExists(kBackup10, kView32));
}

namespace {

const std::string kRunTheStepAgain =
    "  Run \"nvdbconv check\", then \"nvdbconv convert\" again: the step copies the database into\n"
    "  the backup once more (merging with what it holds) and removes the backup when it succeeds.";
const std::string kNotRestored =
    "the database was not restored: it is as it was, and its backup HKLM\\SOFTWARE\\Norvane\\DB-v1.0\n"
    "  and \"Backup\" are still there. The library's Rollback deletes and restores HKLM\\SOFTWARE\\Norvane\\DB\n"
    "  in its own (64-bit) view, and this database lives in the 32-bit view, so it changes\n"
    "  nothing here.\n" + kRunTheStepAgain;
const std::string kStepLeftItsBackup =
    "the library's rollback did not restore the database: it works in its own (64-bit)\n"
    "  view, and this database lives in the 32-bit view. The database is as the step left it\n"
    "  (what the step did before it failed stays done; \"Version\" reads 1.0), and its backup\n"
    "  HKLM\\SOFTWARE\\Norvane\\DB-v1.0 and \"Backup\" are still there.\n" + kRunTheStepAgain;

} // namespace

// The usual database lives in the 32-bit view only, where the library's Rollback (in
// its own view) cannot reach it: it answers S_OK and changes nothing. nvdbconv says so
// instead of letting S_OK read as a restore.
TEST_F(NvdbconvRollbackTest, OnThe32BitDatabaseRollbackRestoresNothingAndSaysSo)
{
    Write10(4, 1);
    SetString(kDbPath, L"Backup", L"SOFTWARE\\Norvane\\DB-v1.0", kView32);
    SetString(kBackup10, L"Version", L"1.0", kView32);
    SetString(kBackup10, L"Restored", L"yes", kView32);
    const RegTree before = Snapshot(kDbPath, kView32);
    const RegTree backupBefore = Snapshot(kBackup10, kView32);

    const ProcessRun run = Nvdbconv(L"rollback");
    EXPECT_EQ(0u, run.exitCode) << run.err;
    EXPECT_TRUE(Contains(run.out, Row("Rollback", "0x00000000 S_OK \"Success.\""))) << run.out;
    EXPECT_EQ("nvdbconv: warning: " + kNotRestored + "\n", run.err);
    const RegTree after = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(before == after) << DiffTrees(before, after);
    const RegTree backupAfter = Snapshot(kBackup10, kView32);
    EXPECT_TRUE(backupBefore == backupAfter) << DiffTrees(backupBefore, backupAfter);
    EXPECT_FALSE(KeyExists(kDbPath, kView64));

    const ProcessRun json = Nvdbconv(L"--json rollback");
    EXPECT_EQ("nvdbconv: warning: " + kNotRestored + "\n", json.err);
    const JsonValue doc = Json(json);
    CheckResult(doc["rollback"], S_OK, "Success.");
    EXPECT_EQ(kNotRestored, doc["notRestoredAdvice"].Text());
}

// A step that fails after its backup: Convert's own rollback leaves the database, its
// backup key and "Backup" as they were, and convert says so and what to run.
TEST_F(NvdbconvConvertTest, AFailedStepSaysItsBackupIsStillThereAndWhatToRun)
{
    Write10(4, 1);
    ASSERT_TRUE(DeleteTree(L"SOFTWARE\\Norvane\\DB\\MainDB\\Users\\Index\\NameIndex", kView32));
    const ProcessRun run = Nvdbconv(L"convert");
    EXPECT_EQ(1u, run.exitCode) << run.out;
    EXPECT_EQ(0u, run.err.find("nvdbconv: Convert failed: 0x80070002 ")) << run.err;
    EXPECT_TRUE(Contains(run.err, "\nnvdbconv: warning: " + kStepLeftItsBackup + "\n")) << run.err;
    std::wstring backup, version;
    EXPECT_TRUE(GetString(kDbPath, L"Backup", kView32, &backup));
    EXPECT_EQ(L"SOFTWARE\\Norvane\\DB-v1.0", backup);
    EXPECT_TRUE(KeyExists(kBackup10, kView32));
    EXPECT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    EXPECT_EQ(L"1.0", version);

    const ProcessRun json = Nvdbconv(L"--json convert");
    EXPECT_EQ(1u, json.exitCode);
    EXPECT_EQ(kStepLeftItsBackup, Json(json)["backupAdvice"].Text());
}

TEST_F(NvdbconvRollbackTest, WithoutABackupValueRollbackRunsAndAnswersSFalse)
{
    Write10(4, 1);
    ProcessRun run = Nvdbconv(L"rollback");
    EXPECT_EQ(0u, run.exitCode) << run.err;
    const std::vector<std::string> lines = SplitLines(run.out);
    EXPECT_NE(lines.end(), std::find(lines.begin(), lines.end(),
                                     Row("Rollback", "0x00000001 S_FALSE \"no backup to restore\"")))
        << run.out;
    EXPECT_NE(lines.end(), std::find(lines.begin(), lines.end(), Row("backup", "no \"Backup\" value"))) << run.out;
}

// "Backup" naming a key the library never writes: status calls it foreign and says
// what to do; rollback and cleanup refuse it whatever the options, and the key it
// names stays as it was.
namespace {

constexpr const wchar_t kForeignKey[] = L"SOFTWARE\\Norvane\\Victim";

const std::string kForeignAdvice =
    "\"Backup\" names HKLM\\SOFTWARE\\Norvane\\Victim, which is not a backup key of the library (only\n"
    "  HKLM\\SOFTWARE\\Norvane\\DB-v1.0 and HKLM\\SOFTWARE\\Norvane\\DB-v2.0 are). The library never writes "
    "anything else there:\n"
    "  someone else set it, and Rollback and Cleanup would delete and copy that key elevated.\n"
    "  The library refuses it (0x80070005), and so do rollback and cleanup here, with or\n"
    "  without --force. Find out who can write HKLM\\SOFTWARE\\Norvane\\DB, then delete the value by hand\n"
    "  (reg delete HKLM\\SOFTWARE\\Norvane\\DB /v Backup /reg:32 /f) and run \"nvdbconv status\" again.";

} // namespace

TEST_F(NvdbconvRollbackTest, StatusCallsAForeignBackupValueForeignAndSaysWhatToDo)
{
    Write10(4, 1, KEY_WOW64_32KEY);
    SetString(kDbPath, L"Backup", kForeignKey, kView32);

    ProcessRun run = ExitedWith(0, Nvdbconv(L"status"));
    EXPECT_TRUE(Contains(run.out, Row("backup", "\"Backup\" = \"SOFTWARE\\Norvane\\Victim\" (FOREIGN)"))) << run.out;
    EXPECT_TRUE(Contains(run.out, Row("foreign", kForeignAdvice))) << run.out;

    const JsonValue doc = Json(Nvdbconv(L"--json status"));
    EXPECT_TRUE(doc["backupForeign"].Bool());
    EXPECT_EQ(kForeignAdvice, doc["foreignAdvice"].Text());
    EXPECT_FALSE(doc["backupKeyMissing"].Bool());
}

TEST_F(NvdbconvRollbackTest, StatusOfTheLibrarysOwnBackupValueIsNotForeign)
{
    SetUpDatabaseInBothViews();
    const JsonValue doc = Json(Nvdbconv(L"--json status"));
    EXPECT_FALSE(doc["backupForeign"].Bool());
    EXPECT_TRUE(doc["foreignAdvice"].IsMissing());
}

TEST_F(NvdbconvRollbackTest, RollbackAndCleanupRefuseAForeignBackupValueEvenWithForce)
{
    Write10(4, 1, KEY_WOW64_32KEY);
    Write10(4, 1, KEY_WOW64_64KEY);
    SetString(kDbPath, L"Backup", kForeignKey, kView32);
    for (REGSAM view : {kView32, kView64})
        SetString(kForeignKey, L"Sentinel", L"must survive", view);
    const RegTree before32 = Snapshot(kDbPath, kView32);
    const RegTree before64 = Snapshot(kDbPath, kView64);
    const RegTree foreign32 = Snapshot(kForeignKey, kView32);
    const RegTree foreign64 = Snapshot(kForeignKey, kView64);

    for (const wchar_t* args : {L"rollback", L"rollback --force", L"cleanup"}) {
        SCOPED_TRACE(Narrow(args));
        const std::string operation = std::wstring(args).rfind(L"rollback", 0) == 0 ? "roll back" : "clean up";
        ProcessRun run = ExitedWith(3, Nvdbconv(args));
        EXPECT_EQ("nvdbconv: refusing to " + operation + ": " + kForeignAdvice + "\n", run.err);
        EXPECT_FALSE(Contains(run.out, "Rollback ")) << run.out;
        EXPECT_FALSE(Contains(run.out, "Cleanup ")) << run.out;
    }
    const JsonValue doc = Json(Nvdbconv(L"--json rollback --force"));
    EXPECT_TRUE(doc["refused"].Bool());
    EXPECT_EQ("refusing to roll back: " + kForeignAdvice, doc["reason"].Text());
    EXPECT_TRUE(doc["rollback"].IsMissing());
    EXPECT_EQ(3, doc["exitCode"].Int());

    EXPECT_EQ("", DiffTrees(before32, Snapshot(kDbPath, kView32)));
    EXPECT_EQ("", DiffTrees(before64, Snapshot(kDbPath, kView64)));
    EXPECT_EQ("", DiffTrees(foreign32, Snapshot(kForeignKey, kView32)));
    EXPECT_EQ("", DiffTrees(foreign64, Snapshot(kForeignKey, kView64)));
}

TEST_F(NvdbconvRollbackTest, WithoutADatabaseThereIsNoConverterAndRollbackFails)
{
    const JsonValue doc = Json(Nvdbconv(L"--json rollback"));
    CheckResult(doc["rollback"], E_FAIL, "Call failed.");
    EXPECT_FALSE(doc["refused"].Bool());
    EXPECT_EQ(1, doc["exitCode"].Int());
}

// ---- register, trace, version, store ---------------------------------------------

class NvdbconvCommandsTest : public RegistrySandbox {};

TEST_F(NvdbconvCommandsTest, RegisterAddsTheComponentAndUnregisterRemovesIt)
{
    ProcessRun run = Nvdbconv(L"--json register");
    EXPECT_EQ(0u, run.exitCode) << run.out;
    JsonValue doc = Json(run);
    CheckResult(doc["register"], S_OK, "Success.");
    std::wstring component;
    ASSERT_TRUE(GetString(kComponents, L"CNVDBConverter", kView64, &component));
    EXPECT_EQ(Narrow(component), doc["components"]["CNVDBConverter"].Text());
    EXPECT_EQ(L":" + LibraryPath(), component.substr(component.find(L':')));

    run = Nvdbconv(L"unregister");
    EXPECT_EQ(0u, run.exitCode) << run.out;
    EXPECT_TRUE(Contains(run.out, Row("DllUnregisterServer", kSucceeded))) << run.out;
    EXPECT_TRUE(Contains(run.out, Row("components", "none in HKLM\\SOFTWARE\\Norvane\\Core\\SysComponents")))
        << run.out;
    EXPECT_FALSE(KeyExists(kComponents, kView64));
}

TEST_F(NvdbconvCommandsTest, TraceOnWritesTheSettingsAndTheLibraryTracesWhereStatusSays)
{
    const std::wstring dir = TempDirectory(L"nvdbconv-trace");
    const std::wstring file = dir + L"\\host.trc3";
    ::DeleteFileW(file.c_str());
    ProcessRun run = Nvdbconv(L"--json trace on --verbosity 7 --append --file " + QuoteArg(file));
    EXPECT_EQ(0u, run.exitCode) << run.out;
    JsonValue doc = Json(run);
    CheckResult(doc["write"], S_OK, "Success.");
    EXPECT_TRUE(doc["on"].Bool());
    DWORD value = 0xdeadbeef;
    ASSERT_TRUE(GetDword(kTracing, L"DoTrace", kView64, &value));
    EXPECT_EQ(1u, value);
    ASSERT_TRUE(GetDword(kTracing, L"TraceToFile", kView64, &value));
    EXPECT_EQ(1u, value);
    ASSERT_TRUE(GetDword(kTracing, L"Verbosity", kView64, &value));
    EXPECT_EQ(7u, value);
    ASSERT_TRUE(GetDword(kTracing, L"NewFileAlways", kView64, &value));
    EXPECT_EQ(0u, value);
    std::wstring fileName;
    ASSERT_TRUE(GetString(kTracing, L"FileName", kView64, &fileName));
    EXPECT_EQ(file, fileName);
    EXPECT_EQ(Narrow(file), doc["trace"]["file"].Text());
    EXPECT_TRUE(doc["trace"]["append"].Bool());

    // The library, loaded by the next command, writes there.
    run = Nvdbconv(L"status");
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_TRUE(Contains(run.out, Row("trace", "on, verbosity 7, appending") + "\n" + Row("trace file", Narrow(file))))
        << run.out;
    std::vector<std::uint8_t> bytes;
    std::string error;
    ASSERT_TRUE(nvtrace::ReadWholeFile(Narrow(file), bytes, error)) << error;
    const nvtrace::DecodedTrace decoded = nvtrace::Decode(bytes);
    EXPECT_TRUE(decoded.ok) << decoded.error;
    std::vector<std::string> lines;
    for (const nvtrace::Record& r : decoded.records)
        lines.push_back(nvtrace::CanonicalLine(r));
    EXPECT_NE(lines.end(), std::find(lines.begin(), lines.end(), "> CDBConverter::FinalConstruct"));

    run = Nvdbconv(L"trace off");
    EXPECT_EQ(0u, run.exitCode);
    ASSERT_TRUE(GetDword(kTracing, L"DoTrace", kView64, &value));
    EXPECT_EQ(0u, value);
    ASSERT_TRUE(GetDword(kTracing, L"Verbosity", kView64, &value));
    EXPECT_EQ(7u, value) << "trace off keeps the other settings";
    EXPECT_TRUE(Contains(run.out, Row("trace", "off (DoTrace = 0)"))) << run.out;

    run = Nvdbconv(L"trace on --new-file");
    EXPECT_EQ(0u, run.exitCode);
    ASSERT_TRUE(GetDword(kTracing, L"NewFileAlways", kView64, &value));
    EXPECT_EQ(1u, value);
    ::DeleteFileW(file.c_str());
    RemoveDirectoryTree(dir);
}

TEST_F(NvdbconvCommandsTest, WithoutFileNameTheTraceFileIsNamedAfterTheHostInTracePath)
{
    const std::wstring dir = TempDirectory(L"nvdbconv-tracepath");
    SetString(kTracing, L"TracePath", dir, kView64);
    ASSERT_EQ(0u, Nvdbconv(L"--quiet trace on --verbosity 0").exitCode);
    const JsonValue doc = Json(Nvdbconv(L"--json status"));
    const std::wstring expected =
        dir + L"\\nvdbconv.NVDBConv.dll.x64." + std::to_wstring(SessionOfThisProcess()) + L".trc3";
    EXPECT_EQ(Narrow(expected), doc["trace"]["file"].Text());
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES == ::GetFileAttributesW(expected.c_str()), false)
        << "the library wrote no file at " << Narrow(expected);
    ::DeleteFileW(expected.c_str());
    RemoveDirectoryTree(dir);
}

// The library refuses a trace file behind a planted link or of another owner
// without a word (tracing never fails its caller); nvdbconv, which asked for the
// trace, says so. Links and the foreign owner are made on Wine's Unix side.
TEST_F(NvdbconvCommandsTest, TraceFileTheLibraryRefusedIsWarnedAbout)
{
    ASSERT_TRUE(UnderWine());
    const std::wstring dir = TempDirectory(L"nvdbconv-refused");
    ASSERT_TRUE(::CreateDirectoryW((dir + L"\\target").c_str(), nullptr));
    ASSERT_TRUE(::CreateDirectoryW((dir + L"\\plain").c_str(), nullptr));
    ASSERT_TRUE(MakeUnixSymlink(dir + L"\\target", dir + L"\\link"));
    const auto warning = [](const std::wstring& file, const char* reason) {
        return "nvdbconv: warning: the library refused the trace file " + Narrow(file) + ": " + reason +
               "; this run has no trace (docs/SECURITY.md)\n";
    };

    // A file it may write: no warning.
    const std::wstring plain = dir + L"\\plain\\host.trc3";
    ASSERT_EQ(0u, Nvdbconv(L"--quiet trace on --file " + QuoteArg(plain)).exitCode);
    ProcessRun run = Nvdbconv(L"status");
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_EQ("", run.err);
    EXPECT_TRUE(::GetFileAttributesW(plain.c_str()) != INVALID_FILE_ATTRIBUTES);

    // The same name behind the link: nothing is created there, and the host says so
    // in text and in JSON mode (standard output stays one JSON document).
    const std::wstring linked = dir + L"\\link\\host.trc3";
    ASSERT_EQ(0u, Nvdbconv(L"--quiet trace on --file " + QuoteArg(linked)).exitCode);
    run = Nvdbconv(L"status");
    EXPECT_EQ(0u, run.exitCode) << "a refused trace changes no result";
    EXPECT_EQ(warning(linked, "a link on its path leads elsewhere"), run.err);
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, ::GetFileAttributesW((dir + L"\\target\\host.trc3").c_str()));
    run = Nvdbconv(L"--json status");
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_EQ(warning(linked, "a link on its path leads elsewhere"), run.err);
    EXPECT_TRUE(Json(run)["trace"]["on"].Bool());

    // A pattern-named file in TracePath folders behind the link: none are made there.
    ASSERT_EQ(0u, Nvdbconv(L"--quiet trace on --new-file").exitCode);
    DeleteValue(kTracing, L"FileName", kView64);
    SetString(kTracing, L"TracePath", dir + L"\\link\\logs", kView64);
    const std::wstring patterned =
        dir + L"\\link\\logs\\nvdbconv.NVDBConv.dll.x64." + std::to_wstring(SessionOfThisProcess()) + L".trc3";
    run = Nvdbconv(L"status");
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_EQ(warning(patterned, "a link on its path leads elsewhere"), run.err);
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, ::GetFileAttributesW((dir + L"\\target\\logs").c_str()));
    DeleteValue(kTracing, L"TracePath", kView64);

    // An existing file of another owner, to be appended to: left as it was.
    const std::wstring foreign = dir + L"\\plain\\foreign.trc3";
    {
        HANDLE f = ::CreateFileW(foreign.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
        ASSERT_NE(INVALID_HANDLE_VALUE, f);
        DWORD written = 0;
        ::WriteFile(f, "theirs", 6, &written, nullptr);
        ::CloseHandle(f);
    }
    ASSERT_TRUE(RunUnix({"chown", "nobody", UnixPathOf(foreign)})) << "giving the file away needs root";
    ASSERT_EQ(0u, Nvdbconv(L"--quiet trace on --append --file " + QuoteArg(foreign)).exitCode);
    run = Nvdbconv(L"register");
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_EQ(warning(foreign, "another account owns it"), run.err);
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    ASSERT_TRUE(::GetFileAttributesExW(foreign.c_str(), GetFileExInfoStandard, &data));
    EXPECT_EQ(6u, data.nFileSizeLow);

    // No file is due when the library's component is switched off: no warning.
    SetDword(L"SOFTWARE\\Norvane\\Tracing\\ComponentsNOT", L"nvdbconv", 1, kView64);
    run = Nvdbconv(L"version");
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_EQ("", run.err);

    EXPECT_TRUE(RunUnix({"rm", "-rf", UnixPathOf(dir)}));
}

namespace {

// Every path the test process's own CreateFileW calls name, nvdbconv's code linked
// into it included.
std::vector<std::wstring> g_created;
decltype(&::CreateFileW) g_realCreateFileW = nullptr;

HANDLE WINAPI RecordingCreateFileW(LPCWSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                                   DWORD disposition, DWORD flags, HANDLE templateFile)
{
    g_created.emplace_back(name ? name : L"");
    return g_realCreateFileW(name, access, share, security, disposition, flags, templateFile);
}

} // namespace

// A trace file on a share: nvdbconv runs elevated, so its look at the file before
// and after the library's load must not open it either (that would reach the server
// with its credentials). Wine serves \\localhost\<share> from its prefix; the
// watch runs in this process with its opens recorded.
TEST_F(NvdbconvCommandsTest, TraceFileOnAShareIsNotOpenedByTheHostsWatch)
{
    ASSERT_TRUE(UnderWine());
    std::string dosdevices = UnixPathOf(L"C:\\");
    ASSERT_GT(dosdevices.size(), 3u);
    dosdevices = dosdevices.substr(0, dosdevices.find_last_of('/', dosdevices.size() - 2)); // drop "c:/"
    const std::string share = "nvdbconvunc" + std::to_string(::GetCurrentProcessId());
    const std::string shareDir = dosdevices + "/unc/localhost/" + share;
    ASSERT_TRUE(RunUnix({"mkdir", "-p", shareDir}));
    const std::wstring onShare = L"\\\\localhost\\" + Widen(share) + L"\\host.trc3";
    {
        HANDLE f = ::CreateFileW(onShare.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
        ASSERT_NE(INVALID_HANDLE_VALUE, f) << "Wine does not serve the share";
        ::CloseHandle(f);
    }
    const std::wstring dir = TempDirectory(L"nvdbconv-watched");
    const std::wstring local = dir + L"\\host.trc3";

    ImportPatch patch(::GetModuleHandleW(nullptr), {{"CreateFileW", reinterpret_cast<void*>(RecordingCreateFileW)}});
    ASSERT_TRUE(patch.ok());
    g_realCreateFileW = reinterpret_cast<decltype(&::CreateFileW)>(patch.Original("CreateFileW"));
    ASSERT_NE(nullptr, g_realCreateFileW);
    const auto watched = [] {
        g_created.clear();
        const nvdbconv::CTraceFileWatch watch(LibraryPath());
        const std::optional<nvdbconv::TraceRefusal> refusal = watch.Refusal();
        return std::make_pair(refusal, g_created);
    };

    // A local file is looked at before and after: the recording sees the watch.
    ASSERT_EQ(0u, Nvdbconv(L"--quiet trace on --new-file --file " + QuoteArg(local)).exitCode);
    auto [refusal, opened] = watched();
    EXPECT_FALSE(refusal.has_value());
    // Twice by the watch, once by the library's probe of a file not written.
    EXPECT_EQ(3, std::count(opened.begin(), opened.end(), local));

    ASSERT_EQ(0u, Nvdbconv(L"--quiet trace on --new-file --file " + QuoteArg(onShare)).exitCode);
    std::tie(refusal, opened) = watched();
    ASSERT_TRUE(refusal.has_value());
    EXPECT_EQ(onShare, refusal->path);
    EXPECT_EQ("it is not on a local drive", refusal->reason);
    for (const std::wstring& name : opened)
        EXPECT_EQ(std::wstring::npos, name.find(Widen(share))) << "opened " << Narrow(name);

    EXPECT_TRUE(RunUnix({"rm", "-rf", shareDir}));
    RemoveDirectoryTree(dir);
}

TEST_F(NvdbconvCommandsTest, VersionShowsBothVersionsAndTheExports)
{
    ProcessRun run = Nvdbconv(L"--json version");
    EXPECT_EQ(0u, run.exitCode) << run.out;
    const JsonValue doc = Json(run);
    EXPECT_EQ(NV_VERSION_TEXT, doc["version"].Text());
    EXPECT_EQ(NV_VERSION_TEXT, doc["fileVersion"].Text());
    CheckResult(doc["load"], S_OK, "Success.");
    for (const char* name : {"Convert", "Rollback", "Cleanup", "GetDBVersion", "DllCanUnloadNow", "DllGetClassObject",
                             "DllRegisterServer", "DllUnregisterServer"})
        EXPECT_TRUE(doc["exports"][name].Bool()) << name;
    EXPECT_EQ(8u, doc["exports"].Size());

    run = Nvdbconv(L"version");
    EXPECT_TRUE(Contains(run.out, Row("nvdbconv", NV_VERSION_TEXT) + "\n")) << run.out;
    EXPECT_TRUE(Contains(run.out, Row("exports", "Convert Rollback Cleanup GetDBVersion DllCanUnloadNow "
                                                 "DllGetClassObject DllRegisterServer DllUnregisterServer")))
        << run.out;

    // Another DLL: the exports that are missing are named, and it counts as a failure.
    run = Nvdbconv(L"--dll " + QuoteArg(ExeDirectory() + L"NVStore.dll") + L" version");
    EXPECT_EQ(1u, run.exitCode);
    EXPECT_TRUE(Contains(run.out, Row("missing", "Convert Rollback Cleanup GetDBVersion"))) << run.out;
}

class NvdbconvStoreTest : public StoreSandbox {};

TEST_F(NvdbconvStoreTest, StoreListsUsersSecretsTemplatesPayloadAndRegistration)
{
    const std::wstring ctl = QuoteArg(ExeDirectory() + L"nvstorectl.exe");
    const std::wstring sid = L"S-1-5-21-1-2-3-1001";
    ASSERT_EQ(0u, RunProcessWithInput(ctl + L" enroll " + sid, "pw\n").exitCode);
    for (const std::wstring& args : {L"put-secret " + sid + L" Mail 0102", L"put-secret " + sid + L" VPN 03",
                                     L"put-template " + sid + L" 3 aa", L"put-template " + sid + L" 0 bb",
                                     L"register " + sid})
        ASSERT_EQ(0u, RunProcess(ctl + L" " + args).exitCode) << Narrow(args);

    ProcessRun run = Nvdbconv(L"--json store");
    EXPECT_EQ(0u, run.exitCode) << run.out;
    const JsonValue doc = Json(run);
    EXPECT_TRUE(doc["server"]["registered"].Bool());
    EXPECT_EQ(Narrow(StoreServerPath()), doc["server"]["path"].Text());
    ASSERT_EQ(1u, doc["users"].Size());
    const JsonValue& user = doc["users"][0];
    EXPECT_EQ(Narrow(sid), user["sid"].Text());
    ASSERT_EQ(2u, user["secrets"].Size());
    EXPECT_EQ("Mail", user["secrets"][0].Text());
    EXPECT_EQ("VPN", user["secrets"][1].Text());
    // Put in plain, not sealed for the user: they do not open with the user's key.
    EXPECT_EQ(0, user["secretsOpen"].Int());
    ASSERT_EQ(2u, user["templates"].Size());
    EXPECT_EQ(0, user["templates"][0].Int());
    EXPECT_EQ(3, user["templates"][1].Int());
    EXPECT_TRUE(user["payload"].Bool());
    EXPECT_TRUE(user["keyPair"].Bool());
    EXPECT_TRUE(user["password"].Bool());
    EXPECT_TRUE(user["registered"].Bool());
    EXPECT_EQ(1, doc["totals"]["users"].Int());
    EXPECT_EQ(1, doc["totals"]["registered"].Int());
    EXPECT_EQ(2, doc["totals"]["secrets"].Int());
    EXPECT_EQ(0, doc["totals"]["secretsOpen"].Int());
    EXPECT_EQ(2, doc["totals"]["templates"].Int());

    run = Nvdbconv(L"store");
    EXPECT_TRUE(Contains(run.out, Row("total", "1 user, 2 secrets (0 open with their user's key), 2 templates")))
        << run.out;
    EXPECT_TRUE(Contains(run.out, "secrets 2 (0 open with the user's key): Mail, VPN, templates 2 at 0,3, payload "
                                  "yes, registered"))
        << run.out;
}

// ---- a 2.0 database into the store -------------------------------------------------

class NvdbconvConvert20Test : public StoreSandbox {
protected:
    nvwriter::Db20Database WriteDb20(unsigned users, std::uint32_t seed)
    {
        nvwriter::Db20Options options;
        options.seed = seed;
        options.userCount = users;
        options.domainCount = 1;
        nvwriter::Db20Database db = nvwriter::MakeDb20Database(options);
        m_containers.Track(db.hostId);
        EXPECT_EQ(S_OK, nvwriter::WriteDb20Database(db));
        return db;
    }

    // Every user of the model is in the store with its secrets (under the names of
    // the registry values that held them, re-sealed for the user) and its
    // templates, and its old key is gone.
    void ExpectEveryUserInTheStore(const nvwriter::Db20Database& db)
    {
        std::vector<std::wstring> expectedSids;
        for (const auto& user : db.users)
            expectedSids.push_back(user.sidText);
        std::sort(expectedSids.begin(), expectedSids.end());
        EXPECT_EQ(expectedSids, nvstore::inspect::ListUsers());
        for (const auto& user : db.users) {
            std::set<std::wstring> names;
            // Secrets are stored under their field names; the 31-character limit
            // applies only to the name inside the secret record.
            for (const auto& secret : user.secrets)
                names.insert(secret.valueName);
            std::set<std::wstring> stored;
            for (const auto& [name, bytes] : nvstore::inspect::ListSecrets(user.sidText)) {
                stored.insert(name);
                std::vector<BYTE> plain;
                EXPECT_EQ(S_OK, nvstore::inspect::OpenStoredSecret(user.sidText, name, &plain))
                    << Narrow(user.sidText) << " " << Narrow(name);
                ::SecureZeroMemory(plain.data(), plain.size());
            }
            EXPECT_EQ(names, stored) << Narrow(user.sidText);
            size_t templates = 0;
            for (const auto& credential : user.credentials)
                templates += credential.templates.size();
            EXPECT_EQ(templates, nvstore::inspect::ListTemplates(user.sidText).size()) << Narrow(user.sidText);
        }
        EXPECT_FALSE(KeyExists(kDataUsersPath, kView32));
    }

    ContainerJanitor m_containers;
};

TEST_F(NvdbconvConvert20Test, ProgressAlwaysDrawsUsersConvertedTotalAndRate)
{
    const nvwriter::Db20Database db = WriteDb20(4, 31);
    ProcessRun run = ExitedWith(0, Nvdbconv(L"convert --progress=always"));
    EXPECT_TRUE(Contains(run.out, Row("users", "4 user keys under Data\\Users to move into the store") + "\n"))
        << run.out;

    // Each sample: CR, two blanks, "users converted: k of 4 (r users/s)"; the last
    // one is 4 of 4 and ends the line.
    std::vector<unsigned> converted;
    size_t pos = 0;
    const std::string prefix = "\r  users converted: ";
    while ((pos = run.out.find(prefix, pos)) != std::string::npos) {
        pos += prefix.size();
        unsigned k = 0, total = 0;
        double rate = -1;
        ASSERT_EQ(3, std::sscanf(run.out.c_str() + pos, "%u of %u (%lf users/s)", &k, &total, &rate))
            << run.out.substr(pos, 60);
        EXPECT_EQ(4u, total);
        EXPECT_GE(rate, 0.0);
        converted.push_back(k);
    }
    ASSERT_FALSE(converted.empty()) << run.out;
    EXPECT_TRUE(std::is_sorted(converted.begin(), converted.end()));
    EXPECT_EQ(4u, converted.back());
    const size_t last = run.out.rfind(prefix);
    EXPECT_EQ(0u, run.out.compare(run.out.find(')', last) + 1, 1, "\n"));
    EXPECT_TRUE(Contains(run.out, Row("Convert", kSucceeded))) << run.out;
    EXPECT_TRUE(Contains(run.out, Row("now", "format 3.0: the users live in the store, the old per-user data is gone")))
        << run.out;
    ExpectEveryUserInTheStore(db);
}

TEST_F(NvdbconvConvert20Test, JsonReportsUsersMovedAndDrawsNoProgressWhenNotATerminal)
{
    const nvwriter::Db20Database db = WriteDb20(5, 32);
    ProcessRun run = ExitedWith(0, Nvdbconv(L"--json convert"));
    EXPECT_FALSE(Contains(run.out, "\r")) << "the output is a file, not a terminal";
    EXPECT_EQ("", run.err);
    const JsonValue doc = Json(run);
    CheckResult(doc["convert"], S_OK, "Success.");
    EXPECT_EQ(0x00020000, doc["getDBVersion"]["current"].Int());
    EXPECT_EQ(0x00030000, doc["getDBVersion"]["target"].Int());
    EXPECT_EQ(5, doc["before"]["userKeys"].Int());
    EXPECT_EQ("2.0", doc["before"]["layout"].Text());
    EXPECT_EQ(5, doc["users"]["total"].Int());
    EXPECT_EQ(5, doc["users"]["converted"].Int());
    EXPECT_EQ(0, doc["users"]["left"].Int());
    EXPECT_GE(doc["users"]["samples"].Int(), 1);
    EXPECT_TRUE(doc["users"]["rate"].IsNumber());
    EXPECT_TRUE(doc["after"]["userKeys"].IsNull());
    EXPECT_FALSE(doc["after"]["mainDB"].Bool());
    EXPECT_EQ("3.0", doc["after"]["layout"].Text());
    ExpectEveryUserInTheStore(db);

    // Status afterwards; the store command sees every secret open with its user's key.
    const JsonValue status = Json(Nvdbconv(L"--json status"));
    EXPECT_EQ("3.0", status["database"]["layout"].Text());
    const JsonValue store = Json(Nvdbconv(L"--json store"));
    EXPECT_EQ(5, store["totals"]["users"].Int());
    EXPECT_EQ(store["totals"]["secrets"].Int(), store["totals"]["secretsOpen"].Int());
    EXPECT_GT(store["totals"]["secrets"].Int(), 0);
}

TEST_F(NvdbconvConvert20Test, ProgressWithJsonGoesToStandardErrorAndTheDocumentStaysWhole)
{
    WriteDb20(3, 33);
    ProcessRun run = ExitedWith(0, Nvdbconv(L"--json --progress always convert"));
    EXPECT_TRUE(Contains(run.err, "\r  users converted: 3 of 3 (")) << run.err;
    const JsonValue doc = Json(run);
    EXPECT_EQ(3, doc["users"]["converted"].Int());
}

// ---- in-process parts --------------------------------------------------------------

TEST(NvdbconvProgressTest, FormatsConvertedTotalAndRate)
{
    nvdbconv::ProgressSample s;
    s.total = 25;
    s.left = 15;
    s.seconds = 2.0;
    EXPECT_EQ(10u, s.converted());
    EXPECT_DOUBLE_EQ(5.0, s.rate());
    EXPECT_EQ("users converted: 10 of 25 (5.0 users/s)", nvdbconv::FormatProgress(s));
    s.left = 30; // more keys than at the start: nothing counts as converted
    EXPECT_EQ(0u, s.converted());
    s.left = 0;
    s.seconds = 0;
    EXPECT_EQ(0.0, s.rate());
    EXPECT_EQ("users converted: 25 of 25 (0.0 users/s)", nvdbconv::FormatProgress(s));
}

TEST(NvdbconvProgressTest, PollerSamplesFromItsOwnThreadAndEndsWithAFinalSample)
{
    std::atomic<DWORD> left{10};
    std::atomic<bool> keyPresent{true};
    std::vector<nvdbconv::ProgressSample> samples;
    std::vector<std::thread::id> threads;
    nvdbconv::CProgressPoller poller(
        [&](DWORD* out) {
            *out = left.load();
            return keyPresent.load();
        },
        [&](const nvdbconv::ProgressSample& s) {
            samples.push_back(s);
            threads.push_back(std::this_thread::get_id());
        },
        std::chrono::milliseconds(10));
    poller.Start();
    EXPECT_EQ(10u, poller.total());
    for (DWORD k = 9; k >= 4; --k) {
        left = k;
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    keyPresent = false; // the cleanup removed Data\Users: nothing left
    const nvdbconv::ProgressSample last = poller.Stop();
    EXPECT_TRUE(last.final);
    EXPECT_EQ(10u, last.total);
    EXPECT_EQ(0u, last.left);
    EXPECT_EQ(10u, last.converted());
    EXPECT_GT(last.seconds, 0.1);

    ASSERT_GE(samples.size(), 3u);
    EXPECT_EQ(poller.samples(), samples.size());
    for (size_t i = 0; i + 1 < samples.size(); ++i) {
        EXPECT_FALSE(samples[i].final);
        EXPECT_NE(std::this_thread::get_id(), threads[i]) << "intermediate samples come from the poller's thread";
        EXPECT_LE(samples[i].converted(), samples[i + 1].converted());
        EXPECT_LE(samples[i].seconds, samples[i + 1].seconds);
    }
    EXPECT_TRUE(samples.back().final);
    EXPECT_EQ(std::this_thread::get_id(), threads.back());
    // Stop again: same sample, no new one.
    EXPECT_EQ(10u, poller.Stop().converted());
    EXPECT_EQ(samples.size(), poller.samples());
}

TEST(NvdbconvJsonTest, WritesNestedValuesWithJsonEscapesInTheOrderSet)
{
    nvdbconv::Json doc;
    doc["path"] = nvdbconv::ToUtf8(L"C:\\x \"q\"\n\x01\x00e9");
    doc["n"] = -2147467259L;
    doc["ok"] = true;
    doc["none"] = nullptr;
    doc["list"] = {1, "a", nvdbconv::Json::object()};
    doc["rate"] = nvdbconv::Rounded(2.75, 1);
    EXPECT_EQ("{\"path\":\"C:\\\\x \\\"q\\\"\\n\\u0001\xC3\xA9\",\"n\":-2147467259,\"ok\":true,\"none\":null,"
              "\"list\":[1,\"a\",{}],\"rate\":2.8}",
              nvdbconv::JsonText(doc));

    JsonValue parsed;
    std::string error;
    ASSERT_TRUE(ParseJson(nvdbconv::JsonText(doc), &parsed, &error)) << error;
    EXPECT_EQ("C:\\x \"q\"\n\x01\xC3\xA9", parsed["path"].Text());
}

// Figures are rounded as printf rounds them (2.75 and 0.25 are exact in binary, so
// they go to the even neighbour), then printed in their shortest form: no trailing
// zeros but one after a whole number's point.
TEST(NvdbconvJsonTest, RoundedFiguresArePrintedInTheirShortestForm)
{
    nvdbconv::Json doc;
    doc["a"] = nvdbconv::Rounded(1.5, 3);
    doc["b"] = nvdbconv::Rounded(0.25, 1);
    doc["c"] = nvdbconv::Rounded(14.2, 1);
    doc["d"] = nvdbconv::Rounded(3.0, 1);
    doc["e"] = nvdbconv::Rounded(0.0004, 3);
    doc["f"] = nvdbconv::Rounded(0.1234, 3);
    doc["g"] = nvdbconv::Rounded(1800.04, 1);
    EXPECT_EQ("{\"a\":1.5,\"b\":0.2,\"c\":14.2,\"d\":3.0,\"e\":0.0,\"f\":0.123,\"g\":1800.0}",
              nvdbconv::JsonText(doc));
}

// Text that is not UTF-8 (a narrow system message in another code page) is replaced,
// not a reason to lose the whole document.
TEST(NvdbconvJsonTest, BytesThatAreNotUtf8AreReplaced)
{
    nvdbconv::Json doc;
    doc["message"] = std::string("caf\xE9!");
    EXPECT_EQ("{\"message\":\"caf\xEF\xBF\xBD!\"}", nvdbconv::JsonText(doc));
}

TEST(JsonReaderTest, ParsesEveryKindAndRejectsWhatIsNotJson)
{
    JsonValue v;
    std::string error;
    ASSERT_TRUE(ParseJson(" {\"a\": [1, -2.5e1, true, false, null], \"s\": \"\\u00e9\\ud83d\\ude00\\/\"} \n", &v,
                          &error))
        << error;
    EXPECT_TRUE(v.IsObject());
    EXPECT_EQ(5u, v["a"].Size());
    EXPECT_EQ(1, v["a"][0].Int());
    EXPECT_DOUBLE_EQ(-25.0, v["a"][1].Number());
    EXPECT_EQ(std::numeric_limits<std::int64_t>::min(), v["a"][1].Int());
    EXPECT_TRUE(v["a"][2].Bool());
    EXPECT_TRUE(v["a"][3].IsBool());
    EXPECT_FALSE(v["a"][3].Bool());
    EXPECT_TRUE(v["a"][4].IsNull());
    EXPECT_TRUE(v["a"][5].IsMissing());
    EXPECT_TRUE(v["nope"].IsMissing());
    EXPECT_FALSE(v["nope"].IsNull());
    EXPECT_EQ("\xC3\xA9\xF0\x9F\x98\x80/", v["s"].Text());

    const char* bad[] = {"", "{", "{\"a\":1,}", "[1 2]", "{\"a\" 1}", "\"unterminated", "01", "1.", "-", "tru",
                         "{\"a\":1}{", "\"\\x\"", "\"\\ud800\"", "{\"a\":1,\"a\":2}", "\"tab\there\""};
    for (const char* text : bad) {
        JsonValue untouched;
        EXPECT_FALSE(ParseJson(text, &untouched, &error)) << text;
        EXPECT_EQ(0u, error.find("JSON error at byte ")) << error;
        EXPECT_TRUE(untouched.IsMissing()) << text;
    }
}

// The 1.0 -> 2.0 step rewrites every store's name index and fails on a missing one:
// check finds it first, by the path the step would open, and says the step would fail.
TEST_F(NvdbconvConvertTest, CheckFindsAMissingNameIndexThatWouldFailTheStep)
{
    Write10(4, 1);
    const std::wstring cache = std::wstring(kDbPath) + L"\\Cache";
    const std::vector<std::wstring> domains = SubkeyNames(cache.c_str(), kView32);
    ASSERT_EQ(1u, domains.size());
    const std::string healthy = Nvdbconv(L"check").out;
    EXPECT_TRUE(Contains(healthy, Row("verdict", "the 1.0 -> 2.0 step moves no user; nothing stands in its way")))
        << healthy;

    const std::wstring domainIndex = cache + L"\\" + domains[0] + L"\\Users\\Index\\NameIndex";
    const std::wstring machineIndex = std::wstring(kDbPath) + L"\\MainDB\\Users\\Index\\NameIndex";
    for (const std::wstring& index : {domainIndex, machineIndex}) {
        SCOPED_TRACE(Narrow(index));
        WipeSuiteKeys();
        Write10(4, 1);
        ASSERT_TRUE(KeyExists(index.c_str(), kView32));
        ASSERT_TRUE(DeleteTree(index.c_str(), kView32));
        const RegTree before = Snapshot(kDbPath, kView32);
        const ProcessRun check = Nvdbconv(L"check");
        EXPECT_EQ(4u, check.exitCode) << check.out;
        const std::string path = "HKLM\\" + Narrow(index);
        EXPECT_TRUE(Contains(check.out, Row("name index", "missing: " + path))) << check.out;
        const std::string verdict = "the 1.0 -> 2.0 step would fail: the name index " + path +
                                    " is missing (0x80070002); the stores before it would be rewritten "
                                    "already, and \"Version\" would stay 1.0 with the backup kept";
        EXPECT_TRUE(Contains(check.out, Row("verdict", verdict))) << check.out;
        EXPECT_EQ("nvdbconv: " + verdict + "\n", check.err);
        EXPECT_EQ(path, Json(Nvdbconv(L"--json check"))["missingNameIndex"].Text());
        const RegTree after = Snapshot(kDbPath, kView32);
        EXPECT_TRUE(before == after) << DiffTrees(before, after);
        // And so it does.
        const ProcessRun convert = Nvdbconv(L"convert");
        EXPECT_EQ(1u, convert.exitCode);
        EXPECT_EQ(0u, convert.err.find("nvdbconv: Convert failed: 0x80070002 ")) << convert.err;
    }
}

// Convert's answers before any backup: after them convert says nothing of a backup,
// which may be another process's.
TEST(NvdbconvResultTest, ConvertMadeNoBackupOnlyWhenBusyWithoutAStepOrNotAllowed)
{
    EXPECT_TRUE(nvdbconv::ConvertMadeNoBackup(static_cast<HRESULT>(0x800700AAL))); // NV_E_CONVERSION_BUSY
    EXPECT_TRUE(nvdbconv::ConvertMadeNoBackup(E_FAIL));
    EXPECT_TRUE(nvdbconv::ConvertMadeNoBackup(E_ACCESSDENIED));
    EXPECT_FALSE(nvdbconv::ConvertMadeNoBackup(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)));
    EXPECT_FALSE(nvdbconv::ConvertMadeNoBackup(HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY)));
    EXPECT_FALSE(nvdbconv::ConvertMadeNoBackup(E_POINTER));
}
