#include "support/legacy_support.h"

#include "support/registry_sandbox.h"

namespace nvtest {

namespace {
constexpr const wchar_t kProvider[] = L"Microsoft Enhanced Cryptographic Provider v1.0";
}

std::wstring GuidText(const GUID& g)
{
    wchar_t text[64] = {};
    ::StringFromGUID2(g, text, 64);
    return text;
}

std::string GuidString(const GUID& g)
{
    return Narrow(GuidText(g));
}

void DeleteMachineContainer(const GUID& hostId)
{
    HCRYPTPROV unused = 0;
    ::CryptAcquireContextW(&unused, GuidText(hostId).c_str(), kProvider, PROV_RSA_FULL,
                           CRYPT_DELETEKEYSET | CRYPT_MACHINE_KEYSET);
}

bool MachineContainerExists(const GUID& hostId)
{
    HCRYPTPROV prov = 0;
    if (!::CryptAcquireContextW(&prov, GuidText(hostId).c_str(), kProvider, PROV_RSA_FULL, CRYPT_MACHINE_KEYSET))
        return false;
    ::CryptReleaseContext(prov, 0);
    return true;
}

void MachineContainers::Track(const GUID& hostId)
{
    DeleteMachineContainer(hostId);
    m_hostIds.push_back(hostId);
}

MachineContainers::~MachineContainers()
{
    for (const GUID& id : m_hostIds)
        DeleteMachineContainer(id);
}

} // namespace nvtest
