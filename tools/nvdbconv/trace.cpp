// nvdbconv trace on|off|show: the library's trace settings.
#include "command_support.h"

#include <nlohmann/json.hpp>

#include "result_codes.h"

namespace nvdbconv {

int Trace(const Options& o, Printer& out, const std::wstring& dllPath)
{
    Header(out, "trace");
    HRESULT hr = S_OK;
    if (!o.traceShow) {
        TraceChange change;
        change.on = o.traceOn;
        change.verbosity = o.verbosity;
        change.fileName = o.file;
        // The format's default starts the file anew in every process that loads the
        // library, so each command would wipe the trace of the one before (upgrade's
        // steps included): a trace asked for here appends unless told otherwise.
        change.newFileAlways = o.traceOn ? std::optional<DWORD>(o.newFileAlways.value_or(0)) : o.newFileAlways;
        hr = WriteTraceSettings(change);
        out.Row("settings", std::string(o.traceOn ? "on" : "off") + ": " + DescribeResult(hr));
        out.json["on"] = o.traceOn;
        out.json["write"] = ResultJson(hr);
    }
    const TraceSettings now = ReadTraceSettings();
    ShowTrace(out, now, dllPath);
    WarnIfTraceTruncates(out, now, dllPath);
    out.json["trace"] = TraceJson(now, dllPath);
    if (FAILED(hr))
        out.Problem("writing HKLM\\SOFTWARE\\Norvane\\Tracing failed: " + DescribeResult(hr));
    return Finish(out, SUCCEEDED(hr) ? kExitOk : kExitFailed);
}

} // namespace nvdbconv
