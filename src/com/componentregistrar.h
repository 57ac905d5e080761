// CComponentRegistrar: the suite's component list, HKLM\SOFTWARE\Norvane\Core\SysComponents.
// One REG_SZ value per component, named after its class, holding
// "{CLSID}:<full path of the serving file>" (the path the module object holds).
// Unregistering the last component removes the list key itself.
#pragma once
#include <windows.h>
#include <nvdbconv/nvdbconv.h>

// The component list's key path under HKEY_LOCAL_MACHINE.
inline constexpr const wchar_t kSysComponentsKeyPath[] = NVDBCONV_KEY_COMPONENTS;

class CComponentRegistrar {
public:
    static HRESULT RegisterComponent(const wchar_t* wszKeyPath, const wchar_t* wszComponent, REFCLSID clsid);
    static HRESULT UnregisterComponent(const wchar_t* wszKeyPath, const wchar_t* wszComponent);
};
