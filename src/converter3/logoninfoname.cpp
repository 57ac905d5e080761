#include "converter3/logoninfoname.h"

#include <windows.h>
#include <vector>
#include "common/handles.h"

namespace nvconv3 {

const std::wstring g_wstrLegacyPasswordSecretName = L"SystemLogonInfo";

std::wstring ReadLogonInfoNamePolicy()
{
    size_t cchName = 0; // the name's length, terminator included; 0: not taken
    std::vector<wchar_t> buffer;

    nv::unique_hkey key;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kPolicyKeyPath, 0, KEY_READ, key.put()) == ERROR_SUCCESS) {
        DWORD type = REG_NONE;
        DWORD cb = 0;
        if (::RegQueryValueExW(key.get(), kLogonInfoNameValue, nullptr, &type, nullptr, &cb) == ERROR_SUCCESS &&
            (type == REG_SZ || type == REG_EXPAND_SZ)) {
            buffer.assign(cb / 2 + 1, L'\0');
            DWORD cbRead = static_cast<DWORD>(buffer.size() * sizeof(wchar_t));
            if (::RegQueryValueExW(key.get(), kLogonInfoNameValue, nullptr, &type,
                                   reinterpret_cast<BYTE*>(buffer.data()), &cbRead) == ERROR_SUCCESS &&
                (type == REG_SZ || type == REG_EXPAND_SZ) && cbRead % 2 == 0 && cbRead >= 2 &&
                buffer[cbRead / 2 - 1] == L'\0') {
                cchName = cbRead / 2;
            }
        }
    }

    if (cchName == 0)
        return g_wstrLegacyPasswordSecretName;
    // Copied up to the first zero: the terminator never becomes part of the name.
    return std::wstring(buffer.data());
}

const std::wstring& LogonInfoName()
{
    static const std::wstring s_name = ReadLogonInfoNamePolicy();
    return s_name;
}

} // namespace nvconv3
