// The suite's command line tools (nvdbconv.exe, nvtrace.exe, nvdbgen.exe, ...) as
// tests start them: from the test folder, through the shared process runner, and
// what they print read back.
#pragma once
#include <windows.h>
#include <string>
#include <vector>

#include "support/json_reader.h"
#include "support/process_runner.h"

namespace nvtest {

// Starts the tool of the test folder with these arguments. Records a failure when
// it does not start or runs past the timeout.
ProcessRun RunTool(const std::wstring& exe, const std::wstring& args, DWORD timeoutMs = 300000);
// The same run with CR LF line ends made LF in both streams.
ProcessRun WithPlainLineEnds(ProcessRun run);
// The run itself, after checking that it exited with `exitCode` (a failure shows
// both streams).
ProcessRun ExitedWith(DWORD exitCode, ProcessRun run);
// Standard output as one JSON document; a failure is recorded when it does not parse.
JsonValue Json(const ProcessRun& run);

// How nvdbconv shows a call that answered S_OK: code, symbol and Wine's message.
inline const std::string kSucceeded = "0x00000000 S_OK \"Success.\"";

// "  label           value", as nvdbconv lays out its text rows.
std::string Row(const std::string& label, const std::string& value);
// The lines, each ended by '\n'.
std::string Joined(const std::vector<std::string>& lines);

// A trace file in the temporary folder whose name is the prefix and this process's id.
std::wstring TempTraceFile(const std::wstring& prefix);
// HKLM path of the reference store's class registration.
std::wstring StoreClassKey();

} // namespace nvtest
