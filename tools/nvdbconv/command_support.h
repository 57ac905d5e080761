// What the commands share: the printer that sends output to text, JSON or nowhere,
// the database state in words and in JSON, and the library's load and version
// question with which most commands begin.
#pragma once
#include <windows.h>
#include <string>

#include "cli.h"
#include "commands.h"
#include "dbstate.h"
#include "json.h"
#include "library_host.h"

namespace nvdbconv {

std::string Fmt(const char* format, ...);
std::string U8(const std::wstring& text);
// "1 user", "0 users", "3 users": the noun in the singular for one only.
std::string Counted(unsigned long long n, const char* noun);
// The plural of the noun unless n is one ("of 1 user", "of 3 users").
std::string Noun(unsigned long long n, const char* noun);

// Where the command's output goes: text lines, or one JSON document, or nothing.
class Printer {
public:
    explicit Printer(const Options& options) : m_options(options) {}

    bool text() const { return !m_options.json && !m_options.quiet; }
    void Line(const std::string& line) const
    {
        if (text())
            WriteOut(line + "\n");
    }
    void Row(const char* label, const std::string& value) const { Line(Fmt("  %-15s %s", label, value.c_str())); }
    // A failure or refusal: on standard error in text and quiet mode (JSON carries it).
    void Problem(const std::string& text) const
    {
        if (!m_options.json)
            WriteErr("nvdbconv: " + text + "\n");
    }
    // Something to know that changes no result: on standard error in every mode.
    void Warning(const std::string& text) const { WriteErr("nvdbconv: warning: " + text + "\n"); }
    void Finish()
    {
        if (m_options.json && !m_options.quiet)
            WriteOut(JsonText(json) + "\n");
    }

    // The command's document; Header starts it, Finish prints it.
    Json json = Json::object();

private:
    const Options& m_options;
};

// "2.0"
std::string VersionText(DWORD version);
// "2.0 (0x00020000)", or "none (0x00000000)"
std::string VersionWithCode(DWORD version);

// The format the registry shows: "none", "1.0", "2.0", "3.0" or "unknown".
std::string LayoutOf(const DatabaseState& s);
// One line on what the database is and what convert would do with it.
std::string Verdict(const DatabaseState& s);
std::string UserKeysText(const DatabaseState& s);
std::string BackupText(const DatabaseState& s);
Json DatabaseJson(const DatabaseState& s);
// What convert and upgrade say of a database whose layout is already 3.0.
std::string AlreadyConvertedText();
// "HKLM\SOFTWARE\Norvane\DB\...: value "X" is empty; the backup cannot copy empty values"
std::string EmptyValueText(const EmptyValue& v);
// {"key","value"}, or null when there is no empty value.
Json EmptyValueJson(const std::optional<EmptyValue>& v);
// {"registered","path"}: the storage server's registration (path null when none).
Json StoreServerJson(const StoreServerState& s);

// Loads the library and asks GetDBVersion, printing both results. When the load
// failed the command cannot go on.
struct Loaded {
    HRESULT load = E_FAIL;
    HRESULT version = E_FAIL;
    DWORD current = 0;
    DWORD target = 0;
};
Loaded LoadAndAsk(CLibraryHost& host, Printer& out);
// After a load: warns when the library refused the trace file asked for.
void WarnIfTraceRefused(const Printer& out, const CLibraryHost& host);

// The first line of a command's output and the JSON document's opening; Finish
// closes the document with the exit code, prints it and returns the code.
void Header(Printer& out, const char* command);
int Finish(Printer& out, int exitCode);

} // namespace nvdbconv
