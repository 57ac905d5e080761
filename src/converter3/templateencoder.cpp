#include "converter3/templateencoder.h"

#include <wincrypt.h>
#include <vector>
#include "common/replaceablecalls.h"
#include "common/hresult.h"

namespace {

constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

std::vector<BYTE> Encode(LPCSTR structType, const void* value)
{
    DWORD cb = 0;
    nv::ThrowLastErrorIf(!nv::CallCryptEncodeObject(kEncoding, structType, value, nullptr, &cb));
    std::vector<BYTE> out(cb);
    nv::ThrowLastErrorIf(!nv::CallCryptEncodeObject(kEncoding, structType, value, out.data(), &cb));
    out.resize(cb);
    return out;
}

// 32-bit numbers go to the encoder as their 4 bytes, least significant first.
std::vector<BYTE> EncodeNumber(LPCSTR structType, DWORD value)
{
    BYTE bytes[4] = {static_cast<BYTE>(value), static_cast<BYTE>(value >> 8), static_cast<BYTE>(value >> 16),
                     static_cast<BYTE>(value >> 24)};
    CRYPT_INTEGER_BLOB blob{sizeof(bytes), bytes};
    return Encode(structType, &blob);
}

std::vector<BYTE> EncodeUInt(DWORD value) { return EncodeNumber(X509_MULTI_BYTE_UINT, value); }
std::vector<BYTE> EncodeInt(LONG value)
{
    // Wine's crypt32 faults on a value of nothing but 0xFF bytes; the DER of -1 is
    // fixed, so it is written out here.
    if (value == -1)
        return {0x02, 0x01, 0xFF};
    return EncodeNumber(X509_MULTI_BYTE_INTEGER, static_cast<DWORD>(value));
}

std::vector<BYTE> EncodeOctets(const void* data, DWORD cb)
{
    CRYPT_DATA_BLOB blob{cb, const_cast<BYTE*>(static_cast<const BYTE*>(data))};
    return Encode(X509_OCTET_STRING, &blob);
}

std::vector<BYTE> EncodeSequence(std::vector<std::vector<BYTE>>& items)
{
    std::vector<CRYPT_DER_BLOB> blobs;
    blobs.reserve(items.size());
    for (auto& item : items)
        blobs.push_back(CRYPT_DER_BLOB{static_cast<DWORD>(item.size()), item.data()});
    CRYPT_SEQUENCE_OF_ANY seq{static_cast<DWORD>(blobs.size()), blobs.data()};
    return Encode(X509_SEQUENCE_OF_ANY, &seq);
}

} // namespace

void EncodeTemplate(const CNVTemplate& tmpl, nv::CCryptBlob& blob)
{
    const BI_DATAOBJECT_INFO& info = tmpl.m_header.info;
    std::vector<std::vector<BYTE>> infoItems;
    infoItems.push_back(EncodeUInt(info.dwFormat));
    infoItems.push_back(EncodeUInt(info.dwFlags));
    infoItems.push_back(EncodeOctets(&info.guidType, sizeof(GUID)));
    infoItems.push_back(EncodeOctets(&info.guidOwner, sizeof(GUID)));
    infoItems.push_back(EncodeUInt(info.dwSize));

    std::vector<std::vector<BYTE>> objectItems;
    objectItems.push_back(EncodeSequence(infoItems));
    objectItems.push_back(EncodeInt(tmpl.m_header.lHeaderValue));

    std::vector<std::vector<BYTE>> outerItems;
    outerItems.push_back(EncodeSequence(objectItems));
    outerItems.push_back(EncodeOctets(tmpl.m_data.data(), static_cast<DWORD>(tmpl.m_data.size())));

    std::vector<BYTE> der = EncodeSequence(outerItems);
    blob.Assign(der.data(), static_cast<DWORD>(der.size()));
}
