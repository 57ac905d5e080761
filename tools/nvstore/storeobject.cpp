#include "storeobject.h"

#include <cstring>
#include <string>
#include <vector>
#include "common/handles.h"
#include "common/hresult.h"
#include "objectsupport.h"
#include "qitable.h"
#include "storecounters.h"
#include "storedata.h"
#include "storelayout.h"
#include "userobject.h"

namespace nvstore {

namespace {

const HRESULT kNotSupported = HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);

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

CStoreObject::CStoreObject() noexcept { ++g_moduleCount; }
CStoreObject::~CStoreObject() { --g_moduleCount; }

HRESULT CStoreObject::QueryInterface(REFIID riid, void** ppv)
{
    static const QiEntry kInterfaces[] = {
        {&__uuidof(IUserStore), OffsetOfInterface<IUserStore, CStoreObject>(), nullptr},
        {&__uuidof(IStoreService), OffsetOfInterface<IStoreService, CStoreObject>(), nullptr},
        {&__uuidof(IUserRegistry), OffsetOfInterface<IUserRegistry, CStoreObject>(), &Behaviours::noUserRegistry},
        {&__uuidof(IAuthService), OffsetOfInterface<IAuthService, CStoreObject>(), &Behaviours::noAuthService},
        {nullptr, 0, nullptr},
    };
    // Counted as the store's own time: offering some interfaces reads the test
    // behaviours from the registry.
    COperationTimer timer;
    return QueryFromTable(this, kInterfaces, riid, ppv);
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

} // namespace nvstore
