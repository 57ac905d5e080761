#include "legacydb/sidtext.h"

#include <sddl.h>
#include "common/handles.h"

namespace LegacyNVDB2 {

std::wstring SidToText(PSID pSid)
{
    if (!pSid || !::IsValidSid(pSid))
        return {};
    LPWSTR text = nullptr;
    if (!::ConvertSidToStringSidW(pSid, &text))
        return {};
    nv::unique_hlocal owner(text);
    return std::wstring(text);
}

} // namespace LegacyNVDB2
