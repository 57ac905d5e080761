// The reference store's COM objects.
//
// CStoreObject (the class kClsidUserStore creates) offers IUserStore, IStoreService,
// IAuthService and IUserRegistry; OpenUser hands out a CUserObject, which offers
// IUserSecrets, IUserProperties, IUserTemplates and IUserPayload for one user.
// Both are free-threaded (ThreadingModel Both): every operation runs under one
// process-wide lock, and all state is in the registry and the key containers, so
// any number of objects in any number of processes see the same store.
#pragma once
#include <windows.h>
#include <atomic>
#include <string>
#include "common/storecontract.h"

namespace nvstore {

// Objects and server locks alive in this module (DllCanUnloadNow).
extern std::atomic<long> g_moduleCount;

class CStoreObject final : public IUserStore, public IStoreService, public IAuthService, public IUserRegistry {
public:
    CStoreObject() noexcept;
    CStoreObject(const CStoreObject&) = delete;
    CStoreObject& operator=(const CStoreObject&) = delete;

    // IUnknown
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
    ULONG STDMETHODCALLTYPE AddRef() override;
    ULONG STDMETHODCALLTYPE Release() override;

    // IUserStore
    HRESULT STDMETHODCALLTYPE OpenUser(LPCWSTR pwszUserId, DWORD dwIdKind, IUnknown** ppUser) override;
    HRESULT STDMETHODCALLTYPE UserExists(LPCWSTR pwszUserId, DWORD dwIdKind) override;
    HRESULT STDMETHODCALLTYPE DeleteUser(LPCWSTR pwszUserId, DWORD dwIdKind) override;
    HRESULT STDMETHODCALLTYPE EnumUsers(DWORD dwIndex, BSTR* pbstrUserId, DWORD* pdwIdKind) override;

    // IStoreService
    HRESULT STDMETHODCALLTYPE GetVersion(DWORD* pdwVersion) override;
    HRESULT STDMETHODCALLTYPE GetUserCount(DWORD* pdwCount) override;

    // IAuthService
    HRESULT STDMETHODCALLTYPE GetAuthTypeCount(DWORD* pdwCount) override;
    HRESULT STDMETHODCALLTYPE GetAuthType(DWORD dwIndex, GUID* pAuthType) override;
    HRESULT STDMETHODCALLTYPE IsEnrolled(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind) override;
    HRESULT STDMETHODCALLTYPE VerifyAuthentication(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind,
                                                   const CRYPT_DATA_BLOB* pAuthInfo) override;
    HRESULT STDMETHODCALLTYPE GetFailedCount(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind,
                                             DWORD* pdwCount) override;
    HRESULT STDMETHODCALLTYPE Authenticate(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind,
                                           const CRYPT_DATA_BLOB* pAuthInfo, CRYPT_DATA_BLOB* pPayload,
                                           DWORD* pdwFailedCount, CRYPT_DATA_BLOB* pExtra) override;
    HRESULT STDMETHODCALLTYPE ChangeAuthentication(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind,
                                                   const CRYPT_DATA_BLOB* pOldAuthInfo,
                                                   const CRYPT_DATA_BLOB* pNewAuthInfo) override;
    HRESULT STDMETHODCALLTYPE ResetFailedCount(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind) override;
    HRESULT STDMETHODCALLTYPE RemoveAuthentication(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind) override;
    HRESULT STDMETHODCALLTYPE EnumEnrolledTypes(LPCWSTR pwszUserId, DWORD dwIdKind, DWORD dwIndex,
                                                GUID* pAuthType) override;
    HRESULT STDMETHODCALLTYPE GetUserPublicKey(LPCWSTR pwszUserId, DWORD dwIdKind,
                                               CRYPT_DATA_BLOB* pPublicKey) override;
    HRESULT STDMETHODCALLTYPE EnrollAuthentication(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind,
                                                   const CRYPT_DATA_BLOB* pPayload, const CRYPT_DATA_BLOB* pAuthInfo,
                                                   CRYPT_DATA_BLOB* pExtra) override;

    // IUserRegistry
    HRESULT STDMETHODCALLTYPE CheckUser(LPCWSTR pwszUserId, DWORD dwIdKind) override;
    HRESULT STDMETHODCALLTYPE EnumRegisteredUsers(DWORD dwIndex, BSTR* pbstrUserId, DWORD* pdwIdKind) override;
    HRESULT STDMETHODCALLTYPE AddUser(IUserPayload* pPayload) override;
    HRESULT STDMETHODCALLTYPE RemoveUser(LPCWSTR pwszUserId, DWORD dwIdKind) override;

private:
    ~CStoreObject();
    std::atomic<ULONG> m_refs{1};
};

class CUserObject final : public IUserSecrets, public IUserProperties, public IUserTemplates, public IUserPayload {
public:
    explicit CUserObject(const std::wstring& sid);
    CUserObject(const CUserObject&) = delete;
    CUserObject& operator=(const CUserObject&) = delete;

    // IUnknown
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
    ULONG STDMETHODCALLTYPE AddRef() override;
    ULONG STDMETHODCALLTYPE Release() override;

    // IUserSecrets
    HRESULT STDMETHODCALLTYPE GetSecret(LPCWSTR pwszName, CRYPT_DATA_BLOB* pSecret) override;
    HRESULT STDMETHODCALLTYPE PutSecret(LPCWSTR pwszName, const CRYPT_DATA_BLOB* pSecret) override;
    HRESULT STDMETHODCALLTYPE DeleteSecret(LPCWSTR pwszName) override;
    HRESULT STDMETHODCALLTYPE EnumSecrets(DWORD dwIndex, BSTR* pbstrName) override;

    // IUserProperties
    HRESULT STDMETHODCALLTYPE GetProperty(LPCWSTR pwszName, CRYPT_DATA_BLOB* pValue) override;
    HRESULT STDMETHODCALLTYPE SetProperty(LPCWSTR pwszName, const CRYPT_DATA_BLOB* pValue) override;
    HRESULT STDMETHODCALLTYPE DeleteProperty(LPCWSTR pwszName) override;
    HRESULT STDMETHODCALLTYPE EnumProperties(DWORD dwIndex, BSTR* pbstrName) override;

    // IUserTemplates
    HRESULT STDMETHODCALLTYPE GetTemplate(DWORD dwPosition, CRYPT_DATA_BLOB* pTemplate) override;
    HRESULT STDMETHODCALLTYPE PutTemplate(DWORD dwPosition, const CRYPT_DATA_BLOB* pTemplate) override;
    HRESULT STDMETHODCALLTYPE DeleteTemplate(DWORD dwPosition) override;
    HRESULT STDMETHODCALLTYPE GetTemplateMask(DWORD* pdwMask) override;

    // IUserPayload
    HRESULT STDMETHODCALLTYPE GetPayload(CRYPT_DATA_BLOB* pPayload) override;
    HRESULT STDMETHODCALLTYPE PutPayload(const CRYPT_DATA_BLOB* pPayload) override;
    HRESULT STDMETHODCALLTYPE GetUserId(BSTR* pbstrUserId, DWORD* pdwIdKind) override;
    HRESULT STDMETHODCALLTYPE DeletePayload() override;

private:
    ~CUserObject();
    std::atomic<ULONG> m_refs{1};
    const std::wstring m_sid;
};

} // namespace nvstore
