// Loads NVDBConv.dll (from the test executable's folder) and frees it again, so
// that the load-time work (version detection, converter creation) runs afresh for
// every instance. Exports are reached through typed accessors.
#pragma once
#include <windows.h>
#include <nvdbconv/nvdbconv.h>
#include <string>

namespace nvtest {

// The folder of the running executable, with a trailing backslash.
std::wstring ExeDirectory();

class LoadedLibrary {
public:
    using ActionFn = PFN_NVDBCONV_CONVERT;
    using GetDBVersionFn = PFN_NVDBCONV_GETDBVERSION;
    using DllCanUnloadNowFn = PFN_NVDBCONV_DLLCANUNLOADNOW;
    using DllGetClassObjectFn = PFN_NVDBCONV_DLLGETCLASSOBJECT;

    explicit LoadedLibrary(const std::wstring& fileName = L"NVDBConv.dll");
    ~LoadedLibrary();
    LoadedLibrary(const LoadedLibrary&) = delete;
    LoadedLibrary& operator=(const LoadedLibrary&) = delete;

    bool loaded() const { return m_module != nullptr; }
    HMODULE module() const { return m_module; }
    const std::wstring& path() const { return m_path; }
    // The export's address, or null (a failed expectation) when it is missing.
    void* proc(const char* name) const;

    HRESULT Convert() const;
    HRESULT Rollback() const;
    HRESULT Cleanup() const;
    HRESULT GetDBVersion(DWORD* current, DWORD* target) const;
    HRESULT DllCanUnloadNow() const;
    HRESULT DllGetClassObject(REFCLSID clsid, REFIID iid, void** out) const;
    HRESULT DllRegisterServer() const;
    HRESULT DllUnregisterServer() const;

    // Frees the library now (idempotent).
    void Unload();

private:
    HRESULT CallAction(const char* name) const;
    HMODULE m_module = nullptr;
    std::wstring m_path;
};

// GetDBVersion of the loaded library answers S_OK with these versions (its
// out-parameters pre-filled with sentinels); a failure names the caller's line.
void ExpectDbVersions(const LoadedLibrary& dll, DWORD current, DWORD target, int line);

} // namespace nvtest
