// A DLL that imports crypt32 delay-loaded, linked the way MinGW links it (a
// dlltool delay-load import library; GNU ld leaves the delay-load directory
// empty). The import checks must still see the import.
#include <windows.h>
#include <wincrypt.h>

extern "C" __declspec(dllexport) BOOL DelayLoadProbe()
{
    DWORD cb = 0;
    return ::CryptDecodeObject(X509_ASN_ENCODING, X509_OCTET_STRING, nullptr, 0, 0, nullptr, &cb);
}
