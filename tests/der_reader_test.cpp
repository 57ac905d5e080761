// The positional DER readers on coder answers the platform's own coder does not
// give (a stand-in coder answers as told), and the zeroing allocator's own limit.
#include <windows.h>
#include <wincrypt.h>
#include <gtest/gtest.h>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "common/replaceablecalls.h"
#include "legacydb/derreader.h"
#include "legacydb/sidtext.h"
#include "support/raised_code.h"

using namespace nvtest;
using LegacyNVDB2::DerView;

namespace {

// What the stand-in coder answers: the structure's size on the size query, then
// these bytes as the structure.
std::vector<BYTE> g_structure;
unsigned g_calls = 0;

BOOL WINAPI AnsweringDecode(DWORD, LPCSTR, const BYTE*, DWORD, DWORD, void* pvStructInfo, DWORD* pcbStructInfo)
{
    ++g_calls;
    const DWORD size = static_cast<DWORD>(g_structure.size());
    if (pvStructInfo && *pcbStructInfo < size) {
        ::SetLastError(ERROR_MORE_DATA);
        return FALSE;
    }
    if (pvStructInfo && size)
        std::memcpy(pvStructInfo, g_structure.data(), size);
    *pcbStructInfo = size;
    return TRUE;
}

// Puts the stand-in coder in the library's call table for the test's length.
class AnsweringCoder {
public:
    explicit AnsweringCoder(std::vector<BYTE> structure)
    {
        g_structure = std::move(structure);
        g_calls = 0;
        nv::g_apiCalls.pfnCryptDecodeObject = &AnsweringDecode;
    }
    ~AnsweringCoder() { nv::g_apiCalls.pfnCryptDecodeObject = nv::kPlatformApiCalls.pfnCryptDecodeObject; }
    AnsweringCoder(const AnsweringCoder&) = delete;
    AnsweringCoder& operator=(const AnsweringCoder&) = delete;
    unsigned calls() const { return g_calls; }
};

// Any bytes: the stand-in does not read them.
const BYTE kItem[] = {0x02, 0x01, 0x07};

template <class T>
std::vector<BYTE> BytesOf(const T& value)
{
    const auto* p = reinterpret_cast<const BYTE*>(&value);
    return std::vector<BYTE>(p, p + sizeof(value));
}

} // namespace

TEST(DerReaderAnswerTest, AStructureOfNoBytesIsTheEmptyValueCountedAsAFallback)
{
    AnsweringCoder coder({});
    LegacyNVDB2::Bytes out = {0xEE};
    const DWORD before = LegacyNVDB2::LenientReadCount();
    EXPECT_FALSE(LegacyNVDB2::DecodeStruct(X509_MULTI_BYTE_UINT, DerView(kItem, sizeof(kItem)), out));
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(before + 1, LegacyNVDB2::LenientReadCount());
    // Only the size query: nothing is decoded into no bytes.
    EXPECT_EQ(1u, coder.calls());
    EXPECT_EQ(0u, LegacyNVDB2::ReadNumber(DerView(kItem, sizeof(kItem))));
    EXPECT_EQ(before + 2, LegacyNVDB2::LenientReadCount());
}

TEST(DerReaderAnswerTest, ATimeStructureShorterThanAFileTimeIsTheZeroTimeCountedAsAFallback)
{
    AnsweringCoder coder({0x11, 0x22, 0x33, 0x44});
    const DWORD before = LegacyNVDB2::LenientReadCount();
    const FILETIME time = LegacyNVDB2::ReadTime(DerView(kItem, sizeof(kItem)));
    EXPECT_EQ(0u, time.dwLowDateTime);
    EXPECT_EQ(0u, time.dwHighDateTime);
    EXPECT_EQ(before + 1, LegacyNVDB2::LenientReadCount());
    EXPECT_EQ(2u, coder.calls());
}

TEST(DerReaderAnswerTest, ATextValueWithoutBytesIsTheEmptyTextAndNoFallback)
{
    // A string of an accepted type whose value has a length but no bytes behind it.
    CERT_NAME_VALUE value{};
    value.dwValueType = CERT_RDN_BMP_STRING;
    value.Value.cbData = 8;
    value.Value.pbData = nullptr;
    AnsweringCoder coder(BytesOf(value));
    const DWORD before = LegacyNVDB2::LenientReadCount();
    EXPECT_EQ(L"", LegacyNVDB2::ReadText(DerView(kItem, sizeof(kItem))));
    EXPECT_EQ(before, LegacyNVDB2::LenientReadCount());
    EXPECT_EQ(2u, coder.calls());
}

TEST(DerReaderAnswerTest, ATextValueWithBytesIsReadUpToItsZero)
{
    // The same answer with bytes: the stand-in is what makes the case above.
    static const wchar_t text[] = L"Bob\0xy";
    CERT_NAME_VALUE value{};
    value.dwValueType = CERT_RDN_BMP_STRING;
    value.Value.cbData = sizeof(text);
    value.Value.pbData = reinterpret_cast<BYTE*>(const_cast<wchar_t*>(text));
    AnsweringCoder coder(BytesOf(value));
    EXPECT_EQ(L"Bob", LegacyNVDB2::ReadText(DerView(kItem, sizeof(kItem))));
}

TEST(ZeroingAllocatorTest, ACountWhoseByteSizeOverflowsRaisesOutOfMemory)
{
    LegacyNVDB2::ZeroingAllocator<std::uint32_t> allocator;
    const std::size_t count = std::numeric_limits<std::size_t>::max() / sizeof(std::uint32_t) + 1;
    EXPECT_EQ(E_OUTOFMEMORY, RaisedCode([&] { (void)allocator.allocate(count); }));
}

TEST(DerReaderAnswerTest, ANumberWithALengthButNoBytesIsZeroCountedAsAFallback)
{
    CRYPT_UINT_BLOB number{2, nullptr};
    AnsweringCoder coder(BytesOf(number));
    const DWORD before = LegacyNVDB2::LenientReadCount();
    EXPECT_EQ(0u, LegacyNVDB2::ReadNumber(DerView(kItem, sizeof(kItem))));
    EXPECT_EQ(before + 1, LegacyNVDB2::LenientReadCount());
}

TEST(DerViewTest, ALengthWithoutBytesIsAMissingItem)
{
    EXPECT_TRUE(DerView(nullptr, 3).empty());
    EXPECT_TRUE(DerView(kItem, 0).empty());
    EXPECT_FALSE(DerView(kItem, sizeof(kItem)).empty());
    // Read as missing: no coder call.
    AnsweringCoder coder({});
    const DWORD before = LegacyNVDB2::LenientReadCount();
    EXPECT_EQ(0u, LegacyNVDB2::ReadNumber(DerView(nullptr, 3)));
    EXPECT_EQ(before + 1, LegacyNVDB2::LenientReadCount());
    EXPECT_EQ(0u, coder.calls());
}

TEST(SidTextTest, BytesThatAreNoValidSidGiveNoText)
{
    // Revision 9: not a SID the system knows.
    BYTE notASid[12] = {9, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0};
    EXPECT_EQ(L"", LegacyNVDB2::SidToText(reinterpret_cast<PSID>(notASid)));
    notASid[0] = 1; // the same bytes as revision 1: S-1-5-18
    EXPECT_EQ(L"S-1-5-18", LegacyNVDB2::SidToText(reinterpret_cast<PSID>(notASid)));
    EXPECT_EQ(L"", LegacyNVDB2::SidToText(nullptr));
}
