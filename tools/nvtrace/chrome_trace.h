// The timeline as a Trace Event Format file (JSON), which chrome://tracing and
// Perfetto open: one complete event ("X") per scope, instant events ("i") for
// failing results and progress lines, and the names of processes and threads
// ("M"). Processes are numbered as in the file (1 for the first), threads keep
// their ids; times are microseconds after the trace's first clock reading.
#pragma once
#include <iosfwd>

#include "decoder.h"
#include "timeline.h"

namespace nvtrace {

void WriteChromeTrace(const DecodedTrace& trace, const Timeline& timeline, std::ostream& out);

} // namespace nvtrace
