// nvdbgen, run as its own process: usage errors, the summary, the database it writes
// (the same, value by value, as the writer library's for the same options), views,
// --wipe, and format 2.0 from the 2.0 writer.
#include <windows.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <string>

#include "support/dll_loader.h"
#include "support/key_containers.h"
#include "support/legacy_db_tree.h"
#include "support/process_runner.h"
#include "support/registry_sandbox.h"
#include "support/db_paths.h"
#include "support/text_util.h"
#include "support/tool_runs.h"
#include "support/sample_databases.h"
#include "writer/db20_writer.h"
#include "writer/legacy_writer.h"

using namespace nvtest;

namespace {


// nvdbgen started as its own process through the shared runner, which starts again a
// launch that Wine failed before the program ran.
ProcessRun Nvdbgen(const std::wstring& args) { return RunTool(L"nvdbgen.exe", args, 60000); }

// What the writer library writes for the same options (written again over the
// tool's database) has the keys, value names and value types the tool wrote. Sealed
// values carry fresh session keys, so their bytes differ.
void ExpectLayoutOfTheWriter(nvwriter::DbOptions options, const RegTree& fromTool)
{
    options.wipe = true;
    nvwriter::DbRecord record;
    ASSERT_EQ(S_OK, nvwriter::WriteDatabase(options, &record));
    const RegTree expected = ToRegTree(record);
    EXPECT_EQ(expected.keys, fromTool.keys);
    ASSERT_EQ(expected.values.size(), fromTool.values.size());
    for (auto e = expected.values.begin(), t = fromTool.values.begin(); e != expected.values.end(); ++e, ++t) {
        EXPECT_EQ(Narrow(e->first), Narrow(t->first));
        EXPECT_EQ(e->second.type, t->second.type) << Narrow(e->first);
    }
}

} // namespace

class NvDbGenTest : public RegistrySandbox {};

TEST_F(NvDbGenTest, UsageErrorsExitWith2AndExplainWithoutWriting)
{
    struct Case {
        const wchar_t* args;
        const char* message;
    } cases[] = {
        {L"", "--format is required"},
        {L"--users 5", "--format is required"},
        {L"--format 3.0", "--format must be 1.0 or 2.0, not '3.0'"},
        {L"--format", "--format needs a value"},
        {L"--format 1.0 --users", "--users needs a value"},
        {L"--format 1.0 --users ten", "--users takes a number from 0 to 1000000, not 'ten'"},
        {L"--format 1.0 --users -3", "--users takes a number from 0 to 1000000, not '-3'"},
        {L"--format 1.0 --domains 10001", "--domains takes a number from 0 to 10000, not '10001'"},
        {L"--format 1.0 --seed 1x", "--seed takes an unsigned 64-bit number, not '1x'"},
        {L"--format 1.0 --view 16", "--view must be 32 or 64, not '16'"},
        {L"--format 1.0 --frobnicate", "unknown option '--frobnicate'"},
        {L"--format 1.0 --users20 x", "--users20 takes a number from 0 to 1000000, not 'x'"},
        {L"--format 2.0 --users20 3", "--users20 goes with --format 1.0 (a 2.0 database takes --users)"},
        {L"--format 1.0 --users 2 --users20 5", "--users20 5 is more than --users 2"},
        {L"--format 1.0 --users20 13", "--users20 13 is more than --users 12"},
    };
    for (const Case& c : cases) {
        ProcessRun run = Nvdbgen(c.args);
        EXPECT_EQ(2u, run.exitCode) << Narrow(c.args);
        EXPECT_TRUE(Contains(run.err, std::string("nvdbgen: ") + c.message)) << Narrow(c.args) << "\n" << run.err;
        EXPECT_TRUE(Contains(run.err, "usage: nvdbgen --format 1.0|2.0")) << Narrow(c.args);
        EXPECT_EQ("", run.out) << Narrow(c.args);
    }
    EXPECT_FALSE(KeyExists(kDbPath, kView32));
    EXPECT_FALSE(KeyExists(kDbPath, kView64));
}

TEST_F(NvDbGenTest, HelpPrintsUsageAndExits0)
{
    ProcessRun run = Nvdbgen(L"--help");
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_TRUE(Contains(run.out, "usage: nvdbgen --format 1.0|2.0")) << run.out;
    EXPECT_FALSE(KeyExists(kDbPath, kView32));
}

TEST_F(NvDbGenTest, Format10WritesWhatTheWriterLibraryWritesForTheSameSeed)
{
    ProcessRun run = Nvdbgen(L"--format 1.0 --users 30 --domains 3 --seed 7 --view 32");
    ASSERT_EQ(0u, run.exitCode) << run.err;
    RegTree fromTool = Snapshot(kDbPath, kView32);
    EXPECT_FALSE(KeyExists(kDbPath, kView64));

    nvwriter::DbOptions options = WriterOptions(nvwriter::DbFormat::V10, 30, 3, 7);
    options.wipe = true;
    nvwriter::DbRecord record;
    ASSERT_EQ(S_OK, nvwriter::WriteDatabase(options, &record));
    RegTree expected = ToRegTree(record);
    EXPECT_TRUE(expected == fromTool) << DiffTrees(expected, fromTool);

    size_t slashed = 0;
    for (const auto& u : record.users)
        slashed += u.trailingSlash ? 1 : 0;
    std::string stores = " (machine)";
    for (size_t i = 1; i < record.stores.size(); ++i)
        stores += " " + Narrow(record.stores[i].name);
    const std::string summary =
        "nvdbgen: wrote a format 1.0 database to HKLM\\SOFTWARE\\Norvane\\DB (32-bit view), seed 7\n"
        "  users: 30 (" + std::to_string(slashed) + " names ending in '/')\n"
        "  stores:" + stores + "\n"
        "  keys: " + std::to_string(record.keys.size()) + ", values: " + std::to_string(record.ValueCount()) + "\n";
    std::string out = run.out;
    out.erase(std::remove(out.begin(), out.end(), '\r'), out.end());
    EXPECT_EQ(summary, out);
    EXPECT_EQ("", run.err);
}

TEST_F(NvDbGenTest, ExistingDatabaseNeedsWipe)
{
    ASSERT_EQ(0u, Nvdbgen(L"--format 1.0 --users 4 --domains 1 --seed 1").exitCode);
    RegTree first = Snapshot(kDbPath, kView32);

    ProcessRun again = Nvdbgen(L"--format 1.0 --users 9 --domains 2 --seed 2");
    EXPECT_EQ(1u, again.exitCode);
    EXPECT_TRUE(Contains(again.err, "already exists in the 32-bit view; use --wipe")) << again.err;
    RegTree unchanged = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(first == unchanged) << DiffTrees(first, unchanged);

    ProcessRun wiped = Nvdbgen(L"--format 1.0 --users 9 --domains 2 --seed 2 --wipe");
    EXPECT_EQ(0u, wiped.exitCode) << wiped.err;
    nvwriter::DbOptions options = WriterOptions(nvwriter::DbFormat::V10, 9, 2, 2);
    options.wipe = true;
    nvwriter::DbRecord record;
    ASSERT_EQ(S_OK, nvwriter::WriteDatabase(options, &record));
    EXPECT_TRUE(RegistryHoldsRecord(record, kView32));
}

TEST_F(NvDbGenTest, View64WritesThe64BitViewOnly)
{
    ProcessRun run = Nvdbgen(L"--format 1.0 --users 3 --domains 1 --view 64");
    ASSERT_EQ(0u, run.exitCode) << run.err;
    EXPECT_TRUE(Contains(run.out, "(64-bit view)")) << run.out;
    EXPECT_FALSE(KeyExists(kDbPath, kView32));
    std::wstring version;
    ASSERT_TRUE(GetString(kDbPath, L"Version", kView64, &version));
    EXPECT_EQ(L"1.0", version);
}

TEST_F(NvDbGenTest, Format20WritesTheSameLayoutAsTheWriterLibraryForTheSameSeed)
{
    const nvwriter::DbOptions options = WriterOptions(nvwriter::DbFormat::V20, 5, 1, 9);
    ContainerJanitor containers;
    const nvwriter::Db20Database model = TrackedModel20(containers, options);

    ProcessRun run = Nvdbgen(L"--format 2.0 --users 5 --domains 1 --seed 9");
    ASSERT_EQ(0u, run.exitCode) << run.err;
    EXPECT_TRUE(Contains(run.out, "nvdbgen: wrote a format 2.0 database to HKLM\\SOFTWARE\\Norvane\\DB (32-bit view), seed 9"))
        << run.out;
    EXPECT_TRUE(Contains(run.out, "  host: " + Narrow(nvwriter::GuidText(model.hostId)))) << run.out;
    EXPECT_TRUE(ContainerExists(model.hostId));
    const RegTree fromTool = Snapshot(kDbPath, kView32);
    EXPECT_FALSE(KeyExists(kDbPath, kView64));

    ASSERT_NO_FATAL_FAILURE(ExpectLayoutOfTheWriter(options, fromTool));
    std::wstring version;
    ASSERT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    EXPECT_EQ(L"2.0", version);
    EXPECT_EQ(5u, SubkeyNames(L"SOFTWARE\\Norvane\\DB\\Data\\Users", kView32).size());
}

TEST_F(NvDbGenTest, Users20AddsSealedUsersToA10DatabaseLikeTheWriterLibrary)
{
    const nvwriter::DbOptions options = WriterOptions(nvwriter::DbFormat::V10, 6, 2, 11, 4);
    ContainerJanitor containers;
    const nvwriter::Db20Database model = TrackedModel20(containers, options);

    ProcessRun run = Nvdbgen(L"--format 1.0 --users 6 --domains 2 --users20 4 --seed 11");
    ASSERT_EQ(0u, run.exitCode) << run.err;
    run.out.erase(std::remove(run.out.begin(), run.out.end(), '\r'), run.out.end());
    EXPECT_TRUE(Contains(run.out, "nvdbgen: wrote a format 1.0 database to HKLM\\SOFTWARE\\Norvane\\DB (32-bit view), seed 11"))
        << run.out;
    EXPECT_TRUE(Contains(run.out, "  2.0-style users: 4 with sealed records under Data\\Users\n")) << run.out;
    EXPECT_TRUE(Contains(run.out, "  host: " + Narrow(nvwriter::GuidText(model.hostId)))) << run.out;
    EXPECT_TRUE(ContainerExists(model.hostId));
    const RegTree fromTool = Snapshot(kDbPath, kView32);

    ASSERT_NO_FATAL_FAILURE(ExpectLayoutOfTheWriter(options, fromTool));
    std::wstring version;
    ASSERT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    EXPECT_EQ(L"1.0", version);
    std::vector<std::wstring> guids;
    for (const auto& user : model.users)
        guids.push_back(nvwriter::GuidText(user.guid));
    std::sort(guids.begin(), guids.end());
    EXPECT_EQ(guids, SubkeyNames(L"SOFTWARE\\Norvane\\DB\\Data\\Users", kView32));
}
