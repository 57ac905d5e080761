// The crypt32 and netapi32 functions the library calls, found at run time in the
// system directory.
//
// Neither library is one that Windows always takes from the system directory. Had
// the library imported them, a host that loads it with a plain LoadLibrary (an
// installer's plug-in call, COM) would resolve them through the ordinary search,
// which starts with the host's own folder: a copy planted in a downloads folder
// would run inside the elevated installer. So the import table names only libraries
// that cannot be planted, and each of these functions is looked up on its first
// call through LoadSystemLibrary and GetProcAddress.
//
// Each function has the signature of the platform's own. When its library or the
// function cannot be found there, it fails the way the platform's function fails,
// with the loader's error (ERROR_MOD_NOT_FOUND, ERROR_PROC_NOT_FOUND): FALSE with
// the last error set, or the error as the NET_API_STATUS. A lookup that failed is
// made again on the next call; one that worked is kept. The library stays loaded
// for the life of the process, as an import would.
#pragma once
#include <windows.h>
#include <wincrypt.h>
#include <lm.h>

namespace nv::sys {

BOOL WINAPI CryptDecodeObject(DWORD dwCertEncodingType, LPCSTR lpszStructType, const BYTE* pbEncoded,
                              DWORD cbEncoded, DWORD dwFlags, void* pvStructInfo, DWORD* pcbStructInfo);
BOOL WINAPI CryptEncodeObject(DWORD dwCertEncodingType, LPCSTR lpszStructType, const void* pvStructInfo,
                              BYTE* pbEncoded, DWORD* pcbEncoded);
BOOL WINAPI CryptExportPublicKeyInfo(HCRYPTPROV_OR_NCRYPT_KEY_HANDLE hCryptProvOrNCryptKey, DWORD dwKeySpec,
                                     DWORD dwCertEncodingType, PCERT_PUBLIC_KEY_INFO pInfo, DWORD* pcbInfo);
BOOL WINAPI CryptImportPublicKeyInfo(HCRYPTPROV hCryptProv, DWORD dwCertEncodingType, PCERT_PUBLIC_KEY_INFO pInfo,
                                     HCRYPTKEY* phKey);
BOOL WINAPI CryptSignCertificate(HCRYPTPROV_OR_NCRYPT_KEY_HANDLE hCryptProvOrNCryptKey, DWORD dwKeySpec,
                                 DWORD dwCertEncodingType, const BYTE* pbEncodedToBeSigned, DWORD cbEncodedToBeSigned,
                                 PCRYPT_ALGORITHM_IDENTIFIER pSignatureAlgorithm, const void* pvHashAuxInfo,
                                 BYTE* pbSignature, DWORD* pcbSignature);
// Used only by the legacy database writer of the tools and tests, which shares this
// way of reaching crypt32.
BOOL WINAPI CryptSignAndEncodeCertificate(HCRYPTPROV_OR_NCRYPT_KEY_HANDLE hCryptProvOrNCryptKey, DWORD dwKeySpec,
                                          DWORD dwCertEncodingType, LPCSTR lpszStructType, const void* pvStructInfo,
                                          PCRYPT_ALGORITHM_IDENTIFIER pSignatureAlgorithm, const void* pvHashAuxInfo,
                                          BYTE* pbEncoded, DWORD* pcbEncoded);
BOOL WINAPI CryptVerifyCertificateSignature(HCRYPTPROV_LEGACY hCryptProv, DWORD dwCertEncodingType,
                                            const BYTE* pbEncoded, DWORD cbEncoded, PCERT_PUBLIC_KEY_INFO pPublicKey);

NET_API_STATUS WINAPI NetServerGetInfo(LMSTR servername, DWORD level, LPBYTE* bufptr);
NET_API_STATUS WINAPI NetWkstaGetInfo(LMSTR servername, DWORD level, LPBYTE* bufptr);
NET_API_STATUS WINAPI NetApiBufferFree(LPVOID Buffer);

} // namespace nv::sys
