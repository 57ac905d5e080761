#include "writer/host_provisioning.h"

#include <comdef.h>

#include "common/systemimports.h"

namespace nvwriter {

namespace {

constexpr DWORD kDer = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

[[noreturn]] void Raise(HRESULT hr) { throw _com_error(hr); }

[[noreturn]] void RaiseLastError()
{
    const DWORD err = ::GetLastError();
    Raise(err == 0 ? E_FAIL : ((err & 0xFFFF0000u) ? static_cast<HRESULT>(err) : HRESULT_FROM_WIN32(err)));
}

void RaiseIfRegFailed(LONG r)
{
    if (r != ERROR_SUCCESS)
        Raise(HRESULT_FROM_WIN32(static_cast<DWORD>(r)));
}

// Zeroes what a vector held before it goes: records may carry secrets.
struct Wiped {
    std::vector<BYTE> bytes;
    ~Wiped()
    {
        if (!bytes.empty())
            ::SecureZeroMemory(bytes.data(), bytes.size());
    }
};

std::vector<BYTE> EncodeStruct(LPCSTR type, const void* info)
{
    DWORD cb = 0;
    if (!nv::sys::CryptEncodeObject(kDer, type, info, nullptr, &cb))
        RaiseLastError();
    std::vector<BYTE> out(cb);
    if (!nv::sys::CryptEncodeObject(kDer, type, info, out.data(), &cb))
        RaiseLastError();
    out.resize(cb);
    return out;
}

nv::unique_hcryptprov Acquire(const GUID& id, DWORD flags)
{
    const std::wstring name = ContainerNameOf(id);
    nv::unique_hcryptprov prov;
    if (!::CryptAcquireContextW(prov.put(), name.c_str(), kHostKeyProvider, PROV_RSA_FULL,
                                CRYPT_MACHINE_KEYSET | flags))
        RaiseLastError();
    return prov;
}

} // namespace

std::vector<BYTE> HostIdBytes(const GUID& id)
{
    std::vector<BYTE> out;
    out.reserve(16);
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<BYTE>((id.Data1 >> shift) & 0xFF));
    out.push_back(static_cast<BYTE>(id.Data2 >> 8));
    out.push_back(static_cast<BYTE>(id.Data2 & 0xFF));
    out.push_back(static_cast<BYTE>(id.Data3 >> 8));
    out.push_back(static_cast<BYTE>(id.Data3 & 0xFF));
    out.insert(out.end(), id.Data4, id.Data4 + 8);
    return out;
}

std::wstring ContainerNameOf(const GUID& id)
{
    static const wchar_t hex[] = L"0123456789ABCDEF";
    // The registry form is the network byte order with dashes after bytes 4, 6, 8 and 10.
    const std::vector<BYTE> bytes = HostIdBytes(id);
    std::wstring name = L"{";
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            name += L'-';
        name += hex[bytes[i] >> 4];
        name += hex[bytes[i] & 0x0F];
    }
    name += L'}';
    return name;
}

void WriteHostId(const GUID& id, REGSAM view)
{
    HKEY raw = nullptr;
    RaiseIfRegFailed(::RegCreateKeyExW(HKEY_LOCAL_MACHINE, kHostKeyPath, 0, nullptr, REG_OPTION_NON_VOLATILE,
                                       KEY_SET_VALUE | view, nullptr, &raw, nullptr));
    nv::unique_hkey key(raw);
    const std::vector<BYTE> bytes = HostIdBytes(id);
    RaiseIfRegFailed(::RegSetValueExW(key.get(), kHostIdValueName, 0, REG_BINARY, bytes.data(),
                                      static_cast<DWORD>(bytes.size())));
}

namespace {
DWORD g_hostKeyBits = kHostKeyBits;
} // namespace

DWORD HostKeyBits() { return g_hostKeyBits; }

void SetHostKeyBits(DWORD bits) { g_hostKeyBits = bits ? bits : kHostKeyBits; }

void CreateMachineContainer(const GUID& id)
{
    nv::unique_hcryptprov prov = Acquire(id, CRYPT_NEWKEYSET);
    nv::unique_hcryptkey key;
    if (!::CryptGenKey(prov.get(), AT_KEYEXCHANGE, (HostKeyBits() << 16) | CRYPT_EXPORTABLE, key.put()))
        RaiseLastError();
    // Key before provider; the release of the creating handle publishes the key.
    key.reset();
    prov.reset();
}

bool DeleteMachineContainer(const GUID& id)
{
    const std::wstring name = ContainerNameOf(id);
    HCRYPTPROV unused = 0;
    if (::CryptAcquireContextW(&unused, name.c_str(), kHostKeyProvider, PROV_RSA_FULL,
                               CRYPT_MACHINE_KEYSET | CRYPT_DELETEKEYSET))
        return true;
    if (::GetLastError() == static_cast<DWORD>(NTE_BAD_KEYSET))
        return false;
    RaiseLastError();
}

bool MachineContainerExists(const GUID& id)
{
    const std::wstring name = ContainerNameOf(id);
    HCRYPTPROV prov = 0;
    if (!::CryptAcquireContextW(&prov, name.c_str(), kHostKeyProvider, PROV_RSA_FULL, CRYPT_MACHINE_KEYSET))
        return false;
    ::CryptReleaseContext(prov, 0);
    return true;
}

nv::unique_hcryptprov OpenMachineContainer(const GUID& id)
{
    return Acquire(id, 0);
}

void ProvisionHost(const GUID& id, REGSAM view)
{
    WriteHostId(id, view);
    DeleteMachineContainer(id);
    CreateMachineContainer(id);
}

std::vector<BYTE> PublicKeyInfoOf(HCRYPTPROV hProv)
{
    DWORD cb = 0;
    if (!nv::sys::CryptExportPublicKeyInfo(hProv, AT_KEYEXCHANGE, kDer, nullptr, &cb))
        RaiseLastError();
    std::vector<BYTE> info(cb);
    auto* pInfo = reinterpret_cast<CERT_PUBLIC_KEY_INFO*>(info.data());
    if (!nv::sys::CryptExportPublicKeyInfo(hProv, AT_KEYEXCHANGE, kDer, pInfo, &cb))
        RaiseLastError();
    return EncodeStruct(X509_PUBLIC_KEY_INFO, pInfo);
}

std::vector<BYTE> EncodeOctetString(const std::vector<BYTE>& content)
{
    CRYPT_DATA_BLOB blob{static_cast<DWORD>(content.size()), const_cast<BYTE*>(content.data())};
    return EncodeStruct(X509_OCTET_STRING, &blob);
}

std::vector<BYTE> EncodeBitString(const std::vector<BYTE>& content, DWORD unusedBits)
{
    CRYPT_BIT_BLOB bits{static_cast<DWORD>(content.size()), const_cast<BYTE*>(content.data()), unusedBits};
    return EncodeStruct(X509_BITS, &bits);
}

std::vector<BYTE> EncodeTime(const FILETIME& utc)
{
    return EncodeStruct(X509_CHOICE_OF_TIME, &utc);
}

std::vector<BYTE> MakeSignedSequence(HCRYPTPROV hProv, const std::vector<std::vector<BYTE>>& derItems,
                                     const char* signatureOid)
{
    std::vector<CRYPT_DER_BLOB> blobs;
    for (const auto& item : derItems)
        blobs.push_back(CRYPT_DER_BLOB{static_cast<DWORD>(item.size()), const_cast<BYTE*>(item.data())});
    CRYPT_SEQUENCE_OF_ANY sequence{static_cast<DWORD>(blobs.size()), blobs.data()};

    CRYPT_ALGORITHM_IDENTIFIER algorithm{};
    algorithm.pszObjId = const_cast<LPSTR>(signatureOid);
    DWORD cb = 0;
    if (!nv::sys::CryptSignAndEncodeCertificate(hProv, AT_KEYEXCHANGE, kDer, X509_SEQUENCE_OF_ANY, &sequence,
                                                &algorithm, nullptr, nullptr, &cb))
        RaiseLastError();
    std::vector<BYTE> record(cb);
    if (!nv::sys::CryptSignAndEncodeCertificate(hProv, AT_KEYEXCHANGE, kDer, X509_SEQUENCE_OF_ANY, &sequence,
                                                &algorithm, nullptr, record.data(), &cb))
        RaiseLastError();
    record.resize(cb);
    return record;
}

std::vector<BYTE> MakeExportRecord(HCRYPTPROV hProv, const ExportRecordItems& items)
{
    FILETIME time = items.time;
    if (time.dwLowDateTime == 0 && time.dwHighDateTime == 0)
        ::GetSystemTimeAsFileTime(&time);
    std::vector<std::vector<BYTE>> der;
    der.push_back(EncodeOctetString(items.data));
    der.push_back(EncodeBitString(items.sourceBits));
    der.push_back(EncodeBitString(items.targetBits));
    der.push_back(EncodeTime(time));
    std::vector<BYTE> record = MakeSignedSequence(hProv, der);
    Wiped wipe{std::move(der[0])};
    return record;
}

} // namespace nvwriter
