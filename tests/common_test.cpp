// Shared helpers: result codes, the boundary helper, handle owners, the registry key
// owner and its value reader and writer, byte blobs, the block cipher, and the
// classification and guard of the DER decoder's calls.
#include <windows.h>
#include <gtest/gtest.h>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "common/guidtext.h"
#include "common/replaceablecalls.h"
#include "common/cryptblob.h"
#include "common/handles.h"
#include "common/hresult.h"
#include "common/regkey.h"
#include "common/teacfb.h"
#include "common/threadslot.h"
#include "support/api_faults.h"
#include "support/allocation_faults.h"
#include "support/import_fault.h"
#include "support/raised_code.h"
#include "support/registry_sandbox.h"
#include "support/store_der.h"

using namespace nvtest;

TEST(HResultFromWin32Test, PlainCodesBecomeFacilityWin32KeepingLow16Bits)
{
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), nv::HResultFromWin32(2));
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_INVALID_DATA), nv::HResultFromWin32(13));
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_NO_MORE_ITEMS), nv::HResultFromWin32(259));
}

TEST(HResultFromWin32Test, ZeroStaysSuccessAndCodesWithFacilityBitsPassUnchanged)
{
    EXPECT_EQ(S_OK, nv::HResultFromWin32(0));
    EXPECT_EQ(NTE_BAD_DATA, nv::HResultFromWin32(NTE_BAD_DATA));
    EXPECT_EQ(static_cast<HRESULT>(0x00090312), nv::HResultFromWin32(0x00090312));
}

TEST(HResultFromFailedCallTest, TheLastErrorAsAResultAndNeverSuccessWithoutOne)
{
    EXPECT_EQ(E_ACCESSDENIED, nv::HResultFromFailedCall(ERROR_ACCESS_DENIED));
    EXPECT_EQ(NTE_BAD_KEYSET, nv::HResultFromFailedCall(static_cast<DWORD>(NTE_BAD_KEYSET)));
    EXPECT_EQ(E_UNEXPECTED, nv::HResultFromFailedCall(ERROR_SUCCESS));
}

TEST(ThrowIfWin32FailedTest, RaisesPlainCodesAndNegativeResultsOnly)
{
    EXPECT_NO_THROW(nv::ThrowIfWin32Failed(0));
    EXPECT_NO_THROW(nv::ThrowIfWin32Failed(0x00090312)); // facility bits, positive: success
    try {
        nv::ThrowIfWin32Failed(5);
        FAIL() << "no exception";
    } catch (const _com_error& e) {
        EXPECT_EQ(E_ACCESSDENIED, e.Error());
    }
    try {
        nv::ThrowIfWin32Failed(NTE_BAD_KEYSET);
        FAIL() << "no exception";
    } catch (const _com_error& e) {
        EXPECT_EQ(NTE_BAD_KEYSET, e.Error());
    }
}

TEST(GuardedTest, ComErrorGivesItsCodeAnythingElseEUnexpected)
{
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY),
              nv::Guarded([]() -> HRESULT { nv::ThrowHr(HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY)); }));
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

TEST(UniqueHandleTest, SelfMoveKeepsTheHandleOpen)
{
    CountingTraits::closed = 0;
    {
        nv::unique_handle<CountingTraits> a(7);
        nv::unique_handle<CountingTraits>& same = a;
        a = std::move(same);
        EXPECT_EQ(7, a.get());
        EXPECT_EQ(0, CountingTraits::closed);
    }
    EXPECT_EQ(1, CountingTraits::closed);
}

TEST(ComPtrTest, AQueryThroughAnEmptyPointerIsEPointerAndEmptiesTheTarget)
{
    nv::com_ptr<IStream> stream;
    ASSERT_EQ(S_OK, ::CreateStreamOnHGlobal(nullptr, TRUE, stream.put()));
    nv::com_ptr<IUnknown> target;
    ASSERT_EQ(S_OK, stream.query(target));
    ASSERT_TRUE(target);
    nv::com_ptr<IStream> empty;
    EXPECT_EQ(E_POINTER, empty.query(target));
    EXPECT_FALSE(target);
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
    HKEY first = key.Get();
    ASSERT_EQ(ERROR_SUCCESS, key.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane\\B", KEY_READ | KEY_WOW64_32KEY));
    EXPECT_NE(first, key.Get());
    EXPECT_EQ(0u, key.m_samWOW64);
    // A failing open keeps the handle it held.
    HKEY second = key.Get();
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, key.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane\\C", KEY_READ | KEY_WOW64_32KEY));
    EXPECT_EQ(second, key.Get());
}

TEST_F(RegKeyTest, CreatedKeyLandsInTheRequestedViewOnly)
{
    nv::CNVRegKey key;
    ASSERT_EQ(ERROR_SUCCESS,
              key.Create(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane\\Only32", KEY_ALL_ACCESS | KEY_WOW64_32KEY));
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

TEST_F(RegKeyTest, StringReaderTakesAnEmptyBodyAsEmptyTextOfOneCharacter)
{
    SetBinary(L"SOFTWARE\\Norvane", L"empty", {}, kView64, REG_SZ);
    nv::CNVRegKey key;
    ASSERT_EQ(ERROR_SUCCESS, key.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane", KEY_READ));
    wchar_t buf[4] = {L'x', L'y', L'z', L'w'};
    ULONG cch = 4;
    ASSERT_EQ(ERROR_SUCCESS, nv::QueryStringValue(key, L"empty", buf, &cch));
    EXPECT_EQ(L'\0', buf[0]);
    EXPECT_EQ(L'y', buf[1]);
    EXPECT_EQ(1u, cch);
    // No room even for the terminator: the needed size is that one character.
    buf[0] = L'x';
    cch = 0;
    EXPECT_EQ(ERROR_MORE_DATA, nv::QueryStringValue(key, L"empty", buf, &cch));
    EXPECT_EQ(1u, cch);
    EXPECT_EQ(L'x', buf[0]);
    cch = 0;
    EXPECT_EQ(ERROR_MORE_DATA, nv::QueryStringValue(key, L"empty", nullptr, &cch));
    EXPECT_EQ(1u, cch);
    std::wstring text = L"before";
    EXPECT_EQ(ERROR_SUCCESS, nv::QueryStringValue(key, L"empty", text));
    EXPECT_EQ(L"", text);
}

TEST_F(RegKeyTest, StringReaderWithoutACapacityIsAnInvalidParameter)
{
    SetString(L"SOFTWARE\\Norvane", L"sz", L"1.0", kView64);
    nv::CNVRegKey key;
    ASSERT_EQ(ERROR_SUCCESS, key.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane", KEY_READ));
    wchar_t buf[8] = {L'x'};
    EXPECT_EQ(ERROR_INVALID_PARAMETER, nv::QueryStringValue(key, L"sz", buf, nullptr));
    EXPECT_EQ(L'x', buf[0]);
}

TEST_F(RegKeyTest, DetachHandsOverTheHandleWhichTheKeyNoLongerCloses)
{
    nv::CNVRegKey key;
    ASSERT_EQ(ERROR_SUCCESS, key.Create(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane", KEY_ALL_ACCESS));
    const HKEY held = key.Get();
    EXPECT_EQ(held, key.Detach());
    EXPECT_EQ(nullptr, key.Get());
    key.Close();
    // Still open after the key let go of it.
    EXPECT_EQ(ERROR_SUCCESS, nv::SetStringValue(held, L"Detached", L"yes"));
    EXPECT_EQ(ERROR_SUCCESS, ::RegCloseKey(held));
    EXPECT_EQ(nullptr, key.Detach());
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

TEST_F(RegKeyTest, StringWriterStoresNullAsTheEmptyString)
{
    nv::CNVRegKey key;
    ASSERT_EQ(ERROR_SUCCESS, key.Create(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane", KEY_ALL_ACCESS));
    ASSERT_EQ(ERROR_SUCCESS, nv::SetStringValue(key, L"Nothing", nullptr));
    RegValue v;
    ASSERT_TRUE(GetValue(L"SOFTWARE\\Norvane", L"Nothing", kView64, &v));
    EXPECT_EQ(static_cast<DWORD>(REG_SZ), v.type);
    EXPECT_EQ((std::vector<BYTE>{0, 0}), v.data);
}

TEST_F(RegKeyTest, StringReaderIntoTextWithNoRoomReportsMoreDataAndLeavesTheText)
{
    SetString(L"SOFTWARE\\Norvane", L"sz", L"1.0", kView64);
    nv::CNVRegKey key;
    ASSERT_EQ(ERROR_SUCCESS, key.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane", KEY_READ));
    std::wstring text = L"before";
    EXPECT_EQ(ERROR_MORE_DATA, nv::QueryStringValue(key, L"sz", text, 0));
    EXPECT_EQ(L"before", text);
    EXPECT_EQ(ERROR_SUCCESS, nv::QueryStringValue(key, L"sz", text, 4));
    EXPECT_EQ(L"1.0", text);
}

TEST_F(RegKeyTest, BinaryReaderReadsSmallAndLargeValuesExactly)
{
    const std::vector<BYTE> small{1, 2, 3};
    std::vector<BYTE> large(nv::kFirstBinaryReadBytes + 1000);
    for (size_t i = 0; i < large.size(); ++i)
        large[i] = static_cast<BYTE>(i * 7);
    SetBinary(L"SOFTWARE\\Norvane", L"small", small, kView64);
    SetBinary(L"SOFTWARE\\Norvane", L"large", large, kView64);
    SetBinary(L"SOFTWARE\\Norvane", L"empty", {}, kView64);
    nv::CNVRegKey key;
    ASSERT_EQ(ERROR_SUCCESS, key.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane", KEY_READ));
    std::vector<BYTE> out;
    ASSERT_EQ(ERROR_SUCCESS, nv::QueryBinaryValue(key, L"small", out));
    EXPECT_EQ(small, out);
    // A buffer that comes too small for the value takes its size and reads it again.
    out.assign(2, 0xEE);
    ASSERT_EQ(ERROR_SUCCESS, nv::QueryBinaryValue(key, L"large", out));
    EXPECT_EQ(large, out);
    out.clear();
    ASSERT_EQ(ERROR_SUCCESS, nv::QueryBinaryValue(key, L"empty", out));
    EXPECT_TRUE(out.empty());
}

TEST_F(RegKeyTest, BinaryReaderRefusesOtherTypesOfAnySizeAndReportsAMissingValue)
{
    SetString(L"SOFTWARE\\Norvane", L"sz", L"1", kView64);
    SetBinary(L"SOFTWARE\\Norvane", L"largeSz", std::vector<BYTE>(nv::kFirstBinaryReadBytes * 2, 'a'), kView64,
              REG_SZ);
    SetDword(L"SOFTWARE\\Norvane", L"dw", 5, kView64);
    nv::CNVRegKey key;
    ASSERT_EQ(ERROR_SUCCESS, key.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane", KEY_READ));
    for (const wchar_t* name : {L"sz", L"largeSz", L"dw"}) {
        std::vector<BYTE> out;
        EXPECT_EQ(ERROR_INVALID_DATA, nv::QueryBinaryValue(key, name, out)) << Narrow(name);
    }
    std::vector<BYTE> out;
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, nv::QueryBinaryValue(key, L"missing", out));
}

TEST_F(RegKeyTest, StringReaderSaysMoreDataOnlyForTextTypesWhenTheBufferIsSmall)
{
    SetBinary(L"SOFTWARE\\Norvane", L"expand", {'%', 0, 'A', 0, '%', 0, 0, 0}, kView64, REG_EXPAND_SZ);
    SetBinary(L"SOFTWARE\\Norvane", L"bin", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, kView64, REG_BINARY);
    SetDword(L"SOFTWARE\\Norvane", L"dw", 7, kView64);
    nv::CNVRegKey key;
    ASSERT_EQ(ERROR_SUCCESS, key.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane", KEY_READ));
    wchar_t buf[2] = {L'x', L'y'};
    ULONG cch = 2;
    EXPECT_EQ(ERROR_MORE_DATA, nv::QueryStringValue(key, L"expand", buf, &cch));
    EXPECT_EQ(4u, cch);
    // A value of another type too large for the buffer, or sized without one, is no
    // text however large the buffer would be.
    cch = 2;
    EXPECT_EQ(ERROR_INVALID_DATA, nv::QueryStringValue(key, L"bin", buf, &cch));
    EXPECT_EQ(5u, cch);
    cch = 0;
    EXPECT_EQ(ERROR_INVALID_DATA, nv::QueryStringValue(key, L"dw", nullptr, &cch));
    EXPECT_EQ(2u, cch);
    EXPECT_EQ(L'x', buf[0]);
}

TEST_F(RegKeyTest, DwordReaderRefusesADwordOfAnotherSize)
{
    SetBinary(L"SOFTWARE\\Norvane", L"short", {1, 2}, kView64, REG_DWORD);
    SetBinary(L"SOFTWARE\\Norvane", L"long", {1, 2, 3, 4, 5, 6, 7, 8}, kView64, REG_DWORD);
    nv::CNVRegKey key;
    ASSERT_EQ(ERROR_SUCCESS, key.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane", KEY_READ));
    DWORD v = 0xDEADBEEF;
    EXPECT_EQ(ERROR_INVALID_DATA, nv::QueryDwordValue(key, L"short", &v));
    EXPECT_EQ(ERROR_INVALID_DATA, nv::QueryDwordValue(key, L"long", &v));
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

TEST(CryptBlobTest, CopyAssignmentGivesAnOwnBufferAndSelfAssignmentKeepsTheBytes)
{
    const BYTE a[] = {5, 6, 7, 8};
    const BYTE b[] = {1, 2};
    nv::CCryptBlob one(a, 4);
    nv::CCryptBlob two(b, 2);
    two = one;
    EXPECT_NE(one.pbData, two.pbData);
    EXPECT_EQ((std::vector<BYTE>{5, 6, 7, 8}), std::vector<BYTE>(two.pbData, two.pbData + two.cbData));
    one.pbData[0] = 9;
    EXPECT_EQ(5, two.pbData[0]);
    nv::CCryptBlob& same = two;
    two = same;
    EXPECT_EQ((std::vector<BYTE>{5, 6, 7, 8}), std::vector<BYTE>(two.pbData, two.pbData + two.cbData));
}

TEST(CryptBlobTest, SelfMoveKeepsTheBytesAndABlobWithoutABlockIsEmptyWhateverItsSize)
{
    const BYTE a[] = {5, 6, 7, 8};
    nv::CCryptBlob one(a, 4);
    nv::CCryptBlob& same = one;
    one = std::move(same);
    ASSERT_FALSE(one.IsEmpty());
    EXPECT_EQ((std::vector<BYTE>{5, 6, 7, 8}), std::vector<BYTE>(one.pbData, one.pbData + one.cbData));
    nv::CCryptBlob none;
    none.Attach(nullptr, 16);
    EXPECT_TRUE(none.IsEmpty());
    // A copy of no bytes is an empty block of its own.
    nv::CCryptBlob copy(nullptr, 0);
    EXPECT_TRUE(copy.IsEmpty());
    EXPECT_NE(nullptr, copy.pbData);
}

TEST(CryptBlobTest, AHeapShortageRaisesOutOfMemoryAndKeepsTheOldContent)
{
    const BYTE a[] = {5, 6, 7, 8};
    nv::CCryptBlob blob(a, 4);
    ImportFault<decltype(&::HeapAlloc)> fault("HeapAlloc", nullptr, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(E_OUTOFMEMORY, RaisedCode([&] { blob.Allocate(32); }));
    EXPECT_EQ(E_OUTOFMEMORY, RaisedCode([&] { blob.Assign(a, 2); }));
    EXPECT_EQ(2u, fault.failed());
    EXPECT_EQ((std::vector<BYTE>{5, 6, 7, 8}), std::vector<BYTE>(blob.pbData, blob.pbData + blob.cbData));
}

TEST(CryptBlobTest, AttachTakesOverABlockOfItsOwnAllocator)
{
    const BYTE a[] = {5, 6, 7, 8};
    nv::CCoTaskCryptBlob blob(a, 4);
    auto* block = static_cast<BYTE*>(::CoTaskMemAlloc(3));
    ASSERT_NE(nullptr, block);
    std::memcpy(block, "xyz", 3);
    blob.Attach(block, 3);
    EXPECT_EQ(block, blob.pbData);
    EXPECT_EQ(3u, blob.cbData);
    // Handed back out, it is the same block, freed by the task allocator.
    DWORD cb = blob.cbData;
    BYTE* out = blob.Detach();
    EXPECT_EQ(block, out);
    EXPECT_EQ(3u, cb);
    EXPECT_TRUE(blob.IsEmpty());
    ::CoTaskMemFree(out);
}

// ---- the DER decoder's calls -------------------------------------------------------

namespace {

using DerBytes = std::vector<BYTE>;

// md5RSA without parameters.
const DerBytes kMd5Rsa = {0x30, 0x0B, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x04};

DerBytes Tlv(BYTE tag, const DerBytes& content) { return nvtest::TlvTwoByteLong(tag, content); }

DerBytes Seq(std::initializer_list<DerBytes> items)
{
    DerBytes content;
    for (const DerBytes& item : items)
        content.insert(content.end(), item.begin(), item.end());
    return Tlv(0x30, content);
}

// A signed content (X509_CERT): to-be-signed bytes, md5RSA, then the signature as given.
DerBytes Envelope(const DerBytes& toBeSigned, const DerBytes& signature)
{
    return Seq({toBeSigned, kMd5Rsa, signature});
}

const DerBytes kToBeSigned = Seq({Tlv(0x04, {0x01, 0x02, 0x03})});

struct GuardCase {
    const char* name;
    LPCSTR structType;
    DerBytes bytes;
};

} // namespace

TEST(DecodeGuardTest, AnEmptyBitStringNeverReachesTheCoder)
{
    const GuardCase cases[] = {
        {"BIT STRING of no bytes", X509_BITS, {0x03, 0x00}},
        {"the same, long form", X509_BITS, {0x03, 0x81, 0x00}},
        {"the same, four length bytes", X509_BITS, {0x03, 0x84, 0x00, 0x00, 0x00, 0x00}},
        {"followed by other bytes", X509_BITS, {0x03, 0x00, 0x04, 0x02, 0xAA, 0xBB}},
        {"signature of no bytes", X509_CERT, Envelope(kToBeSigned, {0x03, 0x00})},
        {"signature of no bytes, long form", X509_CERT, Envelope(kToBeSigned, {0x03, 0x81, 0x00})},
        {"signature first", X509_CERT, Seq({{0x03, 0x00}, kMd5Rsa, {0x03, 0x02, 0x00, 0xAA}})},
        {"public key of no bytes", X509_PUBLIC_KEY_INFO, Seq({kMd5Rsa, {0x03, 0x00}})},
    };
    for (const GuardCase& c : cases) {
        SCOPED_TRACE(c.name);
        const DWORD cbBytes = static_cast<DWORD>(c.bytes.size());
        EXPECT_TRUE(nv::HoldsEmptyBitString(c.structType, c.bytes.data(), cbBytes));
        nvtest::ApiFaults faults;
        DWORD cb = 0xdeadbeef;
        ::SetLastError(0);
        EXPECT_FALSE(nv::CallCryptDecodeObject(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, c.structType, c.bytes.data(),
                                               cbBytes, 0, nullptr, &cb));
        EXPECT_EQ(static_cast<DWORD>(CRYPT_E_ASN1_CORRUPT), ::GetLastError());
        EXPECT_EQ(0xdeadbeefu, cb);
        BYTE buffer[256];
        cb = sizeof(buffer);
        EXPECT_FALSE(nv::CallCryptDecodeObject(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, c.structType, c.bytes.data(),
                                               cbBytes, 0, buffer, &cb));
        EXPECT_EQ(0u, faults.DecodeCalls());
    }
}

TEST(DecodeGuardTest, BitStringsWithContentAndOtherPlacesGoToTheCoder)
{
    const GuardCase cases[] = {
        {"BIT STRING of its unused-bits byte only", X509_BITS, {0x03, 0x01, 0x00}},
        {"BIT STRING of one byte", X509_BITS, {0x03, 0x02, 0x00, 0xA5}},
        {"no BIT STRING type", X509_OCTET_STRING, {0x03, 0x00}},
        {"a signature with content", X509_CERT, Envelope(kToBeSigned, {0x03, 0x03, 0x00, 0xAA, 0xBB})},
        // Inside the to-be-signed bytes the coder copies, it does not decode.
        {"an empty BIT STRING one level down", X509_CERT,
         Envelope(Seq({{0x03, 0x00}}), {0x03, 0x03, 0x00, 0xAA, 0xBB})},
        // The coder goes no further than an item of indefinite length.
        {"after an item of indefinite length", X509_CERT, Seq({{0x30, 0x80, 0x00, 0x00}, {0x03, 0x00}})},
        {"the type is not looked into", X509_SEQUENCE_OF_ANY, Seq({{0x03, 0x00}})},
        // Headers the guard cannot read or that say no definite length: the coder
        // gives its own verdict on them.
        {"BIT STRING of indefinite length", X509_BITS, {0x03, 0x80, 0x00, 0x00}},
        {"five length bytes", X509_BITS, {0x03, 0x85, 0x00, 0x00, 0x00, 0x00, 0x00}},
        {"length bytes cut short", X509_BITS, {0x03, 0x82, 0x00}},
        {"a header cut after its tag", X509_BITS, {0x03}},
    };
    for (const GuardCase& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_FALSE(nv::HoldsEmptyBitString(c.structType, c.bytes.data(), static_cast<DWORD>(c.bytes.size())));
        nvtest::ApiFaults faults;
        DWORD cb = 0;
        nv::CallCryptDecodeObject(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, c.structType, c.bytes.data(),
                                  static_cast<DWORD>(c.bytes.size()), 0, nullptr, &cb);
        EXPECT_EQ(1u, faults.DecodeCalls());
    }
    EXPECT_FALSE(nv::HoldsEmptyBitString(X509_BITS, nullptr, 0));
    EXPECT_FALSE(nv::HoldsEmptyBitString(X509_BITS, kToBeSigned.data(), 0));
}

TEST(DecodeGuardTest, AnEnvelopeWithAnEmptyBitStringInsideItsContentStillDecodes)
{
    const DerBytes toBeSigned = Seq({{0x03, 0x00}});
    const DerBytes envelope = Envelope(toBeSigned, {0x03, 0x03, 0x00, 0xAA, 0xBB});
    DWORD cb = 0;
    ASSERT_TRUE(nv::CallCryptDecodeObject(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, X509_CERT, envelope.data(),
                                          static_cast<DWORD>(envelope.size()), 0, nullptr, &cb));
    std::vector<BYTE> buffer(cb);
    ASSERT_TRUE(nv::CallCryptDecodeObject(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, X509_CERT, envelope.data(),
                                          static_cast<DWORD>(envelope.size()), 0, buffer.data(), &cb));
    const auto* info = reinterpret_cast<const CERT_SIGNED_CONTENT_INFO*>(buffer.data());
    EXPECT_EQ(toBeSigned, DerBytes(info->ToBeSigned.pbData, info->ToBeSigned.pbData + info->ToBeSigned.cbData));
}

TEST(DecodeVerdictTest, DataErrorsOfTheDecoderAndWhatAStrictReaderRaises)
{
    struct Verdict {
        DWORD lastError;
        bool data;
        HRESULT raised;
    };
    const Verdict verdicts[] = {
        {static_cast<DWORD>(CRYPT_E_ASN1_BADTAG), true, CRYPT_E_ASN1_BADTAG},
        {static_cast<DWORD>(CRYPT_E_ASN1_EOD), true, CRYPT_E_ASN1_EOD},
        {static_cast<DWORD>(CRYPT_E_BAD_ENCODE), true, CRYPT_E_BAD_ENCODE},
        {static_cast<DWORD>(NTE_BAD_DATA), true, NTE_BAD_DATA},
        // A fault the coder caught, and a value it refused: malformed bytes, and
        // never access denied or a bad argument of ours.
        {static_cast<DWORD>(STATUS_ACCESS_VIOLATION), true, CRYPT_E_ASN1_CORRUPT},
        {ERROR_INVALID_PARAMETER, true, CRYPT_E_ASN1_CORRUPT},
        {static_cast<DWORD>(E_INVALIDARG), true, CRYPT_E_ASN1_CORRUPT},
        {static_cast<DWORD>(E_OUTOFMEMORY), false, E_OUTOFMEMORY},
        {ERROR_NOT_ENOUGH_MEMORY, false, E_OUTOFMEMORY},
        {ERROR_OUTOFMEMORY, false, E_OUTOFMEMORY},
        {ERROR_ACCESS_DENIED, false, HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED)},
        {static_cast<DWORD>(NTE_BAD_KEYSET), false, NTE_BAD_KEYSET},
        {0, false, E_FAIL},
    };
    for (const Verdict& v : verdicts) {
        SCOPED_TRACE(v.lastError);
        EXPECT_EQ(v.data, nv::IsDecodeDataError(v.lastError));
        EXPECT_EQ(v.raised, nv::DecodeFailureResult(v.lastError));
        HRESULT hr = S_OK;
        try {
            nv::RaiseUnlessDecodeDataError(v.lastError);
        } catch (const _com_error& e) {
            hr = e.Error();
        }
        EXPECT_EQ(v.data ? S_OK : v.raised, hr);
    }
    // The general rule, for encoders and results, stays narrow: a bad argument there
    // is ours.
    EXPECT_FALSE(nv::IsDataErrorCode(static_cast<DWORD>(E_INVALIDARG)));
    EXPECT_FALSE(nv::IsDataErrorCode(ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(nv::IsDataErrorCode(static_cast<DWORD>(CRYPT_E_ASN1_CORRUPT)));
}

TEST(DecodeVerdictTest, EveryFormOfMemoryShortageIsOne)
{
    for (DWORD code : {static_cast<DWORD>(E_OUTOFMEMORY), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY),
                       static_cast<DWORD>(ERROR_OUTOFMEMORY),
                       static_cast<DWORD>(HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY))})
        EXPECT_TRUE(nv::IsOutOfMemoryCode(code)) << std::hex << code;
    for (DWORD code : {static_cast<DWORD>(ERROR_SUCCESS), static_cast<DWORD>(ERROR_ACCESS_DENIED),
                       static_cast<DWORD>(E_FAIL)})
        EXPECT_FALSE(nv::IsOutOfMemoryCode(code)) << std::hex << code;
}

// ---- GuidText ------------------------------------------------------------------

TEST(GuidTextTest, IsWhatStringFromGuid2WritesForEveryShapeOfGuid)
{
    const GUID guids[] = {
        GUID{},
        GUID{0xFFFFFFFF, 0xFFFF, 0xFFFF, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
        GUID{0x0123ABCD, 0x0A0B, 0xC0D0, {0x00, 0x01, 0x9A, 0xBC, 0xDE, 0xF0, 0x10, 0x0F}},
        GUID{0x7E57C0DE, 0x5EC1, 0x4A11, {0x8B, 0x3D, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55}},
    };
    for (const GUID& g : guids) {
        wchar_t expected[39] = {};
        ASSERT_EQ(39, ::StringFromGUID2(g, expected, 39));
        EXPECT_EQ(std::wstring(expected), nv::GuidText(g));
    }
    EXPECT_EQ(L"{0123ABCD-0A0B-C0D0-0001-9ABCDEF0100F}", nv::GuidText(guids[2]));
}

// No TLS index left: every read gives 0, writes are dropped, and neither touches the
// thread's last error.
TEST(ThreadSlotTest, SlotThatCouldNotBeTakenReadsZeroAndDropsWrites)
{
    std::unique_ptr<nv::ThreadSlot> slot;
    {
        ImportFault<decltype(&::TlsAlloc)> fault("TlsAlloc", TLS_OUT_OF_INDEXES, ERROR_NO_MORE_ITEMS);
        slot = std::make_unique<nv::ThreadSlot>();
        EXPECT_EQ(1u, fault.calls());
    }
    ::SetLastError(ERROR_FILE_NOT_FOUND);
    slot->SetNumber(42);
    EXPECT_EQ(0u, slot->GetNumber());
    EXPECT_EQ(DWORD(ERROR_FILE_NOT_FOUND), ::GetLastError());

    nv::ThreadSlot working;
    working.SetNumber(42);
    EXPECT_EQ(42u, working.GetNumber());
    EXPECT_EQ(DWORD(ERROR_FILE_NOT_FOUND), ::GetLastError());
}

// ---- the boundary helpers ------------------------------------------------------------

TEST(BoundaryHelpersTest, GuardedUnlessOutOfMemoryRaisesEveryShortageAfterItsRecordAndMapsTheRest)
{
    unsigned recorded = 0;
    const auto record = [&] { ++recorded; };
    EXPECT_EQ(E_OUTOFMEMORY, RaisedCode([&] {
                  nv::GuardedUnlessOutOfMemory([]() -> HRESULT { nv::ThrowHr(E_OUTOFMEMORY); }, record);
              }));
    EXPECT_EQ(1u, recorded);
    // A shortage in the standard library is one as well, not E_UNEXPECTED.
    EXPECT_EQ(E_OUTOFMEMORY, RaisedCode([&] {
                  nv::GuardedUnlessOutOfMemory([]() -> HRESULT { throw std::bad_alloc(); }, record);
              }));
    EXPECT_EQ(2u, recorded);
    {
        std::vector<BYTE> grown;
        AllocationFaults oom(1);
        EXPECT_EQ(E_OUTOFMEMORY, RaisedCode([&] {
                      nv::GuardedUnlessOutOfMemory([&]() -> HRESULT {
                          grown.resize(64);
                          return S_OK;
                      }, record);
                  }));
        EXPECT_EQ(1u, oom.failed());
    }
    EXPECT_EQ(3u, recorded);

    EXPECT_EQ(NTE_BAD_DATA, nv::GuardedUnlessOutOfMemory([]() -> HRESULT { nv::ThrowHr(NTE_BAD_DATA); }, record));
    EXPECT_EQ(E_UNEXPECTED, nv::GuardedUnlessOutOfMemory([]() -> HRESULT { throw 7; }, record));
    EXPECT_EQ(S_FALSE, nv::GuardedUnlessOutOfMemory([] { return S_FALSE; }, record));
    EXPECT_EQ(3u, recorded);
}

TEST(BoundaryHelpersTest, BadAllocIsRaisedAsOutOfMemoryAndBestEffortSwallowsEverything)
{
    EXPECT_EQ(E_OUTOFMEMORY, RaisedCode([] {
                  nv::RaiseBadAllocAsOutOfMemory([] {
                      AllocationFaults oom(1);
                      std::wstring text(40, L'x');
                  });
              }));
    EXPECT_EQ(E_UNEXPECTED, nv::Guarded([]() -> HRESULT { throw std::bad_alloc(); }));

    bool ran = false;
    nv::BestEffort([&] {
        ran = true;
        throw std::bad_alloc();
    });
    EXPECT_TRUE(ran);
    EXPECT_EQ(5, nv::BestEffort([]() -> int { nv::ThrowHr(E_FAIL); }, 5));
    EXPECT_EQ(6, nv::BestEffort([] { return 6; }, 5));
}

TEST(ThrowLastErrorTest, NoErrorIsEFailAndAShortageInHresultFormIsOutOfMemory)
{
    ::SetLastError(ERROR_SUCCESS);
    EXPECT_EQ(E_FAIL, nvtest::RaisedCode([] { nv::ThrowLastError(); }));
    ::SetLastError(static_cast<DWORD>(HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY)));
    EXPECT_EQ(E_OUTOFMEMORY, nvtest::RaisedCode([] { nv::ThrowLastError(); }));
    ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(E_OUTOFMEMORY, nvtest::RaisedCode([] { nv::ThrowLastError(); }));
    ::SetLastError(ERROR_ACCESS_DENIED);
    EXPECT_EQ(E_ACCESSDENIED, nvtest::RaisedCode([] { nv::ThrowLastError(); }));
}

TEST(CryptBlobTest, AssigningALengthWithoutBytesGivesThatManyZeroBytes)
{
    nv::CCryptBlob blob;
    blob.Assign(reinterpret_cast<const BYTE*>("old"), 3);
    blob.Assign(nullptr, 4);
    ASSERT_EQ(4u, blob.cbData);
    ASSERT_NE(nullptr, blob.pbData);
    EXPECT_EQ((std::vector<BYTE>(4, 0)), std::vector<BYTE>(blob.pbData, blob.pbData + blob.cbData));
}
