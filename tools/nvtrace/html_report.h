// The trace as one self-contained page for a support engineer: the verdict, the
// users of a 2.0 -> 3.0 conversion (failures first), every failing result with its
// scope path, and a timeline of the scopes per process and thread with the failures
// marked. The page loads nothing (no script, font, style sheet or image from
// elsewhere; its content security policy forbids it) and shows every piece of trace
// text escaped: a trace is input from an unknown machine.
#pragma once
#include <iosfwd>
#include <string>

#include "decoder.h"
#include "summary.h"
#include "timeline.h"

namespace nvtrace {

// `name` is what the page calls the file (its path as given).
void WriteHtmlReport(const DecodedTrace& trace, const TraceSummary& summary, const Timeline& timeline,
                     const std::string& name, std::ostream& out);

// The page's verdict section: whether the conversions in the trace succeeded, and
// the facts it rests on.
void WriteVerdictSection(const TraceSummary& summary, const Timeline& timeline, std::ostream& out);

// Text for HTML content and attribute values: markup characters as entities,
// control characters as \xNN, bytes that are no UTF-8 as U+FFFD.
std::string HtmlEscape(const std::string& text);

} // namespace nvtrace
