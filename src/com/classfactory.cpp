#include "com/classfactory.h"

#include <new>

#include "com/nvcommodule.h"

CNVClassFactory* CNVClassFactory::CreateCached(CNVComModule& module, CreateFn create) noexcept
{
    return new (std::nothrow) CNVClassFactory(module, create);
}

HRESULT STDMETHODCALLTYPE CNVClassFactory::QueryInterface(REFIID riid, void** ppv)
{
    if (!ppv)
        return E_POINTER;
    if (::IsEqualIID(riid, IID_IUnknown) || ::IsEqualIID(riid, IID_IClassFactory)) {
        *ppv = static_cast<IClassFactory*>(this);
        AddRef();
        return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
}

ULONG STDMETHODCALLTYPE CNVClassFactory::AddRef()
{
    LONG n = ::InterlockedIncrement(&m_cRef);
    // The first reference beyond the cache's own keeps the module loaded.
    if (n == 2)
        m_module.Lock();
    return static_cast<ULONG>(n);
}

ULONG STDMETHODCALLTYPE CNVClassFactory::Release()
{
    LONG n = ::InterlockedDecrement(&m_cRef);
    if (n == 0)
        delete this;
    else if (n == 1)
        m_module.Unlock();
    return static_cast<ULONG>(n);
}

HRESULT STDMETHODCALLTYPE CNVClassFactory::CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv)
{
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    // An aggregating outer object may only ask for the inner IUnknown.
    if (pUnkOuter && !::IsEqualIID(riid, IID_IUnknown))
        return CLASS_E_NOAGGREGATION;
    return m_create(pUnkOuter, riid, ppv);
}

HRESULT STDMETHODCALLTYPE CNVClassFactory::LockServer(BOOL fLock)
{
    if (fLock)
        m_module.Lock();
    else
        m_module.Unlock();
    return S_OK;
}
