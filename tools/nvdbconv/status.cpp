// nvdbconv status: what the database, the library, the storage server, the trace
// settings and the policy are now; it changes nothing.
#include "command_support.h"

#include <nlohmann/json.hpp>

#include "result_codes.h"

namespace nvdbconv {

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
    const std::string unnamed = UnnamedBackupAdvice(db);
    if (!unnamed.empty()) {
        out.Row("unnamed backup", unnamed);
        out.json["unnamedBackupAdvice"] = unnamed;
    }
    const StoreServerState store = ReadStoreServer();
    out.Row("store server", StoreServerText(store) + (store.registered ? "" : " (a 2.0 conversion needs it)"));
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

} // namespace nvdbconv
