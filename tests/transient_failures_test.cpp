// Transient failures are not malformed data. Every reader of the old database (the
// positional DER readers, the secret record, Import, GetContent, the packing
// routines and the user blob parser) is made to fail one CryptoAPI coder call at a
// time with each kind of error: a memory shortage must raise E_OUTOFMEMORY, a data
// error must take the lenient path, anything else must raise its own code. The host
// identifier is read with each of its reads failing once and must stay as it was.
#include <windows.h>
#include <wincrypt.h>
#include <comdef.h>
#include <gtest/gtest.h>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "common/replaceablecalls.h"
#include "common/cryptblob.h"
#include "common/handles.h"
#include "common/hresult.h"
#include "converter3/converter3.h"
#include "converter3/secretpacking.h"
#include "legacydb/derreader.h"
#include "legacydb/records.h"
#include "legacydb/secretrecord.h"
#include "legacydb/userextractor.h"
#include "security/securitycontext.h"
#include "support/api_faults.h"
#include "support/import_patch.h"
#include "support/conversion_fixture.h"
#include "support/key_containers.h"
#include "support/raised_code.h"
#include "support/registry_sandbox.h"
#include "writer/db20_der.h"
#include "writer/db20_writer.h"
#include "writer/host_provisioning.h"

using namespace nvtest;
using namespace nvwriter;
using LegacyNVDB2::DerView;

namespace {

using Bytes = std::vector<BYTE>;

// A fingerprint credential of that mask with a template at each position: `size`
// bytes of `firstByte` + the position, in that format.
Db20Credential FingerprintCredential(DWORD mask, std::initializer_list<unsigned> positions, DWORD format, DWORD size,
                                     BYTE firstByte)
{
    Db20Credential c;
    c.credentialId = kDb20FingerprintCredentialId;
    c.mask = mask;
    for (unsigned position : positions) {
        Db20Template t;
        t.position = position;
        t.format = format;
        t.data.assign(size, static_cast<BYTE>(firstByte + position));
        t.size = size;
        c.templates.push_back(t);
    }
    return c;
}

DerView View(const Bytes& b) { return DerView(b.data(), static_cast<DWORD>(b.size())); }

struct FailureKind {
    DWORD lastError;
    HRESULT raised; // S_OK: the lenient path (a data error)
    const char* name;
};

const FailureKind kKinds[] = {
    {static_cast<DWORD>(E_OUTOFMEMORY), E_OUTOFMEMORY, "E_OUTOFMEMORY"},
    {ERROR_NOT_ENOUGH_MEMORY, E_OUTOFMEMORY, "ERROR_NOT_ENOUGH_MEMORY"},
    {ERROR_OUTOFMEMORY, E_OUTOFMEMORY, "ERROR_OUTOFMEMORY"},
    {static_cast<DWORD>(CRYPT_E_ASN1_BADTAG), S_OK, "CRYPT_E_ASN1_BADTAG"},
    {static_cast<DWORD>(CRYPT_E_ASN1_EOD), S_OK, "CRYPT_E_ASN1_EOD"},
    {static_cast<DWORD>(CRYPT_E_BAD_ENCODE), S_OK, "CRYPT_E_BAD_ENCODE"},
    {static_cast<DWORD>(NTE_BAD_DATA), S_OK, "NTE_BAD_DATA"},
    {ERROR_ACCESS_DENIED, HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED), "ERROR_ACCESS_DENIED"},
};

const FailureKind kOutOfMemoryKinds[] = {kKinds[0], kKinds[1], kKinds[2]};

// Decode failures that are verdicts on the bytes although no coder code says so: a
// read past the end that the coder caught itself, and a value it refused as
// impossible (Wine's crypt32 fails a time of month 24 with ERROR_INVALID_PARAMETER).
const FailureKind kDecodeVerdictKinds[] = {
    {static_cast<DWORD>(STATUS_ACCESS_VIOLATION), S_OK, "STATUS_ACCESS_VIOLATION"},
    {ERROR_INVALID_PARAMETER, S_OK, "ERROR_INVALID_PARAMETER"},
    {static_cast<DWORD>(E_INVALIDARG), S_OK, "E_INVALIDARG"},
};

// Every kind a failed decode can take.
std::vector<FailureKind> DecodeKinds()
{
    std::vector<FailureKind> kinds(std::begin(kKinds), std::end(kKinds));
    kinds.insert(kinds.end(), std::begin(kDecodeVerdictKinds), std::end(kDecodeVerdictKinds));
    return kinds;
}

enum class Coder { Decode, Encode };

// Each of the first `calls` decode (or encode) calls failed in turn with each kind's
// error: `body` runs under a fresh ApiFaults armed so, the call and kind named in
// any failure it records.
template <class Kinds, class Body>
void ForEachFailedCall(unsigned calls, const Kinds& kinds, Coder coder, Body&& body)
{
    for (unsigned n = 1; n <= calls; ++n) {
        for (const FailureKind& kind : kinds) {
            SCOPED_TRACE("call " + std::to_string(n) + " " + kind.name);
            ApiFaults faults;
            if (coder == Coder::Decode)
                faults.FailDecode(n, kind.lastError);
            else
                faults.FailEncode(n, kind.lastError);
            body(kind);
        }
    }
}

const GUID kGuid = {0x00112233, 0x4455, 0x6677, {0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF}};

// One reader over a valid item: how many coder calls a clean read makes, and a
// check that its value is the one the item holds.
struct ReaderCase {
    const char* name;
    Bytes item;
    std::function<bool(DerView)> readsValue; // true when the full value came back
};

std::vector<ReaderCase> ReaderCases()
{
    // Whole seconds: the DER time keeps no fractions.
    const SYSTEMTIME st{2021, 3, 0, 14, 15, 9, 26, 0};
    FILETIME ft{};
    ::SystemTimeToFileTime(&st, &ft);
    const Bytes envelope = EncodeDb20UserBlob(0, [] {
        Db20User u;
        u.guid = kGuid;
        u.sidText = L"S-1-5-21-1-2-3-1001";
        return u;
    }());
    return {
        {"ReadEnvelope", envelope, [](DerView v) { return !LegacyNVDB2::ReadEnvelope(v).empty(); }},
        {"ReadList", der20::Seq({der20::Uint(1), der20::Uint(2)}),
         [](DerView v) { return LegacyNVDB2::ReadList(v).size() == 2; }},
        {"ReadOctets", der20::Octets(Bytes{1, 2, 3}), [](DerView v) { return LegacyNVDB2::ReadOctets(v).size() == 3; }},
        {"ReadNumber", der20::Uint(0x0201), [](DerView v) { return LegacyNVDB2::ReadNumber(v) == 0x0201; }},
        {"ReadSignedNumber", der20::Int(0x0304), [](DerView v) { return LegacyNVDB2::ReadSignedNumber(v) == 0x0304; }},
        {"ReadGuid", der20::GuidOctets(kGuid), [](DerView v) { return IsEqualGUID(kGuid, LegacyNVDB2::ReadGuid(v)); }},
        {"ReadTime", der20::Time(ft),
         [ft](DerView v) {
             const FILETIME got = LegacyNVDB2::ReadTime(v);
             return got.dwLowDateTime == ft.dwLowDateTime && got.dwHighDateTime == ft.dwHighDateTime;
         }},
        {"ReadText", der20::Text(L"Alice"), [](DerView v) { return LegacyNVDB2::ReadText(v) == L"Alice"; }},
    };
}

} // namespace

// ---- the positional readers of the legacy records ----------------------------------

TEST(LegacyReaderFailureTest, EachCoderCallOfEachReaderFailingWithEachKindOfError)
{
    for (const ReaderCase& c : ReaderCases()) {
        unsigned calls = 0;
        {
            ApiFaults faults;
            EXPECT_TRUE(c.readsValue(View(c.item))) << c.name;
            calls = faults.DecodeCalls();
        }
        ASSERT_GE(calls, 2u) << c.name << ": size query and decode";
        for (unsigned n = 1; n <= calls; ++n) {
            for (const FailureKind& kind : DecodeKinds()) {
                SCOPED_TRACE(std::string(c.name) + " call " + std::to_string(n) + " " + kind.name);
                ApiFaults faults;
                faults.FailDecode(n, kind.lastError);
                const DWORD lenientBefore = LegacyNVDB2::LenientReadCount();
                bool full = true;
                const HRESULT hr = RaisedCode([&] { full = c.readsValue(View(c.item)); });
                EXPECT_EQ(kind.raised, hr);
                if (kind.raised == S_OK) {
                    // The lenient path: the kind's empty value, and it is counted.
                    EXPECT_FALSE(full);
                    EXPECT_LT(lenientBefore, LegacyNVDB2::LenientReadCount());
                }
            }
        }
    }
}

TEST(LegacyReaderFailureTest, MissingAndMalformedItemsStayLenientAndAreCounted)
{
    DWORD before = LegacyNVDB2::LenientReadCount();
    EXPECT_EQ(0u, LegacyNVDB2::ReadNumber(DerView()));
    EXPECT_EQ(before + 1, LegacyNVDB2::LenientReadCount());
    before = LegacyNVDB2::LenientReadCount();
    EXPECT_TRUE(LegacyNVDB2::ReadList(View(der20::Octets(Bytes{1}))).empty()); // not a SEQUENCE
    EXPECT_EQ(before + 1, LegacyNVDB2::LenientReadCount());
    before = LegacyNVDB2::LenientReadCount();
    EXPECT_EQ(0u, LegacyNVDB2::ReadNumber(View(der20::UintBytes(Bytes{1, 2, 3, 4, 5}))));
    EXPECT_EQ(before + 1, LegacyNVDB2::LenientReadCount());
    before = LegacyNVDB2::LenientReadCount();
    EXPECT_TRUE(IsEqualGUID(GUID{}, LegacyNVDB2::ReadGuid(View(der20::Octets(Bytes(15, 1))))));
    EXPECT_LT(before, LegacyNVDB2::LenientReadCount());
    // A clean read counts nothing.
    before = LegacyNVDB2::LenientReadCount();
    EXPECT_EQ(5u, LegacyNVDB2::ReadNumber(View(der20::Uint(5))));
    EXPECT_EQ(before, LegacyNVDB2::LenientReadCount());
}

// ---- the secret record -----------------------------------------------------------

TEST(SecretRecordFailureTest, EveryDecodeFailingWithOutOfMemoryRaisesIt)
{
    Db20Secret s;
    s.valueName = s.name = L"Smart Card PIN";
    s.guid = kGuid;
    const Bytes record = EncodeDb20SecretRecord(s, der20::Seq({der20::Octets(Bytes{1}), der20::Octets(Bytes{2})}));
    CRYPT_DATA_BLOB field{static_cast<DWORD>(record.size()), const_cast<BYTE*>(record.data())};

    unsigned calls = 0;
    {
        ApiFaults faults;
        CNVSecret secret;
        ASSERT_EQ(S_OK, LegacyNVDB2::DecodeSecretField(nullptr, field, secret));
        EXPECT_EQ(std::wstring(L"Smart Card PIN"), secret.m_info.wszName);
        calls = faults.DecodeCalls();
    }
    ASSERT_GT(calls, 6u);
    ForEachFailedCall(calls, kOutOfMemoryKinds, Coder::Decode, [&](const FailureKind&) {
        CNVSecret secret;
        EXPECT_EQ(E_OUTOFMEMORY, RaisedCode([&] { LegacyNVDB2::DecodeSecretField(nullptr, field, secret); }));
    });
    // A data error in the same place reads as that part's empty value.
    std::vector<FailureKind> dataKinds(std::begin(kDecodeVerdictKinds), std::end(kDecodeVerdictKinds));
    dataKinds.push_back({static_cast<DWORD>(CRYPT_E_ASN1_CORRUPT), S_OK, "CRYPT_E_ASN1_CORRUPT"});
    ForEachFailedCall(calls, dataKinds, Coder::Decode, [&](const FailureKind&) {
        CNVSecret secret;
        EXPECT_EQ(S_OK, RaisedCode([&] { LegacyNVDB2::DecodeSecretField(nullptr, field, secret); }));
    });
}

// ---- Import, GetContent and the user blob parser, on a provisioned machine -----------

class ProvisionedReaderFailureTest : public ProvisionedHostTest {
protected:
    // Parses the user blob once, unhindered, counting its decoder calls; the
    // template mask it read goes to *mask when asked for.
    static void ParseCountingDecodes(const Bytes& blob, unsigned* calls, DWORD* mask)
    {
        ApiFaults faults;
        LegacyNVDB2::CLocalDBUserExtractor extractor;
        NV_USER_RECORD r{};
        ASSERT_EQ(S_OK, extractor.ParseUserBlob(static_cast<DWORD>(blob.size()), blob.data(), &r));
        if (mask)
            *mask = r.dwTemplateMask;
        *calls = faults.DecodeCalls();
        ::LocalFree(r.pSid);
    }

    // What parsing the user blob answers when decoder call `n` fails with that error.
    static HRESULT ParseWithDecodeFailing(const Bytes& blob, unsigned n, DWORD lastError)
    {
        LegacyNVDB2::CLocalDBUserExtractor extractor;
        NV_USER_RECORD r{};
        HRESULT hr = E_FAIL;
        {
            ApiFaults faults;
            faults.FailDecode(n, lastError);
            hr = extractor.ParseUserBlob(static_cast<DWORD>(blob.size()), blob.data(), &r);
        }
        if (r.pSid)
            ::LocalFree(r.pSid);
        return hr;
    }
};

TEST_F(ProvisionedReaderFailureTest, ImportRaisesNothingButReportsOutOfMemoryAndStaysLenientOnData)
{
    CFPSecurityContext ctx;
    ASSERT_EQ(S_OK, ctx.FinalConstruct(KEY_WOW64_32KEY));
    const Bytes data{'s', 'e', 'c', 'r', 'e', 't'};
    CRYPT_DATA_BLOB in{static_cast<DWORD>(data.size()), const_cast<BYTE*>(data.data())};
    nv::CCoTaskCryptBlob record;
    ASSERT_EQ(S_OK, ctx.Export(GUID{}, &in, KEY_WOW64_32KEY, record.put()));

    unsigned calls = 0;
    {
        ApiFaults faults;
        nv::CCoTaskCryptBlob out;
        ASSERT_EQ(S_OK, ctx.Import(&record, out.put(), nullptr, nullptr));
        EXPECT_EQ(data, Bytes(out.pbData, out.pbData + out.cbData));
        calls = faults.DecodeCalls();
    }
    ASSERT_GE(calls, 6u);
    ForEachFailedCall(calls, DecodeKinds(), Coder::Decode, [&](const FailureKind& kind) {
        nv::CCoTaskCryptBlob out;
        const HRESULT hr = ctx.Import(&record, out.put(), nullptr, nullptr);
        if (kind.raised == S_OK) {
            EXPECT_EQ(S_OK, hr);
            EXPECT_TRUE(out.IsEmpty()); // bytes that do not decode carry no data
        } else {
            EXPECT_EQ(kind.raised, hr);
            EXPECT_TRUE(out.IsEmpty());
        }
    });
}

TEST_F(ProvisionedReaderFailureTest, GetContentRaisesOutOfMemoryFromEveryDecode)
{
    const Bytes plain{'p', 'i', 'n', ' ', '1', '2', '3', '4'};
    Bytes sealed;
    {
        nv::unique_hcryptprov prov;
        ASSERT_TRUE(::CryptAcquireContextW(prov.put(), ContainerName(m_hostId).c_str(),
                                           L"Microsoft Enhanced Cryptographic Provider v1.0", PROV_RSA_FULL,
                                           CRYPT_MACHINE_KEYSET));
        sealed = SealDb20Content(prov.get(), plain);
    }
    // A secret opens its content once and keeps it: every faulted call gets a secret
    // that has not been opened yet.
    const auto unopened = [&sealed] {
        auto secret = std::make_unique<CNVSecret>();
        secret->m_content.Assign(sealed.data(), static_cast<DWORD>(sealed.size()));
        return secret;
    };
    unsigned calls = 0;
    {
        ApiFaults faults;
        nv::CCoTaskCryptBlob out;
        ASSERT_TRUE(unopened()->GetContent(nullptr, &out.cbData, &out.pbData));
        EXPECT_EQ(plain, Bytes(out.pbData, out.pbData + out.cbData));
        calls = faults.DecodeCalls();
    }
    ASSERT_GE(calls, 4u);
    for (unsigned n = 1; n <= calls; ++n) {
        for (const FailureKind& kind : kOutOfMemoryKinds) {
            SCOPED_TRACE("call " + std::to_string(n) + " " + kind.name);
            const auto secret = unopened();
            ApiFaults faults;
            faults.FailDecode(n, kind.lastError);
            nv::CCoTaskCryptBlob out;
            EXPECT_EQ(E_OUTOFMEMORY, RaisedCode([&] { secret->GetContent(nullptr, &out.cbData, &out.pbData); }));
            EXPECT_TRUE(out.IsEmpty());
            // The failed call kept nothing: the next one opens the content whole.
            faults.FailDecode(0, 0);
            ASSERT_TRUE(secret->GetContent(nullptr, &out.cbData, &out.pbData));
            EXPECT_EQ(plain, Bytes(out.pbData, out.pbData + out.cbData));
        }
    }
}

TEST_F(ProvisionedReaderFailureTest, ParseUserBlobReturnsOutOfMemoryFromEveryDecode)
{
    Db20User u;
    u.guid = kGuid;
    u.sidText = L"S-1-5-21-1-2-3-1001";
    u.credentials.push_back(FingerprintCredential(0x5, {0u, 2u}, 1, 32, 1));
    const Bytes blob = EncodeDb20UserBlob(0, u);

    unsigned calls = 0;
    DWORD mask = 0;
    ASSERT_NO_FATAL_FAILURE(ParseCountingDecodes(blob, &calls, &mask));
    EXPECT_EQ(0x5u, mask);
    ASSERT_GT(calls, 30u);
    for (unsigned n = 1; n <= calls; ++n) {
        SCOPED_TRACE("call " + std::to_string(n));
        EXPECT_EQ(E_OUTOFMEMORY, ParseWithDecodeFailing(blob, n, ERROR_NOT_ENOUGH_MEMORY));
    }
}

TEST_F(ProvisionedReaderFailureTest, ParseUserBlobStaysLenientWhenAnyDecodeIsAVerdictOnTheBytes)
{
    Db20User u;
    u.guid = kGuid;
    u.sidText = L"S-1-5-21-1-2-3-1001";
    const Bytes blob = EncodeDb20UserBlob(0, u);
    unsigned calls = 0;
    ASSERT_NO_FATAL_FAILURE(ParseCountingDecodes(blob, &calls, nullptr));
    ASSERT_GT(calls, 10u);
    for (unsigned n = 1; n <= calls; ++n) {
        for (const FailureKind& kind : kDecodeVerdictKinds) {
            SCOPED_TRACE("call " + std::to_string(n) + " " + kind.name);
            EXPECT_EQ(S_OK, ParseWithDecodeFailing(blob, n, kind.lastError));
        }
    }
}

// ---- the packing routines ------------------------------------------------------------

TEST(PackingFailureTest, UnpackReturnsOutOfMemoryAndDataErrorsAsThemselves)
{
    Db20Secret s;
    s.combined = true;
    s.hasPassword = true;
    s.password = L"P@ss";
    s.hasPin = true;
    s.pin = L"1234";
    const Bytes content = EncodeDb20CombinedSecret(s);
    CRYPT_DATA_BLOB in{static_cast<DWORD>(content.size()), const_cast<BYTE*>(content.data())};
    unsigned calls = 0;
    {
        ApiFaults faults;
        BSTR password = nullptr, pin = nullptr;
        ASSERT_EQ(S_OK, UnpackPasswordAndPin(&in, &password, &pin));
        EXPECT_EQ(std::wstring(L"P@ss"), std::wstring(password));
        ::SysFreeString(password);
        ::SysFreeString(pin);
        calls = faults.DecodeCalls();
    }
    ASSERT_GE(calls, 8u);
    ForEachFailedCall(calls, kKinds, Coder::Decode, [&](const FailureKind& kind) {
        BSTR password = nullptr, pin = nullptr;
        const HRESULT hr = UnpackPasswordAndPin(&in, &password, &pin);
        EXPECT_EQ(kind.raised == S_OK ? nv::HResultFromWin32(static_cast<LONG>(kind.lastError)) : kind.raised, hr);
        ::SysFreeString(password);
        ::SysFreeString(pin);
    });
    // A caught fault or a refused value is classified before it becomes a result:
    // it says "malformed" (never access denied, which HRESULT_FROM_WIN32 would
    // make of STATUS_ACCESS_VIOLATION), so the conversion takes it as data.
    ForEachFailedCall(calls, kDecodeVerdictKinds, Coder::Decode, [&](const FailureKind&) {
        BSTR password = nullptr, pin = nullptr;
        const HRESULT hr = UnpackPasswordAndPin(&in, &password, &pin);
        EXPECT_EQ(CRYPT_E_ASN1_CORRUPT, hr);
        EXPECT_TRUE(nv::IsDataErrorCode(static_cast<DWORD>(hr)));
        ::SysFreeString(password);
        ::SysFreeString(pin);
    });
}

TEST(PackingFailureTest, PackPasswordRaisesOutOfMemoryFromEveryEncode)
{
    unsigned calls = 0;
    {
        ApiFaults faults;
        nv::CCryptBlob blob;
        PackPassword(L"abc", blob);
        calls = faults.EncodeCalls();
    }
    ASSERT_GE(calls, 6u);
    ForEachFailedCall(calls, kOutOfMemoryKinds, Coder::Encode, [&](const FailureKind&) {
        nv::CCryptBlob blob;
        EXPECT_EQ(E_OUTOFMEMORY, RaisedCode([&] { PackPassword(L"abc", blob); }));
    });
}

TEST(PackingFailureTest, EncryptExRaisesOutOfMemoryButReturnsOtherEncodeFailures)
{
    nv::unique_hcryptprov prov;
    ASSERT_TRUE(::CryptAcquireContextW(prov.put(), nullptr, L"Microsoft Enhanced Cryptographic Provider v1.0",
                                       PROV_RSA_FULL, CRYPT_VERIFYCONTEXT));
    nv::unique_hcryptkey exchange;
    ASSERT_TRUE(::CryptGenKey(prov.get(), AT_KEYEXCHANGE, (1024u << 16), exchange.put()));
    const Bytes plain{'s', 'e', 'c', 'r', 'e', 't'};

    unsigned calls = 0;
    {
        ApiFaults faults;
        nv::CCryptBlob blob(plain.data(), static_cast<DWORD>(plain.size()));
        ASSERT_EQ(S_OK, EncryptEx(blob, prov.get(), exchange.get(), CALG_3DES));
        calls = faults.EncodeCalls();
    }
    ASSERT_GE(calls, 6u);
    ForEachFailedCall(calls, kKinds, Coder::Encode, [&](const FailureKind& kind) {
        nv::CCryptBlob blob(plain.data(), static_cast<DWORD>(plain.size()));
        HRESULT returned = S_OK;
        const HRESULT raised = RaisedCode([&] { returned = EncryptEx(blob, prov.get(), exchange.get(), CALG_3DES); });
        if (kind.raised == E_OUTOFMEMORY) {
            EXPECT_EQ(E_OUTOFMEMORY, raised);
        } else {
            EXPECT_EQ(S_OK, raised);
            EXPECT_EQ(nv::HResultFromWin32(static_cast<LONG>(kind.lastError)), returned);
        }
        // Either way the caller's blob keeps the plain bytes.
        EXPECT_EQ(plain, Bytes(blob.pbData, blob.pbData + blob.cbData));
    });
}

// ---- the host identifier ---------------------------------------------------------------

namespace {

constexpr const wchar_t kHostKey[] = L"SOFTWARE\\Norvane\\NVHOST";

} // namespace

class HostIdReadFailureTest : public ProvisionedHostTest {
protected:
    RegValue HostIdNow()
    {
        RegValue v;
        EXPECT_TRUE(GetValue(kHostKey, L"HostId", kView32, &v));
        return v;
    }
};

TEST_F(HostIdReadFailureTest, EveryReaderFailingEachReadOnceLeavesHostIdByteForByte)
{
    const RegValue before = HostIdNow();
    ASSERT_EQ(DWORD(REG_BINARY), before.type);
    ASSERT_EQ(16u, before.data.size());

    struct Failure {
        unsigned read; // 1: the size read, 2: the data read
        LONG code;
    };
    const Failure failures[] = {{1, ERROR_ACCESS_DENIED}, {1, ERROR_INVALID_FUNCTION}, {1, ERROR_NOT_ENOUGH_MEMORY},
                                {2, ERROR_ACCESS_DENIED}, {2, ERROR_MORE_DATA},        {2, ERROR_FILE_NOT_FOUND}};
    for (const Failure& f : failures) {
        SCOPED_TRACE("read " + std::to_string(f.read) + " fails with " + std::to_string(f.code));
        {
            ApiFaults faults;
            faults.FailQueryValue(L"HostId", f.read, f.code);
            CFPSecurityContext ctx;
            EXPECT_EQ(nv::HResultFromWin32(f.code), ctx.FinalConstruct(KEY_WOW64_32KEY));
            EXPECT_EQ(0u, ctx.Provider());
            EXPECT_EQ(f.read, faults.QueryValueCalls());
        }
        EXPECT_EQ(before, HostIdNow());
        {
            CFPSecurityContext ctx;
            ASSERT_EQ(S_OK, ctx.FinalConstruct(KEY_WOW64_32KEY));
            ApiFaults faults;
            faults.FailQueryValue(L"HostId", f.read, f.code);
            const BYTE data[] = {1, 2, 3};
            CRYPT_DATA_BLOB in{3, const_cast<BYTE*>(data)};
            nv::CCoTaskCryptBlob record;
            EXPECT_EQ(nv::HResultFromWin32(f.code), ctx.Export(GUID{}, &in, KEY_WOW64_32KEY, record.put()));
            EXPECT_TRUE(record.IsEmpty());
        }
        EXPECT_EQ(before, HostIdNow());
        {
            ApiFaults faults;
            faults.FailQueryValue(L"HostId", f.read, f.code);
            LegacyNVDB2::CLocalDBUserExtractor extractor;
            EXPECT_EQ(0u, extractor.GetProvider());
        }
        EXPECT_EQ(before, HostIdNow());
    }
    // And without failures the same identifier names the container.
    CFPSecurityContext ctx;
    EXPECT_EQ(S_OK, ctx.FinalConstruct(KEY_WOW64_32KEY));
    EXPECT_EQ(before, HostIdNow());
}

TEST_F(HostIdReadFailureTest, AValueThatIsReallyMissingIsStillReplaced)
{
    DeleteValue(kHostKey, L"HostId", kView32);
    CFPSecurityContext ctx;
    // The new identifier names no container yet: the provider's error, after writing.
    EXPECT_EQ(NTE_BAD_KEYSET, ctx.FinalConstruct(KEY_WOW64_32KEY));
    RegValue v;
    ASSERT_TRUE(GetValue(kHostKey, L"HostId", kView32, &v));
    EXPECT_EQ(16u, v.data.size());
    EXPECT_NE(Bytes(16, 0), v.data);
    m_containers.Track(nvsecurity::GuidFromNetworkBytes(v.data.data(), static_cast<DWORD>(v.data.size())));
}

// ---- a whole conversion, in this process -----------------------------------------------

// A memory shortage anywhere in the conversion of a user costs nothing: the user (or,
// when it strikes while the users are read, the whole conversion) fails and keeps its
// old data, and the next Convert moves the user whole. The fault is placed at decode
// calls spread over one user's conversion.
class ConversionOutOfMemoryTest : public Db20ConversionTest, public ::testing::WithParamInterface<unsigned> {
protected:
    static nvwriter::Db20Database OneUser()
    {
        nvwriter::Db20Database db = MakeDatabase(1, 61);
        nvwriter::Db20User& u = db.users[0];
        u.credentials.clear();
        nvwriter::Db20Credential c = FingerprintCredential(0x9, {0u, 3u}, 2, 24, 0x70);
        u.credentials.push_back(c);
        return db;
    }
};

TEST_P(ConversionOutOfMemoryTest, FailedDecodeCostsNothingAndTheNextConvertMovesTheUser)
{
    const nvwriter::Db20Database db = OneUser();
    const nvwriter::Db20User& u = db.users[0];
    WriteDatabase(db);
    unsigned calls = 0;
    {
        ApiFaults faults;
        faults.FailDecode(GetParam(), ERROR_NOT_ENOUGH_MEMORY);
        CConverter3 converter;
        converter.Convert();
        calls = faults.DecodeCalls();
    }
    ASSERT_GE(calls, GetParam()) << "the fault was not reached";
    // Not converted: the old key is there. (The store may hold part of the user.)
    EXPECT_TRUE(KeyExists(UserKeyPath(u.guid).c_str(), kView32)) << trace.Dump();

    CConverter3 again;
    EXPECT_EQ(S_OK, again.Convert());
    ExpectUserConverted(u);
}

// The copy of the password that the conversion packs into the store's password
// secret cannot be made: a memory shortage, which fails the user (it keeps its old
// key), not an empty password in the store. Under either policy; the next Convert
// moves the user with its password.
namespace {
const wchar_t* g_refusedCopy = nullptr;
decltype(&::SysAllocString) g_realSysAllocString = nullptr;
BSTR WINAPI RefusingSysAllocString(const OLECHAR* text)
{
    if (text && g_refusedCopy && std::wcscmp(text, g_refusedCopy) == 0) {
        ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    return g_realSysAllocString(text);
}
} // namespace

class PasswordCopyOutOfMemoryTest : public Db20ConversionTest, public ::testing::WithParamInterface<bool> {};

TEST_P(PasswordCopyOutOfMemoryTest, TheUserFailsAndKeepsItsKeyAndTheNextConvertMovesItsPassword)
{
    if (GetParam())
        SetDword(L"SOFTWARE\\Norvane\\Policies\\Default", L"StrictConversion", 1, kViewNative);
    nvwriter::Db20Database db = MakeDatabase(1, 73);
    nvwriter::Db20User& u = db.users[0];
    nvwriter::Db20Secret* logon = nullptr;
    for (nvwriter::Db20Secret& s : u.secrets)
        if (s.combined)
            logon = &s;
    ASSERT_NE(nullptr, logon) << "the model user has no password secret";
    logon->password = L"Copy-Me-If-You-Can-9";
    logon->content = nvwriter::EncodeDb20CombinedSecret(*logon);
    WriteDatabase(db);
    {
        nvtest::ImportPatch patch(::GetModuleHandleW(nullptr),
                                  {{"SysAllocString", reinterpret_cast<void*>(&RefusingSysAllocString)}});
        ASSERT_TRUE(patch.ok());
        g_realSysAllocString = reinterpret_cast<decltype(&::SysAllocString)>(patch.Original("SysAllocString"));
        ASSERT_NE(nullptr, g_realSysAllocString);
        g_refusedCopy = logon->password.c_str();
        CConverter3 converter;
        EXPECT_EQ(S_OK, converter.Convert());
        g_refusedCopy = nullptr;
    }
    EXPECT_TRUE(KeyExists(UserKeyPath(u.guid).c_str(), kView32)) << trace.Dump();
    EXPECT_TRUE(trace.Contains("U Conversion process is over for '" + Narrow(u.sidText) + "', 0x8007000E"))
        << trace.Dump();

    CConverter3 again;
    EXPECT_EQ(S_OK, again.Convert());
    ExpectUserConverted(u);
}

INSTANTIATE_TEST_SUITE_P(Policies, PasswordCopyOutOfMemoryTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return std::string(info.param ? "Strict" : "Default");
                         });

// A clean conversion of this user makes about 158 decode calls; the first ones read
// the user records, the later ones the secrets and the password.
INSTANTIATE_TEST_SUITE_P(DecodeCalls, ConversionOutOfMemoryTest, ::testing::Values(1u, 90u, 150u));
