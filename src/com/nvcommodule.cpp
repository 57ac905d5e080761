#include "com/nvcommodule.h"

#include <oleauto.h>

#include "com/classfactory.h"
#include "common/handles.h"
#include "common/hresult.h"
#include "trace/trace.h"

CNVComModule g_NVComModule;

namespace {

constexpr DWORD kModulePathChars = 260;
constexpr const wchar_t kDefaultHostName[] = L"NvHost";

} // namespace

CNVComModule::~CNVComModule()
{
    Term();
}

HRESULT CNVComModule::Init(NVObjectMapEntry* pObjMap, HINSTANCE hInstance, const GUID* plibid)
{
    NVTraceNS::CTraceScope scope("CNVComModule::Init", 0);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        if (!m_bCsReady) {
            nv::ThrowLastErrorIf(!::InitializeCriticalSectionAndSpinCount(&m_csObjMap, 0));
            m_bCsReady = true;
        }
        m_pObjMap = pObjMap;
        m_hInst = hInstance;
        m_plibid = plibid;

        wchar_t path[kModulePathChars] = {};
        DWORD cch = ::GetModuleFileNameW(hInstance, path, kModulePathChars);
        if (cch == 0)
            nv::ThrowLastError();
        m_wstrModulePath.assign(path, cch);

        if (m_wstrHostName.empty())
            m_wstrHostName = kDefaultHostName;
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

void CNVComModule::Term() noexcept
{
    if (m_pObjMap) {
        for (NVObjectMapEntry* entry = m_pObjMap; entry->pclsid; ++entry) {
            if (entry->pCF) {
                IUnknown* cf = entry->pCF;
                entry->pCF = nullptr;
                cf->Release();
            }
        }
        m_pObjMap = nullptr;
    }
    if (m_bCsReady) {
        ::DeleteCriticalSection(&m_csObjMap);
        m_bCsReady = false;
    }
}

LONG CNVComModule::Lock() noexcept
{
    return ::InterlockedIncrement(&m_nLockCnt);
}

LONG CNVComModule::Unlock() noexcept
{
    return ::InterlockedDecrement(&m_nLockCnt);
}

HRESULT CNVComModule::DllCanUnloadNow() const noexcept
{
    return m_nLockCnt == 0 ? S_OK : S_FALSE;
}

HRESULT CNVComModule::GetClassObject(REFCLSID rclsid, REFIID riid, void** ppv) noexcept
{
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    if (!m_pObjMap || !m_bCsReady)
        return CLASS_E_CLASSNOTAVAILABLE;
    for (NVObjectMapEntry* entry = m_pObjMap; entry->pclsid; ++entry) {
        if (!::IsEqualCLSID(*entry->pclsid, rclsid))
            continue;
        if (!entry->pCF) {
            ::EnterCriticalSection(&m_csObjMap);
            if (!entry->pCF)
                entry->pCF = CNVClassFactory::CreateCached(*this, entry->pfnCreateInstance);
            ::LeaveCriticalSection(&m_csObjMap);
            if (!entry->pCF)
                return E_OUTOFMEMORY;
        }
        return entry->pCF->QueryInterface(riid, ppv);
    }
    return CLASS_E_CLASSNOTAVAILABLE;
}

HRESULT CNVComModule::UpdateObjects(BOOL bRegister, const CLSID* pCLSID)
{
    if (!m_pObjMap)
        return S_OK;
    for (NVObjectMapEntry* entry = m_pObjMap; entry->pclsid; ++entry) {
        if (pCLSID && !::IsEqualCLSID(*pCLSID, *entry->pclsid))
            continue;
        HRESULT hr = entry->pfnUpdateRegistry(bRegister);
        if (FAILED(hr))
            return hr;
    }
    return S_OK;
}

HRESULT CNVComModule::RegisterServer(BOOL bRegTypeLib, const CLSID* pCLSID)
{
    NVTraceNS::CTraceScope scope("CNVComModule::RegisterServer", 0);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        HRESULT result = UpdateObjects(TRUE, pCLSID);
        if (SUCCEEDED(result) && bRegTypeLib) {
            // The type library would come from the module's own file.
            nv::com_ptr<ITypeLib> typeLib;
            result = ::LoadTypeLibEx(m_wstrModulePath.c_str(), REGKIND_NONE, typeLib.put());
            if (SUCCEEDED(result))
                result = ::RegisterTypeLib(typeLib.get(), const_cast<OLECHAR*>(m_wstrModulePath.c_str()), nullptr);
        }
        return result;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

HRESULT CNVComModule::UnRegisterServer(const CLSID* pCLSID)
{
    NVTraceNS::CTraceScope scope("CNVComModule::UnRegisterServer", 0);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        HRESULT result = UpdateObjects(FALSE, pCLSID);
        nv::ThrowIfFailed(result);
        return result;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}
