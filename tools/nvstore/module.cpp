// NVStore.dll: the module, its class factory and the standard COM server exports.
// Registration writes HKLM\SOFTWARE\Classes\CLSID\{clsid}\InprocServer32 (the
// module's path, ThreadingModel "Both") in the 64-bit view.
#include <windows.h>
#include <objbase.h>
#include <string>
#include "common/handles.h"
#include "common/hresult.h"
#include "storecounters.h"
#include "storelayout.h"
#include "objectsupport.h"
#include "qitable.h"
#include "storeobject.h"

namespace {

HMODULE g_module = nullptr;

class CStoreClassFactory final : public IClassFactory {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override
    {
        static const nvstore::QiEntry kInterfaces[] = {
            {&__uuidof(IClassFactory), nvstore::OffsetOfInterface<IClassFactory, CStoreClassFactory>(), nullptr},
            {nullptr, 0, nullptr},
        };
        return nvstore::QueryFromTable(this, kInterfaces, riid, ppv);
    }
    // The factory is static: its references only keep the module loaded.
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++nvstore::g_moduleCount); }
    ULONG STDMETHODCALLTYPE Release() override { return static_cast<ULONG>(--nvstore::g_moduleCount); }

    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override
    {
        if (!ppv)
            return E_POINTER;
        *ppv = nullptr;
        if (outer)
            return CLASS_E_NOAGGREGATION;
        nvstore::COperationTimer timer;
        return nv::Guarded([&]() -> HRESULT {
            auto* store = new nvstore::CStoreObject();
            const HRESULT hr = store->QueryInterface(riid, ppv);
            store->Release();
            return hr;
        });
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override
    {
        if (lock)
            ++nvstore::g_moduleCount;
        else
            --nvstore::g_moduleCount;
        return S_OK;
    }
};

CStoreClassFactory g_factory;

std::wstring ClsidKeyPath()
{
    wchar_t text[64] = {};
    ::StringFromGUID2(nvstore::kClsidUserStore, text, 64);
    return std::wstring(L"SOFTWARE\\Classes\\CLSID\\") + text;
}

LONG SetString(HKEY key, const wchar_t* name, const std::wstring& value)
{
    return ::RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                            static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

} // namespace

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH) {
        g_module = instance;
        ::DisableThreadLibraryCalls(instance);
    }
    return TRUE;
}

extern "C" {

HRESULT __stdcall DllGetClassObject(REFCLSID clsid, REFIID riid, void** ppv)
{
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    if (!IsEqualCLSID(clsid, nvstore::kClsidUserStore))
        return CLASS_E_CLASSNOTAVAILABLE;
    return g_factory.QueryInterface(riid, ppv);
}

HRESULT __stdcall NVStoreGetCounters(NVSTORE_COUNTERS* pCounters)
{
    if (!pCounters)
        return E_POINTER;
    nvstore::ReadCounters(pCounters);
    return S_OK;
}

HRESULT __stdcall DllCanUnloadNow() { return nvstore::g_moduleCount == 0 ? S_OK : S_FALSE; }

HRESULT __stdcall DllRegisterServer()
{
    return nv::Guarded([]() -> HRESULT {
        wchar_t path[MAX_PATH];
        const DWORD n = ::GetModuleFileNameW(g_module, path, MAX_PATH);
        if (n == 0 || n >= MAX_PATH)
            nv::ThrowLastError();
        const std::wstring clsidPath = ClsidKeyPath();
        nv::unique_hkey clsidKey;
        nv::ThrowIfWin32Failed(::RegCreateKeyExW(HKEY_LOCAL_MACHINE, clsidPath.c_str(), 0, nullptr,
                                                 REG_OPTION_NON_VOLATILE, KEY_WRITE | KEY_WOW64_64KEY, nullptr,
                                                 clsidKey.put(), nullptr));
        nv::ThrowIfWin32Failed(SetString(clsidKey.get(), nullptr, nvstore::kServerDescription));
        nv::unique_hkey inproc;
        nv::ThrowIfWin32Failed(::RegCreateKeyExW(clsidKey.get(), L"InprocServer32", 0, nullptr,
                                                 REG_OPTION_NON_VOLATILE, KEY_WRITE | KEY_WOW64_64KEY, nullptr,
                                                 inproc.put(), nullptr));
        nv::ThrowIfWin32Failed(SetString(inproc.get(), nullptr, std::wstring(path, n)));
        nv::ThrowIfWin32Failed(SetString(inproc.get(), L"ThreadingModel", L"Both"));
        return S_OK;
    });
}

HRESULT __stdcall DllUnregisterServer()
{
    return nv::Guarded([]() -> HRESULT {
        const std::wstring clsidPath = ClsidKeyPath();
        {
            nv::unique_hkey key;
            LONG r = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, clsidPath.c_str(), 0, KEY_ALL_ACCESS | KEY_WOW64_64KEY,
                                     key.put());
            if (r == ERROR_FILE_NOT_FOUND)
                return S_OK;
            nv::ThrowIfWin32Failed(r);
            nv::ThrowIfWin32Failed(::RegDeleteTreeW(key.get(), nullptr));
        }
        nv::ThrowIfWin32Failed(::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, clsidPath.c_str(), KEY_WOW64_64KEY, 0));
        return S_OK;
    });
}

} // extern "C"
