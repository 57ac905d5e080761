#include "userobject.h"

#include <cwchar>
#include <string>
#include <vector>
#include "common/handles.h"
#include "common/hresult.h"
#include "objectsupport.h"
#include "qitable.h"
#include "storecounters.h"
#include "storedata.h"
#include "storelayout.h"

namespace nvstore {

namespace {

const HRESULT kNotFound = HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
constexpr DWORD kMaxPosition = 31;

std::wstring PositionName(DWORD position) { return std::to_wstring(position); }

void RequireUser(const std::wstring& sid)
{
    if (!nvstore::UserExists(sid))
        nv::ThrowHr(kNotFound);
}

bool IsPublicKeyProperty(LPCWSTR name) { return ::_wcsicmp(name, kPropertyUserPublicKey) == 0; }

} // namespace

CUserObject::CUserObject(const std::wstring& sid) : m_sid(sid) { ++g_moduleCount; }
CUserObject::~CUserObject() { --g_moduleCount; }

HRESULT CUserObject::QueryInterface(REFIID riid, void** ppv)
{
    static const QiEntry kInterfaces[] = {
        {&__uuidof(IUserSecrets), OffsetOfInterface<IUserSecrets, CUserObject>(), &Behaviours::noUserSecrets},
        {&__uuidof(IUserTemplates), OffsetOfInterface<IUserTemplates, CUserObject>(), &Behaviours::noUserTemplates},
        {&__uuidof(IUserPayload), OffsetOfInterface<IUserPayload, CUserObject>(), &Behaviours::noUserPayload},
        {&__uuidof(IUserProperties), OffsetOfInterface<IUserProperties, CUserObject>(), &Behaviours::noUserProperties},
        {nullptr, 0, nullptr},
    };
    // Counted as the store's own time: offering some interfaces reads the test
    // behaviours from the registry.
    COperationTimer timer;
    return QueryFromTable(this, kInterfaces, riid, ppv);
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
