#include "policy.h"

#include "common/handles.h"
#include "common/hresult.h"
#include "converter3/conversionpolicy.h"
#include "converter3/heldusers.h"
#include "converter3/logoninfoname.h"
#include "dbstate.h"

namespace nvdbconv {

namespace {

std::optional<std::wstring> ReadSz(HKEY key, const wchar_t* name)
{
    DWORD type = REG_NONE, cb = 0;
    if (::RegQueryValueExW(key, name, nullptr, &type, nullptr, &cb) != ERROR_SUCCESS || type != REG_SZ)
        return std::nullopt;
    std::wstring text(cb / sizeof(wchar_t) + 1, L'\0');
    DWORD cbRead = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    if (::RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(&text[0]), &cbRead) != ERROR_SUCCESS ||
        type != REG_SZ)
        return std::nullopt;
    text.resize(cbRead / sizeof(wchar_t));
    while (!text.empty() && text.back() == L'\0')
        text.pop_back();
    return text;
}

} // namespace

PolicyState ReadPolicyState()
{
    PolicyState s;
    nv::unique_hkey key;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, nvconv3::kPolicyKeyPath, 0, KEY_READ, key.put()) != ERROR_SUCCESS)
        return s;
    s.keyFound = true;
    DWORD value = 0, cb = sizeof(value);
    const LONG r = ::RegQueryValueExW(key.get(), nvconv3::kStrictConversionValue, nullptr, &s.type,
                                      reinterpret_cast<BYTE*>(&value), &cb);
    if (r == ERROR_SUCCESS || r == ERROR_MORE_DATA)
        s.valueFound = true;
    if (r == ERROR_SUCCESS && s.type == REG_DWORD && cb == sizeof(value))
        s.value = value;
    return s;
}

HRESULT WriteStrictConversion(bool on)
{
    if (!on) {
        nv::unique_hkey key;
        LONG r = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, nvconv3::kPolicyKeyPath, 0, KEY_SET_VALUE, key.put());
        if (r == ERROR_FILE_NOT_FOUND)
            return S_OK;
        if (r == ERROR_SUCCESS)
            r = ::RegDeleteValueW(key.get(), nvconv3::kStrictConversionValue);
        return r == ERROR_FILE_NOT_FOUND ? S_OK : nv::HResultFromWin32(r);
    }
    nv::unique_hkey key;
    LONG r = ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, nvconv3::kPolicyKeyPath, 0, nullptr, REG_OPTION_NON_VOLATILE,
                               KEY_SET_VALUE, nullptr, key.put(), nullptr);
    if (r == ERROR_SUCCESS) {
        const DWORD value = nvconv3::kStrictConversionOn;
        r = ::RegSetValueExW(key.get(), nvconv3::kStrictConversionValue, 0, REG_DWORD,
                             reinterpret_cast<const BYTE*>(&value), sizeof(value));
    }
    return nv::HResultFromWin32(r);
}

bool HeldUsersReadable()
{
    nv::unique_hkey held;
    return ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, nvconv3::kHeldUsersKeyPath, 0, KEY_READ | nvconv3::kHeldUsersView,
                           held.put()) != ERROR_ACCESS_DENIED;
}

std::vector<HeldUser> ReadHeldUsers()
{
    std::vector<HeldUser> users;
    nv::unique_hkey held;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, nvconv3::kHeldUsersKeyPath, 0, KEY_READ | nvconv3::kHeldUsersView,
                        held.put()) != ERROR_SUCCESS)
        return users;
    for (DWORD i = 0;; ++i) {
        wchar_t name[256];
        DWORD cch = 256;
        if (::RegEnumKeyExW(held.get(), i, name, &cch, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        // Only users whose old key is still there are held; an entry without one is
        // history (the database was restored or removed since).
        if (!KeyExists((std::wstring(kUsersPath) + L"\\" + name).c_str(), kDatabaseView))
            continue;
        nv::unique_hkey entry;
        if (::RegOpenKeyExW(held.get(), name, 0, KEY_READ, entry.put()) != ERROR_SUCCESS)
            continue;
        HeldUser u;
        u.key = name;
        u.sid = ReadSz(entry.get(), nvconv3::kHeldUserSidValue).value_or(L"");
        u.reason = ReadSz(entry.get(), nvconv3::kHeldUserReasonValue).value_or(L"");
        DWORD type = REG_NONE, value = 0, cb = sizeof(value);
        if (::RegQueryValueExW(entry.get(), nvconv3::kHeldUserResultValue, nullptr, &type,
                               reinterpret_cast<BYTE*>(&value), &cb) == ERROR_SUCCESS &&
            type == REG_DWORD)
            u.result = value;
        users.push_back(u);
    }
    return users;
}

} // namespace nvdbconv
