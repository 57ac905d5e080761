#include "support/unix_side.h"

#include "common/procaddress.h"

namespace nvtest {

namespace {

using UnixFileNameFn = char*(CDECL*)(LPCWSTR);
using UnixSpawnFn = LONG(CDECL*)(char* const* argv, int wait);

UnixFileNameFn UnixFileName()
{
    return nv::GetProcAs<UnixFileNameFn>(::GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name");
}

UnixSpawnFn UnixSpawn()
{
    return nv::GetProcAs<UnixSpawnFn>(::GetModuleHandleW(L"ntdll.dll"), "__wine_unix_spawnvp");
}

} // namespace

bool UnderWine() { return UnixFileName() && UnixSpawn(); }

std::string UnixPathOf(const std::wstring& windowsPath)
{
    const UnixFileNameFn toUnix = UnixFileName();
    if (!toUnix)
        return std::string();
    char* path = toUnix(windowsPath.c_str());
    if (!path)
        return std::string();
    std::string result(path);
    ::HeapFree(::GetProcessHeap(), 0, path); // the caller frees it from the process heap
    return result;
}

bool RunUnix(const std::vector<std::string>& argv)
{
    const UnixSpawnFn spawn = UnixSpawn();
    if (!spawn || argv.empty())
        return false;
    std::vector<std::string> copies(argv);
    std::vector<char*> args;
    for (std::string& a : copies)
        args.push_back(&a[0]);
    args.push_back(nullptr);
    return spawn(args.data(), 1) == 0;
}

bool MakeUnixSymlink(const std::wstring& target, const std::wstring& link)
{
    const std::string unixTarget = UnixPathOf(target), unixLink = UnixPathOf(link);
    return !unixTarget.empty() && !unixLink.empty() && RunUnix({"ln", "-s", unixTarget, unixLink});
}

} // namespace nvtest
