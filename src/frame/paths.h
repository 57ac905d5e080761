// Registry paths of the conversion frame, relative to HKEY_LOCAL_MACHINE.
#pragma once
#include <windows.h>
#include <nvdbconv/nvdbconv.h>

namespace nvframe {

// The key that only a database still being converted to 3.0 holds.
inline constexpr const wchar_t kMainDBKeyPath[] = NVDBCONV_KEY_MAINDB;

// The only backup keys the converters write: CConverter2's and CConverter3's.
inline constexpr const wchar_t kBackup10KeyPath[] = NVDBCONV_KEY_BACKUP_10;
inline constexpr const wchar_t kBackup20KeyPath[] = NVDBCONV_KEY_BACKUP_20;

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
