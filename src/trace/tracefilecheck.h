// The trace file's safety checks. The library runs elevated, but the trace file's
// folder may lie where users can create entries (a drive's root, ProgramData). A
// junction, symbolic link or mount point planted on the path, or a file of the
// user's own waiting there, would make the elevated process create, truncate or
// append to a file the user chose. So the file is opened without truncating and
// without following a link in its last part, the system is asked what was opened,
// and the file is used only when the answers are those of a plain local file of
// an administrator's; otherwise there is no trace output for that process.
//
// JudgeTraceFile is the decision on the system's answers alone, so that it can be
// checked with answers recorded from cases the test platform cannot produce.
#pragma once
#include <windows.h>
#include <string>

namespace NVTraceNS {

// What the system answered about an opened trace file.
struct TraceFileFacts {
    std::wstring requested;      // the full path asked for, in its long form
    std::wstring finalPath;      // GetFinalPathNameByHandleW (VOLUME_NAME_DOS) of the handle
    DWORD attributes = 0;        // of the opened file itself
    DWORD links = 1;             // hard links to the file
    bool existed = false;        // opened, not created by this open
    std::wstring owner;          // the file's owner as a SID string ("S-1-5-32-544")
    std::wstring processUser;    // this process's user as a SID string
};

enum class TraceFileVerdict {
    Accepted,
    NotALocalPath,  // UNC, device or network path
    Redirected,     // a link on the way: the file opened is not the file asked for
    ReparsePoint,   // the file itself is a link or mount point
    HardLinked,     // the file has other names, perhaps where users can reach
    ForeignOwner,   // an existing file owned by neither System, Administrators nor us
};

// True for "X:\..." and "\\?\X:\...": a path on a local drive letter, not UNC,
// not a device.
bool IsLocalDrivePath(const std::wstring& fullPath) noexcept;

// The same for a path as given (relative paths against the current folder), and
// false as well on a drive letter the system reports as mapped to a share
// (DRIVE_REMOTE). OpenCheckedTraceFile and ProbeTraceFile ask this before they open
// or search anything.
bool IsLocalTracePath(const wchar_t* path) noexcept;

// The drive-type query behind that answer; null for GetDriveTypeW. Tests set it to
// answer for a drive mapped to a share, which the test platform cannot make.
extern UINT(WINAPI* g_pfnDriveTypeForTests)(LPCWSTR root);

// The decision on the facts; Accepted only for a plain local file.
TraceFileVerdict JudgeTraceFile(const TraceFileFacts& facts);

// Opens the trace file for appending (creating it when missing), checks it, and
// empties it unless append is asked for. INVALID_HANDLE_VALUE when the file cannot
// be opened or is refused (the verdict says which, when it was judged); a file this
// call created and then refused is deleted again.
HANDLE OpenCheckedTraceFile(const wchar_t* path, DWORD access, bool append, TraceFileVerdict* verdict) noexcept;

// What the file at path would be judged, without creating or changing anything:
// an existing file as OpenCheckedTraceFile judges it, a missing one by the nearest
// folder on its path that exists. Accepted when nothing refusable is found. For a
// host that asked for a trace and wants to say why none was written.
TraceFileVerdict ProbeTraceFile(const wchar_t* path) noexcept;

// The security of a folder the trace facility creates: a protected list giving
// System and Administrators full access, inherited by what is created inside, and
// nobody else anything. Owned by the caller (LocalFree); null when it cannot be built.
PSECURITY_DESCRIPTOR NewTraceFolderSecurity() noexcept;

} // namespace NVTraceNS
