// Machine key containers for tests.
//
// Every container a test makes is deleted before and after the test. Containers
// have fixed, well-known test names (so a crashed run's leftovers are removed by
// the next run) or are tracked by a ContainerJanitor when their name is only known
// during the test (such as a host identifier the library generated itself).
//
// ProvisionedHostTest is the fixture for code that needs the machine's key: a
// RegistrySandbox that also writes "HostId" = kTestHostId in the 32-bit view and
// creates that machine container with a fresh 2048-bit key-exchange key.
#pragma once
#include <windows.h>
#include <wincrypt.h>
#include <string>
#include <vector>

#include "support/registry_sandbox.h"

namespace nvtest {

// The provisioned machine's host identifier, and a second, unrelated container.
extern const GUID kTestHostId;
extern const GUID kOtherHostId;

// The container's name, as the host service names it.
std::wstring ContainerName(const GUID& id);
bool ContainerExists(const GUID& id);
// Deletes the machine container if it exists; asserts (non-fatally) on other errors.
void DeleteContainerIfPresent(const GUID& id);

// Deletes, on request and at its end, every container it was told about.
class ContainerJanitor {
public:
    ContainerJanitor() = default;
    ContainerJanitor(const ContainerJanitor&) = delete;
    ContainerJanitor& operator=(const ContainerJanitor&) = delete;
    ~ContainerJanitor() { DeleteAll(); }

    // Deletes any leftover of that name now and again at the end.
    void Track(const GUID& id);
    // Track, then create the container with a fresh key (raises _com_error on failure).
    void Create(const GUID& id);
    void DeleteAll();

private:
    std::vector<GUID> m_ids;
};

// A registry sandbox with the machine provisioned as the host service leaves it.
class ProvisionedHostTest : public RegistrySandbox {
protected:
    void SetUp() override;
    void TearDown() override;

    // The DER SubjectPublicKeyInfo of a container's key-exchange key.
    static std::vector<BYTE> PublicKeyOf(const GUID& id);

    GUID m_hostId = kTestHostId;
    ContainerJanitor m_containers;
};

} // namespace nvtest
