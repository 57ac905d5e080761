// The "LogonInfoName" policy: every rule of the value reader, the default name, the
// library's own registry view, and the name fixed on first use.
#include <windows.h>
#include <gtest/gtest.h>
#include <cstring>
#include <string>
#include <vector>

#include "converter3/logoninfoname.h"
#include "support/registry_sandbox.h"

using namespace nvtest;

namespace {

constexpr const wchar_t kPolicy[] = L"SOFTWARE\\Norvane\\Policies\\Default";
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
    ASSERT_FALSE(KeyExists(kPolicy, kViewNative));
    EXPECT_EQ(L"SystemLogonInfo", nvconv3::ReadLogonInfoNamePolicy());
}

TEST_F(LogonInfoNameTest, ValueAbsentGivesSystemLogonInfo)
{
    CreateKeyPath(kPolicy, kViewNative);
    SetString(kPolicy, L"OtherValue", L"Primary", kViewNative);
    EXPECT_EQ(L"SystemLogonInfo", nvconv3::ReadLogonInfoNamePolicy());
}

TEST_F(LogonInfoNameTest, TerminatedStringIsTheName)
{
    SetString(kPolicy, kValue, L"Primary", kViewNative);
    EXPECT_EQ(L"Primary", nvconv3::ReadLogonInfoNamePolicy());
}

TEST_F(LogonInfoNameTest, ExpandStringIsTakenWithoutExpansion)
{
    SetString(kPolicy, kValue, L"%USERNAME%Pwd", kViewNative, REG_EXPAND_SZ);
    EXPECT_EQ(L"%USERNAME%Pwd", nvconv3::ReadLogonInfoNamePolicy());
}

TEST_F(LogonInfoNameTest, ZeroBytesGivesSystemLogonInfo)
{
    SetBinary(kPolicy, kValue, {}, kViewNative, REG_SZ);
    EXPECT_EQ(L"SystemLogonInfo", nvconv3::ReadLogonInfoNamePolicy());
}

TEST_F(LogonInfoNameTest, OnlyTheTerminatorGivesTheEmptyName)
{
    SetBinary(kPolicy, kValue, {0, 0}, kViewNative, REG_SZ);
    EXPECT_EQ(L"", nvconv3::ReadLogonInfoNamePolicy());
}

TEST_F(LogonInfoNameTest, UnterminatedStringGivesSystemLogonInfo)
{
    SetBinary(kPolicy, kValue, Raw(L"Primary"), kViewNative, REG_SZ);
    EXPECT_EQ(L"SystemLogonInfo", nvconv3::ReadLogonInfoNamePolicy());
}

TEST_F(LogonInfoNameTest, OddByteCountGivesSystemLogonInfo)
{
    std::vector<BYTE> odd = Raw(std::wstring(L"Pri\0", 4));
    odd.push_back(0);
    SetBinary(kPolicy, kValue, odd, kViewNative, REG_SZ);
    EXPECT_EQ(L"SystemLogonInfo", nvconv3::ReadLogonInfoNamePolicy());
}

TEST_F(LogonInfoNameTest, DwordValueGivesSystemLogonInfo)
{
    SetDword(kPolicy, kValue, 0x00720050, kViewNative);
    EXPECT_EQ(L"SystemLogonInfo", nvconv3::ReadLogonInfoNamePolicy());
}

TEST_F(LogonInfoNameTest, MultiStringGivesSystemLogonInfo)
{
    SetBinary(kPolicy, kValue, Raw(std::wstring(L"Primary\0\0", 9)), kViewNative, REG_MULTI_SZ);
    EXPECT_EQ(L"SystemLogonInfo", nvconv3::ReadLogonInfoNamePolicy());
}

TEST_F(LogonInfoNameTest, NameEndsAtTheFirstZero)
{
    SetBinary(kPolicy, kValue, Raw(std::wstring(L"Pri\0mary\0", 9)), kViewNative, REG_SZ);
    EXPECT_EQ(L"Pri", nvconv3::ReadLogonInfoNamePolicy());
}

TEST_F(LogonInfoNameTest, PolicyInThe32BitViewOnlyIsNotSeen)
{
    SetString(kPolicy, kValue, L"Primary", kView32);
    ASSERT_FALSE(KeyExists(kPolicy, kView64));
    EXPECT_EQ(L"SystemLogonInfo", nvconv3::ReadLogonInfoNamePolicy());
}

// The only test of this executable that touches the process-wide name.
TEST_F(LogonInfoNameTest, NameIsFixedOnFirstUseForTheLifeOfTheProcess)
{
    SetString(kPolicy, kValue, L"First", kViewNative);
    const std::wstring& name = nvconv3::LogonInfoName();
    EXPECT_EQ(L"First", name);
    SetString(kPolicy, kValue, L"Second", kViewNative);
    EXPECT_EQ(L"Second", nvconv3::ReadLogonInfoNamePolicy());
    EXPECT_EQ(L"First", nvconv3::LogonInfoName());
    DeleteValue(kPolicy, kValue, kViewNative);
    EXPECT_EQ(L"First", nvconv3::LogonInfoName());
    EXPECT_EQ(&name, &nvconv3::LogonInfoName());
}
