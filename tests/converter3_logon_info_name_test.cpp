// The "LogonInfoName" policy: every rule of the value reader, the default name, the
// library's own registry view, and the name fixed on first use.
#include <windows.h>
#include <gtest/gtest.h>
#include <cstring>
#include <string>
#include <vector>

#include "converter3/logoninfoname.h"
#include "support/registry_sandbox.h"
#include "support/db_paths.h"
#include "support/import_fault.h"

using namespace nvtest;

namespace {

constexpr const wchar_t kValue[] = L"LogonInfoName";

std::vector<BYTE> Raw(const std::wstring& chars)
{
    std::vector<BYTE> out(chars.size() * 2);
    if (!chars.empty())
        std::memcpy(out.data(), chars.data(), out.size());
    return out;
}

class LogonInfoNameTest : public RegistrySandbox {};

} // namespace

TEST_F(LogonInfoNameTest, PolicyKeyAbsentGivesSystemLogonInfo)
{
    ASSERT_FALSE(KeyExists(kPolicyDefaultPath, kViewNative));
    EXPECT_EQ(L"SystemLogonInfo", nvconv3::ReadLogonInfoNamePolicy());
}

TEST_F(LogonInfoNameTest, ValueAbsentGivesSystemLogonInfo)
{
    CreateKeyPath(kPolicyDefaultPath, kViewNative);
    SetString(kPolicyDefaultPath, L"OtherValue", L"Primary", kViewNative);
    EXPECT_EQ(L"SystemLogonInfo", nvconv3::ReadLogonInfoNamePolicy());
}

TEST_F(LogonInfoNameTest, TerminatedStringIsTheName)
{
    SetString(kPolicyDefaultPath, kValue, L"Primary", kViewNative);
    EXPECT_EQ(L"Primary", nvconv3::ReadLogonInfoNamePolicy());
}

TEST_F(LogonInfoNameTest, ExpandStringIsTakenWithoutExpansion)
{
    SetString(kPolicyDefaultPath, kValue, L"%USERNAME%Pwd", kViewNative, REG_EXPAND_SZ);
    EXPECT_EQ(L"%USERNAME%Pwd", nvconv3::ReadLogonInfoNamePolicy());
}

TEST_F(LogonInfoNameTest, ZeroBytesGivesSystemLogonInfo)
{
    SetBinary(kPolicyDefaultPath, kValue, {}, kViewNative, REG_SZ);
    EXPECT_EQ(L"SystemLogonInfo", nvconv3::ReadLogonInfoNamePolicy());
}

TEST_F(LogonInfoNameTest, OnlyTheTerminatorGivesTheEmptyName)
{
    SetBinary(kPolicyDefaultPath, kValue, {0, 0}, kViewNative, REG_SZ);
    EXPECT_EQ(L"", nvconv3::ReadLogonInfoNamePolicy());
}

TEST_F(LogonInfoNameTest, UnterminatedStringGivesSystemLogonInfo)
{
    SetBinary(kPolicyDefaultPath, kValue, Raw(L"Primary"), kViewNative, REG_SZ);
    EXPECT_EQ(L"SystemLogonInfo", nvconv3::ReadLogonInfoNamePolicy());
}

TEST_F(LogonInfoNameTest, OddByteCountGivesSystemLogonInfo)
{
    std::vector<BYTE> odd = Raw(std::wstring(L"Pri\0", 4));
    odd.push_back(0);
    SetBinary(kPolicyDefaultPath, kValue, odd, kViewNative, REG_SZ);
    EXPECT_EQ(L"SystemLogonInfo", nvconv3::ReadLogonInfoNamePolicy());
}

TEST_F(LogonInfoNameTest, DwordValueGivesSystemLogonInfo)
{
    SetDword(kPolicyDefaultPath, kValue, 0x00720050, kViewNative);
    EXPECT_EQ(L"SystemLogonInfo", nvconv3::ReadLogonInfoNamePolicy());
}

TEST_F(LogonInfoNameTest, MultiStringGivesSystemLogonInfo)
{
    SetBinary(kPolicyDefaultPath, kValue, Raw(std::wstring(L"Primary\0\0", 9)), kViewNative, REG_MULTI_SZ);
    EXPECT_EQ(L"SystemLogonInfo", nvconv3::ReadLogonInfoNamePolicy());
}

TEST_F(LogonInfoNameTest, NameEndsAtTheFirstZero)
{
    SetBinary(kPolicyDefaultPath, kValue, Raw(std::wstring(L"Pri\0mary\0", 9)), kViewNative, REG_SZ);
    EXPECT_EQ(L"Pri", nvconv3::ReadLogonInfoNamePolicy());
}

TEST_F(LogonInfoNameTest, ValueThatCannotBeReadAfterItsSizeGivesSystemLogonInfo)
{
    SetString(kPolicyDefaultPath, kValue, L"Primary", kViewNative);
    // The size query answers; the read of the value then fails.
    nvtest::ImportFault<decltype(&::RegQueryValueExW)> fault("RegQueryValueExW", ERROR_ACCESS_DENIED, 0, 2);
    EXPECT_EQ(L"SystemLogonInfo", nvconv3::ReadLogonInfoNamePolicy());
    EXPECT_EQ(1u, fault.failed());
}

TEST_F(LogonInfoNameTest, PolicyInThe32BitViewOnlyIsNotSeen)
{
    SetString(kPolicyDefaultPath, kValue, L"Primary", kView32);
    ASSERT_FALSE(KeyExists(kPolicyDefaultPath, kView64));
    EXPECT_EQ(L"SystemLogonInfo", nvconv3::ReadLogonInfoNamePolicy());
}

// The only test of this executable that touches the process-wide name.
TEST_F(LogonInfoNameTest, NameIsFixedOnFirstUseForTheLifeOfTheProcess)
{
    SetString(kPolicyDefaultPath, kValue, L"First", kViewNative);
    const std::wstring& name = nvconv3::LogonInfoName();
    EXPECT_EQ(L"First", name);
    SetString(kPolicyDefaultPath, kValue, L"Second", kViewNative);
    EXPECT_EQ(L"Second", nvconv3::ReadLogonInfoNamePolicy());
    EXPECT_EQ(L"First", nvconv3::LogonInfoName());
    DeleteValue(kPolicyDefaultPath, kValue, kViewNative);
    EXPECT_EQ(L"First", nvconv3::LogonInfoName());
    EXPECT_EQ(&name, &nvconv3::LogonInfoName());
}
