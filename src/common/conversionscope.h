// CConversionScope: what one conversion looks up once and then reuses, because it
// cannot change while the conversion runs on its thread. A conversion reads every
// user through the same keys and asks the same questions about the machine for
// every user; each answer costs registry or security calls, and under Wine a server
// round trip per call. While a scope is alive on the thread:
//
//   - Keys below HKEY_LOCAL_MACHINE\SOFTWARE\Norvane opened with a view flag
//     (KEY_WOW64_32KEY or KEY_WOW64_64KEY) through OpenKey are opened relative to
//     one handle of SOFTWARE\Norvane in that view, taken at the first such open. The
//     key reached is the same: a view flag redirects only where a path crosses the
//     redirected SOFTWARE key, and nothing below the vendor key is redirected. Each
//     open of the full path would walk it again, under Wine with a probe for a nested
//     Wow6432Node at every part of it.
//   - The caller's privilege (LocalSystem or an administrator, nv::CallerIs-
//     SystemOrAdministrator) is read from its token once.
//   - The computer's name, and the name of the machine's own user store (the
//     computer's name, or the domain's on a domain controller), are found once.
//   - The legacy database's access object, opened once for every user, checks its
//     users path, data path and "Version" stamp, and reads the users path's value,
//     only the first time: what it found is kept for that users path. Nothing in a
//     conversion changes them until the conversion has ended.
//
// An answer that cannot be found (a failed call) is not kept: the next question
// asks again. Without a scope every call does all of it itself. Scopes nest: the
// innermost one is used. Every member is safe to call with no scope alive.
#pragma once
#include <windows.h>
#include <string>

namespace nv {

class CConversionScope {
public:
    CConversionScope() noexcept;
    ~CConversionScope();
    CConversionScope(const CConversionScope&) = delete;
    CConversionScope& operator=(const CConversionScope&) = delete;

    // RegOpenKeyExW(root, path, 0, access), through the thread's scope where it applies.
    static LONG OpenKey(HKEY root, const wchar_t* path, REGSAM access, HKEY* out) noexcept;

    // The answer kept by the thread's scope, if one is alive and has one.
    static bool FindPrivilege(bool* privileged) noexcept;
    static void RememberPrivilege(bool privileged) noexcept;
    enum class Name { Computer, LocalStore };
    static bool FindName(Name which, std::wstring* name);
    static void RememberName(Name which, const std::wstring& name);
    // The users path's value as the first open of that users path found it, the
    // paths and the stamp being in place.
    static bool FindOpenedDatabase(const std::wstring& usersPath, DWORD* userList);
    static void RememberOpenedDatabase(const std::wstring& usersPath, DWORD userList);

private:
    static CConversionScope* Current() noexcept;

    CConversionScope* m_outer;
    HKEY m_vendorKeys[2] = {}; // KEY_WOW64_32KEY, KEY_WOW64_64KEY
    bool m_privilegeKnown = false;
    bool m_privileged = false;
    bool m_nameKnown[2] = {};
    std::wstring m_names[2];
    bool m_databaseOpened = false;
    std::wstring m_openedUsersPath;
    DWORD m_openedUserList = 0;
};

} // namespace nv
