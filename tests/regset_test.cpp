// CNVDBRegSet: opening a store (users path, data path, key security, version stamp),
// reading fields and listing them.
#include <windows.h>
#include <lm.h>
#include <gtest/gtest.h>
#include <sddl.h>
#include <cstring>
#include <string>
#include <vector>

#include "common/conversionscope.h"
#include "common/cryptblob.h"
#include "legacydb/hostname.h"
#include "legacydb/regset.h"
#include "support/registry_sandbox.h"
#include "support/trace_capture.h"
#include "support/db_paths.h"
#include "support/raised_code.h"
#include "support/computer_name.h"
#include "trace/trace.h"

using namespace nvtest;

namespace {
constexpr const wchar_t kMainUsers[] = L"SOFTWARE\\Norvane\\DB\\MainDB\\Users";
constexpr GUID kUser = {0x01234567, 0x89AB, 0xCDEF, {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}};
constexpr const wchar_t kUserKey[] = L"SOFTWARE\\Norvane\\DB\\Data\\Users\\{01234567-89AB-CDEF-0123-456789ABCDEF}";

std::wstring Lower(std::wstring s)
{
    for (auto& c : s)
        c = static_cast<wchar_t>(::towlower(c));
    return s;
}

// A scripted domain controller (or member) for the network functions.
struct FakeNet {
    static std::vector<DWORD> serverLevels;
    static NET_API_STATUS status102;
    static NET_API_STATUS status101;
    static DWORD type;
    static std::wstring domain;
    static int freed;
    static int allocated;
    // Answers the platform does not give here: success without a buffer, and a
    // workstation call that fails or names no domain.
    static bool serverWithoutBuffer;
    static NET_API_STATUS wkstaStatus;
    static bool wkstaWithoutBuffer;
    static bool wkstaWithoutDomain;

    static NET_API_STATUS WINAPI ServerGetInfo(LMSTR server, DWORD level, LPBYTE* buf)
    {
        EXPECT_EQ(nullptr, server);
        serverLevels.push_back(level);
        const NET_API_STATUS status = level == 102 ? status102 : status101;
        if (status != NERR_Success)
            return status;
        if (serverWithoutBuffer)
            return NERR_Success;
        if (level == 102) {
            auto* info = static_cast<SERVER_INFO_102*>(::LocalAlloc(LPTR, sizeof(SERVER_INFO_102)));
            info->sv102_type = type;
            *buf = reinterpret_cast<LPBYTE>(info);
        } else {
            auto* info = static_cast<SERVER_INFO_101*>(::LocalAlloc(LPTR, sizeof(SERVER_INFO_101)));
            info->sv101_type = type;
            *buf = reinterpret_cast<LPBYTE>(info);
        }
        ++allocated;
        return NERR_Success;
    }
    static NET_API_STATUS WINAPI WkstaGetInfo(LMSTR server, DWORD level, LPBYTE* buf)
    {
        EXPECT_EQ(nullptr, server);
        EXPECT_EQ(100u, level);
        if (wkstaStatus != NERR_Success)
            return wkstaStatus;
        if (wkstaWithoutBuffer)
            return NERR_Success;
        auto* info = static_cast<WKSTA_INFO_100*>(::LocalAlloc(LPTR, sizeof(WKSTA_INFO_100)));
        info->wki100_langroup = wkstaWithoutDomain ? nullptr : const_cast<LMSTR>(domain.c_str());
        *buf = reinterpret_cast<LPBYTE>(info);
        ++allocated;
        return NERR_Success;
    }
    static NET_API_STATUS WINAPI BufferFree(LPVOID p)
    {
        ++freed;
        ::LocalFree(p);
        return NERR_Success;
    }
};
std::vector<DWORD> FakeNet::serverLevels;
NET_API_STATUS FakeNet::status102 = NERR_Success;
NET_API_STATUS FakeNet::status101 = NERR_Success;
DWORD FakeNet::type = 0;
std::wstring FakeNet::domain;
int FakeNet::freed = 0;
int FakeNet::allocated = 0;
bool FakeNet::serverWithoutBuffer = false;
NET_API_STATUS FakeNet::wkstaStatus = NERR_Success;
bool FakeNet::wkstaWithoutBuffer = false;
bool FakeNet::wkstaWithoutDomain = false;

class RegSetTest : public RegistrySandbox {
protected:
    void TearDown() override
    {
        CNVDBRegSet::s_netApi = CNVDBRegSet::s_defaultNetApi;
        RegistrySandbox::TearDown();
    }

    void PlayDomainController(DWORD type, const std::wstring& domain, bool level102Fails)
    {
        FakeNet::serverLevels.clear();
        FakeNet::status102 = level102Fails ? static_cast<NET_API_STATUS>(ERROR_NOT_SUPPORTED) : NERR_Success;
        FakeNet::status101 = NERR_Success;
        FakeNet::type = type;
        FakeNet::domain = domain;
        FakeNet::freed = FakeNet::allocated = 0;
        FakeNet::serverWithoutBuffer = false;
        FakeNet::wkstaStatus = NERR_Success;
        FakeNet::wkstaWithoutBuffer = false;
        FakeNet::wkstaWithoutDomain = false;
        CNVDBRegSet::s_netApi = {&FakeNet::ServerGetInfo, &FakeNet::WkstaGetInfo, &FakeNet::BufferFree};
    }

    // A user key with fields, in the 32-bit view.
    void MakeUser()
    {
        CreateKeyPath(kUserKey, kView32);
    }
};

// The DACL of a key in the 32-bit view: protected flag and (sid text, mask, flags).
struct AceInfo {
    std::wstring sid;
    ACCESS_MASK mask;
    BYTE flags;
    bool operator==(const AceInfo& o) const { return sid == o.sid && mask == o.mask && flags == o.flags; }
};

bool ReadDacl(const wchar_t* path, bool* isProtected, std::vector<AceInfo>* aces)
{
    HKEY key = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, READ_CONTROL | KEY_WOW64_32KEY, &key) != ERROR_SUCCESS)
        return false;
    DWORD cb = 0;
    ::RegGetKeySecurity(key, DACL_SECURITY_INFORMATION, nullptr, &cb);
    std::vector<BYTE> sd(cb);
    LONG r = ::RegGetKeySecurity(key, DACL_SECURITY_INFORMATION, sd.data(), &cb);
    ::RegCloseKey(key);
    if (r != ERROR_SUCCESS)
        return false;
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    DWORD revision = 0;
    ::GetSecurityDescriptorControl(sd.data(), &control, &revision);
    *isProtected = (control & SE_DACL_PROTECTED) != 0;
    BOOL present = FALSE, defaulted = FALSE;
    PACL acl = nullptr;
    ::GetSecurityDescriptorDacl(sd.data(), &present, &acl, &defaulted);
    aces->clear();
    if (!acl)
        return true;
    for (DWORD i = 0; i < acl->AceCount; ++i) {
        void* ace = nullptr;
        ::GetAce(acl, i, &ace);
        auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(ace);
        LPWSTR text = nullptr;
        ::ConvertSidToStringSidW(&allowed->SidStart, &text);
        aces->push_back({text, allowed->Mask, allowed->Header.AceFlags});
        ::LocalFree(text);
    }
    return true;
}

} // namespace

TEST_F(RegSetTest, OpenWithTheComputerNameUsesMainDbAndCreatesBothKeysInThe32BitView)
{
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 7));

    EXPECT_TRUE(set.IsOpen());
    EXPECT_EQ(L"SOFTWARE\\Norvane\\DB\\MainDB\\Users", set.GetUsersPath());
    EXPECT_EQ(L"SOFTWARE\\Norvane\\DB\\Data\\Users", set.GetDataPath());
    EXPECT_EQ(7u, set.GetUserListValue());

    DWORD dw = 0xdeadbeef;
    ASSERT_TRUE(GetDword(kMainUsers, L"", kView32, &dw));
    EXPECT_EQ(7u, dw);
    EXPECT_TRUE(KeyExists(kDataUsersPath, kView32));
    std::wstring version;
    ASSERT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    EXPECT_EQ(L"2.1", version);
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane", kView64));

    // Nothing else is created.
    const RegTree tree = Snapshot(kDbPath, kView32);
    EXPECT_EQ((std::vector<std::wstring>{L"", L"Data", L"Data\\Users", L"MainDB", L"MainDB\\Users"}), tree.keys);
    EXPECT_EQ(2u, tree.values.size());
}

TEST_F(RegSetTest, OpenComparesTheComputerNameIgnoringCase)
{
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(Lower(ComputerName()).c_str(), 0));
    EXPECT_EQ(L"SOFTWARE\\Norvane\\DB\\MainDB\\Users", set.GetUsersPath());
}

TEST_F(RegSetTest, OpenWithAnotherNameUsesTheCacheOfThatName)
{
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(L"OTHERDOMAIN", 3));
    EXPECT_EQ(L"SOFTWARE\\Norvane\\DB\\Cache\\OTHERDOMAIN\\Users", set.GetUsersPath());
    DWORD dw = 0;
    ASSERT_TRUE(GetDword(L"SOFTWARE\\Norvane\\DB\\Cache\\OTHERDOMAIN\\Users", L"", kView32, &dw));
    EXPECT_EQ(3u, dw);
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\DB\\MainDB", kView32));
}

TEST_F(RegSetTest, OpenWithANullNameGivesTwoSeparatorsInARow)
{
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(nullptr, 0));
    EXPECT_EQ(L"SOFTWARE\\Norvane\\DB\\Cache\\\\Users", set.GetUsersPath());
    EXPECT_TRUE(set.IsOpen());
}

TEST_F(RegSetTest, DomainControllerComparesWithTheDomainNameAfterLevel102Failed)
{
    PlayDomainController(SV_TYPE_DOMAIN_CTRL | SV_TYPE_SERVER, L"CORPDOM", true);
    {
        CNVDBRegSet set;
        ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 0));
        EXPECT_EQ(L"SOFTWARE\\Norvane\\DB\\Cache\\" + ComputerName() + L"\\Users", set.GetUsersPath());
    }
    EXPECT_EQ((std::vector<DWORD>{102, 101}), FakeNet::serverLevels);
    EXPECT_EQ(FakeNet::allocated, FakeNet::freed);

    FakeNet::serverLevels.clear();
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(L"corpdom", 0));
    EXPECT_EQ(L"SOFTWARE\\Norvane\\DB\\MainDB\\Users", set.GetUsersPath());
    EXPECT_EQ(FakeNet::allocated, FakeNet::freed);
}

TEST_F(RegSetTest, BackupDomainControllerAnsweringLevel102UsesTheDomainName)
{
    PlayDomainController(SV_TYPE_DOMAIN_BAKCTRL, L"CORPDOM", false);
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(L"CorpDom", 0));
    EXPECT_EQ(L"SOFTWARE\\Norvane\\DB\\MainDB\\Users", set.GetUsersPath());
    EXPECT_EQ((std::vector<DWORD>{102}), FakeNet::serverLevels);
    EXPECT_EQ(2, FakeNet::freed);
}

TEST_F(RegSetTest, MemberServerComparesWithTheComputerName)
{
    PlayDomainController(SV_TYPE_SERVER | SV_TYPE_WORKSTATION, L"CORPDOM", false);
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(L"CORPDOM", 0));
    EXPECT_EQ(L"SOFTWARE\\Norvane\\DB\\Cache\\CORPDOM\\Users", set.GetUsersPath());
    EXPECT_EQ(1, FakeNet::freed);
}

TEST_F(RegSetTest, ServerAnswersWithoutABufferCountAsNoAnswerAndTheComputerNameIsUsed)
{
    PlayDomainController(SV_TYPE_DOMAIN_CTRL, L"CORPDOM", false);
    FakeNet::serverWithoutBuffer = true;
    for (int round = 0; round < 2; ++round) {
        CNVDBRegSet set;
        ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 0));
        EXPECT_EQ(L"SOFTWARE\\Norvane\\DB\\MainDB\\Users", set.GetUsersPath());
    }
    // Both levels asked each time: the type was never read.
    EXPECT_EQ((std::vector<DWORD>{102, 101, 102, 101}), FakeNet::serverLevels);
    EXPECT_EQ(0, FakeNet::allocated);
}

TEST_F(RegSetTest, AServerTypeThatCannotBeReadIsAskedAgainWithinAConversion)
{
    PlayDomainController(SV_TYPE_DOMAIN_CTRL, L"CORPDOM", true);
    FakeNet::status101 = static_cast<NET_API_STATUS>(ERROR_ACCESS_DENIED);
    nv::CConversionScope scope;
    for (int i = 0; i < 2; ++i) {
        CNVDBRegSet set;
        ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 0));
        EXPECT_EQ(L"SOFTWARE\\Norvane\\DB\\MainDB\\Users", set.GetUsersPath());
    }
    // Not kept by the conversion's scope: both levels are asked on each open.
    EXPECT_EQ((std::vector<DWORD>{102, 101, 102, 101}), FakeNet::serverLevels);
}

TEST_F(RegSetTest, DomainControllerWithoutItsDomainsNameHasNoLocalStore)
{
    for (int answer = 0; answer < 3; ++answer) {
        SCOPED_TRACE(answer == 0 ? "call fails" : answer == 1 ? "no buffer" : "no domain name");
        PlayDomainController(SV_TYPE_DOMAIN_CTRL, L"CORPDOM", false);
        FakeNet::wkstaStatus = answer == 0 ? static_cast<NET_API_STATUS>(ERROR_ACCESS_DENIED) : NERR_Success;
        FakeNet::wkstaWithoutBuffer = answer == 1;
        FakeNet::wkstaWithoutDomain = answer == 2;
        // Neither the domain's nor the computer's name is the local store.
        for (const std::wstring& name : {std::wstring(L"CORPDOM"), ComputerName()}) {
            CNVDBRegSet set;
            ASSERT_EQ(S_OK, set.Open(name.c_str(), 0));
            EXPECT_EQ(L"SOFTWARE\\Norvane\\DB\\Cache\\" + name + L"\\Users", set.GetUsersPath());
        }
        EXPECT_EQ(FakeNet::allocated, FakeNet::freed);
    }
}

TEST_F(RegSetTest, ExistingUsersKeyDefaultValueWinsOverTheArgument)
{
    SetDword(kMainUsers, L"", 42, kView32);
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 7));
    EXPECT_EQ(42u, set.GetUserListValue());
    DWORD dw = 0;
    ASSERT_TRUE(GetDword(kMainUsers, L"", kView32, &dw));
    EXPECT_EQ(42u, dw);
}

TEST_F(RegSetTest, ExistingUsersKeyWithAMistypedDefaultKeepsTheArgumentAndIsNotRewritten)
{
    SetString(kMainUsers, L"", L"abc", kView32);
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 9));
    EXPECT_EQ(9u, set.GetUserListValue());
    RegValue v;
    ASSERT_TRUE(GetValue(kMainUsers, L"", kView32, &v));
    EXPECT_EQ(static_cast<DWORD>(REG_SZ), v.type);
}

// Wine's registry does not keep the DACL's protection bit, so the entries are compared.
const std::vector<AceInfo> kStandardAces = {
    {L"S-1-5-18", KEY_ALL_ACCESS, OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE},
    {L"S-1-5-32-544", KEY_ALL_ACCESS, OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE},
    {L"S-1-5-32-545", KEY_READ, OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE},
};

TEST_F(RegSetTest, CreatedKeysGetTheDatabaseKeySecurity)
{
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 0));
    for (const wchar_t* path : {kMainUsers, kDataUsersPath}) {
        bool isProtected = false;
        std::vector<AceInfo> aces;
        ASSERT_TRUE(ReadDacl(path, &isProtected, &aces));
        EXPECT_EQ(kStandardAces, aces) << Narrow(path);
    }
    // Keys made on the way as parents are not touched.
    bool isProtected = false;
    std::vector<AceInfo> aces;
    ASSERT_TRUE(ReadDacl(kDbPath, &isProtected, &aces));
    EXPECT_NE(kStandardAces, aces);
}

TEST_F(RegSetTest, ExistingKeysKeepTheirSecurity)
{
    CreateKeyPath(kMainUsers, kView32);
    CreateKeyPath(kDataUsersPath, kView32);
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 5));
    for (const wchar_t* path : {kMainUsers, kDataUsersPath}) {
        bool isProtected = false;
        std::vector<AceInfo> aces;
        ASSERT_TRUE(ReadDacl(path, &isProtected, &aces));
        EXPECT_NE(kStandardAces, aces) << Narrow(path);
    }
    // An existing key without a default value gets none written.
    RegValue v;
    EXPECT_FALSE(GetValue(kMainUsers, L"", kView32, &v));
    EXPECT_EQ(5u, set.GetUserListValue());
}

TEST_F(RegSetTest, VersionAlreadyStampedIsNotWritten)
{
    // REG_EXPAND_SZ reads as "2.1" too; a rewrite would make it REG_SZ.
    SetString(kDbPath, L"Version", L"2.1", kView32, REG_EXPAND_SZ);
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 0));
    RegValue v;
    ASSERT_TRUE(GetValue(kDbPath, L"Version", kView32, &v));
    EXPECT_EQ(static_cast<DWORD>(REG_EXPAND_SZ), v.type);
}

TEST_F(RegSetTest, OtherVersionsAreRewrittenAsRegSz21)
{
    const std::vector<BYTE> expected = {'2', 0, '.', 0, '1', 0, 0, 0};
    for (const wchar_t* old : {L"2.0", L"2.1 ", L"2.10", L""}) {
        WipeSuiteKeys();
        SetString(kDbPath, L"Version", old, kView32);
        CNVDBRegSet set;
        ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 0));
        RegValue v;
        ASSERT_TRUE(GetValue(kDbPath, L"Version", kView32, &v));
        EXPECT_EQ(static_cast<DWORD>(REG_SZ), v.type) << Narrow(old);
        EXPECT_EQ(expected, v.data) << Narrow(old);
    }
    WipeSuiteKeys();
    SetDword(kDbPath, L"Version", 0x21, kView32);
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 0));
    RegValue v;
    ASSERT_TRUE(GetValue(kDbPath, L"Version", kView32, &v));
    EXPECT_EQ(expected, v.data);
}

TEST_F(RegSetTest, EveryOperationBeforeOpenFailsWithEFail)
{
    CNVDBRegSet set;
    nv::CCryptBlob blob(reinterpret_cast<const BYTE*>("\xde\xad\xbe\xef"), 4);
    std::vector<std::wstring> fields{L"sentinel"};
    EXPECT_EQ(E_FAIL, set.ReadField(kUser, L"x", blob));
    EXPECT_EQ(E_FAIL, set.ReadAnyField(kUserKey, L"x", blob));
    EXPECT_EQ(E_FAIL, set.EnumFields(kUser, fields));
    EXPECT_EQ(4u, blob.cbData);
    EXPECT_EQ(0, std::memcmp(blob.pbData, "\xde\xad\xbe\xef", 4));
    EXPECT_EQ(std::vector<std::wstring>{L"sentinel"}, fields);
    EXPECT_FALSE(set.IsOpen());
    EXPECT_TRUE(set.GetUsersPath().empty());
    EXPECT_EQ(0u, set.GetUserListValue());
}

TEST_F(RegSetTest, OpenFailingLeavesTheRecordSetClosed)
{
    // A database key that cannot be opened for all access.
    CreateKeyPath(kMainUsers, kView32);
    CreateKeyPath(kDataUsersPath, kView32);
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kDbPath, 0, WRITE_DAC | KEY_WOW64_32KEY, &key));
    PSECURITY_DESCRIPTOR sd = nullptr;
    ASSERT_TRUE(::ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:P(A;;KR;;;BA)(A;;KR;;;SY)", SDDL_REVISION_1,
                                                                      &sd, nullptr));
    ASSERT_EQ(ERROR_SUCCESS, ::RegSetKeySecurity(key, DACL_SECURITY_INFORMATION, sd));
    ::LocalFree(sd);
    ::RegCloseKey(key);

    CNVDBRegSet set;
    EXPECT_EQ(E_ACCESSDENIED, set.Open(ComputerName().c_str(), 0));
    EXPECT_FALSE(set.IsOpen());
    nv::CCryptBlob blob;
    EXPECT_EQ(E_FAIL, set.ReadField(kUser, L"x", blob));

    // Give the sandbox its key back.
    ASSERT_EQ(ERROR_SUCCESS, ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kDbPath, 0, WRITE_DAC | KEY_WOW64_32KEY, &key));
    ASSERT_TRUE(::ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:(A;OICI;KA;;;BA)(A;OICI;KA;;;SY)",
                                                                      SDDL_REVISION_1, &sd, nullptr));
    ::RegSetKeySecurity(key, DACL_SECURITY_INFORMATION, sd);
    ::LocalFree(sd);
    ::RegCloseKey(key);
}

TEST_F(RegSetTest, ReadFieldReturnsTheBytesOfABinaryField)
{
    MakeUser();
    SetBinary(kUserKey, L"Secret", {1, 2, 3, 4, 5}, kView32);
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 0));
    nv::CCryptBlob blob(reinterpret_cast<const BYTE*>("old"), 3);
    ASSERT_EQ(S_OK, set.ReadField(kUser, L"Secret", blob));
    EXPECT_EQ((std::vector<BYTE>{1, 2, 3, 4, 5}), std::vector<BYTE>(blob.pbData, blob.pbData + blob.cbData));
}

TEST_F(RegSetTest, ReadFieldOfLengthZeroGivesAnEmptyBlob)
{
    MakeUser();
    SetBinary(kUserKey, L"Empty", {}, kView32);
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 0));
    nv::CCryptBlob blob(reinterpret_cast<const BYTE*>("old"), 3);
    ASSERT_EQ(S_OK, set.ReadField(kUser, L"Empty", blob));
    EXPECT_EQ(0u, blob.cbData);
}

TEST_F(RegSetTest, ReadFieldWithANullOrEmptyNameReadsTheDefaultValue)
{
    MakeUser();
    SetBinary(kUserKey, L"", {9, 8, 7}, kView32);
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 0));
    for (const wchar_t* name : {static_cast<const wchar_t*>(nullptr), L""}) {
        nv::CCryptBlob blob;
        ASSERT_EQ(S_OK, set.ReadField(kUser, name, blob));
        EXPECT_EQ((std::vector<BYTE>{9, 8, 7}), std::vector<BYTE>(blob.pbData, blob.pbData + blob.cbData));
    }
}

TEST_F(RegSetTest, ReadFieldOfAnUnknownUserIsSFalseAndLeavesTheBlob)
{
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 0));
    nv::CCryptBlob blob(reinterpret_cast<const BYTE*>("\xde\xad\xbe\xef"), 4);
    const BYTE* before = blob.pbData;
    EXPECT_EQ(S_FALSE, set.ReadField(kUser, L"Secret", blob));
    EXPECT_EQ(before, blob.pbData);
    EXPECT_EQ(4u, blob.cbData);
    EXPECT_EQ(0, std::memcmp(blob.pbData, "\xde\xad\xbe\xef", 4));
}

TEST_F(RegSetTest, ReadFieldOfAMissingFieldIsSFalseAndLeavesTheBlob)
{
    MakeUser();
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 0));
    nv::CCryptBlob blob(reinterpret_cast<const BYTE*>("\xde\xad\xbe\xef"), 4);
    EXPECT_EQ(S_FALSE, set.ReadField(kUser, L"Secret", blob));
    EXPECT_EQ(0, std::memcmp(blob.pbData, "\xde\xad\xbe\xef", 4));
}

TEST_F(RegSetTest, ReadFieldOfAStringOrDwordFieldFailsWithInvalidData)
{
    MakeUser();
    SetString(kUserKey, L"Text", L"abc", kView32);
    SetDword(kUserKey, L"Number", 5, kView32);
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 0));
    nv::CCryptBlob blob(reinterpret_cast<const BYTE*>("\xde\xad\xbe\xef"), 4);
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_INVALID_DATA), set.ReadField(kUser, L"Text", blob));
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_INVALID_DATA), set.ReadField(kUser, L"Number", blob));
    EXPECT_EQ(0, std::memcmp(blob.pbData, "\xde\xad\xbe\xef", 4));
}

TEST_F(RegSetTest, ReadAnyFieldReadsUnderAnySubkeyInThe32BitViewOnly)
{
    SetBinary(L"SOFTWARE\\Norvane\\DB\\Elsewhere", L"v", {0xAA}, kView32);
    SetBinary(L"SOFTWARE\\Norvane\\DB\\Native", L"v", {0xBB}, kView64);
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 0));
    nv::CCryptBlob blob;
    ASSERT_EQ(S_OK, set.ReadAnyField(L"SOFTWARE\\Norvane\\DB\\Elsewhere", L"v", blob));
    ASSERT_EQ(1u, blob.cbData);
    EXPECT_EQ(0xAA, blob.pbData[0]);
    EXPECT_EQ(S_FALSE, set.ReadAnyField(L"SOFTWARE\\Norvane\\DB\\Native", L"v", blob));
}

TEST_F(RegSetTest, EnumFieldsListsNamedValuesInRegistryOrder)
{
    MakeUser();
    SetBinary(kUserKey, L"", {1}, kView32);
    SetBinary(kUserKey, L"Zeta", {1}, kView32);
    SetString(kUserKey, L"alpha", L"x", kView32);
    SetBinary(kUserKey, L"AccountControl", {0, 0, 0, 0}, kView32);
    SetBinary(kUserKey, L"A rather long field name with spaces", {2}, kView32);
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 0));
    std::vector<std::wstring> fields{L"sentinel"};
    ASSERT_EQ(S_OK, set.EnumFields(kUser, fields));

    std::vector<std::wstring> expected;
    for (const auto& name : ValueNames(kUserKey, kView32))
        if (!name.empty())
            expected.push_back(name);
    EXPECT_EQ(4u, expected.size());
    EXPECT_EQ(expected, fields);
}

TEST_F(RegSetTest, EnumFieldsOfAKeyWithOnlyADefaultValueIsEmpty)
{
    MakeUser();
    SetBinary(kUserKey, L"", {1}, kView32);
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 0));
    std::vector<std::wstring> fields{L"sentinel"};
    ASSERT_EQ(S_OK, set.EnumFields(kUser, fields));
    EXPECT_TRUE(fields.empty());
}

TEST_F(RegSetTest, EnumFieldsOfAMissingUserFailsAndLeavesTheVector)
{
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 0));
    std::vector<std::wstring> fields{L"sentinel"};
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), set.EnumFields(kUser, fields));
    EXPECT_EQ(std::vector<std::wstring>{L"sentinel"}, fields);
}

TEST_F(RegSetTest, OpenTracesTheVersionStampOnlyWhenItWritesIt)
{
    TraceCapture trace;
    trace.Start();
    SetString(kDbPath, L"Version", L"2.0", kView32);
    {
        CNVDBRegSet set;
        ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 0));
    }
    EXPECT_EQ((std::vector<std::string>{"> CNVDBRegSet::Open", "U writing new version number: <2.1>", "<"}),
              trace.Lines());
    {
        CNVDBRegSet set;
        ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 0));
    }
    EXPECT_EQ((std::vector<std::string>{"> CNVDBRegSet::Open", "U writing new version number: <2.1>", "<",
                                        "> CNVDBRegSet::Open", "<"}),
              trace.Lines());
}

TEST_F(RegSetTest, OpenOfADatabaseWithoutVersionTracesTheStamp)
{
    TraceCapture trace;
    trace.Start();
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(L"ELSEWHERE", 0));
    EXPECT_EQ(1u, trace.Count("U writing new version number: <2.1>"));
}

TEST_F(RegSetTest, ReadsTraceWhatTheyFoundInNestedScopes)
{
    MakeUser();
    SetBinary(kUserKey, L"Secret", {1}, kView32);
    SetString(kUserKey, L"Text", L"abc", kView32);
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 0));
    const GUID unknown = {0x76543210, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0}};

    TraceCapture trace;
    trace.Start();
    nv::CCryptBlob blob;
    EXPECT_EQ(S_FALSE, set.ReadField(unknown, L"Secret", blob));
    EXPECT_EQ(S_FALSE, set.ReadField(kUser, L"Missing", blob));
    EXPECT_EQ(S_OK, set.ReadField(kUser, L"Secret", blob));
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_INVALID_DATA), set.ReadField(kUser, L"Text", blob));
    EXPECT_EQ((std::vector<std::string>{
                  "> CNVDBRegSet::ReadField", "> CNVDBRegSet::ReadAnyField", "U key not found", "<", "<",
                  "> CNVDBRegSet::ReadField", "> CNVDBRegSet::ReadAnyField", "U field not found", "<", "<",
                  "> CNVDBRegSet::ReadField", "> CNVDBRegSet::ReadAnyField", "U field read ok", "<", "<",
                  "> CNVDBRegSet::ReadField", "> CNVDBRegSet::ReadAnyField", "E -2147024883 ", "<",
                  "E -2147024883 ", "<"}),
              trace.Lines());
}

TEST_F(RegSetTest, FailuresAreTracedAsResults)
{
    TraceCapture trace;
    trace.Start();
    CNVDBRegSet set;
    nv::CCryptBlob blob;
    std::vector<std::wstring> fields;
    EXPECT_EQ(E_FAIL, set.ReadField(kUser, L"x", blob));
    EXPECT_EQ(E_FAIL, set.EnumFields(kUser, fields));
    ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 0));
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), set.EnumFields(kUser, fields));
    EXPECT_EQ((std::vector<std::string>{"> CNVDBRegSet::ReadField", "E -2147467259 ", "<",
                                        "> CNVDBRegSet::EnumFields", "E -2147467259 ", "<",
                                        "> CNVDBRegSet::Open", "U writing new version number: <2.1>", "<",
                                        "> CNVDBRegSet::EnumFields", "E -2147024894 ", "<"}),
              trace.Lines());
}

TEST_F(RegSetTest, ScopesAreOfTheChattyLevel)
{
    TraceCapture trace;
    trace.Start(9);
    CNVDBRegSet set;
    ASSERT_EQ(S_OK, set.Open(ComputerName().c_str(), 0));
    { NVTraceNS::CTraceScope probe("probe", 9); }
    EXPECT_EQ((std::vector<std::string>{"> probe", "<"}), trace.Lines());
}

TEST(RegSetConstructionTest, LockThatCannotBeMadeRaisesOutOfMemoryOrTheSystemsError)
{
    EXPECT_EQ(E_OUTOFMEMORY, RaisedMakingWithoutCriticalSection<CNVDBRegSet>(ERROR_NOT_ENOUGH_MEMORY));
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_INVALID_PARAMETER),
              RaisedMakingWithoutCriticalSection<CNVDBRegSet>(ERROR_INVALID_PARAMETER));
}
