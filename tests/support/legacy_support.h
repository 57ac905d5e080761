// Helpers of the legacy database tests: machine key containers that a test makes
// (deleted when tracked and again at the end of the test), GUID text and byte views.
#pragma once
#include <windows.h>
#include <wincrypt.h>
#include <string>
#include <vector>

namespace nvtest {

// Deletes the machine containers named after the tracked host identifiers, at once
// and again when it goes out of scope.
class MachineContainers {
public:
    MachineContainers() = default;
    ~MachineContainers();
    MachineContainers(const MachineContainers&) = delete;
    MachineContainers& operator=(const MachineContainers&) = delete;

    void Track(const GUID& hostId);

private:
    std::vector<GUID> m_hostIds;
};

// True when a machine container of that host identifier can be acquired.
bool MachineContainerExists(const GUID& hostId);
void DeleteMachineContainer(const GUID& hostId);

std::wstring GuidText(const GUID& g);
std::string GuidString(const GUID& g);

inline std::vector<BYTE> BlobBytes(const CRYPT_DATA_BLOB& b)
{
    return b.pbData ? std::vector<BYTE>(b.pbData, b.pbData + b.cbData) : std::vector<BYTE>();
}

} // namespace nvtest
