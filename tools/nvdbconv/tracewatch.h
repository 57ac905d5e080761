// CTraceFileWatch: did the library refuse the trace file its settings name?
//
// Tracing never fails its caller, so a trace file the library refuses (reached
// through a link, with a second name, of another owner, on a network path) shows
// only as a file that was not written. The watch notes the file before the library
// is loaded and looks again afterwards: loading traces a level-0 scope
// (CDBConverter::FinalConstruct), so when the settings send that scope to a file
// and the file did not change, it was not written. The library's own check, run on
// the path without touching anything, then says whether it was refused and why; a
// file that merely could not be opened (a folder that does not exist) is no
// refusal.
#pragma once
#include <windows.h>
#include <optional>
#include <string>

#include "dbstate.h"

namespace nvdbconv {

struct TraceRefusal {
    std::wstring path;
    std::string reason; // "a link on its path leads elsewhere"
};

class CTraceFileWatch {
public:
    // Before the library at dllPath is loaded into this process.
    explicit CTraceFileWatch(const std::wstring& dllPath);

    // After the load: the refusal when the load should have written the trace file
    // and the library refused it; nothing otherwise.
    std::optional<TraceRefusal> Refusal() const;

    // Whether the settings send a level-0 scope of the library named component (its
    // file base name) to a file: tracing on, file output, verbosity not negative and
    // the component not switched off by ComponentsNOT or Components.
    static bool FileDue(const TraceSettings& settings, const std::wstring& component);

private:
    struct FileState {
        bool exists = false;
        ULONGLONG size = 0;
        FILETIME written = {};
    };
    static FileState StateOf(const std::wstring& path);

    bool m_due = false;
    std::wstring m_path;
    FileState m_before;
};

// Whether the next load of the library at dllPath would start its trace file anew:
// a file is due (CTraceFileWatch::FileDue) and NewFileAlways is not a DWORD of 0.
// Every process that loads the library then replaces the last one's trace.
bool TruncatesOnLoad(const TraceSettings& settings, const std::wstring& dllPath);

} // namespace nvdbconv
