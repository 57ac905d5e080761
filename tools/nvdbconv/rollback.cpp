// nvdbconv rollback: the library's Rollback, refused when it would delete the
// database and restore nothing.
#include "command_support.h"

#include <nlohmann/json.hpp>

#include "result_codes.h"

namespace nvdbconv {

int Rollback(const Options& o, Printer& out, CLibraryHost& host)
{
    Header(out, "rollback");
    const BackupStep step = OpenBackupStep(out, host, "roll back");
    if (step.stop)
        return *step.stop;
    const DatabaseState& before = step.before;
    const Loaded& l = step.loaded;
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
    const HRESULT hr = ReportCall(out, "Rollback", "rollback", host.Rollback());
    const DatabaseState after = ReadDatabaseState();
    out.Row("now", Verdict(after));
    out.Row("backup", BackupText(after));
    out.json["after"] = DatabaseJson(after);
    // S_OK while the backup stays: the library's Rollback did not reach the database.
    const std::string advice = hr == S_OK ? NotRestoredAdvice(after, l.current, false) : std::string();
    if (!advice.empty()) {
        out.Warning(advice);
        out.json["notRestoredAdvice"] = advice;
    }
    return FinishCall(out, "Rollback", hr);
}

} // namespace nvdbconv
