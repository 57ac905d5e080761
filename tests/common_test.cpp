// Shared helpers: result codes, the boundary helper, handle owners, the registry key
// owner and its value reader and writer, byte blobs, and the block cipher.
#include <windows.h>
#include <gtest/gtest.h>
#include <cstring>
#include <vector>

#include "common/cryptblob.h"
#include "common/handles.h"
#include "common/hresult.h"
#include "common/regkey.h"
#include "common/tea_cfb.h"
#include "support/registry_sandbox.h"

using namespace nvtest;

TEST(HResultFromWin32Test, PlainCodesBecomeFacilityWin32KeepingLow16Bits)
{
    EXPECT_EQ(static_cast<HRESULT>(0x80070002), nv::HResultFromWin32(2));
    EXPECT_EQ(static_cast<HRESULT>(0x8007000D), nv::HResultFromWin32(13));
    EXPECT_EQ(static_cast<HRESULT>(0x80070103), nv::HResultFromWin32(259));
}

TEST(HResultFromWin32Test, ZeroStaysSuccessAndCodesWithFacilityBitsPassUnchanged)
{
    EXPECT_EQ(S_OK, nv::HResultFromWin32(0));
    EXPECT_EQ(static_cast<HRESULT>(0x80090005), nv::HResultFromWin32(static_cast<LONG>(0x80090005)));
    EXPECT_EQ(static_cast<HRESULT>(0x00090312), nv::HResultFromWin32(0x00090312));
}

TEST(ThrowIfWin32FailedTest, RaisesPlainCodesAndNegativeResultsOnly)
{
    EXPECT_NO_THROW(nv::ThrowIfWin32Failed(0));
    EXPECT_NO_THROW(nv::ThrowIfWin32Failed(0x00090312)); // facility bits, positive: success
    try {
        nv::ThrowIfWin32Failed(5);
        FAIL() << "no exception";
    } catch (const _com_error& e) {
        EXPECT_EQ(static_cast<HRESULT>(0x80070005), e.Error());
    }
    try {
        nv::ThrowIfWin32Failed(static_cast<LONG>(0x80090016));
        FAIL() << "no exception";
    } catch (const _com_error& e) {
        EXPECT_EQ(static_cast<HRESULT>(0x80090016), e.Error());
    }
}

TEST(GuardedTest, ComErrorGivesItsCodeAnythingElseEUnexpected)
{
    EXPECT_EQ(static_cast<HRESULT>(0x80070008), nv::Guarded([]() -> HRESULT { nv::ThrowHr(0x80070008); }));
    EXPECT_EQ(E_UNEXPECTED, nv::Guarded([]() -> HRESULT { throw std::out_of_range("x"); }));
    EXPECT_EQ(S_FALSE, nv::Guarded([]() -> HRESULT { return S_FALSE; }));
}

namespace {
struct CountingTraits {
    using pointer = int;
    static int closed;
    static pointer invalid() noexcept { return 0; }
    static void close(pointer) noexcept { ++closed; }
};
int CountingTraits::closed = 0;
} // namespace

TEST(UniqueHandleTest, ClosesOnceOnResetMoveAndScopeEnd)
{
    CountingTraits::closed = 0;
    {
        nv::unique_handle<CountingTraits> a(7);
        nv::unique_handle<CountingTraits> b(std::move(a));
        EXPECT_FALSE(a);
        EXPECT_EQ(7, b.get());
        b.reset(9);
        EXPECT_EQ(1, CountingTraits::closed);
        EXPECT_EQ(9, b.release());
    }
    EXPECT_EQ(1, CountingTraits::closed);
    {
        nv::unique_handle<CountingTraits> c(3);
    }
    EXPECT_EQ(2, CountingTraits::closed);
}

TEST(UniqueHandleTest, FileOwnerTreatsInvalidHandleValueAsEmpty)
{
    nv::unique_hfile f;
    EXPECT_FALSE(f);
    EXPECT_EQ(INVALID_HANDLE_VALUE, f.get());
}

class RegKeyTest : public RegistrySandbox {};

TEST_F(RegKeyTest, OpenClosesThePreviousHandleAndLeavesTheViewWordAlone)
{
    CreateKeyPath(L"SOFTWARE\\Norvane\\A", kView32);
    CreateKeyPath(L"SOFTWARE\\Norvane\\B", kView32);
    nv::CNVRegKey key;
    key.m_samWOW64 = 0;
    ASSERT_EQ(ERROR_SUCCESS, key.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane\\A", KEY_READ | KEY_WOW64_32KEY));
    HKEY first = key.m_hKey;
    ASSERT_EQ(ERROR_SUCCESS, key.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane\\B", KEY_READ | KEY_WOW64_32KEY));
    EXPECT_NE(first, key.m_hKey);
    EXPECT_EQ(0u, key.m_samWOW64);
    // A failing open keeps the handle it held.
    HKEY second = key.m_hKey;
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, key.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane\\C", KEY_READ | KEY_WOW64_32KEY));
    EXPECT_EQ(second, key.m_hKey);
}

TEST_F(RegKeyTest, CreatedKeyLandsInTheRequestedViewOnly)
{
    nv::CNVRegKey key;
    ASSERT_EQ(ERROR_SUCCESS, key.Create(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane\\Only32", KEY_ALL_ACCESS | KEY_WOW64_32KEY));
    key.Close();
    EXPECT_TRUE(KeyExists(L"SOFTWARE\\Norvane\\Only32", kView32));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Norvane\\Only32", kView64));
}

TEST_F(RegKeyTest, StringReaderAcceptsTerminatedSzAndExpandSz)
{
    SetString(L"SOFTWARE\\Norvane", L"sz", L"1.0", kView64);
    SetString(L"SOFTWARE\\Norvane", L"esz", L"%x%", kView64, REG_EXPAND_SZ);
    nv::CNVRegKey key;
    ASSERT_EQ(ERROR_SUCCESS, key.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane", KEY_READ));
    wchar_t buf[260];
    std::memset(buf, 0xEF, sizeof(buf));
    ULONG cch = 260;
    ASSERT_EQ(ERROR_SUCCESS, nv::QueryStringValue(key, L"sz", buf, &cch));
    EXPECT_STREQ(L"1.0", buf);
    EXPECT_EQ(4u, cch);
    cch = 260;
    ASSERT_EQ(ERROR_SUCCESS, nv::QueryStringValue(key, L"esz", buf, &cch));
    EXPECT_STREQ(L"%x%", buf); // not expanded
}

TEST_F(RegKeyTest, StringReaderRefusesOtherTypesOddSizesAndUnterminatedBodies)
{
    SetDword(L"SOFTWARE\\Norvane", L"dw", 1, kView64);
    SetBinary(L"SOFTWARE\\Norvane", L"odd", {'1', 0, '.', 0, '0'}, kView64, REG_SZ);
    SetBinary(L"SOFTWARE\\Norvane", L"unterminated", {'1', 0, '.', 0, '0', 0}, kView64, REG_SZ);
    nv::CNVRegKey key;
    ASSERT_EQ(ERROR_SUCCESS, key.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane", KEY_READ));
    wchar_t buf[260];
    for (const wchar_t* name : {L"dw", L"odd", L"unterminated"}) {
        ULONG cch = 260;
        EXPECT_EQ(ERROR_INVALID_DATA, nv::QueryStringValue(key, name, buf, &cch)) << Narrow(name);
    }
    ULONG cch = 260;
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, nv::QueryStringValue(key, L"missing", buf, &cch));
}

TEST_F(RegKeyTest, StringReaderReportsMoreDataWhenTheBufferIsSmall)
{
    SetString(L"SOFTWARE\\Norvane", L"long", L"abcdefgh", kView64);
    nv::CNVRegKey key;
    ASSERT_EQ(ERROR_SUCCESS, key.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane", KEY_READ));
    wchar_t buf[4];
    ULONG cch = 4;
    EXPECT_EQ(ERROR_MORE_DATA, nv::QueryStringValue(key, L"long", buf, &cch));
    EXPECT_EQ(9u, cch);
}

TEST_F(RegKeyTest, StringWriterStoresLengthPlusOneCharacters)
{
    nv::CNVRegKey key;
    ASSERT_EQ(ERROR_SUCCESS, key.Create(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane", KEY_ALL_ACCESS));
    ASSERT_EQ(ERROR_SUCCESS, nv::SetStringValue(key, L"Version", L"2.0"));
    RegValue v;
    ASSERT_TRUE(GetValue(L"SOFTWARE\\Norvane", L"Version", kView64, &v));
    EXPECT_EQ(static_cast<DWORD>(REG_SZ), v.type);
    EXPECT_EQ((std::vector<BYTE>{'2', 0, '.', 0, '0', 0, 0, 0}), v.data);
}

TEST_F(RegKeyTest, DwordReaderRefusesOtherTypes)
{
    SetDword(L"SOFTWARE\\Norvane", L"dw", 0x1234, kView64);
    SetString(L"SOFTWARE\\Norvane", L"sz", L"1", kView64);
    nv::CNVRegKey key;
    ASSERT_EQ(ERROR_SUCCESS, key.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane", KEY_READ));
    DWORD v = 0xDEADBEEF;
    ASSERT_EQ(ERROR_SUCCESS, nv::QueryDwordValue(key, L"dw", &v));
    EXPECT_EQ(0x1234u, v);
    v = 0xDEADBEEF;
    EXPECT_EQ(ERROR_INVALID_DATA, nv::QueryDwordValue(key, L"sz", &v));
    EXPECT_EQ(0xDEADBEEFu, v);
}

TEST(CryptBlobTest, AssignCopiesAndReassignmentFreesTheOldData)
{
    const BYTE a[] = {1, 2, 3};
    const BYTE b[] = {9, 8};
    nv::CCryptBlob blob(a, 3);
    ASSERT_EQ(3u, blob.cbData);
    EXPECT_EQ(0, std::memcmp(a, blob.pbData, 3));
    blob.Assign(b, 2);
    ASSERT_EQ(2u, blob.cbData);
    EXPECT_EQ(0, std::memcmp(b, blob.pbData, 2));
    CRYPT_DATA_BLOB* raw = &blob;
    EXPECT_EQ(2u, raw->cbData);
    blob.Free();
    EXPECT_TRUE(blob.IsEmpty());
}

TEST(CryptBlobTest, TaskAllocatorFormHandsOutMemoryTheReceiverFreesWithCoTaskMemFree)
{
    nv::CCoTaskCryptBlob blob;
    BYTE* p = blob.Allocate(16);
    ASSERT_NE(nullptr, p);
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(0, p[i]);
    DWORD cb = blob.cbData;
    BYTE* detached = blob.Detach();
    EXPECT_TRUE(blob.IsEmpty());
    EXPECT_EQ(16u, cb);
    ::CoTaskMemFree(detached);
}

TEST(CryptBlobTest, CopyAndMoveKeepIndependentBuffers)
{
    const BYTE a[] = {5, 6, 7, 8};
    nv::CCryptBlob one(a, 4);
    nv::CCryptBlob two(one);
    EXPECT_NE(one.pbData, two.pbData);
    nv::CCryptBlob three(std::move(one));
    EXPECT_TRUE(one.IsEmpty());
    EXPECT_EQ(4u, three.cbData);
}
