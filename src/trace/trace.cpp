// The trace facility's process-wide state: settings refresh and reload, gating,
// timestamps and the record writers behind CTraceScope, Trace and TraceResult.
#include "trace/trace.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "common/regkey.h"
#include "trace/traceoutput.h"

namespace NVTraceNS {

namespace {

constexpr DWORD kRefreshIntervalMs = 30000;
constexpr unsigned kInitialFlags = kFlagInitialMarker | kFlagTracingOn;
constexpr DWORD kNameChars = 260;

// Read without the lock for the first gate test; written under it.
std::atomic<unsigned> g_flags{kInitialFlags};
std::atomic<DWORD> g_nextRefreshTick{0};
int g_verbosity = 0;
bool g_componentEnabled = true;
COutput* g_output = nullptr;
SYSTEMTIME g_lastTimestamp = {};
std::atomic<HMODULE> g_module{nullptr};

std::atomic<LocalTimeSource> g_localTimeSource{nullptr};
std::atomic<TickCountSource> g_tickCountSource{nullptr};
std::atomic<VersionSource> g_versionSource{nullptr};

} // namespace

CTraceLock::CTraceLock(COutput*& output) noexcept : m_output(output)
{
    ::InitializeCriticalSection(&m_cs);
    m_alive = true;
}

CTraceLock::~CTraceLock()
{
    g_nextRefreshTick.exchange(0);
    ::EnterCriticalSection(&m_cs);
    delete m_output;
    m_output = nullptr;
    m_alive = false;
    ::LeaveCriticalSection(&m_cs);
    ::DeleteCriticalSection(&m_cs);
}

bool CTraceLock::Enter() noexcept
{
    if (!m_alive)
        return false;
    ::EnterCriticalSection(&m_cs);
    return true;
}

void CTraceLock::Leave() noexcept { ::LeaveCriticalSection(&m_cs); }

namespace {

// Constructed before any other static object of the library (so static constructors
// and destructors elsewhere may trace) and destroyed after them.
__attribute__((init_priority(101))) CTraceLock g_lock(g_output);

class CLockHolder {
public:
    CLockHolder() noexcept : m_held(g_lock.Enter()) {}
    ~CLockHolder()
    {
        if (m_held)
            g_lock.Leave();
    }
    CLockHolder(const CLockHolder&) = delete;
    CLockHolder& operator=(const CLockHolder&) = delete;
    bool held() const noexcept { return m_held; }

private:
    bool m_held;
};

DWORD TickCount() noexcept
{
    TickCountSource source = g_tickCountSource.load();
    return source ? source() : ::GetTickCount();
}

bool TracingOn() noexcept { return (g_flags.load(std::memory_order_relaxed) & kFlagTracingOn) != 0; }

// Verbosity against the absolute level; widened so that INT_MIN has an absolute value.
bool LevelPasses(int level) noexcept
{
    long long magnitude = level;
    if (magnitude < 0)
        magnitude = -magnitude;
    return static_cast<long long>(g_verbosity) >= magnitude;
}

void WriteRecord(char kind, const char* text) noexcept
{
    NVTraceNS::WriteRecord(kind, text, text ? std::strlen(text) : 0);
}

// The 't' and 'T' records before each '>', '<', 'U' and 'E' record (under the lock).
void WriteTimestamps() noexcept
{
    SYSTEMTIME now = {};
    GetTraceLocalTime(&now);
    char text[32];
    if (now.wYear != g_lastTimestamp.wYear || now.wMonth != g_lastTimestamp.wMonth ||
        now.wDay != g_lastTimestamp.wDay) {
        std::snprintf(text, sizeof(text), "%02d/%02d/%02d", now.wMonth, now.wDay, now.wYear % 100);
        WriteRecord(kKindDate, text);
        std::snprintf(text, sizeof(text), "%02d:%02d:%02d.%03d", now.wHour, now.wMinute, now.wSecond,
                      now.wMilliseconds);
        WriteRecord(kKindTime, text);
    } else if (now.wHour != g_lastTimestamp.wHour || now.wMinute != g_lastTimestamp.wMinute ||
               now.wSecond != g_lastTimestamp.wSecond || now.wMilliseconds != g_lastTimestamp.wMilliseconds) {
        std::snprintf(text, sizeof(text), "%02d:%02d:%02d.%03d", now.wHour, now.wMinute, now.wSecond,
                      now.wMilliseconds);
        WriteRecord(kKindTime, text);
    }
    g_lastTimestamp = now;
}

// The flags word the registry asks for (0 when the Tracing key does not open).
unsigned ReadSettingsFlags() noexcept
{
    nv::unique_hkey key;
    if (OpenTracingKey(key.put()) != ERROR_SUCCESS)
        return 0;
    unsigned flags = 0;
    DWORD value = 0;
    if (nv::QueryDwordValue(key.get(), NVDBCONV_VALUE_TRACE_TO_FILE, &value) != ERROR_SUCCESS || value == 1)
        flags |= kFlagToFile;
    if (nv::QueryDwordValue(key.get(), NVDBCONV_VALUE_NEW_FILE_ALWAYS, &value) != ERROR_SUCCESS || value != 0)
        flags |= kFlagNewFileAlways;
    if (nv::QueryDwordValue(key.get(), NVDBCONV_VALUE_DO_TRACE, &value) == ERROR_SUCCESS && value != 0)
        flags |= kFlagTracingOn;
    if (nv::QueryDwordValue(key.get(), NVDBCONV_VALUE_DO_PROFILING, &value) == ERROR_SUCCESS && value != 0)
        flags |= kFlagProfiling;
    return flags;
}

// This library's file base name: the component name of the component lists.
void ComponentName(wchar_t (&name)[MAX_PATH]) noexcept
{
    name[0] = L'\0';
    wchar_t path[MAX_PATH];
    DWORD n = ::GetModuleFileNameW(GetTraceModuleHandle(), path, MAX_PATH);
    if (n == 0 || n >= MAX_PATH)
        return;
    wchar_t base[_MAX_FNAME];
    if (::_wsplitpath_s(path, nullptr, 0, nullptr, 0, base, _MAX_FNAME, nullptr, 0) == 0) {
        std::wcsncpy(name, base, MAX_PATH - 1);
        name[MAX_PATH - 1] = L'\0';
    }
}

// Walks the value names of one component list. forEach returns true to end the walk.
template <class Fn>
void WalkComponentList(HKEY tracing, const wchar_t* subkey, Fn forEach) noexcept
{
    nv::unique_hkey list;
    if (::RegOpenKeyExW(tracing, subkey, 0, KEY_READ, list.put()) != ERROR_SUCCESS)
        return;
    for (DWORD index = 0;; ++index) {
        wchar_t name[kNameChars];
        DWORD cch = kNameChars;
        LONG r = ::RegEnumValueW(list.get(), index, name, &cch, nullptr, nullptr, nullptr, nullptr);
        if (r == ERROR_INSUFFICIENT_BUFFER)
            continue;
        if (r != ERROR_SUCCESS)
            return;
        if (forEach(name))
            return;
    }
}

// A scope's enter or leave record, with the timestamps before it, when tracing is
// on and the scope's level passes.
void WriteScopeRecord(int level, char kind, const char* name) noexcept
{
    if (!TracingOn())
        return;
    CLockHolder lock;
    if (!lock.held())
        return;
    if (g_componentEnabled && LevelPasses(level)) {
        WriteTimestamps();
        WriteRecord(kind, name);
    }
}

} // namespace

CTraceScope::CTraceScope(const char* name, int level) noexcept : m_nLevel(level)
{
    // Name and level are kept whatever the gates say: Trace and the leave read them.
    const char* source = name ? name : "????";
    std::size_t n = std::strlen(source);
    if (n >= sizeof(m_szName))
        n = sizeof(m_szName) - 1;
    std::memcpy(m_szName, source, n);
    m_szName[n] = '\0';

    RefreshSettings();
    WriteScopeRecord(m_nLevel, kKindEnter, m_szName);
}

CTraceScope::~CTraceScope()
{
    WriteScopeRecord(m_nLevel, kKindLeave, nullptr);
}

void Trace(CTraceScope& scope, int /*reserved*/, const char* format, ...) noexcept
{
    const unsigned flags = g_flags.load(std::memory_order_relaxed);
    if (!(flags & kFlagTracingOn) || (flags & kFlagProfiling))
        return;
    CLockHolder lock;
    if (!lock.held())
        return;
    if (!g_componentEnabled || !LevelPasses(scope.m_nLevel))
        return;
    char line[kLineChars];
    va_list args;
    va_start(args, format);
    const bool formatted = FormatTraceLine(line, format, args);
    va_end(args);
    if (!formatted)
        return;
    WriteTimestamps();
    WriteRecord(kKindLine, line);
}

void TraceResult(CTraceScope& /*scope*/, const char* text, HRESULT hr) noexcept
{
    if (!TracingOn())
        return;
    if (hr >= 0 && (static_cast<ULONG>(hr) & 0x1FFF0000u) != 0x00090000u)
        return;
    CLockHolder lock;
    if (!lock.held())
        return;
    char line[kResultTextSize];
    std::snprintf(line, sizeof(line), "%d %s", static_cast<int>(hr), text ? text : "");
    WriteTimestamps();
    WriteRecord(kKindResult, line);
}

bool FormatTraceLine(char (&out)[kLineChars], const char* format, va_list args) noexcept
{
    out[0] = '\0';
    if (!format || !*format)
        return true;
    wchar_t wide[kLineChars];
    // The narrow format in the thread's ANSI code page; one that does not fit is dropped.
    int n = ::MultiByteToWideChar(CP_THREAD_ACP, 0, format, -1, wide, static_cast<int>(kLineChars));
    if (n <= 0)
        return false;
    std::size_t length = static_cast<std::size_t>(n) - 1;

    // Narrow string and character conversions get an 'h' after their percent sign, so
    // that the wide formatter keeps reading their arguments as narrow. A literal "%%s"
    // is rewritten as well; it then prints "%hs".
    for (const wchar_t* conversion : {L"%s", L"%c"}) {
        for (;;) {
            wchar_t* hit = std::wcsstr(wide, conversion);
            if (!hit)
                break;
            if (length + 2 > kLineChars)
                return false;
            std::memmove(hit + 2, hit + 1, (length - static_cast<std::size_t>(hit + 1 - wide) + 1) * sizeof(wchar_t));
            hit[1] = L'h';
            ++length;
        }
    }

    // The system's wide formatter: %s and %c are wide, %hs and %hc narrow.
    wchar_t text[kLineChars];
    int written = ::_vsnwprintf(text, kLineChars, wide, args);
    if (written < 0 || static_cast<std::size_t>(written) >= kLineChars)
        text[kLineChars - 1] = L'\0';

    // To UTF-8, cut at a character boundary to fit 400 bytes with the NUL.
    char utf8[kLineChars * 3 + 1];
    int bytes = ::WideCharToMultiByte(CP_UTF8, 0, text, -1, utf8, sizeof(utf8), nullptr, nullptr);
    if (bytes <= 0)
        return true;
    std::size_t used = static_cast<std::size_t>(bytes) - 1;
    if (used > kLineChars - 1) {
        used = kLineChars - 1;
        while (used > 0 && (static_cast<unsigned char>(utf8[used]) & 0xC0) == 0x80)
            --used;
    }
    std::memcpy(out, utf8, used);
    out[used] = '\0';
    out[kLineChars - 1] = '\0';
    return true;
}

void WriteRecord(char kind, const char* text, std::size_t length) noexcept
{
    COutput* output = GetOutput();
    if (!output)
        return;
    if (length > kMaxRecordText)
        length = kMaxRecordText;
    std::uint8_t record[kRecordHeadSize + kMaxRecordText];
    const DWORD thread = ::GetCurrentThreadId();
    record[0] = static_cast<std::uint8_t>(thread);
    record[1] = static_cast<std::uint8_t>(thread >> 8);
    record[2] = static_cast<std::uint8_t>(thread >> 16);
    record[3] = static_cast<std::uint8_t>(thread >> 24);
    record[4] = static_cast<std::uint8_t>(kind);
    record[5] = static_cast<std::uint8_t>(length);
    record[6] = static_cast<std::uint8_t>(length >> 8);
    if (length)
        std::memcpy(record + kRecordHeadSize, text, length);
    output->Write(record, kRecordHeadSize + length);
}

COutput* GetOutput() noexcept
{
    if (g_output)
        return g_output;
    bool toFile = false;
    {
        nv::unique_hkey key;
        DWORD value = 0;
        if (OpenTracingKey(key.put()) == ERROR_SUCCESS &&
            nv::QueryDwordValue(key.get(), NVDBCONV_VALUE_DO_TRACE, &value) == ERROR_SUCCESS && value != 0) {
            toFile = nv::QueryDwordValue(key.get(), NVDBCONV_VALUE_TRACE_TO_FILE, &value) != ERROR_SUCCESS || value == 1;
        }
    }
    if (toFile)
        g_output = new (std::nothrow) CFileOutput();
    else
        g_output = new (std::nothrow) CNoOutput();
    return g_output;
}

void SetModuleHandle(HMODULE module) noexcept { g_module.store(module); }

HMODULE GetTraceModuleHandle() noexcept
{
    HMODULE module = g_module.load();
    return module ? module : ::GetModuleHandleW(nullptr);
}

namespace {
// Set once by a tool that links this code beside the loaded library.
std::atomic<bool> g_silenced{false};
} // namespace

void SilenceInThisProcess() noexcept
{
    g_silenced.store(true);
    g_flags.store(0);
}

void RefreshSettings() noexcept
{
    if (g_silenced.load())
        return;
    const DWORD tick = TickCount();
    if (tick <= g_nextRefreshTick.load())
        return;
    const unsigned flags = ReadSettingsFlags();
    if (flags != g_flags.load()) {
        CLockHolder lock;
        if (lock.held()) {
            g_nextRefreshTick.store(0);
            LoadSettings(flags);
        }
    }
    g_nextRefreshTick.exchange(tick + kRefreshIntervalMs);
}

void LoadSettings(unsigned flags) noexcept
{
    wchar_t component[MAX_PATH];
    ComponentName(component);
    g_flags.store(flags);

    nv::unique_hkey key;
    if (OpenTracingKey(key.put()) == ERROR_SUCCESS) {
        DWORD verbosity = 0;
        if (nv::QueryDwordValue(key.get(), NVDBCONV_VALUE_VERBOSITY, &verbosity) != ERROR_SUCCESS)
            verbosity = 0;
        g_verbosity = static_cast<int>(verbosity);
    }
    g_componentEnabled = true;
    if (!key)
        return;
    WalkComponentList(key.get(), NVDBCONV_VALUE_COMPONENTS_NOT, [&](const wchar_t* name) {
        if (::_wcsicmp(name, component) == 0) {
            g_componentEnabled = false;
            return true;
        }
        return false;
    });
    // Applied last, so a component named in both lists is traced.
    WalkComponentList(key.get(), NVDBCONV_VALUE_COMPONENTS, [&](const wchar_t* name) {
        g_componentEnabled = false;
        if (::_wcsicmp(name, component) == 0) {
            g_componentEnabled = true;
            return true;
        }
        return false;
    });
}

void ResetForTesting() noexcept
{
    CLockHolder lock;
    if (!lock.held())
        return;
    delete g_output;
    g_output = nullptr;
    g_flags.store(kInitialFlags);
    g_verbosity = 0;
    g_componentEnabled = true;
    g_nextRefreshTick.store(0);
    g_lastTimestamp = SYSTEMTIME{};
}

void SetLocalTimeSourceForTesting(LocalTimeSource source) noexcept { g_localTimeSource.store(source); }
void SetTickCountSourceForTesting(TickCountSource source) noexcept { g_tickCountSource.store(source); }
void SetVersionSourceForTesting(VersionSource source) noexcept { g_versionSource.store(source); }

void GetTraceLocalTime(SYSTEMTIME* time) noexcept
{
    LocalTimeSource source = g_localTimeSource.load();
    if (source)
        source(time);
    else
        ::GetLocalTime(time);
}

BOOL GetTraceVersion(OSVERSIONINFOEXA* info) noexcept
{
    VersionSource source = g_versionSource.load();
    if (source)
        return source(info);
    info->dwOSVersionInfoSize = sizeof(*info);
    return ::GetVersionExA(reinterpret_cast<OSVERSIONINFOA*>(info));
}

} // namespace NVTraceNS
