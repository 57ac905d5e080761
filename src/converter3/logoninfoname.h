// The logon info name: the name under which format 3.0 keeps a user's password
// secret. It comes from the policy value "LogonInfoName" under
// HKLM\SOFTWARE\Norvane\Policies\Default (read in the library's own registry view)
// and is fixed on first use for the life of the process.
//
// The value is taken only when it is REG_SZ or REG_EXPAND_SZ, of an even byte
// count, and its last character is zero; its length is then byte count / 2,
// terminator included, and the name is the text up to its first zero. Anything
// else gives length 0, which means "SystemLogonInfo". So a value of nothing but
// the terminator (2 bytes) is a name of length 1 and yields the empty name.
#pragma once
#include <windows.h>
#include <nvdbconv/nvdbconv.h>
#include <string>

namespace nvconv3 {

inline constexpr const wchar_t kPolicyKeyPath[] = NVDBCONV_KEY_POLICY;
inline constexpr const wchar_t kLogonInfoNameValue[] = NVDBCONV_VALUE_LOGON_INFO_NAME;

// The legacy name of the password secret; also the logon info name by default.
extern const std::wstring g_wstrLegacyPasswordSecretName;

// Reads the policy now, by the rules above (no caching).
std::wstring ReadLogonInfoNamePolicy();

// The process-wide name: read from the policy on the first call, kept afterwards.
const std::wstring& LogonInfoName();

} // namespace nvconv3
