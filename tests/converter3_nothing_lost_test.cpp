// Nothing lost, proven: a format 2.0 database of 300 users made by the writer, each
// with five secrets and one to four templates, some of them failing through the
// store's test behaviours, converted through Convert of the real library. Every
// converted user is then read back from the store; every failed user's old key is
// compared byte for byte; the trace is searched for every password and PIN.
#include <windows.h>
#include <gtest/gtest.h>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "nvstore_inspect.h"
#include "support/conversion_fixture.h"
#include "support/dll_loader.h"
#include "support/drawn_records.h"
#include "support/registry_sandbox.h"
#include "support/test_results.h"

using namespace nvtest;
namespace inspect = nvstore::inspect;

namespace {

constexpr unsigned kUsers = 300;

enum class Fate { Converts, OpenUserFails, PutTemplateFails, NoRecord, AlreadyRegistered, ExistingKey };

Fate FateOf(unsigned i)
{
    if (i % 50 == 7)
        return Fate::OpenUserFails;
    if (i % 40 == 13)
        return Fate::PutTemplateFails;
    if (i == 150 || i == 299)
        return Fate::NoRecord;
    if (i % 60 == 21)
        return Fate::AlreadyRegistered;
    if (i % 45 == 30)
        return Fate::ExistingKey;
    return Fate::Converts;
}

bool Fails(Fate f) { return f == Fate::OpenUserFails || f == Fate::PutTemplateFails || f == Fate::NoRecord; }

class Generator {
public:
    explicit Generator(unsigned seed) : m_rng(seed) {}
    unsigned Below(unsigned n) { return std::uniform_int_distribution<unsigned>(0, n - 1)(m_rng); }
    std::wstring Chars(size_t n, const wchar_t* alphabet)
    {
        const std::wstring a(alphabet);
        std::wstring s;
        for (size_t i = 0; i < n; ++i)
            s += a[Below(static_cast<unsigned>(a.size()))];
        return s;
    }
    std::vector<BYTE> Bytes(size_t n)
    {
        std::vector<BYTE> b(n);
        for (auto& x : b)
            x = static_cast<BYTE>(Below(256));
        return b;
    }
    GUID Guid()
    {
        GUID g;
        std::vector<BYTE> b = Bytes(sizeof(GUID));
        std::memcpy(&g, b.data(), sizeof(GUID));
        return g;
    }

private:
    std::mt19937 m_rng;
};

const wchar_t* const kSecretNames[] = {L"Domain Password", L"Mail Account", L"VPN Token",
                                       L"Corporate Single Sign-On Credential Store"};

// Five secrets: the combined password secret and four others, some with the older
// record description. PINs are long enough (11 to 14 digits) that no number the
// trace writes (SIDs, result codes) can contain one by chance.
void GiveFiveSecrets(nvwriter::Db20User& u, Generator& gen)
{
    u.secrets.clear();
    u.secrets.push_back(DrawLogonSecret(gen, 9, 8, 13));
    for (unsigned s = 0; s < 4; ++s) {
        nvwriter::Db20Secret plain;
        plain.valueName = plain.name = kSecretNames[s];
        plain.headerGuid = gen.Guid();
        plain.headerValue = gen.Below(8);
        plain.typeCode = gen.Below(3) == 0 ? nvwriter::kDb20OlderSecretTypeCode : nvwriter::kDb20SecretTypeCode;
        plain.guid = gen.Guid();
        plain.content = gen.Bytes(16 + gen.Below(100));
        u.secrets.push_back(plain);
    }
}

// One fingerprint entry with one to four templates; position 31 only for the users
// whose PutTemplate is to fail there.
void GiveTemplates(nvwriter::Db20User& u, unsigned index, Generator& gen)
{
    std::vector<nvwriter::Db20Credential> others;
    for (const auto& c : u.credentials)
        if (c.credentialId != nvwriter::kDb20FingerprintCredentialId)
            others.push_back(c);
    const unsigned count = 1 + index % 4;
    nvwriter::Db20Credential entry;
    entry.credentialId = nvwriter::kDb20FingerprintCredentialId;
    if (FateOf(index) == Fate::PutTemplateFails)
        entry.mask |= 0x80000000u;
    while (static_cast<unsigned>(__builtin_popcount(entry.mask)) < count)
        entry.mask |= 1u << gen.Below(31);
    entry.templates = DrawTemplates(gen, entry.mask, 64, 400);
    u.credentials = others;
    u.credentials.insert(u.credentials.begin() + gen.Below(static_cast<unsigned>(others.size() + 1)), entry);
}

double Seconds(std::chrono::steady_clock::time_point from)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - from).count();
}

class NothingLostTest : public Db20ConversionTest {};

} // namespace

TEST_F(NothingLostTest, ThreeHundredUsersConvertAndEveryConvertedUserReadsBackWhileFailedUsersKeepTheirKeys)
{
    using clock = std::chrono::steady_clock;
    nvwriter::Db20Options options;
    options.seed = 300;
    options.userCount = kUsers;
    options.domainCount = 2;
    for (unsigned i = 0; i < kUsers; ++i)
        if (FateOf(i) == Fate::NoRecord)
            options.defects.emplace_back(i, nvwriter::Db20Defect::StringDefaultValue);
    nvwriter::Db20Database db = nvwriter::MakeDb20Database(options);
    Generator gen(4242);
    std::vector<std::wstring> openUserFails, existingKeys, alreadyRegistered, passwordsAndPins;
    for (unsigned i = 0; i < kUsers; ++i) {
        nvwriter::Db20User& u = db.users[i];
        GiveFiveSecrets(u, gen);
        GiveTemplates(u, i, gen);
        passwordsAndPins.push_back(u.secrets[0].password);
        passwordsAndPins.push_back(u.secrets[0].pin);
        switch (FateOf(i)) {
        case Fate::OpenUserFails: openUserFails.push_back(u.sidText); break;
        case Fate::ExistingKey: existingKeys.push_back(u.sidText); break;
        case Fate::AlreadyRegistered: alreadyRegistered.push_back(u.sidText); break;
        default: break;
        }
    }
    std::set<std::wstring> sids;
    for (const auto& u : db.users)
        sids.insert(u.sidText);
    ASSERT_EQ(kUsers, sids.size());

    auto start = clock::now();
    WriteDatabase(db);
    const double writeSeconds = Seconds(start);
    inspect::SetFailOpenUser(openUserFails);
    inspect::SetFailPutTemplateAt(31, kPutTemplateFailure);
    inspect::SetExistingPublicKey(existingKeys);
    inspect::SetAlreadyRegistered(alreadyRegistered);

    std::map<std::wstring, RegTree> oldKeys;
    std::map<std::wstring, const nvwriter::Db20User*> byKey;
    for (const auto& u : db.users) {
        oldKeys[GuidText(u.guid)] = Snapshot(UserKeyPath(u.guid).c_str(), kView32);
        byKey[GuidText(u.guid)] = &u;
    }
    const std::vector<std::wstring> keyOrder = SubkeyNames(kDataUsersPath, kView32);
    ASSERT_EQ(kUsers, keyOrder.size());

    start = clock::now();
    HRESULT hr = E_FAIL;
    {
        LoadedLibrary dll;
        ASSERT_TRUE(dll.loaded());
        hr = dll.Convert();
    }
    const double convertSeconds = Seconds(start);
    EXPECT_EQ(S_OK, hr);

    // The trace: every user's status, in enumeration order.
    start = clock::now();
    std::vector<std::string> expected;
    size_t failed = 0;
    for (const std::wstring& key : keyOrder) {
        const nvwriter::Db20User& u = *byKey[key];
        const unsigned index = static_cast<unsigned>(&u - db.users.data());
        const std::string sid = Narrow(u.sidText);
        const Fate fate = FateOf(index);
        failed += Fails(fate) ? 1 : 0;
        if (fate == Fate::NoRecord) {
            expected.push_back("U Conversion process is over for '', 0x8000FFFF");
            continue;
        }
        expected.push_back("U Conversion process began for '" + sid + "'");
        if (fate == Fate::OpenUserFails) {
            expected.push_back("U Conversion process is over for '" + sid + "', " + Hex(E_ACCESSDENIED));
            continue;
        }
        expected.push_back("U Read password secret from old DB");
        if (fate != Fate::ExistingKey)
            expected.push_back("U Retrieve payload");
        if (fate == Fate::PutTemplateFails) {
            expected.push_back("U Conversion process is over for '" + sid + "', " + Hex(kPutTemplateFailure));
            continue;
        }
        expected.push_back("U DeleteKey('" + sid + "'), 0x00000000");
        expected.push_back("U Conversion process is over for '" + sid + "', 0x00000000");
    }
    EXPECT_EQ(expected, OwnLines(trace, "CConverter3::do_Convert"));
    EXPECT_EQ(kUsers, trace.Count("> CLocalDBUserExtractor::InternalLoadSecretsToMap") +
                          2 /* the slots without a record never get that far */);

    // Every converted user, read back; every failed user's old key, byte for byte.
    for (const std::wstring& key : keyOrder) {
        const nvwriter::Db20User& u = *byKey[key];
        const Fate fate = FateOf(static_cast<unsigned>(&u - db.users.data()));
        if (Fails(fate)) {
            EXPECT_EQ("", DiffTrees(oldKeys[key], Snapshot(UserKeyPath(u.guid).c_str(), kView32))) << Narrow(key);
            if (fate != Fate::PutTemplateFails) {
                EXPECT_FALSE(inspect::UserExists(u.sidText)) << Narrow(u.sidText);
            }
            continue;
        }
        ConvertedExpectations expect;
        expect.registered = fate != Fate::AlreadyRegistered;
        ExpectUserConverted(u, expect);
    }
    EXPECT_EQ(failed, SubkeyNames(kDataUsersPath, kView32).size());
    // Users are left, so the old database stays.
    EXPECT_TRUE(KeyExists(kMainDbPath, kView32));
    ExpectNoneInTrace(trace, passwordsAndPins);
    const double verifySeconds = Seconds(start);

    std::printf("[ timing   ] %u users (%zu failing), %lu-bit user keys: write %.1f s, Convert %.1f s (%.1f ms/user), "
                "verify %.1f s, trace %zu bytes\n",
                kUsers, failed, static_cast<unsigned long>(m_quickKeys ? 1024 : 2048), writeSeconds, convertSeconds,
                convertSeconds * 1000.0 / kUsers, verifySeconds, trace.Bytes().size());
    RecordProperty("convert_seconds", std::to_string(convertSeconds));
}
