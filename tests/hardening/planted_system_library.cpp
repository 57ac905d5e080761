// Stands in for crypt32.dll or netapi32.dll planted beside a host: it exports the
// names the library once imported from them (so that a loader that picks it up
// can resolve them), each failing, and PlantedProbe, by which a host tells it
// from the system's library. Which names it exports is chosen by its .def file.
#include <windows.h>
#include <lm.h>

namespace {

BOOL Refuse()
{
    ::SetLastError(ERROR_CALL_NOT_IMPLEMENTED);
    return FALSE;
}

} // namespace

extern "C" {

__declspec(dllexport) DWORD PlantedProbe() { return 0x504C414E; }

BOOL WINAPI PlantedDecodeObject(DWORD, LPCSTR, const BYTE*, DWORD, DWORD, void*, DWORD*) { return Refuse(); }
BOOL WINAPI PlantedEncodeObject(DWORD, LPCSTR, const void*, BYTE*, DWORD*) { return Refuse(); }
BOOL WINAPI PlantedExportPublicKeyInfo(ULONG_PTR, DWORD, DWORD, void*, DWORD*) { return Refuse(); }
BOOL WINAPI PlantedImportPublicKeyInfo(ULONG_PTR, DWORD, void*, ULONG_PTR*) { return Refuse(); }
BOOL WINAPI PlantedSignCertificate(ULONG_PTR, DWORD, DWORD, const BYTE*, DWORD, void*, const void*, BYTE*, DWORD*)
{
    return Refuse();
}
BOOL WINAPI PlantedVerifyCertificateSignature(ULONG_PTR, DWORD, const BYTE*, DWORD, void*) { return Refuse(); }

NET_API_STATUS WINAPI PlantedServerGetInfo(LMSTR, DWORD, LPBYTE*) { return ERROR_CALL_NOT_IMPLEMENTED; }
NET_API_STATUS WINAPI PlantedWkstaGetInfo(LMSTR, DWORD, LPBYTE*) { return ERROR_CALL_NOT_IMPLEMENTED; }
NET_API_STATUS WINAPI PlantedApiBufferFree(LPVOID) { return ERROR_CALL_NOT_IMPLEMENTED; }

} // extern "C"
