#include "common/regkey.h"

#include <cwchar>
#include <vector>

#include "common/conversionscope.h"

namespace nv {

REGSAM ViewFlagsFrom(HKEY root, REGSAM view) noexcept
{
    // Predefined keys are the sign-extended values 0x80000000 to 0x80000060.
    const auto value = static_cast<LONG_PTR>(reinterpret_cast<ULONG_PTR>(root));
    const bool predefined = value >= static_cast<LONG>(0x80000000) && value <= static_cast<LONG>(0x80000060);
    return predefined ? view : (view & ~(KEY_WOW64_32KEY | KEY_WOW64_64KEY));
}

LONG CNVRegKey::Open(HKEY root, const wchar_t* path, REGSAM access) noexcept
{
    HKEY h = nullptr;
    LONG r = CConversionScope::OpenKey(root, path, access, &h);
    if (r == ERROR_SUCCESS)
        m_key.reset(h);
    return r;
}

LONG CNVRegKey::Create(HKEY root, const wchar_t* path, REGSAM access, LPSECURITY_ATTRIBUTES sa,
                       DWORD* disposition) noexcept
{
    HKEY h = nullptr;
    LONG r = CreateKey(root, path, access, &h, sa, disposition);
    if (r == ERROR_SUCCESS)
        m_key.reset(h);
    return r;
}

void CNVRegKey::Close() noexcept
{
    m_key.reset();
}

HKEY CNVRegKey::Detach() noexcept
{
    return m_key.release();
}

LONG CreateKey(HKEY root, const wchar_t* path, REGSAM access, HKEY* out, LPSECURITY_ATTRIBUTES sa,
               DWORD* disposition) noexcept
{
    return ::RegCreateKeyExW(root, path, 0, nullptr, REG_OPTION_NON_VOLATILE, access, sa, out, disposition);
}

LONG QueryStringValue(HKEY key, const wchar_t* name, wchar_t* buffer, ULONG* pcch) noexcept
{
    if (!pcch)
        return ERROR_INVALID_PARAMETER;
    DWORD type = 0;
    DWORD cb = *pcch * sizeof(wchar_t);
    LONG r = ::RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(buffer), &cb);
    if (r == ERROR_MORE_DATA || (r == ERROR_SUCCESS && buffer == nullptr)) {
        // An empty body reads as "": it needs one character, its terminator.
        *pcch = cb ? cb / sizeof(wchar_t) : 1;
        return (type == REG_SZ || type == REG_EXPAND_SZ) ? ERROR_MORE_DATA : ERROR_INVALID_DATA;
    }
    if (r != ERROR_SUCCESS)
        return r;
    if (type != REG_SZ && type != REG_EXPAND_SZ)
        return ERROR_INVALID_DATA;
    if (cb == 0) {
        if (*pcch == 0) {
            *pcch = 1;
            return ERROR_MORE_DATA;
        }
        buffer[0] = L'\0';
        *pcch = 1;
        return ERROR_SUCCESS;
    }
    if (cb % sizeof(wchar_t) != 0 || buffer[cb / sizeof(wchar_t) - 1] != L'\0')
        return ERROR_INVALID_DATA;
    *pcch = cb / sizeof(wchar_t);
    return ERROR_SUCCESS;
}

LONG QueryStringValue(HKEY key, const wchar_t* name, std::wstring& out, ULONG maxChars)
{
    std::vector<wchar_t> buf(maxChars ? maxChars : 1);
    ULONG cch = maxChars;
    LONG r = QueryStringValue(key, name, buf.data(), &cch);
    if (r == ERROR_SUCCESS)
        out.assign(buf.data());
    return r;
}

LONG SetStringValue(HKEY key, const wchar_t* name, const wchar_t* value, DWORD type) noexcept
{
    const wchar_t* v = value ? value : L"";
    DWORD cb = static_cast<DWORD>((::wcslen(v) + 1) * sizeof(wchar_t));
    return ::RegSetValueExW(key, name, 0, type, reinterpret_cast<const BYTE*>(v), cb);
}

LONG QueryDwordValue(HKEY key, const wchar_t* name, DWORD* value) noexcept
{
    DWORD type = 0, data = 0, cb = sizeof(data);
    LONG r = ::RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(&data), &cb);
    if (r == ERROR_MORE_DATA)
        return ERROR_INVALID_DATA;
    if (r != ERROR_SUCCESS)
        return r;
    if (type != REG_DWORD || cb != sizeof(DWORD))
        return ERROR_INVALID_DATA;
    *value = data;
    return ERROR_SUCCESS;
}

} // namespace nv
