#include "support/api_faults.h"

#include <cwchar>
#include <map>
#include "common/replaceablecalls.h"

namespace nvtest {

namespace {

struct FaultState {
    unsigned decodeCalls = 0;
    std::map<ULONG_PTR, unsigned> decodeCallsByType; // the predefined (numbered) types
    unsigned decodeFailAt = 0;
    bool decodeFailOn = false; // every call from decodeFailAt on
    DWORD decodeError = 0;
    unsigned encodeCalls = 0;
    unsigned encodeFailAt = 0;
    DWORD encodeError = 0;
    std::wstring queryName;
    unsigned queryCalls = 0;
    unsigned queryFailAt = 0;
    LONG queryCode = 0;
};

FaultState g_state;

BOOL WINAPI FaultyDecode(DWORD dwEncoding, LPCSTR lpszStructType, const BYTE* pbEncoded, DWORD cbEncoded,
                         DWORD dwFlags, void* pvStructInfo, DWORD* pcbStructInfo)
{
    const unsigned n = ++g_state.decodeCalls;
    if (IS_INTRESOURCE(lpszStructType))
        ++g_state.decodeCallsByType[reinterpret_cast<ULONG_PTR>(lpszStructType)];
    if (g_state.decodeFailAt != 0 &&
        (n == g_state.decodeFailAt || (g_state.decodeFailOn && n > g_state.decodeFailAt))) {
        ::SetLastError(g_state.decodeError);
        return FALSE;
    }
    return nv::kPlatformApiCalls.pfnCryptDecodeObject(dwEncoding, lpszStructType, pbEncoded, cbEncoded, dwFlags,
                                                      pvStructInfo, pcbStructInfo);
}

BOOL WINAPI FaultyEncode(DWORD dwEncoding, LPCSTR lpszStructType, const void* pvStructInfo, BYTE* pbEncoded,
                         DWORD* pcbEncoded)
{
    const unsigned n = ++g_state.encodeCalls;
    if (g_state.encodeFailAt != 0 && n == g_state.encodeFailAt) {
        ::SetLastError(g_state.encodeError);
        return FALSE;
    }
    return nv::kPlatformApiCalls.pfnCryptEncodeObject(dwEncoding, lpszStructType, pvStructInfo, pbEncoded,
                                                      pcbEncoded);
}

LONG WINAPI FaultyQueryValue(HKEY hKey, LPCWSTR lpValueName, LPDWORD lpReserved, LPDWORD lpType, LPBYTE lpData,
                             LPDWORD lpcbData)
{
    if (lpValueName && !g_state.queryName.empty() && _wcsicmp(lpValueName, g_state.queryName.c_str()) == 0) {
        const unsigned n = ++g_state.queryCalls;
        if (n == g_state.queryFailAt)
            return g_state.queryCode;
    }
    return nv::kPlatformApiCalls.pfnRegQueryValueExW(hKey, lpValueName, lpReserved, lpType, lpData, lpcbData);
}

} // namespace

ApiFaults::ApiFaults()
{
    g_state = FaultState{};
    nv::g_apiCalls.pfnCryptDecodeObject = &FaultyDecode;
    nv::g_apiCalls.pfnCryptEncodeObject = &FaultyEncode;
    nv::g_apiCalls.pfnRegQueryValueExW = &FaultyQueryValue;
}

ApiFaults::~ApiFaults()
{
    nv::g_apiCalls = nv::kPlatformApiCalls;
    g_state = FaultState{};
}

void ApiFaults::FailDecode(unsigned n, DWORD lastError)
{
    g_state.decodeFailAt = n == 0 ? 0 : g_state.decodeCalls + n;
    g_state.decodeFailOn = false;
    g_state.decodeError = lastError;
}

void ApiFaults::FailDecodeFrom(unsigned n, DWORD lastError)
{
    FailDecode(n, lastError);
    g_state.decodeFailOn = true;
}

void ApiFaults::FailEncode(unsigned n, DWORD lastError)
{
    g_state.encodeFailAt = n == 0 ? 0 : g_state.encodeCalls + n;
    g_state.encodeError = lastError;
}

void ApiFaults::FailQueryValue(const std::wstring& valueName, unsigned n, LONG code)
{
    g_state.queryName = valueName;
    g_state.queryCalls = 0;
    g_state.queryFailAt = n;
    g_state.queryCode = code;
}

unsigned ApiFaults::DecodeCalls() const { return g_state.decodeCalls; }

unsigned ApiFaults::DecodeCalls(LPCSTR structType) const
{
    const auto it = g_state.decodeCallsByType.find(reinterpret_cast<ULONG_PTR>(structType));
    return it == g_state.decodeCallsByType.end() ? 0 : it->second;
}
unsigned ApiFaults::EncodeCalls() const { return g_state.encodeCalls; }
unsigned ApiFaults::QueryValueCalls() const { return g_state.queryCalls; }

} // namespace nvtest
