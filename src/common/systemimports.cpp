#include "common/systemimports.h"

#include <atomic>

#include "common/systemlibrary.h"

namespace nv::sys {

namespace {

// A system library, loaded once and never freed: the functions found in it stay
// callable for as long as the process holds the library's code.
struct SystemModule {
    const wchar_t* fileName;
    std::atomic<HMODULE> module;
};

// One function of a system library, looked up on its first call. Two threads that
// race on the first call find the same address, so the later store is harmless.
struct SystemFunction {
    SystemModule& library;
    const char* name;
    std::atomic<FARPROC> address;
};

SystemModule g_crypt32{L"crypt32.dll", {nullptr}};
SystemModule g_netapi32{L"netapi32.dll", {nullptr}};

SystemFunction g_decodeObject{g_crypt32, "CryptDecodeObject", {nullptr}};
SystemFunction g_encodeObject{g_crypt32, "CryptEncodeObject", {nullptr}};
SystemFunction g_exportPublicKeyInfo{g_crypt32, "CryptExportPublicKeyInfo", {nullptr}};
SystemFunction g_importPublicKeyInfo{g_crypt32, "CryptImportPublicKeyInfo", {nullptr}};
SystemFunction g_signCertificate{g_crypt32, "CryptSignCertificate", {nullptr}};
SystemFunction g_signAndEncodeCertificate{g_crypt32, "CryptSignAndEncodeCertificate", {nullptr}};
SystemFunction g_verifyCertificateSignature{g_crypt32, "CryptVerifyCertificateSignature", {nullptr}};
SystemFunction g_serverGetInfo{g_netapi32, "NetServerGetInfo", {nullptr}};
SystemFunction g_wkstaGetInfo{g_netapi32, "NetWkstaGetInfo", {nullptr}};
SystemFunction g_apiBufferFree{g_netapi32, "NetApiBufferFree", {nullptr}};

HMODULE Load(SystemModule& library) noexcept
{
    HMODULE module = library.module.load(std::memory_order_acquire);
    if (module)
        return module;
    module = LoadSystemLibrary(library.fileName);
    if (!module)
        return nullptr;
    HMODULE expected = nullptr;
    if (!library.module.compare_exchange_strong(expected, module, std::memory_order_acq_rel)) {
        // Another thread was first: give back the second reference.
        ::FreeLibrary(module);
        module = expected;
    }
    return module;
}

// The function's address, or null with the loader's last error.
template <class Fn>
Fn Find(SystemFunction& function) noexcept
{
    FARPROC address = function.address.load(std::memory_order_acquire);
    if (!address) {
        const HMODULE module = Load(function.library);
        if (!module)
            return nullptr;
        address = ::GetProcAddress(module, function.name);
        if (!address)
            return nullptr;
        function.address.store(address, std::memory_order_release);
    }
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(address));
}

// A network function that could not be found answers with the loader's error.
NET_API_STATUS MissingNetFunction() noexcept
{
    const DWORD error = ::GetLastError();
    return error ? error : ERROR_PROC_NOT_FOUND;
}

// The platform's function called with the caller's arguments. A crypt32 function
// that cannot be found answers FALSE with the loader's last error; a netapi32 one
// answers that error.
template <class Fn, class... Args>
BOOL CallCrypt32(SystemFunction& function, Args... args) noexcept
{
    const Fn fn = Find<Fn>(function);
    return fn && fn(args...);
}

template <class Fn, class... Args>
NET_API_STATUS CallNetapi32(SystemFunction& function, Args... args) noexcept
{
    const Fn fn = Find<Fn>(function);
    return fn ? fn(args...) : MissingNetFunction();
}

} // namespace

BOOL WINAPI CryptDecodeObject(DWORD dwCertEncodingType, LPCSTR lpszStructType, const BYTE* pbEncoded,
                              DWORD cbEncoded, DWORD dwFlags, void* pvStructInfo, DWORD* pcbStructInfo)
{
    return CallCrypt32<decltype(&::CryptDecodeObject)>(g_decodeObject, dwCertEncodingType, lpszStructType, pbEncoded,
                                                       cbEncoded, dwFlags, pvStructInfo, pcbStructInfo);
}

BOOL WINAPI CryptEncodeObject(DWORD dwCertEncodingType, LPCSTR lpszStructType, const void* pvStructInfo,
                              BYTE* pbEncoded, DWORD* pcbEncoded)
{
    return CallCrypt32<decltype(&::CryptEncodeObject)>(g_encodeObject, dwCertEncodingType, lpszStructType,
                                                       pvStructInfo, pbEncoded, pcbEncoded);
}

BOOL WINAPI CryptExportPublicKeyInfo(HCRYPTPROV_OR_NCRYPT_KEY_HANDLE hCryptProvOrNCryptKey, DWORD dwKeySpec,
                                     DWORD dwCertEncodingType, PCERT_PUBLIC_KEY_INFO pInfo, DWORD* pcbInfo)
{
    return CallCrypt32<decltype(&::CryptExportPublicKeyInfo)>(g_exportPublicKeyInfo, hCryptProvOrNCryptKey, dwKeySpec,
                                                              dwCertEncodingType, pInfo, pcbInfo);
}

BOOL WINAPI CryptImportPublicKeyInfo(HCRYPTPROV hCryptProv, DWORD dwCertEncodingType, PCERT_PUBLIC_KEY_INFO pInfo,
                                     HCRYPTKEY* phKey)
{
    return CallCrypt32<decltype(&::CryptImportPublicKeyInfo)>(g_importPublicKeyInfo, hCryptProv, dwCertEncodingType,
                                                              pInfo, phKey);
}

BOOL WINAPI CryptSignCertificate(HCRYPTPROV_OR_NCRYPT_KEY_HANDLE hCryptProvOrNCryptKey, DWORD dwKeySpec,
                                 DWORD dwCertEncodingType, const BYTE* pbEncodedToBeSigned, DWORD cbEncodedToBeSigned,
                                 PCRYPT_ALGORITHM_IDENTIFIER pSignatureAlgorithm, const void* pvHashAuxInfo,
                                 BYTE* pbSignature, DWORD* pcbSignature)
{
    return CallCrypt32<decltype(&::CryptSignCertificate)>(g_signCertificate, hCryptProvOrNCryptKey, dwKeySpec,
                                                          dwCertEncodingType, pbEncodedToBeSigned, cbEncodedToBeSigned,
                                                          pSignatureAlgorithm, pvHashAuxInfo, pbSignature,
                                                          pcbSignature);
}

BOOL WINAPI CryptSignAndEncodeCertificate(HCRYPTPROV_OR_NCRYPT_KEY_HANDLE hCryptProvOrNCryptKey, DWORD dwKeySpec,
                                          DWORD dwCertEncodingType, LPCSTR lpszStructType, const void* pvStructInfo,
                                          PCRYPT_ALGORITHM_IDENTIFIER pSignatureAlgorithm, const void* pvHashAuxInfo,
                                          BYTE* pbEncoded, DWORD* pcbEncoded)
{
    return CallCrypt32<decltype(&::CryptSignAndEncodeCertificate)>(g_signAndEncodeCertificate, hCryptProvOrNCryptKey,
                                                                   dwKeySpec, dwCertEncodingType, lpszStructType,
                                                                   pvStructInfo, pSignatureAlgorithm, pvHashAuxInfo,
                                                                   pbEncoded, pcbEncoded);
}

BOOL WINAPI CryptVerifyCertificateSignature(HCRYPTPROV_LEGACY hCryptProv, DWORD dwCertEncodingType,
                                            const BYTE* pbEncoded, DWORD cbEncoded, PCERT_PUBLIC_KEY_INFO pPublicKey)
{
    return CallCrypt32<decltype(&::CryptVerifyCertificateSignature)>(g_verifyCertificateSignature, hCryptProv,
                                                                     dwCertEncodingType, pbEncoded, cbEncoded,
                                                                     pPublicKey);
}

NET_API_STATUS WINAPI NetServerGetInfo(LMSTR servername, DWORD level, LPBYTE* bufptr)
{
    return CallNetapi32<decltype(&::NetServerGetInfo)>(g_serverGetInfo, servername, level, bufptr);
}

NET_API_STATUS WINAPI NetWkstaGetInfo(LMSTR servername, DWORD level, LPBYTE* bufptr)
{
    return CallNetapi32<decltype(&::NetWkstaGetInfo)>(g_wkstaGetInfo, servername, level, bufptr);
}

NET_API_STATUS WINAPI NetApiBufferFree(LPVOID Buffer)
{
    return CallNetapi32<decltype(&::NetApiBufferFree)>(g_apiBufferFree, Buffer);
}

} // namespace nv::sys
