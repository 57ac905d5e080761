// The reference store NVStore.dll: registration, COM creation, the contract's
// operation places, every behaviour the conversion relies on, the test
// behaviours, persistence across processes and module reloads, and sealed secrets
// from EncryptEx opened with the user's private key.
#include <windows.h>
#include <objbase.h>
#include <comdef.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <atomic>
#include <cstring>
#include <sstream>
#include <thread>
#include <vector>

#include "common/handles.h"
#include "common/storecontract.h"
#include "converter3/secretpacking.h"
#include "nvstore_inspect.h"
#include "storelayout.h"
#include "security/securitycontext.h"
#include "support/dll_loader.h"
#include "support/key_containers.h"
#include "support/process_runner.h"
#include "support/store_sandbox.h"
#include "writer/host_provisioning.h"

using namespace nvtest;
namespace inspect = nvstore::inspect;
using Bytes = std::vector<BYTE>;

namespace {

const wchar_t kSid[] = L"S-1-5-21-1111111111-2222222222-3333333333-1001";
const wchar_t kSid2[] = L"S-1-5-21-1111111111-2222222222-3333333333-1002";
const wchar_t kPassword[] = L"Corr3ct horse";
const HRESULT kNotFound = HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
BYTE* const kSentinelPtr = reinterpret_cast<BYTE*>(static_cast<uintptr_t>(0xdeadbeef));
const DWORD kSentinel = 0xdeadbeef;

template <class I>
nv::com_ptr<I> Create(const IID& iid, HRESULT* result = nullptr)
{
    nv::com_ptr<I> p;
    const HRESULT hr = ::CoCreateInstance(nvstore::kClsidUserStore, nullptr, 0x17, iid, p.put_void());
    if (result)
        *result = hr;
    else
        EXPECT_EQ(S_OK, hr);
    return p;
}

nv::com_ptr<IUserStore> Store() { return Create<IUserStore>(nvstore::kIidUserStore); }

nv::com_ptr<IAuthService> Auth()
{
    nv::com_ptr<IStoreService> service = Create<IStoreService>(nvstore::kIidStoreService);
    nv::com_ptr<IAuthService> auth;
    EXPECT_EQ(S_OK, service.query(auth));
    return auth;
}

nv::com_ptr<IUserRegistry> Registry() { return Create<IUserRegistry>(nvstore::kIidUserRegistry); }

nv::com_ptr<IUnknown> Open(const wchar_t* sid)
{
    nv::com_ptr<IUnknown> user;
    EXPECT_EQ(S_OK, Store()->OpenUser(sid, nvstore::kUserIdKindSid, user.put()));
    return user;
}

template <class I>
nv::com_ptr<I> OpenAs(const wchar_t* sid)
{
    nv::com_ptr<I> out;
    EXPECT_EQ(S_OK, Open(sid).query(out));
    return out;
}

// Takes a task-allocated out blob and frees it.
Bytes Take(CRYPT_DATA_BLOB& blob)
{
    Bytes out = blob.cbData ? Bytes(blob.pbData, blob.pbData + blob.cbData) : Bytes();
    ::CoTaskMemFree(blob.pbData);
    blob = CRYPT_DATA_BLOB{};
    return out;
}

bool IsTaskMemory(void* p)
{
    nv::com_ptr<IMalloc> malloc;
    if (FAILED(::CoGetMalloc(1, malloc.put())))
        return false;
    return malloc->DidAlloc(p) == 1;
}

// The authentication info with pointers that lead nowhere: receivers must find the
// strings by their places.
Bytes Info(const std::wstring& first, const std::wstring& second)
{
    return inspect::BuildPasswordAuthInfo(nvstore::kPasswordAuthKind, first, second, 0xdeadbeef, 0xbaadf00d);
}

Bytes Info(const std::wstring& password) { return Info(password, password); }

CRYPT_DATA_BLOB In(const Bytes& b)
{
    return CRYPT_DATA_BLOB{static_cast<DWORD>(b.size()), b.empty() ? nullptr : const_cast<BYTE*>(b.data())};
}

HRESULT Enroll(const wchar_t* sid, const std::wstring& password, Bytes* extra = nullptr, const Bytes& payload = {})
{
    const Bytes info = Info(password);
    CRYPT_DATA_BLOB infoBlob = In(info);
    CRYPT_DATA_BLOB payloadBlob = In(payload);
    CRYPT_DATA_BLOB out{};
    const HRESULT hr = Auth()->EnrollAuthentication(nvstore::kAuthTypePassword, sid, nvstore::kUserIdKindSid,
                                                    &payloadBlob, &infoBlob, &out);
    Bytes got = Take(out);
    if (extra)
        *extra = got;
    return hr;
}

struct AuthResult {
    HRESULT hr = E_FAIL;
    Bytes payload;
    DWORD failed = kSentinel;
    Bytes extra;
    bool untouched = false;
};

AuthResult Authenticate(const wchar_t* sid, const std::wstring& password)
{
    const Bytes info = Info(password);
    CRYPT_DATA_BLOB infoBlob = In(info);
    CRYPT_DATA_BLOB payload{kSentinel, kSentinelPtr};
    CRYPT_DATA_BLOB extra{kSentinel, kSentinelPtr};
    AuthResult r;
    r.hr = Auth()->Authenticate(nvstore::kAuthTypePassword, sid, nvstore::kUserIdKindSid, &infoBlob, &payload,
                                &r.failed, &extra);
    r.untouched = payload.pbData == kSentinelPtr && payload.cbData == kSentinel && extra.pbData == kSentinelPtr &&
                  extra.cbData == kSentinel && r.failed == kSentinel;
    if (SUCCEEDED(r.hr)) {
        EXPECT_TRUE(payload.pbData == nullptr || IsTaskMemory(payload.pbData));
        r.payload = Take(payload);
        r.extra = Take(extra);
    }
    return r;
}

Bytes PublicKeyProperty(const wchar_t* sid, HRESULT* hr)
{
    CRYPT_DATA_BLOB blob{kSentinel, kSentinelPtr};
    *hr = OpenAs<IUserProperties>(sid)->GetProperty(nvstore::kPropertyUserPublicKey, &blob);
    if (FAILED(*hr)) {
        EXPECT_EQ(kSentinelPtr, blob.pbData);
        EXPECT_EQ(kSentinel, blob.cbData);
        return Bytes();
    }
    EXPECT_TRUE(IsTaskMemory(blob.pbData));
    return Take(blob);
}

constexpr wchar_t kEnhancedProvider[] = L"Microsoft Enhanced Cryptographic Provider v1.0";

// Whether the machine container of that name opens with these flags (released again).
bool AcquireContainer(const std::wstring& name, DWORD flags)
{
    HCRYPTPROV h = 0;
    if (!::CryptAcquireContextW(&h, name.c_str(), kEnhancedProvider, PROV_RSA_FULL, CRYPT_MACHINE_KEYSET | flags))
        return false;
    ::CryptReleaseContext(h, 0);
    return true;
}

bool ContainerExists(const std::wstring& name) { return AcquireContainer(name, 0); }

void DeleteContainer(const std::wstring& name)
{
    HCRYPTPROV h = 0;
    ::CryptAcquireContextW(&h, name.c_str(), kEnhancedProvider, PROV_RSA_FULL, CRYPT_MACHINE_KEYSET | CRYPT_DELETEKEYSET);
}

// A machine container of that name, new and empty (any older one of the name deleted).
bool CreateContainer(const std::wstring& name)
{
    DeleteContainer(name);
    return AcquireContainer(name, CRYPT_NEWKEYSET);
}

std::string WithoutCr(std::string s)
{
    s.erase(std::remove(s.begin(), s.end(), '\r'), s.end());
    return s;
}

std::wstring Quoted(const std::wstring& s) { return L"\"" + s + L"\""; }

template <class Fn>
Fn Slot(void* itf, int place)
{
    void** vtbl = *reinterpret_cast<void***>(itf);
    return reinterpret_cast<Fn>(vtbl[2 + place]); // after QueryInterface, AddRef, Release
}

class NVStoreTest : public StoreSandbox {};

} // namespace

// ---- registration and creation ------------------------------------------------

TEST_F(NVStoreTest, Regsvr32RegistersAndUnregistersTheInprocServer)
{
    wchar_t clsid[64] = {};
    ::StringFromGUID2(nvstore::kClsidUserStore, clsid, 64);
    const std::wstring clsidKey = std::wstring(L"SOFTWARE\\Classes\\CLSID\\") + clsid;
    const std::wstring inproc = clsidKey + L"\\InprocServer32";

    EXPECT_EQ(0, RunAndCapture(L"regsvr32.exe /u /s " + Quoted(StoreServerPath()), nullptr));
    EXPECT_FALSE(KeyExists(clsidKey.c_str(), kView64));
    nv::com_ptr<IUserStore> none;
    EXPECT_EQ(REGDB_E_CLASSNOTREG,
              ::CoCreateInstance(nvstore::kClsidUserStore, nullptr, 0x17, nvstore::kIidUserStore, none.put_void()));

    EXPECT_EQ(0, RunAndCapture(L"regsvr32.exe /s " + Quoted(StoreServerPath()), nullptr));
    std::wstring value;
    ASSERT_TRUE(GetString(clsidKey.c_str(), L"", kView64, &value));
    EXPECT_EQ(L"Norvane User Store", value);
    ASSERT_TRUE(GetString(inproc.c_str(), L"", kView64, &value));
    EXPECT_EQ(0, ::_wcsicmp(StoreServerPath().c_str(), value.c_str())) << Narrow(value);
    ASSERT_TRUE(GetString(inproc.c_str(), L"ThreadingModel", kView64, &value));
    EXPECT_EQ(L"Both", value);
    EXPECT_EQ(std::vector<std::wstring>{L"InprocServer32"}, SubkeyNames(clsidKey.c_str(), kView64));

    nv::com_ptr<IUserStore> store;
    EXPECT_EQ(S_OK,
              ::CoCreateInstance(nvstore::kClsidUserStore, nullptr, 0x17, nvstore::kIidUserStore, store.put_void()));
}

TEST_F(NVStoreTest, ExportsAreTheFourStandardServerFunctions)
{
    LoadedLibrary dll(L"NVStore.dll");
    ASSERT_TRUE(dll.loaded());
    EXPECT_EQ(S_OK, dll.DllRegisterServer());
    EXPECT_EQ(S_OK, dll.DllCanUnloadNow());

    void* factory = reinterpret_cast<void*>(static_cast<uintptr_t>(0xdeadbeef));
    const GUID other = {0x1, 0x2, 0x3, {4, 5, 6, 7, 8, 9, 10, 11}};
    EXPECT_EQ(CLASS_E_CLASSNOTAVAILABLE, dll.DllGetClassObject(other, IID_IClassFactory, &factory));
    EXPECT_EQ(nullptr, factory);

    nv::com_ptr<IClassFactory> cf;
    ASSERT_EQ(S_OK, dll.DllGetClassObject(nvstore::kClsidUserStore, IID_IClassFactory, cf.put_void()));
    EXPECT_EQ(S_FALSE, dll.DllCanUnloadNow());
    nv::com_ptr<IUnknown> aggregate;
    nv::com_ptr<IUnknown> outer;
    ASSERT_EQ(S_OK, cf->CreateInstance(nullptr, IID_IUnknown, outer.put_void()));
    EXPECT_EQ(CLASS_E_NOAGGREGATION, cf->CreateInstance(outer.get(), IID_IUnknown, aggregate.put_void()));
    nv::com_ptr<IUnknown> nothing;
    EXPECT_EQ(E_NOINTERFACE, cf->CreateInstance(nullptr, IID_IClassFactory, nothing.put_void()));
    cf.reset();
    EXPECT_EQ(S_FALSE, dll.DllCanUnloadNow());
    outer.reset();
    EXPECT_EQ(S_OK, dll.DllCanUnloadNow());
}

TEST_F(NVStoreTest, ClassContext0x17CreatesEveryInterfaceOfTheSequence)
{
    HRESULT hr = E_FAIL;
    nv::com_ptr<IUserStore> store = Create<IUserStore>(nvstore::kIidUserStore, &hr);
    EXPECT_EQ(S_OK, hr);
    nv::com_ptr<IStoreService> service = Create<IStoreService>(nvstore::kIidStoreService, &hr);
    EXPECT_EQ(S_OK, hr);
    nv::com_ptr<IUserRegistry> registry = Create<IUserRegistry>(nvstore::kIidUserRegistry, &hr);
    EXPECT_EQ(S_OK, hr);
    ASSERT_TRUE(store && service && registry);
    nv::com_ptr<IAuthService> auth;
    EXPECT_EQ(S_OK, service.query(auth));
    EXPECT_TRUE(auth);

    nv::com_ptr<IUserSecrets> notHere;
    EXPECT_EQ(E_NOINTERFACE, store.query(notHere));
    DWORD version = 0;
    EXPECT_EQ(S_OK, service->GetVersion(&version));
    EXPECT_EQ(0x00010000u, version);
}

TEST_F(NVStoreTest, FixedIdentifiersAreTheHeadersConstants)
{
    EXPECT_TRUE(IsEqualGUID(__uuidof(IUserStore), nvstore::kIidUserStore));
    EXPECT_TRUE(IsEqualGUID(__uuidof(IStoreService), nvstore::kIidStoreService));
    EXPECT_TRUE(IsEqualGUID(__uuidof(IAuthService), nvstore::kIidAuthService));
    EXPECT_TRUE(IsEqualGUID(__uuidof(IUserRegistry), nvstore::kIidUserRegistry));
    const GUID* all[] = {&nvstore::kClsidUserStore, &nvstore::kIidUserStore, &nvstore::kIidStoreService,
                         &nvstore::kIidAuthService, &nvstore::kIidUserRegistry, &nvstore::kAuthTypePassword,
                         &__uuidof(IUserSecrets), &__uuidof(IUserProperties), &__uuidof(IUserTemplates),
                         &__uuidof(IUserPayload)};
    for (size_t i = 0; i < 10; ++i)
        for (size_t j = i + 1; j < 10; ++j)
            EXPECT_FALSE(IsEqualGUID(*all[i], *all[j])) << i << " " << j;
    EXPECT_EQ(8u, nvstore::kUserIdKindSid);
    EXPECT_EQ(0x17u, nvstore::kStoreClassContext);
}

// ---- operation places ----------------------------------------------------------

TEST_F(NVStoreTest, ConverterOperationsSitAtTheirPlacesInTheVtables)
{
    using OpenUserFn = HRESULT(STDMETHODCALLTYPE*)(IUserStore*, LPCWSTR, DWORD, IUnknown**);
    using PutSecretFn = HRESULT(STDMETHODCALLTYPE*)(IUserSecrets*, LPCWSTR, const CRYPT_DATA_BLOB*);
    using GetPropertyFn = HRESULT(STDMETHODCALLTYPE*)(IUserProperties*, LPCWSTR, CRYPT_DATA_BLOB*);
    using AuthenticateFn = HRESULT(STDMETHODCALLTYPE*)(IAuthService*, REFGUID, LPCWSTR, DWORD,
                                                       const CRYPT_DATA_BLOB*, CRYPT_DATA_BLOB*, DWORD*,
                                                       CRYPT_DATA_BLOB*);
    using EnrollFn = HRESULT(STDMETHODCALLTYPE*)(IAuthService*, REFGUID, LPCWSTR, DWORD, const CRYPT_DATA_BLOB*,
                                                 const CRYPT_DATA_BLOB*, CRYPT_DATA_BLOB*);
    using PutTemplateFn = HRESULT(STDMETHODCALLTYPE*)(IUserTemplates*, DWORD, const CRYPT_DATA_BLOB*);
    using PutPayloadFn = HRESULT(STDMETHODCALLTYPE*)(IUserPayload*, const CRYPT_DATA_BLOB*);
    using CheckUserFn = HRESULT(STDMETHODCALLTYPE*)(IUserRegistry*, LPCWSTR, DWORD);
    using AddUserFn = HRESULT(STDMETHODCALLTYPE*)(IUserRegistry*, IUserPayload*);

    nv::com_ptr<IUserStore> store = Store();
    nv::com_ptr<IUnknown> user;
    ASSERT_EQ(S_OK, Slot<OpenUserFn>(store.get(), 1)(store.get(), kSid, 8, user.put()));
    ASSERT_TRUE(inspect::UserExists(kSid));

    nv::com_ptr<IAuthService> auth = Auth();
    const Bytes info = Info(kPassword);
    CRYPT_DATA_BLOB infoBlob = In(info);
    CRYPT_DATA_BLOB empty{};
    CRYPT_DATA_BLOB extra{};
    ASSERT_EQ(S_OK, Slot<EnrollFn>(auth.get(), 12)(auth.get(), nvstore::kAuthTypePassword, kSid, 8, &empty,
                                                   &infoBlob, &extra));
    Take(extra);
    EXPECT_TRUE(inspect::CheckPassword(kSid, kPassword));
    CRYPT_DATA_BLOB payload{};
    DWORD failed = kSentinel;
    ASSERT_EQ(S_OK, Slot<AuthenticateFn>(auth.get(), 6)(auth.get(), nvstore::kAuthTypePassword, kSid, 8, &infoBlob,
                                                        &payload, &failed, &extra));
    Bytes stored;
    ASSERT_TRUE(inspect::GetPayload(kSid, &stored));
    EXPECT_EQ(stored, Take(payload));
    Take(extra);

    nv::com_ptr<IUserSecrets> secrets;
    ASSERT_EQ(S_OK, user.query(secrets));
    const Bytes secret{1, 2, 3};
    CRYPT_DATA_BLOB secretBlob = In(secret);
    ASSERT_EQ(S_OK, Slot<PutSecretFn>(secrets.get(), 2)(secrets.get(), L"S", &secretBlob));
    EXPECT_EQ(secret, inspect::ListSecrets(kSid)[L"S"]);

    nv::com_ptr<IUserProperties> properties;
    ASSERT_EQ(S_OK, secrets.query(properties));
    CRYPT_DATA_BLOB key{};
    ASSERT_EQ(S_OK, Slot<GetPropertyFn>(properties.get(), 1)(properties.get(), L"UserPublicKey", &key));
    Bytes expectedKey;
    ASSERT_TRUE(inspect::GetPublicKey(kSid, &expectedKey));
    EXPECT_EQ(expectedKey, Take(key));

    nv::com_ptr<IUserTemplates> templates;
    ASSERT_EQ(S_OK, user.query(templates));
    ASSERT_EQ(S_OK, Slot<PutTemplateFn>(templates.get(), 2)(templates.get(), 5, &secretBlob));
    EXPECT_EQ(secret, inspect::ListTemplates(kSid)[5]);

    nv::com_ptr<IUserPayload> payloadItf;
    ASSERT_EQ(S_OK, user.query(payloadItf));
    const Bytes newPayload{9, 8, 7};
    CRYPT_DATA_BLOB payloadBlob = In(newPayload);
    ASSERT_EQ(S_OK, Slot<PutPayloadFn>(payloadItf.get(), 2)(payloadItf.get(), &payloadBlob));
    ASSERT_TRUE(inspect::GetPayload(kSid, &stored));
    EXPECT_EQ(newPayload, stored);

    nv::com_ptr<IUserRegistry> registry = Registry();
    EXPECT_EQ(S_FALSE, Slot<CheckUserFn>(registry.get(), 1)(registry.get(), kSid, 8));
    EXPECT_EQ(S_OK, Slot<AddUserFn>(registry.get(), 3)(registry.get(), payloadItf.get()));
    EXPECT_EQ(S_OK, Slot<CheckUserFn>(registry.get(), 1)(registry.get(), kSid, 8));
}

// ---- users ----------------------------------------------------------------------

TEST_F(NVStoreTest, OpenUserCreatesTheRecordOnceAndNamesUsersBySid)
{
    EXPECT_TRUE(inspect::ListUsers().empty());
    nv::com_ptr<IUserStore> store = Store();
    EXPECT_EQ(S_FALSE, store->UserExists(kSid, 8));
    nv::com_ptr<IUnknown> user;
    ASSERT_EQ(S_OK, store->OpenUser(kSid, 8, user.put()));
    EXPECT_EQ(S_OK, store->UserExists(kSid, 8));
    EXPECT_EQ(std::vector<std::wstring>{kSid}, inspect::ListUsers());

    RegTree tree = Snapshot(L"SOFTWARE\\Norvane\\Store\\Users", kView64);
    EXPECT_EQ((std::vector<std::wstring>{L"", kSid}), tree.keys);
    RegValue idKind;
    ASSERT_TRUE(GetValue((std::wstring(L"SOFTWARE\\Norvane\\Store\\Users\\") + kSid).c_str(), L"IdKind", kView64,
                         &idKind));
    EXPECT_EQ(RegValue({REG_DWORD, {8, 0, 0, 0}}), idKind);
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\Store", kView32));

    // A lower-case SID names the same user.
    nv::com_ptr<IUnknown> again;
    ASSERT_EQ(S_OK, store->OpenUser(L"s-1-5-21-1111111111-2222222222-3333333333-1001", 8, again.put()));
    EXPECT_EQ(std::vector<std::wstring>{kSid}, inspect::ListUsers());

    nv::com_ptr<IUserPayload> payload;
    ASSERT_EQ(S_OK, again.query(payload));
    BSTR id = nullptr;
    DWORD kind = 0;
    ASSERT_EQ(S_OK, payload->GetUserId(&id, &kind));
    EXPECT_EQ(std::wstring(kSid), std::wstring(id));
    EXPECT_EQ(8u, kind);
    ::SysFreeString(id);
}

TEST_F(NVStoreTest, OpenUserRefusesOtherKindsAndNonSidsAndLeavesTheOutputAlone)
{
    nv::com_ptr<IUserStore> store = Store();
    IUnknown* user = reinterpret_cast<IUnknown*>(static_cast<uintptr_t>(0xdeadbeef));
    EXPECT_EQ(E_INVALIDARG, store->OpenUser(kSid, 7, &user));
    EXPECT_EQ(E_INVALIDARG, store->OpenUser(L"alice", 8, &user));
    EXPECT_EQ(E_INVALIDARG, store->OpenUser(nullptr, 8, &user));
    EXPECT_EQ(E_POINTER, store->OpenUser(kSid, 8, nullptr));
    EXPECT_EQ(reinterpret_cast<IUnknown*>(static_cast<uintptr_t>(0xdeadbeef)), user);
    EXPECT_TRUE(inspect::ListUsers().empty());
}

TEST_F(NVStoreTest, UserObjectOffersTheFourUserInterfaces)
{
    nv::com_ptr<IUnknown> user = Open(kSid);
    nv::com_ptr<IUserSecrets> secrets;
    nv::com_ptr<IUserProperties> properties;
    nv::com_ptr<IUserTemplates> templates;
    nv::com_ptr<IUserPayload> payload;
    nv::com_ptr<IUserStore> notHere;
    EXPECT_EQ(S_OK, user.query(secrets));
    EXPECT_EQ(S_OK, secrets.query(properties));
    EXPECT_EQ(S_OK, user.query(templates));
    EXPECT_EQ(S_OK, user.query(payload));
    EXPECT_EQ(E_NOINTERFACE, user.query(notHere));
    EXPECT_FALSE(notHere);
}

TEST_F(NVStoreTest, EnumUsersListsEveryUserAndEndsWithSFalse)
{
    Open(kSid);
    Open(kSid2);
    nv::com_ptr<IUserStore> store = Store();
    std::vector<std::wstring> users;
    for (DWORD i = 0;; ++i) {
        BSTR id = nullptr;
        DWORD kind = 0;
        const HRESULT hr = store->EnumUsers(i, &id, &kind);
        ASSERT_TRUE(hr == S_OK || hr == S_FALSE);
        if (hr == S_FALSE) {
            EXPECT_EQ(nullptr, id);
            break;
        }
        EXPECT_EQ(8u, kind);
        users.emplace_back(id);
        ::SysFreeString(id);
    }
    std::sort(users.begin(), users.end());
    EXPECT_EQ((std::vector<std::wstring>{kSid, kSid2}), users);
    DWORD count = 0;
    nv::com_ptr<IStoreService> service = Create<IStoreService>(nvstore::kIidStoreService);
    EXPECT_EQ(S_OK, service->GetUserCount(&count));
    EXPECT_EQ(2u, count);
}

TEST_F(NVStoreTest, DeleteUserRemovesRecordKeyPairAndRegistration)
{
    ASSERT_EQ(S_OK, Enroll(kSid, kPassword));
    nv::com_ptr<IUserPayload> payload = OpenAs<IUserPayload>(kSid);
    ASSERT_EQ(S_OK, Registry()->AddUser(payload.get()));
    payload.reset();
    const std::wstring container = inspect::KeyContainerName(kSid);
    ASSERT_EQ(std::wstring(L"NVStore-") + kSid, container);
    ASSERT_TRUE(ContainerExists(container));

    EXPECT_EQ(S_OK, Store()->DeleteUser(kSid, 8));
    EXPECT_FALSE(inspect::UserExists(kSid));
    EXPECT_FALSE(inspect::IsRegistered(kSid));
    EXPECT_FALSE(ContainerExists(container));
    EXPECT_EQ(S_FALSE, Store()->DeleteUser(kSid, 8));
}

// The fixtures, the fault sweeps and the benchmarks clean up with this between runs:
// a container it misses is left in the machine's key store for good.
TEST_F(NVStoreTest, DeleteStoreKeyContainersRemovesEveryStoreContainerAndNoOther)
{
    ASSERT_EQ(S_OK, Enroll(kSid, kPassword));
    const std::wstring enrolled = std::wstring(nvstore::kContainerPrefix) + kSid;
    const std::wstring leftover = std::wstring(nvstore::kContainerPrefix) + L"S-1-5-21-1-2-3-4242";
    const std::wstring other = L"NVStoreTest-NotTheStores";
    ASSERT_TRUE(CreateContainer(leftover)) << ::GetLastError();
    ASSERT_TRUE(CreateContainer(other)) << ::GetLastError();
    ASSERT_TRUE(ContainerExists(enrolled));
    ASSERT_TRUE(ContainerExists(leftover));

    inspect::DeleteStoreKeyContainers();
    EXPECT_FALSE(ContainerExists(enrolled));
    EXPECT_FALSE(ContainerExists(leftover));
    EXPECT_TRUE(ContainerExists(other));
    DeleteContainer(other);
    EXPECT_FALSE(ContainerExists(other));
}

// ---- public key and enrolment --------------------------------------------------

TEST_F(NVStoreTest, UserPublicKeyFailsWhileTheUserHasNoKey)
{
    HRESULT hr = S_OK;
    EXPECT_TRUE(PublicKeyProperty(kSid, &hr).empty());
    EXPECT_EQ(NTE_NO_KEY, hr);
    CRYPT_DATA_BLOB blob{kSentinel, kSentinelPtr};
    EXPECT_EQ(NTE_NO_KEY, Auth()->GetUserPublicKey(kSid, 8, &blob));
    EXPECT_EQ(kSentinelPtr, blob.pbData);
}

TEST_F(NVStoreTest, EnrolmentCreatesKeyPairVerifierAndPayload)
{
    Bytes extra;
    ASSERT_EQ(S_OK, Enroll(kSid, kPassword, &extra));

    EXPECT_EQ(std::vector<std::wstring>{kSid}, inspect::ListUsers());
    EXPECT_TRUE(ContainerExists(std::wstring(L"NVStore-") + kSid));
    EXPECT_TRUE(inspect::HasPassword(kSid));
    EXPECT_TRUE(inspect::CheckPassword(kSid, kPassword));
    EXPECT_FALSE(inspect::CheckPassword(kSid, L"corr3ct horse"));
    EXPECT_FALSE(inspect::CheckPassword(kSid, L""));
    Bytes payload;
    ASSERT_TRUE(inspect::GetPayload(kSid, &payload));
    EXPECT_EQ(32u, payload.size());
    EXPECT_NE(Bytes(32, 0), payload);

    HRESULT hr = E_FAIL;
    const Bytes key = PublicKeyProperty(kSid, &hr);
    ASSERT_EQ(S_OK, hr);
    EXPECT_EQ(key, extra);
    // PUBLICKEYBLOB: header, RSAPUBKEY ("RSA1", 1024 bits in tests), modulus.
    ASSERT_EQ(sizeof(BLOBHEADER) + sizeof(RSAPUBKEY) + 128, key.size());
    BLOBHEADER header;
    RSAPUBKEY rsa;
    std::memcpy(&header, key.data(), sizeof(header));
    std::memcpy(&rsa, key.data() + sizeof(header), sizeof(rsa));
    EXPECT_EQ(PUBLICKEYBLOB, header.bType);
    EXPECT_EQ(static_cast<ALG_ID>(CALG_RSA_KEYX), header.aiKeyAlg);
    EXPECT_EQ(0x31415352u, rsa.magic);
    EXPECT_EQ(1024u, rsa.bitlen);

    // The verifier is salted: the same password for another user gives other bytes.
    ASSERT_EQ(S_OK, Enroll(kSid2, kPassword));
    RegValue v1, v2;
    ASSERT_TRUE(GetValue((std::wstring(L"SOFTWARE\\Norvane\\Store\\Users\\") + kSid).c_str(), L"PasswordVerifier",
                         kView64, &v1));
    ASSERT_TRUE(GetValue((std::wstring(L"SOFTWARE\\Norvane\\Store\\Users\\") + kSid2).c_str(), L"PasswordVerifier",
                         kView64, &v2));
    EXPECT_EQ(48u, v1.data.size()); // salt and verifier in one value
    EXPECT_NE(v1.data, v2.data);
    EXPECT_FALSE(GetValue((std::wstring(L"SOFTWARE\\Norvane\\Store\\Users\\") + kSid).c_str(), L"PasswordSalt",
                          kView64, &v2));
    const std::wstring raw(kPassword);
    const Bytes rawBytes(reinterpret_cast<const BYTE*>(raw.data()),
                         reinterpret_cast<const BYTE*>(raw.data() + raw.size()));
    RegTree tree = Snapshot(L"SOFTWARE\\Norvane\\Store", kView64);
    for (const auto& [name, value] : tree.values)
        EXPECT_EQ(value.data.end(), std::search(value.data.begin(), value.data.end(), rawBytes.begin(), rawBytes.end()))
            << "password in clear at " << Narrow(name);
}

// The store's keys hold password verifiers: nothing of them is readable by Users,
// and a root an older store left with Users' read access is mended.
TEST_F(NVStoreTest, EveryStoreKeyIsForSystemAndAdministratorsOnly)
{
    CreateKeyPath(L"SOFTWARE\\Norvane\\Store", kView64);
    SetDacl(L"SOFTWARE\\Norvane\\Store", kView64, L"D:(A;CI;KR;;;BU)(A;CI;KA;;;BA)(A;CI;KA;;;SY)");
    ASSERT_NE(std::wstring::npos, DaclText(L"SOFTWARE\\Norvane\\Store", kView64).find(L";;;BU)"));
    ASSERT_EQ(S_OK, Enroll(kSid, kPassword));

    const RegTree tree = Snapshot(L"SOFTWARE\\Norvane\\Store", kView64);
    ASSERT_TRUE(tree.exists);
    EXPECT_GE(tree.keys.size(), 3u); // the root, Users and the user's key at least
    for (const std::wstring& rel : tree.keys) {
        const std::wstring path = rel.empty() ? L"SOFTWARE\\Norvane\\Store" : L"SOFTWARE\\Norvane\\Store\\" + rel;
        const std::wstring dacl = DaclText(path.c_str(), kView64);
        EXPECT_EQ(std::wstring(kAdministratorsOnlyEntries), DaclEntries(dacl)) << Narrow(path);
    }
}

TEST_F(NVStoreTest, DefaultKeyPairsAre2048Bit)
{
    inspect::SetUserKeyBits(0); // out of range: the store's default
    ASSERT_EQ(S_OK, Enroll(kSid, kPassword));
    Bytes key;
    ASSERT_TRUE(inspect::GetPublicKey(kSid, &key));
    RSAPUBKEY rsa;
    std::memcpy(&rsa, key.data() + sizeof(BLOBHEADER), sizeof(rsa));
    EXPECT_EQ(2048u, rsa.bitlen);
}

TEST_F(NVStoreTest, EnrolmentTakesAGivenPayloadAndKeepsTheKeyPairOnReenrolment)
{
    const Bytes given{0xA1, 0xB2, 0xC3};
    ASSERT_EQ(S_OK, Enroll(kSid, kPassword, nullptr, given));
    Bytes payload;
    ASSERT_TRUE(inspect::GetPayload(kSid, &payload));
    EXPECT_EQ(given, payload);
    Bytes key1, key2;
    ASSERT_TRUE(inspect::GetPublicKey(kSid, &key1));

    ASSERT_EQ(S_OK, Enroll(kSid, L"new password"));
    ASSERT_TRUE(inspect::GetPublicKey(kSid, &key2));
    EXPECT_EQ(key1, key2);
    ASSERT_TRUE(inspect::GetPayload(kSid, &payload));
    EXPECT_EQ(given, payload); // an empty payload blob keeps the one there is
    EXPECT_TRUE(inspect::CheckPassword(kSid, L"new password"));
    EXPECT_FALSE(inspect::CheckPassword(kSid, kPassword));
}

TEST_F(NVStoreTest, EnrolmentReadsTheStringsByTheirPlacesNotThePointers)
{
    // Real pointers into a block that holds other strings: a receiver that followed
    // them would enrol "decoy".
    const std::wstring decoy = L"decoy";
    const Bytes info = inspect::BuildPasswordAuthInfo(0, kPassword, kPassword, reinterpret_cast<ULONG_PTR>(decoy.c_str()),
                                                      reinterpret_cast<ULONG_PTR>(decoy.c_str()));
    CRYPT_DATA_BLOB infoBlob = In(info);
    CRYPT_DATA_BLOB empty{};
    CRYPT_DATA_BLOB extra{};
    ASSERT_EQ(S_OK, Auth()->EnrollAuthentication(nvstore::kAuthTypePassword, kSid, 8, &empty, &infoBlob, &extra));
    Take(extra);
    EXPECT_TRUE(inspect::CheckPassword(kSid, kPassword));
    EXPECT_FALSE(inspect::CheckPassword(kSid, decoy));

    // Layout: 40-byte header, first string at 40, second at 40 + first maximum length.
    const USHORT len = static_cast<USHORT>(std::wcslen(kPassword) * 2);
    ASSERT_EQ(40u + 2 * (len + 2u), info.size());
    EXPECT_EQ(0, std::memcmp(info.data() + 40, kPassword, len));
    EXPECT_EQ(0, std::memcmp(info.data() + 40 + len + 2, kPassword, len));
}

TEST_F(NVStoreTest, EnrolmentRefusesMalformedInfoAndLeavesNoUser)
{
    CRYPT_DATA_BLOB empty{};
    auto enroll = [&](Bytes info) {
        CRYPT_DATA_BLOB infoBlob = In(info);
        CRYPT_DATA_BLOB extra{kSentinel, kSentinelPtr};
        const HRESULT hr = Auth()->EnrollAuthentication(nvstore::kAuthTypePassword, kSid, 8, &empty, &infoBlob, &extra);
        EXPECT_EQ(kSentinelPtr, extra.pbData);
        return hr;
    };
    EXPECT_EQ(E_INVALIDARG, enroll(Info(L"one", L"two"))); // confirmation differs
    Bytes shortInfo = Info(kPassword);
    shortInfo.resize(39);
    EXPECT_EQ(E_INVALIDARG, enroll(shortInfo));
    Bytes truncated = Info(kPassword);
    truncated.resize(truncated.size() - 2);
    EXPECT_EQ(E_INVALIDARG, enroll(truncated)); // second string runs past the end
    Bytes wrongKind = inspect::BuildPasswordAuthInfo(1, kPassword, kPassword);
    EXPECT_EQ(E_INVALIDARG, enroll(wrongKind));
    Bytes unterminated = Info(L"abc");
    unterminated[40 + 6] = 'x'; // the first string's terminator
    EXPECT_EQ(E_INVALIDARG, enroll(unterminated));
    Bytes oddLength = Info(L"abc");
    oddLength[8] = 5; // first Length
    EXPECT_EQ(E_INVALIDARG, enroll(oddLength));

    CRYPT_DATA_BLOB extra{};
    const Bytes ok = Info(kPassword);
    CRYPT_DATA_BLOB okBlob = In(ok);
    const GUID other = {0x1, 0x2, 0x3, {4, 5, 6, 7, 8, 9, 10, 11}};
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED),
              Auth()->EnrollAuthentication(other, kSid, 8, &empty, &okBlob, &extra));
    EXPECT_EQ(E_INVALIDARG, Auth()->EnrollAuthentication(nvstore::kAuthTypePassword, kSid, 1, &empty, &okBlob, &extra));
    EXPECT_TRUE(inspect::ListUsers().empty());
}

// ---- authentication -------------------------------------------------------------

TEST_F(NVStoreTest, AuthenticateChecksThePasswordAndHandsOutThePayload)
{
    Bytes enrolledKey;
    ASSERT_EQ(S_OK, Enroll(kSid, kPassword, &enrolledKey));
    Bytes payload;
    ASSERT_TRUE(inspect::GetPayload(kSid, &payload));

    AuthResult ok = Authenticate(kSid, kPassword);
    ASSERT_EQ(S_OK, ok.hr);
    EXPECT_EQ(payload, ok.payload);
    EXPECT_EQ(0u, ok.failed);
    EXPECT_EQ(enrolledKey, ok.extra);
}

TEST_F(NVStoreTest, WrongPasswordFailsLeavesTheOutputsAloneAndIsCounted)
{
    ASSERT_EQ(S_OK, Enroll(kSid, kPassword));
    AuthResult wrong = Authenticate(kSid, L"Corr3ct horsE");
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_WRONG_PASSWORD), wrong.hr);
    EXPECT_TRUE(wrong.untouched);
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_WRONG_PASSWORD), Authenticate(kSid, L"").hr);
    EXPECT_EQ(2u, inspect::FailedCount(kSid));

    DWORD count = 0;
    EXPECT_EQ(S_OK, Auth()->GetFailedCount(nvstore::kAuthTypePassword, kSid, 8, &count));
    EXPECT_EQ(2u, count);
    AuthResult ok = Authenticate(kSid, kPassword);
    ASSERT_EQ(S_OK, ok.hr);
    EXPECT_EQ(2u, ok.failed);
    EXPECT_EQ(0u, inspect::FailedCount(kSid));
}

TEST_F(NVStoreTest, AuthenticateOfAnUnenrolledUserFails)
{
    AuthResult unknown = Authenticate(kSid, kPassword);
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_NO_SUCH_USER), unknown.hr);
    EXPECT_TRUE(unknown.untouched);
    Open(kSid); // a record, but neither key nor password
    AuthResult bare = Authenticate(kSid, kPassword);
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_NO_SUCH_USER), bare.hr);
    EXPECT_TRUE(bare.untouched);
    EXPECT_FALSE(inspect::HasPassword(kSid));
}

TEST_F(NVStoreTest, OtherAuthenticationOperations)
{
    nv::com_ptr<IAuthService> auth = Auth();
    DWORD count = 0;
    EXPECT_EQ(S_OK, auth->GetAuthTypeCount(&count));
    EXPECT_EQ(1u, count);
    GUID type{};
    EXPECT_EQ(S_OK, auth->GetAuthType(0, &type));
    EXPECT_TRUE(IsEqualGUID(nvstore::kAuthTypePassword, type));
    EXPECT_EQ(S_FALSE, auth->GetAuthType(1, &type));

    EXPECT_EQ(S_FALSE, auth->IsEnrolled(nvstore::kAuthTypePassword, kSid, 8));
    ASSERT_EQ(S_OK, Enroll(kSid, kPassword));
    EXPECT_EQ(S_OK, auth->IsEnrolled(nvstore::kAuthTypePassword, kSid, 8));
    EXPECT_EQ(S_OK, auth->EnumEnrolledTypes(kSid, 8, 0, &type));
    EXPECT_TRUE(IsEqualGUID(nvstore::kAuthTypePassword, type));
    EXPECT_EQ(S_FALSE, auth->EnumEnrolledTypes(kSid, 8, 1, &type));

    const Bytes good = Info(kPassword), bad = Info(L"nope"), next = Info(L"next one");
    CRYPT_DATA_BLOB goodBlob = In(good), badBlob = In(bad), nextBlob = In(next);
    EXPECT_EQ(S_OK, auth->VerifyAuthentication(nvstore::kAuthTypePassword, kSid, 8, &goodBlob));
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_WRONG_PASSWORD),
              auth->VerifyAuthentication(nvstore::kAuthTypePassword, kSid, 8, &badBlob));
    EXPECT_EQ(1u, inspect::FailedCount(kSid));
    EXPECT_EQ(S_OK, auth->ResetFailedCount(nvstore::kAuthTypePassword, kSid, 8));
    EXPECT_EQ(0u, inspect::FailedCount(kSid));

    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_WRONG_PASSWORD),
              auth->ChangeAuthentication(nvstore::kAuthTypePassword, kSid, 8, &badBlob, &nextBlob));
    EXPECT_EQ(S_OK, auth->ChangeAuthentication(nvstore::kAuthTypePassword, kSid, 8, &goodBlob, &nextBlob));
    EXPECT_TRUE(inspect::CheckPassword(kSid, L"next one"));

    CRYPT_DATA_BLOB key{};
    ASSERT_EQ(S_OK, auth->GetUserPublicKey(kSid, 8, &key));
    Bytes expected;
    ASSERT_TRUE(inspect::GetPublicKey(kSid, &expected));
    EXPECT_EQ(expected, Take(key));

    EXPECT_EQ(S_OK, auth->RemoveAuthentication(nvstore::kAuthTypePassword, kSid, 8));
    EXPECT_FALSE(inspect::HasPassword(kSid));
    EXPECT_EQ(S_FALSE, auth->RemoveAuthentication(nvstore::kAuthTypePassword, kSid, 8));
    EXPECT_TRUE(inspect::GetPublicKey(kSid, &expected)); // the key pair stays
}

// ---- secrets, templates, payload, properties -------------------------------------

TEST_F(NVStoreTest, PutSecretStoresWhatItReceives)
{
    nv::com_ptr<IUserSecrets> secrets = OpenAs<IUserSecrets>(kSid);
    const Bytes a{0x30, 0x03, 0x04, 0x01, 0x00}, b{0xFF}, c{};
    CRYPT_DATA_BLOB ba = In(a), bb = In(b), bc = In(c);
    EXPECT_EQ(S_OK, secrets->PutSecret(L"SystemLogonInfo", &ba));
    EXPECT_EQ(S_OK, secrets->PutSecret(L"Other", &bb));
    EXPECT_EQ(S_OK, secrets->PutSecret(L"", &ba)); // the empty name is a name
    EXPECT_EQ(S_OK, secrets->PutSecret(L"Empty", &bc));
    EXPECT_EQ(S_OK, secrets->PutSecret(L"Other", &ba)); // replaces
    EXPECT_EQ(E_INVALIDARG, secrets->PutSecret(nullptr, &ba));
    EXPECT_EQ(E_INVALIDARG, secrets->PutSecret(L"X", nullptr));

    std::map<std::wstring, Bytes> expected{{L"SystemLogonInfo", a}, {L"Other", a}, {L"", a}, {L"Empty", c}};
    EXPECT_EQ(expected, inspect::ListSecrets(kSid));

    CRYPT_DATA_BLOB out{kSentinel, kSentinelPtr};
    EXPECT_EQ(kNotFound, secrets->GetSecret(L"systemlogoninfo2", &out));
    EXPECT_EQ(kSentinelPtr, out.pbData);
    ASSERT_EQ(S_OK, secrets->GetSecret(L"SystemLogonInfo", &out));
    EXPECT_TRUE(IsTaskMemory(out.pbData));
    EXPECT_EQ(a, Take(out));

    std::vector<std::wstring> names;
    BSTR name = nullptr;
    for (DWORD i = 0; secrets->EnumSecrets(i, &name) == S_OK; ++i) {
        names.emplace_back(name, ::SysStringLen(name));
        ::SysFreeString(name);
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ((std::vector<std::wstring>{L"", L"Empty", L"Other", L"SystemLogonInfo"}), names);

    EXPECT_EQ(S_OK, secrets->DeleteSecret(L"Other"));
    EXPECT_EQ(S_FALSE, secrets->DeleteSecret(L"Other"));
    EXPECT_EQ(3u, inspect::ListSecrets(kSid).size());
}

TEST_F(NVStoreTest, PutTemplateStoresWhatItReceivesPerPosition)
{
    nv::com_ptr<IUserTemplates> templates = OpenAs<IUserTemplates>(kSid);
    const Bytes t0{0x30, 0x00}, t2{1, 2, 3, 4};
    CRYPT_DATA_BLOB b0 = In(t0), b2 = In(t2), none{};
    EXPECT_EQ(S_OK, templates->PutTemplate(0, &b0));
    EXPECT_EQ(S_OK, templates->PutTemplate(31, &b2));
    EXPECT_EQ(S_OK, templates->PutTemplate(2, &b2));
    EXPECT_EQ(E_INVALIDARG, templates->PutTemplate(32, &b2));
    EXPECT_EQ(E_INVALIDARG, templates->PutTemplate(3, &none));
    EXPECT_EQ((std::map<DWORD, Bytes>{{0, t0}, {2, t2}, {31, t2}}), inspect::ListTemplates(kSid));

    DWORD mask = 0;
    EXPECT_EQ(S_OK, templates->GetTemplateMask(&mask));
    EXPECT_EQ(0x80000005u, mask);
    CRYPT_DATA_BLOB out{};
    ASSERT_EQ(S_OK, templates->GetTemplate(2, &out));
    EXPECT_EQ(t2, Take(out));
    EXPECT_EQ(kNotFound, templates->GetTemplate(1, &out));
    EXPECT_EQ(S_OK, templates->DeleteTemplate(31));
    EXPECT_EQ(S_FALSE, templates->DeleteTemplate(31));
    EXPECT_EQ(S_OK, templates->GetTemplateMask(&mask));
    EXPECT_EQ(0x00000005u, mask);
}

TEST_F(NVStoreTest, PutPayloadStoresWhatItReceives)
{
    nv::com_ptr<IUserPayload> payload = OpenAs<IUserPayload>(kSid);
    CRYPT_DATA_BLOB out{kSentinel, kSentinelPtr};
    EXPECT_EQ(kNotFound, payload->GetPayload(&out));
    EXPECT_EQ(kSentinelPtr, out.pbData);
    const Bytes p{5, 6, 7, 8, 9};
    CRYPT_DATA_BLOB in = In(p), none{};
    EXPECT_EQ(S_OK, payload->PutPayload(&in));
    EXPECT_EQ(E_INVALIDARG, payload->PutPayload(&none));
    Bytes stored;
    ASSERT_TRUE(inspect::GetPayload(kSid, &stored));
    EXPECT_EQ(p, stored);
    ASSERT_EQ(S_OK, payload->GetPayload(&out));
    EXPECT_EQ(p, Take(out));
    EXPECT_EQ(S_OK, payload->DeletePayload());
    EXPECT_FALSE(inspect::GetPayload(kSid, &stored));
}

TEST_F(NVStoreTest, PropertiesBesideThePublicKey)
{
    nv::com_ptr<IUserProperties> properties = OpenAs<IUserProperties>(kSid);
    const Bytes v{1, 1, 2, 3, 5};
    CRYPT_DATA_BLOB in = In(v);
    EXPECT_EQ(E_ACCESSDENIED, properties->SetProperty(L"UserPublicKey", &in));
    EXPECT_EQ(E_ACCESSDENIED, properties->DeleteProperty(L"UserPublicKey"));
    EXPECT_EQ(S_OK, properties->SetProperty(L"Colour", &in));
    EXPECT_EQ((std::map<std::wstring, Bytes>{{L"Colour", v}}), inspect::ListProperties(kSid));
    CRYPT_DATA_BLOB out{};
    ASSERT_EQ(S_OK, properties->GetProperty(L"Colour", &out));
    EXPECT_EQ(v, Take(out));
    EXPECT_EQ(kNotFound, properties->GetProperty(L"Shape", &out));

    ASSERT_EQ(S_OK, Enroll(kSid, kPassword));
    std::vector<std::wstring> names;
    BSTR name = nullptr;
    for (DWORD i = 0; properties->EnumProperties(i, &name) == S_OK; ++i) {
        names.emplace_back(name);
        ::SysFreeString(name);
    }
    EXPECT_EQ((std::vector<std::wstring>{L"UserPublicKey", L"Colour"}), names);
    EXPECT_EQ(S_OK, properties->DeleteProperty(L"Colour"));
    EXPECT_EQ(S_FALSE, properties->DeleteProperty(L"Colour"));
}

// ---- registration of users -----------------------------------------------------------

TEST_F(NVStoreTest, CheckUserIsSFalseUntilAddUserRegistersTheUser)
{
    nv::com_ptr<IUserRegistry> registry = Registry();
    EXPECT_EQ(S_FALSE, registry->CheckUser(kSid, 8));
    nv::com_ptr<IUserPayload> payload = OpenAs<IUserPayload>(kSid);
    EXPECT_EQ(S_OK, registry->AddUser(payload.get()));
    EXPECT_EQ(S_OK, registry->CheckUser(kSid, 8));
    EXPECT_EQ(S_FALSE, registry->CheckUser(kSid2, 8));
    EXPECT_EQ(S_FALSE, registry->AddUser(payload.get()));
    EXPECT_EQ(E_POINTER, registry->AddUser(nullptr));
    EXPECT_EQ(std::vector<std::wstring>{kSid}, inspect::ListRegistered());
    RegValue kind;
    ASSERT_TRUE(GetValue((std::wstring(L"SOFTWARE\\Norvane\\Store\\Registered\\") + kSid).c_str(), L"IdKind", kView64,
                         &kind));
    EXPECT_EQ(RegValue({REG_DWORD, {8, 0, 0, 0}}), kind);

    BSTR id = nullptr;
    DWORD idKind = 0;
    EXPECT_EQ(S_OK, registry->EnumRegisteredUsers(0, &id, &idKind));
    EXPECT_EQ(std::wstring(kSid), std::wstring(id));
    ::SysFreeString(id);
    EXPECT_EQ(S_FALSE, registry->EnumRegisteredUsers(1, &id, &idKind));
    EXPECT_EQ(S_OK, registry->RemoveUser(kSid, 8));
    EXPECT_EQ(S_FALSE, registry->CheckUser(kSid, 8));
}

// ---- test behaviours --------------------------------------------------------------

TEST_F(NVStoreTest, BehavioursAreOffByDefault)
{
    inspect::ClearTestBehaviours();
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\Store\\TestBehaviours", kView64));
    nv::com_ptr<IUnknown> user = Open(kSid);
    nv::com_ptr<IUserProperties> properties;
    EXPECT_EQ(S_OK, user.query(properties));
    nv::com_ptr<IAuthService> auth = Auth();
    EXPECT_TRUE(auth);
    HRESULT hr = S_OK;
    PublicKeyProperty(kSid, &hr);
    EXPECT_EQ(NTE_NO_KEY, hr);
    EXPECT_EQ(S_FALSE, Registry()->CheckUser(kSid, 8));
}

TEST_F(NVStoreTest, FailOpenUserForAGivenSid)
{
    inspect::SetFailOpenUser({kSid2});
    nv::com_ptr<IUserStore> store = Store();
    IUnknown* user = reinterpret_cast<IUnknown*>(static_cast<uintptr_t>(0xdeadbeef));
    EXPECT_EQ(E_ACCESSDENIED, store->OpenUser(kSid2, 8, &user));
    EXPECT_EQ(reinterpret_cast<IUnknown*>(static_cast<uintptr_t>(0xdeadbeef)), user);
    nv::com_ptr<IUnknown> other;
    EXPECT_EQ(S_OK, store->OpenUser(kSid, 8, other.put()));
    EXPECT_EQ(std::vector<std::wstring>{kSid}, inspect::ListUsers());

    inspect::SetFailOpenUser({kSid, kSid2}, CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_EQ(CLASS_E_CLASSNOTAVAILABLE, store->OpenUser(kSid, 8, &user));
    SetString(L"SOFTWARE\\Norvane\\Store\\TestBehaviours", L"FailOpenUser", kSid, kView64);
    EXPECT_EQ(CLASS_E_CLASSNOTAVAILABLE, store->OpenUser(kSid, 8, &user));
    EXPECT_EQ(S_OK, store->OpenUser(kSid2, 8, other.put()));
}

TEST_F(NVStoreTest, NoAuthServiceBehaviour)
{
    inspect::SetNoAuthService(true);
    nv::com_ptr<IStoreService> service = Create<IStoreService>(nvstore::kIidStoreService);
    ASSERT_TRUE(service);
    nv::com_ptr<IAuthService> auth;
    EXPECT_EQ(E_NOINTERFACE, service.query(auth));
    EXPECT_FALSE(auth);
    HRESULT hr = S_OK;
    Create<IAuthService>(nvstore::kIidAuthService, &hr);
    EXPECT_EQ(E_NOINTERFACE, hr);
    inspect::SetNoAuthService(false);
    EXPECT_EQ(S_OK, service.query(auth));
}

TEST_F(NVStoreTest, NoUserPropertiesBehaviour)
{
    inspect::SetNoUserProperties(true);
    nv::com_ptr<IUnknown> user = Open(kSid);
    nv::com_ptr<IUserSecrets> secrets;
    ASSERT_EQ(S_OK, user.query(secrets));
    nv::com_ptr<IUserProperties> properties;
    EXPECT_EQ(E_NOINTERFACE, secrets.query(properties));
    EXPECT_EQ(E_NOINTERFACE, user.query(properties));
    nv::com_ptr<IUserTemplates> templates;
    EXPECT_EQ(S_OK, user.query(templates));
}

TEST_F(NVStoreTest, FailPutTemplateAtAPosition)
{
    inspect::SetFailPutTemplateAt(2);
    nv::com_ptr<IUserTemplates> templates = OpenAs<IUserTemplates>(kSid);
    const Bytes t{1};
    CRYPT_DATA_BLOB b = In(t);
    EXPECT_EQ(S_OK, templates->PutTemplate(0, &b));
    EXPECT_EQ(E_FAIL, templates->PutTemplate(2, &b));
    EXPECT_EQ(S_OK, templates->PutTemplate(3, &b));
    EXPECT_EQ((std::map<DWORD, Bytes>{{0, t}, {3, t}}), inspect::ListTemplates(kSid));
    inspect::SetFailPutTemplateAt(0, HRESULT_FROM_WIN32(ERROR_GEN_FAILURE));
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_GEN_FAILURE), templates->PutTemplate(0, &b));
    EXPECT_EQ(S_OK, templates->PutTemplate(2, &b));
}

TEST_F(NVStoreTest, ReportAUserAsAlreadyRegistered)
{
    inspect::SetAlreadyRegistered({kSid});
    nv::com_ptr<IUserRegistry> registry = Registry();
    EXPECT_EQ(S_OK, registry->CheckUser(kSid, 8));
    EXPECT_EQ(S_FALSE, registry->CheckUser(kSid2, 8));
    EXPECT_TRUE(inspect::ListRegistered().empty());
}

TEST_F(NVStoreTest, StartAUserWithAnExistingPublicKey)
{
    inspect::SetExistingPublicKey({kSid});
    HRESULT hr = E_FAIL;
    const Bytes key = PublicKeyProperty(kSid, &hr);
    ASSERT_EQ(S_OK, hr);
    Bytes stored;
    ASSERT_TRUE(inspect::GetPublicKey(kSid, &stored));
    EXPECT_EQ(stored, key);
    Bytes payload;
    ASSERT_TRUE(inspect::GetPayload(kSid, &payload));
    EXPECT_FALSE(inspect::HasPassword(kSid));

    // The first password presented becomes the account's; then it is checked.
    AuthResult first = Authenticate(kSid, kPassword);
    ASSERT_EQ(S_OK, first.hr);
    EXPECT_EQ(payload, first.payload);
    EXPECT_EQ(key, first.extra);
    EXPECT_TRUE(inspect::CheckPassword(kSid, kPassword));
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_WRONG_PASSWORD), Authenticate(kSid, L"another").hr);

    // Other users start without a key.
    PublicKeyProperty(kSid2, &hr);
    EXPECT_EQ(NTE_NO_KEY, hr);
    // Opening again keeps the key pair it has.
    Open(kSid);
    Bytes again;
    ASSERT_TRUE(inspect::GetPublicKey(kSid, &again));
    EXPECT_EQ(key, again);
}

// ---- sealed secrets -------------------------------------------------------------------

TEST_F(NVStoreTest, EncryptExOutputOpensWithTheUsersPrivateKey)
{
    ASSERT_EQ(S_OK, Enroll(kSid, kPassword));
    HRESULT hr = E_FAIL;
    const Bytes publicKey = PublicKeyProperty(kSid, &hr);
    ASSERT_EQ(S_OK, hr);

    nv::unique_hcryptprov prov;
    ASSERT_TRUE(::CryptAcquireContextW(prov.put(), nullptr, L"Microsoft Enhanced Cryptographic Provider v1.0",
                                       PROV_RSA_FULL, CRYPT_VERIFYCONTEXT));
    nv::unique_hcryptkey userKey;
    ASSERT_TRUE(::CryptImportKey(prov.get(), publicKey.data(), static_cast<DWORD>(publicKey.size()), 0, 0,
                                 userKey.put()));

    const Bytes plain{'o', 'l', 'd', ' ', 's', 'e', 'c', 'r', 'e', 't'};
    nv::CCryptBlob sealed(plain.data(), static_cast<DWORD>(plain.size()));
    ASSERT_EQ(S_OK, EncryptEx(sealed, prov.get(), userKey.get(), CALG_3DES));
    nv::CCryptBlob password;
    PackPassword(kPassword, password);
    const Bytes packed(password.pbData, password.pbData + password.cbData);
    ASSERT_EQ(S_OK, EncryptEx(password, prov.get(), userKey.get(), CALG_3DES));

    nv::com_ptr<IUserSecrets> secrets = OpenAs<IUserSecrets>(kSid);
    ASSERT_EQ(S_OK, secrets->PutSecret(L"Other", &sealed));
    ASSERT_EQ(S_OK, secrets->PutSecret(L"SystemLogonInfo", &password));

    Bytes opened;
    ASSERT_EQ(S_OK, inspect::OpenStoredSecret(kSid, L"Other", &opened));
    EXPECT_EQ(plain, opened);
    ASSERT_EQ(S_OK, inspect::OpenStoredSecret(kSid, L"SystemLogonInfo", &opened));
    EXPECT_EQ(packed, opened);
    BSTR unpacked = nullptr;
    CRYPT_DATA_BLOB openedBlob = In(opened);
    ASSERT_EQ(S_OK, UnpackPasswordAndPin(&openedBlob, &unpacked, nullptr));
    EXPECT_EQ(std::wstring(kPassword), std::wstring(unpacked));
    ::SysFreeString(unpacked);

    // Another user's key does not open it; a missing secret is not found.
    ASSERT_EQ(S_OK, Enroll(kSid2, kPassword));
    const Bytes stored = inspect::ListSecrets(kSid)[L"Other"];
    EXPECT_NE(S_OK, inspect::OpenSealedSecret(kSid2, stored, &opened));
    EXPECT_EQ(kNotFound, inspect::OpenStoredSecret(kSid, L"Missing", &opened));
    EXPECT_EQ(NTE_BAD_DATA, inspect::OpenSealedSecret(kSid, Bytes{0x30, 0x00}, &opened));
}

// Seals a packed password for the user under its "UserPublicKey" property, stores it as
// "Primary" and opens it again with the user's private key, as the conversion and a
// later logon would.
void ExpectSealedSecretOpens(const wchar_t* sid)
{
    HRESULT hr = E_FAIL;
    const Bytes publicKey = PublicKeyProperty(sid, &hr);
    ASSERT_EQ(S_OK, hr);
    nv::unique_hcryptprov prov;
    ASSERT_TRUE(::CryptAcquireContextW(prov.put(), nullptr, nvstore::kKeyProvider, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT));
    nv::unique_hcryptkey userKey;
    ASSERT_TRUE(::CryptImportKey(prov.get(), publicKey.data(), static_cast<DWORD>(publicKey.size()), 0, 0,
                                 userKey.put()));
    nv::CCryptBlob blob;
    PackPassword(kPassword, blob);
    const Bytes packed(blob.pbData, blob.pbData + blob.cbData);
    ASSERT_EQ(S_OK, EncryptEx(blob, prov.get(), userKey.get(), CALG_3DES));
    ASSERT_EQ(S_OK, OpenAs<IUserSecrets>(sid)->PutSecret(L"Primary", &blob));
    Bytes opened;
    ASSERT_EQ(S_OK, inspect::OpenStoredSecret(sid, L"Primary", &opened));
    EXPECT_EQ(packed, opened);
}

DWORD FaultyKeyPairsLeft()
{
    RegValue v;
    if (!GetValue(nvstore::kTestBehavioursKeyPath, nvstore::kFaultyKeyPairsValue, nvstore::kStoreView, &v) ||
        v.data.size() != sizeof(DWORD))
        return 0xFFFFFFFF;
    DWORD left = 0;
    std::memcpy(&left, v.data.data(), sizeof(left));
    return left;
}

// The provider now and then stores a pair whose private key refuses what its public
// key seals (NTE_BAD_DATA); named in the user's record, it would lose every secret
// sealed for the user. The store checks each new pair and makes another.
TEST_F(NVStoreTest, AKeyPairThatCannotOpenWhatItsPublicKeySealsIsReplacedBeforeTheUserNamesIt)
{
    inspect::SetFaultyKeyPairs(2);
    ASSERT_EQ(S_OK, Enroll(kSid, kPassword));
    EXPECT_EQ(0u, FaultyKeyPairsLeft()); // both damaged pairs were made, and thrown away
    ExpectSealedSecretOpens(kSid);
}

TEST_F(NVStoreTest, ThreeDamagedKeyPairsInARowFailTheEnrolmentAndLeaveNoPairNamed)
{
    inspect::SetFaultyKeyPairs(3);
    EXPECT_EQ(NTE_BAD_KEY, Enroll(kSid, kPassword));
    EXPECT_EQ(0u, FaultyKeyPairsLeft());
    HRESULT hr = S_OK;
    EXPECT_TRUE(PublicKeyProperty(kSid, &hr).empty());
    EXPECT_EQ(NTE_NO_KEY, hr);
    EXPECT_FALSE(ContainerExists(std::wstring(nvstore::kContainerPrefix) + kSid));
    // The next enrolment makes a sound pair.
    ASSERT_EQ(S_OK, Enroll(kSid, kPassword));
    ExpectSealedSecretOpens(kSid);
}

TEST_F(NVStoreTest, SealedWithTheSecurityContextsProviderOpensWithTheUsersPrivateKey)
{
    // As the conversion does it: the machine's provider, the user's public key
    // imported into it, EncryptEx with 3DES, PutSecret.
    ContainerJanitor containers;
    containers.Create(kTestHostId);
    nvwriter::WriteHostId(kTestHostId, kView32);
    ASSERT_EQ(S_OK, Enroll(kSid, kPassword));
    HRESULT hr = E_FAIL;
    const Bytes publicKey = PublicKeyProperty(kSid, &hr);
    ASSERT_EQ(S_OK, hr);

    CFPSecurityContext context(KEY_WOW64_32KEY);
    HCRYPTPROV hProv = 0;
    ASSERT_EQ(S_OK, context.GetContext(&hProv));
    ASSERT_TRUE(::CryptContextAddRef(hProv, nullptr, 0));
    nv::unique_hcryptprov provider(hProv);
    nv::unique_hcryptkey userKey;
    ASSERT_TRUE(::CryptImportKey(hProv, publicKey.data(), static_cast<DWORD>(publicKey.size()), 0, 0, userKey.put()));

    nv::CCryptBlob blob;
    PackPassword(kPassword, blob);
    const Bytes packed(blob.pbData, blob.pbData + blob.cbData);
    ASSERT_EQ(S_OK, EncryptEx(blob, hProv, userKey.get(), CALG_3DES));
    ASSERT_EQ(S_OK, OpenAs<IUserSecrets>(kSid)->PutSecret(L"Primary", &blob));
    userKey.reset();

    Bytes opened;
    ASSERT_EQ(S_OK, inspect::OpenStoredSecret(kSid, L"Primary", &opened));
    EXPECT_EQ(packed, opened);
    // Sealed for the user, not for the machine: the machine's own key cannot open it.
    nv::unique_hcryptkey machineKey;
    ASSERT_TRUE(::CryptGetUserKey(hProv, AT_KEYEXCHANGE, machineKey.put()));
    CRYPT_SEQUENCE_OF_ANY* seq = nullptr;
    DWORD cbSeq = 0;
    ASSERT_TRUE(::CryptDecodeObjectEx(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, X509_SEQUENCE_OF_ANY, blob.pbData,
                                      blob.cbData, CRYPT_DECODE_ALLOC_FLAG, nullptr, &seq, &cbSeq));
    ASSERT_EQ(2u, seq->cValue);
    CRYPT_DATA_BLOB* keyItem = nullptr;
    DWORD cbKey = 0;
    ASSERT_TRUE(::CryptDecodeObjectEx(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, X509_OCTET_STRING,
                                      seq->rgValue[0].pbData, seq->rgValue[0].cbData, CRYPT_DECODE_ALLOC_FLAG, nullptr,
                                      &keyItem, &cbKey));
    nv::unique_hcryptkey session;
    EXPECT_FALSE(::CryptImportKey(hProv, keyItem->pbData, keyItem->cbData, machineKey.get(), 0, session.put()));
    ::LocalFree(keyItem);
    ::LocalFree(seq);
}

// ---- persistence -------------------------------------------------------------------

TEST_F(NVStoreTest, DataPersistsIntoAFreshProcess)
{
    ASSERT_EQ(S_OK, Enroll(kSid, kPassword));
    {
        nv::com_ptr<IUnknown> user = Open(kSid);
        nv::com_ptr<IUserSecrets> secrets;
        ASSERT_EQ(S_OK, user.query(secrets));
        nv::com_ptr<IUserTemplates> templates;
        ASSERT_EQ(S_OK, user.query(templates));
        nv::com_ptr<IUserPayload> payload;
        ASSERT_EQ(S_OK, user.query(payload));
        const Bytes s1{0xAB, 0xCD}, s2{0x01}, t{0x30, 0x00}, p{0xFE, 0xED};
        CRYPT_DATA_BLOB b1 = In(s1), b2 = In(s2), bt = In(t), bp = In(p);
        ASSERT_EQ(S_OK, secrets->PutSecret(L"Primary", &b1));
        ASSERT_EQ(S_OK, secrets->PutSecret(L"Alpha", &b2));
        ASSERT_EQ(S_OK, templates->PutTemplate(4, &bt));
        ASSERT_EQ(S_OK, payload->PutPayload(&bp));
        ASSERT_EQ(S_OK, Registry()->AddUser(payload.get()));
    }

    std::string out;
    const int rc = RunAndCapture(L"\"" + ExeDirectory() + L"nvstorectl.exe\" show " + kSid, &out);
    EXPECT_EQ(0, rc);
    Bytes key;
    ASSERT_TRUE(inspect::GetPublicKey(kSid, &key));
    std::ostringstream expected;
    expected << "user " << Narrow(kSid) << "\n"
             << "secret Alpha 01\n"
             << "secret Primary abcd\n"
             << "template 4 3000\n"
             << "payload feed\n"
             << "publickey " << key.size() << "\n"
             << "registered yes\n";
    EXPECT_EQ(expected.str(), WithoutCr(out));

    EXPECT_EQ(0, RunAndCapture(L"\"" + ExeDirectory() + L"nvstorectl.exe\" list", &out));
    EXPECT_EQ(Narrow(kSid) + "\n", WithoutCr(out));
    const ProcessRun authenticated = RunProcessWithInput(
        L"\"" + ExeDirectory() + L"nvstorectl.exe\" authenticate " + kSid, Narrow(kPassword) + "\r\n");
    EXPECT_EQ(0u, authenticated.exitCode) << authenticated.err;
    EXPECT_EQ("payload feed\nfailed 0\n", WithoutCr(authenticated.out));
}

TEST_F(NVStoreTest, DataWrittenByAnotherProcessIsSeenHere)
{
    const std::wstring ctl = L"\"" + ExeDirectory() + L"nvstorectl.exe\" ";
    std::string out;
    ASSERT_EQ(0u, RunProcessWithInput(ctl + L"enroll " + kSid2, "pass word\n").exitCode);
    ASSERT_EQ(0, RunAndCapture(ctl + L"put-secret " + kSid2 + L" Note 00ff10", &out));
    ASSERT_EQ(0, RunAndCapture(ctl + L"put-template " + kSid2 + L" 7 0102", &out));
    ASSERT_EQ(0, RunAndCapture(ctl + L"register " + kSid2, &out));
    EXPECT_EQ(1, RunAndCapture(ctl + L"put-template " + kSid2 + L" 32 0102", &out));
    EXPECT_EQ(2, RunAndCapture(ctl + L"show " + kSid, &out));

    nv::com_ptr<IUserSecrets> secrets = OpenAs<IUserSecrets>(kSid2);
    CRYPT_DATA_BLOB blob{};
    ASSERT_EQ(S_OK, secrets->GetSecret(L"Note", &blob));
    EXPECT_EQ((Bytes{0x00, 0xFF, 0x10}), Take(blob));
    EXPECT_EQ((std::map<DWORD, Bytes>{{7, {1, 2}}}), inspect::ListTemplates(kSid2));
    EXPECT_EQ(S_OK, Registry()->CheckUser(kSid2, 8));
    EXPECT_EQ(S_OK, Authenticate(kSid2, L"pass word").hr);
}

// A password on a command line can be read by every process of the machine while
// the tool runs: nvstorectl takes it from standard input only.
TEST_F(NVStoreTest, NvstorectlTakesThePasswordFromStandardInputNeverFromTheCommandLine)
{
    const std::wstring ctl = L"\"" + ExeDirectory() + L"nvstorectl.exe\" ";
    const ProcessRun onCommandLine = RunProcessWithInput(ctl + L"enroll " + kSid2 + L" pw", "pw\n");
    EXPECT_EQ(1u, onCommandLine.exitCode);
    EXPECT_NE(std::string::npos, onCommandLine.err.find("usage: nvstorectl")) << onCommandLine.err;
    EXPECT_TRUE(inspect::ListUsers().empty());

    const ProcessRun noInput = RunProcess(ctl + L"enroll " + kSid2);
    EXPECT_EQ(1u, noInput.exitCode);
    EXPECT_EQ("nvstorectl: the password is read from the first line of standard input\nerror 0x800700E8\n",
              WithoutCr(noInput.err));
    EXPECT_TRUE(inspect::ListUsers().empty());

    const ProcessRun enrolled = RunProcessWithInput(ctl + L"enroll " + kSid2, "p\xC3\xA4ss word\r\nnext line\n");
    ASSERT_EQ(0u, enrolled.exitCode) << enrolled.err;
    EXPECT_EQ(S_OK, Authenticate(kSid2, L"p\u00E4ss word").hr);

    const ProcessRun wrong = RunProcessWithInput(ctl + L"authenticate " + kSid2, "pass word\n");
    EXPECT_EQ(1u, wrong.exitCode);
    const ProcessRun right = RunProcessWithInput(ctl + L"authenticate " + kSid2, "p\xC3\xA4ss word\n");
    EXPECT_EQ(0u, right.exitCode) << right.err;
    EXPECT_EQ(0u, WithoutCr(right.out).rfind("payload ", 0)) << right.out;
}

TEST_F(NVStoreTest, DataSurvivesUnloadingTheServer)
{
    ASSERT_EQ(S_OK, Enroll(kSid, kPassword));
    {
        nv::com_ptr<IUserSecrets> secrets = OpenAs<IUserSecrets>(kSid);
        const Bytes s{0x42};
        CRYPT_DATA_BLOB b = In(s);
        ASSERT_EQ(S_OK, secrets->PutSecret(L"Kept", &b));
    }
    Bytes key;
    ASSERT_TRUE(inspect::GetPublicKey(kSid, &key));
    ASSERT_NE(nullptr, ::GetModuleHandleW(L"NVStore.dll"));
    ::CoFreeUnusedLibrariesEx(0, 0);
    ::CoUninitialize();
    EXPECT_EQ(nullptr, ::GetModuleHandleW(L"NVStore.dll"));
    ASSERT_EQ(S_OK, ::CoInitializeEx(nullptr, COINIT_MULTITHREADED));

    nv::com_ptr<IUserSecrets> secrets = OpenAs<IUserSecrets>(kSid);
    CRYPT_DATA_BLOB blob{};
    ASSERT_EQ(S_OK, secrets->GetSecret(L"Kept", &blob));
    EXPECT_EQ(Bytes{0x42}, Take(blob));
    HRESULT hr = E_FAIL;
    EXPECT_EQ(key, PublicKeyProperty(kSid, &hr));
    EXPECT_EQ(S_OK, hr);
    EXPECT_EQ(S_OK, Authenticate(kSid, kPassword).hr);
}

TEST_F(NVStoreTest, FreeThreadedObjectsServeSeveralThreadsAtOnce)
{
    nv::com_ptr<IUnknown> user = Open(kSid);
    nv::com_ptr<IUserSecrets> secrets;
    ASSERT_EQ(S_OK, user.query(secrets));
    // An object of a Both server created in this apartment is used directly by
    // threads of the multithreaded apartment (no marshalling is needed in-process
    // for a free-threaded object reached through its raw pointer).
    IUserSecrets* raw = secrets.get();
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([raw, t, &failures] {
            ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            for (int i = 0; i < 10; ++i) {
                const Bytes v{static_cast<BYTE>(t), static_cast<BYTE>(i)};
                CRYPT_DATA_BLOB b = In(v);
                const std::wstring name = L"T" + std::to_wstring(t) + L"-" + std::to_wstring(i);
                if (raw->PutSecret(name.c_str(), &b) != S_OK)
                    ++failures;
            }
            ::CoUninitialize();
        });
    }
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(0, failures.load());
    const auto all = inspect::ListSecrets(kSid);
    EXPECT_EQ(40u, all.size());
    EXPECT_EQ((Bytes{3, 9}), all.at(L"T3-9"));
}
