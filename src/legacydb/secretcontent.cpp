// CNVSecret::GetContent: opens a stored secret with the machine's key-exchange key.
#include "legacydb/records.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include "common/replaceablecalls.h"
#include "common/handles.h"
#include "common/hresult.h"
#include "common/systemimports.h"
#include "legacydb/derreader.h"
#include "security/securitycontext.h"
#include "trace/trace.h"

namespace {

// Seals plain bytes for the holder of a public key: a 3DES session key wrapped as
// SIMPLEBLOB for that key, and the bytes encrypted with it, as SEQUENCE OF ANY of two
// octet strings (the stored form of every secret).
LegacyNVDB2::Bytes SealForPublicKey(HCRYPTPROV hProv, const CRYPT_DATA_BLOB& publicKeyInfo,
                                    const LegacyNVDB2::Bytes& plain)
{
    using LegacyNVDB2::Bytes;
    using LegacyNVDB2::kDerEncoding;

    Bytes decoded;
    if (!LegacyNVDB2::DecodeStruct(X509_PUBLIC_KEY_INFO, LegacyNVDB2::DerView(publicKeyInfo.pbData, publicKeyInfo.cbData),
                                   decoded))
        nv::ThrowLastError();
    nv::unique_hcryptkey recipient;
    nv::ThrowLastErrorIf(!nv::sys::CryptImportPublicKeyInfo(
        hProv, kDerEncoding, reinterpret_cast<CERT_PUBLIC_KEY_INFO*>(decoded.data()), recipient.put()));
    nv::unique_hcryptkey session;
    nv::ThrowLastErrorIf(!::CryptGenKey(hProv, CALG_3DES, CRYPT_EXPORTABLE, session.put()));

    DWORD cbKeyBlob = 0;
    nv::ThrowLastErrorIf(!::CryptExportKey(session.get(), recipient.get(), SIMPLEBLOB, 0, nullptr, &cbKeyBlob));
    Bytes keyBlob(cbKeyBlob);
    nv::ThrowLastErrorIf(!::CryptExportKey(session.get(), recipient.get(), SIMPLEBLOB, 0, keyBlob.data(), &cbKeyBlob));
    keyBlob.resize(cbKeyBlob);

    DWORD cbCipher = static_cast<DWORD>(plain.size());
    nv::ThrowLastErrorIf(!::CryptEncrypt(session.get(), 0, TRUE, 0, nullptr, &cbCipher, 0));
    // Encrypted in place: the buffer holds the content whatever the size query said.
    Bytes cipher(std::max<std::size_t>(cbCipher, plain.size()));
    if (!plain.empty())
        std::memcpy(cipher.data(), plain.data(), plain.size());
    DWORD cbData = static_cast<DWORD>(plain.size());
    nv::ThrowLastErrorIf(
        !::CryptEncrypt(session.get(), 0, TRUE, 0, cipher.data(), &cbData, static_cast<DWORD>(cipher.size())));
    cipher.resize(cbData);

    auto encodeOctets = [](const Bytes& b) {
        CRYPT_DATA_BLOB blob{static_cast<DWORD>(b.size()), const_cast<BYTE*>(b.data())};
        DWORD cb = 0;
        nv::ThrowLastErrorIf(!nv::CallCryptEncodeObject(kDerEncoding, X509_OCTET_STRING, &blob, nullptr, &cb));
        Bytes out(cb);
        nv::ThrowLastErrorIf(!nv::CallCryptEncodeObject(kDerEncoding, X509_OCTET_STRING, &blob, out.data(), &cb));
        out.resize(cb);
        return out;
    };
    Bytes items[2] = {encodeOctets(keyBlob), encodeOctets(cipher)};
    CRYPT_DER_BLOB der[2] = {{static_cast<DWORD>(items[0].size()), items[0].data()},
                             {static_cast<DWORD>(items[1].size()), items[1].data()}};
    CRYPT_SEQUENCE_OF_ANY seq{2, der};
    DWORD cb = 0;
    nv::ThrowLastErrorIf(!nv::CallCryptEncodeObject(kDerEncoding, X509_SEQUENCE_OF_ANY, &seq, nullptr, &cb));
    Bytes sealed(cb);
    nv::ThrowLastErrorIf(!nv::CallCryptEncodeObject(kDerEncoding, X509_SEQUENCE_OF_ANY, &seq, sealed.data(), &cb));
    sealed.resize(cb);
    return sealed;
}

} // namespace

bool CNVSecret::GetContent(const CRYPT_DATA_BLOB* pPublicKey, DWORD* pcbData, BYTE** ppbData)
{
    using namespace LegacyNVDB2;
    NVTraceNS::CTraceScope scope("CNVSecret::GetContent", 0);
    if (m_content.IsEmpty())
        return false;

    // The secrets were sealed for the machine key of the 32-bit view's host identifier.
    CFPSecurityContext context(KEY_WOW64_32KEY);
    // A reference of our own, so the handle outlives the context's use of it.
    nv::unique_hcryptprov provider;
    nv::ThrowIfFailed(context.ShareProvider(provider));
    const HCRYPTPROV hProv = provider.get();
    NVTraceNS::Trace(scope, 0, "Encryption context created");

    Bytes work(m_content.pbData, m_content.pbData + m_content.cbData);
    NVTraceNS::Trace(scope, 0, "Secret copied");

    NVTraceNS::Trace(scope, 0, "Decrypting Secret...");
    if (!m_bOpened) {
        nv::unique_hcryptkey exchangeKey;
        nv::ThrowLastErrorIf(!::CryptGetUserKey(hProv, AT_KEYEXCHANGE, exchangeKey.put()));
        const ItemList sealed = ReadList(DerView(work));
        const Bytes keyBlob = ReadOctets(ItemAt(sealed, 0));
        Bytes opened = ReadOctets(ItemAt(sealed, 1));
        nv::unique_hcryptkey sessionKey;
        nv::ThrowLastErrorIf(!::CryptImportKey(hProv, keyBlob.data(), static_cast<DWORD>(keyBlob.size()),
                                               exchangeKey.get(), CRYPT_EXPORTABLE, sessionKey.put()));
        DWORD cbPlain = static_cast<DWORD>(opened.size());
        nv::ThrowLastErrorIf(!::CryptDecrypt(sessionKey.get(), 0, TRUE, 0, opened.data(), &cbPlain));
        m_plain.Assign(opened.data(), cbPlain);
        m_bOpened = true;
    }
    Bytes plain(m_plain.pbData, m_plain.pbData + m_plain.cbData);
    NVTraceNS::Trace(scope, 0, "Secret decrypted");

    if (pPublicKey && pPublicKey->cbData && pPublicKey->pbData) {
        plain = SealForPublicKey(hProv, *pPublicKey, plain);
        NVTraceNS::Trace(scope, 0, "Secret encrypted with user public key!!!!");
    }

    NVTraceNS::Trace(scope, 0, "Secret ready to be returned");
    nv::CCoTaskCryptBlob out(plain.data(), static_cast<DWORD>(plain.size()));
    *pcbData = out.cbData;
    *ppbData = out.Detach();
    return true;
}
