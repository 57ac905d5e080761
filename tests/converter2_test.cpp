// CConverter2 in this process: its base settings, backup name and view, its trace
// scopes, the name index operations through the converter, do_Convert on its own
// (without the base converter's backup), and the factory's choice for major 1.
#include <windows.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <memory>

#include "common/regkey.h"
#include "converter2/converter2.h"
#include "support/legacy_db_tree.h"
#include "support/registry_sandbox.h"
#include "support/sample_databases.h"
#include "support/test_converter.h"
#include "support/trace_capture.h"
#include "support/db_paths.h"
#include "support/computer_name.h"
#include "writer/legacy_writer.h"

using namespace nvtest;

namespace {


std::vector<BYTE> Id(BYTE seed) { return std::vector<BYTE>(16, seed); }

// A scope's enter and leave for every key of the tree at path, in the registry's
// enumeration order: what a recursive CopyKey or DeleteKey of that tree traces.
void TreeScopeLines(const std::wstring& path, REGSAM view, const std::string& scope, std::vector<std::string>& out)
{
    out.push_back("> " + scope);
    for (const std::wstring& child : SubkeyNames(path.c_str(), view))
        TreeScopeLines(path + L"\\" + child, view, scope, out);
    out.push_back("<");
}

class Converter2Test : public TraceCaptureTest {};

} // namespace

TEST_F(Converter2Test, BaseIsBuiltForFormat20WithTheDatabaseOpenInThe32BitView)
{
    SetString(kDbPath, L"Version", L"1.0", kView32);
    CConverter2 converter;
    ExpectConverterOpenedFor(converter, 0x00020000u, L"2.0", L"DB-v1.0", static_cast<REGSAM>(0x200));
    // One process-wide string, not a fresh one per call or per converter.
    CConverter2 other;
    EXPECT_EQ(&converter.GetBackupName(), &other.GetBackupName());
}

TEST_F(Converter2Test, DatabaseOnlyInThe64BitViewIsNotOpened)
{
    SetString(kDbPath, L"Version", L"1.0", kView64);
    CConverter2 converter;
    EXPECT_FALSE(converter.HasDatabaseKey());
}

TEST_F(Converter2Test, ConstructorAndDestructorOpenTheirScopesAroundTheBase)
{
    SetString(kDbPath, L"Version", L"1.0", kView32);
    {
        CConverter2 converter;
    }
    EXPECT_EQ((std::vector<std::string>{"> CBaseConverter::CBaseConverter", "<", "> CConverter2::CConverter2", "<",
                                        "> CConverter2::~CConverter2", "<"}),
              trace.Lines())
        << trace.Dump();
}

TEST_F(Converter2Test, RollbackAndCleanupHooksTraceAndChangeNothing)
{
    nvwriter::DbOptions options;
    options.users = 6;
    nvwriter::DbRecord record;
    ASSERT_EQ(S_OK, nvwriter::WriteDatabase(options, &record));
    CConverter2 converter;
    trace.Start();
    EXPECT_EQ(S_OK, converter.do_Rollback());
    EXPECT_EQ(S_OK, converter.do_Cleanup());
    EXPECT_EQ((std::vector<std::string>{"> CConverter2::do_Rollback", "<", "> CConverter2::do_Cleanup", "<"}),
              trace.Lines())
        << trace.Dump();
    RegTree expected = ToRegTree(record);
    RegTree actual = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(expected == actual) << DiffTrees(expected, actual);
}

TEST_F(Converter2Test, CollectListsDomainsInOrdinalOrderThenTheMachine)
{
    CreateKeyPath(DbPath(L"Cache\\a").c_str(), kView32);
    CreateKeyPath(DbPath(L"Cache\\B").c_str(), kView32);
    CConverter2 converter;
    trace.Start();
    nv::NameIndexMap map;
    nv::PolicyKeyList list;
    ASSERT_EQ(S_OK, converter.CollectNameIndexAndPolicies(map, list));
    EXPECT_EQ((nv::NameIndexMap{{L"B", L"Cache\\B\\Users\\Index\\NameIndex"},
                                {L"a", L"Cache\\a\\Users\\Index\\NameIndex"},
                                {ComputerName(), L"MainDB\\Users\\Index\\NameIndex"}}),
              map);
    nv::PolicyKeyList expected;
    for (const auto& name : SubkeyNames(DbPath(L"Cache").c_str(), kView32))
        expected.push_back(L"Cache\\" + name + L"\\Policies");
    expected.push_back(L"Data\\Policies");
    EXPECT_EQ(expected, list);
    EXPECT_EQ((std::vector<std::string>{"> CConverter2::CollectNameIndexAndPolicies", "<"}), trace.Lines())
        << trace.Dump();
}

TEST_F(Converter2Test, ConvertNameIndexDeletesAliceSlashAndKeepsNote)
{
    const std::wstring index = DbPath(L"MainDB\\Users\\Index\\NameIndex");
    SetBinary(index.c_str(), L"alice/", Id(0xA1), kView32);
    SetBinary(index.c_str(), L"note", {1, 2, 3, 4}, kView32);
    SetString(kDbPath, L"Version", L"1.0", kView32);
    RegTree expected = Snapshot(kDbPath, kView32);
    ASSERT_EQ(1u, expected.values.erase(L"MainDB\\Users\\Index\\NameIndex|alice/"));

    CConverter2 converter;
    trace.Start();
    EXPECT_EQ(S_OK, converter.ConvertNameIndexTo20(L"MainDB\\Users\\Index\\NameIndex"));
    RegTree actual = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(expected == actual) << DiffTrees(expected, actual);
    EXPECT_FALSE(KeyExists(kDbPath, kView64));
    EXPECT_EQ((std::vector<std::string>{"> CConverter2::ConvertNameIndexTo20", "<"}), trace.Lines())
        << trace.Dump();
}

TEST_F(Converter2Test, ConvertNameIndexOfAMissingKeyFailsWith80070002)
{
    SetString(kDbPath, L"Version", L"1.0", kView32);
    RegTree before = Snapshot(kDbPath, kView32);
    CConverter2 converter;
    trace.Start();
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND),
              converter.ConvertNameIndexTo20(L"MainDB\\Users\\Index\\NameIndex"));
    RegTree after = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(before == after) << DiffTrees(before, after);
    EXPECT_EQ((std::vector<std::string>{"> CConverter2::ConvertNameIndexTo20", "E -2147024894 ", "<"}),
              trace.Lines())
        << trace.Dump();
}

// The backup copy refuses an empty value before do_Convert could see it, so this
// behaviour is reachable only by calling the operation itself.
TEST_F(Converter2Test, ConvertNameIndexWithAnEmptyValueDeletesEarlierIdentifiersThenFailsWith80070008)
{
    const std::wstring index = DbPath(L"Cache\\DOM\\Users\\Index\\NameIndex");
    for (const wchar_t* name : {L"k1/", L"k2", L"k3", L"k4/", L"k5"}) {
        if (std::wstring(name) == L"k3")
            SetBinary(index.c_str(), name, {}, kView32);
        else
            SetBinary(index.c_str(), name, Id(static_cast<BYTE>(name[1])), kView32);
    }
    SetBinary(index.c_str(), L"k0", {9, 9, 9}, kView32);
    std::vector<std::wstring> order = ValueNames(index.c_str(), kView32);
    auto empty = std::find(order.begin(), order.end(), L"k3");
    ASSERT_NE(order.end(), empty);
    RegTree expected = Snapshot(kDbPath, kView32);
    const size_t deleted =
        EraseValuesNamed(expected, L"Cache\\DOM\\Users\\Index\\NameIndex", order.begin(), empty, L"k0");
    ASSERT_GT(deleted, 0u);

    CConverter2 converter;
    trace.Start();
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY),
              converter.ConvertNameIndexTo20(L"Cache\\DOM\\Users\\Index\\NameIndex"));
    RegTree actual = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(expected == actual) << DiffTrees(expected, actual);
    EXPECT_EQ((std::vector<std::string>{"> CConverter2::ConvertNameIndexTo20", "E -2147024888 ", "<"}),
              trace.Lines())
        << trace.Dump();
}

TEST_F(Converter2Test, DoConvertRewritesIndexesDeletesPoliciesAndPutsTheVersionLast)
{
    nvwriter::DbOptions options;
    options.users = 30;
    options.domainNames = {L"B", L"a"};
    options.seed = 21;
    nvwriter::DbRecord record;
    ASSERT_EQ(S_OK, nvwriter::WriteDatabase(options, &record));

    std::vector<std::string> expectedLines{"> CConverter2::do_Convert",
                                           "> CConverter2::CollectNameIndexAndPolicies",
                                           "<"};
    for (int i = 0; i < 3; ++i) {
        expectedLines.push_back("> CConverter2::ConvertNameIndexTo20");
        expectedLines.push_back("<");
    }
    expectedLines.push_back("U domains converted");
    for (const auto& name : SubkeyNames(DbPath(L"Cache").c_str(), kView32))
        TreeScopeLines(DbPath(L"Cache\\" + name + L"\\Policies"), kView32, "CBaseConverter::DeleteKey", expectedLines);
    TreeScopeLines(DbPath(L"Data\\Policies"), kView32, "CBaseConverter::DeleteKey", expectedLines);
    for (const char* line : {"U policies deleted", "U version put", "<"})
        expectedLines.push_back(line);

    CConverter2 converter;
    trace.Start();
    EXPECT_EQ(S_OK, converter.do_Convert());

    RegTree expected = ToRegTree(record.ExpectedAfter10To20(ComputerName()));
    RegTree actual = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(expected == actual) << DiffTrees(expected, actual);
    EXPECT_FALSE(KeyExists(kDbPath, kView64));
    EXPECT_EQ(expectedLines, trace.Lines()) << trace.Dump();
}

TEST_F(Converter2Test, DoConvertStopsAtTheFirstFailingStoreInOrdinalOrder)
{
    // "B" sorts before "a": with B's index missing, "a" is never reached.
    nvwriter::DbWriter writer(kDbPath, KEY_WOW64_32KEY);
    Write10Into(writer, 9, {L"a", L"B"}, 3);
    writer.DeleteKey(L"Cache\\B\\Users\\Index\\NameIndex");
    writer.Flush();
    const std::wstring computer = ComputerName();
    // The machine's store is converted first only when its name sorts before "B".
    nvwriter::DbRecord expectedRecord = writer.record();
    if (computer < L"B") {
        auto& values = expectedRecord.values[L"MainDB\\Users\\Index\\NameIndex"];
        for (auto it = values.begin(); it != values.end();)
            it = it->second.data.size() == 16 ? values.erase(it) : std::next(it);
    }

    CConverter2 converter;
    trace.Start();
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), converter.do_Convert());
    RegTree expected = ToRegTree(expectedRecord);
    RegTree actual = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(expected == actual) << DiffTrees(expected, actual);

    std::vector<std::string> expectedLines{"> CConverter2::do_Convert", "> CConverter2::CollectNameIndexAndPolicies",
                                           "<"};
    if (computer < L"B") {
        expectedLines.push_back("> CConverter2::ConvertNameIndexTo20");
        expectedLines.push_back("<");
    }
    for (const char* line : {"> CConverter2::ConvertNameIndexTo20", "E -2147024894 ", "<", "E -2147024894 ", "<"})
        expectedLines.push_back(line);
    EXPECT_EQ(expectedLines, trace.Lines()) << trace.Dump();
}

TEST_F(Converter2Test, MissingPolicyKeysAreNoFailure)
{
    nvwriter::DbWriter writer(kDbPath, KEY_WOW64_32KEY);
    Write10Into(writer, 4, {L"DOM"}, 4);
    writer.DeleteKey(L"Data\\Policies");
    writer.DeleteKey(L"Cache\\DOM\\Policies");
    writer.Flush();

    CConverter2 converter;
    trace.Start();
    EXPECT_EQ(S_OK, converter.do_Convert());
    RegTree expected = ToRegTree(writer.record().ExpectedAfter10To20(ComputerName()));
    RegTree actual = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(expected == actual) << DiffTrees(expected, actual);
    EXPECT_EQ((std::vector<std::string>{"> CConverter2::do_Convert", "> CConverter2::CollectNameIndexAndPolicies", "<",
                                        "> CConverter2::ConvertNameIndexTo20", "<", "> CConverter2::ConvertNameIndexTo20",
                                        "<", "U domains converted", "> CBaseConverter::DeleteKey", "E -2147024894 ",
                                        "<", "> CBaseConverter::DeleteKey", "E -2147024894 ", "<",
                                        "U policies deleted", "U version put", "<"}),
              trace.Lines())
        << trace.Dump();
}

TEST_F(Converter2Test, FactoryCreatesCConverter2ForMajorVersion1WhateverTheMinor)
{
    SetString(kDbPath, L"Version", L"1.0", kView32);
    nv::CNVRegKey unused;
    for (DWORD version : {0x00010000u, 0x00010007u}) {
        trace.Start();
        std::unique_ptr<CBaseConverter> converter(CBaseConverter::CreateConverter(version, unused));
        ASSERT_NE(nullptr, converter);
        EXPECT_NE(nullptr, dynamic_cast<CConverter2*>(converter.get()));
        EXPECT_EQ(0x00020000u, converter->GetTargetVersion());
        EXPECT_EQ((std::vector<std::string>{"> CBaseConverter::CreateConverter", "U Using CConverter2",
                                            "> CBaseConverter::CBaseConverter", "<", "> CConverter2::CConverter2", "<",
                                            "<"}),
                  trace.Lines())
            << trace.Dump();
    }
}
