// The registry form of a GUID, "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" in upper case,
// as StringFromGUID2 writes it, but made here: it cannot fail. Paths of user keys are
// built from it, and a path built from a failed conversion names the parent key
// instead of the user's (reading nothing, or deleting every user's key).
#pragma once
#include <windows.h>
#include <string>

namespace nv {

inline std::wstring GuidText(const GUID& g)
{
    static const wchar_t kHex[] = L"0123456789ABCDEF";
    // Made in place, so that the one allocation is the string's at the end.
    wchar_t text[38];
    wchar_t* at = text;
    auto put = [&at](unsigned long long value, int digits) noexcept {
        for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4)
            *at++ = kHex[(value >> shift) & 0xF];
    };
    *at++ = L'{';
    put(g.Data1, 8);
    *at++ = L'-';
    put(g.Data2, 4);
    *at++ = L'-';
    put(g.Data3, 4);
    *at++ = L'-';
    put(g.Data4[0], 2);
    put(g.Data4[1], 2);
    *at++ = L'-';
    for (int i = 2; i < 8; ++i)
        put(g.Data4[i], 2);
    *at++ = L'}';
    return std::wstring(text, sizeof(text) / sizeof(text[0]));
}

} // namespace nv
