// The legacy database writer: what it writes for format 1.0, that its record matches
// the registry exactly, that a seed fixes the output, and its removals and oracle.
#include <windows.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <cstring>
#include <map>
#include <set>

#include "support/key_containers.h"
#include "support/legacy_db_tree.h"
#include "support/registry_sandbox.h"
#include "support/db_paths.h"
#include "support/sample_databases.h"
#include "writer/db20_writer.h"
#include "writer/legacy_writer.h"

using namespace nvtest;

namespace {


nvwriter::DbRecord Write(const nvwriter::DbOptions& options)
{
    nvwriter::DbRecord record;
    HRESULT hr = nvwriter::WriteDatabase(options, &record);
    EXPECT_EQ(S_OK, hr);
    return record;
}

std::vector<BYTE> Bytes(const std::wstring& text)
{
    const BYTE* p = reinterpret_cast<const BYTE*>(text.c_str());
    return std::vector<BYTE>(p, p + (text.size() + 1) * sizeof(wchar_t));
}

} // namespace

class LegacyWriterTest : public RegistrySandbox {};

TEST(PrngTest, SplitMix64SequenceIsFixedForASeed)
{
    nvwriter::Prng zero(0);
    EXPECT_EQ(0xE220A8397B1DCDAFull, zero.Next());
    EXPECT_EQ(0x6E789E6AA1B965F4ull, zero.Next());
    nvwriter::Prng a(42), b(42), c(43);
    for (int i = 0; i < 100; ++i) {
        uint64_t va = a.Next();
        EXPECT_EQ(va, b.Next());
        EXPECT_NE(va, c.Next());
    }
}

TEST(PrngTest, GuidsCarryVersion4AndVariantBits)
{
    nvwriter::Prng rng(7);
    for (int i = 0; i < 50; ++i) {
        GUID id = rng.Guid();
        EXPECT_EQ(0x4000, id.Data3 & 0xF000);
        EXPECT_EQ(0x80, id.Data4[0] & 0xC0);
    }
    GUID fixed = {0x01234567, 0x89AB, 0x4DEF, {0x81, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08}};
    EXPECT_EQ(L"{01234567-89AB-4DEF-8102-030405060708}", nvwriter::GuidText(fixed));
}

TEST_F(LegacyWriterTest, RecordMatchesTheRegistryValueByValueAndOnlyInTheChosenView)
{
    const nvwriter::DbOptions options = WriterOptions(nvwriter::DbFormat::V10, 40, 3, 11);
    nvwriter::DbRecord record = Write(options);

    EXPECT_TRUE(RegistryHoldsRecord(record, kView32));
    EXPECT_FALSE(KeyExists(kDbPath, kView64));
    EXPECT_EQ(KEY_WOW64_32KEY, record.view);
    EXPECT_EQ(std::wstring(kDbPath), record.dbPath);
    // A sanity floor, so that an empty record cannot pass for a match.
    EXPECT_GT(record.ValueCount(), 40u * 3);
}

TEST_F(LegacyWriterTest, Format10LayoutHasVersionIndexesUsersAndPolicies)
{
    const nvwriter::DbOptions options = WriterOptions(nvwriter::DbFormat::V10, 40, 3, 5);
    nvwriter::DbRecord record = Write(options);

    std::wstring version;
    ASSERT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    EXPECT_EQ(L"1.0", version);
    EXPECT_EQ(L"1.0", record.versionText);

    // The machine first, then the domains, each with its index and policies.
    ASSERT_EQ(4u, record.stores.size());
    EXPECT_TRUE(record.stores[0].machine);
    EXPECT_EQ(L"MainDB\\Users\\Index\\NameIndex", record.stores[0].nameIndexPath);
    EXPECT_EQ(L"Data\\Policies", record.stores[0].policiesPath);
    std::vector<std::wstring> cache = SubkeyNames(DbPath(L"Cache").c_str(), kView32);
    std::set<std::wstring> cacheSet(cache.begin(), cache.end());
    std::set<std::wstring> domainSet;
    for (size_t i = 1; i < record.stores.size(); ++i) {
        const auto& s = record.stores[i];
        EXPECT_FALSE(s.machine);
        domainSet.insert(s.name);
        EXPECT_EQ(L"Cache\\" + s.name + L"\\Users\\Index\\NameIndex", s.nameIndexPath);
        EXPECT_EQ(L"Cache\\" + s.name + L"\\Policies", s.policiesPath);
    }
    EXPECT_EQ(domainSet, cacheSet);
    EXPECT_EQ(nvwriter::DomainNames10(options), (std::vector<std::wstring>{record.stores[1].name,
                                                                            record.stores[2].name,
                                                                            record.stores[3].name}));
    for (const auto& s : record.stores) {
        EXPECT_TRUE(KeyExists(DbPath(s.nameIndexPath).c_str(), kView32));
        EXPECT_TRUE(KeyExists(DbPath(s.policiesPath).c_str(), kView32));
        EXPECT_TRUE(KeyExists(DbPath(s.policiesPath + L"\\Default").c_str(), kView32));
    }

    // Every user is a 16-byte REG_BINARY holding its GUID in its store's index; the
    // users are spread round-robin (40 over 4 stores: 10 each).
    ASSERT_EQ(40u, record.users.size());
    std::map<std::wstring, unsigned> perStore;
    size_t slashed = 0;
    for (const auto& u : record.users) {
        const nvwriter::StoreRecord* s = record.FindStore(u.store, u.store.empty());
        ASSERT_NE(nullptr, s);
        ++perStore[u.store];
        RegValue v;
        ASSERT_TRUE(GetValue(DbPath(s->nameIndexPath).c_str(), u.name.c_str(), kView32, &v)) << Narrow(u.name);
        EXPECT_EQ(static_cast<DWORD>(REG_BINARY), v.type);
        ASSERT_EQ(16u, v.data.size());
        EXPECT_EQ(0, std::memcmp(v.data.data(), &u.id, 16));
        EXPECT_EQ(u.trailingSlash, u.name.back() == L'/');
        slashed += u.trailingSlash ? 1 : 0;
        std::wstring name;
        ASSERT_TRUE(GetString(DbPath(u.userKeyPath).c_str(), L"Name", kView32, &name));
        EXPECT_EQ(u.trailingSlash ? u.name.substr(0, u.name.size() - 1) : u.name, name);
    }
    for (const auto& [store, n] : perStore)
        EXPECT_EQ(10u, n) << Narrow(store);
    EXPECT_GT(slashed, 0u);
    EXPECT_LT(slashed, record.users.size());

    // Beside the users, each index holds values of other sizes, none of 16 bytes.
    for (const auto& s : record.stores) {
        const auto& values = record.values.at(s.nameIndexPath);
        std::set<size_t> otherSizes;
        for (const auto& [name, v] : values)
            if (v.data.size() != 16)
                otherSizes.insert(v.data.size());
        EXPECT_EQ((std::set<size_t>{4, 8, 15, 17, 20}), otherSizes);
        EXPECT_EQ(10u + 6u, values.size());
    }
}

TEST_F(LegacyWriterTest, SameSeedGivesTheSameDatabaseAndAnotherSeedADifferentOne)
{
    nvwriter::DbOptions options = WriterOptions(nvwriter::DbFormat::V10, 25, 2, 99);
    Write(options);
    RegTree first = Snapshot(kDbPath, kView32);

    options.wipe = true;
    Write(options);
    RegTree second = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(first == second) << DiffTrees(first, second);

    options.seed = 100;
    Write(options);
    RegTree third = Snapshot(kDbPath, kView32);
    EXPECT_FALSE(first == third);
}

TEST_F(LegacyWriterTest, View64WritesIntoThe64BitViewOnly)
{
    nvwriter::DbOptions options;
    options.view = KEY_WOW64_64KEY;
    options.users = 5;
    options.domains = 1;
    nvwriter::DbRecord record = Write(options);
    EXPECT_TRUE(RegistryHoldsRecord(record, kView64));
    EXPECT_FALSE(KeyExists(kDbPath, kView32));
}

TEST_F(LegacyWriterTest, ExistingDatabaseIsRefusedWithoutWipeAndLeftAlone)
{
    SetString(kDbPath, L"Version", L"3.0", kView32);
    RegTree before = Snapshot(kDbPath, kView32);
    nvwriter::DbOptions options;
    nvwriter::DbRecord record;
    record.versionText = L"sentinel";
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS), nvwriter::WriteDatabase(options, &record));
    EXPECT_EQ(L"sentinel", record.versionText);
    RegTree after = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(before == after) << DiffTrees(before, after);

    options.wipe = true;
    record = Write(options);
    EXPECT_TRUE(RegistryHoldsRecord(record, kView32));
}

TEST_F(LegacyWriterTest, Format20ComesFromThe20WriterAndIsRecordedValueByValue)
{
    const nvwriter::DbOptions options = WriterOptions(nvwriter::DbFormat::V20, 7, 2, 21);
    ContainerJanitor containers;
    const nvwriter::Db20Database model = TrackedModel20(containers, options);

    nvwriter::DbRecord record = Write(options);
    EXPECT_TRUE(RegistryHoldsRecord(record, kView32));
    EXPECT_FALSE(KeyExists(kDbPath, kView64));
    EXPECT_EQ(L"2.0", record.versionText);
    EXPECT_EQ(nvwriter::DomainNames10(options), model.domains);

    // Stores: the machine's, then the domains; users with their 2.0 user keys.
    ASSERT_EQ(3u, record.stores.size());
    EXPECT_TRUE(record.stores[0].machine);
    EXPECT_EQ(L"MainDB\\Users\\Index\\NameIndex", record.stores[0].nameIndexPath);
    ASSERT_EQ(7u, record.users.size());
    std::set<std::wstring> written, modelled;
    for (const auto& user : record.users) {
        written.insert(nvwriter::GuidText(user.id));
        EXPECT_EQ(L"Data\\Users\\" + nvwriter::GuidText(user.id), user.userKeyPath);
        EXPECT_EQ(1u, record.keys.count(user.userKeyPath));
    }
    for (const auto& user : model.users)
        modelled.insert(nvwriter::GuidText(user.guid));
    EXPECT_EQ(modelled, written);
    EXPECT_TRUE(ContainerExists(model.hostId));
}

TEST_F(LegacyWriterTest, Users20AreAddedToA10DatabaseBesideItsStores)
{
    const nvwriter::DbOptions options = WriterOptions(nvwriter::DbFormat::V10, 6, 2, 22, 3);
    ContainerJanitor containers;
    const nvwriter::Db20Database model = TrackedModel20(containers, options);

    nvwriter::DbRecord record = Write(options);
    EXPECT_TRUE(RegistryHoldsRecord(record, kView32));
    EXPECT_EQ(L"1.0", record.versionText);
    EXPECT_EQ(6u, record.users.size());
    ASSERT_EQ(3u, model.users.size());
    std::vector<std::wstring> keys = SubkeyNames(DbPath(L"Data\\Users").c_str(), kView32);
    std::sort(keys.begin(), keys.end());
    std::vector<std::wstring> expectedKeys;
    for (const auto& user : model.users)
        expectedKeys.push_back(nvwriter::GuidText(user.guid));
    std::sort(expectedKeys.begin(), expectedKeys.end());
    EXPECT_EQ(expectedKeys, keys);
    EXPECT_TRUE(KeyExists(DbPath(L"Data\\Policies").c_str(), kView32));
    EXPECT_TRUE(ContainerExists(model.hostId));
    EXPECT_EQ(E_POINTER, nvwriter::WriteDatabase(nvwriter::DbOptions(), nullptr));
}

TEST_F(LegacyWriterTest, NoDomainsWritesNoCacheKey)
{
    const nvwriter::DbOptions options = WriterOptions(nvwriter::DbFormat::V10, 6, 0, 1);
    nvwriter::DbRecord record = Write(options);
    EXPECT_FALSE(KeyExists(DbPath(L"Cache").c_str(), kView32));
    EXPECT_EQ(0u, record.keys.count(L"Cache"));
    ASSERT_EQ(1u, record.stores.size());
    EXPECT_EQ(6u, record.users.size());
}

TEST_F(LegacyWriterTest, ExplicitDomainNamesReplaceTheGeneratedOnes)
{
    nvwriter::DbOptions options;
    options.domainNames = {L"B", L"a"};
    options.domains = 7; // ignored
    options.users = 9;
    nvwriter::DbRecord record = Write(options);
    ASSERT_EQ(3u, record.stores.size());
    EXPECT_EQ(L"B", record.stores[1].name);
    EXPECT_EQ(L"a", record.stores[2].name);
    std::vector<std::wstring> cache = SubkeyNames(DbPath(L"Cache").c_str(), kView32);
    EXPECT_EQ((std::set<std::wstring>{L"B", L"a"}), std::set<std::wstring>(cache.begin(), cache.end()));
}

TEST_F(LegacyWriterTest, RemovalsAndHandMadeValuesKeepTheRecordInStep)
{
    const nvwriter::DbOptions options = WriterOptions(nvwriter::DbFormat::V10, 8, 2, 1);
    nvwriter::DbWriter writer(kDbPath, KEY_WOW64_32KEY);
    nvwriter::Prng rng(options.seed);
    nvwriter::Write10(writer, options, rng);
    const std::wstring domain = writer.record().stores[1].name;

    writer.DeleteKey(L"MainDB\\Users\\Index\\NameIndex");
    writer.DeleteValue(L"Data", L"Created");
    writer.SetBinary(L"Cache\\" + domain + L"\\Users\\Index\\NameIndex", L"empty", {});
    writer.SetValue(L"Cache\\" + domain, L"Odd", REG_SZ, L"ab", 4); // no terminator
    writer.Flush();

    EXPECT_EQ(0u, writer.record().keys.count(L"MainDB\\Users\\Index\\NameIndex"));
    EXPECT_EQ(1u, writer.record().keys.count(L"MainDB\\Users\\Index"));
    RegTree actual = Snapshot(kDbPath, kView32);
    RegTree expected = ToRegTree(writer.record());
    EXPECT_TRUE(expected == actual) << DiffTrees(expected, actual);
    RegValue odd;
    ASSERT_TRUE(GetValue(DbPath(L"Cache\\" + domain).c_str(), L"Odd", kView32, &odd));
    EXPECT_EQ(4u, odd.data.size());
}

TEST(LegacyWriterOracleTest, ExpectedAfter10To20DropsIdentifiersAndPoliciesButSparesTheComputerNamedDomain)
{
    nvwriter::DbRecord r;
    r.dbPath = kDbPath;
    r.keys = {L"",
              L"Cache",
              L"Cache\\DOM",
              L"Cache\\DOM\\Policies",
              L"Cache\\DOM\\Policies\\Default",
              L"Cache\\DOM\\Users",
              L"Cache\\DOM\\Users\\Index",
              L"Cache\\DOM\\Users\\Index\\NameIndex",
              L"Cache\\HOST",
              L"Cache\\HOST\\Policies",
              L"Cache\\HOST\\Users",
              L"Cache\\HOST\\Users\\Index",
              L"Cache\\HOST\\Users\\Index\\NameIndex",
              L"Data",
              L"Data\\Policies",
              L"MainDB",
              L"MainDB\\Users",
              L"MainDB\\Users\\Index",
              L"MainDB\\Users\\Index\\NameIndex"};
    nvwriter::ValueRecord id16{REG_BINARY, std::vector<BYTE>(16, 0xAB)};
    nvwriter::ValueRecord sz16{REG_SZ, Bytes(L"1234567")}; // 16 bytes too
    nvwriter::ValueRecord dw{REG_DWORD, {1, 0, 0, 0}};
    r.values[L""][L"Version"] = {REG_SZ, Bytes(L"1.0")};
    r.values[L"MainDB\\Users\\Index\\NameIndex"] = {{L"alice/", id16}, {L"note", dw}, {L"text", sz16}};
    r.values[L"Cache\\DOM\\Users\\Index\\NameIndex"] = {{L"bob", id16}, {L"Count", dw}};
    r.values[L"Cache\\HOST\\Users\\Index\\NameIndex"] = {{L"carol", id16}};
    r.values[L"Cache\\DOM\\Policies\\Default"] = {{L"x", dw}};
    r.values[L"Data"] = {{L"Created", dw}};
    r.values[L"Data\\Policies"] = {{L"y", dw}};

    nvwriter::DbRecord e = r.ExpectedAfter10To20(L"HOST");
    EXPECT_EQ(L"2.0", e.versionText);
    EXPECT_EQ(Bytes(L"2.0"), e.values.at(L"").at(L"Version").data);
    EXPECT_EQ((std::map<std::wstring, nvwriter::ValueRecord>{{L"note", dw}}),
              e.values.at(L"MainDB\\Users\\Index\\NameIndex"));
    EXPECT_EQ((std::map<std::wstring, nvwriter::ValueRecord>{{L"Count", dw}}),
              e.values.at(L"Cache\\DOM\\Users\\Index\\NameIndex"));
    EXPECT_EQ((std::map<std::wstring, nvwriter::ValueRecord>{{L"carol", id16}}),
              e.values.at(L"Cache\\HOST\\Users\\Index\\NameIndex"));
    for (const wchar_t* gone : {L"Cache\\DOM\\Policies", L"Cache\\DOM\\Policies\\Default", L"Cache\\HOST\\Policies",
                                L"Data\\Policies"}) {
        EXPECT_EQ(0u, e.keys.count(gone)) << Narrow(gone);
        EXPECT_EQ(0u, e.values.count(gone)) << Narrow(gone);
    }
    EXPECT_EQ(1u, e.keys.count(L"Data"));
    EXPECT_EQ(1u, e.values.count(L"Data"));
    EXPECT_EQ(r.keys.size() - 4, e.keys.size());
}
