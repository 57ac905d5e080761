#include "legacydb/hostname.h"

CHostName::CHostName()
{
    wchar_t name[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD cch = MAX_COMPUTERNAME_LENGTH + 1;
    if (::GetComputerNameW(name, &cch))
        m_name.assign(name, cch);
}
