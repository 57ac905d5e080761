#include "support/signed_records.h"

#include <algorithm>

#include "common/handles.h"
#include "writer/host_provisioning.h"

namespace nvtest {

namespace {
constexpr DWORD kDer = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

bool Decode(LPCSTR type, const std::vector<BYTE>& der, std::vector<BYTE>* out)
{
    DWORD cb = 0;
    if (der.empty() ||
        !::CryptDecodeObject(kDer, type, der.data(), static_cast<DWORD>(der.size()), 0, nullptr, &cb))
        return false;
    out->assign(cb, 0);
    return ::CryptDecodeObject(kDer, type, der.data(), static_cast<DWORD>(der.size()), 0, out->data(), &cb) != FALSE;
}
} // namespace

bool DecodeSignedRecord(const std::vector<BYTE>& der, SignedRecord* out)
{
    std::vector<BYTE> buffer;
    if (!Decode(X509_CERT, der, &buffer))
        return false;
    const auto* info = reinterpret_cast<const CERT_SIGNED_CONTENT_INFO*>(buffer.data());
    out->toBeSigned.assign(info->ToBeSigned.pbData, info->ToBeSigned.pbData + info->ToBeSigned.cbData);
    out->oid = info->SignatureAlgorithm.pszObjId ? info->SignatureAlgorithm.pszObjId : "";
    out->cbParameters = info->SignatureAlgorithm.Parameters.cbData;
    // The decoder hands the signature back in the provider's (reversed) order.
    out->signature.assign(info->Signature.pbData, info->Signature.pbData + info->Signature.cbData);
    std::reverse(out->signature.begin(), out->signature.end());
    out->unusedBits = info->Signature.cUnusedBits;
    return true;
}

bool DecodeSequenceOfAny(const std::vector<BYTE>& der, std::vector<std::vector<BYTE>>* items)
{
    std::vector<BYTE> buffer;
    if (!Decode(X509_SEQUENCE_OF_ANY, der, &buffer))
        return false;
    const auto* seq = reinterpret_cast<const CRYPT_SEQUENCE_OF_ANY*>(buffer.data());
    items->clear();
    for (DWORD i = 0; i < seq->cValue; ++i)
        items->emplace_back(seq->rgValue[i].pbData, seq->rgValue[i].pbData + seq->rgValue[i].cbData);
    return true;
}

bool DecodeBlobContent(LPCSTR type, const std::vector<BYTE>& der, std::vector<BYTE>* content)
{
    std::vector<BYTE> buffer;
    if (!Decode(type, der, &buffer))
        return false;
    *content = BlobBytes(*reinterpret_cast<const CRYPT_DATA_BLOB*>(buffer.data()));
    return true;
}

std::vector<BYTE> PublicKeyBlobOf(HCRYPTPROV prov)
{
    nv::unique_hcryptkey key;
    DWORD cb = 0;
    if (!::CryptGetUserKey(prov, AT_KEYEXCHANGE, key.put()) ||
        !::CryptExportKey(key.get(), 0, PUBLICKEYBLOB, 0, nullptr, &cb))
        return {};
    std::vector<BYTE> blob(cb);
    if (!::CryptExportKey(key.get(), 0, PUBLICKEYBLOB, 0, blob.data(), &cb))
        return {};
    blob.resize(cb);
    return blob;
}

bool RsaSignatureMatches(const GUID& container, ALG_ID hashAlg, const std::vector<BYTE>& data,
                         const std::vector<BYTE>& sigBigEndian)
{
    nv::unique_hcryptprov prov;
    if (!::CryptAcquireContextW(prov.put(), nullptr, nvwriter::kHostKeyProvider, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT))
        return false;
    std::vector<BYTE> pub = PublicKeyBlobOf(nvwriter::OpenMachineContainer(container).get());
    nv::unique_hcryptkey key;
    if (pub.empty() || !::CryptImportKey(prov.get(), pub.data(), static_cast<DWORD>(pub.size()), 0, 0, key.put()))
        return false;
    HCRYPTHASH hash = 0;
    if (!::CryptCreateHash(prov.get(), hashAlg, 0, 0, &hash))
        return false;
    std::vector<BYTE> sig(sigBigEndian.rbegin(), sigBigEndian.rend());
    const bool ok =
        ::CryptHashData(hash, data.data(), static_cast<DWORD>(data.size()), 0) &&
        ::CryptVerifySignatureW(hash, sig.data(), static_cast<DWORD>(sig.size()), key.get(), nullptr, 0);
    ::CryptDestroyHash(hash);
    return ok;
}

std::vector<BYTE> BlobBytes(const CRYPT_DATA_BLOB& blob)
{
    if (!blob.pbData)
        return {};
    return std::vector<BYTE>(blob.pbData, blob.pbData + blob.cbData);
}

CRYPT_DATA_BLOB BlobOf(const std::vector<BYTE>& bytes)
{
    return CRYPT_DATA_BLOB{static_cast<DWORD>(bytes.size()), const_cast<BYTE*>(bytes.data())};
}

std::vector<BYTE> Concat(std::initializer_list<std::vector<BYTE>> parts)
{
    std::vector<BYTE> all;
    for (const auto& p : parts)
        all.insert(all.end(), p.begin(), p.end());
    return all;
}

} // namespace nvtest
