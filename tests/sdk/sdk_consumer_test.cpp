// The out-of-tree hosts of examples/sdk-consumer, built against the installed SDK
// (sdk.ConsumerBuildsAgainstTheInstalledPackage), run as processes under Wine with
// the installed NVDBConv.dll beside them: convert_step (linked through the import
// library) takes a 1.0 database to 3.0 in one run per step, upgrade_all (C, one
// library load per step) in one run, and a run on the converted database changes
// nothing in the registry.
#include <windows.h>
#include <gtest/gtest.h>
#include <string>

#include "support/key_containers.h"
#include "support/process_runner.h"
#include "support/registry_sandbox.h"
#include "support/store_sandbox.h"
#include "support/db_paths.h"
#include "writer/db20_writer.h"
#include "writer/legacy_writer.h"

using namespace nvtest;

namespace {

constexpr const wchar_t kBackup10[] = L"SOFTWARE\\Norvane\\DB-v1.0";
constexpr const wchar_t kStoreUsers[] = L"SOFTWARE\\Norvane\\Store\\Users";
constexpr unsigned kUsers = 3;

// The consumer's build folder (a Unix path from the build), as Wine shows it.
std::wstring ConsumerDir()
{
    std::wstring dir = L"Z:" + std::wstring(NV_SDK_CONSUMER_DIR);
    for (wchar_t& c : dir)
        if (c == L'/')
            c = L'\\';
    return dir + L"\\";
}

struct ConsumerRun {
    DWORD exitCode = 0;
    std::string out, err;
};

ConsumerRun Consumer(const std::wstring& program, const std::wstring& args = L"")
{
    const std::wstring exe = ConsumerDir() + program;
    EXPECT_NE(INVALID_FILE_ATTRIBUTES, ::GetFileAttributesW(exe.c_str())) << Narrow(exe);
    const ProcessRun run = RunProcess(QuoteArg(exe) + (args.empty() ? L"" : L" " + args), 120000);
    EXPECT_TRUE(run.started) << Narrow(exe) << ": error " << run.startError;
    EXPECT_FALSE(run.timedOut) << Narrow(exe);
    return {run.exitCode, WithoutCarriageReturns(run.out), WithoutCarriageReturns(run.err)};
}

// A 1.0 database whose users also carry sealed 2.0 records: the whole chain.
void Write10With20Users(ContainerJanitor& containers)
{
    nvwriter::DbOptions options;
    options.users = kUsers;
    options.domains = 1;
    options.users20 = kUsers;
    options.wipe = true;
    containers.Track(nvwriter::MakeDb20Database(nvwriter::Db20OptionsFrom(options)).hostId);
    nvwriter::DbRecord record;
    ASSERT_EQ(S_OK, nvwriter::WriteDatabase(options, &record));
}

// After the 1.0 -> 2.0 step: "Version" 2.0, the users' 2.0 records still there,
// and neither "Backup" nor the 1.0 backup key left.
void ExpectFormat20(int line)
{
    SCOPED_TRACE(line);
    std::wstring version, backup;
    EXPECT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    EXPECT_EQ(L"2.0", version);
    EXPECT_EQ(kUsers, SubkeyNames(L"SOFTWARE\\Norvane\\DB\\Data\\Users", kView32).size());
    EXPECT_FALSE(GetString(kDbPath, L"Backup", kView32, &backup)) << Narrow(backup);
    EXPECT_FALSE(KeyExists(kBackup10, kView32));
    EXPECT_FALSE(KeyExists(kBackup10, kView64));
}

// After the 2.0 -> 3.0 step: no Data and no MainDB, every user in the store, and
// neither "Backup" nor the 2.0 backup key left.
void ExpectFormat30(int line)
{
    SCOPED_TRACE(line);
    std::wstring version, backup;
    EXPECT_TRUE(KeyExists(kDbPath, kView32));
    EXPECT_FALSE(KeyExists(kDataPath, kView32));
    EXPECT_FALSE(KeyExists(kMainDbPath, kView32));
    EXPECT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    EXPECT_EQ(L"2.1", version); // as the format leaves it: the layout tells "converted"
    EXPECT_EQ(kUsers, SubkeyNames(kStoreUsers, kView64).size());
    EXPECT_FALSE(GetString(kDbPath, L"Backup", kView32, &backup)) << Narrow(backup);
    EXPECT_FALSE(KeyExists(kBackup20Path, kView64));
    EXPECT_FALSE(KeyExists(kBackup20Path, kView32));
}

} // namespace

class SdkConsumerTest : public StoreSandbox {};

TEST_F(SdkConsumerTest, ConvertStepThroughTheImportLibraryTakes10To30OneRunPerStep)
{
    ContainerJanitor containers;
    Write10With20Users(containers);

    ConsumerRun run = Consumer(L"convert_step.exe");
    EXPECT_EQ(0u, run.exitCode) << run.out << run.err;
    EXPECT_EQ("1.0 -> 2.0: 0x00000000\n", run.out);
    EXPECT_EQ("", run.err);
    ExpectFormat20(__LINE__);

    run = Consumer(L"convert_step.exe");
    EXPECT_EQ(0u, run.exitCode) << run.out << run.err;
    EXPECT_EQ("2.0 -> 3.0: 0x00000000\n", run.out);
    EXPECT_EQ("", run.err);
    ExpectFormat30(__LINE__);

    // A repair or re-install: the layout says converted, Convert is not called.
    const SuiteSnapshot before = SnapshotSuite();
    run = Consumer(L"convert_step.exe");
    EXPECT_EQ(0u, run.exitCode) << run.out << run.err;
    EXPECT_EQ("converted: format 3.0\n", run.out);
    ExpectSuiteUnchanged(before, __LINE__);
}

TEST_F(SdkConsumerTest, UpgradeAllInCLoadsTheLibraryOncePerStepAndReaches30InOneRun)
{
    ContainerJanitor containers;
    Write10With20Users(containers);
    const std::wstring dll = QuoteArg(ConsumerDir() + L"NVDBConv.dll");

    ConsumerRun run = Consumer(L"upgrade_all.exe", dll);
    EXPECT_EQ(0u, run.exitCode) << run.out << run.err;
    EXPECT_EQ("1.0 -> 2.0: 0x00000000\n2.0 -> 3.0: 0x00000000\nconverted: format 3.0\n", run.out);
    EXPECT_EQ("", run.err);
    ExpectFormat30(__LINE__);

    const SuiteSnapshot before = SnapshotSuite();
    run = Consumer(L"upgrade_all.exe", dll);
    EXPECT_EQ(0u, run.exitCode) << run.out << run.err;
    EXPECT_EQ("converted: format 3.0\n", run.out);
    ExpectSuiteUnchanged(before, __LINE__);
}

TEST_F(SdkConsumerTest, UpgradeAllWithoutADatabaseHasNothingToConvertAndWritesNothing)
{
    const SuiteSnapshot before = SnapshotSuite();
    const ConsumerRun run = Consumer(L"upgrade_all.exe", QuoteArg(ConsumerDir() + L"NVDBConv.dll"));
    EXPECT_EQ(0u, run.exitCode) << run.out << run.err;
    EXPECT_EQ("nothing to convert\n", run.out);
    ExpectSuiteUnchanged(before, __LINE__);
}

TEST_F(SdkConsumerTest, UpgradeAllWithALibraryThatIsNotThereExitsTwo)
{
    const ConsumerRun run = Consumer(L"upgrade_all.exe", QuoteArg(ConsumerDir() + L"missing\\NVDBConv.dll"));
    EXPECT_EQ(2u, run.exitCode) << run.out << run.err;
    EXPECT_EQ("", run.out);
}

// The same program linked by GNU ld through the MSVC-format NVDBConv.lib.
TEST_F(SdkConsumerTest, ConvertStepThroughTheMsvcImportLibraryTakesTheFirstStep)
{
    ContainerJanitor containers;
    Write10With20Users(containers);
    const ConsumerRun run = Consumer(L"convert_step_msvclib.exe");
    EXPECT_EQ(0u, run.exitCode) << run.out << run.err;
    EXPECT_EQ("1.0 -> 2.0: 0x00000000\n", run.out);
    EXPECT_EQ("", run.err);
    ExpectFormat20(__LINE__);
}
