// CBaseConverter: the backup, convert, cleanup and rollback sequence, CopyKey,
// DeleteKey and the full-access grant, checked through a test converter whose
// hooks succeed or fail on request, in every combination of database and backup
// views. The registry is compared value by value in both views.
#include <windows.h>
#include <aclapi.h>
#include <sddl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "common/handles.h"
#include "frame/baseconverter.h"
#include "frame/paths.h"
#include "support/import_patch.h"
#include "support/registry_sandbox.h"
#include "support/token_scope.h"
#include "support/test_converter.h"
#include "support/trace_capture.h"
#include "support/db_paths.h"
#include "support/test_results.h"

using namespace nvtest;

namespace {

constexpr const wchar_t kVendor[] = L"SOFTWARE\\Norvane";
constexpr const wchar_t kBackup10[] = L"SOFTWARE\\Norvane\\DB-v1.0";
constexpr const wchar_t kUserKey[] = L"SOFTWARE\\Norvane\\DB\\Data\\Users\\S-1-5-21-7-8-9-1001";

constexpr HRESULT kConvertFailure = NTE_BAD_KEY_STATE;

std::wstring Path(const wchar_t* base, const wchar_t* rel)
{
    return std::wstring(base) + L"\\" + rel;
}

std::vector<BYTE> MultiSz(const std::vector<std::wstring>& items)
{
    std::vector<BYTE> out;
    for (const auto& s : items) {
        const BYTE* p = reinterpret_cast<const BYTE*>(s.c_str());
        out.insert(out.end(), p, p + (s.size() + 1) * sizeof(wchar_t));
    }
    out.push_back(0);
    out.push_back(0);
    return out;
}

std::vector<BYTE> Qword(unsigned long long v)
{
    std::vector<BYTE> out(8);
    std::memcpy(out.data(), &v, 8);
    return out;
}

// A small database of every value type, with a default value, nested keys and an
// empty key.
void FillDatabase(REGSAM view)
{
    SetString(kDbPath, L"Version", L"1.0", view);
    SetString(kDbPath, L"", L"default text", view);
    SetDword(kDbPath, L"Flags", 7, view);
    SetBinary(kDbPath, L"Blob", {1, 2, 3, 0, 255}, view);
    SetString(kDbPath, L"Path", L"%SystemRoot%\\x", view, REG_EXPAND_SZ);
    SetBinary(kDbPath, L"Names", MultiSz({L"alpha", L"beta"}), view, REG_MULTI_SZ);
    SetBinary(kDbPath, L"Stamp", Qword(0x0123456789ABCDEFull), view, REG_QWORD);
    SetString(kUserKey, L"Name", L"alice", view);
    SetBinary(kUserKey, L"Record", {9, 8, 7, 6}, view);
    SetDword(Path(kDbPath, L"Policies\\Default").c_str(), L"LogonMode", 2, view);
    CreateKeyPath(Path(kDbPath, L"Empty").c_str(), view);
}

// What do_Convert does to the database before it answers: values changed, added
// and removed, a key tree removed and a key added.
void ChangeDatabase(REGSAM view)
{
    SetString(kDbPath, L"Version", L"2.0", view);
    SetDword(kDbPath, L"Added", 1, view);
    DeleteValue(kDbPath, L"Flags", view);
    DeleteTree(Path(kDbPath, L"Data").c_str(), view);
    CreateKeyPath(Path(kDbPath, L"NewKey").c_str(), view);
}

std::vector<BYTE> StringBytes(const std::wstring& s)
{
    const BYTE* p = reinterpret_cast<const BYTE*>(s.c_str());
    return std::vector<BYTE>(p, p + (s.size() + 1) * sizeof(wchar_t));
}

RegValue BackupValue(const std::wstring& path)
{
    RegValue v;
    v.type = REG_SZ;
    v.data = StringBytes(path);
    return v;
}

// The view a test passes as "the library's own view" (0) is the 64-bit one.
REGSAM Concrete(REGSAM view)
{
    return view == 0 ? kView64 : view;
}

class BaseConverterTest : public RegistrySandbox {};

// A converter that takes the base's own steps: only its backup's name and view are
// its own.
class BareConverter : public CBaseConverter {
public:
    explicit BareConverter(DWORD target = TestConverter::kTargetVersion, const wchar_t* targetText = L"9.0")
        : CBaseConverter(target, targetText, KEY_WOW64_32KEY)
    {
    }
    const std::wstring& GetBackupName() override { return m_backupName; }
    REGSAM GetBackupView() override { return KEY_WOW64_32KEY; }

private:
    std::wstring m_backupName = L"DB-v2.0";
};

} // namespace

// ---------------------------------------------------------------------------
// Construction

TEST_F(BaseConverterTest, ConstructorOpensDatabaseInGivenViewAndKeepsOwnerViewWordZero)
{
    FillDatabase(kView32);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    EXPECT_TRUE(converter.HasDatabaseKey());
    EXPECT_EQ(0u, converter.DbOwnerView());
    EXPECT_EQ(TestConverter::kTargetVersion, converter.GetTargetVersion());
    EXPECT_EQ(std::wstring(L"9.0"), converter.GetTargetVersionText());

    // The handle is the 32-bit database and it can write.
    EXPECT_EQ(ERROR_SUCCESS, ::RegSetValueExW(converter.DbKey(), L"Probe", 0, REG_DWORD,
                                              reinterpret_cast<const BYTE*>("\1\0\0\0"), 4));
    DWORD probe = 0;
    EXPECT_TRUE(GetDword(kDbPath, L"Probe", kView32, &probe));
    EXPECT_EQ(1u, probe);
    EXPECT_FALSE(KeyExists(kDbPath, kView64));
}

TEST_F(BaseConverterTest, ConstructorWithoutDatabaseInItsViewBuildsObjectWithoutKey)
{
    FillDatabase(kView64);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    EXPECT_FALSE(converter.HasDatabaseKey());
    EXPECT_EQ(nullptr, converter.DbKey());
    EXPECT_EQ(0u, converter.DbOwnerView());
    EXPECT_FALSE(KeyExists(kDbPath, kView32));
}

// ---------------------------------------------------------------------------
// Backup

class BackupViewTest : public BaseConverterTest, public ::testing::WithParamInterface<REGSAM> {};

TEST_P(BackupViewTest, BackupCopiesDatabaseIntoBackupKeyThenRecordsItsPath)
{
    const REGSAM backupView = GetParam();
    FillDatabase(kView32);
    const RegTree before = Snapshot(kDbPath, kView32);

    TestConverter converter(KEY_WOW64_32KEY, backupView, L"DB-v1.0");
    EXPECT_EQ(S_OK, converter.Backup());

    // The copy was taken before "Backup" was written: it equals the database as it was.
    const RegTree backup = Snapshot(kBackup10, Concrete(backupView));
    EXPECT_TRUE(before == backup) << DiffTrees(before, backup);

    RegTree expectedDb = before;
    expectedDb.values[L"|Backup"] = BackupValue(kBackup10);
    const RegTree after = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(expectedDb == after) << DiffTrees(expectedDb, after);

    RegValue raw;
    ASSERT_TRUE(GetValue(kDbPath, L"Backup", kView32, &raw));
    EXPECT_EQ(static_cast<DWORD>(REG_SZ), raw.type);
    EXPECT_EQ(StringBytes(L"SOFTWARE\\Norvane\\DB-v1.0"), raw.data);

    if (Concrete(backupView) == kView64) {
        // Only the backup landed in the 64-bit view.
        EXPECT_EQ(std::vector<std::wstring>{L"DB-v1.0"}, SubkeyNames(kVendor, kView64));
    } else {
        EXPECT_FALSE(KeyExists(kVendor, kView64));
    }
    EXPECT_EQ(std::vector<std::string>{"do_Backup"}, converter.calls);
}

INSTANTIATE_TEST_SUITE_P(BothBackupViews, BackupViewTest, ::testing::Values(REGSAM(0), REGSAM(KEY_WOW64_32KEY)),
                         [](const ::testing::TestParamInfo<REGSAM>& info) {
                             return info.param == 0 ? std::string("OwnView") : std::string("View32");
                         });

TEST_F(BaseConverterTest, BackupMergesIntoExistingBackupKey)
{
    FillDatabase(kView32);
    // A backup key left by an earlier run: an overlapping value, an extra value, an extra key.
    SetString(kBackup10, L"Version", L"0.9", kView32);
    SetDword(kBackup10, L"Leftover", 42, kView32);
    SetString(Path(kBackup10, L"OldKey").c_str(), L"x", L"y", kView32);
    const RegTree db = Snapshot(kDbPath, kView32);

    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    EXPECT_EQ(S_OK, converter.Backup());

    RegTree expected = db;
    expected.values[L"|Leftover"] = RegValue{REG_DWORD, {42, 0, 0, 0}};
    expected.keys.push_back(L"OldKey");
    std::sort(expected.keys.begin(), expected.keys.end());
    expected.values[L"OldKey|x"] = RegValue{REG_SZ, StringBytes(L"y")};
    const RegTree backup = Snapshot(kBackup10, kView32);
    EXPECT_TRUE(expected == backup) << DiffTrees(expected, backup);
}

TEST_F(BaseConverterTest, BackupOfDatabaseWithEmptyBinaryValueFailsWithNotEnoughMemoryAndWritesNoBackupValue)
{
    FillDatabase(kView32);
    SetBinary(kDbPath, L"Hollow", {}, kView32);
    const RegTree before = Snapshot(kDbPath, kView32);

    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY), converter.Backup());

    const RegTree after = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(before == after) << DiffTrees(before, after);
    EXPECT_TRUE(converter.calls.empty());
}

TEST_F(BaseConverterTest, FailingDoBackupFailsBackupAfterTheBackupWasRecorded)
{
    FillDatabase(kView32);
    const RegTree before = Snapshot(kDbPath, kView32);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    converter.backupResult = kHookFailure;

    EXPECT_EQ(kHookFailure, converter.Backup());
    const RegTree backup = Snapshot(kBackup10, kView32);
    EXPECT_TRUE(before == backup) << DiffTrees(before, backup);
    std::wstring recorded;
    EXPECT_TRUE(GetString(kDbPath, L"Backup", kView32, &recorded));
    EXPECT_EQ(std::wstring(kBackup10), recorded);
}

TEST_F(BaseConverterTest, PositiveDoBackupResultStillCountsAsSuccess)
{
    FillDatabase(kView32);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    converter.backupResult = S_FALSE;
    EXPECT_EQ(S_OK, converter.Backup());
}

// ---------------------------------------------------------------------------
// Convert: success

TEST_P(BackupViewTest, SuccessfulConvertRunsBackupConvertAndCleanupAndLeavesNoBackup)
{
    const REGSAM backupView = GetParam();
    FillDatabase(kView32);
    TestConverter converter(KEY_WOW64_32KEY, backupView, L"DB-v2.0");
    converter.convertWork = [] { ChangeDatabase(kView32); };

    EXPECT_EQ(S_OK, converter.Convert());

    EXPECT_EQ((std::vector<std::string>{"do_Backup", "do_Convert", "do_Cleanup"}), converter.calls);
    EXPECT_FALSE(KeyExists(kBackup20Path, kView32));
    EXPECT_FALSE(KeyExists(kBackup20Path, kView64));

    if (Concrete(backupView) == kView64) {
        // The backup's parent, made in the library's own view, stays behind empty.
        const RegTree vendor64 = Snapshot(kVendor, kView64);
        EXPECT_TRUE(vendor64.exists);
        EXPECT_EQ(std::vector<std::wstring>{L""}, vendor64.keys);
        EXPECT_TRUE(vendor64.values.empty());
    } else {
        EXPECT_FALSE(KeyExists(kVendor, kView64));
    }

    // The database holds do_Convert's changes and nothing else: no "Backup" value.
    // The expected tree is built the same way in the 64-bit view, then removed.
    FillDatabase(kView64);
    ChangeDatabase(kView64);
    RegTree expected = Snapshot(kDbPath, kView64);
    DeleteTree(kDbPath, kView64);
    const RegTree after = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(expected == after) << DiffTrees(expected, after);
}

// ---------------------------------------------------------------------------
// Convert: failure with the database in the library's own view, where the rules
// restore it completely.

TEST_P(BackupViewTest, FailingDoConvertRestoresDatabaseInOwnViewExactly)
{
    const REGSAM backupView = GetParam();
    FillDatabase(kView64);
    const RegTree before = Snapshot(kDbPath, kView64);

    TestConverter converter(0, backupView, L"DB-v1.0");
    converter.convertWork = [] { ChangeDatabase(kView64); };
    converter.convertResult = kConvertFailure;

    EXPECT_EQ(kConvertFailure, converter.Convert());
    EXPECT_EQ((std::vector<std::string>{"do_Backup", "do_Convert", "do_Rollback"}), converter.calls);

    const RegTree after = Snapshot(kDbPath, kView64);
    EXPECT_TRUE(before == after) << DiffTrees(before, after);
    EXPECT_FALSE(KeyExists(kBackup10, kView32));
    EXPECT_FALSE(KeyExists(kBackup10, kView64));
    EXPECT_FALSE(KeyExists(kDbPath, kView32));
}

// A backup key left behind by an earlier run is not emptied: the second Convert
// merges into it, and a rollback then restores the leftovers into the database too.
TEST_F(BaseConverterTest, SecondConvertMergesIntoLeftBackupKeyAndRollbackRestoresTheMerge)
{
    FillDatabase(kView64);
    const RegTree before = Snapshot(kDbPath, kView64);
    SetDword(kBackup10, L"Leftover", 42, kView32);
    SetString(Path(kBackup10, L"OldKey").c_str(), L"x", L"y", kView32);
    SetString(kBackup10, L"Version", L"0.9", kView32);

    TestConverter converter(0, KEY_WOW64_32KEY, L"DB-v1.0");
    converter.convertWork = [] { ChangeDatabase(kView64); };
    converter.convertResult = kConvertFailure;
    EXPECT_EQ(kConvertFailure, converter.Convert());

    RegTree expected = before;
    expected.values[L"|Leftover"] = RegValue{REG_DWORD, {42, 0, 0, 0}};
    expected.keys.push_back(L"OldKey");
    std::sort(expected.keys.begin(), expected.keys.end());
    expected.values[L"OldKey|x"] = RegValue{REG_SZ, StringBytes(L"y")};
    const RegTree after = Snapshot(kDbPath, kView64);
    EXPECT_TRUE(expected == after) << DiffTrees(expected, after);
    EXPECT_FALSE(KeyExists(kBackup10, kView32));
}

TEST_F(BaseConverterTest, SecondSuccessfulConvertRemovesTheMergedBackupKey)
{
    FillDatabase(kView32);
    SetDword(kBackup10, L"Leftover", 42, kView32);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    EXPECT_EQ(S_OK, converter.Convert());
    EXPECT_FALSE(KeyExists(kBackup10, kView32));
    RegValue ignored;
    EXPECT_FALSE(GetValue(kDbPath, L"Backup", kView32, &ignored));
    EXPECT_FALSE(GetValue(kDbPath, L"Leftover", kView32, &ignored));
}

TEST_F(BaseConverterTest, FailingDoBackupMakesConvertRollBackWithoutConverting)
{
    FillDatabase(kView64);
    const RegTree before = Snapshot(kDbPath, kView64);
    TestConverter converter(0, 0, L"DB-v2.0");
    converter.backupResult = kHookFailure;

    EXPECT_EQ(kHookFailure, converter.Convert());
    EXPECT_EQ((std::vector<std::string>{"do_Backup", "do_Rollback"}), converter.calls);
    const RegTree after = Snapshot(kDbPath, kView64);
    EXPECT_TRUE(before == after) << DiffTrees(before, after);
    EXPECT_FALSE(KeyExists(kBackup20Path, kView64));
}

TEST_F(BaseConverterTest, ConvertReturnsFirstFailureEvenWhenRollbackFailsToo)
{
    FillDatabase(kView64);
    TestConverter converter(0, 0, L"DB-v2.0");
    converter.convertResult = kConvertFailure;
    converter.rollbackResult = kHookFailure;
    EXPECT_EQ(kConvertFailure, converter.Convert());
    EXPECT_EQ((std::vector<std::string>{"do_Backup", "do_Convert", "do_Rollback"}), converter.calls);
}

TEST_F(BaseConverterTest, FailingCleanupInsideConvertTriggersRollbackWhichFindsNoBackupLeft)
{
    FillDatabase(kView64);
    TestConverter converter(0, 0, L"DB-v2.0");
    converter.convertWork = [] { ChangeDatabase(kView64); };
    converter.cleanupResult = kHookFailure;

    EXPECT_EQ(kHookFailure, converter.Convert());
    EXPECT_EQ((std::vector<std::string>{"do_Backup", "do_Convert", "do_Cleanup", "do_Rollback"}), converter.calls);
    // Cleanup removed the backup and "Backup" before its hook failed, so the
    // rollback had nothing to restore from: the converted database stays.
    EXPECT_FALSE(KeyExists(kBackup20Path, kView64));
    std::wstring version;
    EXPECT_TRUE(GetString(kDbPath, L"Version", kView64, &version));
    EXPECT_EQ(std::wstring(L"2.0"), version);
    RegValue ignored;
    EXPECT_FALSE(GetValue(kDbPath, L"Backup", kView64, &ignored));
}

// "Backup" is written only after the copy, so a copy failing halfway leaves the
// partial backup key and nothing that points at it.
TEST_F(BaseConverterTest, BackupFailingHalfwayLeavesPartialBackupKeyAndRollbackFindsNoPath)
{
    FillDatabase(kView32);
    // Subkeys are copied in name order: "A" before "Z", and "ZZ" never.
    SetDword(Path(kDbPath, L"A").c_str(), L"a", 1, kView32);
    SetBinary(Path(kDbPath, L"Z").c_str(), L"Hollow", {}, kView32);
    SetDword(Path(kDbPath, L"ZZ").c_str(), L"z", 2, kView32);
    const RegTree before = Snapshot(kDbPath, kView32);

    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY), converter.Convert());
    EXPECT_EQ(std::vector<std::string>{"do_Rollback"}, converter.calls);

    const RegTree after = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(before == after) << DiffTrees(before, after);

    RegTree expectedPartial = before;
    expectedPartial.values.erase(L"Z|Hollow");
    expectedPartial.values.erase(L"ZZ|z");
    expectedPartial.keys.erase(std::find(expectedPartial.keys.begin(), expectedPartial.keys.end(), L"ZZ"));
    const RegTree partial = Snapshot(kBackup10, kView32);
    EXPECT_TRUE(expectedPartial == partial) << DiffTrees(expectedPartial, partial);
}

TEST_F(BaseConverterTest, EmptyBinaryValueMakesConvertFailAndRollBack)
{
    FillDatabase(kView64);
    SetBinary(kDbPath, L"Hollow", {}, kView64);
    const RegTree before = Snapshot(kDbPath, kView64);
    TestConverter converter(0, 0, L"DB-v2.0");

    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY), converter.Convert());
    EXPECT_EQ(std::vector<std::string>{"do_Rollback"}, converter.calls);
    const RegTree after = Snapshot(kDbPath, kView64);
    EXPECT_TRUE(before == after) << DiffTrees(before, after);
}

TEST_F(BaseConverterTest, ConvertWithoutDatabaseKeyFailsInCopyKeyAndCreatesNothing)
{
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    ASSERT_FALSE(converter.HasDatabaseKey());
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE), converter.Convert());
    EXPECT_EQ(std::vector<std::string>{"do_Rollback"}, converter.calls);
    EXPECT_FALSE(KeyExists(kVendor, kView32));
    EXPECT_FALSE(KeyExists(kVendor, kView64));
}

// ---------------------------------------------------------------------------
// Convert: failure with the database in the 32-bit view, as the real converters
// open it. Rollback deletes and restores SOFTWARE\Norvane\DB in the library's own
// (64-bit) view, so the 32-bit database is never restored by it.

// The 1.0 to 2.0 layout: database and backup both in the 32-bit view, nothing in
// the 64-bit view. Rollback's first delete finds no 64-bit database and fails, the
// rest is skipped and the result stays S_OK. What remains: the 32-bit database as
// do_Convert left it plus "Backup", and the untouched backup in the 32-bit view,
// from which a later Rollback cannot restore either (its first delete fails the
// same way); a later Cleanup removes it.
TEST_F(BaseConverterTest, FailedConvertOf32BitDatabaseWith32BitBackupLeavesConvertedDatabaseAndBackup)
{
    FillDatabase(kView32);
    const RegTree before = Snapshot(kDbPath, kView32);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    converter.convertWork = [] { ChangeDatabase(kView32); };
    converter.convertResult = kConvertFailure;

    EXPECT_EQ(kConvertFailure, converter.Convert());
    EXPECT_EQ((std::vector<std::string>{"do_Backup", "do_Convert", "do_Rollback"}), converter.calls);

    FillDatabase(kView64);
    ChangeDatabase(kView64);
    RegTree expected = Snapshot(kDbPath, kView64);
    DeleteTree(kVendor, kView64);
    expected.values[L"|Backup"] = BackupValue(kBackup10);
    const RegTree after = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(expected == after) << DiffTrees(expected, after);

    const RegTree backup = Snapshot(kBackup10, kView32);
    EXPECT_TRUE(before == backup) << DiffTrees(before, backup);
    EXPECT_FALSE(KeyExists(kVendor, kView64));

    // A second Rollback is no better, and still answers S_OK.
    converter.calls.clear();
    EXPECT_EQ(S_OK, converter.Rollback());
    EXPECT_EQ(std::vector<std::string>{"do_Rollback"}, converter.calls);
    const RegTree again = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(expected == again) << DiffTrees(expected, again);
    EXPECT_TRUE(KeyExists(kBackup10, kView32));
}

// The 2.0 to 3.0 layout: database in the 32-bit view, backup in the 64-bit view.
// The first delete fails again; the backup stays in the 64-bit view.
TEST_F(BaseConverterTest, FailedConvertOf32BitDatabaseWithOwnViewBackupLeavesBackupIn64BitView)
{
    FillDatabase(kView32);
    const RegTree before = Snapshot(kDbPath, kView32);
    TestConverter converter(KEY_WOW64_32KEY, 0, L"DB-v2.0");
    converter.convertWork = [] { ChangeDatabase(kView32); };
    converter.convertResult = kConvertFailure;

    EXPECT_EQ(kConvertFailure, converter.Convert());

    const RegTree backup = Snapshot(kBackup20Path, kView64);
    EXPECT_TRUE(before == backup) << DiffTrees(before, backup);
    EXPECT_FALSE(KeyExists(kBackup20Path, kView32));
    EXPECT_FALSE(KeyExists(kDbPath, kView64));

    std::wstring recorded;
    EXPECT_TRUE(GetString(kDbPath, L"Backup", kView32, &recorded));
    EXPECT_EQ(std::wstring(kBackup20Path), recorded);
    std::wstring version;
    EXPECT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    EXPECT_EQ(std::wstring(L"2.0"), version);
    EXPECT_FALSE(KeyExists(Path(kDbPath, L"Data").c_str(), kView32));
}

// A database in both views: the converter works on the 32-bit one, but Rollback
// replaces the 64-bit database by the 32-bit backup. The 32-bit database keeps
// do_Convert's changes and "Backup"; the 64-bit one is lost and now holds the
// 32-bit content from before Convert; the backup is gone.
TEST_F(BaseConverterTest, FailedConvertWithDatabaseInBothViewsRestoresBackupInto64BitView)
{
    FillDatabase(kView32);
    SetString(kDbPath, L"Version", L"1.0", kView64);
    SetDword(kDbPath, L"Only64", 64, kView64);
    const RegTree before32 = Snapshot(kDbPath, kView32);

    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    converter.convertWork = [] { ChangeDatabase(kView32); };
    converter.convertResult = kConvertFailure;
    EXPECT_EQ(kConvertFailure, converter.Convert());

    const RegTree db64 = Snapshot(kDbPath, kView64);
    EXPECT_TRUE(before32 == db64) << DiffTrees(before32, db64);
    EXPECT_FALSE(KeyExists(kBackup10, kView32));
    EXPECT_FALSE(KeyExists(kBackup10, kView64));

    std::wstring recorded;
    EXPECT_TRUE(GetString(kDbPath, L"Backup", kView32, &recorded));
    EXPECT_EQ(std::wstring(kBackup10), recorded);
    DWORD added = 0;
    EXPECT_TRUE(GetDword(kDbPath, L"Added", kView32, &added));
}

// ---------------------------------------------------------------------------
// Rollback and Cleanup on their own

TEST_F(BaseConverterTest, RollbackAfterSuccessfulConvertFindsNoBackupNameAndStillRunsHook)
{
    FillDatabase(kView32);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    ASSERT_EQ(S_OK, converter.Convert());
    const RegTree before = Snapshot(kDbPath, kView32);
    converter.calls.clear();

    EXPECT_EQ(S_FALSE, converter.Rollback());
    EXPECT_EQ(std::vector<std::string>{"do_Rollback"}, converter.calls);
    const RegTree after = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(before == after) << DiffTrees(before, after);

    converter.rollbackResult = kHookFailure;
    EXPECT_EQ(kHookFailure, converter.Rollback());
}

TEST_F(BaseConverterTest, CleanupAfterSuccessfulConvertFindsNoBackupNameAndStillRunsHook)
{
    FillDatabase(kView32);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    ASSERT_EQ(S_OK, converter.Convert());
    converter.calls.clear();

    EXPECT_EQ(S_FALSE, converter.Cleanup());
    EXPECT_EQ(std::vector<std::string>{"do_Cleanup"}, converter.calls);
    converter.cleanupResult = kHookFailure;
    EXPECT_EQ(kHookFailure, converter.Cleanup());
}

TEST_F(BaseConverterTest, CleanupDeletesBackupKeyAndBackupValueThenRunsHook)
{
    FillDatabase(kView32);
    const RegTree before = Snapshot(kDbPath, kView32);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    ASSERT_EQ(S_OK, converter.Backup());
    ASSERT_TRUE(KeyExists(kBackup10, kView32));

    EXPECT_EQ(S_OK, converter.Cleanup());
    EXPECT_EQ((std::vector<std::string>{"do_Backup", "do_Cleanup"}), converter.calls);
    EXPECT_FALSE(KeyExists(kBackup10, kView32));
    const RegTree after = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(before == after) << DiffTrees(before, after);
}

TEST_F(BaseConverterTest, CleanupWithBackupKeyRemovedByHandFailsAndKeepsBackupValueWithoutHook)
{
    FillDatabase(kView32);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    ASSERT_EQ(S_OK, converter.Backup());
    ASSERT_TRUE(DeleteTree(kBackup10, kView32));
    converter.calls.clear();

    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), converter.Cleanup());
    EXPECT_TRUE(converter.calls.empty());
    std::wstring recorded;
    EXPECT_TRUE(GetString(kDbPath, L"Backup", kView32, &recorded));
    EXPECT_EQ(std::wstring(kBackup10), recorded);
}

TEST_F(BaseConverterTest, CleanupIgnoresBackupValueThatIsNotAString)
{
    FillDatabase(kView64);
    SetDword(kDbPath, L"Backup", 1, kView64);
    TestConverter converter(0, 0, L"DB-v2.0");
    EXPECT_EQ(S_FALSE, converter.Cleanup());
    EXPECT_EQ(std::vector<std::string>{"do_Cleanup"}, converter.calls);
    DWORD kept = 0;
    EXPECT_TRUE(GetDword(kDbPath, L"Backup", kView64, &kept));
}

// The backup state lives in the registry: a converter of a later process restores
// from what an earlier one left.
TEST_P(BackupViewTest, RollbackByLaterConverterRestoresFromRegistryState)
{
    const REGSAM backupView = GetParam();
    FillDatabase(kView64);
    const RegTree before = Snapshot(kDbPath, kView64);
    {
        TestConverter first(0, backupView, L"DB-v1.0");
        ASSERT_EQ(S_OK, first.Backup());
    }
    ChangeDatabase(kView64);

    TestConverter later(0, backupView, L"DB-v1.0");
    EXPECT_EQ(S_OK, later.Rollback());
    EXPECT_EQ(std::vector<std::string>{"do_Rollback"}, later.calls);
    const RegTree after = Snapshot(kDbPath, kView64);
    EXPECT_TRUE(before == after) << DiffTrees(before, after);
    EXPECT_FALSE(KeyExists(kBackup10, Concrete(backupView)));
}

TEST_F(BaseConverterTest, RollbackWhoseHookFailsReturnsHookCodeAfterRestoring)
{
    FillDatabase(kView64);
    const RegTree before = Snapshot(kDbPath, kView64);
    TestConverter converter(0, 0, L"DB-v2.0");
    ASSERT_EQ(S_OK, converter.Backup());
    ChangeDatabase(kView64);
    converter.rollbackResult = kHookFailure;

    EXPECT_EQ(kHookFailure, converter.Rollback());
    const RegTree after = Snapshot(kDbPath, kView64);
    EXPECT_TRUE(before == after) << DiffTrees(before, after);
}

// The database is deleted first; when the copy back then fails, the result stays
// S_OK, the final delete is skipped, and the database is gone.
TEST_F(BaseConverterTest, RollbackKeepsSOkWhenCopyFailsAfterDatabaseWasDeleted)
{
    FillDatabase(kView64);
    SetString(kDbPath, L"Backup", kBackup20Path, kView64);
    TestConverter converter(0, 0, L"DB-v2.0");

    EXPECT_EQ(S_OK, converter.Rollback());
    EXPECT_EQ(std::vector<std::string>{"do_Rollback"}, converter.calls);
    EXPECT_FALSE(KeyExists(kDbPath, kView64));
    EXPECT_FALSE(KeyExists(kBackup20Path, kView64));
}

TEST_F(BaseConverterTest, RollbackKeepsSOkWhenFirstDeleteFails)
{
    FillDatabase(kView32);
    SetString(kDbPath, L"Backup", kBackup10, kView32);
    SetDword(kBackup10, L"Saved", 5, kView32);
    const RegTree db = Snapshot(kDbPath, kView32);
    const RegTree backup = Snapshot(kBackup10, kView32);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");

    EXPECT_EQ(S_OK, converter.Rollback());
    EXPECT_EQ(std::vector<std::string>{"do_Rollback"}, converter.calls);
    EXPECT_TRUE(db == Snapshot(kDbPath, kView32));
    EXPECT_TRUE(backup == Snapshot(kBackup10, kView32));
    EXPECT_FALSE(KeyExists(kVendor, kView64));
}

// ---------------------------------------------------------------------------
// CopyKey

namespace {

// 6 levels below the root: 1 + 3 + 9 + 27 + 81 + 243 + 729 = 1,093 keys, each
// with 10 values of rotating types: 10,932 values with the root's two extra ones.
struct DeepTreeCounts {
    size_t keys = 0;
    size_t values = 0;
};

std::vector<BYTE> PatternBytes(size_t n, unsigned seed)
{
    std::vector<BYTE> out(n);
    for (size_t i = 0; i < n; ++i)
        out[i] = static_cast<BYTE>((seed * 31 + i * 7) & 0xFF);
    return out;
}

void WriteDeepKey(HKEY key, int depth, unsigned& seed, DeepTreeCounts& counts)
{
    ++counts.keys;
    const int valuesHere = 10;
    for (int v = 0; v < valuesHere; ++v, ++seed) {
        std::wstring name = L"v" + std::to_wstring(seed);
        DWORD type;
        std::vector<BYTE> data;
        switch (seed % 8) {
        case 0: type = REG_SZ; data = StringBytes(L"text " + std::to_wstring(seed)); break;
        case 1: type = REG_EXPAND_SZ; data = StringBytes(L"%TEMP%\\" + std::to_wstring(seed)); break;
        case 2: type = REG_MULTI_SZ; data = MultiSz({L"a" + std::to_wstring(seed), L"", L"zz"}); break;
        case 3: type = REG_QWORD; data = Qword(0xFEDCBA9800000000ull + seed); break;
        case 4: type = REG_DWORD; data = {static_cast<BYTE>(seed), 1, 2, 3}; break;
        case 5: type = REG_DWORD_BIG_ENDIAN; data = {0, 0, 1, static_cast<BYTE>(seed)}; break;
        case 6: type = REG_BINARY; data = PatternBytes(1 + seed % 300, seed); break;
        default: type = REG_NONE; data = PatternBytes(3, seed); break;
        }
        ASSERT_EQ(ERROR_SUCCESS,
                  ::RegSetValueExW(key, name.c_str(), 0, type, data.data(), static_cast<DWORD>(data.size())));
        ++counts.values;
    }
    if (depth == 0) {
        // The default value and a name that needs most of the name buffer.
        std::vector<BYTE> d = StringBytes(L"root default");
        ASSERT_EQ(ERROR_SUCCESS, ::RegSetValueExW(key, nullptr, 0, REG_SZ, d.data(), static_cast<DWORD>(d.size())));
        std::wstring longName(16382, L'n');
        DWORD one = 1;
        ASSERT_EQ(ERROR_SUCCESS, ::RegSetValueExW(key, longName.c_str(), 0, REG_DWORD,
                                                  reinterpret_cast<const BYTE*>(&one), 4));
        counts.values += 2;
    }
    if (depth == 6)
        return;
    for (int c = 0; c < 3; ++c) {
        std::wstring child = L"level" + std::to_wstring(depth + 1) + L"_" + std::to_wstring(c);
        if (depth == 0 && c == 2)
            child = std::wstring(255, L'k');   // the longest key name
        HKEY h = nullptr;
        ASSERT_EQ(ERROR_SUCCESS, ::RegCreateKeyExW(key, child.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &h,
                                                   nullptr));
        WriteDeepKey(h, depth + 1, seed, counts);
        ::RegCloseKey(h);
    }
}

DeepTreeCounts WriteDeepTree(const wchar_t* path, REGSAM view)
{
    DeepTreeCounts counts;
    HKEY root = nullptr;
    EXPECT_EQ(ERROR_SUCCESS, ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, path, 0, nullptr, 0, KEY_ALL_ACCESS | view,
                                               nullptr, &root, nullptr));
    unsigned seed = 1;
    WriteDeepKey(root, 0, seed, counts);
    ::RegCloseKey(root);
    return counts;
}

class CopyKeyViewTest : public BaseConverterTest,
                        public ::testing::WithParamInterface<std::pair<REGSAM, REGSAM>> {};

} // namespace

TEST_P(CopyKeyViewTest, DeepTreeIsCopiedByteForByte)
{
    const REGSAM srcView = GetParam().first;
    const REGSAM dstView = GetParam().second;
    const wchar_t* src = L"SOFTWARE\\Norvane\\DeepSource";
    const wchar_t* dst = L"SOFTWARE\\Norvane\\Copies\\DeepTarget";
    DeepTreeCounts counts = WriteDeepTree(src, srcView);
    ASSERT_GE(counts.keys, 1000u);
    ASSERT_GE(counts.values, 10000u);

    const RegTree source = Snapshot(src, srcView);
    ASSERT_EQ(counts.keys, source.keys.size());
    ASSERT_EQ(counts.values, source.values.size());

    EXPECT_EQ(S_OK, CBaseConverter::CopyKey(HKEY_LOCAL_MACHINE, dst, dstView, HKEY_LOCAL_MACHINE, src, srcView));

    const RegTree copy = Snapshot(dst, dstView);
    EXPECT_TRUE(source == copy) << DiffTrees(source, copy);
    // Byte for byte, value by value.
    for (const auto& [name, value] : source.values) {
        auto it = copy.values.find(name);
        ASSERT_NE(copy.values.end(), it) << Narrow(name);
        EXPECT_EQ(value.type, it->second.type) << Narrow(name);
        ASSERT_EQ(value.data.size(), it->second.data.size()) << Narrow(name);
        EXPECT_EQ(0, std::memcmp(value.data.data(), it->second.data.data(), value.data.size())) << Narrow(name);
    }
    // The source is left as it was.
    EXPECT_TRUE(source == Snapshot(src, srcView));
    if (Concrete(srcView) != Concrete(dstView)) {
        EXPECT_FALSE(KeyExists(dst, Concrete(srcView)));
    }
}

INSTANTIATE_TEST_SUITE_P(Views, CopyKeyViewTest,
                         ::testing::Values(std::make_pair(REGSAM(0), REGSAM(KEY_WOW64_32KEY)),
                                           std::make_pair(REGSAM(KEY_WOW64_32KEY), REGSAM(0)),
                                           std::make_pair(REGSAM(KEY_WOW64_32KEY), REGSAM(KEY_WOW64_32KEY))),
                         [](const ::testing::TestParamInfo<std::pair<REGSAM, REGSAM>>& info) {
                             auto n = [](REGSAM v) { return v == 0 ? std::string("Own") : std::string("View32"); };
                             return n(info.param.first) + "To" + n(info.param.second);
                         });

TEST_F(BaseConverterTest, CopyKeyOfMissingSourceFailsAndCreatesNoDestination)
{
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND),
              CBaseConverter::CopyKey(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane\\Target", 0, HKEY_LOCAL_MACHINE,
                                      L"SOFTWARE\\Norvane\\Missing", 0));
    EXPECT_FALSE(KeyExists(kVendor, kView64));
    EXPECT_FALSE(KeyExists(kVendor, kView32));
}

TEST_F(BaseConverterTest, CopyKeyRefusesEmptyValueOfAnyType)
{
    for (DWORD type : {DWORD(REG_BINARY), DWORD(REG_SZ), DWORD(REG_NONE)}) {
        DeleteTree(kVendor, kView64);
        SetDword(L"SOFTWARE\\Norvane\\Src", L"a", 1, kView64);
        SetBinary(L"SOFTWARE\\Norvane\\Src", L"b", {}, kView64, type);
        EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY),
                  CBaseConverter::CopyKey(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane\\Dst", 0, HKEY_LOCAL_MACHINE,
                                          L"SOFTWARE\\Norvane\\Src", 0))
            << "type " << type;
        RegValue b;
        EXPECT_FALSE(GetValue(L"SOFTWARE\\Norvane\\Dst", L"b", kView64, &b));
        EXPECT_TRUE(KeyExists(L"SOFTWARE\\Norvane\\Dst", kView64));
    }
}

// The name buffer passes 16,383 characters as its capacity, so a value name of the
// registry's full 16,383 characters does not fit with its terminator: the
// enumeration answers "more data" (234), which does not stop the copy, with no
// name; reading the value by that empty name then fails.
TEST_F(BaseConverterTest, CopyKeyOfValueWhoseNameLeavesNoRoomForTheTerminatorFails)
{
    const std::wstring longName(16383, L'q');
    SetDword(L"SOFTWARE\\Norvane\\Src", longName.c_str(), 7, kView64);
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND),
              CBaseConverter::CopyKey(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane\\Dst", 0, HKEY_LOCAL_MACHINE,
                                      L"SOFTWARE\\Norvane\\Src", 0));
    EXPECT_TRUE(ValueNames(L"SOFTWARE\\Norvane\\Dst", kView64).empty());
}

// ---------------------------------------------------------------------------
// DeleteKey and the full-access grant

TEST_F(BaseConverterTest, DeleteKeyRemovesWholeTreeInItsViewOnly)
{
    FillDatabase(kView32);
    FillDatabase(kView64);
    const RegTree db64 = Snapshot(kDbPath, kView64);

    EXPECT_EQ(S_OK, CBaseConverter::DeleteKey(HKEY_LOCAL_MACHINE, kDbPath, KEY_WOW64_32KEY));
    EXPECT_FALSE(KeyExists(kDbPath, kView32));
    EXPECT_TRUE(KeyExists(kVendor, kView32));
    EXPECT_TRUE(db64 == Snapshot(kDbPath, kView64));

    EXPECT_EQ(S_OK, CBaseConverter::DeleteKey(HKEY_LOCAL_MACHINE, kDbPath, 0));
    EXPECT_FALSE(KeyExists(kDbPath, kView64));
    EXPECT_TRUE(KeyExists(kVendor, kView64));
}

TEST_F(BaseConverterTest, DeleteKeyRelativeToOpenKey)
{
    FillDatabase(kView64);
    HKEY db = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kDbPath, 0, KEY_READ | DELETE, &db));
    EXPECT_EQ(S_OK, CBaseConverter::DeleteKey(db, L"Data", 0));
    ::RegCloseKey(db);
    EXPECT_FALSE(KeyExists(Path(kDbPath, L"Data").c_str(), kView64));
    EXPECT_TRUE(KeyExists(Path(kDbPath, L"Policies").c_str(), kView64));
}

TEST_F(BaseConverterTest, DeleteKeyOfMissingKeyFailsWithFileNotFound)
{
    CreateKeyPath(kVendor, kView64);
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), CBaseConverter::DeleteKey(HKEY_LOCAL_MACHINE, kDbPath, 0));
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND),
              CBaseConverter::DeleteKey(HKEY_LOCAL_MACHINE, kDbPath, KEY_WOW64_32KEY));
}

namespace {

constexpr const wchar_t kGrantedEntries[] = L"(A;OICI;KA;;;SY)(A;OICI;KA;;;BA)(A;OICI;KA;;;BU)";

} // namespace

TEST_F(BaseConverterTest, GrantFullAccessSetsProtectedDaclForSystemAdministratorsAndUsers)
{
    const wchar_t* path = L"SOFTWARE\\Norvane\\Granted";
    CreateKeyPath(path, kView64);
    HKEY h = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_ALL_ACCESS, &h));
    EXPECT_EQ(S_OK, CBaseConverter::GrantFullAccess(h, KEY_ALL_ACCESS));
    EXPECT_EQ(std::wstring(kGrantedEntries), DaclEntries(DaclText(path, kView64)));

    EXPECT_EQ(S_OK, CBaseConverter::GrantFullAccess(h, KEY_READ));
    EXPECT_EQ(std::wstring(L"(A;OICI;KA;;;SY)(A;OICI;KA;;;BA)(A;OICI;KR;;;BU)"),
              DaclEntries(DaclText(path, kView64)));

    // No Users entry for an empty mask.
    EXPECT_EQ(S_OK, CBaseConverter::GrantFullAccess(h, 0));
    EXPECT_EQ(std::wstring(kAdministratorsOnlyEntries), DaclEntries(DaclText(path, kView64)));
    ::RegCloseKey(h);
}

TEST_F(BaseConverterTest, GrantFullAccessAnswersSFalseWhenDaclCannotBeSet)
{
    const wchar_t* path = L"SOFTWARE\\Norvane\\ReadOnly";
    CreateKeyPath(path, kView64);
    const std::wstring before = DaclText(path, kView64);
    HKEY h = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &h));
    EXPECT_EQ(S_FALSE, CBaseConverter::GrantFullAccess(h, KEY_ALL_ACCESS));
    ::RegCloseKey(h);
    EXPECT_EQ(before, DaclText(path, kView64));
}

TEST_F(BaseConverterTest, GrantFullAccessByNonAdministratorChangesNothing)
{
    const wchar_t* path = L"SOFTWARE\\Norvane\\Plain";
    CreateKeyPath(path, kView64);
    const std::wstring before = DaclText(path, kView64);
    HKEY h = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_ALL_ACCESS, &h));
    {
        NonAdministratorScope nonAdmin;
        EXPECT_EQ(S_OK, CBaseConverter::GrantFullAccess(h, KEY_ALL_ACCESS));
    }
    ::RegCloseKey(h);
    EXPECT_EQ(before, DaclText(path, kView64));
    EXPECT_NE(std::wstring(kGrantedEntries), DaclEntries(before));
}

// A non-administrator gets no grant: keys keep their security, and what the
// caller may not open stays, failing the delete with access denied.
TEST_F(BaseConverterTest, DeleteKeyByNonAdministratorDeletesOnlyWhatCallerMayDelete)
{
    const wchar_t* tree = L"SOFTWARE\\Norvane\\Tree";
    // Listed in name order: the open key is deleted before the locked one stops the walk.
    const wchar_t* open = L"SOFTWARE\\Norvane\\Tree\\A-open";
    const wchar_t* locked = L"SOFTWARE\\Norvane\\Tree\\B-locked";
    SetDword(open, L"x", 1, kView64);
    SetDword(locked, L"y", 2, kView64);
    SetDacl(locked, kView64, L"D:P(A;;KA;;;BA)(A;;KA;;;SY)");
    const std::wstring treeDacl = DaclText(tree, kView64);
    const std::wstring lockedDacl = DaclText(locked, kView64);

    HRESULT hr;
    {
        NonAdministratorScope nonAdmin;
        hr = CBaseConverter::DeleteKey(HKEY_LOCAL_MACHINE, tree, 0);
    }
    EXPECT_EQ(E_ACCESSDENIED, hr);
    EXPECT_FALSE(KeyExists(open, kView64));
    EXPECT_TRUE(KeyExists(locked, kView64));
    EXPECT_EQ(treeDacl, DaclText(tree, kView64));
    EXPECT_EQ(lockedDacl, DaclText(locked, kView64));

    // An administrator takes the rest, granting itself access on the way.
    EXPECT_EQ(S_OK, CBaseConverter::DeleteKey(HKEY_LOCAL_MACHINE, tree, 0));
    EXPECT_FALSE(KeyExists(tree, kView64));
}

// A delete that fails after the grant leaves the key with System and
// Administrators only: never a key every local user may write.
namespace {

LONG WINAPI FailingRegDeleteKeyExW(HKEY, LPCWSTR, REGSAM, DWORD)
{
    return ERROR_ACCESS_DENIED;
}

} // namespace

TEST_F(BaseConverterTest, DeleteKeyFailingAfterTheGrantLeavesNoUsersEntry)
{
    const wchar_t* tree = L"SOFTWARE\\Norvane\\Tree";
    const wchar_t* child = L"SOFTWARE\\Norvane\\Tree\\Child";
    SetDword(tree, L"x", 1, kView64);
    SetDword(child, L"y", 2, kView64);
    ASSERT_NE(std::wstring::npos, DaclText(tree, kView64).find(L";;;BU)"))
        << "the key should start with the Users entry it inherits";

    HRESULT hr;
    {
        ImportPatch patch(::GetModuleHandleW(nullptr),
                          {{"RegDeleteKeyExW", reinterpret_cast<void*>(&FailingRegDeleteKeyExW)}});
        ASSERT_TRUE(patch.ok());
        ASSERT_FALSE(patch.names().empty());
        hr = CBaseConverter::DeleteKey(HKEY_LOCAL_MACHINE, tree, 0);
    }
    EXPECT_EQ(E_ACCESSDENIED, hr);
    ASSERT_TRUE(KeyExists(child, kView64));
    // Wine 8 does not keep the protected flag in the control word (see DaclEntries),
    // so the entries are what can be compared.
    EXPECT_EQ(std::wstring(kAdministratorsOnlyEntries), DaclEntries(DaclText(tree, kView64)));
    EXPECT_EQ(std::wstring(kAdministratorsOnlyEntries), DaclEntries(DaclText(child, kView64)));
}

// ---------------------------------------------------------------------------
// "Backup" naming a key the library never writes

namespace {

constexpr const wchar_t kVictim[] = L"SOFTWARE\\Norvane\\Victim";
constexpr const wchar_t kVictimChild[] = L"SOFTWARE\\Norvane\\Victim\\Inner";
constexpr const wchar_t kVictimDacl[] = L"D:P(A;CI;KA;;;SY)(A;CI;KA;;;BA)(A;CI;KR;;;WD)";

// Owner, group and DACL of the key as the registry returns them.
std::vector<BYTE> SecurityBytes(const wchar_t* path, REGSAM view)
{
    const SECURITY_INFORMATION what = OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION |
                                      DACL_SECURITY_INFORMATION;
    HKEY h = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, READ_CONTROL | view, &h) != ERROR_SUCCESS)
        return {};
    DWORD cb = 0;
    ::RegGetKeySecurity(h, what, nullptr, &cb);
    std::vector<BYTE> sd(cb);
    const LONG r = cb ? ::RegGetKeySecurity(h, what, sd.data(), &cb) : ERROR_INVALID_DATA;
    ::RegCloseKey(h);
    if (r != ERROR_SUCCESS)
        return {};
    sd.resize(cb);
    return sd;
}

// A key elsewhere under HKLM with a sentinel value, a subkey and a DACL of its own.
struct PlantedVictim {
    RegTree tree;
    std::vector<BYTE> security;
    std::vector<BYTE> childSecurity;
};

PlantedVictim PlantVictim(REGSAM view)
{
    SetString(kVictim, L"Sentinel", L"must survive", view);
    SetDword(kVictimChild, L"Inner", 0xDEADBEEF, view);
    SetDacl(kVictim, view, kVictimDacl);
    PlantedVictim v{Snapshot(kVictim, view), SecurityBytes(kVictim, view), SecurityBytes(kVictimChild, view)};
    EXPECT_FALSE(v.security.empty());
    return v;
}

void ExpectVictimUntouched(const PlantedVictim& before, REGSAM view)
{
    const RegTree after = Snapshot(kVictim, view);
    EXPECT_TRUE(before.tree == after) << DiffTrees(before.tree, after);
    EXPECT_EQ(before.security, SecurityBytes(kVictim, view));
    EXPECT_EQ(before.childSecurity, SecurityBytes(kVictimChild, view));
    std::wstring sentinel;
    EXPECT_TRUE(GetString(kVictim, L"Sentinel", view, &sentinel));
    EXPECT_EQ(std::wstring(L"must survive"), sentinel);
}

} // namespace

TEST(BackupPathTest, OnlyTheTwoBackupKeysOfTheLibraryAreAccepted)
{
    EXPECT_TRUE(nvframe::IsLibraryBackupPath(L"SOFTWARE\\Norvane\\DB-v1.0"));
    EXPECT_TRUE(nvframe::IsLibraryBackupPath(L"SOFTWARE\\Norvane\\DB-v2.0"));
    EXPECT_TRUE(nvframe::IsLibraryBackupPath(L"software\\NORVANE\\db-V2.0"));

    EXPECT_FALSE(nvframe::IsLibraryBackupPath(nullptr));
    EXPECT_FALSE(nvframe::IsLibraryBackupPath(L""));
    EXPECT_FALSE(nvframe::IsLibraryBackupPath(L"SOFTWARE\\Norvane\\DB"));
    EXPECT_FALSE(nvframe::IsLibraryBackupPath(L"SOFTWARE\\Norvane\\DB-v3.0"));
    EXPECT_FALSE(nvframe::IsLibraryBackupPath(L"\\SOFTWARE\\Norvane\\DB-v1.0"));
    EXPECT_FALSE(nvframe::IsLibraryBackupPath(L"SOFTWARE\\Norvane\\DB-v1.0\\"));
    EXPECT_FALSE(nvframe::IsLibraryBackupPath(L"SOFTWARE\\Norvane\\DB-v1.0 "));
    EXPECT_FALSE(nvframe::IsLibraryBackupPath(L" SOFTWARE\\Norvane\\DB-v1.0"));
    EXPECT_FALSE(nvframe::IsLibraryBackupPath(L"SOFTWARE\\Norvane\\DB-v2.0\\Sub"));
    EXPECT_FALSE(nvframe::IsLibraryBackupPath(L"SOFTWARE\\Norvane\\DB-v2.0\\..\\..\\..\\SAM"));
    EXPECT_FALSE(nvframe::IsLibraryBackupPath(L"SOFTWARE\\Wow6432Node\\Norvane\\DB-v1.0"));
    EXPECT_FALSE(nvframe::IsLibraryBackupPath(L"SAM\\SAM"));
    EXPECT_FALSE(nvframe::IsLibraryBackupPath(L"SOFTWARE\\Norvane\\Victim"));
}

TEST_F(BaseConverterTest, CleanupRefusesForeignBackupValueAndLeavesThatKeyUntouched)
{
    FillDatabase(kView32);
    const PlantedVictim victim = PlantVictim(kView32);
    SetString(kDbPath, L"Backup", kVictim, kView32);
    const RegTree db = Snapshot(kDbPath, kView32);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");

    EXPECT_EQ(E_ACCESSDENIED, converter.Cleanup());
    // Refused as a failed delete is: the hook does not run.
    EXPECT_TRUE(converter.calls.empty());
    ExpectVictimUntouched(victim, kView32);
    const RegTree after = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(db == after) << DiffTrees(db, after);
}

TEST_F(BaseConverterTest, RollbackRefusesForeignBackupValueKeepsDatabaseAndStillRunsHook)
{
    FillDatabase(kView64);
    const PlantedVictim victim = PlantVictim(kView64);
    SetString(kDbPath, L"Backup", kVictim, kView64);
    const RegTree db = Snapshot(kDbPath, kView64);
    TestConverter converter(0, 0, L"DB-v2.0");

    EXPECT_EQ(E_ACCESSDENIED, converter.Rollback());
    EXPECT_EQ(std::vector<std::string>{"do_Rollback"}, converter.calls);
    ExpectVictimUntouched(victim, kView64);
    const RegTree after = Snapshot(kDbPath, kView64);
    EXPECT_TRUE(db == after) << DiffTrees(db, after);

    // A failing hook still has the last word.
    converter.rollbackResult = kHookFailure;
    EXPECT_EQ(kHookFailure, converter.Rollback());
    ExpectVictimUntouched(victim, kView64);
}

// A failed backup leaves a planted "Backup" in place for the rollback that Convert
// calls: the path an attacker would take through Convert.
TEST_F(BaseConverterTest, ConvertWhoseBackupFailsDoesNotRollBackFromForeignBackupValue)
{
    FillDatabase(kView64);
    SetBinary(kDbPath, L"Hollow", {}, kView64);
    const PlantedVictim victim = PlantVictim(kView64);
    SetString(kDbPath, L"Backup", kVictim, kView64);
    const RegTree db = Snapshot(kDbPath, kView64);
    TestConverter converter(0, 0, L"DB-v2.0");

    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY), converter.Convert());
    EXPECT_EQ(std::vector<std::string>{"do_Rollback"}, converter.calls);
    ExpectVictimUntouched(victim, kView64);
    const RegTree after = Snapshot(kDbPath, kView64);
    EXPECT_TRUE(db == after) << DiffTrees(db, after);
}

TEST_F(BaseConverterTest, SuccessfulConvertOverwritesForeignBackupValueAndLeavesThatKeyUntouched)
{
    FillDatabase(kView64);
    const PlantedVictim victim = PlantVictim(kView64);
    SetString(kDbPath, L"Backup", kVictim, kView64);
    TestConverter converter(0, 0, L"DB-v2.0");

    EXPECT_EQ(S_OK, converter.Convert());
    EXPECT_EQ((std::vector<std::string>{"do_Backup", "do_Convert", "do_Cleanup"}), converter.calls);
    ExpectVictimUntouched(victim, kView64);
    EXPECT_FALSE(KeyExists(kBackup20Path, kView64));
    std::wstring left;
    EXPECT_FALSE(GetString(kDbPath, L"Backup", kView64, &left)) << "left: " << std::string(left.begin(), left.end());
}

TEST_F(BaseConverterTest, BackupValueInAnotherCaseStillNamesTheLibrarysBackupKey)
{
    FillDatabase(kView64);
    const RegTree before = Snapshot(kDbPath, kView64);
    TestConverter converter(0, 0, L"DB-v2.0");
    ASSERT_EQ(S_OK, converter.Backup());
    ChangeDatabase(kView64);
    SetString(kDbPath, L"Backup", L"software\\norvane\\db-V2.0", kView64);

    EXPECT_EQ(S_OK, converter.Rollback());
    const RegTree after = Snapshot(kDbPath, kView64);
    EXPECT_TRUE(before == after) << DiffTrees(before, after);
    EXPECT_FALSE(KeyExists(kBackup20Path, kView64));
}

// ---------------------------------------------------------------------------
// Trace

namespace {

class BaseConverterTraceTest : public TraceCaptureTest {};

} // namespace

TEST_F(BaseConverterTraceTest, ConstructorTracesItsScopeAndTheOpenResult)
{
    SetString(kDbPath, L"Version", L"1.0", kView32);
    { TestConverter found(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0"); }
    { TestConverter missing(0, KEY_WOW64_32KEY, L"DB-v1.0"); }
    EXPECT_EQ((Lines{"> CBaseConverter::CBaseConverter", "<",
                     "> CBaseConverter::CBaseConverter", "E -2147024894 ", "<"}),
              trace.Lines())
        << trace.Dump();
}

TEST_F(BaseConverterTraceTest, SuccessfulConvertTracesBackupCopyCleanupAndDelete)
{
    SetString(kDbPath, L"Version", L"1.0", kView32);
    SetDword(Path(kDbPath, L"Sub").c_str(), L"x", 1, kView32);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    ASSERT_EQ(S_OK, converter.Convert());
    EXPECT_EQ((Lines{
                  "> CBaseConverter::CBaseConverter", "<",
                  "> CBaseConverter::Convert",
                  "> CBaseConverter::Backup",
                  "> CBaseConverter::CopyKey", "> CBaseConverter::CopyKey", "<", "<",
                  "U backup key created, name stored",
                  "<",
                  "> CBaseConverter::Cleanup",
                  "U cleaning up backup key SOFTWARE\\Norvane\\DB-v1.0",
                  "> CBaseConverter::DeleteKey", "> CBaseConverter::DeleteKey", "<", "<",
                  "<",
                  "<",
              }),
              trace.Lines())
        << trace.Dump();
}

TEST_F(BaseConverterTraceTest, FailedConvertTracesRestoreAndTheFailingCode)
{
    SetString(kDbPath, L"Version", L"1.0", kView64);
    TestConverter converter(0, 0, L"DB-v2.0");
    converter.convertResult = kConvertFailure;
    ASSERT_EQ(kConvertFailure, converter.Convert());
    EXPECT_EQ((Lines{
                  "> CBaseConverter::CBaseConverter", "<",
                  "> CBaseConverter::Convert",
                  "> CBaseConverter::Backup",
                  "> CBaseConverter::CopyKey", "<",
                  "U backup key created, name stored",
                  "<",
                  "> CBaseConverter::Rollback",
                  "U restoring database from backup key SOFTWARE\\Norvane\\DB-v2.0",
                  "> CBaseConverter::DeleteKey", "<",
                  "> CBaseConverter::CopyKey", "<",
                  "> CBaseConverter::DeleteKey", "<",
                  "<",
                  "E -2146893813 ",
                  "<",
              }),
              trace.Lines())
        << trace.Dump();
}

TEST_F(BaseConverterTraceTest, EmptyValueTracesTheCopyFailureAndAnEmptyRollback)
{
    SetBinary(kDbPath, L"Hollow", {}, kView32);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    ASSERT_EQ(HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY), converter.Convert());
    EXPECT_EQ((Lines{
                  "> CBaseConverter::CBaseConverter", "<",
                  "> CBaseConverter::Convert",
                  "> CBaseConverter::Backup",
                  "> CBaseConverter::CopyKey", "E -2147024888 ", "<",
                  "U value \"Hollow\" of HKLM\\SOFTWARE\\Norvane\\DB is empty: the backup cannot copy empty values",
                  "E -2147024888 ",
                  "<",
                  "> CBaseConverter::Rollback",
                  "U backup key name is empty, nothing to do",
                  "<",
                  "E -2147024888 ",
                  "<",
              }),
              trace.Lines())
        << trace.Dump();
}

TEST_F(BaseConverterTraceTest, RollbackAndCleanupWithoutBackupNameTraceNothingToDo)
{
    SetString(kDbPath, L"Version", L"1.0", kView32);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    EXPECT_EQ(S_FALSE, converter.Rollback());
    EXPECT_EQ(S_FALSE, converter.Cleanup());
    EXPECT_EQ((Lines{
                  "> CBaseConverter::CBaseConverter", "<",
                  "> CBaseConverter::Rollback", "U backup key name is empty, nothing to do", "<",
                  "> CBaseConverter::Cleanup", "U backup key name is empty, nothing to do", "<",
              }),
              trace.Lines())
        << trace.Dump();
}

TEST_F(BaseConverterTraceTest, RollbackWhoseFirstDeleteFailsTracesOnlyThatDelete)
{
    SetString(kDbPath, L"Backup", kBackup10, kView32);
    SetDword(kBackup10, L"Saved", 5, kView32);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    EXPECT_EQ(S_OK, converter.Rollback());
    EXPECT_EQ((Lines{
                  "> CBaseConverter::CBaseConverter", "<",
                  "> CBaseConverter::Rollback",
                  "U restoring database from backup key SOFTWARE\\Norvane\\DB-v1.0",
                  "> CBaseConverter::DeleteKey", "E -2147024894 ", "<",
                  "<",
              }),
              trace.Lines())
        << trace.Dump();
}

TEST_F(BaseConverterTraceTest, ForeignBackupValueIsNamedInTheTraceOfRollbackAndCleanup)
{
    SetString(kDbPath, L"Backup", L"SAM\\SAM", kView32);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    EXPECT_EQ(E_ACCESSDENIED, converter.Rollback());
    EXPECT_EQ(E_ACCESSDENIED, converter.Cleanup());
    EXPECT_EQ((Lines{
                  "> CBaseConverter::CBaseConverter", "<",
                  "> CBaseConverter::Rollback",
                  "U refusing \"Backup\" value SAM\\SAM: not a backup key of this library",
                  "E -2147024891 ", "<",
                  "> CBaseConverter::Cleanup",
                  "U refusing \"Backup\" value SAM\\SAM: not a backup key of this library",
                  "E -2147024891 ", "<",
              }),
              trace.Lines())
        << trace.Dump();
}

TEST_F(BaseConverterTraceTest, CleanupOfMissingBackupKeyTracesTheDeleteFailure)
{
    SetString(kDbPath, L"Backup", kBackup10, kView32);
    TestConverter converter(KEY_WOW64_32KEY, KEY_WOW64_32KEY, L"DB-v1.0");
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), converter.Cleanup());
    EXPECT_EQ((Lines{
                  "> CBaseConverter::CBaseConverter", "<",
                  "> CBaseConverter::Cleanup",
                  "U cleaning up backup key SOFTWARE\\Norvane\\DB-v1.0",
                  "> CBaseConverter::DeleteKey", "E -2147024894 ", "<",
                  "E -2147024894 ",
                  "<",
              }),
              trace.Lines())
        << trace.Dump();
}

TEST_F(BaseConverterTest, TheBasesOwnStepsChangeNothingSoConvertLeavesTheDatabaseAsItWas)
{
    FillDatabase(kView32);
    const RegTree before = Snapshot(kDbPath, kView32);
    BareConverter converter;
    // Backup, the base's conversion step and cleanup: the backup made and removed again.
    EXPECT_EQ(S_OK, converter.Convert());
    const RegTree after = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(before == after) << DiffTrees(before, after);
    EXPECT_FALSE(KeyExists(kBackup20Path, kView32));
    EXPECT_FALSE(KeyExists(kBackup20Path, kView64));
    // With no backup left, the base's rollback step adds nothing to "nothing to do".
    EXPECT_EQ(S_FALSE, converter.Rollback());
    const RegTree rolledBack = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(before == rolledBack) << DiffTrees(before, rolledBack);
}

TEST_F(BaseConverterTest, ATargetVersionWithoutTextIsKeptAsEmptyText)
{
    BareConverter converter(0x00030000, nullptr);
    EXPECT_EQ(0x00030000u, converter.GetTargetVersion());
    EXPECT_EQ(L"", converter.GetTargetVersionText());
}

// A 3.0 converter made for a 2.0 database with Data and MainDB, whose database then
// changes: it goes on while the database is still one it converts (a 2.x or 3.x
// "Version", and not the 3.0 layout), and refuses otherwise, changing nothing.
class StillConvertsTest : public BaseConverterTest {
protected:
    void SetUp() override
    {
        BaseConverterTest::SetUp();
        FillDatabase(kView32);
        SetString(kDbPath, L"Version", L"2.0", kView32);
        CreateKeyPath(Path(kDbPath, L"MainDB").c_str(), kView32);
    }
    void ExpectConvert(BareConverter& converter, HRESULT expected, int line)
    {
        SCOPED_TRACE(testing::Message() << "checked at line " << line);
        const RegTree before = Snapshot(kDbPath, kView32);
        EXPECT_EQ(expected, converter.Convert());
        const RegTree after = Snapshot(kDbPath, kView32);
        EXPECT_TRUE(before == after) << DiffTrees(before, after);
        EXPECT_FALSE(KeyExists(kBackup20Path, kView32));
    }
};

TEST_F(StillConvertsTest, MainDbGoneWithDataLeftStillConverts)
{
    BareConverter converter(0x00030000, L"3.0");
    DeleteTree(Path(kDbPath, L"MainDB").c_str(), kView32);
    ExpectConvert(converter, S_OK, __LINE__);
}

TEST_F(StillConvertsTest, TheThreeZeroLayoutIsNotConvertedAgain)
{
    BareConverter converter(0x00030000, L"3.0");
    DeleteTree(Path(kDbPath, L"MainDB").c_str(), kView32);
    DeleteTree(Path(kDbPath, L"Data").c_str(), kView32);
    ExpectConvert(converter, nvframe::NV_E_CONVERSION_BUSY, __LINE__);
}

TEST_F(StillConvertsTest, AThreeXVersionWithMainDbStillConverts)
{
    BareConverter converter(0x00030000, L"3.0");
    SetString(kDbPath, L"Version", L"3.1", kView32);
    ExpectConvert(converter, S_OK, __LINE__);
}

TEST_F(StillConvertsTest, AVersionOfAnEarlierFormatIsRefused)
{
    BareConverter converter(0x00030000, L"3.0");
    SetString(kDbPath, L"Version", L"1.0", kView32);
    ExpectConvert(converter, nvframe::NV_E_CONVERSION_BUSY, __LINE__);
}
