// Secret packing: the routines that carry a user's secrets from their format 2.0
// form into the form the format 3.0 store takes.
//
// - UnpackPasswordAndPin splits an opened 2.0 combined password secret.
// - PackPassword builds the 3.0 password secret.
// - EncryptEx seals any secret for one user under that user's public key.
// - ScrambleSecret / UnscrambleSecret: the password secrets' byte-for-byte
//   scrambling (the shared block cipher in CFB mode with the deployment's key).
//
// Blobs belong to the caller; a routine frees a blob's old data before it puts new
// data in. Every temporary that held a password, a PIN or a decoded SEQUENCE is
// zeroed before it is freed.
#pragma once
#include <windows.h>
#include <wincrypt.h>
#include "common/cryptblob.h"

// Scrambles cb bytes in place.
void ScrambleSecret(BYTE* pbData, DWORD cbData) noexcept;
// Unscrambles cb bytes of pbSource into pbTarget (a separate buffer).
void UnscrambleSecret(const BYTE* pbSource, BYTE* pbTarget, DWORD cbData) noexcept;

// Splits a combined password secret (scrambled SEQUENCE: version 1 to 9, optional
// password, optional PIN) into a password and a PIN, each handed out as a BSTR the
// caller frees; either output may be null. Results: S_OK; 0x80070002 for an empty
// content; NTE_BAD_DATA for a SEQUENCE without items or a version of 0 or above 9;
// decoding failures by their CryptoAPI code; E_OUTOFMEMORY. Outputs are only written
// once the version has been accepted: the PIN is none unless item 2 holds a
// non-empty string; the password is none unless item 1 exists (an empty one is an
// empty BSTR).
HRESULT UnpackPasswordAndPin(const CRYPT_DATA_BLOB* pContent, BSTR* pbstrPassword, BSTR* pbstrPin);

// Replaces blob's content by the 3.0 password secret of the password (null packs
// the empty password): the scrambled SEQUENCE { 1, password }. Raises _com_error.
void PackPassword(const wchar_t* pwszPassword, nv::CCryptBlob& blob);

// Seals blob's plain content for the owner of hPublicKey (or, with none, for the
// provider's own key-exchange key): SEQUENCE { OCTET STRING SIMPLEBLOB of a new
// session key of algorithm algId under that key, OCTET STRING the content encrypted
// with the session key }. On success the blob holds the sealed secret; on failure
// it keeps its old content and the CryptoAPI code is returned. A memory shortage
// (an allocation, or a call failing with an out-of-memory error) is raised as
// E_OUTOFMEMORY instead: it says nothing about the secret.
HRESULT EncryptEx(nv::CCryptBlob& blob, HCRYPTPROV hProv, HCRYPTKEY hPublicKey, ALG_ID algId);
