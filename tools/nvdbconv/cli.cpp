#include "cli.h"

#include <cerrno>
#include <cwchar>

#include "json.h"

namespace nvdbconv {

namespace {

struct CommandEntry {
    const wchar_t* word;
    const char* name;
    Command command;
};

const CommandEntry kCommands[] = {
    {L"status", "status", Command::Status},         {L"convert", "convert", Command::Convert},
    {L"rollback", "rollback", Command::Rollback},   {L"cleanup", "cleanup", Command::Cleanup},
    {L"register", "register", Command::Register},   {L"unregister", "unregister", Command::Unregister},
    {L"trace", "trace", Command::Trace},            {L"store", "store", Command::Store},
    {L"version", "version", Command::Version},      {L"help", "help", Command::Help},
    {L"policy", "policy", Command::Policy},
    {L"upgrade", "upgrade", Command::Upgrade},      {L"check", "check", Command::Check},
};

bool ParseDword(const std::wstring& text, DWORD* out)
{
    if (text.empty() || text[0] == L'-' || text[0] == L'+')
        return false;
    wchar_t* end = nullptr;
    errno = 0;
    const unsigned long long v = std::wcstoull(text.c_str(), &end, 10);
    if (errno != 0 || *end != L'\0' || v > 0xFFFFFFFFull)
        return false;
    *out = static_cast<DWORD>(v);
    return true;
}

ParsedCommandLine Fail(const std::string& error)
{
    ParsedCommandLine r;
    r.error = error;
    return r;
}

} // namespace

const char* CommandName(Command command)
{
    for (const CommandEntry& e : kCommands)
        if (e.command == command)
            return e.name;
    return "";
}

const char* ShortUsageText()
{
    return "usage: nvdbconv [--dll PATH] [--json] [--quiet] COMMAND\n"
           "  COMMAND: status | check | convert [--progress auto|always|never] [--force] | upgrade [--force]\n"
           "         | rollback [--force] | cleanup\n"
           "         | register | unregister | trace on|off|show [--verbosity N] [--file PATH]\n"
           "           [--append|--new-file]\n"
           "         | store | version | policy [--strict on|off]\n"
           "  nvdbconv --help explains each command.\n";
}

const char* UsageText()
{
    return "usage: nvdbconv [--dll PATH] [--json] [--quiet] COMMAND\n"
           "\n"
           "Loads NVDBConv.dll as the suite's installer does and drives it.\n"
           "\n"
           "commands:\n"
           "  status               the database version and target (GetDBVersion), where the database\n"
           "                       lives, its backup, the user keys left under Data\\Users, the storage\n"
           "                       server and the trace settings in force\n"
           "  check                a preflight that writes nothing: version and view, the machine key\n"
           "                       container, every user's record, templates, secrets and password,\n"
           "                       the storage server, and which users would fail and why\n"
           "  convert              Convert: one format step (1.0 -> 2.0, or 2.0 -> 3.0 into the store);\n"
           "                       names every user who kept the old data or moved with gaps\n"
           "      --progress M     auto (default: a progress line when the output is a terminal),\n"
           "                       always, or never\n"
           "      --force          convert 2.0 -> 3.0 even when the storage server is not registered\n"
           "  upgrade              one Convert per child process until the newest format is reached\n"
           "                       or a step fails\n"
           "      --force          as for convert\n"
           "  rollback             Rollback: delete the database and copy back the backup key that\n"
           "                       \"Backup\" names, in the library's own (64-bit) view; on a 32-bit\n"
           "                       database it changes nothing, and nvdbconv says so\n"
           "      --force          roll back even when that backup key is missing (never when\n"
           "                       \"Backup\" names a key that is not DB-v1.0 or DB-v2.0)\n"
           "  cleanup              Cleanup: remove the backup key, and the old per-user data once empty;\n"
           "                       refuses, as rollback does, a \"Backup\" naming any other key\n"
           "  register             DllRegisterServer of the library\n"
           "  unregister           DllUnregisterServer of the library\n"
           "  trace on|off         write the trace settings (HKLM\\SOFTWARE\\Norvane\\Tracing)\n"
           "      --verbosity N    0 ordinary scopes, 10 and up everything\n"
           "      --file PATH      write to this file (FileName) instead of the default name\n"
           "      --new-file       start the file anew in every process that loads the library\n"
           "                       (NewFileAlways = 1); without it every process appends\n"
           "                       (NewFileAlways = 0, also --append)\n"
           "  trace show           the trace settings in force, and whether the next load starts\n"
           "                       the trace file anew\n"
           "  store                what the reference store holds: users, secrets, templates\n"
           "  version              versions of nvdbconv and of the library, and the library's exports\n"
           "  policy               the conversion policy (default or strict) and the users it keeps\n"
           "      --strict on|off  turn the strict policy on (StrictConversion = 1) or off\n"
           "\n"
           "options:\n"
           "  --dll PATH           the library to load (default: NVDBConv.dll beside nvdbconv.exe)\n"
           "  --json               one JSON object on standard output instead of text\n"
           "  --quiet              nothing on standard output; the exit code tells the outcome\n"
           "  --version            the version of nvdbconv, and nothing else\n"
           "\n"
           "exit codes: 0 done, 1 a call failed, 2 usage error, 3 refused (rollback without its backup,\n"
           "            2.0 -> 3.0 without the storage server), 4 Convert answered S_OK but users kept\n"
           "            their old data, or moved with gaps: parts of them did not reach the store (told\n"
           "            by the library's trace; check: some users would not convert)\n";
}

ParsedCommandLine ParseCommandLine(const std::vector<std::wstring>& args)
{
    Options o;
    std::vector<std::wstring> words;
    bool sawProgress = false, sawTraceOption = false;

    for (size_t i = 0; i < args.size(); ++i) {
        std::wstring arg = args[i];
        std::optional<std::wstring> inlineValue;
        if (arg.rfind(L"--", 0) == 0) {
            const size_t eq = arg.find(L'=');
            if (eq != std::wstring::npos) {
                inlineValue = arg.substr(eq + 1);
                arg = arg.substr(0, eq);
            }
        }
        auto value = [&](std::wstring* out) -> bool {
            if (inlineValue) {
                *out = *inlineValue;
                return true;
            }
            if (i + 1 >= args.size())
                return false;
            *out = args[++i];
            return true;
        };
        const bool takesValue = arg == L"--dll" || arg == L"--progress" || arg == L"--verbosity" || arg == L"--file" ||
                                arg == L"--strict";
        if (inlineValue && !takesValue)
            return Fail(ToUtf8(arg) + " takes no value");

        if (arg == L"--help" || arg == L"-h" || arg == L"/?") {
            o.command = Command::Help;
            ParsedCommandLine r;
            r.ok = true;
            r.options = o;
            return r;
        } else if (arg == L"--version") {
            o.showVersion = true;
            ParsedCommandLine r;
            r.ok = true;
            r.options = o;
            return r;
        } else if (arg == L"--json") {
            o.json = true;
        } else if (arg == L"--quiet" || arg == L"-q") {
            o.quiet = true;
        } else if (arg == L"--force") {
            o.force = true;
        } else if (arg == L"--append" || arg == L"--new-file") {
            if (o.newFileAlways)
                return Fail("--append and --new-file exclude each other");
            o.newFileAlways = arg == L"--append" ? 0u : 1u;
            sawTraceOption = true;
        } else if (takesValue) {
            std::wstring v;
            if (!value(&v))
                return Fail(ToUtf8(arg) + " needs a value");
            if (arg == L"--dll") {
                if (v.empty())
                    return Fail("--dll needs a path");
                o.dll = v;
            } else if (arg == L"--progress") {
                if (v == L"auto")
                    o.progress = ProgressMode::Auto;
                else if (v == L"always")
                    o.progress = ProgressMode::Always;
                else if (v == L"never")
                    o.progress = ProgressMode::Never;
                else
                    return Fail("--progress takes auto, always or never, not '" + ToUtf8(v) + "'");
                sawProgress = true;
            } else if (arg == L"--strict") {
                if (v == L"on")
                    o.strict = true;
                else if (v == L"off")
                    o.strict = false;
                else
                    return Fail("--strict takes on or off, not '" + ToUtf8(v) + "'");
            } else if (arg == L"--verbosity") {
                DWORD n = 0;
                if (!ParseDword(v, &n))
                    return Fail("--verbosity takes a number from 0 to 4294967295, not '" + ToUtf8(v) + "'");
                o.verbosity = n;
                sawTraceOption = true;
            } else {
                if (v.empty())
                    return Fail("--file needs a path");
                o.file = v;
                sawTraceOption = true;
            }
        } else if (arg.size() > 1 && arg[0] == L'-') {
            return Fail("unknown option '" + ToUtf8(arg) + "'");
        } else {
            words.push_back(arg);
        }
    }

    if (words.empty())
        return Fail("no command given");
    for (const CommandEntry& e : kCommands)
        if (words[0] == e.word)
            o.command = e.command;
    if (o.command == Command::None)
        return Fail("unknown command '" + ToUtf8(words[0]) + "'");

    if (o.command == Command::Trace) {
        if (words.size() < 2)
            return Fail("trace needs on, off or show");
        if (words[1] == L"on")
            o.traceOn = true;
        else if (words[1] == L"show")
            o.traceShow = true;
        else if (words[1] != L"off")
            return Fail("trace takes on, off or show, not '" + ToUtf8(words[1]) + "'");
        if (words.size() > 2)
            return Fail("unexpected '" + ToUtf8(words[2]) + "'");
        if (!o.traceOn && sawTraceOption)
            return Fail("--verbosity, --file, --append and --new-file go with trace on");
    } else {
        if (words.size() > 1)
            return Fail("unexpected '" + ToUtf8(words[1]) + "'");
        if (sawTraceOption)
            return Fail("--verbosity, --file, --append and --new-file go with trace on");
    }
    if (o.force && o.command != Command::Rollback && o.command != Command::Convert && o.command != Command::Upgrade)
        return Fail("--force goes with rollback, convert or upgrade");
    if (sawProgress && o.command != Command::Convert)
        return Fail("--progress goes with convert");
    if (o.strict && o.command != Command::Policy)
        return Fail("--strict goes with policy");

    ParsedCommandLine r;
    r.ok = true;
    r.options = o;
    return r;
}

} // namespace nvdbconv
