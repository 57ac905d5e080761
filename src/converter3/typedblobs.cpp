#include "converter3/typedblobs.h"

#include <cstring>
#include <cwchar>
#include <utility>
#include "common/replaceablecalls.h"
#include "common/hresult.h"

namespace {

bool IsStructType(LPCSTR a, LPCSTR b) noexcept { return a == b; }

// The CryptoAPI string types a wide-string item may carry: numeric, printable,
// teletex, videotex, IA5, graphic, visible (one byte per character), and BMP.
bool IsAcceptedStringType(DWORD dwValueType) noexcept
{
    return (dwValueType >= CERT_RDN_NUMERIC_STRING && dwValueType <= CERT_RDN_VISIBLE_STRING) ||
           dwValueType == CERT_RDN_BMP_STRING;
}

// A little-endian multi-byte number cut or extended to 4 bytes; raises
// CRYPT_E_ASN1_LARGE when it does not fit.
void StoreNumber32(const CRYPT_INTEGER_BLOB& number, bool isSigned, CNVAnyBlob& out)
{
    const BYTE fill = (isSigned && number.cbData && (number.pbData[number.cbData - 1] & 0x80)) ? 0xFF : 0x00;
    for (DWORD i = 4; i < number.cbData; ++i) {
        if (number.pbData[i] != fill)
            nv::ThrowHr(CRYPT_E_ASN1_LARGE);
    }
    if (isSigned && number.cbData > 4 && ((number.pbData[3] & 0x80) != (fill & 0x80)))
        nv::ThrowHr(CRYPT_E_ASN1_LARGE);
    BYTE* p = out.Allocate(4);
    for (DWORD i = 0; i < 4; ++i)
        p[i] = i < number.cbData ? number.pbData[i] : fill;
}

bool IsAllOnes(const CRYPT_DATA_BLOB& blob) noexcept
{
    if (blob.cbData == 0 || !blob.pbData)
        return false;
    for (DWORD i = 0; i < blob.cbData; ++i) {
        if (blob.pbData[i] != 0xFF)
            return false;
    }
    return true;
}

void StoreLe32(BYTE* p, DWORD v) noexcept
{
    p[0] = static_cast<BYTE>(v);
    p[1] = static_cast<BYTE>(v >> 8);
    p[2] = static_cast<BYTE>(v >> 16);
    p[3] = static_cast<BYTE>(v >> 24);
}

DWORD LoadLe32(const nv::CCryptBlob& blob)
{
    if (blob.cbData != 4 || !blob.pbData)
        nv::ThrowHr(NTE_BAD_DATA);
    const BYTE* p = blob.pbData;
    return DWORD(p[0]) | (DWORD(p[1]) << 8) | (DWORD(p[2]) << 16) | (DWORD(p[3]) << 24);
}

} // namespace

void NVEncodeObject(LPCSTR lpszStructType, const void* pvStructInfo, nv::CCryptBlob& out)
{
    DWORD cb = 0;
    if (!nv::CallCryptEncodeObject(kNVEncodingType, lpszStructType, pvStructInfo, nullptr, &cb))
        nv::ThrowLastError();
    nv::CCryptBlob encoded;
    encoded.Allocate(cb);
    if (!nv::CallCryptEncodeObject(kNVEncodingType, lpszStructType, pvStructInfo, encoded.pbData, &cb))
        nv::ThrowLastError();
    encoded.cbData = cb; // the second call may report fewer bytes than the size query
    out = std::move(encoded);
}

void NVDecodeObject(LPCSTR lpszStructType, const BYTE* pbDer, DWORD cbDer, nv::CCryptBlob& buffer)
{
    buffer.Free();
    // No bytes are too little data; the coder then only ever sees valid arguments,
    // so that its failure is a verdict on the bytes (see DecodeFailureResult).
    if (!pbDer || cbDer == 0)
        nv::ThrowHr(CRYPT_E_ASN1_EOD);
    DWORD cb = 0;
    if (!nv::CallCryptDecodeObject(kNVEncodingType, lpszStructType, pbDer, cbDer, 0, nullptr, &cb))
        nv::ThrowHr(nv::DecodeFailureResult(::GetLastError()));
    buffer.Allocate(cb);
    if (!nv::CallCryptDecodeObject(kNVEncodingType, lpszStructType, pbDer, cbDer, 0, buffer.pbData, &cb)) {
        const DWORD err = ::GetLastError();
        buffer.Free();
        nv::ThrowHr(nv::DecodeFailureResult(err));
    }
}

void CNVAnyBlob::Encode(nv::CCryptBlob& der) const
{
    if (IsStructType(m_lpszStructType, X509_ANY_STRING)) {
        // The BMPString carries the string up to and including its terminating zero,
        // as the raw value holds it: readers of the format take it as zero-terminated
        // UTF-16. A raw value that lacks the terminator gets one here.
        const DWORD maxChars = pbData ? cbData / sizeof(wchar_t) : 0;
        const auto* chars = reinterpret_cast<const wchar_t*>(pbData);
        DWORD n = 0;
        while (n < maxChars && chars[n] != L'\0')
            ++n;
        CERT_NAME_VALUE value{};
        value.dwValueType = CERT_RDN_BMP_STRING;
        value.Value.cbData = (n + 1) * sizeof(wchar_t);
        nv::CCryptBlob terminated;
        if (n < maxChars) {
            value.Value.pbData = pbData;
        } else {
            std::memcpy(terminated.Allocate(value.Value.cbData), pbData, n * sizeof(wchar_t));
            value.Value.pbData = terminated.pbData;
        }
        NVEncodeObject(X509_ANY_STRING, &value, der);
        return;
    }
    if (IsStructType(m_lpszStructType, X509_MULTI_BYTE_INTEGER) && IsAllOnes(*this)) {
        // -1: the platform's encoder faults on a value of nothing but 0xFF bytes
        // (Wine's crypt32); its DER is fixed, so it is written out here.
        const BYTE minusOne[] = {0x02, 0x01, 0xFF};
        der.Assign(minusOne, sizeof(minusOne));
        return;
    }
    // Octet strings and the multi-byte numbers take the blob pair as it stands.
    NVEncodeObject(m_lpszStructType, static_cast<const CRYPT_DATA_BLOB*>(this), der);
}

void CNVAnyBlob::Decode(const BYTE* pbDer, DWORD cbDer)
{
    Free();
    nv::CCryptBlob decoded;
    NVDecodeObject(m_lpszStructType, pbDer, cbDer, decoded);

    if (IsStructType(m_lpszStructType, X509_ANY_STRING)) {
        const auto* value = reinterpret_cast<const CERT_NAME_VALUE*>(decoded.pbData);
        if (!IsAcceptedStringType(value->dwValueType))
            return;
        // An item may carry the terminating zero or not; both give the same string,
        // held once with its terminator.
        if (value->dwValueType == CERT_RDN_BMP_STRING) {
            DWORD chars = value->Value.cbData / sizeof(wchar_t);
            const auto* src = reinterpret_cast<const wchar_t*>(value->Value.pbData);
            if (chars && src[chars - 1] == L'\0')
                --chars;
            BYTE* p = Allocate((chars + 1) * sizeof(wchar_t));
            std::memcpy(p, value->Value.pbData, chars * sizeof(wchar_t));
        } else {
            DWORD chars = value->Value.cbData;
            if (chars && value->Value.pbData[chars - 1] == 0)
                --chars;
            auto* p = reinterpret_cast<wchar_t*>(Allocate((chars + 1) * sizeof(wchar_t)));
            for (DWORD i = 0; i < chars; ++i)
                p[i] = static_cast<wchar_t>(value->Value.pbData[i]);
        }
        return;
    }
    const auto* blob = reinterpret_cast<const CRYPT_DATA_BLOB*>(decoded.pbData);
    if (IsStructType(m_lpszStructType, X509_MULTI_BYTE_INTEGER)) {
        StoreNumber32(*blob, true, *this);
    } else if (IsStructType(m_lpszStructType, X509_MULTI_BYTE_UINT)) {
        StoreNumber32(*blob, false, *this);
    } else if (IsStructType(m_lpszStructType, X509_OCTET_STRING)) {
        Assign(blob->pbData, blob->cbData);
    } else {
        nv::ThrowHr(E_INVALIDARG);
    }
}

CNVGUIDBlob::CNVGUIDBlob(const GUID& guid) : CNVGUIDBlob()
{
    Assign(reinterpret_cast<const BYTE*>(&guid), sizeof(GUID));
}

GUID CNVGUIDBlob::Value() const
{
    if (cbData != sizeof(GUID) || !pbData)
        nv::ThrowHr(NTE_BAD_DATA);
    GUID guid;
    std::memcpy(&guid, pbData, sizeof(GUID));
    return guid;
}

CNVIntBlob::CNVIntBlob(LONG lValue) : CNVIntBlob()
{
    StoreLe32(Allocate(4), static_cast<DWORD>(lValue));
}

LONG CNVIntBlob::Value() const { return static_cast<LONG>(LoadLe32(*this)); }

CNVULongBlob::CNVULongBlob(ULONG ulValue) : CNVULongBlob()
{
    StoreLe32(Allocate(4), ulValue);
}

ULONG CNVULongBlob::Value() const { return LoadLe32(*this); }

CNVUIntBlob::CNVUIntBlob(UINT uValue) : CNVUIntBlob()
{
    StoreLe32(Allocate(4), uValue);
}

UINT CNVUIntBlob::Value() const { return LoadLe32(*this); }

CNVWStrBlob::CNVWStrBlob(const wchar_t* pwsz) : CNVWStrBlob()
{
    const size_t chars = pwsz ? std::wcslen(pwsz) : 0;
    if (chars > (MAXDWORD / sizeof(wchar_t)) - 1)
        nv::ThrowHr(E_INVALIDARG);
    BYTE* p = Allocate(static_cast<DWORD>((chars + 1) * sizeof(wchar_t)));
    if (chars)
        std::memcpy(p, pwsz, chars * sizeof(wchar_t));
}

const wchar_t* CNVWStrBlob::Value() const noexcept
{
    return IsEmpty() ? nullptr : reinterpret_cast<const wchar_t*>(pbData);
}

size_t CNVWStrBlob::Length() const noexcept
{
    if (IsEmpty())
        return 0;
    const auto* p = reinterpret_cast<const wchar_t*>(pbData);
    const size_t max = cbData / sizeof(wchar_t);
    size_t n = 0;
    while (n < max && p[n] != L'\0')
        ++n;
    return n;
}

void CNVSequence::Decode(const BYTE* pbDer, DWORD cbDer)
{
    NVDecodeObject(X509_SEQUENCE_OF_ANY, pbDer, cbDer, m_buffer);
}

DWORD CNVSequence::Count() const noexcept
{
    if (m_buffer.IsEmpty())
        return 0;
    return reinterpret_cast<const CRYPT_SEQUENCE_OF_ANY*>(m_buffer.pbData)->cValue;
}

const CRYPT_DER_BLOB& CNVSequence::Item(DWORD index) const
{
    if (index >= Count())
        nv::ThrowHr(NTE_BAD_DATA);
    return reinterpret_cast<const CRYPT_SEQUENCE_OF_ANY*>(m_buffer.pbData)->rgValue[index];
}

void NVEncodeSequence(std::initializer_list<const CRYPT_DER_BLOB*> items, nv::CCryptBlob& out)
{
    CRYPT_DER_BLOB values[16];
    if (items.size() > sizeof(values) / sizeof(values[0]))
        nv::ThrowHr(E_INVALIDARG);
    DWORD n = 0;
    for (const CRYPT_DER_BLOB* item : items)
        values[n++] = *item;
    CRYPT_SEQUENCE_OF_ANY seq{n, values};
    NVEncodeObject(X509_SEQUENCE_OF_ANY, &seq, out);
}
