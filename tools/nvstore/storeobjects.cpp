#include "storeobjects.h"

#include <cstring>
#include <cwchar>
#include <mutex>
#include <string>
#include <vector>
#include "common/handles.h"
#include "common/hresult.h"
#include "storecounters.h"
#include "storedata.h"
#include "storelayout.h"

namespace nvstore {

std::atomic<long> g_moduleCount{0};

namespace {

const HRESULT kNotFound = HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
const HRESULT kNotSupported = HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);
constexpr DWORD kMaxPosition = 31;

std::mutex& StoreLock()
{
    static std::mutex lock;
    return lock;
}

// One operation: under the store lock, with failures turned into result codes.
template <class Body>
HRESULT Locked(Body&& body) noexcept
{
    COperationTimer timer;
    return nv::Guarded([&]() -> HRESULT {
        std::lock_guard<std::mutex> guard(StoreLock());
        return body();
    });
}

// Wide characters zeroed before they are freed.
class SecureChars {
public:
    SecureChars() = default;
    SecureChars(const SecureChars&) = delete;
    SecureChars& operator=(const SecureChars&) = delete;
    ~SecureChars()
    {
        if (!m_chars.empty())
            ::SecureZeroMemory(m_chars.data(), m_chars.size() * sizeof(wchar_t));
    }
    void Assign(const BYTE* p, size_t cch)
    {
        m_chars.resize(cch);
        if (cch)
            std::memcpy(m_chars.data(), p, cch * sizeof(wchar_t));
    }
    const wchar_t* data() const noexcept { return m_chars.data(); }
    size_t size() const noexcept { return m_chars.size(); }
    bool operator==(const SecureChars& o) const noexcept
    {
        return m_chars.size() == o.m_chars.size() &&
               (m_chars.empty() || std::memcmp(m_chars.data(), o.m_chars.data(), m_chars.size() * 2) == 0);
    }

private:
    std::vector<wchar_t> m_chars;
};

// Reads the password authentication info by the places of its strings: the first
// at byte 40, the second at byte 40 + the first's maximum length. The pointers in
// the header are the sender's and are never followed.
void ParsePasswordAuthInfo(const CRYPT_DATA_BLOB* pInfo, SecureChars& first, SecureChars& second)
{
    if (!pInfo || !pInfo->pbData || pInfo->cbData < kPasswordAuthHeaderSize)
        nv::ThrowHr(E_INVALIDARG);
    NV_PASSWORD_AUTH_HEADER header;
    std::memcpy(&header, pInfo->pbData, sizeof(header));
    if (header.dwKind != kPasswordAuthKind)
        nv::ThrowHr(E_INVALIDARG);
    auto take = [&](const NV_AUTH_STRING& s, DWORD offset, SecureChars& out) {
        if ((s.Length % sizeof(wchar_t)) != 0 || s.MaximumLength < s.Length + sizeof(wchar_t) ||
            offset > pInfo->cbData || s.MaximumLength > pInfo->cbData - offset)
            nv::ThrowHr(E_INVALIDARG);
        const BYTE* p = pInfo->pbData + offset;
        if (p[s.Length] != 0 || p[s.Length + 1] != 0)
            nv::ThrowHr(E_INVALIDARG);
        out.Assign(p, s.Length / sizeof(wchar_t));
    };
    take(header.first, kPasswordAuthHeaderSize, first);
    take(header.second, kPasswordAuthHeaderSize + header.first.MaximumLength, second);
    ::SecureZeroMemory(&header, sizeof(header));
}

void CheckAuthType(REFGUID authType)
{
    if (!IsEqualGUID(authType, kAuthTypePassword))
        nv::ThrowHr(kNotSupported);
}

// A task-allocated copy for the caller; empty data gives the empty blob.
struct TaskBlob {
    BYTE* p = nullptr;
    DWORD cb = 0;
    TaskBlob() = default;
    TaskBlob(const BYTE* data, size_t n)
    {
        if (n == 0)
            return;
        p = static_cast<BYTE*>(::CoTaskMemAlloc(n));
        if (!p)
            nv::ThrowHr(E_OUTOFMEMORY);
        std::memcpy(p, data, n);
        cb = static_cast<DWORD>(n);
    }
    TaskBlob(const TaskBlob&) = delete;
    TaskBlob& operator=(const TaskBlob&) = delete;
    ~TaskBlob()
    {
        if (p) {
            ::SecureZeroMemory(p, cb);
            ::CoTaskMemFree(p);
        }
    }
    void HandOut(CRYPT_DATA_BLOB* out) noexcept
    {
        out->cbData = cb;
        out->pbData = p;
        p = nullptr;
        cb = 0;
    }
};

BSTR AllocBstr(const std::wstring& s)
{
    BSTR b = ::SysAllocStringLen(s.data(), static_cast<UINT>(s.size()));
    if (!b)
        nv::ThrowHr(E_OUTOFMEMORY);
    return b;
}

void CheckInBlob(const CRYPT_DATA_BLOB* p)
{
    if (!p || (p->cbData && !p->pbData))
        nv::ThrowHr(E_INVALIDARG);
}

std::wstring PositionName(DWORD position) { return std::to_wstring(position); }

void RequireUser(const std::wstring& sid)
{
    if (!nvstore::UserExists(sid))
        nv::ThrowHr(kNotFound);
}

bool IsPublicKeyProperty(LPCWSTR name) { return ::_wcsicmp(name, kPropertyUserPublicKey) == 0; }

} // namespace

namespace {

// Whether a test behaviour leaves an interface offered; a behaviour that cannot be
// read switches nothing off.
bool Offered(bool Behaviours::*switchedOff)
{
    bool offered = true;
    nv::Guarded([&]() -> HRESULT {
        offered = !(ReadBehaviours().*switchedOff);
        return S_OK;
    });
    return offered;
}

} // namespace

// ---- CStoreObject ---------------------------------------------------------------

CStoreObject::CStoreObject() noexcept { ++g_moduleCount; }
CStoreObject::~CStoreObject() { --g_moduleCount; }

HRESULT CStoreObject::QueryInterface(REFIID riid, void** ppv)
{
    // Counted as the store's own time: offering some interfaces reads the test
    // behaviours from the registry.
    COperationTimer timer;
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, kIidUserStore)) {
        *ppv = static_cast<IUserStore*>(this);
    } else if (IsEqualIID(riid, kIidStoreService)) {
        *ppv = static_cast<IStoreService*>(this);
    } else if (IsEqualIID(riid, kIidUserRegistry)) {
        if (!Offered(&Behaviours::noUserRegistry))
            return E_NOINTERFACE;
        *ppv = static_cast<IUserRegistry*>(this);
    } else if (IsEqualIID(riid, kIidAuthService)) {
        if (!Offered(&Behaviours::noAuthService))
            return E_NOINTERFACE;
        *ppv = static_cast<IAuthService*>(this);
    } else {
        return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
}

ULONG CStoreObject::AddRef() { return ++m_refs; }

ULONG CStoreObject::Release()
{
    COperationTimer timer;
    const ULONG n = --m_refs;
    if (n == 0)
        delete this;
    return n;
}

HRESULT CStoreObject::OpenUser(LPCWSTR pwszUserId, DWORD dwIdKind, IUnknown** ppUser)
{
    return Locked([&]() -> HRESULT {
        if (!ppUser)
            return E_POINTER;
        const std::wstring sid = CanonicalUserId(pwszUserId, dwIdKind);
        const Behaviours b = ReadBehaviours();
        if (ListNames(b.failOpenUser, sid))
            return b.failOpenUserResult;
        CreateUser(sid);
        if (ListNames(b.existingPublicKey, sid) && !HasKeyPair(sid)) {
            CreateKeyPair(sid);
            Bytes payload;
            if (!ReadBinary(UserKeyPath(sid), kPayloadValue, &payload)) {
                SecureBytes fresh;
                MakePayload(fresh);
                WriteBinary(UserKeyPath(sid), kPayloadValue, fresh.data(), static_cast<DWORD>(fresh.size()));
            }
        }
        auto* user = new CUserObject(sid);
        *ppUser = static_cast<IUserSecrets*>(user);
        return S_OK;
    });
}

HRESULT CStoreObject::UserExists(LPCWSTR pwszUserId, DWORD dwIdKind)
{
    return Locked([&]() -> HRESULT {
        return nvstore::UserExists(CanonicalUserId(pwszUserId, dwIdKind)) ? S_OK : S_FALSE;
    });
}

HRESULT CStoreObject::DeleteUser(LPCWSTR pwszUserId, DWORD dwIdKind)
{
    return Locked([&]() -> HRESULT {
        return nvstore::DeleteUser(CanonicalUserId(pwszUserId, dwIdKind)) ? S_OK : S_FALSE;
    });
}

HRESULT CStoreObject::EnumUsers(DWORD dwIndex, BSTR* pbstrUserId, DWORD* pdwIdKind)
{
    return Locked([&]() -> HRESULT {
        if (!pbstrUserId || !pdwIdKind)
            return E_POINTER;
        const std::vector<std::wstring> users = ListUsers();
        if (dwIndex >= users.size())
            return S_FALSE;
        *pbstrUserId = AllocBstr(users[dwIndex]);
        *pdwIdKind = kUserIdKindSid;
        return S_OK;
    });
}

HRESULT CStoreObject::GetVersion(DWORD* pdwVersion)
{
    if (!pdwVersion)
        return E_POINTER;
    *pdwVersion = kStoreLayoutVersion;
    return S_OK;
}

HRESULT CStoreObject::GetUserCount(DWORD* pdwCount)
{
    return Locked([&]() -> HRESULT {
        if (!pdwCount)
            return E_POINTER;
        *pdwCount = static_cast<DWORD>(ListUsers().size());
        return S_OK;
    });
}

HRESULT CStoreObject::GetAuthTypeCount(DWORD* pdwCount)
{
    if (!pdwCount)
        return E_POINTER;
    *pdwCount = 1;
    return S_OK;
}

HRESULT CStoreObject::GetAuthType(DWORD dwIndex, GUID* pAuthType)
{
    if (!pAuthType)
        return E_POINTER;
    if (dwIndex > 0)
        return S_FALSE;
    *pAuthType = kAuthTypePassword;
    return S_OK;
}

HRESULT CStoreObject::IsEnrolled(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind)
{
    return Locked([&]() -> HRESULT {
        CheckAuthType(authType);
        return HasPassword(CanonicalUserId(pwszUserId, dwIdKind)) ? S_OK : S_FALSE;
    });
}

namespace {

// Checks a password against the user's verifier; a mismatch is counted.
HRESULT CheckPassword(const std::wstring& sid, const SecureChars& password)
{
    if (!nvstore::UserExists(sid) || !HasPassword(sid))
        return kStoreNotEnrolled;
    if (!PasswordMatches(sid, password.data(), password.size())) {
        DWORD failed = 0;
        ReadDword(UserKeyPath(sid), kFailedCountValue, &failed);
        WriteDword(UserKeyPath(sid), kFailedCountValue, failed + 1);
        return kStoreWrongPassword;
    }
    return S_OK;
}

} // namespace

HRESULT CStoreObject::VerifyAuthentication(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind,
                                           const CRYPT_DATA_BLOB* pAuthInfo)
{
    return Locked([&]() -> HRESULT {
        CheckAuthType(authType);
        const std::wstring sid = CanonicalUserId(pwszUserId, dwIdKind);
        SecureChars password, confirmation;
        ParsePasswordAuthInfo(pAuthInfo, password, confirmation);
        return CheckPassword(sid, password);
    });
}

HRESULT CStoreObject::GetFailedCount(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind, DWORD* pdwCount)
{
    return Locked([&]() -> HRESULT {
        CheckAuthType(authType);
        if (!pdwCount)
            return E_POINTER;
        const std::wstring sid = CanonicalUserId(pwszUserId, dwIdKind);
        if (!nvstore::UserExists(sid))
            return kStoreNotEnrolled;
        DWORD failed = 0;
        ReadDword(UserKeyPath(sid), kFailedCountValue, &failed);
        *pdwCount = failed;
        return S_OK;
    });
}

HRESULT CStoreObject::Authenticate(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind,
                                   const CRYPT_DATA_BLOB* pAuthInfo, CRYPT_DATA_BLOB* pPayload, DWORD* pdwFailedCount,
                                   CRYPT_DATA_BLOB* pExtra)
{
    return Locked([&]() -> HRESULT {
        CheckAuthType(authType);
        if (!pPayload || !pdwFailedCount || !pExtra)
            return E_POINTER;
        const std::wstring sid = CanonicalUserId(pwszUserId, dwIdKind);
        SecureChars password, confirmation;
        ParsePasswordAuthInfo(pAuthInfo, password, confirmation);
        if (!nvstore::UserExists(sid))
            return kStoreNotEnrolled;
        if (!HasPassword(sid)) {
            // A provisioned account (key pair, no password) takes the first password.
            if (!HasKeyPair(sid))
                return kStoreNotEnrolled;
            SetPassword(sid, password.data(), password.size());
        } else {
            const HRESULT hr = CheckPassword(sid, password);
            if (hr != S_OK)
                return hr;
        }
        DWORD failed = 0;
        ReadDword(UserKeyPath(sid), kFailedCountValue, &failed);

        SecureBytes payload;
        ReadBinary(UserKeyPath(sid), kPayloadValue, &payload.vec());
        Bytes publicKey;
        ExportPublicKey(sid, &publicKey);
        TaskBlob payloadOut(payload.data(), payload.size());
        TaskBlob extraOut(publicKey.data(), publicKey.size());

        WriteDword(UserKeyPath(sid), kFailedCountValue, 0);
        payloadOut.HandOut(pPayload);
        extraOut.HandOut(pExtra);
        *pdwFailedCount = failed;
        return S_OK;
    });
}

HRESULT CStoreObject::ChangeAuthentication(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind,
                                           const CRYPT_DATA_BLOB* pOldAuthInfo, const CRYPT_DATA_BLOB* pNewAuthInfo)
{
    return Locked([&]() -> HRESULT {
        CheckAuthType(authType);
        const std::wstring sid = CanonicalUserId(pwszUserId, dwIdKind);
        SecureChars oldPassword, oldConfirmation, newPassword, newConfirmation;
        ParsePasswordAuthInfo(pOldAuthInfo, oldPassword, oldConfirmation);
        ParsePasswordAuthInfo(pNewAuthInfo, newPassword, newConfirmation);
        if (!(newPassword == newConfirmation))
            return E_INVALIDARG;
        const HRESULT hr = CheckPassword(sid, oldPassword);
        if (hr != S_OK)
            return hr;
        SetPassword(sid, newPassword.data(), newPassword.size());
        WriteDword(UserKeyPath(sid), kFailedCountValue, 0);
        return S_OK;
    });
}

HRESULT CStoreObject::ResetFailedCount(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind)
{
    return Locked([&]() -> HRESULT {
        CheckAuthType(authType);
        const std::wstring sid = CanonicalUserId(pwszUserId, dwIdKind);
        if (!nvstore::UserExists(sid))
            return kStoreNotEnrolled;
        WriteDword(UserKeyPath(sid), kFailedCountValue, 0);
        return S_OK;
    });
}

HRESULT CStoreObject::RemoveAuthentication(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind)
{
    return Locked([&]() -> HRESULT {
        CheckAuthType(authType);
        const std::wstring sid = CanonicalUserId(pwszUserId, dwIdKind);
        if (!HasPassword(sid))
            return S_FALSE;
        ClearPassword(sid);
        return S_OK;
    });
}

HRESULT CStoreObject::EnumEnrolledTypes(LPCWSTR pwszUserId, DWORD dwIdKind, DWORD dwIndex, GUID* pAuthType)
{
    return Locked([&]() -> HRESULT {
        if (!pAuthType)
            return E_POINTER;
        const std::wstring sid = CanonicalUserId(pwszUserId, dwIdKind);
        if (dwIndex > 0 || !HasPassword(sid))
            return S_FALSE;
        *pAuthType = kAuthTypePassword;
        return S_OK;
    });
}

HRESULT CStoreObject::GetUserPublicKey(LPCWSTR pwszUserId, DWORD dwIdKind, CRYPT_DATA_BLOB* pPublicKey)
{
    return Locked([&]() -> HRESULT {
        if (!pPublicKey)
            return E_POINTER;
        Bytes key;
        if (!ExportPublicKey(CanonicalUserId(pwszUserId, dwIdKind), &key))
            return NTE_NO_KEY;
        TaskBlob(key.data(), key.size()).HandOut(pPublicKey);
        return S_OK;
    });
}

HRESULT CStoreObject::EnrollAuthentication(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind,
                                           const CRYPT_DATA_BLOB* pPayload, const CRYPT_DATA_BLOB* pAuthInfo,
                                           CRYPT_DATA_BLOB* pExtra)
{
    return Locked([&]() -> HRESULT {
        CheckAuthType(authType);
        if (!pExtra)
            return E_POINTER;
        if (pPayload)
            CheckInBlob(pPayload);
        const std::wstring sid = CanonicalUserId(pwszUserId, dwIdKind);
        SecureChars password, confirmation;
        ParsePasswordAuthInfo(pAuthInfo, password, confirmation);
        if (!(password == confirmation))
            return E_INVALIDARG;

        CreateUser(sid);
        if (!HasKeyPair(sid))
            CreateKeyPair(sid);
        // The payload before the password: a user with a password always has a
        // payload, whenever the process may stop. One without a password takes the
        // first one at Authenticate, as a provisioned account does.
        const std::wstring path = UserKeyPath(sid);
        if (pPayload && pPayload->cbData) {
            WriteBinary(path, kPayloadValue, pPayload->pbData, pPayload->cbData);
        } else {
            Bytes existing;
            if (!ReadBinary(path, kPayloadValue, &existing)) {
                SecureBytes fresh;
                MakePayload(fresh);
                WriteBinary(path, kPayloadValue, fresh.data(), static_cast<DWORD>(fresh.size()));
            }
            ::SecureZeroMemory(existing.data(), existing.size());
        }
        StopIfAsked(kStagePayloadWritten);
        SetPassword(sid, password.data(), password.size());
        WriteDword(path, kFailedCountValue, 0);

        Bytes publicKey;
        if (!ExportPublicKey(sid, &publicKey))
            return NTE_NO_KEY;
        TaskBlob(publicKey.data(), publicKey.size()).HandOut(pExtra);
        return S_OK;
    });
}

HRESULT CStoreObject::CheckUser(LPCWSTR pwszUserId, DWORD dwIdKind)
{
    return Locked([&]() -> HRESULT {
        const std::wstring sid = CanonicalUserId(pwszUserId, dwIdKind);
        const Behaviours b = ReadBehaviours();
        if (FAILED(b.failCheckUser))
            return b.failCheckUser;
        if (ListNames(b.alreadyRegistered, sid))
            return S_OK;
        return IsRegistered(sid) ? S_OK : S_FALSE;
    });
}

HRESULT CStoreObject::EnumRegisteredUsers(DWORD dwIndex, BSTR* pbstrUserId, DWORD* pdwIdKind)
{
    return Locked([&]() -> HRESULT {
        if (!pbstrUserId || !pdwIdKind)
            return E_POINTER;
        const std::vector<std::wstring> users = ListRegistered();
        if (dwIndex >= users.size())
            return S_FALSE;
        *pbstrUserId = AllocBstr(users[dwIndex]);
        *pdwIdKind = kUserIdKindSid;
        return S_OK;
    });
}

HRESULT CStoreObject::AddUser(IUserPayload* pPayload)
{
    if (!pPayload)
        return E_POINTER;
    HRESULT failure = S_OK;
    nv::Guarded([&]() -> HRESULT {
        failure = ReadBehaviours().failAddUser;
        return S_OK;
    });
    if (FAILED(failure))
        return failure;
    // Ask the payload object for its user before taking the lock: it may be a
    // user object of this store, whose operations take the same lock.
    BSTR raw = nullptr;
    DWORD kind = 0;
    HRESULT hr = pPayload->GetUserId(&raw, &kind);
    if (FAILED(hr))
        return hr;
    nv::unique_bstr id(raw);
    return Locked([&]() -> HRESULT { return Register(CanonicalUserId(id.get(), kind)) ? S_OK : S_FALSE; });
}

HRESULT CStoreObject::RemoveUser(LPCWSTR pwszUserId, DWORD dwIdKind)
{
    return Locked([&]() -> HRESULT { return Unregister(CanonicalUserId(pwszUserId, dwIdKind)) ? S_OK : S_FALSE; });
}

// ---- CUserObject ----------------------------------------------------------------

CUserObject::CUserObject(const std::wstring& sid) : m_sid(sid) { ++g_moduleCount; }
CUserObject::~CUserObject() { --g_moduleCount; }

HRESULT CUserObject::QueryInterface(REFIID riid, void** ppv)
{
    // Counted as the store's own time: offering some interfaces reads the test
    // behaviours from the registry.
    COperationTimer timer;
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    if (IsEqualIID(riid, IID_IUnknown)) {
        *ppv = static_cast<IUserSecrets*>(this);
    } else if (IsEqualIID(riid, __uuidof(IUserSecrets))) {
        if (!Offered(&Behaviours::noUserSecrets))
            return E_NOINTERFACE;
        *ppv = static_cast<IUserSecrets*>(this);
    } else if (IsEqualIID(riid, __uuidof(IUserTemplates))) {
        if (!Offered(&Behaviours::noUserTemplates))
            return E_NOINTERFACE;
        *ppv = static_cast<IUserTemplates*>(this);
    } else if (IsEqualIID(riid, __uuidof(IUserPayload))) {
        if (!Offered(&Behaviours::noUserPayload))
            return E_NOINTERFACE;
        *ppv = static_cast<IUserPayload*>(this);
    } else if (IsEqualIID(riid, __uuidof(IUserProperties))) {
        if (!Offered(&Behaviours::noUserProperties))
            return E_NOINTERFACE;
        *ppv = static_cast<IUserProperties*>(this);
    } else {
        return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
}

ULONG CUserObject::AddRef() { return ++m_refs; }

ULONG CUserObject::Release()
{
    COperationTimer timer;
    const ULONG n = --m_refs;
    if (n == 0)
        delete this;
    return n;
}

HRESULT CUserObject::GetSecret(LPCWSTR pwszName, CRYPT_DATA_BLOB* pSecret)
{
    return Locked([&]() -> HRESULT {
        if (!pwszName)
            return E_INVALIDARG;
        if (!pSecret)
            return E_POINTER;
        SecureBytes data;
        if (!ReadBinary(UserSubkeyPath(m_sid, kSecretsSubkey), pwszName, &data.vec()))
            return kNotFound;
        TaskBlob(data.data(), data.size()).HandOut(pSecret);
        return S_OK;
    });
}

HRESULT CUserObject::PutSecret(LPCWSTR pwszName, const CRYPT_DATA_BLOB* pSecret)
{
    return Locked([&]() -> HRESULT {
        if (!pwszName)
            return E_INVALIDARG;
        CheckInBlob(pSecret);
        RequireUser(m_sid);
        const Behaviours b = ReadBehaviours();
        if (ListNames(b.failPutSecret, pwszName))
            return b.failPutSecretResult;
        WriteBinary(UserSubkeyPath(m_sid, kSecretsSubkey), pwszName, pSecret->pbData, pSecret->cbData);
        StopIfAsked(kStageSecretStored);
        return S_OK;
    });
}

HRESULT CUserObject::DeleteSecret(LPCWSTR pwszName)
{
    return Locked([&]() -> HRESULT {
        if (!pwszName)
            return E_INVALIDARG;
        return DeleteValue(UserSubkeyPath(m_sid, kSecretsSubkey), pwszName) ? S_OK : S_FALSE;
    });
}

HRESULT CUserObject::EnumSecrets(DWORD dwIndex, BSTR* pbstrName)
{
    return Locked([&]() -> HRESULT {
        if (!pbstrName)
            return E_POINTER;
        const std::vector<std::wstring> names = ValueNames(UserSubkeyPath(m_sid, kSecretsSubkey));
        if (dwIndex >= names.size())
            return S_FALSE;
        *pbstrName = AllocBstr(names[dwIndex]);
        return S_OK;
    });
}

HRESULT CUserObject::GetProperty(LPCWSTR pwszName, CRYPT_DATA_BLOB* pValue)
{
    return Locked([&]() -> HRESULT {
        if (!pwszName)
            return E_INVALIDARG;
        if (!pValue)
            return E_POINTER;
        Bytes data;
        if (IsPublicKeyProperty(pwszName)) {
            if (!ExportPublicKey(m_sid, &data))
                return NTE_NO_KEY;
        } else if (!ReadBinary(UserSubkeyPath(m_sid, kPropertiesSubkey), pwszName, &data)) {
            return kNotFound;
        }
        TaskBlob(data.data(), data.size()).HandOut(pValue);
        return S_OK;
    });
}

HRESULT CUserObject::SetProperty(LPCWSTR pwszName, const CRYPT_DATA_BLOB* pValue)
{
    return Locked([&]() -> HRESULT {
        if (!pwszName)
            return E_INVALIDARG;
        if (IsPublicKeyProperty(pwszName))
            return E_ACCESSDENIED;
        CheckInBlob(pValue);
        RequireUser(m_sid);
        WriteBinary(UserSubkeyPath(m_sid, kPropertiesSubkey), pwszName, pValue->pbData, pValue->cbData);
        return S_OK;
    });
}

HRESULT CUserObject::DeleteProperty(LPCWSTR pwszName)
{
    return Locked([&]() -> HRESULT {
        if (!pwszName)
            return E_INVALIDARG;
        if (IsPublicKeyProperty(pwszName))
            return E_ACCESSDENIED;
        return DeleteValue(UserSubkeyPath(m_sid, kPropertiesSubkey), pwszName) ? S_OK : S_FALSE;
    });
}

HRESULT CUserObject::EnumProperties(DWORD dwIndex, BSTR* pbstrName)
{
    return Locked([&]() -> HRESULT {
        if (!pbstrName)
            return E_POINTER;
        std::vector<std::wstring> names;
        if (HasKeyPair(m_sid))
            names.emplace_back(kPropertyUserPublicKey);
        for (const std::wstring& n : ValueNames(UserSubkeyPath(m_sid, kPropertiesSubkey)))
            names.push_back(n);
        if (dwIndex >= names.size())
            return S_FALSE;
        *pbstrName = AllocBstr(names[dwIndex]);
        return S_OK;
    });
}

HRESULT CUserObject::GetTemplate(DWORD dwPosition, CRYPT_DATA_BLOB* pTemplate)
{
    return Locked([&]() -> HRESULT {
        if (dwPosition > kMaxPosition)
            return E_INVALIDARG;
        if (!pTemplate)
            return E_POINTER;
        Bytes data;
        if (!ReadBinary(UserSubkeyPath(m_sid, kTemplatesSubkey), PositionName(dwPosition).c_str(), &data))
            return kNotFound;
        TaskBlob(data.data(), data.size()).HandOut(pTemplate);
        return S_OK;
    });
}

HRESULT CUserObject::PutTemplate(DWORD dwPosition, const CRYPT_DATA_BLOB* pTemplate)
{
    return Locked([&]() -> HRESULT {
        const Behaviours b = ReadBehaviours();
        if (b.failPutTemplate && b.failPutTemplateAt == dwPosition)
            return b.failPutTemplateResult;
        if (dwPosition > kMaxPosition || !pTemplate || !pTemplate->cbData || !pTemplate->pbData)
            return E_INVALIDARG;
        RequireUser(m_sid);
        WriteBinary(UserSubkeyPath(m_sid, kTemplatesSubkey), PositionName(dwPosition).c_str(), pTemplate->pbData,
                    pTemplate->cbData);
        StopIfAsked(kStageTemplateStored);
        return S_OK;
    });
}

HRESULT CUserObject::DeleteTemplate(DWORD dwPosition)
{
    return Locked([&]() -> HRESULT {
        if (dwPosition > kMaxPosition)
            return E_INVALIDARG;
        return DeleteValue(UserSubkeyPath(m_sid, kTemplatesSubkey), PositionName(dwPosition).c_str()) ? S_OK
                                                                                                      : S_FALSE;
    });
}

HRESULT CUserObject::GetTemplateMask(DWORD* pdwMask)
{
    return Locked([&]() -> HRESULT {
        if (!pdwMask)
            return E_POINTER;
        DWORD mask = 0;
        for (const std::wstring& n : ValueNames(UserSubkeyPath(m_sid, kTemplatesSubkey))) {
            for (DWORD i = 0; i <= kMaxPosition; ++i) {
                if (n == PositionName(i))
                    mask |= 1u << i;
            }
        }
        *pdwMask = mask;
        return S_OK;
    });
}

HRESULT CUserObject::GetPayload(CRYPT_DATA_BLOB* pPayload)
{
    return Locked([&]() -> HRESULT {
        if (!pPayload)
            return E_POINTER;
        SecureBytes data;
        if (!ReadBinary(UserKeyPath(m_sid), kPayloadValue, &data.vec()))
            return kNotFound;
        TaskBlob(data.data(), data.size()).HandOut(pPayload);
        return S_OK;
    });
}

HRESULT CUserObject::PutPayload(const CRYPT_DATA_BLOB* pPayload)
{
    return Locked([&]() -> HRESULT {
        if (!pPayload || !pPayload->cbData || !pPayload->pbData)
            return E_INVALIDARG;
        const HRESULT failure = ReadBehaviours().failPutPayload;
        if (FAILED(failure))
            return failure;
        RequireUser(m_sid);
        WriteBinary(UserKeyPath(m_sid), kPayloadValue, pPayload->pbData, pPayload->cbData);
        return S_OK;
    });
}

HRESULT CUserObject::GetUserId(BSTR* pbstrUserId, DWORD* pdwIdKind)
{
    return nv::Guarded([&]() -> HRESULT {
        if (!pbstrUserId || !pdwIdKind)
            return E_POINTER;
        *pbstrUserId = AllocBstr(m_sid);
        *pdwIdKind = kUserIdKindSid;
        return S_OK;
    });
}

HRESULT CUserObject::DeletePayload()
{
    return Locked([&]() -> HRESULT { return DeleteValue(UserKeyPath(m_sid), kPayloadValue) ? S_OK : S_FALSE; });
}

} // namespace nvstore
