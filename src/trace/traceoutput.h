// The trace facility's output side: the output objects, the trace file's path, the
// record scrambling and the plain-text header. trace.h is what the rest of the
// library uses; this header is for the facility itself and its tests.
#pragma once
#include <windows.h>
#include <nvdbconv/nvdbconv.h>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "trace/tracefilecheck.h"

namespace NVTraceNS {

// Sizes of the record format and of the line buffers.
constexpr std::size_t kRecordHeadSize = 7;     // thread id (4), kind (1), text length (2)
constexpr std::size_t kMaxRecordText = 400;    // the longest text any record carries
constexpr std::size_t kScopeNameSize = 100;
constexpr std::size_t kLineChars = 400;        // progress line: wide buffer and UTF-8 buffer
constexpr std::size_t kResultTextSize = 261;   // "%d %s"
constexpr std::size_t kHeaderLineSize = 261;   // header line buffer, NUL included
constexpr std::size_t kProductLineLimit = 260; // product lines are formatted into 260 bytes
constexpr std::size_t kTracePathChars = 260;

constexpr char kKindReopened = 'N';
constexpr char kKindDate = 't';
constexpr char kKindTime = 'T';
constexpr char kKindEnter = '>';
constexpr char kKindLeave = '<';
constexpr char kKindLine = 'U';
constexpr char kKindResult = 'E';

constexpr const wchar_t kTracingKeyPath[] = NVDBCONV_KEY_TRACING;
constexpr const char kProductsKeyPath[] = "SOFTWARE\\Norvane\\Products";
constexpr const wchar_t kPoliciesKeyPath[] = L"SOFTWARE\\Policies\\Norvane";
constexpr const wchar_t kTracePathPattern[] = L"%s%s.%s%s%s.%d.trc3";
constexpr const wchar_t kPlatformMark[] = L".x64";
constexpr const char kTraceFormatVersion[] = "3.0.1";

// Where records go. Write gets one complete record (head and plain text) and never
// reports failure.
class COutput {
public:
    virtual void Write(const void* record, std::size_t size) = 0;
    virtual ~COutput() = default;
};

// Chosen when tracing is off or TraceToFile asks for no output: drops everything.
class CNoOutput : public COutput {
public:
    void Write(const void* record, std::size_t size) override;
};

// The trace file. Construction opens (or creates) the file named by the Tracing
// settings and writes the header to an empty file or an 'N' record to an existing
// one. A file that cannot be opened, or that OpenCheckedTraceFile refuses, leaves
// the handle invalid, and Write then does nothing. Write appends the record with its text scrambled in place, with one write
// call on a handle that only appends, so several processes may share one file.
class CFileOutput : public COutput {
public:
    CFileOutput() noexcept;
    ~CFileOutput() override;
    CFileOutput(const CFileOutput&) = delete;
    CFileOutput& operator=(const CFileOutput&) = delete;

    void Write(const void* record, std::size_t size) override;

    HANDLE m_hFile = INVALID_HANDLE_VALUE;
    wchar_t m_szPath[kTracePathChars] = {};
    // Why the file was refused; Accepted when it was not judged or was taken.
    TraceFileVerdict m_verdict = TraceFileVerdict::Accepted;

private:
    void WriteHeader() noexcept;
    void WriteHeaderLine(const char* line) noexcept;
};

// The trace lock, guarding an output object. Destruction ends that object (closing
// its file) and leaves the lock refusing every later Enter, so that a record written
// while the rest of the process ends is dropped; the library's one lock is made before
// its other static objects and destroyed after them, so their constructors and
// destructors may trace.
class CTraceLock {
public:
    explicit CTraceLock(COutput*& output) noexcept;
    ~CTraceLock();
    CTraceLock(const CTraceLock&) = delete;
    CTraceLock& operator=(const CTraceLock&) = delete;

    // False before construction and after destruction: the caller then drops output.
    bool Enter() noexcept;
    void Leave() noexcept;

private:
    CRITICAL_SECTION m_cs;
    COutput*& m_output;
    bool m_alive = false;
};

// The output object, created at the first call (the caller holds the trace lock).
// Null only when it could not be allocated.
COutput* GetOutput() noexcept;

// Writes one record of the given kind to the output (the caller holds the trace
// lock). A text longer than kMaxRecordText bytes is cut to that: the format's limit.
void WriteRecord(char kind, const char* text, std::size_t length) noexcept;

// Opens HKLM\SOFTWARE\Norvane\Tracing for reading, in the library's own view first
// and then in the 32-bit view.
LONG OpenTracingKey(HKEY* key) noexcept;

// A string setting (REG_SZ or REG_EXPAND_SZ, even-sized and terminated, at most 260
// characters; an empty body is ""). False when absent or unusable.
bool ReadStringSetting(HKEY key, const wchar_t* name, wchar_t (&value)[kTracePathChars]) noexcept;

// Builds the trace file's path from the settings under key (FileName, else the
// pattern with TracePath or the library's directory). False when no path results.
bool BuildTracePath(HKEY key, wchar_t (&path)[kTracePathChars]) noexcept;

// Creates every missing folder of a directory path, from the drive down, each with
// NewTraceFolderSecurity; stops at the first folder that cannot be created and at
// an existing one that is a link, and does nothing for a UNC or device path.
void CreateTraceDirectories(const wchar_t* path) noexcept;

// The terminal-services session of the process, asked for once (0 when unknown).
DWORD SessionNumber() noexcept;

// The time and version sources (system or test hook).
void GetTraceLocalTime(SYSTEMTIME* time) noexcept;
BOOL GetTraceVersion(OSVERSIONINFOEXA* info) noexcept;

// Record text scrambling (the same call unscrambles nothing: CFB is not symmetric).
void ScrambleRecordText(std::uint8_t* text, std::size_t size) noexcept;

// The header lines in order, each ending in CR LF, as CFileOutput writes them.
std::vector<std::string> BuildHeaderLines(HMODULE module);

// The pieces of the header, for tests.
std::string OsHeaderLines(); // operating system line and service pack line
std::string FileVersionHeaderLine(HMODULE module);
std::vector<std::string> ProductHeaderLines();
std::string InstallationHeaderLine();

// The progress line's text as Trace formats it (UTF-8, at most 399 bytes). False
// when the line is dropped.
bool FormatTraceLine(char (&out)[kLineChars], const char* format, va_list args) noexcept;

} // namespace NVTraceNS
