// Run-time loads of Windows' own libraries, from the system directory only.
//
// The library runs inside elevated installers that are often started from a
// downloads folder. A load by bare name searches the application's folder and the
// current directory first, so a DLL planted there would run with the installer's
// rights. Every run-time load of a system library goes through here instead; there
// is no fallback to the ordinary search: where the system refuses the restricted
// search, the load fails and the caller takes its "not available" path.
#pragma once
#include <windows.h>

namespace nv {

// The only search a run-time load of a system library may use.
constexpr DWORD kSystemLibrarySearch = LOAD_LIBRARY_SEARCH_SYSTEM32;

// Loads a system library (a bare file name such as L"version.dll") from the system
// directory; null with the loader's last error when it is not there.
inline HMODULE LoadSystemLibrary(const wchar_t* fileName) noexcept
{
    return ::LoadLibraryExW(fileName, nullptr, kSystemLibrarySearch);
}

// For executables, first thing in main: every later load without explicit search
// flags (and the dependencies of every DLL loaded later) is looked up in the system
// directory only. Statically imported DLLs are resolved before main runs, which is
// why the tools import nothing outside the set Windows always takes from there.
inline bool RestrictDllSearchToSystemDirectory() noexcept
{
    return ::SetDefaultDllDirectories(kSystemLibrarySearch) != FALSE;
}

} // namespace nv
