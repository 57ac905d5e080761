// The platform calls whose failures decide between "malformed data" and "the
// machine is short of something": the DER coder of crypt32 and the registry value
// query of the host identifier. The library makes them through this table. Unit
// tests, which link the core library directly, point an entry at a stand-in that
// fails once; the DLL exports nothing of it, so an installer cannot reach it.
//
// Beside the table: how a failed coder call is told apart. Out of memory is never
// malformed data; only the coder's data errors may take a lenient path. And in front
// of the decoder: bytes that the platform's coder would mishandle are refused here
// as malformed, before it sees them.
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
// The platform's functions (crypt32's found in the system directory on their first
// call, common/systemimports.h), for tests to restore and to forward to.
extern const ApiCalls kPlatformApiCalls;

// CryptDecodeObject through the table, after HoldsEmptyBitString: bytes that hold
// an empty BIT STRING where the structure decodes one fail with CRYPT_E_ASN1_CORRUPT
// without a coder call.
BOOL CallCryptDecodeObject(DWORD dwEncoding, LPCSTR lpszStructType, const BYTE* pbEncoded, DWORD cbEncoded,
                           DWORD dwFlags, void* pvStructInfo, DWORD* pcbStructInfo);

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

// True when the bytes, decoded as this structure type, put a BIT STRING without
// content (not even its unused-bits byte) in front of the decoder: the type itself
// (X509_BITS), or an item of the outer SEQUENCE of a signed content (X509_CERT) or a
// public key (X509_PUBLIC_KEY_INFO). Such an item is malformed DER. Wine's crypt32
// takes its bit count as 2^32 - 1 bytes: it asks for a buffer one byte smaller than
// the structure, then copies the bytes behind the item into it until something
// faults, catches its own fault and reports STATUS_ACCESS_VIOLATION. By then the
// heap behind the buffer is overwritten; the process crashes or hangs later.
bool HoldsEmptyBitString(LPCSTR lpszStructType, const BYTE* pbEncoded, DWORD cbEncoded) noexcept;

// The verdict on the bytes of a failed CryptDecodeObject that had valid arguments of
// our own (bytes present, a known structure type, a buffer of the size the coder
// asked for): the data errors above, and the coder's refusal of a value it finds
// impossible, ERROR_INVALID_PARAMETER or E_INVALIDARG (Wine's crypt32 fails a time of
// month 24 so). Not for encoder failures: there E_INVALIDARG means our own structure.
bool IsDecodeDataError(DWORD lastError) noexcept;

// For a lenient reader after a decode failed with this last error: returns for a
// data error (the reader takes its empty value); raises E_OUTOFMEMORY for a memory
// shortage and any other code as its HRESULT (E_FAIL for none).
void RaiseUnlessDecodeDataError(DWORD lastError);

// The code a strict reader raises for a failed decode, classified before it becomes
// an HRESULT: E_OUTOFMEMORY for a memory shortage; for a data error, the coder's own
// CRYPT_E_ASN1_*, CRYPT_E_BAD_ENCODE or NTE_BAD_DATA, and CRYPT_E_ASN1_CORRUPT for a
// caught fault or a refused value (so that IsDataErrorCode still knows it, where
// HRESULT_FROM_WIN32 would make access denied of STATUS_ACCESS_VIOLATION); any other
// code as its HRESULT (E_FAIL for none).
HRESULT DecodeFailureResult(DWORD lastError) noexcept;

} // namespace nv
