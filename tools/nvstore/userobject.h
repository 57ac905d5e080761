// One user of the reference store, as CStoreObject::OpenUser hands it out:
// CUserObject offers IUserSecrets, IUserProperties, IUserTemplates and IUserPayload.
// Free-threaded like the store object; every operation runs under the store's lock.
#pragma once
#include <windows.h>
#include <atomic>
#include <string>
#include "common/storecontract.h"

namespace nvstore {

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
