// Where the reference store keeps its data: registry paths, value names, key
// container naming and the test behaviours. Everything lives under
// HKLM\SOFTWARE\Norvane\Store in the 64-bit registry view.
//
//   Store\Users\<SID>                 one key per user (SID in canonical string form)
//       "IdKind"            REG_DWORD   the identifier kind (8)
//       "KeyContainer"      REG_SZ      the machine key container of the user's RSA
//                                       key pair (present once the pair exists)
//       "PasswordVerifier"  REG_BINARY  16 random bytes of salt, then the SHA-256
//                                       verifier of salt and password (one value, so
//                                       that salt and verifier change together)
//       "PasswordSalt"      REG_BINARY  the salt of an older 32-byte verifier
//       "FailedCount"       REG_DWORD   failed authentications since the last success
//       "Payload"           REG_BINARY  the user's payload
//       Secrets\            one REG_BINARY value per secret, named as the secret
//       Templates\          one REG_BINARY value per template, named "0" to "31"
//       Properties\         one REG_BINARY value per caller-set property
//   Store\Registered\<SID>            a registered user; "IdKind" REG_DWORD
//   Store\TestBehaviours              switches for tests, all off when absent:
//       "FailOpenUser"       REG_MULTI_SZ (or REG_SZ)  SIDs whose OpenUser fails
//       "FailOpenUserResult" REG_DWORD   that failure's code (default E_ACCESSDENIED)
//       "NoAuthService"      REG_DWORD   non-zero: no object offers IAuthService
//       "NoUserProperties"   REG_DWORD   non-zero: user objects offer no IUserProperties
//       "NoUserPayload"      REG_DWORD   non-zero: user objects offer no IUserPayload
//       "NoUserTemplates"    REG_DWORD   non-zero: user objects offer no IUserTemplates
//       "NoUserRegistry"     REG_DWORD   non-zero: no object offers IUserRegistry
//       "NoUserSecrets"      REG_DWORD   non-zero: user objects offer no IUserSecrets
//                                        (OpenUser still hands out their IUnknown)
//       "FailPutPayload"     REG_DWORD   PutPayload fails with this code
//       "FailCheckUser"      REG_DWORD   CheckUser fails with this code
//       "FailAddUser"        REG_DWORD   AddUser fails with this code
//       "FailPutTemplateAt"  REG_DWORD   PutTemplate at this position fails
//       "FailPutTemplateResult" REG_DWORD that failure's code (default E_FAIL)
//       "AlreadyRegistered"  REG_MULTI_SZ (or REG_SZ)  SIDs CheckUser reports as registered
//       "ExistingPublicKey"  REG_MULTI_SZ (or REG_SZ)  SIDs that OpenUser starts with a
//                                        key pair and a payload (no password yet)
//       "UserKeyBits"        REG_DWORD   RSA modulus size of new key pairs (default 2048)
//       "FailPutSecret"      REG_MULTI_SZ (or REG_SZ)  secret names whose PutSecret fails
//       "FailPutSecretResult" REG_DWORD  that failure's code (default E_FAIL)
//       "StopAt"             REG_SZ      a stage (below) at which the store ends its
//                                        process at once, exit code kStopExitCode
//       "FaultyKeyPairs"     REG_DWORD   the next this many key pairs are stored with a
//                                        damaged private part, as the provider now and
//                                        then stores one (counts down)
#pragma once
#include <windows.h>

namespace nvstore {

inline constexpr REGSAM kStoreView = KEY_WOW64_64KEY;

inline constexpr const wchar_t kStoreKeyPath[] = L"SOFTWARE\\Norvane\\Store";
inline constexpr const wchar_t kUsersKeyPath[] = L"SOFTWARE\\Norvane\\Store\\Users";
inline constexpr const wchar_t kRegisteredKeyPath[] = L"SOFTWARE\\Norvane\\Store\\Registered";
inline constexpr const wchar_t kTestBehavioursKeyPath[] = L"SOFTWARE\\Norvane\\Store\\TestBehaviours";

inline constexpr const wchar_t kSecretsSubkey[] = L"Secrets";
inline constexpr const wchar_t kTemplatesSubkey[] = L"Templates";
inline constexpr const wchar_t kPropertiesSubkey[] = L"Properties";

inline constexpr const wchar_t kIdKindValue[] = L"IdKind";
inline constexpr const wchar_t kKeyContainerValue[] = L"KeyContainer";
inline constexpr const wchar_t kPasswordSaltValue[] = L"PasswordSalt";
inline constexpr const wchar_t kPasswordVerifierValue[] = L"PasswordVerifier";
inline constexpr const wchar_t kFailedCountValue[] = L"FailedCount";
inline constexpr const wchar_t kPayloadValue[] = L"Payload";

inline constexpr const wchar_t kFailOpenUserValue[] = L"FailOpenUser";
inline constexpr const wchar_t kFailOpenUserResultValue[] = L"FailOpenUserResult";
inline constexpr const wchar_t kNoAuthServiceValue[] = L"NoAuthService";
inline constexpr const wchar_t kNoUserPropertiesValue[] = L"NoUserProperties";
inline constexpr const wchar_t kNoUserPayloadValue[] = L"NoUserPayload";
inline constexpr const wchar_t kNoUserTemplatesValue[] = L"NoUserTemplates";
inline constexpr const wchar_t kNoUserRegistryValue[] = L"NoUserRegistry";
inline constexpr const wchar_t kNoUserSecretsValue[] = L"NoUserSecrets";
inline constexpr const wchar_t kFailPutPayloadValue[] = L"FailPutPayload";
inline constexpr const wchar_t kFailCheckUserValue[] = L"FailCheckUser";
inline constexpr const wchar_t kFailAddUserValue[] = L"FailAddUser";
inline constexpr const wchar_t kFailPutTemplateAtValue[] = L"FailPutTemplateAt";
inline constexpr const wchar_t kFailPutTemplateResultValue[] = L"FailPutTemplateResult";
inline constexpr const wchar_t kAlreadyRegisteredValue[] = L"AlreadyRegistered";
inline constexpr const wchar_t kExistingPublicKeyValue[] = L"ExistingPublicKey";
inline constexpr const wchar_t kUserKeyBitsValue[] = L"UserKeyBits";
inline constexpr const wchar_t kFailPutSecretValue[] = L"FailPutSecret";
inline constexpr const wchar_t kFailPutSecretResultValue[] = L"FailPutSecretResult";
inline constexpr const wchar_t kStopAtValue[] = L"StopAt";
inline constexpr const wchar_t kFaultyKeyPairsValue[] = L"FaultyKeyPairs";

// Stages "StopAt" can name: a new key pair generated but not yet stored; a key pair
// stored but not yet named in the user's record; an enrolment's payload written, its
// password not yet set; a secret written; a template written.
inline constexpr const wchar_t kStageKeyPairGenerated[] = L"KeyPairGenerated";
inline constexpr const wchar_t kStageKeyPairStored[] = L"KeyPairStored";
inline constexpr const wchar_t kStagePayloadWritten[] = L"PayloadWritten";
inline constexpr const wchar_t kStageSecretStored[] = L"SecretStored";
inline constexpr const wchar_t kStageTemplateStored[] = L"TemplateStored";
inline constexpr UINT kStopExitCode = 0x5709;

inline constexpr HRESULT kDefaultFailOpenUserResult = E_ACCESSDENIED;
inline constexpr HRESULT kDefaultFailPutTemplateResult = E_FAIL;
inline constexpr HRESULT kDefaultFailPutSecretResult = E_FAIL;
inline constexpr DWORD kDefaultUserKeyBits = 2048;
// Fresh key pairs that fail their seal-and-open check before a new one is tried; the
// next failure fails the call with NTE_BAD_KEY.
inline constexpr unsigned kKeyPairAttempts = 3;

// User key pairs: machine key containers of the Enhanced provider, named by this
// prefix and the user's SID.
inline constexpr const wchar_t kContainerPrefix[] = L"NVStore-";
inline constexpr const wchar_t kKeyProvider[] = L"Microsoft Enhanced Cryptographic Provider v1.0";
// Password verifiers: SHA-256 from the AES provider.
inline constexpr const wchar_t kHashProvider[] = L"Microsoft Enhanced RSA and AES Cryptographic Provider";
inline constexpr DWORD kSaltBytes = 16;
inline constexpr DWORD kVerifierRounds = 1000;
inline constexpr DWORD kPayloadBytes = 32;

// Version of this layout, as IStoreService::GetVersion gives it.
inline constexpr DWORD kStoreLayoutVersion = 0x00010000;

// The COM class as registered.
inline constexpr const wchar_t kServerDescription[] = L"Norvane User Store";
inline constexpr const wchar_t kServerFileName[] = L"NVStore.dll";

} // namespace nvstore
