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
// The keys and every entry are kept for LocalSystem and Administrators only
// (protected DACL, no Users entry), applied again whenever an entry is written.
//
// Recording is best effort: it never fails the conversion or changes a result.
#pragma once
#include <windows.h>
#include <nvdbconv/nvdbconv.h>
#include <cwchar>
#include <set>
#include <string>

namespace nvconv3 {

inline constexpr const wchar_t kConversionKeyPath[] = NVDBCONV_KEY_CONVERSION;
inline constexpr const wchar_t kHeldUsersKeyPath[] = NVDBCONV_KEY_HELD_USERS;
inline constexpr REGSAM kHeldUsersView = NVDBCONV_HELD_USERS_VIEW;
inline constexpr const wchar_t kHeldUserSidValue[] = NVDBCONV_VALUE_HELD_SID;
inline constexpr const wchar_t kHeldUserResultValue[] = NVDBCONV_VALUE_HELD_RESULT;
inline constexpr const wchar_t kHeldUserReasonValue[] = NVDBCONV_VALUE_HELD_REASON;

// The entries as one conversion sees them: listed once when it starts, so that a
// user without an entry (usually every user) costs no registry call when it is
// moved. When the list cannot be read, every Forget tries the delete.
class CHeldUsers {
public:
    CHeldUsers() noexcept;
    void Record(const GUID& guidUser, const std::wstring& sid, HRESULT hrResult, const std::wstring& reason) noexcept;
    void Forget(const GUID& guidUser) noexcept;

private:
    struct NoCase {
        bool operator()(const std::wstring& a, const std::wstring& b) const noexcept
        {
            return ::_wcsicmp(a.c_str(), b.c_str()) < 0;
        }
    };
    std::set<std::wstring, NoCase> m_entries;
    bool m_listed = false;
};

} // namespace nvconv3
