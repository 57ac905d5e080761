// Placeholder exports until the frame lands.
#include <windows.h>

extern "C" {
HRESULT __stdcall Convert() { return E_FAIL; }
HRESULT __stdcall Rollback() { return E_FAIL; }
HRESULT __stdcall Cleanup() { return E_FAIL; }
HRESULT __stdcall GetDBVersion(DWORD* current, DWORD* target)
{
    if (!current || !target)
        return E_INVALIDARG;
    *current = 0;
    *target = 0;
    return S_OK;
}
HRESULT __stdcall DllCanUnloadNow() { return S_OK; }
HRESULT __stdcall DllGetClassObject(REFCLSID, REFIID, void** ppv) { if (ppv) *ppv = nullptr; return CLASS_E_CLASSNOTAVAILABLE; }
HRESULT __stdcall DllRegisterServer() { return E_NOTIMPL; }
HRESULT __stdcall DllUnregisterServer() { return E_NOTIMPL; }
}
