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
    std::wstring text;
    text.reserve(38);
    auto put = [&](unsigned long long value, int digits) {
        for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4)
            text += kHex[(value >> shift) & 0xF];
    };
    text += L'{';
    put(g.Data1, 8);
    text += L'-';
    put(g.Data2, 4);
    text += L'-';
    put(g.Data3, 4);
    text += L'-';
    put(g.Data4[0], 2);
    put(g.Data4[1], 2);
    text += L'-';
    for (int i = 2; i < 8; ++i)
        put(g.Data4[i], 2);
    text += L'}';
    return text;
}

} // namespace nv
