// The typed value blobs: structure types, raw forms, DER against byte tables, the
// decode rules (wide-string value types, number ranges), and the SEQUENCE OF ANY.
#include <windows.h>
#include <gtest/gtest.h>
#include <climits>
#include <cstring>
#include <type_traits>
#include <string>
#include <vector>

#include <comdef.h>
#include "converter3/typedblobs.h"
#include "support/api_faults.h"

namespace {

using Bytes = std::vector<BYTE>;

Bytes ToBytes(const CRYPT_DATA_BLOB& b)
{
    return b.cbData ? Bytes(b.pbData, b.pbData + b.cbData) : Bytes();
}

Bytes Der(const CNVAnyBlob& value)
{
    nv::CCryptBlob der;
    value.Encode(der);
    return ToBytes(der);
}

HRESULT DecodeError(CNVAnyBlob& blob, const Bytes& der)
{
    try {
        blob.Decode(der.data(), static_cast<DWORD>(der.size()));
    } catch (const _com_error& e) {
        return e.Error();
    }
    return S_OK;
}

std::wstring DecodeString(const Bytes& der)
{
    CNVWStrBlob s;
    s.Decode(der.data(), static_cast<DWORD>(der.size()));
    return s.Value() ? std::wstring(s.Value()) : std::wstring(L"<empty>");
}

} // namespace

// The family adds no virtual operation and no field beyond the structure type.
static_assert(std::has_virtual_destructor<nv::CCryptBlob>::value, "blobs have a virtual destructor");
static_assert(std::is_base_of<nv::CCryptBlob, CNVAnyBlob>::value, "typed blobs are heap blobs");
static_assert(sizeof(CNVAnyBlob) == sizeof(nv::CCryptBlob) + sizeof(LPCSTR), "one field: the structure type");
static_assert(sizeof(CNVGUIDBlob) == sizeof(CNVAnyBlob) && sizeof(CNVIntBlob) == sizeof(CNVAnyBlob) &&
                  sizeof(CNVULongBlob) == sizeof(CNVAnyBlob) && sizeof(CNVUIntBlob) == sizeof(CNVAnyBlob) &&
                  sizeof(CNVWStrBlob) == sizeof(CNVAnyBlob),
              "subclasses add no field");

TEST(TypedBlobsTest, EachClassCarriesItsStructureType)
{
    EXPECT_EQ(X509_OCTET_STRING, CNVAnyBlob().m_lpszStructType);
    EXPECT_EQ(X509_OCTET_STRING, CNVGUIDBlob().m_lpszStructType);
    EXPECT_EQ(X509_MULTI_BYTE_INTEGER, CNVIntBlob().m_lpszStructType);
    EXPECT_EQ(X509_MULTI_BYTE_UINT, CNVULongBlob().m_lpszStructType);
    EXPECT_EQ(X509_MULTI_BYTE_UINT, CNVUIntBlob().m_lpszStructType);
    EXPECT_EQ(X509_ANY_STRING, CNVWStrBlob().m_lpszStructType);
    EXPECT_EQ(reinterpret_cast<LPCSTR>(25), X509_OCTET_STRING);
    EXPECT_EQ(reinterpret_cast<LPCSTR>(28), X509_MULTI_BYTE_INTEGER);
    EXPECT_EQ(reinterpret_cast<LPCSTR>(38), X509_MULTI_BYTE_UINT);
    EXPECT_EQ(reinterpret_cast<LPCSTR>(6), X509_ANY_STRING);
}

TEST(TypedBlobsTest, RawFormsAreLittleEndianNumbersGuidBytesAndTerminatedStrings)
{
    EXPECT_EQ((Bytes{0x78, 0x56, 0x34, 0x12}), ToBytes(CNVULongBlob(0x12345678)));
    EXPECT_EQ((Bytes{0x78, 0x56, 0x34, 0x12}), ToBytes(CNVUIntBlob(0x12345678)));
    EXPECT_EQ((Bytes{0xFE, 0xFF, 0xFF, 0xFF}), ToBytes(CNVIntBlob(-2)));
    const GUID g = {0x00112233, 0x4455, 0x6677, {0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF}};
    EXPECT_EQ(0, std::memcmp(&g, CNVGUIDBlob(g).pbData, 16));
    EXPECT_EQ(16u, CNVGUIDBlob(g).cbData);
    EXPECT_EQ((Bytes{'a', 0, 'b', 0, 0, 0}), ToBytes(CNVWStrBlob(L"ab")));
    EXPECT_EQ((Bytes{0, 0}), ToBytes(CNVWStrBlob(L"")));
    EXPECT_EQ((Bytes{0, 0}), ToBytes(CNVWStrBlob(nullptr)));
    EXPECT_EQ(2u, CNVWStrBlob(L"ab").Length());
    EXPECT_EQ(nullptr, CNVWStrBlob().Value());
    EXPECT_EQ(0x12345678u, CNVULongBlob(0x12345678).Value());
    EXPECT_EQ(-2, CNVIntBlob(-2).Value());
    EXPECT_TRUE(IsEqualGUID(g, CNVGUIDBlob(g).Value()));
}

TEST(TypedBlobsTest, UnsignedNumbersEncodeAsMinimalUnsignedIntegers)
{
    EXPECT_EQ((Bytes{0x02, 0x01, 0x00}), Der(CNVULongBlob(0)));
    EXPECT_EQ((Bytes{0x02, 0x01, 0x01}), Der(CNVULongBlob(1)));
    EXPECT_EQ((Bytes{0x02, 0x01, 0x7F}), Der(CNVULongBlob(0x7F)));
    EXPECT_EQ((Bytes{0x02, 0x02, 0x00, 0x80}), Der(CNVULongBlob(0x80)));
    EXPECT_EQ((Bytes{0x02, 0x02, 0x01, 0x00}), Der(CNVULongBlob(0x100)));
    EXPECT_EQ((Bytes{0x02, 0x04, 0x12, 0x34, 0x56, 0x78}), Der(CNVULongBlob(0x12345678)));
    EXPECT_EQ((Bytes{0x02, 0x05, 0x00, 0xFF, 0xFF, 0xFF, 0xFF}), Der(CNVULongBlob(0xFFFFFFFF)));
    EXPECT_EQ((Bytes{0x02, 0x05, 0x00, 0x80, 0x00, 0x00, 0x00}), Der(CNVUIntBlob(0x80000000)));
    EXPECT_EQ((Bytes{0x02, 0x01, 0x09}), Der(CNVUIntBlob(9)));
}

TEST(TypedBlobsTest, SignedNumbersEncodeAsMinimalTwosComplementIntegers)
{
    EXPECT_EQ((Bytes{0x02, 0x01, 0x00}), Der(CNVIntBlob(0)));
    EXPECT_EQ((Bytes{0x02, 0x01, 0xFF}), Der(CNVIntBlob(-1)));
    EXPECT_EQ((Bytes{0x02, 0x01, 0xFE}), Der(CNVIntBlob(-2)));
    const BYTE wideMinusOne[] = {0xFF, 0xFF};
    EXPECT_EQ((Bytes{0x02, 0x01, 0xFF}), Der(CNVAnyBlob(wideMinusOne, 2, X509_MULTI_BYTE_INTEGER)));
    EXPECT_EQ((Bytes{0x02, 0x01, 0x7F}), Der(CNVIntBlob(127)));
    EXPECT_EQ((Bytes{0x02, 0x02, 0x00, 0x80}), Der(CNVIntBlob(128)));
    EXPECT_EQ((Bytes{0x02, 0x01, 0x80}), Der(CNVIntBlob(-128)));
    EXPECT_EQ((Bytes{0x02, 0x02, 0xFF, 0x7F}), Der(CNVIntBlob(-129)));
    EXPECT_EQ((Bytes{0x02, 0x04, 0x7F, 0xFF, 0xFF, 0xFF}), Der(CNVIntBlob(INT_MAX)));
    EXPECT_EQ((Bytes{0x02, 0x04, 0x80, 0x00, 0x00, 0x00}), Der(CNVIntBlob(INT_MIN)));
}

TEST(TypedBlobsTest, WideStringsEncodeAsBigEndianBmpStringsWithTheirTerminatingZero)
{
    EXPECT_EQ((Bytes{0x1E, 0x08, 0x00, 0x61, 0x00, 0x62, 0x00, 0x63, 0x00, 0x00}), Der(CNVWStrBlob(L"abc")));
    EXPECT_EQ((Bytes{0x1E, 0x02, 0x00, 0x00}), Der(CNVWStrBlob(L"")));
    EXPECT_EQ((Bytes{0x1E, 0x02, 0x00, 0x00}), Der(CNVWStrBlob(nullptr)));
    EXPECT_EQ((Bytes{0x1E, 0x06, 0x00, 0xE9, 0x20, 0xAC, 0x00, 0x00}), Der(CNVWStrBlob(L"\u00E9\u20AC")));
}

TEST(TypedBlobsTest, WideStringRawValuesWithoutTerminatorOrWithTrailingBytesEncodeOneTerminatedString)
{
    // The raw form is the string with its zero; a raw value without it, or with
    // more after the first zero, still encodes the string and exactly one zero.
    const BYTE bare[] = {'h', 0, 'i', 0};
    EXPECT_EQ((Bytes{0x1E, 0x06, 0x00, 'h', 0x00, 'i', 0x00, 0x00}), Der(CNVAnyBlob(bare, 4, X509_ANY_STRING)));
    const BYTE twoZeros[] = {'h', 0, 0, 0, 0, 0};
    EXPECT_EQ((Bytes{0x1E, 0x04, 0x00, 'h', 0x00, 0x00}), Der(CNVAnyBlob(twoZeros, 6, X509_ANY_STRING)));
    const BYTE odd[] = {'h', 0, 'i'};
    EXPECT_EQ((Bytes{0x1E, 0x04, 0x00, 'h', 0x00, 0x00}), Der(CNVAnyBlob(odd, 3, X509_ANY_STRING)));
    EXPECT_EQ((Bytes{0x1E, 0x02, 0x00, 0x00}), Der(CNVAnyBlob(X509_ANY_STRING)));
}

TEST(TypedBlobsTest, FifteenCharacterStringIsThirtyTwoBytesEndingInZero)
{
    const Bytes der = Der(CNVWStrBlob(L"ABCDEFGHIJKLMNO"));
    Bytes expected{0x1E, 0x20};
    for (char c = 'A'; c <= 'O'; ++c) {
        expected.push_back(0x00);
        expected.push_back(static_cast<BYTE>(c));
    }
    expected.push_back(0x00);
    expected.push_back(0x00);
    EXPECT_EQ(expected, der);
}

TEST(TypedBlobsTest, GuidsAndBytesEncodeAsOctetStrings)
{
    const GUID g = {0x00112233, 0x4455, 0x6677, {0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF}};
    EXPECT_EQ((Bytes{0x04, 0x10, 0x33, 0x22, 0x11, 0x00, 0x55, 0x44, 0x77, 0x66, 0x88, 0x99, 0xAA, 0xBB, 0xCC,
                     0xDD, 0xEE, 0xFF}),
              Der(CNVGUIDBlob(g)));
    const BYTE raw[] = {1, 2, 3};
    EXPECT_EQ((Bytes{0x04, 0x03, 0x01, 0x02, 0x03}), Der(CNVAnyBlob(raw, 3)));
    EXPECT_EQ((Bytes{0x04, 0x00}), Der(CNVAnyBlob()));
}

TEST(TypedBlobsTest, AnyBlobWithAnotherStructureTypeEncodesByThatType)
{
    const BYTE le[] = {0x80, 0x00, 0x00, 0x00};
    EXPECT_EQ((Bytes{0x02, 0x02, 0x00, 0x80}), Der(CNVAnyBlob(le, 4, X509_MULTI_BYTE_UINT)));
    const BYTE wide[] = {'h', 0, 'i', 0, 0, 0};
    EXPECT_EQ((Bytes{0x1E, 0x06, 0x00, 'h', 0x00, 'i', 0x00, 0x00}), Der(CNVAnyBlob(wide, 6, X509_ANY_STRING)));
}

TEST(TypedBlobsTest, EncodeReplacesTheTargetsOldContent)
{
    nv::CCryptBlob der;
    const BYTE old[] = {9, 9, 9, 9, 9, 9, 9, 9, 9, 9};
    der.Assign(old, sizeof(old));
    CNVULongBlob(5).Encode(der);
    EXPECT_EQ((Bytes{0x02, 0x01, 0x05}), ToBytes(der));
}

TEST(TypedBlobsTest, NumbersDecodeBackToTheirRawForms)
{
    CNVULongBlob u;
    u.Decode(Bytes{0x02, 0x05, 0x00, 0xFF, 0xFF, 0xFF, 0xFF}.data(), 7);
    EXPECT_EQ((Bytes{0xFF, 0xFF, 0xFF, 0xFF}), ToBytes(u));
    EXPECT_EQ(0xFFFFFFFFu, u.Value());
    u.Decode(Bytes{0x02, 0x01, 0x09}.data(), 3);
    EXPECT_EQ((Bytes{0x09, 0x00, 0x00, 0x00}), ToBytes(u));
    u.Decode(Bytes{0x02, 0x02, 0x00, 0x80}.data(), 4);
    EXPECT_EQ(0x80u, u.Value());

    CNVIntBlob i;
    i.Decode(Bytes{0x02, 0x02, 0xFF, 0x7F}.data(), 4);
    EXPECT_EQ((Bytes{0x7F, 0xFF, 0xFF, 0xFF}), ToBytes(i));
    EXPECT_EQ(-129, i.Value());
    i.Decode(Bytes{0x02, 0x04, 0x80, 0x00, 0x00, 0x00}.data(), 6);
    EXPECT_EQ(INT_MIN, i.Value());
    i.Decode(Bytes{0x02, 0x01, 0x7F}.data(), 3);
    EXPECT_EQ(127, i.Value());
}

TEST(TypedBlobsTest, NumbersBeyondThirtyTwoBitsAreRefused)
{
    CNVULongBlob u;
    EXPECT_EQ(CRYPT_E_ASN1_LARGE, DecodeError(u, {0x02, 0x05, 0x01, 0x00, 0x00, 0x00, 0x00}));
    EXPECT_TRUE(u.IsEmpty());
    CNVIntBlob i;
    EXPECT_EQ(CRYPT_E_ASN1_LARGE, DecodeError(i, {0x02, 0x05, 0x00, 0x80, 0x00, 0x00, 0x00}));
    EXPECT_EQ(CRYPT_E_ASN1_LARGE, DecodeError(i, {0x02, 0x05, 0xFF, 0x7F, 0xFF, 0xFF, 0xFF}));
}

TEST(TypedBlobsTest, GuidAndOctetStringDecodeGiveTheBytes)
{
    const GUID g = {0x00112233, 0x4455, 0x6677, {0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF}};
    const Bytes der = Der(CNVGUIDBlob(g));
    CNVGUIDBlob back;
    back.Decode(der.data(), static_cast<DWORD>(der.size()));
    EXPECT_TRUE(IsEqualGUID(g, back.Value()));

    CNVAnyBlob any;
    any.Decode(Bytes{0x04, 0x02, 0xAB, 0xCD}.data(), 4);
    EXPECT_EQ((Bytes{0xAB, 0xCD}), ToBytes(any));
    CNVGUIDBlob shortGuid;
    shortGuid.Decode(Bytes{0x04, 0x02, 0xAB, 0xCD}.data(), 4);
    try {
        shortGuid.Value();
        FAIL() << "a 2-byte GUID was taken";
    } catch (const _com_error& e) {
        EXPECT_EQ(NTE_BAD_DATA, e.Error());
    }
}

TEST(TypedBlobsTest, WideStringDecodeTakesBmpAndTheStringTypesNumericToVisible)
{
    EXPECT_EQ(L"abc", DecodeString({0x1E, 0x06, 0x00, 0x61, 0x00, 0x62, 0x00, 0x63}));   // BMP (12)
    EXPECT_EQ(L"\u00E9\u20AC", DecodeString({0x1E, 0x04, 0x00, 0xE9, 0x20, 0xAC}));
    EXPECT_EQ(L"123", DecodeString({0x12, 0x03, '1', '2', '3'}));                       // numeric (3)
    EXPECT_EQ(L"Ab1", DecodeString({0x13, 0x03, 'A', 'b', '1'}));                       // printable (4)
    EXPECT_EQ(L"t61", DecodeString({0x14, 0x03, 't', '6', '1'}));                       // teletex (5)
    EXPECT_EQ(L"vtx", DecodeString({0x15, 0x03, 'v', 't', 'x'}));                       // videotex (6)
    EXPECT_EQ(L"a@b", DecodeString({0x16, 0x03, 'a', '@', 'b'}));                       // IA5 (7)
    EXPECT_EQ(L"grf", DecodeString({0x19, 0x03, 'g', 'r', 'f'}));                       // graphic (8)
    EXPECT_EQ(L"vis", DecodeString({0x1A, 0x03, 'v', 'i', 's'}));                       // visible (9)
    EXPECT_EQ(L"", DecodeString({0x1E, 0x00}));
}

TEST(TypedBlobsTest, WideStringDecodeGivesTheSameValueWithOrWithoutTheTrailingZero)
{
    CNVWStrBlob with, without;
    const Bytes withZero{0x1E, 0x06, 0x00, 'o', 0x00, 'k', 0x00, 0x00};
    const Bytes withoutZero{0x1E, 0x04, 0x00, 'o', 0x00, 'k'};
    with.Decode(withZero.data(), static_cast<DWORD>(withZero.size()));
    without.Decode(withoutZero.data(), static_cast<DWORD>(withoutZero.size()));
    EXPECT_EQ((Bytes{'o', 0, 'k', 0, 0, 0}), ToBytes(with));
    EXPECT_EQ(ToBytes(without), ToBytes(with));
    EXPECT_EQ(2u, with.Length());

    const Bytes emptyWithZero{0x1E, 0x02, 0x00, 0x00};
    with.Decode(emptyWithZero.data(), static_cast<DWORD>(emptyWithZero.size()));
    EXPECT_EQ((Bytes{0, 0}), ToBytes(with));
    const Bytes ia5WithZero{0x16, 0x03, 'o', 'k', 0x00};
    with.Decode(ia5WithZero.data(), static_cast<DWORD>(ia5WithZero.size()));
    EXPECT_EQ((Bytes{'o', 0, 'k', 0, 0, 0}), ToBytes(with));

    // Encode, decode, encode again: one terminator, never two.
    const Bytes once = Der(CNVWStrBlob(L"ok"));
    with.Decode(once.data(), static_cast<DWORD>(once.size()));
    EXPECT_EQ(once, Der(with));
}

TEST(TypedBlobsTest, WideStringDecodeLeavesTheBlobEmptyForOtherStringTypes)
{
    EXPECT_EQ(L"<empty>", DecodeString({0x1B, 0x03, 'g', 'e', 'n'}));                         // general (10)
    EXPECT_EQ(L"<empty>", DecodeString({0x0C, 0x03, 'u', 't', 'f'}));                         // UTF-8 (13)
    EXPECT_EQ(L"<empty>", DecodeString({0x04, 0x03, 'o', 'c', 't'}));                         // octets (any)
}

TEST(TypedBlobsTest, DecodedStringsHoldTheirTerminatingZero)
{
    CNVWStrBlob s;
    const Bytes der{0x1E, 0x04, 0x00, 'o', 0x00, 'k'};
    s.Decode(der.data(), static_cast<DWORD>(der.size()));
    EXPECT_EQ((Bytes{'o', 0, 'k', 0, 0, 0}), ToBytes(s));
    const Bytes ia5{0x16, 0x02, 'o', 'k'};
    s.Decode(ia5.data(), static_cast<DWORD>(ia5.size()));
    EXPECT_EQ((Bytes{'o', 0, 'k', 0, 0, 0}), ToBytes(s));
}

TEST(TypedBlobsTest, DecodeFreesTheOldValueFirst)
{
    CNVWStrBlob s(L"old value");
    const Bytes utf8{0x0C, 0x01, 'x'};
    s.Decode(utf8.data(), static_cast<DWORD>(utf8.size()));
    EXPECT_TRUE(s.IsEmpty());
    EXPECT_EQ(nullptr, s.pbData);
    EXPECT_EQ(0u, s.cbData);

    CNVULongBlob u(7);
    EXPECT_NE(S_OK, DecodeError(u, {0x04, 0x01, 0x00})); // an octet string is no number
    EXPECT_TRUE(u.IsEmpty());
}

TEST(TypedBlobsTest, MalformedDerRaisesTheCryptoApiError)
{
    CNVULongBlob u;
    EXPECT_EQ(CRYPT_E_ASN1_BADTAG, DecodeError(u, {0x04, 0x01, 0x00}));
    EXPECT_EQ(CRYPT_E_ASN1_EOD, DecodeError(u, {0x02, 0x05, 0x00}));
    CNVAnyBlob any;
    EXPECT_EQ(CRYPT_E_ASN1_BADTAG, DecodeError(any, {0x02, 0x01, 0x00}));
}

TEST(TypedBlobsTest, AFailedDecodeIsClassifiedBeforeItBecomesAResult)
{
    struct Case {
        DWORD lastError;
        HRESULT raised;
    };
    const Case cases[] = {
        {static_cast<DWORD>(CRYPT_E_ASN1_BADTAG), CRYPT_E_ASN1_BADTAG},
        // The coder's own caught fault and its refusal of an impossible value are
        // verdicts on the bytes: never access denied or a bad argument.
        {static_cast<DWORD>(STATUS_ACCESS_VIOLATION), CRYPT_E_ASN1_CORRUPT},
        {ERROR_INVALID_PARAMETER, CRYPT_E_ASN1_CORRUPT},
        {static_cast<DWORD>(E_INVALIDARG), CRYPT_E_ASN1_CORRUPT},
        {ERROR_NOT_ENOUGH_MEMORY, E_OUTOFMEMORY},
        {ERROR_ACCESS_DENIED, HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED)},
    };
    const Bytes der{0x02, 0x01, 0x05};
    for (const Case& c : cases) {
        for (unsigned call : {1u, 2u}) { // the size query, then the decode
            SCOPED_TRACE(std::to_string(c.lastError) + " at call " + std::to_string(call));
            nvtest::ApiFaults faults;
            faults.FailDecode(call, c.lastError);
            CNVULongBlob u(7);
            EXPECT_EQ(c.raised, DecodeError(u, der));
            EXPECT_TRUE(u.IsEmpty());
        }
    }
    // No bytes at all are too little data, and the coder is not asked.
    nvtest::ApiFaults faults;
    CNVULongBlob u;
    EXPECT_EQ(CRYPT_E_ASN1_EOD, DecodeError(u, Bytes()));
    CNVSequence seq;
    try {
        seq.Decode(nullptr, 0);
        ADD_FAILURE() << "nothing decoded as a sequence";
    } catch (const _com_error& e) {
        EXPECT_EQ(CRYPT_E_ASN1_EOD, e.Error());
    }
    EXPECT_EQ(0u, faults.DecodeCalls());
}

TEST(SequenceTest, ItemsEncodeAsSequenceOfAny)
{
    nv::CCryptBlob version, text;
    CNVULongBlob(1).Encode(version);
    CNVWStrBlob(L"abc").Encode(text);
    nv::CCryptBlob seq;
    NVEncodeSequence({&version, &text}, seq);
    EXPECT_EQ((Bytes{0x30, 0x0D, 0x02, 0x01, 0x01, 0x1E, 0x08, 0x00, 0x61, 0x00, 0x62, 0x00, 0x63, 0x00, 0x00}),
              ToBytes(seq));

    NVEncodeSequence({}, seq);
    EXPECT_EQ((Bytes{0x30, 0x00}), ToBytes(seq));
}

TEST(SequenceTest, DecodeGivesTheItemsAsCompleteDerValues)
{
    const Bytes der{0x30, 0x0B, 0x02, 0x01, 0x01, 0x1E, 0x06, 0x00, 0x61, 0x00, 0x62, 0x00, 0x63};
    CNVSequence seq;
    seq.Decode(der.data(), static_cast<DWORD>(der.size()));
    ASSERT_EQ(2u, seq.Count());
    EXPECT_EQ((Bytes{0x02, 0x01, 0x01}), ToBytes(seq.Item(0)));
    EXPECT_EQ((Bytes{0x1E, 0x06, 0x00, 0x61, 0x00, 0x62, 0x00, 0x63}), ToBytes(seq.Item(1)));
    try {
        seq.Item(2);
        FAIL() << "item past the end";
    } catch (const _com_error& e) {
        EXPECT_EQ(NTE_BAD_DATA, e.Error());
    }

    const Bytes empty{0x30, 0x00};
    seq.Decode(empty.data(), 2);
    EXPECT_EQ(0u, seq.Count());
}

TEST(SequenceTest, NotASequenceRaisesTheCryptoApiError)
{
    CNVSequence seq;
    const Bytes der{0x04, 0x01, 0x00};
    try {
        seq.Decode(der.data(), static_cast<DWORD>(der.size()));
        FAIL() << "an octet string decoded as a sequence";
    } catch (const _com_error& e) {
        EXPECT_EQ(CRYPT_E_ASN1_BADTAG, e.Error());
    }
    EXPECT_EQ(0u, seq.Count());
}

TEST(SequenceTest, EncodingTakesUpToSixteenItemsAndRefusesMore)
{
    nv::CCryptBlob one;
    CNVUIntBlob(5).Encode(one);
    const CRYPT_DER_BLOB* p = &one;
    nv::CCryptBlob out;
    NVEncodeSequence({p, p, p, p, p, p, p, p, p, p, p, p, p, p, p, p}, out);
    Bytes expected{0x30, 48};
    for (int i = 0; i < 16; ++i)
        expected.insert(expected.end(), {0x02, 0x01, 0x05});
    EXPECT_EQ(expected, ToBytes(out));

    try {
        NVEncodeSequence({p, p, p, p, p, p, p, p, p, p, p, p, p, p, p, p, p}, out);
        FAIL() << "seventeen items encoded";
    } catch (const _com_error& e) {
        EXPECT_EQ(E_INVALIDARG, e.Error());
    }
    EXPECT_EQ(expected, ToBytes(out)); // left as it was
}

TEST(TypedBlobsTest, UIntValueReadsTheFourLittleEndianBytes)
{
    EXPECT_EQ(0x12345678u, CNVUIntBlob(0x12345678).Value());
    CNVUIntBlob decoded;
    ASSERT_EQ(S_OK, DecodeError(decoded, Bytes{0x02, 0x01, 0x09}));
    EXPECT_EQ(9u, decoded.Value());
}

TEST(TypedBlobsTest, NumberValueOfABlobThatIsNoFourBytesIsBadData)
{
    CNVUIntBlob empty;
    HRESULT raised = S_OK;
    try {
        empty.Value();
    } catch (const _com_error& e) {
        raised = e.Error();
    }
    EXPECT_EQ(NTE_BAD_DATA, raised);

    CNVIntBlob wide;
    wide.Assign(reinterpret_cast<const BYTE*>("12345"), 5);
    raised = S_OK;
    try {
        wide.Value();
    } catch (const _com_error& e) {
        raised = e.Error();
    }
    EXPECT_EQ(NTE_BAD_DATA, raised);
}

TEST(TypedBlobsTest, DecodingAsAStructureTheBlobsDoNotHoldIsAnInvalidArgument)
{
    // A BIT STRING decodes, but no typed blob holds one.
    CNVAnyBlob bits(X509_BITS);
    bits.Assign(reinterpret_cast<const BYTE*>("old"), 3);
    EXPECT_EQ(E_INVALIDARG, DecodeError(bits, Bytes{0x03, 0x02, 0x00, 0xAA}));
    EXPECT_TRUE(bits.IsEmpty());
}

TEST(TypedBlobsTest, AnEmptySignedNumberIsNotTakenForMinusOne)
{
    // No bytes are not "all 0xFF": the coder encodes the empty value as it stands,
    // as it does for the unsigned type.
    EXPECT_EQ((Bytes{0x02, 0x00}), Der(CNVIntBlob()));
    EXPECT_EQ(Der(CNVULongBlob()), Der(CNVIntBlob()));
}

TEST(TypedBlobsTest, AWideSignedNumberWhoseExtraBytesOnlyRepeatTheSignIsTaken)
{
    // Five content bytes, the first only the sign of the other four: INT_MIN.
    CNVIntBlob i;
    ASSERT_EQ(S_OK, DecodeError(i, {0x02, 0x05, 0xFF, 0x80, 0x00, 0x00, 0x00}));
    EXPECT_EQ(INT_MIN, i.Value());
}

TEST(TypedBlobsTest, ASignedNumberWithoutContentBytesReadsAsZero)
{
    // The coder takes an INTEGER of no bytes; nothing to extend, so zero.
    CNVIntBlob none;
    ASSERT_EQ(S_OK, DecodeError(none, {0x02, 0x00}));
    EXPECT_EQ((Bytes{0x00, 0x00, 0x00, 0x00}), ToBytes(none));
    EXPECT_EQ(0, none.Value());
}

TEST(TypedBlobsTest, BytesGivenWithALengthOfZeroAreTooLittleData)
{
    CNVULongBlob u;
    const Bytes der = {0x02, 0x01, 0x09};
    EXPECT_EQ(CRYPT_E_ASN1_EOD, DecodeError(u, Bytes(der.begin(), der.begin())));
    try {
        u.Decode(der.data(), 0);
        ADD_FAILURE() << "no exception";
    } catch (const _com_error& e) {
        EXPECT_EQ(CRYPT_E_ASN1_EOD, e.Error());
    }
    EXPECT_TRUE(u.IsEmpty());
}

TEST(TypedBlobsTest, ABlobThatClaimsItsSizeWithoutBytesIsBadData)
{
    CNVULongBlob number;
    number.cbData = 4;
    EXPECT_EQ(NTE_BAD_DATA, [&] {
        try {
            number.Value();
        } catch (const _com_error& e) {
            return e.Error();
        }
        return S_OK;
    }());
    CNVGUIDBlob guid;
    guid.cbData = sizeof(GUID);
    EXPECT_EQ(NTE_BAD_DATA, [&] {
        try {
            guid.Value();
        } catch (const _com_error& e) {
            return e.Error();
        }
        return S_OK;
    }());
    number.cbData = 0;
    guid.cbData = 0;
}

TEST(TypedBlobsTest, AnEmptyStringOfAOneByteTypeDecodesAsTheEmptyString)
{
    // IA5String of no characters.
    EXPECT_EQ(L"", DecodeString({0x16, 0x00}));
}

TEST(TypedBlobsTest, LengthOfAStringWithoutItsTerminatorStopsAtTheBlobsEnd)
{
    CNVWStrBlob s;
    const wchar_t chars[] = {L'a', L'b', L'c'};
    s.Assign(reinterpret_cast<const BYTE*>(chars), sizeof(chars));
    EXPECT_EQ(3u, s.Length());
    CNVWStrBlob terminated(L"ab");
    EXPECT_EQ(2u, terminated.Length());
}
