#include "support/dll_loader.h"

#include <gtest/gtest.h>
#include "common/procaddress.h"

namespace nvtest {

std::wstring ExeDirectory()
{
    wchar_t buf[MAX_PATH];
    DWORD n = ::GetModuleFileNameW(nullptr, buf, MAX_PATH);
    std::wstring p(buf, n);
    size_t slash = p.find_last_of(L"\\/");
    return slash == std::wstring::npos ? std::wstring() : p.substr(0, slash + 1);
}

LoadedLibrary::LoadedLibrary(const std::wstring& fileName) : m_path(ExeDirectory() + fileName)
{
    m_module = ::LoadLibraryW(m_path.c_str());
    EXPECT_NE(nullptr, m_module) << "LoadLibrary failed, error " << ::GetLastError();
}

LoadedLibrary::~LoadedLibrary() { Unload(); }

void LoadedLibrary::Unload()
{
    if (m_module) {
        ::FreeLibrary(m_module);
        m_module = nullptr;
    }
}

void* LoadedLibrary::proc(const char* name) const
{
    void* p = nv::GetProcAs<void*>(m_module, name);
    EXPECT_NE(nullptr, p) << "export missing: " << name;
    return p;
}

HRESULT LoadedLibrary::CallAction(const char* name) const
{
    auto fn = reinterpret_cast<ActionFn>(proc(name));
    return fn ? fn() : E_NOTIMPL;
}

HRESULT LoadedLibrary::Convert() const { return CallAction(NVDBCONV_EXPORT_CONVERT); }
HRESULT LoadedLibrary::Rollback() const { return CallAction(NVDBCONV_EXPORT_ROLLBACK); }
HRESULT LoadedLibrary::Cleanup() const { return CallAction(NVDBCONV_EXPORT_CLEANUP); }
HRESULT LoadedLibrary::DllCanUnloadNow() const { return CallAction(NVDBCONV_EXPORT_DLLCANUNLOADNOW); }
HRESULT LoadedLibrary::DllRegisterServer() const { return CallAction(NVDBCONV_EXPORT_DLLREGISTERSERVER); }
HRESULT LoadedLibrary::DllUnregisterServer() const { return CallAction(NVDBCONV_EXPORT_DLLUNREGISTERSERVER); }

HRESULT LoadedLibrary::GetDBVersion(DWORD* current, DWORD* target) const
{
    auto fn = reinterpret_cast<GetDBVersionFn>(proc(NVDBCONV_EXPORT_GETDBVERSION));
    return fn ? fn(current, target) : E_NOTIMPL;
}

HRESULT LoadedLibrary::DllGetClassObject(REFCLSID clsid, REFIID iid, void** out) const
{
    auto fn = reinterpret_cast<DllGetClassObjectFn>(proc(NVDBCONV_EXPORT_DLLGETCLASSOBJECT));
    return fn ? fn(clsid, iid, out) : E_NOTIMPL;
}

void ExpectDbVersions(const LoadedLibrary& dll, DWORD current, DWORD target, int line)
{
    SCOPED_TRACE(testing::Message() << "from line " << line);
    DWORD gotCurrent = 0xdeadbeef, gotTarget = 0xdeadbeef;
    EXPECT_EQ(S_OK, dll.GetDBVersion(&gotCurrent, &gotTarget));
    EXPECT_EQ(current, gotCurrent);
    EXPECT_EQ(target, gotTarget);
}

} // namespace nvtest
