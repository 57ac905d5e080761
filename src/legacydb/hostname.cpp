#include "legacydb/hostname.h"

#include "common/conversionscope.h"

CHostName::CHostName()
{
    using nv::CConversionScope;
    if (CConversionScope::FindName(CConversionScope::Name::Computer, &m_name))
        return;
    wchar_t name[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD cch = MAX_COMPUTERNAME_LENGTH + 1;
    if (::GetComputerNameW(name, &cch)) {
        m_name.assign(name, cch);
        CConversionScope::RememberName(CConversionScope::Name::Computer, m_name);
    }
}
