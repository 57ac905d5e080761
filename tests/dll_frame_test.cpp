// The real DLL: its exports, and the version detection that runs when it is
// loaded. Every case arranges the registry first, then loads the library.
#include <windows.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/procaddress.h"
#include "support/dll_loader.h"
#include "support/legacy_db_tree.h"
#include "support/registry_sandbox.h"
#include "support/trace_capture.h"
#include "support/db_paths.h"
#include "support/sample_databases.h"
#include "support/frame_traces.h"
#include "writer/legacy_writer.h"

using namespace nvtest;

namespace {

constexpr const wchar_t kVendor[] = L"SOFTWARE\\Norvane";
constexpr DWORD kSentinel = 0xdeadbeef;

class DllFrameTest : public RegistrySandbox {
protected:
    struct Versions {
        HRESULT hr;
        DWORD current;
        DWORD target;
    };
    static Versions Query(LoadedLibrary& dll)
    {
        Versions v{E_NOTIMPL, kSentinel, kSentinel};
        v.hr = dll.GetDBVersion(&v.current, &v.target);
        return v;
    }
    static Versions Load()
    {
        LoadedLibrary dll;
        return Query(dll);
    }
    // The library's GetDBVersion answers S_OK with these versions; `line` is the caller's.
    static void ExpectDBVersion(int line, LoadedLibrary& dll, DWORD current, DWORD target)
    {
        SCOPED_TRACE(testing::Message() << "checked at line " << line);
        const Versions v = Query(dll);
        EXPECT_EQ(S_OK, v.hr);
        EXPECT_EQ(current, v.current);
        EXPECT_EQ(target, v.target);
    }
    // The same of a fresh load.
    static void ExpectLoadAnswers(int line, DWORD current, DWORD target)
    {
        LoadedLibrary dll;
        ExpectDBVersion(line, dll, current, target);
    }
};

// Both views of the suite's keys, to show a call changed nothing.
struct BothViews {
    RegTree view32 = Snapshot(kVendor, kView32);
    RegTree view64 = Snapshot(kVendor, kView64);
};

void ExpectUnchanged(const BothViews& before)
{
    BothViews after;
    EXPECT_TRUE(before.view32 == after.view32) << DiffTrees(before.view32, after.view32);
    EXPECT_TRUE(before.view64 == after.view64) << DiffTrees(before.view64, after.view64);
}

} // namespace

TEST_F(DllFrameTest, AllEightExportsAreUndecorated)
{
    LoadedLibrary dll;
    ASSERT_TRUE(dll.loaded());
    for (const char* name : {"Convert", "Rollback", "Cleanup", "GetDBVersion", "DllCanUnloadNow",
                             "DllGetClassObject", "DllRegisterServer", "DllUnregisterServer"}) {
        EXPECT_NE(nullptr, nv::GetProcAs<void*>(dll.module(), name)) << name;
    }
    for (const char* name : {"GetDBVersion@8", "_GetDBVersion@8", "Convert@0", "DllGetClassObject@24"})
        EXPECT_EQ(nullptr, nv::GetProcAs<void*>(dll.module(), name)) << name;
}

TEST_F(DllFrameTest, WithoutDatabaseTheActionsFailAndVersionsAreZero)
{
    LoadedLibrary dll;
    ASSERT_TRUE(dll.loaded());
    ExpectDBVersion(__LINE__, dll, 0u, 0u);
    EXPECT_EQ(E_FAIL, dll.Convert());
    EXPECT_EQ(E_FAIL, dll.Rollback());
    EXPECT_EQ(E_FAIL, dll.Cleanup());
    EXPECT_EQ(S_OK, dll.DllCanUnloadNow());
    EXPECT_FALSE(KeyExists(kVendor, kView32));
    EXPECT_FALSE(KeyExists(kVendor, kView64));
}

// "1.0" in the 32-bit view only: the first open fails, the second finds it, and
// Convert runs a CConverter2 to the end: "2.0", no backup left in either view.
TEST_F(DllFrameTest, Version10In32BitViewOnlyIsDetectedAndConvertedByCConverter2)
{
    ASSERT_EQ(S_OK, WriteDb10(3, 1));
    ASSERT_FALSE(KeyExists(kVendor, kView64));

    {
        LoadedLibrary dll;
        ExpectDBVersion(__LINE__, dll, 0x00010000u, 0x00020000u);
        EXPECT_EQ(S_OK, dll.Convert());
        // The backup is gone, so a later Rollback or Cleanup has nothing to do.
        EXPECT_EQ(S_FALSE, dll.Rollback());
        EXPECT_EQ(S_FALSE, dll.Cleanup());
    }
    std::wstring version;
    EXPECT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    EXPECT_EQ(std::wstring(L"2.0"), version);
    RegValue ignored;
    EXPECT_FALSE(GetValue(kDbPath, L"Backup", kView32, &ignored));
    EXPECT_EQ(std::vector<std::wstring>{L"DB"}, SubkeyNames(kVendor, kView32));
    EXPECT_FALSE(KeyExists(kVendor, kView64));
}

// A failed conversion of an earlier process left its backup and "Backup" in the
// 32-bit view. A library loaded afresh (still "1.0": a CConverter2) cleans up
// from the registry state alone.
TEST_F(DllFrameTest, CleanupInALaterProcessRemovesTheBackupLeftBehind)
{
    SetString(kDbPath, L"Version", L"1.0", kView32);
    SetString(kDbPath, L"Backup", L"SOFTWARE\\Norvane\\DB-v1.0", kView32);
    SetString(L"SOFTWARE\\Norvane\\DB-v1.0", L"Version", L"1.0", kView32);
    SetDword(L"SOFTWARE\\Norvane\\DB-v1.0\\Sub", L"x", 1, kView32);
    {
        LoadedLibrary dll;
        EXPECT_EQ(S_OK, dll.Cleanup());
        EXPECT_EQ(S_FALSE, dll.Cleanup());
    }
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB-v1.0", kView32));
    RegTree expected;
    expected.exists = true;
    expected.keys = {L""};
    expected.values[L"|Version"] = RegValue{REG_SZ, {'1', 0, '.', 0, '0', 0, 0, 0}};
    const RegTree db = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(expected == db) << DiffTrees(expected, db);
    EXPECT_FALSE(KeyExists(kVendor, kView64));
}

// The same leftovers, rolled back in a later process: Rollback deletes and
// restores the database in the library's own (64-bit) view, where there is none,
// so its first delete fails, nothing else happens and it still answers S_OK. The
// 32-bit database, its "Backup" value and the 32-bit backup all stay as they were.
TEST_F(DllFrameTest, RollbackInALaterProcessCannotReachThe32BitDatabase)
{
    SetString(kDbPath, L"Version", L"1.0", kView32);
    SetString(kDbPath, L"Backup", L"SOFTWARE\\Norvane\\DB-v1.0", kView32);
    SetString(L"SOFTWARE\\Norvane\\DB-v1.0", L"Version", L"1.0", kView32);
    const BothViews before;
    {
        LoadedLibrary dll;
        EXPECT_EQ(S_OK, dll.Rollback());
    }
    ExpectUnchanged(before);
}

TEST_F(DllFrameTest, VersionInOwnViewWinsOverThe32BitView)
{
    SetVersionInBothViews(L"2.0", L"1.0");
    // The 2.0 found in the library's own view chooses CConverter3.
    ExpectLoadAnswers(__LINE__, 0x00020000u, 0x00030000u);
}

TEST_F(DllFrameTest, Version30GetsCConverter3OnlyWhileMainDBStillOpens)
{
    SetString(kDbPath, L"Version", L"3.0", kView32);
    CreateKeyPath(kMainDbPath, kView32);
    {
        LoadedLibrary dll;
        ExpectDBVersion(__LINE__, dll, 0x00030000u, 0x00030000u);
    }
    DeleteTree(kMainDbPath, kView32);
    {
        LoadedLibrary dll;
        ExpectDBVersion(__LINE__, dll, 0x00030000u, 0u);
        EXPECT_EQ(E_FAIL, dll.Convert());
    }
}

TEST_F(DllFrameTest, VersionTextsAndTypesFollowTheReaderAndParseRules)
{
    struct Case {
        const char* what;
        DWORD type;
        std::wstring text;
        DWORD version;
        DWORD target;
    } cases[] = {
        {"no point", REG_SZ, L"1", 0x00010000, 0x00020000},
        {"backup name", REG_SZ, L"DB-v1.0", 0, 0},
        {"minor", REG_SZ, L"1.5", 0x00010005, 0x00020000},
        {"expand string", REG_EXPAND_SZ, L"1.0", 0x00010000, 0x00020000},
        {"unknown major", REG_SZ, L"7.0", 0x00070000, 0},
    };
    for (const Case& c : cases) {
        WipeSuiteKeys();
        SetString(kDbPath, L"Version", c.text, kView32, c.type);
        SCOPED_TRACE(c.what);
        ExpectLoadAnswers(__LINE__, c.version, c.target);
    }
}

TEST_F(DllFrameTest, DwordVersionIsRefusedByTheReader)
{
    SetDword(kDbPath, L"Version", 0x00010000, kView32);
    ExpectLoadAnswers(__LINE__, 0u, 0u);
}

TEST_F(DllFrameTest, GetDBVersionWithOneNullPointerIsInvalidArgAndLeavesTheOtherAlone)
{
    SetString(kDbPath, L"Version", L"1.0", kView32);
    LoadedLibrary dll;
    DWORD value = kSentinel;
    EXPECT_EQ(E_INVALIDARG, dll.GetDBVersion(nullptr, &value));
    EXPECT_EQ(kSentinel, value);
    EXPECT_EQ(E_INVALIDARG, dll.GetDBVersion(&value, nullptr));
    EXPECT_EQ(kSentinel, value);
}

TEST_F(DllFrameTest, EveryLoadDetectsTheVersionAfresh)
{
    SetString(kDbPath, L"Version", L"1.0", kView32);
    EXPECT_EQ(0x00010000u, Load().current);
    SetString(kDbPath, L"Version", L"2.0", kView32);
    EXPECT_EQ(0x00020000u, Load().current);
    DeleteTree(kDbPath, kView32);
    EXPECT_EQ(0u, Load().current);
}

// ---------------------------------------------------------------------------
// Trace

namespace {

class DllFrameTraceTest : public TraceCaptureTest {};

} // namespace

TEST_F(DllFrameTraceTest, LoadTracesModuleInitAndVersionDetectionIn32BitView)
{
    SetString(kDbPath, L"Version", L"1.0", kView32);
    {
        LoadedLibrary dll;
        DWORD current = kSentinel, target = kSentinel;
        EXPECT_EQ(S_OK, dll.GetDBVersion(&current, &target));
    }
    // The converter is destroyed with the static objects, after detach.
    Lines expected = {"> CNVComModule::Init", "<"};
    expected.insert(expected.end(), kDetected10Lines.begin(), kDetected10Lines.end());
    EXPECT_EQ(expected, trace.Lines())
        << trace.Dump();
}

TEST_F(DllFrameTraceTest, UnknownVersionTracesReturningNull)
{
    SetString(kDbPath, L"Version", L"0.9", kView64);
    {
        LoadedLibrary dll;
        EXPECT_EQ(E_FAIL, dll.Convert());
    }
    EXPECT_EQ((Lines{
                  "> CNVComModule::Init", "<",
                  "> CDBConverter::FinalConstruct",
                  "U wszVersion = 0.9",
                  "U m_dwVersion = 0x9",
                  "> CBaseConverter::CreateConverter", "U Returning NULL", "<",
                  "<",
              }),
              trace.Lines())
        << trace.Dump();
}

TEST_F(DllFrameTraceTest, LoadWithoutDatabaseTracesTheOpenError)
{
    {
        LoadedLibrary dll;
        DWORD current = kSentinel, target = kSentinel;
        EXPECT_EQ(S_OK, dll.GetDBVersion(&current, &target));
    }
    EXPECT_EQ((Lines{"> CNVComModule::Init", "<", "> CDBConverter::FinalConstruct", "E -2147024894 ", "<"}),
              trace.Lines())
        << trace.Dump();
}

TEST_F(DllFrameTraceTest, Version30WithoutMainDBReturnsNull)
{
    SetString(kDbPath, L"Version", L"3.0", kView32);
    {
        LoadedLibrary dll;
        EXPECT_EQ(E_FAIL, dll.Convert());
    }
    EXPECT_EQ((Lines{"> CBaseConverter::CreateConverter", "U Returning NULL", "<"}),
              [&] {
                  Lines all = trace.Lines();
                  return all.size() >= 4 ? Lines(all.end() - 4, all.end() - 1) : all;
              }())
        << trace.Dump();
    EXPECT_TRUE(trace.Contains("U m_dwVersion = 0x30000")) << trace.Dump();
}
