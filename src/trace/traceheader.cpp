// The trace file's plain-text header: the build, the machine, the installed products.
// Every lookup that fails yields its ERROR or UNKNOWN line; nothing here can fail
// the file output.
#include <cstdio>
#include <cstring>
#include <vector>

#include "common/handles.h"
#include "common/procaddress.h"
#include "common/regkey.h"
#include "common/systemlibrary.h"
#include "trace/traceoutput.h"

namespace NVTraceNS {

namespace {

std::string Format(const char* format, ...)
{
    char line[kHeaderLineSize];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    return line;
}

// A line that must end in CR LF even when cut at the buffer's end.
void GuardLineEnd(char (&line)[kHeaderLineSize])
{
    line[258] = '\r';
    line[259] = '\n';
    line[260] = '\0';
}

} // namespace

std::string OsHeaderLines()
{
    OSVERSIONINFOEXA info = {};
    info.dwOSVersionInfoSize = sizeof(info);
    const char* name = nullptr;
    if (GetTraceVersion(&info) && info.dwPlatformId == VER_PLATFORM_WIN32_NT) {
        if (info.dwMajorVersion == 6 && info.dwMinorVersion == 1)
            name = "Windows7";
        else if (info.dwMajorVersion == 6 && info.dwMinorVersion == 0)
            name = info.wProductType == VER_NT_WORKSTATION ? "WindowsVista" : "Server2008";
        else if (info.dwMajorVersion == 5 && info.dwMinorVersion == 1)
            name = "WindowsXP";
        else if (info.dwMajorVersion == 5 && info.dwMinorVersion == 2)
            name = "Server2003";
        else if (info.dwMajorVersion == 5)
            name = "Windows2000";
    }
    std::string lines = name ? Format("OS: %s\r\n", name)
                             : Format("OS: UNKNOWN OS(Major:%d Minor:%d)\r\n", static_cast<int>(info.dwMajorVersion),
                                      static_cast<int>(info.dwMinorVersion));
    info.szCSDVersion[sizeof(info.szCSDVersion) - 1] = '\0';
    lines += Format("ServicePack: %s\r\n", info.szCSDVersion);
    return lines;
}

std::string FileVersionHeaderLine(HMODULE module)
{
    using GetSizeFn = DWORD(WINAPI*)(LPCSTR, LPDWORD);
    using GetInfoFn = BOOL(WINAPI*)(LPCSTR, DWORD, DWORD, LPVOID);
    using QueryFn = BOOL(WINAPI*)(LPCVOID, LPCSTR, LPVOID*, PUINT);
    const std::string unknown = "FileVersion: UNKNOWN\r\n";

    nv::unique_hmodule versionDll(nv::LoadSystemLibrary(L"Version.dll"));
    if (!versionDll)
        return unknown;
    auto getSize = nv::GetProcAs<GetSizeFn>(versionDll.get(), "GetFileVersionInfoSizeA");
    auto getInfo = nv::GetProcAs<GetInfoFn>(versionDll.get(), "GetFileVersionInfoA");
    auto query = nv::GetProcAs<QueryFn>(versionDll.get(), "VerQueryValueA");
    if (!getSize || !getInfo || !query)
        return unknown;

    char path[MAX_PATH];
    DWORD n = ::GetModuleFileNameA(module, path, MAX_PATH);
    if (n == 0 || n >= MAX_PATH)
        return unknown;
    DWORD handle = 0;
    const DWORD size = getSize(path, &handle);
    if (size == 0)
        return unknown;
    std::vector<char> block(size);
    if (!getInfo(path, 0, size, block.data()))
        return unknown;
    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT length = 0;
    if (!query(block.data(), "\\", reinterpret_cast<LPVOID*>(&fixed), &length) || !fixed ||
        length < sizeof(VS_FIXEDFILEINFO))
        return unknown;
    // The last two numbers come from the product version, as the support tools expect.
    return Format("FileVersion: %d.%d.%d.%d\r\n", HIWORD(fixed->dwFileVersionMS), LOWORD(fixed->dwFileVersionMS),
                  HIWORD(fixed->dwProductVersionLS), LOWORD(fixed->dwProductVersionLS));
}

std::vector<std::string> ProductHeaderLines()
{
    std::vector<std::string> lines;
    nv::unique_hkey products;
    if (::RegOpenKeyExA(HKEY_LOCAL_MACHINE, kProductsKeyPath, 0, KEY_READ,
                        reinterpret_cast<HKEY*>(products.put())) == ERROR_SUCCESS) {
        for (DWORD index = 0;; ++index) {
            char name[kHeaderLineSize];
            DWORD cch = sizeof(name);
            if (::RegEnumKeyExA(products.get(), index, name, &cch, nullptr, nullptr, nullptr, nullptr) !=
                ERROR_SUCCESS)
                break;
            char line[kHeaderLineSize] = {};
            nv::unique_hkey product;
            LONG r = ::RegOpenKeyExA(products.get(), name, 0, KEY_READ, product.put());
            if (r != ERROR_SUCCESS) {
                std::snprintf(line, kProductLineLimit, "Product: %s ERROR(0x%X)\r\n", name, static_cast<unsigned>(r));
            } else {
                char version[kProductLineLimit + 1] = {};
                DWORD cb = kProductLineLimit;
                r = ::RegQueryValueExA(product.get(), "Version", nullptr, nullptr, reinterpret_cast<BYTE*>(version), &cb);
                if (r == ERROR_SUCCESS)
                    std::snprintf(line, kProductLineLimit, "Product: %s; Version: %s\r\n", name, version);
                else
                    std::snprintf(line, kProductLineLimit, "Product: %s; Version: ERROR(0x%X)\r\n", name,
                                  static_cast<unsigned>(r));
            }
            GuardLineEnd(line);
            lines.emplace_back(line);
        }
    }
    if (lines.empty())
        lines.emplace_back("No Palmera products found\r\n");
    return lines;
}

std::string InstallationHeaderLine()
{
    nv::unique_hkey policies;
    DWORD networkSupport = 1;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kPoliciesKeyPath, 0, KEY_READ, policies.put()) == ERROR_SUCCESS &&
        nv::QueryDwordValue(policies.get(), L"NetworkSupport", &networkSupport) == ERROR_SUCCESS &&
        networkSupport == 0)
        return "installation: LOCAL\r\n";
    return "installation: NETWORK\r\n";
}

std::vector<std::string> BuildHeaderLines(HMODULE module)
{
    std::vector<std::string> lines;
    lines.emplace_back("trace3\r\n");
    lines.push_back(Format("Compiled: %s %s\r\n", __DATE__, __TIME__));
    const std::string os = OsHeaderLines();
    const std::size_t split = os.find("\r\n") + 2;
    lines.push_back(os.substr(0, split));
    lines.push_back(os.substr(split));

    char computer[kHeaderLineSize] = {};
    DWORD cch = sizeof(computer) - 1;
    if (!::GetComputerNameExA(ComputerNameNetBIOS, computer, &cch))
        computer[0] = '\0';
    char line[kHeaderLineSize];
    std::snprintf(line, sizeof(line), "Machine name: %s\r\n", computer);
    GuardLineEnd(line);
    lines.emplace_back(line);

    lines.push_back(Format("Trace Ver: %s\r\n", kTraceFormatVersion));
    lines.push_back(FileVersionHeaderLine(module));
    for (std::string& product : ProductHeaderLines())
        lines.push_back(std::move(product));
    lines.push_back(InstallationHeaderLine());

    SYSTEMTIME now = {};
    GetTraceLocalTime(&now);
    lines.push_back(Format("%02d/%02d/%04d %02d:%02d:%02d.%03d\r\n", now.wMonth, now.wDay, now.wYear, now.wHour,
                           now.wMinute, now.wSecond, now.wMilliseconds));
    lines.emplace_back(".\r\n");
    return lines;
}

} // namespace NVTraceNS
