// The platform calls whose failures decide between "malformed data" and "the
// machine is short of something": the DER coder of crypt32 and the registry value
// query of the host identifier. The library makes them through this table. Unit
// tests, which link the core library directly, point an entry at a stand-in that
// fails once; the DLL exports nothing of it, so an installer cannot reach it.
//
// Beside the table: how a failed coder call is told apart. Out of memory is never
// malformed data; only the coder's data errors may take a lenient path.
#pragma once
#include <windows.h>
#include <wincrypt.h>

namespace nv {

struct ApiCalls {
    decltype(&::CryptDecodeObject) pfnCryptDecodeObject;
    decltype(&::CryptEncodeObject) pfnCryptEncodeObject;
    decltype(&::RegQueryValueExW) pfnRegQueryValueExW;
};

// The calls in use; the real functions unless a test replaced one.
extern ApiCalls g_apiCalls;
// The real functions, for tests to restore and to forward to.
extern const ApiCalls kPlatformApiCalls;

inline BOOL CallCryptDecodeObject(DWORD dwEncoding, LPCSTR lpszStructType, const BYTE* pbEncoded, DWORD cbEncoded,
                                  DWORD dwFlags, void* pvStructInfo, DWORD* pcbStructInfo)
{
    return g_apiCalls.pfnCryptDecodeObject(dwEncoding, lpszStructType, pbEncoded, cbEncoded, dwFlags, pvStructInfo,
                                           pcbStructInfo);
}

inline BOOL CallCryptEncodeObject(DWORD dwEncoding, LPCSTR lpszStructType, const void* pvStructInfo, BYTE* pbEncoded,
                                  DWORD* pcbEncoded)
{
    return g_apiCalls.pfnCryptEncodeObject(dwEncoding, lpszStructType, pvStructInfo, pbEncoded, pcbEncoded);
}

inline LONG CallRegQueryValueExW(HKEY hKey, LPCWSTR lpValueName, LPDWORD lpType, LPBYTE lpData, LPDWORD lpcbData)
{
    return g_apiCalls.pfnRegQueryValueExW(hKey, lpValueName, nullptr, lpType, lpData, lpcbData);
}

// E_OUTOFMEMORY, ERROR_NOT_ENOUGH_MEMORY and ERROR_OUTOFMEMORY, as a last error or
// as an HRESULT.
bool IsOutOfMemoryCode(DWORD code) noexcept;

// The coder's verdicts on the bytes themselves: CRYPT_E_ASN1_*, CRYPT_E_BAD_ENCODE,
// NTE_BAD_DATA and a read past the end that the coder caught itself
// (STATUS_ACCESS_VIOLATION), as a last error or as an HRESULT.
bool IsDataErrorCode(DWORD code) noexcept;

// For a lenient reader after a coder call failed with this last error: returns for
// a data error (the reader takes its empty value); raises E_OUTOFMEMORY for a
// memory shortage and any other code as its HRESULT (E_FAIL for none).
void RaiseUnlessDataError(DWORD lastError);

} // namespace nv
