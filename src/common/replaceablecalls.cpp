#include "common/replaceablecalls.h"

#include "common/hresult.h"
#include "common/systemimports.h"

namespace nv {

const ApiCalls kPlatformApiCalls = {&sys::CryptDecodeObject, &sys::CryptEncodeObject, &::RegQueryValueExW};

ApiCalls g_apiCalls = kPlatformApiCalls;

namespace {

constexpr BYTE kBitStringTag = 0x03;

// One DER header as the platform's coder reads it: a one-byte tag, then a definite
// length in short form or in long form of up to 4 bytes, or the indefinite form.
struct DerHeader {
    BYTE tag = 0;
    DWORD headerSize = 0;
    DWORD length = 0;
    bool definite = false;
};

bool ReadDerHeader(const BYTE* pb, DWORD cb, DerHeader& h) noexcept
{
    if (cb < 2)
        return false;
    const BYTE first = pb[1];
    if (first < 0x80) {
        h = DerHeader{pb[0], 2, first, true};
        return true;
    }
    if (first == 0x80) {
        h = DerHeader{pb[0], 2, 0, false};
        return true;
    }
    const DWORD lengthBytes = first & 0x7Fu;
    if (lengthBytes > 4 || cb - 2 < lengthBytes)
        return false;
    DWORD length = 0;
    for (DWORD i = 0; i < lengthBytes; ++i)
        length = (length << 8) | pb[2 + i];
    h = DerHeader{pb[0], 2 + lengthBytes, length, true};
    return true;
}

bool IsEmptyBitString(const DerHeader& h) noexcept { return h.tag == kBitStringTag && h.definite && h.length == 0; }

// The items of the outer SEQUENCE, followed up to the end of the bytes rather than
// the SEQUENCE's own length: the coder sizes every item before it compares the
// total with that length, so any item it could reach is looked at.
bool AnyTopLevelItemIsEmptyBitString(const BYTE* pb, DWORD cb) noexcept
{
    DerHeader outer;
    if (!ReadDerHeader(pb, cb, outer))
        return false;
    unsigned long long pos = outer.headerSize;
    while (pos < cb) {
        DerHeader item;
        if (!ReadDerHeader(pb + pos, static_cast<DWORD>(cb - pos), item))
            return false;
        if (IsEmptyBitString(item))
            return true;
        // The coder does not get past an item of indefinite length.
        if (!item.definite)
            return false;
        pos += static_cast<unsigned long long>(item.headerSize) + item.length;
    }
    return false;
}

bool IsStructType(LPCSTR a, LPCSTR b) noexcept { return a == b; }

} // namespace

bool HoldsEmptyBitString(LPCSTR lpszStructType, const BYTE* pbEncoded, DWORD cbEncoded) noexcept
{
    if (!pbEncoded || cbEncoded == 0)
        return false;
    if (IsStructType(lpszStructType, X509_BITS)) {
        DerHeader h;
        return ReadDerHeader(pbEncoded, cbEncoded, h) && IsEmptyBitString(h);
    }
    if (IsStructType(lpszStructType, X509_CERT) || IsStructType(lpszStructType, X509_PUBLIC_KEY_INFO))
        return AnyTopLevelItemIsEmptyBitString(pbEncoded, cbEncoded);
    return false;
}

BOOL CallCryptDecodeObject(DWORD dwEncoding, LPCSTR lpszStructType, const BYTE* pbEncoded, DWORD cbEncoded,
                           DWORD dwFlags, void* pvStructInfo, DWORD* pcbStructInfo)
{
    if (HoldsEmptyBitString(lpszStructType, pbEncoded, cbEncoded)) {
        ::SetLastError(static_cast<DWORD>(CRYPT_E_ASN1_CORRUPT));
        return FALSE;
    }
    return g_apiCalls.pfnCryptDecodeObject(dwEncoding, lpszStructType, pbEncoded, cbEncoded, dwFlags, pvStructInfo,
                                           pcbStructInfo);
}

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

bool IsDecodeDataError(DWORD lastError) noexcept
{
    return IsDataErrorCode(lastError) || lastError == ERROR_INVALID_PARAMETER ||
           lastError == static_cast<DWORD>(E_INVALIDARG);
}

void RaiseUnlessDecodeDataError(DWORD lastError)
{
    if (IsDecodeDataError(lastError))
        return;
    ThrowHr(DecodeFailureResult(lastError));
}

HRESULT DecodeFailureResult(DWORD lastError) noexcept
{
    if (IsOutOfMemoryCode(lastError))
        return E_OUTOFMEMORY;
    // The verdicts that are no code of the coder's own facility.
    if (lastError == static_cast<DWORD>(STATUS_ACCESS_VIOLATION) || lastError == ERROR_INVALID_PARAMETER ||
        lastError == static_cast<DWORD>(E_INVALIDARG))
        return CRYPT_E_ASN1_CORRUPT;
    if (IsDataErrorCode(lastError))
        return static_cast<HRESULT>(lastError);
    return lastError == 0 ? E_FAIL : HResultFromWin32(static_cast<LONG>(lastError));
}

} // namespace nv
