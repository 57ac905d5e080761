#include "com/nvdbconverter.h"

#include <new>

#include "com/componentregistrar.h"
#include "com/ids.h"
#include "com/nvcommodule.h"
#include "common/hresult.h"
#include "com/dbconverter.h"
#include "trace/trace.h"

namespace {

constexpr const wchar_t kComponentName[] = L"CNVDBConverter";

} // namespace

CNVDBConverter::CNVDBConverter(IUnknown* pUnkOuter) noexcept
    : m_inner(*this), m_pControllingUnknown(pUnkOuter ? pUnkOuter : &m_inner)
{
    g_NVComModule.Lock();
}

CNVDBConverter::~CNVDBConverter()
{
    g_NVComModule.Unlock();
}

HRESULT CNVDBConverter::CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv)
{
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    if (pUnkOuter && !::IsEqualIID(riid, IID_IUnknown))
        return CLASS_E_NOAGGREGATION;

    CNVDBConverter* object = new (std::nothrow) CNVDBConverter(pUnkOuter);
    if (!object)
        return E_OUTOFMEMORY;
    // A temporary reference keeps the object alive through FinalConstruct and the
    // first QueryInterface; releasing it destroys the object when nothing was handed out.
    object->m_inner.AddRef();
    HRESULT hr = object->FinalConstruct();
    if (SUCCEEDED(hr))
        hr = object->m_inner.QueryInterface(riid, ppv);
    object->m_inner.Release();
    return hr;
}

HRESULT CNVDBConverter::UpdateRegistry(BOOL bRegister)
{
    NVTraceNS::CTraceScope scope("Updateregistry - SYS", 0);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        if (bRegister)
            return CComponentRegistrar::RegisterComponent(kSysComponentsKeyPath, kComponentName,
                                                          nvcom::kCLSID_NVDBConverter);
        return CComponentRegistrar::UnregisterComponent(kSysComponentsKeyPath, kComponentName);
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

HRESULT CNVDBConverter::FinalConstruct()
{
    NVTraceNS::CTraceScope scope("CNVDBConverter:FinalConstruct", 0);
    return NVTraceNS::TraceReturn(scope, S_OK);
}

void CNVDBConverter::FinalRelease()
{
    NVTraceNS::CTraceScope scope("CNVDBConverter:FinalRelease", 0);
    NVTraceNS::TraceResult(scope, "", S_OK);
}

HRESULT STDMETHODCALLTYPE CNVDBConverter::QueryInterface(REFIID riid, void** ppv)
{
    return m_pControllingUnknown->QueryInterface(riid, ppv);
}

ULONG STDMETHODCALLTYPE CNVDBConverter::AddRef()
{
    return m_pControllingUnknown->AddRef();
}

ULONG STDMETHODCALLTYPE CNVDBConverter::Release()
{
    return m_pControllingUnknown->Release();
}

HRESULT STDMETHODCALLTYPE CNVDBConverter::Init()
{
    NVTraceNS::CTraceScope scope("CNVDBConverter:Init", 0);
    HRESULT hr = nv::Guarded([]() -> HRESULT {
        HRESULT converted = g_DBConverter.Convert();
        nv::ThrowIfFailed(converted);
        return converted;
    });
    NVTraceNS::TraceResult(scope, "", hr);
    // The host is not told how the conversion went; the trace is.
    return S_OK;
}

HRESULT STDMETHODCALLTYPE CNVDBConverter::Term()
{
    NVTraceNS::CTraceScope scope("CNVDBConverter:Term", 0);
    return NVTraceNS::TraceReturn(scope, S_OK);
}

HRESULT STDMETHODCALLTYPE CNVDBConverter::CInnerUnknown::QueryInterface(REFIID riid, void** ppv)
{
    if (!ppv)
        return E_POINTER;
    if (::IsEqualIID(riid, IID_IUnknown)) {
        *ppv = static_cast<IUnknown*>(this);
    } else if (::IsEqualIID(riid, __uuidof(INVComponentInit))) {
        *ppv = static_cast<INVComponentInit*>(&m_owner);
    } else {
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    static_cast<IUnknown*>(*ppv)->AddRef();
    return S_OK;
}

ULONG STDMETHODCALLTYPE CNVDBConverter::CInnerUnknown::AddRef()
{
    return static_cast<ULONG>(::InterlockedIncrement(&m_owner.m_cRef));
}

ULONG STDMETHODCALLTYPE CNVDBConverter::CInnerUnknown::Release()
{
    LONG n = ::InterlockedDecrement(&m_owner.m_cRef);
    if (n == 0) {
        m_owner.FinalRelease();
        delete &m_owner;
    }
    return static_cast<ULONG>(n);
}
