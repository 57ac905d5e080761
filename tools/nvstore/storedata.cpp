#include "storedata.h"

#include <sddl.h>
#include <wincrypt.h>
#include <algorithm>
#include <cstring>
#include <cwchar>
#include "common/handles.h"
#include "common/hresult.h"
#include "common/keydacl.h"
#include "common/storecontract.h"
#include "storecounters.h"
#include "storelayout.h"

namespace nvstore {

namespace {

nv::unique_hkey OpenKey(const std::wstring& path, REGSAM access)
{
    nv::unique_hkey key;
    LONG r = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, access | kStoreView, key.put());
    if (r != ERROR_SUCCESS)
        key.reset();
    return key;
}

// The store keeps password verifiers and users' keys' names: every key of it is for
// LocalSystem and Administrators only. Whenever a create adds a key, each level from
// the store's root down to it gets that security, so a root left from an older store
// is mended as well. A key that cannot be protected is not written to.
void ProtectStorePath(const std::wstring& path)
{
    const std::wstring root = kStoreKeyPath;
    if (path.compare(0, root.size(), root) != 0 || (path.size() > root.size() && path[root.size()] != L'\\'))
        nv::ThrowHr(E_INVALIDARG); // every key of the store lies under its root
    std::wstring::size_type end = root.size();
    for (;;) {
        const HRESULT hr = nv::ProtectKeyForAdministrators(HKEY_LOCAL_MACHINE, path.substr(0, end).c_str(), kStoreView);
        if (hr != S_OK)
            nv::ThrowHr(FAILED(hr) ? hr : E_ACCESSDENIED);
        if (end >= path.size())
            return;
        end = path.find(L'\\', end + 1);
        if (end == std::wstring::npos)
            end = path.size();
    }
}

nv::unique_hkey CreateKey(const std::wstring& path)
{
    // A new key is made with the list already on it: set afterwards, it would leave
    // a moment in which another account could open the key and keep the handle.
    nv::unique_hlocal security(nv::NewAdministratorsOnlyKeySecurity());
    if (!security)
        nv::ThrowHr(E_OUTOFMEMORY);
    SECURITY_ATTRIBUTES sa{sizeof(sa), security.get(), FALSE};
    nv::unique_hkey key;
    DWORD disposition = 0;
    nv::ThrowIfWin32Failed(::RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                             KEY_READ | KEY_WRITE | kStoreView, &sa, key.put(), &disposition));
    if (disposition == REG_CREATED_NEW_KEY)
        ProtectStorePath(path);
    return key;
}

// One value through an open key; none when there is no key.
bool QueryRaw(HKEY key, const wchar_t* name, DWORD* type, Bytes* out)
{
    if (!key)
        return false;
    for (;;) {
        DWORD cb = 0;
        LONG r = ::RegQueryValueExW(key, name, nullptr, type, nullptr, &cb);
        if (r != ERROR_SUCCESS)
            return false;
        Bytes data(cb);
        r = ::RegQueryValueExW(key, name, nullptr, type, cb ? data.data() : nullptr, &cb);
        if (r == ERROR_MORE_DATA)
            continue; // changed under us; ask again
        if (r != ERROR_SUCCESS)
            return false;
        data.resize(cb);
        out->swap(data);
        return true;
    }
}

// The key of a path, opened to read its values (none when it is absent): the test
// behaviours are read through one handle, and not at all when their key is absent.
nv::unique_hkey ValuesOf(const std::wstring& path) { return OpenKey(path, KEY_QUERY_VALUE); }

bool QueryDword(HKEY key, const wchar_t* name, DWORD* out)
{
    DWORD type = 0;
    Bytes data;
    if (!QueryRaw(key, name, &type, &data) || type != REG_DWORD || data.size() != sizeof(DWORD))
        return false;
    std::memcpy(out, data.data(), sizeof(DWORD));
    return true;
}

std::vector<std::wstring> QueryStringList(HKEY key, const wchar_t* name)
{
    std::vector<std::wstring> list;
    DWORD type = 0;
    Bytes data;
    if (!QueryRaw(key, name, &type, &data) || (type != REG_MULTI_SZ && type != REG_SZ))
        return list;
    const auto* p = reinterpret_cast<const wchar_t*>(data.data());
    const size_t n = data.size() / sizeof(wchar_t);
    std::wstring current;
    for (size_t i = 0; i < n; ++i) {
        if (p[i] == L'\0') {
            if (!current.empty())
                list.push_back(current);
            current.clear();
        } else {
            current += p[i];
        }
    }
    if (!current.empty())
        list.push_back(current);
    return list;
}

bool ReadRaw(const std::wstring& path, const wchar_t* name, DWORD* type, Bytes* out)
{
    return QueryRaw(ValuesOf(path).get(), name, type, out);
}

// A verify-only provider of the given name and type.
nv::unique_hcryptprov VerifyContext(const wchar_t* provider, DWORD type, DWORD extraFlags = 0)
{
    nv::unique_hcryptprov prov;
    if (!::CryptAcquireContextW(prov.put(), nullptr, provider, type, CRYPT_VERIFYCONTEXT | extraFlags))
        nv::ThrowLastError();
    return prov;
}

void RandomBytes(BYTE* p, DWORD cb)
{
    nv::unique_hcryptprov prov = VerifyContext(kKeyProvider, PROV_RSA_FULL);
    if (!::CryptGenRandom(prov.get(), cb, p))
        nv::ThrowLastError();
}

void Sha256(HCRYPTPROV prov, const BYTE* a, DWORD cba, const BYTE* b, DWORD cbb, BYTE out[32])
{
    HCRYPTHASH raw = 0;
    if (!::CryptCreateHash(prov, CALG_SHA_256, 0, 0, &raw))
        nv::ThrowLastError();
    struct HashOwner {
        HCRYPTHASH h;
        ~HashOwner() { ::CryptDestroyHash(h); }
    } owner{raw};
    if ((cba && !::CryptHashData(raw, a, cba, 0)) || (cbb && !::CryptHashData(raw, b, cbb, 0)))
        nv::ThrowLastError();
    DWORD cb = 32;
    if (!::CryptGetHashParam(raw, HP_HASHVAL, out, &cb, 0) || cb != 32)
        nv::ThrowLastError();
}

// The verifier: SHA-256 of salt and password (UTF-16LE, no terminator), then
// rehashed with the salt for the remaining rounds.
void Verifier(const Bytes& salt, const wchar_t* pwch, size_t cch, BYTE out[32])
{
    nv::unique_hcryptprov prov = VerifyContext(kHashProvider, PROV_RSA_AES);
    Sha256(prov.get(), salt.data(), static_cast<DWORD>(salt.size()), reinterpret_cast<const BYTE*>(pwch),
           static_cast<DWORD>(cch * sizeof(wchar_t)), out);
    BYTE next[32];
    for (DWORD i = 1; i < kVerifierRounds; ++i) {
        Sha256(prov.get(), out, 32, salt.data(), static_cast<DWORD>(salt.size()), next);
        std::memcpy(out, next, 32);
    }
    ::SecureZeroMemory(next, sizeof(next));
}

// Test behaviour "UserKeyBits", from the behaviours' key.
DWORD KeyBits(HKEY behaviours)
{
    DWORD bits = 0;
    if (QueryDword(behaviours, kUserKeyBitsValue, &bits) && bits >= 512 && bits <= 16384)
        return bits;
    return kDefaultUserKeyBits;
}

DWORD KeyBits() { return KeyBits(ValuesOf(kTestBehavioursKeyPath).get()); }

void DeleteContainer(const std::wstring& name)
{
    HCRYPTPROV h = 0;
    ::CryptAcquireContextW(&h, name.c_str(), kKeyProvider, PROV_RSA_FULL, CRYPT_MACHINE_KEYSET | CRYPT_DELETEKEYSET);
}

} // namespace

std::wstring CanonicalUserId(const wchar_t* pwszUserId, DWORD dwIdKind)
{
    if (dwIdKind != kUserIdKindSid || !pwszUserId || !*pwszUserId)
        nv::ThrowHr(E_INVALIDARG);
    nv::unique_hlocal sid;
    if (!::ConvertStringSidToSidW(pwszUserId, reinterpret_cast<PSID*>(sid.put())))
        nv::ThrowHr(E_INVALIDARG);
    nv::unique_hlocal text;
    if (!::ConvertSidToStringSidW(static_cast<PSID>(sid.get()), reinterpret_cast<LPWSTR*>(text.put())))
        nv::ThrowLastError();
    return std::wstring(static_cast<const wchar_t*>(text.get()));
}

std::wstring UserKeyPath(const std::wstring& sid) { return std::wstring(kUsersKeyPath) + L"\\" + sid; }

std::wstring UserSubkeyPath(const std::wstring& sid, const wchar_t* subkey)
{
    return UserKeyPath(sid) + L"\\" + subkey;
}

bool KeyExists(const std::wstring& path) { return static_cast<bool>(OpenKey(path, KEY_READ)); }

void CreateKeyPath(const std::wstring& path) { CreateKey(path); }

bool DeleteKeyTree(const std::wstring& path)
{
    {
        nv::unique_hkey key = OpenKey(path, KEY_ALL_ACCESS);
        if (!key)
            return false;
        nv::ThrowIfWin32Failed(::RegDeleteTreeW(key.get(), nullptr));
    }
    nv::ThrowIfWin32Failed(::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), kStoreView, 0));
    return true;
}

std::vector<std::wstring> SubkeyNames(const std::wstring& path)
{
    std::vector<std::wstring> names;
    nv::unique_hkey key = OpenKey(path, KEY_ENUMERATE_SUB_KEYS);
    if (!key)
        return names;
    for (DWORD i = 0;; ++i) {
        wchar_t name[256];
        DWORD cch = 256;
        if (::RegEnumKeyExW(key.get(), i, name, &cch, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        names.emplace_back(name, cch);
    }
    return names;
}

std::vector<std::wstring> ValueNames(const std::wstring& path)
{
    std::vector<std::wstring> names;
    nv::unique_hkey key = OpenKey(path, KEY_QUERY_VALUE);
    if (!key)
        return names;
    std::vector<wchar_t> name(16384);
    for (DWORD i = 0;; ++i) {
        DWORD cch = static_cast<DWORD>(name.size());
        if (::RegEnumValueW(key.get(), i, name.data(), &cch, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        names.emplace_back(name.data(), cch);
    }
    return names;
}

bool ReadBinary(const std::wstring& path, const wchar_t* name, Bytes* out)
{
    DWORD type = 0;
    Bytes data;
    if (!ReadRaw(path, name, &type, &data) || type != REG_BINARY)
        return false;
    out->swap(data);
    return true;
}

void WriteBinary(const std::wstring& path, const wchar_t* name, const BYTE* data, DWORD cb)
{
    nv::unique_hkey key = CreateKey(path);
    nv::ThrowIfWin32Failed(::RegSetValueExW(key.get(), name, 0, REG_BINARY, data, cb));
}

bool ReadDword(const std::wstring& path, const wchar_t* name, DWORD* out)
{
    return QueryDword(ValuesOf(path).get(), name, out);
}

void WriteDword(const std::wstring& path, const wchar_t* name, DWORD value)
{
    nv::unique_hkey key = CreateKey(path);
    nv::ThrowIfWin32Failed(
        ::RegSetValueExW(key.get(), name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof(value)));
}

bool ReadString(const std::wstring& path, const wchar_t* name, std::wstring* out)
{
    DWORD type = 0;
    Bytes data;
    if (!ReadRaw(path, name, &type, &data) || type != REG_SZ)
        return false;
    std::wstring s(reinterpret_cast<const wchar_t*>(data.data()), data.size() / sizeof(wchar_t));
    while (!s.empty() && s.back() == L'\0')
        s.pop_back();
    *out = s;
    return true;
}

void WriteString(const std::wstring& path, const wchar_t* name, const std::wstring& value)
{
    nv::unique_hkey key = CreateKey(path);
    nv::ThrowIfWin32Failed(::RegSetValueExW(key.get(), name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                                            static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t))));
}

std::vector<std::wstring> ReadStringList(const std::wstring& path, const wchar_t* name)
{
    return QueryStringList(ValuesOf(path).get(), name);
}

bool DeleteValue(const std::wstring& path, const wchar_t* name)
{
    nv::unique_hkey key = OpenKey(path, KEY_SET_VALUE);
    if (!key)
        return false;
    LONG r = ::RegDeleteValueW(key.get(), name);
    if (r == ERROR_FILE_NOT_FOUND)
        return false;
    nv::ThrowIfWin32Failed(r);
    return true;
}

bool UserExists(const std::wstring& sid) { return KeyExists(UserKeyPath(sid)); }

bool CreateUser(const std::wstring& sid)
{
    if (UserExists(sid))
        return false;
    WriteDword(UserKeyPath(sid), kIdKindValue, kUserIdKindSid);
    return true;
}

bool DeleteUser(const std::wstring& sid)
{
    const bool hadKey = HasKeyPair(sid);
    DeleteKeyPair(sid);
    const bool hadRecord = DeleteKeyTree(UserKeyPath(sid));
    const bool hadRegistration = Unregister(sid);
    return hadKey || hadRecord || hadRegistration;
}

std::vector<std::wstring> ListUsers() { return SubkeyNames(kUsersKeyPath); }

bool IsRegistered(const std::wstring& sid)
{
    return KeyExists(std::wstring(kRegisteredKeyPath) + L"\\" + sid);
}

bool Register(const std::wstring& sid)
{
    if (IsRegistered(sid))
        return false;
    WriteDword(std::wstring(kRegisteredKeyPath) + L"\\" + sid, kIdKindValue, kUserIdKindSid);
    return true;
}

bool Unregister(const std::wstring& sid) { return DeleteKeyTree(std::wstring(kRegisteredKeyPath) + L"\\" + sid); }

std::vector<std::wstring> ListRegistered() { return SubkeyNames(kRegisteredKeyPath); }

std::wstring ContainerName(const std::wstring& sid) { return std::wstring(kContainerPrefix) + sid; }

bool HasKeyPair(const std::wstring& sid)
{
    Bytes key;
    return ExportPublicKey(sid, &key);
}

namespace {

// Opens a user container and its key-exchange key. False only when the container
// or the key is really not there; any other failure is raised, so that a passing
// fault never reads as "no key pair" and makes a new one over a key that already
// sealed the user's secrets.
bool OpenExchangeKey(const std::wstring& container, nv::unique_hcryptprov& prov, nv::unique_hcryptkey& key)
{
    if (!::CryptAcquireContextW(prov.put(), container.c_str(), kKeyProvider, PROV_RSA_FULL, CRYPT_MACHINE_KEYSET)) {
        const DWORD err = ::GetLastError();
        if (err == static_cast<DWORD>(NTE_BAD_KEYSET) || err == static_cast<DWORD>(NTE_KEYSET_NOT_DEF))
            return false;
        nv::ThrowHr(nv::HResultFromWin32(static_cast<LONG>(err)));
    }
    if (!::CryptGetUserKey(prov.get(), AT_KEYEXCHANGE, key.put())) {
        const DWORD err = ::GetLastError();
        if (err == static_cast<DWORD>(NTE_NO_KEY))
            return false;
        nv::ThrowHr(nv::HResultFromWin32(static_cast<LONG>(err)));
    }
    return true;
}

// Test behaviour "FaultyKeyPairs": true (and one fewer left) when this pair is to be
// stored damaged.
bool TakeFaultyKeyPair()
{
    DWORD left = 0;
    if (!ReadDword(kTestBehavioursKeyPath, kFaultyKeyPairsValue, &left) || left == 0)
        return false;
    WriteDword(kTestBehavioursKeyPath, kFaultyKeyPairsValue, left - 1);
    return true;
}

// Replaces the container's pair by a copy whose first CRT exponent has one bit
// flipped: the public key is the same, but the private key no longer opens what it
// seals (NTE_BAD_DATA), like the pairs the provider now and then stores.
void DamagePrivateKey(HCRYPTPROV prov, HCRYPTKEY key)
{
    DWORD cb = 0;
    if (!::CryptExportKey(key, 0, PRIVATEKEYBLOB, 0, nullptr, &cb))
        nv::ThrowLastError();
    std::vector<BYTE> blob(cb);
    if (!::CryptExportKey(key, 0, PRIVATEKEYBLOB, 0, blob.data(), &cb))
        nv::ThrowLastError();
    const auto* rsa = reinterpret_cast<const RSAPUBKEY*>(blob.data() + sizeof(BLOBHEADER));
    const size_t modulus = rsa->bitlen / 8;
    const size_t half = (rsa->bitlen + 15) / 16;
    blob[sizeof(BLOBHEADER) + sizeof(RSAPUBKEY) + modulus + 2 * half] ^= 0x01; // lowest byte of dP
    nv::unique_hcryptkey replaced;
    const BOOL imported = ::CryptImportKey(prov, blob.data(), cb, 0, 0, replaced.put());
    const DWORD err = ::GetLastError();
    ::SecureZeroMemory(blob.data(), blob.size());
    if (!imported)
        nv::ThrowHr(nv::HResultFromWin32(static_cast<LONG>(err)));
}

// A fresh pair in the container, stored when the creating handle is released.
void GenerateKeyPair(const std::wstring& container)
{
    // Only reached when the user's record names no readable key pair, so nothing
    // was sealed for a container of this name: a leftover (of a deleted record, or
    // of a process stopped before it named its pair) is replaced.
    DeleteContainer(container);
    {
        LARGE_INTEGER start, end;
        ::QueryPerformanceCounter(&start);
        struct KeyPairTicks {
            LARGE_INTEGER& start;
            LARGE_INTEGER& end;
            ~KeyPairTicks()
            {
                ::QueryPerformanceCounter(&end);
                AddKeyPairTicks(end.QuadPart - start.QuadPart);
            }
        } ticks{start, end};
        nv::unique_hcryptprov prov;
        if (!::CryptAcquireContextW(prov.put(), container.c_str(), kKeyProvider, PROV_RSA_FULL,
                                    CRYPT_MACHINE_KEYSET | CRYPT_NEWKEYSET))
            nv::ThrowLastError();
        const bool faulty = TakeFaultyKeyPair();
        nv::unique_hcryptkey key;
        if (!::CryptGenKey(prov.get(), AT_KEYEXCHANGE, (KeyBits() << 16) | (faulty ? CRYPT_EXPORTABLE : 0),
                           key.put())) {
            const DWORD err = ::GetLastError();
            key.reset();
            prov.reset();
            DeleteContainer(container);
            nv::ThrowHr(nv::HResultFromWin32(static_cast<LONG>(err)));
        }
        if (faulty)
            DamagePrivateKey(prov.get(), key.get());
        StopIfAsked(kStageKeyPairGenerated);
        // The key becomes visible to other handles once this one is released.
    }
}

Bytes ExportKeyBlob(HCRYPTKEY key, HCRYPTKEY exchange, DWORD type)
{
    DWORD cb = 0;
    if (!::CryptExportKey(key, exchange, type, 0, nullptr, &cb))
        nv::ThrowLastError();
    Bytes blob(cb);
    if (!::CryptExportKey(key, exchange, type, 0, blob.data(), &cb))
        nv::ThrowLastError();
    blob.resize(cb);
    return blob;
}

// True when a session key sealed under the pair's public key opens with its private
// key, both read from the stored pair through a fresh handle, the way every later
// user of the pair reads them. The provider has been seen to store, about once in
// several thousand pairs, one that fails this: its public key seals what its private
// key then refuses with NTE_BAD_DATA. Named in a user's record, such a pair would
// lose every secret sealed for the user, so it never is. Any other failure is raised.
bool StoredPairOpensWhatItsPublicKeySeals(const std::wstring& container)
{
    nv::unique_hcryptprov prov;
    nv::unique_hcryptkey exchange;
    if (!OpenExchangeKey(container, prov, exchange))
        nv::ThrowHr(NTE_NO_KEY);
    const Bytes publicKey = ExportKeyBlob(exchange.get(), 0, PUBLICKEYBLOB);
    nv::unique_hcryptprov sealer = VerifyContext(kKeyProvider, PROV_RSA_FULL);
    nv::unique_hcryptkey sealingKey;
    if (!::CryptImportKey(sealer.get(), publicKey.data(), static_cast<DWORD>(publicKey.size()), 0, 0,
                          sealingKey.put()))
        nv::ThrowLastError();
    nv::unique_hcryptkey session;
    if (!::CryptGenKey(sealer.get(), CALG_3DES, CRYPT_EXPORTABLE, session.put()))
        nv::ThrowLastError();
    const Bytes sealed = ExportKeyBlob(session.get(), sealingKey.get(), SIMPLEBLOB);
    nv::unique_hcryptkey opened;
    if (::CryptImportKey(prov.get(), sealed.data(), static_cast<DWORD>(sealed.size()), exchange.get(), 0,
                         opened.put()))
        return true;
    const DWORD err = ::GetLastError();
    if (err == static_cast<DWORD>(NTE_BAD_DATA))
        return false;
    nv::ThrowHr(nv::HResultFromWin32(static_cast<LONG>(err)));
}

} // namespace

void CreateKeyPair(const std::wstring& sid)
{
    const std::wstring container = ContainerName(sid);
    for (unsigned attempt = 1;; ++attempt) {
        GenerateKeyPair(container);
        if (StoredPairOpensWhatItsPublicKeySeals(container))
            break;
        DeleteContainer(container);
        if (attempt == kKeyPairAttempts)
            nv::ThrowHr(NTE_BAD_KEY);
    }
    StopIfAsked(kStageKeyPairStored);
    // Named in the user's record only once it is stored: from here on it is the key.
    WriteString(UserKeyPath(sid), kKeyContainerValue, container);
}

bool ExportPublicKey(const std::wstring& sid, Bytes* out)
{
    std::wstring container;
    if (!ReadString(UserKeyPath(sid), kKeyContainerValue, &container) || container.empty())
        return false;
    nv::unique_hcryptprov prov;
    nv::unique_hcryptkey key;
    if (!OpenExchangeKey(container, prov, key))
        return false;
    Bytes blob = ExportKeyBlob(key.get(), 0, PUBLICKEYBLOB);
    out->swap(blob);
    return true;
}

void DeleteKeyPair(const std::wstring& sid)
{
    std::wstring container;
    if (ReadString(UserKeyPath(sid), kKeyContainerValue, &container) && !container.empty())
        DeleteContainer(container);
    DeleteContainer(ContainerName(sid));
    DeleteValue(UserKeyPath(sid), kKeyContainerValue);
}

void DeleteAllStoreContainers()
{
    // Machine containers are listed on a machine-keyset context (CRYPT_FIRST, then
    // CRYPT_NEXT). Wine's provider takes the machine flag from the listing call's own
    // flags instead and, without it, lists the user's containers, so the list is also
    // asked for that way; a provider that refuses the extra flag adds nothing.
    constexpr DWORD kListings[] = {0, CRYPT_MACHINE_KEYSET};
    std::vector<std::wstring> names;
    for (const DWORD machine : kListings) {
        nv::unique_hcryptprov prov = VerifyContext(kKeyProvider, PROV_RSA_FULL, CRYPT_MACHINE_KEYSET);
        std::vector<char> name(1024);
        DWORD flags = CRYPT_FIRST | machine;
        for (;;) {
            DWORD cb = static_cast<DWORD>(name.size());
            if (!::CryptGetProvParam(prov.get(), PP_ENUMCONTAINERS, reinterpret_cast<BYTE*>(name.data()), &cb, flags))
                break;
            flags = CRYPT_NEXT | machine;
            std::wstring wide;
            for (const char* p = name.data(); *p; ++p)
                wide += static_cast<wchar_t>(static_cast<unsigned char>(*p));
            if (wide.compare(0, std::wcslen(kContainerPrefix), kContainerPrefix) == 0 &&
                std::find(names.begin(), names.end(), wide) == names.end())
                names.push_back(wide);
        }
    }
    for (const std::wstring& n : names)
        DeleteContainer(n);
}

namespace {

// The salt and the verifier of a user's password: one value of salt and verifier
// (written in one call, so no stop can leave a salt that does not match its
// verifier), or the older pair of values.
bool ReadPasswordVerifier(const std::wstring& sid, Bytes* salt, Bytes* verifier)
{
    const std::wstring path = UserKeyPath(sid);
    Bytes stored;
    if (!ReadBinary(path, kPasswordVerifierValue, &stored))
        return false;
    if (stored.size() == kSaltBytes + 32) {
        salt->assign(stored.begin(), stored.begin() + kSaltBytes);
        verifier->assign(stored.begin() + kSaltBytes, stored.end());
        return true;
    }
    if (stored.size() != 32 || !ReadBinary(path, kPasswordSaltValue, salt))
        return false;
    verifier->swap(stored);
    return true;
}

} // namespace

bool HasPassword(const std::wstring& sid)
{
    Bytes salt, verifier;
    return ReadPasswordVerifier(sid, &salt, &verifier);
}

void SetPassword(const std::wstring& sid, const wchar_t* pwch, size_t cch)
{
    Bytes record(kSaltBytes + 32);
    RandomBytes(record.data(), kSaltBytes);
    const Bytes salt(record.begin(), record.begin() + kSaltBytes);
    Verifier(salt, pwch, cch, record.data() + kSaltBytes);
    const std::wstring path = UserKeyPath(sid);
    WriteBinary(path, kPasswordVerifierValue, record.data(), static_cast<DWORD>(record.size()));
    DeleteValue(path, kPasswordSaltValue); // the older layout's separate salt, if any
    ::SecureZeroMemory(record.data(), record.size());
}

bool PasswordMatches(const std::wstring& sid, const wchar_t* pwch, size_t cch)
{
    Bytes salt, stored;
    if (!ReadPasswordVerifier(sid, &salt, &stored))
        return false;
    BYTE verifier[32];
    Verifier(salt, pwch, cch, verifier);
    BYTE diff = 0;
    for (int i = 0; i < 32; ++i)
        diff |= static_cast<BYTE>(verifier[i] ^ stored[i]);
    ::SecureZeroMemory(verifier, sizeof(verifier));
    return diff == 0;
}

void ClearPassword(const std::wstring& sid)
{
    DeleteValue(UserKeyPath(sid), kPasswordSaltValue);
    DeleteValue(UserKeyPath(sid), kPasswordVerifierValue);
}

void MakePayload(SecureBytes& out)
{
    out.Clear();
    out.vec().resize(kPayloadBytes);
    RandomBytes(out.data(), kPayloadBytes);
}

void StopIfAsked(const wchar_t* stage)
{
    std::wstring stopAt;
    if (ReadString(kTestBehavioursKeyPath, kStopAtValue, &stopAt) && ::_wcsicmp(stopAt.c_str(), stage) == 0)
        ::TerminateProcess(::GetCurrentProcess(), kStopExitCode);
}

Behaviours ReadBehaviours()
{
    Behaviours b{};
    const nv::unique_hkey values = ValuesOf(kTestBehavioursKeyPath);
    const HKEY key = values.get();

    b.failOpenUser = QueryStringList(key, kFailOpenUserValue);
    DWORD v = 0;
    b.failOpenUserResult = QueryDword(key, kFailOpenUserResultValue, &v) ? static_cast<HRESULT>(v)
                                                                          : kDefaultFailOpenUserResult;
    b.noAuthService = QueryDword(key, kNoAuthServiceValue, &v) && v != 0;
    b.noUserProperties = QueryDword(key, kNoUserPropertiesValue, &v) && v != 0;
    b.noUserPayload = QueryDword(key, kNoUserPayloadValue, &v) && v != 0;
    b.noUserTemplates = QueryDword(key, kNoUserTemplatesValue, &v) && v != 0;
    b.noUserRegistry = QueryDword(key, kNoUserRegistryValue, &v) && v != 0;
    b.noUserSecrets = QueryDword(key, kNoUserSecretsValue, &v) && v != 0;
    b.failPutPayload = QueryDword(key, kFailPutPayloadValue, &v) ? static_cast<HRESULT>(v) : S_OK;
    b.failCheckUser = QueryDword(key, kFailCheckUserValue, &v) ? static_cast<HRESULT>(v) : S_OK;
    b.failAddUser = QueryDword(key, kFailAddUserValue, &v) ? static_cast<HRESULT>(v) : S_OK;
    b.failPutTemplate = QueryDword(key, kFailPutTemplateAtValue, &b.failPutTemplateAt);
    b.failPutTemplateResult = QueryDword(key, kFailPutTemplateResultValue, &v) ? static_cast<HRESULT>(v)
                                                                                : kDefaultFailPutTemplateResult;
    b.alreadyRegistered = QueryStringList(key, kAlreadyRegisteredValue);
    b.existingPublicKey = QueryStringList(key, kExistingPublicKeyValue);
    b.userKeyBits = KeyBits(key);
    b.failPutSecret = QueryStringList(key, kFailPutSecretValue);
    b.failPutSecretResult = QueryDword(key, kFailPutSecretResultValue, &v) ? static_cast<HRESULT>(v)
                                                                            : kDefaultFailPutSecretResult;
    return b;
}

bool ListNames(const std::vector<std::wstring>& list, const std::wstring& sid)
{
    return std::any_of(list.begin(), list.end(),
                       [&](const std::wstring& s) { return ::_wcsicmp(s.c_str(), sid.c_str()) == 0; });
}

} // namespace nvstore
