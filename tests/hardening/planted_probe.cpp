// Stands in for a DLL planted under a system library's name: it exports nothing a
// caller of the real library could use, so a host that took it shows it at once.
#include <windows.h>

extern "C" __declspec(dllexport) DWORD PlantedProbe() { return 0x504C414E; }
