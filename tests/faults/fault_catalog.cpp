#include "fault_catalog.h"

#include <winerror.h>
#include <algorithm>
#include <cctype>
#include <cstring>
#include <iterator>

namespace nvfaults {

namespace {

constexpr DWORD kAccessDenied = ERROR_ACCESS_DENIED;
constexpr DWORD kNoMemory = ERROR_NOT_ENOUGH_MEMORY;
constexpr DWORD kOutOfMemory = static_cast<DWORD>(E_OUTOFMEMORY);
constexpr DWORD kBadData = static_cast<DWORD>(NTE_BAD_DATA);
constexpr DWORD kProviderNoMemory = static_cast<DWORD>(NTE_NO_MEMORY);

const CatalogEntry kCatalog[] = {
    // Registry: access denied, the failure an installer meets on a locked-down key.
    {"advapi32.dll", "RegOpenKeyExW", FailStyle::Win32Result, kAccessDenied, "access denied"},
    {"advapi32.dll", "RegOpenKeyExA", FailStyle::Win32Result, kAccessDenied, "access denied"},
    {"advapi32.dll", "RegCreateKeyExW", FailStyle::Win32Result, kAccessDenied, "access denied"},
    {"advapi32.dll", "RegQueryValueExW", FailStyle::Win32Result, kAccessDenied, "access denied"},
    {"advapi32.dll", "RegQueryValueExA", FailStyle::Win32Result, kAccessDenied, "access denied"},
    {"advapi32.dll", "RegSetValueExW", FailStyle::Win32Result, kAccessDenied, "access denied"},
    {"advapi32.dll", "RegEnumKeyExW", FailStyle::Win32Result, kAccessDenied, "access denied"},
    {"advapi32.dll", "RegEnumKeyExA", FailStyle::Win32Result, kAccessDenied, "access denied"},
    {"advapi32.dll", "RegEnumValueW", FailStyle::Win32Result, kAccessDenied, "access denied"},
    {"advapi32.dll", "RegQueryInfoKeyW", FailStyle::Win32Result, kAccessDenied, "access denied"},
    {"advapi32.dll", "RegDeleteKeyW", FailStyle::Win32Result, kAccessDenied, "access denied"},
    {"advapi32.dll", "RegDeleteKeyExW", FailStyle::Win32Result, kAccessDenied, "access denied"},
    {"advapi32.dll", "RegDeleteValueW", FailStyle::Win32Result, kAccessDenied, "access denied"},
    {"advapi32.dll", "RegCloseKey", FailStyle::Pass, 0, "release"},
    // CryptoAPI: the errors each call documents.
    {"advapi32.dll", "CryptAcquireContextW", FailStyle::BoolFalse, kAccessDenied, "access denied (machine keys)"},
    {"advapi32.dll", "CryptContextAddRef", FailStyle::BoolFalse, static_cast<DWORD>(NTE_BAD_UID), "bad provider handle"},
    {"advapi32.dll", "CryptGenKey", FailStyle::BoolFalse, kProviderNoMemory, "provider out of memory"},
    {"advapi32.dll", "CryptEncrypt", FailStyle::BoolFalse, kProviderNoMemory, "provider out of memory"},
    {"advapi32.dll", "CryptExportKey", FailStyle::BoolFalse, kProviderNoMemory, "provider out of memory"},
    {"advapi32.dll", "CryptDuplicateKey", FailStyle::BoolFalse, kProviderNoMemory, "provider out of memory"},
    {"advapi32.dll", "CryptDecrypt", FailStyle::BoolFalse, kBadData, "bad data"},
    {"advapi32.dll", "CryptImportKey", FailStyle::BoolFalse, kBadData, "bad data"},
    {"advapi32.dll", "CryptGetUserKey", FailStyle::BoolFalse, static_cast<DWORD>(NTE_NO_KEY), "no key"},
    {"advapi32.dll", "CryptDestroyKey", FailStyle::Pass, 0, "release"},
    {"advapi32.dll", "CryptReleaseContext", FailStyle::Pass, 0, "release"},
    // Access control and SIDs.
    {"advapi32.dll", "OpenProcessToken", FailStyle::BoolFalse, kAccessDenied, "access denied"},
    {"advapi32.dll", "OpenThreadToken", FailStyle::BoolFalse, kAccessDenied, "access denied"},
    {"advapi32.dll", "GetTokenInformation", FailStyle::BoolFalse, kAccessDenied, "access denied"},
    {"advapi32.dll", "SetSecurityInfo", FailStyle::Win32Result, kAccessDenied, "access denied"},
    {"advapi32.dll", "GetKernelObjectSecurity", FailStyle::BoolFalse, kAccessDenied, "access denied"},
    {"advapi32.dll", "GetSecurityInfo", FailStyle::Win32Result, kAccessDenied, "access denied"},
    {"advapi32.dll", "GetSecurityDescriptorOwner", FailStyle::Pass, 0, "pure query"},
    {"advapi32.dll", "ConvertStringSecurityDescriptorToSecurityDescriptorW", FailStyle::BoolFalse, kNoMemory,
     "out of memory"},
    {"advapi32.dll", "InitializeAcl", FailStyle::BoolFalse, ERROR_INSUFFICIENT_BUFFER, "buffer too small"},
    {"advapi32.dll", "AddAccessAllowedAceEx", FailStyle::BoolFalse, ERROR_ALLOTTED_SPACE_EXCEEDED, "ACL full"},
    {"advapi32.dll", "CreateWellKnownSid", FailStyle::BoolFalse, ERROR_INSUFFICIENT_BUFFER, "buffer too small"},
    {"advapi32.dll", "ConvertSidToStringSidW", FailStyle::BoolFalse, kNoMemory, "out of memory"},
    {"advapi32.dll", "ConvertStringSidToSidW", FailStyle::BoolFalse, kNoMemory, "out of memory"},
    {"advapi32.dll", "EqualSid", FailStyle::Pass, 0, "pure comparison"},
    {"advapi32.dll", "GetLengthSid", FailStyle::Pass, 0, "pure query"},
    {"advapi32.dll", "IsValidSid", FailStyle::Pass, 0, "pure query"},
    // crypt32: encoding and decoding run out of memory; a key import meets bad data.
    {"crypt32.dll", "CryptDecodeObject", FailStyle::BoolFalse, kOutOfMemory, "out of memory"},
    {"crypt32.dll", "CryptDecodeObjectEx", FailStyle::BoolFalse, kOutOfMemory, "out of memory"},
    {"crypt32.dll", "CryptEncodeObject", FailStyle::BoolFalse, kOutOfMemory, "out of memory"},
    {"crypt32.dll", "CryptEncodeObjectEx", FailStyle::BoolFalse, kOutOfMemory, "out of memory"},
    {"crypt32.dll", "CryptExportPublicKeyInfo", FailStyle::BoolFalse, kOutOfMemory, "out of memory"},
    {"crypt32.dll", "CryptImportPublicKeyInfo", FailStyle::BoolFalse, kBadData, "bad data"},
    {"crypt32.dll", "CryptSignCertificate", FailStyle::BoolFalse, kProviderNoMemory, "provider out of memory"},
    {"crypt32.dll", "CryptVerifyCertificateSignature", FailStyle::BoolFalse, static_cast<DWORD>(NTE_BAD_SIGNATURE),
     "bad signature"},
    // COM.
    {"ole32.dll", "CoCreateInstance", FailStyle::HResult, static_cast<DWORD>(REGDB_E_CLASSNOTREG),
     "class not registered"},
    {"ole32.dll", "CoGetClassObject", FailStyle::HResult, static_cast<DWORD>(REGDB_E_CLASSNOTREG),
     "class not registered"},
    {"ole32.dll", "CoCreateGuid", FailStyle::HResult, kOutOfMemory, "out of memory"},
    {"ole32.dll", "CoTaskMemAlloc", FailStyle::NullPointer, kNoMemory, "out of memory"},
    {"ole32.dll", "CoTaskMemFree", FailStyle::Pass, 0, "release"},
    {"ole32.dll", "StringFromGUID2", FailStyle::ZeroInt, ERROR_INSUFFICIENT_BUFFER, "buffer too small"},
    {"oleaut32.dll", "SysAllocString", FailStyle::NullPointer, kNoMemory, "out of memory"},
    {"oleaut32.dll", "SysAllocStringLen", FailStyle::NullPointer, kNoMemory, "out of memory"},
    {"oleaut32.dll", "SysFreeString", FailStyle::Pass, 0, "release"},
    {"oleaut32.dll", "SysStringByteLen", FailStyle::Pass, 0, "pure query"},
    {"oleaut32.dll", "SysStringLen", FailStyle::Pass, 0, "pure query"},
    {"oleaut32.dll", "LoadTypeLibEx", FailStyle::HResult, static_cast<DWORD>(TYPE_E_CANTLOADLIBRARY),
     "type library not loadable"},
    {"oleaut32.dll", "RegisterTypeLib", FailStyle::HResult, static_cast<DWORD>(TYPE_E_REGISTRYACCESS),
     "registry access"},
    // Network management.
    {"netapi32.dll", "NetServerGetInfo", FailStyle::Win32Result, kAccessDenied, "access denied"},
    {"netapi32.dll", "NetWkstaGetInfo", FailStyle::Win32Result, kAccessDenied, "access denied"},
    {"netapi32.dll", "NetApiBufferFree", FailStyle::Pass, 0, "release"},
    // Heap and allocation.
    {"kernel32.dll", "HeapAlloc", FailStyle::NullPointer, kNoMemory, "out of memory"},
    {"kernel32.dll", "HeapReAlloc", FailStyle::NullPointer, kNoMemory, "out of memory"},
    {"kernel32.dll", "HeapFree", FailStyle::Pass, 0, "release"},
    {"kernel32.dll", "HeapSize", FailStyle::Pass, 0, "pure query"},
    {"kernel32.dll", "GetProcessHeap", FailStyle::Pass, 0, "pure query"},
    {"kernel32.dll", "LocalAlloc", FailStyle::NullPointer, kNoMemory, "out of memory"},
    {"kernel32.dll", "LocalReAlloc", FailStyle::NullPointer, kNoMemory, "out of memory"},
    {"kernel32.dll", "LocalFree", FailStyle::Pass, 0, "release"},
    {"kernel32.dll", "LocalSize", FailStyle::Pass, 0, "pure query"},
    {"kernel32.dll", "GlobalAlloc", FailStyle::NullPointer, kNoMemory, "out of memory"},
    {"kernel32.dll", "GlobalFree", FailStyle::Pass, 0, "release"},
    {"kernel32.dll", "VirtualAlloc", FailStyle::NullPointer, kNoMemory, "out of memory"},
    {"kernel32.dll", "VirtualFree", FailStyle::Pass, 0, "release"},
    // The stack protector's canary, drawn once while the library loads.
    {"advapi32.dll", "CryptAcquireContextA", FailStyle::Pass, 0, "stack protector set-up at load only"},
    {"advapi32.dll", "CryptGenRandom", FailStyle::Pass, 0, "stack protector set-up at load only"},
    // The run-time's page protection for its relocations and its memory map queries.
    {"kernel32.dll", "VirtualProtect", FailStyle::Pass, 0, "run-time start-up only"},
    {"kernel32.dll", "VirtualQuery", FailStyle::Pass, 0, "pure query"},
    {"msvcrt.dll", "malloc", FailStyle::NullPointer, kNoMemory, "out of memory"},
    {"msvcrt.dll", "calloc", FailStyle::NullPointer, kNoMemory, "out of memory"},
    {"msvcrt.dll", "realloc", FailStyle::NullPointer, kNoMemory, "out of memory"},
    {"msvcrt.dll", "_strdup", FailStyle::NullPointer, kNoMemory, "out of memory"},
    {"msvcrt.dll", "_wcsdup", FailStyle::NullPointer, kNoMemory, "out of memory"},
    {"msvcrt.dll", "free", FailStyle::Pass, 0, "release"},
};

bool StartsWith(const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; }

} // namespace

std::string Lower(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

std::vector<CatalogEntry> Catalog() { return std::vector<CatalogEntry>(std::begin(kCatalog), std::end(kCatalog)); }

const CatalogEntry* FindEntry(const std::string& dll, const std::string& function)
{
    const std::string d = Lower(dll);
    for (const CatalogEntry& e : kCatalog)
        if (d == e.dll && function == e.function)
            return &e;
    return nullptr;
}

bool IsCoveredFamily(const std::string& dll, const std::string& function)
{
    const std::string d = Lower(dll);
    if (d == "advapi32.dll" || d == "crypt32.dll" || d == "ole32.dll" || d == "oleaut32.dll" || d == "netapi32.dll")
        return true;
    if (d == "kernel32.dll")
        return StartsWith(function, "Heap") || StartsWith(function, "Local") || StartsWith(function, "Global") ||
               StartsWith(function, "Virtual") || function == "GetProcessHeap";
    if (d == "msvcrt.dll" || StartsWith(d, "api-ms-win-crt-heap") || StartsWith(d, "ucrtbase")) {
        const std::string f = Lower(function);
        return f.find("alloc") != std::string::npos || f.find("free") != std::string::npos ||
               f.find("dup") != std::string::npos || f == "_expand" || f == "_msize";
    }
    return false;
}

} // namespace nvfaults
