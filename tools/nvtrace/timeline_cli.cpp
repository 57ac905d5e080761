#include "timeline_cli.h"

#include <fstream>
#include <functional>
#include <ostream>

#include "counted.h"
#include "chrome_trace.h"
#include "html_report.h"
#include "summary.h"
#include "timeline.h"

namespace nvtrace {

namespace {

// Writes one output; `status` takes the line that says so (standard error while
// standard output carries the other output).
bool WriteTo(const std::string& path, const std::function<void(std::ostream&)>& write, const std::string& what,
             std::ostream& out, std::ostream& status, std::ostream& err)
{
    if (path == "-") {
        write(out);
        return true;
    }
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (file)
        write(file);
    file.close();
    if (!file) {
        err << "nvtrace: cannot write '" << Printable(path) << "'\n";
        return false;
    }
    status << "wrote " << Printable(path) << ": " << what << '\n';
    return true;
}

} // namespace

bool WriteTimelineOutputs(const DecodedTrace& trace, const TraceSummary& summary, const TimelineOutputs& outputs,
                          const std::string& name, std::ostream& out, std::ostream& err)
{
    const Timeline timeline = BuildTimeline(trace, summary);
    const std::size_t failures = FailingResults(summary); // as many as the timeline marks where they arose
    std::size_t unfinished = 0;
    for (const TimelineScope& s : timeline.scopes)
        unfinished += s.unfinished;
    const std::string what = Counted(timeline.processes.size(), "process", "processes") + ", " +
                             Counted(timeline.scopes.size(), "scope") + " (" + std::to_string(unfinished) +
                             " never left), " + Counted(failures, "failing result");
    std::ostream& status = outputs.html == "-" || outputs.chromeTrace == "-" ? err : out;
    bool ok = true;
    if (!outputs.chromeTrace.empty())
        ok = WriteTo(outputs.chromeTrace, [&](std::ostream& o) { WriteChromeTrace(trace, timeline, o); },
                     "trace events, " + what, out, status, err) && ok;
    if (!outputs.html.empty()) {
        ok = WriteTo(outputs.html, [&](std::ostream& o) { WriteHtmlReport(trace, summary, timeline, name, o); },
                     "page, " + what, out, status, err) && ok;
    }
    return ok;
}

} // namespace nvtrace
