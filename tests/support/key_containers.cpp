#include "support/key_containers.h"

#include <comdef.h>
#include <gtest/gtest.h>

#include "writer/host_provisioning.h"

namespace nvtest {

const GUID kTestHostId = {0x7E57C0DE, 0x5EC1, 0x4A11, {0x8B, 0x3D, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55}};
const GUID kOtherHostId = {0x7E57C0DE, 0x0743, 0x4E12, {0x9C, 0x01, 0x66, 0x77, 0x88, 0x99, 0xAA, 0xBB}};

std::wstring ContainerName(const GUID& id)
{
    return nvwriter::ContainerNameOf(id);
}

bool ContainerExists(const GUID& id)
{
    return nvwriter::MachineContainerExists(id);
}

void DeleteContainerIfPresent(const GUID& id)
{
    try {
        nvwriter::DeleteMachineContainer(id);
    } catch (const _com_error& e) {
        ADD_FAILURE() << "cannot delete container " << Narrow(ContainerName(id)) << ": 0x" << std::hex << e.Error();
    }
}

void ContainerJanitor::Track(const GUID& id)
{
    DeleteContainerIfPresent(id);
    for (const GUID& known : m_ids)
        if (IsEqualGUID(known, id))
            return;
    m_ids.push_back(id);
}

void ContainerJanitor::Create(const GUID& id)
{
    Track(id);
    nvwriter::CreateMachineContainer(id);
}

void ContainerJanitor::DeleteAll()
{
    for (const GUID& id : m_ids)
        DeleteContainerIfPresent(id);
    m_ids.clear();
}

void ProvisionedHostTest::SetUp()
{
    RegistrySandbox::SetUp();
    m_containers.Create(m_hostId);
    nvwriter::WriteHostId(m_hostId, kView32);
}

void ProvisionedHostTest::TearDown()
{
    m_containers.DeleteAll();
    RegistrySandbox::TearDown();
}

std::vector<BYTE> ProvisionedHostTest::PublicKeyOf(const GUID& id)
{
    nv::unique_hcryptprov prov = nvwriter::OpenMachineContainer(id);
    return nvwriter::PublicKeyInfoOf(prov.get());
}

} // namespace nvtest
