// The library's exports (undecorated through NVDBConv.def): the four plain entry
// points of the installer and the standard COM server functions. The SDK header
// declares them for hosts; including it here makes the compiler hold the
// definitions to those declarations and run-time types.
#include <windows.h>
#include <type_traits>

// Exported through the .def file, not imported.
#define NVDBCONV_API
#include <nvdbconv/nvdbconv.h>

#include "com/nvcommodule.h"
#include "com/dbconverter.h"
#include "com/oomreserve.h"

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

static_assert(std::is_same_v<decltype(&Convert), PFN_NVDBCONV_CONVERT>);
static_assert(std::is_same_v<decltype(&Rollback), PFN_NVDBCONV_ROLLBACK>);
static_assert(std::is_same_v<decltype(&Cleanup), PFN_NVDBCONV_CLEANUP>);
static_assert(std::is_same_v<decltype(&GetDBVersion), PFN_NVDBCONV_GETDBVERSION>);
static_assert(std::is_same_v<decltype(&DllCanUnloadNow), PFN_NVDBCONV_DLLCANUNLOADNOW>);
static_assert(std::is_same_v<decltype(&DllGetClassObject), PFN_NVDBCONV_DLLGETCLASSOBJECT>);
static_assert(std::is_same_v<decltype(&DllRegisterServer), PFN_NVDBCONV_DLLREGISTERSERVER>);
static_assert(std::is_same_v<decltype(&DllUnregisterServer), PFN_NVDBCONV_DLLUNREGISTERSERVER>);
