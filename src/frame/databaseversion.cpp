#include "frame/databaseversion.h"

#include <cwchar>

namespace nvframe {

DWORD ParseDatabaseVersion(const wchar_t* wszVersion) noexcept
{
    const long major = std::wcstol(wszVersion, nullptr, 10);
    long minor = 0;
    if (const wchar_t* dot = std::wcschr(wszVersion, L'.'))
        minor = std::wcstol(dot + 1, nullptr, 10);
    // The major part is shifted as it is, not masked first.
    return (static_cast<DWORD>(major) << 16) | (static_cast<DWORD>(minor) & 0xFFFFu);
}

} // namespace nvframe
