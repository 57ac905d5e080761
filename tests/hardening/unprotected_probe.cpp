// A DLL built the way no shipped binary may be (no ASLR, no DEP, no stack
// protector, symbols left in, a static import of version.dll): the binary checks
// must reject it, which shows that they read what they claim to.
#include <windows.h>

extern "C" __declspec(dllexport) DWORD ProbeVersionSize(const wchar_t* path)
{
    DWORD handle = 0;
    return ::GetFileVersionInfoSizeW(path, &handle);
}
