// The crash window at the end of a conversion: Cleanup deletes the backup key and
// then the "Backup" value. A process killed between the two leaves "Backup" naming a
// key that is gone. Reached for real: nvfaults numbers the calls of a clean 2.0 -> 3.0
// conversion, then kills a second conversion from inside the hook of the "Backup"
// delete. Then, each as its own process: nvdbconv status explains the state,
// nvdbconv rollback refuses and changes nothing, nvdbconv convert finishes the job
// and nothing is lost.
#include <windows.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "fault_child_test.h"
#include "fault_hooks.h"
#include "fault_world.h"
#include "nvstore_inspect.h"
#include "pe_image.h"
#include "support/conversion_fixture.h"
#include "support/dll_loader.h"
#include "support/json_reader.h"
#include "support/process_runner.h"
#include "support/registry_sandbox.h"
#include "support/store_sandbox.h"
#include "support/text_util.h"
#include "support/tool_runs.h"
#include "writer/db20_writer.h"

using namespace nvtest;
namespace inspect = nvstore::inspect;

namespace {

constexpr wchar_t kBackupValue[] = L"Backup";

class CrashWindowTest : public nvfaults::FaultChildTest {
protected:
    CrashWindowTest() : FaultChildTest(L"crash-window") {}
};

} // namespace

TEST_F(CrashWindowTest, KillBetweenBackupDeleteAndBackupValueDeleteThenStatusExplainsRollbackRefusesConvertFinishes)
{
    // One user fails in the interrupted run (its store refuses to open it), so the old
    // database still holds a user when the process dies.
    const nvwriter::Db20User& failing = m_db.users[2];

    // The clean run numbers the calls; the last "Backup" delete is Cleanup's.
    ASSERT_NO_FATAL_FAILURE(WriteFreshDatabase());
    inspect::SetFailOpenUser({failing.sidText});
    ProcessRun count = RunTool(L"nvfaults.exe", L"child --mode count --out " + QuoteArg(m_calls));
    ASSERT_EQ(0u, count.exitCode) << count.err;
    const std::vector<nvfaults::CallRecord> calls = nvfaults::ReadCallRecords(m_calls);
    ASSERT_FALSE(calls.empty());
    nvfaults::SymbolTable symbols;
    ASSERT_TRUE(symbols.Load(ExeDirectory() + L"NVDBConv.dll"));
    const nvfaults::CallRecord* window = nullptr;
    for (const auto& c : calls)
        if (c.function == "advapi32.dll!RegDeleteValueW")
            window = &c;
    ASSERT_NE(nullptr, window);
    bool inCleanup = false;
    for (std::uint32_t frame : window->frames)
        inCleanup |= symbols.FunctionAt(frame) == "CBaseConverter::Cleanup";
    ASSERT_TRUE(inCleanup) << "the last value delete is not Cleanup's";

    // The same database again, killed at that call.
    ASSERT_NO_FATAL_FAILURE(WriteFreshDatabase());
    inspect::SetFailOpenUser({failing.sidText});
    ProcessRun killed = RunTool(L"nvfaults.exe", L"child --mode kill --n " + std::to_wstring(window->number) + L" --out " +
                                                 QuoteArg(m_calls));
    ASSERT_EQ(nvfaults::kKilledExitCode, killed.exitCode) << killed.err;

    // The window's state: "Backup" names DB-v2.0, which is gone; the failed user's key
    // is still in the database, everybody else is in the store.
    std::wstring backup;
    ASSERT_TRUE(GetString(kDbPath, kBackupValue, kView32, &backup));
    EXPECT_EQ(std::wstring(kBackup20Path), backup);
    EXPECT_FALSE(KeyExists(kBackup20Path, kView64));
    EXPECT_FALSE(KeyExists(kBackup20Path, kView32));
    EXPECT_EQ(std::vector<std::wstring>{GuidText(failing.guid)}, SubkeyNames(kDataUsersPath, kView32));
    for (const auto& u : m_db.users)
        if (u.sidText != failing.sidText) {
            EXPECT_TRUE(StoreCopyGaps(u).empty()) << Narrow(u.sidText);
        }
    const RegTree interrupted = Snapshot(kDbPath, kView32);

    // status explains it.
    ProcessRun status = RunTool(L"nvdbconv.exe", L"status");
    EXPECT_EQ(0u, status.exitCode) << status.err;
    const std::string text = WithoutCarriageReturns(status.out);
    EXPECT_TRUE(Contains(text, "  interrupted     \"Backup\" names HKLM\\SOFTWARE\\Norvane\\DB-v2.0, but that key does "
                               "not exist in the 64-bit view"))
        << text;
    EXPECT_TRUE(Contains(text, "rollback refuses")) << text;
    EXPECT_TRUE(Contains(text, "Run \"nvdbconv convert\"")) << text;
    ProcessRun statusJson = RunTool(L"nvdbconv.exe", L"--json status");
    JsonValue doc;
    std::string error;
    ASSERT_TRUE(ParseJson(statusJson.out, &doc, &error)) << error;
    EXPECT_TRUE(doc["backupKeyMissing"].Bool());
    EXPECT_TRUE(Contains(doc["interruptedAdvice"].Text(), "stopped after deleting its backup key"));

    // rollback refuses and changes nothing.
    ProcessRun rollback = RunTool(L"nvdbconv.exe", L"rollback");
    EXPECT_EQ(3u, rollback.exitCode);
    EXPECT_TRUE(Contains(rollback.err, "refusing to roll back")) << rollback.err;
    EXPECT_EQ("", DiffTrees(interrupted, Snapshot(kDbPath, kView32)));

    // convert finishes: the store lets the failed user in now.
    inspect::ClearTestBehaviours();
    inspect::SetUserKeyBits(512);
    ProcessRun convert = RunTool(L"nvdbconv.exe", L"convert --progress never");
    EXPECT_EQ(0u, convert.exitCode) << convert.out << convert.err;
    for (const auto& u : m_db.users)
        EXPECT_TRUE(StoreCopyGaps(u).empty()) << Narrow(u.sidText);
    RegValue value;
    EXPECT_FALSE(GetValue(kDbPath, kBackupValue, kView32, &value));
    EXPECT_FALSE(KeyExists(kBackup20Path, kView64));
    EXPECT_FALSE(KeyExists(kDataPath, kView32));
    EXPECT_FALSE(KeyExists(kMainDbPath, kView32));

    // And status no longer warns.
    ProcessRun after = RunTool(L"nvdbconv.exe", L"--json status");
    JsonValue afterDoc;
    ASSERT_TRUE(ParseJson(after.out, &afterDoc, &error)) << error;
    EXPECT_FALSE(afterDoc["backupKeyMissing"].Bool());
    EXPECT_TRUE(afterDoc["backupKeyMissing"].IsBool());
    EXPECT_TRUE(afterDoc["interruptedAdvice"].IsMissing());
}
