// The template encoder: DER three deep, pinned by byte tables, and read back with
// the CryptoAPI decoder.
#include <windows.h>
#include <wincrypt.h>
#include <gtest/gtest.h>
#include <cstring>
#include <vector>

#include "common/cryptblob.h"
#include "converter3/templateencoder.h"
#include "legacydb/records.h"
#include "support/conversion_fixture.h"

namespace {

constexpr GUID kTypeGuid = {0x01020304, 0x0506, 0x0708, {0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10}};

std::vector<BYTE> Bytes(const nv::CCryptBlob& b) { return std::vector<BYTE>(b.pbData, b.pbData + b.cbData); }

std::vector<BYTE> Encoded(const CNVTemplate& t)
{
    nv::CCryptBlob blob;
    EncodeTemplate(t, blob);
    return Bytes(blob);
}

} // namespace

TEST(TemplateEncoderTest, ThreeDeepSequenceMatchesTheByteTable)
{
    CNVTemplate t;
    t.m_header.info.dwFormat = 1;
    t.m_header.info.dwFlags = 0x80;
    t.m_header.info.guidType = kTypeGuid;
    t.m_header.info.guidOwner = GUID{};
    t.m_header.info.dwSize = 0x12345678;
    t.m_header.lHeaderValue = -2;
    t.m_data = {0xAA, 0xBB, 0xCC};

    const std::vector<BYTE> expected = {
        0x30, 0x3D,                                     // outer SEQUENCE
        0x30, 0x36,                                     //   data-object part
        0x30, 0x31,                                     //     BI_DATAOBJECT_INFO
        0x02, 0x01, 0x01,                               //       dwFormat 1
        0x02, 0x02, 0x00, 0x80,                         //       dwFlags 0x80, unsigned
        0x04, 0x10, 0x04, 0x03, 0x02, 0x01, 0x06, 0x05, 0x08, 0x07, //  guidType, memory order
        0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10,
        0x04, 0x10, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, //  guidOwner (zero)
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
        0x02, 0x04, 0x12, 0x34, 0x56, 0x78,             //       dwSize
        0x02, 0x01, 0xFE,                               //     header value -2, signed
        0x04, 0x03, 0xAA, 0xBB, 0xCC,                   //   template data
    };
    EXPECT_EQ(expected, Encoded(t));
}

TEST(TemplateEncoderTest, UnsignedFieldsWithTheTopBitGetALeadingZeroAndTheSignedValueStaysSigned)
{
    CNVTemplate t;
    t.m_header.info.dwFormat = 0xFFFFFFFF;
    t.m_header.info.dwFlags = 0;
    t.m_header.info.guidType = GUID{};
    t.m_header.info.guidOwner = kTypeGuid;
    t.m_header.info.dwSize = 0x7F;
    t.m_header.lHeaderValue = 0x7FFFFFFF;
    // no data: an empty OCTET STRING

    const std::vector<BYTE> expected = {
        0x30, 0x3D,
        0x30, 0x39,
        0x30, 0x31,
        0x02, 0x05, 0x00, 0xFF, 0xFF, 0xFF, 0xFF,
        0x02, 0x01, 0x00,
        0x04, 0x10, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
        0x04, 0x10, 0x04, 0x03, 0x02, 0x01, 0x06, 0x05, 0x08, 0x07,
        0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10,
        0x02, 0x01, 0x7F,
        0x02, 0x04, 0x7F, 0xFF, 0xFF, 0xFF,
        0x04, 0x00,
    };
    EXPECT_EQ(expected, Encoded(t));
}

TEST(TemplateEncoderTest, MostNegativeHeaderValueAndLongDataUseLongLengths)
{
    CNVTemplate t;
    t.m_header.lHeaderValue = static_cast<LONG>(0x80000000);
    t.m_data.assign(130, 0x5A);
    std::vector<BYTE> der = Encoded(t);
    // DER takes the shortest length form: 0x81 and one byte for 128 to 255.
    const size_t infoLen = 3 * 3 + 2 * 18; // three zero numbers, two GUIDs
    const size_t objectLen = (2 + infoLen) + 6;  // + INTEGER 80 00 00 00
    const size_t outerLen = (2 + objectLen) + (3 + 130);
    ASSERT_EQ(2 + 1 + outerLen, der.size());
    EXPECT_EQ(0x30, der[0]);
    EXPECT_EQ(0x81, der[1]);
    EXPECT_EQ(outerLen, der[2]);
    const size_t intAt = 3 + 2 + 2 + infoLen;
    EXPECT_EQ((std::vector<BYTE>{0x02, 0x04, 0x80, 0x00, 0x00, 0x00}),
              std::vector<BYTE>(der.begin() + intAt, der.begin() + intAt + 6));
    EXPECT_EQ((std::vector<BYTE>{0x04, 0x81, 0x82}), std::vector<BYTE>(der.begin() + intAt + 6, der.begin() + intAt + 9));
    EXPECT_EQ(std::vector<BYTE>(130, 0x5A), std::vector<BYTE>(der.begin() + intAt + 9, der.end()));
}

TEST(TemplateEncoderTest, SignedHeaderValuesTakeTheirShortestTwosComplement)
{
    const struct {
        LONG value;
        std::vector<BYTE> der;
    } cases[] = {
        {-1, {0x02, 0x01, 0xFF}},
        {-128, {0x02, 0x01, 0x80}},
        {-129, {0x02, 0x02, 0xFF, 0x7F}},
        {-256, {0x02, 0x02, 0xFF, 0x00}},
        {0, {0x02, 0x01, 0x00}},
        {127, {0x02, 0x01, 0x7F}},
        {128, {0x02, 0x02, 0x00, 0x80}},
        {0x12345678, {0x02, 0x04, 0x12, 0x34, 0x56, 0x78}},
    };
    for (const auto& c : cases) {
        CNVTemplate t;
        t.m_header.lHeaderValue = c.value;
        std::vector<BYTE> der = Encoded(t);
        // The header value follows the 47 bytes of the (all zero) information record.
        const size_t at = 2 + 2 + 2 + 45;
        ASSERT_GE(der.size(), at + c.der.size()) << c.value;
        EXPECT_EQ(c.der, std::vector<BYTE>(der.begin() + at, der.begin() + at + c.der.size())) << c.value;
    }
}

TEST(TemplateEncoderTest, DecoderReadsTheFieldsBackByPosition)
{
    CNVTemplate t;
    t.m_header.info.dwFormat = 3;
    t.m_header.info.dwFlags = 0x10;
    t.m_header.info.guidType = kTypeGuid;
    t.m_header.info.guidOwner = {0xCAFEBABE, 0x1234, 0x5678, {1, 2, 3, 4, 5, 6, 7, 8}};
    t.m_header.info.dwSize = 4096;
    t.m_header.lHeaderValue = -12345;
    t.m_data = {1, 2, 3, 4, 5};
    std::vector<BYTE> der = Encoded(t);

    const DWORD enc = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
    auto decode = [&](LPCSTR type, const BYTE* p, DWORD cb) {
        DWORD size = 0;
        EXPECT_TRUE(CryptDecodeObject(enc, type, p, cb, 0, nullptr, &size));
        std::vector<BYTE> buf(size);
        EXPECT_TRUE(CryptDecodeObject(enc, type, p, cb, 0, buf.data(), &size));
        return buf;
    };
    auto outerBuf = decode(X509_SEQUENCE_OF_ANY, der.data(), static_cast<DWORD>(der.size()));
    auto* outer = reinterpret_cast<CRYPT_SEQUENCE_OF_ANY*>(outerBuf.data());
    ASSERT_EQ(2u, outer->cValue);
    auto objBuf = decode(X509_SEQUENCE_OF_ANY, outer->rgValue[0].pbData, outer->rgValue[0].cbData);
    auto* obj = reinterpret_cast<CRYPT_SEQUENCE_OF_ANY*>(objBuf.data());
    ASSERT_EQ(2u, obj->cValue);
    auto infoBuf = decode(X509_SEQUENCE_OF_ANY, obj->rgValue[0].pbData, obj->rgValue[0].cbData);
    auto* info = reinterpret_cast<CRYPT_SEQUENCE_OF_ANY*>(infoBuf.data());
    ASSERT_EQ(5u, info->cValue);

    auto uintAt = [&](const CRYPT_DER_BLOB& item) {
        auto b = decode(X509_MULTI_BYTE_UINT, item.pbData, item.cbData);
        auto* ib = reinterpret_cast<CRYPT_INTEGER_BLOB*>(b.data());
        DWORD v = 0;
        EXPECT_LE(ib->cbData, 4u);
        std::memcpy(&v, ib->pbData, ib->cbData);
        return v;
    };
    auto octetsAt = [&](const CRYPT_DER_BLOB& item) {
        auto b = decode(X509_OCTET_STRING, item.pbData, item.cbData);
        auto* ob = reinterpret_cast<CRYPT_DATA_BLOB*>(b.data());
        return std::vector<BYTE>(ob->pbData, ob->pbData + ob->cbData);
    };
    EXPECT_EQ(3u, uintAt(info->rgValue[0]));
    EXPECT_EQ(0x10u, uintAt(info->rgValue[1]));
    const BYTE* typeBytes = reinterpret_cast<const BYTE*>(&t.m_header.info.guidType);
    const BYTE* ownerBytes = reinterpret_cast<const BYTE*>(&t.m_header.info.guidOwner);
    EXPECT_EQ(std::vector<BYTE>(typeBytes, typeBytes + 16), octetsAt(info->rgValue[2]));
    EXPECT_EQ(std::vector<BYTE>(ownerBytes, ownerBytes + 16), octetsAt(info->rgValue[3]));
    EXPECT_EQ(4096u, uintAt(info->rgValue[4]));

    auto intBuf = decode(X509_MULTI_BYTE_INTEGER, obj->rgValue[1].pbData, obj->rgValue[1].cbData);
    auto* ib = reinterpret_cast<CRYPT_INTEGER_BLOB*>(intBuf.data());
    ASSERT_EQ(2u, ib->cbData); // -12345 = 0xCFC7, least significant first
    EXPECT_EQ(0xC7, ib->pbData[0]);
    EXPECT_EQ(0xCF, ib->pbData[1]);

    EXPECT_EQ(t.m_data, octetsAt(outer->rgValue[1]));
}

TEST(TemplateEncoderTest, ReplacesTheBlobsOldContent)
{
    CNVTemplate t;
    nv::CCryptBlob blob;
    blob.Assign(reinterpret_cast<const BYTE*>("previous content"), 16);
    EncodeTemplate(t, blob);
    ASSERT_EQ(2u + 2u + 2u + 3u * 3u + 2u * 18u + 3u + 2u, blob.cbData);
    EXPECT_EQ(0x30, blob.pbData[0]);
    EXPECT_EQ(0x04, blob.pbData[blob.cbData - 2]);
    EXPECT_EQ(0x00, blob.pbData[blob.cbData - 1]);
}

TEST(TemplateEncoderTest, TheStoreInspectionDecoderReadsEncodedTemplatesBack)
{
    CNVTemplate t;
    t.m_header.info.dwFormat = 0xFFFFFFFF;
    t.m_header.info.dwFlags = 0;
    t.m_header.info.guidType = kTypeGuid;
    t.m_header.info.dwSize = 77;
    t.m_header.lHeaderValue = -1;
    t.m_data = {9, 8, 7};
    nvtest::DecodedTemplate d;
    d.flags = 0xdeadbeef;
    ASSERT_TRUE(nvtest::DecodeStoredTemplate(Encoded(t), &d));
    EXPECT_EQ(0xFFFFFFFFu, d.format);
    EXPECT_EQ(0u, d.flags);
    EXPECT_EQ(nvtest::GuidMemoryBytes(kTypeGuid), d.type);
    EXPECT_EQ(std::vector<BYTE>(16, 0), d.owner);
    EXPECT_EQ(77u, d.size);
    EXPECT_EQ(-1, d.headerValue);
    EXPECT_EQ(t.m_data, d.data);
}
