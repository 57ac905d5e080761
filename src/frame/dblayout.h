// Whether the database under HKLM\SOFTWARE\Norvane\DB is laid out as format 3.0:
// the key is there and holds neither Data nor MainDB. "Version" cannot say so: the
// 2.0 -> 3.0 step leaves it reading 2.x, and the library still offers that step for
// it. A host asks this before Convert so that a finished conversion is not run
// again (which would make a backup and then fail on the missing Data\Users).
// Plain Win32 and no state, so that a C header could offer the same function.
#pragma once
#include <windows.h>

#include "common/regkey.h"
#include "frame/paths.h"

namespace nvframe {

// The old per-user data, which only formats before 3.0 keep.
inline constexpr const wchar_t kDataKeyPath[] = L"SOFTWARE\\Norvane\\DB\\Data";
// The converters keep the database in the 32-bit view.
inline constexpr REGSAM kDatabaseKeyView = KEY_WOW64_32KEY;

// True only when the database key opens and both Data and MainDB are certainly
// absent (ERROR_FILE_NOT_FOUND). A subkey that exists but cannot be opened, or any
// other failure, answers false: the caller then treats the database as not finished.
inline bool IsDatabaseLayout30() noexcept
{
    HKEY db = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, nv::kDatabaseKeyPath, 0, KEY_READ | kDatabaseKeyView, &db) !=
        ERROR_SUCCESS)
        return false;
    ::RegCloseKey(db);
    for (const wchar_t* path : {kDataKeyPath, kMainDBKeyPath}) {
        HKEY key = nullptr;
        const LONG r = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ | kDatabaseKeyView, &key);
        if (r == ERROR_SUCCESS)
            ::RegCloseKey(key);
        if (r != ERROR_FILE_NOT_FOUND)
            return false;
    }
    return true;
}

} // namespace nvframe
