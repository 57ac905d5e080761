// What a conversion looks up once: the per-thread slot that holds the scope, the
// scope's opens below the vendor key, the view rule for opens from the library's own
// handles, and the answers it keeps (privilege, machine names) and does not keep.
#include <windows.h>
#include <lm.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>

#include "common/conversionscope.h"
#include "common/keysecurity.h"
#include "common/regkey.h"
#include "common/threadslot.h"
#include "legacydb/hostname.h"
#include "legacydb/regset.h"
#include "support/import_fault.h"
#include "support/registry_sandbox.h"
#include "support/db_paths.h"

using namespace nvtest;
using nv::CConversionScope;

namespace {

constexpr wchar_t kKeyPath[] = L"SOFTWARE\\Norvane\\ScopeTest\\Leaf";

// Reads "Which" through the scope's open of kKeyPath; "" when it does not open.
std::wstring WhichViewOpens(REGSAM view)
{
    HKEY key = nullptr;
    if (CConversionScope::OpenKey(HKEY_LOCAL_MACHINE, kKeyPath, KEY_READ | view, &key) != ERROR_SUCCESS)
        return L"";
    std::wstring which;
    nv::QueryStringValue(key, L"Which", which);
    ::RegCloseKey(key);
    return which;
}

} // namespace

TEST(ThreadSlotTest, EachThreadSeesItsOwnValueAndTheLastErrorIsKept)
{
    nv::ThreadSlot slot;
    EXPECT_EQ(nullptr, slot.Get());
    ::SetLastError(ERROR_ACCESS_DENIED);
    slot.SetNumber(41);
    EXPECT_EQ(static_cast<DWORD>(ERROR_ACCESS_DENIED), ::GetLastError());
    ::SetLastError(ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(41u, slot.GetNumber());
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), ::GetLastError());

    std::uintptr_t seenByOther = 99;
    std::thread other([&] {
        seenByOther = slot.GetNumber();
        slot.SetNumber(7);
    });
    other.join();
    EXPECT_EQ(0u, seenByOther);
    EXPECT_EQ(41u, slot.GetNumber());
}

class ConversionScopeTest : public RegistrySandbox {
protected:
    void SetUp() override
    {
        RegistrySandbox::SetUp();
        SetString(kKeyPath, L"Which", L"32", kView32);
        SetString(kKeyPath, L"Which", L"64", kView64);
    }
};

TEST_F(ConversionScopeTest, OpensBelowTheVendorKeyReachTheKeyOfTheRequestedView)
{
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round ? "with a scope" : "without a scope");
        std::unique_ptr<CConversionScope> scope;
        if (round)
            scope = std::make_unique<CConversionScope>();
        // Twice each: the second open goes through the kept vendor key.
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(L"32", WhichViewOpens(KEY_WOW64_32KEY));
            EXPECT_EQ(L"64", WhichViewOpens(KEY_WOW64_64KEY));
        }
        HKEY key = nullptr;
        EXPECT_EQ(ERROR_FILE_NOT_FOUND,
                  CConversionScope::OpenKey(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane\\ScopeTest\\Missing",
                                            KEY_READ | KEY_WOW64_32KEY, &key));
    }
}

TEST_F(ConversionScopeTest, PathsThatOnlyLookLikeTheVendorKeyAreOpenedAsGiven)
{
    CConversionScope scope;
    // A sibling whose name starts like the vendor key's, in the 32-bit view only.
    SetString(L"SOFTWARE\\NorvaneX", L"Which", L"sibling", kView32);
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS,
              CConversionScope::OpenKey(HKEY_LOCAL_MACHINE, L"SOFTWARE\\NorvaneX", KEY_READ | KEY_WOW64_32KEY, &key));
    std::wstring which;
    nv::QueryStringValue(key, L"Which", which);
    ::RegCloseKey(key);
    EXPECT_EQ(L"sibling", which);
    EXPECT_EQ(ERROR_FILE_NOT_FOUND,
              CConversionScope::OpenKey(HKEY_LOCAL_MACHINE, L"SOFTWARE\\NorvaneX", KEY_READ | KEY_WOW64_64KEY, &key));
}

// "Which" of a key that was opened (closing it), or the error of the open.
std::wstring WhichOf(LONG opened, HKEY key)
{
    if (opened != ERROR_SUCCESS)
        return L"error " + std::to_wstring(opened);
    std::wstring text;
    nv::QueryStringValue(key, L"Which", text);
    ::RegCloseKey(key);
    return text;
}

TEST_F(ConversionScopeTest, TheVendorKeyItselfAndOpensWithoutAViewAreOpenedAsGiven)
{
    SetString(L"SOFTWARE\\Norvane", L"Which", L"vendor32", kView32);
    SetString(L"SOFTWARE\\Norvane", L"Which", L"vendor64", kView64);
    CConversionScope scope;
    auto which = [](const wchar_t* path, REGSAM access) {
        HKEY key = nullptr;
        const LONG r = CConversionScope::OpenKey(HKEY_LOCAL_MACHINE, path, access, &key);
        return WhichOf(r, key);
    };
    EXPECT_EQ(L"vendor32", which(L"SOFTWARE\\Norvane", KEY_READ | KEY_WOW64_32KEY));
    EXPECT_EQ(L"vendor64", which(L"SOFTWARE\\Norvane", KEY_READ | KEY_WOW64_64KEY));
    EXPECT_EQ(L"vendor32", which(L"SOFTWARE\\Norvane\\", KEY_READ | KEY_WOW64_32KEY));
    // Without a view word (or with both) a path below the vendor key opens in the
    // process's own view, as the platform opens it.
    EXPECT_EQ(L"64", which(kKeyPath, KEY_READ));
    const REGSAM both = KEY_READ | KEY_WOW64_32KEY | KEY_WOW64_64KEY;
    HKEY plain = nullptr;
    const LONG r = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kKeyPath, 0, both, &plain);
    EXPECT_EQ(WhichOf(r, plain), which(kKeyPath, both));
    // A null path names the root itself.
    HKEY root = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, CConversionScope::OpenKey(HKEY_LOCAL_MACHINE, nullptr, KEY_READ, &root));
    HKEY software = nullptr;
    EXPECT_EQ(ERROR_SUCCESS, ::RegOpenKeyExW(root, L"SOFTWARE", 0, KEY_READ, &software));
    ::RegCloseKey(software);
    ::RegCloseKey(root);
}

TEST_F(ConversionScopeTest, ViewFlagsAreKeptFromPredefinedRootsAndDroppedFromOwnHandles)
{
    const REGSAM both = KEY_READ | KEY_WOW64_32KEY;
    EXPECT_EQ(both, nv::ViewFlagsFrom(HKEY_LOCAL_MACHINE, both));
    EXPECT_EQ(both, nv::ViewFlagsFrom(HKEY_CURRENT_USER, both));
    EXPECT_EQ(both, nv::ViewFlagsFrom(HKEY_CLASSES_ROOT, both));
    // Handle values on either side of the predefined range are no predefined roots.
    EXPECT_EQ(static_cast<REGSAM>(KEY_READ),
              nv::ViewFlagsFrom(reinterpret_cast<HKEY>(static_cast<LONG_PTR>(static_cast<LONG>(0x80000061))), both));
    EXPECT_EQ(static_cast<REGSAM>(KEY_READ),
              nv::ViewFlagsFrom(reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(0x8000000000001000ull)), both));
    nv::CNVRegKey parent;
    ASSERT_EQ(ERROR_SUCCESS, parent.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane\\ScopeTest", KEY_READ | KEY_WOW64_32KEY));
    EXPECT_EQ(static_cast<REGSAM>(KEY_READ), nv::ViewFlagsFrom(parent, both));
    // The child opened from the 32-bit parent without a flag is the 32-bit child.
    nv::CNVRegKey child;
    ASSERT_EQ(ERROR_SUCCESS, child.Open(parent, L"Leaf", both));
    std::wstring which;
    nv::QueryStringValue(child, L"Which", which);
    EXPECT_EQ(L"32", which);
}

TEST_F(ConversionScopeTest, AnswersAreKeptByTheInnermostScopeOnlyWhileItLives)
{
    bool privileged = false;
    std::wstring name;
    EXPECT_FALSE(CConversionScope::FindPrivilege(&privileged));
    CConversionScope::RememberPrivilege(true); // no scope: dropped
    EXPECT_FALSE(CConversionScope::FindPrivilege(&privileged));
    {
        CConversionScope outer;
        CConversionScope::RememberName(CConversionScope::Name::Computer, L"OUTER");
        {
            CConversionScope inner;
            EXPECT_FALSE(CConversionScope::FindName(CConversionScope::Name::Computer, &name));
            CConversionScope::RememberName(CConversionScope::Name::Computer, L"INNER");
            ASSERT_TRUE(CConversionScope::FindName(CConversionScope::Name::Computer, &name));
            EXPECT_EQ(L"INNER", name);
            EXPECT_FALSE(CConversionScope::FindName(CConversionScope::Name::LocalStore, &name));
        }
        ASSERT_TRUE(CConversionScope::FindName(CConversionScope::Name::Computer, &name));
        EXPECT_EQ(L"OUTER", name);
    }
    EXPECT_FALSE(CConversionScope::FindName(CConversionScope::Name::Computer, &name));
}

TEST_F(ConversionScopeTest, ThePrivilegeIsReadFromTheTokenOnceAndIsTheTokensAnswer)
{
    const bool fromToken = nv::TokenIsSystemOrAdministrator();
    CConversionScope scope;
    bool kept = !fromToken;
    EXPECT_FALSE(CConversionScope::FindPrivilege(&kept));
    EXPECT_EQ(fromToken, nv::CallerIsSystemOrAdministrator());
    ASSERT_TRUE(CConversionScope::FindPrivilege(&kept));
    EXPECT_EQ(fromToken, kept);
    // What the scope holds is what the next question gets.
    CConversionScope::RememberPrivilege(!fromToken);
    EXPECT_EQ(!fromToken, nv::CallerIsSystemOrAdministrator());
}

TEST_F(ConversionScopeTest, TheComputersNameIsReadOnceAndIsTheSystemsName)
{
    wchar_t system[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD cch = MAX_COMPUTERNAME_LENGTH + 1;
    ASSERT_TRUE(::GetComputerNameW(system, &cch));
    CConversionScope scope;
    EXPECT_EQ(std::wstring(system), CHostName().str());
    CConversionScope::RememberName(CConversionScope::Name::Computer, L"KEPT");
    EXPECT_EQ(L"KEPT", CHostName().str());
}

TEST_F(ConversionScopeTest, AComputerNameThatCannotBeReadIsEmptyAndAskedForAgain)
{
    wchar_t system[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD cch = MAX_COMPUTERNAME_LENGTH + 1;
    ASSERT_TRUE(::GetComputerNameW(system, &cch));
    CConversionScope scope;
    {
        ImportFault<decltype(&::GetComputerNameW)> fault("GetComputerNameW", FALSE, ERROR_ACCESS_DENIED);
        EXPECT_EQ(L"", CHostName().str());
        EXPECT_EQ(1u, fault.calls());
    }
    std::wstring kept;
    EXPECT_FALSE(CConversionScope::FindName(CConversionScope::Name::Computer, &kept));
    EXPECT_EQ(std::wstring(system), CHostName().str());
}

// The record set's view of the network functions, counted and failing on request.
namespace {
int g_serverCalls = 0;
bool g_serverFails = false;
NET_API_STATUS NET_API_FUNCTION CountedServerGetInfo(LMSTR server, DWORD level, LPBYTE* buffer)
{
    ++g_serverCalls;
    if (g_serverFails)
        return ERROR_ACCESS_DENIED;
    return ::NetServerGetInfo(server, level, buffer);
}
} // namespace

TEST_F(ConversionScopeTest, TheLocalStoreNameIsKeptOnlyWhenTheServersTypeWasRead)
{
    const CNVDBRegSet::NetApi saved = CNVDBRegSet::s_netApi;
    CNVDBRegSet::s_netApi.pfnServerGetInfo = &CountedServerGetInfo;
    g_serverCalls = 0;
    g_serverFails = true;
    const std::wstring mainDbUsers = L"SOFTWARE\\Norvane\\DB\\MainDB\\Users";
    {
        CConversionScope scope;
        // Both levels fail: the computer's name is compared with, and it is not kept.
        CNVDBRegSet failed;
        ASSERT_EQ(S_OK, failed.Open(CHostName(), 0));
        EXPECT_EQ(mainDbUsers, failed.GetUsersPath());
        EXPECT_EQ(2, g_serverCalls);
        std::wstring name;
        EXPECT_FALSE(CConversionScope::FindName(CConversionScope::Name::LocalStore, &name));

        g_serverFails = false;
        CNVDBRegSet first;
        ASSERT_EQ(S_OK, first.Open(CHostName(), 0));
        EXPECT_EQ(mainDbUsers, first.GetUsersPath());
        const int callsAfterFirst = g_serverCalls;
        EXPECT_GT(callsAfterFirst, 2);
        CNVDBRegSet second;
        ASSERT_EQ(S_OK, second.Open(CHostName(), 0));
        EXPECT_EQ(mainDbUsers, second.GetUsersPath());
        EXPECT_EQ(callsAfterFirst, g_serverCalls) << "the kept answer asked the server again";
        ASSERT_TRUE(CConversionScope::FindName(CConversionScope::Name::LocalStore, &name));
        EXPECT_EQ(CHostName().str(), name);
    }
    // Without a scope every Open asks the server.
    const int before = g_serverCalls;
    CNVDBRegSet unscoped;
    ASSERT_EQ(S_OK, unscoped.Open(CHostName(), 0));
    EXPECT_GT(g_serverCalls, before);
    CNVDBRegSet::s_netApi = saved;
}

namespace {

// "Version" of the database in the 32-bit view; "" when it is missing.
std::wstring DatabaseVersion()
{
    std::wstring v;
    return GetString(L"SOFTWARE\\Norvane\\DB", L"Version", kView32, &v) ? v : L"";
}

// Opens the database for the named store and checks the users path's value that the
// open reports and the "Version" it leaves.
void ExpectOpen(const std::wstring& store, DWORD initial, DWORD userList, const wchar_t* version)
{
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(store.c_str(), initial));
    EXPECT_EQ(userList, set.GetUserListValue());
    EXPECT_EQ(version, DatabaseVersion());
}

} // namespace

TEST_F(ConversionScopeTest, TheDatabaseIsCheckedAndStampedAtTheFirstOpenOfAScopeOnly)
{
    const std::wstring host = CHostName().str();
    {
        CConversionScope scope;
        ExpectOpen(host, 7, 7, L"2.1");
        // Changed behind the scope's back: a later open in the scope relies on what the
        // first one found and made.
        SetString(kDbPath, L"Version", L"9.9", kView32);
        SetDword(L"SOFTWARE\\Norvane\\DB\\MainDB\\Users", L"", 3, kView32);
        ExpectOpen(host, 0, 7, L"9.9");
        // Another store's users path is checked on its own.
        ExpectOpen(L"OTHERHOST", 5, 5, L"2.1");
    }
    // A new scope, and no scope, check everything again.
    SetString(kDbPath, L"Version", L"9.9", kView32);
    {
        CConversionScope scope;
        ExpectOpen(host, 0, 3, L"2.1");
    }
    SetString(kDbPath, L"Version", L"9.9", kView32);
    ExpectOpen(host, 0, 3, L"2.1");
}
