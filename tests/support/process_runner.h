// Runs a program as its own process the way a user or an installer would start it,
// with standard input empty and standard output and error captured separately
// (into temporary files, so a chatty child never blocks on a full pipe).
#pragma once
#include <windows.h>
#include <string>

namespace nvtest {

struct ProcessRun {
    bool started = false;
    DWORD startError = 0; // GetLastError of a CreateProcessW that failed
    DWORD exitCode = 0xdeadbeef;
    bool timedOut = false;
    std::string out; // bytes as written
    std::string err;
};

// commandLine is passed to CreateProcessW as it stands (quote the program path).
// A child still running after timeoutMs is terminated and reported as timed out.
// A launch that Wine failed before the program ran (CreateProcessW answering
// ERROR_INTERNAL_ERROR, or the loader's STATUS_DLL_INIT_FAILED with not one byte
// written) is made again, up to three launches, and said so on standard error.
ProcessRun RunProcess(const std::wstring& commandLine, DWORD timeoutMs = 120000);
// The same with these bytes as standard input (a file the child reads from its start).
ProcessRun RunProcessWithInput(const std::wstring& commandLine, const std::string& input, DWORD timeoutMs = 120000);
// Standard input from `input`, or empty when it is null.
ProcessRun RunProcessWithInput(const std::wstring& commandLine, const std::string* input, DWORD timeoutMs);

// Quotes one argument for the command line of a program using the usual rules.
std::wstring QuoteArg(const std::wstring& arg);

// The text with every CR that stands before an LF dropped (CR LF line ends to LF).
std::string WithoutCarriageReturns(const std::string& text);

} // namespace nvtest
