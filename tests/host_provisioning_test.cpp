// The host provisioning writer: HostId, the machine key container and export
// records as the old product wrote them.
#include <windows.h>
#include <wincrypt.h>
#include <comdef.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/key_containers.h"
#include "support/registry_sandbox.h"
#include "support/signed_records.h"
#include "writer/host_provisioning.h"

using namespace nvtest;

namespace {

const wchar_t kHostKey[] = L"SOFTWARE\\Norvane\\NVHOST";
const std::vector<BYTE> kTestHostIdBytes = {0x7E, 0x57, 0xC0, 0xDE, 0x5E, 0xC1, 0x4A, 0x11,
                                            0x8B, 0x3D, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55};

DWORD KeyParam(HCRYPTKEY key, DWORD param)
{
    DWORD value = 0, cb = sizeof(value);
    EXPECT_TRUE(::CryptGetKeyParam(key, param, reinterpret_cast<BYTE*>(&value), &cb, 0));
    return value;
}

} // namespace

class HostProvisioningTest : public RegistrySandbox {
protected:
    // These tests look at the key the product makes.
    HostProvisioningTest() { m_quickHostKey = false; }
    void SetUp() override
    {
        RegistrySandbox::SetUp();
        m_containers.Track(kTestHostId);
        m_containers.Track(kOtherHostId);
    }
    void TearDown() override
    {
        m_containers.DeleteAll();
        RegistrySandbox::TearDown();
    }
    ContainerJanitor m_containers;
};

TEST_F(HostProvisioningTest, HostIdBytesAreBigEndianFieldsThenTheLastEightBytes)
{
    EXPECT_EQ(kTestHostIdBytes, nvwriter::HostIdBytes(kTestHostId));
    const GUID g = {0x01020304, 0x0506, 0x0708, {0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10}};
    EXPECT_EQ((std::vector<BYTE>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}), nvwriter::HostIdBytes(g));
}

TEST_F(HostProvisioningTest, ContainerNameIsTheUpperCaseRegistryForm)
{
    EXPECT_EQ(L"{7E57C0DE-5EC1-4A11-8B3D-001122334455}", nvwriter::ContainerNameOf(kTestHostId));
    const GUID g = {0x0000abcd, 0x00ef, 0x0a0b, {0xfe, 0xdc, 0x00, 0x01, 0xba, 0x98, 0x76, 0x54}};
    EXPECT_EQ(L"{0000ABCD-00EF-0A0B-FEDC-0001BA987654}", nvwriter::ContainerNameOf(g));
}

TEST_F(HostProvisioningTest, WriteHostIdWritesSixteenBinaryBytesInTheChosenViewOnly)
{
    nvwriter::WriteHostId(kTestHostId);
    RegValue value;
    ASSERT_TRUE(GetValue(kHostKey, L"HostId", kView32, &value));
    EXPECT_EQ(DWORD(REG_BINARY), value.type);
    EXPECT_EQ(kTestHostIdBytes, value.data);
    EXPECT_FALSE(KeyExists(kHostKey, kView64));

    nvwriter::WriteHostId(kOtherHostId, kView64);
    ASSERT_TRUE(GetValue(kHostKey, L"HostId", kView64, &value));
    EXPECT_EQ(nvwriter::HostIdBytes(kOtherHostId), value.data);
    ASSERT_TRUE(GetValue(kHostKey, L"HostId", kView32, &value));
    EXPECT_EQ(kTestHostIdBytes, value.data);
    EXPECT_EQ((std::vector<std::wstring>{L"HostId"}), ValueNames(kHostKey, kView32));
}

TEST_F(HostProvisioningTest, CreatedContainerHoldsAnExportable2048BitKeyExchangeKeySeenByOtherHandles)
{
    ASSERT_FALSE(ContainerExists(kTestHostId));
    nvwriter::CreateMachineContainer(kTestHostId);
    ASSERT_TRUE(ContainerExists(kTestHostId));

    HCRYPTPROV raw = 0;
    ASSERT_TRUE(::CryptAcquireContextW(&raw, L"{7E57C0DE-5EC1-4A11-8B3D-001122334455}",
                                       L"Microsoft Enhanced Cryptographic Provider v1.0", PROV_RSA_FULL,
                                       CRYPT_MACHINE_KEYSET));
    nv::unique_hcryptprov prov(raw);
    nv::unique_hcryptkey key;
    ASSERT_TRUE(::CryptGetUserKey(prov.get(), AT_KEYEXCHANGE, key.put()));
    EXPECT_EQ(DWORD(CALG_RSA_KEYX), KeyParam(key.get(), KP_ALGID));
    EXPECT_EQ(2048u, KeyParam(key.get(), KP_KEYLEN));
    EXPECT_NE(0u, KeyParam(key.get(), KP_PERMISSIONS) & CRYPT_EXPORT);
    nv::unique_hcryptkey signatureKey;
    EXPECT_FALSE(::CryptGetUserKey(prov.get(), AT_SIGNATURE, signatureKey.put()));
}

TEST_F(HostProvisioningTest, CreatingAnExistingContainerRaisesNteExists)
{
    nvwriter::CreateMachineContainer(kTestHostId);
    try {
        nvwriter::CreateMachineContainer(kTestHostId);
        FAIL() << "no exception";
    } catch (const _com_error& e) {
        EXPECT_EQ(NTE_EXISTS, e.Error());
    }
}

TEST_F(HostProvisioningTest, DeleteRemovesTheContainerAndReportsAMissingOne)
{
    nvwriter::CreateMachineContainer(kTestHostId);
    EXPECT_TRUE(nvwriter::DeleteMachineContainer(kTestHostId));
    EXPECT_FALSE(ContainerExists(kTestHostId));
    EXPECT_FALSE(nvwriter::DeleteMachineContainer(kTestHostId));
}

TEST_F(HostProvisioningTest, OpenMachineContainerNeverCreates)
{
    try {
        nvwriter::OpenMachineContainer(kTestHostId);
        FAIL() << "no exception";
    } catch (const _com_error& e) {
        EXPECT_EQ(NTE_BAD_KEYSET, e.Error());
    }
    EXPECT_FALSE(ContainerExists(kTestHostId));
}

TEST_F(HostProvisioningTest, ProvisionHostReplacesALeftoverContainerWithAFreshKey)
{
    nvwriter::CreateMachineContainer(kTestHostId);
    const std::vector<BYTE> oldKey = PublicKeyBlobOf(nvwriter::OpenMachineContainer(kTestHostId).get());
    nvwriter::ProvisionHost(kTestHostId);
    const std::vector<BYTE> newKey = PublicKeyBlobOf(nvwriter::OpenMachineContainer(kTestHostId).get());
    EXPECT_EQ(oldKey.size(), newKey.size());
    EXPECT_NE(oldKey, newKey);
    RegValue value;
    ASSERT_TRUE(GetValue(kHostKey, L"HostId", kView32, &value));
    EXPECT_EQ(kTestHostIdBytes, value.data);
}

TEST_F(HostProvisioningTest, EncodersMakePlainDer)
{
    EXPECT_EQ((std::vector<BYTE>{0x04, 0x02, 0xAB, 0xCD}), nvwriter::EncodeOctetString({0xAB, 0xCD}));
    EXPECT_EQ((std::vector<BYTE>{0x04, 0x00}), nvwriter::EncodeOctetString({}));
    EXPECT_EQ((std::vector<BYTE>{0x03, 0x01, 0x00}), nvwriter::EncodeBitString({}));
    EXPECT_EQ((std::vector<BYTE>{0x03, 0x03, 0x04, 0xAB, 0xC0}), nvwriter::EncodeBitString({0xAB, 0xC0}, 4));
    SYSTEMTIME st = {2024, 2, 0, 29, 13, 14, 15, 0};
    FILETIME ft{};
    ASSERT_TRUE(::SystemTimeToFileTime(&st, &ft));
    const char utc[] = "240229131415Z";
    EXPECT_EQ(Concat({{0x17, 0x0D}, std::vector<BYTE>(utc, utc + 13)}), nvwriter::EncodeTime(ft));
}

TEST_F(HostProvisioningTest, ExportRecordIsASignedListOfFourItems)
{
    nvwriter::CreateMachineContainer(kTestHostId);
    nv::unique_hcryptprov prov = nvwriter::OpenMachineContainer(kTestHostId);
    SYSTEMTIME st = {2009, 7, 0, 1, 8, 30, 0, 0};
    nvwriter::ExportRecordItems items;
    items.data = {0xDE, 0xAD};
    items.targetBits = {0x01, 0x02};
    ASSERT_TRUE(::SystemTimeToFileTime(&st, &items.time));
    const std::vector<BYTE> record = nvwriter::MakeExportRecord(prov.get(), items);

    const char utc[] = "090701083000Z";
    const std::vector<BYTE> toBeSigned = Concat({
        {0x30, 0x1B},
        {0x04, 0x02, 0xDE, 0xAD},
        {0x03, 0x01, 0x00},
        {0x03, 0x03, 0x00, 0x01, 0x02},
        {0x17, 0x0D},
        std::vector<BYTE>(utc, utc + 13),
    });
    ASSERT_EQ(4u + toBeSigned.size() + 13 + 5 + 256, record.size());
    const std::vector<BYTE> signature(record.end() - 256, record.end());
    EXPECT_EQ(Concat({{0x30, 0x82, 0x01, 0x2F},
                      toBeSigned,
                      {0x30, 0x0B, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x04},
                      {0x03, 0x82, 0x01, 0x01, 0x00},
                      signature}),
              record);
    EXPECT_TRUE(RsaSignatureMatches(kTestHostId, CALG_MD5, toBeSigned, signature));
}
