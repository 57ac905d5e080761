// nvtrace's file outputs, --chrome-trace and --html: both drawn from one timeline
// of the (possibly thread-filtered) trace.
#pragma once
#include <iosfwd>
#include <string>

#include "decoder.h"

namespace nvtrace {

struct TimelineOutputs {
    std::string chromeTrace; // path of the trace event file, "-" for standard output, empty for none
    std::string html;        // path of the page, "-" for standard output, empty for none
    bool any() const { return !chromeTrace.empty() || !html.empty(); }
};

struct TraceSummary;

// Writes the outputs asked for; `summary` is the trace's own (Summarize(trace)),
// `name` the trace file as the user named it. Each file written is reported in one
// line, on `out`, or on `err` when an output goes to standard output. False (and a message on `err`) when an output cannot be written.
bool WriteTimelineOutputs(const DecodedTrace& trace, const TraceSummary& summary, const TimelineOutputs& outputs,
                          const std::string& name, std::ostream& out, std::ostream& err);

} // namespace nvtrace
