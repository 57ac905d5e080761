#include "common/apicalls.h"

#include "common/hresult.h"

namespace nv {

const ApiCalls kPlatformApiCalls = {&::CryptDecodeObject, &::CryptEncodeObject, &::RegQueryValueExW};

ApiCalls g_apiCalls = kPlatformApiCalls;

bool IsOutOfMemoryCode(DWORD code) noexcept
{
    return code == static_cast<DWORD>(E_OUTOFMEMORY) || code == ERROR_NOT_ENOUGH_MEMORY ||
           code == ERROR_OUTOFMEMORY || code == static_cast<DWORD>(HResultFromWin32(ERROR_NOT_ENOUGH_MEMORY));
}

bool IsDataErrorCode(DWORD code) noexcept
{
    // CRYPT_E_ASN1_ERROR (0x80093100) up to CRYPT_E_ASN1_NOEOD (0x80093202) and the
    // rest of that block.
    const bool asn1 = code >= 0x80093100u && code <= 0x800932FFu;
    // A coder that ran off the end of malformed bytes catches its own fault and
    // reports STATUS_ACCESS_VIOLATION: a verdict on the bytes, not on the machine.
    const bool ranOffTheEnd = code == static_cast<DWORD>(STATUS_ACCESS_VIOLATION);
    return asn1 || ranOffTheEnd || code == static_cast<DWORD>(CRYPT_E_BAD_ENCODE) ||
           code == static_cast<DWORD>(NTE_BAD_DATA);
}

void RaiseUnlessDataError(DWORD lastError)
{
    if (IsDataErrorCode(lastError))
        return;
    if (IsOutOfMemoryCode(lastError))
        ThrowHr(E_OUTOFMEMORY);
    ThrowHr(lastError == 0 ? E_FAIL : HResultFromWin32(static_cast<LONG>(lastError)));
}

} // namespace nv
