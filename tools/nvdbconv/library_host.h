// CLibraryHost: loads NVDBConv.dll the way the suite's installer does (LoadLibraryEx
// of the full path, dependencies from the system directory only, GetProcAddress of
// each export) and calls its exports. The
// library's load-time work (version detection, converter choice) runs in Load();
// the library stays loaded until the host is destroyed, so Convert followed by
// Cleanup talk to the same converter. A missing export answers
// HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND) without calling anything.
#pragma once
#include <windows.h>
#include <nvdbconv/nvdbconv.h>
#include <optional>
#include <string>

#include "common/handles.h"
#include "tracewatch.h"

namespace nvdbconv {

// NVDBConv.dll next to the running executable.
std::wstring DefaultLibraryPath();
// The absolute form of a path (relative paths against the current directory).
std::wstring AbsolutePath(const std::wstring& path);

class CLibraryHost {
public:
    explicit CLibraryHost(std::wstring path) : m_path(std::move(path)) {}

    // S_OK, or the loader's error as an HRESULT.
    HRESULT Load();
    // After a load: the trace file the settings named when the library refused it
    // (a link on the way, a second name, another owner, a network path).
    const std::optional<TraceRefusal>& traceRefusal() const { return m_traceRefusal; }
    bool loaded() const { return static_cast<bool>(m_module); }
    const std::wstring& path() const { return m_path; }
    bool HasExport(const char* name) const;

    HRESULT GetDBVersion(DWORD* current, DWORD* target) const;
    HRESULT Convert() const { return Action(NVDBCONV_EXPORT_CONVERT); }
    HRESULT Rollback() const { return Action(NVDBCONV_EXPORT_ROLLBACK); }
    HRESULT Cleanup() const { return Action(NVDBCONV_EXPORT_CLEANUP); }
    HRESULT Register() const { return Action(NVDBCONV_EXPORT_DLLREGISTERSERVER); }
    HRESULT Unregister() const { return Action(NVDBCONV_EXPORT_DLLUNREGISTERSERVER); }

    // Frees the library (its holder and trace file close); idempotent.
    void Unload() { m_module.reset(); }

private:
    HRESULT Action(const char* name) const;
    std::wstring m_path;
    nv::unique_hmodule m_module;
    std::optional<TraceRefusal> m_traceRefusal;
};

// The names the installer resolves, in the order the host checks them.
extern const char* const kLibraryExports[];
extern const size_t kLibraryExportCount;

} // namespace nvdbconv
