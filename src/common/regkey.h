// CNVRegKey: the registry key owner. It holds one key handle and a view-flags word
// (0, KEY_WOW64_32KEY or KEY_WOW64_64KEY) that its owner sets and reads; opening does
// not change that word. Opening through it closes the handle it held before; it
// closes itself at the end of its scope. Calls return Win32 codes, as the registry
// does; callers decide what is an error.
#pragma once
#include <windows.h>
#include <nvdbconv/nvdbconv.h>
#include <string>
#include "common/handles.h"

namespace nv {

// Registry paths of the suite, relative to HKEY_LOCAL_MACHINE.
inline constexpr const wchar_t kVendorKeyPath[] = NVDBCONV_KEY_VENDOR;
inline constexpr const wchar_t kDatabaseKeyPath[] = NVDBCONV_KEY_DATABASE;

class CNVRegKey {
public:
    CNVRegKey() noexcept = default;
    CNVRegKey(const CNVRegKey&) = delete;
    CNVRegKey& operator=(const CNVRegKey&) = delete;

    LONG Open(HKEY root, const wchar_t* path, REGSAM access) noexcept;
    LONG Create(HKEY root, const wchar_t* path, REGSAM access, LPSECURITY_ATTRIBUTES sa = nullptr,
                DWORD* disposition = nullptr) noexcept;
    void Close() noexcept;
    HKEY Detach() noexcept;

    HKEY Get() const noexcept { return m_key.get(); }
    operator HKEY() const noexcept { return m_key.get(); }

    // View flags the owner works with (set by the owner, never by Open/Create).
    REGSAM m_samWOW64 = 0;

private:
    unique_hkey m_key;
};

// The view flags that an open or delete relative to `root` needs. A view flag
// redirects only where a path crosses the redirected SOFTWARE key, which a path can
// do only from a predefined root (HKEY_LOCAL_MACHINE and its kind): there the flags
// are kept. A key handle the library opened itself lies below SOFTWARE, in the view
// it was opened in, and the flag selects nothing more; under Wine it still costs a
// walk of the path with a probe for a nested Wow6432Node at every part of it, so from
// such a handle the flags are dropped.
REGSAM ViewFlagsFrom(HKEY root, REGSAM view) noexcept;

// Key-creation helper: RegCreateKeyExW with no class, non-volatile options.
LONG CreateKey(HKEY root, const wchar_t* path, REGSAM access, HKEY* out,
               LPSECURITY_ATTRIBUTES sa = nullptr, DWORD* disposition = nullptr) noexcept;

// String value reader. Accepts only REG_SZ and REG_EXPAND_SZ whose body is an even
// number of bytes ending in a NUL character (an empty body counts as ""); anything
// else is ERROR_INVALID_DATA (13). *pcch is the buffer's capacity in characters on
// entry and the length read, terminator included, on success. A buffer that is too
// small gives ERROR_MORE_DATA with the needed size in *pcch.
LONG QueryStringValue(HKEY key, const wchar_t* name, wchar_t* buffer, ULONG* pcch) noexcept;

// Convenience form of the reader for callers that want a std::wstring; same rules,
// the buffer limit given in characters.
LONG QueryStringValue(HKEY key, const wchar_t* name, std::wstring& out, ULONG maxChars = 260);

// String value writer: REG_SZ (or the given type) of (length + 1) x 2 bytes.
LONG SetStringValue(HKEY key, const wchar_t* name, const wchar_t* value, DWORD type = REG_SZ) noexcept;

// REG_DWORD reader: fails with ERROR_INVALID_DATA for any other type or size.
LONG QueryDwordValue(HKEY key, const wchar_t* name, DWORD* value) noexcept;

// REG_BINARY reader with as few queries as it takes: the first one offers the buffer
// as it comes (kFirstBinaryReadBytes when it comes empty), and only a larger value is
// read again after the buffer took the size the first query reported. On success the
// buffer holds exactly the value's bytes. Any other type is ERROR_INVALID_DATA,
// whichever query saw it; other failures are the query's own code. Buffer: a
// byte vector or anything with resize, data and size.
inline constexpr DWORD kFirstBinaryReadBytes = 4096;
template <class Buffer>
LONG QueryBinaryValue(HKEY key, const wchar_t* name, Buffer& buffer)
{
    if (buffer.size() == 0)
        buffer.resize(kFirstBinaryReadBytes);
    DWORD type = REG_NONE;
    DWORD cb = static_cast<DWORD>(buffer.size());
    LONG r = ::RegQueryValueExW(key, name, nullptr, &type, buffer.data(), &cb);
    if ((r == ERROR_SUCCESS || r == ERROR_MORE_DATA) && type != REG_BINARY)
        return ERROR_INVALID_DATA;
    if (r == ERROR_MORE_DATA) {
        buffer.resize(cb);
        r = ::RegQueryValueExW(key, name, nullptr, &type, buffer.data(), &cb);
        if (r == ERROR_SUCCESS && type != REG_BINARY)
            return ERROR_INVALID_DATA;
    }
    if (r == ERROR_SUCCESS)
        buffer.resize(cb);
    return r;
}

} // namespace nv
