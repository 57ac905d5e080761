// The stored form of a user secret in the legacy database.
//
// A secret field is a signed export record whose data is a SEQUENCE OF ANY read by
// position:
//   0  object header: SEQUENCE OF ANY { GUID (octets, network order), type code,
//      further 32-bit value }
//   1  type code kSecretTypeCode: the secret's GUID (octets, network order, 16 bytes)
//      other type code: an older secret object description (below), which gives
//      the GUID and the name in place of items 1 and 2
//   2  type code kSecretTypeCode: the name (X509_NAME_VALUE, string types only,
//      at most kSecretNameMax characters kept)
//   3  the sealed content (octets), opened by CNVSecret::GetContent
//
// Older secret object description (written by the releases before the current type
// code, kOlderSecretTypeCode there): a SEQUENCE OF ANY of
//   0  description version, a number (1)
//   1  the name (X509_NAME_VALUE, same rules as item 2 above)
//   2  the GUID (octets, network order)
//   3  flags, a number (not used)
// Item 2 of such a record is not read (those releases wrote an empty OCTET STRING
// there). After it has been read the record carries kSecretTypeCode like any other.
#pragma once
#include <windows.h>
#include <wincrypt.h>
#include "legacydb/records.h"

class INVExportImportExt;

namespace LegacyNVDB2 {

constexpr DWORD kOlderSecretTypeCode = 0x10010001;

// Decodes one field into the secret. With an importer the field is first opened as
// an export record (its failure is raised as _com_error); without one the field's
// bytes are the list itself. S_OK when the list had two or more items; S_FALSE when
// it had one (that item alone is read as the list) or none (nothing is read).
HRESULT DecodeSecretField(INVExportImportExt* pImporter, const CRYPT_DATA_BLOB& field, CNVSecret& secret);

} // namespace LegacyNVDB2
