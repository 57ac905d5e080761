// Typed value blobs: byte blobs that know the CryptoAPI structure type with which
// their raw value is DER-encoded, and the SEQUENCE OF ANY that structured secrets
// and templates are built from.
//
// A typed blob holds its value in raw form (the table below); Encode produces the
// DER of that value, Decode replaces the raw value by the one a DER item carries.
// The family adds no virtual operation to CCryptBlob: the behaviour follows the
// structure type field alone.
//
//   CNVAnyBlob    X509_OCTET_STRING        any bytes
//   CNVGUIDBlob   X509_OCTET_STRING        the 16 bytes of a GUID, memory order
//   CNVIntBlob    X509_MULTI_BYTE_INTEGER  signed 32-bit, 4 bytes little-endian
//   CNVULongBlob  X509_MULTI_BYTE_UINT     unsigned 32-bit, 4 bytes little-endian
//   CNVUIntBlob   X509_MULTI_BYTE_UINT     unsigned 32-bit, 4 bytes little-endian
//   CNVWStrBlob   X509_ANY_STRING (BMP)    the wide string with its terminating zero
//
// Failures raise _com_error: CryptoAPI failures carry HRESULT_FROM_WIN32 of the last
// error, allocation failures E_OUTOFMEMORY. Every buffer that held a decoded value
// is zeroed before it is freed.
#pragma once
#include <windows.h>
#include <wincrypt.h>
#include <initializer_list>
#include "common/cryptblob.h"

constexpr DWORD kNVEncodingType = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

class CNVAnyBlob : public nv::CCryptBlob {
public:
    explicit CNVAnyBlob(LPCSTR lpszStructType = X509_OCTET_STRING) noexcept : m_lpszStructType(lpszStructType) {}
    CNVAnyBlob(const BYTE* pbData, DWORD cbData, LPCSTR lpszStructType = X509_OCTET_STRING)
        : nv::CCryptBlob(pbData, cbData), m_lpszStructType(lpszStructType)
    {
    }

    // The DER of the raw value, in place of der's old content.
    void Encode(nv::CCryptBlob& der) const;
    // Frees the raw value, then decodes the DER item into it. A wide-string item
    // whose value type is not 3 to 9 or 12 leaves the blob empty.
    void Decode(const BYTE* pbDer, DWORD cbDer);
    void Decode(const CRYPT_DER_BLOB& der) { Decode(der.pbData, der.cbData); }

    LPCSTR m_lpszStructType;
};

class CNVGUIDBlob : public CNVAnyBlob {
public:
    CNVGUIDBlob() noexcept : CNVAnyBlob(X509_OCTET_STRING) {}
    explicit CNVGUIDBlob(const GUID& guid);
    // The GUID held; NTE_BAD_DATA unless the blob holds exactly 16 bytes.
    GUID Value() const;
};

class CNVIntBlob : public CNVAnyBlob {
public:
    CNVIntBlob() noexcept : CNVAnyBlob(X509_MULTI_BYTE_INTEGER) {}
    explicit CNVIntBlob(LONG lValue);
    LONG Value() const;
};

class CNVULongBlob : public CNVAnyBlob {
public:
    CNVULongBlob() noexcept : CNVAnyBlob(X509_MULTI_BYTE_UINT) {}
    explicit CNVULongBlob(ULONG ulValue);
    ULONG Value() const;
};

class CNVUIntBlob : public CNVAnyBlob {
public:
    CNVUIntBlob() noexcept : CNVAnyBlob(X509_MULTI_BYTE_UINT) {}
    explicit CNVUIntBlob(UINT uValue);
    UINT Value() const;
};

class CNVWStrBlob : public CNVAnyBlob {
public:
    CNVWStrBlob() noexcept : CNVAnyBlob(X509_ANY_STRING) {}
    // Holds the string with its terminating zero; null holds the empty string.
    explicit CNVWStrBlob(const wchar_t* pwsz);
    // The string held, or null when the blob is empty.
    const wchar_t* Value() const noexcept;
    // Characters before the terminating zero (0 when empty).
    size_t Length() const noexcept;
};

// Encodes a value of the given structure type into out (size query, then encode).
void NVEncodeObject(LPCSTR lpszStructType, const void* pvStructInfo, nv::CCryptBlob& out);

// Decodes a DER value into a zero-filled heap buffer (size query, then decode);
// the structure lives at buffer.pbData. A failure raises the coder's last error as
// nv::DecodeFailureResult classifies it: E_OUTOFMEMORY, a data error's CRYPT_E_* or
// NTE_BAD_DATA code, or the HRESULT of anything else.
void NVDecodeObject(LPCSTR lpszStructType, const BYTE* pbDer, DWORD cbDer, nv::CCryptBlob& buffer);

// A decoded SEQUENCE OF ANY. The items point into the object's own buffer, which
// is zeroed when the object is released or decodes again.
class CNVSequence {
public:
    void Decode(const BYTE* pbDer, DWORD cbDer);
    DWORD Count() const noexcept;
    // Raises NTE_BAD_DATA for an index past the end.
    const CRYPT_DER_BLOB& Item(DWORD index) const;

private:
    nv::CCryptBlob m_buffer;
};

// Encodes the items (complete DER values) as a SEQUENCE OF ANY into out.
void NVEncodeSequence(std::initializer_list<const CRYPT_DER_BLOB*> items, nv::CCryptBlob& out);
