// CHeldUsers: the record of users the strict policy kept in the old database. Its
// keys are the project's own, beside the database: for LocalSystem and
// Administrators only, whatever security an older release left on them.
#include <windows.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "common/guidtext.h"
#include "converter3/heldusers.h"
#include "nvdbconv/policy.h"
#include "support/allocation_faults.h"
#include "support/import_fault.h"
#include "support/registry_sandbox.h"
#include "support/token_scope.h"

using namespace nvtest;

namespace {

constexpr GUID kUser = {0x6f1e2d3c, 0x4b5a, 0x4978, {0x86, 0x95, 0xa4, 0xb3, 0xc2, 0xd1, 0xe0, 0xf7}};

class HeldUsersTest : public RegistrySandbox {};

std::wstring EntryPath()
{
    return std::wstring(nvconv3::kHeldUsersKeyPath) + L"\\" + nv::GuidText(kUser);
}

// Both keys above the entries, and the entry, list LocalSystem and Administrators
// with full access and nobody else.
void ExpectKeysForAdministratorsOnly()
{
    for (const std::wstring& path : {std::wstring(nvconv3::kConversionKeyPath),
                                     std::wstring(nvconv3::kHeldUsersKeyPath), EntryPath()}) {
        EXPECT_EQ(std::wstring(kAdministratorsOnlyEntries), DaclEntries(DaclText(path.c_str(), kView32)))
            << Narrow(path);
    }
}

} // namespace

TEST_F(HeldUsersTest, RecordLeavesItsKeysForSystemAndAdministratorsOnly)
{
    // As an older release left it: the keys inherit HKLM\SOFTWARE's entries,
    // Users among them.
    CreateKeyPath(nvconv3::kHeldUsersKeyPath, kView32);
    ASSERT_NE(std::wstring::npos, DaclText(nvconv3::kConversionKeyPath, kView32).find(L";;;BU)"));
    ASSERT_NE(std::wstring::npos, DaclText(nvconv3::kHeldUsersKeyPath, kView32).find(L";;;BU)"));

    nvconv3::CHeldUsers held;
    held.Record(kUser, L"S-1-5-21-1-2-3-1001", NV_E_USER_INCOMPLETE, L"secret not stored 'PIN' (0x80070005)");

    ExpectKeysForAdministratorsOnly();

    std::wstring sid, reason;
    DWORD result = 0;
    EXPECT_TRUE(GetString(EntryPath().c_str(), nvconv3::kHeldUserSidValue, kView32, &sid));
    EXPECT_EQ(std::wstring(L"S-1-5-21-1-2-3-1001"), sid);
    EXPECT_TRUE(GetDword(EntryPath().c_str(), nvconv3::kHeldUserResultValue, kView32, &result));
    EXPECT_EQ(static_cast<DWORD>(NV_E_USER_INCOMPLETE), result);
    EXPECT_TRUE(GetString(EntryPath().c_str(), nvconv3::kHeldUserReasonValue, kView32, &reason));
    EXPECT_EQ(std::wstring(L"secret not stored 'PIN' (0x80070005)"), reason);
}

TEST_F(HeldUsersTest, RecordOnAFreshMachineCreatesProtectedKeys)
{
    nvconv3::CHeldUsers held;
    held.Record(kUser, L"S-1-5-21-1-2-3-1001", NV_E_USER_INCOMPLETE, L"user not registered (0x80004005)");

    ExpectKeysForAdministratorsOnly();
    EXPECT_TRUE(KeyExists(EntryPath().c_str(), kView32));
    EXPECT_FALSE(KeyExists(nvconv3::kConversionKeyPath, kView64));
}

// The record is for administrators: an account without admin rights cannot read it,
// and nvdbconv says so instead of showing no held users.
TEST_F(HeldUsersTest, AnAccountWithoutAdminRightsCannotReadTheRecordAndIsToldSo)
{
    // The entry is listed only while the user's old key is there.
    CreateKeyPath((std::wstring(L"SOFTWARE\\Norvane\\DB\\Data\\Users\\") + nv::GuidText(kUser)).c_str(), kView32);
    nvconv3::CHeldUsers held;
    held.Record(kUser, L"S-1-5-21-1-2-3-1001", NV_E_USER_INCOMPLETE, L"user not registered (0x80004005)");
    ASSERT_EQ(1u, nvdbconv::ReadHeldUsers().size());
    EXPECT_TRUE(nvdbconv::HeldUsersReadable());
    {
        NonAdministratorScope nonAdmin;
        EXPECT_FALSE(nvdbconv::HeldUsersReadable());
        EXPECT_TRUE(nvdbconv::ReadHeldUsers().empty());
    }
    EXPECT_TRUE(nvdbconv::HeldUsersReadable());
}

// ---- a list that cannot be read, an entry that cannot be written -------------------

namespace {

// An entry for kUser as a conversion before this one left it.
void RecordUserHeldBefore()
{
    nvconv3::CHeldUsers earlier;
    earlier.Record(kUser, L"S-1-5-21-1-2-3-1001", NV_E_USER_INCOMPLETE, L"secret not stored 'PIN' (0x80070005)");
    ASSERT_TRUE(KeyExists(EntryPath().c_str(), kView32));
}

} // namespace

TEST_F(HeldUsersTest, ListThatCannotBeReadLeavesForgetDeletingTheEntry)
{
    RecordUserHeldBefore();
    std::unique_ptr<nvconv3::CHeldUsers> held;
    {
        ImportFault<decltype(&::RegEnumKeyExW)> fault("RegEnumKeyExW", ERROR_ACCESS_DENIED, ERROR_ACCESS_DENIED, 1);
        held = std::make_unique<nvconv3::CHeldUsers>();
        EXPECT_EQ(1u, fault.calls());
    }
    held->Forget(kUser);
    EXPECT_FALSE(KeyExists(EntryPath().c_str(), kView32));
}

TEST_F(HeldUsersTest, AnEntryWhoseDeleteFailedIsStillListedAndTheNextForgetDeletesIt)
{
    RecordUserHeldBefore();
    nvconv3::CHeldUsers held;
    {
        ImportFault<decltype(&::RegDeleteKeyExW)> fault("RegDeleteKeyExW", ERROR_ACCESS_DENIED, ERROR_ACCESS_DENIED);
        held.Forget(kUser);
        EXPECT_EQ(1u, fault.failed());
    }
    EXPECT_TRUE(KeyExists(EntryPath().c_str(), kView32));
    held.Forget(kUser);
    EXPECT_FALSE(KeyExists(EntryPath().c_str(), kView32));
}

TEST_F(HeldUsersTest, ListThatRunsOutOfMemoryLeavesForgetDeletingTheEntry)
{
    RecordUserHeldBefore();
    std::optional<nvconv3::CHeldUsers> held;
    {
        AllocationFaults oom(1);
        held.emplace();
        EXPECT_EQ(1u, oom.failed());
    }
    held->Forget(kUser);
    EXPECT_FALSE(KeyExists(EntryPath().c_str(), kView32));
}

TEST_F(HeldUsersTest, EntryThatRunsOutOfMemoryIsNotWrittenAndRecordReturns)
{
    nvconv3::CHeldUsers held;
    const std::wstring sid = L"S-1-5-21-1-2-3-1001", reason = L"secret not stored 'PIN' (0x80070005)";
    {
        AllocationFaults oom(1);
        held.Record(kUser, sid, NV_E_USER_INCOMPLETE, reason);
        EXPECT_EQ(1u, oom.failed());
    }
    EXPECT_FALSE(KeyExists(EntryPath().c_str(), kView32));
    // The next one is written.
    held.Record(kUser, sid, NV_E_USER_INCOMPLETE, reason);
    EXPECT_TRUE(KeyExists(EntryPath().c_str(), kView32));
}
