// Users that the strict conversion policy kept in the old database, and why.
//
// A user that does not reach the store completely under the strict policy keeps its
// key under DB\Data\Users. So that an installer author or a support engineer can
// see why without a trace file, the converter records each such user under
// HKLM\SOFTWARE\Norvane\DBConversion\HeldUsers\{GUID} (the database's 32-bit view):
// "SID" (REG_SZ), "Result" (REG_DWORD, the user's result code) and "Reason"
// (REG_SZ, what is missing). A later conversion that moves the user removes its
// entry. Only the strict policy writes or removes entries; `nvdbconv status` reads
// them for the user keys that are still there.
//
// Recording is best effort: it never fails the conversion or changes a result.
#pragma once
#include <windows.h>
#include <string>

namespace nvconv3 {

inline constexpr const wchar_t kHeldUsersKeyPath[] = L"SOFTWARE\\Norvane\\DBConversion\\HeldUsers";
inline constexpr REGSAM kHeldUsersView = KEY_WOW64_32KEY;
inline constexpr const wchar_t kHeldUserSidValue[] = L"SID";
inline constexpr const wchar_t kHeldUserResultValue[] = L"Result";
inline constexpr const wchar_t kHeldUserReasonValue[] = L"Reason";

void RecordHeldUser(const GUID& guidUser, const std::wstring& sid, HRESULT hrResult,
                    const std::wstring& reason) noexcept;
void ForgetHeldUser(const GUID& guidUser) noexcept;

} // namespace nvconv3
