// The command line of nvdbconv: one command, options before or after it.
#pragma once
#include <windows.h>
#include <optional>
#include <string>
#include <vector>

namespace nvdbconv {

enum class Command { None, Help, Status, Convert, Rollback, Cleanup, Register, Unregister, Trace, Store, Version, Policy, Upgrade, Check };
enum class ProgressMode { Auto, Always, Never };

struct Options {
    Command command = Command::None;
    std::wstring dll; // empty: NVDBConv.dll next to nvdbconv.exe
    bool json = false;
    bool quiet = false;
    bool showVersion = false; // --version: the version line, nothing else
    bool force = false;                      // rollback, convert, upgrade
    ProgressMode progress = ProgressMode::Auto; // convert
    // trace
    bool traceOn = false;
    bool traceShow = false; // trace show: the settings in force, nothing written
    std::optional<DWORD> verbosity;
    std::optional<std::wstring> file;
    std::optional<DWORD> newFileAlways;
    // policy: --strict on|off; none only shows the policy
    std::optional<bool> strict;
};

struct ParsedCommandLine {
    bool ok = false;
    Options options;
    std::string error; // what was wrong, when !ok
};

// args without the program name.
ParsedCommandLine ParseCommandLine(const std::vector<std::wstring>& args);

const char* CommandName(Command command);
// The full help (--help) and the short form shown after a usage error.
const char* UsageText();
const char* ShortUsageText();

} // namespace nvdbconv
