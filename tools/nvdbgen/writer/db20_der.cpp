#include "writer/db20_der.h"

#include "common/hresult.h"
#include "common/systemimports.h"
#include "writer/host_provisioning.h"

namespace nvwriter {
namespace der20 {

DerBytes Encode(LPCSTR structType, const void* structInfo)
{
    DWORD cb = 0;
    nv::ThrowLastErrorIf(!nv::sys::CryptEncodeObject(kEncoding, structType, structInfo, nullptr, &cb));
    DerBytes out(cb);
    nv::ThrowLastErrorIf(!nv::sys::CryptEncodeObject(kEncoding, structType, structInfo, out.data(), &cb));
    out.resize(cb);
    return out;
}

DerBytes Uint(DWORD value)
{
    BYTE le[4] = {BYTE(value), BYTE(value >> 8), BYTE(value >> 16), BYTE(value >> 24)};
    CRYPT_UINT_BLOB blob{4, le};
    return Encode(X509_MULTI_BYTE_UINT, &blob);
}

DerBytes UintBytes(const DerBytes& littleEndian)
{
    CRYPT_UINT_BLOB blob{static_cast<DWORD>(littleEndian.size()), const_cast<BYTE*>(littleEndian.data())};
    return Encode(X509_MULTI_BYTE_UINT, &blob);
}

DerBytes Int(LONG value)
{
    // Wine's integer encoder reads before its buffer when every byte is 0xFF: -1 is
    // written out here in its one-byte DER form.
    if (value == -1)
        return DerBytes{0x02, 0x01, 0xFF};
    const DWORD v = static_cast<DWORD>(value);
    BYTE le[4] = {BYTE(v), BYTE(v >> 8), BYTE(v >> 16), BYTE(v >> 24)};
    CRYPT_INTEGER_BLOB blob{4, le};
    return Encode(X509_MULTI_BYTE_INTEGER, &blob);
}

DerBytes Octets(const BYTE* pb, DWORD cb)
{
    CRYPT_DATA_BLOB blob{cb, const_cast<BYTE*>(pb)};
    return Encode(X509_OCTET_STRING, &blob);
}

DerBytes GuidNetworkBytes(const GUID& g)
{
    return HostIdBytes(g);
}

DerBytes GuidOctets(const GUID& g)
{
    return Octets(GuidNetworkBytes(g));
}

DerBytes Time(const FILETIME& ft)
{
    return Encode(X509_CHOICE_OF_TIME, &ft);
}

DerBytes NameValue(DWORD valueType, const BYTE* pb, DWORD cb)
{
    CERT_NAME_VALUE value{valueType, {cb, const_cast<BYTE*>(pb)}};
    return Encode(X509_NAME_VALUE, &value);
}

DerBytes Text(const std::wstring& text)
{
    return NameValue(CERT_RDN_BMP_STRING, reinterpret_cast<const BYTE*>(text.c_str()),
                     static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
}

DerBytes Seq(const std::vector<DerBytes>& items)
{
    std::vector<CRYPT_DER_BLOB> blobs;
    blobs.reserve(items.size());
    for (const DerBytes& item : items)
        blobs.push_back(CRYPT_DER_BLOB{static_cast<DWORD>(item.size()), const_cast<BYTE*>(item.data())});
    CRYPT_SEQUENCE_OF_ANY seq{static_cast<DWORD>(blobs.size()), blobs.empty() ? nullptr : blobs.data()};
    return Encode(X509_SEQUENCE_OF_ANY, &seq);
}

DerBytes Seq(std::initializer_list<DerBytes> items)
{
    return Seq(std::vector<DerBytes>(items));
}

DerBytes Bits(const DerBytes& bytes)
{
    CRYPT_BIT_BLOB bits{static_cast<DWORD>(bytes.size()), const_cast<BYTE*>(bytes.data()), 0};
    return Encode(X509_BITS, &bits);
}

DerBytes AnyStringBmp(const std::wstring& text)
{
    CERT_NAME_VALUE value{CERT_RDN_BMP_STRING,
                          {static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)),
                           reinterpret_cast<BYTE*>(const_cast<wchar_t*>(text.c_str()))}};
    return Encode(X509_ANY_STRING, &value);
}

} // namespace der20
} // namespace nvwriter
