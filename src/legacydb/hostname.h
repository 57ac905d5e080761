// CHostName: the computer's NetBIOS name, the name under which the machine's own
// user store is kept (MainDB). Read once at construction; an unreadable name is empty.
#pragma once
#include <windows.h>
#include <string>

class CHostName {
public:
    CHostName();

    const wchar_t* c_str() const noexcept { return m_name.c_str(); }
    const std::wstring& str() const noexcept { return m_name; }
    operator const wchar_t*() const noexcept { return m_name.c_str(); }

private:
    std::wstring m_name;
};
