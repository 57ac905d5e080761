// The store boundary under nvfaults: every call the library makes through a store
// interface is numbered like an import (count mode lists it), failing one fails that
// very call with the chosen error, and a kill there ends the process there. Under the
// strict policy, a failed object creation, IUserPayload query or IUserRegistry
// creation holds the user: no old key goes unless the user is registered in the store
// whole.
#include <windows.h>
#include <gtest/gtest.h>
#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "common/storecontract.h"
#include "fault_child_test.h"
#include "fault_hooks.h"
#include "nvstore_inspect.h"
#include "nvdbconv/policy.h"
#include "store_boundary.h"
#include "support/conversion_fixture.h"
#include "support/dll_loader.h"
#include "support/process_runner.h"
#include "support/registry_sandbox.h"
#include "support/trace_capture.h"
#include "support/text_util.h"

using namespace nvtest;
namespace inspect = nvstore::inspect;

namespace {

constexpr wchar_t kStrictValue[] = L"StrictConversion";

// The n-th (from 1) call of the function, or null.
const nvfaults::CallRecord* NthCall(const std::vector<nvfaults::CallRecord>& calls, const std::string& function,
                                    unsigned n)
{
    for (const auto& c : calls)
        if (c.function == function && --n == 0)
            return &c;
    return nullptr;
}

// The first store call after the numbered one: what the library did with what that
// call gave it.
std::string NextStoreCall(const std::vector<nvfaults::CallRecord>& calls, std::uint64_t number)
{
    for (const auto& c : calls)
        if (c.number > number && nvfaults::IsStoreCall(c.function))
            return c.function;
    return "";
}

// CheckUser through the store's own registry object.
HRESULT CheckUserInStore(const std::wstring& sid)
{
    IUserRegistry* registry = nullptr;
    HRESULT hr = ::CoCreateInstance(nvstore::kClsidUserStore, nullptr, CLSCTX_INPROC_SERVER,
                                    nvstore::kIidUserRegistry, reinterpret_cast<void**>(&registry));
    if (FAILED(hr))
        return hr;
    hr = registry->CheckUser(sid.c_str(), nvstore::kUserIdKindSid);
    registry->Release();
    return hr;
}

class StoreBoundaryTest : public nvfaults::FaultChildTest {
protected:
    StoreBoundaryTest() : FaultChildTest(L"store-boundary") {}

    // Writes the database and the policy (the strict policy makes calls of its own,
    // so a count and the run it plans must both have it).
    void WriteFreshWorld()
    {
        WriteFreshDatabase();
        if (m_strict)
            SetDword(kPolicyDefaultPath, kStrictValue, 1, kViewNative);
        if (m_existingKeys) {
            std::vector<std::wstring> sids;
            for (const auto& u : m_db.users)
                sids.push_back(u.sidText);
            inspect::SetExistingPublicKey(sids);
        }
    }

    // The calls of a clean conversion of a fresh database; the database is written
    // afresh again for the run that follows.
    std::vector<nvfaults::CallRecord> CountCalls()
    {
        WriteFreshWorld();
        const ProcessRun count = Child(L"--mode count");
        EXPECT_EQ(0u, count.exitCode) << count.err;
        const std::vector<std::string> lines = ReadFileLines(m_calls);
        EXPECT_TRUE(HasLine(lines, "result 0x00000000"));
        EXPECT_TRUE(HasLine(lines, "store objects left 0"));
        std::vector<nvfaults::CallRecord> calls = nvfaults::ReadCallRecords(m_calls);
        WriteFreshWorld();
        return calls;
    }

    bool m_strict = false;
    // The store starts every user with a key pair and a payload but no password (a
    // provisioned account).
    bool m_existingKeys = false;

    const nvwriter::Db20User* UserOfSid(const std::wstring& sid) const
    {
        for (const auto& u : m_db.users)
            if (u.sidText == sid)
                return &u;
        return nullptr;
    }

    // Every user either keeps its old key (held, and named in the held-users record
    // under the strict policy) or is in the store whole and registered.
    void ExpectNoUserLost(bool strict)
    {
        const auto held = nvdbconv::ReadHeldUsers();
        for (const auto& u : m_db.users) {
            if (KeyExists(UserKeyPath(u.guid).c_str(), kView32)) {
                if (strict) {
                    EXPECT_TRUE(std::any_of(held.begin(), held.end(),
                                            [&](const nvdbconv::HeldUser& h) { return h.sid == u.sidText; }))
                        << Narrow(u.sidText) << " kept its key but is not in the held-users record";
                }
                continue;
            }
            ExpectUserConverted(u);
            EXPECT_TRUE(inspect::IsRegistered(u.sidText)) << Narrow(u.sidText);
            EXPECT_EQ(S_OK, CheckUserInStore(u.sidText)) << Narrow(u.sidText);
        }
    }
};

} // namespace

TEST_F(StoreBoundaryTest, CountModeNumbersEveryStoreCallOfTheConversion)
{
    const std::vector<nvfaults::CallRecord> calls = CountCalls();
    ASSERT_FALSE(calls.empty());
    std::map<std::string, unsigned> counted;
    const std::vector<std::string> methods = nvfaults::StoreMethods();
    for (const auto& c : calls) {
        if (!nvfaults::IsStoreCall(c.function))
            continue;
        ++counted[c.function];
        EXPECT_NE(methods.end(), std::find(methods.begin(), methods.end(), c.function)) << c.function;
        EXPECT_FALSE(c.allocation) << c.function;
        ASSERT_FALSE(c.frames.empty()) << c.function;
        EXPECT_NE(0u, c.frames[0]) << c.function; // the call site in the library
    }

    // Per user: the store, the creator of the authentication service and the registry
    // are made by the class object; the user object is asked for its secrets,
    // templates and payload; the public key is read before the enrolment and after.
    const unsigned users = static_cast<unsigned>(m_db.users.size());
    unsigned secrets = 0, templates = 0;
    for (const auto& u : m_db.users) {
        for (const auto& s : u.secrets)
            secrets += s.content.empty() ? 0 : 1;
        templates += static_cast<unsigned>(ExpectedTemplates(u).size());
    }
    ASSERT_EQ(4u, users);
    const std::map<std::string, unsigned> expected = {
        {"store!IClassFactory::CreateInstance", 3 * users},
        {"store!IUserStore::OpenUser", users},
        {"store!IUnknown::QueryInterface", 3 * users},
        {"store!IUserSecrets::QueryInterface", users},
        {"store!IStoreService::QueryInterface", users},
        {"store!IUserProperties::GetProperty", 2 * users},
        {"store!IAuthService::EnrollAuthentication", users},
        {"store!IAuthService::Authenticate", users},
        {"store!IUserSecrets::PutSecret", secrets},
        {"store!IUserTemplates::PutTemplate", templates},
        {"store!IUserPayload::PutPayload", users},
        {"store!IUserRegistry::CheckUser", users},
        {"store!IUserRegistry::AddUser", users},
    };
    EXPECT_EQ(expected, counted);
    // The class object itself is still an import.
    EXPECT_EQ(1u, std::count_if(calls.begin(), calls.end(), [](const nvfaults::CallRecord& c) {
                  return c.function == "ole32.dll!CoGetClassObject";
              }));
}

class StoreErrorTest : public StoreBoundaryTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(StoreErrorTest, OnceAtOpenUserFailsThatUserWithTheStoreError)
{
    const std::vector<nvfaults::CallRecord> calls = CountCalls();
    const nvfaults::CallRecord* open = NthCall(calls, "store!IUserStore::OpenUser", 2);
    ASSERT_NE(nullptr, open);
    HRESULT error = S_OK;
    ASSERT_TRUE(nvfaults::ParseStoreError(GetParam(), &error));
    TraceCapture trace;
    trace.Start();

    const ProcessRun run =
        Child(L"--mode once --n " + std::to_wstring(open->number) + L" --store-error " + Widen(GetParam()));
    ASSERT_EQ(0u, run.exitCode) << run.err;

    const std::vector<std::string> lines = ReadFileLines(m_calls);
    EXPECT_TRUE(HasLine(lines, "result 0x00000000"));
    EXPECT_TRUE(HasLine(lines, "failed 1"));
    EXPECT_TRUE(HasLine(lines, "store objects left 0"));
    const auto failed = nvfaults::ReadCallRecords(m_calls);
    ASSERT_EQ(1u, failed.size());
    EXPECT_EQ(open->number, failed[0].number);
    EXPECT_EQ("store!IUserStore::OpenUser", failed[0].function);

    // Exactly one user kept its old key: the one whose OpenUser failed, with that
    // error as its status. Everybody else is in the store whole.
    std::vector<const nvwriter::Db20User*> kept;
    for (const auto& u : m_db.users)
        if (KeyExists(UserKeyPath(u.guid).c_str(), kView32))
            kept.push_back(&u);
    ASSERT_EQ(1u, kept.size());
    const std::string sid = Narrow(kept[0]->sidText);
    const auto over = OwnLines(trace, "CConverter3::do_Convert");
    EXPECT_TRUE(std::find(over.begin(), over.end(), "U Conversion process is over for '" + sid + "', " + Hex(error)) !=
                over.end())
        << trace.Dump();
    ExpectNoUserLost(false);
}

INSTANTIATE_TEST_SUITE_P(Errors, StoreErrorTest, ::testing::Values("E_OUTOFMEMORY", "RPC_E_DISCONNECTED", "E_FAIL"),
                         [](const ::testing::TestParamInfo<const char*>& info) { return std::string(info.param); });

TEST_F(StoreBoundaryTest, KillInsideAStoreCallEndsTheProcessThereAndARerunMovesEveryone)
{
    const std::vector<nvfaults::CallRecord> calls = CountCalls();
    const nvfaults::CallRecord* enrol = NthCall(calls, "store!IAuthService::EnrollAuthentication", 3);
    ASSERT_NE(nullptr, enrol);

    const ProcessRun run = Child(L"--mode kill --n " + std::to_wstring(enrol->number));
    ASSERT_EQ(nvfaults::kKilledExitCode, run.exitCode) << run.err;
    const std::vector<std::string> lines = ReadFileLines(m_calls);
    ASSERT_LE(2u, lines.size());
    EXPECT_EQ("killed " + std::to_string(enrol->number), lines[0]);
    nvfaults::CallRecord record;
    ASSERT_TRUE(nvfaults::ParseRecord(lines[1], &record)) << lines[1];
    EXPECT_EQ("store!IAuthService::EnrollAuthentication", record.function);
    EXPECT_EQ(enrol->frames, record.frames);
    // Two users were through when it died; the other two still have their old keys.
    EXPECT_EQ(2u, SubkeyNames(kDataUsersPath, kView32).size());

    // An installer started again: Rollback, then Convert.
    inspect::SetUserKeyBits(512);
    {
        LoadedLibrary dll;
        ASSERT_TRUE(dll.loaded());
        EXPECT_EQ(S_OK, dll.Rollback());
    }
    {
        LoadedLibrary dll;
        EXPECT_EQ(S_OK, dll.Convert());
    }
    for (const auto& u : m_db.users)
        ExpectUserConverted(u);
}

// ---- the strict policy at the store boundary ---------------------------------------

struct StrictSite {
    const char* name;
    const char* function; // the call failed
    unsigned occurrence;  // its n-th call in the conversion
    const char* next;     // the store call that follows it in the clean run
    const char* error;    // the store error, or "" for an import
    const char* missing;  // what the held-users record says of the user
    bool existingKeys;    // the store starts the users with a key pair
    bool noSecrets;       // the users have no secrets
    bool registered;      // the held user went on to its registration
};

// The first user's objects: the store object, the payload query (its user object's
// third query, after IUserSecrets and IUserTemplates) and the registry (the third
// object the class object makes for it), and the class object itself.
const StrictSite kStrictSites[] = {
    {"ClassObject", "ole32.dll!CoGetClassObject", 1, "store!IClassFactory::CreateInstance", "",
     "conversion failed (0x80004003)", false, false, false},
    {"StoreObject", "store!IClassFactory::CreateInstance", 1, "store!IUserStore::OpenUser", "E_OUTOFMEMORY",
     "conversion failed (0x80004003)", false, false, false},
    {"UserPayloadQuery", "store!IUnknown::QueryInterface", 3, "store!IUserPayload::PutPayload",
     "RPC_E_DISCONNECTED", "payload not stored and user not registered, no IUserPayload", false, false, false},
    {"UserRegistryObject", "store!IClassFactory::CreateInstance", 3, "store!IUserRegistry::CheckUser", "E_FAIL",
     "user not registered, no IUserRegistry", false, false, false},
    // A user the store already has a key pair for needs the authentication service
    // to get its password; without it the password never reaches the store.
    {"AuthServiceQueryWithExistingKey", "store!IStoreService::QueryInterface", 1,
     "store!IUserSecrets::QueryInterface", "RPC_E_DISCONNECTED", "password not enrolled, no IAuthService", true, false, true},
    // Users without secrets, and no IUserSecrets: the user would be registered with
    // no key pair, password or payload.
    {"UserSecretsQueryWithoutSecrets", "store!IUnknown::QueryInterface", 1, "store!IClassFactory::CreateInstance",
     "E_FAIL", "password not enrolled and payload not stored, no IUserSecrets", false, true, true},
};

void PrintTo(const StrictSite& site, std::ostream* os)
{
    *os << site.name;
}

class StrictStoreFaultTest : public StoreBoundaryTest, public ::testing::WithParamInterface<StrictSite> {};

TEST_P(StrictStoreFaultTest, StrictKeepsTheOldKeyOfAUserTheStoreDidNotTakeWhole)
{
    const StrictSite& site = GetParam();
    m_strict = true;
    m_existingKeys = site.existingKeys;
    if (site.noSecrets)
        for (auto& u : m_db.users)
            u.secrets.clear();
    const std::vector<nvfaults::CallRecord> calls = CountCalls();
    const nvfaults::CallRecord* target = NthCall(calls, site.function, site.occurrence);
    ASSERT_NE(nullptr, target);
    // The call is the one meant: what follows it in the clean run says so.
    ASSERT_EQ(site.next, NextStoreCall(calls, target->number));
    TraceCapture trace;
    trace.Start();

    std::wstring args = L"--mode once --n " + std::to_wstring(target->number);
    if (*site.error)
        args += L" --store-error " + Widen(site.error);
    const ProcessRun run = Child(args);
    ASSERT_EQ(0u, run.exitCode) << run.err;
    const std::vector<std::string> lines = ReadFileLines(m_calls);
    EXPECT_TRUE(HasLine(lines, "result 0x00000000")) << trace.Dump();
    EXPECT_TRUE(HasLine(lines, "failed 1"));
    EXPECT_TRUE(HasLine(lines, "store objects left 0"));

    // One user held, with what it lacks; nobody's key gone without the whole user in
    // the store, registered.
    const auto held = nvdbconv::ReadHeldUsers();
    ASSERT_EQ(1u, held.size()) << trace.Dump();
    const nvwriter::Db20User* user = UserOfSid(held[0].sid);
    ASSERT_NE(nullptr, user);
    EXPECT_TRUE(KeyExists(UserKeyPath(user->guid).c_str(), kView32));
    EXPECT_EQ(Widen(site.missing), held[0].reason);
    EXPECT_EQ(std::vector<std::wstring>{GuidText(user->guid)}, SubkeyNames(kDataUsersPath, kView32));
    // A user held for its password or payload has gone on to its registration; the
    // others stopped before it.
    EXPECT_EQ(site.registered, inspect::IsRegistered(user->sidText));
    EXPECT_EQ(site.registered ? S_OK : S_FALSE, CheckUserInStore(user->sidText));
    ExpectNoUserLost(true);

    // The next Convert, with the store whole again, moves the held user.
    inspect::SetUserKeyBits(512);
    {
        LoadedLibrary dll;
        ASSERT_TRUE(dll.loaded());
        EXPECT_EQ(S_OK, dll.Convert());
    }
    for (const auto& u : m_db.users)
        ExpectUserConverted(u);
    EXPECT_TRUE(nvdbconv::ReadHeldUsers().empty());
}

INSTANTIATE_TEST_SUITE_P(Sites, StrictStoreFaultTest, ::testing::ValuesIn(kStrictSites),
                         [](const ::testing::TestParamInfo<StrictSite>& info) { return std::string(info.param.name); });
