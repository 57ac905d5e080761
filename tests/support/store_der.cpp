#include "support/store_der.h"

#include <wincrypt.h>
#include <cstdint>
#include "common/teacfb.h"
#include "secret_keys.h"
#include "support/signed_records.h"

namespace nvtest {

namespace {

// The items of a SEQUENCE OF ANY; ok turns false when it does not decode or does not
// have the expected number of items.
std::vector<std::vector<BYTE>> Items(const std::vector<BYTE>& der, size_t expected, bool* ok)
{
    std::vector<std::vector<BYTE>> items;
    if (!DecodeSequenceOfAny(der, &items) || items.size() != expected)
        *ok = false;
    return items;
}

std::vector<BYTE> BlobContent(LPCSTR type, const std::vector<BYTE>& der, bool* ok)
{
    std::vector<BYTE> content;
    if (!DecodeBlobContent(type, der, &content))
        *ok = false;
    return content;
}

DWORD LittleEndianValue(const std::vector<BYTE>& bytes, bool isSigned, bool* ok)
{
    // The decoder gives zero as no bytes at all.
    if (bytes.size() > 4) {
        *ok = false;
        return 0;
    }
    DWORD v = (isSigned && (bytes.back() & 0x80)) ? 0xFFFFFFFFu : 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
        v &= ~(0xFFu << (8 * i));
        v |= static_cast<DWORD>(bytes[i]) << (8 * i);
    }
    return v;
}

} // namespace

bool DecodeStoredTemplate(const std::vector<BYTE>& bytes, DecodedTemplate* out)
{
    bool ok = true;
    const auto outer = Items(bytes, 2, &ok);
    if (!ok)
        return false;
    const auto object = Items(outer[0], 2, &ok);
    if (!ok)
        return false;
    const auto info = Items(object[0], 5, &ok);
    if (!ok)
        return false;
    out->format = LittleEndianValue(BlobContent(X509_MULTI_BYTE_UINT, info[0], &ok), false, &ok);
    out->flags = LittleEndianValue(BlobContent(X509_MULTI_BYTE_UINT, info[1], &ok), false, &ok);
    out->type = BlobContent(X509_OCTET_STRING, info[2], &ok);
    out->owner = BlobContent(X509_OCTET_STRING, info[3], &ok);
    out->size = LittleEndianValue(BlobContent(X509_MULTI_BYTE_UINT, info[4], &ok), false, &ok);
    out->headerValue =
        static_cast<LONG>(LittleEndianValue(BlobContent(X509_MULTI_BYTE_INTEGER, object[1], &ok), true, &ok));
    out->data = BlobContent(X509_OCTET_STRING, outer[1], &ok);
    return ok;
}

std::vector<BYTE> GuidMemoryBytes(const GUID& g)
{
    const BYTE* p = reinterpret_cast<const BYTE*>(&g);
    return std::vector<BYTE>(p, p + sizeof(GUID));
}

std::vector<BYTE> UnscramblePackedPassword(const std::vector<BYTE>& packed)
{
    std::uint32_t key[4];
    for (int i = 0; i < 4; ++i)
        key[i] = nvkeys::kSecretKeyWords[i] ^ nvkeys::kSecretKeyMasks[i];
    std::uint8_t iv[8];
    nvcipher::WordsToRegister(nvkeys::kSecretInitialRegister, iv);
    std::vector<BYTE> plain(packed.size());
    nvcipher::CfbDecrypt(key, iv, packed.data(), plain.data(), plain.size());
    return plain;
}

std::vector<BYTE> TlvTwoByteLong(BYTE tag, const std::vector<BYTE>& content)
{
    std::vector<BYTE> out{tag};
    if (content.size() < 0x80) {
        out.push_back(static_cast<BYTE>(content.size()));
    } else {
        out.push_back(0x82);
        out.push_back(static_cast<BYTE>(content.size() >> 8));
        out.push_back(static_cast<BYTE>(content.size()));
    }
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

std::vector<BYTE> DerTlv(BYTE tag, const std::vector<BYTE>& content)
{
    std::vector<BYTE> out{tag};
    const size_t n = content.size();
    if (n < 0x80) {
        out.push_back(static_cast<BYTE>(n));
    } else if (n < 0x100) {
        out.push_back(0x81);
        out.push_back(static_cast<BYTE>(n));
    } else {
        out.push_back(0x82);
        out.push_back(static_cast<BYTE>(n >> 8));
        out.push_back(static_cast<BYTE>(n));
    }
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

std::vector<BYTE> ExpectedPasswordSecretDer(const std::wstring& password)
{
    std::vector<BYTE> text;
    for (wchar_t c : password) {
        text.push_back(static_cast<BYTE>(c >> 8));
        text.push_back(static_cast<BYTE>(c));
    }
    text.push_back(0x00);
    text.push_back(0x00);
    std::vector<BYTE> body{0x02, 0x01, 0x01};
    const std::vector<BYTE> bmp = DerTlv(0x1E, text);
    body.insert(body.end(), bmp.begin(), bmp.end());
    return DerTlv(0x30, body);
}

bool DecodePackedPassword(const std::vector<BYTE>& packed, DWORD* version, std::wstring* password)
{
    const std::vector<BYTE> plain = UnscramblePackedPassword(packed);

    bool ok = true;
    const auto items = Items(plain, 2, &ok);
    if (!ok)
        return false;
    *version = LittleEndianValue(BlobContent(X509_MULTI_BYTE_UINT, items[0], &ok), false, &ok);
    DWORD cb = 0;
    if (!ok || !::CryptDecodeObject(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, X509_ANY_STRING, items[1].data(),
                                    static_cast<DWORD>(items[1].size()), 0, nullptr, &cb))
        return false;
    std::vector<BYTE> block(cb);
    if (!::CryptDecodeObject(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, X509_ANY_STRING, items[1].data(),
                             static_cast<DWORD>(items[1].size()), 0, block.data(), &cb))
        return false;
    const auto* value = reinterpret_cast<const CERT_NAME_VALUE*>(block.data());
    if (value->dwValueType != CERT_RDN_BMP_STRING || value->Value.cbData % 2 != 0)
        return false;
    std::wstring text(reinterpret_cast<const wchar_t*>(value->Value.pbData), value->Value.cbData / 2);
    if (!text.empty() && text.back() == L'\0')
        text.pop_back();
    if (text.find(L'\0') != std::wstring::npos)
        return false;
    *password = text;
    return true;
}

LONG HeaderValueAsRead(LONG written)
{
    if (written >= 0)
        return written;
    // Shortest two's complement: drop leading 0xFF bytes while the next one keeps the sign.
    DWORD v = static_cast<DWORD>(written);
    int bytes = 4;
    while (bytes > 1 && ((v >> (8 * (bytes - 1))) & 0xFF) == 0xFF && ((v >> (8 * (bytes - 2))) & 0x80))
        --bytes;
    const DWORD mask = bytes == 4 ? 0xFFFFFFFFu : ((1u << (8 * bytes)) - 1);
    return static_cast<LONG>(v & mask);
}

} // namespace nvtest
