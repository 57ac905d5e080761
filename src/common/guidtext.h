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
    // Made in a buffer of the text's fixed length and copied once.
    wchar_t text[38];
    size_t at = 0;
    auto put = [&](unsigned long long value, int digits) {
        for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4)
            text[at++] = kHex[(value >> shift) & 0xF];
    };
    text[at++] = L'{';
    put(g.Data1, 8);
    text[at++] = L'-';
    put(g.Data2, 4);
    text[at++] = L'-';
    put(g.Data3, 4);
    text[at++] = L'-';
    put(g.Data4[0], 2);
    put(g.Data4[1], 2);
    text[at++] = L'-';
    for (int i = 2; i < 8; ++i)
        put(g.Data4[i], 2);
    text[at++] = L'}';
    return std::wstring(text, at);
}

} // namespace nv
