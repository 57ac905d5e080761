#include "nvstore_inspect.h"

#include <wincrypt.h>
#include <algorithm>
#include <cstring>
#include "common/handles.h"
#include "common/hresult.h"
#include "common/procaddress.h"
#include "common/systemlibrary.h"
#include "common/storecontract.h"
#include "storedata.h"
#include "storelayout.h"

namespace nvstore {
namespace inspect {

namespace {

// A SID in the store's form; text that is no SID is taken as it stands.
std::wstring Canonical(const std::wstring& sid)
{
    try {
        return CanonicalUserId(sid.c_str(), kUserIdKindSid);
    } catch (const _com_error&) {
        return sid;
    }
}

std::vector<std::wstring> Sorted(std::vector<std::wstring> v)
{
    std::sort(v.begin(), v.end());
    return v;
}

HRESULT LastError()
{
    const DWORD err = ::GetLastError();
    return err ? nv::HResultFromWin32(static_cast<LONG>(err)) : E_FAIL;
}

// CryptDecodeObjectEx, taken from crypt32.dll in the system directory at first use.
// nvdbconv.exe reads the store through this file and imports nothing that Windows
// does not always take from the system directory; crypt32 is not among those. The
// library stays loaded for the life of the process.
BOOL DecodeObjectEx(LPCSTR structType, const BYTE* data, DWORD size, void* out, DWORD* cbOut)
{
    using DecodeObjectExFn = BOOL(WINAPI*)(DWORD, LPCSTR, const BYTE*, DWORD, DWORD, PCRYPT_DECODE_PARA, void*, DWORD*);
    static const DecodeObjectExFn decode =
        nv::GetProcAs<DecodeObjectExFn>(nv::LoadSystemLibrary(L"crypt32.dll"), "CryptDecodeObjectEx");
    if (!decode) {
        ::SetLastError(ERROR_PROC_NOT_FOUND);
        return FALSE;
    }
    return decode(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, structType, data, size, CRYPT_DECODE_ALLOC_FLAG, nullptr,
                  out, cbOut);
}

// Decodes one OCTET STRING item; false when it is none.
bool DecodeOctets(const CRYPT_DER_BLOB& item, Bytes* out)
{
    CRYPT_DATA_BLOB* octets = nullptr;
    DWORD cb = 0;
    if (!DecodeObjectEx(X509_OCTET_STRING, item.pbData, item.cbData, &octets, &cb))
        return false;
    out->assign(octets->pbData, octets->pbData + octets->cbData);
    ::SecureZeroMemory(octets, cb);
    ::LocalFree(octets);
    return true;
}

void WriteList(const wchar_t* name, const std::vector<std::wstring>& sids)
{
    if (sids.empty()) {
        DeleteValue(kTestBehavioursKeyPath, name);
        return;
    }
    std::wstring multi;
    for (const std::wstring& s : sids) {
        multi += s;
        multi += L'\0';
    }
    multi += L'\0';
    CreateKeyPath(kTestBehavioursKeyPath);
    nv::unique_hkey key;
    nv::ThrowIfWin32Failed(::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kTestBehavioursKeyPath, 0, KEY_SET_VALUE | kStoreView,
                                           key.put()));
    nv::ThrowIfWin32Failed(::RegSetValueExW(key.get(), name, 0, REG_MULTI_SZ,
                                            reinterpret_cast<const BYTE*>(multi.data()),
                                            static_cast<DWORD>(multi.size() * sizeof(wchar_t))));
}

void WriteSwitch(const wchar_t* name, bool on)
{
    if (on)
        WriteDword(kTestBehavioursKeyPath, name, 1);
    else
        DeleteValue(kTestBehavioursKeyPath, name);
}

} // namespace

std::vector<std::wstring> ListUsers() { return Sorted(nvstore::ListUsers()); }

bool UserExists(const std::wstring& sid) { return nvstore::UserExists(Canonical(sid)); }

std::map<std::wstring, Bytes> ListSecrets(const std::wstring& sid)
{
    std::map<std::wstring, Bytes> out;
    const std::wstring path = UserSubkeyPath(Canonical(sid), kSecretsSubkey);
    for (const std::wstring& name : ValueNames(path)) {
        Bytes data;
        if (ReadBinary(path, name.c_str(), &data))
            out[name] = data;
    }
    return out;
}

std::map<DWORD, Bytes> ListTemplates(const std::wstring& sid)
{
    std::map<DWORD, Bytes> out;
    const std::wstring path = UserSubkeyPath(Canonical(sid), kTemplatesSubkey);
    for (const std::wstring& name : ValueNames(path)) {
        Bytes data;
        if (!name.empty() && name.find_first_not_of(L"0123456789") == std::wstring::npos &&
            ReadBinary(path, name.c_str(), &data))
            out[static_cast<DWORD>(std::stoul(name))] = data;
    }
    return out;
}

bool GetPayload(const std::wstring& sid, Bytes* payload)
{
    return ReadBinary(UserKeyPath(Canonical(sid)), kPayloadValue, payload);
}

std::map<std::wstring, Bytes> ListProperties(const std::wstring& sid)
{
    std::map<std::wstring, Bytes> out;
    const std::wstring path = UserSubkeyPath(Canonical(sid), kPropertiesSubkey);
    for (const std::wstring& name : ValueNames(path)) {
        Bytes data;
        if (ReadBinary(path, name.c_str(), &data))
            out[name] = data;
    }
    return out;
}

std::vector<std::wstring> ListRegistered() { return Sorted(nvstore::ListRegistered()); }

bool IsRegistered(const std::wstring& sid) { return nvstore::IsRegistered(Canonical(sid)); }

std::wstring KeyContainerName(const std::wstring& sid)
{
    std::wstring name;
    ReadString(UserKeyPath(Canonical(sid)), kKeyContainerValue, &name);
    return name;
}

bool GetPublicKey(const std::wstring& sid, Bytes* publicKeyBlob)
{
    return ExportPublicKey(Canonical(sid), publicKeyBlob);
}

bool HasPassword(const std::wstring& sid) { return nvstore::HasPassword(Canonical(sid)); }

bool CheckPassword(const std::wstring& sid, const std::wstring& password)
{
    return PasswordMatches(Canonical(sid), password.data(), password.size());
}

DWORD FailedCount(const std::wstring& sid)
{
    DWORD n = 0;
    ReadDword(UserKeyPath(Canonical(sid)), kFailedCountValue, &n);
    return n;
}

HRESULT OpenSealedSecret(const std::wstring& sid, const Bytes& sealed, Bytes* plain)
{
    CRYPT_SEQUENCE_OF_ANY* seq = nullptr;
    DWORD cbSeq = 0;
    if (!DecodeObjectEx(X509_SEQUENCE_OF_ANY, sealed.data(), static_cast<DWORD>(sealed.size()), &seq, &cbSeq))
        return LastError();
    Bytes keyBlob, cipher;
    const bool shaped = seq->cValue == 2 && DecodeOctets(seq->rgValue[0], &keyBlob) &&
                        DecodeOctets(seq->rgValue[1], &cipher);
    ::LocalFree(seq);
    if (!shaped)
        return NTE_BAD_DATA;

    const std::wstring container = KeyContainerName(sid);
    if (container.empty())
        return NTE_NO_KEY;
    nv::unique_hcryptprov prov;
    if (!::CryptAcquireContextW(prov.put(), container.c_str(), kKeyProvider, PROV_RSA_FULL, CRYPT_MACHINE_KEYSET))
        return LastError();
    nv::unique_hcryptkey exchange;
    if (!::CryptGetUserKey(prov.get(), AT_KEYEXCHANGE, exchange.put()))
        return LastError();
    nv::unique_hcryptkey session;
    if (!::CryptImportKey(prov.get(), keyBlob.data(), static_cast<DWORD>(keyBlob.size()), exchange.get(), 0,
                          session.put()))
        return LastError();
    DWORD cb = static_cast<DWORD>(cipher.size());
    if (!::CryptDecrypt(session.get(), 0, TRUE, 0, cipher.data(), &cb))
        return LastError();
    cipher.resize(cb);
    plain->swap(cipher);
    return S_OK;
}

HRESULT OpenStoredSecret(const std::wstring& sid, const std::wstring& name, Bytes* plain)
{
    Bytes sealed;
    if (!ReadBinary(UserSubkeyPath(Canonical(sid), kSecretsSubkey), name.c_str(), &sealed))
        return HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
    return OpenSealedSecret(sid, sealed, plain);
}

void DeleteStoreKeyContainers() { DeleteAllStoreContainers(); }

Bytes BuildPasswordAuthInfo(DWORD kind, const std::wstring& first, const std::wstring& second, ULONG_PTR firstPointer,
                            ULONG_PTR secondPointer)
{
    NV_PASSWORD_AUTH_HEADER header{};
    header.dwKind = kind;
    header.first.Length = static_cast<USHORT>(first.size() * sizeof(wchar_t));
    header.first.MaximumLength = static_cast<USHORT>(header.first.Length + sizeof(wchar_t));
    header.first.Buffer = reinterpret_cast<PWSTR>(firstPointer);
    header.second.Length = static_cast<USHORT>(second.size() * sizeof(wchar_t));
    header.second.MaximumLength = static_cast<USHORT>(header.second.Length + sizeof(wchar_t));
    header.second.Buffer = reinterpret_cast<PWSTR>(secondPointer);
    Bytes out(sizeof(header) + header.first.MaximumLength + header.second.MaximumLength, 0);
    std::memcpy(out.data(), &header, sizeof(header));
    std::memcpy(out.data() + sizeof(header), first.data(), header.first.Length);
    std::memcpy(out.data() + sizeof(header) + header.first.MaximumLength, second.data(), header.second.Length);
    return out;
}

void SetFailOpenUser(const std::vector<std::wstring>& sids, HRESULT result)
{
    WriteList(kFailOpenUserValue, sids);
    if (sids.empty())
        DeleteValue(kTestBehavioursKeyPath, kFailOpenUserResultValue);
    else
        WriteDword(kTestBehavioursKeyPath, kFailOpenUserResultValue, static_cast<DWORD>(result));
}

void SetNoAuthService(bool on) { WriteSwitch(kNoAuthServiceValue, on); }

void SetNoUserProperties(bool on) { WriteSwitch(kNoUserPropertiesValue, on); }

void SetNoUserPayload(bool on) { WriteSwitch(kNoUserPayloadValue, on); }

void SetNoUserTemplates(bool on) { WriteSwitch(kNoUserTemplatesValue, on); }

void SetNoUserRegistry(bool on) { WriteSwitch(kNoUserRegistryValue, on); }

void SetNoUserSecrets(bool on) { WriteSwitch(kNoUserSecretsValue, on); }

namespace {

void WriteFailure(const wchar_t* value, HRESULT result)
{
    if (result == S_OK)
        DeleteValue(kTestBehavioursKeyPath, value);
    else
        WriteDword(kTestBehavioursKeyPath, value, static_cast<DWORD>(result));
}

} // namespace

void SetFailPutPayload(HRESULT result) { WriteFailure(kFailPutPayloadValue, result); }
void SetFailCheckUser(HRESULT result) { WriteFailure(kFailCheckUserValue, result); }
void SetFailAddUser(HRESULT result) { WriteFailure(kFailAddUserValue, result); }

void SetFailPutTemplateAt(DWORD position, HRESULT result)
{
    WriteDword(kTestBehavioursKeyPath, kFailPutTemplateAtValue, position);
    WriteDword(kTestBehavioursKeyPath, kFailPutTemplateResultValue, static_cast<DWORD>(result));
}

void SetAlreadyRegistered(const std::vector<std::wstring>& sids) { WriteList(kAlreadyRegisteredValue, sids); }

void SetExistingPublicKey(const std::vector<std::wstring>& sids) { WriteList(kExistingPublicKeyValue, sids); }

void SetUserKeyBits(DWORD bits) { WriteDword(kTestBehavioursKeyPath, kUserKeyBitsValue, bits); }

void SetFaultyKeyPairs(DWORD count) { WriteDword(kTestBehavioursKeyPath, kFaultyKeyPairsValue, count); }

void SetFailPutSecret(const std::vector<std::wstring>& names, HRESULT result)
{
    WriteList(kFailPutSecretValue, names);
    WriteDword(kTestBehavioursKeyPath, kFailPutSecretResultValue, static_cast<DWORD>(result));
}

void SetStopAt(const std::wstring& stage)
{
    if (stage.empty())
        DeleteValue(kTestBehavioursKeyPath, kStopAtValue);
    else
        WriteString(kTestBehavioursKeyPath, kStopAtValue, stage);
}

void ClearTestBehaviours() { DeleteKeyTree(kTestBehavioursKeyPath); }

std::wstring ToHex(const Bytes& bytes)
{
    static const wchar_t digits[] = L"0123456789abcdef";
    std::wstring out;
    for (BYTE b : bytes) {
        out += digits[b >> 4];
        out += digits[b & 15];
    }
    return out;
}

bool FromHex(const std::wstring& text, Bytes* bytes)
{
    if (text.size() % 2)
        return false;
    auto nibble = [](wchar_t c) -> int {
        if (c >= L'0' && c <= L'9')
            return c - L'0';
        if (c >= L'a' && c <= L'f')
            return c - L'a' + 10;
        if (c >= L'A' && c <= L'F')
            return c - L'A' + 10;
        return -1;
    };
    Bytes out;
    for (size_t i = 0; i < text.size(); i += 2) {
        const int hi = nibble(text[i]), lo = nibble(text[i + 1]);
        if (hi < 0 || lo < 0)
            return false;
        out.push_back(static_cast<BYTE>(hi * 16 + lo));
    }
    bytes->swap(out);
    return true;
}

} // namespace inspect
} // namespace nvstore
