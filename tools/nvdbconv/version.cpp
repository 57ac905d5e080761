// nvdbconv version: the tool's version, the library's file version and its exports.
#include "command_support.h"

#include <vector>

#include <nlohmann/json.hpp>

#include "common/handles.h"
#include "common/procaddress.h"
#include "common/systemlibrary.h"
#include "nv_version.h"
#include "result_codes.h"

namespace nvdbconv {

namespace {

// Version.dll is not among the libraries Windows always takes from the system
// directory, so nvdbconv.exe does not import it: it is loaded here, from there.
std::string FileVersionOf(const std::wstring& path)
{
    using GetSizeFn = DWORD(WINAPI*)(LPCWSTR, LPDWORD);
    using GetInfoFn = BOOL(WINAPI*)(LPCWSTR, DWORD, DWORD, LPVOID);
    using QueryFn = BOOL(WINAPI*)(LPCVOID, LPCWSTR, LPVOID*, PUINT);
    nv::unique_hmodule versionDll(nv::LoadSystemLibrary(L"version.dll"));
    const auto getSize = nv::GetProcAs<GetSizeFn>(versionDll.get(), "GetFileVersionInfoSizeW");
    const auto getInfo = nv::GetProcAs<GetInfoFn>(versionDll.get(), "GetFileVersionInfoW");
    const auto query = nv::GetProcAs<QueryFn>(versionDll.get(), "VerQueryValueW");
    if (!getSize || !getInfo || !query)
        return std::string();
    DWORD handle = 0;
    const DWORD size = getSize(path.c_str(), &handle);
    if (size == 0)
        return std::string();
    std::vector<BYTE> data(size);
    if (!getInfo(path.c_str(), 0, size, data.data()))
        return std::string();
    VS_FIXEDFILEINFO* info = nullptr;
    UINT len = 0;
    if (!query(data.data(), L"\\", reinterpret_cast<void**>(&info), &len) || !info)
        return std::string();
    return Fmt("%lu.%lu.%lu.%lu", static_cast<unsigned long>(HIWORD(info->dwFileVersionMS)),
               static_cast<unsigned long>(LOWORD(info->dwFileVersionMS)),
               static_cast<unsigned long>(HIWORD(info->dwFileVersionLS)),
               static_cast<unsigned long>(LOWORD(info->dwFileVersionLS)));
}

} // namespace

int Version(Printer& out, CLibraryHost& host)
{
    Header(out, "version");
    out.Row("nvdbconv", NV_VERSION_TEXT);
    out.json["version"] = NV_VERSION_TEXT;
    out.Row("library", U8(host.path()));
    out.json["dll"] = U8(host.path());
    const std::string fileVersion = FileVersionOf(host.path());
    out.Row("file version", fileVersion.empty() ? std::string("none (no version resource)") : fileVersion);
    out.json["fileVersion"] = fileVersion.empty() ? Json(nullptr) : Json(fileVersion);
    const HRESULT load = host.Load();
    out.json["load"] = ResultJson(load);
    if (FAILED(load)) {
        out.Row("LoadLibrary", DescribeResult(load));
        out.Problem("cannot load " + U8(host.path()) + ": " + DescribeResult(load));
        return Finish(out, kExitFailed);
    }
    WarnIfTraceRefused(out, host);
    std::string present, missing;
    Json exports = Json::object();
    for (size_t i = 0; i < kLibraryExportCount; ++i) {
        const bool has = host.HasExport(kLibraryExports[i]);
        std::string& list = has ? present : missing;
        if (!list.empty())
            list += " ";
        list += kLibraryExports[i];
        exports[kLibraryExports[i]] = has;
    }
    out.json["exports"] = exports;
    out.Row("exports", present);
    if (!missing.empty())
        out.Row("missing", missing);
    return Finish(out, missing.empty() && !fileVersion.empty() ? kExitOk : kExitFailed);
}

} // namespace nvdbconv
