// Signed export records: CFPSecurityContext::Export and Import.
#include <windows.h>
#include <wincrypt.h>
#include <aclapi.h>
#include <sddl.h>
#include <gtest/gtest.h>
#include <cstring>
#include <string>
#include <vector>

#include "security/securitycontext.h"
#include "support/api_faults.h"
#include "support/key_containers.h"
#include "support/registry_sandbox.h"
#include "support/signed_records.h"
#include "support/store_der.h"
#include "support/trace_capture.h"
#include "trace/trace.h"
#include "writer/host_provisioning.h"

using namespace nvtest;

namespace {

const wchar_t kHostKey[] = L"SOFTWARE\\Norvane\\NVHOST";
constexpr DWORD kDer = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
constexpr DWORD kSentinel = 0xdeadbeef;
BYTE* const kSentinelPtr = reinterpret_cast<BYTE*>(static_cast<uintptr_t>(0xdeadbeef));
const GUID kSentinelGuid = {0xdeadbeef, 0xdead, 0xbeef, {0xde, 0xad, 0xbe, 0xef, 0xde, 0xad, 0xbe, 0xef}};
const GUID kZeroGuid = {};

// kTestHostId and kOtherHostId as identifier bit strings carry them, byte by byte.
const std::vector<BYTE> kTestHostIdBytes = {0x7E, 0x57, 0xC0, 0xDE, 0x5E, 0xC1, 0x4A, 0x11,
                                            0x8B, 0x3D, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const std::vector<BYTE> kOtherHostIdBytes = {0x7E, 0x57, 0xC0, 0xDE, 0x07, 0x43, 0x4E, 0x12,
                                             0x9C, 0x01, 0x66, 0x77, 0x88, 0x99, 0xAA, 0xBB};

// The empty identifier as records carry it: BIT STRING, no unused bits, no content.
const std::vector<BYTE> kEmptyBits = {0x03, 0x01, 0x00};
// md5RSA without parameters.
const std::vector<BYTE> kMd5RsaAlgorithm = {0x30, 0x0B, 0x06, 0x09, 0x2A, 0x86, 0x48,
                                            0x86, 0xF7, 0x0D, 0x01, 0x01, 0x04};

std::string GuidText(const GUID& g)
{
    wchar_t text[40] = {};
    ::StringFromGUID2(g, text, 40);
    return Narrow(text);
}

#define EXPECT_GUID_EQ(expected, actual) EXPECT_EQ(GuidText(expected), GuidText(actual))

// A data blob handed out by Import or Export, freed with the task allocator.
struct TaskBlob : CRYPT_DATA_BLOB {
    TaskBlob() : CRYPT_DATA_BLOB{kSentinel, kSentinelPtr} {}
    ~TaskBlob() { Free(); }
    void Free()
    {
        if (pbData != kSentinelPtr)
            ::CoTaskMemFree(pbData);
        cbData = kSentinel;
        pbData = kSentinelPtr;
    }
    bool Empty() const { return cbData == 0 && pbData == nullptr; }
};

// Seconds since 1601 of a FILETIME.
ULONGLONG Seconds(const FILETIME& ft)
{
    return ((ULONGLONG(ft.dwHighDateTime) << 32) | ft.dwLowDateTime) / 10000000ull;
}

FILETIME Now()
{
    FILETIME ft;
    ::GetSystemTimeAsFileTime(&ft);
    return ft;
}

bool DecodeTime(const std::vector<BYTE>& der, FILETIME* out)
{
    DWORD cb = sizeof(FILETIME);
    return ::CryptDecodeObject(kDer, X509_CHOICE_OF_TIME, der.data(), static_cast<DWORD>(der.size()), 0, out, &cb) !=
           FALSE;
}

std::vector<BYTE> Encode(LPCSTR type, const void* info)
{
    DWORD cb = 0;
    EXPECT_TRUE(::CryptEncodeObject(kDer, type, info, nullptr, &cb));
    std::vector<BYTE> out(cb);
    EXPECT_TRUE(::CryptEncodeObject(kDer, type, info, out.data(), &cb));
    out.resize(cb);
    return out;
}

// A SEQUENCE around complete DER items.
std::vector<BYTE> SequenceOf(std::initializer_list<std::vector<BYTE>> items)
{
    std::vector<BYTE> content;
    for (const auto& item : items)
        content.insert(content.end(), item.begin(), item.end());
    return TlvTwoByteLong(0x30, content);
}

struct ImportResult {
    HRESULT hr = kSentinel;
    std::vector<BYTE> data;
    bool dataEmpty = false; // byte count 0 and null pointer
    GUID target = kSentinelGuid;
    GUID source = kSentinelGuid;
};

// Import succeeded with an empty blob and neither identifier; `line` is the caller's.
void ExpectImportedNothing(int line, const ImportResult& r)
{
    SCOPED_TRACE(testing::Message() << "checked at line " << line);
    EXPECT_EQ(S_OK, r.hr);
    EXPECT_TRUE(r.dataEmpty);
    EXPECT_GUID_EQ(kZeroGuid, r.target);
    EXPECT_GUID_EQ(kZeroGuid, r.source);
}

// Import succeeded with that data and neither identifier; `line` is the caller's.
void ExpectImportedWithoutIds(int line, const std::vector<BYTE>& data, const ImportResult& r)
{
    SCOPED_TRACE(testing::Message() << "checked at line " << line);
    EXPECT_EQ(S_OK, r.hr);
    EXPECT_EQ(data, r.data);
    EXPECT_GUID_EQ(kZeroGuid, r.target);
    EXPECT_GUID_EQ(kZeroGuid, r.source);
}

} // namespace

class ExportRecordsTest : public ProvisionedHostTest {
protected:
    // The records' layout below is that of the product's 2048-bit host key.
    ExportRecordsTest() { m_quickHostKey = false; }
    void SetUp() override
    {
        ProvisionedHostTest::SetUp();
        ASSERT_EQ(S_OK, m_ctx.FinalConstruct(kView32));
    }
    void TearDown() override
    {
        m_ctx.FinalRelease();
        ProvisionedHostTest::TearDown();
    }

    std::vector<BYTE> ExportOk(const std::vector<BYTE>& data, const GUID& target = kOtherHostId,
                               REGSAM view = kView32)
    {
        CRYPT_DATA_BLOB in = BlobOf(data);
        TaskBlob record;
        EXPECT_EQ(S_OK, m_ctx.Export(target, &in, view, &record));
        return BlobBytes(record);
    }

    ImportResult ImportAll(const std::vector<BYTE>& record)
    {
        ImportResult r;
        CRYPT_DATA_BLOB in = BlobOf(record);
        TaskBlob data;
        r.hr = m_ctx.Import(&in, &data, &r.target, &r.source);
        r.data = BlobBytes(data);
        r.dataEmpty = data.Empty();
        return r;
    }

    // A record signed by the machine's key, from ready DER items.
    std::vector<BYTE> Record(const std::vector<std::vector<BYTE>>& items)
    {
        return nvwriter::MakeSignedSequence(m_ctx.Provider(), items);
    }

    CFPSecurityContext m_ctx;
};

// ---- Export ----------------------------------------------------------------------

TEST_F(ExportRecordsTest, ExportMakesAnMd5RsaSignedSequenceOfFourItemsWithEmptyIdentifiers)
{
    const FILETIME before = Now();
    const std::vector<BYTE> record = ExportOk({0x01, 0x02, 0x03});
    const FILETIME after = Now();
    ASSERT_EQ(306u, record.size());

    // The time item, read back, lies within the call.
    const std::vector<BYTE> timeItem(record.begin() + 17, record.begin() + 17 + 15);
    FILETIME stamp{};
    ASSERT_TRUE(DecodeTime(timeItem, &stamp));
    EXPECT_LE(Seconds(before), Seconds(stamp));
    EXPECT_GE(Seconds(after), Seconds(stamp));
    SYSTEMTIME st{};
    ASSERT_TRUE(::FileTimeToSystemTime(&stamp, &st));
    char utc[16];
    std::snprintf(utc, sizeof(utc), "%02u%02u%02u%02u%02u%02uZ", st.wYear % 100u, st.wMonth, st.wDay, st.wHour,
                  st.wMinute, st.wSecond);

    const std::vector<BYTE> signature(record.end() - 256, record.end());
    const std::vector<BYTE> toBeSigned = Concat({
        {0x30, 0x1A},                   // SEQUENCE OF ANY
        {0x04, 0x03, 0x01, 0x02, 0x03}, // item 0: the data
        kEmptyBits,                     // item 1: source host
        kEmptyBits,                     // item 2: target
        {0x17, 0x0D},                   // item 3: UTCTime
        std::vector<BYTE>(utc, utc + 13),
    });
    const std::vector<BYTE> expected = Concat({
        {0x30, 0x82, 0x01, 0x2E},
        toBeSigned,
        kMd5RsaAlgorithm,
        {0x03, 0x82, 0x01, 0x01, 0x00},
        signature,
    });
    EXPECT_EQ(expected, record);
    EXPECT_TRUE(RsaSignatureMatches(kTestHostId, CALG_MD5, toBeSigned, signature));
}

TEST_F(ExportRecordsTest, ExportedRecordVerifiesAgainstTheMachinesKey)
{
    std::vector<BYTE> record = ExportOk({0xAA, 0xBB});
    CRYPT_DATA_BLOB in = BlobOf(record);
    EXPECT_EQ(S_OK, m_ctx.Verify(&in, nullptr));
    record[8] ^= 0xFF; // the data byte 0xAA
    CRYPT_DATA_BLOB altered = BlobOf(record);
    EXPECT_EQ(S_FALSE, m_ctx.Verify(&altered, nullptr));
}

TEST_F(ExportRecordsTest, ExportMatchesTheLegacyWriterByteForByte)
{
    const std::vector<BYTE> data = {'s', 'e', 'c', 'r', 'e', 't', 0x00, 0xFF};
    const std::vector<BYTE> record = ExportOk(data);
    SignedRecord envelope;
    ASSERT_TRUE(DecodeSignedRecord(record, &envelope));
    std::vector<std::vector<BYTE>> items;
    ASSERT_TRUE(DecodeSequenceOfAny(envelope.toBeSigned, &items));
    ASSERT_EQ(4u, items.size());
    nvwriter::ExportRecordItems legacy;
    legacy.data = data;
    ASSERT_TRUE(DecodeTime(items[3], &legacy.time));
    EXPECT_EQ(nvwriter::MakeExportRecord(m_ctx.Provider(), legacy), record);
}

TEST_F(ExportRecordsTest, RoundTripReturnsTheDataAndTwoZeroGuids)
{
    for (size_t size : {size_t(1), size_t(16), size_t(300), size_t(5000)}) {
        std::vector<BYTE> data(size);
        for (size_t i = 0; i < size; ++i)
            data[i] = static_cast<BYTE>(i * 7 + 3);
        const ImportResult r = ImportAll(ExportOk(data));
        EXPECT_EQ(S_OK, r.hr) << size;
        EXPECT_EQ(data, r.data) << size;
        EXPECT_GUID_EQ(kZeroGuid, r.target);
        EXPECT_GUID_EQ(kZeroGuid, r.source);
    }
}

TEST_F(ExportRecordsTest, RoundTripOfEmptyDataGivesAnEmptyBlob)
{
    const std::vector<BYTE> record = ExportOk({});
    ASSERT_GE(record.size(), 8u);
    EXPECT_EQ((std::vector<BYTE>{0x04, 0x00}), std::vector<BYTE>(record.begin() + 6, record.begin() + 8));
    const ImportResult r = ImportAll(record);
    ExpectImportedNothing(__LINE__, r);
}

TEST_F(ExportRecordsTest, IdentifierBytesThatHappenToBeDerGoIntoTheRecordAsDecoded)
{
    // 03 0E 00 + 13 bytes is itself a complete BIT STRING: the decoder accepts it and
    // the item carries its 13 content bytes, which Import does not take as a GUID.
    const std::vector<BYTE> hostBytes = {0x03, 0x0E, 0x00, 0x10, 0x11, 0x12, 0x13, 0x14,
                                         0x15, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x1B, 0x1C};
    const GUID target = {0x030E0001, 0x0203, 0x0405, {0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D}};
    SetBinary(kHostKey, L"HostId", hostBytes, kView32);

    const std::vector<BYTE> record = ExportOk({0x42}, target);
    SignedRecord envelope;
    ASSERT_TRUE(DecodeSignedRecord(record, &envelope));
    std::vector<std::vector<BYTE>> items;
    ASSERT_TRUE(DecodeSequenceOfAny(envelope.toBeSigned, &items));
    ASSERT_EQ(4u, items.size());
    EXPECT_EQ(hostBytes, items[1]);
    EXPECT_EQ((std::vector<BYTE>{0x03, 0x0E, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B,
                                 0x0C, 0x0D}),
              items[2]);

    const ImportResult r = ImportAll(record);
    ExpectImportedWithoutIds(__LINE__, std::vector<BYTE>{0x42}, r);
}

namespace {

// The HostId value in that view is a new random identifier: 16 bytes, not all zero,
// of version 4.
void ExpectNewHostId(REGSAM view)
{
    RegValue value;
    ASSERT_TRUE(GetValue(kHostKey, L"HostId", view, &value));
    EXPECT_EQ(DWORD(REG_BINARY), value.type);
    ASSERT_EQ(16u, value.data.size());
    EXPECT_NE(std::vector<BYTE>(16, 0), value.data);
    EXPECT_EQ(0x40, value.data[6] & 0xF0);
}

} // namespace

TEST_F(ExportRecordsTest, ExportReadsHostIdInTheGivenViewAndReplacesAMissingOne)
{
    const RegTree before32 = Snapshot(kHostKey, kView32);
    ASSERT_FALSE(KeyExists(kHostKey, kView64));
    const std::vector<BYTE> record = ExportOk({0x01}, kOtherHostId, kView64);
    EXPECT_EQ(304u, record.size());

    ASSERT_NO_FATAL_FAILURE(ExpectNewHostId(kView64));
    EXPECT_EQ("", DiffTrees(before32, Snapshot(kHostKey, kView32)));
    // Signed by the context's key all the same.
    CRYPT_DATA_BLOB in = BlobOf(record);
    EXPECT_EQ(S_OK, m_ctx.Verify(&in, nullptr));
}

TEST_F(ExportRecordsTest, ExportReplacesAnAllZeroHostId)
{
    SetBinary(kHostKey, L"HostId", std::vector<BYTE>(16, 0), kView32);
    ExportOk({0x01});
    ASSERT_NO_FATAL_FAILURE(ExpectNewHostId(kView32));
}

TEST_F(ExportRecordsTest, ExportWithoutProviderFailsWithTheSignaturesErrorAndAnEmptyBlob)
{
    CFPSecurityContext unconstructed;
    const std::vector<BYTE> data = {0x01};
    CRYPT_DATA_BLOB in = BlobOf(data);
    TaskBlob record;
    EXPECT_EQ(E_INVALIDARG, unconstructed.Export(kOtherHostId, &in, kView32, &record));
    EXPECT_TRUE(record.Empty());
}

TEST_F(ExportRecordsTest, ExportNullArguments)
{
    TaskBlob record;
    EXPECT_EQ(E_POINTER, m_ctx.Export(kOtherHostId, nullptr, kView32, &record));
    EXPECT_TRUE(record.Empty());
    const std::vector<BYTE> data = {0x01};
    CRYPT_DATA_BLOB in = BlobOf(data);
    EXPECT_EQ(E_POINTER, m_ctx.Export(kOtherHostId, &in, kView32, nullptr));
}

class HostIdCannotBeWrittenTest : public RegistrySandbox {
protected:
    // NVHOST exists, but its access list lets nobody read or write values: only
    // reading and changing the access list itself.
    void SetUp() override
    {
        RegistrySandbox::SetUp();
        CreateKeyPath(kHostKey, kView32);
        SetAccess(L"D:(A;;0x60000;;;WD)");
    }
    void TearDown() override
    {
        SetAccess(L"D:(A;OICI;KA;;;WD)");
        RegistrySandbox::TearDown();
    }
    void SetAccess(const wchar_t* sddl)
    {
        PSECURITY_DESCRIPTOR sd = nullptr;
        ASSERT_TRUE(::ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1, &sd, nullptr));
        HKEY key = nullptr;
        LONG r = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kHostKey, 0, WRITE_DAC | kView32, &key);
        if (r == ERROR_SUCCESS) {
            r = ::RegSetKeySecurity(key, DACL_SECURITY_INFORMATION, sd);
            ::RegCloseKey(key);
        }
        ::LocalFree(sd);
        ASSERT_EQ(ERROR_SUCCESS, r);
    }
};

TEST_F(HostIdCannotBeWrittenTest, FinalConstructAndExportFailWithTheRegistrysError)
{
    CFPSecurityContext ctx;
    EXPECT_EQ(E_ACCESSDENIED, ctx.FinalConstruct(kView32));
    EXPECT_EQ(0u, ctx.Provider());
    SetAccess(L"D:(A;;0x60000;;;WD)");
    const std::vector<BYTE> data = {0x01};
    CRYPT_DATA_BLOB in = BlobOf(data);
    TaskBlob record;
    EXPECT_EQ(E_ACCESSDENIED, ctx.Export(kOtherHostId, &in, kView32, &record));
    EXPECT_TRUE(record.Empty());
    SetAccess(L"D:(A;OICI;KA;;;WD)");
    EXPECT_EQ((std::vector<std::wstring>{}), ValueNames(kHostKey, kView32));
}

// ---- Import of records as the old product wrote them -------------------------------

TEST_F(ExportRecordsTest, ImportOfFourItemsWithIdentifiersYieldsDataTargetAndSource)
{
    nvwriter::ExportRecordItems items;
    items.data = {0x10, 0x20, 0x30};
    items.sourceBits = kTestHostIdBytes;
    items.targetBits = kOtherHostIdBytes;
    const ImportResult r = ImportAll(nvwriter::MakeExportRecord(m_ctx.Provider(), items));
    EXPECT_EQ(S_OK, r.hr);
    EXPECT_EQ(items.data, r.data);
    EXPECT_GUID_EQ(kOtherHostId, r.target);
    EXPECT_GUID_EQ(kTestHostId, r.source);
}

TEST_F(ExportRecordsTest, ImportOfTheLegacyWritersRecordWithEmptyIdentifiers)
{
    nvwriter::ExportRecordItems items;
    items.data = {0x30, 0x03, 0x02, 0x01, 0x07};
    const ImportResult r = ImportAll(nvwriter::MakeExportRecord(m_ctx.Provider(), items));
    ExpectImportedWithoutIds(__LINE__, items.data, r);
}

TEST_F(ExportRecordsTest, ImportOfOneItemYieldsTheDataAndZeroGuids)
{
    const ImportResult r = ImportAll(Record({nvwriter::EncodeOctetString({0xCA, 0xFE})}));
    ExpectImportedWithoutIds(__LINE__, std::vector<BYTE>{0xCA, 0xFE}, r);
}

TEST_F(ExportRecordsTest, ImportOfTwoItemsYieldsTheSourceAndAZeroTarget)
{
    const ImportResult r =
        ImportAll(Record({nvwriter::EncodeOctetString({0x01}), nvwriter::EncodeBitString(kTestHostIdBytes)}));
    EXPECT_EQ(S_OK, r.hr);
    EXPECT_EQ((std::vector<BYTE>{0x01}), r.data);
    EXPECT_GUID_EQ(kZeroGuid, r.target);
    EXPECT_GUID_EQ(kTestHostId, r.source);
}

TEST_F(ExportRecordsTest, ImportOfThreeItemsYieldsBothIdentifiers)
{
    const ImportResult r =
        ImportAll(Record({nvwriter::EncodeOctetString({0x01}), nvwriter::EncodeBitString(kTestHostIdBytes),
                          nvwriter::EncodeBitString(kOtherHostIdBytes)}));
    EXPECT_EQ(S_OK, r.hr);
    EXPECT_EQ((std::vector<BYTE>{0x01}), r.data);
    EXPECT_GUID_EQ(kOtherHostId, r.target);
    EXPECT_GUID_EQ(kTestHostId, r.source);
}

TEST_F(ExportRecordsTest, ImportOfAnEmptyListYieldsNothing)
{
    const ImportResult r = ImportAll(Record({}));
    ExpectImportedNothing(__LINE__, r);
}

TEST_F(ExportRecordsTest, IdentifierBitStringsOf15And17BytesYieldZeroGuids)
{
    std::vector<BYTE> fifteen(kTestHostIdBytes.begin(), kTestHostIdBytes.end() - 1);
    std::vector<BYTE> seventeen = kOtherHostIdBytes;
    seventeen.push_back(0x00);
    const std::vector<BYTE> data = nvwriter::EncodeOctetString({0x05});
    const std::vector<BYTE> time = nvwriter::EncodeTime(Now());

    ImportResult r = ImportAll(
        Record({data, nvwriter::EncodeBitString(fifteen), nvwriter::EncodeBitString(seventeen), time}));
    ExpectImportedWithoutIds(__LINE__, std::vector<BYTE>{0x05}, r);

    r = ImportAll(Record({data, nvwriter::EncodeBitString(seventeen), nvwriter::EncodeBitString(fifteen), time}));
    EXPECT_GUID_EQ(kZeroGuid, r.target);
    EXPECT_GUID_EQ(kZeroGuid, r.source);

    // 16 bytes beside them are read: the lengths alone decide.
    r = ImportAll(
        Record({data, nvwriter::EncodeBitString(fifteen), nvwriter::EncodeBitString(kOtherHostIdBytes), time}));
    EXPECT_GUID_EQ(kOtherHostId, r.target);
    EXPECT_GUID_EQ(kZeroGuid, r.source);
}

TEST_F(ExportRecordsTest, IdentifierBitStringsWithoutAnyByteYieldZeroGuidsWithoutTheCoder)
{
    // A BIT STRING needs at least its unused-bits byte. Handed one without it, Wine's
    // crypt32 copies whatever follows into a buffer it sized too small, over the heap.
    const std::vector<BYTE> data = nvwriter::EncodeOctetString({0x05});
    const std::vector<BYTE> time = nvwriter::EncodeTime(Now());
    const std::vector<BYTE> record = Record({data, {0x03, 0x00}, {0x03, 0x81, 0x00}, time});
    {
        ApiFaults faults;
        const ImportResult r = ImportAll(record);
        EXPECT_EQ(0u, faults.DecodeCalls(X509_BITS));
        ExpectImportedWithoutIds(__LINE__, std::vector<BYTE>{0x05}, r);
    }
    // The other identifier of the record is still read.
    ApiFaults faults;
    const ImportResult r = ImportAll(Record({data, {0x03, 0x00}, nvwriter::EncodeBitString(kOtherHostIdBytes), time}));
    EXPECT_EQ(2u, faults.DecodeCalls(X509_BITS)); // size, then the value, of item 2 only
    EXPECT_GUID_EQ(kOtherHostId, r.target);
    EXPECT_GUID_EQ(kZeroGuid, r.source);
}

TEST_F(ExportRecordsTest, ARecordWhoseSignatureHasNoByteImportsAsNothingAndDoesNotVerify)
{
    SignedRecord parts;
    ASSERT_TRUE(DecodeSignedRecord(ExportOk({0xAA, 0xBB}), &parts));
    const std::vector<BYTE> record = SequenceOf({parts.toBeSigned, kMd5RsaAlgorithm, {0x03, 0x00}});
    ApiFaults faults;
    const ImportResult r = ImportAll(record);
    EXPECT_EQ(0u, faults.DecodeCalls(X509_CERT));
    ExpectImportedNothing(__LINE__, r);
    CRYPT_DATA_BLOB in = BlobOf(record);
    EXPECT_EQ(S_FALSE, m_ctx.Verify(&in, nullptr));
}

TEST_F(ExportRecordsTest, SixteenByteBitStringWithUnusedBitsStillYieldsItsGuid)
{
    // The last byte's low three bits are zero, as DER wants them with 3 unused bits.
    std::vector<BYTE> bits = kTestHostIdBytes;
    bits.back() = 0x58;
    GUID expected = kTestHostId;
    expected.Data4[7] = 0x58;
    const ImportResult r = ImportAll(Record({nvwriter::EncodeOctetString({0x05}),
                                             nvwriter::EncodeBitString(bits, 3),
                                             nvwriter::EncodeBitString(kOtherHostIdBytes, 0)}));
    EXPECT_GUID_EQ(expected, r.source);
    EXPECT_GUID_EQ(kOtherHostId, r.target);
}

TEST_F(ExportRecordsTest, IdentifierItemsThatAreNoBitStringYieldZeroGuids)
{
    const ImportResult r = ImportAll(Record({nvwriter::EncodeOctetString({0x05}),
                                             nvwriter::EncodeOctetString(kTestHostIdBytes),
                                             nvwriter::EncodeOctetString(kOtherHostIdBytes)}));
    EXPECT_EQ((std::vector<BYTE>{0x05}), r.data);
    EXPECT_GUID_EQ(kZeroGuid, r.target);
    EXPECT_GUID_EQ(kZeroGuid, r.source);
}

TEST_F(ExportRecordsTest, DataItemThatIsNoOctetStringYieldsNoData)
{
    const DWORD number = 0x01020304;
    const std::vector<BYTE> integer = Encode(X509_INTEGER, &number);
    ASSERT_EQ((std::vector<BYTE>{0x02, 0x04, 0x01, 0x02, 0x03, 0x04}), integer);
    const ImportResult r = ImportAll(Record({integer, nvwriter::EncodeBitString(kTestHostIdBytes)}));
    EXPECT_EQ(S_OK, r.hr);
    EXPECT_TRUE(r.dataEmpty);
    EXPECT_GUID_EQ(kTestHostId, r.source);
    EXPECT_GUID_EQ(kZeroGuid, r.target);
}

TEST_F(ExportRecordsTest, SignedContentThatIsNoSequenceYieldsNothing)
{
    // Sign an OCTET STRING directly instead of a list.
    const std::vector<BYTE> content = nvwriter::EncodeOctetString(kTestHostIdBytes);
    CRYPT_DATA_BLOB in = BlobOf(content);
    TaskBlob signedBlob;
    ASSERT_EQ(S_OK, m_ctx.SignBLOB(&in, &signedBlob, m_ctx.Provider(), AT_KEYEXCHANGE, nullptr));
    const ImportResult r = ImportAll(BlobBytes(signedBlob));
    ExpectImportedNothing(__LINE__, r);
}

TEST_F(ExportRecordsTest, ImportChecksNoSignature)
{
    // Signed by another machine's key.
    m_containers.Create(kOtherHostId);
    nv::unique_hcryptprov other = nvwriter::OpenMachineContainer(kOtherHostId);
    nvwriter::ExportRecordItems items;
    items.data = {0x0F, 0x0E};
    std::vector<BYTE> record = nvwriter::MakeExportRecord(other.get(), items);
    ImportResult r = ImportAll(record);
    EXPECT_EQ(S_OK, r.hr);
    EXPECT_EQ(items.data, r.data);

    // A damaged signature.
    record.back() ^= 0x55;
    CRYPT_DATA_BLOB damaged = BlobOf(record);
    EXPECT_EQ(S_FALSE, m_ctx.Verify(&damaged, nullptr));
    r = ImportAll(record);
    EXPECT_EQ(S_OK, r.hr);
    EXPECT_EQ(items.data, r.data);
}

TEST_F(ExportRecordsTest, BytesThatAreNoRecordImportAsNothing)
{
    const std::vector<std::vector<BYTE>> inputs = {
        {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08},
        {0x30, 0x00},
        {0x30, 0x82, 0x01, 0x00, 0x04}, // a length beyond the end
        {0x04, 0x03, 0x01, 0x02, 0x03}, // a bare OCTET STRING
        std::vector<BYTE>(2000, 0xA5),
    };
    for (const auto& input : inputs) {
        const ImportResult r = ImportAll(input);
        EXPECT_EQ(S_OK, r.hr) << input.size();
        EXPECT_TRUE(r.dataEmpty) << input.size();
        EXPECT_GUID_EQ(kZeroGuid, r.target);
        EXPECT_GUID_EQ(kZeroGuid, r.source);
    }
}

TEST_F(ExportRecordsTest, TruncatedRecordImportsAsNothing)
{
    std::vector<BYTE> record = ExportOk({0x01, 0x02});
    record.pop_back();
    const ImportResult r = ImportAll(record);
    ExpectImportedNothing(__LINE__, r);
}

TEST_F(ExportRecordsTest, EmptyOrMissingRecordImportsAsNothing)
{
    GUID target = kSentinelGuid, source = kSentinelGuid;
    TaskBlob data;
    CRYPT_DATA_BLOB empty{0, nullptr};
    EXPECT_EQ(S_OK, m_ctx.Import(&empty, &data, &target, &source));
    EXPECT_TRUE(data.Empty());
    EXPECT_GUID_EQ(kZeroGuid, target);
    EXPECT_GUID_EQ(kZeroGuid, source);

    data.Free();
    target = source = kSentinelGuid;
    EXPECT_EQ(S_OK, m_ctx.Import(nullptr, &data, &target, &source));
    EXPECT_TRUE(data.Empty());
    EXPECT_GUID_EQ(kZeroGuid, target);
    EXPECT_GUID_EQ(kZeroGuid, source);
}

TEST_F(ExportRecordsTest, ImportWithAllOutputsNullSucceeds)
{
    std::vector<BYTE> record = ExportOk({0x01});
    CRYPT_DATA_BLOB in = BlobOf(record);
    EXPECT_EQ(S_OK, m_ctx.Import(&in, nullptr, nullptr, nullptr));
    std::vector<BYTE> garbage = {0x01, 0x02};
    CRYPT_DATA_BLOB g = BlobOf(garbage);
    EXPECT_EQ(S_OK, m_ctx.Import(&g, nullptr, nullptr, nullptr));
}

TEST_F(ExportRecordsTest, ImportFillsOnlyTheOutputsGiven)
{
    nvwriter::ExportRecordItems items;
    items.data = {0x77};
    items.sourceBits = kTestHostIdBytes;
    items.targetBits = kOtherHostIdBytes;
    std::vector<BYTE> record = nvwriter::MakeExportRecord(m_ctx.Provider(), items);
    CRYPT_DATA_BLOB in = BlobOf(record);

    GUID source = kSentinelGuid;
    EXPECT_EQ(S_OK, m_ctx.Import(&in, nullptr, nullptr, &source));
    EXPECT_GUID_EQ(kTestHostId, source);

    GUID target = kSentinelGuid;
    EXPECT_EQ(S_OK, m_ctx.Import(&in, nullptr, &target, nullptr));
    EXPECT_GUID_EQ(kOtherHostId, target);

    TaskBlob data;
    EXPECT_EQ(S_OK, m_ctx.Import(&in, &data, nullptr, nullptr));
    EXPECT_EQ(items.data, BlobBytes(data));
}

TEST_F(ExportRecordsTest, ImportWorksWithoutAProvider)
{
    nvwriter::ExportRecordItems items;
    items.data = {0x01, 0x02};
    items.targetBits = kOtherHostIdBytes;
    const std::vector<BYTE> record = nvwriter::MakeExportRecord(m_ctx.Provider(), items);
    CFPSecurityContext unconstructed;
    CRYPT_DATA_BLOB in = BlobOf(record);
    TaskBlob data;
    GUID target = kSentinelGuid, source = kSentinelGuid;
    EXPECT_EQ(S_OK, unconstructed.Import(&in, &data, &target, &source));
    EXPECT_EQ(items.data, BlobBytes(data));
    EXPECT_GUID_EQ(kOtherHostId, target);
    EXPECT_GUID_EQ(kZeroGuid, source);
}

// ---- trace ------------------------------------------------------------------------

TEST_F(ExportRecordsTest, TraceShowsExportWithItsSignatureAndImport)
{
    TraceCapture trace;
    trace.Start(10);
    const std::vector<BYTE> record = ExportOk({0x01});
    ImportAll(record);
    ImportAll({0x05, 0x05});
    EXPECT_EQ((std::vector<std::string>{
                  "> CFPSecurityContext::Export", "> SignBLOB", "<", "<",
                  "> CFPSecurityContext::Import", "<",
                  "> CFPSecurityContext::Import", "<",
              }),
              trace.Lines())
        << trace.Dump();
}

TEST_F(ExportRecordsTest, TraceOfAFailedExportShowsTheSignaturesErrorTwice)
{
    TraceCapture trace;
    trace.Start(10);
    CFPSecurityContext unconstructed;
    const std::vector<BYTE> data = {0x01};
    CRYPT_DATA_BLOB in = BlobOf(data);
    TaskBlob record;
    EXPECT_EQ(E_INVALIDARG, unconstructed.Export(kOtherHostId, &in, kView32, &record));
    EXPECT_EQ((std::vector<std::string>{
                  "> CFPSecurityContext::Export",
                  "> SignBLOB", "E -2147024809 ", "<",
                  "E -2147024809 ", "<",
              }),
              trace.Lines())
        << trace.Dump();
}

TEST_F(ExportRecordsTest, ExportAndImportScopesAreHiddenBelowVerbosityTen)
{
    TraceCapture trace;
    trace.Start(0);
    ImportAll(ExportOk({0x01}));
    // The trace itself is on: a scope of level 0 shows, and nothing before it.
    { NVTraceNS::CTraceScope scope("ExportRecordsTest", 0); }
    EXPECT_EQ((std::vector<std::string>{"> ExportRecordsTest", "<"}), trace.Lines()) << trace.Dump();
}
