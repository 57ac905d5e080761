#include "command_support.h"

#include <cstdlib>

#include <nlohmann/json.hpp>

#include "result_codes.h"
#include "tracewatch.h"

namespace nvdbconv {

std::string DatabasePlace(const DatabaseState& s)
{
    if (s.in32 && s.in64)
        return "HKLM\\SOFTWARE\\Norvane\\DB in both views (the library reads the 64-bit one first)";
    if (s.in32)
        return "HKLM\\SOFTWARE\\Norvane\\DB, 32-bit view";
    if (s.in64)
        return "HKLM\\SOFTWARE\\Norvane\\DB, 64-bit view";
    return "none (no HKLM\\SOFTWARE\\Norvane\\DB in either view)";
}

// The format the registry shows. A database key with no Data and no MainDB is the
// 3.0 layout whatever "Version" reads (after 2.0 -> 3.0 it still reads 2.x).
std::string LayoutOf(const DatabaseState& s)
{
    if (!s.in32 && !s.in64)
        return "none";
    if (s.layout30)
        return "3.0";
    if (!s.version)
        return "unknown";
    const DWORD major = static_cast<DWORD>(std::wcstoul(s.version->c_str(), nullptr, 10));
    if (major == 1)
        return "1.0";
    if (major == 2 || major == 3)
        return "2.0";
    return "unknown";
}

std::string AlreadyConvertedText()
{
    return "already converted: format 3.0 (no Data and no MainDB under HKLM\\SOFTWARE\\Norvane\\DB)";
}

bool NamesOwnBackup(const DatabaseState& s)
{
    return s.backupValue && !s.backupValue->empty() && !s.backupForeign;
}

std::string LeftoverBackupKeyText(const std::wstring& backup, HRESULT cleanup)
{
    return "backup key HKLM\\" + U8(backup) + " of an interrupted run: Cleanup " + DescribeResult(cleanup, "Cleanup");
}

std::string LeftoverBackupValueText(const std::wstring& backup, HRESULT removal)
{
    return "\"Backup\" named HKLM\\" + U8(backup) + ", which no longer exists: value removed " +
           DescribeResult(removal);
}

std::string EmptyValueText(const EmptyValue& v)
{
    return "HKLM\\" + U8(v.key) + ": value \"" + U8(v.name) + "\" is empty; the backup cannot copy empty values";
}

Json EmptyValueJson(const std::optional<EmptyValue>& v)
{
    if (!v)
        return nullptr;
    return Json{{"key", U8(L"HKLM\\" + v->key)}, {"value", U8(v->name)}};
}

std::string StoreServerText(const StoreServerState& s)
{
    return s.registered ? "registered: " + U8(s.path) : std::string("not registered");
}

Json StoreServerJson(const StoreServerState& s)
{
    return Json{{"registered", s.registered}, {"path", s.registered ? Json(U8(s.path)) : Json(nullptr)}};
}

std::string Verdict(const DatabaseState& s)
{
    const std::string layout = LayoutOf(s);
    if (layout == "none")
        return "no database: nothing to convert";
    if (layout == "1.0")
        return "format 1.0: convert rewrites it to 2.0";
    if (layout == "2.0") {
        if (s.usersKey && s.userKeys > 0)
            return "format 2.0: " + Counted(s.userKeys, "user") + " to move into the store (convert)";
        if (s.usersKey)
            return "format 2.0, every user moved: cleanup removes the old keys";
        return "format 2.0, no users under Data\\Users: convert has nobody to move";
    }
    if (layout == "3.0")
        return "format 3.0: the users live in the store, the old per-user data is gone";
    return "unknown format: the library has no converter for it";
}

std::string UserKeysText(const DatabaseState& s)
{
    if (!s.usersKey)
        return "none (no Data\\Users key)";
    return Fmt("%lu under Data\\Users", static_cast<unsigned long>(s.userKeys));
}

std::string BackupText(const DatabaseState& s)
{
    if (!s.backupValue)
        return "no \"Backup\" value";
    return "\"Backup\" = \"" + U8(*s.backupValue) + "\"" + (s.backupForeign ? " (FOREIGN)" : "");
}

namespace {

// What runs the step again, after a rollback that could not reach the database.
constexpr const char kRunTheStepAgain[] =
    "  Run \"nvdbconv check\", then \"nvdbconv convert\" again: the step copies the database into\n"
    "  the backup once more (merging with what it holds) and removes the backup when it succeeds.";

} // namespace

std::string NotRestoredAdvice(const DatabaseState& after, DWORD databaseVersion, bool afterFailedStep)
{
    if (!NamesOwnBackup(after) || !KeyExists(after.backupValue->c_str(), BackupViewFor(databaseVersion)))
        return std::string();
    const std::string backup = U8(*after.backupValue);
    if (afterFailedStep)
        return Fmt("the library's rollback did not restore the database: it works in its own (64-bit)\n"
                   "  view, and this database lives in the 32-bit view. The database is as the step left it\n"
                   "  (what the step did before it failed stays done; \"Version\" reads %s), and its backup\n"
                   "  HKLM\\%s and \"Backup\" are still there.\n",
                   after.version ? U8(*after.version).c_str() : "nothing", backup.c_str()) +
               kRunTheStepAgain;
    return Fmt("the database was not restored: it is as it was, and its backup HKLM\\%s\n"
               "  and \"Backup\" are still there. The library's Rollback deletes and restores HKLM\\%s\n"
               "  in its own (64-bit) view, and this database lives in the 32-bit view, so it changes\n"
               "  nothing here.\n",
               backup.c_str(), U8(kDatabasePath).c_str()) +
           kRunTheStepAgain;
}

std::string UnnamedBackupAdvice(const DatabaseState& s)
{
    if (NamesOwnBackup(s) || s.backupForeign || (!s.backup10 && !s.backup20))
        return std::string();
    std::string keys;
    if (s.backup10)
        keys = Fmt("HKLM\\%s (%s view)", U8(kBackup10Path).c_str(), ViewName(kBackup10View));
    if (s.backup20)
        keys += (keys.empty() ? "" : " and ") +
                Fmt("HKLM\\%s (%s view)", U8(kBackup20Path).c_str(), ViewName(kBackup20View));
    const bool both = s.backup10 && s.backup20;
    return Fmt("%s %s, but no \"Backup\" names %s: a backup\n"
               "  that failed half way (an empty value stops the copy) leaves what it copied, users' records\n"
               "  and secrets included. cleanup and rollback do not touch it. The next convert copies the\n"
               "  database into it (merging with what it holds) and removes it when the step succeeds;\n"
               "  \"nvdbconv check\" names what stops the step. Without a conversion, delete it by hand\n"
               "  (reg delete <key> /f, with /reg:32 for the 32-bit view). (A conversion running right now\n"
               "  shows the same until it has copied the database and written \"Backup\".)",
               keys.c_str(), both ? "are there" : "is there", both ? "them" : "it");
}

std::string ForeignBackupAdvice(const DatabaseState& s)
{
    if (!s.backupForeign)
        return std::string();
    return Fmt("\"Backup\" names HKLM\\%s, which is not a backup key of the library (only\n"
               "  HKLM\\%s and HKLM\\%s are). The library never writes anything else there:\n"
               "  someone else set it, and Rollback and Cleanup would delete and copy that key elevated.\n"
               "  The library refuses it (0x80070005), and so do rollback and cleanup here, with or\n"
               "  without --force. Find out who can write HKLM\\%s, then delete the value by hand\n"
               "  (reg delete HKLM\\%s /v Backup /reg:32 /f) and run \"nvdbconv status\" again.",
               U8(*s.backupValue).c_str(), U8(kBackup10Path).c_str(), U8(kBackup20Path).c_str(),
               U8(kDatabasePath).c_str(), U8(kDatabasePath).c_str());
}

bool RefuseForeignBackup(Printer& out, const DatabaseState& s, const char* operation)
{
    if (!s.backupForeign)
        return false;
    const std::string explanation = Fmt("refusing to %s: ", operation) + ForeignBackupAdvice(s);
    out.Problem(explanation);
    out.json["refused"] = true;
    out.json["reason"] = explanation;
    return true;
}

std::string BackupKeysText(const DatabaseState& s)
{
    return Fmt("DB-v1.0 (%s view) %s, DB-v2.0 (%s view) %s", ViewName(kBackup10View),
               s.backup10 ? "present" : "absent", ViewName(kBackup20View), s.backup20 ? "present" : "absent");
}

Json DatabaseJson(const DatabaseState& s)
{
    Json views = Json::array();
    if (s.in32)
        views.push_back("32-bit");
    if (s.in64)
        views.push_back("64-bit");
    return Json{{"present", s.in32 || s.in64},
                {"views", views},
                {"version", OrNull(s.version)},
                {"mainDB", s.mainDb},
                {"userKeys", s.usersKey ? Json(s.userKeys) : Json(nullptr)},
                {"layout", LayoutOf(s)},
                {"backup",
                 {{"value", OrNull(s.backupValue)},
                  {"DB-v1.0", {{"view", ViewName(kBackup10View)}, {"exists", s.backup10}}},
                  {"DB-v2.0", {{"view", ViewName(kBackup20View)}, {"exists", s.backup20}}}}}};
}

std::string TraceText(const TraceSettings& t)
{
    if (!t.keyFound)
        return "off (no HKLM\\SOFTWARE\\Norvane\\Tracing key)";
    if (!t.on())
        return Fmt("off (DoTrace = %lu)", static_cast<unsigned long>(t.doTrace.value_or(0)));
    std::string text = "on";
    if (!t.toFile())
        return text + Fmt(", no output (TraceToFile = %lu)", static_cast<unsigned long>(*t.traceToFile));
    text += Fmt(", verbosity %lu", static_cast<unsigned long>(t.verbosity.value_or(0)));
    text += t.append() ? ", appending" : ", a new file per process";
    if (t.profiling())
        text += ", profiling (no progress lines)";
    return text;
}

void ShowTrace(Printer& out, const TraceSettings& t, const std::wstring& dllPath)
{
    out.Row("trace", TraceText(t));
    if (t.keyFound && t.on() && t.toFile())
        out.Row("trace file", U8(TraceFileFor(t, dllPath)));
}

void WarnIfTraceTruncates(const Printer& out, const TraceSettings& t, const std::wstring& dllPath)
{
    if (!TruncatesOnLoad(t, dllPath))
        return;
    const std::string value = t.newFileAlways
                                  ? Fmt("NewFileAlways = %lu", static_cast<unsigned long>(*t.newFileAlways))
                                  : std::string("no NewFileAlways DWORD");
    out.Warning("the trace settings (" + value + ") start " + U8(TraceFileFor(t, dllPath)) +
                " anew in every process that loads the library: each command replaces the trace of the one "
                "before; \"nvdbconv trace on\" without --new-file appends");
}

Json TraceJson(const TraceSettings& t, const std::wstring& dllPath)
{
    return Json{{"key", t.keyFound},
                {"view", t.keyFound ? Json(ViewName(t.keyView)) : Json(nullptr)},
                {"DoTrace", OrNull(t.doTrace)},
                {"TraceToFile", OrNull(t.traceToFile)},
                {"NewFileAlways", OrNull(t.newFileAlways)},
                {"DoProfiling", OrNull(t.doProfiling)},
                {"Verbosity", OrNull(t.verbosity)},
                {"TracePath", OrNull(t.tracePath)},
                {"FileName", OrNull(t.fileName)},
                {"on", t.keyFound && t.on()},
                {"toFile", t.keyFound && t.on() && t.toFile()},
                {"append", t.append()},
                {"file", U8(TraceFileFor(t, dllPath))},
                {"truncates", TruncatesOnLoad(t, dllPath)}};
}

void ShowPolicy(Printer& out, const PolicyState& policy, const std::vector<HeldUser>& held, bool brief)
{
    std::string text = policy.strict() ? "strict (StrictConversion = 1): a user's old key goes only when all of it "
                                         "reached the store"
                                       : "default: every step as the format has it";
    if (policy.valueFound && !policy.strict())
        text += policy.value ? Fmt(" (StrictConversion = %lu is not 1)", static_cast<unsigned long>(*policy.value))
                             : std::string(" (StrictConversion is not a REG_DWORD)");
    if (!brief || policy.valueFound)
        out.Row("policy", text);
    const bool readable = HeldUsersReadable();
    if (!readable)
        out.Row("held users", "not readable by this account (the record is for administrators): run nvdbconv "
                              "elevated to see them");
    else if (held.empty() && !brief)
        out.Row("held users", "none");
    for (const HeldUser& u : held)
        out.Row("held user", U8(u.sid) + " " + U8(u.key) + Fmt(" 0x%08lX: ", static_cast<unsigned long>(u.result)) +
                                 U8(u.reason));

    out.json["policy"] = {{"strict", policy.strict()}, {"valueFound", policy.valueFound}, {"value", OrNull(policy.value)}};
    out.json["heldUsersReadable"] = readable;
    Json heldUsers = Json::array();
    for (const HeldUser& u : held)
        heldUsers.push_back({{"key", U8(u.key)}, {"sid", U8(u.sid)}, {"result", u.result}, {"reason", U8(u.reason)}});
    out.json["heldUsers"] = heldUsers;
}

Loaded LoadAndAsk(CLibraryHost& host, Printer& out)
{
    Loaded l;
    l.load = host.Load();
    out.Row("library", U8(host.path()));
    out.json["dll"] = U8(host.path());
    out.json["load"] = ResultJson(l.load);
    if (FAILED(l.load)) {
        out.Row("LoadLibrary", DescribeResult(l.load));
        out.Problem("cannot load " + U8(host.path()) + ": " + DescribeResult(l.load));
        out.json["getDBVersion"] = nullptr;
        return l;
    }
    WarnIfTraceRefused(out, host);
    l.version = host.GetDBVersion(&l.current, &l.target);
    out.Row("GetDBVersion", DescribeResult(l.version));
    if (SUCCEEDED(l.version))
        out.Row("version", VersionWithCode(l.current) + " -> target " + VersionWithCode(l.target) +
                               (l.target == 0 ? ": no converter for this database" : ""));
    out.json["getDBVersion"] = {{"result", ResultJson(l.version)},
                                {"current", l.current},
                                {"currentText", VersionText(l.current)},
                                {"target", l.target},
                                {"targetText", VersionText(l.target)}};
    return l;
}

void WarnIfTraceRefused(const Printer& out, const CLibraryHost& host)
{
    if (const auto& refusal = host.traceRefusal())
        out.Warning("the library refused the trace file " + U8(refusal->path) + ": " + refusal->reason +
                    "; this run has no trace (docs/SECURITY.md)");
}


BackupStep OpenBackupStep(Printer& out, CLibraryHost& host, const char* operation)
{
    BackupStep step;
    step.before = ReadDatabaseState();
    step.loaded = LoadAndAsk(host, out);
    out.json["before"] = DatabaseJson(step.before);
    if (FAILED(step.loaded.load)) {
        step.stop = Finish(out, kExitFailed);
        return step;
    }
    out.Row("backup", BackupText(step.before));
    if (RefuseForeignBackup(out, step.before, operation))
        step.stop = Finish(out, kExitRefused);
    return step;
}

HRESULT ReportCall(Printer& out, const char* call, const char* member, HRESULT hr)
{
    out.Row(call, DescribeResult(hr, call));
    out.json[member] = ResultJson(hr, call);
    return hr;
}

int FinishCall(Printer& out, const char* call, HRESULT hr)
{
    if (FAILED(hr))
        out.Problem(std::string(call) + " failed: " + DescribeResult(hr));
    return Finish(out, SUCCEEDED(hr) ? kExitOk : kExitFailed);
}

} // namespace nvdbconv
