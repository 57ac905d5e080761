// nvdbconv cleanup: the library's Cleanup, which removes the backup (and, after
// 2.0 -> 3.0, the old database once no user is left in it).
#include "command_support.h"

#include <nlohmann/json.hpp>

#include "result_codes.h"

namespace nvdbconv {

int Cleanup(Printer& out, CLibraryHost& host)
{
    Header(out, "cleanup");
    const BackupStep step = OpenBackupStep(out, host, "clean up");
    if (step.stop)
        return *step.stop;
    out.json["refused"] = false;
    const HRESULT hr = ReportCall(out, "Cleanup", "cleanup", host.Cleanup());
    const DatabaseState after = ReadDatabaseState();
    out.Row("MainDB", after.mainDb ? "present" : "absent");
    out.Row("user keys", UserKeysText(after));
    out.Row("backup keys", BackupKeysText(after));
    out.Row("now", Verdict(after));
    out.json["after"] = DatabaseJson(after);
    const std::string unnamed = hr == S_FALSE ? UnnamedBackupAdvice(after) : std::string();
    if (!unnamed.empty()) {
        out.Warning(unnamed);
        out.json["unnamedBackupAdvice"] = unnamed;
    }
    return FinishCall(out, "Cleanup", hr);
}

} // namespace nvdbconv
