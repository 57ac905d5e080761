// CNVComModule: the library's COM module state. It keeps the object map (the
// classes this server offers, with their cached class factories), the module's
// path and host name, and the lock count that DllCanUnloadNow answers from.
//
// Every live object and every reference to a class factory beyond the module's own
// cached one holds a lock; IClassFactory::LockServer adds explicit ones. Operations
// trace their results and return HRESULTs; nothing is thrown out.
#pragma once
#include <windows.h>
#include <unknwn.h>
#include <string>

// One class of the object map. The map ends with an entry whose pclsid is null.
struct NVObjectMapEntry {
    const CLSID* pclsid;
    // The class's registration (TRUE) or unregistration (FALSE).
    HRESULT (*pfnUpdateRegistry)(BOOL bRegister);
    // Creates an instance, standalone or aggregated by pUnkOuter.
    HRESULT (*pfnCreateInstance)(IUnknown* pUnkOuter, REFIID riid, void** ppv);
    // The class factory, created at the first request and kept until Term.
    IUnknown* pCF;
};

class CNVComModule {
public:
    CNVComModule() = default;
    ~CNVComModule();
    CNVComModule(const CNVComModule&) = delete;
    CNVComModule& operator=(const CNVComModule&) = delete;

    HRESULT Init(NVObjectMapEntry* pObjMap, HINSTANCE hInstance, const GUID* plibid);
    // Releases the cached class factories; the module can be initialised again.
    void Term() noexcept;

    LONG Lock() noexcept;
    LONG Unlock() noexcept;
    LONG GetLockCount() const noexcept { return m_nLockCnt; }

    // The class factory of a class of the map, asked for riid.
    HRESULT GetClassObject(REFCLSID rclsid, REFIID riid, void** ppv) noexcept;
    HRESULT RegisterServer(BOOL bRegTypeLib = FALSE, const CLSID* pCLSID = nullptr);
    HRESULT UnRegisterServer(const CLSID* pCLSID = nullptr);
    // S_OK when nothing holds the module, S_FALSE otherwise.
    HRESULT DllCanUnloadNow() const noexcept;

    // Full path of the module's file, set by Init.
    std::wstring m_wstrModulePath;
    // Name of the host the component runs in; "NvHost" unless set before Init.
    std::wstring m_wstrHostName;

    HINSTANCE m_hInst = nullptr;
    const GUID* m_plibid = nullptr;
    NVObjectMapEntry* m_pObjMap = nullptr;

private:
    HRESULT UpdateObjects(BOOL bRegister, const CLSID* pCLSID);

    volatile LONG m_nLockCnt = 0;
    CRITICAL_SECTION m_csObjMap{};
    bool m_bCsReady = false;
};

// The library's module object.
extern CNVComModule g_NVComModule;
