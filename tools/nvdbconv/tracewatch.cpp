#include "tracewatch.h"

#include "common/handles.h"
#include "common/regkey.h"
#include "trace/tracefilecheck.h"

namespace nvdbconv {

namespace {

std::wstring BaseNameOf(const std::wstring& path)
{
    std::wstring name = path.substr(path.find_last_of(L"\\/") + 1);
    const size_t dot = name.rfind(L'.');
    return dot == std::wstring::npos ? name : name.substr(0, dot);
}

bool SameName(const std::wstring& a, const std::wstring& b)
{
    return ::CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(), static_cast<int>(b.size()),
                                  TRUE) == CSTR_EQUAL;
}

// The value names of HKLM\SOFTWARE\Norvane\Tracing\<list> in the settings' view,
// up to the first that cannot be read, as the library walks them.
std::vector<std::wstring> ComponentList(REGSAM view, const wchar_t* list)
{
    std::vector<std::wstring> names;
    nv::CNVRegKey key;
    const std::wstring path = std::wstring(kTracingPath) + L"\\" + list;
    if (key.Open(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ | (view & KEY_WOW64_32KEY)) != ERROR_SUCCESS)
        return names;
    for (DWORD i = 0;; ++i) {
        wchar_t name[261];
        DWORD cch = 261;
        if (::RegEnumValueW(key, i, name, &cch, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        names.emplace_back(name, cch);
    }
    return names;
}

const char* ReasonText(NVTraceNS::TraceFileVerdict verdict)
{
    switch (verdict) {
    case NVTraceNS::TraceFileVerdict::NotALocalPath:
        return "it is not on a local drive";
    case NVTraceNS::TraceFileVerdict::Redirected:
        return "a link on its path leads elsewhere";
    case NVTraceNS::TraceFileVerdict::ReparsePoint:
        return "it is a link";
    case NVTraceNS::TraceFileVerdict::HardLinked:
        return "it has a second name";
    case NVTraceNS::TraceFileVerdict::ForeignOwner:
        return "another account owns it";
    default:
        return nullptr;
    }
}

} // namespace

CTraceFileWatch::CTraceFileWatch(const std::wstring& dllPath)
{
    const TraceSettings settings = ReadTraceSettings();
    m_due = FileDue(settings, BaseNameOf(dllPath));
    if (!m_due)
        return;
    m_path = TraceFileFor(settings, dllPath);
    m_before = StateOf(m_path);
}

std::optional<TraceRefusal> CTraceFileWatch::Refusal() const
{
    if (!m_due)
        return std::nullopt;
    const FileState after = StateOf(m_path);
    const bool written = after.exists && (!m_before.exists || after.size != m_before.size ||
                                          ::CompareFileTime(&after.written, &m_before.written) != 0);
    if (written)
        return std::nullopt;
    const char* reason = ReasonText(NVTraceNS::ProbeTraceFile(m_path.c_str()));
    if (!reason)
        return std::nullopt;
    return TraceRefusal{m_path, reason};
}

bool CTraceFileWatch::FileDue(const TraceSettings& settings, const std::wstring& component)
{
    if (!settings.keyFound || !settings.on() || !settings.toFile())
        return false;
    if (static_cast<LONG>(settings.verbosity.value_or(0)) < 0)
        return false; // no level reaches a negative verbosity
    bool enabled = true;
    for (const std::wstring& name : ComponentList(settings.keyView, L"ComponentsNOT")) {
        if (SameName(name, component)) {
            enabled = false;
            break;
        }
    }
    for (const std::wstring& name : ComponentList(settings.keyView, L"Components")) {
        enabled = SameName(name, component);
        if (enabled)
            break;
    }
    return enabled;
}

bool TruncatesOnLoad(const TraceSettings& settings, const std::wstring& dllPath)
{
    return !settings.append() && CTraceFileWatch::FileDue(settings, BaseNameOf(dllPath));
}

CTraceFileWatch::FileState CTraceFileWatch::StateOf(const std::wstring& path)
{
    FileState state;
    // As the library's own checks: a share is not even looked at (that would reach
    // its server with this elevated process's credentials), nor is a link followed.
    if (!NVTraceNS::IsLocalTracePath(path.c_str()))
        return state;
    nv::unique_hfile file(::CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                        FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    BY_HANDLE_FILE_INFORMATION info = {};
    if (!file || !::GetFileInformationByHandle(file.get(), &info))
        return state;
    state.exists = true;
    state.size = (static_cast<ULONGLONG>(info.nFileSizeHigh) << 32) | info.nFileSizeLow;
    state.written = info.ftLastWriteTime;
    return state;
}

} // namespace nvdbconv
