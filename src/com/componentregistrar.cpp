#include "com/componentregistrar.h"

#include <string>

#include "com/nvcommodule.h"
#include "common/hresult.h"
#include "common/regkey.h"
#include "trace/trace.h"

namespace {

// Read, set value, create subkey, enumerate, notify.
constexpr REGSAM kListAccess = KEY_READ | KEY_WRITE;   // 0x2001F
// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" and its terminator.
constexpr int kGuidStringChars = 39;

} // namespace

HRESULT CComponentRegistrar::RegisterComponent(const wchar_t* wszKeyPath, const wchar_t* wszComponent,
                                               REFCLSID clsid)
{
    NVTraceNS::CTraceScope scope("CComponentRegistrar::RegisterComponent", 0);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        wchar_t clsidText[kGuidStringChars] = {};
        if (::StringFromGUID2(clsid, clsidText, kGuidStringChars) == 0)
            nv::ThrowHr(E_UNEXPECTED);

        nv::CNVRegKey list;
        nv::ThrowIfWin32Failed(list.Create(HKEY_LOCAL_MACHINE, wszKeyPath, kListAccess));
        std::wstring data = std::wstring(clsidText) + L":" + g_NVComModule.m_wstrModulePath;
        nv::ThrowIfWin32Failed(nv::SetStringValue(list.Get(), wszComponent, data.c_str()));
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

HRESULT CComponentRegistrar::UnregisterComponent(const wchar_t* wszKeyPath, const wchar_t* wszComponent)
{
    NVTraceNS::CTraceScope scope("CComponentRegistrar::UnregisterComponent", 0);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        nv::CNVRegKey list;
        nv::ThrowIfWin32Failed(list.Open(HKEY_LOCAL_MACHINE, wszKeyPath, kListAccess));
        // Unregistering twice is harmless.
        ::RegDeleteValueW(list.Get(), wszComponent);

        DWORD subkeys = 0;
        DWORD values = 0;
        nv::ThrowIfWin32Failed(::RegQueryInfoKeyW(list.Get(), nullptr, nullptr, nullptr, &subkeys, nullptr,
                                                  nullptr, &values, nullptr, nullptr, nullptr, nullptr));
        if (subkeys == 0 && values == 0) {
            list.Close();
            nv::ThrowIfWin32Failed(::RegDeleteKeyW(HKEY_LOCAL_MACHINE, wszKeyPath));
        }
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}
