// The store's persistent data: registry records of users, their secrets, templates,
// payload and registration, their RSA key pairs in machine key containers, and
// salted password verifiers. Shared by the COM server and the inspection library.
//
// Every function raises _com_error on failure (nv::ThrowHr); readers answer false
// for what is missing. Functions take canonical SID strings (CanonicalUserId).
#pragma once
#include <windows.h>
#include <string>
#include <vector>

namespace nvstore {

using Bytes = std::vector<BYTE>;

// A byte buffer that is zeroed before it is freed (passwords, payloads).
class SecureBytes {
public:
    SecureBytes() = default;
    explicit SecureBytes(size_t n) : m_data(n) {}
    SecureBytes(const BYTE* p, size_t n) : m_data(p, p + n) {}
    SecureBytes(const SecureBytes&) = delete;
    SecureBytes& operator=(const SecureBytes&) = delete;
    ~SecureBytes() { Clear(); }
    void Clear() noexcept
    {
        if (!m_data.empty())
            ::SecureZeroMemory(m_data.data(), m_data.size());
        m_data.clear();
    }
    BYTE* data() noexcept { return m_data.data(); }
    const BYTE* data() const noexcept { return m_data.data(); }
    size_t size() const noexcept { return m_data.size(); }
    std::vector<BYTE>& vec() noexcept { return m_data; }

private:
    std::vector<BYTE> m_data;
};

// Checks the identifier kind (kUserIdKindSid only) and the SID string; gives the
// SID's canonical string form. E_INVALIDARG otherwise.
std::wstring CanonicalUserId(const wchar_t* pwszUserId, DWORD dwIdKind);

std::wstring UserKeyPath(const std::wstring& sid);
std::wstring UserSubkeyPath(const std::wstring& sid, const wchar_t* subkey);

// Registry primitives under HKLM in the store's view.
bool KeyExists(const std::wstring& path);
void CreateKeyPath(const std::wstring& path);
bool DeleteKeyTree(const std::wstring& path);
std::vector<std::wstring> SubkeyNames(const std::wstring& path);
std::vector<std::wstring> ValueNames(const std::wstring& path);
bool ReadBinary(const std::wstring& path, const wchar_t* name, Bytes* out);
void WriteBinary(const std::wstring& path, const wchar_t* name, const BYTE* data, DWORD cb);
bool ReadDword(const std::wstring& path, const wchar_t* name, DWORD* out);
void WriteDword(const std::wstring& path, const wchar_t* name, DWORD value);
bool ReadString(const std::wstring& path, const wchar_t* name, std::wstring* out);
void WriteString(const std::wstring& path, const wchar_t* name, const std::wstring& value);
// A REG_MULTI_SZ or REG_SZ value as a list of strings (empty when missing).
std::vector<std::wstring> ReadStringList(const std::wstring& path, const wchar_t* name);
// S_FALSE-style: true when a value was deleted.
bool DeleteValue(const std::wstring& path, const wchar_t* name);

// Users.
bool UserExists(const std::wstring& sid);
// Creates the user's record when missing; true when it was created.
bool CreateUser(const std::wstring& sid);
// Deletes the record, the registration and the key pair; false when nothing existed.
bool DeleteUser(const std::wstring& sid);
std::vector<std::wstring> ListUsers();

// Registration.
bool IsRegistered(const std::wstring& sid);
// True when newly registered.
bool Register(const std::wstring& sid);
bool Unregister(const std::wstring& sid);
std::vector<std::wstring> ListRegistered();

// Key pairs.
std::wstring ContainerName(const std::wstring& sid);
bool HasKeyPair(const std::wstring& sid);
// Creates a new key pair for the user (replacing any leftover container of its
// name). The pair is named in the user's record only once it is stored.
void CreateKeyPair(const std::wstring& sid);
// The user's key-exchange public key as a PUBLICKEYBLOB; false without a key pair.
// A container or key that cannot be read for another reason raises its error.
bool ExportPublicKey(const std::wstring& sid, Bytes* out);
void DeleteKeyPair(const std::wstring& sid);
// Deletes every machine key container whose name starts with the store's prefix.
void DeleteAllStoreContainers();

// Passwords.
bool HasPassword(const std::wstring& sid);
void SetPassword(const std::wstring& sid, const wchar_t* pwch, size_t cch);
bool PasswordMatches(const std::wstring& sid, const wchar_t* pwch, size_t cch);
void ClearPassword(const std::wstring& sid);

// Payload.
void MakePayload(SecureBytes& out);

// Test behaviours, read afresh on every use.
struct Behaviours {
    std::vector<std::wstring> failOpenUser;
    HRESULT failOpenUserResult;
    bool noAuthService;
    bool noUserProperties;
    bool noUserPayload;
    bool noUserTemplates;
    bool noUserRegistry;
    bool noUserSecrets;
    HRESULT failPutPayload; // S_OK: PutPayload works
    HRESULT failCheckUser;  // S_OK: CheckUser works
    HRESULT failAddUser;    // S_OK: AddUser works
    bool failPutTemplate;
    DWORD failPutTemplateAt;
    HRESULT failPutTemplateResult;
    std::vector<std::wstring> alreadyRegistered;
    std::vector<std::wstring> existingPublicKey;
    DWORD userKeyBits;
    std::vector<std::wstring> failPutSecret; // secret names whose PutSecret fails
    HRESULT failPutSecretResult;
};
Behaviours ReadBehaviours();
// Ends the process at once (exit code kStopExitCode) when the "StopAt" behaviour
// names this stage: how tests leave the store as a killed process would.
void StopIfAsked(const wchar_t* stage);
// Whether a SID list (as written by tests, in any case) names the user.
bool ListNames(const std::vector<std::wstring>& list, const std::wstring& sid);

} // namespace nvstore
