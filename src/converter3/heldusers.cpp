#include "converter3/heldusers.h"

#include <objbase.h>
#include "common/hresult.h"
#include "common/guidtext.h"
#include "common/handles.h"
#include "common/keysecurity.h"
#include "common/regkey.h"

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

CHeldUsers::CHeldUsers() noexcept
{
    const bool answered = nv::BestEffort([&] {
        nv::CNVRegKey key;
        const LONG r = key.Open(HKEY_LOCAL_MACHINE, kHeldUsersKeyPath, KEY_READ | kHeldUsersView);
        if (r == ERROR_FILE_NOT_FOUND) {
            m_listed = true;
        return true;
            return true;
        }
        if (r != ERROR_SUCCESS)
            return true;
        wchar_t name[256];
        for (DWORD index = 0;; ++index) {
            DWORD cch = sizeof(name) / sizeof(name[0]);
            const LONG e = ::RegEnumKeyExW(key, index, name, &cch, nullptr, nullptr, nullptr, nullptr);
            if (e == ERROR_NO_MORE_ITEMS)
                break;
            if (e != ERROR_SUCCESS) {
                m_entries.clear();
                return true;
            }
            m_entries.insert(name);
        }
        m_listed = true;
        return true;
    }, false);
    if (!answered) {
        m_entries.clear();
        m_listed = false;
    }
}

void CHeldUsers::Record(const GUID& guidUser, const std::wstring& sid, HRESULT hrResult,
                        const std::wstring& reason) noexcept
{
    // Best effort: an entry that cannot be written changes nothing else.
    nv::BestEffort([&] {
        // Each level gets the list itself: a new key does not take its parent's
        // entries everywhere (Wine gives every new key a default list), and an older
        // release left these keys readable by Users. The entry is written even where
        // a list cannot be set: a held user nobody hears of is worse than a record
        // that names a SID and a reason.
        const std::wstring entryPath = EntryPath(guidUser);
        for (const wchar_t* path : {kConversionKeyPath, kHeldUsersKeyPath, entryPath.c_str()})
            nv::ProtectKeyForAdministrators(HKEY_LOCAL_MACHINE, path, kHeldUsersView);
        nv::unique_hkey key;
        if (::RegCreateKeyExW(HKEY_LOCAL_MACHINE, entryPath.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                              KEY_SET_VALUE | kHeldUsersView, nullptr, key.put(), nullptr) != ERROR_SUCCESS)
            return;
        m_entries.insert(nv::GuidText(guidUser));
        const DWORD result = static_cast<DWORD>(hrResult);
        SetString(key.get(), kHeldUserSidValue, sid);
        ::RegSetValueExW(key.get(), kHeldUserResultValue, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&result),
                         sizeof(result));
        SetString(key.get(), kHeldUserReasonValue, reason);
    });
}

void CHeldUsers::Forget(const GUID& guidUser) noexcept
{
    nv::BestEffort([&] {
        const std::wstring name = nv::GuidText(guidUser);
        if (m_listed && m_entries.find(name) == m_entries.end())
            return;
        if (::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, EntryPath(guidUser).c_str(), kHeldUsersView, 0) == ERROR_SUCCESS)
            m_entries.erase(name);
    });
}

} // namespace nvconv3
