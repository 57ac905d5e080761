#include "security/securitycontext.h"

#include <aclapi.h>
#include <objbase.h>
#include <cstring>
#include <cwchar>
#include <vector>

#include "common/replaceablecalls.h"
#include "common/cryptblob.h"
#include "common/handles.h"
#include "common/hresult.h"
#include "common/systemimports.h"
#include "common/keysecurity.h"
#include "common/regkey.h"
#include "common/threadslot.h"
#include "trace/trace.h"

using nvsecurity::kEncoding;

namespace {

constexpr DWORD kKeyExchange = AT_KEYEXCHANGE;
// Open or create the host key with whatever the caller's token allows.
constexpr REGSAM kHostKeyAccess = MAXIMUM_ALLOWED;
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

// ---- the host key and the host identifier -------------------------------

// Protected DACL: LocalSystem and Administrators full access, Users read, all
// inherited by subkeys. Best effort: every failure leaves the key as it was.
void ProtectHostKey(HKEY key) noexcept
{
    if (!nvsecurity::CallerIsPrivileged())
        return;
    nv::Guarded([&]() -> HRESULT { return nv::SetProtectedKeyDacl(key, nvsecurity::kHostKeyUsersAccess); });
}

// Opens HKLM\SOFTWARE\Norvane\NVHOST in the caller's view, creating it when it
// cannot be opened, and replaces its DACL for privileged callers.
void OpenHostKey(nv::CNVRegKey& key, REGSAM samView)
{
    key.m_samWOW64 = samView;
    const REGSAM access = kHostKeyAccess | samView;
    if (key.Open(HKEY_LOCAL_MACHINE, nvsecurity::kHostKeyPath, access) != ERROR_SUCCESS) {
        LONG r = key.Create(HKEY_LOCAL_MACHINE, nvsecurity::kHostKeyPath, access);
        nv::ThrowIfWin32Failed(r);
        if (!key.Get())
            nv::ThrowHr(E_FAIL);
    }
    ProtectHostKey(key);
}

// "HostId" as a GUID. Only a value that is really missing reads as the zero GUID,
// which the caller replaces: no value at all (ERROR_FILE_NOT_FOUND), another type
// than REG_BINARY, another length than 16 bytes, or all zero bytes. Any other
// failure (access denied, a size read that fails, a data read that fails after the
// size read worked) is raised: the machine's identifier names its key container
// and every sealed record, so a read error must never turn into a new one.
GUID ReadHostId(HKEY key)
{
    DWORD type = REG_NONE, cb = 0;
    LONG r = nv::CallRegQueryValueExW(key, nvsecurity::kHostIdValue, &type, nullptr, &cb);
    if (r == ERROR_FILE_NOT_FOUND)
        return GUID{};
    nv::ThrowIfWin32Failed(r);
    if (type != REG_BINARY || cb != sizeof(GUID))
        return GUID{};
    BYTE bytes[sizeof(GUID)] = {};
    r = nv::CallRegQueryValueExW(key, nvsecurity::kHostIdValue, &type, bytes, &cb);
    nv::ThrowIfWin32Failed(r);
    if (type != REG_BINARY || cb != sizeof(GUID))
        return GUID{};
    return nvsecurity::GuidFromNetworkBytes(bytes, cb);
}

// The host identifier; a fresh one is written when the value holds none.
GUID ReadOrCreateHostId(HKEY key)
{
    GUID id = ReadHostId(key);
    if (!nvsecurity::IsZeroGuid(id))
        return id;
    GUID fresh{};
    nv::ThrowIfFailed(::CoCreateGuid(&fresh));
    BYTE bytes[sizeof(GUID)];
    nvsecurity::GuidToNetworkBytes(fresh, bytes);
    nv::ThrowIfWin32Failed(::RegSetValueExW(key, nvsecurity::kHostIdValue, 0, REG_BINARY, bytes, sizeof(bytes)));
    id = ReadHostId(key);
    if (nvsecurity::IsZeroGuid(id))
        nv::ThrowHr(E_FAIL);
    return id;
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

// ---- nvsecurity helpers -------------------------------------------------

namespace nvsecurity {

void GuidToNetworkBytes(const GUID& guid, BYTE (&bytes)[16]) noexcept
{
    bytes[0] = static_cast<BYTE>(guid.Data1 >> 24);
    bytes[1] = static_cast<BYTE>(guid.Data1 >> 16);
    bytes[2] = static_cast<BYTE>(guid.Data1 >> 8);
    bytes[3] = static_cast<BYTE>(guid.Data1);
    bytes[4] = static_cast<BYTE>(guid.Data2 >> 8);
    bytes[5] = static_cast<BYTE>(guid.Data2);
    bytes[6] = static_cast<BYTE>(guid.Data3 >> 8);
    bytes[7] = static_cast<BYTE>(guid.Data3);
    std::memcpy(bytes + 8, guid.Data4, sizeof(guid.Data4));
}

GUID GuidFromNetworkBytes(const BYTE* bytes, DWORD cb) noexcept
{
    GUID guid{};
    if (!bytes || cb != sizeof(GUID))
        return guid;
    guid.Data1 = (static_cast<DWORD>(bytes[0]) << 24) | (static_cast<DWORD>(bytes[1]) << 16) |
                 (static_cast<DWORD>(bytes[2]) << 8) | bytes[3];
    guid.Data2 = static_cast<WORD>((bytes[4] << 8) | bytes[5]);
    guid.Data3 = static_cast<WORD>((bytes[6] << 8) | bytes[7]);
    std::memcpy(guid.Data4, bytes + 8, sizeof(guid.Data4));
    return guid;
}

bool IsZeroGuid(const GUID& guid) noexcept
{
    static const GUID zero{};
    return std::memcmp(&guid, &zero, sizeof(GUID)) == 0;
}

void FormatContainerName(const GUID& hostId, wchar_t (&name)[kContainerNameChars]) noexcept
{
    if (::StringFromGUID2(hostId, name, static_cast<int>(kContainerNameChars)) == 0)
        name[0] = L'\0';
}

bool CallerIsPrivileged() noexcept
{
    // A token that cannot be read grants nothing.
    return nv::BestEffort([] { return nv::CallerIsSystemOrAdministrator(); }, false);
}

namespace {
// The innermost cache of the thread.
nv::ThreadSlot g_providerCache;
CProviderCache* ThreadCache() noexcept { return static_cast<CProviderCache*>(g_providerCache.Get()); }
} // namespace

CProviderCache::CProviderCache() noexcept : m_outer(ThreadCache())
{
    g_providerCache.Set(this);
}

CProviderCache::~CProviderCache()
{
    g_providerCache.Set(m_outer);
    for (size_t i = 0; i < m_count; ++i)
        ::CryptReleaseContext(m_entries[i].hProv, 0);
}

bool CProviderCache::AcquireMachineContainer(const wchar_t* container, HCRYPTPROV* phProv) noexcept
{
    CProviderCache* cache = ThreadCache();
    if (cache && container) {
        for (size_t i = 0; i < cache->m_count; ++i) {
            Entry& e = cache->m_entries[i];
            if (std::wcscmp(e.container, container) == 0 && ::CryptContextAddRef(e.hProv, nullptr, 0)) {
                *phProv = e.hProv;
                return true;
            }
        }
    }
    HCRYPTPROV hProv = 0;
    if (!::CryptAcquireContextW(&hProv, container, kProviderName, PROV_RSA_FULL, CRYPT_MACHINE_KEYSET))
        return false;
    // The cache keeps a reference of its own; a container it has no room or no
    // reference for is simply not shared.
    if (cache && container && cache->m_count < kMaxEntries && std::wcslen(container) < kContainerNameChars &&
        ::CryptContextAddRef(hProv, nullptr, 0)) {
        Entry& e = cache->m_entries[cache->m_count++];
        std::wcscpy(e.container, container);
        e.hProv = hProv;
    }
    *phProv = hProv;
    return true;
}

bool CProviderCache::FindHostContainer(REGSAM samView, wchar_t (&container)[kContainerNameChars]) noexcept
{
    const CProviderCache* cache = ThreadCache();
    if (!cache)
        return false;
    for (size_t i = 0; i < cache->m_hostCount; ++i) {
        if (cache->m_hosts[i].samView == samView) {
            std::wmemcpy(container, cache->m_hosts[i].container, kContainerNameChars);
            return true;
        }
    }
    return false;
}

void CProviderCache::RememberHostContainer(REGSAM samView, const wchar_t (&container)[kContainerNameChars]) noexcept
{
    CProviderCache* cache = ThreadCache();
    if (!cache || cache->m_hostCount == kMaxEntries)
        return;
    HostEntry& e = cache->m_hosts[cache->m_hostCount++];
    e.samView = samView;
    std::wmemcpy(e.container, container, kContainerNameChars);
}

} // namespace nvsecurity

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
            OpenHostKey(key, samView);
            nvsecurity::FormatContainerName(ReadOrCreateHostId(key), container);
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
            OpenHostKey(key, samView);
            hostId = ReadOrCreateHostId(key);
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
