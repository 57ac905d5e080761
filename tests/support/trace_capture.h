// Trace capture: points the trace settings at a temporary file and decodes what
// the code under test wrote there, so tests assert exact trace lines.
//
// Start() writes, under HKLM\SOFTWARE\Norvane\Tracing (native view): DoTrace = 1,
// TraceToFile = 1, NewFileAlways = 1, Verbosity (10 unless set) and FileName = a
// fresh temporary file; it also resets the trace state of this process
// (NVTraceNS::ResetForTesting), so that in-process code reads the new settings at
// its next scope. Destruction resets the state again (closing the file) and
// deletes the file. RegistrySandbox wipes HKLM\SOFTWARE\Norvane, so call Start()
// after the sandbox's SetUp (in the test body, or derive from TraceCaptureTest).
//
// In-process (unit tests of nvcore):
//     TEST_F(FooTest, Bar) {            // FooTest derives from RegistrySandbox
//         nvtest::TraceCapture trace;
//         trace.Start();
//         ... run the code ...
//         EXPECT_EQ((std::vector<std::string>{"> CFoo::Bar", "U opened 2 keys",
//                                             "E -2147024894 ", "<"}),
//                   trace.Lines());
//     }
//
// The real DLL (nvtest::LoadedLibrary) has its own trace state, read when its first
// scope runs: Start() before the library is loaded. Its records reach the file as
// they are written; the file is complete at the latest when the library is freed.
//     nvtest::TraceCapture trace;
//     trace.Start();
//     {
//         nvtest::LoadedLibrary dll;
//         EXPECT_EQ(E_FAIL, dll.Convert());
//     }
//     EXPECT_TRUE(trace.Contains("> CDBConverter::FinalConstruct"));
//     EXPECT_EQ(1u, trace.Count("U Returning NULL"));
//
// Lines() is every body record except the timestamps ('t', 'T') and the reopen
// separator ('N'), in file order, as text:
//     "> name"   scope entered
//     "<"        scope left
//     "U text"   progress line
//     "E text"   result: the code in signed decimal, a blank and the text, so
//                TraceReturn(scope, 0x80070002) shows as "E -2147024894 "
// Every query reads the file afresh, so it can be asked at any point. A file that
// cannot be decoded is a test failure (ADD_FAILURE naming the byte offset); the
// records before the damage are still returned.
#pragma once
#include <windows.h>
#include <gtest/gtest.h>
#include <cstdint>
#include <string>
#include <vector>

#include "nvtracelib.h"
#include "support/registry_sandbox.h"

namespace nvtest {

class TraceCapture {
public:
    TraceCapture();
    ~TraceCapture();
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    // Writes the settings (verbosity as given) and resets this process's trace state.
    void Start(DWORD verbosity = 10);
    // Changes the Verbosity value and resets this process's trace state.
    void SetVerbosity(DWORD verbosity);
    // Forgets this process's trace state (closing its file); the DLL's is its own.
    static void ResetInProcess();

    const std::wstring& path() const { return m_path; }
    bool FileExists() const;
    std::vector<std::uint8_t> Bytes() const;

    // The decoded file (header, records, and where decoding stopped if it did).
    nvtrace::DecodedTrace Decode() const;
    std::vector<nvtrace::Record> Records() const;
    // Header lines without CR LF: "trace3", "Compiled: ...", ..., ".".
    std::vector<std::string> HeaderLines() const;
    // The body records other than 't', 'T' and 'N', as "> name", "<", "U text", "E text".
    std::vector<std::string> Lines() const;
    // Every body record as "<kind> <text>" ("<" alone for a leave), timestamps included.
    std::vector<std::string> AllLines() const;

    bool Contains(const std::string& line) const;
    std::size_t Count(const std::string& line) const;
    // The lines between the n-th (0-based) "> scope" and the "<" that closes it on
    // the same thread, nested scopes included, the enter and leave themselves not.
    // Empty when there is no such scope.
    std::vector<std::string> LinesInScope(const std::string& scope, std::size_t occurrence = 0) const;
    // The lines a given thread wrote.
    std::vector<std::string> LinesOfThread(std::uint32_t thread) const;

    // The listing nvtrace would print, for failure messages: << trace.Dump().
    std::string Dump() const;

private:
    std::wstring m_path;
};

// Decoded trace lines, as the tests spell out what they expect.
using Lines = std::vector<std::string>;

// A RegistrySandbox whose tests trace into `trace` (started at verbosity 10).
class TraceCaptureTest : public RegistrySandbox {
protected:
    void SetUp() override;
    void TearDown() override;
    TraceCapture trace;
};

} // namespace nvtest
