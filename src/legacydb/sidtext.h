// Text form of a binary SID ("S-1-5-21-..."), as the template map and the callers of
// the extractor key users by it. A null or invalid SID gives the empty text.
#pragma once
#include <windows.h>
#include <string>

namespace LegacyNVDB2 {

std::wstring SidToText(PSID pSid);

} // namespace LegacyNVDB2
