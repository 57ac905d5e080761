// The 1.0 name index functions below an open database key: listing the stores and
// policy keys, the computer's NetBIOS name, and stripping a name index.
#include <windows.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <set>

#include "common/handles.h"
#include "common/hresult.h"
#include "converter2/nameindex.h"
#include "support/legacy_db_tree.h"
#include "support/allocation_faults.h"
#include "support/import_fault.h"
#include "support/registry_sandbox.h"
#include "support/db_paths.h"
#include "support/computer_name.h"

using namespace nvtest;

namespace {


std::vector<BYTE> Id(BYTE seed)
{
    std::vector<BYTE> id(16);
    for (size_t i = 0; i < id.size(); ++i)
        id[i] = static_cast<BYTE>(seed + i);
    return id;
}

std::vector<BYTE> Text(const std::wstring& text)
{
    const BYTE* p = reinterpret_cast<const BYTE*>(text.c_str());
    return std::vector<BYTE>(p, p + (text.size() + 1) * sizeof(wchar_t));
}

// The database key as the converter holds it: 32-bit view, view word 0.
class NameIndexTest : public RegistrySandbox {
protected:
    void OpenDb()
    {
        CreateKeyPath(kDbPath, kView32);
        ASSERT_EQ(ERROR_SUCCESS, ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kDbPath, 0, KEY_READ | KEY_WRITE | kView32,
                                                 m_db.put()));
    }
    void TearDown() override
    {
        m_db.reset();
        RegistrySandbox::TearDown();
    }

    HRESULT Strip(const wchar_t* path)
    {
        return nv::Guarded([&]() -> HRESULT {
            nv::StripNameIndex(m_db.get(), 0, path);
            return S_OK;
        });
    }

    HRESULT Collect(nv::NameIndexMap& map, nv::PolicyKeyList& list,
                    const nv::SubkeyEnumerator& enumerator = nv::EnumRegistrySubkey)
    {
        return nv::Guarded([&]() -> HRESULT {
            nv::CollectNameIndexesAndPolicies(m_db.get(), 0, enumerator, map, list);
            return S_OK;
        });
    }

    nv::unique_hkey m_db;
};

} // namespace

TEST(NetBiosNameTest, MatchesTheSystemAndGrowsFromATooSmallBuffer)
{
    const std::wstring expected = ComputerName();
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(expected, nv::GetNetBiosComputerName());
    EXPECT_EQ(expected, nv::GetNetBiosComputerName(1));
    EXPECT_EQ(expected, nv::GetNetBiosComputerName(0));
    EXPECT_EQ(expected, nv::GetNetBiosComputerName(static_cast<DWORD>(expected.size())));
}

TEST_F(NameIndexTest, StoresAreMappedInOrdinalOrderAndPoliciesInEnumerationOrder)
{
    CreateKeyPath(DbPath(L"Cache\\a").c_str(), kView32);
    CreateKeyPath(DbPath(L"Cache\\B").c_str(), kView32);
    CreateKeyPath(DbPath(L"Cache\\CORP").c_str(), kView32);
    OpenDb();
    nv::NameIndexMap map;
    nv::PolicyKeyList list;
    ASSERT_EQ(S_OK, Collect(map, list));

    const std::wstring computer = ComputerName();
    nv::NameIndexMap expected{
        {L"B", L"Cache\\B\\Users\\Index\\NameIndex"},
        {L"a", L"Cache\\a\\Users\\Index\\NameIndex"},
        {L"CORP", L"Cache\\CORP\\Users\\Index\\NameIndex"},
        {computer, L"MainDB\\Users\\Index\\NameIndex"},
    };
    EXPECT_EQ(expected, map);
    // Ordinal order: upper case before lower case, so "B" comes before "a".
    std::vector<std::wstring> order;
    for (const auto& e : map)
        order.push_back(e.first);
    auto posB = std::find(order.begin(), order.end(), L"B");
    auto posA = std::find(order.begin(), order.end(), L"a");
    EXPECT_LT(posB, posA);

    // Policy keys follow the registry's enumeration order, the machine's last.
    nv::PolicyKeyList expectedList;
    for (const auto& name : SubkeyNames(DbPath(L"Cache").c_str(), kView32))
        expectedList.push_back(L"Cache\\" + name + L"\\Policies");
    expectedList.push_back(L"Data\\Policies");
    ASSERT_EQ(4u, expectedList.size());
    EXPECT_EQ(expectedList, list);
}

TEST_F(NameIndexTest, WithoutCacheOnlyTheMachineStoreAndDataPoliciesAreListed)
{
    OpenDb();
    nv::NameIndexMap map;
    nv::PolicyKeyList list;
    ASSERT_EQ(S_OK, Collect(map, list));
    EXPECT_EQ((nv::NameIndexMap{{ComputerName(), L"MainDB\\Users\\Index\\NameIndex"}}), map);
    EXPECT_EQ((nv::PolicyKeyList{L"Data\\Policies"}), list);
}

TEST_F(NameIndexTest, DomainNamedLikeTheComputerIsReplacedByTheMachineStore)
{
    const std::wstring computer = ComputerName();
    CreateKeyPath(DbPath(L"Cache\\" + computer).c_str(), kView32);
    CreateKeyPath(DbPath(L"Cache\\OTHER").c_str(), kView32);
    OpenDb();
    nv::NameIndexMap map;
    nv::PolicyKeyList list;
    ASSERT_EQ(S_OK, Collect(map, list));
    EXPECT_EQ((nv::NameIndexMap{{computer, L"MainDB\\Users\\Index\\NameIndex"},
                                {L"OTHER", L"Cache\\OTHER\\Users\\Index\\NameIndex"}}),
              map);
    // Its policy key is still listed, and so deleted by the conversion.
    std::set<std::wstring> policies(list.begin(), list.end());
    EXPECT_EQ((std::set<std::wstring>{L"Cache\\" + computer + L"\\Policies", L"Cache\\OTHER\\Policies",
                                      L"Data\\Policies"}),
              policies);
    EXPECT_EQ(3u, list.size());
    EXPECT_EQ(L"Data\\Policies", list.back());
}

// The real registry cannot be made to fail on one subkey of an enumeration (key
// names are far shorter than the 16,384-character buffer), so the enumerator is
// replaced: the registry's answer, except errors at chosen indexes.
TEST_F(NameIndexTest, EnumerationErrorOnOneSubkeySkipsItAndTheOthersAreStillListed)
{
    for (const wchar_t* d : {L"Cache\\D0", L"Cache\\D1", L"Cache\\D2", L"Cache\\D3"})
        CreateKeyPath(DbPath(d).c_str(), kView32);
    OpenDb();
    std::vector<DWORD> asked;
    auto failing = [&](HKEY key, DWORD index, wchar_t* name, DWORD* cch) -> LONG {
        asked.push_back(index);
        EXPECT_EQ(16383u, *cch);
        if (index == 1)
            return ERROR_MORE_DATA;
        if (index == 2)
            return ERROR_ACCESS_DENIED;
        return nv::EnumRegistrySubkey(key, index, name, cch);
    };
    nv::NameIndexMap map;
    nv::PolicyKeyList list;
    ASSERT_EQ(S_OK, Collect(map, list, failing));

    std::vector<std::wstring> names = SubkeyNames(DbPath(L"Cache").c_str(), kView32);
    ASSERT_EQ(4u, names.size());
    EXPECT_EQ((std::vector<DWORD>{0, 1, 2, 3, 4}), asked);
    EXPECT_EQ((nv::NameIndexMap{{names[0], L"Cache\\" + names[0] + L"\\Users\\Index\\NameIndex"},
                                {names[3], L"Cache\\" + names[3] + L"\\Users\\Index\\NameIndex"},
                                {ComputerName(), L"MainDB\\Users\\Index\\NameIndex"}}),
              map);
    EXPECT_EQ((nv::PolicyKeyList{L"Cache\\" + names[0] + L"\\Policies", L"Cache\\" + names[3] + L"\\Policies",
                                 L"Data\\Policies"}),
              list);
}

// A locked hive fails every index: the listing would never reach "no more items".
// It ends after a bounded run of failures with the last error, and a run of failures
// shorter than the bound is still skipped.
TEST_F(NameIndexTest, ListingThatFailsOnEveryIndexEndsWithTheLastErrorAfterABoundedRun)
{
    CreateKeyPath(DbPath(L"Cache\\D0").c_str(), kView32);
    OpenDb();
    DWORD calls = 0;
    auto locked = [&](HKEY, DWORD, wchar_t*, DWORD*) -> LONG {
        ++calls;
        return ERROR_ACCESS_DENIED;
    };
    nv::NameIndexMap map;
    nv::PolicyKeyList list;
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED), Collect(map, list, locked));
    EXPECT_EQ(nv::kMaxFailedSubkeysInARow, calls);

    // One short of the bound, then the real listing: every domain is still found.
    calls = 0;
    auto flaky = [&](HKEY key, DWORD index, wchar_t* name, DWORD* cch) -> LONG {
        if (++calls < nv::kMaxFailedSubkeysInARow)
            return ERROR_ACCESS_DENIED;
        return nv::EnumRegistrySubkey(key, index - (nv::kMaxFailedSubkeysInARow - 1), name, cch);
    };
    map.clear();
    list.clear();
    ASSERT_EQ(S_OK, Collect(map, list, flaky));
    EXPECT_EQ(L"Cache\\D0\\Users\\Index\\NameIndex", map.at(L"D0"));
}

TEST_F(NameIndexTest, ContainersAreFilledNotCleared)
{
    CreateKeyPath(DbPath(L"Cache\\DOM").c_str(), kView32);
    OpenDb();
    nv::NameIndexMap map{{L"DOM", L"old"}, {L"KEEP", L"kept"}};
    nv::PolicyKeyList list{L"first"};
    ASSERT_EQ(S_OK, Collect(map, list));
    EXPECT_EQ(L"Cache\\DOM\\Users\\Index\\NameIndex", map.at(L"DOM"));
    EXPECT_EQ(L"kept", map.at(L"KEEP"));
    EXPECT_EQ((nv::PolicyKeyList{L"first", L"Cache\\DOM\\Policies", L"Data\\Policies"}), list);
}

TEST_F(NameIndexTest, SixteenByteValuesGoAndOthersStay)
{
    const std::wstring index = DbPath(L"MainDB\\Users\\Index\\NameIndex");
    SetBinary(index.c_str(), L"alice/", Id(1), kView32);
    SetBinary(index.c_str(), L"bob", Id(2), kView32);
    SetBinary(index.c_str(), L"note", {1, 2, 3, 4}, kView32);
    SetBinary(index.c_str(), L"short", std::vector<BYTE>(15, 7), kView32);
    SetBinary(index.c_str(), L"long", std::vector<BYTE>(17, 7), kView32);
    SetDword(index.c_str(), L"Count", 2, kView32);
    SetBinary(index.c_str(), L"text16", Text(L"1234567"), kView32, REG_SZ); // 16 bytes of text
    SetBinary(index.c_str(), L"", Id(3), kView32); // the key's default value
    SetString(DbPath(L"MainDB").c_str(), L"beside", L"x", kView32);
    OpenDb();
    RegTree before = Snapshot(kDbPath, kView32);

    ASSERT_EQ(S_OK, Strip(L"MainDB\\Users\\Index\\NameIndex"));

    RegTree expected = before;
    for (const wchar_t* gone : {L"alice/", L"bob", L"text16", L""})
        ASSERT_EQ(1u, expected.values.erase(std::wstring(L"MainDB\\Users\\Index\\NameIndex|") + gone));
    RegTree after = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(expected == after) << DiffTrees(expected, after);
    EXPECT_FALSE(KeyExists(kDbPath, kView64));
}

TEST_F(NameIndexTest, MissingNameIndexFailsWithFileNotFoundAndChangesNothing)
{
    SetBinary(DbPath(L"MainDB\\Users").c_str(), L"id", Id(3), kView32);
    OpenDb();
    RegTree before = Snapshot(kDbPath, kView32);
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), Strip(L"MainDB\\Users\\Index\\NameIndex"));
    RegTree after = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(before == after) << DiffTrees(before, after);
}

namespace {

constexpr const wchar_t kDomainIndex[] = L"Cache\\DOM\\Users\\Index\\NameIndex";

// Six identifiers under the domain's index and one value u35 of these bytes in the
// middle; the database as a scan that stops at u35 leaves it (the identifiers
// enumerated before u35 deleted).
RegTree IndexWithAValueInTheMiddle(const std::vector<BYTE>& middle)
{
    const std::wstring index = DbPath(kDomainIndex);
    // Written in the middle, so that it is in the middle of the enumeration whether
    // the registry lists values by name or by age.
    for (const wchar_t* name : {L"u1", L"u2/", L"u3", L"u35", L"u4", L"u5/", L"u6"}) {
        if (std::wstring(name) == L"u35")
            SetBinary(index.c_str(), name, middle, kView32);
        else
            SetBinary(index.c_str(), name, Id(static_cast<BYTE>(name[1])), kView32);
    }
    SetDword(index.c_str(), L"Count", 6, kView32);

    // Which values come before u35 is the registry's enumeration order.
    std::vector<std::wstring> order = ValueNames(index.c_str(), kView32);
    auto stop = std::find(order.begin(), order.end(), L"u35");
    EXPECT_TRUE(stop != order.end() && stop != order.begin() && stop != order.end() - 1);
    RegTree expected = Snapshot(kDbPath, kView32);
    const size_t deleted = EraseValuesNamed(expected, kDomainIndex, order.begin(), stop, L"Count");
    EXPECT_GT(deleted, 0u);
    EXPECT_LT(deleted, 6u);
    return expected;
}

} // namespace

TEST_F(NameIndexTest, EmptyValueFailsWithError8AfterDeletingTheIdentifiersFoundBeforeIt)
{
    const RegTree expected = IndexWithAValueInTheMiddle({});
    OpenDb();
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY), Strip(kDomainIndex));
    RegTree after = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(expected == after) << DiffTrees(expected, after);
}

TEST_F(NameIndexTest, ValueThatFindsNoMemoryFailsOutOfMemoryAfterDeletingTheIdentifiersFoundBeforeIt)
{
    // 23 bytes: no other allocation of the scan has an odd size.
    const RegTree expected = IndexWithAValueInTheMiddle(std::vector<BYTE>(23, 5));
    OpenDb();
    HRESULT hr = S_OK;
    {
        AllocationFaults oom(1, 23);
        hr = Strip(kDomainIndex);
        EXPECT_EQ(1u, oom.failed());
    }
    EXPECT_EQ(E_OUTOFMEMORY, hr);
    RegTree after = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(expected == after) << DiffTrees(expected, after);
}

TEST_F(NameIndexTest, AnEmptyIndexIsConvertedToItself)
{
    CreateKeyPath(DbPath(L"MainDB\\Users\\Index\\NameIndex").c_str(), kView32);
    OpenDb();
    RegTree before = Snapshot(kDbPath, kView32);
    EXPECT_EQ(S_OK, Strip(L"MainDB\\Users\\Index\\NameIndex"));
    RegTree after = Snapshot(kDbPath, kView32);
    EXPECT_TRUE(before == after) << DiffTrees(before, after);
}

TEST(NetBiosNameTest, NameThatCannotBeReadRaisesTheSystemsErrorOrEFailWithoutOne)
{
    const auto read = [] {
        return nv::Guarded([] {
            nv::GetNetBiosComputerName();
            return S_OK;
        });
    };
    {
        ImportFault<decltype(&::GetComputerNameExW)> fault("GetComputerNameExW", FALSE, ERROR_ACCESS_DENIED);
        EXPECT_EQ(E_ACCESSDENIED, read());
        EXPECT_EQ(1u, fault.calls());
    }
    {
        ImportFault<decltype(&::GetComputerNameExW)> fault("GetComputerNameExW", FALSE, ERROR_SUCCESS);
        EXPECT_EQ(E_FAIL, read());
    }
    // "More data" without naming a larger size than the buffer had: failed with that
    // answer rather than asked again for ever.
    ImportFault<decltype(&::GetComputerNameExW)> fault("GetComputerNameExW", FALSE, ERROR_MORE_DATA);
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_MORE_DATA), read());
    EXPECT_EQ(1u, fault.calls());
}
