// What the commands share: the database state, the trace settings, the storage
// server and the policy in words and in JSON, and the library's load and version
// question with which most commands begin.
#pragma once
#include <windows.h>
#include <optional>
#include <string>
#include <vector>

#include "cli.h"
#include "commands.h"
#include "console.h"
#include "dbstate.h"
#include "format.h"
#include "json.h"
#include "library_host.h"
#include "policy.h"

namespace nvdbconv {

// Where the database key is: "HKLM\SOFTWARE\Norvane\DB, 32-bit view", ...
std::string DatabasePlace(const DatabaseState& s);
// The format the registry shows: "none", "1.0", "2.0", "3.0" or "unknown".
std::string LayoutOf(const DatabaseState& s);
// One line on what the database is and what convert would do with it.
std::string Verdict(const DatabaseState& s);
std::string UserKeysText(const DatabaseState& s);
std::string BackupText(const DatabaseState& s);
// Whether each backup key exists, in the view the library uses for it.
std::string BackupKeysText(const DatabaseState& s);
Json DatabaseJson(const DatabaseState& s);
// What convert and upgrade say of a database whose layout is already 3.0.
std::string AlreadyConvertedText();
// What an interrupted run can leave on a finished database, and convert removes:
// whether "Backup" names a backup key of the library (not foreign, not empty); the
// row for the backup key removed with Cleanup; the row for a "Backup" removed because
// the key it names is gone.
bool NamesOwnBackup(const DatabaseState& s);
std::string LeftoverBackupKeyText(const std::wstring& backup, HRESULT cleanup);
std::string LeftoverBackupValueText(const std::wstring& backup, HRESULT removal);
// "HKLM\SOFTWARE\Norvane\DB\...: value "X" is empty; the backup cannot copy empty values"
std::string EmptyValueText(const EmptyValue& v);
// {"key","value"}, or null when there is no empty value.
Json EmptyValueJson(const std::optional<EmptyValue>& v);

// After a Rollback that answered S_OK, or a Convert that failed in its step (whose
// own rollback then ran): "Backup" (of the library's own) still naming a backup key
// that is there means the database was not restored (a restore deletes that key).
// The library's Rollback deletes and restores the database key in its own (64-bit)
// view while the converters keep the database in the 32-bit view, so it changes
// nothing there. What is left and what to do; empty when there is no such backup.
// databaseVersion: the version the library found at load, which tells the backup's
// view.
std::string NotRestoredAdvice(const DatabaseState& after, DWORD databaseVersion, bool afterFailedStep);
// A backup key that no "Backup" names: a backup that failed half way (an empty value)
// leaves it. What it holds and what removes it; empty when there is none.
std::string UnnamedBackupAdvice(const DatabaseState& s);

// What a foreign "Backup" means and what to do about it; empty when it is not.
std::string ForeignBackupAdvice(const DatabaseState& s);
// rollback and cleanup stop on a foreign "Backup" whatever the options say: says so
// (problem line, JSON "refused"/"reason") and returns true.
bool RefuseForeignBackup(Printer& out, const DatabaseState& s, const char* operation);

// "registered: <path>" or "not registered".
std::string StoreServerText(const StoreServerState& s);
// {"registered","path"}: the storage server's registration (path null when none).
Json StoreServerJson(const StoreServerState& s);

// The trace settings in words, as rows (with the file they send the trace to), and in JSON.
std::string TraceText(const TraceSettings& t);
void ShowTrace(Printer& out, const TraceSettings& t, const std::wstring& dllPath);
Json TraceJson(const TraceSettings& t, const std::wstring& dllPath);
// Warns when the settings start the trace file anew in every process.
void WarnIfTraceTruncates(const Printer& out, const TraceSettings& t, const std::wstring& dllPath);

// The conversion policy and the users the strict policy keeps. The policy command
// shows all of it; status (brief) shows the policy only when it is not the default,
// and the held users when there are any.
void ShowPolicy(Printer& out, const PolicyState& policy, const std::vector<HeldUser>& held, bool brief);

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

// How rollback and cleanup begin: the database before, the library loaded and asked,
// the "Backup" value shown, and a foreign one refused. stop holds the exit code
// (already printed by Finish) when the command ends there.
struct BackupStep {
    DatabaseState before;
    Loaded loaded;
    std::optional<int> stop;
};
BackupStep OpenBackupStep(Printer& out, CLibraryHost& host, const char* operation);
// The library's answer to call ("Rollback", "Cleanup") as a row and as json[member].
HRESULT ReportCall(Printer& out, const char* call, const char* member, HRESULT hr);
// The end of such a command: a problem line when the call failed, and the exit code.
int FinishCall(Printer& out, const char* call, HRESULT hr);

} // namespace nvdbconv
