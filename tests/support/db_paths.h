// Where the suite keeps its database in HKLM, for tests that arrange or inspect it.
// The paths are relative to HKEY_LOCAL_MACHINE, as the registry helpers take them.
#pragma once
#include <string>

namespace nvtest {

inline constexpr const wchar_t kDbPath[] = L"SOFTWARE\\Norvane\\DB";
inline constexpr const wchar_t kDataPath[] = L"SOFTWARE\\Norvane\\DB\\Data";
inline constexpr const wchar_t kDataUsersPath[] = L"SOFTWARE\\Norvane\\DB\\Data\\Users";
inline constexpr const wchar_t kMainDbPath[] = L"SOFTWARE\\Norvane\\DB\\MainDB";
inline constexpr const wchar_t kBackup20Path[] = L"SOFTWARE\\Norvane\\DB-v2.0";
inline constexpr const wchar_t kPolicyDefaultPath[] = L"SOFTWARE\\Norvane\\Policies\\Default";

// A key below the database: DbPath(L"MainDB\\Users") is SOFTWARE\Norvane\DB\MainDB\Users.
inline std::wstring DbPath(const std::wstring& rel) { return std::wstring(kDbPath) + L"\\" + rel; }

} // namespace nvtest
