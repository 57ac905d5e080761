#include "writer/db20_host.h"

#include "common/handles.h"
#include "common/hresult.h"
#include "common/regkey.h"

namespace nvwriter {

namespace {

constexpr const wchar_t kHostKeyPath[] = L"SOFTWARE\\Norvane\\NVHOST";
constexpr const wchar_t kHostIdValue[] = L"HostId";
constexpr const wchar_t kProvider[] = L"Microsoft Enhanced Cryptographic Provider v1.0";
constexpr char kMd5Rsa[] = "1.2.840.113549.1.1.4";
constexpr DWORD kRsa2048 = 2048u << 16;

} // namespace

std::wstring Db20ContainerName(const GUID& hostId)
{
    wchar_t text[64] = {};
    ::StringFromGUID2(hostId, text, 64);
    return text;
}

void Db20WriteHostId(const GUID& hostId)
{
    nv::CNVRegKey key;
    nv::ThrowIfWin32Failed(key.Create(HKEY_LOCAL_MACHINE, kHostKeyPath, KEY_ALL_ACCESS | KEY_WOW64_32KEY));
    const DerBytes bytes = der20::GuidNetworkBytes(hostId);
    nv::ThrowIfWin32Failed(::RegSetValueExW(key, kHostIdValue, 0, REG_BINARY, bytes.data(),
                                            static_cast<DWORD>(bytes.size())));
}

void Db20CreateMachineContainer(const GUID& hostId)
{
    const std::wstring name = Db20ContainerName(hostId);
    Db20DeleteMachineContainer(hostId);
    nv::unique_hcryptprov prov;
    nv::ThrowLastErrorIf(!::CryptAcquireContextW(prov.put(), name.c_str(), kProvider, PROV_RSA_FULL,
                                                 CRYPT_NEWKEYSET | CRYPT_MACHINE_KEYSET));
    nv::unique_hcryptkey key;
    nv::ThrowLastErrorIf(!::CryptGenKey(prov.get(), AT_KEYEXCHANGE, kRsa2048 | CRYPT_EXPORTABLE, key.put()));
}

HRESULT Db20DeleteMachineContainer(const GUID& hostId) noexcept
{
    const std::wstring name = Db20ContainerName(hostId);
    HCRYPTPROV unused = 0;
    if (::CryptAcquireContextW(&unused, name.c_str(), kProvider, PROV_RSA_FULL,
                               CRYPT_DELETEKEYSET | CRYPT_MACHINE_KEYSET))
        return S_OK;
    const DWORD err = ::GetLastError();
    return err == static_cast<DWORD>(NTE_BAD_KEYSET) ? S_OK : nv::HResultFromWin32(static_cast<LONG>(err));
}

DerBytes Db20SignedEnvelope(HCRYPTPROV hProv, const DerBytes& toBeSigned)
{
    CRYPT_ALGORITHM_IDENTIFIER algorithm{const_cast<LPSTR>(kMd5Rsa), {0, nullptr}};
    if (!hProv) {
        // No key at hand: a signature of the right size that verifies against nothing.
        DerBytes signature(256, 0xA5);
        CERT_SIGNED_CONTENT_INFO info{};
        info.ToBeSigned = {static_cast<DWORD>(toBeSigned.size()), const_cast<BYTE*>(toBeSigned.data())};
        info.SignatureAlgorithm = algorithm;
        info.Signature = {static_cast<DWORD>(signature.size()), signature.data(), 0};
        return der20::Encode(X509_CERT, &info);
    }
    DWORD cbSignature = 0;
    nv::ThrowLastErrorIf(!::CryptSignCertificate(hProv, AT_KEYEXCHANGE, der20::kEncoding, toBeSigned.data(),
                                                 static_cast<DWORD>(toBeSigned.size()), &algorithm, nullptr,
                                                 nullptr, &cbSignature));
    DerBytes signature(cbSignature);
    nv::ThrowLastErrorIf(!::CryptSignCertificate(hProv, AT_KEYEXCHANGE, der20::kEncoding, toBeSigned.data(),
                                                 static_cast<DWORD>(toBeSigned.size()), &algorithm, nullptr,
                                                 signature.data(), &cbSignature));
    signature.resize(cbSignature);

    CERT_SIGNED_CONTENT_INFO info{};
    info.ToBeSigned = {static_cast<DWORD>(toBeSigned.size()), const_cast<BYTE*>(toBeSigned.data())};
    info.SignatureAlgorithm = algorithm;
    info.Signature = {static_cast<DWORD>(signature.size()), signature.data(), 0};
    return der20::Encode(X509_CERT, &info);
}

DerBytes Db20ExportRecord(HCRYPTPROV hProv, const DerBytes& data, const GUID& source, const GUID& target,
                          const FILETIME& when)
{
    const DerBytes content = der20::Seq({der20::Octets(data), der20::Bits(der20::GuidNetworkBytes(source)),
                                         der20::Bits(der20::GuidNetworkBytes(target)), der20::Time(when)});
    return Db20SignedEnvelope(hProv, content);
}

} // namespace nvwriter
