// CNVDBConverter: the library's COM class. The suite's host creates it and calls
// INVComponentInit::Init, which runs the same conversion as the exported Convert.
// Init always answers S_OK: the conversion's own result goes only to the trace.
// An object holds no state; it keeps the module locked while it lives and can be
// aggregated.
#pragma once
#include <windows.h>
#include <unknwn.h>

#include "com/nvcomponentinit.h"

class CNVDBConverter final : public INVComponentInit {
public:
    // The class's creator for the object map: standalone, or aggregated by
    // pUnkOuter (then riid must be IID_IUnknown). Both run FinalConstruct.
    static HRESULT CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv);
    // The class's registration: its entry in the suite's component list.
    static HRESULT UpdateRegistry(BOOL bRegister);

    HRESULT FinalConstruct();
    void FinalRelease();

    // IUnknown, delegating to the controlling unknown.
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
    ULONG STDMETHODCALLTYPE AddRef() override;
    ULONG STDMETHODCALLTYPE Release() override;
    // INVComponentInit
    HRESULT STDMETHODCALLTYPE Init() override;
    HRESULT STDMETHODCALLTYPE Term() override;

private:
    // The object's own, non-delegating IUnknown.
    class CInnerUnknown final : public IUnknown {
    public:
        explicit CInnerUnknown(CNVDBConverter& owner) noexcept : m_owner(owner) {}
        HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
        ULONG STDMETHODCALLTYPE AddRef() override;
        ULONG STDMETHODCALLTYPE Release() override;

    private:
        CNVDBConverter& m_owner;
    };

    explicit CNVDBConverter(IUnknown* pUnkOuter) noexcept;
    ~CNVDBConverter();

    CInnerUnknown m_inner;
    IUnknown* m_pControllingUnknown;
    volatile LONG m_cRef = 0;
};
