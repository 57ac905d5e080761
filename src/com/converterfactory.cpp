#include "com/converterfactory.h"

#include <new>

#include "common/regkey.h"
#include "converter2/converter2.h"
#include "converter3/converter3.h"
#include "frame/baseconverter.h"
#include "frame/paths.h"
#include "trace/trace.h"

namespace nvframe {

// One line per converter kind. A kind whose converter is not built yet has no
// creation function and yields no converter.
const ConverterKind g_converterKinds[] = {
    {1, "Using CConverter2", &NewConverter<CConverter2>, nullptr},
    {2, "Using CConverter3", &NewConverter<CConverter3>, nullptr},
    {3, "Using CConverter3", &NewConverter<CConverter3>, &DatabaseStillHoldsMainDB},
};
const std::size_t g_converterKindCount = sizeof(g_converterKinds) / sizeof(g_converterKinds[0]);

bool DatabaseStillHoldsMainDB()
{
    nv::CNVRegKey mainDb;
    return mainDb.Open(HKEY_LOCAL_MACHINE, kMainDBKeyPath, KEY_READ | KEY_WOW64_32KEY) == ERROR_SUCCESS;
}

CBaseConverter* CreateConverterFrom(const ConverterKind* kinds, std::size_t count, DWORD dwVersion)
{
    NVTraceNS::CTraceScope scope("CBaseConverter::CreateConverter", 0);
    const WORD major = static_cast<WORD>((dwVersion >> 16) & 0xFFFF);
    for (std::size_t i = 0; i < count; ++i) {
        const ConverterKind& kind = kinds[i];
        if (kind.major != major || kind.create == nullptr)
            continue;
        if (kind.applies && !kind.applies())
            continue;
        NVTraceNS::Trace(scope, 0, "%s", kind.traceLine);
        return kind.create();
    }
    NVTraceNS::Trace(scope, 0, "Returning NULL");
    return nullptr;
}

} // namespace nvframe

CBaseConverter* CBaseConverter::CreateConverter(DWORD dwVersion, nv::CNVRegKey& /*key*/)
{
    return nvframe::CreateConverterFrom(nvframe::g_converterKinds, nvframe::g_converterKindCount, dwVersion);
}
