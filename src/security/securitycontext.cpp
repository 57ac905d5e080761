#include "security/securitycontext.h"

#include <cstring>
#include <vector>

#include "common/replaceablecalls.h"
#include "common/cryptblob.h"
#include "common/handles.h"
#include "common/hresult.h"
#include "common/systemimports.h"
#include "common/keysecurity.h"
#include "common/regkey.h"
#include "trace/trace.h"

using nvsecurity::kEncoding;

namespace {

constexpr DWORD kKeyExchange = AT_KEYEXCHANGE;
// Records up to this size are decoded into a buffer on the stack.
constexpr DWORD kStackDecodeLimit = 1024;

// ---- DER helpers --------------------------------------------------------

// Encodes a structure into an owned heap blob (size query first); a refusal of the
// encoder raises its last error.
void Encode(LPCSTR structType, const void* info, nv::CCryptBlob& out)
{
    DWORD cb = 0;
    if (!nv::CallCryptEncodeObject(kEncoding, structType, info, nullptr, &cb))
        nv::ThrowLastError();
    BYTE* p = out.Allocate(cb);
    if (!nv::CallCryptEncodeObject(kEncoding, structType, info, p, &cb))
        nv::ThrowLastError();
    out.cbData = cb;
}

// Decodes into an owned heap blob; false, with the blob emptied, when the decoder
// refuses the bytes as data. A memory shortage raises E_OUTOFMEMORY and any other
// failure its own code: only malformed bytes read as "nothing".
bool TryDecode(LPCSTR structType, const BYTE* data, DWORD cb, nv::CCryptBlob& out)
{
    out.Free();
    if (!data || cb == 0)
        return false;
    DWORD cbOut = 0;
    if (!nv::CallCryptDecodeObject(kEncoding, structType, data, cb, 0, nullptr, &cbOut)) {
        nv::RaiseUnlessDecodeDataError(::GetLastError());
        return false;
    }
    if (cbOut == 0)
        return false;
    BYTE* p = out.Allocate(cbOut);
    if (!nv::CallCryptDecodeObject(kEncoding, structType, data, cb, 0, p, &cbOut)) {
        const DWORD err = ::GetLastError();
        out.Free();
        nv::RaiseUnlessDecodeDataError(err);
        return false;
    }
    return true;
}

// The key exchange key's public key information, as the provider exports it.
void ExportPublicKeyInfo(HCRYPTPROV hProv, nv::CCryptBlob& out)
{
    DWORD cb = 0;
    if (!nv::sys::CryptExportPublicKeyInfo(hProv, kKeyExchange, kEncoding, nullptr, &cb))
        nv::ThrowLastError();
    BYTE* p = out.Allocate(cb);
    if (!nv::sys::CryptExportPublicKeyInfo(hProv, kKeyExchange, kEncoding, reinterpret_cast<CERT_PUBLIC_KEY_INFO*>(p),
                                           &cb))
        nv::ThrowLastError();
}

// Hands a copy of the bytes to a caller in a task allocation.
void HandOut(const BYTE* data, DWORD cb, CRYPT_DATA_BLOB* out)
{
    nv::CCoTaskCryptBlob copy(data, cb);
    out->cbData = copy.cbData;
    out->pbData = copy.Detach();
}

// ---- export records -----------------------------------------------------

// What the DER decoder makes of bytes handed to it as an encoded BIT STRING. The
// GUID typed value is raw bytes, not DER, so this is normally an empty bit string:
// records carry empty identifiers, as they always have.
void BitsFromRawGuid(const GUID& guid, nv::CCryptBlob& decoded, CRYPT_BIT_BLOB& bits)
{
    BYTE raw[sizeof(GUID)];
    nvsecurity::GuidToNetworkBytes(guid, raw);
    bits = CRYPT_BIT_BLOB{};
    if (TryDecode(X509_BITS, raw, sizeof(raw), decoded))
        bits = *reinterpret_cast<const CRYPT_BIT_BLOB*>(decoded.pbData);
}

// The GUID an identifier item carries: its BIT STRING content when that is exactly
// 16 bytes, else the zero GUID.
GUID GuidFromBitsItem(const CRYPT_DER_BLOB* item)
{
    if (!item)
        return GUID{};
    nv::CCryptBlob decoded;
    if (!TryDecode(X509_BITS, item->pbData, item->cbData, decoded))
        return GUID{};
    const auto* bits = reinterpret_cast<const CRYPT_BIT_BLOB*>(decoded.pbData);
    return nvsecurity::GuidFromNetworkBytes(bits->pbData, bits->cbData);
}

} // namespace

// ---- CFPSecurityContext -------------------------------------------------

CFPSecurityContext::CFPSecurityContext(REGSAM samView)
{
    HRESULT hr = FinalConstruct(samView);
    if (FAILED(hr))
        nv::ThrowHr(hr);
}

CFPSecurityContext::~CFPSecurityContext()
{
    FinalRelease();
}

HRESULT CFPSecurityContext::FinalConstruct(REGSAM samView)
{
    NVTraceNS::CTraceScope scope("CFPSecurityContext::FinalConstruct", 0);
    // A second construction must not leak the first provider.
    if (m_hProv)
        ::CryptReleaseContext(m_hProv, 0);
    m_hProv = 0;
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        wchar_t container[nvsecurity::kContainerNameChars];
        const bool known = nvsecurity::CProviderCache::FindHostContainer(samView, container);
        nv::CNVRegKey key;
        if (!known) {
            nvsecurity::OpenHostKey(key, samView);
            nvsecurity::FormatContainerName(nvsecurity::ReadOrCreateHostId(key), container);
        }
        // The host service creates the container; here it is only opened.
        HCRYPTPROV hProv = 0;
        if (!nvsecurity::CProviderCache::AcquireMachineContainer(container, &hProv))
            nv::ThrowLastError();
        m_hProv = hProv;
        key.Close();
        if (!known)
            nvsecurity::CProviderCache::RememberHostContainer(samView, container);
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

void CFPSecurityContext::FinalRelease()
{
    NVTraceNS::CTraceScope scope("CFPSecurityContext::FinalRelease", 0);
    // A handle that cannot be released is kept and not reported.
    if (m_hProv && ::CryptReleaseContext(m_hProv, 0))
        m_hProv = 0;
    NVTraceNS::TraceResult(scope, "", S_OK);
}

HRESULT CFPSecurityContext::GetContext(HCRYPTPROV* phProv)
{
    NVTraceNS::CTraceScope scope("CFPSecurityContext::GetContext", NVTraceNS::kLevelVerbose);
    HRESULT hr = E_POINTER;
    if (phProv) {
        *phProv = m_hProv;
        hr = S_OK;
    }
    return NVTraceNS::TraceReturn(scope, hr);
}

HRESULT CFPSecurityContext::ShareProvider(nv::unique_hcryptprov& owner) noexcept
{
    owner.reset();
    return nv::Guarded([&]() -> HRESULT {
        HCRYPTPROV hProv = 0;
        nv::ThrowIfFailed(GetContext(&hProv));
        nv::ThrowLastErrorIf(!::CryptContextAddRef(hProv, nullptr, 0));
        owner.reset(hProv);
        return S_OK;
    });
}

HRESULT CFPSecurityContext::GetPublicKey(CRYPT_DATA_BLOB* pPublicKey)
{
    NVTraceNS::CTraceScope scope("CFPSecurityContext::GetPublicKey", NVTraceNS::kLevelVerbose);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        if (!pPublicKey)
            return E_POINTER;
        nv::CCryptBlob info;
        ExportPublicKeyInfo(m_hProv, info);
        nv::CCryptBlob der;
        Encode(X509_PUBLIC_KEY_INFO, info.pbData, der);
        HandOut(der.pbData, der.cbData, pPublicKey);
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

HRESULT CFPSecurityContext::SignBLOB(const CRYPT_DATA_BLOB* pToBeSigned, CRYPT_DATA_BLOB* pSigned, HCRYPTPROV hProv,
                                     DWORD dwKeySpec, LPCSTR pszOid)
{
    NVTraceNS::CTraceScope scope("SignBLOB", NVTraceNS::kLevelVerbose);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        if (!pToBeSigned || !pSigned)
            return E_POINTER;
        CRYPT_ALGORITHM_IDENTIFIER algorithm{};
        algorithm.pszObjId = const_cast<LPSTR>(pszOid ? pszOid : nvsecurity::kMd5RsaOid);

        DWORD cbSignature = 0;
        if (!nv::sys::CryptSignCertificate(hProv, dwKeySpec, kEncoding, pToBeSigned->pbData, pToBeSigned->cbData,
                                           &algorithm, nullptr, nullptr, &cbSignature))
            nv::ThrowIfWin32Failed(static_cast<LONG>(::GetLastError()));
        nv::CCryptBlob signature;
        signature.Allocate(cbSignature);
        if (!nv::sys::CryptSignCertificate(hProv, dwKeySpec, kEncoding, pToBeSigned->pbData, pToBeSigned->cbData,
                                           &algorithm, nullptr, signature.pbData, &cbSignature))
            nv::ThrowLastError();

        CERT_SIGNED_CONTENT_INFO record{};
        record.ToBeSigned = *pToBeSigned;
        record.SignatureAlgorithm = algorithm;
        record.Signature.cbData = cbSignature;
        record.Signature.pbData = signature.pbData;
        record.Signature.cUnusedBits = 0;
        nv::CCryptBlob der;
        Encode(X509_CERT, &record, der);
        HandOut(der.pbData, der.cbData, pSigned);
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

HRESULT CFPSecurityContext::Verify(const CRYPT_DATA_BLOB* pSigned, const CRYPT_DATA_BLOB* pPublicKey)
{
    NVTraceNS::CTraceScope scope("CFPSecurityContext::Verify", NVTraceNS::kLevelVerbose);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        nv::CCryptBlob info;
        if (pPublicKey && pPublicKey->pbData && pPublicKey->cbData) {
            if (!TryDecode(X509_PUBLIC_KEY_INFO, pPublicKey->pbData, pPublicKey->cbData, info))
                nv::ThrowLastError();
        } else {
            ExportPublicKeyInfo(m_hProv, info);
        }
        const BYTE* data = pSigned ? pSigned->pbData : nullptr;
        const DWORD cb = pSigned ? pSigned->cbData : 0;
        // The platform decodes the record itself here; one whose signature is an
        // empty BIT STRING would overrun its buffer (see HoldsEmptyBitString).
        if (nv::HoldsEmptyBitString(X509_CERT, data, cb))
            return S_FALSE;
        const BOOL valid = nv::sys::CryptVerifyCertificateSignature(m_hProv, kEncoding, data, cb,
                                                                    reinterpret_cast<CERT_PUBLIC_KEY_INFO*>(info.pbData));
        // A bad signature is an answer, not a failure.
        return valid ? S_OK : S_FALSE;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

HRESULT CFPSecurityContext::Export(const GUID& guidTarget, const CRYPT_DATA_BLOB* pData, REGSAM samView,
                                   CRYPT_DATA_BLOB* pRecord)
{
    NVTraceNS::CTraceScope scope("CFPSecurityContext::Export", NVTraceNS::kLevelVerbose);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        if (!pRecord)
            return E_POINTER;
        pRecord->cbData = 0;
        pRecord->pbData = nullptr;
        if (!pData)
            return E_POINTER;

        GUID hostId{};
        {
            nv::CNVRegKey key;
            nvsecurity::OpenHostKey(key, samView);
            hostId = nvsecurity::ReadOrCreateHostId(key);
        }
        nv::CCryptBlob hostDecoded, targetDecoded;
        CRYPT_BIT_BLOB hostBits{}, targetBits{};
        BitsFromRawGuid(hostId, hostDecoded, hostBits);
        BitsFromRawGuid(guidTarget, targetDecoded, targetBits);

        FILETIME now{};
        ::GetSystemTimeAsFileTime(&now);

        nv::CCryptBlob items[4];
        CRYPT_DATA_BLOB data{pData->cbData, pData->pbData};
        Encode(X509_OCTET_STRING, &data, items[0]);
        Encode(X509_BITS, &hostBits, items[1]);
        Encode(X509_BITS, &targetBits, items[2]);
        Encode(X509_CHOICE_OF_TIME, &now, items[3]);

        CRYPT_DER_BLOB list[4];
        for (int i = 0; i < 4; ++i)
            list[i] = CRYPT_DER_BLOB{items[i].cbData, items[i].pbData};
        CRYPT_SEQUENCE_OF_ANY sequence{4, list};
        nv::CCryptBlob content;
        Encode(X509_SEQUENCE_OF_ANY, &sequence, content);

        nv::CCoTaskCryptBlob signedRecord;
        nv::ThrowIfFailed(SignBLOB(&content, &signedRecord, m_hProv, AT_KEYEXCHANGE, nvsecurity::kMd5RsaOid));
        HandOut(signedRecord.pbData, signedRecord.cbData, pRecord);
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

HRESULT CFPSecurityContext::Import(const CRYPT_DATA_BLOB* pRecord, CRYPT_DATA_BLOB* pData, GUID* pguidTarget,
                                   GUID* pguidSource)
{
    NVTraceNS::CTraceScope scope("CFPSecurityContext::Import", NVTraceNS::kLevelVerbose);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        if (pData) {
            pData->cbData = 0;
            pData->pbData = nullptr;
        }

        // The envelope. Bytes that are no record leave the content empty.
        alignas(16) BYTE stackBuffer[kStackDecodeLimit];
        struct StackWiper {
            BYTE* p;
            ~StackWiper() { ::SecureZeroMemory(p, kStackDecodeLimit); }
        } wiper{stackBuffer};
        nv::CCryptBlob heapBuffer;
        const CERT_SIGNED_CONTENT_INFO* envelope = nullptr;
        DWORD cbEnvelope = 0;
        const BYTE* record = pRecord ? pRecord->pbData : nullptr;
        const DWORD cbRecord = pRecord ? pRecord->cbData : 0;
        if (record && cbRecord) {
            if (!nv::CallCryptDecodeObject(kEncoding, X509_CERT, record, cbRecord, 0, nullptr, &cbEnvelope))
                nv::RaiseUnlessDecodeDataError(::GetLastError());
            else if (cbEnvelope) {
                BYTE* buffer = cbEnvelope <= sizeof(stackBuffer) ? stackBuffer : heapBuffer.Allocate(cbEnvelope);
                if (nv::CallCryptDecodeObject(kEncoding, X509_CERT, record, cbRecord, 0, buffer, &cbEnvelope))
                    envelope = reinterpret_cast<const CERT_SIGNED_CONTENT_INFO*>(buffer);
                else
                    nv::RaiseUnlessDecodeDataError(::GetLastError());
            }
        }

        // The item list. A content that is no SEQUENCE OF ANY gives no items.
        nv::CCryptBlob listBuffer;
        const CRYPT_SEQUENCE_OF_ANY* list = nullptr;
        if (envelope &&
            TryDecode(X509_SEQUENCE_OF_ANY, envelope->ToBeSigned.pbData, envelope->ToBeSigned.cbData, listBuffer))
            list = reinterpret_cast<const CRYPT_SEQUENCE_OF_ANY*>(listBuffer.pbData);
        const DWORD count = list ? list->cValue : 0;

        // Item 0: the data. An item that is no OCTET STRING carries no data.
        if (count >= 1 && list->rgValue[0].cbData != 0) {
            nv::CCryptBlob item(list->rgValue[0].pbData, list->rgValue[0].cbData);
            nv::CCryptBlob decoded;
            if (pData && TryDecode(X509_OCTET_STRING, item.pbData, item.cbData, decoded)) {
                const auto* octets = reinterpret_cast<const CRYPT_DATA_BLOB*>(decoded.pbData);
                if (octets->cbData != 0)
                    HandOut(octets->pbData, octets->cbData, pData);
            }
        }
        if (pguidSource)
            *pguidSource = GuidFromBitsItem(count >= 2 ? &list->rgValue[1] : nullptr);
        if (pguidTarget)
            *pguidTarget = GuidFromBitsItem(count >= 3 ? &list->rgValue[2] : nullptr);
        // Item 3, the export time, is not needed by anyone.
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}
