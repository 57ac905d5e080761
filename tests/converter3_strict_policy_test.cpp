// The strict conversion policy: the value that turns it on, the trace line that says
// so, a user kept in the old database when part of it did not reach the store (with
// its own result code, a trace line naming what is missing, an entry nvdbconv
// status shows), a later Convert that moves it, and the default policy converting
// the same users as the format has it.
#include <windows.h>
#include <gtest/gtest.h>
#include <sddl.h>
#include <map>
#include <string>
#include <vector>

#include "converter3/conversionpolicy.h"
#include "converter3/heldusers.h"
#include "nvstore_inspect.h"
#include "nvdbconv/cli.h"
#include "nvdbconv/policy.h"
#include "common/handles.h"
#include "support/conversion_fixture.h"
#include "support/dll_loader.h"
#include "support/import_patch.h"
#include "support/key_containers.h"
#include "support/process_runner.h"
#include "support/registry_sandbox.h"
#include "support/text_util.h"
#include "writer/db20_der.h"
#include "writer/host_provisioning.h"

using namespace nvtest;
namespace inspect = nvstore::inspect;

namespace {

constexpr const wchar_t kStrictValue[] = L"StrictConversion";

nvwriter::Db20Template MakeTemplate(unsigned position, BYTE fill)
{
    return SampleTemplate(position, fill, 40, 7);
}

} // namespace

// ---- the policy value --------------------------------------------------------------

class ConversionPolicyValueTest : public RegistrySandbox {};

TEST_F(ConversionPolicyValueTest, OnlyADwordOfOneInTheLibrarysOwnViewIsStrict)
{
    using nvconv3::ConversionPolicy;
    EXPECT_EQ(ConversionPolicy::Default, nvconv3::ReadConversionPolicy()); // no key
    CreateKeyPath(kPolicyDefaultPath, kViewNative);
    EXPECT_EQ(ConversionPolicy::Default, nvconv3::ReadConversionPolicy()); // no value
    SetDword(kPolicyDefaultPath, kStrictValue, 1, kViewNative);
    EXPECT_EQ(ConversionPolicy::Strict, nvconv3::ReadConversionPolicy());
    SetDword(kPolicyDefaultPath, kStrictValue, 0, kViewNative);
    EXPECT_EQ(ConversionPolicy::Default, nvconv3::ReadConversionPolicy());
    SetDword(kPolicyDefaultPath, kStrictValue, 2, kViewNative);
    EXPECT_EQ(ConversionPolicy::Default, nvconv3::ReadConversionPolicy());
    SetString(kPolicyDefaultPath, kStrictValue, L"1", kViewNative);
    EXPECT_EQ(ConversionPolicy::Default, nvconv3::ReadConversionPolicy());
    SetBinary(kPolicyDefaultPath, kStrictValue, {1, 0, 0, 0}, kViewNative, REG_BINARY);
    EXPECT_EQ(ConversionPolicy::Default, nvconv3::ReadConversionPolicy());
    SetBinary(kPolicyDefaultPath, kStrictValue, {1, 0, 0, 0, 0, 0, 0, 0}, kViewNative, REG_QWORD);
    EXPECT_EQ(ConversionPolicy::Default, nvconv3::ReadConversionPolicy());
    SetBinary(kPolicyDefaultPath, kStrictValue, {1, 0}, kViewNative, REG_DWORD);
    EXPECT_EQ(ConversionPolicy::Default, nvconv3::ReadConversionPolicy());
    DeleteValue(kPolicyDefaultPath, kStrictValue, kViewNative);
    // The 32-bit view is not where the library looks.
    SetDword(kPolicyDefaultPath, kStrictValue, 1, kView32);
    EXPECT_EQ(ConversionPolicy::Default, nvconv3::ReadConversionPolicy());
}

TEST_F(ConversionPolicyValueTest, NvdbconvShowsTurnsOnAndTurnsOffThePolicy)
{
    const std::wstring exe = QuoteArg(ExeDirectory() + L"nvdbconv.exe");
    ProcessRun run = RunProcess(exe + L" policy");
    EXPECT_EQ(0u, run.exitCode) << run.err;
    EXPECT_NE(std::string::npos, run.out.find("default: every step as the format has it")) << run.out;
    EXPECT_NE(std::string::npos, run.out.find("held users      none")) << run.out;

    run = RunProcess(exe + L" policy --strict on");
    EXPECT_EQ(0u, run.exitCode) << run.err;
    DWORD value = 0;
    EXPECT_TRUE(GetDword(kPolicyDefaultPath, kStrictValue, kViewNative, &value));
    EXPECT_EQ(1u, value);
    EXPECT_EQ(nvconv3::ConversionPolicy::Strict, nvconv3::ReadConversionPolicy());
    EXPECT_NE(std::string::npos, run.out.find("policy          strict (StrictConversion = 1)")) << run.out;

    run = RunProcess(exe + L" --json policy");
    EXPECT_EQ(0u, run.exitCode) << run.err;
    EXPECT_NE(std::string::npos, run.out.find("\"strict\":true")) << run.out;

    run = RunProcess(exe + L" policy --strict off");
    EXPECT_EQ(0u, run.exitCode) << run.err;
    EXPECT_FALSE(GetDword(kPolicyDefaultPath, kStrictValue, kViewNative, &value));
    EXPECT_EQ(nvconv3::ConversionPolicy::Default, nvconv3::ReadConversionPolicy());
    // Turning it off again is no error.
    EXPECT_EQ(S_OK, nvdbconv::WriteStrictConversion(false));
}

TEST(ConversionPolicyCommandLineTest, StrictTakesOnOrOffAndGoesWithPolicyOnly)
{
    auto parse = [](std::vector<std::wstring> args) { return nvdbconv::ParseCommandLine(args); };
    auto on = parse({L"policy", L"--strict", L"on"});
    ASSERT_TRUE(on.ok) << on.error;
    EXPECT_EQ(nvdbconv::Command::Policy, on.options.command);
    ASSERT_TRUE(on.options.strict.has_value());
    EXPECT_TRUE(*on.options.strict);
    auto off = parse({L"--strict=off", L"policy"});
    ASSERT_TRUE(off.ok) << off.error;
    ASSERT_TRUE(off.options.strict.has_value());
    EXPECT_FALSE(*off.options.strict);
    auto show = parse({L"policy"});
    ASSERT_TRUE(show.ok);
    EXPECT_FALSE(show.options.strict.has_value());
    EXPECT_EQ("--strict takes on or off, not 'maybe'", parse({L"policy", L"--strict", L"maybe"}).error);
    EXPECT_EQ("--strict goes with policy", parse({L"status", L"--strict", L"on"}).error);
    EXPECT_EQ("--strict needs a value", parse({L"policy", L"--strict"}).error);
}

// ---- conversions under both policies --------------------------------------------------

class StrictPolicyConversionTest : public Db20ConversionTest {
protected:
    void SetStrict(bool on)
    {
        if (on)
            SetDword(kPolicyDefaultPath, kStrictValue, 1, kViewNative);
        else
            DeleteValue(kPolicyDefaultPath, kStrictValue, kViewNative);
    }

    HRESULT ConvertOnce()
    {
        LoadedLibrary dll;
        EXPECT_TRUE(dll.loaded());
        return dll.Convert();
    }

    // A user with a password, two secrets and two templates at positions 0 and 2.
    static nvwriter::Db20Database OneFullUser()
    {
        nvwriter::Db20Database db = MakeDatabase(1, 31);
        nvwriter::Db20User& u = db.users[0];
        u.credentials.clear();
        nvwriter::Db20Credential c;
        c.credentialId = nvwriter::kDb20FingerprintCredentialId;
        c.mask = 0x5;
        c.templates = {MakeTemplate(0, 0x11), MakeTemplate(2, 0x22)};
        u.credentials.push_back(c);
        return db;
    }

    // The user kept its old key for `missing`: do_Convert traces it so and ends the
    // user with NV_E_USER_INCOMPLETE. do_Convert's own lines.
    std::vector<std::string> ExpectKeptFor(const nvwriter::Db20User& u, const std::string& missing)
    {
        const std::string sid = Narrow(u.sidText);
        const auto lines = OwnLines(trace, "CConverter3::do_Convert");
        if (lines.empty()) {
            ADD_FAILURE() << "no do_Convert lines\n" << trace.Dump();
            return lines;
        }
        EXPECT_TRUE(HasLine(lines, "U Incomplete user '" + sid + "' keeps its old key: " + missing)) << trace.Dump();
        EXPECT_EQ("U Conversion process is over for '" + sid + "', " + Hex(NV_E_USER_INCOMPLETE), lines.back());
        return lines;
    }

    static std::string SecretNamed(const nvwriter::Db20User& u)
    {
        for (const auto& s : u.secrets)
            if (s.valueName != nvwriter::kDb20LogonInfoSecret)
                return Narrow(s.valueName);
        return "";
    }
};

TEST_F(StrictPolicyConversionTest, StrictPolicyIsTracedAndAUserThatReachedTheStoreWhollyConverts)
{
    const nvwriter::Db20Database db = OneFullUser();
    WriteDatabase(db);
    SetStrict(true);
    EXPECT_EQ(S_OK, ConvertOnce());
    const auto lines = OwnLines(trace, "CConverter3::do_Convert");
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ("U Conversion policy: strict", lines.front()) << trace.Dump();
    EXPECT_EQ("U Conversion process is over for '" + Narrow(db.users[0].sidText) + "', 0x00000000", lines.back());
    ExpectUserConverted(db.users[0]);
    EXPECT_TRUE(nvdbconv::ReadHeldUsers().empty());
}

TEST_F(StrictPolicyConversionTest, SecretTheStoreRefusesKeepsTheUserUntilALaterConvertStoresIt)
{
    const nvwriter::Db20Database db = OneFullUser();
    const nvwriter::Db20User& u = db.users[0];
    const std::string secret = SecretNamed(u);
    ASSERT_FALSE(secret.empty());
    WriteDatabase(db);
    const RegTree oldKey = Snapshot(UserKeyPath(u.guid).c_str(), kView32);
    SetStrict(true);
    inspect::SetFailPutSecret({Widen(secret)}, E_ACCESSDENIED);

    EXPECT_EQ(S_OK, ConvertOnce());

    const std::string sid = Narrow(u.sidText);
    const std::string missing = "secret not stored '" + secret + "' (0x80070005)";
    const auto lines = ExpectKeptFor(u, missing);
    // The old key stays as it was; what reached the store stays there.
    EXPECT_EQ("", DiffTrees(oldKey, Snapshot(UserKeyPath(u.guid).c_str(), kView32)));
    EXPECT_TRUE(inspect::UserExists(u.sidText));
    EXPECT_EQ(0u, inspect::ListSecrets(u.sidText).count(Widen(secret)));

    // The entry status reads, and what nvdbconv status shows of it.
    const auto held = nvdbconv::ReadHeldUsers();
    ASSERT_EQ(1u, held.size());
    EXPECT_EQ(GuidText(u.guid), held[0].key);
    EXPECT_EQ(u.sidText, held[0].sid);
    EXPECT_EQ(static_cast<DWORD>(NV_E_USER_INCOMPLETE), held[0].result);
    EXPECT_EQ(Widen(missing), held[0].reason);
    ProcessRun run = RunProcess(QuoteArg(ExeDirectory() + L"nvdbconv.exe") + L" status");
    EXPECT_NE(std::string::npos, run.out.find("held user       " + sid + " " + Narrow(GuidText(u.guid)) +
                                              " 0x80040201: " + missing))
        << run.out;
    EXPECT_NE(std::string::npos, run.out.find("policy          strict")) << run.out;

    // The store takes the secret again: a later Convert moves the whole user.
    inspect::ClearTestBehaviours();
    EXPECT_EQ(S_OK, ConvertOnce());
    ExpectUserConverted(u);
    EXPECT_TRUE(nvdbconv::ReadHeldUsers().empty());
    EXPECT_FALSE(KeyExists((std::wstring(nvconv3::kHeldUsersKeyPath) + L"\\" + GuidText(u.guid)).c_str(), kView32));
}

TEST_F(StrictPolicyConversionTest, DefaultPolicyLosesTheRefusedSecretAsTheFormatHasIt)
{
    const nvwriter::Db20Database db = OneFullUser();
    const nvwriter::Db20User& u = db.users[0];
    const std::string secret = SecretNamed(u);
    WriteDatabase(db);
    inspect::SetFailPutSecret({Widen(secret)}, E_ACCESSDENIED);

    EXPECT_EQ(S_OK, ConvertOnce());

    // PutSecret's result does not hold the user: the user converts without that
    // secret, and the trace says so in the strict policy's words.
    EXPECT_FALSE(KeyExists(UserKeyPath(u.guid).c_str(), kView32));
    EXPECT_TRUE(inspect::UserExists(u.sidText));
    EXPECT_EQ(0u, inspect::ListSecrets(u.sidText).count(Widen(secret)));
    const std::string sid = Narrow(u.sidText);
    const auto lines = OwnLines(trace, "CConverter3::do_Convert");
    EXPECT_TRUE(HasLine(lines, "U Incomplete user '" + sid + "' moved with gaps: secret not stored '" + secret +
                                   "' (0x80070005)"))
        << trace.Dump();
    for (const std::string& line : lines)
        EXPECT_EQ(std::string::npos, line.find("keeps its old key")) << line;
    EXPECT_EQ("U Conversion process is over for '" + sid + "', 0x00000000", lines.back());
    EXPECT_TRUE(nvdbconv::ReadHeldUsers().empty());
}

TEST_F(StrictPolicyConversionTest, MalformedTemplateItemKeepsTheUserUnderStrictAndConvertsUnderDefault)
{
    // Mask 0x3 with one template: the item for position 1 is missing from the record.
    nvwriter::Db20Database db = OneFullUser();
    nvwriter::Db20User& u = db.users[0];
    u.credentials[0].mask = 0x3;
    u.credentials[0].templates = {MakeTemplate(0, 0x33)};
    WriteDatabase(db);
    SetStrict(true);

    EXPECT_EQ(S_OK, ConvertOnce());

    const std::string sid = Narrow(u.sidText);
    const std::string missing = "template malformed at position 1";
    const auto lines = ExpectKeptFor(u, missing);
    EXPECT_TRUE(KeyExists(UserKeyPath(u.guid).c_str(), kView32));
    const auto held = nvdbconv::ReadHeldUsers();
    ASSERT_EQ(1u, held.size());
    EXPECT_EQ(Widen(missing), held[0].reason);

    // The same record stays held on every strict Convert.
    EXPECT_EQ(S_OK, ConvertOnce());
    EXPECT_TRUE(KeyExists(UserKeyPath(u.guid).c_str(), kView32));

    // Under the default policy the missing item becomes an empty template and the
    // user's old key goes; the trace says what it moved without.
    SetStrict(false);
    trace.Start();
    EXPECT_EQ(S_OK, ConvertOnce());
    EXPECT_FALSE(KeyExists(UserKeyPath(u.guid).c_str(), kView32));
    EXPECT_TRUE(HasLine(OwnLines(trace, "CConverter3::do_Convert"),
                        "U Incomplete user '" + sid + "' moved with gaps: " + missing))
        << trace.Dump();
    const auto templates = inspect::ListTemplates(u.sidText);
    EXPECT_EQ(2u, templates.size());
    EXPECT_TRUE(nvdbconv::ReadHeldUsers().empty()); // no user key left to hold
}

TEST_F(StrictPolicyConversionTest, PasswordThatDoesNotUnpackHoldsTheUserBeforeAnythingReachesTheStore)
{
    // Version 0 is not a packing the library reads: the password would be empty.
    nvwriter::Db20Database db = OneFullUser();
    nvwriter::Db20User& u = db.users[0];
    nvwriter::Db20Secret* password = nullptr;
    for (auto& s : u.secrets)
        if (s.valueName == nvwriter::kDb20LogonInfoSecret)
            password = &s;
    ASSERT_NE(nullptr, password);
    ASSERT_TRUE(password->combined);
    password->combinedVersion = 0;
    password->content = nvwriter::EncodeDb20CombinedSecret(*password);
    WriteDatabase(db);
    SetStrict(true);

    EXPECT_EQ(S_OK, ConvertOnce());

    const std::string sid = Narrow(u.sidText);
    const std::string missing = "password secret not unpacked (0x80090005)";
    const auto lines = ExpectKeptFor(u, missing);
    EXPECT_TRUE(KeyExists(UserKeyPath(u.guid).c_str(), kView32));
    const auto held = nvdbconv::ReadHeldUsers();
    ASSERT_EQ(1u, held.size());
    EXPECT_EQ(Widen(missing), held[0].reason);
    // No key pair, password, secret or template was handed to the store for it.
    inspect::Bytes publicKey;
    EXPECT_FALSE(inspect::GetPublicKey(u.sidText, &publicKey));
    EXPECT_FALSE(inspect::HasPassword(u.sidText));
    EXPECT_TRUE(inspect::ListSecrets(u.sidText).empty());
    EXPECT_TRUE(inspect::ListTemplates(u.sidText).empty());

    // Once the password secret reads again, a later Convert moves the whole user
    // with the right password: nothing enrolled an empty one in between.
    password->combinedVersion = 1;
    password->content = nvwriter::EncodeDb20CombinedSecret(*password);
    WriteDatabase(db);
    EXPECT_EQ(S_OK, ConvertOnce());
    ExpectUserConverted(u);
    EXPECT_TRUE(inspect::CheckPassword(u.sidText, PasswordOf(u)));
    EXPECT_TRUE(nvdbconv::ReadHeldUsers().empty());
}

// A store whose user objects offer no IUserPayload, or that cannot make its
// registry object: the user is never registered. Strict keeps the old key and says
// why; the default policy converts the user as the format has it.
namespace {

struct StoreGap {
    const char* name;
    void (*set)(bool);
    const char* missing;
};

const StoreGap kStoreGaps[] = {
    {"NoUserPayload", &inspect::SetNoUserPayload, "payload not stored and user not registered, no IUserPayload"},
    {"NoUserRegistry", &inspect::SetNoUserRegistry, "user not registered, no IUserRegistry"},
    {"NoUserTemplates", &inspect::SetNoUserTemplates,
     "templates not stored, no IUserTemplates; payload not stored and user not registered, no IUserTemplates"},
};

void PrintTo(const StoreGap& gap, std::ostream* os)
{
    *os << gap.name;
}

class StoreGapTest : public StrictPolicyConversionTest, public ::testing::WithParamInterface<StoreGap> {};

} // namespace

TEST_P(StoreGapTest, UserTheStoreCannotRegisterKeepsItsOldKeyUnderStrict)
{
    const nvwriter::Db20Database db = OneFullUser();
    const nvwriter::Db20User& u = db.users[0];
    WriteDatabase(db);
    const RegTree oldKey = Snapshot(UserKeyPath(u.guid).c_str(), kView32);
    SetStrict(true);
    GetParam().set(true);

    EXPECT_EQ(S_OK, ConvertOnce());

    const std::string sid = Narrow(u.sidText);
    const std::string missing = GetParam().missing;
    const auto lines = ExpectKeptFor(u, missing);
    EXPECT_EQ("", DiffTrees(oldKey, Snapshot(UserKeyPath(u.guid).c_str(), kView32)));
    EXPECT_FALSE(inspect::IsRegistered(u.sidText));
    const auto held = nvdbconv::ReadHeldUsers();
    ASSERT_EQ(1u, held.size());
    EXPECT_EQ(u.sidText, held[0].sid);
    EXPECT_EQ(static_cast<DWORD>(NV_E_USER_INCOMPLETE), held[0].result);
    EXPECT_EQ(Widen(missing), held[0].reason);

    // The store offers it again: a later Convert moves and registers the user.
    inspect::ClearTestBehaviours();
    EXPECT_EQ(S_OK, ConvertOnce());
    ExpectUserConverted(u);
    EXPECT_TRUE(inspect::IsRegistered(u.sidText));
    EXPECT_TRUE(nvdbconv::ReadHeldUsers().empty());
}

TEST_P(StoreGapTest, DefaultPolicyConvertsAUserTheStoreCannotRegisterAsTheFormatHasIt)
{
    const nvwriter::Db20Database db = OneFullUser();
    const nvwriter::Db20User& u = db.users[0];
    WriteDatabase(db);
    GetParam().set(true);

    EXPECT_EQ(S_OK, ConvertOnce());

    EXPECT_FALSE(KeyExists(UserKeyPath(u.guid).c_str(), kView32));
    EXPECT_TRUE(inspect::UserExists(u.sidText));
    EXPECT_FALSE(inspect::IsRegistered(u.sidText));
    EXPECT_TRUE(nvdbconv::ReadHeldUsers().empty());
    // Not silent: the trace names what the user moved without.
    EXPECT_TRUE(HasLine(OwnLines(trace, "CConverter3::do_Convert"),
                        "U Incomplete user '" + Narrow(u.sidText) + "' moved with gaps: " + GetParam().missing))
        << trace.Dump();
}

INSTANTIATE_TEST_SUITE_P(Store, StoreGapTest, ::testing::ValuesIn(kStoreGaps),
                         [](const ::testing::TestParamInfo<StoreGap>& info) { return std::string(info.param.name); });

// A user without fingerprints, in a store whose user objects offer no IUserTemplates:
// the payload and the registration hang off the templates step, so strict keeps it.
TEST_F(StrictPolicyConversionTest, UserWithoutTemplatesIsHeldWhenTheStoreOffersNoIUserTemplates)
{
    nvwriter::Db20Database db = OneFullUser();
    db.users[0].credentials.clear();
    const nvwriter::Db20User& u = db.users[0];
    WriteDatabase(db);
    const RegTree oldKey = Snapshot(UserKeyPath(u.guid).c_str(), kView32);
    SetStrict(true);
    inspect::SetNoUserTemplates(true);

    EXPECT_EQ(S_OK, ConvertOnce());

    const std::string sid = Narrow(u.sidText);
    const std::string missing = "payload not stored and user not registered, no IUserTemplates";
    const auto lines = OwnLines(trace, "CConverter3::do_Convert");
    EXPECT_TRUE(HasLine(lines, "U Incomplete user '" + sid + "' keeps its old key: " + missing)) << trace.Dump();
    EXPECT_EQ("", DiffTrees(oldKey, Snapshot(UserKeyPath(u.guid).c_str(), kView32)));
    EXPECT_FALSE(inspect::IsRegistered(u.sidText));
    const auto held = nvdbconv::ReadHeldUsers();
    ASSERT_EQ(1u, held.size());
    EXPECT_EQ(Widen(missing), held[0].reason);
}

// ---- what each missing part says -------------------------------------------------
//
// Every part of a user that can fail to reach the store has its own words in the
// held-user record and in the trace line; several join with "; " in the order the
// conversion meets them. Each case below is produced by the store or platform call
// that fails, with a user whose every other part converts.

namespace {

// The library's own import of a platform call, failing on request; the rest of the
// process (the store, the test) keeps the real function.
std::map<std::string, void*> g_originals;
LONG g_enumValueCalls = 0;
LONG g_sidTextCalls = 0;
LONG g_genKeyCalls = 0;
LONG g_failSidTextCall = 0;

BOOL WINAPI GenKeyWithout3Des(HCRYPTPROV prov, ALG_ID alg, DWORD flags, HCRYPTKEY* key)
{
    ++g_genKeyCalls;
    if (alg == CALG_3DES) {
        ::SetLastError(static_cast<DWORD>(NTE_BAD_ALGID));
        return FALSE;
    }
    return reinterpret_cast<decltype(&::CryptGenKey)>(g_originals["CryptGenKey"])(prov, alg, flags, key);
}

// A name-only listing (the field list of a user key asks for nothing else) fails at
// its second value.
LONG WINAPI EnumValueFailingSecondName(HKEY key, DWORD index, LPWSTR name, LPDWORD cchName, LPDWORD reserved,
                                       LPDWORD type, LPBYTE data, LPDWORD cbData)
{
    if (index == 1 && !type && !data && !cbData) {
        ++g_enumValueCalls;
        return ERROR_MORE_DATA;
    }
    return reinterpret_cast<decltype(&::RegEnumValueW)>(g_originals["RegEnumValueW"])(key, index, name, cchName,
                                                                                     reserved, type, data, cbData);
}

BOOL WINAPI SidTextFailingOnce(PSID sid, LPWSTR* text)
{
    if (++g_sidTextCalls == g_failSidTextCall) {
        ::SetLastError(ERROR_INVALID_SID);
        return FALSE;
    }
    return reinterpret_cast<decltype(&::ConvertSidToStringSidW)>(g_originals["ConvertSidToStringSidW"])(sid, text);
}

nvwriter::Db20Secret PlainSecret(const wchar_t* name, BYTE fill, BYTE guidByte)
{
    nvwriter::Db20Secret s;
    s.valueName = s.name = name;
    s.guid = GUID{0x5EC0E700u + guidByte, 0x1234, 0x5678, {guidByte, 1, 2, 3, 4, 5, 6, 7}};
    s.content = std::vector<BYTE>(24, fill);
    return s;
}

nvwriter::Db20Secret LogonSecret(const std::wstring& password, DWORD version)
{
    nvwriter::Db20Secret s;
    s.valueName = s.name = nvwriter::kDb20LogonInfoSecret;
    s.guid = GUID{0x10601234u, 0x1111, 0x2222, {9, 8, 7, 6, 5, 4, 3, 2}};
    s.combined = true;
    s.combinedVersion = version;
    s.hasPassword = true;
    s.password = password;
    s.content = nvwriter::EncodeDb20CombinedSecret(s);
    return s;
}

} // namespace

class StrictMissingPartTest : public StrictPolicyConversionTest {
protected:
    // A user with a password, two plain secrets and templates at positions 0 and 2.
    static nvwriter::Db20Database UserWithSecrets(DWORD passwordVersion = 1)
    {
        nvwriter::Db20Database db = OneFullUser();
        db.users[0].secrets = {LogonSecret(L"pa55-Word", passwordVersion), PlainSecret(L"Mail Account", 0x4D, 1),
                               PlainSecret(L"VPN Token", 0x56, 2)};
        return db;
    }

    // One conversion in a fresh load of the library, whose import of `function` is
    // `replacement` (which reaches the original through g_originals); it must answer S_OK.
    template <class Function>
    static void ConvertWithImportPatched(const char* function, Function* replacement)
    {
        LoadedLibrary dll;
        ASSERT_TRUE(dll.loaded());
        ImportPatch patch(dll.module(), {{function, reinterpret_cast<void*>(replacement)}});
        ASSERT_TRUE(patch.ok());
        g_originals[function] = patch.Original(function);
        ASSERT_NE(nullptr, g_originals[function]);
        EXPECT_EQ(S_OK, dll.Convert());
    }

    // Writes the database and turns the strict policy on; the user's old key as
    // it stands before the conversion.
    RegTree Prepare(const nvwriter::Db20Database& db)
    {
        WriteDatabase(db);
        SetStrict(true);
        return Snapshot(UserKeyPath(db.users[0].guid).c_str(), kView32);
    }

    // The user was held for exactly `missing`: one trace line that names it, the
    // user's result, the old key unchanged and the held-user record.
    void ExpectHeldFor(const nvwriter::Db20User& u, const RegTree& oldKey, const std::string& missing,
                       const std::string& sidShown)
    {
        const auto lines = OwnLines(trace, "CConverter3::do_Convert");
        ASSERT_FALSE(lines.empty()) << trace.Dump();
        std::vector<std::string> incomplete;
        for (const std::string& line : lines)
            if (line.rfind("U Incomplete user", 0) == 0)
                incomplete.push_back(line);
        if (missing.empty())
            EXPECT_TRUE(incomplete.empty()) << trace.Dump();
        else
            EXPECT_EQ(std::vector<std::string>{"U Incomplete user '" + sidShown + "' keeps its old key: " + missing},
                      incomplete)
                << trace.Dump();
        EXPECT_EQ("U Conversion process is over for '" + sidShown + "', " +
                      Hex(missing.empty() ? E_UNEXPECTED : NV_E_USER_INCOMPLETE),
                  lines.back());
        EXPECT_EQ("", DiffTrees(oldKey, Snapshot(UserKeyPath(u.guid).c_str(), kView32)));
        const auto held = nvdbconv::ReadHeldUsers();
        ASSERT_EQ(1u, held.size());
        EXPECT_EQ(GuidText(u.guid), held[0].key);
        EXPECT_EQ(Widen(sidShown), held[0].sid);
        EXPECT_EQ(static_cast<DWORD>(missing.empty() ? E_UNEXPECTED : NV_E_USER_INCOMPLETE), held[0].result);
        EXPECT_EQ(missing.empty() ? std::wstring(L"conversion failed (0x8000FFFF)") : Widen(missing), held[0].reason);
    }
};

TEST_F(StrictMissingPartTest, StoreWithoutIUserSecretsNamesEverySecretAndThePasswordAndPayload)
{
    const nvwriter::Db20Database db = UserWithSecrets();
    const nvwriter::Db20User& u = db.users[0];
    const RegTree oldKey = Prepare(db);
    inspect::SetNoUserSecrets(true);

    EXPECT_EQ(S_OK, ConvertOnce());

    ExpectHeldFor(u, oldKey,
                  "secret not stored, no IUserSecrets 'Mail Account'; "
                  "secret not stored, no IUserSecrets 'SystemLogonInfo'; "
                  "secret not stored, no IUserSecrets 'VPN Token'; "
                  "password not enrolled and payload not stored, no IUserSecrets",
                  Narrow(u.sidText));
    EXPECT_TRUE(inspect::ListSecrets(u.sidText).empty());
    EXPECT_FALSE(inspect::HasPassword(u.sidText));
    inspect::Bytes payload;
    EXPECT_FALSE(inspect::GetPayload(u.sidText, &payload));
}

TEST_F(StrictMissingPartTest, PayloadTheStoreRefusesKeepsTheUser)
{
    const nvwriter::Db20Database db = UserWithSecrets();
    const nvwriter::Db20User& u = db.users[0];
    const RegTree oldKey = Prepare(db);
    inspect::SetFailPutPayload(E_FAIL);

    EXPECT_EQ(S_OK, ConvertOnce());

    ExpectHeldFor(u, oldKey, "payload not stored (0x80004005)", Narrow(u.sidText));
    EXPECT_EQ(3u, inspect::ListSecrets(u.sidText).size());
    EXPECT_TRUE(inspect::IsRegistered(u.sidText));

    // The store takes the payload again: the next Convert moves the user.
    inspect::ClearTestBehaviours();
    EXPECT_EQ(S_OK, ConvertOnce());
    ExpectUserConverted(u);
    EXPECT_TRUE(nvdbconv::ReadHeldUsers().empty());
}

TEST_F(StrictMissingPartTest, RegistrationTheStoreRefusesKeepsTheUser)
{
    const nvwriter::Db20Database db = UserWithSecrets();
    const nvwriter::Db20User& u = db.users[0];
    const RegTree oldKey = Prepare(db);
    inspect::SetFailAddUser(E_ACCESSDENIED);

    EXPECT_EQ(S_OK, ConvertOnce());

    ExpectHeldFor(u, oldKey, "user not registered (0x80070005)", Narrow(u.sidText));
    EXPECT_FALSE(inspect::IsRegistered(u.sidText));
    EXPECT_EQ(3u, inspect::ListSecrets(u.sidText).size());
}

TEST_F(StrictMissingPartTest, RegistrationCheckTheStoreCannotAnswerKeepsTheUser)
{
    const nvwriter::Db20Database db = UserWithSecrets();
    const nvwriter::Db20User& u = db.users[0];
    const RegTree oldKey = Prepare(db);
    inspect::SetFailCheckUser(RPC_E_DISCONNECTED);

    EXPECT_EQ(S_OK, ConvertOnce());

    ExpectHeldFor(u, oldKey, "registration not checked (0x80010108)", Narrow(u.sidText));
    EXPECT_FALSE(inspect::IsRegistered(u.sidText));
}

TEST_F(StrictMissingPartTest, RegistrationCheckFailureOnlyTracedUnderTheDefaultPolicy)
{
    const nvwriter::Db20Database db = UserWithSecrets();
    const nvwriter::Db20User& u = db.users[0];
    WriteDatabase(db);
    inspect::SetFailCheckUser(RPC_E_DISCONNECTED);

    EXPECT_EQ(S_OK, ConvertOnce());

    const std::string sid = Narrow(u.sidText);
    const auto lines = OwnLines(trace, "CConverter3::do_Convert");
    EXPECT_TRUE(HasLine(lines, "U Incomplete user '" + sid + "' moved with gaps: registration not checked (0x80010108)"))
        << trace.Dump();
    EXPECT_EQ("U Conversion process is over for '" + sid + "', 0x00000000", lines.back());
    EXPECT_FALSE(KeyExists(UserKeyPath(u.guid).c_str(), kView32));
    EXPECT_TRUE(nvdbconv::ReadHeldUsers().empty());
}

TEST_F(StrictMissingPartTest, SecretsThatCannotBeSealedAreNamedEachWithTheProvidersError)
{
    const nvwriter::Db20Database db = UserWithSecrets();
    const nvwriter::Db20User& u = db.users[0];
    const RegTree oldKey = Prepare(db);
    g_genKeyCalls = 0;
    ASSERT_NO_FATAL_FAILURE(ConvertWithImportPatched("CryptGenKey", &GenKeyWithout3Des));
    EXPECT_EQ(3, g_genKeyCalls);

    ExpectHeldFor(u, oldKey,
                  "secret not sealed 'Mail Account' (0x80090008); secret not sealed 'SystemLogonInfo' (0x80090008); "
                  "secret not sealed 'VPN Token' (0x80090008)",
                  Narrow(u.sidText));
    EXPECT_TRUE(inspect::ListSecrets(u.sidText).empty());
    // Only the secrets are missing: the rest of the user reached the store.
    EXPECT_TRUE(inspect::CheckPassword(u.sidText, L"pa55-Word"));
    EXPECT_TRUE(inspect::IsRegistered(u.sidText));
    EXPECT_EQ(2u, inspect::ListTemplates(u.sidText).size());
}

TEST_F(StrictMissingPartTest, TemplatesBeyondTheLastMaskAndADroppedEntryAreBothNamed)
{
    // Two fingerprint entries: the first one's templates are kept, the last one's
    // mask places them, and it has one bit for two templates.
    nvwriter::Db20Database db = UserWithSecrets();
    nvwriter::Db20User& u = db.users[0];
    nvwriter::Db20Credential second;
    second.credentialId = nvwriter::kDb20FingerprintCredentialId;
    second.mask = 0x1;
    second.templates = {MakeTemplate(0, 0x44)};
    u.credentials.push_back(second);
    const RegTree oldKey = Prepare(db);

    EXPECT_EQ(S_OK, ConvertOnce());

    ExpectHeldFor(u, oldKey, "templates beyond the position mask '1'; templates of a further fingerprint entry dropped",
                  Narrow(u.sidText));
    // The one position the mask names holds the first entry's first template.
    const auto templates = inspect::ListTemplates(u.sidText);
    ASSERT_EQ(1u, templates.size());
    DecodedTemplate stored;
    ASSERT_TRUE(DecodeStoredTemplate(templates.at(0), &stored));
    EXPECT_EQ(u.credentials[0].templates[0].data, stored.data);
}

TEST_F(StrictMissingPartTest, ADroppedFingerprintEntryAloneKeepsTheUser)
{
    nvwriter::Db20Database db = UserWithSecrets();
    nvwriter::Db20User& u = db.users[0];
    nvwriter::Db20Credential second = u.credentials[0];
    second.templates = {MakeTemplate(0, 0x66), MakeTemplate(2, 0x77)};
    u.credentials.push_back(second);
    const RegTree oldKey = Prepare(db);

    EXPECT_EQ(S_OK, ConvertOnce());

    ExpectHeldFor(u, oldKey, "templates of a further fingerprint entry dropped", Narrow(u.sidText));
    EXPECT_EQ(2u, inspect::ListTemplates(u.sidText).size());
}

TEST_F(StrictMissingPartTest, PasswordSecretThatDoesNotUnpackKeepsTheUser)
{
    // Version 10 is beyond what the combined secret knows.
    const nvwriter::Db20Database db = UserWithSecrets(10);
    const nvwriter::Db20User& u = db.users[0];
    const RegTree oldKey = Prepare(db);

    EXPECT_EQ(S_OK, ConvertOnce());

    ExpectHeldFor(u, oldKey, "password secret not unpacked (0x80090005)", Narrow(u.sidText));
    // Held before anything reached the store: no empty password was enrolled.
    EXPECT_FALSE(inspect::HasPassword(u.sidText));
    EXPECT_TRUE(inspect::ListSecrets(u.sidText).empty());
}

TEST_F(StrictMissingPartTest, MalformedSecretRecordKeepsTheUser)
{
    const nvwriter::Db20Database db = UserWithSecrets();
    const nvwriter::Db20User& u = db.users[0];
    WriteDatabase(db);
    // The "Mail Account" record again, with a secret GUID of 15 bytes: read
    // leniently (as the zero GUID), its content still opens.
    {
        using namespace nvwriter::der20;
        const nvwriter::Db20Secret& s = u.secrets[1];
        nv::unique_hcryptprov prov;
        ASSERT_TRUE(::CryptAcquireContextW(prov.put(), ContainerName(db.hostId).c_str(), MS_ENHANCED_PROV_W,
                                           PROV_RSA_FULL, CRYPT_MACHINE_KEYSET));
        const nvwriter::DerBytes guid15(15, 0xAB);
        nvwriter::ExportRecordItems items;
        items.data = Seq({Seq({GuidOctets(s.headerGuid), Uint(s.typeCode), Uint(s.headerValue)}), Octets(guid15),
                          Text(s.name), Octets(nvwriter::SealDb20Content(prov.get(), s.content))});
        items.time = u.times[1];
        SetBinary(UserKeyPath(u.guid).c_str(), s.valueName.c_str(), nvwriter::MakeExportRecord(prov.get(), items),
                  kView32, REG_BINARY);
    }
    SetStrict(true);
    const RegTree oldKey = Snapshot(UserKeyPath(u.guid).c_str(), kView32);

    EXPECT_EQ(S_OK, ConvertOnce());

    ExpectHeldFor(u, oldKey, "secret malformed 'Mail Account'", Narrow(u.sidText));
    // Held before anything reached the store.
    EXPECT_FALSE(inspect::HasPassword(u.sidText));
    EXPECT_TRUE(inspect::ListSecrets(u.sidText).empty());
}

TEST_F(StrictMissingPartTest, FieldListThatBreaksOffKeepsTheUser)
{
    const nvwriter::Db20Database db = UserWithSecrets();
    const nvwriter::Db20User& u = db.users[0];
    const RegTree oldKey = Prepare(db);
    g_enumValueCalls = 0;
    ASSERT_NO_FATAL_FAILURE(ConvertWithImportPatched("RegEnumValueW", &EnumValueFailingSecondName));
    EXPECT_EQ(1, g_enumValueCalls);

    ExpectHeldFor(u, oldKey, "fields not all listed (0x800700EA)", Narrow(u.sidText));
}

TEST_F(StrictMissingPartTest, UserWhoseSidHasNoTextIsHeldAsAFailedConversion)
{
    const nvwriter::Db20Database db = UserWithSecrets();
    const nvwriter::Db20User& u = db.users[0];
    const RegTree oldKey = Prepare(db);
    // The reader names the user's templates by the SID's text first; the
    // conversion's own call for the user is the next one.
    g_sidTextCalls = 0;
    g_failSidTextCall = 2;
    ASSERT_NO_FATAL_FAILURE(ConvertWithImportPatched("ConvertSidToStringSidW", &SidTextFailingOnce));
    g_failSidTextCall = 0;
    EXPECT_GE(g_sidTextCalls, 2);

    // Nothing of the user reached the store; it is held under its key, without a SID.
    ExpectHeldFor(u, oldKey, "", "");
    EXPECT_FALSE(inspect::UserExists(u.sidText));
}

TEST_F(StrictMissingPartTest, SecretWithNoContentIsNotStoredAndDoesNotHoldTheUser)
{
    // An empty secret has nothing to carry over: its absence from the store is no gap.
    nvwriter::Db20Database db = UserWithSecrets();
    nvwriter::Db20User& u = db.users[0];
    nvwriter::Db20Secret empty = PlainSecret(L"Empty Note", 0, 3);
    empty.content.clear();
    u.secrets.push_back(empty);
    Prepare(db);

    EXPECT_EQ(S_OK, ConvertOnce());

    const auto lines = OwnLines(trace, "CConverter3::do_Convert");
    ASSERT_FALSE(lines.empty()) << trace.Dump();
    for (const std::string& line : lines)
        EXPECT_EQ(std::string::npos, line.find("Incomplete user")) << line;
    EXPECT_EQ("U Conversion process is over for '" + Narrow(u.sidText) + "', 0x00000000", lines.back());
    // Moved: old key gone, the rest of the user in the store, the empty secret not.
    EXPECT_FALSE(KeyExists(UserKeyPath(u.guid).c_str(), kView32));
    EXPECT_TRUE(inspect::IsRegistered(u.sidText));
    EXPECT_TRUE(inspect::CheckPassword(u.sidText, L"pa55-Word"));
    EXPECT_EQ(2u, inspect::ListTemplates(u.sidText).size());
    const auto stored = inspect::ListSecrets(u.sidText);
    EXPECT_EQ((std::vector<std::wstring>{L"Mail Account", L"SystemLogonInfo", L"VPN Token"}),
              [&] {
                  std::vector<std::wstring> names;
                  for (const auto& entry : stored)
                      names.push_back(entry.first);
                  return names;
              }());
    inspect::Bytes plain;
    EXPECT_EQ(S_OK, inspect::OpenStoredSecret(u.sidText, L"VPN Token", &plain));
    EXPECT_EQ(u.secrets[2].content, plain);
    EXPECT_TRUE(nvdbconv::ReadHeldUsers().empty());
}
