// The template encoder: a fingerprint template of the old database in the form the
// storage server's PutTemplate takes.
//
// DER, three SEQUENCE OF ANY deep, items by position:
//   SEQUENCE {
//     SEQUENCE {                         -- the data-object part
//       SEQUENCE {                       -- BI_DATAOBJECT_INFO, its five fields in order
//         INTEGER dwFormat (unsigned), INTEGER dwFlags (unsigned),
//         OCTET STRING guidType, OCTET STRING guidOwner (16 bytes in memory order),
//         INTEGER dwSize (unsigned) },
//       INTEGER lHeaderValue (signed) },
//     OCTET STRING template data }
// The fields are copied unchanged; their meaning belongs to the template record.
#pragma once
#include <windows.h>
#include "common/cryptblob.h"
#include "legacydb/records.h"

// Replaces the blob's content by the encoded template. Raises _com_error with the
// encoder's last error, or E_OUTOFMEMORY.
void EncodeTemplate(const CNVTemplate& tmpl, nv::CCryptBlob& blob);
