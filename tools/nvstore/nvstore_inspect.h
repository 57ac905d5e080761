// Inspection of the reference store, for tests and tools: reads what the store
// holds straight from its registry layout and key containers (not through COM),
// opens sealed secrets with the user's private key, and switches the store's test
// behaviours. SIDs may be given in any case; they are canonicalised.
//
// Readers answer empty/false for what is missing. Nothing here changes a user's
// data except the behaviour switches and DeleteStoreKeyContainers.
#pragma once
#include <windows.h>
#include <map>
#include <string>
#include <vector>

namespace nvstore {
namespace inspect {

using Bytes = std::vector<BYTE>;

// Users with a record in the store, sorted.
std::vector<std::wstring> ListUsers();
bool UserExists(const std::wstring& sid);
// Secret name -> stored bytes (as PutSecret received them).
std::map<std::wstring, Bytes> ListSecrets(const std::wstring& sid);
// Template position -> stored bytes.
std::map<DWORD, Bytes> ListTemplates(const std::wstring& sid);
bool GetPayload(const std::wstring& sid, Bytes* payload);
// Caller-set properties (name -> bytes); the computed public key is not among them.
std::map<std::wstring, Bytes> ListProperties(const std::wstring& sid);

// Registered users, sorted.
std::vector<std::wstring> ListRegistered();
bool IsRegistered(const std::wstring& sid);

// The user's key pair: its container name (empty without one) and public key.
std::wstring KeyContainerName(const std::wstring& sid);
bool GetPublicKey(const std::wstring& sid, Bytes* publicKeyBlob);

// Password verifier and failed count.
bool HasPassword(const std::wstring& sid);
bool CheckPassword(const std::wstring& sid, const std::wstring& password);
DWORD FailedCount(const std::wstring& sid);

// Opens a sealed secret (SEQUENCE { OCTET STRING SIMPLEBLOB, OCTET STRING
// ciphertext }) with the user's private key. S_OK and the plain bytes, or the
// failing step's code (decoding, container, import, decryption).
HRESULT OpenSealedSecret(const std::wstring& sid, const Bytes& sealed, Bytes* plain);
// The same for the secret stored under the name; HRESULT_FROM_WIN32(ERROR_NOT_FOUND)
// when there is none.
HRESULT OpenStoredSecret(const std::wstring& sid, const std::wstring& name, Bytes* plain);

// Deletes every machine key container the store made (tests: before and after).
void DeleteStoreKeyContainers();

// The password authentication info blob as the contract lays it out: header,
// first string at byte 40, second string after it. The header's pointers hold the
// given pointer values (the sender's addresses; receivers must not use them).
Bytes BuildPasswordAuthInfo(DWORD kind, const std::wstring& first, const std::wstring& second,
                            ULONG_PTR firstPointer = 0, ULONG_PTR secondPointer = 0);

// Test behaviours (HKLM\SOFTWARE\Norvane\Store\TestBehaviours).
void SetFailOpenUser(const std::vector<std::wstring>& sids, HRESULT result = E_ACCESSDENIED);
void SetNoAuthService(bool on);
void SetNoUserProperties(bool on);
void SetNoUserPayload(bool on);
void SetNoUserTemplates(bool on);
void SetNoUserRegistry(bool on);
void SetNoUserSecrets(bool on);
// These store calls fail with the result (S_OK: they work again).
void SetFailPutPayload(HRESULT result);
void SetFailCheckUser(HRESULT result);
void SetFailAddUser(HRESULT result);
void SetFailPutTemplateAt(DWORD position, HRESULT result = E_FAIL);
void SetAlreadyRegistered(const std::vector<std::wstring>& sids);
void SetExistingPublicKey(const std::vector<std::wstring>& sids);
void SetUserKeyBits(DWORD bits);
// The next `count` key pairs the store makes are stored with a damaged private part
// (0: none).
void SetFaultyKeyPairs(DWORD count);
// PutSecret of these secret names fails with the result.
void SetFailPutSecret(const std::vector<std::wstring>& names, HRESULT result = E_FAIL);
// The store ends its process at this stage (storelayout.h names them); "" clears it.
void SetStopAt(const std::wstring& stage);
void ClearTestBehaviours();

// Hex text of bytes (lower case, no separators), as nvstorectl prints them.
std::wstring ToHex(const Bytes& bytes);
bool FromHex(const std::wstring& text, Bytes* bytes);

} // namespace inspect
} // namespace nvstore
