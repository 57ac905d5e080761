#include "common/conversionscope.h"

#include <cwchar>

#include "common/regkey.h"
#include "common/threadslot.h"

namespace nv {

namespace {

// The innermost scope of the thread.
ThreadSlot g_scope;

// The part of an HKEY_LOCAL_MACHINE path below the vendor key, or null when the
// path does not lie below it.
const wchar_t* BelowVendorKey(const wchar_t* path) noexcept
{
    constexpr size_t prefix = sizeof(kVendorKeyPath) / sizeof(wchar_t) - 1;
    if (!path || ::_wcsnicmp(path, kVendorKeyPath, prefix) != 0 || path[prefix] != L'\\' || !path[prefix + 1])
        return nullptr;
    return path + prefix + 1;
}

} // namespace

CConversionScope::CConversionScope() noexcept : m_outer(Current())
{
    g_scope.Set(this);
}

CConversionScope::~CConversionScope()
{
    g_scope.Set(m_outer);
    for (HKEY& key : m_vendorKeys) {
        if (key)
            ::RegCloseKey(key);
    }
}

CConversionScope* CConversionScope::Current() noexcept
{
    return static_cast<CConversionScope*>(g_scope.Get());
}

LONG CConversionScope::OpenKey(HKEY root, const wchar_t* path, REGSAM access, HKEY* out) noexcept
{
    CConversionScope* scope = Current();
    const REGSAM view = access & (KEY_WOW64_32KEY | KEY_WOW64_64KEY);
    const wchar_t* rest = root == HKEY_LOCAL_MACHINE ? BelowVendorKey(path) : nullptr;
    if (scope && rest && (view == KEY_WOW64_32KEY || view == KEY_WOW64_64KEY)) {
        HKEY& vendor = scope->m_vendorKeys[view == KEY_WOW64_32KEY ? 0 : 1];
        // A vendor key that does not open (yet) is simply not kept.
        if (!vendor &&
            ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kVendorKeyPath, 0, KEY_READ | view, &vendor) != ERROR_SUCCESS)
            vendor = nullptr;
        if (vendor)
            return ::RegOpenKeyExW(vendor, rest, 0, access & ~view, out);
    }
    return ::RegOpenKeyExW(root, path, 0, ViewFlagsFrom(root, access), out);
}

bool CConversionScope::FindPrivilege(bool* privileged) noexcept
{
    const CConversionScope* scope = Current();
    if (!scope || !scope->m_privilegeKnown)
        return false;
    *privileged = scope->m_privileged;
    return true;
}

void CConversionScope::RememberPrivilege(bool privileged) noexcept
{
    if (CConversionScope* scope = Current()) {
        scope->m_privileged = privileged;
        scope->m_privilegeKnown = true;
    }
}

bool CConversionScope::FindName(Name which, std::wstring* name)
{
    const CConversionScope* scope = Current();
    const size_t i = static_cast<size_t>(which);
    if (!scope || !scope->m_nameKnown[i])
        return false;
    *name = scope->m_names[i];
    return true;
}

void CConversionScope::RememberName(Name which, const std::wstring& name)
{
    if (CConversionScope* scope = Current()) {
        const size_t i = static_cast<size_t>(which);
        scope->m_names[i] = name;
        scope->m_nameKnown[i] = true;
    }
}

bool CConversionScope::FindOpenedDatabase(const std::wstring& usersPath, DWORD* userList)
{
    const CConversionScope* scope = Current();
    if (!scope || !scope->m_databaseOpened || scope->m_openedUsersPath != usersPath)
        return false;
    *userList = scope->m_openedUserList;
    return true;
}

void CConversionScope::RememberOpenedDatabase(const std::wstring& usersPath, DWORD userList)
{
    if (CConversionScope* scope = Current()) {
        scope->m_openedUsersPath = usersPath;
        scope->m_openedUserList = userList;
        scope->m_databaseOpened = true;
    }
}

} // namespace nv
