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

HRESULT LoadedLibrary::Convert() const { return CallAction("Convert"); }
HRESULT LoadedLibrary::Rollback() const { return CallAction("Rollback"); }
HRESULT LoadedLibrary::Cleanup() const { return CallAction("Cleanup"); }
HRESULT LoadedLibrary::DllCanUnloadNow() const { return CallAction("DllCanUnloadNow"); }
HRESULT LoadedLibrary::DllRegisterServer() const { return CallAction("DllRegisterServer"); }
HRESULT LoadedLibrary::DllUnregisterServer() const { return CallAction("DllUnregisterServer"); }

HRESULT LoadedLibrary::GetDBVersion(DWORD* current, DWORD* target) const
{
    auto fn = reinterpret_cast<GetDBVersionFn>(proc("GetDBVersion"));
    return fn ? fn(current, target) : E_NOTIMPL;
}

HRESULT LoadedLibrary::DllGetClassObject(REFCLSID clsid, REFIID iid, void** out) const
{
    auto fn = reinterpret_cast<DllGetClassObjectFn>(proc("DllGetClassObject"));
    return fn ? fn(clsid, iid, out) : E_NOTIMPL;
}

} // namespace nvtest
