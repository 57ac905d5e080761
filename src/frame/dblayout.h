// Whether the database under HKLM\SOFTWARE\Norvane\DB is laid out as format 3.0:
// the key is there and holds neither Data nor MainDB. "Version" cannot say so: the
// 2.0 -> 3.0 step leaves it reading 2.x, and the library still offers that step for
// it. A host asks this before Convert so that a finished conversion is not run
// again (which would make a backup and then fail on the missing Data\Users).
// The test itself is the SDK header's NVDBConvIsDatabaseLayout30, so that the
// library, its tools and every host outside judge by the same code.
#pragma once
#include <windows.h>
#include <nvdbconv/nvdbconv.h>

#include "frame/paths.h"

namespace nvframe {

// The old per-user data, which only formats before 3.0 keep.
inline constexpr const wchar_t kDataKeyPath[] = NVDBCONV_KEY_DATA;
// The converters keep the database in the 32-bit view.
inline constexpr REGSAM kDatabaseKeyView = NVDBCONV_DATABASE_VIEW;

// True only when the database key opens and both Data and MainDB are certainly
// absent (ERROR_FILE_NOT_FOUND). A subkey that exists but cannot be opened, or any
// other failure, answers false: the caller then treats the database as not finished.
inline bool IsDatabaseLayout30() noexcept { return NVDBConvIsDatabaseLayout30() != FALSE; }

} // namespace nvframe
