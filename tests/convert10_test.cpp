// Format 1.0 databases converted end to end through the exports of the real
// library: the database is written first (32-bit view, as a 1.0 installation keeps
// it), then NVDBConv.dll is loaded, detects "1.0" and holds a CConverter2.
//
// Each test checks the result code, the registry afterwards in both views against
// what the writer put in, the decoded trace, and what a freshly loaded library
// reports through GetDBVersion.
#include <windows.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <string>
#include <vector>

#include "support/computer_name.h"
#include "support/db_paths.h"
#include "support/dll_loader.h"
#include "support/legacy_db_tree.h"
#include "support/registry_sandbox.h"
#include "support/sample_databases.h"
#include "support/trace_capture.h"
#include "writer/legacy_writer.h"

using namespace nvtest;

namespace {

constexpr const wchar_t kVendor[] = L"SOFTWARE\\Norvane";
constexpr const wchar_t kBackup[] = L"SOFTWARE\\Norvane\\DB-v1.0";
constexpr const char kBackupText[] = "SOFTWARE\\Norvane\\DB-v1.0";

// A scope's enter and leave for every key of the tree at path, in the registry's
// enumeration order: what a recursive CopyKey or DeleteKey of that tree traces.
void TreeScopeLines(const std::wstring& path, REGSAM view, const std::string& scope, std::vector<std::string>& out)
{
    out.push_back("> " + scope);
    for (const std::wstring& child : SubkeyNames(path.c_str(), view))
        TreeScopeLines(path + L"\\" + child, view, scope, out);
    out.push_back("<");
}

void Append(std::vector<std::string>& out, std::initializer_list<const char*> lines)
{
    for (const char* line : lines)
        out.push_back(line);
}

// The trace of a successful Convert of the 1.0 database as it stands now: backup
// copy, the stores, the policy keys, the version, then the backup's removal. Call
// before converting; `stores` is the number of name indexes converted.
std::vector<std::string> SuccessfulConvertLines(size_t stores)
{
    std::vector<std::string> lines{"> CBaseConverter::Backup"};
    TreeScopeLines(kDbPath, kView32, "CBaseConverter::CopyKey", lines);
    Append(lines, {"U backup key created, name stored", "<", "> CConverter2::do_Convert",
                   "> CConverter2::CollectNameIndexAndPolicies", "<"});
    for (size_t i = 0; i < stores; ++i)
        Append(lines, {"> CConverter2::ConvertNameIndexTo20", "<"});
    lines.push_back("U domains converted");
    std::vector<std::wstring> policies;
    for (const auto& domain : SubkeyNames(DbPath(L"Cache").c_str(), kView32))
        policies.push_back(DbPath(L"Cache\\" + domain + L"\\Policies"));
    policies.push_back(DbPath(L"Data\\Policies"));
    for (const auto& policy : policies) {
        if (KeyExists(policy.c_str(), kView32))
            TreeScopeLines(policy, kView32, "CBaseConverter::DeleteKey", lines);
        else
            Append(lines, {"> CBaseConverter::DeleteKey", "E -2147024894 ", "<"});
    }
    Append(lines, {"U policies deleted", "U version put", "<", "> CBaseConverter::Cleanup"});
    lines.push_back(std::string("U cleaning up backup key ") + kBackupText);
    // The backup is a copy of the database as it is now, listed in the same order.
    TreeScopeLines(kDbPath, kView32, "CBaseConverter::DeleteKey", lines);
    Append(lines, {"> CConverter2::do_Cleanup", "<", "<"});
    return lines;
}

// What loading the library traces for a 1.0 database.
void ExpectLoadChoseCConverter2(const TraceCapture& trace)
{
    std::vector<std::string> load = trace.LinesInScope("CDBConverter::FinalConstruct");
    EXPECT_EQ((std::vector<std::string>{"U wszVersion = 1.0", "U m_dwVersion = 0x10000",
                                        "> CBaseConverter::CreateConverter", "U Using CConverter2",
                                        "> CBaseConverter::CBaseConverter", "<", "> CConverter2::CConverter2", "<",
                                        "<"}),
              load)
        << trace.Dump();
}

// A library loaded afresh after a successful conversion finds "2.0". The target is
// that of the converter the factory creates for major 2: a CConverter3 (0x00030000)
// in a library that has one, none (0) otherwise; the trace line tells which, and
// exactly one of the two must be there.
void ExpectFreshLoadSeesFormat20()
{
    TraceCapture trace;
    trace.Start();
    DWORD current = 0xdeadbeef, target = 0xdeadbeef;
    {
        LoadedLibrary dll;
        ASSERT_TRUE(dll.loaded());
        EXPECT_EQ(S_OK, dll.GetDBVersion(&current, &target));
    }
    EXPECT_EQ(0x00020000u, current);
    std::vector<std::string> factory = trace.LinesInScope("CBaseConverter::CreateConverter");
    ASSERT_FALSE(factory.empty()) << trace.Dump();
    const bool converter3 = factory.front() == "U Using CConverter3";
    if (!converter3) {
        EXPECT_EQ((std::vector<std::string>{"U Returning NULL"}), factory) << trace.Dump();
    }
    EXPECT_EQ(converter3 ? 0x00030000u : 0u, target);
    EXPECT_TRUE(trace.Contains("U wszVersion = 2.0")) << trace.Dump();
    EXPECT_TRUE(trace.Contains("U m_dwVersion = 0x20000")) << trace.Dump();
}

// A library loaded afresh still finds "1.0" and a CConverter2.
void ExpectFreshLoadSeesFormat10()
{
    DWORD current = 0xdeadbeef, target = 0xdeadbeef;
    LoadedLibrary dll;
    ASSERT_TRUE(dll.loaded());
    EXPECT_EQ(S_OK, dll.GetDBVersion(&current, &target));
    EXPECT_EQ(0x00010000u, current);
    EXPECT_EQ(0x00020000u, target);
}

// After a successful conversion only the 2.0 database is left: no backup key, no
// "Backup" value, nothing in the 64-bit view but the trace settings.
void ExpectOnlyTheConvertedDatabase(const nvwriter::DbRecord& written)
{
    RegTree expected = ToRegTree(written.ExpectedAfter10To20(ComputerName()));
    RegTree actual = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(expected == actual) << DiffTrees(expected, actual);
    EXPECT_EQ((std::vector<std::wstring>{L"DB"}), SubkeyNames(kVendor, kView32));
    EXPECT_EQ((std::vector<std::wstring>{L"Tracing"}), SubkeyNames(kVendor, kView64));
    EXPECT_FALSE(KeyExists(kBackup, kView32));
    EXPECT_FALSE(KeyExists(kBackup, kView64));
}

nvwriter::DbRecord WriteDb(const nvwriter::DbOptions& options)
{
    nvwriter::DbRecord record;
    EXPECT_EQ(S_OK, nvwriter::WriteDatabase(options, &record));
    return record;
}

class Convert10Test : public TraceCaptureTest {};

} // namespace

TEST_F(Convert10Test, GeneratedDatabaseConvertsTo20)
{
    const nvwriter::DbOptions options = WriterOptions(nvwriter::DbFormat::V10, 60, 4, 1001);
    nvwriter::DbRecord written = WriteDb(options);
    const std::vector<std::string> expectedLines = SuccessfulConvertLines(5);

    {
        LoadedLibrary dll;
        ASSERT_TRUE(dll.loaded());
        ExpectDbVersions(dll, 0x00010000u, 0x00020000u, __LINE__);
        EXPECT_EQ(S_OK, dll.Convert());
    }
    ExpectLoadChoseCConverter2(trace);
    EXPECT_EQ(expectedLines, trace.LinesInScope("CBaseConverter::Convert")) << trace.Dump();
    EXPECT_EQ(0u, trace.Count("> CBaseConverter::Rollback"));
    // The converter goes away with the library.
    const std::vector<std::string> all = trace.Lines();
    ASSERT_GE(all.size(), 2u);
    EXPECT_EQ((std::vector<std::string>{"> CConverter2::~CConverter2", "<"}),
              std::vector<std::string>(all.end() - 2, all.end()))
        << trace.Dump();
    ExpectOnlyTheConvertedDatabase(written);
    ExpectFreshLoadSeesFormat20();
}

TEST_F(Convert10Test, DatabaseWithoutCacheConvertsTheMachineStoreOnly)
{
    const nvwriter::DbOptions options = WriterOptions(nvwriter::DbFormat::V10, 10, 0, 1);
    nvwriter::DbRecord written = WriteDb(options);
    ASSERT_FALSE(KeyExists(DbPath(L"Cache").c_str(), kView32));
    const std::vector<std::string> expectedLines = SuccessfulConvertLines(1);

    {
        LoadedLibrary dll;
        EXPECT_EQ(S_OK, dll.Convert());
    }
    EXPECT_EQ(expectedLines, trace.LinesInScope("CBaseConverter::Convert")) << trace.Dump();
    EXPECT_EQ(1u, trace.Count("> CConverter2::ConvertNameIndexTo20"));
    EXPECT_FALSE(KeyExists(DbPath(L"Data\\Policies").c_str(), kView32));
    std::wstring version;
    ASSERT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    EXPECT_EQ(L"2.0", version);
    ExpectOnlyTheConvertedDatabase(written);
    ExpectFreshLoadSeesFormat20();
}

TEST_F(Convert10Test, SixteenByteAliceSlashIsDeletedAndFourByteNoteKept)
{
    nvwriter::DbWriter writer(kDbPath, KEY_WOW64_32KEY);
    nvwriter::WriteVersion(writer, L"1.0");
    std::vector<BYTE> id(16);
    for (size_t i = 0; i < id.size(); ++i)
        id[i] = static_cast<BYTE>(0xA0 + i);
    writer.SetBinary(L"MainDB\\Users\\Index\\NameIndex", L"alice/", id);
    writer.SetBinary(L"MainDB\\Users\\Index\\NameIndex", L"note", {1, 2, 3, 4});
    writer.SetDword(L"Data\\Policies", L"NetworkSupport", 1);
    writer.Flush();
    const nvwriter::DbRecord written = writer.record();
    const std::vector<std::string> expectedLines = SuccessfulConvertLines(1);

    {
        LoadedLibrary dll;
        EXPECT_EQ(S_OK, dll.Convert());
    }
    EXPECT_EQ(expectedLines, trace.LinesInScope("CBaseConverter::Convert")) << trace.Dump();
    EXPECT_EQ((std::vector<std::wstring>{L"note"}), ValueNames(DbPath(L"MainDB\\Users\\Index\\NameIndex").c_str(), kView32));
    RegValue note;
    ASSERT_TRUE(GetValue(DbPath(L"MainDB\\Users\\Index\\NameIndex").c_str(), L"note", kView32, &note));
    EXPECT_EQ((std::vector<BYTE>{1, 2, 3, 4}), note.data);
    EXPECT_EQ(static_cast<DWORD>(REG_BINARY), note.type);
    ExpectOnlyTheConvertedDatabase(written);
    ExpectFreshLoadSeesFormat20();
}

TEST_F(Convert10Test, DomainsBAndLowercaseAConvertBFirst)
{
    nvwriter::DbOptions options;
    options.users = 15;
    options.domainNames = {L"a", L"B"};
    nvwriter::DbRecord written = WriteDb(options);
    const std::vector<std::string> expectedLines = SuccessfulConvertLines(3);
    {
        LoadedLibrary dll;
        EXPECT_EQ(S_OK, dll.Convert());
    }
    EXPECT_EQ(expectedLines, trace.LinesInScope("CBaseConverter::Convert")) << trace.Dump();
    ExpectOnlyTheConvertedDatabase(written);
    ExpectFreshLoadSeesFormat20();
}

// The order shows in a failure: with "a"'s index missing, "B" (and the machine's
// store, whose upper-case NetBIOS name sorts before "a") were converted before the
// failure; with "B"'s missing, "a" never was. Neither failure is restored (see the
// rollback test below for why), so the registry keeps the evidence.
TEST_F(Convert10Test, DomainsBAndLowercaseAFailingStoreShowsBIsConvertedBeforeA)
{
    const std::wstring computer = ComputerName();
    for (const wchar_t* missing : {L"a", L"B"}) {
        SCOPED_TRACE(Narrow(missing));
        WipeSuiteKeys();
        trace.Start();
        nvwriter::DbWriter writer(kDbPath, KEY_WOW64_32KEY);
        Write10Into(writer, 12, {L"a", L"B"}, 77);
        writer.DeleteKey(L"Cache\\" + std::wstring(missing) + L"\\Users\\Index\\NameIndex");
        writer.Flush();

        // Stores that sort before the missing one are converted, in map order.
        std::vector<std::wstring> order{L"B", L"a", computer};
        std::sort(order.begin(), order.end());
        nvwriter::DbRecord expected = writer.record();
        size_t converted = 0;
        for (const auto& store : order) {
            if (store == missing)
                break;
            ++converted;
            const std::wstring index =
                store == computer ? L"MainDB\\Users\\Index\\NameIndex" : L"Cache\\" + store + L"\\Users\\Index\\NameIndex";
            auto& values = expected.values[index];
            for (auto it = values.begin(); it != values.end();)
                it = it->second.data.size() == 16 ? values.erase(it) : std::next(it);
        }
        EXPECT_EQ(std::wstring(missing) == L"a" ? 2u : (computer < L"B" ? 1u : 0u), converted);
        nvwriter::ValueRecord backup{REG_SZ, {}};
        const std::wstring backupPath = kBackup;
        backup.data.assign(reinterpret_cast<const BYTE*>(backupPath.c_str()),
                           reinterpret_cast<const BYTE*>(backupPath.c_str() + backupPath.size() + 1));
        expected.values[L""][L"Backup"] = backup;

        {
            LoadedLibrary dll;
            EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), dll.Convert());
        }
        RegTree want = ToRegTree(expected);
        RegTree actual = Snapshot(kDbPath, kView32);
        EXPECT_TRUE(want == actual) << DiffTrees(want, actual);
        std::vector<std::string> doConvert = trace.LinesInScope("CConverter2::do_Convert");
        std::vector<std::string> expectedDo{"> CConverter2::CollectNameIndexAndPolicies", "<"};
        for (size_t i = 0; i < converted; ++i)
            Append(expectedDo, {"> CConverter2::ConvertNameIndexTo20", "<"});
        Append(expectedDo, {"> CConverter2::ConvertNameIndexTo20", "E -2147024894 ", "<", "E -2147024894 "});
        EXPECT_EQ(expectedDo, doConvert) << trace.Dump();
    }
}

TEST_F(Convert10Test, DomainNamedLikeTheComputerKeepsItsIndexButLosesItsPolicies)
{
    const std::wstring computer = ComputerName();
    nvwriter::DbOptions options;
    options.users = 18;
    options.domainNames = {computer, L"OTHER"};
    nvwriter::DbRecord written = WriteDb(options);
    const nvwriter::StoreRecord* twin = written.FindStore(computer, false);
    ASSERT_NE(nullptr, twin);
    const auto twinIndex = written.values.at(twin->nameIndexPath);
    ASSERT_TRUE(std::any_of(twinIndex.begin(), twinIndex.end(), [](const auto& v) { return v.second.data.size() == 16; }));
    // Two stores reach the map: the machine's (under the computer's name) and OTHER.
    const std::vector<std::string> expectedLines = SuccessfulConvertLines(2);

    {
        LoadedLibrary dll;
        EXPECT_EQ(S_OK, dll.Convert());
    }
    EXPECT_EQ(expectedLines, trace.LinesInScope("CBaseConverter::Convert")) << trace.Dump();
    // The twin's index is untouched, 16-byte values and all; its policy key is gone.
    RegTree twinAfter = Snapshot(DbPath(twin->nameIndexPath).c_str(), kView32);
    EXPECT_EQ(twinIndex.size(), twinAfter.values.size());
    for (const auto& [name, v] : twinIndex) {
        auto it = twinAfter.values.find(L"|" + name);
        ASSERT_NE(twinAfter.values.end(), it) << Narrow(name);
        EXPECT_EQ(v.data, it->second.data);
    }
    EXPECT_FALSE(KeyExists(DbPath(twin->policiesPath).c_str(), kView32));
    ExpectOnlyTheConvertedDatabase(written);
    ExpectFreshLoadSeesFormat20();
}

// A missing machine name index fails the conversion with 0x80070002, and Convert
// rolls back. The rollback deletes and restores the database in the library's own
// (64-bit) view, while a 1.0 database and its backup live in the 32-bit view: the
// delete finds no database there and fails, which ends the rollback with S_OK and
// nothing restored. So the 32-bit database stays as do_Convert left it (the stores
// before the machine's converted, "Backup" naming the backup key, "Version" still
// "1.0"), the backup key stays too, and the 64-bit view gains nothing.
TEST_F(Convert10Test, MissingMachineNameIndexFailsAndTheRollbackRunsInTheLibrarysOwnView)
{
    const std::wstring computer = ComputerName();
    nvwriter::DbWriter writer(kDbPath, KEY_WOW64_32KEY);
    // One domain sorts before any NetBIOS name, one after.
    Write10Into(writer, 20, {L"0FIRST", L"zlast"}, 5);
    writer.DeleteKey(L"MainDB\\Users\\Index\\NameIndex");
    writer.Flush();
    const nvwriter::DbRecord original = writer.record();
    const RegTree originalTree = Snapshot(kDbPath, kView32);

    nvwriter::DbRecord expected = original;
    {
        auto& values = expected.values[L"Cache\\0FIRST\\Users\\Index\\NameIndex"];
        for (auto it = values.begin(); it != values.end();)
            it = it->second.data.size() == 16 ? values.erase(it) : std::next(it);
    }
    nvwriter::ValueRecord backup{REG_SZ, {}};
    const std::wstring backupPath = kBackup;
    backup.data.assign(reinterpret_cast<const BYTE*>(backupPath.c_str()),
                       reinterpret_cast<const BYTE*>(backupPath.c_str() + backupPath.size() + 1));
    expected.values[L""][L"Backup"] = backup;

    std::vector<std::string> expectedLines{"> CBaseConverter::Backup"};
    TreeScopeLines(kDbPath, kView32, "CBaseConverter::CopyKey", expectedLines);
    Append(expectedLines, {"U backup key created, name stored", "<", "> CConverter2::do_Convert",
                           "> CConverter2::CollectNameIndexAndPolicies", "<", "> CConverter2::ConvertNameIndexTo20",
                           "<", "> CConverter2::ConvertNameIndexTo20", "E -2147024894 ", "<", "E -2147024894 ", "<",
                           "> CBaseConverter::Rollback"});
    expectedLines.push_back(std::string("U restoring database from backup key ") + kBackupText);
    Append(expectedLines, {"> CBaseConverter::DeleteKey", "E -2147024894 ", "<", "> CConverter2::do_Rollback", "<",
                           "<", "E -2147024894 "});

    {
        LoadedLibrary dll;
        EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), dll.Convert());
    }
    EXPECT_EQ(expectedLines, trace.LinesInScope("CBaseConverter::Convert")) << trace.Dump();

    RegTree want = ToRegTree(expected);
    RegTree actual = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(want == actual) << DiffTrees(want, actual);
    // The backup holds the database as it was before the conversion, without "Backup".
    RegTree backupTree = Snapshot(kBackup, kView32);
    EXPECT_TRUE(originalTree == backupTree) << DiffTrees(originalTree, backupTree);
    EXPECT_FALSE(KeyExists(kDbPath, kView64));
    EXPECT_FALSE(KeyExists(kBackup, kView64));
    EXPECT_EQ((std::vector<std::wstring>{L"Tracing"}), SubkeyNames(kVendor, kView64));

    // A later Rollback in a new process takes the same road and also restores nothing.
    trace.Start();
    {
        LoadedLibrary dll;
        EXPECT_EQ(S_OK, dll.Rollback());
    }
    EXPECT_EQ((std::vector<std::string>{std::string("U restoring database from backup key ") + kBackupText,
                                        "> CBaseConverter::DeleteKey", "E -2147024894 ", "<",
                                        "> CConverter2::do_Rollback", "<"}),
              trace.LinesInScope("CBaseConverter::Rollback"))
        << trace.Dump();
    actual = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(want == actual) << DiffTrees(want, actual);
    ExpectFreshLoadSeesFormat10();
}

// The backup copy refuses an empty value, so an empty value in a name index stops
// Convert in Backup, before do_Convert: nothing is converted, "Backup" is never
// written and the rollback finds no backup name. The copy made so far stays.
TEST_F(Convert10Test, EmptyValueInANameIndexFailsTheBackupWith80070008AndConvertsNothing)
{
    nvwriter::DbWriter writer(kDbPath, KEY_WOW64_32KEY);
    Write10Into(writer, 8, {L"DOM"}, 6);
    writer.SetBinary(L"Cache\\DOM\\Users\\Index\\NameIndex", L"empty", {});
    writer.Flush();
    const RegTree before = Snapshot(kDbPath, kView32);

    {
        LoadedLibrary dll;
        EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY), dll.Convert());
    }
    RegTree after = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(before == after) << DiffTrees(before, after);
    EXPECT_EQ(0u, trace.Count("> CConverter2::do_Convert")) << trace.Dump();
    std::vector<std::string> convert = trace.LinesInScope("CBaseConverter::Convert");
    ASSERT_GE(convert.size(), 8u) << trace.Dump();
    EXPECT_EQ((std::vector<std::string>{"E -2147024888 ", "<", "> CBaseConverter::Rollback",
                                        "U backup key name is empty, nothing to do", "> CConverter2::do_Rollback", "<",
                                        "<", "E -2147024888 "}),
              std::vector<std::string>(convert.end() - 8, convert.end()))
        << trace.Dump();
    EXPECT_EQ(0u, trace.Count("U backup key created, name stored"));

    // The partial backup holds only what the database holds.
    RegTree partial = Snapshot(kBackup, kView32);
    ASSERT_TRUE(partial.exists);
    for (const auto& key : partial.keys)
        EXPECT_TRUE(std::binary_search(before.keys.begin(), before.keys.end(), key)) << Narrow(key);
    for (const auto& [name, value] : partial.values) {
        auto it = before.values.find(name);
        ASSERT_NE(before.values.end(), it) << Narrow(name);
        EXPECT_TRUE(it->second == value) << Narrow(name);
    }
    EXPECT_LT(partial.values.size(), before.values.size());
    ExpectFreshLoadSeesFormat10();
}

TEST_F(Convert10Test, MissingPolicyKeysDoNotFailTheConversion)
{
    nvwriter::DbWriter writer(kDbPath, KEY_WOW64_32KEY);
    Write10Into(writer, 6, {L"DOM"}, 8);
    writer.DeleteKey(L"Data\\Policies");
    writer.Flush();
    const nvwriter::DbRecord written = writer.record();
    const std::vector<std::string> expectedLines = SuccessfulConvertLines(2);
    {
        LoadedLibrary dll;
        EXPECT_EQ(S_OK, dll.Convert());
    }
    EXPECT_EQ(expectedLines, trace.LinesInScope("CBaseConverter::Convert")) << trace.Dump();
    ExpectOnlyTheConvertedDatabase(written);
    ExpectFreshLoadSeesFormat20();
}

// nvdbgen --view 64 can put a 1.0 database where the library's own view finds it;
// the holder then reads "1.0" there, but CConverter2 opens the database in the
// 32-bit view only, finds none, and its backup copy has no source.
TEST_F(Convert10Test, DatabaseIn64BitViewIsDetectedButCannotBeOpenedByCConverter2)
{
    nvwriter::DbOptions options;
    options.view = KEY_WOW64_64KEY;
    options.users = 4;
    nvwriter::DbRecord written = WriteDb(options);
    {
        LoadedLibrary dll;
        ExpectDbVersions(dll, 0x00010000u, 0x00020000u, __LINE__);
        EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE), dll.Convert());
    }
    // The constructor's open fails; the copy then has no source key (0x80070006).
    EXPECT_EQ((std::vector<std::string>{"U wszVersion = 1.0", "U m_dwVersion = 0x10000",
                                        "> CBaseConverter::CreateConverter", "U Using CConverter2",
                                        "> CBaseConverter::CBaseConverter", "E -2147024894 ", "<",
                                        "> CConverter2::CConverter2", "<", "<"}),
              trace.LinesInScope("CDBConverter::FinalConstruct"))
        << trace.Dump();
    EXPECT_EQ((std::vector<std::string>{"> CBaseConverter::Backup", "> CBaseConverter::CopyKey", "E -2147024890 ", "<",
                                        "E -2147024890 ", "<", "> CBaseConverter::Rollback",
                                        "U backup key name is empty, nothing to do", "> CConverter2::do_Rollback", "<",
                                        "<", "E -2147024890 "}),
              trace.LinesInScope("CBaseConverter::Convert"))
        << trace.Dump();
    RegTree expected = ToRegTree(written);
    RegTree actual = Snapshot(kDbPath, kView64);
    EXPECT_TRUE(expected == actual) << DiffTrees(expected, actual);
    EXPECT_FALSE(KeyExists(kDbPath, kView32));
    EXPECT_FALSE(KeyExists(kBackup, kView32));
    EXPECT_FALSE(KeyExists(kBackup, kView64));
}

TEST_F(Convert10Test, FiveThousandUsersInTwentyDomainsConvert)
{
    const nvwriter::DbOptions options = WriterOptions(nvwriter::DbFormat::V10, 5000, 20, 5000);
    nvwriter::DbRecord written = WriteDb(options);
    ASSERT_EQ(5000u, written.users.size());
    ASSERT_EQ(21u, written.stores.size());
    const std::vector<std::string> expectedLines = SuccessfulConvertLines(21);
    {
        LoadedLibrary dll;
        EXPECT_EQ(S_OK, dll.Convert());
    }
    EXPECT_TRUE(expectedLines == trace.LinesInScope("CBaseConverter::Convert"))
        << "the Convert trace differs; " << trace.Count("> CConverter2::ConvertNameIndexTo20")
        << " name indexes converted";
    ExpectOnlyTheConvertedDatabase(written);
    // Every user's identifier is gone from its index; every user key stays.
    for (const auto& user : written.users) {
        const nvwriter::StoreRecord* store = written.FindStore(user.store, user.store.empty());
        ASSERT_NE(nullptr, store);
        RegValue v;
        ASSERT_FALSE(GetValue(DbPath(store->nameIndexPath).c_str(), user.name.c_str(), kView32, &v)) << Narrow(user.name);
    }
    ExpectFreshLoadSeesFormat20();
}
