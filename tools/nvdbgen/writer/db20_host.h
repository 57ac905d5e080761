// Host side of a written database: the host identifier, the machine key container
// named after it, and the signed export records in which secrets are stored.
#pragma once
#include <windows.h>
#include <wincrypt.h>
#include <string>
#include "writer/db20_der.h"

namespace nvwriter {

// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}", the container name of a host identifier.
std::wstring Db20ContainerName(const GUID& hostId);

// Writes NVHOST\HostId (32-bit view) as 16 bytes in network byte order.
void Db20WriteHostId(const GUID& hostId);

// Replaces the machine container of the host identifier by a new one holding an
// exportable 2048-bit AT_KEYEXCHANGE RSA key. The creating handle is released before
// it returns: a new key is only visible to other handles after that.
void Db20CreateMachineContainer(const GUID& hostId);

// Deletes the machine container; S_OK also when there was none.
HRESULT Db20DeleteMachineContainer(const GUID& hostId) noexcept;

// A signed export record as the old product wrote it: X509_CERT over SEQUENCE OF ANY
// { OCTET STRING data, BIT STRING source host GUID, BIT STRING target GUID, time },
// signed with md5RSA by the provider's key-exchange key.
DerBytes Db20ExportRecord(HCRYPTPROV hProv, const DerBytes& data, const GUID& source, const GUID& target,
                          const FILETIME& when);

// X509_CERT over the given to-be-signed bytes, signed with md5RSA by the key-exchange key.
// With no provider (0) the envelope carries a filler signature that verifies against no key.
DerBytes Db20SignedEnvelope(HCRYPTPROV hProv, const DerBytes& toBeSigned);

} // namespace nvwriter
