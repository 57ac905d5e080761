// The format 2.0 to 3.0 conversion through the exports of the real library, with
// the reference store registered: a database made by the 2.0 writer, converted by
// Convert, checked in the registry (both views), the store and the trace.
#include <windows.h>
#include <objbase.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "common/handles.h"
#include "common/storecontract.h"
#include "nvstore_inspect.h"
#include "support/conversion_fixture.h"
#include "support/dll_loader.h"
#include "support/import_patch.h"
#include "support/registry_sandbox.h"
#include "support/test_results.h"

using namespace nvtest;
namespace inspect = nvstore::inspect;

namespace {

RegValue SzValue(const std::wstring& text)
{
    RegValue v;
    v.type = REG_SZ;
    const BYTE* p = reinterpret_cast<const BYTE*>(text.c_str());
    v.data.assign(p, p + (text.size() + 1) * sizeof(wchar_t));
    return v;
}

bool StoreRegistered()
{
    IUnknown* p = nullptr;
    HRESULT hr = ::CoCreateInstance(nvstore::kClsidUserStore, nullptr, nvstore::kStoreClassContext,
                                    nvstore::kIidUserStore, reinterpret_cast<void**>(&p));
    if (p)
        p->Release();
    return SUCCEEDED(hr);
}

bool HasLogonSecret(const nvwriter::Db20User& u)
{
    for (const auto& s : u.secrets)
        if (s.valueName == nvwriter::kDb20LogonInfoSecret)
            return true;
    return false;
}

nvwriter::Db20Template MakeTemplate(unsigned position, BYTE fill, LONG headerValue = 7)
{
    return SampleTemplate(position, fill, 40 + fill % 16, headerValue);
}

nvwriter::Db20Credential FingerprintEntry(DWORD mask, std::vector<nvwriter::Db20Template> templates)
{
    nvwriter::Db20Credential c;
    c.credentialId = nvwriter::kDb20FingerprintCredentialId;
    c.mask = mask;
    c.templates = std::move(templates);
    return c;
}

nvwriter::Db20Secret PlainSecret(const std::wstring& name, BYTE fill)
{
    nvwriter::Db20Secret s;
    s.valueName = s.name = name;
    s.headerGuid = {0xABCDEF01, 0x1111, 0x2222, {3, 3, 3, 3, 3, 3, 3, fill}};
    s.guid = {0x12345678, 0x3333, 0x4444, {5, 5, 5, 5, 5, 5, 5, fill}};
    s.content.assign(24, fill);
    return s;
}

class Converter3ConvertTest : public Db20ConversionTest {
protected:
    struct Entry {
        std::wstring key; // the key name under Data\Users
        const nvwriter::Db20User* user;
    };
    // The users in the order the library enumerates them (the registry's order of
    // the keys under Data\Users).
    std::vector<Entry> InEnumerationOrder(const nvwriter::Db20Database& db)
    {
        std::map<std::wstring, const nvwriter::Db20User*> byKey;
        for (const auto& u : db.users)
            byKey[GuidText(u.guid)] = &u;
        std::vector<Entry> out;
        for (const std::wstring& key : SubkeyNames(kDataUsersPath, kView32))
            out.push_back({key, byKey[key]});
        return out;
    }
    // Writes the database; its users in the order the library enumerates them.
    std::vector<Entry> WriteInEnumerationOrder(const nvwriter::Db20Database& db)
    {
        WriteDatabase(db);
        return InEnumerationOrder(db);
    }
    // do_Convert's own lines are exactly these.
    void ExpectOwnConvertLines(const std::vector<std::string>& expected) const
    {
        EXPECT_EQ(expected, OwnLines(trace, "CConverter3::do_Convert"));
    }
    // The templates the store holds for the SID at positions `first` and `second`,
    // which are all it holds.
    static void ExpectTwoStoredTemplates(const std::wstring& sid, unsigned first, unsigned second,
                                         DecodedTemplate* atFirst, DecodedTemplate* atSecond)
    {
        const auto templates = inspect::ListTemplates(sid);
        ASSERT_EQ(2u, templates.size());
        ASSERT_TRUE(DecodeStoredTemplate(templates.at(first), atFirst));
        ASSERT_TRUE(DecodeStoredTemplate(templates.at(second), atSecond));
    }

    // The lines do_Convert writes for a user that converts, or fails at the point
    // the arguments say.
    static std::vector<std::string> UserLines(const std::wstring& sid, bool passwordSecret, bool retrievePayload,
                                              bool reachedDelete, HRESULT deleteResult, HRESULT status)
    {
        const std::string s = Narrow(sid);
        std::vector<std::string> lines{"U Conversion process began for '" + s + "'"};
        if (passwordSecret)
            lines.push_back("U Read password secret from old DB");
        if (retrievePayload)
            lines.push_back("U Retrieve payload");
        if (reachedDelete)
            lines.push_back("U DeleteKey('" + s + "'), " + Hex(deleteResult));
        lines.push_back("U Conversion process is over for '" + s + "', " + Hex(status));
        return lines;
    }

    // A new user that converts: its status is the last PutTemplate's, or the failed
    // first public key read when it has no template.
    static std::vector<std::string> ConvertedLines(const nvwriter::Db20User& u)
    {
        return UserLines(u.sidText, HasLogonSecret(u), true, true, S_OK,
                         ExpectedTemplates(u).empty() ? NTE_NO_KEY : S_OK);
    }

    static void Append(std::vector<std::string>& to, const std::vector<std::string>& more)
    {
        to.insert(to.end(), more.begin(), more.end());
    }

    static std::vector<std::wstring> PasswordsAndPins(const nvwriter::Db20Database& db)
    {
        std::vector<std::wstring> out;
        for (const auto& u : db.users)
            for (const auto& s : u.secrets)
                if (s.combined) {
                    out.push_back(s.password);
                    out.push_back(s.pin);
                }
        return out;
    }

    HRESULT ConvertOnce()
    {
        LoadedLibrary dll;
        EXPECT_TRUE(dll.loaded());
        return dll.Convert();
    }

    // The old database as it must look when nothing of it was converted: as
    // written, with the version the legacy reader stamps.
    static RegTree StampedSnapshot()
    {
        RegTree t = Snapshot(kDbPath, kView32);
        t.values[L"|Version"] = SzValue(L"2.1");
        return t;
    }
};

} // namespace

TEST_F(Converter3ConvertTest, DatabaseWithoutUsersConvertsToNothingAndIsCleanedUp)
{
    nvwriter::Db20Database db = MakeDatabase(0);
    WriteDatabase(db);
    ASSERT_TRUE(KeyExists(kDataUsersPath, kView32));
    {
        LoadedLibrary dll;
        ASSERT_TRUE(dll.loaded());
        ExpectDbVersions(dll, 0x00020000u, 0x00030000u, __LINE__);
        EXPECT_EQ(S_OK, dll.Convert());
    }
    EXPECT_EQ((std::vector<std::string>{}), OwnLines(trace, "CConverter3::do_Convert"));
    // No user: no per-user work, no store object.
    EXPECT_EQ(1u, trace.Count("> CLocalDBUserExtractor::EnumerateUsers"));
    EXPECT_EQ(0u, trace.Count("> CLocalDBUserExtractor::InternalLoadSecretsToMap"));
    EXPECT_EQ((std::vector<std::wstring>{}), inspect::ListUsers());
    // Cleanup inside Convert: the backup is gone, and with no user key left so are
    // Data and MainDB; the rest of the old database stays.
    EXPECT_EQ((std::vector<std::string>{"U Completely delete old DB"}), OwnLines(trace, "CConverter3::do_Cleanup"));
    EXPECT_FALSE(KeyExists(kDataPath, kView32));
    EXPECT_FALSE(KeyExists(kMainDbPath, kView32));
    EXPECT_EQ((std::vector<std::wstring>{}), SubkeyNames(kDbPath, kView32));
    EXPECT_FALSE(KeyExists(kBackup20Path, kView64));
    EXPECT_FALSE(KeyExists(kBackup20Path, kView32));
    std::wstring version;
    EXPECT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    EXPECT_EQ(L"2.0", version);
    RegValue backup;
    EXPECT_FALSE(GetValue(kDbPath, L"Backup", kView32, &backup));
}

TEST_F(Converter3ConvertTest, EveryUserMovesIntoTheStoreAndTheOldDatabaseIsRemoved)
{
    // Six users: with and without fingerprints, with and without a password secret,
    // an empty password, PINs, secrets with the older record description.
    nvwriter::Db20Database db = MakeDatabase(6, 11, 1);
    const auto order = WriteInEnumerationOrder(db);
    ASSERT_EQ(6u, order.size());
    ASSERT_TRUE(StoreRegistered());

    EXPECT_EQ(S_OK, ConvertOnce());

    std::vector<std::string> expected;
    for (const Entry& e : order)
        Append(expected, ConvertedLines(*e.user));
    EXPECT_EQ(expected, OwnLines(trace, "CConverter3::do_Convert")) << trace.Dump();
    for (const auto& u : db.users)
        ExpectUserConverted(u);
    std::vector<std::wstring> sids;
    for (const auto& u : db.users)
        sids.push_back(u.sidText);
    std::sort(sids.begin(), sids.end());
    EXPECT_EQ(sids, inspect::ListUsers());

    // Cleanup ran inside Convert: no user key left, so Data and MainDB are gone.
    EXPECT_EQ((std::vector<std::string>{"U Completely delete old DB"}), OwnLines(trace, "CConverter3::do_Cleanup"));
    EXPECT_FALSE(KeyExists(kDataPath, kView32));
    EXPECT_FALSE(KeyExists(kMainDbPath, kView32));
    EXPECT_TRUE(KeyExists(L"SOFTWARE\\Norvane\\DB\\Cache", kView32));
    EXPECT_FALSE(KeyExists(kBackup20Path, kView64));
    std::wstring version;
    EXPECT_TRUE(GetString(kDbPath, L"Version", kView32, &version));
    EXPECT_EQ(L"2.1", version);
    EXPECT_FALSE(KeyExists(kDbPath, kView64));
    ExpectNoneInTrace(trace, PasswordsAndPins(db));
}

// The store's class object is looked up once per conversion, however many users
// need store objects; every object is still made afresh for its user.
namespace {
int g_classObjectCalls = 0;
int g_createInstanceCalls = 0;
decltype(&::CoGetClassObject) g_realGetClassObject = nullptr;
decltype(&::CoCreateInstance) g_realCreateInstance = nullptr;
HRESULT WINAPI CountedGetClassObject(REFCLSID clsid, DWORD context, COSERVERINFO* info, REFIID iid, void** out)
{
    ++g_classObjectCalls;
    return g_realGetClassObject(clsid, context, info, iid, out);
}
HRESULT WINAPI CountedCreateInstance(REFCLSID clsid, IUnknown* outer, DWORD context, REFIID iid, void** out)
{
    ++g_createInstanceCalls;
    return g_realCreateInstance(clsid, outer, context, iid, out);
}
} // namespace

TEST_F(Converter3ConvertTest, OneConversionLooksTheStoreClassUpOnceForAllItsUsers)
{
    nvwriter::Db20Database db = MakeDatabase(4, 27);
    WriteDatabase(db);
    ASSERT_TRUE(StoreRegistered());
    g_classObjectCalls = g_createInstanceCalls = 0;
    {
        LoadedLibrary dll;
        ASSERT_TRUE(dll.loaded());
        ImportPatch patch(dll.module(), {{"CoGetClassObject", reinterpret_cast<void*>(&CountedGetClassObject)},
                                         {"CoCreateInstance", reinterpret_cast<void*>(&CountedCreateInstance)}});
        ASSERT_TRUE(patch.ok());
        g_realGetClassObject = reinterpret_cast<decltype(&::CoGetClassObject)>(patch.Original("CoGetClassObject"));
        g_realCreateInstance = reinterpret_cast<decltype(&::CoCreateInstance)>(patch.Original("CoCreateInstance"));
        ASSERT_NE(nullptr, g_realGetClassObject);
        EXPECT_EQ(S_OK, dll.Convert());
    }
    EXPECT_EQ(1, g_classObjectCalls);
    EXPECT_EQ(0, g_createInstanceCalls);
    for (const auto& u : db.users)
        ExpectUserConverted(u);
}

TEST_F(Converter3ConvertTest, OpenUserFailingForOneUserInTheMiddleLeavesItsKeyAndConvertsTheOthers)
{
    nvwriter::Db20Database db = MakeDatabase(3, 21);
    const auto order = WriteInEnumerationOrder(db);
    ASSERT_EQ(3u, order.size());
    const nvwriter::Db20User& failing = *order[1].user;
    inspect::SetFailOpenUser({failing.sidText});
    const RegTree failingKey = Snapshot(UserKeyPath(failing.guid).c_str(), kView32);

    EXPECT_EQ(S_OK, ConvertOnce());

    std::vector<std::string> expected;
    Append(expected, ConvertedLines(*order[0].user));
    Append(expected, UserLines(failing.sidText, false, false, false, S_OK, E_ACCESSDENIED));
    Append(expected, ConvertedLines(*order[2].user));
    EXPECT_EQ(expected, OwnLines(trace, "CConverter3::do_Convert")) << trace.Dump();

    ExpectUserConverted(*order[0].user);
    ExpectUserConverted(*order[2].user);
    EXPECT_FALSE(inspect::UserExists(failing.sidText));
    EXPECT_EQ("", DiffTrees(failingKey, Snapshot(UserKeyPath(failing.guid).c_str(), kView32)));
    EXPECT_EQ((std::vector<std::wstring>{order[1].key}), SubkeyNames(kDataUsersPath, kView32));
    // A user is left, so the cleanup inside Convert keeps the old database.
    EXPECT_EQ((std::vector<std::string>{}), OwnLines(trace, "CConverter3::do_Cleanup"));
    EXPECT_TRUE(KeyExists(kMainDbPath, kView32));
}

TEST_F(Converter3ConvertTest, UserWithoutSystemLogonInfoIsConvertedWithoutAPassword)
{
    nvwriter::Db20Database db = MakeDatabase(1, 31);
    nvwriter::Db20User& u = db.users[0];
    u.secrets.erase(std::remove_if(u.secrets.begin(), u.secrets.end(),
                                   [](const nvwriter::Db20Secret& s) { return s.combined; }),
                    u.secrets.end());
    u.secrets.push_back(PlainSecret(L"Mail Account", 0x31));
    u.secrets.push_back(PlainSecret(L"VPN Token", 0x32));
    WriteDatabase(db);

    EXPECT_EQ(S_OK, ConvertOnce());

    ExpectOwnConvertLines(
        UserLines(u.sidText, false, true, true, S_OK, ExpectedTemplates(u).empty() ? NTE_NO_KEY : S_OK));
    EXPECT_EQ(0u, trace.Count("U Read password secret from old DB"));
    ExpectUserConverted(u); // every secret under its own name, the empty password enrolled
    EXPECT_EQ(0u, inspect::ListSecrets(u.sidText).count(L"SystemLogonInfo"));
}

TEST_F(Converter3ConvertTest, ExistingPublicKeyMeansNoEnrolmentAndOneAuthenticationFetchingThePayload)
{
    nvwriter::Db20Database db = MakeDatabase(1, 41);
    const nvwriter::Db20User& u = db.users[0];
    ASSERT_TRUE(HasLogonSecret(u));
    ASSERT_FALSE(PasswordOf(u).empty());
    WriteDatabase(db);
    inspect::SetExistingPublicKey({u.sidText});
    // The store already holds the user with a payload of its own.
    const std::vector<BYTE> payload = {0xC0, 0xFF, 0xEE, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    {
        nv::com_ptr<IUserStore> store;
        ASSERT_EQ(S_OK, ::CoCreateInstance(nvstore::kClsidUserStore, nullptr, CLSCTX_INPROC_SERVER,
                                           nvstore::kIidUserStore, store.put_void()));
        nv::com_ptr<IUnknown> user;
        ASSERT_EQ(S_OK, store->OpenUser(u.sidText.c_str(), nvstore::kUserIdKindSid, user.put()));
        nv::com_ptr<IUserPayload> userPayload;
        ASSERT_EQ(S_OK, user.query(userPayload));
        CRYPT_DATA_BLOB blob{static_cast<DWORD>(payload.size()), const_cast<BYTE*>(payload.data())};
        ASSERT_EQ(S_OK, userPayload->PutPayload(&blob));
    }
    std::vector<BYTE> key;
    ASSERT_TRUE(inspect::GetPublicKey(u.sidText, &key));
    ASSERT_FALSE(inspect::HasPassword(u.sidText));

    EXPECT_EQ(S_OK, ConvertOnce());

    // The key read succeeded: no "Retrieve payload"; the status is that read's S_OK
    // or the templates'.
    EXPECT_EQ(UserLines(u.sidText, true, false, true, S_OK, S_OK), OwnLines(trace, "CConverter3::do_Convert"));
    ConvertedExpectations expect;
    expect.payload = &payload;
    ExpectUserConverted(u, expect); // the password came in with the one Authenticate
    std::vector<BYTE> keyAfter;
    EXPECT_TRUE(inspect::GetPublicKey(u.sidText, &keyAfter));
    EXPECT_EQ(key, keyAfter);
}

TEST_F(Converter3ConvertTest, NoAuthenticationServiceAndNoKeyFailsEachUserWithEUnexpected)
{
    nvwriter::Db20Database db = MakeDatabase(2, 51);
    WriteDatabase(db);
    inspect::SetNoAuthService(true);
    const auto order = InEnumerationOrder(db);
    RegTree expectedDb = StampedSnapshot();

    EXPECT_EQ(S_OK, ConvertOnce());

    std::vector<std::string> expected;
    for (const Entry& e : order)
        Append(expected, UserLines(e.user->sidText, HasLogonSecret(*e.user), true, false, S_OK, E_UNEXPECTED));
    EXPECT_EQ(expected, OwnLines(trace, "CConverter3::do_Convert")) << trace.Dump();
    EXPECT_EQ("", DiffTrees(expectedDb, Snapshot(kDbPath, kView32)));
    for (const auto& u : db.users) {
        // OpenUser made the record; nothing else reached the store.
        EXPECT_TRUE(inspect::UserExists(u.sidText));
        EXPECT_TRUE(inspect::ListSecrets(u.sidText).empty());
        EXPECT_TRUE(inspect::ListTemplates(u.sidText).empty());
        std::vector<BYTE> key;
        EXPECT_FALSE(inspect::GetPublicKey(u.sidText, &key));
    }
}

TEST_F(Converter3ConvertTest, NoAuthenticationServiceWithAnExistingKeyConvertsWithoutPasswordOrPayloadCall)
{
    nvwriter::Db20Database db = MakeDatabase(1, 52);
    const nvwriter::Db20User& u = db.users[0];
    WriteDatabase(db);
    inspect::SetNoAuthService(true);
    inspect::SetExistingPublicKey({u.sidText});

    EXPECT_EQ(S_OK, ConvertOnce());

    // Converted as the format has it (default policy), and the password that never
    // reached the store is said in the trace.
    std::vector<std::string> lines = UserLines(u.sidText, HasLogonSecret(u), false, true, S_OK, S_OK);
    lines.insert(lines.end() - 2, "U Incomplete user '" + Narrow(u.sidText) +
                                      "' moved with gaps: password not enrolled, no IAuthService");
    EXPECT_EQ(lines, OwnLines(trace, "CConverter3::do_Convert"));
    EXPECT_EQ(ExpectedTemplates(u).size(), inspect::ListTemplates(u.sidText).size());
    EXPECT_EQ(u.secrets.size(), inspect::ListSecrets(u.sidText).size());
    EXPECT_FALSE(inspect::HasPassword(u.sidText)); // never authenticated
    EXPECT_TRUE(inspect::IsRegistered(u.sidText));
    EXPECT_FALSE(KeyExists(UserKeyPath(u.guid).c_str(), kView32));
}

TEST_F(Converter3ConvertTest, NoUserPropertiesLeavesThePublicKeyEmptyAndFailsTheUser)
{
    nvwriter::Db20Database db = MakeDatabase(1, 53);
    const nvwriter::Db20User& u = db.users[0];
    WriteDatabase(db);
    inspect::SetNoUserProperties(true);
    const RegTree key = Snapshot(UserKeyPath(u.guid).c_str(), kView32);

    EXPECT_EQ(S_OK, ConvertOnce());

    ExpectOwnConvertLines(UserLines(u.sidText, HasLogonSecret(u), false, false, S_OK, E_UNEXPECTED));
    EXPECT_EQ("", DiffTrees(key, Snapshot(UserKeyPath(u.guid).c_str(), kView32)));
}

TEST_F(Converter3ConvertTest, TemplateMask5WithTwoTemplatesStoresThemAtPositions0And2)
{
    nvwriter::Db20Database db = MakeDatabase(1, 61);
    nvwriter::Db20User& u = db.users[0];
    u.credentials.clear();
    u.credentials.push_back(FingerprintEntry(0x5, {MakeTemplate(0, 0xA1, -3), MakeTemplate(2, 0xB2, 99)}));
    WriteDatabase(db);

    EXPECT_EQ(S_OK, ConvertOnce());

    ExpectOwnConvertLines(UserLines(u.sidText, HasLogonSecret(u), true, true, S_OK, S_OK));
    DecodedTemplate at0, at2;
    ASSERT_NO_FATAL_FAILURE(ExpectTwoStoredTemplates(u.sidText, 0, 2, &at0, &at2));
    EXPECT_EQ(std::vector<BYTE>(40 + 0xA1 % 16, 0xA1), at0.data);
    // The reader takes a signed number's bytes without sign extension: -3 is 253.
    EXPECT_EQ(253, at0.headerValue);
    EXPECT_EQ(std::vector<BYTE>(40 + 0xB2 % 16, 0xB2), at2.data);
    EXPECT_EQ(99, at2.headerValue);
    EXPECT_EQ(2u, at2.flags);
    ExpectUserConverted(u);
}

TEST_F(Converter3ConvertTest, TemplateMask7WithTwoTemplatesFailsTheUserAfterTwoPutTemplates)
{
    // Two fingerprint entries: the record keeps the second mask (0x7) and the first
    // entry's two templates.
    nvwriter::Db20Database db = MakeDatabase(1, 62);
    nvwriter::Db20User& u = db.users[0];
    u.credentials.clear();
    u.credentials.push_back(FingerprintEntry(0x5, {MakeTemplate(0, 0xA1), MakeTemplate(2, 0xB2)}));
    u.credentials.push_back(
        FingerprintEntry(0x7, {MakeTemplate(0, 0xC3), MakeTemplate(1, 0xC4), MakeTemplate(2, 0xC5)}));
    WriteDatabase(db);
    const RegTree key = Snapshot(UserKeyPath(u.guid).c_str(), kView32);

    EXPECT_EQ(S_OK, ConvertOnce());

    ExpectOwnConvertLines(UserLines(u.sidText, HasLogonSecret(u), true, false, S_OK, E_UNEXPECTED));
    // The k-th set bit took the k-th template: positions 0 and 1 hold the first
    // entry's two templates, and the third bit found none.
    DecodedTemplate at0, at1;
    ASSERT_NO_FATAL_FAILURE(ExpectTwoStoredTemplates(u.sidText, 0, 1, &at0, &at1));
    EXPECT_EQ(std::vector<BYTE>(40 + 0xA1 % 16, 0xA1), at0.data);
    EXPECT_EQ(std::vector<BYTE>(40 + 0xB2 % 16, 0xB2), at1.data);
    EXPECT_EQ(2u, at1.flags); // written for position 2, stored at 1
    // Secrets were stored before the templates; the old key stays as it was.
    EXPECT_EQ(u.secrets.size(), inspect::ListSecrets(u.sidText).size());
    EXPECT_FALSE(inspect::IsRegistered(u.sidText));
    EXPECT_EQ("", DiffTrees(key, Snapshot(UserKeyPath(u.guid).c_str(), kView32)));
}

TEST_F(Converter3ConvertTest, FailingPutTemplateIsTheUsersStatusAndKeepsItsKey)
{
    nvwriter::Db20Database db = MakeDatabase(1, 63);
    nvwriter::Db20User& u = db.users[0];
    u.credentials.clear();
    u.credentials.push_back(FingerprintEntry(0x80000003u, {MakeTemplate(0, 1), MakeTemplate(1, 2), MakeTemplate(31, 3)}));
    WriteDatabase(db);
    inspect::SetFailPutTemplateAt(31, kStorePutFailure);
    const RegTree key = Snapshot(UserKeyPath(u.guid).c_str(), kView32);

    EXPECT_EQ(S_OK, ConvertOnce());

    ExpectOwnConvertLines(UserLines(u.sidText, HasLogonSecret(u), true, false, S_OK, kStorePutFailure));
    const auto templates = inspect::ListTemplates(u.sidText);
    EXPECT_EQ(2u, templates.size());
    EXPECT_EQ(1u, templates.count(0));
    EXPECT_EQ(1u, templates.count(1));
    EXPECT_EQ("", DiffTrees(key, Snapshot(UserKeyPath(u.guid).c_str(), kView32)));
}

TEST_F(Converter3ConvertTest, DifferentlyCasedSystemLogonInfoIsNotThePasswordSecret)
{
    nvwriter::Db20Database db = MakeDatabase(1, 71);
    nvwriter::Db20User& u = db.users[0];
    bool renamed = false;
    for (auto& s : u.secrets) {
        if (s.combined) {
            s.valueName = s.name = L"systemlogoninfo";
            renamed = true;
        }
    }
    ASSERT_TRUE(renamed);
    WriteDatabase(db);

    EXPECT_EQ(S_OK, ConvertOnce());

    ExpectOwnConvertLines(
        UserLines(u.sidText, false, true, true, S_OK, ExpectedTemplates(u).empty() ? NTE_NO_KEY : S_OK));
    // Stored under its own name with its old content, not repacked; no password.
    const auto secrets = inspect::ListSecrets(u.sidText);
    ASSERT_EQ(1u, secrets.count(L"systemlogoninfo"));
    EXPECT_EQ(0u, secrets.count(L"SystemLogonInfo"));
    std::vector<BYTE> plain;
    EXPECT_EQ(S_OK, inspect::OpenStoredSecret(u.sidText, L"systemlogoninfo", &plain));
    for (const auto& s : u.secrets)
        if (s.combined) {
            EXPECT_EQ(s.content, plain);
        }
    EXPECT_TRUE(inspect::CheckPassword(u.sidText, L""));
    ExpectUserConverted(u);
}

TEST_F(Converter3ConvertTest, StorageServerNotRegisteredFailsEveryUserWithEPointerAndKeepsTheirKeys)
{
    nvwriter::Db20Database db = MakeDatabase(3);
    WriteDatabase(db);
    UnregisterStore();
    ASSERT_FALSE(StoreRegistered());
    RegTree expectedDb = StampedSnapshot();
    const auto order = InEnumerationOrder(db);
    ASSERT_EQ(3u, order.size());

    EXPECT_EQ(S_OK, ConvertOnce());

    std::vector<std::string> expected;
    for (const Entry& e : order)
        Append(expected, UserLines(e.user->sidText, false, false, false, S_OK, E_POINTER));
    EXPECT_EQ(expected, OwnLines(trace, "CConverter3::do_Convert")) << trace.Dump();
    // Every user keeps its key; the old database is as it was, and the backup that
    // Convert made was removed by its cleanup.
    EXPECT_EQ("", DiffTrees(expectedDb, Snapshot(kDbPath, kView32)));
    EXPECT_FALSE(KeyExists(kBackup20Path, kView64));
    EXPECT_EQ((std::vector<std::string>{}), OwnLines(trace, "CConverter3::do_Cleanup"));
}

namespace {

struct PolicyCase {
    const char* name;
    bool present;
    DWORD type;
    std::vector<BYTE> data;
    const wchar_t* expectedName;
};

std::vector<BYTE> Chars(const std::wstring& text, bool terminator)
{
    std::vector<BYTE> out((text.size() + (terminator ? 1 : 0)) * 2, 0);
    std::copy(reinterpret_cast<const BYTE*>(text.data()), reinterpret_cast<const BYTE*>(text.data() + text.size()),
              out.begin());
    return out;
}

class LogonInfoNamePolicyTest : public Converter3ConvertTest, public ::testing::WithParamInterface<PolicyCase> {};

} // namespace

TEST_P(LogonInfoNamePolicyTest, PasswordIsStoredUnderTheNameThePolicyGives)
{
    const PolicyCase& c = GetParam();
    nvwriter::Db20Database db = MakeDatabase(1, 81);
    const nvwriter::Db20User& u = db.users[0];
    ASSERT_TRUE(HasLogonSecret(u));
    WriteDatabase(db);
    CreateKeyPath(kPolicyDefaultPath, kViewNative);
    if (c.present)
        SetBinary(kPolicyDefaultPath, L"LogonInfoName", c.data, kViewNative, c.type);

    EXPECT_EQ(S_OK, ConvertOnce());

    ConvertedExpectations expect;
    expect.logonInfoName = c.expectedName;
    ExpectUserConverted(u, expect);
    const auto secrets = inspect::ListSecrets(u.sidText);
    EXPECT_EQ(1u, secrets.count(c.expectedName));
    if (std::wstring(c.expectedName) != L"SystemLogonInfo") {
        EXPECT_EQ(0u, secrets.count(L"SystemLogonInfo"));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Policies, LogonInfoNamePolicyTest,
    ::testing::Values(PolicyCase{"Primary", true, REG_SZ, Chars(L"Primary", true), L"Primary"},
                      PolicyCase{"ExpandString", true, REG_EXPAND_SZ, Chars(L"Logon%Info", true), L"Logon%Info"},
                      PolicyCase{"Absent", false, REG_NONE, {}, L"SystemLogonInfo"},
                      PolicyCase{"ZeroBytes", true, REG_SZ, {}, L"SystemLogonInfo"},
                      PolicyCase{"OnlyTheTerminator", true, REG_SZ, {0, 0}, L""},
                      PolicyCase{"Unterminated", true, REG_SZ, Chars(L"Primary", false), L"SystemLogonInfo"},
                      PolicyCase{"Dword", true, REG_DWORD, {0x50, 0, 0x72, 0}, L"SystemLogonInfo"}),
    [](const ::testing::TestParamInfo<PolicyCase>& info) { return std::string(info.param.name); });

TEST_F(Converter3ConvertTest, LogonInfoNamePolicyChangedAfterTheFirstConversionInTheProcessHasNoEffect)
{
    nvwriter::Db20Database first = MakeDatabase(1, 91);
    nvwriter::Db20Database second = MakeDatabase(1, 92);
    ASSERT_TRUE(HasLogonSecret(first.users[0]));
    ASSERT_TRUE(HasLogonSecret(second.users[0]));
    ASSERT_NE(first.users[0].sidText, second.users[0].sidText);
    WriteDatabase(first);
    SetString(kPolicyDefaultPath, L"LogonInfoName", L"First", kViewNative);

    LoadedLibrary dll;
    ASSERT_TRUE(dll.loaded());
    EXPECT_EQ(S_OK, dll.Convert());
    ConvertedExpectations expectFirst;
    expectFirst.logonInfoName = L"First";
    ExpectUserConverted(first.users[0], expectFirst);

    // A new database in the same process, under a changed policy.
    SetString(kPolicyDefaultPath, L"LogonInfoName", L"Second", kViewNative);
    WriteDatabase(second);
    EXPECT_EQ(S_OK, dll.Convert());
    ExpectUserConverted(second.users[0], expectFirst);
    EXPECT_EQ(0u, inspect::ListSecrets(second.users[0].sidText).count(L"Second"));

    // A fresh process reads the policy anew.
    dll.Unload();
    nvwriter::Db20Database third = MakeDatabase(1, 93);
    WriteDatabase(third);
    EXPECT_EQ(S_OK, ConvertOnce());
    ConvertedExpectations expectSecond;
    expectSecond.logonInfoName = L"Second";
    ExpectUserConverted(third.users[0], expectSecond);
}

TEST_F(Converter3ConvertTest, FailingDeleteKeyIsTracedAndLeavesTheUserCountedAsConverted)
{
    nvwriter::Db20Database db = MakeDatabase(2, 101);
    const auto order = WriteInEnumerationOrder(db);
    ASSERT_EQ(2u, order.size());
    const nvwriter::Db20User& locked = *order[0].user;
    ASSERT_FALSE(ExpectedTemplates(locked).empty());
    const std::wstring lockedChild = UserKeyPath(locked.guid) + L"\\Locked";
    CreateKeyPath(lockedChild.c_str(), kView32);
    LockKey(lockedChild);

    EXPECT_EQ(S_OK, ConvertOnce());

    std::vector<std::string> expected;
    // The delete's failure is only traced: the status stays the last PutTemplate's.
    Append(expected, UserLines(locked.sidText, HasLogonSecret(locked), true, true, E_ACCESSDENIED, S_OK));
    Append(expected, ConvertedLines(*order[1].user));
    EXPECT_EQ(expected, OwnLines(trace, "CConverter3::do_Convert")) << trace.Dump();
    // The user is in the store all the same; only its old key is still there.
    EXPECT_EQ(locked.secrets.size(), inspect::ListSecrets(locked.sidText).size());
    EXPECT_EQ(ExpectedTemplates(locked).size(), inspect::ListTemplates(locked.sidText).size());
    EXPECT_TRUE(inspect::IsRegistered(locked.sidText));
    EXPECT_TRUE(KeyExists(UserKeyPath(locked.guid).c_str(), kView32));
    ExpectUserConverted(*order[1].user);
    // So the old database is not removed.
    EXPECT_TRUE(KeyExists(kMainDbPath, kView32));
    EXPECT_EQ((std::vector<std::wstring>{order[0].key}), SubkeyNames(kDataUsersPath, kView32));
}

TEST_F(Converter3ConvertTest, UserKeyWithoutARecordFailsWithEUnexpectedUnderAnEmptyNameAndTheOthersConvert)
{
    nvwriter::Db20Database db = MakeDatabase(3, 111, 0, {{1, nvwriter::Db20Defect::StringDefaultValue}});
    const auto order = WriteInEnumerationOrder(db);
    const nvwriter::Db20User& broken = db.users[1];
    const RegTree brokenKey = Snapshot(UserKeyPath(broken.guid).c_str(), kView32);

    EXPECT_EQ(S_OK, ConvertOnce());

    // The extractor leaves the slot zero: no SID to name the user by.
    std::vector<std::string> expected;
    for (const Entry& e : order) {
        if (e.user == &broken)
            Append(expected, {"U Conversion process is over for '', 0x8000FFFF"});
        else
            Append(expected, ConvertedLines(*e.user));
    }
    EXPECT_EQ(expected, OwnLines(trace, "CConverter3::do_Convert")) << trace.Dump();
    ExpectUserConverted(db.users[0]);
    ExpectUserConverted(db.users[2]);
    EXPECT_FALSE(inspect::UserExists(broken.sidText));
    EXPECT_EQ("", DiffTrees(brokenKey, Snapshot(UserKeyPath(broken.guid).c_str(), kView32)));
}

TEST_F(Converter3ConvertTest, CorruptSealStopsTheWholeConversionAndConvertRollsBack)
{
    nvwriter::Db20Database db = MakeDatabase(3, 121, 0, {{2, nvwriter::Db20Defect::WrongMagic}});
    WriteDatabase(db);
    RegTree expectedDb = Snapshot(kDbPath, kView32);

    {
        LoadedLibrary dll;
        ASSERT_TRUE(dll.loaded());
        EXPECT_EQ(NTE_BAD_DATA, dll.Convert()); // from the outer guard
    }

    EXPECT_EQ((std::vector<std::string>{"E -2146893819 "}), OwnLines(trace, "CConverter3::do_Convert"));
    EXPECT_EQ(0u, trace.Count("U Conversion process is over for '" + Narrow(db.users[0].sidText) + "', 0x00000000"));
    EXPECT_EQ((std::vector<std::wstring>{}), inspect::ListUsers());
    // Convert's rollback deletes and restores the database in the library's own
    // view, where this database is not: the delete fails, so nothing is restored
    // and the backup stays, as does the "Backup" value in the 32-bit database.
    EXPECT_EQ(1u, trace.Count("U restoring database from backup key SOFTWARE\\Norvane\\DB-v2.0"));
    expectedDb.values[L"|Backup"] = SzValue(L"SOFTWARE\\Norvane\\DB-v2.0");
    EXPECT_EQ("", DiffTrees(expectedDb, Snapshot(kDbPath, kView32)));
    EXPECT_TRUE(KeyExists(kBackup20Path, kView64));
    EXPECT_FALSE(KeyExists(kDbPath, kView64));
    EXPECT_EQ((std::vector<std::string>{}), trace.LinesInScope("CConverter3::do_Rollback"));
    EXPECT_EQ(1u, trace.Count("> CConverter3::do_Rollback"));
}

TEST_F(Converter3ConvertTest, CleanupRemovesTheOldDatabaseOnlyOnceTheLastUserIsConverted)
{
    nvwriter::Db20Database db = MakeDatabase(3, 131);
    const auto order = WriteInEnumerationOrder(db);
    const nvwriter::Db20User& late = *order[2].user;
    inspect::SetFailOpenUser({late.sidText});

    // First run: one user stays behind, so Convert's own cleanup keeps the database.
    EXPECT_EQ(S_OK, ConvertOnce());
    EXPECT_EQ((std::vector<std::wstring>{order[2].key}), SubkeyNames(kDataUsersPath, kView32));
    EXPECT_TRUE(KeyExists(kMainDbPath, kView32));

    // The installer's Cleanup in a later process: no backup name left, and a user
    // key left, so nothing changes. (Every load of the library starts a new trace
    // file.)
    const RegTree beforeCleanup = Snapshot(L"SOFTWARE\\Norvane", kView32);
    const RegTree beforeCleanup64 = Snapshot(L"SOFTWARE\\Norvane\\DB", kView64);
    const RegTree storeBefore = Snapshot(L"SOFTWARE\\Norvane\\Store", kView64);
    {
        LoadedLibrary dll;
        EXPECT_EQ(S_FALSE, dll.Cleanup());
        EXPECT_EQ(S_FALSE, dll.Rollback());
    }
    EXPECT_EQ("", DiffTrees(beforeCleanup, Snapshot(L"SOFTWARE\\Norvane", kView32)));
    EXPECT_EQ("", DiffTrees(beforeCleanup64, Snapshot(L"SOFTWARE\\Norvane\\DB", kView64)));
    EXPECT_EQ("", DiffTrees(storeBefore, Snapshot(L"SOFTWARE\\Norvane\\Store", kView64))); // rollback leaves the store
    EXPECT_EQ(2u, trace.Count("U backup key name is empty, nothing to do"));
    EXPECT_EQ(1u, trace.Count("> CConverter3::do_Cleanup"));
    EXPECT_EQ((std::vector<std::string>{}), trace.LinesInScope("CConverter3::do_Cleanup"));
    EXPECT_EQ(1u, trace.Count("> CConverter3::do_Rollback"));

    // The store lets the last user in: a second Convert moves it and removes the rest.
    inspect::ClearTestBehaviours();
    inspect::SetUserKeyBits(1024);
    EXPECT_EQ(S_OK, ConvertOnce());
    EXPECT_EQ(ConvertedLines(late), OwnLines(trace, "CConverter3::do_Convert"));
    for (const auto& u : db.users)
        ExpectUserConverted(u);
    EXPECT_FALSE(KeyExists(kDataPath, kView32));
    EXPECT_FALSE(KeyExists(kMainDbPath, kView32));
    EXPECT_EQ((std::vector<std::string>{"U Completely delete old DB"}), OwnLines(trace, "CConverter3::do_Cleanup"));

    // Cleanup again, in two more processes: harmless.
    const RegTree cleaned = Snapshot(L"SOFTWARE\\Norvane", kView32);
    for (int i = 0; i < 2; ++i) {
        LoadedLibrary dll;
        EXPECT_EQ(S_FALSE, dll.Cleanup());
        EXPECT_EQ("", DiffTrees(cleaned, Snapshot(L"SOFTWARE\\Norvane", kView32)));
        EXPECT_EQ(1u, trace.Count("> CConverter3::do_Cleanup"));
        EXPECT_EQ(0u, trace.Count("U Completely delete old DB"));
    }
}
