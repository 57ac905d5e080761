#include "store_boundary.h"

#include <objbase.h>
#include <set>
#include <type_traits>

#include "common/storecontract.h"
#include "fault_hooks.h"

namespace nvfaults {

namespace {

struct StoreError {
    const char* name;
    HRESULT hr;
};
constexpr StoreError kStoreErrors[] = {
    {"E_OUTOFMEMORY", E_OUTOFMEMORY},
    {"RPC_E_DISCONNECTED", RPC_E_DISCONNECTED},
    {"E_FAIL", E_FAIL},
};

// The live wrappers, so that one handed back to the store can be told from a real
// object; guarded because the store's objects are free threaded.
CRITICAL_SECTION g_lock;
std::set<const void*>* g_live = nullptr;

void EnsureLock()
{
    static INIT_ONCE once = INIT_ONCE_STATIC_INIT;
    InitOnceExecuteOnce(
        &once,
        [](PINIT_ONCE, PVOID, PVOID*) -> BOOL {
            InitializeCriticalSection(&g_lock);
            g_live = new std::set<const void*>();
            return TRUE;
        },
        nullptr, nullptr);
}

void Register(const void* wrapper)
{
    EnsureLock();
    EnterCriticalSection(&g_lock);
    g_live->insert(wrapper);
    LeaveCriticalSection(&g_lock);
}

void Unregister(const void* wrapper)
{
    EnterCriticalSection(&g_lock);
    g_live->erase(wrapper);
    LeaveCriticalSection(&g_lock);
}

bool IsLive(const void* p)
{
    EnsureLock();
    EnterCriticalSection(&g_lock);
    const bool live = g_live->count(p) != 0;
    LeaveCriticalSection(&g_lock);
    return live;
}

void WrapOut(REFIID riid, void** ppv);

template <class I>
class Wrapper : public I {
public:
    explicit Wrapper(I* real, const char* name) : m_real(real), m_name(name) { Register(this); }
    virtual ~Wrapper()
    {
        Unregister(this);
        m_real->Release();
    }
    Wrapper(const Wrapper&) = delete;
    Wrapper& operator=(const Wrapper&) = delete;

    I* Real() const { return m_real; }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override
    {
        if (Fails("QueryInterface", __builtin_return_address(0))) {
            if (ppv)
                *ppv = nullptr;
            return Settings().storeError;
        }
        if (!ppv)
            return E_POINTER;
        // The wrapper answers for its own interface; IUnknown of the user object too,
        // which the library holds as IUnknown.
        if (IsEqualIID(riid, __uuidof(I))) {
            AddRef();
            *ppv = static_cast<I*>(this);
            return S_OK;
        }
        const HRESULT hr = m_real->QueryInterface(riid, ppv);
        if (SUCCEEDED(hr))
            WrapOut(riid, ppv);
        return hr;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(InterlockedIncrement(&m_refs)); }
    ULONG STDMETHODCALLTYPE Release() override
    {
        const LONG refs = InterlockedDecrement(&m_refs);
        if (refs == 0)
            delete this;
        return static_cast<ULONG>(refs);
    }

protected:
    bool Fails(const char* method, void* returnAddress) const
    {
        return DecideCall(std::string("store!") + m_name + "::" + method, false,
                          reinterpret_cast<ULONG_PTR>(returnAddress));
    }

    I* const m_real;

private:
    const char* const m_name;
    LONG m_refs = 1;
};

// A method passed on to the real object unless the call is to fail.
#define NV_STORE_METHOD(Method, Params, Args)                                                                  \
    HRESULT STDMETHODCALLTYPE Method Params override                                                           \
    {                                                                                                          \
        if (Fails(#Method, __builtin_return_address(0)))                                                       \
            return Settings().storeError;                                                                      \
        return m_real->Method Args;                                                                            \
    }

// The user object, as OpenUser hands it out.
class UserObjectWrapper : public Wrapper<IUnknown> {
public:
    explicit UserObjectWrapper(IUnknown* real) : Wrapper(real, "IUnknown") {}
};

class ClassFactoryWrapper : public Wrapper<IClassFactory> {
public:
    explicit ClassFactoryWrapper(IClassFactory* real) : Wrapper(real, "IClassFactory") {}
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override
    {
        if (Fails("CreateInstance", __builtin_return_address(0))) {
            if (ppv)
                *ppv = nullptr;
            return Settings().storeError;
        }
        const HRESULT hr = m_real->CreateInstance(outer, riid, ppv);
        if (SUCCEEDED(hr) && ppv)
            WrapOut(riid, ppv);
        return hr;
    }
    NV_STORE_METHOD(LockServer, (BOOL lock), (lock))
};

class UserStoreWrapper : public Wrapper<IUserStore> {
public:
    explicit UserStoreWrapper(IUserStore* real) : Wrapper(real, "IUserStore") {}
    HRESULT STDMETHODCALLTYPE OpenUser(LPCWSTR id, DWORD kind, IUnknown** ppUser) override
    {
        if (Fails("OpenUser", __builtin_return_address(0))) {
            if (ppUser)
                *ppUser = nullptr;
            return Settings().storeError;
        }
        const HRESULT hr = m_real->OpenUser(id, kind, ppUser);
        if (SUCCEEDED(hr) && ppUser)
            WrapOut(IID_IUnknown, reinterpret_cast<void**>(ppUser));
        return hr;
    }
    NV_STORE_METHOD(UserExists, (LPCWSTR id, DWORD kind), (id, kind))
    NV_STORE_METHOD(DeleteUser, (LPCWSTR id, DWORD kind), (id, kind))
    NV_STORE_METHOD(EnumUsers, (DWORD index, BSTR* id, DWORD* kind), (index, id, kind))
};

class UserSecretsWrapper : public Wrapper<IUserSecrets> {
public:
    explicit UserSecretsWrapper(IUserSecrets* real) : Wrapper(real, "IUserSecrets") {}
    NV_STORE_METHOD(GetSecret, (LPCWSTR name, CRYPT_DATA_BLOB* secret), (name, secret))
    NV_STORE_METHOD(PutSecret, (LPCWSTR name, const CRYPT_DATA_BLOB* secret), (name, secret))
    NV_STORE_METHOD(DeleteSecret, (LPCWSTR name), (name))
    NV_STORE_METHOD(EnumSecrets, (DWORD index, BSTR* name), (index, name))
};

class UserPropertiesWrapper : public Wrapper<IUserProperties> {
public:
    explicit UserPropertiesWrapper(IUserProperties* real) : Wrapper(real, "IUserProperties") {}
    NV_STORE_METHOD(GetProperty, (LPCWSTR name, CRYPT_DATA_BLOB* value), (name, value))
    NV_STORE_METHOD(SetProperty, (LPCWSTR name, const CRYPT_DATA_BLOB* value), (name, value))
    NV_STORE_METHOD(DeleteProperty, (LPCWSTR name), (name))
    NV_STORE_METHOD(EnumProperties, (DWORD index, BSTR* name), (index, name))
};

class UserTemplatesWrapper : public Wrapper<IUserTemplates> {
public:
    explicit UserTemplatesWrapper(IUserTemplates* real) : Wrapper(real, "IUserTemplates") {}
    NV_STORE_METHOD(GetTemplate, (DWORD position, CRYPT_DATA_BLOB* t), (position, t))
    NV_STORE_METHOD(PutTemplate, (DWORD position, const CRYPT_DATA_BLOB* t), (position, t))
    NV_STORE_METHOD(DeleteTemplate, (DWORD position), (position))
    NV_STORE_METHOD(GetTemplateMask, (DWORD* mask), (mask))
};

class UserPayloadWrapper : public Wrapper<IUserPayload> {
public:
    explicit UserPayloadWrapper(IUserPayload* real) : Wrapper(real, "IUserPayload") {}
    NV_STORE_METHOD(GetPayload, (CRYPT_DATA_BLOB* payload), (payload))
    NV_STORE_METHOD(PutPayload, (const CRYPT_DATA_BLOB* payload), (payload))
    NV_STORE_METHOD(GetUserId, (BSTR* id, DWORD* kind), (id, kind))
    NV_STORE_METHOD(DeletePayload, (), ())
};

class StoreServiceWrapper : public Wrapper<IStoreService> {
public:
    explicit StoreServiceWrapper(IStoreService* real) : Wrapper(real, "IStoreService") {}
    NV_STORE_METHOD(GetVersion, (DWORD* version), (version))
    NV_STORE_METHOD(GetUserCount, (DWORD* count), (count))
};

class AuthServiceWrapper : public Wrapper<IAuthService> {
public:
    explicit AuthServiceWrapper(IAuthService* real) : Wrapper(real, "IAuthService") {}
    NV_STORE_METHOD(GetAuthTypeCount, (DWORD* count), (count))
    NV_STORE_METHOD(GetAuthType, (DWORD index, GUID* type), (index, type))
    NV_STORE_METHOD(IsEnrolled, (REFGUID type, LPCWSTR id, DWORD kind), (type, id, kind))
    NV_STORE_METHOD(VerifyAuthentication, (REFGUID type, LPCWSTR id, DWORD kind, const CRYPT_DATA_BLOB* info),
                    (type, id, kind, info))
    NV_STORE_METHOD(GetFailedCount, (REFGUID type, LPCWSTR id, DWORD kind, DWORD* count), (type, id, kind, count))
    NV_STORE_METHOD(Authenticate,
                    (REFGUID type, LPCWSTR id, DWORD kind, const CRYPT_DATA_BLOB* info, CRYPT_DATA_BLOB* payload,
                     DWORD* failed, CRYPT_DATA_BLOB* extra),
                    (type, id, kind, info, payload, failed, extra))
    NV_STORE_METHOD(ChangeAuthentication,
                    (REFGUID type, LPCWSTR id, DWORD kind, const CRYPT_DATA_BLOB* oldInfo,
                     const CRYPT_DATA_BLOB* newInfo),
                    (type, id, kind, oldInfo, newInfo))
    NV_STORE_METHOD(ResetFailedCount, (REFGUID type, LPCWSTR id, DWORD kind), (type, id, kind))
    NV_STORE_METHOD(RemoveAuthentication, (REFGUID type, LPCWSTR id, DWORD kind), (type, id, kind))
    NV_STORE_METHOD(EnumEnrolledTypes, (LPCWSTR id, DWORD kind, DWORD index, GUID* type), (id, kind, index, type))
    NV_STORE_METHOD(GetUserPublicKey, (LPCWSTR id, DWORD kind, CRYPT_DATA_BLOB* key), (id, kind, key))
    NV_STORE_METHOD(EnrollAuthentication,
                    (REFGUID type, LPCWSTR id, DWORD kind, const CRYPT_DATA_BLOB* payload,
                     const CRYPT_DATA_BLOB* info, CRYPT_DATA_BLOB* extra),
                    (type, id, kind, payload, info, extra))
};

class UserRegistryWrapper : public Wrapper<IUserRegistry> {
public:
    explicit UserRegistryWrapper(IUserRegistry* real) : Wrapper(real, "IUserRegistry") {}
    NV_STORE_METHOD(CheckUser, (LPCWSTR id, DWORD kind), (id, kind))
    NV_STORE_METHOD(EnumRegisteredUsers, (DWORD index, BSTR* id, DWORD* kind), (index, id, kind))
    HRESULT STDMETHODCALLTYPE AddUser(IUserPayload* payload) override
    {
        if (Fails("AddUser", __builtin_return_address(0)))
            return Settings().storeError;
        // The store asks the payload object whose it is: it gets its own object, and
        // that question is not one of the library's calls.
        IUserPayload* real = payload && IsLive(payload) ? static_cast<UserPayloadWrapper*>(payload)->Real() : payload;
        return m_real->AddUser(real);
    }
    NV_STORE_METHOD(RemoveUser, (LPCWSTR id, DWORD kind), (id, kind))
};

#undef NV_STORE_METHOD

template <class W, class I>
void Replace(void** ppv)
{
    I* real = static_cast<I*>(*ppv);
    *ppv = static_cast<I*>(new W(real));
}

// Replaces the interface pointer that a successful call put in *ppv by a wrapper
// that takes over its reference. An interface the library does not use is left as
// it is.
void WrapOut(REFIID riid, void** ppv)
{
    if (!ppv || !*ppv)
        return;
    if (IsEqualIID(riid, IID_IUnknown))
        Replace<UserObjectWrapper, IUnknown>(ppv);
    else if (IsEqualIID(riid, IID_IClassFactory))
        Replace<ClassFactoryWrapper, IClassFactory>(ppv);
    else if (IsEqualIID(riid, __uuidof(IUserStore)))
        Replace<UserStoreWrapper, IUserStore>(ppv);
    else if (IsEqualIID(riid, __uuidof(IUserSecrets)))
        Replace<UserSecretsWrapper, IUserSecrets>(ppv);
    else if (IsEqualIID(riid, __uuidof(IUserProperties)))
        Replace<UserPropertiesWrapper, IUserProperties>(ppv);
    else if (IsEqualIID(riid, __uuidof(IUserTemplates)))
        Replace<UserTemplatesWrapper, IUserTemplates>(ppv);
    else if (IsEqualIID(riid, __uuidof(IUserPayload)))
        Replace<UserPayloadWrapper, IUserPayload>(ppv);
    else if (IsEqualIID(riid, __uuidof(IStoreService)))
        Replace<StoreServiceWrapper, IStoreService>(ppv);
    else if (IsEqualIID(riid, __uuidof(IAuthService)))
        Replace<AuthServiceWrapper, IAuthService>(ppv);
    else if (IsEqualIID(riid, __uuidof(IUserRegistry)))
        Replace<UserRegistryWrapper, IUserRegistry>(ppv);
}

using CoGetClassObjectFn = HRESULT(WINAPI*)(REFCLSID, DWORD, COSERVERINFO*, REFIID, void**);
using CoCreateInstanceFn = HRESULT(WINAPI*)(REFCLSID, IUnknown*, DWORD, REFIID, void**);
CoGetClassObjectFn g_coGetClassObject = nullptr;
CoCreateInstanceFn g_coCreateInstance = nullptr;

HRESULT WINAPI StoreCoGetClassObject(REFCLSID clsid, DWORD context, COSERVERINFO* server, REFIID riid, void** ppv)
{
    const HRESULT hr = g_coGetClassObject(clsid, context, server, riid, ppv);
    if (SUCCEEDED(hr) && Armed() && IsEqualCLSID(clsid, nvstore::kClsidUserStore))
        WrapOut(riid, ppv);
    return hr;
}

HRESULT WINAPI StoreCoCreateInstance(REFCLSID clsid, IUnknown* outer, DWORD context, REFIID riid, void** ppv)
{
    const HRESULT hr = g_coCreateInstance(clsid, outer, context, riid, ppv);
    if (SUCCEEDED(hr) && Armed() && IsEqualCLSID(clsid, nvstore::kClsidUserStore))
        WrapOut(riid, ppv);
    return hr;
}

} // namespace

void* StoreBoundaryEntry(const std::string& import, void* original)
{
    if (import == "ole32.dll!CoGetClassObject") {
        g_coGetClassObject = reinterpret_cast<CoGetClassObjectFn>(original);
        return reinterpret_cast<void*>(&StoreCoGetClassObject);
    }
    if (import == "ole32.dll!CoCreateInstance") {
        g_coCreateInstance = reinterpret_cast<CoCreateInstanceFn>(original);
        return reinterpret_cast<void*>(&StoreCoCreateInstance);
    }
    return original;
}

bool IsStoreCall(const std::string& function) { return function.rfind("store!", 0) == 0; }

const std::vector<std::string>& StoreErrorNames()
{
    static const std::vector<std::string> names = [] {
        std::vector<std::string> v;
        for (const StoreError& e : kStoreErrors)
            v.push_back(e.name);
        return v;
    }();
    return names;
}

bool ParseStoreError(const std::string& name, HRESULT* hr)
{
    for (const StoreError& e : kStoreErrors)
        if (name == e.name) {
            *hr = e.hr;
            return true;
        }
    return false;
}

std::vector<std::string> StoreMethods()
{
    static const struct {
        const char* iface;
        std::vector<const char*> methods;
    } kInterfaces[] = {
        {"IClassFactory", {"QueryInterface", "CreateInstance", "LockServer"}},
        {"IUserStore", {"QueryInterface", "OpenUser", "UserExists", "DeleteUser", "EnumUsers"}},
        {"IUnknown", {"QueryInterface"}},
        {"IUserSecrets", {"QueryInterface", "GetSecret", "PutSecret", "DeleteSecret", "EnumSecrets"}},
        {"IUserProperties", {"QueryInterface", "GetProperty", "SetProperty", "DeleteProperty", "EnumProperties"}},
        {"IUserTemplates", {"QueryInterface", "GetTemplate", "PutTemplate", "DeleteTemplate", "GetTemplateMask"}},
        {"IUserPayload", {"QueryInterface", "GetPayload", "PutPayload", "GetUserId", "DeletePayload"}},
        {"IStoreService", {"QueryInterface", "GetVersion", "GetUserCount"}},
        {"IAuthService",
         {"QueryInterface", "GetAuthTypeCount", "GetAuthType", "IsEnrolled", "VerifyAuthentication", "GetFailedCount",
          "Authenticate", "ChangeAuthentication", "ResetFailedCount", "RemoveAuthentication", "EnumEnrolledTypes",
          "GetUserPublicKey", "EnrollAuthentication"}},
        {"IUserRegistry", {"QueryInterface", "CheckUser", "EnumRegisteredUsers", "AddUser", "RemoveUser"}},
    };
    std::vector<std::string> out;
    for (const auto& i : kInterfaces)
        for (const char* m : i.methods)
            out.push_back(std::string("store!") + i.iface + "::" + m);
    return out;
}

long LiveStoreWrappers()
{
    EnsureLock();
    EnterCriticalSection(&g_lock);
    const long n = static_cast<long>(g_live->size());
    LeaveCriticalSection(&g_lock);
    return n;
}

} // namespace nvfaults
