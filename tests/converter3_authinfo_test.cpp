// CNVPasswordAuthInfo: the 40-byte header, the strings at their places, and the
// encoded copy taken byte for byte, pointers included.
#include <windows.h>
#include <gtest/gtest.h>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "common/cryptblob.h"
#include "common/hresult.h"
#include "converter3/authinfo.h"
#include "nvstore_inspect.h"

namespace {

uint32_t U32(const BYTE* p, size_t off)
{
    uint32_t v;
    std::memcpy(&v, p + off, 4);
    return v;
}
uint16_t U16(const BYTE* p, size_t off)
{
    uint16_t v;
    std::memcpy(&v, p + off, 2);
    return v;
}
uint64_t U64(const BYTE* p, size_t off)
{
    uint64_t v;
    std::memcpy(&v, p + off, 8);
    return v;
}

// The UNICODE_STRING at `at` in the block at p: Length, MaximumLength and a Buffer
// that points `buffer` bytes into the block; `line` is the caller's.
void ExpectUnicodeString(int line, const BYTE* p, size_t at, uint16_t length, uint16_t maximumLength, size_t buffer)
{
    SCOPED_TRACE(testing::Message() << "checked at line " << line);
    EXPECT_EQ(length, U16(p, at));
    EXPECT_EQ(maximumLength, U16(p, at + 2));
    EXPECT_EQ(reinterpret_cast<uint64_t>(p + buffer), U64(p, at + 8));
}

std::vector<BYTE> Bytes(const BYTE* p, size_t cb) { return std::vector<BYTE>(p, p + cb); }

std::vector<BYTE> Utf16WithTerminator(const std::wstring& s)
{
    std::vector<BYTE> out((s.size() + 1) * 2, 0);
    std::memcpy(out.data(), s.c_str(), s.size() * 2);
    return out;
}

} // namespace

TEST(PasswordAuthInfoTest, HeaderAndStringsOfKindZeroWithPasswordTwice)
{
    CNVPasswordAuthInfo info(0, L"Secret1", L"Secret1");
    const BYTE* p = info.Data();
    ASSERT_NE(nullptr, p);
    // 40 + (7 * 2 + 2) * 2
    ASSERT_EQ(72u, info.Size());

    EXPECT_EQ(0u, U32(p, 0));
    EXPECT_EQ(0u, U32(p, 4));

    ExpectUnicodeString(__LINE__, p, 8, 14, 16, 40);
    EXPECT_EQ(0u, U32(p, 12));

    ExpectUnicodeString(__LINE__, p, 24, 14, 16, 56);
    EXPECT_EQ(0u, U32(p, 28));

    EXPECT_EQ(Utf16WithTerminator(L"Secret1"), Bytes(p + 40, 16));
    EXPECT_EQ(Utf16WithTerminator(L"Secret1"), Bytes(p + 56, 16));
}

TEST(PasswordAuthInfoTest, SecondStringFollowsTheFirstMaximumLength)
{
    CNVPasswordAuthInfo info(0x11223344, L"a", L"long one");
    const BYTE* p = info.Data();
    ASSERT_EQ(40u + 4u + 18u, info.Size());
    EXPECT_EQ(0x11223344u, U32(p, 0));
    EXPECT_EQ(0u, U32(p, 4));
    ExpectUnicodeString(__LINE__, p, 8, 2, 4, 40);
    ExpectUnicodeString(__LINE__, p, 24, 16, 18, 44);
    EXPECT_EQ(Utf16WithTerminator(L"a"), Bytes(p + 40, 4));
    EXPECT_EQ(Utf16WithTerminator(L"long one"), Bytes(p + 44, 18));
}

TEST(PasswordAuthInfoTest, EmptyAndNullStringsTakeOnlyTheirTerminator)
{
    CNVPasswordAuthInfo info(0, L"", nullptr);
    const BYTE* p = info.Data();
    ASSERT_EQ(44u, info.Size());
    ExpectUnicodeString(__LINE__, p, 8, 0, 2, 40);
    ExpectUnicodeString(__LINE__, p, 24, 0, 2, 42);
    EXPECT_EQ((std::vector<BYTE>{0, 0, 0, 0}), Bytes(p + 40, 4));
}

TEST(PasswordAuthInfoTest, EncodedFormIsAByteCopyWithThePointersIntoTheObjectsBlock)
{
    CNVPasswordAuthInfo info(0, L"pw", L"pw");
    nv::CCryptBlob blob;
    blob.Assign(reinterpret_cast<const BYTE*>("old"), 3);
    info.Encode(blob);
    ASSERT_EQ(info.Size(), blob.cbData);
    ASSERT_NE(info.Data(), blob.pbData);
    EXPECT_EQ(Bytes(info.Data(), info.Size()), Bytes(blob.pbData, blob.cbData));
    // The copied pointers still name the strings in the object's block.
    EXPECT_EQ(reinterpret_cast<uint64_t>(info.Data() + 40), U64(blob.pbData, 16));
    EXPECT_EQ(reinterpret_cast<uint64_t>(info.Data() + 46), U64(blob.pbData, 32));
}

TEST(PasswordAuthInfoTest, StringTooLongForTheLengthFieldsIsRefused)
{
    // 32766 characters: 65532 bytes, maximum 65534 - fits.
    std::wstring fits(32766, L'x');
    EXPECT_NO_THROW(CNVPasswordAuthInfo(0, fits.c_str(), L""));
    std::wstring tooLong(32767, L'x');
    try {
        CNVPasswordAuthInfo info(0, tooLong.c_str(), L"");
        FAIL() << "no exception";
    } catch (const _com_error& e) {
        EXPECT_EQ(E_INVALIDARG, e.Error());
    }
}

TEST(PasswordAuthInfoTest, EncodedFormIsWhatTheStoreContractLaysOut)
{
    CNVPasswordAuthInfo info(0, L"Pa55-word", L"Pa55-word");
    nv::CCryptBlob blob;
    info.Encode(blob);
    const nvstore::inspect::Bytes expected = nvstore::inspect::BuildPasswordAuthInfo(
        0, L"Pa55-word", L"Pa55-word", reinterpret_cast<ULONG_PTR>(info.Data() + 40),
        reinterpret_cast<ULONG_PTR>(info.Data() + 40 + 20));
    EXPECT_EQ(expected, Bytes(blob.pbData, blob.cbData));
}
