// CConverter3 in process: construction, what the factory makes of versions 2 and 3,
// and the converter's own cleanup and rollback.
#include <windows.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "common/regkey.h"
#include "converter3/converter3.h"
#include "frame/baseconverter.h"
#include "support/conversion_fixture.h"
#include "support/registry_sandbox.h"
#include "support/test_converter.h"
#include "support/trace_capture.h"

using namespace nvtest;

namespace {

size_t CountEnters(const std::vector<std::string>& lines, const std::string& scope)
{
    size_t n = 0;
    for (const std::string& l : lines)
        n += (l == "> " + scope) ? 1 : 0;
    return n;
}

class Converter3Test : public TraceCaptureTest {
protected:
    void TearDown() override
    {
        for (const auto& [path, view] : m_locked)
            UnlockRegistryKey(path, view);
        TraceCaptureTest::TearDown();
    }
    void Lock(const std::wstring& path, REGSAM view)
    {
        m_locked.emplace_back(path, view);
        LockRegistryKey(path, view);
    }

    // A 2.0 database's key skeleton in one view.
    static void MakeOldDatabase(REGSAM view, const std::vector<std::wstring>& userKeys)
    {
        SetString(kDbPath, L"Version", L"2.0", view);
        SetDword(L"SOFTWARE\\Norvane\\DB\\MainDB\\Users", L"", 2, view);
        SetString(L"SOFTWARE\\Norvane\\DB\\MainDB\\Users\\Index\\NameIndex", L"user000",
                  L"{11111111-2222-3333-4444-555555555555}", view);
        SetDword(L"SOFTWARE\\Norvane\\DB\\Cache\\NVDOMAIN1\\Users", L"", 0, view);
        SetDword(L"SOFTWARE\\Norvane\\DB\\Policy\\Accounts\\S-1-5-21-1-2-3-1000", L"ActCtrl", 0x10, view);
        CreateKeyPath(kDataUsersPath, view);
        SetBinary(kDataPath, L"Marker", {1, 2, 3}, view);
        for (const std::wstring& k : userKeys)
            SetBinary((std::wstring(kDataUsersPath) + L"\\" + k).c_str(), L"", {0x4E, 0x56, 0x4F, 0x41}, view);
    }

    std::vector<std::pair<std::wstring, REGSAM>> m_locked;
};

} // namespace

TEST_F(Converter3Test, ConstructionTargetsVersion30InThe32BitViewWithBackupDB20InTheOwnView)
{
    SetString(kDbPath, L"Version", L"2.0", kView32);
    CConverter3 converter;
    ExpectConverterOpenedFor(converter, 0x00030000u, L"3.0", L"DB-v2.0", 0u);
    EXPECT_EQ((std::vector<std::string>{"> CBaseConverter::CBaseConverter", "<"}), trace.Lines());
    EXPECT_EQ(&converter.GetBackupName(), &CConverter3().GetBackupName()); // one process-wide string
}

TEST_F(Converter3Test, DatabaseOnlyInThe64BitViewIsNotOpened)
{
    SetString(kDbPath, L"Version", L"2.0", kView64);
    CConverter3 converter;
    EXPECT_FALSE(converter.HasDatabaseKey());
    EXPECT_EQ((std::vector<std::string>{"> CBaseConverter::CBaseConverter", "E -2147024894 ", "<"}), trace.Lines());
}

TEST_F(Converter3Test, OperationsAreReachedThroughTheBaseConverter)
{
    SetString(kDbPath, L"Version", L"2.0", kView32);
    std::unique_ptr<CBaseConverter> base(new CConverter3());
    EXPECT_EQ(L"DB-v2.0", base->GetBackupName());
    EXPECT_EQ(0u, base->GetBackupView());
    EXPECT_EQ(S_OK, base->do_Rollback());
    EXPECT_EQ(S_OK, base->do_Cleanup());
    EXPECT_EQ(S_OK, base->do_Backup()); // inherited unchanged
    EXPECT_EQ(1u, trace.Count("> CConverter3::do_Rollback"));
    EXPECT_EQ(1u, trace.Count("> CConverter3::do_Cleanup"));
}

TEST_F(Converter3Test, FactoryMakesCConverter3ForMajorVersion2WhateverTheMinor)
{
    nv::CNVRegKey unused;
    for (DWORD version : {0x00020000u, 0x00020005u}) {
        std::unique_ptr<CBaseConverter> c(CBaseConverter::CreateConverter(version, unused));
        ASSERT_NE(nullptr, c.get());
        EXPECT_NE(nullptr, dynamic_cast<CConverter3*>(c.get()));
        EXPECT_EQ(0x00030000u, c->GetTargetVersion());
    }
    EXPECT_EQ(2u, trace.Count("U Using CConverter3"));
}

TEST_F(Converter3Test, FactoryMakesCConverter3ForMajorVersion3OnlyWhileMainDBOpensInThe32BitView)
{
    nv::CNVRegKey unused;
    CreateKeyPath(kMainDbPath, kView64);
    std::unique_ptr<CBaseConverter> none(CBaseConverter::CreateConverter(0x00030000, unused));
    EXPECT_EQ(nullptr, none.get());
    EXPECT_EQ((std::vector<std::string>{"U Returning NULL"}), OwnLines(trace, "CBaseConverter::CreateConverter"));

    CreateKeyPath(kMainDbPath, kView32);
    std::unique_ptr<CBaseConverter> c(CBaseConverter::CreateConverter(0x00030000, unused));
    ASSERT_NE(nullptr, c.get());
    EXPECT_NE(nullptr, dynamic_cast<CConverter3*>(c.get()));
    EXPECT_EQ((std::vector<std::string>{"U Using CConverter3"}), OwnLines(trace, "CBaseConverter::CreateConverter", 1));
}

TEST_F(Converter3Test, RollbackChangesNothingInEitherView)
{
    MakeOldDatabase(kView32, {L"{AAAAAAAA-0000-0000-0000-000000000001}"});
    MakeOldDatabase(kView64, {});
    SetString(kBackup20Path, L"Version", L"2.0", kView64);
    const SuiteSnapshot before = SnapshotSuite();
    CConverter3 converter;
    EXPECT_EQ(S_OK, converter.do_Rollback());
    ExpectSuiteUnchanged(before, __LINE__);
    EXPECT_EQ((std::vector<std::string>{}), trace.LinesInScope("CConverter3::do_Rollback"));
    EXPECT_EQ(1u, trace.Count("> CConverter3::do_Rollback"));
}

TEST_F(Converter3Test, CleanupWithOneUserKeyLeftDeletesNothing)
{
    MakeOldDatabase(kView32, {L"{AAAAAAAA-0000-0000-0000-000000000001}"});
    MakeOldDatabase(kView64, {});
    const SuiteSnapshot before = SnapshotSuite();
    CConverter3 converter;
    EXPECT_EQ(S_OK, converter.do_Cleanup());
    ExpectSuiteUnchanged(before, __LINE__);
    EXPECT_EQ((std::vector<std::string>{}), trace.LinesInScope("CConverter3::do_Cleanup"));
}

TEST_F(Converter3Test, CleanupWithNoUserKeyLeftDeletesDataThenMainDBInThe32BitViewOnly)
{
    MakeOldDatabase(kView32, {});
    MakeOldDatabase(kView64, {});
    RegTree expected32 = Snapshot(L"SOFTWARE\\Norvane", kView32);
    const RegTree before64 = Snapshot(L"SOFTWARE\\Norvane", kView64);

    CConverter3 converter;
    EXPECT_EQ(S_OK, converter.do_Cleanup());

    EXPECT_FALSE(KeyExists(kDataPath, kView32));
    EXPECT_FALSE(KeyExists(kMainDbPath, kView32));
    // Everything else of the old database stays: version, cache, policies.
    RegTree after32 = Snapshot(L"SOFTWARE\\Norvane", kView32);
    RegTree rest;
    rest.exists = true;
    for (const std::wstring& k : expected32.keys)
        if (k.rfind(L"DB\\Data", 0) != 0 && k.rfind(L"DB\\MainDB", 0) != 0)
            rest.keys.push_back(k);
    for (const auto& [name, value] : expected32.values)
        if (name.rfind(L"DB\\Data", 0) != 0 && name.rfind(L"DB\\MainDB", 0) != 0)
            rest.values[name] = value;
    EXPECT_EQ("", DiffTrees(rest, after32));
    EXPECT_TRUE(KeyExists(L"SOFTWARE\\Norvane\\DB\\Cache\\NVDOMAIN1\\Users", kView32));
    EXPECT_EQ("", DiffTrees(before64, Snapshot(L"SOFTWARE\\Norvane", kView64)));

    EXPECT_EQ((std::vector<std::string>{"U Completely delete old DB"}), OwnLines(trace, "CConverter3::do_Cleanup"));
    // Data first (one key below it: Users), then MainDB (three below it).
    const std::vector<std::string> inside = trace.LinesInScope("CConverter3::do_Cleanup");
    EXPECT_EQ(6u, CountEnters(inside, "CBaseConverter::DeleteKey"));
    EXPECT_EQ(1u, CountEnters(trace.LinesInScope("CBaseConverter::DeleteKey", 0), "CBaseConverter::DeleteKey"));
    EXPECT_EQ(3u, CountEnters(trace.LinesInScope("CBaseConverter::DeleteKey", 2), "CBaseConverter::DeleteKey"));
}

TEST_F(Converter3Test, CleanupLooksAtTheUsersOfThe32BitView)
{
    MakeOldDatabase(kView32, {L"{AAAAAAAA-0000-0000-0000-000000000001}"});
    const RegTree before32 = Snapshot(L"SOFTWARE\\Norvane", kView32);
    CreateKeyPath(kDataUsersPath, kView64); // empty in the other view
    CConverter3 converter;
    EXPECT_EQ(S_OK, converter.do_Cleanup());
    EXPECT_EQ("", DiffTrees(before32, Snapshot(L"SOFTWARE\\Norvane", kView32)));
    EXPECT_TRUE(KeyExists(kDataUsersPath, kView64));
    EXPECT_FALSE(trace.Contains("U Completely delete old DB"));
}

TEST_F(Converter3Test, CleanupWithoutUsersKeyDoesNothingAndASecondCleanupIsHarmless)
{
    MakeOldDatabase(kView32, {});
    CConverter3 converter;
    EXPECT_EQ(S_OK, converter.do_Cleanup());
    ASSERT_FALSE(KeyExists(kDataPath, kView32));
    const RegTree after = Snapshot(L"SOFTWARE\\Norvane", kView32);
    EXPECT_EQ(S_OK, converter.do_Cleanup());
    EXPECT_EQ("", DiffTrees(after, Snapshot(L"SOFTWARE\\Norvane", kView32)));
    EXPECT_EQ(1u, trace.Count("U Completely delete old DB"));
    EXPECT_EQ((std::vector<std::string>{}), trace.LinesInScope("CConverter3::do_Cleanup", 1));
}

TEST_F(Converter3Test, CleanupIgnoresAFailedDeleteOfDataAndStillDeletesMainDB)
{
    MakeOldDatabase(kView32, {});
    CreateKeyPath(L"SOFTWARE\\Norvane\\DB\\Data\\Locked", kView32);
    Lock(L"SOFTWARE\\Norvane\\DB\\Data\\Locked", kView32);
    CConverter3 converter;
    EXPECT_EQ(S_OK, converter.do_Cleanup());
    EXPECT_TRUE(KeyExists(L"SOFTWARE\\Norvane\\DB\\Data\\Locked", kView32));
    EXPECT_FALSE(KeyExists(kMainDbPath, kView32));
    EXPECT_EQ((std::vector<std::string>{"U Completely delete old DB"}), OwnLines(trace, "CConverter3::do_Cleanup"));
    // 0x80070005, in the locked key's scope and in Data's.
    EXPECT_EQ(2u, trace.Count("E -2147024891 "));
}
