// The host identifier: the GUID in "HostId" of HKLM\SOFTWARE\Norvane\NVHOST that
// names the machine's key container, and the GUID forms the library stores.
//
// OpenHostKey and ReadOrCreateHostId raise _com_error; the other functions cannot
// fail.
#pragma once
#include <windows.h>
#include <cstddef>
#include "common/regkey.h"

namespace nvsecurity {
// Paths and names shared by the library's users of the host identifier.
inline constexpr const wchar_t kHostKeyPath[] = L"SOFTWARE\\Norvane\\NVHOST";
inline constexpr const wchar_t kHostIdValue[] = L"HostId";
// Access of the Users group on the NVHOST key once its DACL is replaced (KEY_READ).
inline constexpr ACCESS_MASK kHostKeyUsersAccess = 0x20019;
// The container name: "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" and its terminator.
inline constexpr size_t kContainerNameChars = 39;

// The GUID typed value: 16 bytes, the first three fields most significant byte
// first, the last 8 bytes as they stand.
void GuidToNetworkBytes(const GUID& guid, BYTE (&bytes)[16]) noexcept;
// The reverse; any length other than 16 gives the all-zero GUID.
GUID GuidFromNetworkBytes(const BYTE* bytes, DWORD cb) noexcept;
bool IsZeroGuid(const GUID& guid) noexcept;

// The machine container's name for a host identifier: the registry form of the
// GUID, upper-case hexadecimal in braces.
void FormatContainerName(const GUID& hostId, wchar_t (&name)[kContainerNameChars]) noexcept;

// The privilege test for replacing access lists: the caller's effective token (the
// thread's when impersonating, else the process's) belongs to LocalSystem or holds
// the Administrators group (a deny-only group, as in a restricted token, does not
// count). The same rule as the base converter's access grant.
bool CallerIsPrivileged() noexcept;

// Opens HKLM\SOFTWARE\Norvane\NVHOST in the caller's view, creating it when it
// cannot be opened, and replaces its DACL for privileged callers (best effort).
void OpenHostKey(nv::CNVRegKey& key, REGSAM samView);

// The host identifier in the open host key; a fresh one is written when the value
// holds none. Only a value that is really missing counts as none: a read error is
// raised, never replaced by a new identifier.
GUID ReadOrCreateHostId(HKEY key);

} // namespace nvsecurity
