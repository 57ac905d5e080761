#include "converter3/secretpacking.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>
#include "common/handles.h"
#include "common/hresult.h"
#include "common/teacfb.h"
#include "converter3/typedblobs.h"
#include "secret_keys.h"
#include "trace/trace.h"

namespace {

// The scrambling key, combined from its stored words and masks on use and wiped
// afterwards. The volatile reads keep the compiler from folding the combination
// into a constant of the image.
class CScrambleKey {
public:
    CScrambleKey() noexcept
    {
        const volatile std::uint32_t* words = nvkeys::kSecretKeyWords;
        const volatile std::uint32_t* masks = nvkeys::kSecretKeyMasks;
        for (int i = 0; i < 4; ++i)
            m_key[i] = words[i] ^ masks[i];
        nvcipher::WordsToRegister(nvkeys::kSecretInitialRegister, m_register);
    }
    ~CScrambleKey()
    {
        ::SecureZeroMemory(m_key, sizeof(m_key));
        ::SecureZeroMemory(m_register, sizeof(m_register));
    }
    CScrambleKey(const CScrambleKey&) = delete;
    CScrambleKey& operator=(const CScrambleKey&) = delete;

    std::uint32_t m_key[4];
    std::uint8_t m_register[8];
};

[[noreturn]] void ThrowCryptError() { nv::ThrowLastError(); }

BSTR AllocBstr(const wchar_t* pwsz, size_t chars)
{
    BSTR b = ::SysAllocStringLen(pwsz, static_cast<UINT>(chars));
    if (!b)
        nv::ThrowHr(E_OUTOFMEMORY);
    return b;
}

} // namespace

void ScrambleSecret(BYTE* pbData, DWORD cbData) noexcept
{
    if (!pbData || cbData == 0)
        return;
    CScrambleKey key;
    nvcipher::CfbEncrypt(key.m_key, key.m_register, pbData, pbData, cbData);
}

void UnscrambleSecret(const BYTE* pbSource, BYTE* pbTarget, DWORD cbData) noexcept
{
    if (!pbSource || !pbTarget || cbData == 0)
        return;
    CScrambleKey key;
    nvcipher::CfbDecrypt(key.m_key, key.m_register, pbSource, pbTarget, cbData);
}

HRESULT UnpackPasswordAndPin(const CRYPT_DATA_BLOB* pContent, BSTR* pbstrPassword, BSTR* pbstrPin)
{
    NVTraceNS::CTraceScope scope("UnpackPasswordAndPin()", 0);
    HRESULT hr = nv::Guarded([&]() -> HRESULT {
        const DWORD cbContent = pContent ? pContent->cbData : 0;
        NVTraceNS::Trace(scope, 0, "Primary data size = %u", cbContent);
        if (cbContent == 0 || !pContent->pbData)
            return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);

        CNVSequence sequence;
        {
            nv::CCryptBlob plain;
            plain.Allocate(cbContent);
            UnscrambleSecret(pContent->pbData, plain.pbData, cbContent);
            sequence.Decode(plain.pbData, plain.cbData);
            ::SecureZeroMemory(plain.pbData, plain.cbData);
        }

        const DWORD items = sequence.Count();
        NVTraceNS::Trace(scope, 0, "pSeq->cValue = %u", items);
        if (items == 0)
            return NTE_BAD_DATA;

        CNVULongBlob version;
        version.Decode(sequence.Item(0));
        const ULONG ulCurrentVersion = version.Value();
        NVTraceNS::Trace(scope, 0, "ulCurrentVersion = %u", ulCurrentVersion);
        if (ulCurrentVersion == 0 || ulCurrentVersion > 9)
            return NTE_BAD_DATA;

        // Combined secrets of this version carry the PIN separately; the flag of the
        // old layout is never set.
        const int bCombinedSecret = 0;
        NVTraceNS::Trace(scope, 0, "bCombinedSecret  = %d", bCombinedSecret);

        nv::unique_secure_bstr pin;
        if (pbstrPin) {
            *pbstrPin = nullptr;
            if (items >= 3) {
                CNVWStrBlob value;
                value.Decode(sequence.Item(2));
                if (value.Length() > 0)
                    pin.reset(AllocBstr(value.Value(), value.Length()));
            }
        }

        nv::unique_secure_bstr password;
        if (pbstrPassword) {
            if (items >= 2) {
                CNVWStrBlob value;
                value.Decode(sequence.Item(1));
                password.reset(AllocBstr(value.Value(), value.Length()));
            }
            *pbstrPassword = password.release();
        }
        if (pbstrPin)
            *pbstrPin = pin.release();
        return S_OK;
    });
    return NVTraceNS::TraceReturn(scope, hr);
}

void PackPassword(const wchar_t* pwszPassword, nv::CCryptBlob& blob)
{
    NVTraceNS::CTraceScope scope("PackPassword()", 0);
    nv::CCryptBlob versionItem;
    nv::CCryptBlob passwordItem;
    {
        CNVULongBlob version(1);
        CNVWStrBlob password(pwszPassword);
        version.Encode(versionItem);
        password.Encode(passwordItem);
    }
    blob.Free();
    NVEncodeSequence({&versionItem, &passwordItem}, blob);
    ::SecureZeroMemory(versionItem.pbData, versionItem.cbData);
    ::SecureZeroMemory(passwordItem.pbData, passwordItem.cbData);

    ScrambleSecret(blob.pbData, blob.cbData);
    NVTraceNS::Trace(scope, 0, "Data size = %u", blob.cbData);
}

HRESULT EncryptEx(nv::CCryptBlob& blob, HCRYPTPROV hProv, HCRYPTKEY hPublicKey, ALG_ID algId)
{
    NVTraceNS::CTraceScope scope("EncryptEx", NVTraceNS::kLevelVerbose);
    // A memory shortage is traced as the result and raised on, so that the caller's
    // user fails instead of losing the secret.
    HRESULT hr = nv::GuardedUnlessOutOfMemory([&]() -> HRESULT {
        nv::unique_hcryptkey exchangeKey;
        if (hPublicKey) {
            if (!::CryptDuplicateKey(hPublicKey, nullptr, 0, exchangeKey.put()))
                ThrowCryptError();
        } else if (!::CryptGetUserKey(hProv, AT_KEYEXCHANGE, exchangeKey.put())) {
            ThrowCryptError();
        }

        nv::unique_hcryptkey sessionKey;
        if (!::CryptGenKey(hProv, algId, CRYPT_EXPORTABLE, sessionKey.put()))
            ThrowCryptError();

        nv::CCryptBlob keyBlob;
        DWORD cbKeyBlob = 0;
        if (!::CryptExportKey(sessionKey.get(), exchangeKey.get(), SIMPLEBLOB, 0, nullptr, &cbKeyBlob))
            ThrowCryptError();
        keyBlob.Allocate(cbKeyBlob);
        if (!::CryptExportKey(sessionKey.get(), exchangeKey.get(), SIMPLEBLOB, 0, keyBlob.pbData, &cbKeyBlob))
            ThrowCryptError();
        keyBlob.cbData = cbKeyBlob;

        DWORD cbCipher = blob.cbData;
        if (!::CryptEncrypt(sessionKey.get(), 0, TRUE, 0, nullptr, &cbCipher, 0))
            ThrowCryptError();
        // Encrypted in place: the buffer holds the content whatever the size query said.
        nv::CCryptBlob cipher;
        cipher.Allocate(std::max(cbCipher, blob.cbData));
        if (blob.cbData)
            std::memcpy(cipher.pbData, blob.pbData, blob.cbData);
        DWORD cbData = blob.cbData;
        if (!::CryptEncrypt(sessionKey.get(), 0, TRUE, 0, cipher.pbData, &cbData, cipher.cbData))
            ThrowCryptError();
        cipher.cbData = cbData;

        nv::CCryptBlob keyItem;
        nv::CCryptBlob cipherItem;
        NVEncodeObject(X509_OCTET_STRING, static_cast<CRYPT_DATA_BLOB*>(&keyBlob), keyItem);
        NVEncodeObject(X509_OCTET_STRING, static_cast<CRYPT_DATA_BLOB*>(&cipher), cipherItem);
        nv::CCryptBlob sealed;
        NVEncodeSequence({&keyItem, &cipherItem}, sealed);

        blob = std::move(sealed);
        return S_OK;
    }, [&]() { NVTraceNS::TraceResult(scope, "", E_OUTOFMEMORY); });
    return NVTraceNS::TraceReturn(scope, hr);
}
