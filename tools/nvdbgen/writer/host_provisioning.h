// Host provisioning: puts a machine into the state the suite's host service leaves
// it in, and writes signed export records the way the old product wrote them.
//
//   - "HostId" under HKLM\SOFTWARE\Norvane\NVHOST: REG_BINARY, 16 bytes, the GUID's
//     first three fields most significant byte first, the last 8 bytes as they stand;
//   - the machine key container named "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" after
//     it, with an exportable 2048-bit RSA key-exchange key.
//
// This is writer code: it creates what the library only opens, and it spells out
// every byte order and DER layout on its own, so that it can check the library
// rather than repeat it. Every function raises _com_error on failure.
#pragma once
#include <windows.h>
#include <wincrypt.h>
#include <string>
#include <vector>

#include "common/handles.h"

namespace nvwriter {

inline constexpr const wchar_t kHostKeyPath[] = L"SOFTWARE\\Norvane\\NVHOST";
inline constexpr const wchar_t kHostIdValueName[] = L"HostId";
inline constexpr const wchar_t kHostKeyProvider[] = L"Microsoft Enhanced Cryptographic Provider v1.0";
inline constexpr DWORD kHostKeyBits = 2048;
inline constexpr const char kMd5RsaOid[] = "1.2.840.113549.1.1.4";

// ---- host identifier ----------------------------------------------------

// The 16 bytes of a GUID as "HostId" and the export records carry them.
std::vector<BYTE> HostIdBytes(const GUID& id);
// The container name of a host identifier.
std::wstring ContainerNameOf(const GUID& id);

// Creates the NVHOST key in the view (default: the 32-bit view the suite uses) and
// writes "HostId" for the identifier.
void WriteHostId(const GUID& id, REGSAM view = KEY_WOW64_32KEY);

// ---- machine key container ----------------------------------------------

// The size of the key-exchange key that a new machine container gets: kHostKeyBits,
// as the old product made it, unless this process asked for another size. Tests
// that never look at the key ask for 1024 bits, which a provider makes in a tenth
// of the time; 0 restores the product's size.
DWORD HostKeyBits();
void SetHostKeyBits(DWORD bits);

// Creates the machine container of the identifier and its key, then releases the
// creating handle: only then do other handles see the key. Raises NTE_EXISTS when
// the container exists already.
void CreateMachineContainer(const GUID& id);
// Deletes the machine container; false when there was none.
bool DeleteMachineContainer(const GUID& id);
// True when a machine container of that name can be opened.
bool MachineContainerExists(const GUID& id);
// Opens (never creates) the machine container of the identifier.
nv::unique_hcryptprov OpenMachineContainer(const GUID& id);

// WriteHostId, then a fresh container (a leftover of the same name is deleted first).
void ProvisionHost(const GUID& id, REGSAM view = KEY_WOW64_32KEY);

// The DER SubjectPublicKeyInfo of a provider's key-exchange key.
std::vector<BYTE> PublicKeyInfoOf(HCRYPTPROV hProv);

// ---- signed export records ----------------------------------------------

// The four items of an export record. The old product put the identifiers through
// a decode that never succeeded, so its records carry empty identifier bit strings:
// leave sourceBits and targetBits empty for a record as it wrote them, or use
// HostIdBytes() for a record with readable identifiers.
struct ExportRecordItems {
    std::vector<BYTE> data;       // item 0: OCTET STRING content
    std::vector<BYTE> sourceBits; // item 1: BIT STRING content (source host)
    std::vector<BYTE> targetBits; // item 2: BIT STRING content (target)
    FILETIME time{};              // item 3: UTC export time; all zero means now
};

// A signed export record: SEQUENCE OF ANY of the four items, signed with md5RSA by
// the provider's key-exchange key, as an X509_CERT structure.
std::vector<BYTE> MakeExportRecord(HCRYPTPROV hProv, const ExportRecordItems& items);
// The same envelope around any list of ready DER items (records of odd shape).
std::vector<BYTE> MakeSignedSequence(HCRYPTPROV hProv, const std::vector<std::vector<BYTE>>& derItems,
                                     const char* signatureOid = kMd5RsaOid);

// DER items, through CryptEncodeObject.
std::vector<BYTE> EncodeOctetString(const std::vector<BYTE>& content);
std::vector<BYTE> EncodeBitString(const std::vector<BYTE>& content, DWORD unusedBits = 0);
std::vector<BYTE> EncodeTime(const FILETIME& utc);

} // namespace nvwriter
