// The nvtrace command line: options, one trace in full or many in a roll-up.
#pragma once
#include <iosfwd>
#include <string>
#include <vector>

namespace nvtrace {

// The command line tool: nvtrace [--raw | --summary | --json] [--thread N] FILE, or
// nvtrace [--summary | --json | --csv] FILE|FOLDER... for a roll-up (rollup.h)
// (summary.h has the summary and the JSON lines). Returns the exit code:
// 0 decoded, 1 usage, 2 file unreadable or output not written (standard output
// or an output file), 3 truncated or corrupt file.
int RunCli(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

} // namespace nvtrace
