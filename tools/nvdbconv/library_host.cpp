#include "library_host.h"

#include "common/hresult.h"
#include "common/procaddress.h"
#include "common/systemlibrary.h"

namespace nvdbconv {

namespace {

// Convert, Rollback, Cleanup and the registration exports share one type.
using ActionFn = PFN_NVDBCONV_CONVERT;

} // namespace

const char* const kLibraryExports[] = {NVDBCONV_EXPORT_CONVERT,           NVDBCONV_EXPORT_ROLLBACK,
                                       NVDBCONV_EXPORT_CLEANUP,           NVDBCONV_EXPORT_GETDBVERSION,
                                       NVDBCONV_EXPORT_DLLCANUNLOADNOW,   NVDBCONV_EXPORT_DLLGETCLASSOBJECT,
                                       NVDBCONV_EXPORT_DLLREGISTERSERVER, NVDBCONV_EXPORT_DLLUNREGISTERSERVER};
const size_t kLibraryExportCount = sizeof(kLibraryExports) / sizeof(kLibraryExports[0]);

std::wstring DefaultLibraryPath()
{
    wchar_t exe[MAX_PATH] = {};
    const DWORD n = ::GetModuleFileNameW(nullptr, exe, MAX_PATH);
    std::wstring path(exe, n);
    return path.substr(0, path.find_last_of(L"\\/") + 1) + L"NVDBConv.dll";
}

std::wstring AbsolutePath(const std::wstring& path)
{
    const DWORD n = ::GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
    if (n == 0)
        return path;
    std::wstring full(n, L'\0');
    const DWORD written = ::GetFullPathNameW(path.c_str(), n, &full[0], nullptr);
    full.resize(written);
    return full;
}

HRESULT CLibraryHost::Load()
{
    if (m_module)
        return S_OK;
    // The library is named by its full path, and its dependencies come from the
    // system directory only: neither the current directory nor the folder the
    // library sits in (often a downloads folder) can supply a planted DLL.
    const CTraceFileWatch trace(AbsolutePath(m_path));
    HMODULE module = ::LoadLibraryExW(AbsolutePath(m_path).c_str(), nullptr, nv::kSystemLibrarySearch);
    if (!module) {
        const DWORD err = ::GetLastError();
        return err ? nv::HResultFromWin32(static_cast<LONG>(err)) : E_FAIL;
    }
    m_module.reset(module);
    m_traceRefusal = trace.Refusal();
    return S_OK;
}

bool CLibraryHost::HasExport(const char* name) const
{
    return nv::GetProcAs<FARPROC>(m_module.get(), name) != nullptr;
}

HRESULT CLibraryHost::Action(const char* name) const
{
    const ActionFn fn = nv::GetProcAs<ActionFn>(m_module.get(), name);
    if (!fn)
        return HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND);
    return fn();
}

HRESULT CLibraryHost::GetDBVersion(DWORD* current, DWORD* target) const
{
    const auto fn = nv::GetProcAs<PFN_NVDBCONV_GETDBVERSION>(m_module.get(), NVDBCONV_EXPORT_GETDBVERSION);
    if (!fn)
        return HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND);
    return fn(current, target);
}

} // namespace nvdbconv
