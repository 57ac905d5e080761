// The library's exports (undecorated through NVDBConv.def): the four plain entry
// points of the installer and the standard COM server functions.
#include <windows.h>

#include "com/nvcommodule.h"
#include "frame/dbconverter.h"
#include "frame/oomreserve.h"

extern "C" {

HRESULT __stdcall Convert()
{
    nvframe::PrepareThreadForFailures();
    return g_DBConverter.Convert();
}

HRESULT __stdcall Rollback()
{
    nvframe::PrepareThreadForFailures();
    return g_DBConverter.Rollback();
}

HRESULT __stdcall Cleanup()
{
    nvframe::PrepareThreadForFailures();
    return g_DBConverter.Cleanup();
}

HRESULT __stdcall GetDBVersion(DWORD* pdwCurrent, DWORD* pdwTarget)
{
    return g_DBConverter.GetDBVersion(pdwCurrent, pdwTarget);
}

HRESULT __stdcall DllCanUnloadNow()
{
    return g_NVComModule.DllCanUnloadNow();
}

HRESULT __stdcall DllGetClassObject(REFCLSID rclsid, REFIID riid, void** ppv)
{
    return g_NVComModule.GetClassObject(rclsid, riid, ppv);
}

// Only the component list entry: no type library, no COM class keys.
HRESULT __stdcall DllRegisterServer()
{
    return g_NVComModule.RegisterServer(FALSE, nullptr);
}

HRESULT __stdcall DllUnregisterServer()
{
    return g_NVComModule.UnRegisterServer(nullptr);
}

} // extern "C"
