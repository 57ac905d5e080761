// nvdbconv's honest outcomes, run as processes under Wine: a 2.0 -> 3.0 step that
// would move nobody is refused unless forced; a forced one that leaves users behind
// exits 4 and names every user with the status the trace gives it; `upgrade` chains
// 1.0 -> 2.0 -> 3.0 in child processes; `check` says which users would fail and
// changes nothing in the registry; nvtrace --summary and --json read the trace that
// the library wrote during the run.
#include <windows.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "common/storecontract.h"
#include "nvdbconv/result_codes.h"
#include "nvstore_inspect.h"
#include "nvtracelib.h"
#include "summary.h"
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

ProcessRun Nvdbconv(const std::wstring& args) { return RunTool(L"nvdbconv.exe", args); }

// nvdbconv run with these arguments, which must exit with that code.
ProcessRun NvdbconvExits(DWORD exitCode, const std::wstring& args)
{
    ProcessRun run = Nvdbconv(args);
    EXPECT_EQ(exitCode, run.exitCode) << "nvdbconv " << Narrow(args) << "\n" << run.out << run.err;
    return run;
}

// nvdbconv's JSON document for these arguments, with which it must exit with that code.
JsonValue NvdbconvJson(DWORD exitCode, const std::wstring& args) { return Json(NvdbconvExits(exitCode, args)); }

std::wstring TraceFile() { return TempTraceFile(L"nvdbconv-outcome-"); }

// The records of the trace file, a JSON line each, as nvtrace --json gives them.
std::vector<std::string> TraceJsonLines()
{
    const ProcessRun lines = RunTool(L"nvtrace.exe", L"--json " + QuoteArg(TraceFile()));
    EXPECT_EQ(0u, lines.exitCode) << lines.err;
    return SplitLines(WithoutCarriageReturns(lines.out));
}

// The container is tracked (which deletes any old one) before the writer makes it.
nvwriter::Db20Database Write20(ContainerJanitor& containers, unsigned users,
                               std::vector<std::pair<unsigned, nvwriter::Db20Defect>> defects = {})
{
    return WriteTracked20(containers, users, 1616, std::move(defects));
}

// Wine keeps machine key containers in the registry (Wine\Crypto\RSA\<name>) and
// its provider stores the key pair again, freshly protected and of the same size,
// whenever a context on the container is released, even one that only read. That
// is the provider's own storage (files, on Windows), not a write of the caller's:
// such values are compared by type and size, everything else byte for byte.
RegTree WithoutProviderStorage(RegTree tree, std::map<std::wstring, std::pair<DWORD, size_t>>* provider)
{
    const std::wstring prefix = L"Wine\\Crypto\\RSA\\";
    for (auto it = tree.values.begin(); it != tree.values.end();) {
        if (it->first.compare(0, prefix.size(), prefix) == 0) {
            (*provider)[it->first] = {it->second.type, it->second.data.size()};
            it = tree.values.erase(it);
        } else {
            ++it;
        }
    }
    return tree;
}

void ExpectUnchanged(const RegTree& before, const RegTree& after)
{
    std::map<std::wstring, std::pair<DWORD, size_t>> providerBefore, providerAfter;
    const RegTree b = WithoutProviderStorage(before, &providerBefore);
    const RegTree a = WithoutProviderStorage(after, &providerAfter);
    EXPECT_TRUE(b == a) << DiffTrees(b, a);
    EXPECT_EQ(providerBefore, providerAfter);
}

std::vector<std::wstring> UserKeyNames()
{
    std::vector<std::wstring> names = SubkeyNames(kDataUsersPath, kView32);
    return names;
}

} // namespace

class NvdbconvOutcomeTest : public StoreSandbox {
protected:
    void TearDown() override
    {
        ::DeleteFileW(TraceFile().c_str());
        StoreSandbox::TearDown();
    }
};

TEST_F(NvdbconvOutcomeTest, WithoutTheStoreConvertRefusesAndChangesNothing)
{
    ContainerJanitor containers;
    const nvwriter::Db20Database db = Write20(containers, 3);
    ASSERT_TRUE(DeleteTree(StoreClassKey().c_str(), kView64));
    const RegTree before = Snapshot(kDbPath, kView32);

    ProcessRun run = NvdbconvExits(3, L"convert");
    EXPECT_TRUE(Contains(run.err, "nvdbconv: refusing to convert 2.0 -> 3.0: the storage server is not registered.\n"))
        << run.err;
    EXPECT_TRUE(Contains(run.err, "none of the\n  3 users can be moved")) << run.err;
    EXPECT_FALSE(Contains(run.out, "Convert   ")) << run.out;

    run = Nvdbconv(L"--json upgrade");
    EXPECT_EQ(3u, run.exitCode) << run.out << run.err;
    const JsonValue doc = Json(run);
    EXPECT_TRUE(doc["refused"].Bool());
    EXPECT_FALSE(doc["storeRegistered"].Bool());
    EXPECT_EQ(3, doc["exitCode"].Int());

    const RegTree after = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(before == after) << DiffTrees(before, after);
}

TEST_F(NvdbconvOutcomeTest, ForcedWithoutTheStoreExits4AndNamesEveryUserWithItsTraceStatus)
{
    ContainerJanitor containers;
    const nvwriter::Db20Database db = Write20(containers, 3);
    ASSERT_TRUE(DeleteTree(StoreClassKey().c_str(), kView64));
    const std::vector<std::wstring> keys = UserKeyNames();
    ASSERT_EQ(3u, keys.size());
    ASSERT_EQ(0u, Nvdbconv(L"trace on --new-file --file " + QuoteArg(TraceFile())).exitCode);

    const JsonValue doc = NvdbconvJson(4, L"--json convert --force");
    EXPECT_EQ("0x00000000", doc["convert"]["hr"].Text());
    EXPECT_TRUE(doc["usersRemained"].Bool());
    EXPECT_EQ(4, doc["exitCode"].Int());
    ASSERT_EQ(3u, doc["remaining"].Size());
    std::vector<std::string> sids;
    for (size_t i = 0; i < 3; ++i) {
        const JsonValue& u = doc["remaining"][i];
        EXPECT_EQ(Narrow(keys[i]), u["key"].Text());
        sids.push_back(u["sid"].Text());
        // The store's objects could not be created: a null pointer, per user.
        EXPECT_EQ("0x80004003", u["status"]["hr"].Text()) << u["sid"].Text();
        EXPECT_EQ("E_POINTER", u["status"]["symbol"].Text());
    }
    std::vector<std::string> expected;
    for (const auto& user : db.users)
        expected.push_back(Narrow(user.sidText));
    std::sort(sids.begin(), sids.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, sids);

    // The trace the library wrote tells the same story to a support engineer.
    const ProcessRun summary = RunTool(L"nvtrace.exe", L"--summary " + QuoteArg(TraceFile()));
    EXPECT_EQ(0u, summary.exitCode) << summary.err;
    const std::string text = WithoutCarriageReturns(summary.out);
    EXPECT_TRUE(Contains(text, "users (2.0 -> 3.0): 3, 0 moved, 3 kept their old data\n")) << text;
    for (const std::string& sid : expected)
        EXPECT_TRUE(Contains(text, "  " + sid + "  0x80004003  kept its old data: E_POINTER")) << text;
    EXPECT_TRUE(Contains(text, "processes: 1\n  process 1, started ")) << text;
    EXPECT_TRUE(Contains(text, "slowest scopes (total time):\n")) << text;
    EXPECT_TRUE(Contains(text, "CBaseConverter::Convert\n")) << text;

    size_t records = 0, overLines = 0;
    for (const std::string& line : TraceJsonLines()) {
        JsonValue record;
        std::string error;
        EXPECT_TRUE(ParseJson(line, &record, &error)) << error;
        ++records;
        if (record["kind"].Text() == "U" && record["text"].Text().rfind("Conversion process is over for '", 0) == 0)
            ++overLines;
    }
    EXPECT_GT(records, 20u);
    EXPECT_EQ(3u, overLines);
}

TEST_F(NvdbconvOutcomeTest, UpgradeChains10To20To30InChildProcesses)
{
    ContainerJanitor containers;
    ASSERT_EQ(S_OK, Write10With20Records(containers, 5, 5));

    const ProcessRun run = NvdbconvExits(0, L"upgrade");
    const std::string out = WithoutCarriageReturns(run.out);
    EXPECT_TRUE(Contains(out, "  step 1: 1.0 -> 2.0, Convert " + kSucceeded + ", exit 0\n")) << out;
    EXPECT_TRUE(Contains(out, "  step 2: 2.0 -> 3.0, Convert " + kSucceeded + ", exit 0\n"
                              "    users: 5 of 5 moved into the store\n"))
        << out;
    EXPECT_TRUE(Contains(out, "  upgrade         1.0 -> 2.0 -> 3.0 done, 5 of 5 users in the store\n")) << out;
    EXPECT_EQ(5u, nvstore::inspect::ListUsers().size());
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB\\Data", kView32));
}

TEST_F(NvdbconvOutcomeTest, UpgradeJsonCarriesEveryStepsOwnDocument)
{
    ContainerJanitor containers;
    const nvwriter::Db20Database db = Write20(containers, 2);
    const JsonValue doc = NvdbconvJson(0, L"--json upgrade");
    EXPECT_EQ("2.0 -> 3.0", doc["chain"].Text());
    EXPECT_EQ("2.0 -> 3.0 done, 2 of 2 users in the store", doc["summary"].Text());
    ASSERT_EQ(1u, doc["steps"].Size());
    const JsonValue& step = doc["steps"][0];
    EXPECT_EQ("2.0", step["from"].Text());
    EXPECT_EQ("3.0", step["to"].Text());
    EXPECT_EQ(0, step["exitCode"].Int());
    EXPECT_EQ("convert", step["child"]["command"].Text());
    EXPECT_EQ("0x00000000", step["child"]["convert"]["hr"].Text());
    EXPECT_FALSE(step["child"]["usersRemained"].Bool());
    EXPECT_EQ(0u, step["child"]["remaining"].Size());
    EXPECT_EQ(2, doc["users"]["total"].Int());
    EXPECT_EQ(0, doc["users"]["left"].Int());
}

TEST_F(NvdbconvOutcomeTest, CheckNamesTheUserWhoWouldFailAndWritesNothing)
{
    ContainerJanitor containers;
    const nvwriter::Db20Database db = Write20(containers, 3, {{1, nvwriter::Db20Defect::TextType2}});
    const RegTree before32 = Snapshot(L"SOFTWARE", kView32);
    const RegTree before64 = Snapshot(L"SOFTWARE", kView64);

    ProcessRun run = NvdbconvExits(4, L"--json check");
    const JsonValue doc = Json(run);
    EXPECT_TRUE(doc["hostContainer"]["opens"].Bool());
    EXPECT_TRUE(doc["storeServer"]["registered"].Bool());
    EXPECT_EQ(1, doc["wouldFail"].Int());
    EXPECT_EQ("1 of 3 users would not convert and would keep their old data", doc["verdict"].Text());
    ASSERT_EQ(3u, doc["users"].Size());
    size_t good = 0;
    for (size_t i = 0; i < 3; ++i) {
        const JsonValue& u = doc["users"][i];
        if (u["wouldConvert"].Bool()) {
            ++good;
            EXPECT_TRUE(u["unseals"].Bool());
            EXPECT_GT(u["secrets"].Int(), 0);
            EXPECT_TRUE(u["passwordSecret"].Bool());
            EXPECT_TRUE(u["passwordOpens"].Bool());
        } else {
            EXPECT_TRUE(u["sid"].IsNull());
            EXPECT_TRUE(Contains(u["reason"].Text(), "does not unseal or parse")) << u["reason"].Text();
        }
    }
    EXPECT_EQ(2u, good);

    run = Nvdbconv(L"check");
    EXPECT_EQ(4u, run.exitCode);
    EXPECT_TRUE(Contains(run.out, "      would fail: its record does not unseal or parse")) << run.out;
    EXPECT_TRUE(Contains(run.err, "nvdbconv: 1 of 3 users would not convert")) << run.err;

    // Not a single value changed, in either view: "Version" is still "2.0".
    const RegTree after32 = Snapshot(L"SOFTWARE", kView32);
    const RegTree after64 = Snapshot(L"SOFTWARE", kView64);
    ExpectUnchanged(before32, after32);
    ExpectUnchanged(before64, after64);
    std::wstring version;
    EXPECT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    EXPECT_EQ(L"2.0", version);
}

TEST_F(NvdbconvOutcomeTest, CheckOfAHealthyDatabaseExits0)
{
    ContainerJanitor containers;
    const nvwriter::Db20Database db = Write20(containers, 2);
    const ProcessRun run = NvdbconvExits(0, L"check");
    EXPECT_TRUE(Contains(run.out, "  verdict         all 2 users would convert\n")) << run.out;
    EXPECT_EQ("", run.err);
}

// ---- gaps under the default policy, held users under the strict one --------------

namespace {

constexpr const wchar_t kPasswordSecret[] = L"SystemLogonInfo";

// What the library traces and nvdbconv and nvtrace show for a user whose password
// secret the store refused (E_FAIL, the store's default failure).
const std::string kPasswordGap = "secret not stored 'SystemLogonInfo' (0x80004005)";

std::vector<std::string> SortedSids(const nvwriter::Db20Database& db)
{
    std::vector<std::string> sids;
    for (const auto& user : db.users)
        sids.push_back(Narrow(user.sidText));
    std::sort(sids.begin(), sids.end());
    return sids;
}

// The "U" records of the trace file, as nvtrace --json gives them.
std::vector<std::string> TraceUserLines()
{
    std::vector<std::string> texts;
    for (const std::string& line : TraceJsonLines()) {
        JsonValue record;
        std::string error;
        if (ParseJson(line, &record, &error) && record["kind"].Text() == "U")
            texts.push_back(record["text"].Text());
    }
    return texts;
}

} // namespace

class NvdbconvGapsTest : public NvdbconvOutcomeTest {
protected:
    void TracingOn() { ASSERT_EQ(0u, Nvdbconv(L"trace on --new-file --file " + QuoteArg(TraceFile())).exitCode); }

    // A 2.0 database of that many users, tracing on, and a store that refuses every
    // password secret.
    nvwriter::Db20Database WritePasswordsRefused(ContainerJanitor& containers, unsigned users)
    {
        nvwriter::Db20Database db = Write20(containers, users);
        TracingOn();
        nvstore::inspect::SetFailPutSecret({kPasswordSecret});
        return db;
    }
};

// The default policy moves a user whose password secret the store refused, as the
// format has it; the library traces what the user moved without, nvtrace's summary
// and nvdbconv name it, and convert exits 4.
TEST_F(NvdbconvGapsTest, ConvertNamesWhatDidNotReachTheStoreAndExits4)
{
    ContainerJanitor containers;
    const nvwriter::Db20Database db = WritePasswordsRefused(containers, 3);

    const ProcessRun run = NvdbconvExits(4, L"convert");
    const std::string out = WithoutCarriageReturns(run.out);
    EXPECT_TRUE(Contains(out, "  Convert         " + kSucceeded + "\n")) << out;
    EXPECT_TRUE(Contains(out, "  moved with gaps 3 of 3 users: parts of them did not reach the store (Convert "
                              "answered S_OK)\n"))
        << out;
    for (const std::string& sid : SortedSids(db))
        EXPECT_TRUE(Contains(out, "    " + sid + "  " + kPasswordGap + "\n")) << out;
    EXPECT_FALSE(Contains(out, "kept old data")) << out;
    EXPECT_EQ("nvdbconv: 3 of 3 users moved with gaps: parts of them did not reach the store (exit code 4)\n",
              WithoutCarriageReturns(run.err));
    // Moved as the format has it: no user key left, no held user.
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB\\Data", kView32));
    EXPECT_EQ(3u, nvstore::inspect::ListUsers().size());
    for (const auto& user : db.users)
        EXPECT_EQ(0u, nvstore::inspect::ListSecrets(user.sidText).count(kPasswordSecret)) << Narrow(user.sidText);

    // The library's own lines, in the strict policy's words.
    const std::vector<std::string> lines = TraceUserLines();
    for (const std::string& sid : SortedSids(db))
        EXPECT_EQ(1, std::count(lines.begin(), lines.end(), "Incomplete user '" + sid + "' moved with gaps: " + kPasswordGap))
            << sid;
    for (const std::string& line : lines)
        EXPECT_FALSE(Contains(line, "keeps its old key")) << line;

    const ProcessRun summary = RunTool(L"nvtrace.exe", L"--summary " + QuoteArg(TraceFile()));
    EXPECT_EQ(0u, summary.exitCode) << summary.err;
    const std::string text = WithoutCarriageReturns(summary.out);
    EXPECT_TRUE(Contains(text, "users (2.0 -> 3.0): 3, 3 moved (3 with gaps), 0 kept their old data\n")) << text;
    for (const std::string& sid : SortedSids(db))
        EXPECT_TRUE(Contains(text, "  " + sid + "  0x00000000  moved with gaps: " + kPasswordGap + "\n")) << text;
}

TEST_F(NvdbconvGapsTest, ConvertJsonCarriesTheGaps)
{
    ContainerJanitor containers;
    const nvwriter::Db20Database db = WritePasswordsRefused(containers, 2);

    const JsonValue doc = NvdbconvJson(4, L"--json convert");
    EXPECT_TRUE(doc["gapsTraced"].Bool());
    EXPECT_TRUE(doc["movedWithGaps"].Bool());
    EXPECT_FALSE(doc["usersRemained"].Bool());
    ASSERT_EQ(2u, doc["gaps"].Size());
    std::vector<std::string> sids;
    for (size_t i = 0; i < 2; ++i) {
        sids.push_back(doc["gaps"][i]["sid"].Text());
        EXPECT_EQ(kPasswordGap, doc["gaps"][i]["missing"].Text());
    }
    std::sort(sids.begin(), sids.end());
    EXPECT_EQ(SortedSids(db), sids);
    EXPECT_EQ(4, doc["exitCode"].Int());
}

// A whole conversion is no gap: exit 0, nothing named.
TEST_F(NvdbconvGapsTest, AWholeConversionHasNoGapsAndExits0)
{
    ContainerJanitor containers;
    Write20(containers, 2);
    TracingOn();
    const JsonValue doc = NvdbconvJson(0, L"--json convert");
    EXPECT_TRUE(doc["gapsTraced"].Bool());
    EXPECT_FALSE(doc["movedWithGaps"].Bool());
    EXPECT_EQ(0u, doc["gaps"].Size());
    for (const std::string& line : TraceUserLines())
        EXPECT_FALSE(Contains(line, "Incomplete user")) << line;
}

// Without a trace file the library's words cannot be read: convert says so rather
// than claim a whole conversion.
TEST_F(NvdbconvGapsTest, WithoutATraceConvertSaysGapsAreNotKnown)
{
    ContainerJanitor containers;
    Write20(containers, 1);
    nvstore::inspect::SetFailPutSecret({kPasswordSecret});
    const ProcessRun run = NvdbconvExits(0, L"convert");
    EXPECT_TRUE(Contains(WithoutCarriageReturns(run.out),
                         "  gaps            not known: the library names them only in its trace (nvdbconv trace on)\n"))
        << run.out;
}

TEST_F(NvdbconvGapsTest, UpgradeReportsMovedWithGapsNamesThemAndExits4)
{
    ContainerJanitor containers;
    const nvwriter::Db20Database db = WritePasswordsRefused(containers, 3);

    const ProcessRun run = NvdbconvExits(4, L"upgrade");
    const std::string out = WithoutCarriageReturns(run.out);
    EXPECT_TRUE(Contains(out, "  step 1: 2.0 -> 3.0, Convert " + kSucceeded + ", exit 4\n"
                              "    users: 3 of 3 moved into the store\n"))
        << out;
    for (const std::string& sid : SortedSids(db))
        EXPECT_TRUE(Contains(out, "    moved with gaps: " + sid + "  " + kPasswordGap + "\n")) << out;
    const std::string summary = "2.0 -> 3.0 done, 3 users moved with gaps, 3 of 3 users in the store";
    EXPECT_TRUE(Contains(out, "  upgrade         " + summary + "\n")) << out;
    EXPECT_EQ("nvdbconv: " + summary + " (exit code 4)\n", WithoutCarriageReturns(run.err));

    const ProcessRun json = Nvdbconv(L"--json upgrade");
    EXPECT_EQ(0u, json.exitCode) << json.out << json.err; // converted now: nothing to do
}

TEST_F(NvdbconvGapsTest, UpgradeJsonCarriesTheGaps)
{
    ContainerJanitor containers;
    const nvwriter::Db20Database db = WritePasswordsRefused(containers, 2);

    const JsonValue doc = NvdbconvJson(4, L"--json upgrade");
    EXPECT_EQ("2.0 -> 3.0 done, 2 users moved with gaps, 2 of 2 users in the store", doc["summary"].Text());
    ASSERT_EQ(2u, doc["gaps"].Size());
    EXPECT_EQ(kPasswordGap, doc["gaps"][0]["missing"].Text());
    EXPECT_EQ(0u, doc["stayed"].Size());
    EXPECT_TRUE(doc["steps"][0]["child"]["movedWithGaps"].Bool());
    EXPECT_EQ(4, doc["exitCode"].Int());
}

// Under the strict policy the same refusal holds the user: upgrade names the user
// who stayed (key, SID, status) and why.
TEST_F(NvdbconvGapsTest, UpgradeNamesTheUserTheStrictPolicyHeld)
{
    ContainerJanitor containers;
    const nvwriter::Db20Database db = Write20(containers, 2);
    TracingOn();
    SetDword(kPolicyDefaultPath, L"StrictConversion", 1, kView64);
    const nvwriter::Db20User& held = db.users[1];
    nvstore::inspect::SetFailOpenUser({held.sidText}, E_ACCESSDENIED);

    const ProcessRun run = NvdbconvExits(4, L"upgrade");
    const std::string out = WithoutCarriageReturns(run.out);
    EXPECT_TRUE(Contains(out, "    users: 1 of 2 moved into the store\n")) << out;
    const std::string line = "    kept old data: " + Narrow(nvwriter::GuidText(held.guid)) + "  " + Narrow(held.sidText) + "  " +
                             nvdbconv::DescribeResult(E_ACCESSDENIED) + " (held: conversion failed (0x80070005))\n";
    EXPECT_TRUE(Contains(out, line)) << out;
    // The database is still 2.0 (one user key left), so the chain stays there.
    const std::string summary = "2.0 stopped: 1 user kept their old data, 1 of 2 users in the store";
    EXPECT_TRUE(Contains(out, "  upgrade         " + summary + "\n")) << out;
    EXPECT_EQ("nvdbconv: " + summary + " (exit code 4)\n", WithoutCarriageReturns(run.err));
}
