// Access control shared by every part of the library that protects or opens up a
// registry key: the privilege test on the caller's token and the database's
// standard key security (a protected DACL).
#pragma once
#include <windows.h>

namespace nv {

// True when the caller's effective token (the thread's while it impersonates, else
// the process's) is LocalSystem or holds the Administrators group. A group present
// only for deny checks (a restricted token) does not count. Raises _com_error when
// the token cannot be read. Inside a conversion scope the token is read once.
bool CallerIsSystemOrAdministrator();
// The same test, always read from the token.
bool TokenIsSystemOrAdministrator();

// Replaces the key's DACL by a protected one whose entries are all inherited by
// subkeys (object and container inherit): LocalSystem and Administrators
// KEY_ALL_ACCESS, Users usersMask (no entry when it is 0). S_OK when set, S_FALSE
// when SetSecurityInfo refuses; raises _com_error when the list cannot be built.
HRESULT SetProtectedKeyDacl(HKEY key, ACCESS_MASK usersMask);

} // namespace nv
