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

} // namespace nv
