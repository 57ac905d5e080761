// The library's entry function. Loading never fails: whatever the version
// detection finds (or does not find), the library stays loaded and the exports
// answer for it.
#include <windows.h>

#include "com/ids.h"
#include "com/nvcommodule.h"
#include "com/objectmap.h"
#include "com/dbconverter.h"
#include "com/oomreserve.h"
#include "trace/trace.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE hInstance, DWORD reason, LPVOID /*reserved*/)
{
    switch (reason) {
    case DLL_PROCESS_ATTACH:
        nvframe::PrepareThreadForFailures();
        NVTraceNS::SetModuleHandle(hInstance);
        g_NVComModule.Init(g_NVObjectMap, hInstance, &nvcom::kLIBID_NVDBConvLib);
        ::DisableThreadLibraryCalls(hInstance);
        g_DBConverter.FinalConstruct();
        break;
    case DLL_PROCESS_DETACH:
        // The holder and its converter go later, with the static objects.
        g_DBConverter.FinalRelease();
        g_NVComModule.Term();
        break;
    default:
        break;
    }
    return TRUE;
}
