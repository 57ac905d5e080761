// Access control shared by every part of the library that protects or opens up a
// registry key: the privilege test on the caller's token, and (common/keydacl.h)
// the database's standard key security, a protected DACL.
#pragma once
#include <windows.h>
#include "common/keydacl.h"

namespace nv {

// True when the caller's effective token (the thread's while it impersonates, else
// the process's) is LocalSystem or holds the Administrators group. A group present
// only for deny checks (a restricted token) does not count. Raises _com_error when
// the token cannot be read. Inside a conversion scope the token is read once.
bool CallerIsSystemOrAdministrator();
// The same test, always read from the token.
bool TokenIsSystemOrAdministrator();

// Replaces the key's DACL by a protected one (SetProtectedKeyDacl): LocalSystem and
// Administrators full access, Users the given mask (no entry for 0). Only for
// callers that are LocalSystem or administrators; others get S_OK and no change.
// S_FALSE when setting the DACL fails, so that a delete can still be tried. The
// database's standard security for the keys it creates. Never throws.
HRESULT GrantFullAccess(HKEY hKey, ACCESS_MASK usersMask);

} // namespace nv
