// The control of the planted-library test: loads "version.dll" by bare name with the
// ordinary search order (its own folder first) and prints the file it got.
#include <windows.h>
#include <cstdio>

int main()
{
    HMODULE module = ::LoadLibraryW(L"version.dll");
    wchar_t path[MAX_PATH] = {};
    if (module)
        ::GetModuleFileNameW(module, path, MAX_PATH);
    std::printf("%ls\n", path);
    return module ? 0 : 1;
}
