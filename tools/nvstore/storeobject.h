// The reference store's COM class kClsidUserStore creates: CStoreObject offers
// IUserStore, IStoreService, IAuthService and IUserRegistry; OpenUser hands out a
// CUserObject (userobject.h) for one user. Free-threaded (ThreadingModel Both):
// every operation runs under one process-wide lock, and all state is in the registry
// and the key containers, so any number of objects in any number of processes see
// the same store.
#pragma once
#include <windows.h>
#include <atomic>
#include "common/storecontract.h"

namespace nvstore {

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

} // namespace nvstore
