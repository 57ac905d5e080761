// The sealed user record's inner blob: ParseUserBlob and the account control step.
// Records are made with the format 2.0 writer's encoders or, for odd items, by hand.
#include <windows.h>
#include <gtest/gtest.h>
#include <sddl.h>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "legacydb/derreader.h"
#include "legacydb/userextractor.h"
#include "support/api_faults.h"
#include "support/registry_sandbox.h"
#include "support/template_expectations.h"
#include "support/trace_capture.h"
#include "writer/db20_der.h"
#include "writer/db20_writer.h"

using namespace nvtest;
using namespace nvwriter;
using LegacyNVDB2::CLocalDBUserExtractor;

namespace {

constexpr const wchar_t kSid[] = L"S-1-5-21-1004336348-1177238915-682003330-1001";
constexpr const wchar_t kAccounts[] = L"SOFTWARE\\Norvane\\DB\\Policy\\Accounts";
constexpr GUID kUserGuid = {0x00112233, 0x4455, 0x6677, {0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF}};
constexpr GUID kOwner = {0xA1B2C3D4, 0xE5F6, 0x0718, {0x29, 0x3A, 0x4B, 0x5C, 0x6D, 0x7E, 0x8F, 0x90}};
constexpr GUID kType = {0x10203040, 0x5060, 0x7080, {0x90, 0xA0, 0xB0, 0xC0, 0xD0, 0xE0, 0xF0, 0x01}};

Db20Template MakeTemplate(unsigned position, BYTE fill, size_t size)
{
    Db20Template t;
    t.position = position;
    t.format = 0x80000001u + position;
    t.flags = 3;
    t.type = kType;
    t.owner = kOwner;
    t.data.assign(size, fill);
    t.size = static_cast<DWORD>(size);
    t.headerValue = 0x01020304 + static_cast<LONG>(position);
    return t;
}

Db20User BaseUser()
{
    Db20User u;
    u.guid = kUserGuid;
    u.headerGuid = kOwner;
    u.displayName = L"Alice";
    u.sidText = kSid;
    u.times[0] = FILETIME{0x5D6F8000, 0x01D00000};
    return u;
}

Db20Credential Fingerprint(DWORD mask, std::vector<Db20Template> templates)
{
    Db20Credential c;
    c.credentialId = kDb20FingerprintCredentialId;
    c.mask = mask;
    c.templates = std::move(templates);
    return c;
}

Db20Credential Other(DWORD id, DWORD mask, std::vector<DerBytes> extra = {})
{
    Db20Credential c;
    c.credentialId = id;
    c.mask = mask;
    c.extraItems = std::move(extra);
    return c;
}

// The template item as the writer lays it out.
DerBytes TemplateItem(const Db20Template& t)
{
    using namespace der20;
    return Octets(Seq({Seq({Seq({Uint(t.format), Uint(t.flags), GuidOctets(t.type), GuidOctets(t.owner), Uint(t.size)}),
                            Int(t.headerValue)}),
                       Octets(t.data)}));
}

DerBytes Wrap(const DerBytes& userList)
{
    // Same shape as EncodeDb20UserBlob, around a hand-made user list.
    using namespace der20;
    const DerBytes tbs = Seq({Octets(userList), Uint(kDb20RecordVersion)});
    CRYPT_ALGORITHM_IDENTIFIER alg{const_cast<LPSTR>("1.2.840.113549.1.1.4"), {0, nullptr}};
    BYTE sig[16] = {1, 2, 3};
    CERT_SIGNED_CONTENT_INFO info{};
    info.ToBeSigned = {static_cast<DWORD>(tbs.size()), const_cast<BYTE*>(tbs.data())};
    info.SignatureAlgorithm = alg;
    info.Signature = {sizeof(sig), sig, 0};
    return Encode(X509_CERT, &info);
}

DerBytes Header(const DerBytes& guidItem, const DerBytes& sidItem)
{
    using namespace der20;
    const FILETIME t{0x5D6F8000, 0x01D00000};
    return Seq({GuidOctets(kOwner), guidItem, Time(t), Time(t), Time(t), Text(L"Alice"), sidItem, Uint(1), Uint(2)});
}

DerBytes StandardHeader()
{
    return Header(der20::GuidOctets(kUserGuid), der20::Text(kSid));
}

std::wstring SidOf(const NV_USER_RECORD& r)
{
    if (!r.pSid)
        return L"(null)";
    LPWSTR text = nullptr;
    ::ConvertSidToStringSidW(r.pSid, &text);
    std::wstring s = text;
    ::LocalFree(text);
    return s;
}

bool IsZeroTemplate(const CNVTemplate& t)
{
    BI_TEMPLATE zero{};
    return std::memcmp(&zero, &t.m_header, sizeof(zero)) == 0 && t.m_data.empty();
}

class UserRecordTest : public RegistrySandbox {
protected:
    void TearDown() override
    {
        for (NV_USER_RECORD& r : m_records)
            if (r.pSid)
                ::LocalFree(r.pSid);
        RegistrySandbox::TearDown();
    }

    NV_USER_RECORD& Parse(const DerBytes& blob, HRESULT expected = S_OK)
    {
        m_records.push_back(NV_USER_RECORD{});
        NV_USER_RECORD& r = m_records.back();
        EXPECT_EQ(expected, m_extractor.ParseUserBlob(static_cast<DWORD>(blob.size()), blob.data(), &r));
        return r;
    }

    NV_USER_RECORD& ParseUser(const Db20User& user) { return Parse(EncodeDb20UserBlob(0, user)); }

    const CNVTemplateVector* TemplatesOf(const std::wstring& sid) const
    {
        auto it = m_extractor.GetTemplateMap().find(sid);
        return it == m_extractor.GetTemplateMap().end() ? nullptr : &it->second;
    }

    std::deque<NV_USER_RECORD> m_records;
    CLocalDBUserExtractor m_extractor;
};

} // namespace

TEST_F(UserRecordTest, CompleteRecordFillsTheUserRecordAndTheTemplateMap)
{
    SetDword((std::wstring(kAccounts) + L"\\" + kSid).c_str(), L"ActCtrl", 0x200, kView32);
    Db20User user = BaseUser();
    const std::vector<Db20Template> templates = {MakeTemplate(0, 0x11, 100), MakeTemplate(2, 0x22, 333)};
    user.credentials.push_back(Fingerprint(0x5, templates));

    const NV_USER_RECORD& r = ParseUser(user);
    EXPECT_TRUE(IsEqualGUID(kUserGuid, r.guidUser));
    EXPECT_EQ(std::wstring(kSid), SidOf(r));
    EXPECT_EQ(0x5u, r.dwTemplateMask);
    EXPECT_EQ(0x200u, r.dwAccountControl);

    ASSERT_EQ(1u, m_extractor.GetTemplateMap().size());
    const CNVTemplateVector* list = TemplatesOf(kSid);
    ASSERT_NE(nullptr, list);
    ASSERT_EQ(2u, list->size());
    ExpectTemplate(templates[0], *(*list)[0]);
    ExpectTemplate(templates[1], *(*list)[1]);
}

TEST_F(UserRecordTest, ASignatureThatVerifiesAgainstNothingIsAccepted)
{
    Db20User user = BaseUser();
    user.credentials.push_back(Fingerprint(0x1, {MakeTemplate(0, 0x33, 10)}));
    const NV_USER_RECORD& r = Parse(Wrap(EncodeDb20UserList(user)));
    EXPECT_TRUE(IsEqualGUID(kUserGuid, r.guidUser));
    EXPECT_EQ(0x1u, r.dwTemplateMask);
    ASSERT_NE(nullptr, TemplatesOf(kSid));
    EXPECT_EQ(1u, TemplatesOf(kSid)->size());
}

TEST_F(UserRecordTest, ABlobThatIsNotDerGivesAnEmptyRecordAndTheAccountsKeyActCtrl)
{
    SetDword(kAccounts, L"ActCtrl", 0x77, kView32);
    const DerBytes garbage = {'n', 'o', 't', ' ', 'D', 'E', 'R', 0x00, 0xFF};
    const NV_USER_RECORD& r = Parse(garbage);
    EXPECT_TRUE(IsEqualGUID(GUID_NULL, r.guidUser));
    EXPECT_EQ(nullptr, r.pSid);
    EXPECT_EQ(0u, r.dwTemplateMask);
    EXPECT_EQ(0x77u, r.dwAccountControl);
    EXPECT_TRUE(m_extractor.GetTemplateMap().empty());
}

TEST_F(UserRecordTest, AnEnvelopeWhoseSignatureHasNoBytesReadsAsNoBlobWithoutTheCoder)
{
    // A BIT STRING needs at least its unused-bits byte. Handed one without it, Wine's
    // crypt32 copies whatever follows into a buffer it sized too small, over the heap.
    using namespace der20;
    const DerBytes md5Rsa = {0x30, 0x0B, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x04};
    const DerBytes list = Seq({StandardHeader(), Uint(0)});
    const DerBytes toBeSigned = Seq({Octets(list), Uint(kDb20RecordVersion)});
    const DerBytes blob = Seq({toBeSigned, md5Rsa, DerBytes{0x03, 0x00}});
    {
        ApiFaults faults;
        const NV_USER_RECORD& r = Parse(blob);
        EXPECT_EQ(0u, faults.DecodeCalls(X509_CERT));
        EXPECT_TRUE(IsEqualGUID(GUID_NULL, r.guidUser));
        EXPECT_EQ(nullptr, r.pSid);
        EXPECT_TRUE(m_extractor.GetTemplateMap().empty());
    }
    // The same content with a signature of one byte is read.
    const NV_USER_RECORD& r = Parse(Seq({toBeSigned, md5Rsa, DerBytes{0x03, 0x02, 0x00, 0x5A}}));
    EXPECT_TRUE(IsEqualGUID(kUserGuid, r.guidUser));
    EXPECT_EQ(std::wstring(kSid), SidOf(r));
}

TEST_F(UserRecordTest, AnImpossibleTimeReadsAsZeroAndTheRestOfTheHeaderIsRead)
{
    using namespace der20;
    // UTCTime of month 24: the coder refuses the value (Wine's crypt32 with
    // ERROR_INVALID_PARAMETER), a verdict on the bytes like any malformed item.
    const DerBytes badTime = {0x17, 0x0D, '0', '6', '2', '4', '2', '3', '0', '2', '4', '2', '2', '8', 'Z'};
    const DWORD before = LegacyNVDB2::LenientReadCount();
    const FILETIME read = LegacyNVDB2::ReadTime(LegacyNVDB2::DerView(badTime.data(), static_cast<DWORD>(badTime.size())));
    EXPECT_EQ(0u, read.dwLowDateTime);
    EXPECT_EQ(0u, read.dwHighDateTime);
    EXPECT_EQ(before + 1, LegacyNVDB2::LenientReadCount());

    const DerBytes header = Seq({GuidOctets(kOwner), GuidOctets(kUserGuid), badTime, badTime, badTime, Text(L"Alice"),
                                 Text(kSid), Uint(1), Uint(2)});
    const NV_USER_RECORD& r = Parse(Wrap(Seq({header, Uint(0)})));
    EXPECT_TRUE(IsEqualGUID(kUserGuid, r.guidUser));
    EXPECT_EQ(std::wstring(kSid), SidOf(r));
}

TEST_F(UserRecordTest, AnEmptyBlobWithoutPolicyGivesAccountControlZero)
{
    const NV_USER_RECORD& r = Parse(DerBytes());
    EXPECT_TRUE(IsEqualGUID(GUID_NULL, r.guidUser));
    EXPECT_EQ(nullptr, r.pSid);
    EXPECT_EQ(0u, r.dwAccountControl);
    EXPECT_TRUE(m_extractor.GetTemplateMap().empty());
}

TEST_F(UserRecordTest, EntryCountZeroReadsNoEntries)
{
    using namespace der20;
    const Db20Template t = MakeTemplate(0, 0x44, 8);
    const DerBytes list = Seq({StandardHeader(), Uint(0), Uint(2), Uint(1), TemplateItem(t)});
    const NV_USER_RECORD& r = Parse(Wrap(list));
    EXPECT_EQ(std::wstring(kSid), SidOf(r));
    EXPECT_EQ(0u, r.dwTemplateMask);
    EXPECT_TRUE(m_extractor.GetTemplateMap().empty());
}

TEST_F(UserRecordTest, AnEntryCountOfFiveBytesReadsAsZero)
{
    Db20User user = BaseUser();
    user.credentials.push_back(Fingerprint(0x1, {MakeTemplate(0, 0x55, 8)}));
    user.defect = Db20Defect::FiveByteNumber;
    const NV_USER_RECORD& r = ParseUser(user);
    EXPECT_TRUE(IsEqualGUID(kUserGuid, r.guidUser));
    EXPECT_EQ(0u, r.dwTemplateMask);
    EXPECT_TRUE(m_extractor.GetTemplateMap().empty());
}

TEST_F(UserRecordTest, NumbersOfOneAndTwoBytesAreReadLeastSignificantFirst)
{
    using namespace der20;
    const Db20Template a = MakeTemplate(0, 0xA0, 4), b = MakeTemplate(2, 0xB0, 4), c = MakeTemplate(9, 0xC0, 4);
    // Mask 0x05 as one content byte.
    const DerBytes oneByte = {0x02, 0x01, 0x05};
    NV_USER_RECORD& r1 = Parse(Wrap(Seq({StandardHeader(), Uint(1), Uint(2), oneByte, TemplateItem(a), TemplateItem(b)})));
    EXPECT_EQ(0x5u, r1.dwTemplateMask);

    // Mask with the content bytes 0x02 0x01 (DER, most significant first): 0x0201.
    WipeSuiteKeys();
    CLocalDBUserExtractor other;
    const DerBytes twoBytes = {0x02, 0x02, 0x02, 0x01};
    const DerBytes blob = Wrap(Seq({StandardHeader(), Uint(1), Uint(2), twoBytes, TemplateItem(a), TemplateItem(c)}));
    NV_USER_RECORD r2{};
    ASSERT_EQ(S_OK, other.ParseUserBlob(static_cast<DWORD>(blob.size()), blob.data(), &r2));
    EXPECT_EQ(0x0201u, r2.dwTemplateMask);
    const auto& list = other.GetTemplateMap().at(kSid);
    ASSERT_EQ(2u, list.size());
    ExpectTemplate(c, *list[1]);
    ::LocalFree(r2.pSid);
}

TEST_F(UserRecordTest, AMaskOfFiveBytesReadsAsZeroAndStillStoresAnEmptyList)
{
    using namespace der20;
    const DerBytes fiveBytes = UintBytes({0x05, 0x00, 0x00, 0x00, 0x01});
    const NV_USER_RECORD& r = Parse(Wrap(Seq({StandardHeader(), Uint(1), Uint(2), fiveBytes})));
    EXPECT_EQ(0u, r.dwTemplateMask);
    ASSERT_NE(nullptr, TemplatesOf(kSid));
    EXPECT_TRUE(TemplatesOf(kSid)->empty());
}

TEST_F(UserRecordTest, MaskFiveWithFingerprintIdReadsBitsZeroAndTwoInOrder)
{
    Db20User user = BaseUser();
    const std::vector<Db20Template> templates = {MakeTemplate(0, 0x01, 20), MakeTemplate(2, 0x02, 30)};
    user.credentials.push_back(Fingerprint(0x00000005, templates));
    const NV_USER_RECORD& r = ParseUser(user);
    EXPECT_EQ(0x5u, r.dwTemplateMask);
    const CNVTemplateVector* list = TemplatesOf(kSid);
    ASSERT_NE(nullptr, list);
    ASSERT_EQ(2u, list->size());
    EXPECT_EQ(std::vector<BYTE>(20, 0x01), (*list)[0]->m_data);
    EXPECT_EQ(std::vector<BYTE>(30, 0x02), (*list)[1]->m_data);
}

TEST_F(UserRecordTest, OtherCredentialEntriesWithoutItemsAreFollowedByTheNextEntry)
{
    Db20User user = BaseUser();
    user.credentials.push_back(Other(1, 0));
    user.credentials.push_back(Fingerprint(0x8, {MakeTemplate(3, 0x08, 12)}));
    user.credentials.push_back(Other(4, 0));
    const NV_USER_RECORD& r = ParseUser(user);
    EXPECT_EQ(0x8u, r.dwTemplateMask);
    ASSERT_NE(nullptr, TemplatesOf(kSid));
    EXPECT_EQ(1u, TemplatesOf(kSid)->size());
}

TEST_F(UserRecordTest, ItemsAfterANonFingerprintMaskAreReadAsTheNextEntry)
{
    // Entry 0: id 1, mask 3, followed by items the parser does not skip: they become
    // entry 1's id (2) and mask (1), and the template after them its template.
    const Db20Template t = MakeTemplate(0, 0x77, 16);
    Db20User user = BaseUser();
    user.credentials.push_back(Other(1, 3, {der20::Uint(2), der20::Uint(1), TemplateItem(t)}));
    user.credentials.push_back(Fingerprint(0x6, {MakeTemplate(1, 0x01, 4), MakeTemplate(2, 0x02, 4)}));
    const NV_USER_RECORD& r = ParseUser(user);
    EXPECT_EQ(0x1u, r.dwTemplateMask);
    const CNVTemplateVector* list = TemplatesOf(kSid);
    ASSERT_NE(nullptr, list);
    ASSERT_EQ(1u, list->size());
    ExpectTemplate(t, *(*list)[0]);
}

TEST_F(UserRecordTest, AMisreadEntryCanHideTheFingerprintEntry)
{
    Db20User user = BaseUser();
    user.credentials.push_back(Other(1, 3, {der20::Uint(7), der20::Uint(9)}));
    user.credentials.push_back(Fingerprint(0x1, {MakeTemplate(0, 0x01, 4)}));
    const NV_USER_RECORD& r = ParseUser(user);
    EXPECT_EQ(0u, r.dwTemplateMask);
    EXPECT_TRUE(m_extractor.GetTemplateMap().empty());
}

TEST_F(UserRecordTest, TwoFingerprintEntriesKeepTheSecondMaskAndTheFirstTemplates)
{
    Db20User user = BaseUser();
    const Db20Template first = MakeTemplate(0, 0x0F, 9);
    user.credentials.push_back(Fingerprint(0x1, {first}));
    user.credentials.push_back(Fingerprint(0x6, {MakeTemplate(1, 0x10, 9), MakeTemplate(2, 0x20, 9)}));
    const NV_USER_RECORD& r = ParseUser(user);
    EXPECT_EQ(0x6u, r.dwTemplateMask);
    const CNVTemplateVector* list = TemplatesOf(kSid);
    ASSERT_NE(nullptr, list);
    ASSERT_EQ(1u, list->size());
    ExpectTemplate(first, *(*list)[0]);
}

TEST_F(UserRecordTest, ABitWithoutItsItemStillGivesAnEmptyTemplate)
{
    Db20User user = BaseUser();
    const Db20Template only = MakeTemplate(0, 0x3C, 7);
    user.credentials.push_back(Fingerprint(0x80000001u, {only}));
    const NV_USER_RECORD& r = ParseUser(user);
    EXPECT_EQ(0x80000001u, r.dwTemplateMask);
    const CNVTemplateVector* list = TemplatesOf(kSid);
    ASSERT_NE(nullptr, list);
    ASSERT_EQ(2u, list->size());
    ExpectTemplate(only, *(*list)[0]);
    EXPECT_TRUE(IsZeroTemplate(*(*list)[1]));
}

TEST_F(UserRecordTest, TemplateItemsWithMissingPartsLeaveThemZero)
{
    using namespace der20;
    const DerBytes info5 = Seq({Uint(7), Uint(8), GuidOctets(kType), GuidOctets(kOwner), Uint(9)});
    // Header list of one item: no header value. Template list of one item: no data.
    const DerBytes noValue = Octets(Seq({Seq({info5}), Octets(DerBytes{1, 2, 3})}));
    const DerBytes noData = Octets(Seq({Seq({info5, Int(77)})}));
    // Data-object information of three items: the last GUID and the size stay zero.
    const DerBytes shortInfo = Octets(Seq({Seq({Seq({Uint(7), Uint(8), GuidOctets(kType)}), Int(5)}), Octets(DerBytes{4})}));
    // Not a list at all.
    const DerBytes notAList = Octets(DerBytes{0xDE, 0xAD});
    const DerBytes list =
        Seq({StandardHeader(), Uint(1), Uint(2), Uint(0xF), noValue, noData, shortInfo, notAList});
    Parse(Wrap(list));
    const CNVTemplateVector* templates = TemplatesOf(kSid);
    ASSERT_NE(nullptr, templates);
    ASSERT_EQ(4u, templates->size());

    const CNVTemplate& a = *(*templates)[0];
    EXPECT_EQ(7u, a.m_header.info.dwFormat);
    EXPECT_EQ(9u, a.m_header.info.dwSize);
    EXPECT_TRUE(IsEqualGUID(kOwner, a.m_header.info.guidOwner));
    EXPECT_EQ(0, a.m_header.lHeaderValue);
    EXPECT_EQ((std::vector<BYTE>{1, 2, 3}), a.m_data);

    const CNVTemplate& b = *(*templates)[1];
    EXPECT_EQ(7u, b.m_header.info.dwFormat);
    EXPECT_EQ(77, b.m_header.lHeaderValue);
    EXPECT_TRUE(b.m_data.empty());

    const CNVTemplate& c = *(*templates)[2];
    EXPECT_EQ(8u, c.m_header.info.dwFlags);
    EXPECT_TRUE(IsEqualGUID(kType, c.m_header.info.guidType));
    EXPECT_TRUE(IsEqualGUID(GUID_NULL, c.m_header.info.guidOwner));
    EXPECT_EQ(0u, c.m_header.info.dwSize);
    EXPECT_EQ(5, c.m_header.lHeaderValue);

    EXPECT_TRUE(IsZeroTemplate(*(*templates)[3]));
}

TEST_F(UserRecordTest, SignedHeaderValuesAreNotSignExtended)
{
    using namespace der20;
    const DerBytes info5 = Seq({Uint(1), Uint(2), GuidOctets(kType), GuidOctets(kOwner), Uint(3)});
    const DerBytes minusOne = {0x02, 0x01, 0xFF};                         // -1 in its shortest form
    const DerBytes minusLarge = Int(static_cast<LONG>(0x87654321));       // four content bytes
    const DerBytes fiveBytes = {0x02, 0x05, 0x01, 0x00, 0x00, 0x00, 0x00}; // too long: 0
    auto item = [&](const DerBytes& value) { return Octets(Seq({Seq({info5, value}), Octets(DerBytes{0})})); };
    Parse(Wrap(Seq({StandardHeader(), Uint(1), Uint(2), Uint(7), item(minusOne), item(minusLarge), item(fiveBytes)})));
    const CNVTemplateVector* templates = TemplatesOf(kSid);
    ASSERT_NE(nullptr, templates);
    ASSERT_EQ(3u, templates->size());
    EXPECT_EQ(0xFF, (*templates)[0]->m_header.lHeaderValue);
    EXPECT_EQ(static_cast<LONG>(0x87654321), (*templates)[1]->m_header.lHeaderValue);
    EXPECT_EQ(0, (*templates)[2]->m_header.lHeaderValue);
}

TEST_F(UserRecordTest, GuidItemsAreReadInNetworkByteOrder)
{
    using namespace der20;
    const DerBytes bytes = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                            0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
    const NV_USER_RECORD& r = Parse(Wrap(Seq({Header(Octets(bytes), Text(kSid)), Uint(0)})));
    EXPECT_EQ(0x00112233u, r.guidUser.Data1);
    EXPECT_EQ(0x4455u, r.guidUser.Data2);
    EXPECT_EQ(0x6677u, r.guidUser.Data3);
    EXPECT_EQ(0, std::memcmp(r.guidUser.Data4, bytes.data() + 8, 8));
}

TEST_F(UserRecordTest, GuidItemsOf15Or17BytesGiveTheZeroGuid)
{
    for (Db20Defect defect : {Db20Defect::Guid15, Db20Defect::Guid17}) {
        Db20User user = BaseUser();
        user.defect = defect;
        const NV_USER_RECORD& r = ParseUser(user);
        EXPECT_TRUE(IsEqualGUID(GUID_NULL, r.guidUser));
        EXPECT_EQ(std::wstring(kSid), SidOf(r));
    }
}

TEST_F(UserRecordTest, TextOfTheStringTypesIsReadAsUtf16)
{
    // Universal tags of the accepted types: numeric, printable, teletex, videotex, IA5,
    // graphic, visible (3 to 9) carry the UTF-16 bytes as they stand.
    const std::wstring sid = L"S-1-5-32-544";
    std::vector<BYTE> le;
    for (wchar_t c : sid) {
        le.push_back(static_cast<BYTE>(c));
        le.push_back(0);
    }
    le.push_back(0);
    le.push_back(0);
    for (BYTE tag : {0x12, 0x13, 0x14, 0x15, 0x16, 0x19, 0x1A}) {
        DerBytes item = {tag, static_cast<BYTE>(le.size())};
        item.insert(item.end(), le.begin(), le.end());
        const NV_USER_RECORD& r = Parse(Wrap(der20::Seq({Header(der20::GuidOctets(kUserGuid), item), der20::Uint(0)})));
        EXPECT_EQ(sid, SidOf(r)) << "tag " << int(tag);
    }
    // BMP (12) with and without the stored terminator, and UTF-8 (13).
    const NV_USER_RECORD& bmp = Parse(Wrap(der20::Seq({Header(der20::GuidOctets(kUserGuid), der20::Text(sid)), der20::Uint(0)})));
    EXPECT_EQ(sid, SidOf(bmp));
    DerBytes bare = {0x1E, static_cast<BYTE>(sid.size() * 2)};
    for (wchar_t c : sid) {
        bare.push_back(0);
        bare.push_back(static_cast<BYTE>(c));
    }
    EXPECT_EQ(sid, SidOf(Parse(Wrap(der20::Seq({Header(der20::GuidOctets(kUserGuid), bare), der20::Uint(0)})))));
    DerBytes utf8 = {0x0C, static_cast<BYTE>(sid.size())};
    for (wchar_t c : sid)
        utf8.push_back(static_cast<BYTE>(c));
    EXPECT_EQ(sid, SidOf(Parse(Wrap(der20::Seq({Header(der20::GuidOctets(kUserGuid), utf8), der20::Uint(0)})))));
}

TEST_F(UserRecordTest, TextOfOtherValueTypesIsEmpty)
{
    SetDword(kAccounts, L"ActCtrl", 0x31, kView32);
    SetDword((std::wstring(kAccounts) + L"\\" + kSid).c_str(), L"ActCtrl", 0x99, kView32);

    Db20User user = BaseUser();
    user.defect = Db20Defect::TextType2;
    const NV_USER_RECORD& r = ParseUser(user);
    EXPECT_EQ(nullptr, r.pSid);
    EXPECT_TRUE(IsEqualGUID(kUserGuid, r.guidUser));
    // The policy is looked up with the empty text.
    EXPECT_EQ(0x31u, r.dwAccountControl);

    // General string (10) and universal string (11).
    for (BYTE tag : {0x1B, 0x1C}) {
        const DerBytes item = {tag, 4, 'S', 0, 0, 0};
        const NV_USER_RECORD& o = Parse(Wrap(der20::Seq({Header(der20::GuidOctets(kUserGuid), item), der20::Uint(0)})));
        EXPECT_EQ(nullptr, o.pSid) << "tag " << int(tag);
    }
}

TEST_F(UserRecordTest, TheTemplateMapIsKeyedByTheSidsOwnTextForm)
{
    SetDword((std::wstring(kAccounts) + L"\\s-1-5-21-0001-2-3-1001").c_str(), L"ActCtrl", 0x44, kView32);
    Db20User user = BaseUser();
    user.sidText = L"s-1-5-21-0001-2-3-1001";
    user.credentials.push_back(Fingerprint(0x1, {MakeTemplate(0, 0x01, 4)}));
    const NV_USER_RECORD& r = ParseUser(user);
    // The policy key is named by the stored text; the map by the SID's canonical text.
    EXPECT_EQ(0x44u, r.dwAccountControl);
    EXPECT_EQ(L"S-1-5-21-1-2-3-1001", SidOf(r));
    EXPECT_NE(nullptr, TemplatesOf(L"S-1-5-21-1-2-3-1001"));
    EXPECT_EQ(1u, m_extractor.GetTemplateMap().size());
}

TEST_F(UserRecordTest, AccountControlIsZeroWhenActCtrlIsMissingOrNotADword)
{
    const std::wstring policy = std::wstring(kAccounts) + L"\\" + kSid;
    Db20User user = BaseUser();

    CreateKeyPath(policy.c_str(), kView32);
    EXPECT_EQ(0u, ParseUser(user).dwAccountControl);

    SetString(policy.c_str(), L"ActCtrl", L"512", kView32);
    EXPECT_EQ(0u, ParseUser(user).dwAccountControl);

    SetBinary(policy.c_str(), L"ActCtrl", {0, 2, 0, 0}, kView32);
    EXPECT_EQ(0u, ParseUser(user).dwAccountControl);

    SetDword(policy.c_str(), L"ActCtrl", 0x10, kView64);
    SetBinary(policy.c_str(), L"ActCtrl", {0, 2}, kView32);
    const NV_USER_RECORD& r = ParseUser(user);
    EXPECT_EQ(0u, r.dwAccountControl);
    // The user is still read.
    EXPECT_TRUE(IsEqualGUID(kUserGuid, r.guidUser));
    EXPECT_EQ(std::wstring(kSid), SidOf(r));

    SetDword(policy.c_str(), L"ActCtrl", 0xFEDCBA98u, kView32);
    EXPECT_EQ(0xFEDCBA98u, ParseUser(user).dwAccountControl);
}

TEST_F(UserRecordTest, AccountControlStepRequiresAHeader)
{
    NV_USER_RECORD r{};
    r.guidUser = kOwner;
    r.dwAccountControl = 0xdeadbeef;
    PSID sid = nullptr;
    EXPECT_EQ(E_INVALIDARG, m_extractor.GetAccountControl(nullptr, &r, &sid, &r.dwAccountControl));
    EXPECT_TRUE(IsEqualGUID(kOwner, r.guidUser));
    EXPECT_EQ(0xdeadbeefu, r.dwAccountControl);
    EXPECT_EQ(nullptr, sid);
}

TEST_F(UserRecordTest, AccountControlStepAcceptsAnEmptyHeader)
{
    SetDword(kAccounts, L"ActCtrl", 0x5, kView32);
    NV_USER_RECORD r{};
    r.guidUser = kOwner;
    CRYPT_DER_BLOB empty{0, nullptr};
    EXPECT_EQ(S_OK, m_extractor.GetAccountControl(&empty, &r, &r.pSid, &r.dwAccountControl));
    EXPECT_TRUE(IsEqualGUID(GUID_NULL, r.guidUser));
    EXPECT_EQ(nullptr, r.pSid);
    EXPECT_EQ(0x5u, r.dwAccountControl);
}

TEST_F(UserRecordTest, TheFirstListStoredUnderASidStays)
{
    Db20User first = BaseUser();
    const Db20Template kept = MakeTemplate(0, 0xAB, 5);
    first.credentials.push_back(Fingerprint(0x1, {kept}));
    Db20User second = BaseUser();
    second.credentials.push_back(Fingerprint(0x3, {MakeTemplate(0, 0xCD, 5), MakeTemplate(1, 0xEF, 5)}));

    EXPECT_EQ(0x1u, ParseUser(first).dwTemplateMask);
    EXPECT_EQ(0x3u, ParseUser(second).dwTemplateMask);
    const CNVTemplateVector* list = TemplatesOf(kSid);
    ASSERT_NE(nullptr, list);
    ASSERT_EQ(1u, list->size());
    ExpectTemplate(kept, *(*list)[0]);
}

TEST_F(UserRecordTest, TheWalkTracesTheEntryCountAndEachFingerprintEntry)
{
    Db20User user = BaseUser();
    user.credentials.push_back(Other(1, 0));
    user.credentials.push_back(Fingerprint(0x1, {MakeTemplate(0, 0x01, 4)}));
    user.credentials.push_back(Other(3, 0));
    user.credentials.push_back(Fingerprint(0x2, {MakeTemplate(1, 0x02, 4)}));
    const DerBytes blob = EncodeDb20UserBlob(0, user);
    TraceCapture trace;
    trace.Start();
    Parse(blob);
    EXPECT_EQ((std::vector<std::string>{"> CLocalDBUserExtractor::ParseUserBlob",
                                        "> CLocalDBUserExtractor::GetAccountControl", "<",
                                        "U # of template types: 4",
                                        "U template type 1, cred id: 2, fingerprint",
                                        "U template type 3, cred id: 2, fingerprint", "<"}),
              trace.Lines());
}

TEST_F(UserRecordTest, EntryCountZeroTracesZeroTemplateTypes)
{
    const DerBytes blob = Wrap(der20::Seq({StandardHeader(), der20::Uint(0)}));
    TraceCapture trace;
    trace.Start();
    Parse(blob);
    EXPECT_EQ((std::vector<std::string>{"> CLocalDBUserExtractor::ParseUserBlob",
                                        "> CLocalDBUserExtractor::GetAccountControl", "<",
                                        "U # of template types: 0", "<"}),
              trace.Lines());
}

TEST_F(UserRecordTest, TheMisreadEntryIsTracedUnderItsOwnIndex)
{
    Db20User user = BaseUser();
    user.credentials.push_back(Other(1, 3, {der20::Uint(2), der20::Uint(1), TemplateItem(MakeTemplate(0, 1, 1))}));
    user.credentials.push_back(Other(4, 0));
    const DerBytes blob = EncodeDb20UserBlob(0, user);
    TraceCapture trace;
    trace.Start();
    Parse(blob);
    EXPECT_EQ(1u, trace.Count("U template type 1, cred id: 2, fingerprint"));
    EXPECT_EQ(1u, trace.Count("U # of template types: 2"));
}

TEST_F(UserRecordTest, AMissingHeaderIsTracedAsInvalidArgument)
{
    NV_USER_RECORD r{};
    TraceCapture trace;
    trace.Start();
    EXPECT_EQ(E_INVALIDARG, m_extractor.GetAccountControl(nullptr, &r, &r.pSid, &r.dwAccountControl));
    EXPECT_EQ((std::vector<std::string>{"> CLocalDBUserExtractor::GetAccountControl", "E -2147024809 ", "<"}),
              trace.Lines());
}

TEST_F(UserRecordTest, AnEntryCountBeyondTheItemsEndsTheWalkAtTheLastItemWithoutAFallbackCounted)
{
    using namespace der20;
    const Db20Template t = MakeTemplate(0, 0x5A, 6);
    // 2^32 - 1 entries announced, one present.
    const DerBytes list =
        Seq({StandardHeader(), Uint(0xFFFFFFFFu), Uint(kDb20FingerprintCredentialId), Uint(1), TemplateItem(t)});
    const DerBytes blob = Wrap(list);
    TraceCapture trace;
    trace.Start();
    const DWORD lenientBefore = LegacyNVDB2::LenientReadCount();
    const NV_USER_RECORD& r = Parse(blob);
    EXPECT_EQ(lenientBefore, LegacyNVDB2::LenientReadCount());
    EXPECT_EQ(0x1u, r.dwTemplateMask);
    const CNVTemplateVector* list0 = TemplatesOf(kSid);
    ASSERT_NE(nullptr, list0);
    ASSERT_EQ(1u, list0->size());
    ExpectTemplate(t, *(*list0)[0]);
    EXPECT_EQ((std::vector<std::string>{"> CLocalDBUserExtractor::ParseUserBlob",
                                        "> CLocalDBUserExtractor::GetAccountControl", "<",
                                        "U # of template types: -1",
                                        "U template type 0, cred id: 2, fingerprint", "<"}),
              trace.Lines());
}

TEST_F(UserRecordTest, APolicyPathLongerThanTheFormatsBufferIsLookedUpCutTo259Characters)
{
    // No SID text is this long; a record can still carry one. The policy path is cut
    // to the 259 characters the format's buffer holds, and the text is no SID.
    const std::wstring accounts = std::wstring(kAccounts) + L"\\";
    const std::wstring kept(259 - accounts.size(), L'S');
    SetDword((accounts + kept).c_str(), L"ActCtrl", 0x2A, kView32);
    const DerBytes list = der20::Seq({Header(der20::GuidOctets(kUserGuid), der20::Text(kept + L"-1-5-32-544")),
                                      der20::Uint(0)});
    const NV_USER_RECORD& r = Parse(Wrap(list));
    EXPECT_EQ(0x2Au, r.dwAccountControl);
    EXPECT_TRUE(IsEqualGUID(kUserGuid, r.guidUser));
    EXPECT_EQ(L"(null)", SidOf(r));
}

TEST_F(UserRecordTest, AccountControlStepReplacesASidLeftInTheRecord)
{
    PSID left = nullptr;
    ASSERT_TRUE(::ConvertStringSidToSidW(L"S-1-5-18", &left));
    NV_USER_RECORD r{};
    r.pSid = left;
    const DerBytes header = StandardHeader();
    CRYPT_DER_BLOB blob{static_cast<DWORD>(header.size()), const_cast<BYTE*>(header.data())};
    EXPECT_EQ(S_OK, m_extractor.GetAccountControl(&blob, &r, &r.pSid, &r.dwAccountControl));
    EXPECT_EQ(std::wstring(kSid), SidOf(r));

    // An empty header leaves no SID, not the one before it.
    CRYPT_DER_BLOB empty{0, nullptr};
    EXPECT_EQ(S_OK, m_extractor.GetAccountControl(&empty, &r, &r.pSid, &r.dwAccountControl));
    EXPECT_EQ(nullptr, r.pSid);
}

TEST_F(UserRecordTest, ASidTextWithACharacterOutsidePrintableAsciiGivesNoSid)
{
    // A control character, DEL and a letter beyond ASCII: never handed to the
    // platform's parser.
    for (const wchar_t* text : {L"S-1-5-\x01" L"18", L"S-1-5-18\x7F", L"S-1-5-\x00E9"}) {
        const DerBytes list = der20::Seq({Header(der20::GuidOctets(kUserGuid), der20::Text(text)), der20::Uint(0)});
        const NV_USER_RECORD& r = Parse(Wrap(list));
        EXPECT_EQ(L"(null)", SidOf(r)) << Narrow(text);
        EXPECT_TRUE(IsEqualGUID(kUserGuid, r.guidUser));
    }
}
