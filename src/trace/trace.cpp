// Placeholder until the trace facility lands: every gate closed.
#include "trace/trace.h"
#include <cstring>

namespace NVTraceNS {
namespace { HMODULE g_module = nullptr; }
CTraceScope::CTraceScope(const char* name, int level) noexcept : m_nLevel(level)
{
    std::strncpy(m_szName, name ? name : "????", sizeof(m_szName) - 1);
    m_szName[sizeof(m_szName) - 1] = '\0';
}
CTraceScope::~CTraceScope() = default;
void Trace(CTraceScope&, int, const char*, ...) noexcept {}
void TraceResult(CTraceScope&, const char*, HRESULT) noexcept {}
void SetModuleHandle(HMODULE module) noexcept { g_module = module; }
HMODULE GetTraceModuleHandle() noexcept { return g_module; }
void RefreshSettings() noexcept {}
void LoadSettings(unsigned) noexcept {}
void ResetForTesting() noexcept {}
}
