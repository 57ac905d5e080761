// CFPSecurityContext: the machine container named by the host identifier, the
// NVHOST key and its access list, the public key, signing and verification.
#include <windows.h>
#include <wincrypt.h>
#include <aclapi.h>
#include <sddl.h>
#include <comdef.h>
#include <gtest/gtest.h>

#include <climits>
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "common/hresult.h"
#include "security/securitycontext.h"
#include "support/key_containers.h"
#include "support/api_faults.h"
#include "support/import_fault.h"
#include "support/registry_sandbox.h"
#include "support/signed_records.h"
#include "support/trace_capture.h"
#include "writer/host_provisioning.h"

using namespace nvtest;

namespace {
constexpr DWORD kDer = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
const wchar_t kHostKey[] = L"SOFTWARE\\Norvane\\NVHOST";
BYTE* const kSentinelPtr = reinterpret_cast<BYTE*>(static_cast<uintptr_t>(0xdeadbeef));
constexpr DWORD kSentinel = 0xdeadbeef;

// kTestHostId as the host service stores it, byte by byte.
const std::vector<BYTE> kTestHostIdValue = {0x7E, 0x57, 0xC0, 0xDE, 0x5E, 0xC1, 0x4A, 0x11,
                                            0x8B, 0x3D, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const char kTestContainerName[] = "{7E57C0DE-5EC1-4A11-8B3D-001122334455}";

GUID GuidFromValue(const std::vector<BYTE>& v)
{
    GUID g{};
    g.Data1 = (DWORD(v[0]) << 24) | (DWORD(v[1]) << 16) | (DWORD(v[2]) << 8) | v[3];
    g.Data2 = WORD((v[4] << 8) | v[5]);
    g.Data3 = WORD((v[6] << 8) | v[7]);
    std::copy(v.begin() + 8, v.begin() + 16, g.Data4);
    return g;
}

std::string ContainerOf(HCRYPTPROV prov)
{
    char name[256] = {};
    DWORD cb = sizeof(name);
    if (!::CryptGetProvParam(prov, PP_CONTAINER, reinterpret_cast<BYTE*>(name), &cb, 0))
        return "<none>";
    return name;
}

std::string ProviderOf(HCRYPTPROV prov)
{
    char name[256] = {};
    DWORD cb = sizeof(name);
    if (!::CryptGetProvParam(prov, PP_NAME, reinterpret_cast<BYTE*>(name), &cb, 0))
        return "<none>";
    return name;
}

// Owns a blob a context handed out.
struct TaskBlob : CRYPT_DATA_BLOB {
    TaskBlob() : CRYPT_DATA_BLOB{kSentinel, kSentinelPtr} {}
    ~TaskBlob()
    {
        if (pbData != kSentinelPtr)
            ::CoTaskMemFree(pbData);
    }
    bool Untouched() const { return cbData == kSentinel && pbData == kSentinelPtr; }
};

struct Ace {
    BYTE type;
    BYTE flags;
    ACCESS_MASK mask;
    std::string sid;
    bool operator==(const Ace& o) const
    {
        return type == o.type && flags == o.flags && mask == o.mask && sid == o.sid;
    }
};

std::ostream& operator<<(std::ostream& os, const Ace& a)
{
    return os << "{type " << int(a.type) << ", flags " << int(a.flags) << ", mask 0x" << std::hex << a.mask
              << std::dec << ", " << a.sid << "}";
}

// The DACL entries of HKLM\<path> in a view.
std::vector<Ace> DaclOf(const wchar_t* path, REGSAM view)
{
    std::vector<Ace> aces;
    HKEY raw = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, READ_CONTROL | view, &raw) != ERROR_SUCCESS) {
        ADD_FAILURE() << "cannot open key";
        return aces;
    }
    nv::unique_hkey key(raw);
    PACL dacl = nullptr;
    PSECURITY_DESCRIPTOR sd = nullptr;
    if (::GetSecurityInfo(key.get(), SE_REGISTRY_KEY, DACL_SECURITY_INFORMATION, nullptr, nullptr, &dacl, nullptr,
                          &sd) != ERROR_SUCCESS) {
        ADD_FAILURE() << "cannot read the key's security";
        return aces;
    }
    for (DWORD i = 0; dacl && i < dacl->AceCount; ++i) {
        void* p = nullptr;
        ::GetAce(dacl, i, &p);
        auto* ace = static_cast<ACCESS_ALLOWED_ACE*>(p);
        LPWSTR text = nullptr;
        ::ConvertSidToStringSidW(&ace->SidStart, &text);
        aces.push_back({ace->Header.AceType, ace->Header.AceFlags, ace->Mask, Narrow(text ? text : L"?")});
        ::LocalFree(text);
    }
    ::LocalFree(sd);
    return aces;
}

// Creates HKLM\<path> and gives it the DACL of an SDDL string.
void CreateKeyWithSddl(const wchar_t* path, REGSAM view, const wchar_t* sddl)
{
    PSECURITY_DESCRIPTOR sd = nullptr;
    ASSERT_TRUE(::ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1, &sd, nullptr));
    HKEY raw = nullptr;
    LONG r = ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, path, 0, nullptr, 0, KEY_ALL_ACCESS | view, nullptr, &raw, nullptr);
    if (r == ERROR_SUCCESS) {
        r = ::RegSetKeySecurity(raw, DACL_SECURITY_INFORMATION, sd);
        ::RegCloseKey(raw);
    }
    ::LocalFree(sd);
    ASSERT_EQ(ERROR_SUCCESS, r);
}

// Runs the thread on a copy of the process token whose Administrators group is
// deny-only: a caller without high privilege.
class UnprivilegedThread {
public:
    UnprivilegedThread()
    {
        HANDLE process = nullptr, duplicate = nullptr, restricted = nullptr;
        BYTE admins[SECURITY_MAX_SID_SIZE];
        DWORD cb = sizeof(admins);
        ::CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, admins, &cb);
        SID_AND_ATTRIBUTES disable{admins, 0};
        m_ok = ::OpenProcessToken(::GetCurrentProcess(), TOKEN_ALL_ACCESS, &process) &&
               ::DuplicateTokenEx(process, TOKEN_ALL_ACCESS, nullptr, SecurityImpersonation, TokenImpersonation,
                                  &duplicate) &&
               ::CreateRestrictedToken(duplicate, 0, 1, &disable, 0, nullptr, 0, nullptr, &restricted) &&
               ::SetThreadToken(nullptr, restricted);
        if (process)
            ::CloseHandle(process);
        if (duplicate)
            ::CloseHandle(duplicate);
        if (restricted)
            ::CloseHandle(restricted);
    }
    ~UnprivilegedThread() { ::RevertToSelf(); }
    bool ok() const { return m_ok; }

private:
    bool m_ok = false;
};

// A small DER value to sign: SEQUENCE { INTEGER 5, OCTET STRING "abc" }.
const std::vector<BYTE> kToBeSigned = {0x30, 0x08, 0x02, 0x01, 0x05, 0x04, 0x03, 'a', 'b', 'c'};

} // namespace

// ---- FinalConstruct -------------------------------------------------------

// Signatures and public keys are checked byte for byte against the product's 2048-bit key.
class SecurityContextTest : public ProvisionedHostTest {
protected:
    SecurityContextTest() { m_quickHostKey = false; }
};

TEST_F(SecurityContextTest, FinalConstructAcquiresTheMachineContainerNamedByHostId)
{
    CFPSecurityContext ctx;
    ASSERT_EQ(S_OK, ctx.FinalConstruct(kView32));
    ASSERT_NE(0u, ctx.Provider());
    EXPECT_EQ(kTestContainerName, ContainerOf(ctx.Provider()));
    EXPECT_EQ("Microsoft Enhanced Cryptographic Provider v1.0", ProviderOf(ctx.Provider()));
    // The container's own key, not a new one.
    EXPECT_EQ(PublicKeyBlobOf(nvwriter::OpenMachineContainer(kTestHostId).get()), PublicKeyBlobOf(ctx.Provider()));

    RegValue value;
    ASSERT_TRUE(GetValue(kHostKey, L"HostId", kView32, &value));
    EXPECT_EQ(DWORD(REG_BINARY), value.type);
    EXPECT_EQ(kTestHostIdValue, value.data);
    EXPECT_FALSE(KeyExists(kHostKey, kView64));
}

TEST_F(SecurityContextTest, ContextsOfOneCacheReadTheHostKeyOnceAndShareOneProvider)
{
    nvsecurity::CProviderCache cache;
    ApiFaults faults;
    faults.FailQueryValue(L"HostId", 0, ERROR_SUCCESS); // counts, fails none
    CFPSecurityContext first;
    ASSERT_EQ(S_OK, first.FinalConstruct(kView32));
    const unsigned readsByFirst = faults.QueryValueCalls();
    EXPECT_EQ(2u, readsByFirst); // size, then data
    CFPSecurityContext second;
    ASSERT_EQ(S_OK, second.FinalConstruct(kView32));
    EXPECT_EQ(readsByFirst, faults.QueryValueCalls()) << "the second context read HostId again";
    EXPECT_EQ(first.Provider(), second.Provider());
    EXPECT_EQ(kTestContainerName, ContainerOf(second.Provider()));
    // Another view is another host key: it is read for itself (and is missing here,
    // so that context makes one).
    CFPSecurityContext otherView;
    otherView.FinalConstruct(kView64);
    EXPECT_GT(faults.QueryValueCalls(), readsByFirst);
}

TEST_F(SecurityContextTest, AFailedConstructionInACacheLeavesNothingBehind)
{
    nvsecurity::CProviderCache cache;
    {
        ApiFaults faults;
        faults.FailQueryValue(L"HostId", 1, ERROR_ACCESS_DENIED);
        CFPSecurityContext failed;
        EXPECT_EQ(nv::HResultFromWin32(ERROR_ACCESS_DENIED), failed.FinalConstruct(kView32));
        EXPECT_EQ(0u, failed.Provider());
    }
    ApiFaults faults;
    faults.FailQueryValue(L"HostId", 0, ERROR_SUCCESS);
    CFPSecurityContext next;
    ASSERT_EQ(S_OK, next.FinalConstruct(kView32));
    EXPECT_EQ(2u, faults.QueryValueCalls()) << "the next context took what a failed one left";
    EXPECT_EQ(kTestContainerName, ContainerOf(next.Provider()));
}

namespace {

// Empty machine containers of the given names, made for a test and deleted after it.
class NamedContainers {
public:
    explicit NamedContainers(std::vector<std::wstring> names) : m_names(std::move(names))
    {
        for (const std::wstring& name : m_names) {
            Delete(name);
            HCRYPTPROV h = 0;
            EXPECT_TRUE(::CryptAcquireContextW(&h, name.c_str(), nvsecurity::kProviderName, PROV_RSA_FULL,
                                               CRYPT_MACHINE_KEYSET | CRYPT_NEWKEYSET))
                << Narrow(name) << " " << ::GetLastError();
            if (h)
                ::CryptReleaseContext(h, 0);
        }
    }
    ~NamedContainers()
    {
        for (const std::wstring& name : m_names)
            Delete(name);
    }
    const std::wstring& operator[](size_t i) const { return m_names[i]; }

private:
    static void Delete(const std::wstring& name)
    {
        HCRYPTPROV h = 0;
        ::CryptAcquireContextW(&h, name.c_str(), nvsecurity::kProviderName, PROV_RSA_FULL,
                               CRYPT_MACHINE_KEYSET | CRYPT_DELETEKEYSET);
    }
    std::vector<std::wstring> m_names;
};

} // namespace

TEST(ProviderCacheTest, KeepsFourContainersAndOpensAnyOtherEachTime)
{
    NamedContainers containers({L"{7E57CA00-0000-4000-8000-000000000001}", L"{7E57CA00-0000-4000-8000-000000000002}",
                                L"{7E57CA00-0000-4000-8000-000000000003}", L"{7E57CA00-0000-4000-8000-000000000004}",
                                L"{7E57CA00-0000-4000-8000-000000000005}"});
    nvsecurity::CProviderCache cache;
    // Counted, never failed.
    ImportFault<decltype(&::CryptAcquireContextW)> opens("CryptAcquireContextW", FALSE, ERROR_SUCCESS, UINT_MAX);
    HCRYPTPROV first[5] = {}, again[5] = {};
    for (size_t i = 0; i < 5; ++i)
        ASSERT_TRUE(nvsecurity::CProviderCache::AcquireMachineContainer(containers[i].c_str(), &first[i]));
    EXPECT_EQ(5u, opens.calls());
    for (size_t i = 0; i < 5; ++i)
        ASSERT_TRUE(nvsecurity::CProviderCache::AcquireMachineContainer(containers[i].c_str(), &again[i]));
    EXPECT_EQ(6u, opens.calls()) << "only the fifth container is opened again";
    for (size_t i = 0; i < 4; ++i)
        EXPECT_EQ(first[i], again[i]) << i;
    EXPECT_NE(first[4], again[4]);
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(Narrow(containers[i]), ContainerOf(again[i])) << i;
        ::CryptReleaseContext(first[i], 0);
        ::CryptReleaseContext(again[i], 0);
    }
}

TEST(ProviderCacheTest, ANameLongerThanAHostContainerNameIsNotShared)
{
    NamedContainers containers({L"A container name longer than any host identifier's text"});
    nvsecurity::CProviderCache cache;
    ImportFault<decltype(&::CryptAcquireContextW)> opens("CryptAcquireContextW", FALSE, ERROR_SUCCESS, UINT_MAX);
    HCRYPTPROV a = 0, b = 0;
    ASSERT_TRUE(nvsecurity::CProviderCache::AcquireMachineContainer(containers[0].c_str(), &a));
    ASSERT_TRUE(nvsecurity::CProviderCache::AcquireMachineContainer(containers[0].c_str(), &b));
    EXPECT_EQ(2u, opens.calls());
    EXPECT_NE(a, b);
    EXPECT_EQ(Narrow(containers[0]), ContainerOf(b));
    ::CryptReleaseContext(a, 0);
    ::CryptReleaseContext(b, 0);
}

TEST_F(SecurityContextTest, WithoutACacheEveryContextReadsTheHostKey)
{
    ApiFaults faults;
    faults.FailQueryValue(L"HostId", 0, ERROR_SUCCESS);
    for (int i = 0; i < 2; ++i) {
        CFPSecurityContext ctx;
        ASSERT_EQ(S_OK, ctx.FinalConstruct(kView32));
    }
    EXPECT_EQ(4u, faults.QueryValueCalls());
}

TEST_F(SecurityContextTest, SecondConstructionReleasesTheFirstProviderOnce)
{
    SetBinary(kHostKey, L"HostId", kTestHostIdValue, kView32);
    CFPSecurityContext ctx;
    ASSERT_EQ(S_OK, ctx.FinalConstruct(kView32));
    // Counted, never failed: the provider the first construction acquired is
    // released before the second acquires its own.
    ImportFault<decltype(&::CryptReleaseContext)> counted("CryptReleaseContext", FALSE, ERROR_SUCCESS, UINT_MAX);
    ASSERT_EQ(S_OK, ctx.FinalConstruct(kView32));
    EXPECT_EQ(1u, counted.calls());
    EXPECT_EQ(kTestContainerName, ContainerOf(ctx.Provider()));
}

TEST_F(SecurityContextTest, HostIdIsReadInBigEndianFieldOrder)
{
    // Written byte by byte, not through the writer.
    SetBinary(kHostKey, L"HostId", kTestHostIdValue, kView32);
    CFPSecurityContext ctx;
    ASSERT_EQ(S_OK, ctx.FinalConstruct(kView32));
    EXPECT_EQ(kTestContainerName, ContainerOf(ctx.Provider()));
}

TEST_F(SecurityContextTest, ContainerNameIsUpperCaseRegistryFormOfTheGuid)
{
    wchar_t name[nvsecurity::kContainerNameChars];
    nvsecurity::FormatContainerName(kTestHostId, name);
    EXPECT_STREQ(L"{7E57C0DE-5EC1-4A11-8B3D-001122334455}", name);
    const GUID lowDigits = {0x0000000A, 0x000B, 0x000C, {0x0D, 0x0E, 0x0F, 0xAB, 0xCD, 0xEF, 0xFF, 0x00}};
    nvsecurity::FormatContainerName(lowDigits, name);
    EXPECT_STREQ(L"{0000000A-000B-000C-0D0E-0FABCDEFFF00}", name);
}

TEST_F(SecurityContextTest, ContainerNameThatCannotBeWrittenIsEmpty)
{
    wchar_t name[nvsecurity::kContainerNameChars] = L"sentinel";
    ImportFault<decltype(&::StringFromGUID2)> fault("StringFromGUID2", 0, ERROR_SUCCESS);
    nvsecurity::FormatContainerName(kTestHostId, name);
    EXPECT_STREQ(L"", name);
    EXPECT_EQ(1u, fault.calls());
}

TEST_F(SecurityContextTest, HostKeyIsOpenedInTheCallersViewOnly)
{
    // The 64-bit view names another container than the 32-bit one.
    m_containers.Create(kOtherHostId);
    SetBinary(kHostKey, L"HostId", nvwriter::HostIdBytes(kOtherHostId), kView64);
    const RegTree before32 = Snapshot(kHostKey, kView32);

    CFPSecurityContext ctx64;
    ASSERT_EQ(S_OK, ctx64.FinalConstruct(kView64));
    EXPECT_EQ(Narrow(ContainerName(kOtherHostId)), ContainerOf(ctx64.Provider()));
    CFPSecurityContext ctx32;
    ASSERT_EQ(S_OK, ctx32.FinalConstruct(kView32));
    EXPECT_EQ(kTestContainerName, ContainerOf(ctx32.Provider()));

    const RegTree after32 = Snapshot(kHostKey, kView32);
    EXPECT_EQ("", DiffTrees(before32, after32));
}

TEST_F(SecurityContextTest, ExistingContainerAndValidHostIdLeaveTheRegistryValuesAlone)
{
    const RegTree before = Snapshot(L"SOFTWARE\\Norvane", kView32);
    CFPSecurityContext ctx;
    ASSERT_EQ(S_OK, ctx.FinalConstruct(kView32));
    EXPECT_EQ("", DiffTrees(before, Snapshot(L"SOFTWARE\\Norvane", kView32)));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane", kView64));
}

TEST_F(SecurityContextTest, PrivilegedCallerGetsTheProtectedHostKeyDacl)
{
    // A key with an unrelated access list beforehand.
    // Everyone may read it and change its access list, nobody may write.
    CreateKeyWithSddl(kHostKey, kView32, L"D:(A;;0x60019;;;WD)");
    ASSERT_TRUE(nvsecurity::CallerIsPrivileged());

    CFPSecurityContext ctx;
    ASSERT_EQ(S_OK, ctx.FinalConstruct(kView32));
    const std::vector<Ace> expected = {
        {ACCESS_ALLOWED_ACE_TYPE, OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE, 0xF003F, "S-1-5-18"},
        {ACCESS_ALLOWED_ACE_TYPE, OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE, 0xF003F, "S-1-5-32-544"},
        {ACCESS_ALLOWED_ACE_TYPE, OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE, 0x20019, "S-1-5-32-545"},
    };
    EXPECT_EQ(expected, DaclOf(kHostKey, kView32));
}

TEST_F(SecurityContextTest, UnprivilegedCallerLeavesTheHostKeyDaclAsItWas)
{
    CreateKeyWithSddl(kHostKey, kView32, L"D:(A;;KA;;;WD)");
    const std::vector<Ace> before = DaclOf(kHostKey, kView32);
    const Ace everyone{ACCESS_ALLOWED_ACE_TYPE, 0, KEY_ALL_ACCESS, "S-1-1-0"};
    ASSERT_NE(before.end(), std::find(before.begin(), before.end(), everyone)) << ::testing::PrintToString(before);

    CFPSecurityContext ctx;
    {
        UnprivilegedThread unprivileged;
        ASSERT_TRUE(unprivileged.ok());
        ASSERT_FALSE(nvsecurity::CallerIsPrivileged());
        EXPECT_EQ(S_OK, ctx.FinalConstruct(kView32));
    }
    EXPECT_TRUE(nvsecurity::CallerIsPrivileged());
    EXPECT_EQ(before, DaclOf(kHostKey, kView32));
    EXPECT_EQ(kTestContainerName, ContainerOf(ctx.Provider()));
}

TEST_F(SecurityContextTest, ThrowingConstructorAcquiresLikeFinalConstruct)
{
    CFPSecurityContext ctx(kView32);
    EXPECT_NE(0u, ctx.Provider());
    EXPECT_EQ(kTestContainerName, ContainerOf(ctx.Provider()));
}

// ---- the host identifier and a missing container ----------------------------

class SecurityContextHostIdTest : public RegistrySandbox {
protected:
    void TearDown() override
    {
        m_containers.DeleteAll();
        RegistrySandbox::TearDown();
    }

    // Asserts that HostId now holds a fresh identifier (REG_BINARY, 16 bytes, not
    // all zero, a random GUID in big-endian field order) and returns it.
    GUID FreshHostId(REGSAM view)
    {
        RegValue value;
        EXPECT_TRUE(GetValue(kHostKey, L"HostId", view, &value));
        EXPECT_EQ(DWORD(REG_BINARY), value.type);
        if (value.data.size() != 16) {
            ADD_FAILURE() << "HostId has " << value.data.size() << " bytes";
            return GUID{};
        }
        EXPECT_NE(std::vector<BYTE>(16, 0), value.data);
        // Version 4 in the high nibble of the third field, variant 10 in byte 8.
        EXPECT_EQ(0x40, value.data[6] & 0xF0);
        EXPECT_EQ(0x80, value.data[8] & 0xC0);
        return GuidFromValue(value.data);
    }

    // The constructor fails with the provider's error (the new name has no container),
    // the identifier was replaced, and once the container exists construction succeeds
    // with the identifier as it was written.
    void ExpectReplacedHostId()
    {
        CFPSecurityContext ctx;
        EXPECT_EQ(NTE_BAD_KEYSET, ctx.FinalConstruct(kView32));
        EXPECT_EQ(0u, ctx.Provider());
        const GUID written = FreshHostId(kView32);
        EXPECT_FALSE(KeyExists(kHostKey, kView64));

        m_containers.Create(written);
        CFPSecurityContext again;
        ASSERT_EQ(S_OK, again.FinalConstruct(kView32));
        EXPECT_EQ(Narrow(ContainerName(written)), ContainerOf(again.Provider()));
        EXPECT_TRUE(IsEqualGUID(written, FreshHostId(kView32)));
    }

    ContainerJanitor m_containers;
};

TEST_F(SecurityContextHostIdTest, MissingHostKeyIsCreatedWithANewHostId)
{
    ASSERT_FALSE(KeyExists(kHostKey, kView32));
    ExpectReplacedHostId();
}

TEST_F(SecurityContextHostIdTest, MissingHostIdValueIsReplaced)
{
    CreateKeyPath(kHostKey, kView32);
    ExpectReplacedHostId();
}

TEST_F(SecurityContextHostIdTest, AllZeroHostIdIsReplaced)
{
    SetBinary(kHostKey, L"HostId", std::vector<BYTE>(16, 0), kView32);
    ExpectReplacedHostId();
}

TEST_F(SecurityContextHostIdTest, HostIdOf15BytesIsReplaced)
{
    m_containers.Create(kTestHostId); // the container the full 16 bytes would name
    SetBinary(kHostKey, L"HostId", std::vector<BYTE>(kTestHostIdValue.begin(), kTestHostIdValue.end() - 1), kView32);
    ExpectReplacedHostId();
}

TEST_F(SecurityContextHostIdTest, HostIdOf17BytesIsReplaced)
{
    m_containers.Create(kTestHostId);
    std::vector<BYTE> value = kTestHostIdValue;
    value.push_back(0x66);
    SetBinary(kHostKey, L"HostId", value, kView32);
    ExpectReplacedHostId();
}

TEST_F(SecurityContextHostIdTest, EmptyBinaryHostIdIsReplaced)
{
    SetBinary(kHostKey, L"HostId", {}, kView32);
    ExpectReplacedHostId();
}

TEST_F(SecurityContextHostIdTest, StringHostIdIsReplaced)
{
    m_containers.Create(kTestHostId);
    SetString(kHostKey, L"HostId", L"{7E57C0DE-5EC1-4A11-8B3D-001122334455}", kView32);
    ExpectReplacedHostId();
}

TEST_F(SecurityContextHostIdTest, SixteenBytesOfAnotherTypeThanBinaryAreReplaced)
{
    m_containers.Create(kTestHostId);
    SetBinary(kHostKey, L"HostId", kTestHostIdValue, kView32, REG_NONE);
    ExpectReplacedHostId();
}

TEST_F(SecurityContextHostIdTest, HostIdThatCannotBeReadFailsWithTheReadErrorAndWritesNothing)
{
    // The caller may write values and change the access list, but not read: a read
    // that fails is not a missing identifier, so none is written over it.
    CreateKeyWithSddl(kHostKey, kView32, L"D:(A;;0x40002;;;BA)");
    CFPSecurityContext ctx;
    EXPECT_EQ(E_ACCESSDENIED, ctx.FinalConstruct(kView32));
    EXPECT_EQ(0u, ctx.Provider());
    // The access list was replaced on the way; no value was written.
    EXPECT_EQ(3u, DaclOf(kHostKey, kView32).size());
    RegValue value;
    EXPECT_FALSE(GetValue(kHostKey, L"HostId", kView32, &value));
}

TEST_F(SecurityContextHostIdTest, MissingContainerGivesTheProvidersError)
{
    SetBinary(kHostKey, L"HostId", kTestHostIdValue, kView32);
    DeleteContainerIfPresent(kTestHostId);
    CFPSecurityContext ctx;
    EXPECT_EQ(NTE_BAD_KEYSET, ctx.FinalConstruct(kView32));
    EXPECT_EQ(0u, ctx.Provider());
    RegValue value;
    ASSERT_TRUE(GetValue(kHostKey, L"HostId", kView32, &value));
    EXPECT_EQ(kTestHostIdValue, value.data);
    // Acquiring never creates the container.
    EXPECT_FALSE(ContainerExists(kTestHostId));
}

TEST_F(SecurityContextHostIdTest, FreshHostIdThatDoesNotReadBackFailsWithEFailAndKeepsTheWrittenValue)
{
    // No identifier: a fresh one is written, then read back. A read-back that finds
    // none again ends the construction with E_FAIL rather than going on with none.
    CreateKeyPath(kHostKey, kView32);
    CFPSecurityContext ctx;
    {
        ApiFaults faults;
        faults.FailQueryValue(L"HostId", 2, ERROR_FILE_NOT_FOUND);
        EXPECT_EQ(E_FAIL, ctx.FinalConstruct(kView32));
        EXPECT_EQ(2u, faults.QueryValueCalls());
    }
    EXPECT_EQ(0u, ctx.Provider());
    const GUID written = FreshHostId(kView32);
    // The value written stays the machine's identifier: the next construction takes it.
    m_containers.Create(written);
    CFPSecurityContext again;
    ASSERT_EQ(S_OK, again.FinalConstruct(kView32));
    EXPECT_EQ(Narrow(ContainerName(written)), ContainerOf(again.Provider()));
}

TEST_F(SecurityContextHostIdTest, AHostKeyCreatedWithoutAHandleFailsWithEFailAndWritesNothing)
{
    // The system answers the creation as done but hands back no key: nothing can be
    // read or written through it, so the construction ends there.
    ASSERT_FALSE(KeyExists(kHostKey, kView32));
    CFPSecurityContext ctx;
    {
        ImportFault<decltype(&::RegCreateKeyExW)> fault("RegCreateKeyExW", ERROR_SUCCESS, ERROR_SUCCESS, 1);
        EXPECT_EQ(E_FAIL, ctx.FinalConstruct(kView32));
        EXPECT_EQ(1u, fault.failed());
    }
    EXPECT_EQ(0u, ctx.Provider());
    EXPECT_FALSE(KeyExists(kHostKey, kView32));
    EXPECT_FALSE(KeyExists(kHostKey, kView64));
}

TEST_F(SecurityContextHostIdTest, ThrowingConstructorRaisesTheFailureAsComError)
{
    SetBinary(kHostKey, L"HostId", kTestHostIdValue, kView32);
    DeleteContainerIfPresent(kTestHostId);
    try {
        CFPSecurityContext ctx(kView32);
        FAIL() << "no exception";
    } catch (const _com_error& e) {
        EXPECT_EQ(NTE_BAD_KEYSET, e.Error());
    }
}

// ---- FinalRelease, GetContext ------------------------------------------------

TEST_F(SecurityContextTest, FinalReleaseReleasesTheProviderAndZeroesTheHandle)
{
    CFPSecurityContext ctx;
    ASSERT_EQ(S_OK, ctx.FinalConstruct(kView32));
    const HCRYPTPROV held = ctx.Provider();
    ctx.FinalRelease();
    EXPECT_EQ(0u, ctx.Provider());
    DWORD cb = 0;
    EXPECT_FALSE(::CryptGetProvParam(held, PP_CONTAINER, nullptr, &cb, 0));
    ctx.FinalRelease(); // nothing held: nothing to do
    EXPECT_EQ(0u, ctx.Provider());
}

TEST_F(SecurityContextTest, FinalReleaseWithoutProviderDoesNothing)
{
    CFPSecurityContext ctx;
    EXPECT_EQ(0u, ctx.Provider());
    ctx.FinalRelease();
    EXPECT_EQ(0u, ctx.Provider());
}

TEST_F(SecurityContextTest, GetContextLendsTheHeldHandle)
{
    CFPSecurityContext ctx;
    ASSERT_EQ(S_OK, ctx.FinalConstruct(kView32));
    HCRYPTPROV lent = kSentinel;
    EXPECT_EQ(S_OK, ctx.GetContext(&lent));
    EXPECT_EQ(ctx.Provider(), lent);
    HCRYPTPROV again = kSentinel;
    EXPECT_EQ(S_OK, ctx.GetContext(&again));
    EXPECT_EQ(lent, again);
    // Still usable: the context kept ownership.
    EXPECT_EQ(kTestContainerName, ContainerOf(lent));
}

TEST_F(SecurityContextTest, GetContextBeforeConstructionLendsZero)
{
    CFPSecurityContext ctx;
    HCRYPTPROV lent = kSentinel;
    EXPECT_EQ(S_OK, ctx.GetContext(&lent));
    EXPECT_EQ(0u, lent);
    EXPECT_EQ(E_POINTER, ctx.GetContext(nullptr));
}

// ---- GetPublicKey -------------------------------------------------------------

TEST_F(SecurityContextTest, GetPublicKeyIsTheDerSubjectPublicKeyInfoOfTheKeyExchangeKey)
{
    CFPSecurityContext ctx;
    ASSERT_EQ(S_OK, ctx.FinalConstruct(kView32));
    TaskBlob pk;
    ASSERT_EQ(S_OK, ctx.GetPublicKey(&pk));

    // The modulus, from an independent handle's PUBLICKEYBLOB (little-endian after
    // BLOBHEADER and RSAPUBKEY), in DER's big-endian order.
    const std::vector<BYTE> blob = PublicKeyBlobOf(nvwriter::OpenMachineContainer(kTestHostId).get());
    ASSERT_EQ(sizeof(BLOBHEADER) + sizeof(RSAPUBKEY) + 256, blob.size());
    std::vector<BYTE> modulus(blob.begin() + sizeof(BLOBHEADER) + sizeof(RSAPUBKEY), blob.end());
    std::reverse(modulus.begin(), modulus.end());
    ASSERT_GE(modulus[0], 0x80); // a 2048-bit modulus: the INTEGER needs a leading zero

    const std::vector<BYTE> expected = Concat({
        {0x30, 0x82, 0x01, 0x22,                                                  // SubjectPublicKeyInfo
         0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01, // rsaEncryption
         0x05, 0x00,                                                              // NULL parameters
         0x03, 0x82, 0x01, 0x0F, 0x00,                                            // BIT STRING, 0 unused
         0x30, 0x82, 0x01, 0x0A,                                                  // RSAPublicKey
         0x02, 0x82, 0x01, 0x01, 0x00},                                           // modulus
        modulus,
        {0x02, 0x03, 0x01, 0x00, 0x01}, // exponent 65537
    });
    EXPECT_EQ(expected, BlobBytes(pk));
    EXPECT_EQ(ProvisionedHostTest::PublicKeyOf(kTestHostId), BlobBytes(pk));
}

TEST_F(SecurityContextTest, GetPublicKeyWithoutProviderFailsAndLeavesTheBlobAlone)
{
    CFPSecurityContext ctx;
    TaskBlob pk;
    EXPECT_EQ(E_INVALIDARG, ctx.GetPublicKey(&pk));
    EXPECT_TRUE(pk.Untouched());
    EXPECT_EQ(E_POINTER, ctx.GetPublicKey(nullptr));
}

TEST_F(SecurityContextTest, GetPublicKeyRaisesTheEncodersErrorAndLeavesTheBlobAlone)
{
    CFPSecurityContext ctx;
    ASSERT_EQ(S_OK, ctx.FinalConstruct(kView32));
    // The size query, then the encoding itself; a memory shortage is E_OUTOFMEMORY.
    const struct {
        unsigned call;
        DWORD lastError;
        HRESULT expected;
    } cases[] = {
        {1, static_cast<DWORD>(CRYPT_E_BAD_ENCODE), CRYPT_E_BAD_ENCODE},
        {2, static_cast<DWORD>(CRYPT_E_BAD_ENCODE), CRYPT_E_BAD_ENCODE},
        {1, ERROR_NOT_ENOUGH_MEMORY, E_OUTOFMEMORY},
        {2, ERROR_INVALID_PARAMETER, HRESULT_FROM_WIN32(ERROR_INVALID_PARAMETER)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "encoder call " << c.call << ", error 0x" << std::hex << c.lastError);
        ApiFaults faults;
        faults.FailEncode(c.call, c.lastError);
        TaskBlob pk;
        EXPECT_EQ(c.expected, ctx.GetPublicKey(&pk));
        EXPECT_EQ(c.call, faults.EncodeCalls());
        EXPECT_TRUE(pk.Untouched());
    }
    TaskBlob pk;
    EXPECT_EQ(S_OK, ctx.GetPublicKey(&pk));
    EXPECT_EQ(ProvisionedHostTest::PublicKeyOf(kTestHostId), BlobBytes(pk));
}

// ---- SignBLOB -------------------------------------------------------------------

TEST_F(SecurityContextTest, SignBlobWithoutOidSignsWithMd5RsaAsAnX509CertStructure)
{
    CFPSecurityContext ctx;
    ASSERT_EQ(S_OK, ctx.FinalConstruct(kView32));
    CRYPT_DATA_BLOB in{static_cast<DWORD>(kToBeSigned.size()), const_cast<BYTE*>(kToBeSigned.data())};
    TaskBlob out;
    ASSERT_EQ(S_OK, ctx.SignBLOB(&in, &out, ctx.Provider(), AT_KEYEXCHANGE, nullptr));

    const std::vector<BYTE> record = BlobBytes(out);
    ASSERT_EQ(4u + kToBeSigned.size() + 13 + 5 + 256, record.size());
    const std::vector<BYTE> head = {0x30, 0x82, 0x01, 0x1C};
    const std::vector<BYTE> algorithm = {0x30, 0x0B, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x04};
    const std::vector<BYTE> signatureHead = {0x03, 0x82, 0x01, 0x01, 0x00};
    const std::vector<BYTE> signature(record.end() - 256, record.end());
    EXPECT_EQ(Concat({head, kToBeSigned, algorithm, signatureHead, signature}), record);

    SignedRecord cert;
    ASSERT_TRUE(DecodeSignedRecord(record, &cert));
    EXPECT_EQ(kToBeSigned, cert.toBeSigned);
    EXPECT_EQ("1.2.840.113549.1.1.4", cert.oid);
    EXPECT_EQ(0u, cert.cbParameters);
    EXPECT_EQ(0u, cert.unusedBits);
    EXPECT_EQ(signature, cert.signature);
    EXPECT_TRUE(RsaSignatureMatches(kTestHostId, CALG_MD5, kToBeSigned, signature));
    EXPECT_FALSE(RsaSignatureMatches(kTestHostId, CALG_SHA1, kToBeSigned, signature));
}

TEST_F(SecurityContextTest, SignBlobUsesTheCallersOid)
{
    CFPSecurityContext ctx;
    ASSERT_EQ(S_OK, ctx.FinalConstruct(kView32));
    CRYPT_DATA_BLOB in{static_cast<DWORD>(kToBeSigned.size()), const_cast<BYTE*>(kToBeSigned.data())};
    TaskBlob out;
    ASSERT_EQ(S_OK, ctx.SignBLOB(&in, &out, ctx.Provider(), AT_KEYEXCHANGE, szOID_RSA_SHA1RSA));
    SignedRecord cert;
    ASSERT_TRUE(DecodeSignedRecord(BlobBytes(out), &cert));
    EXPECT_EQ("1.2.840.113549.1.1.5", cert.oid);
    EXPECT_EQ(0u, cert.cbParameters);
    EXPECT_TRUE(RsaSignatureMatches(kTestHostId, CALG_SHA1, kToBeSigned, cert.signature));
    EXPECT_EQ(S_OK, ctx.Verify(&out, nullptr));
}

TEST_F(SecurityContextTest, SignBlobWithAnotherProviderSignsWithThatProvidersKey)
{
    m_containers.Create(kOtherHostId);
    nv::unique_hcryptprov other = nvwriter::OpenMachineContainer(kOtherHostId);
    CFPSecurityContext ctx;
    ASSERT_EQ(S_OK, ctx.FinalConstruct(kView32));
    CRYPT_DATA_BLOB in{static_cast<DWORD>(kToBeSigned.size()), const_cast<BYTE*>(kToBeSigned.data())};
    TaskBlob out;
    ASSERT_EQ(S_OK, ctx.SignBLOB(&in, &out, other.get(), AT_KEYEXCHANGE, nullptr));
    SignedRecord cert;
    ASSERT_TRUE(DecodeSignedRecord(BlobBytes(out), &cert));
    EXPECT_TRUE(RsaSignatureMatches(kOtherHostId, CALG_MD5, kToBeSigned, cert.signature));
    EXPECT_FALSE(RsaSignatureMatches(kTestHostId, CALG_MD5, kToBeSigned, cert.signature));
}

TEST_F(SecurityContextTest, SignBlobFailuresLeaveTheOutBlobAlone)
{
    CFPSecurityContext ctx;
    ASSERT_EQ(S_OK, ctx.FinalConstruct(kView32));
    CRYPT_DATA_BLOB in{static_cast<DWORD>(kToBeSigned.size()), const_cast<BYTE*>(kToBeSigned.data())};
    {
        TaskBlob out; // the container has no signature key
        EXPECT_EQ(NTE_NO_KEY, ctx.SignBLOB(&in, &out, ctx.Provider(), AT_SIGNATURE, nullptr));
        EXPECT_TRUE(out.Untouched());
    }
    {
        TaskBlob out; // an OID that names no signature algorithm
        EXPECT_EQ(NTE_BAD_ALGID, ctx.SignBLOB(&in, &out, ctx.Provider(), AT_KEYEXCHANGE, "1.2.3.4"));
        EXPECT_TRUE(out.Untouched());
    }
    {
        TaskBlob out; // no provider
        EXPECT_EQ(E_INVALIDARG, ctx.SignBLOB(&in, &out, 0, AT_KEYEXCHANGE, nullptr));
        EXPECT_TRUE(out.Untouched());
    }
    EXPECT_EQ(E_POINTER, ctx.SignBLOB(&in, nullptr, ctx.Provider(), AT_KEYEXCHANGE, nullptr));
}

// ---- Verify ----------------------------------------------------------------------

class SecurityContextVerifyTest : public SecurityContextTest {
protected:
    void SetUp() override
    {
        SecurityContextTest::SetUp();
        ASSERT_EQ(S_OK, m_ctx.FinalConstruct(kView32));
        CRYPT_DATA_BLOB in{static_cast<DWORD>(kToBeSigned.size()), const_cast<BYTE*>(kToBeSigned.data())};
        TaskBlob out;
        ASSERT_EQ(S_OK, m_ctx.SignBLOB(&in, &out, m_ctx.Provider(), AT_KEYEXCHANGE, nullptr));
        m_signed = BlobBytes(out);
    }
    void TearDown() override
    {
        m_ctx.FinalRelease();
        SecurityContextTest::TearDown();
    }
    CRYPT_DATA_BLOB Blob(std::vector<BYTE>& v) { return CRYPT_DATA_BLOB{static_cast<DWORD>(v.size()), v.data()}; }

    CFPSecurityContext m_ctx;
    std::vector<BYTE> m_signed;
};

TEST_F(SecurityContextVerifyTest, OwnSignatureWithoutKeyChecksAgainstTheMachinesKey)
{
    CRYPT_DATA_BLOB s = Blob(m_signed);
    EXPECT_EQ(S_OK, m_ctx.Verify(&s, nullptr));
    CRYPT_DATA_BLOB empty{0, nullptr};
    EXPECT_EQ(S_OK, m_ctx.Verify(&s, &empty));
}

TEST_F(SecurityContextVerifyTest, OwnSignatureWithOwnPublicKey)
{
    std::vector<BYTE> pk = PublicKeyOf(kTestHostId);
    CRYPT_DATA_BLOB s = Blob(m_signed), k = Blob(pk);
    EXPECT_EQ(S_OK, m_ctx.Verify(&s, &k));
}

TEST_F(SecurityContextVerifyTest, SignatureCheckedAgainstAnotherContainersKeyAnswersOne)
{
    m_containers.Create(kOtherHostId);
    std::vector<BYTE> otherKey = PublicKeyOf(kOtherHostId);
    CRYPT_DATA_BLOB s = Blob(m_signed), k = Blob(otherKey);
    EXPECT_EQ(S_FALSE, m_ctx.Verify(&s, &k));
}

TEST_F(SecurityContextVerifyTest, BlobSignedByAnotherKeyAnswersOneAgainstTheMachinesKey)
{
    m_containers.Create(kOtherHostId);
    nv::unique_hcryptprov other = nvwriter::OpenMachineContainer(kOtherHostId);
    std::vector<BYTE> foreign = nvwriter::MakeSignedSequence(other.get(), {nvwriter::EncodeOctetString({1, 2, 3})});
    CRYPT_DATA_BLOB s = Blob(foreign);
    EXPECT_EQ(S_FALSE, m_ctx.Verify(&s, nullptr));
    std::vector<BYTE> otherKey = PublicKeyOf(kOtherHostId);
    CRYPT_DATA_BLOB k = Blob(otherKey);
    EXPECT_EQ(S_OK, m_ctx.Verify(&s, &k));
}

TEST_F(SecurityContextVerifyTest, AlteredContentAnswersOne)
{
    std::vector<BYTE> altered = m_signed;
    altered[4 + kToBeSigned.size() - 1] ^= 0x01; // last byte of the signed content
    CRYPT_DATA_BLOB s = Blob(altered);
    EXPECT_EQ(S_FALSE, m_ctx.Verify(&s, nullptr));
    std::vector<BYTE> badSignature = m_signed;
    badSignature.back() ^= 0x80;
    CRYPT_DATA_BLOB t = Blob(badSignature);
    EXPECT_EQ(S_FALSE, m_ctx.Verify(&t, nullptr));
}

TEST_F(SecurityContextVerifyTest, BytesThatAreNoSignedRecordAnswerOne)
{
    std::vector<BYTE> garbage = {0x01, 0x02, 0x03, 0x04, 0x05};
    CRYPT_DATA_BLOB s = Blob(garbage);
    EXPECT_EQ(S_FALSE, m_ctx.Verify(&s, nullptr));
    CRYPT_DATA_BLOB empty{0, nullptr};
    EXPECT_EQ(S_FALSE, m_ctx.Verify(&empty, nullptr));
    EXPECT_EQ(S_FALSE, m_ctx.Verify(nullptr, nullptr));
}

TEST_F(SecurityContextVerifyTest, PublicKeyThatDoesNotDecodeFailsWithTheDecodersError)
{
    std::vector<BYTE> garbage = {0x01, 0x02, 0x03, 0x04, 0x05};
    CRYPT_DATA_BLOB s = Blob(m_signed), k = Blob(garbage);
    EXPECT_EQ(CRYPT_E_ASN1_BADTAG, m_ctx.Verify(&s, &k));
}

TEST_F(SecurityContextTest, VerifyWithoutProviderOrKeyFails)
{
    CFPSecurityContext ctx;
    std::vector<BYTE> record = {0x30, 0x00};
    CRYPT_DATA_BLOB s{2, record.data()};
    EXPECT_EQ(E_INVALIDARG, ctx.Verify(&s, nullptr));
}

// ---- trace ------------------------------------------------------------------------

TEST_F(SecurityContextTest, TraceShowsEachOperationsScope)
{
    TraceCapture trace;
    trace.Start(10);
    {
        CFPSecurityContext ctx;
        ASSERT_EQ(S_OK, ctx.FinalConstruct(kView32));
        HCRYPTPROV lent = 0;
        EXPECT_EQ(S_OK, ctx.GetContext(&lent));
        TaskBlob pk;
        EXPECT_EQ(S_OK, ctx.GetPublicKey(&pk));
        CRYPT_DATA_BLOB in{static_cast<DWORD>(kToBeSigned.size()), const_cast<BYTE*>(kToBeSigned.data())};
        TaskBlob out;
        EXPECT_EQ(S_OK, ctx.SignBLOB(&in, &out, ctx.Provider(), AT_KEYEXCHANGE, nullptr));
        EXPECT_EQ(S_OK, ctx.Verify(&out, nullptr));
    }
    EXPECT_EQ((std::vector<std::string>{
                  "> CFPSecurityContext::FinalConstruct", "<",
                  "> CFPSecurityContext::GetContext", "<",
                  "> CFPSecurityContext::GetPublicKey", "<",
                  "> SignBLOB", "<",
                  "> CFPSecurityContext::Verify", "<",
                  "> CFPSecurityContext::FinalRelease", "<",
              }),
              trace.Lines())
        << trace.Dump();
}

TEST_F(SecurityContextTest, TraceRecordsFailuresButNotABadSignature)
{
    DeleteContainerIfPresent(kTestHostId);
    TraceCapture trace;
    trace.Start(10);
    CFPSecurityContext ctx;
    EXPECT_EQ(NTE_BAD_KEYSET, ctx.FinalConstruct(kView32));
    std::vector<BYTE> garbage = {0x01, 0x02};
    CRYPT_DATA_BLOB g{2, garbage.data()};
    EXPECT_EQ(CRYPT_E_ASN1_BADTAG, ctx.Verify(&g, &g));
    m_containers.Create(kTestHostId);
    ASSERT_EQ(S_OK, ctx.FinalConstruct(kView32));
    EXPECT_EQ(S_FALSE, ctx.Verify(&g, nullptr));
    EXPECT_EQ((std::vector<std::string>{
                  "> CFPSecurityContext::FinalConstruct", "E -2146893802 ", "<",
                  "> CFPSecurityContext::Verify", "E -2146881269 ", "<",
                  "> CFPSecurityContext::FinalConstruct", "<",
                  "> CFPSecurityContext::Verify", "<",
              }),
              trace.Lines())
        << trace.Dump();
}

TEST_F(SecurityContextTest, LowLevelScopesNeedVerbosityTenButTheirFailuresAlwaysShow)
{
    TraceCapture trace;
    trace.Start(0);
    {
        CFPSecurityContext ctx;
        ASSERT_EQ(S_OK, ctx.FinalConstruct(kView32));
        HCRYPTPROV lent = 0;
        EXPECT_EQ(S_OK, ctx.GetContext(&lent));
        CRYPT_DATA_BLOB in{static_cast<DWORD>(kToBeSigned.size()), const_cast<BYTE*>(kToBeSigned.data())};
        TaskBlob out;
        EXPECT_EQ(NTE_NO_KEY, ctx.SignBLOB(&in, &out, ctx.Provider(), AT_SIGNATURE, nullptr));
    }
    EXPECT_EQ((std::vector<std::string>{
                  "> CFPSecurityContext::FinalConstruct", "<",
                  "E -2146893811 ",
                  "> CFPSecurityContext::FinalRelease", "<",
              }),
              trace.Lines())
        << trace.Dump();
}

TEST_F(SecurityContextTest, SignBlobWithoutBytesToSignIsAPointerErrorAndLeavesTheOutBlobAlone)
{
    CFPSecurityContext ctx;
    ASSERT_EQ(S_OK, ctx.FinalConstruct(kView32));
    TaskBlob out;
    EXPECT_EQ(E_POINTER, ctx.SignBLOB(nullptr, &out, ctx.Provider(), AT_KEYEXCHANGE, nullptr));
    EXPECT_TRUE(out.Untouched());
}

TEST_F(SecurityContextTest, AProviderThatCannotBeReleasedIsKeptForTheNextRelease)
{
    CFPSecurityContext ctx;
    ASSERT_EQ(S_OK, ctx.FinalConstruct(kView32));
    const HCRYPTPROV held = ctx.Provider();
    {
        ImportFault<decltype(&::CryptReleaseContext)> fault("CryptReleaseContext", FALSE, ERROR_BUSY, 1);
        ctx.FinalRelease();
        EXPECT_EQ(1u, fault.failed());
    }
    EXPECT_EQ(held, ctx.Provider());
    DWORD cb = 0;
    EXPECT_TRUE(::CryptGetProvParam(held, PP_CONTAINER, nullptr, &cb, 0));
    ctx.FinalRelease();
    EXPECT_EQ(0u, ctx.Provider());
    EXPECT_FALSE(::CryptGetProvParam(held, PP_CONTAINER, nullptr, &cb, 0));
}

TEST_F(SecurityContextVerifyTest, AKeyBlobWithoutBytesChecksAgainstTheMachinesKey)
{
    CRYPT_DATA_BLOB s = Blob(m_signed);
    BYTE unused = 0x30;
    CRYPT_DATA_BLOB noKey{0, &unused};
    EXPECT_EQ(S_OK, m_ctx.Verify(&s, &noKey));
}

TEST_F(SecurityContextVerifyTest, ARecordOfNoBytesImportsAsNothing)
{
    // A pointer without a length: no record, as a null one.
    CRYPT_DATA_BLOB record{0, m_signed.data()};
    CRYPT_DATA_BLOB data{7, reinterpret_cast<BYTE*>(static_cast<ULONG_PTR>(0xdeadbeef))};
    GUID target = kOtherHostId, source = kOtherHostId;
    EXPECT_EQ(S_OK, m_ctx.Import(&record, &data, &target, &source));
    EXPECT_EQ(0u, data.cbData);
    EXPECT_EQ(nullptr, data.pbData);
    EXPECT_TRUE(IsEqualGUID(GUID_NULL, target));
    EXPECT_TRUE(IsEqualGUID(GUID_NULL, source));
}

// ---- the provider cache's limits -----------------------------------------------

TEST(ProviderCacheTest, FourHostContainersAreRememberedAndAFifthIsNot)
{
    nvsecurity::CProviderCache cache;
    wchar_t names[5][nvsecurity::kContainerNameChars] = {L"{one}", L"{two}", L"{three}", L"{four}", L"{five}"};
    for (REGSAM view = 1; view <= 5; ++view)
        nvsecurity::CProviderCache::RememberHostContainer(view, names[view - 1]);
    for (REGSAM view = 1; view <= 4; ++view) {
        wchar_t found[nvsecurity::kContainerNameChars] = L"sentinel";
        EXPECT_TRUE(nvsecurity::CProviderCache::FindHostContainer(view, found)) << view;
        EXPECT_STREQ(names[view - 1], found);
    }
    wchar_t found[nvsecurity::kContainerNameChars] = L"sentinel";
    EXPECT_FALSE(nvsecurity::CProviderCache::FindHostContainer(5, found));
    EXPECT_STREQ(L"sentinel", found);
}

TEST(ProviderCacheTest, WithoutACacheNothingIsRemembered)
{
    wchar_t name[nvsecurity::kContainerNameChars] = L"{one}";
    nvsecurity::CProviderCache::RememberHostContainer(1, name);
    wchar_t found[nvsecurity::kContainerNameChars] = L"sentinel";
    EXPECT_FALSE(nvsecurity::CProviderCache::FindHostContainer(1, found));
    EXPECT_STREQ(L"sentinel", found);
}

TEST_F(SecurityContextTest, AProviderTheCacheCannotTakeAReferenceOnIsNotShared)
{
    nvsecurity::CProviderCache cache;
    const std::wstring container = Widen(kTestContainerName);
    HCRYPTPROV first = 0;
    {
        ImportFault<decltype(&::CryptContextAddRef)> fault("CryptContextAddRef", FALSE, ERROR_NOT_ENOUGH_MEMORY, 1);
        ASSERT_TRUE(nvsecurity::CProviderCache::AcquireMachineContainer(container.c_str(), &first));
        EXPECT_EQ(1u, fault.failed());
    }
    HCRYPTPROV second = 0;
    ASSERT_TRUE(nvsecurity::CProviderCache::AcquireMachineContainer(container.c_str(), &second));
    EXPECT_NE(first, second);
    HCRYPTPROV third = 0;
    ASSERT_TRUE(nvsecurity::CProviderCache::AcquireMachineContainer(container.c_str(), &third));
    EXPECT_EQ(second, third);
    EXPECT_EQ(kTestContainerName, ContainerOf(first));
    EXPECT_TRUE(::CryptReleaseContext(first, 0));
    EXPECT_TRUE(::CryptReleaseContext(second, 0));
    EXPECT_TRUE(::CryptReleaseContext(third, 0));
}
