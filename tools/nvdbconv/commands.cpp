#include "commands.h"
#include "command_support.h"

#include <windows.h>
#include <io.h>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <vector>

#include "common/procaddress.h"
#include "com/componentregistrar.h"
#include "common/systemlibrary.h"
#include "dbstate.h"
#include "json.h"
#include "library_host.h"
#include "nv_version.h"
#include "policy.h"
#include "move_outcome.h"
#include "upgrade.h"
#include "progress.h"
#include "result_codes.h"
#include "storesummary.h"

namespace nvdbconv {

std::string Fmt(const char* format, ...)
{
    char buf[2048];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buf, sizeof(buf), format, args);
    va_end(args);
    return buf;
}

std::string U8(const std::wstring& text) { return ToUtf8(text); }

std::string Noun(unsigned long long n, const char* noun) { return std::string(noun) + (n == 1 ? "" : "s"); }

std::string Counted(unsigned long long n, const char* noun) { return std::to_string(n) + " " + Noun(n, noun); }

std::string VersionText(DWORD version)
{
    return std::to_string(version >> 16) + "." + std::to_string(version & 0xFFFF);
}

std::string VersionWithCode(DWORD version)
{
    return version == 0 ? std::string("none (0x00000000)") : VersionText(version) + Fmt(" (0x%08lX)", version);
}

// ---- shared pieces of several commands ----------------------------------------

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

// What a foreign "Backup" means and what to do about it; empty when it is not.
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

// rollback and cleanup stop on a foreign "Backup" whatever the options say.
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

void Header(Printer& out, const char* command)
{
    out.Line(Fmt("nvdbconv %s", command));
    out.json = {{"tool", "nvdbconv"}, {"command", command}};
}

int Finish(Printer& out, int exitCode)
{
    out.json["exitCode"] = exitCode;
    out.Finish();
    return exitCode;
}

// The conversion policy and the users the strict policy keeps. The policy command
// shows all of it; status (brief) shows the policy only when it is not the default,
// and the held users when there are any.
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
namespace {

// ---- commands -------------------------------------------------------------------

int Policy(const Options& o, Printer& out)
{
    Header(out, "policy");
    HRESULT hr = S_OK;
    if (o.strict) {
        hr = WriteStrictConversion(*o.strict);
        out.Row("set", std::string(*o.strict ? "strict on: " : "strict off: ") + DescribeResult(hr));
        out.json["write"] = ResultJson(hr);
        if (FAILED(hr))
            out.Problem("writing HKLM\\SOFTWARE\\Norvane\\Policies\\Default failed: " + DescribeResult(hr));
    }
    ShowPolicy(out, ReadPolicyState(), ReadHeldUsers(), false);
    return Finish(out, SUCCEEDED(hr) ? kExitOk : kExitFailed);
}

int Status(Printer& out, CLibraryHost& host)
{
    Header(out, "status");
    const DatabaseState db = ReadDatabaseState();
    const Loaded l = LoadAndAsk(host, out);
    out.Row("database", DatabasePlace(db));
    out.Row("\"Version\"", db.version ? "\"" + U8(*db.version) + "\"" + Fmt(" (%s view)", ViewName(db.versionView))
                                      : std::string("none"));
    out.Row("MainDB", db.mainDb ? "present" : "absent");
    out.Row("user keys", UserKeysText(db));
    out.Row("state", Verdict(db));
    out.Row("backup", BackupText(db));
    out.Row("backup keys", BackupKeysText(db));
    out.json["backupForeign"] = db.backupForeign;
    if (db.backupForeign) {
        const std::string advice = ForeignBackupAdvice(db);
        out.Row("foreign", advice);
        out.json["foreignAdvice"] = advice;
    }
    // "Backup" naming a key that is gone: a conversion ended between deleting its
    // backup key and deleting the value (or the key was removed by hand).
    bool backupMissing = false;
    if (l.target != 0 && db.backupValue && !db.backupValue->empty() && !db.backupForeign) {
        const REGSAM view = BackupViewFor(l.current);
        backupMissing = !KeyExists(db.backupValue->c_str(), view);
        const REGSAM other = view == kBackup10View ? kBackup20View : kBackup10View;
        if (backupMissing && KeyExists(db.backupValue->c_str(), other)) {
            const std::string advice = Fmt(
                "\"Backup\" names HKLM\\%s, which exists only in the %s view: the step that made it finished\n"
                "  (\"Version\" now reads %s) but stopped before removing it, and the library now looks for it\n"
                "  in the %s view. rollback refuses and cleanup fails. The key holds the database as it was\n"
                "  before that step; \"nvdbconv convert\" goes on from the current version and leaves it alone.",
                U8(*db.backupValue).c_str(), ViewName(other), db.version ? U8(*db.version).c_str() : "?",
                ViewName(view));
            out.Row("interrupted", advice);
            out.json["interruptedAdvice"] = advice;
        } else if (backupMissing) {
            const std::string advice = Fmt(
                "\"Backup\" names HKLM\\%s, but that key does not exist in the %s view: the last conversion\n"
                "  stopped after deleting its backup key and before deleting \"Backup\". Nothing is restorable\n"
                "  from it: rollback refuses (it would delete the database and copy nothing back) and cleanup\n"
                "  fails. Run \"nvdbconv convert\": it makes a new backup, converts what is left and removes\n"
                "  \"Backup\" when it is done.",
                U8(*db.backupValue).c_str(), ViewName(view));
            out.Row("interrupted", advice);
            out.json["interruptedAdvice"] = advice;
        }
    }
    out.json["backupKeyMissing"] = backupMissing;
    const StoreServerState store = ReadStoreServer();
    out.Row("store server", store.registered ? "registered: " + U8(store.path)
                                             : std::string("not registered (a 2.0 conversion needs it)"));
    const TraceSettings trace = ReadTraceSettings();
    ShowTrace(out, trace, host.path());
    // This run's load has already started the file anew; a refused file was not touched.
    if (!host.traceRefusal())
        WarnIfTraceTruncates(out, trace, host.path());
    ShowPolicy(out, ReadPolicyState(), ReadHeldUsers(), true);

    out.json["database"] = DatabaseJson(db);
    out.json["storeServer"] = StoreServerJson(store);
    out.json["trace"] = TraceJson(trace, host.path());
    return Finish(out, SUCCEEDED(l.load) && SUCCEEDED(l.version) ? kExitOk : kExitFailed);
}

// A finished database may still carry what an interrupted run left: a backup key with
// "Backup" naming it (the run stopped inside Cleanup), or "Backup" naming a key that is
// gone (it stopped between deleting the key and the value). Cleanup removes the first;
// the second only the value, since Cleanup fails on the missing key and nothing can be
// restored from it. A foreign "Backup", or a key only in the other view (a 1.0 backup,
// which "status" explains), is left alone. Returns the exit code.
int TidyFinishedDatabase(Printer& out, const DatabaseState& before, const Loaded& l, CLibraryHost& host)
{
    if (!before.backupValue || before.backupValue->empty() || before.backupForeign)
        return kExitOk;
    const wchar_t* path = before.backupValue->c_str();
    const REGSAM view = BackupViewFor(l.current);
    const REGSAM other = view == kBackup10View ? kBackup20View : kBackup10View;
    if (KeyExists(path, view)) {
        const HRESULT hr = host.Cleanup();
        out.Row("left over", "backup key HKLM\\" + U8(*before.backupValue) + " of an interrupted run: Cleanup " +
                                 DescribeResult(hr, "Cleanup"));
        out.json["leftoverCleanup"] = ResultJson(hr, "Cleanup");
        if (FAILED(hr))
            out.Problem("Cleanup of the left-over backup failed: " + DescribeResult(hr));
        return SUCCEEDED(hr) ? kExitOk : kExitFailed;
    }
    if (KeyExists(path, other))
        return kExitOk;
    HKEY db = nullptr;
    LSTATUS r = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kDatabasePath, 0, KEY_SET_VALUE | kDatabaseView, &db);
    if (r == ERROR_SUCCESS) {
        r = ::RegDeleteValueW(db, kBackupValueName);
        ::RegCloseKey(db);
    }
    const HRESULT hr = HRESULT_FROM_WIN32(r);
    out.Row("left over", "\"Backup\" named HKLM\\" + U8(*before.backupValue) +
                             ", which no longer exists: value removed " + DescribeResult(hr));
    out.json["leftoverBackupValueRemoved"] = ResultJson(hr);
    if (FAILED(hr))
        out.Problem("removing \"Backup\" failed: " + DescribeResult(hr));
    return SUCCEEDED(hr) ? kExitOk : kExitFailed;
}

int Convert(const Options& o, Printer& out, CLibraryHost& host)
{
    Header(out, "convert");
    const DatabaseState before = ReadDatabaseState();
    const Loaded l = LoadAndAsk(host, out);
    out.json["before"] = DatabaseJson(before);
    if (FAILED(l.load))
        return Finish(out, kExitFailed);

    // The library still offers 2.x -> 3.0 for a finished database ("Version" stays
    // 2.x); Convert would back it up and then fail on the missing Data\Users.
    out.json["alreadyConverted"] = before.layout30;
    if (before.layout30) {
        out.Row("state", AlreadyConvertedText() + "; Convert not called");
        return Finish(out, TidyFinishedDatabase(out, before, l, host));
    }
    // A 2.x database without Data\Users: every user was moved and a clean-up that was
    // cut short took Data\Users with it. Convert would back it up and fail on the
    // missing key; the library's Cleanup deletes the rest only while Data\Users opens.
    if (LayoutOf(before) == "2.0" && !before.usersKey && (l.current >> 16) == 2 && l.target != 0) {
        out.json["usersMoved"] = true;
        out.Row("state", "no Data\\Users: every user was moved, the rest of the old database is what an "
                         "interrupted clean-up left; Convert not called");
        return Finish(out, TidyFinishedDatabase(out, before, l, host));
    }

    // A 2.0 conversion moves users out of Data\Users one by one: show how far it is.
    const bool movesUsers = (l.current >> 16) == 2 && l.target != 0;
    if (movesUsers)
        out.Row("users", before.usersKey ? Counted(before.userKeys, "user key") +
                                               " under Data\\Users to move into the store"
                                         : std::string("none (no Data\\Users key)"));
    if (movesUsers && RefuseWithoutStore(out, o.force, before.userKeys))
        return Finish(out, kExitRefused);
    bool draw = false;
    if (!o.quiet) {
        if (o.progress == ProgressMode::Always)
            draw = true;
        else if (o.progress == ProgressMode::Auto)
            draw = !o.json && StdoutIsTerminal();
    }
    // With --json the progress line goes to standard error, so the document stays whole.
    auto emit = o.json ? WriteErr : WriteOut;
    CProgressPoller poller(
        [](DWORD* left) { return CountUserKeys(left); },
        [&](const ProgressSample& sample) {
            if (draw)
                emit("\r  " + FormatProgress(sample) + (sample.final ? "\n" : ""));
        },
        std::chrono::milliseconds(200));
    if (movesUsers)
        poller.Start();

    const std::optional<EmptyValue> empty = FindEmptyValue();
    const HRESULT hr = host.Convert();
    ProgressSample progress;
    if (movesUsers)
        progress = poller.Stop();

    out.Row("Convert", DescribeResult(hr));
    out.json["convert"] = ResultJson(hr);
    // The backup's refusal of an empty value reads as "not enough memory": name it.
    const bool emptyValueFailed = empty && hr == HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY);
    if (emptyValueFailed)
        out.Row("cause", EmptyValueText(*empty));
    out.json["emptyValue"] = EmptyValueJson(empty);

    const DatabaseState after = ReadDatabaseState();
    if (movesUsers) {
        out.Row("users", Fmt("%lu of %lu moved in %.1f s (%.1f users/s), %s",
                             static_cast<unsigned long>(progress.converted()),
                             static_cast<unsigned long>(progress.total), progress.seconds, progress.rate(),
                             after.usersKey ? Fmt("%lu left under Data\\Users",
                                                  static_cast<unsigned long>(after.userKeys)).c_str()
                                            : "Data\\Users removed"));
        out.json["users"] = {{"total", progress.total},
                             {"converted", progress.converted()},
                             {"left", progress.left},
                             {"seconds", Rounded(progress.seconds, 3)},
                             {"rate", Rounded(progress.rate(), 1)},
                             {"samples", poller.samples()}};
    }
    out.Row("now", Verdict(after));
    out.Row("backup", BackupText(after));
    out.json["after"] = DatabaseJson(after);
    if (FAILED(hr)) {
        out.Problem("Convert failed: " + DescribeResult(hr) + (emptyValueFailed ? ": " + EmptyValueText(*empty) : ""));
        return Finish(out, kExitFailed);
    }
    // S_OK does not mean that every user moved, nor that all of a moved user reached
    // the store: name those who kept their old data, and those moved with gaps.
    int exitCode = kExitOk;
    if (movesUsers) {
        exitCode = ReportRemainingUsers(out, ReadRemainingUsers(host.path()), progress.total);
        if (ReportUserGaps(out, ReadUserGaps(host.path()), progress.total, ReadPolicyState().strict()) != kExitOk)
            exitCode = kExitUsersRemained;
    }
    return Finish(out, exitCode);
}

int Rollback(const Options& o, Printer& out, CLibraryHost& host)
{
    Header(out, "rollback");
    const DatabaseState before = ReadDatabaseState();
    const Loaded l = LoadAndAsk(host, out);
    out.json["before"] = DatabaseJson(before);
    if (FAILED(l.load))
        return Finish(out, kExitFailed);

    out.Row("backup", BackupText(before));
    if (RefuseForeignBackup(out, before, "roll back"))
        return Finish(out, kExitRefused);
    // Rollback deletes the database key and then copies the backup key back. With a
    // converter present and "Backup" naming a key that is gone, only the delete
    // would happen.
    if (l.target != 0 && before.backupValue && !before.backupValue->empty()) {
        const REGSAM view = BackupViewFor(l.current);
        const bool exists = KeyExists(before.backupValue->c_str(), view);
        out.Row("backup key", Fmt("%s (%s view)", exists ? "present" : "MISSING", ViewName(view)));
        out.json["backupKey"] = {{"path", U8(*before.backupValue)}, {"view", ViewName(view)}, {"exists", exists}};
        if (!exists && !o.force) {
            const std::string path = U8(*before.backupValue);
            const std::string explanation = Fmt(
                "refusing to roll back: \"Backup\" names HKLM\\%s, but that key does not exist in the %s view.\n"
                "  Rollback deletes HKLM\\SOFTWARE\\Norvane\\DB (the library's own view) and then restores it\n"
                "  from the backup key. Without the backup nothing would be restored: the database key, its\n"
                "  \"Version\", name indexes and policies%s would be deleted for good.\n"
                "  Run \"nvdbconv rollback --force\" to roll back anyway.",
                path.c_str(), ViewName(view),
                before.usersKey ? Fmt(" and the %lu user keys under Data\\Users",
                                      static_cast<unsigned long>(before.userKeys)).c_str()
                                : "");
            out.Problem(explanation);
            out.json["refused"] = true;
            out.json["reason"] = explanation;
            return Finish(out, kExitRefused);
        }
    }
    out.json["refused"] = false;
    const HRESULT hr = host.Rollback();
    out.Row("Rollback", DescribeResult(hr, "Rollback"));
    out.json["rollback"] = ResultJson(hr, "Rollback");
    const DatabaseState after = ReadDatabaseState();
    out.Row("now", Verdict(after));
    out.Row("backup", BackupText(after));
    out.json["after"] = DatabaseJson(after);
    if (FAILED(hr))
        out.Problem("Rollback failed: " + DescribeResult(hr));
    return Finish(out, SUCCEEDED(hr) ? kExitOk : kExitFailed);
}

int Cleanup(const Options&, Printer& out, CLibraryHost& host)
{
    Header(out, "cleanup");
    const DatabaseState before = ReadDatabaseState();
    const Loaded l = LoadAndAsk(host, out);
    out.json["before"] = DatabaseJson(before);
    if (FAILED(l.load))
        return Finish(out, kExitFailed);
    out.Row("backup", BackupText(before));
    if (RefuseForeignBackup(out, before, "clean up"))
        return Finish(out, kExitRefused);
    out.json["refused"] = false;
    const HRESULT hr = host.Cleanup();
    out.Row("Cleanup", DescribeResult(hr, "Cleanup"));
    out.json["cleanup"] = ResultJson(hr, "Cleanup");
    const DatabaseState after = ReadDatabaseState();
    out.Row("MainDB", after.mainDb ? "present" : "absent");
    out.Row("user keys", UserKeysText(after));
    out.Row("backup keys", BackupKeysText(after));
    out.Row("now", Verdict(after));
    out.json["after"] = DatabaseJson(after);
    if (FAILED(hr))
        out.Problem("Cleanup failed: " + DescribeResult(hr));
    return Finish(out, SUCCEEDED(hr) ? kExitOk : kExitFailed);
}

int Registration(bool doRegister, Printer& out, CLibraryHost& host)
{
    const char* name = doRegister ? "register" : "unregister";
    const char* call = doRegister ? "DllRegisterServer" : "DllUnregisterServer";
    Header(out, name);
    const HRESULT load = host.Load();
    out.Row("library", U8(host.path()));
    out.json["dll"] = U8(host.path());
    out.json["load"] = ResultJson(load);
    if (FAILED(load)) {
        out.Problem("cannot load " + U8(host.path()) + ": " + DescribeResult(load));
        return Finish(out, kExitFailed);
    }
    WarnIfTraceRefused(out, host);
    // Uninstallers unregister without asking first: with no component list there is
    // nothing to remove, and the library's "file not found" for it is no failure.
    const bool listBefore = KeyExists(kSysComponentsKeyPath, 0);
    const HRESULT hr = doRegister ? host.Register() : host.Unregister();
    const bool nothingRegistered = !doRegister && !listBefore && hr == HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
    out.Row(call, DescribeResult(hr));
    out.json[doRegister ? "register" : "unregister"] = ResultJson(hr);
    if (!doRegister) {
        out.json["nothingRegistered"] = nothingRegistered;
        if (nothingRegistered)
            out.Row("unregistered", "nothing was registered (no HKLM\\SOFTWARE\\Norvane\\Core\\SysComponents)");
    }
    const auto components = ReadComponents();
    out.Row("components", components.empty() ? std::string("none in HKLM\\SOFTWARE\\Norvane\\Core\\SysComponents")
                                             : Fmt("%zu in HKLM\\SOFTWARE\\Norvane\\Core\\SysComponents",
                                                   components.size()));
    Json list = Json::object();
    for (const auto& [name, text] : components) {
        out.Line("    " + U8(name) + " = " + U8(text));
        list[U8(name)] = U8(text);
    }
    out.json["components"] = list;
    if (FAILED(hr) && !nothingRegistered)
        out.Problem(std::string(call) + " failed: " + DescribeResult(hr));
    return Finish(out, SUCCEEDED(hr) || nothingRegistered ? kExitOk : kExitFailed);
}

int Trace(const Options& o, Printer& out, const std::wstring& dllPath)
{
    Header(out, "trace");
    HRESULT hr = S_OK;
    if (!o.traceShow) {
        TraceChange change;
        change.on = o.traceOn;
        change.verbosity = o.verbosity;
        change.fileName = o.file;
        // The format's default starts the file anew in every process that loads the
        // library, so each command would wipe the trace of the one before (upgrade's
        // steps included): a trace asked for here appends unless told otherwise.
        change.newFileAlways = o.traceOn ? std::optional<DWORD>(o.newFileAlways.value_or(0)) : o.newFileAlways;
        hr = WriteTraceSettings(change);
        out.Row("settings", std::string(o.traceOn ? "on" : "off") + ": " + DescribeResult(hr));
        out.json["on"] = o.traceOn;
        out.json["write"] = ResultJson(hr);
    }
    const TraceSettings now = ReadTraceSettings();
    ShowTrace(out, now, dllPath);
    WarnIfTraceTruncates(out, now, dllPath);
    out.json["trace"] = TraceJson(now, dllPath);
    if (FAILED(hr))
        out.Problem("writing HKLM\\SOFTWARE\\Norvane\\Tracing failed: " + DescribeResult(hr));
    return Finish(out, SUCCEEDED(hr) ? kExitOk : kExitFailed);
}

// Version.dll is not among the libraries Windows always takes from the system
// directory, so nvdbconv.exe does not import it: it is loaded here, from there.
std::string FileVersionOf(const std::wstring& path)
{
    using GetSizeFn = DWORD(WINAPI*)(LPCWSTR, LPDWORD);
    using GetInfoFn = BOOL(WINAPI*)(LPCWSTR, DWORD, DWORD, LPVOID);
    using QueryFn = BOOL(WINAPI*)(LPCVOID, LPCWSTR, LPVOID*, PUINT);
    nv::unique_hmodule versionDll(nv::LoadSystemLibrary(L"version.dll"));
    const auto getSize = nv::GetProcAs<GetSizeFn>(versionDll.get(), "GetFileVersionInfoSizeW");
    const auto getInfo = nv::GetProcAs<GetInfoFn>(versionDll.get(), "GetFileVersionInfoW");
    const auto query = nv::GetProcAs<QueryFn>(versionDll.get(), "VerQueryValueW");
    if (!getSize || !getInfo || !query)
        return std::string();
    DWORD handle = 0;
    const DWORD size = getSize(path.c_str(), &handle);
    if (size == 0)
        return std::string();
    std::vector<BYTE> data(size);
    if (!getInfo(path.c_str(), 0, size, data.data()))
        return std::string();
    VS_FIXEDFILEINFO* info = nullptr;
    UINT len = 0;
    if (!query(data.data(), L"\\", reinterpret_cast<void**>(&info), &len) || !info)
        return std::string();
    return Fmt("%lu.%lu.%lu.%lu", static_cast<unsigned long>(HIWORD(info->dwFileVersionMS)),
               static_cast<unsigned long>(LOWORD(info->dwFileVersionMS)),
               static_cast<unsigned long>(HIWORD(info->dwFileVersionLS)),
               static_cast<unsigned long>(LOWORD(info->dwFileVersionLS)));
}

int Version(Printer& out, CLibraryHost& host)
{
    Header(out, "version");
    out.Row("nvdbconv", NV_VERSION_TEXT);
    out.json["version"] = NV_VERSION_TEXT;
    out.Row("library", U8(host.path()));
    out.json["dll"] = U8(host.path());
    const std::string fileVersion = FileVersionOf(host.path());
    out.Row("file version", fileVersion.empty() ? std::string("none (no version resource)") : fileVersion);
    out.json["fileVersion"] = fileVersion.empty() ? Json(nullptr) : Json(fileVersion);
    const HRESULT load = host.Load();
    out.json["load"] = ResultJson(load);
    if (FAILED(load)) {
        out.Row("LoadLibrary", DescribeResult(load));
        out.Problem("cannot load " + U8(host.path()) + ": " + DescribeResult(load));
        return Finish(out, kExitFailed);
    }
    WarnIfTraceRefused(out, host);
    std::string present, missing;
    Json exports = Json::object();
    for (size_t i = 0; i < kLibraryExportCount; ++i) {
        const bool has = host.HasExport(kLibraryExports[i]);
        std::string& list = has ? present : missing;
        if (!list.empty())
            list += " ";
        list += kLibraryExports[i];
        exports[kLibraryExports[i]] = has;
    }
    out.json["exports"] = exports;
    out.Row("exports", present);
    if (!missing.empty())
        out.Row("missing", missing);
    return Finish(out, missing.empty() && !fileVersion.empty() ? kExitOk : kExitFailed);
}

int Store(Printer& out)
{
    Header(out, "store");
    const StoreServerState server = ReadStoreServer();
    out.Row("server", server.registered ? "registered: " + U8(server.path) : std::string("not registered"));
    out.json["server"] = StoreServerJson(server);

    const StoreSummary s = ReadStoreSummary();
    out.Row("users", Fmt("%zu in HKLM\\SOFTWARE\\Norvane\\Store (64-bit view), %zu registered", s.users.size(),
                         s.registered));
    Json users = Json::array();
    for (const StoreUserSummary& u : s.users) {
        std::string positions;
        for (DWORD p : u.templates)
            positions += (positions.empty() ? "" : ",") + std::to_string(p);
        std::string names;
        for (const std::wstring& n : u.secrets)
            names += (names.empty() ? "" : ", ") + U8(n);
        out.Line(Fmt("    %-44s secrets %zu (%zu open with the user's key)%s%s, templates %zu%s%s, payload %s, %s",
                     U8(u.sid).c_str(), u.secrets.size(), u.secretsOpen, names.empty() ? "" : ": ", names.c_str(),
                     u.templates.size(), positions.empty() ? "" : " at ", positions.c_str(),
                     u.payload ? "yes" : "no", u.registered ? "registered" : "not registered"));
        Json secrets = Json::array();
        for (const std::wstring& n : u.secrets)
            secrets.push_back(U8(n));
        users.push_back({{"sid", U8(u.sid)},
                         {"secrets", secrets},
                         {"secretsOpen", u.secretsOpen},
                         {"templates", u.templates},
                         {"payload", u.payload},
                         {"keyPair", u.keyPair},
                         {"password", u.password},
                         {"registered", u.registered}});
    }
    out.json["users"] = users;
    out.Row("total", Fmt("%s, %s (%zu open with their user's key), %s", Counted(s.users.size(), "user").c_str(),
                         Counted(s.secrets(), "secret").c_str(), s.secretsOpen(),
                         Counted(s.templates(), "template").c_str()));
    out.json["totals"] = {{"users", s.users.size()},
                          {"registered", s.registered},
                          {"secrets", s.secrets()},
                          {"secretsOpen", s.secretsOpen()},
                          {"templates", s.templates()}};
    return Finish(out, kExitOk);
}

} // namespace

bool StdoutIsTerminal()
{
    DWORD mode = 0;
    if (::GetConsoleMode(::GetStdHandle(STD_OUTPUT_HANDLE), &mode))
        return true;
    return _isatty(_fileno(stdout)) != 0;
}

void WriteOut(const std::string& utf8)
{
    std::fwrite(utf8.data(), 1, utf8.size(), stdout);
    std::fflush(stdout);
}

void WriteErr(const std::string& utf8)
{
    std::fwrite(utf8.data(), 1, utf8.size(), stderr);
    std::fflush(stderr);
}

int Run(const Options& o)
{
    Printer out(o);
    CLibraryHost host(AbsolutePath(o.dll.empty() ? DefaultLibraryPath() : o.dll));
    switch (o.command) {
    case Command::Status:
        return Status(out, host);
    case Command::Convert:
        return Convert(o, out, host);
    case Command::Rollback:
        return Rollback(o, out, host);
    case Command::Cleanup:
        return Cleanup(o, out, host);
    case Command::Register:
        return Registration(true, out, host);
    case Command::Unregister:
        return Registration(false, out, host);
    case Command::Trace:
        return Trace(o, out, host.path());
    case Command::Version:
        return Version(out, host);
    case Command::Store:
        return Store(out);
    case Command::Policy:
        return Policy(o, out);
    case Command::Upgrade:
        return Upgrade(o, out, host.path());
    case Command::Check:
        return Check(out);
    default:
        WriteErr(ShortUsageText());
        return kExitUsage;
    }
}

} // namespace nvdbconv
