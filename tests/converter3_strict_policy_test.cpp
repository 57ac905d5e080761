// The strict conversion policy: the value that turns it on, the trace line that says
// so, a user kept in the old database when part of it did not reach the store (with
// its own result code, a trace line naming what is missing, an entry nvdbconv
// status shows), a later Convert that moves it, and the default policy converting
// the same users as the format has it.
#include <windows.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "converter3/conversion_policy.h"
#include "converter3/held_users.h"
#include "nvstore_inspect.h"
#include "nvdbconv/cli.h"
#include "nvdbconv/policy.h"
#include "support/conversion_fixture.h"
#include "support/dll_loader.h"
#include "support/process_runner.h"
#include "support/registry_sandbox.h"

using namespace nvtest;
namespace inspect = nvstore::inspect;

namespace {

constexpr const wchar_t kStrictValue[] = L"StrictConversion";
constexpr HRESULT kIncomplete = static_cast<HRESULT>(0x80040201);

bool HasLine(const std::vector<std::string>& lines, const std::string& line)
{
    for (const std::string& l : lines)
        if (l == line)
            return true;
    return false;
}

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
    const auto lines = OwnLines(trace, "CConverter3::do_Convert");
    EXPECT_TRUE(HasLine(lines, "U Incomplete user '" + sid + "' keeps its old key: " + missing)) << trace.Dump();
    EXPECT_EQ("U Conversion process is over for '" + sid + "', " + Hex(kIncomplete), lines.back());
    // The old key stays as it was; what reached the store stays there.
    EXPECT_EQ("", DiffTrees(oldKey, Snapshot(UserKeyPath(u.guid).c_str(), kView32)));
    EXPECT_TRUE(inspect::UserExists(u.sidText));
    EXPECT_EQ(0u, inspect::ListSecrets(u.sidText).count(Widen(secret)));

    // The entry status reads, and what nvdbconv status shows of it.
    const auto held = nvdbconv::ReadHeldUsers();
    ASSERT_EQ(1u, held.size());
    EXPECT_EQ(GuidText(u.guid), held[0].key);
    EXPECT_EQ(u.sidText, held[0].sid);
    EXPECT_EQ(static_cast<DWORD>(kIncomplete), held[0].result);
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
    const auto lines = OwnLines(trace, "CConverter3::do_Convert");
    EXPECT_TRUE(HasLine(lines, "U Incomplete user '" + sid + "' keeps its old key: " + missing)) << trace.Dump();
    EXPECT_EQ("U Conversion process is over for '" + sid + "', " + Hex(kIncomplete), lines.back());
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
    const auto lines = OwnLines(trace, "CConverter3::do_Convert");
    EXPECT_TRUE(HasLine(lines, "U Incomplete user '" + sid + "' keeps its old key: " + missing)) << trace.Dump();
    EXPECT_EQ("U Conversion process is over for '" + sid + "', " + Hex(kIncomplete), lines.back());
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
    const auto lines = OwnLines(trace, "CConverter3::do_Convert");
    ASSERT_FALSE(lines.empty()) << trace.Dump();
    EXPECT_TRUE(HasLine(lines, "U Incomplete user '" + sid + "' keeps its old key: " + missing)) << trace.Dump();
    EXPECT_EQ("U Conversion process is over for '" + sid + "', " + Hex(kIncomplete), lines.back());
    EXPECT_EQ("", DiffTrees(oldKey, Snapshot(UserKeyPath(u.guid).c_str(), kView32)));
    EXPECT_FALSE(inspect::IsRegistered(u.sidText));
    const auto held = nvdbconv::ReadHeldUsers();
    ASSERT_EQ(1u, held.size());
    EXPECT_EQ(u.sidText, held[0].sid);
    EXPECT_EQ(static_cast<DWORD>(kIncomplete), held[0].result);
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
