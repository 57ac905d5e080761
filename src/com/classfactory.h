// CNVClassFactory: the class factory of one entry of the object map. The module
// keeps one reference to it (the cache); every further reference, like every
// LockServer(TRUE), holds a module lock.
#pragma once
#include <windows.h>
#include <unknwn.h>

class CNVComModule;

class CNVClassFactory final : public IClassFactory {
public:
    using CreateFn = HRESULT (*)(IUnknown* pUnkOuter, REFIID riid, void** ppv);

    // Returns the new factory with one reference, the module's cache; null when
    // it cannot be allocated.
    static CNVClassFactory* CreateCached(CNVComModule& module, CreateFn create) noexcept;

    // IUnknown
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
    ULONG STDMETHODCALLTYPE AddRef() override;
    ULONG STDMETHODCALLTYPE Release() override;
    // IClassFactory
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv) override;
    HRESULT STDMETHODCALLTYPE LockServer(BOOL fLock) override;

private:
    CNVClassFactory(CNVComModule& module, CreateFn create) noexcept : m_module(module), m_create(create) {}
    ~CNVClassFactory() = default;

    CNVComModule& m_module;
    CreateFn m_create;
    volatile LONG m_cRef = 1;
};
