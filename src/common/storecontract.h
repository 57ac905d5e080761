// The storage server's contract: the COM interfaces of the suite's credential store,
// its fixed identifiers and the layout of the password authentication info. One
// header, shared by the converter (the client) and the reference server
// (tools/nvstore).
//
// Conventions of every operation:
// - Every operation returns an HRESULT; failing calls leave their out-parameters
//   untouched unless stated otherwise.
// - A user is named by an identifier string and an identifier kind. The only kind
//   defined is kUserIdKindSid (8): the identifier is the user's SID in its string
//   form ("S-1-5-21-..."). Any other kind is E_INVALIDARG.
// - Blobs cross as CryptoAPI data blobs (32-bit byte count, data pointer). In-blobs
//   belong to the caller and are only read during the call. Out-blobs are allocated
//   by the server with CoTaskMemAlloc and freed by the caller with CoTaskMemFree;
//   the caller passes a blob whose fields the server overwrites (it never frees
//   what they held). Out strings are BSTRs (SysFreeString).
// - Enumerations take a zero-based index and return S_FALSE (out value untouched)
//   once the index is past the end.
// - "Not found" for a named item is HRESULT_FROM_WIN32(ERROR_NOT_FOUND).
#pragma once
#include <windows.h>
#include <wincrypt.h>
#include <objbase.h>
#include <unknwn.h>
#include <cstddef>

// Interface identifiers, one literal each; __uuidof and the named constants below
// both come from these.
#define NVSTORE_IID_IUSERSTORE_WORDS 0x35514A5D, 0x95B8, 0x4A67, 0x85, 0xD0, 0x44, 0xA8, 0x4F, 0x2A, 0x41, 0x65
#define NVSTORE_IID_ISTORESERVICE_WORDS 0x9B61C1C3, 0xEC89, 0x4116, 0x97, 0xA0, 0xA2, 0x8D, 0x37, 0x66, 0x75, 0x33
#define NVSTORE_IID_IAUTHSERVICE_WORDS 0xBA0993F6, 0xBB90, 0x44BB, 0xA0, 0x1B, 0xC0, 0x45, 0xE4, 0x13, 0x27, 0x9F
#define NVSTORE_IID_IUSERREGISTRY_WORDS 0xB2B43AD5, 0x1FE1, 0x4109, 0x88, 0x95, 0xA8, 0x0B, 0x11, 0x40, 0x2B, 0x50
#define NVSTORE_IID_IUSERSECRETS_WORDS 0x0F0659A1, 0x715E, 0x4E30, 0x82, 0xDB, 0x22, 0x8C, 0xE6, 0x4B, 0x76, 0x8A
#define NVSTORE_IID_IUSERPROPERTIES_WORDS 0x88B8C78C, 0x43E7, 0x4B78, 0xA0, 0xDF, 0x10, 0x06, 0x53, 0xA2, 0x48, 0xFB
#define NVSTORE_IID_IUSERTEMPLATES_WORDS 0x02F795EB, 0xC3E4, 0x460C, 0xB0, 0xCA, 0x1A, 0x60, 0xA0, 0x41, 0x23, 0xF1
#define NVSTORE_IID_IUSERPAYLOAD_WORDS 0x9FCF87FC, 0x09DB, 0x4D78, 0x86, 0xEC, 0xF6, 0x81, 0x0B, 0x5C, 0xF2, 0xA6

// __CRT_UUID_DECL wants the twelve numbers as separate arguments.
#define NVSTORE_UUID_DECL(type, ...) __CRT_UUID_DECL(type, __VA_ARGS__)

// The store: opens users. Obtained with CoCreateInstance(kClsidUserStore, ...,
// kIidUserStore).
struct IUserStore : public IUnknown {
    // 1. Opens the user, creating its record when the store does not know it yet.
    //    *ppUser: the user object; query it for IUserSecrets, IUserTemplates and
    //    IUserPayload (and IUserProperties, also through IUserSecrets).
    //    E_INVALIDARG for an identifier that is not a SID string, E_POINTER for a
    //    null out-pointer.
    virtual HRESULT STDMETHODCALLTYPE OpenUser(LPCWSTR pwszUserId, DWORD dwIdKind, IUnknown** ppUser) = 0;
    // 2. S_OK when the store holds a record for the user, S_FALSE when it does not.
    virtual HRESULT STDMETHODCALLTYPE UserExists(LPCWSTR pwszUserId, DWORD dwIdKind) = 0;
    // 3. Deletes the user's record with its secrets, templates, payload, password
    //    verifier and key pair; the registration (IUserRegistry) is removed too.
    //    S_FALSE when there was no such user.
    virtual HRESULT STDMETHODCALLTYPE DeleteUser(LPCWSTR pwszUserId, DWORD dwIdKind) = 0;
    // 4. The index-th user known to the store (identifier string, its kind).
    virtual HRESULT STDMETHODCALLTYPE EnumUsers(DWORD dwIndex, BSTR* pbstrUserId, DWORD* pdwIdKind) = 0;
};
NVSTORE_UUID_DECL(IUserStore, NVSTORE_IID_IUSERSTORE_WORDS)

// A user's secrets and a user's properties are both a table of named byte blobs with
// the same four operations, declared once here in this order (their vtable order):
// get a copy, put (replacing an item of that name), delete, and enumerate the names.
#define NVSTORE_NAMED_BLOB_METHODS(Get, Put, Delete, Enum)                                  \
    virtual HRESULT STDMETHODCALLTYPE Get(LPCWSTR pwszName, CRYPT_DATA_BLOB* pBlob) = 0;       \
    virtual HRESULT STDMETHODCALLTYPE Put(LPCWSTR pwszName, const CRYPT_DATA_BLOB* pBlob) = 0; \
    virtual HRESULT STDMETHODCALLTYPE Delete(LPCWSTR pwszName) = 0;                            \
    virtual HRESULT STDMETHODCALLTYPE Enum(DWORD dwIndex, BSTR* pbstrName) = 0;

// A user's secrets: named byte blobs, stored as given (the converter hands in
// secrets sealed under the user's public key).
// 1. GetSecret: a copy of the named secret. Not found: HRESULT_FROM_WIN32(ERROR_NOT_FOUND).
// 2. PutSecret: stores the blob under the name, replacing a secret of that name. The
//    empty name is a name like any other. E_INVALIDARG for a null name or blob.
// 3. DeleteSecret: deletes the named secret; S_FALSE when there was none.
// 4. EnumSecrets: the name of the index-th secret.
struct IUserSecrets : public IUnknown {
    NVSTORE_NAMED_BLOB_METHODS(GetSecret, PutSecret, DeleteSecret, EnumSecrets)
};
NVSTORE_UUID_DECL(IUserSecrets, NVSTORE_IID_IUSERSECRETS_WORDS)

// A user's properties: named byte values. kPropertyUserPublicKey is computed by the
// store and read-only; any other name is a value the caller sets.
// 1. GetProperty: the property's value. kPropertyUserPublicKey gives the user's RSA
//    key-exchange public key as a CryptoAPI PUBLICKEYBLOB, or NTE_NO_KEY while the
//    user has no key pair. Other names: not found as above.
// 2. SetProperty: sets a property. E_ACCESSDENIED for kPropertyUserPublicKey.
// 3. DeleteProperty: deletes a property; S_FALSE when there was none. E_ACCESSDENIED
//    for kPropertyUserPublicKey.
// 4. EnumProperties: the name of the index-th property, kPropertyUserPublicKey first
//    when the user has a key pair.
struct IUserProperties : public IUnknown {
    NVSTORE_NAMED_BLOB_METHODS(GetProperty, SetProperty, DeleteProperty, EnumProperties)
};
NVSTORE_UUID_DECL(IUserProperties, NVSTORE_IID_IUSERPROPERTIES_WORDS)

// A user's enrolled fingerprint templates, one per position 0 to 31.
struct IUserTemplates : public IUnknown {
    // 1. The template at the position. Not found as above; E_INVALIDARG above 31.
    virtual HRESULT STDMETHODCALLTYPE GetTemplate(DWORD dwPosition, CRYPT_DATA_BLOB* pTemplate) = 0;
    // 2. Stores the encoded template at the position, replacing what was there.
    //    E_INVALIDARG for a position above 31 or an empty blob.
    virtual HRESULT STDMETHODCALLTYPE PutTemplate(DWORD dwPosition, const CRYPT_DATA_BLOB* pTemplate) = 0;
    // 3. Deletes the template at the position; S_FALSE when there was none.
    virtual HRESULT STDMETHODCALLTYPE DeleteTemplate(DWORD dwPosition) = 0;
    // 4. The positions that hold a template: bit i set for position i.
    virtual HRESULT STDMETHODCALLTYPE GetTemplateMask(DWORD* pdwMask) = 0;
};
NVSTORE_UUID_DECL(IUserTemplates, NVSTORE_IID_IUSERTEMPLATES_WORDS)

// A user's payload: the data the store releases on a successful authentication.
struct IUserPayload : public IUnknown {
    // 1. A copy of the payload. Not found as above while the user has none.
    virtual HRESULT STDMETHODCALLTYPE GetPayload(CRYPT_DATA_BLOB* pPayload) = 0;
    // 2. Stores the payload, replacing the previous one. E_INVALIDARG for an
    //    empty blob.
    virtual HRESULT STDMETHODCALLTYPE PutPayload(const CRYPT_DATA_BLOB* pPayload) = 0;
    // 3. The user this object belongs to (identifier string and kind); how
    //    IUserRegistry::AddUser learns whom it registers.
    virtual HRESULT STDMETHODCALLTYPE GetUserId(BSTR* pbstrUserId, DWORD* pdwIdKind) = 0;
    // 4. Deletes the payload; S_FALSE when there was none.
    virtual HRESULT STDMETHODCALLTYPE DeletePayload() = 0;
};
NVSTORE_UUID_DECL(IUserPayload, NVSTORE_IID_IUSERPAYLOAD_WORDS)

// The store service: created with CoCreateInstance(kClsidUserStore, ...,
// kIidStoreService); query it for IAuthService.
struct IStoreService : public IUnknown {
    // 1. The version of the store's data layout (major in the high 16 bits).
    virtual HRESULT STDMETHODCALLTYPE GetVersion(DWORD* pdwVersion) = 0;
    // 2. The number of users the store holds.
    virtual HRESULT STDMETHODCALLTYPE GetUserCount(DWORD* pdwCount) = 0;
};
NVSTORE_UUID_DECL(IStoreService, NVSTORE_IID_ISTORESERVICE_WORDS)

// Authentication of users. The authentication type says how the authentication
// info blob is read; the store knows kAuthTypePassword (NV_PASSWORD_AUTH_HEADER).
// An unknown type is HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED).
struct IAuthService : public IUnknown {
    // 1. The number of authentication types the store offers.
    virtual HRESULT STDMETHODCALLTYPE GetAuthTypeCount(DWORD* pdwCount) = 0;
    // 2. The index-th authentication type.
    virtual HRESULT STDMETHODCALLTYPE GetAuthType(DWORD dwIndex, GUID* pAuthType) = 0;
    // 3. S_OK when the user has enrolled the type, S_FALSE when not.
    virtual HRESULT STDMETHODCALLTYPE IsEnrolled(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind) = 0;
    // 4. Checks the authentication info without releasing anything: S_OK when it
    //    matches, kStoreWrongPassword when it does not (counted as a failure).
    virtual HRESULT STDMETHODCALLTYPE VerifyAuthentication(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind,
                                                           const CRYPT_DATA_BLOB* pAuthInfo) = 0;
    // 5. The number of failed authentications since the last successful one.
    virtual HRESULT STDMETHODCALLTYPE GetFailedCount(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind,
                                                     DWORD* pdwCount) = 0;
    // 6. Authenticates the user and releases the payload. *pPayload: the user's
    //    payload; *pdwFailedCount: the failed attempts before this success (the
    //    count is then reset); *pExtra: the user's public key as a PUBLICKEYBLOB.
    //    A wrong password is kStoreWrongPassword; a user without a password
    //    enrolment or key pair is kStoreNotEnrolled. A user that has a key pair
    //    but was never given a password (a provisioned account) takes the first
    //    password presented here as its own.
    virtual HRESULT STDMETHODCALLTYPE Authenticate(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind,
                                                   const CRYPT_DATA_BLOB* pAuthInfo, CRYPT_DATA_BLOB* pPayload,
                                                   DWORD* pdwFailedCount, CRYPT_DATA_BLOB* pExtra) = 0;
    // 7. Replaces the password: the old info must match (else kStoreWrongPassword),
    //    the new info is read like an enrolment's (its two strings must agree).
    virtual HRESULT STDMETHODCALLTYPE ChangeAuthentication(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind,
                                                           const CRYPT_DATA_BLOB* pOldAuthInfo,
                                                           const CRYPT_DATA_BLOB* pNewAuthInfo) = 0;
    // 8. Sets the failed count back to 0.
    virtual HRESULT STDMETHODCALLTYPE ResetFailedCount(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind) = 0;
    // 9. Removes the user's enrolment of the type (the key pair and payload stay).
    //    S_FALSE when there was none.
    virtual HRESULT STDMETHODCALLTYPE RemoveAuthentication(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind) = 0;
    // 10. The index-th type the user has enrolled.
    virtual HRESULT STDMETHODCALLTYPE EnumEnrolledTypes(LPCWSTR pwszUserId, DWORD dwIdKind, DWORD dwIndex,
                                                        GUID* pAuthType) = 0;
    // 11. The user's public key as a PUBLICKEYBLOB (NTE_NO_KEY when it has none);
    //     the same value as the user's kPropertyUserPublicKey.
    virtual HRESULT STDMETHODCALLTYPE GetUserPublicKey(LPCWSTR pwszUserId, DWORD dwIdKind,
                                                       CRYPT_DATA_BLOB* pPublicKey) = 0;
    // 12. Enrols the user: creates the user's RSA key pair when it has none,
    //     records a salted verifier of the password (the info's two strings must
    //     agree, else E_INVALIDARG), and sets the payload: the given one, or a new
    //     random one when the given blob is empty and the user has none yet.
    //     *pExtra: the user's public key as a PUBLICKEYBLOB. The user record is
    //     created when missing.
    virtual HRESULT STDMETHODCALLTYPE EnrollAuthentication(REFGUID authType, LPCWSTR pwszUserId, DWORD dwIdKind,
                                                           const CRYPT_DATA_BLOB* pPayload,
                                                           const CRYPT_DATA_BLOB* pAuthInfo,
                                                           CRYPT_DATA_BLOB* pExtra) = 0;
};
NVSTORE_UUID_DECL(IAuthService, NVSTORE_IID_IAUTHSERVICE_WORDS)

// The registry of users the suite lets log on. Obtained with
// CoCreateInstance(kClsidUserStore, ..., kIidUserRegistry).
struct IUserRegistry : public IUnknown {
    // 1. S_OK when the user is registered, S_FALSE (1) when it must be added.
    virtual HRESULT STDMETHODCALLTYPE CheckUser(LPCWSTR pwszUserId, DWORD dwIdKind) = 0;
    // 2. The index-th registered user.
    virtual HRESULT STDMETHODCALLTYPE EnumRegisteredUsers(DWORD dwIndex, BSTR* pbstrUserId, DWORD* pdwIdKind) = 0;
    // 3. Registers the user that owns the payload object (IUserPayload::GetUserId).
    //    S_FALSE when it was registered already; E_POINTER for a null object.
    virtual HRESULT STDMETHODCALLTYPE AddUser(IUserPayload* pPayload) = 0;
    // 4. Removes the registration; S_FALSE when there was none.
    virtual HRESULT STDMETHODCALLTYPE RemoveUser(LPCWSTR pwszUserId, DWORD dwIdKind) = 0;
};
NVSTORE_UUID_DECL(IUserRegistry, NVSTORE_IID_IUSERREGISTRY_WORDS)

namespace nvstore {

// The store's COM class.
inline constexpr CLSID kClsidUserStore = {0x453E7F78, 0x79A5, 0x4152, {0xAA, 0xDC, 0x42, 0x58, 0xA9, 0x94, 0xDF, 0x34}};

// The four interface identifiers of the conversion's calling sequence, in the
// order it uses them: the store (CoCreateInstance), the creator of the
// authentication service (CoCreateInstance, then QueryInterface for the third),
// the authentication service, and the user registry (CoCreateInstance).
inline constexpr const IID& kIidUserStore = __uuidof(IUserStore);
inline constexpr const IID& kIidStoreService = __uuidof(IStoreService);
inline constexpr const IID& kIidAuthService = __uuidof(IAuthService);
inline constexpr const IID& kIidUserRegistry = __uuidof(IUserRegistry);

// Authentication type: a password, given as NV_PASSWORD_AUTH_HEADER and strings.
inline constexpr GUID kAuthTypePassword = {0x450CDEC5, 0xE8D5, 0x4B25, {0x92, 0x61, 0x27, 0x1D, 0x7A, 0x19, 0x19, 0x22}};

// Identifier kind: the user identifier is a SID string.
inline constexpr DWORD kUserIdKindSid = 8;

// The property that holds the user's public key (PUBLICKEYBLOB).
inline constexpr const wchar_t kPropertyUserPublicKey[] = L"UserPublicKey";

// Class context the conversion creates the store with (in-process server and
// handler, local and remote server).
inline constexpr DWORD kStoreClassContext = CLSCTX_INPROC_SERVER | CLSCTX_INPROC_HANDLER | CLSCTX_LOCAL_SERVER |
                                            CLSCTX_REMOTE_SERVER;

// Result codes of authentication.
inline constexpr HRESULT kStoreWrongPassword = static_cast<HRESULT>(0x8007052B); // ERROR_WRONG_PASSWORD
inline constexpr HRESULT kStoreNotEnrolled = static_cast<HRESULT>(0x80070525);   // ERROR_NO_SUCH_USER

} // namespace nvstore

// The password authentication info as it crosses: a 40-byte header, then the first
// string with its terminating zero at byte 40, then the second string with its
// terminating zero at byte 40 + first.MaximumLength. Length counts bytes without
// the terminator, MaximumLength = Length + 2. The Buffer pointers are the sender's
// addresses and mean nothing to the receiver: strings are found by their places.
// Kind 0: first string the password, second string its confirmation.
struct NV_AUTH_STRING {
    USHORT Length;
    USHORT MaximumLength;
    DWORD dwReserved;
    PWSTR Buffer;
};

struct NV_PASSWORD_AUTH_HEADER {
    DWORD dwKind;
    DWORD dwReserved;
    NV_AUTH_STRING first;
    NV_AUTH_STRING second;
};
static_assert(sizeof(NV_AUTH_STRING) == 16, "an auth string header is 16 bytes");
static_assert(sizeof(NV_PASSWORD_AUTH_HEADER) == 40, "the password auth info header is 40 bytes");
static_assert(offsetof(NV_PASSWORD_AUTH_HEADER, first) == 8 && offsetof(NV_PASSWORD_AUTH_HEADER, second) == 24,
              "string headers at bytes 8 and 24");

namespace nvstore {
inline constexpr DWORD kPasswordAuthHeaderSize = sizeof(NV_PASSWORD_AUTH_HEADER);
inline constexpr DWORD kPasswordAuthKind = 0;
} // namespace nvstore
