// Registry paths of the conversion frame, relative to HKEY_LOCAL_MACHINE.
#pragma once
#include <windows.h>

namespace nvframe {

// The key that only a database still being converted to 3.0 holds.
inline constexpr const wchar_t kMainDBKeyPath[] = L"SOFTWARE\\Norvane\\DB\\MainDB";

// The only backup keys the converters write: CConverter2's and CConverter3's.
inline constexpr const wchar_t kBackup10KeyPath[] = L"SOFTWARE\\Norvane\\DB-v1.0";
inline constexpr const wchar_t kBackup20KeyPath[] = L"SOFTWARE\\Norvane\\DB-v2.0";

// True when a "Backup" value names one of the two backup keys above, compared
// without regard to case and with nothing before or after. Rollback and Cleanup
// delete, and copy from, whatever "Backup" names, elevated; anything else in it was
// put there by someone other than this library and is refused.
inline bool IsLibraryBackupPath(const wchar_t* path) noexcept
{
    if (!path)
        return false;
    for (const wchar_t* known : {kBackup10KeyPath, kBackup20KeyPath}) {
        if (::CompareStringOrdinal(path, -1, known, -1, TRUE) == CSTR_EQUAL)
            return true;
    }
    return false;
}

} // namespace nvframe
