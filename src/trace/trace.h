// The trace facility: scopes, progress lines and result records written to a
// scrambled binary trace file configured under HKLM\SOFTWARE\Norvane\Tracing.
//
// Tracing never fails its caller and never changes a result: every failure just
// drops output.
//
// Use:
//     NVTraceNS::CTraceScope scope("CBaseConverter::Backup", 0);
//     NVTraceNS::Trace(scope, 0, "restoring database from backup key %ls", path);
//     return NVTraceNS::TraceReturn(scope, hr);   // result record, then hr
#pragma once
#include <windows.h>

namespace NVTraceNS {

// Settings flags.
constexpr unsigned kFlagToFile = 0x04;
constexpr unsigned kFlagNewFileAlways = 0x08;
constexpr unsigned kFlagTracingOn = 0x20;
constexpr unsigned kFlagProfiling = 0x40;
constexpr unsigned kFlagInitialMarker = 0x80000000u;

// Level of chatty low-level scopes (record-set reads, cryptographic operations).
constexpr int kLevelVerbose = 10;

class CTraceScope {
public:
    CTraceScope(const char* name, int level) noexcept;
    ~CTraceScope();
    CTraceScope(const CTraceScope&) = delete;
    CTraceScope& operator=(const CTraceScope&) = delete;

    char m_szName[100];
    int m_nLevel;
};

// A progress line; narrow printf-style format, "%ls" for wide strings. The second
// argument is reserved (callers pass 0): the scope's level decides.
void Trace(CTraceScope& scope, int reserved, const char* format, ...) noexcept;

// Traces a result code: written when it is negative or its facility is 9.
void TraceResult(CTraceScope& scope, const char* text, HRESULT hr) noexcept;

// TraceResult with an empty text, then hands the code back: `return TraceReturn(scope, hr);`
inline HRESULT TraceReturn(CTraceScope& scope, HRESULT hr) noexcept
{
    TraceResult(scope, "", hr);
    return hr;
}

// The module whose name and directory the trace file is named after; the library's
// entry function sets it. Unset, the process's executable is used.
void SetModuleHandle(HMODULE module) noexcept;
HMODULE GetTraceModuleHandle() noexcept;

// For a tool that links the library's code and also loads the library itself
// (nvdbconv): tracing of this copy is off for the rest of the process, whatever the
// registry says, so that it never opens, truncates or appends to the trace file
// that the loaded library writes.
void SilenceInThisProcess() noexcept;

// Settings refresh and reload (the scope enter runs RefreshSettings).
void RefreshSettings() noexcept;
void LoadSettings(unsigned flags) noexcept;

// For tests and tools in the same process: forget the settings, the output object
// (closing its file), the last timestamp and the refresh tick, as a freshly loaded
// library would have them.
void ResetForTesting() noexcept;

// Test hooks: the sources of the local time (records, 'N' date, header), of the tick
// count (settings refresh) and of the operating system's version record (header).
// Null restores the system's own. Not for production callers.
using LocalTimeSource = void (*)(SYSTEMTIME* time);
using TickCountSource = DWORD (*)();
using VersionSource = BOOL (*)(OSVERSIONINFOEXA* info);
void SetLocalTimeSourceForTesting(LocalTimeSource source) noexcept;
void SetTickCountSourceForTesting(TickCountSource source) noexcept;
void SetVersionSourceForTesting(VersionSource source) noexcept;

} // namespace NVTraceNS
