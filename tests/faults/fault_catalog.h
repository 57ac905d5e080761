// What the fault harness does with each function the library imports.
//
// Every import of a covered family (the registry and the rest of advapi32, crypt32,
// COM and OLE automation, network management, and the heap and allocation functions
// of kernel32 and the C runtime) must be listed here: either as a function that is
// counted and failed, with the result and last error a real failure of that call
// gives, or as one that is passed through with a reason (releases, pure queries).
// An import of a covered family that is not listed stops the harness, so a new
// import cannot escape the sweep unnoticed.
#pragma once
#include <windows.h>
#include <string>
#include <vector>

namespace nvfaults {

// How a failing call reports its failure to the caller.
enum class FailStyle {
    Pass,         // never failed, never counted
    Win32Result,  // returns the error code itself (registry, SetSecurityInfo, netapi32)
    BoolFalse,    // returns FALSE and sets the last error
    NullPointer,  // returns a null pointer (allocations) and sets the last error
    HResult,      // returns the error as an HRESULT
    ZeroInt,      // returns 0 (StringFromGUID2: buffer too small)
};

struct CatalogEntry {
    const char* dll;      // lower case, as the import directory names it
    const char* function;
    FailStyle style;
    DWORD error;          // the result or last error of a failed call
    const char* note;     // why it is passed through, or what the error means
};

// Every entry.
std::vector<CatalogEntry> Catalog();

// The entry for an import, or null when the import is not listed.
const CatalogEntry* FindEntry(const std::string& dll, const std::string& function);

// True when the import belongs to a family the harness must cover.
bool IsCoveredFamily(const std::string& dll, const std::string& function);

// Lower-case copy.
std::string Lower(std::string s);

} // namespace nvfaults
