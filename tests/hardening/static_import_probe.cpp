// The control of the planted crypt32 and netapi32 test: a DLL that imports both the
// way the library used to. A plain LoadLibrary of it beside planted copies shows
// that the loader does take them.
#include <windows.h>
#include <wincrypt.h>
#include <lm.h>

extern "C" __declspec(dllexport) BOOL StaticImportProbe()
{
    DWORD cb = 0;
    const BOOL decoded = ::CryptDecodeObject(X509_ASN_ENCODING, X509_OCTET_STRING, nullptr, 0, 0, nullptr, &cb);
    ::NetApiBufferFree(nullptr);
    return decoded;
}
