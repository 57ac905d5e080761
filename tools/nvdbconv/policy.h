// The conversion policy as nvdbconv shows and sets it, and the users that the strict
// policy kept in the old database. The names and places are the library's own
// (converter3/conversionpolicy.h, converter3/heldusers.h).
#pragma once
#include <windows.h>
#include <optional>
#include <string>
#include <vector>

namespace nvdbconv {

struct PolicyState {
    bool keyFound = false;          // HKLM\SOFTWARE\Norvane\Policies\Default (library's view)
    bool valueFound = false;        // "StrictConversion"
    DWORD type = REG_NONE;
    std::optional<DWORD> value;     // when it is a REG_DWORD of 4 bytes
    bool strict() const { return value && *value == 1; }
};
PolicyState ReadPolicyState();

// On: "StrictConversion" = REG_DWORD 1 (the key is created when missing). Off: the
// value is deleted (absent means the default policy). S_OK or the registry's code.
HRESULT WriteStrictConversion(bool on);

struct HeldUser {
    std::wstring key;    // {GUID}, the user's key under Data\Users
    std::wstring sid;
    DWORD result = 0;    // the user's result code in the last strict conversion
    std::wstring reason; // what did not reach the store
};
// Entries of the users that the strict policy kept, for the user keys that are still
// under Data\Users, in registry order.
std::vector<HeldUser> ReadHeldUsers();
// False when the record exists but this account may not read it: the record is for
// LocalSystem and Administrators only, so an account without admin rights sees no
// entries even where there are some.
bool HeldUsersReadable();

} // namespace nvdbconv
