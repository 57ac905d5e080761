// CLocalDBUserExtractor over databases made by the format 2.0 writer: construction,
// enumeration and unsealing, templates, secrets, and freeing the user array.
#include <windows.h>
#include <gtest/gtest.h>
#include <sddl.h>
#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "common/cryptblob.h"
#include "common/handles.h"
#include "legacydb/secretrecord.h"
#include "legacydb/userextractor.h"
#include "support/key_containers.h"
#include "support/api_faults.h"
#include "support/import_fault.h"
#include "support/registry_sandbox.h"
#include "support/template_expectations.h"
#include "support/trace_capture.h"
#include "support/db_paths.h"
#include "writer/db20_der.h"
#include "writer/host_provisioning.h"
#include "writer/db20_writer.h"

using namespace nvtest;
using namespace nvwriter;
using LegacyNVDB2::CLocalDBUserExtractor;
using LegacyNVDB2::CNVSecretMap;

namespace {
constexpr const wchar_t kHostKey[] = L"SOFTWARE\\Norvane\\NVHOST";

std::vector<BYTE> BlobBytes(const CRYPT_DATA_BLOB& b)
{
    return b.pbData ? std::vector<BYTE>(b.pbData, b.pbData + b.cbData) : std::vector<BYTE>();
}

std::wstring UserKey(const GUID& g)
{
    return std::wstring(kDataUsersPath) + L"\\" + GuidText(g);
}

std::wstring SidOf(PSID sid)
{
    if (!sid)
        return L"(null)";
    LPWSTR text = nullptr;
    ::ConvertSidToStringSidW(sid, &text);
    std::wstring s = text;
    ::LocalFree(text);
    return s;
}

PSID SidFromText(const std::wstring& text)
{
    PSID sid = nullptr;
    ::ConvertStringSidToSidW(text.c_str(), &sid);
    return sid;
}

// What the reader should make of a model user.
DWORD ExpectedMask(const Db20User& u)
{
    DWORD mask = 0;
    for (const auto& c : u.credentials)
        if (c.credentialId == kDb20FingerprintCredentialId)
            mask = c.mask;
    return u.defect == Db20Defect::FiveByteNumber ? 0 : mask;
}

const Db20Credential* FirstFingerprint(const Db20User& u)
{
    for (const auto& c : u.credentials)
        if (c.credentialId == kDb20FingerprintCredentialId)
            return &c;
    return nullptr;
}

std::wstring ContainerOf(HCRYPTPROV prov)
{
    char name[128] = {};
    DWORD cb = sizeof(name);
    if (!::CryptGetProvParam(prov, PP_CONTAINER, reinterpret_cast<BYTE*>(name), &cb, 0))
        return L"";
    return Widen(name);
}

std::vector<BYTE> ContentOf(CNVSecret& secret, bool* produced)
{
    DWORD cb = 0xdeadbeef;
    BYTE* pb = reinterpret_cast<BYTE*>(static_cast<ULONG_PTR>(0xdeadbeef));
    *produced = secret.GetContent(nullptr, &cb, &pb);
    if (!*produced)
        return {};
    std::vector<BYTE> out(pb, pb + cb);
    ::SecureZeroMemory(pb, cb);
    ::CoTaskMemFree(pb);
    return out;
}

// The structure CryptDecodeObject makes of `der` as `type` (empty when it is none).
std::vector<BYTE> DecodedAs(LPCSTR type, const std::vector<BYTE>& der)
{
    DWORD cb = 0;
    if (!::CryptDecodeObject(X509_ASN_ENCODING, type, der.data(), static_cast<DWORD>(der.size()), 0, nullptr, &cb))
        return {};
    std::vector<BYTE> buf(cb);
    if (!::CryptDecodeObject(X509_ASN_ENCODING, type, der.data(), static_cast<DWORD>(der.size()), 0, buf.data(), &cb))
        return {};
    return buf;
}

// The content of a DER OCTET STRING (empty when it is none).
std::vector<BYTE> OctetsOf(const std::vector<BYTE>& der)
{
    const std::vector<BYTE> buf = DecodedAs(X509_OCTET_STRING, der);
    if (buf.empty())
        return {};
    const auto* blob = reinterpret_cast<const CRYPT_DATA_BLOB*>(buf.data());
    return std::vector<BYTE>(blob->pbData, blob->pbData + blob->cbData);
}

// The items of a DER SEQUENCE OF ANY, each a complete DER value (none when it is none).
std::vector<std::vector<BYTE>> SequenceItems(const std::vector<BYTE>& der)
{
    const std::vector<BYTE> buf = DecodedAs(X509_SEQUENCE_OF_ANY, der);
    if (buf.empty())
        return {};
    const auto* seq = reinterpret_cast<const CRYPT_SEQUENCE_OF_ANY*>(buf.data());
    std::vector<std::vector<BYTE>> items;
    for (DWORD i = 0; i < seq->cValue; ++i)
        items.emplace_back(seq->rgValue[i].pbData, seq->rgValue[i].pbData + seq->rgValue[i].cbData);
    return items;
}

// The lines of the scope that are among the given ones, in their order.
std::vector<std::string> LinesAmong(const std::vector<std::string>& lines, const std::vector<std::string>& among)
{
    std::vector<std::string> out;
    for (const std::string& line : lines)
        if (std::find(among.begin(), among.end(), line) != among.end())
            out.push_back(line);
    return out;
}

Db20Options SmallOptions(std::uint32_t seed, unsigned users)
{
    Db20Options o;
    o.seed = seed;
    o.userCount = users;
    return o;
}

class UserExtractorTest : public RegistrySandbox {
protected:
    void SetUp() override
    {
        RegistrySandbox::SetUp();
        m_containers.Track(GUID_NULL);
    }

    Db20Database Write(Db20Options options)
    {
        Db20Database db = MakeDb20Database(options);
        return WriteModel(db);
    }

    Db20Database WriteModel(Db20Database& db)
    {
        m_containers.Track(db.hostId);
        EXPECT_EQ(S_OK, WriteDb20Database(db));
        return db;
    }

    // One user with one plain secret of the given content, written and read back:
    // the secret as the conversion gets it, not opened yet.
    void LoadOnePlainSecret(unsigned seed, const std::vector<BYTE>& content, CNVSecretMap& secrets)
    {
        Db20Database db = MakeDb20Database(SmallOptions(seed, 1));
        db.users[0].secrets.resize(1);
        Db20Secret& s = db.users[0].secrets[0];
        s.combined = false;
        s.content = content;
        WriteModel(db);
        CLocalDBUserExtractor extractor;
        NV_USER_RECORD* users = nullptr;
        DWORD count = 0;
        ASSERT_EQ(S_OK, extractor.EnumerateUsers(&users, &count));
        ASSERT_EQ(S_OK, extractor.InternalLoadSecretsToMap(users[0], secrets));
        EXPECT_EQ(S_OK, extractor.FreeUsers(users));
        ASSERT_EQ(1u, secrets.size());
    }

    // The model users in the registry's enumeration order.
    std::vector<const Db20User*> InEnumerationOrder(const Db20Database& db)
    {
        std::vector<const Db20User*> order;
        for (const std::wstring& name : SubkeyNames(kDataUsersPath, kView32)) {
            const Db20User* found = nullptr;
            for (const Db20User& u : db.users)
                if (GuidText(u.guid) == name)
                    found = &u;
            order.push_back(found);
        }
        return order;
    }

    // The public key of a second machine container (kOtherHostId, made here): a
    // recipient whose private half opens what is sealed for it.
    std::vector<BYTE> RecipientPublicKeyInfo()
    {
        m_containers.Create(kOtherHostId);
        nv::unique_hcryptprov recipient = OpenMachineContainer(kOtherHostId);
        return PublicKeyInfoOf(recipient.get());
    }

    // A provider on the database's container, for hand-made records.
    nv::unique_hcryptprov Provider(const Db20Database& db) { return OpenMachineContainer(db.hostId); }

    void ExpectUser(const Db20User& expected, const NV_USER_RECORD& actual)
    {
        SCOPED_TRACE(Narrow(expected.userName));
        const bool badGuid = expected.defect == Db20Defect::Guid15 || expected.defect == Db20Defect::Guid17;
        EXPECT_TRUE(IsEqualGUID(badGuid ? GUID_NULL : expected.guid, actual.guidUser));
        EXPECT_EQ(expected.defect == Db20Defect::TextType2 ? L"(null)" : expected.sidText, SidOf(actual.pSid));
        EXPECT_EQ(ExpectedMask(expected), actual.dwTemplateMask);
        EXPECT_EQ(expected.writeActCtrl ? expected.accountControl : 0u, actual.dwAccountControl);
    }

    void ExpectTemplates(CLocalDBUserExtractor& extractor, const Db20User& user)
    {
        SCOPED_TRACE(Narrow(user.userName));
        PSID sid = SidFromText(user.sidText);
        CNVTemplateVector templates{std::make_shared<CNVTemplate>()};
        ASSERT_EQ(S_OK, extractor.LoadTemplatesToVector(sid, templates));
        ::LocalFree(sid);
        const Db20Credential* fp = FirstFingerprint(user);
        const size_t expected = fp ? fp->templates.size() : 0;
        ASSERT_EQ(expected, templates.size());
        for (size_t i = 0; i < expected; ++i) {
            ExpectTemplate(fp->templates[i], *templates[i]);
        }
    }

    void ExpectSecrets(CLocalDBUserExtractor& extractor, const Db20User& user, const NV_USER_RECORD& record)
    {
        SCOPED_TRACE(Narrow(user.userName));
        CNVSecretMap secrets;
        secrets[_bstr_t(L"stale")] = std::make_shared<CNVSecret>();
        ASSERT_EQ(S_OK, extractor.InternalLoadSecretsToMap(record, secrets));
        ASSERT_EQ(user.secrets.size(), secrets.size());
        for (const Db20Secret& s : user.secrets) {
            auto it = secrets.find(_bstr_t(s.valueName.c_str()));
            ASSERT_NE(secrets.end(), it) << Narrow(s.valueName);
            ASSERT_TRUE(it->second);
            CNVSecret& actual = *it->second;
            EXPECT_TRUE(IsEqualGUID(s.headerGuid, actual.m_info.header.guidObject));
            EXPECT_EQ(kSecretTypeCode, actual.m_info.header.dwTypeCode);
            EXPECT_EQ(s.headerValue, actual.m_info.header.dwValue);
            EXPECT_EQ(0u, actual.m_info.header.dwReserved);
            EXPECT_TRUE(IsEqualGUID(s.guid, actual.m_info.guidSecret));
            EXPECT_EQ(s.name.substr(0, kSecretNameMax), std::wstring(actual.m_info.wszName));
            bool produced = false;
            EXPECT_EQ(s.content, ContentOf(actual, &produced));
            EXPECT_TRUE(produced);
        }
    }

    ContainerJanitor m_containers;
};

} // namespace

TEST_F(UserExtractorTest, ConstructionAcquiresTheContainerNamedByTheHostId)
{
    const Db20Database db = Write(SmallOptions(11, 1));
    CLocalDBUserExtractor extractor;
    ASSERT_NE(0u, extractor.GetProvider());
    EXPECT_EQ(GuidText(db.hostId), ContainerOf(extractor.GetProvider()));
}

TEST_F(UserExtractorTest, ConstructionWithoutTheHostKeyLeavesNoContainerAndEnumerationFails)
{
    Db20Database db = Write(SmallOptions(12, 2));
    DeleteTree(kHostKey, kView32);
    CLocalDBUserExtractor extractor;
    EXPECT_EQ(0u, extractor.GetProvider());

    NV_USER_RECORD* users = nullptr;
    DWORD count = 0xdeadbeef;
    const HRESULT hr = extractor.EnumerateUsers(&users, &count);
    EXPECT_EQ(E_INVALIDARG, hr); // CryptGetUserKey on no provider
    EXPECT_EQ(2u, count);
    ASSERT_NE(nullptr, users);
    EXPECT_EQ(nullptr, users[0].pSid);
    EXPECT_EQ(nullptr, users[1].pSid);
    EXPECT_EQ(S_OK, extractor.FreeUsers(users));
}

TEST_F(UserExtractorTest, AMissingHostIdValueLeavesNoContainerEvenWhenTheZeroContainerExists)
{
    m_containers.Create(GUID_NULL);
    CreateKeyPath(kHostKey, kView32);
    CLocalDBUserExtractor extractor;
    EXPECT_EQ(0u, extractor.GetProvider());
}

TEST_F(UserExtractorTest, AnEmptyShortOrStringHostIdNamesTheZeroGuidContainer)
{
    m_containers.Create(GUID_NULL);
    const std::wstring zero = L"{00000000-0000-0000-0000-000000000000}";

    SetBinary(kHostKey, L"HostId", {}, kView32);
    {
        CLocalDBUserExtractor extractor;
        ASSERT_NE(0u, extractor.GetProvider());
        EXPECT_EQ(zero, ContainerOf(extractor.GetProvider()));
    }
    SetBinary(kHostKey, L"HostId", std::vector<BYTE>(15, 0x42), kView32);
    {
        CLocalDBUserExtractor extractor;
        EXPECT_EQ(zero, ContainerOf(extractor.GetProvider()));
    }
    SetString(kHostKey, L"HostId", L"{12345678-1234-1234-1234-123456789012}", kView32);
    {
        CLocalDBUserExtractor extractor;
        EXPECT_EQ(zero, ContainerOf(extractor.GetProvider()));
    }
}

TEST_F(UserExtractorTest, TheHostIdIsReadInNetworkByteOrder)
{
    const GUID host = {0x01020304, 0x0506, 0x0708, {0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10}};
    m_containers.Create(host);
    SetBinary(kHostKey, L"HostId", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}, kView32);
    CLocalDBUserExtractor extractor;
    EXPECT_EQ(L"{01020304-0506-0708-090A-0B0C0D0E0F10}", ContainerOf(extractor.GetProvider()));
}

TEST_F(UserExtractorTest, ADatabaseWithoutUserKeysGivesCountZero)
{
    Db20Database db = Write(SmallOptions(13, 0));
    CLocalDBUserExtractor extractor;
    NV_USER_RECORD* users = nullptr;
    DWORD count = 0xdeadbeef;
    EXPECT_EQ(S_OK, extractor.EnumerateUsers(&users, &count));
    EXPECT_EQ(0u, count);
    ASSERT_NE(nullptr, users);
    // A block of size 0 is refused like a null one.
    EXPECT_EQ(E_INVALIDARG, extractor.FreeUsers(users));
    ::LocalFree(users);
}

TEST_F(UserExtractorTest, AMissingUsersKeyFailsWithCountZeroAndNoArray)
{
    CLocalDBUserExtractor extractor;
    auto* sentinel = reinterpret_cast<NV_USER_RECORD*>(static_cast<ULONG_PTR>(0xdeadbeef));
    NV_USER_RECORD* users = sentinel;
    DWORD count = 0xdeadbeef;
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), extractor.EnumerateUsers(&users, &count));
    EXPECT_EQ(0u, count);
    EXPECT_EQ(sentinel, users);
}

TEST_F(UserExtractorTest, AnArrayThatCannotBeAllocatedFailsWithOutOfMemoryCountZeroAndNoArray)
{
    Db20Database db = Write(SmallOptions(15, 2));
    CLocalDBUserExtractor extractor;
    auto* sentinel = reinterpret_cast<NV_USER_RECORD*>(static_cast<ULONG_PTR>(0xdeadbeef));
    NV_USER_RECORD* users = sentinel;
    DWORD count = 0xdeadbeef;
    {
        ImportFault<decltype(&::LocalAlloc)> fault("LocalAlloc", nullptr, ERROR_NOT_ENOUGH_MEMORY, 1);
        EXPECT_EQ(E_OUTOFMEMORY, extractor.EnumerateUsers(&users, &count));
        EXPECT_EQ(1u, fault.failed());
    }
    EXPECT_EQ(0u, count);
    EXPECT_EQ(sentinel, users);
    // Nothing was kept: the next enumeration reads both users.
    ASSERT_EQ(S_OK, extractor.EnumerateUsers(&users, &count));
    EXPECT_EQ(2u, count);
    EXPECT_EQ(S_OK, extractor.FreeUsers(users));
}

TEST_F(UserExtractorTest, EveryUserIsReadIntoTheSlotOfItsKey)
{
    const Db20Database db = Write(SmallOptions(14, 12));
    CLocalDBUserExtractor extractor;
    NV_USER_RECORD* users = nullptr;
    DWORD count = 0;
    ASSERT_EQ(S_OK, extractor.EnumerateUsers(&users, &count));
    ASSERT_EQ(12u, count);
    EXPECT_EQ(12 * sizeof(NV_USER_RECORD), ::LocalSize(users));
    const auto order = InEnumerationOrder(db);
    ASSERT_EQ(12u, order.size());
    for (DWORD i = 0; i < count; ++i) {
        ASSERT_NE(nullptr, order[i]);
        ExpectUser(*order[i], users[i]);
        ExpectTemplates(extractor, *order[i]);
    }
    EXPECT_EQ(S_OK, extractor.FreeUsers(users));
}

TEST_F(UserExtractorTest, UnreadableUserKeysAreSkippedAndTheirSlotsStayZero)
{
    Db20Options options = SmallOptions(15, 4);
    options.defects = {{1, Db20Defect::StringDefaultValue}};
    Db20Database db = Write(options);
    // One more key without a default value and one that cannot be opened.
    const GUID noValue = {0x7FFFFFFF, 0, 0, {0, 0, 0, 0, 0, 0, 0, 1}};
    const GUID locked = {0x7FFFFFFF, 0, 0, {0, 0, 0, 0, 0, 0, 0, 2}};
    SetBinary(UserKey(noValue).c_str(), L"Other", {1}, kView32);
    CreateKeyPath(UserKey(locked).c_str(), kView32);
    {
        HKEY key = nullptr;
        ASSERT_EQ(ERROR_SUCCESS, ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, UserKey(locked).c_str(), 0,
                                                 WRITE_DAC | KEY_WOW64_32KEY, &key));
        PSECURITY_DESCRIPTOR sd = nullptr;
        ASSERT_TRUE(::ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:P", SDDL_REVISION_1, &sd, nullptr));
        ASSERT_EQ(ERROR_SUCCESS, ::RegSetKeySecurity(key, DACL_SECURITY_INFORMATION, sd));
        ::LocalFree(sd);
        ::RegCloseKey(key);
    }

    CLocalDBUserExtractor extractor;
    NV_USER_RECORD* users = nullptr;
    DWORD count = 0;
    ASSERT_EQ(S_OK, extractor.EnumerateUsers(&users, &count));
    ASSERT_EQ(6u, count);
    const std::vector<std::wstring> names = SubkeyNames(kDataUsersPath, kView32);
    for (DWORD i = 0; i < count; ++i) {
        SCOPED_TRACE(Narrow(names[i]));
        const Db20User* model = nullptr;
        for (const Db20User& u : db.users)
            if (GuidText(u.guid) == names[i])
                model = &u;
        if (model && model->defect == Db20Defect::None) {
            ExpectUser(*model, users[i]);
        } else {
            EXPECT_TRUE(IsEqualGUID(GUID_NULL, users[i].guidUser));
            EXPECT_EQ(nullptr, users[i].pSid);
            EXPECT_EQ(0u, users[i].dwTemplateMask);
            EXPECT_EQ(0u, users[i].dwAccountControl);
        }
    }
    EXPECT_EQ(S_OK, extractor.FreeUsers(users));

    // Unlock for the sandbox.
    HKEY key = nullptr;
    ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, UserKey(locked).c_str(), 0, WRITE_DAC | KEY_WOW64_32KEY, &key);
    PSECURITY_DESCRIPTOR sd = nullptr;
    ::ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:(A;;KA;;;BA)", SDDL_REVISION_1, &sd, nullptr);
    ::RegSetKeySecurity(key, DACL_SECURITY_INFORMATION, sd);
    ::LocalFree(sd);
    ::RegCloseKey(key);
}

TEST_F(UserExtractorTest, ACorruptSealEndsTheEnumerationAndLaterSlotsStayZero)
{
    for (Db20Defect defect : {Db20Defect::WrongMagic, Db20Defect::SealVersion1, Db20Defect::SealVersion3}) {
        WipeSuiteKeys();
        Db20Database db = MakeDb20Database(SmallOptions(16, 5));
        // Fix the order: the broken user is the third key.
        for (unsigned i = 0; i < 5; ++i)
            db.users[i].guid.Data1 = 0x10000000u * (i + 1);
        db.users[2].defect = defect;
        WriteModel(db);

        CLocalDBUserExtractor extractor;
        NV_USER_RECORD* users = nullptr;
        DWORD count = 0;
        EXPECT_EQ(NTE_BAD_DATA, extractor.EnumerateUsers(&users, &count));
        ASSERT_EQ(5u, count);
        ASSERT_NE(nullptr, users);
        ExpectUser(db.users[0], users[0]);
        ExpectUser(db.users[1], users[1]);
        for (int i = 2; i < 5; ++i) {
            EXPECT_TRUE(IsEqualGUID(GUID_NULL, users[i].guidUser));
            EXPECT_EQ(nullptr, users[i].pSid);
        }
        EXPECT_EQ(S_OK, extractor.FreeUsers(users));
    }
}

TEST_F(UserExtractorTest, ShortValuesAndSealsOfOtherShapesAreBadData)
{
    Db20Database db = Write(SmallOptions(17, 1));
    const std::wstring key = UserKey(db.users[0].guid);
    const DerBytes twoItems = der20::Seq({der20::Uint(2), der20::Octets(DerBytes{1, 2, 3})});
    const DerBytes threeItems = der20::Seq({der20::Uint(2), der20::Octets(DerBytes{1}), der20::Uint(0)});
    auto sealed = [](const DerBytes& seq) {
        DerBytes v(4 + seq.size());
        std::memcpy(v.data(), "NVOA", 4);
        std::copy(seq.begin(), seq.end(), v.begin() + 4);
        return v;
    };
    const std::vector<std::vector<BYTE>> values = {
        {}, {'N', 'V', 'O'}, {'N', 'V', 'O', 'A'}, sealed(threeItems), sealed(der20::Seq({der20::Uint(2)})),
        sealed(DerBytes{0x30, 0x80}),
    };
    for (const auto& value : values) {
        SetBinary(key.c_str(), L"", value, kView32);
        CLocalDBUserExtractor extractor;
        NV_USER_RECORD* users = nullptr;
        DWORD count = 0;
        EXPECT_EQ(NTE_BAD_DATA, extractor.EnumerateUsers(&users, &count)) << value.size();
        EXPECT_EQ(S_OK, extractor.FreeUsers(users));
    }
    // Version 2 with a payload whose key blob does not import: the import's error.
    SetBinary(key.c_str(), L"", sealed(twoItems), kView32);
    CLocalDBUserExtractor extractor;
    NV_USER_RECORD* users = nullptr;
    DWORD count = 0;
    const HRESULT hr = extractor.EnumerateUsers(&users, &count);
    EXPECT_TRUE(FAILED(hr));
    EXPECT_NE(NTE_BAD_DATA, hr);
    EXPECT_EQ(S_OK, extractor.FreeUsers(users));
}

TEST_F(UserExtractorTest, TwoUsersWithOneSidKeepTheTemplatesOfTheFirstInEnumerationOrder)
{
    Db20Database db = MakeDb20Database(SmallOptions(18, 2));
    db.users[0].guid.Data1 = 0x20000000;
    db.users[1].guid.Data1 = 0x10000000; // enumerated first
    db.users[0].credentials = {};
    db.users[0].credentials.push_back(MakeDb20Database(SmallOptions(99, 1)).users[0].credentials[0]);
    db.users[1].credentials = {};
    db.users[1].credentials.push_back(MakeDb20Database(SmallOptions(98, 1)).users[0].credentials[0]);
    db.users[1].sidText = db.users[0].sidText;
    db.users[1].accountControl = db.users[0].accountControl;
    WriteModel(db);

    CLocalDBUserExtractor extractor;
    NV_USER_RECORD* users = nullptr;
    DWORD count = 0;
    ASSERT_EQ(S_OK, extractor.EnumerateUsers(&users, &count));
    ASSERT_EQ(2u, count);
    ExpectUser(db.users[1], users[0]);
    ExpectUser(db.users[0], users[1]);
    EXPECT_EQ(1u, extractor.GetTemplateMap().size());
    ExpectTemplates(extractor, db.users[1]);
    EXPECT_EQ(S_OK, extractor.FreeUsers(users));
}

TEST_F(UserExtractorTest, LoadTemplatesForASidWithoutFingerprintsCreatesAnEmptyEntry)
{
    Db20Database db = Write(SmallOptions(19, 1));
    CLocalDBUserExtractor extractor;
    NV_USER_RECORD* users = nullptr;
    DWORD count = 0;
    ASSERT_EQ(S_OK, extractor.EnumerateUsers(&users, &count));
    const size_t before = extractor.GetTemplateMap().size();

    PSID other = SidFromText(L"S-1-5-21-9-9-9-500");
    CNVTemplateVector templates{std::make_shared<CNVTemplate>()};
    EXPECT_EQ(S_OK, extractor.LoadTemplatesToVector(other, templates));
    EXPECT_TRUE(templates.empty());
    EXPECT_EQ(before + 1, extractor.GetTemplateMap().size());
    ASSERT_EQ(1u, extractor.GetTemplateMap().count(L"S-1-5-21-9-9-9-500"));
    EXPECT_TRUE(extractor.GetTemplateMap().at(L"S-1-5-21-9-9-9-500").empty());
    ::LocalFree(other);
    EXPECT_EQ(S_OK, extractor.FreeUsers(users));
}

TEST_F(UserExtractorTest, LoadedTemplatesShareTheExtractorsObjects)
{
    Db20Database db = Write(SmallOptions(20, 1));
    ASSERT_NE(nullptr, FirstFingerprint(db.users[0]));
    CNVTemplateVector templates;
    {
        CLocalDBUserExtractor extractor;
        NV_USER_RECORD* users = nullptr;
        DWORD count = 0;
        ASSERT_EQ(S_OK, extractor.EnumerateUsers(&users, &count));
        ASSERT_EQ(S_OK, extractor.LoadTemplatesToVector(users[0].pSid, templates));
        ASSERT_FALSE(templates.empty());
        EXPECT_EQ(2, templates[0].use_count());
        EXPECT_EQ(S_OK, extractor.FreeUsers(users));
    }
    // The lists outlive the extractor.
    EXPECT_EQ(1, templates[0].use_count());
    EXPECT_EQ(FirstFingerprint(db.users[0])->templates[0].data, templates[0]->m_data);
}

TEST_F(UserExtractorTest, FreeUsersRefusesANullBlockAndToleratesNullSids)
{
    CLocalDBUserExtractor extractor;
    EXPECT_EQ(E_INVALIDARG, extractor.FreeUsers(nullptr));

    auto* block = static_cast<NV_USER_RECORD*>(::LocalAlloc(LMEM_ZEROINIT, 3 * sizeof(NV_USER_RECORD) + 8));
    ASSERT_NE(nullptr, block);
    block[1].pSid = SidFromText(L"S-1-5-18");
    EXPECT_EQ(S_OK, extractor.FreeUsers(block));
}

TEST_F(UserExtractorTest, SecretsAreLoadedDecodedAndOpened)
{
    Db20Database db = MakeDb20Database(SmallOptions(21, 3));
    for (Db20User& u : db.users)
        u.store = db.computerName;
    // One user with every kind of secret.
    Db20User& u = db.users[0];
    u.secrets.clear();
    Db20Secret logon = MakeDb20Database(SmallOptions(22, 1)).users[0].secrets.at(0);
    ASSERT_TRUE(logon.combined);
    u.secrets.push_back(logon);
    Db20Secret older;
    older.valueName = older.name = L"Older Secret";
    older.typeCode = kDb20OlderSecretTypeCode;
    older.headerGuid = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
    older.headerValue = 7;
    older.guid = {0xAABBCCDD, 0xEEFF, 0x0011, {0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99}};
    older.content = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    u.secrets.push_back(older);
    Db20Secret longName;
    longName.valueName = L"Long";
    longName.name = L"A name that is longer than thirty-one characters";
    longName.guid = {5, 6, 7, {8, 9, 10, 11, 12, 13, 14, 15}};
    longName.content = std::vector<BYTE>(1000, 0x5C);
    u.secrets.push_back(longName);
    Db20Secret empty;
    empty.valueName = empty.name = L"Empty content";
    u.secrets.push_back(empty);
    u.accountControlField = L"ACCOUNTCONTROL";
    WriteModel(db);

    CLocalDBUserExtractor extractor;
    NV_USER_RECORD* users = nullptr;
    DWORD count = 0;
    ASSERT_EQ(S_OK, extractor.EnumerateUsers(&users, &count));
    const auto order = InEnumerationOrder(db);
    for (DWORD i = 0; i < count; ++i)
        ExpectSecrets(extractor, *order[i], users[i]);
    EXPECT_EQ(S_OK, extractor.FreeUsers(users));

    // Opening the record set stamped the database.
    std::wstring version;
    ASSERT_TRUE(GetString(L"SOFTWARE\\Norvane\\DB", L"Version", kView32, &version));
    EXPECT_EQ(L"2.1", version);
}

TEST_F(UserExtractorTest, ASecretWithoutContentProducesNothing)
{
    CNVSecret secret;
    DWORD cb = 0xdeadbeef;
    BYTE* pb = reinterpret_cast<BYTE*>(static_cast<ULONG_PTR>(0xdeadbeef));
    EXPECT_FALSE(secret.GetContent(nullptr, &cb, &pb));
    EXPECT_EQ(0xdeadbeefu, cb);
    EXPECT_EQ(reinterpret_cast<BYTE*>(static_cast<ULONG_PTR>(0xdeadbeef)), pb);
}

TEST_F(UserExtractorTest, ContentThatDoesNotOpenRaisesTheCryptoError)
{
    Db20Database db = Write(SmallOptions(23, 0));
    CNVSecret secret;
    const DerBytes bogus = der20::Seq({der20::Octets(DerBytes{1, 2, 3}), der20::Octets(DerBytes(8, 0))});
    secret.m_content.Assign(bogus.data(), static_cast<DWORD>(bogus.size()));
    DWORD cb = 0;
    BYTE* pb = nullptr;
    try {
        secret.GetContent(nullptr, &cb, &pb);
        FAIL() << "no exception";
    } catch (const _com_error& e) {
        EXPECT_TRUE(FAILED(e.Error()));
    }
}

TEST_F(UserExtractorTest, SecretFieldsOfOddShapesAreDecodedLeniently)
{
    Db20Database db = MakeDb20Database(SmallOptions(24, 1));
    db.users[0].store = db.computerName;
    db.users[0].secrets.clear();
    WriteModel(db);
    const Db20User& u = db.users[0];
    nv::unique_hcryptprov prov = Provider(db);
    const FILETIME when{0, 0x01D00000};
    auto record = [&](const DerBytes& data) {
        ExportRecordItems items;
        items.data = data;
        items.time = when;
        return MakeExportRecord(prov.get(), items);
    };
    using namespace der20;
    const GUID g = {0x11111111, 0x2222, 0x3333, {0x44, 0x44, 0x44, 0x44, 0x44, 0x44, 0x44, 0x44}};
    const DerBytes header = Seq({GuidOctets(g), Uint(kDb20SecretTypeCode), Uint(3)});
    const DerBytes full = Seq({header, GuidOctets(g), Text(L"Inner"), Octets(DerBytes{9, 9})});
    const DerBytes octetName =
        Seq({header, GuidOctets(g), NameValue(CERT_RDN_OCTET_STRING, reinterpret_cast<const BYTE*>(L"Hi"), 6),
             Octets(DerBytes{1})});
    const std::wstring key = UserKey(u.guid);
    SetBinary(key.c_str(), L"One item", record(Seq({full})), kView32);
    SetBinary(key.c_str(), L"No record", {0xDE, 0xAD, 0xBE, 0xEF}, kView32);
    SetBinary(key.c_str(), L"Octet name", record(octetName), kView32);
    SetBinary(key.c_str(), L"Short guid", record(Seq({header, Octets(DerBytes(15, 1)), Text(L"S")})), kView32);
    SetBinary(key.c_str(), L"accountCONTROL", {1, 2, 3, 4}, kView32);

    CLocalDBUserExtractor extractor;
    NV_USER_RECORD* users = nullptr;
    DWORD count = 0;
    ASSERT_EQ(S_OK, extractor.EnumerateUsers(&users, &count));
    CNVSecretMap secrets;
    ASSERT_EQ(S_OK, extractor.InternalLoadSecretsToMap(users[0], secrets));
    ASSERT_EQ(4u, secrets.size());

    // One item: that item alone is the record.
    const CNVSecret& one = *secrets.at(_bstr_t(L"One item"));
    EXPECT_TRUE(IsEqualGUID(g, one.m_info.guidSecret));
    EXPECT_EQ(std::wstring(L"Inner"), one.m_info.wszName);
    EXPECT_EQ(3u, one.m_info.header.dwValue);
    EXPECT_EQ((std::vector<BYTE>{9, 9}), BlobBytes(one.m_content));

    // Not an export record: an empty secret of the current type code.
    const CNVSecret& none = *secrets.at(_bstr_t(L"No record"));
    EXPECT_EQ(kSecretTypeCode, none.m_info.header.dwTypeCode);
    EXPECT_TRUE(IsEqualGUID(GUID_NULL, none.m_info.guidSecret));
    EXPECT_EQ(std::wstring(), none.m_info.wszName);
    EXPECT_TRUE(none.m_content.IsEmpty());

    const CNVSecret& octet = *secrets.at(_bstr_t(L"Octet name"));
    EXPECT_EQ(std::wstring(), octet.m_info.wszName);
    EXPECT_TRUE(IsEqualGUID(g, octet.m_info.guidSecret));

    const CNVSecret& shortGuid = *secrets.at(_bstr_t(L"Short guid"));
    EXPECT_TRUE(IsEqualGUID(GUID_NULL, shortGuid.m_info.guidSecret));
    EXPECT_EQ(std::wstring(L"S"), shortGuid.m_info.wszName);
    EXPECT_TRUE(shortGuid.m_content.IsEmpty());
    EXPECT_EQ(S_OK, extractor.FreeUsers(users));
}

TEST_F(UserExtractorTest, DecodingASecretFieldReportsSFalseForShortLists)
{
    using namespace der20;
    const GUID g = {0x11111111, 0x2222, 0x3333, {0x44, 0x44, 0x44, 0x44, 0x44, 0x44, 0x44, 0x44}};
    const DerBytes full = Seq({Seq({GuidOctets(g), Uint(kDb20SecretTypeCode), Uint(3)}), GuidOctets(g), Text(L"N"),
                               Octets(DerBytes{7})});
    CNVSecret secret;
    CRYPT_DATA_BLOB field{static_cast<DWORD>(full.size()), const_cast<BYTE*>(full.data())};
    EXPECT_EQ(S_OK, LegacyNVDB2::DecodeSecretField(nullptr, field, secret));
    EXPECT_EQ(std::wstring(L"N"), secret.m_info.wszName);

    const DerBytes one = Seq({full});
    field = {static_cast<DWORD>(one.size()), const_cast<BYTE*>(one.data())};
    EXPECT_EQ(S_FALSE, LegacyNVDB2::DecodeSecretField(nullptr, field, secret));
    EXPECT_EQ(std::wstring(L"N"), secret.m_info.wszName);
    EXPECT_EQ((std::vector<BYTE>{7}), BlobBytes(secret.m_content));

    const DerBytes none = Seq({});
    field = {static_cast<DWORD>(none.size()), const_cast<BYTE*>(none.data())};
    EXPECT_EQ(S_FALSE, LegacyNVDB2::DecodeSecretField(nullptr, field, secret));
    EXPECT_EQ(std::wstring(), secret.m_info.wszName);
    EXPECT_EQ(kSecretTypeCode, secret.m_info.header.dwTypeCode);
    EXPECT_TRUE(secret.m_content.IsEmpty());
}

TEST_F(UserExtractorTest, AStringSecretFieldEndsTheLoadWithInvalidData)
{
    Db20Database db = MakeDb20Database(SmallOptions(25, 1));
    db.users[0].store = db.computerName;
    WriteModel(db);
    SetString(UserKey(db.users[0].guid).c_str(), L"Text field", L"abc", kView32);
    CLocalDBUserExtractor extractor;
    NV_USER_RECORD* users = nullptr;
    DWORD count = 0;
    ASSERT_EQ(S_OK, extractor.EnumerateUsers(&users, &count));
    CNVSecretMap secrets;
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_INVALID_DATA), extractor.InternalLoadSecretsToMap(users[0], secrets));
    EXPECT_EQ(S_OK, extractor.FreeUsers(users));
}

TEST_F(UserExtractorTest, SecretsOfAUserWithoutAKeyFailWithFileNotFound)
{
    Db20Database db = Write(SmallOptions(26, 0));
    CLocalDBUserExtractor extractor;
    NV_USER_RECORD user{};
    user.guidUser = {0x99999999, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0}};
    CNVSecretMap secrets;
    secrets[_bstr_t(L"kept")] = nullptr;
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), extractor.InternalLoadSecretsToMap(user, secrets));
    EXPECT_TRUE(secrets.empty());
}

TEST_F(UserExtractorTest, TwoHundredUserDatabaseReadsBackExactly)
{
    Db20Options options = SmallOptions(2024, 200);
    options.domainCount = 3;
    const Db20Database db = Write(options);

    CLocalDBUserExtractor extractor;
    NV_USER_RECORD* users = nullptr;
    DWORD count = 0;
    ASSERT_EQ(S_OK, extractor.EnumerateUsers(&users, &count));
    ASSERT_EQ(200u, count);
    const auto order = InEnumerationOrder(db);
    ASSERT_EQ(200u, order.size());
    size_t templates = 0, secrets = 0;
    for (DWORD i = 0; i < count; ++i) {
        ASSERT_NE(nullptr, order[i]);
        ExpectUser(*order[i], users[i]);
        ExpectTemplates(extractor, *order[i]);
        ExpectSecrets(extractor, *order[i], users[i]);
        if (const Db20Credential* fp = FirstFingerprint(*order[i]))
            templates += fp->templates.size();
        secrets += order[i]->secrets.size();
    }
    // The database is not a trivial one.
    EXPECT_GT(templates, 300u);
    EXPECT_GT(secrets, 300u);
    EXPECT_EQ(S_OK, extractor.FreeUsers(users));
}

TEST_F(UserExtractorTest, ConstructionErrorsAreOnlyTraced)
{
    TraceCapture trace;
    trace.Start();
    {
        CLocalDBUserExtractor extractor;
        EXPECT_EQ(0u, extractor.GetProvider());
    }
    CreateKeyPath(kHostKey, kView32);
    {
        CLocalDBUserExtractor extractor;
    }
    SetBinary(kHostKey, L"HostId", {}, kView32);
    {
        // No container of the zero GUID here: acquiring fails after the empty value's line.
        CLocalDBUserExtractor extractor;
        EXPECT_EQ(0u, extractor.GetProvider());
    }
    EXPECT_EQ((std::vector<std::string>{
                  "> CLocalDBUserExtractor::CLocalDBUserExtractor", "E -2147024894 ", "<",
                  "> CLocalDBUserExtractor::CLocalDBUserExtractor", "E -2147024894 ", "<",
                  "> CLocalDBUserExtractor::CLocalDBUserExtractor", "U HostId value is empty", "E -2146893802 ", "<"}),
              trace.Lines());
}

TEST_F(UserExtractorTest, SkippedKeysAreTracedWithTheirNames)
{
    Db20Options options = SmallOptions(27, 1);
    Db20Database db = Write(options);
    // Enumerated before any generated user.
    const GUID stringValue = {0x00000000, 0, 0, {0, 0, 0, 0, 0, 0, 0, 1}};
    const GUID noValue = {0x00000000, 0, 0, {0, 0, 0, 0, 0, 0, 0, 2}};
    SetString(UserKey(stringValue).c_str(), L"", L"text", kView32);
    CreateKeyPath(UserKey(noValue).c_str(), kView32);

    TraceCapture trace;
    trace.Start();
    CLocalDBUserExtractor extractor;
    NV_USER_RECORD* users = nullptr;
    DWORD count = 0;
    ASSERT_EQ(S_OK, extractor.EnumerateUsers(&users, &count));
    EXPECT_EQ(S_OK, extractor.FreeUsers(users));

    const std::vector<std::string> scope = trace.LinesInScope("CLocalDBUserExtractor::EnumerateUsers");
    ASSERT_GE(scope.size(), 4u);
    const std::vector<std::string> skipped(scope.begin(), scope.begin() + 4);
    EXPECT_EQ((std::vector<std::string>{"U cannot get data from key: <" + Narrow(GuidText(stringValue)) + ">",
                                        "E -2147024883 ",
                                        "U cannot get data from key: <" + Narrow(GuidText(noValue)) + ">",
                                        "E -2147024894 "}),
              skipped)
        << trace.Dump();
    EXPECT_EQ(1u, trace.Count("> CLocalDBUserExtractor::ParseUserBlob"));
}

TEST_F(UserExtractorTest, AKeyThatCannotBeOpenedIsTracedAndSkipped)
{
    Db20Database db = Write(SmallOptions(28, 0));
    const GUID locked = {0x7FFFFFFF, 0, 0, {0, 0, 0, 0, 0, 0, 0, 3}};
    CreateKeyPath(UserKey(locked).c_str(), kView32);
    auto setDacl = [&](const wchar_t* sddl) {
        HKEY key = nullptr;
        ASSERT_EQ(ERROR_SUCCESS, ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, UserKey(locked).c_str(), 0,
                                                 WRITE_DAC | KEY_WOW64_32KEY, &key));
        PSECURITY_DESCRIPTOR sd = nullptr;
        ASSERT_TRUE(::ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1, &sd, nullptr));
        EXPECT_EQ(ERROR_SUCCESS, ::RegSetKeySecurity(key, DACL_SECURITY_INFORMATION, sd));
        ::LocalFree(sd);
        ::RegCloseKey(key);
    };
    setDacl(L"D:P");

    TraceCapture trace;
    trace.Start();
    CLocalDBUserExtractor extractor;
    NV_USER_RECORD* users = nullptr;
    DWORD count = 0;
    EXPECT_EQ(S_OK, extractor.EnumerateUsers(&users, &count));
    EXPECT_EQ(1u, count);
    EXPECT_EQ((std::vector<std::string>{"U cannot open key: <" + Narrow(GuidText(locked)) + ">", "E -2147024891 "}),
              trace.LinesInScope("CLocalDBUserExtractor::EnumerateUsers"));
    EXPECT_EQ(S_OK, extractor.FreeUsers(users));
    setDacl(L"D:(A;;KA;;;BA)");
}

TEST_F(UserExtractorTest, ACorruptSealIsTheEnumerationsTracedResult)
{
    Db20Options options = SmallOptions(29, 1);
    options.defects = {{0, Db20Defect::WrongMagic}};
    Write(options);
    TraceCapture trace;
    trace.Start();
    CLocalDBUserExtractor extractor;
    NV_USER_RECORD* users = nullptr;
    DWORD count = 0;
    EXPECT_EQ(NTE_BAD_DATA, extractor.EnumerateUsers(&users, &count));
    EXPECT_EQ(S_OK, extractor.FreeUsers(users));
    EXPECT_EQ((std::vector<std::string>{"E -2146893819 "}), trace.LinesInScope("CLocalDBUserExtractor::EnumerateUsers"));
}

TEST_F(UserExtractorTest, FreeUsersTracesInvalidArgument)
{
    CLocalDBUserExtractor extractor;
    TraceCapture trace;
    trace.Start();
    EXPECT_EQ(E_INVALIDARG, extractor.FreeUsers(nullptr));
    EXPECT_EQ((std::vector<std::string>{"> CLocalDBUserExtractor::FreeUsers", "E -2147024809 ", "<"}), trace.Lines());
}

TEST_F(UserExtractorTest, GetContentTracesEachStepAndNoSecret)
{
    const std::vector<BYTE> content = {'p', 'a', 's', 's', 'w', 'o', 'r', 'd', '4', '2'};
    CNVSecretMap secrets;
    ASSERT_NO_FATAL_FAILURE(LoadOnePlainSecret(30, content, secrets));

    TraceCapture trace;
    trace.Start();
    bool produced = false;
    EXPECT_EQ(content, ContentOf(*secrets.begin()->second, &produced));
    const std::vector<std::string> lines = trace.LinesInScope("CNVSecret::GetContent");
    const std::vector<std::string> own = {"U Encryption context created", "U Secret copied", "U Decrypting Secret...",
                                          "U Secret decrypted", "U Secret ready to be returned"};
    std::vector<std::string> ownLines;
    for (const std::string& line : lines)
        if (std::find(own.begin(), own.end(), line) != own.end())
            ownLines.push_back(line);
    EXPECT_EQ(own, ownLines) << trace.Dump();
    for (const std::string& line : trace.AllLines())
        EXPECT_EQ(std::string::npos, line.find("password42")) << line;
}

// Given a public key, GetContent seals the opened content for its holder, in the
// stored form of every secret: SEQUENCE { OCTET STRING SIMPLEBLOB of a 3DES session
// key under that key, OCTET STRING the content encrypted with the session key }.
// Only the private half of that key opens it again.
TEST_F(UserExtractorTest, GetContentWithAPublicKeySealsTheContentForThatKeysHolder)
{
    const std::vector<BYTE> content = {'r', 'e', 's', 'e', 'a', 'l', 'e', 'd', '-', '9', '9'};
    CNVSecretMap secrets;
    ASSERT_NO_FATAL_FAILURE(LoadOnePlainSecret(32, content, secrets));
    std::vector<BYTE> publicKeyInfo = RecipientPublicKeyInfo();
    CRYPT_DATA_BLOB publicKey{static_cast<DWORD>(publicKeyInfo.size()), publicKeyInfo.data()};

    TraceCapture trace;
    trace.Start();
    DWORD cb = 0xdeadbeef;
    BYTE* pb = nullptr;
    ASSERT_TRUE(secrets.begin()->second->GetContent(&publicKey, &cb, &pb));
    const std::vector<BYTE> sealed(pb, pb + cb);
    ::CoTaskMemFree(pb);
    const std::vector<std::string> steps = {"U Encryption context created", "U Secret copied",
                                            "U Decrypting Secret...",       "U Secret decrypted",
                                            "U Secret encrypted with user public key!!!!",
                                            "U Secret ready to be returned"};
    EXPECT_EQ(steps, LinesAmong(trace.LinesInScope("CNVSecret::GetContent"), steps)) << trace.Dump();

    const std::vector<std::vector<BYTE>> items = SequenceItems(sealed);
    ASSERT_EQ(2u, items.size());
    const std::vector<BYTE> keyBlob = OctetsOf(items[0]);
    std::vector<BYTE> cipher = OctetsOf(items[1]);
    ASSERT_GE(keyBlob.size(), sizeof(BLOBHEADER) + sizeof(ALG_ID));
    const auto* header = reinterpret_cast<const BLOBHEADER*>(keyBlob.data());
    EXPECT_EQ(SIMPLEBLOB, header->bType);
    EXPECT_EQ(static_cast<ALG_ID>(CALG_3DES), header->aiKeyAlg);
    // 3DES in its default mode pads to whole 8-byte blocks.
    EXPECT_EQ(16u, cipher.size());
    EXPECT_EQ(cipher.end(), std::search(cipher.begin(), cipher.end(), content.begin(), content.end()));

    // The machine's own key does not open it; the recipient's does.
    {
        // LoadOnePlainSecret's database, drawn again.
        nv::unique_hcryptprov machine = OpenMachineContainer(MakeDb20Database(SmallOptions(32, 1)).hostId);
        nv::unique_hcryptkey exchange;
        ASSERT_TRUE(::CryptGetUserKey(machine.get(), AT_KEYEXCHANGE, exchange.put()));
        nv::unique_hcryptkey session;
        EXPECT_FALSE(::CryptImportKey(machine.get(), keyBlob.data(), static_cast<DWORD>(keyBlob.size()),
                                      exchange.get(), 0, session.put()));
        EXPECT_EQ(static_cast<DWORD>(NTE_BAD_DATA), ::GetLastError());
    }
    nv::unique_hcryptprov recipient = OpenMachineContainer(kOtherHostId);
    nv::unique_hcryptkey exchange;
    ASSERT_TRUE(::CryptGetUserKey(recipient.get(), AT_KEYEXCHANGE, exchange.put()));
    nv::unique_hcryptkey session;
    ASSERT_TRUE(::CryptImportKey(recipient.get(), keyBlob.data(), static_cast<DWORD>(keyBlob.size()), exchange.get(),
                                 0, session.put()))
        << std::hex << ::GetLastError();
    DWORD cbPlain = static_cast<DWORD>(cipher.size());
    ASSERT_TRUE(::CryptDecrypt(session.get(), 0, TRUE, 0, cipher.data(), &cbPlain)) << std::hex << ::GetLastError();
    cipher.resize(cbPlain);
    EXPECT_EQ(content, cipher);
    ::SecureZeroMemory(cipher.data(), cipher.size());
    for (const std::string& line : trace.AllLines())
        EXPECT_EQ(std::string::npos, line.find("resealed-99")) << line;
}

TEST_F(UserExtractorTest, GetContentWithAKeyThatIsNoPublicKeyInfoRaisesTheDecodersError)
{
    const std::vector<BYTE> content = {'k', 'e', 'y', 'l', 'e', 's', 's'};
    CNVSecretMap secrets;
    ASSERT_NO_FATAL_FAILURE(LoadOnePlainSecret(33, content, secrets));
    // An OCTET STRING where a SEQUENCE belongs.
    std::vector<BYTE> notAKey = {0x04, 0x03, 0x01, 0x02, 0x03};
    CRYPT_DATA_BLOB publicKey{static_cast<DWORD>(notAKey.size()), notAKey.data()};
    DWORD cb = 0xdeadbeef;
    BYTE* pb = reinterpret_cast<BYTE*>(static_cast<ULONG_PTR>(0xdeadbeef));
    HRESULT raised = S_OK;
    try {
        secrets.begin()->second->GetContent(&publicKey, &cb, &pb);
    } catch (const _com_error& e) {
        raised = e.Error();
    }
    EXPECT_EQ(CRYPT_E_ASN1_BADTAG, raised);
    EXPECT_EQ(0xdeadbeefu, cb);
    EXPECT_EQ(reinterpret_cast<BYTE*>(static_cast<ULONG_PTR>(0xdeadbeef)), pb);
    // The content itself is still there for a call without a key.
    bool produced = false;
    EXPECT_EQ(content, ContentOf(*secrets.begin()->second, &produced));
}

TEST_F(UserExtractorTest, ASecondGetContentHandsOutTheSameBytesWithoutUnwrappingAgainAndTracesTheSame)
{
    const std::vector<BYTE> content = {'s', 'e', 'c', 'o', 'n', 'd', '7'};
    CNVSecretMap secrets;
    ASSERT_NO_FATAL_FAILURE(LoadOnePlainSecret(31, content, secrets));
    CNVSecret& secret = *secrets.begin()->second;

    std::vector<std::vector<std::string>> traces;
    std::vector<unsigned> decodes;
    for (int call = 0; call < 2; ++call) {
        TraceCapture trace;
        trace.Start();
        ApiFaults faults; // counts the decoder's calls
        bool produced = false;
        EXPECT_EQ(content, ContentOf(secret, &produced));
        EXPECT_TRUE(produced);
        decodes.push_back(faults.DecodeCalls());
        traces.push_back(trace.LinesInScope("CNVSecret::GetContent"));
    }
    EXPECT_GT(decodes[0], 0u);
    EXPECT_EQ(0u, decodes[1]) << "the sealed content was read again";
    EXPECT_FALSE(traces[0].empty());
    EXPECT_EQ(traces[0], traces[1]);

    // The kept bytes are the content itself: the sealed form is not looked at again.
    secret.m_content.Assign(reinterpret_cast<const BYTE*>("garbage"), 7);
    bool produced = false;
    EXPECT_EQ(content, ContentOf(secret, &produced));
}

TEST_F(UserExtractorTest, GetContentWithAPublicKeyRaisesEachEncodersErrorAndHandsOutNothing)
{
    const std::vector<BYTE> content = {'e', 'n', 'c', 'o', 'd', 'e', 'r'};
    CNVSecretMap secrets;
    ASSERT_NO_FATAL_FAILURE(LoadOnePlainSecret(34, content, secrets));
    std::vector<BYTE> publicKeyInfo = RecipientPublicKeyInfo();
    CRYPT_DATA_BLOB publicKey{static_cast<DWORD>(publicKeyInfo.size()), publicKeyInfo.data()};
    CNVSecret& secret = *secrets.begin()->second;

    // Size query and encoding of the wrapped key, of the encrypted content, of the list.
    unsigned encodes = 0;
    {
        ApiFaults faults;
        DWORD cb = 0;
        BYTE* pb = nullptr;
        ASSERT_TRUE(secret.GetContent(&publicKey, &cb, &pb));
        ::CoTaskMemFree(pb);
        encodes = faults.EncodeCalls();
    }
    ASSERT_EQ(6u, encodes);
    for (unsigned n = 1; n <= encodes; ++n) {
        SCOPED_TRACE("failing encode " + std::to_string(n));
        ApiFaults faults;
        faults.FailEncode(n, static_cast<DWORD>(CRYPT_E_BAD_ENCODE));
        DWORD cb = 0xdeadbeef;
        BYTE* pb = reinterpret_cast<BYTE*>(static_cast<ULONG_PTR>(0xdeadbeef));
        HRESULT raised = S_OK;
        try {
            secret.GetContent(&publicKey, &cb, &pb);
        } catch (const _com_error& e) {
            raised = e.Error();
        }
        EXPECT_EQ(CRYPT_E_BAD_ENCODE, raised);
        EXPECT_EQ(0xdeadbeefu, cb);
        EXPECT_EQ(reinterpret_cast<BYTE*>(static_cast<ULONG_PTR>(0xdeadbeef)), pb);
    }
    bool produced = false;
    EXPECT_EQ(content, ContentOf(secret, &produced));
}

TEST_F(UserExtractorTest, GetContentWithAKeyBlobWithoutBytesHandsOutTheContentItself)
{
    const std::vector<BYTE> content = {'n', 'o', '-', 'k', 'e', 'y'};
    CNVSecretMap secrets;
    ASSERT_NO_FATAL_FAILURE(LoadOnePlainSecret(36, content, secrets));
    CNVSecret& secret = *secrets.begin()->second;
    BYTE unused = 0x30;
    for (const CRYPT_DATA_BLOB& key : {CRYPT_DATA_BLOB{0, &unused}, CRYPT_DATA_BLOB{4, nullptr}}) {
        DWORD cb = 0;
        BYTE* pb = nullptr;
        ASSERT_TRUE(secret.GetContent(&key, &cb, &pb));
        EXPECT_EQ(content, std::vector<BYTE>(pb, pb + cb));
        ::SecureZeroMemory(pb, cb);
        ::CoTaskMemFree(pb);
    }
}

TEST_F(UserExtractorTest, GetContentWithAPublicKeySealsAnEmptyContentAsOnePaddingBlock)
{
    CNVSecretMap secrets;
    ASSERT_NO_FATAL_FAILURE(LoadOnePlainSecret(37, {}, secrets));
    CNVSecret& secret = *secrets.begin()->second;
    bool produced = false;
    ASSERT_EQ(std::vector<BYTE>{}, ContentOf(secret, &produced));
    ASSERT_TRUE(produced);
    std::vector<BYTE> publicKeyInfo = RecipientPublicKeyInfo();
    CRYPT_DATA_BLOB publicKey{static_cast<DWORD>(publicKeyInfo.size()), publicKeyInfo.data()};
    DWORD cb = 0;
    BYTE* pb = nullptr;
    ASSERT_TRUE(secret.GetContent(&publicKey, &cb, &pb));
    const std::vector<BYTE> sealed(pb, pb + cb);
    ::CoTaskMemFree(pb);
    const std::vector<std::vector<BYTE>> items = SequenceItems(sealed);
    ASSERT_EQ(2u, items.size());
    std::vector<BYTE> cipher = OctetsOf(items[1]);
    EXPECT_EQ(8u, cipher.size());
    // Opened by the recipient: nothing.
    nv::unique_hcryptprov recipient = OpenMachineContainer(kOtherHostId);
    nv::unique_hcryptkey exchange;
    ASSERT_TRUE(::CryptGetUserKey(recipient.get(), AT_KEYEXCHANGE, exchange.put()));
    const std::vector<BYTE> keyBlob = OctetsOf(items[0]);
    nv::unique_hcryptkey session;
    ASSERT_TRUE(::CryptImportKey(recipient.get(), keyBlob.data(), static_cast<DWORD>(keyBlob.size()), exchange.get(),
                                 0, session.put()));
    DWORD cbPlain = static_cast<DWORD>(cipher.size());
    ASSERT_TRUE(::CryptDecrypt(session.get(), 0, TRUE, 0, cipher.data(), &cbPlain));
    EXPECT_EQ(0u, cbPlain);
}
