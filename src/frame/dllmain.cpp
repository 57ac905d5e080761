// Placeholder entry function until the frame lands.
#include <windows.h>
#include "trace/trace.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE hInstance, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH) {
        NVTraceNS::SetModuleHandle(hInstance);
        ::DisableThreadLibraryCalls(hInstance);
    }
    return TRUE;
}
