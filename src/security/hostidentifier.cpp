#include "security/hostidentifier.h"

#include <objbase.h>
#include <cstring>

#include "common/hresult.h"
#include "common/keydacl.h"
#include "common/keysecurity.h"
#include "common/replaceablecalls.h"

namespace nvsecurity {

namespace {

// Open or create the host key with whatever the caller's token allows.
constexpr REGSAM kHostKeyAccess = MAXIMUM_ALLOWED;

// Protected DACL: LocalSystem and Administrators full access, Users read, all
// inherited by subkeys. Best effort: every failure leaves the key as it was.
void ProtectHostKey(HKEY key) noexcept
{
    if (!CallerIsPrivileged())
        return;
    nv::Guarded([&]() -> HRESULT { return nv::SetProtectedKeyDacl(key, kHostKeyUsersAccess); });
}

// "HostId" as a GUID. Only a value that is really missing reads as the zero GUID,
// which the caller replaces: no value at all (ERROR_FILE_NOT_FOUND), another type
// than REG_BINARY, another length than 16 bytes, or all zero bytes. Any other
// failure (access denied, a size read that fails, a data read that fails after the
// size read worked) is raised: the machine's identifier names its key container
// and every sealed record, so a read error must never turn into a new one.
GUID ReadHostId(HKEY key)
{
    DWORD type = REG_NONE, cb = 0;
    LONG r = nv::CallRegQueryValueExW(key, kHostIdValue, &type, nullptr, &cb);
    if (r == ERROR_FILE_NOT_FOUND)
        return GUID{};
    nv::ThrowIfWin32Failed(r);
    if (type != REG_BINARY || cb != sizeof(GUID))
        return GUID{};
    BYTE bytes[sizeof(GUID)] = {};
    r = nv::CallRegQueryValueExW(key, kHostIdValue, &type, bytes, &cb);
    nv::ThrowIfWin32Failed(r);
    if (type != REG_BINARY || cb != sizeof(GUID))
        return GUID{};
    return GuidFromNetworkBytes(bytes, cb);
}

} // namespace

void GuidToNetworkBytes(const GUID& guid, BYTE (&bytes)[16]) noexcept
{
    bytes[0] = static_cast<BYTE>(guid.Data1 >> 24);
    bytes[1] = static_cast<BYTE>(guid.Data1 >> 16);
    bytes[2] = static_cast<BYTE>(guid.Data1 >> 8);
    bytes[3] = static_cast<BYTE>(guid.Data1);
    bytes[4] = static_cast<BYTE>(guid.Data2 >> 8);
    bytes[5] = static_cast<BYTE>(guid.Data2);
    bytes[6] = static_cast<BYTE>(guid.Data3 >> 8);
    bytes[7] = static_cast<BYTE>(guid.Data3);
    std::memcpy(bytes + 8, guid.Data4, sizeof(guid.Data4));
}

GUID GuidFromNetworkBytes(const BYTE* bytes, DWORD cb) noexcept
{
    GUID guid{};
    if (!bytes || cb != sizeof(GUID))
        return guid;
    guid.Data1 = (static_cast<DWORD>(bytes[0]) << 24) | (static_cast<DWORD>(bytes[1]) << 16) |
                 (static_cast<DWORD>(bytes[2]) << 8) | bytes[3];
    guid.Data2 = static_cast<WORD>((bytes[4] << 8) | bytes[5]);
    guid.Data3 = static_cast<WORD>((bytes[6] << 8) | bytes[7]);
    std::memcpy(guid.Data4, bytes + 8, sizeof(guid.Data4));
    return guid;
}

bool IsZeroGuid(const GUID& guid) noexcept
{
    static const GUID zero{};
    return std::memcmp(&guid, &zero, sizeof(GUID)) == 0;
}

void FormatContainerName(const GUID& hostId, wchar_t (&name)[kContainerNameChars]) noexcept
{
    if (::StringFromGUID2(hostId, name, static_cast<int>(kContainerNameChars)) == 0)
        name[0] = L'\0';
}

bool CallerIsPrivileged() noexcept
{
    // A token that cannot be read grants nothing.
    return nv::BestEffort([] { return nv::CallerIsSystemOrAdministrator(); }, false);
}

// Opens HKLM\SOFTWARE\Norvane\NVHOST in the caller's view, creating it when it
// cannot be opened, and replaces its DACL for privileged callers.
void OpenHostKey(nv::CNVRegKey& key, REGSAM samView)
{
    key.m_samWOW64 = samView;
    const REGSAM access = kHostKeyAccess | samView;
    if (key.Open(HKEY_LOCAL_MACHINE, kHostKeyPath, access) != ERROR_SUCCESS) {
        LONG r = key.Create(HKEY_LOCAL_MACHINE, kHostKeyPath, access);
        nv::ThrowIfWin32Failed(r);
        if (!key.Get())
            nv::ThrowHr(E_FAIL);
    }
    ProtectHostKey(key);
}

// The host identifier; a fresh one is written when the value holds none.
GUID ReadOrCreateHostId(HKEY key)
{
    GUID id = ReadHostId(key);
    if (!IsZeroGuid(id))
        return id;
    GUID fresh{};
    nv::ThrowIfFailed(::CoCreateGuid(&fresh));
    BYTE bytes[sizeof(GUID)];
    GuidToNetworkBytes(fresh, bytes);
    nv::ThrowIfWin32Failed(::RegSetValueExW(key, kHostIdValue, 0, REG_BINARY, bytes, sizeof(bytes)));
    id = ReadHostId(key);
    if (IsZeroGuid(id))
        nv::ThrowHr(E_FAIL);
    return id;
}

} // namespace nvsecurity
