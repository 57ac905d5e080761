// convert_step: one conversion step through the NVDBConv SDK, linked with the
// import library (CMake: NVDBConv::NVDBConv). NVDBConv.dll picks its step when the
// process loads it, so run this once per step until it says "converted".
// Exit codes: 0 converted, or the step ran and every user moved; 4 the step ran
// but users stayed in the old database; 1 the step failed (the database stays as
// the step left it, with its backup: run again once the cause is fixed) or another
// process is converting.
#include <windows.h>
#include <nvdbconv/nvdbconv.h>
#include <cstdio>

namespace {

// Users still under Data\Users after a 3.0 step kept their old data (the strict
// policy's held users, or users whose store calls failed).
DWORD UsersLeft()
{
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, NVDBCONV_KEY_USERS, 0, KEY_READ | NVDBCONV_DATABASE_VIEW, &key) !=
        ERROR_SUCCESS)
        return 0;
    DWORD subkeys = 0;
    RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr, nullptr, nullptr, nullptr,
                     nullptr, nullptr);
    RegCloseKey(key);
    return subkeys;
}

void PrintVersion(DWORD version)
{
    std::printf("%lu.%lu", NVDBCONV_VERSION_MAJOR(version), version & 0xFFFFul);
}

} // namespace

int main()
{
    // Format 3.0 is told by its layout, not by "Version": skip the step.
    if (NVDBConvIsDatabaseLayout30()) {
        std::printf("converted: format 3.0\n");
        return 0;
    }
    DWORD current = 0, target = 0;
    if (FAILED(GetDBVersion(&current, &target)) || target == 0) {
        std::printf("nothing to convert\n");
        return 0;
    }

    // The 3.0 step creates the storage server's COM objects on this thread.
    const HRESULT com = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    const HRESULT hr = Convert();
    if (SUCCEEDED(com))
        CoUninitialize();

    PrintVersion(current);
    std::printf(" -> ");
    PrintVersion(target);
    std::printf(": 0x%08lX\n", static_cast<unsigned long>(hr));
    if (hr == NV_E_CONVERSION_BUSY) {
        std::printf("another process is converting; run again when it is done\n");
        return 1;
    }
    if (FAILED(hr))
        return 1; // the database stays as the step left it, with its backup
    const DWORD left = target == NVDBCONV_VERSION_3_0 ? UsersLeft() : 0;
    if (left != 0) {
        std::printf("%lu user(s) kept their old data\n", static_cast<unsigned long>(left));
        return 4;
    }
    return 0;
}
