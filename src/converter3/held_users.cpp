#include "converter3/held_users.h"

#include <objbase.h>
#include "common/guidtext.h"
#include "common/handles.h"

namespace nvconv3 {

namespace {

std::wstring EntryPath(const GUID& guidUser)
{
    return std::wstring(kHeldUsersKeyPath) + L"\\" + nv::GuidText(guidUser);
}

LONG SetString(HKEY key, const wchar_t* name, const std::wstring& value) noexcept
{
    return ::RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                            static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

} // namespace

void RecordHeldUser(const GUID& guidUser, const std::wstring& sid, HRESULT hrResult,
                    const std::wstring& reason) noexcept
{
    try {
        nv::unique_hkey key;
        if (::RegCreateKeyExW(HKEY_LOCAL_MACHINE, EntryPath(guidUser).c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                              KEY_SET_VALUE | kHeldUsersView, nullptr, key.put(), nullptr) != ERROR_SUCCESS)
            return;
        const DWORD result = static_cast<DWORD>(hrResult);
        SetString(key.get(), kHeldUserSidValue, sid);
        ::RegSetValueExW(key.get(), kHeldUserResultValue, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&result),
                         sizeof(result));
        SetString(key.get(), kHeldUserReasonValue, reason);
    } catch (...) {
        // Best effort: an entry that cannot be written changes nothing else.
    }
}

void ForgetHeldUser(const GUID& guidUser) noexcept
{
    try {
        ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, EntryPath(guidUser).c_str(), kHeldUsersView, 0);
    } catch (...) {
    }
}

} // namespace nvconv3
