// The format 2.0 database writer.
//
// Two steps: MakeDb20Database draws a complete database model from a seed (users,
// SIDs, account controls, credential entries, templates, secrets; the same seed gives
// the same model), and WriteDb20Database puts a model into the registry's 32-bit view
// the way the old product did:
//
//   DB              "Version" = "2.0"
//   DB\MainDB\Users (default REG_DWORD) and Users\Index\NameIndex (user name -> GUID text)
//   DB\Cache\<domain>\Users, the same for each cached domain
//   DB\Policy\Accounts\<SID>  "ActCtrl" REG_DWORD
//   DB\Data\Users\{GUID}      default value: the sealed user record
//                             named values: the secrets, each a signed export record
//                             "AccountControl": the account control as 4 bytes
//   NVHOST          "HostId", and the machine key container named after it
//
// Sealed user record: "NVOA", then SEQUENCE OF ANY { version 2, OCTET STRING of
// SEQUENCE OF ANY { SIMPLEBLOB of a 3DES key under the machine key, the encrypted
// user blob } }. The user blob is an X509_CERT envelope (signed by the machine key)
// whose signed content is SEQUENCE OF ANY { OCTET STRING user list, record version }.
// User list: account header (9 items), entry count, then per entry credential id,
// template position mask and, for fingerprint entries, one template item per set bit.
//
// Secrets are stored as the old product stored them: signed export records whose
// identifier bit strings are empty (see host_provisioning.h).
// Secret record (the data of the export record): SEQUENCE OF ANY { header { GUID,
// type code, value }, GUID, name, OCTET STRING sealed content }; with the older type
// code item 1 is the older description { version 1, name, GUID, flags } and item 2 is
// left out. Sealed content: SEQUENCE OF ANY { SIMPLEBLOB, ciphertext }.
//
// Errors are raised as _com_error inside and returned as HRESULTs by the Write
// functions. The writer never reads what it wrote; tests compare the reader with the
// model field by field.
#pragma once
#include <windows.h>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>
#include "writer/db20_der.h"
#include "writer/legacy_writer.h"

namespace nvwriter {

constexpr DWORD kDb20SealVersion = 2;
constexpr BYTE kDb20SealMagic[4] = {'N', 'V', 'O', 'A'};
constexpr DWORD kDb20FingerprintCredentialId = 2;
constexpr DWORD kDb20SecretTypeCode = 0x10020001;
constexpr DWORD kDb20OlderSecretTypeCode = 0x10010001;
constexpr DWORD kDb20RecordVersion = 1;
constexpr wchar_t kDb20LogonInfoSecret[] = L"SystemLogonInfo";
constexpr wchar_t kDb20AccountControlField[] = L"AccountControl";

// What the writer breaks in one user on request.
enum class Db20Defect {
    None,
    WrongMagic,         // stored value starts with "NVOX"
    SealVersion1,       // seal version 1
    SealVersion3,       // seal version 3
    StringDefaultValue, // the user key's default value is a REG_SZ
    MissingActCtrl,     // Policy\Accounts\<SID> exists without "ActCtrl"
    DuplicateSid,       // the user carries the SID of the user before it (set by MakeDb20Database)
    FiveByteNumber,     // the entry count is written as a 5-byte INTEGER
    Guid15,             // the user's GUID item holds 15 bytes
    Guid17,             // the user's GUID item holds 17 bytes
    TextType2,          // the SID text is an X509_NAME_VALUE of value type 2 (octet string)
};

struct Db20Template {
    unsigned position = 0; // bit of the entry's template position mask
    DWORD format = 0;
    DWORD flags = 0;
    GUID type{};
    GUID owner{};
    DWORD size = 0;
    LONG headerValue = 0;
    std::vector<BYTE> data;
};

struct Db20Credential {
    DWORD credentialId = 0;
    DWORD mask = 0;
    // Fingerprint entries: one template per set bit, ascending positions.
    std::vector<Db20Template> templates;
    // Complete DER items written right after the mask (only for hand-made records:
    // the old product wrote none for other credential kinds).
    std::vector<DerBytes> extraItems;
};

struct Db20Secret {
    std::wstring valueName;   // the registry value that holds the record
    std::wstring name;        // the name inside the record
    GUID headerGuid{};
    DWORD typeCode = kDb20SecretTypeCode; // kDb20OlderSecretTypeCode: older description
    DWORD headerValue = 0;
    GUID guid{};
    std::vector<BYTE> content; // the plain content that is sealed
    // The combined password secret ("SystemLogonInfo"): content is the scrambled
    // SEQUENCE { version, password, PIN } of these fields.
    bool combined = false;
    DWORD combinedVersion = 1;
    bool hasPassword = false;
    std::wstring password;
    bool hasPin = false;
    std::wstring pin;
};

struct Db20User {
    std::wstring store;    // the computer's name, or a cached domain
    std::wstring userName; // name in the store's name index
    GUID headerGuid{};     // account header item 0
    GUID guid{};           // the user's identifier, account header item 1
    FILETIME times[3]{};   // account header items 2 to 4 (whole seconds)
    std::wstring displayName;
    std::wstring sidText;
    DWORD headerNumbers[2]{}; // account header items 7 and 8
    std::vector<Db20Credential> credentials;
    bool writeActCtrl = true;
    DWORD accountControl = 0;
    std::wstring accountControlField = kDb20AccountControlField; // empty: no such field
    std::vector<Db20Secret> secrets;
    Db20Defect defect = Db20Defect::None;
};

struct Db20Options {
    std::uint64_t seed = 1;
    unsigned userCount = 8;
    unsigned domainCount = 2;
    // Names of the cached domains; generated ones for the rest.
    std::vector<std::wstring> domainNames;
    std::wstring computerName; // empty: this computer's name
    // Malformed variants: (user index, defect).
    std::vector<std::pair<unsigned, Db20Defect>> defects;
};

struct Db20Database {
    GUID hostId{};
    std::wstring computerName;
    std::vector<std::wstring> domains;
    DWORD machineUserList = 0; // MainDB\Users default value
    std::vector<Db20User> users; // in writing order
};

// Draws a database from the options; deterministic for the options.
Db20Database MakeDb20Database(const Db20Options& options);

// Writes the whole database through the writer (its database path and view): Version
// "2.0", MainDB and Cache with their name indexes, then everything WriteUsers20
// writes. The record gets the stores and the users (user key Data\Users\{GUID}).
void Write20(DbWriter& writer, const Db20Database& db);

// Writes into an existing database tree: NVHOST\HostId (always the 32-bit view) and a
// fresh machine container, Policy\Accounts\<SID>\ActCtrl and Data\Users\{GUID} for
// every user. The 1.0 writer uses it for databases that already hold 2.0-style
// users; those users are in no name index, so the record lists them nowhere but in
// its keys and values.
void WriteUsers20(DbWriter& writer, const Db20Database& db);

// The model WriteDatabase writes for these options: the format 2.0 database, or with
// format 1.0 the users20 users added to it. Deterministic, so tests re-make it.
Db20Options Db20OptionsFrom(const DbOptions& options);

// Write20 and WriteUsers20 at HKLM\SOFTWARE\Norvane\DB in the 32-bit view.
HRESULT WriteDb20Database(const Db20Database& db) noexcept;
HRESULT WriteDb20Users(const Db20Database& db) noexcept;

// Removes the database's machine container (S_FALSE when it is not there).
HRESULT DeleteDb20Container(const Db20Database& db) noexcept;

// Pieces, for tests that hand-make records.
// The user blob (the envelope), unsealed; hProv 0 gives a filler signature.
DerBytes EncodeDb20UserBlob(HCRYPTPROV hProv, const Db20User& user);
// The user list alone (what the envelope's outer item 0 carries).
DerBytes EncodeDb20UserList(const Db20User& user);
// The stored value: magic, seal version, payload sealed for the machine key.
DerBytes SealDb20UserBlob(HCRYPTPROV hProv, const DerBytes& userBlob, DWORD sealVersion = kDb20SealVersion,
                          const BYTE magic[4] = kDb20SealMagic);
// SEQUENCE OF ANY { SIMPLEBLOB, ciphertext } of plain bytes under the machine key.
DerBytes SealDb20Content(HCRYPTPROV hProv, const std::vector<BYTE>& plain);
// The secret record (the data inside the export record) around sealed content.
DerBytes EncodeDb20SecretRecord(const Db20Secret& secret, const DerBytes& sealedContent);
// The scrambled combined password secret of the fields.
std::vector<BYTE> EncodeDb20CombinedSecret(const Db20Secret& secret);
// TEA-CFB scrambling with the deployment's secret key (in place).
void ScrambleDb20(std::vector<BYTE>& bytes);

} // namespace nvwriter
