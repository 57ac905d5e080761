// A host that loads a DLL the way a careless installer or a COM client does: a
// plain LoadLibraryW of its full path, nothing restricted. With "convert" it then
// calls the library's Convert on a COM thread. Prints, for crypt32.dll and
// netapi32.dll, the file loaded into the process ("-" for none) and whether it is a
// planted copy (it exports PlantedProbe):
//     crypt32.dll C:\windows\system32\crypt32.dll system
// Exit codes: 0 loaded (and Convert called), 1 the load failed, 2 usage.
#include <windows.h>
#include <objbase.h>
#include <cstdio>
#include <cwchar>

namespace {

void Report(const wchar_t* name)
{
    const HMODULE module = ::GetModuleHandleW(name);
    wchar_t path[MAX_PATH] = L"-";
    if (module)
        ::GetModuleFileNameW(module, path, MAX_PATH);
    const bool planted = module && ::GetProcAddress(module, "PlantedProbe");
    std::printf("%ls %ls %s\n", name, path, !module ? "none" : planted ? "planted" : "system");
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc < 2 || (argc == 3 && std::wcscmp(argv[2], L"convert") != 0) || argc > 3)
        return 2;
    ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    const HMODULE module = ::LoadLibraryW(argv[1]);
    if (!module) {
        std::printf("load failed %lu\n", ::GetLastError());
        return 1;
    }
    if (argc == 3) {
        using ConvertFn = HRESULT(WINAPI*)();
        const auto convert =
            reinterpret_cast<ConvertFn>(reinterpret_cast<void*>(::GetProcAddress(module, "Convert")));
        std::printf("Convert 0x%08lX\n", convert ? static_cast<unsigned long>(convert()) : 0xFFFFFFFFul);
    }
    Report(L"crypt32.dll");
    Report(L"netapi32.dll");
    std::fflush(stdout);
    return 0;
}
